// The update side of the handle: opening an update (pending maps and a new
// header sequence number), rewriting both TOC chains, writing the header, and
// the checks that the header on disk is still the one in memory. Nothing here
// runs on the dump path, where PRI_NOUPDATE is set.
//
// The rewrite packs the entries into blocks in list order; each block's
// primary copy takes the lowest chunk free in both the pending and the
// allocation map, its alternate the highest, so the new table never
// overwrites the one still valid on disk.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "base/errors.h"
#include "codec/integers.h"
#include "private_region/bitmap.h"
#include "private_region/header.h"
#include "private_region/join.h"
#include "private_region/locate.h"
#include "private_region/toc.h"

namespace pd {

namespace {

constexpr std::size_t TEI_UNPLACED = std::numeric_limits<std::size_t>::max();

std::size_t sectors_per_chunk(const priv_header_info* hdr) {
  const voff_t n = priv_chunk_to_sector(hdr, 1);
  return n > 0 ? static_cast<std::size_t>(n) : 1;
}

// A copy of `src` (nbits bits) or a zeroed map when there is none.
bitmap_t* pending_copy(const bitmap_t* src, voff_t nbits) {
  if (nbits < 0 || nbits > std::numeric_limits<int>::max()) return nullptr;
  bitmap_t* map = bmap_alloc(static_cast<int>(nbits));
  if (map != nullptr && src != nullptr) bmap_add(map, src, static_cast<int>(nbits));
  return map;
}

// Assigns each entry not being removed to a block; returns the number of
// blocks, or 0 when an entry is larger than a whole block.
std::size_t place_entries(priv_info* priv) {
  const std::size_t chunk = priv->pri_header->phi_chunk_size;
  const std::size_t room0 = chunk > TOC_ENTRIES_OFFSET ? chunk - TOC_ENTRIES_OFFSET : 0;
  std::size_t block = 0;
  std::size_t room = room0;
  for (toc_entry_info* e = priv->pri_toc_entries; e != nullptr; e = e->tei_next)
    e->tei_sector = TEI_UNPLACED;
  for (toc_entry_info* e = priv->pri_toc_entries; e != nullptr; e = e->tei_next) {
    if (e->tei_internal_flags & TEI_REMOVE) continue;
    const std::size_t size = TOC_ENTRY_FIXED + e->tei_region.dkr_info_size;
    if (size > room0) return 0;
    if (size > room) {
      ++block;
      room = room0;
    }
    room -= size;
    e->tei_sector = block;
  }
  return block + 1;
}

bool chunk_free(const priv_info* priv, int c) {
  return !bmap_test(priv->pri_pending_map, c) &&
         (priv->pri_alloc_map == nullptr || !bmap_test(priv->pri_alloc_map, c));
}

// Primary and alternate positions (sectors) of each new block; 164 when the
// region has no free chunk left.
int allocate_blocks(priv_info* priv, std::size_t nblocks, voff_t* toc, voff_t* alt) {
  const priv_header_info* hdr = priv->pri_header;
  const int nbits = static_cast<int>(priv_len_chunks(hdr));
  for (std::size_t i = 0; i < nblocks; ++i) {
    int low = 0;
    while (low < nbits && !chunk_free(priv, low)) ++low;
    if (low >= nbits) return VE_PRIV_FULL;
    bmap_set(priv->pri_pending_map, low);
    int high = nbits - 1;
    while (high >= 0 && !chunk_free(priv, high)) --high;
    if (high < 0) return VE_PRIV_FULL;
    bmap_set(priv->pri_pending_map, high);
    toc[i] = priv_chunk_to_sector(hdr, low);
    alt[i] = priv_chunk_to_sector(hdr, high);
  }
  return VE_OK;
}

// Writes block `i` to both its positions; only both failing is an error.
int write_block(priv_info* priv, std::uint8_t* buf, std::size_t i, std::size_t nblocks,
                const voff_t* toc, const voff_t* alt) {
  const priv_header_info* hdr = priv->pri_header;
  const std::size_t chunk = hdr->phi_chunk_size;
  std::memset(buf, 0, chunk);
  put_be32(buf + TOC_SEQNO_HI_OFFSET, hdr->phi_update_seqno.seqno_hi);
  put_be32(buf + TOC_SEQNO_LO_OFFSET, hdr->phi_update_seqno.seqno_lo);
  const bool last = i + 1 == nblocks;
  put_be64(buf + TOC_NEXT_OFFSET, last ? 0 : static_cast<std::uint64_t>(toc[i + 1]));
  put_be64(buf + TOC_ALT_NEXT_OFFSET, last ? 0 : static_cast<std::uint64_t>(alt[i + 1]));
  std::uint8_t* cursor = buf + TOC_ENTRIES_OFFSET;
  for (const toc_entry_info* e = priv->pri_toc_entries; e != nullptr; e = e->tei_next)
    if (e->tei_sector == i) priv_pack_toc_entry(e, &cursor);
  std::memcpy(buf, toc_magic, TOC_MAGIC_LEN);
  put_be32(buf + TOC_CHECKSUM_OFFSET, static_cast<std::uint32_t>(priv_toc_checksum(buf, chunk)));
  const std::size_t count = sectors_per_chunk(hdr);
  const int r1 = priv->pri_write(priv, buf, toc[i], count, PRI_IO_PRIVATE);
  const int r2 = priv->pri_write(priv, buf, alt[i], count, PRI_IO_PRIVATE);
  return (r1 != VE_OK && r2 != VE_OK) ? r1 : VE_OK;
}

// Makes the new table the handle's: frees the old blocks' chunks, drops the
// entries left unplaced, installs the pending maps and the new arrays.
void commit_toc(priv_info* priv, std::size_t nblocks, voff_t* toc, voff_t* alt) {
  const priv_header_info* hdr = priv->pri_header;
  const voff_t nbits = priv_len_chunks(hdr);
  for (std::size_t i = 0; i < priv->pri_toc_len; ++i) {
    for (voff_t s : {priv->pri_toc_sectors[i], priv->pri_alt_toc_sectors[i]}) {
      const voff_t c = priv_sector_to_chunk(hdr, s);
      if (c >= 0 && c < nbits) bmap_clear(priv->pri_pending_map, static_cast<int>(c));
    }
  }
  for (toc_entry_info* e = priv->pri_toc_entries; e != nullptr;) {
    toc_entry_info* next = e->tei_next;
    if (e->tei_sector == TEI_UNPLACED) {
      priv_toc_delete(priv, e);
      priv_free_toc_entry(e);
    } else {
      e->tei_internal_flags &= ~TEI_NEW;
    }
    e = next;
  }
  bmap_free(priv->pri_alloc_map);
  priv->pri_alloc_map = priv->pri_pending_map;
  priv->pri_pending_map = nullptr;
  std::free(priv->pri_toc_sectors);
  std::free(priv->pri_alt_toc_sectors);
  priv->pri_toc_sectors = toc;
  priv->pri_alt_toc_sectors = alt;
  priv->pri_toc_len = nblocks;
  for (aux_priv_region* a = priv->pri_aux_priv; a != nullptr; a = a->apr_next) {
    bmap_free(a->apr_alloc_map);
    a->apr_alloc_map = a->apr_pending_map;
    a->apr_pending_map = nullptr;
  }
}

// Reads and decodes the header copy at `sector` into `scratch` (a copy of
// the in-memory header); 167 when it does not sit where the memory one does.
int read_header_copy(priv_info* priv, std::uint8_t* buf, voff_t sector, priv_header_info* scratch,
                     bool check_position) {
  const priv_header_info* hdr = priv->pri_header;
  *scratch = *hdr;
  int res = priv->pri_read(priv, buf, sector, 1, PRI_IO_PRIVATE);
  if (res != VE_OK) return res;
  res = priv_unformat_header(scratch, buf);
  if (res == VE_OK && check_position &&
      scratch->phi_alt_header + scratch->phi_priv_offset != hdr->phi_priv_offset + hdr->phi_alt_header)
    res = VE_HEADER_NOT_FOUND;
  return res;
}

bool same_header(const priv_header_info& a, const priv_header_info& b) {
  return std::strcmp(a.phi_diskid, b.phi_diskid) == 0 &&
         std::strcmp(a.phi_hostid, b.phi_hostid) == 0 && std::strcmp(a.phi_dgid, b.phi_dgid) == 0 &&
         a.phi_primary_header == b.phi_primary_header && a.phi_alt_header == b.phi_alt_header &&
         a.phi_pub_id == b.phi_pub_id && a.phi_priv_id == b.phi_priv_id &&
         a.phi_pub_len == b.phi_pub_len && a.phi_pub_offset == b.phi_pub_offset &&
         a.phi_priv_len == b.phi_priv_len && a.phi_priv_offset == b.phi_priv_offset &&
         a.phi_update_time == b.phi_update_time && seqno_equal(a.phi_update_seqno, b.phi_update_seqno);
}

}  // namespace

int priv_update_toc_start(priv_info* priv) {
  const voff_t nbits = priv_len_chunks(priv->pri_header);
  bmap_free(priv->pri_pending_map);
  priv->pri_pending_map = pending_copy(priv->pri_alloc_map, nbits);
  if (priv->pri_pending_map == nullptr) return VE_NOMEM;
  for (aux_priv_region* a = priv->pri_aux_priv; a != nullptr; a = a->apr_next) {
    bmap_free(a->apr_pending_map);
    a->apr_pending_map = pending_copy(a->apr_alloc_map, a->apr_len);
    if (a->apr_pending_map == nullptr) return VE_NOMEM;
  }
  priv_update_header_start(priv);
  return VE_OK;
}

void priv_update_toc_abort(priv_info* priv) {
  bmap_free(priv->pri_pending_map);
  priv->pri_pending_map = nullptr;
  for (aux_priv_region* a = priv->pri_aux_priv; a != nullptr; a = a->apr_next) {
    bmap_free(a->apr_pending_map);
    a->apr_pending_map = nullptr;
  }
}

int priv_update_header(priv_info* priv, int failokay) {
  if (priv->pri_flags & PRI_NOUPDATE) return VE_OK;
  const priv_header_info* hdr = priv->pri_header;
  const std::size_t size = std::max(hdr->phi_chunk_size, PRIV_HEADER_SIZE);
  std::uint8_t* buf = priv_io_buffer(priv, size);
  if (buf == nullptr) return VE_NOMEM;
  std::memset(buf, 0, size);
  priv_format_header(hdr, buf);
  const int r1 = priv->pri_write(priv, buf, hdr->phi_primary_header, 1, PRI_IO_PRIVATE);
  const int r2 = priv->pri_write(priv, buf, hdr->phi_alt_header, 1, PRI_IO_PRIVATE);
  if (hdr->phi_nt_backup_header != 0)
    (void)priv->pri_write(priv, buf, hdr->phi_nt_backup_header, 1, PRI_IO_PRIVATE | PRI_IO_ABSOLUTE);
  if (r1 != VE_OK && r2 != VE_OK) return r1;
  if (failokay) return VE_OK;
  return r1 != VE_OK ? r1 : r2;
}

int priv_update_toc(priv_info* priv, int failokay) {
  if (priv->pri_flags & PRI_NOUPDATE) return VE_OK;
  priv_header_info* hdr = priv->pri_header;
  if (priv->pri_pending_map == nullptr) return VE_NOMEM;  // no update was opened
  if (hdr->phi_chunk_size < TOC_ENTRIES_OFFSET) return VE_PRIV_FORMAT;  // no room for a block
  const std::size_t nblocks = place_entries(priv);
  if (nblocks == 0) return VE_PRIV_FULL;  // an entry larger than a block
  auto* toc = static_cast<voff_t*>(std::calloc(nblocks, sizeof(voff_t)));
  auto* alt = static_cast<voff_t*>(std::calloc(nblocks, sizeof(voff_t)));
  int res = (toc == nullptr || alt == nullptr) ? VE_NOMEM : VE_OK;
  if (res == VE_OK) res = allocate_blocks(priv, nblocks, toc, alt);
  const voff_t old_first = hdr->phi_first_toc;
  const voff_t old_first_alt = hdr->phi_first_alt_toc;
  if (res == VE_OK) {
    std::uint8_t* buf = priv_io_buffer(priv, hdr->phi_chunk_size);
    if (buf == nullptr) res = VE_NOMEM;
    for (std::size_t i = 0; res == VE_OK && i < nblocks; ++i)
      res = write_block(priv, buf, i, nblocks, toc, alt);
    hdr->phi_first_toc = toc[0];
    hdr->phi_first_alt_toc = alt[0];
    if (res == VE_OK) res = priv_update_header(priv, failokay);
  }
  if (res != VE_OK) {
    hdr->phi_first_toc = old_first;
    hdr->phi_first_alt_toc = old_first_alt;
    std::free(toc);
    std::free(alt);
    return res;
  }
  commit_toc(priv, nblocks, toc, alt);
  return VE_OK;
}

int priv_check(priv_info* priv, int rewrite) {
  const priv_header_info* hdr = priv->pri_header;
  std::uint8_t* buf = priv_io_buffer(priv, std::max(hdr->phi_chunk_size, PRIV_HEADER_SIZE));
  if (buf == nullptr) return VE_NOMEM;
  priv_header_info scratch;
  int res = read_header_copy(priv, buf, hdr->phi_primary_header, &scratch, true);
  if (res == VE_NOMEM) return res;
  if (res != VE_OK) res = read_header_copy(priv, buf, hdr->phi_alt_header, &scratch, true);
  if (res != VE_OK) return res;
  if (!same_header(scratch, *hdr)) return VE_CHANGED_ON_DISK;
  if (rewrite) {
    res = priv_update_toc_start(priv);
    if (res == VE_OK) res = priv_update_toc(priv, 1);
    if (res != VE_OK) priv_update_toc_abort(priv);
  }
  return res;
}

int priv_slave_check(priv_info* priv) {
  const priv_header_info* hdr = priv->pri_header;
  std::uint8_t* buf = priv_io_buffer(priv, std::max(hdr->phi_chunk_size, PRIV_HEADER_SIZE));
  if (buf == nullptr) return VE_NOMEM;
  priv_header_info scratch;
  int res = read_header_copy(priv, buf, hdr->phi_primary_header, &scratch, false);
  if (res == VE_NOMEM) return res;
  if (res != VE_OK) res = read_header_copy(priv, buf, hdr->phi_alt_header, &scratch, false);
  return res;
}

}  // namespace pd
