// The block store: sparse block array, record hash and extraction.
//
// Layout and contracts in block_store.h. Extraction frames records only:
// the owner's callbacks decode the header and the record bodies.
#include "config_db/block_store.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "base/errors.h"
#include "codec/integers.h"
#include "config_db/record_index.h"
#include "config_db/records.h"

namespace pd {

// Block entries in pages of DBT_PAGE; a page exists once one of its blocks
// is touched. Blocks in `write_ranges` (added by ddb_resize) start with
// DBB_WRITE.
struct db_block_table {
  static constexpr std::size_t DBT_PAGE = 256;
  std::map<std::size_t, std::unique_ptr<db_block[]>> pages;
  // The same pages by number, for lookups in constant time: leaves of
  // DIR_LEAF page pointers, made when a page of their range is (at most
  // half the memory of the pages themselves, whatever the block numbers),
  // for the pages below DIR_PAGES; the map alone finds the others.
  static constexpr std::size_t DIR_LEAF = 512;
  static constexpr std::size_t DIR_PAGES = (std::size_t{1} << 32) / DBT_PAGE;
  std::vector<std::unique_ptr<db_block*[]>> dir;
  // The page met last: blocks are mostly visited in runs.
  mutable std::size_t last_page = DDB_NOBLOCK;
  mutable db_block* last_entries = nullptr;
  db_block* find_page(std::size_t page) const {
    if (page == last_page) return last_entries;
    db_block* entries = nullptr;
    if (page < DIR_PAGES) {
      if (page / DIR_LEAF >= dir.size() || !dir[page / DIR_LEAF]) return nullptr;
      entries = dir[page / DIR_LEAF][page % DIR_LEAF];
    } else {
      auto it = pages.find(page);
      if (it != pages.end()) entries = it->second.get();
    }
    if (entries == nullptr) return nullptr;
    last_page = page;
    last_entries = entries;
    return last_entries;
  }
  // Makes room in the directory for `page`; false when out of memory.
  bool dir_room(std::size_t page) {
    if (page >= DIR_PAGES) return true;
    const std::size_t leaf = page / DIR_LEAF;
    try {
      if (leaf >= dir.size()) dir.resize(leaf + 1);
    } catch (const std::bad_alloc&) {
      return false;
    }
    if (!dir[leaf]) {
      dir[leaf].reset(new (std::nothrow) db_block*[DIR_LEAF]());
      if (!dir[leaf]) return false;
    }
    return true;
  }
  void dir_set(std::size_t page, db_block* entries) {
    if (page < DIR_PAGES && page / DIR_LEAF < dir.size() && dir[page / DIR_LEAF]) {
      dir[page / DIR_LEAF][page % DIR_LEAF] = entries;
    }
  }
  std::vector<std::pair<std::size_t, std::size_t>> write_ranges;  // [from, to)
};

namespace {

constexpr db_block initial_block{DDB_NOBLOCK, nullptr, 0, 0, 0};
constexpr db_block initial_write_block{DDB_NOBLOCK, nullptr, 0, 0, DBB_WRITE};

std::size_t header_blocks(const dbase* db) {
  return db->ddb_blksize != 0 ? db->ddb_hdrsize / db->ddb_blksize : 0;
}

// Block sizes the record framing can carry: a first fragment with room for
// the record header (the arithmetic is the standard form's in both forms),
// and a payload that fits the 16-bit dbb_frag_size.
bool framing_usable(const dbase* db) {
  return db->ddb_blksize >= DDB_BLKHDR_SIZE + DDB_RECHDR_SIZE &&
         db->ddb_blksize - DDB_BLKHDR_SIZE <= 0xFFFF;
}

bool in_write_range(const db_block_table* t, std::size_t blkno) {
  for (const auto& r : t->write_ranges) {
    if (blkno >= r.first && blkno < r.second) return true;
  }
  return false;
}

// The entry of `blkno`, materialising its page; null when out of memory.
db_block* block_at(dbase* db, std::size_t blkno) {
  if (db->ddb_blocks == nullptr) {
    db->ddb_blocks = new (std::nothrow) db_block_table;
    if (db->ddb_blocks == nullptr) return nullptr;
  }
  db_block_table* t = db->ddb_blocks;
  std::size_t page = blkno / db_block_table::DBT_PAGE;
  if (db_block* entries = t->find_page(page)) return &entries[blkno % db_block_table::DBT_PAGE];
  if (!t->dir_room(page)) return nullptr;
  std::unique_ptr<db_block[]> p(new (std::nothrow) db_block[db_block_table::DBT_PAGE]);
  if (!p) return nullptr;
  std::size_t first = page * db_block_table::DBT_PAGE;
  for (std::size_t i = 0; i < db_block_table::DBT_PAGE; ++i) {
    p[i] = in_write_range(t, first + i) ? initial_write_block : initial_block;
  }
  db_block* entries = t->pages.emplace(page, std::move(p)).first->second.get();
  t->dir_set(page, entries);
  return &entries[blkno % db_block_table::DBT_PAGE];
}

db_record* new_record(dbase* db) {
  db_record* r = rindex_new_record(db->ddb_rindex);
  if (r != nullptr) {
    r->dbr_first_blkno = DDB_NOBLOCK;
    r->dbr_last_blkno = DDB_NOBLOCK;
  }
  return r;
}

// Records leave the hash but stay owned by the store until ddb_free, so
// that an owner holding a pointer to one never sees it dangle.
void retire_record(dbase* db, db_record* r) {
  r->dbr_prev = nullptr;
  r->dbr_next = db->ddb_unhashed;
  db->ddb_unhashed = r;
}

// Records from the store's slabs go with the slabs; others are released
// here.
void release_record(db_record* r) {
  std::free(r->dbr_build);
  r->dbr_build = nullptr;
  if (!r->dbr_slab) std::free(r);
}

std::size_t fragments_for(const dbase* db, std::size_t size) { return ddb_record_blocks(db, size); }

struct block_header {
  bool magic_ok;
  std::size_t blkno;
  unsigned long ref;
  std::size_t frag;
  std::size_t nfrag;
  const std::uint8_t* payload;
};

struct record_header {
  std::uint16_t flag;
  std::uint32_t type;
  std::size_t size;
  const std::uint8_t* body;
};

// REQUIRES: `p` holds a whole block (at least the minimum block size).
block_header decode_block_header(const dbase* db, const std::uint8_t* p) {
  block_header h{};
  if (db->ddb_flag & DDB_COMPACT) {
    h.magic_ok = p[0] == 'L' && p[1] == 'K';
    h.blkno = p[2];
    h.ref = p[3];
    h.frag = p[4];
    h.nfrag = p[5];
    h.payload = p + DDB_C_BLKHDR_SIZE;
  } else {
    ddb_blkhdr_info b{};  // block_header_fits: the decode cannot fail
    h.payload = ddb_block_header_decode(p, p + db->ddb_blksize, &b);
    h.magic_ok = b.dbh_magic_ok;
    h.blkno = b.dbh_blkno;
    h.ref = b.dbh_ref;
    h.frag = b.dbh_frag;
    h.nfrag = b.dbh_nfrag;
  }
  return h;
}

record_header decode_record_header(const dbase* db, const std::uint8_t* payload) {
  record_header h{};
  if (db->ddb_flag & DDB_COMPACT) {
    h.flag = payload[0];
    h.type = payload[1];
    h.size = get_be16(payload + 2);
    h.body = payload + DDB_C_RECHDR_SIZE;
  } else {
    h.flag = get_be16(payload);
    h.type = get_be16(payload + 2);
    h.size = get_be32(payload + 4);
    h.body = payload + DDB_RECHDR_SIZE;
  }
  return h;
}

// Undo a fragment-0 record after its owner failed it.
int drop_new_record(dbase* db, db_block* b, db_record* r, int err) {
  b->dbb_record = nullptr;
  b->dbb_flag |= DBB_BAD;
  dbr_delete(db, r);
  retire_record(db, r);
  return err;
}

int extract_new_record(dbase* db, std::size_t blkno, db_block* b, const block_header& bh) {
  if (db_record* old = dbr_find(db, bh.ref)) {
    b->dbb_record = old;
    old->dbr_gen_flag |= DBR_FORMAT_ERROR | DBR_DUPLICATE;
    return VE_DB_FORMAT;
  }
  db_record* r = new_record(db);
  if (r == nullptr) return VE_NOMEM;
  record_header rh = decode_record_header(db, bh.payload);
  r->dbr_ref = bh.ref;
  r->dbr_flag = rh.flag;
  r->dbr_type = rh.type;
  r->dbr_size = rh.size;
  if (bh.nfrag != fragments_for(db, rh.size)) {
    release_record(r);
    b->dbb_flag |= DBB_BAD;
    return VE_DB_FORMAT;
  }
  b->dbb_frag_size = static_cast<std::uint16_t>(b->dbb_frag_size - DDB_RECHDR_SIZE);
  r->dbr_first_blkno = blkno;
  r->dbr_last_blkno = blkno;
  b->dbb_record = r;
  dbr_add(db, r);
  if (b->dbb_frag_size >= r->dbr_size) {
    b->dbb_frag_size = static_cast<std::uint16_t>(r->dbr_size);
    r->dbr_gen_flag |= DBR_COMPLETE;
  }
  int err = db->ddb_ops && db->ddb_ops->dop_init_record ? db->ddb_ops->dop_init_record(db, r) : 0;
  if (err != 0) return drop_new_record(db, b, r, err);
  if (!(r->dbr_gen_flag & DBR_REFUSED) && r->dbr_ops && r->dbr_ops->rop_unformat) {
    err = r->dbr_ops->rop_unformat(db, r, rh.body, 0, b->dbb_frag_size);
    if (err != 0) return drop_new_record(db, b, r, err);
  }
  return 0;
}

int extract_more_record(dbase* db, db_record* r, std::size_t blkno, db_block* b,
                        const std::uint8_t* payload) {
  if (r->dbr_gen_flag & DBR_COMPLETE) {
    b->dbb_flag |= DBB_BAD;
    r->dbr_gen_flag |= DBR_FORMAT_ERROR;
    return VE_DB_FORMAT;
  }
  if (r->dbr_gen_flag & (DBR_INCOMPLETE | DBR_REFUSED)) return 0;
  db_block* last = block_at(db, r->dbr_last_blkno);
  if (last == nullptr) return VE_NOMEM;
  std::size_t end = last->dbb_offset + last->dbb_frag_size;
  if (b->dbb_offset > end) {
    r->dbr_gen_flag |= DBR_INCOMPLETE;
    return 0;
  }
  if (b->dbb_offset < end) {
    b->dbb_flag |= DBB_BAD;
    r->dbr_gen_flag |= DBR_FORMAT_ERROR;
    return VE_DB_FORMAT;
  }
  if (b->dbb_offset + b->dbb_frag_size >= r->dbr_size) {
    b->dbb_frag_size = static_cast<std::uint16_t>(r->dbr_size - b->dbb_offset);
    r->dbr_gen_flag |= DBR_COMPLETE;
  }
  last->dbb_next_blkno = blkno;
  r->dbr_last_blkno = blkno;
  if (r->dbr_ops && r->dbr_ops->rop_unformat) {
    int err = r->dbr_ops->rop_unformat(db, r, payload, b->dbb_offset, b->dbb_frag_size);
    if (err != 0) {
      b->dbb_flag |= DBB_BAD;
      r->dbr_gen_flag |= DBR_FORMAT_ERROR;
      return err;
    }
  }
  return 0;
}

int extract_continuation(dbase* db, std::size_t blkno, db_block* b, const block_header& bh) {
  int err = 0;
  db_record* r = dbr_find(db, bh.ref);
  if (r != nullptr) {
    if (bh.nfrag != fragments_for(db, r->dbr_size)) {
      b->dbb_flag |= DBB_BAD;
      r->dbr_gen_flag |= DBR_FORMAT_ERROR;
      return VE_DB_FORMAT;
    }
    b->dbb_record = r;
    err = extract_more_record(db, r, blkno, b, bh.payload);
  } else {
    // The record's first block was never seen: keep the fragment on an
    // unhashed placeholder so that recovery can free the block.
    r = new_record(db);
    if (r == nullptr) return VE_NOMEM;
    r->dbr_ref = bh.ref;
    r->dbr_gen_flag = DBR_INCOMPLETE;
    retire_record(db, r);
    b->dbb_record = r;
  }
  if (r->dbr_gen_flag & DBR_INCOMPLETE) {
    db->ddb_flag |= DDB_INCOMPLETE;
    b->dbb_flag |= DBB_INCOMPLETE;
    r->dbr_first_blkno = DDB_NOBLOCK;
  }
  return err;
}

int extract_block(dbase* db, std::size_t blkno, const std::uint8_t* p) {
  db_block* b = block_at(db, blkno);
  if (b == nullptr) return VE_NOMEM;
  block_header bh = decode_block_header(db, p);
  b->dbb_next_blkno = DDB_NOBLOCK;
  b->dbb_record = nullptr;
  b->dbb_flag = 0;
  if (!bh.magic_ok) {
    b->dbb_flag |= DBB_BAD;
    return VE_BAD_MAGIC;
  }
  if (bh.blkno != blkno) {
    b->dbb_flag |= DBB_BAD;
    return VE_BAD_BLOCKNO;
  }
  if (bh.ref == 0) return 0;
  if (!framing_usable(db)) {
    b->dbb_flag |= DBB_BAD;
    return VE_DB_FORMAT;
  }
  b->dbb_offset = ddb_fragment_offset(db, bh.frag);
  b->dbb_frag_size = static_cast<std::uint16_t>(db->ddb_blksize - DDB_BLKHDR_SIZE);
  if (bh.frag == 0) return extract_new_record(db, blkno, b, bh);
  return extract_continuation(db, blkno, b, bh);
}

// Block sizes whose block header fits inside a block.
bool block_header_fits(const dbase* db) {
  std::size_t hdr = (db->ddb_flag & DDB_COMPACT) ? DDB_C_BLKHDR_SIZE : DDB_BLKHDR_SIZE;
  return db->ddb_blksize >= hdr;
}

// Used data blocks among the materialised entries.
std::size_t used_data_blocks(const dbase* db) {
  std::size_t used = 0;
  std::size_t first = header_blocks(db);
  for (std::size_t i = ddb_block_next(db, first); i < db->ddb_nblocks;
       i = ddb_block_next(db, i + 1)) {
    if (ddb_block(db, i).dbb_record != nullptr) ++used;
  }
  return used;
}

// Replication links of groups older than version 60 carry only IPv4
// addresses: mirror them into the IPv6 members.
void fix_replication_links(dbase* db) {
  const dbase_ops* ops = db->ddb_ops;
  if (ops == nullptr || ops->dop_record_contents == nullptr) return;
  const dgrec* dg = nullptr;
  dbrec_iter it;
  dbrlist_iter(&it, db);
  while (db_record* r = dbrlist_next(&it)) {
    void* p = nullptr;
    if (ops->dop_record_contents(db, r, &p) == REC_TYPE_DG && p != nullptr) {
      dg = static_cast<const dgrec*>(p);
      break;
    }
  }
  if (dg == nullptr || dg->dg_version > 59) return;
  dbrlist_iter(&it, db);
  while (db_record* r = dbrlist_next(&it)) {
    void* p = nullptr;
    if (ops->dop_record_contents(db, r, &p) != REC_TYPE_REP || p == nullptr) continue;
    auto* rp = static_cast<reprec*>(p);
    const std::pair<const PORTINFO*, PORTINFO6*> pairs[] = {
        {&rp->rp_net_address, &rp->rp_net_address6},
        {&rp->rp_local_address, &rp->rp_local_address6}};
    for (const auto& [v4, v6] : pairs) {
      v6->portno = v4->portno;
      v6->ipaddress.family = 2;
      v6->ipaddress.addr.words[0] = static_cast<std::uint32_t>(v4->ipaddress);
    }
  }
}

int change_size(dbase* db, std::size_t newnblks, bool mark_added) {
  if (db->ddb_blocks == nullptr) {
    db->ddb_blocks = new (std::nothrow) db_block_table;
    if (db->ddb_blocks == nullptr) return VE_NOMEM;
    db->ddb_nblocks = db->ddb_alloclim = newnblks;
    db->ddb_freeblks = db->ddb_pend_freeblks = newnblks - header_blocks(db);
    if (mark_added && newnblks > 0) db->ddb_blocks->write_ranges.emplace_back(0, newnblks);
    return 0;
  }
  std::size_t old = db->ddb_nblocks;
  if (newnblks == old) return 0;
  db_block_table* t = db->ddb_blocks;
  if (newnblks < old) {
    for (std::size_t i = ddb_block_next(db, newnblks); i < old; i = ddb_block_next(db, i + 1)) {
      if (ddb_block(db, i).dbb_record != nullptr) return VE_DB_FULL;
    }
    // Entries past the end return to the initial state.
    for (auto it = t->pages.lower_bound(newnblks / db_block_table::DBT_PAGE);
         it != t->pages.end();) {
      std::size_t first = it->first * db_block_table::DBT_PAGE;
      if (first >= newnblks) {
        t->last_page = DDB_NOBLOCK;
        t->dir_set(it->first, nullptr);
        it = t->pages.erase(it);
        continue;
      }
      for (std::size_t i = newnblks - first; i < db_block_table::DBT_PAGE; ++i) {
        it->second[i] = initial_block;
      }
      ++it;
    }
    for (auto& r : t->write_ranges) {
      if (r.second > newnblks) r.second = newnblks < r.first ? r.first : newnblks;
    }
  } else if (mark_added) {
    t->write_ranges.emplace_back(old, newnblks);
    for (auto it = t->pages.lower_bound(old / db_block_table::DBT_PAGE); it != t->pages.end();
         ++it) {
      std::size_t first = it->first * db_block_table::DBT_PAGE;
      for (std::size_t i = 0; i < db_block_table::DBT_PAGE; ++i) {
        if (first + i >= old && first + i < newnblks) it->second[i] = initial_write_block;
      }
    }
  }
  db->ddb_nblocks = db->ddb_alloclim = newnblks;
  db->ddb_freeblks += newnblks - old;
  db->ddb_pend_freeblks += newnblks - old;
  return 0;
}

}  // namespace

std::size_t ddb_record_blocks(const dbase* db, std::size_t size) {
  return (db->ddb_blksize + size - 9) / (db->ddb_blksize - DDB_BLKHDR_SIZE);
}

std::size_t ddb_fragment_offset(const dbase* db, std::size_t frag) {
  return frag == 0 ? 0 : (db->ddb_blksize - DDB_BLKHDR_SIZE) * frag - DDB_RECHDR_SIZE;
}

std::size_t ddb_fragment_room(const dbase* db, std::size_t frag) {
  std::size_t payload = db->ddb_blksize - DDB_BLKHDR_SIZE;
  return frag == 0 ? payload - DDB_RECHDR_SIZE : payload;
}

std::uint8_t* ddb_format_block(const dbase* db, std::uint8_t* blk, std::size_t blkno,
                               unsigned long ref, std::size_t frag, std::size_t nfrag,
                               const db_record* r) {
  std::uint8_t* p = blk;
  if (db->ddb_flag & DDB_COMPACT) {
    p[0] = 'L';
    p[1] = 'K';
    p[2] = static_cast<std::uint8_t>(blkno);
    p[3] = static_cast<std::uint8_t>(ref);
    p[4] = static_cast<std::uint8_t>(frag);
    p[5] = static_cast<std::uint8_t>(nfrag);
    p += DDB_C_BLKHDR_SIZE;
    if (frag == 0 && r != nullptr) {
      p[0] = static_cast<std::uint8_t>(r->dbr_flag);
      p[1] = static_cast<std::uint8_t>(r->dbr_type);
      put_be16(p + 2, static_cast<std::uint16_t>(r->dbr_size));
      p += DDB_C_RECHDR_SIZE;
    }
    return p;
  }
  std::memcpy(p, ddb_blkhdr_magic, DDB_BLKHDR_MAGIC_LEN);
  put_be32(p + DDB_BLKHDR_OFF_BLKNO, static_cast<std::uint32_t>(blkno));
  put_be32(p + DDB_BLKHDR_OFF_REF, static_cast<std::uint32_t>(ref));
  put_be16(p + DDB_BLKHDR_OFF_FRAG, static_cast<std::uint16_t>(frag));
  put_be16(p + DDB_BLKHDR_OFF_NFRAG, static_cast<std::uint16_t>(nfrag));
  p += DDB_BLKHDR_SIZE;
  if (frag == 0 && r != nullptr) {
    put_be16(p, r->dbr_flag);
    put_be16(p + 2, static_cast<std::uint16_t>(r->dbr_type));
    put_be32(p + 4, static_cast<std::uint32_t>(r->dbr_size));
    p += DDB_RECHDR_SIZE;
  }
  return p;
}

const std::uint8_t* ddb_block_header_decode(const std::uint8_t* p, const std::uint8_t* lim,
                                            ddb_blkhdr_info* out) {
  if (p == nullptr || lim < p || static_cast<std::size_t>(lim - p) < DDB_BLKHDR_SIZE)
    return nullptr;
  out->dbh_magic_ok = std::memcmp(p, ddb_blkhdr_magic, DDB_BLKHDR_MAGIC_LEN) == 0;
  out->dbh_blkno = get_be32(p + DDB_BLKHDR_OFF_BLKNO);
  out->dbh_ref = get_be32(p + DDB_BLKHDR_OFF_REF);
  out->dbh_frag = get_be16(p + DDB_BLKHDR_OFF_FRAG);
  out->dbh_nfrag = get_be16(p + DDB_BLKHDR_OFF_NFRAG);
  return p + DDB_BLKHDR_SIZE;
}

const db_block& ddb_block(const dbase* db, std::size_t blkno) {
  const db_block_table* t = db->ddb_blocks;
  if (t == nullptr) return initial_block;
  if (const db_block* entries = t->find_page(blkno / db_block_table::DBT_PAGE)) {
    return entries[blkno % db_block_table::DBT_PAGE];
  }
  return in_write_range(t, blkno) ? initial_write_block : initial_block;
}

std::size_t ddb_block_next(const dbase* db, std::size_t from) {
  const db_block_table* t = db->ddb_blocks;
  if (t == nullptr || from == DDB_NOBLOCK) return DDB_NOBLOCK;
  auto it = t->pages.lower_bound(from / db_block_table::DBT_PAGE);
  if (it == t->pages.end()) return DDB_NOBLOCK;
  std::size_t first = it->first * db_block_table::DBT_PAGE;
  return from > first ? from : first;
}

std::size_t ddb_block_count(const dbase* db) {
  return db->ddb_blocks == nullptr ? 0 : db->ddb_blocks->pages.size() * db_block_table::DBT_PAGE;
}

dbase* ddb_alloc(const dbase_ops* ops) {
  auto* db = static_cast<dbase*>(std::calloc(1, sizeof(dbase)));
  if (db == nullptr) return nullptr;
  db->ddb_rindex = new (std::nothrow) db_record_index;
  if (db->ddb_rindex == nullptr) {
    std::free(db);
    return nullptr;
  }
  db->ddb_ops = ops;
  return db;
}

void ddb_free(dbase* db) {
  if (db == nullptr) return;
  db_record_index* ix = db->ddb_rindex;
  // Records an owner added: only then are the chains walked.
  if (ix->foreign != 0) {
    for (db_record* head : db->ddb_record_buckets) {
      for (db_record* r = head; r != nullptr;) {
        db_record* next = r->dbr_next;
        if (!r->dbr_slab) release_record(r);
        r = next;
      }
    }
  }
  while (db_record* r = db->ddb_unhashed) {
    db->ddb_unhashed = r->dbr_next;
    if (!r->dbr_slab) release_record(r);
  }
  for (std::size_t i = 0; i < ix->slabs.size(); ++i) {
    const std::size_t n = i + 1 == ix->slabs.size() ? ix->slab_used : db_record_index::SLAB;
    for (std::size_t k = 0; k < n; ++k) std::free(ix->slabs[i][k].dbr_build);
  }
  delete db->ddb_blocks;
  db->ddb_blocks = nullptr;
  delete ix;
  db->ddb_rindex = nullptr;
  if (db->ddb_ops && db->ddb_ops->dop_free) db->ddb_ops->dop_free(db);
  std::free(db);
}

int ddb_setsize(dbase* db, std::size_t newnblks) { return change_size(db, newnblks, false); }
int ddb_resize(dbase* db, std::size_t newnblks) { return change_size(db, newnblks, true); }

int ddb_creat(dbase* db) {
  delete db->ddb_blocks;
  db->ddb_blocks = new (std::nothrow) db_block_table;
  if (db->ddb_blocks == nullptr) return VE_NOMEM;
  db->ddb_alloclim = db->ddb_nblocks;
  return 0;
}

int ddb_extract(dbase* db, const std::uint8_t* buf, std::size_t offset, std::size_t len) {
  if (offset == 0) {
    if (db->ddb_ops && db->ddb_ops->dop_unformat_header) {
      int err = db->ddb_ops->dop_unformat_header(db, buf, len);
      if (err != 0) return err;
    }
    std::size_t skip = db->ddb_hdrsize < len ? db->ddb_hdrsize : len;
    buf += skip;
    offset += skip;
    len -= skip;
  }
  if (len == 0 || db->ddb_nblocks == 0) return 0;
  if (!block_header_fits(db)) return VE_DB_FORMAT;
  for (std::size_t blkno = offset / db->ddb_blksize; len > 0 && blkno < db->ddb_nblocks;
       ++blkno) {
    if (len < db->ddb_blksize) return VE_SHORT_READ;
    int err = extract_block(db, blkno, buf);
    if (err != 0) return err;
    buf += db->ddb_blksize;
    len -= db->ddb_blksize;
  }
  return 0;
}

int ddb_extract_done(dbase* db) {
  fix_replication_links(db);
  dbrec_iter it;
  dbrlist_iter(&it, db);
  while (db_record* r = dbrlist_next(&it)) {
    if (!(r->dbr_gen_flag & DBR_COMPLETE)) {
      r->dbr_gen_flag |= DBR_INCOMPLETE;
      r->dbr_first_blkno = DDB_NOBLOCK;
      db->ddb_flag |= DDB_INCOMPLETE;
    } else if (r->dbr_gen_flag & DBR_REFUSED) {
      db->ddb_flag |= DDB_REFUSED;
    }
  }
  std::size_t hdr = header_blocks(db);
  std::size_t data = db->ddb_nblocks > hdr ? db->ddb_nblocks - hdr : 0;
  db->ddb_freeblks = db->ddb_pend_freeblks = data - used_data_blocks(db);
  return (db->ddb_flag & (DDB_INCOMPLETE | DDB_REFUSED)) ? 1 : 0;
}

void ddb_extract_recover(dbase* db) {
  for (std::size_t i = ddb_block_next(db, header_blocks(db)); i < db->ddb_nblocks;
       i = ddb_block_next(db, i + 1)) {
    db_block* b = block_at(db, i);  // materialised: cannot fail
    const db_record* r = b->dbb_record;
    bool drop = (b->dbb_flag & DBB_INCOMPLETE) ||
                (r != nullptr && (r->dbr_gen_flag & (DBR_INCOMPLETE | DBR_REFUSED)));
    if (!drop) continue;
    b->dbb_next_blkno = DDB_NOBLOCK;
    b->dbb_offset = 0;
    b->dbb_frag_size = 0;
    b->dbb_flag |= DBB_WRITE;
    if (r != nullptr) {
      b->dbb_record = nullptr;
      ++db->ddb_freeblks;
      ++db->ddb_pend_freeblks;
    }
  }
  dbrec_iter it;
  dbrlist_iter(&it, db);
  while (db_record* r = dbrlist_next(&it)) {
    if (r->dbr_gen_flag & (DBR_INCOMPLETE | DBR_REFUSED)) {
      dbr_delete(db, r);
      retire_record(db, r);
    }
  }
}

void dbrlist_iter(dbrec_iter* it, dbase* db) {
  it->dbi_dbase = db;
  it->dbi_bucket = db->ddb_record_buckets;
  it->dbi_nleft = DDB_NBUCKETS;
  it->dbi_next = nullptr;
  // Position on the first record.
  while (it->dbi_nleft > 0 && *it->dbi_bucket == nullptr) {
    ++it->dbi_bucket;
    --it->dbi_nleft;
  }
  if (it->dbi_nleft > 0) it->dbi_next = *it->dbi_bucket;
}

db_record* dbrlist_next(dbrec_iter* it) {
  db_record* r = it->dbi_next;
  if (r == nullptr) return nullptr;
  // Fetch the successor first: the caller may release `r`.
  if (r->dbr_next != nullptr) {
    it->dbi_next = r->dbr_next;
    return r;
  }
  it->dbi_next = nullptr;
  while (it->dbi_nleft > 1) {
    ++it->dbi_bucket;
    --it->dbi_nleft;
    if (*it->dbi_bucket != nullptr) {
      it->dbi_next = *it->dbi_bucket;
      break;
    }
  }
  return r;
}

}  // namespace pd
