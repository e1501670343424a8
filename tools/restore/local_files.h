// tools/restore/local_files.h: the local side of a restore: writing a
// file's data as it arrives (holes kept), comparing it with a local file,
// and making folders.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <span>
#include <string>

// Writes a restored file's data in order, leaving aligned runs of zeros as
// holes, so that a sparse file comes back sparse.
class local_writer {
 public:
  local_writer(int fd, uint64_t size) : fd_(fd), size_(size) {}

  // Appends data; false, with the reason in *error, when it fails or would
  // pass the size.
  bool write(std::span<const uint8_t> data, std::string* error);
  // Sets the length last: holes at the end are never written.
  bool finish(std::string* error);
  uint64_t offset() const { return offset_; }

 private:
  bool flush(const uint8_t* from, const uint8_t* to, uint64_t offset,
             std::string* error);

  int fd_;
  uint64_t size_;
  uint64_t offset_ = 0;
};

// Compares data, arriving in order, with a local file; stops at the first
// difference.
class local_comparer {
 public:
  explicit local_comparer(int fd);
  // False at the first byte that differs (or is missing locally).
  bool compare(std::span<const uint8_t> data);
  // The offset of the first difference, or -1.
  int64_t differs_at() const { return differs_at_; }

 private:
  int fd_;
  std::unique_ptr<uint8_t[]> buffer_;
  uint64_t offset_ = 0;
  int64_t differs_at_ = -1;
};

// mkdir -p; 0, or -1 with errno (ENOTDIR when a file is in the way).
int mkdir_p(const std::string& path);
