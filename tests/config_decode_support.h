// Decoding a whole configuration copy in a test: the block store with the
// record decoder as its owner, the header through voldbsup_unformat_header,
// every completed record kept by reference.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "config_db/block_store.h"
#include "config_db/record_layouts.h"
#include "config_db/records.h"

namespace pd::test {

struct decoded_record {
  std::uint32_t type = 0;
  int ns = 0;
  volrid_t rid;  // what the decoder handed to placement
  std::string name;
  voldguid_t guid;
  std::unique_ptr<urec> rec{new urec()};
  decoded_record() { std::memset(static_cast<void*>(rec.get()), 0, sizeof(urec)); }
  ~decoded_record() { voldbsup_free_fields(type, rec.get()); }
  decoded_record(const decoded_record&) = delete;
  decoded_record& operator=(const decoded_record&) = delete;
};

class decoded_copy {
 public:
  // Feeds `bytes` in 512-byte pieces (stopping at the first error, kept in
  // `error` with the piece number in `error_piece`).
  explicit decoded_copy(const std::vector<std::uint8_t>& bytes) : db_(ddb_alloc(&ops())) {
    db_->ddb_private = this;
    for (std::size_t off = 0; off + 512 <= bytes.size(); off += 512) {
      if (db_->ddb_nblocks != 0 && off >= db_->ddb_nblocks * db_->ddb_blksize) break;
      error = ddb_extract(db_.get(), bytes.data() + off, off, 512);
      if (error != 0) {
        error_piece = off / 512;
        break;
      }
    }
  }

  // An empty store.
  decoded_copy() : decoded_copy(std::vector<std::uint8_t>{}) {}

  dbase* db() { return db_.get(); }
  const decoded_record* by_ref(unsigned long ref) const {
    auto it = records.find(ref);
    return it == records.end() ? nullptr : it->second.get();
  }

  voldb_info hdr{};
  int header_error = 0;
  int error = 0;
  std::size_t error_piece = 0;
  int placements = 0;
  std::map<unsigned long, std::unique_ptr<decoded_record>> records;

 private:
  struct deleter {
    void operator()(dbase* db) const { ddb_free(db); }
  };

  static decoded_copy* self(dbase* db) { return static_cast<decoded_copy*>(db->ddb_private); }

  static int place(dbase* db, db_record* r, int ns, volrid_t rid, const char* name,
                   voldguid_t guid, void** rawpp) {
    ++self(db)->placements;
    auto& slot = self(db)->records[r->dbr_ref];
    slot = std::make_unique<decoded_record>();
    slot->type = r->dbr_type;
    slot->ns = ns;
    slot->rid = rid;
    slot->name = name;
    slot->guid = guid;
    *rawpp = slot->rec.get();
    return 0;
  }
  static int unformat(dbase* db, db_record* r, const std::uint8_t* frag, std::size_t off,
                      std::size_t len) {
    return voldbsup_unformat_record(db, r, frag, off, len, place);
  }
  static const dbrec_ops& rops() {
    static const dbrec_ops o = {nullptr, nullptr, unformat, nullptr};
    return o;
  }
  static int init(dbase* db, db_record* r) {
    r->dbr_ops = &rops();
    return voldbsup_init_record(db, r);
  }
  static int header(dbase* db, const std::uint8_t* buf, std::size_t) {
    decoded_copy* c = self(db);
    c->header_error = voldbsup_unformat_header(db, buf, 512, &c->hdr);
    if (c->header_error != 0) return c->header_error;
    return ddb_setsize(db, db->ddb_nblocks);
  }
  static const dbase_ops& ops() {
    static const dbase_ops o = {init, nullptr, nullptr, header, nullptr, nullptr, nullptr};
    return o;
  }

  std::unique_ptr<dbase, deleter> db_;
};

}  // namespace pd::test
