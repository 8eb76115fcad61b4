// privinspect's output: the writer of its own views and the checked
// standard output every view writes to.
//
// Text that comes from the image (names, bytes shown as text) can hold any
// byte; written raw, an escape sequence in a record name would drive the
// reader's terminal. The views of privinspect's own (records, scan,
// hexdump's headings) therefore write such text in one escaped form:
//
//   - a backslash is written as two backslashes;
//   - every byte of a control character (0x00-0x1f, 0x7f, and the C1
//     controls U+0080-U+009F, encoded 0xc2 0x80-0x9f) is written as \xHH
//     with two lower-case hex digits;
//   - every byte that is not part of a well-formed UTF-8 sequence (a stray
//     continuation byte, a cut sequence, an overlong form, a surrogate, a
//     code point above U+10FFFF) is written as \xHH;
//   - every other byte is written as it is.
//
// The line breaks and blanks of a view's own layout are not values and are
// written as they are. The views that reproduce a dump of the format
// (config and logs) bypass the writer and print exactly what the dump
// prints. A finding's text stays exact as data; only its printing escapes.
//
// Standard output is checked: a write that fails (a full disk, an I/O error)
// ends privinspect at once with "privinspect: write error: <reason>" on
// standard error and status 3; a closed pipe ends it at once by SIGPIPE,
// without a message, as it ends any other filter.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace pd {

// `bytes` in the escaped form above.
std::string escape_text(std::string_view bytes);

class text_out {
 public:
  explicit text_out(FILE* f) : f_(f) {}

  // Layout: fixed words and numbers, written as they are.
  void printf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void text(std::string_view layout);
  // A value from the image, escaped.
  void value(std::string_view bytes);
  // Text whose only layout is its line breaks (a captured printer's
  // output): every line break is kept, every other byte is escaped.
  void lines(std::string_view text);

  FILE* file() const { return f_; }

 private:
  FILE* f_;
};

// The process's standard output behind the check described above; `exit_status`
// is the status a failed write ends with. Returns stdout itself when the
// check cannot be installed.
FILE* checked_stdout(const char* progname, int exit_status);

}  // namespace pd
