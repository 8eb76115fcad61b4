// privinspect check: the statuses of images that stop the report, of an
// image that cannot be opened, and that no subcommand changes the image.
#include <sys/stat.h>

#include <string>

#include "inspect_support.h"

namespace pd::test {
namespace {

const char* const no_config_desc =
    "disk sector-size=512 sectors=2048\n"
    "region config copy=1 offset=17 len=800\n";

TEST(InspectCheck, AnEmptyConfigurationCopyIsUnusable) {
  std::string image = build_to_file(no_config_desc, "empty.img");
  process_result r = inspect({"check", image});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, error_line("Fatal error in header: Invalid magic number\n") +
                       "check: status 2: no usable header, table of contents or configuration "
                       "copy\n");
  EXPECT_EQ(r.err, "");
  r = inspect({"check", "--quiet", image});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
}

TEST(InspectCheck, NoHeaderNoTableOfContentsNoEnabledCopy) {
  struct stopped_case {
    std::string desc;
    std::string finding;
  };
  const stopped_case cases[] = {
      {std::string(no_config_desc) + "hdrcopy primary damage=checksum\n",
       error_line("scan operation failed: Format error in disk private region")},
      {std::string(no_config_desc) + "tocblock damage=magic\n",
       error_line("join operation failed: Format error in disk private region")},
      {"disk sector-size=512 sectors=2048\n"
       "region config copy=1 offset=17 len=800 flags=disabled\n",
       error_line("Disk has no enabled config copies")},
      {"disk sector-size=512 sectors=2048\nregion log copy=1 offset=17 len=80\n",
       error_line("Disk has no config copies")},
  };
  int n = 0;
  for (const stopped_case& c : cases) {
    std::string image = build_to_file(c.desc, "stop" + std::to_string(n++) + ".img");
    process_result r = inspect({"check", image});
    EXPECT_EQ(r.status, 2) << c.desc;
    EXPECT_EQ(r.out, c.finding +
                         "\ncheck: status 2: no usable header, table of contents or "
                         "configuration copy\n")
        << c.desc;
  }
}

TEST(InspectCheck, AnImageTooShortForTheHeadersIsUnusable) {
  std::string image = temp_dir() + "/tiny.img";
  write_file(image, std::vector<std::uint8_t>(100 * 512, 0));
  process_result r = inspect({"check", image});
  EXPECT_EQ(r.status, 2);
}

TEST(InspectCheck, UsageAndOpenFailuresAreStatusThree) {
  process_result r = inspect({"check", temp_dir() + "/absent.img"});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "Cannot open dump file " + temp_dir() + "/absent.img.\n");
  EXPECT_EQ(inspect({"check"}).status, 3);
  EXPECT_EQ(inspect({"check", "a.img", "--loud"}).status, 3);
  EXPECT_EQ(inspect({"check", "a.img", "b.img"}).status, 3);
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
  EXPECT_NE(inspect({"hexdump", "--help"}).out.find("--record"), std::string::npos);
  EXPECT_NE(inspect({"check", "--help"}).out.find("--quiet"), std::string::npos);
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
