// privinspect compare: a group's disks built from descriptions that share
// the group and differ where each case wants.
#include <string>
#include <vector>

#include "inspect_support.h"

namespace pd::test {
namespace {

// One disk of group dg1 (disks 1-3): header seqno, config tid, the volume's
// length, and whether the database holds disk03's dm record.
std::string group_disk(int n, const char* seqno = "0.17", const char* tid = "0.250",
                       const char* vol_len = "409600", bool with_disk03 = true) {
  const std::string id = "a000000" + std::to_string(n) + "-1234-0002-4041-424344454647";
  std::string records =
      "  group name=dg1 rid=0.1000 nconfig=2 nlog=1 version=171\n"
      "  disk name=disk01 rid=0.1001 diskid=a0000001-1234-0002-4041-424344454647\n"
      "  disk name=disk02 rid=0.1002 diskid=a0000002-1234-0002-4041-424344454647\n";
  if (with_disk03) {
    records += "  disk name=disk03 rid=0.1003 diskid=a0000003-1234-0002-4041-424344454647\n";
  }
  records += std::string("  volume name=vol1 rid=0.1010 len=") + vol_len +
             " pl_num=1 state=ACTIVE\n"
             "  plex name=vol1-01 rid=0.1011 vol_rid=0.1010 sd_num=1 layout=2 state=ACTIVE\n"
             "  subdisk name=disk01-01 rid=0.1012 plex_rid=0.1011 dm_rid=0.1001 len=409600\n";
  std::string desc = "disk sector-size=512 sectors=1024\nheader diskid=" + id +
                     " dgname=dg1 dgid=8f1e3b4c-0d2a-4e5f-9a6b-7c8d9e0f1a2b seqno=" + seqno +
                     "\nregion config copy=1 offset=17 len=300\n"
                     "region config copy=2 offset=317 len=300\n"
                     "region log copy=1 offset=617 len=50 content=log begin\n"
                     "  block tid=0.249 seqno=1\n  entry type=commit tid=0.249\nend\n";
  for (int copy : {1, 2}) {
    desc += "copy-content config copy=" + std::to_string(copy) +
            " content=config begin\n  database dgname=dg1 "
            "dgid=8f1e3b4c-0d2a-4e5f-9a6b-7c8d9e0f1a2b config-tid=" +
            tid + "\n" + records + "end\n";
  }
  return desc;
}

struct compare_case {
  const char* name;
  std::vector<std::string> images;
  int status;
  std::vector<std::string> lines;  // each found in standard output
};

TEST(InspectCompare, StatusesAndVerdicts) {
  const std::string d1 = build_to_file(group_disk(1), "cmp1.img");
  const std::string d2 = build_to_file(group_disk(2), "cmp2.img");
  // Stale, from before disk03 joined the group.
  const std::string stale = build_to_file(group_disk(2, "0.16", "0.240", "409600", false),
                                          "cmp2-stale.img");
  const std::string changed = build_to_file(group_disk(3, "0.17", "0.250", "614400"), "cmp3.img");
  const std::string blank = temp_dir() + "/cmp-blank.img";
  write_file(blank, std::vector<std::uint8_t>(1024 * 512, 0));
  const std::vector<compare_case> cases = {
      {"group set",
       {d1, stale, changed},
       1,
       {"    [2] disk02: config tid 0.240 older than 0.250; header seqno 0.16 older than 0.17\n",
        "    0.1003 disk disk03: on [1] disk01, [3] disk03, missing on [2] disk02\n",
        "    0.1010 volume vol1\n"
        "        len: [1] disk01 409600, [2] disk02 409600, [3] disk03 614400\n",
        "        [1]  [2]  [3]\n    [1] yes  yes  yes\n    [2] yes  yes  NO\n",
        "verdict: differences: 3 different databases; 1 stale disk ([2] disk02); 2 records "
        "differ; 1 database lacks a disk given\n"}},
      {"identical",
       {d1, d2},
       0,
       {"same database:\n    tid 0.250: [1] disk01 copies 1, 2; [2] disk02 copies 1, 2\n"
        "membership",
        "verdict: agree\n"}},
      {"same disk id",
       {d1, d1},
       1,
       {"    disk id a0000001-1234-0002-4041-424344454647 is on 2 images: [1] " + d1 + ", [2] " +
        d1 + "; the same disk given twice, or a copied disk: the membership matrix cannot tell "
             "them apart\n"}},
      {"unreadable", {d1, temp_dir() + "/cmp-none.img"}, 3, {"verdict: unreadable: 1 problem\n"}},
      {"no header", {blank}, 2, {"    nothing to compare: no usable header\n"}},
  };
  for (const compare_case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> args{"compare"};
    args.insert(args.end(), c.images.begin(), c.images.end());
    const process_result r = inspect(args);
    EXPECT_EQ(r.status, c.status) << r.out << r.err;
    for (const std::string& line : c.lines) EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n--\n" << r.out;
  }
}

}  // namespace
}  // namespace pd::test
