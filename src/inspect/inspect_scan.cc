// scan: every sector of the image is searched for the magic of each stored
// structure at its start, and every candidate is listed with what decoding
// it says: checksums, sequence numbers and block numbers. When the header
// and the table of contents can be located, each candidate is also placed:
// the copy (configuration or log) and the block within it, so that a block
// number that disagrees with its position shows up, and TOC blocks carry
// the header's sequence number for comparison.
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "base/errors.h"
#include "codec/text_forms.h"
#include "config_db/block_store.h"
#include "config_db/record_layouts.h"
#include "config_db/records.h"
#include "io/messages.h"
#include "inspect/inspect.h"
#include "inspect/inspect_places.h"
#include "private_region/header.h"
#include "private_region/log_block.h"
#include "private_region/toc.h"

namespace pd {

namespace {

constexpr std::size_t SCAN_RUN = 1 << 20;  // bytes read at a time

struct scan_magic {
  const char* magic;
  std::size_t len;
};

const scan_magic scan_magics[] = {
    {header_magic, PRIV_MAGIC_LEN},     {toc_magic, TOC_MAGIC_LEN},
    {voldb_magic, VOLDB_MAGIC_LEN},     {ddb_blkhdr_magic, DDB_BLKHDR_MAGIC_LEN},
    {klog_magic, KLOG_MAGIC_LEN},       {klog_magic_alt, KLOG_MAGIC_LEN},
};

class scanner {
 public:
  scanner(session& s, inspect_image& img, const copy_places& places)
      : s_(s), img_(img), places_(places) {}

  // Examines the sector at `sector` whose bytes (`len`, at most one sector)
  // are `p`; returns whether it was a candidate.
  bool examine(std::uint64_t sector, const std::uint8_t* p, std::size_t len);
  // Prints a pending run of unused blocks.
  void flush();

 private:
  // Consecutive unused blocks (reference 0) whose numbers count up with
  // their sectors and agree with their places are listed as one line.
  struct unused_run {
    std::uint64_t first_sector = 0;
    std::uint64_t count = 0;
    std::uint32_t first_blkno = 0;
    std::uint16_t frag = 0, nfrag = 0;  // of the first block
    std::optional<copy_position> first_place;
  };
  bool extend_run(std::uint64_t sector, const std::uint8_t* p, std::size_t len);

  void prefix(std::uint64_t sector, const char* magic);
  void privhead(std::uint64_t sector, const std::uint8_t* p, std::size_t len);
  void tocblock(const std::uint8_t* p, std::size_t len);
  void vmdb(std::uint64_t sector, const std::uint8_t* p, std::size_t len);
  void vblk(std::uint64_t sector, const std::uint8_t* p, std::size_t len);
  void klog(std::uint64_t sector, const std::uint8_t* p, std::size_t len);
  void truncated(std::size_t len);

  session& s_;
  inspect_image& img_;
  const copy_places& places_;
  unused_run run_;
};

bool scanner::extend_run(std::uint64_t sector, const std::uint8_t* p, std::size_t len) {
  ddb_blkhdr_info h;
  if (ddb_block_header_decode(p, p + len, &h) == nullptr || !h.dbh_magic_ok || h.dbh_ref != 0) {
    return false;
  }
  std::uint32_t blkno = h.dbh_blkno;
  std::optional<copy_position> at = places_.position(sector);
  if (at && (at->kind != copy_kind::config || at->rem != 0 || at->block != blkno)) return false;
  if (places_.joined() && !at) return false;
  bool continues = run_.count > 0 && sector == run_.first_sector + run_.count &&
                   blkno == run_.first_blkno + run_.count &&
                   (!at || (run_.first_place && run_.first_place->copy == at->copy));
  if (!continues) {
    flush();
    run_.first_sector = sector;
    run_.first_blkno = blkno;
    run_.frag = h.dbh_frag;
    run_.nfrag = h.dbh_nfrag;
    run_.first_place = at;
  }
  run_.count++;
  return true;
}

void scanner::flush() {
  if (run_.count == 0) return;
  std::uint64_t last = run_.first_sector + run_.count - 1;
  std::uint32_t last_blkno = run_.first_blkno + static_cast<std::uint32_t>(run_.count - 1);
  if (run_.count == 1) {
    prefix(run_.first_sector, ddb_blkhdr_magic);
    std::fprintf(s_.out, " block %u, ref 0, fragment %u of %u%s\n", run_.first_blkno, run_.frag,
                 run_.nfrag, places_.describe(run_.first_sector).c_str());
  } else {
    std::uint64_t ss = static_cast<std::uint64_t>(img_.sector_size());
    std::fprintf(s_.out, "sectors %llu-%llu (bytes %llu-%llu): VBLK blocks %u-%u, unused (ref 0)",
                 static_cast<unsigned long long>(run_.first_sector),
                 static_cast<unsigned long long>(last),
                 static_cast<unsigned long long>(run_.first_sector * ss),
                 static_cast<unsigned long long>(last * ss), run_.first_blkno, last_blkno);
    if (run_.first_place) {
      std::fprintf(s_.out, "; config copy %d, blocks %u-%u", run_.first_place->copy,
                   run_.first_blkno, last_blkno);
    }
    std::fputc('\n', s_.out);
  }
  run_ = unused_run{};
}

void scanner::prefix(std::uint64_t sector, const char* magic) {
  std::uint64_t ss = static_cast<std::uint64_t>(img_.sector_size());
  std::fprintf(s_.out, "sector %llu (byte %llu): %s", static_cast<unsigned long long>(sector),
               static_cast<unsigned long long>(sector * ss), magic);
}

void scanner::truncated(std::size_t len) {
  std::fprintf(s_.out, " truncated: only %zu bytes before the end of the image\n", len);
}

void scanner::privhead(std::uint64_t sector, const std::uint8_t* p, std::size_t len) {
  if (len < PRIV_HEADER_SIZE) return truncated(len);
  std::uint32_t stored = priv_header_stored_checksum(p);
  std::uint32_t computed = static_cast<std::uint32_t>(priv_header_checksum(p));
  if (stored == computed) {
    std::fprintf(s_.out, " checksum correct");
  } else {
    std::fprintf(s_.out, " checksum 0x%08x expected 0x%08x", stored, computed);
  }
  priv_header_info hdr;
  int res = priv_unformat_header(&hdr, p);
  if (res != 0) {
    std::fprintf(s_.out, ", does not decode: error %d: %s\n", res, vol_strerror(res));
    return;
  }
  char seq[24];
  std::fprintf(s_.out, ", decodes: version %u.%u seqno %s", hdr.phi_version_major,
               hdr.phi_version_minor, volseqnotostr(hdr.phi_update_seqno, seq));
  voff_t here = static_cast<voff_t>(sector);
  if (here == hdr.phi_primary_header) std::fprintf(s_.out, ", at its primary position");
  if (here == hdr.phi_alt_header) std::fprintf(s_.out, ", at its alternate position");
  if (here != hdr.phi_primary_header && here != hdr.phi_alt_header) {
    std::fprintf(s_.out, ", names sectors %lld/%lld as its positions",
                 static_cast<long long>(hdr.phi_primary_header),
                 static_cast<long long>(hdr.phi_alt_header));
  }
  std::fputc('\n', s_.out);
}

void scanner::tocblock(const std::uint8_t* p, std::size_t len) {
  toc_block_info b;
  if (toc_block_decode(p, p + len, &b) == nullptr) return truncated(len);
  std::uint32_t stored = b.tbi_checksum;
  std::uint32_t computed = static_cast<std::uint32_t>(priv_toc_checksum(p, len));
  if (stored == computed) {
    std::fprintf(s_.out, " checksum correct");
  } else {
    std::fprintf(s_.out, " checksum 0x%08x expected 0x%08x", stored, computed);
  }
  const volseqno_t& seq = b.tbi_seqno;
  char sb[24];
  std::fprintf(s_.out, ", seqno %s", volseqnotostr(seq, sb));
  if (places_.header_seqno_known) {
    if (seqno_equal(seq, places_.header_seqno)) {
      std::fprintf(s_.out, " (the header's)");
    } else {
      std::fprintf(s_.out, " (header has %s)", volseqnotostr(places_.header_seqno, sb));
    }
  }
  std::fprintf(s_.out, ", next %lld/%lld\n", static_cast<long long>(b.tbi_next),
               static_cast<long long>(b.tbi_alt_next));
}

void scanner::vmdb(std::uint64_t sector, const std::uint8_t* p, std::size_t len) {
  voldb_prefix_info h;
  if (voldb_prefix_decode(p, p + len, &h) == nullptr) return truncated(len);
  std::fprintf(s_.out, " nblocks %u, blksize %u, hdrsize %u, version %u.%u, state %u",
               h.vdp_nblocks, h.vdp_blksize, h.vdp_hdrsize, h.vdp_version_major,
               h.vdp_version_minor, h.vdp_commit_state);
  static const dbase_ops no_ops{};
  dbase* db = ddb_alloc(&no_ops);
  int res = VE_NOMEM;
  if (db != nullptr) {
    voldb_info vi{};
    res = voldbsup_unformat_header(db, p, len < VOLDB_HDR_DECODE ? len : VOLDB_HDR_DECODE, &vi);
    ddb_free(db);
  }
  if (res == 0) {
    std::fprintf(s_.out, ", decodes");
  } else {
    std::fprintf(s_.out, ", does not decode: error %d: %s", res, vol_strerror(res));
  }
  std::fprintf(s_.out, "%s\n", places_.describe(sector, copy_kind::config, 0).c_str());
}

void scanner::vblk(std::uint64_t sector, const std::uint8_t* p, std::size_t len) {
  ddb_blkhdr_info h;
  if (ddb_block_header_decode(p, p + len, &h) == nullptr) return truncated(len);
  std::fprintf(s_.out, " block %u, ref %u, fragment %u of %u%s\n", h.dbh_blkno, h.dbh_ref,
               h.dbh_frag, h.dbh_nfrag,
               places_.describe(sector, copy_kind::config, h.dbh_blkno).c_str());
}

void scanner::klog(std::uint64_t sector, const std::uint8_t* p, std::size_t len) {
  klog_block_info h;
  if (klog_block_decode(p, p + len, &h) == nullptr) return truncated(len);
  char tb[24];
  std::fprintf(s_.out, " block %u, tid %s, seqno %u, len %u%s\n", h.klb_blkno,
               volseqnotostr(h.klb_tid, tb), h.klb_seqno, h.klb_loglen,
               places_.describe(sector, copy_kind::log, h.klb_blkno).c_str());
}

bool scanner::examine(std::uint64_t sector, const std::uint8_t* p, std::size_t len) {
  if (extend_run(sector, p, len)) return true;
  for (const scan_magic& m : scan_magics) {
    if (len < m.len || std::memcmp(p, m.magic, m.len) != 0) continue;
    flush();
    prefix(sector, m.magic);
    if (m.magic[0] == 'P') {
      privhead(sector, p, len);
    } else if (m.magic[0] == 'T') {
      tocblock(p, len);
    } else if (m.magic[1] == 'M') {
      vmdb(sector, p, len);
    } else if (m.magic[0] == 'V') {
      vblk(sector, p, len);
    } else {
      klog(sector, p, len);
    }
    return true;
  }
  return false;
}

}  // namespace

int inspect_scan(session& s, const inspect_target& t) {
  inspect_image img(s);
  if (!img.open(t)) return INSPECT_USAGE_IO;
  copy_places places = copy_places::locate_quietly(img);
  std::fprintf(s.out, "%s\n", places.summary().c_str());
  scanner sc(s, img, places);
  std::size_t ss = static_cast<std::size_t>(img.sector_size());
  std::vector<std::uint8_t> run(SCAN_RUN);
  std::uint64_t found = 0;
  std::uint64_t sector = 0;
  for (std::uint64_t off = 0; off < img.file_size(); off += SCAN_RUN) {
    std::size_t n = img.read_at(off, run.data(), SCAN_RUN);
    if (n == 0) break;
    for (std::size_t at = 0; at < n; at += ss, sector++) {
      std::size_t len = n - at < ss ? n - at : ss;
      if (sc.examine(sector, run.data() + at, len)) found++;
    }
  }
  sc.flush();
  std::fprintf(s.out, "%llu candidate(s) in %llu sector(s)\n",
               static_cast<unsigned long long>(found), static_cast<unsigned long long>(sector));
  return INSPECT_OK;
}

}  // namespace pd
