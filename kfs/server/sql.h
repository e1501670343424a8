// kfs/server/sql.h: statements and transactions over the store's SQLite
// connection, for the store's own files only.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

#include "kfs/server/store.h"

struct sqlite3_stmt;

// A prepared statement, finalized on destruction. Parameters bind in
// order; a failed prepare, bind or step marks it failed, and every later
// call then does nothing, so a caller tests failed() once at the end.
class kfsd_sql {
 public:
  kfsd_sql(sqlite3* db, const char* sql);
  kfsd_sql(const kfsd_sql&) = delete;
  kfsd_sql& operator=(const kfsd_sql&) = delete;
  ~kfsd_sql();

  kfsd_sql& bind(int64_t v);
  kfsd_sql& bind_text(std::string_view v);
  kfsd_sql& bind_blob(const void* data, size_t n);  // null data binds NULL
  // Steps once: true with a row to read; false when done or failed.
  bool row();
  // Steps to the end (for statements without rows); false when failed.
  bool run();
  void reset();  // rewinds for another run with new parameters
  bool failed() const { return failed_; }
  int64_t i64(int col);
  std::string text(int col);  // also reads blobs; NULL reads as ""
  bool is_null(int col);

 private:
  sqlite3_stmt* stmt_ = nullptr;
  const char* sql_;
  int next_ = 1;
  bool failed_ = false;
};

// Closes a connection whose statements went through kfsd_sql, after
// finalizing the ones kept for reuse.
void kfsd_db_close(sqlite3* db);

// A transaction rolled back on destruction unless committed. One that is
// not immediate takes the write lock only at its first write: many reads
// then lock once, not once per statement.
class kfsd_txn {
 public:
  explicit kfsd_txn(sqlite3* db, bool immediate = true);
  kfsd_txn(const kfsd_txn&) = delete;
  kfsd_txn& operator=(const kfsd_txn&) = delete;
  ~kfsd_txn();
  bool ok() const { return active_; }
  bool commit();

 private:
  sqlite3* db_;
  bool active_ = false;
};

// A stream's place from a row of (stream, length, pack, offset) starting
// at column col, pack and offset NULL for a file of its own.
kfsd_stream_loc kfsd_stream_row(kfsd_sql* q, int col);

// Adds a restore point for the user's files as they are now, inside the
// caller's transaction. REQUIRES: store->mutex held.
bool kfsd_point_add(kfsd_store* store, uint32_t user, const std::string& job,
                    const std::string& job_file);

// The user's point of that name; false when there is none (or on error).
bool kfsd_point_find(sqlite3* db, uint32_t user, const std::string& name,
                     kfsd_point* out);
// The folder of the user's points as a listing: one folder per point,
// with its time, the bytes its run stored as size, and the files it
// stored in the attribute's upper 24 bits. REQUIRES: store->mutex held.
uint32_t kfsd_points_list(kfsd_store* store, uint32_t user,
                          const std::string& pattern,
                          std::vector<kfsd_entry>* out);

// Forgets the candidates that no block names any more: a stream in a pack
// loses its row (its bytes stay until the pack is rewritten), one in a
// file of its own loses the file unless a reader holds it. Runs after the
// commit: a failure here only leaves something behind. REQUIRES:
// store->mutex held.
void kfsd_collect(kfsd_store* store, const std::set<std::string>& candidates);

// Of the candidate streams (hex -> length), the ones no block names any
// more go into *unnamed, their lengths added to *bytes; with forget their
// rows are deleted too. Inside the caller's transaction; false on a
// database error.
bool kfsd_unnamed_streams(sqlite3* db,
                          const std::map<std::string, uint64_t>& candidates,
                          bool forget, std::set<std::string>* unnamed,
                          uint64_t* bytes);
