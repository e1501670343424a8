#include "agent/fci/fci.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "lib/scoped.h"
#include "tests/support/test_support.h"

namespace {

// Records are packed here by hand from the library's own SHA-1, so that the
// expected bytes owe nothing to the index's encoder.
std::string digest_of(const std::string& data, const EVP_MD* md) {
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EXPECT_EQ(EVP_Digest(data.data(), data.size(), out, &len, md, nullptr), 1);
  return std::string(reinterpret_cast<char*>(out), len);
}

std::string le32(uint32_t v) {
  return {static_cast<char>(v), static_cast<char>(v >> 8),
          static_cast<char>(v >> 16), static_cast<char>(v >> 24)};
}

std::string rec(const std::string& path, uint32_t mtime, uint64_t size) {
  return digest_of(path, EVP_sha1()) + le32(mtime) +
         le32(static_cast<uint32_t>(size)) +
         le32(static_cast<uint32_t>(size >> 32));
}

std::string header(uint32_t version, int32_t time) {
  return le32(version) + le32(static_cast<uint32_t>(time));
}

// The n-th path whose SHA-1 starts with the byte b.
std::string path_starting(uint8_t b, int n = 0) {
  for (int i = 0;; i++) {
    std::string p = "/srv/photos/IMG_" + std::to_string(i) + ".jpg";
    if (static_cast<uint8_t>(digest_of(p, EVP_sha1())[0]) == b && n-- == 0) {
      return p;
    }
  }
}

const std::string ABSENT = "(absent)";
const std::string FOLDER = "(folder)";

class Fci : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    make_dirs("etc");
    fresh();
  }
  void TearDown() override {
    fci_close(ctx(), 0);
    TempDirTest::TearDown();
  }
  void fresh() {
    if (ctx_) {
      fci_close(ctx(), 0);
    }
    ctx_ = std::make_unique<fci_context>();
    ctx_->fd = -1;
  }
  fci_context* ctx() { return ctx_.get(); }
  // The found flag of a lookup that must return rc.
  int find(const std::string& path, uint32_t mtime, uint64_t size, int rc = 0) {
    int found = -1;
    EXPECT_EQ(
        fci_lookup(ctx(), path.c_str(), mtime, static_cast<uint32_t>(size),
                   static_cast<uint32_t>(size >> 32), &found),
        rc);
    return found;
  }
  std::unique_ptr<fci_context> ctx_;
};

TEST_F(Fci, FirstRunCommitsSortedBuckets) {
  make_dirs("#FCISORT#");
  write_file("#FCISORT#/0", std::string(32, '\0'));  // an interrupted run's
  EXPECT_EQ(fci_open(ctx(), "/jobs/x", 0), -1);
  EXPECT_STREQ(ctx()->error_text, "FCI invalid: unintialized");

  // Added against digest order; bucket 0x80 gets two digests, one twice.
  std::string ff = path_starting(0xff), zero = path_starting(0x00),
              mid = path_starting(0x80), mid2 = path_starting(0x80, 1);
  if (digest_of(mid, EVP_sha1()) < digest_of(mid2, EVP_sha1())) {
    std::swap(mid, mid2);
  }
  const uint64_t big = (uint64_t{3} << 32) + 5;
  ASSERT_EQ(fci_add(ctx(), ff.c_str(), 7, 1, 0), 0);
  ASSERT_EQ(fci_add(ctx(), zero.c_str(), 8, 5, 3), 0);
  ASSERT_EQ(fci_add(ctx(), mid.c_str(), 9, 2, 0), 0);
  ASSERT_EQ(fci_add(ctx(), mid2.c_str(), 6, 4, 0), 0);
  ASSERT_EQ(fci_add(ctx(), mid.c_str(), 10, 2, 0), 0);
  fci_close(ctx(), 1234);

  // Equal digests stand side by side, in either order.
  std::string head = header(1, 1234) + rec(zero, 8, big) + rec(mid2, 6, 4);
  std::string got = read_file("etc/x.fci");
  EXPECT_TRUE(got == head + rec(mid, 9, 2) + rec(mid, 10, 2) + rec(ff, 7, 1) ||
              got == head + rec(mid, 10, 2) + rec(mid, 9, 2) + rec(ff, 7, 1));
  EXPECT_FALSE(path_exists("#FCISORT#"));
  fci_close(ctx(), 999);  // a second close does nothing
  EXPECT_EQ(read_file("etc/x.fci"), got);

  fresh();
  ASSERT_EQ(fci_open(ctx(), "x", 1234), 0);
  EXPECT_EQ(find(zero, 8, big), 1);
  EXPECT_EQ(find(mid, 10, 2), 1);
}

TEST_F(Fci, DiscardKeepsTheCopyCommitDropsIt) {
  std::string index = header(1, 5) + rec("a", 1, 2);
  write_file("etc/x.fci", index);
  ASSERT_EQ(fci_open(ctx(), "x", 5), 0);
  ASSERT_EQ(fci_add(ctx(), "b", 1, 2, 0), 0);
  fci_close(ctx(), 0);
  EXPECT_FALSE(path_exists("etc/x.fci"));
  EXPECT_EQ(read_file("etc/x.fci.ro"), index);
  EXPECT_FALSE(path_exists("#FCISORT#"));

  fresh();
  ASSERT_EQ(fci_open(ctx(), "x", 5), 0);
  EXPECT_EQ(find("a", 1, 2), 1);
  ASSERT_EQ(fci_add(ctx(), "a", 1, 2, 0), 0);
  fci_close(ctx(), 6);
  EXPECT_EQ(read_file("etc/x.fci"), header(1, 6) + rec("a", 1, 2));
  EXPECT_FALSE(path_exists("etc/x.fci.ro"));
}

TEST_F(Fci, OpenChecksEveryRule) {
  const std::string r = rec("a", 1, 2), h = header(1, 7);
  std::string page;
  for (int i = 0; i < 128; i++) {
    page += r;
  }
  const std::string short_header = "FCI invalid: reading header failed: ";
  struct open_case {
    const char* name;
    std::string fci, ro;  // contents, ABSENT or FOLDER
    int rc;
    std::string text;
    bool ro_left;  // etc/x.fci never is
    int32_t pages;
    int found;  // looking up "a", 1, 2
  };
  const open_case cases[] = {
      {"missing", ABSENT, ABSENT, -1, "FCI invalid: unintialized", 0, 0, 0},
      {"both names: the copy wins", header(2, 0), h + r, 0, "", 1, 1, 1},
      {"version 2", header(2, 7) + r, ABSENT, -1, "", 0, 0, 0},
      {"out of sync", header(1, 1000) + r, ABSENT, -1,
       "FCI invalid: out of sync: client(1000) != server(7)", 0, 0, 0},
      {"truncated header", h.substr(0, 5), ABSENT, -1,
       short_header + strerror(0), 0, 0, 0},
      {"unreadable copy", ABSENT, FOLDER, -1, short_header + strerror(EISDIR),
       1, 0, 0},
      {"empty record set", h, ABSENT, -1, "FCI invalid: empty record set", 1, 0,
       0},
      {"9 bytes", h + "\x01", ABSENT, 0, "", 1, 1, 0},
      // The zero-padded lead equals the record: still not in the index.
      {"39 bytes", h + r.substr(0, 31), ABSENT, 0, "", 1, 1, 0},
      {"4096+8 bytes", h + page, ABSENT, 0, "", 1, 1, 1},
      {"4097+8 bytes", h + page + "\x01", ABSENT, 0, "", 1, 2, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fresh();
    remove_tree("etc");
    make_dirs("etc");
    if (c.fci != ABSENT) {
      write_file("etc/x.fci", c.fci);
    }
    if (c.ro == FOLDER) {
      make_dirs("etc/x.fci.ro");
    } else if (c.ro != ABSENT) {
      write_file("etc/x.fci.ro", c.ro);
    }
    EXPECT_EQ(fci_open(ctx(), "x", 7), c.rc);
    EXPECT_EQ(ctx()->error_text, c.text);
    EXPECT_FALSE(path_exists("etc/x.fci"));
    EXPECT_EQ(path_exists("etc/x.fci.ro"), c.ro_left);
    EXPECT_EQ(ctx()->page_count, c.pages);
    EXPECT_EQ(ctx()->commit_time, c.rc == 0 ? 7 : 0);
    EXPECT_EQ(find("a", 1, 2), c.found);
  }
}

// 300 records in three pages (128, 128, 44), sorted here.
class FciPages : public Fci {
 protected:
  struct entry {
    std::string record, path;
    uint32_t mtime;
    uint64_t size;
  };
  void SetUp() override {
    Fci::SetUp();
    for (uint32_t i = 0; i < 300; i++) {
      std::string p = "/srv/photos/2023/07/IMG_" + std::to_string(i) + ".jpg";
      uint64_t size = 1000 * i + (i % 3 == 0 ? uint64_t{1} << 32 : 0);
      entries_.push_back({rec(p, 1000 + i, size), p, 1000 + i, size});
    }
    std::sort(
        entries_.begin(), entries_.end(),
        [](const entry& a, const entry& b) { return a.record < b.record; });
    write_index(entries_);
  }
  void write_index(const std::vector<entry>& entries) {
    std::string index = header(1, 42);
    for (const auto& e : entries) {
      index += e.record;
    }
    fresh();
    remove_tree("etc");
    make_dirs("etc");
    write_file("etc/x.fci", index);
    ASSERT_EQ(fci_open(ctx(), "x", 42), 0);
  }
  std::vector<entry> entries_;
};

TEST_F(FciPages, LookupReadsOnlyThePagesItNeeds) {
  struct lookup_case {
    const char* name;
    int n;  // record of the index
    uint32_t mtime_delta;
    uint64_t size_delta;
    int found;
    uint32_t pages_read;  // after the lookup
  };
  const lookup_case cases[] = {
      {"lead of page 1", 128, 0, 0, 1, 0},
      {"inside page 1", 130, 0, 0, 1, 1},
      {"page 1 again, cached", 200, 0, 0, 1, 1},
      {"other mtime", 130, 1, 0, 0, 1},
      {"other size_low", 130, 0, 1, 0, 1},
      {"other size_high", 130, 0, uint64_t{1} << 32, 0, 1},
      {"lead of page 2, other mtime", 256, 1, 0, 0, 2},
      {"last record", 299, 0, 0, 1, 2},
      {"first record", 0, 0, 0, 1, 2},
      {"inside page 0", 5, 0, 0, 1, 3},
  };
  uint32_t hits = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const entry& e = entries_[c.n];
    EXPECT_EQ(find(e.path, e.mtime + c.mtime_delta, e.size + c.size_delta),
              c.found);
    EXPECT_EQ(ctx()->pages_read, c.pages_read);
    hits += c.found;
  }
  EXPECT_EQ(find("/srv/photos/absent.jpg", 1, 1), 0);
  EXPECT_EQ(ctx()->hits, hits);
  EXPECT_EQ(ctx()->misses, std::size(cases) + 1 - hits);
}

TEST_F(FciPages, FailedPageReadInvalidatesTheIndex) {
  int dir = open(".", O_RDONLY | O_DIRECTORY);
  ASSERT_GE(dup2(dir, ctx()->fd), 0);  // every read now fails: EISDIR
  close(dir);
  const entry& e = entries_[130];
  EXPECT_EQ(find(e.path, e.mtime, e.size, -1), 0);
  std::regex text("FCI error: agent/fci:[0-9]+ - reading page_id 1: " +
                  std::string(strerror(EISDIR)));
  EXPECT_TRUE(std::regex_match(ctx()->error_text, text)) << ctx()->error_text;
  const entry& lead = entries_[128];
  EXPECT_EQ(find(lead.path, lead.mtime, lead.size), 0);  // now even a lead
  EXPECT_EQ(ctx()->misses, 2u);
}

TEST_F(Fci, RangeMd5DigestsUpToTheEnd) {
  std::string data;
  for (int i = 0; i < 20000; i++) {
    data += static_cast<char>(i * 7 + i / 251);
  }
  write_file("data", data);
  unique_fd fd(open("data", O_RDONLY));
  const std::pair<int64_t, uint32_t> ranges[] = {
      {0, 20000}, {1, 8192 * 2 + 3}, {19990, 100}, {0, 0}, {30000, 5}};
  uint8_t got[16] = {};
  for (const auto& [offset, length] : ranges) {
    SCOPED_TRACE(std::to_string(offset) + "+" + std::to_string(length));
    ASSERT_EQ(fci_range_md5(fd.get(), offset, length, got), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(got), 16),
              digest_of(data.substr(std::min<size_t>(offset, 20000), length),
                        EVP_md5()));
  }
  unique_fd dir(open(".", O_RDONLY | O_DIRECTORY));
  EXPECT_EQ(fci_range_md5(dir.get(), 0, 10, got), 1);
}

}  // namespace
