// Names of the stored members of every record kind, and text values for
// them: the configuration generator's table-driven name -> member mapping.
//
// A member is named as in its structure (`v_len`, `dm_tutil[1]`) or without
// its kind's prefix (`len`, `tutil1`). Its encoding, and the optional group
// (and so the presence flag) it belongs to, come from the record type's
// field tables: nothing here repeats the stored layout.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "codec/field_codec.h"
#include "config_db/record_layouts.h"

namespace pd {

struct member_ref {
  const char* name;
  std::size_t offset;
};

struct record_kind {
  const char* keyword;          // statement keyword ("volume")
  const char* alias;            // short keyword ("vol")
  const char* prefix;           // member prefix ("v_")
  std::uint32_t default_type;   // type code written when none is given
  const member_ref* members;    // every member some layout of the kind stores
  std::size_t nmembers;
};

extern const record_kind record_kinds[];
extern const std::size_t n_record_kinds;

const record_kind* find_record_kind(const std::string& word);
// The kind whose structure an entry's tables describe.
const record_kind* record_kind_of(const rec2field* r2f);
const member_ref* find_member(const record_kind* k, const std::string& name);

// The field of the entry's tables that stores the member at `offset`, and
// its group; false when no layout of the entry stores it.
bool find_field(const rec2field* r2f, std::size_t offset, const db_field** f,
                const r2f_group** g);

// Sets the member of `f` in `sp` from its text form:
//   ids, tids       hi.lo, or one number
//   integers        decimal, 0x hex or 0 octal, may be negative
//   strings         the text (must fit the member)
//   GUIDs           the GUID text
//   port info       PORT:A.B.C.D or PORT:NUMBER; IPv6 also PORT:32 hex digits
//   wide strings    the text, \uXXXX for wide characters; empty = none
//   byte strings    hex data (its length prefix is added), or raw:HEX verbatim
bool set_field_value(const db_field& f, void* sp, const std::string& text, std::string* error);

}  // namespace pd
