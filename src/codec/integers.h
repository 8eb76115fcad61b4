// Width-generic integer accessors, the byte-sum checksum, the shared I/O
// buffers and the strict command-line number parser.
//
// Widths 1, 2 and 8 are themselves; every other width (4 included, but also 3
// or 16) means a 4-byte member. The accessors work in host order on
// in-memory structures; the codec does the big-endian stored form.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/session.h"

namespace pd {

std::uint64_t fgetunsigned(std::size_t tagsize, const void* fp);
std::uint64_t fgetulonglong(std::size_t tagsize, const void* fp);
std::int64_t fgetsigned(std::size_t tagsize, const void* fp);
void fputunsigned(std::uint64_t value, std::size_t tagsize, void* fp);
void fputulonglong(std::uint64_t value, std::size_t tagsize, void* fp);
void fputsigned(std::int64_t xsigned, std::size_t tagsize, void* fp);

// Sum of the bytes, unsigned, no folding.
std::uint64_t checksum(const std::uint8_t* buf, std::size_t len);

// The header and TOC rule: bytes 0..7 plus bytes 12..len-1, modulo
// 4294967295 (not 2^32). REQUIRES: len >= 12.
std::uint64_t region_checksum(const std::uint8_t* buf, std::size_t len);

// Big-endian loads and stores of stored fields.
inline std::uint16_t get_be16(const std::uint8_t* p) {
  return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}
inline std::uint32_t get_be32(const std::uint8_t* p) {
  return (static_cast<std::uint32_t>(p[0]) << 24) | (static_cast<std::uint32_t>(p[1]) << 16) |
         (static_cast<std::uint32_t>(p[2]) << 8) | p[3];
}
inline std::uint64_t get_be64(const std::uint8_t* p) {
  return (static_cast<std::uint64_t>(get_be32(p)) << 32) | get_be32(p + 4);
}
inline void put_be16(std::uint8_t* p, std::uint16_t v) {
  p[0] = static_cast<std::uint8_t>(v >> 8);
  p[1] = static_cast<std::uint8_t>(v);
}
inline void put_be32(std::uint8_t* p, std::uint32_t v) {
  p[0] = static_cast<std::uint8_t>(v >> 24);
  p[1] = static_cast<std::uint8_t>(v >> 16);
  p[2] = static_cast<std::uint8_t>(v >> 8);
  p[3] = static_cast<std::uint8_t>(v);
}
inline void put_be64(std::uint8_t* p, std::uint64_t v) {
  put_be32(p, static_cast<std::uint32_t>(v >> 32));
  put_be32(p + 4, static_cast<std::uint32_t>(v));
}

// Strict unsigned parse in automatic base; bad text reports ":331:%s: Invalid
// %s\n" and throws fatal_exit{1}.
unsigned long getdword(session& s, const char* arg, const char* name);

}  // namespace pd
