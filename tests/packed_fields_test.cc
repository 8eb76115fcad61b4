// The packed form of decoded structures that report loads keep: every byte
// range of a structure read back from it is the structure's own.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "report/copy_loading.h"

namespace pd {
namespace {

TEST(PackedFieldsTest, EveryRangeReadsBackAsStored) {
  std::mt19937 rng(7);
  std::vector<std::vector<std::uint8_t>> shapes;
  shapes.push_back(std::vector<std::uint8_t>(672, 0));       // nothing set
  shapes.push_back(std::vector<std::uint8_t>(13, 0xff));     // a partial last word
  std::vector<std::uint8_t> gaps(601, 0);
  for (std::size_t i = 0; i < gaps.size(); i += 9) gaps[i] = 1;  // words zero and not
  shapes.push_back(gaps);
  std::vector<std::uint8_t> ends(300, 0);
  ends[0] = 9;
  ends[299] = 9;  // set bytes at both ends, 298 zeros between
  shapes.push_back(ends);
  for (int k = 0; k < 200; ++k) {  // sparse random structures of every size
    std::vector<std::uint8_t> s(1 + rng() % 672, 0);
    for (auto& b : s) {
      if (rng() % 5 == 0) b = static_cast<std::uint8_t>(rng());
    }
    shapes.push_back(s);
  }
  for (const auto& s : shapes) {
    std::vector<std::uint8_t> packed(packed_size_max(s.size()));
    const std::size_t len = pack_fields(s.data(), s.size(), packed.data());
    ASSERT_LE(len, packed.size());
    std::vector<std::uint8_t> back(s.size());
    unpack_bytes(packed.data(), s.size(), 0, s.size(), back.data());
    EXPECT_EQ(back, s);
    for (int k = 0; k < 20; ++k) {
      const std::size_t off = rng() % s.size();
      const std::size_t n = 1 + rng() % (s.size() - off);
      std::vector<std::uint8_t> part(n, 0xaa);
      unpack_bytes(packed.data(), s.size(), off, n, part.data());
      EXPECT_TRUE(std::equal(part.begin(), part.end(), s.begin() + static_cast<long>(off)));
    }
  }
}

}  // namespace
}  // namespace pd
