// privinspect scan and hexdump on builder images, good and damaged.
#include <string>

#include "inspect_support.h"

namespace pd::test {
namespace {

// A small disk whose log copy holds a displaced and a renumbered block.
const char* const scan_desc = R"(
disk sector-size=512 sectors=2048
header diskid=disk01 seqno=0.17
region config copy=1 offset=17 len=800
region log copy=1 offset=1617 len=100 content=log begin
  block tid=0.5 seqno=1 len=3
  block tid=0.5 seqno=2 magic=kLOG
  block tid=0.5 seqno=3 blkno=7
end
)";

TEST(InspectScan, ListsAndPlacesEveryCandidate) {
  std::string image = build_to_file(scan_desc, "scan.img");
  process_result r = inspect({"scan", image});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "located: primary header, seqno 0.17; 1 configuration and 1 log copies\n"
            "sector 1 (byte 512): TOCBLOCK checksum correct, seqno 0.17 (the header's), "
            "next 0/0\n"
            "sector 17 (byte 8704): damaged: expected VMDB, found \"\\x00\\x00\\x00\\x00\"; "
            "config copy 1, block 0\n"
            "sector 1617 (byte 827904): KLOG block 0, tid 0.5, seqno 1, len 3; log copy 1, "
            "block 0\n"
            "sector 1618 (byte 828416): kLOG block 1, tid 0.5, seqno 2, len 3; log copy 1, "
            "block 1\n"
            "sector 1619 (byte 828928): KLOG block 7, tid 0.5, seqno 3, len 3; log copy 1, "
            "block 2: block number differs\n"
            "sector 1856 (byte 950272): PRIVHEAD checksum correct, decodes: version 3.1 "
            "seqno 0.17, at its alternate position\n"
            "sector 2046 (byte 1047552): TOCBLOCK checksum correct, seqno 0.17 (the header's), "
            "next 0/0\n"
            "sector 2047 (byte 1048064): PRIVHEAD checksum correct, decodes: version 3.1 "
            "seqno 0.17, at its primary position\n"
            "7 candidate(s), 1 damaged sector(s) in 2048 sector(s)\n");
  EXPECT_EQ(r.err, "");
}

// Damage that stops the join or the scan still lists every structure found;
// 4096-byte sectors are searched at their own boundaries.
TEST(InspectScan, DamagedImagesAndLargeSectors) {
  struct {
    std::string desc;
    std::string sector_size;
    std::vector<std::string> present;
    std::string absent;
  } cases[] = {
      // both TOC copies carry another update's sequence number
      {std::string(scan_desc) + "tocblock seqno=0.16\n", "512",
       {"located: primary header, seqno 0.17; table of contents not joined: "
        "error 168: Disk private region contents are invalid\n",
        "sector 1 (byte 512): TOCBLOCK checksum correct, seqno 0.16 (header has 0.17), next 0/0\n",
        "sector 1619 (byte 828928): KLOG block 7, tid 0.5, seqno 3, len 3\n",
        "7 candidate(s) in 2048 sector(s)\n"},
       ""},
      // the damaged magic hides the alternate from the scan; the primary shows
      {std::string(scan_desc) + "hdrcopy primary damage=checksum\nhdrcopy alternate damage=magic\n", "512",
       {"located: nothing, scan failed: error 165: Format error in disk private region\n",
        "sector 2047 (byte 1048064): PRIVHEAD checksum 0x",
        ", does not decode: error 165: Format error in disk private region\n"},
       "sector 1856"},
      // the second log block lies 512 bytes into sector 10: not a sector start
      {"disk sector-size=4096 sectors=256\nregion log copy=1 offset=10 len=2 content=log begin\n"
       "  block\n  block\nend\n",
       "4096",
       {"sector 10 (byte 40960): KLOG block 0, tid 0.0, seqno 0, len 2; log copy 1, block 0\n",
        " in 256 sector(s)\n"},
       "KLOG block 1"},
  };
  int n = 0;
  for (const auto& c : cases) {
    process_result r =
        inspect({"scan", "--sector-size", c.sector_size, build_to_file(c.desc, "scan" + std::to_string(n++))});
    EXPECT_EQ(r.status, 0) << r.err;
    for (const std::string& part : c.present) EXPECT_NE(r.out.find(part), std::string::npos) << part << r.out;
    EXPECT_TRUE(c.absent.empty() || r.out.find(c.absent) == std::string::npos) << c.absent << r.out;
  }
}

TEST(InspectHexdump, SectorsOfTheImage) {
  std::string image = build_to_file(std::string(scan_desc) +
                                        "poke sector=5 offset=0 hex=41424344\n"
                                        "truncate bytes=1048100\n",
                                    "hex.img");
  process_result r = inspect({"hexdump", image, "--sector", "5"});
  EXPECT_EQ(r.status, 0);
  std::string zero_row = "00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  ................\n";
  std::string expect =
      "sector 5 (512 bytes at byte 2560):\n   0000  41 42 43 44 00 00 00 00  00 00 00 00 00 00 "
      "00 00  ABCD............\n";
  for (int row = 1; row < 32; row++) {
    char off[16];
    std::snprintf(off, sizeof off, "   %04x  ", row * 16);
    expect += off + zero_row;
  }
  EXPECT_EQ(r.out, expect);

  // The image ends 36 bytes into sector 2047.
  r = inspect({"hexdump", image, "--sector", "2046", "--count", "3"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("sector 2047 (512 bytes at byte 1048064):\n   0000  50 52 49 56 48 45 41 44"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("sector 2047: only 36 bytes before the end of the image\n"),
            std::string::npos);
  r = inspect({"hexdump", image, "--sector", "4000"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "sector 4000: beyond the end of the image (2047 sectors)\n");
}

TEST(InspectHexdump, BlocksOfAConfigurationCopy) {
  std::string image =
      build_to_file(std::string(scan_desc) + "poke sector=19 offset=16 hex=ff\n", "hexblk.img");
  process_result r = inspect({"hexdump", image, "--block", "1:2", "--count", "2"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.find("config copy 1 file block 2 (512 bytes at copy byte 1024):\n"
                       "   0000  00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  "),
            0u);
  EXPECT_NE(r.out.find("   0010  ff 00"), std::string::npos);
  EXPECT_NE(r.out.find("config copy 1 file block 3 (512 bytes at copy byte 1536):\n"), std::string::npos);

  r = inspect({"hexdump", image, "--block", "1:799", "--count", "2"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("config copy 1: file block 800 is beyond its end\n"), std::string::npos);
  r = inspect({"hexdump", image, "--block", "2:0"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, error_line("Disk does not have config copy 2\n"));
}

TEST(InspectHexdump, ExactlyOneThingToDump) {
  EXPECT_EQ(inspect({"hexdump", "x.img"}).status, 3);
  EXPECT_EQ(inspect({"hexdump", "x.img", "--sector", "1", "--block", "1:1"}).status, 3);
  EXPECT_EQ(inspect({"hexdump", "x.img", "--block", "1"}).status, 3);
  EXPECT_EQ(inspect({"hexdump", "x.img", "--block", "a:1"}).status, 3);
  EXPECT_EQ(inspect({"hexdump", "x.img", "--sector", "-3"}).status, 3);
  EXPECT_EQ(inspect({"hexdump", "x.img", "--sector", "1", "--count", "0"}).status, 3);
}

}  // namespace
}  // namespace pd::test
