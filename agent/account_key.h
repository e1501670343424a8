// agent/account_key.h: the user's account key file. The agent reads it from
// etc/account.key; the restore tool reads the same format from any path.
#pragma once

#include <stddef.h>
#include <stdint.h>

constexpr size_t ACCOUNT_KEY_SIZE = 32;

// Reads a key file: lines starting with '|' are skipped, a line starting
// with '-' ends the reading, and every hex digit elsewhere is collected.
// Exactly 64 digits give the key. Returns 0, -1 when the file cannot be
// opened, -2 when it does not hold exactly 64 digits. Prints nothing.
int account_key_read(const char* path, uint8_t key[ACCOUNT_KEY_SIZE]);
