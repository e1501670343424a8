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

// Job "n": 02:00 every day of 2026's first quarter, and two more on
// 31 March (03:00, 14:00); job "w": three Sundays of March. Each point is
// named "<job> <month>-<day> <hour>".
std::vector<kfsd_point> calendar() {
  std::vector<kfsd_point> out;
  auto add = [&](const char* job, int month, int day, int hour) {
    struct tm tm = {};
    tm.tm_year = 2026 - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;  // beyond the month's end: into the next
    tm.tm_hour = hour;
    kfsd_point p;
    p.id = static_cast<int64_t>(out.size()) + 1;
    p.time = timegm(&tm);
    p.job = job;
    p.job_file = std::string(job) + ".job";
    char name[32];
    strftime(name, sizeof name, " %m-%d %H", &tm);
    p.name = job + std::string(name);
    out.push_back(p);
  };
  for (int day = 1; day <= 31 + 28 + 31; ++day) {
    add("n", 1, day, 2);
  }
  add("n", 3, 31, 3);
  add("n", 3, 31, 14);
  for (int d : {1, 8, 15}) {
    add("w", 3, d, 9);
  }
  return out;
}

TEST(Retention, KeepsTheNewestOfEachPeriodPerJob) {
  setenv("TZ", "UTC", 1);
  tzset();
  const std::set<std::string> newest_two = {"n 03-31 14", "n 03-31 03",
                                            "w 03-15 09", "w 03-08 09"};
  const struct {
    kfsd_retention rules;
    std::set<std::string> kept;
  } rows[] = {
      {{.last = 2}, newest_two},
      {{.hourly = 2}, newest_two},
      {{.daily = 3},
       {"n 03-31 14", "n 03-30 02", "n 03-29 02", "w 03-15 09", "w 03-08 09",
        "w 03-01 09"}},
      // 31 March 2026 is a Tuesday: its ISO week began on the 30th.
      {{.weekly = 2}, {"n 03-31 14", "n 03-29 02", "w 03-15 09", "w 03-08 09"}},
      {{.monthly = 3},
       {"n 03-31 14", "n 02-28 02", "n 01-31 02", "w 03-15 09"}},
      {{.yearly = 5}, {"n 03-31 14", "w 03-15 09"}},
      // Within 2 days of each job's newest.
      {{.within = 2 * 86400},
       {"n 03-31 14", "n 03-31 03", "n 03-31 02", "n 03-30 02", "w 03-15 09"}},
      {{.last = 1, .monthly = 2}, {"n 03-31 14", "n 02-28 02", "w 03-15 09"}},
      {{}, {}},  // no rules: everything
  };
  std::vector<kfsd_point> points = calendar();
  for (size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(i);
    std::set<std::string> kept;
    for (int64_t id : kfsd_retention_keep(points, rows[i].rules)) {
      kept.insert(points[static_cast<size_t>(id - 1)].name);
    }
    if (rows[i].kept.empty()) {
      EXPECT_EQ(kept.size(), points.size());
    } else {
      EXPECT_EQ(kept, rows[i].kept);
    }
  }
}

TEST(Retention, Durations) {
  const struct {
    const char* text;
    int64_t seconds;  // -1: refused
  } rows[] = {{"12h", 43200},   {"7d", 604800},
              {"2w", 1209600},  {"1y6m", 47088000},
              {"6m", 15552000}, {"", -1},
              {"7", -1},        {"d", -1},
              {"3x", -1},       {"99999999999d", -1},
              {"d1d", -1}};
  for (const auto& row : rows) {
    int64_t got = -1;
    EXPECT_EQ(kfsd_parse_duration(row.text, &got), row.seconds >= 0)
        << row.text;
    if (row.seconds >= 0) {
      EXPECT_EQ(got, row.seconds) << row.text;
    }
  }
}

}  // namespace
