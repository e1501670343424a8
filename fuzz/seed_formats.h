// fuzz/seed_formats.h: what the targets and their committed seeds agree
// on: the paths and attributes the seed indexes hold (the index target
// looks them up, so its fixed lookups hit) and the request numbers of the
// client reply target. Changing a value here leaves those seeds behind.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

// Enough records for three pages of the index.
constexpr uint32_t FUZZ_SEED_PATHS = 300;

inline void fuzz_seed_path(uint32_t i, char* out, size_t size) {
  snprintf(out, size, "/srv/photos/%03u.jpg", i);
}

inline uint32_t fuzz_seed_mtime(uint32_t i) {
  return 1700000000u + i;
}

inline uint32_t fuzz_seed_size(uint32_t i) {
  return i * 4099u;
}

// The first byte of a client reply input, modulo FUZZ_PICK_COUNT: which
// request the reply answers.
enum : uint8_t {
  FUZZ_PICK_LOGIN_AGENT,
  FUZZ_PICK_LOGIN_USER,
  FUZZ_PICK_FIND,
  FUZZ_PICK_FIND_LONG_NAMES,
  FUZZ_PICK_WOPEN,
  FUZZ_PICK_WRITE,
  FUZZ_PICK_ROPEN,
  FUZZ_PICK_READ,
  FUZZ_PICK_STAT,
  FUZZ_PICK_STAT_LONG,
  FUZZ_PICK_COPY,
  FUZZ_PICK_SETOPT,
  FUZZ_PICK_MGNT,
  FUZZ_PICK_USER_LOCK,
  FUZZ_PICK_COUNT,
};
// The most a read asks for: a reply announcing more must be refused.
constexpr uint16_t FUZZ_READ_MAX = 1024;
