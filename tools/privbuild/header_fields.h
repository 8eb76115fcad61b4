// Header fields of the description language: name=value settings applied to
// a priv_header_info (shared by the `header` and `hdrcopy` statements).
#pragma once

#include <string>

#include "base/priv_info.h"

namespace pd {

// Whether `key` names a header field.
bool is_header_field(const std::string& key);
// Sets the field; false with a message (no line number) in *error.
bool apply_header_field(priv_header_info* hdr, const std::string& key, const std::string& value,
                        std::string* error);
// "hi.lo" or a plain 64-bit number.
bool parse_seqno(const std::string& text, volseqno_t* seqno);

}  // namespace pd
