// Packets over a real socket pair in both cipher modes: what the peer does
// with damage and with a closed socket. Their bytes are checked against
// OpenSSL and zlib by the scripted server (tests/support), which frames its
// replies itself.
#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "kfs/client/kfs.h"

namespace {

using Bytes = std::vector<uint8_t>;

const uint8_t kKey[32] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11,
                          12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22,
                          23, 24, 25, 26, 27, 28, 29, 30, 31, 32};

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

  // Sends a reply with a body of n patterned bytes.
  void send(uint32_t n) {
    kfs_body body;
    kfs_body_begin(out_.get(), &body);
    for (uint32_t i = 0; i < n; ++i) {
      kfs_put_u8(&body, static_cast<uint8_t>(i * 7 + 1));
    }
    out_->sequence = 0;
    out_->status = ERR_EXISTS;
    kfs_request_finish(out_.get(), KFS_STAT + KFS_RESPONSE, body.length);
    EXPECT_EQ(kfs_packet_send(fds_[0], sender_, out_.get()), 0u);
  }
  Bytes body_of(const kfs_message& m, size_t offset = 0) {
    return Bytes(m.buffer + offset, m.buffer + offset + m.data_length);
  }

  int fds_[2] = {-1, -1};
  kfs_packet_cipher* sender_ = kfs_cipher_new(GetParam(), kKey, 0);
  kfs_packet_cipher* receiver_ = kfs_cipher_new(GetParam(), kKey, 0);
  std::unique_ptr<kfs_message> out_ = std::make_unique<kfs_message>();
  std::unique_ptr<kfs_message> in_ = std::make_unique<kfs_message>();
};

TEST_P(Packets, RoundTripsEveryBodySize) {
  for (uint32_t n : {0u, 1u, 1000u, KFS_MAX_BODY}) {
    SCOPED_TRACE(n);
    send(n);
    ASSERT_EQ(kfs_packet_recv(fds_[1], receiver_, in_.get()), 0u);
    EXPECT_EQ(in_->type, KFS_STAT + KFS_RESPONSE);
    EXPECT_EQ(in_->status, ERR_EXISTS);
    EXPECT_EQ(body_of(*in_), body_of(*out_, KFS_HEADER_SIZE));
  }
}

// A damaged packet, or one longer than any message (length 0 stands for
// 65536), is read whole and dropped: the good one behind it arrives.
TEST_P(Packets, BadPacketIsDroppedAndTheStreamStaysInStep) {
  send(40);
  Bytes good(KFS_HEADER_SIZE + KFS_CIPHER_TEXT_SIZE);
  good.resize(static_cast<size_t>(recv(fds_[1], good.data(), good.size(), 0)));
  ASSERT_GT(good.size(), 46u);
  std::vector<Bytes> bad = {Bytes(6 + 65536, 0)};
  for (size_t at : {2, 5, 6, 20}) {
    bad.push_back(good);
    bad.back()[at] ^= 0x40;
  }
  bad.push_back(good);
  bad.back().back() ^= 0x40;
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
    EXPECT_EQ(body_of(*in_), body_of(*out_, KFS_HEADER_SIZE));
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, Packets, testing::Values(0, KFS_MODE_AES));

}  // namespace
