#include "privbuild/config_writer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <cwchar>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "base/errors.h"
#include "codec/text_forms.h"
#include "config_decode_support.h"
#include "privbuild/config_fields.h"

namespace pd {
namespace {

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

std::vector<std::uint8_t> build(const std::string& text, std::size_t bytes = 64 * 512) {
  std::string error;
  std::vector<std::uint8_t> copy = build_config_copy(lines_of(text), bytes, &error);
  EXPECT_EQ(error, "");
  EXPECT_EQ(copy.size(), error.empty() ? bytes : 0);
  return copy;
}

std::string build_error(const std::string& text) {
  std::string error;
  EXPECT_TRUE(build_config_copy(lines_of(text), 64 * 512, &error).empty());
  return error;
}

TEST(ConfigFieldsTest, EveryStoredMemberHasAName) {
  for (std::size_t i = 0; i < n_rec2field_table; ++i) {
    const rec2field* e = &rec2field_table[i];
    const record_kind* k = record_kind_of(e);
    ASSERT_NE(k, nullptr) << i;
    for (const r2f_group& g : e->r2f_tbls) {
      if (g.nflds == 0) break;
      for (std::size_t f = 0; f < g.nflds; ++f) {
        bool named = false;
        for (std::size_t m = 0; m < k->nmembers; ++m) named |= k->members[m].offset == g.ftbl[f].dbf_offset;
        EXPECT_TRUE(named) << "entry " << i << " field " << f << " of kind " << k->keyword;
      }
    }
  }
  // And every name is stored by some layout of its kind.
  for (std::size_t k = 0; k < n_record_kinds; ++k) {
    const record_kind* kind = &record_kinds[k];
    for (std::size_t m = 0; m < kind->nmembers; ++m) {
      bool stored = false;
      for (std::size_t i = 0; i < n_rec2field_table; ++i) {
        const db_field* f;
        const r2f_group* g;
        stored |= record_kind_of(&rec2field_table[i]) == kind &&
                  find_field(&rec2field_table[i], kind->members[m].offset, &f, &g);
      }
      EXPECT_TRUE(stored) << kind->members[m].name;
    }
  }
  const record_kind* vol = find_record_kind("volume");
  EXPECT_STREQ(find_member(vol, "len")->name, "v_len");
  EXPECT_STREQ(find_member(vol, "tutil2")->name, "v_tutil[2]");
  EXPECT_STREQ(find_member(vol, "v_putil[1]")->name, "v_putil[1]");
  EXPECT_EQ(find_member(vol, "pl_name"), nullptr);
}

TEST(ConfigWriterTest, RecordsOfTheMainKindsDecode) {
  auto copy = build(R"(
    database version=4.17 dgname=dg1 dgid=1234.5.host config-tid=0.200 pending-tid=0.200 time=77
    group ref=1 name=dg1 rid=0.1000 dgid=a0000001-1234-0001-4041-424344454647 version=171 nconfig=-1 comment="main group"
    volume ref=2 name=vol1 rid=0.1001 len=2048 pl_num=2 update_tid=0.150 state=ACTIVE read_pol=2 pref_plex_rid=0.1002 nt_mount_name=E:\u4e00 pflag=0x3000000
    plex ref=3 name=vol1-01 rid=0.1002 vol_rid=0.1001 layout=1 st_width=128 ncolumn=3 guid=11111111-2222-3333-4444-555555555555
    subdisk ref=4 name=sd1 rid=0.1003 plex_rid=0.1002 dm_rid=0.1004 len=1024 dm_offset=10 nt_hidden_sectors=63 comment=hello
    disk ref=5 name=disk01 rid=0.1004 diskid=a0000002-1234-0002-4041-424344454647 nt_persistent_name=Harddisk1 app_value=0102
    rlink ref=6 name=rl1 rid=0.1006 net_address=4145:10.0.0.1 local_address6=4146:192.168.0.1 bandwidth_limit=1000
    snap ref=7 name=snap1 rid=0.1007 dco_rid=0.1008 vol_guid=01020304-0506-0708-090a-0b0c0d0e0f10 link_state=-3
  )");
  test::decoded_copy c(copy);
  ASSERT_EQ(c.error, 0);
  EXPECT_EQ(ddb_extract_done(c.db()), 0);
  EXPECT_EQ(c.hdr.vdbi_nt_update_time, 77u);
  EXPECT_EQ(c.hdr.vdbi_pending_sum.vs_rp_cnt, 1u);  // counts follow the records written
  EXPECT_EQ(c.hdr.vdbi_config_sum.vs_sp_cnt, 1u);
  for (unsigned long ref = 1; ref <= 7; ++ref) ASSERT_NE(c.by_ref(ref), nullptr) << ref;
  // The type word carries the presence flag of each group a member was
  // given for; values in every text form.
  const urec& dg = *c.by_ref(1)->rec;
  EXPECT_EQ(c.by_ref(1)->type, 0x45u | 0x2000 | 0x4000 | 0x800);
  EXPECT_EQ(dg.dg.dg_nconfig, -1);
  EXPECT_STREQ(dg.dg.dg_comment, "main group");
  const urec& v = *c.by_ref(2)->rec;
  EXPECT_EQ(c.by_ref(2)->type, 0x61u | 0x800 | 0x200);
  EXPECT_EQ(v.v.v_pflag, 0x3000000u);
  EXPECT_EQ(v.v.v_pref_plex_rid.seqno_lo, 1002u);
  ASSERT_NE(v.v.v_nt_mount_name, nullptr);
  EXPECT_EQ(std::wcscmp(v.v.v_nt_mount_name, L"E:\x4e00"), 0);
  EXPECT_EQ(c.by_ref(3)->type, 0x42u | 0x1000 | 0x4000);
  EXPECT_EQ(c.by_ref(3)->rec->pl.pl_guid.Data1, 0x11111111u);
  EXPECT_EQ(c.by_ref(4)->type, 0x43u | 0x200);  // 0x43 keeps the comment in the base
  const std::uint8_t* app = c.by_ref(5)->rec->dm.dm_app_value;
  ASSERT_NE(app, nullptr);
  EXPECT_EQ(app[0], 0x82);  // the length prefix
  EXPECT_EQ(app[2], 0x02);
  const reprec& rp = c.by_ref(6)->rec->rp;
  EXPECT_EQ(c.by_ref(6)->type, 0x58u | 0x800 | 0x1000);
  EXPECT_EQ(rp.rp_net_address.portno, 4145);
  EXPECT_EQ(rp.rp_net_address.ipaddress, 0x0A000001u);
  EXPECT_EQ(rp.rp_local_address6.ipaddress.addr.words[0], 0xC0A80001u);
  EXPECT_EQ(c.by_ref(7)->rec->sp.sp_link_state, -3);
  EXPECT_EQ(c.by_ref(7)->rec->sp.sp_vol_guid.Data4[7], 0x10);
}

TEST(ConfigWriterTest, HighFlagsTravelInTheExtension) {
  auto copy = build(R"(
    database
    volume ref=9 name=v dco_rid=0.7 pflag3=5
    record type=0x10131 ref=10 name=w rid=0.1
  )");
  test::decoded_copy c(copy);
  EXPECT_EQ(c.error, VE_DB_FORMAT);
  ASSERT_NE(c.by_ref(9), nullptr);
  EXPECT_EQ(c.by_ref(9)->type, 0x61u | 0x100 | 0x20000 | 0x80000);
  EXPECT_EQ(c.by_ref(9)->rec->v.v_dco_rid.seqno_lo, 7u);
  EXPECT_EQ(c.by_ref(9)->rec->v.v_pflag3, 5u);
  // 0x31 does not know the netmirror group: the record is refused.
  EXPECT_EQ(c.by_ref(10), nullptr);
}

struct decoded_header {
  voldb_info vi{};
  std::size_t nblocks = 0, blksize = 0;
};

decoded_header header_of(const std::vector<std::uint8_t>& copy) {
  decoded_header h;
  dbase* db = ddb_alloc(nullptr);
  EXPECT_EQ(voldbsup_unformat_header(db, copy.data(), 512, &h.vi), 0);
  h.nblocks = db->ddb_nblocks;
  h.blksize = db->ddb_blksize;
  ddb_free(db);
  return h;
}

// The geometry asked for, the state and the counts given, the unused
// blocks framed in the copy's block size, a record placed where asked.
TEST(ConfigWriterTest, HeaderGeometryAndPlacement) {
  auto g = build("database blksize=1024 hdrsize=1024 nblocks=40 state=2 counts=zero vs_v_cnt=7 "
                 "pending.vs_v_cnt=8", 40 * 1024);
  decoded_header h = header_of(g);
  EXPECT_EQ(h.blksize, 1024u);
  EXPECT_EQ(h.nblocks, 40u);
  EXPECT_EQ(h.vi.vdbi_commit_state, 2);
  EXPECT_EQ(h.vi.vdbi_config_sum.vs_v_cnt, 7u);
  EXPECT_EQ(h.vi.vdbi_pending_sum.vs_v_cnt, 8u);
  EXPECT_EQ(std::memcmp(g.data() + 1024, "VBLK", 4), 0);
  EXPECT_EQ(g[1024 + 7], 1);
  // A 14-character limit for the release-1.2 name.
  EXPECT_STREQ(header_of(build("database version=3.1 dgname=abcdefghijklmnopq")).vi.vdbi_dg_name,
               "abcdefghijklmn");
  // The largest block size the report accepts; a record placed at block 2.
  auto copy = build("database blksize=8192 hdrsize=8192 nblocks=8\n"
                    "group ref=3 at=2 name=dg1 comment=" + std::string(40, 'c'),
                    8 * 8192);
  EXPECT_EQ(header_of(copy).blksize, 8192u);
  EXPECT_EQ(std::memcmp(copy.data() + 2 * 8192, "VBLK", 4), 0);
  EXPECT_EQ(copy[2 * 8192 + 11], 3);  // reference
}

TEST(ConfigWriterTest, DamageStatements) {
  struct damage {
    const char* what;
    const char* text;
    int error;
    std::size_t piece;
  };
  const damage cases[] = {
      {"fragment count", "database\nvolume ref=5 at=3 name=v nfrag=2", VE_DB_FORMAT, 3},
      {"bad magic", "database\nblock at=2 magic=XBLK", VE_BAD_MAGIC, 2},
      {"block number", "database\nblock at=4 blkno=9", VE_BAD_BLOCKNO, 4},
      {"duplicate first block", "database\nvolume ref=5 at=2 name=a\nvolume ref=5 at=3 name=b",
       VE_DB_FORMAT, 3},
      {"poke into the record header", "database\nvolume ref=5 at=2 name=v\n"
                                      "poke block=2 offset=20 hex=ffffffff",
       VE_DB_FORMAT, 2},
      {"raw body", "database\nrecord type=0x35 ref=5 at=2 body=00", VE_DB_FORMAT, 2},
      {"oversized claim", "database\nvolume ref=5 at=2 name=v size=20000 nfrag=41",
       VE_RECORD_TOO_LARGE, 2},
      {"bad header magic", "database\npoke at=0 hex=00", VE_BAD_MAGIC, 0},
  };
  for (const damage& d : cases) {
    SCOPED_TRACE(d.what);
    auto copy = build(d.text);
    test::decoded_copy c(copy);
    EXPECT_EQ(c.error, d.error);
    EXPECT_EQ(c.error_piece, d.piece);
  }
  // A missing first fragment leaves a placeholder and an incomplete store.
  std::string long_name = "comment=" + std::string(40, 'x');
  auto copy = build("database\ndisk ref=5 at=2 name=d " + long_name +
                    " app_value=" +
                    std::string(900, '1') + " skip=0");
  test::decoded_copy c(copy);
  EXPECT_EQ(c.error, 0);
  EXPECT_EQ(ddb_extract_done(c.db()), 1);
  EXPECT_EQ(c.by_ref(5), nullptr);
}

TEST(ConfigWriterTest, CorruptedCopiesDecodeWithinTheirBytes) {
  // Every byte of a good copy damaged in turn, several at a time: the store
  // and the decoder may refuse, never read outside the copy (checked under
  // the sanitizers) and never keep a record whose body it did not finish.
  auto good = build(R"(
    database nblocks=16
    group name=dg1 rid=0.1 version=171 comment=abc
    volume name=vol1 rid=0.2 len=2048 nt_mount_name=X: pref_plex_rid=0.3 comment=)" +
                    std::string(40, 'v') + R"(
    plex name=p rid=0.3 vol_rid=0.2 info=0102030405 comment=pc
    disk name=d rid=0.4 diskid=a0000002-1234-0002-4041-424344454647 app_value=)" +
                    std::string(1200, 'a') + R"(
  )",
                    16 * 512);
  std::uint32_t seed = 12345;
  auto next = [&seed] { return seed = seed * 1103515245u + 12345u; };
  for (int round = 0; round < 400; ++round) {
    std::vector<std::uint8_t> copy = good;
    int n = 1 + static_cast<int>(next() % 4);
    for (int i = 0; i < n; ++i) {
      std::size_t at = 512 + next() % (copy.size() - 512);
      copy[at] = static_cast<std::uint8_t>(next() >> 8);
    }
    test::decoded_copy c(copy);
    ddb_extract_done(c.db());
    dbrec_iter it;
    dbrlist_iter(&it, c.db());
    while (db_record* r = dbrlist_next(&it)) {
      if (c.by_ref(r->dbr_ref) != nullptr && (r->dbr_gen_flag & DBR_FORMAT_ERROR) == 0) {
        EXPECT_TRUE(r->dbr_gen_flag & DBR_COMPLETE);
      }
    }
  }
}

TEST(ConfigWriterTest, DescriptionErrorsNameTheLine) {
  EXPECT_EQ(build_error("database\nvolume foo=1"), "config line 2: no member foo in volume records");
  EXPECT_EQ(build_error("volume type=0x31 netmirror=1"),
            "config line 1: no member netmirror in volume records");
  EXPECT_EQ(build_error("volume type=0x31 nm_site=x"),
            "config line 1: records of type 0x31 do not store v_nm_site");
  EXPECT_EQ(build_error("volume len=abc"), "config line 1: v_len: bad value \"abc\"");
  EXPECT_EQ(build_error("frobnicate"), "config line 1: unknown statement frobnicate");
  EXPECT_EQ(build_error("database blksize=16"), "config line 1: blksize must lie in 32..65536");
  EXPECT_EQ(build_error("volume at=70 name=x"), "config line 1: the record runs past the copy");
  EXPECT_EQ(build_error("record name=x"), "config line 1: record needs type= or entry=");
}

}  // namespace
}  // namespace pd
