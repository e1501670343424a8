#include "tools/restore/local_files.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace {

// Zero runs of at least this size, aligned in the file, become holes.
constexpr size_t kSparseUnit = 4096;
constexpr size_t kCompareBuffer = 65536;

bool all_zero(const uint8_t* p, size_t n) {
  return n == 0 || (p[0] == 0 && memcmp(p, p + 1, n - 1) == 0);
}

bool write_all(int fd, const uint8_t* p, size_t n, uint64_t offset) {
  while (n > 0) {
    ssize_t put = pwrite(fd, p, n, static_cast<off_t>(offset));
    if (put < 0 && errno == EINTR) {
      continue;
    }
    if (put <= 0) {
      return false;
    }
    p += put;
    n -= static_cast<size_t>(put);
    offset += static_cast<uint64_t>(put);
  }
  return true;
}

}  // namespace

bool local_writer::write(std::span<const uint8_t> data, std::string* error) {
  if (data.size() > size_ - offset_) {
    *error = "the service sent more data than the file's size";
    return false;
  }
  const uint8_t* run = nullptr;  // start of the data run not yet written
  uint64_t run_offset = 0;
  while (!data.empty()) {
    size_t n =
        std::min<size_t>(kSparseUnit - offset_ % kSparseUnit, data.size());
    bool zero = all_zero(data.data(), n);
    if (!zero && run == nullptr) {
      run = data.data();
      run_offset = offset_;
    }
    if (zero && run != nullptr) {
      if (!flush(run, data.data(), run_offset, error)) {
        return false;
      }
      run = nullptr;
    }
    offset_ += n;
    data = data.subspan(n);
  }
  return run == nullptr || flush(run, data.data(), run_offset, error);
}

bool local_writer::finish(std::string* error) {
  if (ftruncate(fd_, static_cast<off_t>(size_)) != 0) {
    *error = std::string("cannot set its length: ") + strerror(errno);
    return false;
  }
  return true;
}

bool local_writer::flush(const uint8_t* from, const uint8_t* to,
                         uint64_t offset, std::string* error) {
  if (!write_all(fd_, from, static_cast<size_t>(to - from), offset)) {
    *error = std::string("cannot write: ") + strerror(errno);
    return false;
  }
  return true;
}

local_comparer::local_comparer(int fd)
    : fd_(fd), buffer_(new uint8_t[kCompareBuffer]) {}

bool local_comparer::compare(std::span<const uint8_t> data) {
  while (!data.empty()) {
    size_t n = std::min(data.size(), kCompareBuffer);
    ssize_t got = pread(fd_, buffer_.get(), n, static_cast<off_t>(offset_));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    size_t same = 0;
    size_t have = got > 0 ? static_cast<size_t>(got) : 0;
    while (same < have && buffer_[same] == data[same]) {
      ++same;
    }
    if (same < n) {
      differs_at_ = static_cast<int64_t>(offset_ + same);
      return false;
    }
    offset_ += n;
    data = data.subspan(n);
  }
  return true;
}

int mkdir_p(const std::string& path) {
  std::string partial;
  size_t from = 0;
  while (from <= path.size()) {
    size_t slash = path.find('/', from);
    if (slash == std::string::npos) {
      slash = path.size();
    }
    partial = path.substr(0, slash);
    from = slash + 1;
    if (!partial.empty() && mkdir(partial.c_str(), 0777) != 0 &&
        errno != EEXIST) {
      return -1;
    }
  }
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    return -1;
  }
  if (!S_ISDIR(st.st_mode)) {
    errno = ENOTDIR;
    return -1;
  }
  return 0;
}
