// Crashes at random moments: the agent or kfsd is killed with SIGKILL in
// the middle of a run, many times over (fixed seeds). After each, the next
// clean run completes, a restore is byte-identical (so the index never
// called a file unchanged that the server did not hold complete), and the
// store checks clean.
#include <signal.h>
#include <sys/wait.h>
#include <time.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/backup_service.h"
#include "tests/support/fault_proxy.h"
#include "tests/support/test_support.h"

namespace {

constexpr uint32_t kBlock = 4096;
constexpr int kFiles = 40;

void pause_us(long us) {
  struct timespec ts = {us / 1000000, (us % 1000000) * 1000};
  while (nanosleep(&ts, &ts) != 0) {
  }
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> out;
  for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos;
       at = end + 1) {
    out.push_back(text.substr(at, end - at));
  }
  return out;
}

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
    ASSERT_TRUE(proxy_.start(svc_.server.port()));
    svc_.point_agent_at(proxy_.port());
    ASSERT_NE(svc_.back_up(src_).find("failed=0"), std::string::npos);
    first_run_requests_ = proxy_.requests();
  }

  // Starts the agent and kills it once the proxy has seen a random number
  // of its requests (the moment it is caught differs every time: sending,
  // waiting, reading files, writing its index), a little later still, at
  // random. True when the kill came before the run ended.
  bool run_and_kill() {
    uint64_t at = gen_() % (first_run_requests_ / 2 + 1);
    proxy_.arm(fault_kind::none, 0);  // counts this run's requests from 0
    started_program agent = start_program(
        svc_.agent_argv()[0], svc_.agent_argv(), svc_.agent_options());
    wait_for_requests(agent, at);
    pause_us(static_cast<long>(gen_() % 3000));
    kill(agent.pid, SIGKILL);
    return finish_program(&agent).exit_code == -1;
  }

  // Until the proxy has seen `at` requests of this run, or the agent ended.
  void wait_for_requests(const started_program& agent, uint64_t at) {
    for (;;) {
      siginfo_t info = {};
      // WNOWAIT: finish_program still reaps it.
      waitid(P_PID, static_cast<id_t>(agent.pid), &info,
             WEXITED | WNOHANG | WNOWAIT);
      if (proxy_.requests() >= at || info.si_pid != 0) {
        return;
      }
      pause_us(100);
    }
  }

  // A new content, size and time for file i: up to 12 blocks, half of the
  // files text-like.
  void rewrite(int i) {
    std::string path = src_ +
                       (i % 3 == 0   ? "/a/b/f"
                        : i % 3 == 1 ? "/a/f"
                                     : "/f") +
                       std::to_string(i);
    size_t size = gen_() % (12 * kBlock);
    std::string data(size, '\0');
    for (size_t k = 0; k < size; ++k) {
      data[k] = i % 2 == 0 ? static_cast<char>('a' + (k / 7 + gen_()) % 4)
                           : static_cast<char>(gen_());
    }
    write_file(path, data);
  }

  // A third of the files change before each crashed run, so it has work to
  // be caught in.
  void change_some() {
    for (int i = 0; i < kFiles / 3; ++i) {
      rewrite(static_cast<int>(gen_() % kFiles));
    }
  }

  // The next clean run, the restore and the store check: "" when all hold.
  std::string recovery_problems() {
    backup_service::next_second();
    std::string report = svc_.back_up(src_);
    std::string problems;
    if (report.find("failed=0") == std::string::npos) {
      problems += "next run: " + report + "\n";
    }
    return problems + svc_.verify(src_) + svc_.check_store();
  }

  std::mt19937_64 gen_{20261121};
  std::string src_;
  backup_service svc_;
  fault_proxy proxy_;  // counts requests; arms no fault
  uint64_t first_run_requests_ = 0;
};

TEST_F(Crash, AgentKilledAtRandomMomentsLosesNothing) {
  int killed = 0;
  for (int trial = 0; killed < 50 && trial < 100; ++trial) {
    SCOPED_TRACE("trial " + std::to_string(trial));
    change_some();
    killed += run_and_kill();
    ASSERT_EQ(recovery_problems(), "");
  }
  EXPECT_GE(killed, 50) << "runs ended before the kill too often";
}

TEST_F(Crash, ServerKilledAndRestartedMidRunLosesNothing) {
  std::vector<std::string> serve = {
      "--block-size", std::to_string(kBlock), "--listen",
      "127.0.0.1:" + std::to_string(svc_.server.port())};
  for (int trial = 0; trial < 20; ++trial) {
    SCOPED_TRACE("trial " + std::to_string(trial));
    change_some();
    uint64_t at = gen_() % (first_run_requests_ / 2 + 1);
    proxy_.arm(fault_kind::none, 0);
    started_program agent = start_program(
        svc_.agent_argv()[0], svc_.agent_argv(), svc_.agent_options());
    wait_for_requests(agent, at);
    kill(svc_.server.pid(), SIGKILL);
    svc_.server.stop();
    ASSERT_TRUE(svc_.server.start(svc_.data, serve));  // the proxy's target
    EXPECT_EQ(finish_program(&agent).exit_code, 0);
    ASSERT_EQ(recovery_problems(), "");
  }
}

// Retention run by hand while the server is down (so the prune rewrites
// packs too), killed at a random moment: each time, after a restart, the
// store checks clean and every point that is left verifies against the
// tree its run saw.
TEST_F(Crash, PruneKilledAtRandomMomentsKeepsEveryPointWhole) {
  std::vector<std::string> serve = {
      "--block-size", std::to_string(kBlock), "--listen",
      "127.0.0.1:" + std::to_string(svc_.server.port())};
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
    // --points prints a line per point, oldest first, then a count.
    std::vector<std::string> lines = lines_of(svc_.restore({"--points"}).out);
    ASSERT_GE(lines.size(), 2u);
    trees[lines[lines.size() - 2].substr(0, 19)] = copy;

    svc_.server.stop();
    started_program prune = start_program(
        KFSD_PATH, {"kfsd", "prune", svc_.data, "--user", "7", "--keep-last",
                    "3"});
    pause_us(static_cast<long>(gen_() % 40000));
    kill(prune.pid, SIGKILL);
    finish_program(&prune);
    ASSERT_TRUE(svc_.server.start(svc_.data, serve));
    ASSERT_EQ(svc_.check_store(), "");
    lines = lines_of(svc_.restore({"--points"}).out);
    for (size_t i = 0; i + 1 < lines.size(); ++i) {
      std::string time = lines[i].substr(0, 19);
      ASSERT_EQ(trees.count(time), 1u) << lines[i];
      run_result r = svc_.restore(
          {"--at", time, "--verify", trees[time], "/7/Today" + src_});
      EXPECT_NE(r.out.find("no differences"), std::string::npos)
          << time << "\n" << r.out << r.err;
    }
  }
}

}  // namespace
