// The region rewrite of `anonymise` (see anon.h): one walk over every
// structure that holds text, run once to collect the values and once to
// write their pseudonyms (the action on a value: anon_walk.h).
//
// Each structure is decoded through its own decoder, its text members are
// replaced in the decoded form, and it is encoded again through the
// format's encoder at the place it came from:
//   header copies   every sector that starts with "PRIVHEAD", and either
//                   header position whose magic is damaged: the version and
//                   body tables of its version (dbf_unfmt_tbl, dbf_fmt_tbl),
//                   whether or not its checksum verifies;
//   TOC blocks      every sector that starts with "TOCBLOCK": its entries
//                   (priv_unpack_toc_entry / priv_pack_toc_entry), tag-id
//                   payloads through priv_unpack/pack_tagid_entry;
//   config copies   (anon_copies.cc) every copy the TOC lists, enabled or
//                   not, and every sector starting with "VMDB" that no
//                   listed copy starts at (a copy of the size its header
//                   gives): the database header (voldbsup_reformat_header)
//                   and every record the block store completes
//                   (voldbsup_format_record, framed by ddb_format_block into
//                   the blocks it came from; a frame that would differ from
//                   the stored one stops the run);
//   log copies      (anon_copies.cc) no text; with --ids the record ids of
//                   the entries; the bytes no decoder reads (entry bytes
//                   21-23, block bytes 504-511) are zeroed in valid blocks.
// A checksum is recomputed only when the stored one verified; one that did
// not verify is kept, and should it verify by chance over the new bytes,
// its lowest bit is flipped so that the structure still fails.
// Zeroed (unless the walk keeps them): string bytes after their terminator
// (the encoders pad with zeros), header bytes after the body, TOC bytes
// after the last entry, the payload of store blocks that carry no record,
// a record's last block after its body, and, in a joined region, every
// sector outside the headers, the TOC blocks and the regions the TOC lists.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <functional>
#include <set>

#include "codec/integers.h"
#include "codec/text_forms.h"
#include "config_db/block_store.h"
#include "config_db/record_layouts.h"
#include "inspect/anon.h"
#include "inspect/anon_walk.h"
#include "private_region/header.h"
#include "private_region/log_block.h"
#include "private_region/toc.h"

namespace pd {

namespace {

using anon_detail::walk_config_copy;
using anon_detail::walk_log_copy;
using anon_detail::walker;


void seal_checksum(std::uint8_t* csum_field, bool verified, std::uint32_t stored,
                   std::uint32_t now) {
  if (verified) {
    put_be32(csum_field, now);
  } else {
    put_be32(csum_field, stored == now ? stored ^ 1u : stored);
  }
}

// ---------------------------------------------------------------------------
// Header copies.

struct table_ref {
  const db_field* t;
  std::size_t n;
};

void walk_header(std::uint8_t* buf, std::size_t sector_len, walker& w) {
  const std::uint32_t stored = priv_header_stored_checksum(buf);
  const bool verified = static_cast<std::uint32_t>(priv_header_checksum(buf)) == stored;
  priv_header_info h{};
  const std::uint8_t* lim = buf + PRIV_HEADER_SIZE;
  const std::uint8_t* p = dbf_unfmt_tbl(priv_version_fields, n_priv_version_fields, &h,
                                        buf + PRIV_VERSION_OFFSET, lim);
  std::vector<table_ref> body;
  if (h.phi_version_major == 1) {
    body = {{priv_header_fields_1_2, n_priv_header_fields_1_2}};
  } else if (h.phi_version_major >= 2 && h.phi_version_major <= 4) {
    body = {{priv_header_fields_2_0, n_priv_header_fields_2_0},
            {priv_header_fields_2_0_nt_minor1, n_priv_header_fields_2_0_nt_minor1},
            {priv_header_fields_2_0_nt_minor2, n_priv_header_fields_2_0_nt_minor2},
            {priv_header_fields_2_0_nt_minor3, n_priv_header_fields_2_0_nt_minor3}};
  }
  for (const table_ref& t : body) p = p == nullptr ? nullptr : dbf_unfmt_tbl(t.t, t.n, &h, p, lim);
  if (p == nullptr || body.empty()) {
    if (w.writing() && w.stats != nullptr)
      w.stats->kept.push_back("a header of unknown version");
    return;
  }
  if (h.phi_version_major == 1) w.text(h.phi_dg_name_1_2, sizeof h.phi_dg_name_1_2);
  w.text(h.phi_dg_name, sizeof h.phi_dg_name);
  w.text(h.phi_hostid, sizeof h.phi_hostid);
  w.id(h.phi_diskid, sizeof h.phi_diskid);
  w.id(h.phi_dgid, sizeof h.phi_dgid);
  w.id(h.phi_move_dgid, sizeof h.phi_move_dgid);
  w.guid(&h.phi_nt_diskset_id);
  w.guid(&h.phi_nt_new_diskset_id);
  if (!w.writing()) return;
  std::uint8_t* q = dbf_fmt_tbl(priv_version_fields, n_priv_version_fields, &h,
                                buf + PRIV_VERSION_OFFSET);
  for (const table_ref& t : body) q = dbf_fmt_tbl(t.t, t.n, &h, q);
  const auto end = static_cast<std::size_t>(q - buf);
  if (w.zero) {
    std::memset(buf + end, 0, sector_len - end);
    if (w.stats != nullptr) w.stats->zeroed_bytes += sector_len - end;
  }
  seal_checksum(buf + PRIV_CHECKSUM_OFFSET, verified, stored,
                static_cast<std::uint32_t>(priv_header_checksum(buf)));
  if (w.stats != nullptr) ++w.stats->headers;
}

// ---------------------------------------------------------------------------
// TOC blocks.

void walk_toc_block(std::uint8_t* buf, std::size_t len, walker& w) {
  const std::uint32_t stored = get_be32(buf + TOC_CHECKSUM_OFFSET);
  const bool verified = static_cast<std::uint32_t>(priv_toc_checksum(buf, len)) == stored;
  const std::uint8_t* cursor = buf + TOC_ENTRIES_OFFSET;
  const std::uint8_t* end = buf + len;
  std::vector<toc_entry_info*> entries;
  bool clean_end = false;
  for (;;) {
    toc_entry_info* e = nullptr;
    if (priv_unpack_toc_entry(&e, &cursor, end) != 0) break;
    if (e == nullptr) {
      clean_end = true;
      break;
    }
    entries.push_back(e);
  }
  for (toc_entry_info* e : entries) {
    if (std::strcmp(e->tei_region.dkr_type, "tagid") != 0) continue;
    tagid_region_entry tag;
    if (priv_unpack_tagid_entry(&tag, e) != 0) continue;
    w.text(tag.dktagid_value, sizeof tag.dktagid_value);
    w.text(tag.dktagid_source, sizeof tag.dktagid_source);
    if (w.writing() && priv_pack_tagid_entry(&tag, e) != 0) w.fail("no memory");
  }
  if (w.writing()) {
    std::uint8_t* q = buf + TOC_ENTRIES_OFFSET;
    for (toc_entry_info* e : entries) {
      if (w.zero) std::memset(q, 0, TOC_ENTRY_TYPE_LEN);
      priv_pack_toc_entry(e, &q);
    }
    if (clean_end && w.zero) {
      const auto n = static_cast<std::size_t>(end - q);
      std::memset(q, 0, n);
      if (w.stats != nullptr) w.stats->zeroed_bytes += n;
    }
    seal_checksum(buf + TOC_CHECKSUM_OFFSET, verified, stored,
                  static_cast<std::uint32_t>(priv_toc_checksum(buf, len)));
    if (w.stats != nullptr) ++w.stats->toc_blocks;
  }
  for (toc_entry_info* e : entries) priv_free_toc_entry(e);
}


// ---------------------------------------------------------------------------
// The region.

struct part_span {
  std::uint64_t start, len;
};

// The parts of a copy in the region, cut at the region's end.
std::vector<part_span> copy_parts(const priv_info* priv, const copy_info* cp, std::size_t size) {
  std::vector<part_span> parts;
  const auto chunk = static_cast<std::uint64_t>(priv->pri_header->phi_chunk_size);
  for (int i = 0; i < cp->ci_npart; ++i) {
    const disk_region& rg = cp->ci_parts[i]->tei_region;
    if (rg.dkr_offset < 0 || rg.dkr_len < 0 || (rg.dkr_flags & DKR_PUBLIC)) continue;
    const std::uint64_t start = chunk * static_cast<std::uint64_t>(rg.dkr_offset);
    if (start >= size) continue;
    parts.push_back({start, std::min<std::uint64_t>(chunk * static_cast<std::uint64_t>(rg.dkr_len),
                                                    size - start)});
  }
  return parts;
}

void walk_copies(inspect_image& img, std::vector<std::uint8_t>& region, bool config, walker& w,
                 std::set<std::uint64_t>& starts) {
  priv_info* priv = img.priv();
  for (copy_info* cp = config ? priv->pri_config_copies : priv->pri_log_copies; cp != nullptr;
       cp = cp->ci_next) {
    const std::vector<part_span> parts = copy_parts(priv, cp, region.size());
    if (!parts.empty()) starts.insert(parts[0].start);
    std::vector<std::uint8_t> copy;
    for (const part_span& p : parts)
      copy.insert(copy.end(), region.begin() + p.start, region.begin() + p.start + p.len);
    if (config) {
      walk_config_copy(copy, cp->ci_copy, w);
    } else {
      walk_log_copy(copy, w);
    }
    if (!w.writing()) continue;
    std::size_t at = 0;
    for (const part_span& p : parts) {
      std::copy(copy.begin() + at, copy.begin() + at + p.len, region.begin() + p.start);
      at += p.len;
    }
  }
}

bool starts_with(const std::vector<std::uint8_t>& region, std::size_t off, const char* magic,
                 std::size_t len) {
  return off + len <= region.size() && std::memcmp(region.data() + off, magic, len) == 0;
}

// Database headers that no copy of the TOC starts with (a region that
// cannot be joined, a copy the TOC no longer lists): each is taken as one
// copy of nblocks * blksize bytes from its sector, cut at the region's end.
void walk_unlisted_copies(std::vector<std::uint8_t>& region, std::size_t ss,
                          const std::set<std::uint64_t>& starts, walker& w) {
  for (std::size_t off = 0; off + ss <= region.size(); off += ss) {
    if (starts.count(off) != 0 || !starts_with(region, off, voldb_magic, VOLDB_MAGIC_LEN)) continue;
    voldb_prefix_info pre{};
    if (voldb_prefix_decode(region.data() + off, region.data() + region.size(), &pre) == nullptr)
      continue;
    const std::uint64_t len = std::min<std::uint64_t>(
        static_cast<std::uint64_t>(pre.vdp_nblocks) * pre.vdp_blksize, region.size() - off);
    std::vector<std::uint8_t> copy(region.begin() + off, region.begin() + off + len);
    walk_config_copy(copy, 0, w);
    if (w.writing()) std::copy(copy.begin(), copy.end(), region.begin() + off);
  }
}

// Every sector outside the headers, the TOC blocks and the regions the TOC
// lists, zeroed.
void zero_unlisted(inspect_image& img, std::vector<std::uint8_t>& region,
                   const std::vector<bool>& structure, walker& w) {
  priv_info* priv = img.priv();
  const std::size_t ss = static_cast<std::size_t>(img.sector_size());
  std::vector<bool> keep = structure;
  auto mark = [&](std::uint64_t start, std::uint64_t len) {
    for (std::uint64_t s = start / ss; s < keep.size() && s * ss < start + len; ++s) keep[s] = true;
  };
  const auto chunk = static_cast<std::uint64_t>(priv->pri_header->phi_chunk_size);
  const disk_attrs& a = img.attrs();
  for (voff_t s : {a.dka_primary_header, a.dka_alternate_header, a.dka_nt_backup_header}) {
    if (s > 0) mark(static_cast<std::uint64_t>(s) * ss, ss);
  }
  mark(0, ss);
  for (std::size_t i = 0; i < priv->pri_toc_len; ++i) {
    if (priv->pri_toc_sectors != nullptr) mark(chunk * priv->pri_toc_sectors[i], chunk);
    if (priv->pri_alt_toc_sectors != nullptr) mark(chunk * priv->pri_alt_toc_sectors[i], chunk);
  }
  for (const toc_entry_info* e = priv->pri_toc_entries; e != nullptr; e = e->tei_next) {
    const disk_region& rg = e->tei_region;
    if (rg.dkr_offset < 0 || rg.dkr_len < 0 || (rg.dkr_flags & DKR_PUBLIC)) continue;
    mark(chunk * static_cast<std::uint64_t>(rg.dkr_offset),
         chunk * static_cast<std::uint64_t>(rg.dkr_len));
  }
  for (std::size_t s = 0; s < keep.size(); ++s) {
    if (keep[s]) continue;
    if (w.stats != nullptr) w.stats->free_sectors.push_back(s);
    std::uint8_t* p = region.data() + s * ss;
    if (std::any_of(p, p + ss, [](std::uint8_t b) { return b != 0; })) {
      std::memset(p, 0, ss);
      if (w.stats != nullptr) w.stats->zeroed_bytes += ss;
    }
  }
}

// A header whose magic is damaged (at most two of its bytes differ) at one
// of the header positions is a header still: its names are there.
bool damaged_header_at(inspect_image& img, const std::vector<std::uint8_t>& region,
                       std::size_t sector) {
  const disk_attrs& a = img.attrs();
  if (static_cast<voff_t>(sector) != a.dka_primary_header &&
      static_cast<voff_t>(sector) != a.dka_alternate_header)
    return false;
  const std::size_t off = sector * static_cast<std::size_t>(img.sector_size());
  if (off + PRIV_HEADER_SIZE > region.size()) return false;
  int differ = 0;
  for (std::size_t i = 0; i < PRIV_MAGIC_LEN; ++i) differ += region[off + i] != header_magic[i];
  return differ <= 2;
}

void walk_region(inspect_image& img, std::vector<std::uint8_t>& region, walker& w) {
  const std::size_t ss = static_cast<std::size_t>(img.sector_size());
  const std::size_t nsect = region.size() / ss;
  std::vector<bool> structure(nsect, false);
  for (std::size_t s = 0; s < nsect; ++s) {
    const std::size_t off = s * ss;
    if (ss >= PRIV_HEADER_SIZE && (starts_with(region, off, header_magic, PRIV_MAGIC_LEN) ||
                                   damaged_header_at(img, region, s))) {
      walk_header(region.data() + off, ss, w);
      structure[s] = true;
    } else if (starts_with(region, off, toc_magic, TOC_MAGIC_LEN)) {
      walk_toc_block(region.data() + off, ss, w);
      structure[s] = true;
    }
  }
  std::set<std::uint64_t> starts;
  if (img.joined()) {
    walk_copies(img, region, true, w, starts);
    walk_copies(img, region, false, w, starts);
  }
  walk_unlisted_copies(region, ss, starts, w);
  if (img.joined() && w.writing() && w.zero) zero_unlisted(img, region, structure, w);
}

}  // namespace

void anon_collect(inspect_image& img, const std::vector<std::uint8_t>& region, anon_names& names,
                  bool ids) {
  std::vector<std::uint8_t> scratch = region;
  walker w;
  w.collect = &names;
  w.ids = ids;
  walk_region(img, scratch, w);
}

bool anon_rewrite(inspect_image& img, std::vector<std::uint8_t>& region, const anon_names& names,
                  bool zero, anon_rewrite_stats* stats, std::string* error, bool ids) {
  walker w;
  w.zero = zero;
  w.ids = ids;
  w.names = &names;
  w.stats = stats;
  w.error = error;
  walk_region(img, region, w);
  return !w.failed;
}

}  // namespace pd
