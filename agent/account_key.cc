#include "agent/account_key.h"

#include <stdio.h>

#include "lib/hex.h"
#include "lib/scoped.h"

namespace {

constexpr size_t kKeyDigits = 2 * ACCOUNT_KEY_SIZE;
constexpr size_t kLineSize = 1024;

bool is_hex_digit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') ||
         (c >= 'A' && c <= 'F');
}

}  // namespace

int account_key_read(const char* path, uint8_t key[ACCOUNT_KEY_SIZE]) {
  file_ptr f(fopen(path, "r"));
  if (!f) {
    return -1;
  }
  char digits[kKeyDigits];
  size_t count = 0;
  char line[kLineSize];
  while (fgets(line, sizeof line, f.get()) != nullptr) {
    if (line[0] == '|' || line[0] == '\0') {
      continue;
    }
    if (line[0] == '-') {
      break;
    }
    for (const char* p = line; *p != '\0'; ++p) {
      if (!is_hex_digit(*p)) {
        continue;
      }
      if (count == kKeyDigits) {
        return -2;
      }
      digits[count++] = *p;
    }
  }
  f.reset();
  if (count < kKeyDigits) {
    return -2;
  }
  hex_decode(digits, ACCOUNT_KEY_SIZE, key);
  return 0;
}
