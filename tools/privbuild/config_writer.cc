// The `config` content generator.
//
// The copy is written through the system's own encoders: the database
// header with voldbsup_format_header, record bodies with
// voldbsup_format_record (or voldbf_fmt_tbl for entries the decoder's
// lookup never chooses), blocks and fragments with the store's framing
// (ddb_format_block, ddb_record_blocks, ddb_fragment_offset). Order: the
// geometry of `database`, unused blocks, records and raw blocks in file
// order, the header (so that its counts can follow the records), pokes.
#include "privbuild/config_writer.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <sstream>

#include "codec/integers.h"
#include "config_db/block_store.h"
#include "config_db/record_field_macros.h"
#include "config_db/record_layouts.h"
#include "config_db/records.h"
#include "privbuild/builder.h"
#include "privbuild/config_fields.h"
#include "privbuild/description.h"

namespace pd {

namespace {

struct store_deleter {
  void operator()(dbase* db) const { ddb_free(db); }
};

struct named_field {
  const char* name;
  db_field field;
};

#define S voldb_info
#define SUM(m) \
  named_field{#m, F_U4(vdbi_config_sum.m)}, named_field{"pending." #m, F_U4(vdbi_pending_sum.m)}
const named_field header_members[] = {
    {"vdbi_commit_state", F_U2(vdbi_commit_state)},
    {"vdbi_version_major", F_U2(vdbi_version_major)},
    {"vdbi_version_minor", F_U2(vdbi_version_minor)},
    {"vdbi_dg_name", F_STR(vdbi_dg_name, 31)},
    {"vdbi_dg_name_1_2", F_STR(vdbi_dg_name_1_2, 14)},
    {"vdbi_dg_id", F_STR(vdbi_dg_id, 64)},
    {"vdbi_config_tid", F_SEQ(vdbi_config_tid)},
    {"vdbi_pending_tid", F_SEQ(vdbi_pending_tid)},
    {"vdbi_nt_update_time", F_U8(vdbi_nt_update_time)},
    {"vdbi_pending_major", F_U2(vdbi_pending_major)},
    {"vdbi_pending_minor", F_U2(vdbi_pending_minor)},
    {"vdbi_prev_tag", F_U4(vdbi_prev_tag)},
    {"vdbi_cur_tag", F_U4(vdbi_cur_tag)},
    SUM(vs_v_cnt), SUM(vs_pl_cnt), SUM(vs_sd_cnt), SUM(vs_dm_cnt), SUM(vs_da_cnt),
    SUM(vs_reserved_1), SUM(vs_reserved_2), SUM(vs_rv_cnt), SUM(vs_rp_cnt), SUM(vs_dco_cnt),
    SUM(vs_sp_cnt), SUM(vs_stpool_cnt), SUM(vs_info_cnt), SUM(vs_vset_cnt), SUM(vs_cache_cnt),
    SUM(vs_export_cnt),
};
#undef SUM
#undef S

// Friendly names of header members.
const std::pair<const char*, const char*> header_aliases[] = {
    {"state", "vdbi_commit_state"},      {"dgid", "vdbi_dg_id"},
    {"config-tid", "vdbi_config_tid"},   {"pending-tid", "vdbi_pending_tid"},
    {"time", "vdbi_nt_update_time"},     {"prev-tag", "vdbi_prev_tag"},
    {"cur-tag", "vdbi_cur_tag"},
};

// The record counter each base kind adds to (vs_v_cnt ... vs_vset_cnt).
unsigned long* kind_counter(vol_summary& s, std::uint32_t kind) {
  switch (kind) {
    case REC_TYPE_VOL: return &s.vs_v_cnt;
    case REC_TYPE_PLEX: return &s.vs_pl_cnt;
    case REC_TYPE_SD: return &s.vs_sd_cnt;
    case REC_TYPE_DM: return &s.vs_dm_cnt;
    case REC_TYPE_DA: return &s.vs_da_cnt;
    case REC_TYPE_RVOL: return &s.vs_rv_cnt;
    case REC_TYPE_REP: return &s.vs_rp_cnt;
    case REC_TYPE_DCO: return &s.vs_dco_cnt;
    case REC_TYPE_SNAP: return &s.vs_sp_cnt;
    case REC_TYPE_STPOOL: return &s.vs_stpool_cnt;
    case REC_TYPE_INFO: return &s.vs_info_cnt;
    case REC_TYPE_CACHE: return &s.vs_cache_cnt;
    case REC_TYPE_VSET: return &s.vs_vset_cnt;
    default: return nullptr;
  }
}

class config_writer {
 public:
  config_writer(std::size_t copy_bytes, std::string* error)
      : out_(copy_bytes, 0), db_(ddb_alloc(nullptr)), error_(error) {}

  bool run(const std::vector<desc_statement>& sts);
  std::vector<std::uint8_t>& bytes() { return out_; }

 private:
  bool fail(const desc_statement& st, const std::string& what) {
    *error_ = "config line " + std::to_string(st.line) + ": " + what;
    return false;
  }
  bool number(const desc_statement& st, attr_reader& a, const char* name, std::uint64_t* v);
  bool geometry(const desc_statement& st);
  void unused_blocks();
  bool record(const desc_statement& st, const record_kind* kind);
  bool set_fields(const desc_statement& st, attr_reader& a, const rec2field* r2f,
                  const record_kind* kind, void* sp, std::uint32_t* flags);
  bool encode(const rec2field* r2f, std::uint32_t type, const void* sp,
              std::vector<std::uint8_t>* body);
  bool lay_out(const desc_statement& st, std::size_t at, unsigned long ref,
               const db_record& hdr, std::size_t nfrag, const std::vector<std::uint8_t>& body,
               const std::vector<std::size_t>& skip);
  bool raw_block(const desc_statement& st);
  bool header(const std::vector<desc_statement>& sts);
  bool header_attrs(const desc_statement& st, voldb_info* vi);
  bool poke(const desc_statement& st);
  std::uint8_t* block_ptr(std::size_t blkno) {
    return out_.data() + blkno * db_->ddb_blksize;
  }
  bool block_fits(std::size_t blkno) const {
    return blkno < db_->ddb_nblocks && (blkno + 1) * db_->ddb_blksize <= out_.size();
  }

  std::vector<std::uint8_t> out_;
  std::unique_ptr<dbase, store_deleter> db_;
  std::string* error_;
  bool zero_unused_ = false;
  bool auto_counts_ = true;
  std::size_t next_block_ = 0;
  unsigned long next_ref_ = 1;
  vol_summary counts_{};
};

bool config_writer::number(const desc_statement& st, attr_reader& a, const char* name,
                           std::uint64_t* v) {
  const std::string* s = a.get(name);
  if (s == nullptr) return true;
  unsigned long long u = 0;
  if (!parse_uint(*s, &u)) return fail(st, std::string("bad ") + name + " \"" + *s + "\"");
  *v = u;
  return true;
}

// The geometry attributes of `database` statements.
bool config_writer::geometry(const desc_statement& st) {
  attr_reader a(st);
  std::uint64_t blksize = db_->ddb_blksize, hdrsize = db_->ddb_hdrsize, nblocks = db_->ddb_nblocks;
  if (!number(st, a, "blksize", &blksize) || !number(st, a, "hdrsize", &hdrsize) ||
      !number(st, a, "nblocks", &nblocks)) {
    return false;
  }
  if (blksize < 32 || blksize > 65536) return fail(st, "blksize must lie in 32..65536");
  db_->ddb_blksize = blksize;
  db_->ddb_hdrsize = hdrsize;
  db_->ddb_nblocks = nblocks;
  for (const std::string& w : st.words) {
    if (w == "compact") {
      db_->ddb_flag |= DDB_COMPACT;
    } else {
      return fail(st, "unknown word " + w);
    }
  }
  if (const std::string* u = a.get("unused")) {
    if (*u != "zero" && *u != "vblk") return fail(st, "unused is zero or vblk");
    zero_unused_ = *u == "zero";
  }
  return true;
}

void config_writer::unused_blocks() {
  std::size_t first = db_->ddb_hdrsize / db_->ddb_blksize;
  next_block_ = first;
  if (zero_unused_) return;
  for (std::size_t i = first; block_fits(i); ++i) {
    ddb_format_block(db_.get(), block_ptr(i), i, 0, 0, 0, nullptr);
  }
}

bool config_writer::set_fields(const desc_statement& st, attr_reader& a, const rec2field* r2f,
                               const record_kind* kind, void* sp, std::uint32_t* flags) {
  static const char* const record_attrs[] = {"type", "entry", "ref", "at", "rflags", "size",
                                             "nfrag", "skip", "body", "add-flags"};
  for (const auto& [name, value] : st.attrs) {
    if (std::find(std::begin(record_attrs), std::end(record_attrs), name) !=
        std::end(record_attrs)) {
      continue;
    }
    a.get(name);
    const member_ref* m = find_member(kind, name);
    if (m == nullptr) return fail(st, "no member " + name + " in " + kind->keyword + " records");
    const db_field* f = nullptr;
    const r2f_group* g = nullptr;
    if (!find_field(r2f, m->offset, &f, &g)) {
      std::ostringstream why;
      why << "records of type 0x" << std::hex << r2f->type << " do not store " << m->name;
      return fail(st, why.str());
    }
    std::string err;
    if (!set_field_value(*f, sp, value, &err)) return fail(st, m->name + std::string(": ") + err);
    if (g->flagmask != 0 && g->flagvalue != 0) *flags |= g->flagvalue;
  }
  return true;
}

bool config_writer::encode(const rec2field* r2f, std::uint32_t type, const void* sp,
                           std::vector<std::uint8_t>* body) {
  if (r2f == find_rec2field(type)) {
    db_record r{};
    r.dbr_type = type;
    if (voldbsup_format_record(db_.get(), &r, nullptr, 0, 0, sp) != 0) return false;
    body->resize(r.dbr_size);
    int err = voldbsup_format_record(db_.get(), &r, body->data(), 0, r.dbr_size, sp);
    voldbsup_format_cleanup_record(db_.get(), &r);
    return err == 0;
  }
  // An entry the decoder's 8-bit lookup never picks: its own tables.
  std::size_t ext = (type & RTYPE_EXTENDED) ? 2 : 0;
  bool counted = static_cast<std::int32_t>(type) < 0 || type > 0xFFFF;
  body->assign(ext + voldbf_tblsize(r2f, type, sp) - (counted ? 2 : 0), 0);
  std::uint8_t* p = body->data();
  if (ext) put_be16(p, static_cast<std::uint16_t>(type >> 16));
  voldbf_fmt_tbl(r2f, type, sp, p + ext);
  return true;
}

bool config_writer::lay_out(const desc_statement& st, std::size_t at, unsigned long ref,
                            const db_record& hdr, std::size_t nfrag,
                            const std::vector<std::uint8_t>& body,
                            const std::vector<std::size_t>& skip) {
  std::size_t n = ddb_record_blocks(db_.get(), body.size());
  for (std::size_t f = 0; f < n; ++f) {
    if (!block_fits(at + f)) return fail(st, "the record runs past the copy");
    if (std::find(skip.begin(), skip.end(), f) != skip.end()) continue;
    std::uint8_t* blk = block_ptr(at + f);
    std::memset(blk, 0, db_->ddb_blksize);
    std::uint8_t* p = ddb_format_block(db_.get(), blk, at + f, ref, f, nfrag, &hdr);
    std::size_t off = ddb_fragment_offset(db_.get(), f);
    std::size_t k = std::min(ddb_fragment_room(db_.get(), f), body.size() - off);
    if (k > 0) std::memcpy(p, body.data() + off, k);
  }
  next_block_ = std::max(next_block_, at + n);
  return true;
}

bool config_writer::record(const desc_statement& st, const record_kind* kind) {
  attr_reader a(st);
  std::uint64_t type = kind ? kind->default_type : 0, entry = ~0ull, ref = next_ref_++,
                at = next_block_, rflags = 0, add = 0;
  bool explicit_type = a.has("type");
  if (!number(st, a, "type", &type) || !number(st, a, "entry", &entry) ||
      !number(st, a, "ref", &ref) || !number(st, a, "at", &at) ||
      !number(st, a, "rflags", &rflags) || !number(st, a, "add-flags", &add)) {
    return false;
  }
  if (!kind && !explicit_type && entry == ~0ull) return fail(st, "record needs type= or entry=");
  const rec2field* r2f = nullptr;
  if (entry != ~0ull) {
    if (entry >= n_rec2field_table) return fail(st, "no entry " + std::to_string(entry));
    r2f = &rec2field_table[entry];
  } else if (kind && kind->default_type > 0xFF && !explicit_type) {
    for (std::size_t i = 0; i < n_rec2field_table && !r2f; ++i) {
      if (rec2field_table[i].type == kind->default_type) r2f = &rec2field_table[i];
    }
  } else {
    r2f = find_rec2field(static_cast<std::uint32_t>(type));
  }
  if (r2f == nullptr) return fail(st, "no layout for this type");
  if (!kind) kind = record_kind_of(r2f);
  alignas(urec) unsigned char rec[sizeof(urec)] = {};
  std::uint32_t flags = 0;
  bool ok = set_fields(st, a, r2f, kind, rec, &flags);
  std::uint32_t word = static_cast<std::uint32_t>(type);
  if (!explicit_type) {
    word |= flags | static_cast<std::uint32_t>(add);
    if (word > 0xFFFF) word |= RTYPE_EXTENDED;
  }
  std::vector<std::uint8_t> body;
  if (ok) {
    if (const std::string* raw = a.get("body")) {
      std::vector<unsigned char> b;
      ok = parse_hex_bytes(*raw, &b) || fail(st, "body: not hex bytes");
      body.assign(b.begin(), b.end());
    } else {
      ok = encode(r2f, word, rec, &body) || fail(st, "the record cannot be encoded");
    }
  }
  voldbf_free_tbl(r2f, rec);
  if (!ok) return false;
  std::uint64_t size = body.size(), nfrag = ddb_record_blocks(db_.get(), body.size());
  if (!number(st, a, "size", &size) || !number(st, a, "nfrag", &nfrag)) return false;
  std::vector<std::size_t> skip;
  if (const std::string* s = a.get("skip")) {
    std::stringstream in(*s);
    for (std::string item; std::getline(in, item, ',');) {
      unsigned long long f = 0;
      if (!parse_uint(item, &f)) return fail(st, "bad skip list");
      skip.push_back(f);
    }
  }
  if (!a.check_all_used(error_)) return false;
  db_record hdr{};
  hdr.dbr_flag = static_cast<std::uint16_t>(rflags);
  hdr.dbr_type = word;
  hdr.dbr_size = size;
  std::uint32_t code = word & 0xF0;
  if (unsigned long* c = kind_counter(counts_, word & RTYPE_KIND_MASK);
      c != nullptr && code != 0x80 && code != 0x10) {
    ++*c;
  }
  return lay_out(st, at, ref, hdr, nfrag, body, skip);
}

// block at=N [hex=..] | [magic= blkno= ref= frag= nfrag= rflags= rtype= rsize= payload=]
bool config_writer::raw_block(const desc_statement& st) {
  attr_reader a(st);
  std::uint64_t at = 0, blkno = 0, ref = 0, frag = 0, nfrag = 0, rflags = 0, rtype = 0, rsize = 0;
  if (!a.has("at")) return fail(st, "block needs at=");
  if (!number(st, a, "at", &at)) return false;
  blkno = at;
  if (!number(st, a, "blkno", &blkno) || !number(st, a, "ref", &ref) ||
      !number(st, a, "frag", &frag) || !number(st, a, "nfrag", &nfrag) ||
      !number(st, a, "rflags", &rflags) || !number(st, a, "rtype", &rtype) ||
      !number(st, a, "rsize", &rsize)) {
    return false;
  }
  if ((at + 1) * db_->ddb_blksize > out_.size()) return fail(st, "the block lies past the copy");
  std::uint8_t* blk = block_ptr(at);
  std::memset(blk, 0, db_->ddb_blksize);
  std::vector<unsigned char> b;
  if (const std::string* hex = a.get("hex")) {
    if (!parse_hex_bytes(*hex, &b) || b.size() > db_->ddb_blksize) return fail(st, "bad hex");
    std::memcpy(blk, b.data(), b.size());
    return a.check_all_used(error_);
  }
  db_record hdr{};
  hdr.dbr_flag = static_cast<std::uint16_t>(rflags);
  hdr.dbr_type = static_cast<std::uint32_t>(rtype);
  hdr.dbr_size = rsize;
  bool with_rec = frag == 0 && (a.has("rtype") || a.has("rsize") || a.has("rflags"));
  std::uint8_t* p = ddb_format_block(db_.get(), blk, blkno, ref, frag, nfrag,
                                     with_rec ? &hdr : nullptr);
  if (const std::string* magic = a.get("magic")) {
    std::size_t n = (db_->ddb_flag & DDB_COMPACT) ? 2 : 4;
    std::memset(blk, 0, n);
    std::memcpy(blk, magic->data(), std::min(n, magic->size()));
  }
  if (const std::string* payload = a.get("payload")) {
    if (!parse_hex_bytes(*payload, &b) ||
        b.size() > db_->ddb_blksize - static_cast<std::size_t>(p - blk)) {
      return fail(st, "bad payload");
    }
    std::memcpy(p, b.data(), b.size());
  }
  next_block_ = std::max<std::size_t>(next_block_, at + 1);
  return a.check_all_used(error_);
}

bool config_writer::header_attrs(const desc_statement& st, voldb_info* vi) {
  for (const auto& [name, value] : st.attrs) {
    if (name == "blksize" || name == "hdrsize" || name == "nblocks" || name == "unused") continue;
    if (name == "counts") {
      if (value != "auto" && value != "zero") return fail(st, "counts is auto or zero");
      continue;
    }
    if (name == "version" || name == "pending-version") {
      std::size_t dot = value.find('.');
      unsigned long long major = 0, minor = 0;
      if (dot == std::string::npos || !parse_uint(value.substr(0, dot), &major) ||
          !parse_uint(value.substr(dot + 1), &minor) || major > 0xFFFF || minor > 0xFFFF) {
        return fail(st, "version is MAJOR.MINOR");
      }
      bool pending = name == "pending-version";
      (pending ? vi->vdbi_pending_major : vi->vdbi_version_major) =
          static_cast<std::uint16_t>(major);
      (pending ? vi->vdbi_pending_minor : vi->vdbi_version_minor) =
          static_cast<std::uint16_t>(minor);
      continue;
    }
    if (name == "dgname") {
      if (value.size() > 31) return fail(st, "dgname: at most 31 characters");
      std::strncpy(vi->vdbi_dg_name, value.c_str(), sizeof vi->vdbi_dg_name - 1);
      std::strncpy(vi->vdbi_dg_name_1_2, value.c_str(), 14);
      continue;
    }
    std::string member = name;
    for (const auto& [alias, real] : header_aliases) {
      if (name == alias) member = real;
    }
    const named_field* nf = nullptr;
    for (const named_field& h : header_members) {
      if (member == h.name) nf = &h;
    }
    if (nf == nullptr) return fail(st, "unknown attribute " + name);
    std::string err;
    if (!set_field_value(nf->field, vi, value, &err)) return fail(st, name + ": " + err);
  }
  return true;
}

bool config_writer::header(const std::vector<desc_statement>& sts) {
  voldb_info vi{};
  vi.vdbi_commit_state = VDBI_CLEAN;
  vi.vdbi_version_major = 4;
  vi.vdbi_version_minor = 17;
  vi.vdbi_pending_major = 4;
  vi.vdbi_pending_minor = 17;
  for (const desc_statement& st : sts) {
    if (st.keyword != "database") continue;
    for (const auto& [name, value] : st.attrs) {
      if (name == "counts") auto_counts_ = value == "auto";
    }
  }
  if (auto_counts_) vi.vdbi_config_sum = vi.vdbi_pending_sum = counts_;
  for (const desc_statement& st : sts) {
    if (st.keyword == "database" && !header_attrs(st, &vi)) return false;
  }
  std::size_t len = std::min(out_.size(), std::max<std::size_t>(db_->ddb_hdrsize, 512));
  if (voldbsup_format_header(db_.get(), out_.data(), len, &vi) != 0) {
    *error_ = "config: the database header does not fit (major 3 or 4, 512 bytes)";
    return false;
  }
  return true;
}

// poke at=BYTE hex=..  |  poke block=N offset=O hex=..
bool config_writer::poke(const desc_statement& st) {
  attr_reader a(st);
  std::uint64_t at = 0, block = 0, offset = 0;
  if (!number(st, a, "at", &at) || !number(st, a, "block", &block) ||
      !number(st, a, "offset", &offset)) {
    return false;
  }
  if (a.has("block") || a.has("offset")) at = block * db_->ddb_blksize + offset;
  std::vector<unsigned char> b;
  const std::string* hex = a.get("hex");
  if (hex == nullptr || !parse_hex_bytes(*hex, &b)) return fail(st, "poke needs hex=");
  if (at > out_.size() || b.size() > out_.size() - at) return fail(st, "poke past the copy");
  std::memcpy(out_.data() + at, b.data(), b.size());
  return a.check_all_used(error_);
}

bool config_writer::run(const std::vector<desc_statement>& sts) {
  db_->ddb_blksize = 512;
  db_->ddb_hdrsize = 512;
  db_->ddb_nblocks = out_.size() / 512;
  bool nblocks_given = false;
  for (const desc_statement& st : sts) {
    if (st.keyword != "database") continue;
    for (const auto& kv : st.attrs) nblocks_given |= kv.first == "nblocks";
    if (!geometry(st)) return false;
  }
  if (!nblocks_given) db_->ddb_nblocks = out_.size() / db_->ddb_blksize;
  unused_blocks();
  for (const desc_statement& st : sts) {
    bool ok = true;
    if (st.keyword == "database" || st.keyword == "poke") continue;
    if (st.keyword == "block") {
      ok = raw_block(st);
    } else if (st.keyword == "record") {
      ok = record(st, nullptr);
    } else if (const record_kind* k = find_record_kind(st.keyword)) {
      ok = record(st, k);
    } else {
      ok = fail(st, "unknown statement " + st.keyword);
    }
    if (!ok) return false;
  }
  if (!header(sts)) return false;
  for (const desc_statement& st : sts) {
    if (st.keyword == "poke" && !poke(st)) return false;
  }
  return true;
}

}  // namespace

std::vector<std::uint8_t> build_config_copy(const std::vector<std::string>& lines,
                                            std::size_t copy_bytes, std::string* error) {
  std::string text;
  for (const std::string& l : lines) text += l + "\n";
  std::vector<desc_statement> sts;
  std::string err;
  if (!parse_description(text, &sts, &err)) {
    *error = "config " + err;
    return {};
  }
  config_writer w(copy_bytes, error);
  if (!w.run(sts)) return {};
  return std::move(w.bytes());
}

void register_config_generator() {
  register_content_generator("config", [](const content_request& req, std::string* error) {
    return build_config_copy(req.lines, req.size, error);
  });
}

}  // namespace pd
