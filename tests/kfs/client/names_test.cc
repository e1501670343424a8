#include <string.h>

#include <utility>

#include <gtest/gtest.h>

#include "kfs/client/kfs.h"

namespace {

// A code past a table's end, or a code held in a signed int and passed
// through as -1, gets the table's fallback rather than a read past its end.
TEST(KfsNames, CodesPastEachTableFallBack) {
  using name_fn = const char* (*)(uint32_t);
  const std::pair<name_fn, uint32_t> rows[] = {
      {kfs_err_name, 256}, {kfs_err_message, 8},    {kfs_type_name, 194},
      {kfs_mgnt_name, 25}, {kfs_auth_mode_name, 5}, {kfs_acc_type_name, 3},
  };
  const int negative = -1;
  for (const auto& [name_of, past] : rows) {
    EXPECT_NE(strstr(name_of(past), "UNKNOWN"), nullptr) << name_of(past);
    EXPECT_NE(strstr(name_of(negative), "UNKNOWN"), nullptr);
    EXPECT_EQ(strstr(name_of(past - 1), "UNKNOWN"), nullptr) << past - 1;
  }
}

}  // namespace
