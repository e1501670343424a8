// agent/job.h: the job driver, which runs one backup from start to end once
// the job file is read: pre-count, user lock, index validity, destination
// folders, every source, the report, the index commit, the release of the
// lock with the run's stamp, and the job's etc/<job>.ts file. Also the two
// retry wrappers that re-lock the user when the service forgot the lock
// (a dropped connection), and the process-wide progress tick.
#pragma once

#include <stdint.h>

#include "kfs/client/kfs.h"

// Runs the job of the settings that job_config() holds. Returns 1 when a
// vanished source was dropped from the list (autoremove), else 0.
// REQUIRES: inside read_job_configuration, working directory = the root.
int run_job(const char* config_path);

// KFS_MKDIR and KFS_FILE_WOPEN wrapped in the re-lock loop: on ERR_SCKREAD
// or ERR_ACCESS the user is locked again (up to 12 times per call, 60 s
// apart while the lock is refused) and the request repeated. The request's
// final result.
uint32_t retry_make_remote_directory(kfs_session* session, const char* path);
uint32_t retry_open_remote_file(kfs_session* session, kfs_wopen_args* args);

// The destination as the user sees it: "My Qarn/" + the user name the
// service gave at login + dest from its second '/' on.
const char* report_destination_text();

// A liveness counter: one tick per file examined, block and chunk sent.
extern uint32_t job_progress_tick;
