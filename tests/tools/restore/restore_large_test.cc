// A file larger than 4 GiB, made sparse so the test needs little disk, goes
// through the agent, kfsd and kovrarestore: 64-bit sizes and offsets all the
// way, and holes come back as holes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/backup_service.h"
#include "tests/support/test_support.h"

namespace {

constexpr uint64_t kFourGiB = uint64_t{1} << 32;
constexpr uint64_t kSize = kFourGiB + (1 << 20) + 123;

// Data at the start, across the 4 GiB mark and at the very end; holes in
// between.
void make_sparse(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0640);
  ASSERT_GE(fd, 0);
  std::mt19937 gen(11);
  std::string noise(100000, '\0');
  for (char& c : noise) {
    c = static_cast<char>(gen());
  }
  const std::pair<uint64_t, std::string> pieces[] = {
      {0, "first bytes"},
      {kFourGiB - 50000, noise},
      {kSize - 3, "end"},
  };
  for (const auto& [at, text] : pieces) {
    ASSERT_EQ(pwrite(fd, text.data(), text.size(), static_cast<off_t>(at)),
              static_cast<ssize_t>(text.size()));
  }
  ASSERT_EQ(close(fd), 0);
}

bool same_bytes(const std::string& a, const std::string& b) {
  int fa = open(a.c_str(), O_RDONLY), fb = open(b.c_str(), O_RDONLY);
  const size_t chunk = 1 << 20;
  std::unique_ptr<char[]> ba(new char[chunk]), bb(new char[chunk]);
  bool same = fa >= 0 && fb >= 0;
  while (same) {
    ssize_t na = read(fa, ba.get(), chunk), nb = read(fb, bb.get(), chunk);
    same = na == nb && na >= 0 && memcmp(ba.get(), bb.get(), na) == 0;
    if (na <= 0) {
      break;
    }
  }
  close(fa);
  close(fb);
  return same;
}

class LargeFile : public TempDirTest {};

TEST_F(LargeFile, SparseFileAbove4GiBRoundTrips) {
  backup_service svc;
  ASSERT_TRUE(svc.start(dir(), 1 << 20));
  make_dirs(dir() + "/src");
  std::string src = dir() + "/src/huge";
  make_sparse(src);
  EXPECT_EQ(svc.back_up(dir() + "/src"), "sent=1 failed=0\n - None!\n");

  run_result r = svc.restore({svc.remote_of(dir() + "/src"), dir() + "/out"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::string back = dir() + "/out/src/huge";
  struct stat a, b;
  ASSERT_EQ(stat(src.c_str(), &a), 0);
  ASSERT_EQ(stat(back.c_str(), &b), 0);
  EXPECT_EQ(static_cast<uint64_t>(b.st_size), kSize);
  EXPECT_EQ(a.st_mtime, b.st_mtime);
  EXPECT_EQ(b.st_mode & 07777, 0640u);
  EXPECT_LT(static_cast<uint64_t>(b.st_blocks) * 512, uint64_t{64} << 20)
      << "the holes were written out";
  EXPECT_TRUE(same_bytes(src, back));
  EXPECT_EQ(svc.verify(dir() + "/src"), "");
}

}  // namespace
