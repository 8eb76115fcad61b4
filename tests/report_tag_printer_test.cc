#include "report/tag_printer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "config_db/records.h"

namespace pd {
namespace {

// One field of each printing kind, looked up by name: strings (leading NULs
// skipped), flag bits, enumerations (in and out of their table), signed and
// unsigned numbers, device numbers, octal modes, tids and rids (high half
// first, the zero rid empty), GUIDs, and the fields printed only under a
// condition (preferred plex, stripe width).
TEST(FieldPrinterTest, OneFieldOfEachKind) {
  volrec v{};
  std::strcpy(v.v_tutil[1] + 2, "xy");
  v.v_tflag = VOL_TF_R_ALL;
  v.v_kstate = 3;
  v.v_lasterr = -5;
  v.v_node_bdev = ~std::uint64_t{0};
  v.v_node_cdev = 5;
  v.v_mode = 0755;
  v.v_log_type = 0x21;
  v.v_len = -7;
  v.v_update_tid = {34, 12};
  v.v_log_rid = {9, 1};
  v.v_nt_vol_guid = {0x12345678, 0xabcd, 0x0102, {1, 2, 3, 4, 5, 6, 7, 8}};
  std::strcpy(v.v_pref_name, "vol1-02");
  v.v_read_pol = 1;
  plexrec p{};
  p.pl_st_width = 128;
  p.pl_layout = 2;
  p.pl_iomode = 7;  // only the low two bits count
  p.pl_kstate = 4;
  p.pl_guid = {1, 2, 3, {0, 0, 0, 0, 0, 0, 0, 0x10}};
  dgrec g{};
  g.dg_nconfig = -1;
  g.dg_base_minor = 3000000000u;  // "%ld" of an unsigned member
  const struct {
    const char* field;
    const char* want;
    int flag;
  } vol_cases[] = {
      {"tutil1", "xy", 1},        {"tutil2", "", 1},           {"r_all", "on", 1},
      {"w_all", "off", 1},        {"kstate", "ENABLED", 1},    {"lasterr", "-5", 1},
      {"dev", "VOLNODEV", 1},     {"cdev", "5/5", 1},          {"mode", "0755", 1},
      {"logtype", "REGION", 1},   {"len", "-7", 1},            {"update_tid", "12.34", 1},
      {"pref_plex_rid", "", 1},   {"logrid", "1.9", 1},        {"prefname", "", 1},
      {"nt_vol_guid", "12345678-abcd-0102-0102-030405060708", 1},
      {"readpol", "", 1},         {"Len", "", 0},              {"no_such_field", "", 0},
  };
  tag_printer tp;
  for (const auto& c : vol_cases) {
    tp.flag = 0;
    EXPECT_STREQ(tp.vol_sprint_field(&v, c.field), c.want) << c.field;
    EXPECT_EQ(tp.flag, c.flag) << c.field;
  }
  v.v_current_read_pol = 2;
  EXPECT_STREQ(tp.vol_sprint_field(&v, "prefname"), "vol1-02");
  EXPECT_STREQ(tp.plex_sprint_field(&p, "st_width"), "");
  p.pl_layout = 3;
  EXPECT_STREQ(tp.plex_sprint_field(&p, "stwidth"), "128");
  EXPECT_STREQ(tp.plex_sprint_field(&p, "iomode"), "RW");
  EXPECT_STREQ(tp.plex_sprint_field(&p, "kstate"), "0x4 #bad");
  EXPECT_STREQ(tp.plex_sprint_field(&p, "plex_guid"), "{00000001-0002-0003-0000-000000000010}");
  EXPECT_STREQ(tp.dg_sprint_field(&g, "nconfig"), "all");
  EXPECT_STREQ(tp.dg_sprint_field(&g, "base_minor"), "3000000000");
  EXPECT_STREQ(tp.getetag(layouts(), -1), "0xffffffff #bad");
}

}  // namespace
}  // namespace pd
