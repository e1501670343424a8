// lib/proc.h: the lowest layer beside the allocation wrappers: releasing
// records that own one string, plain file operations (copy, time stamp,
// access mode, removal of tree entries), and process set-up (detaching as a
// daemon, signal handlers) with the table of signal names. Nothing here
// keeps state.
#pragma once

#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

// The tree walk's answers, as remove_tree_entry gives them.
enum : int {
  REMOVE_TREE_FAILED = 100,  // the entry could not be removed
  REMOVE_TREE_DONE = 102,    // the entry is gone, or tolerated; walk on
};

using signal_handler_fn = void (*)(int);

// The name of signal sig in the Linux (ARM) numbering: "SIGHUP" for 1 up to
// "SIGSYS" for 31, and "0_UNDEF" for 0; null outside 0..31. Static text.
const char* signal_name(int sig);

// Frees the string that the record's first field points to (when not
// null), then the record itself. A null record is ignored.
// REQUIRES: record came from malloc and begins with a char* it owns.
void free_owned_name(void* record);

// Copies in_fd to out_fd in reads of up to 8192 bytes, writing each one out
// in full (short writes and writes of 0 are retried). Returns 0 at the end
// of input or -1 (errno from read) when a read fails. Kept on purpose: when
// a write fails, the copy stops and the count of the last read comes back,
// a positive number; callers take every result >= 0 as success, so a failed
// write goes unreported.
int copy_fd(int in_fd, int out_fd);

// Copies source to destination, which is unlinked first and then created
// write-only with mode (so a destination that was a hard link leaves the
// other name's file alone). Returns 0, or -1 when the source cannot be
// opened, the destination cannot be created, or a read fails; the
// destination is removed in the last case. A failed write is not seen (see
// copy_fd).
int copy_file(const char* source, const char* destination, mode_t mode);

// Sets both the access and the modification time of path to when; the
// result of utime (0, or -1 with errno).
int set_file_time(const char* path, time_t when);

// 1 when fd's access mode is read-only; 0 when it allows writing and also
// when fcntl fails (a closed descriptor).
int fd_is_readonly(int fd);

// Removes the entry path whose lstat is *st: a directory with rmdir, anything
// else with remove. Returns REMOVE_TREE_DONE (102) when it is gone, or when
// a directory is not empty (ENOTEMPTY) and flag is a non-empty text, with
// errno then reset to 0; REMOVE_TREE_FAILED (100) on any other failure,
// errno from the system.
int remove_tree_entry(const char* flag, const char* path,
                      const struct stat* st);

// Detaches from the terminal: forks, and the calling process ends with
// _exit(0); the child starts a session and reopens descriptors 0, 1 and 2 on
// /dev/null (read-write, else write-only), then returns. Kept on purpose: a
// failed fork also ends the calling process with _exit(0), quietly, as if it
// had detached. When /dev/null cannot be opened the child prints "Can't open
// /dev/null\n", or "Didn't get file descriptor <n>\n" when the descriptor
// is not the expected one, on standard output (likely closed by then) and
// returns early; the caller goes on either way.
void daemonize();

// Installs handler for sig with only sig blocked while it runs and
// SA_RESTART, except for SIGALRM, which gets no flags so that an alarm
// interrupts a blocking system call. Returns the handler installed before,
// or SIG_ERR with errno when sigaction fails.
signal_handler_fn set_signal_handler(int sig, signal_handler_fn handler);

// signal(sig, SIG_IGN): the previous handler, or SIG_ERR.
signal_handler_fn ignore_signal(int sig);

// The separator the tree walk puts between names: "/".
const char* path_separator();
