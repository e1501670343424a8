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

using fault = script_fault;

std::vector<unsigned> sleeps;
void record_sleep(unsigned seconds) {
  sleeps.push_back(seconds);
}

// What the client does in a row: a request through kfs_transact, or one
// kfs_connect straight to the server with a request staged.
enum class op { stat, connect };

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

  uint32_t run(op what) {
    if (what == op::stat) {
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

TEST_F(Session, AgainstAServerThatMisbehaves) {
  const std::vector<op> two = {op::stat, op::stat};
  const struct {
    const char* name;
    std::vector<script_step> script;  // request 0 is the first login
    std::vector<op> ops;
    std::vector<uint32_t> want;
    std::vector<unsigned> waits;
  } rows[] = {
      {"well behaved", {}, two, {0, 0}, {}},
      {"reply of the request's own type",
       {{fault::reply_type, 1, KFS_STAT}},
       two,
       {ERR_SEQUENCE, 0},
       {}},
      {"reply of another request's type",
       {{fault::reply_type, 1, KFS_MOVE + KFS_RESPONSE}},
       two,
       {ERR_SEQUENCE, 0},
       {}},
      {"reply with sequence 1",
       {{fault::reply_sequence, 1, 1}},
       two,
       {ERR_SEQUENCE, 0},
       {}},
      {"a reply's sequence is not carried over a re-connection",
       {{fault::reply_sequence, 1, 7}, {fault::reply_drop, 2}},
       {op::stat, op::stat, op::stat},
       {ERR_SEQUENCE, ERR_SCKREAD, 0},
       {30}},
      {"an error status is echoed until the next handshake",
       {{fault::reply_status, 1, ERR_EXISTS}, {fault::reply_drop, 3}},
       {op::stat, op::stat, op::stat, op::stat},
       {ERR_EXISTS, 0, ERR_SCKREAD, 0},
       {30}},
      {"bad checksum: dropped, the stream stays in step",
       {{fault::reply_bad_crc, 1}},
       two,
       {ERR_SCKREAD, 0},
       {}},
      {"stray bytes after a reply: the next request re-connects",
       {{fault::reply_trailing, 1, 5}},
       two,
       {0, 0},
       {30}},
      {"dropped link: one re-connection after the wait",
       {{fault::reply_drop, 1}},
       two,
       {ERR_SCKREAD, 0},
       {30}},
      {"dropped at the login of the first connection",
       {{fault::reply_drop, 0}},
       two,
       {ERR_IO, 0},
       {30}},
      {"damaged key on the re-connection, then a good one",
       {{fault::reply_drop, 1}, {fault::key_damaged, 1}},
       {op::stat, op::stat, op::stat},
       {ERR_SCKREAD, ERR_IO, 0},
       {30, 30}},
      {"key text that is no key",
       {{fault::key_damaged, 0}},
       {op::connect, op::stat},
       {ERR_BADPATH, 0},
       {}},
      {"key that is not RSA",
       {{fault::key_not_rsa, 0}},
       {op::connect, op::stat},
       {ERR_IO, 0},
       {}},
      {"RSA key too short",
       {{fault::key_rsa_1024, 0}},
       {op::connect, op::stat},
       {ERR_IO, 0},
       {}},
      {"key text of 511 bytes",
       {{fault::key_padded, 0, 511}},
       {op::connect, op::stat},
       {0, 0},
       {}},
      {"key text of 512 bytes",
       {{fault::key_padded, 0, 512}},
       {op::connect, op::stat},
       {ERR_INVARG, 0},
       {}},
      {"handshake reply of 31 bytes",
       {{fault::hello_short, 0}},
       {op::connect, op::stat},
       {ERR_ACCESS, 0},
       {}},
      {"handshake reply with a status",
       {{fault::hello_status, 0, 4}},
       {op::connect, op::stat},
       {ERR_ACCESS, 0},
       {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    fresh_session();
    serve(row.script);
    std::vector<uint32_t> got;
    for (op what : row.ops) {
      got.push_back(run(what));
    }
    EXPECT_EQ(got, row.want);
    EXPECT_EQ(sleeps, row.waits);
    EXPECT_EQ(server_.malformed(), "");
  }
}

TEST_F(Session, FollowsARedirectAndRemembersTheServer) {
  scripted_server target;
  ASSERT_TRUE(target.start({}));
  // A login reply naming one server, with redirect set.
  std::string ip = "127.0.0.1";
  int port = target.port();
  std::string login = std::string(1, '\1') + static_cast<char>(ip.size()) + ip +
                      static_cast<char>(port >> 8) + static_cast<char>(port) +
                      std::string(42, '\0');
  serve({{fault::reply_body, 0, 0, login}});
  EXPECT_EQ(run(op::stat), 0u);
  EXPECT_EQ(read_file("hosts.agent"), ip + ":" + std::to_string(port) + "\n");
  EXPECT_EQ(s_->port, static_cast<uint32_t>(port));
  EXPECT_EQ(target.requests().size(), 2u);  // the second login, the stat
  EXPECT_EQ(server_.malformed() + target.malformed(), "");
}

TEST_F(Session, RefusalsBeforeAnyTraffic) {
  serve({});
  s_->auth_mode = 5;
  EXPECT_EQ(kfs_session_open(s_.get()), ERR_INVARG);
  s_->auth_mode = AUTH_MODE_AGENT;
  s_->encryption_mode = 0;
  EXPECT_EQ(run(op::stat), ERR_ACCESS);
  s_->encryption_mode = KFS_MODE_AES;
  kfs_library_cleanup();
  EXPECT_EQ(run(op::stat), ERR_SEQUENCE);
  kfs_library_init();
  // Comments, blanks and lines without ':' are skipped.
  write_file("hosts", "127.0.0.1:1   # dead\nword\n127.0.0.1:2\n");
  EXPECT_EQ(run(op::stat), ERR_IO);
  EXPECT_EQ(kfs_servers()->count, 2);
  EXPECT_EQ(kfs_servers()->servers[1].port, 2u);
  // Only a last-known server: it is used.
  write_file("hosts", "");
  write_file("hosts.agent", "127.0.0.1:" + std::to_string(server_.port()));
  EXPECT_EQ(run(op::stat), 0u);
  kfs_session_disconnect(s_.get());
  s_->last_servers_path[0] = '\0';
  EXPECT_EQ(run(op::stat), ERR_IO);
  remove_tree("hosts");
  EXPECT_EQ(run(op::stat), ERR_BADPATH);
  // A stale temporary key file blocks every connection.
  serve({});
  write_file("temp_pem_file.pem", "");
  EXPECT_EQ(run(op::stat), ERR_IO);
  EXPECT_EQ(server_.malformed(), "");
}

}  // namespace
