// Files in the store: versions, uploads and their blocks, and the block
// streams, which are named by the SHA-256 of their bytes so that equal
// streams are kept once. A version's rows change only inside a transaction
// and a stream's bytes are on disk before a row names them, so a crash
// leaves at worst bytes that nothing names (swept at the next start).
#include <dirent.h>
#include <errno.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>

#include "kfs/server/kfsd_internal.h"
#include "kfs/server/sql.h"

namespace {

struct version_row {
  int64_t id = 0;
  int64_t mtime = 0;
  uint64_t size = 0;
  uint32_t block_size = 0;
  uint32_t block_count = 0;
};

// The next row of (id, mtime, size, block_size, block_count), if any.
bool read_version(kfsd_sql* q, version_row* out) {
  if (!q->row()) {
    return false;
  }
  out->id = q->i64(0);
  out->mtime = q->i64(1);
  out->size = static_cast<uint64_t>(q->i64(2));
  out->block_size = static_cast<uint32_t>(q->i64(3));
  out->block_count = static_cast<uint32_t>(q->i64(4));
  return true;
}

// The path's upload (complete 0), or its newest complete version (1), if
// any.
bool find_version(sqlite3* db, const std::string& path, int complete,
                  version_row* out) {
  kfsd_sql upload(db,
                  "SELECT id, mtime, size, block_size, block_count FROM"
                  " versions WHERE path = ? AND complete = 0"
                  " ORDER BY id DESC LIMIT 1");
  kfsd_sql newest(db,
                  "SELECT id, mtime, size, block_size, block_count FROM"
                  " versions WHERE path = ? AND done IS NOT NULL"
                  " ORDER BY done DESC LIMIT 1");
  kfsd_sql& q = complete != 0 ? newest : upload;
  return read_version(&q.bind_text(path), out);
}

// The path's version a point shows: the newest completed by upto.
bool version_at(sqlite3* db, const std::string& path, int64_t upto,
                version_row* out) {
  kfsd_sql q(db,
             "SELECT id, mtime, size, block_size, block_count FROM versions"
             " WHERE path = ? AND done <= ? ORDER BY done DESC LIMIT 1");
  return read_version(&q.bind_text(path).bind(upto), out);
}

// Deletes a version and its blocks; adds the streams they named to gone.
bool delete_version(sqlite3* db, int64_t id, std::set<std::string>* gone) {
  kfsd_sql streams(db, "SELECT stream FROM blocks WHERE version = ?");
  streams.bind(id);
  while (streams.row()) {
    gone->insert(streams.text(0));
  }
  kfsd_sql blocks(db, "DELETE FROM blocks WHERE version = ?");
  kfsd_sql version(db, "DELETE FROM versions WHERE id = ?");
  return !streams.failed() && blocks.bind(id).run() && version.bind(id).run();
}

}  // namespace

void kfsd_collect(kfsd_store* store, const std::set<std::string>& candidates) {
  kfsd_sql q(store->db, "SELECT 1 FROM blocks WHERE stream = ? LIMIT 1");
  kfsd_sql forget(store->db, "DELETE FROM streams WHERE hex = ?");
  for (const std::string& hex : candidates) {
    if (hex.empty()) {
      continue;
    }
    q.reset();
    if (store->in_flight.count(hex) != 0 || q.bind_text(hex).row() ||
        q.failed()) {
      continue;
    }
    forget.reset();
    forget.bind_text(hex).run();
    if (store->pinned.count(hex) == 0) {
      unlink(kfsd_loose_path(store, hex).c_str());
    }
  }
}

namespace {

// An upload (a version not complete) that a handle may still write to.
bool open_upload(sqlite3* db, int64_t id, std::string* path, version_row* out) {
  kfsd_sql q(db,
             "SELECT path, block_size, block_count FROM versions"
             " WHERE id = ? AND complete = 0");
  if (!q.bind(id).row()) {
    return false;
  }
  *path = q.text(0);
  out->id = id;
  out->block_size = static_cast<uint32_t>(q.i64(1));
  out->block_count = static_cast<uint32_t>(q.i64(2));
  return true;
}

// The stream a block of a version names now, or "".
std::string block_stream(sqlite3* db, int64_t version, uint32_t index) {
  kfsd_sql q(db, "SELECT stream FROM blocks WHERE version = ? AND idx = ?");
  return q.bind(version).bind(index).row() ? q.text(0) : "";
}

bool put_block(sqlite3* db, int64_t version, uint32_t index, const void* md5,
               const std::string& stream, uint64_t length) {
  kfsd_sql q(db, "INSERT OR REPLACE INTO blocks VALUES(?, ?, ?, ?, ?, 1)");
  q.bind(version).bind(index).bind_blob(md5, 16).bind_text(stream);
  return q.bind(static_cast<int64_t>(length)).run();
}

}  // namespace

std::string kfsd_temp_path(kfsd_store* store) {
  std::lock_guard<std::mutex> hold(store->mutex);
  return store->dir + "/" + KFSD_TMP_DIR + "/" + std::to_string(getpid()) +
         "-" + std::to_string(++store->temp_counter) + ".part";
}

void kfsd_store_sweep(kfsd_store* store) {
  std::lock_guard<std::mutex> hold(store->mutex);
  std::string tmp = store->dir + "/" + KFSD_TMP_DIR;
  if (dir_ptr d{opendir(tmp.c_str())}) {
    while (struct dirent* e = readdir(d.get())) {
      if (e->d_name[0] != '.') {
        unlink((tmp + "/" + e->d_name).c_str());
      }
    }
  }
  // Rows a crash left between a commit and its clean-up, then the packs
  // no row names: a batch that never committed.
  kfsd_sql(store->db,
           "DELETE FROM streams WHERE hex NOT IN (SELECT stream FROM blocks)")
      .run();
  std::set<int64_t> named;
  kfsd_sql packs(store->db, "SELECT DISTINCT pack FROM streams");
  while (packs.row()) {
    named.insert(packs.i64(0));
  }
  std::string pack_dir = store->dir + "/" + KFSD_PACKS_DIR;
  if (dir_ptr d{opendir(pack_dir.c_str())}; d && !packs.failed()) {
    while (struct dirent* e = readdir(d.get())) {
      int64_t id = strtoll(e->d_name, nullptr, 10);
      if (e->d_name[0] != '.' && named.count(id) == 0) {
        unlink((pack_dir + "/" + e->d_name).c_str());
      }
    }
  }
  // Streams of their own that no block names, or that a pack holds now.
  std::string blocks = store->dir + "/" + KFSD_BLOCKS_DIR;
  dir_ptr top(opendir(blocks.c_str()));
  if (!top) {
    return;
  }
  std::set<std::string> found;
  kfsd_sql packed(store->db, "SELECT 1 FROM streams WHERE hex = ?");
  while (struct dirent* sub = readdir(top.get())) {
    if (sub->d_name[0] == '.') {
      continue;
    }
    if (dir_ptr d{opendir((blocks + "/" + sub->d_name).c_str())}) {
      while (struct dirent* e = readdir(d.get())) {
        if (e->d_name[0] == '.') {
          continue;
        }
        packed.reset();
        if (packed.bind_text(e->d_name).row()) {
          unlink((blocks + "/" + sub->d_name + "/" + e->d_name).c_str());
        } else {
          found.insert(e->d_name);
        }
      }
    }
  }
  kfsd_collect(store, found);
}

uint32_t kfsd_store_wopen(kfsd_store* store, uint32_t uid,
                          const kfsd_path& path, int64_t mtime, uint64_t size,
                          const std::string& attr, uint32_t base_block_size,
                          kfsd_wopen_result* out) {
  uint64_t block_size = base_block_size;
  // Not (size + block_size - 1) / block_size: that wraps for sizes near
  // 2^64 and would open a huge file with no blocks at all.
  uint64_t count = size / block_size + (size % block_size != 0);
  while (count > KFSD_MAX_BLOCKS) {
    block_size *= 2;
    count = size / block_size + (size % block_size != 0);
  }
  if (block_size > UINT32_MAX) {
    return ERR_INVARG;  // over 280 TB: no block size fits a u32
  }

  std::lock_guard<std::mutex> hold(store->mutex);
  sqlite3* db = store->db;
  kfsd_txn txn(db, false);
  kfsd_sql entry(db, "SELECT is_dir FROM entries WHERE path = ?");
  bool exists = entry.bind_text(path.full).row();
  if (exists && entry.i64(0) != 0) {
    return ERR_NOTFILE;
  }
  if (!exists) {
    kfsd_sql parent(db, "SELECT is_dir FROM entries WHERE path = ?");
    if (!parent.bind_text(path.parent).row()) {
      return parent.failed() ? ERR_IO : ERR_BADPATH;
    }
    if (parent.i64(0) == 0) {
      return ERR_NOTDIR;
    }
  }

  version_row current;
  version_row upload;
  bool has_current = find_version(db, path.full, 1, &current);
  bool has_upload = find_version(db, path.full, 0, &upload);
  if (entry.failed()) {
    return ERR_IO;
  }
  if (has_current && current.mtime == mtime && current.size == size) {
    if (!has_upload) {
      return ERR_UP2DATE;
    }
    // The file is here already; an upload left from another attempt is
    // stale now and would only mark the entry as needing a backup.
    std::set<std::string> gone;
    bool ok = txn.ok();
    while (ok && find_version(db, path.full, 0, &upload)) {
      ok = delete_version(db, upload.id, &gone);
    }
    if (!ok || !txn.commit()) {
      return ERR_IO;
    }
    kfsd_collect(store, gone);
    return ERR_UP2DATE;
  }
  // An upload of the same size and block size is resumed: its blocks
  // stay comparable; any other is replaced.
  kfsd_open_rows& rows = out->rows;
  rows.user = uid;
  rows.parent = path.parent;
  rows.name = path.name;
  rows.new_entry = !exists;
  rows.resume = has_upload && upload.size == size &&
                upload.block_size == block_size;
  rows.replaced = has_upload && !rows.resume ? upload.id : 0;
  rows.mtime = mtime;
  rows.size = size;
  rows.attr = attr;
  out->version = rows.resume ? upload.id : store->next_version++;
  // Comparable: the leading blocks with a digest in this upload or in the
  // complete version, when that has the same block size.
  kfsd_sql digests(db,
                   "SELECT DISTINCT idx FROM blocks WHERE version IN (?, ?)"
                   " AND md5 IS NOT NULL ORDER BY idx");
  int64_t same_size =
      has_current && current.block_size == block_size ? current.id : -1;
  digests.bind(rows.resume ? upload.id : -1).bind(same_size);
  uint32_t comparable = 0;
  while (comparable < count && digests.row() &&
         digests.i64(0) == comparable) {
    ++comparable;
  }
  if (digests.failed() || !txn.commit()) {
    return ERR_IO;
  }
  rows.block_size = out->block_size = static_cast<uint32_t>(block_size);
  rows.block_count = out->block_count = static_cast<uint32_t>(count);
  out->comparable = comparable;
  return 0;
}

uint32_t kfsd_store_skip_block(kfsd_store* store, int64_t version,
                               uint32_t index, const uint8_t md5[16]) {
  std::lock_guard<std::mutex> hold(store->mutex);
  sqlite3* db = store->db;
  kfsd_txn txn(db);
  std::string path;
  version_row upload;
  if (!txn.ok() || !open_upload(db, version, &path, &upload)) {
    return ERR_BADKEY;
  }
  kfsd_sql own(db,
               "UPDATE blocks SET received = 1"
               " WHERE version = ? AND idx = ? AND md5 = ?");
  if (!own.bind(version).bind(index).bind_blob(md5, 16).run()) {
    return ERR_IO;
  }
  if (sqlite3_changes(db) > 0) {
    return txn.commit() ? ERR_UP2DATE : ERR_IO;
  }
  version_row current;
  if (!find_version(db, path, 1, &current) ||
      current.block_size != upload.block_size) {
    return 0;
  }
  kfsd_sql theirs(db,
                  "SELECT stream, length FROM blocks"
                  " WHERE version = ? AND idx = ? AND md5 = ?");
  if (!theirs.bind(current.id).bind(index).bind_blob(md5, 16).row()) {
    return theirs.failed() ? ERR_IO : ERR_NONE;
  }
  std::set<std::string> gone = {block_stream(db, version, index)};
  if (!put_block(db, version, index, md5, theirs.text(0),
                 static_cast<uint64_t>(theirs.i64(1))) ||
      !txn.commit()) {
    return ERR_IO;
  }
  kfsd_collect(store, gone);
  return ERR_UP2DATE;
}

namespace {

// An open's rows inside the batch's transaction.
bool open_upload_rows(sqlite3* db, const kfsd_write_job& job,
                      std::set<std::string>* gone) {
  const kfsd_open_rows& rows = *job.open;
  bool ok = true;
  if (rows.new_entry) {
    kfsd_sql add(db, "INSERT INTO entries VALUES(?, ?, ?, ?, 0, ?)");
    add.bind_text(job.path).bind(rows.user).bind_text(rows.parent);
    ok = add.bind_text(rows.name).bind(time(nullptr)).run();
  }
  if (ok && rows.replaced != 0) {
    ok = delete_version(db, rows.replaced, gone);
  }
  if (ok && rows.resume) {
    kfsd_sql update(db, "UPDATE versions SET mtime = ?, attr = ? WHERE id = ?");
    kfsd_sql unmark(db, "UPDATE blocks SET received = 0 WHERE version = ?");
    update.bind(rows.mtime).bind_blob(rows.attr.data(), rows.attr.size());
    return update.bind(job.version).run() && unmark.bind(job.version).run();
  }
  kfsd_sql add(db,
               "INSERT INTO versions(id, user, path, complete, mtime, size,"
               " block_size, block_count, attr) VALUES(?, ?, ?, 0, ?, ?, ?, ?,"
               " ?)");
  add.bind(job.version).bind(rows.user).bind_text(job.path).bind(rows.mtime);
  add.bind(static_cast<int64_t>(rows.size));
  add.bind(static_cast<int64_t>(rows.block_size));
  add.bind(static_cast<int64_t>(rows.block_count));
  return ok && add.bind_blob(rows.attr.data(), rows.attr.size()).run();
}

// A close inside the batch's transaction: the upload becomes the path's
// newest version when every block was received (the ones before it stay,
// for the points that show them); otherwise it stays pending.
bool close_upload(kfsd_store* store, int64_t version) {
  sqlite3* db = store->db;
  std::string path;
  version_row upload;
  if (!open_upload(db, version, &path, &upload)) {
    return true;  // gone already: nothing to do
  }
  kfsd_sql received(db,
                    "SELECT COUNT(*) FROM blocks WHERE version = ?"
                    " AND received = 1 AND idx < ?");
  if (!received.bind(version).bind(upload.block_count).row()) {
    return false;
  }
  if (received.i64(0) != upload.block_count) {
    return true;  // stays an incomplete upload; the listing marks it
  }
  kfsd_sql done(db, "UPDATE versions SET complete = 1, done = ? WHERE id = ?");
  return done.bind(store->next_done++).bind(version).run();
}

void set_status(kfsd_write_job* job, uint32_t status) {
  if (job->status != nullptr) {
    *job->status = status;
  }
}

}  // namespace

void kfsd_store_write(kfsd_store* store, bool sync,
                      const std::vector<kfsd_write_job*>& jobs) {
  std::lock_guard<std::mutex> packing(store->pack_mutex);
  // Where each block's stream lies: stored already, or appended now when
  // it is neither stored nor earlier in this batch.
  std::map<std::string, kfsd_stream_loc> places;
  std::vector<kfsd_write_job*> to_append;
  {
    std::lock_guard<std::mutex> hold(store->mutex);
    kfsd_sql known(store->db,
                   "SELECT hex, length, pack, offset FROM streams"
                   " WHERE hex = ?");
    for (kfsd_write_job* job : jobs) {
      if (job->close || job->open || job->retention ||
          places.count(job->sha256_hex) != 0) {
        continue;
      }
      known.reset();
      if (!known.bind_text(job->sha256_hex).row()) {
        places[job->sha256_hex] = {};
        to_append.push_back(job);
      } else {
        // Stored already: kept until this batch names it, whatever
        // another request deletes meanwhile (and its row written again
        // should a prune in another process take it: its bytes stay until
        // this server rewrites the pack).
        places[job->sha256_hex] = kfsd_stream_row(&known, 0);
        store->in_flight.insert(job->sha256_hex);
      }
    }
  }
  // The bytes go out without the database's lock, so requests that only
  // read it are not held up by the disk.
  std::set<std::string> lost;
  for (kfsd_write_job* job : to_append) {
    kfsd_stream_loc& loc = places[job->sha256_hex];
    loc.hex = job->sha256_hex;
    if (!kfsd_pack_append(store, job->data, &loc)) {
      lost.insert(job->sha256_hex);
    }
  }
  if (sync && !to_append.empty() && !kfsd_pack_flush(store)) {
    for (kfsd_write_job* job : to_append) {
      lost.insert(job->sha256_hex);
    }
  }

  std::lock_guard<std::mutex> hold(store->mutex);
  sqlite3* db = store->db;
  kfsd_txn txn(db);
  std::set<std::string> gone;
  std::set<std::string> kept = std::move(store->in_flight);
  store->in_flight.clear();
  gone.insert(kept.begin(), kept.end());  // unless a block names them now
  kfsd_sql add(db, "INSERT OR IGNORE INTO streams VALUES(?, ?, ?, ?)");
  bool ok = txn.ok();
  for (kfsd_write_job* job : jobs) {
    if (job->close) {
      ok = ok && close_upload(store, job->version);
      continue;
    }
    if (job->open) {
      ok = ok && open_upload_rows(db, *job, &gone);
      continue;
    }
    if (job->retention) {
      continue;  // after the commit
    }
    std::string path;
    version_row upload;
    if (lost.count(job->sha256_hex) != 0) {
      set_status(job, ERR_IO);  // the block stays missing; the close sees it
    } else if (!open_upload(db, job->version, &path, &upload)) {
      set_status(job, ERR_BADKEY);
    } else {
      auto it = places.find(job->sha256_hex);
      if (it != places.end() && it->second.pack >= 0) {
        const kfsd_stream_loc& loc = it->second;
        add.reset();
        add.bind_text(loc.hex).bind(loc.pack);
        add.bind(static_cast<int64_t>(loc.offset));
        ok = ok && add.bind(static_cast<int64_t>(loc.length)).run();
      }
      gone.insert(block_stream(db, job->version, job->index));
      ok = ok && put_block(db, job->version, job->index,
                           job->has_md5 ? job->md5 : nullptr, job->sha256_hex,
                           job->data.size());
      set_status(job, 0);
    }
  }
  if (!ok || !txn.commit()) {
    // An open whose rows are lost leaves nothing that marks its file as
    // missing: the user's next stamp must not vouch for it.
    for (kfsd_write_job* job : jobs) {
      set_status(job, ERR_IO);
      if (job->open) {
        store->lost_rows.insert(job->open->user);
      }
    }
    return;  // the appended bytes stay unnamed; the next start sweeps them
  }
  for (kfsd_write_job* job : jobs) {
    gone.erase(job->sha256_hex);
  }
  kfsd_collect(store, gone);
}

uint32_t kfsd_store_ropen(kfsd_store* store, const kfsd_path& path,
                          kfsd_ropen_result* out) {
  std::lock_guard<std::mutex> hold(store->mutex);
  sqlite3* db = store->db;
  kfsd_txn reading(db, false);
  if (path.points_dir) {
    return ERR_NOTFILE;
  }
  kfsd_point point;
  if (!path.point.empty() &&
      !kfsd_point_find(db, path.user, path.point, &point)) {
    return ERR_BADPATH;
  }
  kfsd_sql entry(db, "SELECT is_dir FROM entries WHERE path = ?");
  if (!entry.bind_text(path.full).row()) {
    return entry.failed() ? ERR_IO : ERR_BADPATH;
  }
  if (entry.i64(0) != 0) {
    return ERR_NOTFILE;
  }
  version_row current;
  if (path.point.empty() ? !find_version(db, path.full, 1, &current)
                         : !version_at(db, path.full, point.upto, &current)) {
    return ERR_BADPATH;  // only an incomplete upload: nothing to read
  }
  kfsd_sql attr(db, "SELECT attr FROM versions WHERE id = ?");
  kfsd_sql blocks(db,
                  "SELECT b.idx, b.stream, b.length, s.pack, s.offset"
                  " FROM blocks b LEFT JOIN streams s ON s.hex = b.stream"
                  " WHERE b.version = ? ORDER BY b.idx");
  out->attr = attr.bind(current.id).row() ? attr.text(0) : "";
  out->blocks.clear();
  blocks.bind(current.id);
  while (blocks.row() &&
         blocks.i64(0) == static_cast<int64_t>(out->blocks.size())) {
    out->blocks.push_back(kfsd_stream_row(&blocks, 1));
  }
  if (attr.failed() || blocks.failed() ||
      out->blocks.size() != current.block_count) {
    return ERR_IO;
  }
  for (const kfsd_stream_loc& loc : out->blocks) {
    ++store->pinned[loc.hex];
    ++store->pinned_packs[loc.pack];
  }
  out->mtime = current.mtime;
  out->size = current.size;
  return 0;
}

void kfsd_store_unpin(kfsd_store* store,
                      const std::vector<kfsd_stream_loc>& blocks) {
  std::lock_guard<std::mutex> hold(store->mutex);
  std::set<std::string> released;
  for (const kfsd_stream_loc& loc : blocks) {
    auto pack = store->pinned_packs.find(loc.pack);
    if (pack != store->pinned_packs.end() && --pack->second == 0) {
      store->pinned_packs.erase(pack);
    }
    auto it = store->pinned.find(loc.hex);
    if (it != store->pinned.end() && --it->second == 0) {
      store->pinned.erase(it);
      released.insert(loc.hex);
    }
  }
  kfsd_collect(store, released);
}

kfsd_stream_loc kfsd_stream_row(kfsd_sql* q, int col) {
  kfsd_stream_loc loc;
  loc.hex = q->text(col);
  loc.length = static_cast<uint64_t>(q->i64(col + 1));
  if (!q->is_null(col + 2)) {
    loc.pack = q->i64(col + 2);
    loc.offset = static_cast<uint64_t>(q->i64(col + 3));
  }
  return loc;
}
