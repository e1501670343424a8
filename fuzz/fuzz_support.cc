#include "fuzz/fuzz_support.h"

#include <stdlib.h>

#include <filesystem>

#include "agent/root.h"
#include "lib/sleep.h"

// The agent library asks for its install root only in messages of the job
// reader's caller; the targets have none.
const char* kovra_root() {
  return "/nonexistent/kovra-fuzz-root";
}

const std::string& fuzz_scratch_dir() {
  // Never destroyed: removed by the exit handler.
  static const std::string& scratch = *new std::string([] {
    const char* tmp = getenv("TMPDIR");
    std::string dir =
        std::string(tmp && *tmp ? tmp : "/tmp") + "/kovra-fuzz-XXXXXX";
    fuzz_require(mkdtemp(dir.data()) != nullptr, "a scratch folder");
    atexit([] {
      std::error_code error;
      std::filesystem::remove_all(scratch, error);
    });
    sleep_set_hook([](unsigned) {});
    fuzz_require(freopen("/dev/null", "w", stdout) != nullptr, "stdout");
    return dir;
  }());
  return scratch;
}

void fuzz_write_file(const std::string& path, const uint8_t* data, size_t n) {
  FILE* f = fopen(path.c_str(), "wb");
  fuzz_require(f && fwrite(data, 1, n, f) == n && fclose(f) == 0, path.c_str());
}

void fuzz_require(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "fuzz: invariant broken: %s\n", what);
    abort();
  }
}
