// The server's session side over loopback, driven by the client library:
// key exchange in both cipher modes, login, and the user lock with its
// stamp across connections and a killed server.
#include <signal.h>
#include <string.h>

#include <gtest/gtest.h>

#include "tests/kfs/server/test_client.h"

namespace {

class Session : public KfsdFixture {};

// The key exchange in both cipher modes, then the login's checks.
TEST_F(Session, LoginChecksUserAndKey) {
  const struct {
    int mode;
    uint32_t uid;
    const char* name;  // the user's, or as the reply gives it
    const uint8_t* key;
    uint32_t want;
    int cipher = KFS_MODE_AES;
  } rows[] = {
      {AUTH_MODE_AGENT, 7, "alice", kKey7, 0, 1},
      {AUTH_MODE_AGENT, 8, "bob", kKey8, 0},
      {AUTH_MODE_AGENT, 7, "", kKey8, ERR_AUTH_FAILURE},
      {AUTH_MODE_AGENT, 99, "", kKey8, ERR_AUTH_FAILURE},
      {AUTH_MODE_USER, 0, "bob", kKey8, 0},
      {AUTH_MODE_USER, 0, "alice", kKey8, ERR_AUTH_FAILURE},
      {AUTH_MODE_WEB, 0, "bob", kKey8, ERR_AUTH_FAILURE},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(kfs_auth_mode_name(row.mode)) + " " +
                 std::to_string(row.uid) + row.name);
    session_ptr s = kfsd_session(port(), row.uid, row.key, row.cipher);
    s->auth_mode = row.mode;
    strcpy(s->user_name, row.name);
    strcpy(s->password, "pw");
    ASSERT_EQ(kfs_session_open(s.get()), row.want);  // the reply parses whole
    if (row.want == 0) {
      EXPECT_STREQ(s->user_name, row.name);
      EXPECT_EQ(s->account.value1, row.name[0] == 'a' ? 7u : 8u);
      EXPECT_EQ(s->agent_time, 0u);
      EXPECT_EQ(kfs_servers()->last_count, 0);  // no server named
    }
    // Only a login lets the connection take its user's lock; it is given
    // back at once, so the next row finds it free.
    uint32_t uid = row.name[0] == 'a' ? 7 : 8;
    EXPECT_EQ(lock(s.get(), uid), row.want == 0 ? 0u : ERR_ACCESS);
    release(s.get(), 1);
  }
  session_ptr s = kfsd_session(port(), 7, kKey7);
  ASSERT_EQ(kfs_session_open(s.get()), 0u);
  kfs_stat_args stat = {};
  stat.path = "/7";
  EXPECT_EQ(kfs_stat(s.get(), &stat), ERR_INVARG);  // no such request here
}

TEST_F(Session, ReleaseStoresStampUnlessAnUploadIsIncomplete) {
  session_ptr s = kfsd_session(port(), 7, kKey7);
  // The stamp a release stores, then the one after an upload closed with
  // its only block missing.
  for (uint32_t stamp : {1700000000u, 1700000100u}) {
    SCOPED_TRACE(stamp);
    ASSERT_EQ(kfs_session_open(s.get()), 0u);
    ASSERT_EQ(lock(s.get(), 7), 0u);
    if (stamp == 1700000100u) {
      kfs_wopen_args w = {};
      w.flags = 1;
      w.value_a = 5;
      w.path = "/7/f";
      w.value_c = 10;
      ASSERT_EQ(kfs_file_wopen(s.get(), &w), 0u);
      ASSERT_EQ(kfs_file_close(s.get(), w.handle), 0u);
    }
    s->agent_time = stamp;
    EXPECT_EQ(release(s.get(), 5), 0u);
    ASSERT_EQ(kfs_session_open(s.get()), 0u);
    EXPECT_EQ(s->agent_time, stamp == 1700000000u ? stamp : 0u);
  }

  // After a server that was killed, each user's next stamp is withheld
  // once: what it had answered but not stored is then compared again.
  kill(server_.pid(), SIGKILL);
  server_.stop();
  ASSERT_TRUE(server_.start(data_dir()));
  s = kfsd_session(port(), 8, kKey8);
  for (uint32_t want : {0u, 1700000300u}) {
    ASSERT_EQ(kfs_session_open(s.get()), 0u);
    ASSERT_EQ(lock(s.get(), 8), 0u);
    s->agent_time = 1700000300u;
    EXPECT_EQ(release(s.get(), 5), 0u);
    ASSERT_EQ(kfs_session_open(s.get()), 0u);
    EXPECT_EQ(s->agent_time, want);
  }
}

}  // namespace
