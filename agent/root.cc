#include "agent/root.h"

const char* kovra_root() {
  return KOVRA_ROOT_DIR;
}
