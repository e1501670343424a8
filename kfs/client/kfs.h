// kfs/client/kfs.h: the client side of the KFS protocol, the agent's link to
// the remote storage service. Every operation returns a small unsigned
// result code (0 for success, an ERR_* code below otherwise); the service
// reports each request's result in the status byte of its response with the
// same codes. The client writes no messages of its own.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <openssl/evp.h>

#include "lib/str_list.h"

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

// Deciphers and checks one whole packet already in memory (the 6-byte
// header and exactly the cipher text it announces) into message, as
// kfs_packet_recv does after reading it: 0, or ERR_SCKREAD.
uint32_t kfs_packet_decode(kfs_packet_cipher* ctx, const uint8_t* packet,
                           size_t n, kfs_message* message);

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

// ---------------------------------------------------------------------------
// Sessions. One kfs_session is the whole state of one conversation with the
// service: identity, server lists, socket, packet cipher and the message
// record. It is opened lazily: the first request finds no socket and
// kfs_transact opens the session, and re-opens it after a broken link.

constexpr int KFS_MAX_SERVERS = 32;
constexpr int KFS_MAX_LAST_SERVERS = 2;
constexpr size_t KFS_HOST_SIZE = 16;  // a dotted quad or a short name
constexpr size_t KFS_PATH_SIZE = 128;
constexpr size_t KFS_TEXT_SIZE = 256;  // any str8 with its NUL

struct kfs_server_entry {
  char host[KFS_HOST_SIZE];
  uint32_t port;
};

// Process-wide, unlocked: sessions are opened from one thread at a time.
struct kfs_server_table {
  int count;       // configured servers (etc/hosts)
  int last_count;  // servers the service named last (etc/hosts.agent)
  kfs_server_entry servers[KFS_MAX_SERVERS];
  kfs_server_entry last[KFS_MAX_LAST_SERVERS];
};

// What the login reply says about the account; the agent reads only the
// canonical user name (kept in user_name), account_flag and agent_time.
struct kfs_account {
  uint32_t value1;            // account id
  char text1[KFS_TEXT_SIZE];  // account name
  uint8_t byte1;              // account type (ACC_TYPE_*)
  char text2[KFS_TEXT_SIZE];  // plan name
  uint32_t value2;
  char text3[KFS_TEXT_SIZE];  // user's e-mail
  uint8_t byte2, byte3;
  char text4[KFS_TEXT_SIZE];
  char text5[KFS_TEXT_SIZE];
  uint64_t size1;  // quota in bytes
  uint64_t size2;  // bytes used
  uint8_t byte4;
};

struct kfs_session;
// Asked whether to authenticate again after a failure; non-zero: retry.
using kfs_auth_retry_fn = int (*)(kfs_session* session, uint32_t code,
                                  uint32_t detail);
using kfs_mode_fn = void (*)(kfs_session* session, int encryption_mode);
using kfs_connected_fn = void (*)(kfs_session* session);

struct kfs_session {
  int auth_mode;       // AUTH_MODE_*; the agent uses AUTH_MODE_AGENT
  char user_name[21];  // modes user and web; then the name the service gives
  char password[23];
  uint32_t user_id;  // mode agent
  uint8_t client_digest[20];
  uint8_t account_flag;
  uint8_t token_digest[20];  // SHA-1 of the account key
  char web_text[KFS_PATH_SIZE];
  char server_list_path[KFS_PATH_SIZE];   // the agent: "etc/hosts"
  char last_servers_path[KFS_PATH_SIZE];  // "etc/hosts.agent"; "" disables
  char pem_path[KFS_PATH_SIZE];           // "temp_pem_file.pem"
  int socket;                             // -1 when not connected
  kfs_message message;
  int encryption_mode;        // 3: AES-256-CBC packets; 1 and 2: in the clear
  kfs_packet_cipher* cipher;  // owned; null when not connected
  char host[KFS_HOST_SIZE];
  uint32_t port;
  kfs_account account;
  uint8_t first_connect;  // the first re-connection skips the 30 s wait
  kfs_auth_retry_fn on_auth_retry;
  kfs_mode_fn on_mode;
  kfs_connected_fn on_connected;
  uint32_t agent_marker_sent;  // non-zero: keep agent_time across logins
  uint32_t agent_time;         // the stamp exchanged in mode agent
  char agent_text_1[128];      // the job's name
  char agent_text_2[128];      // the job file's base name
};

// Zeroes the session: socket -1, pem_path "temp_pem_file.pem",
// first_connect 1. Returns 0.
int kfs_session_init(kfs_session* session);
// Disconnects, then as kfs_session_init.
int kfs_session_reset(kfs_session* session);
// Closes the socket and frees the packet cipher, if any.
void kfs_session_disconnect(kfs_session* session);

// The process-wide server table.
kfs_server_table* kfs_servers();

// Authenticates with the session's auth_mode: connects to a server (which
// also sends the login and reads the reply), records the servers the
// service names (rewriting last_servers_path) and follows redirects. Returns
// 0, a client code, or the login's status (ERR_AUTH_FAILURE for a wrong key
// digest); ERR_INVARG, with nothing sent, for an unknown mode.
uint32_t kfs_session_open(kfs_session* session);
// Opens in mode encryption token and copies the text the service answers
// into out (NUL-terminated, cut to out_size). Returns the status or a code.
uint32_t kfs_session_open_token(kfs_session* session, char* out,
                                size_t out_size);
// Reads the server lists and connects to the first server that answers,
// last-known servers first: 0, ERR_SEQUENCE (library not initialised),
// ERR_ACCESS (encryption mode not 1..3), ERR_BADPATH (no server list),
// ERR_IO (no server answered).
uint32_t kfs_connect_any(kfs_session* session);
// One connection and key exchange with host:port, then sends the request
// staged in the session's record and reads its response. On any failure the
// staged request is back in the record.
uint32_t kfs_connect(kfs_session* session, const char* host, uint32_t port);

// Sends the request built in the session's record and, when it expects one,
// receives the response into the record. Re-opens the session once when the
// connection is gone (after 30 s, except on the session's first connection).
// Returns 0 (then the response's own status is in message.status), or a
// code: ERR_SCKWRITE, ERR_SCKREAD, ERR_SEQUENCE, or the re-open's code.
uint32_t kfs_transact(kfs_session* session);

// The optional OpenSSL locking set-up; the agent is single-threaded and
// does not call them. Return 0.
int kfs_openssl_threads_setup();
void kfs_openssl_threads_cleanup();

// The 32-byte local key of this box, from "etc/Kovra.ak" (4096 random bytes,
// made on first use). Prints the file's path on its first call. Returns 0,
// or -1 when the file cannot be made or read.
int kfs_local_key(uint8_t out[32]);

// ---------------------------------------------------------------------------
// Requests. Each builds its body in the session's record, runs kfs_transact
// and decodes the response. The result is kfs_transact's code when that
// fails, else the response's status; output fields are filled only when both
// are 0. A reply too short for its fields gives ERR_SEQUENCE. Refusals made
// before anything is sent: ERR_INVARG (a field that cannot be encoded) and
// ERR_DATAMAX (a body larger than one packet).

// KFS_USER_LOCK. flags bit 0 clear: lock the count listed users; bit 0 set
// with bit 2 in mode agent: release, carrying session->agent_time.
struct kfs_lock_args {
  uint8_t flags;
  uint16_t count;
  const uint32_t* values;
};
uint32_t kfs_user_lock(kfs_session* session, const kfs_lock_args* args);

uint32_t kfs_mkdir(kfs_session* session, uint8_t flags, const char* path);

// One entry of a listing, kept as a record in a str_list; the name comes
// first so that free_owned_name releases a record.
struct kfs_find_entry {
  char* name;     // owned, NUL-terminated
  uint8_t kind;   // 0 file, 1 directory
  uint32_t word;  // attribute bits: 0x10 directory, 0x20 needs backup
  uint64_t mtime;
  uint64_t size;
  uint32_t name_len;
};
constexpr uint32_t KFS_ATTR_DIRECTORY = 0x10;
constexpr uint32_t KFS_ATTR_NEEDS_BACKUP = 0x20;
constexpr uint8_t KFS_FIND_LONG_NAMES = 0x01;  // names as str16, not str8

// KFS_FIND_FILES (and KFS_FIND_USERS). A continuation passes the previous
// reply's next_handle with an empty directory and pattern.
struct kfs_find_args {
  uint8_t handle;
  uint8_t flags;
  const char* directory;  // below 256 bytes, else ERR_INVARG
  const char* pattern;
  uint16_t count;       // entries in this reply
  uint32_t remaining;   // entries still to come
  uint8_t next_handle;  // for the continuation
  str_list* entries;    // kfs_find_entry records; owned, see below
};
uint32_t kfs_find_files(kfs_session* session, kfs_find_args* args);
uint32_t kfs_find_users(kfs_session* session, kfs_find_args* args);
// Frees the entries of a find; safe to call twice.
void kfs_find_release(kfs_find_args* args);

struct kfs_wopen_args {
  uint8_t flags;
  uint32_t value_a;  // modification time
  const char* path;
  uint32_t value_b;  // size, high 32 bits
  uint32_t value_c;  // size, low 32 bits
  uint16_t extra_len;
  const uint8_t* extra;  // the attribute record, or null
  uint8_t handle;
  uint16_t block_count;
  uint32_t block_size;
  uint16_t comparable;  // leading blocks the service can compare by digest
};
uint32_t kfs_file_wopen(kfs_session* session, kfs_wopen_args* args);

// Sub-operations of KFS_FILE_WRITE.
constexpr uint8_t KFS_WRITE_BEGIN_BLOCK = 1;
constexpr uint8_t KFS_WRITE_BLOCK_DATA = 8;
constexpr uint8_t KFS_WRITE_END_BLOCK = 10;

struct kfs_write_args {
  uint8_t handle;
  uint8_t flags;
  uint32_t n;  // at most KFS_MAX_WRITE_DATA, else ERR_DATAMAX
  const void* data;
  uint32_t written;  // bytes accepted (n when no response is awaited)
};
// Without KFS_WRITE_NO_ACK in flags the result is the response's status;
// with it no response is read and the result is the send's.
uint32_t kfs_file_write(kfs_session* session, kfs_write_args* args);

// Sent without awaiting a response: the result is the send's.
uint32_t kfs_file_close(kfs_session* session, uint8_t handle);

// KFS_EMAIL. Kind 0: word1, word2, recipients, subject, text. Kind 1:
// word1, byte1, byte2, text. Kind 2: text. Other kinds: ERR_INVARG.
struct kfs_email_args {
  uint8_t kind;
  uint32_t word1;
  uint32_t word2;
  const str_list* recipients;
  const char* subject;
  uint8_t byte1;
  uint8_t byte2;
  const char* text;
};
uint32_t kfs_email(kfs_session* session, const kfs_email_args* args);

struct kfs_stat_args {
  uint8_t flags;  // bit 0: the long form
  const char* path;
  uint8_t kind;
  uint32_t word;
  uint64_t values[3];  // short form: three values; long form: the last two
  char name[KFS_TEXT_SIZE];
};
uint32_t kfs_stat(kfs_session* session, kfs_stat_args* args);
uint32_t kfs_move(kfs_session* session, const char* from, const char* to);
// Fills values with the three numbers of the reply.
uint32_t kfs_copy(kfs_session* session, uint8_t flags, const char* from,
                  const char* to, uint64_t values[3]);
uint32_t kfs_delete(kfs_session* session, uint8_t flags, const char* path);

struct kfs_ropen_args {
  const char* path;
  uint8_t handle;
  uint32_t mtime;
  uint16_t block_count;
  uint64_t size;
  uint16_t attr_len;
  uint8_t attr[64];  // the attribute record (cut to 64 bytes)
};
uint32_t kfs_file_ropen(kfs_session* session, kfs_ropen_args* args);

struct kfs_read_args {
  uint8_t handle;
  uint16_t max_length;
  const uint8_t* digest;  // optional 16-byte block digest, or null
  uint8_t flags;          // bit 0: the piece ends a block; bit 1: end of file
  uint16_t n;
  uint8_t* data;  // REQUIRES: room for max_length bytes
};
constexpr uint8_t KFS_READ_END_BLOCK = 0x01;
constexpr uint8_t KFS_READ_END_FILE = 0x02;
uint32_t kfs_file_read(kfs_session* session, kfs_read_args* args);

// KFS_SETOPT: each option at most 4000 bytes, else ERR_INVARG. The reply's
// bytes are copied to out (at most out_size) and counted in *out_len.
uint32_t kfs_setopt(kfs_session* session, const str_list* options, uint8_t* out,
                    size_t out_size, uint32_t* out_len);
uint32_t kfs_session_close(kfs_session* session);

// KFS_MGNT: items of (MGNT_* code, text value); a code above 24 gives
// ERR_INVARG. The reply's bytes go to out as with kfs_setopt.
struct kfs_mgnt_item {
  uint8_t code;
  const char* value;
};
uint32_t kfs_mgnt(kfs_session* session, const kfs_mgnt_item* items,
                  uint8_t count, uint8_t* out, size_t out_size,
                  uint32_t* out_len);
