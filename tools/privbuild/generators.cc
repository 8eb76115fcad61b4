// Content generators: the registry and the built-in generators.
//
// Built-ins (see docs/privbuild.md):
//   zero  the region's size in zero bytes
//   fill  every byte the value on the body's one line (e.g. 0xe5)
//   hex   the body's hex bytes, placed from the region's first byte
//   text  the body's lines, each with its leading blanks removed, joined by
//         new lines (a new line after the last one too)
//
// A generator that lives in another file of the builder is registered from
// register_builtin_generators() below: declare its registration function
// here and call it there.
#include <cctype>
#include <map>
#include <string>

#include "privbuild/builder.h"
#include "privbuild/description.h"
#include "privbuild/log_writer.h"

namespace pd {

namespace {

std::map<std::string, content_generator>& registry() {
  static std::map<std::string, content_generator> generators;
  return generators;
}

std::string strip_comment_and_blanks(const std::string& line) {
  std::vector<std::string> words;
  std::string joined;
  if (!split_words(line, &words)) return line;
  for (const auto& w : words) joined += w;
  return joined;
}

std::vector<std::uint8_t> gen_zero(const content_request& req, std::string*) {
  return std::vector<std::uint8_t>(req.size, 0);
}

std::vector<std::uint8_t> gen_fill(const content_request& req, std::string* error) {
  std::string value;
  for (const auto& l : req.lines) value += strip_comment_and_blanks(l);
  unsigned long long v = 0;
  if (!parse_uint(value, &v) || v > 0xff) {
    *error = "fill: the body must hold one byte value";
    return {};
  }
  return std::vector<std::uint8_t>(req.size, static_cast<std::uint8_t>(v));
}

std::vector<std::uint8_t> gen_hex(const content_request& req, std::string* error) {
  std::vector<unsigned char> bytes;
  for (const auto& l : req.lines) {
    if (!parse_hex_bytes(strip_comment_and_blanks(l), &bytes)) {
      *error = "hex: not hex bytes: " + l;
      return {};
    }
  }
  return std::vector<std::uint8_t>(bytes.begin(), bytes.end());
}

std::vector<std::uint8_t> gen_text(const content_request& req, std::string*) {
  std::vector<std::uint8_t> out;
  for (const auto& l : req.lines) {
    std::size_t b = 0;
    while (b < l.size() && std::isspace(static_cast<unsigned char>(l[b]))) ++b;
    out.insert(out.end(), l.begin() + static_cast<std::ptrdiff_t>(b), l.end());
    out.push_back('\n');
  }
  return out;
}

void register_builtin_generators() {
  register_content_generator("zero", gen_zero);
  register_content_generator("fill", gen_fill);
  register_content_generator("hex", gen_hex);
  register_content_generator("text", gen_text);
  // Generators of other files of the builder register here.
  privbuild::register_log_generator();
}

void ensure_builtins() {
  static bool done = false;
  if (done) return;
  done = true;
  register_builtin_generators();
}

}  // namespace

void register_content_generator(const std::string& name, content_generator fn) {
  ensure_builtins();
  registry()[name] = std::move(fn);
}

const content_generator* find_content_generator(const std::string& name) {
  ensure_builtins();
  auto it = registry().find(name);
  return it == registry().end() ? nullptr : &it->second;
}

}  // namespace pd
