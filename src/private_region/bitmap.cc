// Chunk bitmaps. The search routines keep two stated limits: forward searches
// of maps of 32 bits or more test the whole last word (never a word beyond
// it), and the reverse set-bit search reports bit numbers plus one.
#include "private_region/bitmap.h"

#include <cstdlib>
#include <cstring>

namespace pd {

namespace {

inline bool word_bit(bitmap_t w, int j) { return ((w >> j) & 1u) != 0; }

// Start of the word that holds bit `bit` (bit >= 0).
inline int word_start(int bit) { return bit / BMAP_WORD_BITS * BMAP_WORD_BITS; }

// Lowest bit at or above `from` whose value is `want`; see the header.
int find_from(const bitmap_t* map, int nbits, int from, bool want) {
  if (from < 0) from = 0;  // a negative start would name a word before the map
  const bitmap_t skip = want ? 0u : ~0u;
  const int limit = (nbits >= 0 && nbits <= 31) ? nbits : BMAP_WORD_BITS;
  int bitno = word_start(from);
  for (int w = from / BMAP_WORD_BITS; w < bmap_words(nbits); ++w, bitno += BMAP_WORD_BITS) {
    const bitmap_t word = map[w];
    if (word == skip) continue;
    for (int j = 0; j < limit; ++j) {
      if (word_bit(word, j) == want && bitno + j >= from) return bitno + j;
    }
  }
  return -1;
}

}  // namespace

bitmap_t* bmap_alloc(int nbits) {
  const int words = bmap_words(nbits);
  // calloc of zero words may give null; one spare word keeps "null = no memory".
  return static_cast<bitmap_t*>(std::calloc(words > 0 ? words : 1, sizeof(bitmap_t)));
}

bitmap_t* bmap_realloc(bitmap_t* map, int nbits, int oldbits) {
  const std::size_t newwords = static_cast<std::size_t>(bmap_words(nbits)) * 2;
  auto* grown = static_cast<bitmap_t*>(
      std::realloc(map, (newwords > 0 ? newwords : 1) * sizeof(bitmap_t)));
  if (grown == nullptr) return nullptr;
  // The old map may have been allocated by bmap_alloc (one times the words);
  // zero everything past the words the old size needed.
  const std::size_t keep = static_cast<std::size_t>(bmap_words(oldbits));
  if (newwords > keep) std::memset(grown + keep, 0, (newwords - keep) * sizeof(bitmap_t));
  if (nbits > oldbits) bmap_clear_range(grown, nbits, nbits - oldbits);
  return grown;
}

void bmap_free(bitmap_t* map) { std::free(map); }

void bmap_set(bitmap_t* map, int i) { map[i / BMAP_WORD_BITS] |= 1u << (i % BMAP_WORD_BITS); }

void bmap_clear(bitmap_t* map, int i) {
  map[i / BMAP_WORD_BITS] &= ~(1u << (i % BMAP_WORD_BITS));
}

int bmap_test(const bitmap_t* map, int i) {
  return word_bit(map[i / BMAP_WORD_BITS], i % BMAP_WORD_BITS) ? 1 : 0;
}

void bmap_set_range(bitmap_t* map, int first, int count) {
  for (int i = 0; i < count; ++i) bmap_set(map, first + i);
}

void bmap_clear_range(bitmap_t* map, int first, int count) {
  for (int i = 0; i < count; ++i) bmap_clear(map, first + i);
}

void bmap_add(bitmap_t* dst, const bitmap_t* src, int nbits) {
  for (int w = 0; w < bmap_words(nbits); ++w) dst[w] |= src[w];
}

void bmap_sub(bitmap_t* dst, const bitmap_t* src, int nbits) {
  for (int w = 0; w < bmap_words(nbits); ++w) dst[w] &= ~src[w];
}

int bmap_count_clear(const bitmap_t* map, int first, int last) {
  int n = 0;
  for (int i = first; i <= last && !bmap_test(map, i); ++i) ++n;
  return n;
}

int bmap_count_clear_reverse(const bitmap_t* map, int first, int last) {
  int n = 0;
  for (int i = first; i >= last && !bmap_test(map, i); --i) ++n;
  return n;
}

int bmap_find_set(const bitmap_t* map, int nbits) { return find_from(map, nbits, 0, true); }

int bmap_find_set_from(const bitmap_t* map, int nbits, int from) {
  return find_from(map, nbits, from, true);
}

int bmap_find_clear(const bitmap_t* map, int nbits) { return find_from(map, nbits, 0, false); }

int bmap_find_clear_from(const bitmap_t* map, int nbits, int from) {
  return find_from(map, nbits, from, false);
}

int bmap_find_set_reverse(const bitmap_t* map, int nbits) {
  // The counter starts one above the top bit of the last word, so what it
  // reports is the bit number plus one.
  long counter = static_cast<long>(bmap_words(nbits)) * BMAP_WORD_BITS;
  for (int w = bmap_words(nbits) - 1; w >= 0; --w) {
    const bitmap_t word = map[w];
    if (word == 0) {
      counter -= BMAP_WORD_BITS;
      continue;
    }
    for (int j = BMAP_WORD_BITS - 1; j >= 0; --j, --counter) {
      if (word_bit(word, j) && counter < nbits) return static_cast<int>(counter);
    }
  }
  return -1;
}

int bmap_find_clear_reverse(const bitmap_t* map, int nbits) {
  long counter = static_cast<long>(bmap_words(nbits)) * BMAP_WORD_BITS - 1;
  for (int w = bmap_words(nbits) - 1; w >= 0; --w) {
    const bitmap_t word = map[w];
    if (word == ~0u) {
      counter -= BMAP_WORD_BITS;
      continue;
    }
    for (int j = BMAP_WORD_BITS - 1; j >= 0; --j, --counter) {
      if (!word_bit(word, j) && counter < nbits) return static_cast<int>(counter);
    }
  }
  return -1;
}

int bmap_find_clear_range(const bitmap_t* map, int nbits, int from, int count) {
  int start = from;
  for (;;) {
    const int b = bmap_find_clear_from(map, nbits, start);
    if (b < 0) return -1;
    if (static_cast<long>(b) + count > nbits) return -1;
    int i = b;
    while (i < b + count && !bmap_test(map, i)) ++i;
    if (i >= b + count) return b;
    start = i;  // the set bit that interrupted the run
  }
}

int bmap_find_clear_reverse_range(const bitmap_t* map, int top, int count) {
  for (;;) {
    const int b = bmap_find_clear_reverse(map, top + 1);
    if (b < 0) return -1;
    if (static_cast<long>(b) - count < -1) return -1;
    int i = b;
    while (i > b - count && !bmap_test(map, i)) --i;
    if (i <= b - count) return b;
    top = i - 1;  // below the set bit that interrupted the run
  }
}

}  // namespace pd
