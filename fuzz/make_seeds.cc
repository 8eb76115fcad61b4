// make_seeds OUTDIR: writes the seed corpora of the fuzz targets into
// OUTDIR/pipeline, OUTDIR/codec and OUTDIR/store.
//
// Everything comes from the image builder: images of both sector sizes with
// configuration copies (one and two parts, disabled copies), every record
// layout, log copies, header and TOC variants; configuration copies alone,
// sound and damaged; and the record bodies, field groups and headers that
// those copies and images hold, in the codec target's input form.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_harness.h"
#include "base/errors.h"
#include "base/session.h"
#include "codec/field_codec.h"
#include "config_db/block_store.h"
#include "config_db/record_layouts.h"
#include "privbuild/builder.h"
#include "privbuild/config_fields.h"
#include "privbuild/config_writer.h"
#include "report/copy_loading.h"

namespace {

using bytes = std::vector<std::uint8_t>;
using pd::fuzz::encode_sparse_input;

std::string outdir;

void write_seed(const std::string& target, const std::string& name, const bytes& data) {
  const std::string path = outdir + "/" + target + "/" + name;
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr || std::fwrite(data.data(), 1, data.size(), f) != data.size()) {
    std::perror(path.c_str());
    std::exit(1);
  }
  std::fclose(f);
}

// A text value the config generator accepts for a member of field `f`.
std::string value_for(const pd::db_field& f) {
  using namespace pd;
  switch (f.dbf_type) {
    case DBF_TYPE_SEQNO: case DBF_TYPE_RID: case DBF_TYPE_VRID: return "1.5";
    case DBF_TYPE_STRING: case DBF_TYPE_VSTRING: return "text";
    case DBF_TYPE_AWSTRING: return "w\\u4e00x";
    case DBF_TYPE_GUIDMEMSTRING: case DBF_TYPE_GUIDSTORESTRING: case DBF_TYPE_GUID:
    case DBF_TYPE_VGUID: return "01020304-0506-0708-090a-0b0c0d0e0f10";
    case DBF_TYPE_PORTINFO: return "4145:10.0.0.1";
    case DBF_TYPE_PORTINFO6: return "4146:192.168.0.1";
    case DBF_TYPE_VBYTE: return "010203";
    case DBF_TYPE_VSIGNED: case DBF_TYPE_VVOFF: case DBF_TYPE_VVOFF_512: return "-70000";
    default: break;
  }
  switch (f.dbf_tagsize) {
    case 1: return "7";
    case 2: return "300";
    case 4: return "70000";
    default: return "5000000000";
  }
}

constexpr std::size_t copy_blocks = 64;

bytes config_copy(const std::vector<std::string>& lines, std::size_t nblocks = copy_blocks) {
  std::string error;
  return pd::build_config_copy(lines, nblocks * 512, &error);
}

// Whether the decoder chooses this entry for its type code.
bool chosen_entry(const pd::rec2field* r2f) {
  return r2f->type <= 0xFF && pd::find_rec2field(r2f->type) == r2f;
}

// Whether the tool loads the copy without an extraction error.
bool loads_clean(const bytes& copy) {
  static FILE* sink = std::fopen("/dev/null", "w");
  pd::session s(sink, sink);
  try {
    pd::config_report rep(s);
    rep.configcopy_setup();
    std::vector<std::uint8_t> buf(copy);
    rep.configcopy_more(buf.data(), 0, buf.size() / 512);
    return rep.lastres == 0 && pd::ddb_extract_done(rep.db) == 0;
  } catch (const pd::fatal_exit&) {
    return false;
  }
}

// A copy of the record that the builder writes and, for entries the
// decoder chooses, the tool loads cleanly.
bool usable(const pd::rec2field* r2f, const std::string& line) {
  const bytes copy = config_copy({"database version=4.17", line});
  return !copy.empty() && (!chosen_entry(r2f) || loads_clean(copy));
}

// One record statement per layout entry, with as many members set as the
// generator takes together.
std::vector<std::string> every_layout() {
  std::vector<std::string> records;
  for (std::size_t i = 0; i < pd::n_rec2field_table; ++i) {
    const pd::rec2field* r2f = &pd::rec2field_table[i];
    const pd::record_kind* kind = pd::record_kind_of(r2f);
    // add-flags puts the entry's own type code in the type word.
    std::string line = "record entry=" + std::to_string(i) + " name=r" + std::to_string(i) +
                       " rid=0." + std::to_string(2000 + i);
    if (r2f->type <= 0xFF) line += " add-flags=" + std::to_string(r2f->type);
    if (!usable(r2f, line)) continue;
    for (std::size_t m = 0; kind != nullptr && m < kind->nmembers; ++m) {
      const pd::db_field* f = nullptr;
      const pd::r2f_group* g = nullptr;
      if (!pd::find_field(r2f, kind->members[m].offset, &f, &g)) continue;
      std::string more = line + " " + kind->members[m].name + "=" + value_for(*f);
      if (usable(r2f, more)) line = more;
    }
    records.push_back(line);
  }
  return records;
}

const char* const main_group[] = {
    "group name=dg1 rid=0.1000 version=171 nconfig=-1 dgid=a0000001-1234-0001-4041-424344454647",
    "volume name=vol1 rid=0.1001 len=204800 pl_num=2 state=ACTIVE read_pol=2 update_tid=0.150",
    "plex name=vol1-01 rid=0.1002 vol_rid=0.1001 layout=1 st_width=128 ncolumn=2",
    "plex name=vol1-02 rid=0.1005 vol_rid=0.1001 layout=2",
    "subdisk name=disk01-01 rid=0.1003 plex_rid=0.1002 dm_rid=0.1004 len=102400",
    "subdisk name=disk01-02 rid=0.1006 plex_rid=0.1002 dm_rid=0.1004 len=102400 dm_offset=102400 column=1",
    "disk name=disk01 rid=0.1004 diskid=a0000002-1234-0002-4041-424344454647",
    "rlink name=rl1 rid=0.1007 net_address=4145:10.0.0.1 local_address6=4146:192.168.0.1",
    "rvol name=rv1 rid=0.1008",
    "dco name=dco1 rid=0.1009",
    "snap name=snap1 rid=0.1010 dco_rid=0.1009",
    "cache name=cache1 rid=0.1011",
    "da name=da1 rid=0.1012",
};

// Configuration copy variants: (name, lines).
std::vector<std::pair<std::string, std::vector<std::string>>> copy_variants(
    const std::vector<std::string>& layouts) {
  std::vector<std::pair<std::string, std::vector<std::string>>> v;
  auto with = [](std::vector<std::string> head, const std::vector<std::string>& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
  };
  const std::vector<std::string> group(std::begin(main_group), std::end(main_group));
  const std::string db = "database version=4.17 dgname=dg1 dgid=1700000000.10.host config-tid=0.200";
  v.push_back({"group", with({db}, group)});
  v.push_back({"layouts", with({db + " blksize=1024"},
                               {layouts.begin() + 1, layouts.end()})});
  v.push_back({"v3", with({"database version=3.1 dgname=dg1 config-tid=0.200"},
                          {main_group[0], main_group[1], main_group[2], main_group[6]})});
  v.push_back({"v4_9", with({"database version=4.9 dgname=dg1 config-tid=0.200"}, group)});
  v.push_back({"blk128", with({db + " blksize=128 unused=zero"}, group)});
  v.push_back({"blk256_hdr256", with({db + " blksize=256 hdrsize=256"}, group)});
  v.push_back({"counts", with({db + " counts=zero vs_v_cnt=3 pending.vs_dm_cnt=9 state=2"}, group)});
  v.push_back({"damage", with({db},
                              {main_group[0], "volume name=v2 rid=0.1 size=900 nfrag=3 skip=1",
                               "plex name=p2 rid=0.2 body=00ff", "block at=20 magic=XBLK",
                               "disk name=d2 rid=0.3 ref=1", "block at=22 ref=77 frag=1 nfrag=2",
                               "subdisk name=s2 rid=0.4 type=0x1043", main_group[1]})});
  v.push_back({"huge_claims", with({db + " nblocks=4294967295"}, group)});
  return v;
}

struct image_variant {
  std::string name;
  std::string desc;
  std::uint8_t flags;  // pipeline flag bits (sector size, logs)
  bool raw;            // also as a raw image seed
};

std::string content(const std::vector<std::string>& lines) {
  std::string s = " content=config begin\n";
  for (const auto& l : lines) s += "  " + l + "\n";
  return s + "end\n";
}

const char* const log_body =
    " content=log begin\n"
    "  block tid=0.5 seqno=1\n"
    "  entry type=detach rid=0.12 tid=0.7\n"
    "  entry type=app_dirty rid=0.12 tid=0.7 recover=3\n"
    "  entry type=dirty_seqno rid=0.13\n"
    "  block tid=0.6 seqno=2 magic=kLOG\n"
    "  entry slot=19 type=commit tid=0.6\n"
    "  entry type=7\n"
    "  block blkno=9\n"
    "end\n";

std::vector<image_variant> image_variants(const std::vector<std::string>& group,
                                          const std::vector<std::string>& layouts) {
  std::vector<image_variant> v;
  // 480 sectors of 512 bytes: primary 479, alternate 288.
  const std::string d512 =
      "disk sector-size=512 sectors=480\n"
      "header diskid=a0000002-1234-0002-4041-424344454647 dgname=dg1 dgid=8f1e3b4c-0d2a-4e5f-9a6b-7c8d9e0f1a2b seqno=0.17\n";
  const std::string regions512 =
      "region config copy=2 offset=300 len=40\n"
      "region config copy=2 offset=400 len=40 part-offset=40\n"
      "region log copy=1 offset=350 len=8" + std::string(log_body) +
      "region log copy=2 offset=360 len=2 flags=disabled\n"
      "region tagid tag-name=site tag-value=s1 tag-source=local\n"
      "region lockrgn offset=370 len=2 lock=1\n"
      "copy-content config copy=2" + content(group);
  v.push_back({"512_group", d512 + "region config copy=1 offset=100 len=180" + content(group) + regions512,
               pd::fuzz::PIPE_LOGS, true});
  v.push_back({"512_layouts", d512 + "region config copy=1 offset=100 len=180" + content(layouts) + regions512,
               0, true});
  v.push_back({"512_disabled_first",
               d512 + "region config copy=1 offset=100 len=180 flags=disabled\n" + regions512, 0, true});
  v.push_back({"512_newer_alt", d512 + "hdrcopy primary\nhdrcopy alternate seqno=0.99\n" +
                                    "region config copy=1 offset=100 len=180" + content(group),
               0, true});
  v.push_back({"512_bad_primary", d512 + "hdrcopy primary damage=checksum\nhdrcopy alternate\n" +
                                      "region config copy=1 offset=100 len=180" + content(group),
               0, false});
  v.push_back({"512_toc_chain",
               d512 + "tocblock at=1 alt=478\ntocblock at=2 alt=477 damage=magic damage-copy=primary\n" +
                   "region config copy=1 offset=100 len=180 block=0" + content(group) +
                   "region log copy=1 offset=350 len=8 block=1" + log_body,
               pd::fuzz::PIPE_LOGS, false});
  v.push_back({"512_search", "disk sector-size=512 sectors=480\nhdrcopy 64 alternate=64\n", 0, false});
  // Whole disks: the region in a GPT partition, and at the end of an MBR disk.
  v.push_back({"512_gpt_disk", d512 + "region config copy=1 offset=100 len=180" + content(group) +
                                   "whole-disk table=gpt sectors=4096 region=partition\n",
               0, false});
  v.push_back({"512_mbr_disk", d512 + "region config copy=1 offset=100 len=180" + content(group) +
                                   "whole-disk table=mbr sectors=1200\npartition start=40 len=200\n",
               0, false});
  // 64 sectors of 4096 bytes: primary 63, alternate 40.
  const std::string d4096 = "disk sector-size=4096 sectors=64\nheader seqno=0.3\n";
  v.push_back({"4096_group",
               d4096 + "region config copy=1 offset=4 len=16" + content(group) +
                   "region config copy=2 offset=20 len=8\nregion config copy=2 offset=30 len=8 part-offset=8\n" +
                   "region log copy=1 offset=50 len=1" + log_body,
               pd::fuzz::PIPE_4096 | pd::fuzz::PIPE_LOGS, true});
  v.push_back({"4096_layouts", d4096 + "region config copy=1 offset=4 len=30" + content(layouts),
               pd::fuzz::PIPE_4096, true});
  // The sample disk: 2048 sectors, config copies, a log copy, a tag.
  v.push_back({"1m_sample",
               "disk sector-size=512 sectors=2048\nheader seqno=0.17 pub-offset=2048 pub-len=2095104\n"
               "region config copy=1 offset=17 len=800" + content(group) +
                   "region config copy=2 offset=817 len=800\nregion log copy=1 offset=1617 len=200" +
                   log_body,
               pd::fuzz::PIPE_LOGS, false});
  return v;
}

// The records of a standard copy (512-byte blocks after a 512-byte header):
// type word (extension included) and body after the extension.
struct body_seed {
  std::uint32_t type;
  bytes body;
};

std::vector<body_seed> bodies_of(const bytes& copy) {
  std::vector<body_seed> out;
  for (std::size_t off = 512; off + 512 <= copy.size(); off += 512) {
    const std::uint8_t* b = copy.data() + off;
    if (std::memcmp(b, "VBLK", 4) != 0 || (b[8] | b[9] | b[10] | b[11]) == 0) continue;
    if ((b[12] | b[13]) != 0) continue;  // not a first fragment
    std::uint32_t type = (b[18] << 8) | b[19];
    const std::size_t size = (std::size_t{b[20]} << 24) | (b[21] << 16) | (b[22] << 8) | b[23];
    bytes body(b + 24, b + std::min<std::size_t>(512, 24 + size));
    for (std::size_t next = off + 512; body.size() < size && next + 512 <= copy.size(); next += 512) {
      const std::size_t n = std::min<std::size_t>(496, size - body.size());
      body.insert(body.end(), copy.begin() + next + 16, copy.begin() + next + 16 + n);
    }
    if ((type & pd::RTYPE_EXTENDED) && body.size() >= 2) {
      type |= static_cast<std::uint32_t>((body[0] << 8) | body[1]) << 16;
      body.erase(body.begin(), body.begin() + 2);
    }
    out.push_back({type, body});
  }
  return out;
}

void codec_seeds(const std::vector<std::string>& layouts) {
  int n = 0;
  for (std::size_t i = 0; i < layouts.size(); ++i) {
    const bytes copy = config_copy({"database version=4.17", layouts[i]});
    for (const body_seed& bs : bodies_of(copy)) {
      const std::size_t entry = static_cast<std::size_t>(
          std::strtoul(layouts[i].c_str() + std::strlen("record entry="), nullptr, 10));
      bytes rec{0, static_cast<std::uint8_t>(entry)};
      for (int k = 3; k >= 0; --k) rec.push_back(static_cast<std::uint8_t>(bs.type >> (8 * k)));
      rec.insert(rec.end(), bs.body.begin(), bs.body.end());
      write_seed("codec", "record_" + std::to_string(n++), rec);
      // Each group that applies, on its own.
      const pd::rec2field* r2f = &pd::rec2field_table[entry];
      std::vector<unsigned char> sp(pd::rec2field_struct_size(r2f) + 1);
      if (pd::voldbf_unfmt_tbl(r2f, bs.type, sp.data(), bs.body.data(),
                               bs.body.data() + bs.body.size()) == nullptr) {
        pd::voldbf_free_tbl(r2f, sp.data());
        continue;
      }
      for (std::size_t g = 0; g < pd::R2F_MAXGROUPS && r2f->r2f_tbls[g].nflds != 0; ++g) {
        const pd::r2f_group& grp = r2f->r2f_tbls[g];
        if ((bs.type & grp.flagmask) != grp.flagvalue) continue;
        bytes gb(pd::dbf_tblsize(grp.ftbl, grp.nflds, sp.data()));
        pd::dbf_fmt_tbl(grp.ftbl, grp.nflds, sp.data(), gb.data());
        gb.insert(gb.begin(), {1, static_cast<std::uint8_t>(entry), static_cast<std::uint8_t>(g)});
        write_seed("codec", "group_" + std::to_string(n++), gb);
      }
      pd::voldbf_free_tbl(r2f, sp.data());
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_seeds OUTDIR\n");
    return 2;
  }
  outdir = argv[1];
  for (const char* t : {"", "/pipeline", "/codec", "/store"}) mkdir((outdir + t).c_str(), 0755);

  const std::vector<std::string> all_layouts = every_layout();
  const std::vector<std::string> group(std::begin(main_group), std::end(main_group));
  codec_seeds(all_layouts);
  // The layouts the decoder chooses by type code (the others are written
  // only by older releases or never chosen): copies that load whole.
  std::vector<std::string> layouts{"database version=4.17 dgname=dg1 config-tid=0.300"};
  for (const std::string& l : all_layouts) {
    const auto entry = std::strtoul(l.c_str() + std::strlen("record entry="), nullptr, 10);
    const pd::rec2field* r2f = &pd::rec2field_table[entry];
    if (chosen_entry(r2f)) layouts.push_back(l);
  }

  for (const auto& [name, lines] : copy_variants(layouts)) {
    std::string error;
    const bytes copy = pd::build_config_copy(lines, (name == "layouts" ? 256 : copy_blocks) * 512, &error);
    if (copy.empty()) {
      std::fprintf(stderr, "copy %s: %s\n", name.c_str(), error.c_str());
      return 1;
    }
    write_seed("store", name, copy);
    bytes hdr{3};
    hdr.insert(hdr.end(), copy.begin(), copy.begin() + 512);
    write_seed("codec", "dbheader_" + name, hdr);
  }

  for (const image_variant& iv : image_variants(group, layouts)) {
    std::string error;
    const bytes img = pd::build_image(iv.desc, &error);
    if (img.empty()) {
      std::fprintf(stderr, "image %s: %s\n", iv.name.c_str(), error.c_str());
      return 1;
    }
    const auto flags = static_cast<std::uint8_t>(iv.flags | pd::fuzz::PIPE_FIXSUMS | pd::fuzz::PIPE_SCAN |
                                                pd::fuzz::PIPE_CHECK |
                                                pd::fuzz::PIPE_JSON | pd::fuzz::PIPE_LOCATE);
    write_seed("pipeline", iv.name, encode_sparse_input(flags, img, 0));
    if (iv.raw) {
      bytes raw{iv.flags};
      raw.insert(raw.end(), img.begin(), img.end());
      write_seed("pipeline", iv.name + "_raw", raw);
    }
    // The primary header sector, for the codec.
    const std::size_t sector = (iv.flags & pd::fuzz::PIPE_4096) ? 4096 : 512;
    bytes hdr{2};
    hdr.insert(hdr.end(), img.end() - static_cast<long>(sector), img.end() - static_cast<long>(sector) + 512);
    write_seed("codec", "privheader_" + iv.name, hdr);
  }
  std::printf("seeds: %zu layouts, %zu decodable\n", all_layouts.size(), layouts.size() - 1);
  return 0;
}
