#include <string.h>

#include <gtest/gtest.h>

#include "kfs/client/kfs.h"

namespace {

using name_fn = const char* (*)(uint32_t);

// Each table at its ends, its gaps and their neighbours, and past its end;
// a caller holding a code in a signed int passes -1 through unchanged.
TEST(KfsNames, TablesAtTheirEdges) {
  const struct {
    name_fn name_of;
    uint32_t code;
    const char* want;
  } rows[] = {
      {kfs_err_name, 0, "ERR_NONE"},
      {kfs_err_message, 0, "No errors"},
      {kfs_err_name, 7, "ERR_FDMAX"},
      {kfs_err_name, 8, "ERR_UNKNOWN"},
      {kfs_err_message, 8, "ERR_DESCRIPTION_UNKNOWN"},
      {kfs_err_name, 9, "ERR_SEQUENCE"},
      {kfs_err_message, 9, "Protocol Mismatch"},
      {kfs_err_name, 22, "ERR_UNKNOWN"},
      {kfs_err_name, 25, "ERR_ACCOUNT_STATUS_PENDING"},
      {kfs_err_name, 26, "ERR_UNKNOWN"},
      {kfs_err_name, 235, "ERR_BAD_PROTOCOL_VERSION"},
      {kfs_err_name, 253, "ERR_UNKNOWN"},
      {kfs_err_name, 255, "ERR_SCKWRITE"},
      {kfs_err_message, 255, "Error during socket write"},
      {kfs_err_name, 256, "ERR_UNKNOWN"},
      {kfs_type_name, 0, "KFS_SESSION_HANDSHAKE"},
      {kfs_type_name, 128, "KFS_SESSION_HANDSHAKE_RESPONSE"},
      {kfs_type_name, 130, "KFS_UNKNOWN"},
      {kfs_type_name, 9, "KFS_UNKNOWN"},
      {kfs_type_name, 13 + 128, "KFS_FILE_CLOSE_RESPONSE"},
      {kfs_type_name, 21, "KFS_USER_LOCK"},
      {kfs_type_name, 22, "KFS_UNKNOWN"},
      {kfs_type_name, 65 + 128, "KFS_SYNC_CONTROL_RESPONSE"},
      {kfs_type_name, 66, "KFS_UNKNOWN"},
      {kfs_type_name, 256, "KFS_UNKNOWN"},
      {kfs_mgnt_name, 0, "MGNT_U_USERNAME"},
      {kfs_mgnt_name, 24, "MGNT_A_USER_ACCESSIBLE_LIST_SET"},
      {kfs_mgnt_name, 25, "MGNT_UNKNOWN"},
      {kfs_auth_mode_name, 2, "AUTH_MODE_UNKNOWN"},
      {kfs_auth_mode_name, 4, "AUTH_MODE_WEB"},
      {kfs_auth_mode_name, 5, "AUTH_MODE_UNKNOWN"},
      {kfs_acc_type_name, 2, "ACC_TYPE_DEVELOPMENT"},
      {kfs_acc_type_name, 3, "ACC_TYPE_UNKNOWN"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.code);
    EXPECT_STREQ(row.name_of(row.code), row.want);
  }
  const int code = -1;
  for (name_fn f : {kfs_err_name, kfs_err_message, kfs_type_name, kfs_mgnt_name,
                    kfs_auth_mode_name, kfs_acc_type_name}) {
    EXPECT_NE(strstr(f(code), "UNKNOWN"), nullptr) << f(code);
  }
}

}  // namespace
