// Runs the built agent as a scheduler would and checks what it prints and
// its exit status, byte for byte, inside a temporary install root.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace {

const std::string kUsage =
    "kovrabackup configfile\n"
    "configfile                file that contains settings and files to back "
    "up\n"
    "\n"
    "Currently supported configfile options are:\n"
    "\n"
    "name=abc                  schedule name, as used in report email\n"
    "userid=nnn                user id. Call Kovra Support to obtain your "
    "userid, or email support@kovra.example\n"
    "dest=/nnn/Today[/path]    destination of backup in My Qarn.\n"
    "src=/path                 directory tree or file to backup\n"
    "xsrc=/path                directory tree or file to exclude from "
    "backups\n"
    "email=a@b,c@d             list of emails to send at completion\n";

const std::string kKey =
    "| test key\n"
    "00112233445566778899aabbccddeeff\n"
    "00112233445566778899AABBCCDDEEFF\n";
const std::string kJob = "UserId=7\nDest=/7/Today\nname=nightly\nSrc=/tmp\n";

class AgentTest : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    root_ = dir() + "/root";
    make_dirs(root_ + "/etc");
  }

  // Runs the test build with our root; the job path is given as written.
  run_result run(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {AGENT_UNDER_TEST};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_program(AGENT_UNDER_TEST, argv,
                       {dir(), {{"KOVRA_TEST_ROOT", root_}}});
  }

  std::string root_;
};

// A bad command line gets the usage; started through the search path (no
// slash in its name) the agent leaves without a word.
TEST_F(AgentTest, UsageForABadCommandLineSilenceFromTheSearchPath) {
  write_file("job.cfg", kJob);
  const struct {
    std::vector<std::string> argv;
    std::string out;
  } cases[] = {{{AGENT_PRODUCT}, kUsage},
               {{AGENT_PRODUCT, "job.cfg", "job.cfg"}, kUsage},
               {{AGENT_PRODUCT, "absent.cfg"}, kUsage},
               {{"kovrabackup", "job.cfg"}, ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.argv.size());
    // The product itself, but never with a job it could run in the real root.
    bool product = c.out == kUsage;
    run_result r = run_program(product ? AGENT_PRODUCT : AGENT_UNDER_TEST,
                               c.argv, {dir(), {{"KOVRA_TEST_ROOT", root_}}});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, "");
  }
}

TEST_F(AgentTest, OutcomesOfTheReader) {
  const std::string key_path = "'" + root_ + "/etc/account.key'\n";
  struct {
    const char* name;
    const char* key;  // null: no key file
    std::string job;
    std::string out, err;
    bool in_root = true;  // else only where the agent starts
  } const cases[] = {
      {"complete job", kKey.c_str(), kJob, "", ""},
      {"job file not in the root", kKey.c_str(), kJob, "Error: 530\n", "",
       false},
      {"no key file", nullptr, kJob, "Error: 1\n",
       "can't find encryption key " + key_path},
      {"short key", "abc\n", kJob, "Error: 1\n",
       "invalid encryption key " + key_path +
           "Please contact support@kovra.example\n"},
      {"missing name", kKey.c_str(), "UserId=7\nDest=/7\n",
       "Missing: name=\nError: 645\n", ""},
      {"repeated key", kKey.c_str(), kJob + "mirror=1\n", "Error: 611\n", ""},
      {"first missing key is named", kKey.c_str(), "name=n\n",
       "Missing: UserId=\nError: 645\n", ""},
      {"commented key is missing", kKey.c_str(), "#" + kJob,
       "Missing: UserId=\nError: 645\n", ""},
      {"autoremove is fixed", kKey.c_str(), "AUTOREMOVE=1\n" + kJob,
       "Error: 611\n", ""},
      {"second name", kKey.c_str(), kJob + "NAME=other\n", "Error: 611\n", ""},
      {"second Email", kKey.c_str(), kJob + "Email=a@b\nEmail=c@d\n",
       "Error: 568\n", ""},
      {"Email after schedule_email", kKey.c_str(),
       "schedule_email=a@b\nEmail=c@d\n" + kJob, "Error: 568\n", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    remove_tree(root_ + "/etc/account.key");
    if (c.key != nullptr) {
      write_file(root_ + "/etc/account.key", c.key);
    }
    // The job file is checked where the agent starts but read in the root.
    write_file("job.cfg", c.job);
    remove_tree(root_ + "/job.cfg");
    if (c.in_root) {
      write_file(root_ + "/job.cfg", c.job);
    }
    run_result r = run({"job.cfg"});
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, c.err);
  }
}

}  // namespace
