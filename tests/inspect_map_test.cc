// privinspect map: the model of builder images (which structures verify,
// which kinds of blocks a copy shows), runs folded however large the copy,
// and the command's text and SVG forms.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "inspect/inspect_region.h"
#include "inspect/region_map.h"
#include "inspect_support.h"

namespace pd::test {
namespace {

const char* const map_disk = R"(disk sector-size=512 sectors=2048
header diskid=disk01 seqno=0.17
region config copy=1 offset=17 len=400
region log copy=1 offset=1617 len=100 %s
copy-content config copy=1 content=config begin
  database version=4.17 dgname=dg1 config-tid=0.200
  group name=dg1 rid=0.1000 version=171
  volume name=vol1 rid=0.1001 len=2048 pl_num=%s state=ACTIVE
%send
%s)";
const char* const written_log = R"(content=log begin
  block tid=0.200 seqno=7
  entry type=commit tid=0.200
end)";

std::string map_image(const std::string& name, const char* log, const char* pl_num,
                      const char* records, const char* tail) {
  char desc[2048];
  std::snprintf(desc, sizeof desc, map_disk, log, pl_num, records, tail);
  return build_to_file(desc, name);
}

disk_map map_of(const std::string& path) {
  captured_session s;
  inspect_target t;
  t.image = path;
  disk_map m;
  EXPECT_TRUE(build_disk_map(s.get(), t, m)) << m.note;
  return m;
}

TEST(InspectMap, WhatVerifiesAndWhatBlocksShow) {
  struct map_case {
    const char* name;
    const char* log;
    const char* pl_num;
    const char* records;
    const char* tail;
    std::set<std::string> failing;  // span kinds that do not verify
    std::set<std::string> blocks;   // block kinds of copy 1
  };
  const std::vector<map_case> cases = {
      {"good", written_log, "0", "", "", {}, {"db-header", "used", "free"}},
      {"log-never-written", "", "0", "", "", {"log"}, {"db-header", "used", "free"}},
      {"alternate-checksum",
       written_log,
       "0",
       "",
       "hdrcopy primary\nhdrcopy alternate damage=checksum\n",
       {"header"},
       {"db-header", "used", "free"}},
      {"bad-block",
       written_log,
       "0",
       "  block at=40 magic=XBLK\n",
       "",
       {},
       {"db-header", "used", "free", "bad"}},
      {"missing-children", written_log, "3", "", "", {}, {"db-header", "used", "free", "finding"}},
  };
  for (const map_case& c : cases) {
    SCOPED_TRACE(c.name);
    disk_map m =
        map_of(map_image(std::string(c.name) + ".img", c.log, c.pl_num, c.records, c.tail));
    EXPECT_EQ(m.note, "");
    EXPECT_EQ(m.sectors, 2048u);
    std::set<std::string> failing, spans;
    std::uint64_t covered = 0;
    for (const map_span& s : m.spans) {
      spans.insert(span_kind_name(s.kind));
      if (!s.verifies) failing.insert(span_kind_name(s.kind));
      EXPECT_EQ(s.first, covered) << s.title;  // the strip is tiled, in order
      covered = s.first + s.count;
    }
    EXPECT_EQ(covered, m.sectors);
    EXPECT_EQ(spans, (std::set<std::string>{"header", "toc", "config", "log", "free"}));
    EXPECT_EQ(failing, c.failing);
    ASSERT_EQ(m.rows.size(), 1u);
    std::set<std::string> blocks;
    std::uint64_t next = 0;
    for (const block_run& r : m.rows[0].runs) {
      blocks.insert(block_kind_name(r.kind));
      EXPECT_EQ(r.first, next);
      next = r.first + r.count;
    }
    EXPECT_EQ(next, m.rows[0].nblocks);
    EXPECT_EQ(blocks, c.blocks);
  }
}

TEST(InspectMap, RunsOfLikeBlocksFoldWithABoundedTitle) {
  std::vector<block_run> runs;
  for (std::uint64_t b = 0; b < 100000; ++b) {
    add_block_run(runs, block_kind::used, b, "record " + std::to_string(b));
  }
  add_block_run(runs, block_kind::used, 100001, "after a gap");
  add_block_run(runs, block_kind::bad, 100002, "");
  ASSERT_EQ(runs.size(), 3u);
  EXPECT_EQ(runs[0].count, 100000u);
  EXPECT_LE(runs[0].title.size(), 200u);
  EXPECT_NE(runs[0].title.find("record 7\n..."), std::string::npos) << runs[0].title;
  EXPECT_FALSE(runs[2].verifies());
}

// compare --svg draws every strip to the largest region's scale.
TEST(InspectMap, OneScaleForEveryStrip) {
  std::vector<disk_map> maps(2);
  maps[0].sectors = 100;
  maps[1].sectors = 400;
  for (disk_map& m : maps) m.spans.push_back({0, m.sectors, span_kind::log, true, "log"});
  map_svg_options o;
  o.scale = 400;
  char* buf = nullptr;
  std::size_t len = 0;
  FILE* f = ::open_memstream(&buf, &len);
  ASSERT_NE(f, nullptr);
  write_map_svg(f, maps, o);
  std::fclose(f);
  const std::string svg(buf, len);
  std::free(buf);
  EXPECT_NE(svg.find("width=\"250\" height=\"28\""), std::string::npos) << svg;
  EXPECT_NE(svg.find("width=\"1000\" height=\"28\""), std::string::npos) << svg;
}

TEST(InspectMap, Command) {
  const std::string good = map_image("map-good.img", written_log, "0", "", "");
  const std::string svg = temp_dir() + "/map.svg";
  // Text: plain ASCII on a pipe, the strip and the copy's row.
  process_result r = inspect({"map", good});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  for (char c : r.out) EXPECT_TRUE(c == '\n' || (c >= 0x20 && c < 0x7f));
  EXPECT_NE(r.out.find("\n  |CCCCCCCCCCCCCC....."), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\n  config copy 1: 400 blocks of 512 bytes\n  |#"), std::string::npos);
  // On a terminal: Unicode blocks, each colour change from a reset.
  mem_stream fancy;
  write_map_text(fancy.f, {map_of(good)}, true);
  const std::string t = fancy.text();
  EXPECT_NE(t.find("|\x1b[0;34m\u2588\u2588"), std::string::npos) << t;
  EXPECT_NE(t.find("\x1b[0;2m\u00b7"), std::string::npos) << t;
  EXPECT_EQ(t.find("\x1b[3"), std::string::npos) << t;  // never a colour on top of another
  // SVG: the same bytes on every run, written by rename (no .tmp left).
  ASSERT_EQ(inspect({"map", good, "--svg", svg}).status, 0);
  const std::string first = read_text(svg);
  ASSERT_EQ(inspect({"map", "--svg", svg, good}).status, 0);
  EXPECT_EQ(read_text(svg), first);
  EXPECT_EQ(::access((svg + ".tmp").c_str(), F_OK), -1);
  EXPECT_EQ(first.find("-0"), std::string::npos);
  // Refusals: the input as --svg (left as it was), --json with --svg, a
  // missing image.
  const std::vector<std::uint8_t> before = read_file(good);
  expect_runs({
      {{"map", good, "--svg", good},
       3,
       "",
       "privinspect: map: " + good + ": is an input image; not written\n"},
      {{"--json", "map", good, "--svg", svg},
       3,
       "",
       "privinspect: map: --svg has no JSON form; without --json\n"},
      {{"--json", "compare", good, "--svg", svg},
       3,
       "",
       "privinspect: compare: --svg has no JSON form; without --json\n"},
  });
  EXPECT_EQ(read_file(good), before);
  EXPECT_EQ(inspect({"map", temp_dir() + "/none.img"}).status, 3);
}

}  // namespace
}  // namespace pd::test
