// Statements and transactions over the store's one SQLite connection.
#include <sqlite3.h>

#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "kfs/server/kfsd_internal.h"
#include "kfs/server/sql.h"

namespace {

// Prepared statements kept for reuse, by connection and statement text (the
// texts are literals, so the pointer names them). An upload runs a dozen
// statements per file, and compiling them again each time was a tenth of
// the server's work. A statement in use is taken out, so two live queries
// with the same text each get their own.
struct statement_cache {
  std::mutex mutex;
  std::map<std::pair<sqlite3*, const char*>, std::vector<sqlite3_stmt*>> idle;
};

statement_cache& cache() {
  static statement_cache* c = new statement_cache;  // outlives every user
  return *c;
}

sqlite3_stmt* take_statement(sqlite3* db, const char* sql) {
  {
    statement_cache& c = cache();
    std::lock_guard<std::mutex> hold(c.mutex);
    auto it = c.idle.find({db, sql});
    if (it != c.idle.end() && !it->second.empty()) {
      sqlite3_stmt* stmt = it->second.back();
      it->second.pop_back();
      return stmt;
    }
  }
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt,
                         nullptr) != SQLITE_OK) {
    sqlite3_finalize(stmt);
    return nullptr;
  }
  return stmt;
}

void give_back_statement(sqlite3_stmt* stmt, const char* sql) {
  if (stmt == nullptr) {
    return;
  }
  sqlite3_reset(stmt);
  sqlite3_clear_bindings(stmt);
  statement_cache& c = cache();
  std::lock_guard<std::mutex> hold(c.mutex);
  c.idle[{sqlite3_db_handle(stmt), sql}].push_back(stmt);
}

bool exec(sqlite3* db, const char* sql) {
  return kfsd_sql(db, sql).run();
}

}  // namespace

kfsd_sql::kfsd_sql(sqlite3* db, const char* sql) : sql_(sql) {
  stmt_ = take_statement(db, sql);
  failed_ = stmt_ == nullptr;
}

kfsd_sql::~kfsd_sql() {
  give_back_statement(stmt_, sql_);
}

void kfsd_db_close(sqlite3* db) {
  if (db == nullptr) {
    return;
  }
  {
    statement_cache& c = cache();
    std::lock_guard<std::mutex> hold(c.mutex);
    for (auto it = c.idle.begin(); it != c.idle.end();) {
      if (it->first.first == db) {
        for (sqlite3_stmt* stmt : it->second) {
          sqlite3_finalize(stmt);
        }
        it = c.idle.erase(it);
      } else {
        ++it;
      }
    }
  }
  sqlite3_close(db);
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

kfsd_txn::kfsd_txn(sqlite3* db, bool immediate) : db_(db) {
  active_ = exec(db_, immediate ? "BEGIN IMMEDIATE" : "BEGIN");
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
