// Width-generic integer accessors, the byte-sum checksum, the per-thread I/O
// buffer, the 512-aligned sector buffer and the strict number parser.
//
// Widths 1, 2 and 8 are themselves; any other width is a 4-byte member. The
// accessors copy through memcpy so that members need no alignment.
#include "codec/integers.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "base/errors.h"
#include "io/messages.h"

namespace pd {

namespace {

template <typename T>
T load(const void* fp) {
  T v;
  std::memcpy(&v, fp, sizeof v);
  return v;
}

template <typename T>
void store(void* fp, T v) {
  std::memcpy(fp, &v, sizeof v);
}

}  // namespace

std::uint64_t fgetunsigned(std::size_t tagsize, const void* fp) {
  switch (tagsize) {
    case 1: return load<std::uint8_t>(fp);
    case 2: return load<std::uint16_t>(fp);
    case 8: return load<std::uint64_t>(fp);
    default: return load<std::uint32_t>(fp);
  }
}

std::uint64_t fgetulonglong(std::size_t tagsize, const void* fp) {
  return fgetunsigned(tagsize, fp);
}

std::int64_t fgetsigned(std::size_t tagsize, const void* fp) {
  switch (tagsize) {
    case 1: return load<std::int8_t>(fp);
    case 2: return load<std::int16_t>(fp);
    case 8: return load<std::int64_t>(fp);
    default: return load<std::int32_t>(fp);
  }
}

void fputunsigned(std::uint64_t value, std::size_t tagsize, void* fp) {
  switch (tagsize) {
    case 1: store(fp, static_cast<std::uint8_t>(value)); break;
    case 2: store(fp, static_cast<std::uint16_t>(value)); break;
    case 8: store(fp, value); break;
    default: store(fp, static_cast<std::uint32_t>(value)); break;
  }
}

void fputulonglong(std::uint64_t value, std::size_t tagsize, void* fp) {
  fputunsigned(value, tagsize, fp);
}

void fputsigned(std::int64_t xsigned, std::size_t tagsize, void* fp) {
  fputunsigned(static_cast<std::uint64_t>(xsigned), tagsize, fp);
}

std::uint64_t checksum(const std::uint8_t* buf, std::size_t len) {
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < len; ++i) sum += buf[i];
  return sum;
}

std::uint64_t region_checksum(const std::uint8_t* buf, std::size_t len) {
  // Bytes 8..11 hold the stored checksum and are left out. The modulus is
  // 2^32 - 1, not 2^32.
  return (checksum(buf, 8) + checksum(buf + 12, len - 12)) % 4294967295ULL;
}

unsigned long getdword(session& s, const char* arg, const char* name) {
  char* end = nullptr;
  unsigned long value = std::strtoul(arg, &end, 0);
  if (end == arg || *end != '\0') {
    volpfmt(s, s.err, 1, ":331:%s: Invalid %s\n", arg, name);
    throw fatal_exit{1, fatal_kind::usage};
  }
  return value;
}

}  // namespace pd
