// kfsd user add|set and kfsd prune: the store's users, their retention
// policies, and pruning their history.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include "kfs/server/cli_internal.h"
#include "kfs/server/kfsd_internal.h"

namespace {

constexpr option_def kUserOptions[] = {
    {"--id", true, false},      {"--name", true, false},
    {"--account", true, false}, {"--quota", true, false},
    {"--email", true, false},   {"--key-file", true, false}};

constexpr option_def kSetOptions[] = {
    {"--id", true, false},           {"--quota", true, false},
    {"--account", true, false},      {"--email", true, false},
    {"--keep-last", true, false},    {"--keep-hourly", true, false},
    {"--keep-daily", true, false},   {"--keep-weekly", true, false},
    {"--keep-monthly", true, false}, {"--keep-yearly", true, false},
    {"--keep-within", true, false}};
constexpr option_def kPruneOptions[] = {
    {"--user", true, false},        {"--all", false, false},
    {"--dry-run", false, false},    {"--keep-last", true, false},
    {"--keep-hourly", true, false}, {"--keep-daily", true, false},
    {"--keep-weekly", true, false}, {"--keep-monthly", true, false},
    {"--keep-yearly", true, false}, {"--keep-within", true, false}};

int run_user_add(int argc, char** argv) {
  option_map opt;
  if (argc < 4 || strcmp(argv[2], "add") != 0 || argv[3][0] == '-') {
    return cli_usage();
  }
  if (!cli_parse_options(argc, argv, 4, kUserOptions, &opt)) {
    return 2;
  }
  kfsd_user user;
  uint64_t id = 0;
  if (opt.count("--id") == 0 || opt.count("--name") == 0) {
    return cli_fail(2, "user add needs --id and --name");
  }
  if (!cli_parse_number(opt["--id"][0], UINT32_MAX, &id)) {
    return cli_fail(2, "--id must be a number from 0 to 4294967295");
  }
  user.id = static_cast<uint32_t>(id);
  user.name = opt["--name"][0];
  user.account = opt.count("--account") ? opt["--account"][0] : user.name;
  if (user.name.empty() || user.name.size() > kMaxUserName) {
    return cli_fail(2, "--name must have 1 to 20 characters");
  }
  if (user.account.size() > kMaxAccount) {
    return cli_fail(2, "--account must have at most 63 characters");
  }
  if (opt.count("--email") != 0) {
    user.email = opt["--email"][0];
    if (!user.email.empty() && !kfsd_mail_address_ok(user.email)) {
      return cli_fail(2, "--email: not a mail address: " + user.email);
    }
  }
  if (opt.count("--quota") &&
      !cli_parse_number(opt["--quota"][0], UINT64_MAX, &user.quota)) {
    return cli_fail(2, "--quota must be a number of bytes");
  }

  std::string dir = argv[3];
  kfsd_store store;
  std::string error;
  if (kfsd_store_open(dir, &store, &error) != 0) {
    return cli_fail(1, error);
  }
  kfsd_user existing;
  if (kfsd_store_get_user(&store, user.id, &existing) == 0) {
    kfsd_store_close(&store);
    return cli_fail(1, "user " + std::to_string(user.id) + " exists already");
  }
  uint8_t key[32];
  std::string key_path;
  if (opt.count("--key-file")) {
    if (kfsd_key_file_read(opt["--key-file"][0], key, &error) != 0) {
      kfsd_store_close(&store);
      return cli_fail(1, error);
    }
  } else {
    std::string keys = dir + "/" + KFSD_KEYS_DIR;
    key_path = keys + "/" + std::to_string(user.id) + ".key";
    if (RAND_bytes(key, sizeof key) != 1 ||
        (mkdir(keys.c_str(), 0700) != 0 && errno != EEXIST) ||
        kfsd_key_file_write(key_path, user.id, key) != 0) {
      kfsd_store_close(&store);
      return cli_fail(1, key_path + ": " + strerror(errno));
    }
  }
  unsigned int n = 0;
  EVP_Digest(key, sizeof key, user.key_sha1, &n, EVP_sha1(), nullptr);
  OPENSSL_cleanse(key, sizeof key);
  uint32_t r = kfsd_store_add_user(&store, user);
  kfsd_store_close(&store);
  if (r != 0) {
    if (!key_path.empty()) {
      unlink(key_path.c_str());
    }
    return cli_fail(1, "cannot add user " + std::to_string(user.id) + ": " +
                           kfs_err_message(r));
  }
  printf("kfsd: user %u (%s) added\n", user.id, user.name.c_str());
  if (!key_path.empty()) {
    printf("kfsd: account key written to %s\n", key_path.c_str());
  }
  return 0;
}

// The retention rules among the options; false after printing an error.
bool parse_rules(option_map& opt, kfsd_retention* out) {
  const std::pair<const char*, uint32_t*> counts[] = {
      {"--keep-last", &out->last},       {"--keep-hourly", &out->hourly},
      {"--keep-daily", &out->daily},     {"--keep-weekly", &out->weekly},
      {"--keep-monthly", &out->monthly}, {"--keep-yearly", &out->yearly}};
  for (const auto& [name, field] : counts) {
    uint64_t n = 0;
    if (opt.count(name) != 0) {
      if (!cli_parse_number(opt[name][0], 1000000, &n)) {
        cli_fail(2, std::string(name) + " takes a number of points");
        return false;
      }
      *field = static_cast<uint32_t>(n);
    }
  }
  if (opt.count("--keep-within") != 0 &&
      !kfsd_parse_duration(opt["--keep-within"][0], &out->within)) {
    cli_fail(2, "--keep-within takes a duration such as 12h, 7d, 2w, 6m or 1y");
    return false;
  }
  return true;
}

bool has_rules(const option_map& opt) {
  for (const auto& [name, values] : opt) {
    if (name.rfind("--keep-", 0) == 0) {
      return true;
    }
  }
  return false;
}

std::string rules_text(const kfsd_retention& r) {
  std::string text;
  const std::pair<const char*, uint32_t> counts[] = {
      {"last", r.last},     {"hourly", r.hourly},   {"daily", r.daily},
      {"weekly", r.weekly}, {"monthly", r.monthly}, {"yearly", r.yearly}};
  for (const auto& [name, n] : counts) {
    if (n > 0) {
      text += std::string(text.empty() ? "" : ", ") + name + " " +
              std::to_string(n);
    }
  }
  if (r.within > 0) {
    text += std::string(text.empty() ? "" : ", ") + "within " +
            std::to_string(r.within / 3600) + " h";
  }
  return text.empty() ? "none" : text;
}

// What user set changes besides the policy; false after printing an error.
bool parse_change(option_map& opt, kfsd_user_change* out) {
  if (opt.count("--quota") != 0) {
    uint64_t quota = 0;
    if (!cli_parse_number(opt["--quota"][0], UINT64_MAX, &quota)) {
      cli_fail(2, "--quota must be a number of bytes");
      return false;
    }
    out->quota = quota;
  }
  if (opt.count("--account") != 0) {
    out->account = opt["--account"][0];
    if (out->account->size() > kMaxAccount) {
      cli_fail(2, "--account must have at most 63 characters");
      return false;
    }
  }
  if (opt.count("--email") != 0) {
    out->email = opt["--email"][0];
    if (!out->email->empty() && !kfsd_mail_address_ok(*out->email)) {
      cli_fail(2, "--email: not a mail address: " + *out->email);
      return false;
    }
  }
  return true;
}

// Changes what is given, in one transaction each for the user's record and
// the policy; then prints the user as stored.
int run_user_set(int argc, char** argv) {
  option_map opt;
  if (argc < 4 || argv[3][0] == '-') {
    return cli_usage();
  }
  if (!cli_parse_options(argc, argv, 4, kSetOptions, &opt)) {
    return 2;
  }
  uint32_t id = 0;
  if (!cli_user_id(opt, "user set", &id)) {
    return 2;
  }
  kfsd_retention rules;
  kfsd_user_change change;
  if (!parse_rules(opt, &rules) || !parse_change(opt, &change)) {
    return 2;
  }
  kfsd_store store;
  std::string error;
  if (kfsd_store_open(argv[3], &store, &error) != 0) {
    return cli_fail(1, error);
  }
  uint32_t r = kfsd_store_change_user(&store, id, change);
  if (r == 0 && has_rules(opt)) {
    r = kfsd_store_set_policy(&store, id, rules);
  }
  kfsd_user user;
  if (r == 0) {
    r = kfsd_store_get_user(&store, id, &user);
  }
  if (r == 0) {
    r = kfsd_store_get_policy(&store, id, &rules);
  }
  kfsd_store_close(&store);
  if (r == ERR_AUTH_FAILURE) {
    return cli_fail(1, "no user " + std::to_string(id));
  }
  if (r != 0) {
    return cli_fail(1, "cannot change user " + std::to_string(id) + ": " +
                           kfs_err_message(r));
  }
  printf(
      "kfsd: user %u (%s): account %s, e-mail %s, quota %llu, retention %s\n",
      id, user.name.c_str(), user.account.c_str(),
      user.email.empty() ? "none" : user.email.c_str(),
      static_cast<unsigned long long>(user.quota), rules_text(rules).c_str());
  return 0;
}

void print_point(const char* what, const kfsd_point& p) {
  printf("  %-6s %s  (%llu files, %llu bytes)\n", what, p.name.c_str(),
         static_cast<unsigned long long>(p.files),
         static_cast<unsigned long long>(p.bytes));
}

int run_prune(int argc, char** argv) {
  option_map opt;
  if (argc < 3 || argv[2][0] == '-') {
    return cli_usage();
  }
  if (!cli_parse_options(argc, argv, 3, kPruneOptions, &opt)) {
    return 2;
  }
  bool all = opt.count("--all") != 0;
  uint64_t id = 0;
  if (all == (opt.count("--user") != 0)) {
    return cli_fail(2, "prune needs --user N or --all");
  }
  if (!all && !cli_parse_number(opt["--user"][0], UINT32_MAX, &id)) {
    return cli_fail(2, "--user must be a number from 0 to 4294967295");
  }
  kfsd_retention given;
  if (!parse_rules(opt, &given)) {
    return 2;
  }
  bool dry_run = opt.count("--dry-run") != 0;
  std::string dir = argv[2];
  kfsd_store store;
  std::string error;
  if (kfsd_store_open(dir, &store, &error) != 0) {
    return cli_fail(1, error);
  }
  std::vector<uint32_t> users;
  if (all && kfsd_store_user_ids(&store, &users) != 0) {
    kfsd_store_close(&store);
    return cli_fail(1, dir + ": cannot list the users");
  }
  if (!all) {
    users.push_back(static_cast<uint32_t>(id));
  }
  int status = 0;
  for (uint32_t user : users) {
    kfsd_retention rules = given;
    if (!has_rules(opt) && kfsd_store_get_policy(&store, user, &rules) != 0) {
      status = cli_fail(1, "user " + std::to_string(user) +
                               ": cannot read the retention policy");
      continue;
    }
    if (rules.empty()) {
      printf("kfsd: user %u: no retention rules: everything is kept\n", user);
      continue;
    }
    kfsd_prune_result r;
    if (kfsd_store_prune(&store, user, rules, dry_run, &r) != 0) {
      status = cli_fail(1, "user " + std::to_string(user) +
                               ": prune failed; nothing was changed");
      continue;
    }
    printf("kfsd: user %u (%s): %s %zu points, %s %zu\n", user,
           rules_text(rules).c_str(), dry_run ? "would keep" : "kept",
           r.kept.size(), dry_run ? "would remove" : "removed",
           r.removed.size());
    for (const kfsd_point& p : r.kept) {
      print_point("keep", p);
    }
    for (const kfsd_point& p : r.removed) {
      print_point("remove", p);
    }
    printf("kfsd: user %u: %llu versions and %llu streams %s, %llu bytes\n",
           user, static_cast<unsigned long long>(r.versions),
           static_cast<unsigned long long>(r.streams),
           dry_run ? "would go" : "removed",
           static_cast<unsigned long long>(r.bytes));
  }
  if (!dry_run) {
    cli_give_back_space(dir, &store);
  }
  kfsd_store_close(&store);
  return status;
}

}  // namespace

void cli_give_back_space(const std::string& dir, kfsd_store* store) {
  // Only with the folder to itself may a command rewrite packs; a running
  // server does that after its next completed run, or when it starts.
  unique_fd lock(kfsd_datadir_lock(dir));
  if (lock) {
    std::lock_guard<std::mutex> packing(store->pack_mutex);
    uint64_t given_back = kfsd_store_compact(store);
    printf("kfsd: %llu bytes of pack space given back\n",
           static_cast<unsigned long long>(given_back));
  } else {
    printf(
        "kfsd: a server uses %s: it gives the space back after its next"
        " completed run\n",
        dir.c_str());
  }
}

int cli_run_user(int argc, char** argv) {
  std::string what = argc > 2 ? argv[2] : "";
  if (what == "set") {
    return run_user_set(argc, argv);
  }
  if (what == "list") {
    return cli_run_user_list(argc, argv);
  }
  if (what == "remove") {
    return cli_run_user_remove(argc, argv);
  }
  return run_user_add(argc, argv);
}

int cli_run_prune(int argc, char** argv) {
  return run_prune(argc, argv);
}
