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
#include <vector>

#include "fuzz/fuzz_support.h"
#include "kfs/client/kfs_internal.h"
#include "lib/str_list.h"
#include "tests/support/scripted_server.h"

namespace {

constexpr char kFile[] = "/7/Today/box/srv/photos/a.jpg";
const uint32_t kUser = FUZZ_USER_ID;
const kfs_mgnt_item kMgnt = {MGNT_U_EMAIL, "me@example.org"};
uint8_t reply[1024];  // copied replies, read pieces
uint32_t reply_len = 0;
uint64_t values[3];

void lock(kfs_session* s) {
  kfs_lock_args a = {0, 1, &kUser};
  kfs_user_lock(s, &a);
}

void stat(kfs_session* s, uint8_t flags) {
  kfs_stat_args a = {.flags = flags, .path = "/7/Today"};
  kfs_stat(s, &a);
  fuzz_require(strlen(a.name) < sizeof a.name, "stat name terminated");
}

void find(kfs_session* s, uint8_t flags) {
  kfs_find_args a = {.flags = flags, .directory = "/7/Today", .pattern = ""};
  // A listing keeps one entry a count, and none when it failed; a name is
  // within its length field, and terminated.
  bool ok = kfs_find_files(s, &a) == 0;
  fuzz_require(ok ? str_list_count(a.entries) == a.count : !a.entries, "FIND");
  for (int32_t i = 0; ok && i < a.count; ++i) {
    auto* e = reinterpret_cast<kfs_find_entry*>(str_list_get(a.entries, i));
    fuzz_require(e->name_len <= (flags & 1 ? 0xFFFFu : 0xFFu), "name length");
    fuzz_require(strlen(e->name) <= e->name_len, "name terminated");
  }
  kfs_find_release(&a);
}

// A step's first byte, modulo their count, picks the request its reply
// answers (the seeds are written in these numbers); 0 and 1 are the logins
// in mode agent and user when first, decoded without a connection, and
// otherwise the user lock.
using request_fn = void (*)(kfs_session* s);
const request_fn kRequests[] = {
    lock,
    lock,
    [](kfs_session* s) { find(s, 0x20); },
    [](kfs_session* s) { find(s, 0x20 | KFS_FIND_LONG_NAMES); },
    [](kfs_session* s) {
      kfs_wopen_args a = {
          .flags = 1, .value_a = 1700000000, .path = kFile, .value_c = 4096};
      kfs_file_wopen(s, &a);
    },
    [](kfs_session* s) {
      kfs_write_args a = {1, KFS_WRITE_BEGIN_BLOCK, 16, "0123456789abcdef", 0};
      kfs_file_write(s, &a);
    },
    [](kfs_session* s) {
      kfs_ropen_args a = {.path = kFile};
      fuzz_require(kfs_file_ropen(s, &a) || a.attr_len <= sizeof a.attr,
                   "attributes fit");
    },
    [](kfs_session* s) {
      kfs_read_args a = {.handle = 1, .max_length = 1024, .data = reply};
      fuzz_require(kfs_file_read(s, &a) != 0 || a.n <= 1024, "READ size");
    },
    [](kfs_session* s) { stat(s, 0); },
    [](kfs_session* s) { stat(s, 1); },
    [](kfs_session* s) { kfs_copy(s, 0, "/7/a", "/7/b", values); },
    [](kfs_session* s) {
      str_list* options = str_list_new(1, 1, nullptr);
      str_list_insert(options, "opt=1", 5, 0);
      kfs_setopt(s, options, reply, 64, &reply_len);
      str_list_free(options);
    },
    [](kfs_session* s) { kfs_mgnt(s, &kMgnt, 1, reply, 64, &reply_len); },
    lock,
};
constexpr uint8_t kPicks = sizeof kRequests / sizeof kRequests[0];

// The script for the steps: step k answers request k + 1, the first login
// being request 0, so a step after a re-connection lands on its login. The
// fault byte's last decimal digit picks the fault, the rest its value; a
// broken key exchange is kept for the next connection.
std::vector<script_step> script_of(const uint8_t* data, size_t size,
                                   std::vector<uint8_t>* picks) {
  using f = script_fault;
  constexpr script_fault kFaults[10] = {
      f::none,          f::reply_type,     f::reply_sequence, f::reply_status,
      f::reply_bad_crc, f::reply_trailing, f::reply_drop,     f::key_damaged,
      f::hello_short,   f::key_padded};
  std::vector<script_step> script;
  for (size_t at = 0; size - at >= 4 && picks->size() < 8;) {
    uint8_t fault = data[at + 1];
    size_t n = std::min<size_t>(get_be16(data + at + 2), size - at - 4);
    int request = static_cast<int>(picks->size()) + 1;
    picks->push_back(data[at] % kPicks);
    const uint8_t* body = data + at + 4;
    script.push_back(
        {f::reply_body, request, 0,
         std::string(body, body + std::min<size_t>(n, KFS_MAX_BODY))});
    at += 4 + n;
    script_fault kind = kFaults[fault % 10];
    uint32_t value = kind == f::reply_type   ? fault
                     : kind == f::key_padded ? 512u
                                             : fault / 10u + 1;
    bool opening = kind >= f::key_damaged && kind <= f::hello_status;
    if (kind != f::none) {
      script.push_back({kind, opening ? 1 : request, value});
    }
  }
  return script;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string hosts = fuzz_scratch_dir() + "/hosts";
  static const bool library = kfs_library_init() == 0;
  static kfs_session s;
  fuzz_require(library, "client library");
  std::vector<uint8_t> picks;
  std::vector<script_step> script = script_of(data, size, &picks);
  if (picks.empty()) {
    return 0;
  }
  kfs_session_init(&s);  // no last servers path: a login writes no file
  snprintf(s.server_list_path, sizeof s.server_list_path, "%s", hosts.c_str());
  snprintf(s.pem_path, sizeof s.pem_path, "%s.pem", hosts.c_str());
  s.auth_mode = picks[0] == 1 ? AUTH_MODE_USER : AUTH_MODE_AGENT;
  s.encryption_mode = KFS_MODE_AES;
  s.user_id = FUZZ_USER_ID;
  snprintf(s.user_name, sizeof s.user_name, "%s", "fuzz");
  if (picks[0] < 2) {  // a login reply, decoded from the session's record
    s.message.data_length = static_cast<uint16_t>(script[0].body.size());
    memcpy(s.message.buffer, script[0].body.data(), script[0].body.size());
    bool redirect = false;
    if (kfs_take_login_reply(&s, &redirect)) {
      fuzz_require(
          strnlen(s.user_name, sizeof s.user_name) < sizeof s.user_name,
          "user name terminated");
    }
    return 0;
  }
  scripted_server server;
  fuzz_require(server.start(script), "the scripted server");
  std::string line = "127.0.0.1:" + std::to_string(server.port()) + "\n";
  fuzz_write_file(hosts, reinterpret_cast<const uint8_t*>(line.data()),
                  line.size());
  for (uint8_t pick : picks) {
    kRequests[pick](&s);
  }
  kfs_session_disconnect(&s);
  server.stop();
  fuzz_require(server.malformed().empty(), "every request well formed");
  return 0;
}
