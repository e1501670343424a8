// The account key file readers on any bytes: the agent's (also the restore
// tool's) and kfsd's --key-file reader, which read one format. On files
// without NUL bytes and with lines the agent reads whole (it reads up to
// 1023 bytes a line and stops a line at a NUL; past either the two differ
// by design), they must agree on the verdict and on the key.

#include "agent/account_key.h"
#include "fuzz/fuzz_support.h"
#include "kfs/server/kfsd_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = fuzz_scratch_dir() + "/account.key";
  fuzz_write_file(path, data, size);
  uint8_t agent_key[ACCOUNT_KEY_SIZE] = {};
  int agent = account_key_read(path.c_str(), agent_key);
  uint8_t server_key[32] = {};
  std::string error;
  int server = kfsd_key_file_read(path, server_key, &error);

  size_t line = 0;
  size_t longest = 0;
  for (size_t i = 0; i < size; ++i) {
    line = data[i] == '\n' ? 0 : line + 1;
    longest = std::max(longest, line);
  }
  if (longest < 1000 && memchr(data, 0, size) == nullptr) {
    fuzz_require((agent == 0) == (server == 0), "both readers agree");
    fuzz_require(agent != 0 || memcmp(agent_key, server_key, 32) == 0,
                 "both readers read the same key");
  }
  return 0;
}
