// Log copy dump: block validation, entry lines, and the dump of whole copies
// from an image file through a handle built by hand.
#include "report/log_dump.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/errors.h"
#include "codec/integers.h"
#include "driver/messages.h"
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

TEST(LogBlockValid, AcceptsBothMagicsAndReportsHeaderWords) {
  for (const char* magic : {"KLOG", "kLOG"}) {
    block b = log_block(magic, 1, 2, 77, 9, 4);
    volseqno_t tid;
    unsigned long seqno = 0;
    std::size_t len = 0;
    ASSERT_EQ(logblk_valid(b.data(), b.size(), 4, &tid, &seqno, &len), 1) << magic;
    EXPECT_EQ(tid.seqno_hi, 1u);
    EXPECT_EQ(tid.seqno_lo, 2u);
    EXPECT_EQ(seqno, 77u);
    EXPECT_EQ(len, 9u);
  }
}

TEST(LogBlockValid, RefusesOtherMagicsWrongNumbersAndShortBuffers) {
  volseqno_t tid;
  tid.seqno_hi = 5;
  unsigned long seqno = 6;
  std::size_t len = 7;
  for (const char* magic : {"KLOg", "klog", "VBLK", "\0\0\0\0"}) {
    block b = log_block(magic, 1, 2, 3, 4, 0);
    EXPECT_EQ(logblk_valid(b.data(), b.size(), 0, &tid, &seqno, &len), 0) << magic;
  }
  block b = log_block("KLOG", 1, 2, 3, 4, 5);  // says 5, stands at index 4
  EXPECT_EQ(logblk_valid(b.data(), b.size(), 4, &tid, &seqno, &len), 0);
  EXPECT_EQ(logblk_valid(b.data(), 23, 5, &tid, &seqno, &len), 0);  // no room for the header
  // A refused block leaves the results alone.
  EXPECT_EQ(tid.seqno_hi, 5u);
  EXPECT_EQ(seqno, 6u);
  EXPECT_EQ(len, 7u);
}

struct entry_case {
  std::uint8_t type;
  std::array<std::uint32_t, 5> words;
  const char* line;
};

TEST(PrintLog, EveryEntryType) {
  const entry_case cases[] = {
      {0, {1, 2, 3, 4, 5}, ""},
      {1, {0, 12, 0, 7, 0}, "BLOCK 2: KLOG 3  :   DETACH rid=0.12 tid=0.7\n"},
      {2, {4294967295u, 0, 9, 9, 9}, "BLOCK 2: KLOG 3  :   DIRTY rid=4294967295.0\n"},
      {3, {1, 2, 0, 0, 0}, "BLOCK 2: KLOG 3  :   COMMIT tid=1.2\n"},
      {4, {0, 1234, 0, 0, 0}, "BLOCK 2: KLOG 3  :   LOGDETACH rid=0.1234\n"},
      // The record id stands behind "tid" and the transaction id behind "rid".
      {5, {0, 12, 0, 7, 42}, "BLOCK 2: KLOG 3  :   APP_DIRTY tid 0.12 rid 0.7 recover_seqno 42\n"},
      {5,
       {0, 1, 0, 2, 0xFFFFFFFFu},
       "BLOCK 2: KLOG 3  :   APP_DIRTY tid 0.1 rid 0.2 recover_seqno -1\n"},
      {6, {3, 4, 0, 0, 0}, "BLOCK 2: KLOG 3  :   DG_CHANGE_LOG tid=3.4\n"},
      {7, {1, 2, 3, 4, 5}, "BLOCK 2: KLOG 3  : INVALID 7\n"},
      {31, {1, 2, 3, 4, 5}, "BLOCK 2: KLOG 3  : INVALID 31\n"},
      {32, {0, 5, 0, 0, 0}, "BLOCK 2: KLOG 3  :   DIRTY_SEQNO rid=0.5\n"},
      {33, {0, 6, 0, 0, 0}, "BLOCK 2: KLOG 3  :   CACHE_SEQNO rid=0.6\n"},
      {34, {1, 2, 3, 4, 5}, "BLOCK 2: KLOG 3  : INVALID 34\n"},
      {255, {1, 2, 3, 4, 5}, "BLOCK 2: KLOG 3  : INVALID 255\n"},
  };
  for (const entry_case& c : cases) {
    test::captured_session cs;
    block b{};
    put_entry(b, 0, c.type, c.words);
    EXPECT_EQ(priv_print_log(cs.get(), b.data() + 24, b.data() + b.size(), 3, 2), 0);
    EXPECT_EQ(cs.out(), c.line) << "type " << int(c.type);
  }
}

TEST(PrintLog, IndexIsLeftAlignedInThreeColumnsAndWordsMayNotPassTheLimit) {
  test::captured_session cs;
  block b{};
  put_entry(b, 19, 3, {0, 9, 0, 0, 0});
  const std::uint8_t* e = b.data() + 24 + 24 * 19;
  EXPECT_EQ(priv_print_log(cs.get(), e, b.data() + b.size(), 19, 127), 0);
  EXPECT_EQ(cs.out(), "BLOCK 127: KLOG 19 :   COMMIT tid=0.9\n");
  // An entry whose words would run past the limit is not read at all.
  EXPECT_EQ(priv_print_log(cs.get(), e, e + 20, 19, 127), -1);
  EXPECT_EQ(cs.out(), "BLOCK 127: KLOG 19 :   COMMIT tid=0.9\n");
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
  void add_copy(int number, std::vector<std::pair<voff_t, voff_t>> parts, bool disabled = false) {
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
      e->tei_region.dkr_flags = disabled ? DKR_DISABLED : 0;
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

  // Writes the image and runs the dump on session `c` (the fixture's by
  // default).
  int dump(int copy) { return dump_on(cs, copy); }
  int dump_on(test::captured_session& c, int copy) {
    volsetlabel(c.get(), "qztool:priv");
    std::string path = test::temp_dir() + "/log.img";
    test::write_file(path, image);
    if (c->priv_fd != nullptr) std::fclose(c->priv_fd);
    c->priv_fd = std::fopen(path.c_str(), "rb");
    EXPECT_NE(c->priv_fd, nullptr);
    return priv_dump_logs(c.get(), &priv, copy);
  }

  test::captured_session cs;
  priv_header_info hdr;
  priv_info priv;
  std::vector<std::uint8_t> image;
  std::vector<std::unique_ptr<toc_entry_info>> entries;
  std::vector<std::unique_ptr<toc_entry_info*[]>> part_arrays;
  std::vector<std::unique_ptr<copy_info>> copies;
};

TEST_F(LogDump, PrintsEveryValidBlockWithTheLongListing) {
  add_copy(1, {{16, 3}});
  block b0 = log_block("KLOG", 0, 5, 11, 3, 0);
  put_entry(b0, 0, 1, {0, 12, 0, 7, 0});
  put_entry(b0, 2, 5, {0, 12, 0, 7, 3});  // entry 1 is empty
  block b1 = log_block("kLOG", 0, 6, 12, 3, 1);
  put_entry(b1, 19, 33, {0, 40, 0, 0, 0});
  block b2 = log_block("KLOG", 1, 0, 13, 0, 2);  // only block 0's length counts
  put_entry(b2, 4, 9, {0, 0, 0, 0, 0});
  put_block(16, b0);
  put_block(17, b1);
  put_block(18, b2);
  cs->l_long_listing = 1;
  EXPECT_EQ(dump(-1), 1);
  EXPECT_EQ(cs.out(),
            "LOG #01\n"
            "#BLOCK 0: tid=0.5 seqno=11 (len=3)\n"
            "BLOCK 0: KLOG 0  :   DETACH rid=0.12 tid=0.7\n"
            "BLOCK 0: KLOG 2  :   APP_DIRTY tid 0.12 rid 0.7 recover_seqno 3\n"
            "#BLOCK 1: tid=0.6 seqno=12 (len=3)\n"
            "BLOCK 1: KLOG 19 :   CACHE_SEQNO rid=0.40\n"
            "#BLOCK 2: tid=1.0 seqno=13 (len=0)\n"
            "BLOCK 2: KLOG 4  : INVALID 9\n");
  EXPECT_EQ(cs.err(), "");
}

TEST_F(LogDump, InvalidBlocksAreReportedAndTheDumpGoesOn) {
  add_copy(1, {{16, 6}});
  put_block(16, log_block("KLOG", 0, 1, 1, 6, 0));
  put_block(17, log_block("KLOg", 0, 1, 1, 6, 1));  // wrong magic
  block b2 = log_block("KLOG", 0, 1, 1, 6, 2);
  put_entry(b2, 0, 3, {0, 1, 0, 0, 0});
  put_block(18, b2);
  put_block(19, log_block("KLOG", 0, 1, 1, 6, 3));
  put_block(20, log_block("KLOG", 0, 1, 1, 6, 5));  // index 4 says 5
  block b5 = log_block("KLOG", 0, 1, 1, 6, 5);
  put_entry(b5, 1, 2, {0, 2, 0, 0, 0});
  put_block(21, b5);
  EXPECT_EQ(dump(-1), 1);
  EXPECT_EQ(cs.out(),
            "LOG #01\n"
            "BLOCK 2: KLOG 0  :   COMMIT tid=0.1\n"
            "BLOCK 5: KLOG 1  :   DIRTY rid=0.2\n");
  EXPECT_EQ(cs.err(),
            "qztool:priv: ERROR: Log block 1: Log block invalid\n"
            "qztool:priv: ERROR: Log block 4: Log block invalid\n");
}

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

// All copies: a disabled one prints DISABLED and is skipped. By number: only
// that copy, dumped even when disabled, with a note.
TEST_F(LogDump, DisabledCopiesAndCopiesByNumber) {
  add_copy(1, {{16, 1}}, true);
  add_copy(2, {{17, 1}});
  add_copy(3, {{18, 1}});
  block b0 = log_block("KLOG", 0, 1, 0, 1, 0);
  put_entry(b0, 0, 3, {0, 9, 0, 0, 0});
  put_block(16, b0);
  put_block(17, b0);
  put_block(18, b0);
  EXPECT_EQ(dump(-1), 1);
  EXPECT_EQ(cs.out(),
            "LOG #01\n"
            "DISABLED\n"
            "LOG #02\n"
            "BLOCK 0: KLOG 0  :   COMMIT tid=0.9\n"
            "LOG #03\n"
            "BLOCK 0: KLOG 0  :   COMMIT tid=0.9\n");
  test::captured_session one;
  EXPECT_EQ(dump_on(one, 1), 1);
  EXPECT_EQ(one.out(),
            "LOG #01\n"
            "# NOTE: Copy is disabled\n"
            "BLOCK 0: KLOG 0  :   COMMIT tid=0.9\n");
  test::captured_session two;
  EXPECT_EQ(dump_on(two, 2), 1);
  EXPECT_EQ(two.out(), "LOG #02\nBLOCK 0: KLOG 0  :   COMMIT tid=0.9\n");
}

// No log copy at all, then copy 3 of a disk whose copies are 1 and 2: the
// message says there are none or names the copy asked for; status 1.
TEST_F(LogDump, AMissingCopyEndsTheToolWithStatusOne) {
  for (int copy : {-1, 3}) {
    test::captured_session c;
    try {
      dump_on(c, copy);
      FAIL() << "no fatal exit";
    } catch (const fatal_exit& e) {
      EXPECT_EQ(e.status, 1);
    }
    EXPECT_EQ(c.out(), "");
    EXPECT_EQ(c.err(), copy < 0 ? "qztool:priv: ERROR: Disk has no log copies\n"
                                : "qztool:priv: ERROR: Disk does not have log copy 3\n");
    add_copy(1, {{16, 1}});
    add_copy(2, {{17, 1}});
  }
}

}  // namespace
}  // namespace pd
