// The sample disk of the README: built by the privbuild command with the
// configuration generator and printed by privdiag.
#include <gtest/gtest.h>

#include <string>

#include "test_support.h"

namespace pd::test {
namespace {

#ifdef PD_PRIVBUILD_BIN
TEST(ReportSampleTest, SampleDiskPrintsItsWholeDiskGroup) {
  const std::string img = temp_dir() + "/sample.img";
  const process_result b =
      run_process({PD_PRIVBUILD_BIN, std::string(PD_SOURCE_DIR) + "/examples/sample.desc", img});
  ASSERT_EQ(b.status, 0) << b.err;
  const process_result r = run_process({PD_PRIVDIAG_BIN, img});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  const std::string from = "#Config copy 01\n\n";
  const std::string to = "\n========== Configuration Details ========\n\n";
  const std::size_t a = r.out.find(from);
  const std::size_t z = r.out.find(to);
  ASSERT_NE(a, std::string::npos);
  ASSERT_NE(z, std::string::npos);
  EXPECT_EQ(r.out.substr(a, z - a),
            from +
                "========== Configuration Overview ========\n\n"
                "sampledg\n"
                "|---datavol   (4194304/2048MB)\n"
                "|   |---datavol-01\n"
                "|   |   |---disk01-01   (2097152/1024MB)\n"
                "|   |   |\n"
                "|   |   |---disk02-01   (2097152/1024MB)\n"
                "|   |\n"
                "|   |---datavol-02\n"
                "|       |---disk03-01   (2097152/1024MB)\n"
                "|       |\n"
                "|       |---disk04-01   (2097152/1024MB)\n"
                "|\n"
                "|---logvol   (204800/100MB)\n"
                "|   |---logvol-01\n"
                "|       |---disk03-02   (204800/100MB)\n"
                "|\n"
                "|---raidvol   (819200/400MB)\n"
                "|   |---raidvol-01\n"
                "|       |---disk01-03   (409600/200MB)\n"
                "|       |\n"
                "|       |---disk02-03   (409600/200MB)\n"
                "|       |\n"
                "|       |---disk03-03   (409600/200MB)\n"
                "|\n"
                "|---stripevol   (1048576/512MB)\n"
                "    |---stripevol-01\n"
                "        |---disk01-02   (524288/256MB)\n"
                "        |\n"
                "        |---disk02-02   (524288/256MB)\n"
                "\nOther records:\n"
                "    disk01\n    disk02\n    disk03\n    disk04\n");
  // Counts agree with the header and no record is newer than it.
  EXPECT_EQ(r.out.find("!!"), std::string::npos);
  EXPECT_NE(r.out.find("#config: tid=0.250 nvol=4 nplex=5 nsd=10 ndm=4 nda=0\n"),
            std::string::npos);
}
#endif

}  // namespace
}  // namespace pd::test
