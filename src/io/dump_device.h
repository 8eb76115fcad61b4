// The dump device: the image file standing in for a disk, reached through
// the private-region handle's sector callbacks, and the small file layer
// under them.
//
// A sector request (handle, buffer, sector, count, flags) addresses the
// private region when PRI_IO_PRIVATE is set; its sector is relative to the
// region (phi_priv_offset added) unless PRI_IO_ABSOLUTE is set. Sectors are
// phi_atomic_iosize bytes. Every transfer goes through the session's one
// aligned staging buffer. The public region is never opened: a request
// without PRI_IO_PRIVATE fails (142 for a read, 143 for a write).
//
// The file layer ends the tool on a failed seek, a failed read before end of
// file, any short write and an exhausted heap: it writes its message to the
// session's error stream and throws fatal_exit{1}.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "base/session.h"
#include "base/types.h"
#include "base/priv_info.h"

namespace pd {

// pri_read / pri_write of the handle; the session is pri_io_private.
// Results: 0, 141 (short read at end of file), 142 (read failure), 143
// (write failure).
int privutil_read(priv_info* priv, void* buf, voff_t offset, std::size_t len,
                  unsigned long flag);
int privutil_write(priv_info* priv, void* buf, voff_t offset, std::size_t len,
                   unsigned long flag);

// Seeks to the absolute byte `offset` (whence is checked, then ignored).
void nt_seek_dev(session& s, FILE* stream, voff_t offset, int whence);
// Bytes read: nbytes, or fewer only at end of file.
int nt_read_dev(session& s, FILE* stream, void* buf, std::size_t nbytes);
// Bytes written: always nbytes (anything else ends the tool).
int nt_write_dev(session& s, FILE* stream, const void* buf, std::size_t nbytes);

// malloc that ends the tool when the heap is exhausted; nt_free releases it.
void* nt_alloc(session& s, std::size_t size);
void nt_free(void* ptr);
// The exhausted-heap report of nt_alloc: writes it and throws fatal_exit{1}.
[[noreturn]] void nt_alloc_failed(session& s, std::size_t size);

// Opens the image "rb" (never for writing) as the session's priv_fd; when it
// cannot be opened writes "Cannot open dump file %s.\n" and throws
// fatal_exit{1}.
void open_dump_file(session& s, const char* path);

// The image's length in bytes, the position of its end; the stream is left
// at its start. A stream that cannot tell its position counts as empty.
std::uint64_t dump_file_size(FILE* f);

// What the image's length tells of the disk: the region starts at sector 0
// and spans every whole sector; the primary header is the last 512-byte
// header sector, the alternate lies 96 KiB before the end (192 sectors of
// 512 bytes, 24 of 4096). A trailing partial sector is dropped.
disk_attrs derive_disk_attrs(std::uint64_t fsize, int sector_size);

}  // namespace pd
