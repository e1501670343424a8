// Writes the binary seed corpora: real packets, reply bodies made by kfsd's
// own handlers, index files made by fci_add and fci_close, and request
// sequences for kfsd. The text seeds (job, key and host files, templates)
// are kept as they are. Run from the build folder of the fuzz build:
//   fuzz/fuzz_make_seeds ../fuzz/corpus
// Seeds are rewritten in place; the folders of the other targets are left
// alone. Reproducers of findings are kept by hand next to the seeds.
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <openssl/evp.h>

#include "agent/fci/fci.h"
#include "fuzz/fuzz_support.h"
#include "fuzz/kfsd_fixture.h"
#include "fuzz/seed_formats.h"
#include "kfs/client/kfs.h"
#include "lib/scoped.h"

namespace {

using bytes = std::vector<uint8_t>;

std::string out_dir;

// Field writers, big-endian as on the wire.
struct writer {
  bytes b;
  writer& u8(uint8_t v) {
    b.push_back(v);
    return *this;
  }
  writer& u16(uint32_t v) {
    return u8(static_cast<uint8_t>(v >> 8)).u8(v & 0xFF);
  }
  writer& u32(uint32_t v) { return u16(v >> 16).u16(v & 0xFFFF); }
  writer& u64(uint64_t v) {
    return u32(static_cast<uint32_t>(v >> 32)).u32(static_cast<uint32_t>(v));
  }
  writer& raw(const void* p, size_t n) {
    auto* c = static_cast<const uint8_t*>(p);
    b.insert(b.end(), c, c + n);
    return *this;
  }
  writer& raw(const bytes& more) { return raw(more.data(), more.size()); }
  writer& str8(const std::string& s) {
    return u8(s.size()).raw(s.data(), s.size());
  }
  writer& str16(const std::string& s) {
    return u16(s.size()).raw(s.data(), s.size());
  }
};

void save(const char* target, const char* name, const bytes& data) {
  std::string dir = out_dir + "/" + target;
  mkdir(dir.c_str(), 0755);
  fuzz_write_file(dir + "/" + name, data.data(), data.size());
}

// One packet as kfs_packet_send puts it on the wire.
bytes packet(kfs_packet_cipher* cipher, uint8_t type, uint16_t sequence,
             uint8_t status, const bytes& body) {
  static kfs_message m;
  if (!body.empty()) {
    memcpy(m.buffer, body.data(), body.size());
  }
  m.sequence = sequence;
  m.status = status;
  kfs_request_finish(&m, type, static_cast<uint32_t>(body.size()));
  int pair[2];
  fuzz_require(socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0, "socketpair");
  fuzz_require(kfs_packet_send(pair[0], cipher, &m) == 0, "send");
  close(pair[0]);
  bytes out(70000);
  ssize_t n = recv(pair[1], out.data(), out.size(), MSG_WAITALL);
  close(pair[1]);
  out.resize(static_cast<size_t>(n));
  return out;
}

bytes login_body() {
  uint8_t digest[20];
  unsigned int n = 0;
  EVP_Digest(FUZZ_ACCOUNT_KEY, 32, digest, &n, EVP_sha1(), nullptr);
  bytes zeros(20, 0);
  return writer()
      .u8(AUTH_MODE_AGENT)
      .u32(FUZZ_USER_ID)
      .raw(digest, 20)
      .raw(zeros)
      .u32(0)
      .str16("nightly")
      .str16("nightly.job")
      .b;
}

void packet_seeds() {
  kfs_packet_cipher* modes[2] = {
      kfs_cipher_new(1, FUZZ_PACKET_KEY, 0),
      kfs_cipher_new(KFS_MODE_AES, FUZZ_PACKET_KEY, 0)};
  const char* names[2] = {"plain", "aes"};
  for (int i = 0; i < 2; ++i) {
    kfs_packet_cipher* c = modes[i];
    bytes find_reply =
        writer().u16(1).u32(0).u8(0).u8(0).u32(0).u64(1).u64(2).str8("a.jpg").b;
    bytes three = packet(c, KFS_SESSION_AUTH, 0, 0, login_body());
    bytes more = packet(c, KFS_FIND_FILES + KFS_RESPONSE, 0, 0, find_reply);
    three.insert(three.end(), more.begin(), more.end());
    more = packet(c, KFS_USER_LOCK + KFS_RESPONSE, 3, ERR_ACCESS, {});
    three.insert(three.end(), more.begin(), more.end());
    save("packet_recv", (std::string(names[i]) + "-three-packets").c_str(),
         three);
    // A packet whose checksum fails, then a good one: the stream stays in
    // step and the second is read.
    bytes bad = packet(c, KFS_MKDIR, 0, 0, writer().u8(0).str16("/7/a").b);
    bad[2] ^= 0x01;
    more = packet(c, KFS_MKDIR, 0, 0, writer().u8(0).str16("/7/b").b);
    bad.insert(bad.end(), more.begin(), more.end());
    save("packet_recv", (std::string(names[i]) + "-bad-crc-then-good").c_str(),
         bad);
    bytes big(3000, 0x5A);
    save("packet_recv", (std::string(names[i]) + "-write").c_str(),
         packet(c, KFS_FILE_WRITE, 0, 0,
                writer()
                    .u8(1)
                    .u8(KFS_WRITE_BLOCK_DATA)
                    .u16(big.size())
                    .raw(big)
                    .b));
    kfs_cipher_free(c);
  }
}

// A request's reply body, made by the kfsd handlers.
bytes kfsd_reply(kfsd_fixture* f, uint8_t type, const bytes& body) {
  kfsd_fixture_begin(f);
  kfsd_fixture_run(f, type, body.data(), body.size());
  uint32_t n = 0;
  const uint8_t* reply = kfsd_fixture_reply(f, &n);
  bytes out(reply, reply + n);
  kfsd_fixture_end(f);
  return out;
}

void reply_seed(const char* name, uint8_t pick, const bytes& body) {
  save("client_reply", name, writer().u8(pick).raw(body).b);
}

void client_reply_seeds(kfsd_fixture* f) {
  bytes login = kfsd_reply(f, KFS_SESSION_AUTH, login_body());
  reply_seed("login-agent", FUZZ_PICK_LOGIN_AGENT, login);
  // A redirect naming two servers, as kfsd --announce --redirect sends.
  bytes redirect = writer()
                       .u8(1)
                       .str8("127.0.0.1")
                       .u16(7070)
                       .str8("10.0.0.2")
                       .u16(7071)
                       .u32(0)
                       .str8("")
                       .u8(0)
                       .str8("")
                       .u32(0)
                       .str8("")
                       .str8("")
                       .u8(0)
                       .u8(0)
                       .str8("")
                       .str8("")
                       .u64(0)
                       .u64(0)
                       .u8(0)
                       .u8(0)
                       .u32(0)
                       .b;
  reply_seed("login-user-redirect", FUZZ_PICK_LOGIN_USER, redirect);
  reply_seed("find", FUZZ_PICK_FIND,
             kfsd_reply(f, KFS_FIND_FILES,
                        writer().u8(0).u8(0x20).str8(FUZZ_DIR).str16("").b));
  reply_seed("find-long-names", FUZZ_PICK_FIND_LONG_NAMES,
             kfsd_reply(f, KFS_FIND_FILES,
                        writer().u8(0).u8(0x21).str8(FUZZ_DIR).str16("").b));
  reply_seed(
      "wopen", FUZZ_PICK_WOPEN,
      kfsd_reply(
          f, KFS_FILE_WOPEN,
          writer().u8(1).u32(1).str16("/7/dir/new").u32(0).u32(1000).u16(0).b));
  uint8_t md5[16] = {9};
  reply_seed(
      "write-begin", FUZZ_PICK_WRITE,
      kfsd_reply(f, KFS_FILE_WRITE,
                 writer().u8(FUZZ_WRITE_HANDLE).u8(1).u16(16).raw(md5, 16).b));
  reply_seed("ropen", FUZZ_PICK_ROPEN,
             kfsd_reply(f, KFS_FILE_ROPEN, writer().str16(FUZZ_FILE).b));
  reply_seed("read", FUZZ_PICK_READ,
             kfsd_reply(f, KFS_FILE_READ,
                        writer().u8(FUZZ_READ_HANDLE).u16(FUZZ_READ_MAX).b));
  reply_seed("stat", FUZZ_PICK_STAT, writer().u64(1).u64(2).u64(3).b);
  reply_seed(
      "stat-long", FUZZ_PICK_STAT_LONG,
      writer().u8(0).u32(0x20).u64(1700000000).u64(4096).str8("a.jpg").b);
  reply_seed("copy", FUZZ_PICK_COPY, writer().u64(1).u64(2).u64(3).b);
  reply_seed("setopt", FUZZ_PICK_SETOPT, writer().str16("opt=1").b);
  reply_seed("mgnt", FUZZ_PICK_MGNT, writer().u8(1).str16("ok").b);
  reply_seed("user-lock", FUZZ_PICK_USER_LOCK, {});
}

// kfsd requests, each as [type][body] for the one-request target and as
// [type][u16 length][body] for the sequences.
struct request {
  uint8_t type;
  bytes body;
};

bytes one(const request& r) {
  return writer().u8(r.type).raw(r.body).b;
}

bytes sequence(const std::vector<request>& rs) {
  writer w;
  for (const request& r : rs) {
    w.u8(r.type).u16(r.body.size()).raw(r.body);
  }
  return w.b;
}

request wopen(const std::string& path, uint32_t mtime, uint64_t size) {
  return {KFS_FILE_WOPEN, writer()
                              .u8(1)
                              .u32(mtime)
                              .str16(path)
                              .u32(static_cast<uint32_t>(size >> 32))
                              .u32(static_cast<uint32_t>(size))
                              .u16(0)
                              .b};
}

request write_op(uint8_t handle, uint8_t op, const bytes& data) {
  return {KFS_FILE_WRITE,
          writer().u8(handle).u8(op).u16(data.size()).raw(data).b};
}

request read_op(uint8_t handle, uint16_t max) {
  return {KFS_FILE_READ, writer().u8(handle).u16(max).b};
}

void kfsd_seeds() {
  bytes md5(16, 0x42);
  bytes data(64, 0x17);
  bytes login = login_body();
  bytes bad_login = login;
  bad_login[5] ^= 0xFF;  // a wrong key digest
  uint8_t digest[20];
  unsigned int n = 0;
  EVP_Digest(FUZZ_ACCOUNT_KEY, 32, digest, &n, EVP_sha1(), nullptr);
  bytes zeros(20, 0);

  std::vector<std::pair<const char*, request>> singles = {
      {"auth-agent", {KFS_SESSION_AUTH, login}},
      {"auth-agent-bad-key", {KFS_SESSION_AUTH, bad_login}},
      {"auth-user",
       {KFS_SESSION_AUTH, writer()
                              .u8(AUTH_MODE_USER)
                              .str8("fuzz")
                              .str8("")
                              .raw(digest, 20)
                              .raw(zeros)
                              .b}},
      {"lock-acquire", {KFS_USER_LOCK, writer().u8(0).u16(1).u32(7).b}},
      {"lock-release-stamp", {KFS_USER_LOCK, writer().u8(5).u32(1700000000).b}},
      {"email-kind0",
       {KFS_EMAIL, writer()
                       .u8(0)
                       .u32(0)
                       .u32(0)
                       .u16(2)
                       .str8("me@example.org")
                       .str8("you@example.org")
                       .str8("")
                       .str16("Report\n")
                       .b}},
      {"email-kind1",
       {KFS_EMAIL, writer().u8(1).u32(0).u8(0).u8(0).str16("text").b}},
      {"email-kind2", {KFS_EMAIL, writer().u8(2).str16("text").b}},
      {"mkdir", {KFS_MKDIR, writer().u8(0).str16("/7/dir/new").b}},
      {"mkdir-exists", {KFS_MKDIR, writer().u8(0).str16("/7//dir/sub/").b}},
      {"find",
       {KFS_FIND_FILES, writer().u8(0).u8(0x20).str8(FUZZ_DIR).str16("").b}},
      {"find-pattern",
       {KFS_FIND_FILES, writer().u8(0).u8(0x21).str8(FUZZ_DIR).str16("f*").b}},
      {"find-continue",
       {KFS_FIND_FILES,
        writer().u8(FUZZ_LISTING).u8(0x20).str8("").str16("").b}},
      {"wopen-new", wopen("/7/dir/new.bin", 1700000001, 130)},
      {"wopen-up-to-date", wopen(FUZZ_FILE, FUZZ_FILE_MTIME, 100)},
      {"wopen-resume", wopen(FUZZ_UPLOAD, FUZZ_FILE_MTIME, 200)},
      {"wopen-huge", wopen("/7/dir/huge", 1, 1ull << 40)},
      {"write-begin", write_op(FUZZ_WRITE_HANDLE, 1, md5)},
      {"write-data-acked", write_op(FUZZ_IN_BLOCK_HANDLE, 0, data)},
      {"write-data",
       write_op(FUZZ_IN_BLOCK_HANDLE, KFS_WRITE_BLOCK_DATA, data)},
      {"write-end", write_op(FUZZ_IN_BLOCK_HANDLE, 2, md5)},
      {"close-write", {KFS_FILE_CLOSE, writer().u8(FUZZ_WRITE_HANDLE).b}},
      {"close-read", {KFS_FILE_CLOSE, writer().u8(FUZZ_READ_HANDLE).b}},
      {"ropen", {KFS_FILE_ROPEN, writer().str16(FUZZ_FILE).b}},
      {"read", read_op(FUZZ_READ_HANDLE, 1024)},
      {"read-digest",
       {KFS_FILE_READ, writer().u8(FUZZ_READ_HANDLE).u16(10).u8(0).raw(md5).b}},
  };
  for (const auto& [name, r] : singles) {
    save("kfsd_request", name, one(r));
  }

  // New uploads get handle 4: 1 to 3 are taken when a connection starts.
  const uint8_t fresh = 4;
  save("kfsd_session", "upload-then-read-back",
       sequence({wopen("/7/dir/new.bin", 1700000001, 100),
                 write_op(fresh, 1, md5),
                 write_op(fresh, 8, data),
                 write_op(fresh, 10, md5),
                 write_op(fresh, 1, {}),
                 write_op(fresh, 8, bytes(36, 1)),
                 write_op(fresh, 10, md5),
                 {KFS_FILE_CLOSE, writer().u8(fresh).b},
                 {KFS_FILE_ROPEN, writer().str16("/7/dir/new.bin").b},
                 read_op(fresh, 30),
                 read_op(fresh, 1024),
                 read_op(fresh, 1024),
                 read_op(fresh, 1024)}));
  std::vector<request> finish_pending;
  for (int block = 0; block < 4; ++block) {
    finish_pending.push_back(write_op(FUZZ_WRITE_HANDLE, 1, {}));
    finish_pending.push_back(write_op(FUZZ_WRITE_HANDLE, 8, data));
    finish_pending.push_back(write_op(FUZZ_WRITE_HANDLE, 10, md5));
  }
  finish_pending.push_back({KFS_FILE_CLOSE, writer().u8(1).b});
  finish_pending.push_back(
      {KFS_FIND_FILES, writer().u8(0).u8(0x20).str8(FUZZ_DIR).str16("").b});
  finish_pending.push_back({KFS_FILE_ROPEN, writer().str16(FUZZ_UPLOAD).b});
  save("kfsd_session", "finish-pending-upload", sequence(finish_pending));
  request more = {KFS_FIND_FILES,
                  writer().u8(FUZZ_LISTING).u8(0x20).str8("").str16("").b};
  save("kfsd_session", "listing-to-the-end", sequence({more, more, more}));
  save("kfsd_session", "relogin-lock-mkdir-release",
       sequence({{KFS_SESSION_AUTH, login},
                 {KFS_USER_LOCK, writer().u8(0).u16(1).u32(7).b},
                 {KFS_MKDIR, writer().u8(0).str16("/7/dir/new").b},
                 {KFS_USER_LOCK, writer().u8(5).u32(1700000000).b},
                 {KFS_MKDIR, writer().u8(0).str16("/7/dir/new2").b}}));
  save("kfsd_session", "skip-known-block",
       sequence({wopen(FUZZ_FILE, 1700000005, 100),
                 write_op(fresh, 1, bytes(16, 0x30)),
                 write_op(fresh, 1, bytes(16, 0x31)),
                 {KFS_FILE_CLOSE, writer().u8(fresh).b},
                 {KFS_FILE_ROPEN, writer().str16(FUZZ_FILE).b}}));
}

// An index of the seed paths with indices i = 0, step, 2 * step, ...
bytes index_file(int32_t stamp, uint32_t step) {
  fci_context* ctx = fci_run_context();
  fci_open(ctx, "seed", 0);  // no index yet: invalid, and adds still work
  for (uint32_t i = 0; i < FUZZ_SEED_PATHS; i += step) {
    char path[64];
    fuzz_seed_path(i, path, sizeof path);
    fci_add(ctx, path, fuzz_seed_mtime(i), fuzz_seed_size(i), 0);
  }
  fci_close(ctx, stamp);
  std::string text = fuzz_read_file("etc/seed.fci");
  unlink("etc/seed.fci");
  unlink("etc/seed.fci.ro");
  return bytes(text.begin(), text.end());
}

bytes with_stamp(uint32_t stamp, const bytes& file) {
  return writer()
      .u8(stamp & 0xFF)
      .u8((stamp >> 8) & 0xFF)
      .u8((stamp >> 16) & 0xFF)
      .u8(stamp >> 24)
      .raw(file)
      .b;
}

void fci_seeds() {
  std::string here = fuzz_scratch_dir() + "/fci";
  mkdir(here.c_str(), 0700);
  fuzz_require(chdir(here.c_str()) == 0 && mkdir("etc", 0700) == 0, "chdir");
  const int32_t stamp = 1700000000;
  bytes three_pages = index_file(stamp, 1);
  save("fci", "three-pages", with_stamp(stamp, three_pages));
  save("fci", "three-pages-other-stamp", with_stamp(stamp + 1, three_pages));
  save("fci", "every-fifth", with_stamp(stamp, index_file(stamp, 5)));
  bytes one_page = index_file(stamp, 2);  // 150 records: a page and a bit
  one_page.resize(8 + 128 * 32 + 10);     // a last page shorter than a record
  save("fci", "short-last-page", with_stamp(stamp, one_page));
  save("fci", "header-only",
       with_stamp(stamp, bytes(three_pages.begin(), three_pages.begin() + 8)));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: fuzz_make_seeds CORPUS_DIR\n");
    return 2;
  }
  char* real = realpath(argv[1], nullptr);
  fuzz_require(real != nullptr, "the corpus folder exists");
  out_dir = real;
  free(real);
  packet_seeds();
  kfsd_fixture* f = kfsd_fixture_get();
  client_reply_seeds(f);
  kfsd_seeds();
  fci_seeds();
  return 0;
}
