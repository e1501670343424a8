#include "tests/support/fault_proxy.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>

#include "tests/support/test_support.h"

namespace {

// After the unframed opening the client sends packets, each a u16 cipher
// length (0 meaning 65536), a u32 CRC-32 and the cipher bytes.
constexpr size_t kPacketHeader = 6;

sockaddr_in loopback(int port) {
  sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  return addr;
}

// n bytes, fewer when the stream ends or breaks first.
std::string receive(int fd, size_t n) {
  std::string s(n, '\0');
  s.resize(static_cast<size_t>(
      std::max<ssize_t>(recv(fd, s.data(), n, MSG_WAITALL), 0)));
  return s;
}

// The sockets block, so a send returns once all is sent or the peer is gone.
bool send_all(int fd, std::string_view s) {
  return send(fd, s.data(), s.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(s.size());
}

}  // namespace

bool fault_proxy::start(int target_port) {
  stop();
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr = loopback(0);
  socklen_t len = sizeof addr;
  if (bind(listener_, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
      listen(listener_, 64) != 0 ||
      getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    close(listener_);
    listener_ = -1;
    return false;
  }
  port_ = ntohs(addr.sin_port);
  target_port_ = target_port;
  drops_ = 0;
  requests_ = 0;
  acceptor_ = std::thread([this] { accept_all(); });
  return true;
}

void fault_proxy::stop() {
  if (!acceptor_.joinable()) {
    return;
  }
  shutdown(listener_, SHUT_RDWR);  // wakes the accept
  acceptor_.join();
  close(listener_);
  links_.remove_if([](link& l) { return l.close(true); });
  port_ = 0;
}

void fault_proxy::arm(fault_kind kind, uint64_t request, int stall_ms) {
  std::lock_guard<std::mutex> hold(fault_mutex_);
  kind_ = kind;
  at_ = request;
  stall_ms_ = stall_ms;
  requests_ = 0;
}

fault_kind fault_proxy::count_request() {
  std::lock_guard<std::mutex> hold(fault_mutex_);
  if (requests_++ != at_ || kind_ == fault_kind::none) {
    return fault_kind::none;
  }
  ++drops_;
  if (kind_ == fault_kind::stall) {
    pause_ms(stall_ms_);  // every connection waits, as behind a slow hop
  }
  return std::exchange(kind_, fault_kind::none);
}

void fault_proxy::accept_all() {
  for (;;) {
    int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
      if (errno == EINTR || errno == ECONNABORTED) {
        continue;
      }
      return;  // stop() shut the listener
    }
    // Links whose threads are done go now, so a long test keeps few fds.
    links_.remove_if([](link& l) { return l.close(false); });
    int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to = loopback(target_port_);
    if (connect(server, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
      close(server);
      close(client);  // the client sees the connection closed
      continue;
    }
    // The extra hop must not add Nagle delays the direct connection lacks.
    int on = 1;
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    link& l = links_.emplace_back();
    l.client = client;
    l.server = server;
    l.up = std::thread([this, &l] { forward_requests(&l); });
    l.down = std::thread([this, &l] { forward_answers(&l); });
  }
}

bool fault_proxy::link::close(bool now) {
  if (!now && ended < 2) {
    return false;
  }
  shutdown(client, SHUT_RDWR);
  shutdown(server, SHUT_RDWR);
  up.join();
  down.join();
  ::close(client);
  ::close(server);
  return true;
}

void fault_proxy::forward_requests(link* l) {
  // The opening: a 4-byte greeting, and after the server's answer the
  // 256-byte RSA-2048 block of the key exchange.
  bool open = true;
  for (size_t part : {4, 256}) {
    std::string data = open ? receive(l->client, part) : "";
    open = send_all(l->server, data) && data.size() == part;
  }
  while (open) {
    std::string data = receive(l->client, kPacketHeader);
    if (data.size() == kPacketHeader) {
      size_t length =
          static_cast<uint8_t>(data[0]) << 8 | static_cast<uint8_t>(data[1]);
      data += receive(l->client, length == 0 ? 65536 : length);
    }
    fault_kind fault = data.empty() ? fault_kind::none : count_request();
    size_t pass = fault == fault_kind::drop_before  ? 0
                  : fault == fault_kind::cut_inside ? data.size() / 2
                                                    : data.size();
    bool cut = pass < data.size() || fault == fault_kind::drop_after;
    if (cut) {
      // The client goes first, so no answer can reach it; the server gets
      // the bytes before the cut and then a clean end of the stream.
      shutdown(l->client, SHUT_RDWR);
    }
    open = send_all(l->server, std::string_view(data).substr(0, pass)) &&
           !cut && !data.empty();
  }
  shutdown(l->server, SHUT_WR);
  ++l->ended;
}

void fault_proxy::forward_answers(link* l) {
  // After a cut the server is still read, and ignored, until it closes.
  bool client_open = true;
  char buf[65536];
  for (ssize_t n; (n = recv(l->server, buf, sizeof buf, 0)) > 0;) {
    client_open = client_open && send_all(l->client, {buf, size_t(n)});
  }
  shutdown(l->client, SHUT_WR);
  ++l->ended;
}
