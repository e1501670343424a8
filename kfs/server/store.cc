// The store's database: statements, schema, users and their stamps, and the
// namespace of directories (files and their versions are in
// store_files.cc).
#include <fnmatch.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>

#include "kfs/server/kfsd_internal.h"
#include "kfs/server/sql.h"

namespace {

// The value of meta.format that marks a kfsd database, and the schema this
// server writes (meta.schema; a database without it is of schema 1).
constexpr char kFormat[] = "kfsd-1";
constexpr int kSchemaVersion = 3;

// Schema 2; kUpgradeTo3 below adds the history (versions.done, points,
// policies) to it and to older folders alike.
constexpr char kSchema[] =
    "CREATE TABLE meta(name TEXT PRIMARY KEY, value TEXT NOT NULL);"
    "CREATE TABLE users(id INTEGER PRIMARY KEY, name TEXT NOT NULL,"
    " account TEXT NOT NULL, email TEXT NOT NULL, quota INTEGER NOT NULL,"
    " key_sha1 BLOB NOT NULL, stamp INTEGER NOT NULL,"
    " distrust INTEGER NOT NULL DEFAULT 0);"
    // A user's root has parent ''.
    "CREATE TABLE entries(path TEXT PRIMARY KEY, user INTEGER NOT NULL,"
    " parent TEXT NOT NULL, name TEXT NOT NULL, is_dir INTEGER NOT NULL,"
    " created INTEGER NOT NULL);"
    "CREATE INDEX entries_parent ON entries(parent, name);"
    // A file has complete versions, numbered by done in the order they
    // were completed, and at most one upload (complete = 0, done NULL);
    // ids are never reused, so a stale handle cannot reach a newer upload.
    "CREATE TABLE versions(id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " user INTEGER NOT NULL, path TEXT NOT NULL, complete INTEGER NOT NULL,"
    " mtime INTEGER NOT NULL, size INTEGER NOT NULL,"
    " block_size INTEGER NOT NULL, block_count INTEGER NOT NULL,"
    " attr BLOB NOT NULL);"
    "CREATE INDEX versions_path ON versions(path, complete);"
    "CREATE INDEX versions_user ON versions(user, complete);"
    // received: skipped or ended since the upload was last opened.
    "CREATE TABLE blocks(version INTEGER NOT NULL, idx INTEGER NOT NULL,"
    " md5 BLOB, stream TEXT NOT NULL, length INTEGER NOT NULL,"
    " received INTEGER NOT NULL, PRIMARY KEY(version, idx));"
    "CREATE INDEX blocks_stream ON blocks(stream);"
    "CREATE TABLE streams(hex TEXT PRIMARY KEY, pack INTEGER NOT NULL,"
    " offset INTEGER NOT NULL, length INTEGER NOT NULL) WITHOUT ROWID;";

// From schema 1: streams were files of their own, and still are until
// they are replaced; new ones go to packs, which the streams table maps.
// A user's distrust withholds the next stamp (after an unclean stop).
constexpr char kUpgradeTo2[] =
    "CREATE TABLE streams(hex TEXT PRIMARY KEY, pack INTEGER NOT NULL,"
    " offset INTEGER NOT NULL, length INTEGER NOT NULL) WITHOUT ROWID;"
    "ALTER TABLE users ADD COLUMN distrust INTEGER NOT NULL DEFAULT 0;";

// From schema 2: history. Each complete version is numbered as it was
// completed (the one version a file had gets its id, which orders them
// too); restore points and retention policies are new.
constexpr char kUpgradeTo3[] =
    "ALTER TABLE versions ADD COLUMN done INTEGER;"
    "UPDATE versions SET done = id WHERE complete = 1;"
    "CREATE INDEX versions_done ON versions(path, done);"
    "CREATE TABLE points(id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " user INTEGER NOT NULL, name TEXT NOT NULL, time INTEGER NOT NULL,"
    " job TEXT NOT NULL, job_file TEXT NOT NULL, files INTEGER NOT NULL,"
    " bytes INTEGER NOT NULL, upto INTEGER NOT NULL, UNIQUE(user, name));"
    "CREATE TABLE policies(user INTEGER PRIMARY KEY, last INTEGER NOT NULL,"
    " hourly INTEGER NOT NULL, daily INTEGER NOT NULL,"
    " weekly INTEGER NOT NULL, monthly INTEGER NOT NULL,"
    " yearly INTEGER NOT NULL, within INTEGER NOT NULL);";

// The step from each schema to the next, by the schema it starts from.
constexpr const char* kUpgrades[] = {nullptr, kUpgradeTo2, kUpgradeTo3};

bool exec(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

sqlite3* open_db(const std::string& path, int flags, std::string* error) {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, flags | SQLITE_OPEN_FULLMUTEX,
                      nullptr) != SQLITE_OK) {
    *error = path + ": " + (db ? sqlite3_errmsg(db) : "cannot open");
    kfsd_db_close(db);
    return nullptr;
  }
  // Another process (kfsd user add) may write while the server runs.
  sqlite3_busy_timeout(db, 5000);
  // WAL keeps readers and the one writer apart; NORMAL is safe against a
  // crash of the server, which is what the store promises.
  if (!exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;")) {
    *error = path + ": " + sqlite3_errmsg(db);
    kfsd_db_close(db);
    return nullptr;
  }
  return db;
}

// Brings an older database to kSchemaVersion in one transaction: a crash
// or a failure leaves it as it was.
bool upgrade(sqlite3* db, const std::string& path, std::string* error) {
  int schema = 1;
  {
    kfsd_sql q(db, "SELECT value FROM meta WHERE name = 'schema'");
    if (q.row()) {
      schema = atoi(q.text(0).c_str());
    }
  }
  if (schema == kSchemaVersion) {
    return true;
  }
  if (schema > kSchemaVersion || schema < 1) {
    *error = path + ": written by a newer kfsd (schema " +
             std::to_string(schema) + ")";
    return false;
  }
  bool ok = exec(db, "BEGIN IMMEDIATE");
  for (int from = schema; ok && from < kSchemaVersion; ++from) {
    ok = exec(db, kUpgrades[from]);
  }
  if (ok) {
    kfsd_sql q(db, "INSERT OR REPLACE INTO meta VALUES('schema', ?)");
    ok = q.bind_text(std::to_string(kSchemaVersion)).run();
  }
  if (!ok || !exec(db, "COMMIT")) {
    *error = path + ": cannot upgrade: " + sqlite3_errmsg(db);
    exec(db, "ROLLBACK");
    return false;
  }
  return true;
}

// The one number a query yields, or -1 when it fails.
int64_t largest(sqlite3* db, const char* sql) {
  kfsd_sql q(db, sql);
  return q.row() ? q.i64(0) : -1;
}

bool entry_kind(sqlite3* db, const std::string& path, bool* exists,
                bool* is_dir) {
  kfsd_sql q(db, "SELECT is_dir FROM entries WHERE path = ?");
  q.bind_text(path);
  *exists = q.row();
  *is_dir = *exists && q.i64(0) != 0;
  return !q.failed();
}

}  // namespace

uint32_t kfsd_path_parse(std::string_view raw, uint32_t uid, kfsd_path* out) {
  std::vector<std::string_view> parts;
  size_t i = 0;
  while (i < raw.size()) {
    size_t end = raw.find('/', i);
    if (end == std::string_view::npos) {
      end = raw.size();
    }
    if (end > i) {
      parts.push_back(raw.substr(i, end - i));
    }
    i = end + 1;
  }
  if (raw.empty() || raw[0] != '/' || parts.empty() ||
      parts[0] != std::to_string(uid)) {
    return ERR_FSACCESS;
  }
  for (std::string_view p : parts) {
    if (p == "." || p == ".." || p.size() > KFSD_MAX_NAME ||
        p.find('\0') != std::string_view::npos) {
      return ERR_BADPATH;
    }
  }
  out->user = uid;
  // The past: "/7/.points/<point>/rest" names "/7/rest" as it was then.
  out->point.clear();
  out->points_dir = parts.size() == 2 && parts[1] == KFSD_POINTS_DIR;
  if (parts.size() > 2 && parts[1] == KFSD_POINTS_DIR) {
    out->point = parts[2];
    parts.erase(parts.begin() + 1, parts.begin() + 3);
  }
  out->full.clear();
  for (size_t k = 0; k < parts.size(); ++k) {
    if (k + 1 == parts.size()) {
      out->parent = out->full;
      out->name = parts[k];
    }
    out->full += '/';
    out->full += parts[k];
  }
  out->is_root = parts.size() == 1;
  return 0;
}

int kfsd_store_create(const std::string& dir, std::string* error) {
  std::string path = dir + "/" + KFSD_DB_FILE;
  sqlite3* db =
      open_db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, error);
  if (db == nullptr) {
    return -1;
  }
  // Schema 2, and history as an upgrade adds it: one text for both.
  bool ok = exec(db, "BEGIN") && exec(db, kSchema) && exec(db, kUpgradeTo3);
  if (ok) {
    kfsd_sql q(db, "INSERT INTO meta VALUES('format', ?), ('schema', ?)");
    ok = q.bind_text(kFormat).bind_text(std::to_string(kSchemaVersion)).run() &&
         exec(db, "COMMIT");
  }
  if (!ok) {
    *error = path + ": " + sqlite3_errmsg(db);
  }
  kfsd_db_close(db);
  return ok ? 0 : -1;
}

int kfsd_store_open(const std::string& dir, kfsd_store* store,
                    std::string* error) {
  struct stat st;
  if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    *error = dir + ": no data folder (create one with kfsd init)";
    return -1;
  }
  std::string path = dir + "/" + KFSD_DB_FILE;
  sqlite3* db = open_db(path, SQLITE_OPEN_READWRITE, error);
  if (db == nullptr) {
    return -1;
  }
  std::string format;
  {
    kfsd_sql q(db, "SELECT value FROM meta WHERE name = 'format'");
    if (q.row()) {
      format = q.text(0);
    }
  }
  if (format != kFormat) {
    *error = path + ": not a kfsd database, or damaged";
    kfsd_db_close(db);
    return -1;
  }
  if (!upgrade(db, path, error)) {
    kfsd_db_close(db);
    return -1;
  }
  // Ids are never reused, not even those of versions deleted since.
  // Completion numbers only grow: the newest version of a file is never
  // pruned, and points keep the number they were made at.
  int64_t last = largest(db,
                         "SELECT MAX(COALESCE((SELECT seq FROM sqlite_sequence"
                         " WHERE name = 'versions'), 0),"
                         " COALESCE((SELECT MAX(id) FROM versions), 0))");
  int64_t done = largest(db,
                         "SELECT MAX(COALESCE((SELECT MAX(done) FROM versions),"
                         " 0), COALESCE((SELECT MAX(upto) FROM points), 0))");
  if (last < 0 || done < 0) {
    *error = path + ": " + sqlite3_errmsg(db);
    kfsd_db_close(db);
    return -1;
  }
  store->next_version = last + 1;
  store->next_done = done + 1;
  store->dir = dir;
  store->db = db;
  return 0;
}

void kfsd_store_close(kfsd_store* store) {
  kfsd_db_close(store->db);
  store->db = nullptr;
}

uint32_t kfsd_store_add_user(kfsd_store* store, const kfsd_user& user) {
  std::lock_guard<std::mutex> hold(store->mutex);
  kfsd_txn txn(store->db);
  kfsd_sql find(store->db, "SELECT 1 FROM users WHERE id = ?");
  if (find.bind(user.id).row()) {
    return ERR_EXISTS;
  }
  kfsd_sql add(store->db,
               "INSERT INTO users(id, name, account, email, quota, key_sha1,"
               " stamp) VALUES(?, ?, ?, ?, ?, ?, 0)");
  add.bind(user.id).bind_text(user.name).bind_text(user.account);
  add.bind_text(user.email).bind(static_cast<int64_t>(user.quota));
  add.bind_blob(user.key_sha1, sizeof user.key_sha1);
  // Appended rather than "/" + ...: g++ 12 warns wrongly about the latter.
  std::string root = "/";
  root += std::to_string(user.id);
  kfsd_sql mk(store->db,
              "INSERT OR IGNORE INTO entries VALUES(?, ?, '', ?, 1, ?)");
  mk.bind_text(root).bind(user.id).bind_text(root.substr(1));
  mk.bind(time(nullptr));
  if (find.failed() || !add.run() || !mk.run() || !txn.commit()) {
    return ERR_IO;
  }
  return 0;
}

namespace {

void read_user(kfsd_sql* q, kfsd_user* out) {
  out->id = static_cast<uint32_t>(q->i64(0));
  out->name = q->text(1);
  out->account = q->text(2);
  out->email = q->text(3);
  out->quota = static_cast<uint64_t>(q->i64(4));
  std::string digest = q->text(5);
  memset(out->key_sha1, 0, sizeof out->key_sha1);
  memcpy(out->key_sha1, digest.data(),
         std::min(digest.size(), sizeof out->key_sha1));
  out->stamp = static_cast<uint32_t>(q->i64(6));
}

}  // namespace

uint32_t kfsd_store_get_user(kfsd_store* store, uint32_t id, kfsd_user* out) {
  std::lock_guard<std::mutex> hold(store->mutex);
  kfsd_sql q(store->db, "SELECT * FROM users WHERE id = ?");
  if (!q.bind(id).row()) {
    return q.failed() ? ERR_IO : ERR_AUTH_FAILURE;
  }
  read_user(&q, out);
  return 0;
}

uint32_t kfsd_store_find_user(kfsd_store* store, const std::string& name,
                              const uint8_t key_sha1[20], kfsd_user* out) {
  std::lock_guard<std::mutex> hold(store->mutex);
  kfsd_sql q(store->db, "SELECT * FROM users WHERE name = ? AND key_sha1 = ?");
  if (!q.bind_text(name).bind_blob(key_sha1, 20).row()) {
    return q.failed() ? ERR_IO : ERR_AUTH_FAILURE;
  }
  read_user(&q, out);
  return 0;
}

uint32_t kfsd_store_user_ids(kfsd_store* store, std::vector<uint32_t>* out) {
  std::lock_guard<std::mutex> hold(store->mutex);
  kfsd_sql q(store->db, "SELECT id FROM users ORDER BY id");
  out->clear();
  while (q.row()) {
    out->push_back(static_cast<uint32_t>(q.i64(0)));
  }
  return q.failed() ? ERR_IO : ERR_NONE;
}

uint64_t kfsd_store_bytes_used(kfsd_store* store, uint32_t id) {
  std::lock_guard<std::mutex> hold(store->mutex);
  kfsd_sql q(store->db,
             "SELECT COALESCE(SUM(length), 0) FROM (SELECT DISTINCT"
             " b.stream, b.length FROM blocks b JOIN versions v"
             " ON v.id = b.version WHERE v.user = ?)");
  return q.bind(id).row() ? static_cast<uint64_t>(q.i64(0)) : 0;
}

uint32_t kfsd_store_release_stamp(kfsd_store* store, uint32_t id,
                                  bool has_stamp, uint32_t stamp,
                                  const std::string& job,
                                  const std::string& job_file) {
  std::lock_guard<std::mutex> hold(store->mutex);
  kfsd_sql pending(store->db,
                   "SELECT 1 FROM versions WHERE user = ? AND complete = 0"
                   " LIMIT 1");
  kfsd_sql user(store->db, "SELECT distrust FROM users WHERE id = ?");
  bool incomplete = pending.bind(id).row();
  bool distrust = (user.bind(id).row() && user.i64(0) != 0) ||
                  store->lost_rows.count(id) != 0;
  if (pending.failed() || user.failed()) {
    return ERR_IO;
  }
  if (!has_stamp && !incomplete && !distrust) {
    return 0;
  }
  // Flushed with the log before the answer: the agent trusts its index
  // from now on only as far as this stamp survives a power cut. Only a
  // stamped release ends a distrust: that is the end of a run, and the
  // next one compares everything with the listings.
  exec(store->db, "PRAGMA synchronous=FULL");
  bool ok = false;
  {
    kfsd_txn txn(store->db);
    kfsd_sql set(store->db,
                 "UPDATE users SET stamp = ?, distrust = distrust AND NOT ?"
                 " WHERE id = ?");
    set.bind(incomplete || distrust ? 0 : stamp).bind(has_stamp ? 1 : 0);
    ok = txn.ok() && set.bind(id).run() &&
         (!has_stamp || kfsd_point_add(store, id, job, job_file)) &&
         txn.commit();
  }
  exec(store->db, "PRAGMA synchronous=NORMAL");
  if (ok && has_stamp) {
    store->lost_rows.erase(id);
  }
  return ok ? ERR_NONE : ERR_IO;
}

int kfsd_store_mark_running(kfsd_store* store, bool running, bool* unclean) {
  std::lock_guard<std::mutex> hold(store->mutex);
  sqlite3* db = store->db;
  exec(db, "PRAGMA synchronous=FULL");
  bool ok = exec(db, "BEGIN IMMEDIATE");
  bool was_running = false;
  if (ok) {
    kfsd_sql q(db, "SELECT value FROM meta WHERE name = 'running'");
    was_running = q.row() && q.text(0) == "1";
    ok = !q.failed();
  }
  // What a server that died had answered may never have reached the disk:
  // every user's next run is to compare, not trust its index.
  if (ok && running && was_running) {
    ok = exec(db, "UPDATE users SET distrust = 1");
  }
  if (ok) {
    kfsd_sql set(db, "INSERT OR REPLACE INTO meta VALUES('running', ?)");
    ok = set.bind_text(running ? "1" : "0").run() && exec(db, "COMMIT");
  }
  if (!ok) {
    exec(db, "ROLLBACK");
  }
  exec(db, "PRAGMA synchronous=NORMAL");
  *unclean = running && was_running;
  return ok ? 0 : -1;
}

uint32_t kfsd_store_mkdir(kfsd_store* store, uint32_t uid,
                          const kfsd_path& path) {
  std::lock_guard<std::mutex> hold(store->mutex);
  if (path.is_root) {
    return ERR_EXISTS;
  }
  bool exists = false;
  bool is_dir = false;
  if (!entry_kind(store->db, path.full, &exists, &is_dir)) {
    return ERR_IO;
  }
  if (exists) {
    return is_dir ? ERR_EXISTS : ERR_NOTDIR;
  }
  if (!entry_kind(store->db, path.parent, &exists, &is_dir)) {
    return ERR_IO;
  }
  if (!exists) {
    return ERR_BADPATH;
  }
  if (!is_dir) {
    return ERR_NOTDIR;
  }
  kfsd_sql q(store->db, "INSERT INTO entries VALUES(?, ?, ?, ?, 1, ?)");
  q.bind_text(path.full).bind(uid).bind_text(path.parent).bind_text(path.name);
  return q.bind(time(nullptr)).run() ? ERR_NONE : ERR_IO;
}

uint32_t kfsd_store_list(kfsd_store* store, const kfsd_path& dir,
                         const std::string& pattern,
                         std::vector<kfsd_entry>* out) {
  std::lock_guard<std::mutex> hold(store->mutex);
  kfsd_txn reading(store->db, false);
  out->clear();
  if (dir.points_dir) {
    return kfsd_points_list(store, dir.user, pattern, out);
  }
  // Now, or as a point shows it: its completed versions, and the folders
  // made by then.
  kfsd_point point;
  bool past = !dir.point.empty();
  if (past && !kfsd_point_find(store->db, dir.user, dir.point, &point)) {
    return ERR_BADPATH;
  }
  kfsd_sql here(store->db, "SELECT is_dir, created FROM entries WHERE path = ?");
  if (!here.bind_text(dir.full).row() ||
      (past && here.i64(1) > point.time)) {
    return here.failed() ? ERR_IO : ERR_BADPATH;
  }
  if (here.i64(0) == 0) {
    return ERR_NOTDIR;
  }
  // Now, an upload that is still open or was cut off is newer than the
  // complete version, so it is what the listing shows, marked as needing
  // a backup.
  kfsd_sql now(store->db,
               "SELECT e.name, e.is_dir, e.created,"
               " (SELECT id FROM versions v WHERE v.path = e.path"
               "  ORDER BY v.complete ASC, v.done DESC LIMIT 1) AS vid"
               " FROM entries e WHERE e.parent = ? ORDER BY e.name");
  kfsd_sql then(store->db,
                "SELECT e.name, e.is_dir, e.created,"
                " (SELECT id FROM versions v WHERE v.path = e.path"
                "  AND v.done <= ? ORDER BY v.done DESC LIMIT 1) AS vid"
                " FROM entries e WHERE e.parent = ? ORDER BY e.name");
  kfsd_sql& q = past ? then.bind(point.upto) : now;
  kfsd_sql version(store->db,
                   "SELECT complete, mtime, size FROM versions WHERE id = ?");
  q.bind_text(dir.full);
  while (q.row()) {
    kfsd_entry e;
    e.name = q.text(0);
    if (!pattern.empty() && fnmatch(pattern.c_str(), e.name.c_str(), 0) != 0) {
      continue;
    }
    if (q.i64(1) != 0) {
      if (past && q.i64(2) > point.time) {
        continue;  // made after the point
      }
      e.kind = 1;
      e.attr = KFSD_ATTR_DIRECTORY;
      e.mtime = q.i64(2);
    } else {
      if (q.is_null(3)) {
        continue;  // a file with no version (then): nothing to show
      }
      version.reset();
      if (!version.bind(q.i64(3)).row()) {
        return ERR_IO;
      }
      e.attr = version.i64(0) != 0 ? 0 : KFSD_ATTR_NEEDS_BACKUP;
      e.mtime = version.i64(1);
      e.size = static_cast<uint64_t>(version.i64(2));
    }
    out->push_back(std::move(e));
  }
  return q.failed() ? ERR_IO : ERR_NONE;
}
