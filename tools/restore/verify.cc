// Comparing the backup with a local tree.
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

void restore_job::verify() {
  start_progress();
  std::set<std::string> remote_names;
  for (const remote_entry& e : entries_) {
    remote_names.insert(e.rel);
    std::string local = join(o_.verify_tree, e.rel);
    struct stat st;
    if (lstat(local.c_str(), &st) != 0) {
      difference(e.is_dir ? "missing folder" : "missing", e, "");
    } else if (e.is_dir) {
      if (!S_ISDIR(st.st_mode)) {
        difference("not a folder", e, "");
      }
      continue;
    } else if (!S_ISREG(st.st_mode)) {
      difference("not a file", e, "");
    } else {
      verify_file(e, local, st);
    }
    progress_.file_done();
    if (wrong_key_) {
      return;
    }
  }
  if (remote_is_dir_) {
    local_extras(o_.verify_tree, "", remote_names);
  }
}

void restore_job::verify_file(const remote_entry& e, const std::string& local,
                              const struct stat& st) {
  attempts(e, [&](std::string* why) {
    kfs_ropen_args info;
    fetch_status status = open_remote(e, &info, why);
    if (status == fetch_status::ok) {
      status = compare_file(e, local, st, info, why);
    }
    files_ += status == fetch_status::ok;
    return status;
  });
}

// fetch_status::ok when the comparison could be made, whatever it found.
fetch_status restore_job::compare_file(const remote_entry& e,
                                       const std::string& local,
                                       const struct stat& st,
                                       const kfs_ropen_args& info,
                                       std::string* why) {
  fetch_status status = fetch_status::ok;
  if (info.size != static_cast<uint64_t>(st.st_size)) {
    difference("size differs", e,
               "backup " + std::to_string(info.size) + ", local " +
                   std::to_string(st.st_size) + " bytes");
  } else {
    unique_fd fd(open(local.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
      kfs_file_close(&s_, info.handle);
      *why = "cannot read " + local + ": " + strerror(errno);
      return fetch_status::failed;
    }
    local_comparer cmp(fd.get());
    uint64_t seen = 0;
    status = stream_file(
        info,
        [&](std::span<const uint8_t> data) {
          seen += data.size();
          progress_.add_bytes(static_cast<int64_t>(data.size()));
          return seen <= info.size && cmp.compare(data);
        },
        why);
    if (status == fetch_status::failed && cmp.differs_at() >= 0) {
      difference("content differs", e,
                 "from byte " + std::to_string(cmp.differs_at()));
      status = fetch_status::ok;
    } else if (status == fetch_status::failed && seen > info.size) {
      *why = "the service sent more data than the file's size";
    } else if (status == fetch_status::ok) {
      bytes_ += seen;
    }
  }
  kfs_file_close(&s_, info.handle);
  if (status != fetch_status::ok) {
    return status;
  }
  int64_t remote_time = service_time(info.mtime);
  if (remote_time != service_time(st.st_mtime)) {
    difference("time differs", e,
               "backup " + time_text(remote_time) + ", local " +
                   time_text(st.st_mtime));
  }
  mode_t remote_mode = attr_mode(info, st.st_mode & 07777);
  if (remote_mode != (st.st_mode & 07777)) {
    char text[64];
    snprintf(text, sizeof text, "backup %04o, local %04o",
             static_cast<unsigned>(remote_mode),
             static_cast<unsigned>(st.st_mode & 07777));
    difference("mode differs", e, text);
  }
  return fetch_status::ok;
}

// Local files and folders below dir that the backup does not hold. Only
// regular files and folders count: nothing else is ever backed up.
void restore_job::local_extras(const std::string& dir,
                               const std::string& prefix,
                               const std::set<std::string>& remote_names) {
  dir_ptr d(opendir(dir.c_str()));
  if (!d) {
    return;  // reported as missing already
  }
  std::vector<std::string> names;
  while (dirent* ent = readdir(d.get())) {
    if (strcmp(ent->d_name, ".") != 0 && strcmp(ent->d_name, "..") != 0) {
      names.push_back(ent->d_name);
    }
  }
  d.reset();
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    std::string path = join(dir, name);
    std::string rel = prefix + name;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 ||
        !(S_ISREG(st.st_mode) || S_ISDIR(st.st_mode))) {
      continue;
    }
    if (remote_names.count(rel) == 0) {
      remote_entry e;
      e.rel = rel;
      difference("not in the backup", e, "");
    } else if (S_ISDIR(st.st_mode)) {
      local_extras(path, rel + "/", remote_names);
    }
  }
}

void restore_job::difference(const char* what, const remote_entry& e,
                             const std::string& detail) {
  progress_.clear();
  std::string name = e.rel.empty() ? base_name(remote_) : e.rel;
  if (detail.empty()) {
    printf("%s: %s\n", what, name.c_str());
  } else {
    printf("%s: %s (%s)\n", what, name.c_str(), detail.c_str());
  }
  fflush(stdout);
  ++differences_;
}
