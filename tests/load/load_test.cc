// One kfsd under ten agents at once, each a separate process in an install
// root of its own: eight users with one agent each, and a ninth user with
// two agents whose runs contend for that user's lock. Every run completes,
// or loses the lock the way a run does; everything sent comes back intact.
// (bench/load_bench measures the server's memory under load.)
#include <sqlite3.h>
#include <stdlib.h>

#include <map>

#include "tests/support/backup_service.h"

namespace {

// 64 KiB blocks make the larger files several blocks long: many block
// requests and many store transactions per file.
constexpr uint32_t kBlock = 64 * 1024;
constexpr int kFiles = 240;  // per tree, the common files included
constexpr int kCommonFiles = 4;
constexpr uint32_t kSharedUser = 109;
// The first and last id the service gave to uploads below a remote folder.
// Ids count up over all uploads, so two runs that held the user's lock one
// after the other have ranges that do not overlap.
std::pair<int64_t, int64_t> upload_ids(const std::string& db_path,
                                       const std::string& remote) {
  sqlite3* db = nullptr;
  std::pair<int64_t, int64_t> ids = {-1, -1};
  // '0' follows '/': the range holds exactly the paths below remote.
  std::string sql = "SELECT MIN(id), MAX(id) FROM versions WHERE path > '" +
                    remote + "/' AND path < '" + remote + "0'";
  sqlite3_open_v2(db_path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
  sqlite3_exec(
      db, sql.c_str(),
      [](void* out, int, char** row, char**) {
        if (row[0] != nullptr) {
          *static_cast<std::pair<int64_t, int64_t>*>(out) = {atoll(row[0]),
                                                             atoll(row[1])};
        }
        return 0;
      },
      &ids, nullptr);
  sqlite3_close(db);
  EXPECT_NE(ids.first, -1) << "no uploads below " << remote;
  return ids;
}

struct agent : agent_root {
  std::string src;
  started_program proc;
};

class Load : public TempDirTest {};

TEST_F(Load, TenAgentsAtOnceLoseNothing) {
  std::string data = dir() + "/data";
  kfsd_init(data);
  std::vector<agent> agents(10);
  for (uint32_t i = 0; i < 10; ++i) {
    // The last two, shared-a and shared-b, share one account.
    agent& a = agents[i];
    std::string name = i < 8 ? "user" + std::to_string(101 + i)
                             : std::string(i == 8 ? "shared-a" : "shared-b");
    a.lay_out(dir() + "/" + name, 101 + std::min(i, 8u), name);
    a.src = dir() + "/src-" + name;
    a.write_job(a.src);
    if (i < 9) {
      kfsd_add_user(data, a.user, name, a.root + "/etc/account.key");
    }
    // Mostly small files, some of a few blocks; the common-* files hold the
    // same bytes in every tree, so the pair's trees share stored blocks.
    make_tree(a.src, i < 8 ? a.user : i - 7, 12, kFiles - kCommonFiles, 16384,
              kBlock);
    std::mt19937 common(77);
    for (int n = 0; n < kCommonFiles; ++n) {
      write_file(a.src + "/common-" + std::to_string(n),
                 make_content(common, 3 * kBlock + 1000 * n, n % 2 == 0));
    }
  }
  kfsd_process server;
  ASSERT_TRUE(server.start(data, {"--block-size", std::to_string(kBlock)}));
  for (agent& a : agents) {
    a.point_at(server.port());
    a.proc = a.start_agent();
  }
  for (agent& a : agents) {
    run_result r = finish_program(&a.proc);
    EXPECT_EQ(r.exit_code, 0) << a.job << ": " << r.err;
    EXPECT_EQ(r.out, "") << a.job;
  }

  // The report each job mailed, by job name; a second one fails the test.
  auto reports = [&data] {
    std::map<std::string, std::string> by_job;
    for (const std::string& text : kfsd_messages(data)) {
      std::string job = text.substr(4, text.find(' ') - 4);
      EXPECT_EQ(by_job.count(job), 0u) << "a second report of " << job;
      by_job[job] = text;
    }
    return by_job;
  };
  const std::string n = std::to_string(kFiles);
  const std::string complete =
      " requested=" + n + " sent=" + n + " same=0 failed=0\n - None!\n";
  std::string waits;
  for (int i = 0; i < 12; ++i) {
    waits += "5\n";
  }
  auto sleeps_of = [](const agent& a) -> std::string {
    return path_exists(a.root + "/sleeps") ? read_file(a.root + "/sleeps") : "";
  };
  std::map<std::string, std::string> mailed = reports();
  std::vector<agent*> lost;
  for (agent& a : agents) {
    SCOPED_TRACE(a.job);
    std::string sleeps = sleeps_of(a);
    if (mailed.count(a.job) != 0) {
      EXPECT_EQ(mailed[a.job], "job=" + a.job + complete);
      // Only a run of the pair waits, and only for the lock the other
      // run held: no reconnection, no re-lock.
      EXPECT_EQ(sleeps,
                a.user == kSharedUser ? waits.substr(0, sleeps.size()) : "");
      EXPECT_LT(sleeps.size(), waits.size());
      continue;
    }
    lost.push_back(&a);
    EXPECT_EQ(a.user, kSharedUser) << "only the pair contends for a lock";
    EXPECT_EQ(sleeps, waits);
    std::string eml = read_file(a.root + "/" + a.job + ".job.eml");
    EXPECT_NE(eml.find("failed: Access Denied\n"), std::string::npos) << eml;
    EXPECT_FALSE(path_exists(a.root + "/etc/" + a.job + ".job.ts"));
  }
  // Both of the pair complete only when one ran after the other.
  EXPECT_LE(lost.size(), 1u);

  for (agent* a : lost) {
    // It sent nothing before it gave up; alone, it completes, at once.
    run_result r = run_program(
        RESTORE_TOOL, a->restore_argv({"--list", a->remote_of(a->src)}));
    EXPECT_EQ(r.exit_code, 3);
    EXPECT_NE(r.err.find("remote path not found"), std::string::npos) << r.err;
    unlink((a->root + "/sleeps").c_str());
    a->proc = a->start_agent();
    EXPECT_EQ(finish_program(&a->proc).exit_code, 0);
    EXPECT_EQ(reports()[a->job], "job=" + a->job + complete);
    EXPECT_EQ(sleeps_of(*a), "");
  }

  // Nothing lost: every tree against what the service holds, the ten
  // readers at once.
  for (agent& a : agents) {
    a.proc = start_program(
        RESTORE_TOOL, a.restore_argv({"--verify", a.src, a.remote_of(a.src)}));
  }
  for (agent& a : agents) {
    run_result r = finish_program(&a.proc);
    EXPECT_EQ(r.exit_code, 0) << a.job << ":\n" << r.out << r.err;
    std::string all = "Compared " + std::to_string(kFiles) + " files ";
    EXPECT_NE(r.out.find(all), std::string::npos) << a.job << ": " << r.out;
  }

  // The store is consistent, and the pair's runs never held the lock at
  // once, whoever won.
  server.stop();
  run_result check = run_program(KFSD_PATH, {"kfsd", "check", data});
  EXPECT_EQ(check.exit_code, 0) << check.err;
  auto a = upload_ids(data + "/kfsd.db", agents[8].remote_of(agents[8].src));
  auto b = upload_ids(data + "/kfsd.db", agents[9].remote_of(agents[9].src));
  EXPECT_TRUE(a.second < b.first || b.second < a.first)
      << "uploads " << a.first << ".." << a.second << " and " << b.first << ".."
      << b.second << " overlap";
}

}  // namespace
