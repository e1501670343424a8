#include "agent/fci/hash.h"

#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>

#include "lib/alloc.h"

namespace {

// Prime bucket counts spread keys that share a factor, such as page ids that
// come in strides; each is about 1.3 times the one before, so one growth step
// moves every entry once at a bounded cost.
constexpr std::array<uint32_t, 69> PRIMES = {
    19,         29,         41,         59,        79,        107,
    149,        197,        263,        347,       457,       599,
    787,        1031,       1361,       1777,      2333,      3037,
    3967,       5167,       6719,       8737,      11369,     14783,
    19219,      24989,      32491,      42257,     54941,     71429,
    92861,      120721,     156941,     204047,    265271,    344857,
    448321,     582821,     757693,     985003,    1280519,   1664681,
    2164111,    2813353,    3657361,    4754591,   6180989,   8035301,
    10445899,   13579681,   17653589,   22949669,  29834603,  38784989,
    50420551,   65546729,   85210757,   110774011, 144006217, 187208107,
    243370577,  316381771,  411296309,  534685237, 695090819, 903618083,
    1174703521, 1527114613, 1985248999,
};
static_assert(PRIMES.size() == 69);

constexpr bool ascending() {
  for (size_t i = 1; i < PRIMES.size(); ++i) {
    if (PRIMES[i] <= PRIMES[i - 1]) {
      return false;
    }
  }
  return true;
}
// hash_create picks the first prime large enough by binary search.
static_assert(ascending());

constexpr float DEFAULT_LOAD = 0.75f;
constexpr uint32_t FIRST_BEYOND_INT32 = 0x80000000u;

uint32_t prime_at(int32_t size_index) {
  return PRIMES[static_cast<size_t>(size_index)];
}

// In single precision, like the load itself: the large primes are not exact
// in a float, and double arithmetic would move their thresholds. A load far
// above 1 (or NaN) would leave int32 at the top sizes; such a table gets the
// extreme threshold instead of undefined behaviour.
int32_t threshold_of(uint32_t prime, float load) {
  float t = ceilf(static_cast<float>(prime) * load);
  if (!(t < static_cast<float>(FIRST_BEYOND_INT32))) {
    return INT32_MAX;
  }
  if (t < -static_cast<float>(FIRST_BEYOND_INT32)) {
    return INT32_MIN;
  }
  return static_cast<int32_t>(t);
}

uint32_t sdbm_step(uint32_t h, uint8_t byte) {
  return byte + (h << 6) + (h << 16) - h;
}

// Bytes are read as uint8_t so that a key hashes alike whatever the sign of
// plain char on the build machine.
uint32_t sdbm(const void* key, int32_t key_len) {
  const uint8_t* p = static_cast<const uint8_t*>(key);
  uint32_t h = 0;
  if (key_len > 0) {
    for (int32_t i = 0; i < key_len; ++i) {
      h = sdbm_step(h, p[i]);
    }
  } else {
    for (; *p != 0; ++p) {
      h = sdbm_step(h, *p);
    }
  }
  return h;
}

int equal_keys(const void* a, const void* b, int32_t key_len) {
  if (key_len > 0) {
    return memcmp(a, b, static_cast<size_t>(key_len)) == 0;
  }
  return strcmp(static_cast<const char*>(a), static_cast<const char*>(b)) == 0;
}

uint8_t generation_of(const hash_table* table) {
  return static_cast<uint8_t>(table->flags & HASH_GENERATION);
}

hash_entry** bucket_of(const hash_table* table, const void* key) {
  uint32_t h = table->hash(key, table->key_len);
  return &table->buckets[h % hash_bucket_count(table)];
}

// Tail order keeps the oldest of equal keys first in a table without the
// unique check, so lookups and removes find it first.
void append(hash_entry** bucket, hash_entry* entry) {
  while (*bucket != nullptr) {
    bucket = &(*bucket)->next;
  }
  *bucket = entry;
}

// The link that points at the first entry equal to key, or at the null ending
// its chain.
hash_entry** find(const hash_table* table, const void* key) {
  hash_entry** link = bucket_of(table, key);
  while (*link != nullptr &&
         table->equal(key, (*link)->key, table->key_len) == 0) {
    link = &(*link)->next;
  }
  return link;
}

void release_entry(const hash_table* table, hash_entry* entry, void* user) {
  if (table->release != nullptr) {
    table->release(entry->key, table->key_len, entry->value, user);
  }
  free(entry);
}

// Moves to the next prime. The generation bit tells moved entries from those
// still waiting: a moved entry can land in an old bucket not yet visited, and
// must not be moved again when the walk reaches it.
void grow(hash_table* table) {
  // Kept: past the largest prime the table stays as it is (threshold
  // included), so each later insert only lengthens a chain.
  if (static_cast<size_t>(table->size_index) + 1 >= PRIMES.size()) {
    return;
  }
  uint32_t old_count = hash_bucket_count(table);
  table->size_index += 1;
  uint32_t new_count = hash_bucket_count(table);
  table->threshold = threshold_of(new_count, table->load);
  table->buckets = static_cast<hash_entry**>(
      xrealloc(table->buckets, sizeof(hash_entry*) * new_count));
  memset(table->buckets + old_count, 0,
         sizeof(hash_entry*) * (new_count - old_count));
  table->flags ^= HASH_GENERATION;
  uint8_t generation = generation_of(table);
  for (uint32_t i = 0; i < old_count; ++i) {
    hash_entry** link = &table->buckets[i];
    while (*link != nullptr) {
      hash_entry* entry = *link;
      if (entry->generation == generation) {
        link = &entry->next;
        continue;
      }
      *link = entry->next;
      entry->next = nullptr;
      entry->generation = generation;
      append(bucket_of(table, entry->key), entry);
    }
  }
}

}  // namespace

uint32_t hash_bucket_count(const hash_table* table) {
  return prime_at(table->size_index);
}

hash_table* hash_create(hash_table* table, uint32_t requested_size,
                        int32_t key_len, float load, int unique, hash_fn hash,
                        hash_equal_fn equal, hash_release_fn release) {
  if (table != nullptr) {
    memset(table, 0, sizeof(*table));
  }
  const auto* prime =
      std::lower_bound(PRIMES.begin(), PRIMES.end(), requested_size);
  if (prime == PRIMES.end()) {
    return nullptr;
  }
  if (table == nullptr) {
    table = static_cast<hash_table*>(xzalloc(sizeof(hash_table)));
    table->flags = HASH_OWNED;
  }
  if (unique != 0) {
    table->flags |= HASH_UNIQUE;
  }
  table->size_index = static_cast<int32_t>(prime - PRIMES.begin());
  table->key_len = key_len;
  table->load = load != 0.0f ? load : DEFAULT_LOAD;
  table->threshold = threshold_of(*prime, table->load);
  table->hash = hash != nullptr ? hash : sdbm;
  table->equal = equal != nullptr ? equal : equal_keys;
  table->release = release;
  table->buckets =
      static_cast<hash_entry**>(xcalloc(*prime, sizeof(hash_entry*)));
  return table;
}

int hash_lookup(const hash_table* table, const void* key, void** value) {
  if (table == nullptr) {
    return 0;
  }
  const hash_entry* entry = *find(table, key);
  if (entry == nullptr) {
    return 0;
  }
  if (value != nullptr) {
    *value = entry->value;
  }
  return 1;
}

int hash_insert(hash_table* table, const void* key, void* value) {
  if (table == nullptr) {
    return -1;
  }
  if ((table->flags & HASH_UNIQUE) != 0 && *find(table, key) != nullptr) {
    return -1;
  }
  // Growing before the new entry is placed: the entry then goes straight
  // into its bucket under the new prime.
  if (table->count > table->threshold) {
    grow(table);
  }
  hash_entry* entry = static_cast<hash_entry*>(xmalloc(sizeof(hash_entry)));
  entry->next = nullptr;
  entry->key = key;
  entry->value = value;
  entry->generation = generation_of(table);
  append(bucket_of(table, key), entry);
  table->count += 1;
  return 0;
}

int32_t hash_remove(hash_table* table, const void* key, void* user) {
  if (table == nullptr) {
    return -1;
  }
  hash_entry** link = find(table, key);
  hash_entry* entry = *link;
  if (entry == nullptr) {
    return -1;
  }
  *link = entry->next;
  release_entry(table, entry, user);
  table->count -= 1;
  return table->count;
}

void hash_clear(hash_table* table, void* user) {
  if (table == nullptr || table->buckets == nullptr) {
    return;
  }
  uint32_t buckets = hash_bucket_count(table);
  for (uint32_t i = 0; i < buckets; ++i) {
    hash_entry* entry = table->buckets[i];
    table->buckets[i] = nullptr;
    while (entry != nullptr) {
      hash_entry* next = entry->next;
      release_entry(table, entry, user);
      entry = next;
    }
  }
  table->count = 0;
}

void hash_destroy(hash_table* table, void* user) {
  if (table == nullptr) {
    return;
  }
  hash_clear(table, user);
  free(table->buckets);
  table->buckets = nullptr;
  if ((table->flags & HASH_OWNED) != 0) {
    free(table);
  }
}
