// agent/fci/fci_internal.h: what the index's sources share: the byte layout
// of records and headers, page geometry, file names, the path digest and the
// error text. Records stay as raw 32-byte little-endian images wherever they
// are only sorted or searched (sort buffers, cached pages); only lead records
// and probes are decoded.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "agent/fci/fci.h"

constexpr char FCI_SORT_DIR[] = "#FCISORT#";
// Names the module in "FCI error: %s:%d" texts, whatever the build's paths.
constexpr char FCI_SOURCE_NAME[] = "agent/fci";
constexpr uint32_t FCI_RECORDS_PER_PAGE = FCI_PAGE_SIZE / FCI_RECORD_SIZE;
static_assert(FCI_RECORDS_PER_PAGE == 128);

uint32_t fci_get_u32le(const uint8_t* p);
void fci_put_u32le(uint8_t* p, uint32_t value);

// The 32-byte disk image of a record and back, field by field.
void fci_record_encode(const fci_record* record, uint8_t* out);
void fci_record_decode(const uint8_t* in, fci_record* record);

// The 8-byte header.
void fci_header_encode(uint32_t version, int32_t commit_time, uint8_t* out);

// Orders two raw records (or a record and a probe) by their 20 digest bytes
// as unsigned bytes; the qsort and bsearch comparator of the index.
int fci_compare_digest(const void* a, const void* b);

// Offsets are 64-bit: the same bytes as 32-bit offsets below 4 GiB, and no
// wrap above it.
int64_t fci_page_offset(uint32_t page_id);

// ceil((file_size - 8) / 4096). REQUIRES: file_size > 8.
int32_t fci_page_count(int64_t file_size);

// Fills path with "etc/" + base name of job + ".fci" and ro with path +
// ".ro". False (both set to "") when they do not fit.
bool fci_index_names(const char* job, char* path, size_t path_size, char* ro,
                     size_t ro_size);

// "#FCISORT#/<n>".
void fci_sort_file_name(uint32_t n, char* out, size_t size);

// SHA-1 of the bytes of path through ctx->digest_ctx. False when the digest
// fails or the context has none (never opened, or closed).
bool fci_digest_path(fci_context* ctx, const char* path, uint8_t* digest);

// Reads until length bytes are in, the file ends or a read fails, from
// offset on. The count read, or -1 with errno when a read failed.
ssize_t fci_read_at(int fd, void* buffer, size_t length, int64_t offset);

// printf into ctx->error_text, cut to fit.
[[gnu::format(printf, 2, 3)]] void fci_set_error(fci_context* ctx,
                                                 const char* format, ...);
