// The configuration and log copies of `anonymise`'s region rewrite (see
// anon_region.cc for what is rewritten and how; anon_walk.h).
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>

#include "codec/integers.h"
#include "config_db/block_store.h"
#include "config_db/record_layouts.h"
#include "inspect/anon_walk.h"
#include "private_region/log_block.h"

namespace pd::anon_detail {

namespace {

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


}  // namespace

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

}  // namespace pd::anon_detail
