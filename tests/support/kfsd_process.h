// tests/support/kfsd_process.h: the reference server for tests: setting up
// a data folder with users, and running `kfsd serve` on 127.0.0.1 with a
// port chosen by the system. The server process is tied to the test
// process: it gets SIGKILL when the test process ends, however it ends.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/test_support.h"

// Runs `kfsd init dir` and fails the test on error.
void kfsd_init(const std::string& dir);

// Runs `kfsd user add dir --id id --name name --key-file key_file`;
// key_file must hold a valid key. Fails the test on error.
void kfsd_add_user(const std::string& dir, uint32_t id, const std::string& name,
                   const std::string& key_file);

// Writes a key file in the agent's format for the 32-byte key: a comment
// line, then two lines of 32 lower-case hex digits. Fails the test on error.
void write_key_file(const std::string& path, const uint8_t key[32]);

// The text (below the header lines) of the newest message in the server's
// outbox, "" when there is none; and how many messages the outbox holds.
std::string kfsd_last_message(const std::string& dir);
size_t kfsd_message_count(const std::string& dir);
// The texts of all messages in the outbox, oldest first.
std::vector<std::string> kfsd_messages(const std::string& dir);

// A program started with a port file it writes once it listens. It is tied
// to the test process: it gets SIGKILL when the test process ends, however
// it ends.
class port_process {
 public:
  port_process() = default;
  port_process(const port_process&) = delete;
  port_process& operator=(const port_process&) = delete;
  ~port_process() { stop(); }

  // Runs program with argv (argv[0] included) and waits (at most about
  // 10 s) until port_file names a port. False when it could not be
  // started, ended first, or did not report a port in time (it is then
  // stopped).
  bool start(const char* program, std::vector<std::string> argv,
             const std::string& port_file);

  // SIGTERM, then SIGKILL when it has not ended after about 5 s; reaps it.
  // Does nothing when nothing runs.
  void stop();

  int port() const { return port_; }
  pid_t pid() const { return proc_.pid; }

 private:
  started_program proc_;
  int port_ = 0;
  std::string port_file_;
};

// A fresh port file name in the test's temporary folder.
std::string new_port_file(const std::string& prefix);

// One running `kfsd serve` on 127.0.0.1, port 0.
class kfsd_process : public port_process {
 public:
  // Starts `kfsd serve dir --port-file FILE --listen 127.0.0.1:0` plus the
  // extra arguments (which may bring their own --listen, to reuse a port)
  // and waits until the server has written its port; false when it did not.
  bool start(const std::string& dir,
             const std::vector<std::string>& extra = {});
};
