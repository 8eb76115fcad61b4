// privinspect headers on builder images: both copies good, a bad checksum,
// a bad magic, a newer alternate, copies that disagree, and an image too
// short for the header positions.
#include <cstdio>
#include <string>

#include "codec/integers.h"
#include "inspect_support.h"

namespace pd::test {
namespace {

// The stored checksum of the header sector at `sector` of an image.
std::string stored_sum(const std::string& path, long sector) {
  std::vector<std::uint8_t> img = read_file(path);
  char b[16];
  std::snprintf(b, sizeof b, "0x%08x", get_be32(img.data() + sector * 512 + 8));
  return b;
}

// What the checksum of that sector should be: bytes 0-7 and 12-511, modulo
// 4294967295.
std::string computed_sum(const std::string& path, long sector) {
  std::vector<std::uint8_t> img = read_file(path);
  const std::uint8_t* p = img.data() + sector * 512;
  std::uint64_t sum = 0;
  for (int i = 0; i < 512; i++) sum += (i >= 8 && i < 12) ? 0 : p[i];
  char b[16];
  std::snprintf(b, sizeof b, "0x%08x", static_cast<unsigned>(sum % 4294967295u));
  return b;
}

const std::string base_desc =
    "disk sector-size=512 sectors=2048\n"
    "header diskid=disk01 seqno=0.17\n"
    "region config copy=1 offset=17 len=800\n";

std::string copy_lines(const char* name, long sector, const std::string& sum) {
  return std::string(name) + " header: sector " + std::to_string(sector) + ", byte offset " +
         std::to_string(sector * 512) + "\n" +
         "    magic:    \"PRIVHEAD\"\n"
         "    checksum: " +
         sum +
         " correct\n"
         "    decode:   ok\n";
}

TEST(InspectHeaders, BothCopiesGood) {
  std::string image = build_to_file(base_desc, "good.img");
  process_result r = inspect({"headers", image});
  EXPECT_EQ(r.status, 0);
  std::string ident = "    version 3.1, update seqno 0.17, diskid \"disk01\"\n";
  EXPECT_EQ(r.out, copy_lines("primary", 2047, computed_sum(image, 2047)) + ident +
                       copy_lines("alternate", 1856, computed_sum(image, 1856)) + ident +
                       "differences: none\n"
                       "scan: primary chosen: its update seqno 0.17 is not older than the "
                       "alternate's 0.17\n");
  EXPECT_EQ(r.err, "");
}

// A newer alternate with other fields is chosen; copies that disagree on
// the layout keep the primary; a bad primary magic stops the scan.
TEST(InspectHeaders, DifferencesAndTheScansChoice) {
  struct {
    std::string copies;
    int status;
    std::vector<std::string> parts;
  } cases[] = {
      {"hdrcopy primary\nhdrcopy alternate seqno=1.2 time=99 diskid=disk02\n", 0,
       {"differences:\n"
        "    phi_update_time        primary 0, alternate 99\n"
        "    phi_update_seqno       primary 0.17, alternate 1.2\n"
        "    phi_diskid             primary \"disk01\", alternate \"disk02\"\n"
        "scan: alternate chosen: its update seqno 1.2 is newer than the primary's 0.17\n"}},
      {"hdrcopy primary\nhdrcopy alternate seqno=0.18 pub-offset=4096\n", 0,
       {"    phi_pub_offset         primary 0, alternate 4096\n",
        "scan: primary chosen: the copies disagree on phi_pub_offset, and the primary is kept\n"}},
      {"hdrcopy primary damage=magic\nhdrcopy alternate\n", 1,
       {"primary header: sector 2047, byte offset 1048064\n"
        "    magic:    \"pRIVHEAD\" (expected \"PRIVHEAD\")\n",
        "    decode:   error 165: Format error in disk private region (bad magic)\n"
        "    with magic and checksum set aside: decodes\n",
        "differences: none\nscan: no header chosen: error 165: Format error in disk private region\n"}},
  };
  int n = 0;
  for (const auto& c : cases) {
    process_result r = inspect({"headers", build_to_file(base_desc + c.copies, "hdr" + std::to_string(n++))});
    EXPECT_EQ(r.status, c.status) << c.copies;
    for (const std::string& part : c.parts) EXPECT_NE(r.out.find(part), std::string::npos) << part << r.out;
  }
}

TEST(InspectHeaders, ABadChecksumIsShownAndTheFieldsStillCompared) {
  std::string image = build_to_file(base_desc +
                                        "hdrcopy primary\n"
                                        "hdrcopy alternate damage=checksum seqno=0.16\n",
                                    "badsum.img");
  process_result r = inspect({"headers", image});
  EXPECT_EQ(r.status, 0);
  std::string alt =
      "alternate header: sector 1856, byte offset 950272\n"
      "    magic:    \"PRIVHEAD\"\n"
      "    checksum: " +
      stored_sum(image, 1856) + " expected " + computed_sum(image, 1856) +
      "\n"
      "    decode:   error 165: Format error in disk private region (bad checksum)\n"
      "    with magic and checksum set aside: decodes\n"
      "    version 3.1, update seqno 0.16, diskid \"disk01\"\n"
      "differences:\n"
      "    phi_update_seqno       primary 0.17, alternate 0.16\n"
      "scan: primary chosen: the alternate does not decode\n";
  ASSERT_GE(r.out.size(), alt.size());
  EXPECT_EQ(r.out.substr(r.out.size() - alt.size()), alt);
}

TEST(InspectHeaders, AnImageTooShortForTheHeaderPositions) {
  std::string image = temp_dir() + "/short.img";
  write_file(image, std::vector<std::uint8_t>(100 * 512, 0));
  process_result r = inspect({"headers", image});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out,
            "primary header: sector 99, byte offset 50688\n"
            "    magic:    \"........\" (expected \"PRIVHEAD\")\n"
            "    checksum: 0x00000000 correct\n"
            "    decode:   error 165: Format error in disk private region (bad magic)\n"
            "    with magic and checksum set aside: error 169: Disk private region version not "
            "supported (field phi_version at byte 0xc: unknown major)\n"
            "alternate header: sector -92\n"
            "    not read: 0 of 512 bytes lie inside the image (51200 bytes)\n"
            "differences: not compared, the primary copy has no decoded fields\n"
            "scan: not run: the image is too short to hold both header positions\n");
}

// A copy that fails a field's own check names the field and its byte
// offset on its decode line.
TEST(InspectHeaders, DecodeNamesTheFailingField) {
  const struct {
    std::string attrs;
    std::string line;
  } cases[] = {
      {"hostid=host1",
       "error 165: Format error in disk private region (field phi_hostid at byte 0x70: not a "
       "GUID (and the header is not shared))"},
      {"dgid=a/b", "error 165: Format error in disk private region (field phi_dgid at byte 0xb0: "
                   "not a name)"},
      {"first-toc=5000",
       "error 168: Disk private region contents are invalid (field phi_first_toc at byte 0x13b: "
       "outside the region)"},
      {"version=1.2 diskid=.x",
       "error 165: Format error in disk private region (field phi_diskid at byte 0x2c: not a "
       "name)"},
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.attrs);
    const std::string image = build_to_file(
        base_desc + "hdrcopy primary\nhdrcopy alternate " + c.attrs + "\n",
        "field" + std::to_string(n++) + ".img");
    process_result r = inspect({"headers", image});
    EXPECT_NE(r.out.find("    decode:   " + c.line + "\n"), std::string::npos) << r.out;
  }
}

// --header: auto reads through the alternate copy when the scan fails, and
// names it once on standard error; primary and alternate force a copy.
TEST(InspectHeaders, ReadingThroughACopy) {
  const std::string image = build_to_file(
      base_desc +
          "copy-content config copy=1 content=config begin\n  database dgname=dg1\n"
          "  group name=dg1 rid=0.1000\nend\nhdrcopy primary damage=checksum\nhdrcopy alternate\n",
      "through.img");
  const std::string note = "privinspect: " + image +
                           ": the scan found no usable header (Format error in disk private "
                           "region); reading through the alternate copy at sector 1856\n";
  const std::string failed = error_line("scan operation failed:\n\tFormat error in disk private region\n");
  const struct {
    const char* choice;
    int status;
    std::string err;
  } cases[] = {{"auto", 0, note}, {"primary", 1, failed}, {"alternate", 0, ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.choice);
    process_result r = inspect({"--header", c.choice, "config", image, "--copy", "1"});
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.out.rfind("#Config copy 01\n", 0) == 0, c.status == 0) << r.out;
  }
  // headers still shows the scan's own choice.
  EXPECT_NE(inspect({"--header", "alternate", "headers", image}).out.find("scan: no header chosen"),
            std::string::npos);
  EXPECT_EQ(inspect({"--header", "other", "headers", image}).status, 3);
}

}  // namespace
}  // namespace pd::test
