// The member directory of every record kind and the text values of members.
#include "privbuild/config_fields.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <vector>

#include "codec/integers.h"
#include "codec/text_forms.h"
#include "config_db/records.h"
#include "privbuild/description.h"

namespace pd {

namespace {

#define M(m) member_ref{#m, offsetof(S, m)}
#define MA(m, i) member_ref{#m "[" #i "]", offsetof(S, m[i])}

#define S volrec
const member_ref volrec_members[] = {
    M(v_rid), M(v_name), MA(v_tutil, 0), MA(v_tutil, 1), MA(v_tutil, 2), M(v_use_type),
    M(v_fstype), M(v_comment), MA(v_putil, 0), MA(v_putil, 1), MA(v_putil, 2), M(v_state),
    M(v_start_opts), M(v_read_pol), M(v_minor), M(v_uid), M(v_gid), M(v_mode), M(v_pflag),
    M(v_pl_num), M(v_update_tid), M(v_detach_tid), M(v_len), M(v_log_len), M(v_nt_part_type),
    M(v_nt_vol_guid), M(v_pref_plex_rid), M(v_log_rid), M(v_vset_rid), M(v_vset_index),
    M(v_recover_checkpoint), M(v_recover_seqno), M(v_nt_mount_name), M(v_nm_site),
    M(v_nm_flags), M(v_dco_rid), M(v_pflag2), M(v_pflag3), M(v_cache_rid), M(v_reserved1),
};
#undef S

#define S plexrec
const member_ref plexrec_members[] = {
    M(pl_rid), M(pl_name), MA(pl_tutil, 0), MA(pl_tutil, 1), MA(pl_tutil, 2), M(pl_state),
    M(pl_layout), M(pl_pflag), M(pl_sd_num), M(pl_update_tid), M(pl_detach_tid), M(pl_vol_rid),
    M(pl_log_sd_rid), M(pl_st_width), M(pl_ncolumn), M(pl_snap_rid), M(pl_snap_offset),
    M(pl_guid), M(pl_dcoplex_rid), M(pl_vsssnap_rid), M(pl_vsssnap_flags), M(pl_comment),
    M(pl_info), M(pl_mapguid), M(pl_reserved1),
};
#undef S

#define S sdrec
const member_ref sdrec_members[] = {
    M(sd_rid), M(sd_name), MA(sd_tutil, 0), MA(sd_tutil, 1), MA(sd_tutil, 2), M(sd_comment),
    MA(sd_putil, 0), MA(sd_putil, 1), MA(sd_putil, 2), M(sd_pflag), M(sd_update_tid),
    M(sd_dm_offset), M(sd_pl_offset), M(sd_len), M(sd_plex_rid), M(sd_dm_rid), M(sd_column),
    M(sd_detach_tid), M(sd_minor), M(sd_nt_hidden_sectors), M(sd_orig_dm_rid),
    M(sd_orig_dm_offset), M(sd_reserved1),
};
#undef S

#define S dmrec
const member_ref dmrec_members[] = {
    M(dm_rid), M(dm_name), MA(dm_tutil, 0), MA(dm_tutil, 1), MA(dm_tutil, 2), M(dm_diskid),
    M(dm_nt_last_diskset_id), M(dm_nt_persistent_name), M(dm_pflag), M(dm_update_tid),
    M(dm_app_value), M(dm_comment), M(dm_timeout), M(dm_last_da_name), M(dm_move_dgid),
    M(dm_move_tid), M(dm_stpool_rid), M(dm_info), M(dm_guid), M(dm_cds_flags),
    M(dm_cds_alignment), M(dm_reserved1),
};
#undef S

#define S dgrec
const member_ref dgrec_members[] = {
    M(dg_rid), M(dg_real_name), MA(dg_tutil, 0), MA(dg_tutil, 1), MA(dg_tutil, 2),
    M(dg_tagname), M(dg_dgid), M(dg_nt_diskset_id), M(dg_pflag), M(dg_update_tid),
    M(dg_nconfig), M(dg_nlog), M(dg_base_minor), M(dg_version), M(dg_comment), M(dg_policy),
    M(dg_move_dgid), M(dg_move_tid), M(dg_io_fence), M(dg_cds_flags), M(dg_dfpolicy),
    M(dg_reserved1),
};
#undef S

#define S darec
const member_ref darec_members[] = {
    M(da_rid), M(da_name), M(da_comment), M(da_type), M(da_info), M(da_pflag), M(da_update_tid),
};
#undef S

#define S rvolrec
const member_ref rvolrec_members[] = {
    M(rv_rid), M(rv_name), MA(rv_tutil, 0), MA(rv_tutil, 1), MA(rv_tutil, 2), M(rv_comment),
    MA(rv_putil, 0), MA(rv_putil, 1), MA(rv_putil, 2), M(rv_state), M(rv_pflag),
    M(rv_update_tid), M(rv_minor), M(rv_rlink_num), M(rv_datavol_num), M(rv_srl_rid),
    M(rv_srl_name), M(rv_primary), M(rv_checkpoint_seqno), M(rv_detach_tid), M(rv_logvol_rid),
};
#undef S

#define S reprec
const member_ref reprec_members[] = {
    M(rp_rid), M(rp_name), MA(rp_tutil, 0), MA(rp_tutil, 1), MA(rp_tutil, 2), M(rp_comment),
    MA(rp_putil, 0), MA(rp_putil, 1), MA(rp_putil, 2), M(rp_state), M(rp_pflag),
    M(rp_update_tid), M(rp_rvol_rid), M(rp_remote_host), M(rp_local_host), M(rp_remote_dg),
    M(rp_remote_dgid), M(rp_remote_rlink), M(rp_remote_rlink_rid), M(rp_protocol),
    M(rp_synchronous), M(rp_latency_high_mark), M(rp_latency_low_mark), M(rp_srl_protect),
    M(rp_packet_size), M(rp_timeout), M(rp_checkpoint_seqno), M(rp_max_outstanding),
    M(rp_compression), M(rp_net_address), M(rp_local_address), M(rp_bandwidth_limit),
    M(rp_net_address6), M(rp_local_address6),
};
#undef S

#define S dcorec
const member_ref dcorec_members[] = {
    M(dco_rid), M(dco_name), MA(dco_tutil, 0), MA(dco_tutil, 1), MA(dco_tutil, 2),
    M(dco_comment), MA(dco_putil, 0), MA(dco_putil, 1), MA(dco_putil, 2), M(dco_state),
    M(dco_pflag), M(dco_update_tid), M(dco_log_name), M(dco_log_vol), M(dco_parent_vol),
    M(dco_drl_len), M(dco_nmaps), M(dco_regsz), M(dco_version), M(dco_reserved1),
};
#undef S

#define S snaprec
const member_ref snaprec_members[] = {
    M(sp_rid), M(sp_name), MA(sp_tutil, 0), MA(sp_tutil, 1), MA(sp_tutil, 2), M(sp_comment),
    MA(sp_putil, 0), MA(sp_putil, 1), MA(sp_putil, 2), M(sp_pflag), M(sp_pflag2),
    M(sp_update_tid), M(sp_dco_rid), M(sp_vol_rid), M(sp_peer_rid), M(sp_map_index),
    M(sp_snap_tid), M(sp_guid), M(sp_vol_guid), M(sp_snap_volguid), M(sp_plex_guid),
    M(sp_snpt_rid), M(sp_snpt_name), M(sp_link_state), M(sp_link_rid), M(sp_link_offset),
    M(sp_reserved1),
};
#undef S

#define S stpoolrec
const member_ref stpoolrec_members[] = {
    M(stp_rid), M(stp_name), MA(stp_tutil, 0), MA(stp_tutil, 1), MA(stp_tutil, 2),
    M(stp_comment), MA(stp_putil, 0), MA(stp_putil, 1), MA(stp_putil, 2), M(stp_pflag),
    M(stp_update_tid), M(stp_policy), M(stp_autogrow), M(stp_selfsufficient), M(stp_dm_num),
    M(stp_vol_num), M(stp_guid), M(stp_reserved1),
};
#undef S

#define S inforec
const member_ref inforec_members[] = {
    M(inf_rid), M(inf_name), MA(inf_tutil, 0), MA(inf_tutil, 1), MA(inf_tutil, 2),
    M(inf_comment), M(inf_pflag), M(inf_update_tid), M(inf_parent_rid), M(inf_kind),
    M(inf_version), M(inf_value), M(inf_guid), M(inf_reserved1),
};
#undef S

#define S cacherec
const member_ref cacherec_members[] = {
    M(cache_rid), M(cache_name), MA(cache_tutil, 0), MA(cache_tutil, 1), MA(cache_tutil, 2),
    M(cache_comment), MA(cache_putil, 0), MA(cache_putil, 1), MA(cache_putil, 2),
    M(cache_state), M(cache_pflag), M(cache_update_tid), M(cache_vol_rid), M(cache_minor),
    M(cache_len), M(cache_region_size), M(cache_highwater), M(cache_autogrow_size),
    M(cache_maxgrow), M(cache_autogrow), M(cache_nsnaps), M(cache_uid), M(cache_gid),
    M(cache_mode), M(cache_detach_tid), M(cache_iosize), M(cache_mapsize), M(cache_guid),
    M(cache_svm_rid), M(cache_version), M(cache_reserved1),
};
#undef S

#define S vsetrec
const member_ref vsetrec_members[] = {
    M(vset_rid), M(vset_name), MA(vset_tutil, 0), MA(vset_tutil, 1), MA(vset_tutil, 2),
    M(vset_comment), MA(vset_putil, 0), MA(vset_putil, 1), MA(vset_putil, 2), M(vset_state),
    M(vset_use_type), M(vset_pflag), M(vset_update_tid), M(vset_minor), M(vset_vol_num),
    M(vset_uid), M(vset_gid), M(vset_mode), M(vset_len), M(vset_detach_tid), M(vset_guid),
    M(vset_svm_rid), M(vset_rvol_rid), M(vset_reserved1),
};
#undef S

#define S linksetrec
const member_ref linksetrec_members[] = {
    M(ls_rid), M(ls_name), MA(ls_tutil, 0), MA(ls_tutil, 1), MA(ls_tutil, 2), M(ls_comment),
    MA(ls_putil, 0), MA(ls_putil, 1), MA(ls_putil, 2), M(ls_state), M(ls_pflag),
    M(ls_update_tid), M(ls_src_rid), M(ls_dst_rid), M(ls_src_dco_rid), M(ls_dst_dco_rid),
    M(ls_map_index), M(ls_sync_tid), M(ls_guid), M(ls_src_volguid), M(ls_dst_volguid),
    M(ls_reserved1),
};
#undef S

#define S exportrec
const member_ref exportrec_members[] = {
    M(ex_rid), M(ex_name), MA(ex_tutil, 0), MA(ex_tutil, 1), MA(ex_tutil, 2), M(ex_comment),
    M(ex_pflag), M(ex_update_tid), M(ex_host), M(ex_obj_rid), M(ex_obj_name), M(ex_mode),
    M(ex_reserved1),
};
#undef S

#define S siterec
const member_ref siterec_members[] = {
    M(site_rid), M(site_name), MA(site_tutil, 0), MA(site_tutil, 1), MA(site_tutil, 2),
    M(site_comment), MA(site_putil, 0), MA(site_putil, 1), MA(site_putil, 2), M(site_pflag),
    M(site_update_tid), M(site_guid), M(site_state), M(site_dm_num), M(site_reserved1),
};
#undef S

}  // namespace

const record_kind record_kinds[] = {
    {"volume", "vol", "v_", 0x61, volrec_members, std::size(volrec_members)},
    {"plex", "pl", "pl_", 0x42, plexrec_members, std::size(plexrec_members)},
    {"subdisk", "sd", "sd_", 0x43, sdrec_members, std::size(sdrec_members)},
    {"disk", "dm", "dm_", 0x44, dmrec_members, std::size(dmrec_members)},
    {"group", "dg", "dg_", 0x45, dgrec_members, std::size(dgrec_members)},
    {"diskaccess", "da", "da_", 0x86, darec_members, std::size(darec_members)},
    {"rvol", "rv", "rv_", 0x57, rvolrec_members, std::size(rvolrec_members)},
    {"rlink", "rep", "rp_", 0x58, reprec_members, std::size(reprec_members)},
    {"dco", "dco", "dco_", 0x69, dcorec_members, std::size(dcorec_members)},
    {"snapshot", "snap", "sp_", 0x6A, snaprec_members, std::size(snaprec_members)},
    {"stpool", "stp", "stp_", 0x3B, stpoolrec_members, std::size(stpoolrec_members)},
    {"info", "inf", "inf_", 0x3C, inforec_members, std::size(inforec_members)},
    {"cache", "cache", "cache_", 0x3D, cacherec_members, std::size(cacherec_members)},
    {"vset", "vset", "vset_", 0x3E, vsetrec_members, std::size(vsetrec_members)},
    {"linkset", "ls", "ls_", 0x231, linksetrec_members, std::size(linksetrec_members)},
    {"export", "ex", "ex_", 0x232, exportrec_members, std::size(exportrec_members)},
    {"site", "site", "site_", 0x233, siterec_members, std::size(siterec_members)},
};
const std::size_t n_record_kinds = std::size(record_kinds);

#undef M
#undef MA

const record_kind* find_record_kind(const std::string& word) {
  for (const record_kind& k : record_kinds) {
    if (word == k.keyword || word == k.alias) return &k;
  }
  return nullptr;
}

const record_kind* record_kind_of(const rec2field* r2f) {
  switch (r2f->type) {
    case 0x211: case 0x231: return find_record_kind("linkset");
    case 0x232: return find_record_kind("export");
    case 0x213: case 0x233: return find_record_kind("site");
    default: break;
  }
  std::uint32_t kind = r2f->type & RTYPE_KIND_MASK;
  return kind >= 1 && kind <= 14 ? &record_kinds[kind - 1] : nullptr;
}

namespace {

// "tutil1" -> "tutil[1]"
std::string bracket_index(const std::string& name) {
  if (name.empty() || name.back() < '0' || name.back() > '9') return name;
  std::size_t i = name.size();
  while (i > 0 && name[i - 1] >= '0' && name[i - 1] <= '9') --i;
  return name.substr(0, i) + "[" + name.substr(i) + "]";
}

}  // namespace

const member_ref* find_member(const record_kind* k, const std::string& name) {
  const std::string candidates[] = {name, k->prefix + name, bracket_index(name),
                                    k->prefix + bracket_index(name)};
  for (const std::string& c : candidates) {
    for (std::size_t i = 0; i < k->nmembers; ++i) {
      if (c == k->members[i].name) return &k->members[i];
    }
  }
  // Every directory lists the record id first and the name second (the
  // disk group's name member is dg_real_name).
  if (name == "name") return &k->members[1];
  return nullptr;
}

bool find_field(const rec2field* r2f, std::size_t offset, const db_field** f,
                const r2f_group** g) {
  for (const r2f_group& grp : r2f->r2f_tbls) {
    if (grp.nflds == 0) break;
    for (std::size_t i = 0; i < grp.nflds; ++i) {
      if (grp.ftbl[i].dbf_offset == offset) {
        *f = &grp.ftbl[i];
        *g = &grp;
        return true;
      }
    }
  }
  return false;
}

namespace {

bool parse_number(const std::string& text, std::uint64_t* v) {
  unsigned long long u = 0;
  long long s = 0;
  if (parse_uint(text, &u)) {
    *v = u;
    return true;
  }
  if (parse_int(text, &s)) {
    *v = static_cast<std::uint64_t>(s);
    return true;
  }
  return false;
}

bool parse_seqno(const std::string& text, volseqno_t* s) {
  std::uint64_t hi = 0, lo = 0;
  std::size_t dot = text.find('.');
  if (dot == std::string::npos) {
    if (!parse_number(text, &lo)) return false;
    hi = lo >> 32;
    lo &= 0xFFFFFFFFu;
  } else if (!parse_number(text.substr(0, dot), &hi) || !parse_number(text.substr(dot + 1), &lo) ||
             hi > 0xFFFFFFFFu || lo > 0xFFFFFFFFu) {
    return false;
  }
  s->seqno_hi = static_cast<std::uint32_t>(hi);
  s->seqno_lo = static_cast<std::uint32_t>(lo);
  return true;
}

bool parse_ipv4(const std::string& text, std::uint32_t* addr) {
  std::uint64_t parts[4];
  std::size_t start = 0;
  for (int i = 0; i < 4; ++i) {
    std::size_t end = i == 3 ? text.size() : text.find('.', start);
    if (end == std::string::npos || !parse_number(text.substr(start, end - start), &parts[i]) ||
        parts[i] > 255) {
      return false;
    }
    start = end + 1;
  }
  *addr = static_cast<std::uint32_t>((parts[0] << 24) | (parts[1] << 16) | (parts[2] << 8) |
                                     parts[3]);
  return true;
}

// "PORT:ADDRESS" -> port and the address text.
bool split_port(const std::string& text, std::uint16_t* port, std::string* addr) {
  std::size_t colon = text.find(':');
  std::uint64_t p = 0;
  if (colon == std::string::npos || !parse_number(text.substr(0, colon), &p) || p > 0xFFFF) {
    return false;
  }
  *port = static_cast<std::uint16_t>(p);
  *addr = text.substr(colon + 1);
  return true;
}

bool set_portinfo(void* m, const std::string& text) {
  PORTINFO pi;
  std::memset(&pi, 0, sizeof pi);
  std::string addr;
  std::uint32_t v4 = 0;
  std::uint64_t n = 0;
  if (!split_port(text, &pi.portno, &addr)) return false;
  if (parse_ipv4(addr, &v4)) {
    pi.ipaddress = v4;
  } else if (parse_number(addr, &n)) {
    pi.ipaddress = n;
  } else {
    return false;
  }
  std::memcpy(m, &pi, sizeof pi);
  return true;
}

bool set_portinfo6(void* m, const std::string& text) {
  PORTINFO6 pi;
  std::memset(&pi, 0, sizeof pi);
  std::string addr;
  std::uint32_t v4 = 0;
  std::vector<unsigned char> raw;
  if (!split_port(text, &pi.portno, &addr)) return false;
  if (parse_ipv4(addr, &v4)) {
    pi.ipaddress.family = 2;
    pi.ipaddress.addr.words[0] = v4;
  } else if (parse_hex_bytes(addr, &raw) && raw.size() == 16) {
    pi.ipaddress.family = 10;
    std::memcpy(pi.ipaddress.addr.bytes, raw.data(), 16);
  } else {
    return false;
  }
  std::memcpy(m, &pi, sizeof pi);
  return true;
}

bool set_wide(void* m, const std::string& text) {
  std::vector<wchar_t> w;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 5 < text.size() && text[i + 1] == 'u') {
      std::uint64_t c = 0;
      if (!parse_number("0x" + text.substr(i + 2, 4), &c)) return false;
      w.push_back(static_cast<wchar_t>(c));
      i += 5;
    } else {
      w.push_back(static_cast<wchar_t>(static_cast<unsigned char>(text[i])));
    }
  }
  wchar_t* old;
  std::memcpy(&old, m, sizeof old);
  std::free(old);
  wchar_t* s = nullptr;
  if (!w.empty()) {
    s = static_cast<wchar_t*>(std::calloc(w.size() + 1, sizeof(wchar_t)));
    if (s == nullptr) return false;
    std::wmemcpy(s, w.data(), w.size());
  }
  std::memcpy(m, &s, sizeof s);
  return true;
}

bool set_vbyte(void* m, const std::string& text) {
  std::vector<unsigned char> data;
  bool raw = text.rfind("raw:", 0) == 0;
  if (!parse_hex_bytes(raw ? text.substr(4) : text, &data)) return false;
  std::vector<unsigned char> s;
  if (raw) {
    s = data;
    std::size_t prefix = 0;
    std::uint32_t len = 0;
    if (!dbf_vbyte_length(s.data(), s.data() + s.size(), &prefix, &len) ||
        prefix + len > s.size()) {
      return false;
    }
  } else {
    std::size_t n = data.size();
    do {  // base-128 digits, least significant first, the last with bit 7
      unsigned char digit = n & 0x7F;
      n >>= 7;
      s.push_back(n == 0 ? static_cast<unsigned char>(digit | 0x80) : digit);
    } while (n != 0);
    s.insert(s.end(), data.begin(), data.end());
  }
  std::uint8_t* old;
  std::memcpy(&old, m, sizeof old);
  std::free(old);
  auto* p = static_cast<std::uint8_t*>(std::malloc(s.size()));
  if (p == nullptr) return false;
  std::memcpy(p, s.data(), s.size());
  std::memcpy(m, &p, sizeof p);
  return true;
}

bool set_text(void* m, std::size_t room, const std::string& text) {
  if (text.size() + 1 > room) return false;
  std::memset(m, 0, room);
  std::memcpy(m, text.data(), text.size());
  return true;
}

bool set_guid(void* m, const std::string& text) {
  std::string t = text;
  if (t.size() >= 2 && t.front() == '{' && t.back() == '}') t = t.substr(1, t.size() - 2);
  voldguid_t g{};
  if (voldguid_from_string(&g, t.c_str()) != 0) return false;
  std::memcpy(m, &g, sizeof g);
  return true;
}

}  // namespace

bool set_field_value(const db_field& f, void* sp, const std::string& text, std::string* error) {
  auto* m = static_cast<std::uint8_t*>(sp) + f.dbf_offset;
  std::uint64_t v = 0;
  bool ok = false;
  switch (f.dbf_type) {
    case DBF_TYPE_SEQNO:
    case DBF_TYPE_RID:
    case DBF_TYPE_VRID: {
      volseqno_t s;
      ok = parse_seqno(text, &s);
      if (ok) std::memcpy(m, &s, sizeof s);
      break;
    }
    case DBF_TYPE_UCHAR:
    case DBF_TYPE_USHORT:
    case DBF_TYPE_UNSIGNED:
    case DBF_TYPE_VUNSIGNED:
      ok = parse_number(text, &v);
      if (ok) fputunsigned(v, f.dbf_tagsize, m);
      break;
    case DBF_TYPE_ULONGLONG:
      ok = parse_number(text, &v);
      if (ok) fputulonglong(v, f.dbf_tagsize, m);
      break;
    case DBF_TYPE_SCHAR:
    case DBF_TYPE_SSHORT:
    case DBF_TYPE_SIGNED:
    case DBF_TYPE_VSIGNED:
      ok = parse_number(text, &v);
      if (ok) fputsigned(static_cast<std::int64_t>(v), f.dbf_tagsize, m);
      break;
    case DBF_TYPE_VOFF:
    case DBF_TYPE_VOFF_512:
    case DBF_TYPE_VVOFF:
    case DBF_TYPE_VVOFF_512:
      ok = parse_number(text, &v);
      if (ok) std::memcpy(m, &v, sizeof v);
      break;
    case DBF_TYPE_STRING:
    case DBF_TYPE_VSTRING:
    case DBF_TYPE_GUIDMEMSTRING:
      ok = set_text(m, f.dbf_tagsize, text);
      break;
    case DBF_TYPE_GUID:
    case DBF_TYPE_VGUID:
    case DBF_TYPE_GUIDSTORESTRING:
      ok = set_guid(m, text);
      break;
    case DBF_TYPE_PORTINFO: ok = set_portinfo(m, text); break;
    case DBF_TYPE_PORTINFO6: ok = set_portinfo6(m, text); break;
    case DBF_TYPE_AWSTRING: ok = set_wide(m, text); break;
    case DBF_TYPE_VBYTE: ok = set_vbyte(m, text); break;
  }
  if (!ok) *error = "bad value \"" + text + "\"";
  return ok;
}

}  // namespace pd
