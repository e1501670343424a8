#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>

#include "agent/fci/fci.h"
#include "agent/fci/fci_internal.h"
#include "agent/fci/hash.h"
#include "lib/alloc.h"
#include "lib/format.h"
#include "lib/scoped.h"

namespace {

// Sort files get small buffers of our own (the C library would give each a
// page): 256 of them are open at once for the whole run, and a 32-byte
// append must still cost no system call.
constexpr size_t SORT_BUFFER = 1024;
constexpr size_t INDEX_BUFFER = 16384;
constexpr size_t NAME_MAX_LEN = 32;

// Zeroed as a static; fci_run_context() marks its descriptor absent before
// anyone can use it.
fci_context g_run_context;
bool g_run_context_ready = false;

// Ends an open that found the previous index unusable.
int fail_open(fci_context* ctx) {
  ctx->flags |= FCI_FLAG_INVALID;
  if (ctx->fd >= 0) {
    close(ctx->fd);
  }
  ctx->fd = -1;
  ctx->commit_time = 0;
  return -1;
}

// Files of an interrupted run would otherwise slip into this run's index.
void clear_sort_folder() {
  if (mkdir(FCI_SORT_DIR, 0777) != 0) {
    char name[NAME_MAX_LEN];
    for (uint32_t n = 0; n < FCI_SORT_FILES; n++) {
      fci_sort_file_name(n, name, sizeof name);
      if (unlink(name) != 0) {
        // Most buckets are absent; a survivor only costs this run its disk.
      }
    }
  }
  errno = 0;
}

// Decides which file holds the previous index and opens it. False with the
// context's text set when there is none to use.
bool open_previous(fci_context* ctx, const char* ro) {
  struct stat st;
  if (stat(ro, &st) == 0) {
    // A commit was cut short after writing the new index: the copy is the
    // last index whose run completed.
    if (unlink(ctx->path) != 0) {
      // Usually there is no such half-written index at all.
    }
    errno = 0;
  } else if (stat(ctx->path, &st) != 0) {
    fci_set_error(ctx, "FCI invalid: unintialized");
    return false;
  } else if (rename(ctx->path, ro) != 0) {
    int saved = errno;
    fci_set_error(ctx, "FCI invalid: rename read-only fci failed: %s",
                  safe_strerror(saved));
    if (unlink(ctx->path) != 0) {
      // The rename's errno is the one that tells the story.
    }
    errno = saved;
    return false;
  }
  ctx->fd = open(ro, O_RDONLY);
  if (ctx->fd < 0) {
    fci_set_error(ctx, "FCI invalid: open read-only fci failed: %s",
                  safe_strerror(errno));
    return false;
  }
  return true;
}

// Checks the header; a file whose header is wrong is deleted.
bool check_header(fci_context* ctx, const char* ro, int32_t expected_time) {
  uint8_t header[FCI_HEADER_SIZE];
  // A file merely cut short then names no stale error from the calls before.
  errno = 0;
  ssize_t n = fci_read_at(ctx->fd, header, sizeof header, 0);
  bool ok = false;
  if (n != static_cast<ssize_t>(sizeof header)) {
    fci_set_error(ctx, "FCI invalid: reading header failed: %s",
                  safe_strerror(errno));
  } else {
    ctx->version = fci_get_u32le(header);
    ctx->commit_time = static_cast<int32_t>(fci_get_u32le(header + 4));
    if (ctx->version != FCI_VERSION) {
      // No text: a file of another version is simply not ours to read.
    } else if (ctx->commit_time != expected_time) {
      fci_set_error(ctx, "FCI invalid: out of sync: client(%ld) != server(%ld)",
                    static_cast<long>(ctx->commit_time),
                    static_cast<long>(expected_time));
    } else {
      ok = true;
    }
  }
  if (!ok) {
    int saved = errno;
    close(ctx->fd);
    ctx->fd = -1;
    if (unlink(ro) != 0) {
      // Already gone is as good.
    }
    errno = saved;
  }
  return ok;
}

bool load_lead_records(fci_context* ctx) {
  struct stat st;
  if (fstat(ctx->fd, &st) != 0 || st.st_size <= FCI_HEADER_SIZE) {
    fci_set_error(ctx, "FCI invalid: empty record set");
    return false;
  }
  int32_t count = fci_page_count(st.st_size);
  // Zeroed, so that a last page shorter than one record still gets a
  // defined lead to steer the search; such a page has no records.
  ctx->lead_records = static_cast<fci_record*>(
      calloc(static_cast<size_t>(count), sizeof(fci_record)));
  if (ctx->lead_records == nullptr) {
    fci_set_error(ctx, "FCI invalid: loading (%d) lead records failed: %s",
                  count, safe_strerror(errno));
    return false;
  }
  ctx->page_count = count;
  for (int32_t page = 0; page < count; page++) {
    uint8_t raw[FCI_RECORD_SIZE] = {};
    ssize_t got = fci_read_at(ctx->fd, raw, sizeof raw,
                              fci_page_offset(static_cast<uint32_t>(page)));
    if (got < 0) {
      int saved = errno;
      fci_set_error(ctx, "FCI invalid: reading lead record %d: %s", page,
                    safe_strerror(saved));
      free(ctx->lead_records);
      ctx->lead_records = nullptr;
      ctx->page_count = 0;
      ctx->whole_leads = 0;
      errno = saved;
      return false;
    }
    fci_record_decode(raw, &ctx->lead_records[page]);
    if (got == static_cast<ssize_t>(sizeof raw)) {
      ctx->whole_leads = page + 1;
    }
  }
  return true;
}

void close_sort_file(fci_context* ctx, uint32_t n) {
  if (ctx->sort_files[n] != nullptr) {
    fclose(ctx->sort_files[n]);
    ctx->sort_files[n] = nullptr;
  }
}

// Only once every sort file is closed: stdio flushes into them until then.
void free_sort_buffers(fci_context* ctx) {
  free(ctx->sort_buffers);
  ctx->sort_buffers = nullptr;
}

void discard_sort_files(fci_context* ctx) {
  char name[NAME_MAX_LEN];
  for (uint32_t n = 0; n < FCI_SORT_FILES; n++) {
    close_sort_file(ctx, n);
    fci_sort_file_name(n, name, sizeof name);
    if (unlink(name) != 0) {
      // Buckets that got no record were never created.
    }
  }
  if (rmdir(FCI_SORT_DIR) != 0) {
    // A folder someone else filled stays; the next open clears our names.
  }
  errno = 0;
}

// Reads bucket n whole into *buffer (grown as needed) and deletes it. The
// count of bytes read, or -1 when the bucket cannot be used.
ssize_t take_bucket(uint32_t n, malloc_ptr<uint8_t>* buffer, size_t* capacity) {
  char name[NAME_MAX_LEN];
  fci_sort_file_name(n, name, sizeof name);
  unique_fd fd(open(name, O_RDWR));
  ssize_t got = -1;
  if (fd) {
    off_t size = lseek(fd.get(), 0, SEEK_END);
    if (size >= 0) {
      if (static_cast<size_t>(size) > *capacity) {
        buffer->reset(
            static_cast<uint8_t*>(xmalloc(static_cast<size_t>(size))));
        *capacity = static_cast<size_t>(size);
      }
      got = fci_read_at(fd.get(), buffer->get(), static_cast<size_t>(size), 0);
    }
  }
  fd.reset();
  if (unlink(name) != 0) {
    // A bucket that got no record was never created.
  }
  return got;
}

// Writes the header and the sorted buckets 0..255 to the open index file.
// Failures are silent: a bucket that cannot be read is left out.
void write_index(fci_context* ctx, FILE* index, int32_t commit_time) {
  ctx->version = FCI_VERSION;
  uint8_t header[FCI_HEADER_SIZE];
  fci_header_encode(ctx->version, commit_time, header);
  fwrite(header, 1, sizeof header, index);
  malloc_ptr<uint8_t> buffer;
  size_t capacity = 0;
  for (uint32_t n = 0; n < FCI_SORT_FILES; n++) {
    close_sort_file(ctx, n);
    ssize_t got = take_bucket(n, &buffer, &capacity);
    if (got <= 0) {
      continue;
    }
    // Whole records only: a tail torn by a full disk would shift every
    // later record of the index off its 32-byte grid.
    size_t count = static_cast<size_t>(got) / FCI_RECORD_SIZE;
    // qsort, not std::sort: records with equal digests keep the order the C
    // library gives them, so the bytes written stay the same.
    qsort(buffer.get(), count, FCI_RECORD_SIZE, fci_compare_digest);
    fwrite(buffer.get(), FCI_RECORD_SIZE, count, index);
  }
}

}  // namespace

fci_context* fci_run_context() {
  if (!g_run_context_ready) {
    g_run_context.fd = -1;
    g_run_context_ready = true;
  }
  return &g_run_context;
}

int fci_open(fci_context* ctx, const char* job, int32_t expected_time) {
  if (ctx == nullptr || job == nullptr) {
    errno = EINVAL;
    return -1;
  }
  clear_sort_folder();
  memset(ctx, 0, sizeof *ctx);
  ctx->fd = -1;
  char ro[FCI_PATH_MAX + 3];
  bool ok;
  if (!fci_index_names(job, ctx->path, sizeof ctx->path, ro, sizeof ro)) {
    errno = ENAMETOOLONG;
    fci_set_error(ctx, "FCI invalid: open read-only fci failed: %s",
                  safe_strerror(errno));
    ok = false;
  } else {
    ok = open_previous(ctx, ro) && check_header(ctx, ro, expected_time);
  }
  int saved = errno;
  ctx->digest_ctx = EVP_MD_CTX_new();
  if (ctx->digest_ctx != nullptr &&
      EVP_DigestInit_ex(ctx->digest_ctx, EVP_sha1(), nullptr) != 1) {
    EVP_MD_CTX_free(ctx->digest_ctx);
    ctx->digest_ctx = nullptr;
  }
  if (ctx->digest_ctx == nullptr) {
    // Without a digest nothing can be looked up or added; not worth a text
    // of its own, as the library only fails here when memory is gone.
    alloc_exhausted();
  }
  errno = saved;
  if (!ok || !load_lead_records(ctx)) {
    return fail_open(ctx);
  }
  return 0;
}

int fci_add(fci_context* ctx, const char* path, uint32_t mtime,
            uint32_t size_low, uint32_t size_high) {
  if (ctx == nullptr || path == nullptr) {
    errno = EINVAL;
    return -1;
  }
  ctx->error_text[0] = '\0';
  fci_record record;
  if (!fci_digest_path(ctx, path, record.digest)) {
    errno = EINVAL;
    return -1;
  }
  record.mtime = mtime;
  record.size_low = size_low;
  record.size_high = size_high;
  uint8_t raw[FCI_RECORD_SIZE];
  fci_record_encode(&record, raw);
  uint32_t n = raw[0];
  FILE* f = ctx->sort_files[n];
  if (f == nullptr) {
    char name[NAME_MAX_LEN];
    fci_sort_file_name(n, name, sizeof name);
    f = fopen(name, "wb+");
    if (f == nullptr) {
      int saved = errno;
      fci_set_error(ctx, "FCI error: opening sort file %u: %s", n,
                    safe_strerror(saved));
      errno = saved;
      return -1;
    }
    if (ctx->sort_buffers == nullptr) {
      ctx->sort_buffers =
          static_cast<char*>(xmalloc(FCI_SORT_FILES * SORT_BUFFER));
    }
    setvbuf(f, ctx->sort_buffers + n * SORT_BUFFER, _IOFBF, SORT_BUFFER);
    ctx->sort_files[n] = f;
  }
  fwrite(raw, 1, sizeof raw, f);
  return 0;
}

void fci_close(fci_context* ctx, int32_t commit_time) {
  if (ctx == nullptr || (ctx->flags & FCI_FLAG_CLOSED) != 0) {
    return;
  }
  ctx->flags |= FCI_FLAG_CLOSED;
  free(ctx->lead_records);
  ctx->lead_records = nullptr;
  ctx->page_count = 0;
  ctx->whole_leads = 0;
  if (ctx->cache_table != nullptr) {
    hash_destroy(ctx->cache_table, nullptr);
    ctx->cache_table = nullptr;
  }
  for (fci_page*& slot : ctx->cache_slots) {
    free(slot);
    slot = nullptr;
  }
  ctx->cache_head = 0;
  ctx->cache_tail = 0;
  ctx->cache_count = 0;
  EVP_MD_CTX_free(ctx->digest_ctx);
  ctx->digest_ctx = nullptr;
  if (ctx->fd >= 0) {
    close(ctx->fd);
    ctx->fd = -1;
  }
  FILE* index = commit_time != 0 ? fopen(ctx->path, "wb+") : nullptr;
  if (index == nullptr) {
    discard_sort_files(ctx);
    free_sort_buffers(ctx);
    return;
  }
  setvbuf(index, nullptr, _IOFBF, INDEX_BUFFER);
  write_index(ctx, index, commit_time);
  free_sort_buffers(ctx);
  fclose(index);
  char ro[FCI_PATH_MAX + 3];
  snprintf(ro, sizeof ro, "%s.ro", ctx->path);
  if (unlink(ro) != 0) {
    // A first run has no copy.
  }
  if (rmdir(FCI_SORT_DIR) != 0) {
    // Someone else's file in it keeps it; the next open clears our names.
  }
  errno = 0;
}
