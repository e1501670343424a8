// kfs/client/kfs.h: the client side of the KFS protocol, the agent's link to
// the remote storage service. Every operation returns a small unsigned
// result code (0 for success, an ERR_* code below otherwise); the service
// reports each request's result in the status byte of its response with the
// same codes. The client writes no messages of its own.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <openssl/evp.h>

// Result codes, shared by client and service. Gaps (8, 22, 26..234,
// 236..253) have no name.
enum : uint32_t {
  ERR_NONE = 0,
  ERR_BADPATH = 1,
  ERR_NOTDIR = 2,
  ERR_NOTFILE = 3,
  ERR_ACCESS = 4,
  ERR_IO = 5,
  ERR_EXISTS = 6,
  ERR_FDMAX = 7,
  ERR_SEQUENCE = 9,
  ERR_DATAMAX = 10,
  ERR_TIMEOUT = 11,
  ERR_FSACCESS = 12,
  ERR_BADKEY = 13,
  ERR_NOTEMPTY = 14,
  ERR_BUSY = 15,
  ERR_EOF = 16,
  ERR_UP2DATE = 17,
  ERR_INVARG = 18,
  ERR_FINDMAX = 19,
  ERR_NOCSUM = 20,
  ERR_AUTH_FAILURE = 21,
  ERR_ACCOUNT_STATUS_INACTIVE = 23,
  ERR_USER_LOCKED = 24,
  ERR_ACCOUNT_STATUS_PENDING = 25,
  ERR_BAD_PROTOCOL_VERSION = 235,
  ERR_SCKREAD = 254,
  ERR_SCKWRITE = 255,
};

// Message types; a response is its request's type plus KFS_RESPONSE.
enum : uint8_t {
  KFS_SESSION_HANDSHAKE = 0,
  KFS_SESSION_AUTH = 1,
  KFS_SESSION_CLOSE = 2,
  KFS_STAT = 3,
  KFS_MOVE = 4,
  KFS_COPY = 5,
  KFS_DELETE = 6,
  KFS_MKDIR = 7,
  KFS_FIND_FILES = 8,
  KFS_EMAIL = 10,
  KFS_FILE_READ = 11,
  KFS_FILE_WRITE = 12,
  KFS_FILE_CLOSE = 13,
  KFS_SETOPT = 15,
  KFS_FIND_USERS = 16,
  KFS_FILE_WOPEN = 17,
  KFS_FILE_ROPEN = 18,
  KFS_MGNT = 20,
  KFS_USER_LOCK = 21,
  KFS_SYNC_LOGIN = 64,
  KFS_SYNC_CONTROL = 65,
  KFS_RESPONSE = 0x80,
};

// Authentication modes: the first body byte of KFS_SESSION_AUTH. Mode 2 is
// reserved and never used.
enum : uint8_t {
  AUTH_MODE_USER = 0,
  AUTH_MODE_AGENT = 1,
  AUTH_MODE_ENCRYPTION_TOKEN = 3,
  AUTH_MODE_WEB = 4,
};

enum : uint8_t {
  ACC_TYPE_REGULAR = 0,
  ACC_TYPE_HOUSE = 1,
  ACC_TYPE_DEVELOPMENT = 2,
};

// Management items of KFS_MGNT: MGNT_U_* concern one user, MGNT_A_* the
// account.
enum : uint8_t {
  MGNT_U_USERNAME = 0,
  MGNT_U_PASSWORD = 1,
  MGNT_U_FIRSTNAME = 2,
  MGNT_U_LASTNAME = 3,
  MGNT_U_EMAIL = 4,
  MGNT_U_PHONE = 5,
  MGNT_U_FAX = 6,
  MGNT_U_MACHINE_TOKEN_CLEAR = 7,
  MGNT_U_MACHINE_TOKEN_ADD = 8,
  MGNT_U_HISTORY_SLOTS = 9,
  MGNT_A_USER_CREATE = 10,
  MGNT_A_USER_DELETE = 11,
  MGNT_A_ACC_BILLING_GET = 12,
  MGNT_A_ACC_BILLING_SET = 13,
  MGNT_A_ACC_IPLOCK_CREATE = 14,
  MGNT_A_ACC_IPLOCK_DELETE = 15,
  MGNT_A_ACC_IPLOCK_FIND = 16,
  MGNT_A_ACC_IPLOCK_RENAME = 17,
  MGNT_A_ACC_IPLOCK_GET = 18,
  MGNT_A_ACC_IPLOCK_SET = 19,
  MGNT_A_USER_IPLOCK_GET = 20,
  MGNT_A_USER_IPLOCK_SET = 21,
  MGNT_A_ACC_CREATE = 22,
  MGNT_A_ACC_DELETE = 23,
  MGNT_A_USER_ACCESSIBLE_LIST_SET = 24,
};

// Printable names of codes. Each returns a constant text that the caller
// must not free, or the function's fallback for a code without an entry
// (the comparisons are unsigned, so a negative code held in a signed
// variable gets the fallback too):
//   kfs_type_name      message types 0..193       "KFS_UNKNOWN"
//   kfs_err_name       result codes                "ERR_UNKNOWN"
//   kfs_err_message    result codes, in words      "ERR_DESCRIPTION_UNKNOWN"
//   kfs_mgnt_name      management items 0..24      "MGNT_UNKNOWN"
//   kfs_auth_mode_name authentication modes 0..4   "AUTH_MODE_UNKNOWN"
//   kfs_acc_type_name  account types 0..2          "ACC_TYPE_UNKNOWN"
const char* kfs_type_name(uint32_t code);
const char* kfs_err_name(uint32_t code);
const char* kfs_err_message(uint32_t code);
const char* kfs_mgnt_name(uint32_t code);
const char* kfs_auth_mode_name(uint32_t code);
const char* kfs_acc_type_name(uint32_t code);

// Counts one more user of the client library. Returns 0.
int kfs_library_init();

// Counts one user less; the count never goes below 0.
void kfs_library_cleanup();

// The current use count; sessions refuse to open while it is 0.
int kfs_library_use_count();

// ---------------------------------------------------------------------------
// Messages. Multi-byte fields on the wire are big-endian. A plain message is
// a 6-byte header (u16 data_length, u8 type, u16 sequence, u8 status) and
// data_length body bytes.

constexpr uint32_t KFS_HEADER_SIZE = 6;
constexpr uint32_t KFS_BUFFER_SIZE = 65505;  // header and the largest body
constexpr uint32_t KFS_MAX_BODY = KFS_BUFFER_SIZE - KFS_HEADER_SIZE;
// KFS_FILE_WRITE carries 4 bytes of fields and at most this many data bytes.
constexpr uint32_t KFS_MAX_WRITE_DATA = 65491;
// Bit of kfs_message.flags: the request is answered.
constexpr uint32_t KFS_FLAG_EXPECTS_RESPONSE = 1;
// Bit of a KFS_FILE_WRITE's flags byte: the service sends no response.
constexpr uint8_t KFS_WRITE_NO_ACK = 0x08;

// A session's one message record: the header fields in host order, then
// the serialised message, then the session's flags word. The whole record
// is copied aside when a request must survive a re-connection.
struct kfs_message {
  uint16_t data_length;
  uint8_t type;
  uint16_t sequence;  // always 0 from the client; a response must match
  uint8_t status;     // a response's result; echoed by the next request
  // While a request is built: the body at offset 0. Once built, or as sent
  // and received: header and body. After a receive: the body at offset 0.
  uint8_t buffer[KFS_BUFFER_SIZE];
  uint32_t flags;
};
static_assert(sizeof(kfs_message) == 65516);

// Writing a body: a cursor over message->buffer that refuses a field that
// would not fit in KFS_MAX_BODY (returning -1 and writing nothing), so a
// builder checks once at the end with kfs_body_ok.
struct kfs_body {
  uint8_t* data;
  uint32_t length;
  bool overflow;
};

void kfs_body_begin(kfs_message* message, kfs_body* body);
int kfs_put_u8(kfs_body* body, uint8_t v);
int kfs_put_u16(kfs_body* body, uint16_t v);
int kfs_put_u32(kfs_body* body, uint32_t v);
int kfs_put_u64(kfs_body* body, uint64_t v);
int kfs_put_bytes(kfs_body* body, const void* data, uint32_t n);
// A str8 carries the text's length modulo 256 and that many bytes; a str16
// its full length (a text of 65536 bytes or more does not fit a body).
int kfs_put_str8(kfs_body* body, const char* text);
int kfs_put_str16(kfs_body* body, const char* text);
inline bool kfs_body_ok(const kfs_body* body) {
  return !body->overflow;
}

// Turns the body written at the start of message->buffer into a request of
// the given type: sets data_length, moves the body behind the header and
// writes the header in network order with the record's sequence and its
// status byte (deliberately not cleared: a request echoes the last
// response's status). Sets the expects-response flag; a caller whose
// request is not answered clears it afterwards.
// REQUIRES: body_length <= KFS_MAX_BODY.
void kfs_request_finish(kfs_message* message, uint8_t type,
                        uint32_t body_length);

// Builds a KFS_FILE_WRITE request: u8 handle, u8 flags, u16 n and n data
// bytes. Returns 0, or ERR_DATAMAX with the record untouched when n is
// above KFS_MAX_WRITE_DATA. Flags bit 3 asks for no acknowledgement: the
// expects-response flag is then cleared.
uint32_t kfs_build_file_write(kfs_message* message, uint8_t handle,
                              uint8_t flags, const void* data, uint32_t n);

// Reading a received body: a cursor over message->buffer[0..data_length).
// A read past the end returns 0 and marks the reader failed, so a parser
// may read every field and test kfs_reader_ok once.
struct kfs_reader {
  const uint8_t* data;
  uint32_t length;
  uint32_t pos;
  bool failed;
};

void kfs_reader_begin(const kfs_message* message, kfs_reader* reader);
uint8_t kfs_get_u8(kfs_reader* reader);
uint16_t kfs_get_u16(kfs_reader* reader);
uint32_t kfs_get_u32(kfs_reader* reader);
uint64_t kfs_get_u64(kfs_reader* reader);
// Copies n raw bytes to out (zeros on failure).
void kfs_get_bytes(kfs_reader* reader, void* out, uint32_t n);
// Copy a str8 / str16 into out with a NUL behind it and return 0. Return 1
// with nothing copied and nothing consumed when its length n is 0, when n
// is not below out_size, or when the body ends first; a parser that must
// accept an empty text tests the length itself first.
int kfs_get_str8(kfs_reader* reader, char* out, size_t out_size);
int kfs_get_str16(kfs_reader* reader, char* out, size_t out_size);
inline bool kfs_reader_ok(const kfs_reader* reader) {
  return !reader->failed;
}

// ---------------------------------------------------------------------------
// Packets. On the wire: u16 cipher_length (0 stands for 65536), u32 CRC-32
// of the plain message, then the plain message enciphered as a whole.

constexpr uint32_t KFS_KEY_SIZE = 32;
constexpr uint32_t KFS_IV_SIZE = 16;
constexpr uint32_t KFS_CIPHER_TEXT_SIZE = KFS_BUFFER_SIZE + 16;
// Encryption modes: 3 enciphers packets with AES-256-CBC; every other mode
// sends them in the clear (the identity cipher).
constexpr int KFS_MODE_AES = 3;

// One per connection, created by the handshake and freed on disconnect.
// Every packet is enciphered as a fresh CBC chain from the zero iv, so two
// equal messages give equal packets; both ends must do the same.
struct kfs_packet_cipher {
  uint8_t cork;  // cork the socket around each packet write
  uint8_t header[KFS_HEADER_SIZE];
  uint8_t cipher_text[KFS_CIPHER_TEXT_SIZE];
  const EVP_CIPHER* cipher;
  uint8_t key[KFS_KEY_SIZE];
  uint8_t iv[KFS_IV_SIZE];      // all zero, never changed
  EVP_CIPHER_CTX* decrypt_ctx;  // padding on
  EVP_CIPHER_CTX* encrypt_ctx;  // padding on
};

// A new context for the mode and key; never fails (out of memory ends the
// process). Free with kfs_cipher_free.
kfs_packet_cipher* kfs_cipher_new(int mode, const uint8_t key[KFS_KEY_SIZE],
                                  uint8_t cork);
// Replaces the key and restarts both directions with it.
void kfs_cipher_set_key(kfs_packet_cipher* ctx,
                        const uint8_t key[KFS_KEY_SIZE]);
// Copy out the key (the cipher's key length: 32, or 0 for the identity
// cipher) and the iv (16, or 0); return the number of bytes copied.
int kfs_cipher_get_key(const kfs_packet_cipher* ctx, uint8_t* out);
int kfs_cipher_get_iv(const kfs_packet_cipher* ctx, uint8_t* out);
// Null is ignored.
void kfs_cipher_free(kfs_packet_cipher* ctx);

// Sends the built request in message->buffer as one packet. 0, or
// ERR_SCKWRITE when the socket fails (a peer that has gone away included:
// the process never gets SIGPIPE from here), or ERR_DATAMAX, with nothing
// sent, for a data_length above KFS_MAX_BODY.
uint32_t kfs_packet_send(int sock, kfs_packet_cipher* ctx,
                         kfs_message* message);

// Receives one packet into message: header fields decoded, body at the
// start of buffer. 0, or ERR_SCKREAD for a failed or short read, a bad
// checksum, or a plain message that does not fit the record; the whole
// packet is read in every case but a failed read, so the stream stays in
// step. No time-out: a peer that never answers blocks here.
uint32_t kfs_packet_recv(int sock, kfs_packet_cipher* ctx,
                         kfs_message* message);

// As kfs_packet_recv, and also copies the packet exactly as received (6
// header bytes and the cipher text) to raw, at most raw_size bytes, and
// stores its full length in *raw_length.
uint32_t kfs_packet_recv_raw(int sock, kfs_packet_cipher* ctx,
                             kfs_message* message, uint8_t* raw,
                             size_t raw_size, uint32_t* raw_length);

// ---------------------------------------------------------------------------
// Sockets.

// Receive exactly n bytes: n, or -1 when the peer closed or recv failed
// first; 0 when n is below 1.
int64_t sock_read_all(int sock, void* buffer, int64_t n);
// Send exactly n bytes (a send of 0 bytes is retried): n, or -1 when send
// failed; 0 when n is below 1. Never raises SIGPIPE.
int64_t sock_write_all(int sock, const void* buffer, int64_t n);
// As sock_write_all, with write(2) on any descriptor.
int64_t fd_write_all(int fd, const void* buffer, int64_t n);
// 1 when nothing is waiting to be read (a zero time-out check), else 0; 0
// for an invalid socket. A request/response socket that is readable while
// idle has been closed or broken by its peer.
int sock_is_idle(int sock);
// A TCP connection to host (a dotted address or a name) and port: the
// socket, or -1 (errno EINVAL for a missing or empty host or port 0).
int sock_connect(const char* host, uint16_t port);
