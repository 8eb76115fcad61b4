// An output buffer in front of a caller's stream, for the report's most
// frequent lines.
//
// Lines are formatted into the buffer by hand (numbers with std::to_chars,
// strings with memcpy) and handed to the stream with one fwrite when the
// buffer fills or flush() is called. The owner flushes before anything
// else is written to the same stream (a rare line still printed with
// fprintf, a finding), so the stream sees the bytes in the order printf
// would have written them. The destructor flushes.
//
// The appenders give exactly what the C library's printf gives for the
// conversion each names: put_udec(v, w) is "%*lu" (right-aligned in w
// columns), put_udec_left(v, w) "%-*lu", put_dec(v) "%ld", put_hex(v, w)
// "%0*lx" ("%x" with width 0); tests/out_buffer_test.cc compares them with
// snprintf.
#pragma once

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>

namespace pd {

class out_buffer {
 public:
  // Room for the longest line built in one reservation.
  static constexpr std::size_t MAX_RESERVE = 4096;

  explicit out_buffer(FILE* out, std::size_t capacity = std::size_t{1} << 16)
      : out_(out), cap_(capacity < MAX_RESERVE ? MAX_RESERVE : capacity),
        buf_(new char[cap_]) {}
  ~out_buffer() { flush(); }
  out_buffer(const out_buffer&) = delete;
  out_buffer& operator=(const out_buffer&) = delete;

  // The stream, with everything buffered written to it first.
  FILE* stream() {
    flush();
    return out_;
  }
  void flush() {
    if (len_ != 0) std::fwrite(buf_.get(), 1, len_, out_);
    len_ = 0;
  }
  // Bytes buffered since the last flush.
  std::size_t size() const { return len_; }

  // `n` (at most MAX_RESERVE) bytes of room at the end of the buffer; the
  // caller writes them and hands the new end to commit().
  char* reserve(std::size_t n) {
    if (cap_ - len_ < n) flush();
    return buf_.get() + len_;
  }
  void commit(char* end) { len_ = static_cast<std::size_t>(end - buf_.get()); }

  void put(const char* s, std::size_t n) {
    if (n > MAX_RESERVE) {
      flush();
      std::fwrite(s, 1, n, out_);
      return;
    }
    char* p = reserve(n);
    std::memcpy(p, s, n);
    len_ += n;
  }
  // "%s"
  void puts(const char* s) { put(s, std::strlen(s)); }
  template <std::size_t N>
  void lit(const char (&s)[N]) {
    put(s, N - 1);
  }
  void putc(char c) {
    char* p = reserve(1);
    *p = c;
    ++len_;
  }

  // "%*lu"
  void put_udec(unsigned long v, int width = 0) { commit(udec(reserve(room(width)), v, width)); }
  // "%-*lu"
  void put_udec_left(unsigned long v, int width) {
    commit(udec_left(reserve(room(width)), v, width));
  }
  // "%ld"
  void put_dec(long v) { commit(std::to_chars(reserve(24), buf_.get() + cap_, v).ptr); }
  // "%0*lx"
  void put_hex(unsigned long v, int width) { commit(hex(reserve(room(width)), v, width)); }

  // The same conversions into a caller's room (at least 24 characters, or
  // the width when wider); each returns the end of what it wrote.
  static char* udec(char* p, unsigned long v, int width) {
    char t[24];
    const char* e = std::to_chars(t, t + sizeof t, v).ptr;
    return pad_left(p, t, e, width, ' ');
  }
  static char* udec_left(char* p, unsigned long v, int width) {
    char* const start = p;
    p = std::to_chars(p, p + 24, v).ptr;
    while (p - start < width) *p++ = ' ';
    return p;
  }
  static char* hex(char* p, unsigned long v, int width) {
    char t[24];
    const char* e = std::to_chars(t, t + sizeof t, v, 16).ptr;
    return pad_left(p, t, e, width, '0');
  }

 private:
  // Room for a number of at most 24 characters in `width` columns (widths
  // are the formats' own small constants).
  static std::size_t room(int width) {
    return width > 0 && width < 1024 ? static_cast<std::size_t>(width) + 24 : 24;
  }
  // [t, e) is a conversion of at most 24 characters (the bound also tells
  // the compiler so).
  static char* pad_left(char* p, const char* t, const char* e, int width, char fill) {
    const std::size_t n = std::min(static_cast<std::size_t>(e - t), std::size_t{24});
    for (auto i = static_cast<int>(n); i < width; ++i) *p++ = fill;
    std::memcpy(p, t, n);
    return p + n;
  }

  FILE* out_;
  std::size_t cap_;
  std::unique_ptr<char[]> buf_;
  std::size_t len_ = 0;
};

}  // namespace pd
