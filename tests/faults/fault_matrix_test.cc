// The network between the agent and kfsd fails at every request of a small
// job in turn: the request is lost, its answer is lost, or it is cut in
// half. Each time the job ends cleanly (its report mailed, or kept on the
// box when the report's own request was hit, or a failure report written),
// the server's store stays consistent, and the next clean run completes and
// restores byte-identical.
#include <map>

#include "tests/support/backup_service.h"
#include "tests/support/fault_proxy.h"

namespace {

constexpr uint32_t kBlock = 4096;

class FaultMatrix : public TempDirTest {
 protected:
  // A small job with every kind of file: empty, one block, several blocks,
  // and one in a folder below.
  void SetUp() override {
    TempDirTest::SetUp();
    src_ = dir() + "/src";
    make_dirs(src_ + "/sub");
    write_file(src_ + "/empty", "");
    write_file(src_ + "/one", "a single block");
    std::mt19937 gen(7);
    std::string big = make_content(gen, 3 * kBlock + 10, false);
    write_file(src_ + "/big", big);
    write_file(src_ + "/sub/two", big.substr(0, 2 * kBlock));
  }

  // A fresh server and root, the fault armed, the job run through the
  // proxy; then the checks. The outcome ("report", "report kept" when its
  // delivery failed, "failure report"), then any problems.
  std::string run(int n, fault_kind kind, uint64_t request) {
    std::string where = dir() + "/t" + std::to_string(n);
    make_dirs(where);
    backup_service svc;
    fault_proxy proxy;
    if (!svc.start(where, kBlock) || !proxy.start(svc.server.port())) {
      return "no service";
    }
    svc.point_at(proxy.port());
    proxy.arm(kind, request, 300);
    std::string report = svc.back_up(src_);
    requests_ = proxy.requests();
    EXPECT_EQ(proxy.drops(), kind == fault_kind::none ? 0 : 1);
    // The job's own copy of what it composed.
    std::string kept = read_file(svc.root + "/rt.job.eml");
    std::string outcome =
        report.starts_with("job=rt ")                    ? "report"
        : kept.find("\n\njob=rt ") != std::string::npos  ? "report kept"
        : kept.find("\n\nfailed: ") != std::string::npos ? "failure report"
                                                         : "no report: " + kept;
    outcome += "\n" + svc.check_store() + svc.catch_up(src_);
    svc.server.stop();
    remove_tree(where);
    return outcome;
  }

  std::string src_;
  uint64_t requests_ = 0;
};

TEST_F(FaultMatrix, EveryRequestOfAJobCanFail) {
  // A clean run counts the job's requests.
  ASSERT_EQ(run(0, fault_kind::none, 0), "report\n");
  uint64_t job_requests = requests_;
  ASSERT_GT(job_requests, 10u);
  int n = 1;
  std::map<std::string, int> outcomes;
  for (fault_kind kind : {fault_kind::drop_before, fault_kind::drop_after,
                          fault_kind::cut_inside}) {
    for (uint64_t request = 0; request < job_requests; ++request) {
      SCOPED_TRACE("fault " + std::to_string(static_cast<int>(kind)) +
                   " at request " + std::to_string(request));
      std::string outcome = run(n++, kind, request);
      EXPECT_TRUE(outcome == "report\n" || outcome == "report kept\n" ||
                  outcome == "failure report\n")
          << outcome;
      ++outcomes[outcome.substr(0, outcome.find('\n'))];
    }
  }
  // A stalled server only slows the job down.
  for (uint64_t request : {uint64_t{1}, job_requests / 2, job_requests - 1}) {
    SCOPED_TRACE("stall at request " + std::to_string(request));
    EXPECT_EQ(run(n++, fault_kind::stall, request), "report\n");
  }
  printf("%llu requests, 3 faults at each:",
         static_cast<unsigned long long>(job_requests));
  for (const auto& [outcome, count] : outcomes) {
    printf(" %s %d;", outcome.c_str(), count);
  }
  printf("\n");
}

}  // namespace
