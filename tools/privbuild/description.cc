// The description language's lexical layer: lines into statements.
#include "privbuild/description.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace pd {

namespace {

std::string trim(const std::string& s) {
  std::size_t b = 0;
  std::size_t e = s.size();
  while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
  return s.substr(b, e - b);
}

std::string line_error(int line, const std::string& what) {
  return "line " + std::to_string(line) + ": " + what;
}

bool opens_body(const std::vector<std::string>& words) {
  return !words.empty() && words.back() == "begin";
}

}  // namespace

bool split_words(const std::string& line, std::vector<std::string>* words) {
  words->clear();
  std::size_t i = 0;
  const std::size_t n = line.size();
  while (i < n) {
    while (i < n && std::isspace(static_cast<unsigned char>(line[i]))) ++i;
    if (i >= n || line[i] == '#') break;
    std::string w;
    while (i < n && !std::isspace(static_cast<unsigned char>(line[i]))) {
      if (line[i] != '"') {
        w += line[i++];
        continue;
      }
      ++i;  // a quoted stretch
      while (i < n && line[i] != '"') {
        if (line[i] == '\\' && i + 1 < n) ++i;
        w += line[i++];
      }
      if (i >= n) return false;
      ++i;
    }
    words->push_back(w);
  }
  return true;
}

bool parse_description(const std::string& text, std::vector<desc_statement>* out,
                       std::string* error) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) {
    if (!l.empty() && l.back() == '\r') l.pop_back();
    lines.push_back(l);
  }
  out->clear();
  for (std::size_t i = 0; i < lines.size(); ++i) {
    std::vector<std::string> words;
    if (!split_words(lines[i], &words)) {
      *error = line_error(static_cast<int>(i + 1), "unterminated quote");
      return false;
    }
    if (words.empty()) continue;
    desc_statement st;
    st.line = static_cast<int>(i + 1);
    st.keyword = words[0];
    if (st.keyword == "end") {
      *error = line_error(st.line, "'end' without 'begin'");
      return false;
    }
    st.has_body = opens_body(words);
    if (st.has_body) words.pop_back();
    for (std::size_t w = 1; w < words.size(); ++w) {
      const std::size_t eq = words[w].find('=');
      if (eq == std::string::npos || eq == 0) {
        st.words.push_back(words[w]);
      } else {
        st.attrs.emplace_back(words[w].substr(0, eq), words[w].substr(eq + 1));
      }
    }
    if (st.has_body) {
      int depth = 1;
      std::size_t j = i + 1;
      for (; j < lines.size(); ++j) {
        std::vector<std::string> bw;
        const bool ok = split_words(lines[j], &bw);
        if (ok && bw.size() == 1 && bw[0] == "end" && --depth == 0) break;
        if (ok && opens_body(bw)) ++depth;
        st.body.push_back(lines[j]);
      }
      if (j >= lines.size()) {
        *error = line_error(st.line, "'begin' without 'end'");
        return false;
      }
      i = j;
    }
    out->push_back(std::move(st));
  }
  return true;
}

attr_reader::attr_reader(const desc_statement& st) : st_(st), used_(st.attrs.size(), false) {}

bool attr_reader::has(const std::string& name) const {
  for (const auto& a : st_.attrs)
    if (a.first == name) return true;
  return false;
}

const std::string* attr_reader::get(const std::string& name) {
  const std::string* found = nullptr;
  for (std::size_t i = 0; i < st_.attrs.size(); ++i) {
    if (st_.attrs[i].first == name) {
      used_[i] = true;
      found = &st_.attrs[i].second;
    }
  }
  return found;
}

bool attr_reader::check_all_used(std::string* error) const {
  for (std::size_t i = 0; i < used_.size(); ++i) {
    if (!used_[i]) {
      *error = line_error(st_.line, "unknown attribute '" + st_.attrs[i].first + "' for '" +
                                        st_.keyword + "'");
      return false;
    }
  }
  return true;
}

bool parse_int(const std::string& text, long long* value) {
  const std::string t = trim(text);
  if (t.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(t.c_str(), &end, 0);
  if (errno != 0 || end == t.c_str() || *end != '\0') return false;
  *value = v;
  return true;
}

bool parse_uint(const std::string& text, unsigned long long* value) {
  const std::string t = trim(text);
  if (t.empty() || t[0] == '-') return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long v = std::strtoull(t.c_str(), &end, 0);
  if (errno != 0 || end == t.c_str() || *end != '\0') return false;
  *value = v;
  return true;
}

bool parse_hex_bytes(const std::string& text, std::vector<unsigned char>* bytes) {
  int pending = -1;
  for (char c : text) {
    if (std::isspace(static_cast<unsigned char>(c)) || c == ':' || c == '-') continue;
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    const int d = std::isdigit(static_cast<unsigned char>(c))
                      ? c - '0'
                      : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
    if (pending < 0) {
      pending = d;
    } else {
      bytes->push_back(static_cast<unsigned char>(pending * 16 + d));
      pending = -1;
    }
  }
  return pending < 0;
}

}  // namespace pd
