// The client's reply parsers on any body. The input's first byte picks a
// request; the rest is the body of its reply. The login reply is decoded
// straight from the session's record (reaching it through the RSA key
// exchange would fuzz OpenSSL, not us). Every other request runs through
// the real kfs_transact over a socket pair with a fixed-key AES cipher: a
// responder thread reads the request and answers one valid packet (right
// length and checksum, enciphered, type + 128, the request's sequence,
// status 0) whose body is the input, so every byte reaches the parser.
//
// Nothing reconnects: the sleep hook returns at once and the session's
// server list does not exist, so a broken exchange fails without waiting
// and without a connection attempt.
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "fuzz/fuzz_support.h"
#include "fuzz/seed_formats.h"
#include "kfs/client/kfs.h"
#include "kfs/client/kfs_internal.h"
#include "lib/scoped.h"
#include "lib/str_list.h"

namespace {

struct responder {
  int sock;
  kfs_packet_cipher* cipher;
  kfs_message* message;
  const uint8_t* body;
  uint32_t body_length;
  bool answered;
};

// Reads one request and answers it with the input as the reply's body.
void* respond(void* arg) {
  auto* r = static_cast<responder*>(arg);
  kfs_message* m = r->message;
  if (kfs_packet_recv(r->sock, r->cipher, m) != 0) {
    return nullptr;  // the request was refused before it was sent
  }
  uint8_t type = m->type;
  uint16_t sequence = m->sequence;
  memcpy(m->buffer, r->body, r->body_length);
  m->sequence = sequence;
  m->status = 0;
  kfs_request_finish(m, static_cast<uint8_t>(type + KFS_RESPONSE),
                     r->body_length);
  r->answered = kfs_packet_send(r->sock, r->cipher, m) == 0;
  return nullptr;
}

void check_find(uint32_t rc, kfs_find_args* a, bool long_names) {
  if (rc == 0) {
    fuzz_require(str_list_count(a->entries) == a->count, "one entry a count");
    for (int32_t i = 0; i < a->count; ++i) {
      const auto* e =
          reinterpret_cast<const kfs_find_entry*>(str_list_get(a->entries, i));
      fuzz_require(e->name_len <= (long_names ? 0xFFFFu : 0xFFu),
                   "name length within its field");
      fuzz_require(strlen(e->name) <= e->name_len, "name terminated");
    }
  } else {
    fuzz_require(a->entries == nullptr, "a failed listing keeps no entries");
  }
  kfs_find_release(a);
}

// Runs the picked request; its reply is whatever the responder sends.
void run_request(kfs_session* s, uint8_t pick) {
  switch (pick) {
    case FUZZ_PICK_FIND:
    case FUZZ_PICK_FIND_LONG_NAMES: {
      bool long_names = pick == FUZZ_PICK_FIND_LONG_NAMES;
      kfs_find_args a = {};
      a.flags = static_cast<uint8_t>(0x20 | (long_names ? 0x01 : 0));
      a.directory = "/7/Today/box";
      a.pattern = "";
      check_find(kfs_find_files(s, &a), &a, long_names);
      break;
    }
    case FUZZ_PICK_WOPEN: {
      kfs_wopen_args a = {};
      a.flags = 1;
      a.value_a = 1700000000;
      a.path = "/7/Today/box/srv/photos/a.jpg";
      a.value_c = 4096;
      kfs_file_wopen(s, &a);
      break;
    }
    case FUZZ_PICK_WRITE: {
      uint8_t digest[16] = {1, 2, 3};
      kfs_write_args a = {};
      a.handle = 1;
      a.flags = KFS_WRITE_BEGIN_BLOCK;
      a.n = sizeof digest;
      a.data = digest;
      kfs_file_write(s, &a);
      break;
    }
    case FUZZ_PICK_ROPEN: {
      kfs_ropen_args a = {};
      a.path = "/7/Today/box/srv/photos/a.jpg";
      if (kfs_file_ropen(s, &a) == 0) {
        fuzz_require(a.attr_len <= sizeof a.attr, "attributes fit");
      }
      break;
    }
    case FUZZ_PICK_READ: {
      static uint8_t data[FUZZ_READ_MAX];
      kfs_read_args a = {};
      a.handle = 1;
      a.max_length = FUZZ_READ_MAX;
      a.data = data;
      if (kfs_file_read(s, &a) == 0) {
        fuzz_require(a.n <= FUZZ_READ_MAX, "a piece within the size asked for");
      }
      break;
    }
    case FUZZ_PICK_STAT:
    case FUZZ_PICK_STAT_LONG: {
      kfs_stat_args a = {};
      a.flags = pick == FUZZ_PICK_STAT_LONG ? 1 : 0;
      a.path = "/7/Today";
      kfs_stat(s, &a);
      fuzz_require(strlen(a.name) < sizeof a.name, "stat name terminated");
      break;
    }
    case FUZZ_PICK_COPY: {
      uint64_t values[3];
      kfs_copy(s, 0, "/7/a", "/7/b", values);
      break;
    }
    case FUZZ_PICK_SETOPT: {
      str_list* options = str_list_new(1, 1, nullptr);
      str_list_insert(options, "opt=1", 5, 0);
      uint8_t out[64];
      uint32_t out_len = 0;
      kfs_setopt(s, options, out, sizeof out, &out_len);
      str_list_free(options);
      break;
    }
    case FUZZ_PICK_MGNT: {
      kfs_mgnt_item item = {MGNT_U_EMAIL, "me@example.org"};
      uint8_t out[64];
      uint32_t out_len = 0;
      kfs_mgnt(s, &item, 1, out, sizeof out, &out_len);
      break;
    }
    default: {
      uint32_t user = FUZZ_USER_ID;
      kfs_lock_args a = {0, 1, &user};
      kfs_user_lock(s, &a);
      break;
    }
  }
}

void exchange(kfs_session* s, kfs_packet_cipher* server_cipher,
              kfs_message* server_message, uint8_t pick, const uint8_t* body,
              uint32_t body_length) {
  int pair[2];
  fuzz_require(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0, "socketpair");
  s->socket = pair[0];
  responder r = {pair[1], server_cipher, server_message,
                 body,    body_length,   false};
  pthread_t thread;
  fuzz_require(pthread_create(&thread, nullptr, respond, &r) == 0, "thread");
  run_request(s, pick);
  // Ends a responder still waiting for a request that was never sent.
  shutdown(s->socket, SHUT_RDWR);
  pthread_join(thread, nullptr);
  close(pair[1]);
  kfs_session_disconnect(s);  // closes pair[0] and frees the cipher
}

void decode_login(kfs_session* s, uint8_t mode, const uint8_t* body,
                  uint32_t body_length) {
  s->auth_mode = mode;
  s->message.data_length = static_cast<uint16_t>(body_length);
  memcpy(s->message.buffer, body, body_length);
  char name_before[sizeof s->user_name];
  memcpy(name_before, s->user_name, sizeof name_before);
  bool redirect = false;
  if (kfs_take_login_reply(s, &redirect)) {
    fuzz_require(
        strnlen(s->user_name, sizeof s->user_name) < sizeof s->user_name,
        "user name terminated");
    const kfs_server_table* t = kfs_servers();
    fuzz_require(t->last_count >= 0 && t->last_count <= KFS_MAX_LAST_SERVERS,
                 "named servers within the table");
  } else {
    fuzz_require(memcmp(name_before, s->user_name, sizeof name_before) == 0,
                 "a refused reply leaves the user name");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string missing_list = fuzz_scratch_dir() + "/no-such-hosts";
  static malloc_ptr<kfs_session> session(
      static_cast<kfs_session*>(calloc(1, sizeof(kfs_session))));
  static kfs_packet_cipher* server_cipher =
      kfs_cipher_new(KFS_MODE_AES, FUZZ_PACKET_KEY, 0);
  static malloc_ptr<kfs_message> server_message(
      static_cast<kfs_message*>(calloc(1, sizeof(kfs_message))));
  if (size == 0) {
    return 0;
  }
  uint8_t pick = data[0] % FUZZ_PICK_COUNT;
  const uint8_t* body = data + 1;
  uint32_t body_length =
      static_cast<uint32_t>(std::min<size_t>(size - 1, KFS_MAX_BODY));

  kfs_session* s = session.get();
  kfs_session_init(s);
  snprintf(s->server_list_path, sizeof s->server_list_path, "%s",
           missing_list.c_str());
  s->last_servers_path[0] = '\0';  // the login reply must write no file
  s->first_connect = 0;
  s->encryption_mode = KFS_MODE_AES;
  s->user_id = FUZZ_USER_ID;
  snprintf(s->user_name, sizeof s->user_name, "%s", "fuzz");

  if (pick == FUZZ_PICK_LOGIN_AGENT || pick == FUZZ_PICK_LOGIN_USER) {
    decode_login(
        s, pick == FUZZ_PICK_LOGIN_AGENT ? AUTH_MODE_AGENT : AUTH_MODE_USER,
        body, body_length);
    return 0;
  }
  s->cipher = kfs_cipher_new(KFS_MODE_AES, FUZZ_PACKET_KEY, 0);
  exchange(s, server_cipher, server_message.get(), pick, body, body_length);
  return 0;
}
