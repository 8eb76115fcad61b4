#include "codec/integers.h"
#include "io/io_buffers.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "base/errors.h"
#include "io/messages.h"
#include "test_support.h"

namespace pd {
namespace {

TEST(IntegersTest, WidthsOtherThanOneTwoEightMeanFourBytes) {
  std::uint8_t mem[16];
  for (std::size_t width : {3u, 4u, 16u}) {
    std::memset(mem, 0xAA, sizeof mem);
    fputunsigned(0x1122334455667788ULL, width, mem);
    std::uint32_t low;
    std::memcpy(&low, mem, 4);
    EXPECT_EQ(low, 0x55667788u) << width;
    EXPECT_EQ(mem[4], 0xAA) << "byte past a 4-byte member untouched, width " << width;
    EXPECT_EQ(fgetunsigned(width, mem), 0x55667788u) << width;
  }
  std::memset(mem, 0xAA, sizeof mem);
  fputunsigned(0x1234, 1, mem);
  EXPECT_EQ(mem[0], 0x34);
  EXPECT_EQ(mem[1], 0xAA);
  fputulonglong(0x1122334455667788ULL, 8, mem);
  EXPECT_EQ(fgetulonglong(8, mem), 0x1122334455667788ULL);
}

TEST(IntegersTest, SignedReadsSignExtendUnsignedReadsDoNot) {
  std::uint8_t mem[8];
  std::memset(mem, 0xFF, sizeof mem);
  EXPECT_EQ(fgetsigned(1, mem), -1);
  EXPECT_EQ(fgetsigned(2, mem), -1);
  EXPECT_EQ(fgetsigned(3, mem), -1);
  EXPECT_EQ(fgetsigned(8, mem), -1);
  EXPECT_EQ(fgetunsigned(1, mem), 255u);
  EXPECT_EQ(fgetunsigned(2, mem), 65535u);
  EXPECT_EQ(fgetunsigned(4, mem), 4294967295u);
  fputsigned(-2, 2, mem);
  EXPECT_EQ(fgetsigned(2, mem), -2);
  EXPECT_EQ(mem[2], 0xFF);
}

TEST(IntegersTest, ChecksumIsAPlainByteSum) {
  const std::uint8_t b[] = {0xFF, 0x01};
  EXPECT_EQ(checksum(b, 0), 0u);
  EXPECT_EQ(checksum(b, 2), 256u);
  std::vector<std::uint8_t> big(1 << 20, 0xFF);  // no folding into 32 bits
  EXPECT_EQ(checksum(big.data(), big.size()), 255u << 20);
}

// A block of `len` bytes whose region checksum (bytes 0..7 and 12..) sums to
// `sum` before the modulus.
std::vector<std::uint8_t> block_summing_to(std::uint64_t sum, std::size_t len) {
  std::vector<std::uint8_t> b(len, 0);
  for (std::size_t i = 0; i < len && sum != 0; ++i) {
    if (i >= 8 && i < 12) continue;
    std::uint64_t take = sum < 255 ? sum : 255;
    b[i] = static_cast<std::uint8_t>(take);
    sum -= take;
  }
  return b;
}

TEST(IntegersTest, RegionChecksumSkipsStoredBytesAndUsesModulusTwoPow32Minus1) {
  const std::size_t len = 17000000;  // room for sums above 2^32 in bytes of 255
  auto b = block_summing_to(4294967295ULL, len);
  EXPECT_EQ(region_checksum(b.data(), len), 0u);
  b = block_summing_to(4294967296ULL, len);
  EXPECT_EQ(region_checksum(b.data(), len), 1u);
  b = block_summing_to(4294967294ULL, len);
  EXPECT_EQ(region_checksum(b.data(), len), 4294967294u);

  std::vector<std::uint8_t> hdr(512, 0);
  hdr[0] = 1;
  hdr[511] = 2;
  EXPECT_EQ(region_checksum(hdr.data(), 512), 3u);
  for (int i = 8; i < 12; ++i) hdr[i] = 0x77;
  EXPECT_EQ(region_checksum(hdr.data(), 512), 3u);
}

TEST(IntegersTest, BufGetRoundsToPagesGrowsAndZeroRequestsAlwaysReplace) {
  test::captured_session cs;
  session& s = cs.get();
  std::uint8_t* a = buf_get(s, 0);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(s.bufs.vold_buffers->buf_size, 4096u);
  for (int i = 0; i < 4096; ++i) ASSERT_EQ(a[i], 0);
  a[0] = 0x5A;
  EXPECT_EQ(buf_get(s, 100), a);  // reused, not cleared
  EXPECT_EQ(a[0], 0x5A);
  EXPECT_EQ(buf_get(s, 4096), a);

  std::uint8_t* b = buf_get(s, 5000);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(s.bufs.vold_buffers->buf_size, 8192u);
  EXPECT_EQ(b[0], 0);  // contents are not carried over

  b[0] = 0x5A;
  std::uint8_t* c = buf_get(s, 0);  // even with a larger buffer in place
  EXPECT_EQ(s.bufs.vold_buffers->buf_size, 4096u);
  EXPECT_EQ(c[0], 0);
  EXPECT_EQ(s.bufs.vold_buffers->buf_next, nullptr);  // one record per thread

  buf_release(s);  // the main thread keeps its buffer
  EXPECT_EQ(buf_get(s, 10), c);
}

TEST(IntegersTest, GetdwordIsStrictInAutomaticBase) {
  test::captured_session cs;
  EXPECT_EQ(getdword(cs.get(), "0x10", "count"), 16u);
  EXPECT_EQ(getdword(cs.get(), "010", "count"), 8u);
  EXPECT_EQ(getdword(cs.get(), "42", "count"), 42u);
  EXPECT_EQ(cs.err(), "");
  for (const char* bad : {"12a", ""}) {
    test::captured_session c2;
    volsetlabel(c2.get(), "qztool:priv");
    try {
      getdword(c2.get(), bad, "count");
      ADD_FAILURE() << "accepted " << bad;
    } catch (const fatal_exit& e) {
      EXPECT_EQ(e.status, 1);
    }
    EXPECT_EQ(c2.err(), std::string("qztool:priv: ERROR: ") + bad + ": Invalid count\n");
  }
}

}  // namespace
}  // namespace pd
