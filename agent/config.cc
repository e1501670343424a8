#include "agent/config.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <openssl/evp.h>

#include "agent/job.h"
#include "agent/report.h"
#include "agent/root.h"
#include "lib/alloc.h"
#include "lib/scoped.h"

namespace {

constexpr const char* kKeyPath = "etc/account.key";
constexpr const char* kSupportAddress = "support@kovra.example";

// The single-valued keys, in the order of the CONFIG_* rows.
constexpr const char* kTableKeys[CONFIG_KEY_COUNT] = {
    "UserId=", "Dest=", "name=", "autoremove=", "mirror=",
};

job_settings settings_of_run;
bool run_active = false;

bool starts_with_key(const char* line, const char* key) {
  return strncasecmp(line, key, strlen(key)) == 0;
}

char* copy_text(const char* text) {
  size_t len = strlen(text);
  char* copy = static_cast<char*>(xmalloc(len + 1));
  memcpy(copy, text, len + 1);
  return copy;
}

void append(str_list* list, const char* text) {
  str_list_insert(list, text, static_cast<uint32_t>(strlen(text)),
                  str_list_count(list));
}

// Handles one line that is not a comment; returns 0 or an error number.
int parse_line(const char* line, job_settings* s, bool given[]) {
  if (starts_with_key(line, "Src=")) {
    append(s->src, line + 4);
    return 0;
  }
  if (starts_with_key(line, "XSrc=")) {
    append(s->xsrc, line + 5);
    return 0;
  }
  // The remaining checks fall through to one another, as a line can only
  // match one of them anyway.
  if (starts_with_key(line, "Email=")) {
    if (s->email != nullptr) {
      return CONFIG_ERR_EMAIL_TWICE;
    }
    s->email = str_split(line + 6, ",", nullptr);
  }
  if (starts_with_key(line, "html=")) {
    if (strtol(line + 5, nullptr, 10) != 0) {
      s->html |= 1;
    } else {
      s->html &= ~1;
    }
  }
  if (starts_with_key(line, "schedule_email=")) {
    if (s->email == nullptr) {
      s->email = str_list_new(16, 4, nullptr);
      if (s->email == nullptr) {
        return CONFIG_ERR_EMAIL_LIST;
      }
    }
    append(s->email, line + 15);
  }
  for (int row = 0; row < CONFIG_KEY_COUNT; ++row) {
    if (!starts_with_key(line, kTableKeys[row])) {
      continue;
    }
    if (given[row]) {
      return CONFIG_ERR_REPEATED;
    }
    given[row] = true;
    s->values[row] = copy_text(line + strlen(kTableKeys[row]));
    if (s->values[row] == nullptr) {
      return CONFIG_ERR_COPY;
    }
  }
  return 0;
}

bool sha1(const uint8_t* data, size_t len, uint8_t out[KEY_DIGEST_SIZE]) {
  unsigned int out_len = 0;
  return EVP_Digest(data, len, out, &out_len, EVP_sha1(), nullptr) == 1 &&
         out_len == KEY_DIGEST_SIZE;
}

}  // namespace

int job_config_parse(const char* config_path, job_settings* s) {
  memset(s, 0, sizeof *s);
  file_ptr f(fopen(config_path, "rb"));
  if (!f) {
    return CONFIG_ERR_OPEN;
  }
  s->src = str_list_new(50, 25, nullptr);
  s->xsrc = str_list_new(1, 1, nullptr);
  s->html = 1;
  // The fixed settings count as given, so a line naming either of them is a
  // repeated key: they cannot be changed from a job file.
  bool given[CONFIG_KEY_COUNT] = {};
  s->values[CONFIG_AUTOREMOVE] = copy_text("0");
  s->values[CONFIG_MIRROR] = copy_text("1");
  given[CONFIG_AUTOREMOVE] = given[CONFIG_MIRROR] = true;

  // A line longer than the buffer arrives in pieces, each taken as a line.
  char line[CONFIG_LINE_SIZE];
  while (fgets(line, sizeof line, f.get()) != nullptr) {
    if (line[0] == ';' || line[0] == '#') {
      continue;
    }
    line[strcspn(line, "\n")] = '\0';
    line[strcspn(line, "\r")] = '\0';
    int err = parse_line(line, s, given);
    if (err != 0) {
      job_config_release(s);
      return err;
    }
  }
  f.reset();
  for (int row = 0; row < CONFIG_KEY_COUNT; ++row) {
    if (!given[row]) {
      printf("Missing: %s\n", kTableKeys[row]);
      job_config_release(s);
      return CONFIG_ERR_MISSING;
    }
  }
  return 0;
}

void job_config_release(job_settings* s) {
  str_list_free(s->src);
  str_list_free(s->xsrc);
  str_list_free(s->email);
  s->src = s->xsrc = s->email = nullptr;
  for (char*& value : s->values) {
    free(value);
    value = nullptr;
  }
}

char* report_file_name(const char* config_path, char* out) {
  snprintf(out, CONFIG_LINE_SIZE, "%s.eml", config_path);
  for (int suffix = 1;; ++suffix) {
    file_ptr existing(fopen(out, "r"));
    // After -9 no further suffix is tried: the -9 file gets overwritten.
    if (!existing || suffix > 9) {
      return out;
    }
    snprintf(out, CONFIG_LINE_SIZE, "%s-%d.eml", config_path, suffix);
  }
}

long job_config_number(const job_settings* s, int row) {
  if (row < 0 || row >= CONFIG_KEY_COUNT || s->values[row] == nullptr) {
    return 0;
  }
  return strtol(s->values[row], nullptr, 10);
}

const job_settings* job_config() {
  return run_active ? &settings_of_run : nullptr;
}

int read_job_configuration(const char* config_path) {
  job_settings* s = &settings_of_run;
  uint8_t key[ACCOUNT_KEY_SIZE];
  int key_result = account_key_read(kKeyPath, key);
  if (key_result == -1) {
    fprintf(stderr, "can't find encryption key '%s/%s'\n", kovra_root(),
            kKeyPath);
    return CONFIG_ERR_KEY;
  }
  if (key_result != 0) {
    fprintf(stderr, "invalid encryption key '%s/%s'\nPlease contact %s\n",
            kovra_root(), kKeyPath, kSupportAddress);
    return CONFIG_ERR_KEY;
  }
  int err = job_config_parse(config_path, s);
  if (err != 0) {
    return err;
  }
  memcpy(s->account_key, key, sizeof key);
  report_file_name(config_path, s->report_path);
  if (!sha1(s->account_key, ACCOUNT_KEY_SIZE, s->key_digest)) {
    // SHA-1 from the system's own crypto library does not fail in practice;
    // a zero digest would only make the server refuse the login.
    memset(s->key_digest, 0, sizeof s->key_digest);
  }
  run_active = true;
  report_configure(
      s->report_path, s->values[CONFIG_NAME], s->email, 0, 0, 0,
      static_cast<int64_t>(strtoul(s->values[CONFIG_USER_ID], nullptr, 10)),
      s->key_digest, s->html);
  run_job(config_path);  // the outcome is told by the report
  run_active = false;
  job_config_release(s);
  return 0;
}
