// Statements and transactions over the store's one SQLite connection.
#include <sqlite3.h>

#include "kfs/server/kfsd_internal.h"

namespace {

bool exec(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

}  // namespace

kfsd_sql::kfsd_sql(sqlite3* db, const char* sql) {
  failed_ = sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK;
}

kfsd_sql::~kfsd_sql() {
  sqlite3_finalize(stmt_);
}

kfsd_sql& kfsd_sql::bind(int64_t v) {
  if (!failed_) {
    failed_ = sqlite3_bind_int64(stmt_, next_++, v) != SQLITE_OK;
  }
  return *this;
}

kfsd_sql& kfsd_sql::bind_text(std::string_view v) {
  if (!failed_) {
    failed_ =
        sqlite3_bind_text(stmt_, next_++, v.data(), static_cast<int>(v.size()),
                          SQLITE_TRANSIENT) != SQLITE_OK;
  }
  return *this;
}

kfsd_sql& kfsd_sql::bind_blob(const void* data, size_t n) {
  if (!failed_) {
    int rc = data == nullptr
                 ? sqlite3_bind_null(stmt_, next_++)
                 : sqlite3_bind_blob(stmt_, next_++, data, static_cast<int>(n),
                                     SQLITE_TRANSIENT);
    failed_ = rc != SQLITE_OK;
  }
  return *this;
}

bool kfsd_sql::row() {
  if (failed_) {
    return false;
  }
  int rc = sqlite3_step(stmt_);
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
    failed_ = true;
  }
  return rc == SQLITE_ROW;
}

bool kfsd_sql::run() {
  while (row()) {
  }
  return !failed_;
}

void kfsd_sql::reset() {
  if (!failed_) {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
    next_ = 1;
  }
}

int64_t kfsd_sql::i64(int col) {
  return failed_ ? 0 : sqlite3_column_int64(stmt_, col);
}

std::string kfsd_sql::text(int col) {
  if (failed_) {
    return "";
  }
  const void* p = sqlite3_column_blob(stmt_, col);
  int n = sqlite3_column_bytes(stmt_, col);
  return p ? std::string(static_cast<const char*>(p), static_cast<size_t>(n))
           : std::string();
}

bool kfsd_sql::is_null(int col) {
  return failed_ || sqlite3_column_type(stmt_, col) == SQLITE_NULL;
}

kfsd_txn::kfsd_txn(sqlite3* db) : db_(db) {
  active_ = exec(db_, "BEGIN IMMEDIATE");
}

kfsd_txn::~kfsd_txn() {
  if (active_ && !exec(db_, "ROLLBACK")) {
    // Nothing more to do: SQLite rolls an unfinished transaction back
    // itself when the connection closes or the next one begins.
  }
}

bool kfsd_txn::commit() {
  if (!active_) {
    return false;
  }
  active_ = false;
  if (!exec(db_, "COMMIT")) {
    active_ = true;  // still open: the destructor rolls it back
    return false;
  }
  return true;
}
