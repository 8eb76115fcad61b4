// End-to-end helpers for the configuration report: configuration copies
// built from record structures (encoded by the record layouts, framed in
// blocks), image descriptions for the builder, running the real privdiag,
// and the expected frame and block-map lines of the records placed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "config_copy_builder.h"
#include "config_db/block_store.h"
#include "config_db/record_layouts.h"
#include "privbuild/builder.h"
#include "config_db/records.h"
#include "test_support.h"

namespace pd::test {

// One record laid out in a copy.
struct placed_record {
  std::uint32_t ref = 0;
  std::uint16_t flag = 0;
  std::uint32_t type = 0;  // the whole type word
  std::size_t size = 0;    // body bytes
  std::size_t first = 0;   // first block
  std::size_t nblocks = 0;
};

// The stored body of a record of type word `type` holding `sp`.
inline bytes encode_record(std::uint32_t type, const void* sp) {
  db_record r{};
  r.dbr_type = type;
  const std::size_t n = voldbsup_record_size(type, sp);
  bytes b(n);
  if (voldbsup_format_record(nullptr, &r, b.data(), 0, n, sp) != 0) b.clear();
  voldbsup_format_cleanup_record(nullptr, &r);
  return b;
}

// A configuration copy: the database header in the first `hdrsize` bytes,
// then records in consecutive blocks. Blocks not used hold unused "VBLK"
// blocks.
class config_copy {
 public:
  explicit config_copy(std::size_t nblocks, std::size_t blksize = 128, std::size_t hdrsize = 512)
      : claimed_nblocks(nblocks),
        claimed_blksize(blksize),
        claimed_hdrsize(hdrsize),
        blksize_(blksize),
        hdrsize_(hdrsize),
        img_(nblocks, blksize),
        next_(hdrsize / blksize) {}

  voldb_info& header() { return hdr_; }
  // What the header claims (defaults: the copy's own sizes).
  std::size_t claimed_nblocks, claimed_blksize, claimed_hdrsize;

  // Places the record at the next free block; returns what was placed.
  placed_record add(std::uint32_t ref, std::uint32_t type, const void* sp,
                    std::uint16_t flag = 0) {
    return add_body(ref, type, encode_record(type, sp), flag);
  }
  // Places raw body bytes (nfrag overrides the fragment count).
  placed_record add_body(std::uint32_t ref, std::uint32_t type, const bytes& body,
                         std::uint16_t flag = 0, long nfrag = -1) {
    placed_record p;
    p.ref = ref;
    p.flag = flag;
    p.type = type;
    p.size = body.size();
    p.first = next_;
    p.nblocks = img_.put_record(next_, ref, flag, static_cast<std::uint16_t>(type), body, nfrag);
    next_ += p.nblocks;
    placed.push_back(p);
    return placed.back();
  }
  // Leaves `n` unused blocks.
  void skip(std::size_t n) { next_ += n; }

  copy_image& image() { return img_; }
  std::size_t blksize() const { return blksize_; }

  // The copy with its header formatted.
  bytes data() {
    auto db = std::make_unique<dbase>();
    db->ddb_nblocks = claimed_nblocks;
    db->ddb_blksize = claimed_blksize;
    db->ddb_hdrsize = claimed_hdrsize;
    bytes out = img_.data();
    voldbsup_format_header(db.get(), out.data(), std::min(hdrsize_, out.size()), &hdr_);
    return out;
  }

  // "#Record ...\n#Blocks: ...\n" of a complete record.
  std::string frame(const placed_record& p, std::uint16_t gen_flags = 0x4) const {
    char line[160];
    std::snprintf(line, sizeof line, "#Record %4lu: type=0x%04x flags=0x%04x gen_flags=0x%04x ",
                  static_cast<unsigned long>(p.ref), p.type, p.flag, gen_flags);
    std::string s = line;
    s += "size=" + std::to_string(p.size) + "\n#Blocks:";
    for (std::size_t i = 0; i < p.nblocks; ++i) s += " " + std::to_string(p.first + i);
    return s + "\n";
  }

  // The block-map lines of the records placed, in block order.
  std::string block_map() const {
    std::vector<placed_record> v = placed;
    std::sort(v.begin(), v.end(),
              [](const placed_record& a, const placed_record& b) { return a.first < b.first; });
    const std::size_t payload = blksize_ - 16;
    std::string s;
    for (const placed_record& p : v) {
      for (std::size_t f = 0; f < p.nblocks; ++f) {
        const std::size_t off = f == 0 ? 0 : payload * f - 8;
        const std::size_t room = f == 0 ? payload - 8 : payload;
        const std::size_t frag = std::min(room, p.size - off);
        char line[160];
        std::snprintf(line, sizeof line,
                      "#Block %4lu: flag=0x0000 ref=%-4lu offset=%-4lu frag_size=%-4lu\n",
                      static_cast<unsigned long>(p.first + f), static_cast<unsigned long>(p.ref),
                      static_cast<unsigned long>(off), static_cast<unsigned long>(frag));
        s += line;
      }
    }
    return s;
  }

  std::vector<placed_record> placed;

 private:
  std::size_t blksize_, hdrsize_;
  copy_image img_;
  voldb_info hdr_{};
  std::size_t next_;
};

// Stored type words used by the tests.
inline constexpr std::uint32_t T_VOL = 0x51;
inline constexpr std::uint32_t T_PLEX = 0x42;
inline constexpr std::uint32_t T_SD = 0x43;
inline constexpr std::uint32_t T_DM = 0x44;
inline constexpr std::uint32_t T_DG = 0x45;

inline constexpr const char* kGroupId = "8f1e3b4c-0d2a-4e5f-9a6b-7c8d9e0f1a2b";

// Hex lines for a builder "hex" body.
inline std::string hex_body(const bytes& b) {
  std::string s;
  char two[3];
  for (std::size_t i = 0; i < b.size(); ++i) {
    std::snprintf(two, sizeof two, "%02x", b[i]);
    s += two;
    s += (i % 32 == 31 || i + 1 == b.size()) ? "\n" : " ";
  }
  return s;
}

// The standard disk: 2048 sectors of 512 bytes, config copies 1 and 2 at
// sectors 17 and 817 (800 sectors each), log copy 1 at 1617 (200 sectors).
// `regions` replaces the region statements when not empty.
inline std::string standard_disk(const std::string& regions = "") {
  std::string s = "disk sector-size=512 sectors=2048\n"
                  "header version=3.1 diskid=1111.22.e2e hostid=\"\"\n"
                  "header dgname=e2edg dgid=" + std::string(kGroupId) + "\n"
                  "header seqno=0.17 time=1700000000 pub-id=3 priv-id=4 pub-offset=2048 "
                  "pub-len=100000\n";
  if (regions.empty()) {
    s += "region config copy=1 offset=17 len=800\n"
         "region config copy=2 offset=817 len=800\n"
         "region log copy=1 offset=1617 len=200\n";
  } else {
    s += regions;
  }
  return s;
}

// A copy-content statement filling configuration copy `copy`.
inline std::string copy_content(int copy, const bytes& data) {
  return "copy-content config copy=" + std::to_string(copy) + " content=hex begin\n" +
         hex_body(data) + "end\n";
}

inline std::string standard_header_lines() {
  return std::string("diskid:  1111.22.e2e\n"
                     "group:   name=e2edg id=") + kGroupId + "\n"
         "flags:   private autoimport\n"
         "import:  bootsig=0 hostid=\n"
         "diskset: id=00000000-0000-0000-0000-000000000000\n"
         "version: 3.1\n"
         "iosize:  512\n"
         "public:  slice=3 offset=2048 len=100000\n"
         "private: slice=4 offset=0 len=2048\n"
         "update:  seqno=0.17 time=1700000000\n"
         "headers: 2047 1856\n";
}

// Header and TOC lines of the standard disk (two enabled copies), with the
// two line ends the driver adds.
inline std::string standard_prefix() {
  return standard_header_lines() +
         "configs: count=2 len=800\n"
         "logs:    count=1 len=200\n"
         "tocblks: 0\n"
         "tocs:    1/2046\n"
         "Defined regions:\n"
         " config   priv     17-   816[   800]: copy=01 offset=000000 enabled\n"
         " config   priv    817-  1616[   800]: copy=02 offset=000000 enabled\n"
         " log      priv   1617-  1816[   200]: copy=01 offset=000000 enabled\n"
         "\n\n";
}

// Builds the image in process, writes it and runs privdiag on it (with a
// sector-size argument when `sector_size` is not empty).
inline process_result run_privdiag_on(const std::string& description,
                                      const std::string& sector_size = "") {
  std::string error;
  const std::vector<std::uint8_t> img = build_image(description, &error);
  if (img.empty()) {
    process_result r;
    r.err = "image not built: " + error;
    return r;
  }
  static int serial = 0;
  const std::string path = temp_dir() + "/e2e" + std::to_string(++serial) + ".img";
  write_file(path, img);
  if (sector_size.empty()) return run_process({PD_PRIVDIAG_BIN, path});
  return run_process({PD_PRIVDIAG_BIN, sector_size, path});
}

// Record structures with the members the report prints.
inline volrec make_vol(const char* name, std::uint32_t rid, voff_t len, std::uint32_t nplex,
                       std::uint32_t tid) {
  volrec v{};
  std::strcpy(v.v_name, name);
  v.v_rid = {rid, 0};
  v.v_update_tid = {tid, 0};
  v.v_len = len;
  v.v_pl_num = nplex;
  std::strcpy(v.v_use_type, "gen");
  std::strcpy(v.v_state, "ACTIVE");
  v.v_read_pol = VOL_RP_ROUND;
  v.v_nt_part_type = 7;
  return v;
}

inline plexrec make_plex(const char* name, std::uint32_t rid, std::uint32_t vol_rid,
                         std::uint32_t nsd, std::uint32_t tid) {
  plexrec p{};
  std::strcpy(p.pl_name, name);
  p.pl_rid = {rid, 0};
  p.pl_update_tid = {tid, 0};
  p.pl_vol_rid = {vol_rid, 0};
  p.pl_sd_num = nsd;
  p.pl_layout = PL_LAYOUT_CONCAT;
  std::strcpy(p.pl_state, "ACTIVE");
  return p;
}

inline sdrec make_sd(const char* name, std::uint32_t rid, std::uint32_t plex_rid,
                     std::uint32_t dm_rid, voff_t offset, voff_t len, std::uint32_t tid) {
  sdrec s{};
  std::strcpy(s.sd_name, name);
  s.sd_rid = {rid, 0};
  s.sd_update_tid = {tid, 0};
  s.sd_plex_rid = {plex_rid, 0};
  s.sd_dm_rid = {dm_rid, 0};
  s.sd_dm_offset = offset;
  s.sd_len = len;
  return s;
}

inline dmrec make_dm(const char* name, std::uint32_t rid, const char* diskid,
                     std::uint32_t tid) {
  dmrec d{};
  std::strcpy(d.dm_name, name);
  d.dm_rid = {rid, 0};
  d.dm_update_tid = {tid, 0};
  std::strcpy(d.dm_diskid, diskid);
  return d;
}

inline dgrec make_dg(const char* name, std::uint32_t rid, std::uint32_t tid) {
  dgrec g{};
  std::strcpy(g.dg_real_name, name);
  g.dg_rid = {rid, 0};
  g.dg_update_tid = {tid, 0};
  std::strcpy(g.dg_dgid, kGroupId);
  return g;
}

// A version 4.17 header in the clean state with the given counts.
inline void set_header(voldb_info& h, std::uint32_t tid, unsigned nvol, unsigned nplex,
                       unsigned nsd, unsigned ndm) {
  h.vdbi_commit_state = VDBI_CLEAN;
  h.vdbi_version_major = 4;
  h.vdbi_version_minor = 17;
  std::strcpy(h.vdbi_dg_name, "e2edg");
  std::strcpy(h.vdbi_dg_id, kGroupId);
  h.vdbi_config_tid = {tid, 0};
  h.vdbi_pending_tid = {tid, 0};
  h.vdbi_config_sum.vs_v_cnt = nvol;
  h.vdbi_config_sum.vs_pl_cnt = nplex;
  h.vdbi_config_sum.vs_sd_cnt = nsd;
  h.vdbi_config_sum.vs_dm_cnt = ndm;
  h.vdbi_pending_sum = h.vdbi_config_sum;
}

}  // namespace pd::test
