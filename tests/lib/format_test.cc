#include "lib/format.h"

#include <string.h>

#include <string>

#include <gtest/gtest.h>

namespace {

std::string duration(uint32_t seconds) {
  char out[9];
  EXPECT_EQ(format_duration(seconds, out), 8);
  return out;
}

std::string size_short(int64_t bytes) {
  char out[32];
  return format_size_short(bytes, out, sizeof out);
}

std::string replaced(const char* text, size_t room, const char* from,
                     const char* to) {
  char buffer[64];
  strcpy(buffer, text);
  str_replace_all(buffer, room, from, to);
  return buffer;
}

TEST(Format, Texts) {
  const struct {
    const char* name;
    std::string got;
    const char* want;
  } cases[] = {
      {"duration 59", duration(59), "00:00:59"},
      {"duration 3661", duration(3661), "01:01:01"},
      {"duration 360000", duration(360000), "99:00:00"},
      {"duration 400000", duration(400000), "99:06:40"},
      {"short 1023", size_short(1023), "1023"},
      {"short 1024", size_short(1024), "1.00k"},
      {"short T", size_short(1099511627776), "1.00T"},
      {"short low 32 bits", size_short(-4294967291), "5"},
      {"crlf resumes behind insert", replaced("a\rb\r", 64, "\r", "\r\n"),
       "a\r\nb\r\n"},
      {"replace exact fit", replaced("aXbXc", 8, "X", "YY"), "aYYbYYc"},
      {"replace stops when full", replaced("aXbXc", 7, "X", "YY"), "aYYbXc"},
      {"replace empty search", replaced("abc", 64, "", "x"), "abc"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.got, c.want);
  }
}

}  // namespace
