#include "tests/support/test_support.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

void TempDirTest::SetUp() {
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  old_cwd_ = cwd;
  std::string base = testing::TempDir();
  if (base.empty() || base.back() != '/') {
    base += '/';
  }
  std::string templ = base + "kovra-XXXXXX";
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
  ASSERT_TRUE(f.good()) << "cannot create " << path;
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
  for (size_t i = 1; i <= path.size(); ++i) {
    if (i == path.size() || path[i] == '/') {
      std::string part = path.substr(0, i);
      if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
        ADD_FAILURE() << "mkdir " << part << ": " << strerror(errno);
        return;
      }
    }
  }
}

void remove_tree(const std::string& path) {
  nftw(
      path.c_str(),
      [](const char* p, const struct stat*, int, struct FTW*) {
        remove(p);
        return 0;
      },
      16, FTW_DEPTH | FTW_PHYS);
}

namespace {

// Drains both pipes until the child closes them, so neither can fill up.
void drain(int out_fd, int err_fd, std::string& out, std::string& err) {
  struct pollfd fds[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
  std::string* sinks[2] = {&out, &err};
  int open_count = 2;
  while (open_count > 0) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) {
        continue;
      }
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) {
        continue;
      }
      char buf[4096];
      ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_count;
      }
    }
  }
}

}  // namespace

started_program start_program(const std::string& program,
                              const std::vector<std::string>& argv,
                              const run_options& options) {
  started_program started;
  int out_pipe[2], err_pipe[2];
  if (pipe(out_pipe) != 0 || pipe(err_pipe) != 0) {
    ADD_FAILURE() << "pipe: " << strerror(errno);
    return started;
  }
  std::vector<char*> args;
  for (const auto& a : argv) {
    args.push_back(const_cast<char*>(a.c_str()));
  }
  args.push_back(nullptr);

  pid_t pid = fork();
  if (pid == 0) {
    int null_fd = open("/dev/null", O_RDONLY);
    dup2(null_fd, 0);
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    close(out_pipe[0]);
    close(err_pipe[0]);
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
  close(out_pipe[1]);
  close(err_pipe[1]);
  if (pid < 0) {
    ADD_FAILURE() << "fork: " << strerror(errno);
    close(out_pipe[0]);
    close(err_pipe[0]);
    return started;
  }
  started.pid = pid;
  started.out_fd = out_pipe[0];
  started.err_fd = err_pipe[0];
  return started;
}

run_result finish_program(started_program* program) {
  run_result result;
  if (program->pid < 0) {
    return result;
  }
  drain(program->out_fd, program->err_fd, result.out, result.err);
  int status = 0;
  while (waitpid(program->pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  *program = started_program();
  return result;
}

run_result run_program(const std::string& program,
                       const std::vector<std::string>& argv,
                       const run_options& options) {
  started_program started = start_program(program, argv, options);
  return finish_program(&started);
}
