// The builder's description language, as statements.
//
// One statement per line: a keyword, then words and name=value attributes
// separated by blanks. A value may be quoted ("two words", with \" and \\).
// '#' at the start of a word begins a comment. A statement whose last word is
// `begin` owns the following lines up to the matching line `end` (nested
// begin/end pairs are kept inside the body): its body, handed verbatim to a
// content generator.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace pd {

struct desc_statement {
  int line = 0;
  std::string keyword;
  std::vector<std::string> words;                             // positional words
  std::vector<std::pair<std::string, std::string>> attrs;     // name=value, in order
  bool has_body = false;
  std::vector<std::string> body;                              // raw lines of begin...end
};

// Splits the text into statements; false with "line N: ..." in *error.
bool parse_description(const std::string& text, std::vector<desc_statement>* out,
                       std::string* error);

// Splits one line into words (quotes and comments handled); false on an
// unterminated quote.
bool split_words(const std::string& line, std::vector<std::string>* words);

// Attribute access with a record of what was consumed, so that a statement's
// unknown attributes can be reported.
class attr_reader {
 public:
  explicit attr_reader(const desc_statement& st);
  bool has(const std::string& name) const;
  // The value of `name` (the last one given), or null; marks it used.
  const std::string* get(const std::string& name);
  // "line N: unknown attribute X" for the first attribute never asked for.
  bool check_all_used(std::string* error) const;

 private:
  const desc_statement& st_;
  std::vector<bool> used_;
};

// Number parsing in automatic base (0x.., 0.., decimal), optional sign.
bool parse_int(const std::string& text, long long* value);
bool parse_uint(const std::string& text, unsigned long long* value);
// Hex bytes: pairs of hex digits, blanks, ':' and '-' ignored.
bool parse_hex_bytes(const std::string& text, std::vector<unsigned char>* bytes);

}  // namespace pd
