#include "report/copy_loading.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "base/errors.h"
#include "report_e2e_support.h"
#include "test_support.h"

namespace pd {
namespace {

// A handle with one configuration copy made of parts given as (offset,
// length) in chunks, over an image whose 512-byte block n is filled with the
// byte n & 0xff.
class CopyReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::vector<std::uint8_t> image(kImageBlocks * 512);
    for (std::size_t b = 0; b < kImageBlocks; ++b) {
      std::memset(image.data() + b * 512, static_cast<int>(b & 0xff), 512);
    }
    path_ = test::temp_dir() + "/copy.img";
    test::write_file(path_, image);
    cs_->priv_fd = std::fopen(path_.c_str(), "rb");
    ASSERT_NE(cs_->priv_fd, nullptr);
    hdr_.phi_chunk_size = 512;
    hdr_.phi_atomic_iosize = 512;
    priv_.pri_header = &hdr_;
  }

  copy_info* make_copy(int number, const std::vector<std::pair<voff_t, voff_t>>& parts,
                       std::uint16_t flags = 0) {
    auto& ps = part_ptrs_.emplace_back();
    for (const auto& [off, len] : parts) {
      toc_entry_info& e = entries_.emplace_back();
      e.tei_region.dkr_offset = off;
      e.tei_region.dkr_len = len;
      e.tei_region.dkr_flags = flags;
      ps.push_back(&e);
    }
    copy_info& c = copies_.emplace_back();
    c.ci_copy = number;
    c.ci_npart = static_cast<int>(ps.size());
    c.ci_parts = ps.data();
    if (!copies_.empty() && &c != &copies_.front()) {
      copy_info* prev = &copies_[copies_.size() - 2];
      prev->ci_next = &c;
      c.ci_prev = prev;
    }
    priv_.pri_config_copies = &copies_.front();
    return &c;
  }

  // The block numbers of the image that landed in the buffer, one per block.
  std::vector<int> blocks(std::size_t n) const {
    std::vector<int> v;
    for (std::size_t i = 0; i < n; ++i) v.push_back(buf_[i * 512]);
    return v;
  }

  static constexpr std::size_t kImageBlocks = 200;
  test::captured_session cs_;
  std::string path_;
  priv_header_info hdr_;
  priv_info priv_;
  std::deque<toc_entry_info> entries_;
  std::deque<std::vector<toc_entry_info*>> part_ptrs_;
  std::deque<copy_info> copies_;
  std::vector<std::uint8_t> buf_ = std::vector<std::uint8_t>(128 * 512, 0xAA);
};

// Runs are cut at part boundaries and offset by the region; the allowance
// is rounded to whole sectors unless chunks are 4096 bytes; a read past the
// image goes unnoticed and leaves what the buffer held.
TEST_F(CopyReaderTest, ReadsOfARun) {
  using parts = std::vector<std::pair<voff_t, voff_t>>;
  const parts two = {{10, 3}, {100, 5}};
  const struct {
    const char* what;
    parts p;
    voff_t priv_offset;
    std::uint32_t iosize, chunk;
    std::size_t start, max, n;
    std::vector<int> blocks;
  } cases[] = {
      {"two parts", two, 0, 512, 512, 0, 128, 8, {10, 11, 12, 100, 101, 102, 103, 104}},
      {"across the boundary", two, 0, 512, 512, 2, 2, 2, {12, 100}},
      {"at the end", two, 0, 512, 512, 8, 128, 0, {}},
      {"region offset", {{10, 3}}, 20, 512, 512, 1, 128, 2, {31, 32}},
      {"4096-byte sectors", {{0, 40}}, 0, 4096, 512, 0, 13, 8, {0, 1, 2, 3, 4, 5, 6, 7}},
      {"4096-byte chunks", {{1, 3}}, 0, 4096, 4096, 0, 13, 13,
       {8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20}},
      {"past the image", {{kImageBlocks - 2, 6}}, 0, 512, 512, 0, 128, 6,
       {198, 199, 0xAA, 0xAA, 0xAA, 0xAA}},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.what);
    hdr_.phi_priv_offset = k.priv_offset;
    hdr_.phi_atomic_iosize = k.iosize;
    hdr_.phi_chunk_size = k.chunk;
    std::fill(buf_.begin(), buf_.end(), 0xAA);
    std::size_t n = 99;
    ASSERT_EQ(priv_read_copy(cs_.get(), &priv_, make_copy(1, k.p), buf_.data(), k.start, k.max, &n),
              0);
    EXPECT_EQ(n, k.n);
    EXPECT_EQ(blocks(n), k.blocks);
  }
}

// No copy at all, only disabled copies, a copy number not present: status 1.
TEST_F(CopyReaderTest, CopySelectionFailures) {
  const struct {
    int copy;
    const char* err;
  } cases[] = {{-1, "ERROR: Disk has no config copies\n"},
               {-1, "ERROR: Disk has no enabled config copies\n"},
               {5, "ERROR: Disk does not have config copy 5\n"}};
  for (const auto& k : cases) {
    if (copies_.empty() && &k != &cases[0]) {
      make_copy(0, {{10, 3}}, DKR_DISABLED);
      make_copy(1, {{20, 3}}, DKR_DISABLED);
    }
    test::captured_session s;
    try {
      priv_dump_config(s.get(), &priv_, k.copy);
      ADD_FAILURE() << "no fatal exit";
    } catch (const fatal_exit& e) {
      EXPECT_EQ(e.status, 1);
    }
    EXPECT_EQ(s.err(), k.err);
    EXPECT_EQ(s.out(), "");
  }
}

// An image holding one configuration copy at sector 17, 16 sectors long.
class LoadedCopyTest : public CopyReaderTest {
 protected:
  void write_copy(const test::bytes& copy, std::size_t sectors = 64) {
    std::vector<std::uint8_t> image(sectors * 512);
    std::memcpy(image.data() + 17 * 512, copy.data(),
                std::min(copy.size(), image.size() - 17 * 512));
    std::fclose(cs_->priv_fd);
    test::write_file(path_, image);
    cs_->priv_fd = std::fopen(path_.c_str(), "rb");
  }
  static test::config_copy group_copy() {
    test::config_copy c(64);
    test::set_header(c.header(), 30, 1, 0, 0, 0);
    dgrec dg = test::make_dg("dg1", 1, 10);
    dg.dg_nt_diskset_id = {0x01020304, 5, 6, {7, 8, 9, 10, 11, 12, 13, 14}};
    const volrec v = test::make_vol("v1", 3, 2048, 0, 12);
    stpoolrec pool{};
    std::strcpy(pool.stp_name, "pool1");
    c.add(1, test::T_DG, &dg);
    c.add(3, test::T_VOL, &v);
    c.add(4, 0x3B, &pool);  // a type without room: decoded and dropped
    return c;
  }
};

// The state nibble of the store from the header's commit state: CLEAN,
// COMMIT and ABORT as they are; CHANGE as ABORT (COMMIT with c_commit);
// anything else as ABORT.
TEST_F(LoadedCopyTest, CommitStateNibble) {
  const unsigned cases[][3] = {{1, 0, 1}, {3, 0, 3}, {2, 0, 4}, {2, 1, 3}, {0, 0, 4}, {9, 1, 4}};
  for (const auto& [state, commit, nibble] : cases) {
    test::config_copy c(64);
    test::set_header(c.header(), 30, 0, 0, 0, 0);
    c.header().vdbi_commit_state = static_cast<std::uint16_t>(state);
    const test::bytes data = c.data();
    test::captured_session s;
    s->c_commit = static_cast<int>(commit);
    config_report rep(s.get());
    ASSERT_EQ(rep.configcopy_setup(), 1);
    EXPECT_EQ(rep.unformat_header(data.data(), 512), 0);
    EXPECT_EQ((rep.db->ddb_flag >> 8) & 15, nibble) << state << " " << commit;
  }
}

// A header size above 512 is reported before a bad block size; 8192 is
// still a good block size.
TEST_F(LoadedCopyTest, HeaderSizeIsCheckedBeforeBlockSize) {
  const struct {
    std::size_t hdrsize, blksize;
    const char* err;
  } cases[] = {{1024, 0, "ERROR: Bad block size in header (1024)\n"},
               {512, 0, "ERROR: Bad block size in header (0)\n"},
               {512, 8193, "ERROR: Bad block size in header (8193)\n"},
               {512, 8192, ""}};
  for (const auto& k : cases) {
    test::config_copy c(64);
    test::set_header(c.header(), 30, 0, 0, 0, 0);
    c.claimed_hdrsize = k.hdrsize;
    c.claimed_blksize = k.blksize;
    const test::bytes data = c.data();
    test::captured_session s;
    config_report rep(s.get());
    ASSERT_EQ(rep.configcopy_setup(), 1);
    if (k.err[0] != '\0') {
      EXPECT_THROW(rep.unformat_header(data.data(), 512), fatal_exit);
    } else {
      EXPECT_EQ(rep.unformat_header(data.data(), 512), 0);
    }
    EXPECT_EQ(s.err(), k.err) << k.hdrsize << " " << k.blksize;
  }
}

// The report's tid check takes max_tid minus the header's tid as signed 64
// bits: equal prints nothing; a header tid of 2147483649.0 lies more than
// 2^63 above 0.12, so the difference is positive and the record's tid is
// reported as higher.
TEST_F(LoadedCopyTest, HigherTidCheckIsASigned64BitDifference) {
  make_copy(1, {{17, 16}});
  const std::string line = "\n!!Database has a higher tid 0.12 than header does.!!\n";
  for (const volseqno_t tid : {volseqno_t{12, 0}, volseqno_t{0, 0x80000001u}}) {
    test::config_copy c = group_copy();
    c.header().vdbi_config_tid = tid;
    write_copy(c.data());
    test::captured_session s;
    s->priv_fd = std::fopen(path_.c_str(), "rb");
    ASSERT_EQ(priv_dump_config(s.get(), &priv_, -1), 1);
    const std::string out = s.out();
    ASSERT_GE(out.size(), line.size());
    EXPECT_EQ(out.substr(out.size() - line.size()) == line, tid.seqno_hi != 0) << tid.seqno_hi;
  }
}

TEST_F(LoadedCopyTest, DiskSetIdLookup) {
  test::config_copy c = group_copy();
  write_copy(c.data());
  make_copy(1, {{17, 16}});
  char id[40] = "unchanged";
  EXPECT_EQ(priv_dump_config_disksetID(cs_.get(), &priv_, -1, id), 1);
  EXPECT_STREQ(id, "01020304-0005-0006-0708-090a0b0c0d0e");
  EXPECT_EQ(cs_.out(), "");
  EXPECT_EQ(priv_dump_config_disksetID(cs_.get(), &priv_, 7, id), -2);

  // Without a disk-group record: -1.
  test::config_copy nodg(64);
  test::set_header(nodg.header(), 30, 1, 0, 0, 0);
  const volrec v = test::make_vol("v1", 3, 2048, 0, 12);
  nodg.add(3, test::T_VOL, &v);
  write_copy(nodg.data());
  EXPECT_EQ(priv_dump_config_disksetID(cs_.get(), &priv_, -1, id), -1);
  EXPECT_EQ(cs_.err(), "");
}

TEST_F(LoadedCopyTest, SilentLoaderReportsItsErrorOnTheOutputStream) {
  test::config_copy c = group_copy();
  c.image().block(5)[0] = 'x';  // the volume's block
  test::bytes data = c.data();
  config_report rep(cs_.get());
  ASSERT_EQ(rep.configcopy_setup(), 1);
  EXPECT_EQ(rep.LoadRecords(data.data(), 0, 1), 1);
  EXPECT_EQ(rep.lastoffset, 512);
  EXPECT_EQ(rep.LoadRecords(data.data() + 512, 1, 2), -1);
  EXPECT_EQ(cs_.out(), "ERROR: Error (File block 1): Invalid magic number\n");
  EXPECT_EQ(cs_.err(), "");
  EXPECT_EQ(rep.configcopy_eof_called, 0);
  // The disk group was collected before the error.
  ASSERT_NE(rep.rlist, nullptr);
  EXPECT_STREQ(rep.rlist->name, "dg1");
  EXPECT_EQ(rep.rlist->type, 5);
}

TEST_F(LoadedCopyTest, ReportIsPrintedOnceWhenTheDatabaseEndsAtARunBoundary) {
  // 512 blocks of 128 bytes end exactly after the first run of 128 sectors.
  test::config_copy c(512);
  test::set_header(c.header(), 30, 0, 0, 0, 0);
  const dgrec dg = test::make_dg("dg1", 1, 10);
  c.add(1, test::T_DG, &dg);
  write_copy(c.data(), 17 + 128 + 200);
  make_copy(1, {{17, 300}});
  EXPECT_EQ(priv_dump_config(cs_.get(), &priv_, -1), 1);
  const std::string out = cs_.out();
  const std::string head = "========== Configuration Overview ========";
  ASSERT_NE(out.find(head), std::string::npos);
  EXPECT_EQ(out.find(head), out.rfind(head));
  // The zero sectors after the database are surplus, not errors.
  EXPECT_EQ(cs_.err(), "");
}

}  // namespace
}  // namespace pd
