#include <string.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kfs/client/kfs.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::unique_ptr<kfs_message> new_message() {
  auto m = std::make_unique<kfs_message>();
  memset(m.get(), 0, sizeof(kfs_message));
  return m;
}

Bytes wire_of(const kfs_message& m) {
  return Bytes(m.buffer, m.buffer + KFS_HEADER_SIZE + m.data_length);
}

TEST(KfsBody, RequestBytesAreBigEndianBehindTheHeader) {
  auto m = new_message();
  m->status = 13;  // left by the last response: echoed, not cleared
  kfs_body body;
  kfs_body_begin(m.get(), &body);
  kfs_put_u8(&body, 0xA1);
  kfs_put_u16(&body, 0x0102);
  kfs_put_u32(&body, 0x03040506);
  kfs_put_u64(&body, 0x0708090A0B0C0D0EULL);
  kfs_put_str8(&body, "ab");
  kfs_put_str16(&body, "xyz");
  kfs_put_bytes(&body, "\0\xff", 2);
  ASSERT_TRUE(kfs_body_ok(&body));
  kfs_request_finish(m.get(), KFS_MKDIR, body.length);

  const Bytes want = {0x00, 0x19, 0x07, 0x00, 0x00, 0x0D,  // header
                      0xA1, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,
                      0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x02, 'a',  'b',
                      0x00, 0x03, 'x',  'y',  'z',  0x00, 0xFF};
  EXPECT_EQ(wire_of(*m), want);
  EXPECT_EQ(m->flags & KFS_FLAG_EXPECTS_RESPONSE, KFS_FLAG_EXPECTS_RESPONSE);
}

TEST(KfsBody, LimitsOfTextsAndBody) {
  auto m = new_message();
  kfs_body body;
  kfs_body_begin(m.get(), &body);
  kfs_put_str8(&body, std::string(300, 'q').c_str());  // length byte wraps
  EXPECT_EQ(body.length, 1u + 44u);
  EXPECT_EQ(m->buffer[0], 44);
  Bytes fill(KFS_MAX_BODY - body.length, 0x33);
  ASSERT_EQ(
      kfs_put_bytes(&body, fill.data(), static_cast<uint32_t>(fill.size())), 0);
  EXPECT_EQ(kfs_put_u8(&body, 1), -1);  // one byte too many
  EXPECT_FALSE(kfs_body_ok(&body));
  EXPECT_EQ(body.length, KFS_MAX_BODY);
}

TEST(KfsBody, FileWriteRefusesMoreThanItsLimit) {
  auto m = new_message();
  Bytes data(KFS_MAX_WRITE_DATA + 1, 0x5A);
  ASSERT_EQ(kfs_build_file_write(m.get(), 7, 0, data.data(), 65491), 0u);
  EXPECT_EQ(m->data_length, 4 + 65491);
  EXPECT_EQ(m->buffer[6], 7);
  EXPECT_EQ(m->buffer[8], 0xFF);  // u16 n = 65491 = 0xFFD3
  EXPECT_EQ(m->buffer[9], 0xD3);
  EXPECT_NE(m->flags & KFS_FLAG_EXPECTS_RESPONSE, 0u);

  auto refused = new_message();
  EXPECT_EQ(kfs_build_file_write(refused.get(), 7, 0, data.data(), 65492),
            ERR_DATAMAX);
  EXPECT_EQ(refused->data_length, 0);
  EXPECT_EQ(refused->buffer[0], 0);

  ASSERT_EQ(kfs_build_file_write(m.get(), 7, KFS_WRITE_NO_ACK, "x", 1), 0u);
  EXPECT_EQ(m->flags & KFS_FLAG_EXPECTS_RESPONSE, 0u);
}

// A received body: readers stay inside data_length.
kfs_reader reader_over(kfs_message* m, const Bytes& body) {
  std::copy(body.begin(), body.end(), m->buffer);
  m->data_length = static_cast<uint16_t>(body.size());
  kfs_reader r;
  kfs_reader_begin(m, &r);
  return r;
}

TEST(KfsReader, TextReadersFailWithoutConsuming) {
  auto m = new_message();
  struct {
    const char* name;
    Bytes body;
    size_t out_size;
    int want;
    const char* text;
  } const cases[] = {
      {"str8", {3, 'a', 'b', 'c'}, 8, 0, "abc"},
      {"empty str8", {0}, 8, 1, ""},
      {"n equal to buffer size", {3, 'a', 'b', 'c'}, 3, 1, ""},
      {"n one below buffer size", {3, 'a', 'b', 'c'}, 4, 0, "abc"},
      {"body ends inside text", {5, 'a', 'b'}, 8, 1, ""},
      {"no length byte", {}, 8, 1, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    kfs_reader r = reader_over(m.get(), c.body);
    char out[8] = "";
    EXPECT_EQ(kfs_get_str8(&r, out, c.out_size), c.want);
    EXPECT_STREQ(out, c.text);
    EXPECT_EQ(r.pos, c.want == 0 ? c.body.size() : 0u);
  }
  kfs_reader r = reader_over(m.get(), {0x00, 0x02, 'h', 'i', 0xAB});
  char out[8];
  EXPECT_EQ(kfs_get_str16(&r, out, sizeof out), 0);
  EXPECT_STREQ(out, "hi");
  EXPECT_EQ(kfs_get_u8(&r), 0xAB);
  EXPECT_TRUE(kfs_reader_ok(&r));
}

TEST(KfsReader, NumbersPastTheEndFail) {
  auto m = new_message();
  kfs_reader r = reader_over(
      m.get(), {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A});
  EXPECT_EQ(kfs_get_u16(&r), 0x0102);
  EXPECT_EQ(kfs_get_u64(&r), 0x030405060708090AULL);
  EXPECT_TRUE(kfs_reader_ok(&r));
  EXPECT_EQ(kfs_get_u32(&r), 0u);
  EXPECT_FALSE(kfs_reader_ok(&r));
}

}  // namespace
