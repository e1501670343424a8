// Sessions against a scripted server that misbehaves on cue: what each
// request returns, when the client waits and re-connects, and that every
// request it sends is well formed (sequence 0, a request type, the status
// of the last reply it read echoed, 0 after a new handshake).
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kfs/client/kfs.h"
#include "lib/sleep.h"
#include "tests/support/scripted_server.h"
#include "tests/support/test_support.h"

namespace {

using f = script_fault;

std::vector<unsigned> sleeps;
void record_sleep(unsigned seconds) {
  sleeps.push_back(seconds);
}

class Session : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    kfs_library_init();
    sleep_set_hook(record_sleep);
    fresh_session();
  }
  void TearDown() override {
    kfs_session_disconnect(s_.get());
    server_.stop();
    sleep_set_hook(nullptr);
    kfs_library_cleanup();
    TempDirTest::TearDown();
  }

  void fresh_session() {
    if (s_) {
      kfs_session_disconnect(s_.get());
    }
    sleeps.clear();
    s_ = std::make_unique<kfs_session>();
    kfs_session_init(s_.get());
    s_->auth_mode = AUTH_MODE_AGENT;
    s_->user_id = 7;
    s_->encryption_mode = KFS_MODE_AES;
    strcpy(s_->server_list_path, "hosts");
    strcpy(s_->last_servers_path, "hosts.agent");
  }

  // Starts the server; the list names a dead server first, so every
  // connection fails over once.
  void serve(std::vector<script_step> script) {
    ASSERT_TRUE(server_.start(std::move(script)));
    write_file("hosts", "127.0.0.1:1\n127.0.0.1:" +
                            std::to_string(server_.port()) + "\n");
  }

  // A stat through kfs_transact, or one kfs_connect straight to the server
  // with a stat staged.
  uint32_t run(bool connect = false) {
    if (!connect) {
      kfs_stat_args a = {};
      a.path = "/7/a";
      return kfs_stat(s_.get(), &a);
    }
    kfs_body b;
    kfs_body_begin(&s_->message, &b);
    kfs_put_u8(&b, 0);
    kfs_request_finish(&s_->message, KFS_STAT, b.length);
    uint32_t rc = kfs_connect(s_.get(), "127.0.0.1",
                              static_cast<uint32_t>(server_.port()));
    if (rc != 0) {
      EXPECT_EQ(s_->socket, -1);  // nothing half open is left behind
      EXPECT_EQ(s_->cipher, nullptr);
      EXPECT_EQ(s_->message.type, KFS_STAT);  // the staged request is back
    }
    return rc;
  }

  scripted_server server_;
  std::unique_ptr<kfs_session> s_;
};

// Each row's requests are stats, but for a fault in the opening of the
// first connection: then the first is a kfs_connect straight to the server.
TEST_F(Session, AgainstAServerThatMisbehaves) {
  const uint32_t SEQ = ERR_SEQUENCE, READ = ERR_SCKREAD, IO = ERR_IO;
  const struct {
    const char* name;
    std::vector<script_step> script;  // request 0 is the first login
    std::vector<uint32_t> want;       // one a request
    std::vector<unsigned> waits = {};
  } rows[] = {
      {"well behaved", {}, {0, 0}},
      {"reply of its own type", {{f::reply_type, 1, KFS_STAT}}, {SEQ, 0}},
      {"another's type", {{f::reply_type, 1, KFS_MOVE + 128}}, {SEQ, 0}},
      {"reply with sequence 1", {{f::reply_sequence, 1, 1}}, {SEQ, 0}},
      // A reply's sequence is not carried over a re-connection.
      {"sequence 7",
       {{f::reply_sequence, 1, 7}, {f::reply_drop, 2}},
       {SEQ, READ, 0},
       {30}},
      // An error status is echoed until the next handshake.
      {"status",
       {{f::reply_status, 1, ERR_EXISTS}, {f::reply_drop, 3}},
       {ERR_EXISTS, 0, READ, 0},
       {30}},
      // Dropped, the stream stays in step.
      {"bad checksum", {{f::reply_bad_crc, 1}}, {READ, 0}},
      // The next request re-connects.
      {"stray bytes after a reply", {{f::reply_trailing, 1, 5}}, {0, 0}, {30}},
      // One re-connection after the wait.
      {"dropped link", {{f::reply_drop, 1}}, {READ, 0}, {30}},
      {"dropped at the first login", {{f::reply_drop, 0}}, {IO, 0}, {30}},
      {"damaged key on the re-connection, then a good one",
       {{f::reply_drop, 1}, {f::key_damaged, 1}},
       {READ, IO, 0},
       {30, 30}},
      {"key text that is no key", {{f::key_damaged, 0}}, {ERR_BADPATH, 0}},
      {"key that is not RSA", {{f::key_not_rsa, 0}}, {IO, 0}},
      {"RSA key too short", {{f::key_rsa_1024, 0}}, {IO, 0}},
      {"key text of 511 bytes", {{f::key_padded, 0, 511}}, {0, 0}},
      {"key text of 512 bytes", {{f::key_padded, 0, 512}}, {ERR_INVARG, 0}},
      {"handshake reply of 31 bytes", {{f::hello_short, 0}}, {ERR_ACCESS, 0}},
      {"handshake reply, status", {{f::hello_status, 0, 4}}, {ERR_ACCESS, 0}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    fresh_session();
    serve(row.script);
    bool connect = !row.script.empty() && row.script[0].at == 0 &&
                   row.script[0].fault >= f::key_damaged &&
                   row.script[0].fault <= f::hello_status;
    std::vector<uint32_t> got;
    for (size_t i = 0; i < row.want.size(); ++i) {
      got.push_back(run(connect && i == 0));
    }
    EXPECT_EQ(got, row.want);
    EXPECT_EQ(sleeps, row.waits);
    EXPECT_EQ(server_.malformed(), "");
  }
}

TEST_F(Session, RefusalsBeforeAnyTraffic) {
  serve({});
  s_->auth_mode = 5;
  EXPECT_EQ(kfs_session_open(s_.get()), ERR_INVARG);
  s_->auth_mode = AUTH_MODE_AGENT;
  s_->encryption_mode = 0;
  EXPECT_EQ(run(), ERR_ACCESS);
  s_->encryption_mode = KFS_MODE_AES;
  kfs_library_cleanup();
  EXPECT_EQ(run(), ERR_SEQUENCE);
  kfs_library_init();
  // Comments, blanks and lines without ':' are skipped.
  write_file("hosts", "127.0.0.1:1   # dead\nword\n127.0.0.1:2\n");
  EXPECT_EQ(run(), ERR_IO);
  EXPECT_EQ(kfs_servers()->count, 2);
  EXPECT_EQ(kfs_servers()->servers[1].port, 2u);
  // Only a last-known server: it is used.
  write_file("hosts", "");
  write_file("hosts.agent", "127.0.0.1:" + std::to_string(server_.port()));
  EXPECT_EQ(run(), 0u);
  kfs_session_disconnect(s_.get());
  s_->last_servers_path[0] = '\0';
  EXPECT_EQ(run(), ERR_IO);
  remove_tree("hosts");
  EXPECT_EQ(run(), ERR_BADPATH);
  // A stale temporary key file blocks every connection.
  serve({});
  write_file("temp_pem_file.pem", "");
  EXPECT_EQ(run(), ERR_IO);
  EXPECT_EQ(server_.malformed(), "");
}

}  // namespace
