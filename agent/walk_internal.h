// agent/walk_internal.h: what walk.cc and backup_file.cc share. The public
// entry points read the job's settings through job_config(); the versions
// here take them as arguments, so the walk and the per-file backup can also
// be driven without a running job (the module's tests do).
#pragma once

#include <stdint.h>
#include <sys/stat.h>

#include "kfs/client/kfs.h"
#include "lib/str_list.h"

// What a walk needs from the job's settings; both pointers are borrowed.
struct walk_job {
  const str_list* xsrc;        // exclusion entries; null excludes nothing
  const uint8_t* account_key;  // 32 bytes, the key blocks are encrypted with
};

// The exclusion test of is_excluded over an explicit list of entries. A null
// list or path excludes nothing.
bool path_excluded(const str_list* xsrc, const char* path);

// Records path in the run's index with the time and size given (directories
// with 0 and 0). A record that cannot be written is lost without a word: it
// only costs a comparison with the service on the next run.
void index_record(const char* path, uint32_t mtime, uint64_t size);

// walk_tree with the job's settings given. REQUIRES: the index of the run
// open; job->account_key set when a file may need sending.
void walk_directory(kfs_session* session, const walk_job* job,
                    const char* local_dir, const char* remote_dir);

// backup_file with the account key given. REQUIRES: key holds 32 bytes; the
// index of the run open.
void backup_file_with_key(kfs_session* session, const uint8_t* key,
                          const char* local_path, const char* remote_path,
                          const struct stat* st);
