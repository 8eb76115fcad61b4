// Chunk bitmaps: the searches with their stated limits, and extents that
// never leave the allocated words (the sanitizer build checks the latter).
#include "private_region/bitmap.h"

#include <gtest/gtest.h>

#include <memory>

namespace pd {
namespace {

struct map_deleter {
  void operator()(bitmap_t* m) const { bmap_free(m); }
};
using map_ptr = std::unique_ptr<bitmap_t, map_deleter>;

map_ptr make(int nbits) {
  map_ptr m(bmap_alloc(nbits));
  EXPECT_NE(m, nullptr);
  return m;
}

TEST(BitmapTest, AllocatesWholeWordsZeroed) {
  auto m = make(33);
  EXPECT_EQ(bmap_count_clear(m.get(), 0, 63), 64);  // two words, all clear
  bmap_set(m.get(), 63);
  EXPECT_EQ(m.get()[1], 0x80000000u);
  EXPECT_NE(make(0), nullptr);
}

TEST(BitmapTest, CountClearBothWays) {
  auto m = make(100);
  EXPECT_EQ(bmap_count_clear(m.get(), 5, 4), 0);
  EXPECT_EQ(bmap_count_clear(m.get(), 0, 99), 100);
  bmap_set(m.get(), 40);
  EXPECT_EQ(bmap_count_clear(m.get(), 10, 99), 30);
  EXPECT_EQ(bmap_count_clear(m.get(), 40, 99), 0);
  EXPECT_EQ(bmap_count_clear_reverse(m.get(), 60, 0), 20);
  EXPECT_EQ(bmap_count_clear_reverse(m.get(), 39, 30), 10);
  EXPECT_EQ(bmap_count_clear_reverse(m.get(), 4, 5), 0);
}

// Searches test the whole last word of a map above 32 bits, stop at nbits
// in a map of one word, skip whole words and honour the start.
TEST(BitmapTest, ForwardSearches) {
  auto m = make(40);
  bmap_set_range(m.get(), 0, 40);
  EXPECT_EQ(bmap_find_clear(m.get(), 40), 40);  // beyond nbits, inside the last word
  bmap_set_range(m.get(), 40, 24);               // now both words are full
  EXPECT_EQ(bmap_find_clear(m.get(), 40), -1);   // and word 2 is never read
  EXPECT_EQ(bmap_find_clear_from(m.get(), 40, 1000), -1);
  auto z = make(40);
  bmap_set(z.get(), 45);  // a bit past nbits in the last word
  EXPECT_EQ(bmap_find_set(z.get(), 40), 45);
  EXPECT_EQ(bmap_find_set_from(z.get(), 40, 46), -1);

  auto small = make(10);
  bmap_set_range(small.get(), 0, 10);
  EXPECT_EQ(bmap_find_clear(small.get(), 10), -1);
  bmap_set(small.get(), 20);
  EXPECT_EQ(bmap_find_set_from(small.get(), 10, 10), -1);
  EXPECT_EQ(bmap_find_set_from(small.get(), 10, 3), 3);
  bmap_clear(small.get(), 7);
  EXPECT_EQ(bmap_find_clear_from(small.get(), 10, 2), 7);

  auto big = make(200);
  bmap_set(big.get(), 3);
  bmap_set(big.get(), 130);
  EXPECT_EQ(bmap_find_set(big.get(), 200), 3);
  EXPECT_EQ(bmap_find_set_from(big.get(), 200, 4), 130);
  EXPECT_EQ(bmap_find_set_from(big.get(), 200, 131), -1);
  bmap_set_range(big.get(), 0, 200);
  bmap_clear(big.get(), 150);
  EXPECT_EQ(bmap_find_clear_from(big.get(), 200, 100), 150);
  EXPECT_EQ(bmap_find_clear(big.get(), 200), 150);
}

TEST(BitmapTest, ReverseSearches) {
  auto m = make(70);
  bmap_set(m.get(), 0);
  EXPECT_EQ(bmap_find_set_reverse(m.get(), 70), 1);  // bit number plus one
  bmap_set(m.get(), 50);
  EXPECT_EQ(bmap_find_set_reverse(m.get(), 70), 51);
  bmap_set(m.get(), 69);  // reported as 70, which is not below nbits
  EXPECT_EQ(bmap_find_set_reverse(m.get(), 70), 51);
  auto e = make(70);
  EXPECT_EQ(bmap_find_set_reverse(e.get(), 70), -1);

  EXPECT_EQ(bmap_find_clear_reverse(e.get(), 70), 69);
  bmap_set_range(e.get(), 60, 10);
  EXPECT_EQ(bmap_find_clear_reverse(e.get(), 70), 59);
  bmap_set_range(e.get(), 0, 60);
  EXPECT_EQ(bmap_find_clear_reverse(e.get(), 70), -1);
}

TEST(BitmapTest, ClearRunSearches) {
  auto m = make(100);
  bmap_set(m.get(), 5);
  bmap_set(m.get(), 12);
  EXPECT_EQ(bmap_find_clear_range(m.get(), 100, 0, 0), 0);  // count 0: first clear bit
  EXPECT_EQ(bmap_find_clear_range(m.get(), 100, 0, 5), 0);
  EXPECT_EQ(bmap_find_clear_range(m.get(), 100, 1, 5), 6);
  EXPECT_EQ(bmap_find_clear_range(m.get(), 100, 0, 7), 13);
  EXPECT_EQ(bmap_find_clear_range(m.get(), 100, 0, 87), 13);
  EXPECT_EQ(bmap_find_clear_range(m.get(), 100, 0, 88), -1);  // would end past nbits

  EXPECT_EQ(bmap_find_clear_reverse_range(m.get(), 99, 3), 99);
  EXPECT_EQ(bmap_find_clear_reverse_range(m.get(), 13, 3), 11);  // 11,10,9 (12 is set)
  EXPECT_EQ(bmap_find_clear_reverse_range(m.get(), 12, 6), 11);  // 11..6
  EXPECT_EQ(bmap_find_clear_reverse_range(m.get(), 11, 7), -1);  // 11..5 has bit 5
  EXPECT_EQ(bmap_find_clear_reverse_range(m.get(), 4, 5), 4);
  EXPECT_EQ(bmap_find_clear_reverse_range(m.get(), 4, 6), -1);
}

TEST(BitmapTest, ReallocDoublesAndClearsFromTheNewSize) {
  bitmap_t* m = bmap_alloc(32);
  bmap_set_range(m, 0, 32);
  m = bmap_realloc(m, 64, 32);  // 2 words needed, 4 allocated
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m[0], 0xFFFFFFFFu);
  // bits 64..95 are cleared (nbits - oldbits from nbits); all of the fourth
  // word is addressable.
  bmap_set(m, 127);
  EXPECT_EQ(bmap_count_clear(m, 32, 126), 95);
  bmap_free(m);
}

}  // namespace
}  // namespace pd
