// A file larger than 4 GiB, made sparse so the test needs little disk, goes
// through the agent, kfsd and kovrarestore: 64-bit sizes and offsets all the
// way, and holes come back as holes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/backup_service.h"

namespace {

constexpr uint64_t kFourGiB = uint64_t{1} << 32;
constexpr uint64_t kSize = kFourGiB + (1 << 20) + 123;

class LargeFile : public TempDirTest {};

TEST_F(LargeFile, SparseFileAbove4GiBRoundTrips) {
  backup_service svc;
  ASSERT_TRUE(svc.start(dir(), 1 << 20));
  // Data at the start, across the 4 GiB mark and at the very end; holes in
  // between.
  std::string src = dir() + "/src", huge = src + "/huge";
  make_dirs(src);
  int fd = open(huge.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0640);
  std::mt19937 gen(11);
  std::string noise(100000, '\0');
  for (char& c : noise) {
    c = static_cast<char>(gen());
  }
  const std::pair<uint64_t, std::string> pieces[] = {
      {0, "first bytes"}, {kFourGiB - 50000, noise}, {kSize - 3, "end"}};
  for (const auto& [at, text] : pieces) {
    ASSERT_EQ(pwrite(fd, text.data(), text.size(), static_cast<off_t>(at)),
              static_cast<ssize_t>(text.size()));
  }
  ASSERT_EQ(close(fd), 0);
  EXPECT_EQ(svc.back_up(src),
            "job=rt requested=1 sent=1 same=0 failed=0\n - None!\n");

  run_result r = svc.restore({svc.remote_of(src), dir() + "/out"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::string back = dir() + "/out/src/huge";
  struct stat a, b;
  ASSERT_EQ(stat(huge.c_str(), &a), 0);
  ASSERT_EQ(stat(back.c_str(), &b), 0);
  EXPECT_EQ(static_cast<uint64_t>(b.st_size), kSize);
  EXPECT_EQ(a.st_mtime, b.st_mtime);
  EXPECT_EQ(b.st_mode & 07777, 0640u);
  EXPECT_LT(static_cast<uint64_t>(b.st_blocks) * 512, uint64_t{64} << 20)
      << "the holes were written out";
  EXPECT_EQ(system(("cmp -s " + huge + " " + back).c_str()), 0);
  EXPECT_EQ(svc.verify(src), "");
}

}  // namespace
