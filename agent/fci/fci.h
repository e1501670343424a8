// agent/fci/fci.h: the file change index, a per-job file that remembers, for
// every file the last complete run backed up or found unchanged, the SHA-1 of
// its path, its modification time and its size. A run opens the previous
// index (fci_open), asks it about each walked file (fci_lookup), records each
// file it backs up or finds unchanged (fci_add) and at its end commits a new
// index or discards its records (fci_close).
//
// Files, relative to the working directory (the install root):
//   etc/<base name of job>.fci  version u32 = 1, commit_time i32, then N >= 1
//                               32-byte records sorted by digest; all
//                               integers little-endian
//   etc/<base name>.fci.ro      the index while a run uses it; a crash between
//                               writing a new index and deleting this copy
//                               leaves both names, and the copy wins
//   #FCISORT#/0 .. #FCISORT#/255  the run's unsorted records, bucketed by the
//                               first digest byte, so the commit sorts 1/256
//                               of the index at a time
// The record area is cut into pages of 4096 bytes from offset 8. Only the
// first record of every page (its lead record) is held for the whole run;
// pages are read on demand into a FIFO cache of at most 5120 pages (20 MiB).
// Page offsets are 64-bit: the same bytes as 32-bit ones below 4 GiB, and an
// index past 4 GiB still reads the right pages instead of wrapping.
//
// Ownership: a context owns everything it points to, from fci_open until
// fci_close. The run uses the one context of fci_run_context(); any other
// zeroed context with fd -1 works the same way. One thread.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <openssl/evp.h>

struct hash_table;

constexpr uint32_t FCI_VERSION = 1;
constexpr uint32_t FCI_HEADER_SIZE = 8;
constexpr uint32_t FCI_DIGEST_SIZE = 20;  // SHA-1
constexpr uint32_t FCI_RECORD_SIZE = 32;
constexpr uint32_t FCI_PAGE_SIZE = 4096;  // 128 records
constexpr uint32_t FCI_CACHE_PAGES = 5120;
constexpr uint32_t FCI_SORT_FILES = 256;  // one per first digest byte
constexpr uint32_t FCI_PATH_MAX = 4096;
constexpr uint32_t FCI_ERROR_MAX = 256;

// fci_context.flags.
constexpr uint32_t FCI_FLAG_INVALID = 1;  // the previous index is unusable
constexpr uint32_t FCI_FLAG_CLOSED = 2;   // fci_close ran; again does nothing

// An index record as held in memory; on disk it is the same 32 bytes with the
// integers little-endian.
struct fci_record {
  uint8_t digest[FCI_DIGEST_SIZE];  // SHA-1 of the path, without its NUL
  uint32_t mtime;
  uint32_t size_low;
  uint32_t size_high;
};
static_assert(sizeof(fci_record) == FCI_RECORD_SIZE);

// One slot of the page cache, allocated once and reused for other pages.
struct fci_page {
  uint32_t page_id;
  uint32_t count;               // whole records in data
  uint8_t data[FCI_PAGE_SIZE];  // the page's records as read from the file
};

struct fci_context {
  int fd;                          // the open read-only copy; -1 when none
  char path[FCI_PATH_MAX];         // "etc/" + base name of the job + ".fci"
  uint32_t flags;                  // FCI_FLAG_*
  char error_text[FCI_ERROR_MAX];  // last failure, "" when none
  EVP_MD_CTX* digest_ctx;          // SHA-1, reused for every path
  uint32_t version;                // header words as read
  int32_t commit_time;             // 0 when the open failed
  int32_t page_count;
  fci_record* lead_records;  // page_count of them, in page order
  // Leads read as whole records: page_count, or one less when the last page
  // is shorter than a record (its zero-padded lead only steers the search).
  int32_t whole_leads;
  int32_t cache_head;  // oldest page of the ring
  int32_t cache_tail;  // next slot to fill
  int32_t cache_count;
  fci_page* cache_slots[FCI_CACHE_PAGES];
  hash_table* cache_table;  // page id -> slot buffer; made by the first read
  FILE* sort_files[FCI_SORT_FILES];
  char* sort_buffers;   // the sort files' stdio buffers; made by the first add
  uint32_t hits;        // lookups that found an unchanged file
  uint32_t misses;      // lookups that did not
  uint32_t pages_read;  // page fetches from the file (cache misses)
};

// The context of this run: a process-wide static, zeroed with fd -1.
fci_context* fci_run_context();

// Starts a run: clears the sort folder "#FCISORT#" of an interrupted run's
// files (creating the folder when missing), zeroes *ctx and opens the
// previous index of job (only the part behind its last '/' names it), which
// must carry expected_time as its commit time. Returns 0 with the lead
// records loaded and the read-only copy open, or -1 with FCI_FLAG_INVALID
// set, commit_time 0 and error_text saying why ("FCI invalid: ..."); errno
// is that of the failing call where there was one. A -1 is no reason to stop
// the run: lookups then miss and the commit writes a fresh index.
// Deliberate oddities: a first word other than 1 fails with error_text "";
// a header-only file fails as "empty record set" but, like a failed lead
// record, stays as the read-only copy until a commit removes it; a record
// area whose last page is under 32 bytes is accepted (that page has no
// records). A short header read names the errno of the read, 0 included.
// REQUIRES: *ctx is fresh or closed (fci_close ran).
int fci_open(fci_context* ctx, const char* job, int32_t expected_time);

// Appends the record (SHA-1 of the bytes of path, mtime, size) to sort file
// "#FCISORT#/<first digest byte>", opening that file on first use with a
// 4096-byte buffer. Works whatever the validity: this is how the first run
// builds an index. Returns 0 (write errors are not checked), or -1 with
// errno and error_text "FCI error: opening sort file %d: %s" when the file
// cannot be opened; the record is then lost and the run goes on. -1 with
// errno EINVAL for a null ctx or path, or a context that is not open.
int fci_add(fci_context* ctx, const char* path, uint32_t mtime,
            uint32_t size_low, uint32_t size_high);

// Ends the run; a second call does nothing. Releases the lead records, the
// page cache, the digest context and the read-only copy's descriptor. A
// commit_time of 0 discards: the sort files and folder are deleted and the
// read-only copy is kept, so the next open reads the previous index again.
// Any other value commits: etc/<job>.fci is written with that time and the
// buckets 0..255, each sorted by digest, then the read-only copy and the
// sort folder are deleted. Commit failures are silent by design: a bucket
// that cannot be read is left out, an index that cannot be created discards.
void fci_close(fci_context* ctx, int32_t commit_time);

// Sets *found to 1 when the index holds a record with path's digest, mtime
// and both size words, else 0, and counts a hit or a miss. An invalid
// context misses. At most one page is read; none when the lead record of a
// page matches in full or the page is cached. Among equal digests only the
// record the search lands on and those after it on the same page are
// examined, on purpose. A probe that sorts before the first record misses
// without a page read. Returns 0, or -1 when a page cannot be allocated or
// read: error_text "FCI error: agent/fci:<line> - ..." and errno are set and
// the index turns invalid for the rest of the run. -1 with errno EINVAL for
// a null argument. A context that is not open misses.
int fci_lookup(fci_context* ctx, const char* path, uint32_t mtime,
               uint32_t size_low, uint32_t size_high, int* found);

// Writes the MD5 of up to length bytes of fd from offset to digest, reading
// in pieces of at most 8192 bytes and stopping early at the end of the file.
// Leaves fd positioned after the bytes read. Returns 0, or 1 (digest not
// written, errno from the failing call) when a seek, a read or the digest
// fails.
int fci_range_md5(int fd, int64_t offset, uint32_t length, uint8_t digest[16]);
