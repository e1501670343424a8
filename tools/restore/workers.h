// tools/restore/workers.h: restoring with several processes. Many small
// files make a restore wait on the service's round trips, one file at a
// time; workers with a connection each keep the client's and the service's
// cores busy at once. Each is a forked copy of the restore, which takes
// every Nth file and reports its counts through a pipe.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <atomic>
#include <vector>

// What a worker has done: its progress so far and, in its last report, its
// results.
struct worker_tally {
  uint64_t files_done = 0;
  uint64_t bytes_done = 0;
  uint64_t files = 0;
  uint64_t bytes = 0;
  uint64_t kept = 0;
  uint64_t failed = 0;
  uint8_t wrong_key = 0;
  uint8_t last = 0;  // the final report
};

class worker_pool {
 public:
  worker_pool() = default;
  worker_pool(const worker_pool&) = delete;
  worker_pool& operator=(const worker_pool&) = delete;
  ~worker_pool();

  // Forks count - 1 workers, which with the parent then take the items
  // from first on (take()). Returns this process's number: 0 in the
  // parent, 1 to count - 1 in a worker. Fewer may start than asked for
  // (none when the shared counter cannot be made): the others take more.
  int start(int count, size_t first);
  // The next item for this process; every item goes to one process.
  size_t take();

  // In a worker: reports its tally (at most every few hundred ms unless
  // it is the last).
  void report(const worker_tally& tally);

  // In the parent: takes in the workers' reports, waiting for every last
  // one when wait is set. sum is the total of their latest tallies; false
  // when a worker ended without its last report.
  bool collect(bool wait, worker_tally* sum);

 private:
  struct worker {
    pid_t pid = -1;
    int fd = -1;  // the read end of its pipe
    worker_tally latest;
    bool ended = false;
  };
  std::vector<worker> workers_;
  std::atomic<size_t>* next_ = nullptr;  // shared by every process
  size_t local_next_ = 0;                // without workers
  int out_ = -1;                 // in a worker: the write end of its pipe
  uint64_t last_report_ms_ = 0;  // a worker's last report, the parent's look
  worker_tally sum_;             // in the parent: the last look's
};
