#include "tests/support/test_support.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

void TempDirTest::SetUp() {
  old_cwd_ = fs::current_path();
  std::string templ = (fs::path(testing::TempDir()) / "kovra-XXXXXX").string();
  ASSERT_NE(mkdtemp(templ.data()), nullptr) << strerror(errno);
  dir_ = templ;
  ASSERT_EQ(chdir(dir_.c_str()), 0);
}

void TempDirTest::TearDown() {
  if (!old_cwd_.empty()) {
    EXPECT_EQ(chdir(old_cwd_.c_str()), 0);
  }
  if (!dir_.empty()) {
    remove_tree(dir_);
  }
}

void write_file(const std::string& path, const std::string& content) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(content.data(), static_cast<std::streamsize>(content.size()));
  ASSERT_TRUE(f.good()) << "cannot write " << path;
}

std::string read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  EXPECT_TRUE(f.good()) << "cannot open " << path;
  std::ostringstream s;
  s << f.rdbuf();
  return s.str();
}

bool path_exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

void make_dirs(const std::string& path) {
  std::error_code error;  // "" names no folder: nothing to make
  fs::create_directories(path.empty() ? "." : path, error);
  EXPECT_FALSE(error) << "mkdir " << path << ": " << error.message();
}

void remove_tree(const std::string& path) {
  std::error_code ignored;
  fs::remove_all(path, ignored);
}

std::vector<std::string> list_dir(const std::string& dir,
                                  const std::string& suffix) {
  std::vector<std::string> names;
  std::error_code missing;
  for (const auto& e : fs::directory_iterator(dir, missing)) {
    std::string name = e.path().filename();
    if (name[0] != '.' && name.ends_with(suffix)) {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

void pause_ms(long ms) {
  struct timespec ts = {ms / 1000, (ms % 1000) * 1000000};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

started_program start_program(const std::string& program,
                              const std::vector<std::string>& argv,
                              const run_options& options) {
  static int counter = 0;  // tests start programs from one thread
  started_program started;
  int out = -1, err = -1;  // made here, so they exist however it ends
  if (!options.own_output) {
    started.output = testing::TempDir() + "run-" + std::to_string(getpid()) +
                     "-" + std::to_string(counter++);
    int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    out = open((started.output + ".out").c_str(), flags, 0600);
    err = open((started.output + ".err").c_str(), flags, 0600);
  }
  std::vector<char*> args;
  for (const auto& a : argv) {
    args.push_back(const_cast<char*>(a.c_str()));
  }
  args.push_back(nullptr);
  started.pid = fork();
  if (started.pid == 0) {
    dup2(open("/dev/null", O_RDONLY), 0);
    if (out >= 0) {
      dup2(out, 1);
      dup2(err, 2);
    }
    if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0) {
      _exit(126);
    }
    for (const auto& [name, value] : options.env) {
      setenv(name.c_str(), value.c_str(), 1);
    }
    if (options.before_exec != nullptr) {
      options.before_exec();
    }
    execv(program.c_str(), args.data());
    _exit(127);
  }
  close(out);
  close(err);
  EXPECT_GT(started.pid, 0) << "fork: " << strerror(errno);
  return started;
}

bool has_ended(const started_program& program) {
  siginfo_t info = {};
  waitid(P_PID, static_cast<id_t>(program.pid), &info,
         WEXITED | WNOHANG | WNOWAIT);
  return info.si_pid != 0;
}

run_result finish_program(started_program* program) {
  run_result result;
  int status = 0;
  if (program->pid > 0) {
    while (waitpid(program->pid, &status, 0) < 0 && errno == EINTR) {
    }
    result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  if (!program->output.empty()) {
    result.out = read_file(program->output + ".out");
    result.err = read_file(program->output + ".err");
    unlink((program->output + ".out").c_str());
    unlink((program->output + ".err").c_str());
  }
  *program = started_program();
  return result;
}

run_result run_program(const std::string& program,
                       const std::vector<std::string>& argv,
                       const run_options& options) {
  started_program started = start_program(program, argv, options);
  return finish_program(&started);
}
