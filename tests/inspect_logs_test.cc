// privinspect logs on builder images: every entry type, invalid blocks, the
// log-length limit, disabled and missing copies, and a disk that cannot be
// located.
#include <string>

#include "inspect_support.h"

namespace pd::test {
namespace {

// Copy 1: every entry type in block 0 (slot 8 holds an explicit empty
// entry), one more block; copy 2: disabled; copy 3: damaged blocks.
const char* const logs_desc = R"(
disk sector-size=512 sectors=2048
header diskid=disk01 seqno=0.17
region config copy=1 offset=17 len=800
region log copy=1 offset=1617 len=100 content=log begin
  block tid=0.5 seqno=1
  entry type=detach rid=0.12 tid=0.7
  entry type=dirty rid=0.1
  entry type=commit tid=0.8
  entry type=logdetach rid=0.2
  entry type=app_dirty rid=0.12 tid=0.7 recover=4294967295
  entry type=dg_change_log tid=1.0
  entry type=dirty_seqno rid=0.3
  entry type=cache_seqno rid=0.4
  entry slot=8 type=empty words=1,2,3,4,5
  entry type=7
  entry type=31
  entry type=34
  entry type=255
  block tid=0.6 seqno=2
  entry slot=19 type=commit tid=0.6
end
region log copy=2 offset=1717 len=2 flags=disabled content=log begin
  block tid=0.9
  entry type=dirty rid=0.9
end
region log copy=3 offset=1719 len=6 content=log begin
  block len=5
  entry type=dirty rid=0.30
  block magic=KLOg
  entry type=dirty rid=0.31
  block blkno=5
  entry type=dirty rid=0.32
  block magic=kLOG
  entry type=dirty rid=0.33
  block
  entry type=dirty rid=0.34
  block
  entry type=dirty rid=0.35
end
)";

const char* const copy1_text =
    "LOG #01\n"
    "BLOCK 0: KLOG 0  :   DETACH rid=0.12 tid=0.7\n"
    "BLOCK 0: KLOG 1  :   DIRTY rid=0.1\n"
    "BLOCK 0: KLOG 2  :   COMMIT tid=0.8\n"
    "BLOCK 0: KLOG 3  :   LOGDETACH rid=0.2\n"
    "BLOCK 0: KLOG 4  :   APP_DIRTY tid 0.12 rid 0.7 recover_seqno -1\n"
    "BLOCK 0: KLOG 5  :   DG_CHANGE_LOG tid=1.0\n"
    "BLOCK 0: KLOG 6  :   DIRTY_SEQNO rid=0.3\n"
    "BLOCK 0: KLOG 7  :   CACHE_SEQNO rid=0.4\n"
    "BLOCK 0: KLOG 9  : INVALID 7\n"
    "BLOCK 0: KLOG 10 : INVALID 31\n"
    "BLOCK 0: KLOG 11 : INVALID 34\n"
    "BLOCK 0: KLOG 12 : INVALID 255\n"
    "BLOCK 1: KLOG 19 :   COMMIT tid=0.6\n";

// Copy 3 as dumped: blocks 1 (bad magic) and 2 (wrong number) refused, kLOG
// accepted, block 5 past the log length of block 0.
const char* const copy3_text =
    "LOG #03\n"
    "BLOCK 0: KLOG 0  :   DIRTY rid=0.30\n"
    "BLOCK 3: KLOG 0  :   DIRTY rid=0.33\n"
    "BLOCK 4: KLOG 0  :   DIRTY rid=0.34\n";

TEST(InspectLogs, CopiesMissingCopiesAndMissingHeaders) {
  const std::string image = build_to_file(logs_desc, "logs.img");
  const std::string nolog =
      build_to_file("disk sector-size=512 sectors=2048\nregion config copy=1 offset=17 len=800\n", "nolog.img");
  const std::string nohdr = build_to_file(
      "disk sector-size=512 sectors=2048\nregion log copy=1 offset=1617 len=10\n"
      "hdrcopy primary damage=magic\nhdrcopy alternate damage=magic\n",
      "nohdr.img");
  std::string long_text(copy1_text);
  long_text.insert(long_text.find("BLOCK 0"), "#BLOCK 0: tid=0.5 seqno=1 (len=2)\n");
  long_text.insert(long_text.find("BLOCK 1"), "#BLOCK 1: tid=0.6 seqno=2 (len=2)\n");
  expect_runs({
      {{"logs", image}, 0, std::string(copy1_text) + "LOG #02\nDISABLED\n" + copy3_text,
       error_line("Log block 1: Log block invalid\n") + error_line("Log block 2: Log block invalid\n")},
      {{"logs", image, "--copy", "1", "--long"}, 0, long_text, ""},
      // block 0's log length (1) keeps the empty block 1 out of the dump
      {{"logs", "--copy", "2", image}, 0, "LOG #02\n# NOTE: Copy is disabled\nBLOCK 0: KLOG 0  :   DIRTY rid=0.9\n", ""},
      {{"logs", image, "--copy", "4"}, 1, "", error_line("Disk does not have log copy 4\n")},
      {{"logs", nolog}, 1, "", error_line("Disk has no log copies\n")},
      {{"logs", nohdr}, 1, "",
       error_line("scan operation failed:\n\tFormat error in disk private region\n") + "privinspect: " +
           nohdr + ": no header found with 512-byte sectors; none with --sector-size 4096 either\n"},
  });
}

TEST(InspectLogsDisk, FourKilobyteSectors) {
  std::string image = build_to_file(R"(
disk sector-size=4096 sectors=256
region log copy=1 offset=10 len=1 content=log begin
  block tid=0.3
  entry type=commit tid=0.3
end
)",
                                    "log4k.img");
  process_result r = inspect({"--sector-size", "4096", "logs", image});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.substr(0, 45), "LOG #01\nBLOCK 0: KLOG 0  :   COMMIT tid=0.3\n");
}

TEST(InspectLogsDisk, UsageErrorsEndWithStatusThree) {
  EXPECT_EQ(inspect({"logs"}).status, 3);                            // no image
  EXPECT_EQ(inspect({"logs", "x.img", "--copy", "one"}).status, 3);  // not a number
  EXPECT_EQ(inspect({"logs", "x.img", "--copy", "-1"}).status, 3);   // negative
  EXPECT_EQ(inspect({"--sector-size", "1024", "logs", "x.img"}).status, 3);
  expect_runs({{{"logs", temp_dir() + "/absent.img"}, 3, "",
                "privinspect: cannot open " + temp_dir() + "/absent.img: No such file or directory\n"}});
}

}  // namespace
}  // namespace pd::test
