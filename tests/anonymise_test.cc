// privinspect anonymise on the builder's images, good and damaged: privdiag's
// report of OUT is IN's with the map applied, no original is left in OUT's
// bytes, compare on anonymised disks is compare on the originals mapped, and
// the refusals write nothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <unistd.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "inspect/anon.h"
#include "inspect_support.h"

namespace pd::test {
namespace {

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::string sample() { return read_text(PD_SOURCE_DIR "/examples/sample.desc"); }
std::string group_disk(const char* n) {
  return read_text(std::string(PD_SOURCE_DIR "/examples/group/") + n + ".desc");
}

const char* const small = R"(disk sector-size=512 sectors=2048
header diskid=disk01 seqno=0.17 dgname=dg1
region config copy=1 offset=17 len=400
region config copy=2 offset=417 len=400 flags=disabled
region log copy=1 offset=1617 len=100 content=log begin
  block tid=0.200 seqno=7
  entry type=detach rid=0.1001 tid=0.199
end
copy-content config copy=1 content=config begin
  database version=4.17 dgname=dg1 config-tid=0.200 %DB%
  group name=dg1 rid=0.1000 version=171
  volume name=vol1 rid=0.1001 len=2048 pl_num=%PL% state=ACTIVE comment=payroll-db
  plex name=vol1-01 rid=0.1002 vol_rid=0.1001 sd_num=1
  subdisk name=sd1 rid=0.1003 plex_rid=0.1002 dm_rid=0.1004 len=2048
  disk name=disk01 rid=0.1004 diskid=a0000002-1234-0002-4041-424344454647
  disk name=disk02 rid=0.1005 diskid=%ID%
%EXTRA%end
copy-content config copy=2 content=config begin
  database version=4.17 dgname=dg1 config-tid=0.100
  group name=dg1 rid=0.1000 version=171
  volume name=oldvol rid=0.1009 len=8 pl_num=0
end
%TAIL%)";

std::string small_image(std::string db = "", std::string pl = "1",
                        std::string id = "b0000002-1234-0002-4041-424344454647",
                        std::string extra = "", std::string tail = "") {
  std::string d = small;
  for (auto [k, v] : {std::pair{"%DB%", &db}, {"%PL%", &pl}, {"%ID%", &id}, {"%EXTRA%", &extra},
                      {"%TAIL%", &tail}}) {
    d.replace(d.find(k), std::strlen(k), *v);
  }
  return d;
}

std::string key_file() {
  const std::string k = temp_dir() + "/anon.key";
  if (!exists(k)) write_file(k, std::vector<std::uint8_t>(64, '7'));
  return k;
}

// The names of the map file, in an anon_names drawn again with the key:
// the same pseudonyms, or the test fails.
anon_names map_names(const std::string& map_path) {
  std::vector<std::uint8_t> key;
  std::string error;
  EXPECT_TRUE(anon_read_key(key_file(), &key, &error)) << error;
  anon_names names(key);
  const nlohmann::json doc = nlohmann::json::parse(read_text(map_path));
  EXPECT_EQ(doc["manifest"]["anonymised"], true);
  for (const auto& e : doc["names"]) names.add(e["original"]);
  for (const auto& e : doc["record_ids"]) {
    volrid_t r;
    EXPECT_EQ(std::sscanf(e["original"].get<std::string>().c_str(), "%u.%u", &r.seqno_hi,
                          &r.seqno_lo), 2);
    names.add_rid(r);
  }
  EXPECT_TRUE(names.resolve(&error)) << error;
  for (const auto& e : doc["names"]) EXPECT_EQ(names.pseudonym(e["original"]), e["pseudonym"]);
  for (const auto& e : doc["record_ids"]) EXPECT_EQ(names.rids().at(e["original"]), e["pseudonym"]);
  return names;
}

void expect_no_original(const std::string& out, const anon_names& names) {
  std::string bytes = read_text(out);
  for (char& c : bytes) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const auto& [v, p] : names.map()) {
    if (v.size() < 3) continue;
    std::string f = v;
    for (char& c : f) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    EXPECT_EQ(bytes.find(f), std::string::npos) << v;
  }
}

struct anon_case {
  const char* name;
  std::string desc;
  int sector_size;
};

TEST(Anonymise, ReportIsTheInputsWithNamesMapped) {
  const std::vector<anon_case> cases = {
      {"sample", sample(), 512},
      // check names the image when the primary fails; this one is named
      // after the group, a name the map replaces
      {"sampledg", sample() + "hdrcopy primary damage=magic\nhdrcopy alternate\n", 512},
      {"small", small_image(), 512},
      {"header-checksum", small_image("", "1", "b0000002-1234-0002-4041-424344454647", "",
                                      "hdrcopy primary damage=checksum\n"), 512},
      {"both-headers-bad", small_image("", "1", "b0000002-1234-0002-4041-424344454647", "",
                                       "hdrcopy primary damage=magic\n"
                                       "hdrcopy alternate damage=magic\n"), 512},
      {"bad-block-magic", small_image("", "1", "b0000002-1234-0002-4041-424344454647",
                                      "  block at=40 magic=XBLK\n"), 512},
      {"duplicate-disk-id", small_image("", "1", "a0000002-1234-0002-4041-424344454647"), 512},
      {"missing-children", small_image("", "3"), 512},
      {"premature-end", small_image("nblocks=2000"), 512},
      {"count-mismatch", small_image("vs_v_cnt=3"), 512},
      {"toc-chains-differ", small_image("", "1", "b0000002-1234-0002-4041-424344454647", "",
                                        "tocblock at=1 alt=2046\npoke sector=2046 offset=400 "
                                        "hex=01\nfixsum toc sector=2046\n"), 512},
      {"group-disk03", group_disk("disk03"), 512},
      {"4096", "disk sector-size=4096 sectors=256\nheader diskid=d4k dgname=bigdg\n"
               "region config copy=1 offset=10 len=40\n"
               "copy-content config copy=1 content=config begin\n"
               "  database dgname=bigdg\n  group name=bigdg rid=0.1000 version=171\n"
               "  volume name=archive rid=0.1001 len=8 pl_num=0\nend\n", 4096},
      {"whole-disk", sample() + "whole-disk table=gpt sectors=8192 region=partition\n", 512},
  };
  for (const anon_case& c : cases) for (const bool ids : {false, true}) {
    SCOPED_TRACE(std::string(c.name) + (ids ? " --ids" : ""));
    const std::string in = build_to_file(c.desc, std::string(c.name) + ".img");
    const std::string out = temp_dir() + "/" + c.name + ".anon";
    const std::string map = out + ".map";
    const std::string ss = std::to_string(c.sector_size);
    std::vector<std::string> args{"--sector-size", ss, "anonymise", in, out, "--key", key_file(),
                                  "--map", map, "--force"};
    if (ids) args.push_back("--ids");
    process_result r = inspect(args);
    ASSERT_EQ(r.status, 0) << r.err;
    const anon_names names = map_names(map);
    std::string region = in;
    if (std::string(c.name) == "whole-disk") {
      region = temp_dir() + "/whole-disk.region";
      ASSERT_EQ(inspect({"extract", in, region, "--force"}).status, 0);
    }
    const std::vector<std::string> pd_args =
        c.sector_size == 512 ? std::vector<std::string>{} : std::vector<std::string>{ss};
    auto report = [&](const std::string& img) {
      std::vector<std::string> a = pd_args;
      a.push_back(img);
      a.insert(a.begin(), PD_PRIVDIAG_BIN);
      return run_process(a);
    };
    const process_result want = report(region), got = report(out);
    EXPECT_EQ(got.status, want.status);
    EXPECT_EQ(anon_mask_computed(got.out), anon_mask_computed(anon_map_text(names, want.out)));
    EXPECT_EQ(got.err, anon_map_text(names, want.err));
    expect_no_original(out, names);
    const bool marked = nlohmann::json::parse(read_text(map))["manifest"]["marker"];
    EXPECT_EQ(inspect({"--sector-size", ss, "anonymise", "--show", out}).status, marked ? 0 : 1);
  }
}

TEST(Anonymise, GroupComparesAsTheOriginals) {
  for (const bool ids : {false, true}) {
  SCOPED_TRACE(ids ? "--ids" : "names only");
  std::vector<std::string> ins, outs;
  for (const char* d : {"disk01", "disk02", "disk03"})
    ins.push_back(build_to_file(group_disk(d), std::string("grp") + d[5] + ".img"));
  for (const std::string& in : ins) {
    std::vector<std::string> a{"anonymise", in, in + ".anon", "--key", key_file(), "--force",
                               "--map", in + ".map"};
    if (ids) a.push_back("--ids");
    for (const std::string& other : ins) {
      if (other != in) a.insert(a.end(), {"--with", other});
    }
    ASSERT_EQ(inspect(a).status, 0);
    outs.push_back(in + ".anon");
  }
  const anon_names names = map_names(ins[0] + ".map");
  std::vector<std::string> a{"compare"}, b{"compare"};
  a.insert(a.end(), ins.begin(), ins.end());
  b.insert(b.end(), outs.begin(), outs.end());
  process_result want = inspect(a), got = inspect(b);
  EXPECT_EQ(got.status, want.status);
  std::string mapped = want.out;
  for (std::size_t i = 0; i < ins.size(); ++i) {
    for (std::size_t at = 0; (at = mapped.find(ins[i], at)) != std::string::npos;) {
      mapped.replace(at, ins[i].size(), outs[i]);
      at += outs[i].size();
    }
  }
  EXPECT_EQ(got.out, anon_map_text(names, mapped));
  }
}

TEST(Anonymise, RefusalsWriteNothing) {
  const std::string in = build_to_file(small_image(), "refuse.img");
  // No letter or digit in a name: no pseudonym can differ from it.
  const std::string odd = build_to_file(
      small_image("", "1", "b0000002-1234-0002-4041-424344454647",
                  "  volume name=--- rid=0.1010 len=8 pl_num=0\n"),
      "odd.img");
  // A name in the words of an unused log entry: nothing replaces it there.
  const std::string leak = build_to_file(
      small_image("", "1", "b0000002-1234-0002-4041-424344454647", "",
                  "poke sector=1617 offset=145 hex=766f6c312d3031\n"),
      "leak.img");
  const std::string out = temp_dir() + "/refused.anon";
  write_file(out + ".there", std::vector<std::uint8_t>{1});
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"anonymise", in, in, "--key", key_file()}, "is the input"},
      {{"anonymise", in, out + ".there", "--key", key_file()}, "exists"},
      {{"anonymise", in, out}, "--key KEYFILE is required"},
      {{"anonymise", in, out, "--key", temp_dir() + "/none.key"}, "cannot open"},
      {{"anonymise", in, out, "--key", key_file(), "--new-key"}, "cannot create: File exists"},
      {{"anonymise", odd, out, "--key", key_file()}, "no unique pseudonym for \"---\""},
      {{"anonymise", leak, out, "--key", key_file()}, "OUT still holds \"vol1\" at byte 828049"},
  };
  for (const auto& [args, why] : cases) {
    SCOPED_TRACE(why);
    const process_result r = inspect(args);
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find(why), std::string::npos) << r.err;
    EXPECT_FALSE(exists(out));
    EXPECT_FALSE(exists(out + ".tmp"));
  }
  EXPECT_EQ(read_file(out + ".there"), std::vector<std::uint8_t>{1});
}

}  // namespace
}  // namespace pd::test
