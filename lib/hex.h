// lib/hex.h: hexadecimal texts of digests and of the account key.
#pragma once

#include <stdint.h>

// Writes 2n upper-case hex digits and a 0 byte to out, which must hold at
// least 2n+1 chars, and returns out. n below 1 writes only the 0 byte.
char* hex_encode(const void* bytes, int32_t n, char* out);

// Decodes the first 2n characters of text into n bytes at out and returns
// out; n below 1 leaves out untouched. Either case is accepted.
// Kept unchecked: a character that is not a hex digit goes through the same
// arithmetic and yields a meaningless nibble; callers pass only texts that
// were checked or written by the agent itself.
void* hex_decode(const char* text, int32_t n, void* out);
