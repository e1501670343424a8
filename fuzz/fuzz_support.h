// fuzz/fuzz_support.h: what the fuzz targets share. A process-wide scratch
// folder, writing an input to a file, the fixed keys the targets and their
// seed corpora agree on, and checks that end the run as a crash (so
// libFuzzer keeps the input) when an invariant of the code under test
// breaks.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "kfs/client/kfs.h"

// The key of the AES packets (mode 3) of the packet and reply targets.
extern const uint8_t FUZZ_PACKET_KEY[KFS_KEY_SIZE];
// The account key of the kfsd targets' user; a login sends its SHA-1.
extern const uint8_t FUZZ_ACCOUNT_KEY[32];
constexpr uint32_t FUZZ_USER_ID = 7;
constexpr uint32_t FUZZ_OTHER_USER_ID = 8;

// Set up once per process on the first call: a new folder under $TMPDIR
// (or /tmp), removed with its contents at a normal exit; a sleep hook that
// returns at once, so no retry path waits; standard output sent to
// /dev/null, since some parsers print ("Missing: name=") and libFuzzer
// reports on standard error. Returns the folder's absolute path.
const std::string& fuzz_scratch_dir();

// Writes n bytes to path, replacing what was there.
void fuzz_write_file(const std::string& path, const uint8_t* data, size_t n);

// Reads a whole file; "" when it cannot be read.
std::string fuzz_read_file(const std::string& path);

// Ends the process with abort() after printing what broke, when ok is
// false. For invariants and for set-up that must not fail.
void fuzz_require(bool ok, const char* what);

// Removes path and everything below it; a missing path is fine.
void fuzz_remove_tree(const std::string& path);
