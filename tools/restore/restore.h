// tools/restore/restore.h: kovrarestore, the way back from a KFS service.
// It logs in as the account's user, lists the remote tree below a path,
// and for each file streams the stored blocks through the block decoder
// into a local file, a comparison with a local tree, or nowhere (--list).
#pragma once

#include <stdint.h>

#include <string>

// Exit statuses of kovrarestore.
enum : int {
  RESTORE_EXIT_OK = 0,          // everything restored, or no difference
  RESTORE_EXIT_INCOMPLETE = 1,  // some files failed, or the trees differ
  RESTORE_EXIT_USAGE = 2,       // the command line is wrong
  RESTORE_EXIT_FATAL = 3,       // nothing could be done: key, server, path
};

struct restore_options {
  std::string hosts;     // server list: "host:port" lines
  std::string key_file;  // the account key file
  uint32_t user = 0;
  std::string remote;       // the remote folder or file
  std::string local;        // the folder it is restored into
  std::string verify_tree;  // --verify: the local tree to compare with
  bool list = false;
  bool points = false;  // list the restore points
  std::string at;       // --at as given
  int64_t at_time = 0;  // and as a time
  bool overwrite = false;
  int jobs = 4;  // processes restoring at once
  bool progress = false;  // show progress (on a terminal)
  bool help = false;
};

// Fills options from the command line. RESTORE_EXIT_OK, or
// RESTORE_EXIT_USAGE with the reason in *error.
int restore_parse_args(int argc, char** argv, restore_options* options,
                       std::string* error);

// A time the way --at takes it (local time): "2026-11-24" (the end of that
// day), "2026-11-24 18:30" or "2026-11-24 18:30:05" ('T' may part date
// and time). false when it is none of those.
bool restore_parse_when(const std::string& text, int64_t* out);

// The usage text.
const char* restore_usage();

// Runs the restore, verification or listing; returns an exit status.
int restore_run(const restore_options& options);
