#include "tests/support/kfsd_process.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>

#include <gtest/gtest.h>

std::vector<std::string> kfsd_messages(const std::string& dir) {
  std::vector<std::string> texts;
  for (const std::string& name : list_dir(dir + "/outbox", ".msg")) {
    std::string text = read_file(dir + "/outbox/" + name);
    texts.push_back(text.substr(text.find("\n\n") + 2));  // below the header
  }
  return texts;
}

std::string kfsd_last_message(const std::string& dir) {
  std::vector<std::string> texts = kfsd_messages(dir);
  return texts.empty() ? "" : texts.back();
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
    text += {"0123456789abcdef"[key[i] >> 4], "0123456789abcdef"[key[i] & 15]};
    text += i % 16 == 15 ? "\n" : "";
  }
  write_file(path, text);
}

std::string new_port_file(const std::string& prefix) {
  static int counter = 0;  // tests start servers from one thread
  return testing::TempDir() + prefix + "-" + std::to_string(getpid()) + "-" +
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
  for (int waited = 0; proc_.pid > 0 && !has_ended(proc_) && waited < 10000;
       waited += 10) {
    // The server renames the file into place once it listens.
    port_ = path_exists(port_file_) ? atoi(read_file(port_file_).c_str()) : 0;
    if (port_ > 0) {
      return true;
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
