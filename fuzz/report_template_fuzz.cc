// Report templates on any bytes: the input is the template file (HTML when
// it starts with '<', as the installed HTML templates do), loaded and
// filled with the figures of a run whose texts and times vary with the
// input's last byte. The error list is long enough that a few #ERROR_LIST#
// tokens overflow the message, so the abandoning path is reached too.

#include "agent/report.h"
#include "agent/report_internal.h"
#include "fuzz/fuzz_support.h"
#include "lib/str_list.h"

namespace {

// Figures that vary with the input's last byte: destinations with and
// without a second '/', none and a long one; user names usual, empty, none
// and long; the times of a run, of a failure before any stop time (the
// duration wraps), of a year past 2038, and the epoch.
constexpr const char* kDests[] = {
    "/7/Today/box", "/7", "",
    ("/7/a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/p/q/r/s/t/u/v/w/x/y/z/0/1/2/3/4/5/6/7/"
     "8/9/a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/p/q/r/s/t/u/v/w/x/y/z/0/1/2/3/4/5/6/"
     "7")};
constexpr const char* kUsers[] = {"alice", "", nullptr,
                                  "a-rather-long-user-name"};
// Start and stop time of each run.
constexpr time_t kTimes[] = {1700000000, 1700003723, 1700000000, 0,
                             4102444800, 4102448401, 0,          0};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string base = fuzz_scratch_dir() + "/tmpl";
  // Pairs of a file and its error text, then a file without its text,
  // which the list skips.
  static str_list* errors = [] {
    str_list* list = str_list_new(1, 16, nullptr);
    std::string text(2000, 'e');
    for (int i = 0; i < 61; ++i) {
      std::string item = i % 2 ? text : "/srv/photos/" + std::to_string(i / 2);
      str_list_insert(list, item.data(), static_cast<uint32_t>(item.size()),
                      str_list_count(list));
    }
    return list;
  }();
  static report_state r;

  int flags = size > 0 && data[0] == '<' ? REPORT_FLAG_HTML : 0;
  std::string name = base + (flags != 0 ? "_html.emt" : "_txt.emt");
  fuzz_write_file(name, data, size);
  char tmpl[REPORT_TEMPLATE_SIZE];
  report_template_load(base.c_str(), flags, tmpl);
  fuzz_require(strlen(tmpl) < REPORT_TEMPLATE_SIZE, "template terminated");
  fuzz_require(strchr(tmpl, '\r') == nullptr, "carriage returns removed");

  int run = size > 0 ? data[size - 1] % 4 : 0;
  memset(&r, 0, sizeof r);
  r.state = REPORT_RUNNING;
  r.job_name = "nightly";
  r.account_name = "Account of alice";
  r.user_name = kUsers[run];
  r.dest_path = kDests[run];
  r.failure_message = size % 2 == 0 ? "Access Denied" : nullptr;
  r.error_list = size % 3 == 0 ? nullptr : errors;
  r.files_total = 12;
  r.files_sent = 7;
  r.files_up_to_date = 4;
  r.files_failed = 1;
  r.start_time = kTimes[2 * run];
  r.stop_time = kTimes[2 * run + 1];
  bool whole = report_substitute(&r, tmpl, flags);
  fuzz_require(strlen(r.report_text) == r.report_length &&
                   r.report_length < REPORT_TEXT_SIZE,
               "length counts the text, within it");
  fuzz_require(whole == (r.state != REPORT_ABANDONED),
               "only an overflow stops the composition");
  return 0;
}
