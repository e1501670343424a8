// kfs/client/kfs_internal.h: what the client's own files share: big-endian
// field access, the message header codec, and the session's two parsers of
// outside input (server lists, the login reply), which the fuzz targets call.
#pragma once

#include <stdint.h>

#include "kfs/client/kfs.h"

inline void put_be16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}

inline void put_be32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

inline uint16_t get_be16(const uint8_t* p) {
  return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

inline uint32_t get_be32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | p[3];
}

// Writes the record's four header fields to buffer[0..6).
inline void encode_header(kfs_message* m) {
  put_be16(m->buffer, m->data_length);
  m->buffer[2] = m->type;
  put_be16(m->buffer + 3, m->sequence);
  m->buffer[5] = m->status;
}

// Reads the four header fields from buffer[0..6).
inline void decode_header(kfs_message* m) {
  m->data_length = get_be16(m->buffer);
  m->type = m->buffer[2];
  m->sequence = get_be16(m->buffer + 3);
  m->status = m->buffer[5];
}

// Reads one server list file ("host:port" lines, '#' comments, trailing
// blanks ignored, lines without ':' or with a host of KFS_HOST_SIZE bytes
// or more skipped), appending entries to out until *count reaches max.
// False when the file cannot be opened. Shared with the fuzz targets, which
// parse lists without connecting anywhere.
bool kfs_read_server_list(const char* path, const char* mode,
                          kfs_server_entry* out, int max, int* count);

// Decodes the login reply of modes user, agent and web held in the
// session's record into the session (account, user name, agent time) and
// the server table (rewriting last_servers_path when servers are named).
// False, with the session unchanged but for its account record, for a reply
// that does not parse; *redirect says whether to log in again. Shared with
// the fuzz targets, which cannot reach it through the RSA key exchange.
bool kfs_take_login_reply(kfs_session* session, bool* redirect);
