// tests/support/fault_proxy.h: a TCP proxy on 127.0.0.1 that a test puts
// between a client and a server to break the connection at a chosen
// request, so that a network fault can be reproduced exactly.
#pragma once

#include <stdint.h>

#include <atomic>
#include <list>
#include <mutex>
#include <thread>

// What happens to the armed request. The client's packets are counted over
// all connections since start() or the last arm(), from 0; the unframed
// opening (greeting and key exchange, 260 bytes) of each connection is not.
enum class fault_kind {
  none,
  drop_before,  // the request never reaches the server; both sides close
  drop_after,   // the server gets the whole request, the client no answer
  cut_inside,   // the server gets half the request, then the connection ends
  stall,        // the request and all after it wait stall_ms, then go on
};

// Listens on 127.0.0.1 (port chosen by the system) and forwards every
// connection to 127.0.0.1:target_port, both ways, until either side closes
// (a half close is passed on as one). Threads of its own; stops when
// destroyed.
class fault_proxy {
 public:
  fault_proxy() = default;
  ~fault_proxy() { stop(); }
  fault_proxy(const fault_proxy&) = delete;
  fault_proxy& operator=(const fault_proxy&) = delete;

  // False when it cannot listen. A fault armed before stays armed.
  bool start(int target_port);
  // Closes every connection and joins every thread; idempotent.
  void stop();
  int port() const { return port_; }

  // Arms a one-shot fault at the client's request number `request` and
  // counts requests from 0 again.
  void arm(fault_kind kind, uint64_t request, int stall_ms = 0);
  int drops() const { return drops_; }  // faults that fired
  uint64_t requests() const { return requests_; }

 private:
  struct link {
    int client = -1, server = -1;
    std::thread up, down;
    std::atomic<int> ended{0};  // threads done with it
    // Closes it when both threads are done, or at once when `now`: true
    // when it did.
    bool close(bool now);
  };

  void accept_all();
  void forward_requests(link* l);  // client to server, packet by packet
  void forward_answers(link* l);   // server to client
  fault_kind count_request();

  std::thread acceptor_;
  std::list<link> links_;  // the acceptor's until stop() has joined it
  int listener_ = -1;
  int port_ = 0;
  int target_port_ = 0;

  std::mutex fault_mutex_;  // guards the armed fault
  fault_kind kind_ = fault_kind::none;
  uint64_t at_ = 0;
  int stall_ms_ = 0;
  std::atomic<int> drops_{0};
  std::atomic<uint64_t> requests_{0};
};
