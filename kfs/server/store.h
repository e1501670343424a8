// kfs/server/store.h: the store behind kfsd's requests. Two parts: the
// metadata (users, folders, files and their versions, blocks, the streams
// that hold them: SQLite in store.cc, store_files.cc) and the block store
// (stream bytes in pack files: packs.cc). Request handlers see only what
// this header declares: no statement, file or path of the data folder.
// Many connection threads use one store; every function takes the store's
// mutex itself, so each is one atomic step.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "lib/scoped.h"

struct sqlite3;

// Names inside the data folder.
constexpr char KFSD_DB_FILE[] = "kfsd.db";
constexpr char KFSD_KEY_FILE[] = "server.pem";  // RSA private key
constexpr char KFSD_PACKS_DIR[] = "packs";      // streams, appended
constexpr char KFSD_BLOCKS_DIR[] = "blocks";    // older streams, a file each
constexpr char KFSD_TMP_DIR[] = "tmp";          // messages being written
constexpr char KFSD_OUTBOX_DIR[] = "outbox";    // one file per e-mail
constexpr char KFSD_KEYS_DIR[] = "keys";        // generated account keys
constexpr char KFSD_LOCKS_DIR[] = "locks";      // a lock file per user
// Below a user's root: the read-only folder of restore points.
constexpr char KFSD_POINTS_DIR[] = ".points";

// Where a block stream's bytes lie: a range of a pack file, or (in folders
// written before packs) a file of its own named by the stream.
struct kfsd_stream_loc {
  std::string hex;    // the SHA-256 of the bytes, which names the stream
  int64_t pack = -1;  // -1: a file of its own
  uint64_t offset = 0;
  uint64_t length = 0;
};

struct kfsd_store {
  std::string dir;
  sqlite3* db = nullptr;
  std::mutex mutex;  // the database, one statement at a time
  // Streams in files of their own that open read handles still use: one
  // no version refers to any more stays on disk while pinned; the next
  // start sweeps it.
  std::map<std::string, int> pinned;
  // Stored streams that the running write batch will name again: kept
  // even if every block naming them goes meanwhile.
  std::set<std::string> in_flight;
  // Uploads get their version ids here, before their rows are written.
  int64_t next_version = 1;
  // The number the next completed version gets: a file's versions and the
  // points that show them are ordered by it.
  int64_t next_done = 1;
  // Packs that open read handles use: not rewritten while so.
  std::map<int64_t, int> pinned_packs;
  // Users whose queued rows a failed batch lost: their next stamp is
  // withheld, as after an unclean stop.
  std::set<uint32_t> lost_rows;
  uint64_t temp_counter = 0;
  // The pack being appended to (by one batch at a time); a new one is
  // begun at every start, so a pack never grows past a crash.
  std::mutex pack_mutex;
  int64_t pack_id = 0;
  unique_fd pack_fd;
  uint64_t pack_size = 0;
  bool pack_new = false;  // its folder entry is not yet flushed
};

struct kfsd_user {
  uint32_t id = 0;
  std::string name;
  std::string account;
  std::string email;
  uint64_t quota = 0;
  uint8_t key_sha1[20] = {};
  uint32_t stamp = 0;
};

// A path inside a user's area, normalised: "/7/a/b" has parent "/7/a" and
// name "b"; the user's root "/7" has parent "".
struct kfsd_path {
  std::string full;
  std::string parent;
  std::string name;
  bool is_root = false;
  // "/7/.points/<point>/a" is "/7/a" as the point shows it: point is its
  // name; "/7/.points" itself is the folder of the points.
  std::string point;
  bool points_dir = false;
  uint32_t user = 0;
  bool read_only() const { return points_dir || !point.empty(); }
};

// One entry of a directory listing.
struct kfsd_entry {
  uint8_t kind = 0;  // 0 file, 1 directory
  uint32_t attr = 0;
  int64_t mtime = 0;
  uint64_t size = 0;
  std::string name;
};

// What a write open adds or changes, written with the next batch: its
// answer needs only what was read.
struct kfsd_open_rows {
  uint32_t user = 0;
  std::string parent;
  std::string name;
  bool new_entry = false;
  int64_t replaced = 0;  // an upload to delete first, or 0
  bool resume = false;   // the version exists: new time and attributes
  int64_t mtime = 0;
  uint64_t size = 0;
  uint32_t block_size = 0;
  uint32_t block_count = 0;
  std::string attr;
};

struct kfsd_wopen_result {
  int64_t version = 0;
  uint32_t block_size = 0;
  uint32_t block_count = 0;
  uint32_t comparable = 0;
  kfsd_open_rows rows;
};

struct kfsd_ropen_result {
  int64_t mtime = 0;
  uint64_t size = 0;
  std::string attr;
  std::vector<kfsd_stream_loc> blocks;  // pinned
};

// Normalises raw (repeated and trailing '/' dropped) and checks that it
// lies inside "/<uid>". 0; ERR_FSACCESS outside it; ERR_BADPATH for a "."
// or ".." component, a NUL byte or a name longer than KFSD_MAX_NAME.
uint32_t kfsd_path_parse(std::string_view raw, uint32_t uid, kfsd_path* out);

// Creates the database with its schema; 0, or -1 with *error.
int kfsd_store_create(const std::string& dir, std::string* error);
// Opens the database of an existing data folder; 0, or -1 with *error
// (missing, not ours, or damaged).
int kfsd_store_open(const std::string& dir, kfsd_store* store,
                    std::string* error);
void kfsd_store_close(kfsd_store* store);
// Drops what a stopped server may have left: partial streams in tmp/ and
// stream files that no version refers to. Call before serving.
void kfsd_store_sweep(kfsd_store* store);
// Checks the database and every stream it names (check.cc); 0 when
// consistent, else -1 with one line per problem in *problems.
int kfsd_store_check(kfsd_store* store, std::vector<std::string>* problems);

// 0; ERR_EXISTS for a taken id; ERR_IO. Creates the user's root too.
uint32_t kfsd_store_add_user(kfsd_store* store, const kfsd_user& user);
// 0, ERR_AUTH_FAILURE for an unknown user, or ERR_IO.
uint32_t kfsd_store_get_user(kfsd_store* store, uint32_t id, kfsd_user* out);
// The user of that name whose key has that digest (names need not be
// unique); ERR_AUTH_FAILURE when there is none.
uint32_t kfsd_store_find_user(kfsd_store* store, const std::string& name,
                              const uint8_t key_sha1[20], kfsd_user* out);
// Every user's id, in order; 0, ERR_IO.
uint32_t kfsd_store_user_ids(kfsd_store* store, std::vector<uint32_t>* out);
// The bytes the user's streams take, each stream counted once however many
// versions and points name it.
uint64_t kfsd_store_bytes_used(kfsd_store* store, uint32_t id);
// Stores the stamp of a lock release. While any upload of the user is
// incomplete, or after an unclean stop (below), the stamp becomes 0
// instead, with or without a stamp given, so the agent's next run
// distrusts its index and compares listings.
// A stamped release ends a run: it also makes a restore point, named by
// the job texts the agent gave at login.
uint32_t kfsd_store_release_stamp(kfsd_store* store, uint32_t id,
                                  bool has_stamp, uint32_t stamp,
                                  const std::string& job,
                                  const std::string& job_file);
// Records, durably, that a server serves the store (running) or stopped
// cleanly. Starting while the record says running means the last server
// died: *unclean is set and every user's next stamped release stores 0
// instead, so the run that spanned the death compares every folder and
// sends again what was answered but lost. 0, or -1.
int kfsd_store_mark_running(kfsd_store* store, bool running, bool* unclean);

// Result codes as the requests answer them.
uint32_t kfsd_store_mkdir(kfsd_store* store, uint32_t uid,
                          const kfsd_path& path);
uint32_t kfsd_store_list(kfsd_store* store, const kfsd_path& dir,
                         const std::string& pattern,
                         std::vector<kfsd_entry>* out);
// Reads what a write open answers and plans its rows (out->rows, to be
// queued with the upload's blocks); nothing is written but the removal of
// a stale upload when the file is up to date (ERR_UP2DATE). REQUIRES: no
// queued job concerns the path.
uint32_t kfsd_store_wopen(kfsd_store* store, uint32_t uid,
                          const kfsd_path& path, int64_t mtime, uint64_t size,
                          const std::string& attr, uint32_t base_block_size,
                          kfsd_wopen_result* out);
// A begin block with a digest: ERR_UP2DATE when the upload or the path's
// complete version holds that digest for the block (the block then counts
// as received), else 0.
uint32_t kfsd_store_skip_block(kfsd_store* store, int64_t version,
                               uint32_t index, const uint8_t md5[16]);

// The part of an upload that no reply need wait for: an open's rows, a
// block's end (its stream to store and record) or a file's close (the
// upload becomes the path's version when every block was received, else
// stays pending).
struct kfsd_write_job {
  int64_t version = 0;
  std::string path;                    // the file's remote path
  std::optional<kfsd_open_rows> open;  // an open's rows
  std::optional<uint32_t> retention;   // a run ended: the user's policy
  bool close = false;  // a close; otherwise (and not an open) a block's end
  uint32_t index = 0;
  bool has_md5 = false;
  uint8_t md5[16] = {};
  std::string data;  // the block's stream
  std::string sha256_hex;
  uint32_t* status = nullptr;  // if set, the block end's result goes here
};

// Runs jobs in order as one batch: the streams the store does not hold yet
// are appended to the pack, which is flushed once (with sync), then every
// job's rows change in one transaction. A job whose upload is gone is
// dropped (ERR_BADKEY); a failure leaves its block missing (ERR_IO), which
// the upload's close then sees. REQUIRES: one batch at a time.
void kfsd_store_write(kfsd_store* store, bool sync,
                      const std::vector<kfsd_write_job*>& jobs);
// 0 with the blocks pinned; ERR_BADPATH, ERR_NOTFILE, ERR_IO.
uint32_t kfsd_store_ropen(kfsd_store* store, const kfsd_path& path,
                          kfsd_ropen_result* out);
void kfsd_store_unpin(kfsd_store* store,
                      const std::vector<kfsd_stream_loc>& blocks);
// Opens the file a stream lies in for reading (pread at its offset); -1
// with errno when it cannot be.
int kfsd_stream_open(const kfsd_store* store, const kfsd_stream_loc& loc);
// Reads streams for a reader; the file the last read came from stays open
// for the next (the blocks of one file mostly lie in one pack).
struct kfsd_stream_reader {
  unique_fd fd;
  std::string file;
};
// Reads n bytes of the stream from offset; false when they cannot all be
// read.
bool kfsd_stream_read(const kfsd_store* store, kfsd_stream_reader* reader,
                      const kfsd_stream_loc& loc, uint64_t offset, void* out,
                      size_t n);
// A fresh name in tmp/ for a file being written.
std::string kfsd_temp_path(kfsd_store* store);

// The block store's files (packs.cc). Appends bytes to the current pack,
// begun on first use; false with errno when they cannot be written.
// REQUIRES: store->pack_mutex held.
bool kfsd_pack_append(kfsd_store* store, const std::string& bytes,
                      kfsd_stream_loc* out);
// Makes what was appended durable (the pack's bytes, and its folder entry
// when it is new). REQUIRES: store->pack_mutex held.
bool kfsd_pack_flush(kfsd_store* store);
// The file of a stream that has one of its own, and of a pack.
std::string kfsd_loose_path(const kfsd_store* store, const std::string& hex);
std::string kfsd_pack_path(const kfsd_store* store, int64_t pack);

// ---------------------------------------------------------------------------
// History (history.cc, retention.cc): restore points and what they keep.

// The state of a user's files when a run completed.
struct kfsd_point {
  int64_t id = 0;
  std::string name;  // unique for the user: the time (UTC) and the job
  int64_t time = 0;
  std::string job;
  std::string job_file;
  uint64_t files = 0;  // what the run stored
  uint64_t bytes = 0;
  int64_t upto = 0;  // the last completion the point shows
};

// Which points to keep. A count of 0 leaves its rule out; with no rule at
// all every point is kept.
struct kfsd_retention {
  uint32_t last = 0;
  uint32_t hourly = 0;
  uint32_t daily = 0;
  uint32_t weekly = 0;
  uint32_t monthly = 0;
  uint32_t yearly = 0;
  int64_t within = 0;  // seconds back from the newest point
  bool empty() const {
    return last == 0 && hourly == 0 && daily == 0 && weekly == 0 &&
           monthly == 0 && yearly == 0 && within == 0;
  }
};

// The ids of the points the rules keep, each job's points (same job and
// job file) judged as a series of their own: the newest of each period,
// counting back from the series' newest point, in local time.
std::set<int64_t> kfsd_retention_keep(const std::vector<kfsd_point>& points,
                                      const kfsd_retention& rules);
// "7d", "12h", "2w", "6m" (30 days), "1y" (365 days) and sums of them
// ("1y6m"); false for anything else.
bool kfsd_parse_duration(const std::string& text, int64_t* seconds);

struct kfsd_prune_result {
  std::vector<kfsd_point> kept;
  std::vector<kfsd_point> removed;
  uint64_t versions = 0;  // versions no kept point shows
  uint64_t streams = 0;   // streams nothing names any more
  uint64_t bytes = 0;     // their bytes
};

// Removes the points the rules do not keep, the versions no kept point
// shows (never a file's newest complete version, nor an upload), and the
// streams nothing names then; with dry_run only says so. One transaction.
uint32_t kfsd_store_prune(kfsd_store* store, uint32_t user,
                          const kfsd_retention& rules, bool dry_run,
                          kfsd_prune_result* out);
// The user's stored policy (empty when none); 0, ERR_IO.
uint32_t kfsd_store_get_policy(kfsd_store* store, uint32_t user,
                               kfsd_retention* out);
// Stores the user's policy (an empty one removes it); 0, ERR_AUTH_FAILURE
// for an unknown user, ERR_IO.
uint32_t kfsd_store_set_policy(kfsd_store* store, uint32_t user,
                               const kfsd_retention& rules);
// Gives back the space of streams no longer stored: a pack that is mostly
// such space is copied without it and removed. Bytes given back.
// REQUIRES: store->pack_mutex held, and no other process writing packs.
uint64_t kfsd_store_compact(kfsd_store* store);

// ---------------------------------------------------------------------------
// The operator's commands (admin.cc).

// A user's lock, as a process holds it for a run or a removal: the
// descriptor that holds it, or -1 (errno EAGAIN when another holds it).
int kfsd_user_lock_take(const std::string& dir, uint32_t id);
// Whether some process holds the user's lock; looking does not take it.
bool kfsd_user_lock_held(const std::string& dir, uint32_t id);

struct kfsd_user_info {
  kfsd_user user;
  uint64_t used = 0;   // bytes stored, each stream once
  uint64_t files = 0;  // paths with a complete version
  uint64_t points = 0;
  int64_t last_run = 0;  // time of the newest point; 0 when none
};
// Every user with what they hold, by id; 0, ERR_IO.
uint32_t kfsd_store_user_infos(kfsd_store* store,
                               std::vector<kfsd_user_info>* out);

struct kfsd_user_change {
  std::optional<uint64_t> quota;
  std::optional<std::string> account;
  std::optional<std::string> email;
};
// 0, ERR_AUTH_FAILURE for an unknown user, ERR_IO (nothing changed).
uint32_t kfsd_store_change_user(kfsd_store* store, uint32_t id,
                                const kfsd_user_change& change);
// Removes the user, their files, versions, points and policy, and the
// streams nothing else names, in one transaction. REQUIRES: the user's
// lock held. 0, ERR_AUTH_FAILURE, ERR_IO (nothing removed).
uint32_t kfsd_store_remove_user(kfsd_store* store, uint32_t id,
                                kfsd_prune_result* freed);

struct kfsd_stats {
  uint64_t users = 0;
  uint64_t files = 0;     // paths with a complete version
  uint64_t versions = 0;  // complete versions, the newest included
  uint64_t points = 0;
  uint64_t stored_bytes = 0;   // the streams, each once
  uint64_t logical_bytes = 0;  // the files at their newest versions
  uint64_t history_bytes = 0;  // every complete version's size
  uint64_t pack_bytes = 0;     // the pack files on disk
  struct job_run {
    uint32_t user = 0;
    std::string job;
    int64_t time = 0;
    uint64_t files = 0;
    uint64_t bytes = 0;
  };
  std::vector<job_run> last_runs;  // each job's newest point
};
uint32_t kfsd_store_stats(kfsd_store* store, kfsd_stats* out);
