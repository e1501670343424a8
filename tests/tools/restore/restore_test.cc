// Round trips: trees backed up by the built agent to a real kfsd and brought
// back by kovrarestore must match the originals byte for byte, with their
// modification times and permission bits.
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/evp.h>

#include "tests/support/backup_service.h"
#include "tests/support/fault_proxy.h"

namespace {

constexpr uint32_t kBlock = 4096;
constexpr size_t npos = std::string::npos;

class RoundTrip : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    ASSERT_TRUE(svc_.start(dir(), kBlock));
    src_ = dir() + "/src";
  }
  // A copy of the source as dir()/name, times and modes kept; the next run
  // starts in a later second, so each run's point has a time of its own.
  void snapshot(const std::string& name) {
    ASSERT_EQ(system(("cp -a " + src_ + " " + dir() + "/" + name).c_str()), 0);
    backup_service::next_second();
  }
  // Restores the source, with args before the paths, into a fresh folder:
  // the listing of what came back, or what went wrong.
  std::string restored(std::vector<std::string> args = {}) {
    std::string out = dir() + "/out" + std::to_string(++restores_);
    args.insert(args.end(), {svc_.remote_of(src_), out});
    run_result r = svc_.restore(args);
    said_ = r.out;
    return r.exit_code == 0 ? tree_listing(out + "/src") : r.out + r.err;
  }

  backup_service svc_;
  std::string src_;
  int restores_ = 0;
  std::string said_;  // by the last restore, on its standard output
};

TEST_F(RoundTrip, RandomTreesComeBackIdentical) {
  const struct {
    const char* name;
    uint32_t seed;
    int folders, files;
    size_t max_size;
  } shapes[] = {
      {"mixed", 1, 6, 40, 6 * kBlock},
      {"deep", 2, 9, 25, 2 * kBlock},  // folders mostly nest in each other
      {"big files", 3, 2, 8, 40 * kBlock},
      {"empty folders only", 4, 5, 0, 1},
  };
  for (const auto& shape : shapes) {
    SCOPED_TRACE(shape.name);
    src_ = dir() + "/s" + std::to_string(shape.seed) + "/src";
    make_tree(src_, shape.seed, shape.folders, shape.files, shape.max_size);
    EXPECT_NE(svc_.back_up(src_).find("failed=0"), npos);
    EXPECT_EQ(restored(), tree_listing(src_));
    EXPECT_EQ(svc_.verify(src_), "");
    // Trees of more than a few dozen files are restored by several
    // processes; their counts add up in the summary.
    std::string count = std::to_string(std::max(7, shape.files));
    EXPECT_NE(said_.find("Restored " + count + " files"), npos) << said_;
  }
}

TEST_F(RoundTrip, LaterBackupsWinAndEveryPointRestoresAsItWas) {
  make_tree(src_, 5, 3, 20, 5 * kBlock);
  make_dirs(src_ + "/fixed");
  std::mt19937 gen(6);
  const std::string files[] = {"/fixed/same-size", "/fixed/grows",
                               "/fixed/shrinks", "/fixed/touched"};
  for (const std::string& f : files) {
    write_file(src_ + f, make_content(gen, 3 * kBlock, false));
    set_time(src_ + f, 1000000000);
  }
  snapshot("v1");
  svc_.back_up(src_);

  // One block of a file rewritten in place, a file grown and one cut, one
  // only touched, one new; every changed file also has a new time.
  std::string same = read_file(src_ + files[0]);
  same[kBlock + 5] ^= 1;
  write_file(src_ + files[0], same);
  write_file(src_ + files[1], read_file(src_ + files[1]) + "more");
  write_file(src_ + files[2], read_file(src_ + files[2]).substr(0, 100));
  write_file(src_ + "/fixed/new", "new file");
  for (const std::string& f : files) {
    set_time(src_ + f, 1100000000);
  }
  run_result r = svc_.restore({"--verify", src_, svc_.remote_of(src_)});
  EXPECT_EQ(r.exit_code, 1);
  for (const char* line :
       {"content differs: fixed/same-size (from byte 4101)\n",
        "size differs: fixed/grows (backup 12288, local 12292 bytes)\n",
        "size differs: fixed/shrinks (backup 12288, local 100 bytes)\n",
        "time differs: fixed/touched", "not in the backup: fixed/new\n",
        "8 differences"}) {
    EXPECT_NE(r.out.find(line), npos) << line << "\n" << r.out;
  }
  snapshot("v2");
  EXPECT_EQ(svc_.back_up(src_),
            "job=rt requested=25 sent=5 same=20 failed=0\n - None!\n");
  EXPECT_EQ(restored(), tree_listing(src_));

  // A third run after a file is deleted on the box: the service is never
  // told, so every point keeps it.
  ASSERT_EQ(unlink((src_ + files[3]).c_str()), 0);
  write_file(src_ + "/fixed/new", "newer");
  snapshot("v3");
  ASSERT_EQ(
      system(("cp -a " + dir() + "/v2" + files[3] + " " + dir() + "/v3/fixed/")
                 .c_str()),
      0);
  svc_.back_up(src_);

  // Each point restores and verifies as its run left the tree.
  std::vector<std::string> times = svc_.point_times();
  ASSERT_EQ(times.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    std::string want = dir() + "/v" + std::to_string(i + 1);
    SCOPED_TRACE(times[i]);
    EXPECT_EQ(restored({"--at", times[i]}), tree_listing(want));
    r = svc_.restore(
        {"--at", times[i], "--verify", want, svc_.remote_of(src_)});
    EXPECT_NE(r.out.find("no differences"), npos) << r.out;
  }
  EXPECT_EQ(svc_.check_store(), "");

  // Retention to the last point: it, and only it, is left, whole.
  r = svc_.kfsd({"prune", svc_.data, "--user", "7", "--keep-last", "1"});
  EXPECT_NE(r.out.find("kept 1 points, removed 2"), npos) << r.out << r.err;
  EXPECT_EQ(svc_.check_store(), "");
  EXPECT_EQ(svc_.point_times(), std::vector<std::string>{times[2]});
  EXPECT_EQ(restored({"--at", times[2]}), tree_listing(dir() + "/v3"));
  r = svc_.restore({"--at", times[0], "--list", svc_.remote_of(src_)});
  EXPECT_EQ(r.exit_code, 3);
  EXPECT_NE(r.err.find("no restore point at or before"), npos);

  // A stored policy is applied by the server after each completed run.
  ASSERT_EQ(
      svc_.kfsd({"user", "set", svc_.data, "--id", "7", "--keep-last", "2"})
          .exit_code,
      0);
  for (int run = 0; run < 2; ++run) {
    backup_service::next_second();
    svc_.back_up(src_);
  }
  EXPECT_EQ(svc_.point_times().size(), 2u);
  EXPECT_EQ(svc_.check_store(), "");

  // What an operator sees; then the user goes with everything stored.
  r = svc_.kfsd({"stats", svc_.data, "--json"});
  for (const char* part : {"{\"users\": 1, \"files\": 25, ", "\"points\": 2, ",
                           "\"last_runs\": [{\"user\": 7, \"job\": \"rt\""}) {
    EXPECT_NE(r.out.find(part), npos) << r.out;
  }
  EXPECT_EQ(svc_.kfsd({"user", "remove", svc_.data, "--id", "7"}).exit_code, 0);
  EXPECT_EQ(svc_.check_store(), "");
  r = svc_.kfsd({"stats", svc_.data, "--json"});
  EXPECT_NE(r.out.find("{\"users\": 0, \"files\": 0, \"versions\": 0, "
                       "\"points\": 0, \"stored_bytes\": 0, "),
            npos)
      << r.out;
}

TEST_F(RoundTrip, BackupCutOffInTheMiddleOfAFileRestoresExactly) {
  fault_proxy proxy;
  ASSERT_TRUE(proxy.start(svc_.server.port()));
  svc_.point_at(proxy.port());
  make_dirs(src_);
  std::mt19937 gen(8);
  write_file(src_ + "/big", make_content(gen, 150 * kBlock, false));
  write_file(src_ + "/small", "after the big one");
  // About half of the big file is on its way when the connection goes.
  proxy.arm(fault_kind::cut_inside, 230);
  EXPECT_NE(svc_.back_up(src_).find("sent=2 same=0 failed=0"), npos);
  EXPECT_EQ(proxy.drops(), 1);
  // The client waited before it connected again (the test build only logs
  // the wait).
  EXPECT_NE(read_file(svc_.root + "/sleeps").find("30\n"), npos);
  EXPECT_EQ(restored(), tree_listing(src_));
}

TEST_F(RoundTrip, ListsKeepsAndSaysWhyNothingCanBeRestored) {
  make_dirs(src_ + "/sub");
  write_file(src_ + "/a", "from the backup");
  write_file(src_ + "/sub/f", std::string(5000, 'x'));
  set_time(src_ + "/sub/f", 1000000000);
  svc_.back_up(src_);
  run_result r = svc_.restore({"--list", svc_.remote_of(src_)});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  for (const char* line : {"  sub/\n", " 5000  sub/f\n", " 15  a\n",
                           "2 files (5015 bytes), 1 folder\n"}) {
    EXPECT_NE(r.out.find(line), npos) << line << "\n" << r.out;
  }

  // Files already there are kept unless the restore is told to replace them.
  std::string out = dir() + "/out";
  make_dirs(out + "/src");
  write_file(out + "/src/a", "local edit");
  r = svc_.restore({svc_.remote_of(src_), out});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(read_file(out + "/src/a"), "local edit");
  EXPECT_NE(r.out.find("kept 1 existing file "), npos) << r.out;
  r = svc_.restore({"--overwrite", svc_.remote_of(src_), out});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(tree_listing(out + "/src"), tree_listing(src_));
  // One file alone lands in the folder under its own name, and alone.
  r = svc_.restore({svc_.remote_of(src_) + "/a", dir() + "/single"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(list_dir(dir() + "/single", ""), std::vector<std::string>{"a"});
  EXPECT_EQ(read_file(dir() + "/single/a"), "from the backup");

  const uint8_t other[32] = {1};
  write_key_file(dir() + "/other.key", other);
  write_file(dir() + "/bad.key", "not a key\n");
  const char* usage = "usage: kovrarestore";
  const struct {
    std::vector<std::string> args;
    std::string key_file;
    int exit_code;
    const char* says;
  } failures[] = {
      {{svc_.remote_of(src_), "o"}, "other.key", 3, "refused user 7"},
      {{svc_.remote_of(src_), "o"}, "bad.key", 3, "is not a key file"},
      {{"/7/Today/nothing", "o"}, "", 3, "remote path not found: /7/Today/"},
      {{"--user", "x7", "/7/a", "o"}, "", 2, usage},
      {{"/7/a"}, "", 2, usage},
      {{"relative", "o"}, "", 2, usage},
      {{"--list", "--verify", "t", "/7/a"}, "", 2, usage},
      {{"--bogus", "/7/a", "o"}, "", 2, usage},
      {{"--at", "2026-13-01", "/7/a", "o"}, "", 2, usage},
  };
  for (const auto& c : failures) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    r = svc_.restore(c.args, c.key_file);
    EXPECT_EQ(r.exit_code, c.exit_code);
    EXPECT_NE(r.err.find(c.says), npos) << r.err;
  }
  for (const std::vector<std::string>& bare :
       {std::vector<std::string>{"kovrarestore"},
        {"kovrarestore", "--hosts", "h", "--key", "k", "/7/a", "o"}}) {
    EXPECT_EQ(run_program(RESTORE_TOOL, bare).exit_code, 2);
  }
  // The service's digest of the key changed behind its back: the login
  // passes, but the stored blocks were made with the old key.
  uint8_t digest[20];
  EVP_Digest(other, 32, digest, nullptr, EVP_sha1(), nullptr);
  std::string sql = "UPDATE users SET key_sha1 = x'";
  for (uint8_t byte : digest) {
    sql += "0123456789abcdef"[byte >> 4];
    sql += "0123456789abcdef"[byte & 15];
  }
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open((svc_.data + "/kfsd.db").c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, (sql + "' WHERE id = 7").c_str(), nullptr, nullptr,
                         nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  r = svc_.restore({svc_.remote_of(src_), "o"}, "other.key");
  EXPECT_EQ(r.exit_code, 3);
  EXPECT_NE(r.err.find("does not fit this backup"), npos) << r.err;
  EXPECT_FALSE(path_exists("o/src/a"));
  svc_.server.stop();
  r = svc_.restore({svc_.remote_of(src_), "o"});
  EXPECT_EQ(r.exit_code, 3);
  EXPECT_NE(r.err.find("no server in"), npos) << r.err;
}

// A data folder of the layout before packs, whose streams are files of
// their own, is served as it is; and kfsd check reads every stream where
// it lies: a changed byte or a cut in a pack, or in such a stream file, is
// reported.
TEST_F(RoundTrip, OlderLayoutIsServedAndDamagedStreamsAreFound) {
  make_tree(src_, 5, 2, 8, 3 * kBlock);
  svc_.back_up(src_);
  std::string old = dir() + "/old";
  ASSERT_EQ(system(("cp -r " KFSD_1_FOLDER " " + old).c_str()), 0);
  const struct {
    const char* name;
    std::string data, file;
    bool cut;
  } damages[] = {
      {"a byte of a pack", svc_.data, svc_.data + "/packs/00000001.pack",
       false},
      {"the end of a pack", svc_.data, svc_.data + "/packs/00000001.pack",
       true},
      {"a stream file of its own", old,
       old + "/blocks/0e/0e8ba705a2b13a59c6453687b021e83523901c36847728040515"
             "62432f6f1073",
       false}};
  for (const auto& d : damages) {
    SCOPED_TRACE(d.name);
    svc_.data = d.data;
    ASSERT_EQ(svc_.check_store(), "");
    std::string bytes = read_file(d.file);
    ASSERT_FALSE(bytes.empty());
    std::string damaged = bytes;
    if (d.cut) {
      damaged.pop_back();
    } else {
      damaged[bytes.size() / 2] ^= 0x20;
    }
    write_file(d.file, damaged);
    EXPECT_NE(svc_.check_store().find("stream "), npos);
    // A restore does not hand the damage on as data.
    if (d.data != old) {
      EXPECT_NE(restored().find("; 1 failed"), npos);
    }
    write_file(d.file, bytes);
  }

  svc_.server.stop();
  ASSERT_TRUE(svc_.server.start(old));
  svc_.point_at(svc_.server.port());
  run_result r =
      svc_.restore({"/7/Today/tmp/kfsd-1-fixture/src", dir() + "/back"},
                   old + "/keys/7.key");
  ASSERT_EQ(r.exit_code, 0) << r.out << r.err;
  std::string blocks;
  for (int i = 0; i < 10000; ++i) {
    blocks += static_cast<char>((i * 7 + 3) % 251);
  }
  const std::pair<const char*, std::string> files[] = {
      {"small.txt", "hello\n"},
      {"empty", ""},
      {"sub/deeper.txt", "deeper\n"},
      {"blocks.bin", blocks}};
  for (const auto& [name, bytes] : files) {
    EXPECT_EQ(read_file(dir() + "/back/src/" + name), bytes) << name;
  }
  EXPECT_EQ(svc_.check_store(), "");
}

}  // namespace
