// The client against a real kfsd on 127.0.0.1, each test in a fresh root.
#include <string.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "kfs/client/kfs.h"
#include "lib/sleep.h"
#include "tests/support/kfsd_process.h"
#include "tests/support/test_support.h"

namespace {

constexpr uint32_t kUser = 7;
const uint8_t kKey[32] = {0x10, 0x21, 0x32, 0x43, 0x54, 0x65, 0x76, 0x87,
                          0x98, 0xA9, 0xBA, 0xCB, 0xDC, 0xED, 0xFE, 0x0F,
                          0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88,
                          0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x00};

std::vector<unsigned> sleeps;
void record_sleep(unsigned seconds) {
  sleeps.push_back(seconds);
}

struct session_deleter {
  void operator()(kfs_session* s) const {
    kfs_session_disconnect(s);
    delete s;
  }
};
using session_ptr = std::unique_ptr<kfs_session, session_deleter>;

class Session : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    make_dirs("etc");
    write_key_file("user.key", kKey);
    kfsd_init(dir() + "/data");
    kfsd_add_user(dir() + "/data", kUser, "alice", "user.key");
    ASSERT_TRUE(server_.start(dir() + "/data"));
    hosts({server_.port()});
    kfs_library_init();
    sleeps.clear();
    sleep_set_hook(record_sleep);
  }
  void TearDown() override {
    sleep_set_hook(nullptr);
    kfs_library_cleanup();
    TempDirTest::TearDown();
  }

  void hosts(const std::vector<int>& ports) {
    std::string text;
    for (int port : ports) {
      text += "127.0.0.1:" + std::to_string(port) + "\n";
    }
    write_file("etc/hosts", text);
  }

  session_ptr agent(const uint8_t* key = kKey) {
    session_ptr s(new kfs_session);
    kfs_session_init(s.get());
    s->auth_mode = AUTH_MODE_AGENT;
    s->user_id = kUser;
    s->encryption_mode = KFS_MODE_AES;
    unsigned int n = 0;
    EVP_Digest(key, 32, s->token_digest, &n, EVP_sha1(), nullptr);
    strcpy(s->server_list_path, "etc/hosts");
    strcpy(s->last_servers_path, "etc/hosts.agent");
    strcpy(s->agent_text_1, "nightly");
    strcpy(s->agent_text_2, "nightly.job");
    return s;
  }

  static uint32_t lock(kfs_session* s) {
    const uint32_t ids[] = {kUser};
    kfs_lock_args a = {0, 1, ids};
    return kfs_user_lock(s, &a);
  }

  kfsd_process server_;
};

TEST_F(Session, LoginChecksTheKeyDigest) {
  session_ptr good = agent();
  EXPECT_EQ(lock(good.get()), 0u);
  EXPECT_STREQ(good->user_name, "alice");
  EXPECT_EQ(good->first_connect, 0);

  uint8_t wrong[32] = {};
  session_ptr bad = agent(wrong);
  EXPECT_EQ(lock(bad.get()), ERR_AUTH_FAILURE);
}

TEST_F(Session, LockHoldsAcrossSessionsUntilDisconnect) {
  session_ptr first = agent();
  session_ptr second = agent();
  ASSERT_EQ(lock(first.get()), 0u);
  EXPECT_EQ(lock(second.get()), ERR_ACCESS);
  EXPECT_EQ(kfs_mkdir(second.get(), 0, "/7/a"), ERR_ACCESS);
  kfs_session_disconnect(first.get());
  // The service notices the closed connection on its own time.
  uint32_t rc = ERR_ACCESS;
  for (int i = 0; i < 100 && rc == ERR_ACCESS; ++i) {
    usleep(20000);
    rc = lock(second.get());
  }
  EXPECT_EQ(rc, 0u);
  EXPECT_EQ(kfs_mkdir(second.get(), 0, "/7/a"), 0u);
}

TEST_F(Session, MkdirAndFindWithContinuation) {
  session_ptr s = agent();
  ASSERT_EQ(lock(s.get()), 0u);
  const struct {
    const char* path;
    uint32_t want;
  } mkdirs[] = {{"/7/docs", 0},
                {"/7/docs", ERR_EXISTS},
                {"/7/none/sub", ERR_BADPATH},
                {"/8/x", ERR_FSACCESS}};
  for (const auto& m : mkdirs) {
    SCOPED_TRACE(m.path);
    EXPECT_EQ(kfs_mkdir(s.get(), 0, m.path), m.want);
  }
  // Enough long names that one reply cannot hold them all.
  const int kDirs = 600;
  for (int i = 0; i < kDirs; ++i) {
    std::string p = "/7/docs/" + std::string(200, 'd') + std::to_string(i);
    ASSERT_EQ(kfs_mkdir(s.get(), 0, p.c_str()), 0u);
  }
  kfs_find_args f = {0, 0x20, "/7/docs", "", 0, 0, 0, nullptr};
  int seen = 0, replies = 0;
  uint32_t rc;
  while ((rc = kfs_find_files(s.get(), &f)) == 0) {
    ++replies;
    for (char* e = str_list_first(f.entries); e != nullptr;
         e = str_list_next(f.entries)) {
      auto* entry = reinterpret_cast<kfs_find_entry*>(e);
      EXPECT_EQ(entry->word & KFS_ATTR_DIRECTORY, KFS_ATTR_DIRECTORY);
      ++seen;
    }
    kfs_find_release(&f);
    if (f.remaining == 0) {
      break;
    }
    f = {f.next_handle, 0x20, "", "", 0, 0, 0, nullptr};
  }
  EXPECT_EQ(rc, 0u);
  EXPECT_EQ(seen, kDirs);
  EXPECT_GT(replies, 1);
  std::string long_dir(256, 'x');
  kfs_find_args too_long = {0, 0x20, long_dir.c_str(), "", 0, 0, 0, nullptr};
  EXPECT_EQ(kfs_find_files(s.get(), &too_long), ERR_INVARG);
}

// Uploads a file of blocks (each block sent as one data piece here; the
// service stores whatever stream it is given) and returns the begin-block
// results, one per block.
std::vector<uint32_t> upload(kfs_session* s, const char* path, uint32_t mtime,
                             const std::vector<std::string>& blocks,
                             size_t send_up_to) {
  uint64_t size = 0;
  for (const auto& b : blocks) {
    size += b.size();
  }
  kfs_wopen_args w = {};
  w.flags = 1;
  w.value_a = mtime;
  w.path = path;
  w.value_c = static_cast<uint32_t>(size);
  EXPECT_EQ(kfs_file_wopen(s, &w), 0u);
  std::vector<uint32_t> begun;
  for (size_t i = 0; i < blocks.size() && i < send_up_to; ++i) {
    uint8_t md5[16];
    EVP_Digest(blocks[i].data(), blocks[i].size(), md5, nullptr, EVP_md5(),
               nullptr);
    kfs_write_args a = {w.handle, KFS_WRITE_BEGIN_BLOCK, 16, md5, 0};
    uint32_t rc = kfs_file_write(s, &a);
    begun.push_back(rc);
    if (rc == ERR_UP2DATE) {
      continue;
    }
    kfs_write_args data = {w.handle, KFS_WRITE_BLOCK_DATA,
                           static_cast<uint32_t>(blocks[i].size()),
                           blocks[i].data(), 0};
    EXPECT_EQ(kfs_file_write(s, &data), 0u);
    kfs_write_args end = {w.handle, KFS_WRITE_END_BLOCK, 16, md5, 0};
    EXPECT_EQ(kfs_file_write(s, &end), 0u);
  }
  EXPECT_EQ(kfs_file_close(s, w.handle), 0u);
  return begun;
}

TEST_F(Session, UploadsSkipBlocksTheServiceHolds) {
  server_.stop();
  ASSERT_TRUE(server_.start(dir() + "/data", {"--block-size", "1024"}));
  hosts({server_.port()});
  session_ptr s = agent();
  ASSERT_EQ(lock(s.get()), 0u);
  std::vector<std::string> blocks = {std::string(1024, 'a'),
                                     std::string(1024, 'b'), "tail"};
  // Interrupted after two blocks: the file stays pending (0x20).
  EXPECT_EQ(upload(s.get(), "/7/f", 100, blocks, 2),
            (std::vector<uint32_t>{0, 0}));
  kfs_find_args f = {0, 0x20, "/7", "", 0, 0, 0, nullptr};
  ASSERT_EQ(kfs_find_files(s.get(), &f), 0u);
  ASSERT_EQ(str_list_count(f.entries), 1);
  auto* e = reinterpret_cast<kfs_find_entry*>(str_list_get(f.entries, 0));
  EXPECT_STREQ(e->name, "f");
  EXPECT_EQ(e->word & KFS_ATTR_NEEDS_BACKUP, KFS_ATTR_NEEDS_BACKUP);
  kfs_find_release(&f);

  // The restart re-sends only the missing block, then the file is current.
  EXPECT_EQ(upload(s.get(), "/7/f", 100, blocks, 3),
            (std::vector<uint32_t>{ERR_UP2DATE, ERR_UP2DATE, 0}));
  kfs_wopen_args again = {};
  again.flags = 1;
  again.value_a = 100;
  again.path = "/7/f";
  again.value_c = 2048 + 4;
  EXPECT_EQ(kfs_file_wopen(s.get(), &again), ERR_UP2DATE);
}

TEST_F(Session, ReconnectsAfterTheServerDropsTheLink) {
  session_ptr s = agent();
  ASSERT_EQ(lock(s.get()), 0u);
  int port = server_.port();
  server_.stop();
  ASSERT_TRUE(server_.start(dir() + "/data",
                            {"--listen", "127.0.0.1:" + std::to_string(port)}))
      << "port " << port << " was taken again";
  kfs_find_args f = {0, 0x20, "/7", "", 0, 0, 0, nullptr};
  EXPECT_EQ(kfs_find_files(s.get(), &f), 0u);
  kfs_find_release(&f);
  EXPECT_EQ(sleeps, (std::vector<unsigned>{30}));  // not the first connect
}

TEST_F(Session, FailsOverAndFollowsRedirects) {
  // The first host is dead; the second redirects to the target.
  int dead_port = server_.port();
  server_.stop();
  kfsd_process target;
  ASSERT_TRUE(target.start(dir() + "/data"));
  kfsd_init(dir() + "/redirector");
  kfsd_process redirector;
  ASSERT_TRUE(redirector.start(dir() + "/redirector",
                               {"--redirect", "--announce",
                                "127.0.0.1:" + std::to_string(target.port())}));
  hosts({dead_port, redirector.port()});
  session_ptr s = agent();
  EXPECT_EQ(lock(s.get()), 0u);
  EXPECT_EQ(s->port, static_cast<uint32_t>(target.port()));
  EXPECT_EQ(read_file("etc/hosts.agent"),
            "127.0.0.1:" + std::to_string(target.port()) + "\n");
}

TEST_F(Session, RefusalsBeforeAnyTraffic) {
  session_ptr s = agent();
  s->auth_mode = 5;
  EXPECT_EQ(kfs_session_open(s.get()), ERR_INVARG);
  s = agent();
  s->encryption_mode = 0;
  EXPECT_EQ(lock(s.get()), ERR_ACCESS);
  s = agent();
  kfs_library_cleanup();
  EXPECT_EQ(lock(s.get()), ERR_SEQUENCE);
  kfs_library_init();
  // Comments, blanks and lines without ':' are skipped.
  write_file("etc/hosts", "127.0.0.1:1   # dead\nword\n127.0.0.1:2\n");
  s = agent();
  EXPECT_EQ(lock(s.get()), ERR_IO);
  EXPECT_EQ(kfs_servers()->count, 2);
  EXPECT_EQ(kfs_servers()->servers[1].port, 2u);
  // Only a last-known server: it is used.
  write_file("etc/hosts", "");
  write_file("etc/hosts.agent",
             "127.0.0.1:" + std::to_string(server_.port()) + "\n");
  s = agent();
  EXPECT_EQ(lock(s.get()), 0u);
  remove_tree("etc/hosts.agent");
  s->last_servers_path[0] = '\0';
  s = agent();
  EXPECT_EQ(lock(s.get()), ERR_IO);
  remove_tree("etc/hosts");
  s = agent();
  EXPECT_EQ(lock(s.get()), ERR_BADPATH);
  // A stale temporary key file blocks every connection.
  hosts({server_.port()});
  write_file("temp_pem_file.pem", "");
  s = agent();
  EXPECT_EQ(lock(s.get()), ERR_IO);
}

}  // namespace
