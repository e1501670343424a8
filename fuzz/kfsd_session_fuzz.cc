// kfsd's request handlers, a conversation an input: requests of u8 type,
// u16 body length (big-endian) and the body (cut short by the input's end),
// run in order on one connection until a request would close it. The
// connection starts as in kfsd_request_fuzz, so sequences such as open,
// write, close, read back, or a listing and its continuations, are reached.
#include <stddef.h>
#include <stdint.h>

#include <algorithm>

#include "fuzz/kfsd_fixture.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kfsd_fixture* f = kfsd_fixture_get();
  kfsd_fixture_begin(f);
  size_t at = 0;
  while (at + 3 <= size) {
    uint8_t type = data[at];
    size_t n = static_cast<size_t>(data[at + 1]) << 8 | data[at + 2];
    at += 3;
    n = std::min(n, size - at);
    int action = kfsd_fixture_run(f, type, data + at, n);
    at += n;
    if (action == KFSD_DROP) {
      break;
    }
  }
  kfsd_fixture_end(f);
  return 0;
}
