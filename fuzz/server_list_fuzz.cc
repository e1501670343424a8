// The server list reader on any bytes, as etc/hosts (up to 32 entries) and
// as etc/hosts.agent (up to 2, appended behind an entry already there).
// Parsing only: nothing here connects anywhere.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "fuzz/fuzz_support.h"
#include "kfs/client/kfs_internal.h"

namespace {

void check_entries(const kfs_server_entry* e, int from, int count) {
  for (int i = from; i < count; ++i) {
    size_t len = strnlen(e[i].host, KFS_HOST_SIZE);
    fuzz_require(len < KFS_HOST_SIZE && memchr(e[i].host, ':', len) == nullptr,
                 "a host without ':' fits its field with its NUL");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = fuzz_scratch_dir() + "/hosts";
  fuzz_write_file(path, data, size);

  kfs_server_entry servers[KFS_MAX_SERVERS];
  memset(servers, 0xA5, sizeof servers);  // no NUL unless the reader writes
  int count = 0;
  fuzz_require(
      kfs_read_server_list(path.c_str(), "r", servers, KFS_MAX_SERVERS, &count),
      "an existing list opens");
  fuzz_require(count >= 0 && count <= KFS_MAX_SERVERS, "count within max");
  check_entries(servers, 0, count);

  kfs_server_entry last[KFS_MAX_LAST_SERVERS] = {};
  snprintf(last[0].host, sizeof last[0].host, "%s", "10.0.0.1");
  int last_count = 1;
  kfs_read_server_list(path.c_str(), "rt", last, KFS_MAX_LAST_SERVERS,
                       &last_count);
  fuzz_require(last_count >= 1 && last_count <= KFS_MAX_LAST_SERVERS,
               "appends within max");
  fuzz_require(strcmp(last[0].host, "10.0.0.1") == 0, "keeps earlier entries");
  check_entries(last, 1, last_count);
  return 0;
}
