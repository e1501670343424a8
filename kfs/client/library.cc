#include "kfs/client/kfs.h"

namespace {
// One thread uses the client, so the count needs no lock.
int use_count = 0;
}  // namespace

int kfs_library_init() {
  ++use_count;
  return 0;
}

void kfs_library_cleanup() {
  if (use_count > 0) {
    --use_count;
  }
}

int kfs_library_use_count() {
  return use_count;
}
