#include "lib/hex.h"

#include <string.h>

#include <gtest/gtest.h>

namespace {

TEST(Hex, EncodesUpperCase) {
  const uint8_t bytes[] = {0x00, 0xAB, 0xFF};
  char out[7];
  EXPECT_STREQ(hex_encode(bytes, 3, out), "00ABFF");
  EXPECT_STREQ(hex_encode(bytes, 0, out), "");
}

TEST(Hex, DecodesEitherCaseWithoutChecking) {
  struct {
    const char* text;
    uint8_t want[3];
  } const cases[] = {
      {"00abff", {0x00, 0xAB, 0xFF}},
      {"00ABFF", {0x00, 0xAB, 0xFF}},
      {"1g2G3z", {0x20, 0x30, 0x53}},  // unchecked: 'g' counts as 16
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    uint8_t out[3] = {};
    hex_decode(c.text, 3, out);
    EXPECT_EQ(memcmp(out, c.want, 3), 0);
  }
  uint8_t untouched[1] = {0x5A};
  hex_decode("00", 0, untouched);
  EXPECT_EQ(untouched[0], 0x5A);
}

}  // namespace
