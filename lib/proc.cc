#include "lib/proc.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
#include <utime.h>

#include "lib/scoped.h"

namespace {

// Indexed by signal number; fixed to the numbering of the ARM Linux box, not
// taken from the build host's <signal.h>.
constexpr const char* kSignalNames[] = {
    "0_UNDEF", "SIGHUP",  "SIGINT",    "SIGQUIT", "SIGILL",    "SIGTRAP",
    "SIGABRT", "SIGBUS",  "SIGFPE",    "SIGKILL", "SIGUSR1",   "SIGSEGV",
    "SIGUSR2", "SIGPIPE", "SIGALRM",   "SIGTERM", "SIGSTKFLT", "SIGCHLD",
    "SIGCONT", "SIGSTOP", "SIGTSTP",   "SIGTTIN", "SIGTTOU",   "SIGURG",
    "SIGXCPU", "SIGXFSZ", "SIGVTALRM", "SIGPROF", "SIGWINCH",  "SIGIO",
    "SIGPWR",  "SIGSYS"};
static_assert(sizeof(kSignalNames) / sizeof(kSignalNames[0]) == 32);

// One read at a time, on the stack, so a copy allocates nothing.
constexpr size_t kCopyChunk = 8192;

// Opens /dev/null so that it lands on descriptor want; false after printing
// why not.
bool reopen_null(int want) {
  int fd = open("/dev/null", O_RDWR);
  if (fd < 0) {
    fd = open("/dev/null", O_WRONLY);
  }
  if (fd < 0) {
    printf("Can't open /dev/null\n");
    return false;
  }
  if (fd != want) {
    printf("Didn't get file descriptor %d\n", want);
    return false;
  }
  return true;
}

}  // namespace

const char* signal_name(int sig) {
  if (sig < 0 || sig > 31) {
    return nullptr;
  }
  return kSignalNames[sig];
}

void free_owned_name(void* record) {
  if (record == nullptr) {
    return;
  }
  free(*static_cast<char**>(record));
  free(record);
}

int copy_fd(int in_fd, int out_fd) {
  char buffer[kCopyChunk];
  for (;;) {
    ssize_t got = read(in_fd, buffer, sizeof buffer);
    if (got <= 0) {
      return static_cast<int>(got);
    }
    ssize_t done = 0;
    while (done < got) {
      ssize_t put = write(out_fd, buffer + done, got - done);
      if (put < 0) {
        // Kept: a positive result that callers read as success; the failed
        // write goes unreported.
        return static_cast<int>(got);
      }
      done += put;
    }
  }
}

int copy_file(const char* source, const char* destination, mode_t mode) {
  unique_fd in(open(source, O_RDONLY));
  if (!in) {
    return -1;
  }
  if (unlink(destination) != 0) {
    // Usually ENOENT; a real obstacle shows up in the open below.
  }
  unique_fd out(open(destination, O_WRONLY | O_CREAT | O_TRUNC, mode));
  if (!out) {
    return -1;
  }
  int copied = copy_fd(in.get(), out.get());
  in.reset();
  out.reset();
  if (copied < 0) {
    if (unlink(destination) != 0) {
      // Nothing more to do: the -1 already reports the failed copy.
    }
    return -1;
  }
  return 0;
}

int set_file_time(const char* path, time_t when) {
  struct utimbuf times;
  times.actime = when;
  times.modtime = when;
  return utime(path, &times);
}

int fd_is_readonly(int fd) {
  int flags = fcntl(fd, F_GETFL);
  if (flags == -1) {
    return 0;
  }
  return (flags & O_ACCMODE) == O_RDONLY ? 1 : 0;
}

int remove_tree_entry(const char* flag, const char* path,
                      const struct stat* st) {
  if (S_ISDIR(st->st_mode)) {
    if (rmdir(path) == 0) {
      return REMOVE_TREE_DONE;
    }
    if (errno == ENOTEMPTY && flag != nullptr && flag[0] != '\0') {
      errno = 0;
      return REMOVE_TREE_DONE;
    }
    return REMOVE_TREE_FAILED;
  }
  return remove(path) == 0 ? REMOVE_TREE_DONE : REMOVE_TREE_FAILED;
}

void daemonize() {
  // Kept: the parent and a failed fork alike end here, quietly.
  if (fork() != 0) {
    _exit(0);
  }
  if (setsid() < 0) {
    // Only a group leader is refused, and a fresh child never is one.
  }
  close(0);
  close(1);
  close(2);
  for (int fd = 0; fd < 3; ++fd) {
    if (!reopen_null(fd)) {
      return;
    }
  }
}

signal_handler_fn set_signal_handler(int sig, signal_handler_fn handler) {
  struct sigaction action = {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  sigaddset(&action.sa_mask, sig);
  // An alarm must interrupt a blocking call so that a timed-out request
  // returns; every other signal lets the call go on.
  action.sa_flags = sig == SIGALRM ? 0 : SA_RESTART;
  // No signal() on top: glibc's would set SA_RESTART again for SIGALRM.
  struct sigaction previous;
  if (sigaction(sig, &action, &previous) != 0) {
    return SIG_ERR;
  }
  return previous.sa_handler;
}

signal_handler_fn ignore_signal(int sig) {
  return signal(sig, SIG_IGN);
}

const char* path_separator() {
  return "/";
}
