// Printable names of protocol codes for logs and reports: compile-time
// tables, so a lookup can neither fail nor allocate.
#include <array>
#include <span>

#include "kfs/client/kfs.h"

namespace {

// Message types. Only these pairs are named; every other slot of the indexed
// table holds the fallback, so one bound check and one load name any code.
struct type_row {
  uint32_t code;
  const char* name;
};

constexpr type_row kTypeRows[] = {
    {KFS_SESSION_HANDSHAKE, "KFS_SESSION_HANDSHAKE"},
    {KFS_SESSION_AUTH, "KFS_SESSION_AUTH"},
    {KFS_SESSION_CLOSE, "KFS_SESSION_CLOSE"},
    {KFS_STAT, "KFS_STAT"},
    {KFS_MOVE, "KFS_MOVE"},
    {KFS_COPY, "KFS_COPY"},
    {KFS_DELETE, "KFS_DELETE"},
    {KFS_MKDIR, "KFS_MKDIR"},
    {KFS_FIND_FILES, "KFS_FIND_FILES"},
    {KFS_EMAIL, "KFS_EMAIL"},
    {KFS_FILE_READ, "KFS_FILE_READ"},
    {KFS_FILE_WRITE, "KFS_FILE_WRITE"},
    {KFS_FILE_CLOSE, "KFS_FILE_CLOSE"},
    {KFS_SETOPT, "KFS_SETOPT"},
    {KFS_FIND_USERS, "KFS_FIND_USERS"},
    {KFS_FILE_WOPEN, "KFS_FILE_WOPEN"},
    {KFS_FILE_ROPEN, "KFS_FILE_ROPEN"},
    {KFS_MGNT, "KFS_MGNT"},
    {KFS_USER_LOCK, "KFS_USER_LOCK"},
    {KFS_SYNC_LOGIN, "KFS_SYNC_LOGIN"},
    {KFS_SYNC_CONTROL, "KFS_SYNC_CONTROL"},
    {KFS_SESSION_HANDSHAKE + KFS_RESPONSE, "KFS_SESSION_HANDSHAKE_RESPONSE"},
    {KFS_SESSION_AUTH + KFS_RESPONSE, "KFS_SESSION_AUTH_RESPONSE"},
    // No row for 130: the close response has no name and prints the fallback.
    {KFS_STAT + KFS_RESPONSE, "KFS_STAT_RESPONSE"},
    {KFS_MOVE + KFS_RESPONSE, "KFS_MOVE_RESPONSE"},
    {KFS_COPY + KFS_RESPONSE, "KFS_COPY_RESPONSE"},
    {KFS_DELETE + KFS_RESPONSE, "KFS_DELETE_RESPONSE"},
    {KFS_MKDIR + KFS_RESPONSE, "KFS_MKDIR_RESPONSE"},
    {KFS_FIND_FILES + KFS_RESPONSE, "KFS_FIND_FILES_RESPONSE"},
    {KFS_EMAIL + KFS_RESPONSE, "KFS_EMAIL_RESPONSE"},
    {KFS_FILE_READ + KFS_RESPONSE, "KFS_FILE_READ_RESPONSE"},
    {KFS_FILE_WRITE + KFS_RESPONSE, "KFS_FILE_WRITE_RESPONSE"},
    {KFS_FILE_CLOSE + KFS_RESPONSE, "KFS_FILE_CLOSE_RESPONSE"},
    {KFS_SETOPT + KFS_RESPONSE, "KFS_SETOPT_RESPONSE"},
    {KFS_FIND_USERS + KFS_RESPONSE, "KFS_FIND_USERS_RESPONSE"},
    {KFS_FILE_WOPEN + KFS_RESPONSE, "KFS_FILE_WOPEN_RESPONSE"},
    {KFS_FILE_ROPEN + KFS_RESPONSE, "KFS_FILE_ROPEN_RESPONSE"},
    {KFS_MGNT + KFS_RESPONSE, "KFS_MGNT_RESPONSE"},
    {KFS_USER_LOCK + KFS_RESPONSE, "KFS_USER_LOCK_RESPONSE"},
    {KFS_SYNC_LOGIN + KFS_RESPONSE, "KFS_SYNC_LOGIN_RESPONSE"},
    {KFS_SYNC_CONTROL + KFS_RESPONSE, "KFS_SYNC_CONTROL_RESPONSE"},
};
static_assert(std::size(kTypeRows) == 41);

// The table ends at the last named response; anything past it is unnamed.
constexpr uint32_t kTypeCount = KFS_SYNC_CONTROL + KFS_RESPONSE + 1;
static_assert(kTypeCount == 194);

// Rows strictly ascending rule out a duplicate code silently overwriting an
// earlier name; a code past the table end fails the build in the fill below.
template <typename Row>
constexpr bool ascending(std::span<const Row> rows) {
  for (size_t i = 1; i < rows.size(); ++i) {
    if (rows[i - 1].code >= rows[i].code) {
      return false;
    }
  }
  return true;
}
static_assert(ascending<type_row>(kTypeRows));

constexpr std::array<const char*, kTypeCount> make_type_names() {
  std::array<const char*, kTypeCount> names{};
  for (const char*& name : names) {
    name = "KFS_UNKNOWN";
  }
  for (const type_row& row : kTypeRows) {
    names[row.code] = row.name;
  }
  return names;
}

constexpr std::array<const char*, kTypeCount> kTypeNames = make_type_names();

// Result codes are few and sparse over 0..255, so the rows are searched
// rather than spread over a 256-slot table; they are read only to print a
// failure, where the search costs nothing that matters.
struct err_row {
  uint32_t code;
  const char* name;
  const char* message;
};

// Kept: "To many" and the odd capitals are the established texts that
// reports print; correcting them would change what users see.
constexpr err_row kErrRows[] = {
    {ERR_NONE, "ERR_NONE", "No errors"},
    {ERR_BADPATH, "ERR_BADPATH", "No such file or directory"},
    {ERR_NOTDIR, "ERR_NOTDIR", "Not a Directory"},
    {ERR_NOTFILE, "ERR_NOTFILE", "Not a File"},
    {ERR_ACCESS, "ERR_ACCESS", "Access Denied"},
    {ERR_IO, "ERR_IO", "IO communication error"},
    {ERR_EXISTS, "ERR_EXISTS", "File exists"},
    {ERR_FDMAX, "ERR_FDMAX", "To many open files"},
    {ERR_SEQUENCE, "ERR_SEQUENCE", "Protocol Mismatch"},
    {ERR_DATAMAX, "ERR_DATAMAX", "KFS packet max data length exceeded"},
    {ERR_TIMEOUT, "ERR_TIMEOUT", "KFS Session has timed out"},
    {ERR_FSACCESS, "ERR_FSACCESS", "File system access error"},
    {ERR_BADKEY, "ERR_BADKEY", "Invalid key"},
    {ERR_NOTEMPTY, "ERR_NOTEMPTY", "Directory not Empty"},
    {ERR_BUSY, "ERR_BUSY", "File in use"},
    {ERR_EOF, "ERR_EOF", "End of file has been reached"},
    {ERR_UP2DATE, "ERR_UP2DATE", "File is up to date"},
    {ERR_INVARG, "ERR_INVARG", "Invalid argument"},
    {ERR_FINDMAX, "ERR_FINDMAX", "To many open finds"},
    {ERR_NOCSUM, "ERR_NOCSUM", "Missing checksum for file block"},
    {ERR_AUTH_FAILURE, "ERR_AUTH_FAILURE", "Authentication error"},
    {ERR_ACCOUNT_STATUS_INACTIVE, "ERR_ACCOUNT_STATUS_INACTIVE",
     "Please contact customer service at 1-800-555-0100 for assistance with "
     "your account."},
    {ERR_USER_LOCKED, "ERR_USER_LOCKED", "User is locked"},
    {ERR_ACCOUNT_STATUS_PENDING, "ERR_ACCOUNT_STATUS_PENDING",
     "Account is not activated"},
    {ERR_BAD_PROTOCOL_VERSION, "ERR_BAD_PROTOCOL_VERSION",
     "Invalid Protocol Version"},
    {ERR_SCKREAD, "ERR_SCKREAD", "Error during socket read"},
    {ERR_SCKWRITE, "ERR_SCKWRITE", "Error during socket write"},
};
static_assert(std::size(kErrRows) == 27);
static_assert(ascending<err_row>(kErrRows));

const err_row* find_err(uint32_t code) {
  for (const err_row& row : kErrRows) {
    if (row.code == code) {
      return &row;
    }
  }
  return nullptr;
}

constexpr const char* kMgntNames[] = {
    "MGNT_U_USERNAME",
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
};
static_assert(std::size(kMgntNames) == MGNT_A_USER_ACCESSIBLE_LIST_SET + 1);

// Mode 2 is reserved, so its slot holds the fallback rather than a name.
constexpr const char* kAuthModeNames[] = {
    "AUTH_MODE_USER",    "AUTH_MODE_AGENT",
    "AUTH_MODE_UNKNOWN", "AUTH_MODE_ENCRYPTION_TOKEN",
    "AUTH_MODE_WEB",
};
static_assert(std::size(kAuthModeNames) == AUTH_MODE_WEB + 1);

constexpr const char* kAccTypeNames[] = {
    "ACC_TYPE_REGULAR",
    "ACC_TYPE_HOUSE",
    "ACC_TYPE_DEVELOPMENT",
};
static_assert(std::size(kAccTypeNames) == ACC_TYPE_DEVELOPMENT + 1);

// The unsigned compare is the whole bound check: a negative code from a
// signed caller arrives as a huge value and falls back.
template <size_t N>
const char* lookup(const char* const (&names)[N], uint32_t code,
                   const char* fallback) {
  return code < N ? names[code] : fallback;
}

}  // namespace

const char* kfs_type_name(uint32_t code) {
  return code < kTypeNames.size() ? kTypeNames[code] : "KFS_UNKNOWN";
}

const char* kfs_err_name(uint32_t code) {
  const err_row* row = find_err(code);
  return row != nullptr ? row->name : "ERR_UNKNOWN";
}

const char* kfs_err_message(uint32_t code) {
  const err_row* row = find_err(code);
  return row != nullptr ? row->message : "ERR_DESCRIPTION_UNKNOWN";
}

const char* kfs_mgnt_name(uint32_t code) {
  return lookup(kMgntNames, code, "MGNT_UNKNOWN");
}

const char* kfs_auth_mode_name(uint32_t code) {
  return lookup(kAuthModeNames, code, "AUTH_MODE_UNKNOWN");
}

const char* kfs_acc_type_name(uint32_t code) {
  return lookup(kAccTypeNames, code, "ACC_TYPE_UNKNOWN");
}
