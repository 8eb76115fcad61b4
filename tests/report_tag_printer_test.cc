#include "report/tag_printer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "config_db/records.h"

namespace pd {
namespace {

// (The entry counts are checked where the tables are defined.)
TEST(TagTablesTest, EveryTableEndsWithPseudoFieldsTagsAscendAndFlagsHaveMasks) {
  for (std::span<const voltagdesc> t : {vtagdesc(), ptagdesc(), stagdesc(), mtagdesc(),
                                        gtagdesc(), atagdesc(), dcotagdesc(), snaptagdesc()}) {
    const std::size_t n = t.size();
    ASSERT_GE(n, 3u);
    EXPECT_STREQ(t[n - 3].name, "EXISTS");
    EXPECT_STREQ(t[n - 2].name, "IMPLICIT");
    EXPECT_STREQ(t[n - 1].name, "CHANGED");
    int last_tag = 0;
    for (const voltagdesc& d : t) {
      // Aliases share their field's number; numbers never go back.
      EXPECT_GE(d.tag, last_tag) << d.name;
      last_tag = d.tag;
      if (d.type == TAG_FLAG) {
        EXPECT_NE(d.info, 0) << d.name;
      }
    }
  }
}

TEST(ValueTablesTest, LookupAndBadValues) {
  tag_printer tp;
  EXPECT_STREQ(tp.getetag(layouts(), 3), "RAID");
  EXPECT_STREQ(tp.getetag(vkstates(), 3), "ENABLED");
  EXPECT_STREQ(tp.getetag(pkstates(), 2), "DETACHED");
  EXPECT_STREQ(tp.getetag(iomodes(), 2), "WO");
  EXPECT_STREQ(tp.getetag(logtypes(), 32), "REGION");
  EXPECT_STREQ(tp.getetag(excepts(), 4), "FAIL_DET_PL");
  EXPECT_STREQ(tp.getetag(rpols(), 4), "RAID");
  EXPECT_STREQ(tp.getetag(layouts(), 9), "0x9 #bad");
  EXPECT_STREQ(tp.getetag(layouts(), -1), "0xffffffff #bad");
}

// Every alias of the read policy is a policy tag, and a policy never has a
// text.
TEST(FieldPrinterTest, ReadPolicyNeverHasAText) {
  tag_printer tp;
  volrec v{};
  for (const char* name : {"read_pol", "readpol", "current_read_pol", "currentreadpol", "creadpol"}) {
    for (int pol : {0, 2, 4}) {
      v.v_read_pol = pol;
      v.v_current_read_pol = pol;
      tp.flag = 0;
      EXPECT_STREQ(tp.vol_sprint_field(&v, name), "") << name << " " << pol;
      EXPECT_EQ(tp.flag, 1) << name;
    }
  }
}

TEST(FieldPrinterTest, UnknownNameGivesEmptyTextAndLeavesFlag) {
  tag_printer tp;
  volrec v{};
  EXPECT_STREQ(tp.vol_sprint_field(&v, "no_such_field"), "");
  EXPECT_EQ(tp.flag, 0);
  EXPECT_STREQ(tp.vol_sprint_field(&v, "Len"), "");  // names are case-sensitive
  EXPECT_EQ(tp.flag, 0);
  EXPECT_STREQ(tp.vol_sprint_field(&v, "len"), "0");
  EXPECT_EQ(tp.flag, 1);
}

TEST(FieldPrinterTest, VolumeKinds) {
  tag_printer tp;
  volrec v{};
  std::strcpy(v.v_tutil[0], "abc");
  v.v_tutil[1][0] = '\0';
  v.v_tutil[1][1] = '\0';
  std::strcpy(v.v_tutil[1] + 2, "xy");  // leading NULs are skipped
  v.v_tflag = VOL_TF_R_ALL;
  v.v_kstate = 3;
  v.v_lasterr = -5;
  v.v_node_bdev = ~std::uint64_t{0};
  v.v_node_cdev = 5;
  v.v_iosize = 4096;
  v.v_pl_num = 2;
  v.v_minor = 12345;
  v.v_uid = 100;
  v.v_gid = 200;
  v.v_mode = 0755;
  v.v_log_type = 0x21;
  v.v_len = -7;
  v.v_update_tid = {34, 12};
  v.v_pref_plex_rid = {0, 0};
  v.v_log_rid = {9, 1};
  v.v_nt_vol_guid = {0x12345678, 0xabcd, 0x0102, {1, 2, 3, 4, 5, 6, 7, 8}};
  std::strcpy(v.v_pref_name, "vol1-02");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "tutil0"), "abc");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "tutil1"), "xy");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "tutil2"), "");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "r_all"), "on");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "w_all"), "off");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "kstate"), "ENABLED");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "lasterr"), "-5");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "dev"), "VOLNODEV");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "cdev"), "5/5");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "iosize"), "4096");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "nplex"), "2");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "plex"), "");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "minor"), "12345");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "user"), "100");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "group"), "200");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "mode"), "0755");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "logtype"), "REGION");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "len"), "-7");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "update_tid"), "12.34");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "pref_plex_rid"), "");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "logrid"), "1.9");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "nt_vol_guid"), "12345678-abcd-0102-0102-030405060708");
  // The preferred plex prints only under the prefer policy.
  v.v_read_pol = 1;
  EXPECT_STREQ(tp.vol_sprint_field(&v, "prefname"), "");
  v.v_current_read_pol = 2;
  EXPECT_STREQ(tp.vol_sprint_field(&v, "prefname"), "vol1-02");
  EXPECT_STREQ(tp.vol_sprint_field(&v, "EXISTS"), "");
}

TEST(FieldPrinterTest, PlexStripeWidthOnlyForStripeAndRaid) {
  tag_printer tp;
  plexrec p{};
  p.pl_st_width = 128;
  p.pl_layout = 2;
  EXPECT_STREQ(tp.plex_sprint_field(&p, "st_width"), "");
  p.pl_layout = 1;
  EXPECT_STREQ(tp.plex_sprint_field(&p, "st_width"), "128");
  p.pl_layout = 3;
  EXPECT_STREQ(tp.plex_sprint_field(&p, "stwidth"), "128");
  p.pl_iomode = 7;  // only the low two bits count
  EXPECT_STREQ(tp.plex_sprint_field(&p, "iomode"), "RW");
  p.pl_guid = {1, 2, 3, {0, 0, 0, 0, 0, 0, 0, 0x10}};
  EXPECT_STREQ(tp.plex_sprint_field(&p, "plex_guid"), "{00000001-0002-0003-0000-000000000010}");
  p.pl_kstate = 4;
  EXPECT_STREQ(tp.plex_sprint_field(&p, "kstate"), "0x4 #bad");
}

TEST(FieldPrinterTest, DiskGroupCopiesVersionAndIds) {
  tag_printer tp;
  dgrec g{};
  EXPECT_STREQ(tp.dg_sprint_field(&g, "nconfig"), "default");
  g.dg_nconfig = -1;
  EXPECT_STREQ(tp.dg_sprint_field(&g, "nconfig"), "all");
  g.dg_nlog = 3;
  EXPECT_STREQ(tp.dg_sprint_field(&g, "nlog"), "3");
  g.dg_version = 171;
  EXPECT_STREQ(tp.dg_sprint_field(&g, "version"), "171");
  // "%ld" of the member's value: an unsigned minor number is not negative.
  g.dg_base_minor = 3000000000u;
  EXPECT_STREQ(tp.dg_sprint_field(&g, "base_minor"), "3000000000");
  std::strcpy(g.dg_dgid, "1234.5.host");
  EXPECT_STREQ(tp.dg_sprint_field(&g, "dgid"), "1234.5.host");
  EXPECT_STREQ(tp.dg_sprint_field(&g, "actmode"), "");
  EXPECT_STREQ(tp.dg_sprint_field(&g, "rid"), "");
}

TEST(FieldPrinterTest, OtherKindsResolveTheirNames) {
  tag_printer tp;
  sdrec sd{};
  sd.sd_dm_offset = 2048;
  sd.sd_pflag = SD_PF_RELOCATE;
  EXPECT_STREQ(tp.sd_sprint_field(&sd, "dm_offset"), "2048");
  EXPECT_STREQ(tp.sd_sprint_field(&sd, "relocate"), "on");
  dmrec dm{};
  std::strcpy(dm.dm_diskid, "disk-id-1");
  dm.dm_pflag = DM_PF_SPARE;
  EXPECT_STREQ(tp.dm_sprint_field(&dm, "diskid"), "disk-id-1");
  EXPECT_STREQ(tp.dm_sprint_field(&dm, "spare"), "on");
  darec da{};
  std::strcpy(da.da_type, "simple");
  EXPECT_STREQ(tp.da_sprint_field(&da, "type"), "simple");
  dcorec dco{};
  dco.dco_parent_vol = {7, 0};
  EXPECT_STREQ(tp.dco_sprint_field(&dco, "parent_rid"), "0.7");
  snaprec sp{};
  sp.sp_snap_tid = {1, 2};
  EXPECT_STREQ(tp.snap_sprint_field(&sp, "snap_tid"), "2.1");
}

}  // namespace
}  // namespace pd
