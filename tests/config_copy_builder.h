// Building configuration-copy bytes for store and layout tests: blocks with
// the standard or compact framing, and whole records split into fragments
// by the store's arithmetic.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "codec/integers.h"

namespace pd::test {

using bytes = std::vector<std::uint8_t>;

// A copy of `nblocks` blocks of `blksize` bytes; block 0 is the header area
// (left zero), the others are unused "VBLK" blocks.
class copy_image {
 public:
  copy_image(std::size_t nblocks, std::size_t blksize = 512, bool compact = false)
      : blksize_(blksize), compact_(compact), data_(nblocks * blksize) {
    for (std::size_t i = 1; i < nblocks; ++i) set_block(i, i, 0, 0, 0);
  }

  std::uint8_t* block(std::size_t i) { return data_.data() + i * blksize_; }
  bytes& data() { return data_; }
  std::size_t blksize() const { return blksize_; }
  std::size_t payload() const { return blksize_ - 16; }

  // Writes a block header (and clears the payload).
  void set_block(std::size_t i, std::size_t blkno, std::uint32_t ref, std::uint16_t frag,
                 std::uint16_t nfrag) {
    std::uint8_t* p = block(i);
    std::memset(p, 0, blksize_);
    if (compact_) {
      p[0] = 'L';
      p[1] = 'K';
      p[2] = static_cast<std::uint8_t>(blkno);
      p[3] = static_cast<std::uint8_t>(ref);
      p[4] = static_cast<std::uint8_t>(frag);
      p[5] = static_cast<std::uint8_t>(nfrag);
    } else {
      std::memcpy(p, "VBLK", 4);
      put_be32(p + 4, static_cast<std::uint32_t>(blkno));
      put_be32(p + 8, ref);
      put_be16(p + 12, frag);
      put_be16(p + 14, nfrag);
    }
  }

  std::size_t fragments_for(std::size_t size) const {
    return (blksize_ + size - 9) / (blksize_ - 16);
  }

  // Lays a record out over consecutive blocks from `first`; returns the
  // number of blocks used. `nfrag` overrides the fragment count.
  std::size_t put_record(std::size_t first, std::uint32_t ref, std::uint16_t flag,
                         std::uint16_t type, const bytes& body, long nfrag = -1) {
    std::size_t n = fragments_for(body.size());
    std::uint16_t count = static_cast<std::uint16_t>(nfrag < 0 ? n : nfrag);
    std::size_t hdr = compact_ ? 6 : 16;
    for (std::size_t f = 0; f < n; ++f) {
      set_block(first + f, first + f, ref, static_cast<std::uint16_t>(f), count);
      std::uint8_t* p = block(first + f) + hdr;
      std::size_t off = f == 0 ? 0 : payload() * f - 8;
      std::size_t room = f == 0 ? payload() - 8 : payload();
      if (f == 0) {
        if (compact_) {
          p[0] = static_cast<std::uint8_t>(flag);
          p[1] = static_cast<std::uint8_t>(type);
          put_be16(p + 2, static_cast<std::uint16_t>(body.size()));
          p += 4;
        } else {
          put_be16(p, flag);
          put_be16(p + 2, type);
          put_be32(p + 4, static_cast<std::uint32_t>(body.size()));
          p += 8;
        }
      }
      std::size_t k = body.size() - off < room ? body.size() - off : room;
      if (k > 0) std::memcpy(p, body.data() + off, k);
    }
    return n;
  }

 private:
  std::size_t blksize_;
  bool compact_;
  bytes data_;
};

inline bytes pattern(std::size_t n, std::uint8_t seed = 1) {
  bytes b(n);
  for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(seed + i * 7);
  return b;
}

}  // namespace pd::test
