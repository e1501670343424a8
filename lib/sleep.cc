#include "lib/sleep.h"

#include <unistd.h>

namespace {
sleep_fn hook = nullptr;
}  // namespace

void sleep_seconds(unsigned seconds) {
  if (hook != nullptr) {
    hook(seconds);
    return;
  }
  sleep(seconds);
}

void sleep_microseconds(unsigned microseconds) {
  if (hook != nullptr) {
    hook((microseconds + 999999u) / 1000000u);
    return;
  }
  usleep(microseconds);
}

sleep_fn sleep_set_hook(sleep_fn fn) {
  sleep_fn previous = hook;
  hook = fn;
  return previous;
}
