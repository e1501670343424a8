// The server list reader on any bytes, as etc/hosts (up to 32 entries) and
// as etc/hosts.agent (up to 2, appended behind an entry already there).
// Parsing only: nothing here connects anywhere.

#include "fuzz/fuzz_support.h"
#include "kfs/client/kfs_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = fuzz_scratch_dir() + "/hosts";
  fuzz_write_file(path, data, size);
  for (int agent = 0; agent < 2; ++agent) {
    int max = agent ? KFS_MAX_LAST_SERVERS : KFS_MAX_SERVERS;
    kfs_server_entry servers[KFS_MAX_SERVERS];
    memset(servers, 0xA5, sizeof servers);  // no NUL unless the reader writes
    snprintf(servers[0].host, KFS_HOST_SIZE, "%s", agent ? "10.0.0.1" : "");
    int count = agent;
    fuzz_require(kfs_read_server_list(path.c_str(), agent ? "rt" : "r", servers,
                                      max, &count),
                 "an existing list opens");
    fuzz_require(count >= agent && count <= max, "count within max");
    fuzz_require(!agent || strcmp(servers[0].host, "10.0.0.1") == 0,
                 "keeps earlier entries");
    for (int i = agent; i < count; ++i) {
      size_t len = strnlen(servers[i].host, KFS_HOST_SIZE);
      fuzz_require(
          len < KFS_HOST_SIZE && memchr(servers[i].host, ':', len) == nullptr,
          "a host without ':' fits its field with its NUL");
    }
  }
  return 0;
}
