// Where the header copies lie and which one describes the region.
//
// The caller gives the positions of the primary and alternate copies (and of
// a backup copy) in a disk_attrs record. priv_scan reads both, keeps the
// primary unless the alternate's update sequence number is newer (a signed
// 64-bit difference of the two numbers), and, when the primary cannot be
// used, searches sectors 8, 16, ... 248 for a header that names its own
// position as the alternate. The handle's session (pri_io_private) provides
// the I/O buffer.
#pragma once

#include <cstddef>

#include "base/priv_info.h"

namespace pd {

// Candidate starts of a region on a device, in 512-byte units.
inline constexpr voff_t privoffsets[] = {1};

// 0 with the chosen header in pri_header, or a volume error number.
int priv_scan(priv_info* priv, disk_attrs* dattrs);

// Reads the header copies at the disk attributes' positions without the
// scan's search: `which` 0 the primary, 1 the alternate, -1 the copy that
// decodes (the newer by update sequence number when both do, the primary on
// a tie); a copy whose sector size is not the disk's does not count (181).
// 0 with that copy in pri_header (PRI_PRIMARY_OK, or PRI_ALT_OK and
// PRI_USED_ALT), or the volume error of the first copy tried (the handle is
// then reset).
int priv_scan_copy(priv_info* priv, disk_attrs* dattrs, int which);

// Searches for a header naming its own position as the alternate; 0 with it
// decoded into pri_header, 167 when none, 12 when no buffer. `hdrbuf` is not
// used.
int priv_find_alt_header(priv_info* priv, priv_header_info* hdrbuf);

// Frees the header, unjoins, frees the tag-id list and clears pri_flags.
void priv_reset(priv_info* priv);

// 512 -> shift 9 and 0; anything else -> 181.
int priv_get_sector_shift(std::size_t iosize, std::uint8_t* shift);

// Locates a header from a device-relative position (sectors of `iosize`),
// then makes a trial join whose result is ignored.
int priv_scan_offset(priv_info* priv, voff_t offset, std::size_t iosize, int use_alt);
// offset -1 tries every entry of privoffsets; 1 when none succeeds.
int priv_scan_header(priv_info* priv, voff_t offset, std::size_t iosize);

int sitetag_supported(priv_info* priv);

// The session the handle's I/O callbacks work for (pri_io_private).
session* priv_session(const priv_info* priv);
// The session's I/O buffer (buf_get) of at least `nbytes`; null when there is
// no session or no memory.
std::uint8_t* priv_io_buffer(priv_info* priv, std::size_t nbytes);

// The handle's header record is allocated with this and freed by priv_reset.
priv_header_info* priv_alloc_header();
void priv_free_header(priv_header_info* hdr);

}  // namespace pd
