// Every privinspect subcommand over mutated images: whatever the damage, a
// run ends with a status of 0 to 3, never by a signal or a sanitizer's
// report, and leaves the image as it was.
#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "inspect_support.h"

namespace pd::test {
namespace {

const char* const base_desc =
    "disk sector-size=512 sectors=2048\n"
    "header diskid=disk01 seqno=0.17\n"
    "region config copy=1 offset=17 len=400\n"
    "region config copy=2 offset=417 len=400\n"
    "region log copy=1 offset=1617 len=100 content=log begin\n"
    "  block tid=0.200 seqno=7\n  entry type=commit tid=0.200\nend\n"
    "copy-content config copy=1 content=config begin\n"
    "  database dgname=dg1 config-tid=0.200\n"
    "  group name=dg1 rid=0.1000\n"
    "  volume name=vol1 rid=0.1001 len=2048 pl_num=1\n"
    "  plex name=vol1-01 rid=0.1002 vol_rid=0.1001 sd_num=1\n"
    "  subdisk name=sd1 rid=0.1003 plex_rid=0.1002 dm_rid=0.1004 len=2048\n"
    "  disk name=disk01 rid=0.1004 diskid=a0000002-1234-0002-4041-424344454647\n"
    "end\n";

TEST(InspectMutation, EverySubcommandEndsWithAStatusOverDamagedImages) {
  const std::vector<std::uint8_t> good = read_file(build_to_file(base_desc, "mutation-base.img"));
  // Where damage matters: the TOC, the copies' headers and first records,
  // the log copy, both header copies.
  const std::size_t areas[] = {512, 17 * 512, 417 * 512, 1617 * 512, 1856 * 512, 2047 * 512};
  std::mt19937 rng(2024);
  const std::string path = temp_dir() + "/mutated.img";
  for (int trial = 0; trial < 24; ++trial) {
    std::vector<std::uint8_t> img = good;
    const std::size_t at = areas[rng() % std::size(areas)];
    for (int k = 1 + static_cast<int>(rng() % 16); k > 0; --k) {
      img[std::min(img.size() - 1, at + rng() % 1024)] = static_cast<std::uint8_t>(rng());
    }
    if (trial % 6 == 5) img.resize(rng() % img.size());  // cut short
    write_file(path, img);
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"logs", path, "--long"}, {"config", path, "--copy", "2"}, {"headers", path},
             {"check", path}, {"scan", path}, {"hexdump", path, "--block", "1:1"},
             {"records", path}, {"--header", "alternate", "records", path}}) {
      const process_result r = inspect(args);
      EXPECT_GE(r.status, 0) << "trial " << trial << ": " << args[0];
      EXPECT_LE(r.status, 3) << "trial " << trial << ": " << args[0] << "\n" << r.err;
      EXPECT_EQ(r.err.find("Sanitizer"), std::string::npos) << r.err;
    }
    EXPECT_EQ(read_file(path), img);
  }
}

}  // namespace
}  // namespace pd::test
