// The block store's files: pack files that streams are appended to, and
// the files of their own that streams had before packs.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "kfs/server/kfsd_internal.h"

namespace {

// A pack is closed for appending past this size, so that one damaged or
// lost file never takes much with it.
constexpr uint64_t kPackLimit = 256ull << 20;

// The highest pack number in the folder, 0 when there is none.
int64_t last_pack(const std::string& dir) {
  int64_t last = 0;
  if (dir_ptr d{opendir(dir.c_str())}) {
    while (struct dirent* e = readdir(d.get())) {
      last = std::max<int64_t>(last, strtoll(e->d_name, nullptr, 10));
    }
  }
  return last;
}

bool flush_dir(const std::string& dir) {
  unique_fd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && fsync(fd.get()) == 0;
}

}  // namespace

std::string kfsd_loose_path(const kfsd_store* store, const std::string& hex) {
  return store->dir + "/" + KFSD_BLOCKS_DIR + "/" + hex.substr(0, 2) + "/" +
         hex;
}

std::string kfsd_pack_path(const kfsd_store* store, int64_t pack) {
  char name[32];
  snprintf(name, sizeof name, "/%08lld.pack", static_cast<long long>(pack));
  return store->dir + "/" + KFSD_PACKS_DIR + name;
}

bool kfsd_pack_append(kfsd_store* store, const std::string& bytes,
                      kfsd_stream_loc* out) {
  if (store->pack_fd && store->pack_size + bytes.size() > kPackLimit &&
      store->pack_size > 0) {
    store->pack_fd.reset();  // full: the next one is begun below
  }
  if (!store->pack_fd) {
    std::string dir = store->dir + "/" + KFSD_PACKS_DIR;
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
      return false;
    }
    store->pack_id = std::max(store->pack_id, last_pack(dir)) + 1;
    store->pack_fd.reset(open(kfsd_pack_path(store, store->pack_id).c_str(),
                              O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!store->pack_fd) {
      return false;
    }
    store->pack_size = 0;
    store->pack_new = true;
  }
  int64_t n = static_cast<int64_t>(bytes.size());
  if (fd_write_all(store->pack_fd.get(), bytes.data(), n) != n) {
    // Whatever part went out is never named; the next start's sweep
    // removes a pack that nothing names.
    store->pack_fd.reset();
    return false;
  }
  out->pack = store->pack_id;
  out->offset = store->pack_size;
  out->length = bytes.size();
  store->pack_size += bytes.size();
  return true;
}

bool kfsd_pack_flush(kfsd_store* store) {
  if (!store->pack_fd) {
    return true;
  }
  if (fdatasync(store->pack_fd.get()) != 0) {
    return false;
  }
  if (store->pack_new) {
    store->pack_new = !flush_dir(store->dir + "/" + KFSD_PACKS_DIR);
  }
  return !store->pack_new;
}

int kfsd_stream_open(const kfsd_store* store, const kfsd_stream_loc& loc) {
  std::string file = loc.pack >= 0 ? kfsd_pack_path(store, loc.pack)
                                   : kfsd_loose_path(store, loc.hex);
  return open(file.c_str(), O_RDONLY | O_CLOEXEC);
}

bool kfsd_stream_read(const kfsd_store* store, kfsd_stream_reader* reader,
                      const kfsd_stream_loc& loc, uint64_t offset, void* out,
                      size_t n) {
  std::string file = loc.pack >= 0 ? std::to_string(loc.pack) : loc.hex;
  if (!reader->fd || reader->file != file) {
    reader->fd.reset(kfsd_stream_open(store, loc));
    reader->file = reader->fd ? file : "";
    if (!reader->fd) {
      return false;
    }
  }
  ssize_t got = pread(reader->fd.get(), out, n,
                      static_cast<off_t>(loc.offset + offset));
  return got == static_cast<ssize_t>(n);
}
