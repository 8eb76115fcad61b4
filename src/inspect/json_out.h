// privinspect's JSON documents: the streaming writer, the envelope every
// document shares and the encoders that give each kind of value its one
// JSON type (docs/json.md).
//
// A document is written as it is made: the writer keeps the stack of open
// objects and arrays and their separators, and every leaf value, however
// large the document, is a small nlohmann object dumped on its own, so a
// configuration of half a million records is never held as one tree. Keys
// come out in the order they are written; nothing depends on a hash or on
// the values.
//
// Encoders: sequence numbers and record ids are "hi.lo" strings; GUIDs their
// 36-character text; checksums and flag words "0x" and a fixed number of
// lower-case hex digits; bytes meant as text become valid UTF-8 (json_text)
// with their raw form beside them where it matters (json_hex_bytes).
#pragma once

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "base/types.h"
#include "io/findings.h"

namespace pd {

using ojson = nlohmann::ordered_json;

// The schema the documents follow: its name and [major, minor] version.
inline constexpr const char* JSON_SCHEMA_NAME = "privinspect";
inline constexpr int JSON_SCHEMA_MAJOR = 1;
inline constexpr int JSON_SCHEMA_MINOR = 1;

// `bytes` as valid UTF-8: every well-formed UTF-8 sequence (no overlong
// forms, no surrogates, nothing above U+10FFFF) is kept; every other byte
// becomes U+FFFD. Control characters are kept (JSON escapes them).
std::string json_text(std::string_view bytes);
// The C string in a member of `max` bytes: up to its first NUL, at most max.
std::string json_text(const char* member, std::size_t max);
// Two lower-case hex digits per byte.
std::string json_hex_bytes(std::string_view bytes);
std::string json_cstr_bytes(const char* member, std::size_t max);

std::string json_seqno(volseqno_t v);  // "hi.lo", both unsigned decimal
std::string json_guid(const voldguid_t& g);  // 36 characters, lower case
// "0x" and `digits` lower-case hex digits (more if the value needs them).
std::string json_hex(std::uint64_t v, int digits);

// The names of the bits set in `word`, in table order.
struct json_bit_name {
  std::uint64_t bit;
  const char* name;
};
ojson json_bit_names(std::uint64_t word, std::initializer_list<json_bit_name> names);

// A finding as the documents give it.
ojson json_finding(const finding& f);
// The name of a record type (dbr_type & 15).
const char* json_record_type_name(int type);

// Writes one document to a stream, member by member.
class json_writer {
 public:
  explicit json_writer(FILE* out) : out_(out) {}

  // Inside an object: a key and its value. Inside an array: the value.
  void member(std::string_view key, const ojson& value);
  void element(const ojson& value);
  // Opens an object or array under `key` (inside an object) or as the next
  // element (inside an array, or the document itself when nothing is open).
  void open_object(std::string_view key = {});
  void open_array(std::string_view key = {});
  void close();
  // Closes what is open until `depth` levels remain.
  void close_to(std::size_t depth);
  std::size_t depth() const { return levels_.size(); }

 private:
  void next_item(std::string_view key);
  void open(std::string_view key, char bracket);

  struct level {
    char close;
    bool empty;
  };
  FILE* out_;
  std::vector<level> levels_;
  std::string buf_;
};

// What the envelope says about the run.
struct json_invocation {
  std::vector<std::string> argv;
  std::string tool_version;
};

// The envelope's head, in an object `w` has just opened: schema, tool,
// argv and command.
void json_envelope_head(json_writer& w, const json_invocation& inv, const char* command);

}  // namespace pd
