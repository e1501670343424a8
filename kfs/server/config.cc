// kfsd's configuration file: serve's options, one "key = value" a line,
// the keys being the long options without their dashes, and "data" the
// data folder. Flags on the command line win over the file.
#include <errno.h>
#include <string.h>

#include <fstream>
#include <string>

#include "kfs/server/cli_internal.h"

namespace {

std::string trim(const std::string& s) {
  size_t a = s.find_first_not_of(" \t\r");
  size_t b = s.find_last_not_of(" \t\r");
  return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

// yes/no and their usual spellings; false when it is neither.
bool parse_switch(const std::string& v, bool* on) {
  for (const char* yes : {"yes", "true", "on", "1"}) {
    if (strcasecmp(v.c_str(), yes) == 0) {
      *on = true;
      return true;
    }
  }
  for (const char* no : {"no", "false", "off", "0"}) {
    if (strcasecmp(v.c_str(), no) == 0) {
      *on = false;
      return true;
    }
  }
  return false;
}

}  // namespace

bool cli_read_config(const std::string& path, std::span<const option_def> defs,
                     option_map* out, std::string* data, std::string* error) {
  std::ifstream in(path);
  if (!in) {
    *error = path + ": " + strerror(errno);
    return false;
  }
  std::string line;
  for (int n = 1; std::getline(in, line); ++n) {
    std::string where = path + ":" + std::to_string(n) + ": ";
    std::string text = trim(line);
    if (text.empty() || text[0] == '#') {
      continue;
    }
    size_t eq = text.find('=');
    if (eq == std::string::npos) {
      *error = where + "not a setting (key = value): " + text;
      return false;
    }
    std::string key = trim(text.substr(0, eq));
    std::string value = trim(text.substr(eq + 1));
    if (key == "data") {
      *data = value;
      continue;
    }
    const option_def* def = nullptr;
    for (const option_def& d : defs) {
      if (std::string(d.name) == "--" + key) {
        def = &d;
      }
    }
    if (def == nullptr || key == "config") {
      *error = where + "unknown setting " + key;
      return false;
    }
    if (out->count(def->name) != 0 && !def->repeats) {
      *error = where + key + " given twice";
      return false;
    }
    if (def->takes_value) {
      if (value.empty()) {
        *error = where + key + " needs a value";
        return false;
      }
      (*out)[def->name].push_back(value);
      continue;
    }
    bool on = false;
    if (!parse_switch(value, &on)) {
      *error = where + key + " takes yes or no";
      return false;
    }
    if (on) {
      (*out)[def->name];
    }
  }
  if (in.bad()) {
    *error = path + ": " + strerror(errno);
    return false;
  }
  return true;
}
