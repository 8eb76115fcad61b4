// privinspect config, records, hexdump --record and check on builder images
// that carry configuration copies, good and damaged.
#include <string>

#include "inspect_support.h"

namespace pd::test {
namespace {

// Copy 1: a consistent group; copy 2 (disabled): another volume.
const char* const two_copies_desc = R"(
disk sector-size=512 sectors=2048
header diskid=disk01 seqno=0.17
region config copy=1 offset=17 len=400
region config copy=2 offset=417 len=400 flags=disabled
copy-content config copy=1 content=config begin
  database version=4.17 dgname=dg1 dgid=1234.5.host config-tid=0.200
  group name=dg1 rid=0.1000 version=171
  volume name=vol1 rid=0.1001 len=2048 pl_num=1 state=ACTIVE
  plex name=vol1-01 rid=0.1002 vol_rid=0.1001 sd_num=1
  subdisk name=sd1 rid=0.1003 plex_rid=0.1002 dm_rid=0.1004 len=2048
  disk name=disk01 rid=0.1004 diskid=a0000002-1234-0002-4041-424344454647
end
copy-content config copy=2 content=config begin
  database version=4.17 dgname=dg1 dgid=1234.5.host config-tid=0.190
  group name=dg1 rid=0.1000 version=171
  volume name=vol2 rid=0.1005 len=4096 pl_num=2 state=ACTIVE
end
)";

// Built once for the tests of this file.
const std::string& two_copies() {
  static const std::string path = build_to_file(two_copies_desc, "twocopies.img");
  return path;
}

TEST(InspectConfig, TheFirstCopyPrintsWhatPrivdiagPrintsAfterTheTableOfContents) {
  process_result diag = run_process({PD_PRIVDIAG_BIN, two_copies()});
  process_result r = inspect({"config", two_copies(), "--copy", "1"});
  EXPECT_EQ(r.status, 0);
  ASSERT_EQ(diag.status, 0);
  ASSERT_EQ(r.out.rfind("#Config copy 01\n\n========== Configuration Overview ========\n", 0), 0u) << r.out;
  ASSERT_GT(diag.out.size(), r.out.size());
  EXPECT_EQ(diag.out.substr(diag.out.size() - r.out.size()), r.out);
  EXPECT_EQ(r.err, diag.err);
}

TEST(InspectConfig, ADisabledCopyByNumber) {
  process_result r = inspect({"config", two_copies(), "--copy", "2"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.rfind("#Config copy 02\n#NOTE: Copy is disabled\n\n"
                        "========== Configuration Overview ========\n\n"
                        "dg1\n"
                        "|---vol2 !!2 missing child(ren)!!\n",
                        0),
            0u)
      << r.out;
  EXPECT_NE(r.out.find("#config: tid=0.190 "), std::string::npos);
}

TEST(InspectConfig, WholeResults) {
  const std::string& image = two_copies();
  expect_runs({
      {{"config", image, "--copy", "3"}, 1, "", error_line("Disk does not have config copy 3\n")},
      // The disabled copy 2 is checked too: its own findings, and that it
      // is stale (a note).
      {{"check", image},
       1,
       "config copy 2: vol2 !!2 missing child(ren)!!\n"
       "config copy 2 (disabled) differs from copy 1: config tid 0.190 and 0.200\n"
       "check: status 1: inconsistencies found\n",
       ""},
      {{"check", "-q", image}, 1, "", ""},
      {{"records", image, "--name", "nosuch"}, 1, "#0 of 5 record(s) of config copy 1 match\n", ""},
  });
  EXPECT_EQ(inspect({"config", image}).status, 3);  // --copy is required
  EXPECT_EQ(inspect({"records", image, "--type", "volumes"}).status, 3);
  EXPECT_EQ(inspect({"records", image, "--rid", "12"}).status, 3);
}

TEST(InspectConfig, RecordsMatchEveryFilter) {
  process_result diag = run_process({PD_PRIVDIAG_BIN, two_copies()});
  struct filter_case {
    std::vector<std::string> args;
    const char* frame;  // the first line of the one record expected
  };
  const filter_case cases[] = {
      {{"--type", "volume"}, " Volume:   vol1 rid=0.1001"},
      {{"--type", "sd"}, " Subdisk:  sd1 rid=0.1003"},
      {{"--rid", "0.1002"}, " Plex:     vol1-01 rid=0.1002"},
      {{"--name", "disk01"}, " Disk:     disk01 rid=0.1004"},
      {{"--type", "dg", "--name", "dg1"}, " Group:    dg1 rid=0.1000"},
      {{"--type", "5"}, " Group:    dg1 rid=0.1000"},
  };
  for (const filter_case& c : cases) {
    std::vector<std::string> args = {"records", two_copies()};
    args.insert(args.end(), c.args.begin(), c.args.end());
    process_result r = inspect(args);
    EXPECT_EQ(r.status, 0) << c.args[0];
    const std::string tail = "#1 of 5 record(s) of config copy 1 match\n";
    ASSERT_GT(r.out.size(), tail.size()) << c.args[0];
    EXPECT_EQ(r.out.substr(r.out.size() - tail.size()), tail);
    std::string body = r.out.substr(0, r.out.size() - tail.size());
    EXPECT_NE(body.find(c.frame), std::string::npos) << body;
    // The record prints as the report's details print it.
    EXPECT_NE(diag.out.find(body), std::string::npos) << body;
  }
}

TEST(InspectConfig, RecordsOfAnotherCopy) {
  process_result r = inspect({"records", two_copies(), "--copy", "2", "--type", "volume", "--type", "plex"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find(" Volume:   vol2 rid=0.1005"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("#1 of 2 record(s) of config copy 2 match\n"), std::string::npos);
}

TEST(InspectRecordHexdump, EveryBlockOfARecordInChainOrder) {
  // 64-byte blocks: the volume's body needs two fragments.
  std::string image = build_to_file(R"(
disk sector-size=512 sectors=2048
region config copy=1 offset=17 len=400
copy-content config copy=1 content=config begin
  database version=4.17 dgname=dg1 blksize=64
  group name=dg1 rid=0.1000 version=171
  volume name=vol1 rid=0.1001 len=2048 pl_num=0 state=ACTIVE
end
)",
                                    "smallblocks.img");
  process_result rec = inspect({"records", image, "--name", "vol1"});
  ASSERT_EQ(rec.status, 0) << rec.err;
  std::size_t at = rec.out.find("#Blocks: ");
  ASSERT_NE(at, std::string::npos);
  std::string chain = rec.out.substr(at + 9, rec.out.find('\n', at) - at - 9);
  ASSERT_NE(chain.find(' '), std::string::npos) << "one fragment only: " << chain;

  for (const char* ref : {"vol1", "0.1001"}) {
    process_result r = inspect({"hexdump", image, "--record", ref});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("record vol1 rid=0.1001 ref=2 type=0x0061 size=", 0), 0u) << r.out;
    std::string blocks;
    for (std::size_t p = r.out.find("\nstore block "); p != std::string::npos;
         p = r.out.find("\nstore block ", p + 1)) {
      std::size_t n = std::stoul(r.out.substr(p + 13));
      blocks += (blocks.empty() ? "" : " ") + std::to_string(n);
      std::string head = "store block " + std::to_string(n) + " (64 bytes at copy byte " +
                         std::to_string(n * 64) + "):\n   0000  56 42 4c 4b 00 00 00 ";
      EXPECT_NE(r.out.find(head), std::string::npos) << head;
    }
    EXPECT_EQ(blocks, chain);
  }
  process_result r = inspect({"hexdump", image, "--record", "vol9"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "privinspect: no record of config copy 1 is named or numbered vol9\n");
}

TEST(InspectCheckFindings, OneLinePerFinding) {
  std::string image = build_to_file(R"(
disk sector-size=512 sectors=2048
region config copy=1 offset=17 len=400
copy-content config copy=1 content=config begin
  database version=4.17 dgname=dg1 config-tid=0.200 vs_v_cnt=2
  group name=dg1 rid=0.1000 version=171
  volume name=vol1 rid=0.1001 len=2048 pl_num=2 state=ACTIVE
  plex name=vol1-01 rid=0.1002 vol_rid=0.1001 sd_num=1
  subdisk name=sd1 rid=0.1003 plex_rid=0.1002 dm_rid=0.1004 len=2048
  disk name=disk01 rid=0.1004 diskid=a0000002-1234-0002-4041-424344454647
  block at=20 magic=XBLK
end
)",
                                    "findings.img");
  expect_runs({
      {{"check", image}, 1,
       error_line("Error (File block 20): Invalid magic number\n") +
           "vol1 !!1 missing child(ren)!!\n"
           "!!Database has 1 fewer volume record(s) than header does.!!\n"
           "check: status 1: inconsistencies found\n",
       ""},
      {{"check", image, "--quiet"}, 1, "", ""},
  });
}

}  // namespace
}  // namespace pd::test
