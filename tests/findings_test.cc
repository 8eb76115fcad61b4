// Findings: the code table and docs/findings.md list the same codes with the
// same severities; each code of the report is raised by a damaged image; and
// privdiag writes every raised finding's text, with its layout, on the
// stream the table names.
#include "io/findings.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "inspect/inspect.h"
#include "inspect/inspect_image.h"
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

TEST(Findings, DamagedCopiesRaiseTheirCodeAndPrivdiagPrintsTheText) {
  int n = 0;
  for (const damage& d : report_damage) {
    const finding_kind& kind = kind_of(d.code);
    SCOPED_TRACE(kind.name);
    const std::string path =
        build_to_file(copy_desc(d.database, d.lines), "finding" + std::to_string(n++) + ".img");
    captured_session cs;
    finding_collector raised;
    cs->sink = &raised;
    inspect_image img(cs.get());
    ASSERT_TRUE(img.open({path, 512}));
    ASSERT_TRUE(img.locate());
    ASSERT_EQ(priv_dump_config(cs.get(), img.priv(), -1, false), 1);
    EXPECT_EQ(cs.out(), "");  // nothing printed
    const process_result privdiag = run_process({PD_PRIVDIAG_BIN, path});
    bool found = false;
    for (const finding& f : raised.list) {
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
  captured_session cs;
  finding_collector raised;
  cs->sink = &raised;
  inspect_image img(cs.get());
  ASSERT_TRUE(img.open({path, 512}));
  ASSERT_TRUE(img.locate());
  priv_dump_config(cs.get(), img.priv(), -1, false);
  std::map<finding_code, finding_place> at;
  for (const finding& f : raised.list) at[f.code] = f.place;
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
  captured_session cs;
  finding_collector raised;
  cs->sink = &raised;
  inspect_image img(cs.get());
  ASSERT_TRUE(img.open({path, 512}));
  ASSERT_TRUE(img.locate());
  priv_dump_logs(cs.get(), img.priv(), 1);
  ASSERT_FALSE(raised.list.empty());
  const finding& f = raised.list[0];
  EXPECT_EQ(f.code, finding_code::log_block_invalid);
  EXPECT_EQ(f.place.copy, 1);
  EXPECT_EQ(f.place.block, 1);
  EXPECT_EQ(f.place.sector, 1618);
  EXPECT_NE(inspect({"logs", path}).err.find(f.text + "\n"), std::string::npos);
}

}  // namespace
}  // namespace pd::test
