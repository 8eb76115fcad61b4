// privinspect repair: one builder image per kind of damage, each repaired
// (check on OUT, privdiag's report of OUT against the sound original) or
// refused; a dry run; the outputs it refuses; and random damage, after which
// no kept OUT holds a finding that the plan did not leave.
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "codec/integers.h"
#include "inspect/inspect_region.h"
#include "inspect/repair.h"
#include "private_region/header.h"
#include "private_region/toc.h"
#include "inspect_support.h"
#include "priv_test_support.h"

namespace pd::test {
namespace {

// Three copies of one database (the third disabled and older), a log with
// one valid block: check finds nothing but the disabled copy's note.
std::string disk(const char* tid1 = "0.200", const char* tid2 = "0.200",
                 const std::string& extra = "") {
  std::string d =
      "disk sector-size=512 sectors=2048\n"
      "header diskid=disk01 seqno=0.17\n"
      "region config copy=1 offset=17 len=400\n"
      "region config copy=2 offset=417 len=400\n"
      "region config copy=3 offset=817 len=400 flags=disabled\n"
      "region log copy=1 offset=1617 len=100 content=log begin\n"
      "  block tid=0.200 seqno=7\n"
      "  entry type=commit tid=0.200\n"
      "end\n";
  const char* tids[] = {tid1, tid2, "0.190"};
  for (int c = 0; c < 3; ++c) {
    d += "copy-content config copy=" + std::to_string(c + 1) +
         " content=config begin\n"
         "  database version=4.17 dgname=dg1 config-tid=" +
         tids[c] +
         "\n"
         "  group name=dg1 rid=0.1000 version=171\n"
         "  volume name=vol1 rid=0.1001 len=2048 pl_num=1 state=ACTIVE\n"
         "  plex name=vol1-01 rid=0.1002 vol_rid=0.1001 sd_num=1\n"
         "  subdisk name=sd1 rid=0.1003 plex_rid=0.1002 dm_rid=0.1004 len=2048\n"
         "  disk name=disk01 rid=0.1004 diskid=a0000002-1234-0002-4041-424344454647\n"
         "end\n";
  }
  return d + extra;
}

bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> names(const nlohmann::json& list) {
  std::vector<std::string> out;
  for (const auto& x : list)
    out.push_back(x["structure"].get<std::string>() + " " + x["copy"].get<std::string>());
  return out;
}

struct repair_case {
  const char* name;
  std::string description;
  int status;
  std::vector<std::string> actions;
  std::vector<std::string> left;
  const char* header = "auto";  // --header
};

TEST(InspectRepair, EachKindOfDamage) {
  const std::string sound = build_to_file(disk(), "repair-sound.img");
  const process_result original = run_process({PD_PRIVDIAG_BIN, sound});
  ASSERT_EQ(original.status, 0);
  const std::string block1 = "poke sector=18 offset=0 hex=00000000\n";
  const std::string block1_copy2 = "poke sector=418 offset=0 hex=00000000\n";
  const std::vector<repair_case> cases = {
      {"primary-header",
       disk("0.200", "0.200", "hdrcopy primary damage=magic\nhdrcopy alternate\n"),
       0,
       {"header primary"},
       {"config copy 3"}},
      {"alternate-header",
       disk("0.200", "0.200", "hdrcopy primary\nhdrcopy alternate damage=checksum\n"),
       0,
       {"header alternate"},
       {"config copy 3"}},
      {"primary-toc-chain",
       disk("0.200", "0.200", "tocblock damage=checksum damage-copy=primary\n"),
       0,
       {"toc primary chain block 0"},
       {"config copy 3"}},
      {"stale-copy-2", disk("0.200", "0.190"), 0, {"config copy 2"}, {"config copy 3"}},
      // The newest copy is the source, not the first one.
      {"stale-copy-1", disk("0.190", "0.200"), 0, {"config copy 1"}, {"config copy 3"}},
      {"damaged-copy-1", disk("0.200", "0.200", block1), 0, {"config copy 1"}, {"config copy 3"}},
      {"damage-in-every-copy",
       disk("0.200", "0.200", block1 + block1_copy2),
       2,
       {},
       {"config copy 1", "config copy 2", "config copy 3"}},
      {"every-copy-and-header",
       disk("0.200", "0.200",
            block1 + block1_copy2 + "hdrcopy primary damage=magic\nhdrcopy alternate\n"),
       1,
       {"header primary"},
       {"config copy 1", "config copy 2", "config copy 3"}},
      {"both-toc-chains",
       disk("0.200", "0.200", "tocblock damage=checksum\n"),
       2,
       {},
       {"toc block 0"}},
      // The join still fails on OUT: its message is left, not removed.
      {"both-toc-chains-and-header",
       disk("0.200", "0.200",
            "tocblock damage=checksum\nhdrcopy primary\nhdrcopy alternate damage=checksum\n"),
       1,
       {"header alternate"},
       {"toc block 0"}},
      // A region without configuration copies: privdiag's run stops, and
      // stays stopped whatever TOC block is restored.
      {"no-config-copies",
       "disk sector-size=512 sectors=2048\nregion log copy=1 offset=17 len=100\n"
       "tocblock damage=checksum damage-copy=alternate\n",
       1, {"toc alternate chain block 0"}, {"log copy 1"}},
      // Both copies decode with one seqno but differ: only --header decides.
      {"headers-differ", disk("0.200", "0.200", "hdrcopy primary\nhdrcopy alternate dgname=other\n"),
       2, {}, {"header primary and alternate", "config copy 3"}},
      {"headers-differ-trust-alternate",
       disk("0.200", "0.200", "hdrcopy primary\nhdrcopy alternate dgname=other\n"), 0,
       {"header primary"}, {"config copy 3"}, "alternate"},
      {"nothing-to-repair", disk(), 2, {}, {"config copy 3"}},
  };
  for (const repair_case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string in = build_to_file(c.description, std::string("repair-") + c.name + ".img");
    const std::string out = temp_dir() + "/repaired-" + c.name + ".img";
    const process_result r = inspect({"--json", "--header", c.header, "repair", in, out});
    ASSERT_EQ(r.status, c.status) << r.out << r.err;
    const nlohmann::json doc = nlohmann::json::parse(r.out);
    EXPECT_EQ(names(doc["repair"]["actions"]), c.actions);
    EXPECT_EQ(names(doc["repair"]["left"]), c.left);
    EXPECT_FALSE(exists(out + ".tmp"));
    if (c.status >= REPAIR_NOTHING) {
      EXPECT_FALSE(exists(out));
      continue;
    }
    EXPECT_EQ(read_text(out + ".repair.json"), r.out);
    EXPECT_EQ(inspect({"check", "--quiet", out}).status == 0, c.status == REPAIR_CLEAN);
    // (A copy that --header trusts need not be the sound original's.)
    if (c.status == REPAIR_CLEAN && std::string(c.header) == "auto") {
      EXPECT_EQ(read_file(out), read_file(sound));
      EXPECT_EQ(run_process({PD_PRIVDIAG_BIN, out}).out, original.out);
    }
  }
}

// Sound copies hold the same bytes: the header copies and the TOC chains'
// blocks, which repair copies byte for byte.
TEST(InspectRepair, SoundCopiesHoldTheSameBytes) {
  const std::vector<std::uint8_t> img = read_file(build_to_file(disk(), "repair-same.img"));
  auto sector = [&img](std::size_t n) {
    return std::vector<std::uint8_t>(img.begin() + n * 512, img.begin() + (n + 1) * 512);
  };
  EXPECT_EQ(sector(2047), sector(1856));
  EXPECT_EQ(sector(1), sector(2046));
}

TEST(InspectRepair, DryRunWritesNothingAndPrintsThePlan) {
  const std::string in =
      build_to_file(disk("0.200", "0.200", "hdrcopy primary\nhdrcopy alternate damage=checksum\n"),
                    "repair-dry.img");
  const std::string out = temp_dir() + "/repair-dry-out.img";
  const process_result dry = inspect({"repair", in, out, "--dry-run"});
  EXPECT_EQ(dry.status, 0);
  EXPECT_FALSE(exists(out));
  EXPECT_FALSE(exists(out + ".repair.json"));
  const process_result real = inspect({"repair", in, out});
  EXPECT_EQ(real.status, 0) << real.err;
  // The same plan, then the proof.
  const std::string plan = real.out.substr(0, real.out.find("proof:"));
  EXPECT_EQ(dry.out.substr(0, plan.size()), plan);
  EXPECT_NE(plan.find("    header alternate: sector 1856 from the primary copy (sector 2047)"),
            std::string::npos);
}

TEST(InspectRepair, Refusals) {
  const std::string in = build_to_file(disk("0.200", "0.190"), "repair-refuse.img");
  const std::vector<std::uint8_t> bytes = read_file(in);
  EXPECT_EQ(inspect({"repair", in, in, "--force"}).status, REPAIR_FAILED);
  const std::string out = temp_dir() + "/repair-refuse-out.img";
  write_text(out, "old");
  const process_result r = inspect({"repair", in, out});
  EXPECT_EQ(r.status, REPAIR_FAILED);
  EXPECT_EQ(r.err, "privinspect: " + out + ": exists; not written (--force replaces it)\n");
  EXPECT_EQ(read_text(out), "old");
  EXPECT_EQ(read_file(in), bytes);
  EXPECT_EQ(inspect({"repair", in, out, "--force"}).status, REPAIR_CLEAN);
}

// Random bytes of the structures damaged: no crash, no failed proof, and a
// kept OUT holds no finding that the plan did not leave (checked again on
// the file kept).
TEST(InspectRepair, RandomDamage) {
  const std::vector<std::uint8_t> sound = build(disk());
  const std::size_t sectors[] = {2047, 1856, 1, 2046, 17, 18, 19, 417, 418, 419, 817, 818, 1617};
  std::mt19937 rng(22);
  session s(nullptr, nullptr);
  s.progname = "privinspect";
  int kept = 0, refused = 0;
  for (int i = 0; i < 80; ++i) {
    std::vector<std::uint8_t> img = sound;
    for (int n = 1 + static_cast<int>(rng() % 3); n > 0; --n) {
      const std::size_t at = sectors[rng() % std::size(sectors)] * 512 + rng() % 512;
      img[at] = static_cast<std::uint8_t>(rng());
    }
    // Most headers and TOC blocks sealed again, so that the damage reaches
    // past their checksums: copies that verify but differ, or mislead.
    for (std::size_t sector : {2047, 1856, 1, 2046}) {
      std::uint8_t* p = img.data() + sector * 512;
      if (rng() % 4 == 0) continue;
      if (std::memcmp(p, header_magic, PRIV_MAGIC_LEN) == 0) priv_header_seal(p);
      if (std::memcmp(p, toc_magic, TOC_MAGIC_LEN) == 0) {
        put_be32(p + TOC_CHECKSUM_OFFSET, static_cast<std::uint32_t>(priv_toc_checksum(p, 512)));
      }
    }
    const std::string in = temp_dir() + "/mutant.img", out = temp_dir() + "/mutant-out.img";
    write_file(in, img);
    ::unlink(out.c_str());
    inspect_target t;
    t.image = in;
    mem_stream o, e;
    s.out = o.f;
    s.err = e.f;
    const repair_plan plan = plan_repair(s, t);
    if (plan.actions.empty()) continue;
    repair_proof proof;
    const int status = write_repair(s, t, plan, out, true, proof);
    SCOPED_TRACE(i);
    ASSERT_LE(status, REPAIR_FAILED);
    if (status == REPAIR_FAILED) {
      EXPECT_FALSE(exists(out)) << proof.reason;
      ++refused;
      continue;
    }
    ++kept;
    t.image = out;
    for (const finding& f : run_check(s, t).findings) {
      EXPECT_EQ(plan.allowed.count(repair_key(f)), 1u) << f.text;
    }
  }
  EXPECT_GT(kept, 20);
  EXPECT_EQ(refused, 0);
}

}  // namespace
}  // namespace pd::test
