#include "tests/support/backup_service.h"

#include <time.h>

#include <gtest/gtest.h>

namespace {

const uint8_t kKey[32] = {3, 1, 4, 1, 5, 9, 2, 6, 5, 3, 5, 8, 9, 7, 9, 3,
                          2, 3, 8, 4, 6, 2, 6, 4, 3, 3, 8, 3, 2, 7, 9, 5};

}  // namespace

bool backup_service::start(const std::string& where, uint32_t block,
                           const std::vector<std::string>& extra) {
  dir = where;
  root = dir + "/root";
  data = dir + "/data";
  block_size = block;
  make_dirs(root + "/etc");
  write_key_file(root + "/etc/account.key", kKey);
  write_file(root + "/etc/success_txt.emt",
             "sent=#NUM_TRANSFERED# failed=#NUM_FAILED#\n#ERROR_LIST#");
  for (const char* name : {"failinfo_txt.emt", "failnoinfo_txt.emt"}) {
    write_file(root + "/etc/" + name, "failed: #ERROR_MESSAGE#\n");
  }
  kfsd_init(data);
  kfsd_add_user(data, 7, "alice", root + "/etc/account.key");
  std::vector<std::string> args = {"--block-size", std::to_string(block)};
  args.insert(args.end(), extra.begin(), extra.end());
  if (!server.start(data, args)) {
    return false;
  }
  point_agent_at(server.port());
  point_restore_at(server.port());
  return true;
}

void backup_service::point_agent_at(int port) {
  write_file(root + "/etc/hosts", "127.0.0.1:" + std::to_string(port) + "\n");
}

void backup_service::point_restore_at(int port) {
  write_file(dir + "/hosts", "127.0.0.1:" + std::to_string(port) + "\n");
}

std::string backup_service::back_up(const std::string& src) {
  write_file(root + "/rt.job",
             "name=rt\nUserId=7\nDest=/7/Today\nhtml=0\n"
             "Email=ops@example.org\nSrc=" +
                 src + "\n");
  size_t before = kfsd_message_count(data);
  run_result r = run_agent();
  EXPECT_EQ(r.exit_code, 0) << r.err;
  return kfsd_message_count(data) > before ? kfsd_last_message(data) : "";
}

std::vector<std::string> backup_service::agent_argv() const {
  return {AGENT_UNDER_TEST, "rt.job"};
}

run_options backup_service::agent_options() const {
  return {
      root,
      {{"KOVRA_TEST_ROOT", root}, {"KOVRA_TEST_SLEEP_LOG", dir + "/sleeps"}}};
}

run_result backup_service::run_agent() {
  return run_program(AGENT_UNDER_TEST, agent_argv(), agent_options());
}

run_result backup_service::restore(const std::vector<std::string>& args,
                                   const std::string& key_file) const {
  std::vector<std::string> argv = {
      "kovrarestore",
      "--hosts",
      dir + "/hosts",
      "--key",
      key_file.empty() ? root + "/etc/account.key" : key_file,
      "--user",
      "7"};
  argv.insert(argv.end(), args.begin(), args.end());
  return run_program(RESTORE_TOOL, argv);
}

std::string backup_service::verify(const std::string& src) const {
  run_result r = restore({"--verify", src, remote_of(src)});
  return r.exit_code == 0 ? "" : r.out + r.err;
}

std::string backup_service::check_store() const {
  run_result r = kfsd({"check", data});
  return r.exit_code == 0 ? "" : r.out + r.err;
}

run_result backup_service::kfsd(std::vector<std::string> args) const {
  args.insert(args.begin(), "kfsd");
  return run_program(KFSD_PATH, args);
}

void backup_service::next_second() {
  time_t now = time(nullptr);
  struct timespec tick = {0, 10 * 1000 * 1000};
  while (time(nullptr) == now) {
    nanosleep(&tick, nullptr);
  }
}
