// The JSON writer and the encoders of privinspect's documents.
#include "inspect/json_out.h"

#include <cstring>

#include "codec/text_forms.h"
#include "report/tag_printer.h"

namespace pd {

namespace {

// Length of the well-formed UTF-8 sequence at p[0..n), or 0.
std::size_t utf8_sequence(const unsigned char* p, std::size_t n) {
  const unsigned char c = p[0];
  if (c < 0x80) return 1;
  std::size_t len;
  unsigned char lo = 0x80, hi = 0xBF;  // bounds of the second byte
  if (c >= 0xC2 && c <= 0xDF) {
    len = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    len = 3;
    if (c == 0xE0) lo = 0xA0;  // no overlong forms
    if (c == 0xED) hi = 0x9F;  // no surrogates
  } else if (c >= 0xF0 && c <= 0xF4) {
    len = 4;
    if (c == 0xF0) lo = 0x90;
    if (c == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
  } else {
    return 0;
  }
  if (n < len || p[1] < lo || p[1] > hi) return 0;
  for (std::size_t i = 2; i < len; ++i) {
    if (p[i] < 0x80 || p[i] > 0xBF) return 0;
  }
  return len;
}

std::size_t member_length(const char* member, std::size_t max) {
  const void* nul = std::memchr(member, '\0', max);
  return nul == nullptr ? max : static_cast<std::size_t>(static_cast<const char*>(nul) - member);
}

}  // namespace

std::string json_text(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  std::size_t i = 0;
  while (i < bytes.size()) {
    const std::size_t len = utf8_sequence(p + i, bytes.size() - i);
    if (len == 0) {
      out += "\xEF\xBF\xBD";  // U+FFFD
      ++i;
    } else {
      out.append(bytes.data() + i, len);
      i += len;
    }
  }
  return out;
}

std::string json_text(const char* member, std::size_t max) {
  return json_text(std::string_view(member, member_length(member, max)));
}

std::string json_hex_bytes(std::string_view bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (char ch : bytes) {
    const auto b = static_cast<unsigned char>(ch);
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

std::string json_cstr_bytes(const char* member, std::size_t max) {
  return json_hex_bytes(std::string_view(member, member_length(member, max)));
}

std::string json_seqno(volseqno_t v) {
  // By hand: documents of half a million records hold millions of these.
  char b[24];
  char* p = b + sizeof b;
  std::uint32_t lo = v.seqno_lo, hi = v.seqno_hi;
  do {
    *--p = static_cast<char>('0' + lo % 10);
    lo /= 10;
  } while (lo != 0);
  *--p = '.';
  do {
    *--p = static_cast<char>('0' + hi % 10);
    hi /= 10;
  } while (hi != 0);
  return std::string(p, b + sizeof b);
}

std::string json_guid(const voldguid_t& g) {
  char b[40];
  voldguid_to_string(b, &g);
  return b;
}

std::string json_hex(std::uint64_t v, int digits) {
  static const char hexdigits[] = "0123456789abcdef";
  int n = 1;
  while (n < 16 && (v >> (4 * n)) != 0) ++n;
  if (n < digits) n = digits;
  std::string out(static_cast<std::size_t>(n) + 2, '0');
  out[1] = 'x';
  for (int i = 0; i < n; ++i) out[out.size() - 1 - i] = hexdigits[(v >> (4 * i)) & 15];
  return out;
}

ojson json_bit_names(std::uint64_t word, std::initializer_list<json_bit_name> names) {
  ojson out = ojson::array();
  for (const json_bit_name& n : names) {
    if ((word & n.bit) != 0) out.push_back(n.name);
  }
  return out;
}

const char* json_record_type_name(int type) { return record_kind_name(type); }

namespace {

ojson json_object_of(const finding_object& o) {
  ojson out = ojson::object();
  out["type"] = o.rtype;
  out["type_name"] = json_record_type_name(o.rtype);
  out["rid"] = o.rid ? json_seqno(*o.rid) : std::string();
  out["name"] = json_text(o.name);
  return out;
}

}  // namespace

ojson json_finding(const finding& f) {
  ojson out = ojson::object();
  out["code"] = f.name();
  out["severity"] = severity_name(f.sev());
  if (f.object.rtype >= 0) out["object"] = json_object_of(f.object);
  if (f.other.rtype >= 0) out["other"] = json_object_of(f.other);
  ojson at = ojson::object();
  at["structure"] = f.place.structure;
  if (f.place.copy >= 0) at["copy"] = f.place.copy;
  if (f.place.block >= 0) at["block"] = f.place.block;
  if (f.place.sector >= 0) at["sector"] = f.place.sector;
  if (f.place.offset >= 0) at["offset"] = f.place.offset;
  out["location"] = std::move(at);
  if (f.expected) out["expected"] = json_text(*f.expected);
  if (f.actual) out["actual"] = json_text(*f.actual);
  out["text"] = json_text(f.text);
  return out;
}

// --- writer ------------------------------------------------------------------

void json_writer::next_item(std::string_view key) {
  if (levels_.empty()) return;
  level& l = levels_.back();
  if (!l.empty) std::fputc(',', out_);
  l.empty = false;
  // Members of the document and the items of its arrays each start a line.
  if (levels_.size() <= 2) std::fputc('\n', out_);
  if (l.close == '}') {
    buf_ = ojson(key).dump();
    buf_ += ':';
    std::fwrite(buf_.data(), 1, buf_.size(), out_);
  }
}

void json_writer::member(std::string_view key, const ojson& value) {
  next_item(key);
  // The serializer behind dump(), into a buffer that keeps its room.
  buf_.clear();
  nlohmann::detail::serializer<ojson> ser(nlohmann::detail::output_adapter<char>(buf_), ' ',
                                          ojson::error_handler_t::replace);
  ser.dump(value, false, false, 0);
  std::fwrite(buf_.data(), 1, buf_.size(), out_);
}

void json_writer::element(const ojson& value) { member({}, value); }

void json_writer::open(std::string_view key, char bracket) {
  next_item(key);
  std::fputc(bracket, out_);
  levels_.push_back({bracket == '{' ? '}' : ']', true});
}

void json_writer::open_object(std::string_view key) { open(key, '{'); }
void json_writer::open_array(std::string_view key) { open(key, '['); }

void json_writer::close() {
  if (levels_.empty()) return;
  const level l = levels_.back();
  levels_.pop_back();
  if (!l.empty && levels_.size() <= 1) std::fputc('\n', out_);
  std::fputc(l.close, out_);
  if (levels_.empty()) std::fputc('\n', out_);
}

void json_writer::close_to(std::size_t depth) {
  while (levels_.size() > depth) close();
}

void json_envelope_head(json_writer& w, const json_invocation& inv, const char* command) {
  w.member("schema",
           {{"name", JSON_SCHEMA_NAME}, {"version", {JSON_SCHEMA_MAJOR, JSON_SCHEMA_MINOR}}});
  w.member("tool", {{"name", "privinspect"}, {"version", inv.tool_version}});
  ojson argv = ojson::array();
  for (const std::string& a : inv.argv) argv.push_back(json_text(a));
  w.member("argv", argv);
  w.member("command", command);
}

}  // namespace pd
