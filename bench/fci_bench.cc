// bench/fci_bench.cc: one run's life of the file change index at the scale
// of a large box: a million realistic paths added, committed, the index
// reopened, every path looked up in walk order and in a shuffled order, then
// a million paths that are not in it. Prints the rates, the pages read and
// the peak resident memory against what the index may hold: the lead records
// (32 bytes per 128 files) plus a page cache of at most 5120 pages.
//
// A plain program rather than Google Benchmark fixtures: the phases depend
// on each other (adds feed the commit, the commit feeds the lookups) and each
// runs once over the same files. Run it in an empty scratch directory; it
// works below the current one, as the agent does below its root.
#include <stdint.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>

#include <openssl/evp.h>

#include "agent/fci/fci.h"

namespace {

constexpr uint32_t FILES = 1000000;
constexpr int32_t COMMIT_TIME = 1700000000;
constexpr size_t PATH_SIZE = 1024;

double now_s() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

long peak_rss_kib() {
  rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss;
}

// File i of the walk: photos by year and month, an album collection, and
// home folders, in the order a walk meets them.
void file_path(uint32_t i, char* out) {
  if (i < 400000) {
    snprintf(out, PATH_SIZE, "/srv/photos/%04u/%02u/IMG_%04u.jpg",
             2008 + i / 24000, i / 2000 % 12 + 1, i % 2000);
  } else if (i < 700000) {
    uint32_t k = i - 400000;
    snprintf(out, PATH_SIZE,
             "/srv/music/Artist %03u/Album %02u/%02u - Track %u.flac", k / 120,
             k / 12 % 10, k % 12 + 1, k % 12 + 1);
  } else {
    uint32_t k = i - 700000;
    snprintf(out, PATH_SIZE,
             "/home/user%02u/Documents/project-%04u/notes-%03u.txt", k / 30000,
             k / 100 % 300, k % 100);
  }
}

void missing_path(uint32_t i, char* out) {
  snprintf(out, PATH_SIZE, "/srv/photos/%04u/%02u/IMG_%04u.jpg.part",
           2008 + i / 24000, i / 2000 % 12 + 1, i % 2000);
}

uint32_t mtime_of(uint32_t i) {
  return 1500000000u + i * 97u % 200000000u;
}

uint64_t size_of(uint32_t i) {
  uint64_t s = (uint64_t{i} * 2654435761u) % (64u << 20);
  return i % 1000 == 0 ? s + (uint64_t{5} << 32) : s;  // a few above 4 GiB
}

// A shuffled order without a table: a full-period LCG over 2^20, skipping
// values from FILES up.
uint32_t shuffled(uint32_t* state) {
  do {
    *state = (*state * 1664525u + 1013904223u) & ((1u << 20) - 1);
  } while (*state >= FILES);
  return *state;
}

struct lookup_result {
  double seconds;
  uint32_t found;
  uint32_t pages_read;
  uint32_t errors;
};

template <typename PathOf>
lookup_result look_up_all(fci_context* ctx, PathOf path_of) {
  char path[PATH_SIZE];
  uint32_t pages_before = ctx->pages_read;
  lookup_result r = {};
  double t0 = now_s();
  for (uint32_t n = 0; n < FILES; n++) {
    uint32_t i = path_of(n, path);
    uint64_t size = size_of(i);
    int found = 0;
    if (fci_lookup(ctx, path, mtime_of(i), static_cast<uint32_t>(size),
                   static_cast<uint32_t>(size >> 32), &found) != 0) {
      r.errors++;
    }
    r.found += static_cast<uint32_t>(found);
  }
  r.seconds = now_s() - t0;
  r.pages_read = ctx->pages_read - pages_before;
  return r;
}

void print_lookups(const char* name, const lookup_result& r) {
  printf("%-28s %10.0f /s  %8.3f s  found %7u  pages read %7u%s\n", name,
         FILES / r.seconds, r.seconds, r.found, r.pages_read,
         r.errors != 0 ? "  ERRORS" : "");
}

}  // namespace

int main() {
  if (mkdir("etc", 0777) != 0) {
    // Already there: a rerun in the same folder reuses it.
  }
  // libcrypto sets itself up on first use; that is not the index's memory.
  uint8_t warm[EVP_MAX_MD_SIZE];
  EVP_Digest("warm", 4, warm, nullptr, EVP_sha1(), nullptr);
  long base_kib = peak_rss_kib();
  fci_context* ctx = fci_run_context();
  fci_open(ctx, "bench", 0);  // no index yet: "unintialized", as a first run

  char path[PATH_SIZE];
  uint32_t add_errors = 0;
  double t0 = now_s();
  for (uint32_t i = 0; i < FILES; i++) {
    file_path(i, path);
    uint64_t size = size_of(i);
    if (fci_add(ctx, path, mtime_of(i), static_cast<uint32_t>(size),
                static_cast<uint32_t>(size >> 32)) != 0) {
      add_errors++;
    }
  }
  double add_s = now_s() - t0;
  long adds_kib = peak_rss_kib();

  t0 = now_s();
  fci_close(ctx, COMMIT_TIME);
  double commit_s = now_s() - t0;
  struct stat st = {};
  stat("etc/bench.fci", &st);

  t0 = now_s();
  int open_rc = fci_open(ctx, "bench", COMMIT_TIME);
  double open_s = now_s() - t0;
  int32_t pages = ctx->page_count;
  long open_kib = peak_rss_kib();

  lookup_result walk = look_up_all(ctx, [](uint32_t n, char* out) {
    file_path(n, out);
    return n;
  });
  uint32_t state = 12345;
  lookup_result random = look_up_all(ctx, [&state](uint32_t, char* out) {
    uint32_t i = shuffled(&state);
    file_path(i, out);
    return i;
  });
  lookup_result misses = look_up_all(ctx, [](uint32_t n, char* out) {
    missing_path(n, out);
    return n;
  });
  fci_close(ctx, 0);
  long peak_kib = peak_rss_kib();

  double lead_kib = pages * 32.0 / 1024;
  double cache_kib = FCI_CACHE_PAGES * (FCI_PAGE_SIZE / 1024.0);
  printf("file change index, %u files\n", FILES);
  printf("%-28s %10.0f /s  %8.3f s  errors %u\n", "add", FILES / add_s, add_s,
         add_errors);
  printf("%-28s %8.3f s  index %lld bytes, %d pages\n", "commit", commit_s,
         static_cast<long long>(st.st_size), pages);
  printf("%-28s %8.3f s  rc %d, lead records %.0f KiB\n", "open", open_s,
         open_rc, lead_kib);
  print_lookups("lookup, walk order", walk);
  print_lookups("lookup, shuffled order", random);
  print_lookups("lookup, not in the index", misses);
  printf("%-28s %ld KiB peak, %ld KiB before the index, %ld KiB for it\n",
         "resident memory", peak_kib, base_kib, peak_kib - base_kib);
  printf("%-28s %ld KiB after the adds, %ld KiB after commit and open\n",
         "  of which", adds_kib - base_kib, open_kib - base_kib);
  printf("%-28s %.0f KiB (lead records %.0f KiB + page cache %.0f KiB)\n",
         "budget", lead_kib + cache_kib, lead_kib, cache_kib);
  bool ok = add_errors == 0 && open_rc == 0 && walk.found == FILES &&
            random.found == FILES && misses.found == 0 && walk.errors == 0 &&
            random.errors == 0 && misses.errors == 0;
  printf("%s\n", ok ? "all lookups as expected" : "UNEXPECTED RESULTS");
  return ok ? 0 : 1;
}
