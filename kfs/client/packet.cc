// Message records: building request bodies, the header in network order,
// and reading received bodies field by field.
#include <string.h>

#include "kfs/client/kfs.h"
#include "kfs/client/kfs_internal.h"

void kfs_body_begin(kfs_message* message, kfs_body* body) {
  body->data = message->buffer;
  body->length = 0;
  body->overflow = false;
}

namespace {

// Reserves n bytes of the body, or marks it overflowed and returns null.
uint8_t* reserve(kfs_body* body, uint64_t n) {
  if (body->overflow || n > KFS_MAX_BODY - body->length) {
    body->overflow = true;
    return nullptr;
  }
  uint8_t* at = body->data + body->length;
  body->length += static_cast<uint32_t>(n);
  return at;
}

// Takes n bytes from the reader, or marks it failed and returns null.
const uint8_t* take(kfs_reader* reader, uint32_t n) {
  if (reader->failed || n > reader->length - reader->pos) {
    reader->failed = true;
    return nullptr;
  }
  const uint8_t* at = reader->data + reader->pos;
  reader->pos += n;
  return at;
}

// A text behind a length field of len_size bytes; see kfs_get_str8.
int get_text(kfs_reader* reader, uint32_t len_size, char* out,
             size_t out_size) {
  if (reader->failed || len_size > reader->length - reader->pos) {
    return 1;
  }
  const uint8_t* at = reader->data + reader->pos;
  uint32_t n = len_size == 1 ? at[0] : get_be16(at);
  if (n == 0 || n >= out_size || n > reader->length - reader->pos - len_size) {
    return 1;
  }
  memcpy(out, at + len_size, n);
  out[n] = '\0';
  reader->pos += len_size + n;
  return 0;
}

}  // namespace

int kfs_put_u8(kfs_body* body, uint8_t v) {
  uint8_t* at = reserve(body, 1);
  if (at == nullptr) {
    return -1;
  }
  *at = v;
  return 0;
}

int kfs_put_u16(kfs_body* body, uint16_t v) {
  uint8_t* at = reserve(body, 2);
  if (at == nullptr) {
    return -1;
  }
  put_be16(at, v);
  return 0;
}

int kfs_put_u32(kfs_body* body, uint32_t v) {
  uint8_t* at = reserve(body, 4);
  if (at == nullptr) {
    return -1;
  }
  put_be32(at, v);
  return 0;
}

int kfs_put_u64(kfs_body* body, uint64_t v) {
  uint8_t* at = reserve(body, 8);
  if (at == nullptr) {
    return -1;
  }
  put_be32(at, static_cast<uint32_t>(v >> 32));
  put_be32(at + 4, static_cast<uint32_t>(v));
  return 0;
}

int kfs_put_bytes(kfs_body* body, const void* data, uint32_t n) {
  uint8_t* at = reserve(body, n);
  if (at == nullptr) {
    return -1;
  }
  memcpy(at, data, n);
  return 0;
}

int kfs_put_str8(kfs_body* body, const char* text) {
  // The length byte wraps: a 300-byte text goes out as its first 44 bytes.
  uint8_t n = static_cast<uint8_t>(strlen(text));
  uint8_t* at = reserve(body, 1u + n);
  if (at == nullptr) {
    return -1;
  }
  at[0] = n;
  memcpy(at + 1, text, n);
  return 0;
}

int kfs_put_str16(kfs_body* body, const char* text) {
  size_t n = strlen(text);
  if (n > 0xFFFF) {
    body->overflow = true;
    return -1;
  }
  uint8_t* at = reserve(body, 2 + n);
  if (at == nullptr) {
    return -1;
  }
  put_be16(at, static_cast<uint16_t>(n));
  memcpy(at + 2, text, n);
  return 0;
}

void kfs_request_finish(kfs_message* message, uint8_t type,
                        uint32_t body_length) {
  message->data_length = static_cast<uint16_t>(body_length);
  message->type = type;
  memmove(message->buffer + KFS_HEADER_SIZE, message->buffer, body_length);
  encode_header(message);
  message->flags |= KFS_FLAG_EXPECTS_RESPONSE;
}

uint32_t kfs_build_file_write(kfs_message* message, uint8_t handle,
                              uint8_t flags, const void* data, uint32_t n) {
  if (n > KFS_MAX_WRITE_DATA) {
    return ERR_DATAMAX;
  }
  kfs_body body;
  kfs_body_begin(message, &body);
  kfs_put_u8(&body, handle);
  kfs_put_u8(&body, flags);
  kfs_put_u16(&body, static_cast<uint16_t>(n));
  kfs_put_bytes(&body, data, n);
  kfs_request_finish(message, KFS_FILE_WRITE, body.length);
  if ((flags & KFS_WRITE_NO_ACK) != 0) {
    message->flags &= ~KFS_FLAG_EXPECTS_RESPONSE;
  }
  return 0;
}

void kfs_reader_begin(const kfs_message* message, kfs_reader* reader) {
  reader->data = message->buffer;
  reader->length = message->data_length;
  reader->pos = 0;
  reader->failed = false;
}

uint8_t kfs_get_u8(kfs_reader* reader) {
  const uint8_t* at = take(reader, 1);
  return at != nullptr ? at[0] : 0;
}

uint16_t kfs_get_u16(kfs_reader* reader) {
  const uint8_t* at = take(reader, 2);
  return at != nullptr ? get_be16(at) : 0;
}

uint32_t kfs_get_u32(kfs_reader* reader) {
  const uint8_t* at = take(reader, 4);
  return at != nullptr ? get_be32(at) : 0;
}

uint64_t kfs_get_u64(kfs_reader* reader) {
  const uint8_t* at = take(reader, 8);
  if (at == nullptr) {
    return 0;
  }
  return static_cast<uint64_t>(get_be32(at)) << 32 | get_be32(at + 4);
}

void kfs_get_bytes(kfs_reader* reader, void* out, uint32_t n) {
  const uint8_t* at = take(reader, n);
  if (at != nullptr) {
    memcpy(out, at, n);
  } else {
    memset(out, 0, n);
  }
}

int kfs_get_str8(kfs_reader* reader, char* out, size_t out_size) {
  return get_text(reader, 1, out, out_size);
}

int kfs_get_str16(kfs_reader* reader, char* out, size_t out_size) {
  return get_text(reader, 2, out, out_size);
}
