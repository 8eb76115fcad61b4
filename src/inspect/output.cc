// privinspect's output writer and checked standard output (see output.h).
#include "inspect/output.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>

namespace pd {

namespace {

// Length of the well-formed UTF-8 sequence of two or more bytes at the
// start of `s` (Unicode table 3-7), or 0.
std::size_t utf8_sequence(std::string_view s) {
  auto at = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
  auto cont = [&](std::size_t i, unsigned lo = 0x80, unsigned hi = 0xbf) {
    return i < s.size() && at(i) >= lo && at(i) <= hi;
  };
  unsigned char b = at(0);
  if (b >= 0xc2 && b <= 0xdf) return cont(1) ? 2 : 0;
  if (b == 0xe0) return cont(1, 0xa0) && cont(2) ? 3 : 0;
  if (b == 0xed) return cont(1, 0x80, 0x9f) && cont(2) ? 3 : 0;
  if (b >= 0xe1 && b <= 0xef) return cont(1) && cont(2) ? 3 : 0;
  if (b == 0xf0) return cont(1, 0x90) && cont(2) && cont(3) ? 4 : 0;
  if (b == 0xf4) return cont(1, 0x80, 0x8f) && cont(2) && cont(3) ? 4 : 0;
  if (b >= 0xf1 && b <= 0xf3) return cont(1) && cont(2) && cont(3) ? 4 : 0;
  return 0;
}

void hex_byte(std::string& out, unsigned char b) {
  static const char digits[] = "0123456789abcdef";
  out += "\\x";
  out += digits[b >> 4];
  out += digits[b & 15];
}

// Appends `bytes` escaped; a line feed is kept when `keep_newlines`.
void escape_into(std::string& out, std::string_view bytes, bool keep_newlines) {
  for (std::size_t i = 0; i < bytes.size();) {
    unsigned char b = static_cast<unsigned char>(bytes[i]);
    if (b == '\n' && keep_newlines) {
      out += '\n';
      i++;
    } else if (b == '\\') {
      out += "\\\\";
      i++;
    } else if (b < 0x20 || b == 0x7f) {
      hex_byte(out, b);
      i++;
    } else if (b < 0x80) {
      out += static_cast<char>(b);
      i++;
    } else if (std::size_t n = utf8_sequence(bytes.substr(i)); n == 0) {
      hex_byte(out, b);
      i++;
    } else if (b == 0xc2 && static_cast<unsigned char>(bytes[i + 1]) <= 0x9f) {
      hex_byte(out, b);  // a C1 control
      hex_byte(out, static_cast<unsigned char>(bytes[i + 1]));
      i += 2;
    } else {
      out.append(bytes.substr(i, n));
      i += n;
    }
  }
}

// The state of the checked standard output.
const char* out_progname = "privinspect";
int out_status = 3;

ssize_t checked_write(void*, const char* buf, size_t len) {
  size_t done = 0;
  while (done < len) {
    ssize_t n = ::write(STDOUT_FILENO, buf + done, len - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      int e = n < 0 ? errno : EIO;
      std::fprintf(stderr, "%s: write error: %s\n", out_progname, std::strerror(e));
      _exit(out_status);
    }
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(len);
}

}  // namespace

std::string escape_text(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  escape_into(out, bytes, false);
  return out;
}

void text_out::printf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(f_, fmt, ap);
  va_end(ap);
}

void text_out::text(std::string_view layout) { std::fwrite(layout.data(), 1, layout.size(), f_); }

void text_out::value(std::string_view bytes) { text(escape_text(bytes)); }

void text_out::lines(std::string_view all) {
  std::string out;
  out.reserve(all.size());
  escape_into(out, all, true);
  text(out);
}

FILE* checked_stdout(const char* progname, int exit_status) {
  out_progname = progname;
  out_status = exit_status;
  // A closed pipe ends the process by SIGPIPE, whatever was inherited.
  std::signal(SIGPIPE, SIG_DFL);
  sigset_t pipe_only;
  sigemptyset(&pipe_only);
  sigaddset(&pipe_only, SIGPIPE);
  sigprocmask(SIG_UNBLOCK, &pipe_only, nullptr);
  cookie_io_functions_t io{nullptr, checked_write, nullptr, nullptr};
  FILE* f = fopencookie(nullptr, "w", io);
  if (f == nullptr) return stdout;
  // Lines appear as they are written on a terminal, as with stdout's own buffer.
  std::setvbuf(f, nullptr, isatty(STDOUT_FILENO) != 0 ? _IOLBF : _IOFBF, 1 << 16);
  return f;
}

}  // namespace pd
