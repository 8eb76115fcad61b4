#include "config_db/block_store.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <tuple>
#include <vector>

#include "base/errors.h"
#include "config_copy_builder.h"
#include "config_db/record_layouts.h"
#include "config_db/records.h"

namespace pd {
namespace {

using test::bytes;
using test::copy_image;
using test::pattern;

// An owner that keeps every fragment it is handed.
struct owner {
  std::size_t nblocks = 16;
  std::size_t blksize = 512;
  std::size_t hdrsize = 512;
  int init_result = 0;
  bool refuse = false;
  int unformat_result = 0;
  std::map<unsigned long, bytes> bodies;
  std::vector<std::tuple<unsigned long, std::size_t, std::size_t>> calls;
  std::map<const db_record*, std::pair<int, void*>> contents;  // kind, structure
};

owner* owner_of(dbase* db) { return static_cast<owner*>(db->ddb_private); }

int t_unformat(dbase* db, db_record* r, const std::uint8_t* frag, std::size_t offset,
               std::size_t length) {
  owner* o = owner_of(db);
  o->calls.emplace_back(r->dbr_ref, offset, length);
  bytes& b = o->bodies[r->dbr_ref];
  if (b.size() < offset + length) b.resize(offset + length);
  std::copy(frag, frag + length, b.begin() + static_cast<long>(offset));
  return o->unformat_result;
}

const dbrec_ops t_rops = {nullptr, nullptr, t_unformat, nullptr};

int t_init(dbase* db, db_record* r) {
  owner* o = owner_of(db);
  r->dbr_ops = &t_rops;
  if (o->refuse) r->dbr_gen_flag |= DBR_REFUSED;
  return o->init_result;
}

int t_header(dbase* db, const std::uint8_t*, std::size_t) {
  owner* o = owner_of(db);
  db->ddb_blksize = o->blksize;
  db->ddb_hdrsize = o->hdrsize;
  return ddb_setsize(db, o->nblocks);
}

int t_contents(dbase* db, db_record* r, void** decoded) {
  auto& c = owner_of(db)->contents;
  auto it = c.find(r);
  if (it == c.end()) return -1;
  *decoded = it->second.second;
  return it->second.first;
}

const dbase_ops t_ops = {t_init, nullptr, nullptr, t_header, nullptr, nullptr, t_contents};

struct store_deleter {
  void operator()(dbase* db) const { ddb_free(db); }
};
using store_ptr = std::unique_ptr<dbase, store_deleter>;

store_ptr make_store(owner& o, const dbase_ops* ops = &t_ops) {
  store_ptr db(ddb_alloc(ops));
  db->ddb_private = &o;
  return db;
}

// Feeds the image in pieces; returns {error, piece index} of the first
// failure, or {0, pieces}.
std::pair<int, std::size_t> feed(dbase* db, bytes& image, std::size_t piece = 512) {
  std::size_t i = 0;
  for (std::size_t off = 0; off < image.size(); off += piece, ++i) {
    std::size_t n = image.size() - off < piece ? image.size() - off : piece;
    if (int err = ddb_extract(db, image.data() + off, off, n)) return {err, i};
  }
  return {0, i};
}

// An owner, a copy of 16 blocks and a store fed by them.
struct store_case {
  owner o;
  copy_image img{16};
  store_ptr db = make_store(o);
  std::pair<int, std::size_t> feed_all() { return feed(db.get(), img.data()); }
  const db_block& block(unsigned long n) { return ddb_block(db.get(), n); }
  db_record* find(unsigned long ref) { return dbr_find(db.get(), ref); }
};

TEST(BlockStoreTest, FragmentArithmeticAtTheBlockBoundary) {
  store_case t;
  bytes one = pattern(488, 3);
  bytes two = pattern(489, 5);
  EXPECT_EQ(t.img.put_record(1, 7, 0, 0x31, one), 1u);
  EXPECT_EQ(t.img.put_record(2, 8, 0, 0x31, two), 2u);
  ASSERT_EQ(t.feed_all().first, 0);
  EXPECT_EQ(ddb_extract_done(t.db.get()), 0);
  ASSERT_NE(t.find(7), nullptr);
  EXPECT_EQ(t.find(7)->dbr_gen_flag, DBR_COMPLETE);
  EXPECT_EQ(t.block(1).dbb_frag_size, 488);
  ASSERT_NE(t.find(8), nullptr);
  EXPECT_EQ(t.find(8)->dbr_first_blkno, 2u);
  EXPECT_EQ(t.block(2).dbb_next_blkno, 3u);
  EXPECT_EQ(t.block(2).dbb_frag_size, 488);
  EXPECT_EQ(t.block(3).dbb_offset, 488u);
  EXPECT_EQ(t.block(3).dbb_frag_size, 1);
  EXPECT_EQ(t.block(3).dbb_next_blkno, DDB_NOBLOCK);
  EXPECT_EQ(t.o.bodies[7], one);
  EXPECT_EQ(t.o.bodies[8], two);
  EXPECT_EQ(t.db->ddb_freeblks, 15u - 3u);
}

TEST(BlockStoreTest, CompactFramingKeepsThePayloadArithmetic) {
  owner o;
  copy_image img(o.nblocks, 512, true);
  bytes body = pattern(600, 9);
  ASSERT_EQ(img.put_record(1, 4, 0, 0x32, body), 2u);
  store_ptr db = make_store(o);
  db->ddb_flag |= DDB_COMPACT;
  ASSERT_EQ(feed(db.get(), img.data()).first, 0);
  EXPECT_EQ(ddb_extract_done(db.get()), 0);
  EXPECT_EQ(o.bodies[4], body);
  EXPECT_EQ(ddb_block(db.get(), 2).dbb_offset, 488u);
  // A standard "VBLK" block is not a compact block.
  store_case std_img;
  std_img.db->ddb_flag |= DDB_COMPACT;
  EXPECT_EQ(std_img.feed_all(), std::make_pair(int{VE_BAD_MAGIC}, std::size_t{1}));
}

// Faults that stop the feed at block 3: the error, the block's mark and the
// flags of record 6 (0: no record).
TEST(BlockStoreTest, FaultsThatStopTheFeed) {
  struct fault {
    const char* what;
    void (*damage)(copy_image&);
    int err;
    std::uint16_t flag;
    unsigned rec_flags;
  };
  const fault faults[] = {
      {"magic", [](copy_image& i) { i.block(3)[0] = 'X'; }, VE_BAD_MAGIC, DBB_BAD, 0},
      {"block number", [](copy_image& i) { put_be32(i.block(3) + 4, 4); }, VE_BAD_BLOCKNO, DBB_BAD, 0},
      {"fragment count", [](copy_image& i) { i.put_record(3, 9, 0, 0x31, pattern(20), 2); }, VE_DB_FORMAT,
       DBB_BAD, 0},
      // record 6 fills blocks 1..3; block 3 repeats its fragment 1
      {"overlap",
       [](copy_image& i) {
         i.put_record(1, 6, 0, 0x31, pattern(1200));
         std::memcpy(i.block(3), i.block(2), 512);
         put_be32(i.block(3) + 4, 3);
       },
       VE_DB_FORMAT, DBB_BAD, DBR_FORMAT_ERROR},
      // record 6 is complete in blocks 1..2; block 3 carries a third fragment
      {"after completion",
       [](copy_image& i) {
         i.put_record(1, 6, 0, 0x31, pattern(600));
         i.set_block(3, 3, 6, 2, 2);
       },
       VE_DB_FORMAT, DBB_BAD, DBR_COMPLETE | DBR_FORMAT_ERROR},
  };
  for (const fault& f : faults) {
    SCOPED_TRACE(f.what);
    store_case t;
    f.damage(t.img);
    EXPECT_EQ(t.feed_all(), std::make_pair(f.err, std::size_t{3}));
    EXPECT_EQ(t.block(3).dbb_flag, f.flag);
    EXPECT_EQ(t.find(9), nullptr);
    if (f.rec_flags == 0) {
      EXPECT_EQ(t.block(3).dbb_record, nullptr);
      EXPECT_EQ(t.find(6), nullptr);
    } else {
      ASSERT_NE(t.find(6), nullptr);
      EXPECT_EQ(t.find(6)->dbr_gen_flag, f.rec_flags);
    }
  }
  // A second first fragment marks the first record and stops at its block.
  store_case t;
  t.img.put_record(1, 5, 0, 0x31, pattern(30));
  t.img.put_record(2, 5, 0, 0x31, pattern(40));
  EXPECT_EQ(t.feed_all(), std::make_pair(int{VE_DB_FORMAT}, std::size_t{2}));
  ASSERT_NE(t.find(5), nullptr);
  EXPECT_EQ(t.find(5)->dbr_gen_flag, DBR_COMPLETE | DBR_FORMAT_ERROR | DBR_DUPLICATE);
  EXPECT_EQ(t.block(2).dbb_record, t.find(5));
  EXPECT_EQ(t.find(5)->dbr_size, 30u);
}

TEST(BlockStoreTest, ContinuationWithoutFirstBlockIsAPlaceholder) {
  store_case t;
  t.img.put_record(1, 6, 0, 0x31, pattern(1000));  // blocks 1..3
  t.img.set_block(1, 1, 0, 0, 0);                  // the first fragment is lost
  t.img.put_record(4, 2, 0, 0x31, pattern(10));
  ASSERT_EQ(t.feed_all().first, 0);
  EXPECT_EQ(t.find(6), nullptr);
  const db_block& b2 = t.block(2);
  ASSERT_NE(b2.dbb_record, nullptr);
  EXPECT_EQ(b2.dbb_record->dbr_gen_flag, DBR_INCOMPLETE);
  EXPECT_EQ(b2.dbb_record->dbr_first_blkno, DDB_NOBLOCK);
  EXPECT_EQ(b2.dbb_flag, DBB_INCOMPLETE);
  EXPECT_NE(t.block(3).dbb_record, b2.dbb_record);  // one per block
  EXPECT_TRUE(t.db->ddb_flag & DDB_INCOMPLETE);
  EXPECT_EQ(t.o.bodies.count(6), 0u);

  EXPECT_EQ(ddb_extract_done(t.db.get()), 1);
  EXPECT_EQ(t.db->ddb_freeblks, 15u - 3u);
  ddb_extract_recover(t.db.get());
  EXPECT_EQ(t.db->ddb_freeblks, 15u - 1u);
  EXPECT_EQ(t.block(2).dbb_record, nullptr);
  // Recovery adds the write mark to what the block carried.
  EXPECT_EQ(t.block(2).dbb_flag, DBB_INCOMPLETE | DBB_WRITE);
  EXPECT_EQ(t.block(3).dbb_flag, DBB_INCOMPLETE | DBB_WRITE);
  EXPECT_EQ(t.block(2).dbb_frag_size, 0);
  EXPECT_NE(t.find(2), nullptr);  // the good record stays
  EXPECT_EQ(t.block(4).dbb_flag, 0);
}

TEST(BlockStoreTest, MissingFragmentLeavesTheRecordIncomplete) {
  store_case t;
  t.img.put_record(1, 6, 0, 0x31, pattern(1200));  // blocks 1..3
  t.img.set_block(2, 2, 0, 0, 0);
  ASSERT_EQ(t.feed_all().first, 0);
  db_record* r = t.find(6);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->dbr_gen_flag, DBR_INCOMPLETE);
  EXPECT_EQ(r->dbr_first_blkno, DDB_NOBLOCK);
  EXPECT_EQ(t.block(3).dbb_flag, DBB_INCOMPLETE);
  EXPECT_EQ(t.block(1).dbb_next_blkno, DDB_NOBLOCK);
  EXPECT_EQ(ddb_extract_done(t.db.get()), 1);
  ddb_extract_recover(t.db.get());
  EXPECT_EQ(t.find(6), nullptr);
  EXPECT_EQ(t.db->ddb_freeblks, 15u);
  dbrec_iter it;
  dbrlist_iter(&it, t.db.get());
  EXPECT_EQ(dbrlist_next(&it), nullptr);
}

TEST(BlockStoreTest, PiecesMustHoldWholeBlocks) {
  store_case t;
  ASSERT_EQ(ddb_extract(t.db.get(), t.img.data().data(), 0, 512), 0);
  EXPECT_EQ(ddb_extract(t.db.get(), t.img.block(1), 512, 300), VE_SHORT_READ);
  // Surplus input past the last block is ignored.
  owner o2;
  o2.nblocks = 2;
  store_ptr db2 = make_store(o2);
  EXPECT_EQ(ddb_extract(db2.get(), t.img.data().data(), 0, t.img.data().size()), 0);
}

TEST(BlockStoreTest, CallbackErrorsUndoTheNewRecord) {
  store_case t;
  t.o.init_result = 77;
  t.img.put_record(1, 5, 0, 0x31, pattern(30));
  EXPECT_EQ(t.feed_all(), std::make_pair(77, std::size_t{1}));
  EXPECT_EQ(t.find(5), nullptr);
  EXPECT_EQ(t.block(1).dbb_flag, DBB_BAD);
  EXPECT_EQ(t.block(1).dbb_record, nullptr);

  owner o2;
  o2.unformat_result = 78;
  store_ptr db2 = make_store(o2);
  EXPECT_EQ(feed(db2.get(), t.img.data()), std::make_pair(78, std::size_t{1}));
  EXPECT_EQ(dbr_find(db2.get(), 5), nullptr);
}

TEST(BlockStoreTest, RefusedRecordsAreKeptWithoutContents) {
  store_case t;
  t.o.refuse = true;
  t.img.put_record(1, 5, 0, 0x31, pattern(30));
  t.img.put_record(2, 6, 0, 0x31, pattern(700));
  ASSERT_EQ(t.feed_all().first, 0);
  EXPECT_TRUE(t.o.calls.empty());
  EXPECT_EQ(ddb_extract_done(t.db.get()), 1);
  EXPECT_EQ(t.db->ddb_flag & (DDB_REFUSED | DDB_INCOMPLETE), DDB_REFUSED | DDB_INCOMPLETE);
  EXPECT_EQ(t.find(5)->dbr_gen_flag, DBR_COMPLETE | DBR_REFUSED);
  ddb_extract_recover(t.db.get());
  EXPECT_EQ(t.find(5), nullptr);
  EXPECT_EQ(t.find(6), nullptr);
  EXPECT_EQ(t.db->ddb_freeblks, 15u);
}

TEST(BlockStoreTest, HugeClaimedSizeCostsNothing) {
  owner o;
  o.nblocks = 0xFFFFFFFFu;
  copy_image img(64);
  img.put_record(10, 3, 0, 0x31, pattern(100));
  store_ptr db = make_store(o);
  ASSERT_EQ(feed(db.get(), img.data()).first, 0);
  EXPECT_EQ(db->ddb_nblocks, 0xFFFFFFFFu);
  EXPECT_LE(ddb_block_count(db.get()), 512u);
  EXPECT_EQ(ddb_extract_done(db.get()), 0);
  EXPECT_EQ(db->ddb_freeblks, 0xFFFFFFFFu - 1 - 1);
  // Untouched blocks read as the initial state.
  const db_block& far = ddb_block(db.get(), 0xFFFFFFF0u);
  EXPECT_EQ(far.dbb_record, nullptr);
  EXPECT_EQ(far.dbb_next_blkno, DDB_NOBLOCK);
  EXPECT_EQ(ddb_block_next(db.get(), 256), DDB_NOBLOCK);  // one page of entries
}

TEST(BlockStoreTest, SizingRules) {
  store_case t;
  t.img.put_record(10, 3, 0, 0x31, pattern(100));
  ASSERT_EQ(t.feed_all().first, 0);
  EXPECT_EQ(ddb_setsize(t.db.get(), 10), VE_DB_FULL);
  EXPECT_EQ(t.db->ddb_nblocks, 16u);
  EXPECT_EQ(ddb_setsize(t.db.get(), 11), 0);
  EXPECT_EQ(t.db->ddb_freeblks, 15u - 5u);
  EXPECT_EQ(ddb_resize(t.db.get(), 20), 0);
  EXPECT_EQ(t.db->ddb_alloclim, 20u);
  EXPECT_EQ(t.block(9).dbb_flag, 0);
  EXPECT_EQ(t.block(11).dbb_flag, DBB_WRITE);
  EXPECT_EQ(t.block(19).dbb_flag, DBB_WRITE);
  EXPECT_EQ(t.block(10).dbb_record->dbr_ref, 3u);
  EXPECT_EQ(ddb_setsize(t.db.get(), 20), 0);  // no-op
}

TEST(BlockStoreTest, BlockSizesAtTheEdgeOfTheFraming) {
  {
    // 24 bytes: both headers and an empty first fragment.
    owner o;
    o.blksize = o.hdrsize = 24;
    copy_image img(o.nblocks, 24);
    img.put_record(1, 7, 0, 0x31, bytes{});
    EXPECT_EQ(img.put_record(2, 8, 0, 0x31, pattern(9)), 3u);
    store_ptr db = make_store(o);
    ASSERT_EQ(feed(db.get(), img.data()).first, 0);
    EXPECT_EQ(ddb_extract_done(db.get()), 0);
    EXPECT_EQ(o.bodies[8], pattern(9));
    EXPECT_EQ(dbr_find(db.get(), 7)->dbr_gen_flag, DBR_COMPLETE);
  }
  {
    // 16 bytes hold a block header: unused blocks read, a used one cannot.
    owner o;
    o.blksize = o.hdrsize = 16;
    copy_image img(4, 16);
    store_ptr db = make_store(o);
    EXPECT_EQ(feed(db.get(), img.data()).first, 0);
    put_be32(img.block(2) + 8, 5);
    store_ptr db2 = make_store(o);
    EXPECT_EQ(feed(db2.get(), img.data()).first, VE_DB_FORMAT);
    EXPECT_EQ(ddb_block(db2.get(), 2).dbb_flag, DBB_BAD);
  }
  // Smaller than a block header: a format error before any block.
  owner o;
  o.blksize = o.hdrsize = 8;
  bytes raw(64, 0);
  store_ptr db = make_store(o);
  EXPECT_EQ(ddb_extract(db.get(), raw.data(), 0, raw.size()), VE_DB_FORMAT);
}

TEST(BlockStoreTest, OldReplicationLinksGainIpv6Addresses) {
  for (unsigned version : {59u, 60u}) {
    SCOPED_TRACE(version);
    owner o;
    store_ptr db = make_store(o);
    db_record rdg{}, rrp{};
    rdg.dbr_ref = 1;
    rrp.dbr_ref = 2;
    rdg.dbr_gen_flag = rrp.dbr_gen_flag = DBR_COMPLETE;
    dbr_add(db.get(), &rdg);
    dbr_add(db.get(), &rrp);
    dgrec dg{};
    dg.dg_version = version;
    reprec rp{};
    rp.rp_net_address.portno = 4145;
    rp.rp_net_address.ipaddress = 0x0A000001;
    rp.rp_local_address.portno = 4146;
    rp.rp_local_address.ipaddress = 0xC0A80001;
    o.contents[&rdg] = {REC_TYPE_DG, &dg};
    o.contents[&rrp] = {REC_TYPE_REP, &rp};
    EXPECT_EQ(ddb_extract_done(db.get()), 0);
    if (version == 59) {
      EXPECT_EQ(rp.rp_net_address6.portno, 4145);
      EXPECT_EQ(rp.rp_net_address6.ipaddress.family, 2u);
      EXPECT_EQ(rp.rp_net_address6.ipaddress.addr.words[0], 0x0A000001u);
      EXPECT_EQ(rp.rp_local_address6.portno, 4146);
      EXPECT_EQ(rp.rp_local_address6.ipaddress.addr.words[0], 0xC0A80001u);
    } else {
      EXPECT_EQ(rp.rp_net_address6.portno, 0);
      EXPECT_EQ(rp.rp_net_address6.ipaddress.family, 0u);
    }
    dbr_delete(db.get(), &rdg);
    dbr_delete(db.get(), &rrp);
  }
}

}  // namespace
}  // namespace pd
