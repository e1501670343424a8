#include "fuzz/fuzz_support.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

#include "agent/root.h"
#include "kfs/client/kfs.h"
#include "lib/scoped.h"
#include "lib/sleep.h"

// The agent library asks for its install root only in messages of the job
// reader's caller; the targets have none.
const char* kovra_root() {
  return "/nonexistent/kovra-fuzz-root";
}

const std::string& fuzz_scratch_dir() {
  static std::string scratch;
  if (!scratch.empty()) {
    return scratch;
  }
  const char* tmp = getenv("TMPDIR");
  std::string pattern =
      std::string(tmp && *tmp ? tmp : "/tmp") + "/kovra-fuzz-XXXXXX";
  fuzz_require(mkdtemp(pattern.data()) != nullptr, "a scratch folder");
  scratch = pattern;
  atexit([] {
    std::error_code error;
    std::filesystem::remove_all(scratch, error);
  });
  sleep_set_hook([](unsigned) {});
  unique_fd null_fd(open("/dev/null", O_WRONLY));
  fuzz_require(dup2(null_fd.get(), STDOUT_FILENO) >= 0, "stdout to /dev/null");
  return scratch;
}

void fuzz_write_file(const std::string& path, const uint8_t* data, size_t n) {
  unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
  fuzz_require(fd.get() >= 0 &&
                   fd_write_all(fd.get(), data, n) == static_cast<int64_t>(n),
               "writing a scratch file");
}

void fuzz_require(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "fuzz: invariant broken: %s\n", what);
    abort();
  }
}
