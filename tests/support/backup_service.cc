#include "tests/support/backup_service.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>

#include <filesystem>
#include <functional>
#include <set>

#include <gtest/gtest.h>

void agent_root::lay_out(const std::string& where, uint32_t user_id,
                         const std::string& job_name) {
  root = where;
  user = user_id;
  job = job_name;
  make_dirs(root + "/etc");
  uint8_t key[32];
  for (int i = 0; i < 32; ++i) {
    key[i] = static_cast<uint8_t>(user * 31 + i * 7);
  }
  write_key_file(root + "/etc/account.key", key);
  write_file(root + "/etc/success_txt.emt",
             "job=#JOB# requested=#NUM_REQUESTED# sent=#NUM_TRANSFERED# "
             "same=#NUM_UP2DATE# failed=#NUM_FAILED#\n#ERROR_LIST#");
  for (const char* name : {"failinfo_txt.emt", "failnoinfo_txt.emt"}) {
    write_file(root + "/etc/" + name, "failed: #ERROR_MESSAGE#\n");
  }
}

void agent_root::point_at(int port) const {
  write_file(root + "/etc/hosts", "127.0.0.1:" + std::to_string(port) + "\n");
}

void agent_root::write_job(const std::string& src) const {
  write_file(root + "/" + job + ".job",
             "name=" + job + "\nUserId=" + std::to_string(user) + "\nDest=/" +
                 std::to_string(user) +
                 "/Today\nhtml=0\nEmail=ops@example.org\nSrc=" + src + "\n");
}

std::vector<std::string> agent_root::agent_argv() const {
  return {AGENT_UNDER_TEST, job + ".job"};
}

run_options agent_root::agent_options() const {
  return {
      root,
      {{"KOVRA_TEST_ROOT", root}, {"KOVRA_TEST_SLEEP_LOG", root + "/sleeps"}}};
}

started_program agent_root::start_agent() const {
  return start_program(AGENT_UNDER_TEST, agent_argv(), agent_options());
}

std::vector<std::string> agent_root::restore_argv(
    const std::vector<std::string>& args, const std::string& key_file) const {
  std::string key = key_file.empty() ? root + "/etc/account.key" : key_file;
  std::vector<std::string> argv = {
      "kovrarestore", "--hosts",           root + "/etc/hosts", "--key", key,
      "--user",       std::to_string(user)};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

bool backup_service::start(const std::string& where, uint32_t block,
                           const std::vector<std::string>& extra) {
  dir = where;
  data = dir + "/data";
  lay_out(dir + "/root", 7, "rt");
  kfsd_init(data);
  kfsd_add_user(data, 7, "alice", root + "/etc/account.key");
  std::vector<std::string> args = {"--block-size", std::to_string(block)};
  args.insert(args.end(), extra.begin(), extra.end());
  if (!server.start(data, args)) {
    return false;
  }
  point_at(server.port());
  return true;
}

std::string backup_service::back_up(const std::string& src) {
  write_job(src);
  size_t before = kfsd_message_count(data);
  run_result r = run_agent();
  EXPECT_EQ(r.exit_code, 0) << r.err;
  return kfsd_message_count(data) > before ? kfsd_last_message(data) : "";
}

run_result backup_service::run_agent() {
  started_program agent = start_agent();
  return finish_program(&agent);
}

run_result backup_service::restore(const std::vector<std::string>& args,
                                   const std::string& key_file) const {
  return run_program(RESTORE_TOOL, restore_argv(args, key_file));
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

std::vector<std::string> backup_service::point_times() const {
  std::string out = restore({"--points"}).out;
  std::vector<std::string> times;
  for (size_t at = 0, end; (end = out.find('\n', at)) != std::string::npos;
       at = end + 1) {
    times.push_back(out.substr(at, 19));
  }
  if (!times.empty()) {
    times.pop_back();  // the count of points
  }
  return times;
}

std::string backup_service::catch_up(const std::string& src) {
  next_second();
  std::string report = back_up(src);
  std::string problems = verify(src) + check_store();
  if (report.find(" failed=0\n") == std::string::npos) {
    problems += "next run: " + report;
  }
  return problems;
}

void backup_service::next_second() {
  time_t now = time(nullptr);
  while (time(nullptr) == now) {
    pause_ms(10);
  }
}

void set_time(const std::string& path, int64_t t) {
  struct timespec times[2] = {{static_cast<time_t>(t), 0},
                              {static_cast<time_t>(t), 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

std::string make_content(std::mt19937& gen, size_t n, bool text) {
  std::string s;
  while (s.size() < n) {
    s += text ? "entry " + std::to_string(gen() % 1000) + " of a nightly log\n"
              : std::string(1, static_cast<char>(gen()));
  }
  return s.substr(0, n);
}

void make_tree(const std::string& root, uint32_t seed, int folders, int files,
               size_t max_size, size_t block) {
  std::mt19937 gen(seed);
  const char* names[] = {"a",           "report 2026.txt",
                         "n\xC3\xA4me", "caf\xC3\xA9 \xE2\x9C\x93",
                         "x.y.z",       "it's",
                         "semi;colon",  "UPPER"};
  const mode_t modes[] = {0600, 0640, 0644, 0755, 0700};
  std::vector<std::string> paths = {root};
  make_dirs(root);
  for (int i = 0; i < folders; ++i) {
    paths.push_back(paths[gen() % paths.size()] + "/" + names[gen() % 8] +
                    std::to_string(i));
    make_dirs(paths.back());
  }
  std::vector<size_t> sizes = {0,         1,         block - 1,    block,
                               block + 1, 2 * block, 3 * block + 7};
  while (sizes.size() < static_cast<size_t>(files)) {
    sizes.push_back(sizes.size() % 20 == 0 ? block + gen() % (7 * block)
                                           : gen() % max_size);
  }
  for (size_t i = 0; i < sizes.size(); ++i) {
    std::string path = paths[gen() % paths.size()] + "/" + names[gen() % 8] +
                       "-" + std::to_string(i);
    write_file(path, make_content(gen, sizes[i], gen() % 2 == 0));
    ASSERT_EQ(chmod(path.c_str(), modes[gen() % 5]), 0);
    set_time(path, static_cast<int32_t>(gen()));
  }
}

std::string tree_listing(const std::string& root) {
  std::set<std::string> lines;
  std::error_code missing;
  for (const auto& e :
       std::filesystem::recursive_directory_iterator(root, missing)) {
    struct stat st;
    char line[128] = "/";
    if (lstat(e.path().c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) {
      snprintf(line, sizeof line, " mode %o time %lld size %lld bytes %zx",
               st.st_mode & 07777, static_cast<long long>(st.st_mtime),
               static_cast<long long>(st.st_size),
               std::hash<std::string>()(read_file(e.path())));
    }
    lines.insert(e.path().string().substr(root.size()) + line);
  }
  std::string out;
  for (const std::string& line : lines) {
    out += line + "\n";
  }
  return out;
}
