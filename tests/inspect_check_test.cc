// privinspect check: the statuses of images that stop the report, of an
// image that cannot be opened, and that no subcommand changes the image.
#include <sys/stat.h>

#include <string>
#include <tuple>

#include "inspect_support.h"

namespace pd::test {
namespace {

const char* const no_config_desc =
    "disk sector-size=512 sectors=2048\n"
    "region config copy=1 offset=17 len=800\n";

// Status 2: no header, table of contents or enabled copy, an empty copy,
// an image too short for the headers; status 3: usage and open failures.
TEST(InspectCheck, UnusableImagesAndUsage) {
  const std::string stopped = "\ncheck: status 2: no usable header, table of contents or configuration copy\n";
  const std::string disk = "disk sector-size=512 sectors=2048\n";
  const std::string empty = build_to_file(no_config_desc, "empty.img");
  const std::string absent = temp_dir() + "/absent.img";
  std::vector<inspect_case> cases = {
      {{"check", empty}, 2, error_line("Fatal error in header: Invalid magic number") + stopped, ""},
      {{"check", "--quiet", empty}, 2, "", ""},
      {{"check", absent}, 3, "", "privinspect: cannot open " + absent + ": No such file or directory\n"},
  };
  // The message that stopped privdiag's path, then what the rest of the
  // region shows.
  const std::string fmt = "Format error in disk private region";
  const std::tuple<std::string, std::string, std::string> damaged[] = {
      {std::string(no_config_desc) + "hdrcopy primary damage=checksum\n",
       "scan operation failed: " + fmt,
       "primary header: stored checksum 0x000006e6, computed 0x000006e5\n"
       "primary header: does not decode: error 165: " + fmt + " (bad checksum)\n"
       "alternate header: does not decode: error 165: " + fmt + " (bad magic)\n"
       "scan: no header chosen: error 165: " + fmt},
      {std::string(no_config_desc) + "tocblock damage=magic\n", "join operation failed: " + fmt,
       "primary TOC block 0 (sector 1): bad magic\nalternate TOC block 0 (sector 2046): bad magic"},
      {disk + "region config copy=1 offset=17 len=800 flags=disabled\n",
       "Disk has no enabled config copies",
       "config copy 1: " + error_line("Fatal error in header: Invalid magic number")},
      {disk + "region log copy=1 offset=17 len=80\n", "Disk has no config copies",
       "log copy 1: blocks 0-79: never written"},
  };
  int n = 0;
  for (const auto& [desc, stop, rest] : damaged)
    cases.push_back({{"check", build_to_file(desc, "stop" + std::to_string(n++) + ".img")}, 2,
                     error_line(stop) + "\n" + rest + stopped, ""});
  expect_runs(cases);

  const std::string tiny = temp_dir() + "/tiny.img";
  write_file(tiny, std::vector<std::uint8_t>(100 * 512, 0));
  EXPECT_EQ(inspect({"check", tiny}).status, 2);
  EXPECT_EQ(inspect({"check"}).status, 3);
  EXPECT_EQ(inspect({"check", "a.img", "--loud"}).status, 3);
  EXPECT_EQ(inspect({"check", "a.img", "b.img"}).status, 3);
}

// Findings come from the report's model, not from its text: a record whose
// name reads like a finding is none. An empty image cannot be read.
TEST(InspectCheck, NamesAreNotFindingsAndAnEmptyImageIsUnreadable) {
  const std::string named = build_to_file(
      "disk sector-size=512 sectors=2048\n"
      "region config copy=1 offset=17 len=400\n"
      "copy-content config copy=1 content=config begin\n"
      "  database dgname=dg1 config-tid=0.200\n"
      "  group name=\"!!x\" rid=0.1000\n"
      "  volume name=\"v !!1 missing child(ren)!!\" rid=0.1 pl_num=0\n"
      "end\n",
      "named.img");
  const std::string empty = temp_dir() + "/zero.img";
  write_file(empty, {});
  expect_runs({
      {{"check", named}, 0, "check: status 0: consistent\n", ""},
      {{"check", empty},
       3,
       "",
       "privinspect: " + empty + ": 0 bytes, shorter than one 512-byte sector (both header "
       "copies lie within the last 98304 bytes of a private region)\n"},
  });
}

// The damage privdiag's path does not see, each on an otherwise clean
// image: status 1 and the finding that names it; the clean image gives 0.
// With only the primary header damaged, check reads through the alternate.
TEST(InspectCheck, DamageOutsidePrivdiagsPath) {
  const std::string clean =
      "disk sector-size=512 sectors=2048\n"
      "region config copy=1 offset=17 len=400\n"
      "region config copy=2 offset=417 len=400\n"
      "region log copy=1 offset=1617 len=100 content=log begin\n  block tid=0.200 len=1\nend\n"
      "copy-content config copy=1 content=config begin\n  database dgname=dg1 config-tid=0.200\n"
      "  group name=dg1 rid=0.1000\nend\n"
      "copy-content config copy=2 content=config begin\n  database dgname=dg1 config-tid=0.200\n"
      "  group name=dg1 rid=0.1000\n";
  const std::pair<std::string, std::string> cases[] = {
      {"end\n", ""},
      {"  block at=3 magic=ABCD\nend\n",
       "config copy 2: " + error_line("Error (File block 3): Invalid magic number")},
      {"end\ntocblock damage=checksum damage-copy=alternate\n",
       "alternate TOC block 0 (sector 2046): stored checksum"},
      {"end\nhdrcopy primary\nhdrcopy alternate damage=checksum\n",
       "alternate header: does not decode: error 165"},
      {"end\npoke sector=1617 offset=0 hex=00\n", "log copy 1: block 0: bad magic \".LOG\""},
      {"end\nhdrcopy primary damage=magic\nhdrcopy alternate\n",
       "primary header: does not decode: error 165"},
  };
  int n = 0;
  for (const auto& [more, found] : cases) {
    SCOPED_TRACE(more);
    const std::string image = build_to_file(clean + more, "outside" + std::to_string(n++) + ".img");
    const process_result r = inspect({"check", image});
    if (found.empty()) {
      EXPECT_EQ(r.status, 0);
      EXPECT_EQ(r.out, "check: status 0: consistent\n");
      continue;
    }
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find(found), std::string::npos) << r.out;
  }
}

TEST(InspectHelp, EveryCommandAnswersHelp) {
  process_result top = inspect({"--help"});
  EXPECT_EQ(top.status, 0);
  for (const char* sub : {"logs", "config", "headers", "check", "scan", "hexdump", "records"}) {
    EXPECT_NE(top.out.find(std::string("  ") + sub + " "), std::string::npos) << sub;
    process_result r = inspect({sub, "--help"});
    EXPECT_EQ(r.status, 0) << sub;
    EXPECT_NE(r.out.find("IMAGE"), std::string::npos) << sub << ": " << r.out;
  }
}

TEST(InspectReadOnly, NoSubcommandChangesTheImage) {
  std::string image = build_to_file(std::string(no_config_desc) +
                                        "region log copy=1 offset=1617 len=10 content=log begin\n"
                                        "  block\n  entry type=dirty rid=0.1\nend\n",
                                    "ro.img");
  std::vector<std::uint8_t> before = read_file(image);
  struct stat st_before {};
  ASSERT_EQ(stat(image.c_str(), &st_before), 0);
  const std::vector<std::vector<std::string>> runs = {
      {"logs", image},
      {"logs", image, "--copy", "1"},
      {"config", image, "--copy", "1"},
      {"headers", image},
      {"check", image},
      {"scan", image},
      {"hexdump", image, "--sector", "0"},
      {"hexdump", image, "--block", "1:0"},
      {"hexdump", image, "--record", "vol1"},
      {"records", image},
  };
  for (const auto& args : runs) {
    process_result r = inspect(args);
    EXPECT_NE(r.status, -1) << args[0];  // never killed by a signal
  }
  struct stat st_after {};
  ASSERT_EQ(stat(image.c_str(), &st_after), 0);
  EXPECT_EQ(read_file(image), before);
  EXPECT_EQ(st_after.st_mtim.tv_sec, st_before.st_mtim.tv_sec);
  EXPECT_EQ(st_after.st_mtim.tv_nsec, st_before.st_mtim.tv_nsec);
}

}  // namespace
}  // namespace pd::test
