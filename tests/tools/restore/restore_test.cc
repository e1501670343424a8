// Round trips: trees backed up by the built agent to a real kfsd and brought
// back by kovrarestore must match the originals byte for byte, with their
// modification times and permission bits.
#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "tests/support/backup_service.h"
#include "tests/support/fault_proxy.h"
#include "tests/support/kfsd_process.h"
#include "tests/support/test_support.h"

namespace {

constexpr uint32_t kBlock = 4096;

// What differs between two trees: paths, kinds, bytes, times, permission
// bits of files. Empty when they are the same.
void compare_trees(const std::string& want, const std::string& got,
                   const std::string& rel, std::vector<std::string>* out) {
  std::map<std::string, bool> names;  // name -> present in got too
  for (const std::string& side : {want, got}) {
    if (DIR* d = opendir((side + rel).c_str())) {
      while (dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name != "." && name != "..") {
          names[name] = names.count(name) > 0;
        }
      }
      closedir(d);
    }
  }
  for (const auto& [name, both] : names) {
    std::string path = rel + "/" + name;
    struct stat a, b;
    bool has_a = lstat((want + path).c_str(), &a) == 0;
    bool has_b = lstat((got + path).c_str(), &b) == 0;
    if (!both || !has_a || !has_b) {
      out->push_back((has_a ? "missing " : "extra ") + path);
    } else if (S_ISDIR(a.st_mode) != S_ISDIR(b.st_mode)) {
      out->push_back("kind of " + path);
    } else if (S_ISDIR(a.st_mode)) {
      compare_trees(want, got, path, out);
    } else if (read_file(want + path) != read_file(got + path)) {
      out->push_back("bytes of " + path);
    } else if (a.st_mtime != b.st_mtime) {
      out->push_back("time of " + path);
    } else if ((a.st_mode & 07777) != (b.st_mode & 07777)) {
      out->push_back("mode of " + path);
    }
  }
}

std::vector<std::string> tree_differences(const std::string& want,
                                          const std::string& got) {
  std::vector<std::string> out;
  compare_trees(want, got, "", &out);
  return out;
}

void set_time(const std::string& path, int64_t t) {
  struct timespec times[2] = {{static_cast<time_t>(t), 0},
                              {static_cast<time_t>(t), 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0)
      << path;
}

// File contents the backup treats differently: deflate shrinks the first
// kind a lot and the second not at all.
std::string content(std::mt19937& gen, size_t n, bool compressible) {
  std::string s;
  s.reserve(n);
  while (s.size() < n) {
    if (compressible) {
      s += "line " + std::to_string(gen() % 100) + " of a log file\n";
    } else {
      s += static_cast<char>(gen());
    }
  }
  s.resize(n);
  return s;
}

struct tree_shape {
  const char* name;
  uint32_t seed;
  int folders;  // created at random below the root and each other
  int files;    // placed at random in those folders
  size_t max_size;
};

// A tree of the shape under root; every file gets a time and mode of its
// own, and the block-size edges are always there.
void make_tree(const std::string& root, const tree_shape& shape) {
  std::mt19937 gen(shape.seed);
  const char* names[] = {"a",           "report 2026.txt",
                         "n\xC3\xA4me", "caf\xC3\xA9 \xE2\x9C\x93",
                         "x.y.z",       "it's",
                         "semi;colon",  "UPPER"};
  const mode_t modes[] = {0600, 0640, 0644, 0755, 0700};
  std::vector<std::string> folders = {root};
  make_dirs(root);
  for (int i = 0; i < shape.folders; ++i) {
    std::string parent = folders[gen() % folders.size()];
    std::string path = parent + "/" + names[gen() % 8] + std::to_string(i);
    make_dirs(path);
    folders.push_back(path);
  }
  std::vector<size_t> sizes = {0,          1,          kBlock - 1,    kBlock,
                               kBlock + 1, 2 * kBlock, 3 * kBlock + 7};
  while (sizes.size() < static_cast<size_t>(shape.files)) {
    sizes.push_back(gen() % shape.max_size);
  }
  for (size_t i = 0; i < sizes.size(); ++i) {
    std::string path = folders[gen() % folders.size()] + "/" +
                       names[gen() % 8] + "-" + std::to_string(i);
    write_file(path, content(gen, sizes[i], gen() % 2 == 0));
    ASSERT_EQ(chmod(path.c_str(), modes[gen() % 5]), 0);
    // Times across the whole signed 32-bit range the service keeps,
    // before 1970 included.
    set_time(path, static_cast<int32_t>(gen()));
  }
}

class RoundTrip : public TempDirTest {
 protected:
  void start() { ASSERT_TRUE(svc_.start(dir(), kBlock)); }
  std::string back_up(const std::string& src) { return svc_.back_up(src); }
  run_result restore(const std::vector<std::string>& args,
                     const std::string& key_file = "") {
    return svc_.restore(args, key_file);
  }
  static std::string remote_of(const std::string& local) {
    return backup_service::remote_of(local);
  }
  // A copy of src as dir()/name, times and modes kept; the next run
  // starts in a later second, so each run's point has a time of its own.
  void snapshot(const std::string& src, const std::string& name) {
    ASSERT_EQ(system(("cp -a " + src + " " + dir() + "/" + name).c_str()), 0);
    backup_service::next_second();
  }

  backup_service svc_;
};

TEST_F(RoundTrip, RandomTreesComeBackIdentical) {
  start();
  const tree_shape shapes[] = {
      {"mixed", 1, 6, 40, 6 * kBlock},
      {"deep", 2, 9, 25, 2 * kBlock},  // folders mostly nest in each other
      {"big files", 3, 2, 8, 40 * kBlock},
      {"empty folders only", 4, 5, 0, 1},
  };
  for (const tree_shape& shape : shapes) {
    SCOPED_TRACE(shape.name);
    std::string src = dir() + "/src-" + std::to_string(shape.seed);
    make_tree(src, shape);
    EXPECT_NE(back_up(src).find("failed=0"), std::string::npos);

    // Trees of more than a few dozen files are restored by several
    // processes; their counts add up in the summary.
    run_result r = restore({remote_of(src), dir() + "/out"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_NE(r.out.find("Restored " +
                         std::to_string(std::max(7, shape.files)) + " files"),
              std::string::npos)
        << r.out;
    std::string restored = dir() + "/out/src-" + std::to_string(shape.seed);
    EXPECT_EQ(tree_differences(src, restored), std::vector<std::string>{});

    r = restore({"--verify", src, remote_of(src)});
    EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("no differences"), std::string::npos) << r.out;
  }
}

TEST_F(RoundTrip, LaterBackupsWinAndEveryPointRestoresAsItWas) {
  start();
  std::string src = dir() + "/src";
  make_tree(src, {"incremental", 5, 3, 20, 5 * kBlock});
  make_dirs(src + "/fixed");
  std::mt19937 gen(6);
  const std::string files[] = {"/fixed/same-size", "/fixed/grows",
                               "/fixed/shrinks", "/fixed/touched"};
  for (const std::string& f : files) {
    write_file(src + f, content(gen, 3 * kBlock, false));
    set_time(src + f, 1000000000);
  }
  snapshot(src, "v1");
  back_up(src);

  // One block of a file rewritten in place, a file grown and one cut, one
  // only touched, one new; every changed file also has a new time.
  std::string same = read_file(src + files[0]);
  same[kBlock + 5] ^= 1;
  write_file(src + files[0], same);
  write_file(src + files[1], read_file(src + files[1]) + "more");
  write_file(src + files[2], read_file(src + files[2]).substr(0, 100));
  write_file(src + "/fixed/new", "new file");
  for (const std::string& f : files) {
    set_time(src + f, 1100000000);
  }
  run_result r = restore({"--verify", src, remote_of(src)});
  EXPECT_EQ(r.exit_code, 1);
  for (const char* line :
       {"content differs: fixed/same-size (from byte 4101)\n",
        "size differs: fixed/grows (backup 12288, local 12292 bytes)\n",
        "size differs: fixed/shrinks (backup 12288, local 100 bytes)\n",
        "time differs: fixed/touched", "not in the backup: fixed/new\n",
        "8 differences"}) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;
  }

  snapshot(src, "v2");
  back_up(src);
  r = restore({remote_of(src), dir() + "/out"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(tree_differences(src, dir() + "/out/src"),
            std::vector<std::string>{});

  // A third run after a file is deleted on the box: the service is never
  // told, so every point keeps it.
  ASSERT_EQ(unlink((src + files[3]).c_str()), 0);
  write_file(src + "/fixed/new", "newer");
  snapshot(src, "v3");
  ASSERT_EQ(
      system(("cp -a " + dir() + "/v2" + files[3] + " " + dir() + "/v3/fixed/")
                 .c_str()),
      0);
  back_up(src);

  // Each point restores, lists and verifies as its run left the tree.
  r = restore({"--points"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::vector<std::string> times;
  for (size_t at = 0; (at = r.out.find("  rt  ", at)) != std::string::npos;
       at += 6) {
    times.push_back(r.out.substr(r.out.rfind('\n', at) + 1, 19));
  }
  ASSERT_EQ(times.size(), 3u) << r.out;
  for (int i = 0; i < 3; ++i) {
    std::string want = dir() + "/v" + std::to_string(i + 1);
    std::string out = dir() + "/at" + std::to_string(i + 1);
    SCOPED_TRACE(times[i]);
    r = restore({"--at", times[i], remote_of(src), out});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(tree_differences(want, out + "/src"), std::vector<std::string>{});
    r = restore({"--at", times[i], "--verify", want, remote_of(src)});
    EXPECT_NE(r.out.find("no differences"), std::string::npos) << r.out;
  }
  EXPECT_EQ(svc_.check_store(), "");

  // Retention to the last point: it, and only it, is left, whole.
  r = svc_.kfsd({"prune", svc_.data, "--user", "7", "--keep-last", "1"});
  EXPECT_NE(r.out.find("kept 1 points, removed 2"), std::string::npos)
      << r.out << r.err;
  EXPECT_EQ(svc_.check_store(), "");
  r = restore({"--points"});
  EXPECT_NE(r.out.find("\n1 point\n"), std::string::npos) << r.out;
  r = restore({"--at", times[2], "--verify", dir() + "/v3", remote_of(src)});
  EXPECT_NE(r.out.find("no differences"), std::string::npos) << r.out;
  r = restore({"--at", times[0], "--list", remote_of(src)});
  EXPECT_EQ(r.exit_code, 3);
  EXPECT_NE(r.err.find("no restore point at or before"), std::string::npos);

  // A stored policy is applied by the server after each completed run.
  ASSERT_EQ(
      svc_.kfsd({"user", "set", svc_.data, "--id", "7", "--keep-last", "2"})
          .exit_code,
      0);
  for (int run = 0; run < 2; ++run) {
    backup_service::next_second();
    back_up(src);
  }
  EXPECT_NE(restore({"--points"}).out.find("\n2 points\n"), std::string::npos);
  EXPECT_EQ(svc_.check_store(), "");

  // What an operator sees; then the user goes with everything stored.
  r = svc_.kfsd({"stats", svc_.data, "--json"});
  EXPECT_NE(r.out.find("{\"users\": 1, \"files\": 25, "), std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("\"points\": 2, "), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"last_runs\": [{\"user\": 7, \"job\": \"rt\""),
            std::string::npos)
      << r.out;
  EXPECT_EQ(svc_.kfsd({"user", "remove", svc_.data, "--id", "7"}).exit_code, 0);
  EXPECT_EQ(svc_.check_store(), "");
  r = svc_.kfsd({"stats", svc_.data, "--json"});
  EXPECT_NE(r.out.find("{\"users\": 0, \"files\": 0, \"versions\": 0, "
                       "\"points\": 0, \"stored_bytes\": 0, "),
            std::string::npos)
      << r.out;
}

TEST_F(RoundTrip, BackupCutOffInTheMiddleOfAFileRestoresExactly) {
  start();
  fault_proxy proxy;
  ASSERT_TRUE(proxy.start(svc_.server.port()));
  svc_.point_agent_at(proxy.port());
  std::string src = dir() + "/src";
  make_dirs(src);
  std::mt19937 gen(8);
  write_file(src + "/big", content(gen, 150 * kBlock, false));
  write_file(src + "/small", "after the big one");
  // About half of the big file is on its way when the connection goes.
  proxy.drop_after_upstream_bytes(300000);
  EXPECT_NE(back_up(src).find("sent=2 failed=0"), std::string::npos);
  EXPECT_EQ(proxy.drops(), 1);
  // The client waited before it connected again (the test build only logs
  // the wait).
  EXPECT_NE(read_file(dir() + "/sleeps").find("30\n"), std::string::npos);

  run_result r = restore({remote_of(src), dir() + "/out"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(tree_differences(src, dir() + "/out/src"),
            std::vector<std::string>{});
}

TEST_F(RoundTrip, KeepsExistingFilesUnlessToldToReplaceThem) {
  start();
  std::string src = dir() + "/src";
  make_dirs(src);
  write_file(src + "/a", "from the backup");
  back_up(src);
  make_dirs(dir() + "/out/src");
  write_file(dir() + "/out/src/a", "local edit");

  run_result r = restore({remote_of(src), dir() + "/out"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(read_file(dir() + "/out/src/a"), "local edit");
  EXPECT_NE(r.out.find("kept 1 existing file "), std::string::npos) << r.out;

  r = restore({"--overwrite", remote_of(src), dir() + "/out"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(read_file(dir() + "/out/src/a"), "from the backup");
  // One file alone lands in the folder under its own name.
  r = restore({remote_of(src) + "/a", dir() + "/single"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(read_file(dir() + "/single/a"), "from the backup");
  // Nothing but the restored files is left behind.
  EXPECT_EQ(tree_differences(dir() + "/out/src", dir() + "/single"),
            std::vector<std::string>{});
}

TEST_F(RoundTrip, ListsTheRemoteTree) {
  start();
  std::string src = dir() + "/src";
  make_dirs(src + "/sub");
  write_file(src + "/sub/f", std::string(5000, 'x'));
  set_time(src + "/sub/f", 1000000000);
  back_up(src);
  run_result r = restore({"--list", remote_of(src)});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("  sub/\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(" 5000  sub/f\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("1 file (5000 bytes), 1 folder\n"), std::string::npos);
}

// The service's digest of the key is changed behind its back: the login
// passes, but the stored blocks were made with the old key.
void replace_key_digest(const std::string& db_path, const uint8_t key[32]) {
  uint8_t digest[20];
  unsigned int n = 0;
  EVP_Digest(key, 32, digest, &n, EVP_sha1(), nullptr);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(db_path.c_str(), &db), SQLITE_OK);
  sqlite3_stmt* st = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db, "UPDATE users SET key_sha1 = ? WHERE id = 7",
                               -1, &st, nullptr),
            SQLITE_OK);
  sqlite3_bind_blob(st, 1, digest, sizeof digest, SQLITE_TRANSIENT);
  EXPECT_EQ(sqlite3_step(st), SQLITE_DONE);
  sqlite3_finalize(st);
  sqlite3_close(db);
}

TEST_F(RoundTrip, SaysWhyNothingCanBeRestored) {
  start();
  std::string src = dir() + "/src";
  make_dirs(src);
  write_file(src + "/a", "secret");
  back_up(src);
  const uint8_t other[32] = {1};
  write_key_file(dir() + "/other.key", other);
  write_file(dir() + "/bad.key", "not a key\n");

  struct failure {
    const char* name;
    std::vector<std::string> args;
    std::string key_file;
    const char* says;
  };
  const failure cases[] = {
      {"key of another account",
       {remote_of(src), "out"},
       "other.key",
       "the service refused user 7"},
      {"not a key file",
       {remote_of(src), "out"},
       "bad.key",
       "is not a key file"},
      {"missing remote path",
       {"/7/Today/nothing", "out"},
       "",
       "remote path not found: /7/Today/nothing"},
  };
  for (const failure& c : cases) {
    SCOPED_TRACE(c.name);
    run_result r = restore(c.args, c.key_file);
    EXPECT_EQ(r.exit_code, 3);
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
  }

  replace_key_digest(svc_.data + "/kfsd.db", other);
  run_result r = restore({remote_of(src), "out"}, "other.key");
  EXPECT_EQ(r.exit_code, 3);
  EXPECT_NE(r.err.find("does not fit this backup"), std::string::npos) << r.err;
  EXPECT_FALSE(path_exists("out/src/a"));

  svc_.server.stop();
  r = restore({remote_of(src), "out"});
  EXPECT_EQ(r.exit_code, 3);
  EXPECT_NE(r.err.find("no server in"), std::string::npos) << r.err;
}

TEST_F(RoundTrip, AFolderOfTheLayoutBeforePacksIsUpgradedInPlace) {
  // Written by the kfsd before packs: its streams are files of their own.
  svc_.dir = dir();
  svc_.data = dir() + "/old";
  ASSERT_EQ(system(("cp -r " KFSD_1_FOLDER " " + svc_.data).c_str()), 0);
  ASSERT_TRUE(svc_.server.start(svc_.data));
  svc_.point_restore_at(svc_.server.port());
  run_result r = restore({"/7/Today/tmp/kfsd-1-fixture/src", dir() + "/back"},
                         svc_.data + "/keys/7.key");
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

// kfsd check reads every stream where it lies: a changed byte or a cut in
// a pack, or in a stream file of the older layout, is reported.
TEST_F(RoundTrip, CheckFindsDamagedStreams) {
  start();
  make_tree(dir() + "/src", {"small", 5, 2, 8, 3 * kBlock});
  back_up(dir() + "/src");
  std::string pack = svc_.data + "/packs/00000001.pack";
  std::string loose = dir() +
                      "/old/blocks/0e/"
                      "0e8ba705a2b13a59c6453687b021e83523901c3684772804051562"
                      "432f6f1073";
  ASSERT_EQ(system(("cp -r " KFSD_1_FOLDER " " + dir() + "/old").c_str()), 0);
  const struct {
    const char* name;
    std::string data, file;
    bool cut;
  } damages[] = {{"a byte of a pack", svc_.data, pack, false},
                 {"the end of a pack", svc_.data, pack, true},
                 {"a stream file of its own", dir() + "/old", loose, false}};
  for (const auto& d : damages) {
    SCOPED_TRACE(d.name);
    svc_.data = d.data;
    ASSERT_EQ(svc_.check_store(), "");
    std::string bytes = read_file(d.file);
    ASSERT_FALSE(bytes.empty());
    std::string damaged = bytes;
    if (d.cut) {
      damaged.resize(bytes.size() - 1);
    } else {
      damaged[bytes.size() / 2] ^= 0x20;
    }
    write_file(d.file, damaged);
    EXPECT_NE(svc_.check_store().find("stream "), std::string::npos);
    write_file(d.file, bytes);
  }
}

TEST_F(RoundTrip, UsageErrors) {
  const std::vector<std::string> cases[] = {
      {},
      {"--hosts", "h", "--key", "k", "/7/a", "out"},
      {"--hosts", "h", "--key", "k", "--user", "x7", "/7/a", "out"},
      {"--hosts", "h", "--key", "k", "--user", "7", "/7/a"},
      {"--hosts", "h", "--key", "k", "--user", "7", "relative", "out"},
      {"--hosts", "h", "--key", "k", "--user", "7", "--list", "--verify", "t",
       "/7/a"},
      {"--hosts", "h", "--key", "k", "--user", "7", "--bogus", "/7/a", "o"},
  };
  for (const auto& args : cases) {
    std::vector<std::string> argv = {"kovrarestore"};
    argv.insert(argv.end(), args.begin(), args.end());
    run_result r = run_program(RESTORE_TOOL, argv);
    EXPECT_EQ(r.exit_code, 2) << testing::PrintToString(args);
    EXPECT_NE(r.err.find("usage: kovrarestore"), std::string::npos);
  }
}

}  // namespace
