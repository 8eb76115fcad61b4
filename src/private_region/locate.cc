// Header location: the scan of the dump path and the device-relative scan.
#include "private_region/locate.h"

#include <new>

#include "base/errors.h"
#include "io/io_buffers.h"
#include "codec/integers.h"
#include "private_region/header.h"
#include "private_region/join.h"

namespace pd {

namespace {

constexpr unsigned long PRI_HEADER_OK_BITS = PRI_PRIMARY_OK | PRI_ALT_OK;

// The sectors of the search: 4 KiB steps from 4 KiB up to block 248.
constexpr std::size_t SEARCH_STEP_BYTES = 4096;
constexpr voff_t SEARCH_LAST_BLOCK = 248;

// The fields that both copies of a header must agree on.
bool same_geometry(const priv_header_info& a, const priv_header_info& b, bool with_priv_offset) {
  return a.phi_atomic_iosize == b.phi_atomic_iosize && a.phi_priv_id == b.phi_priv_id &&
         a.phi_pub_id == b.phi_pub_id && a.phi_priv_len == b.phi_priv_len &&
         (!with_priv_offset || a.phi_priv_offset == b.phi_priv_offset) &&
         a.phi_pub_len == b.phi_pub_len && a.phi_pub_offset == b.phi_pub_offset;
}

// Whether `alt` was updated after `primary`: the signed 64-bit difference of
// the two sequence numbers is positive (ties go to the primary).
bool newer_seqno(const volseqno_t& alt, const volseqno_t& primary) {
  const auto diff = static_cast<std::int64_t>(seqno_value(alt) - seqno_value(primary));
  return diff > 0;
}

// Fills the pass's header from the disk attributes (step 2 of the scan).
void header_from_attrs(priv_header_info* hdr, const disk_attrs* dattrs, voff_t blpsctr) {
  *hdr = priv_header_info{};
  hdr->phi_atomic_iosize = dattrs->dka_atomic_iosize;
  hdr->phi_priv_offset = dattrs->dka_priv_offset / blpsctr;
  hdr->phi_primary_header = dattrs->dka_primary_header / blpsctr;
  hdr->phi_alt_header = dattrs->dka_alternate_header / blpsctr;
  hdr->phi_nt_backup_header = dattrs->dka_nt_backup_header / blpsctr;
  hdr->phi_nt_disk_is_nec98 = dattrs->dka_nt_disk_is_nec98;
  if (dattrs->dka_flags & DKA_USE_BACKUP) hdr->phi_flags |= PHI_USE_BACKUP;
}

// Replaces the handle's header by `hdr` (freeing a different old one).
void install_header(priv_info* priv, priv_header_info* hdr) {
  if (priv->pri_header != nullptr && priv->pri_header != hdr) priv_free_header(priv->pri_header);
  priv->pri_header = hdr;
}

void drop_header(priv_info* priv) {
  priv_free_header(priv->pri_header);
  priv->pri_header = nullptr;
}

}  // namespace

session* priv_session(const priv_info* priv) { return static_cast<session*>(priv->pri_io_private); }

std::uint8_t* priv_io_buffer(priv_info* priv, std::size_t nbytes) {
  session* s = priv_session(priv);
  return s == nullptr ? nullptr : buf_get(*s, nbytes);
}

priv_header_info* priv_alloc_header() { return new (std::nothrow) priv_header_info{}; }

void priv_free_header(priv_header_info* hdr) { delete hdr; }

int priv_scan(priv_info* priv, disk_attrs* dattrs) {
  const voff_t blpsctr = 1;
  int usedbackup = 0;
  priv_header_info* hdr = priv_alloc_header();
  if (hdr == nullptr) return VE_NOMEM;
  priv_header_info hdrbuf;
  priv_header_info hdrbuf2;
  for (;;) {
    // The handle remembers the disk it was scanned on (the join bounds its
    // reads by the disk's size).
    priv->pri_disk_attrs = *dattrs;
    header_from_attrs(hdr, dattrs, blpsctr);
    priv->pri_flags &= ~PRI_HEADER_OK_BITS;
    install_header(priv, hdr);
    std::uint8_t* buf = priv_io_buffer(priv, hdr->phi_atomic_iosize);
    if (buf == nullptr) return VE_NOMEM;

    int res = priv->pri_read(priv, buf, hdr->phi_primary_header, 1, PRI_IO_PRIVATE);
    if (res == VE_NOMEM) return VE_NOMEM;
    if (res == VE_OK) {
      hdrbuf = *hdr;
      res = priv_unformat_header(&hdrbuf, buf);
      if (res == VE_OK) priv->pri_flags |= PRI_PRIMARY_OK;
    }

    if (res != VE_OK && (hdr->phi_flags & PHI_USE_BACKUP) == 0) {
      hdrbuf2 = *hdr;  // the snapshot taken before the search
      const int found = priv_find_alt_header(priv, &hdrbuf2);
      if (found != VE_OK) {
        priv_reset(priv);
        return found == VE_NOMEM ? VE_NOMEM : res;
      }
      priv->pri_flags |= PRI_ALT_OK | PRI_USED_ALT;
      // The found header is overwritten by the undecoded snapshot; the join
      // then refuses the region (no length).
      *hdr = hdrbuf2;
      return VE_OK;
    }

    int res2 = priv->pri_read(priv, buf, hdr->phi_alt_header, 1, PRI_IO_PRIVATE);
    if (res2 == VE_OK) {
      hdrbuf2 = *hdr;
      res2 = priv_unformat_header(&hdrbuf2, buf);
      if (res2 == VE_OK) priv->pri_flags |= PRI_ALT_OK;
    }

    if (res != VE_OK && res2 != VE_OK && usedbackup == 0 && hdr->phi_nt_backup_header != 0) {
      if (priv->pri_read(priv, buf, hdr->phi_nt_backup_header, 1,
                         PRI_IO_PRIVATE | PRI_IO_ABSOLUTE) != VE_OK)
        return res;
      if (priv_unformat_header(&hdrbuf, buf) != VE_OK) return res;
      dattrs->dka_priv_offset = hdrbuf.phi_priv_offset * blpsctr;
      dattrs->dka_primary_header = hdrbuf.phi_primary_header * blpsctr;
      dattrs->dka_alternate_header = hdrbuf.phi_alt_header * blpsctr;
      dattrs->dka_flags |= DKA_USE_BACKUP;
      usedbackup = 1;
      continue;
    }
    if (res != VE_OK && res2 != VE_OK) return res;

    *hdr = hdrbuf;
    if (res == VE_OK && res2 == VE_OK && !same_geometry(hdrbuf, hdrbuf2, true))
      res2 = VE_INCONSISTENT_HEADERS;  // the primary is kept silently
    if (res2 != VE_OK) return res;
    if (res == VE_OK && !newer_seqno(hdrbuf2.phi_update_seqno, hdrbuf.phi_update_seqno))
      return VE_OK;
    priv->pri_flags |= PRI_USED_ALT;
    *hdr = hdrbuf2;
    return VE_OK;
  }
}

int priv_scan_copy(priv_info* priv, disk_attrs* dattrs, int which) {
  priv_header_info* hdr = priv_alloc_header();
  if (hdr == nullptr) return VE_NOMEM;
  priv->pri_disk_attrs = *dattrs;
  header_from_attrs(hdr, dattrs, 1);
  priv->pri_flags &= ~(PRI_HEADER_OK_BITS | PRI_USED_ALT);
  install_header(priv, hdr);
  std::uint8_t* buf = priv_io_buffer(priv, hdr->phi_atomic_iosize);
  if (buf == nullptr) return VE_NOMEM;
  const voff_t at[2] = {hdr->phi_primary_header, hdr->phi_alt_header};
  priv_header_info dec[2] = {*hdr, *hdr};
  int res[2] = {VE_HEADER_NOT_FOUND, VE_HEADER_NOT_FOUND};
  for (int i = 0; i < 2; ++i) {
    if ((which >= 0 && which != i) || at[i] < 0) continue;  // (a disk too short for it)
    res[i] = priv->pri_read(priv, buf, at[i], 1, PRI_IO_PRIVATE);
    if (res[i] == VE_NOMEM) return VE_NOMEM;
    if (res[i] == VE_OK) res[i] = priv_unformat_header(&dec[i], buf);
    // A copy written for the other sector size is not this disk's header.
    if (res[i] == VE_OK && dec[i].phi_atomic_iosize != hdr->phi_atomic_iosize) {
      res[i] = VE_SECTOR_SIZE;
    }
  }
  int chosen = which;
  if (which < 0) {
    if (res[0] == VE_OK && res[1] == VE_OK) {
      chosen = newer_seqno(dec[1].phi_update_seqno, dec[0].phi_update_seqno) ? 1 : 0;
    } else {
      chosen = res[0] == VE_OK ? 0 : 1;
    }
  }
  if (res[chosen] != VE_OK) {
    const int first = res[which < 0 ? 0 : which];
    const unsigned long keep = priv->pri_flags & PRI_NOUPDATE;
    priv_reset(priv);
    priv->pri_flags |= keep;
    return first;
  }
  *hdr = dec[chosen];
  priv->pri_flags |= chosen == 0 ? PRI_PRIMARY_OK : (PRI_ALT_OK | PRI_USED_ALT);
  return VE_OK;
}

int priv_find_alt_header(priv_info* priv, priv_header_info* /*hdrbuf*/) {
  priv_header_info* hdr = priv->pri_header;
  const std::size_t iosize = hdr->phi_atomic_iosize;
  const voff_t blpsctr = static_cast<voff_t>(iosize >> 9);
  // Sectors below 512 bytes or above one step cannot be searched (the step
  // would divide by zero or never advance).
  if (blpsctr == 0 || iosize > SEARCH_STEP_BYTES) return VE_HEADER_NOT_FOUND;
  voff_t ioskip = static_cast<voff_t>(SEARCH_STEP_BYTES / iosize);
  voff_t remain = SEARCH_LAST_BLOCK / blpsctr - ioskip + 1;
  voff_t curblock = ioskip / blpsctr;
  voff_t cursect = ioskip;

  // Reads are one sector; a request of 0 (chunk size not yet known) gives a
  // fresh page, which holds any sector of at most 4 KiB.
  std::uint8_t* buf = priv_io_buffer(priv, hdr->phi_chunk_size);
  if (buf == nullptr) return VE_NOMEM;
  const priv_header_info savehdr = *hdr;

  while (remain > 0) {
    if (remain < ioskip) ioskip = remain;
    // Every candidate is read as one sector of the size searched with: a
    // candidate that failed to decode may have left any sector size in the
    // header, and the buffer holds one sector of the searched size.
    hdr->phi_atomic_iosize = iosize;
    // Any read failure passes over the candidate.
    if (priv->pri_read(priv, buf, cursect, 1, PRI_IO_PRIVATE) == VE_OK) {
      *hdr = savehdr;
      if (priv_unformat_header(hdr, buf) == VE_OK && blpsctr * hdr->phi_alt_header == curblock)
        return VE_OK;
    }
    // With sectors above 512 bytes ioskip / blpsctr is 0: no candidate can
    // match, and the search ends with 167.
    curblock += ioskip / blpsctr;
    cursect += ioskip;
    remain -= ioskip;
  }
  return VE_HEADER_NOT_FOUND;
}

void priv_reset(priv_info* priv) {
  drop_header(priv);
  priv_unjoin(priv);
  if (sitetag_supported(priv)) priv_free_tagid_list(priv);
  priv->pri_flags = 0;
}

int priv_get_sector_shift(std::size_t iosize, std::uint8_t* shift) {
  // Doubling from 512 while the size is at most 512: only 512 is accepted.
  std::uint8_t s = 9;
  for (std::size_t size = 512; size <= 512; size <<= 1, ++s) {
    if (size == iosize) {
      *shift = s;
      return VE_OK;
    }
  }
  return VE_SECTOR_SIZE;
}

int sitetag_supported(priv_info* /*priv*/) { return 1; }

namespace {

// The alternate check of priv_scan_offset: 0, or 166 when both copies decode
// but disagree. A strictly newer alternate replaces the header.
int scan_offset_alternate(priv_info* priv, std::uint8_t* buf, bool* alt_ok) {
  priv_header_info* hdr = priv->pri_header;
  priv_header_info alt = *hdr;
  *alt_ok = priv->pri_read(priv, buf, hdr->phi_alt_header, 1, PRI_IO_PRIVATE) == VE_OK &&
            priv_unformat_header(&alt, buf) == VE_OK;
  if (!*alt_ok) return VE_OK;
  if (!same_geometry(*hdr, alt, false)) return VE_INCONSISTENT_HEADERS;
  if (newer_seqno(alt.phi_update_seqno, hdr->phi_update_seqno)) {
    *hdr = alt;
    priv->pri_flags |= PRI_USED_ALT;
  }
  return VE_OK;
}

}  // namespace

int priv_scan_offset(priv_info* priv, voff_t offset, std::size_t iosize, int use_alt) {
  priv_header_info* hdr = priv_alloc_header();
  if (hdr == nullptr) return VE_NOMEM;
  install_header(priv, hdr);
  hdr->phi_priv_offset = offset;
  hdr->phi_atomic_iosize = iosize;
  if (int res = priv_get_sector_shift(iosize, &hdr->phi_sctr_shift); res != VE_OK) {
    drop_header(priv);
    return res;
  }
  hdr->phi_chunk_size = 512;
  hdr->phi_chunk_shift = 9;
  std::uint8_t* buf = priv_io_buffer(priv, 512);
  if (buf == nullptr) {
    drop_header(priv);
    return VE_NOMEM;
  }

  bool from_search = false;
  priv_header_info dec = *hdr;
  int res = priv->pri_read(priv, buf, 0, 1, PRI_IO_PRIVATE);
  if (res == VE_OK) res = priv_unformat_header(&dec, buf);
  if (res != VE_OK) {
    const int found = use_alt ? priv_find_alt_header(priv, nullptr) : res;
    if (found != VE_OK) {
      drop_header(priv);
      return found == VE_NOMEM ? VE_NOMEM : res;
    }
    priv->pri_flags |= PRI_USED_ALT;
    from_search = true;
    dec = *hdr;
    buf = priv_io_buffer(priv, 512);  // the search may have replaced the buffer
    if (buf == nullptr) {
      drop_header(priv);
      return VE_NOMEM;
    }
  }
  if (dec.phi_atomic_iosize != iosize && dec.phi_atomic_iosize != 0)
    offset = offset * static_cast<voff_t>(iosize) / static_cast<voff_t>(dec.phi_atomic_iosize);
  *hdr = dec;
  hdr->phi_priv_offset = offset;

  if (!from_search) {
    bool alt_ok = false;
    if (scan_offset_alternate(priv, buf, &alt_ok) != VE_OK) {
      drop_header(priv);
      return VE_INCONSISTENT_HEADERS;
    }
    if (!alt_ok) return VE_OK;
  }
  if (priv->pri_flags & PRI_JOINED) return VE_OK;
  const bool set_here = (priv->pri_flags & PRI_NOUPDATE) == 0;
  if (set_here) priv->pri_flags |= PRI_NOUPDATE;
  (void)priv_join(priv);  // a trial join whose result is ignored
  if (set_here) priv->pri_flags &= ~PRI_NOUPDATE;
  priv_unjoin(priv);
  return VE_OK;
}

namespace {

// A start in 512-byte units in sectors of `iosize`. A size of 0 has no
// sectors: the start is passed as 0 and the scan refuses the size (181).
voff_t scan_start(voff_t offset, std::size_t iosize) {
  return iosize == 0 ? 0 : offset * 512 / static_cast<voff_t>(iosize);
}

}  // namespace

int priv_scan_header(priv_info* priv, voff_t offset, std::size_t iosize) {
  if (offset == -1) {
    for (voff_t pos : privoffsets) {
      for (int use_alt = 0; use_alt <= 1; ++use_alt) {
        const int res = priv_scan_offset(priv, scan_start(pos, iosize), iosize, use_alt);
        if (res == VE_OK || res == VE_NOMEM) {
          if (res == VE_OK && priv->pri_updated != nullptr) priv->pri_updated(priv);
          return res;
        }
      }
    }
    return 1;
  }
  const int res = priv_scan_offset(priv, scan_start(offset, iosize), iosize, 1);
  if (res == VE_OK && priv->pri_updated != nullptr) priv->pri_updated(priv);
  return res;
}

}  // namespace pd
