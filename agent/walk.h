// agent/walk.h: which local paths take part in a backup, and the walk of a
// source tree that pairs each local directory with its remote counterpart
// and hands each regular file to the per-file backup (or, when the service
// already holds an identical copy, straight to the index).
#pragma once

#include <stdint.h>
#include <sys/stat.h>

#include "kfs/client/kfs.h"

// True when an XSrc= entry covers path: a case-insensitive prefix that ends
// at the path's end or before a '/'; "/" covers every absolute path, and an
// entry with a trailing '/' covers only that very path. False outside a run
// (no settings, nothing to exclude).
bool is_excluded(const char* path);

// True for "/dev" and "/proc", compared whole and without case.
bool is_system_directory(const char* path);

// Walks local_dir and, recursively, its subdirectories (symbolic links are
// never followed; paths of 1023 characters or more are skipped). Directories
// the index does not know are made on the service; while the index is
// invalid each remote directory is listed so that files the service already
// holds are not sent again. REQUIRES: a running job (job_config() set), the
// index of the run open.
void walk_tree(kfs_session* session, const char* local_dir,
               const char* remote_dir);

// Walk results of a counting callback and of count_tree's stops.
enum : int {
  WALK_STOPPED = 100,
  WALK_CONTINUE = 102,
  WALK_SKIP = 103,
};
// Options of count_tree.
enum : int {
  WALK_DESCEND = 0x2,  // enter directories
  WALK_PATTERN = 0x4,  // call back only for names matching the pattern;
                       // no pattern is set through count_tree, so the bit
                       // has no effect there
};

struct walk_counters {
  int64_t files;
  int64_t directories;
  int64_t file_bytes;
  int64_t directory_bytes;
};

using walk_fn = int (*)(const char* path, const struct stat* st,
                        walk_counters* counters);

// The generic walk of the pre-count: calls back for every entry below root
// (root itself excluded) with the entry's absolute path; WALK_SKIP from the
// callback leaves a directory out, any answer but WALK_CONTINUE and
// WALK_SKIP stops the walk. A directory already on the way down (by device
// and inode, / included) is not entered again. Changes the working
// directory while it runs and restores it (or / when that fails). Returns
// 0, or -1 when root cannot be resolved or entered, or the walk stopped with
// WALK_STOPPED (a directory could not be opened or left). No callback: 0 at
// once.
int count_tree(const char* root, int options, walk_fn callback,
               walk_counters* counters);

// The pre-count's callback: skips excluded paths, counts regular files and
// directories with their sizes.
int count_callback(const char* path, const struct stat* st,
                   walk_counters* counters);

// Brings one regular file up to date on the service; outcomes go to the
// report. st is the caller's lstat of local_path. Ends the process with
// status 1 on a fatal result of the chain. REQUIRES: a running job
// (job_config() set), the index of the run open.
void backup_file(kfs_session* session, const char* local_path,
                 const char* remote_path, const struct stat* st);
