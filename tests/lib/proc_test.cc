#include "lib/proc.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace {

class Proc : public TempDirTest {};

TEST(ProcNames, SignalTable) {
  const std::pair<int, const char*> cases[] = {
      {0, "0_UNDEF"},  {1, "SIGHUP"},     {7, "SIGBUS"},
      {14, "SIGALRM"}, {16, "SIGSTKFLT"}, {26, "SIGVTALRM"},
      {31, "SIGSYS"},  {32, nullptr},     {-1, nullptr}};
  for (const auto& [sig, want] : cases) {
    SCOPED_TRACE(sig);
    EXPECT_STREQ(signal_name(sig), want);
  }
}

// The destination starts as a hard link to "other", which must not change.
TEST_F(Proc, CopyFile) {
  const struct {
    const char* name;
    const char* source;
    std::string content;
    int want;
  } cases[] = {{"small", "src", "new", 0},
               {"empty", "src", "", 0},
               {"several reads", "src", std::string(20000, 'x') + "end", 0},
               {"read fails, destination removed", "dir", "", -1}};
  make_dirs("dir");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    write_file("src", c.content);
    write_file("other", "old");
    ASSERT_EQ(link("other", "dst"), 0);
    EXPECT_EQ(copy_file(c.source, "dst", 0640), c.want);
    EXPECT_EQ(read_file("other"), "old");
    EXPECT_EQ(path_exists("dst"), c.want == 0);
    if (c.want == 0) {
      EXPECT_EQ(read_file("dst"), c.content);
    }
    unlink("dst");
  }
  EXPECT_EQ(copy_file("src", "dir", 0644), -1);
}

TEST_F(Proc, CopyFdHidesWriteFailureAndDescriptorModes) {
  write_file("in", "0123456789");
  int in = open("in", O_RDONLY);
  int out = open("in", O_RDONLY);  // writes fail with EBADF
  EXPECT_EQ(copy_fd(in, out), 10);
  EXPECT_EQ(fd_is_readonly(out), 1);
  close(out);
  EXPECT_EQ(fd_is_readonly(out), 0);
  out = open("in", O_RDWR);
  EXPECT_EQ(fd_is_readonly(out), 0);
  close(out);
  close(in);
  int dir = open(".", O_RDONLY);
  EXPECT_EQ(copy_fd(dir, STDOUT_FILENO), -1);
  close(dir);
}

}  // namespace
