// The file change index on any file. The input is a u32 (little-endian)
// stamp, then the bytes of etc/fuzz.fci; the index is opened with that
// stamp, which the header may or may not carry, asked about fixed paths
// (the seed indexes hold every fifth of /srv/photos/000.jpg..299.jpg, file
// i with mtime 1700000000 + i and size i * 4099, so these lookups hit) and
// about paths and attributes taken from the input, and closed discarding.
// The working directory is the scratch folder, as the agent's is its root.
#include <sys/stat.h>
#include <unistd.h>

#include "agent/fci/fci.h"
#include "agent/fci/fci_internal.h"
#include "fuzz/fuzz_support.h"

namespace {

fci_context ctx;

void look_up(const char* path, uint32_t mtime, uint32_t low, uint32_t high) {
  int found = 0;
  fuzz_require(fci_lookup(&ctx, path, mtime, low, high, &found) == 0 ||
                   (ctx.flags & FCI_FLAG_INVALID) != 0,
               "a failed lookup leaves the index invalid");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready =
      chdir(fuzz_scratch_dir().c_str()) == 0 && mkdir("etc", 0700) == 0;
  fuzz_require(ready, "etc/ in the scratch folder");
  if (size < 4) {
    return 0;
  }
  int32_t stamp = static_cast<int32_t>(fci_get_u32le(data));
  fuzz_write_file("etc/fuzz.fci", data + 4, size - 4);
  int rc = fci_open(&ctx, "jobs/fuzz", stamp);
  fuzz_require(rc == 0 ? ctx.commit_time == stamp && ctx.page_count > 0 &&
                             ctx.page_count - ctx.whole_leads <= 1
                       : (ctx.flags & FCI_FLAG_INVALID) != 0,
               "open: the stamp and each page's lead record, or invalid");
  fuzz_require(strlen(ctx.error_text) < sizeof ctx.error_text, "error text");
  for (uint32_t i = 0; i < 300; i += 5) {
    char path[64];
    snprintf(path, sizeof path, "/srv/photos/%03u.jpg", i);
    look_up(path, 1700000000u + i, i * 4099u, 0);
  }
  // Paths and attributes from the input: pieces of its record area.
  for (size_t at = 12; at + 12 <= size; at += 97) {
    const char* text = reinterpret_cast<const char*>(data + at);
    std::string path(text, strnlen(text, std::min<size_t>(size - at, 40)));
    look_up(path.c_str(), fci_get_u32le(data + at),
            fci_get_u32le(data + at + 4), fci_get_u32le(data + at + 8));
  }
  fci_close(&ctx, 0);
  fci_close(&ctx, 0);  // a second close does nothing
  // A discard keeps the read-only copy for the next run, which must read
  // the next input instead.
  unlink("etc/fuzz.fci.ro");
  unlink("etc/fuzz.fci");
  return 0;
}
