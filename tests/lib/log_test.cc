#include "lib/log.h"

#include <string.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "tests/support/test_support.h"

namespace {

// Each test sets the log up itself; a set-up closes any earlier file.
class Log : public TempDirTest {};

const std::string kPid = std::to_string(getpid());

// True when text is one header line followed by rest. The 17-char time
// text is left to the now_text tests.
bool is_entry(const std::string& text, const std::string& level,
              const std::string& tag, const std::string& where,
              const std::string& rest = "") {
  return text.size() > 19 && text[0] == '[' && text[18] == ' ' &&
         text.substr(19) ==
             kPid + "] " + level + "(" + tag + ") " + where + "\n" + rest;
}

log_settings file_settings(const char* path, const char* tag, uint8_t flags) {
  log_settings s = {};
  snprintf(s.path, sizeof s.path, "%s", path);
  snprintf(s.tag, sizeof s.tag, "%s", tag);
  s.level = LOG_LEVEL_INFO;
  s.flags = flags;
  return s;
}

// Reconfiguring to standard error must close the file: only the close
// flushes the header and text into it.
TEST_F(Log, FileModesThresholdAndReconfigure) {
  const struct {
    const char* name;
    uint8_t flags;
    const char* tag;
    const char* kept;
  } cases[] = {{"truncate", 0, "job", ""},
               {"append, pid tag", LOG_FLAG_APPEND, "", "old\n"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    write_file("x.log", "old\n");
    log_settings s = file_settings("x.log", c.tag, c.flags);
    ASSERT_EQ(log_configure(&s), 0);
    EXPECT_EQ(log_entry(LOG_LEVEL_CODE, "f.cc", "fn", 7), 0);
    ASSERT_EQ(log_entry(LOG_LEVEL_INFO, "f.cc", "fn", 7), 1);
    fputs("hello\n", log_stream());
    ASSERT_EQ(log_configure(nullptr), 0);
    EXPECT_EQ(log_stream(), stderr);
    std::string text = read_file("x.log");
    size_t kept = strlen(c.kept);
    EXPECT_EQ(text.substr(0, kept), c.kept);
    EXPECT_TRUE(is_entry(text.substr(kept), "INFO", *c.tag ? c.tag : kPid,
                         "f.cc:fn(7)", "hello\n"))
        << text;
  }
}

}  // namespace
