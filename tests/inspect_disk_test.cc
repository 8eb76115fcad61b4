// Whole-disk images: privinspect locate over each table kind and each probe,
// damaged tables, and the other subcommands reading the region found in a
// disk exactly as they read the region image itself.
#include <cstring>
#include <string>
#include <vector>

#include "inspect_support.h"

namespace pd::test {
namespace {

std::string sample_description() { return read_text(PD_SOURCE_DIR "/examples/sample.desc"); }

// The sample region in a disk of 8192 sectors described by `disk_lines`.
std::string disk(const std::string& disk_lines, const std::string& name) {
  return build_to_file(sample_description() + disk_lines, name);
}

struct locate_case {
  const char* name;
  std::string lines;   // whole-disk and partition statements
  int status;
  std::vector<std::string> out;  // lines the output holds
};

TEST(InspectDisk, LocateEachTableAndProbe) {
  const std::string data = "partition start=40 len=1000\n";
  const std::vector<locate_case> cases = {
      {"gpt-part", "whole-disk table=gpt sectors=8192 region=partition\n" + data, 0,
       {"GPT primary header at sector 1: header and entries CRC good",
        "GPT backup header at sector 8191: header and entries CRC good",
        "1          1048576        1048576    512  GPT partition 2: primary header in its last sector"}},
      {"gpt-end", "whole-disk table=gpt sectors=8192\n" + data, 0,
       {"3128832        1048576    512  outside the partitions (sectors 1040..8158): primary "
        "header in its last sector"}},
      {"mbr-part", "whole-disk table=mbr sectors=8192 region=partition\n" + data, 0,
       {"partition 1: sectors 40..1039 (1000), type 0x83",
        "1048576        1048576    512  MBR partition 2: primary header in its last sector"}},
      {"mbr-end", "whole-disk table=mbr sectors=8192\n" + data, 0,
       {"3145728        1048576    512  outside the partitions (sectors 1040..8191)"}},
      {"none-end", "whole-disk sectors=8192\n", 0,
       {"partition table none", "3145728        1048576    512  whole disk: primary header"}},
      // Not at the end of anything: only the magic scan finds it.
      {"none-middle", "whole-disk sectors=8192 region=partition region-start=3000\n", 0,
       {"1536000        1048576    512  magic scan: alternate header at sector 4856"}},
      {"gpt-bad-primary",
       "whole-disk table=gpt sectors=8192 region=partition damage=primary-crc\n" + data, 0,
       {"!! GPT primary header at sector 1: header CRC 0xfe01534a stored, 0xfe0153b5 computed; "
        "the backup is used",
        "GPT partition 2: primary header in its last sector"}},
      {"gpt-bad-backup", "whole-disk table=gpt sectors=8192 damage=backup-crc\n" + data, 0,
       {"!! GPT backup header at sector 8191: header CRC"}},
      {"gpt-absurd-count", "whole-disk table=gpt sectors=8192 gpt-entries=100000000\n", 0,
       {"!! GPT primary header at sector 1: 100000000 entries of 128 bytes at sector 2 do not fit",
        "!! no usable GPT: the disk is searched as if it had no table",
        "1          3128832        1048576    512  magic scan: alternate header at sector 7967"}},
      {"mbr-past-end", "whole-disk table=mbr sectors=8192\npartition start=8000 len=1000\n", 0,
       {"!! MBR entry 1: sectors 8000..8999 do not lie inside the image's 8192 sectors; skipped"}},
      // A header that claims more sectors than its partition holds.
      {"claims-more", "header priv-len=5000\nwhole-disk table=gpt sectors=8192 region=partition\n",
       0, {"its header (primary header in its last sector) gives a region of 5000 sectors, not within the 2048"}},
      {"mbr-overlap",
       "whole-disk table=mbr sectors=8192 region=partition\npartition start=40 len=2100\n", 0,
       {"!! MBR partitions 1 and 2 overlap (sectors 2048..2139)", "MBR partition 2: primary"}},
  };
  for (const locate_case& c : cases) {
    SCOPED_TRACE(c.name);
    const process_result r = inspect({"locate", disk(c.lines, std::string(c.name) + ".img")});
    EXPECT_EQ(r.status, c.status);
    for (const std::string& line : c.out) EXPECT_NE(r.out.find(line), std::string::npos) << r.out;
  }
}

// The header search from an area's start: a region of 400 sectors, whose
// alternate (sector 208) lies where the search looks, at the start of a
// disk without a table.
TEST(InspectDisk, LocateByTheHeaderSearch) {
  const std::string path = build_to_file(
      "disk sector-size=512 sectors=400\nwhole-disk sectors=4096 region=partition region-start=0\n",
      "search.img");
  const process_result r = inspect({"locate", path});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("0         204800    512  whole disk: header search from its start "
                       "(alternate at sector 208)"),
            std::string::npos)
      << r.out;
}

// Every view reads the region found in a disk as the region image; a disk
// with two regions asks for a choice, and --region / --offset make it.
TEST(InspectDisk, ViewsReadTheChosenRegion) {
  const std::string region = build_to_file(sample_description(), "region.img");
  const std::string gpt = disk("whole-disk table=gpt sectors=8192 region=partition\n", "gpt.img");
  // A second copy of the region in a second partition.
  const std::string two_path = temp_dir() + "/two.img";
  {
    std::string error;
    std::vector<std::uint8_t> two = build_image(
        sample_description() +
            "whole-disk table=mbr sectors=8192 region=partition\npartition start=4096 len=2048\n",
        &error);
    const std::vector<std::uint8_t> reg = read_file(region);
    ASSERT_EQ(two.size(), 8192u * 512);
    std::memcpy(two.data() + 4096 * 512, reg.data(), reg.size());
    write_file(two_path, two);
  }
  const process_result want = inspect({"records", region});
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"records", gpt}, {"--region", "2", "records", two_path},
        {"--offset", "2048", "records", two_path}}) {
    SCOPED_TRACE(args[0] + " " + args.back());
    const process_result r = inspect(args);
    EXPECT_EQ(r.status, want.status);
    EXPECT_EQ(r.out, want.out);
  }
  const process_result many = inspect({"check", two_path});
  EXPECT_EQ(many.status, 3);
  EXPECT_NE(many.err.find("a whole disk holding 2 candidate regions; choose one with --region N"),
            std::string::npos)
      << many.err;
  EXPECT_EQ(inspect({"--region", "3", "check", two_path}).status, 3);
  // A region image is read as before, without a word about disks.
  const process_result plain = inspect({"check", region});
  EXPECT_EQ(plain.err, "");
}

TEST(InspectDisk, BuilderRefusesBadDisks) {
  for (const char* lines : {"whole-disk table=lvm sectors=8192\n", "whole-disk sectors=2000\n",
                            "partition start=1 len=2\n",
                            "whole-disk table=mbr sectors=8192 region=partition region-start=7000\n"}) {
    std::string error;
    EXPECT_TRUE(build_image(sample_description() + lines, &error).empty()) << lines;
    EXPECT_FALSE(error.empty());
  }
}

}  // namespace
}  // namespace pd::test
