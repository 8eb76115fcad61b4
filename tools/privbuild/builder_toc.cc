// The TOC of a built image.
//
// Automatic mode (no tocblock gives at=/alt=): the entries go through the
// system's own TOC writer, priv_update_toc, on a handle whose allocation map
// marks sector 0, the header copies and every private region; the writer
// packs the entries in list order and puts block copies at the lowest and
// highest free chunks. tocblock statements then patch the written blocks in
// order (next pointers, sequence number, damage, which copies remain).
//
// Explicit mode: each tocblock statement is one block at the positions it
// names; entries go to the block their region names (block=) or fill the
// blocks in description order.
#include <algorithm>
#include <cstdlib>

#include "base/errors.h"
#include "base/session.h"
#include "codec/integers.h"
#include "io/dump_device.h"
#include "private_region/bitmap.h"
#include "private_region/join.h"
#include "private_region/locate.h"
#include "private_region/toc.h"
#include "privbuild/builder_internal.h"

namespace pd {

namespace {

// The session of the system's TOC writer, with the image it writes to.
struct builder_io : session {
  image* img = nullptr;
  std::string error;
};

int builder_write(priv_info* priv, void* buf, voff_t offset, std::size_t len, unsigned long flag) {
  auto* io = static_cast<builder_io*>(priv_session(priv));
  const std::size_t n = len * priv->pri_header->phi_atomic_iosize;
  std::uint8_t* dst = (flag & PRI_IO_PRIVATE) ? io->img->sector(offset, n) : nullptr;
  if (dst == nullptr) {
    io->error = "the TOC would lie outside the image (sector " + std::to_string(offset) + ")";
    return VE_WRITE_FAILED;
  }
  std::memcpy(dst, buf, n);
  return VE_OK;
}

toc_entry_info* make_entry(const region_plan& r) {
  toc_entry_info* e = priv_alloc_toc_entry(r.has_info ? r.info.size() : 0);
  if (e == nullptr) return nullptr;
  disk_region& d = e->tei_region;
  std::memcpy(d.dkr_type, r.type.c_str(), r.type.size() + 1);
  d.dkr_flags = r.flags;
  d.dkr_offset = r.offset;
  d.dkr_len = r.len;
  int res = VE_OK;
  if (r.has_info) {
    if (!r.info.empty()) std::memcpy(d.dkr_info, r.info.data(), r.info.size());
  } else if (r.type == "config" || r.type == "log") {
    const copy_region_entry cr{static_cast<std::size_t>(r.copy),
                               static_cast<unsigned long>(r.part_offset)};
    res = priv_pack_copy_entry(&cr, e);
  } else if (r.type == "lockrgn") {
    const lock_region_entry lr{static_cast<std::size_t>(r.lock),
                               static_cast<unsigned long>(r.lock_offset)};
    res = priv_pack_lkr_entry(&lr, e);
  } else if (r.type == "tagid") {
    res = priv_pack_tagid_entry(&r.tag, e);
  }
  if (res != VE_OK) {
    priv_free_toc_entry(e);
    return nullptr;
  }
  return e;
}

// Bytes the region's entry takes in a block.
std::size_t entry_bytes(const region_plan& r) {
  toc_entry_info* e = make_entry(r);
  const std::size_t size = TOC_ENTRY_FIXED + (e ? e->tei_region.dkr_info_size : 0);
  priv_free_toc_entry(e);
  return size;
}

// Marks sectors [first, first + count) used, within the map.
void mark_range(bitmap_t* map, voff_t nbits, voff_t first, voff_t count) {
  for (voff_t s = std::max<voff_t>(first, 0); s < first + count && s < nbits; ++s)
    bmap_set(map, static_cast<int>(s));
}

struct handle_guard {
  priv_info* priv;
  ~handle_guard() { priv_free(priv); }
};

// The system's TOC writer over a handle holding the described entries.
bool write_toc_auto(const image_plan& plan, priv_header_info* hdr, image* img,
                    build_layout* layout, std::string* error) {
  builder_io io;
  io.img = img;
  handle_guard g{priv_alloc()};
  priv_info* priv = g.priv;
  priv_header_info* h = priv_alloc_header();
  if (priv == nullptr || h == nullptr) {
    priv_free_header(h);
    *error = "out of memory";
    return false;
  }
  *h = *hdr;
  priv->pri_header = h;
  priv->pri_io_private = &io;
  priv->pri_write = builder_write;
  const voff_t nbits = h->phi_priv_len;
  if (nbits <= 0 || nbits > (1 << 30)) {
    *error = "priv-len must be positive for an automatic TOC";
    return false;
  }
  priv->pri_alloc_map = bmap_alloc(static_cast<int>(nbits));
  if (priv->pri_alloc_map == nullptr) {
    *error = "out of memory";
    return false;
  }
  mark_range(priv->pri_alloc_map, nbits, 0, 1);
  mark_range(priv->pri_alloc_map, nbits, h->phi_primary_header, 1);
  mark_range(priv->pri_alloc_map, nbits, h->phi_alt_header, 1);
  for (const hdrcopy_plan& c : plan.hdrcopies) {
    long long at = 0;
    if (parse_int(c.at, &at)) mark_range(priv->pri_alloc_map, nbits, at, 1);
  }
  for (const region_plan& r : plan.regions) {
    if (r.block >= 0) {
      *error = at_line(r.line, "block= needs tocblock statements with at= and alt=");
      return false;
    }
    toc_entry_info* e = make_entry(r);
    if (e == nullptr) {
      *error = "out of memory";
      return false;
    }
    priv_toc_add(priv, e);
    if (!(r.flags & DKR_PUBLIC)) mark_range(priv->pri_alloc_map, nbits, r.offset, r.len);
  }

  // The header sectors keep what they held: the builder writes its own copies.
  std::vector<std::uint8_t> saved_primary, saved_alt;
  const std::size_t ss = plan.sector_size;
  if (std::uint8_t* p = img->sector(h->phi_primary_header, ss)) saved_primary.assign(p, p + ss);
  if (std::uint8_t* p = img->sector(h->phi_alt_header, ss)) saved_alt.assign(p, p + ss);

  int res = priv_update_toc_start(priv);
  if (res == VE_OK) {
    h->phi_update_seqno = hdr->phi_update_seqno;  // as described, not advanced
    h->phi_update_time = hdr->phi_update_time;
    res = priv_update_toc(priv, 0);
  }
  if (res != VE_OK) {
    *error = !io.error.empty() ? io.error
             : res == VE_PRIV_FULL ? "no room for the TOC (region full, or an entry larger than a block)"
                                   : std::string("the TOC writer failed: ") + std::to_string(res);
    return false;
  }
  if (!saved_primary.empty()) img->write(static_cast<std::uint64_t>(h->phi_primary_header) * ss, saved_primary.data(), ss);
  if (!saved_alt.empty()) img->write(static_cast<std::uint64_t>(h->phi_alt_header) * ss, saved_alt.data(), ss);
  layout->toc_sectors.assign(priv->pri_toc_sectors, priv->pri_toc_sectors + priv->pri_toc_len);
  layout->alt_toc_sectors.assign(priv->pri_alt_toc_sectors,
                                 priv->pri_alt_toc_sectors + priv->pri_toc_len);
  hdr->phi_first_toc = h->phi_first_toc;
  hdr->phi_first_alt_toc = h->phi_first_alt_toc;
  return true;
}

bool damages(const tocblock_plan& t, int copy) {
  return t.damage_copy == "both" || t.damage_copy == (copy == 0 ? "primary" : "alternate");
}

// Sets the patched fields of a block, re-sums it, then damages copy `copy`
// (0 primary, 1 alternate) when the statement asks for it.
void patch_block(std::uint8_t* block, std::size_t chunk, const tocblock_plan& t, int copy) {
  if (t.next) put_be64(block + TOC_NEXT_OFFSET, static_cast<std::uint64_t>(*t.next));
  if (t.alt_next) put_be64(block + TOC_ALT_NEXT_OFFSET, static_cast<std::uint64_t>(*t.alt_next));
  if (t.seqno) {
    put_be32(block + TOC_SEQNO_HI_OFFSET, t.seqno->seqno_hi);
    put_be32(block + TOC_SEQNO_LO_OFFSET, t.seqno->seqno_lo);
  }
  put_be32(block + 8, static_cast<std::uint32_t>(priv_toc_checksum(block, chunk)));
  if (damages(t, copy)) apply_damage(block, t.damage);
}

bool patch_auto_blocks(const image_plan& plan, image* img, const build_layout& layout,
                       std::string* error) {
  const std::size_t chunk = plan.sector_size;
  for (std::size_t i = 0; i < plan.tocblocks.size(); ++i) {
    const tocblock_plan& t = plan.tocblocks[i];
    if (i >= layout.toc_sectors.size()) {
      *error = at_line(t.line, "the TOC has only " + std::to_string(layout.toc_sectors.size()) +
                                   " block(s)");
      return false;
    }
    const voff_t pos[2] = {layout.toc_sectors[i], layout.alt_toc_sectors[i]};
    const bool keep[2] = {t.write == "both" || t.write == "primary",
                          t.write == "both" || t.write == "alternate"};
    for (int c = 0; c < 2; ++c) {
      std::uint8_t* block = img->sector(pos[c], chunk);
      if (block == nullptr) continue;
      if (keep[c]) {
        patch_block(block, chunk, t, c);
      } else {
        std::memset(block, plan.fill, chunk);
      }
    }
  }
  return true;
}

// Explicit mode: which block each region's entry goes to.
bool place_explicit(const image_plan& plan, std::vector<int>* block_of, std::string* error) {
  const std::size_t nblocks = plan.tocblocks.size();
  const std::size_t room0 = plan.sector_size - TOC_ENTRIES_OFFSET;
  std::vector<std::size_t> used(nblocks, 0);
  block_of->assign(plan.regions.size(), -1);
  for (std::size_t i = 0; i < plan.regions.size(); ++i) {
    const region_plan& r = plan.regions[i];
    if (r.block < 0) continue;
    if (static_cast<std::size_t>(r.block) >= nblocks) {
      *error = at_line(r.line, "no TOC block " + std::to_string(r.block));
      return false;
    }
    used[r.block] += entry_bytes(r);
    (*block_of)[i] = r.block;
  }
  std::size_t cur = 0;
  for (std::size_t i = 0; i < plan.regions.size(); ++i) {
    if ((*block_of)[i] >= 0) continue;
    const region_plan& r = plan.regions[i];
    const std::size_t size = entry_bytes(r);
    while (cur < nblocks && used[cur] + size > room0) ++cur;
    if (cur >= nblocks) {
      *error = at_line(r.line, "the entry does not fit in the TOC blocks given");
      return false;
    }
    used[cur] += size;
    (*block_of)[i] = static_cast<int>(cur);
  }
  return true;
}

bool write_toc_explicit(const image_plan& plan, priv_header_info* hdr, image* img,
                        build_layout* layout, std::string* error) {
  std::vector<int> block_of;
  if (!place_explicit(plan, &block_of, error)) return false;
  const std::size_t chunk = plan.sector_size;
  const std::size_t n = plan.tocblocks.size();
  std::vector<std::uint8_t> buf(chunk);
  for (std::size_t b = 0; b < n; ++b) {
    const tocblock_plan& t = plan.tocblocks[b];
    std::fill(buf.begin(), buf.end(), 0);
    put_be32(buf.data() + TOC_SEQNO_HI_OFFSET, hdr->phi_update_seqno.seqno_hi);
    put_be32(buf.data() + TOC_SEQNO_LO_OFFSET, hdr->phi_update_seqno.seqno_lo);
    const bool last = b + 1 == n;
    put_be64(buf.data() + TOC_NEXT_OFFSET, last ? 0 : static_cast<std::uint64_t>(*plan.tocblocks[b + 1].at));
    put_be64(buf.data() + TOC_ALT_NEXT_OFFSET, last ? 0 : static_cast<std::uint64_t>(*plan.tocblocks[b + 1].alt));
    std::uint8_t* cursor = buf.data() + TOC_ENTRIES_OFFSET;
    for (std::size_t i = 0; i < plan.regions.size(); ++i) {
      if (block_of[i] != static_cast<int>(b)) continue;
      toc_entry_info* e = make_entry(plan.regions[i]);
      if (e == nullptr || cursor + TOC_ENTRY_FIXED + e->tei_region.dkr_info_size > buf.data() + chunk) {
        priv_free_toc_entry(e);
        *error = at_line(plan.regions[i].line, "the entry does not fit in TOC block " + std::to_string(b));
        return false;
      }
      priv_pack_toc_entry(e, &cursor);
      priv_free_toc_entry(e);
    }
    std::memcpy(buf.data(), toc_magic, 8);
    const voff_t pos[2] = {*t.at, *t.alt};
    const bool keep[2] = {t.write == "both" || t.write == "primary",
                          t.write == "both" || t.write == "alternate"};
    for (int c = 0; c < 2; ++c) {
      if (!keep[c]) continue;
      std::uint8_t* dst = img->sector(pos[c], chunk);
      if (dst == nullptr) {
        *error = at_line(t.line, "TOC block lies outside the image");
        return false;
      }
      std::memcpy(dst, buf.data(), chunk);
      patch_block(dst, chunk, t, c);
    }
    layout->toc_sectors.push_back(*t.at);
    layout->alt_toc_sectors.push_back(*t.alt);
  }
  hdr->phi_first_toc = n ? *plan.tocblocks[0].at : 0;
  hdr->phi_first_alt_toc = n ? *plan.tocblocks[0].alt : 0;
  return true;
}

}  // namespace

void apply_damage(std::uint8_t* block, const std::vector<std::string>& damage) {
  for (const auto& d : damage) {
    if (d == "magic") block[0] ^= 0x20;  // "PRIVHEAD" -> "pRIVHEAD", "TOCBLOCK" -> "tOCBLOCK"
    if (d == "checksum") put_be32(block + 8, get_be32(block + 8) + 1);
  }
}

bool write_toc(const image_plan& plan, priv_header_info* hdr, image* img, build_layout* layout,
               std::string* error) {
  const bool explicit_blocks =
      std::any_of(plan.tocblocks.begin(), plan.tocblocks.end(), [](const tocblock_plan& t) { return t.at.has_value(); });
  if (explicit_blocks) {
    for (const tocblock_plan& t : plan.tocblocks) {
      if (!t.at) {
        *error = at_line(t.line, "every tocblock needs at= and alt= once one has them");
        return false;
      }
    }
    return write_toc_explicit(plan, hdr, img, layout, error);
  }
  if (!write_toc_auto(plan, hdr, img, layout, error)) return false;
  return patch_auto_blocks(plan, img, *layout, error);
}

}  // namespace pd
