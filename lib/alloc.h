// lib/alloc.h: allocation that never fails. Every module allocates memory
// that crosses a module boundary through these wrappers, so the whole agent
// shares one policy: when the system has no memory left, write exactly
// "virtual memory exhausted\n" (25 bytes) to standard error and exit(1),
// with no clean-up. No caller tests for null. Blocks go back with free().
#pragma once

#include <stddef.h>

// malloc(size); contents undefined. A size of 0 is passed to the system as
// it is (the result may then be any pointer free() accepts).
void* xmalloc(size_t size);

// malloc(size) cleared with memset.
void* xzalloc(size_t size);

// calloc(count, size).
void* xcalloc(size_t count, size_t size);

// realloc(block, size); block may be null.
void* xrealloc(void* block, size_t size);

// Installed by main as the std::new_handler so that operator new ends the
// process the same way as the wrappers do.
[[noreturn]] void alloc_exhausted();
