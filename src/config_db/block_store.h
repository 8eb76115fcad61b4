// The block store of a configuration copy.
//
// A configuration copy is an array of fixed-size blocks (ddb_blksize bytes).
// The first ddb_hdrsize / ddb_blksize blocks hold the database header; every
// other block is unused (record reference 0) or carries one fragment of one
// record. Standard block header, 16 bytes, big-endian:
//   0  4  magic "VBLK"
//   4  4  block number (index in the copy, header blocks included)
//   8  4  record reference (0: unused block)
//   12 2  fragment index (0 for the record's first block)
//   14 2  fragment count (blocks the whole record occupies)
// Fragment 0 continues with an 8-byte record header: flags (2), type (2),
// body size (4). Fragment n >= 1 carries the body bytes from body offset
// (ddb_blksize - 16) * n - 8, so a body of S bytes takes
// (ddb_blksize + S - 9) / (ddb_blksize - 16) blocks.
// The compact form (ddb_flag 0x40) has a 6-byte block header ("LK", block,
// reference, fragment index, fragment count, one byte each) and a 4-byte
// record header (flags 1, type 1, size 2); the payload arithmetic is the
// same.
//
// Memory: the block array is sparse. Entries materialise as blocks are fed
// to ddb_extract (or changed by recovery); every other block reads as the
// initial state (no record, next = DDB_NOBLOCK, flag 0, or 0x1 for blocks
// that ddb_resize added). A header may claim up to 2^32-1 blocks at no cost:
// sizes and free counts are arithmetic. Read blocks through ddb_block and
// walk the materialised ones with ddb_block_next.
//
// Records live in a hash of DDB_NBUCKETS chains keyed by reference
// (bucket = ref mod 16381), each chain in ascending reference, equal
// references in insertion order. An index beside the chains
// (record_index.h) keeps dbr_find, dbr_add and dbr_delete cheap even when a
// copy crowds one chain. Records the store creates but does not
// hash (placeholders for continuation blocks whose first block never came,
// and records released after an error) stay owned by the store until
// ddb_free, so pointers to them held by an owner never dangle.
#pragma once

#include <cstddef>
#include <cstdint>

namespace pd {

struct dbase;
struct db_record;
struct db_block_table;  // the sparse block array (block_store.cc)
struct db_record_index; // the index beside the hash chains (record_index.h)

inline constexpr std::size_t DDB_NBUCKETS = 16381;
inline constexpr std::size_t DDB_NOBLOCK = ~static_cast<std::size_t>(0);

// Block header sizes of the two forms.
inline constexpr std::size_t DDB_BLKHDR_SIZE = 16;      // magic 4 + blkno 4 + ref 4 + frag 2 + nfrag 2
inline constexpr std::size_t DDB_RECHDR_SIZE = 8;       // flag 2 + type 2 + size 4
inline constexpr std::size_t DDB_C_BLKHDR_SIZE = 6;     // "LK" 2 + blkno 1 + ref 1 + frag 1 + nfrag 1
inline constexpr std::size_t DDB_C_RECHDR_SIZE = 4;     // flag 1 + type 1 + size 2
static_assert(DDB_BLKHDR_SIZE == 4 + 4 + 4 + 2 + 2 && DDB_RECHDR_SIZE == 2 + 2 + 4);

// Fields of the standard block header.
inline constexpr char ddb_blkhdr_magic[] = "VBLK";
inline constexpr std::size_t DDB_BLKHDR_MAGIC_LEN = 4;
inline constexpr std::size_t DDB_BLKHDR_OFF_BLKNO = 4;
inline constexpr std::size_t DDB_BLKHDR_OFF_REF = 8;
inline constexpr std::size_t DDB_BLKHDR_OFF_FRAG = 12;
inline constexpr std::size_t DDB_BLKHDR_OFF_NFRAG = 14;
static_assert(DDB_BLKHDR_OFF_BLKNO == DDB_BLKHDR_MAGIC_LEN &&
              DDB_BLKHDR_OFF_REF == DDB_BLKHDR_OFF_BLKNO + 4 &&
              DDB_BLKHDR_OFF_FRAG == DDB_BLKHDR_OFF_REF + 4 &&
              DDB_BLKHDR_OFF_NFRAG == DDB_BLKHDR_OFF_FRAG + 2 &&
              DDB_BLKHDR_SIZE == DDB_BLKHDR_OFF_NFRAG + 2);

// A standard block header, decoded.
struct ddb_blkhdr_info {
  bool dbh_magic_ok;  // "VBLK"
  std::uint32_t dbh_blkno;
  std::uint32_t dbh_ref;
  std::uint16_t dbh_frag;
  std::uint16_t dbh_nfrag;
};

// Decodes the standard block header at `p`, never reading at or past `lim`.
// Returns the position of the block's payload, or null when fewer than
// DDB_BLKHDR_SIZE bytes lie before `lim` (then `out` is left alone). Any
// magic decodes: dbh_magic_ok tells whether it is the block's.
const std::uint8_t* ddb_block_header_decode(const std::uint8_t* p, const std::uint8_t* lim,
                                            ddb_blkhdr_info* out);

// ddb_flag bits
inline constexpr unsigned DDB_INCOMPLETE = 0x2;   // some record is incomplete
inline constexpr unsigned DDB_REFUSED = 0x20;     // some complete record was refused
inline constexpr unsigned DDB_COMPACT = 0x40;     // compact block headers
inline constexpr unsigned DDB_STATE_SHIFT = 8;    // bits 8-11: transaction state
inline constexpr unsigned DDB_STATE_MASK = 0xF00;

// dbb_flag bits
inline constexpr std::uint16_t DBB_WRITE = 0x1;
inline constexpr std::uint16_t DBB_INCOMPLETE = 0x2;
inline constexpr std::uint16_t DBB_BAD = 0x8;

// dbr_gen_flag bits
inline constexpr std::uint16_t DBR_INCOMPLETE = 0x2;
inline constexpr std::uint16_t DBR_COMPLETE = 0x4;
inline constexpr std::uint16_t DBR_FORMAT_ERROR = 0x8;
inline constexpr std::uint16_t DBR_DUPLICATE = 0x10;
inline constexpr std::uint16_t DBR_REFUSED = 0x20;

struct dbase_ops {
  // A record's first block has been read and the record hashed: set
  // dbr_ops (and DBR_REFUSED to keep the contents back). 0 or an error.
  int (*dop_init_record)(dbase* db, db_record* r);
  int (*dop_new_record)(dbase* db, db_record* r);
  int (*dop_format_header)(dbase* db, std::uint8_t* buf, std::size_t len);
  // The piece at copy offset 0: decode the header, set ddb_blksize,
  // ddb_hdrsize and the version, size the store (ddb_setsize).
  int (*dop_unformat_header)(dbase* db, const std::uint8_t* buf, std::size_t len);
  int (*dop_write)(dbase* db, std::size_t blkno, const std::uint8_t* buf, std::size_t nblks);
  void (*dop_free)(dbase* db);
  // The owner's decoded contents of a record: returns its base kind
  // (record type & 15) and sets *decoded to the structure, or returns -1
  // when the owner holds nothing for it. ddb_extract_done uses it for the
  // replication-link fix-up; may be null (no fix-up).
  int (*dop_record_contents)(dbase* db, db_record* r, void** decoded);
};

struct dbrec_ops {
  int (*rop_format)(dbase* db, db_record* r, std::uint8_t* out, std::size_t offset,
                    std::size_t length);
  void (*rop_format_cleanup)(dbase* db, db_record* r);
  // One fragment of the body, in body order: `frag` holds `length` body
  // bytes that start at body offset `offset`.
  int (*rop_unformat)(dbase* db, db_record* r, const std::uint8_t* frag, std::size_t offset,
                      std::size_t length);
  void (*rop_free)(dbase* db, db_record* r);
};

struct db_block {
  std::size_t dbb_next_blkno;   // next fragment's block, DDB_NOBLOCK = none
  db_record* dbb_record;        // the record carried, or null
  std::size_t dbb_offset;       // body offset of this fragment's first byte
  std::uint16_t dbb_frag_size;  // body bytes in this fragment
  std::uint16_t dbb_flag;       // DBB_*
};

struct db_record {
  db_record* dbr_next;          // hash chain (or the store's unhashed list)
  db_record* dbr_prev;
  unsigned long dbr_ref;
  std::uint32_t dbr_type;
  std::uint16_t dbr_flag;
  std::uint16_t dbr_gen_flag;   // DBR_*
  std::size_t dbr_size;         // body bytes
  const dbrec_ops* dbr_ops;
  void* dbr_private;            // the owner's decoded record
  std::uint8_t* dbr_build;      // the owner's assembly buffer (malloc; the store frees it with the record)
  std::size_t dbr_first_blkno;  // fragment-0 block, DDB_NOBLOCK when incomplete
  std::size_t dbr_last_blkno;   // last block linked so far (the chain's end)
  bool dbr_slab;                // allocated by the store (released with it)
};

struct dbase {
  std::size_t ddb_nblocks;      // blocks in the copy, header blocks included
  std::size_t ddb_alloclim;
  std::size_t ddb_blksize;
  std::size_t ddb_hdrsize;
  std::size_t ddb_nblkspage;
  std::size_t ddb_maxblockio;
  std::size_t ddb_fillblks;
  std::size_t ddb_freeblks;
  std::size_t ddb_pend_freeblks;
  const dbase_ops* ddb_ops;
  unsigned ddb_flag;
  void* ddb_private;
  db_record* ddb_record_buckets[DDB_NBUCKETS];
  db_block_table* ddb_blocks;   // null until sized
  std::uint16_t ddb_mvers_major;
  std::uint16_t ddb_mvers_minor;
  db_record* ddb_unhashed;      // store-owned records outside the hash
  db_record_index* ddb_rindex;  // keeps lookups cheap on crowded chains
};

struct dbrec_iter {
  dbase* dbi_dbase;
  db_record* const* dbi_bucket;  // current chain head
  std::size_t dbi_nleft;         // buckets not yet visited
  db_record* dbi_next;           // next record to return
};

// A zeroed store with ddb_ops set, or null when memory is exhausted.
dbase* ddb_alloc(const dbase_ops* ops);
// Releases every record object (no record callback), the block array, calls
// dop_free and releases the store. Null is accepted.
void ddb_free(dbase* db);

// 0, 12, or 140 when shrinking below a block that carries a record.
int ddb_setsize(dbase* db, std::size_t newnblks);
// As ddb_setsize; blocks added are marked DBB_WRITE.
int ddb_resize(dbase* db, std::size_t newnblks);
// Creates the block array for ddb_nblocks blocks; 0 or 12.
int ddb_creat(dbase* db);

// Consumes `len` bytes of the copy that begin at byte `offset` of the copy.
// 0 or a volume error number (12, 138, 141, 148, 149, or a callback's).
int ddb_extract(dbase* db, const std::uint8_t* buf, std::size_t offset, std::size_t len);
// 1 if some record is incomplete or refused, else 0.
int ddb_extract_done(dbase* db);
// Discards incomplete and refused records and frees their blocks.
void ddb_extract_recover(dbase* db);

// The entry of block `blkno` (its initial state when never touched).
// REQUIRES: blkno < ddb_nblocks.
const db_block& ddb_block(const dbase* db, std::size_t blkno);
// The first materialised block index >= `from`, or DDB_NOBLOCK.
std::size_t ddb_block_next(const dbase* db, std::size_t from);
// Number of materialised block entries (memory accounting and tests).
std::size_t ddb_block_count(const dbase* db);

// The framing arithmetic, shared by extraction and by writers of copies
// (uses ddb_blksize and the compact bit of ddb_flag).
// Blocks a record body of `size` bytes occupies.
std::size_t ddb_record_blocks(const dbase* db, std::size_t size);
// Body offset of fragment `frag`'s first byte.
std::size_t ddb_fragment_offset(const dbase* db, std::size_t frag);
// Body bytes fragment `frag` can hold.
std::size_t ddb_fragment_room(const dbase* db, std::size_t frag);
// Writes the block header of one block at `blk` (ddb_blksize bytes; the
// payload is left as it is) and, for fragment 0, the record header from
// `r` (flags, the low 16 bits of the type, size). Returns where the
// fragment's body bytes go. Values wider than the form's fields are cut.
std::uint8_t* ddb_format_block(const dbase* db, std::uint8_t* blk, std::size_t blkno,
                               unsigned long ref, std::size_t frag, std::size_t nfrag,
                               const db_record* r);

db_record* dbr_find(const dbase* db, unsigned long ref);
void dbr_add(dbase* db, db_record* r);
void dbr_delete(dbase* db, db_record* r);

void dbrlist_iter(dbrec_iter* it, dbase* db);
db_record* dbrlist_next(dbrec_iter* it);

}  // namespace pd
