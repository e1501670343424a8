#include "lib/alloc.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

void alloc_exhausted() {
  static constexpr char kMessage[] = "virtual memory exhausted\n";
  static_assert(sizeof(kMessage) - 1 == 25);
  // write(2) rather than stdio: stdio may itself need memory.
  if (write(STDERR_FILENO, kMessage, sizeof(kMessage) - 1) < 0) {
    // Nothing more can be said; the exit status tells the rest.
  }
  exit(1);
}

void* xmalloc(size_t size) {
  void* p = malloc(size);
  if (p == nullptr) {
    alloc_exhausted();
  }
  return p;
}

void* xzalloc(size_t size) {
  void* p = xmalloc(size);
  memset(p, 0, size);
  return p;
}

void* xcalloc(size_t count, size_t size) {
  void* p = calloc(count, size);
  if (p == nullptr) {
    alloc_exhausted();
  }
  return p;
}

void* xrealloc(void* block, size_t size) {
  void* p = realloc(block, size);
  if (p == nullptr) {
    alloc_exhausted();
  }
  return p;
}
