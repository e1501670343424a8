// kfs/client/kfs.h: the client side of the KFS protocol. For now it holds
// the library's process-wide use count, which the agent's entry brackets its
// run with; sessions refuse to open while the count is 0.
#pragma once

// Counts one more user of the client library. Returns 0.
int kfs_library_init();

// Counts one user less; the count never goes below 0.
void kfs_library_cleanup();

// The current use count.
int kfs_library_use_count();
