// The walk of `anonymise`'s region rewrite (anon.h), shared by its two
// files: the action on each value (collect it, or write its pseudonym), and
// the copies' walks (anon_copies.cc) that the region's walk
// (anon_region.cc) calls for each configuration and log copy.
#pragma once

#include <cstdint>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "base/types.h"
#include "codec/text_forms.h"
#include "inspect/anon.h"

namespace pd::anon_detail {

// The walk's action on one value: collect it, or give its pseudonym.
struct walker {
  anon_names* collect = nullptr;    // collect mode
  const anon_names* names = nullptr;  // rewrite mode
  anon_rewrite_stats* stats = nullptr;
  std::string* error = nullptr;
  bool failed = false;
  bool zero = true;  // zero the slack and unused space (else keep their bytes)
  bool ids = false;  // --ids: ids and GUIDs are values too, record ids are moved

  // A NUL-terminated member of `width` bytes.
  void text(char* m, std::size_t width) {
    const std::string v(m, strnlen(m, width));
    if (v.empty()) return;
    if (collect != nullptr) {
      collect->add(v);
      return;
    }
    const std::string& p = names->pseudonym(v);
    if (p.size() == v.size()) std::memcpy(m, p.data(), p.size());
  }
  // A member kept (an id, a word of the volume manager's): replaced only
  // when it equals a value replaced elsewhere, which it would reveal.
  void kept(char* m, std::size_t width) {
    if (collect != nullptr) return;
    const std::string v(m, strnlen(m, width));
    const std::string& p = names->pseudonym(v);
    if (!v.empty() && p.size() == v.size()) std::memcpy(m, p.data(), p.size());
  }
  // An id member: a value with --ids, else kept.
  void id(char* m, std::size_t width) {
    if (ids) {
      text(m, width);
    } else {
      kept(m, width);
    }
  }
  // A GUID member (with --ids): its text form is the value.
  void guid(voldguid_t* g) {
    if (!ids || guid_equal(*g, zeroguid)) return;
    char t[40] = {};  // 36 characters and the terminator
    voldguid_to_string(t, g);
    text(t, sizeof t);
    voldguid_t back{};
    if (writing() && voldguid_from_string(&back, t) == 0) *g = back;
  }
  void rid(volrid_t* r) {
    if (!ids) return;
    if (collect != nullptr) {
      collect->add_rid(*r);
    } else {
      *r = names->rid(*r);
    }
  }
  // A wide member (null or terminated): ASCII values only; others are kept.
  void wide(wchar_t* ws) {
    if (ws == nullptr) return;
    std::string v;
    for (const wchar_t* q = ws; *q != 0; ++q) {
      if (*q < 0 || *q > 0x7F) return;
      v.push_back(static_cast<char>(*q));
    }
    if (v.empty()) return;
    if (collect != nullptr) {
      collect->add(v);
      return;
    }
    const std::string& p = names->pseudonym(v);
    if (p.size() != v.size()) return;
    for (std::size_t i = 0; i < p.size(); ++i) ws[i] = static_cast<wchar_t>(p[i]);
  }
  bool writing() const { return names != nullptr; }
  void fail(const std::string& why) {
    if (!failed && error != nullptr) *error = why;
    failed = true;
  }
};

// The copy's bytes (its parts end to end), walked and, when writing,
// re-encoded in place; `number` names the copy in messages (0: a copy the
// TOC does not list).
void walk_config_copy(std::vector<std::uint8_t>& copy, int number, walker& w);
void walk_log_copy(std::vector<std::uint8_t>& copy, walker& w);

}  // namespace pd::anon_detail
