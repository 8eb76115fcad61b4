// Header codec: the field tables of the stored sector, the decoder's checks
// and the encoder.
#include "private_region/header.h"

#include <cstddef>
#include <cstring>
#include <ctime>
#include <iterator>

#include "base/errors.h"
#include "codec/integers.h"
#include "codec/text_forms.h"

namespace pd {

using H = priv_header_info;

const db_field priv_version_fields[] = {
    DBF(DBF_TYPE_USHORT, H, phi_version_major, 2),
    DBF(DBF_TYPE_USHORT, H, phi_version_minor, 2),
};
const std::size_t n_priv_version_fields = std::size(priv_version_fields);

const db_field priv_header_fields_1_2[] = {
    DBF(DBF_TYPE_UNSIGNED, H, phi_update_time, 4),
    DBF(DBF_TYPE_SEQNO, H, phi_update_seqno, 8),
    DBF(DBF_TYPE_VOFF, H, phi_primary_header, 8),
    DBF(DBF_TYPE_VOFF, H, phi_alt_header, 8),
    DBF(DBF_TYPE_STRING, H, phi_diskid, 64),
    DBF(DBF_TYPE_STRING, H, phi_hostid, 64),
    DBF(DBF_TYPE_STRING, H, phi_dgid, 64),
    DBF(DBF_TYPE_STRING, H, phi_dg_name_1_2, 14),
    DBF(DBF_TYPE_UNSIGNED, H, phi_atomic_iosize, 4),
    DBF(DBF_TYPE_UNSIGNED, H, phi_flags, 4),
    DBF(DBF_TYPE_USHORT, H, phi_pub_id, 2),
    DBF(DBF_TYPE_USHORT, H, phi_priv_id, 2),
    DBF(DBF_TYPE_VOFF, H, phi_pub_offset, 8),
    DBF(DBF_TYPE_VOFF, H, phi_pub_len, 8),
    DBF(DBF_TYPE_VOFF, H, phi_priv_len, 8),
    DBF(DBF_TYPE_VOFF, H, phi_first_toc, 8),
    DBF(DBF_TYPE_VOFF, H, phi_first_alt_toc, 8),
    DBF(DBF_TYPE_UNSIGNED, H, phi_nconfig, 4),
    DBF(DBF_TYPE_UNSIGNED, H, phi_nlogs, 4),
    DBF(DBF_TYPE_VOFF, H, phi_config_len, 8),
    DBF(DBF_TYPE_VOFF, H, phi_log_len, 8),
};
const std::size_t n_priv_header_fields_1_2 = std::size(priv_header_fields_1_2);
static_assert(std::size(priv_header_fields_1_2) == 21);

// The public pair is stored offset before length, the reverse of the record.
const db_field priv_header_fields_2_0[] = {
    DBF(DBF_TYPE_ULONGLONG, H, phi_update_time, 8),
    DBF(DBF_TYPE_SEQNO, H, phi_update_seqno, 8),
    DBF(DBF_TYPE_VOFF, H, phi_primary_header, 8),
    DBF(DBF_TYPE_VOFF, H, phi_alt_header, 8),
    DBF(DBF_TYPE_STRING, H, phi_diskid, 64),
    DBF(DBF_TYPE_STRING, H, phi_hostid, 64),
    DBF(DBF_TYPE_STRING, H, phi_dgid, 64),
    DBF(DBF_TYPE_STRING, H, phi_dg_name, 31),
    DBF(DBF_TYPE_UNSIGNED, H, phi_atomic_iosize, 4),
    DBF(DBF_TYPE_UNSIGNED, H, phi_flags, 4),
    DBF(DBF_TYPE_USHORT, H, phi_pub_id, 2),
    DBF(DBF_TYPE_USHORT, H, phi_priv_id, 2),
    DBF(DBF_TYPE_VOFF, H, phi_pub_offset, 8),
    DBF(DBF_TYPE_VOFF, H, phi_pub_len, 8),
    DBF(DBF_TYPE_VOFF, H, phi_priv_offset, 8),
    DBF(DBF_TYPE_VOFF, H, phi_priv_len, 8),
    DBF(DBF_TYPE_VOFF, H, phi_first_toc, 8),
    DBF(DBF_TYPE_VOFF, H, phi_first_alt_toc, 8),
    DBF(DBF_TYPE_UNSIGNED, H, phi_nconfig, 4),
    DBF(DBF_TYPE_UNSIGNED, H, phi_nlogs, 4),
    DBF(DBF_TYPE_VOFF, H, phi_config_len, 8),
    DBF(DBF_TYPE_VOFF, H, phi_log_len, 8),
};
const std::size_t n_priv_header_fields_2_0 = std::size(priv_header_fields_2_0);
static_assert(std::size(priv_header_fields_2_0) == 22);

const db_field priv_header_fields_2_0_nt_minor1[] = {
    DBF(DBF_TYPE_UNSIGNED, H, phi_nt_boot_disk_sig, 4),
};
const std::size_t n_priv_header_fields_2_0_nt_minor1 = std::size(priv_header_fields_2_0_nt_minor1);

const db_field priv_header_fields_2_0_nt_minor2[] = {
    DBF(DBF_TYPE_GUID, H, phi_nt_diskset_id, 16),
    DBF(DBF_TYPE_GUID, H, phi_nt_new_diskset_id, 16),
};
const std::size_t n_priv_header_fields_2_0_nt_minor2 = std::size(priv_header_fields_2_0_nt_minor2);

const db_field priv_header_fields_2_0_nt_minor3[] = {
    DBF(DBF_TYPE_STRING, H, phi_move_dgid, 64),
};
const std::size_t n_priv_header_fields_2_0_nt_minor3 = std::size(priv_header_fields_2_0_nt_minor3);

namespace {

// The guard of each extension group: "major 2 and minor above N, or major 2
// or more". The second arm makes the minor number irrelevant.
bool has_nt_minor(const priv_header_info* hdr, unsigned above) {
  return (hdr->phi_version_major == 2 && hdr->phi_version_minor > above) ||
         hdr->phi_version_major >= 2;
}

struct ext_table {
  const db_field* tbl;
  const std::size_t* n;
  unsigned above;
};
const ext_table nt_extensions[] = {
    {priv_header_fields_2_0_nt_minor1, &n_priv_header_fields_2_0_nt_minor1, 9},
    {priv_header_fields_2_0_nt_minor2, &n_priv_header_fields_2_0_nt_minor2, 10},
    {priv_header_fields_2_0_nt_minor3, &n_priv_header_fields_2_0_nt_minor3, 11},
};

bool is_guid_text(const char* s) {
  voldguid_t g;
  return voldguid_from_string(&g, s) == 0;
}

// One check of a decoded field: the member (in the body of major 2 and in
// that of major 1), the result when it fails, and the test, which may clear
// the bytes after a name's terminator.
struct field_check {
  const char* name;
  std::size_t member;
  std::size_t member_1_2;
  int code;
  const char* reason;
  bool (*ok)(H& h);
};

bool in_len(voff_t v, voff_t low, const H& h) { return v >= low && v < h.phi_priv_len; }

// In the decoder's order: the names, then the ranges.
const field_check field_checks[] = {
    {"phi_diskid", offsetof(H, phi_diskid), offsetof(H, phi_diskid), VE_PRIV_FORMAT,
     "not a name", [](H& h) { return check_name(h.phi_diskid, 64) == 0; }},
    {"phi_hostid", offsetof(H, phi_hostid), offsetof(H, phi_hostid), VE_PRIV_FORMAT,
     "not a name", [](H& h) { return check_optional_name(h.phi_hostid, 64) == 0; }},
    {"phi_dgid", offsetof(H, phi_dgid), offsetof(H, phi_dgid), VE_PRIV_FORMAT, "not a name",
     [](H& h) { return check_optional_name(h.phi_dgid, 64) == 0; }},
    {"phi_hostid", offsetof(H, phi_hostid), offsetof(H, phi_hostid), VE_PRIV_FORMAT,
     "not a GUID (and the header is not shared)",
     [](H& h) {
       return (h.phi_flags & PHI_SHARED) != 0 || h.phi_hostid[0] == '\0' ||
              is_guid_text(h.phi_hostid);
     }},
    {"phi_dgid", offsetof(H, phi_dgid), offsetof(H, phi_dgid), VE_PRIV_FORMAT, "not a GUID",
     [](H& h) { return h.phi_dgid[0] == '\0' || is_guid_text(h.phi_dgid); }},
    {"phi_dg_name", offsetof(H, phi_dg_name), offsetof(H, phi_dg_name_1_2), VE_PRIV_FORMAT,
     "not a name", [](H& h) { return check_optional_name(h.phi_dg_name, 31) == 0; }},
    {"phi_priv_len", offsetof(H, phi_priv_len), offsetof(H, phi_priv_len), VE_PRIV_INVALID,
     "out of range",
     [](H& h) { return h.phi_priv_len >= 1 && h.phi_priv_len <= PRIV_MAX_LEN; }},
    {"phi_primary_header", offsetof(H, phi_primary_header), offsetof(H, phi_primary_header),
     VE_PRIV_INVALID, "outside the region",
     [](H& h) { return in_len(h.phi_primary_header, 0, h); }},
    {"phi_alt_header", offsetof(H, phi_alt_header), offsetof(H, phi_alt_header),
     VE_PRIV_INVALID, "outside the region", [](H& h) { return in_len(h.phi_alt_header, 1, h); }},
    {"phi_first_toc", offsetof(H, phi_first_toc), offsetof(H, phi_first_toc), VE_PRIV_INVALID,
     "outside the region", [](H& h) { return in_len(h.phi_first_toc, 0, h); }},
    {"phi_first_alt_toc", offsetof(H, phi_first_alt_toc), offsetof(H, phi_first_alt_toc),
     VE_PRIV_INVALID, "outside the region",
     [](H& h) { return in_len(h.phi_first_alt_toc, 1, h); }},
};

// The byte offset in the sector of `member`, stored in the body of the
// header's major version.
std::size_t stored_offset(const H& h, std::size_t member) {
  const bool v1 = h.phi_version_major == 1;
  const db_field* tbl = v1 ? priv_header_fields_1_2 : priv_header_fields_2_0;
  const std::size_t n = v1 ? n_priv_header_fields_1_2 : n_priv_header_fields_2_0;
  std::size_t at = PRIV_VERSION_OFFSET + 4;
  for (std::size_t i = 0; i < n; ++i) {
    if (tbl[i].dbf_offset == member) return at;
    at += tbl[i].dbf_storesize;
  }
  return 0;
}

priv_decode_fault fault_of(const H& h, const field_check& c) {
  return {c.code, c.name, stored_offset(h, h.phi_version_major == 1 ? c.member_1_2 : c.member),
          c.reason};
}

// Runs the checks in order; 0, or the result of the first that fails.
int check_fields(H* hdr, priv_decode_fault* fault) {
  for (const field_check& c : field_checks) {
    if (c.ok(*hdr)) continue;
    if (fault != nullptr) *fault = fault_of(*hdr, c);
    return c.code;
  }
  return VE_OK;
}

int fail(priv_decode_fault* fault, int code, const char* field, std::size_t offset,
         const char* reason) {
  if (fault != nullptr) *fault = {code, field, offset, reason};
  return code;
}

}  // namespace

std::uint64_t priv_header_checksum(const std::uint8_t* buf) {
  return region_checksum(buf, PRIV_HEADER_SIZE);
}

std::uint32_t priv_header_stored_checksum(const std::uint8_t* buf) {
  return get_be32(buf + PRIV_CHECKSUM_OFFSET);
}

void priv_header_seal(std::uint8_t* buf) {
  std::memcpy(buf, header_magic, PRIV_MAGIC_LEN);
  put_be32(buf + PRIV_CHECKSUM_OFFSET, static_cast<std::uint32_t>(priv_header_checksum(buf)));
}

int priv_unformat_header(priv_header_info* hdr, const std::uint8_t* buf, priv_decode_fault* fault) {
  const std::uint8_t* const lim = buf + PRIV_HEADER_SIZE;
  if (std::memcmp(buf, header_magic, PRIV_MAGIC_LEN) != 0)
    return fail(fault, VE_PRIV_FORMAT, "magic", 0, "bad magic");
  if (priv_header_stored_checksum(buf) != priv_header_checksum(buf))
    return fail(fault, VE_PRIV_FORMAT, "checksum", PRIV_CHECKSUM_OFFSET, "bad checksum");

  const std::uint8_t* p =
      dbf_unfmt_tbl(priv_version_fields, n_priv_version_fields, hdr, buf + PRIV_VERSION_OFFSET, lim);
  if (p == nullptr) return fail(fault, VE_PRIV_FORMAT, "phi_version", PRIV_VERSION_OFFSET, "");
  const unsigned major = hdr->phi_version_major;
  if (major == 0 || major > 4)
    return fail(fault, VE_PRIV_VERSION, "phi_version", PRIV_VERSION_OFFSET, "unknown major");
  if (major == 1) {
    p = dbf_unfmt_tbl(priv_header_fields_1_2, n_priv_header_fields_1_2, hdr, p, lim);
  } else {
    p = dbf_unfmt_tbl(priv_header_fields_2_0, n_priv_header_fields_2_0, hdr, p, lim);
  }
  // Cannot happen: the bodies fit the sector.
  if (p == nullptr) return fail(fault, VE_PRIV_FORMAT, "body", PRIV_VERSION_OFFSET + 4, "");

  if (major == 1) {
    std::memset(hdr->phi_dg_name, 0, sizeof hdr->phi_dg_name);
    std::memcpy(hdr->phi_dg_name, hdr->phi_dg_name_1_2, sizeof hdr->phi_dg_name_1_2);
  }
  hdr->phi_chunk_size = hdr->phi_atomic_iosize;
  hdr->phi_chunk_shift = 9;
  hdr->phi_sctr_shift = 9;

  for (const ext_table& ext : nt_extensions) {
    if (!has_nt_minor(hdr, ext.above)) continue;
    const std::uint8_t* q = dbf_unfmt_tbl(ext.tbl, *ext.n, hdr, p, lim);
    if (q == nullptr)
      return fail(fault, VE_PRIV_FORMAT, "extension", static_cast<std::size_t>(p - buf), "");
    p = q;
  }

  if (int res = check_fields(hdr, fault); res != VE_OK) return res;
  hdr->phi_next_seqno = hdr->phi_update_seqno;
  return VE_OK;
}

std::vector<priv_decode_fault> priv_header_field_faults(const priv_header_info& hdr) {
  H h = hdr;
  std::vector<priv_decode_fault> out;
  for (const field_check& c : field_checks) {
    if (c.ok(h)) continue;
    // One fault per field: a name that fails its own rule is not also a GUID.
    bool seen = false;
    for (const priv_decode_fault& f : out) seen |= std::strcmp(f.field, c.name) == 0;
    if (!seen) out.push_back(fault_of(h, c));
  }
  return out;
}

void priv_format_header(const priv_header_info* hdr, std::uint8_t* buf) {
  std::uint8_t* p =
      dbf_fmt_tbl(priv_version_fields, n_priv_version_fields, hdr, buf + PRIV_VERSION_OFFSET);
  p = dbf_fmt_tbl(priv_header_fields_2_0, n_priv_header_fields_2_0, hdr, p);
  if (hdr->phi_version_major >= 2) {
    for (const ext_table& ext : nt_extensions) p = dbf_fmt_tbl(ext.tbl, *ext.n, hdr, p);
  }
  priv_header_seal(buf);
}

int check_optional_name(char* name, std::size_t limit) {
  std::size_t i = 0;
  for (; i <= limit && name[i] != '\0'; ++i) {
    if (name[i] == '/') return -1;
  }
  if (i > limit) return -1;  // no terminator within `limit` characters
  for (std::size_t j = i + 1; j <= limit; ++j) name[j] = '\0';
  return 0;
}

int check_name(char* name, std::size_t limit) {
  if (name[0] == '\0' || name[0] == '.') return -1;
  return check_optional_name(name, limit);
}

void priv_update_header_start(priv_info* priv) {
  priv_header_info* hdr = priv->pri_header;
  hdr->phi_save_update_seqno = hdr->phi_update_seqno;
  hdr->phi_save_update_time = hdr->phi_update_time;
  if (hdr->phi_next_seqno.seqno_lo == 0xFFFFFFFFu) {
    hdr->phi_next_seqno.seqno_lo = 0;
    ++hdr->phi_next_seqno.seqno_hi;
  } else {
    ++hdr->phi_next_seqno.seqno_lo;
  }
  hdr->phi_update_seqno = hdr->phi_next_seqno;
  hdr->phi_update_time = static_cast<voldtime_t>(std::time(nullptr));
}

}  // namespace pd
