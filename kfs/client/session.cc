// Sessions: server lists, the key exchange, login with its redirects, and
// the request/response exchange that re-opens a dead connection once.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include "kfs/client/kfs.h"
#include "kfs/client/kfs_internal.h"
#include "lib/alloc.h"
#include "lib/scoped.h"
#include "lib/sleep.h"

namespace {

kfs_server_table server_table;

constexpr uint8_t kGreeting[4] = {0x01, 0x30, 0x32, 0x01};
constexpr uint32_t kMaxKeyText = 512;
constexpr uint32_t kHalfKey = 32;
constexpr uint32_t kHandshakeBody = 2 + kHalfKey;
constexpr size_t kRsaBlock = 256;  // the service's key is RSA-2048
constexpr unsigned kReconnectWaitUs = 30000000;
// A service that keeps redirecting would otherwise hold the agent forever.
constexpr int kMaxRedirects = 16;

struct pkey_deleter {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct pkey_ctx_deleter {
  void operator()(EVP_PKEY_CTX* c) const { EVP_PKEY_CTX_free(c); }
};

// A copy of the whole record, kept aside across a (re-)connection.
using saved_message = malloc_ptr<kfs_message>;

saved_message save(const kfs_message& m) {
  saved_message copy(static_cast<kfs_message*>(xmalloc(sizeof m)));
  memcpy(copy.get(), &m, sizeof m);
  return copy;
}

// Puts a kept request back. Its status byte then echoes the status of the
// last response received now, as every request does.
void restore(kfs_session* s, const saved_message& kept) {
  uint8_t status = s->message.status;
  memcpy(&s->message, kept.get(), sizeof s->message);
  s->message.status = status;
  s->message.buffer[5] = status;
}

// Receives a reply into the record. The session's sequence stays what it
// was: a reply's number is compared by the caller, never sent back.
uint32_t receive_reply(kfs_session* s, uint16_t* reply_sequence) {
  uint16_t own = s->message.sequence;
  uint32_t rc = kfs_packet_recv(s->socket, s->cipher, &s->message);
  *reply_sequence = s->message.sequence;
  s->message.sequence = own;
  return rc;
}

}  // namespace

bool kfs_read_server_list(const char* path, const char* mode,
                          kfs_server_entry* out, int max, int* count) {
  file_ptr f(fopen(path, mode));
  if (!f) {
    return false;
  }
  char line[128];
  while (*count < max && fgets(line, sizeof line, f.get()) != nullptr) {
    line[strcspn(line, "\n\r#")] = '\0';
    size_t len = strlen(line);
    while (len > 0 && (line[len - 1] == ' ' || line[len - 1] == '\t')) {
      line[--len] = '\0';
    }
    char* colon = strchr(line, ':');
    if (colon == nullptr) {
      continue;
    }
    size_t host_len = static_cast<size_t>(colon - line);
    if (host_len >= KFS_HOST_SIZE) {
      continue;  // not a host this table can hold; never connect to a cut one
    }
    kfs_server_entry* e = &out[(*count)++];
    memcpy(e->host, line, host_len);
    e->host[host_len] = '\0';
    e->port = static_cast<uint32_t>(strtol(colon + 1, nullptr, 10));
  }
  return true;
}

namespace {

// Writes the server's PEM text to the exclusive temporary file and reads
// it back as a public key; the file is removed whatever the outcome.
uint32_t load_server_key(const char* pem_path, const uint8_t* text,
                         uint32_t len,
                         std::unique_ptr<EVP_PKEY, pkey_deleter>* key) {
  unique_fd fd(open(pem_path, O_WRONLY | O_CREAT | O_EXCL, 0700));
  if (!fd) {
    return ERR_IO;
  }
  bool written = fd_write_all(fd.get(), text, len) == len;
  fd.reset();
  file_ptr f(fopen(pem_path, "r"));
  if (written && f) {
    key->reset(PEM_read_PUBKEY(f.get(), nullptr, nullptr, nullptr));
  }
  f.reset();
  unlink(pem_path);
  if (!written) {
    return ERR_IO;
  }
  return *key ? 0u : uint32_t{ERR_BADPATH};
}

// The 256-byte RSA-OAEP block carrying the handshake message.
bool seal_handshake(EVP_PKEY* key,
                    const uint8_t plain[KFS_HEADER_SIZE + kHandshakeBody],
                    uint8_t out[kRsaBlock]) {
  std::unique_ptr<EVP_PKEY_CTX, pkey_ctx_deleter> c(
      EVP_PKEY_CTX_new(key, nullptr));
  size_t out_len = kRsaBlock;
  return c && EVP_PKEY_encrypt_init(c.get()) == 1 &&
         EVP_PKEY_CTX_set_rsa_padding(c.get(), RSA_PKCS1_OAEP_PADDING) == 1 &&
         EVP_PKEY_get_size(key) == static_cast<int>(kRsaBlock) &&
         EVP_PKEY_encrypt(c.get(), out, &out_len, plain,
                          KFS_HEADER_SIZE + kHandshakeBody) == 1 &&
         out_len == kRsaBlock;
}

// Steps of kfs_connect up to a keyed cipher; the caller restores the staged
// request whatever this returns.
uint32_t exchange_keys(kfs_session* s) {
  if (sock_write_all(s->socket, kGreeting, sizeof kGreeting) !=
      sizeof kGreeting) {
    return ERR_IO;
  }
  uint8_t len_field[2];
  if (sock_read_all(s->socket, len_field, 2) != 2) {
    return ERR_IO;
  }
  uint32_t key_len = get_be16(len_field);
  if (key_len >= kMaxKeyText) {
    return ERR_INVARG;
  }
  uint8_t key_text[kMaxKeyText];
  if (sock_read_all(s->socket, key_text, key_len) != key_len) {
    return ERR_IO;
  }
  std::unique_ptr<EVP_PKEY, pkey_deleter> key;
  uint32_t rc = load_server_key(s->pem_path, key_text, key_len, &key);
  if (rc != 0) {
    return rc;
  }

  uint8_t half[kHalfKey];
  if (RAND_bytes(half, sizeof half) != 1) {
    return ERR_IO;
  }
  uint8_t plain[KFS_HEADER_SIZE + kHandshakeBody] = {0, kHandshakeBody,
                                                     KFS_SESSION_HANDSHAKE};
  plain[KFS_HEADER_SIZE] = static_cast<uint8_t>(s->encryption_mode);
  plain[KFS_HEADER_SIZE + 1] = kHalfKey;
  memcpy(plain + KFS_HEADER_SIZE + 2, half, kHalfKey);
  uint8_t sealed[kRsaBlock];
  bool ok = seal_handshake(key.get(), plain, sealed);
  OPENSSL_cleanse(plain, sizeof plain);
  if (!ok || sock_write_all(s->socket, sealed, kRsaBlock) != kRsaBlock) {
    OPENSSL_cleanse(half, sizeof half);
    return ERR_IO;
  }

  s->cipher = kfs_cipher_new(s->encryption_mode, half, 0);
  uint16_t sequence = 0;
  if (receive_reply(s, &sequence) != 0) {
    OPENSSL_cleanse(half, sizeof half);
    return ERR_SCKREAD;
  }
  const kfs_message& reply = s->message;
  if (reply.type != KFS_SESSION_HANDSHAKE + KFS_RESPONSE ||
      reply.data_length != kHalfKey || sequence != 0 || reply.status != 0) {
    OPENSSL_cleanse(half, sizeof half);
    return ERR_ACCESS;
  }
  for (uint32_t i = 0; i < kHalfKey; ++i) {
    half[i] ^= reply.buffer[i];
  }
  kfs_cipher_set_key(s->cipher, half);
  OPENSSL_cleanse(half, sizeof half);
  return 0;
}

// The login request for the session's mode, staged in its record; false for
// a mode the client does not speak.
bool stage_login(kfs_session* s) {
  kfs_body b;
  kfs_body_begin(&s->message, &b);
  kfs_put_u8(&b, static_cast<uint8_t>(s->auth_mode));
  switch (s->auth_mode) {
    case AUTH_MODE_USER:
      kfs_put_str8(&b, s->user_name);
      kfs_put_str8(&b, s->password);
      kfs_put_bytes(&b, s->token_digest, 20);
      kfs_put_bytes(&b, s->client_digest, 20);
      break;
    case AUTH_MODE_AGENT:
      kfs_put_u32(&b, s->user_id);
      kfs_put_bytes(&b, s->token_digest, 20);
      kfs_put_bytes(&b, s->client_digest, 20);
      kfs_put_u32(&b, s->agent_marker_sent != 0 ? 1 : 0);
      kfs_put_str16(&b, s->agent_text_1);
      kfs_put_str16(&b, s->agent_text_2);
      break;
    case AUTH_MODE_ENCRYPTION_TOKEN:
      kfs_put_bytes(&b, s->token_digest, 20);
      break;
    case AUTH_MODE_WEB:
      kfs_put_str8(&b, s->user_name);
      kfs_put_str8(&b, s->password);
      kfs_put_str8(&b, s->web_text);
      break;
    default:
      return false;
  }
  kfs_request_finish(&s->message, KFS_SESSION_AUTH, b.length);
  return true;
}

// A str8 that may be empty (the login reply's texts may all be).
void get_text(kfs_reader* r, char* out, size_t size) {
  out[0] = '\0';
  if (r->pos < r->length && r->data[r->pos] == 0) {
    ++r->pos;
    return;
  }
  if (kfs_get_str8(r, out, size) != 0) {
    r->failed = true;
  }
}

void write_last_servers(const kfs_session* s) {
  if (s->last_servers_path[0] == '\0') {
    return;
  }
  file_ptr f(fopen(s->last_servers_path, "w"));
  if (!f) {
    return;  // only a hint for the next connection
  }
  for (int i = 0; i < server_table.last_count; ++i) {
    fprintf(f.get(), "%s:%u\n", server_table.last[i].host,
            server_table.last[i].port);
  }
}

}  // namespace

bool kfs_take_login_reply(kfs_session* s, bool* redirect) {
  kfs_reader r;
  kfs_reader_begin(&s->message, &r);
  *redirect = kfs_get_u8(&r) != 0;
  kfs_server_entry named[2] = {};
  for (kfs_server_entry& e : named) {
    get_text(&r, e.host, sizeof e.host);
    e.port = kfs_get_u16(&r);
  }
  kfs_account& a = s->account;
  a.value1 = kfs_get_u32(&r);
  get_text(&r, a.text1, sizeof a.text1);
  a.byte1 = kfs_get_u8(&r);
  get_text(&r, a.text2, sizeof a.text2);
  a.value2 = kfs_get_u32(&r);
  char user_name[sizeof s->user_name];
  get_text(&r, user_name, sizeof user_name);
  get_text(&r, a.text3, sizeof a.text3);
  a.byte2 = kfs_get_u8(&r);
  a.byte3 = kfs_get_u8(&r);
  get_text(&r, a.text4, sizeof a.text4);
  get_text(&r, a.text5, sizeof a.text5);
  a.size1 = kfs_get_u64(&r);
  a.size2 = kfs_get_u64(&r);
  a.byte4 = kfs_get_u8(&r);
  uint8_t account_flag = kfs_get_u8(&r);
  uint32_t agent_time = kfs_get_u32(&r);
  if (!kfs_reader_ok(&r)) {
    return false;
  }
  s->account_flag = account_flag;
  if (s->auth_mode == AUTH_MODE_AGENT && s->agent_marker_sent == 0) {
    s->agent_time = agent_time;
  }
  if (named[0].port != 0) {
    server_table.last[0] = named[0];
    server_table.last[1] = named[1];
    server_table.last_count = named[1].port != 0 ? 2 : 1;
    write_last_servers(s);
  } else {
    server_table.last_count = 0;
  }
  memcpy(s->user_name, user_name, sizeof user_name);
  return true;
}

namespace {

uint32_t open_session(kfs_session* s, char* token_out, size_t token_size) {
  for (int logins = 0; logins <= kMaxRedirects; ++logins) {
    if (!stage_login(s)) {
      return ERR_INVARG;
    }
    uint32_t rc = kfs_connect_any(s);
    if (rc != 0) {
      if (s->on_auth_retry != nullptr && (rc == 200 || rc == 201) &&
          s->on_auth_retry(s, rc, rc - 200) != 0) {
        continue;
      }
      return rc;
    }
    uint32_t status = s->message.status;
    if (status != 0) {
      if (s->on_auth_retry != nullptr && status == ERR_AUTH_FAILURE &&
          s->on_auth_retry(s, 4, status) != 0) {
        continue;
      }
      return status;
    }
    if (s->auth_mode == AUTH_MODE_ENCRYPTION_TOKEN) {
      kfs_reader r;
      kfs_reader_begin(&s->message, &r);
      if (token_out != nullptr && token_size > 0) {
        get_text(&r, token_out, token_size);
      }
      return status;
    }
    bool redirect = false;
    if (!kfs_take_login_reply(s, &redirect)) {
      return ERR_SEQUENCE;
    }
    if (!redirect) {
      return 0;
    }
  }
  return ERR_IO;
}

}  // namespace

kfs_server_table* kfs_servers() {
  return &server_table;
}

int kfs_session_init(kfs_session* s) {
  memset(s, 0, sizeof *s);
  s->socket = -1;
  snprintf(s->pem_path, sizeof s->pem_path, "%s", "temp_pem_file.pem");
  s->first_connect = 1;
  return 0;
}

int kfs_session_reset(kfs_session* s) {
  kfs_session_disconnect(s);
  return kfs_session_init(s);
}

void kfs_session_disconnect(kfs_session* s) {
  if (s->socket >= 0) {
    close(s->socket);
    s->socket = -1;
  }
  kfs_cipher_free(s->cipher);
  s->cipher = nullptr;
}

uint32_t kfs_session_open(kfs_session* s) {
  return open_session(s, nullptr, 0);
}

uint32_t kfs_session_open_token(kfs_session* s, char* out, size_t out_size) {
  s->auth_mode = AUTH_MODE_ENCRYPTION_TOKEN;
  return open_session(s, out, out_size);
}

uint32_t kfs_connect_any(kfs_session* s) {
  if (kfs_library_use_count() == 0) {
    return ERR_SEQUENCE;
  }
  if (s->encryption_mode < 1 || s->encryption_mode > 3) {
    return ERR_ACCESS;
  }
  if (s->on_mode != nullptr) {
    s->on_mode(s, s->encryption_mode);
  }
  kfs_server_table& t = server_table;
  memset(&t, 0, sizeof t);
  if (!kfs_read_server_list(s->server_list_path, "r", t.servers,
                            KFS_MAX_SERVERS, &t.count)) {
    return ERR_BADPATH;
  }
  if (s->last_servers_path[0] != '\0') {
    kfs_read_server_list(s->last_servers_path, "rt", t.last,
                         KFS_MAX_LAST_SERVERS, &t.last_count);
  }
  if (t.count == 0) {
    if (t.last_count == 0) {
      return ERR_IO;
    }
    memcpy(t.servers, t.last, sizeof t.last);
    t.count = t.last_count;
  }
  bool connected = false;
  for (int i = 0; i < t.last_count && !connected; ++i) {
    connected = kfs_connect(s, t.last[i].host, t.last[i].port) == 0;
  }
  for (int i = 0; i < t.count && !connected; ++i) {
    connected = kfs_connect(s, t.servers[i].host, t.servers[i].port) == 0;
  }
  if (!connected) {
    return ERR_IO;
  }
  if (s->on_connected != nullptr) {
    s->on_connected(s);
  }
  return 0;
}

namespace {

// kfs_connect up to the staged request's reply; the caller disconnects
// when this fails.
uint32_t connect_and_send(kfs_session* s, const char* host, uint32_t port) {
  saved_message staged = save(s->message);
  // host may point into the server table; copy before anything else.
  snprintf(s->host, sizeof s->host, "%s", host);
  s->port = port;
  s->socket = port == 0 || port > 0xFFFF
                  ? -1
                  : sock_connect(s->host, static_cast<uint16_t>(port));
  if (s->socket < 0) {
    restore(s, staged);
    return ERR_IO;
  }
  uint32_t rc = exchange_keys(s);
  // The handshake starts the conversation afresh: status 0 from here on.
  s->message.status = 0;
  restore(s, staged);
  if (rc != 0) {
    return rc;
  }
  if (sock_is_idle(s->socket) == 0) {
    return ERR_SCKWRITE;
  }
  rc = kfs_packet_send(s->socket, s->cipher, &s->message);
  if (rc != 0) {
    return rc;
  }
  uint16_t sequence = 0;
  if ((s->message.flags & KFS_FLAG_EXPECTS_RESPONSE) != 0 &&
      receive_reply(s, &sequence) != 0) {
    return ERR_SCKREAD;
  }
  return 0;
}

}  // namespace

uint32_t kfs_connect(kfs_session* s, const char* host, uint32_t port) {
  kfs_session_disconnect(s);
  uint32_t rc = connect_and_send(s, host, port);
  if (rc != 0) {
    // Half a connection (a socket without a keyed cipher, or one whose
    // login went astray) is worth nothing: the next request starts afresh.
    kfs_session_disconnect(s);
  }
  return rc;
}

uint32_t kfs_transact(kfs_session* s) {
  uint8_t type = s->message.type;
  uint16_t sequence = s->message.sequence;
  bool sent = s->socket >= 0 && s->cipher != nullptr &&
              sock_is_idle(s->socket) == 1 &&
              kfs_packet_send(s->socket, s->cipher, &s->message) == 0;
  if (!sent) {
    // The connection is gone (or never was): log in again, then resend.
    saved_message request = save(s->message);
    if (s->first_connect != 0) {
      s->first_connect = 0;
    } else {
      sleep_microseconds(kReconnectWaitUs);
    }
    uint32_t rc = kfs_session_open(s);
    if (rc != 0) {
      return rc;
    }
    restore(s, request);
    if (s->socket < 0 || sock_is_idle(s->socket) == 0 ||
        kfs_packet_send(s->socket, s->cipher, &s->message) != 0) {
      return ERR_SCKWRITE;
    }
  }
  if ((s->message.flags & KFS_FLAG_EXPECTS_RESPONSE) == 0) {
    return 0;
  }
  uint16_t reply_sequence = 0;
  if (receive_reply(s, &reply_sequence) != 0) {
    return ERR_SCKREAD;
  }
  if (s->message.type != static_cast<uint8_t>(type + KFS_RESPONSE) ||
      reply_sequence != sequence) {
    return ERR_SEQUENCE;
  }
  return 0;
}
