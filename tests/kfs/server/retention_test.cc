// Retention rules over a calendar of points: exactly the expected points
// are kept, each job's points judged on their own.
#include <stdlib.h>
#include <time.h>

#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kfs/server/store.h"

namespace {

int64_t utc(int month, int day, int hour) {
  struct tm tm = {};
  tm.tm_year = 2026 - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  return timegm(&tm);
}

// "nightly": 02:00 every day of 2026's first quarter, and two more on
// 31 March (03:00, 14:00); "weekly": three Sundays of March. Each point is
// named "<job> <month>-<day> <hour>".
std::vector<kfsd_point> calendar() {
  std::vector<kfsd_point> out;
  auto add = [&](const char* job, int month, int day, int hour) {
    kfsd_point p;
    p.id = static_cast<int64_t>(out.size()) + 1;
    p.time = utc(month, day, hour);
    p.job = job;
    p.job_file = std::string(job) + ".job";
    char name[64];
    snprintf(name, sizeof name, "%s %02d-%02d %02d", job, month, day, hour);
    p.name = name;
    out.push_back(p);
  };
  const int days[] = {31, 28, 31};
  for (int m = 1; m <= 3; ++m) {
    for (int d = 1; d <= days[m - 1]; ++d) {
      add("nightly", m, d, 2);
    }
  }
  add("nightly", 3, 31, 3);
  add("nightly", 3, 31, 14);
  for (int d : {1, 8, 15}) {
    add("weekly", 3, d, 9);
  }
  return out;
}

TEST(Retention, KeepsTheNewestOfEachPeriodPerJob) {
  setenv("TZ", "UTC", 1);
  tzset();
  const struct {
    const char* name;
    kfsd_retention rules;
    std::set<std::string> kept;
  } cases[] = {
      {"last 2",
       {.last = 2},
       {"nightly 03-31 14", "nightly 03-31 03", "weekly 03-15 09",
        "weekly 03-08 09"}},
      {"hourly 2",
       {.hourly = 2},
       {"nightly 03-31 14", "nightly 03-31 03", "weekly 03-15 09",
        "weekly 03-08 09"}},
      {"daily 3",
       {.daily = 3},
       {"nightly 03-31 14", "nightly 03-30 02", "nightly 03-29 02",
        "weekly 03-15 09", "weekly 03-08 09", "weekly 03-01 09"}},
      // 31 March 2026 is a Tuesday: its ISO week began on the 30th.
      {"weekly 2",
       {.weekly = 2},
       {"nightly 03-31 14", "nightly 03-29 02", "weekly 03-15 09",
        "weekly 03-08 09"}},
      {"monthly 3",
       {.monthly = 3},
       {"nightly 03-31 14", "nightly 02-28 02", "nightly 01-31 02",
        "weekly 03-15 09"}},
      {"yearly 5", {.yearly = 5}, {"nightly 03-31 14", "weekly 03-15 09"}},
      {"within 2 days of each job's newest",
       {.within = 2 * 86400},
       {"nightly 03-31 14", "nightly 03-31 03", "nightly 03-31 02",
        "nightly 03-30 02", "weekly 03-15 09"}},
      {"last 1 and monthly 2",
       {.last = 1, .monthly = 2},
       {"nightly 03-31 14", "nightly 02-28 02", "weekly 03-15 09"}},
  };
  std::vector<kfsd_point> points = calendar();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::set<std::string> kept;
    for (int64_t id : kfsd_retention_keep(points, c.rules)) {
      kept.insert(points[static_cast<size_t>(id - 1)].name);
    }
    EXPECT_EQ(kept, c.kept);
  }
  EXPECT_EQ(kfsd_retention_keep(points, {}).size(), points.size());
}

TEST(Retention, Durations) {
  const struct {
    const char* text;
    int64_t seconds;  // -1: refused
  } cases[] = {{"12h", 43200},         {"7d", 604800}, {"2w", 1209600},
               {"1y6m", 47088000},     {"6m", 15552000}, {"", -1},
               {"7", -1},              {"d", -1},      {"3x", -1},
               {"99999999999d", -1}};
  for (const auto& c : cases) {
    int64_t got = -1;
    EXPECT_EQ(kfsd_parse_duration(c.text, &got), c.seconds >= 0) << c.text;
    if (c.seconds >= 0) {
      EXPECT_EQ(got, c.seconds) << c.text;
    }
  }
}

}  // namespace
