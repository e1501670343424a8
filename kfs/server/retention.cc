// Retention rules: which restore points to keep.
#include <time.h>

#include <algorithm>
#include <map>

#include "kfs/server/store.h"

namespace {

// The period a point falls in, in local time, by a strftime format.
std::string period(int64_t when, const char* format) {
  time_t t = static_cast<time_t>(when);
  struct tm tm;
  char out[32] = "";
  if (localtime_r(&t, &tm) != nullptr) {
    strftime(out, sizeof out, format, &tm);
  }
  return out;
}

}  // namespace

std::set<int64_t> kfsd_retention_keep(const std::vector<kfsd_point>& points,
                                      const kfsd_retention& rules) {
  std::set<int64_t> keep;
  std::map<std::pair<std::string, std::string>, std::vector<const kfsd_point*>>
      series;
  for (const kfsd_point& p : points) {
    if (rules.empty()) {
      keep.insert(p.id);
    }
    series[{p.job, p.job_file}].push_back(&p);
  }
  if (rules.empty()) {
    return keep;
  }
  const std::pair<uint32_t, const char*> periods[] = {
      {rules.hourly, "%Y-%m-%d %H"},
      {rules.daily, "%Y-%m-%d"},
      {rules.weekly, "%G-%V"},  // ISO weeks: a week that spans a new year
      {rules.monthly, "%Y-%m"},
      {rules.yearly, "%Y"},
  };
  for (auto& [job, list] : series) {
    std::sort(list.begin(), list.end(),
              [](const kfsd_point* a, const kfsd_point* b) {
                return a->time != b->time ? a->time > b->time : a->id > b->id;
              });
    for (size_t i = 0; i < list.size() && i < rules.last; ++i) {
      keep.insert(list[i]->id);
    }
    for (const kfsd_point* p : list) {
      if (rules.within > 0 && p->time > list.front()->time - rules.within) {
        keep.insert(p->id);
      }
    }
    // The newest point of each period, for as many periods as the rule
    // counts, back from the newest.
    for (const auto& [count, format] : periods) {
      std::string last;
      uint32_t left = count;
      for (size_t i = 0; i < list.size() && left > 0; ++i) {
        std::string p = period(list[i]->time, format);
        if (i == 0 || p != last) {
          keep.insert(list[i]->id);
          last = p;
          --left;
        }
      }
    }
  }
  return keep;
}

bool kfsd_parse_duration(const std::string& text, int64_t* seconds) {
  constexpr int64_t kDay = 86400;
  int64_t total = 0;
  size_t i = 0;
  while (i < text.size()) {
    int64_t n = 0;
    size_t digits = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i, ++digits) {
      if (n > 1000000) {
        return false;  // far beyond any sensible retention
      }
      n = n * 10 + (text[i] - '0');
    }
    if (digits == 0 || i == text.size()) {
      return false;
    }
    switch (text[i++]) {
      case 'h': total += n * 3600; break;
      case 'd': total += n * kDay; break;
      case 'w': total += n * 7 * kDay; break;
      case 'm': total += n * 30 * kDay; break;
      case 'y': total += n * 365 * kDay; break;
      default: return false;
    }
  }
  *seconds = total;
  return total > 0;
}
