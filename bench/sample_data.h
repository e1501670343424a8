// bench/sample_data.h: the data the benchmarks feed through the agent and
// the tools it is compared with. Text-like data is words drawn with a skew
// towards the front of a list, with endings, now and then a number,
// sentences and lines, so that deflate-9 gets about 3:1 out of it, as out of
// prose; random data does not compress at all. Both are a pure function of
// their seed, so every run of a benchmark sees the same bytes.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

// Appends n bytes of text-like data.
void append_text(std::string* s, size_t n, uint64_t seed);

// Appends n bytes that deflate cannot shrink.
void append_random(std::string* s, size_t n, uint64_t seed);
