#include "fuzz/kfsd_fixture.h"

#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <openssl/evp.h>

#include "fuzz/fuzz_support.h"
#include "lib/scoped.h"

struct kfsd_fixture {
  kfsd_server server;
  std::unique_ptr<kfsd_conn> conn;
  int64_t upload_version = 0;
  kfsd_ropen_result file;  // the complete file's streams
  kfsd_listing listing;
  sqlite3* pristine = nullptr;  // the database as set up
  int64_t changes_mark = 0;     // sqlite3_total_changes once restored
  uint32_t last_status = 0;     // the handler's, answered or not
  malloc_ptr<kfs_message> in;
  malloc_ptr<kfs_message> out;
};

namespace {

constexpr uint64_t kConnId = 1;
constexpr size_t kListingEntries = 300;
constexpr uint32_t kUploadSize = 200;
constexpr uint32_t kUploadBlocks =
    (kUploadSize + FUZZ_BLOCK_SIZE - 1) / FUZZ_BLOCK_SIZE;

// Body writers for the set-up requests.
struct body {
  std::vector<uint8_t> bytes;
  body& u8(uint8_t v) {
    bytes.push_back(v);
    return *this;
  }
  body& u16(uint16_t v) {
    return u8(static_cast<uint8_t>(v >> 8)).u8(v & 0xFF);
  }
  body& u32(uint32_t v) {
    return u16(static_cast<uint16_t>(v >> 16)).u16(v & 0xFFFF);
  }
  body& raw(const void* p, size_t n) {
    auto* b = static_cast<const uint8_t*>(p);
    bytes.insert(bytes.end(), b, b + n);
    return *this;
  }
  body& str16(const std::string& s) {
    return u16(s.size()).raw(s.data(), s.size());
  }
};

void key_digest(const uint8_t key[32], uint8_t out[20]) {
  unsigned int n = 0;
  fuzz_require(EVP_Digest(key, 32, out, &n, EVP_sha1(), nullptr) == 1, "SHA-1");
}

void add_user(kfsd_fixture* f, uint32_t id, const char* name, uint8_t salt) {
  kfsd_user user;
  user.id = id;
  user.name = name;
  user.account = name;
  user.quota = 1u << 30;
  uint8_t key[32];
  memcpy(key, FUZZ_ACCOUNT_KEY, sizeof key);
  key[0] ^= salt;
  key_digest(key, user.key_sha1);
  fuzz_require(kfsd_store_add_user(&f->server.store, user) == 0, "add user");
}

// A connection of user 7 in mode agent, holding its lock.
void new_connection(kfsd_fixture* f) {
  f->conn = std::make_unique<kfsd_conn>();
  kfsd_conn* c = f->conn.get();
  c->server = &f->server;
  c->id = kConnId;
  c->authenticated = true;
  c->uid = FUZZ_USER_ID;
  c->auth_mode = AUTH_MODE_AGENT;
  f->server.locks.clear();
  f->server.locks[FUZZ_USER_ID].conn = kConnId;
}

// Runs a set-up request that must succeed; returns its reply's first byte.
uint8_t must(kfsd_fixture* f, uint8_t type, const body& b,
             uint32_t want = ERR_NONE) {
  kfsd_fixture_run(f, type, b.bytes.data(), b.bytes.size());
  fuzz_require(f->last_status == want, "a set-up request");
  return f->out->data_length > 0 ? f->out->buffer[0] : 0;
}

void upload_baseline(kfsd_fixture* f) {
  new_connection(f);
  must(f, KFS_MKDIR, body().u8(0).str16(FUZZ_DIR));
  must(f, KFS_MKDIR, body().u8(0).str16(std::string(FUZZ_DIR) + "/sub"));
  // The complete file: two blocks of 64 and 36 bytes, each a stream of
  // made-up bytes (kfsd stores streams without decoding them).
  uint8_t handle = must(f, KFS_FILE_WOPEN,
                        body()
                            .u8(1)
                            .u32(FUZZ_FILE_MTIME)
                            .str16(FUZZ_FILE)
                            .u32(0)
                            .u32(100)
                            .u16(0));
  for (uint8_t block = 0; block < 2; ++block) {
    uint8_t md5[16];
    memset(md5, 0x30 + block, sizeof md5);
    std::vector<uint8_t> stream(48 + 16 * block, static_cast<uint8_t>(block));
    must(f, KFS_FILE_WRITE, body().u8(handle).u8(1).u16(16).raw(md5, 16));
    must(f, KFS_FILE_WRITE,
         body()
             .u8(handle)
             .u8(KFS_WRITE_BLOCK_DATA)
             .u16(stream.size())
             .raw(stream.data(), stream.size()));
    must(f, KFS_FILE_WRITE,
         body().u8(handle).u8(KFS_WRITE_END_BLOCK).u16(16).raw(md5, 16));
  }
  must(f, KFS_FILE_CLOSE, body().u8(handle));
  // The pending upload: opened, never written, its handle dropped as a cut
  // connection drops it.
  handle = must(f, KFS_FILE_WOPEN,
                body()
                    .u8(1)
                    .u32(FUZZ_FILE_MTIME)
                    .str16(FUZZ_UPLOAD)
                    .u32(0)
                    .u32(kUploadSize)
                    .u16(0));
  f->upload_version = f->conn->handles[handle]->version;
  kfsd_fixture_end(f);

  kfsd_path path;
  fuzz_require(kfsd_path_parse(FUZZ_FILE, FUZZ_USER_ID, &path) == 0, "path");
  // Pinned for good: a stream of the set-up must survive an iteration that
  // replaces the file, since the restored database names it again.
  fuzz_require(kfsd_store_ropen(&f->server.store, path, &f->file) == 0 &&
                   f->file.blocks.size() == 2,
               "the complete file");
  // Iterations append to packs of their own, which the restore after each
  // one removes; the set-up's pack is never written again.
  f->server.store.pack_fd.reset();
}

void make_listing(kfsd_fixture* f) {
  for (size_t i = 0; i < kListingEntries; ++i) {
    kfsd_entry e;
    e.kind = i % 3 == 0 ? 1 : 0;
    e.attr = e.kind != 0 ? KFSD_ATTR_DIRECTORY : (i % 2 ? 0 : 0x20);
    e.mtime = static_cast<int64_t>(FUZZ_FILE_MTIME + i);
    e.size = e.kind != 0 ? 0 : i * 1000;
    char head[16];
    snprintf(head, sizeof head, "entry-%03zu-", i);
    e.name = head + std::string(200, 'x');
    f->listing.entries.push_back(e);
  }
}

void copy_database(sqlite3* from, sqlite3* to) {
  sqlite3_backup* b = sqlite3_backup_init(to, "main", from, "main");
  fuzz_require(b != nullptr, "backup init");
  int rc = sqlite3_backup_step(b, -1);
  fuzz_require(sqlite3_backup_finish(b) == SQLITE_OK && rc == SQLITE_DONE,
               "copying the database");
}

int count_entries(const std::string& dir) {
  dir_ptr d(opendir(dir.c_str()));
  int n = 0;
  while (d && readdir(d.get()) != nullptr) {
    ++n;
  }
  return n - 2;  // "." and ".."
}

void add_pins(kfsd_fixture* f, int delta) {
  std::lock_guard<std::mutex> hold(f->server.store.mutex);
  for (const kfsd_stream_loc& loc : f->file.blocks) {
    f->server.store.pinned[loc.hex] += delta;
  }
}

// Reads a reply or request body field by field.
struct fields {
  kfs_reader r;
  explicit fields(const kfs_message* m) { kfs_reader_begin(m, &r); }
  uint8_t u8() { return kfs_get_u8(&r); }
  uint16_t u16() { return kfs_get_u16(&r); }
  uint32_t u32() { return kfs_get_u32(&r); }
  uint64_t u64() { return kfs_get_u64(&r); }
  void skip(uint32_t n) {
    std::vector<uint8_t> sink(n + 1);  // never an empty vector's null data
    kfs_get_bytes(&r, sink.data(), n);
  }
  bool whole() const { return kfs_reader_ok(&r) && r.pos == r.length; }
};

void check_wopen(kfsd_fixture* f) {
  fields req(f->in.get());
  req.u8();
  req.u32();
  req.skip(req.u16());
  uint64_t size = static_cast<uint64_t>(req.u32()) << 32;
  size |= req.u32();
  fields rep(f->out.get());
  uint8_t handle = rep.u8();
  uint64_t count = rep.u16();
  uint64_t block_size = rep.u32();
  uint16_t comparable = rep.u16();
  fuzz_require(rep.whole(), "WOPEN reply fields");
  fuzz_require(handle != 0 && f->conn->handles.count(handle) == 1,
               "WOPEN names an open handle");
  fuzz_require(f->conn->handles[handle]->block_count == count,
               "WOPEN block count as the handle counts");
  fuzz_require(block_size > 0 && comparable <= count, "WOPEN geometry");
  // The blocks cover the file, and the last one is not empty.
  fuzz_require(count == 0 ? size == 0
                          : (count - 1) * block_size < size &&
                                size <= count * block_size,
               "WOPEN blocks cover exactly the file");
}

void check_find(kfsd_fixture* f) {
  fields req(f->in.get());
  req.u8();
  bool wide = (req.u8() & 0x01) != 0;
  fields rep(f->out.get());
  uint16_t count = rep.u16();
  uint32_t remaining = rep.u32();
  uint8_t handle = rep.u8();
  for (uint16_t i = 0; i < count && kfs_reader_ok(&rep.r); ++i) {
    rep.u8();
    rep.u32();
    rep.u64();
    rep.u64();
    rep.skip(wide ? rep.u16() : rep.u8());
  }
  fuzz_require(rep.whole(), "FIND reply: count entries, nothing more");
  fuzz_require((handle != 0) == (remaining != 0),
               "FIND continues exactly while entries remain");
  fuzz_require(handle == 0 || f->conn->listings.count(handle) == 1,
               "FIND names a held listing");
}

void check_read(kfsd_fixture* f) {
  fields req(f->in.get());
  req.u8();
  uint16_t max = req.u16();
  fields rep(f->out.get());
  rep.u8();
  uint16_t n = rep.u16();
  rep.skip(n);
  fuzz_require(rep.whole(), "READ reply: n bytes, nothing more");
  fuzz_require(n <= max, "READ sends at most what was asked for");
}

void check_ropen(kfsd_fixture* f) {
  fields rep(f->out.get());
  uint8_t handle = rep.u8();
  rep.u32();
  rep.u16();
  rep.u64();
  rep.skip(rep.u16());
  fuzz_require(rep.whole(), "ROPEN reply fields");
  fuzz_require(handle != 0 && f->conn->handles.count(handle) == 1,
               "ROPEN names an open handle");
}

bool must_answer(const kfs_message* in) {
  return in->type != KFS_FILE_CLOSE &&
         !(in->type == KFS_FILE_WRITE && in->data_length >= 2 &&
           (in->buffer[1] & KFS_WRITE_NO_ACK) != 0);
}

}  // namespace

kfsd_fixture* kfsd_fixture_get() {
  static kfsd_fixture* fixture = [] {
    auto* f = new kfsd_fixture;
    f->in.reset(static_cast<kfs_message*>(calloc(1, sizeof(kfs_message))));
    f->out.reset(static_cast<kfs_message*>(calloc(1, sizeof(kfs_message))));
    std::string dir = fuzz_scratch_dir() + "/kfs";
    std::string error;
    fuzz_require(kfsd_datadir_init(dir, &error) == 0, "kfsd init");
    kfsd_settings& s = f->server.settings;
    s.dir = dir;
    s.block_size = FUZZ_BLOCK_SIZE;
    s.sync = false;  // nothing here needs to survive a power cut
    fuzz_require(kfsd_store_open(dir, &f->server.store, &error) == 0,
                 "opening the store");
    // Not started: every write job runs in its request, as the fuzzer
    // needs to see its effect at once.
    f->server.writer = std::make_unique<kfsd_writer>(&f->server);
    add_user(f, FUZZ_USER_ID, "fuzz", 0);
    add_user(f, FUZZ_OTHER_USER_ID, "other", 1);
    // A file where the outbox folder was: every e-mail is parsed and
    // written to tmp/, then its move fails (ERR_IO). Otherwise one request
    // of a few kilobytes could leave thousands of files per iteration.
    std::string outbox = dir + "/" + KFSD_OUTBOX_DIR;
    fuzz_require(rmdir(outbox.c_str()) == 0, "removing the outbox");
    fuzz_write_file(outbox, nullptr, 0);
    upload_baseline(f);
    make_listing(f);
    fuzz_require(sqlite3_open(":memory:", &f->pristine) == SQLITE_OK,
                 "an in-memory database");
    copy_database(f->server.store.db, f->pristine);
    f->changes_mark = sqlite3_total_changes(f->server.store.db);
    return f;
  }();
  return fixture;
}

kfsd_conn* kfsd_fixture_begin(kfsd_fixture* f) {
  new_connection(f);
  kfsd_conn* c = f->conn.get();
  auto write = std::make_unique<kfsd_handle>();
  write->writing = true;
  write->version = f->upload_version;
  write->block_count = kUploadBlocks;
  write->block_size = FUZZ_BLOCK_SIZE;
  c->handles[FUZZ_WRITE_HANDLE] = std::move(write);

  auto in_block = std::make_unique<kfsd_handle>();
  in_block->writing = true;
  in_block->version = f->upload_version;
  in_block->block_count = kUploadBlocks;
  in_block->block_size = FUZZ_BLOCK_SIZE;
  in_block->block = 0;
  in_block->sha256.reset(EVP_MD_CTX_new());
  fuzz_require(
      in_block->sha256 &&
          EVP_DigestInit_ex(in_block->sha256.get(), EVP_sha256(), nullptr) == 1,
      "a block begun");
  in_block->in_block = true;
  c->handles[FUZZ_IN_BLOCK_HANDLE] = std::move(in_block);

  auto read = std::make_unique<kfsd_handle>();
  read->blocks = f->file.blocks;
  add_pins(f, 1);  // as kfsd_store_ropen pins for the handle
  c->handles[FUZZ_READ_HANDLE] = std::move(read);

  c->listings[FUZZ_LISTING] = f->listing;
  return c;
}

int kfsd_fixture_run(kfsd_fixture* f, uint8_t type, const uint8_t* body,
                     size_t n) {
  kfs_message* in = f->in.get();
  kfs_message* out = f->out.get();
  uint32_t length = static_cast<uint32_t>(std::min<size_t>(n, KFS_MAX_BODY));
  in->type = type;
  in->data_length = static_cast<uint16_t>(length);
  in->sequence = 0;
  in->status = 0;
  if (length > 0) {
    memcpy(in->buffer, body, length);
  }
  out->data_length = 0;
  out->status = 0;
  f->last_status = 0;
  if (type >= KFS_RESPONSE) {
    return KFSD_DROP;  // a response sent as a request ends the connection
  }
  kfsd_request req;
  req.conn = f->conn.get();
  kfs_reader_begin(in, &req.in);
  kfs_body_begin(out, &req.out);
  int action = kfsd_dispatch(&req, in);
  f->last_status = req.status;
  static const bool trace = getenv("KOVRA_FUZZ_TRACE") != nullptr;
  if (trace) {
    fprintf(stderr, "kfsd %s %s -> %s, action %d, %u reply bytes\n",
            kfs_type_name(type), req.note.c_str(), kfs_err_name(req.status),
            action, req.out.length);
  }

  fuzz_require(
      action == KFSD_REPLY || action == KFSD_SILENT || action == KFSD_DROP,
      "an action");
  fuzz_require(kfs_body_ok(&req.out), "the reply fits one packet");
  fuzz_require(req.status <= 0xFF, "the status fits its byte");
  fuzz_require(f->conn->handles.size() <= KFSD_MAX_HANDLES, "handle limit");
  fuzz_require(f->conn->listings.size() <= KFSD_MAX_LISTINGS, "listing limit");
  fuzz_require(action != KFSD_SILENT || !must_answer(in),
               "only closes and unacknowledged writes go unanswered");
  if (action != KFSD_REPLY) {
    return action;
  }
  // As the connection loop sends it.
  out->sequence = in->sequence;
  out->status = static_cast<uint8_t>(req.status);
  kfs_request_finish(out, static_cast<uint8_t>(type + KFS_RESPONSE),
                     req.out.length);
  memmove(out->buffer, out->buffer + KFS_HEADER_SIZE, out->data_length);
  if (req.status != 0) {
    return action;
  }
  switch (type) {
    case KFS_FILE_WOPEN:
      check_wopen(f);
      break;
    case KFS_FIND_FILES:
      check_find(f);
      break;
    case KFS_FILE_READ:
      check_read(f);
      break;
    case KFS_FILE_ROPEN:
      check_ropen(f);
      break;
    case KFS_SESSION_AUTH:
      fuzz_require(f->conn->authenticated, "a login that succeeds logs in");
      break;
    default:
      break;
  }
  return action;
}

void kfsd_fixture_end(kfsd_fixture* f) {
  kfsd_conn* c = f->conn.get();
  for (auto& [handle, h] : c->handles) {
    kfsd_handle_free(c, h.get());
  }
  c->handles.clear();
  c->listings.clear();
  auto it = f->server.locks.find(c->uid);
  if (it != f->server.locks.end() && it->second.conn == c->id) {
    f->server.locks.erase(it);
  }
  kfsd_store& store = f->server.store;
  {
    std::lock_guard<std::mutex> hold(store.mutex);
    size_t held = 0;
    for (const auto& [stream, count] : store.pinned) {
      held += static_cast<size_t>(count);
    }
    // Only the set-up's own pins, one per stream of the complete file.
    fuzz_require(f->pristine == nullptr || held == f->file.blocks.size(),
                 "a closed connection pins no stream");
  }
  fuzz_require(count_entries(store.dir + "/" + KFSD_TMP_DIR) == 0,
               "a closed connection leaves no partial message");
  if (f->pristine == nullptr ||
      sqlite3_total_changes(store.db) == f->changes_mark) {
    return;
  }
  copy_database(f->pristine, store.db);
  store.pack_fd.reset();  // its pack goes with the sweep
  kfsd_store_sweep(&store);
  f->changes_mark = sqlite3_total_changes(store.db);
}
