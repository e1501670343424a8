#include "tools/restore/restore.h"

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
#include <functional>
#include <memory>
#include <set>
#include <vector>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "agent/account_key.h"
#include "kfs/client/kfs.h"
#include "lib/format.h"
#include "lib/scoped.h"
#include "tools/restore/block_decoder.h"
#include "tools/restore/local_files.h"

namespace {

// The most stream bytes one read reply of the service carries.
constexpr uint16_t kReadPiece = 65496;
// A file whose transfer broke (a dropped connection loses the read handle)
// is fetched again from its start, this many times in all.
constexpr int kFileAttempts = 3;
constexpr uint8_t kFindFlags = 0x20;
constexpr uint64_t kProgressEveryMs = 250;

constexpr char kUsage[] =
    "usage: kovrarestore --hosts FILE --key FILE --user ID [options] "
    "REMOTE_PATH [LOCAL_DIR]\n"
    "Restores REMOTE_PATH (a folder, with everything below it, or one file)\n"
    "from the service into LOCAL_DIR, where it keeps its name.\n"
    "\n"
    "  --hosts FILE         servers to try, one host:port per line\n"
    "  --key FILE           the account key file the backup was made with\n"
    "  --user ID            the account's user id\n"
    "  --overwrite          replace local files that already exist\n"
    "  --verify LOCAL_TREE  compare REMOTE_PATH with LOCAL_TREE instead of\n"
    "                       restoring, and print each difference\n"
    "  --list               print the remote tree with sizes and times\n"
    "  --help               print this text\n"
    "\n"
    "Exit status: 0 done (no differences), 1 some files failed or differ,\n"
    "2 wrong command line, 3 nothing could be done (key, server, path).\n";

// One file or folder below the remote path.
struct remote_entry {
  std::string rel;  // below the remote path; "" for the remote path itself
  bool is_dir = false;
  bool complete = true;  // the listing holds a complete copy of this state
  int64_t mtime = 0;
  uint64_t size = 0;
};

enum class fetch_status { ok, failed, retry, wrong_key };

// A listing name that cannot be a file name here is refused: a name with a
// '/' or a "..", sent by a damaged or hostile server, would escape the
// folder we restore into.
bool usable_name(const kfs_find_entry* e) {
  std::string_view name(e->name, e->name_len);
  return !name.empty() && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

std::string join(const std::string& dir, const std::string& rel) {
  if (rel.empty()) {
    return dir;
  }
  if (dir.empty() || dir.back() == '/') {
    return dir + rel;
  }
  return dir + "/" + rel;
}

std::string base_name(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string parent_of(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

// The service keeps 32-bit times and sign-extends them.
int64_t service_time(int64_t t) {
  return static_cast<int32_t>(static_cast<uint32_t>(t));
}

std::string time_text(int64_t t) {
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
std::string count_of(uint64_t n, const char* noun) {
  return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}

std::string code_text(uint32_t code) {
  return std::string(kfs_err_message(code)) + " (" + kfs_err_name(code) + ")";
}

// Failures of the connection rather than of the file: worth a new attempt.
bool transient(uint32_t code) {
  return code == ERR_SCKREAD || code == ERR_SCKWRITE || code == ERR_IO ||
         code == ERR_SEQUENCE || code == ERR_BADKEY;
}

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
    format_size_short(static_cast<int64_t>(bytes_done_), done, sizeof done);
    format_size_short(static_cast<int64_t>(bytes_total_), total, sizeof total);
    fprintf(stderr, "\r%zu of %zu files, %s of %s bytes   ", files_done_,
            files_total_, done, total);
    drawn_ = true;
  }

  bool show_ = false;
  bool drawn_ = false;
  size_t files_total_ = 0, files_done_ = 0;
  uint64_t bytes_total_ = 0, bytes_done_ = 0;
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

  int run() {
    int rc = open_session();
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

 private:
  // --- the session ---------------------------------------------------------

  int open_session() {
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
    int len =
        snprintf(s_.pem_path, sizeof s_.pem_path, "%s/kovrarestore-%d.pem",
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

  // --- the remote tree -----------------------------------------------------

  // Lists the folder at path; entries get rel names below prefix.
  uint32_t list_folder(const std::string& path, const std::string& prefix,
                       std::vector<remote_entry>* out) {
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
        r.size = r.is_dir ? 0 : e->size;
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
      if (dir) {
        std::string child = join(path, base_name(rel));
        uint32_t rc = list_folder(child, rel + "/", out);
        if (rc != 0) {
          report_failure(child, "cannot list it: " + code_text(rc));
        }
      }
    }
    return 0;
  }

  int load_tree() {
    remote_ = o_.remote;
    while (remote_.size() > 1 && remote_.back() == '/') {
      remote_.pop_back();
    }
    uint32_t rc = list_folder(remote_, "", &entries_);
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

  uint32_t list_folder_flat(const std::string& path,
                            std::vector<remote_entry>* out) {
    std::vector<remote_entry> all;
    uint32_t rc = list_folder(path, "", &all);
    for (remote_entry& e : all) {
      if (e.rel.find('/') == std::string::npos) {
        out->push_back(std::move(e));
      }
    }
    return rc;
  }

  std::string remote_path(const remote_entry& e) const {
    return join(remote_, e.rel);
  }

  // --- fetching one file ---------------------------------------------------

  // Streams the blocks of the file opened as info into sink.
  fetch_status stream_file(const kfs_ropen_args& info, const block_sink& sink,
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

  fetch_status block_failure(int code, uint32_t block, std::string* why) {
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
  fetch_status open_remote(const remote_entry& e, kfs_ropen_args* info,
                           std::string* why) {
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

  void wrong_key(const remote_entry& e, const std::string& why) {
    progress_.clear();
    fprintf(stderr,
            "kovrarestore: the key in %s does not fit this backup: the first "
            "block of %s %s. Is it the account key the backup was made "
            "with?\n",
            o_.key_file.c_str(), remote_path(e).c_str(), why.c_str());
    wrong_key_ = true;
  }

  // --- restore -------------------------------------------------------------

  int restore() {
    std::string top = join(o_.local, remote_is_dir_ ? base_name(remote_) : "");
    if (mkdir_p(o_.local) != 0) {
      return fatal("cannot create %s: %s", o_.local.c_str(), strerror(errno));
    }
    mode_t mask = umask(0);
    umask(mask);
    file_mode_ = 0666 & ~mask;
    start_progress();
    if (remote_is_dir_ && mkdir_p(top) != 0) {
      return fatal("cannot create %s: %s", top.c_str(), strerror(errno));
    }
    for (const remote_entry& e : entries_) {
      std::string target =
          e.rel.empty() ? join(o_.local, base_name(remote_)) : join(top, e.rel);
      if (e.is_dir) {
        if (mkdir(target.c_str(), 0777) != 0 && errno != EEXIST) {
          report_failure(target, std::string("cannot create the folder: ") +
                                     strerror(errno));
        } else {
          ++folders_;
        }
        continue;
      }
      restore_file(e, target);
      progress_.file_done();
      if (wrong_key_) {
        break;
      }
    }
    return RESTORE_EXIT_OK;
  }

  // Everything restored, on disk before the summary says so: one sync of
  // the file system the files went to.
  void flush_restored() {
    unique_fd fd(open(o_.local.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd || syncfs(fd.get()) != 0) {
      report_failure(o_.local, std::string("cannot flush the restored files: ") +
                                   strerror(errno));
    }
  }

  void restore_file(const remote_entry& e, const std::string& target) {
    struct stat st;
    if (lstat(target.c_str(), &st) == 0) {
      if (!o_.overwrite) {
        ++kept_;
        progress_.add_bytes(static_cast<int64_t>(e.size));
        return;
      }
      if (S_ISDIR(st.st_mode)) {
        report_failure(target, "a folder is in the way");
        return;
      }
    }
    attempts(e, [&](std::string* why) {
      uint64_t written = 0;
      fetch_status status = try_restore(e, target, &written, why);
      if (status == fetch_status::ok) {
        ++files_;
        bytes_ += written;
        // Holes and all: the progress counts the file's size.
        progress_.add_bytes(static_cast<int64_t>(e.size) -
                            static_cast<int64_t>(written));
      } else {
        progress_.add_bytes(-static_cast<int64_t>(written));
      }
      return status;
    });
  }

  // Runs attempt until it succeeds, fails for good, or has been tried
  // kFileAttempts times, and reports how it ended.
  void attempts(const remote_entry& e,
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

  // One attempt: the data goes to a temporary file next to the target,
  // which takes the target's name only when it is complete.
  fetch_status try_restore(const remote_entry& e, const std::string& target,
                           uint64_t* written, std::string* why) {
    kfs_ropen_args info;
    fetch_status status = open_remote(e, &info, why);
    if (status != fetch_status::ok) {
      return status;
    }
    std::string temp = parent_of(target) + "/.kovrarestore.XXXXXX";
    unique_fd fd(mkstemp(temp.data()));
    if (!fd) {
      *why = "cannot create a file in " + parent_of(target) + ": " +
             strerror(errno);
      kfs_file_close(&s_, info.handle);
      return fetch_status::failed;
    }
    local_writer out(fd.get(), info.size);
    status = stream_file(
        info,
        [&](std::span<const uint8_t> data) {
          if (!out.write(data, why)) {
            return false;
          }
          progress_.add_bytes(static_cast<int64_t>(data.size()));
          return true;
        },
        why);
    kfs_file_close(&s_, info.handle);
    *written = out.offset();
    if (status == fetch_status::ok && out.offset() != info.size) {
      *why = "the service sent " + std::to_string(out.offset()) +
             " bytes of its " + std::to_string(info.size);
      status = fetch_status::failed;
    }
    if (status == fetch_status::ok && !finish_file(fd.get(), info, out, why)) {
      status = fetch_status::failed;
    }
    fd.reset();
    if (status == fetch_status::ok &&
        rename(temp.c_str(), target.c_str()) != 0) {
      *why = "cannot rename " + temp + ": " + strerror(errno);
      status = fetch_status::failed;
    }
    if (status != fetch_status::ok) {
      unlink(temp.c_str());
    }
    return status;
  }

  // Length, permission bits and modification time, before the rename, so
  // that the real name never shows a partial file. Flushing waits for the
  // end of the run (one sync for every file, not one each).
  bool finish_file(int fd, const kfs_ropen_args& info, local_writer& out,
                   std::string* why) {
    if (!out.finish(why)) {
      return false;
    }
    if (fchmod(fd, attr_mode(info, file_mode_)) != 0) {
      *why = std::string("cannot set its permissions: ") + strerror(errno);
      return false;
    }
    struct timespec times[2] = {{0, UTIME_NOW}, {0, 0}};
    times[1].tv_sec = static_cast<time_t>(service_time(info.mtime));
    if (futimens(fd, times) != 0) {
      *why = std::string("cannot finish it: ") + strerror(errno);
      return false;
    }
    return true;
  }

  // The permission bits of the attribute record (present flag, uid, gid,
  // mode, in the backed-up machine's byte order), else fallback.
  static mode_t attr_mode(const kfs_ropen_args& info, mode_t fallback) {
    if (info.attr_len < 13 || info.attr[0] != 1) {
      return fallback;
    }
    uint32_t mode;
    memcpy(&mode, info.attr + 9, sizeof mode);
    return static_cast<mode_t>(mode & 07777);
  }

  // --- verify --------------------------------------------------------------

  void verify() {
    start_progress();
    std::set<std::string> remote_names;
    for (const remote_entry& e : entries_) {
      remote_names.insert(e.rel);
      std::string local = join(o_.verify_tree, e.rel);
      struct stat st;
      if (lstat(local.c_str(), &st) != 0) {
        difference(e.is_dir ? "missing folder" : "missing", e, "");
      } else if (e.is_dir) {
        if (!S_ISDIR(st.st_mode)) {
          difference("not a folder", e, "");
        }
        continue;
      } else if (!S_ISREG(st.st_mode)) {
        difference("not a file", e, "");
      } else {
        verify_file(e, local, st);
      }
      progress_.file_done();
      if (wrong_key_) {
        return;
      }
    }
    if (remote_is_dir_) {
      local_extras(o_.verify_tree, "", remote_names);
    }
  }

  void verify_file(const remote_entry& e, const std::string& local,
                   const struct stat& st) {
    attempts(e, [&](std::string* why) {
      kfs_ropen_args info;
      fetch_status status = open_remote(e, &info, why);
      if (status == fetch_status::ok) {
        status = compare_file(e, local, st, info, why);
      }
      files_ += status == fetch_status::ok;
      return status;
    });
  }

  // fetch_status::ok when the comparison could be made, whatever it found.
  fetch_status compare_file(const remote_entry& e, const std::string& local,
                            const struct stat& st, const kfs_ropen_args& info,
                            std::string* why) {
    fetch_status status = fetch_status::ok;
    if (info.size != static_cast<uint64_t>(st.st_size)) {
      difference("size differs", e,
                 "backup " + std::to_string(info.size) + ", local " +
                     std::to_string(st.st_size) + " bytes");
    } else {
      unique_fd fd(open(local.c_str(), O_RDONLY | O_CLOEXEC));
      if (!fd) {
        kfs_file_close(&s_, info.handle);
        *why = "cannot read " + local + ": " + strerror(errno);
        return fetch_status::failed;
      }
      local_comparer cmp(fd.get());
      uint64_t seen = 0;
      status = stream_file(
          info,
          [&](std::span<const uint8_t> data) {
            seen += data.size();
            progress_.add_bytes(static_cast<int64_t>(data.size()));
            return seen <= info.size && cmp.compare(data);
          },
          why);
      if (status == fetch_status::failed && cmp.differs_at() >= 0) {
        difference("content differs", e,
                   "from byte " + std::to_string(cmp.differs_at()));
        status = fetch_status::ok;
      } else if (status == fetch_status::failed && seen > info.size) {
        *why = "the service sent more data than the file's size";
      } else if (status == fetch_status::ok) {
        bytes_ += seen;
      }
    }
    kfs_file_close(&s_, info.handle);
    if (status != fetch_status::ok) {
      return status;
    }
    int64_t remote_time = service_time(info.mtime);
    if (remote_time != service_time(st.st_mtime)) {
      difference("time differs", e,
                 "backup " + time_text(remote_time) + ", local " +
                     time_text(st.st_mtime));
    }
    mode_t remote_mode = attr_mode(info, st.st_mode & 07777);
    if (remote_mode != (st.st_mode & 07777)) {
      char text[64];
      snprintf(text, sizeof text, "backup %04o, local %04o",
               static_cast<unsigned>(remote_mode),
               static_cast<unsigned>(st.st_mode & 07777));
      difference("mode differs", e, text);
    }
    return fetch_status::ok;
  }

  // Local files and folders below dir that the backup does not hold. Only
  // regular files and folders count: nothing else is ever backed up.
  void local_extras(const std::string& dir, const std::string& prefix,
                    const std::set<std::string>& remote_names) {
    dir_ptr d(opendir(dir.c_str()));
    if (!d) {
      return;  // reported as missing already
    }
    std::vector<std::string> names;
    while (dirent* ent = readdir(d.get())) {
      if (strcmp(ent->d_name, ".") != 0 && strcmp(ent->d_name, "..") != 0) {
        names.push_back(ent->d_name);
      }
    }
    d.reset();
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      std::string path = join(dir, name);
      std::string rel = prefix + name;
      struct stat st;
      if (lstat(path.c_str(), &st) != 0 ||
          !(S_ISREG(st.st_mode) || S_ISDIR(st.st_mode))) {
        continue;
      }
      if (remote_names.count(rel) == 0) {
        remote_entry e;
        e.rel = rel;
        difference("not in the backup", e, "");
      } else if (S_ISDIR(st.st_mode)) {
        local_extras(path, rel + "/", remote_names);
      }
    }
  }

  void difference(const char* what, const remote_entry& e,
                  const std::string& detail) {
    progress_.clear();
    std::string name = e.rel.empty() ? base_name(remote_) : e.rel;
    if (detail.empty()) {
      printf("%s: %s\n", what, name.c_str());
    } else {
      printf("%s: %s (%s)\n", what, name.c_str(), detail.c_str());
    }
    fflush(stdout);
    ++differences_;
  }

  // --- list ----------------------------------------------------------------

  void list() {
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

  // --- reporting -----------------------------------------------------------

  void start_progress() {
    size_t files = 0;
    uint64_t bytes = 0;
    for (const remote_entry& e : entries_) {
      files += !e.is_dir;
      bytes += e.size;
    }
    progress_.start(o_.progress, files, bytes);
  }

  void summary(double seconds) {
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
    printf("%s in %.1f s\n", text.c_str(), seconds);
  }

  void report_failure(const std::string& path, const std::string& why) {
    progress_.clear();
    fprintf(stderr, "kovrarestore: %s: %s\n", path.c_str(), why.c_str());
    ++failed_;
  }

  [[gnu::format(printf, 2, 3)]] int fatal(const char* format, ...) {
    progress_.clear();
    va_list args;
    va_start(args, format);
    fputs("kovrarestore: ", stderr);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    va_end(args);
    return RESTORE_EXIT_FATAL;
  }

  const restore_options& o_;
  kfs_session s_;
  uint8_t key_[ACCOUNT_KEY_SIZE] = {};
  std::unique_ptr<block_decoder> decoder_;
  std::unique_ptr<uint8_t[]> read_buffer_;
  std::string remote_;
  bool remote_is_dir_ = false;
  std::vector<remote_entry> entries_;
  mode_t file_mode_ = 0644;
  progress_line progress_;
  bool decoded_one_ = false;
  bool wrong_key_ = false;
  int files_ = 0, folders_ = 0, kept_ = 0, failed_ = 0, differences_ = 0;
  uint64_t bytes_ = 0;
};

// "--name value" or "--name=value".
bool option_value(int argc, char** argv, int* i, const char* name,
                  std::string* out) {
  size_t len = strlen(name);
  const char* arg = argv[*i];
  if (strncmp(arg, name, len) != 0) {
    return false;
  }
  if (arg[len] == '=') {
    *out = arg + len + 1;
    return true;
  }
  if (arg[len] != '\0' || *i + 1 >= argc) {
    return false;
  }
  *out = argv[++*i];
  return true;
}

}  // namespace

const char* restore_usage() {
  return kUsage;
}

int restore_parse_args(int argc, char** argv, restore_options* o,
                       std::string* error) {
  std::vector<std::string> positional;
  std::string user;
  bool have_user = false;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--help") {
      o->help = true;
      return RESTORE_EXIT_OK;
    }
    if (arg == "--list") {
      o->list = true;
    } else if (arg == "--overwrite") {
      o->overwrite = true;
    } else if (option_value(argc, argv, &i, "--hosts", &o->hosts) ||
               option_value(argc, argv, &i, "--key", &o->key_file) ||
               option_value(argc, argv, &i, "--verify", &o->verify_tree)) {
    } else if (option_value(argc, argv, &i, "--user", &user)) {
      have_user = true;
    } else if (arg.size() > 1 && arg[0] == '-') {
      *error = "unknown or incomplete option " + arg;
      return RESTORE_EXIT_USAGE;
    } else {
      positional.push_back(arg);
    }
  }
  if (o->hosts.empty() || o->key_file.empty() || !have_user) {
    *error = "--hosts, --key and --user are required";
    return RESTORE_EXIT_USAGE;
  }
  char* end = nullptr;
  errno = 0;
  unsigned long long id = strtoull(user.c_str(), &end, 10);
  if (user.empty() || *end != '\0' || errno != 0 || id > UINT32_MAX ||
      user[0] == '-') {
    *error = "the user id must be a number: " + user;
    return RESTORE_EXIT_USAGE;
  }
  o->user = static_cast<uint32_t>(id);
  if (o->list && !o->verify_tree.empty()) {
    *error = "--list and --verify do not go together";
    return RESTORE_EXIT_USAGE;
  }
  size_t wanted = o->list || !o->verify_tree.empty() ? 1 : 2;
  if (positional.size() != wanted) {
    *error = wanted == 1 ? "give the remote path only"
                         : "give the remote path and the local folder";
    return RESTORE_EXIT_USAGE;
  }
  o->remote = positional[0];
  if (o->remote.empty() || o->remote[0] != '/') {
    *error = "the remote path must start with '/': " + o->remote;
    return RESTORE_EXIT_USAGE;
  }
  if (wanted == 2) {
    o->local = positional[1];
  }
  return RESTORE_EXIT_OK;
}

int restore_run(const restore_options& options) {
  kfs_library_init();
  int rc = restore_job(options).run();
  kfs_library_cleanup();
  return rc;
}
