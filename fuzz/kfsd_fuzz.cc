// kfsd's request handlers, run through kfsd_dispatch as the server's
// connection loop runs them, minus the socket. Built twice:
// kfsd_request_fuzz takes one request an input (the first byte its type, the
// rest its body); kfsd_session_fuzz (KFSD_FUZZ_SESSION) a conversation of
// requests of u8 type, u16 body length (big-endian) and the body (cut short
// by the input's end), run in order until one would close the connection.
//
// Each input runs on a connection of user 7, logged in in mode agent and
// holding its lock, with an open upload (handles 1 and 3, the latter inside
// a block), a read handle (2) and an unfinished listing (1), so each handler
// gets past its look-ups and sequences such as open, write, close, read back
// are reached. The store holds /7/dir with a folder sub, the complete file
// /7/dir/file (100 bytes in two blocks) and the pending upload /7/dir/up
// (200 bytes). After each input the connection ends as a closed one does,
// and the database and stream files are put back when the input changed
// them, so nothing grows across inputs and an input replays alike. With
// KOVRA_FUZZ_TRACE set, each request is told on standard error.
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

#include "fuzz/fuzz_support.h"
#include "kfs/server/kfsd_internal.h"
#include "lib/hex.h"

namespace {

constexpr uint32_t kBlockSize = 64;  // the server's base size
constexpr uint32_t kMtime = 1700000000;

// Made once and never destroyed, as the server's own are: what they hold
// must outlive OpenSSL's clean-up at exit.
kfsd_server& server = *new kfsd_server;
kfsd_store& store = server.store;
kfs_message in;
kfs_message out;
kfsd_conn* conn = nullptr;
int64_t upload_version = 0;
kfsd_path& file = *new kfsd_path;  // the complete one
// The pins of the store once set up: the complete file's streams and pack.
std::map<std::string, int>& pins = *new std::map<std::string, int>;
std::map<int64_t, int>& pack_pins = *new std::map<int64_t, int>;
kfsd_listing& listing = *new kfsd_listing;
sqlite3* pristine = nullptr;  // the database as set up
int64_t changes_mark = 0;     // sqlite3_total_changes once restored
uint32_t status = 0;          // the last handler's, answered or not

void copy_database(sqlite3* from, sqlite3* to) {
  sqlite3_backup* b = sqlite3_backup_init(to, "main", from, "main");
  int rc = sqlite3_backup_step(b, -1);
  fuzz_require(sqlite3_backup_finish(b) == 0 && rc == SQLITE_DONE, "a copy");
}

void skip(kfs_reader* r, uint32_t n) {
  static uint8_t sink[65536];
  kfs_get_bytes(r, sink, n);
}

// What a successful reply of some types must hold, where a handler could
// get it wrong: its fields as counted and nothing behind them, the handles
// and listings it names held, a WOPEN's blocks covering exactly the file
// (the last one not empty).
void check_reply() {
  kfs_reader req;
  kfs_reader rep;
  kfs_reader_begin(&in, &req);
  kfs_reader_begin(&out, &rep);
  bool ok = true;
  switch (in.type) {
    case KFS_FILE_WOPEN: {
      skip(&req, 5);  // flags, mtime
      skip(&req, kfs_get_u16(&req));
      uint64_t size = kfs_get_u64(&req);
      auto h = conn->handles.find(kfs_get_u8(&rep));
      uint64_t count = kfs_get_u16(&rep);
      uint64_t block_size = kfs_get_u32(&rep);
      uint16_t comparable = kfs_get_u16(&rep);
      ok = h != conn->handles.end() && h->second->block_count == count &&
           block_size > 0 && comparable <= count &&
           (count == 0 ? size == 0
                       : (count - 1) * block_size < size &&
                             size <= count * block_size);
      break;
    }
    case KFS_FIND_FILES: {
      skip(&req, 1);
      bool wide = (kfs_get_u8(&req) & KFS_FIND_LONG_NAMES) != 0;
      uint16_t count = kfs_get_u16(&rep);
      uint32_t remaining = kfs_get_u32(&rep);
      uint8_t listing = kfs_get_u8(&rep);
      for (uint16_t i = 0; i < count && kfs_reader_ok(&rep); ++i) {
        skip(&rep, 21);  // kind, attributes, mtime, size
        skip(&rep, wide ? kfs_get_u16(&rep) : kfs_get_u8(&rep));
      }
      ok = (listing != 0) == (remaining != 0) &&
           (listing == 0 || conn->listings.count(listing) == 1);
      break;
    }
    default:
      return;
  }
  fuzz_require(ok && kfsd_body_done(&rep), kfs_type_name(in.type));
}

// Runs one request of that type with that body (cut to the largest body;
// it may lie in `in` itself), as the connection loop does, and checks what
// a handler must never do. Returns the KFSD_* action.
int run(uint8_t type, const uint8_t* body, size_t n) {
  in.type = type;
  in.data_length = static_cast<uint16_t>(std::min<size_t>(n, KFS_MAX_BODY));
  memmove(in.buffer, body, in.data_length);
  if (type >= KFS_RESPONSE) {
    return KFSD_DROP;  // a response sent as a request ends the connection
  }
  kfsd_request req{.conn = conn};
  kfs_reader_begin(&in, &req.in);
  kfs_body_begin(&out, &req.out);
  int action = kfsd_dispatch(&req, &in);
  status = req.status;
  out.data_length = static_cast<uint16_t>(req.out.length);
  if (getenv("KOVRA_FUZZ_TRACE") != nullptr) {
    fprintf(stderr, "kfsd %s %s -> %s, action %d, %u reply bytes\n",
            kfs_type_name(type), req.note.c_str(), kfs_err_name(req.status),
            action, req.out.length);
  }
  // Only closes and unacknowledged writes go unanswered.
  bool may_be_silent = type == KFS_FILE_CLOSE ||
                       (type == KFS_FILE_WRITE && in.data_length >= 2 &&
                        (in.buffer[1] & KFS_WRITE_NO_ACK) != 0);
  fuzz_require(action != KFSD_SILENT || may_be_silent, "a silent answer");
  fuzz_require(kfs_body_ok(&req.out) && req.status <= 0xFF &&
                   conn->handles.size() <= KFSD_MAX_HANDLES &&
                   conn->listings.size() <= KFSD_MAX_LISTINGS,
               "the reply fits a packet, the status a byte; handle limits");
  if (action == KFSD_REPLY && status == 0) {
    check_reply();
  }
  return action;
}

// Runs a set-up request whose body put writes; it must succeed. Returns the
// reply's first byte.
template <typename Put>
uint8_t must(uint8_t type, Put put) {
  kfs_body b;
  kfs_body_begin(&in, &b);
  put(&b);
  run(type, in.buffer, b.length);
  fuzz_require(status == 0, "a set-up request");
  return out.buffer[0];
}

void write(uint8_t handle, uint8_t flags, const std::string& data) {
  kfs_build_file_write(&in, handle, flags, data.data(), data.size());
  run(KFS_FILE_WRITE, in.buffer + KFS_HEADER_SIZE, in.data_length);
  fuzz_require(status == 0, "a set-up write");
}

uint8_t wopen(const char* path, uint64_t size) {
  return must(KFS_FILE_WOPEN, [&](kfs_body* b) {
    kfs_put_u8(b, 1);
    kfs_put_u32(b, kMtime);
    kfs_put_str16(b, path);
    kfs_put_u64(b, size);
    kfs_put_u16(b, 0);
  });
}

// A connection of user 7 in mode agent, holding its lock.
void connect() {
  delete conn;
  conn = new kfsd_conn{.server = &server,
                       .id = 1,
                       .authenticated = true,
                       .uid = FUZZ_USER_ID,
                       .auth_mode = AUTH_MODE_AGENT};
  server.locks.clear();
  server.locks[FUZZ_USER_ID].conn = 1;
}

// Frees the connection's handles as a closed connection does.
void free_handles() {
  for (auto& [number, h] : conn->handles) {
    kfsd_handle_free(conn, h.get());
  }
}

// The connection an input starts on: handles 1 and 3 on the pending
// upload, 3 inside block 0; handle 2 reading the complete file; listing 1
// with 300 entries, none sent yet.
void begin() {
  connect();
  for (uint8_t number : {1, 3}) {
    conn->handles[number].reset(new kfsd_handle{.writing = true,
                                                .version = upload_version,
                                                .block_count = 4,  // 200 bytes
                                                .block_size = kBlockSize});
  }
  write(3, KFS_WRITE_BEGIN_BLOCK, "");
  kfsd_ropen_result read;
  fuzz_require(kfsd_store_ropen(&store, file, &read) == 0, "the complete file");
  conn->handles[2].reset(new kfsd_handle{.blocks = read.blocks});
  conn->listings[1] = listing;
}

// Ends the input as a closed connection ends, checks that no stream is
// still pinned by it and no partial stream is left in tmp/, then restores
// the store if anything changed.
void end() {
  free_handles();
  // A closed connection leaves no stream pinned, no partial message.
  fuzz_require(store.pinned == pins && store.pinned_packs == pack_pins, "pins");
  std::error_code error;
  fuzz_require(std::filesystem::is_empty(store.dir + "/tmp", error), "tmp/");
  if (sqlite3_total_changes(store.db) != changes_mark) {
    copy_database(pristine, store.db);
    store.pack_fd.reset();  // its pack goes with the sweep
    kfsd_store_sweep(&store);
    changes_mark = sqlite3_total_changes(store.db);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::string dir = fuzz_scratch_dir() + "/kfs";
  std::string error;
  fuzz_require(kfsd_datadir_init(dir, &error) == 0, "kfsd init");
  fuzz_require(kfsd_store_open(dir, &store, &error) == 0, "a store");
  server.settings.dir = dir;
  server.settings.block_size = kBlockSize;
  server.settings.sync = false;  // nothing here outlives the process
  // Not started: every write job runs in its request, as the checks need to
  // see its effect at once.
  server.writer = std::make_unique<kfsd_writer>(&server);
  // The auth seeds log in as user 7, "fuzz", whose account key is 00 11 22
  // .. ff twice: a login sends the key's SHA-1, this.
  kfsd_user user{.id = FUZZ_USER_ID, .quota = 1u << 30};
  user.name = user.account = "fuzz";
  hex_decode("4841e809a5371006f610f3679f140f4e515413bd", 20, user.key_sha1);
  fuzz_require(kfsd_store_add_user(&store, user) == 0, "a user");
  // A file where the outbox folder was: every e-mail is parsed and written
  // to tmp/, then its move fails (ERR_IO). Otherwise one request of a few
  // kilobytes could leave thousands of files per input.
  std::string outbox = dir + "/" + KFSD_OUTBOX_DIR;
  fuzz_require(rmdir(outbox.c_str()) == 0, "removing the outbox");
  fuzz_write_file(outbox, nullptr, 0);
  // The store's files, uploaded through the handlers; the complete file's
  // streams are then pinned for good: an input may replace the file, and
  // the restored database names them again.
  connect();
  for (const char* dir : {"/7/dir", "/7/dir/sub"}) {
    must(KFS_MKDIR, [&](kfs_body* b) {
      kfs_put_u8(b, 0);
      kfs_put_str16(b, dir);
    });
  }
  // Streams of made-up bytes: kfsd stores them without decoding them.
  uint8_t handle = wopen("/7/dir/file", 100);
  for (int block = 0; block < 2; ++block) {
    std::string md5(16, static_cast<char>('0' + block));
    write(handle, KFS_WRITE_BEGIN_BLOCK, md5);
    write(handle, KFS_WRITE_BLOCK_DATA,
          std::string(48 + 16 * block, static_cast<char>(block)));
    write(handle, KFS_WRITE_END_BLOCK, md5);
  }
  must(KFS_FILE_CLOSE, [&](kfs_body* b) { kfs_put_u8(b, handle); });
  // Opened, never written, its handle dropped as a cut connection drops it.
  upload_version = conn->handles[wopen("/7/dir/up", 200)]->version;
  free_handles();
  kfsd_ropen_result pinned;
  fuzz_require(kfsd_path_parse("/7/dir/file", FUZZ_USER_ID, &file) == 0 &&
                   kfsd_store_ropen(&store, file, &pinned) == 0 &&
                   pinned.blocks.size() == 2,
               "the complete file");
  // Inputs append to packs of their own, which the restore after each one
  // removes; the set-up's pack is never written again.
  store.pack_fd.reset();
  for (uint32_t i = 0; i < 300; ++i) {
    listing.entries.push_back(
        {0, KFSD_ATTR_NEEDS_BACKUP, kMtime + i, i * 1000u,
         std::to_string(1000 + i) + std::string(206, 'x')});
  }
  fuzz_require(sqlite3_open(":memory:", &pristine) == 0, "a pristine copy");
  copy_database(store.db, pristine);
  pins = store.pinned;
  pack_pins = store.pinned_packs;
  changes_mark = sqlite3_total_changes(store.db);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  begin();
#ifdef KFSD_FUZZ_SESSION
  for (size_t at = 0; at + 3 <= size;) {
    size_t n =
        std::min<size_t>(data[at + 1] << 8 | data[at + 2], size - at - 3);
    if (run(data[at], data + at + 3, n) == KFSD_DROP) {
      break;
    }
    at += 3 + n;
  }
#else
  if (size > 0) {
    run(data[0], data + 1, size - 1);
  }
#endif
  end();
  return 0;
}
