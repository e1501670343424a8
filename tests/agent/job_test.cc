// The built agent against a real kfsd, run after run, as a scheduler would
// start it: what the service holds, the report it received, and the index
// and time-stamp files left in the root.
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "kfs/client/kfs.h"
#include "tests/support/kfsd_process.h"
#include "tests/support/scripted_server.h"
#include "tests/support/test_support.h"

namespace {

const uint8_t kKey[32] = {9,  8,  7,  6,  5,  4,  3,  2,  1,  0,  1,
                          2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                          13, 14, 15, 16, 17, 18, 19, 20, 21, 22};

// Templates of our own, so the checks do not depend on the wording of the
// shipped ones.
const char kSuccess[] =
    "job=#JOB# requested=#NUM_REQUESTED# sent=#NUM_TRANSFERED# "
    "same=#NUM_UP2DATE# failed=#NUM_FAILED#\n#ERROR_LIST#";
const char kFailure[] = "failed: #ERROR_MESSAGE#\n";

class Job : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    root_ = dir() + "/root";
    src_ = dir() + "/src";
    make_dirs(root_ + "/etc");
    write_key_file(root_ + "/etc/account.key", kKey);
    for (const char* base : {"success", "failinfo", "failnoinfo"}) {
      bool ok = std::string(base) == "success";
      write_file(root_ + "/etc/" + base + "_txt.emt", ok ? kSuccess : kFailure);
    }
    kfsd_init(dir() + "/data");
    kfsd_add_user(dir() + "/data", 7, "alice", root_ + "/etc/account.key");
    ASSERT_TRUE(server_.start(dir() + "/data", {"--block-size", "4096"}));
    write_file(root_ + "/etc/hosts",
               "127.0.0.1:" + std::to_string(server_.port()) + "\n");
    write_job("");
  }

  void write_job(const std::string& extra) {
    write_file(
        root_ + "/nightly.job",
        "name=nightly\nUserId=7\nDest=/7/Today\nhtml=0\nEmail=ops@example.org\n"
        "Src=" +
            src_ + "\nXSrc=" + src_ + "/skip\n" + extra);
  }

  run_result run_agent() {
    return run_program(AGENT_UNDER_TEST, {AGENT_UNDER_TEST, "nightly.job"},
                       {root_,
                        {{"KOVRA_TEST_ROOT", root_},
                         {"KOVRA_TEST_SLEEP_LOG", dir() + "/sleeps"}}});
  }

  std::string last_report() { return kfsd_last_message(dir() + "/data"); }
  size_t report_count() { return kfsd_message_count(dir() + "/data"); }

  std::string root_, src_;
  kfsd_process server_;
};

// A session of the test's own, to hold the user's lock.
struct remote_view {
  kfs_session s;
  remote_view(int port, const std::string& root) {
    kfs_library_init();
    kfs_session_init(&s);
    s.auth_mode = AUTH_MODE_AGENT;
    s.user_id = 7;
    s.encryption_mode = KFS_MODE_AES;
    unsigned int n = 0;
    EVP_Digest(kKey, 32, s.token_digest, &n, EVP_sha1(), nullptr);
    write_file(root + "/view_hosts", "127.0.0.1:" + std::to_string(port));
    snprintf(s.server_list_path, sizeof s.server_list_path, "%s",
             (root + "/view_hosts").c_str());
  }
  ~remote_view() {
    kfs_session_disconnect(&s);
    kfs_library_cleanup();
  }
};

// The restore tool's round trips check what the service holds; here the
// report's figures show the link and the excluded folder left out.
void make_tree(const std::string& src) {
  make_dirs(src + "/deep/er/still");
  make_dirs(src + "/skip/inner");
  make_dirs(src + "/caf\xc3\xa9 notes");
  write_file(src + "/empty", "");
  write_file(src + "/one block.txt", "a small file\n");
  std::string big;
  for (int i = 0; big.size() < 20000; ++i) {
    big += "line " + std::to_string(i) + "\n";
  }
  write_file(src + "/deep/er/still/big.log", big);
  write_file(src + "/caf\xc3\xa9 notes/\xc3\xbc.txt", "unicode\n");
  write_file(src + "/skip/inner/secret", "never sent\n");
  EXPECT_EQ(symlink("deep", (src + "/link").c_str()), 0);
}

TEST_F(Job, BacksUpThenSendsOnlyWhatChanged) {
  make_tree(src_);
  run_result first = run_agent();
  EXPECT_EQ(first.exit_code, 0);
  EXPECT_EQ(first.out, "");
  EXPECT_EQ(last_report(),
            "job=nightly requested=4 sent=4 same=0 failed=0\n - None!\n");
  EXPECT_TRUE(path_exists(root_ + "/etc/nightly.job.fci"));
  EXPECT_TRUE(path_exists(root_ + "/etc/nightly.job.ts"));
  struct stat kept;  // the report's copy names the account: owner only
  ASSERT_EQ(stat((root_ + "/nightly.job.eml").c_str(), &kept), 0);
  EXPECT_EQ(kept.st_mode & 0777, 0600u);
  EXPECT_FALSE(path_exists(root_ + "/#FCISORT#"));

  run_agent();
  EXPECT_EQ(last_report(),
            "job=nightly requested=4 sent=0 same=4 failed=0\n - None!\n");

  // One block of the big file changes, size kept.
  std::string big = read_file(src_ + "/deep/er/still/big.log");
  big[5000] = 'X';
  write_file(src_ + "/deep/er/still/big.log", big);
  struct utimbuf later = {time(nullptr) + 5, time(nullptr) + 5};
  utime((src_ + "/deep/er/still/big.log").c_str(), &later);
  run_agent();
  EXPECT_EQ(last_report(),
            "job=nightly requested=4 sent=1 same=3 failed=0\n - None!\n");

  // An edited job file makes the next run distrust its index: the files are
  // then found unchanged through the service's listings.
  struct utimbuf edited = {time(nullptr) + 60, time(nullptr) + 60};
  utime((root_ + "/nightly.job").c_str(), &edited);
  run_agent();
  EXPECT_EQ(last_report(),
            "job=nightly requested=4 sent=0 same=4 failed=0\n - None!\n");
  EXPECT_EQ(report_count(), 4u);
  EXPECT_FALSE(path_exists(dir() + "/sleeps"));
}

TEST_F(Job, VanishedSourceIsReportedAndTheRunGoesOn) {
  make_tree(src_);
  write_job("Src=/nonexistent/kovra-source\n");
  run_agent();
  std::string report = last_report();
  EXPECT_EQ(report.substr(0, report.find('\n')),
            "job=nightly requested=5 sent=4 same=0 failed=1");
  EXPECT_NE(report.find("/nonexistent/kovra-source"), std::string::npos);
  EXPECT_NE(report.find("No such file or directory"), std::string::npos);
}

TEST_F(Job, UserHeldByAnotherRunGivesUpAfterThirteenAttempts) {
  make_tree(src_);
  remote_view holder(server_.port(), dir());
  const uint32_t ids[] = {7};
  kfs_lock_args lock = {0, 1, ids};
  ASSERT_EQ(kfs_user_lock(&holder.s, &lock), 0u);

  run_result r = run_agent();
  EXPECT_EQ(r.exit_code, 0);
  std::string twelve_waits;
  for (int i = 0; i < 12; ++i) {
    twelve_waits += "5\n";
  }
  EXPECT_EQ(read_file(dir() + "/sleeps"), twelve_waits);
  EXPECT_EQ(report_count(), 0u);  // failure reports are never mailed
  EXPECT_FALSE(path_exists(root_ + "/etc/nightly.job.ts"));
  EXPECT_FALSE(path_exists(root_ + "/etc/nightly.job.fci"));
}

}  // namespace
