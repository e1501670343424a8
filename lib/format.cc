#include "lib/format.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "lib/alloc.h"
#include "lib/str_list.h"

namespace {

void put_two_digits(char* out, uint32_t value) {
  out[0] = static_cast<char>('0' + value / 10);
  out[1] = static_cast<char>('0' + value % 10);
}

// snprintf reports the length it wanted; callers get what is in the buffer.
int written(int wanted, size_t size) {
  if (wanted < 0 || size == 0) {
    return 0;
  }
  if (static_cast<size_t>(wanted) >= size) {
    return static_cast<int>(size - 1);
  }
  return wanted;
}

// The <ctype.h> tests take an unsigned char value; plain char is signed on
// x86 and unsigned on ARM, so every byte goes through this cast.
int byte_of(const char* p) {
  return static_cast<unsigned char>(*p);
}

}  // namespace

int format_duration(uint32_t seconds, char* out) {
  memcpy(out, "00:00:00", 9);
  uint32_t rest = seconds;
  if (seconds > 3599) {
    uint32_t hours = seconds / 3600;
    rest = seconds % 3600;
    // Kept: the field has two places, so long runs show 99 hours with the
    // true minutes and seconds of the remainder.
    put_two_digits(out, hours > 99 ? 99 : hours);
  }
  put_two_digits(out + 3, rest / 60);
  put_two_digits(out + 6, rest % 60);
  return 8;
}

int format_size(double bytes, char* out, size_t size) {
  if (!(bytes > 1024.0)) {
    // Kept: small counts carry no unit at all, not even "B".
    return written(snprintf(out, size, "%.2f", bytes), size);
  }
  static constexpr char kUnits[] = "KMGTPE";
  static_assert(sizeof(kUnits) - 1 == 6);
  double value = bytes;
  char unit = 0;
  // Up to seven divisions: the seventh keeps E, the last unit there is.
  for (int step = 0; step < 7; ++step) {
    value *= 1.0 / 1024.0;
    unit = kUnits[step < 6 ? step : 5];
    if (!(value > 1024.0)) {
      break;
    }
  }
  return written(snprintf(out, size, "%.2f %cB", value, unit), size);
}

char* format_size_short(int64_t bytes, char* out, size_t size) {
  double d = static_cast<double>(bytes);
  if (d < 1024.0) {
    // Printed as an int: a negative count keeps only its low 32 bits.
    snprintf(out, size, "%d",
             static_cast<int32_t>(
                 static_cast<uint32_t>(static_cast<uint64_t>(bytes))));
    return out;
  }
  double value;
  char unit;
  if (d < 1048576.0) {
    value = d / 1024.0;
    unit = 'k';
  } else if (d < 1073741824.0) {
    value = d / 1048576.0;
    unit = 'M';
  } else if (d < 1099511627776.0) {
    value = d / 1073741824.0;
    unit = 'G';
  } else {
    value = d / 1099511627776.0;
    unit = 'T';
  }
  snprintf(out, size, "%.2f%c", value, unit);
  return out;
}

int format_ipv4(uint32_t addr, char* out) {
  return snprintf(out, 16, "%d.%d.%d.%d", static_cast<int>(addr >> 24),
                  static_cast<int>((addr >> 16) & 255),
                  static_cast<int>((addr >> 8) & 255),
                  static_cast<int>(addr & 255));
}

uint32_t parse_ipv4(const char* text) {
  if (text == nullptr) {
    return 0;
  }
  str_list* pieces = str_split(text, ".", str_list_new(4, 1, nullptr));
  uint32_t part[4];
  for (int32_t i = 0; i < 4; ++i) {
    // str_list_get gives null past the last piece; strtol must not see it.
    const char* piece = str_list_get(pieces, i);
    part[i] = piece == nullptr
                  ? 0
                  : static_cast<uint32_t>(strtol(piece, nullptr, 10));
  }
  str_list_free(pieces);
  return part[0] << 24 | (part[1] & 255) << 16 | (part[2] & 255) << 8 |
         (part[3] & 255);
}

char* now_text(char* out) {
  if (out == nullptr) {
    return nullptr;
  }
  time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  int year = local.tm_year;
  // Kept: one subtraction only, so the field grows a third digit in 2100.
  if (year > 99) {
    year -= 100;
  }
  // Formatted here first: the caller's buffer has no size, and every field
  // is an int that snprintf must be free to print in full.
  char text[80];
  int n = snprintf(text, sizeof text, "%.2d/%.2d/%.2d %.2d:%.2d:%.2d",
                   local.tm_mon + 1, local.tm_mday, year, local.tm_hour,
                   local.tm_min, local.tm_sec);
  memcpy(out, text, static_cast<size_t>(n) + 1);
  return out;
}

time_t time_now() {
  return time(nullptr);
}

uint64_t time_now_ms() {
  // The same value as ftime's time * 1000 + millitm, without the deprecated
  // call.
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000u +
         static_cast<uint64_t>(ts.tv_nsec / 1000000);
}

void str_replace_all(char* buffer, size_t size, const char* from,
                     const char* to) {
  size_t from_len = strlen(from);
  if (from_len == 0) {
    // An empty search text matches everywhere and, with an empty
    // replacement, forever.
    return;
  }
  size_t to_len = strlen(to);
  size_t len = strlen(buffer);
  char* search = buffer;
  char* hit;
  while ((hit = strstr(search, from)) != nullptr) {
    size_t new_len = len - from_len + to_len;
    if (new_len >= size) {
      break;
    }
    size_t tail_start = static_cast<size_t>(hit - buffer) + from_len;
    // The tail moves first, its 0 byte with it, so to never overwrites it.
    memmove(hit + to_len, hit + from_len, len - tail_start + 1);
    memcpy(hit, to, to_len);
    len = new_len;
    search = hit + to_len;
  }
}

int str_is_alpha(const char* text) {
  for (const char* p = text; *p != '\0'; ++p) {
    if (!isalpha(byte_of(p))) {
      return 0;
    }
  }
  return 1;
}

int str_is_identifier(const char* text) {
  const char* p = text;
  // Kept: the test comes before the end check, so "" is no identifier.
  do {
    if (!isalnum(byte_of(p)) && *p != '_') {
      return 0;
    }
    ++p;
  } while (*p != '\0');
  return 1;
}

int str_is_digits(const char* text) {
  for (const char* p = text; *p != '\0'; ++p) {
    if (!isdigit(byte_of(p))) {
      return 0;
    }
  }
  return 1;
}

const char* safe_strerror(int errnum) {
  int saved = errno;
  errno = 0;
  const char* text = strerror(errnum);
  if (errno != 0 || text == nullptr) {
    text = "Unknown error";
  }
  errno = saved;
  return text;
}

char* memdup_z(const void* bytes, size_t n) {
  if (bytes == nullptr) {
    return nullptr;
  }
  char* copy = static_cast<char*>(xmalloc(n + 1));
  memcpy(copy, bytes, n);
  copy[n] = '\0';
  return copy;
}

void dump_bytes(const void* bytes, int32_t start, int32_t n) {
  if (bytes == nullptr) {
    printf("b is null\n");
    return;
  }
  if (n == 0) {
    printf("Array length is 0\n");
    return;
  }
  const uint8_t* b = static_cast<const uint8_t*>(bytes) + start;
  for (int32_t i = 0; i < n; ++i) {
    printf("%d ", b[i]);
  }
  printf("\n");
}
