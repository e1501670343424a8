#include "tests/support/fault_proxy.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>

namespace {

constexpr size_t kChunk = 64 * 1024;  // the most one read takes from a side
// The client's unframed opening: a 4-byte greeting and the 256-byte
// RSA-2048 block of the key exchange. Packets follow.
constexpr uint32_t kOpeningBytes = 4 + 256;
constexpr uint32_t kPacketHeader = 6;  // u16 cipher length, u32 CRC-32

using steady = std::chrono::steady_clock;

// Finds packet boundaries in the client's stream of one connection.
struct frame_walker {
  uint32_t opening_left = kOpeningBytes;
  uint32_t header_pos = 0;  // bytes of the current packet's header seen
  uint32_t length = 0;      // its cipher length
  uint64_t body_total = 0;
  uint64_t body_left = 0;
  uint64_t number = 0;  // the current packet's request number
};

sockaddr_in loopback(int port) {
  sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  return addr;
}

// The extra hop must not add Nagle delays the direct connection lacks.
void set_no_delay(int fd) {
  int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// One direction of a link. A read waits until the previous one has been
// delivered, so a slow reader holds the writer back instead of the buffer
// growing without bound.
struct flow {
  std::string pending;       // read from the source, not yet sent on
  bool source_done = false;  // EOF read, or the source was cut off
  bool sink_gone = false;    // the sink was cut off: reads are discarded
  bool sink_shut = false;    // the EOF has been passed on to the sink

  bool can_read() const { return !source_done && pending.empty(); }
  bool finished() const {
    return source_done && pending.empty() && (sink_shut || sink_gone);
  }
};

// Reads once into f->pending; returns the byte count, 0 for nothing new.
size_t receive(int fd, flow* f, bool* broken) {
  f->pending.resize(kChunk);
  ssize_t n = recv(fd, f->pending.data(), kChunk, 0);
  if (n < 0) {
    f->pending.clear();
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      *broken = true;
    }
    return 0;
  }
  f->pending.resize(static_cast<size_t>(n));
  if (n == 0) {
    f->source_done = true;
  } else if (f->sink_gone) {
    f->pending.clear();
  }
  return static_cast<size_t>(n);
}

// Sends what the sink takes now, then passes an EOF on once everything
// before it is out. `sent` (may be null) counts the bytes before the EOF
// goes out, so the counter is current when the far side sees the EOF.
void deliver(int fd, flow* f, std::atomic<uint64_t>* sent, bool* broken) {
  if (f->sink_gone) {
    return;
  }
  while (!f->pending.empty()) {
    ssize_t n = send(fd, f->pending.data(), f->pending.size(), MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      if (errno != EAGAIN && errno != EWOULDBLOCK) {
        *broken = true;
      }
      return;
    }
    f->pending.erase(0, static_cast<size_t>(n));
    if (sent != nullptr) {
      *sent += static_cast<uint64_t>(n);
    }
  }
  if (f->source_done && !f->sink_shut) {
    shutdown(fd, SHUT_WR);
    f->sink_shut = true;
  }
}

}  // namespace

struct fault_proxy::link {
  unique_fd client;
  unique_fd server;
  bool connecting = true;  // the connect to the server is still under way
  bool broken = false;     // an error on either side: close both at once
  flow up;                 // client -> server
  flow down;               // server -> client
  frame_walker walk;       // of the client's stream
  std::string held;        // client bytes a stall holds back
  steady::time_point held_until;

  bool up_readable() const { return up.can_read() && held.empty(); }
  short client_events() const {
    return static_cast<short>((up_readable() ? POLLIN : 0) |
                              (down.pending.empty() ? 0 : POLLOUT));
  }
  short server_events() const {
    if (connecting) {
      return POLLOUT;
    }
    return static_cast<short>((down.can_read() ? POLLIN : 0) |
                              (up.pending.empty() ? 0 : POLLOUT));
  }
  bool done() const { return broken || (up.finished() && down.finished()); }
};

bool fault_proxy::start(int target_port) {
  stop();
  unique_fd listener(
      socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  sockaddr_in addr = loopback(0);
  socklen_t len = sizeof addr;
  int wake[2];
  if (!listener ||
      bind(listener.get(), reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
      listen(listener.get(), 64) != 0 ||
      getsockname(listener.get(), reinterpret_cast<sockaddr*>(&addr), &len) !=
          0 ||
      pipe2(wake, O_CLOEXEC) != 0) {
    return false;
  }
  wake_read_.reset(wake[0]);
  wake_write_.reset(wake[1]);
  listener_ = std::move(listener);
  port_ = ntohs(addr.sin_port);
  target_port_ = target_port;
  drops_ = 0;
  upstream_bytes_ = 0;
  connections_ = 0;
  {
    std::lock_guard<std::mutex> hold(fault_mutex_);
    counted_ = 0;
  }
  thread_ = std::thread([this] { run(); });
  return true;
}

void fault_proxy::stop() {
  if (thread_.joinable()) {
    wake_write_.reset();
    thread_.join();
  }
  listener_.reset();
  wake_read_.reset();
  wake_write_.reset();
  port_ = 0;
}

void fault_proxy::drop_after_upstream_bytes(uint64_t offset) {
  std::lock_guard<std::mutex> hold(fault_mutex_);
  drop_armed_ = true;
  drop_offset_ = offset;
  counted_ = 0;
}

void fault_proxy::arm(fault_kind kind, uint64_t request, int stall_ms) {
  std::lock_guard<std::mutex> hold(fault_mutex_);
  request_fault_ = kind;
  fault_request_ = request;
  stall_ms_ = stall_ms;
  requests_ = 0;
}

bool fault_proxy::find_request_fault(link* l, const std::string& data,
                                     size_t* pass) {
  frame_walker& w = l->walk;
  bool found = false;
  // The whole read is walked even after the fault, so the walker stays in
  // step for what follows.
  for (size_t i = 0; i < data.size(); ++i) {
    if (w.opening_left > 0) {
      --w.opening_left;
      continue;
    }
    bool target = request_fault_ != fault_kind::none && !found;
    if (w.header_pos == 0) {
      w.number = requests_++;
      w.length = 0;
      if (target && w.number == fault_request_ &&
          (request_fault_ == fault_kind::drop_before ||
           request_fault_ == fault_kind::stall)) {
        *pass = i;
        found = true;
      }
    }
    if (w.header_pos < kPacketHeader) {
      if (w.header_pos < 2) {
        w.length = (w.length << 8) | static_cast<uint8_t>(data[i]);
      }
      if (++w.header_pos == kPacketHeader) {
        w.body_total = w.body_left = w.length == 0 ? 65536 : w.length;
      }
      continue;
    }
    --w.body_left;
    if (target && w.number == fault_request_ &&
        ((request_fault_ == fault_kind::cut_inside &&
          w.body_left == w.body_total / 2) ||
         (request_fault_ == fault_kind::drop_after && w.body_left == 0))) {
      *pass = i + 1;
      found = true;
    }
    if (w.body_left == 0) {
      w.header_pos = 0;
    }
  }
  return found;
}

size_t fault_proxy::pass_upstream(link* l, bool* cut) {
  std::lock_guard<std::mutex> hold(fault_mutex_);
  std::string& data = l->up.pending;
  *cut = false;
  if (drop_armed_ && counted_ + data.size() > drop_offset_) {
    data.resize(static_cast<size_t>(drop_offset_ - counted_));
    drop_armed_ = false;
    *cut = true;
    ++drops_;
  }
  counted_ += data.size();  // held bytes count as read from the client
  size_t pass = data.size();
  fault_kind kind = request_fault_;
  if (find_request_fault(l, data, &pass)) {
    request_fault_ = fault_kind::none;
    ++drops_;
    if (kind == fault_kind::stall) {
      l->held = data.substr(pass);
      l->held_until = steady::now() + std::chrono::milliseconds(stall_ms_);
    } else {
      *cut = true;
    }
    data.resize(pass);
  }
  return data.size();
}

void fault_proxy::run() {
  std::vector<link> links;  // every socket closes when the loop ends
  std::vector<pollfd> fds;
  for (;;) {
    // A stalled link takes its held bytes back once the stall is over and
    // the bytes before it are out.
    int timeout = -1;
    steady::time_point now = steady::now();
    for (link& l : links) {
      if (l.held.empty()) {
        continue;
      }
      if (now >= l.held_until && l.up.pending.empty()) {
        l.up.pending.swap(l.held);
        continue;
      }
      auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(
          l.held_until - now);
      int ms = static_cast<int>(std::max<int64_t>(wait.count(), 1));
      timeout = timeout < 0 ? ms : std::min(timeout, ms);
    }
    fds.assign({{wake_read_.get(), POLLIN, 0}, {listener_.get(), POLLIN, 0}});
    // A side with nothing to do is left out: poll reports a hang-up even
    // when not asked, which would spin while the other side catches up.
    for (const link& l : links) {
      short ce = l.client_events();
      short se = l.server_events();
      fds.push_back({ce != 0 ? l.client.get() : -1, ce, 0});
      fds.push_back({se != 0 ? l.server.get() : -1, se, 0});
    }
    if (poll(fds.data(), fds.size(), timeout) < 0) {
      if (errno == EINTR) {
        continue;
      }
      return;
    }
    if (fds[0].revents != 0) {
      return;
    }
    for (size_t i = 0; i < links.size(); ++i) {
      service(&links[i], fds[2 + 2 * i].revents, fds[3 + 2 * i].revents);
    }
    std::erase_if(links, [](const link& l) { return l.done(); });
    if (fds[1].revents != 0) {
      accept_all(&links);
    }
  }
}

void fault_proxy::accept_all(std::vector<link>* links) {
  for (;;) {
    unique_fd client(accept4(listener_.get(), nullptr, nullptr,
                             SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!client) {
      return;  // none left; a real error shows again at the next poll
    }
    ++connections_;
    link l;
    l.server.reset(
        socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!l.server) {
      continue;  // the client sees the connection closed
    }
    sockaddr_in to = loopback(target_port_);
    // Non-blocking, so a server with a full backlog cannot hold up stop().
    int rc =
        connect(l.server.get(), reinterpret_cast<sockaddr*>(&to), sizeof to);
    if (rc != 0 && errno != EINPROGRESS) {
      continue;
    }
    l.connecting = rc != 0;
    set_no_delay(client.get());
    set_no_delay(l.server.get());
    l.client = std::move(client);
    links->push_back(std::move(l));
  }
}

void fault_proxy::service(link* l, short client_revents, short server_revents) {
  const short readable = POLLIN | POLLHUP | POLLERR;
  if (l->connecting && server_revents != 0) {
    int err = 0;
    socklen_t len = sizeof err;
    if (getsockopt(l->server.get(), SOL_SOCKET, SO_ERROR, &err, &len) != 0 ||
        err != 0) {
      l->broken = true;
      return;
    }
    l->connecting = false;
    server_revents = 0;  // that was the connect, not data
  }
  if ((client_revents & readable) != 0 && l->up_readable()) {
    size_t n = receive(l->client.get(), &l->up, &l->broken);
    bool cut = false;
    if (n > 0) {
      pass_upstream(l, &cut);
    }
    if (cut) {
      // The client goes at once. The server gets what came before the cut,
      // then an EOF, and is read (and ignored) until it closes, so that it
      // sees a clean EOF rather than a reset.
      l->client.reset();
      l->up.source_done = true;
      l->down.pending.clear();
      l->down.sink_gone = true;
    }
  }
  if ((server_revents & readable) != 0 && l->down.can_read()) {
    receive(l->server.get(), &l->down, &l->broken);
  }
  if (!l->connecting) {
    deliver(l->server.get(), &l->up, &upstream_bytes_, &l->broken);
  }
  deliver(l->client.get(), &l->down, nullptr, &l->broken);
}
