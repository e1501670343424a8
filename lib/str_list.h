// lib/str_list.h: the agent's one container, a growable array of owned byte
// strings; every list of names, records, recipients or errors is one. An
// item is counted bytes plus a 0 byte stored after them, so it serves as a C
// string and as a binary record alike. Growth is linear, by grow_step slots;
// the list never shrinks. All memory comes from the x-allocation wrappers,
// so no operation fails for lack of memory. Not locked: one thread per list.
#pragma once

#include <stdint.h>

// Called once for each item that leaves a list, with the item's data, its
// length and its index at the time of removal. A list given its own callback
// leaves the release of data to it.
using str_list_free_fn = void (*)(void* data, uint32_t len, int32_t index);

// Orders two items by their data; negative, zero or positive.
using str_list_cmp_fn = int (*)(const char* a, const char* b);

struct str_item {
  char* data;    // len bytes and a 0 byte; owned, released through free_fn
  uint32_t len;  // bytes inserted, the 0 byte not counted
};

// Invariants: 0 <= count <= capacity; grow_step >= 0; -1 <= cursor <= count.
struct str_list {
  int32_t count;      // items held, at indices 0 .. count-1
  int32_t grow_step;  // slots added when full; 0: the list never grows
  int32_t capacity;   // slots in items
  int32_t cursor;     // index last returned by the walk; -1 before item 0
  str_item** items;   // a slot may be null
  str_list_free_fn free_fn;
};

// A new, empty list with room for initial_capacity items (none when it is
// below 1) and max(grow_step, 0) as its step. A null free_fn means "free the
// data". The cursor starts at 0, not -1: a walk must begin with
// str_list_first.
str_list* str_list_new(int32_t initial_capacity, int32_t grow_step,
                       str_list_free_fn free_fn);

// Releases every item in ascending index order (free_fn, then the item
// record), then the slots and the list. A null list is ignored.
void str_list_free(str_list* list);

// The count, or the cursor; -1 for a null list.
int32_t str_list_count(const str_list* list);
int32_t str_list_cursor(const str_list* list);

// Inserts a copy of len bytes at index (index == count appends); null data
// stores a null slot. Returns the new count, or -1 with errno EINVAL for a
// null list or an index outside 0..count.
// Kept: a full list with grow_step 0 stores nothing and returns the count
// unchanged without touching errno; callers test the unchanged count.
int32_t str_list_insert(str_list* list, const void* data, uint32_t len,
                        int32_t index);

// The data of item index, or null with errno EINVAL unless 0 <= index <
// count. The cursor is not moved.
char* str_list_get(const str_list* list, int32_t index);

// The walk: str_list_first sets the cursor to 0 and returns item 0 (null,
// errno untouched, for a null or empty list); str_list_next and
// str_list_prev move the cursor one step and return that item, or null at
// either end (the cursor then rests at count or -1) and null with EINVAL
// when the cursor is already past that end. Inserting or removing during a
// walk does not adjust the cursor.
char* str_list_first(str_list* list);
char* str_list_next(str_list* list);
char* str_list_prev(str_list* list);

// The index of the first item equal to len bytes at data (byte for byte,
// same length), searching from start upwards when forward is non-zero, else
// downwards; -1 when none matches. errno is cleared on entry and set to
// EINVAL only for a null list or a start outside 0..count-1.
int32_t str_list_find(const str_list* list, const void* data, uint32_t len,
                      int32_t start, int forward);

// Removes n items from index on and returns the new count, or -1 (EINVAL)
// when the list is null or empty, n is negative, or index or index+n-1 is
// not a valid index. Kept: removing 0 items at index 0 fails, since index-1
// is then checked; at any later index it returns the count unchanged.
int32_t str_list_remove_range(str_list* list, int32_t index, int32_t n);

// Removes the first item equal to the given bytes and returns the new
// count, or -1 with errno 0 when none matches.
int32_t str_list_remove_value(str_list* list, const void* data, uint32_t len);

// Sorts in place into ascending order of cmp (quicksort, then one insertion
// pass). Equal items may change order.
void str_list_sort(str_list* list, str_list_cmp_fn cmp);

// A deep copy with the same grow_step and free_fn, capacity equal to the
// count and cursor -1; null slots stay null.
str_list* str_list_copy(const str_list* list);

// Appends each non-empty piece of text between occurrences of delim to list
// (a new list of capacity 15, step 15 when list is null) and returns the
// list; "a,,b," split at "," gives a, b. Null with errno EINVAL for a null
// text, a null delimiter or an empty one.
str_list* str_split(const char* text, const char* delim, str_list* list);
