// Crashes at random moments: the agent, kfsd or a prune is killed with
// SIGKILL in the middle of its work, many times over (fixed seeds). After
// each, the next clean run completes, a restore is byte-identical (so the
// index never called a file unchanged that the server did not hold
// complete), and the store checks clean.
#include <signal.h>

#include <map>

#include "tests/support/backup_service.h"
#include "tests/support/fault_proxy.h"

namespace {

constexpr uint32_t kBlock = 4096;
constexpr int kFiles = 40;

class Crash : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    src_ = dir() + "/src";
    make_dirs(src_ + "/a/b");
    for (int i = 0; i < kFiles; ++i) {
      rewrite(i);
    }
    ASSERT_TRUE(svc_.start(dir(), kBlock));
    ASSERT_TRUE(proxy_.start(svc_.server.port()));  // counts requests only
    svc_.point_at(proxy_.port());
    ASSERT_NE(svc_.back_up(src_).find("failed=0"), std::string::npos);
    first_run_requests_ = proxy_.requests();
    serve_ = {"--block-size", std::to_string(kBlock), "--listen",
              "127.0.0.1:" + std::to_string(svc_.server.port())};
  }

  // A third of the files get a new content, size and time (up to 12
  // blocks, half of them text-like), so the next run has work to be caught
  // in.
  void change_some() {
    for (int n = 0; n < kFiles / 3; ++n) {
      rewrite(static_cast<int>(gen_() % kFiles));
    }
  }

  // Starts the agent and returns once the proxy has seen a random number
  // of its requests, or it ended.
  started_program start_and_wait() {
    uint64_t at = gen_() % (first_run_requests_ / 2 + 1);
    proxy_.arm(fault_kind::none, 0);  // counts this run's requests from 0
    started_program agent = svc_.start_agent();
    while (proxy_.requests() < at && !has_ended(agent)) {
      pause_ms(1);
    }
    return agent;
  }

  void rewrite(int i) {
    const char* folders[] = {"/a/b/f", "/a/f", "/f"};
    write_file(src_ + folders[i % 3] + std::to_string(i),
               make_content(gen_, gen_() % (12 * kBlock), i % 2 == 0));
  }

  std::mt19937 gen_{20261121};
  std::string src_;
  backup_service svc_;
  fault_proxy proxy_;
  uint64_t first_run_requests_ = 0;
  std::vector<std::string> serve_;  // kfsd's arguments for its old port
};

TEST_F(Crash, AgentKilledAtRandomMomentsLosesNothing) {
  int killed = 0;
  for (int trial = 0; killed < 50 && trial < 100; ++trial) {
    SCOPED_TRACE("trial " + std::to_string(trial));
    change_some();
    started_program agent = start_and_wait();
    // Caught sending, waiting, reading files or writing its index.
    pause_ms(static_cast<long>(gen_() % 3));
    kill(agent.pid, SIGKILL);
    killed += finish_program(&agent).exit_code == -1;
    ASSERT_EQ(svc_.catch_up(src_), "");
  }
  EXPECT_GE(killed, 50) << "runs ended before the kill too often";
}

TEST_F(Crash, ServerKilledAndRestartedMidRunLosesNothing) {
  for (int trial = 0; trial < 20; ++trial) {
    SCOPED_TRACE("trial " + std::to_string(trial));
    change_some();
    started_program agent = start_and_wait();
    kill(svc_.server.pid(), SIGKILL);
    svc_.server.stop();
    ASSERT_TRUE(svc_.server.start(svc_.data, serve_));  // the proxy's target
    EXPECT_EQ(finish_program(&agent).exit_code, 0);
    ASSERT_EQ(svc_.catch_up(src_), "");
  }
}

// Retention run by hand while the server is down (so the prune rewrites
// packs too), killed at a random moment: each time, after a restart, the
// store checks clean and every point that is left verifies against the
// tree its run saw.
TEST_F(Crash, PruneKilledAtRandomMomentsKeepsEveryPointWhole) {
  std::map<std::string, std::string> trees;  // point time -> its tree
  for (int trial = 0; trial < 8; ++trial) {
    SCOPED_TRACE("trial " + std::to_string(trial));
    if (trial > 0) {  // the first point is the set-up's run
      change_some();
      backup_service::next_second();
      ASSERT_NE(svc_.back_up(src_).find("failed=0"), std::string::npos);
    }
    std::string copy = dir() + "/tree" + std::to_string(trial);
    ASSERT_EQ(system(("cp -a " + src_ + " " + copy).c_str()), 0);
    std::vector<std::string> times = svc_.point_times();
    ASSERT_FALSE(times.empty());
    trees[times.back()] = copy;

    svc_.server.stop();
    started_program prune = start_program(
        KFSD_PATH,
        {"kfsd", "prune", svc_.data, "--user", "7", "--keep-last", "3"});
    pause_ms(static_cast<long>(gen_() % 40));
    kill(prune.pid, SIGKILL);
    finish_program(&prune);
    ASSERT_TRUE(svc_.server.start(svc_.data, serve_));
    ASSERT_EQ(svc_.check_store(), "");
    for (const std::string& time : svc_.point_times()) {
      ASSERT_EQ(trees.count(time), 1u) << time;
      run_result r = svc_.restore(
          {"--at", time, "--verify", trees[time], svc_.remote_of(src_)});
      EXPECT_NE(r.out.find("no differences"), std::string::npos)
          << time << "\n"
          << r.out << r.err;
    }
  }
}

}  // namespace
