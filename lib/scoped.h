// lib/scoped.h: owners for C handles. Each is a unique_ptr (or a small
// move-only wrapper) whose deleter is the C release call, so a handle that is
// released on more than one path is released exactly once. When a handle
// moves into a C-style record, release() it at that point.
#pragma once

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include <openssl/evp.h>

// A file descriptor closed on destruction; -1 means none.
class unique_fd {
 public:
  unique_fd() = default;
  explicit unique_fd(int fd) : fd_(fd) {}
  unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
  unique_fd& operator=(unique_fd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  unique_fd(const unique_fd&) = delete;
  unique_fd& operator=(const unique_fd&) = delete;
  ~unique_fd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

struct file_closer {
  void operator()(FILE* f) const { fclose(f); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

struct dir_closer {
  void operator()(DIR* d) const { closedir(d); }
};
using dir_ptr = std::unique_ptr<DIR, dir_closer>;

struct malloc_deleter {
  void operator()(void* p) const { free(p); }
};
template <typename T>
using malloc_ptr = std::unique_ptr<T, malloc_deleter>;

struct cipher_ctx_deleter {
  void operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }
};
using cipher_ctx_ptr = std::unique_ptr<EVP_CIPHER_CTX, cipher_ctx_deleter>;

struct md_ctx_deleter {
  void operator()(EVP_MD_CTX* c) const { EVP_MD_CTX_free(c); }
};
using md_ctx_ptr = std::unique_ptr<EVP_MD_CTX, md_ctx_deleter>;
