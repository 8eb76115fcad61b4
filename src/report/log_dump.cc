// Kernel log copy dump: reads the first run of blocks of a log copy into the
// shared aligned buffer, validates each block and prints each entry.
#include "report/log_dump.h"

#include <array>
#include <cstdio>

#include "base/errors.h"
#include "io/io_buffers.h"
#include "codec/text_forms.h"
#include "io/findings.h"
#include "io/messages.h"
#include "report/copy_loading.h"

namespace pd {

namespace {

// The size of the shared buffer that copy reads go through.
constexpr std::size_t LOG_IOBUF_SIZE = 2097152;
static_assert(KLOG_READ_BLOCKS * KLOG_BLKSIZE <= LOG_IOBUF_SIZE, "one read fits the buffer");

// What an entry carries after its type byte, and so how its line is filled.
enum class klog_words {
  rid_tid,    // rid (words 0-1), tid (words 2-3)
  rid,        // rid (words 0-1)
  tid,        // tid (words 0-1)
  app_dirty,  // rid, tid, recovery sequence number (word 4, signed)
};

struct klog_entry_form {
  std::uint8_t type;
  klog_words words;
  const char* fmt;  // after "BLOCK %d: "; first conversion is the entry index
};

constexpr std::array<klog_entry_form, 8> klog_entry_forms{{
    {VOL_KLOG_DETACH, klog_words::rid_tid, "KLOG %-3d:   DETACH rid=%s tid=%s\n"},
    {VOL_KLOG_DIRTY, klog_words::rid, "KLOG %-3d:   DIRTY rid=%s\n"},
    {VOL_KLOG_COMMIT, klog_words::tid, "KLOG %-3d:   COMMIT tid=%s\n"},
    {VOL_KLOG_LOGDETACH, klog_words::rid, "KLOG %-3d:   LOGDETACH rid=%s\n"},
    // The rid is printed behind "tid" and the tid behind "rid": this crossing
    // is part of the output format and is kept.
    {VOL_KLOG_APP_DIRTY, klog_words::app_dirty,
     "KLOG %-3d:   APP_DIRTY tid %s rid %s recover_seqno %d\n"},
    {VOL_KLOG_DG_CHANGE_LOG, klog_words::tid, "KLOG %-3d:   DG_CHANGE_LOG tid=%s\n"},
    {VOL_KLOG_DIRTY_SEQNO, klog_words::rid, "KLOG %-3d:   DIRTY_SEQNO rid=%s\n"},
    {VOL_KLOG_CACHE_SEQNO, klog_words::rid, "KLOG %-3d:   CACHE_SEQNO rid=%s\n"},
}};

const klog_entry_form* klog_find_form(std::uint8_t type) {
  for (const auto& f : klog_entry_forms) {
    if (f.type == type) return &f;
  }
  return nullptr;
}

void klog_print_form(session& s, const klog_entry_form& f, const klog_entry_info& e, int n) {
  char ridbuf[24];
  char tidbuf[24];
  switch (f.words) {
    case klog_words::rid_tid:
      std::fprintf(s.out, f.fmt, n, volridtostr(klog_entry_seqno(e, 0), ridbuf),
                   volseqnotostr(klog_entry_seqno(e, 2), tidbuf));
      break;
    case klog_words::rid:
      std::fprintf(s.out, f.fmt, n, volridtostr(klog_entry_seqno(e, 0), ridbuf));
      break;
    case klog_words::tid:
      std::fprintf(s.out, f.fmt, n, volseqnotostr(klog_entry_seqno(e, 0), tidbuf));
      break;
    case klog_words::app_dirty:
      std::fprintf(s.out, f.fmt, n, volridtostr(klog_entry_seqno(e, 0), ridbuf),
                   volseqnotostr(klog_entry_seqno(e, 2), tidbuf), static_cast<int>(e.kle_words[4]));
      break;
  }
}

bool log_copy_disabled(const copy_info* cp) {
  return cp->ci_npart > 0 && cp->ci_parts != nullptr && cp->ci_parts[0] != nullptr &&
         (cp->ci_parts[0]->tei_region.dkr_flags & DKR_DISABLED) != 0;
}

// Prints the valid blocks of one copy read into `buf` (`nblks` blocks).
void log_dump_blocks(session& s, const priv_info* priv, const copy_info* cp,
                     const std::uint8_t* buf, std::size_t nblks) {
  for (std::size_t blk = 0; blk < nblks; blk++) {
    const std::uint8_t* bp = buf + blk * KLOG_BLKSIZE;
    volseqno_t tid;
    unsigned long logseqno = 0;
    std::size_t loglen = 0;
    if (!logblk_valid(bp, KLOG_BLKSIZE, blk, &tid, &logseqno, &loglen)) {
      finding f;
      f.code = finding_code::log_block_invalid;
      f.text = volsfmt(s, 1, ":721:Log block %d: Log block invalid", static_cast<int>(blk));
      f.place.block = static_cast<std::int64_t>(blk * (KLOG_BLKSIZE / 512));
      place_in_copy_block(priv, cp, f.place);
      f.place.structure = "log copy";
      raise_finding(s, f);
      continue;
    }
    // Only block 0 says how long the log is, and it can only shorten it.
    if (blk == 0 && loglen < nblks) nblks = loglen;
    if (s.l_long_listing) {
      std::fprintf(s.out, "#BLOCK %d: tid=%s seqno=%lu (len=%lu)\n", static_cast<int>(blk),
                   volseqnotostr(tid), logseqno, static_cast<unsigned long>(loglen));
    }
    const std::uint8_t* limit = bp + KLOG_BLKSIZE;
    for (int n = 0; n < KLOG_NENTRIES; n++) {
      priv_print_log(s, bp + klog_entry_offset(n), limit, n, static_cast<int>(blk));
    }
  }
}

// Reads and prints one copy; read faults are reported and the dump goes on.
void log_dump_copy(session& s, priv_info* priv, copy_info* cp, std::uint8_t* buf) {
  std::size_t nread = 0;
  if (priv_read_copy(s, priv, cp, buf, 0, KLOG_READ_BLOCKS, &nread) != 0) {
    volpfmt(s, s.err, 1, ":640:Failed to read log copy %d\n", cp->ci_copy);
    return;
  }
  log_dump_blocks(s, priv, cp, buf, nread);
}

}  // namespace

int logblk_valid(const std::uint8_t* buf, std::size_t len, std::size_t logblkno, volseqno_t* tidp,
                 unsigned long* logseqnop, std::size_t* nblksp) {
  klog_block_info b;
  if (buf == nullptr || klog_block_decode(buf, buf + len, &b) == nullptr) return 0;
  if (!b.klb_magic_ok || b.klb_blkno != logblkno) return 0;
  *tidp = b.klb_tid;
  *logseqnop = b.klb_seqno;
  *nblksp = b.klb_loglen;
  return 1;
}

int priv_print_log(session& s, const std::uint8_t* bp, const std::uint8_t* limit, int n, int blk) {
  if (bp == nullptr || limit <= bp) return -1;
  if (klog_entry_type(bp) == MIN_KLOG_TYPE_ENT) return 0;
  klog_entry_info e;
  if (klog_entry_decode(bp, limit, &e) == nullptr) return -1;
  std::fprintf(s.out, "BLOCK %d: ", blk);
  if (const klog_entry_form* f = klog_find_form(e.kle_type)) {
    klog_print_form(s, *f, e, n);
  } else {
    std::fprintf(s.out, "KLOG %-3d: INVALID %d\n", n, static_cast<int>(e.kle_type));
  }
  return 0;
}

int priv_dump_logs(session& s, priv_info* priv, int copy) {
  std::uint8_t* buf = get_aligned_buf(s, LOG_IOBUF_SIZE);
  if (buf == nullptr) {
    volpfmt(s, s.err, 1, ":733:Memory allocation failed\n");
    throw fatal_exit{1, fatal_kind::memory};
  }
  bool found = false;
  for (copy_info* cp = priv->pri_log_copies; cp != nullptr; cp = cp->ci_next) {
    if (copy >= 0 && cp->ci_copy != copy) continue;
    found = true;
    std::fprintf(s.out, "LOG #%02lu\n", static_cast<unsigned long>(cp->ci_copy));
    if (log_copy_disabled(cp)) {
      if (copy < 0) {
        std::fprintf(s.out, "DISABLED\n");
        continue;
      }
      std::fprintf(s.out, "# NOTE: Copy is disabled\n");
    }
    log_dump_copy(s, priv, cp, buf);
    if (copy >= 0) break;
  }
  if (found) return 1;
  if (copy >= 0) {
    volpfmt(s, s.err, 1, ":567:Disk does not have log copy %d\n", copy);
  } else {
    volpfmt(s, s.err, 1, ":596:Disk has no log copies\n");
  }
  throw fatal_exit{1, fatal_kind::no_copy};
}

}  // namespace pd
