// kfs/server/kfsd_internal.h: what the files of the reference server share:
// the data folder, the running server with its connections, the user lock
// table and the write queue, and the request handlers. The store they all
// use is behind kfs/server/store.h.
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
#include "kfs/server/mail.h"
#include "kfs/server/store.h"
#include "lib/scoped.h"

constexpr uint32_t KFSD_DEFAULT_BLOCK_SIZE = 1u << 20;
constexpr uint32_t KFSD_MAX_BLOCKS = 65535;  // a block count is a u16
constexpr int KFSD_MAX_CONNECTIONS = 64;
constexpr size_t KFSD_MAX_HANDLES = 32;   // open files per connection
constexpr size_t KFSD_MAX_LISTINGS = 16;  // unfinished listings per connection
constexpr size_t KFSD_MAX_NAME = 255;     // a name must fit a str8
constexpr uint32_t KFSD_ATTR_DIRECTORY = 0x10;
constexpr uint32_t KFSD_ATTR_NEEDS_BACKUP = 0x20;

// ---------------------------------------------------------------------------
// Data folder and key files (datadir.cc).

// Creates the data folder dir (absent or empty): key, database, folders.
// 0, or -1 with *error set.
int kfsd_datadir_init(const std::string& dir, std::string* error);

// Takes the data folder for this process alone, as a server does for its
// life and a prune while it rewrites packs (a lock on kfsd.lock, released
// when the process ends). The descriptor that holds it, or -1 (errno
// EWOULDBLOCK when another process holds it).
int kfsd_datadir_lock(const std::string& dir);

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
  kfsd_smtp_settings smtp;  // no host: reports stay in the outbox
};

class kfsd_writer;

struct kfsd_server {
  kfsd_settings settings;
  unique_fd folder_lock;
  kfsd_store store;
  std::unique_ptr<kfsd_writer> writer;
  std::unique_ptr<kfsd_mailer> mailer;  // with a relay only
  EVP_PKEY* key = nullptr;
  std::string public_pem;
  // User locks: user id -> the connection that holds it, and the user's
  // lock file held with it, which keeps operator commands out meanwhile.
  struct user_lock {
    uint64_t conn = 0;
    unique_fd file;
  };
  std::mutex lock_mutex;
  std::map<uint32_t, user_lock> locks;
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
  int64_t block = -1;        // index named by the last begin block
  bool rows_queued = false;  // the upload's rows may not be written yet
  bool in_block = false;
  std::string data;  // the block's stream so far
  md_ctx_ptr sha256;
  // Reading: the pinned streams and the position in them; the file the
  // last piece came from stays open for the next.
  std::vector<kfsd_stream_loc> blocks;
  size_t read_block = 0;
  uint64_t read_offset = 0;
  kfsd_stream_reader reader;
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
  void after_batch(const std::vector<kfsd_write_job*>& batch);

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
  std::string job;         // an agent's texts at login: its job's name
  std::string job_file;    // and its job file's
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

// Applies the user's stored retention policy, if any, and gives back the
// space it frees; logs what it did (history.cc).
void kfsd_apply_policy(kfsd_store* store, uint32_t user);

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
