// scan's model (inspect_scan_model.h): the search, the decodes, the places
// and the folding of runs. Nothing here prints.
#include "inspect/inspect_scan_model.h"

#include <cstring>
#include <vector>

#include "base/errors.h"
#include "config_db/block_store.h"
#include "config_db/record_layouts.h"
#include "config_db/records.h"
#include "private_region/log_block.h"
#include "private_region/toc.h"

namespace pd {

namespace {

constexpr std::size_t SCAN_RUN = 1 << 20;  // bytes read at a time

struct scan_magic {
  const char* magic;
  std::size_t len;
  scan_kind kind;
};

const scan_magic scan_magics[] = {
    {header_magic, PRIV_MAGIC_LEN, scan_kind::privhead},
    {toc_magic, TOC_MAGIC_LEN, scan_kind::tocblock},
    {voldb_magic, VOLDB_MAGIC_LEN, scan_kind::vmdb},
    {ddb_blkhdr_magic, DDB_BLKHDR_MAGIC_LEN, scan_kind::vblk},
    {klog_magic, KLOG_MAGIC_LEN, scan_kind::klog},
    {klog_magic_alt, KLOG_MAGIC_LEN, scan_kind::klog},
};

class producer {
 public:
  producer(const copy_places& places, std::uint64_t ss, const scan_consumer& each)
      : places_(places), ss_(ss), each_(each) {}

  // Examines the sector at `sector` whose bytes (`len`, at most one sector)
  // are `p`.
  void examine(std::uint64_t sector, const std::uint8_t* p, std::size_t len);
  // Hands on the pending run, if any.
  void flush();
  const scan_totals& totals() const { return totals_; }

 private:
  scan_entry at_sector(scan_kind kind, std::uint64_t sector, const char* magic,
                       std::size_t len) const;
  // Sets where the entry stands, its stored block number being `blkno` in a
  // copy of kind `kind`.
  void place(scan_entry& e, copy_kind kind, std::uint32_t blkno) const;
  bool extend_run(std::uint64_t sector, const std::uint8_t* p, std::size_t len);
  void damage(std::uint64_t sector, const expected_magic& x, const std::uint8_t* p,
              std::size_t len);
  void privhead(scan_entry& e, const std::uint8_t* p, std::size_t len) const;
  void tocblock(scan_entry& e, const std::uint8_t* p, std::size_t len) const;
  void vmdb(scan_entry& e, const std::uint8_t* p, std::size_t len) const;
  void vblk(scan_entry& e, const std::uint8_t* p, std::size_t len) const;
  void klog(scan_entry& e, const std::uint8_t* p, std::size_t len) const;

  const copy_places& places_;
  std::uint64_t ss_;
  const scan_consumer& each_;
  scan_totals totals_;
  // The run being folded, when one is pending: unused blocks or damage.
  scan_entry run_;
  bool run_pending_ = false;
};

scan_entry producer::at_sector(scan_kind kind, std::uint64_t sector, const char* magic,
                               std::size_t len) const {
  scan_entry e;
  e.kind = kind;
  e.sector = e.last_sector = sector;
  e.offset = e.last_offset = sector * ss_;
  e.magic = magic;
  e.bytes = len;
  e.place = e.last_place = places_.position(sector);
  e.where = places_.describe(sector);
  return e;
}

void producer::place(scan_entry& e, copy_kind kind, std::uint32_t blkno) const {
  e.blkno = blkno;
  e.where = places_.describe(e.sector, kind, blkno);
}

void producer::flush() {
  if (!run_pending_) return;
  run_pending_ = false;
  if (run_.kind == scan_kind::unused_run && run_.count == 1) run_.kind = scan_kind::vblk;
  each_(run_);
}

bool producer::extend_run(std::uint64_t sector, const std::uint8_t* p, std::size_t len) {
  ddb_blkhdr_info h;
  if (ddb_block_header_decode(p, p + len, &h) == nullptr || !h.dbh_magic_ok || h.dbh_ref != 0) {
    return false;
  }
  std::uint32_t blkno = h.dbh_blkno;
  std::optional<copy_position> at = places_.position(sector);
  if (at && (at->kind != copy_kind::config || at->rem != 0 || at->block != blkno)) return false;
  if (places_.joined() && !at) return false;
  bool continues = run_pending_ && run_.kind == scan_kind::unused_run &&
                   sector == run_.sector + run_.count && blkno == *run_.blkno + run_.count &&
                   (!at || (run_.place && run_.place->copy == at->copy));
  if (!continues) {
    flush();
    run_ = at_sector(scan_kind::unused_run, sector, ddb_blkhdr_magic, len);
    run_.blkno = blkno;
    run_.frag = h.dbh_frag;
    run_.nfrag = h.dbh_nfrag;
    run_pending_ = true;
  } else {
    run_.count++;
    run_.last_sector = sector;
    run_.last_offset = sector * ss_;
    run_.last_place = at;
  }
  totals_.candidates++;
  return true;
}

void producer::damage(std::uint64_t sector, const expected_magic& x, const std::uint8_t* p,
                      std::size_t len) {
  std::size_t want = std::strlen(x.magic);
  std::string found(reinterpret_cast<const char*>(p), len < want ? len : want);
  totals_.damaged++;
  bool continues = run_pending_ && run_.kind == scan_kind::damaged && x.at && run_.last_place &&
                   std::strcmp(x.magic, run_.magic) == 0 && found == run_.found &&
                   (len < want) == run_.truncated &&
                   x.at->kind == run_.last_place->kind && x.at->copy == run_.last_place->copy &&
                   x.at->block == run_.last_place->block + 1;
  if (continues) {
    run_.count++;
    run_.last_sector = sector;
    run_.last_offset = sector * ss_;
    run_.last_place = x.at;
    return;
  }
  flush();
  run_ = at_sector(scan_kind::damaged, sector, x.magic, len);
  run_.truncated = len < want;
  run_.found = std::move(found);
  run_.place = run_.last_place = x.at;
  run_.where = x.where;
  run_pending_ = true;
}

void producer::privhead(scan_entry& e, const std::uint8_t* p, std::size_t len) const {
  if (len < PRIV_HEADER_SIZE) {
    e.truncated = true;
    return;
  }
  e.stored_sum = priv_header_stored_checksum(p);
  e.computed_sum = static_cast<std::uint32_t>(priv_header_checksum(p));
  priv_header_info hdr;
  e.decode = priv_unformat_header(&hdr, p);
  if (e.decode != 0) return;
  e.version_major = hdr.phi_version_major;
  e.version_minor = hdr.phi_version_minor;
  e.seqno = hdr.phi_update_seqno;
  e.primary_header = hdr.phi_primary_header;
  e.alt_header = hdr.phi_alt_header;
}

void producer::tocblock(scan_entry& e, const std::uint8_t* p, std::size_t len) const {
  toc_block_info b;
  if (toc_block_decode(p, p + len, &b) == nullptr) {
    e.truncated = true;
    return;
  }
  e.stored_sum = b.tbi_checksum;
  e.computed_sum = static_cast<std::uint32_t>(priv_toc_checksum(p, len));
  e.seqno = b.tbi_seqno;
  if (places_.header_seqno_known) e.header_seqno = places_.header_seqno;
  e.next = b.tbi_next;
  e.alt_next = b.tbi_alt_next;
}

void producer::vmdb(scan_entry& e, const std::uint8_t* p, std::size_t len) const {
  voldb_prefix_info h;
  if (voldb_prefix_decode(p, p + len, &h) == nullptr) {
    e.truncated = true;
    return;
  }
  e.nblocks = h.vdp_nblocks;
  e.blksize = h.vdp_blksize;
  e.hdrsize = h.vdp_hdrsize;
  e.version_major = h.vdp_version_major;
  e.version_minor = h.vdp_version_minor;
  e.commit_state = h.vdp_commit_state;
  static const dbase_ops no_ops{};
  dbase* db = ddb_alloc(&no_ops);
  e.decode = VE_NOMEM;
  if (db != nullptr) {
    voldb_info vi{};
    e.decode =
        voldbsup_unformat_header(db, p, len < VOLDB_HDR_DECODE ? len : VOLDB_HDR_DECODE, &vi);
    ddb_free(db);
  }
  place(e, copy_kind::config, 0);
}

void producer::vblk(scan_entry& e, const std::uint8_t* p, std::size_t len) const {
  ddb_blkhdr_info h;
  if (ddb_block_header_decode(p, p + len, &h) == nullptr) {
    e.truncated = true;
    return;
  }
  e.ref = h.dbh_ref;
  e.frag = h.dbh_frag;
  e.nfrag = h.dbh_nfrag;
  place(e, copy_kind::config, h.dbh_blkno);
}

void producer::klog(scan_entry& e, const std::uint8_t* p, std::size_t len) const {
  klog_block_info h;
  if (klog_block_decode(p, p + len, &h) == nullptr) {
    e.truncated = true;
    return;
  }
  e.seqno = h.klb_tid;
  e.log_seqno = h.klb_seqno;
  e.log_len = h.klb_loglen;
  place(e, copy_kind::log, h.klb_blkno);
}

void producer::examine(std::uint64_t sector, const std::uint8_t* p, std::size_t len) {
  if (extend_run(sector, p, len)) return;
  for (const scan_magic& m : scan_magics) {
    if (len < m.len || std::memcmp(p, m.magic, m.len) != 0) continue;
    flush();
    totals_.candidates++;
    scan_entry e = at_sector(m.kind, sector, m.magic, len);
    switch (m.kind) {
      case scan_kind::privhead: privhead(e, p, len); break;
      case scan_kind::tocblock: tocblock(e, p, len); break;
      case scan_kind::vmdb: vmdb(e, p, len); break;
      case scan_kind::vblk: vblk(e, p, len); break;
      default: klog(e, p, len); break;
    }
    each_(e);
    return;
  }
  if (std::optional<expected_magic> x = places_.expected(sector)) damage(sector, *x, p, len);
}

}  // namespace

std::uint64_t scan_sector_count(const inspect_image& img) {
  std::uint64_t ss = static_cast<std::uint64_t>(img.sector_size());
  return (img.file_size() + ss - 1) / ss;
}

scan_totals scan_image(inspect_image& img, const copy_places& places, const scan_request& r,
                       const scan_consumer& each, const std::function<void(std::uint64_t)>& at) {
  std::uint64_t ss = static_cast<std::uint64_t>(img.sector_size());
  std::uint64_t nsect = scan_sector_count(img);
  std::uint64_t first = r.first < nsect ? r.first : nsect;
  std::uint64_t end = r.count < nsect - first ? first + r.count : nsect;
  producer pr(places, ss, each);
  std::vector<std::uint8_t> run(SCAN_RUN);
  std::uint64_t sector = first;
  std::uint64_t end_byte = end * ss < img.file_size() ? end * ss : img.file_size();
  for (std::uint64_t off = first * ss; off < end_byte; off += SCAN_RUN) {
    std::size_t want =
        end_byte - off < SCAN_RUN ? static_cast<std::size_t>(end_byte - off) : SCAN_RUN;
    std::size_t n = img.read_at(off, run.data(), want);
    if (n == 0) break;
    for (std::size_t i = 0; i < n; i += ss, sector++) {
      std::size_t len = n - i < ss ? n - i : ss;
      pr.examine(sector, run.data() + i, len);
    }
    if (at) at(sector);
  }
  pr.flush();
  scan_totals t = pr.totals();
  t.sectors = sector - first;
  return t;
}

}  // namespace pd
