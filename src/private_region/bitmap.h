// Chunk bitmaps: one bit per chunk of a private region, set = in use.
//
// A bitmap is a heap array of 32-bit words; bit i is bit (i mod 32) of word
// i / 32, least significant bit first. The number of bits is not stored:
// every routine that needs it takes it as `nbits`, and the array holds
// (nbits + 31) / 32 words. Bit numbers and counts are signed 32-bit.
// Allocate with bmap_alloc/bmap_realloc, release with bmap_free.
//
// Contract on extents: routines that take `nbits` never touch a word at or
// beyond (nbits + 31) / 32. Routines that take explicit bit numbers
// (bmap_set, bmap_set_range, bmap_count_clear, ...) REQUIRE those bits to lie
// within the allocated words; their callers bound them.
#pragma once

#include <cstdint>

namespace pd {

using bitmap_t = std::uint32_t;

inline constexpr int BMAP_WORD_BITS = 32;

// Words holding `nbits` bits.
inline int bmap_words(int nbits) { return nbits <= 0 ? 0 : (nbits + 31) / 32; }

// A zeroed map of (nbits + 31) / 32 words, or null when memory is exhausted.
bitmap_t* bmap_alloc(int nbits);
// Resizes to twice the words `nbits` needs and, when growing, clears
// nbits - oldbits bits starting at bit `nbits` (not at `oldbits`). Words that
// realloc adds are zeroed first, so the bits oldbits..nbits-1 read as clear.
// Null (and `map` untouched) when memory is exhausted.
bitmap_t* bmap_realloc(bitmap_t* map, int nbits, int oldbits);
void bmap_free(bitmap_t* map);

void bmap_set(bitmap_t* map, int i);
void bmap_clear(bitmap_t* map, int i);
int bmap_test(const bitmap_t* map, int i);
void bmap_set_range(bitmap_t* map, int first, int count);
void bmap_clear_range(bitmap_t* map, int first, int count);
void bmap_add(bitmap_t* dst, const bitmap_t* src, int nbits);
void bmap_sub(bitmap_t* dst, const bitmap_t* src, int nbits);

// Consecutive clear bits from `first` upwards (downwards for the reverse
// form), stopping at the first set bit or after `last` (inclusive).
int bmap_count_clear(const bitmap_t* map, int first, int last);
int bmap_count_clear_reverse(const bitmap_t* map, int first, int last);

// Lowest set / clear bit at or above `from`, or -1. For maps of 32 bits or
// more the whole last word is tested, so a bit at or above `nbits` in that
// word can be reported.
int bmap_find_set(const bitmap_t* map, int nbits);
int bmap_find_set_from(const bitmap_t* map, int nbits, int from);
int bmap_find_clear(const bitmap_t* map, int nbits);
int bmap_find_clear_from(const bitmap_t* map, int nbits, int from);

// Highest set bit below `nbits`, reported as its bit number plus one; -1 when
// none.
int bmap_find_set_reverse(const bitmap_t* map, int nbits);
// Highest clear bit below `nbits` (its true number), or -1.
int bmap_find_clear_reverse(const bitmap_t* map, int nbits);

// Lowest run of `count` clear bits at or above `from` ending within `nbits`;
// its first bit, or -1.
int bmap_find_clear_range(const bitmap_t* map, int nbits, int from, int count);
// Highest run of `count` clear bits at or below `top`; the run's highest bit,
// or -1.
int bmap_find_clear_reverse_range(const bitmap_t* map, int top, int count);

}  // namespace pd
