// The delivery thread: the outbox in name order to the relay over SMTP,
// then each message to sent/ (kept a week) or failed/ (with the relay's
// answer). Temporary failures wait longer each time, for up to two days.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#ifdef KFSD_HAVE_CURL
#include <curl/curl.h>
#endif

#include "kfs/server/kfsd_internal.h"
#include "kfs/server/mail.h"
#include "lib/scoped.h"

namespace {

std::vector<std::string> message_names(const std::string& dir) {
  std::vector<std::string> names;
  if (dir_ptr d{opendir(dir.c_str())}) {
    while (struct dirent* e = readdir(d.get())) {
      std::string_view name = e->d_name;
      if (name.size() > 4 && name.substr(name.size() - 4) == ".msg") {
        names.emplace_back(name);
      }
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool read_whole(const std::string& path, std::string* out) {
  file_ptr f(fopen(path.c_str(), "rb"));
  if (!f) {
    return false;
  }
  out->clear();
  char buffer[16384];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, f.get())) > 0) {
    out->append(buffer, n);
  }
  return ferror(f.get()) == 0;
}

std::string this_host() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') {
    return "localhost";
  }
  return name;
}

#ifdef KFSD_HAVE_CURL
struct transfer {
  std::string_view data;
  size_t at = 0;
  std::string answer;  // the relay's first refusal, else its last line
  bool refused = false;
  const std::atomic<bool>* abort;
};

size_t read_data(char* buffer, size_t size, size_t count, void* arg) {
  auto* t = static_cast<transfer*>(arg);
  size_t n = std::min(size * count, t->data.size() - t->at);
  memcpy(buffer, t->data.data() + t->at, n);
  t->at += n;
  return n;
}

int keep_answer(CURL*, curl_infotype type, char* data, size_t size, void* arg) {
  if (type == CURLINFO_HEADER_IN) {
    std::string line(data, size);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
      line.pop_back();
    }
    auto* t = static_cast<transfer*>(arg);
    if (!line.empty() && !t->refused) {
      t->answer = line;
      t->refused = line[0] == '4' || line[0] == '5';
    }
  }
  return 0;
}

int check_abort(void* arg, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<transfer*>(arg)->abort->load() ? 1 : 0;
}
#endif

}  // namespace

bool kfsd_mail_address_ok(const std::string& a) {
  size_t at = a.find('@');
  bool controls = std::any_of(a.begin(), a.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
  });
  return a.size() <= 254 && at != std::string::npos && at > 0 &&
         at + 1 < a.size() && !controls &&
         a.find_first_of(" <>(),;:\"\\[]") == std::string::npos;
}

time_t kfsd_mail_retry_wait(uint32_t failures) {
  static constexpr time_t kWaits[] = {60, 5 * 60, 15 * 60, 60 * 60};
  return failures == 0 ? 0 : failures <= 4 ? kWaits[failures - 1] : 60 * 60;
}

kfsd_mailer::kfsd_mailer(std::string dir, kfsd_smtp_settings settings,
                         kfsd_store* store)
    : dir_(dir + "/" + KFSD_OUTBOX_DIR),
      settings_(std::move(settings)),
      store_(store),
      host_(this_host()) {
  if (settings_.from.empty()) {
    settings_.from = "kfsd@" + host_;
  }
}

bool kfsd_mailer::start() {
#ifdef KFSD_HAVE_CURL
  curl_global_init(CURL_GLOBAL_DEFAULT);
#endif
  started_ = pthread_create(&thread_, nullptr, thread_main, this) == 0;
  return started_;
}

void kfsd_mailer::stop() {
  if (!started_) {
    return;
  }
  {
    std::lock_guard<std::mutex> hold(mutex_);
    stopping_ = true;
  }
  abort_ = true;
  wake_.notify_all();
  pthread_join(thread_, nullptr);
  started_ = false;
}

void kfsd_mailer::poke() {
  {
    std::lock_guard<std::mutex> hold(mutex_);
    poked_ = true;
  }
  wake_.notify_all();
}

void* kfsd_mailer::thread_main(void* self) {
  static_cast<kfsd_mailer*>(self)->run();
  return nullptr;
}

void kfsd_mailer::run() {
  std::unique_lock<std::mutex> hold(mutex_);
  while (!stopping_) {
    poked_ = false;
    hold.unlock();
    time_t due = pass(time(nullptr));
    hold.lock();
    wake_.wait_until(hold, std::chrono::system_clock::from_time_t(due),
                     [this] { return stopping_ || poked_; });
  }
}

kfsd_mailer::outcome kfsd_mailer::deliver(const kfsd_outbox_message& m,
                                          std::string* answer) {
  std::string to = m.recipient;
  if (to.empty() && store_ != nullptr) {
    kfsd_user user;
    if (kfsd_store_get_user(store_, m.user, &user) == 0) {
      to = user.email;
    }
  }
  if (to.empty()) {
    *answer = "the account has no e-mail address";
    return outcome::failed;
  }
  if (!kfsd_mail_address_ok(to) || !kfsd_mail_address_ok(settings_.from)) {
    *answer = "not a mail address: " +
              (kfsd_mail_address_ok(to) ? settings_.from : to);
    return outcome::failed;
  }
#ifdef KFSD_HAVE_CURL
  std::string message = kfsd_mail_compose(m, settings_.from, to, host_);
  transfer t{message, 0, {}, false, &abort_};
  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    *answer = "no memory for the SMTP session";
    return outcome::retry;
  }
  std::string url = "smtp://" + settings_.host + ":" +
                    std::to_string(settings_.port) + "/" + host_;
  std::string mail_from = "<" + settings_.from + ">";
  std::string rcpt = "<" + to + ">";
  curl_slist* rcpts = curl_slist_append(nullptr, rcpt.c_str());
  char error[CURL_ERROR_SIZE] = {};
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_MAIL_FROM, mail_from.c_str());
  curl_easy_setopt(curl, CURLOPT_MAIL_RCPT, rcpts);
  curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
  curl_easy_setopt(curl, CURLOPT_READFUNCTION, read_data);
  curl_easy_setopt(curl, CURLOPT_READDATA, &t);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 30L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 300L);
  // The relay's own words go in failed/ and the log: the debug callback is
  // where libcurl shows them.
  curl_easy_setopt(curl, CURLOPT_VERBOSE, 1L);
  curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, keep_answer);
  curl_easy_setopt(curl, CURLOPT_DEBUGDATA, &t);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, check_abort);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &t);
  if (settings_.starttls) {
    curl_easy_setopt(curl, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
  }
  if (!settings_.user.empty()) {
    curl_easy_setopt(curl, CURLOPT_USERNAME, settings_.user.c_str());
    curl_easy_setopt(curl, CURLOPT_PASSWORD, settings_.password.c_str());
  }
  CURLcode rc = curl_easy_perform(curl);
  long code = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
  curl_slist_free_all(rcpts);
  curl_easy_cleanup(curl);
  if (rc == CURLE_OK) {
    *answer = t.answer;
    return outcome::sent;
  }
  *answer = t.answer.empty() || code < 400
                ? std::string(error[0] ? error : curl_easy_strerror(rc))
                : t.answer;
  if (rc == CURLE_COULDNT_CONNECT || rc == CURLE_COULDNT_RESOLVE_HOST ||
      (rc == CURLE_OPERATION_TIMEDOUT && code == 0)) {
    return outcome::unreachable;
  }
  // A refused login is the operator's to mend, not the message's fault.
  return code >= 500 && code < 600 && rc != CURLE_LOGIN_DENIED ? outcome::failed
                                                               : outcome::retry;
#else
  *answer = "this kfsd was built without mail delivery";
  return outcome::retry;
#endif
}

void kfsd_mailer::finish(const std::string& name, bool sent,
                         const std::string& answer) {
  std::string from = dir_ + "/" + name;
  std::string to =
      dir_ + "/" + (sent ? KFSD_SENT_DIR : KFSD_FAILED_DIR) + "/" + name;
  mkdir(to.substr(0, to.rfind('/')).c_str(), 0700);
  if (!sent) {
    // The answer first: a message in failed/ always has its reason.
    std::string why = to.substr(0, to.size() - 4) + ".answer";
    file_ptr f(fopen(why.c_str(), "w"));
    if (f) {
      fprintf(f.get(), "%s\n", answer.c_str());
    }
  }
  if (rename(from.c_str(), to.c_str()) != 0) {
    kfsd_log("mail %s: cannot be moved out of the outbox: %s", name.c_str(),
             strerror(errno));
    return;
  }
  if (sent) {
    utimensat(AT_FDCWD, to.c_str(), nullptr, 0);  // kept a week from now
  }
  kfsd_log("mail %s: %s%s", name.c_str(),
           sent ? "delivered" : "undeliverable, in outbox/failed: ",
           sent ? "" : answer.c_str());
}

void kfsd_mailer::sweep_sent(time_t now) {
  std::string sent = dir_ + "/" + KFSD_SENT_DIR;
  for (const std::string& name : message_names(sent)) {
    std::string path = sent + "/" + name;
    struct stat st;
    if (stat(path.c_str(), &st) == 0 &&
        now - st.st_mtime >= KFSD_MAIL_KEEP_SENT) {
      unlink(path.c_str());
    }
  }
}

time_t kfsd_mailer::pass(time_t now) {
  sweep_sent(now);
  time_t next = now + 3600;  // sent/ is looked at again within the hour
  if (now < relay_next_) {
    return std::min(next, relay_next_);
  }
  std::vector<std::string> names = message_names(dir_);
  std::erase_if(waiting_, [&](const auto& entry) {
    return !std::binary_search(names.begin(), names.end(), entry.first);
  });
  for (const std::string& name : names) {
    waiting& w = waiting_[name];
    if (w.next > now) {
      next = std::min(next, w.next);
      continue;
    }
    std::string content, answer;
    kfsd_outbox_message m;
    if (!read_whole(dir_ + "/" + name, &content)) {
      continue;  // gone meanwhile
    }
    outcome result = outcome::failed;
    if (kfsd_outbox_parse(name, content, &m)) {
      result = deliver(m, &answer);
    } else {
      answer = "not a message kfsd wrote";
    }
    if (result == outcome::sent || result == outcome::failed) {
      finish(name, result == outcome::sent, answer);
      waiting_.erase(name);
      continue;
    }
    if (now - m.time >= KFSD_MAIL_GIVE_UP) {
      finish(name, false,
             "not delivered in two days; the last answer: " + answer);
      waiting_.erase(name);
      continue;
    }
    w.next = now + kfsd_mail_retry_wait(++w.failures);
    next = std::min(next, w.next);
    kfsd_log("mail %s: not delivered (%s); next try in %lld s", name.c_str(),
             answer.c_str(), static_cast<long long>(w.next - now));
    if (result == outcome::unreachable) {
      relay_next_ = w.next;  // the rest would only wait for it too
      break;
    }
  }
  return next;
}
