// agent/report.h: the run's report. A small state machine (0 idle,
// 1 configured, 2 connected, 3 running, 4 abandoned) fed by the job file
// reader, the driver and the per-file backup; at the end one message per
// recipient is composed from the etc/*.emt templates and, for a completed
// run only, handed to the service's e-mail request. A call out of order
// abandons the report (state 4) and never stops the backup; once abandoned,
// the report stays so for the process.
//
// Every composed message, failure reports included, is also written to the
// report file named at report_configure, so that the operator finds the
// last report on the box: the file is created afresh with the first message
// of a report, and each message is preceded by "To: <address>\n\n" and
// followed by "\n" when it does not end with one.
#pragma once

#include <stdint.h>

#include "kfs/client/kfs.h"
#include "lib/str_list.h"

enum : int32_t {
  REPORT_IDLE = 0,
  REPORT_CONFIGURED = 1,
  REPORT_CONNECTED = 2,
  REPORT_RUNNING = 3,
  REPORT_ABANDONED = 4,
};

// State 0 -> 1: records the start time (now). report_path: the report file
// (the .eml name the reader chose; null or "" writes none); job_name: the
// "#JOB#" text; recipients: entries "flags,address" or "address" (the
// leading number of an entry with a ',' is its flags; an entry without one
// gets default_flags). The three pointers are kept, not copied: they must
// live until the report ends. word1/word2 go to the e-mail request;
// key_digest: 20 bytes (or null), kept as 40 upper-case hex digits.
// Flags: bit 0 HTML, bit 1 only when there are errors.
void report_configure(const char* report_path, const char* job_name,
                      const str_list* recipients, uint32_t unused,
                      uint32_t word1, uint32_t word2, int64_t kept_number,
                      const uint8_t key_digest[20], int default_flags);
// State 1 -> 2: takes the account name (account.text1) and the user name
// from the logged-in session and keeps the session to send the report on;
// all three are used until the report ends. A null session abandons.
void report_connected(kfs_session* session);
// State 2 -> 3: zeroes the file counters and starts the error list. dest
// (the job's remote destination, "/7/Today/box") is kept for "#DSTPATH#".
void report_begin(int64_t files_total, int64_t extra, const char* dest);
// State 3: counters and the error list (the path, then the code's text or
// the system's text for the errno value).
void report_file_up_to_date(const char* path);
void report_file_sent(const char* path);
void report_error_code(const char* path, uint32_t code);
void report_error_errno(const char* path, int error_number);
// State 3 -> 0: records the stop time, composes etc/success for every
// recipient and sends it on the session; a failed send is dropped silently.
// The words are kept but not used.
void report_success(uint32_t word1, uint32_t word2);
// States 1-3 -> 0: composes etc/failinfo (etc/failnoinfo in state 1, before
// the account is known) for every recipient; never sent. The stop time is
// not recorded, so "#STOP_TIME#" shows the last one (the epoch when none).
// In state 0 or 4 they only set 4. message may be null (no text).
void report_failure_code(uint32_t code);
void report_failure_message(const char* message);

// The state, and the counters, for the driver's summary and for tests.
int32_t report_state_now();
int64_t report_files_sent();
int64_t report_files_up_to_date();
int64_t report_files_failed();
