// Loading one configuration copy into a chain of collected records.
//
// A configuration copy is read from the image in runs of at most 128 blocks
// of 512 bytes (cut at part boundaries and at whole sectors) into the
// session's one 2 MiB aligned buffer, which is never cleared, and handed to
// the block store 512 bytes at a time. Through the store's callbacks every
// completed record becomes a `record`: the store record it came from, its
// type (low four bits of the type word), id, name space, name (at most 31
// characters and a terminator) and the decoded fields, for which room is
// reserved only when the type has a structure of its own (record_room()).
// Records of the other types are decoded into a scratch structure that is
// discarded.
//
// All the state of one load (store, decoded database header, record chain,
// last extraction error, bytes fed, report latch, highest tid printed, the
// report's lists and tree prefix) lives in one config_report object; it
// owns everything it allocates and frees it when it goes away. Records and
// their decoded fields are carved out of large zeroed blocks, so a copy of
// many records costs few allocations and releases.
//
// Fatal conditions (no copies, no buffer, undecodable header, bad sizes)
// write their message to the session's error stream and throw fatal_exit{1}.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cwchar>
#include <memory>
#include <vector>

#include "base/session.h"
#include "base/types.h"
#include "config_db/block_store.h"
#include "config_db/record_layouts.h"
#include "config_db/records.h"
#include "base/priv_info.h"
#include "report/overview.h"
#include "report/record_printer.h"

namespace pd {

// The room a record of `type` (dbr_type & 15) reserves for its decoded
// fields: 0 for the types without a structure of their own (0, 11, 12, 14,
// 15).
std::size_t record_room(int type);

// One collected configuration record.
struct record {
  record* next = nullptr;      // arrival order
  db_record* dbrec = nullptr;  // the store record it was built from
  int type = 0;                // dbr_type & 15
  volrid_t rid;
  int rec_namespace = 0;  // the decoder's name space
  char name[32] = {};     // NUL-terminated
  void* u = nullptr;      // decoded fields: record_room(type) bytes, or null
  std::uint32_t type_word = 0;  // the store type word when the record was placed
  // The decoded fields packed (pack_fields), when the load keeps them so
  // (config_report::pack_records) and `u` is null.
  const std::uint8_t* packed = nullptr;

  // The decoded fields in the structure of the record's type. REQUIRES: the
  // record's type is the one named.
  volrec* vol() const { return static_cast<volrec*>(u); }
  plexrec* plex() const { return static_cast<plexrec*>(u); }
  sdrec* sd() const { return static_cast<sdrec*>(u); }
  dmrec* dm() const { return static_cast<dmrec*>(u); }
  dgrec* dg() const { return static_cast<dgrec*>(u); }
  darec* da() const { return static_cast<darec*>(u); }
  rvolrec* rvol() const { return static_cast<rvolrec*>(u); }
  reprec* rep() const { return static_cast<reprec*>(u); }
  dcorec* dco() const { return static_cast<dcorec*>(u); }
  snaprec* snap() const { return static_cast<snaprec*>(u); }
  cacherec* cache() const { return static_cast<cacherec*>(u); }
};

// The collected record of a store record, or null.
inline record* record_of(const db_record* r) { return static_cast<record*>(r->dbr_private); }

// The packed form of a decoded structure of `n` bytes: a bit per 8-byte
// word of the structure (set when the word is not zero), then the words
// whose bit is set, in order. `out` has room for packed_size_max(n) bytes;
// returns the length written.
constexpr std::size_t packed_size_max(std::size_t n) { return (n + 7) / 8 * 8 + (n + 63) / 64; }
std::size_t pack_fields(const std::uint8_t* s, std::size_t n, std::uint8_t* out);
// Bytes [off, off + len) of the `n`-byte structure packed at `packed`.
void unpack_bytes(const std::uint8_t* packed, std::size_t n, std::size_t off, std::size_t len,
                  void* out);

// Bytes [off, off + len) of the decoded fields of `rec` (its structure or
// its packed form); zeros when it has none.
void record_bytes(const record* rec, std::size_t off, std::size_t len, void* out);
template <class T>
T record_member(const record* rec, std::size_t off) {
  T v;
  record_bytes(rec, off, sizeof v, &v);
  return v;
}
// The decoded fields of `rec`: its structure, or its packed form unpacked
// into `scratch`; null when it has none.
const void* record_fields(const record* rec, urec& scratch);

// The state of one configuration load and its report.
class config_report {
 public:
  explicit config_report(session& s);
  ~config_report();
  config_report(const config_report&) = delete;
  config_report& operator=(const config_report&) = delete;

  session& s;
  dbase* db = nullptr;
  voldb_info hdrinfo{};
  record* rlist = nullptr;
  record* rlast = nullptr;
  int lastres = 0;
  std::int64_t lastoffset = 0;
  int configcopy_eof_called = 0;
  overview_state view;  // the report's model
  // Print the report (else only raise its findings).
  bool print_report = true;
  // Keep the fields of volumes, plexes, subdisks and disk media packed
  // (record::packed) instead of in structures of their own; set before the
  // load by loads that read fields only through record_bytes and
  // record_fields (the report). A record whose fields hold heap members
  // keeps its structure.
  bool pack_records = false;
  // The copy being loaded, for the places of findings; null when unknown.
  const priv_info* priv = nullptr;
  const copy_info* copy = nullptr;

  // Creates the store; returns 1 (a failed allocation is fatal).
  int configcopy_setup();
  // Feeds `nblksread` blocks that start at copy block `cpoffset`; 1 to go
  // on, -1 when the report failed.
  int configcopy_more(std::uint8_t* buf, std::size_t cpoffset, std::size_t nblksread);
  // Analyses the records, then prints the report (or raises its findings),
  // once; 1.
  int configcopy_eof();
  // Fills the copy, sector and byte offset of a finding whose place names
  // a file block of the copy.
  void place_in_copy(finding_place& at) const;
  // Feeds blocks without ever printing the report; -1 after the first
  // extraction error (reported on the output stream), else 1.
  int LoadRecords(std::uint8_t* buf, std::size_t cpoffset, std::size_t nblksread);
  int config_disksetID_more(std::uint8_t* buf, std::size_t cpoffset, std::size_t nblksread,
                            char* disksetID);
  int config_disksetID_eof(char* disksetID);

  // The store callbacks, reached through ddb_private.
  int unformat_header(const std::uint8_t* buf, std::size_t bufsize);
  int init_record(db_record* r);
  int unformat_record(db_record* r, const std::uint8_t* buf, std::size_t frag_offset,
                      std::size_t frag_size);
  int add_new_record(db_record* r, int rec_namespace, volrid_t rid, const char* rname,
                     voldguid_t guid, void** rawpp);

 private:
  // Feeds blocks; `eof` is called once after the first extraction error.
  template <class Eof>
  int feed(std::uint8_t* buf, std::size_t cpoffset, std::size_t nblksread, Eof eof);
  void release_decoded(std::uint32_t type_word, void* sp);

  // Zeroed memory for records and their fields, in blocks of ARENA_BLOCK
  // bytes; null when memory is exhausted.
  void* arena_alloc(std::size_t size, std::size_t align = alignof(std::max_align_t));
  // Keeps the scratch structure's fields for `rec` (packed when it can).
  void keep_fields(record* rec);
  const std::vector<std::size_t>& heap_offsets(std::uint32_t type_word);
  std::vector<std::size_t> heap_offsets_[RTYPE_CODE_MASK + 1];
  bool heap_known_[RTYPE_CODE_MASK + 1] = {};
  record* to_keep_ = nullptr;  // placed during the current fragment
  std::vector<record*> own_fields_;  // the records whose `u` is theirs
  static constexpr std::size_t ARENA_BLOCK = std::size_t{1} << 20;
  struct arena_free {
    void operator()(std::uint8_t* p) const { std::free(p); }
  };
  std::vector<std::unique_ptr<std::uint8_t[], arena_free>> arena_;  // calloc'd
  std::size_t arena_used_ = ARENA_BLOCK;  // bytes used of the last block

  std::unique_ptr<urec> scratch_;  // decoded fields of types without room
  bool scratch_used_ = false;
  std::uint32_t scratch_type_ = 0;
};

// Prints configuration copy `copy` (the first enabled one when negative):
// its heading, then the report. 1 after the report, -2 when loading failed.
// With `print` false nothing is printed: the report's findings are raised
// through the session's sink.
int priv_dump_config(session& s, priv_info* priv, int copy, bool print = true);
// The loading and analysis behind priv_dump_config, into `rep` (whose
// print_report says whether the report is printed): copy `cp` read in runs
// and fed to the store, then the analysis. 1 after the analysis, -2 when
// loading failed; the model stays in `rep` for the caller.
int priv_load_config(session& s, priv_info* priv, copy_info* cp, config_report& rep);

// Reads up to `nblks` 512-byte blocks of copy `cp` from copy block `blkno`
// into `buf`; `*nread` receives the blocks read (0 at the end of the copy).
// Past the end of the image a run still counts: its blocks keep what the
// buffer held; `*nbytes`, when given, receives the bytes the image gave.
// 0, or 142 after a failed read.
int priv_read_copy(session& s, priv_info* priv, copy_info* cp, std::uint8_t* buf,
                   std::size_t blkno, std::size_t nblks, std::size_t* nread,
                   std::size_t* nbytes = nullptr);

// The disk-set id of the copy's disk-group record as GUID text in
// `disksetID` (at least 37 characters). 1 when found, -1 without a
// disk-group record, -2 when the copy could not be loaded; silent except for
// extraction errors.
int priv_dump_config_disksetID(session& s, priv_info* priv, int copy, char* disksetID);

// Fills the copy number of `at`, and when `at.block` (a 512-byte block of
// copy `cp`) lies inside the copy, its byte offset and sector in the image.
void place_in_copy_block(const priv_info* priv, const copy_info* cp, finding_place& at);

// Copy a possibly absent string; a null source gives an empty destination.
// 1 when the source was null, else 0. REQUIRES: room for the source.
int safe_strcpy(char* strDestination, const char* strSource);
int safe_wcscpy(wchar_t* strDestination, const wchar_t* strSource);

}  // namespace pd
