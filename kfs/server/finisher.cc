// Block ends and closes of uploads, finished off the request path.
#include <unistd.h>

#include <utility>

#include "kfs/server/kfsd_internal.h"

namespace {

// Enough to cover the flushes of a run of small files; each queued block
// end holds its stream file open.
constexpr size_t kMaxQueued = 32;

}  // namespace

uint32_t kfsd_finish(kfsd_server* server, kfsd_finish_job* job) {
  if (job->close) {
    kfsd_store_close_upload(&server->store, job->version);
    return 0;
  }
  // On disk before the database names it, so a crash cannot leave a block
  // that refers to missing bytes.
  bool flushed = !server->settings.sync || fdatasync(job->temp.get()) == 0;
  job->temp.reset();
  if (!flushed) {
    unlink(job->temp_path.c_str());
    return ERR_IO;
  }
  return kfsd_store_end_block(&server->store, job->version, job->index,
                              job->has_md5 ? job->md5 : nullptr, job->temp_path,
                              job->sha256_hex, job->length);
}

bool kfsd_finisher::start() {
  started_ = pthread_create(&thread_, nullptr, thread_main, this) == 0;
  return started_;
}

void* kfsd_finisher::thread_main(void* self) {
  static_cast<kfsd_finisher*>(self)->run();
  return nullptr;
}

kfsd_finisher::~kfsd_finisher() {
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

void kfsd_finisher::push(kfsd_finish_job job) {
  std::unique_lock<std::mutex> hold(mutex_);
  changed_.wait(hold, [this] { return queue_.size() < kMaxQueued; });
  queue_.push_back(std::move(job));
  changed_.notify_all();
}

void kfsd_finisher::drain() {
  std::unique_lock<std::mutex> hold(mutex_);
  changed_.wait(hold, [this] { return queue_.empty(); });
}

bool kfsd_finisher::pending_for(const std::string& path) {
  std::lock_guard<std::mutex> hold(mutex_);
  for (const kfsd_finish_job& job : queue_) {
    if (job.path == path) {
      return true;
    }
  }
  return false;
}

void kfsd_finisher::run() {
  std::unique_lock<std::mutex> hold(mutex_);
  for (;;) {
    changed_.wait(hold, [this] { return !queue_.empty() || stopping_; });
    if (queue_.empty()) {
      return;  // stopping, and everything is done
    }
    // The job stays at the front while it runs, so drain() and
    // pending_for() still see it.
    kfsd_finish_job& job = queue_.front();
    hold.unlock();
    uint32_t status = kfsd_finish(server_, &job);
    if (status != 0 && server_->settings.verbose) {
      // Only a block's end can fail; a close leaves an incomplete upload.
      kfsd_log("end of %s block %u -> %s (no reply)", job.path.c_str(),
               job.index, kfs_err_name(status));
    }
    hold.lock();
    queue_.pop_front();
    changed_.notify_all();
  }
}
