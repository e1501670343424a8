// The job driver: one backup run from the pre-count to the new time stamp.
#include "agent/job.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include "agent/config.h"
#include "agent/fci/fci.h"
#include "agent/report.h"
#include "agent/walk.h"
#include "lib/scoped.h"
#include "lib/sleep.h"

uint32_t job_progress_tick = 0;

namespace {

// Lock request option bits.
constexpr uint8_t kLockRelease = 0x01;
constexpr uint8_t kLockRelock = 0x02;
constexpr uint8_t kLockStamp = 0x04;
constexpr uint8_t kLockIndexValid = 0x08;

constexpr int kLockAttempts = 13;
constexpr unsigned kLockWait = 5;
constexpr int kRelockBudget = 12;
constexpr unsigned kRelockWait = 60;

kfs_session session_of_run;
uint32_t relock_user_id = 0;
bool index_valid = false;

const char* base_name(const char* path) {
  const char* slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

uint32_t lock_user(kfs_session* s, uint8_t flags) {
  kfs_lock_args args = {flags, 1, &relock_user_id};
  return kfs_user_lock(s, &args);
}

// Files the run will look at: the report's "requested" figure.
int64_t count_sources(const job_settings* job) {
  int64_t total = 0;
  for (int32_t i = 0; i < str_list_count(job->src); ++i) {
    const char* src = str_list_get(job->src, i);
    if (is_excluded(src)) {
      continue;
    }
    struct stat st;
    if (lstat(src, &st) != 0) {
      ++total;
    } else if (S_ISDIR(st.st_mode)) {
      walk_counters counters = {};
      count_tree(src, WALK_DESCEND | WALK_PATTERN, count_callback, &counters);
      total += counters.files;
    } else if (S_ISREG(st.st_mode)) {
      ++total;
    }
  }
  return total;
}

void prepare_session(kfs_session* s, const job_settings* job,
                     const char* config_path) {
  kfs_session_init(s);
  snprintf(s->server_list_path, sizeof s->server_list_path, "etc/hosts");
  snprintf(s->last_servers_path, sizeof s->last_servers_path,
           "etc/hosts.agent");
  s->encryption_mode = KFS_MODE_AES;
  s->auth_mode = AUTH_MODE_AGENT;
  s->user_id =
      static_cast<uint32_t>(strtoul(job->values[CONFIG_USER_ID], nullptr, 10));
  memcpy(s->token_digest, job->key_digest, sizeof s->token_digest);
  snprintf(s->agent_text_1, sizeof s->agent_text_1, "%s",
           job->values[CONFIG_NAME]);
  snprintf(s->agent_text_2, sizeof s->agent_text_2, "%s",
           base_name(config_path));
  relock_user_id = s->user_id;
}

// Locks the user, waiting while another run holds it. False (after the
// failure report) when the job cannot go on.
bool lock_for_run(kfs_session* s) {
  uint32_t rc = ERR_ACCESS;
  for (int attempt = 1; attempt <= kLockAttempts; ++attempt) {
    rc = lock_user(s, 0);
    if (rc != ERR_ACCESS) {
      break;
    }
    if (attempt < kLockAttempts) {
      sleep_seconds(kLockWait);
    }
  }
  if (rc == ERR_ACCESS) {
    report_connected(s);
    report_failure_code(rc);
    return false;
  }
  if (rc != 0) {
    report_failure_code(rc);
    return false;
  }
  return true;
}

// The commit time the previous index must carry. A job file edited since
// the last run makes it 0, so the index disagrees with the service and the
// walk compares every folder with the service's listing.
int32_t choose_stamp(kfs_session* s, const char* config_path,
                     const char* ts_path) {
  int32_t server_stamp = static_cast<int32_t>(s->agent_time);
  file_ptr f(fopen(ts_path, "r"));
  char line[64];
  if (!f || fgets(line, sizeof line, f.get()) == nullptr) {
    return server_stamp;
  }
  long recorded = strtol(line, nullptr, 10);
  if (recorded == 0) {
    return server_stamp;
  }
  struct stat st;
  if (lstat(config_path, &st) != 0 || st.st_mtime <= recorded) {
    return server_stamp;
  }
  s->agent_time = 0;
  return 0;
}

// dest with a trailing '/', and each of its folders below "/<user>"
// created (results show later, on the files below them).
void prepare_destination(kfs_session* s, const char* dest, char* remote,
                         size_t size) {
  size_t len = strlen(dest);
  snprintf(remote, size, "%s%s", dest,
           len > 0 && dest[len - 1] == '/' ? "" : "/");
  if (remote[0] != '/') {
    return;
  }
  int slashes = 0;
  for (char* p = remote; *p != '\0'; ++p) {
    if (*p == '/' && ++slashes >= 3) {
      *p = '\0';
      retry_make_remote_directory(s, remote);
      *p = '/';
    }
  }
}

// One Src= entry. Returns 1 when autoremove dropped it from the list.
int back_up_source(kfs_session* s, const job_settings* job, const char* src,
                   const char* destination) {
  if (src[0] != '/') {
    return 0;
  }
  char remote[CONFIG_LINE_SIZE];
  int n = snprintf(remote, sizeof remote, "%s%s", destination, src + 1);
  if (n < 0 || static_cast<size_t>(n) >= sizeof remote) {
    return 0;  // no remote name fits; such a path is skipped like a long one
  }
  for (char* p = remote + strlen(destination); *p != '\0'; ++p) {
    if (*p == '/') {
      *p = '\0';
      retry_make_remote_directory(s, remote);
      *p = '/';
    }
  }
  if (is_excluded(src)) {
    return 0;
  }
  struct stat st;
  if (lstat(src, &st) != 0) {
    int err = errno;
    report_error_errno(src, err);
    if (err == ENOENT && job_config_number(job, CONFIG_AUTOREMOVE) != 0) {
      // Kept: the walk's cursor is not adjusted, so the entry after a
      // removed one is not visited in this run.
      str_list_remove_range(job->src, str_list_cursor(job->src), 1);
      return 1;
    }
    return 0;
  }
  if (S_ISDIR(st.st_mode)) {
    walk_tree(s, src, remote);
  } else if (S_ISREG(st.st_mode)) {
    backup_file(s, src, remote, &st);
  }
  return 0;
}

void write_time_stamp(const char* config_path, const char* ts_path) {
  struct stat st = {};
  if (lstat(config_path, &st) != 0) {
    // Not checked: the stamp then reads 0, which trusts the service's stamp.
  }
  file_ptr f(fopen(ts_path, "w+"));
  if (f) {
    fprintf(f.get(), "%d\n", static_cast<int>(st.st_mtime));
  }
}

template <typename Request>
uint32_t with_relock(kfs_session* s, Request request) {
  int budget = kRelockBudget;
  for (;;) {
    uint32_t rc = request();
    if (rc != ERR_SCKREAD && rc != ERR_ACCESS) {
      return rc;
    }
    uint8_t flags = index_valid ? kLockRelock : 0;
    uint32_t lock = lock_user(s, flags);
    while (lock == ERR_ACCESS) {
      if (budget == 0) {
        return ERR_ACCESS;
      }
      --budget;
      sleep_seconds(kRelockWait);
      lock = lock_user(s, flags);
    }
    if (lock != 0) {
      return lock;
    }
  }
}

}  // namespace

uint32_t retry_make_remote_directory(kfs_session* s, const char* path) {
  return with_relock(s, [s, path] { return kfs_mkdir(s, 0, path); });
}

uint32_t retry_open_remote_file(kfs_session* s, kfs_wopen_args* args) {
  return with_relock(s, [s, args] { return kfs_file_wopen(s, args); });
}

int run_job(const char* config_path) {
  const job_settings* job = job_config();
  if (job == nullptr) {
    return 0;
  }
  kfs_session* s = &session_of_run;
  index_valid = false;
  int64_t files_total = count_sources(job);
  prepare_session(s, job, config_path);
  if (!lock_for_run(s)) {
    kfs_session_reset(s);
    return 0;
  }
  report_connected(s);

  char ts_path[CONFIG_LINE_SIZE];
  snprintf(ts_path, sizeof ts_path, "etc/%s.ts", base_name(config_path));
  int32_t stamp = choose_stamp(s, config_path, ts_path);
  fci_context* index = fci_run_context();
  index_valid = fci_open(index, config_path, stamp) == 0;
  if (index_valid) {
    // Tell the service the index is trusted; from now on a re-login keeps
    // our stamp instead of taking the service's.
    lock_user(s, kLockRelock | kLockIndexValid);
    s->agent_marker_sent = 1;
  }
  const char* dest = job->values[CONFIG_DEST];
  report_begin(files_total, 0, dest);

  char destination[CONFIG_LINE_SIZE];
  prepare_destination(s, dest, destination, sizeof destination);
  int result = 0;
  for (const char* src = str_list_first(job->src); src != nullptr;
       src = str_list_next(job->src)) {
    result |= back_up_source(s, job, src, destination);
  }
  report_success(0, 0);

  // One stamp for the index and the service: a run that ends here leaves
  // them equal, so the next run trusts the index.
  int32_t now = static_cast<int32_t>(time(nullptr));
  s->agent_time = static_cast<uint32_t>(now);
  fci_close(index, now);
  lock_user(s, kLockRelease | kLockStamp);
  kfs_session_reset(s);
  write_time_stamp(config_path, ts_path);
  return result;
}
