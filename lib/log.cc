#include "lib/log.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "lib/format.h"

namespace {

// The log's run-long state; `ready` is false until a set-up has succeeded.
struct log_state {
  log_settings settings;
  FILE* stream;
  bool stream_is_stderr;
  bool ready;
};
log_state state;

constexpr const char* kLevelNames[] = {"SECURITY", "LOG",  "ERR",
                                       "WARNING",  "INFO", "CODE"};
static_assert(sizeof(kLevelNames) / sizeof(kLevelNames[0]) ==
              LOG_LEVEL_CODE - LOG_LEVEL_SECURITY + 1);

const char* level_name(int32_t level) {
  if (level < LOG_LEVEL_SECURITY || level > LOG_LEVEL_CODE) {
    return "UNKNOWN";
  }
  return kLevelNames[level - LOG_LEVEL_SECURITY];
}

// Closes a file but never standard error, which the log only borrows.
void drop_stream() {
  if (state.stream != nullptr && !state.stream_is_stderr) {
    fclose(state.stream);
  }
  state.stream = nullptr;
  state.stream_is_stderr = false;
}

int fail_setup(int err) {
  printf("error: %s\n", safe_strerror(err));
  errno = err;
  return -1;
}

// "<cwd>/<program>.log" into settings->path; false with errno on failure.
bool default_path(log_settings* settings) {
  char cwd[4096];
  if (getcwd(cwd, sizeof cwd) == nullptr) {
    return false;
  }
  const char* name = program_name();
  if (name == nullptr) {
    name = LOG_FALLBACK_NAME;
  }
  int n =
      snprintf(settings->path, sizeof settings->path, "%s/%s.log", cwd, name);
  if (n < 0 || static_cast<size_t>(n) >= sizeof settings->path) {
    errno = ENAMETOOLONG;
    return false;
  }
  return true;
}

}  // namespace

int log_configure(const log_settings* settings) {
  state.ready = false;
  memset(&state.settings, 0, sizeof state.settings);
  drop_stream();

  log_settings& s = state.settings;
  if (settings != nullptr) {
    s = *settings;
    // A caller's record may fill a field to the brim; keep both texts
    // terminated.
    s.path[sizeof s.path - 1] = '\0';
    s.tag[sizeof s.tag - 1] = '\0';
  } else {
    s.flags = LOG_FLAG_APPEND | LOG_FLAG_STDERR;
    s.level = LOG_LEVEL_CODE;
  }
  if (s.tag[0] == '\0') {
    snprintf(s.tag, sizeof s.tag, "%d", static_cast<int>(getpid()));
  }

  if ((s.flags & LOG_FLAG_STDERR) != 0) {
    state.stream = stderr;
    state.stream_is_stderr = true;
  } else {
    if (s.path[0] == '\0' && !default_path(&s)) {
      return fail_setup(errno);
    }
    FILE* f = fopen(s.path, (s.flags & LOG_FLAG_APPEND) != 0 ? "a" : "w");
    if (f == nullptr) {
      return fail_setup(errno);
    }
    state.stream = f;
  }
  state.ready = true;
  return 0;
}

int log_open() {
  return log_configure(nullptr);
}

int log_entry(int32_t level, const char* file, const char* function,
              int32_t line) {
  if (!state.ready && log_open() != 0) {
    fprintf(stderr, "debug(%s)", safe_strerror(errno));
    return 0;
  }
  if (level > state.settings.level) {
    return 0;
  }
  // now_text needs 18 chars, 19 from 2100 on; room to spare.
  char when[32];
  now_text(when);
  fprintf(state.stream, "[%s %d] %s(%s) %s:%s(%d)\n", when,
          static_cast<int>(getpid()), level_name(level), state.settings.tag,
          file, function, static_cast<int>(line));
  return 1;
}

void log_close() {
  drop_stream();
  state.ready = false;
}

FILE* log_stream() {
  return state.stream;
}

const char* program_name() {
  const char* path = getenv("_");
  if (path == nullptr) {
    return nullptr;
  }
  const char* slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}
