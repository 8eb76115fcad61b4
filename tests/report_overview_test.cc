#include "report/overview.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>

#include "config_db/records.h"
#include "report/copy_loading.h"
#include "test_support.h"

namespace pd {
namespace {

// Store records with collected records of a given type and name, made by
// hand (no store needed).
class fake_records {
 public:
  ~fake_records() {
    for (record& r : recs_) std::free(r.u);
  }
  db_record* add(int type, const char* name, unsigned long ref = 0) {
    record& rec = recs_.emplace_back();
    rec.type = type;
    std::strcpy(rec.name, name);
    if (std::size_t room = record_room(type)) rec.u = std::calloc(1, room);
    db_record& r = dbrecs_.emplace_back();
    r.dbr_ref = ref;
    r.dbr_private = &rec;
    rec.dbrec = &r;
    return &r;
  }
  db_record* add_bare(unsigned long ref) {
    db_record& r = dbrecs_.emplace_back();
    r.dbr_ref = ref;
    return &r;
  }

 private:
  std::deque<record> recs_;
  std::deque<db_record> dbrecs_;
};

// (The name order of the lists and the cursor of a deletion are checked
// against the report's index of them.)
// (Whole trees are shown by the reports of built images.)
TEST(TreeTest, SizeSuffixOnlyForVolumesAndSubdisks) {
  fake_records f;
  test::captured_session cs;
  db_record* v = f.add(REC_TYPE_VOL, "v");
  record_of(v)->vol()->v_len = -2049;
  db_record* sd = f.add(REC_TYPE_SD, "s");
  record_of(sd)->sd()->sd_len = 4096 * 1024;
  for (db_record* r : {v, f.add(REC_TYPE_PLEX, "p"), f.add_bare(1), sd}) {
    printsviewrecordinfo(cs->out, r);
  }
  EXPECT_EQ(cs.out(), "   (-2049/-1MB)\n\n\n   (4194304/2048MB)\n");
}

TEST(HeaderTest, LinesAndTheTimestampFormat) {
  test::captured_session cs;
  dbase db{};
  db.ddb_nblocks = 3000;
  db.ddb_blksize = 128;
  db.ddb_hdrsize = 512;
  db.ddb_flag = 0x402;
  voldb_info h{};
  h.vdbi_commit_state = 7;
  h.vdbi_version_major = 4;
  h.vdbi_version_minor = 17;
  h.vdbi_nt_update_time = 0x1234567890ull;  // only the low 32 bits print
  std::strcpy(h.vdbi_dg_name, "dg1");
  std::strcpy(h.vdbi_dg_id, "1.2.host");
  h.vdbi_config_tid = {9, 1};
  h.vdbi_pending_tid = {10, 1};
  h.vdbi_config_sum.vs_v_cnt = 1;
  h.vdbi_config_sum.vs_pl_cnt = 2;
  h.vdbi_config_sum.vs_sd_cnt = 3;
  h.vdbi_config_sum.vs_dm_cnt = 4;
  h.vdbi_config_sum.vs_da_cnt = 5;
  h.vdbi_pending_sum.vs_da_cnt = 6;
  print_header(cs->out, &db, &h);
  const std::string stamp = std::string(64 - 9, ' ') + "878082192";  // 0x34567890
  EXPECT_EQ(cs.out(), "#Header nblocks=3000 blksize=128 hdrsize=512\n"
                      "#flags=0x0402 ([BAD-STATE])\n"
                      "#version: 4/17\n"
                      "#timestamp: " + stamp + "\n"
                      "#dgname: dg1  dgid: 1.2.host\n"
                      "#config: tid=1.9 nvol=1 nplex=2 nsd=3 ndm=4 nda=5\n"
                      "#pending: tid=1.10 nvol=0 nplex=0 nsd=0 ndm=0 nda=6\n");
}

TEST(BlockMapTest, Lines) {
  test::captured_session cs;
  dbase db{};
  db.ddb_nblocks = 10;
  db.ddb_blksize = 128;
  db.ddb_hdrsize = 512;  // blocks 0-3 hold the header
  db_record r{};
  r.dbr_ref = 17;
  db_block used{DDB_NOBLOCK, &r, 232, 112, 0};
  db_block flagged{DDB_NOBLOCK, nullptr, 0, 0, DBB_BAD};
  db_block free_block{DDB_NOBLOCK, nullptr, 0, 0, 0};
  print_block(cs->out, &db, 3, &used, 1);  // inside the header: nothing
  print_block(cs->out, &db, 4, &used, 0);
  print_block(cs->out, &db, 5, &flagged, 0);
  print_block(cs->out, &db, 6, &free_block, 0);
  print_block(cs->out, &db, 12345, &free_block, 1);
  EXPECT_EQ(cs.out(),
            "#Block    4: flag=0x0000 ref=17   offset=232  frag_size=112 \n"
            "#Block    5: flag=0x0008\n"
            "#Block 12345: free\n");
}

}  // namespace
}  // namespace pd
