#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <openssl/evp.h>

#include "agent/fci/fci.h"
#include "agent/fci/fci_internal.h"
#include "agent/fci/hash.h"
#include "lib/format.h"
#include "lib/scoped.h"

namespace {

// Twice the ring, at load 0.5: 11369 buckets and a threshold of 5685, so
// the table never grows while the ring holds at most 5120 pages.
constexpr uint32_t TABLE_SIZE = 2 * FCI_CACHE_PAGES;
constexpr float TABLE_LOAD = 0.5f;
constexpr int32_t PAGE_KEY_LEN = 4;
constexpr size_t MD5_PIECE = 8192;
constexpr size_t MD5_SIZE = 16;
// Where the lead search ends for a probe that sorts before every lead.
constexpr int32_t NO_PAGE = -1;

// Page ids are the keys themselves, carried in the pointer; ids are dense and
// the bucket count is prime, so the identity spreads them well.
uint32_t page_hash(const void* key, int32_t) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(key));
}

int page_equal(const void* a, const void* b, int32_t) {
  return a == b;
}

const void* page_key(uint32_t page_id) {
  return reinterpret_cast<const void*>(static_cast<uintptr_t>(page_id));
}

int32_t next_slot(int32_t slot) {
  return slot + 1 == static_cast<int32_t>(FCI_CACHE_PAGES) ? 0 : slot + 1;
}

int32_t previous_slot(int32_t slot) {
  return slot == 0 ? static_cast<int32_t>(FCI_CACHE_PAGES) - 1 : slot - 1;
}

bool same_attributes(const uint8_t* raw, const fci_record* probe) {
  return fci_get_u32le(raw + FCI_DIGEST_SIZE) == probe->mtime &&
         fci_get_u32le(raw + FCI_DIGEST_SIZE + 4) == probe->size_low &&
         fci_get_u32le(raw + FCI_DIGEST_SIZE + 8) == probe->size_high;
}

int count_miss(fci_context* ctx) {
  ctx->misses++;
  return 0;
}

int count_hit(fci_context* ctx, int* found) {
  ctx->hits++;
  *found = 1;
  return 0;
}

// A page that cannot be held or read makes the whole index unusable for the
// rest of the run: the remaining files are sent, which is always safe.
int fail_page(fci_context* ctx, int line, const char* what, uint32_t page_id,
              int error) {
  fci_set_error(ctx, "FCI error: %s:%d - %s page_id %lu: %s", FCI_SOURCE_NAME,
                line, what, static_cast<unsigned long>(page_id),
                safe_strerror(error));
  ctx->flags |= FCI_FLAG_INVALID;
  ctx->misses++;
  errno = error;
  return -1;
}

// The page that can hold the probe: the last whose lead record sorts before
// it, or the one whose lead has its digest. Sets *lead_match when that lead
// is the record sought in every field.
int32_t find_page(const fci_context* ctx, const fci_record* probe,
                  bool* lead_match) {
  int32_t lo = 0;
  int32_t hi = ctx->page_count - 1;
  while (lo <= hi) {
    int32_t mid = lo + (hi - lo) / 2;
    const fci_record* lead = &ctx->lead_records[mid];
    int order = memcmp(lead->digest, probe->digest, FCI_DIGEST_SIZE);
    if (order < 0) {
      lo = mid + 1;
    } else if (order > 0) {
      hi = mid - 1;
    } else {
      *lead_match = mid < ctx->whole_leads && lead->mtime == probe->mtime &&
                    lead->size_low == probe->size_low &&
                    lead->size_high == probe->size_high;
      return mid;
    }
  }
  return lo - 1;
}

// The cached page, or one read into the ring's next slot (evicting the
// oldest when full). Null when it cannot be; the failure is then reported.
fci_page* fetch_page(fci_context* ctx, uint32_t page_id) {
  if (ctx->cache_table == nullptr) {
    ctx->cache_table =
        hash_create(nullptr, TABLE_SIZE, PAGE_KEY_LEN, TABLE_LOAD, 0, page_hash,
                    page_equal, nullptr);
  } else {
    void* cached = nullptr;
    if (hash_lookup(ctx->cache_table, page_key(page_id), &cached) == 1) {
      return static_cast<fci_page*>(cached);
    }
  }
  if (ctx->cache_count == static_cast<int32_t>(FCI_CACHE_PAGES)) {
    // First in, first out by fill order: the buffer stays in its slot and is
    // refilled below.
    const fci_page* oldest = ctx->cache_slots[ctx->cache_head];
    hash_remove(ctx->cache_table, page_key(oldest->page_id), nullptr);
    ctx->cache_head = next_slot(ctx->cache_head);
    ctx->cache_count--;
  }
  fci_page*& slot = ctx->cache_slots[ctx->cache_tail];
  if (slot == nullptr) {
    // Plain malloc: a page the box cannot hold costs the index, not the run.
    slot = static_cast<fci_page*>(malloc(sizeof(fci_page)));
    if (slot == nullptr) {
      fail_page(ctx, __LINE__, "cannot allocate", page_id, errno);
      return nullptr;
    }
  }
  fci_page* page = slot;
  ctx->cache_tail = next_slot(ctx->cache_tail);
  ctx->cache_count++;
  ssize_t got = fci_read_at(ctx->fd, page->data, sizeof page->data,
                            fci_page_offset(page_id));
  if (got < 0) {
    int error = errno;
    ctx->cache_tail = previous_slot(ctx->cache_tail);
    ctx->cache_count--;
    fail_page(ctx, __LINE__, "reading", page_id, error);
    return nullptr;
  }
  ctx->pages_read++;
  page->page_id = page_id;
  // Trailing bytes short of a record are ignored.
  page->count = static_cast<uint32_t>(got) / FCI_RECORD_SIZE;
  hash_insert(ctx->cache_table, page_key(page_id), page);
  return page;
}

}  // namespace

int fci_lookup(fci_context* ctx, const char* path, uint32_t mtime,
               uint32_t size_low, uint32_t size_high, int* found) {
  if (ctx == nullptr || path == nullptr || found == nullptr) {
    errno = EINVAL;
    return -1;
  }
  *found = 0;
  ctx->error_text[0] = '\0';
  if ((ctx->flags & FCI_FLAG_INVALID) != 0) {
    return count_miss(ctx);
  }
  fci_record probe;
  if (!fci_digest_path(ctx, path, probe.digest)) {
    return count_miss(ctx);
  }
  probe.mtime = mtime;
  probe.size_low = size_low;
  probe.size_high = size_high;

  bool lead_match = false;
  int32_t page_index = find_page(ctx, &probe, &lead_match);
  if (lead_match) {
    return count_hit(ctx, found);
  }
  if (page_index == NO_PAGE) {
    // Sorts before the first record of the index, so it is not in it; no
    // page need be read to know.
    return count_miss(ctx);
  }
  const fci_page* page = fetch_page(ctx, static_cast<uint32_t>(page_index));
  if (page == nullptr) {
    return -1;
  }
  // bsearch, not a hand-written search: among equal digests, the record it
  // lands on decides where the forward scan starts.
  const uint8_t* hit =
      static_cast<const uint8_t*>(bsearch(probe.digest, page->data, page->count,
                                          FCI_RECORD_SIZE, fci_compare_digest));
  if (hit == nullptr) {
    return count_miss(ctx);
  }
  // Forward only, on purpose: earlier records with the same digest, here or
  // on the page before, are not examined.
  const uint8_t* end = page->data + page->count * FCI_RECORD_SIZE;
  for (const uint8_t* r = hit;
       r < end && fci_compare_digest(r, probe.digest) == 0;
       r += FCI_RECORD_SIZE) {
    if (same_attributes(r, &probe)) {
      return count_hit(ctx, found);
    }
  }
  return count_miss(ctx);
}

int fci_range_md5(int fd, int64_t offset, uint32_t length, uint8_t digest[16]) {
  if (lseek(fd, offset, SEEK_SET) < 0) {
    return 1;
  }
  md_ctx_ptr md(EVP_MD_CTX_new());
  if (!md || EVP_DigestInit_ex(md.get(), EVP_md5(), nullptr) != 1) {
    return 1;
  }
  uint8_t piece[MD5_PIECE];
  uint32_t left = length;
  while (left > 0) {
    size_t want = left < MD5_PIECE ? left : MD5_PIECE;
    ssize_t n = read(fd, piece, want);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return 1;
    }
    if (n == 0) {
      break;
    }
    if (EVP_DigestUpdate(md.get(), piece, static_cast<size_t>(n)) != 1) {
      return 1;
    }
    left -= static_cast<uint32_t>(n);
  }
  uint8_t out[MD5_SIZE];
  if (EVP_DigestFinal_ex(md.get(), out, nullptr) != 1) {
    return 1;
  }
  memcpy(digest, out, sizeof out);
  return 0;
}
