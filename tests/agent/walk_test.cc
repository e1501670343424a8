// The walk: exclusion and system-directory tests, and walks and per-file
// backups against a real kfsd. The job's end-to-end tests check the counting
// walk and a plain walk of a tree; the restore tool's round trips the data.
#include "agent/walk.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "agent/fci/fci.h"
#include "agent/report.h"
#include "agent/report_internal.h"
#include "agent/walk_internal.h"
#include "lib/sleep.h"
#include "tests/support/kfsd_process.h"
#include "tests/support/test_support.h"

namespace {

struct list_deleter {
  void operator()(str_list* l) const { str_list_free(l); }
};
using list_ptr = std::unique_ptr<str_list, list_deleter>;

list_ptr list_of(const std::vector<std::string>& items) {
  list_ptr l(str_list_new(1, 1, nullptr));
  for (const auto& s : items) {
    str_list_insert(l.get(), s.data(), static_cast<uint32_t>(s.size()),
                    str_list_count(l.get()));
  }
  return l;
}

TEST(Walk, ExclusionCoversPrefixesEndingAtASlashSystemFoldersWholePaths) {
  const struct {
    std::vector<std::string> xsrc;
    const char* path;
    bool want;
  } cases[] = {
      {{"/home/u/cache"}, "/home/u/cache", true},
      {{"/home/u/cache"}, "/home/u/cache/x", true},
      {{"/home/u/cache"}, "/home/u/cache2", false},
      {{"/home/u/cache"}, "/home/u", false},
      {{"/HOME/U/CACHE"}, "/home/u/cache/x", true},
      {{"/"}, "/srv/anything", true},
      {{"/data/tmp/"}, "/data/tmp/", true},
      {{"/data/tmp/"}, "/data/tmp", false},
      {{"/data/tmp/"}, "/data/tmp/x", false},
      {{"/a", "/b"}, "/b/c", true},
      {{}, "/b/c", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.path) + " against " +
                 (c.xsrc.empty() ? "" : c.xsrc.back()));
    EXPECT_EQ(path_excluded(list_of(c.xsrc).get(), c.path), c.want);
  }
  EXPECT_FALSE(path_excluded(nullptr, "/x"));
  const std::pair<const char*, bool> system[] = {
      {"/dev", true}, {"/PROC", true}, {"/dev/", false}, {"/proc2", false}};
  for (const auto& [path, want] : system) {
    EXPECT_EQ(is_system_directory(path), want) << path;
  }
}

constexpr uint32_t USER = 7;
constexpr uint32_t BLOCK = 4096;
const uint8_t KEY[32] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11,
                         12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22,
                         23, 24, 25, 26, 27, 28, 29, 30, 31, 32};

void no_sleep(unsigned) {}

struct remote {
  uint32_t word;
  uint64_t mtime;
  uint64_t size;
};

// A logged-in, locked session on a fresh kfsd with 4 KiB blocks, a running
// report and the run's index, and a source tree in src/.
class WalkService : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    make_dirs("etc");
    write_key_file("user.key", KEY);
    kfsd_init(dir() + "/data");
    kfsd_add_user(dir() + "/data", USER, "alice", "user.key");
    ASSERT_TRUE(server_.start(dir() + "/data",
                              {"--block-size", std::to_string(BLOCK)}));
    write_file("etc/hosts", "127.0.0.1:" + std::to_string(server_.port()));
    kfs_library_init();
    sleep_set_hook(no_sleep);
    kfs_session_init(&s_);
    s_.auth_mode = AUTH_MODE_AGENT;
    s_.user_id = USER;
    s_.encryption_mode = KFS_MODE_AES;
    EVP_Digest(KEY, 32, s_.token_digest, nullptr, EVP_sha1(), nullptr);
    strcpy(s_.server_list_path, "etc/hosts");
    const uint32_t ids[] = {USER};
    kfs_lock_args lock = {0, 1, ids};
    ASSERT_EQ(kfs_user_lock(&s_, &lock), 0u);
    ASSERT_EQ(kfs_mkdir(&s_, 0, "/7/b"), 0u);
    make_dirs("src/sub/deeper");
    make_dirs("src/cache");
    const std::pair<const char*, std::string> files[] = {
        {"src/empty", ""},
        {"src/one", "a single block"},
        {"src/big", std::string(3 * BLOCK + 100, 'b')},
        {"src/sub/deeper/n\xC3\xA4me with space", "deep"},
        {"src/cache/x", "excluded"}};
    for (const auto& [path, content] : files) {
      write_file(path, content);
    }
    ASSERT_EQ(symlink("sub", "src/link"), 0);
    xsrc_ = list_of({"SRC/cache"});
    begin_run(0);
  }
  void TearDown() override {
    fci_close(fci_run_context(), 0);
    report_reset();
    kfs_session_disconnect(&s_);
    sleep_set_hook(nullptr);
    kfs_library_cleanup();
    TempDirTest::TearDown();
  }

  // A fresh report, and the index opened with stamp: valid when the last
  // commit used it.
  void begin_run(int32_t stamp) {
    report_reset();
    report_configure("", "walk", nullptr, 0, 0, 0, 0, nullptr, 0);
    report_connected(&s_);
    report_begin(0, 0, "/7/b");
    fci_open(fci_run_context(), "walk.job", stamp);
  }
  void walk() {
    walk_job job = {xsrc_.get(), KEY};
    walk_directory(&s_, &job, "src", "/7/b/src");
  }
  std::map<std::string, remote> listing(const char* path) {
    std::map<std::string, remote> names;
    kfs_find_args f = {0, 0x20, path, "", 0, 0, 0, nullptr};
    EXPECT_EQ(kfs_find_files(&s_, &f), 0u);
    for (char* e = str_list_first(f.entries); e != nullptr;
         e = str_list_next(f.entries)) {
      auto* entry = reinterpret_cast<kfs_find_entry*>(e);
      names[entry->name] = {entry->word, entry->mtime, entry->size};
    }
    kfs_find_release(&f);
    return names;
  }
  // Sent, up to date, failed.
  std::vector<int64_t> counts() {
    return {report_files_sent(), report_files_up_to_date(),
            report_files_failed()};
  }

  kfsd_process server_;
  kfs_session s_;
  list_ptr xsrc_;
};

TEST_F(WalkService, ListingDecidesWithinAnHourOfTheServicesTime) {
  const time_t base = 1500000000;
  const struct {
    const char* name;
    int shift;  // local time minus the time the service holds
    const char* content;
    bool up_to_date;
  } cases[] = {
      {"same", 0, "content", true},
      {"hour behind", -3600, "content", true},
      {"hour ahead", 3600, "content", true},
      {"hour and a second", 3601, "content", false},
      {"longer", 0, "content+", false},
      {"pending", 0, "content", false},  // only a cut-off upload remotely
  };
  auto put = [](const std::string& name, const char* content, time_t t) {
    write_file("src/" + name, content);
    struct timeval tv[2] = {{t, 0}, {t, 0}};
    ASSERT_EQ(utimes(("src/" + name).c_str(), tv), 0);
  };
  for (const auto& c : cases) {
    if (strcmp(c.name, "pending") != 0) {
      put(c.name, "content", base);
    }
  }
  walk();
  kfs_wopen_args w = {};
  w.flags = 1;
  w.value_a = base;
  w.path = "/7/b/src/pending";
  w.value_c = 7;
  ASSERT_EQ(kfs_file_wopen(&s_, &w), 0u);
  kfs_file_close(&s_, w.handle);
  for (const auto& c : cases) {
    put(c.name, c.content, base + c.shift);
  }
  fci_close(fci_run_context(), 0);  // discarded: the next walk lists
  begin_run(0);
  walk();
  EXPECT_EQ(counts(), (std::vector<int64_t>{3, 3 + 4, 0}));
  std::map<std::string, remote> after = listing("/7/b/src");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const remote& r = after[c.name];
    EXPECT_EQ(r.mtime, uint64_t(c.up_to_date ? base : base + c.shift));
    EXPECT_EQ(r.size, strlen(c.content));
    EXPECT_EQ(r.word & KFS_ATTR_NEEDS_BACKUP, 0u);
  }
}

// The index must see a file's whole size and its time as the service keeps
// it (the low 32 bits), whatever the widths of off_t and time_t on the box;
// and a file with a time past 2038 or before 1970 is walked like any other.
// Sparse files cost no disk. The service is stopped: a file the index
// vouches for counts as up to date, any other fails on the request, and
// one the walk leaves out counts as neither.
TEST_F(WalkService, IndexSeesWholeSizesAndTimesOutside32Bits) {
  constexpr int64_t kNow = 1500000000;
  constexpr int64_t k1960 = -315619200;
  constexpr int64_t k2040 = 2208988800;
  constexpr uint64_t k4GiB = uint64_t{1} << 32;
  const struct {
    const char* name;
    uint64_t size;
    int64_t mtime, atime;
    uint64_t recorded_size;
    int64_t recorded_mtime;
    bool up_to_date;
  } cases[] = {
      {"above 4 GiB", k4GiB + 100, kNow, kNow, k4GiB + 100, kNow, true},
      {"4 GiB more than recorded", k4GiB + 100, kNow, kNow, 100, kNow, false},
      {"4 GiB less than recorded", 100, kNow, kNow, k4GiB + 100, kNow, false},
      {"changed before 1970", 100, k1960, k1960, 100, k1960, true},
      {"changed after 2038", 100, k2040, kNow, 100, k2040, true},
      {"read after 2038", 100, kNow, k2040, 100, kNow, true},
      {"a second off after 2038", 100, k2040, kNow, 100, k2040 - 1, false},
  };
  fci_context* fci = fci_run_context();
  for (size_t i = 0; i < std::size(cases); ++i) {
    const auto& c = cases[i];
    SCOPED_TRACE(c.name);
    std::string folder = "t" + std::to_string(i);
    std::string file = folder + "/f";
    make_dirs(folder);
    write_file(file, "");
    ASSERT_EQ(truncate(file.c_str(), static_cast<off_t>(c.size)), 0);
    // A time_t too narrow for these makes lstat fail on the file.
    ASSERT_EQ(static_cast<time_t>(c.mtime), c.mtime);
    ASSERT_EQ(static_cast<time_t>(c.atime), c.atime);
    const struct timespec times[2] = {{static_cast<time_t>(c.atime), 0},
                                      {static_cast<time_t>(c.mtime), 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    ASSERT_EQ(fci_add(fci, folder.c_str(), 0, 0, 0), 0);
    ASSERT_EQ(
        fci_add(fci, file.c_str(), static_cast<uint32_t>(c.recorded_mtime),
                static_cast<uint32_t>(c.recorded_size),
                static_cast<uint32_t>(c.recorded_size >> 32)),
        0);
  }
  fci_close(fci, 77);
  server_.stop();
  begin_run(77);
  walk_job job = {nullptr, KEY};
  for (size_t i = 0; i < std::size(cases); ++i) {
    const auto& c = cases[i];
    SCOPED_TRACE(c.name);
    std::vector<int64_t> before = counts();
    std::string folder = "t" + std::to_string(i);
    walk_directory(&s_, &job, folder.c_str(), ("/7/b/" + folder).c_str());
    std::vector<int64_t> after = counts();
    EXPECT_EQ(after[1] - before[1], c.up_to_date ? 1 : 0);
    EXPECT_EQ(after[2] - before[2], c.up_to_date ? 0 : 1);
  }
}

}  // namespace
