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
  record_printer pr_{cs_->out};
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

// The forms the whole-report tests do not show: both site flags in their
// order, and the preferred plex by name.
TEST_F(RecordPrinterTest, VolumeSiteFlagsAndPreferredPlexName) {
  volrec v = make_volume();
  v.v_pflag = VOL_PF_SITE_CONFINED | VOL_PF_SITE_SEPARATED;
  v.v_read_pol = VOL_RP_PREFER;
  v.v_pref_plex_rid = {7, 1};
  std::strcpy(v.v_pref_name, "vol1-02");
  pr_.print_volume_longformat(v);
  EXPECT_EQ(out(),
            " Volume:   vol1 rid=0.5 update=0.10\n"
            " info:     len=2048 guid=00000000-0000-0000-0000-000000000000\n"
            " type:     parttype=7 usetype=gen fstype=ntfs Site-Confined Site-Separated\n"
            " state:    state=ACTIVE\n"
            " policies: read= (plex=vol1-02)\n"
            " flags:  3000000  \n\n");
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

// Plex forms beyond the striped one of the whole-report tests: concatenated
// (no columns or width), unknown and RAID layouts, a log subdisk named
// rather than by rid; and a log subdisk.
TEST_F(RecordPrinterTest, PlexLayoutsLogNameAndFlags) {
  plexrec c{};
  std::strcpy(c.pl_name, "vol2-01");
  c.pl_layout = PL_LAYOUT_CONCAT;
  c.pl_ncolumn = 4;
  c.pl_st_width = 64;
  c.pl_pflag = PL_PF_NT_PENDING | PL_PF_IOFAIL | PL_PF_RECOVER | PL_PF_KDETACH;
  std::strcpy(c.pl_log_sd, "logsd1");
  c.pl_log_sd_rid = {9, 0};
  c.pl_snap_rid = {3, 2};
  c.pl_dcoplex_rid = {8, 0};
  pr_.print_plex_longformat(c);
  EXPECT_EQ(out(),
            " Plex:     vol2-01 rid=0.0 update=0.0\n"
            " type:     layout=CONCAT\n"
            " state:    state=\n"
            " assoc:    vol=0.0\n"
            " flags:    recover iofail pending\n"
            " logging:  logsd=logsd1\n"
            " snap:     master_volume_rid=2.3\n"
            " dco:      dcoplex_rid=0.8\n\n");
  c.pl_layout = 9;
  pr_.print_plex_longformat(c);
  EXPECT_NE(out().find(" type:     layout=0x9 #bad\n"), std::string::npos);
  c.pl_layout = PL_LAYOUT_RAID;
  c.pl_ncolumn = 0;
  pr_.print_plex_longformat(c);
  EXPECT_NE(out().find(" type:     layout=RAID width=64\n"), std::string::npos);
  // A log subdisk has no column or offset.
  sdrec sd{};
  sd.sd_plex_rid = {6, 0};
  sd.sd_column = 1;
  sd.sd_tflag = SD_TF_LOG;
  pr_.print_subdisk_longformat(sd);
  EXPECT_NE(out().find(" assoc:    plex=0.6 (log)\n"), std::string::npos);
}

}  // namespace
}  // namespace pd
