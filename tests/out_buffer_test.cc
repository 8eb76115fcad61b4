// The hand formatting of the report's frequent lines against the C
// library's printf for the same values: every appender of io/out_buffer.h
// and every text form written without printf, on the values at the edges
// of their types, and the buffer's order against direct writes.
#include "io/out_buffer.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>

#include "codec/text_forms.h"
#include "test_support.h"

namespace pd {
namespace {

std::string sprintf_text(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string sprintf_text(const char* fmt, ...) {
  char b[256];
  va_list ap;
  va_start(ap, fmt);
  const int n = std::vsnprintf(b, sizeof b, fmt, ap);
  va_end(ap);
  return std::string(b, static_cast<std::size_t>(n));
}

// Runs `put` on a buffer over an in-memory stream; what the stream got.
template <class Put>
std::string buffered(Put put, std::size_t capacity = 1 << 16) {
  test::captured_session cs;
  {
    out_buffer ob(cs->out, capacity);
    put(ob);
  }
  return cs.out();
}

const unsigned long unsigned_values[] = {
    0, 1, 9, 10, 99, 999, 1000, 9999, 10000, 65535, 4294967295ul, 4294967296ul,
    static_cast<unsigned long>(LONG_MAX), static_cast<unsigned long>(LONG_MAX) + 1, ULONG_MAX};

TEST(OutBufferTest, NumbersAsPrintfWritesThem) {
  for (unsigned long v : unsigned_values) {
    for (int w : {0, 1, 4, 8, 25}) {
      EXPECT_EQ(buffered([&](out_buffer& ob) { ob.put_udec(v, w); }), sprintf_text("%*lu", w, v));
      EXPECT_EQ(buffered([&](out_buffer& ob) { ob.put_udec_left(v, w); }),
                sprintf_text("%-*lu", w, v));
      EXPECT_EQ(buffered([&](out_buffer& ob) { ob.put_hex(v, w); }), sprintf_text("%0*lx", w, v));
    }
    // "%ld" of a value that does not fit a long: its two's complement.
    for (const long s : {static_cast<long>(v), static_cast<long>(0ul - v)}) {
      EXPECT_EQ(buffered([&](out_buffer& ob) { ob.put_dec(s); }), sprintf_text("%ld", s));
    }
  }
  EXPECT_EQ(buffered([](out_buffer& ob) { ob.put_dec(LONG_MIN); }), sprintf_text("%ld", LONG_MIN));
}

TEST(TextFormsTest, DirectFormsAsPrintfWritesThem) {
  const std::uint32_t halves[] = {0, 1, 10, 2147483647u, 2147483648u, 4294967295u};
  for (std::uint32_t hi : halves) {
    for (std::uint32_t lo : halves) {
      volseqno_t s;
      s.seqno_hi = hi;
      s.seqno_lo = lo;
      EXPECT_EQ(std::string(volseqnotostr(s)),
                sprintf_text("%ld.%ld", static_cast<long>(hi), static_cast<long>(lo)));
    }
  }
  for (std::int64_t v : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{2048}, INT64_MAX,
                         INT64_MIN, INT64_MIN + 1}) {
    EXPECT_EQ(std::string(vofftostr(v)), sprintf_text("%ld", static_cast<long>(v)));
  }
  // Every digit in every position of a GUID.
  for (unsigned d = 0; d < 16; ++d) {
    voldguid_t g;
    g.Data1 = 0x01234567u * d;
    g.Data2 = static_cast<std::uint16_t>(0x1111u * d);
    g.Data3 = static_cast<std::uint16_t>(0xf0f0u ^ (0x1111u * d));
    for (int i = 0; i < 8; ++i) g.Data4[i] = static_cast<std::uint8_t>(d * 17 + i * 16);
    char text[37];
    voldguid_to_string(text, &g);
    EXPECT_EQ(std::string(text),
              sprintf_text("%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", g.Data1, g.Data2,
                           g.Data3, g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4],
                           g.Data4[5], g.Data4[6], g.Data4[7]));
  }
}

// Text written through the buffer and text written to the stream itself
// (stream()) arrive in program order, across fills of a small buffer and
// pieces larger than it.
TEST(OutBufferTest, KeepsOrderWithDirectWritesAndLargePieces) {
  std::string want;
  const std::string big(out_buffer::MAX_RESERVE + 10, 'x');
  const std::string got = buffered(
      [&](out_buffer& ob) {
        for (int i = 0; i < 2000; ++i) {
          ob.lit("line ");
          ob.put_udec(static_cast<unsigned long>(i), 5);
          ob.putc('\n');
          want += sprintf_text("line %5d\n", i);
          if (i % 500 == 0) {
            std::fprintf(ob.stream(), "direct %d\n", i);
            want += sprintf_text("direct %d\n", i);
            ob.put(big.data(), big.size());
            want += big;
          }
        }
      },
      out_buffer::MAX_RESERVE);
  EXPECT_EQ(got, want);
}

}  // namespace
}  // namespace pd
