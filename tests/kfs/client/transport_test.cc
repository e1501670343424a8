// Packets over a real socket pair; the expected bytes are computed here
// with zlib and EVP directly.
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <zlib.h>

#include "kfs/client/kfs.h"

namespace {

using Bytes = std::vector<uint8_t>;

const uint8_t kKey[32] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11,
                          12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22,
                          23, 24, 25, 26, 27, 28, 29, 30, 31, 32};

Bytes aes_cbc_zero_iv(const Bytes& plain) {
  const uint8_t iv[16] = {};
  Bytes out(plain.size() + 16);
  int n = 0, last = 0;
  EVP_CIPHER_CTX* c = EVP_CIPHER_CTX_new();
  EVP_EncryptInit_ex(c, EVP_aes_256_cbc(), nullptr, kKey, iv);
  EVP_EncryptUpdate(c, out.data(), &n, plain.data(),
                    static_cast<int>(plain.size()));
  EVP_EncryptFinal_ex(c, out.data() + n, &last);
  EVP_CIPHER_CTX_free(c);
  out.resize(static_cast<size_t>(n + last));
  return out;
}

// The packet the sender must produce for a plain message.
Bytes expected_packet(int mode, const Bytes& plain) {
  Bytes payload = mode == KFS_MODE_AES ? aes_cbc_zero_iv(plain) : plain;
  uint32_t crc = static_cast<uint32_t>(crc32(crc32(0L, Z_NULL, 0), plain.data(),
                                             static_cast<uInt>(plain.size())));
  Bytes packet(6 + payload.size());
  packet[0] = static_cast<uint8_t>(payload.size() >> 8);
  packet[1] = static_cast<uint8_t>(payload.size());
  for (int i = 0; i < 4; ++i) {
    packet[2 + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
  }
  std::copy(payload.begin(), payload.end(), packet.begin() + 6);
  return packet;
}

class Packets : public testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0);
    mode_ = GetParam();
    sender_ = kfs_cipher_new(mode_, kKey, 0);
    receiver_ = kfs_cipher_new(mode_, kKey, 0);
    memset(out_.get(), 0, sizeof(kfs_message));
    memset(in_.get(), 0, sizeof(kfs_message));
  }
  void TearDown() override {
    kfs_cipher_free(sender_);
    kfs_cipher_free(receiver_);
    close(fds_[0]);
    if (fds_[1] >= 0) {
      close(fds_[1]);
    }
  }

  // Builds a response-like message with a body of n patterned bytes and
  // returns its plain bytes.
  Bytes build(uint32_t n, uint8_t type = KFS_STAT + KFS_RESPONSE) {
    kfs_body body;
    kfs_body_begin(out_.get(), &body);
    for (uint32_t i = 0; i < n; ++i) {
      kfs_put_u8(&body, static_cast<uint8_t>(i * 7 + 1));
    }
    out_->status = ERR_EXISTS;
    kfs_request_finish(out_.get(), type, body.length);
    return Bytes(out_->buffer, out_->buffer + KFS_HEADER_SIZE + n);
  }

  Bytes read_bytes(size_t n) {
    Bytes b(n);
    EXPECT_EQ(sock_read_all(fds_[1], b.data(), static_cast<int64_t>(n)),
              static_cast<int64_t>(n));
    return b;
  }

  void write_bytes(const Bytes& b) {
    ASSERT_EQ(sock_write_all(fds_[0], b.data(), static_cast<int64_t>(b.size())),
              static_cast<int64_t>(b.size()));
  }

  int fds_[2] = {-1, -1};
  int mode_ = 0;
  kfs_packet_cipher* sender_ = nullptr;
  kfs_packet_cipher* receiver_ = nullptr;
  std::unique_ptr<kfs_message> out_ = std::make_unique<kfs_message>();
  std::unique_ptr<kfs_message> in_ = std::make_unique<kfs_message>();
};

TEST_P(Packets, BytesOnTheWireAndBack) {
  for (uint32_t n : {0u, 1u, 9u, 10u, 1000u, KFS_MAX_BODY}) {
    SCOPED_TRACE(n);
    Bytes plain = build(n);
    Bytes want = expected_packet(mode_, plain);
    // Twice: equal messages give equal packets (a fresh chain each time).
    for (int round = 0; round < 2; ++round) {
      ASSERT_EQ(kfs_packet_send(fds_[0], sender_, out_.get()), 0u);
      EXPECT_EQ(read_bytes(want.size()), want);
    }
    ASSERT_EQ(kfs_packet_send(fds_[0], sender_, out_.get()), 0u);
    ASSERT_EQ(kfs_packet_recv(fds_[1], receiver_, in_.get()), 0u);
    EXPECT_EQ(in_->data_length, n);
    EXPECT_EQ(in_->type, KFS_STAT + KFS_RESPONSE);
    EXPECT_EQ(in_->sequence, 0);
    EXPECT_EQ(in_->status, ERR_EXISTS);
    EXPECT_EQ(Bytes(in_->buffer, in_->buffer + n),
              Bytes(plain.begin() + KFS_HEADER_SIZE, plain.end()));
  }
}

TEST_P(Packets, DamagedPacketIsDroppedAndTheStreamStaysInStep) {
  Bytes good = expected_packet(mode_, build(40));
  uint32_t raw_length = 0;
  Bytes raw(good.size());
  for (size_t at :
       {size_t{2}, size_t{5}, size_t{6}, size_t{20}, good.size() - 1}) {
    SCOPED_TRACE(at);
    Bytes bad = good;
    bad[at] ^= 0x40;
    write_bytes(bad);
    write_bytes(good);
    EXPECT_EQ(kfs_packet_recv(fds_[1], receiver_, in_.get()), ERR_SCKREAD);
    ASSERT_EQ(kfs_packet_recv_raw(fds_[1], receiver_, in_.get(), raw.data(),
                                  raw.size(), &raw_length),
              0u);
    EXPECT_EQ(raw_length, good.size());
    EXPECT_EQ(raw, good);
    EXPECT_EQ(in_->data_length, 40);
  }
}

TEST_P(Packets, LengthZeroMeansMaximumPacket) {
  Bytes huge(6 + 65536, 0x11);
  std::fill(huge.begin(), huge.begin() + 6, 0);
  Bytes good = expected_packet(mode_, build(3));
  write_bytes(huge);
  write_bytes(good);
  EXPECT_EQ(kfs_packet_recv(fds_[1], receiver_, in_.get()), ERR_SCKREAD);
  EXPECT_EQ(kfs_packet_recv(fds_[1], receiver_, in_.get()), 0u);
  EXPECT_EQ(in_->data_length, 3);
}

TEST_P(Packets, ClosedPeerIsAnErrorNotASignal) {
  build(10);
  EXPECT_EQ(sock_is_idle(fds_[0]), 1);
  ASSERT_EQ(fd_write_all(fds_[1], "ab", 2), 2);
  close(fds_[1]);
  fds_[1] = -1;
  EXPECT_EQ(sock_is_idle(fds_[0]), 0);  // readable at end of file
  uint8_t b[4];
  EXPECT_EQ(sock_read_all(fds_[0], b, 4), -1);  // closed after 2 bytes
  EXPECT_EQ(kfs_packet_send(fds_[0], sender_, out_.get()), ERR_SCKWRITE);
  EXPECT_EQ(kfs_packet_recv(fds_[0], receiver_, in_.get()), ERR_SCKREAD);
  errno = 0;
  EXPECT_EQ(sock_connect("", 80), -1);
  EXPECT_EQ(errno, EINVAL);
}

INSTANTIATE_TEST_SUITE_P(Modes, Packets, testing::Values(0, KFS_MODE_AES));

}  // namespace
