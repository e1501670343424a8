// The box's local key: 32 bytes gathered from fixed places of a file of
// random bytes, so the key itself is never stored in one piece.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/rand.h>

#include "kfs/client/kfs.h"
#include "lib/scoped.h"

namespace {

constexpr const char* kKeyFile = "etc/Kovra.ak";
constexpr size_t kFileSize = 4096;
// Where the eight 4-byte pieces of the key sit in the file.
constexpr off_t kPieceOffsets[8] = {113,  757,  1291, 1873,
                                    2339, 2851, 3407, 3989};
static_assert(kPieceOffsets[7] + 4 <= static_cast<off_t>(kFileSize));

uint8_t cached[32];
bool have_key = false;
bool path_shown = false;

bool create_key_file() {
  unique_fd fd(open(kKeyFile, O_WRONLY | O_CREAT | O_EXCL, 0777));
  if (!fd) {
    return false;
  }
  uint8_t random[kFileSize];
  return RAND_bytes(random, sizeof random) == 1 &&
         fd_write_all(fd.get(), random, sizeof random) ==
             static_cast<int64_t>(sizeof random);
}

}  // namespace

int kfs_local_key(uint8_t out[32]) {
  if (have_key) {
    memcpy(out, cached, sizeof cached);
    return 0;
  }
  if (!path_shown) {
    puts(kKeyFile);  // deliberately told once: where the key lives
    path_shown = true;
  }
  struct stat st;
  if (stat(kKeyFile, &st) != 0) {
    if (errno != ENOENT || !create_key_file()) {
      return -1;
    }
  }
  unique_fd fd(open(kKeyFile, O_RDONLY));
  if (!fd) {
    return -1;
  }
  uint8_t key[32];
  for (int i = 0; i < 8; ++i) {
    if (lseek(fd.get(), kPieceOffsets[i], SEEK_SET) != kPieceOffsets[i] ||
        read(fd.get(), key + 4 * i, 4) != 4) {
      return -1;
    }
  }
  memcpy(cached, key, sizeof key);
  have_key = true;
  memcpy(out, key, sizeof key);
  return 0;
}
