// tests/support/backup_service.h: what every end-to-end backup test needs:
// install roots for the test build of the agent (key, small report
// templates, server list, one job), a kfsd with their users, and the
// restore tool pointed at the same server.
#pragma once

#include <stdint.h>

#include <random>
#include <string>
#include <vector>

#include "tests/support/kfsd_process.h"
#include "tests/support/test_support.h"

// One install root of the agent, for user `user` and root/<job>.job. Its
// templates make the report easy to check: "job=J requested=N sent=N
// same=N failed=N" and then the error list; a failure reads "failed: M".
struct agent_root {
  // Lays out `where` with a key of the user's own. Fails the test on error.
  void lay_out(const std::string& where, uint32_t user_id,
               const std::string& job_name);
  void point_at(int port) const;  // the agent and the restore tool
  void write_job(const std::string& src) const;  // Dest=/<user>/Today
  std::string remote_of(const std::string& local) const {
    return "/" + std::to_string(user) + "/Today" + local;
  }
  // The agent's command line and environment (the waits it would sleep are
  // logged in root/sleeps instead).
  std::vector<std::string> agent_argv() const;
  run_options agent_options() const;
  started_program start_agent() const;
  // kovrarestore with --hosts, --key (key_file, else the account key) and
  // --user, then args.
  std::vector<std::string> restore_argv(const std::vector<std::string>& args,
                                        const std::string& key_file = "") const;

  std::string root, job;
  uint32_t user = 0;
};

// A kfsd with user 7, whose root has the job "rt".
class backup_service : public agent_root {
 public:
  // Lays out dir/root and dir/data and starts kfsd with the block size and
  // the extra arguments. False when kfsd would not start.
  bool start(const std::string& dir, uint32_t block_size = 4096,
             const std::vector<std::string>& extra = {});

  // Writes the job for src and runs it; the report it mailed, "" when none
  // arrived.
  std::string back_up(const std::string& src);
  // Runs the job last written, as it is.
  run_result run_agent();
  run_result restore(const std::vector<std::string>& args,
                     const std::string& key_file = "") const;
  // kovrarestore --verify src against its backup: "" when identical, else
  // what it printed.
  std::string verify(const std::string& src) const;
  // `kfsd check` of the data folder: "" when consistent, else its output.
  std::string check_store() const;
  // kfsd with args.
  run_result kfsd(std::vector<std::string> args) const;
  // The time of every restore point, oldest first, as --points prints it.
  std::vector<std::string> point_times() const;
  // After trouble: in the next second a clean run of src, a verify and a
  // store check. "" when the run failed no file and both found nothing.
  std::string catch_up(const std::string& src);

  // Waits for the clock's next second. The index and the service share a
  // stamp of whole seconds, so a run that starts in the second in which a
  // failed run committed its index (and could not tell the service) would
  // take that index for the service's: runs a second apart never do.
  static void next_second();

  std::string dir, data;
  kfsd_process server;
};

// Sets a file's modification (and access) time.
void set_time(const std::string& path, int64_t t);

// n bytes of text, which deflate shrinks a lot, or of noise, which it
// cannot shrink at all.
std::string make_content(std::mt19937& gen, size_t n, bool text);

// A tree below root: `folders` folders nested at random, and `files` files
// (at least seven) in them, half text and half noise, with names of spaces,
// UTF-8 and punctuation and with modes and times of their own (across the
// signed 32-bit range the service keeps, before 1970 included). The first
// have the sizes around `block`; of the rest one in twenty is one to eight
// blocks long, and the others below max_size.
void make_tree(const std::string& root, uint32_t seed, int folders, int files,
               size_t max_size, size_t block = 4096);

// Every path below root with its kind, and for files the mode, time, size
// and a digest of the bytes, one sorted line each: two trees are the same
// when their listings are.
std::string tree_listing(const std::string& root);
