// The dump device and its file layer (see dump_device.h).
//
// Reads copy the whole staging buffer to the caller whatever was read: past
// the end of the image the caller sees what the buffer held before. The seek
// is issued twice and only the second result is tested.
#include "io/dump_device.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "base/errors.h"
#include "io/io_buffers.h"

namespace pd {

namespace {

constexpr const char* nt_seek_name = "nt_seek_dev";
constexpr const char* nt_read_name = "nt_read_dev";
constexpr const char* nt_write_name = "nt_write_dev";
constexpr const char* nt_alloc_name = "nt_alloc";

[[noreturn]] void nt_seek_failed(session& s) {
  std::fprintf(s.err, "%s %s ", nt_seek_name, "SetFilePointer");
  std::fprintf(s.err, "%s: Cannot seek to offset 0\n", s.progname);
  throw fatal_exit{1, fatal_kind::unreadable};
}

// The stream and absolute sector of a request, or null when the request
// names the public region, which is never open. A signed sum of the sector
// and the region offset that overflows has no value: a failed seek.
FILE* priv_io_target(session& s, const priv_header_info& hdr, voff_t* offset,
                     unsigned long flag) {
  if ((flag & PRI_IO_PRIVATE) == 0) return nullptr;
  if ((flag & PRI_IO_ABSOLUTE) == 0 && __builtin_add_overflow(*offset, hdr.phi_priv_offset, offset))
    nt_seek_failed(s);
  return s.priv_fd;
}

// Byte position and size of a request. The position is the sector times the
// sector size in unsigned 64-bit arithmetic, wrapped as the format's own
// arithmetic wraps it: a position that is negative as off_t is the seek's to
// refuse. False when the size does not fit (no caller asks for one).
bool priv_io_extent(voff_t offset, std::size_t len, std::size_t iosize, voff_t* pos,
                    std::size_t* bufsize) {
  if (iosize != 0 && len > std::numeric_limits<std::size_t>::max() / iosize) return false;
  *bufsize = len * iosize;
  *pos = static_cast<voff_t>(static_cast<std::uint64_t>(offset) * static_cast<std::uint64_t>(iosize));
  return true;
}

}  // namespace

int privutil_read(priv_info* priv, void* buf, voff_t offset, std::size_t len,
                  unsigned long flag) {
  session& s = *static_cast<session*>(priv->pri_io_private);
  const priv_header_info* hdr = priv->pri_header;
  if (hdr == nullptr) return VE_READ_FAILED;
  FILE* stream = priv_io_target(s, *hdr, &offset, flag);
  if (stream == nullptr) return VE_READ_FAILED;
  voff_t pos = 0;
  std::size_t bufsize = 0;
  if (!priv_io_extent(offset, len, hdr->phi_atomic_iosize, &pos, &bufsize)) nt_seek_failed(s);
  nt_seek_dev(s, stream, pos, 0);
  std::uint8_t* staging = get_aligned_buf(s, bufsize);
  int cc = nt_read_dev(s, stream, staging, bufsize);
  if (bufsize != 0) std::memcpy(buf, staging, bufsize);
  if (cc < 0) return VE_READ_FAILED;
  if (static_cast<std::size_t>(cc) < bufsize) return VE_SHORT_READ;
  return 0;
}

int privutil_write(priv_info* priv, void* buf, voff_t offset, std::size_t len,
                   unsigned long flag) {
  session& s = *static_cast<session*>(priv->pri_io_private);
  const priv_header_info* hdr = priv->pri_header;
  if (hdr == nullptr) return VE_WRITE_FAILED;
  FILE* stream = priv_io_target(s, *hdr, &offset, flag);
  if (stream == nullptr) return VE_WRITE_FAILED;
  voff_t pos = 0;
  std::size_t bufsize = 0;
  if (!priv_io_extent(offset, len, hdr->phi_atomic_iosize, &pos, &bufsize)) nt_seek_failed(s);
  nt_seek_dev(s, stream, pos, 0);
  std::uint8_t* staging = get_aligned_buf(s, bufsize);
  if (bufsize != 0) std::memcpy(staging, buf, bufsize);
  int cc = nt_write_dev(s, stream, staging, bufsize);
  if (cc < 0) return VE_WRITE_FAILED;
  return 0;
}

void nt_seek_dev(session& s, FILE* stream, voff_t offset, int whence) {
  if (static_cast<unsigned>(whence) > 2) {
    std::fprintf(s.err, "%s: %s: whence=%d not valid\n", s.progname, nt_seek_name, whence);
    throw fatal_exit{1, fatal_kind::unreadable};
  }
  // Always from the start of the file, whatever whence said.
  (void)fseeko(stream, offset, SEEK_SET);
  if (fseeko(stream, offset, SEEK_SET) != 0) nt_seek_failed(s);
}

int nt_read_dev(session& s, FILE* stream, void* buf, std::size_t nbytes) {
  if (nbytes == 0) return 0;
  int cc = static_cast<int>(std::fread(buf, 1, nbytes, stream));
  if (static_cast<std::size_t>(cc) == nbytes) return cc;
  if (std::feof(stream)) return cc;  // the caller makes it a short read
  std::fprintf(s.err, "%s %s ", nt_read_name, "ReadFile");
  std::fprintf(s.err, "%s: Cannot read data\n", s.progname);
  throw fatal_exit{1, fatal_kind::unreadable};
}

int nt_write_dev(session& s, FILE* stream, const void* buf, std::size_t nbytes) {
  if (nbytes == 0) return 0;
  int cc = static_cast<int>(std::fwrite(buf, 1, nbytes, stream));
  if (static_cast<std::size_t>(cc) == nbytes) return cc;
  std::fprintf(s.err, "%s %s ", nt_write_name, "WriteFile");
  std::fprintf(s.err, "%s: Cannot write data\n", s.progname);
  throw fatal_exit{1, fatal_kind::unreadable};
}

void* nt_alloc(session& s, std::size_t size) {
  void* p = std::malloc(size);
  if (p == nullptr) nt_alloc_failed(s, size);
  return p;
}

void nt_free(void* ptr) { std::free(ptr); }

void nt_alloc_failed(session& s, std::size_t size) {
  std::fprintf(s.err, "%s:%s: Alloc(%lu) failed.\n", s.progname, nt_alloc_name,
               static_cast<unsigned long>(size));
  throw fatal_exit{1, fatal_kind::memory};
}


namespace {
// Bytes of one header sector: the primary header is the last such sector.
constexpr std::size_t header_iosize = 512;
}  // namespace

void open_dump_file(session& s, const char* path) {
  s.priv_fd = std::fopen(path, "rb");
  if (s.priv_fd == nullptr) {
    std::fprintf(s.err, "Cannot open dump file %s.\n", path);
    throw fatal_exit{1, fatal_kind::unreadable};
  }
}

std::uint64_t dump_file_size(FILE* f) {
  (void)fseeko(f, 0, SEEK_END);
  off_t end = ftello(f);
  (void)fseeko(f, 0, SEEK_SET);
  return end > 0 ? static_cast<std::uint64_t>(end) : 0;
}

disk_attrs derive_disk_attrs(std::uint64_t fsize, int sector_size) {
  disk_attrs d;
  d.dka_atomic_iosize = static_cast<std::size_t>(sector_size);
  d.dka_priv_offset = 0;
  d.dka_priv_len = static_cast<voff_t>(fsize / static_cast<unsigned>(sector_size));
  d.dka_primary_header = d.dka_priv_len - static_cast<voff_t>(header_iosize >> 9);
  d.dka_alternate_header = d.dka_priv_len - 192 / (sector_size / 512);
  d.dka_nt_backup_header = d.dka_primary_header;
  return d;
}

}  // namespace pd
