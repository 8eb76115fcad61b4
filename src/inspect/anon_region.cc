// The region rewrite of `anonymise` (see anon.h): one walk over every
// structure that holds text, run once to collect the values and once to
// write their pseudonyms.
//
// Each structure is decoded through its own decoder, its text members are
// replaced in the decoded form, and it is encoded again through the
// format's encoder at the place it came from:
//   header copies    every sector that starts with "PRIVHEAD", and each of
//                    the two header positions whose magic is damaged: the version
//                    and body tables of its version (dbf_unfmt_tbl and
//                    dbf_fmt_tbl), whether or not its checksum verifies;
//   TOC blocks       every sector that starts with "TOCBLOCK": its entries
//                    (priv_unpack_toc_entry / priv_pack_toc_entry), tag-id
//                    payloads through priv_unpack/pack_tagid_entry;
//   config copies    every copy the TOC lists, enabled or not, and every
//                    sector starting with "VMDB" that no listed copy starts
//                    at (taken as a copy of the size its header gives): the
//                    database
//                    header (voldbsup_reformat_header) and every record the
//                    block store completes (voldbsup_format_record, framed
//                    by ddb_format_block into the blocks it came from; a
//                    frame that would differ from the stored one stops the
//                    run);
//   log copies       no text: the bytes no decoder reads (entry bytes 21-23,
//                    block bytes 504-511) are zeroed in valid blocks.
// A checksum is recomputed only when the stored one verified; one that did
// not verify is kept, and should it verify by chance over the new bytes,
// its lowest bit is flipped so that the structure still fails.
// Zeroed: string bytes after their terminator (the encoders pad with zeros),
// header bytes after the body, TOC bytes after the last entry, the payload
// of store blocks that carry no record, a record's last block after its
// body, and, in a joined region, every sector outside the headers, the TOC
// blocks and the regions the TOC lists.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <functional>
#include <set>

#include "codec/integers.h"
#include "codec/text_forms.h"
#include "config_db/block_store.h"
#include "config_db/record_layouts.h"
#include "inspect/anon.h"
#include "private_region/header.h"
#include "private_region/log_block.h"
#include "private_region/toc.h"

namespace pd {

namespace {

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

void seal_checksum(std::uint8_t* csum_field, bool verified, std::uint32_t stored,
                   std::uint32_t now) {
  if (verified) {
    put_be32(csum_field, now);
  } else {
    put_be32(csum_field, stored == now ? stored ^ 1u : stored);
  }
}

// ---------------------------------------------------------------------------
// Header copies.

struct table_ref {
  const db_field* t;
  std::size_t n;
};

void walk_header(std::uint8_t* buf, std::size_t sector_len, walker& w) {
  const std::uint32_t stored = priv_header_stored_checksum(buf);
  const bool verified = static_cast<std::uint32_t>(priv_header_checksum(buf)) == stored;
  priv_header_info h{};
  const std::uint8_t* lim = buf + PRIV_HEADER_SIZE;
  const std::uint8_t* p = dbf_unfmt_tbl(priv_version_fields, n_priv_version_fields, &h,
                                        buf + PRIV_VERSION_OFFSET, lim);
  std::vector<table_ref> body;
  if (h.phi_version_major == 1) {
    body = {{priv_header_fields_1_2, n_priv_header_fields_1_2}};
  } else if (h.phi_version_major >= 2 && h.phi_version_major <= 4) {
    body = {{priv_header_fields_2_0, n_priv_header_fields_2_0},
            {priv_header_fields_2_0_nt_minor1, n_priv_header_fields_2_0_nt_minor1},
            {priv_header_fields_2_0_nt_minor2, n_priv_header_fields_2_0_nt_minor2},
            {priv_header_fields_2_0_nt_minor3, n_priv_header_fields_2_0_nt_minor3}};
  }
  for (const table_ref& t : body) p = p == nullptr ? nullptr : dbf_unfmt_tbl(t.t, t.n, &h, p, lim);
  if (p == nullptr || body.empty()) {
    if (w.writing() && w.stats != nullptr)
      w.stats->kept.push_back("a header of unknown version");
    return;
  }
  if (h.phi_version_major == 1) w.text(h.phi_dg_name_1_2, sizeof h.phi_dg_name_1_2);
  w.text(h.phi_dg_name, sizeof h.phi_dg_name);
  w.text(h.phi_hostid, sizeof h.phi_hostid);
  w.id(h.phi_diskid, sizeof h.phi_diskid);
  w.id(h.phi_dgid, sizeof h.phi_dgid);
  w.id(h.phi_move_dgid, sizeof h.phi_move_dgid);
  w.guid(&h.phi_nt_diskset_id);
  w.guid(&h.phi_nt_new_diskset_id);
  if (!w.writing()) return;
  std::uint8_t* q = dbf_fmt_tbl(priv_version_fields, n_priv_version_fields, &h,
                                buf + PRIV_VERSION_OFFSET);
  for (const table_ref& t : body) q = dbf_fmt_tbl(t.t, t.n, &h, q);
  const auto end = static_cast<std::size_t>(q - buf);
  if (w.zero) {
    std::memset(buf + end, 0, sector_len - end);
    if (w.stats != nullptr) w.stats->zeroed_bytes += sector_len - end;
  }
  seal_checksum(buf + PRIV_CHECKSUM_OFFSET, verified, stored,
                static_cast<std::uint32_t>(priv_header_checksum(buf)));
  if (w.stats != nullptr) ++w.stats->headers;
}

// ---------------------------------------------------------------------------
// TOC blocks.

void walk_toc_block(std::uint8_t* buf, std::size_t len, walker& w) {
  const std::uint32_t stored = get_be32(buf + TOC_CHECKSUM_OFFSET);
  const bool verified = static_cast<std::uint32_t>(priv_toc_checksum(buf, len)) == stored;
  const std::uint8_t* cursor = buf + TOC_ENTRIES_OFFSET;
  const std::uint8_t* end = buf + len;
  std::vector<toc_entry_info*> entries;
  bool clean_end = false;
  for (;;) {
    toc_entry_info* e = nullptr;
    if (priv_unpack_toc_entry(&e, &cursor, end) != 0) break;
    if (e == nullptr) {
      clean_end = true;
      break;
    }
    entries.push_back(e);
  }
  for (toc_entry_info* e : entries) {
    if (std::strcmp(e->tei_region.dkr_type, "tagid") != 0) continue;
    tagid_region_entry tag;
    if (priv_unpack_tagid_entry(&tag, e) != 0) continue;
    w.text(tag.dktagid_value, sizeof tag.dktagid_value);
    w.text(tag.dktagid_source, sizeof tag.dktagid_source);
    if (w.writing() && priv_pack_tagid_entry(&tag, e) != 0) w.fail("no memory");
  }
  if (w.writing()) {
    std::uint8_t* q = buf + TOC_ENTRIES_OFFSET;
    for (toc_entry_info* e : entries) {
      if (w.zero) std::memset(q, 0, TOC_ENTRY_TYPE_LEN);
      priv_pack_toc_entry(e, &q);
    }
    if (clean_end && w.zero) {
      const auto n = static_cast<std::size_t>(end - q);
      std::memset(q, 0, n);
      if (w.stats != nullptr) w.stats->zeroed_bytes += n;
    }
    seal_checksum(buf + TOC_CHECKSUM_OFFSET, verified, stored,
                  static_cast<std::uint32_t>(priv_toc_checksum(buf, len)));
    if (w.stats != nullptr) ++w.stats->toc_blocks;
  }
  for (toc_entry_info* e : entries) priv_free_toc_entry(e);
}

// ---------------------------------------------------------------------------
// Configuration copies.

// Members of a record that are the volume manager's words or ids, not the
// customer's text: kept (docs/anonymise.md).
// `id`: an id (replaced with --ids); else a word of the volume manager's.
struct kept_member {
  std::uint32_t kind;
  std::size_t offset;
  bool id;
};
const kept_member kept_members[] = {
    {REC_TYPE_VOL, offsetof(volrec, v_use_type), false},
    {REC_TYPE_VOL, offsetof(volrec, v_fstype), false},
    {REC_TYPE_VOL, offsetof(volrec, v_state), false},
    {REC_TYPE_VOL, offsetof(volrec, v_start_opts), false},
    {REC_TYPE_PLEX, offsetof(plexrec, pl_state), false},
    {REC_TYPE_DM, offsetof(dmrec, dm_diskid), true},
    {REC_TYPE_DM, offsetof(dmrec, dm_move_dgid), true},
    {REC_TYPE_DG, offsetof(dgrec, dg_dgid), true},
    {REC_TYPE_DG, offsetof(dgrec, dg_move_dgid), true},
    {REC_TYPE_DA, offsetof(darec, da_diskid), true},
    {REC_TYPE_DA, offsetof(darec, da_dgid), true},
    {REC_TYPE_DA, offsetof(darec, da_type), false},
    {REC_TYPE_RVOL, offsetof(rvolrec, rv_state), false},
    {REC_TYPE_REP, offsetof(reprec, rp_state), false},
    {REC_TYPE_REP, offsetof(reprec, rp_remote_dgid), true},
    {REC_TYPE_DCO, offsetof(dcorec, dco_state), false},
    {REC_TYPE_CACHE, offsetof(cacherec, cache_state), false},
    {REC_TYPE_VSET, offsetof(vsetrec, vset_state), false},
    {REC_TYPE_VSET, offsetof(vsetrec, vset_use_type), false},
    {REC_TYPE_STPOOL, offsetof(stpoolrec, stp_policy), false},
};

const kept_member* kept_member_of(std::uint32_t type, std::size_t offset) {
  const std::uint32_t kind = type & RTYPE_KIND_MASK;
  for (const kept_member& k : kept_members) {
    if (k.kind == kind && k.offset == offset) return &k;
  }
  return nullptr;
}

// Every text member of the record's applicable groups.
void walk_record_text(std::uint32_t type, void* sp, walker& w) {
  const rec2field* r2f = find_rec2field(type);
  if (r2f == nullptr) return;
  for (const r2f_group& g : r2f->r2f_tbls) {
    if (g.nflds == 0) break;
    if ((type & g.flagmask) != g.flagvalue) continue;
    for (std::size_t i = 0; i < g.nflds; ++i) {
      const db_field& f = g.ftbl[i];
      auto* m = static_cast<std::uint8_t*>(sp) + f.dbf_offset;
      const bool text = f.dbf_type == DBF_TYPE_STRING || f.dbf_type == DBF_TYPE_VSTRING;
      const kept_member* k = kept_member_of(type, f.dbf_offset);
      if (f.dbf_type == DBF_TYPE_RID || f.dbf_type == DBF_TYPE_VRID) {
        volrid_t r;
        std::memcpy(&r, m, sizeof r);
        w.rid(&r);
        std::memcpy(m, &r, sizeof r);
      } else if (f.dbf_type == DBF_TYPE_GUID || f.dbf_type == DBF_TYPE_VGUID ||
                 f.dbf_type == DBF_TYPE_GUIDSTORESTRING) {
        voldguid_t g;
        std::memcpy(&g, m, sizeof g);
        w.guid(&g);
        std::memcpy(m, &g, sizeof g);
      } else if (f.dbf_type == DBF_TYPE_GUIDMEMSTRING) {
        w.id(reinterpret_cast<char*>(m), f.dbf_tagsize);
      } else if (k != nullptr) {
        if (text && k->id) {
          w.id(reinterpret_cast<char*>(m), f.dbf_tagsize);
        } else if (text) {
          w.kept(reinterpret_cast<char*>(m), f.dbf_tagsize);
        }
      } else if (text) {
        w.text(reinterpret_cast<char*>(m), f.dbf_tagsize);
      } else if (f.dbf_type == DBF_TYPE_AWSTRING) {
        wchar_t* ws = nullptr;
        std::memcpy(&ws, m, sizeof ws);
        w.wide(ws);
      }
    }
  }
}

// The store of one copy, its records decoded into structures of their own
// (`held`: every structure handed to the decoder, freed with the load).
struct copy_load {
  dbase* db = nullptr;
  voldb_info vi{};
  bool header_ok = false;
  std::set<db_record*> held, decoded;
  ~copy_load() {
    for (db_record* r : held) {
      voldbsup_free_fields(r->dbr_type, r->dbr_private);
      std::free(r->dbr_private);
      r->dbr_private = nullptr;
    }
    ddb_free(db);
  }
};

copy_load& load_of(dbase* db) { return *static_cast<copy_load*>(db->ddb_private); }

int cl_place(dbase* db, db_record* r, int, volrid_t, const char*, voldguid_t, void** rawpp) {
  if (r->dbr_private == nullptr) {
    r->dbr_private = std::calloc(1, sizeof(urec));
    if (r->dbr_private == nullptr) return 12;
    load_of(db).held.insert(r);
  }
  *rawpp = r->dbr_private;
  return 0;
}
int cl_unformat(dbase* db, db_record* r, const std::uint8_t* frag, std::size_t off,
                std::size_t len) {
  const int res = voldbsup_unformat_record(db, r, frag, off, len, cl_place);
  if (res == 0 && (r->dbr_gen_flag & DBR_COMPLETE) && r->dbr_private != nullptr)
    load_of(db).decoded.insert(r);
  return res;
}
void cl_free_record(dbase* db, db_record* r) {
  if (r->dbr_private == nullptr) return;
  voldbsup_free_fields(r->dbr_type, r->dbr_private);
  std::free(r->dbr_private);
  r->dbr_private = nullptr;
  load_of(db).held.erase(r);
  load_of(db).decoded.erase(r);
}
const dbrec_ops cl_rops = {nullptr, nullptr, cl_unformat, cl_free_record};

int cl_init(dbase* db, db_record* r) {
  r->dbr_ops = &cl_rops;
  const int res = voldbsup_init_record(db, r);
  // A refused record is decoded all the same: its text is replaced.
  r->dbr_gen_flag = static_cast<std::uint16_t>(r->dbr_gen_flag & ~DBR_REFUSED);
  return res;
}
int cl_new(dbase*, db_record*) { return 0; }
int cl_format_header(dbase*, std::uint8_t*, std::size_t) { return 0; }
int cl_unformat_header(dbase* db, const std::uint8_t* buf, std::size_t len) {
  copy_load& cl = load_of(db);
  if (voldbsup_unformat_header(db, buf, std::min(len, VOLDB_HDR_DECODE), &cl.vi) != 0) return 138;
  if (db->ddb_blksize < 64 || db->ddb_blksize > 8192 || db->ddb_hdrsize > 512) return 138;
  if (ddb_setsize(db, db->ddb_nblocks) != 0) return 138;
  cl.header_ok = true;
  return 0;
}
int cl_write(dbase*, std::size_t, const std::uint8_t*, std::size_t) { return 0; }
void cl_free(dbase*) {}
const dbase_ops cl_ops = {cl_init, cl_new, cl_format_header, cl_unformat_header, cl_write,
                          cl_free, nullptr};

// A record re-encoded into the blocks of its chain (`used` collects them).
bool reframe_record(dbase* db, db_record* r, std::vector<std::uint8_t>& copy,
                    std::set<std::size_t>& used, walker& w) {
  const std::size_t old_size = r->dbr_size;
  voldbsup_format_cleanup_record(db, r);
  std::uint8_t none = 0;
  if (voldbsup_format_record(db, r, &none, 0, 0, r->dbr_private) != 0 || r->dbr_size != old_size) {
    r->dbr_size = old_size;
    voldbsup_format_cleanup_record(db, r);
    w.fail("record " + std::to_string(r->dbr_ref) + ": its body does not encode as it was stored");
    return false;
  }
  const std::size_t bs = db->ddb_blksize;
  const std::size_t nfrag = ddb_record_blocks(db, old_size);
  std::vector<std::uint8_t> scratch(bs);
  std::size_t blk = r->dbr_first_blkno;
  bool ok = true;
  for (std::size_t frag = 0; frag < nfrag && ok; ++frag) {
    if (blk == DDB_NOBLOCK || blk >= db->ddb_nblocks || (blk + 1) * bs > copy.size()) {
      ok = false;
      break;
    }
    std::uint8_t* orig = copy.data() + blk * bs;
    std::memcpy(scratch.data(), orig, bs);
    std::uint8_t* p = ddb_format_block(db, scratch.data(), blk, r->dbr_ref, frag, nfrag, r);
    const auto hdr = static_cast<std::size_t>(p - scratch.data());
    if (std::memcmp(scratch.data(), orig, hdr) != 0) {
      ok = false;
      break;
    }
    const std::size_t off = ddb_fragment_offset(db, frag);
    const std::size_t n = off < old_size ? std::min(ddb_fragment_room(db, frag), old_size - off) : 0;
    if (voldbsup_format_record(db, r, p, off, n, r->dbr_private) != 0) {
      ok = false;
      break;
    }
    if (w.zero) std::memset(p + n, 0, bs - hdr - n);
    std::memcpy(orig, scratch.data(), bs);
    used.insert(blk);
    blk = ddb_block(db, blk).dbb_next_blkno;
  }
  voldbsup_format_cleanup_record(db, r);
  if (!ok) w.fail("record " + std::to_string(r->dbr_ref) + ": its frame would change");
  if (ok && w.stats != nullptr) ++w.stats->records;
  return ok;
}

void walk_config_copy(std::vector<std::uint8_t>& copy, int number, walker& w) {
  copy_load cl;
  cl.db = ddb_alloc(&cl_ops);
  if (cl.db == nullptr) return w.fail("no memory");
  cl.db->ddb_private = &cl;
  // Fed as the loader feeds it: 512 bytes at a time, until an error or the
  // end of the database.
  for (std::size_t off = 0; off + 512 <= copy.size(); off += 512) {
    if (ddb_extract(cl.db, copy.data() + off, off, 512) != 0) break;
    if (cl.header_ok && off + 512 >= cl.db->ddb_nblocks * cl.db->ddb_blksize) break;
  }
  if (!cl.header_ok) {
    if (w.writing() && w.stats != nullptr)
      w.stats->kept.push_back("config copy " + std::to_string(number) + ": no database header");
    return;
  }
  w.text(cl.vi.vdbi_dg_name, sizeof cl.vi.vdbi_dg_name);
  w.text(cl.vi.vdbi_dg_name_1_2, sizeof cl.vi.vdbi_dg_name_1_2);
  w.id(cl.vi.vdbi_dg_id, sizeof cl.vi.vdbi_dg_id);
  std::vector<db_record*> recs(cl.decoded.begin(), cl.decoded.end());
  std::sort(recs.begin(), recs.end(), [](db_record* a, db_record* b) {
    return a->dbr_first_blkno < b->dbr_first_blkno;
  });
  for (db_record* r : recs) walk_record_text(r->dbr_type, r->dbr_private, w);
  if (!w.writing()) return;
  if (voldbsup_reformat_header(cl.db, copy.data(), std::min<std::size_t>(copy.size(), 512),
                               &cl.vi) != 0) {
    return w.fail("config copy " + std::to_string(number) + ": its header does not encode");
  }
  std::set<std::size_t> used;
  for (db_record* r : recs) {
    if (!reframe_record(cl.db, r, copy, used, w)) return;
  }
  // Blocks that carry no record: their payload.
  const std::size_t bs = cl.db->ddb_blksize;
  if ((cl.db->ddb_flag & DDB_COMPACT) || !w.zero) {
    if (w.stats != nullptr) ++w.stats->copies;
    return;
  }
  const std::size_t first = (cl.db->ddb_hdrsize + bs - 1) / bs;
  for (std::size_t b = first; b < cl.db->ddb_nblocks && (b + 1) * bs <= copy.size(); ++b) {
    if (used.count(b) != 0) continue;
    std::uint8_t* p = copy.data() + b * bs;
    ddb_blkhdr_info h{};
    if (ddb_block_header_decode(p, p + bs, &h) == nullptr || !h.dbh_magic_ok || h.dbh_ref != 0)
      continue;
    std::memset(p + DDB_BLKHDR_SIZE, 0, bs - DDB_BLKHDR_SIZE);
    if (w.stats != nullptr) w.stats->zeroed_bytes += bs - DDB_BLKHDR_SIZE;
  }
  if (w.stats != nullptr) ++w.stats->copies;
}

// ---------------------------------------------------------------------------
// Log copies.

// With --ids, the record id in words 0-1 of the entries that carry one.
void map_log_rids(std::uint8_t* blk, walker& w) {
  for (int n = 0; n < KLOG_NENTRIES; ++n) {
    std::uint8_t* e = blk + klog_entry_offset(n);
    switch (klog_entry_type(e)) {
      case VOL_KLOG_DETACH: case VOL_KLOG_DIRTY: case VOL_KLOG_LOGDETACH:
      case VOL_KLOG_APP_DIRTY: case VOL_KLOG_DIRTY_SEQNO: case VOL_KLOG_CACHE_SEQNO: break;
      default: continue;
    }
    klog_entry_info ei{};
    if (klog_entry_decode(e, blk + KLOG_BLKSIZE, &ei) == nullptr) continue;
    volrid_t r = klog_entry_seqno(ei, 0);
    w.rid(&r);
    if (!w.writing()) continue;
    put_be32(e + KLOG_ENTRY_OFF_WORDS, r.seqno_hi);
    put_be32(e + KLOG_ENTRY_OFF_WORDS + 4, r.seqno_lo);
  }
}

void walk_log_copy(std::vector<std::uint8_t>& copy, walker& w) {
  for (std::size_t off = 0; off + KLOG_BLKSIZE <= copy.size(); off += KLOG_BLKSIZE) {
    std::uint8_t* p = copy.data() + off;
    klog_block_info b{};
    if (klog_block_decode(p, p + KLOG_BLKSIZE, &b) == nullptr || !b.klb_magic_ok) continue;
    if (w.ids) map_log_rids(p, w);
    if (!w.writing() || !w.zero) continue;
    for (int n = 0; n < KLOG_NENTRIES; ++n) {
      std::memset(p + klog_entry_offset(n) + KLOG_ENTRY_USED, 0, KLOG_ENTRY_SIZE - KLOG_ENTRY_USED);
    }
    std::memset(p + KLOG_BLKSIZE - KLOG_RESERVED, 0, KLOG_RESERVED);
  }
  if (w.stats != nullptr) ++w.stats->logs;
}

// ---------------------------------------------------------------------------
// The region.

struct part_span {
  std::uint64_t start, len;
};

// The parts of a copy in the region, cut at the region's end.
std::vector<part_span> copy_parts(const priv_info* priv, const copy_info* cp, std::size_t size) {
  std::vector<part_span> parts;
  const auto chunk = static_cast<std::uint64_t>(priv->pri_header->phi_chunk_size);
  for (int i = 0; i < cp->ci_npart; ++i) {
    const disk_region& rg = cp->ci_parts[i]->tei_region;
    if (rg.dkr_offset < 0 || rg.dkr_len < 0 || (rg.dkr_flags & DKR_PUBLIC)) continue;
    const std::uint64_t start = chunk * static_cast<std::uint64_t>(rg.dkr_offset);
    if (start >= size) continue;
    parts.push_back({start, std::min<std::uint64_t>(chunk * static_cast<std::uint64_t>(rg.dkr_len),
                                                    size - start)});
  }
  return parts;
}

void walk_copies(inspect_image& img, std::vector<std::uint8_t>& region, bool config, walker& w,
                 std::set<std::uint64_t>& starts) {
  priv_info* priv = img.priv();
  for (copy_info* cp = config ? priv->pri_config_copies : priv->pri_log_copies; cp != nullptr;
       cp = cp->ci_next) {
    const std::vector<part_span> parts = copy_parts(priv, cp, region.size());
    if (!parts.empty()) starts.insert(parts[0].start);
    std::vector<std::uint8_t> copy;
    for (const part_span& p : parts)
      copy.insert(copy.end(), region.begin() + p.start, region.begin() + p.start + p.len);
    if (config) {
      walk_config_copy(copy, cp->ci_copy, w);
    } else {
      walk_log_copy(copy, w);
    }
    if (!w.writing()) continue;
    std::size_t at = 0;
    for (const part_span& p : parts) {
      std::copy(copy.begin() + at, copy.begin() + at + p.len, region.begin() + p.start);
      at += p.len;
    }
  }
}

bool starts_with(const std::vector<std::uint8_t>& region, std::size_t off, const char* magic,
                 std::size_t len) {
  return off + len <= region.size() && std::memcmp(region.data() + off, magic, len) == 0;
}

// Database headers that no copy of the TOC starts with (a region that
// cannot be joined, a copy the TOC no longer lists): each is taken as one
// copy of nblocks * blksize bytes from its sector, cut at the region's end.
void walk_unlisted_copies(std::vector<std::uint8_t>& region, std::size_t ss,
                          const std::set<std::uint64_t>& starts, walker& w) {
  for (std::size_t off = 0; off + ss <= region.size(); off += ss) {
    if (starts.count(off) != 0 || !starts_with(region, off, voldb_magic, VOLDB_MAGIC_LEN)) continue;
    voldb_prefix_info pre{};
    if (voldb_prefix_decode(region.data() + off, region.data() + region.size(), &pre) == nullptr)
      continue;
    const std::uint64_t len = std::min<std::uint64_t>(
        static_cast<std::uint64_t>(pre.vdp_nblocks) * pre.vdp_blksize, region.size() - off);
    std::vector<std::uint8_t> copy(region.begin() + off, region.begin() + off + len);
    walk_config_copy(copy, 0, w);
    if (w.writing()) std::copy(copy.begin(), copy.end(), region.begin() + off);
  }
}

// Every sector outside the headers, the TOC blocks and the regions the TOC
// lists, zeroed.
void zero_unlisted(inspect_image& img, std::vector<std::uint8_t>& region,
                   const std::vector<bool>& structure, walker& w) {
  priv_info* priv = img.priv();
  const std::size_t ss = static_cast<std::size_t>(img.sector_size());
  std::vector<bool> keep = structure;
  auto mark = [&](std::uint64_t start, std::uint64_t len) {
    for (std::uint64_t s = start / ss; s < keep.size() && s * ss < start + len; ++s) keep[s] = true;
  };
  const auto chunk = static_cast<std::uint64_t>(priv->pri_header->phi_chunk_size);
  const disk_attrs& a = img.attrs();
  for (voff_t s : {a.dka_primary_header, a.dka_alternate_header, a.dka_nt_backup_header}) {
    if (s > 0) mark(static_cast<std::uint64_t>(s) * ss, ss);
  }
  mark(0, ss);
  for (std::size_t i = 0; i < priv->pri_toc_len; ++i) {
    if (priv->pri_toc_sectors != nullptr) mark(chunk * priv->pri_toc_sectors[i], chunk);
    if (priv->pri_alt_toc_sectors != nullptr) mark(chunk * priv->pri_alt_toc_sectors[i], chunk);
  }
  for (const toc_entry_info* e = priv->pri_toc_entries; e != nullptr; e = e->tei_next) {
    const disk_region& rg = e->tei_region;
    if (rg.dkr_offset < 0 || rg.dkr_len < 0 || (rg.dkr_flags & DKR_PUBLIC)) continue;
    mark(chunk * static_cast<std::uint64_t>(rg.dkr_offset),
         chunk * static_cast<std::uint64_t>(rg.dkr_len));
  }
  for (std::size_t s = 0; s < keep.size(); ++s) {
    if (keep[s]) continue;
    if (w.stats != nullptr) w.stats->free_sectors.push_back(s);
    std::uint8_t* p = region.data() + s * ss;
    if (std::any_of(p, p + ss, [](std::uint8_t b) { return b != 0; })) {
      std::memset(p, 0, ss);
      if (w.stats != nullptr) w.stats->zeroed_bytes += ss;
    }
  }
}

// A header whose magic is damaged (at most two of its bytes differ) at one
// of the header positions is a header still: its names are there.
bool damaged_header_at(inspect_image& img, const std::vector<std::uint8_t>& region,
                       std::size_t sector) {
  const disk_attrs& a = img.attrs();
  if (static_cast<voff_t>(sector) != a.dka_primary_header &&
      static_cast<voff_t>(sector) != a.dka_alternate_header)
    return false;
  const std::size_t off = sector * static_cast<std::size_t>(img.sector_size());
  if (off + PRIV_HEADER_SIZE > region.size()) return false;
  int differ = 0;
  for (std::size_t i = 0; i < PRIV_MAGIC_LEN; ++i) differ += region[off + i] != header_magic[i];
  return differ <= 2;
}

void walk_region(inspect_image& img, std::vector<std::uint8_t>& region, walker& w) {
  const std::size_t ss = static_cast<std::size_t>(img.sector_size());
  const std::size_t nsect = region.size() / ss;
  std::vector<bool> structure(nsect, false);
  for (std::size_t s = 0; s < nsect; ++s) {
    const std::size_t off = s * ss;
    if (ss >= PRIV_HEADER_SIZE && (starts_with(region, off, header_magic, PRIV_MAGIC_LEN) ||
                                   damaged_header_at(img, region, s))) {
      walk_header(region.data() + off, ss, w);
      structure[s] = true;
    } else if (starts_with(region, off, toc_magic, TOC_MAGIC_LEN)) {
      walk_toc_block(region.data() + off, ss, w);
      structure[s] = true;
    }
  }
  std::set<std::uint64_t> starts;
  if (img.joined()) {
    walk_copies(img, region, true, w, starts);
    walk_copies(img, region, false, w, starts);
  }
  walk_unlisted_copies(region, ss, starts, w);
  if (img.joined() && w.writing() && w.zero) zero_unlisted(img, region, structure, w);
}

}  // namespace

void anon_collect(inspect_image& img, const std::vector<std::uint8_t>& region, anon_names& names,
                  bool ids) {
  std::vector<std::uint8_t> scratch = region;
  walker w;
  w.collect = &names;
  w.ids = ids;
  walk_region(img, scratch, w);
}

bool anon_rewrite(inspect_image& img, std::vector<std::uint8_t>& region, const anon_names& names,
                  bool zero, anon_rewrite_stats* stats, std::string* error, bool ids) {
  walker w;
  w.zero = zero;
  w.ids = ids;
  w.names = &names;
  w.stats = stats;
  w.error = error;
  walk_region(img, region, w);
  return !w.failed;
}

}  // namespace pd
