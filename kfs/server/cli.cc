// The command line: kfsd init, kfsd serve, kfsd check, and the dispatch to
// the user, history and statistics commands (cli_users.cc, cli_admin.cc).
// Bad arguments end with status 2, a missing or damaged data folder (or any
// other failure) with 1; every error is one line on standard error.
#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "kfs/server/cli_internal.h"
#include "kfs/server/kfsd.h"
#include "kfs/server/kfsd_internal.h"

namespace {

constexpr char kUsage[] =
    "usage: kfsd init DIR\n"
    "       kfsd serve [DIR] [--config FILE] [--listen ADDRESS:PORT]"
    " [--block-size BYTES]\n"
    "                      [--port-file FILE]"
    " [--announce HOST:PORT]... [--redirect] [--verbose]\n"
    "                      [--smtp HOST:PORT [--smtp-from ADDRESS]"
    " [--smtp-starttls]\n"
    "                       [--smtp-user NAME --smtp-password-file FILE]]\n"
    "       kfsd user add DIR --id N --name NAME [--account TEXT]"
    " [--email ADDRESS]\n"
    "                         [--quota BYTES] [--key-file FILE]\n"
    "       kfsd user set DIR --id N [--account TEXT] [--email ADDRESS]"
    " [--quota BYTES] [RULES]\n"
    "       kfsd user list DIR [--json]\n"
    "       kfsd user remove DIR --id N\n"
    "       kfsd prune DIR (--user N | --all) [RULES] [--dry-run]\n"
    "       kfsd stats DIR [--json]\n"
    "       kfsd check DIR\n"
    "RULES: [--keep-last N] [--keep-hourly N] [--keep-daily N]"
    " [--keep-weekly N]\n"
    "       [--keep-monthly N] [--keep-yearly N] [--keep-within DURATION]\n";

constexpr option_def kServeOptions[] = {
    {"--listen", true, false},    {"--block-size", true, false},
    {"--port-file", true, false}, {"--announce", true, true},
    {"--redirect", false, false}, {"--no-sync", false, false},
    {"--verbose", false, false},  {"--smtp", true, false},
    {"--smtp-from", true, false}, {"--smtp-starttls", false, false},
    {"--smtp-user", true, false}, {"--smtp-password-file", true, false},
    {"--config", true, false}};

constexpr char kDefaultConfig[] = "/etc/kfsd.conf";

int run_init(int argc, char** argv) {
  if (argc != 3) {
    return cli_usage();
  }
  std::string error;
  if (kfsd_datadir_init(argv[2], &error) != 0) {
    return cli_fail(1, error);
  }
  printf("kfsd: data folder %s created\n", argv[2]);
  return 0;
}

// The relay settings among serve's options; false after printing an error.
bool parse_smtp(option_map& opt, kfsd_smtp_settings* out) {
  auto bad = [](const std::string& message) {
    cli_fail(2, message);
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
  const std::string& relay = opt["--smtp"][0];
  if (!cli_parse_host_port(relay, &out->host, &out->port) || out->port == 0 ||
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
    while (!out->password.empty() &&
           (out->password.back() == '\n' || out->password.back() == '\r')) {
      out->password.pop_back();
    }
    if (out->password.empty()) {
      return bad(file + ": the first line holds no password");
    }
  }
#ifndef KFSD_HAVE_CURL
  // Checked last, so a setting is judged the same in every build.
  return bad("--smtp: this kfsd was built without mail delivery");
#endif
  return true;
}

// serve's options: the command line's over the configuration file's (the
// one given, else the default one when no data folder is given either).
bool serve_options(int argc, char** argv, option_map* opt, std::string* dir) {
  int first = 2;
  if (argc > 2 && argv[2][0] != '-') {
    *dir = argv[2];
    first = 3;
  }
  if (!cli_parse_options(argc, argv, first, kServeOptions, opt)) {
    return false;
  }
  std::string config = opt->count("--config") != 0 ? (*opt)["--config"][0]
                       : dir->empty()              ? kDefaultConfig
                                                   : "";
  if (config.empty()) {
    return true;
  }
  option_map file;
  std::string data, error;
  if (!cli_read_config(config, kServeOptions, &file, &data, &error)) {
    cli_fail(2, error);
    return false;
  }
  for (auto& [name, values] : *opt) {
    file[name] = values;
  }
  *opt = std::move(file);
  if (dir->empty()) {
    *dir = data;
  }
  if (dir->empty()) {
    cli_fail(2, "no data folder: give DIR, or data = FOLDER in " + config);
    return false;
  }
  return true;
}

int run_serve(int argc, char** argv) {
  option_map opt;
  kfsd_settings s;
  if (!serve_options(argc, argv, &opt, &s.dir)) {
    return 2;
  }
  struct in_addr addr;
  if (opt.count("--listen") &&
      (!cli_parse_host_port(opt["--listen"][0], &s.listen_host,
                            &s.listen_port) ||
       inet_pton(AF_INET, s.listen_host.c_str(), &addr) != 1)) {
    return cli_fail(2,
                    "--listen takes an IPv4 address and a port, as "
                    "127.0.0.1:7001");
  }
  uint64_t block_size = 0;
  if (opt.count("--block-size")) {
    if (!cli_parse_number(opt["--block-size"][0], 1u << 30, &block_size) ||
        block_size == 0) {
      return cli_fail(2, "--block-size must be from 1 to 1073741824 bytes");
    }
    s.block_size = static_cast<uint32_t>(block_size);
  }
  if (opt.count("--port-file")) {
    s.port_file = opt["--port-file"][0];
  }
  for (const std::string& text : opt["--announce"]) {
    kfsd_announce a;
    if (!cli_parse_host_port(text, &a.host, &a.port) || a.port == 0 ||
        a.host.size() > kMaxHost) {
      return cli_fail(2,
                      "--announce takes HOST:PORT, a host of at most 15 "
                      "characters and a port from 1");
    }
    s.announce.push_back(a);
  }
  if (s.announce.size() > 2) {
    return cli_fail(2, "at most two --announce entries");
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

// Status 0 when the store is consistent, 1 with one line per problem.
int run_check(int argc, char** argv) {
  if (argc != 3 || argv[2][0] == '-') {
    return cli_usage();
  }
  std::string dir = argv[2];
  kfsd_store store;
  std::string error;
  if (kfsd_store_open(dir, &store, &error) != 0) {
    return cli_fail(1, error);
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

int cli_usage() {
  fputs(kUsage, stderr);
  return 2;
}

int cli_fail(int status, const std::string& message) {
  fprintf(stderr, "kfsd: %s\n", message.c_str());
  return status;
}

// Collects options from argv[first..argc); false after printing an error.
bool cli_parse_options(int argc, char** argv, int first,
                       std::span<const option_def> defs, option_map* out) {
  for (int i = first; i < argc; ++i) {
    const option_def* def = nullptr;
    for (const option_def& s : defs) {
      if (strcmp(argv[i], s.name) == 0) {
        def = &s;
      }
    }
    if (def == nullptr) {
      cli_fail(2, std::string("unknown argument ") + argv[i]);
      return false;
    }
    if (out->count(def->name) != 0 && !def->repeats) {
      cli_fail(2, std::string(def->name) + " given twice");
      return false;
    }
    std::vector<std::string>& values = (*out)[def->name];
    if (def->takes_value) {
      if (i + 1 >= argc) {
        cli_fail(2, std::string(def->name) + " needs a value");
        return false;
      }
      values.push_back(argv[++i]);
    }
  }
  return true;
}

// A plain decimal number up to max.
bool cli_parse_number(const std::string& text, uint64_t max, uint64_t* out) {
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

bool cli_user_id(option_map& opt, const char* command, uint32_t* id) {
  uint64_t n = 0;
  if (opt.count("--id") == 0 ||
      !cli_parse_number(opt["--id"][0], UINT32_MAX, &n)) {
    cli_fail(2, std::string(command) +
                    " needs --id with a number from 0 to 4294967295");
    return false;
  }
  *id = static_cast<uint32_t>(n);
  return true;
}

bool cli_parse_host_port(const std::string& text, std::string* host,
                         uint16_t* port) {
  size_t colon = text.rfind(':');
  uint64_t p = 0;
  if (colon == std::string::npos || colon == 0 ||
      !cli_parse_number(text.substr(colon + 1), 65535, &p)) {
    return false;
  }
  *host = text.substr(0, colon);
  *port = static_cast<uint16_t>(p);
  return true;
}

int kfsd_command(int argc, char** argv) {
  if (argc < 2) {
    return cli_usage();
  }
  std::string command = argv[1];
  if (command == "init") {
    return run_init(argc, argv);
  }
  if (command == "user") {
    return cli_run_user(argc, argv);
  }
  if (command == "prune") {
    return cli_run_prune(argc, argv);
  }
  if (command == "serve") {
    return run_serve(argc, argv);
  }
  if (command == "check") {
    return run_check(argc, argv);
  }
  if (command == "stats") {
    return cli_run_stats(argc, argv);
  }
  return cli_usage();
}
