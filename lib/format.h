// lib/format.h: the small conversions between numbers, bytes and text that
// the agent shares: the elapsed time of the report, size texts, dotted-quad
// addresses, the time stamp of log lines, in-place text replacement,
// character-class tests and an error text that is safe to print. Every
// function writes into a buffer the caller provides; only memdup_z
// allocates. None keeps state.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <time.h>

// Writes seconds as "HH:MM:SS" (two digits a field) and returns 8. Hours
// above 99 print as "99", while minutes and seconds stay those of the rest:
// 400000 gives "99:06:40".
// REQUIRES: out holds at least 9 chars.
int format_duration(uint32_t seconds, char* out);

// Writes bytes as "%.2f %cB" with the binary multiple K, M, G, T, P or E,
// dividing by 1024 while the value is above 1024.0, and returns the length
// written (what fitted in size, the 0 byte not counted). Kept on purpose: a
// value not above 1024.0 prints bare, with no unit ("1024.00"), and
// 1048576 gives "1024.00 KB"; past E the letter stops, so a value still
// above 1024.0 is divided once more and printed with E all the same.
// The text is cut to fit size; 32 chars hold any count below 10^30.
int format_size(double bytes, char* out, size_t size);

// Writes a compact size and returns out: below 1024 the low 32 bits of
// bytes as a signed "%d" (so every negative count prints plain), else
// "%.2f" and one of k, M, G, T with no space and no "B" ("1.00k").
// The text is cut to fit size; 32 chars hold every int64 count.
char* format_size_short(int64_t bytes, char* out, size_t size);

// Writes addr (most significant byte first) as "a.b.c.d" and returns the
// length.
// REQUIRES: out holds at least 16 chars.
int format_ipv4(uint32_t addr, char* out);

// The dotted quad as an address, first number in the top byte; 0 for a null
// text. Pieces are split at "." (empty pieces dropped) and read with
// strtol base 10; there is no range check: each number keeps only its low
// 8 bits ("256.1.2.3" gives 0.1.2.3). A text of fewer than four pieces
// reads the missing ones as 0.
uint32_t parse_ipv4(const char* text);

// Writes the local time now as "MM/DD/YY hh:mm:ss" and returns out; a null
// out writes nothing and returns null. Kept on purpose: the year field is
// the years since 1900, less 100 once when above 99, so from 2100 on it
// has three digits.
// REQUIRES: out holds at least 18 chars (19 from the year 2100 on).
char* now_text(char* out);

// Seconds since the epoch, from the time-of-day clock.
time_t time_now();

// Milliseconds since the epoch: seconds * 1000 plus the millisecond part,
// in 64 bits.
uint64_t time_now_ms();

// Replaces each occurrence of from by to in the 0-terminated text in buffer,
// from the left; the search resumes behind each inserted text, so a to that
// contains from does not loop. When a replacement would leave a text of size
// bytes or more, the work stops there and the remaining occurrences stay, so
// the result always fits with its 0 byte. An empty from changes nothing.
void str_replace_all(char* buffer, size_t size, const char* from,
                     const char* to);

// 1 when every character of text is a letter (C locale), else 0; an empty
// text yields 1.
int str_is_alpha(const char* text);

// 1 when every character of text is a letter, a digit or "_", else 0. Kept:
// the first character is tested before the end is looked for, so an empty
// text yields 0.
int str_is_identifier(const char* text);

// 1 when every character of text is a decimal digit, else 0; an empty text
// yields 1.
int str_is_digits(const char* text);

// The system's text for errnum, or "Unknown error" when the system rejects
// the number by setting errno. Never null; errno is left as it was.
const char* safe_strerror(int errnum);

// A new block of n+1 bytes from xmalloc holding the n bytes and a 0 byte;
// the caller frees it. Null for null bytes.
char* memdup_z(const void* bytes, size_t n);

// Prints n bytes from bytes[start] on standard output as "%d " each (the
// unsigned value and a blank), then "\n". Null bytes print "b is null\n";
// n 0 prints "Array length is 0\n"; a negative n prints only "\n".
void dump_bytes(const void* bytes, int32_t start, int32_t n);
