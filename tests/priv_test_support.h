// Helpers of the private-region tests: images from builder descriptions, a
// disk in memory behind a handle's sector callbacks, and privdiag run over
// an image.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "base/errors.h"
#include "base/session.h"
#include "driver/driver.h"
#include "io/dump_device.h"
#include "private_region/join.h"
#include "private_region/locate.h"
#include "privbuild/builder.h"
#include "test_support.h"

namespace pd::test {

inline std::vector<std::uint8_t> build(const std::string& desc, build_layout* layout = nullptr) {
  std::string error;
  build_layout unused;
  auto img = build_image(desc, &error, layout != nullptr ? layout : &unused);
  EXPECT_EQ(error, "") << desc;
  return img;
}

// A session whose handle reads and writes an image in memory. Sectors are
// the header's phi_atomic_iosize bytes; relative positions add
// phi_priv_offset. A transfer past the end is short (141 on a read).
struct memory_disk : session {
  std::vector<std::uint8_t> img;
  priv_info* priv = nullptr;
  int reads = 0;
  int writes = 0;

  explicit memory_disk(std::vector<std::uint8_t> bytes) : img(std::move(bytes)) {
    priv = priv_alloc();
    priv->pri_io_private = static_cast<session*>(this);
    priv->pri_read = read;
    priv->pri_write = write;
  }
  ~memory_disk() { priv_free(priv); }
  memory_disk(const memory_disk&) = delete;
  memory_disk& operator=(const memory_disk&) = delete;

  static memory_disk* of(priv_info* p) {
    return static_cast<memory_disk*>(static_cast<session*>(p->pri_io_private));
  }
  // The byte position, or -1 when it does not fit in 64 bits.
  static std::int64_t byte_pos(priv_info* p, voff_t offset, unsigned long flag) {
    const priv_header_info* h = p->pri_header;
    std::int64_t at = 0;
    if (!(flag & PRI_IO_ABSOLUTE) && __builtin_add_overflow(offset, h->phi_priv_offset, &offset)) return -1;
    if (__builtin_mul_overflow(offset, static_cast<std::int64_t>(h->phi_atomic_iosize), &at)) return -1;
    return at;
  }
  static int read(priv_info* p, void* buf, voff_t offset, std::size_t len, unsigned long flag) {
    memory_disk* d = of(p);
    ++d->reads;
    const std::size_t n = len * p->pri_header->phi_atomic_iosize;
    const std::int64_t at = byte_pos(p, offset, flag);
    std::memset(buf, 0, n);
    if (at < 0) return VE_READ_FAILED;
    if (static_cast<std::uint64_t>(at) >= d->img.size()) return VE_SHORT_READ;
    const std::size_t avail = std::min<std::size_t>(n, d->img.size() - static_cast<std::size_t>(at));
    std::memcpy(buf, d->img.data() + at, avail);
    return avail < n ? VE_SHORT_READ : VE_OK;
  }
  static int write(priv_info* p, void* buf, voff_t offset, std::size_t len, unsigned long flag) {
    memory_disk* d = of(p);
    ++d->writes;
    const std::size_t n = len * p->pri_header->phi_atomic_iosize;
    const std::int64_t at = byte_pos(p, offset, flag);
    if (at < 0 || static_cast<std::uint64_t>(at) + n > d->img.size()) return VE_WRITE_FAILED;
    std::memcpy(d->img.data() + at, buf, n);
    return VE_OK;
  }

  // The attributes privdiag derives for an image of this length.
  disk_attrs attrs(int sector_size = 512) const {
    return derive_disk_attrs(img.size(), sector_size);
  }
  int scan(int sector_size = 512) {
    disk_attrs d = attrs(sector_size);
    priv->pri_flags |= PRI_NOUPDATE;
    return priv_scan(priv, &d);
  }
};

// privdiag [sector_size] IMAGE, on a temporary file.
inline process_result privdiag_on(const std::vector<std::uint8_t>& img, int sector_size = 0) {
  static int n = 0;
  const std::string path = temp_dir() + "/img" + std::to_string(++n);
  write_file(path, img);
  if (sector_size == 0) return run_process({PD_PRIVDIAG_BIN, path});
  return run_process({PD_PRIVDIAG_BIN, std::to_string(sector_size), path});
}

}  // namespace pd::test
