#include "agent/fci/hash.h"

#include <stdint.h>
#include <string.h>

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {


void* word(uintptr_t w) {
  return reinterpret_cast<void*>(w);
}
uintptr_t word_of(const void* p) {
  return reinterpret_cast<uintptr_t>(p);
}

uint32_t identity(const void* key, int32_t) {
  return static_cast<uint32_t>(word_of(key));
}
int same_word(const void* a, const void* b, int32_t) {
  return a == b;
}

hash_table* word_table(int unique) {
  return hash_create(nullptr, 19, 4, 0, unique, identity, same_word, nullptr);
}
hash_table* default_table(int32_t key_len, int unique = 0) {
  return hash_create(nullptr, 19, key_len, 0, unique, nullptr, nullptr,
                     nullptr);
}

TEST(Hash, CreatePicksPrimeAndThreshold) {
  const struct {
    const char* name;
    uint32_t size;
    float load;
    uint32_t buckets;  // 0: refused
    int32_t threshold;
  } cases[] = {
      {"a prime is taken as is", 19, 0, 19, 15},
      {"else the next prime", 20, 0, 29, 22},
      {"load 0 means 0.75", 100, 0, 107, 81},
      {"page cache sizing", 10240, 0.5f, 11369, 5685},
      {"beyond the largest prime", 1985249000, 0, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    hash_table* t =
        hash_create(nullptr, c.size, 4, c.load, 0, nullptr, nullptr, nullptr);
    ASSERT_EQ(t != nullptr, c.buckets != 0);
    if (t != nullptr) {
      EXPECT_EQ(hash_bucket_count(t), c.buckets);
      EXPECT_EQ(t->threshold, c.threshold);
      EXPECT_EQ(t->flags, HASH_OWNED);
      hash_destroy(t, nullptr);
    }
  }
  hash_table mine;  // the caller's: destroy must not free it
  memset(&mine, 0xa5, sizeof(mine));
  EXPECT_EQ(hash_create(&mine, 1985249000, 0, 0, 1, nullptr, nullptr, nullptr),
            nullptr);
  EXPECT_EQ(mine.buckets, nullptr);  // zeroed even when refused
  EXPECT_EQ(hash_create(&mine, 19, 0, 0, 1, nullptr, nullptr, nullptr), &mine);
  EXPECT_EQ(mine.flags, HASH_UNIQUE);
  hash_destroy(&mine, nullptr);
}

TEST(Hash, GrowsThroughThePrimesKeepingEveryEntry) {
  for (bool text : {false, true}) {
    SCOPED_TRACE(text ? "text keys, sdbm" : "word keys, identity");
    hash_table* t = text ? default_table(0) : word_table(0);
    std::vector<std::string> names;
    std::vector<uint32_t> sizes = {hash_bucket_count(t)};
    for (uintptr_t i = 0; i < 3000; ++i) {
      names.push_back("file-" + std::to_string(i));
    }
    for (uintptr_t i = 0; i < 3000; ++i) {
      ASSERT_EQ(
          hash_insert(t, text ? names[i].c_str() : word(i * 7), word(i + 1)),
          0);
      if (hash_bucket_count(t) != sizes.back()) {
        sizes.push_back(hash_bucket_count(t));
      }
    }
    EXPECT_EQ(sizes,
              (std::vector<uint32_t>{19,   29,   41,   59,   79,   107, 149,
                                     197,  263,  347,  457,  599,  787, 1031,
                                     1361, 1777, 2333, 3037, 3967, 5167}));
    EXPECT_EQ(t->count, 3000);
    for (uintptr_t i = 0; i < 3000; ++i) {
      std::string copy = names[i];  // equal text at another address
      void* value = nullptr;
      ASSERT_EQ(hash_lookup(t, text ? copy.c_str() : word(i * 7), &value), 1);
      EXPECT_EQ(word_of(value), i + 1);
    }
    EXPECT_EQ(hash_lookup(t, text ? "file-3000" : word(8), nullptr), 0);
    hash_destroy(t, nullptr);
  }
}

TEST(Hash, UniqueRefusesAndPlainKeepsTheOldestFirst) {
  hash_table* unique = word_table(1);
  EXPECT_EQ(hash_insert(unique, word(5), word(1)), 0);
  EXPECT_EQ(hash_insert(unique, word(5), word(2)), -1);
  EXPECT_EQ(unique->count, 1);
  hash_destroy(unique, nullptr);

  hash_table* plain = word_table(0);
  EXPECT_EQ(hash_insert(plain, word(5), word(1)), 0);
  EXPECT_EQ(hash_insert(plain, word(5), word(2)), 0);
  for (uintptr_t k = 100; k < 140; ++k) {  // three growth steps move both
    hash_insert(plain, word(k), nullptr);
  }
  ASSERT_EQ(hash_bucket_count(plain), 59u);
  void* value = nullptr;
  EXPECT_EQ(hash_lookup(plain, word(5), &value), 1);
  EXPECT_EQ(word_of(value), 1u);
  EXPECT_EQ(hash_remove(plain, word(5), nullptr), 41);
  EXPECT_EQ(hash_lookup(plain, word(5), &value), 1);
  EXPECT_EQ(word_of(value), 2u);
  hash_destroy(plain, nullptr);
  EXPECT_EQ(hash_insert(nullptr, word(5), nullptr), -1);
  EXPECT_EQ(hash_lookup(nullptr, word(5), nullptr), 0);
  EXPECT_EQ(hash_remove(nullptr, word(5), nullptr), -1);
}

}  // namespace
