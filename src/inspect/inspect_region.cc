// The whole-region check (inspect_region.h).
#include "inspect/inspect_region.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "base/errors.h"
#include "codec/text_forms.h"
#include "config_db/block_store.h"
#include "config_db/record_layouts.h"
#include "inspect/inspect.h"
#include "io/dump_device.h"
#include "io/messages.h"
#include "private_region/header.h"
#include "private_region/log_block.h"
#include "private_region/toc.h"
#include "report/copy_loading.h"
#include "report/log_dump.h"

namespace pd {

namespace {

finding make(finding_code code, std::string text, const char* structure) {
  finding f;
  f.code = code;
  f.text = std::move(text);
  f.place.structure = structure;
  return f;
}

bool located(inspect_image& img) {
  const priv_info* priv = img.priv();
  return priv != nullptr && priv->pri_header != nullptr &&
         (priv->pri_flags & (PRI_PRIMARY_OK | PRI_ALT_OK)) != 0;
}

bool copy_disabled(const copy_info* cp) {
  return cp->ci_npart > 0 && cp->ci_parts != nullptr && cp->ci_parts[0] != nullptr &&
         (cp->ci_parts[0]->tei_region.dkr_flags & DKR_DISABLED) != 0;
}

// The copy privdiag reports: the first enabled one.
const copy_info* privdiag_copy(const priv_info* priv) {
  for (const copy_info* cp = priv->pri_config_copies; cp != nullptr; cp = cp->ci_next) {
    if (!copy_disabled(cp)) return cp;
  }
  return nullptr;
}

// A header copy that decodes at the other sector size, when none does at
// the image's: the finding that says so.
void other_sector_size(inspect_image& img, std::vector<finding>& out) {
  const int other = img.sector_size() == 512 ? 4096 : 512;
  const disk_attrs at = derive_disk_attrs(img.file_size(), other);
  const std::pair<const char*, voff_t> copies[] = {{"primary", at.dka_primary_header},
                                                   {"alternate", at.dka_alternate_header}};
  for (const auto& [name, sector] : copies) {
    if (sector < 0) continue;
    std::uint8_t buf[PRIV_HEADER_SIZE];
    const std::uint64_t off = static_cast<std::uint64_t>(sector) * static_cast<std::uint64_t>(other);
    if (img.read_at(off, buf, sizeof buf) != sizeof buf) continue;
    priv_header_info hdr;
    // (The alternate lies 96 KiB before the end at both sizes: a copy counts
    // only when it describes sectors of the other size.)
    if (priv_unformat_header(&hdr, buf) != VE_OK || hdr.phi_atomic_iosize != static_cast<unsigned>(other))
      continue;
    finding f = make(finding_code::sector_size_other,
                     finding_textf("image: the scan finds no header with %d-byte sectors, but "
                                   "the %s copy decodes with %d-byte sectors (sector %lld): try "
                                   "--sector-size %d",
                                   img.sector_size(), name, other, static_cast<long long>(sector),
                                   other),
                     "image");
    f.place.sector = sector;
    f.place.offset = static_cast<std::int64_t>(off);
    out.push_back(std::move(f));
    return;
  }
}

// --- TOC -------------------------------------------------------------------

finding_code toc_code(const priv_decode_fault& fault) {
  if (std::strcmp(fault.field, "checksum") == 0) return finding_code::toc_checksum;
  if (std::strcmp(fault.field, "seqno") == 0) return finding_code::toc_seqno;
  return finding_code::toc_magic;
}

struct toc_read {
  std::vector<std::uint8_t> buf;
  int res = VE_OK;
  priv_decode_fault fault;
};

// Reads and verifies the block at `sector`; a finding when it fails.
toc_read read_toc_block(inspect_image& img, const priv_header_info& hdr, voff_t sector,
                        const char* chain, int copy, std::size_t index, std::vector<finding>& out) {
  toc_read r;
  const std::size_t chunk = hdr.phi_chunk_size;
  r.buf.assign(chunk, 0);
  const std::uint64_t off = static_cast<std::uint64_t>(sector) * hdr.phi_atomic_iosize;
  finding f;
  f.place.copy = copy;
  f.place.block = static_cast<std::int64_t>(index);
  f.place.sector = sector;
  f.place.offset = static_cast<std::int64_t>(off);
  f.place.structure = "toc";
  const std::string where = finding_textf("%s TOC block %zu (sector %lld)", chain, index,
                                          static_cast<long long>(sector));
  if (img.read_at(off, r.buf.data(), chunk) != chunk) {
    r.res = VE_SHORT_READ;
    f.code = finding_code::toc_magic;
    f.text = where + ": lies past the end of the image";
    out.push_back(std::move(f));
    return r;
  }
  r.res = priv_toc_block_verify(r.buf.data(), chunk, hdr.phi_update_seqno, &r.fault);
  if (r.res == VE_OK) return r;
  f.code = toc_code(r.fault);
  toc_block_info b{};
  toc_block_decode(r.buf.data(), r.buf.data() + chunk, &b);
  char seq[24], hseq[24];
  switch (f.code) {
    case finding_code::toc_checksum: {
      const auto computed = static_cast<std::uint32_t>(priv_toc_checksum(r.buf.data(), chunk));
      f.expected = finding_textf("0x%08x", computed);
      f.actual = finding_textf("0x%08x", b.tbi_checksum);
      f.text = where + finding_textf(": stored checksum 0x%08x, computed 0x%08x", b.tbi_checksum,
                                     computed);
      break;
    }
    case finding_code::toc_seqno:
      f.expected = volseqnotostr(hdr.phi_update_seqno, hseq);
      f.actual = volseqnotostr(b.tbi_seqno, seq);
      f.text = where + ": sequence number " + *f.actual + ", the header's is " + *f.expected;
      break;
    default:
      f.text = where + ": " + r.fault.reason;
      break;
  }
  f.place.offset += static_cast<std::int64_t>(r.fault.offset);
  out.push_back(std::move(f));
  return r;
}

// --- log copies --------------------------------------------------------------

// Why the log dump refuses a block, or null when it does not.
const char* log_refusal(const std::uint8_t* bp, std::size_t blk) {
  volseqno_t tid;
  unsigned long seqno = 0;
  std::size_t len = 0;
  if (logblk_valid(bp, KLOG_BLKSIZE, blk, &tid, &seqno, &len)) return nullptr;
  if (std::all_of(bp, bp + KLOG_BLKSIZE, [](std::uint8_t c) { return c == 0; }))
    return "never written";
  klog_block_info b{};
  klog_block_decode(bp, bp + KLOG_BLKSIZE, &b);
  if (!b.klb_magic_ok) return "bad magic";
  return "wrong block number";
}

void no_free(dbase*) {}

}  // namespace

std::vector<std::string> message_lines(const std::string& err) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < err.size()) {
    std::size_t end = err.find('\n', start);
    if (end == std::string::npos) end = err.size();
    const std::string line = err.substr(start, end - start);
    if (!line.empty() && line[0] == '\t' && !lines.empty()) {
      lines.back().append(" ").append(line, 1, std::string::npos);
    } else if (!line.empty()) {
      lines.push_back(line);
    }
    start = end + 1;
  }
  return lines;
}

void image_findings(inspect_image& img, bool scanned, std::vector<finding>& out) {
  const std::uint64_t ss = static_cast<std::uint64_t>(img.sector_size());
  const std::uint64_t size = img.file_size();
  if (size % ss != 0) {
    finding f = make(finding_code::image_partial_sector,
                     finding_textf("image: %llu bytes is not a whole number of %llu-byte "
                                   "sectors (%llu bytes past sector %llu)",
                                   static_cast<unsigned long long>(size),
                                   static_cast<unsigned long long>(ss),
                                   static_cast<unsigned long long>(size % ss),
                                   static_cast<unsigned long long>(size / ss)),
                     "image");
    f.place.sector = static_cast<std::int64_t>(size / ss);
    f.place.offset = static_cast<std::int64_t>(size - size % ss);
    out.push_back(std::move(f));
  }
  if (!scanned) other_sector_size(img, out);
  if (!located(img)) return;
  const priv_header_info& h = *img.priv()->pri_header;
  const std::uint64_t unit = h.phi_atomic_iosize;
  if (h.phi_priv_len > 0 && unit > 0 &&
      static_cast<std::uint64_t>(h.phi_priv_len) > size / unit) {
    const std::uint64_t claimed = static_cast<std::uint64_t>(h.phi_priv_len) * unit;
    finding f = make(finding_code::image_short,
                     finding_textf("image: %llu bytes, shorter than the region the header "
                                   "claims (%lld sectors of %llu bytes: %llu bytes)",
                                   static_cast<unsigned long long>(size),
                                   static_cast<long long>(h.phi_priv_len),
                                   static_cast<unsigned long long>(unit),
                                   static_cast<unsigned long long>(claimed)),
                     "image");
    f.place.offset = static_cast<std::int64_t>(size);
    f.expected = std::to_string(claimed);
    f.actual = std::to_string(size);
    out.push_back(std::move(f));
  }
}

void toc_findings(inspect_image& img, std::vector<finding>& out) {
  if (!located(img)) return;
  const priv_header_info hdr = *img.priv()->pri_header;
  const std::size_t chunk = hdr.phi_chunk_size;
  // A chunk that cannot hold the block words, or larger than any sector,
  // is the header's fault (the join refuses it); no block is read.
  if (chunk < TOC_ENTRIES_OFFSET || chunk > 65536 || hdr.phi_atomic_iosize == 0) return;
  const voff_t privlen = hdr.phi_priv_len;
  voff_t toc = hdr.phi_first_toc;
  voff_t alt = hdr.phi_first_alt_toc;
  // As the join: with 4096-byte chunks a first position of 0 is visited.
  bool visit_zero = toc == 0 && chunk == 4096;
  const voff_t limit = std::min<voff_t>(privlen, 4096);
  for (std::size_t n = 0; toc != 0 || visit_zero; ++n) {
    visit_zero = false;
    if (static_cast<voff_t>(n) >= limit) {
      finding f = make(finding_code::toc_next,
                       finding_textf("TOC: the chains do not end within %lld blocks",
                                     static_cast<long long>(limit)),
                       "toc");
      out.push_back(std::move(f));
      return;
    }
    const toc_read p = read_toc_block(img, hdr, toc, "primary", 1, n, out);
    const toc_read a = read_toc_block(img, hdr, alt, "alternate", 2, n, out);
    if (p.res != VE_OK && a.res != VE_OK) return;  // the join stops here
    if (p.res == VE_OK && a.res == VE_OK && p.buf != a.buf) {
      finding f = make(finding_code::toc_chains_differ,
                       finding_textf("TOC block %zu: the primary (sector %lld) and the alternate "
                                     "(sector %lld) differ",
                                     n, static_cast<long long>(toc), static_cast<long long>(alt)),
                       "toc");
      f.place.block = static_cast<std::int64_t>(n);
      f.place.sector = alt;
      f.place.offset = static_cast<std::int64_t>(static_cast<std::uint64_t>(alt) * hdr.phi_atomic_iosize);
      out.push_back(std::move(f));
    }
    const toc_read& used = p.res == VE_OK ? p : a;
    const voff_t used_at = p.res == VE_OK ? toc : alt;
    toc_block_info b{};
    toc_block_decode(used.buf.data(), used.buf.data() + chunk, &b);
    if (b.tbi_next < 0 || b.tbi_alt_next < 0 || b.tbi_next >= privlen ||
        b.tbi_alt_next >= privlen || ((b.tbi_next == 0) != (b.tbi_alt_next == 0))) {
      finding f = make(finding_code::toc_next,
                       finding_textf("%s TOC block %zu (sector %lld): next pointers %lld and "
                                     "%lld: %s",
                                     p.res == VE_OK ? "primary" : "alternate", n,
                                     static_cast<long long>(used_at),
                                     static_cast<long long>(b.tbi_next),
                                     static_cast<long long>(b.tbi_alt_next),
                                     (b.tbi_next == 0) != (b.tbi_alt_next == 0)
                                         ? "one chain ends and the other goes on"
                                         : "outside the region"),
                       "toc");
      f.place.copy = p.res == VE_OK ? 1 : 2;
      f.place.block = static_cast<std::int64_t>(n);
      f.place.sector = used_at;
      f.place.offset = static_cast<std::int64_t>(
          static_cast<std::uint64_t>(used_at) * hdr.phi_atomic_iosize + TOC_NEXT_OFFSET);
      out.push_back(std::move(f));
      return;
    }
    toc = b.tbi_next;
    alt = b.tbi_alt_next;
  }
}

void config_copy_findings(inspect_image& img, std::vector<finding>& out) {
  priv_info* priv = img.priv();
  const copy_info* reported = privdiag_copy(priv);
  for (const copy_info* cp = priv->pri_config_copies; cp != nullptr; cp = cp->ci_next) {
    if (cp == reported) continue;
    const std::string prefix = finding_textf("config copy %d: ", cp->ci_copy);
    finding_collector found;
    mem_stream err;
    FILE* const saved_err = img.s.err;
    if (err.f != nullptr) img.s.err = err.f;
    {
      sink_guard guard(img.s, &found);
      try {
        (void)priv_dump_config(img.s, priv, cp->ci_copy, false);
      } catch (const fatal_exit&) {
      }
    }
    img.s.err = saved_err;
    for (finding& f : found.list) {
      f.text = prefix + f.text;
      if (f.place.copy < 0) f.place.copy = cp->ci_copy;
      if (*f.place.structure == '\0') f.place.structure = "config copy";
      out.push_back(std::move(f));
    }
    if (err.f == nullptr) continue;
    for (const std::string& line : message_lines(err.text())) {
      finding f = make(finding_code::copy_unloadable, prefix + line, "config copy");
      f.place.copy = cp->ci_copy;
      out.push_back(std::move(f));
    }
  }
}

void copy_agreement_findings(inspect_image& img, std::vector<finding>& out) {
  priv_info* priv = img.priv();
  struct decoded_copy {
    const copy_info* cp;
    voldb_info vi;
  };
  std::vector<decoded_copy> copies;
  std::vector<std::uint8_t> buf(65536);
  dbase_ops ops{};
  ops.dop_free = no_free;
  for (copy_info* cp = priv->pri_config_copies; cp != nullptr; cp = cp->ci_next) {
    std::size_t nread = 0;
    std::fill(buf.begin(), buf.end(), 0);
    if (priv_read_copy(img.s, priv, cp, buf.data(), 0, 1, &nread) != 0 || nread == 0) continue;
    struct release {
      void operator()(dbase* db) const { ddb_free(db); }
    };
    std::unique_ptr<dbase, release> db(ddb_alloc(&ops));
    if (db == nullptr) return;
    voldb_info vi{};
    if (voldbsup_unformat_header(db.get(), buf.data(), 512, &vi) != VE_OK) continue;
    copies.push_back({cp, vi});
  }
  const auto ref = std::find_if(copies.begin(), copies.end(),
                                [&](const decoded_copy& c) { return c.cp == privdiag_copy(priv); });
  if (ref == copies.end()) return;
  char x[24], y[24];
  for (const decoded_copy& c : copies) {
    if (c.cp == ref->cp) continue;
    std::string diff;
    auto add = [&diff](const char* what, const std::string& a, const std::string& b) {
      if (a == b) return;
      diff += (diff.empty() ? "" : "; ") + std::string(what) + " " + a + " and " + b;
    };
    add("config tid", volseqnotostr(c.vi.vdbi_config_tid, x), volseqnotostr(ref->vi.vdbi_config_tid, y));
    add("pending tid", volseqnotostr(c.vi.vdbi_pending_tid, x),
        volseqnotostr(ref->vi.vdbi_pending_tid, y));
    add("commit state", std::to_string(c.vi.vdbi_commit_state),
        std::to_string(ref->vi.vdbi_commit_state));
    add("version",
        std::to_string(c.vi.vdbi_version_major) + "." + std::to_string(c.vi.vdbi_version_minor),
        std::to_string(ref->vi.vdbi_version_major) + "." +
            std::to_string(ref->vi.vdbi_version_minor));
    add("disk group", std::string("\"") + c.vi.vdbi_dg_name + "\"",
        std::string("\"") + ref->vi.vdbi_dg_name + "\"");
    add("disk group id", std::string("\"") + c.vi.vdbi_dg_id + "\"",
        std::string("\"") + ref->vi.vdbi_dg_id + "\"");
    if (diff.empty()) continue;
    const bool stale = copy_disabled(c.cp);
    finding f = make(stale ? finding_code::copy_stale : finding_code::copies_differ,
                     finding_textf("config copy %d%s differs from copy %d: ", c.cp->ci_copy,
                                   stale ? " (disabled)" : "", ref->cp->ci_copy) +
                         diff,
                     "config copy");
    f.place.block = 0;
    place_in_copy_block(priv, c.cp, f.place);
    out.push_back(std::move(f));
  }
}

void log_copy_findings(inspect_image& img, std::vector<finding>& out) {
  priv_info* priv = img.priv();
  std::vector<std::uint8_t> buf(KLOG_READ_BLOCKS * KLOG_BLKSIZE);
  for (copy_info* cp = priv->pri_log_copies; cp != nullptr; cp = cp->ci_next) {
    std::fill(buf.begin(), buf.end(), 0);
    std::size_t nblks = 0;
    if (priv_read_copy(img.s, priv, cp, buf.data(), 0, KLOG_READ_BLOCKS, &nblks) != 0) continue;
    // Runs of blocks refused for the same reason: [first, last], reason.
    struct run {
      std::size_t first, last;
      const char* why;
    };
    std::vector<run> runs;
    for (std::size_t blk = 0; blk < nblks; ++blk) {
      const std::uint8_t* bp = buf.data() + blk * KLOG_BLKSIZE;
      const char* why = log_refusal(bp, blk);
      if (why == nullptr) {
        // As the dump: only a valid block 0 says how long the log is.
        if (blk == 0) {
          klog_block_info b{};
          klog_block_decode(bp, bp + KLOG_BLKSIZE, &b);
          if (b.klb_loglen < nblks) nblks = b.klb_loglen;
        }
        continue;
      }
      if (!runs.empty() && runs.back().last + 1 == blk && runs.back().why == why) {
        runs.back().last = blk;
      } else {
        runs.push_back({blk, blk, why});
      }
    }
    for (const run& r : runs) {
      const bool unwritten = std::strcmp(r.why, "never written") == 0;
      std::string what = r.first == r.last
                             ? finding_textf("block %zu", r.first)
                             : finding_textf("blocks %zu-%zu", r.first, r.last);
      std::string why = r.why;
      if (r.first == r.last && !unwritten) {
        const std::uint8_t* bp = buf.data() + r.first * KLOG_BLKSIZE;
        klog_block_info b{};
        klog_block_decode(bp, bp + KLOG_BLKSIZE, &b);
        if (b.klb_magic_ok) {
          why = finding_textf("block number %u, expected %zu", b.klb_blkno, r.first);
        } else {
          std::string magic;
          for (std::size_t i = 0; i < KLOG_MAGIC_LEN; ++i)
            magic += (bp[i] >= 0x20 && bp[i] < 0x7f) ? static_cast<char>(bp[i]) : '.';
          why = "bad magic \"" + magic + "\"";
        }
      }
      finding f = make(unwritten ? finding_code::log_never_written : finding_code::log_block_refused,
                       finding_textf("log copy %d: ", cp->ci_copy) + what + ": " + why,
                       "log copy");
      f.place.block = static_cast<std::int64_t>(r.first);
      place_in_copy_block(priv, cp, f.place);
      f.place.structure = "log copy";
      out.push_back(std::move(f));
    }
  }
}

std::vector<finding> region_findings(const session& like, const inspect_target& t) {
  std::vector<finding> found;
  mem_stream out, err;
  if (out.f == nullptr || err.f == nullptr) return found;
  session rs(out.f, err.f);
  rs.progname = like.progname;
  volsetlabel(rs, "qztool:priv");
  inspect_image img(rs);
  img.announce = false;
  if (!img.open(t)) return found;
  try {
    const bool both = img.attrs().dka_primary_header >= 0 && img.attrs().dka_alternate_header >= 0;
    const bool privdiag_scan = both && img.scan_as_privdiag() == VE_OK;
    std::vector<finding> headers = header_findings(img);
    // The scan's choice alone is nothing to report.
    if (headers.size() == 1 && headers[0].code == finding_code::header_choice) headers.clear();
    const bool scanned = both && img.scan() == VE_OK;
    if (!scanned && img.priv() != nullptr) img.priv()->pri_flags &= ~(PRI_PRIMARY_OK | PRI_ALT_OK);
    image_findings(img, privdiag_scan, found);
    found.insert(found.end(), headers.begin(), headers.end());
    if (!scanned) return found;
    toc_findings(img, found);
    if (img.join() != VE_OK) return found;
    config_copy_findings(img, found);
    copy_agreement_findings(img, found);
    log_copy_findings(img, found);
  } catch (const fatal_exit&) {
  }
  return found;
}

}  // namespace pd
