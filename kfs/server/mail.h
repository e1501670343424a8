// kfs/server/mail.h: the reports agents hand to kfsd, from the outbox to an
// inbox. A message waits in outbox/ as one file (a few "kfsd-" header lines,
// a blank line, then the agent's text as received); with a relay set, a
// delivery thread turns each into a proper mail message and hands it to the
// relay over SMTP, then moves it to outbox/sent/ or outbox/failed/.
#pragma once

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

struct kfsd_store;

constexpr char KFSD_SENT_DIR[] = "sent";      // under the outbox
constexpr char KFSD_FAILED_DIR[] = "failed";  // under the outbox

// One outbox message. An empty recipient means the account's own address.
struct kfsd_outbox_message {
  std::string name;  // the file's name: "<time>-<sequence>.msg"
  time_t time = 0;   // when kfsd received it
  uint32_t user = 0;
  uint8_t kind = 0;
  std::string recipient;
  std::string subject;  // as the agent sent it (it sends none)
  std::string job;      // the job name the agent gave at login
  std::string text;
};

// Adds a message to the outbox of data folder dir, atomically (a reader
// never sees half a message), under a name that sorts after every earlier
// one. 0, or -1 with errno.
int kfsd_outbox_put(const std::string& dir, const std::string& temp_path,
                    const kfsd_outbox_message& message);

// Reads an outbox file's content; false when it is not one.
bool kfsd_outbox_parse(std::string_view name, std::string_view content,
                       kfsd_outbox_message* out);

// The subject of a report: the agent's own when it sent one, else made from
// the job and the failed-file count the report states ("Backup completed:
// nightly", "Backup completed with 3 failed files: nightly").
std::string kfsd_mail_subject(const kfsd_outbox_message& message);

// The whole message as it goes to the relay: headers, a blank line and the
// body in quoted-printable, every line ended by CRLF and at most 76
// characters long. host names the Message-ID's domain.
std::string kfsd_mail_compose(const kfsd_outbox_message& message,
                              const std::string& from, const std::string& to,
                              const std::string& host);

// Quoted-printable for a text body: the bytes decode exactly, each "\n"
// standing as a line break (CRLF on the wire).
std::string kfsd_quoted_printable(std::string_view text);

// A plain address (local@domain) with nothing that could reach the SMTP
// conversation or a header as a command.
bool kfsd_mail_address_ok(const std::string& address);

// Where and how mail leaves the server.
struct kfsd_smtp_settings {
  std::string host;  // empty: no relay, messages stay in the outbox
  uint16_t port = 25;
  std::string from;  // default "kfsd@<this host's name>"
  bool starttls = false;
  std::string user;
  std::string password;
};

// The delivery schedule.
constexpr time_t KFSD_MAIL_GIVE_UP = 2 * 24 * 3600;  // of temporary failures
constexpr time_t KFSD_MAIL_KEEP_SENT = 7 * 24 * 3600;

// The wait before the next try of a message that failed `failures` times.
time_t kfsd_mail_retry_wait(uint32_t failures);

// Delivers the outbox of one data folder. The thread (start/stop) runs a
// pass whenever one is due or poke() says a message arrived; tests call
// pass() with a clock of their own.
class kfsd_mailer {
 public:
  // store (may be null) gives the account's address for messages without
  // a recipient.
  kfsd_mailer(std::string dir, kfsd_smtp_settings settings, kfsd_store* store);
  ~kfsd_mailer() { stop(); }
  kfsd_mailer(const kfsd_mailer&) = delete;
  kfsd_mailer& operator=(const kfsd_mailer&) = delete;

  bool start();
  void stop();
  void poke();

  // Tries every message that is due at `now`, in order, and removes sent
  // messages kept long enough. Returns when the next pass is due.
  time_t pass(time_t now);

 private:
  struct waiting {
    uint32_t failures = 0;
    time_t next = 0;
  };
  enum class outcome { sent, retry, unreachable, failed };
  outcome deliver(const kfsd_outbox_message& m, std::string* answer);
  void finish(const std::string& name, bool sent, const std::string& answer);
  void sweep_sent(time_t now);
  void run();
  static void* thread_main(void* self);

  std::string dir_;  // the outbox
  kfsd_smtp_settings settings_;
  kfsd_store* store_;
  std::string host_;
  std::map<std::string, waiting> waiting_;
  time_t relay_next_ = 0;  // the relay could not be reached: no try before

  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  bool poked_ = false;
  std::atomic<bool> abort_{false};  // ends a transfer under way at a stop
  pthread_t thread_{};
  bool started_ = false;
};
