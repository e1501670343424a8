// The test build's install root: KOVRA_TEST_ROOT, so that each test runs the
// real entry point inside a temporary root of its own. Without the variable
// the root is a path that never exists, and the agent stays where it was
// started, as the shipped program does when its root is missing.
#include <stdlib.h>

#include "agent/root.h"

const char* kovra_root() {
  const char* root = getenv("KOVRA_TEST_ROOT");
  return root != nullptr ? root : "/nonexistent/kovra-test-root";
}
