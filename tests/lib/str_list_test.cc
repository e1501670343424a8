#include "lib/str_list.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Items = std::vector<std::string>;

str_list* list_of(const Items& items, int32_t capacity = 4, int32_t step = 4,
                  str_list_free_fn free_fn = nullptr) {
  str_list* list = str_list_new(capacity, step, free_fn);
  for (const auto& s : items) {
    str_list_insert(list, s.data(), static_cast<uint32_t>(s.size()),
                    str_list_count(list));
  }
  return list;
}

Items items_of(const str_list* list) {
  Items out;
  for (int32_t i = 0; i < str_list_count(list); ++i) {
    out.emplace_back(str_list_get(list, i), list->items[i]->len);
  }
  return out;
}

TEST(StrList, InsertGrowsLinearlyAndChecksIndex) {
  str_list* list = list_of({"a", "b"}, 2, 3);
  EXPECT_EQ(str_list_insert(list, "x", 1, 0), 3);  // full: grows by 3
  EXPECT_EQ(list->capacity, 5);
  EXPECT_EQ(str_list_insert(list, "y\0\xff", 3, 2), 4);  // binary, kept whole
  EXPECT_EQ(items_of(list), (Items{"x", "a", std::string("y\0\xff", 3), "b"}));
  EXPECT_EQ(str_list_get(list, 2)[3], '\0');
  errno = 0;
  EXPECT_EQ(str_list_insert(list, "z", 1, 5), -1);  // count + 1
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(str_list_insert(list, "z", 1, -1), -1);
  EXPECT_EQ(str_list_insert(nullptr, "z", 1, 0), -1);
  EXPECT_EQ(str_list_get(list, 4), nullptr);
  str_list_free(list);
  // A step-0 list refuses inserts once full, without an error.
  str_list* one = list_of({"a"}, 1, -5);  // a negative step becomes 0
  errno = 0;
  EXPECT_EQ(str_list_insert(one, "b", 1, 1), 1);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(items_of(one), (Items{"a"}));
  str_list_free(one);
}

TEST(StrList, WalkNeedsFirstAndStopsAtBothEnds) {
  str_list* list = list_of({"a", "b", "c"});
  std::string walked = str_list_next(list);  // a fresh cursor is 0, not -1
  for (char* s = str_list_first(list); s != nullptr; s = str_list_next(list)) {
    walked += s;
  }
  EXPECT_EQ(str_list_cursor(list), 3);
  errno = 0;
  EXPECT_EQ(str_list_next(list), nullptr);  // past the end: an error now
  EXPECT_EQ(errno, EINVAL);
  for (char* s = str_list_prev(list); s != nullptr; s = str_list_prev(list)) {
    walked += s;
  }
  EXPECT_EQ(walked, "babccba");
  EXPECT_EQ(str_list_cursor(list), -1);
  EXPECT_EQ(str_list_first(nullptr), nullptr);
  str_list_free(list);
}

TEST(StrList, FindSearchesInEitherDirection) {
  str_list* list = list_of({"a", "bb", "a", "b"});
  struct {
    const char* name;
    const char* data;
    int32_t start;
    int forward;
    int32_t want;
  } const cases[] = {
      {"forward from 0", "a", 0, 1, 0},     {"forward from 1", "a", 1, 1, 2},
      {"backward from last", "a", 3, 0, 2}, {"length must match", "b", 0, 1, 3},
      {"no match", "c", 0, 1, -1},          {"start beyond end", "a", 4, 1, -1},
      {"negative start", "a", -1, 1, -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(str_list_find(list, c.data, static_cast<uint32_t>(strlen(c.data)),
                            c.start, c.forward),
              c.want);
  }
  str_list_free(list);
}

TEST(StrList, RemoveChecksBothEndsAndTakesTheFirstMatch) {
  struct {
    const char* name;
    int32_t index, n, want;  // index -1: remove the value "a"
    Items left;
  } const cases[] = {
      {"middle", 1, 2, 2, {"a", "d"}},
      {"to the end", 2, 2, 2, {"a", "b"}},
      {"past the end", 3, 2, -1, {"a", "b", "c", "d"}},
      {"zero items at 1", 1, 0, 4, {"a", "b", "c", "d"}},
      {"zero items at 0 fails", 0, 0, -1, {"a", "b", "c", "d"}},
      {"negative count", 3, -1, -1, {"a", "b", "c", "d"}},
      {"first value only", -1, 0, 3, {"b", "c", "a"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    str_list* list = list_of({"a", "b", "c", c.index < 0 ? "a" : "d"});
    EXPECT_EQ(c.index < 0 ? str_list_remove_value(list, "a", 1)
                          : str_list_remove_range(list, c.index, c.n),
              c.want);
    EXPECT_EQ(items_of(list), c.left);
    errno = EINVAL;
    EXPECT_EQ(str_list_remove_value(list, "zz", 2), -1);
    EXPECT_EQ(errno, 0);
    str_list_free(list);
  }
}

std::vector<int32_t> freed_indices;
void record_free(void* data, uint32_t, int32_t index) {
  freed_indices.push_back(index);
  free(data);
}

TEST(StrList, FreeFnSeesEveryItemInOrderAndCopiesStartOver) {
  freed_indices.clear();
  str_list* list = list_of({"a", "b", "c", "d"}, 2, 2, record_free);
  str_list_remove_range(list, 1, 1);
  str_list* copy = str_list_copy(list);
  EXPECT_EQ(str_list_cursor(copy), -1);
  EXPECT_EQ(copy->capacity, 3);
  str_list_free(list);
  EXPECT_EQ(freed_indices, (std::vector<int32_t>{1, 0, 1, 2}));
  EXPECT_EQ(items_of(copy), (Items{"a", "c", "d"}));
  str_list_free(copy);
}

int by_text(const char* a, const char* b) {
  return strcmp(a, b);
}

TEST(StrList, SortOrdersListsOfEverySize) {
  srand(7);
  for (int n : {0, 1, 2, 4, 5, 6, 17, 100, 1000}) {
    SCOPED_TRACE(n);
    Items items;
    for (int i = 0; i < n; ++i) {
      items.push_back(std::to_string(rand() % (n / 2 + 1)));  // duplicates
    }
    str_list* list = list_of(items);
    str_list_sort(list, by_text);
    std::sort(items.begin(), items.end());
    EXPECT_EQ(items_of(list), items);
    str_list_free(list);
  }
}

}  // namespace
