// The server's session side over loopback: key exchange in both cipher
// modes, login, the user lock across connections with its stamp, login
// redirection, and e-mail to the outbox.

#include <signal.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/kfs/server/test_client.h"

namespace {

class Session : public KfsdFixture {};

TEST_F(Session, LoginInBothCipherModes) {
  for (int mode : {1, KFS_MODE_AES}) {
    SCOPED_TRACE(mode);
    test_client c;
    ASSERT_TRUE(c.connect(port(), mode));
    Bytes reply;
    ASSERT_EQ(c.login(7, kKey7, &reply), 0);
    login_reply r = parse_login(reply);
    EXPECT_FALSE(r.bad);
    EXPECT_EQ(r.redirect, 0);
    EXPECT_EQ(r.host_1, "");
    EXPECT_EQ(r.port_1, 0);
    EXPECT_EQ(r.account_id, 7u);
    EXPECT_EQ(r.user_name, "alice");
    EXPECT_EQ(r.agent_time, 0u);
  }
}

TEST_F(Session, LoginChecksUserAndKey) {
  auto user_mode = [](const char* name, const uint8_t* key) {
    return wire()
        .u8(0)
        .str8(name)
        .str8("")
        .raw(sha1_of_key(key))
        .raw(Bytes(20, 0))
        .b;
  };
  const struct {
    const char* name;
    Bytes body;
    int want;
  } cases[] = {
      {"agent, right key", agent_login(8, kKey8), 0},
      {"agent, key of another user", agent_login(7, kKey8), ERR_AUTH_FAILURE},
      {"agent, unknown user", agent_login(99, kKey8), ERR_AUTH_FAILURE},
      {"user, name and key", user_mode("bob", kKey8), 0},
      {"user, key of another", user_mode("alice", kKey8), ERR_AUTH_FAILURE},
      {"web", wire().u8(4).str8("bob").str8("pw").str8("").b, ERR_AUTH_FAILURE},
  };
  for (const auto& t : cases) {
    SCOPED_TRACE(t.name);
    test_client c;
    ASSERT_TRUE(c.connect(port()));
    EXPECT_EQ(c.call(KFS_SESSION_AUTH, t.body), t.want);
    // Only a login lets the connection take its user's lock; it is given
    // back at once, so the next case finds it free.
    EXPECT_EQ(c.lock(8), t.want == 0 ? 0 : int{ERR_ACCESS});
    c.call(KFS_USER_LOCK, wire().u8(1).b);
  }
  test_client c;
  ASSERT_TRUE(c.connect(port()));
  EXPECT_EQ(
      c.call(KFS_FIND_FILES, wire().u8(0).u8(0x20).str8("/7").str16("").b),
      ERR_ACCESS);
  ASSERT_EQ(c.login(7, kKey7), 0);
  EXPECT_EQ(c.call(KFS_STAT, wire().u8(0).str16("/7").b), ERR_INVARG);
}

TEST_F(Session, ReleaseStoresStampUnlessAnUploadIsIncomplete) {
  test_client c;
  ASSERT_TRUE(c.connect(port()));
  ASSERT_EQ(c.login(7, kKey7), 0);
  ASSERT_EQ(c.lock(7), 0);
  EXPECT_EQ(c.call(KFS_USER_LOCK, wire().u8(5).u32(1700000000).b), 0);
  Bytes reply;
  ASSERT_EQ(c.login(7, kKey7, &reply), 0);
  EXPECT_EQ(parse_login(reply).agent_time, 1700000000u);

  // An upload closed with its only block missing.
  ASSERT_EQ(c.lock(7), 0);
  Bytes open = wire().u8(1).u32(5).str16("/7/f").u32(0).u32(10).u16(0).b;
  Bytes opened;
  ASSERT_EQ(c.call(KFS_FILE_WOPEN, open, &opened), 0);
  ASSERT_TRUE(c.send(KFS_FILE_CLOSE, wire().u8(opened[0]).b));
  EXPECT_EQ(c.call(KFS_USER_LOCK, wire().u8(5).u32(1700000100).b), 0);
  ASSERT_EQ(c.login(7, kKey7, &reply), 0);
  EXPECT_EQ(parse_login(reply).agent_time, 0u);

  // After a server that was killed, each user's next stamp is withheld
  // once: what it had answered but not stored is then compared again.
  kill(server_.pid(), SIGKILL);
  server_.stop();
  ASSERT_TRUE(server_.start(data_dir()));
  for (uint32_t want : {0u, 1700000300u}) {
    test_client k;
    ASSERT_TRUE(k.connect(port()));
    ASSERT_EQ(k.login(8, kKey8), 0);
    ASSERT_EQ(k.lock(8), 0);
    EXPECT_EQ(k.call(KFS_USER_LOCK, wire().u8(5).u32(1700000300).b), 0);
    ASSERT_EQ(k.login(8, kKey8, &reply), 0);
    EXPECT_EQ(parse_login(reply).agent_time, want);
  }
}

}  // namespace
