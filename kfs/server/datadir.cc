// The data folder: creating it, the server's RSA key, and account key files
// in the agent's format.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include "kfs/server/kfsd_internal.h"

namespace {

constexpr int kRsaBits = 2048;  // the client sends exactly 256 bytes

struct pkey_deleter {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
using pkey_ptr = std::unique_ptr<EVP_PKEY, pkey_deleter>;

struct bio_deleter {
  void operator()(BIO* b) const { BIO_free(b); }
};
using bio_ptr = std::unique_ptr<BIO, bio_deleter>;

std::string sys_error(const std::string& what) {
  return what + ": " + strerror(errno);
}

// True when dir does not exist or is an empty directory.
bool usable_as_new(const std::string& dir, std::string* error) {
  struct stat st;
  if (stat(dir.c_str(), &st) != 0) {
    if (errno == ENOENT) {
      return true;
    }
    *error = sys_error(dir);
    return false;
  }
  if (!S_ISDIR(st.st_mode)) {
    *error = dir + ": exists and is not a directory";
    return false;
  }
  dir_ptr d(opendir(dir.c_str()));
  if (!d) {
    *error = sys_error(dir);
    return false;
  }
  while (struct dirent* e = readdir(d.get())) {
    if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) {
      *error = dir + ": exists and is not empty";
      return false;
    }
  }
  return true;
}

int write_private_key(const std::string& path, std::string* error) {
  pkey_ptr key(EVP_RSA_gen(kRsaBits));
  if (!key) {
    *error = "cannot generate the RSA key";
    return -1;
  }
  unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600));
  if (!fd) {
    *error = sys_error(path);
    return -1;
  }
  file_ptr f(fdopen(fd.get(), "w"));
  if (!f) {
    *error = sys_error(path);
    return -1;
  }
  fd.release();  // the stream owns it now
  if (PEM_write_PrivateKey(f.get(), key.get(), nullptr, nullptr, 0, nullptr,
                           nullptr) != 1 ||
      fflush(f.get()) != 0) {
    *error = path + ": cannot write the key";
    return -1;
  }
  return 0;
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

}  // namespace

int kfsd_datadir_init(const std::string& dir, std::string* error) {
  if (!usable_as_new(dir, error)) {
    return -1;
  }
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    *error = sys_error(dir);
    return -1;
  }
  for (const char* sub : {KFSD_PACKS_DIR, KFSD_TMP_DIR, KFSD_OUTBOX_DIR}) {
    std::string path = dir + "/" + sub;
    if (mkdir(path.c_str(), 0700) != 0) {
      *error = sys_error(path);
      return -1;
    }
  }
  if (write_private_key(dir + "/" + KFSD_KEY_FILE, error) != 0) {
    return -1;
  }
  return kfsd_store_create(dir, error);
}

EVP_PKEY* kfsd_key_load(const std::string& dir, std::string* pem,
                        std::string* error) {
  std::string path = dir + "/" + KFSD_KEY_FILE;
  file_ptr f(fopen(path.c_str(), "r"));
  if (!f) {
    *error = sys_error(path);
    return nullptr;
  }
  pkey_ptr key(PEM_read_PrivateKey(f.get(), nullptr, nullptr, nullptr));
  if (!key || !EVP_PKEY_is_a(key.get(), "RSA") ||
      EVP_PKEY_get_bits(key.get()) != kRsaBits) {
    *error = path + ": not an RSA-2048 private key";
    return nullptr;
  }
  bio_ptr bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_PUBKEY(bio.get(), key.get()) != 1) {
    *error = "cannot write the public key";
    return nullptr;
  }
  char* data = nullptr;
  long n = BIO_get_mem_data(bio.get(), &data);
  pem->assign(data, static_cast<size_t>(n));
  return key.release();
}

int kfsd_key_file_read(const std::string& path, uint8_t key[32],
                       std::string* error) {
  file_ptr f(fopen(path.c_str(), "r"));
  if (!f) {
    *error = sys_error(path);
    return -1;
  }
  std::string digits;
  bool line_start = true;
  bool skipping = false;
  for (int c; (c = fgetc(f.get())) != EOF;) {
    if (line_start) {
      if (c == '-') {
        break;
      }
      skipping = c == '|';
    }
    line_start = c == '\n';
    if (!skipping && hex_value(static_cast<char>(c)) >= 0) {
      digits += static_cast<char>(c);
    }
  }
  if (digits.size() != 64) {
    *error = path + ": a key file must hold exactly 64 hex digits";
    return -1;
  }
  for (int i = 0; i < 32; ++i) {
    key[i] = static_cast<uint8_t>(hex_value(digits[2 * i]) << 4 |
                                  hex_value(digits[2 * i + 1]));
  }
  return 0;
}

int kfsd_key_file_write(const std::string& path, uint32_t id,
                        const uint8_t key[32]) {
  char text[128];
  int n = snprintf(text, sizeof text, "| account key of user %u\n", id);
  for (int i = 0; i < 32; ++i) {
    n += snprintf(text + n, sizeof text - static_cast<size_t>(n), "%02x%s",
                  key[i], i == 15 || i == 31 ? "\n" : "");
  }
  unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600));
  if (!fd) {
    return -1;
  }
  if (fd_write_all(fd.get(), text, n) != n) {
    int saved = errno;
    unlink(path.c_str());
    errno = saved;
    return -1;
  }
  return 0;
}

int kfsd_datadir_lock(const std::string& dir) {
  unique_fd fd(open((dir + "/kfsd.lock").c_str(),
                    O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!fd || flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    return -1;
  }
  return fd.release();
}
