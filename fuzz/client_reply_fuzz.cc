// The client against a server that answers what the input says. The input
// is a list of steps, each [request][fault][u16 length][reply body]: the
// client sends the step's request on one session, and the scripted server
// answers it with that body, after the step's fault (another type, sequence
// or status, a bad checksum, stray bytes, a dropped link, or a broken key
// exchange on the next connection), so replies, re-connections and logins
// follow one another as a bad peer could make them. Every request the
// client sends must stay well formed. A first step that picks a login is
// decoded straight from the session's record instead (reaching it through
// the RSA key exchange would fuzz OpenSSL, not us).
//
// Nothing waits: the sleep hook returns at once.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "fuzz/seed_formats.h"
#include "kfs/client/kfs.h"
#include "kfs/client/kfs_internal.h"
#include "lib/scoped.h"
#include "lib/str_list.h"
#include "tests/support/scripted_server.h"

namespace {

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

// The script for the steps: step k answers request k + 1, the first login
// being request 0, so a step after a re-connection lands on its login.
std::vector<script_step> script_of(const uint8_t* data, size_t size,
                                   std::vector<uint8_t>* picks) {
  std::vector<script_step> script;
  for (size_t at = 0; size - at >= 4 && picks->size() < 8;) {
    uint8_t fault = data[at + 1];
    size_t n = std::min<size_t>(
        {get_be16(data + at + 2), size - at - 4, KFS_MAX_BODY});
    int request = static_cast<int>(picks->size()) + 1;
    picks->push_back(data[at] % FUZZ_PICK_COUNT);
    script.push_back({script_fault::reply_body, request, 0,
                      std::string(data + at + 4, data + at + 4 + n)});
    // The fault byte's last decimal digit picks the fault, the rest its
    // value; a broken key exchange is kept for the next connection.
    using f = script_fault;
    constexpr script_fault kFaults[10] = {
        f::none,          f::reply_type,     f::reply_sequence, f::reply_status,
        f::reply_bad_crc, f::reply_trailing, f::reply_drop,     f::key_damaged,
        f::hello_short,   f::key_padded};
    script_fault kind = kFaults[fault % 10];
    uint32_t value = kind == f::reply_type   ? fault
                     : kind == f::key_padded ? 512u
                                             : fault / 10u + 1;
    bool opening = kind >= f::key_damaged && kind <= f::hello_status;
    if (kind != f::none) {
      script.push_back({kind, opening ? 1 : request, value});
    }
    at += 4 + std::min<size_t>(get_be16(data + at + 2), size - at - 4);
  }
  return script;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string hosts = fuzz_scratch_dir() + "/hosts";
  static const std::string pem = fuzz_scratch_dir() + "/temp_pem_file.pem";
  static malloc_ptr<kfs_session> session(
      static_cast<kfs_session*>(calloc(1, sizeof(kfs_session))));
  static bool library = kfs_library_init() == 0;
  fuzz_require(library, "client library");
  std::vector<uint8_t> picks;
  std::vector<script_step> script = script_of(data, size, &picks);
  if (picks.empty()) {
    return 0;
  }

  kfs_session* s = session.get();
  kfs_session_init(s);
  snprintf(s->server_list_path, sizeof s->server_list_path, "%s",
           hosts.c_str());
  snprintf(s->pem_path, sizeof s->pem_path, "%s", pem.c_str());
  s->last_servers_path[0] = '\0';  // a login reply must write no file
  s->auth_mode = AUTH_MODE_AGENT;
  s->encryption_mode = KFS_MODE_AES;
  s->user_id = FUZZ_USER_ID;
  snprintf(s->user_name, sizeof s->user_name, "%s", "fuzz");

  if (picks[0] == FUZZ_PICK_LOGIN_AGENT || picks[0] == FUZZ_PICK_LOGIN_USER) {
    const std::string& body = script[0].body;
    decode_login(
        s, picks[0] == FUZZ_PICK_LOGIN_AGENT ? AUTH_MODE_AGENT : AUTH_MODE_USER,
        reinterpret_cast<const uint8_t*>(body.data()),
        static_cast<uint32_t>(body.size()));
    return 0;
  }
  scripted_server server;
  fuzz_require(server.start(script), "the scripted server");
  std::string line = "127.0.0.1:" + std::to_string(server.port()) + "\n";
  fuzz_write_file(hosts, reinterpret_cast<const uint8_t*>(line.data()),
                  line.size());
  for (uint8_t pick : picks) {
    run_request(s, pick);
  }
  kfs_session_disconnect(s);
  server.stop();
  fuzz_require(server.malformed().empty(), "every request well formed");
  return 0;
}
