// The network between the agent and kfsd fails at every request of a small
// job in turn: the request is lost, its answer is lost, or it is cut in
// half. Each time the job ends cleanly (its report mailed, or kept on the
// box when the report's own request was hit, or a failure report written),
// the server's store stays consistent, and the next clean run completes and
// restores byte-identical.
#include <sys/stat.h>

#include <map>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/backup_service.h"
#include "tests/support/fault_proxy.h"
#include "tests/support/test_support.h"

namespace {

constexpr uint32_t kBlock = 4096;

// A small job with every kind of file: empty, one block, several blocks, and
// one in a folder below.
void make_source(const std::string& src) {
  make_dirs(src + "/sub");
  write_file(src + "/empty", "");
  write_file(src + "/one", "a single block");
  std::string big;
  for (uint32_t i = 0; i < 3 * kBlock + 10; ++i) {
    big += static_cast<char>(i * 7 + i / 251);
  }
  write_file(src + "/big", big);
  write_file(src + "/sub/two", big.substr(0, 2 * kBlock));
}

struct trial {
  std::string outcome;   // "report", "failure report" or what went wrong
  std::string problems;  // store check, next run, restore
};

class FaultMatrix : public TempDirTest {
 protected:
  // A fresh server and root, the fault armed, the job run through the
  // proxy; then the checks.
  trial run(int n, fault_kind kind, uint64_t request) {
    std::string where = dir() + "/t" + std::to_string(n);
    make_dirs(where);
    backup_service svc;
    trial t;
    if (!svc.start(where, kBlock)) {
      t.outcome = "kfsd did not start";
      return t;
    }
    fault_proxy proxy;
    EXPECT_TRUE(proxy.start(svc.server.port()));
    svc.point_agent_at(proxy.port());
    proxy.arm(kind, request, 300);
    std::string report = svc.back_up(src_);
    requests_ = proxy.requests();
    EXPECT_EQ(proxy.drops(), kind == fault_kind::none ? 0 : 1);
    // The job's own copy of what it composed: a report whose delivery
    // failed (its request or answer lost) is still there.
    std::string kept = read_file(svc.root + "/rt.job.eml");
    if (report.find("sent=") == 0) {
      t.outcome = "report";
    } else if (kept.find("\n\nsent=") != std::string::npos) {
      t.outcome = "report kept";
    } else if (kept.find("\n\nfailed: ") != std::string::npos) {
      t.outcome = "failure report";
    } else {
      t.outcome = "no report: " + kept;
    }
    t.problems += svc.check_store();
    backup_service::next_second();
    std::string next = svc.back_up(src_);
    if (next.find("failed=0") == std::string::npos) {
      t.problems += "next run: " + next + "\n";
    }
    t.problems += svc.verify(src_) + svc.check_store();
    return t;
  }

  void SetUp() override {
    TempDirTest::SetUp();
    src_ = dir() + "/src";
    make_source(src_);
  }

  std::string src_;
  uint64_t requests_ = 0;
};

TEST_F(FaultMatrix, EveryRequestOfAJobCanFail) {
  // A clean run counts the job's requests.
  trial clean = run(0, fault_kind::none, 0);
  ASSERT_EQ(clean.outcome, "report");
  ASSERT_EQ(clean.problems, "");
  uint64_t job_requests = requests_;
  ASSERT_GT(job_requests, 10u);

  const fault_kind kinds[] = {fault_kind::drop_before, fault_kind::drop_after,
                              fault_kind::cut_inside};
  int n = 1;
  std::map<std::string, int> outcomes;
  for (fault_kind kind : kinds) {
    for (uint64_t request = 0; request < job_requests; ++request, ++n) {
      SCOPED_TRACE("fault " + std::to_string(static_cast<int>(kind)) +
                   " at request " + std::to_string(request));
      trial t = run(n, kind, request);
      EXPECT_TRUE(t.outcome == "report" || t.outcome == "report kept" ||
                  t.outcome == "failure report")
          << t.outcome;
      EXPECT_EQ(t.problems, "");
      ++outcomes[t.outcome];
      remove_tree(dir() + "/t" + std::to_string(n));
    }
  }
  // A stalled server only slows the job down.
  for (uint64_t request : {uint64_t{1}, job_requests / 2, job_requests - 1}) {
    SCOPED_TRACE("stall at request " + std::to_string(request));
    trial t = run(n++, fault_kind::stall, request);
    EXPECT_EQ(t.outcome, "report");
    EXPECT_EQ(t.problems, "");
  }
  printf("%llu requests, 3 faults at each:",
         static_cast<unsigned long long>(job_requests));
  for (const auto& [outcome, count] : outcomes) {
    printf(" %s %d;", outcome.c_str(), count);
  }
  printf("\n");
}

}  // namespace
