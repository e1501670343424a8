// The job file reader on any bytes: parse, check the record, and feed what
// a job file controls on to the report (the destination text, and each
// recipient's "flags,address" entry, which a failure report before the
// login reads to compose one message per recipient from templates that do
// not exist here), then release.

#include "agent/config.h"
#include "agent/report.h"
#include "agent/report_internal.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = fuzz_scratch_dir() + "/fuzz.job";
  static report_state r;
  fuzz_write_file(path, data, size);
  job_settings s;
  if (job_config_parse(path.c_str(), &s) == 0) {
    job_config_number(&s, CONFIG_USER_ID);
    r.dest_path = s.values[CONFIG_DEST];
    r.user_name = "fuzz";
    fuzz_require(strlen(report_format_destination(&r)) < sizeof r.dstpath_text,
                 "destination text terminated");
    report_configure("", s.values[CONFIG_NAME], s.email, 0, 0, 0, 0, nullptr,
                     s.html);
    report_failure_message("fuzz");
    report_reset();
  } else {
    fuzz_require(s.src == nullptr && s.xsrc == nullptr && s.email == nullptr,
                 "a failed parse releases what it made");
  }
  job_config_release(&s);
  job_config_release(&s);  // safe twice, as its contract says
  return 0;
}
