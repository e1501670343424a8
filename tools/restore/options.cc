// kovrarestore's command line.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

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
    } else if (arg == "--overwrite") {
      o->overwrite = true;
    } else if (option_value(argc, argv, &i, "--hosts", &o->hosts) ||
               option_value(argc, argv, &i, "--key", &o->key_file) ||
               option_value(argc, argv, &i, "--verify", &o->verify_tree)) {
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
  if (o->list && !o->verify_tree.empty()) {
    *error = "--list and --verify do not go together";
    return RESTORE_EXIT_USAGE;
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
