#include "tests/support/kfsd_process.h"

#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace {

void pause_ms(long ms) {
  struct timespec ts = {ms / 1000, (ms % 1000) * 1000000};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

// Reads the port the server wrote, or 0 while the file is missing or not
// yet complete (the server renames it into place, but be lenient).
int read_port(const std::string& path) {
  std::ifstream f(path);
  std::string line;
  if (!f.good() || !std::getline(f, line) || line.empty()) {
    return 0;
  }
  int port = atoi(line.c_str());
  return port > 0 && port < 65536 ? port : 0;
}

}  // namespace

namespace {

std::vector<std::string> outbox_names(const std::string& dir) {
  std::vector<std::string> names;
  if (DIR* d = opendir((dir + "/outbox").c_str())) {
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name.size() > 4 && name.substr(name.size() - 4) == ".msg") {
        names.push_back(name);
      }
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string message_text(const std::string& dir, const std::string& name) {
  std::string text = read_file(dir + "/outbox/" + name);
  size_t body = text.find("\n\n");
  return body == std::string::npos ? text : text.substr(body + 2);
}

}  // namespace

std::string kfsd_last_message(const std::string& dir) {
  std::vector<std::string> names = outbox_names(dir);
  return names.empty() ? "" : message_text(dir, names.back());
}

std::vector<std::string> kfsd_messages(const std::string& dir) {
  std::vector<std::string> texts;
  for (const std::string& name : outbox_names(dir)) {
    texts.push_back(message_text(dir, name));
  }
  return texts;
}

size_t kfsd_message_count(const std::string& dir) {
  return outbox_names(dir).size();
}

void kfsd_init(const std::string& dir) {
  run_result r = run_program(KFSD_PATH, {"kfsd", "init", dir});
  ASSERT_EQ(r.exit_code, 0) << "kfsd init " << dir << ": " << r.err;
}

void kfsd_add_user(const std::string& dir, uint32_t id, const std::string& name,
                   const std::string& key_file) {
  run_result r = run_program(
      KFSD_PATH, {"kfsd", "user", "add", dir, "--id", std::to_string(id),
                  "--name", name, "--key-file", key_file});
  ASSERT_EQ(r.exit_code, 0) << "kfsd user add " << id << ": " << r.err;
}

void write_key_file(const std::string& path, const uint8_t key[32]) {
  std::string text = "| account key\n";
  for (int i = 0; i < 32; ++i) {
    char digits[3];
    snprintf(digits, sizeof digits, "%02x", key[i]);
    text += digits;
    if (i == 15 || i == 31) {
      text += '\n';
    }
  }
  write_file(path, text);
}

std::string new_port_file(const std::string& prefix) {
  static int counter = 0;  // tests start servers from one thread
  std::string base = testing::TempDir();
  if (base.empty() || base.back() != '/') {
    base += '/';
  }
  return base + prefix + "-" + std::to_string(getpid()) + "-" +
         std::to_string(counter++) + ".port";
}

bool kfsd_process::start(const std::string& dir,
                         const std::vector<std::string>& extra) {
  std::string port_file = new_port_file("kfsd");
  std::vector<std::string> argv = {"kfsd", "serve", dir, "--port-file",
                                   port_file};
  // A test that restarts a server on its old port names the port itself.
  if (std::find(extra.begin(), extra.end(), "--listen") == extra.end()) {
    argv.insert(argv.end(), {"--listen", "127.0.0.1:0"});
  }
  argv.insert(argv.end(), extra.begin(), extra.end());
  return port_process::start(KFSD_PATH, argv, port_file);
}

bool port_process::start(const char* program, std::vector<std::string> argv,
                         const std::string& port_file) {
  stop();
  port_file_ = port_file;
  unlink(port_file_.c_str());
  std::vector<char*> args;
  for (auto& a : argv) {
    args.push_back(a.data());
  }
  args.push_back(nullptr);

  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid < 0) {
    ADD_FAILURE() << "fork: " << strerror(errno);
    return false;
  }
  if (pid == 0) {
    // The server must not outlive the test, even one that crashes.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
      _exit(127);
    }
    execv(program, args.data());
    _exit(127);
  }
  pid_ = pid;
  for (int waited = 0; waited < 10000; waited += 10) {
    port_ = read_port(port_file_);
    if (port_ != 0) {
      return true;
    }
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return false;
    }
    pause_ms(10);
  }
  stop();
  return false;
}

void port_process::stop() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status = 0;
    bool reaped = false;
    for (int waited = 0; waited < 5000 && !reaped; waited += 10) {
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        reaped = true;
      } else {
        pause_ms(10);
      }
    }
    if (!reaped) {
      kill(pid_, SIGKILL);
      while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
      }
    }
  }
  pid_ = -1;
  port_ = 0;
  if (!port_file_.empty()) {
    unlink(port_file_.c_str());
    port_file_.clear();
  }
}
