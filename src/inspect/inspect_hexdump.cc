// hexdump: raw bytes in the puthex form, of image sectors (read straight
// from the file, whatever the header says), of 512-byte file blocks of a
// configuration copy (numbered as the report's ":624:" messages number
// them), or of the store blocks (of the copy's block size) that carry one
// record. Every heading names its unit, its size and where it starts.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "codec/integers.h"
#include "io/io_buffers.h"
#include "codec/text_forms.h"
#include "config_db/block_store.h"
#include "io/messages.h"
#include "inspect/inspect.h"
#include "inspect/inspect_load.h"
#include "inspect/output.h"

namespace pd {

namespace {

constexpr std::size_t COPY_BLKSIZE = 512;
constexpr std::size_t COPY_RUN_BLOCKS = 128;
constexpr std::size_t COPY_BUFSIZE = 0x200000;

int dump_sectors(session& s, inspect_image& img, std::uint64_t first, std::size_t count) {
  std::size_t ss = static_cast<std::size_t>(img.sector_size());
  std::vector<std::uint8_t> buf(ss);
  std::uint64_t nsect = img.file_size() / ss;
  for (std::size_t i = 0; i < count; i++) {
    std::uint64_t sec = first + i;
    bool addressable = sec >= first && sec <= UINT64_MAX / ss;
    std::size_t n = addressable ? img.read_at(sec * ss, buf.data(), ss) : 0;
    if (n == 0) {
      std::fprintf(s.out, "sector %llu: beyond the end of the image (%llu sectors)\n",
                   static_cast<unsigned long long>(sec), static_cast<unsigned long long>(nsect));
      return INSPECT_FINDINGS;
    }
    std::fprintf(s.out, "sector %llu (%zu bytes at byte %llu):\n",
                 static_cast<unsigned long long>(sec), ss, static_cast<unsigned long long>(sec * ss));
    puthex(s.out, buf.data(), static_cast<long>(n));
    if (n < ss) {
      std::fprintf(s.out, "sector %llu: only %zu bytes before the end of the image\n",
                   static_cast<unsigned long long>(sec), n);
      return INSPECT_FINDINGS;
    }
  }
  return INSPECT_OK;
}

int dump_blocks(session& s, inspect_image& img, int copy, std::size_t first, std::size_t count) {
  if (int st = img.locate_or_explain(); st != INSPECT_OK) return st;
  copy_info* cp = inspect_select_config_copy(s, img.priv(), copy);
  if (cp == nullptr) return INSPECT_FINDINGS;
  std::uint8_t* buf = get_aligned_buf(s, COPY_BUFSIZE);
  std::size_t blk = first;
  for (std::size_t left = count; left > 0;) {
    std::size_t want = left < COPY_RUN_BLOCKS ? left : COPY_RUN_BLOCKS;
    std::size_t nread = 0;
    if (priv_read_copy(s, img.priv(), cp, buf, blk, want, &nread) != 0) {
      volpfmt(s, s.err, 1, ":640:Failed to read log copy %d\n", cp->ci_copy);
      return INSPECT_FINDINGS;
    }
    for (std::size_t i = 0; i < nread; i++) {
      std::fprintf(s.out, "config copy %d file block %zu (%zu bytes at copy byte %zu):\n",
                   cp->ci_copy, blk + i, COPY_BLKSIZE, (blk + i) * COPY_BLKSIZE);
      puthex(s.out, buf + i * COPY_BLKSIZE, COPY_BLKSIZE);
    }
    blk += nread;
    left -= nread;
    if (nread < want) {
      std::fprintf(s.out, "config copy %d: file block %zu is beyond its end\n", cp->ci_copy, blk);
      return INSPECT_FINDINGS;
    }
  }
  return INSPECT_OK;
}

bool record_matches(const record* r, const std::string& ref) {
  const char* end = nullptr;
  volrid_t rid = strtovolrid(ref.c_str(), &end);
  if (end != ref.c_str() && *end == '\0') return seqno_equal(rid, r->rid);
  return ref == r->name;
}

// Dumps the `blksize` bytes of store block `blkno` of the loaded copy.
void dump_store_block(session& s, priv_info* priv, loaded_copy& lc, std::size_t blkno) {
  std::size_t blksize = lc.rep.db->ddb_blksize;
  std::size_t byte = blkno * blksize;
  std::size_t first = byte / COPY_BLKSIZE;
  std::size_t nblks = (byte + blksize + COPY_BLKSIZE - 1) / COPY_BLKSIZE - first;
  std::uint8_t* buf = get_aligned_buf(s, COPY_BUFSIZE);
  std::size_t nread = 0;
  std::fprintf(s.out, "store block %zu (%zu bytes at copy byte %zu):\n", blkno, blksize, byte);
  if (nblks > COPY_RUN_BLOCKS || priv_read_copy(s, priv, lc.cp, buf, first, nblks, &nread) != 0 ||
      nread < nblks) {
    std::fprintf(s.out, "store block %zu: cannot be read from the copy\n", blkno);
    return;
  }
  puthex(s.out, buf + (byte - first * COPY_BLKSIZE), static_cast<long>(blksize));
}

int dump_record(session& s, inspect_image& img, int copy, const std::string& ref) {
  if (int st = img.locate_or_explain(); st != INSPECT_OK) return st;
  copy_info* cp = inspect_select_config_copy(s, img.priv(), copy);
  if (cp == nullptr) return INSPECT_FINDINGS;
  loaded_copy lc(s);
  if (!lc.load(img.priv(), cp)) return INSPECT_FINDINGS;
  int matched = 0;
  for (record* r = lc.rep.rlist; r != nullptr; r = r->next) {
    if (!record_matches(r, ref)) continue;
    matched++;
    const db_record* dr = r->dbrec;
    char rid[24];
    text_out out(s.out);
    out.text("record ");
    out.value(r->name);
    out.printf(" rid=%s ref=%lu type=0x%04x size=%zu:\n", volridtostr(r->rid, rid), dr->dbr_ref,
               static_cast<unsigned>(dr->dbr_type), dr->dbr_size);
    std::size_t guard = 0;
    for (std::size_t b = dr->dbr_first_blkno;
         b != DDB_NOBLOCK && b < lc.rep.db->ddb_nblocks && guard < lc.rep.db->ddb_nblocks;
         b = ddb_block(lc.rep.db, b).dbb_next_blkno, guard++) {
      dump_store_block(s, img.priv(), lc, b);
    }
  }
  if (matched == 0) {
    std::fprintf(s.err, "%s: no record of config copy %d is named or numbered %s\n", s.progname,
                 cp->ci_copy, escape_text(ref).c_str());
    return INSPECT_FINDINGS;
  }
  return INSPECT_OK;
}

}  // namespace

bool inspect_parse_number(const std::string& text, std::uint64_t& v) {
  bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  std::size_t at = hex ? 2 : 0;
  if (at >= text.size()) return false;
  v = 0;
  for (; at < text.size(); at++) {
    char ch = text[at];
    unsigned digit;
    if (ch >= '0' && ch <= '9') {
      digit = static_cast<unsigned>(ch - '0');
    } else if (hex && ch >= 'a' && ch <= 'f') {
      digit = static_cast<unsigned>(ch - 'a' + 10);
    } else if (hex && ch >= 'A' && ch <= 'F') {
      digit = static_cast<unsigned>(ch - 'A' + 10);
    } else {
      return false;
    }
    if (__builtin_mul_overflow(v, hex ? 16u : 10u, &v) || __builtin_add_overflow(v, digit, &v)) {
      return false;
    }
  }
  return true;
}

int inspect_hexdump(session& s, const inspect_target& t, const hexdump_request& r) {
  inspect_image img(s);
  if (!img.open(t)) return INSPECT_USAGE_IO;
  switch (r.what) {
    case hexdump_what::sector:
      return dump_sectors(s, img, r.sector, r.count);
    case hexdump_what::block:
      return dump_blocks(s, img, r.copy, r.block, r.count);
    case hexdump_what::record:
      return dump_record(s, img, r.copy, r.ref);
  }
  return INSPECT_FINDINGS;
}

}  // namespace pd
