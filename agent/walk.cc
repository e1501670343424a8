#include "agent/walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "agent/config.h"
#include "agent/fci/fci.h"
#include "agent/job.h"
#include "agent/report.h"
#include "agent/walk_internal.h"
#include "lib/scoped.h"

namespace {

// Local and remote child paths live in buffers of this size; a child whose
// local path would reach 1023 characters is skipped, silently.
constexpr size_t PATH_SIZE = 1024;
constexpr size_t PATH_LIMIT = 1023;
// Room for the working directory count_tree returns to.
constexpr size_t CWD_SIZE = 4096;

// Trees a walk never enters: their entries are not files worth keeping, and
// reading some of them blocks or never ends.
constexpr const char* SYSTEM_DIRECTORIES[] = {"/dev", "/proc"};

// Listing requests ask for the continuation form of the reply.
constexpr uint8_t FIND_FLAGS = 0x20;

// The service's clock and ours may disagree by a daylight-saving shift; a
// copy that differs by exactly this much is still the same file.
constexpr int64_t DST_SHIFT = 3600;

// What the service's listing says about one file of a remote directory.
struct remote_file {
  uint32_t word;  // attribute bits
  int64_t mtime;
  uint64_t size;
};
// By exact name; a hash rather than a scan, as a directory may hold many
// thousands of files and every local entry looks itself up once.
using remote_listing = std::unordered_map<std::string, remote_file>;

struct dev_ino {
  dev_t dev;
  ino_t ino;
};

// count_tree's state, shared by every level of the walk.
struct count_walk {
  int options;
  walk_fn callback;
  walk_counters* counters;
  std::vector<dev_ino> way_down;  // the root, /, and the directories entered
};

// dir + "/" + name into out (PATH_SIZE bytes). A trailing '\' counts as a
// separator as well, so such a directory gets none added. False, with out
// undefined, when the path would reach PATH_LIMIT characters.
bool child_path(const char* dir, const char* name, char* out) {
  size_t dir_len = strlen(dir);
  if (dir_len + strlen(name) + 2 > PATH_LIMIT) {
    return false;
  }
  bool has_separator =
      dir_len > 0 && (dir[dir_len - 1] == '/' || dir[dir_len - 1] == '\\');
  int n =
      snprintf(out, PATH_SIZE, "%s%s%s", dir, has_separator ? "" : "/", name);
  return n >= 0 && static_cast<size_t>(n) < PATH_SIZE;
}

bool is_dot_entry(const char* name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// The time as the service holds it: the open request carries its low 32
// bits and the service sign-extends them, so compare in that form.
int64_t service_time(time_t t) {
  return static_cast<int32_t>(static_cast<uint32_t>(t));
}

bool same_as_remote(const remote_file& remote, const struct stat& st) {
  if ((remote.word & KFS_ATTR_NEEDS_BACKUP) != 0 ||
      remote.size != static_cast<uint64_t>(st.st_size)) {
    return false;
  }
  int64_t shift = remote.mtime - service_time(st.st_mtime);
  return shift == 0 || shift == DST_SHIFT || shift == -DST_SHIFT;
}

// The files of remote_dir as the service lists them. A listing that cannot
// be had (a failed request, a directory name too long for the request)
// leaves what was gathered so far: every file it misses is simply compared
// by sending it.
void fetch_listing(kfs_session* session, const char* remote_dir,
                   remote_listing* out) {
  kfs_find_args find = {0, FIND_FLAGS, remote_dir, "", 0, 0, 0, nullptr};
  while (kfs_find_files(session, &find) == 0) {
    for (char* item = str_list_first(find.entries); item != nullptr;
         item = str_list_next(find.entries)) {
      const auto* e = reinterpret_cast<const kfs_find_entry*>(item);
      if ((e->word & KFS_ATTR_DIRECTORY) == 0) {
        // The service sends sign-extended 32-bit times.
        out->emplace(
            std::string(e->name, e->name_len),
            remote_file{e->word, static_cast<int64_t>(e->mtime), e->size});
      }
    }
    uint16_t count = find.count;
    kfs_find_release(&find);
    // A reply that brings nothing yet promises more would have us ask
    // forever.
    if (find.remaining == 0 || count == 0) {
      return;
    }
    find = {find.next_handle, FIND_FLAGS, "", "", 0, 0, 0, nullptr};
  }
}

// Calls back for the entries of the working directory, whose absolute path
// is dir. WALK_CONTINUE when it read to the end, else the answer that
// stopped it.
int count_directory(count_walk* walk, const char* dir) {
  dir_ptr d(opendir("."));
  if (!d) {
    return WALK_STOPPED;
  }
  char path[PATH_SIZE];
  for (struct dirent* e = readdir(d.get()); e != nullptr;
       e = readdir(d.get())) {
    if (is_dot_entry(e->d_name) || !child_path(dir, e->d_name, path)) {
      continue;
    }
    struct stat st;
    if (lstat(e->d_name, &st) != 0) {
      continue;  // gone since readdir
    }
    int answer = walk->callback(path, &st, walk->counters);
    if (answer == WALK_SKIP) {
      continue;
    }
    if (answer != WALK_CONTINUE) {
      return answer;
    }
    if ((walk->options & WALK_DESCEND) == 0 || !S_ISDIR(st.st_mode)) {
      continue;
    }
    bool seen = false;
    for (const dev_ino& up : walk->way_down) {
      seen = seen || (up.dev == st.st_dev && up.ino == st.st_ino);
    }
    if (seen) {
      continue;  // a bind mount of an ancestor: entering it never ends
    }
    if (chdir(e->d_name) != 0) {
      return WALK_STOPPED;
    }
    walk->way_down.push_back({st.st_dev, st.st_ino});
    int rc = count_directory(walk, path);
    walk->way_down.pop_back();
    // Back by descriptor, not "..": the child may have been moved meanwhile.
    if (fchdir(dirfd(d.get())) != 0) {
      return WALK_STOPPED;
    }
    if (rc != WALK_CONTINUE) {
      return rc;
    }
  }
  return WALK_CONTINUE;
}

}  // namespace

bool path_excluded(const str_list* xsrc, const char* path) {
  if (xsrc == nullptr || path == nullptr) {
    return false;
  }
  size_t path_len = strlen(path);
  // By index: the list's cursor is not ours to move.
  for (int32_t i = 0; i < str_list_count(xsrc); ++i) {
    const char* x = str_list_get(xsrc, i);
    if (x == nullptr) {
      continue;
    }
    size_t len = strlen(x);
    if (len > path_len || strncasecmp(path, x, len) != 0) {
      continue;
    }
    // Kept: an entry with a trailing '/' matches only the path spelled the
    // same way, and "" covers every absolute path, just as "/" does.
    if (path_len == len || strcmp(x, "/") == 0 || path[len] == '/') {
      return true;
    }
  }
  return false;
}

bool is_excluded(const char* path) {
  const job_settings* settings = job_config();
  return settings != nullptr && path_excluded(settings->xsrc, path);
}

bool is_system_directory(const char* path) {
  for (const char* system : SYSTEM_DIRECTORIES) {
    if (strcasecmp(path, system) == 0) {
      return true;
    }
  }
  return false;
}

void index_record(const char* path, uint32_t mtime, uint64_t size) {
  if (fci_add(fci_run_context(), path, mtime, static_cast<uint32_t>(size),
              static_cast<uint32_t>(size >> 32)) != 0) {
    // Lost: the next run compares this path with the service instead.
  }
}

void walk_directory(kfs_session* session, const walk_job* job,
                    const char* local_dir, const char* remote_dir) {
  if (is_system_directory(local_dir)) {
    return;
  }
  dir_ptr dir(opendir(local_dir));
  if (!dir) {
    return;
  }
  struct dirent* entry = readdir(dir.get());
  if (entry == nullptr) {
    return;
  }
  // Directories go into the index with time and size 0: a directory's time
  // changes with every file made in it, which must not make it unknown and
  // cost a make-directory request on every run.
  fci_context* fci = fci_run_context();
  int known = 0;
  if (fci_lookup(fci, local_dir, 0, 0, 0, &known) != 0) {
    known = 0;  // the index just failed: asking the service is always safe
  }
  if (known == 0) {
    uint32_t rc = kfs_mkdir(session, 0, remote_dir);
    if (rc != 0 && rc != ERR_EXISTS) {
      report_error_code(remote_dir, rc);
      return;
    }
  }
  index_record(local_dir, 0, 0);

  // Without a trusted index, the service's listing is what tells which
  // files it already holds.
  remote_listing listing;
  if ((fci->flags & FCI_FLAG_INVALID) != 0) {
    fetch_listing(session, remote_dir, &listing);
  }

  // A folder named with a trailing '\' gets no separator, so its children's
  // paths name something else: they are judged by that path, the one the
  // backup would open, not by the entry itself.
  size_t dir_len = strlen(local_dir);
  bool stat_by_path = dir_len > 0 && local_dir[dir_len - 1] == '\\';
  char local_child[PATH_SIZE];
  char remote_child[PATH_SIZE];
  for (; entry != nullptr; entry = readdir(dir.get())) {
    const char* name = entry->d_name;
    // The remote path is the longer one (the destination comes first); a
    // name it cannot hold is skipped like an over-long local one.
    if (is_dot_entry(name) || !child_path(local_dir, name, local_child) ||
        !child_path(remote_dir, name, remote_child)) {
      continue;
    }
    // Otherwise the entry's lstat, through the open directory: the kernel
    // need not walk the whole path again for every file of a deep tree.
    struct stat st;
    int stat_rc = stat_by_path ? lstat(local_child, &st)
                               : fstatat(dirfd(dir.get()), name, &st,
                                         AT_SYMLINK_NOFOLLOW);
    if (stat_rc != 0 || (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode))) {
      continue;  // links are never followed; devices and pipes not read
    }
    auto remote = listing.empty() ? listing.end() : listing.find(name);
    if (!path_excluded(job->xsrc, local_child)) {
      bool is_dir = entry->d_type == DT_DIR ||
                    (entry->d_type == DT_UNKNOWN && S_ISDIR(st.st_mode));
      if (is_dir) {
        walk_directory(session, job, local_child, remote_child);
      } else if (S_ISREG(st.st_mode)) {
        if (remote != listing.end() && same_as_remote(remote->second, st)) {
          ++job_progress_tick;
          report_file_up_to_date(local_child);
          index_record(local_child, static_cast<uint32_t>(st.st_mtime),
                       static_cast<uint64_t>(st.st_size));
        } else {
          backup_file_with_key(session, job->account_key, local_child,
                               remote_child, &st);
        }
      }
    }
    if (remote != listing.end()) {
      listing.erase(remote);
    }
  }
}

void walk_tree(kfs_session* session, const char* local_dir,
               const char* remote_dir) {
  const job_settings* settings = job_config();
  walk_job job = {settings != nullptr ? settings->xsrc : nullptr,
                  settings != nullptr ? settings->account_key : nullptr};
  walk_directory(session, &job, local_dir, remote_dir);
}

int count_tree(const char* root, int options, walk_fn callback,
               walk_counters* counters) {
  if (callback == nullptr) {
    return 0;
  }
  char real[PATH_MAX];
  struct stat st;
  if (realpath(root, real) == nullptr || lstat(real, &st) != 0) {
    return -1;
  }
  count_walk walk = {options, callback, counters, {{st.st_dev, st.st_ino}}};
  if (strcmp(real, "/") != 0) {
    struct stat top;
    if (lstat("/", &top) != 0) {
      return -1;
    }
    walk.way_down.push_back({top.st_dev, top.st_ino});
  }
  char cwd[CWD_SIZE];
  bool have_cwd = getcwd(cwd, sizeof cwd) != nullptr;
  if (chdir(real) != 0) {
    return -1;
  }
  int rc = count_directory(&walk, real);
  if (!have_cwd || chdir(cwd) != 0) {
    if (chdir("/") != 0) {
      // Nowhere left to go; the caller's relative paths fail on their own.
    }
  }
  return rc == WALK_STOPPED ? -1 : 0;
}

int count_callback(const char* path, const struct stat* st,
                   walk_counters* counters) {
  if (is_excluded(path)) {
    return WALK_SKIP;
  }
  if (S_ISDIR(st->st_mode)) {
    ++counters->directories;
    counters->directory_bytes += st->st_size;
  } else if (S_ISREG(st->st_mode)) {
    ++counters->files;
    counters->file_bytes += st->st_size;
  } else {
    return WALK_SKIP;
  }
  return WALK_CONTINUE;
}
