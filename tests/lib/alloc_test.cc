#include "lib/alloc.h"

#include <stdint.h>
#include <stdlib.h>

#include <gtest/gtest.h>

namespace {

// The message ends the output; a sanitizer may warn before it.
constexpr char kMessage[] = "virtual memory exhausted\n$";

TEST(Alloc, ExhaustionEndsWithTheFixedMessage) {
  // Above PTRDIFF_MAX, which malloc refuses on every target, so each
  // wrapper takes its exit. (SIZE_MAX / 2 itself is only 2 GiB on 32-bit
  // ARM, and may be granted.)
  const size_t huge = SIZE_MAX / 2 + 1;
  EXPECT_EXIT(xmalloc(huge), testing::ExitedWithCode(1), kMessage);
  EXPECT_EXIT(xzalloc(huge), testing::ExitedWithCode(1), kMessage);
  EXPECT_EXIT(xcalloc(huge, 2), testing::ExitedWithCode(1), kMessage);
  EXPECT_EXIT(xrealloc(nullptr, huge), testing::ExitedWithCode(1), kMessage);
}

TEST(Alloc, ZeroedBlocksAreZero) {
  auto* p = static_cast<uint8_t*>(xzalloc(64));
  auto* q = static_cast<uint8_t*>(xcalloc(8, 8));
  for (int i = 0; i < 64; ++i) {
    ASSERT_EQ(p[i] | q[i], 0);
  }
  free(p);
  free(q);
}

}  // namespace
