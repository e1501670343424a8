#include "tests/support/fault_proxy.h"

#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace {

sockaddr_in loopback(int port) {
  return {AF_INET,
          htons(static_cast<uint16_t>(port)),
          {htonl(INADDR_LOOPBACK)},
          {}};
}

// A read that hangs fails after 5 s instead of at the ctest timeout.
unique_fd with_timeout(int fd) {
  timeval tv = {5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  return unique_fd(fd);
}

unique_fd connect_to(int port) {
  unique_fd fd = with_timeout(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in to = loopback(port);
  EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
  return fd;
}

struct transfer {
  std::string got;
  int end = 0;  // 0 for EOF, else the errno that ended the read
};

transfer read_all(int fd) {
  transfer t;
  char buf[16384];
  ssize_t n;
  while ((n = recv(fd, buf, sizeof buf, 0)) > 0) {
    t.got.append(buf, static_cast<size_t>(n));
  }
  t.end = n == 0 ? 0 : errno;
  return t;
}

// Sends from another thread, so that neither end waits for the other to
// read, then half-closes; stops at the first error (a cut connection).
// `data` must outlive the thread.
std::thread send_async(int fd, const std::string& data) {
  return std::thread([fd, &data] {
    for (size_t off = 0; off < data.size();) {
      ssize_t n = send(fd, data.data() + off, data.size() - off, MSG_NOSIGNAL);
      if (n < 0) {
        return;
      }
      off += static_cast<size_t>(n);
    }
    shutdown(fd, SHUT_WR);
  });
}

// Bytes whose offsets are told apart over a long run.
std::string pattern(size_t n, unsigned seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) {
    s[i] = static_cast<char>((i * 131 + seed + i / 251) & 0xff);
  }
  return s;
}

// The server is a bare listening socket the test accepts from itself.
class FaultProxyTest : public testing::Test {
 protected:
  void SetUp() override {
    listener_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in addr = loopback(0);
    socklen_t len = sizeof addr;
    ASSERT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&addr), len),
              0);
    ASSERT_EQ(listen(listener_.get(), 8), 0);
    getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&addr), &len);
    ASSERT_TRUE(proxy_.start(ntohs(addr.sin_port)));
  }

  // A connection through the proxy: the client's end and the server's.
  std::pair<unique_fd, unique_fd> connect_through() {
    unique_fd client = connect_to(proxy_.port());
    pollfd pfd = {listener_.get(), POLLIN, 0};
    EXPECT_EQ(poll(&pfd, 1, 5000), 1) << "the proxy did not connect on";
    return {std::move(client), with_timeout(accept4(listener_.get(), nullptr,
                                                    nullptr, SOCK_CLOEXEC))};
  }

  // What the server receives, up to a clean EOF, of `text` sent on a fresh
  // connection.
  std::string round_trip(const std::string& text) {
    auto [client, server] = connect_through();
    std::thread writer = send_async(client.get(), text);
    transfer t = read_all(server.get());
    writer.join();
    EXPECT_EQ(t.end, 0) << strerror(t.end);
    return t.got;
  }

  unique_fd listener_;
  fault_proxy proxy_;
};

TEST_F(FaultProxyTest, ForwardsBothWaysAtOnceUnchanged) {
  std::string up = pattern(1 << 20, 1), down = pattern(3 << 19, 2);
  auto [client, server] = connect_through();
  // The client is read only after the server: a backed-up direction must
  // not hold up the other one.
  std::thread to_server = send_async(client.get(), up);
  std::thread to_client = send_async(server.get(), down);
  transfer at_server = read_all(server.get());
  transfer at_client = read_all(client.get());
  to_server.join();
  to_client.join();
  EXPECT_EQ(at_server.end, 0);
  EXPECT_TRUE(at_server.got == up) << at_server.got.size();
  EXPECT_EQ(at_client.end, 0);
  EXPECT_TRUE(at_client.got == down) << at_client.got.size();
  EXPECT_EQ(proxy_.upstream_bytes(), up.size());
}

TEST_F(FaultProxyTest, DropsAfterExactlyTheOffset) {
  struct {
    const char* name;
    uint64_t offset;
    size_t size;
  } const cases[] = {
      {"before the first byte", 0, 100},
      {"inside one read", 10, 100},
      {"after many reads", 300000, 1 << 20},
  };
  int fired = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::string sent = pattern(c.size, 3);
    proxy_.drop_after_upstream_bytes(c.offset);
    auto [client, server] = connect_through();
    std::thread writer = send_async(client.get(), sent);
    transfer at_server = read_all(server.get());
    EXPECT_EQ(at_server.end, 0) << strerror(at_server.end);
    EXPECT_TRUE(at_server.got == sent.substr(0, c.offset))
        << at_server.got.size();
    // The client's end is closed while the server's end is still open.
    transfer at_client = read_all(client.get());
    EXPECT_TRUE(at_client.end == 0 || at_client.end == ECONNRESET)
        << strerror(at_client.end);
    writer.join();
    EXPECT_EQ(proxy_.drops(), ++fired);
    EXPECT_EQ(round_trip("after"), "after");
  }
  // Reaching the offset is not passing it: the fault stays armed and the
  // count runs on over the next connection, whose first byte trips it.
  proxy_.drop_after_upstream_bytes(5);
  EXPECT_EQ(round_trip("exact"), "exact");
  EXPECT_EQ(round_trip("next"), "");
  EXPECT_EQ(round_trip("after"), "after");
  EXPECT_EQ(proxy_.drops(), fired + 1);
}

}  // namespace
