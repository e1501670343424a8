// Report templates: loading a template file and replacing its tokens with
// the figures of the run.
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <iterator>
#include <string_view>

#include "agent/report.h"
#include "agent/report_internal.h"
#include "lib/format.h"
#include "lib/scoped.h"

namespace {

constexpr char kTemplateMissing[] = "\nEmail template missing!";
constexpr char kTemplateBad[] = "\nError loading email template!";
constexpr char kRemoveMeUrl[] = "https://kovra.example/remove_notification";

enum : int {
  TOKEN_JOB,
  TOKEN_ERROR_MESSAGE,
  TOKEN_ACCNAME,
  TOKEN_USERNAME,
  TOKEN_DSTPATH,
  TOKEN_START_TIME,
  TOKEN_START_SIZE,
  TOKEN_STOP_TIME,
  TOKEN_STOP_SIZE,
  TOKEN_DELTA_TIME,
  TOKEN_DELTA_SIZE,
  TOKEN_NUM_REQUESTED,
  TOKEN_NUM_TRANSFERED,
  TOKEN_NUM_UP2DATE,
  TOKEN_NUM_FAILED,
  TOKEN_ERROR_LIST,
  TOKEN_REMOVE_ME_URL,
  TOKEN_COUNT,
};

struct token {
  std::string_view text;
  int id;
};

// Tried in this order, each over its full length. TRANSFERED is kept as
// installed templates spell it.
constexpr token kTokens[] = {
    {"#JOB#", TOKEN_JOB},
    {"#ERROR_MESSAGE#", TOKEN_ERROR_MESSAGE},
    {"#ACCNAME#", TOKEN_ACCNAME},
    {"#USERNAME#", TOKEN_USERNAME},
    {"#DSTPATH#", TOKEN_DSTPATH},
    {"#START_TIME#", TOKEN_START_TIME},
    {"#START_SIZE#", TOKEN_START_SIZE},
    {"#STOP_TIME#", TOKEN_STOP_TIME},
    {"#STOP_SIZE#", TOKEN_STOP_SIZE},
    {"#DELTA_TIME#", TOKEN_DELTA_TIME},
    {"#DELTA_SIZE#", TOKEN_DELTA_SIZE},
    {"#NUM_REQUESTED#", TOKEN_NUM_REQUESTED},
    {"#NUM_TRANSFERED#", TOKEN_NUM_TRANSFERED},
    {"#NUM_UP2DATE#", TOKEN_NUM_UP2DATE},
    {"#NUM_FAILED#", TOKEN_NUM_FAILED},
    {"#ERROR_LIST#", TOKEN_ERROR_LIST},
    {"#REMOVE_ME_URL#", TOKEN_REMOVE_ME_URL},
};
static_assert(std::size(kTokens) == TOKEN_COUNT);

constexpr const char* kWeekdays[] = {"Sun", "Mon", "Tue", "Wed",
                                     "Thu", "Fri", "Sat"};
constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
static_assert(std::size(kWeekdays) == 7 && std::size(kMonths) == 12);

bool append_text(report_state* r, const char* text) {
  // A value not known yet (no account before the login, no failure
  // message) adds nothing; memcpy must not get its null even for 0 bytes.
  if (text == nullptr) {
    text = "";
  }
  return report_append(r, text, strlen(text));
}

bool append_error_list(report_state* r, bool html) {
  const str_list* list = r->error_list;
  int32_t count = list != nullptr ? list->count : 0;
  if (count <= 0) {
    return append_text(r, html ? "<tr><td class=\"rowtitle\" "
                                 "align=center>None!</td></tr>\n"
                               : " - None!\n");
  }
  // No line break behind the header row: between rows it changes nothing.
  if (html && !append_text(r,
                           "<tr><td class=\"rowtitle\">File</td>"
                           "<td class=\"rowtitle\">Error</td></tr>")) {
    return false;
  }
  // Items come in pairs; an odd last item would be a file without its text.
  for (int32_t i = 0; i + 1 < count; i += 2) {
    const char* file = str_list_get(list, i);
    const char* error = str_list_get(list, i + 1);
    bool ok = html ? append_text(r, "<tr><td>") && append_text(r, file) &&
                         append_text(r, "</td><td>") && append_text(r, error) &&
                         append_text(r, "</td></tr>\n")
                   : append_text(r, " - ") && append_text(r, file) &&
                         append_text(r, ": ") && append_text(r, error) &&
                         append_text(r, "\n");
    if (!ok) {
      return false;
    }
  }
  return true;
}

bool append_number(report_state* r, int64_t n) {
  char text[24];
  snprintf(text, sizeof text, "%lld", static_cast<long long>(n));
  return append_text(r, text);
}

bool append_value(report_state* r, int token, int flags) {
  char text[REPORT_TIME_SIZE];
  switch (token) {
    case TOKEN_JOB:
      return append_text(r, r->job_name);
    case TOKEN_ERROR_MESSAGE:
      return append_text(r, r->failure_message);
    case TOKEN_ACCNAME:
      return append_text(r, r->account_name);
    case TOKEN_USERNAME:
      return append_text(r, r->user_name);
    case TOKEN_DSTPATH:
      return append_text(r, report_format_destination(r));
    case TOKEN_START_TIME:
      return append_text(r, report_format_time(r->start_time, text));
    case TOKEN_STOP_TIME:
      return append_text(r, report_format_time(r->stop_time, text));
    case TOKEN_DELTA_TIME:
      // Kept: a failure report has no stop time of its own, so the
      // difference may be negative; it wraps as the formatter's unsigned
      // argument, as the duration always has.
      format_duration(static_cast<uint32_t>(r->stop_time - r->start_time),
                      text);
      return append_text(r, text);
    case TOKEN_NUM_REQUESTED:
      return append_number(r, r->files_total);
    case TOKEN_NUM_TRANSFERED:
      return append_number(r, r->files_sent);
    case TOKEN_NUM_UP2DATE:
      return append_number(r, r->files_up_to_date);
    case TOKEN_NUM_FAILED:
      return append_number(r, r->files_failed);
    case TOKEN_ERROR_LIST:
      return append_error_list(r, (flags & REPORT_FLAG_HTML) != 0);
    case TOKEN_REMOVE_ME_URL:
      return append_text(r, kRemoveMeUrl);
    default:
      // The size tokens stay empty: the service never reported sizes.
      return true;
  }
}

// The first token of the table that text starts with, or null.
const token* match_token(std::string_view text) {
  for (const token& t : kTokens) {
    if (text.starts_with(t.text)) {
      return &t;
    }
  }
  return nullptr;
}

}  // namespace

bool report_append(report_state* r, const char* text, size_t n) {
  if (r->state == REPORT_ABANDONED) {
    return false;
  }
  if (n > REPORT_TEXT_SIZE - 1 - r->report_length) {
    r->state = REPORT_ABANDONED;
    return false;
  }
  memcpy(r->report_text + r->report_length, text, n);
  r->report_length += n;
  r->report_text[r->report_length] = '\0';
  return true;
}

void report_template_load(const char* base, int flags,
                          char out[REPORT_TEMPLATE_SIZE]) {
  char name[1024];
  snprintf(name, sizeof name, "%s%s.emt", base,
           (flags & REPORT_FLAG_HTML) != 0 ? "_html" : "_txt");
  file_ptr f(fopen(name, "rb"));
  if (!f) {
    snprintf(out, REPORT_TEMPLATE_SIZE, "%s", kTemplateMissing);
    return;
  }
  size_t n = fread(out, 1, REPORT_TEMPLATE_SIZE - 1, f.get());
  // A read that fills the buffer may have cut the template, so it is
  // refused rather than sent half.
  if (n == 0 || n == REPORT_TEMPLATE_SIZE - 1) {
    snprintf(out, REPORT_TEMPLATE_SIZE, "%s", kTemplateBad);
    return;
  }
  out[n] = '\0';
  str_replace_all(out, REPORT_TEMPLATE_SIZE, "\r", "");
}

bool report_substitute(report_state* r, const char* tmpl, int flags) {
  r->report_length = 0;
  r->report_text[0] = '\0';
  std::string_view rest(tmpl);
  while (r->state != REPORT_ABANDONED) {
    size_t hash = rest.find('#');
    if (hash == std::string_view::npos) {
      return report_append(r, rest.data(), rest.size());
    }
    if (!report_append(r, rest.data(), hash)) {
      return false;
    }
    rest.remove_prefix(hash);
    const token* t = match_token(rest);
    if (t == nullptr) {
      // Not a token: the '#' stands for itself and the scan goes on right
      // behind it, so "##JOB#" gives "#" and the job name.
      if (!report_append(r, "#", 1)) {
        return false;
      }
      rest.remove_prefix(1);
      continue;
    }
    if (!append_value(r, t->id, flags)) {
      return false;
    }
    rest.remove_prefix(t->text.size());
  }
  return false;
}

char* report_format_time(time_t t, char out[REPORT_TIME_SIZE]) {
  struct tm local;
  out[0] = '\0';
  if (localtime_r(&t, &local) == nullptr || local.tm_wday < 0 ||
      local.tm_wday > 6 || local.tm_mon < 0 || local.tm_mon > 11) {
    return out;
  }
  // Spelled out rather than strftime's %a and %b, so that no locale can
  // change the English names.
  snprintf(out, REPORT_TIME_SIZE, "%s %s %2d %02d:%02d:%02d %lld",
           kWeekdays[local.tm_wday], kMonths[local.tm_mon], local.tm_mday,
           local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<long long>(local.tm_year) + 1900);
  return out;
}

const char* report_format_destination(report_state* r) {
  r->dstpath_text[0] = '\0';
  const char* dest = r->dest_path;
  if (dest == nullptr) {
    return r->dstpath_text;
  }
  // The destination starts with the user's own folder ("/7/Today/box");
  // the user sees that folder as "My Qarn/<name>".
  const char* rest = dest[0] != '\0' ? strchr(dest + 1, '/') : nullptr;
  snprintf(r->dstpath_text, sizeof r->dstpath_text, "My Qarn/%s%s",
           r->user_name != nullptr ? r->user_name : "",
           rest != nullptr ? rest : "");
  return r->dstpath_text;
}
