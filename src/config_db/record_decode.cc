// Decoding a record body delivered fragment by fragment, and the check run
// on a record's first block.
//
// The body is assembled in dbr_build (never more than VOLDB_MAX_RECSIZE
// bytes: voldbsup_init_record refuses larger claims before anything is
// allocated, and the assembler refuses them again). Once complete it is
// decoded: extension, anyrec prefix, the GUID pre-decode for volumes and
// plexes, placement by the owner, then the record's groups, whose encoded
// size must equal the stored size.
#include <cstdlib>
#include <cstring>

#include "base/errors.h"
#include "codec/integers.h"
#include "config_db/record_fields.h"
#include "config_db/record_layouts.h"

namespace pd {

namespace {

// Copies one fragment into the assembly buffer. 0, 12, 118 or 138.
int assemble(db_record* r, const std::uint8_t* frag, std::size_t offset, std::size_t length) {
  if (r->dbr_size > VOLDB_MAX_RECSIZE) return VE_RECORD_TOO_LARGE;
  if (offset == 0) {
    std::free(r->dbr_build);
    r->dbr_build = static_cast<std::uint8_t*>(std::malloc(r->dbr_size == 0 ? 1 : r->dbr_size));
    if (r->dbr_build == nullptr) return VE_NOMEM;
  }
  if (r->dbr_build == nullptr || offset > r->dbr_size || length > r->dbr_size - offset) {
    return VE_DB_FORMAT;
  }
  if (length > 0) std::memcpy(r->dbr_build + offset, frag, length);
  return 0;
}

// Decodes the body once into scratch space to learn the record's GUID.
int pre_decode_guid(const rec2field* r2f, std::uint32_t type, const std::uint8_t* p,
                    const std::uint8_t* lim, voldguid_t* guid) {
  alignas(urec) unsigned char scratch[sizeof(urec)] = {};
  const std::uint8_t* end = voldbf_unfmt_tbl(r2f, type, scratch, p, lim);
  int err = (end == nullptr || end != lim) ? VE_DB_FORMAT : 0;
  if (err == 0) *guid = voldbf_get_guid(type, scratch);
  voldbf_free_tbl(r2f, scratch);
  return err;
}

// Raises the store's version to what the record needs.
void raise_version(dbase* db, db_record* r, const void* sp) {
  std::uint16_t major = 0;
  std::uint16_t minor = 0;
  // A record whose flags no known version accepts leaves the version alone.
  if (voldbsup_rtyp2vers(r->dbr_type, r, sp, &major, &minor) != 0) return;
  if (major > db->ddb_mvers_major ||
      (major == db->ddb_mvers_major && minor > db->ddb_mvers_minor)) {
    db->ddb_mvers_major = major;
    db->ddb_mvers_minor = minor;
  }
}

int decode_body(dbase* db, db_record* r, voldbsup_place_fn place) {
  const std::uint8_t* p = r->dbr_build;
  const std::uint8_t* lim = p + r->dbr_size;
  const rec2field* r2f = find_rec2field(r->dbr_type);
  if (r2f == nullptr) return VE_DB_FORMAT;
  if (r->dbr_type & RTYPE_EXTENDED) {
    if (lim - p < 2) return VE_DB_FORMAT;
    r->dbr_type |= static_cast<std::uint32_t>(get_be16(p)) << 16;
    p += 2;
  }
  const std::uint32_t type = r->dbr_type;
  anyrec any{};
  if (dbf_unfmt_tbl(anyrec_fields, n_anyrec_fields, &any, p, lim) == nullptr) {
    return VE_DB_FORMAT;
  }
  voldguid_t guid = zeroguid;
  std::uint32_t kind = type & RTYPE_KIND_MASK;
  if (!(type & RTYPE_NOGUID) && (kind == REC_TYPE_VOL || kind == REC_TYPE_PLEX)) {
    if (int err = pre_decode_guid(r2f, type, p, lim, &guid)) return err;
  }
  void* raw = nullptr;
  if (place != nullptr) {
    if (int err = place(db, r, r2f->namespace_, any.rid, any.name, guid, &raw)) return err;
  }
  if (raw == nullptr) return VE_DB_FORMAT;
  const std::uint8_t* end = voldbf_unfmt_tbl(r2f, type, raw, p, lim);
  if (end == nullptr || end != lim) return VE_DB_FORMAT;
  std::size_t consumed = static_cast<std::size_t>(end - r->dbr_build);
  if (voldbf_tblsize(r2f, type, raw) != consumed) return VE_DB_FORMAT;
  raise_version(db, r, raw);
  return 0;
}

}  // namespace

int voldbsup_unformat_record(dbase* db, db_record* r, const std::uint8_t* frag,
                             std::size_t offset, std::size_t length, voldbsup_place_fn place) {
  if (int err = assemble(r, frag, offset, length)) return err;
  if (!(r->dbr_gen_flag & DBR_COMPLETE)) return 0;
  int err = decode_body(db, r, place);
  std::free(r->dbr_build);
  r->dbr_build = nullptr;
  return err;
}

int voldbsup_init_record(dbase* db, db_record* r) {
  if (find_rec2field(r->dbr_type) == nullptr) return VE_DB_FORMAT;
  if ((r->dbr_flag & 0x3) == 0x3) return VE_DB_FORMAT;
  unsigned state = (db->ddb_flag & DDB_STATE_MASK) >> DDB_STATE_SHIFT;
  if (((r->dbr_flag & 0x2) && (state == 1 || state == 4)) || ((r->dbr_flag & 0x1) && state == 3)) {
    r->dbr_gen_flag |= DBR_REFUSED;
    return 0;
  }
  switch (r->dbr_type & 0xF0) {
    case 0x10: case 0x30: case 0x40: case 0x50: case 0x60: case 0x80: break;
    default: return VE_DB_VERSION;
  }
  if (r->dbr_size > VOLDB_MAX_RECSIZE) return VE_RECORD_TOO_LARGE;
  return 0;
}

}  // namespace pd
