#include <string.h>

#include <gtest/gtest.h>

#include "kfs/client/kfs.h"

namespace {

using name_fn = const char* (*)(uint32_t);

// Each table at its ends, its gaps and past its end; a caller holding a code
// in a signed int passes -1 through unchanged, and gets the fallback.
TEST(KfsNames, TablesAtTheirEdges) {
  const struct {
    name_fn name_of;
    uint32_t code;
    const char* want;
  } rows[] = {
      {kfs_err_name, 0, "ERR_NONE"},
      {kfs_err_message, 9, "Protocol Mismatch"},
      {kfs_err_name, 8, "ERR_UNKNOWN"},
      {kfs_err_message, 22, "ERR_DESCRIPTION_UNKNOWN"},
      {kfs_err_name, 255, "ERR_SCKWRITE"},
      {kfs_type_name, 0, "KFS_SESSION_HANDSHAKE"},
      {kfs_type_name, 130, "KFS_UNKNOWN"},
      {kfs_type_name, 65 + 128, "KFS_SYNC_CONTROL_RESPONSE"},
      {kfs_type_name, 66, "KFS_UNKNOWN"},
      {kfs_mgnt_name, 24, "MGNT_A_USER_ACCESSIBLE_LIST_SET"},
      {kfs_auth_mode_name, 2, "AUTH_MODE_UNKNOWN"},
      {kfs_acc_type_name, 2, "ACC_TYPE_DEVELOPMENT"},
  };
  for (const auto& row : rows) {
    EXPECT_STREQ(row.name_of(row.code), row.want) << row.code;
  }
  const int code = -1;
  for (name_fn f : {kfs_err_name, kfs_err_message, kfs_type_name,
                    kfs_mgnt_name, kfs_auth_mode_name, kfs_acc_type_name}) {
    EXPECT_NE(strstr(f(code), "UNKNOWN"), nullptr) << f(code);
  }
}

}  // namespace
