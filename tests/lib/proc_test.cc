#include "lib/proc.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace {

class Proc : public TempDirTest {};

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
