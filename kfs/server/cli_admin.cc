// kfsd user list, kfsd user remove and kfsd stats: what an operator looks
// at and the one destructive user command. The listing ones print a table,
// or with --json one object for scripts (sizes in bytes, times in seconds
// since the epoch).
#include <stdio.h>
#include <time.h>

#include <string>
#include <vector>

#include "kfs/server/cli_internal.h"
#include "kfs/server/kfsd_internal.h"

namespace {

constexpr option_def kListOptions[] = {{"--json", false, false}};
constexpr option_def kRemoveOptions[] = {{"--id", true, false}};

std::string json_text(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char esc[8];
      snprintf(esc, sizeof esc, "\\u%04x", c);
      out += esc;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

std::string local_time(int64_t when) {
  if (when == 0) {
    return "never";
  }
  time_t t = static_cast<time_t>(when);
  struct tm tm;
  char text[32] = "?";
  if (localtime_r(&t, &tm) != nullptr) {
    strftime(text, sizeof text, "%Y-%m-%d %H:%M", &tm);
  }
  return text;
}

std::string size_text(uint64_t bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double v = static_cast<double>(bytes);
  size_t unit = 0;
  while (v >= 1024 && unit + 1 < std::size(kUnits)) {
    v /= 1024;
    ++unit;
  }
  char text[32];
  snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", v,
           kUnits[unit]);
  return text;
}

std::string u64(uint64_t v) {
  return std::to_string(v);
}

// The data folder argument and the options after it; status 0, or the
// status to end with.
int open_for_listing(int argc, char** argv, int first, option_map* opt,
                     kfsd_store* store) {
  if (argc <= first || argv[first][0] == '-') {
    return cli_usage();
  }
  if (!cli_parse_options(argc, argv, first + 1, kListOptions, opt)) {
    return 2;
  }
  std::string error;
  if (kfsd_store_open(argv[first], store, &error) != 0) {
    return cli_fail(1, error);
  }
  return 0;
}

}  // namespace

int cli_run_user_list(int argc, char** argv) {
  option_map opt;
  kfsd_store store;
  if (int status = open_for_listing(argc, argv, 3, &opt, &store)) {
    return status;
  }
  std::vector<kfsd_user_info> users;
  uint32_t r = kfsd_store_user_infos(&store, &users);
  kfsd_store_close(&store);
  if (r != 0) {
    return cli_fail(1, std::string(argv[3]) + ": cannot list the users");
  }
  std::string dir = argv[3];
  if (opt.count("--json") != 0) {
    std::string out = "{\"users\": [";
    for (size_t i = 0; i < users.size(); ++i) {
      const kfsd_user_info& u = users[i];
      out +=
          std::string(i ? ", " : "") + "{\"id\": " + u64(u.user.id) +
          ", \"name\": " + json_text(u.user.name) +
          ", \"account\": " + json_text(u.user.account) +
          ", \"email\": " + json_text(u.user.email) +
          ", \"quota\": " + u64(u.user.quota) + ", \"used\": " + u64(u.used) +
          ", \"files\": " + u64(u.files) + ", \"points\": " + u64(u.points) +
          ", \"last_run\": " + std::to_string(u.last_run) + ", \"locked\": " +
          (kfsd_user_lock_held(dir, u.user.id) ? "true" : "false") + "}";
    }
    printf("%s]}\n", out.c_str());
    return 0;
  }
  printf("%10s  %-20s  %-20s  %-24s  %10s  %10s  %8s  %6s  %s\n", "id", "name",
         "account", "e-mail", "quota", "used", "files", "points", "last run");
  for (const kfsd_user_info& u : users) {
    bool locked = kfsd_user_lock_held(dir, u.user.id);
    printf("%10u  %-20s  %-20s  %-24s  %10s  %10s  %8llu  %6llu  %s%s\n",
           u.user.id, u.user.name.c_str(), u.user.account.c_str(),
           u.user.email.empty() ? "-" : u.user.email.c_str(),
           u.user.quota ? size_text(u.user.quota).c_str() : "-",
           size_text(u.used).c_str(), static_cast<unsigned long long>(u.files),
           static_cast<unsigned long long>(u.points),
           local_time(u.last_run).c_str(), locked ? " (running)" : "");
  }
  return 0;
}

int cli_run_user_remove(int argc, char** argv) {
  option_map opt;
  if (argc < 4 || argv[3][0] == '-') {
    return cli_usage();
  }
  if (!cli_parse_options(argc, argv, 4, kRemoveOptions, &opt)) {
    return 2;
  }
  uint32_t id = 0;
  if (!cli_user_id(opt, "user remove", &id)) {
    return 2;
  }
  std::string dir = argv[3];
  kfsd_store store;
  std::string error;
  if (kfsd_store_open(dir, &store, &error) != 0) {
    return cli_fail(1, error);
  }
  // Held until the removal is stored: the user's next run cannot start
  // in between, and one running now keeps the removal out.
  unique_fd lock(kfsd_user_lock_take(dir, id));
  if (!lock) {
    kfsd_store_close(&store);
    return cli_fail(1, "user " + std::to_string(id) +
                           " is locked by a backup run; try again when it"
                           " has ended");
  }
  kfsd_prune_result freed;
  uint32_t r = kfsd_store_remove_user(&store, id, &freed);
  if (r == 0) {
    printf(
        "kfsd: user %u removed: %llu versions, %llu streams (%llu bytes)"
        " nothing else used\n",
        id, static_cast<unsigned long long>(freed.versions),
        static_cast<unsigned long long>(freed.streams),
        static_cast<unsigned long long>(freed.bytes));
    cli_give_back_space(dir, &store);
  }
  kfsd_store_close(&store);
  if (r == ERR_AUTH_FAILURE) {
    return cli_fail(1, "no user " + std::to_string(id));
  }
  if (r != 0) {
    return cli_fail(1, "cannot remove user " + std::to_string(id) +
                           "; nothing was changed");
  }
  return 0;
}

int cli_run_stats(int argc, char** argv) {
  option_map opt;
  kfsd_store store;
  if (int status = open_for_listing(argc, argv, 2, &opt, &store)) {
    return status;
  }
  kfsd_stats s;
  uint32_t r = kfsd_store_stats(&store, &s);
  kfsd_store_close(&store);
  if (r != 0) {
    return cli_fail(1, std::string(argv[2]) + ": cannot read the store");
  }
  if (opt.count("--json") != 0) {
    std::string out =
        "{\"users\": " + u64(s.users) + ", \"files\": " + u64(s.files) +
        ", \"versions\": " + u64(s.versions) +
        ", \"points\": " + u64(s.points) +
        ", \"stored_bytes\": " + u64(s.stored_bytes) +
        ", \"pack_bytes\": " + u64(s.pack_bytes) +
        ", \"logical_bytes\": " + u64(s.logical_bytes) +
        ", \"history_bytes\": " + u64(s.history_bytes) + ", \"last_runs\": [";
    for (size_t i = 0; i < s.last_runs.size(); ++i) {
      const kfsd_stats::job_run& j = s.last_runs[i];
      out += std::string(i ? ", " : "") + "{\"user\": " + u64(j.user) +
             ", \"job\": " + json_text(j.job) +
             ", \"time\": " + std::to_string(j.time) +
             ", \"files\": " + u64(j.files) + ", \"bytes\": " + u64(j.bytes) +
             "}";
    }
    printf("%s]}\n", out.c_str());
    return 0;
  }
  printf("users             %llu\n", static_cast<unsigned long long>(s.users));
  printf("files             %llu (%llu versions, %llu restore points)\n",
         static_cast<unsigned long long>(s.files),
         static_cast<unsigned long long>(s.versions),
         static_cast<unsigned long long>(s.points));
  printf("logical bytes     %s (every version: %s)\n",
         size_text(s.logical_bytes).c_str(),
         size_text(s.history_bytes).c_str());
  printf("stored bytes      %s (pack files: %s)\n",
         size_text(s.stored_bytes).c_str(), size_text(s.pack_bytes).c_str());
  printf("last completed runs:\n");
  if (s.last_runs.empty()) {
    printf("  none\n");
  }
  for (const kfsd_stats::job_run& j : s.last_runs) {
    printf("  user %-10u %-24s %s  %llu files, %s\n", j.user, j.job.c_str(),
           local_time(j.time).c_str(), static_cast<unsigned long long>(j.files),
           size_text(j.bytes).c_str());
  }
  return 0;
}
