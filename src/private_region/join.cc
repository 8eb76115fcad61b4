// Join: walking the TOC chains, checking each private-region entry against
// the region and against every other entry, and building the descriptors.
//
// A chain that loops would be walked for ever by the algorithm as written
// (an empty block pointing at itself never trips the overlap check), so the
// walk stops with 168 once it has visited more blocks than the region has
// sectors: a finite chain reads each of its blocks from a distinct sector,
// so no finite chain is cut short.
#include "private_region/join.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <map>
#include <new>
#include <vector>

#include "base/errors.h"
#include "codec/integers.h"
#include "private_region/bitmap.h"
#include "private_region/locate.h"
#include "private_region/toc.h"

namespace pd {

namespace {

bool is_type(const toc_entry_info* e, const char* type) {
  return std::strcmp(e->tei_region.dkr_type, type) == 0;
}

std::size_t copy_number(const toc_entry_info* e) {
  copy_region_entry cr;
  (void)priv_unpack_copy_entry(&cr, e);
  return cr.cr_number;
}

unsigned long copy_offset(const toc_entry_info* e) {
  copy_region_entry cr;
  (void)priv_unpack_copy_entry(&cr, e);
  return cr.cr_offset;
}

// Marks the chunk of sector `sector` used, when it lies in the map.
void mark_sector(priv_info* priv, voff_t sector, voff_t nbits) {
  const voff_t chunk = priv_sector_to_chunk(priv->pri_header, sector);
  if (chunk >= 0 && chunk < nbits) bmap_set(priv->pri_alloc_map, static_cast<int>(chunk));
}

// Appends one block's positions to both sector arrays.
int append_toc_sector(priv_info* priv, voff_t toc, voff_t alt) {
  const std::size_t n = priv->pri_toc_len + 1;
  auto* s = static_cast<voff_t*>(std::realloc(priv->pri_toc_sectors, n * sizeof(voff_t)));
  if (s == nullptr) return VE_NOMEM;
  priv->pri_toc_sectors = s;
  auto* a = static_cast<voff_t*>(std::realloc(priv->pri_alt_toc_sectors, n * sizeof(voff_t)));
  if (a == nullptr) return VE_NOMEM;
  priv->pri_alt_toc_sectors = a;
  s[n - 1] = toc;
  a[n - 1] = alt;
  priv->pri_toc_len = n;
  return VE_OK;
}

// Puts entries into the handle's list where priv_toc_add puts a private
// entry (after every entry whose start is not greater), finding the place
// through the last entry at each start rather than by a walk from the head:
// a TOC of many thousand entries joins in n log n. Holds while every entry
// of the list came through it.
class toc_list_index {
 public:
  void insert(priv_info* priv, toc_entry_info* e) {
    const voff_t start = e->tei_region.dkr_offset;
    auto it = last_at_.upper_bound(start);
    toc_entry_info* prev = it == last_at_.begin() ? nullptr : std::prev(it)->second;
    toc_entry_info* next = prev != nullptr ? prev->tei_next : priv->pri_toc_entries;
    e->tei_prev = prev;
    e->tei_next = next;
    if (next != nullptr) next->tei_prev = e;
    if (prev != nullptr) {
      prev->tei_next = e;
    } else {
      priv->pri_toc_entries = e;
    }
    last_at_[start] = e;
  }

 private:
  std::map<voff_t, toc_entry_info*> last_at_;
};

// Checks one decoded entry and takes it into the list (or drops a public
// one). The entry is consumed either way.
int join_entry(priv_info* priv, toc_list_index& list, toc_entry_info* e, voff_t privlen,
               voff_t nbits) {
  const disk_region& r = e->tei_region;
  int res = VE_OK;
  if (r.dkr_offset < 0 || r.dkr_len < 0) {
    res = VE_PRIV_INVALID;
  } else if (r.dkr_flags & DKR_PUBLIC) {
    priv_free_toc_entry(e);  // lies outside the private region: not kept
    return VE_OK;
  } else if (r.dkr_offset < 1 || r.dkr_offset >= privlen || privlen - r.dkr_offset < r.dkr_len) {
    res = VE_PRIV_INVALID;
  } else {
    const voff_t first = priv_sector_to_chunk(priv->pri_header, r.dkr_offset);
    const voff_t count = priv_sector_to_chunk(priv->pri_header, r.dkr_len);
    if (first + count > nbits ||
        bmap_count_clear(priv->pri_alloc_map, static_cast<int>(first),
                         static_cast<int>(first + count - 1)) < count) {
      res = VE_PRIV_INVALID;  // overlaps a header, a TOC block or another region
    } else {
      bmap_set_range(priv->pri_alloc_map, static_cast<int>(first), static_cast<int>(count));
      list.insert(priv, e);
      return VE_OK;
    }
  }
  priv_free_toc_entry(e);
  return res;
}

// Reads one block (primary, else alternate), checks its next pointers and
// joins its entries. *toc and *alt become the next block's positions.
int join_block(priv_info* priv, toc_list_index& list, std::uint8_t* buf, voff_t* toc, voff_t* alt,
               voff_t privlen, voff_t nbits) {
  const priv_header_info* hdr = priv->pri_header;
  mark_sector(priv, *toc, nbits);
  mark_sector(priv, *alt, nbits);
  if (int res = append_toc_sector(priv, *toc, *alt); res != VE_OK) return res;
  int res = priv_read_toc_sector(priv, buf, *toc);
  if (res != VE_OK && priv_read_toc_sector(priv, buf, *alt) == VE_OK) res = VE_OK;
  if (res != VE_OK) return res;

  // The read verified the block: the chunk holds its words.
  const std::uint8_t* const end = buf + hdr->phi_chunk_size;
  toc_block_info b;
  const std::uint8_t* p = toc_block_decode(buf, end, &b);
  if (p == nullptr) return VE_PRIV_FORMAT;
  const voff_t next = b.tbi_next;
  const voff_t altnext = b.tbi_alt_next;
  if (next < 0 || altnext < 0 || next >= privlen || altnext >= privlen ||
      ((next == 0) != (altnext == 0)))
    return VE_PRIV_INVALID;

  for (;;) {
    toc_entry_info* e = nullptr;
    if ((res = priv_unpack_toc_entry(&e, &p, end)) != VE_OK) return res;
    if (e == nullptr) break;
    if ((res = join_entry(priv, list, e, privlen, nbits)) != VE_OK) return res;
  }
  *toc = next;
  *alt = altnext;
  return VE_OK;
}

// Whether a chunk fits on the disk the handle was scanned on (true when the
// disk's size is not known). A larger chunk cannot be read whole anywhere.
bool chunk_fits_disk(const priv_info* priv) {
  const disk_attrs& d = priv->pri_disk_attrs;
  const std::size_t chunk = priv->pri_header->phi_chunk_size;
  if (d.dka_priv_len <= 0 || d.dka_atomic_iosize == 0 || chunk == 0) return true;
  return (chunk - 1) / d.dka_atomic_iosize < static_cast<std::size_t>(d.dka_priv_len);
}

int join_chains(priv_info* priv) {
  priv_header_info* hdr = priv->pri_header;
  const voff_t privlen = hdr->phi_priv_len;
  const voff_t nbits = priv_len_chunks(hdr);
  // A header may claim any sector size: a chunk larger than the disk would
  // make every TOC read short (141), so it is not read, and no buffer is
  // sized by the claim.
  const bool readable = chunk_fits_disk(priv);
  std::uint8_t* buf = readable ? priv_io_buffer(priv, hdr->phi_chunk_size) : nullptr;
  if (readable && buf == nullptr) return VE_NOMEM;
  // A negative or oversized length cannot describe a region either.
  if (privlen <= 0 || nbits <= 0 || nbits > std::numeric_limits<int>::max())
    return VE_PRIV_INVALID;
  priv->pri_alloc_map = bmap_alloc(static_cast<int>(nbits));
  if (priv->pri_alloc_map == nullptr) return VE_NOMEM;
  mark_sector(priv, hdr->phi_primary_header, nbits);
  mark_sector(priv, hdr->phi_alt_header, nbits);
  mark_sector(priv, 0, nbits);

  voff_t toc = hdr->phi_first_toc;
  voff_t alt = hdr->phi_first_alt_toc;
  // With 4096-byte chunks a first TOC position of 0 is visited anyway.
  bool visit_zero = toc == 0 && hdr->phi_chunk_size == 4096;
  toc_list_index list;
  while (toc != 0 || visit_zero) {
    visit_zero = false;
    if (static_cast<voff_t>(priv->pri_toc_len) >= privlen) return VE_PRIV_INVALID;  // a loop
    if (!readable) return VE_SHORT_READ;
    if (int res = join_block(priv, list, buf, &toc, &alt, privlen, nbits); res != VE_OK) return res;
  }
  return VE_OK;
}

void free_aux_list(aux_priv_region** list) {
  for (aux_priv_region* a = *list; a != nullptr;) {
    aux_priv_region* next = a->apr_next;
    bmap_free(a->apr_alloc_map);
    bmap_free(a->apr_pending_map);
    delete a;
    a = next;
  }
  *list = nullptr;
}

}  // namespace

voff_t priv_sector_to_chunk(const priv_header_info* hdr, voff_t sector) {
  if (hdr->phi_chunk_shift > hdr->phi_sctr_shift)
    return sector >> (hdr->phi_chunk_shift - hdr->phi_sctr_shift);
  if (hdr->phi_chunk_shift < hdr->phi_sctr_shift)
    return sector << (hdr->phi_sctr_shift - hdr->phi_chunk_shift);
  return sector;
}

voff_t priv_chunk_to_sector(const priv_header_info* hdr, voff_t chunk) {
  if (hdr->phi_chunk_shift > hdr->phi_sctr_shift)
    return chunk << (hdr->phi_chunk_shift - hdr->phi_sctr_shift);
  if (hdr->phi_chunk_shift < hdr->phi_sctr_shift)
    return chunk >> (hdr->phi_sctr_shift - hdr->phi_chunk_shift);
  return chunk;
}

voff_t priv_len_chunks(const priv_header_info* hdr) {
  return priv_sector_to_chunk(hdr, hdr->phi_priv_len);
}

priv_info* priv_alloc() { return static_cast<priv_info*>(std::calloc(1, sizeof(priv_info))); }

void priv_free(priv_info* priv) {
  if (priv == nullptr) return;
  priv_reset(priv);
  std::free(priv);
}

int priv_join(priv_info* priv) {
  if (priv->pri_header == nullptr) return VE_PRIV_INVALID;
  // Joining twice would leak the first join's products; start afresh.
  priv_unjoin(priv);
  int res = join_chains(priv);
  if (res == VE_OK) res = priv_build_copies(priv, "config", &priv->pri_config_copies);
  if (res == VE_OK) res = priv_build_copies(priv, "log", &priv->pri_log_copies);
  if (res != VE_OK) {
    priv_unjoin(priv);
    return res;
  }
  (void)priv_build_lockrgn(priv);  // its result is never consulted
  (void)priv_build_tagid(priv);    // tag ids are always built; result unchecked
  if ((priv->pri_flags & PRI_NOUPDATE) == 0) {
    res = priv_update_toc_start(priv);
    if (res == VE_OK) res = priv_update_toc(priv, 1);
    if (res != VE_OK) {
      priv_unjoin(priv);
      return res;
    }
  }
  priv->pri_flags |= PRI_JOINED;
  return VE_OK;
}

void priv_unjoin(priv_info* priv) {
  bmap_free(priv->pri_alloc_map);
  priv->pri_alloc_map = nullptr;
  bmap_free(priv->pri_pending_map);
  priv->pri_pending_map = nullptr;
  std::free(priv->pri_toc_sectors);
  priv->pri_toc_sectors = nullptr;
  std::free(priv->pri_alt_toc_sectors);
  priv->pri_alt_toc_sectors = nullptr;
  for (toc_entry_info* e = priv->pri_toc_entries; e != nullptr;) {
    toc_entry_info* next = e->tei_next;
    priv_free_toc_entry(e);
    e = next;
  }
  priv->pri_toc_entries = nullptr;
  free_aux_list(&priv->pri_aux_priv);
  free_aux_list(&priv->pri_reserved);
  priv_free_copies(&priv->pri_config_copies);
  priv_free_copies(&priv->pri_log_copies);
  priv->pri_toc_copy_len = 0;
  priv->pri_toc_len = 0;
  priv->pri_flags &= ~PRI_JOINED;
}

void priv_free_tagid_list(priv_info* priv) {
  for (tagid_region_entry_list* t = priv->tagid_list; t != nullptr;) {
    tagid_region_entry_list* next = t->next;
    delete t;
    t = next;
  }
  priv->tagid_list = nullptr;
}

void priv_free_copies(copy_info** list) {
  for (copy_info* c = *list; c != nullptr;) {
    copy_info* next = c->ci_next;
    delete[] c->ci_parts;
    delete c;
    c = next;
  }
  *list = nullptr;
}

void priv_toc_add(priv_info* priv, toc_entry_info* entry) {
  const bool pub = (entry->tei_region.dkr_flags & DKR_PUBLIC) != 0;
  toc_entry_info* prev = nullptr;
  toc_entry_info* e = priv->pri_toc_entries;
  for (; e != nullptr; prev = e, e = e->tei_next) {
    const bool epub = (e->tei_region.dkr_flags & DKR_PUBLIC) != 0;
    if ((pub && !epub) || entry->tei_region.dkr_offset < e->tei_region.dkr_offset) break;
  }
  entry->tei_prev = prev;
  entry->tei_next = e;
  if (e != nullptr) e->tei_prev = entry;
  if (prev != nullptr) {
    prev->tei_next = entry;
  } else {
    priv->pri_toc_entries = entry;
  }
}

void priv_toc_delete(priv_info* priv, toc_entry_info* entry) {
  if (entry->tei_prev != nullptr) {
    entry->tei_prev->tei_next = entry->tei_next;
  } else if (priv->pri_toc_entries == entry) {
    priv->pri_toc_entries = entry->tei_next;
  }
  if (entry->tei_next != nullptr) entry->tei_next->tei_prev = entry->tei_prev;
  entry->tei_next = nullptr;
  entry->tei_prev = nullptr;
}

int priv_copy_cmptoc(const void* a, const void* b) {
  const unsigned long oa = copy_offset(*static_cast<toc_entry_info* const*>(a));
  const unsigned long ob = copy_offset(*static_cast<toc_entry_info* const*>(b));
  return oa < ob ? -1 : (oa > ob ? 1 : 0);
}

namespace {

// The descriptor of copy `number` from its parts, in list order: sorted by
// their offset in the copy (equal offsets keep their order), which must
// tile the copy. 0, 12 or 165.
int make_copy(std::vector<toc_entry_info*>& found, std::size_t number, copy_info** copy) {
  const int n = static_cast<int>(found.size());
  auto* c = new (std::nothrow) copy_info{};
  auto** parts = new (std::nothrow) toc_entry_info*[n > 0 ? n : 1]();
  if (c == nullptr || parts == nullptr) {
    delete c;
    delete[] parts;
    return VE_NOMEM;
  }
  std::copy(found.begin(), found.end(), parts);
  std::stable_sort(parts, parts + n, [](toc_entry_info* a, toc_entry_info* b) {
    return priv_copy_cmptoc(&a, &b) < 0;
  });
  c->ci_parts = parts;
  c->ci_npart = n;
  c->ci_copy = static_cast<int>(number);

  // The parts must tile the copy: each starts where the previous ones end.
  std::uint64_t sum = 0;
  for (int i = 0; i < n; ++i) {
    if (copy_offset(parts[i]) != sum) {
      delete[] parts;
      delete c;
      return VE_PRIV_FORMAT;
    }
    sum += static_cast<std::uint64_t>(parts[i]->tei_region.dkr_len);
  }
  *copy = c;
  return VE_OK;
}

}  // namespace

int priv_build_copies(priv_info* priv, const char* type, copy_info** list) {
  copy_info* tail = *list;
  while (tail != nullptr && tail->ci_next != nullptr) tail = tail->ci_next;
  // Copies by ascending number (0 is no copy), each with its parts in list
  // order: one pass over the list rather than one per copy.
  std::map<std::size_t, std::vector<toc_entry_info*>> copies;
  for (toc_entry_info* e = priv->pri_toc_entries; e != nullptr; e = e->tei_next) {
    if (!is_type(e, type)) continue;
    const std::size_t n = copy_number(e);
    if (n > 0) copies[n].push_back(e);
  }
  for (auto& [number, parts] : copies) {
    copy_info* copy = nullptr;
    if (int res = make_copy(parts, number, &copy); res != VE_OK) return res;
    copy->ci_prev = tail;
    if (tail != nullptr) {
      tail->ci_next = copy;
    } else {
      *list = copy;
    }
    tail = copy;
  }
  return VE_OK;
}

int priv_build_copy(priv_info* priv, copy_info** copy, const char* type, std::size_t number) {
  *copy = nullptr;
  std::vector<toc_entry_info*> parts;
  for (toc_entry_info* e = priv->pri_toc_entries; e != nullptr; e = e->tei_next)
    if (is_type(e, type) && copy_number(e) == number) parts.push_back(e);
  return make_copy(parts, number, copy);
}

int priv_build_lockrgn(priv_info* priv) {
  priv_header_info* hdr = priv->pri_header;
  const toc_entry_info* lock = nullptr;
  int count = 0;
  for (const toc_entry_info* e = priv->pri_toc_entries; e != nullptr; e = e->tei_next) {
    if (is_type(e, "lockrgn")) {
      lock = e;
      ++count;
    }
  }
  // No lock region, or several (deliberately taken as none).
  if (count != 1) {
    hdr->phi_lockrgn_len = 0;
    hdr->phi_lockrgn_offset = 0;
    return VE_OK;
  }
  lock_region_entry lr;
  (void)priv_unpack_lkr_entry(&lr, lock);
  if (lr.lr_number != 0 || lr.lr_offset != 0) return VE_PRIV_FORMAT;
  hdr->phi_lockrgn_len = static_cast<std::size_t>(lock->tei_region.dkr_len);
  hdr->phi_lockrgn_offset = lock->tei_region.dkr_offset;
  return VE_OK;
}

int priv_build_tagid(priv_info* priv) {
  priv_free_tagid_list(priv);
  tagid_region_entry_list* tail = nullptr;
  for (const toc_entry_info* e = priv->pri_toc_entries; e != nullptr; e = e->tei_next) {
    if (!is_type(e, "tagid")) continue;
    auto* node = new (std::nothrow) tagid_region_entry_list{};
    if (node == nullptr) return VE_NOMEM;
    (void)priv_unpack_tagid_entry(&node->tre, e);
    if (tail != nullptr) {
      tail->next = node;
    } else {
      priv->tagid_list = node;
    }
    tail = node;
  }
  return VE_OK;
}

namespace {

// Joins with PRI_NOUPDATE set for a look-up; *joined tells whether it did.
int join_for_lookup(priv_info* priv, bool needed, bool* joined) {
  *joined = false;
  if (!needed) return VE_OK;
  const bool set_here = (priv->pri_flags & PRI_NOUPDATE) == 0;
  priv->pri_flags |= PRI_NOUPDATE;
  const int res = priv_join(priv);
  if (set_here) priv->pri_flags &= ~PRI_NOUPDATE;
  *joined = res == VE_OK;
  return res;
}

}  // namespace

int priv_find_tagid_region(priv_info* priv, const char* tag, toc_entry_info** entry) {
  *entry = nullptr;
  bool joined = false;
  const bool needed = (priv->pri_flags & PRI_JOINED) == 0 && priv->pri_toc_entries == nullptr;
  if (int res = join_for_lookup(priv, needed, &joined); res != VE_OK) return res;
  int res = VE_TAG_NOT_FOUND;
  for (toc_entry_info* e = priv->pri_toc_entries; e != nullptr; e = e->tei_next) {
    if (!is_type(e, "tagid")) continue;
    tagid_region_entry t;
    (void)priv_unpack_tagid_entry(&t, e);
    if (std::strcmp(t.dktagid_name, tag) == 0) {
      // A join made for the look-up is undone below, which frees the entry.
      *entry = joined ? nullptr : e;
      res = VE_OK;
      break;
    }
  }
  if (joined) priv_unjoin(priv);
  return res;
}

int priv_find_tagid_region_entry(priv_info* priv, tagid_region_entry* tag) {
  bool joined = false;
  const bool needed = (priv->pri_flags & PRI_JOINED) == 0 && priv->tagid_list == nullptr;
  if (int res = join_for_lookup(priv, needed, &joined); res != VE_OK) return res;
  int res = VE_TAG_NOT_FOUND;
  for (const tagid_region_entry_list* t = priv->tagid_list; t != nullptr; t = t->next) {
    if (std::strcmp(t->tre.dktagid_name, tag->dktagid_name) == 0) {
      *tag = t->tre;
      res = VE_OK;
      break;
    }
  }
  if (joined) priv_unjoin(priv);
  return res;
}

int priv_is_tagid_set(priv_info* priv, const char* name) {
  tagid_region_entry tag;
  std::strncpy(tag.dktagid_name, name, sizeof tag.dktagid_name - 1);
  return priv_find_tagid_region_entry(priv, &tag);
}

}  // namespace pd
