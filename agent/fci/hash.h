// agent/fci/hash.h: a chained hash table with prime bucket counts, used by
// the index's page cache (page id -> page buffer). Keys and values are
// words or pointers held as they are; a table with key_len > 0 compares
// key_len bytes at the key pointer by default, one with key_len 0 compares
// NUL-terminated texts. Growth is incremental per bucket, tracked by a
// generation bit in each entry. Entries come from malloc and go back with
// free; the release callback sees every entry that leaves the table.
#pragma once

#include <stdint.h>

// Values of hash_table.flags.
enum : uint32_t {
  HASH_GENERATION = 0x2,    // the generation new entries are placed with
  HASH_UNIQUE = 0x4,        // insert refuses a key already present
  HASH_OWNED = 0x40000000,  // create allocated the table; destroy frees it
};

using hash_fn = uint32_t (*)(const void* key, int32_t key_len);
using hash_equal_fn = int (*)(const void* a, const void* b, int32_t key_len);
using hash_release_fn = void (*)(const void* key, int32_t key_len, void* value,
                                 void* user);

struct hash_entry {
  hash_entry* next;
  const void* key;
  void* value;
  uint8_t generation;  // HASH_GENERATION of the table when placed
};

struct hash_table {
  uint32_t flags;
  int32_t threshold;  // entries beyond which the next insert grows
  int32_t count;
  int32_t size_index;  // into the prime table: buckets = primes[size_index]
  int32_t key_len;     // 0: NUL-terminated text keys
  float load;
  hash_fn hash;
  hash_equal_fn equal;
  hash_release_fn release;
  hash_entry** buckets;
};

// The bucket count of a table.
uint32_t hash_bucket_count(const hash_table* table);

// Sets up table (zeroing it), or a new table when table is null. Buckets:
// the first of the 69 primes at least requested_size; null when none is.
// load 0 means 0.75; threshold = ceil(buckets * load) in single precision.
// Null hash and equal pick the sdbm hash and byte (or text) equality.
hash_table* hash_create(hash_table* table, uint32_t requested_size,
                        int32_t key_len, float load, int unique, hash_fn hash,
                        hash_equal_fn equal, hash_release_fn release);

// 1 and *value (when value is not null) for a present key, else 0 (also for
// a null table).
int hash_lookup(const hash_table* table, const void* key, void** value);

// Appends key -> value at the tail of its bucket, growing the table first
// when count is above the threshold. 0, or -1 for a null table or a key
// already present in a unique table. At the largest bucket count the table
// stops growing and its chains just get longer.
int hash_insert(hash_table* table, const void* key, void* value);

// Removes the first entry with key (release sees it with user). The new
// count, or -1 when the key is missing or the table is null.
int32_t hash_remove(hash_table* table, const void* key, void* user);

// Removes every entry, in bucket and chain order. A null table, or one that
// was zeroed and never created, is left alone.
void hash_clear(hash_table* table, void* user);

// As hash_clear, then frees the buckets and, when create allocated it, the
// table itself.
void hash_destroy(hash_table* table, void* user);
