#include "tests/kfs/server/test_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

wire& wire::u8(uint8_t v) {
  b.push_back(v);
  return *this;
}
wire& wire::u16(uint16_t v) {
  return u8(static_cast<uint8_t>(v >> 8)).u8(static_cast<uint8_t>(v));
}
wire& wire::u32(uint32_t v) {
  return u16(static_cast<uint16_t>(v >> 16)).u16(static_cast<uint16_t>(v));
}
wire& wire::u64(uint64_t v) {
  return u32(static_cast<uint32_t>(v >> 32)).u32(static_cast<uint32_t>(v));
}
wire& wire::str8(const std::string& s) {
  u8(static_cast<uint8_t>(s.size()));
  b.insert(b.end(), s.begin(), s.end());
  return *this;
}
wire& wire::str16(const std::string& s) {
  u16(static_cast<uint16_t>(s.size()));
  b.insert(b.end(), s.begin(), s.end());
  return *this;
}
wire& wire::raw(const Bytes& bytes) {
  b.insert(b.end(), bytes.begin(), bytes.end());
  return *this;
}

uint64_t unwire::take(size_t n) {
  if (bad || n > b.size() - pos) {
    bad = true;
    return 0;
  }
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i) {
    v = v << 8 | b[pos++];
  }
  return v;
}
std::string unwire::str8() {
  Bytes r = raw(u8());
  return std::string(r.begin(), r.end());
}
std::string unwire::str16() {
  Bytes r = raw(u16());
  return std::string(r.begin(), r.end());
}
Bytes unwire::raw(size_t n) {
  if (bad || n > b.size() - pos) {
    bad = true;
    return {};
  }
  Bytes r(b.begin() + static_cast<long>(pos),
          b.begin() + static_cast<long>(pos + n));
  pos += n;
  return r;
}

bool test_client::connect_raw(int port) {
  disconnect();
  sock_ = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(sock_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ADD_FAILURE() << "connect: " << strerror(errno);
    return false;
  }
  struct timeval tv = {10, 0};  // a hung server fails the test, not blocks it
  setsockopt(sock_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  return true;
}

bool test_client::connect(int port, int mode) {
  if (!connect_raw(port)) {
    return false;
  }
  const uint8_t greeting[4] = {0x01, 0x30, 0x32, 0x01};
  uint8_t len[2];
  if (sock_write_all(sock_, greeting, 4) != 4 ||
      sock_read_all(sock_, len, 2) != 2) {
    ADD_FAILURE() << "no key from the server";
    return false;
  }
  size_t pem_length = static_cast<size_t>(len[0] << 8 | len[1]);
  EXPECT_LT(pem_length, 512u);
  std::string pem(pem_length, '\0');
  if (sock_read_all(sock_, pem.data(), static_cast<int64_t>(pem_length)) !=
      static_cast<int64_t>(pem_length)) {
    return false;
  }
  EXPECT_EQ(pem.rfind("-----BEGIN PUBLIC KEY-----", 0), 0u);
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  EVP_PKEY* key = PEM_read_bio_PUBKEY(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  if (key == nullptr) {
    ADD_FAILURE() << "the server's key does not parse";
    return false;
  }
  uint8_t half[32];
  RAND_bytes(half, sizeof half);
  Bytes plain = wire()
                    .u16(34)
                    .u8(0)
                    .u16(0)
                    .u8(0)
                    .u8(static_cast<uint8_t>(mode))
                    .u8(32)
                    .raw(Bytes(half, half + 32))
                    .b;
  uint8_t sealed[256];
  size_t sealed_length = sizeof sealed;
  EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(key, nullptr);
  bool ok = EVP_PKEY_encrypt_init(ctx) == 1 &&
            EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_OAEP_PADDING) == 1 &&
            EVP_PKEY_encrypt(ctx, sealed, &sealed_length, plain.data(),
                             plain.size()) == 1;
  EVP_PKEY_CTX_free(ctx);
  EVP_PKEY_free(key);
  if (!ok || sealed_length != 256 ||
      sock_write_all(sock_, sealed, 256) != 256) {
    ADD_FAILURE() << "cannot send the sealed key half";
    return false;
  }
  cipher_ = kfs_cipher_new(mode, half, 0);
  auto m = std::make_unique<kfs_message>();
  if (kfs_packet_recv(sock_, cipher_, m.get()) != 0) {
    ADD_FAILURE() << "no handshake reply";
    return false;
  }
  EXPECT_EQ(m->type, 128);
  EXPECT_EQ(m->data_length, 32);
  EXPECT_EQ(m->sequence, 0);
  EXPECT_EQ(m->status, 0);
  for (int i = 0; i < 32; ++i) {
    half[i] ^= m->buffer[i];
  }
  kfs_cipher_set_key(cipher_, half);
  return m->type == 128 && m->data_length == 32;
}

void test_client::disconnect() {
  if (sock_ >= 0) {
    close(sock_);
  }
  sock_ = -1;
  kfs_cipher_free(cipher_);
  cipher_ = nullptr;
}

bool test_client::send(uint8_t type, const Bytes& body) {
  auto m = std::make_unique<kfs_message>();
  memcpy(m->buffer, body.data(), body.size());
  m->sequence = ++sequence_;
  kfs_request_finish(m.get(), type, static_cast<uint32_t>(body.size()));
  return kfs_packet_send(sock_, cipher_, m.get()) == 0;
}

int test_client::call(uint8_t type, const Bytes& body, Bytes* reply) {
  if (!send(type, body)) {
    return -1;
  }
  auto m = std::make_unique<kfs_message>();
  if (kfs_packet_recv(sock_, cipher_, m.get()) != 0) {
    return -1;
  }
  EXPECT_EQ(m->type, type + KFS_RESPONSE);
  EXPECT_EQ(m->sequence, sequence_);
  if (reply != nullptr) {
    reply->assign(m->buffer, m->buffer + m->data_length);
  }
  return m->status;
}

Bytes sha1_of_key(const uint8_t key[32]) {
  Bytes out(20);
  unsigned int n = 0;
  EVP_Digest(key, 32, out.data(), &n, EVP_sha1(), nullptr);
  return out;
}

Bytes agent_login(uint32_t uid, const uint8_t key[32]) {
  return wire()
      .u8(1)
      .u32(uid)
      .raw(sha1_of_key(key))
      .raw(Bytes(20, 0))
      .u32(0)
      .str16("nightly")
      .str16("nightly.job")
      .b;
}

int test_client::login(uint32_t uid, const uint8_t key[32], Bytes* reply) {
  return call(KFS_SESSION_AUTH, agent_login(uid, key), reply);
}

int test_client::lock(uint32_t uid) {
  return call(KFS_USER_LOCK, wire().u8(0).u16(1).u32(uid).b);
}

bool test_client::closed_by_server() {
  // Whatever the server sent first (its key, say) is read and dropped.
  for (int waited = 0; waited < 5000; waited += 100) {
    struct pollfd p = {sock_, POLLIN, 0};
    if (poll(&p, 1, 100) == 1) {
      uint8_t buffer[4096];
      if (recv(sock_, buffer, sizeof buffer, 0) <= 0) {
        return true;
      }
    }
  }
  return false;
}

login_reply parse_login(const Bytes& reply) {
  unwire in{reply};
  login_reply r;
  r.redirect = in.u8();
  r.host_1 = in.str8();
  r.port_1 = in.u16();
  r.host_2 = in.str8();
  r.port_2 = in.u16();
  r.account_id = in.u32();
  in.str8();
  in.u8();
  in.str8();
  in.u32();
  r.user_name = in.str8();
  in.str8();
  in.u8();
  in.u8();
  in.str8();
  in.str8();
  in.u64();
  in.u64();
  in.u8();
  in.u8();
  r.agent_time = in.u32();
  r.bad = in.bad || in.pos != reply.size();
  return r;
}

Bytes md5_of(const Bytes& data) {
  Bytes out(16);
  unsigned int n = 0;
  EVP_Digest(data.data(), data.size(), out.data(), &n, EVP_md5(), nullptr);
  return out;
}

const uint8_t kKey7[32] = {7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7,
                           7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7};
const uint8_t kKey8[32] = {8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8,
                           8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8};

void KfsdFixture::SetUp() {
  TempDirTest::SetUp();
  ASSERT_NO_FATAL_FAILURE(kfsd_init(data_dir()));
  write_key_file("7.key", kKey7);
  write_key_file("8.key", kKey8);
  ASSERT_NO_FATAL_FAILURE(kfsd_add_user(data_dir(), 7, "alice", "7.key"));
  ASSERT_NO_FATAL_FAILURE(kfsd_add_user(data_dir(), 8, "bob", "8.key"));
  ASSERT_TRUE(server_.start(data_dir(), {"--block-size", "1024"}));
}

void KfsdFixture::TearDown() {
  server_.stop();  // before its data folder goes
  TempDirTest::TearDown();
}
