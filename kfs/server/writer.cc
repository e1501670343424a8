// The store's write jobs, run in batches off the request path.
#include <chrono>

#include "kfs/server/kfsd_internal.h"

namespace {

// Streams queued beyond this make a pusher wait (a single job is always
// taken, whatever its size).
constexpr size_t kMaxQueuedBytes = 64u << 20;
// Jobs in one batch at the most: one transaction, one flush.
constexpr size_t kMaxBatch = 4096;
// Unless someone waits for it, a batch gathers jobs this long (or until it
// has kFullBatch of them): a client that sends one small file at a time
// would otherwise cost a flush and a commit per file.
constexpr auto kGather = std::chrono::milliseconds(20);
constexpr size_t kFullBatch = 512;

bool concerns(const kfsd_write_job& job, const std::string& prefix) {
  return job.path.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

bool kfsd_writer::start() {
  started_ = pthread_create(&thread_, nullptr, thread_main, this) == 0;
  return started_;
}

// Runs the retention policies of the users whose runs ended in the batch:
// after their rows are stored, and one batch at a time, as rewriting packs
// requires.
void kfsd_writer::after_batch(const std::vector<kfsd_write_job*>& batch) {
  for (const kfsd_write_job* job : batch) {
    if (job->retention) {
      kfsd_apply_policy(&server_->store, *job->retention);
    }
  }
}

void* kfsd_writer::thread_main(void* self) {
  static_cast<kfsd_writer*>(self)->run();
  return nullptr;
}

kfsd_writer::~kfsd_writer() {
  if (!started_) {
    return;
  }
  {
    std::lock_guard<std::mutex> hold(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  pthread_join(thread_, nullptr);
}

void kfsd_writer::push(kfsd_write_job job) {
  if (!started_) {
    std::lock_guard<std::mutex> one(batch_mutex_);
    kfsd_store_write(&server_->store, server_->settings.sync, {&job});
    after_batch({&job});
    return;
  }
  std::unique_lock<std::mutex> hold(mutex_);
  changed_.wait(hold, [this] {
    return queue_.empty() || queued_bytes_ < kMaxQueuedBytes;
  });
  queued_bytes_ += job.data.size();
  queue_.push_back(std::move(job));
  // Only the writer waits for pushes, and only for these; a wake-up per
  // job cost more than the job.
  if (queue_.size() == 1 || queue_.size() >= kFullBatch ||
      queued_bytes_ >= kMaxQueuedBytes / 2) {
    changed_.notify_all();
  }
}

void kfsd_writer::drain(const std::string& prefix) {
  std::unique_lock<std::mutex> hold(mutex_);
  auto done = [&] {
    for (const kfsd_write_job& job : queue_) {
      if (concerns(job, prefix)) {
        return false;
      }
    }
    return true;
  };
  if (done()) {
    return;  // the usual case: nothing queued concerns the caller
  }
  ++waiting_;  // the next batch goes now, without gathering
  changed_.notify_all();
  changed_.wait(hold, done);
  --waiting_;
}

void kfsd_writer::run() {
  std::unique_lock<std::mutex> hold(mutex_);
  for (;;) {
    changed_.wait(hold, [this] { return !queue_.empty() || stopping_; });
    if (queue_.empty()) {
      return;  // stopping, and everything is done
    }
    changed_.wait_for(hold, kGather, [this] {
      return stopping_ || waiting_ > 0 || queue_.size() >= kFullBatch ||
             queued_bytes_ >= kMaxQueuedBytes / 2;
    });
    // The batch stays at the front of the queue while it runs, so drain()
    // still sees it; pushes go behind it (a deque keeps references to its
    // elements valid when it grows at the back).
    size_t n = std::min(queue_.size(), kMaxBatch);
    std::vector<kfsd_write_job*> batch;
    for (size_t i = 0; i < n; ++i) {
      batch.push_back(&queue_[i]);
    }
    hold.unlock();
    kfsd_store_write(&server_->store, server_->settings.sync, batch);
    after_batch(batch);
    hold.lock();
    for (size_t i = 0; i < n; ++i) {
      queued_bytes_ -= queue_.front().data.size();
      queue_.pop_front();
    }
    changed_.notify_all();
  }
}
