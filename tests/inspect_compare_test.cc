// privinspect compare: the disks of a group, built from descriptions that
// share the group and differ where each case wants.
#include <string>
#include <vector>

#include "inspect_support.h"

namespace pd::test {
namespace {

// A disk of examples/group: dg1's disks 01 (current), 02 (stale, from
// before disk03 joined) and 03 (vol1 longer than on disk01).
std::string group_disk(const char* name) {
  return read_text(std::string(PD_SOURCE_DIR "/examples/group/") + name + ".desc");
}

struct compare_case {
  const char* name;
  std::vector<std::string> images;
  int status;
  std::vector<std::string> lines;  // each found in standard output
};

TEST(InspectCompare, StatusesAndVerdicts) {
  const std::string d1 = build_to_file(group_disk("disk01"), "cmp1.img");
  const std::string stale = build_to_file(group_disk("disk02"), "cmp2.img");
  std::string current3 = group_disk("disk03");
  const std::string changed = build_to_file(current3, "cmp3.img");
  // disk03 with disk01's database.
  current3.replace(current3.find("len=614400"), 10, "len=409600");
  current3.replace(current3.find("len=614400"), 10, "len=409600");
  const std::string same = build_to_file(current3, "cmp3-same.img");
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
       {d1, same},
       0,
       {"same database:\n    tid 0.250: [1] disk01 copies 1, 2; [2] disk03 copies 1, 2\n"
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
    for (const std::string& line : c.lines) {
      EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n--\n" << r.out;
    }
  }
}

}  // namespace
}  // namespace pd::test
