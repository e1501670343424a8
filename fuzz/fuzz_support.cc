#include "fuzz/fuzz_support.h"

#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "agent/root.h"
#include "lib/scoped.h"
#include "lib/sleep.h"

const uint8_t FUZZ_PACKET_KEY[KFS_KEY_SIZE] = {
    0x4b, 0x46, 0x53, 0x2d, 0x66, 0x75, 0x7a, 0x7a, 0x00, 0x01, 0x02,
    0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d,
    0x0e, 0x0f, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17};

const uint8_t FUZZ_ACCOUNT_KEY[32] = {
    0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xaa,
    0xbb, 0xcc, 0xdd, 0xee, 0xff, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55,
    0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};

// The agent library asks for its install root only in messages of the job
// reader's caller; the targets have none.
const char* kovra_root() {
  return "/nonexistent/kovra-fuzz-root";
}

namespace {

std::string scratch;

void no_sleep(unsigned) {}

int remove_entry(const char* path, const struct stat*, int, struct FTW*) {
  if (remove(path) != 0) {
    // Best effort: whatever stays is inside the caller's TMPDIR.
  }
  return 0;
}

void remove_scratch() {
  if (!scratch.empty()) {
    fuzz_remove_tree(scratch);
  }
}

}  // namespace

const std::string& fuzz_scratch_dir() {
  if (!scratch.empty()) {
    return scratch;
  }
  const char* tmp = getenv("TMPDIR");
  std::string pattern =
      std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") +
      "/kovra-fuzz-XXXXXX";
  fuzz_require(mkdtemp(pattern.data()) != nullptr, "mkdtemp");
  char* real = realpath(pattern.c_str(), nullptr);
  fuzz_require(real != nullptr, "realpath of the scratch folder");
  scratch = real;
  free(real);
  atexit(remove_scratch);
  sleep_set_hook(no_sleep);
  int null_fd = open("/dev/null", O_WRONLY);
  fuzz_require(null_fd >= 0 && dup2(null_fd, STDOUT_FILENO) >= 0,
               "standard output to /dev/null");
  close(null_fd);
  return scratch;
}

void fuzz_write_file(const std::string& path, const uint8_t* data, size_t n) {
  file_ptr f(fopen(path.c_str(), "wb"));
  fuzz_require(f != nullptr, "opening a scratch file");
  fuzz_require(n == 0 || fwrite(data, 1, n, f.get()) == n,
               "writing a scratch file");
  fuzz_require(fclose(f.release()) == 0, "closing a scratch file");
}

std::string fuzz_read_file(const std::string& path) {
  file_ptr f(fopen(path.c_str(), "rb"));
  std::string text;
  if (!f) {
    return text;
  }
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, f.get())) > 0) {
    text.append(buffer, n);
  }
  return text;
}

void fuzz_require(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "fuzz: invariant broken: %s\n", what);
    abort();
  }
}

void fuzz_remove_tree(const std::string& path) {
  if (nftw(path.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS) != 0) {
    // A missing tree is already removed.
  }
}
