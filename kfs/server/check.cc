// The store's own consistency check (kfsd check): what a crash, a full disk
// or a bug could leave behind that would make a restore fail or a backup
// skip what it must send. Read-only; run it on a stopped server or beside a
// running one (it reads one consistent snapshot of the database).
#include <sqlite3.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>

#include <openssl/evp.h>

#include "kfs/server/kfsd_internal.h"
#include "kfs/server/sql.h"
#include "lib/scoped.h"

namespace {

// The SHA-256 of a stream's bytes, as the lower-case hex that names it;
// "" when they cannot all be read. *length gets the bytes read: up to the
// end of a file of its own, exactly the recorded range of a pack.
std::string stream_sha256(const kfsd_store* store, const kfsd_stream_loc& loc,
                          uint64_t* length) {
  unique_fd fd(kfsd_stream_open(store, loc));
  md_ctx_ptr md(EVP_MD_CTX_new());
  if (!fd || !md || EVP_DigestInit_ex(md.get(), EVP_sha256(), nullptr) != 1) {
    return "";
  }
  uint8_t buffer[65536];
  *length = 0;
  for (;;) {
    size_t want = sizeof buffer;
    if (loc.pack >= 0) {
      want =
          static_cast<size_t>(std::min<uint64_t>(want, loc.length - *length));
    }
    ssize_t n = want == 0 ? 0
                          : pread(fd.get(), buffer, want,
                                  static_cast<off_t>(loc.offset + *length));
    if (n < 0) {
      return "";
    }
    if (n == 0) {
      break;
    }
    EVP_DigestUpdate(md.get(), buffer, static_cast<size_t>(n));
    *length += static_cast<uint64_t>(n);
  }
  uint8_t digest[32];
  unsigned int size = 0;
  if (EVP_DigestFinal_ex(md.get(), digest, &size) != 1) {
    return "";
  }
  char hex[65];
  for (unsigned i = 0; i < 32; ++i) {
    snprintf(hex + 2 * i, 3, "%02x", digest[i]);  // as streams are named
  }
  return hex;
}

void check_database(sqlite3* db, std::vector<std::string>* problems) {
  kfsd_sql q(db, "PRAGMA integrity_check");
  while (q.row()) {
    std::string line = q.text(0);
    if (line != "ok") {
      problems->push_back("database: " + line);
    }
  }
  if (q.failed()) {
    problems->push_back("database: the integrity check could not run");
  }
}

// Every stream a block names is present (in its pack, at its range, or in
// a file of its own), of its recorded length, and named by the SHA-256 of
// its bytes.
void check_streams(kfsd_store* store, std::vector<std::string>* problems) {
  std::map<std::string, kfsd_stream_loc> streams;
  kfsd_sql q(store->db,
             "SELECT DISTINCT b.stream, b.length, s.pack, s.offset, s.length"
             " FROM blocks b LEFT JOIN streams s ON s.hex = b.stream"
             " WHERE b.received = 1");
  while (q.row()) {
    kfsd_stream_loc loc = kfsd_stream_row(&q, 0);
    if (loc.pack >= 0 && static_cast<uint64_t>(q.i64(4)) != loc.length) {
      problems->push_back("stream " + loc.hex +
                          ": its pack range and its blocks disagree");
    }
    auto [it, added] = streams.emplace(loc.hex, loc);
    if (!added && it->second.length != loc.length) {
      problems->push_back("stream " + loc.hex + ": recorded with two lengths");
    }
  }
  for (const auto& [stream, loc] : streams) {
    uint64_t length = loc.length;
    uint64_t got = 0;
    std::string hex = stream_sha256(store, loc, &got);
    if (hex.empty()) {
      problems->push_back("stream " + stream + ": missing or unreadable");
    } else if (hex != stream) {
      problems->push_back("stream " + stream +
                          ": its bytes do not match its name");
    } else if (got != length) {
      problems->push_back("stream " + stream + ": " + std::to_string(got) +
                          " bytes, recorded " + std::to_string(length));
    }
  }
}

// A complete version has every block, its block count fits its size, its
// completion number is its own, and its path is a file whose folders
// exist.
void check_versions(sqlite3* db, std::vector<std::string>* problems) {
  kfsd_sql q(db,
             "SELECT v.id, v.path, v.size, v.block_size, v.block_count,"
             " (SELECT COUNT(*) FROM blocks b WHERE b.version = v.id"
             "  AND b.received = 1 AND b.idx < v.block_count),"
             " (SELECT is_dir FROM entries e WHERE e.path = v.path), v.done"
             " FROM versions v WHERE v.complete = 1");
  std::set<int64_t> numbers;
  while (q.row()) {
    std::string path = q.text(1);
    uint64_t size = static_cast<uint64_t>(q.i64(2));
    uint64_t block_size = static_cast<uint64_t>(q.i64(3));
    int64_t count = q.i64(4);
    int64_t held = q.i64(5);
    int64_t expected =
        block_size == 0
            ? -1
            : static_cast<int64_t>((size + block_size - 1) / block_size);
    if (q.is_null(7) || !numbers.insert(q.i64(7)).second) {
      problems->push_back(path + ": a version without a completion number"
                                 " of its own");
    }
    if (count != expected) {
      problems->push_back(path + ": " + std::to_string(count) +
                          " blocks for its size");
    }
    if (held != count) {
      problems->push_back(path + ": complete with " + std::to_string(held) +
                          " of " + std::to_string(count) + " blocks");
    }
    if (q.is_null(6) || q.i64(6) != 0) {
      problems->push_back(path + ": not listed as a file");
    }
  }
  kfsd_sql orphans(db,
                   "SELECT path FROM entries WHERE parent <> '' AND parent"
                   " NOT IN (SELECT path FROM entries WHERE is_dir = 1)");
  while (orphans.row()) {
    problems->push_back(orphans.text(0) + ": its folder is missing");
  }
  if (q.failed() || orphans.failed()) {
    problems->push_back("database: a query failed");
  }
}

// Points belong to users and show only what was completed before them;
// an upload has no completion number.
void check_history(sqlite3* db, std::vector<std::string>* problems) {
  kfsd_sql points(db,
                  "SELECT p.name, p.user, (SELECT 1 FROM users u"
                  " WHERE u.id = p.user), p.upto > (SELECT COALESCE(MAX(done),"
                  " 0) FROM versions) FROM points p");
  while (points.row()) {
    std::string name = "point " + points.text(0) + " of user " +
                       std::to_string(points.i64(1));
    if (points.is_null(2)) {
      problems->push_back(name + ": no such user");
    }
    if (points.i64(3) != 0) {
      problems->push_back(name + ": shows versions never completed");
    }
  }
  kfsd_sql uploads(db,
                   "SELECT path FROM versions WHERE complete = 0"
                   " AND done IS NOT NULL");
  while (uploads.row()) {
    problems->push_back(uploads.text(0) +
                        ": an upload with a completion number");
  }
  if (points.failed() || uploads.failed()) {
    problems->push_back("database: a query failed");
  }
}

}  // namespace

int kfsd_store_check(kfsd_store* store, std::vector<std::string>* problems) {
  std::lock_guard<std::mutex> hold(store->mutex);
  // One snapshot for every query: a server writing beside us cannot make a
  // consistent store look broken.
  if (sqlite3_exec(store->db, "BEGIN", nullptr, nullptr, nullptr) !=
      SQLITE_OK) {
    problems->push_back("database: cannot be read");
    return -1;
  }
  check_database(store->db, problems);
  check_versions(store->db, problems);
  check_history(store->db, problems);
  check_streams(store, problems);
  sqlite3_exec(store->db, "COMMIT", nullptr, nullptr, nullptr);
  return problems->empty() ? 0 : -1;
}
