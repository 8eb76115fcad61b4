// scan: every sector of the image is searched for the magic of each stored
// structure at its start, and every candidate is listed with what decoding
// it says: checksums, sequence numbers and block numbers. When the header
// and the table of contents can be located, each candidate is also placed:
// the copy (configuration or log) and the block within it, so that a block
// number that disagrees with its position shows up, and TOC blocks carry
// the header's sequence number for comparison.
//
// Where the header and the table of contents say a structure lies and its
// magic is not there, the sector is listed as damaged, with the bytes found
// instead. Consecutive blocks of one copy that carry the same wrong bytes
// are one line, as are runs of unused store blocks. --range limits the
// sectors looked at; on a terminal a progress line on the error stream
// tells how far a long scan has come.
#include <chrono>
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
#include "inspect/output.h"
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

// A line on the error stream, rewritten in place, once the scan has run
// for a second: how far it has come.
class progress_line {
 public:
  progress_line(FILE* err, bool on, std::uint64_t first, std::uint64_t end)
      : err_(err), on_(on), first_(first), end_(end), start_(std::chrono::steady_clock::now()) {}
  ~progress_line() { hide(); }
  progress_line(const progress_line&) = delete;
  progress_line& operator=(const progress_line&) = delete;

  // Erases the line, before a line of the scan is written: both may go to
  // one terminal.
  void hide() {
    if (shown_) std::fprintf(err_, "\r%*s\r", static_cast<int>(width_), "");
    shown_ = false;
  }

  void at(std::uint64_t sector) {
    if (!on_) return;
    auto now = std::chrono::steady_clock::now();
    if (now - start_ < std::chrono::seconds(1) || now - last_ < std::chrono::milliseconds(200)) {
      return;
    }
    last_ = now;
    shown_ = true;
    unsigned long long done = sector - first_, all = end_ - first_;
    int n = std::fprintf(err_, "\rscan: sector %llu of %llu-%llu (%llu%%)",
                         static_cast<unsigned long long>(sector),
                         static_cast<unsigned long long>(first_),
                         static_cast<unsigned long long>(end_ - 1),
                         all == 0 ? 100ull : done * 100 / all);
    if (n > 0 && static_cast<std::size_t>(n) > width_) width_ = static_cast<std::size_t>(n);
  }

 private:
  FILE* err_;
  bool on_;
  std::uint64_t first_, end_;
  std::chrono::steady_clock::time_point start_, last_;
  bool shown_ = false;
  std::size_t width_ = 0;
};

class scanner {
 public:
  scanner(session& s, inspect_image& img, const copy_places& places, progress_line& progress)
      : out_(s.out), img_(img), places_(places), progress_(progress) {}

  // Examines the sector at `sector` whose bytes (`len`, at most one sector)
  // are `p`; returns whether it was a candidate.
  bool examine(std::uint64_t sector, const std::uint8_t* p, std::size_t len);
  // Prints the pending runs.
  void flush();
  std::uint64_t damaged() const { return damaged_; }

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
  void flush_unused();

  // Consecutive blocks of one copy where the same magic is expected and
  // the same bytes are found.
  struct damage_run {
    std::uint64_t first_sector = 0, last_sector = 0;
    std::uint64_t count = 0;
    std::string what;  // "expected VBLK, found ..."
    std::string where;  // of the first
    std::optional<copy_position> first, last;
  };
  void damage(std::uint64_t sector, const expected_magic& e, const std::uint8_t* p,
              std::size_t len);
  void flush_damage();
  void range_heading(std::uint64_t first, std::uint64_t last);

  void prefix(std::uint64_t sector, const char* magic);
  void privhead(std::uint64_t sector, const std::uint8_t* p, std::size_t len);
  void tocblock(const std::uint8_t* p, std::size_t len);
  void vmdb(std::uint64_t sector, const std::uint8_t* p, std::size_t len);
  void vblk(std::uint64_t sector, const std::uint8_t* p, std::size_t len);
  void klog(std::uint64_t sector, const std::uint8_t* p, std::size_t len);
  void truncated(std::size_t len);

  text_out out_;
  inspect_image& img_;
  const copy_places& places_;
  progress_line& progress_;
  unused_run run_;
  damage_run bad_;
  std::uint64_t damaged_ = 0;
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
  flush_unused();
  flush_damage();
}

void scanner::range_heading(std::uint64_t first, std::uint64_t last) {
  progress_.hide();
  std::uint64_t ss = static_cast<std::uint64_t>(img_.sector_size());
  out_.printf("sectors %llu-%llu (bytes %llu-%llu): ", static_cast<unsigned long long>(first),
              static_cast<unsigned long long>(last), static_cast<unsigned long long>(first * ss),
              static_cast<unsigned long long>(last * ss));
}

void scanner::damage(std::uint64_t sector, const expected_magic& e, const std::uint8_t* p,
                     std::size_t len) {
  std::size_t want = std::strlen(e.magic);
  std::string what = std::string("expected ") + e.magic + ", found ";
  what += len < want ? "only " + std::to_string(len) + " bytes before the end of the image"
                     : "\"" + escape_text(std::string_view(reinterpret_cast<const char*>(p), want)) +
                           "\"";
  damaged_++;
  bool continues = bad_.count > 0 && e.at && bad_.last && what == bad_.what &&
                   e.at->kind == bad_.last->kind && e.at->copy == bad_.last->copy &&
                   e.at->block == bad_.last->block + 1;
  if (continues) {
    bad_.last_sector = sector;
    bad_.last = e.at;
    bad_.count++;
    return;
  }
  flush();
  bad_ = damage_run{sector, sector, 1, what, e.where, e.at, e.at};
}

void scanner::flush_damage() {
  if (bad_.count == 0) return;
  if (bad_.count == 1) {
    prefix(bad_.first_sector, "damaged: ");
  } else {
    range_heading(bad_.first_sector, bad_.last_sector);
    out_.text("damaged: ");
  }
  out_.text(bad_.what);
  if (bad_.count == 1) {
    out_.text(bad_.where);
  } else {
    out_.printf("; %s copy %d, blocks %llu-%llu",
                bad_.first->kind == copy_kind::config ? "config" : "log", bad_.first->copy,
                static_cast<unsigned long long>(bad_.first->block),
                static_cast<unsigned long long>(bad_.last->block));
  }
  out_.text("\n");
  bad_ = damage_run{};
}

void scanner::flush_unused() {
  if (run_.count == 0) return;
  std::uint64_t last = run_.first_sector + run_.count - 1;
  std::uint32_t last_blkno = run_.first_blkno + static_cast<std::uint32_t>(run_.count - 1);
  if (run_.count == 1) {
    prefix(run_.first_sector, ddb_blkhdr_magic);
    out_.printf(" block %u, ref 0, fragment %u of %u%s\n", run_.first_blkno, run_.frag,
                 run_.nfrag, places_.describe(run_.first_sector).c_str());
  } else {
    range_heading(run_.first_sector, last);
    out_.printf("VBLK blocks %u-%u, unused (ref 0)", run_.first_blkno, last_blkno);
    if (run_.first_place) {
      out_.printf("; config copy %d, blocks %u-%u", run_.first_place->copy,
                   run_.first_blkno, last_blkno);
    }
    out_.text("\n");
  }
  run_ = unused_run{};
}

void scanner::prefix(std::uint64_t sector, const char* magic) {
  progress_.hide();
  std::uint64_t ss = static_cast<std::uint64_t>(img_.sector_size());
  out_.printf("sector %llu (byte %llu): %s", static_cast<unsigned long long>(sector),
               static_cast<unsigned long long>(sector * ss), magic);
}

void scanner::truncated(std::size_t len) {
  out_.printf(" truncated: only %zu bytes before the end of the image\n", len);
}

void scanner::privhead(std::uint64_t sector, const std::uint8_t* p, std::size_t len) {
  if (len < PRIV_HEADER_SIZE) return truncated(len);
  std::uint32_t stored = priv_header_stored_checksum(p);
  std::uint32_t computed = static_cast<std::uint32_t>(priv_header_checksum(p));
  if (stored == computed) {
    out_.printf(" checksum correct");
  } else {
    out_.printf(" checksum 0x%08x expected 0x%08x", stored, computed);
  }
  priv_header_info hdr;
  int res = priv_unformat_header(&hdr, p);
  if (res != 0) {
    out_.printf(", does not decode: error %d: %s\n", res, vol_strerror(res));
    return;
  }
  char seq[24];
  out_.printf(", decodes: version %u.%u seqno %s", hdr.phi_version_major,
               hdr.phi_version_minor, volseqnotostr(hdr.phi_update_seqno, seq));
  voff_t here = static_cast<voff_t>(sector);
  if (here == hdr.phi_primary_header) out_.printf(", at its primary position");
  if (here == hdr.phi_alt_header) out_.printf(", at its alternate position");
  if (here != hdr.phi_primary_header && here != hdr.phi_alt_header) {
    out_.printf(", names sectors %lld/%lld as its positions",
                 static_cast<long long>(hdr.phi_primary_header),
                 static_cast<long long>(hdr.phi_alt_header));
  }
  out_.text("\n");
}

void scanner::tocblock(const std::uint8_t* p, std::size_t len) {
  toc_block_info b;
  if (toc_block_decode(p, p + len, &b) == nullptr) return truncated(len);
  std::uint32_t stored = b.tbi_checksum;
  std::uint32_t computed = static_cast<std::uint32_t>(priv_toc_checksum(p, len));
  if (stored == computed) {
    out_.printf(" checksum correct");
  } else {
    out_.printf(" checksum 0x%08x expected 0x%08x", stored, computed);
  }
  const volseqno_t& seq = b.tbi_seqno;
  char sb[24];
  out_.printf(", seqno %s", volseqnotostr(seq, sb));
  if (places_.header_seqno_known) {
    if (seqno_equal(seq, places_.header_seqno)) {
      out_.printf(" (the header's)");
    } else {
      out_.printf(" (header has %s)", volseqnotostr(places_.header_seqno, sb));
    }
  }
  out_.printf(", next %lld/%lld\n", static_cast<long long>(b.tbi_next),
               static_cast<long long>(b.tbi_alt_next));
}

void scanner::vmdb(std::uint64_t sector, const std::uint8_t* p, std::size_t len) {
  voldb_prefix_info h;
  if (voldb_prefix_decode(p, p + len, &h) == nullptr) return truncated(len);
  out_.printf(" nblocks %u, blksize %u, hdrsize %u, version %u.%u, state %u",
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
    out_.printf(", decodes");
  } else {
    out_.printf(", does not decode: error %d: %s", res, vol_strerror(res));
  }
  out_.printf("%s\n", places_.describe(sector, copy_kind::config, 0).c_str());
}

void scanner::vblk(std::uint64_t sector, const std::uint8_t* p, std::size_t len) {
  ddb_blkhdr_info h;
  if (ddb_block_header_decode(p, p + len, &h) == nullptr) return truncated(len);
  out_.printf(" block %u, ref %u, fragment %u of %u%s\n", h.dbh_blkno, h.dbh_ref,
               h.dbh_frag, h.dbh_nfrag,
               places_.describe(sector, copy_kind::config, h.dbh_blkno).c_str());
}

void scanner::klog(std::uint64_t sector, const std::uint8_t* p, std::size_t len) {
  klog_block_info h;
  if (klog_block_decode(p, p + len, &h) == nullptr) return truncated(len);
  char tb[24];
  out_.printf(" block %u, tid %s, seqno %u, len %u%s\n", h.klb_blkno,
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
  if (std::optional<expected_magic> e = places_.expected(sector)) damage(sector, *e, p, len);
  return false;
}


}  // namespace

int inspect_scan(session& s, const inspect_target& t, const scan_request& r) {
  inspect_image img(s);
  if (!img.open(t)) return INSPECT_USAGE_IO;
  std::uint64_t ss = static_cast<std::uint64_t>(img.sector_size());
  std::uint64_t nsect = (img.file_size() + ss - 1) / ss;  // a cut last sector counts
  if (r.first >= nsect) {
    std::fprintf(s.err, "%s: --range: sector %llu is beyond the end of the image (%llu sectors)\n",
                 s.progname, static_cast<unsigned long long>(r.first),
                 static_cast<unsigned long long>(nsect));
    return INSPECT_FINDINGS;
  }
  std::uint64_t end = r.count < nsect - r.first ? r.first + r.count : nsect;
  copy_places places = copy_places::locate_quietly(img);
  text_out out(s.out);
  out.printf("%s\n", places.summary().c_str());
  progress_line progress(s.err, r.progress, r.first, end);
  scanner sc(s, img, places, progress);
  std::vector<std::uint8_t> run(SCAN_RUN);
  std::uint64_t found = 0;
  std::uint64_t sector = r.first;
  std::uint64_t end_byte = end * ss < img.file_size() ? end * ss : img.file_size();
  for (std::uint64_t off = r.first * ss; off < end_byte; off += SCAN_RUN) {
    std::size_t want = end_byte - off < SCAN_RUN ? static_cast<std::size_t>(end_byte - off) : SCAN_RUN;
    std::size_t n = img.read_at(off, run.data(), want);
    if (n == 0) break;
    for (std::size_t at = 0; at < n; at += ss, sector++) {
      std::size_t len = n - at < ss ? n - at : ss;
      if (sc.examine(sector, run.data() + at, len)) found++;
    }
    progress.at(sector);
  }
  sc.flush();
  progress.hide();
  out.printf("%llu candidate(s)", static_cast<unsigned long long>(found));
  if (sc.damaged() > 0) {
    out.printf(", %llu damaged sector(s)", static_cast<unsigned long long>(sc.damaged()));
  }
  out.printf(" in %llu sector(s)\n", static_cast<unsigned long long>(sector - r.first));
  return INSPECT_OK;
}

}  // namespace pd
