// Reports from the outbox to a real SMTP server on 127.0.0.1: the delivery
// schedule (temporary and permanent failures, restarts, the sent folder's
// week), the messages as a standard parser reads them, and a completed
// run's reports from the agent through kfsd.
#include "kfs/server/mail.h"

#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kfs/server/store.h"
#include "tests/support/backup_service.h"
#include "tests/support/smtp_relay.h"

namespace {

constexpr time_t kDay = 24 * 3600;

class Mail : public TempDirTest {
 protected:
  // Puts one report in the outbox of data folder `data`; the newest
  // message's name.
  std::string put(const std::string& data, const std::string& recipient,
                  const std::string& text, const std::string& job = "",
                  const std::string& subject = "") {
    kfsd_outbox_message m = {.name = "",
                             .recipient = recipient,
                             .subject = subject,
                             .job = job,
                             .text = text};
    make_dirs(data + "/outbox");
    make_dirs(data + "/tmp");
    EXPECT_EQ(kfsd_outbox_put(data + "/outbox", data + "/tmp/m.part", m), 0);
    std::string newest;
    for (const auto& e :
         std::filesystem::directory_iterator(data + "/outbox")) {
      if (e.path().extension() == ".msg") {
        newest = std::max(newest, e.path().filename().string());
      }
    }
    return newest;
  }
};

// Where a message is after a pass: "outbox", "sent", "failed" or "gone".
std::string place(const std::string& data, const std::string& name) {
  std::string outbox = data + "/outbox/";
  for (const char* where : {"", "sent/", "failed/"}) {
    if (path_exists(outbox + where + name)) {
      return *where ? std::string(where, strlen(where) - 1) : "outbox";
    }
  }
  return "gone";
}

std::vector<std::string> words(const std::string& text, char at = ' ') {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string w; std::getline(in, w, at);) {
    if (!w.empty()) {
      out.push_back(w);
    }
  }
  return out;
}

TEST_F(Mail, DeliveryScheduleAgainstARealRelay) {
  const std::string ops = "ops@example.org";
  // steps: "AT RELAY PLACE[ restart]" separated by ';': seconds (or days,
  // with d) after the message arrived, the relay "up" or "down", where the
  // message is after the pass, and "restart" for a new mailer first, as
  // after a restart of kfsd.
  const struct {
    const char* name;
    const char* relay_args;
    std::string recipient;
    const char* steps;
    size_t delivered;
    const char* answer;       // in failed/NAME.answer
    const char* mailer = "";  // its "user:password", or "tls" to insist
  } rows[] = {
      {"accepted at once, removed from sent/ after a week", "", ops,
       "0 up sent; 6d up sent; 8d up gone", 1, ""},
      {"relay down, then up: one delivery at the next try", "", ops,
       "0 down outbox; 59 up outbox; 60 up sent; 4000 up sent", 1, ""},
      {"a 451 answer, then accepted a minute later", "--tempfail 1", ops,
       "0 up outbox; 60 up sent", 1, ""},
      {"waiting after failures, then kfsd restarted: tried at once", "", ops,
       "0 down outbox; 60 down outbox; 61 up sent restart", 1, ""},
      {"a 550 answer: failed at once, with the relay's words",
       "--reject nobody", "nobody@example.org", "0 up failed", 0,
       "550 5.1.1 <nobody@example.org>: no such mailbox here"},
      {"two days of temporary failures", "--tempfail 99", ops,
       "0 up outbox; 2d up failed", 0,
       "not delivered in two days; the last answer: 451 4.3.0"},
      {"no address: the account's, and there is no account", "", "",
       "0 up failed", 0, "the account has no e-mail address"},
      {"the relay's login", "--auth kfsd:s3cret", ops, "0 up sent", 1, "",
       "kfsd:s3cret"},
      {"a refused login is the operator's to mend: the message waits",
       "--auth kfsd:s3cret", ops, "0 up outbox; 172799 up outbox", 0, "",
       "kfsd:wrong"},
      {"TLS required, the relay offers none: nothing sent in the clear", "",
       ops, "0 up outbox", 0, "", "tls"},
  };
  int n = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::string data = dir() + "/d" + std::to_string(n++);
    int port = free_port();
    kfsd_smtp_settings settings;
    settings.host = "127.0.0.1";
    settings.port = static_cast<uint16_t>(port);
    std::vector<std::string> login = words(row.mailer, ':');
    settings.starttls = login.size() == 1;
    if (login.size() == 2) {
      settings.user = login[0];
      settings.password = login[1];
    }
    auto mailer = std::make_unique<kfsd_mailer>(data, settings, nullptr);
    std::string name = put(data, row.recipient, "report\n");
    kfsd_outbox_message m;
    ASSERT_TRUE(kfsd_outbox_parse(name, "\n", &m));
    smtp_relay relay;
    std::vector<std::string> args = words(row.relay_args);
    args.insert(args.begin(), {"--port", std::to_string(port)});
    for (const std::string& step : words(row.steps, ';')) {
      SCOPED_TRACE(step);
      std::vector<std::string> w = words(step);
      time_t at = std::stol(w[0]) * (w[0].back() == 'd' ? kDay : 1);
      if (w.size() > 3) {
        mailer = std::make_unique<kfsd_mailer>(data, settings, nullptr);
      }
      if (w[1] == "up" && relay.pid() < 0) {
        ASSERT_TRUE(relay.start(data + "/relay", args));
      } else if (w[1] == "down") {
        relay.stop();
      }
      mailer->pass(m.time + at);
      EXPECT_EQ(place(data, name), w[2]);
    }
    relay.dir = data + "/relay";
    EXPECT_EQ(relay.received().size(), row.delivered);
    if (*row.answer) {
      std::string answer = name.substr(0, name.size() - 4) + ".answer";
      EXPECT_NE(read_file(data + "/outbox/failed/" + answer).find(row.answer),
                std::string::npos);
    }
  }
}

TEST_F(Mail, MessagesReadByAStandardParser) {
  const std::string html =
      "<!DOCTYPE html>\n<html><body><table><tr>"
      "<td><div>12</div><div>requested</div></td>"
      "<td><div>1</div><div>failed</div></td></tr></table>"
      "<p>caf\xc3\xa9 = 100%</p></body></html>\n";
  const std::string yy(60, 'y');
  const struct {
    std::string job, subject, text;
    std::string want_subject;
    const char* want_type;
  } rows[] = {
      // A plain report with failures.
      {"nightly", "", "Files sent:    9\nFiles failed:  3\n",
       "Backup completed with 3 failed files: nightly", "text/plain"},
      {"nightly", "", html, "Backup completed with 1 failed file: nightly",
       "text/html"},
      // No failures; what quoted-printable must carry.
      {"nightly", "",
       "Files failed: 0\n" + std::string(5000, 'x') +
           "\n.\n.dot\nFrom here\ntrailing  \ntab\t\na=b\n\nGr\xc3\xbc\xc3\x9f"
           "e\rcr\r\nno end",
       "Backup completed: nightly", "text/plain"},
      // A job name beyond ASCII.
      {"Sicherung \xc3\xbc" + yy, "", "Files failed: 0\n",
       "Backup completed: Sicherung \xc3\xbc" + yy, "text/plain"},
      {"nightly", "Hello", "hi\n", "Hello", "text/plain"},  // its own subject
  };
  smtp_relay relay;
  ASSERT_TRUE(relay.start(dir() + "/relay"));
  kfsd_smtp_settings settings;
  settings.host = "127.0.0.1";
  settings.port = static_cast<uint16_t>(relay.port());
  settings.from = "kfsd@box.example";
  kfsd_mailer mailer(dir() + "/data", settings, nullptr);
  for (const auto& row : rows) {
    put(dir() + "/data", "ops@example.org", row.text, row.job, row.subject);
  }
  mailer.pass(time(nullptr));
  std::vector<received_mail> got = relay.wait_for(std::size(rows));
  ASSERT_EQ(got.size(), std::size(rows));
  for (size_t i = 0; i < got.size(); ++i) {
    SCOPED_TRACE(rows[i].want_subject);
    received_mail& m = got[i];
    received_mail want = {{"subject", rows[i].want_subject},
                          {"content_type", rows[i].want_type},
                          {"body", rows[i].text},
                          {"charset", "utf-8"},
                          {"defects", ""},
                          {"from", "kfsd@box.example"},
                          {"to", "ops@example.org"},
                          {"rcpt_tos", "ops@example.org"},
                          {"mime_version", "1.0"}};
    for (const auto& [field, value] : want) {
      EXPECT_EQ(m[field], value) << field;
    }
    EXPECT_LE(std::stoi(m["longest_line"]), 78);
    EXPECT_NE(m["message_id"].find("@"), std::string::npos);
    EXPECT_NE(m["date"], "None");
  }
}

// A completed run's reports, one HTML and one plain, from the agent through
// kfsd: the relay is down when they are posted, kfsd is restarted with the
// messages waiting, and they arrive. With KOVRA_MAIL_HTML set the HTML
// report as received is written there (for the rendering check).
TEST_F(Mail, ReportsOfACompletedRunArriveAfterARestart) {
  int port = free_port();
  std::vector<std::string> smtp = {"--smtp",
                                   "127.0.0.1:" + std::to_string(port)};
  backup_service svc;
  ASSERT_TRUE(svc.start(dir(), 4096, smtp));
  for (const char* name : {"success_html.emt", "success_txt.emt"}) {
    write_file(svc.root + "/etc/" + name,
               read_file(std::string(TEMPLATES_DIR) + "/" + name));
  }
  make_dirs(dir() + "/src");
  for (int i = 0; i < 5; ++i) {
    write_file(dir() + "/src/f" + std::to_string(i), std::string(100, 'a'));
  }
  write_file(svc.root + "/rt.job",
             "name=nightly\nUserId=7\nDest=/7/Today\nhtml=0\n"
             "schedule_email=1,html@example.org\n"
             "schedule_email=ops@example.org\nSrc=" +
                 dir() + "/src\n");
  run_result r = svc.run_agent();
  ASSERT_EQ(r.exit_code, 0) << r.err;
  ASSERT_EQ(kfsd_message_count(svc.data), 2u);
  std::vector<std::string> texts = kfsd_messages(svc.data);

  svc.server.stop();
  smtp_relay relay;
  ASSERT_TRUE(relay.start(dir() + "/relay", {"--port", std::to_string(port)}));
  ASSERT_TRUE(svc.server.start(svc.data, smtp));
  std::vector<received_mail> got = relay.wait_for(2);
  ASSERT_EQ(got.size(), 2u);
  const struct {
    const char* to;
    const char* type;
  } want[] = {{"html@example.org", "text/html"},
              {"ops@example.org", "text/plain"}};
  for (size_t i = 0; i < 2; ++i) {
    SCOPED_TRACE(want[i].to);
    EXPECT_EQ(got[i]["to"], want[i].to);
    EXPECT_EQ(got[i]["subject"], "Backup completed: nightly");
    EXPECT_EQ(got[i]["content_type"], want[i].type);
    EXPECT_EQ(got[i]["body"], texts[i]);
    const std::string& body = got[i]["body"];
    EXPECT_TRUE(body.find(">5</div>") != std::string::npos ||
                body.find("Files sent:       5") != std::string::npos);
  }
  if (const char* out = getenv("KOVRA_MAIL_HTML")) {
    write_file(out, got[0]["body"]);
  }
  // The relay has a message before kfsd reads its answer: stopping at once
  // could leave the message to be sent again.
  for (int i = 0; i < 1000 && kfsd_message_count(svc.data) != 0; ++i) {
    pause_ms(10);
  }
  svc.server.stop();
  EXPECT_EQ(kfsd_message_count(svc.data), 0u);
}

}  // namespace
