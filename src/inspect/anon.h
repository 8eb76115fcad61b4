// `privinspect anonymise IN OUT --key KEYFILE [--map MAP]`: a copy of the
// region with every name of the customer's replaced by a keyed pseudonym,
// its damage kept (docs/anonymise.md).
//
// Three steps over the region's bytes, in memory:
//   1. walk every structure that holds text (each header copy, each TOC
//      block's tag-id entries, each configuration copy's database header
//      and records, enabled or not) and collect the values to replace;
//   2. give each value its pseudonym (anon_names): HMAC-SHA-256 of the
//      value under the key, drawn into the value's character classes, so
//      that one value maps alike on every disk anonymised with that key;
//   3. walk again and re-encode each structure through its format's
//      encoders with the pseudonyms; checksums are recomputed only where the
//      stored one verified; unused blocks and the slack after structures are
//      zeroed.
// OUT is written by new_image (never IN, atomically); before it is kept,
// `check` runs on it and on IN and their lines must agree with the names
// mapped, and OUT's bytes must hold no original value (as stored, in any
// case, and as wide characters). The map file (pseudonym -> original, with
// the manifest) never goes into OUT.
//
// This module links OpenSSL's libcrypto (HMAC-SHA-256, the key's random
// bytes); privdiag does not link it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/session.h"
#include "base/types.h"
#include "inspect/inspect_image.h"

namespace pd {

// How a value's characters are drawn. text: a-z, A-Z and 0-9 each within
// its class, every other byte kept; hex (a value in GUID form): hex digits
// within 0-9a-f (A-F for upper case), the dashes kept.
enum class anon_class { text, hex };

// The 32 bytes of a key file: 64 hex digits and a newline. Reading accepts
// surrounding blanks. False with the reason in *error.
inline constexpr std::size_t ANON_KEY_BYTES = 32;
bool anon_read_key(const std::string& path, std::vector<std::uint8_t>* key, std::string* error);
// A new key file (mode 0600, never over an existing file).
bool anon_new_key(const std::string& path, std::string* error);
// The key's public name in the manifest: the first 8 bytes of
// HMAC(key, "key-id") in hex; it tells keys apart and reveals nothing.
std::string anon_key_id(const std::vector<std::uint8_t>& key);

// The pseudonyms of one image.
class anon_names {
 public:
  explicit anon_names(std::vector<std::uint8_t> key, bool numbers = false)
      : key_(std::move(key)), numbers_(numbers) {}
  // A value to replace (empty values are ignored).
  void add(const std::string& value);
  // Gives every value added its pseudonym. The values form a trie; at each
  // node the characters that follow (of one alphabet: a-z, A-Z, 0-9, or
  // the hex digits of a GUID text) are mapped, in order, onto as many
  // characters of the alphabet chosen by a keyed shuffle of that node
  // (HMAC-SHA-256 of the key, the prefix and a draw number). So pseudonyms
  // are unique by construction, keep each value's length and character
  // classes, and keep the byte order of the values, which the report sorts
  // its lists by. A draw is kept when no pseudonym equals a value (case
  // folded) and none holds a value of 3 or more characters; else the next
  // draw is made, up to 64. False with a value in *error when no draw
  // passes (a value of no letter or digit, or one that is a sibling set's
  // only choice).
  bool resolve(std::string* error);
  // The pseudonym of a value added (after resolve).
  const std::string& pseudonym(const std::string& value) const;
  const std::map<std::string, std::string>& map() const { return map_; }

  static anon_class class_of(const std::string& value);

  // --ids: record ids. The low half's decimal digits are drawn like a
  // name's, in a trie of their own (the first digit never 0, so the number
  // keeps its digits; the order of the ids kept, as compare sorts by id);
  // the high half and an id 0 stay. An id may map to itself: ids name
  // nothing of the customer's. add_rid before resolve, rid after it; rids()
  // gives every id added and its pseudonym ("hi.lo" texts).
  void add_rid(volrid_t r);
  volrid_t rid(volrid_t r) const;
  const std::map<std::string, std::string>& rids() const { return rids_; }

 private:
  std::string trie_pseudonym(const std::string& value, std::uint32_t draw);
  std::vector<std::uint8_t> key_;
  bool numbers_ = false;  // a trie of record ids' low halves
  std::unique_ptr<anon_names> rid_trie_;
  std::map<std::string, std::string> rids_;  // "hi.lo" -> "hi.lo"
  std::map<std::string, std::string> map_;  // original -> pseudonym
  std::map<std::pair<std::string, std::uint32_t>, std::map<char, char>> nodes_;
  std::string last_bad_;
};

// Replaces in `text` every value of `names` that stands alone (not inside a
// longer run of letters and digits) by its pseudonym, the longest first.
std::string anon_map_text(const anon_names& names, const std::string& text);

// `text` with every checksum computed over a structure that did not verify
// ("computed 0x" and hex digits) masked: such a sum covers the names, so it
// changes with them while the stored one is kept.
std::string anon_mask_computed(const std::string& text);

// The region rewrite (steps 1 and 3) over the bytes of a region image.
struct anon_rewrite_stats {
  std::size_t headers = 0, toc_blocks = 0, copies = 0, records = 0, logs = 0;
  std::size_t zeroed_bytes = 0;
  std::vector<std::string> kept;  // structures left as they were, and why
  std::vector<std::size_t> free_sectors;  // sectors no structure uses (zeroed)
};
// Collects every value to replace in `region` (the located image `img`);
// with `ids`, the disk ids, group ids and GUIDs too.
void anon_collect(inspect_image& img, const std::vector<std::uint8_t>& region, anon_names& names,
                  bool ids = false);
// Rewrites `region` with the pseudonyms; with `zero`, the slack after
// structures and the unused space are zeroed (else they keep their bytes).
// False with the reason in *error when a structure cannot be re-encoded as
// it was framed.
// With `ids`, record ids (in the records and the log entries), disk ids,
// group ids and GUIDs are replaced too.
bool anon_rewrite(inspect_image& img, std::vector<std::uint8_t>& region, const anon_names& names,
                  bool zero, anon_rewrite_stats* stats, std::string* error, bool ids = false);

// The marker sector written into a free sector of OUT: "PDANONYM", then
// the manifest as JSON text, NUL-terminated.
inline constexpr char anon_marker_magic[] = "PDANONYM";
inline constexpr std::size_t ANON_MARKER_MAGIC_LEN = 8;

struct anonymise_options {
  std::string out;
  std::string key_path;
  bool new_key = false;
  std::string map_path;  // empty: no map file
  bool force = false;
  std::string tool_version;  // for the manifest
  // The other disks of the group: their values join the draw, so that
  // every disk anonymised with the same list gets the same pseudonyms.
  std::vector<std::string> with;
  bool ids = false;  // --ids
};

// The command. INSPECT_OK, or INSPECT_USAGE_IO after a message on s.err
// (usage, I/O, no unique pseudonym, a failed self-check); OUT is then as
// it was.
int inspect_anonymise(session& s, const inspect_target& t, const anonymise_options& o);
// `anonymise --show IMAGE`: the marker's manifest, or a line saying there
// is none (status 1).
int inspect_anonymise_show(session& s, const inspect_target& t);

}  // namespace pd
