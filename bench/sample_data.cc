// bench/sample_data.cc: see sample_data.h.
#include "bench/sample_data.h"

#include <algorithm>
#include <random>

namespace {

const char* const WORDS[] = {
    "the",     "of",         "and",     "to",          "a",        "in",
    "is",      "it",         "that",    "for",         "was",      "on",
    "with",    "as",         "by",      "at",          "from",     "this",
    "file",    "block",      "backup",  "server",      "night",    "storage",
    "which",   "there",      "their",   "would",       "could",    "should",
    "about",   "after",      "before",  "under",       "between",  "through",
    "system",  "account",    "report",  "change",      "index",    "service",
    "people",  "because",    "another", "without",     "question", "morning",
    "remote",  "together",   "against", "several",     "although", "whatever",
    "machine", "evening",    "picture", "summer",      "journey",  "village",
    "garden",  "history",    "letter",  "mountain",    "river",    "window",
    "number",  "paper",      "power",   "market",      "silence",  "kitchen",
    "problem", "answer",     "table",   "reason",      "country",  "quickly",
    "slowly",  "nothing",    "already", "perhaps",     "year",     "work",
    "day",     "hand",       "part",    "place",       "case",     "week",
    "point",   "government", "company", "group",       "world",    "house",
    "fact",    "home",       "water",   "room",        "mother",   "area",
    "money",   "story",      "month",   "lot",         "right",    "study",
    "book",    "eye",        "job",     "word",        "business", "issue",
    "side",    "kind",       "head",    "friend",      "father",   "hour",
    "game",    "line",       "end",     "member",      "law",      "car",
    "city",    "community",  "name",    "president",   "team",     "minute",
    "idea",    "kid",        "body",    "information", "back",     "parent",
    "face",    "others",     "level",   "office",      "door",     "health",
    "person",  "art",        "war",     "party",       "result",   "girl",
    "guy",     "moment",     "air",     "teacher",     "force",    "education",
    "foot",    "boy",        "age",     "policy",      "process",  "music"};
const char* const ENDINGS[] = {"", "", "", "s", "ed", "ing", "er", "ly"};
constexpr size_t WORD_COUNT = sizeof WORDS / sizeof WORDS[0];
constexpr size_t ENDING_COUNT = sizeof ENDINGS / sizeof ENDINGS[0];

}  // namespace

void append_text(std::string* s, size_t n, uint64_t seed) {
  std::mt19937 rng(static_cast<uint32_t>(seed ^ (seed >> 32)));
  size_t end = s->size() + n;
  s->reserve(end + 64);
  size_t line = s->size();
  while (s->size() < end) {
    size_t words = 4 + rng() % 14;
    for (size_t w = 0; w < words; ++w) {
      size_t start = s->size();
      if (rng() % 20 == 0) {
        *s += std::to_string(rng() % 10000);
      } else {
        // The smaller of two draws: common words come up more often.
        size_t i = std::min(rng() % WORD_COUNT, rng() % WORD_COUNT);
        *s += WORDS[i];
        *s += ENDINGS[rng() % ENDING_COUNT];
      }
      char& first = (*s)[start];
      if (w == 0 && first >= 'a') {
        first = static_cast<char>(first - 'a' + 'A');
      }
      *s += w + 1 < words ? (rng() % 9 == 0 ? ", " : " ") : ". ";
    }
    if (s->size() - line > 72) {
      s->back() = '\n';
      line = s->size();
    }
  }
  s->resize(end);
}

void append_random(std::string* s, size_t n, uint64_t seed) {
  std::mt19937_64 rng(seed);
  size_t start = s->size();
  s->resize(start + n);
  for (size_t i = 0; i < n; i += 8) {
    uint64_t v = rng();
    for (size_t j = 0; j < 8 && i + j < n; ++j) {
      (*s)[start + i + j] = static_cast<char>(v >> (8 * j));
    }
  }
}
