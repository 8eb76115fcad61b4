// Log copy dump: block validation, entry lines, and the log length of whole
// copies from an image file through a handle built by hand (the dumps of
// builder images show the rest).
#include "report/log_dump.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "codec/integers.h"
#include "io/messages.h"
#include "test_support.h"

namespace pd {
namespace {

using block = std::array<std::uint8_t, KLOG_BLKSIZE>;

// A log block with the given header words and no entries.
block log_block(const char* magic, std::uint32_t tid_hi, std::uint32_t tid_lo, std::uint32_t seqno,
                std::uint32_t loglen, std::uint32_t blkno) {
  block b{};
  std::memcpy(b.data(), magic, 4);  // bytes 0-3 magic
  put_be32(b.data() + 4, tid_hi);   // bytes 4-7 tid high half
  put_be32(b.data() + 8, tid_lo);   // bytes 8-11 tid low half
  put_be32(b.data() + 12, seqno);   // bytes 12-15 log sequence number
  put_be32(b.data() + 16, loglen);  // bytes 16-19 log length
  put_be32(b.data() + 20, blkno);   // bytes 20-23 block number
  return b;
}

// Entry n of a block: type byte, then five words from entry byte 1.
void put_entry(block& b, int n, std::uint8_t type, std::array<std::uint32_t, 5> words) {
  std::uint8_t* e = b.data() + 24 + 24 * n;
  e[0] = type;
  for (int k = 0; k < 5; k++) put_be32(e + 1 + 4 * k, words[k]);
}

// Both magics are accepted with the header words reported; other magics,
// a number other than the block's index and a buffer with no room for the
// header are refused, leaving the results alone.
TEST(LogBlockValid, MagicsNumbersAndShortBuffers) {
  for (const char* magic : {"KLOG", "kLOG"}) {
    block b = log_block(magic, 1, 2, 77, 9, 4);
    volseqno_t tid;
    unsigned long seqno = 0;
    std::size_t len = 0;
    ASSERT_EQ(logblk_valid(b.data(), b.size(), 4, &tid, &seqno, &len), 1) << magic;
    EXPECT_EQ(seqno_value(tid), (1ull << 32) | 2);
    EXPECT_EQ(seqno, 77u);
    EXPECT_EQ(len, 9u);
  }
  volseqno_t tid{0, 5};
  unsigned long seqno = 6;
  std::size_t len = 7;
  for (const char* magic : {"KLOg", "VBLK"}) {
    block b = log_block(magic, 1, 2, 3, 4, 0);
    EXPECT_EQ(logblk_valid(b.data(), b.size(), 0, &tid, &seqno, &len), 0) << magic;
  }
  block b = log_block("KLOG", 1, 2, 3, 4, 5);  // says 5, stands at index 4
  EXPECT_EQ(logblk_valid(b.data(), b.size(), 4, &tid, &seqno, &len), 0);
  EXPECT_EQ(logblk_valid(b.data(), 23, 5, &tid, &seqno, &len), 0);  // no room for the header
  EXPECT_EQ(seqno_value(tid), 5ull << 32);
  EXPECT_EQ(seqno, 6u);
  EXPECT_EQ(len, 7u);
}

// An entry line: the index left-aligned in three columns, high halves
// unsigned; an empty entry prints nothing; an entry whose words would run
// past the limit is not read at all. (Every entry type is shown by the
// dumps of builder images.)
TEST(PrintLog, EntryLinesAndTheLimit) {
  test::captured_session cs;
  block b{};
  put_entry(b, 0, 2, {4294967295u, 0, 9, 9, 9});
  put_entry(b, 19, 3, {0, 9, 0, 0, 0});
  const std::uint8_t* e = b.data() + 24 + 24 * 19;
  EXPECT_EQ(priv_print_log(cs.get(), b.data() + 24, b.data() + b.size(), 3, 2), 0);
  EXPECT_EQ(priv_print_log(cs.get(), b.data() + 48, b.data() + b.size(), 4, 2), 0);
  EXPECT_EQ(priv_print_log(cs.get(), e, b.data() + b.size(), 19, 127), 0);
  const std::string lines =
      "BLOCK 2: KLOG 3  :   DIRTY rid=4294967295.0\n"
      "BLOCK 127: KLOG 19 :   COMMIT tid=0.9\n";
  EXPECT_EQ(cs.out(), lines);
  EXPECT_EQ(priv_print_log(cs.get(), e, e + 20, 19, 127), -1);
  EXPECT_EQ(cs.out(), lines);
}

// A handle over an image file whose log copies are described by hand.
class LogDump : public ::testing::Test {
 protected:
  LogDump() {
    hdr.phi_atomic_iosize = 512;
    hdr.phi_chunk_size = 512;
    hdr.phi_chunk_shift = 9;
    hdr.phi_sctr_shift = 9;
    priv.pri_header = &hdr;
    priv.pri_io_private = &cs.get();
    image.resize(256 * 512);
  }

  // Adds log copy `number` made of the given (sector, length) parts.
  void add_copy(int number, std::vector<std::pair<voff_t, voff_t>> parts) {
    auto cp = std::make_unique<copy_info>();
    cp->ci_copy = number;
    cp->ci_npart = static_cast<int>(parts.size());
    part_arrays.push_back(std::make_unique<toc_entry_info*[]>(parts.size()));
    cp->ci_parts = part_arrays.back().get();
    for (std::size_t i = 0; i < parts.size(); i++) {
      auto e = std::make_unique<toc_entry_info>();
      std::strcpy(e->tei_region.dkr_type, "log");
      e->tei_region.dkr_offset = parts[i].first;
      e->tei_region.dkr_len = parts[i].second;
      cp->ci_parts[i] = e.get();
      entries.push_back(std::move(e));
    }
    if (!copies.empty()) {
      copies.back()->ci_next = cp.get();
      cp->ci_prev = copies.back().get();
    } else {
      priv.pri_log_copies = cp.get();
    }
    copies.push_back(std::move(cp));
  }

  void put_block(voff_t sector, const block& b) {
    std::memcpy(image.data() + sector * 512, b.data(), b.size());
  }

  // Writes the image and runs the dump.
  int dump(int copy) {
    volsetlabel(cs.get(), "qztool:priv");
    std::string path = test::temp_dir() + "/log.img";
    test::write_file(path, image);
    cs->priv_fd = std::fopen(path.c_str(), "rb");
    EXPECT_NE(cs->priv_fd, nullptr);
    return priv_dump_logs(cs.get(), &priv, copy);
  }

  test::captured_session cs;
  priv_header_info hdr;
  priv_info priv;
  std::vector<std::uint8_t> image;
  std::vector<std::unique_ptr<toc_entry_info>> entries;
  std::vector<std::unique_ptr<toc_entry_info*[]>> part_arrays;
  std::vector<std::unique_ptr<copy_info>> copies;
};

// Only a valid block 0 states the log length, and it can only shorten the
// dump: 3 of 5 blocks; 200 of 2 changes nothing; an invalid block 0 leaves
// every block to be examined.
TEST_F(LogDump, LogLengthOfBlockZeroOnlyShortensTheDump) {
  add_copy(1, {{16, 5}});
  add_copy(2, {{40, 2}});
  add_copy(3, {{60, 3}});
  for (std::uint32_t i = 0; i < 5; i++) {
    block b = log_block("KLOG", 0, 1, i, i == 0 ? 3 : 1, i);  // block 1's length is not read
    put_entry(b, 0, 3, {0, i, 0, 0, 0});
    put_block(16 + i, b);
  }
  for (std::uint32_t i = 0; i < 2; i++) {
    block b = log_block("KLOG", 0, 1, 0, 200, i);
    put_entry(b, 0, 6, {0, i, 0, 0, 0});
    put_block(40 + i, b);
  }
  block b2 = log_block("KLOG", 0, 1, 0, 1, 2);
  put_entry(b2, 0, 4, {0, 3, 0, 0, 0});
  put_block(62, b2);
  EXPECT_EQ(dump(-1), 1);
  EXPECT_EQ(cs.out(),
            "LOG #01\n"
            "BLOCK 0: KLOG 0  :   COMMIT tid=0.0\n"
            "BLOCK 1: KLOG 0  :   COMMIT tid=0.1\n"
            "BLOCK 2: KLOG 0  :   COMMIT tid=0.2\n"
            "LOG #02\n"
            "BLOCK 0: KLOG 0  :   DG_CHANGE_LOG tid=0.0\n"
            "BLOCK 1: KLOG 0  :   DG_CHANGE_LOG tid=0.1\n"
            "LOG #03\n"
            "BLOCK 2: KLOG 0  :   LOGDETACH rid=0.3\n");
  EXPECT_EQ(cs.err(),
            "qztool:priv: ERROR: Log block 0: Log block invalid\n"
            "qztool:priv: ERROR: Log block 1: Log block invalid\n");
}

}  // namespace
}  // namespace pd
