#include "report/record_printer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "config_db/records.h"
#include "test_support.h"

namespace pd {
namespace {

class RecordPrinterTest : public ::testing::Test {
 protected:
  // What was printed since the previous call.
  std::string out() {
    std::string all = cs_.out();
    std::string fresh = all.substr(seen_);
    seen_ = all.size();
    return fresh;
  }
  test::captured_session cs_;
  std::size_t seen_ = 0;
  volseqno_t max_tid_;
  record_printer pr_{cs_->out, max_tid_};
};

volrec make_volume() {
  volrec v{};
  std::strcpy(v.v_name, "vol1");
  v.v_rid = {5, 0};
  v.v_update_tid = {10, 0};
  v.v_len = 2048;
  v.v_nt_part_type = 7;
  std::strcpy(v.v_use_type, "gen");
  std::strcpy(v.v_fstype, "ntfs");
  std::strcpy(v.v_state, "ACTIVE");
  v.v_read_pol = VOL_RP_ROUND;
  return v;
}

const char* const kZeroGuid = "00000000-0000-0000-0000-000000000000";

TEST_F(RecordPrinterTest, PlainVolume) {
  pr_.print_volume_longformat(make_volume());
  EXPECT_EQ(out(), std::string(" Volume:   vol1 rid=0.5 update=0.10\n") +
                       " info:     len=2048 guid=" + kZeroGuid + "\n" +
                       " type:     parttype=7 usetype=gen fstype=ntfs\n"
                       " state:    state=ACTIVE\n"
                       " policies: read=\n"
                       " flags:  0  \n\n");
}

TEST_F(RecordPrinterTest, VolumeMountNameSiteFlagsPreferredPlexAndComment) {
  volrec v = make_volume();
  wchar_t mount[] = L"C:\\data";
  v.v_nt_mount_name = mount;
  v.v_fstype[0] = '\0';
  v.v_pflag = VOL_PF_SITE_CONFINED | VOL_PF_SITE_SEPARATED;
  v.v_read_pol = VOL_RP_PREFER;
  v.v_pref_plex_rid = {7, 1};
  std::strcpy(v.v_comment, "important");
  v.v_nt_vol_guid = {0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 7, 8}};
  pr_.print_volume_longformat(v);
  EXPECT_EQ(out(),
            " Volume:   vol1 rid=0.5 update=0.10 mountname=C:\\data\n"
            " info:     len=2048 guid=12345678-9abc-def0-0102-030405060708\n"
            " type:     parttype=7 usetype=gen Site-Confined Site-Separated\n"
            " state:    state=ACTIVE\n"
            " policies: read= (plex=1.7)\n"
            " flags:  3000000  \n"
            " comment:  important\n\n");
  out();
  std::strcpy(v.v_pref_name, "vol1-02");
  v.v_nt_mount_name = nullptr;
  v.v_pflag = 0;
  v.v_comment[0] = '\0';
  pr_.print_volume_longformat(v);
  EXPECT_NE(out().find(" policies: read= (plex=vol1-02)\n flags:  0  \n\n"), std::string::npos);
}

TEST_F(RecordPrinterTest, VolumeFlagWordsWrapBeforeColumn78) {
  volrec v = make_volume();
  v.v_pflag = VOL_PF_CRASHED | VOL_PF_BADLOG | VOL_PF_WRITECOPY | VOL_PF_WRITEBACK |
              VOL_PF_KDETACH | VOL_PF_STORAGE | VOL_PF_APPRECOVER | VOL_PF_NT_PENDING |
              VOL_PF_NT_RAID_NTFT | VOL_PF_NT_BOOT_VOLUME | VOL_PF_NT_SYSTEM_VOLUME |
              VOL_PF_NT_RETAIN_PARTITION;
  pr_.print_volume_longformat(v);
  const std::string text = out();
  const std::string flags =
      " flags:  f03d07   crashed badlog writecopy writeback kdetach storage\n"
      "          apprecover pending raid-ntft boot-volume system-volume\n"
      "          retain-partition\n\n";
  ASSERT_GE(text.size(), flags.size());
  EXPECT_EQ(text.substr(text.size() - flags.size()), flags);
}

TEST_F(RecordPrinterTest, RecoveryTextCountsTowardsTheColumn) {
  volrec v = make_volume();
  v.v_tflag = VOL_TF_RECOVER | VOL_TF_RECOVER_OFFSET;
  v.v_recover_offset = 123456789;
  v.v_recover_checkpoint = 987654321;
  v.v_pflag = VOL_PF_WRITECOPY | VOL_PF_WRITEBACK | VOL_PF_KDETACH | VOL_PF_NT_RETAIN_PARTITION;
  pr_.print_volume_longformat(v);
  // "\n flags:  800403  " is 18 columns, the recovery text 45 more, so
  // " writecopy" ends at 73 and " writeback" would pass 78.
  EXPECT_NE(out().find(" flags:  800403   recover (offset=123456789 ckpoint=987654321)"
                       " writecopy\n          writeback kdetach retain-partition\n\n"),
            std::string::npos);
}

TEST_F(RecordPrinterTest, RecoveryForms) {
  volrec v = make_volume();
  v.v_tflag = VOL_TF_RECOVER;
  pr_.print_volume_longformat(v);
  EXPECT_NE(out().find(" flags:  0   recover (done)\n\n"), std::string::npos);
  v.v_recover_checkpoint = 40;
  v.v_read_pol = VOL_RP_RAID;
  pr_.print_volume_longformat(v);
  // The parity offset is always 0.
  EXPECT_NE(out().find(" flags:  0   recover-parity (offset=0 ckpoint=40)\n\n"),
            std::string::npos);
  v.v_len = 0;
  pr_.print_volume_longformat(v);
  EXPECT_NE(out().find(" flags:  0   recover-parity (done)\n\n"), std::string::npos);
  v.v_tflag = 0;
  pr_.print_volume_longformat(v);
  EXPECT_NE(out().find(" flags:  0  \n\n"), std::string::npos);
}

TEST(FlagWordsTest, WrapRule) {
  test::captured_session cs;
  const flag_word words[] = {{1, "aaaa"}, {2, "bbbb"}, {4, "cc"}};
  // 73 + 4 + 1 = 78 still fits; the next word does not.
  EXPECT_EQ(print_flag_words(cs->out, 7, words, 3, 73), 9 + 5 + 3);
  EXPECT_EQ(cs.out(), " aaaa\n          bbbb cc");
  EXPECT_EQ(print_flag_words(cs->out, 4, words, 3, 0), 3);
  EXPECT_EQ(cs.out(), " aaaa\n          bbbb cc cc");
  // A word that would end past column 78 starts a continuation line.
  EXPECT_EQ(print_flag_words(cs->out, 1, words, 3, 74), 14);
  EXPECT_EQ(cs.out(), " aaaa\n          bbbb cc cc\n          aaaa");
}

TEST_F(RecordPrinterTest, MaxTidFollowsVolumePlexSubdiskAndDiskOnly) {
  volrec v = make_volume();
  v.v_update_tid = {5, 1};
  pr_.print_volume_longformat(v);
  EXPECT_EQ(seqno_value(max_tid_), (1ull << 32) | 5);
  v.v_update_tid = {0xFFFFFFFF, 0};  // lower: unchanged
  pr_.print_volume_longformat(v);
  EXPECT_EQ(seqno_value(max_tid_), (1ull << 32) | 5);
  dgrec g{};
  g.dg_update_tid = {0, 9};
  pr_.print_diskgroup_longformat(g);
  snaprec sp{};
  sp.sp_update_tid = {0, 9};
  pr_.print_snap_longformat(sp);
  EXPECT_EQ(seqno_value(max_tid_), (1ull << 32) | 5);
  sdrec sd{};
  sd.sd_update_tid = {6, 1};
  pr_.print_subdisk_longformat(sd);
  EXPECT_EQ(seqno_value(max_tid_), (1ull << 32) | 6);
  dmrec dm{};
  dm.dm_update_tid = {0, 2};
  pr_.print_diskmedia_longformat(dm);
  plexrec pl{};
  pl.pl_update_tid = {1, 2};
  pr_.print_plex_longformat(pl);
  EXPECT_EQ(seqno_value(max_tid_), (2ull << 32) | 1);
}

TEST_F(RecordPrinterTest, Plexes) {
  plexrec p{};
  std::strcpy(p.pl_name, "vol1-01");
  p.pl_rid = {6, 0};
  p.pl_update_tid = {11, 0};
  p.pl_guid = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
  p.pl_layout = PL_LAYOUT_STRIPE;
  p.pl_ncolumn = 3;
  p.pl_st_width = 128;
  std::strcpy(p.pl_state, "ACTIVE");
  p.pl_vol_rid = {5, 0};
  p.pl_pflag = PL_PF_RECOVER | PL_PF_IOFAIL;
  std::strcpy(p.pl_comment, "hello");
  p.pl_log_sd_rid = {9, 0};
  pr_.print_plex_longformat(p);
  EXPECT_EQ(out(),
            " Plex:     vol1-01 rid=0.6 update=0.11\n"
            " info      guid=00000001-0002-0003-0405-060708090a0b\n"
            " type:     layout=STRIPE columns=3 width=128\n"
            " state:    state=ACTIVE\n"
            " assoc:    vol=0.5\n"
            " flags:    recover iofail\n"
            " comment:  hello\n"
            " logging:  logsd=0.9\n"
            " dco:      dcoplex_rid=0.0\n\n");
  plexrec c{};
  std::strcpy(c.pl_name, "vol2-01");
  c.pl_layout = PL_LAYOUT_CONCAT;
  c.pl_ncolumn = 4;
  c.pl_pflag = PL_PF_NT_PENDING;
  std::strcpy(c.pl_log_sd, "logsd1");
  c.pl_snap_rid = {3, 2};
  c.pl_dcoplex_rid = {8, 0};
  pr_.print_plex_longformat(c);
  EXPECT_EQ(out(),
            " Plex:     vol2-01 rid=0.0 update=0.0\n"
            " type:     layout=CONCAT\n"
            " state:    state=\n"
            " assoc:    vol=0.0\n"
            " flags:    pending\n"
            " logging:  logsd=logsd1\n"
            " snap:     master_volume_rid=2.3\n"
            " dco:      dcoplex_rid=0.8\n\n");
  c.pl_layout = 9;
  c.pl_st_width = 64;
  c.pl_ncolumn = 0;
  pr_.print_plex_longformat(c);
  EXPECT_NE(out().find(" type:     layout=0x9 #bad\n"), std::string::npos);
  c.pl_layout = PL_LAYOUT_RAID;
  pr_.print_plex_longformat(c);
  EXPECT_NE(out().find(" type:     layout=RAID width=64\n"), std::string::npos);
}

TEST_F(RecordPrinterTest, Subdisks) {
  sdrec sd{};
  std::strcpy(sd.sd_name, "sd1");
  sd.sd_rid = {7, 0};
  sd.sd_update_tid = {12, 0};
  sd.sd_dm_rid = {3, 0};
  sd.sd_len = 1024;
  sd.sd_nt_hidden_sectors = 63;
  sd.sd_plex_rid = {6, 0};
  sd.sd_column = 1;
  sd.sd_pl_offset = 2048;
  sd.sd_pflag = SD_PF_VOLATILE | SD_PF_BOOT_EXTENDED | SD_PF_ORIGBOOT;
  pr_.print_subdisk_longformat(sd);
  EXPECT_EQ(out(),
            " Subdisk:  sd1 rid=0.7 updated=0.12\n"
            " info:     disk=0.3 offset=0 len=1024 hidden=63\n"
            " assoc:    plex=0.6 (column=1 offset=2048)\n"
            " flags:    volatile boot-extended origboot\n\n");
  sd.sd_tflag = SD_TF_LOG;
  sd.sd_pflag = SD_PF_RECOVER | SD_PF_RELOCATE | SD_PF_KDETACH;
  sd.sd_dm_offset = -1;
  std::strcpy(sd.sd_comment, "log area");
  pr_.print_subdisk_longformat(sd);
  EXPECT_EQ(out(),
            " Subdisk:  sd1 rid=0.7 updated=0.12\n"
            " info:     disk=0.3 offset=-1 len=1024 hidden=63\n"
            " assoc:    plex=0.6 (log)\n"
            " flags:    recover relocate kdetach\n"
            " comment:  log area\n\n");
}

TEST_F(RecordPrinterTest, DiskMedia) {
  dmrec dm{};
  std::strcpy(dm.dm_name, "disk1");
  dm.dm_rid = {3, 0};
  dm.dm_update_tid = {9, 0};
  std::strcpy(dm.dm_diskid, "abc-123");
  dm.dm_pflag = DM_PF_DETACHED | DM_PF_RESERVED | DM_PF_MERGE_REQUIRED;
  wchar_t name[] = L"Harddisk1";
  dm.dm_nt_persistent_name = name;
  dm.dm_nt_last_diskset_id = {0xa, 0xb, 0xc, {0, 0, 0, 0, 0, 0, 0, 0xd}};
  pr_.print_diskmedia_longformat(dm);
  EXPECT_EQ(out(),
            " Disk:     disk1 rid=0.3 updated=0.9\n"
            " assoc:    diskid=abc-123 detached lastdevice=Harddisk1\n"
            " lastset:  id=0000000a-000b-000c-0000-00000000000d\n"
            " flags:    reserved merge-required\n\n");
  dm.dm_pflag = DM_PF_REMOVED | DM_PF_DETACHED | DM_PF_SPARE | DM_PF_FAILING |
                DM_PF_ENCAP_PENDING;
  dm.dm_nt_persistent_name = nullptr;
  dm.dm_nt_last_diskset_id = zeroguid;
  std::strcpy(dm.dm_comment, "spare one");
  pr_.print_diskmedia_longformat(dm);
  EXPECT_EQ(out(),
            " Disk:     disk1 rid=0.3 updated=0.9\n"
            " assoc:    removed\n"
            " flags:    spare failing encap-pending\n"
            " comment:  spare one\n\n");
}

TEST_F(RecordPrinterTest, DiskGroups) {
  dgrec g{};
  std::strcpy(g.dg_real_name, "dg1");
  g.dg_rid = {1, 0};
  g.dg_version = 171;
  g.dg_update_tid = {2, 0};
  std::strcpy(g.dg_dgid, "1.2.host");
  g.dg_nconfig = -1;
  g.dg_nlog = 0;
  g.dg_base_minor = 1000;
  pr_.print_diskgroup_longformat(g);
  EXPECT_EQ(out(), std::string(" Group:    dg1 rid=0.1 version=171 update=0.2\n"
                               " id:       dgid=1.2.host\n"
                               " diskset:  id=") +
                       kZeroGuid +
                       "\n"
                       " copies:   nconfig=all nlog=default\n"
                       " minors:   >= 1000\n\n");
  g.dg_nconfig = 0;
  g.dg_nlog = -3;
  g.dg_nt_diskset_id = {0xdeadbeef, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
  std::strcpy(g.dg_comment, "main group");
  pr_.print_diskgroup_longformat(g);
  EXPECT_EQ(out(),
            " Group:    dg1 rid=0.1 version=171 update=0.2\n"
            " id:       dgid=1.2.host\n"
            " diskset:  id=deadbeef-0001-0002-0304-05060708090a\n"
            " copies:   nconfig=default nlog=all\n"
            " minors:   >= 1000\n"
            " comment:  main group\n\n");
  g.dg_nconfig = 2;
  g.dg_nlog = 1;
  pr_.print_diskgroup_longformat(g);
  EXPECT_NE(out().find(" copies:   nconfig=2 nlog=1\n"), std::string::npos);
}

TEST_F(RecordPrinterTest, ReplicationDcoAndSnapshot) {
  rvolrec rv{};
  std::strcpy(rv.rv_name, "rv1");
  rv.rv_rid = {20, 0};
  rv.rv_update_tid = {21, 0};
  pr_.print_rvol_longformat(rv);
  EXPECT_EQ(out(), " RVOL:     rv1 rid=0.20 update=0.21\n\n");
  reprec rp{};
  std::strcpy(rp.rp_name, "rl1");
  rp.rp_rid = {22, 0};
  rp.rp_update_tid = {23, 1};
  pr_.print_replica_longformat(rp);
  EXPECT_EQ(out(), " REPLICA:  rl1 rid=0.22 update=1.23\n\n");
  dcorec d{};
  std::strcpy(d.dco_name, "dco1");
  std::strcpy(d.dco_log_name, "vol1_dcl");
  d.dco_rid = {30, 0};
  d.dco_update_tid = {31, 0};
  d.dco_log_vol = {32, 0};
  d.dco_parent_vol = {33, 0};
  pr_.print_dco_longformat(d);
  EXPECT_EQ(out(),
            " DCO:     vol1_dcl rid=0.30 update=0.31\n"
            " assoc:    log_rid=0.32,  parent_rid=0.33 \n\n");
  snaprec sp{};
  std::strcpy(sp.sp_name, "snap1");
  sp.sp_rid = {40, 0};
  sp.sp_update_tid = {41, 0};
  sp.sp_dco_rid = {30, 0};
  sp.sp_vol_guid = {1, 0, 0, {}};
  sp.sp_plex_guid = {2, 0, 0, {}};
  pr_.print_snap_longformat(sp);
  EXPECT_EQ(out(), std::string(" SNAP:     snap1 rid=0.40 update=0.41\n"
                               " assoc:    dco_rid=0.30\n"
                               " spguid: ") +
                       kZeroGuid +
                       "\n"
                       " volguid: 00000001-0000-0000-0000-000000000000\n"
                       " snapvolguid: " +
                       kZeroGuid +
                       "\n"
                       " plexguid: 00000002-0000-0000-0000-000000000000\n\n");
}

}  // namespace
}  // namespace pd
