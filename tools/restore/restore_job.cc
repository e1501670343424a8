// The session, the remote tree, fetching a file, and what the run says.
#include "tools/restore/restore_job.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "lib/scoped.h"

namespace {

// The most stream bytes one read reply of the service carries.
constexpr uint16_t kReadPiece = 65496;
// A file whose transfer broke (a dropped connection loses the read handle)
// is fetched again from its start, this many times in all.
constexpr int kFileAttempts = 3;
constexpr uint8_t kFindFlags = 0x20;

}  // namespace

int restore_run(const restore_options& options) {
  kfs_library_init();
  int rc = restore_job(options).run();
  kfs_library_cleanup();
  return rc;
}

int restore_job::run() {
  int rc = open_session();
  if (rc != RESTORE_EXIT_OK) {
    return rc;
  }
  if (o_.points) {
    return print_points();
  }
  rc = o_.at.empty() ? RESTORE_EXIT_OK : resolve_at();
  if (rc != RESTORE_EXIT_OK) {
    return rc;
  }
  rc = load_tree();
  if (rc != RESTORE_EXIT_OK) {
    return rc;
  }
  uint64_t started = time_now_ms();
  if (o_.list) {
    list();
  } else if (!o_.verify_tree.empty()) {
    verify();
  } else {
    rc = restore();
    if (rc != RESTORE_EXIT_OK) {
      return rc;
    }
    flush_restored();
  }
  progress_.end();
  if (wrong_key_) {
    return RESTORE_EXIT_FATAL;
  }
  summary((time_now_ms() - started) / 1000.0);
  return failed_ > 0 || differences_ > 0 ? RESTORE_EXIT_INCOMPLETE
                                         : RESTORE_EXIT_OK;
}

int restore_job::open_session() {
  int key_rc = account_key_read(o_.key_file.c_str(), key_);
  if (key_rc == -1) {
    return fatal("cannot read the key file %s: %s", o_.key_file.c_str(),
                 strerror(errno));
  }
  if (key_rc != 0) {
    return fatal("%s is not a key file: it must hold 64 hex digits",
                 o_.key_file.c_str());
  }
  decoder_ = std::make_unique<block_decoder>(key_);
  s_.auth_mode = AUTH_MODE_AGENT;
  s_.user_id = o_.user;
  s_.encryption_mode = KFS_MODE_AES;
  unsigned int n = 0;
  EVP_Digest(key_, sizeof key_, s_.token_digest, &n, EVP_sha1(), nullptr);
  snprintf(s_.agent_text_1, sizeof s_.agent_text_1, "kovrarestore");
  s_.last_servers_path[0] = '\0';  // the list given is the list used
  if (o_.hosts.size() >= sizeof s_.server_list_path) {
    return fatal("the path %s is too long", o_.hosts.c_str());
  }
  snprintf(s_.server_list_path, sizeof s_.server_list_path, "%s",
           o_.hosts.c_str());
  // The server's public key passes through a file; keep it out of the
  // working directory.
  const char* tmp = getenv("TMPDIR");
  int len = snprintf(s_.pem_path, sizeof s_.pem_path, "%s/kovrarestore-%d.pem",
                     tmp ? tmp : "/tmp", static_cast<int>(getpid()));
  if (len < 0 || static_cast<size_t>(len) >= sizeof s_.pem_path) {
    snprintf(s_.pem_path, sizeof s_.pem_path, "/tmp/kovrarestore-%d.pem",
             static_cast<int>(getpid()));
  }
  uint32_t rc = kfs_session_open(&s_);
  switch (rc) {
    case 0:
      return RESTORE_EXIT_OK;
    case ERR_BADPATH:
      return fatal("cannot read the server list %s", o_.hosts.c_str());
    case ERR_IO:
      return fatal("no server in %s answered", o_.hosts.c_str());
    case ERR_AUTH_FAILURE:
      return fatal(
          "the service refused user %u: the key in %s is not the key of "
          "that account",
          o_.user, o_.key_file.c_str());
    default:
      return fatal("cannot log in: %s", code_text(rc).c_str());
  }
}

// Lists the folder at path, and with deep everything below it; entries get
// rel names below prefix.
uint32_t restore_job::list_folder(const std::string& path,
                                  const std::string& prefix,
                                  std::vector<remote_entry>* out, bool deep) {
  if (path.size() >= 256) {
    return ERR_INVARG;  // the listing request cannot name it
  }
  std::vector<remote_entry> here;
  kfs_find_args f = {0, kFindFlags, path.c_str(), "", 0, 0, 0, nullptr};
  for (;;) {
    uint32_t rc = kfs_find_files(&s_, &f);
    if (rc != 0) {
      return rc;
    }
    for (char* item = str_list_first(f.entries); item != nullptr;
         item = str_list_next(f.entries)) {
      const auto* e = reinterpret_cast<const kfs_find_entry*>(item);
      if (!usable_name(e)) {
        report_failure(path, "the service lists an unusable file name");
        continue;
      }
      remote_entry r;
      r.rel = prefix + std::string(e->name, e->name_len);
      r.is_dir = (e->word & KFS_ATTR_DIRECTORY) != 0;
      r.complete = (e->word & KFS_ATTR_NEEDS_BACKUP) == 0;
      r.mtime = static_cast<int64_t>(e->mtime);
      r.size = e->size;
      r.word = e->word;
      here.push_back(std::move(r));
    }
    uint16_t count = f.count;
    kfs_find_release(&f);
    // A reply that brings nothing yet promises more would have us ask
    // forever.
    if (f.remaining == 0 || count == 0) {
      break;
    }
    f = {f.next_handle, kFindFlags, "", "", 0, 0, 0, nullptr};
  }
  std::sort(here.begin(), here.end(),
            [](const remote_entry& a, const remote_entry& b) {
              return a.rel < b.rel;
            });
  for (remote_entry& r : here) {
    bool dir = r.is_dir;
    std::string rel = r.rel;
    out->push_back(std::move(r));
    if (dir && deep) {
      std::string child = join(path, base_name(rel));
      uint32_t rc = list_folder(child, rel + "/", out, true);
      if (rc != 0) {
        report_failure(child, "cannot list it: " + code_text(rc));
      }
    }
  }
  return 0;
}

int restore_job::load_tree() {
  remote_ = at_remote_.empty() ? o_.remote : at_remote_;
  while (remote_.size() > 1 && remote_.back() == '/') {
    remote_.pop_back();
  }
  uint32_t rc = list_folder(remote_, "", &entries_, true);
  if (rc == 0) {
    remote_is_dir_ = true;
    return RESTORE_EXIT_OK;
  }
  if (rc == ERR_NOTDIR) {
    // A file: its own entry comes from its folder's listing.
    std::vector<remote_entry> siblings;
    std::string name = base_name(remote_);
    uint32_t parent_rc = list_folder_flat(parent_of(remote_), &siblings);
    for (remote_entry& e : siblings) {
      if (e.rel == name && !e.is_dir) {
        e.rel.clear();
        entries_.push_back(std::move(e));
        return RESTORE_EXIT_OK;
      }
    }
    rc = parent_rc != 0 ? parent_rc : uint32_t{ERR_BADPATH};
  }
  if (rc == ERR_BADPATH) {
    return fatal("remote path not found: %s", remote_.c_str());
  }
  return fatal("cannot list %s: %s", remote_.c_str(), code_text(rc).c_str());
}

uint32_t restore_job::list_folder_flat(const std::string& path,
                                       std::vector<remote_entry>* out) {
  return list_folder(path, "", out, false);
}

// --- restore points ----------------------------------------------------------

// The folder of the account's points; each entry is a point: its name is
// its time (UTC) and job, its size the bytes its run stored, and the
// attribute's upper 24 bits the files.
uint32_t restore_job::list_points(std::vector<remote_entry>* out) {
  uint32_t rc = list_folder_flat(user_root() + "/.points", out);
  std::stable_sort(out->begin(), out->end(),
                   [](const remote_entry& a, const remote_entry& b) {
                     return a.mtime < b.mtime;
                   });
  return rc;
}

// "/7" for user 7. Appended rather than "/" + ...: g++ 12 warns wrongly
// about the latter.
std::string restore_job::user_root() const {
  std::string root = "/";
  root += std::to_string(o_.user);
  return root;
}

// The job of a point: its name after the time.
std::string restore_job::point_job(const remote_entry& e) {
  size_t space = e.rel.find(' ');
  return space == std::string::npos ? "-" : e.rel.substr(space + 1);
}

int restore_job::print_points() {
  std::vector<remote_entry> points;
  uint32_t rc = list_points(&points);
  if (rc != 0) {
    return fatal("cannot list the restore points: %s", code_text(rc).c_str());
  }
  for (const remote_entry& e : points) {
    printf("%-19s  %-24s %8llu files %15llu bytes\n",
           time_text(e.mtime).c_str(), point_job(e).c_str(),
           static_cast<unsigned long long>(e.word >> 8),
           static_cast<unsigned long long>(e.size));
  }
  printf("%s\n", points.empty() ? "No restore points yet: a backup run makes"
                                  " one when it completes"
                                : count_of(points.size(), "point").c_str());
  return RESTORE_EXIT_OK;
}

// Points --at at the newest point at or before its time: the remote path
// is then read below that point's folder.
int restore_job::resolve_at() {
  std::vector<remote_entry> points;
  uint32_t rc = list_points(&points);
  if (rc != 0) {
    return fatal("cannot list the restore points: %s", code_text(rc).c_str());
  }
  const remote_entry* chosen = nullptr;
  for (const remote_entry& e : points) {
    if (e.mtime <= o_.at_time) {
      chosen = &e;
    }
  }
  if (chosen == nullptr) {
    return fatal("no restore point at or before %s%s%s", o_.at.c_str(),
                 points.empty() ? "" : "; the first is from ",
                 points.empty() ? "" : time_text(points[0].mtime).c_str());
  }
  std::string root = user_root();
  const std::string& r = o_.remote;
  if (r.compare(0, root.size(), root) != 0 ||
      (r.size() > root.size() && r[root.size()] != '/')) {
    return fatal("with --at the remote path must lie below %s", root.c_str());
  }
  at_remote_ = root + "/.points/" + chosen->rel + r.substr(root.size());
  at_text_ = time_text(chosen->mtime) + ", " + point_job(*chosen);
  return RESTORE_EXIT_OK;
}

std::string restore_job::remote_path(const remote_entry& e) const {
  return join(remote_, e.rel);
}

// Streams the blocks of the file opened as info into sink.
fetch_status restore_job::stream_file(const kfs_ropen_args& info,
                                      const block_sink& sink,
                                      std::string* why) {
  if (!read_buffer_) {
    read_buffer_.reset(new uint8_t[kReadPiece]);
  }
  bool in_block = false;
  uint32_t blocks = 0;
  for (;;) {
    kfs_read_args r = {info.handle, kReadPiece, nullptr,
                       0,           0,          read_buffer_.get()};
    uint32_t rc = kfs_file_read(&s_, &r);
    if (rc != 0) {
      *why = "reading failed: " + code_text(rc);
      return transient(rc) ? fetch_status::retry : fetch_status::failed;
    }
    if (!in_block && (r.n > 0 || (r.flags & KFS_READ_END_BLOCK) != 0)) {
      if (decoder_->begin() != BLOCK_OK) {
        *why = "out of memory";
        return fetch_status::failed;
      }
      in_block = true;
    }
    int b =
        r.n > 0 ? decoder_->feed({read_buffer_.get(), r.n}, sink) : BLOCK_OK;
    if (b == BLOCK_OK && (r.flags & KFS_READ_END_BLOCK) != 0) {
      b = decoder_->finish(sink);
      in_block = false;
      ++blocks;
      decoded_one_ = decoded_one_ || b == BLOCK_OK;
    }
    if (b != BLOCK_OK) {
      return block_failure(b, blocks, why);
    }
    if ((r.flags & KFS_READ_END_FILE) != 0) {
      if (in_block || blocks != info.block_count) {
        *why = "the service sent " + std::to_string(blocks) + " of its " +
               std::to_string(info.block_count) + " blocks";
        return fetch_status::failed;
      }
      return fetch_status::ok;
    }
    if (r.n == 0 && (r.flags & KFS_READ_END_BLOCK) == 0) {
      *why = "the service sent an empty piece";
      return fetch_status::failed;
    }
  }
}

fetch_status restore_job::block_failure(int code, uint32_t block,
                                        std::string* why) {
  if (code == BLOCK_ERR_SINK) {
    return fetch_status::failed;  // the sink said why
  }
  if (!decoded_one_ && (code == BLOCK_ERR_CIPHER || code == BLOCK_ERR_DATA)) {
    *why = block_error_text(code);
    return fetch_status::wrong_key;
  }
  *why = "block " + std::to_string(block) +
         " is damaged: " + block_error_text(code);
  return fetch_status::failed;
}

// Opens path for reading; fetch_status::ok with info filled.
fetch_status restore_job::open_remote(const remote_entry& e,
                                      kfs_ropen_args* info, std::string* why) {
  std::string path = remote_path(e);
  *info = {};
  info->path = path.c_str();
  uint32_t rc = kfs_file_ropen(&s_, info);
  info->path = nullptr;
  if (rc == ERR_BADPATH) {
    *why = e.complete ? "the service no longer holds it"
                      : "the service holds no complete copy (its last "
                        "backup did not finish)";
    return fetch_status::failed;
  }
  if (rc != 0) {
    *why = "cannot open it: " + code_text(rc);
    return transient(rc) ? fetch_status::retry : fetch_status::failed;
  }
  return fetch_status::ok;
}

void restore_job::wrong_key(const remote_entry& e, const std::string& why) {
  progress_.clear();
  fprintf(stderr,
          "kovrarestore: the key in %s does not fit this backup: the first "
          "block of %s %s. Is it the account key the backup was made "
          "with?\n",
          o_.key_file.c_str(), remote_path(e).c_str(), why.c_str());
  wrong_key_ = true;
}

// Runs attempt until it succeeds, fails for good, or has been tried
// kFileAttempts times, and reports how it ended.
void restore_job::attempts(
    const remote_entry& e,
    const std::function<fetch_status(std::string*)>& attempt) {
  std::string why;
  for (int n = 1; n <= kFileAttempts; ++n) {
    fetch_status status = attempt(&why);
    if (status == fetch_status::ok) {
      return;
    }
    if (status == fetch_status::wrong_key) {
      wrong_key(e, why);
      return;
    }
    if (status != fetch_status::retry) {
      break;
    }
  }
  report_failure(remote_path(e), why);
}

void restore_job::list() {
  for (const remote_entry& e : entries_) {
    std::string name = e.rel.empty() ? base_name(remote_) : e.rel;
    if (e.is_dir) {
      printf("%-19s %15s  %s/\n", time_text(e.mtime).c_str(), "-",
             name.c_str());
      ++folders_;
      continue;
    }
    printf("%-19s %15llu  %s%s\n", time_text(e.mtime).c_str(),
           static_cast<unsigned long long>(e.size), name.c_str(),
           e.complete ? "" : "  (incomplete)");
    ++files_;
    bytes_ += e.size;
  }
}

void restore_job::start_progress() {
  size_t files = 0;
  uint64_t bytes = 0;
  for (const remote_entry& e : entries_) {
    files += !e.is_dir;
    bytes += e.is_dir ? 0 : e.size;
  }
  progress_.start(o_.progress, files, bytes);
}

void restore_job::summary(double seconds) {
  std::string files =
      count_of(files_, "file") + " (" + count_of(bytes_, "byte") + ")";
  std::string text;
  if (o_.list) {
    printf("%s, %s\n", files.c_str(), count_of(folders_, "folder").c_str());
    return;
  }
  if (!o_.verify_tree.empty()) {
    text = "Compared " + files + " with " + o_.verify_tree + ": " +
           (differences_ == 0 ? "no differences"
                              : count_of(differences_, "difference"));
  } else {
    text = "Restored " + files + " and " + count_of(folders_, "folder") +
           " into " + o_.local;
    if (kept_ > 0) {
      text += "; kept " + count_of(kept_, "existing file") +
              " (--overwrite replaces them)";
    }
  }
  if (failed_ > 0) {
    text += "; " + std::to_string(failed_) + " failed";
  }
  if (!at_text_.empty()) {
    text += " (as at " + at_text_ + ")";
  }
  printf("%s in %.1f s\n", text.c_str(), seconds);
}

void restore_job::report_failure(const std::string& path,
                                 const std::string& why) {
  progress_.clear();
  if (worker_ > 0 && o_.progress) {
    fprintf(stderr, "\r%*s\r", 60, "");  // the parent's progress line
  }
  fprintf(stderr, "kovrarestore: %s: %s\n", path.c_str(), why.c_str());
  ++failed_;
}

int restore_job::fatal(const char* format, ...) {
  progress_.clear();
  va_list args;
  va_start(args, format);
  fputs("kovrarestore: ", stderr);
  vfprintf(stderr, format, args);
  fputc('\n', stderr);
  va_end(args);
  return RESTORE_EXIT_FATAL;
}

// A listing name that cannot be a file name here is refused: a name with a
// '/' or a "..", sent by a damaged or hostile server, would escape the
// folder we restore into.
bool restore_job::usable_name(const kfs_find_entry* e) {
  std::string_view name(e->name, e->name_len);
  return !name.empty() && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

std::string restore_job::join(const std::string& dir, const std::string& rel) {
  if (rel.empty()) {
    return dir;
  }
  if (dir.empty() || dir.back() == '/') {
    return dir + rel;
  }
  return dir + "/" + rel;
}

std::string restore_job::base_name(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string restore_job::parent_of(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

// The service keeps 32-bit times and sign-extends them.
int64_t restore_job::service_time(int64_t t) {
  return static_cast<int32_t>(static_cast<uint32_t>(t));
}

std::string restore_job::time_text(int64_t t) {
  time_t tt = static_cast<time_t>(t);
  struct tm tm;
  char out[32];
  if (localtime_r(&tt, &tm) == nullptr ||
      strftime(out, sizeof out, "%Y-%m-%d %H:%M:%S", &tm) == 0) {
    snprintf(out, sizeof out, "@%lld", static_cast<long long>(t));
  }
  return out;
}

// "1 file", "2 files".
std::string restore_job::count_of(uint64_t n, const char* noun) {
  return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}

std::string restore_job::code_text(uint32_t code) {
  return std::string(kfs_err_message(code)) + " (" + kfs_err_name(code) + ")";
}

// Failures of the connection rather than of the file: worth a new attempt.
bool restore_job::transient(uint32_t code) {
  return code == ERR_SCKREAD || code == ERR_SCKWRITE || code == ERR_IO ||
         code == ERR_SEQUENCE || code == ERR_BADKEY;
}
