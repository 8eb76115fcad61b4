// The builder's log content generator: description lines to log blocks.
#include "privbuild/log_writer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "codec/integers.h"
#include "report/log_dump.h"
#include "test_support.h"

namespace pd::privbuild {
namespace {

log_content parse_all(const std::vector<std::string>& lines) {
  log_content c;
  for (const std::string& l : lines) {
    std::string error;
    EXPECT_TRUE(log_parse_line(l, c, error)) << l << ": " << error;
  }
  return c;
}

TEST(LogWriter, WritesTheHeaderWordsAndEntriesWhereTheDumpReadsThem) {
  log_content c = parse_all({
      "block magic=kLOG tid=1.2 seqno=3 len=9 blkno=4",
      "entry type=app_dirty rid=0.12 tid=0.7 recover=5",
      "entry slot=19 type=200 words=1,2,3,4,0x10",
      "block",
      "entry type=commit tid=6.7",
  });
  std::vector<std::uint8_t> copy(3 * 512, 0xEE);
  std::string error;
  ASSERT_TRUE(log_write(c, copy.data(), copy.size(), error)) << error;
  // (Header words and the entry types' words are read back by the dumps of
  // builder images.) Raw words in the slot asked for, a skipped slot empty,
  // the reserved bytes cleared.
  const std::uint8_t* b0 = copy.data();
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(b0), 4), "kLOG");
  EXPECT_EQ(get_be32(b0 + 20), 4u);  // block number as given
  EXPECT_EQ(b0[48], 0);
  EXPECT_EQ(b0[24 + 24 * 19], 200);
  EXPECT_EQ(get_be32(b0 + 24 + 24 * 19 + 1), 1u);
  EXPECT_EQ(get_be32(b0 + 24 + 24 * 19 + 17), 16u);
  EXPECT_EQ(b0[504], 0);
  const std::uint8_t* b1 = copy.data() + 512;
  volseqno_t tid;
  unsigned long seqno = 0;
  std::size_t len = 0;
  ASSERT_EQ(logblk_valid(b1, 512, 1, &tid, &seqno, &len), 1);  // blkno defaults to the index
  EXPECT_EQ(len, 2u);                                          // len defaults to the blocks
  test::captured_session cs;
  priv_print_log(cs.get(), b1 + 24, b1 + 512, 0, 1);
  EXPECT_EQ(cs.out(), "BLOCK 1: KLOG 0  :   COMMIT tid=6.7\n");
  EXPECT_EQ(copy[1024], 0xEE);  // beyond the described blocks nothing is written
}

TEST(LogWriter, RefusesMalformedLines) {
  const std::vector<std::vector<std::string>> bad = {
      {"entry type=dirty"},                   // no block yet
      {"block magic=KLO"},                    // magic of three characters
      {"block tid=5"},                        // tid without a point
      {"block", "entry type=256"},            // type byte out of range
      {"block", "entry type=dirty slot=20"},  // no such slot
      {"block len"},
  };
  for (const auto& lines : bad) {
    log_content c;
    std::string error;
    bool ok = true;
    for (const std::string& l : lines) ok = ok && log_parse_line(l, c, error);
    EXPECT_FALSE(ok) << lines.back();
    EXPECT_FALSE(error.empty());
  }
}

TEST(LogWriter, RefusesBlocksThatDoNotFitAndSlotsTakenTwice) {
  std::string error;
  std::vector<std::uint8_t> copy(512);
  log_content two = parse_all({"block", "block"});
  EXPECT_FALSE(log_write(two, copy.data(), copy.size(), error));

  log_content twice = parse_all({"block", "entry slot=3 type=dirty", "entry slot=3 type=commit"});
  EXPECT_FALSE(log_write(twice, copy.data(), copy.size(), error));

  log_content full = parse_all({"block"});
  for (int i = 0; i < 21; i++) {
    ASSERT_TRUE(log_parse_line("entry type=dirty", full, error));
  }
  EXPECT_FALSE(log_write(full, copy.data(), copy.size(), error));
}

}  // namespace
}  // namespace pd::privbuild
