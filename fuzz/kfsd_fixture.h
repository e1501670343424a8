// fuzz/kfsd_fixture.h: a kfsd store and a logged-in connection for the
// request targets. Requests run through kfsd_dispatch exactly as the
// server's connection loop runs them, minus the socket. Each iteration
// starts from the same state and leaves nothing behind: the connection is
// made afresh, and the database and stream files are put back when the
// iteration changed them, so nothing grows across iterations and an input
// replays alike.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kfs/server/kfsd_internal.h"

// Handles and listings every iteration's connection starts with.
constexpr uint8_t FUZZ_WRITE_HANDLE = 1;     // pending upload, no block begun
constexpr uint8_t FUZZ_READ_HANDLE = 2;      // the complete file
constexpr uint8_t FUZZ_IN_BLOCK_HANDLE = 3;  // same upload, block 0 begun
constexpr uint8_t FUZZ_LISTING = 1;          // 300 entries, none sent yet
// What the store holds below /7 at the start of every iteration.
constexpr char FUZZ_DIR[] = "/7/dir";        // with a sub-directory "sub"
constexpr char FUZZ_FILE[] = "/7/dir/file";  // complete: 100 bytes
constexpr char FUZZ_UPLOAD[] = "/7/dir/up";  // pending: 200 bytes
constexpr uint32_t FUZZ_BLOCK_SIZE = 64;     // the server's base size
constexpr uint32_t FUZZ_FILE_MTIME = 1700000000;

struct kfsd_fixture;

// Made on the first call: a data folder made as `kfsd init` makes one,
// users 7 and 8, and the files above (uploaded through the handlers).
kfsd_fixture* kfsd_fixture_get();

// Starts an iteration: a connection as if user 7 had logged in in mode
// agent and taken its lock, holding the handles and the listing above.
kfsd_conn* kfsd_fixture_begin(kfsd_fixture* f);

// Runs one request of that type with that body (cut to the largest body)
// and checks what a handler must never do: a reply that does not fit a
// packet, a status that does not fit its byte, a reply whose fields do not
// match their counts, more handles or listings than the limits, a silent
// answer to a request that must be answered, a WOPEN whose blocks do not
// cover the file. A type of 128 or more is dropped without dispatching,
// as the connection loop does. Returns the KFSD_* action. With
// KOVRA_FUZZ_TRACE set, each request is told on standard error.
int kfsd_fixture_run(kfsd_fixture* f, uint8_t type, const uint8_t* body,
                     size_t n);

// Ends the iteration as a closed connection ends (handles freed, lock
// released), checks that no stream is still pinned by it and no partial
// stream is left in tmp/, then restores the store if anything changed.
void kfsd_fixture_end(kfsd_fixture* f);
