// tests/support/test_support.h: what the test programs share: a fixture
// that works inside a fresh temporary directory, file helpers, and a way to
// run a built program and capture everything it says.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

// A fixture that creates a fresh directory under testing::TempDir() and
// makes it the working directory; TearDown restores the previous working
// directory and removes the tree.
class TempDirTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
  std::string old_cwd_;
};

// Creates (or replaces) a file holding exactly `content`; parent
// directories must exist. Fails the test on error.
void write_file(const std::string& path, const std::string& content);

// The whole content of a file; fails the test and returns "" on error.
std::string read_file(const std::string& path);

bool path_exists(const std::string& path);

// mkdir -p.
void make_dirs(const std::string& path);

// rm -rf.
void remove_tree(const std::string& path);

struct run_result {
  int exit_code = -1;  // exit status, or -1 when killed by a signal
  std::string out;     // everything written to standard output
  std::string err;     // everything written to standard error
};

struct run_options {
  std::string cwd;                                       // "" keeps ours
  std::vector<std::pair<std::string, std::string>> env;  // added or replaced
  void (*before_exec)() = nullptr;  // runs in the child, just before exec
};

// Runs `program` with argv exactly as given (argv[0] included, so a test can
// pass one without '/'), standard input from /dev/null, and waits for it.
run_result run_program(const std::string& program,
                       const std::vector<std::string>& argv,
                       const run_options& options = {});

// A program started by start_program and not yet finished.
struct started_program {
  pid_t pid = -1;
  int out_fd = -1;  // read ends of its standard output and error
  int err_fd = -1;
};

// Starts `program` as run_program does but returns at once, so that several
// run side by side. Its output waits in pipes until finish_program: one that
// fills a pipe (64 KiB) stops there until then, so finish programs that say
// much in the order they need to end. pid is -1 when it could not start.
started_program start_program(const std::string& program,
                              const std::vector<std::string>& argv,
                              const run_options& options = {});

// Reads all a started program says until it ends, reaps it and closes the
// pipes; the result says -1 for a program that never started.
run_result finish_program(started_program* program);
