#include "tests/support/kfsd_process.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>

#include <gtest/gtest.h>

namespace {

// The text below the header lines of an outbox message.
std::string message_text(const std::string& dir, const std::string& name) {
  std::string text = read_file(dir + "/outbox/" + name);
  size_t body = text.find("\n\n");
  return body == std::string::npos ? text : text.substr(body + 2);
}

}  // namespace

std::string kfsd_last_message(const std::string& dir) {
  std::vector<std::string> texts = kfsd_messages(dir);
  return texts.empty() ? "" : texts.back();
}

std::vector<std::string> kfsd_messages(const std::string& dir) {
  std::vector<std::string> texts;
  for (const std::string& name : list_dir(dir + "/outbox", ".msg")) {
    texts.push_back(message_text(dir, name));
  }
  return texts;
}

size_t kfsd_message_count(const std::string& dir) {
  return list_dir(dir + "/outbox", ".msg").size();
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
  run_options options;
  options.own_output = true;
  // The server must not outlive the test, even one that crashes.
  options.before_exec = [] { prctl(PR_SET_PDEATHSIG, SIGKILL); };
  proc_ = start_program(program, argv, options);
  for (int waited = 0; proc_.pid > 0 && waited < 10000; waited += 10) {
    // The server renames the file into place once it listens.
    std::string line = path_exists(port_file_) ? read_file(port_file_) : "";
    port_ = atoi(line.c_str());
    if (port_ > 0) {
      return true;
    }
    if (has_ended(proc_)) {
      break;
    }
    pause_ms(10);
  }
  stop();
  return false;
}

void port_process::stop() {
  if (proc_.pid > 0) {
    kill(proc_.pid, SIGTERM);
    for (int waited = 0; waited < 5000 && !has_ended(proc_); waited += 10) {
      pause_ms(10);
    }
    kill(proc_.pid, SIGKILL);  // a zombie by now takes no harm from it
    finish_program(&proc_);
  }
  port_ = 0;
  if (!port_file_.empty()) {
    unlink(port_file_.c_str());
    port_file_.clear();
  }
}
