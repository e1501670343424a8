#include "agent/config.h"

#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace {

using Items = std::vector<std::string>;

Items items_of(const str_list* list) {
  Items out;
  for (int32_t i = 0; list != nullptr && i < list->count; ++i) {
    out.emplace_back(list->items[i]->data, list->items[i]->len);
  }
  return out;
}

std::string value(const job_settings& s, int row) {
  return s.values[row] != nullptr ? s.values[row] : "<null>";
}

class JobConfigTest : public TempDirTest {};

TEST_F(JobConfigTest, ValuesKeepTheirTextAndOrder) {
  write_file("job.cfg",
             "; comment\n"
             "SRC=/a\r\n"
             "src=/b\n"
             "Src=/c\rtail\n"
             "XSrc=/a/tmp/\n"
             "userid=42\n"
             "DEST=/7/Today \n"
             "Name=nightly\n"
             "Email=c@d,,e@f\n"
             "schedule_email=a@b\n"
             "html=0\n"
             "unknown=ignored\n");
  job_settings s;
  ASSERT_EQ(job_config_parse("job.cfg", &s), 0);
  EXPECT_EQ(items_of(s.src), (Items{"/a", "/b", "/c"}));
  EXPECT_EQ(items_of(s.xsrc), (Items{"/a/tmp/"}));
  EXPECT_EQ(items_of(s.email), (Items{"c@d", "e@f", "a@b"}));
  EXPECT_EQ(value(s, CONFIG_USER_ID), "42");
  EXPECT_EQ(value(s, CONFIG_DEST), "/7/Today ");
  EXPECT_EQ(value(s, CONFIG_NAME), "nightly");
  EXPECT_EQ(value(s, CONFIG_AUTOREMOVE), "0");
  EXPECT_EQ(value(s, CONFIG_MIRROR), "1");
  EXPECT_EQ(job_config_number(&s, CONFIG_USER_ID), 42);
  EXPECT_EQ(s.html, 0);
  job_config_release(&s);
  job_config_release(&s);  // a second release does nothing
}

TEST_F(JobConfigTest, DefaultsAndLongLines) {
  // A line longer than the buffer is read in pieces, each taken as a line:
  // here the second piece is a name= line of its own.
  std::string long_src = "Src=" + std::string(1019, 'x') + "name=piece\n";
  write_file("job.cfg", long_src + "UserId=1\nDest=/1\nhtml=5\n");
  job_settings s;
  ASSERT_EQ(job_config_parse("job.cfg", &s), 0);
  EXPECT_EQ(items_of(s.src), (Items{std::string(1019, 'x')}));
  EXPECT_EQ(value(s, CONFIG_NAME), "piece");
  EXPECT_EQ(s.email, nullptr);
  EXPECT_EQ(s.html, 1);
  job_config_release(&s);
}

TEST_F(JobConfigTest, KeyFileRules) {
  const std::string digits =
      "000102030405060708090a0b0c0d0e0f"
      "F0F1F2F3F4F5F6F7F8F9FAFBFCFDFEFF";
  struct {
    const char* name;
    std::string text;
    int want;
  } const cases[] = {
      {"one line", digits + "\n", 0},
      {"spread with comments",
       "| account key\n" + digits.substr(0, 20) + "\n\n  " +
           digits.substr(20, 30) + " :: " + digits.substr(50) + "\n",
       0},
      {"dash ends the reading", digits + "\n-----END\n" + "ab\n", 0},
      {"comment digits are not seen", "|abcdef\n" + digits + "\n", 0},
      {"63 digits", digits.substr(1) + "\n", -2},
      {"65 digits", digits + "0\n", -2},
      {"digits after the dash",
       digits.substr(0, 32) + "\n-\n" + digits.substr(32) + "\n", -2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    write_file("account.key", c.text);
    uint8_t key[ACCOUNT_KEY_SIZE] = {};
    ASSERT_EQ(account_key_read("account.key", key), c.want);
    if (c.want == 0) {
      EXPECT_EQ(key[0], 0x00);
      EXPECT_EQ(key[15], 0x0F);
      EXPECT_EQ(key[16], 0xF0);
      EXPECT_EQ(key[31], 0xFF);
    }
  }
  uint8_t key[ACCOUNT_KEY_SIZE];
  EXPECT_EQ(account_key_read("absent.key", key), -1);
}

TEST_F(JobConfigTest, ReportNameSkipsExistingFiles) {
  char name[CONFIG_LINE_SIZE];
  EXPECT_STREQ(report_file_name("job.cfg", name), "job.cfg.eml");
  write_file("job.cfg.eml", "");
  write_file("job.cfg-1.eml", "");
  EXPECT_STREQ(report_file_name("job.cfg", name), "job.cfg-2.eml");
  for (int i = 2; i <= 9; ++i) {
    write_file("job.cfg-" + std::to_string(i) + ".eml", "");
  }
  EXPECT_STREQ(report_file_name("job.cfg", name), "job.cfg-9.eml");
}

}  // namespace
