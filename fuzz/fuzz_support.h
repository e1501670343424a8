// fuzz/fuzz_support.h: what the fuzz targets share: the C and C++ basics
// every one of these small programs uses, a process-wide scratch folder,
// writing an input to a file, and a check that ends the run as a crash (so
// libFuzzer keeps the input) when an invariant breaks.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>

// The user of the kfsd targets' store and of the client target's session.
constexpr uint32_t FUZZ_USER_ID = 7;

// Set up once per process on the first call: a new folder under $TMPDIR
// (or /tmp), removed with its contents at a normal exit; a sleep hook that
// returns at once, so no retry path waits; standard output sent to
// /dev/null, since some parsers print and libFuzzer reports on standard
// error. Returns the folder's path (absolute, as TMPDIR is).
const std::string& fuzz_scratch_dir();

// Writes n bytes to path, replacing what was there.
void fuzz_write_file(const std::string& path, const uint8_t* data, size_t n);

// Prints what broke and abort()s when ok is false. For invariants and for
// set-up that must not fail.
void fuzz_require(bool ok, const char* what);
