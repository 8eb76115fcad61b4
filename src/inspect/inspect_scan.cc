// scan's text view: the model's entries (inspect_scan_model.h) one line
// each, after the line that says what was located and before the totals.
// Candidates are listed with what decoding says (checksums, sequence
// numbers, block numbers) and their place, so that a block number that
// disagrees with its position shows up, and TOC blocks carry the header's
// sequence number for comparison; damaged sectors with the bytes found
// instead; folded runs as one line over their sectors. --range limits the
// sectors looked at; on a terminal a progress line on the error stream
// tells how far a long scan has come.
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>

#include "base/errors.h"
#include "codec/text_forms.h"
#include "io/messages.h"
#include "inspect/inspect.h"
#include "inspect/inspect_places.h"
#include "inspect/inspect_scan_model.h"
#include "inspect/output.h"

namespace pd {

namespace {

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

// Writes each entry of the model as its line.
class scan_printer {
 public:
  scan_printer(FILE* out, progress_line& progress) : out_(out), progress_(progress) {}
  void operator()(const scan_entry& e);

 private:
  void prefix(const scan_entry& e, const char* magic);
  void range_heading(const scan_entry& e);
  void checksum(const scan_entry& e);
  void privhead(const scan_entry& e);
  void tocblock(const scan_entry& e);
  void vmdb(const scan_entry& e);
  void damaged(const scan_entry& e);
  void unused_run(const scan_entry& e);

  text_out out_;
  progress_line& progress_;
};

void scan_printer::prefix(const scan_entry& e, const char* magic) {
  progress_.hide();
  out_.printf("sector %llu (byte %llu): %s", static_cast<unsigned long long>(e.sector),
              static_cast<unsigned long long>(e.offset), magic);
}

void scan_printer::range_heading(const scan_entry& e) {
  progress_.hide();
  out_.printf("sectors %llu-%llu (bytes %llu-%llu): ", static_cast<unsigned long long>(e.sector),
              static_cast<unsigned long long>(e.last_sector),
              static_cast<unsigned long long>(e.offset),
              static_cast<unsigned long long>(e.last_offset));
}

void scan_printer::checksum(const scan_entry& e) {
  if (e.stored_sum == e.computed_sum) {
    out_.printf(" checksum correct");
  } else {
    out_.printf(" checksum 0x%08x expected 0x%08x", e.stored_sum, e.computed_sum);
  }
}

void scan_printer::privhead(const scan_entry& e) {
  checksum(e);
  if (e.decode != 0) {
    out_.printf(", does not decode: error %d: %s\n", e.decode, vol_strerror(e.decode));
    return;
  }
  char seq[24];
  out_.printf(", decodes: version %u.%u seqno %s", e.version_major, e.version_minor,
              volseqnotostr(e.seqno, seq));
  voff_t here = static_cast<voff_t>(e.sector);
  if (here == e.primary_header) out_.printf(", at its primary position");
  if (here == e.alt_header) out_.printf(", at its alternate position");
  if (here != e.primary_header && here != e.alt_header) {
    out_.printf(", names sectors %lld/%lld as its positions",
                static_cast<long long>(e.primary_header), static_cast<long long>(e.alt_header));
  }
  out_.text("\n");
}

void scan_printer::tocblock(const scan_entry& e) {
  checksum(e);
  char sb[24];
  out_.printf(", seqno %s", volseqnotostr(e.seqno, sb));
  if (e.header_seqno) {
    if (seqno_equal(e.seqno, *e.header_seqno)) {
      out_.printf(" (the header's)");
    } else {
      out_.printf(" (header has %s)", volseqnotostr(*e.header_seqno, sb));
    }
  }
  out_.printf(", next %lld/%lld\n", static_cast<long long>(e.next),
              static_cast<long long>(e.alt_next));
}

void scan_printer::vmdb(const scan_entry& e) {
  out_.printf(" nblocks %u, blksize %u, hdrsize %u, version %u.%u, state %u", e.nblocks,
              e.blksize, e.hdrsize, e.version_major, e.version_minor, e.commit_state);
  if (e.decode == 0) {
    out_.printf(", decodes");
  } else {
    out_.printf(", does not decode: error %d: %s", e.decode, vol_strerror(e.decode));
  }
  out_.printf("%s\n", e.where.c_str());
}

void scan_printer::damaged(const scan_entry& e) {
  if (e.count == 1) {
    prefix(e, "damaged: ");
  } else {
    range_heading(e);
    out_.text("damaged: ");
  }
  out_.text(std::string("expected ") + e.magic + ", found ");
  if (e.truncated) {
    out_.text("only " + std::to_string(e.bytes) + " bytes before the end of the image");
  } else {
    out_.text("\"");
    out_.text(escape_text(e.found));
    out_.text("\"");
  }
  if (e.count == 1) {
    out_.text(e.where);
  } else {
    out_.printf("; %s copy %d, blocks %llu-%llu",
                e.place->kind == copy_kind::config ? "config" : "log", e.place->copy,
                static_cast<unsigned long long>(e.place->block),
                static_cast<unsigned long long>(e.last_place->block));
  }
  out_.text("\n");
}

void scan_printer::unused_run(const scan_entry& e) {
  range_heading(e);
  std::uint32_t last_blkno = *e.blkno + static_cast<std::uint32_t>(e.count - 1);
  out_.printf("VBLK blocks %u-%u, unused (ref 0)", *e.blkno, last_blkno);
  if (e.place) out_.printf("; config copy %d, blocks %u-%u", e.place->copy, *e.blkno, last_blkno);
  out_.text("\n");
}

void scan_printer::operator()(const scan_entry& e) {
  if (e.kind == scan_kind::damaged) return damaged(e);
  if (e.kind == scan_kind::unused_run) return unused_run(e);
  prefix(e, e.magic);
  if (e.truncated) {
    out_.printf(" truncated: only %zu bytes before the end of the image\n", e.bytes);
    return;
  }
  char tb[24];
  switch (e.kind) {
    case scan_kind::privhead: return privhead(e);
    case scan_kind::tocblock: return tocblock(e);
    case scan_kind::vmdb: return vmdb(e);
    case scan_kind::vblk:
      out_.printf(" block %u, ref %u, fragment %u of %u%s\n", *e.blkno, e.ref, e.frag, e.nfrag,
                  e.where.c_str());
      return;
    default:
      out_.printf(" block %u, tid %s, seqno %u, len %u%s\n", *e.blkno,
                  volseqnotostr(e.seqno, tb), e.log_seqno, e.log_len, e.where.c_str());
      return;
  }
}

}  // namespace

int inspect_scan(session& s, const inspect_target& t, const scan_request& r) {
  inspect_image img(s);
  if (!img.open(t)) return INSPECT_USAGE_IO;
  std::uint64_t nsect = scan_sector_count(img);
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
  scan_printer printer(s.out, progress);
  const scan_totals n = scan_image(img, places, r, std::ref(printer),
                                   [&progress](std::uint64_t sector) { progress.at(sector); });
  progress.hide();
  out.printf("%llu candidate(s)", static_cast<unsigned long long>(n.candidates));
  if (n.damaged > 0) {
    out.printf(", %llu damaged sector(s)", static_cast<unsigned long long>(n.damaged));
  }
  out.printf(" in %llu sector(s)\n", static_cast<unsigned long long>(n.sectors));
  return INSPECT_OK;
}

}  // namespace pd
