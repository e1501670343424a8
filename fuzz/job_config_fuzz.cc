// The job file reader on any bytes: parse, check the record, and feed what
// a job file controls on to the report (the destination text and each
// recipient's "flags,address" entry), then release.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "agent/config.h"
#include "agent/report.h"
#include "agent/report_internal.h"
#include "fuzz/fuzz_support.h"
#include "lib/str_list.h"

namespace {

// A destination as the report shows it, from the job's Dest= value.
void format_destination(const char* dest) {
  static report_state r;
  r.dest_path = dest;
  r.user_name = "fuzz";
  const char* text = report_format_destination(&r);
  fuzz_require(strlen(text) < sizeof r.dstpath_text, "destination text");
}

// A failure report before the login composes one message per recipient
// from templates that do not exist here: it reads each entry's flags and
// address and writes nothing.
void report_to_recipients(const job_settings& s) {
  report_configure("", s.values[CONFIG_NAME], s.email, 0, 0, 0, 0, nullptr,
                   s.html);
  report_failure_message("fuzz");
  fuzz_require(report_state_now() == REPORT_IDLE, "report state after it");
  report_reset();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = fuzz_scratch_dir() + "/fuzz.job";
  fuzz_write_file(path, data, size);
  job_settings s;
  int err = job_config_parse(path.c_str(), &s);
  if (err == 0) {
    for (int row = 0; row < CONFIG_KEY_COUNT; ++row) {
      fuzz_require(s.values[row] != nullptr, "a parsed job has every value");
    }
    fuzz_require(str_list_count(s.src) >= 0 && str_list_count(s.xsrc) >= 0,
                 "source lists");
    job_config_number(&s, CONFIG_USER_ID);
    format_destination(s.values[CONFIG_DEST]);
    report_to_recipients(s);
  } else {
    fuzz_require(s.src == nullptr && s.xsrc == nullptr && s.email == nullptr,
                 "a failed parse releases what it made");
  }
  job_config_release(&s);
  job_config_release(&s);  // safe twice, as its contract says
  return 0;
}
