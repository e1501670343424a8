#include "lib/str_list.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Items = std::vector<std::string>;

str_list* list_of(const Items& items, int32_t capacity = 4, int32_t step = 4) {
  str_list* list = str_list_new(capacity, step, nullptr);
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

TEST(StrList, InsertChecksIndexAndGrowsLinearly) {
  str_list* list = list_of({"a", "b"}, 2, 3);
  EXPECT_EQ(str_list_insert(list, "x", 1, 0), 3);  // full: grows by 3
  EXPECT_EQ(list->capacity, 5);
  EXPECT_EQ(str_list_insert(list, "y", 1, 2), 4);
  EXPECT_EQ(items_of(list), (Items{"x", "a", "y", "b"}));
  errno = 0;
  EXPECT_EQ(str_list_insert(list, "z", 1, 5), -1);  // count + 1
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(str_list_insert(list, "z", 1, -1), -1);
  EXPECT_EQ(str_list_insert(nullptr, "z", 1, 0), -1);
  str_list_free(list);
}

TEST(StrList, StepZeroListRefusesInsertsSilently) {
  str_list* never = str_list_new(0, 0, nullptr);
  errno = 0;
  EXPECT_EQ(str_list_insert(never, "a", 1, 0), 0);
  EXPECT_EQ(errno, 0);
  str_list* one = str_list_new(1, -5, nullptr);  // negative step becomes 0
  EXPECT_EQ(str_list_insert(one, "a", 1, 0), 1);
  EXPECT_EQ(str_list_insert(one, "b", 1, 1), 1);
  EXPECT_EQ(items_of(one), (Items{"a"}));
  str_list_free(never);
  str_list_free(one);
}

TEST(StrList, KeepsBinaryItemsWithTrailingZero) {
  const char bytes[] = {'a', '\0', 'b', '\xff'};
  str_list* list = list_of({});
  str_list_insert(list, bytes, 4, 0);
  const char* got = str_list_get(list, 0);
  EXPECT_EQ(memcmp(got, bytes, 4), 0);
  EXPECT_EQ(got[4], '\0');
  EXPECT_EQ(list->items[0]->len, 4u);
  errno = 0;
  EXPECT_EQ(str_list_get(list, 1), nullptr);
  EXPECT_EQ(errno, EINVAL);
  str_list_free(list);
}

TEST(StrList, WalkNeedsFirstAndStopsAtBothEnds) {
  str_list* list = list_of({"a", "b", "c"});
  EXPECT_STREQ(str_list_next(list), "b");  // fresh cursor is 0, not -1
  EXPECT_STREQ(str_list_first(list), "a");
  EXPECT_STREQ(str_list_next(list), "b");
  EXPECT_STREQ(str_list_next(list), "c");
  EXPECT_EQ(str_list_next(list), nullptr);
  EXPECT_EQ(str_list_cursor(list), 3);
  errno = 0;
  EXPECT_EQ(str_list_next(list), nullptr);  // past the end: an error now
  EXPECT_EQ(errno, EINVAL);
  EXPECT_STREQ(str_list_prev(list), "c");
  EXPECT_STREQ(str_list_prev(list), "b");
  EXPECT_STREQ(str_list_prev(list), "a");
  EXPECT_EQ(str_list_prev(list), nullptr);
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

TEST(StrList, RemoveRangeChecksBothEnds) {
  struct {
    const char* name;
    int32_t index, n, want;
    Items left;
  } const cases[] = {
      {"middle", 1, 2, 2, {"a", "d"}},
      {"to the end", 2, 2, 2, {"a", "b"}},
      {"past the end", 3, 2, -1, {"a", "b", "c", "d"}},
      {"zero items at 1", 1, 0, 4, {"a", "b", "c", "d"}},
      {"zero items at 0 fails", 0, 0, -1, {"a", "b", "c", "d"}},
      {"negative count", 3, -1, -1, {"a", "b", "c", "d"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    str_list* list = list_of({"a", "b", "c", "d"});
    EXPECT_EQ(str_list_remove_range(list, c.index, c.n), c.want);
    EXPECT_EQ(items_of(list), c.left);
    str_list_free(list);
  }
}

TEST(StrList, RemoveValueTakesFirstMatchOnly) {
  str_list* list = list_of({"a", "b", "a"});
  EXPECT_EQ(str_list_remove_value(list, "a", 1), 2);
  EXPECT_EQ(items_of(list), (Items{"b", "a"}));
  errno = EINVAL;
  EXPECT_EQ(str_list_remove_value(list, "zz", 2), -1);
  EXPECT_EQ(errno, 0);
  str_list_free(list);
}

std::vector<int32_t> freed_indices;
void record_free(void* data, uint32_t, int32_t index) {
  freed_indices.push_back(index);
  free(data);
}

TEST(StrList, FreeFnSeesEveryItemInOrder) {
  freed_indices.clear();
  str_list* list = str_list_new(2, 2, record_free);
  for (const char* s : {"a", "b", "c", "d"}) {
    str_list_insert(list, s, 1, str_list_count(list));
  }
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

TEST(StrSplit, DropsEmptyPieces) {
  struct {
    const char* name;
    const char* text;
    const char* delim;
    Items want;
  } const cases[] = {
      {"plain", "a@b,c@d", ",", {"a@b", "c@d"}},
      {"empty pieces", "a,,b,", ",", {"a", "b"}},
      {"empty text", "", ",", {}},
      {"only delimiters", ",,,", ",", {}},
      {"long delimiter", "x::y:z::", "::", {"x", "y:z"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    str_list* list = str_split(c.text, c.delim, nullptr);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(items_of(list), c.want);
    str_list_free(list);
  }
  errno = 0;
  EXPECT_EQ(str_split("a", "", nullptr), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(str_split(nullptr, ",", nullptr), nullptr);
}

}  // namespace
