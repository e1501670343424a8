#include "lib/hex.h"

namespace {

constexpr char kDigits[] = "0123456789ABCDEF";
static_assert(sizeof(kDigits) == 17);

// Works on the byte's unsigned value, as the ARM box (unsigned char) does.
int nibble(char c) {
  int v = static_cast<uint8_t>(c);
  if (v >= 'a') {
    return v - 87;
  }
  if (v > 64) {
    return v - 55;
  }
  return v - 48;
}

}  // namespace

char* hex_encode(const void* bytes, int32_t n, char* out) {
  const uint8_t* in = static_cast<const uint8_t*>(bytes);
  char* p = out;
  for (int32_t i = 0; i < n; ++i) {
    *p++ = kDigits[in[i] >> 4];
    *p++ = kDigits[in[i] & 0x0F];
  }
  *p = '\0';
  return out;
}

void* hex_decode(const char* text, int32_t n, void* out) {
  uint8_t* dst = static_cast<uint8_t*>(out);
  for (int32_t i = 0; i < n; ++i) {
    // Modular on purpose: the conversion to uint8_t wraps any result.
    dst[i] = static_cast<uint8_t>(nibble(text[2 * i]) * 16 +
                                  nibble(text[2 * i + 1]));
  }
  return out;
}
