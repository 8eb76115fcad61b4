// Findings: the code table and docs/findings.md list the same codes with the
// same severities; each code of the report is raised by a damaged image; and
// privdiag writes every raised finding's text, with its layout, on the
// stream the table names.
#include "io/findings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "inspect/inspect.h"
#include "inspect/inspect_image.h"
#include "inspect/inspect_region.h"
#include "inspect_support.h"
#include "report/copy_loading.h"
#include "report/log_dump.h"

namespace pd::test {
namespace {

TEST(FindingsTable, DocsListEveryCodeWithItsSeverity) {
  std::ifstream doc(std::string(PD_SOURCE_DIR) + "/docs/findings.md");
  ASSERT_TRUE(doc);
  std::map<std::string, std::string> rows;  // code -> severity
  const std::regex row(R"(^\| `([a-z-]+)` \| ([a-z]+) \|)");
  for (std::string line; std::getline(doc, line);) {
    std::smatch m;
    if (std::regex_search(line, m, row)) rows[m[1]] = m[2];
  }
  std::map<std::string, std::string> table;
  for (const finding_kind& k : finding_table) table[k.name] = severity_name(k.sev);
  EXPECT_EQ(rows, table);
}

// One copy of 400 blocks at sector 17 with a disk group and the lines given.
std::string copy_desc(const std::string& database, const std::string& lines) {
  return "disk sector-size=512 sectors=2048\n"
         "header diskid=disk01\n"
         "region config copy=1 offset=17 len=400\n"
         "copy-content config copy=1 content=config begin\n"
         "  database dgname=dg1 config-tid=0.200 " + database + "\n" + lines + "end\n";
}

const std::string group = "  group name=dg1 rid=0.1000\n";

struct damage {
  finding_code code;
  std::string database;
  std::string lines;
};

const damage report_damage[] = {
    {finding_code::corrupt_record, "", group + "  volume name=v rid=0.1 rflags=2\n"},
    {finding_code::extra_dg_record, "", group + "  group name=dg2 rid=0.1001\n"},
    {finding_code::no_dg_record, "", "  volume name=v rid=0.1 pl_num=0\n"},
    {finding_code::missing_children, "", group + "  volume name=v rid=0.1 pl_num=2\n"},
    {finding_code::extra_children, "",
     group + "  volume name=v rid=0.1 pl_num=0\n  plex name=p rid=0.2 vol_rid=0.1\n"
             "  subdisk name=s rid=0.3 plex_rid=0.2\n"},
    {finding_code::duplicate_disk_id, "",
     group + "  disk name=d1 rid=0.5 diskid=same\n  disk name=d2 rid=0.6 diskid=same\n"},
    {finding_code::volume_count, "vs_v_cnt=3", group},
    {finding_code::plex_count, "vs_pl_cnt=3", group},
    {finding_code::subdisk_count, "vs_sd_cnt=3", group},
    {finding_code::dm_count, "vs_dm_cnt=3", group},
    {finding_code::higher_tid, "", group + "  volume name=v rid=0.1 pl_num=0 update_tid=0.300\n"},
    {finding_code::extract_error, "", group + "  block at=3 magic=ABCD\n"},
    {finding_code::premature_eof, "nblocks=1000", group},
};

// An image opened and located in process, its findings collected.
struct located {
  captured_session cs;
  finding_collector raised;
  inspect_image img{cs.get()};
  explicit located(const std::string& path) {
    cs->sink = &raised;
    EXPECT_TRUE(img.open({path, 512}));
    EXPECT_TRUE(img.locate());
  }
};

TEST(Findings, DamagedCopiesRaiseTheirCodeAndPrivdiagPrintsTheText) {
  int n = 0;
  for (const damage& d : report_damage) {
    const finding_kind& kind = kind_of(d.code);
    SCOPED_TRACE(kind.name);
    const std::string path =
        build_to_file(copy_desc(d.database, d.lines), "finding" + std::to_string(n++) + ".img");
    located l(path);
    ASSERT_EQ(priv_dump_config(l.cs.get(), l.img.priv(), -1, false), 1);
    EXPECT_EQ(l.cs.out(), "");  // nothing printed
    const process_result privdiag = run_process({PD_PRIVDIAG_BIN, path});
    bool found = false;
    for (const finding& f : l.raised.list) {
      const finding_kind& k = kind_of(f.code);
      const std::string& stream = k.stream == finding_stream::out ? privdiag.out : privdiag.err;
      EXPECT_NE(stream.find(k.before + f.text + k.after), std::string::npos) << f.text;
      EXPECT_EQ(f.place.copy, 1) << f.text;
      found |= f.code == d.code;
    }
    EXPECT_TRUE(found);
  }
}

// The places of a block finding and of a record finding: the copy's file
// block, and its sector and byte offset in the image.
TEST(Findings, PlacesNameTheCopyBlockSectorAndOffset) {
  const std::string path = build_to_file(
      copy_desc("", group + "  volume name=v rid=0.1 pl_num=2\n  block at=5 magic=ABCD\n"),
      "places.img");
  located l(path);
  priv_dump_config(l.cs.get(), l.img.priv(), -1, false);
  std::map<finding_code, finding_place> at;
  for (const finding& f : l.raised.list) at[f.code] = f.place;
  ASSERT_TRUE(at.count(finding_code::extract_error));
  EXPECT_EQ(at[finding_code::extract_error].block, 5);
  EXPECT_EQ(at[finding_code::extract_error].sector, 17 + 5);
  EXPECT_EQ(at[finding_code::extract_error].offset, (17 + 5) * 512);
  ASSERT_TRUE(at.count(finding_code::missing_children));
  EXPECT_EQ(at[finding_code::missing_children].block, 2);  // after the header and the group
  EXPECT_EQ(at[finding_code::missing_children].sector, 17 + 2);
}

// The header copies' verdicts: a damaged alternate copy's checksum and
// decode, and the scan's choice as a note.
TEST(Findings, HeaderVerdicts) {
  const std::string path = build_to_file(
      "disk sector-size=512 sectors=2048\nregion config copy=1 offset=17 len=400\n"
      "hdrcopy primary\nhdrcopy alternate damage=checksum\n",
      "headers.img");
  captured_session cs;
  inspect_image img(cs.get());
  ASSERT_TRUE(img.open({path, 512}));
  const std::vector<finding> found = header_findings(img);
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(found[0].code, finding_code::header_checksum);
  EXPECT_EQ(found[0].place.sector, 2048 - 192);
  EXPECT_EQ(std::stoul(*found[0].actual, nullptr, 16), std::stoul(*found[0].expected, nullptr, 16) + 1);
  EXPECT_EQ(found[1].code, finding_code::header_undecodable);
  EXPECT_EQ(found[1].text,
            "alternate header: does not decode: error 165: Format error in disk private region "
            "(bad checksum)");
  EXPECT_EQ(found[2].code, finding_code::header_choice);
  EXPECT_EQ(found[2].sev(), severity::note);
  EXPECT_EQ(found[2].text, "scan: primary chosen: the alternate does not decode");
}

// A refused log block: its finding names the log copy, the block, its
// sector, and privinspect logs writes its text on the error stream.
TEST(Findings, LogBlockInvalid) {
  const std::string path = build_to_file(
      "disk sector-size=512 sectors=2048\nregion config copy=1 offset=17 len=400\n"
      "region log copy=1 offset=1617 len=100 content=log begin\n"
      "  block tid=0.200 seqno=7\n  block tid=0.200 seqno=8 blkno=9\nend\n",
      "logs.img");
  located l(path);
  priv_dump_logs(l.cs.get(), l.img.priv(), 1);
  ASSERT_FALSE(l.raised.list.empty());
  const finding& f = l.raised.list[0];
  EXPECT_EQ(f.code, finding_code::log_block_invalid);
  EXPECT_EQ(f.place.copy, 1);
  EXPECT_EQ(f.place.block, 1);
  EXPECT_EQ(f.place.sector, 1618);
  EXPECT_NE(inspect({"logs", path}).err.find(f.text + "\n"), std::string::npos);
}

// The whole-region check: one damaged image per code, the status check
// gives it, and where the finding lies (structure, copy, sector, offset).
std::string region_desc(const std::string& more) {
  return copy_desc("", group) + "region log copy=1 offset=1617 len=100 content=log begin\n"
                                "  block tid=0.200 seqno=7 len=2\n  block tid=0.200\nend\n" +
         more;
}

struct region_damage {
  finding_code code;
  std::string desc;
  int status;
  const char* structure;
  int copy;
  std::int64_t sector, offset;
};

const std::string second_copy =
    "region config copy=2 offset=417 len=400\n"
    "copy-content config copy=2 content=config begin\n  database dgname=dg1 config-tid=0.190\n" +
    group;

const region_damage region_damages[] = {
    {finding_code::header_mismatch, region_desc("hdrcopy primary\nhdrcopy alternate seqno=0.0\n"),
     1, "header", -1, 1856, 1856 * 512},
    {finding_code::header_field, region_desc("hdrcopy primary\nhdrcopy alternate dgid=xyz\n"), 1,
     "header", -1, 1856, 1856 * 512 + 0xb0},
    {finding_code::toc_magic, region_desc("tocblock damage=magic damage-copy=primary\n"), 1, "toc",
     1, 1, 512},
    {finding_code::toc_checksum, region_desc("tocblock damage=checksum damage-copy=alternate\n"),
     1, "toc", 2, 2046, 2046 * 512 + 8},
    {finding_code::toc_seqno, region_desc("tocblock seqno=0.3\n"), 2, "toc", 1, 1, 512 + 12},
    {finding_code::toc_next, region_desc("tocblock next=5000\n"), 2, "toc", 1, 1, 512 + 20},
    {finding_code::toc_chains_differ,
     region_desc("tocblock at=1 alt=2046\npoke sector=2046 offset=400 hex=01\n"
                 "fixsum toc sector=2046\n"),
     1, "toc", -1, 2046, 2046 * 512},
    {finding_code::copies_differ, region_desc(second_copy + "end\n"), 1, "config copy", 2, 417,
     417 * 512},
    {finding_code::copy_stale,
     region_desc(std::regex_replace(second_copy, std::regex("len=400"), "len=400 flags=disabled") +
                 "end\n"),
     0, "config copy", 2, 417, 417 * 512},
    {finding_code::copy_unloadable, region_desc("region config copy=2 offset=417 len=400\n"), 1,
     "config copy", 2, -1, -1},
    {finding_code::extract_error, region_desc(second_copy + "  block at=3 magic=ABCD\nend\n"), 1,
     "config copy", 2, 420, 420 * 512},
    {finding_code::log_block_refused,
     region_desc("poke sector=1617 offset=512 hex=00000000\n"), 1, "log copy", 1, 1618,
     1618 * 512},
    {finding_code::log_never_written, region_desc("poke sector=1617 offset=16 hex=00000003\n"), 1,
     "log copy", 1, 1619, 1619 * 512},
    {finding_code::image_partial_sector, region_desc("truncate bytes=1048600\n"), 1, "image", -1,
     2048, 2048 * 512},
    {finding_code::image_short,
     region_desc("header primary=1899 alternate=1708\ntruncate sectors=1900\n"), 2, "image", -1,
     -1, 1900 * 512},
};

TEST(Findings, RegionCheckRaisesEachCodeAtItsPlace) {
  int n = 0;
  for (const region_damage& d : region_damages) {
    SCOPED_TRACE(kind_of(d.code).name);
    const std::string path = build_to_file(d.desc, "region" + std::to_string(n++) + ".img");
    captured_session cs;
    const std::vector<finding> found = region_findings(cs.get(), {path, 512});
    const auto f = std::find_if(found.begin(), found.end(),
                                [&](const finding& x) { return x.code == d.code; });
    ASSERT_NE(f, found.end());
    EXPECT_STREQ(f->place.structure, d.structure) << f->text;
    EXPECT_EQ(f->place.copy, d.copy) << f->text;
    EXPECT_EQ(f->place.sector, d.sector) << f->text;
    EXPECT_EQ(f->place.offset, d.offset) << f->text;
    const process_result r = inspect({"check", path});
    EXPECT_EQ(r.status, d.status) << r.out;
    EXPECT_NE(r.out.find(f->text + "\n"), std::string::npos) << r.out;
  }
}

// A header written for 4096-byte sectors, read with 512: check names the
// other size.
TEST(Findings, SectorSizeOther) {
  const std::string path = build_to_file(
      "disk sector-size=4096 sectors=256\nregion config copy=1 offset=17 len=40\n", "other.img");
  captured_session cs;
  const std::vector<finding> found = region_findings(cs.get(), {path, 512});
  ASSERT_FALSE(found.empty());
  EXPECT_EQ(found[0].code, finding_code::sector_size_other);
  EXPECT_EQ(found[0].place.sector, 255);
  EXPECT_EQ(inspect({"check", path}).status, 2);
  EXPECT_EQ(region_findings(cs.get(), {path, 4096}).size(), 0u);
}

}  // namespace
}  // namespace pd::test
