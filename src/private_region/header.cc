// Header codec: the field tables of the stored sector, the decoder's checks
// and the encoder.
#include "private_region/header.h"

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

int check_header_names(priv_header_info* hdr) {
  if (check_name(hdr->phi_diskid, 64) != 0) return VE_PRIV_FORMAT;
  if (check_optional_name(hdr->phi_hostid, 64) != 0) return VE_PRIV_FORMAT;
  if (check_optional_name(hdr->phi_dgid, 64) != 0) return VE_PRIV_FORMAT;
  if ((hdr->phi_flags & PHI_SHARED) == 0 && hdr->phi_hostid[0] != '\0' &&
      !is_guid_text(hdr->phi_hostid))
    return VE_PRIV_FORMAT;
  if (hdr->phi_dgid[0] != '\0' && !is_guid_text(hdr->phi_dgid)) return VE_PRIV_FORMAT;
  if (check_optional_name(hdr->phi_dg_name, 31) != 0) return VE_PRIV_FORMAT;
  return VE_OK;
}

int check_header_ranges(const priv_header_info* hdr) {
  const voff_t len = hdr->phi_priv_len;
  if (len < 1 || len > PRIV_MAX_LEN) return VE_PRIV_INVALID;
  if (hdr->phi_primary_header < 0 || hdr->phi_primary_header >= len) return VE_PRIV_INVALID;
  if (hdr->phi_alt_header < 1 || hdr->phi_alt_header >= len) return VE_PRIV_INVALID;
  if (hdr->phi_first_toc < 0 || hdr->phi_first_toc >= len) return VE_PRIV_INVALID;
  if (hdr->phi_first_alt_toc < 1 || hdr->phi_first_alt_toc >= len) return VE_PRIV_INVALID;
  return VE_OK;
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

int priv_unformat_header(priv_header_info* hdr, const std::uint8_t* buf) {
  const std::uint8_t* const lim = buf + PRIV_HEADER_SIZE;
  if (std::memcmp(buf, header_magic, PRIV_MAGIC_LEN) != 0) return VE_PRIV_FORMAT;
  if (priv_header_stored_checksum(buf) != priv_header_checksum(buf)) return VE_PRIV_FORMAT;

  const std::uint8_t* p =
      dbf_unfmt_tbl(priv_version_fields, n_priv_version_fields, hdr, buf + PRIV_VERSION_OFFSET, lim);
  if (p == nullptr) return VE_PRIV_FORMAT;
  const unsigned major = hdr->phi_version_major;
  if (major == 0 || major > 4) return VE_PRIV_VERSION;
  if (major == 1) {
    p = dbf_unfmt_tbl(priv_header_fields_1_2, n_priv_header_fields_1_2, hdr, p, lim);
  } else {
    p = dbf_unfmt_tbl(priv_header_fields_2_0, n_priv_header_fields_2_0, hdr, p, lim);
  }
  if (p == nullptr) return VE_PRIV_FORMAT;  // cannot happen: the bodies fit the sector

  if (major == 1) {
    std::memset(hdr->phi_dg_name, 0, sizeof hdr->phi_dg_name);
    std::memcpy(hdr->phi_dg_name, hdr->phi_dg_name_1_2, sizeof hdr->phi_dg_name_1_2);
  }
  hdr->phi_chunk_size = hdr->phi_atomic_iosize;
  hdr->phi_chunk_shift = 9;
  hdr->phi_sctr_shift = 9;

  for (const ext_table& ext : nt_extensions) {
    if (!has_nt_minor(hdr, ext.above)) continue;
    p = dbf_unfmt_tbl(ext.tbl, *ext.n, hdr, p, lim);
    if (p == nullptr) return VE_PRIV_FORMAT;
  }

  if (int res = check_header_names(hdr); res != VE_OK) return res;
  if (int res = check_header_ranges(hdr); res != VE_OK) return res;
  hdr->phi_next_seqno = hdr->phi_update_seqno;
  return VE_OK;
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
