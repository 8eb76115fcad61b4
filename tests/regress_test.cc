// Inputs the fuzz targets found faults with, replayed through the same
// harness (fuzz/fuzz_harness.h): every file under regress/<target>/ must end
// as any input may (status 0 or 1, codec invariants held). Under the
// sanitizer build this is the check that the faults stay fixed. Beside the
// replay, the visible outcome of each fault class is pinned on the real
// command.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <string>
#include <vector>

#include "../fuzz/fuzz_harness.h"
#include "privbuild/builder.h"
#include "test_support.h"

namespace pd::test {
namespace {

std::vector<std::string> regress_files(const std::string& target) {
  std::vector<std::string> files;
  const std::string dir = std::string(PD_TESTDATA_DIR) + "/regress/" + target;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] != '.') files.push_back(dir + "/" + e->d_name);
    }
    closedir(d);
  }
  std::sort(files.begin(), files.end());
  return files;
}

class RegressTest : public ::testing::TestWithParam<const char*> {};

TEST_P(RegressTest, EveryKeptInputEndsCleanly) {
  const std::vector<std::string> files = regress_files(GetParam());
  for (const std::string& f : files) {
    const std::vector<std::uint8_t> data = read_file(f);
    EXPECT_TRUE(fuzz::run_target(GetParam(), data.data(), data.size())) << f;
    // Each kept image also through privinspect's JSON dump.
    if (std::string(GetParam()) != "pipeline" || data.empty()) continue;
    std::vector<std::uint8_t> json = data;
    json[0] |= fuzz::PIPE_JSON;
    EXPECT_TRUE(fuzz::run_target("pipeline", json.data(), json.size())) << f << " (json)";
  }
}

INSTANTIATE_TEST_SUITE_P(Targets, RegressTest, ::testing::Values("pipeline", "codec", "store"));

// The seeds' own encoding: a sparse input expands to the image it was made
// from, and checksums are fixed only when asked.
TEST(RegressHarnessTest, SparseInputsExpandToTheirImage) {
  std::vector<std::uint8_t> image(70000, 0xEE);
  image[0] = 1;
  for (std::size_t i = 30000; i < 30100; ++i) image[i] = static_cast<std::uint8_t>(i);
  image.back() = 7;
  const std::vector<std::uint8_t> in = fuzz::encode_sparse_input(fuzz::PIPE_4096, image, 0xEE);
  EXPECT_LT(in.size(), 200u);
  fuzz::pipeline_input out;
  ASSERT_TRUE(fuzz::decode_pipeline_input(in.data(), in.size(), &out));
  EXPECT_EQ(out.sector_size, 4096);
  EXPECT_FALSE(out.dump_logs);
  EXPECT_EQ(out.image, image);
  EXPECT_FALSE(fuzz::decode_pipeline_input(in.data(), 0, &out));
}

// Header counters are any 32-bit value: the count check wraps as the
// 32-bit counters do instead of overflowing.
TEST(RegressReportTest, CountCheckOfTheMostNegativeCounter) {
  std::string error;
  const std::vector<std::uint8_t> img = build_image(
      "disk sector-size=512 sectors=480\n"
      "region config copy=1 offset=100 len=180 content=config begin\n"
      "  database version=4.17 dgname=dg1 counts=zero vs_v_cnt=0x80000000 vs_pl_cnt=0x80000000\n"
      "  group name=dg1 rid=0.1000 version=171\n"
      "  plex name=p1 rid=0.1002\n"
      "end\n",
      &error);
  ASSERT_FALSE(img.empty()) << error;
  const std::string path = temp_dir() + "/counters.img";
  write_file(path, img);
  const process_result r = run_process({PD_PRIVDIAG_BIN, path});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("!!Database has -2147483648 more volume record(s) than header does.!!\n"
                       "!!Database has 2147483647 fewer plex record(s) than header does.!!\n"),
            std::string::npos)
      << r.out;
}

}  // namespace
}  // namespace pd::test
