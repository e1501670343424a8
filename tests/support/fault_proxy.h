// tests/support/fault_proxy.h: a TCP proxy on 127.0.0.1 that a test puts
// between a client and a server to break the connection on cue, so that a
// network drop can be reproduced at an exact byte.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "lib/scoped.h"

// One in-process proxy thread: listens on 127.0.0.1 (port chosen by the
// system) and forwards every accepted connection to 127.0.0.1:target_port,
// both directions, until either side closes. A side that closes only its
// sending half is passed on as such. Stops by itself when destroyed.
class fault_proxy {
 public:
  fault_proxy() = default;
  ~fault_proxy() { stop(); }
  fault_proxy(const fault_proxy&) = delete;
  fault_proxy& operator=(const fault_proxy&) = delete;

  // Stops a running proxy first and zeroes the counters; a fault armed
  // before start() stays armed. False when it cannot listen.
  bool start(int target_port);
  // Closes every socket, joins the thread; idempotent.
  void stop();
  int port() const { return port_; }

  // Arms a one-shot fault: counting bytes sent client->server over all
  // connections since start() (or since the last arm), once the count would
  // pass `offset`, forward exactly up to `offset` bytes and then close both
  // sides of that connection (the client sees EOF/reset, the server sees
  // EOF). Later connections are forwarded normally.
  void drop_after_upstream_bytes(uint64_t offset);

  int drops() const { return drops_; }  // faults that fired
  // Client->server bytes forwarded so far.
  uint64_t upstream_bytes() const { return upstream_bytes_; }
  int connections() const { return connections_; }  // accepted so far

 private:
  struct link;  // one accepted connection and its connection to the server

  void run();
  void accept_all(std::vector<link>* links);
  void service(link* l, short client_revents, short server_revents);
  // Of n bytes just read from a client, how many go on to the server; sets
  // *cut when the connection is to be dropped after them. Every fault on
  // the client->server stream is decided here.
  size_t pass_upstream(size_t n, bool* cut);

  std::thread thread_;
  unique_fd listener_;
  unique_fd wake_read_;   // the loop polls it; POLLHUP means stop
  unique_fd wake_write_;  // closed by stop()
  int port_ = 0;
  int target_port_ = 0;

  std::atomic<int> drops_{0};
  std::atomic<uint64_t> upstream_bytes_{0};
  std::atomic<int> connections_{0};

  std::mutex fault_mutex_;  // guards the armed fault below
  bool drop_armed_ = false;
  uint64_t drop_offset_ = 0;
  uint64_t counted_ = 0;  // client->server bytes since start() or the arm
};
