// lib/sleep.h: the agent's fixed waits (5 s between lock attempts, 30 s
// before a re-connection, 60 s between re-lock attempts). The product always
// sleeps for real; a test installs a hook so that it never sits through them
// and can see what was asked for.
#pragma once

// Waits the given number of seconds with sleep(3), or calls the installed
// hook instead.
void sleep_seconds(unsigned seconds);

// Waits the given number of microseconds with usleep(3), or calls the hook
// with the time rounded up to whole seconds.
void sleep_microseconds(unsigned microseconds);

using sleep_fn = void (*)(unsigned seconds);

// Installs fn (null restores the real sleep) and returns the previous hook.
sleep_fn sleep_set_hook(sleep_fn fn);
