// kfs/server/kfsd_internal.h: what the files of the reference server share:
// the data folder, the store (SQLite database and block stream files), the
// running server with its connections and the user lock table, and the
// request handlers. Many connection threads use one store; every store
// function takes the store's mutex itself, so each is one atomic step.
#pragma once

#include <pthread.h>
#include <stdint.h>
#include <sys/types.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/evp.h>

#include "kfs/client/kfs.h"
#include "lib/scoped.h"

struct sqlite3;
struct sqlite3_stmt;

constexpr uint32_t KFSD_DEFAULT_BLOCK_SIZE = 1u << 20;
constexpr uint32_t KFSD_MAX_BLOCKS = 65535;  // a block count is a u16
constexpr int KFSD_MAX_CONNECTIONS = 64;
constexpr size_t KFSD_MAX_HANDLES = 32;   // open files per connection
constexpr size_t KFSD_MAX_LISTINGS = 16;  // unfinished listings per connection
constexpr size_t KFSD_MAX_NAME = 255;     // a name must fit a str8
constexpr uint32_t KFSD_ATTR_DIRECTORY = 0x10;
constexpr uint32_t KFSD_ATTR_NEEDS_BACKUP = 0x20;

// Names inside the data folder.
constexpr char KFSD_DB_FILE[] = "kfsd.db";
constexpr char KFSD_KEY_FILE[] = "server.pem";  // RSA private key
constexpr char KFSD_PACKS_DIR[] = "packs";      // streams, appended
constexpr char KFSD_BLOCKS_DIR[] = "blocks";    // older streams, a file each
constexpr char KFSD_TMP_DIR[] = "tmp";          // messages being written
constexpr char KFSD_OUTBOX_DIR[] = "outbox";    // one file per e-mail
constexpr char KFSD_KEYS_DIR[] = "keys";        // generated account keys

// ---------------------------------------------------------------------------
// Data folder and key files (datadir.cc).

// Creates the data folder dir (absent or empty): key, database, folders.
// 0, or -1 with *error set.
int kfsd_datadir_init(const std::string& dir, std::string* error);

// Loads the server's RSA-2048 private key and its public key as PEM text
// (SubjectPublicKeyInfo). The key, owned by the caller, or null with *error.
EVP_PKEY* kfsd_key_load(const std::string& dir, std::string* pem,
                        std::string* error);

// Reads an account key file: '|' lines skipped, a '-' line ends it, other
// characters than hex digits ignored; exactly 64 digits are required.
// 0, or -1 with *error set.
int kfsd_key_file_read(const std::string& path, uint8_t key[32],
                       std::string* error);

// Writes a new key file (mode 0600, never over an existing file) for user
// id. 0, or -1 with errno.
int kfsd_key_file_write(const std::string& path, uint32_t id,
                        const uint8_t key[32]);

// ---------------------------------------------------------------------------
// The store (sql.cc, store.cc, store_files.cc).

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
// Sum of the sizes of the user's complete files.
uint64_t kfsd_store_bytes_used(kfsd_store* store, uint32_t id);
// Stores the stamp of a lock release. While any upload of the user is
// incomplete, or after an unclean stop (below), the stamp becomes 0
// instead, with or without a stamp given, so the agent's next run
// distrusts its index and compares listings.
uint32_t kfsd_store_release_stamp(kfsd_store* store, uint32_t id,
                                  bool has_stamp, uint32_t stamp);
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
  std::string path;    // the file's remote path
  std::optional<kfsd_open_rows> open;  // an open's rows
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
// A stream's place from a row of (stream, length, pack, offset) starting
// at column col, pack and offset NULL for a file of its own.
kfsd_stream_loc kfsd_stream_row(kfsd_sql* q, int col);
// Opens the file a stream lies in for reading (pread at its offset); -1
// with errno when it cannot be.
int kfsd_stream_open(const kfsd_store* store, const kfsd_stream_loc& loc);
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
// The running server (listener.cc, handshake.cc, connection.cc).

struct kfsd_announce {
  std::string host;
  uint16_t port = 0;
};

struct kfsd_settings {
  std::string dir;
  std::string listen_host = "127.0.0.1";
  uint16_t listen_port = 7001;
  std::string port_file;
  uint32_t block_size = KFSD_DEFAULT_BLOCK_SIZE;
  std::vector<kfsd_announce> announce;  // at most 2
  bool redirect = false;
  // Streams are flushed once a batch, before the rows and the stamp that
  // name them. Off only where nothing must outlive the process (the fuzz
  // targets' stores).
  bool sync = true;
  bool verbose = false;
};

class kfsd_writer;

struct kfsd_server {
  kfsd_settings settings;
  kfsd_store store;
  std::unique_ptr<kfsd_writer> writer;
  EVP_PKEY* key = nullptr;
  std::string public_pem;
  // User locks: user id -> id of the connection that holds it.
  std::mutex lock_mutex;
  std::map<uint32_t, uint64_t> locks;
  // Live connections: id -> socket, so a stop can shut them down.
  std::mutex conn_mutex;
  std::condition_variable conn_gone;
  std::map<uint64_t, int> conns;
  uint64_t next_conn_id = 1;
};

// Serves until SIGTERM or SIGINT. 0 after a clean stop, 1 when the server
// cannot start (a message is printed).
int kfsd_serve(const kfsd_settings& settings);

// Runs one accepted connection to its end and closes the socket.
void kfsd_connection_run(kfsd_server* server, uint64_t id, int sock);

// The key exchange on a fresh socket; the packet cipher with the final key,
// or null when the peer misbehaved (the caller closes the socket).
kfs_packet_cipher* kfsd_handshake(kfsd_server* server, int sock);

// Writes one line to standard error (the verbose log and warnings).
void kfsd_log(const char* format, ...) __attribute__((format(printf, 1, 2)));

// ---------------------------------------------------------------------------
// Connections and requests (connection.cc, session_requests.cc,
// dir_requests.cc, file_requests.cc).

struct kfsd_handle {
  bool writing = false;
  // Writing: the upload's version and path, and where its blocks stand.
  int64_t version = 0;
  std::string path;
  uint32_t block_count = 0;
  uint32_t block_size = 0;
  int64_t block = -1;  // index named by the last begin block
  bool rows_queued = false;  // the upload's rows may not be written yet
  bool in_block = false;
  std::string data;  // the block's stream so far
  md_ctx_ptr sha256;
  // Reading: the pinned streams and the position in them; the file the
  // last piece came from stays open for the next.
  std::vector<kfsd_stream_loc> blocks;
  size_t read_block = 0;
  uint64_t read_offset = 0;
  unique_fd read_fd;
  std::string read_file;
};

struct kfsd_listing {
  std::vector<kfsd_entry> entries;
  size_t next = 0;
  bool wide_names = false;  // str16 names
};

// Runs the store's write jobs, in order, on a thread of its own, in
// batches: a batch gathers the jobs that arrive within a few milliseconds
// (at once when someone waits for it), so the cost of a flush and a commit
// is shared by as many files as arrive meanwhile. A request answers as soon as
// its job is queued; what could observe the difference waits for drain() first:
// an open or read of a path for the jobs on it, a listing for those below it, a
// lock release for all (so a stored stamp covers only what is durable).
class kfsd_writer {
 public:
  explicit kfsd_writer(kfsd_server* server) : server_(server) {}
  kfsd_writer(const kfsd_writer&) = delete;
  kfsd_writer& operator=(const kfsd_writer&) = delete;
  ~kfsd_writer();  // runs everything queued

  // Starts the thread; false when none can be had (jobs then run as they
  // are pushed, on the caller's thread).
  bool start();

  // Queues a job; waits first while the queued streams take too much
  // memory, so fast clients cannot outrun the disk without bound.
  void push(kfsd_write_job job);
  // Returns once no queued or running job's path starts with prefix ("":
  // every job).
  void drain(const std::string& prefix);

 private:
  static void* thread_main(void* self);
  void run();

  kfsd_server* server_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<kfsd_write_job> queue_;  // the front batch may be running
  size_t queued_bytes_ = 0;
  int waiting_ = 0;  // callers of drain()
  bool stopping_ = false;
  bool started_ = false;
  std::mutex batch_mutex_;  // one batch at a time without a thread
  pthread_t thread_{};
};

struct kfsd_conn {
  kfsd_server* server = nullptr;
  uint64_t id = 0;
  int sock = -1;
  bool authenticated = false;
  uint32_t uid = 0;
  uint8_t auth_mode = 0;
  uint8_t lock_flags = 0;  // bits of the last acquire; no effect here
  std::map<uint8_t, std::unique_ptr<kfsd_handle>> handles;
  std::map<uint8_t, kfsd_listing> listings;
};

// What the dispatcher does after a handler.
enum : int {
  KFSD_REPLY = 0,   // send the reply body with the status
  KFSD_SILENT = 1,  // the request is not answered
  KFSD_DROP = 2,    // malformed or hostile: close the connection
};

struct kfsd_request {
  kfsd_conn* conn;
  kfs_reader in;
  kfs_body out;
  uint32_t status = 0;
  std::string note;  // for the verbose log: the path or handle concerned
};

// Reads a str8 (len_size 1) or str16 (2) that may be empty. False when the
// body ends first (the reader is then failed).
bool kfsd_get_text(kfs_reader* in, int len_size, std::string* out);
// True when the whole body was read without running past its end.
bool kfsd_body_done(const kfs_reader* in);

// Parses a path of the logged-in user into out and notes it for the log;
// false with the status set when it is refused.
bool kfsd_request_path(kfsd_request* req, const std::string& raw,
                       kfsd_path* out);

// The lowest handle number (1..255) not in use in map, or 0 when all are.
template <typename Map>
uint8_t kfsd_free_handle(const Map& map) {
  for (unsigned h = 1; h <= 255; ++h) {
    if (map.count(static_cast<uint8_t>(h)) == 0) {
      return static_cast<uint8_t>(h);
    }
  }
  return 0;
}

// "/<uid>/": what every path of that user starts with.
std::string kfsd_user_prefix(uint32_t uid);

// Whether the connection holds its user's lock.
bool kfsd_holds_lock(kfsd_conn* conn);
// Frees a handle: removes a partial stream, unpins read streams, and for a
// write handle leaves the upload as it stands.
void kfsd_handle_free(kfsd_conn* conn, kfsd_handle* handle);

// Runs one received request against its connection: the handler of its
// type; ERR_INVARG for a type kfsd does not serve, ERR_ACCESS for anything
// but a login before one succeeded. Returns the KFSD_* action, as the
// handlers do. Touches no socket, so fuzz targets can run bodies through it.
// REQUIRES: req->in reads in's body; req->out is begun on the reply record.
int kfsd_dispatch(kfsd_request* req, const kfs_message* in);

// The request handlers. Each parses req->in, sets req->status, writes the
// reply body (if any) to req->out, and returns a KFSD_* action. Only the
// login is dispatched before a login; the rest are answered ERR_ACCESS.
int kfsd_request_auth(kfsd_request* req);
int kfsd_request_user_lock(kfsd_request* req);
int kfsd_request_email(kfsd_request* req);
int kfsd_request_mkdir(kfsd_request* req);
int kfsd_request_find_files(kfsd_request* req);
int kfsd_request_wopen(kfsd_request* req);
int kfsd_request_write(kfsd_request* req);
int kfsd_request_close(kfsd_request* req);
int kfsd_request_ropen(kfsd_request* req);
int kfsd_request_read(kfsd_request* req);
