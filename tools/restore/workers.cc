#include "tools/restore/workers.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <new>

#include "lib/format.h"

namespace {

constexpr uint64_t kReportEveryMs = 200;

}  // namespace

worker_pool::~worker_pool() {
  if (next_ != nullptr) {
    munmap(next_, sizeof *next_);
  }
  for (worker& w : workers_) {
    if (w.fd >= 0) {
      close(w.fd);
    }
    if (w.pid > 0) {
      waitpid(w.pid, nullptr, 0);
    }
  }
}

int worker_pool::start(int count, size_t first) {
  local_next_ = first;
  void* shared = count > 1
                     ? mmap(nullptr, sizeof *next_, PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0)
                     : MAP_FAILED;
  if (shared == MAP_FAILED) {
    return 0;  // on alone
  }
  next_ = new (shared) std::atomic<size_t>(first);
  for (int n = 1; n < count; ++n) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      break;
    }
    pid_t pid = fork();
    if (pid == 0) {
      close(ends[0]);
      for (worker& w : workers_) {  // the earlier workers' pipes
        close(w.fd);
      }
      workers_.clear();
      out_ = ends[1];
      return n;
    }
    close(ends[1]);
    if (pid < 0) {
      close(ends[0]);
      break;
    }
    workers_.push_back({pid, ends[0], {}, false});
  }
  return 0;
}

size_t worker_pool::take() {
  return next_ != nullptr ? next_->fetch_add(1) : local_next_++;
}

void worker_pool::report(const worker_tally& tally) {
  uint64_t now = time_now_ms();
  if (out_ < 0 || (!tally.last && now - last_report_ms_ < kReportEveryMs)) {
    return;
  }
  last_report_ms_ = now;
  // One record in one write: a pipe keeps writes this small whole.
  ssize_t n;
  do {
    n = write(out_, &tally, sizeof tally);
  } while (n < 0 && errno == EINTR);
}

bool worker_pool::collect(bool wait, worker_tally* sum) {
  uint64_t now = time_now_ms();
  if (!wait && now - last_report_ms_ < kReportEveryMs) {
    *sum = sum_;  // a look per file would cost more than the file
    return true;
  }
  last_report_ms_ = now;
  bool whole = true;
  *sum = {};
  for (worker& w : workers_) {
    while (!w.ended) {
      if (!wait) {
        pollfd p = {w.fd, POLLIN, 0};
        if (poll(&p, 1, 0) <= 0) {
          break;
        }
      }
      worker_tally t;
      ssize_t n = read(w.fd, &t, sizeof t);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n != static_cast<ssize_t>(sizeof t)) {
        w.ended = true;  // the end of its pipe: it exited
        break;
      }
      w.latest = t;
    }
    if (w.ended && w.pid > 0) {
      waitpid(w.pid, nullptr, 0);
      w.pid = -1;
    }
    whole = whole && (!w.ended || w.latest.last);
    sum->files_done += w.latest.files_done;
    sum->bytes_done += w.latest.bytes_done;
    sum->files += w.latest.files;
    sum->bytes += w.latest.bytes;
    sum->kept += w.latest.kept;
    sum->failed += w.latest.failed;
    sum->wrong_key |= w.latest.wrong_key;
  }
  sum_ = *sum;
  return whole;
}
