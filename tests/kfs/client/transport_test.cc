// Packets over a real socket pair in both cipher modes; the expected bytes
// are computed here with zlib and EVP directly.
#include <errno.h>
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

// The packet the sender must produce for a plain message.
Bytes expected_packet(int mode, const Bytes& plain) {
  const uint8_t iv[16] = {};
  Bytes payload(plain.size() + 16);
  int n = 0, last = 0;
  EVP_CIPHER_CTX* c = EVP_CIPHER_CTX_new();
  EVP_EncryptInit_ex(c,
                     mode == KFS_MODE_AES ? EVP_aes_256_cbc() : EVP_enc_null(),
                     nullptr, kKey, iv);
  EVP_EncryptUpdate(c, payload.data(), &n, plain.data(),
                    static_cast<int>(plain.size()));
  EVP_EncryptFinal_ex(c, payload.data() + n, &last);
  EVP_CIPHER_CTX_free(c);
  payload.resize(static_cast<size_t>(n + last));
  auto crc = static_cast<uint32_t>(crc32(crc32(0L, Z_NULL, 0), plain.data(),
                                         static_cast<uInt>(plain.size())));
  uint64_t header = static_cast<uint64_t>(payload.size()) << 32 | crc;
  Bytes packet(6);
  for (int i = 0; i < 6; ++i) {
    packet[i] = static_cast<uint8_t>(header >> (40 - 8 * i));
  }
  packet.resize(6 + payload.size());
  std::copy(payload.begin(), payload.end(), packet.begin() + 6);
  return packet;
}

class Packets : public testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0);
  }
  void TearDown() override {
    kfs_cipher_free(sender_);
    kfs_cipher_free(receiver_);
    close(fds_[0]);
    close(fds_[1]);  // -1 once a test has closed it
  }

  // Builds a reply with a body of n patterned bytes into out_ and returns
  // its plain bytes.
  Bytes build(uint32_t n) {
    kfs_body body;
    kfs_body_begin(out_.get(), &body);
    for (uint32_t i = 0; i < n; ++i) {
      kfs_put_u8(&body, static_cast<uint8_t>(i * 7 + 1));
    }
    out_->sequence = 0;
    out_->status = ERR_EXISTS;
    kfs_request_finish(out_.get(), KFS_STAT + KFS_RESPONSE, body.length);
    return Bytes(out_->buffer, out_->buffer + KFS_HEADER_SIZE + n);
  }

  int fds_[2] = {-1, -1};
  kfs_packet_cipher* sender_ = kfs_cipher_new(GetParam(), kKey, 0);
  kfs_packet_cipher* receiver_ = kfs_cipher_new(GetParam(), kKey, 0);
  std::unique_ptr<kfs_message> out_ = std::make_unique<kfs_message>();
  std::unique_ptr<kfs_message> in_ = std::make_unique<kfs_message>();
};

TEST_P(Packets, BytesOnTheWireAndBack) {
  for (uint32_t n : {0u, 1u, 9u, 10u, 1000u, KFS_MAX_BODY}) {
    SCOPED_TRACE(n);
    Bytes plain = build(n);
    Bytes want = expected_packet(GetParam(), plain);
    // Twice: equal messages give equal packets (a fresh chain each time).
    for (int round = 0; round < 2; ++round) {
      ASSERT_EQ(kfs_packet_send(fds_[0], sender_, out_.get()), 0u);
      Bytes got(want.size());
      sock_read_all(fds_[1], got.data(), static_cast<int64_t>(got.size()));
      EXPECT_EQ(got, want);
    }
    ASSERT_EQ(kfs_packet_send(fds_[0], sender_, out_.get()), 0u);
    ASSERT_EQ(kfs_packet_recv(fds_[1], receiver_, in_.get()), 0u);
    Bytes header = {static_cast<uint8_t>(in_->data_length >> 8),
                    static_cast<uint8_t>(in_->data_length),
                    in_->type,
                    static_cast<uint8_t>(in_->sequence >> 8),
                    static_cast<uint8_t>(in_->sequence),
                    in_->status};
    header.insert(header.end(), in_->buffer, in_->buffer + n);
    EXPECT_EQ(header, plain);
  }
}

// A damaged packet, or one longer than any message (length 0 stands for
// 65536), is read whole and dropped: the good one behind it arrives.
TEST_P(Packets, BadPacketIsDroppedAndTheStreamStaysInStep) {
  Bytes good = expected_packet(GetParam(), build(40));
  Bytes huge(6 + 65536, 0);
  std::vector<Bytes> bad = {huge};
  for (size_t at :
       {size_t{2}, size_t{5}, size_t{6}, size_t{20}, good.size() - 1}) {
    bad.push_back(good);
    bad.back()[at] ^= 0x40;
  }
  for (size_t i = 0; i < bad.size(); ++i) {
    SCOPED_TRACE(i);
    for (const Bytes* b : {&bad[i], &good}) {
      auto n = static_cast<int64_t>(b->size());
      ASSERT_EQ(sock_write_all(fds_[0], b->data(), n), n);
    }
    EXPECT_EQ(kfs_packet_recv(fds_[1], receiver_, in_.get()), ERR_SCKREAD);
    uint32_t raw_length = 0;
    Bytes raw(good.size());
    ASSERT_EQ(kfs_packet_recv_raw(fds_[1], receiver_, in_.get(), raw.data(),
                                  raw.size(), &raw_length),
              0u);
    EXPECT_EQ(raw_length, good.size());
    EXPECT_EQ(raw, good);
    EXPECT_EQ(in_->data_length, 40);
  }
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
