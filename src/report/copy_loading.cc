// Configuration copy loading: copy selection, the copy reader, feeding the
// block store and the store's callbacks.
#include "report/copy_loading.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "base/errors.h"
#include "io/io_buffers.h"
#include "codec/integers.h"
#include "codec/text_forms.h"
#include "config_db/record_layouts.h"
#include "io/dump_device.h"
#include "io/findings.h"
#include "io/messages.h"

namespace pd {

namespace {

// Bytes handed to the store per call, and blocks per read.
constexpr std::size_t CONFIG_BLOCK = 512;
constexpr std::size_t CONFIG_RUN_BLOCKS = 128;
constexpr std::size_t CONFIG_BUFSIZE = 0x200000;  // 2 MiB

// Transaction states of the store's state nibble.
constexpr unsigned STATE_CLEAN = 1;
constexpr unsigned STATE_COMMIT = 3;
constexpr unsigned STATE_ABORT = 4;

config_report& owner(dbase* db) { return *static_cast<config_report*>(db->ddb_private); }

int cb_init_record(dbase* db, db_record* r) { return owner(db).init_record(r); }
int cb_new_record(dbase*, db_record*) { return 0; }
int cb_format_header(dbase*, std::uint8_t*, std::size_t) { return 0; }
int cb_unformat_header(dbase* db, const std::uint8_t* buf, std::size_t len) {
  return owner(db).unformat_header(buf, len);
}
int cb_write(dbase*, std::size_t, const std::uint8_t*, std::size_t) { return 0; }
void cb_free(dbase*) {}
int cb_record_contents(dbase*, db_record* r, void** decoded) {
  const record* rec = record_of(r);
  if (rec == nullptr || rec->u == nullptr) return -1;
  *decoded = rec->u;
  return rec->type;
}

int cb_unformat_record(dbase* db, db_record* r, const std::uint8_t* frag, std::size_t offset,
                       std::size_t length) {
  return owner(db).unformat_record(r, frag, offset, length);
}
int cb_add_new_record(dbase* db, db_record* r, int ns, volrid_t rid, const char* rname,
                      voldguid_t guid, void** rawpp) {
  return owner(db).add_new_record(r, ns, rid, rname, guid, rawpp);
}
void cb_free_record(dbase*, db_record*) {}

constexpr dbase_ops dbops = {
    cb_init_record, cb_new_record, cb_format_header, cb_unformat_header,
    cb_write,       cb_free,       cb_record_contents,
};
constexpr dbrec_ops rops = {nullptr, nullptr, cb_unformat_record, cb_free_record};

[[noreturn]] void die_nomem(session& s) {
  volpfmt(s, s.err, 1, ":734:Memory allocation failure\n");
  throw fatal_exit{1, fatal_kind::memory};
}

bool copy_disabled(const copy_info* cp) {
  return (cp->ci_parts[0]->tei_region.dkr_flags & DKR_DISABLED) != 0;
}

// The copy `copy` names (the first enabled one when negative), or null.
copy_info* select_copy(priv_info* priv, int copy) {
  for (copy_info* cp = priv->pri_config_copies; cp != nullptr; cp = cp->ci_next) {
    if (copy < 0 ? !copy_disabled(cp) : cp->ci_copy == copy) return cp;
  }
  return nullptr;
}

// Where a record decoded with this layout can hold heap members (wide and
// byte strings): their offsets, over all of the layout's groups.
std::vector<std::size_t> heap_member_offsets(const rec2field* r2f) {
  std::vector<std::size_t> offsets;
  if (r2f == nullptr) return offsets;
  for (const r2f_group& g : r2f->r2f_tbls) {
    if (g.nflds == 0) break;
    for (std::size_t i = 0; i < g.nflds; ++i) {
      const dbf_type t = g.ftbl[i].dbf_type;
      if (t == DBF_TYPE_AWSTRING || t == DBF_TYPE_VBYTE) offsets.push_back(g.ftbl[i].dbf_offset);
    }
  }
  return offsets;
}

bool holds_heap_member(const void* u, const std::vector<std::size_t>& offsets) {
  for (std::size_t off : offsets) {
    void* p = nullptr;
    std::memcpy(&p, static_cast<const std::uint8_t*>(u) + off, sizeof p);
    if (p != nullptr) return true;
  }
  return false;
}

}  // namespace

std::size_t record_room(int type) {
  // The kinds the report keeps decoded fields for; their structures are the
  // store's own.
  switch (type) {
    case REC_TYPE_VOL: case REC_TYPE_PLEX: case REC_TYPE_SD: case REC_TYPE_DM:
    case REC_TYPE_DG: case REC_TYPE_DA: case REC_TYPE_RVOL: case REC_TYPE_REP:
    case REC_TYPE_DCO: case REC_TYPE_SNAP: case REC_TYPE_CACHE:
      return voldbsup_struct_size(static_cast<std::uint32_t>(type));
    default: return 0;
  }
}

int safe_strcpy(char* strDestination, const char* strSource) {
  if (strSource == nullptr) {
    strDestination[0] = '\0';
    return 1;
  }
  std::strcpy(strDestination, strSource);
  return 0;
}

int safe_wcscpy(wchar_t* strDestination, const wchar_t* strSource) {
  if (strSource == nullptr) {
    strDestination[0] = L'\0';
    return 1;
  }
  std::wcscpy(strDestination, strSource);
  return 0;
}

std::size_t pack_fields(const std::uint8_t* s, std::size_t n, std::uint8_t* out) {
  const std::size_t words = (n + 7) / 8;
  const std::size_t map = (words + 7) / 8;
  std::memset(out, 0, map);
  std::size_t o = map;
  for (std::size_t w = 0; w < words; ++w) {
    std::uint64_t v = 0;
    std::memcpy(&v, s + 8 * w, n - 8 * w < 8 ? n - 8 * w : 8);
    if (v == 0) continue;
    out[w / 8] = static_cast<std::uint8_t>(out[w / 8] | (1u << (w % 8)));
    std::memcpy(out + o, &v, 8);
    o += 8;
  }
  return o;
}

void unpack_bytes(const std::uint8_t* packed, std::size_t n, std::size_t off, std::size_t len,
                  void* out) {
  auto* dst = static_cast<std::uint8_t*>(out);
  std::memset(dst, 0, len);
  if (len == 0 || off >= n) return;
  const std::size_t words = (n + 7) / 8;
  const std::size_t map = (words + 7) / 8;
  const std::size_t end = off + len < n ? off + len : n;
  // The words kept before the first one wanted.
  std::size_t w = off / 8;
  std::size_t rank = 0;
  for (std::size_t i = 0; i < w / 8; ++i) rank += static_cast<std::size_t>(__builtin_popcount(packed[i]));
  rank += static_cast<std::size_t>(__builtin_popcount(packed[w / 8] & ((1u << (w % 8)) - 1)));
  for (; w < words && 8 * w < end; ++w) {
    if ((packed[w / 8] & (1u << (w % 8))) == 0) continue;
    const std::uint8_t* word = packed + map + 8 * rank++;
    // The overlap of [8w, 8w + 8) with [off, end).
    const std::size_t from = 8 * w > off ? 8 * w : off;
    const std::size_t to = 8 * w + 8 < end ? 8 * w + 8 : end;
    std::memcpy(dst + (from - off), word + (from - 8 * w), to - from);
  }
}

void record_bytes(const record* rec, std::size_t off, std::size_t len, void* out) {
  if (rec != nullptr && rec->u != nullptr) {
    std::memcpy(out, static_cast<const std::uint8_t*>(rec->u) + off, len);
  } else if (rec != nullptr && rec->packed != nullptr) {
    unpack_bytes(rec->packed, record_room(rec->type), off, len, out);
  } else {
    std::memset(out, 0, len);
  }
}

const void* record_fields(const record* rec, urec& scratch) {
  if (rec == nullptr) return nullptr;
  if (rec->u != nullptr) return rec->u;
  if (rec->packed == nullptr) return nullptr;
  unpack_bytes(rec->packed, record_room(rec->type), 0, sizeof scratch, &scratch);
  return &scratch;
}

config_report::config_report(session& sess) : s(sess) {}

const std::vector<std::size_t>& config_report::heap_offsets(std::uint32_t type_word) {
  const std::uint32_t code = type_word & RTYPE_CODE_MASK;
  if (!heap_known_[code]) {
    heap_offsets_[code] = heap_member_offsets(find_rec2field(type_word));
    heap_known_[code] = true;
  }
  return heap_offsets_[code];
}

config_report::~config_report() {
  // Only a record whose layout has wide or byte strings, and that holds
  // one, has heap members to release (packed records hold none).
  for (record* rec : own_fields_) {
    if (holds_heap_member(rec->u, heap_offsets(rec->type_word))) {
      release_decoded(rec->type_word, rec->u);
    }
  }
  release_decoded(0, nullptr);
  ddb_free(db);
}

// Frees the heap members (wide strings, byte strings) decoding attached to
// `sp`; with a null `sp`, those of the scratch structure, which is cleared.
void config_report::release_decoded(std::uint32_t type_word, void* sp) {
  if (sp == nullptr) {
    if (!scratch_used_) return;
    sp = scratch_.get();
    type_word = scratch_type_;
  }
  // Most records hold no wide or byte string: nothing to walk the layout for.
  if (holds_heap_member(sp, heap_offsets(type_word))) {
    if (const rec2field* r2f = find_rec2field(type_word)) voldbf_free_tbl(r2f, sp);
  }
  if (sp == scratch_.get()) {
    std::memset(static_cast<void*>(scratch_.get()), 0, sizeof(urec));
    scratch_used_ = false;
  }
}

void* config_report::arena_alloc(std::size_t size, std::size_t align) {
  arena_used_ = (arena_used_ + align - 1) / align * align;
  if (size > ARENA_BLOCK) return nullptr;
  if (arena_used_ > ARENA_BLOCK || ARENA_BLOCK - arena_used_ < size) {
    // Zeroed pages straight from the system: no clearing pass.
    std::unique_ptr<std::uint8_t[], arena_free> block(
        static_cast<std::uint8_t*>(std::calloc(1, ARENA_BLOCK)));
    if (!block) return nullptr;
    arena_.push_back(std::move(block));
    arena_used_ = 0;
  }
  void* p = arena_.back().get() + arena_used_;
  arena_used_ += size;
  return p;
}

int config_report::configcopy_setup() {
  db = ddb_alloc(&dbops);
  if (db == nullptr) die_nomem(s);
  db->ddb_private = this;
  configcopy_eof_called = 0;
  return 1;
}

int config_report::unformat_header(const std::uint8_t* buf, std::size_t bufsize) {
  // The header decoder is always given one 512-byte piece.
  const int res =
      voldbsup_unformat_header(db, buf, std::min(bufsize, VOLDB_HDR_DECODE), &hdrinfo);
  if (res != 0) {
    volpfmt(s, s.err, 1, ":649:Fatal error in header: %s\n", vol_strerror(res));
    throw fatal_exit{1, fatal_kind::no_copy};
  }
  unsigned state = hdrinfo.vdbi_commit_state;
  if (state == VDBI_CHANGE) {
    state = s.c_commit != 0 ? STATE_COMMIT : STATE_ABORT;
  } else if (state != STATE_CLEAN && state != STATE_COMMIT && state != STATE_ABORT) {
    state = STATE_ABORT;
  }
  db->ddb_flag = (db->ddb_flag & ~DDB_STATE_MASK) | (state << DDB_STATE_SHIFT);
  // The header-size fault deliberately reuses the block-size text.
  if (db->ddb_hdrsize > CONFIG_BLOCK) {
    volpfmt(s, s.err, 1, ":414:Bad block size in header (%lu)\n",
            static_cast<unsigned long>(db->ddb_hdrsize));
    throw fatal_exit{1, fatal_kind::no_copy};
  }
  if (db->ddb_blksize == 0 || db->ddb_blksize > 8192) {
    volpfmt(s, s.err, 1, ":414:Bad block size in header (%lu)\n",
            static_cast<unsigned long>(db->ddb_blksize));
    throw fatal_exit{1, fatal_kind::no_copy};
  }
  const int sres = ddb_setsize(db, db->ddb_nblocks);
  if (sres != 0) {
    volpfmt(s, s.err, 1, ":1548:ddb_setsize failed: %s\n", vol_strerror(sres));
    throw fatal_exit{1, fatal_kind::no_copy};
  }
  return 0;
}

int config_report::init_record(db_record* r) {
  r->dbr_ops = &rops;
  return voldbsup_init_record(db, r);
}

int config_report::unformat_record(db_record* r, const std::uint8_t* buf,
                                   std::size_t frag_offset, std::size_t frag_size) {
  const int res = voldbsup_unformat_record(db, r, buf, frag_offset, frag_size, cb_add_new_record);
  if (to_keep_ != nullptr) {
    keep_fields(to_keep_);
    to_keep_ = nullptr;
  }
  // Fields of a type without room of its own are not kept.
  release_decoded(0, nullptr);
  return res;
}

void config_report::keep_fields(record* rec) {
  const std::size_t n = record_room(rec->type);
  const auto* fields = reinterpret_cast<const std::uint8_t*>(scratch_.get());
  if (holds_heap_member(fields, heap_offsets(rec->type_word))) {
    // The structure keeps its heap members: they are released with it.
    void* u = arena_alloc(n);
    if (u == nullptr) die_nomem(s);
    std::memcpy(u, fields, n);
    rec->u = u;
    own_fields_.push_back(rec);
    // The heap members are the record's now: the scratch starts clear again.
    std::memset(static_cast<void*>(scratch_.get()), 0, sizeof(urec));
    scratch_used_ = false;
    return;
  }
  std::uint8_t packed[packed_size_max(sizeof(urec))];
  const std::size_t len = pack_fields(fields, n, packed);
  void* p = arena_alloc(len, 1);
  if (p == nullptr) die_nomem(s);
  std::memcpy(p, packed, len);
  rec->packed = static_cast<const std::uint8_t*>(p);
}

int config_report::add_new_record(db_record* r, int rec_namespace, volrid_t rid,
                                  const char* rname, voldguid_t /*guid*/, void** rawpp) {
  const int type = static_cast<int>(r->dbr_type & 15);
  const bool pack = pack_records && (type == REC_TYPE_VOL || type == REC_TYPE_PLEX ||
                                     type == REC_TYPE_SD || type == REC_TYPE_DM);
  const std::size_t room = pack ? 0 : record_room(type);
  void* mem = arena_alloc(sizeof(record), alignof(record));
  void* u = room != 0 ? arena_alloc(room) : nullptr;
  if (mem == nullptr || (room != 0 && u == nullptr)) die_nomem(s);
  record* rec = new (mem) record{};
  rec->u = u;
  if (u != nullptr) own_fields_.push_back(rec);
  rec->dbrec = r;
  rec->type = type;
  rec->rid = rid;
  rec->rec_namespace = rec_namespace;
  rec->type_word = r->dbr_type;
  // At most 31 characters of the name are kept.
  if (rname != nullptr) {
    const std::size_t n = strnlen(rname, sizeof rec->name - 1);
    std::memcpy(rec->name, rname, n);
    rec->name[n] = '\0';
  }
  r->dbr_private = rec;
  if (rec->u != nullptr) {
    *rawpp = rec->u;
  } else {
    // The scratch is clear unless a decoding left it in use.
    if (!scratch_) scratch_ = std::make_unique<urec>();
    if (scratch_used_) std::memset(static_cast<void*>(scratch_.get()), 0, sizeof(urec));
    scratch_used_ = true;
    scratch_type_ = r->dbr_type;
    *rawpp = scratch_.get();
    if (pack) to_keep_ = rec;
  }
  if (rlast != nullptr) {
    rlast->next = rec;
  } else {
    rlist = rec;
  }
  rlast = rec;
  return 0;
}

template <class Eof>
int config_report::feed(std::uint8_t* buf, std::size_t cpoffset, std::size_t nblksread, Eof eof) {
  std::int64_t offset = static_cast<std::int64_t>(cpoffset * CONFIG_BLOCK);
  std::int32_t cc = static_cast<std::int32_t>(nblksread * CONFIG_BLOCK);
  unsigned blkno = static_cast<unsigned>(cpoffset);
  const std::uint8_t* bp = buf;
  bool failed = false;
  while (cc >= static_cast<std::int32_t>(CONFIG_BLOCK) && !failed) {
    const int res = ddb_extract(db, bp, static_cast<std::size_t>(offset), CONFIG_BLOCK);
    if (res != 0) {
      finding f;
      f.code = finding_code::extract_error;
      f.text = volsfmt(s, 1, ":624:Error (File block %u): %s", blkno, vol_strerror(res));
      f.place.block = blkno;
      place_in_copy(f.place);
      raise_finding(s, f);
      lastres = res;
      if (eof() != 1) return -1;
      failed = true;
    }
    offset += CONFIG_BLOCK;
    ++blkno;
    bp += CONFIG_BLOCK;
    cc -= static_cast<std::int32_t>(CONFIG_BLOCK);
  }
  lastoffset = offset;
  const auto dbsize = static_cast<std::int64_t>(db->ddb_nblocks * db->ddb_blksize);
  if (dbsize < offset || failed) return eof() == 1 ? 1 : -1;
  return 1;
}

int config_report::configcopy_more(std::uint8_t* buf, std::size_t cpoffset,
                                   std::size_t nblksread) {
  return feed(buf, cpoffset, nblksread, [this] { return configcopy_eof(); });
}

int config_report::config_disksetID_more(std::uint8_t* buf, std::size_t cpoffset,
                                         std::size_t nblksread, char* disksetID) {
  return feed(buf, cpoffset, nblksread, [&] { return config_disksetID_eof(disksetID); });
}

int config_report::config_disksetID_eof(char* disksetID) {
  dbrec_iter it;
  dbrlist_iter(&it, db);
  while (db_record* r = dbrlist_next(&it)) {
    const record* rec = record_of(r);
    if (rec != nullptr && rec->type == REC_TYPE_DG) {
      voldguid_to_string(disksetID, &rec->dg()->dg_nt_diskset_id);
      return 1;
    }
  }
  return -1;
}

int config_report::LoadRecords(std::uint8_t* buf, std::size_t cpoffset, std::size_t nblksread) {
  std::int64_t offset = static_cast<std::int64_t>(cpoffset * CONFIG_BLOCK);
  std::int32_t cc = static_cast<std::int32_t>(nblksread * CONFIG_BLOCK);
  unsigned blkno = static_cast<unsigned>(cpoffset);
  const std::uint8_t* bp = buf;
  while (cc >= static_cast<std::int32_t>(CONFIG_BLOCK)) {
    const int res = ddb_extract(db, bp, static_cast<std::size_t>(offset), CONFIG_BLOCK);
    if (res != 0) {
      // Deliberately on the output stream.
      volpfmt(s, s.out, 1, ":624:Error (File block %u): %s\n", blkno, vol_strerror(res));
      return -1;
    }
    offset += CONFIG_BLOCK;
    ++blkno;
    bp += CONFIG_BLOCK;
    cc -= static_cast<std::int32_t>(CONFIG_BLOCK);
  }
  lastoffset = offset;
  return 1;
}

int config_report::configcopy_eof() {
  if (configcopy_eof_called != 0) return 1;
  configcopy_eof_called = 1;
  if (db->ddb_hdrsize == 0) {
    volpfmt(s, s.err, 1, ":668:Header not found\n");
    throw fatal_exit{1, fatal_kind::no_copy};
  }
  const auto dbsize = static_cast<std::int64_t>(db->ddb_nblocks * db->ddb_blksize);
  if (dbsize > lastoffset && lastres == 0) {
    finding f;
    f.code = finding_code::premature_eof;
    f.text = volsfmt(s, 1, ":894:Premature EOF; %ld bytes expected", static_cast<long>(dbsize));
    f.expected = std::to_string(dbsize);
    f.actual = std::to_string(lastoffset);
    f.place.block = lastoffset / static_cast<std::int64_t>(CONFIG_BLOCK);
    place_in_copy(f.place);
    raise_finding(s, f);
  }
  overview_analyse(view, db, hdrinfo, s.m_qzmake_format);
  for (placed_finding& p : view.findings) place_in_copy(p.f.place);
  if (print_report) {
    print_overview(s, db, hdrinfo, view);
  } else {
    raise_overview_findings(s, view);
  }
  return 1;
}

void config_report::place_in_copy(finding_place& at) const {
  if (copy == nullptr) return;
  place_in_copy_block(priv, copy, at);
  at.structure = "config copy";
}

void place_in_copy_block(const priv_info* priv, const copy_info* cp, finding_place& at) {
  at.copy = cp->ci_copy;
  if (at.block < 0 || priv == nullptr || priv->pri_header == nullptr) return;
  const priv_header_info* hdr = priv->pri_header;
  const auto chunk = static_cast<voff_t>(hdr->phi_chunk_size);
  std::int64_t first = 0;  // the part's first file block
  for (int i = 0; i < cp->ci_npart; ++i) {
    const disk_region& rg = cp->ci_parts[i]->tei_region;
    const std::int64_t len = chunk * rg.dkr_len / 512;
    if (at.block < first + len) {
      at.offset = (chunk * rg.dkr_offset / 512 + (at.block - first)) * 512;
      if (hdr->phi_atomic_iosize != 0) {
        at.sector = at.offset / static_cast<std::int64_t>(hdr->phi_atomic_iosize);
      }
      return;
    }
    first += len;
  }
}

int priv_read_copy(session& s, priv_info* priv, copy_info* cp, std::uint8_t* buf,
                   std::size_t blkno, std::size_t nblks, std::size_t* nread,
                   std::size_t* nbytes) {
  *nread = 0;
  if (nbytes != nullptr) *nbytes = 0;
  const priv_header_info* hdr = priv->pri_header;
  const std::size_t per_sector = hdr->phi_chunk_size == 4096 ? 1 : hdr->phi_atomic_iosize / 512;
  if (per_sector > 1) nblks -= nblks % per_sector;
  const auto chunk = static_cast<voff_t>(hdr->phi_chunk_size);
  std::size_t cpoffset = 0;
  for (int i = 0; i < cp->ci_npart && nblks > 0; ++i) {
    const disk_region& rg = cp->ci_parts[i]->tei_region;
    const auto len = static_cast<std::size_t>(chunk * rg.dkr_len / 512);
    const voff_t start = chunk * rg.dkr_offset / 512;
    if (blkno < cpoffset + len) {
      const std::size_t run = std::min(cpoffset + len - blkno, nblks);
      const voff_t pos = start + static_cast<voff_t>(blkno - cpoffset) + hdr->phi_priv_offset;
      nt_seek_dev(s, s.priv_fd, pos * 512, 0);
      const int cc = nt_read_dev(s, s.priv_fd, buf, run * CONFIG_BLOCK);
      if (cc < 0) {
        volpfmt(s, s.err, 1, ":1712:priv_read_copy: read of %d failed:\n\t%s\n",
                static_cast<int>(run), std::strerror(errno));
        return VE_READ_FAILED;
      }
      if (nbytes != nullptr) *nbytes += static_cast<std::size_t>(cc);
      nblks -= run;
      blkno += run;
      buf += run * CONFIG_BLOCK;
      *nread += run;
    }
    cpoffset += len;
  }
  return 0;
}

int priv_dump_config(session& s, priv_info* priv, int copy, bool print) {
  std::uint8_t* buf = get_aligned_buf(s, CONFIG_BUFSIZE);
  if (buf == nullptr) {
    volpfmt(s, s.err, 1, ":733:Memory allocation failed\n");
    throw fatal_exit{1, fatal_kind::memory};
  }
  if (priv->pri_config_copies == nullptr) {
    volpfmt(s, s.err, 1, ":594:Disk has no config copies\n");
    throw fatal_exit{1, fatal_kind::no_copy};
  }
  copy_info* cp = select_copy(priv, copy);
  if (cp == nullptr) {
    if (copy < 0) {
      volpfmt(s, s.err, 1, ":595:Disk has no enabled config copies\n");
    } else {
      volpfmt(s, s.err, 1, ":566:Disk does not have config copy %d\n", copy);
    }
    throw fatal_exit{1, fatal_kind::no_copy};
  }
  if (print) {
    std::fprintf(s.out, "#Config copy %02lu\n", static_cast<unsigned long>(cp->ci_copy));
    if (copy_disabled(cp)) std::fputs("#NOTE: Copy is disabled\n", s.out);
    std::fputs("\n", s.out);
    std::fflush(s.out);
  }

  config_report rep(s);
  rep.print_report = print;
  rep.pack_records = true;
  return priv_load_config(s, priv, cp, rep);
}

int priv_load_config(session& s, priv_info* priv, copy_info* cp, config_report& rep) {
  std::uint8_t* buf = get_aligned_buf(s, CONFIG_BUFSIZE);
  if (buf == nullptr) {
    volpfmt(s, s.err, 1, ":733:Memory allocation failed\n");
    throw fatal_exit{1, fatal_kind::memory};
  }
  rep.priv = priv;
  rep.copy = cp;
  if (rep.configcopy_setup() != 1) return -2;
  for (std::size_t cpoffset = 0;;) {
    std::size_t nblksread = 0;
    std::size_t nbytes = 0;
    if (priv_read_copy(s, priv, cp, buf, cpoffset, CONFIG_RUN_BLOCKS, &nblksread, &nbytes) != 0) {
      volpfmt(s, s.err, 1, ":640:Failed to read log copy %d\n", cp->ci_copy);
      throw fatal_exit{1, fatal_kind::unreadable};
    }
    if (nblksread == 0) return rep.configcopy_eof() == 1 ? 1 : -2;
    // A run past the end of the image only replays what the buffer holds.
    // Once the report is out, all such a run could add is the same
    // stale-block error again for every run the copy claims: the copy ends.
    if (nbytes == 0 && rep.configcopy_eof_called != 0) return 1;
    if (rep.configcopy_more(buf, cpoffset, nblksread) != 1) return -2;
    cpoffset += nblksread;
  }
}

int priv_dump_config_disksetID(session& s, priv_info* priv, int copy, char* disksetID) {
  std::uint8_t* buf = get_aligned_buf(s, CONFIG_BUFSIZE);
  if (buf == nullptr || priv->pri_config_copies == nullptr) return -2;
  copy_info* cp = select_copy(priv, copy);
  if (cp == nullptr) return -2;
  config_report rep(s);
  if (rep.configcopy_setup() != 1) return -2;
  for (std::size_t cpoffset = 0;;) {
    std::size_t nblksread = 0;
    if (priv_read_copy(s, priv, cp, buf, cpoffset, CONFIG_RUN_BLOCKS, &nblksread) != 0) {
      return -2;
    }
    if (nblksread == 0) return rep.config_disksetID_eof(disksetID);
    if (rep.config_disksetID_more(buf, cpoffset, nblksread, disksetID) != 1) return -2;
    cpoffset += nblksread;
  }
}

}  // namespace pd
