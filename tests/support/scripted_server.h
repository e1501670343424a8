// tests/support/scripted_server.h: a KFS server on 127.0.0.1 that keeps no
// files and plays a script instead. It answers the opening exchange and then
// every request with the smallest reply the client can take, except where
// the script puts a fault, and it records every request it receives, so a
// test can see what the client does with a peer that misbehaves and what it
// sends. One connection at a time; it stops by itself when destroyed.
// Used by the tests and by the client's fuzz target (no test framework here).
#pragma once

#include <stdint.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

enum class script_fault {
  none,
  // The opening of connection `at` (counted from 0):
  key_damaged,   // key text that is not a key
  key_not_rsa,   // an EC key
  key_rsa_1024,  // an RSA key too short for the 256-byte key exchange
  key_padded,    // the real key, blank-padded to `value` bytes
  hello_short,   // the handshake reply carries 31 key bytes, not 32
  hello_status,  // the handshake reply carries status `value`
  // The reply to request `at` (counted from 0 over all connections, logins
  // included):
  reply_type,      // type `value` instead of the request's + 128
  reply_sequence,  // sequence `value` instead of 0
  reply_status,    // status `value`
  reply_bad_crc,   // the checksum does not match
  reply_trailing,  // `value` stray bytes follow the reply
  reply_drop,      // no reply: the connection is closed
  // Besides any of the above:
  reply_body,  // `body` instead of the usual body
};

struct script_step {
  script_fault fault;
  int at;
  uint32_t value = 0;
  std::string body = {};
};

struct seen_request {
  int connection;
  uint8_t type;
  uint16_t sequence;
  uint8_t status;
  std::string body;
};

class scripted_server {
 public:
  scripted_server() = default;
  ~scripted_server() { stop(); }
  scripted_server(const scripted_server&) = delete;
  scripted_server& operator=(const scripted_server&) = delete;

  // Listens on a port chosen by the system and plays script from now on.
  // False when it cannot listen.
  bool start(std::vector<script_step> script);
  // Closes every socket and joins the thread; idempotent.
  void stop();
  int port() const { return port_; }

  std::vector<seen_request> requests() const;
  // What broke the client's rules, one line a request: a sequence other
  // than 0, a type that is no request, or a status byte that is not the
  // status of the last reply the client read on that connection (0 on a
  // new one). "" when every request was well formed.
  std::string malformed() const;

 private:
  void run();
  void serve(int sock, int connection);
  const script_step* step(script_fault first, script_fault last, int at) const;

  std::vector<script_step> script_;
  std::thread thread_;
  int listener_ = -1;
  std::atomic<int> client_{-1};  // the connection being served
  std::atomic<bool> stopping_{false};
  int port_ = 0;
  std::atomic<int> connections_{0};
  int requests_seen_ = 0;  // the serving thread's count

  mutable std::mutex mutex_;  // guards the two below
  std::vector<seen_request> requests_;
  std::string malformed_;
};
