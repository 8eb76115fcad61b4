// Join: chains with block-by-block fallback, every region check, the entry
// order, copy descriptors, lock region and tag ids; and the update side.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "codec/integers.h"
#include "priv_test_support.h"
#include "private_region/bitmap.h"
#include "private_region/header.h"
#include "private_region/toc.h"

namespace pd {
namespace {

using test::build;
using test::memory_disk;

const std::string disk = "disk sector-size=512 sectors=2048\n";
const std::string two_blocks =
    "tocblock at=1 alt=2046\n"
    "tocblock at=2 alt=2045\n";

int join_of(const std::string& desc) {
  memory_disk d(build(desc));
  EXPECT_EQ(d.scan(), VE_OK) << desc;
  const int res = priv_join(d.priv);
  if (res != VE_OK) {
    EXPECT_EQ(d.priv->pri_flags & PRI_JOINED, 0u);
    EXPECT_EQ(d.priv->pri_toc_entries, nullptr);
    EXPECT_EQ(d.priv->pri_alloc_map, nullptr);
    EXPECT_NE(d.priv->pri_header, nullptr);
  }
  return res;
}

std::vector<std::string> entry_list(const priv_info* priv) {
  std::vector<std::string> out;
  for (const toc_entry_info* e = priv->pri_toc_entries; e != nullptr; e = e->tei_next) {
    out.push_back(std::string(e->tei_region.dkr_type) + "@" + std::to_string(e->tei_region.dkr_offset));
    if (e->tei_next != nullptr) {
      EXPECT_EQ(e->tei_next->tei_prev, e);
    }
  }
  return out;
}

TEST(JoinTest, LoadsBothChainsAndOrdersEntriesByStart) {
  memory_disk d(build(disk + two_blocks +
                      "region log copy=1 offset=1617 len=200 block=0\n"
                      "region config copy=2 offset=817 len=800 block=0\n"
                      "region config copy=1 offset=17 len=800 block=1\n"
                      "region blob offset=1820 len=0 info=0102 block=1\n"
                      "region config copy=1 offset=5000 len=100 flags=pub block=1\n"));  // never listed
  ASSERT_EQ(d.scan(), VE_OK);
  ASSERT_EQ(priv_join(d.priv), VE_OK);
  priv_info* p = d.priv;
  EXPECT_EQ(p->pri_flags & PRI_JOINED, PRI_JOINED);
  EXPECT_EQ(entry_list(p),
            (std::vector<std::string>{"config@17", "config@817", "log@1617", "blob@1820"}));
  EXPECT_EQ(d.writes, 0);  // the block lists show in the TOC dump's tests
  // Headers, TOC blocks, sector 0 and the regions are in use.
  for (int c : {0, 1, 2, 17, 816, 1856, 2045, 2046, 2047}) EXPECT_EQ(bmap_test(p->pri_alloc_map, c), 1) << c;
  for (int c : {3, 16, 1817, 1855}) EXPECT_EQ(bmap_test(p->pri_alloc_map, c), 0) << c;

  ASSERT_NE(p->pri_config_copies, nullptr);
  EXPECT_EQ(p->pri_config_copies->ci_copy, 1);
  ASSERT_NE(p->pri_config_copies->ci_next, nullptr);
  EXPECT_EQ(p->pri_config_copies->ci_next->ci_copy, 2);
  EXPECT_EQ(p->pri_config_copies->ci_next->ci_prev, p->pri_config_copies);
  ASSERT_NE(p->pri_log_copies, nullptr);
  EXPECT_EQ(p->pri_log_copies->ci_npart, 1);
  EXPECT_EQ(p->pri_log_copies->ci_parts[0]->tei_region.dkr_offset, 1617);

  priv_unjoin(p);
  EXPECT_EQ(p->pri_toc_entries, nullptr);
  EXPECT_EQ(p->pri_config_copies, nullptr);
  EXPECT_EQ(p->pri_toc_sectors, nullptr);
  EXPECT_EQ(p->pri_toc_len, 0u);
  EXPECT_EQ(p->pri_flags & PRI_JOINED, 0u);
}

TEST(JoinTest, ABadPrimaryBlockFallsBackToItsAlternate) {
  const std::string regions =
      "region config copy=1 offset=17 len=100 block=0\n"
      "region log copy=1 offset=200 len=10 block=1\n";
  for (const char* damage : {"magic", "checksum"}) {
    const std::string d = std::string("damage=") + damage;
    EXPECT_EQ(join_of(disk + "tocblock at=1 alt=2046\ntocblock at=2 alt=2045 " + d +
                      " damage-copy=primary\n" + regions),
              VE_OK);
    EXPECT_EQ(join_of(disk + "tocblock at=1 alt=2046 " + d + " damage-copy=primary\n" +
                      "tocblock at=2 alt=2045 " + d + " damage-copy=alternate\n" + regions),
              VE_OK);
    EXPECT_EQ(join_of(disk + "tocblock at=1 alt=2046\ntocblock at=2 alt=2045 " + d + "\n" + regions),
              VE_PRIV_FORMAT);
  }
  EXPECT_EQ(join_of(disk + "tocblock at=1 alt=2046\ntocblock at=2 alt=2045 write=alternate\n" + regions),
            VE_OK);
  EXPECT_EQ(join_of(disk + "tocblock at=1 alt=2046\ntocblock at=2 alt=2045 write=none\n" + regions),
            VE_PRIV_FORMAT);
}

// The status of the join of `disk` plus each description. Chain pointers
// must stay inside the region and off sector 0 and never loop; regions
// must lie inside it, off headers and TOC blocks and each other (public
// ones are not checked); entries must fit in their block.
TEST(JoinTest, Statuses) {
  const std::string toc = "tocblock at=1 alt=3\n";
  const std::string cfg = "region config copy=1 offset=17 len=100\n";
  const std::string to492 = "region blob offset=10 len=0 info=" + std::string(428 * 2, 'b') + "\n";
  struct {
    std::string desc;
    int want;
  } cases[] = {
      // blocks of another update
      {"tocblock at=1 alt=2046 seqno=0.2\n", VE_PRIV_INVALID},
      {"header seqno=5.1\ntocblock at=1 alt=2046 seqno=4.1\n", VE_PRIV_INVALID},
      {"header seqno=5.1\ntocblock at=1 alt=2046 seqno=5.1\n", VE_OK},
      // chain pointers
      {"tocblock at=1 alt=2046 next=-1 alt-next=5\n", VE_PRIV_INVALID},
      {"tocblock at=1 alt=2046 next=5 alt-next=2048\n", VE_PRIV_INVALID},
      {"tocblock at=1 alt=2046 next=0 alt-next=5\n", VE_PRIV_INVALID},
      {"tocblock at=1 alt=2046 next=1 alt-next=2046\n", VE_PRIV_INVALID},  // points at itself
      {"tocblock at=1 alt=2046 next=0 alt-next=0\n", VE_OK},
      // region bounds and payloads
      {toc + "region blob offset=0 len=1\n", VE_PRIV_INVALID},
      {toc + "region blob offset=2048 len=0\n", VE_PRIV_INVALID},
      {toc + "region blob offset=2047 len=0\n", VE_OK},
      {toc + "region blob offset=1857 len=190\n", VE_OK},           // ends before the primary header
      {toc + "region blob offset=1857 len=191\n", VE_PRIV_INVALID},  // covers it
      {toc + "region blob offset=1857 len=192\n", VE_PRIV_INVALID},  // runs past the region
      {toc + "region blob offset=1850 len=10\n", VE_PRIV_INVALID},   // covers the alternate header
      {toc + "region blob offset=3 len=1\n", VE_PRIV_INVALID},       // covers a TOC block
      {toc + "region blob offset=4 len=10\n", VE_OK},
      {toc + "region blob offset=-5 len=1\n", VE_PRIV_FORMAT},
      {toc + "region blob offset=5 len=-1\n", VE_PRIV_FORMAT},
      {toc + "region blob offset=0 len=99999 flags=pub\n", VE_OK},
      {toc + "region blob offset=-1 len=1 flags=pub\n", VE_PRIV_FORMAT},
      {toc + "region config offset=10 len=5 info=00010000000000\n", VE_PRIV_INVALID},  // 7 bytes
      {toc + "region config offset=10 len=0\n", VE_PRIV_INVALID},
      {toc + "region log offset=10 len=5 copy=0\n", VE_PRIV_INVALID},
      {toc + "region lockrgn offset=10 len=5 info=0000000000\n", VE_PRIV_INVALID},
      {toc + "region lockrgn offset=10 len=0\n", VE_PRIV_INVALID},
      {toc + "region tagid offset=10 len=0 info=\n", VE_OK},  // other types unchecked
      {toc + "region blob offset=10 len=3 info=0102030405\n", VE_OK},
      // overlaps; touching and empty regions do not overlap
      {cfg + "region log copy=1 offset=116 len=10\n", VE_PRIV_INVALID},
      {cfg + "region log copy=1 offset=117 len=10\n", VE_OK},
      {cfg + "region log copy=1 offset=10 len=7\n", VE_OK},
      {cfg + "region log copy=1 offset=10 len=8\n", VE_PRIV_INVALID},
      {cfg + "region blob offset=50 len=0\n", VE_OK},
      // one entry ending exactly at the block end (36 + 28 + 448)
      {"tocblock at=1 alt=2046\nregion blob offset=10 len=0 info=" + std::string(448 * 2, 'a') + "\n", VE_OK},
      // a payload size that runs past the block end (size field at entry byte 26)
      {"tocblock at=1 alt=2046\nregion blob offset=10 len=0 info=01\n"
       "poke sector=1 offset=62 hex=01ff\nfixsum toc sector=1\n"
       "poke sector=2046 offset=62 hex=01ff\nfixsum toc sector=2046\n",
       VE_PRIV_FORMAT},
      // a fixed part cut by the block end: an entry starts in the last 20 bytes
      {"tocblock at=1 alt=2046 write=primary\n" + to492 + "poke sector=1 offset=492 hex=41\nfixsum toc sector=1\n",
       VE_PRIV_FORMAT},
      {"tocblock at=1 alt=2046 write=primary\n" + to492, VE_OK},
  };
  for (const auto& c : cases) EXPECT_EQ(join_of(disk + c.desc), c.want) << c.desc;
}

TEST(JoinTest, ALoopOfEmptyBlocksEnds) {
  // 1 -> 2 -> 1 ...: no entries, so no overlap ever stops it; the walk does.
  memory_disk d(build(disk + "tocblock at=1 alt=2046\ntocblock at=2 alt=2045 next=1 alt-next=2046\n"));
  ASSERT_EQ(d.scan(), VE_OK);
  EXPECT_EQ(priv_join(d.priv), VE_PRIV_INVALID);
  EXPECT_LE(d.reads, 2 + 2049);
}

TEST(JoinTest, AZeroFirstByteEndsTheEntries) {
  memory_disk d(build(disk + "tocblock at=1 alt=2046\n"
                             "region config copy=1 offset=17 len=100\n"
                             "region blob offset=200 len=0\n"
                             "poke sector=1 offset=70 hex=00\nfixsum toc sector=1\n"
                             "poke sector=2046 offset=70 hex=00\nfixsum toc sector=2046\n"));
  ASSERT_EQ(d.scan(), VE_OK);
  ASSERT_EQ(priv_join(d.priv), VE_OK);
  EXPECT_EQ(entry_list(d.priv), std::vector<std::string>{"config@17"});
}

TEST(JoinTest, CopyPartsMustTile) {
  const std::string first = disk + "region config copy=1 offset=17 len=100\n";
  memory_disk d(build(disk + "region config copy=1 offset=300 len=50 part-offset=100\n"
                             "region config copy=1 offset=17 len=100 part-offset=0\n"
                             "region config copy=1 offset=500 len=5 part-offset=150\n"));
  ASSERT_EQ(d.scan(), VE_OK);
  ASSERT_EQ(priv_join(d.priv), VE_OK);
  const copy_info* c = d.priv->pri_config_copies;
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->ci_next, nullptr);
  ASSERT_EQ(c->ci_npart, 3);
  EXPECT_EQ(c->ci_parts[0]->tei_region.dkr_offset, 17);
  EXPECT_EQ(c->ci_parts[1]->tei_region.dkr_offset, 300);
  EXPECT_EQ(c->ci_parts[2]->tei_region.dkr_offset, 500);

  EXPECT_EQ(join_of(first + "region config copy=1 offset=300 len=50 part-offset=90\n"), VE_PRIV_FORMAT);
  EXPECT_EQ(join_of(first + "region config copy=1 offset=300 len=50 part-offset=101\n"), VE_PRIV_FORMAT);
  EXPECT_EQ(join_of(disk + "region log copy=1 offset=17 len=100 part-offset=1\n"), VE_PRIV_FORMAT);
  EXPECT_EQ(join_of(first + "region config copy=1 offset=300 len=50 part-offset=0\n"), VE_PRIV_FORMAT);
}

TEST(JoinTest, CopiesAreListedByNumber) {
  memory_disk d(build(disk + "region config copy=7 offset=17 len=10\nregion config copy=3 offset=30 len=10\n"
                             "region log copy=2 offset=50 len=10\nregion config copy=5 offset=70 len=10\n"));
  ASSERT_EQ(d.scan(), VE_OK);
  ASSERT_EQ(priv_join(d.priv), VE_OK);
  std::vector<int> numbers;
  for (const copy_info* c = d.priv->pri_config_copies; c != nullptr; c = c->ci_next) numbers.push_back(c->ci_copy);
  EXPECT_EQ(numbers, (std::vector<int>{3, 5, 7}));
  EXPECT_EQ(d.priv->pri_log_copies->ci_copy, 2);
}

TEST(JoinTest, LockRegionCounts) {
  struct {
    const char* regions;
    std::size_t len;
    voff_t offset;
  } cases[] = {
      {"", 0, 0},
      {"region lockrgn offset=40 len=8\n", 8, 40},
      {"region lockrgn offset=40 len=8\nregion lockrgn offset=60 len=8\n", 0, 0},
      {"region lockrgn offset=40 len=8 lock=1\n", 0, 0},         // malformed: ignored
      {"region lockrgn offset=40 len=8 lock-offset=3\n", 0, 0},
  };
  for (const auto& c : cases) {
    memory_disk d(build(disk + c.regions));
    ASSERT_EQ(d.scan(), VE_OK);
    ASSERT_EQ(priv_join(d.priv), VE_OK) << c.regions;
    EXPECT_EQ(d.priv->pri_header->phi_lockrgn_len, c.len) << c.regions;
    EXPECT_EQ(d.priv->pri_header->phi_lockrgn_offset, c.offset) << c.regions;
  }
}

TEST(JoinTest, TagIdsAndLookups) {
  memory_disk d(build(disk +
                      "region tagid tag-name=site tag-value=s1 tag-source=src offset=5\n"
                      "region tagid tag-name=vdid tag-value=v1 tag-flags=3 offset=6\n"));
  ASSERT_EQ(d.scan(), VE_OK);
  // Not joined: the look-up joins, and undoes it.
  tagid_region_entry tag;
  std::strcpy(tag.dktagid_name, "vdid");
  ASSERT_EQ(priv_find_tagid_region_entry(d.priv, &tag), VE_OK);
  EXPECT_STREQ(tag.dktagid_value, "v1");
  EXPECT_EQ(tag.dktagid_flags, 3);
  EXPECT_EQ(d.priv->pri_flags & (PRI_JOINED | PRI_NOUPDATE), PRI_NOUPDATE);
  EXPECT_EQ(d.priv->pri_toc_entries, nullptr);
  EXPECT_EQ(d.writes, 0);
  EXPECT_EQ(priv_is_tagid_set(d.priv, "site"), VE_OK);
  EXPECT_EQ(priv_is_tagid_set(d.priv, "other"), VE_TAG_NOT_FOUND);

  ASSERT_EQ(priv_join(d.priv), VE_OK);
  const tagid_region_entry_list* t = d.priv->tagid_list;
  ASSERT_NE(t, nullptr);
  EXPECT_STREQ(t->tre.dktagid_name, "site");
  EXPECT_STREQ(t->tre.dktagid_source, "src");
  ASSERT_NE(t->next, nullptr);
  EXPECT_STREQ(t->next->tre.dktagid_name, "vdid");
  EXPECT_EQ(t->next->next, nullptr);
  toc_entry_info* e = nullptr;
  ASSERT_EQ(priv_find_tagid_region(d.priv, "vdid", &e), VE_OK);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->tei_region.dkr_offset, 6);
  EXPECT_EQ(priv_find_tagid_region(d.priv, "nope", &e), VE_TAG_NOT_FOUND);
}

TEST(JoinTest, FirstBlockAtSectorZero) {
  // With 4096-byte chunks a first TOC position of 0 is read anyway.
  memory_disk big(build("disk sector-size=4096 sectors=256\n"
                        "tocblock at=0 alt=250\nregion config copy=1 offset=10 len=20\n"));
  ASSERT_EQ(big.scan(4096), VE_OK);
  EXPECT_EQ(big.priv->pri_header->phi_first_toc, 0);
  ASSERT_EQ(priv_join(big.priv), VE_OK);
  EXPECT_EQ(entry_list(big.priv), std::vector<std::string>{"config@10"});
  // With 512-byte chunks it means no TOC at all.
  memory_disk small(build(disk + "tocblock at=0 alt=2046\nregion config copy=1 offset=10 len=20\n"));
  ASSERT_EQ(small.scan(), VE_OK);
  ASSERT_EQ(priv_join(small.priv), VE_OK);
  EXPECT_EQ(small.priv->pri_toc_len, 0u);
  EXPECT_EQ(small.priv->pri_toc_entries, nullptr);
}

// ---- the update side ----------------------------------------------------

const std::string update_disk = disk + "header seqno=0.41\n" +
                                "region config copy=1 offset=17 len=100\n"
                                "region tagid tag-name=site tag-value=x offset=5\n";

TEST(UpdateTest, JoiningWithoutNoUpdateRewritesTheTableAndHeaders) {
  memory_disk d(build(update_disk));
  ASSERT_EQ(d.scan(), VE_OK);
  d.priv->pri_flags &= ~PRI_NOUPDATE;
  ASSERT_EQ(priv_join(d.priv), VE_OK);
  EXPECT_EQ(d.priv->pri_header->phi_update_seqno.seqno_lo, 42u);
  // The old blocks (1, 2046) stay valid on disk until the header moves.
  ASSERT_EQ(d.priv->pri_toc_len, 1u);
  EXPECT_EQ(d.priv->pri_toc_sectors[0], 2);
  EXPECT_EQ(d.priv->pri_alt_toc_sectors[0], 2045);
  EXPECT_EQ(d.writes, 2 + 3);  // both block copies; header, alternate and backup
  EXPECT_EQ(bmap_test(d.priv->pri_alloc_map, 1), 0);
  EXPECT_EQ(bmap_test(d.priv->pri_alloc_map, 2), 1);
  EXPECT_EQ(d.priv->pri_pending_map, nullptr);

  memory_disk again(d.img);
  ASSERT_EQ(again.scan(), VE_OK);
  EXPECT_EQ(again.priv->pri_header->phi_first_toc, 2);
  EXPECT_EQ(again.priv->pri_header->phi_update_seqno.seqno_lo, 42u);
  ASSERT_EQ(priv_join(again.priv), VE_OK);
  EXPECT_EQ(entry_list(again.priv), (std::vector<std::string>{"tagid@5", "config@17"}));

  // A second rewrite returns to the chunks freed by the first.
  ASSERT_EQ(priv_update_toc_start(d.priv), VE_OK);
  ASSERT_EQ(priv_update_toc(d.priv, 0), VE_OK);
  EXPECT_EQ(d.priv->pri_toc_sectors[0], 1);
  EXPECT_EQ(d.priv->pri_alt_toc_sectors[0], 2046);
}

TEST(UpdateTest, RemovedEntriesAreDroppedAndNewOnesCommitted) {
  memory_disk d(build(update_disk));
  ASSERT_EQ(d.scan(), VE_OK);
  ASSERT_EQ(priv_join(d.priv), VE_OK);
  d.priv->pri_flags &= ~PRI_NOUPDATE;
  d.priv->pri_toc_entries->tei_internal_flags = TEI_REMOVE;  // the tag entry
  d.priv->pri_toc_entries->tei_next->tei_internal_flags = TEI_NEW;
  ASSERT_EQ(priv_update_toc_start(d.priv), VE_OK);
  ASSERT_EQ(priv_update_toc(d.priv, 0), VE_OK);
  EXPECT_EQ(entry_list(d.priv), std::vector<std::string>{"config@17"});
  EXPECT_EQ(d.priv->pri_toc_entries->tei_internal_flags, 0u);
}

TEST(UpdateTest, NoFreeChunkForABlock) {
  memory_disk d(build(disk + "tocblock at=1 alt=2046\n"
                             "region blob offset=3 len=1853\n"      // 3..1855
                             "region blob offset=1857 len=189\n"));  // 1857..2045
  ASSERT_EQ(d.scan(), VE_OK);
  ASSERT_EQ(priv_join(d.priv), VE_OK);
  d.priv->pri_flags &= ~PRI_NOUPDATE;
  ASSERT_EQ(priv_update_toc_start(d.priv), VE_OK);
  EXPECT_EQ(priv_update_toc(d.priv, 0), VE_PRIV_FULL);  // only chunk 2 is free
  EXPECT_EQ(d.priv->pri_header->phi_first_toc, 1);
  EXPECT_NE(d.priv->pri_pending_map, nullptr);
  priv_update_toc_abort(d.priv);
  EXPECT_EQ(d.priv->pri_pending_map, nullptr);
  EXPECT_EQ(d.writes, 0);
}

TEST(UpdateTest, HeaderWriteToleratesOneFailedCopy) {
  memory_disk d(build(update_disk));
  ASSERT_EQ(d.scan(), VE_OK);
  priv_header_info* h = d.priv->pri_header;
  h->phi_alt_header = 99999;  // beyond the image: that write fails
  EXPECT_EQ(priv_update_header(d.priv, 1), VE_OK) << "with NOUPDATE nothing is written";
  EXPECT_EQ(d.writes, 0);
  d.priv->pri_flags &= ~PRI_NOUPDATE;
  EXPECT_EQ(priv_update_header(d.priv, 1), VE_OK);
  EXPECT_EQ(priv_update_header(d.priv, 0), VE_WRITE_FAILED);
  h->phi_primary_header = -99999;
  EXPECT_EQ(priv_update_header(d.priv, 1), VE_WRITE_FAILED);
}

TEST(UpdateTest, CheckComparesTheHeaderOnDisk) {
  const auto img = build(update_disk);
  memory_disk d(img);
  ASSERT_EQ(d.scan(), VE_OK);
  ASSERT_EQ(priv_join(d.priv), VE_OK);
  EXPECT_EQ(priv_check(d.priv, 0), VE_OK);
  EXPECT_EQ(priv_slave_check(d.priv), VE_OK);

  // Another update of the header on disk.
  memory_disk other(build(update_disk + "hdrcopy primary diskid=changed\nhdrcopy alternate\n"));
  ASSERT_EQ(other.scan(), VE_OK);
  std::strcpy(other.priv->pri_header->phi_diskid, "disk01");
  EXPECT_EQ(priv_check(other.priv, 0), VE_CHANGED_ON_DISK);

  // A copy that does not sit where the memory one does, in both places.
  memory_disk moved(build(update_disk + "hdrcopy primary alternate=1000\nhdrcopy alternate alternate=1000\n"));
  disk_attrs a = moved.attrs();
  moved.priv->pri_flags |= PRI_NOUPDATE;
  ASSERT_EQ(priv_scan(moved.priv, &a), VE_OK);
  moved.priv->pri_header->phi_alt_header = 1856;
  EXPECT_EQ(priv_check(moved.priv, 0), VE_HEADER_NOT_FOUND);

  memory_disk gone(build(update_disk));
  ASSERT_EQ(gone.scan(), VE_OK);
  std::fill(gone.img.begin() + 1856 * 512, gone.img.end(), 0);
  EXPECT_EQ(priv_slave_check(gone.priv), VE_PRIV_FORMAT);
  EXPECT_EQ(priv_check(gone.priv, 0), VE_PRIV_FORMAT);
}

// Every byte of the only TOC block and of the header, corrupted in turn (with
// the checksum fixed so that the decoders see the change): the join ends
// with a status, never reads outside its buffers, and frees what it built.
TEST(JoinTest, CorruptingEachByteNeverEscapes) {
  const auto good = build("disk sector-size=512 sectors=400\ntocblock at=1 alt=398 write=primary\n"
                                 "region config copy=1 offset=17 len=100\n"
                                 "region tagid tag-name=site tag-value=v offset=5\n"
                                 "region lockrgn offset=200 len=4\n");
  int refused = 0;
  for (std::size_t at = 12; at < 512; ++at) {
    auto img = good;
    std::uint8_t* block = img.data() + 512;
    block[at] ^= 0xA5;
    put_be32(block + 8, static_cast<std::uint32_t>(priv_toc_checksum(block, 512)));
    memory_disk d(img);
    ASSERT_EQ(d.scan(), VE_OK);
    if (priv_join(d.priv) != VE_OK) ++refused;
  }
  EXPECT_GT(refused, 0);
  for (std::size_t at = 12; at < 455; ++at) {
    auto img = good;
    std::uint8_t* hdr = img.data() + 399 * 512;
    hdr[at] ^= 0x5A;
    put_be32(hdr + 8, static_cast<std::uint32_t>(priv_header_checksum(hdr)));
    memory_disk d(img);
    if (d.scan() != VE_OK) continue;
    d.priv->pri_header->phi_priv_offset = 0;  // as privdiag joins
    (void)priv_join(d.priv);
  }
}

}  // namespace
}  // namespace pd
