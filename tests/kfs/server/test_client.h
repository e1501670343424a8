// tests/kfs/server/test_client.h: a small KFS client for the server tests,
// built only on the packet layer and OpenSSL, so it checks the server's
// key exchange independently of the real session code. Bodies are written
// and read with wire / unwire.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "kfs/client/kfs.h"
#include "tests/support/kfsd_process.h"
#include "tests/support/test_support.h"

using Bytes = std::vector<uint8_t>;

// A request body, field by field, big-endian.
struct wire {
  Bytes b;
  wire& u8(uint8_t v);
  wire& u16(uint16_t v);
  wire& u32(uint32_t v);
  wire& u64(uint64_t v);
  wire& str8(const std::string& s);
  wire& str16(const std::string& s);
  wire& raw(const Bytes& bytes);
};

// Reads a reply body; a read past the end sets `bad` and yields zeros.
struct unwire {
  const Bytes& b;
  size_t pos = 0;
  bool bad = false;
  uint64_t take(size_t n);
  uint8_t u8() { return static_cast<uint8_t>(take(1)); }
  uint16_t u16() { return static_cast<uint16_t>(take(2)); }
  uint32_t u32() { return static_cast<uint32_t>(take(4)); }
  uint64_t u64() { return take(8); }
  std::string str8();
  std::string str16();
  Bytes raw(size_t n);
};

class test_client {
 public:
  test_client() = default;
  test_client(const test_client&) = delete;
  test_client& operator=(const test_client&) = delete;
  ~test_client() { disconnect(); }

  // TCP connection to 127.0.0.1:port and the key exchange in the given
  // encryption mode. False (with a gtest failure message) on any failure.
  bool connect(int port, int mode = KFS_MODE_AES);
  // TCP only, for raw traffic.
  bool connect_raw(int port);
  void disconnect();
  int fd() const { return sock_; }

  // Sends a request and reads the reply: its status, or -1 when the
  // exchange failed (the reply's type and sequence are checked too).
  int call(uint8_t type, const Bytes& body, Bytes* reply = nullptr);
  // Sends a request that gets no reply; false when sending failed.
  bool send(uint8_t type, const Bytes& body);

  // Agent-mode login with the SHA-1 of key; the status, and the reply.
  int login(uint32_t uid, const uint8_t key[32], Bytes* reply = nullptr);
  // KFS_USER_LOCK acquire of uid (flags 0).
  int lock(uint32_t uid);

  // True when the server closes the connection within about 5 s.
  bool closed_by_server();

 private:
  int sock_ = -1;
  kfs_packet_cipher* cipher_ = nullptr;
  uint16_t sequence_ = 0;
};

// Login reply fields the tests look at.
struct login_reply {
  uint8_t redirect = 0;
  std::string host_1, host_2;
  uint16_t port_1 = 0, port_2 = 0;
  uint32_t account_id = 0;
  std::string user_name;
  uint32_t agent_time = 0;
  bool bad = true;
};
login_reply parse_login(const Bytes& reply);

// MD5 of the bytes, as a begin or end block carries it.
Bytes md5_of(const Bytes& data);
// SHA-1 of an account key: what a login proves the key with.
Bytes sha1_of_key(const uint8_t key[32]);
// The body of an agent-mode login.
Bytes agent_login(uint32_t uid, const uint8_t key[32]);

// Account keys of the two users every fixture has: 7 "alice", 8 "bob".
extern const uint8_t kKey7[32];
extern const uint8_t kKey8[32];

// A data folder in a fresh temporary directory with users 7 and 8, served
// with 1 KiB blocks.
class KfsdFixture : public TempDirTest {
 protected:
  void SetUp() override;
  void TearDown() override;
  std::string data_dir() const { return dir() + "/data"; }
  int port() const { return server_.port(); }

  kfsd_process server_;
};
