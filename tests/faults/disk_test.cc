// Disk trouble on the box: an install root the agent cannot write (a
// read-only or a full disk) and source files it cannot read. The job still
// backs up what it can, reports it, and never crashes; what could not be
// kept locally (index, time stamp, the report's copy) only costs the next
// run a full comparison with the service; a root where not even the
// login's key file can be written stops the job before it starts.
#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/backup_service.h"

namespace {

// Permission bits bind root too once it has lost the right to ignore them.
void without_permission_override() {
  if (geteuid() == 0) {
    prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0);
    prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0);
  }
}

// No file may grow: every write fails as on a full disk (EFBIG instead of
// ENOSPC, the same to the agent), and the signal that would end the
// process is ignored as the failure's only other effect.
void no_space() {
  struct rlimit none = {0, 0};
  setrlimit(RLIMIT_FSIZE, &none);
  signal(SIGXFSZ, SIG_IGN);
}

class DiskTrouble : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    src_ = dir() + "/src";
    make_dirs(src_ + "/sub");
    write_file(src_ + "/a", std::string(10000, 'a'));
    write_file(src_ + "/sub/b", "bee");
    ASSERT_TRUE(svc_.start(dir()));
    svc_.write_job(src_);
  }

  // One run with the given restriction; the report mailed, "" when none.
  std::string run(void (*restriction)()) {
    size_t before = kfsd_message_count(svc_.data);
    run_options options = svc_.agent_options();
    options.before_exec = restriction;
    run_result r = run_program(AGENT_UNDER_TEST, svc_.agent_argv(), options);
    EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
    return kfsd_message_count(svc_.data) > before ? kfsd_last_message(svc_.data)
                                                  : "";
  }

  std::string src_;
  backup_service svc_;
};

TEST_F(DiskTrouble, RootThatCannotBeWritten) {
  const struct {
    const char* name;
    void (*apply)();
    mode_t root_mode, etc_mode;
    const char* first;  // the reports of two runs under the restriction
    const char* second;
  } cases[] = {
      // No index and no time stamp can be kept: all is sent and mailed, and
      // the next run compares with the service's listings instead.
      {"read-only etc", without_permission_override, 0755, 0555,
       "job=rt requested=2 sent=2 same=0 failed=0\n - None!\n",
       "job=rt requested=2 sent=0 same=2 failed=0\n - None!\n"},
      // The login needs the server's key in a file in the root: the job
      // cannot start, and its failure report cannot be kept either.
      {"read-only root", without_permission_override, 0555, 0755, "", ""},
      {"full disk", no_space, 0755, 0755, "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(chmod(svc_.root.c_str(), c.root_mode), 0);
    ASSERT_EQ(chmod((svc_.root + "/etc").c_str(), c.etc_mode), 0);
    write_file(src_ + "/sub/b", std::string("changed for ") + c.name);
    EXPECT_EQ(run(c.apply), c.first);
    backup_service::next_second();
    EXPECT_EQ(run(c.apply), c.second);
    if (c.etc_mode == 0555) {
      EXPECT_FALSE(path_exists(svc_.root + "/etc/rt.job.ts"));
    }
    ASSERT_EQ(chmod(svc_.root.c_str(), 0755), 0);
    ASSERT_EQ(chmod((svc_.root + "/etc").c_str(), 0755), 0);
    // With room again, the next run brings the service up to date.
    EXPECT_EQ(svc_.catch_up(src_), "");
  }
}

TEST_F(DiskTrouble, UnreadableSourcesAreReportedOrSkipped) {
  write_file(src_ + "/locked", "private");
  make_dirs(src_ + "/closed");
  write_file(src_ + "/closed/c", "inside");
  ASSERT_EQ(chmod((src_ + "/locked").c_str(), 0), 0);
  ASSERT_EQ(chmod((src_ + "/closed").c_str(), 0), 0);
  std::string report = run(without_permission_override);
  // A file that cannot be read is a failed file; a folder that cannot be
  // opened is passed over without a word.
  EXPECT_NE(report.find(" sent=2 same=0 failed=1\n - " + src_ +
                        "/locked: Permission denied\n"),
            std::string::npos)
      << report;
  ASSERT_EQ(chmod((src_ + "/locked").c_str(), 0644), 0);
  ASSERT_EQ(chmod((src_ + "/closed").c_str(), 0755), 0);
  EXPECT_EQ(svc_.catch_up(src_), "");
}

}  // namespace
