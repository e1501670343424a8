// Outbox files on any bytes, turned into the message a relay receives: the
// header lines stay single lines of printable ASCII, every line ends in CRLF
// and is within what SMTP allows (the body's within quoted-printable's 76),
// whatever the agent's text, subject, recipient or job name held.

#include <string_view>

#include "fuzz/fuzz_support.h"
#include "kfs/server/mail.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view content(reinterpret_cast<const char*>(data), size);
  kfsd_outbox_message m;
  if (!kfsd_outbox_parse("1700000000-00000001.msg", content, &m)) {
    return 0;
  }
  std::string mail = kfsd_mail_compose(m, "kfsd@box", "ops@example.org", "box");
  size_t body = mail.find("\r\n\r\n");
  fuzz_require(body != std::string::npos, "the headers end");
  size_t at = 0;
  while (at < mail.size()) {
    size_t end = mail.find("\r\n", at);
    fuzz_require(end != std::string::npos, "every line ends in CRLF");
    fuzz_require(end - at <= (at > body ? 76u : 998u),
                 "body lines within 76 characters, headers within 998");
    for (size_t i = at; i < end; ++i) {
      unsigned char c = static_cast<unsigned char>(mail[i]);
      fuzz_require(c != '\r' && c != '\n' && c != 0 &&
                       (i > body || (c >= 0x20 && c < 0x7f) || c == '\t'),
                   "no stray line breaks; headers in printable ASCII");
    }
    at = end + 2;
  }
  return 0;
}
