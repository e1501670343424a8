#include <gtest/gtest.h>

#include "kfs/client/kfs.h"

namespace {

struct err_case {
  uint32_t code;
  const char* name;
  const char* message;
};

// Every named code, then the unnamed ones on both sides of each gap.
constexpr err_case kErrCases[] = {
    {0, "ERR_NONE", "No errors"},
    {1, "ERR_BADPATH", "No such file or directory"},
    {2, "ERR_NOTDIR", "Not a Directory"},
    {3, "ERR_NOTFILE", "Not a File"},
    {4, "ERR_ACCESS", "Access Denied"},
    {5, "ERR_IO", "IO communication error"},
    {6, "ERR_EXISTS", "File exists"},
    {7, "ERR_FDMAX", "To many open files"},
    {9, "ERR_SEQUENCE", "Protocol Mismatch"},
    {10, "ERR_DATAMAX", "KFS packet max data length exceeded"},
    {11, "ERR_TIMEOUT", "KFS Session has timed out"},
    {12, "ERR_FSACCESS", "File system access error"},
    {13, "ERR_BADKEY", "Invalid key"},
    {14, "ERR_NOTEMPTY", "Directory not Empty"},
    {15, "ERR_BUSY", "File in use"},
    {16, "ERR_EOF", "End of file has been reached"},
    {17, "ERR_UP2DATE", "File is up to date"},
    {18, "ERR_INVARG", "Invalid argument"},
    {19, "ERR_FINDMAX", "To many open finds"},
    {20, "ERR_NOCSUM", "Missing checksum for file block"},
    {21, "ERR_AUTH_FAILURE", "Authentication error"},
    {23, "ERR_ACCOUNT_STATUS_INACTIVE",
     "Please contact customer service at 1-800-555-0100 for assistance with "
     "your account."},
    {24, "ERR_USER_LOCKED", "User is locked"},
    {25, "ERR_ACCOUNT_STATUS_PENDING", "Account is not activated"},
    {235, "ERR_BAD_PROTOCOL_VERSION", "Invalid Protocol Version"},
    {254, "ERR_SCKREAD", "Error during socket read"},
    {255, "ERR_SCKWRITE", "Error during socket write"},
    {8, "ERR_UNKNOWN", "ERR_DESCRIPTION_UNKNOWN"},
    {22, "ERR_UNKNOWN", "ERR_DESCRIPTION_UNKNOWN"},
    {26, "ERR_UNKNOWN", "ERR_DESCRIPTION_UNKNOWN"},
    {234, "ERR_UNKNOWN", "ERR_DESCRIPTION_UNKNOWN"},
    {236, "ERR_UNKNOWN", "ERR_DESCRIPTION_UNKNOWN"},
    {253, "ERR_UNKNOWN", "ERR_DESCRIPTION_UNKNOWN"},
    {256, "ERR_UNKNOWN", "ERR_DESCRIPTION_UNKNOWN"},
};

TEST(KfsNames, ErrorNamesAndMessages) {
  for (const auto& c : kErrCases) {
    SCOPED_TRACE(c.code);
    EXPECT_STREQ(kfs_err_name(c.code), c.name);
    EXPECT_STREQ(kfs_err_message(c.code), c.message);
  }
}

// Requests 0..65 with their responses at +128; a missing response name means
// that response prints "KFS_UNKNOWN".
struct type_case {
  uint32_t code;
  const char* name;
  const char* response;
};

// The ends of the table, its gaps and their neighbours.
constexpr type_case kTypeCases[] = {
    {0, "KFS_SESSION_HANDSHAKE", "KFS_SESSION_HANDSHAKE_RESPONSE"},
    {2, "KFS_SESSION_CLOSE", "KFS_UNKNOWN"},
    {3, "KFS_STAT", "KFS_STAT_RESPONSE"},
    {8, "KFS_FIND_FILES", "KFS_FIND_FILES_RESPONSE"},
    {9, "KFS_UNKNOWN", "KFS_UNKNOWN"},
    {13, "KFS_FILE_CLOSE", "KFS_FILE_CLOSE_RESPONSE"},
    {14, "KFS_UNKNOWN", "KFS_UNKNOWN"},
    {18, "KFS_FILE_ROPEN", "KFS_FILE_ROPEN_RESPONSE"},
    {19, "KFS_UNKNOWN", "KFS_UNKNOWN"},
    {21, "KFS_USER_LOCK", "KFS_USER_LOCK_RESPONSE"},
    {22, "KFS_UNKNOWN", "KFS_UNKNOWN"},
    {64, "KFS_SYNC_LOGIN", "KFS_SYNC_LOGIN_RESPONSE"},
    {65, "KFS_SYNC_CONTROL", "KFS_SYNC_CONTROL_RESPONSE"},
    {66, "KFS_UNKNOWN", "KFS_UNKNOWN"},
};

TEST(KfsNames, MessageTypeNames) {
  for (const auto& c : kTypeCases) {
    SCOPED_TRACE(c.code);
    EXPECT_STREQ(kfs_type_name(c.code), c.name);
    EXPECT_STREQ(kfs_type_name(c.code + 128), c.response);
  }
  for (uint32_t code : {256u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(code);
    EXPECT_STREQ(kfs_type_name(code), "KFS_UNKNOWN");
  }
}

TEST(KfsNames, ShortTables) {
  const struct {
    const char* (*name_of)(uint32_t);
    uint32_t code;
    const char* want;
  } cases[] = {
      {kfs_mgnt_name, 0, "MGNT_U_USERNAME"},
      {kfs_mgnt_name, 9, "MGNT_U_HISTORY_SLOTS"},
      {kfs_mgnt_name, 10, "MGNT_A_USER_CREATE"},
      {kfs_mgnt_name, 24, "MGNT_A_USER_ACCESSIBLE_LIST_SET"},
      {kfs_mgnt_name, 25, "MGNT_UNKNOWN"},
      {kfs_auth_mode_name, 1, "AUTH_MODE_AGENT"},
      {kfs_auth_mode_name, 2, "AUTH_MODE_UNKNOWN"},
      {kfs_auth_mode_name, 4, "AUTH_MODE_WEB"},
      {kfs_auth_mode_name, 5, "AUTH_MODE_UNKNOWN"},
      {kfs_acc_type_name, 2, "ACC_TYPE_DEVELOPMENT"},
      {kfs_acc_type_name, 3, "ACC_TYPE_UNKNOWN"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.want);
    EXPECT_STREQ(c.name_of(c.code), c.want);
  }
}

// A caller holding the code in a signed int passes -1 through unchanged.
TEST(KfsNames, NegativeCodeFallsBack) {
  const int code = -1;
  EXPECT_STREQ(kfs_err_name(code), "ERR_UNKNOWN");
  EXPECT_STREQ(kfs_err_message(code), "ERR_DESCRIPTION_UNKNOWN");
  EXPECT_STREQ(kfs_type_name(code), "KFS_UNKNOWN");
  EXPECT_STREQ(kfs_mgnt_name(code), "MGNT_UNKNOWN");
  EXPECT_STREQ(kfs_auth_mode_name(code), "AUTH_MODE_UNKNOWN");
  EXPECT_STREQ(kfs_acc_type_name(code), "ACC_TYPE_UNKNOWN");
}

}  // namespace
