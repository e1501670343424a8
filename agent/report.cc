#include "agent/report.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "agent/job.h"
#include "agent/report_internal.h"
#include "lib/format.h"
#include "lib/hex.h"
#include "lib/scoped.h"

namespace {

constexpr char kSuccessBase[] = "etc/success";
constexpr char kFailInfoBase[] = "etc/failinfo";
constexpr char kFailNoInfoBase[] = "etc/failnoinfo";

report_state report;

void abandon() {
  report.state = REPORT_ABANDONED;
}

// True in the expected state; anything else abandons the report.
bool expect(int32_t state) {
  if (report.state != state) {
    abandon();
    return false;
  }
  return true;
}

void append_item(str_list* list, const char* text) {
  if (text == nullptr) {
    text = "";
  }
  str_list_insert(list, text, static_cast<uint32_t>(strlen(text)),
                  str_list_count(list));
}

void record_error(const char* path, const char* error_text) {
  if (!expect(REPORT_RUNNING)) {
    return;
  }
  report.files_failed++;
  append_item(report.error_list, path);
  append_item(report.error_list, error_text);
}

// Appends one composed message to the report file, creating the file with
// the first message of this report.
void keep_message(file_ptr* kept, const char* address) {
  if (report.report_path == nullptr || report.report_path[0] == '\0') {
    return;
  }
  if (!*kept) {
    // It names the account, the user and the files that failed: for the
    // owner's eyes only, also when an older copy is overwritten.
    unique_fd fd(open(report.report_path, O_WRONLY | O_CREAT | O_TRUNC, 0600));
    if (fd && fchmod(fd.get(), 0600) == 0) {
      kept->reset(fdopen(fd.get(), "wb"));
    }
    if (!*kept) {
      return;  // the copy on the box is a courtesy; the report goes on
    }
    fd.release();  // the stream owns it now
  }
  FILE* f = kept->get();
  fprintf(f, "To: %s\n\n", address);
  fwrite(report.report_text, 1, report.report_length, f);
  if (report.report_length == 0 ||
      report.report_text[report.report_length - 1] != '\n') {
    fputc('\n', f);
  }
}

void compose_and_send(const char* base, const char* address, int flags,
                      file_ptr* kept) {
  if ((flags & REPORT_FLAG_ONLY_ERRORS) != 0 &&
      str_list_count(report.error_list) <= 0) {
    return;
  }
  char tmpl[REPORT_TEMPLATE_SIZE];
  report_template_load(base, flags, tmpl);
  if (!report_substitute(&report, tmpl, flags)) {
    return;  // abandoned by an overflow: nothing half-made leaves the box
  }
  keep_message(kept, address);
  // Only a completed run is mailed; a failure report stays on the box.
  if (strcmp(base, kSuccessBase) != 0) {
    return;
  }
  str_list* to = str_list_new(1, 1, nullptr);
  append_item(to, address);
  kfs_email_args args = {};
  args.kind = 0;
  args.word1 = report.word1;
  args.word2 = report.word2;
  args.recipients = to;
  args.subject = "";
  args.text = report.report_text;
  if (kfs_email(report.account, &args) != 0) {
    // Not retried and not reported: the backup itself has succeeded, and
    // the copy in the report file remains.
  }
  str_list_free(to);
}

// One message per recipient, in list order, then the run's list is done.
void deliver(const char* base) {
  file_ptr kept;
  int32_t count = str_list_count(report.recipients);
  for (int32_t i = 0; i < count && report.state != REPORT_ABANDONED; ++i) {
    const char* entry = str_list_get(report.recipients, i);
    if (entry == nullptr) {
      continue;
    }
    int flags = report.default_flags;
    const char* address = entry;
    const char* comma = strchr(entry, ',');
    if (comma != nullptr) {
      flags = static_cast<int>(strtol(entry, nullptr, 10));
      address = comma + 1;
    }
    compose_and_send(base, address, flags, &kept);
  }
  str_list_free(report.error_list);
  report.error_list = nullptr;
  if (report.state != REPORT_ABANDONED) {
    report.state = REPORT_IDLE;
  }
}

void report_failure() {
  const char* base =
      report.state == REPORT_CONFIGURED ? kFailNoInfoBase : kFailInfoBase;
  deliver(base);
  report.failure_message = nullptr;  // the caller's text is gone after this
}

bool failure_allowed() {
  if (report.state >= REPORT_CONFIGURED && report.state <= REPORT_RUNNING) {
    return true;
  }
  abandon();
  return false;
}

}  // namespace

void report_configure(const char* report_path, const char* job_name,
                      const str_list* recipients, uint32_t /*unused*/,
                      uint32_t word1, uint32_t word2, int64_t kept_number,
                      const uint8_t key_digest[20], int default_flags) {
  if (!expect(REPORT_IDLE)) {
    return;
  }
  report.report_path = report_path;
  report.job_name = job_name;
  report.recipients = recipients;
  report.word1 = word1;
  report.word2 = word2;
  report.kept_number = kept_number;
  report.key_id[0] = '\0';
  if (key_digest != nullptr) {
    hex_encode(key_digest, 20, report.key_id);
  }
  report.default_flags = default_flags;
  report.start_time = time_now();
  report.failure_message = nullptr;
  // A session or destination of an earlier run in this process may be gone.
  report.account = nullptr;
  report.account_name = nullptr;
  report.user_name = nullptr;
  report.dest_path = nullptr;
  report.files_total = report.extra = 0;
  report.files_sent = report.files_up_to_date = report.files_failed = 0;
  report.report_length = 0;
  report.report_text[0] = '\0';
  report.state = REPORT_CONFIGURED;
}

void report_connected(kfs_session* session) {
  if (!expect(REPORT_CONFIGURED)) {
    return;
  }
  if (session == nullptr) {
    abandon();
    return;
  }
  report.account = session;
  report.account_name = session->account.text1;
  report.user_name = session->user_name;
  report.state = REPORT_CONNECTED;
}

void report_begin(int64_t files_total, int64_t extra, const char* dest) {
  if (!expect(REPORT_CONNECTED)) {
    return;
  }
  report.files_total = files_total;
  report.extra = extra;
  report.dest_path = dest;
  report.files_up_to_date = report.files_sent = report.files_failed = 0;
  report.error_list = str_list_new(1, 16, nullptr);
  report.state = REPORT_RUNNING;
}

void report_file_up_to_date(const char* /*path*/) {
  if (expect(REPORT_RUNNING)) {
    report.files_up_to_date++;
  }
}

void report_file_sent(const char* /*path*/) {
  if (expect(REPORT_RUNNING)) {
    report.files_sent++;
  }
}

void report_error_code(const char* path, uint32_t code) {
  record_error(path, kfs_err_message(code));
}

void report_error_errno(const char* path, int error_number) {
  record_error(path, safe_strerror(error_number));
}

void report_success(uint32_t word1, uint32_t word2) {
  if (!expect(REPORT_RUNNING)) {
    return;
  }
  report.success_word1 = word1;
  report.success_word2 = word2;
  report.stop_time = time_now();
  deliver(kSuccessBase);
}

void report_failure_code(uint32_t code) {
  if (failure_allowed()) {
    report.failure_message = kfs_err_message(code);
    report_failure();
  }
}

void report_failure_message(const char* message) {
  if (failure_allowed()) {
    report.failure_message = message;
    report_failure();
  }
}

int32_t report_state_now() {
  return report.state;
}

int64_t report_files_sent() {
  return report.files_sent;
}

int64_t report_files_up_to_date() {
  return report.files_up_to_date;
}

int64_t report_files_failed() {
  return report.files_failed;
}

const char* report_destination_text() {
  return report_format_destination(&report);
}

void report_reset() {
  str_list_free(report.error_list);
  memset(&report, 0, sizeof report);
}

const report_state* report_state_record() {
  return &report;
}
