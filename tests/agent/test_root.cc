// The test build's install root: KOVRA_TEST_ROOT, so that each test runs the
// real entry point inside a temporary root of its own. Without the variable
// the root is a path that never exists, and the agent stays where it was
// started, as the shipped program does when its root is missing.
//
// The test build also never sleeps: each wait it would make is appended to
// the file named by KOVRA_TEST_SLEEP_LOG (one "%u\n" line), if set.
#include <stdio.h>
#include <stdlib.h>

#include "agent/root.h"
#include "lib/sleep.h"

const char* kovra_root() {
  const char* root = getenv("KOVRA_TEST_ROOT");
  return root != nullptr ? root : "/nonexistent/kovra-test-root";
}

namespace {

void log_sleep(unsigned seconds) {
  const char* path = getenv("KOVRA_TEST_SLEEP_LOG");
  if (path == nullptr) {
    return;
  }
  if (FILE* f = fopen(path, "a")) {
    fprintf(f, "%u\n", seconds);
    fclose(f);
  }
}

const bool hooked = (sleep_set_hook(log_sleep), true);

}  // namespace
