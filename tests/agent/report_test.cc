#include "agent/report.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent/job.h"
#include "agent/report_internal.h"
#include "lib/sleep.h"
#include "tests/support/test_support.h"

namespace {

struct list_deleter {
  void operator()(str_list* l) const { str_list_free(l); }
};
using list_ptr = std::unique_ptr<str_list, list_deleter>;

list_ptr make_list(const std::vector<std::string>& items) {
  list_ptr l(str_list_new(4, 4, nullptr));
  for (const std::string& s : items) {
    str_list_insert(l.get(), s.data(), static_cast<uint32_t>(s.size()),
                    l->count);
  }
  return l;
}

void no_sleep(unsigned /*seconds*/) {}

std::string utc_text(time_t t) {
  char out[64];
  struct tm tm;
  gmtime_r(&t, &tm);
  strftime(out, sizeof out, "%a %b %e %H:%M:%S %Y", &tm);
  return out;
}

class Report : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    setenv("TZ", "UTC", 1);
    tzset();
    report_reset();
    sleep_set_hook(no_sleep);  // a send without a server must not wait
    make_dirs("etc");
    kfs_session_init(session_.get());
    strcpy(session_->user_name, "ann");
    strcpy(session_->account.text1, "Acme Ltd");
  }
  void TearDown() override {
    report_reset();
    sleep_set_hook(nullptr);
    TempDirTest::TearDown();
  }

  // Configures the report; with begin also connects and begins it.
  void start(bool begin, int default_flags = 0, const char* dest = "/7/x") {
    const uint8_t digest[20] = {0xAB};
    report_configure("report.eml", job_.c_str(), to_.get(), 0, 0, 0, 7, digest,
                     default_flags);
    if (begin) {
      report_connected(session_.get());
      report_begin(12, 0, dest);
    }
  }
  // The text failure report of a running job, composed from tmpl.
  std::string compose(const std::string& tmpl) {
    write_file("etc/failinfo_txt.emt", tmpl);
    start(true);
    report_file_sent("a");
    report_error_errno("/a b", ENOENT);
    report_failure_message("Disk on fire");
    return report_state_record()->report_text;
  }

  std::string job_ = "nightly";
  list_ptr to_ = make_list({"ops"});
  std::unique_ptr<kfs_session> session_ = std::make_unique<kfs_session>();
};

TEST_F(Report, StateMachine) {
  const std::map<char, std::function<void()>> ops = {
      {'C', [&] { start(false); }},
      {'N', [&] { report_connected(session_.get()); }},
      {'Z', [] { report_connected(nullptr); }},
      {'B', [] { report_begin(3, 0, "/7/x"); }},
      {'U', [] { report_file_up_to_date("u"); }},
      {'S', [] { report_file_sent("s"); }},
      {'E', [] { report_error_code("e", ERR_IO); }},
      {'K', [] { report_success(0, 0); }},
      {'F', [] { report_failure_code(ERR_SCKREAD); }},
      {'M', [] { report_failure_message("m"); }},
  };
  struct {
    const char* name;
    const char* ops;
    int32_t state;
    const char* report;  // the template the report file was made from
  } cases[] = {
      {"complete run", "CNBUSEK", REPORT_IDLE, "success"},
      {"run again after success", "CNBKCNBK", REPORT_IDLE, "success"},
      {"failure before login", "CF", REPORT_IDLE, "failnoinfo"},
      {"failure after login", "CNM", REPORT_IDLE, "failinfo"},
      {"failure while running", "CNBSF", REPORT_IDLE, "failinfo"},
      {"file before begin", "CNUK", REPORT_ABANDONED, nullptr},
      {"configure twice", "CCNBK", REPORT_ABANDONED, nullptr},
      {"begin before login", "CB", REPORT_ABANDONED, nullptr},
      {"null session", "CZ", REPORT_ABANDONED, nullptr},
      {"failure when idle", "F", REPORT_ABANDONED, nullptr},
      {"failure after abandoning", "CNUM", REPORT_ABANDONED, nullptr},
      {"abandoned stays so", "CCFCNBK", REPORT_ABANDONED, nullptr},
  };
  for (const char* base : {"success", "failinfo", "failnoinfo"}) {
    write_file(std::string("etc/") + base + "_txt.emt", base);
  }
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    report_reset();
    remove("report.eml");
    for (const char* op = c.ops; *op != '\0'; ++op) {
      ops.find(*op)->second();
    }
    EXPECT_EQ(report_state_now(), c.state);
    EXPECT_EQ(path_exists("report.eml") ? read_file("report.eml") : "-",
              c.report ? "To: ops\n\n" + std::string(c.report) + "\n" : "-");
  }
}

TEST_F(Report, EveryTokenAndTheOddCases) {
  std::string got = compose(
      "#JOB#|#ERROR_MESSAGE#|#ACCNAME#|#USERNAME#|#DSTPATH#|#START_SIZE#|"
      "#STOP_TIME#|#STOP_SIZE#|#DELTA_SIZE#|#NUM_REQUESTED#|"
      "#NUM_TRANSFERED#|#NUM_UP2DATE#|#NUM_FAILED#|#ERROR_LIST#|"
      "#REMOVE_ME_URL#|##JOB#|#job#|a#b|#|#START_SIZE#x|#JOB\r\n"
      "#START_TIME#|#DELTA_TIME#");
  time_t start = report_state_record()->start_time;
  // A failure records no stop time: it is still the epoch here, so the
  // duration is negative and wraps in the formatter's unsigned argument.
  uint32_t wrapped = static_cast<uint32_t>(-start) % 3600;
  char delta[16];
  snprintf(delta, sizeof delta, "99:%02u:%02u", wrapped / 60, wrapped % 60);
  EXPECT_EQ(got,
            "nightly|Disk on fire|Acme Ltd|ann|My Qarn/ann/x||"
            "Thu Jan  1 00:00:00 1970|||12|1|0|1|"
            " - /a b: No such file or directory\n|"
            "https://kovra.example/remove_notification|#nightly|#job#|a#b|#|"
            "x|#JOB\n" +
                utc_text(start) + "|" + delta);
}

TEST_F(Report, RecipientFlags) {
  write_file("etc/success_txt.emt", "T");
  write_file("etc/success_html.emt", "H");
  to_ = make_list({"3,ops", "1,web", "plain", " +2,x", "0,a,b"});
  struct {
    int default_flags;
    bool error;
    const char* want;
  } cases[] = {
      {0, false, "To: web\n\nH\nTo: plain\n\nT\nTo: a,b\n\nT\n"},
      {1, false, "To: web\n\nH\nTo: plain\n\nH\nTo: a,b\n\nT\n"},
      {2, false, "To: web\n\nH\nTo: a,b\n\nT\n"},
      {0, true,
       "To: ops\n\nH\nTo: web\n\nH\nTo: plain\n\nT\nTo: x\n\nT\n"
       "To: a,b\n\nT\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.want);
    report_reset();
    start(true, c.default_flags);
    if (c.error) {
      report_error_code("/f", ERR_IO);
    }
    report_success(0, 0);
    EXPECT_EQ(read_file("report.eml"), c.want);
  }
}

TEST_F(Report, TemplateLoading) {
  const std::string bad = "\nError loading email template!";
  const std::string cases[][2] = {
      {"-", "\nEmail template missing!"},  // "-": no file at all
      {"", bad},
      {std::string(8190, 'a'), std::string(8190, 'a')},
      {std::string(8191, 'a'), bad},
      {"a\r\nb\r\n\r", "a\nb\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c[1]);
    report_reset();
    remove("etc/failinfo_txt.emt");
    if (c[0] != "-") {
      write_file("etc/failinfo_txt.emt", c[0]);
    }
    start(true);
    report_failure_code(ERR_IO);
    EXPECT_EQ(report_state_record()->report_text, c[1]);
    EXPECT_EQ(report_state_now(), REPORT_IDLE);
  }
}

}  // namespace
