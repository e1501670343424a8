// Reports from the outbox to a real SMTP server on 127.0.0.1: the delivery
// schedule (temporary and permanent failures, restarts, the sent folder's
// week), the messages as a standard parser reads them, and a completed
// run's reports from the agent through kfsd.
#include "kfs/server/mail.h"

#include <dirent.h>
#include <stdlib.h>
#include <time.h>

#include <memory>
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
  // Puts one report in the outbox of data folder `data`; its name.
  std::string put(const std::string& data, const std::string& recipient,
                  const std::string& text, const std::string& job = "",
                  const std::string& subject = "") {
    kfsd_outbox_message m;
    m.recipient = recipient;
    m.text = text;
    m.job = job;
    m.subject = subject;
    make_dirs(data + "/outbox");
    make_dirs(data + "/tmp");
    EXPECT_EQ(kfsd_outbox_put(data + "/outbox", data + "/tmp/m.part", m), 0);
    std::vector<std::string> names;
    DIR* d = opendir((data + "/outbox").c_str());
    while (dirent* e = d ? readdir(d) : nullptr) {
      std::string name = e->d_name;
      if (name.size() > 4 && name.substr(name.size() - 4) == ".msg") {
        names.push_back(name);
      }
    }
    if (d) {
      closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names.empty() ? "" : names.back();
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

TEST_F(Mail, DeliveryScheduleAgainstARealRelay) {
  struct step {
    time_t at;  // after the message arrived
    bool relay_up;
    const char* then;      // where the message is after the pass
    bool restart = false;  // a new mailer, as after a restart of kfsd
  };
  const struct {
    const char* name;
    std::vector<std::string> relay_args;
    std::string recipient;
    std::vector<step> steps;
    size_t delivered;
    const char* answer;      // in failed/NAME.answer
    const char* login = "";  // the mailer's "user:password"
    bool starttls = false;
  } cases[] = {
      {"accepted at once, removed from sent/ after a week",
       {},
       "ops@example.org",
       {{0, true, "sent"}, {6 * kDay, true, "sent"}, {8 * kDay, true, "gone"}},
       1,
       ""},
      {"relay down, then up: one delivery at the next try",
       {},
       "ops@example.org",
       {{0, false, "outbox"},
        {59, true, "outbox"},
        {60, true, "sent"},
        {4000, true, "sent"}},
       1,
       ""},
      {"a 451 answer, then accepted a minute later",
       {"--tempfail", "1"},
       "ops@example.org",
       {{0, true, "outbox"}, {60, true, "sent"}},
       1,
       ""},
      {"waiting after failures, then kfsd restarted: tried at once",
       {},
       "ops@example.org",
       {{0, false, "outbox"}, {60, false, "outbox"}, {61, true, "sent", true}},
       1,
       ""},
      {"a 550 answer: failed at once, with the relay's words",
       {"--reject", "nobody"},
       "nobody@example.org",
       {{0, true, "failed"}},
       0,
       "550 5.1.1 <nobody@example.org>: no such mailbox here"},
      {"two days of temporary failures",
       {"--tempfail", "99"},
       "ops@example.org",
       {{0, true, "outbox"}, {2 * kDay, true, "failed"}},
       0,
       "not delivered in two days; the last answer: 451 4.3.0"},
      {"no address: the account's, and there is no account",
       {},
       "",
       {{0, true, "failed"}},
       0,
       "the account has no e-mail address"},
      {"the relay's login",
       {"--auth", "kfsd:s3cret"},
       "ops@example.org",
       {{0, true, "sent"}},
       1,
       "",
       "kfsd:s3cret"},
      {"a refused login is the operator's to mend: the message waits",
       {"--auth", "kfsd:s3cret"},
       "ops@example.org",
       {{0, true, "outbox"}, {2 * kDay - 1, true, "outbox"}},
       0,
       "",
       "kfsd:wrong"},
      {"TLS required, the relay offers none: nothing sent in the clear",
       {},
       "ops@example.org",
       {{0, true, "outbox"}},
       0,
       "",
       "",
       true},
  };
  int n = 0;
  for (const auto& t : cases) {
    SCOPED_TRACE(t.name);
    std::string data = dir() + "/d" + std::to_string(n++);
    int port = free_port();
    kfsd_smtp_settings settings;
    settings.host = "127.0.0.1";
    settings.port = static_cast<uint16_t>(port);
    std::string login = t.login;
    if (!login.empty()) {
      settings.user = login.substr(0, login.find(':'));
      settings.password = login.substr(login.find(':') + 1);
    }
    settings.starttls = t.starttls;
    auto mailer = std::make_unique<kfsd_mailer>(data, settings, nullptr);
    std::string name = put(data, t.recipient, "report\n");
    kfsd_outbox_message m;
    ASSERT_TRUE(kfsd_outbox_parse(name, "\n", &m));
    smtp_relay relay;
    std::vector<std::string> args = {"--port", std::to_string(port)};
    args.insert(args.end(), t.relay_args.begin(), t.relay_args.end());
    for (const step& s : t.steps) {
      SCOPED_TRACE(s.at);
      if (s.restart) {
        mailer = std::make_unique<kfsd_mailer>(data, settings, nullptr);
      }
      if (s.relay_up && relay.pid() < 0) {
        ASSERT_TRUE(relay.start(data + "/relay", args));
      } else if (!s.relay_up) {
        relay.stop();
      }
      mailer->pass(m.time + s.at);
      EXPECT_EQ(place(data, name), s.then);
    }
    relay.dir = data + "/relay";
    EXPECT_EQ(relay.received().size(), t.delivered);
    if (*t.answer) {
      std::string answer = name.substr(0, name.size() - 4) + ".answer";
      EXPECT_NE(read_file(data + "/outbox/failed/" + answer).find(t.answer),
                std::string::npos);
    }
  }
}

TEST_F(Mail, MessagesReadByAStandardParser) {
  std::string long_line(5000, 'x');
  const std::string html =
      "<!DOCTYPE html>\n<html><body><table><tr>"
      "<td><div>12</div><div>requested</div></td>"
      "<td><div>1</div><div>failed</div></td></tr></table>"
      "<p>caf\xc3\xa9 = 100%</p></body></html>\n";
  const struct {
    const char* name;
    std::string job, subject, text;
    const char* want_subject;
    const char* want_type;
  } cases[] = {
      {"plain report with failures", "nightly", "",
       "Files sent:    9\nFiles failed:  3\n",
       "Backup completed with 3 failed "
       "files: nightly",
       "text/plain"},
      {"HTML report with one failure", "nightly", "", html,
       "Backup completed with 1 failed file: nightly", "text/html"},
      {"no failures; what quoted-printable must carry", "nightly", "",
       "Files failed: 0\n" + long_line +
           "\n.\n.dot\nFrom here\n"
           "trailing  \ntab\t\na=b\n\nGr\xc3\xbc\xc3\x9f"
           "e\rcr\r\nno end",
       "Backup completed: nightly", "text/plain"},
      {"a job name beyond ASCII", "Sicherung \xc3\xbc" + std::string(60, 'y'),
       "", "Files failed: 0\n",
       "Backup completed: Sicherung "
       "\xc3\xbcyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyyy"
       "yyyyyyyyyyyyyyyyyyyyyyyy",
       "text/plain"},
      {"the sender's own subject", "nightly", "Hello", "hi\n", "Hello",
       "text/plain"},
  };
  smtp_relay relay;
  ASSERT_TRUE(relay.start(dir() + "/relay"));
  kfsd_smtp_settings settings;
  settings.host = "127.0.0.1";
  settings.port = static_cast<uint16_t>(relay.port());
  settings.from = "kfsd@box.example";
  kfsd_mailer mailer(dir() + "/data", settings, nullptr);
  for (const auto& t : cases) {
    put(dir() + "/data", "ops@example.org", t.text, t.job, t.subject);
  }
  mailer.pass(time(nullptr));
  std::vector<received_mail> got = relay.wait_for(std::size(cases));
  ASSERT_EQ(got.size(), std::size(cases));
  for (size_t i = 0; i < got.size(); ++i) {
    SCOPED_TRACE(cases[i].name);
    received_mail& m = got[i];
    EXPECT_EQ(m["subject"], cases[i].want_subject);
    EXPECT_EQ(m["content_type"], cases[i].want_type);
    EXPECT_EQ(m["charset"], "utf-8");
    EXPECT_EQ(m["body"], cases[i].text);
    EXPECT_EQ(m["defects"], "");
    EXPECT_LE(std::stoi(m["longest_line"]), 78);
    EXPECT_EQ(m["from"], "kfsd@box.example");
    EXPECT_EQ(m["to"], "ops@example.org");
    EXPECT_EQ(m["rcpt_tos"], "ops@example.org");
    EXPECT_EQ(m["mime_version"], "1.0");
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
  svc.server.stop();
  EXPECT_EQ(kfsd_message_count(svc.data), 0u);
}

}  // namespace
