// agent/report_internal.h: what the two halves of the report share. The
// state record and its operations live in report.cc; template loading and
// token substitution in report_template.cc.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "kfs/client/kfs.h"
#include "lib/str_list.h"

// The composed message: at most 131071 characters and its 0 byte.
constexpr size_t REPORT_TEXT_SIZE = 131072;
// A template is read with one read of at most 8191 bytes into this buffer.
constexpr size_t REPORT_TEMPLATE_SIZE = 8192;
constexpr size_t REPORT_DSTPATH_SIZE = 144;
// 40 hex digits of the key digest and the 0 byte.
constexpr size_t REPORT_KEY_ID_SIZE = 41;

// Bits of a recipient's flags.
enum : int {
  REPORT_FLAG_HTML = 1,         // "_html" template and the HTML error list
  REPORT_FLAG_ONLY_ERRORS = 2,  // nothing for this recipient without errors
};

struct report_state {
  int32_t state;             // REPORT_IDLE .. REPORT_ABANDONED
  const char* account_name;  // into the session's account record
  const char* user_name;     // into the session
  kfs_session* account;      // the logged-in session the report is sent on
  int64_t files_up_to_date;
  int64_t files_sent;
  int64_t files_failed;
  str_list* error_list;   // file, error text, file, error text, ...
  const char* dest_path;  // the job's destination, from report_begin
  char dstpath_text[REPORT_DSTPATH_SIZE];
  char report_text[REPORT_TEXT_SIZE];
  size_t report_length;  // strlen(report_text): appends stay linear
  int64_t extra;
  int64_t files_total;

  // Kept from report_configure; the pointers must outlive the report.
  const char* report_path;
  const char* job_name;
  const str_list* recipients;
  uint32_t word1;  // both go to the e-mail request
  uint32_t word2;
  int64_t kept_number;
  char key_id[REPORT_KEY_ID_SIZE];
  int default_flags;
  time_t start_time;
  // Later: the words of report_success, the failure message of the report
  // being composed, and the last stop time recorded (0 until one is).
  uint32_t success_word1;
  uint32_t success_word2;
  const char* failure_message;
  time_t stop_time;
};

// Appends n bytes to r->report_text. An append that would pass 131071
// characters is not made: the report is abandoned (state 4) instead, and
// once it is, nothing more is appended. True when the bytes were appended.
bool report_append(report_state* r, const char* text, size_t n);

// Loads the template "<base>_html.emt" (flags bit 0 set) or
// "<base>_txt.emt" into out, 0-terminated and with every carriage return
// removed. A file that cannot be opened gives "\nEmail template missing!";
// an empty one, or one of 8191 bytes or more (refused as possibly cut),
// gives "\nError loading email template!".
void report_template_load(const char* base, int flags,
                          char out[REPORT_TEMPLATE_SIZE]);

// Empties r->report_text and fills it from tmpl, replacing each token of
// the table by its value in one left-to-right pass; values are not scanned
// again. flags bit 0 picks the HTML error list. Stops when the report is
// abandoned by an overflow. True when the whole text was composed.
bool report_substitute(report_state* r, const char* tmpl, int flags);

// Formats t in local time as "Sun Nov 15 12:42:15 2026" (24 characters for
// four-digit years, no newline) into out and returns out; "" when the time
// cannot be converted.
constexpr size_t REPORT_TIME_SIZE = 32;
char* report_format_time(time_t t, char out[REPORT_TIME_SIZE]);

// Fills r->dstpath_text with "My Qarn/" + the user name + the destination
// from its second '/' on (searched from the destination's second character)
// and returns it; the rest is empty when there is no such '/', and the
// whole text is empty while no destination is known. Cut to 143 chars.
const char* report_format_destination(report_state* r);

// Back to the state of a fresh process: everything zeroed, the error list
// freed. For tests only: in the agent an abandoned report stays abandoned.
void report_reset();

// The process's report state, for tests that look at it directly.
const report_state* report_state_record();
