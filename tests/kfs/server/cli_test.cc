// kfsd's command line: its errors and exit statuses, account key files in
// the agent's format, and a clean stop.
#include <sys/stat.h>
#include <time.h>

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kfs/server/store.h"
#include "lib/hex.h"
#include "tests/kfs/server/test_client.h"

namespace {

class Cli : public KfsdFixture {
 protected:
  run_result kfsd(std::vector<std::string> args) {
    args.insert(args.begin(), "kfsd");
    return run_program(KFSD_PATH, args);
  }
  // Logs in as uid over a fresh connection: the login's status.
  uint32_t login(uint32_t uid, const uint8_t key[32], int at = 0) {
    return kfs_session_open(kfsd_session(at ? at : port(), uid, key).get());
  }
};

TEST_F(Cli, ErrorsAndExitStatuses) {
  make_dirs("full/sub");
  make_dirs("damaged");
  write_file("damaged/kfsd.db", "not a database, just text");
  write_file("short.key", "| short\n" + std::string(62, 'a') + "\n");
  write_file("unknown.conf", "# kfsd\n\ncolour = blue\n");
  write_file("noequals.conf", "listen 127.0.0.1:7001\n");
  write_file("maybe.conf", "verbose = maybe\n");
  write_file("nodata.conf", "verbose = yes\n");
  // The arguments, split at blanks; D stands for the served data folder.
  const struct {
    const char* args;
    int status;
    const char* says;
  } rows[] = {
      {"", 2, "usage: kfsd init DIR"},
      {"start D", 2, "usage:"},
      {"init full", 1, "not empty"},
      {"serve missing", 1, "no data folder"},
      {"serve damaged", 1, "damaged/kfsd.db"},
      {"serve D --fast", 2, "unknown argument"},
      {"serve D --no-sync --no-sync", 2, "--no-sync given twice"},
      {"serve D --listen localhost:1", 2, "--listen"},
      {"serve D --block-size 0", 2, "--block-size"},
      {"serve D --announce a:1 --announce b:2 --announce c:3", 2,
       "at most two"},
      {"serve D --announce a-very-long-hostname:1", 2, "--announce"},
      {"user add D --name x", 2, "--id and --name"},
      {"user add D --id -1 --name x", 2, "--id"},
      {"user add D --id 9 --name nnnnnnnnnnnnnnnnnnnnn", 2, "--name"},
      {"user add D --id 10 --name x --account "
       "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa",
       0, ""},  // the longest account text
      {"user add D --id 7 --name x --key-file 7.key", 1, "user 7 exists"},
      {"user add D --id 9 --name x --key-file short.key", 1, "64 hex digits"},
      {"user add missing --id 9 --name x", 1, "no data folder"},
      {"serve D", 1, "another kfsd"},
      {"user set D --id 9", 1, "no user 9"},
      {"user set D --id 7 --keep-daily x", 2, "--keep-daily"},
      {"serve D --smtp-from a@b", 2, "need --smtp"},
      {"serve D --smtp mail", 2, "HOST:PORT"},
      {"serve D --smtp mail:25 --smtp-from a@b>\r\nRCPT", 2,
       "not a mail address"},
      {"serve D --smtp mail:25 --smtp-user u", 2, "go together"},
      {"serve D --smtp mail:25 --smtp-user u --smtp-password-file missing", 2,
       "missing: No such file"},
      {"serve --config unknown.conf", 2,
       "unknown.conf:3: unknown setting colour"},
      {"serve --config noequals.conf", 2, "noequals.conf:1: not a setting"},
      {"serve --config maybe.conf", 2, "verbose takes yes or no"},
      {"serve --config none.conf", 2, "none.conf: No such file"},
      {"serve --config nodata.conf", 2, "no data folder"},
      {"prune D", 2, "--user N or --all"},
      {"prune D --user 7 --all", 2, "--all"},
      {"prune D --all --keep-within 7", 2, "a duration"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.args);
    std::vector<std::string> args;
    std::istringstream words(row.args);
    for (std::string w; std::getline(words, w, ' ');) {
      args.push_back(w == "D" ? data_dir() : w);
    }
    run_result r = kfsd(args);
    EXPECT_EQ(r.exit_code, row.status);
    EXPECT_NE(r.err.find(row.says), std::string::npos) << r.err;
  }
}

TEST_F(Cli, KeyFilesInTheAgentFormat) {
  // Written by the server: read back here as the agent would.
  run_result r = kfsd({"user", "add", data_dir(), "--id", "9", "--name",
                       "carol", "--quota", "1000000"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::string path = data_dir() + "/keys/9.key";
  EXPECT_NE(r.out.find(path), std::string::npos);
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  std::string file = read_file(path);
  ASSERT_EQ(file.size(), 24u + 33u + 33u) << file;
  EXPECT_EQ(file.substr(0, 24), "| account key of user 9\n");
  uint8_t key9[32];
  hex_decode((file.substr(24, 32) + file.substr(57, 32)).c_str(), 32, key9);

  // Written by hand: hex digits in a comment, blanks, an end marker with
  // more digits behind it; the key is kKey7.
  write_file("hand.key",
             "| comment 0123\n07070707 07070707 07070707 07070707\n"
             "07070707070707070707070707070707\n-- end\nffff\n");
  ASSERT_EQ(kfsd({"user", "add", data_dir(), "--id", "10", "--name", "dave",
                  "--key-file", "hand.key"})
                .exit_code,
            0);
  EXPECT_EQ(login(9, key9), 0u);
  EXPECT_EQ(login(10, kKey7), 0u);
  EXPECT_EQ(login(10, kKey8), ERR_AUTH_FAILURE);
}

// A run's lock and an operator's command on the same user exclude each
// other, both ways; user set changes only what it is given.
TEST_F(Cli, OperatorCommandsAndTheUserLock) {
  const std::string data = data_dir();
  const auto npos = std::string::npos;
  session_ptr run7 = kfsd_session(port(), 7, kKey7);
  ASSERT_EQ(kfs_session_open(run7.get()), 0u);
  ASSERT_EQ(lock(run7.get(), 7), 0u);
  run_result r = kfsd({"user", "remove", data, "--id", "7"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("user 7 is locked by a backup run"), npos) << r.err;
  r = kfsd({"user", "list", data, "--json"});
  EXPECT_NE(r.out.find("\"last_run\": 0, \"locked\": true}, {\"id\": 8"), npos)
      << r.out;

  session_ptr run8 = kfsd_session(port(), 8, kKey8);
  ASSERT_EQ(kfs_session_open(run8.get()), 0u);
  {
    unique_fd removing(kfsd_user_lock_take(data, 8));
    ASSERT_TRUE(removing);
    EXPECT_EQ(lock(run8.get(), 8), ERR_ACCESS);
  }
  EXPECT_EQ(lock(run8.get(), 8), 0u);
  kfs_session_disconnect(run8.get());

  ASSERT_EQ(kfsd({"user", "set", data, "--id", "8", "--quota", "5000",
                  "--email", "bob@example.org"})
                .exit_code,
            0);
  r = kfsd({"user", "set", data, "--id", "8", "--account", "B"});
  EXPECT_NE(r.out.find("account B, e-mail bob@example.org, quota 5000"), npos)
      << r.out;
  r = kfsd({"user", "remove", data, "--id", "8"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(login(8, kKey8), ERR_AUTH_FAILURE);
  r = kfsd({"user", "list", data, "--json"});
  EXPECT_EQ(r.out.find("\"id\": 8"), npos) << r.out;
}

}  // namespace
