// kovrarestore's command line.
#include <errno.h>
#include <stdlib.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

#include "tools/restore/restore.h"

namespace {

constexpr long kMaxJobs = 16;

constexpr char kUsage[] =
    "usage: kovrarestore --hosts FILE --key FILE --user ID [options] "
    "REMOTE_PATH [LOCAL_DIR]\n"
    "Restores REMOTE_PATH (a folder, with everything below it, or one file)\n"
    "from the service into LOCAL_DIR, where it keeps its name.\n"
    "\n"
    "  --hosts FILE         servers to try, one host:port per line\n"
    "  --key FILE           the account key file the backup was made with\n"
    "  --user ID            the account's user id\n"
    "  --overwrite          replace local files that already exist\n"
    "  --jobs N             restore with N connections at once (default 4)\n"
    "  --verify LOCAL_TREE  compare REMOTE_PATH with LOCAL_TREE instead of\n"
    "                       restoring, and print each difference\n"
    "  --list               print the remote tree with sizes and times\n"
    "  --points             print the restore points: time, job, files and\n"
    "                       bytes each run stored\n"
    "  --at WHEN            restore, list or verify as the newest point at or\n"
    "                       before WHEN showed it: a point's time as printed,\n"
    "                       a date (its end) or a date and time\n"
    "  --help               print this text\n"
    "\n"
    "Exit status: 0 done (no differences), 1 some files failed or differ,\n"
    "2 wrong command line, 3 nothing could be done (key, server, path).\n";

// "--name value" or "--name=value".
bool option_value(int argc, char** argv, int* i, const char* name,
                  std::string* out) {
  size_t len = strlen(name);
  const char* arg = argv[*i];
  if (strncmp(arg, name, len) != 0) {
    return false;
  }
  if (arg[len] == '=') {
    *out = arg + len + 1;
    return true;
  }
  if (arg[len] != '\0' || *i + 1 >= argc) {
    return false;
  }
  *out = argv[++*i];
  return true;
}

}  // namespace

const char* restore_usage() {
  return kUsage;
}

int restore_parse_args(int argc, char** argv, restore_options* o,
                       std::string* error) {
  std::vector<std::string> positional;
  std::string user, jobs;
  bool have_user = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help") {
      o->help = true;
      return RESTORE_EXIT_OK;
    }
    if (arg == "--list") {
      o->list = true;
    } else if (arg == "--points") {
      o->points = true;
    } else if (arg == "--overwrite") {
      o->overwrite = true;
    } else if (option_value(argc, argv, &i, "--hosts", &o->hosts) ||
               option_value(argc, argv, &i, "--key", &o->key_file) ||
               option_value(argc, argv, &i, "--verify", &o->verify_tree) ||
               option_value(argc, argv, &i, "--at", &o->at)) {
    } else if (option_value(argc, argv, &i, "--user", &user)) {
      have_user = true;
    } else if (option_value(argc, argv, &i, "--jobs", &jobs)) {
      char* end = nullptr;
      long n = strtol(jobs.c_str(), &end, 10);
      if (jobs.empty() || *end != '\0' || n < 1 || n > kMaxJobs) {
        *error = "--jobs takes a number from 1 to " + std::to_string(kMaxJobs) +
                 ": " + jobs;
        return RESTORE_EXIT_USAGE;
      }
      o->jobs = static_cast<int>(n);
    } else if (arg.size() > 1 && arg[0] == '-') {
      *error = "unknown or incomplete option " + arg;
      return RESTORE_EXIT_USAGE;
    } else {
      positional.push_back(arg);
    }
  }
  if (o->hosts.empty() || o->key_file.empty() || !have_user) {
    *error = "--hosts, --key and --user are required";
    return RESTORE_EXIT_USAGE;
  }
  char* end = nullptr;
  errno = 0;
  unsigned long long id = strtoull(user.c_str(), &end, 10);
  if (user.empty() || *end != '\0' || errno != 0 || id > UINT32_MAX ||
      user[0] == '-') {
    *error = "the user id must be a number: " + user;
    return RESTORE_EXIT_USAGE;
  }
  o->user = static_cast<uint32_t>(id);
  if (o->list + !o->verify_tree.empty() + o->points > 1) {
    *error = "--list, --verify and --points do not go together";
    return RESTORE_EXIT_USAGE;
  }
  if (!o->at.empty() && (o->points || !restore_parse_when(o->at, &o->at_time))) {
    *error = o->points ? "--points lists every point: leave --at out"
                       : "--at takes a point's time as --points prints it, "
                         "a date (2026-11-24) or a date and time "
                         "(2026-11-24 18:30): " +
                             o->at;
    return RESTORE_EXIT_USAGE;
  }
  if (o->points) {
    if (!positional.empty()) {
      *error = "--points takes no paths";
      return RESTORE_EXIT_USAGE;
    }
    return RESTORE_EXIT_OK;
  }
  size_t wanted = o->list || !o->verify_tree.empty() ? 1 : 2;
  if (positional.size() != wanted) {
    *error = wanted == 1 ? "give the remote path only"
                         : "give the remote path and the local folder";
    return RESTORE_EXIT_USAGE;
  }
  o->remote = positional[0];
  if (o->remote.empty() || o->remote[0] != '/') {
    *error = "the remote path must start with '/': " + o->remote;
    return RESTORE_EXIT_USAGE;
  }
  if (wanted == 2) {
    o->local = positional[1];
  }
  return RESTORE_EXIT_OK;
}

bool restore_parse_when(const std::string& text, int64_t* out) {
  struct tm tm = {};
  int year = 0, month = 0, day = 0, hour = 23, minute = 59, second = 59;
  char sep = 0;
  int n = 0;
  int fields = sscanf(text.c_str(), "%4d-%2d-%2d%n", &year, &month, &day, &n);
  if (fields != 3) {
    return false;
  }
  std::string rest = text.substr(static_cast<size_t>(n));
  if (!rest.empty()) {
    // A time of day: to the minute or the second.
    int m = 0;
    second = 0;
    if (sscanf(rest.c_str(), "%c%2d:%2d%n", &sep, &hour, &minute, &m) != 3 ||
        (sep != ' ' && sep != 'T')) {
      return false;
    }
    rest = rest.substr(static_cast<size_t>(m));
    if (!rest.empty() &&
        (sscanf(rest.c_str(), ":%2d%n", &second, &m) != 1 ||
         static_cast<size_t>(m) != rest.size())) {
      return false;
    }
  }
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 ||
      minute > 59 || second > 60 || hour < 0 || minute < 0 || second < 0) {
    return false;
  }
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;
  tm.tm_isdst = -1;  // as the local clock showed it then
  time_t t = mktime(&tm);
  if (t == static_cast<time_t>(-1) || tm.tm_mday != day) {
    return false;  // no such day (a 31 November)
  }
  *out = static_cast<int64_t>(t);
  return true;
}
