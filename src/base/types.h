// Scalar types shared by every layer of privdiag.
//
// Sector counts and positions are signed 64-bit (voff_t). Sequence numbers
// and record ids are two unsigned 32-bit halves, low half first in memory,
// printed high half first ("hi.lo"). GUIDs keep their three numbers in host
// order in memory; the stored form is big-endian per member.
#pragma once

#include <cstdint>
#include <cstring>

namespace pd {

using voff_t = std::int64_t;
using uvoff_t = std::uint64_t;
using voldtime_t = std::uint64_t;
using ulong_t = unsigned long;

struct volseqno_t {
  std::uint32_t seqno_lo = 0;
  std::uint32_t seqno_hi = 0;
};
using volrid_t = volseqno_t;

// The 64-bit value of a sequence number, high half above low half.
inline std::uint64_t seqno_value(const volseqno_t& s) {
  return (static_cast<std::uint64_t>(s.seqno_hi) << 32) | s.seqno_lo;
}

inline bool seqno_equal(const volseqno_t& a, const volseqno_t& b) {
  return a.seqno_lo == b.seqno_lo && a.seqno_hi == b.seqno_hi;
}

struct voldguid_t {
  std::uint32_t Data1 = 0;
  std::uint16_t Data2 = 0;
  std::uint16_t Data3 = 0;
  std::uint8_t Data4[8] = {};
};
static_assert(sizeof(voldguid_t) == 16, "a GUID is 16 bytes in memory");

inline constexpr voldguid_t zeroguid{};

inline bool guid_equal(const voldguid_t& a, const voldguid_t& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace pd
