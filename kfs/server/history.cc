// History: the restore points a completed run makes, the folder that shows
// them, retention (which points and versions are kept), and giving back
// the space of streams nothing names any more.
#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "kfs/server/kfsd_internal.h"
#include "kfs/server/sql.h"

namespace {

// A row of (id, name, time, job, job_file, files, bytes, upto).
kfsd_point read_point(kfsd_sql* q) {
  kfsd_point p;
  p.id = q->i64(0);
  p.name = q->text(1);
  p.time = q->i64(2);
  p.job = q->text(3);
  p.job_file = q->text(4);
  p.files = static_cast<uint64_t>(q->i64(5));
  p.bytes = static_cast<uint64_t>(q->i64(6));
  p.upto = q->i64(7);
  return p;
}

// "2026-11-24T01:46:59Z nightly": the time in UTC, then the job, which
// may not bring a '/' into the name.
std::string point_name(int64_t when, const std::string& job) {
  time_t t = static_cast<time_t>(when);
  struct tm tm;
  char stamp[32] = "?";
  if (gmtime_r(&t, &tm) != nullptr) {
    strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &tm);
  }
  std::string name = stamp;
  name += ' ';
  for (char c : job.empty() ? std::string("-") : job) {
    name += c == '/' || static_cast<unsigned char>(c) < 0x20 ? '_' : c;
  }
  name.resize(std::min(name.size(), KFSD_MAX_NAME - 8));  // room for " (N)"
  return name;
}

bool read_points(sqlite3* db, uint32_t user, std::vector<kfsd_point>* out) {
  kfsd_sql q(db,
             "SELECT id, name, time, job, job_file, files, bytes, upto"
             " FROM points WHERE user = ? ORDER BY time, id");
  q.bind(user);
  out->clear();
  while (q.row()) {
    out->push_back(read_point(&q));
  }
  return !q.failed();
}

}  // namespace

bool kfsd_point_add(kfsd_store* store, uint32_t user, const std::string& job,
                    const std::string& job_file) {
  sqlite3* db = store->db;
  int64_t upto = store->next_done - 1;
  // What this run stored: what was completed since the user's last point
  // (with what runs that never ended completed).
  kfsd_sql last(db, "SELECT COALESCE(MAX(upto), 0) FROM points WHERE user = ?");
  if (!last.bind(user).row()) {
    return false;
  }
  kfsd_sql stored(db,
                  "SELECT COUNT(*), COALESCE(SUM(size), 0) FROM versions"
                  " WHERE user = ? AND done > ? AND done <= ?");
  if (!stored.bind(user).bind(last.i64(0)).bind(upto).row()) {
    return false;
  }
  int64_t now = time(nullptr);
  std::string base = point_name(now, job);
  std::string name = base;
  kfsd_sql taken(db, "SELECT 1 FROM points WHERE user = ? AND name = ?");
  for (int n = 2; taken.bind(user).bind_text(name).row(); ++n) {
    name = base + " (" + std::to_string(n) + ")";
    taken.reset();
  }
  kfsd_sql add(db,
               "INSERT INTO points(user, name, time, job, job_file, files,"
               " bytes, upto) VALUES(?, ?, ?, ?, ?, ?, ?, ?)");
  add.bind(user).bind_text(name).bind(now).bind_text(job).bind_text(job_file);
  add.bind(stored.i64(0)).bind(stored.i64(1)).bind(upto);
  return !taken.failed() && add.run();
}

bool kfsd_point_find(sqlite3* db, uint32_t user, const std::string& name,
                     kfsd_point* out) {
  kfsd_sql q(db,
             "SELECT id, name, time, job, job_file, files, bytes, upto"
             " FROM points WHERE user = ? AND name = ?");
  if (!q.bind(user).bind_text(name).row()) {
    return false;
  }
  *out = read_point(&q);
  return true;
}

uint32_t kfsd_points_list(kfsd_store* store, uint32_t user,
                          const std::string& pattern,
                          std::vector<kfsd_entry>* out) {
  std::vector<kfsd_point> points;
  if (!read_points(store->db, user, &points)) {
    return ERR_IO;
  }
  for (const kfsd_point& p : points) {
    if (!pattern.empty() && fnmatch(pattern.c_str(), p.name.c_str(), 0) != 0) {
      continue;
    }
    kfsd_entry e;
    e.kind = 1;
    e.attr = KFSD_ATTR_DIRECTORY |
             static_cast<uint32_t>(std::min<uint64_t>(p.files, 0xFFFFFF) << 8);
    e.mtime = p.time;
    e.size = p.bytes;
    e.name = p.name;
    out->push_back(std::move(e));
  }
  return 0;
}

uint32_t kfsd_store_prune(kfsd_store* store, uint32_t user,
                          const kfsd_retention& rules, bool dry_run,
                          kfsd_prune_result* out) {
  std::lock_guard<std::mutex> hold(store->mutex);
  sqlite3* db = store->db;
  kfsd_txn txn(db);
  std::vector<kfsd_point> points;
  if (!txn.ok() || !read_points(db, user, &points)) {
    return ERR_IO;
  }
  *out = {};
  std::set<int64_t> keep = kfsd_retention_keep(points, rules);
  std::vector<int64_t> shown;  // what the kept points show up to
  kfsd_sql drop(db, "DELETE FROM points WHERE id = ?");
  bool ok = true;
  for (const kfsd_point& p : points) {
    if (keep.count(p.id) != 0) {
      out->kept.push_back(p);
      shown.push_back(p.upto);
    } else {
      out->removed.push_back(p);
      drop.reset();
      ok = ok && drop.bind(p.id).run();
    }
  }
  std::sort(shown.begin(), shown.end());
  // A version shows in the points from its completion up to the next
  // version's: it stays when a kept point lies in between, and always when
  // it is the file's newest.
  std::vector<int64_t> doomed;
  kfsd_sql versions(db,
                    "SELECT id, done, LEAD(done) OVER (PARTITION BY path"
                    " ORDER BY done) FROM versions"
                    " WHERE user = ? AND done IS NOT NULL");
  versions.bind(user);
  while (ok && versions.row()) {
    if (versions.is_null(2)) {
      continue;
    }
    auto it = std::lower_bound(shown.begin(), shown.end(), versions.i64(1));
    if (it == shown.end() || *it >= versions.i64(2)) {
      doomed.push_back(versions.i64(0));
    }
  }
  ok = ok && !versions.failed();
  std::map<std::string, uint64_t> candidates;  // stream -> its length
  kfsd_sql streams(db, "SELECT stream, length FROM blocks WHERE version = ?");
  kfsd_sql blocks(db, "DELETE FROM blocks WHERE version = ?");
  kfsd_sql version(db, "DELETE FROM versions WHERE id = ?");
  for (int64_t id : doomed) {
    streams.reset();
    streams.bind(id);
    while (streams.row()) {
      candidates[streams.text(0)] = static_cast<uint64_t>(streams.i64(1));
    }
    blocks.reset();
    version.reset();
    ok = ok && !streams.failed() && blocks.bind(id).run() &&
         version.bind(id).run();
  }
  out->versions = doomed.size();
  std::set<std::string> unnamed;
  ok = ok &&
       kfsd_unnamed_streams(db, candidates, !dry_run, &unnamed, &out->bytes);
  out->streams = unnamed.size();
  if (!ok) {
    return ERR_IO;
  }
  if (dry_run) {
    return 0;  // the transaction is rolled back
  }
  if (!txn.commit()) {
    return ERR_IO;
  }
  kfsd_collect(store, unnamed);  // files of their own go now
  return 0;
}

bool kfsd_unnamed_streams(sqlite3* db,
                          const std::map<std::string, uint64_t>& candidates,
                          bool forget, std::set<std::string>* unnamed,
                          uint64_t* bytes) {
  kfsd_sql named(db, "SELECT 1 FROM blocks WHERE stream = ? LIMIT 1");
  kfsd_sql drop(db, "DELETE FROM streams WHERE hex = ?");
  for (const auto& [hex, length] : candidates) {
    named.reset();
    if (named.bind_text(hex).row()) {
      continue;
    }
    if (named.failed()) {
      return false;
    }
    unnamed->insert(hex);
    *bytes += length;
    drop.reset();
    if (forget && !drop.bind_text(hex).run()) {
      return false;
    }
  }
  return true;
}

uint32_t kfsd_store_get_policy(kfsd_store* store, uint32_t user,
                               kfsd_retention* out) {
  std::lock_guard<std::mutex> hold(store->mutex);
  kfsd_sql q(store->db,
             "SELECT last, hourly, daily, weekly, monthly, yearly, within"
             " FROM policies WHERE user = ?");
  *out = {};
  if (q.bind(user).row()) {
    out->last = static_cast<uint32_t>(q.i64(0));
    out->hourly = static_cast<uint32_t>(q.i64(1));
    out->daily = static_cast<uint32_t>(q.i64(2));
    out->weekly = static_cast<uint32_t>(q.i64(3));
    out->monthly = static_cast<uint32_t>(q.i64(4));
    out->yearly = static_cast<uint32_t>(q.i64(5));
    out->within = q.i64(6);
  }
  return q.failed() ? ERR_IO : ERR_NONE;
}

uint32_t kfsd_store_set_policy(kfsd_store* store, uint32_t user,
                               const kfsd_retention& rules) {
  std::lock_guard<std::mutex> hold(store->mutex);
  kfsd_txn txn(store->db);
  kfsd_sql known(store->db, "SELECT 1 FROM users WHERE id = ?");
  if (!known.bind(user).row()) {
    return known.failed() ? ERR_IO : ERR_AUTH_FAILURE;
  }
  kfsd_sql drop(store->db, "DELETE FROM policies WHERE user = ?");
  kfsd_sql add(store->db,
               "INSERT INTO policies VALUES(?, ?, ?, ?, ?, ?, ?, ?)");
  add.bind(user).bind(rules.last).bind(rules.hourly).bind(rules.daily);
  add.bind(rules.weekly).bind(rules.monthly).bind(rules.yearly);
  add.bind(rules.within);
  bool ok = txn.ok() && drop.bind(user).run() && (rules.empty() || add.run());
  return ok && txn.commit() ? ERR_NONE : ERR_IO;
}

namespace {

// Copies a pack's named streams to the current pack and names them there;
// false when something failed or a reader took the pack meanwhile (the
// copies then stay unnamed, the old pack as it was).
bool rewrite_pack(kfsd_store* store, int64_t pack) {
  std::vector<kfsd_stream_loc> live;
  {
    std::lock_guard<std::mutex> hold(store->mutex);
    kfsd_sql q(store->db,
               "SELECT hex, length, pack, offset FROM streams WHERE pack = ?");
    q.bind(pack);
    while (q.row()) {
      live.push_back(kfsd_stream_row(&q, 0));
    }
    if (q.failed()) {
      return false;
    }
  }
  kfsd_stream_reader reader;
  std::vector<kfsd_stream_loc> moved;
  std::string bytes;
  for (const kfsd_stream_loc& loc : live) {
    bytes.resize(loc.length);
    kfsd_stream_loc to;
    to.hex = loc.hex;
    if (!kfsd_stream_read(store, &reader, loc, 0, bytes.data(), bytes.size()) ||
        !kfsd_pack_append(store, bytes, &to)) {
      return false;
    }
    moved.push_back(to);
  }
  if (!kfsd_pack_flush(store)) {
    return false;
  }
  std::lock_guard<std::mutex> hold(store->mutex);
  if (store->pinned_packs.count(pack) != 0) {
    return false;
  }
  kfsd_txn txn(store->db);
  kfsd_sql move(store->db,
                "UPDATE streams SET pack = ?, offset = ? WHERE hex = ?"
                " AND pack = ?");
  bool ok = txn.ok();
  for (const kfsd_stream_loc& to : moved) {
    move.reset();
    move.bind(to.pack).bind(static_cast<int64_t>(to.offset));
    ok = ok && move.bind_text(to.hex).bind(pack).run();
  }
  return ok && txn.commit();
}

}  // namespace

uint64_t kfsd_store_compact(kfsd_store* store) {
  std::map<int64_t, uint64_t> live;
  {
    std::lock_guard<std::mutex> hold(store->mutex);
    kfsd_sql q(store->db,
               "SELECT pack, SUM(length) FROM streams GROUP BY pack");
    while (q.row()) {
      live[q.i64(0)] = static_cast<uint64_t>(q.i64(1));
    }
    if (q.failed()) {
      return 0;
    }
  }
  std::string dir = store->dir + "/" + KFSD_PACKS_DIR;
  std::vector<std::pair<int64_t, uint64_t>> packs;  // id, size
  if (dir_ptr d{opendir(dir.c_str())}) {
    while (struct dirent* e = readdir(d.get())) {
      struct stat st;
      int64_t id = strtoll(e->d_name, nullptr, 10);
      if (e->d_name[0] != '.' && id > 0 &&
          stat((dir + "/" + e->d_name).c_str(), &st) == 0) {
        packs.emplace_back(id, static_cast<uint64_t>(st.st_size));
      }
    }
  }
  uint64_t given = 0;
  for (const auto& [id, size] : packs) {
    uint64_t used = live.count(id) != 0 ? live[id] : 0;
    // A pack still written to, one a reader holds, and one mostly in use
    // stay as they are.
    bool current = store->pack_fd && id == store->pack_id;
    bool pinned = false;
    {
      std::lock_guard<std::mutex> hold(store->mutex);
      pinned = store->pinned_packs.count(id) != 0;
    }
    if (current || pinned || size - std::min(size, used) < size / 2 ||
        (used > 0 && !rewrite_pack(store, id))) {
      continue;
    }
    if (unlink(kfsd_pack_path(store, id).c_str()) == 0) {
      given += size - std::min(size, used);
    }
  }
  return given;
}

void kfsd_apply_policy(kfsd_store* store, uint32_t user) {
  kfsd_retention rules;
  if (kfsd_store_get_policy(store, user, &rules) != 0) {
    kfsd_log("user %u: cannot read the retention policy", user);
    return;
  }
  if (!rules.empty()) {
    kfsd_prune_result r;
    if (kfsd_store_prune(store, user, rules, false, &r) != 0) {
      kfsd_log("user %u: retention failed; the store is as it was", user);
    } else if (!r.removed.empty()) {
      kfsd_log(
          "user %u: retention kept %zu points, removed %zu, %llu versions,"
          " %llu bytes",
          user, r.kept.size(), r.removed.size(),
          static_cast<unsigned long long>(r.versions),
          static_cast<unsigned long long>(r.bytes));
    }
  }
  std::lock_guard<std::mutex> packing(store->pack_mutex);
  uint64_t given = kfsd_store_compact(store);
  if (given > 0) {
    kfsd_log("packs rewritten: %llu bytes given back",
             static_cast<unsigned long long>(given));
  }
}
