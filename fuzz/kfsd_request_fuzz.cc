// kfsd's request handlers, one request an input: the first byte is the
// request type, the rest its body. The request runs against a logged-in
// connection of user 7 that holds its lock, an open upload (handles 1 and
// 3, the latter inside a block), a read handle (2) and an unfinished
// listing (1), so each handler gets past its look-ups; the connection and
// the store are back to that state for the next input.
#include <stddef.h>
#include <stdint.h>

#include "fuzz/kfsd_fixture.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  kfsd_fixture* f = kfsd_fixture_get();
  kfsd_fixture_begin(f);
  kfsd_fixture_run(f, data[0], data + 1, size - 1);
  kfsd_fixture_end(f);
  return 0;
}
