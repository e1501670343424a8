// Message bodies: the bytes a request carries and the limits of the body
// writer and reader.
#include <string.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "kfs/client/kfs.h"

namespace {

std::unique_ptr<kfs_message> new_message() {
  auto m = std::make_unique<kfs_message>();
  memset(m.get(), 0, sizeof(kfs_message));
  return m;
}

std::string wire_of(const kfs_message& m) {
  return std::string(reinterpret_cast<const char*>(m.buffer),
                     KFS_HEADER_SIZE + m.data_length);
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
  EXPECT_EQ(wire_of(*m),
            std::string("\0\x19\x07\0\0\x0D"
                        "\xA1\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C"
                        "\x0D\x0E\x02"
                        "ab\0\x03xyz\0\xFF",
                        31));
  EXPECT_EQ(m->flags & KFS_FLAG_EXPECTS_RESPONSE, KFS_FLAG_EXPECTS_RESPONSE);
}

// A received body: readers stay inside data_length, and a text reader that
// fails consumes nothing.
TEST(KfsReader, TextsAndNumbersAtTheEnd) {
  auto m = new_message();
  auto reader_over = [&](const std::string& body) {
    memcpy(m->buffer, body.data(), body.size());
    m->data_length = static_cast<uint16_t>(body.size());
    kfs_reader r;
    kfs_reader_begin(m.get(), &r);
    return r;
  };
  const struct {
    std::string body;
    size_t out_size;
    int want;
  } rows[] = {
      {"\3abc", 8, 0}, {std::string(1, '\0'), 8, 1},
      {"\3abc", 3, 1}, {"\3abc", 4, 0},
      {"\5ab", 8, 1},  {"", 8, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.body + " " + std::to_string(row.out_size));
    kfs_reader r = reader_over(row.body);
    char out[8] = "";
    EXPECT_EQ(kfs_get_str8(&r, out, row.out_size), row.want);
    EXPECT_STREQ(out, row.want == 0 ? "abc" : "");
    EXPECT_EQ(r.pos, row.want == 0 ? row.body.size() : 0u);
  }
  kfs_reader r = reader_over(std::string("\0\2hi\xAB", 5));
  char out[8];
  EXPECT_EQ(kfs_get_str16(&r, out, sizeof out), 0);
  EXPECT_STREQ(out, "hi");
  EXPECT_EQ(kfs_get_u8(&r), 0xAB);
  EXPECT_TRUE(kfs_reader_ok(&r));

  r = reader_over("\1\2\3\4\5\6\7\10\11\12");
  EXPECT_EQ(kfs_get_u16(&r), 0x0102);
  EXPECT_EQ(kfs_get_u64(&r), 0x030405060708090AULL);
  EXPECT_TRUE(kfs_reader_ok(&r));
  EXPECT_EQ(kfs_get_u32(&r), 0u);
  EXPECT_FALSE(kfs_reader_ok(&r));
}

}  // namespace
