// Restoring files: each into a temporary name that it leaves only when
// complete, by several processes when there are many.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "lib/scoped.h"
#include "tools/restore/restore_job.h"

namespace {

// Fewer files than this per worker are not worth a process and a login.
constexpr size_t kFilesPerWorker = 16;

}  // namespace

int restore_job::restore() {
  std::string top = join(o_.local, remote_is_dir_ ? base_name(remote_) : "");
  if (mkdir_p(o_.local) != 0) {
    return fatal("cannot create %s: %s", o_.local.c_str(), strerror(errno));
  }
  mode_t mask = umask(0);
  umask(mask);
  file_mode_ = 0666 & ~mask;
  start_progress();
  if (remote_is_dir_ && mkdir_p(top) != 0) {
    return fatal("cannot create %s: %s", top.c_str(), strerror(errno));
  }
  std::vector<std::pair<const remote_entry*, std::string>> files;
  for (const remote_entry& e : entries_) {
    std::string target =
        e.rel.empty() ? join(o_.local, base_name(remote_)) : join(top, e.rel);
    if (!e.is_dir) {
      files.emplace_back(&e, std::move(target));
    } else if (mkdir(target.c_str(), 0777) != 0 && errno != EEXIST) {
      report_failure(
          target, std::string("cannot create the folder: ") + strerror(errno));
    } else {
      ++folders_;
    }
  }
  // The first file alone: a wrong key then shows once, not per worker.
  size_t first = 0;
  if (!files.empty()) {
    restore_file(*files[0].first, files[0].second);
    progress_.file_done();
    first = 1;
  }
  size_t left = files.size() - first;
  int wanted =
      static_cast<int>(std::min<size_t>(o_.jobs, 1 + left / kFilesPerWorker));
  worker_ = pool_.start(wrong_key_ ? 1 : wanted, first);
  if (worker_ > 0 && !reconnect_worker()) {
    end_worker();
  }
  for (size_t i = pool_.take(); i < files.size() && !wrong_key_;
       i = pool_.take()) {
    restore_file(*files[i].first, files[i].second);
    progress_.file_done();
    if (worker_ > 0) {
      pool_.report(tally(false));
    } else {
      worker_tally others;
      pool_.collect(false, &others);
      progress_.set_others(others.files_done, others.bytes_done);
    }
  }
  if (worker_ > 0) {
    end_worker();
  }
  worker_tally others;
  if (!pool_.collect(true, &others)) {
    report_failure(o_.local,
                   "a restore worker stopped before it was done: some "
                   "files may be missing; restore again to fetch them");
  }
  files_ += others.files;
  bytes_ += others.bytes;
  kept_ += others.kept;
  failed_ += others.failed;
  wrong_key_ = wrong_key_ || others.wrong_key != 0;
  return RESTORE_EXIT_OK;
}

// A worker's own connection: the parent's stays the parent's.
bool restore_job::reconnect_worker() {
  files_ = kept_ = failed_ = 0;  // the parent counts what it did
  bytes_ = 0;
  progress_ = progress_line();
  progress_.hide();
  kfs_session_disconnect(&s_);
  kfs_session_init(&s_);
  return open_session() == RESTORE_EXIT_OK;
}

worker_tally restore_job::tally(bool last) const {
  worker_tally t;
  t.files_done = progress_.files_done();
  t.bytes_done = progress_.bytes_done();
  t.files = static_cast<uint64_t>(files_);
  t.bytes = bytes_;
  t.kept = static_cast<uint64_t>(kept_);
  t.failed = static_cast<uint64_t>(failed_);
  t.wrong_key = wrong_key_;
  t.last = last;
  return t;
}

void restore_job::end_worker() {
  pool_.report(tally(true));
  kfs_session_disconnect(&s_);
  OPENSSL_cleanse(key_, sizeof key_);
  fflush(stderr);
  _exit(0);
}

// Everything restored, on disk before the summary says so: one sync of
// the file system the files went to.
void restore_job::flush_restored() {
  unique_fd fd(open(o_.local.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd || syncfs(fd.get()) != 0) {
    report_failure(o_.local, std::string("cannot flush the restored files: ") +
                                 strerror(errno));
  }
}

void restore_job::restore_file(const remote_entry& e,
                               const std::string& target) {
  struct stat st;
  if (lstat(target.c_str(), &st) == 0) {
    if (!o_.overwrite) {
      ++kept_;
      progress_.add_bytes(static_cast<int64_t>(e.size));
      return;
    }
    if (S_ISDIR(st.st_mode)) {
      report_failure(target, "a folder is in the way");
      return;
    }
  }
  attempts(e, [&](std::string* why) {
    uint64_t written = 0;
    fetch_status status = try_restore(e, target, &written, why);
    if (status == fetch_status::ok) {
      ++files_;
      bytes_ += written;
      // Holes and all: the progress counts the file's size.
      progress_.add_bytes(static_cast<int64_t>(e.size) -
                          static_cast<int64_t>(written));
    } else {
      progress_.add_bytes(-static_cast<int64_t>(written));
    }
    return status;
  });
}

// One attempt: the data goes to a temporary file next to the target,
// which takes the target's name only when it is complete.
fetch_status restore_job::try_restore(const remote_entry& e,
                                      const std::string& target,
                                      uint64_t* written, std::string* why) {
  kfs_ropen_args info;
  fetch_status status = open_remote(e, &info, why);
  if (status != fetch_status::ok) {
    return status;
  }
  std::string temp = parent_of(target) + "/.kovrarestore.XXXXXX";
  unique_fd fd(mkstemp(temp.data()));
  if (!fd) {
    *why =
        "cannot create a file in " + parent_of(target) + ": " + strerror(errno);
    kfs_file_close(&s_, info.handle);
    return fetch_status::failed;
  }
  local_writer out(fd.get(), info.size);
  status = stream_file(
      info,
      [&](std::span<const uint8_t> data) {
        if (!out.write(data, why)) {
          return false;
        }
        progress_.add_bytes(static_cast<int64_t>(data.size()));
        return true;
      },
      why);
  kfs_file_close(&s_, info.handle);
  *written = out.offset();
  if (status == fetch_status::ok && out.offset() != info.size) {
    *why = "the service sent " + std::to_string(out.offset()) +
           " bytes of its " + std::to_string(info.size);
    status = fetch_status::failed;
  }
  if (status == fetch_status::ok && !finish_file(fd.get(), info, out, why)) {
    status = fetch_status::failed;
  }
  fd.reset();
  if (status == fetch_status::ok && rename(temp.c_str(), target.c_str()) != 0) {
    *why = "cannot rename " + temp + ": " + strerror(errno);
    status = fetch_status::failed;
  }
  if (status != fetch_status::ok) {
    unlink(temp.c_str());
  }
  return status;
}

// Length, permission bits and modification time, before the rename, so
// that the real name never shows a partial file. Flushing waits for the
// end of the run (one sync for every file, not one each).
bool restore_job::finish_file(int fd, const kfs_ropen_args& info,
                              local_writer& out, std::string* why) {
  if (!out.finish(why)) {
    return false;
  }
  if (fchmod(fd, attr_mode(info, file_mode_)) != 0) {
    *why = std::string("cannot set its permissions: ") + strerror(errno);
    return false;
  }
  struct timespec times[2] = {{0, UTIME_NOW}, {0, 0}};
  times[1].tv_sec = static_cast<time_t>(service_time(info.mtime));
  if (futimens(fd, times) != 0) {
    *why = std::string("cannot finish it: ") + strerror(errno);
    return false;
  }
  return true;
}

// The permission bits of the attribute record (present flag, uid, gid,
// mode, in the backed-up machine's byte order), else fallback.
mode_t restore_job::attr_mode(const kfs_ropen_args& info, mode_t fallback) {
  if (info.attr_len < 13 || info.attr[0] != 1) {
    return fallback;
  }
  uint32_t mode;
  memcpy(&mode, info.attr + 9, sizeof mode);
  return static_cast<mode_t>(mode & 07777);
}
