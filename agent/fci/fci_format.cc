#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <openssl/evp.h>

#include "agent/fci/fci_internal.h"

namespace {

// Offsets of the fields in a record's disk image.
constexpr size_t MTIME_AT = FCI_DIGEST_SIZE;
constexpr size_t SIZE_LOW_AT = MTIME_AT + 4;
constexpr size_t SIZE_HIGH_AT = SIZE_LOW_AT + 4;
static_assert(SIZE_HIGH_AT + 4 == FCI_RECORD_SIZE);

}  // namespace

uint32_t fci_get_u32le(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void fci_put_u32le(uint8_t* p, uint32_t value) {
  p[0] = static_cast<uint8_t>(value);
  p[1] = static_cast<uint8_t>(value >> 8);
  p[2] = static_cast<uint8_t>(value >> 16);
  p[3] = static_cast<uint8_t>(value >> 24);
}

void fci_record_encode(const fci_record* record, uint8_t* out) {
  memcpy(out, record->digest, FCI_DIGEST_SIZE);
  fci_put_u32le(out + MTIME_AT, record->mtime);
  fci_put_u32le(out + SIZE_LOW_AT, record->size_low);
  fci_put_u32le(out + SIZE_HIGH_AT, record->size_high);
}

void fci_record_decode(const uint8_t* in, fci_record* record) {
  memcpy(record->digest, in, FCI_DIGEST_SIZE);
  record->mtime = fci_get_u32le(in + MTIME_AT);
  record->size_low = fci_get_u32le(in + SIZE_LOW_AT);
  record->size_high = fci_get_u32le(in + SIZE_HIGH_AT);
}

void fci_header_encode(uint32_t version, int32_t commit_time, uint8_t* out) {
  fci_put_u32le(out, version);
  fci_put_u32le(out + 4, static_cast<uint32_t>(commit_time));
}

int fci_compare_digest(const void* a, const void* b) {
  return memcmp(a, b, FCI_DIGEST_SIZE);
}

int64_t fci_page_offset(uint32_t page_id) {
  return static_cast<int64_t>(page_id) * FCI_PAGE_SIZE + FCI_HEADER_SIZE;
}

int32_t fci_page_count(int64_t file_size) {
  int64_t area = file_size - FCI_HEADER_SIZE;
  return static_cast<int32_t>((area + FCI_PAGE_SIZE - 1) / FCI_PAGE_SIZE);
}

bool fci_index_names(const char* job, char* path, size_t path_size, char* ro,
                     size_t ro_size) {
  const char* slash = strrchr(job, '/');
  const char* base = slash != nullptr ? slash + 1 : job;
  int n = snprintf(path, path_size, "etc/%s.fci", base);
  int m = snprintf(ro, ro_size, "%s.ro", path);
  if (n < 0 || static_cast<size_t>(n) >= path_size || m < 0 ||
      static_cast<size_t>(m) >= ro_size) {
    path[0] = '\0';
    ro[0] = '\0';
    return false;
  }
  return true;
}

void fci_sort_file_name(uint32_t n, char* out, size_t size) {
  snprintf(out, size, "%s/%u", FCI_SORT_DIR, n);
}

bool fci_digest_path(fci_context* ctx, const char* path, uint8_t* digest) {
  // A null type re-initialises with the digest fetched at open, which spares
  // OpenSSL 3 a provider look-up for each of a million paths.
  return ctx->digest_ctx != nullptr &&
         EVP_DigestInit_ex2(ctx->digest_ctx, nullptr, nullptr) == 1 &&
         EVP_DigestUpdate(ctx->digest_ctx, path, strlen(path)) == 1 &&
         EVP_DigestFinal_ex(ctx->digest_ctx, digest, nullptr) == 1;
}

ssize_t fci_read_at(int fd, void* buffer, size_t length, int64_t offset) {
  uint8_t* p = static_cast<uint8_t*>(buffer);
  size_t got = 0;
  while (got < length) {
    ssize_t n = pread(fd, p + got, length - got, offset + got);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return -1;
    }
    if (n == 0) {
      break;
    }
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

void fci_set_error(fci_context* ctx, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsnprintf(ctx->error_text, sizeof ctx->error_text, format, args);
  va_end(args);
}
