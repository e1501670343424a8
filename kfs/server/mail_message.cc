// Outbox files, and the mail message made of one: subject, headers and a
// quoted-printable body.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <string>
#include <vector>

#include <openssl/evp.h>

#include "kfs/server/mail.h"
#include "lib/scoped.h"

namespace {

// Header values come from the wire: a line break would end the header.
std::string one_line(std::string_view value) {
  std::string out(value);
  for (char& c : out) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      c = ' ';
    }
  }
  return out;
}

bool ascii_printable(std::string_view s) {
  for (unsigned char c : s) {
    if (c < 0x20 || c > 0x7e) {
      return false;
    }
  }
  return true;
}

// The job name as a subject can carry it: at most 200 bytes, not cut
// inside a UTF-8 sequence.
std::string short_job(std::string_view job) {
  std::string out = one_line(job);
  if (out.size() > 200) {
    size_t end = 200;
    while (end > 0 && (static_cast<unsigned char>(out[end]) & 0xc0) == 0x80) {
      --end;
    }
    out.resize(end);
  }
  return out;
}

// A header value with bytes beyond ASCII as encoded words (base64, whole
// UTF-8 sequences each, short enough that a header line stays within 76
// characters), folded between them.
std::string header_text(std::string_view value) {
  if (ascii_printable(value) && value.size() <= 900) {
    return std::string(value);
  }
  std::string out;
  size_t at = 0;
  while (at < value.size()) {
    size_t end = std::min(value.size(), at + 39);
    while (end < value.size() && end > at + 1 &&
           (static_cast<unsigned char>(value[end]) & 0xc0) == 0x80) {
      --end;
    }
    unsigned char b64[64];
    int n = EVP_EncodeBlock(
        b64, reinterpret_cast<const unsigned char*>(value.data() + at),
        static_cast<int>(end - at));
    if (!out.empty()) {
      out += "\r\n ";
    }
    out += "=?UTF-8?B?";
    out.append(reinterpret_cast<char*>(b64), static_cast<size_t>(n));
    out += "?=";
    at = end;
  }
  return out;
}

// The text a reader sees: markup removed, so "<td>3</td><td>failed</td>"
// reads "3 failed".
std::string visible_text(std::string_view text) {
  std::string out;
  bool in_tag = false;
  for (char c : text) {
    if (c == '<') {
      in_tag = true;
      out += ' ';
    } else if (c == '>') {
      in_tag = false;
    } else if (!in_tag) {
      out += c;
    }
  }
  return out;
}

bool looks_like_html(std::string_view text) {
  size_t i = text.find_first_not_of(" \t\r\n");
  return i != std::string_view::npos && text[i] == '<';
}

// The failed-file count a report states, as "Files failed: 3" or
// "3 failed"; -1 when it states none.
long failed_count(std::string_view text) {
  std::string visible =
      looks_like_html(text) ? visible_text(text) : std::string(text);
  std::vector<std::string> words;
  std::string word;
  for (char c : visible) {
    if (std::isalnum(static_cast<unsigned char>(c))) {
      word += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    } else if (!word.empty()) {
      words.push_back(std::move(word));
      word.clear();
    }
  }
  if (!word.empty()) {
    words.push_back(std::move(word));
  }
  auto number = [](const std::string& w) {
    return w.size() <= 9 &&
           w.find_first_not_of("0123456789") == std::string::npos;
  };
  for (size_t i = 0; i < words.size(); ++i) {
    if (words[i] != "failed") {
      continue;
    }
    if (i > 0 && number(words[i - 1])) {
      return strtol(words[i - 1].c_str(), nullptr, 10);
    }
    if (i + 1 < words.size() && number(words[i + 1])) {
      return strtol(words[i + 1].c_str(), nullptr, 10);
    }
  }
  return -1;
}

}  // namespace

int kfsd_outbox_put(const std::string& dir, const std::string& temp_path,
                    const kfsd_outbox_message& m) {
  // Names sort in arrival order (time, then a zero-padded sequence), so
  // the outbox is delivered in order. A server restarted within the same
  // second starts its sequence again: link() never replaces a message, the
  // next number is tried instead.
  static std::atomic<uint32_t> sequence{0};
  std::string head = "kfsd-user: " + std::to_string(m.user) +
                     "\nkfsd-kind: " + std::to_string(m.kind) +
                     "\nkfsd-recipient: " + one_line(m.recipient) +
                     "\nkfsd-subject: " + one_line(m.subject) +
                     "\nkfsd-job: " + one_line(m.job) + "\n\n";
  file_ptr f(fopen(temp_path.c_str(), "w"));
  bool ok = f && fwrite(head.data(), 1, head.size(), f.get()) == head.size();
  ok = ok && fwrite(m.text.data(), 1, m.text.size(), f.get()) == m.text.size();
  ok = f && fclose(f.release()) == 0 && ok;
  int rc = -1;
  int error = errno;
  for (int attempt = 0; ok && attempt < 1000 && rc != 0; ++attempt) {
    char name[64];
    snprintf(name, sizeof name, "%lld-%08u.msg",
             static_cast<long long>(time(nullptr)), ++sequence);
    std::string dest = dir + "/" + name;
    rc = link(temp_path.c_str(), dest.c_str());
    error = errno;
    ok = rc == 0 || errno == EEXIST;
  }
  unlink(temp_path.c_str());
  errno = error;
  return rc == 0 ? 0 : -1;
}

bool kfsd_outbox_parse(std::string_view name, std::string_view content,
                       kfsd_outbox_message* out) {
  *out = kfsd_outbox_message{};
  out->name = std::string(name);
  char* end = nullptr;
  std::string digits(name.substr(0, name.find('-')));
  out->time = static_cast<time_t>(strtoll(digits.c_str(), &end, 10));
  if (digits.empty() || *end != '\0') {
    return false;
  }
  size_t at = 0;
  while (true) {
    size_t nl = content.find('\n', at);
    if (nl == std::string_view::npos) {
      return false;  // no end of the header lines
    }
    std::string_view line = content.substr(at, nl - at);
    at = nl + 1;
    if (line.empty()) {
      break;
    }
    size_t colon = line.find(": ");
    if (colon == std::string_view::npos) {
      return false;
    }
    std::string_view key = line.substr(0, colon);
    std::string value(line.substr(colon + 2));
    if (key == "kfsd-user") {
      out->user = static_cast<uint32_t>(strtoul(value.c_str(), nullptr, 10));
    } else if (key == "kfsd-kind") {
      out->kind = static_cast<uint8_t>(strtoul(value.c_str(), nullptr, 10));
    } else if (key == "kfsd-recipient") {
      out->recipient = value;
    } else if (key == "kfsd-subject") {
      out->subject = value;
    } else if (key == "kfsd-job") {
      out->job = value;
    }
  }
  out->text = std::string(content.substr(at));
  return true;
}

std::string kfsd_mail_subject(const kfsd_outbox_message& m) {
  if (!m.subject.empty()) {
    return one_line(m.subject);
  }
  std::string job = short_job(m.job);
  std::string subject = m.kind == 0 ? "Backup completed" : "Backup message";
  long failed = m.kind == 0 ? failed_count(m.text) : -1;
  if (failed > 0) {
    subject += " with " + std::to_string(failed) +
               (failed == 1 ? " failed file" : " failed files");
  }
  return job.empty() ? subject : subject + ": " + job;
}

std::string kfsd_quoted_printable(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size() + text.size() / 8 + 16);
  size_t column = 0;
  auto put = [&](std::string_view piece) {
    if (column + piece.size() > 75) {  // leaves room for the soft break
      out += "=\r\n";
      column = 0;
    }
    out += piece;
    column += piece.size();
  };
  size_t line_start = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '\n') {
      out += "\r\n";
      column = 0;
      line_start = i + 1;
      continue;
    }
    bool at_line_end = i + 1 == text.size() || text[i + 1] == '\n';
    // A line's leading "." could be read as the end of the data and a
    // leading "From " gets rewritten by some mailboxes: both go encoded.
    bool first = i == line_start;
    bool literal = (c >= 33 && c <= 126 && c != '=') ||
                   ((c == ' ' || c == '\t') && !at_line_end);
    if (first && (c == '.' || text.substr(i, 5) == "From ")) {
      literal = false;
    }
    if (literal) {
      char one[1] = {static_cast<char>(c)};
      put(std::string_view(one, 1));
    } else {
      char three[3] = {'=', kHex[c >> 4], kHex[c & 15]};
      put(std::string_view(three, 3));
    }
  }
  if (!text.empty() && text.back() != '\n') {
    out += "=\r\n";  // the text ends without a line break, and so does this
  }
  return out;
}

std::string kfsd_mail_compose(const kfsd_outbox_message& m,
                              const std::string& from, const std::string& to,
                              const std::string& host) {
  char date[64];
  struct tm tm;
  localtime_r(&m.time, &tm);
  strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S %z", &tm);
  // Stable across restarts, so a copy sent twice is recognisable as one.
  std::string id = m.name.substr(0, m.name.rfind('.'));
  std::string out = "From: " + one_line(from) + "\r\nTo: " + one_line(to) +
                    "\r\nDate: " + date + "\r\nMessage-ID: <" + id + "." +
                    std::to_string(m.user) + "@" + one_line(host) +
                    ">\r\nSubject: " + header_text(kfsd_mail_subject(m)) +
                    "\r\nMIME-Version: 1.0\r\nContent-Type: " +
                    (looks_like_html(m.text) ? "text/html" : "text/plain") +
                    "; charset=UTF-8\r\n"
                    "Content-Transfer-Encoding: quoted-printable\r\n"
                    "X-Mailer: kfsd\r\n\r\n";
  out += kfsd_quoted_printable(m.text);
  return out;
}
