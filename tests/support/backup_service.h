// tests/support/backup_service.h: what every end-to-end backup test needs:
// a kfsd with user 7, an install root for the test build of the agent (key,
// small report templates, server list, one job), and the restore tool
// pointed at the same server.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "tests/support/kfsd_process.h"
#include "tests/support/test_support.h"

// The templates make the report easy to check: "sent=N failed=N" and then
// the error list; a failure report reads "failed: <message>".
class backup_service {
 public:
  // Lays out dir/root and dir/data and starts kfsd with the
  // block size and the extra arguments. False when kfsd would not start.
  bool start(const std::string& dir, uint32_t block_size = 4096,
             const std::vector<std::string>& extra = {});
  // The agent, and the restore tool, talk to port from now on.
  void point_agent_at(int port);
  void point_restore_at(int port);

  // Writes the job for src (Dest=/7/Today) and runs it; the report it
  // mailed, "" when none arrived.
  std::string back_up(const std::string& src);
  // Runs the job last written, as it is.
  run_result run_agent();
  // The agent's command line and environment, for a test that starts it
  // itself.
  std::vector<std::string> agent_argv() const;
  run_options agent_options() const;
  // kovrarestore with --hosts, --key (key_file, else the account key) and
  // --user 7, then args.
  run_result restore(const std::vector<std::string>& args,
                     const std::string& key_file = "") const;
  // kovrarestore --verify src against its backup: "" when identical, else
  // what it printed.
  std::string verify(const std::string& src) const;
  // `kfsd check` of the data folder: "" when consistent, else its output.
  std::string check_store() const;
  // kfsd with args.
  run_result kfsd(std::vector<std::string> args) const;

  // Waits for the clock's next second. The index and the service share a
  // stamp of whole seconds, so a run that starts in the second in which a
  // failed run committed its index (and could not tell the service) would
  // take that index for the service's: runs a second apart never do.
  static void next_second();

  static std::string remote_of(const std::string& local) {
    return "/7/Today" + local;
  }

  std::string dir, root, data;
  uint32_t block_size = 4096;
  kfsd_process server;
};
