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

// Faults placed by request: the client's packets are counted over all
// connections since start() (or the last arm), from 0; the unframed opening
// (greeting and key exchange, 260 bytes) of each connection is not counted.
enum class fault_kind {
  none,
  drop_before,  // the request never reaches the server; both sides close
  drop_after,   // the server gets the whole request, the client no answer
  cut_inside,   // the server gets half the request, then the connection ends
  stall,        // the request and all after it wait stall_ms, then go on
};

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

  // Arms a one-shot fault at the client's request number `request`.
  void arm(fault_kind kind, uint64_t request, int stall_ms = 0);

  int drops() const { return drops_; }  // faults that fired
  // Client->server bytes forwarded so far.
  uint64_t upstream_bytes() const { return upstream_bytes_; }
  int connections() const { return connections_; }  // accepted so far
  // Client requests that began since start() or the last arm.
  uint64_t requests() const { return requests_; }

 private:
  struct link;  // one accepted connection and its connection to the server

  void run();
  void accept_all(std::vector<link>* links);
  void service(link* l, short client_revents, short server_revents);
  // Of the bytes just read from a client (in l->up.pending), how many go on
  // to the server now; sets *cut when the connection is to be dropped after
  // them, and holds back the rest of a stalled link. Every fault on the
  // client->server stream is decided here.
  size_t pass_upstream(link* l, bool* cut);
  // Where the request fault lands in data, if it does: the bytes to pass
  // and whether to cut or stall after them.
  bool find_request_fault(link* l, const std::string& data, size_t* pass);

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
  fault_kind request_fault_ = fault_kind::none;
  uint64_t fault_request_ = 0;
  int stall_ms_ = 0;
  std::atomic<uint64_t> requests_{0};
};
