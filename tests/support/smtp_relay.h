// tests/support/smtp_relay.h: a real SMTP server on 127.0.0.1 for the mail
// tests (tests/support/smtp_relay.py, on Debian's aiosmtpd). It saves what
// it accepts together with what Python's standard e-mail parser reads in
// it, and ends by itself after a minute.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/support/kfsd_process.h"

// One accepted message as the parser read it: "subject", "content_type",
// "charset", "from", "to", "date", "message_id", "mime_version",
// "defects" (empty when none), "rcpt_tos", "longest_line", and "body", the
// decoded body with line ends as "\n". "raw" is the message as received.
using received_mail = std::map<std::string, std::string>;

class smtp_relay : public port_process {
 public:
  // Starts the relay saving into dir. extra: "--port N" (a port of the
  // test's choosing), "--reject TEXT" (550 for recipients containing it),
  // "--tempfail N" (451 for the first N messages).
  bool start(const std::string& dir,
             const std::vector<std::string>& extra = {});
  // The messages accepted so far, oldest first.
  std::vector<received_mail> received() const;
  // Waits (at most about 10 s) until n messages have arrived.
  std::vector<received_mail> wait_for(size_t n) const;

  std::string dir;
};

// A port on 127.0.0.1 nothing listens on at the moment.
int free_port();
