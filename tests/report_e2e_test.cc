// The configuration report end to end: builder images run through the real
// privdiag, whole standard output, standard error and exit status compared
// with texts written from the report's formats.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "report_e2e_support.h"

namespace pd::test {
namespace {

const std::string kZeroGuid = "00000000-0000-0000-0000-000000000000";

std::string fmt(const char* f, auto... args) {
  char buf[512];
  std::snprintf(buf, sizeof buf, f, args...);
  return buf;
}

// Long formats of the records the make_* helpers build.
std::string vol_long(const char* name, unsigned rid, unsigned tid, long len) {
  return fmt(" Volume:   %s rid=0.%u update=0.%u\n", name, rid, tid) +
         fmt(" info:     len=%ld guid=%s\n", len, kZeroGuid.c_str()) +
         " type:     parttype=7 usetype=gen\n"
         " state:    state=ACTIVE\n"
         " policies: read=\n"
         " flags:  0  \n\n";
}
std::string plex_long(const char* name, unsigned rid, unsigned tid, unsigned vol) {
  return fmt(" Plex:     %s rid=0.%u update=0.%u\n", name, rid, tid) +
         " type:     layout=CONCAT\n"
         " state:    state=ACTIVE\n" +
         fmt(" assoc:    vol=0.%u\n", vol) +
         " flags:   \n"
         " dco:      dcoplex_rid=0.0\n\n";
}
std::string sd_long(const char* name, unsigned rid, unsigned tid, unsigned dm, long off, long len,
                    unsigned plex) {
  return fmt(" Subdisk:  %s rid=0.%u updated=0.%u\n", name, rid, tid) +
         fmt(" info:     disk=0.%u offset=%ld len=%ld hidden=0\n", dm, off, len) +
         fmt(" assoc:    plex=0.%u (column=0 offset=0)\n", plex) + " flags:   \n\n";
}
std::string dm_long(const char* name, unsigned rid, unsigned tid, const char* diskid) {
  return fmt(" Disk:     %s rid=0.%u updated=0.%u\n", name, rid, tid) +
         fmt(" assoc:    diskid=%s\n", diskid) + " flags:   \n\n";
}
std::string dg_long(const char* name, unsigned rid, unsigned tid) {
  return fmt(" Group:    %s rid=0.%u version=0 update=0.%u\n", name, rid, tid) +
         " id:       dgid=" + kGroupId + "\n diskset:  id=" + kZeroGuid +
         "\n copies:   nconfig=default nlog=default\n"
         " minors:   >= 0\n\n";
}

std::string overview_head() {
  return "#Config copy 01\n\n========== Configuration Overview ========\n\n";
}

std::string details_head(const config_copy& c, unsigned tid, unsigned nvol, unsigned nplex,
                         unsigned nsd, unsigned ndm, unsigned flags = 0x100,
                         const char* state = "CLEAN", const char* stamp = "0") {
  return "\n========== Configuration Details ========\n\n" +
         fmt("#Header nblocks=%lu blksize=%lu hdrsize=%lu\n", c.claimed_nblocks,
             c.claimed_blksize, c.claimed_hdrsize) +
         fmt("#flags=0x%04x (%s)\n", flags, state) + "#version: 4/17\n" + "#timestamp: " +
         fmt("%64s\n", stamp) + "#dgname: e2edg  dgid: " + kGroupId + "\n" +
         fmt("#config: tid=0.%u nvol=%u nplex=%u nsd=%u ndm=%u nda=0\n", tid, nvol, nplex, nsd,
             ndm) +
         fmt("#pending: tid=0.%u nvol=%u nplex=%u nsd=%u ndm=%u nda=0\n", tid, nvol, nplex, nsd,
             ndm) +
         "#\n";
}

const char* const kDisk1 = "11111111-0000-0000-0000-000000000001";
const char* const kDisk2 = "11111111-0000-0000-0000-000000000002";

// The header and TOC lines of the standard disk with other regions.
std::string prefix(const std::string& configs, const std::string& logs,
                   const std::string& regions, const std::string& tocs = "1/2046") {
  return standard_header_lines() + "configs: " + configs + "\nlogs:    " + logs +
         "\ntocblks: 0\ntocs:    " + tocs + "\nDefined regions:\n" + regions + "\n\n";
}

// Missing and extra children at every level, a plex without subdisks, and
// records whose parent is absent.
TEST(ReportE2eTest, TreeMarksAndOrphans) {
  config_copy c(64);
  set_header(c.header(), 90, 2, 4, 5, 1);
  const dgrec dg = make_dg("dg1", 1, 10);
  const dmrec dm = make_dm("disk1", 2, kDisk1, 11);
  const volrec va = make_vol("va", 10, 4096, 2, 12);
  const plexrec pa = make_plex("va-01", 11, 10, 2, 13);
  const sdrec sa1 = make_sd("sa1", 12, 11, 2, 0, 2048, 14);
  const sdrec sa2 = make_sd("sa2", 13, 11, 2, 2048, 2048, 15);
  const volrec vb = make_vol("vb", 20, 1024, 1, 16);
  const plexrec pb1 = make_plex("vb-01", 21, 20, 0, 17);
  const plexrec pb2 = make_plex("vb-02", 22, 20, 1, 18);
  const sdrec sb1 = make_sd("sb1", 23, 22, 2, 4096, 1024, 19);
  const sdrec sb2 = make_sd("sb2", 24, 22, 2, 5120, 1024, 20);
  const plexrec px = make_plex("px-01", 30, 99, 1, 21);
  const sdrec sx = make_sd("sx", 31, 98, 2, 6144, 512, 22);
  // Stored in an order unlike the names' so the lists must sort.
  const placed_record psb2 = c.add(24, T_SD, &sb2);
  const placed_record pvb = c.add(20, T_VOL, &vb);
  const placed_record psx = c.add(31, T_SD, &sx);
  const placed_record pdg = c.add(1, T_DG, &dg);
  const placed_record ppb2 = c.add(22, T_PLEX, &pb2);
  const placed_record ppa = c.add(11, T_PLEX, &pa);
  const placed_record psa2 = c.add(13, T_SD, &sa2);
  const placed_record pva = c.add(10, T_VOL, &va);
  const placed_record psa1 = c.add(12, T_SD, &sa1);
  const placed_record ppb1 = c.add(21, T_PLEX, &pb1);
  const placed_record psb1 = c.add(23, T_SD, &sb1);
  const placed_record ppx = c.add(30, T_PLEX, &px);
  const placed_record pdm = c.add(2, T_DM, &dm);
  const process_result r = run_privdiag_on(standard_disk() + copy_content(1, c.data()));
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);
  const std::string expected =
      standard_prefix() + overview_head() +
      "dg1\n"
      "|---va !!1 missing child(ren)!!\n"
      "|   |---va-01\n"
      "|       |---sa1   (2048/1MB)\n"
      "|       |\n"
      "|       |---sa2   (2048/1MB)\n"
      "|\n"
      "|---vb !!1 extra child(ren)!!\n"
      "    |---vb-01 !!1 missing child(ren)!!\n"
      "    |\n"
      "    |---vb-02 !!1 extra child(ren)!!\n"
      "        |---sb1   (1024/0MB)\n"
      "        |\n"
      "        |---sb2   (1024/0MB)\n"
      "\nOther records:\n"
      "    disk1\n"
      "    px-01\n"
      "    sx\n" +
      details_head(c, 90, 2, 4, 5, 1) + c.block_map() + "#\n" +
      c.frame(pdg) + dg_long("dg1", 1, 10) +
      c.frame(pva) + vol_long("va", 10, 12, 4096) +
      c.frame(ppa) + plex_long("va-01", 11, 13, 10) +
      c.frame(psa1) + sd_long("sa1", 12, 14, 2, 0, 2048, 11) +
      c.frame(psa2) + sd_long("sa2", 13, 15, 2, 2048, 2048, 11) +
      c.frame(pvb) + vol_long("vb", 20, 16, 1024) +
      c.frame(ppb1) + plex_long("vb-01", 21, 17, 20) +
      c.frame(ppb2) + plex_long("vb-02", 22, 18, 20) +
      c.frame(psb1) + sd_long("sb1", 23, 19, 2, 4096, 1024, 22) +
      c.frame(psb2) + sd_long("sb2", 24, 20, 2, 5120, 1024, 22) +
      c.frame(pdm) + dm_long("disk1", 2, 11, kDisk1) +
      c.frame(ppx) + plex_long("px-01", 30, 21, 99) +
      c.frame(psx) + sd_long("sx", 31, 22, 2, 6144, 512, 98);
  EXPECT_EQ(r.out, expected);
}

// Duplicate disk ids, a second disk-group record, counts that disagree with
// the header, a record that never completed and a tid above the header's.
TEST(ReportE2eTest, ConsistencyFindings) {
  config_copy c(64);
  set_header(c.header(), 30, 3, 1, 2, 2);
  const dgrec dgb = make_dg("dgb", 1, 10);
  const dgrec dga = make_dg("dga", 2, 11);
  const dmrec d1 = make_dm("d1", 3, kDisk1, 12);
  const dmrec d2 = make_dm("d2", 4, kDisk1, 13);
  const dmrec d3 = make_dm("d3", 5, kDisk1, 14);
  const dmrec d4 = make_dm("d4", 6, kDisk2, 15);
  const volrec v1 = make_vol("v1", 7, 1024, 0, 50);
  const placed_record pdgb = c.add(1, T_DG, &dgb);
  const placed_record pdga = c.add(2, T_DG, &dga);
  const placed_record pd3 = c.add(5, T_DM, &d3);
  const placed_record pd1 = c.add(3, T_DM, &d1);
  const placed_record pd4 = c.add(6, T_DM, &d4);
  const placed_record pd2 = c.add(4, T_DM, &d2);
  const placed_record pv1 = c.add(7, T_VOL, &v1);
  // A two-block record whose second block never came.
  const placed_record broken = c.add_body(8, T_VOL, pattern(150));
  c.image().set_block(broken.first + 1, broken.first + 1, 0, 0, 0);
  const process_result r = run_privdiag_on(standard_disk() + copy_content(1, c.data()));
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);
  const std::string dup = std::string(" have duplicate id: ") + kDisk1 + " !!\n\n";
  placed_record half = broken;
  half.nblocks = 1;
  c.placed.pop_back();
  c.placed.push_back(half);
  std::string expected =
      standard_prefix() + "#Config copy 01\n\n" + "\n!!! ERROR: EXTRA DG RECORD !!!\n\n" +
      fmt("!! Corrupted ref=8, 1st block=%d !!\n\n", static_cast<int>(broken.first)) +
      "========== Configuration Overview ========\n\n"
      "dga\n"
      "|---v1   (1024/0MB)\n"
      "\nOther records:\n"
      "    d1\n    d2\n    d3\n    d4\n"
      "!! Disks d1 and d2" + dup + "!! Disks d1 and d3" + dup + "!! Disks d2 and d3" + dup +
      "    \n" + details_head(c, 30, 3, 1, 2, 2) +
      "!!Database has 2 fewer volume record(s) than header does.!!\n"
      "!!Database has 1 fewer plex record(s) than header does.!!\n"
      "!!Database has 2 fewer subdisk record(s) than header does.!!\n"
      "!!Database has 2 more dm record(s) than header does.!!\n" +
      c.block_map() + "#\n" + c.frame(pdga) + dg_long("dga", 2, 11) + c.frame(pv1) +
      vol_long("v1", 7, 50, 1024) + c.frame(pd1) + dm_long("d1", 3, 12, kDisk1) + c.frame(pd2) +
      dm_long("d2", 4, 13, kDisk1) + c.frame(pd3) + dm_long("d3", 5, 14, kDisk1) + c.frame(pd4) +
      dm_long("d4", 6, 15, kDisk2) + c.frame(half, 0) +
      "\n!!Database has a higher tid 0.50 than header does.!!\n";
  (void)pdgb;
  EXPECT_EQ(r.out, expected);
}

// Without a disk-group record the tree has no root line; a database caught
// in the CHANGE state is loaded as aborted, so a record of the pending side
// is refused.
TEST(ReportE2eTest, NoDiskGroupAndRefusedRecord) {
  config_copy c(64);
  set_header(c.header(), 40, 1, 1, 1, 0);
  c.header().vdbi_commit_state = VDBI_CHANGE;
  const volrec v = make_vol("v1", 3, 512, 1, 12);
  const plexrec p = make_plex("v1-01", 4, 3, 1, 13);
  const sdrec sd = make_sd("s1", 5, 4, 2, 0, 512, 14);
  const volrec pending = make_vol("v2", 6, 512, 0, 15);
  const placed_record pv = c.add(3, T_VOL, &v);
  const placed_record pp = c.add(4, T_PLEX, &p);
  const placed_record ps = c.add(5, T_SD, &sd);
  const placed_record pr = c.add(6, T_VOL, &pending, 0x2);
  const process_result r = run_privdiag_on(standard_disk() + copy_content(1, c.data()));
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);
  const std::string expected =
      standard_prefix() + "#Config copy 01\n\n" +
      fmt("!! Corrupted ref=6, 1st block=%d !!\n\n", static_cast<int>(pr.first)) +
      "========== Configuration Overview ========\n\n"
      "!! No disk group record in configuration !!\n\n"
      "|---v1   (512/0MB)\n"
      "    |---v1-01\n"
      "        |---s1   (512/0MB)\n"
      "\nOther records:\n"
      "    \n" +
      details_head(c, 40, 1, 1, 1, 0, 0x400, "CHANGE") + c.block_map() + "#\n" + c.frame(pv) +
      vol_long("v1", 3, 12, 512) + c.frame(pp) + plex_long("v1-01", 4, 13, 3) + c.frame(ps) +
      sd_long("s1", 5, 14, 2, 0, 512, 4) + c.frame(pr, 0x24);
  EXPECT_EQ(r.out, expected);
}

// Every record kind in its long format; optional groups, a type extension,
// wide strings and the timestamp's low 32 bits.
TEST(ReportE2eTest, EveryRecordKind) {
  config_copy c(64);
  set_header(c.header(), 50, 1, 1, 1, 2);
  c.header().vdbi_nt_update_time = 0x100000005ull;
  dgrec dg = make_dg("dg1", 1, 10);
  dg.dg_nt_diskset_id = {0xdeadbeef, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
  dg.dg_nconfig = -1;
  dg.dg_nlog = 2;
  dg.dg_base_minor = 4000;
  dg.dg_version = 171;
  std::strcpy(dg.dg_comment, "the group");
  dmrec dm1 = make_dm("disk1", 2, kDisk1, 11);
  wchar_t hd1[] = L"Harddisk1";
  dm1.dm_nt_persistent_name = hd1;
  dm1.dm_nt_last_diskset_id = {0xfeed, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
  dm1.dm_pflag = DM_PF_DETACHED | DM_PF_SPARE;
  std::strcpy(dm1.dm_comment, "spare disk");
  dmrec dm2 = make_dm("disk2", 6, kDisk2, 15);
  dm2.dm_pflag = DM_PF_REMOVED | DM_PF_FAILING;
  volrec v = make_vol("vol1", 3, 8192, 1, 12);
  wchar_t mount[] = L"F:";
  v.v_nt_mount_name = mount;
  v.v_nt_vol_guid = {0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 7, 8}};
  std::strcpy(v.v_use_type, "fsgen");
  std::strcpy(v.v_fstype, "ntfs");
  v.v_pflag = VOL_PF_SITE_CONFINED | VOL_PF_CRASHED | VOL_PF_WRITEBACK | VOL_PF_NT_BOOT_VOLUME;
  v.v_read_pol = VOL_RP_PREFER;
  v.v_pref_plex_rid = {4, 0};
  std::strcpy(v.v_comment, "main volume");
  v.v_recover_checkpoint = 100;
  plexrec pl = make_plex("vol1-01", 4, 3, 1, 13);
  pl.pl_guid = {0xa, 0xb, 0xc, {0, 0, 0, 0, 0, 0, 0, 0xd}};
  pl.pl_layout = PL_LAYOUT_STRIPE;
  pl.pl_ncolumn = 2;
  pl.pl_st_width = 128;
  pl.pl_pflag = PL_PF_RECOVER | PL_PF_NT_PENDING;
  std::strcpy(pl.pl_comment, "striped");
  pl.pl_log_sd_rid = {7, 0};
  pl.pl_snap_rid = {3, 1};
  pl.pl_dcoplex_rid = {9, 0};
  sdrec sd = make_sd("sd1", 5, 4, 2, 64, 8192, 14);
  sd.sd_nt_hidden_sectors = 63;
  sd.sd_column = 1;
  sd.sd_pflag = SD_PF_VOLATILE | SD_PF_RELOCATE;
  std::strcpy(sd.sd_comment, "first");
  rvolrec rv{};
  std::strcpy(rv.rv_name, "rvg1");
  rv.rv_rid = {20, 0};
  rv.rv_update_tid = {21, 0};
  reprec rp{};
  std::strcpy(rp.rp_name, "rlk1");
  rp.rp_rid = {22, 0};
  rp.rp_update_tid = {23, 0};
  dcorec dco{};
  std::strcpy(dco.dco_name, "vol1_dco");
  std::strcpy(dco.dco_log_name, "vol1_dcl");
  dco.dco_rid = {24, 0};
  dco.dco_update_tid = {25, 0};
  dco.dco_log_vol = {26, 0};
  dco.dco_parent_vol = {3, 0};
  snaprec sp{};
  std::strcpy(sp.sp_name, "snap1");
  sp.sp_rid = {27, 0};
  sp.sp_update_tid = {28, 0};
  sp.sp_dco_rid = {24, 0};
  sp.sp_guid = {1, 0, 0, {}};
  sp.sp_vol_guid = {2, 0, 0, {}};
  sp.sp_plex_guid = {3, 0, 0, {}};
  darec da{};
  std::strcpy(da.da_name, "c0t1d0");
  da.da_rid = {29, 0};
  cacherec cache{};
  std::strcpy(cache.cache_name, "cache1");
  cache.cache_rid = {30, 0};
  stpoolrec pool{};
  std::strcpy(pool.stp_name, "pool1");
  pool.stp_rid = {31, 0};

  const placed_record pdg = c.add(1, T_DG | 0x7800, &dg);
  const placed_record pdm1 = c.add(2, T_DM | 0x1000, &dm1);
  const placed_record pv = c.add(3, 0x61 | 0x800 | 0x200 | 0x8000, &v);
  const placed_record ppl =
      c.add(4, 0x42 | 0x100 | 0x1000 | 0x2000 | 0x4000 | 0x8000 | 0x20000, &pl);
  const placed_record psd = c.add(5, T_SD | 0x800 | 0x200, &sd);
  const placed_record pdm2 = c.add(6, T_DM, &dm2);
  const placed_record prv = c.add(20, 0x57, &rv);
  const placed_record prp = c.add(22, 0x58, &rp);
  const placed_record pdco = c.add(24, 0x69, &dco);
  const placed_record psp = c.add(27, 0x6A | 0x4000, &sp);
  const placed_record pda = c.add(29, 0x86, &da);
  const placed_record pcache = c.add(30, 0x3D, &cache);
  const placed_record ppool = c.add(31, 0x3B, &pool);
  const process_result r = run_privdiag_on(standard_disk() + copy_content(1, c.data()));
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);
  const std::string expected =
      standard_prefix() + overview_head() +
      "dg1\n"
      "|---vol1   (8192/4MB)\n"
      "    |---vol1-01\n"
      "        |---sd1   (8192/4MB)\n"
      "\nOther records:\n"
      "    disk1\n    disk2\n"
      "    c0t1d0\n    cache1\n    pool1\n    rlk1\n    rvg1\n    snap1\n    vol1_dco\n" +
      details_head(c, 50, 1, 1, 1, 2, 0x100, "CLEAN", "5") + c.block_map() + "#\n" +
      c.frame(pdg) +
      " Group:    dg1 rid=0.1 version=171 update=0.10\n"
      " id:       dgid=" + kGroupId + "\n"
      " diskset:  id=deadbeef-0001-0002-0304-05060708090a\n"
      " copies:   nconfig=all nlog=2\n"
      " minors:   >= 4000\n"
      " comment:  the group\n\n" +
      c.frame(pv) +
      " Volume:   vol1 rid=0.3 update=0.12 mountname=F:\n"
      " info:     len=8192 guid=12345678-9abc-def0-0102-030405060708\n"
      " type:     parttype=7 usetype=fsgen fstype=ntfs Site-Confined\n"
      " state:    state=ACTIVE\n"
      " policies: read= (plex=0.4)\n"
      " flags:  2200005   crashed writeback boot-volume\n"
      " comment:  main volume\n\n" +
      c.frame(ppl) +
      " Plex:     vol1-01 rid=0.4 update=0.13\n"
      " info      guid=0000000a-000b-000c-0000-00000000000d\n"
      " type:     layout=STRIPE columns=2 width=128\n"
      " state:    state=ACTIVE\n"
      " assoc:    vol=0.3\n"
      " flags:    recover pending\n"
      " comment:  striped\n"
      " logging:  logsd=0.7\n"
      " snap:     master_volume_rid=1.3\n"
      " dco:      dcoplex_rid=0.9\n\n" +
      c.frame(psd) +
      " Subdisk:  sd1 rid=0.5 updated=0.14\n"
      " info:     disk=0.2 offset=64 len=8192 hidden=63\n"
      " assoc:    plex=0.4 (column=1 offset=0)\n"
      " flags:    volatile relocate\n"
      " comment:  first\n\n" +
      c.frame(pdm1) +
      " Disk:     disk1 rid=0.2 updated=0.11\n"
      " assoc:    diskid=" + kDisk1 + " detached lastdevice=Harddisk1\n"
      " lastset:  id=0000feed-0001-0002-0304-05060708090a\n"
      " flags:    spare\n"
      " comment:  spare disk\n\n" +
      c.frame(pdm2) +
      " Disk:     disk2 rid=0.6 updated=0.15\n"
      " assoc:    removed\n"
      " flags:    failing\n\n" +
      c.frame(pda) + c.frame(pcache) + c.frame(ppool) + c.frame(prp) +
      " REPLICA:  rlk1 rid=0.22 update=0.23\n\n" + c.frame(prv) +
      " RVOL:     rvg1 rid=0.20 update=0.21\n\n" + c.frame(psp) +
      " SNAP:     snap1 rid=0.27 update=0.28\n"
      " assoc:    dco_rid=0.24\n"
      " spguid: 00000001-0000-0000-0000-000000000000\n"
      " volguid: 00000002-0000-0000-0000-000000000000\n"
      " snapvolguid: " + kZeroGuid + "\n"
      " plexguid: 00000003-0000-0000-0000-000000000000\n\n" +
      c.frame(pdco) +
      " DCO:     vol1_dcl rid=0.24 update=0.25\n"
      " assoc:    log_rid=0.26,  parent_rid=0.3 \n\n";
  EXPECT_EQ(r.out, expected);
}

// An extraction error prints the report at once with what was loaded and
// ends its run; an error in a later run prints only its own line.
TEST(ReportE2eTest, ExtractionErrorsInTheMiddleOfTheCopy) {
  config_copy c(1200);  // 300 blocks of 512 bytes: three runs
  set_header(c.header(), 30, 1, 0, 0, 1);
  const dgrec dg = make_dg("dg1", 1, 10);
  const volrec v = make_vol("v1", 3, 1024, 0, 12);
  const dmrec dm = make_dm("disk1", 2, kDisk1, 11);
  const placed_record pdg = c.add(1, T_DG, &dg);  // block 4
  const placed_record pv = c.add(3, T_VOL, &v);   // block 5
  c.skip(1);                                      // block 6: bad magic
  c.add(2, T_DM, &dm);                            // block 7: never read
  c.image().block(6)[0] = 'X';
  c.image().block(20)[0] = 'X';    // file block 5: the first run stops at block 1
  c.image().block(1000)[3] = 'X';  // file block 250, in the second run
  c.placed.pop_back();
  const process_result r = run_privdiag_on(standard_disk() + copy_content(1, c.data()));
  EXPECT_EQ(r.err,
            "qztool:priv: ERROR: Error (File block 1): Invalid magic number\n"
            "qztool:priv: ERROR: Error (File block 250): Invalid magic number\n");
  EXPECT_EQ(r.status, 0);
  const std::string expected =
      standard_prefix() + overview_head() +
      "dg1\n"
      "|---v1   (1024/0MB)\n"
      "\nOther records:\n" +
      details_head(c, 30, 1, 0, 0, 1) +
      "!!Database has 1 fewer dm record(s) than header does.!!\n" + c.block_map() +
      "#Block    6: flag=0x0008\n"
      "#\n" +
      c.frame(pdg) + dg_long("dg1", 1, 10) + c.frame(pv) + vol_long("v1", 3, 12, 1024);
  EXPECT_EQ(r.out, expected);
}

// A copy holding disk group `dg` (ref 1) and volume `vol` (ref 3), with
// `gap` unused blocks between them.
void add_group_and_volume(config_copy& c, const char* dg, const char* vol, voff_t len,
                          std::size_t gap = 0) {
  set_header(c.header(), 30, 1, 0, 0, 0);
  const dgrec g = make_dg(dg, 1, 10);
  const volrec v = make_vol(vol, 3, len, 0, 12);
  c.add(1, T_DG, &g);
  c.skip(gap);
  c.add(3, T_VOL, &v);
}

// The report of such a copy from its overview on; `size` is the volume's
// "(sectors/MB)".
std::string group_and_volume_report(const config_copy& c, const char* dg, const char* vol,
                                    voff_t len, const char* size) {
  return fmt("%s\n|---%s   %s\n\nOther records:\n", dg, vol, size) +
         details_head(c, 30, 1, 0, 0, 0) + c.block_map() + "#\n" + c.frame(c.placed[0]) +
         dg_long(dg, 1, 10) + c.frame(c.placed[1]) + vol_long(vol, 3, 12, len);
}

// A database longer than its copy: the report follows the premature end.
TEST(ReportE2eTest, PrematureEnd) {
  config_copy c(64);  // the whole copy: 16 sectors
  c.claimed_nblocks = 100;
  add_group_and_volume(c, "dg1", "v1", 2048);
  const std::string regions = "region config copy=1 offset=17 len=16\n";
  const process_result r = run_privdiag_on(standard_disk(regions) + copy_content(1, c.data()));
  EXPECT_EQ(r.err, "qztool:priv: ERROR: Premature EOF; 12800 bytes expected\n");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            prefix("count=1 len=16", "count=0 len=0",
                   " config   priv     17-    32[    16]: copy=01 offset=000000 enabled\n") +
                overview_head() + group_and_volume_report(c, "dg1", "v1", 2048, "(2048/1MB)"));
}

// The first copy is disabled: the report is that of copy 2.
TEST(ReportE2eTest, DisabledCopyIsSkipped) {
  config_copy c1(64), c2(64);
  set_header(c1.header(), 30, 0, 0, 0, 0);
  add_group_and_volume(c2, "dg2", "only-in-2", 2048);
  const std::string regions =
      "region config copy=1 offset=17 len=800 flags=disabled\n"
      "region config copy=2 offset=817 len=800\n"
      "region log copy=1 offset=1617 len=200\n";
  const process_result r = run_privdiag_on(standard_disk(regions) + copy_content(1, c1.data()) +
                                           copy_content(2, c2.data()));
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            prefix("count=2 len=800", "count=1 len=200",
                   " config   priv     17-   816[   800]: copy=01 offset=000000 disabled\n"
                   " config   priv    817-  1616[   800]: copy=02 offset=000000 enabled\n"
                   " log      priv   1617-  1816[   200]: copy=01 offset=000000 enabled\n") +
                "#Config copy 02\n\n========== Configuration Overview ========\n\n" +
                group_and_volume_report(c2, "dg2", "only-in-2", 2048, "(2048/1MB)"));
}

// 4096-byte sectors: the copy is read in whole 4096-byte chunks.
TEST(ReportE2eTest, SectorsOf4096Bytes) {
  config_copy c(320, 512, 512);  // 160 KiB: 40 sectors
  add_group_and_volume(c, "dg1", "v1", 16384, 200);
  const std::string desc =
      "disk sector-size=4096 sectors=256\n"
      "header version=3.1 diskid=4444.1.e2e hostid=\"\"\n"
      "header dgname=e2edg dgid=" + std::string(kGroupId) + "\n"
      "header seqno=0.5 time=1700000001 pub-id=3 priv-id=4 pub-offset=256 pub-len=5000\n"
      "region config copy=1 offset=3 len=40\n" +
      copy_content(1, c.data());
  const process_result r = run_privdiag_on(desc, "4096");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);
  const std::string expected =
      std::string("diskid:  4444.1.e2e\n"
                  "group:   name=e2edg id=") + kGroupId + "\n"
      "flags:   private autoimport\n"
      "import:  bootsig=0 hostid=\n"
      "diskset: id=" + kZeroGuid + "\n"
      "version: 3.1\n"
      "iosize:  4096\n"
      "public:  slice=3 offset=256 len=5000\n"
      "private: slice=4 offset=0 len=256\n"
      "update:  seqno=0.5 time=1700000001\n"
      "headers: 255 232\n"
      "configs: count=1 len=40\n"
      "logs:    count=0 len=0\n"
      "tocblks: 0\n"
      "tocs:    1/254\n"
      "Defined regions:\n"
      " config   priv      3-    42[    40]: copy=01 offset=000000 enabled\n"
      "\n\n" +
      overview_head() + group_and_volume_report(c, "dg1", "v1", 16384, "(16384/8MB)");
  EXPECT_EQ(r.out, expected);
}

// Fatal faults of the database header: status 1, the message on standard
// error, nothing of the report.
struct header_fault {
  const char* name;
  void (*damage)(config_copy& c, bytes& data);
  const char* err;
};

TEST(ReportE2eTest, DatabaseHeaderFaults) {
  const header_fault faults[] = {
      {"no magic", [](config_copy&, bytes& d) { d[0] = 0; },
       "qztool:priv: ERROR: Fatal error in header: Invalid magic number\n"},
      {"major version 5", [](config_copy&, bytes& d) { d[19] = 5; },
       "qztool:priv: ERROR: Fatal error in header: Configuration format version not supported\n"},
      // A header of size 0: the header block is read as a data block.
      {"header size 0", [](config_copy&, bytes& d) { put_be32(d.data() + 12, 0); },
       "qztool:priv: ERROR: Error (File block 0): Invalid magic number\n"
       "qztool:priv: ERROR: Header not found\n"},
  };
  for (const header_fault& f : faults) {
    config_copy c(64);
    set_header(c.header(), 30, 0, 0, 0, 0);
    bytes data = c.data();
    f.damage(c, data);
    const process_result r = run_privdiag_on(standard_disk() + copy_content(1, data));
    EXPECT_EQ(r.status, 1) << f.name;
    EXPECT_EQ(r.err, f.err) << f.name;
    EXPECT_EQ(r.out, standard_prefix() + "#Config copy 01\n\n") << f.name;
  }
}

}  // namespace
}  // namespace pd::test
