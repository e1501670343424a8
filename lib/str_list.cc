#include "lib/str_list.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <utility>

#include "lib/alloc.h"

namespace {

void free_data(void* data, uint32_t, int32_t) {
  free(data);
}

bool valid_index(const str_list* list, int32_t index) {
  return index >= 0 && index < list->count;
}

char* data_of(const str_item* item) {
  return item != nullptr ? item->data : nullptr;
}

str_item* make_item(const void* data, uint32_t len) {
  str_item* item = static_cast<str_item*>(xmalloc(sizeof(str_item)));
  item->data = static_cast<char*>(xmalloc(static_cast<size_t>(len) + 1));
  memcpy(item->data, data, len);
  item->data[len] = '\0';
  item->len = len;
  return item;
}

bool item_equals(const str_item* item, const void* data, uint32_t len) {
  return item != nullptr && item->len == len &&
         memcmp(item->data, data, len) == 0;
}

// Hands one item to the list's free_fn and frees its record.
void release_item(str_list* list, int32_t index) {
  str_item* item = list->items[index];
  if (item != nullptr) {
    list->free_fn(item->data, item->len, index);
    free(item);
  }
}

void close_gap(str_list* list, int32_t index, int32_t n) {
  memmove(&list->items[index], &list->items[index + n],
          sizeof(str_item*) * static_cast<size_t>(list->count - index - n));
  list->count -= n;
}

}  // namespace

str_list* str_list_new(int32_t initial_capacity, int32_t grow_step,
                       str_list_free_fn free_fn) {
  str_list* list = static_cast<str_list*>(xzalloc(sizeof(str_list)));
  if (initial_capacity >= 1) {
    list->capacity = initial_capacity;
    list->items = static_cast<str_item**>(
        xcalloc(static_cast<size_t>(initial_capacity), sizeof(str_item*)));
  }
  list->grow_step = grow_step > 0 ? grow_step : 0;
  list->free_fn = free_fn != nullptr ? free_fn : free_data;
  return list;
}

void str_list_free(str_list* list) {
  if (list == nullptr) {
    return;
  }
  for (int32_t i = 0; i < list->count; ++i) {
    release_item(list, i);
  }
  free(list->items);
  free(list);
}

int32_t str_list_count(const str_list* list) {
  return list != nullptr ? list->count : -1;
}

int32_t str_list_cursor(const str_list* list) {
  return list != nullptr ? list->cursor : -1;
}

int32_t str_list_insert(str_list* list, const void* data, uint32_t len,
                        int32_t index) {
  if (list == nullptr || index < 0 || index > list->count) {
    errno = EINVAL;
    return -1;
  }
  if (list->count == list->capacity) {
    if (list->grow_step == 0) {
      return list->count;
    }
    list->capacity = list->count + list->grow_step;
    list->items = static_cast<str_item**>(xrealloc(
        list->items, sizeof(str_item*) * static_cast<size_t>(list->capacity)));
  }
  if (index < list->count) {
    memmove(&list->items[index + 1], &list->items[index],
            sizeof(str_item*) * static_cast<size_t>(list->count - index));
  }
  list->items[index] = data != nullptr ? make_item(data, len) : nullptr;
  return ++list->count;
}

char* str_list_get(const str_list* list, int32_t index) {
  if (list == nullptr || !valid_index(list, index)) {
    errno = EINVAL;
    return nullptr;
  }
  return data_of(list->items[index]);
}

char* str_list_first(str_list* list) {
  if (list == nullptr || list->count == 0) {
    return nullptr;
  }
  list->cursor = 0;
  return data_of(list->items[0]);
}

char* str_list_next(str_list* list) {
  if (list == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  int32_t n = list->cursor + 1;
  if (n < 0 || n > list->count) {
    errno = EINVAL;
    return nullptr;
  }
  list->cursor = n;
  return n == list->count ? nullptr : data_of(list->items[n]);
}

char* str_list_prev(str_list* list) {
  if (list == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  int32_t p = list->cursor - 1;
  if (p < -1 || p >= list->count) {
    errno = EINVAL;
    return nullptr;
  }
  list->cursor = p;
  return p == -1 ? nullptr : data_of(list->items[p]);
}

int32_t str_list_find(const str_list* list, const void* data, uint32_t len,
                      int32_t start, int forward) {
  errno = 0;
  if (list == nullptr) {
    errno = EINVAL;
    return -1;
  }
  if (list->count == 0) {
    return -1;
  }
  if (!valid_index(list, start)) {
    errno = EINVAL;
    return -1;
  }
  int32_t step = forward != 0 ? 1 : -1;
  for (int32_t i = start; i >= 0 && i < list->count; i += step) {
    if (item_equals(list->items[i], data, len)) {
      return i;
    }
  }
  return -1;
}

int32_t str_list_remove_range(str_list* list, int32_t index, int32_t n) {
  if (list == nullptr || list->count == 0 || n < 0 ||
      !valid_index(list, index) || !valid_index(list, index + n - 1)) {
    errno = EINVAL;
    return -1;
  }
  for (int32_t i = index; i < index + n; ++i) {
    release_item(list, i);
  }
  close_gap(list, index, n);
  return list->count;
}

int32_t str_list_remove_value(str_list* list, const void* data, uint32_t len) {
  int32_t index = list != nullptr && list->count > 0
                      ? str_list_find(list, data, len, 0, 1)
                      : -1;
  errno = 0;
  if (index < 0) {
    return -1;
  }
  release_item(list, index);
  close_gap(list, index, 1);
  return list->count;
}

void str_list_sort(str_list* list, str_list_cmp_fn cmp) {
  if (list == nullptr || cmp == nullptr || list->count < 2) {
    return;
  }
  str_item** a = list->items;
  auto less = [cmp](const str_item* x, const str_item* y) {
    return cmp(data_of(x), data_of(y)) < 0;
  };
  // Ranges this small are left to the final insertion pass.
  constexpr int32_t kSmall = 4;

  if (list->count > kSmall) {
    struct range {
      int32_t lo, hi;
    };
    // Only the larger half is pushed, so the stack stays below log2(count).
    range stack[32];
    int32_t depth = 0;
    int32_t lo = 0;
    int32_t hi = list->count - 1;
    for (;;) {
      int32_t mid = lo + (hi - lo) / 2;
      if (less(a[mid], a[lo])) {
        std::swap(a[mid], a[lo]);
      }
      if (less(a[hi], a[mid])) {
        std::swap(a[hi], a[mid]);
        if (less(a[mid], a[lo])) {
          std::swap(a[mid], a[lo]);
        }
      }
      // The pivot is the item itself, so swaps below cannot lose it; a[lo]
      // and a[hi] bound both scans.
      const str_item* pivot = a[mid];
      int32_t l = lo + 1;
      int32_t r = hi - 1;
      do {
        while (less(a[l], pivot)) {
          ++l;
        }
        while (less(pivot, a[r])) {
          --r;
        }
        if (l < r) {
          std::swap(a[l], a[r]);
          ++l;
          --r;
        } else if (l == r) {
          ++l;
          --r;
          break;
        }
      } while (l <= r);

      bool left_small = r - lo + 1 <= kSmall;
      bool right_small = hi - l + 1 <= kSmall;
      if (left_small && right_small) {
        if (depth == 0) {
          break;
        }
        --depth;
        lo = stack[depth].lo;
        hi = stack[depth].hi;
      } else if (left_small) {
        lo = l;
      } else if (right_small) {
        hi = r;
      } else if (r - lo > hi - l) {
        stack[depth++] = {lo, r};
        lo = l;
      } else {
        stack[depth++] = {l, hi};
        hi = r;
      }
    }
  }

  // Partitioning leaves the smallest item among the first five, so putting
  // it in front gives the insertion pass a sentinel.
  int32_t end = list->count < kSmall + 1 ? list->count : kSmall + 1;
  int32_t smallest = 0;
  for (int32_t i = 1; i < end; ++i) {
    if (less(a[i], a[smallest])) {
      smallest = i;
    }
  }
  std::swap(a[0], a[smallest]);
  for (int32_t i = 2; i < list->count; ++i) {
    str_item* item = a[i];
    int32_t j = i;
    while (less(item, a[j - 1])) {
      a[j] = a[j - 1];
      --j;
    }
    a[j] = item;
  }
}

str_list* str_list_copy(const str_list* list) {
  if (list == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  str_list* copy = str_list_new(list->count, list->grow_step, list->free_fn);
  copy->cursor = -1;
  for (int32_t i = 0; i < list->count; ++i) {
    const str_item* item = list->items[i];
    copy->items[i] =
        item != nullptr ? make_item(item->data, item->len) : nullptr;
  }
  copy->count = list->count;
  return copy;
}

str_list* str_split(const char* text, const char* delim, str_list* list) {
  if (text == nullptr || delim == nullptr || delim[0] == '\0') {
    errno = EINVAL;
    return nullptr;
  }
  if (list == nullptr) {
    list = str_list_new(15, 15, nullptr);
  }
  size_t delim_len = strlen(delim);
  const char* piece = text;
  for (const char* hit; (hit = strstr(piece, delim)) != nullptr;
       piece = hit + delim_len) {
    if (hit > piece) {
      str_list_insert(list, piece, static_cast<uint32_t>(hit - piece),
                      str_list_count(list));
    }
  }
  if (*piece != '\0') {
    str_list_insert(list, piece, static_cast<uint32_t>(strlen(piece)),
                    str_list_count(list));
  }
  return list;
}
