// Naming raw positions of a joined image after the copies that hold them.
#include "inspect/inspect_places.h"

#include <cstdio>
#include <utility>

#include "codec/text_forms.h"
#include "config_db/record_layouts.h"
#include "config_db/block_store.h"
#include "private_region/header.h"
#include "private_region/log_block.h"
#include "private_region/toc.h"
#include "io/messages.h"

namespace pd {

namespace {

constexpr std::uint64_t MAX_DB_BLKSIZE = 8192;

constexpr std::uint64_t LOG_BLKSIZE = 512;
constexpr std::uint64_t LOG_DUMP_BLOCKS = 128;  // the log dump reads no further

// What block 0 of a copy at `byte` says of the copy: its unit, and the
// blocks after block 0 expected to carry a magic.
struct copy_shape {
  std::uint64_t unit = 512;
  std::uint64_t body_first = 1;
  std::uint64_t body_end = 0;
};

copy_shape config_shape(const inspect_image& img, std::uint64_t byte, std::uint64_t copy_len) {
  copy_shape c;
  std::uint8_t hdr[VOLDB_PREFIX_SIZE];
  if (img.read_at(byte, hdr, sizeof hdr) != sizeof hdr) return c;
  voldb_prefix_info h;
  if (voldb_prefix_decode(hdr, hdr + sizeof hdr, &h) == nullptr || !h.vdp_magic_ok) return c;
  std::uint64_t blksize = h.vdp_blksize;
  if (blksize == 0 || blksize > MAX_DB_BLKSIZE) return c;
  c.unit = blksize;
  std::uint64_t hdr_blocks = (h.vdp_hdrsize + blksize - 1) / blksize;
  c.body_first = hdr_blocks > 1 ? hdr_blocks : 1;
  std::uint64_t in_copy = copy_len / blksize;
  c.body_end = h.vdp_nblocks < in_copy ? h.vdp_nblocks : in_copy;
  return c;
}

copy_shape log_shape(const inspect_image& img, std::uint64_t byte, std::uint64_t copy_len) {
  copy_shape c;
  std::uint8_t blk[KLOG_OFF_ENTRIES];
  if (img.read_at(byte, blk, sizeof blk) != sizeof blk) return c;
  klog_block_info h;
  if (klog_block_decode(blk, blk + sizeof blk, &h) == nullptr || !h.klb_magic_ok ||
      h.klb_blkno != 0) {
    return c;
  }
  std::uint64_t end = h.klb_loglen;
  if (end > LOG_DUMP_BLOCKS) end = LOG_DUMP_BLOCKS;
  if (end > copy_len / LOG_BLKSIZE) end = copy_len / LOG_BLKSIZE;
  c.body_end = end;
  return c;
}

void add_copies(const inspect_image& img, copy_kind kind, const copy_info* list,
                std::uint64_t chunk, std::vector<copy_part_place>& out) {
  for (const copy_info* cp = list; cp != nullptr; cp = cp->ci_next) {
    std::uint64_t copy_len = 0;
    for (int i = 0; i < cp->ci_npart; i++) {
      copy_len += chunk * static_cast<std::uint64_t>(cp->ci_parts[i]->tei_region.dkr_len);
    }
    copy_shape shape;
    std::uint64_t at = 0;
    for (int i = 0; i < cp->ci_npart; i++) {
      const disk_region& r = cp->ci_parts[i]->tei_region;
      copy_part_place p{kind,
                        cp->ci_copy,
                        chunk * static_cast<std::uint64_t>(r.dkr_offset),
                        chunk * static_cast<std::uint64_t>(r.dkr_len),
                        at,
                        512,
                        1,
                        0};
      if (i == 0) {
        shape = kind == copy_kind::config ? config_shape(img, p.start, copy_len)
                                          : log_shape(img, p.start, copy_len);
      }
      p.unit = shape.unit;
      p.body_first = shape.body_first;
      p.body_end = shape.body_end;
      out.push_back(p);
      at += p.len;
    }
  }
}

int count_copies(const copy_info* list) {
  int n = 0;
  for (; list != nullptr; list = list->ci_next) n++;
  return n;
}

}  // namespace

copy_places copy_places::locate_quietly(inspect_image& img) {
  copy_places pl;
  pl.sector_size_ = static_cast<std::uint64_t>(img.sector_size());
  char line[200];
  if (img.attrs().dka_alternate_header < 0) {
    pl.summary_ = "located: nothing, the image is too short to hold both header positions";
    return pl;
  }
  int res = img.scan();
  if (res != 0) {
    std::snprintf(line, sizeof line, "located: nothing, scan failed: error %d: %s", res,
                  vol_strerror(res));
    pl.summary_ = line;
    return pl;
  }
  const priv_header_info* h = img.priv()->pri_header;
  pl.add_fixed(h->phi_primary_header, header_magic, "; primary header position");
  pl.add_fixed(h->phi_alt_header, header_magic, "; alternate header position");
  pl.header_seqno_known = true;
  pl.header_seqno = h->phi_update_seqno;
  char seq[24];
  volseqnotostr(h->phi_update_seqno, seq);
  const char* which = (img.priv()->pri_flags & PRI_USED_ALT) != 0 ? "alternate" : "primary";
  const voff_t first_toc = h->phi_first_toc, first_alt_toc = h->phi_first_alt_toc;
  res = img.join();
  if (res != 0) {
    // The chains could not be walked: their first blocks are still named.
    if (first_toc > 0) pl.add_fixed(first_toc, toc_magic, "; primary TOC block 0");
    if (first_alt_toc > 0) pl.add_fixed(first_alt_toc, toc_magic, "; alternate TOC block 0");
    std::snprintf(line, sizeof line,
                  "located: %s header, seqno %s; table of contents not joined: error %d: %s", which,
                  seq, res, vol_strerror(res));
    pl.summary_ = line;
    return pl;
  }
  pl.joined_ = true;
  const priv_info* priv = img.priv();
  for (std::size_t i = 0; i < priv->pri_toc_len; i++) {
    if (priv->pri_toc_sectors != nullptr) {
      pl.add_fixed(priv->pri_toc_sectors[i], toc_magic, "; primary TOC block " + std::to_string(i));
    }
    if (priv->pri_alt_toc_sectors != nullptr) {
      pl.add_fixed(priv->pri_alt_toc_sectors[i], toc_magic,
                   "; alternate TOC block " + std::to_string(i));
    }
  }
  std::uint64_t chunk = h->phi_chunk_size;
  add_copies(img, copy_kind::config, img.priv()->pri_config_copies, chunk, pl.parts_);
  add_copies(img, copy_kind::log, img.priv()->pri_log_copies, chunk, pl.parts_);
  std::snprintf(
      line, sizeof line, "located: %s header, seqno %s; %d configuration and %d log copies", which,
      seq, count_copies(img.priv()->pri_config_copies), count_copies(img.priv()->pri_log_copies));
  pl.summary_ = line;
  return pl;
}

void copy_places::add_fixed(voff_t sector, const char* magic, std::string where) {
  if (sector < 0) return;
  fixed_.push_back({static_cast<std::uint64_t>(sector), magic, std::move(where)});
}

std::optional<expected_magic> copy_places::expected(std::uint64_t sector) const {
  for (const fixed_place& f : fixed_) {
    if (f.sector == sector) return expected_magic{f.magic, f.where, std::nullopt};
  }
  const copy_part_place* p = joined_ ? find(sector * sector_size_) : nullptr;
  if (p == nullptr) return std::nullopt;
  std::optional<copy_position> at = position(sector);
  if (!at || at->rem != 0) return std::nullopt;
  bool config = p->kind == copy_kind::config;
  const char* magic = nullptr;
  if (at->block == 0) {
    magic = config ? voldb_magic : klog_magic;
  } else if (at->block >= p->body_first && at->block < p->body_end) {
    magic = config ? ddb_blkhdr_magic : klog_magic;
  }
  if (magic == nullptr) return std::nullopt;
  return expected_magic{magic, describe(sector), at};
}

const copy_part_place* copy_places::find(std::uint64_t byte) const {
  for (const copy_part_place& p : parts_) {
    if (byte >= p.start && byte - p.start < p.len) return &p;
  }
  return nullptr;
}

std::optional<copy_position> copy_places::position(std::uint64_t sector) const {
  const copy_part_place* p = joined_ ? find(sector * sector_size_) : nullptr;
  if (p == nullptr) return std::nullopt;
  std::uint64_t at = p->copy_offset + sector * sector_size_ - p->start;
  return copy_position{p->kind, p->copy, at / p->unit, at % p->unit};
}

std::string copy_places::describe(std::uint64_t sector) const {
  if (!joined_) return "";
  std::optional<copy_position> at = position(sector);
  if (!at) return "; outside every copy";
  std::string out = std::string("; ") + (at->kind == copy_kind::config ? "config" : "log") +
                    " copy " + std::to_string(at->copy) + ", block " + std::to_string(at->block);
  if (at->rem != 0) out += " + " + std::to_string(at->rem) + " bytes";
  return out;
}

std::string copy_places::describe(std::uint64_t sector, copy_kind kind, std::uint32_t blkno) const {
  std::string out = describe(sector);
  std::optional<copy_position> at = position(sector);
  if (at && at->kind == kind && at->rem == 0 && at->block != blkno) {
    out += ": block number differs";
  }
  return out;
}

}  // namespace pd
