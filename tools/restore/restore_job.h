// tools/restore/restore_job.h: one run of kovrarestore, as a restore, a
// verification or a listing. Its parts live in restore_job.cc (the
// session, the remote tree, fetching a file, reporting), restore_files.cc
// (writing files, with workers) and verify.cc (comparing with a local
// tree).
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <openssl/crypto.h>

#include "agent/account_key.h"
#include "kfs/client/kfs.h"
#include "lib/format.h"
#include "tools/restore/block_decoder.h"
#include "tools/restore/local_files.h"
#include "tools/restore/restore.h"
#include "tools/restore/workers.h"

// One file or folder below the remote path.
struct remote_entry {
  std::string rel;  // below the remote path; "" for the remote path itself
  bool is_dir = false;
  bool complete = true;  // the listing holds a complete copy of this state
  int64_t mtime = 0;
  uint64_t size = 0;
  uint32_t word = 0;  // the listing's attribute
};

enum class fetch_status { ok, failed, retry, wrong_key };

constexpr uint64_t kProgressEveryMs = 250;

// The progress line on a terminal: files and bytes done of the total.
class progress_line {
 public:
  void start(bool show, size_t files, uint64_t bytes) {
    show_ = show;
    files_total_ = files;
    bytes_total_ = bytes;
  }
  void add_bytes(int64_t n) {
    bytes_done_ = static_cast<uint64_t>(static_cast<int64_t>(bytes_done_) + n);
    draw(false);
  }
  void file_done() {
    ++files_done_;
    draw(false);
  }
  void end() {
    if (show_ && drawn_) {
      fprintf(stderr, "\r%*s\r", 60, "");
    }
  }
  // Output that must not land in the middle of the line.
  void clear() { end(); }
  // What other processes have done, counted in the line.
  void set_others(uint64_t files, uint64_t bytes) {
    others_files_ = files;
    others_bytes_ = bytes;
  }
  void hide() { show_ = false; }
  size_t files_done() const { return files_done_; }
  uint64_t bytes_done() const { return bytes_done_; }

 private:
  void draw(bool force) {
    if (!show_) {
      return;
    }
    uint64_t now = time_now_ms();
    if (!force && now - last_ms_ < kProgressEveryMs) {
      return;
    }
    last_ms_ = now;
    char done[32], total[32];
    format_size_short(static_cast<int64_t>(bytes_done_ + others_bytes_), done,
                      sizeof done);
    format_size_short(static_cast<int64_t>(bytes_total_), total, sizeof total);
    fprintf(stderr, "\r%zu of %zu files, %s of %s bytes   ",
            static_cast<size_t>(files_done_ + others_files_), files_total_,
            done, total);
    drawn_ = true;
  }

  bool show_ = false;
  bool drawn_ = false;
  size_t files_total_ = 0, files_done_ = 0;
  uint64_t bytes_total_ = 0, bytes_done_ = 0;
  uint64_t others_files_ = 0, others_bytes_ = 0;
  uint64_t last_ms_ = 0;
};

class restore_job {
 public:
  explicit restore_job(const restore_options& o) : o_(o) {
    kfs_session_init(&s_);
  }
  ~restore_job() {
    kfs_session_disconnect(&s_);
    OPENSSL_cleanse(key_, sizeof key_);
  }
  restore_job(const restore_job&) = delete;
  restore_job& operator=(const restore_job&) = delete;

  int run();

 private:
  // The session and the remote tree.
  int open_session();
  uint32_t list_folder(const std::string& path, const std::string& prefix,
                       std::vector<remote_entry>* out, bool deep);
  int load_tree();
  uint32_t list_folder_flat(const std::string& path,
                            std::vector<remote_entry>* out);
  std::string remote_path(const remote_entry& e) const;

  // Restore points.
  std::string user_root() const;
  uint32_t list_points(std::vector<remote_entry>* out);
  static std::string point_job(const remote_entry& e);
  int print_points();
  int resolve_at();

  // Fetching one file.
  fetch_status stream_file(const kfs_ropen_args& info, const block_sink& sink,
                           std::string* why);
  fetch_status block_failure(int code, uint32_t block, std::string* why);
  fetch_status open_remote(const remote_entry& e, kfs_ropen_args* info,
                           std::string* why);
  void wrong_key(const remote_entry& e, const std::string& why);
  void attempts(const remote_entry& e,
                const std::function<fetch_status(std::string*)>& attempt);

  // Restoring (restore_files.cc).
  int restore();
  bool reconnect_worker();
  worker_tally tally(bool last) const;
  [[noreturn]] void end_worker();
  void flush_restored();
  void restore_file(const remote_entry& e, const std::string& target);
  fetch_status try_restore(const remote_entry& e, const std::string& target,
                           uint64_t* written, std::string* why);
  bool finish_file(int fd, const kfs_ropen_args& info, local_writer& out,
                   std::string* why);
  static mode_t attr_mode(const kfs_ropen_args& info, mode_t fallback);

  // Verifying and listing.
  void verify();
  void verify_file(const remote_entry& e, const std::string& local,
                   const struct stat& st);
  fetch_status compare_file(const remote_entry& e, const std::string& local,
                            const struct stat& st, const kfs_ropen_args& info,
                            std::string* why);
  void local_extras(const std::string& dir, const std::string& prefix,
                    const std::set<std::string>& remote_names);
  void difference(const char* what, const remote_entry& e,
                  const std::string& detail);
  void list();

  // Reporting.
  void start_progress();
  void summary(double seconds);
  void report_failure(const std::string& path, const std::string& why);
  [[gnu::format(printf, 2, 3)]] int fatal(const char* format, ...);

  // Names, times and codes as the messages show them.
  static bool usable_name(const kfs_find_entry* e);
  static std::string join(const std::string& dir, const std::string& rel);
  static std::string base_name(const std::string& path);
  static std::string parent_of(const std::string& path);
  static int64_t service_time(int64_t t);
  static std::string time_text(int64_t t);
  static std::string count_of(uint64_t n, const char* noun);
  static std::string code_text(uint32_t code);
  static bool transient(uint32_t code);

  const restore_options& o_;
  kfs_session s_;
  uint8_t key_[ACCOUNT_KEY_SIZE] = {};
  std::unique_ptr<block_decoder> decoder_;
  std::unique_ptr<uint8_t[]> read_buffer_;
  std::string remote_;
  std::string at_remote_;  // with --at: the remote path below its point
  std::string at_text_;    // and the point, as the summary names it
  bool remote_is_dir_ = false;
  std::vector<remote_entry> entries_;
  mode_t file_mode_ = 0644;
  progress_line progress_;
  bool decoded_one_ = false;
  bool wrong_key_ = false;
  int files_ = 0, folders_ = 0, kept_ = 0, failed_ = 0, differences_ = 0;
  uint64_t bytes_ = 0;
  worker_pool pool_;
  int worker_ = 0;  // this process's number: 0 is the parent
};
