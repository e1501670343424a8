// The store side of the operator's commands: users with what they hold,
// changing and removing a user, and the figures of the whole store.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "kfs/server/kfsd_internal.h"
#include "kfs/server/sql.h"

namespace {

// An open-file-description lock: the server's lock on a user and an
// operator's command exclude each other, and one process can look without
// taking it. -1 with errno when it cannot be had.
int user_lock_file(const std::string& dir, uint32_t id) {
  std::string locks = dir + "/" + KFSD_LOCKS_DIR;
  mkdir(locks.c_str(), 0700);
  return open((locks + "/" + std::to_string(id)).c_str(),
              O_RDWR | O_CREAT | O_CLOEXEC, 0600);
}

struct flock whole_file(short type) {
  struct flock l = {};
  l.l_type = type;
  l.l_whence = SEEK_SET;
  return l;
}

}  // namespace

int kfsd_user_lock_take(const std::string& dir, uint32_t id) {
  unique_fd fd(user_lock_file(dir, id));
  struct flock l = whole_file(F_WRLCK);
  if (!fd || fcntl(fd.get(), F_OFD_SETLK, &l) != 0) {
    return -1;
  }
  return fd.release();
}

bool kfsd_user_lock_held(const std::string& dir, uint32_t id) {
  unique_fd fd(user_lock_file(dir, id));
  struct flock l = whole_file(F_WRLCK);
  return fd && fcntl(fd.get(), F_OFD_GETLK, &l) == 0 && l.l_type != F_UNLCK;
}

uint32_t kfsd_store_user_infos(kfsd_store* store,
                               std::vector<kfsd_user_info>* out) {
  out->clear();
  std::vector<uint32_t> ids;
  if (kfsd_store_user_ids(store, &ids) != 0) {
    return ERR_IO;
  }
  for (uint32_t id : ids) {
    kfsd_user_info info;
    if (kfsd_store_get_user(store, id, &info.user) != 0) {
      return ERR_IO;
    }
    info.used = kfsd_store_bytes_used(store, id);
    std::lock_guard<std::mutex> hold(store->mutex);
    kfsd_sql files(store->db,
                   "SELECT COUNT(DISTINCT path) FROM versions"
                   " WHERE user = ? AND complete = 1");
    kfsd_sql points(store->db,
                    "SELECT COUNT(*), COALESCE(MAX(time), 0) FROM points"
                    " WHERE user = ?");
    if (!files.bind(id).row() || !points.bind(id).row()) {
      return ERR_IO;
    }
    info.files = static_cast<uint64_t>(files.i64(0));
    info.points = static_cast<uint64_t>(points.i64(0));
    info.last_run = points.i64(1);
    out->push_back(std::move(info));
  }
  return 0;
}

uint32_t kfsd_store_change_user(kfsd_store* store, uint32_t id,
                                const kfsd_user_change& change) {
  std::lock_guard<std::mutex> hold(store->mutex);
  kfsd_txn txn(store->db);
  kfsd_sql known(store->db, "SELECT 1 FROM users WHERE id = ?");
  if (!txn.ok() || !known.bind(id).row()) {
    return known.failed() || !txn.ok() ? ERR_IO : ERR_AUTH_FAILURE;
  }
  bool ok = true;
  if (change.quota) {
    kfsd_sql q(store->db, "UPDATE users SET quota = ? WHERE id = ?");
    ok = ok && q.bind(static_cast<int64_t>(*change.quota)).bind(id).run();
  }
  if (change.account) {
    kfsd_sql q(store->db, "UPDATE users SET account = ? WHERE id = ?");
    ok = ok && q.bind_text(*change.account).bind(id).run();
  }
  if (change.email) {
    kfsd_sql q(store->db, "UPDATE users SET email = ? WHERE id = ?");
    ok = ok && q.bind_text(*change.email).bind(id).run();
  }
  return ok && txn.commit() ? ERR_NONE : ERR_IO;
}

uint32_t kfsd_store_remove_user(kfsd_store* store, uint32_t id,
                                kfsd_prune_result* freed) {
  *freed = {};
  std::lock_guard<std::mutex> hold(store->mutex);
  sqlite3* db = store->db;
  kfsd_txn txn(db);
  kfsd_sql known(db, "SELECT 1 FROM users WHERE id = ?");
  if (!txn.ok() || !known.bind(id).row()) {
    return known.failed() || !txn.ok() ? ERR_IO : ERR_AUTH_FAILURE;
  }
  // The streams the user's blocks name, then whichever of them nothing
  // else names once the user's rows are gone.
  std::map<std::string, uint64_t> candidates;
  kfsd_sql streams(db,
                   "SELECT DISTINCT b.stream, b.length FROM blocks b"
                   " JOIN versions v ON v.id = b.version WHERE v.user = ?");
  streams.bind(id);
  while (streams.row()) {
    candidates[streams.text(0)] = static_cast<uint64_t>(streams.i64(1));
  }
  kfsd_sql versions(db, "SELECT COUNT(*) FROM versions WHERE user = ?");
  bool ok = !streams.failed() && versions.bind(id).row();
  freed->versions = static_cast<uint64_t>(versions.i64(0));
  for (const char* sql : {"DELETE FROM blocks WHERE version IN"
                          " (SELECT id FROM versions WHERE user = ?)",
                          "DELETE FROM versions WHERE user = ?",
                          "DELETE FROM entries WHERE user = ?",
                          "DELETE FROM points WHERE user = ?",
                          "DELETE FROM policies WHERE user = ?",
                          "DELETE FROM users WHERE id = ?"}) {
    kfsd_sql q(db, sql);
    ok = ok && q.bind(id).run();
  }
  std::set<std::string> unnamed;
  ok =
      ok && kfsd_unnamed_streams(db, candidates, true, &unnamed, &freed->bytes);
  freed->streams = unnamed.size();
  if (!ok || !txn.commit()) {
    return ERR_IO;
  }
  kfsd_collect(store, unnamed);
  return 0;
}

uint32_t kfsd_store_stats(kfsd_store* store, kfsd_stats* out) {
  *out = {};
  std::lock_guard<std::mutex> hold(store->mutex);
  kfsd_txn txn(store->db, false);  // one consistent view
  kfsd_sql totals(
      store->db,
      "SELECT (SELECT COUNT(*) FROM users),"
      " (SELECT COUNT(DISTINCT path) FROM versions WHERE complete = 1),"
      " (SELECT COUNT(*) FROM versions WHERE complete = 1),"
      " (SELECT COUNT(*) FROM points),"
      " (SELECT COALESCE(SUM(length), 0) FROM"
      "  (SELECT DISTINCT stream, length FROM blocks)),"
      " (SELECT COALESCE(SUM(size), 0) FROM (SELECT size, ROW_NUMBER()"
      "  OVER (PARTITION BY path ORDER BY done DESC) AS n FROM versions"
      "  WHERE complete = 1) WHERE n = 1),"
      " (SELECT COALESCE(SUM(size), 0) FROM versions WHERE complete = 1)");
  if (!txn.ok() || !totals.row()) {
    return ERR_IO;
  }
  out->users = static_cast<uint64_t>(totals.i64(0));
  out->files = static_cast<uint64_t>(totals.i64(1));
  out->versions = static_cast<uint64_t>(totals.i64(2));
  out->points = static_cast<uint64_t>(totals.i64(3));
  out->stored_bytes = static_cast<uint64_t>(totals.i64(4));
  out->logical_bytes = static_cast<uint64_t>(totals.i64(5));
  out->history_bytes = static_cast<uint64_t>(totals.i64(6));
  // The newest point of each job: its run is the job's last completed one.
  kfsd_sql runs(store->db,
                "SELECT user, job, MAX(time), files, bytes FROM points"
                " GROUP BY user, job ORDER BY user, job");
  while (runs.row()) {
    kfsd_stats::job_run r;
    r.user = static_cast<uint32_t>(runs.i64(0));
    r.job = runs.text(1);
    r.time = runs.i64(2);
    r.files = static_cast<uint64_t>(runs.i64(3));
    r.bytes = static_cast<uint64_t>(runs.i64(4));
    out->last_runs.push_back(std::move(r));
  }
  if (runs.failed()) {
    return ERR_IO;
  }
  std::string packs = store->dir + "/" + KFSD_PACKS_DIR;
  if (dir_ptr d{opendir(packs.c_str())}) {
    while (struct dirent* e = readdir(d.get())) {
      struct stat st;
      if (e->d_name[0] != '.' &&
          stat((packs + "/" + e->d_name).c_str(), &st) == 0) {
        out->pack_bytes += static_cast<uint64_t>(st.st_size);
      }
    }
  }
  return 0;
}
