// lib/log.h: the library's process-wide diagnostic log. One output stream
// (standard error or a log file), a level threshold, and a header line per
// entry that stamps the time, process, level, a tag and the source location;
// the caller then writes the entry's own text to log_stream(). The agent's
// own messages go to its report and standard output, not here. The state is
// a single static record with no lock: one thread of use.
#pragma once

#include <stdint.h>
#include <stdio.h>

// Levels and the names their header lines print; any other number prints
// "UNKNOWN". Not LOG_ERR and friends: <syslog.h> owns those as macros.
enum : int32_t {
  LOG_LEVEL_SECURITY = -1,  // "SECURITY"
  LOG_LEVEL_LOG = 0,        // "LOG"
  LOG_LEVEL_ERR = 1,        // "ERR"
  LOG_LEVEL_WARNING = 2,    // "WARNING"
  LOG_LEVEL_INFO = 3,       // "INFO"
  LOG_LEVEL_CODE = 4,       // "CODE"
};

// log_settings.flags bits.
constexpr uint8_t LOG_FLAG_APPEND = 1;  // open the file with "a", not "w"
constexpr uint8_t LOG_FLAG_STDERR = 2;  // write to standard error, no file

// The file name used for the default log path when the environment has no
// "_" (it is set by shells, so a program started otherwise lacks it).
constexpr char LOG_FALLBACK_NAME[] = "kovrabackup";

struct log_settings {
  char path[4096];  // log file; "" means "<cwd>/<program name>.log"
  char tag[128];    // shown behind the level; "" means the process id
  int32_t level;    // highest level written; greater numbers are dropped
  uint8_t flags;    // LOG_FLAG_*
};

// Sets the log up anew: closes a log file that is open, then takes a copy of
// *settings, or with null the defaults (LOG_FLAG_APPEND | LOG_FLAG_STDERR,
// level LOG_LEVEL_CODE: every named level, on standard error). An empty tag
// becomes the process id ("%d"); an empty path, when a file is used, becomes
// "<cwd>/<program_name()>.log", with LOG_FALLBACK_NAME when program_name()
// is null. Returns 0, or -1 when the file cannot be opened (or its default
// path formed): "error: <system text>\n" is then printed on standard output,
// errno is kept from the failed call, and the log stays not set up.
int log_configure(const log_settings* settings);

// log_configure(nullptr).
int log_open();

// Writes the header line of one entry,
//   "[MM/DD/YY hh:mm:ss <pid>] <LEVEL>(<tag>) <file>:<function>(<line>)\n",
// and returns 1; the caller then writes the entry's text to log_stream().
// Returns 0 and writes nothing when level is above the threshold. A log not
// set up is set up with log_open() first; when that fails, "debug(<system
// text>)" (no line end) goes to standard error, the entry is dropped (0) and
// the next entry tries again. The stream is not flushed.
// REQUIRES: file and function are not null.
int log_entry(int32_t level, const char* file, const char* function,
              int32_t line);

// Closes a log file (standard error stays open) and clears the stream; the
// next log_entry sets the log up again from the defaults.
void log_close();

// The stream entries go to: stderr, a log file, or null while not set up.
// Not owned by the caller; log_close and log_configure close it.
FILE* log_stream();

// The last path component of the environment variable "_" (all of it when
// it has no "/"), pointing into the environment; null when "_" is not set.
const char* program_name();
