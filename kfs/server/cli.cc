// The command line: kfsd init, kfsd user add|set, kfsd serve, kfsd prune,
// kfsd check. Bad
// arguments end with status 2, a missing or damaged data folder (or any other
// failure) with 1; every error is one line on standard error.
#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include "kfs/server/kfsd.h"
#include "kfs/server/kfsd_internal.h"

namespace {

constexpr char kUsage[] =
    "usage: kfsd init DIR\n"
    "       kfsd user add DIR --id N --name NAME [--account TEXT]"
    " [--quota BYTES] [--key-file FILE]\n"
    "       kfsd serve DIR [--listen ADDRESS:PORT] [--block-size BYTES]"
    " [--port-file FILE]\n"
    "                      [--announce HOST:PORT]... [--redirect]"
    " [--verbose]\n"
    "                      [--smtp HOST:PORT [--smtp-from ADDRESS]"
    " [--smtp-starttls]\n"
    "                       [--smtp-user NAME --smtp-password-file FILE]]\n"
    "       kfsd user set DIR --id N [RULES]\n"
    "       kfsd prune DIR (--user N | --all) [RULES] [--dry-run]\n"
    "       kfsd check DIR\n"
    "RULES: [--keep-last N] [--keep-hourly N] [--keep-daily N]"
    " [--keep-weekly N]\n"
    "       [--keep-monthly N] [--keep-yearly N] [--keep-within DURATION]\n";

// The client keeps the user name in 21 bytes and a host in 16, both with
// a NUL; account texts are kept short for the same reason.
constexpr size_t kMaxUserName = 20;
constexpr size_t kMaxAccount = 63;
constexpr size_t kMaxHost = 15;

struct option_def {
  const char* name;
  bool takes_value;
  bool repeats;
};

constexpr option_def kUserOptions[] = {{"--id", true, false},
                                       {"--name", true, false},
                                       {"--account", true, false},
                                       {"--quota", true, false},
                                       {"--key-file", true, false}};
constexpr option_def kServeOptions[] = {
    {"--listen", true, false},    {"--block-size", true, false},
    {"--port-file", true, false}, {"--announce", true, true},
    {"--redirect", false, false}, {"--no-sync", false, false},
    {"--verbose", false, false},  {"--smtp", true, false},
    {"--smtp-from", true, false}, {"--smtp-starttls", false, false},
    {"--smtp-user", true, false}, {"--smtp-password-file", true, false}};

constexpr option_def kSetOptions[] = {
    {"--id", true, false},           {"--keep-last", true, false},
    {"--keep-hourly", true, false},  {"--keep-daily", true, false},
    {"--keep-weekly", true, false},  {"--keep-monthly", true, false},
    {"--keep-yearly", true, false},  {"--keep-within", true, false}};
constexpr option_def kPruneOptions[] = {
    {"--user", true, false},         {"--all", false, false},
    {"--dry-run", false, false},     {"--keep-last", true, false},
    {"--keep-hourly", true, false},  {"--keep-daily", true, false},
    {"--keep-weekly", true, false},  {"--keep-monthly", true, false},
    {"--keep-yearly", true, false},  {"--keep-within", true, false}};

using option_map = std::map<std::string, std::vector<std::string>>;

int usage() {
  fputs(kUsage, stderr);
  return 2;
}

int fail(int status, const std::string& message) {
  fprintf(stderr, "kfsd: %s\n", message.c_str());
  return status;
}

// Collects options from argv[first..argc); false after printing an error.
template <size_t N>
bool parse_options(int argc, char** argv, int first,
                   const option_def (&defs)[N], option_map* out) {
  for (int i = first; i < argc; ++i) {
    const option_def* def = nullptr;
    for (const option_def& s : defs) {
      if (strcmp(argv[i], s.name) == 0) {
        def = &s;
      }
    }
    if (def == nullptr) {
      fail(2, std::string("unknown argument ") + argv[i]);
      return false;
    }
    if (out->count(def->name) != 0 && !def->repeats) {
      fail(2, std::string(def->name) + " given twice");
      return false;
    }
    std::vector<std::string>& values = (*out)[def->name];
    if (def->takes_value) {
      if (i + 1 >= argc) {
        fail(2, std::string(def->name) + " needs a value");
        return false;
      }
      values.push_back(argv[++i]);
    }
  }
  return true;
}

// A plain decimal number up to max.
bool parse_number(const std::string& text, uint64_t max, uint64_t* out) {
  if (text.empty() || text.size() > 20) {
    return false;
  }
  uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9' || v > (UINT64_MAX - 9) / 10) {
      return false;
    }
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  *out = v;
  return v <= max;
}

bool parse_host_port(const std::string& text, std::string* host,
                     uint16_t* port) {
  size_t colon = text.rfind(':');
  uint64_t p = 0;
  if (colon == std::string::npos || colon == 0 ||
      !parse_number(text.substr(colon + 1), 65535, &p)) {
    return false;
  }
  *host = text.substr(0, colon);
  *port = static_cast<uint16_t>(p);
  return true;
}

int run_init(int argc, char** argv) {
  if (argc != 3) {
    return usage();
  }
  std::string error;
  if (kfsd_datadir_init(argv[2], &error) != 0) {
    return fail(1, error);
  }
  printf("kfsd: data folder %s created\n", argv[2]);
  return 0;
}

int run_user_add(int argc, char** argv) {
  option_map opt;
  if (argc < 4 || strcmp(argv[2], "add") != 0 || argv[3][0] == '-') {
    return usage();
  }
  if (!parse_options(argc, argv, 4, kUserOptions, &opt)) {
    return 2;
  }
  kfsd_user user;
  uint64_t id = 0;
  if (opt.count("--id") == 0 || opt.count("--name") == 0) {
    return fail(2, "user add needs --id and --name");
  }
  if (!parse_number(opt["--id"][0], UINT32_MAX, &id)) {
    return fail(2, "--id must be a number from 0 to 4294967295");
  }
  user.id = static_cast<uint32_t>(id);
  user.name = opt["--name"][0];
  user.account = opt.count("--account") ? opt["--account"][0] : user.name;
  if (user.name.empty() || user.name.size() > kMaxUserName) {
    return fail(2, "--name must have 1 to 20 characters");
  }
  if (user.account.size() > kMaxAccount) {
    return fail(2, "--account must have at most 63 characters");
  }
  if (opt.count("--quota") &&
      !parse_number(opt["--quota"][0], UINT64_MAX, &user.quota)) {
    return fail(2, "--quota must be a number of bytes");
  }

  std::string dir = argv[3];
  kfsd_store store;
  std::string error;
  if (kfsd_store_open(dir, &store, &error) != 0) {
    return fail(1, error);
  }
  kfsd_user existing;
  if (kfsd_store_get_user(&store, user.id, &existing) == 0) {
    kfsd_store_close(&store);
    return fail(1, "user " + std::to_string(user.id) + " exists already");
  }
  uint8_t key[32];
  std::string key_path;
  if (opt.count("--key-file")) {
    if (kfsd_key_file_read(opt["--key-file"][0], key, &error) != 0) {
      kfsd_store_close(&store);
      return fail(1, error);
    }
  } else {
    std::string keys = dir + "/" + KFSD_KEYS_DIR;
    key_path = keys + "/" + std::to_string(user.id) + ".key";
    if (RAND_bytes(key, sizeof key) != 1 ||
        (mkdir(keys.c_str(), 0700) != 0 && errno != EEXIST) ||
        kfsd_key_file_write(key_path, user.id, key) != 0) {
      kfsd_store_close(&store);
      return fail(1, key_path + ": " + strerror(errno));
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
    return fail(1, "cannot add user " + std::to_string(user.id) + ": " +
                       kfs_err_message(r));
  }
  printf("kfsd: user %u (%s) added\n", user.id, user.name.c_str());
  if (!key_path.empty()) {
    printf("kfsd: account key written to %s\n", key_path.c_str());
  }
  return 0;
}

// The relay settings among serve's options; false after printing an error.
bool parse_smtp(option_map& opt, kfsd_smtp_settings* out) {
  auto bad = [](const std::string& message) {
    fail(2, message);
    return false;
  };
  bool any = false;
  for (const char* name : {"--smtp-from", "--smtp-starttls", "--smtp-user",
                           "--smtp-password-file"}) {
    any = any || opt.count(name) != 0;
  }
  if (opt.count("--smtp") == 0) {
    return !any || bad("the --smtp-... options need --smtp HOST:PORT");
  }
#ifndef KFSD_HAVE_CURL
  return bad("--smtp: this kfsd was built without mail delivery");
#endif
  const std::string& relay = opt["--smtp"][0];
  if (!parse_host_port(relay, &out->host, &out->port) || out->port == 0 ||
      out->host.find_first_of("/@[]? \t") != std::string::npos) {
    return bad("--smtp takes the relay's HOST:PORT, as 127.0.0.1:25");
  }
  if (opt.count("--smtp-from") != 0) {
    out->from = opt["--smtp-from"][0];
    if (!kfsd_mail_address_ok(out->from)) {
      return bad("--smtp-from: not a mail address: " + out->from);
    }
  }
  out->starttls = opt.count("--smtp-starttls") != 0;
  if (opt.count("--smtp-user") != opt.count("--smtp-password-file")) {
    return bad("--smtp-user and --smtp-password-file go together");
  }
  if (opt.count("--smtp-user") != 0) {
    out->user = opt["--smtp-user"][0];
    const std::string& file = opt["--smtp-password-file"][0];
    file_ptr f(fopen(file.c_str(), "r"));
    char line[1024] = {};
    if (!f || fgets(line, sizeof line, f.get()) == nullptr) {
      return bad(file + ": " + (f ? "empty" : strerror(errno)));
    }
    out->password = line;
    while (!out->password.empty() && (out->password.back() == '\n' ||
                                      out->password.back() == '\r')) {
      out->password.pop_back();
    }
    if (out->password.empty()) {
      return bad(file + ": the first line holds no password");
    }
  }
  return true;
}

int run_serve(int argc, char** argv) {
  option_map opt;
  if (argc < 3 || argv[2][0] == '-') {
    return usage();
  }
  if (!parse_options(argc, argv, 3, kServeOptions, &opt)) {
    return 2;
  }
  kfsd_settings s;
  s.dir = argv[2];
  struct in_addr addr;
  if (opt.count("--listen") &&
      (!parse_host_port(opt["--listen"][0], &s.listen_host, &s.listen_port) ||
       inet_pton(AF_INET, s.listen_host.c_str(), &addr) != 1)) {
    return fail(2,
                "--listen takes an IPv4 address and a port, as "
                "127.0.0.1:7001");
  }
  uint64_t block_size = 0;
  if (opt.count("--block-size")) {
    if (!parse_number(opt["--block-size"][0], 1u << 30, &block_size) ||
        block_size == 0) {
      return fail(2, "--block-size must be from 1 to 1073741824 bytes");
    }
    s.block_size = static_cast<uint32_t>(block_size);
  }
  if (opt.count("--port-file")) {
    s.port_file = opt["--port-file"][0];
  }
  for (const std::string& text : opt["--announce"]) {
    kfsd_announce a;
    if (!parse_host_port(text, &a.host, &a.port) || a.port == 0 ||
        a.host.size() > kMaxHost) {
      return fail(2,
                  "--announce takes HOST:PORT, a host of at most 15 "
                  "characters and a port from 1");
    }
    s.announce.push_back(a);
  }
  if (s.announce.size() > 2) {
    return fail(2, "at most two --announce entries");
  }
  s.redirect = opt.count("--redirect") != 0;
  s.verbose = opt.count("--verbose") != 0;
  if (!parse_smtp(opt, &s.smtp)) {
    return 2;
  }
  if (opt.count("--no-sync") != 0) {
    // Kept for command lines written for older versions: flushes are
    // batched off the request path now, and skipping them saved nothing.
    fputs("kfsd: --no-sync is ignored: writes are flushed once a batch\n",
          stderr);
  }
  return kfsd_serve(s);
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
      if (!parse_number(opt[name][0], 1000000, &n)) {
        fail(2, std::string(name) + " takes a number of points");
        return false;
      }
      *field = static_cast<uint32_t>(n);
    }
  }
  if (opt.count("--keep-within") != 0 &&
      !kfsd_parse_duration(opt["--keep-within"][0], &out->within)) {
    fail(2, "--keep-within takes a duration such as 12h, 7d, 2w, 6m or 1y");
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
      {"last", r.last},       {"hourly", r.hourly},   {"daily", r.daily},
      {"weekly", r.weekly},   {"monthly", r.monthly}, {"yearly", r.yearly}};
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

int run_user_set(int argc, char** argv) {
  option_map opt;
  if (argc < 4 || argv[3][0] == '-') {
    return usage();
  }
  if (!parse_options(argc, argv, 4, kSetOptions, &opt)) {
    return 2;
  }
  uint64_t id = 0;
  if (opt.count("--id") == 0 ||
      !parse_number(opt["--id"][0], UINT32_MAX, &id)) {
    return fail(2, "user set needs --id with a number from 0 to 4294967295");
  }
  kfsd_retention rules;
  if (!parse_rules(opt, &rules)) {
    return 2;
  }
  kfsd_store store;
  std::string error;
  if (kfsd_store_open(argv[3], &store, &error) != 0) {
    return fail(1, error);
  }
  uint32_t r = kfsd_store_set_policy(&store, static_cast<uint32_t>(id), rules);
  kfsd_store_close(&store);
  if (r == ERR_AUTH_FAILURE) {
    return fail(1, "no user " + std::to_string(id));
  }
  if (r != 0) {
    return fail(1, "cannot store the policy: " +
                       std::string(kfs_err_message(r)));
  }
  printf("kfsd: user %llu: retention %s\n", static_cast<unsigned long long>(id),
         rules_text(rules).c_str());
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
    return usage();
  }
  if (!parse_options(argc, argv, 3, kPruneOptions, &opt)) {
    return 2;
  }
  bool all = opt.count("--all") != 0;
  uint64_t id = 0;
  if (all == (opt.count("--user") != 0)) {
    return fail(2, "prune needs --user N or --all");
  }
  if (!all && !parse_number(opt["--user"][0], UINT32_MAX, &id)) {
    return fail(2, "--user must be a number from 0 to 4294967295");
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
    return fail(1, error);
  }
  std::vector<uint32_t> users;
  if (all && kfsd_store_user_ids(&store, &users) != 0) {
    kfsd_store_close(&store);
    return fail(1, dir + ": cannot list the users");
  }
  if (!all) {
    users.push_back(static_cast<uint32_t>(id));
  }
  int status = 0;
  for (uint32_t user : users) {
    kfsd_retention rules = given;
    if (!has_rules(opt) && kfsd_store_get_policy(&store, user, &rules) != 0) {
      status = fail(1, "user " + std::to_string(user) +
                           ": cannot read the retention policy");
      continue;
    }
    if (rules.empty()) {
      printf("kfsd: user %u: no retention rules: everything is kept\n",
             user);
      continue;
    }
    kfsd_prune_result r;
    if (kfsd_store_prune(&store, user, rules, dry_run, &r) != 0) {
      status = fail(1, "user " + std::to_string(user) +
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
    // Only with the folder to itself may a prune rewrite packs; a running
    // server does that after its next completed run, or when it starts.
    unique_fd lock(kfsd_datadir_lock(dir));
    if (lock) {
      std::lock_guard<std::mutex> packing(store.pack_mutex);
      uint64_t given_back = kfsd_store_compact(&store);
      printf("kfsd: %llu bytes of pack space given back\n",
             static_cast<unsigned long long>(given_back));
    } else {
      printf("kfsd: a server uses %s: it gives the space back after its next"
             " completed run\n",
             dir.c_str());
    }
  }
  kfsd_store_close(&store);
  return status;
}

// Status 0 when the store is consistent, 1 with one line per problem.
int run_check(int argc, char** argv) {
  if (argc != 3 || argv[2][0] == '-') {
    return usage();
  }
  std::string dir = argv[2];
  kfsd_store store;
  std::string error;
  if (kfsd_store_open(dir, &store, &error) != 0) {
    return fail(1, error);
  }
  std::vector<std::string> problems;
  int rc = kfsd_store_check(&store, &problems);
  kfsd_store_close(&store);
  for (const std::string& p : problems) {
    fprintf(stderr, "kfsd: %s: %s\n", dir.c_str(), p.c_str());
  }
  if (rc != 0) {
    return 1;
  }
  printf("kfsd: %s: ok\n", dir.c_str());
  return 0;
}

}  // namespace

int kfsd_command(int argc, char** argv) {
  if (argc < 2) {
    return usage();
  }
  std::string command = argv[1];
  if (command == "init") {
    return run_init(argc, argv);
  }
  if (command == "user" && argc > 2 && strcmp(argv[2], "set") == 0) {
    return run_user_set(argc, argv);
  }
  if (command == "user") {
    return run_user_add(argc, argv);
  }
  if (command == "prune") {
    return run_prune(argc, argv);
  }
  if (command == "serve") {
    return run_serve(argc, argv);
  }
  if (command == "check") {
    return run_check(argc, argv);
  }
  return usage();
}
