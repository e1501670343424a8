// kfs/server/cli_internal.h: what kfsd's commands share: their options,
// numbers and addresses on the command line, and one-line errors.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <span>
#include <string>
#include <vector>

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

using option_map = std::map<std::string, std::vector<std::string>>;

// Prints the usage text; returns 2.
int cli_usage();

// Prints "kfsd: message" on standard error; returns status.
int cli_fail(int status, const std::string& message);

// Collects options from argv[first..argc); false after printing an error.
bool cli_parse_options(int argc, char** argv, int first,
                       std::span<const option_def> defs, option_map* out);

// A plain decimal number up to max.
bool cli_parse_number(const std::string& text, uint64_t max, uint64_t* out);

// The user a command is about (--id N); false after printing an error.
bool cli_user_id(option_map& opt, const char* command, uint32_t* id);

// HOST:PORT, the port a number up to 65535.
bool cli_parse_host_port(const std::string& text, std::string* host,
                         uint16_t* port);

// Reads a configuration file of options: "key = value" lines, '#'
// comments; a key is a long option of defs without its dashes (a switch
// takes yes or no), "data" the data folder. False with *error naming the
// file and line.
bool cli_read_config(const std::string& path, std::span<const option_def> defs,
                     option_map* out, std::string* data, std::string* error);

struct kfsd_store;
// Rewrites packs that are mostly freed space when no server runs on dir;
// says what it did or that the server will.
void cli_give_back_space(const std::string& dir, kfsd_store* store);

// kfsd user add|set|list|remove ..., kfsd prune ..., kfsd stats ...
int cli_run_user(int argc, char** argv);
int cli_run_prune(int argc, char** argv);
int cli_run_user_list(int argc, char** argv);
int cli_run_user_remove(int argc, char** argv);
int cli_run_stats(int argc, char** argv);
