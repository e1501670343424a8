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

// The names in dir that end in suffix, sorted, but for those that begin
// with a dot; none when dir is missing.
std::vector<std::string> list_dir(const std::string& dir,
                                  const std::string& suffix);

void pause_ms(long ms);

struct run_result {
  int exit_code = -1;  // exit status, or -1 when killed by a signal
  std::string out;     // everything written to standard output
  std::string err;     // everything written to standard error
};

struct run_options {
  std::string cwd;                                       // "" keeps ours
  std::vector<std::pair<std::string, std::string>> env;  // added or replaced
  void (*before_exec)() = nullptr;  // runs in the child, just before exec
  bool own_output = false;  // it writes where we do: nothing is captured
};

// Runs `program` with argv exactly as given (argv[0] included, so a test can
// pass one without '/'), standard input from /dev/null, and waits for it.
run_result run_program(const std::string& program,
                       const std::vector<std::string>& argv,
                       const run_options& options = {});

// A program started by start_program and not yet finished; what it says
// goes to files of its own until then.
struct started_program {
  pid_t pid = -1;
  std::string output;  // the files are output + ".out" and ".err"
};

// Starts `program` as run_program does but returns at once, so that several
// run side by side. pid is -1 when it could not start.
started_program start_program(const std::string& program,
                              const std::vector<std::string>& argv,
                              const run_options& options = {});

// Whether it has ended; it is left for finish_program to reap.
bool has_ended(const started_program& program);

// Waits for a started program to end and reaps it; the result says -1 for
// a program that never started.
run_result finish_program(started_program* program);
