#include <initializer_list>

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

constexpr type_case kTypeCases[] = {
    {0, "KFS_SESSION_HANDSHAKE", "KFS_SESSION_HANDSHAKE_RESPONSE"},
    {1, "KFS_SESSION_AUTH", "KFS_SESSION_AUTH_RESPONSE"},
    {2, "KFS_SESSION_CLOSE", "KFS_UNKNOWN"},
    {3, "KFS_STAT", "KFS_STAT_RESPONSE"},
    {4, "KFS_MOVE", "KFS_MOVE_RESPONSE"},
    {5, "KFS_COPY", "KFS_COPY_RESPONSE"},
    {6, "KFS_DELETE", "KFS_DELETE_RESPONSE"},
    {7, "KFS_MKDIR", "KFS_MKDIR_RESPONSE"},
    {8, "KFS_FIND_FILES", "KFS_FIND_FILES_RESPONSE"},
    {9, "KFS_UNKNOWN", "KFS_UNKNOWN"},
    {10, "KFS_EMAIL", "KFS_EMAIL_RESPONSE"},
    {11, "KFS_FILE_READ", "KFS_FILE_READ_RESPONSE"},
    {12, "KFS_FILE_WRITE", "KFS_FILE_WRITE_RESPONSE"},
    {13, "KFS_FILE_CLOSE", "KFS_FILE_CLOSE_RESPONSE"},
    {14, "KFS_UNKNOWN", "KFS_UNKNOWN"},
    {15, "KFS_SETOPT", "KFS_SETOPT_RESPONSE"},
    {16, "KFS_FIND_USERS", "KFS_FIND_USERS_RESPONSE"},
    {17, "KFS_FILE_WOPEN", "KFS_FILE_WOPEN_RESPONSE"},
    {18, "KFS_FILE_ROPEN", "KFS_FILE_ROPEN_RESPONSE"},
    {19, "KFS_UNKNOWN", "KFS_UNKNOWN"},
    {20, "KFS_MGNT", "KFS_MGNT_RESPONSE"},
    {21, "KFS_USER_LOCK", "KFS_USER_LOCK_RESPONSE"},
    {22, "KFS_UNKNOWN", "KFS_UNKNOWN"},
    {63, "KFS_UNKNOWN", "KFS_UNKNOWN"},
    {64, "KFS_SYNC_LOGIN", "KFS_SYNC_LOGIN_RESPONSE"},
    {65, "KFS_SYNC_CONTROL", "KFS_SYNC_CONTROL_RESPONSE"},
    {66, "KFS_UNKNOWN", "KFS_UNKNOWN"},
    {127, "KFS_UNKNOWN", "KFS_UNKNOWN"},
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

// Names codes 0, 1, 2... in turn; each list runs one past the last name, so
// the bound itself is checked.
void expect_names(const char* (*name_of)(uint32_t),
                  std::initializer_list<const char*> want) {
  uint32_t code = 0;
  for (const char* name : want) {
    SCOPED_TRACE(code);
    EXPECT_STREQ(name_of(code++), name);
  }
}

TEST(KfsNames, ShortTables) {
  expect_names(kfs_mgnt_name, {"MGNT_U_USERNAME",
                               "MGNT_U_PASSWORD",
                               "MGNT_U_FIRSTNAME",
                               "MGNT_U_LASTNAME",
                               "MGNT_U_EMAIL",
                               "MGNT_U_PHONE",
                               "MGNT_U_FAX",
                               "MGNT_U_MACHINE_TOKEN_CLEAR",
                               "MGNT_U_MACHINE_TOKEN_ADD",
                               "MGNT_U_HISTORY_SLOTS",
                               "MGNT_A_USER_CREATE",
                               "MGNT_A_USER_DELETE",
                               "MGNT_A_ACC_BILLING_GET",
                               "MGNT_A_ACC_BILLING_SET",
                               "MGNT_A_ACC_IPLOCK_CREATE",
                               "MGNT_A_ACC_IPLOCK_DELETE",
                               "MGNT_A_ACC_IPLOCK_FIND",
                               "MGNT_A_ACC_IPLOCK_RENAME",
                               "MGNT_A_ACC_IPLOCK_GET",
                               "MGNT_A_ACC_IPLOCK_SET",
                               "MGNT_A_USER_IPLOCK_GET",
                               "MGNT_A_USER_IPLOCK_SET",
                               "MGNT_A_ACC_CREATE",
                               "MGNT_A_ACC_DELETE",
                               "MGNT_A_USER_ACCESSIBLE_LIST_SET",
                               "MGNT_UNKNOWN"});
  expect_names(
      kfs_auth_mode_name,
      {"AUTH_MODE_USER", "AUTH_MODE_AGENT", "AUTH_MODE_UNKNOWN",
       "AUTH_MODE_ENCRYPTION_TOKEN", "AUTH_MODE_WEB", "AUTH_MODE_UNKNOWN"});
  expect_names(kfs_acc_type_name, {"ACC_TYPE_REGULAR", "ACC_TYPE_HOUSE",
                                   "ACC_TYPE_DEVELOPMENT", "ACC_TYPE_UNKNOWN"});
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
