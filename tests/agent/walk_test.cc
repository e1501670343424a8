// The walk: exclusion and system-directory tests, the counting walk on a
// real tree, and walks and per-file backups against a real kfsd.
#include "agent/walk.h"

#include <fcntl.h>
#include <limits.h>
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
#include <zlib.h>

#include "agent/fci/fci.h"
#include "agent/report.h"
#include "agent/report_internal.h"
#include "agent/walk_internal.h"
#include "lib/scoped.h"
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

TEST(Walk, ExclusionCoversPrefixesEndingAtASlash) {
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
      {{"/data/tm"}, "/data/tmp", false},
      {{"/a", "/b"}, "/b/c", true},
      {{}, "/b/c", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.path) + " against " +
                 (c.xsrc.empty() ? "" : c.xsrc.back()));
    EXPECT_EQ(path_excluded(list_of(c.xsrc).get(), c.path), c.want);
  }
  EXPECT_FALSE(path_excluded(nullptr, "/x"));
}

TEST(Walk, SystemDirectoriesAreWholePaths) {
  for (const char* path : {"/dev", "/PROC", "/proc"}) {
    EXPECT_TRUE(is_system_directory(path)) << path;
  }
  for (const char* path : {"/dev/", "/dev/shm", "/sys", "/proc2"}) {
    EXPECT_FALSE(is_system_directory(path)) << path;
  }
}

const str_list* count_xsrc;
int forced_answer;  // 0: exclude by count_xsrc and count

int test_callback(const char* path, const struct stat* st,
                  walk_counters* counters) {
  if (forced_answer != 0) {
    return forced_answer;
  }
  return path_excluded(count_xsrc, path) ? int{WALK_SKIP}
                                         : count_callback(path, st, counters);
}

using CountTree = TempDirTest;

TEST_F(CountTree, CountsWhatTheCallbackKeepsAndComesBack) {
  make_dirs("t/a/b/c");
  make_dirs("t/a/skip");
  const std::pair<const char*, size_t> files[] = {
      {"t/a/f1", 10}, {"t/a/b/f2", 20}, {"t/a/b/c/f3", 5}, {"t/a/skip/f4", 7}};
  for (const auto& [path, size] : files) {
    write_file(path, std::string(size, 'x'));
  }
  ASSERT_EQ(symlink("b", "t/a/link"), 0);      // to a directory
  ASSERT_EQ(symlink("../..", "t/a/b/up"), 0);  // a loop, if followed
  char cwd[PATH_MAX], real[PATH_MAX];
  ASSERT_NE(realpath("t", real), nullptr);
  const struct {
    const char* name;
    const char* root;
    int options;
    const char* xsrc;  // below real, or null
    int answer;
    int want;
    int64_t files, dirs, bytes;
  } cases[] = {
      {"whole tree", "t", WALK_DESCEND | WALK_PATTERN, nullptr, 0, 0, 4, 4, 42},
      {"excluded subtree", "t", WALK_DESCEND, "/a/SKIP", 0, 0, 3, 3, 35},
      {"top level only", "t", 0, nullptr, 0, 0, 0, 1, 0},
      {"stopped", "t", WALK_DESCEND, nullptr, WALK_STOPPED, -1, 0, 0, 0},
      {"other answer stops quietly", "t", WALK_DESCEND, nullptr, 1, 0, 0, 0, 0},
      {"missing root", "none", WALK_DESCEND, nullptr, 0, -1, 0, 0, 0},
      {"file as root", "t/a/f1", WALK_DESCEND, nullptr, 0, -1, 0, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    list_ptr xsrc = list_of({});
    if (c.xsrc != nullptr) {
      xsrc = list_of({std::string(real) + c.xsrc});
    }
    count_xsrc = xsrc.get();
    forced_answer = c.answer;
    walk_counters n = {};
    EXPECT_EQ(count_tree(c.root, c.options, test_callback, &n), c.want);
    EXPECT_EQ(n.files, c.files);
    EXPECT_EQ(n.directories, c.dirs);
    EXPECT_EQ(n.file_bytes, c.bytes);
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    EXPECT_EQ(std::string(cwd) + "/t", real);
  }
  walk_counters n = {};
  EXPECT_EQ(count_tree("t", WALK_DESCEND, nullptr, &n), 0);
}

constexpr uint32_t USER = 7;
constexpr uint32_t BLOCK = 4096;
const uint8_t KEY[32] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11,
                         12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22,
                         23, 24, 25, 26, 27, 28, 29, 30, 31, 32};

void no_sleep(unsigned) {}

// A block's stream as the service keeps it, turned back into plain data.
std::string plain_of(const std::string& stream) {
  cipher_ctx_ptr c(EVP_CIPHER_CTX_new());
  const uint8_t iv[16] = {};
  std::vector<uint8_t> z(stream.size() + 16);
  int n = 0, last = 0;
  EVP_DecryptInit_ex(c.get(), EVP_aes_256_cbc(), nullptr, KEY, iv);
  EVP_DecryptUpdate(c.get(), z.data(), &n,
                    reinterpret_cast<const uint8_t*>(stream.data()),
                    static_cast<int>(stream.size()));
  EXPECT_EQ(EVP_DecryptFinal_ex(c.get(), z.data() + n, &last), 1);
  std::string plain(BLOCK, '\0');
  uLongf len = BLOCK;
  EXPECT_EQ(uncompress(reinterpret_cast<Bytef*>(plain.data()), &len, z.data(),
                       static_cast<uLong>(n + last)),
            Z_OK);
  return plain.substr(0, len);
}

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
    for (uint32_t i = 0; i < 3 * BLOCK + 100; ++i) {
      big_ += static_cast<char>('a' + (i * 7 + i / 97) % 26);
    }
    const std::pair<const char*, std::string> files[] = {
        {"src/empty", ""},
        {"src/one", "a single block"},
        {"src/big", big_},
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
  std::string big_;
  list_ptr xsrc_;
};

TEST_F(WalkService, SendsTheTreeThenTheIndexAloneSkipsIt) {
  walk();
  EXPECT_EQ(counts(), (std::vector<int64_t>{4, 0, 0}));
  std::vector<std::string> names;
  for (const auto& [name, r] : listing("/7/b/src")) {
    names.push_back(name);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"big", "empty", "one", "sub"}));
  EXPECT_EQ(listing("/7/b/src/sub/deeper").count("n\xC3\xA4me with space"), 1u);

  kfs_ropen_args r = {};
  r.path = "/7/b/src/big";
  ASSERT_EQ(kfs_file_ropen(&s_, &r), 0u);
  struct stat st;
  ASSERT_EQ(stat("src/big", &st), 0);
  uint32_t mode = st.st_mode;
  ASSERT_EQ(r.attr_len, 13);
  EXPECT_EQ(r.attr[0], 1);
  EXPECT_EQ(memcmp(r.attr + 9, &mode, 4), 0);
  std::string got, stream;
  uint8_t piece[1000];
  for (int guard = 0; guard < 1000; ++guard) {
    kfs_read_args a = {r.handle, sizeof piece, nullptr, 0, 0, piece};
    ASSERT_EQ(kfs_file_read(&s_, &a), 0u);
    stream.append(reinterpret_cast<char*>(piece), a.n);
    if ((a.flags & KFS_READ_END_BLOCK) != 0) {
      got += plain_of(stream);
      stream.clear();
    }
    if ((a.flags & KFS_READ_END_FILE) != 0) {
      break;
    }
  }
  kfs_file_close(&s_, r.handle);
  EXPECT_EQ(got, big_);

  // With the committed index nothing at all is asked of the service.
  fci_close(fci_run_context(), 1000);
  server_.stop();
  begin_run(1000);
  walk();
  EXPECT_EQ(counts(), (std::vector<int64_t>{0, 4, 0}));
}

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

TEST_F(WalkService, UpToDateAtOpenIsRecorded) {
  struct stat st;
  ASSERT_EQ(lstat("src/one", &st), 0);
  backup_file_with_key(&s_, KEY, "src/gone", "/7/b/gone", &st);  // silent
  backup_file_with_key(&s_, KEY, "src/one", "/7/b/none/one", &st);
  backup_file_with_key(&s_, KEY, "src/one", "/7/b/one", &st);
  EXPECT_EQ(counts(), (std::vector<int64_t>{1, 0, 1}));
  // Unknown to the index but held by the service: up to date, and recorded
  // so that the next run asks nothing.
  fci_close(fci_run_context(), 0);
  begin_run(0);
  backup_file_with_key(&s_, KEY, "src/one", "/7/b/one", &st);
  fci_close(fci_run_context(), 5);
  server_.stop();
  begin_run(5);
  backup_file_with_key(&s_, KEY, "src/one", "/7/b/one", &st);
  EXPECT_EQ(counts(), (std::vector<int64_t>{0, 1, 0}));
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
