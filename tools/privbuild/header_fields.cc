// Header field settings by name. Strings are taken as given (within their
// stored widths), so damaged ids and names can be described as well.
#include "privbuild/header_fields.h"

#include <cstring>
#include <sstream>
#include <vector>

#include "codec/text_forms.h"
#include "private_region/header.h"
#include "privbuild/description.h"

namespace pd {

namespace {

enum class kind { text, voff, uns, u16, seqno, version, flags, guid };

struct field_def {
  const char* key;
  kind k;
  std::size_t offset;  // member offset in priv_header_info
  std::size_t width;   // text: stored characters; integers: member size
};

#define HF(key, k, m, w) \
  field_def { key, k, offsetof(priv_header_info, m), w }

const field_def header_field_defs[] = {
    HF("version", kind::version, phi_version_major, 0),
    HF("diskid", kind::text, phi_diskid, 64),
    HF("hostid", kind::text, phi_hostid, 64),
    HF("dgid", kind::text, phi_dgid, 64),
    HF("dgname", kind::text, phi_dg_name, 31),
    HF("dgname12", kind::text, phi_dg_name_1_2, 14),
    HF("move-dgid", kind::text, phi_move_dgid, 64),
    HF("flags", kind::flags, phi_flags, sizeof(unsigned long)),
    HF("iosize", kind::uns, phi_atomic_iosize, sizeof(std::size_t)),
    HF("pub-id", kind::u16, phi_pub_id, 2),
    HF("priv-id", kind::u16, phi_priv_id, 2),
    HF("pub-offset", kind::voff, phi_pub_offset, 8),
    HF("pub-len", kind::voff, phi_pub_len, 8),
    HF("priv-offset", kind::voff, phi_priv_offset, 8),
    HF("priv-len", kind::voff, phi_priv_len, 8),
    HF("primary", kind::voff, phi_primary_header, 8),
    HF("alternate", kind::voff, phi_alt_header, 8),
    HF("first-toc", kind::voff, phi_first_toc, 8),
    HF("first-alt-toc", kind::voff, phi_first_alt_toc, 8),
    HF("nconfig", kind::uns, phi_nconfig, sizeof(std::size_t)),
    HF("nlogs", kind::uns, phi_nlogs, sizeof(std::size_t)),
    HF("config-len", kind::voff, phi_config_len, 8),
    HF("log-len", kind::voff, phi_log_len, 8),
    HF("seqno", kind::seqno, phi_update_seqno, 0),
    HF("time", kind::uns, phi_update_time, 8),
    HF("bootsig", kind::uns, phi_nt_boot_disk_sig, sizeof(unsigned long)),
    HF("diskset", kind::guid, phi_nt_diskset_id, 0),
    HF("new-diskset", kind::guid, phi_nt_new_diskset_id, 0),
};

#undef HF

const field_def* find_field(const std::string& key) {
  for (const auto& f : header_field_defs)
    if (key == f.key) return &f;
  return nullptr;
}

bool parse_flags(const std::string& text, unsigned long* flags) {
  unsigned long long v = 0;
  if (parse_uint(text, &v)) {
    *flags = static_cast<unsigned long>(v);
    return true;
  }
  *flags = 0;
  std::stringstream in(text);
  for (std::string w; std::getline(in, w, ',');) {
    if (w == "shared") {
      *flags |= PHI_SHARED;
    } else if (w == "noautoimport") {
      *flags |= PHI_NOAUTOIMPORT;
    } else if (w == "use-backup") {
      *flags |= PHI_USE_BACKUP;
    } else if (w == "encap-pending") {
      *flags |= PHI_ENCAP_PENDING;
    } else if (!w.empty()) {
      return false;
    }
  }
  return true;
}

bool set_integer(void* member, std::size_t width, unsigned long long v) {
  switch (width) {
    case 2: *static_cast<std::uint16_t*>(member) = static_cast<std::uint16_t>(v); return true;
    case 4: *static_cast<std::uint32_t*>(member) = static_cast<std::uint32_t>(v); return true;
    case 8: *static_cast<std::uint64_t*>(member) = v; return true;
    default: return false;
  }
}

}  // namespace

bool parse_seqno(const std::string& text, volseqno_t* seqno) {
  const std::size_t dot = text.find('.');
  unsigned long long hi = 0;
  unsigned long long lo = 0;
  if (dot == std::string::npos) {
    if (!parse_uint(text, &lo)) return false;
    seqno->seqno_hi = static_cast<std::uint32_t>(lo >> 32);
    seqno->seqno_lo = static_cast<std::uint32_t>(lo);
    return true;
  }
  if (!parse_uint(text.substr(0, dot), &hi) || !parse_uint(text.substr(dot + 1), &lo) ||
      hi > 0xFFFFFFFFull || lo > 0xFFFFFFFFull)
    return false;
  seqno->seqno_hi = static_cast<std::uint32_t>(hi);
  seqno->seqno_lo = static_cast<std::uint32_t>(lo);
  return true;
}

bool is_header_field(const std::string& key) { return find_field(key) != nullptr; }

bool apply_header_field(priv_header_info* hdr, const std::string& key, const std::string& value,
                        std::string* error) {
  const field_def* f = find_field(key);
  if (f == nullptr) {
    *error = "unknown header field '" + key + "'";
    return false;
  }
  void* member = reinterpret_cast<char*>(hdr) + f->offset;
  const std::string bad = "bad value '" + value + "' for " + key;
  long long sv = 0;
  unsigned long long uv = 0;
  switch (f->k) {
    case kind::text:
      if (value.size() > f->width) {
        *error = key + " is longer than " + std::to_string(f->width) + " characters";
        return false;
      }
      std::memset(member, 0, f->width + 1);
      std::memcpy(member, value.data(), value.size());
      return true;
    case kind::voff:
      if (!parse_int(value, &sv)) break;
      *static_cast<voff_t*>(member) = sv;
      return true;
    case kind::uns:
      if (!parse_uint(value, &uv)) break;
      return set_integer(member, f->width, uv);
    case kind::u16:
      if (!parse_uint(value, &uv) || uv > 0xFFFF) break;
      return set_integer(member, 2, uv);
    case kind::flags:
      if (!parse_flags(value, &hdr->phi_flags)) break;
      return true;
    case kind::seqno:
      if (!parse_seqno(value, &hdr->phi_update_seqno)) break;
      return true;
    case kind::version: {
      const std::size_t dot = value.find('.');
      unsigned long long minor = 0;
      if (!parse_uint(value.substr(0, dot), &uv) || uv > 0xFFFF) break;
      if (dot != std::string::npos && (!parse_uint(value.substr(dot + 1), &minor) || minor > 0xFFFF))
        break;
      hdr->phi_version_major = static_cast<std::uint16_t>(uv);
      hdr->phi_version_minor = static_cast<std::uint16_t>(minor);
      return true;
    }
    case kind::guid:
      if (voldguid_from_string(static_cast<voldguid_t*>(member), value.c_str()) != 0) break;
      return true;
  }
  *error = bad;
  return false;
}

}  // namespace pd
