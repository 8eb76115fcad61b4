#include "config_db/record_layouts.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "base/errors.h"
#include "config_copy_builder.h"
#include "config_decode_support.h"
#include "record_filler.h"

namespace pd {
namespace {

using test::bytes;

// Zeroed, suitably aligned room for any record structure; frees the heap
// members of the entry's tables on destruction.
struct rec_buf {
  explicit rec_buf(const rec2field* e) : e_(e) {}
  ~rec_buf() { voldbf_free_tbl(e_, mem); }
  rec_buf(const rec_buf&) = delete;
  rec_buf& operator=(const rec_buf&) = delete;
  alignas(urec) unsigned char mem[sizeof(urec)] = {};
  const rec2field* e_;
};

// Encodes, decodes into a fresh structure, checks sizes and members.
void expect_round_trip(const rec2field* e, std::uint32_t type, unsigned seed) {
  SCOPED_TRACE(testing::Message() << "entry 0x" << std::hex << e->type << " type 0x" << type);
  rec_buf in(e), out(e);
  test::fill_record(e, type, in.mem, seed);
  std::size_t size = voldbf_tblsize(e, type, in.mem);
  std::size_t ext = (type > 0xFFFF || static_cast<std::int32_t>(type) < 0) ? 2 : 0;
  bytes buf(size + 1, 0xEE);
  std::uint8_t* end = voldbf_fmt_tbl(e, type, in.mem, buf.data());
  ASSERT_EQ(static_cast<std::size_t>(end - buf.data()), size - ext);
  EXPECT_EQ(buf[size - ext], 0xEE);
  const std::uint8_t* lim = buf.data() + size - ext;
  const std::uint8_t* got = voldbf_unfmt_tbl(e, type, out.mem, buf.data(), lim);
  ASSERT_EQ(got, lim);
  EXPECT_EQ(test::first_difference(e, type, in.mem, out.mem), "");
  EXPECT_EQ(voldbf_tblsize(e, type, out.mem), size);
}

// Bodies written byte by byte from the stored layouts, decoded into members
// that were filled with 0xFF first, so that member widths show.
TEST(RecordLayoutsTest, SpelledOutLayoutsFromHandWrittenBytes) {
  const bytes vol = {
      0x01, 0x05, 0x01, 'v', 0x05, 'f', 's', 'g', 'e', 'n', 0x00,         // rid, name, use, fs
      'A', 'C', 'T', 'I', 'V', 'E', 0, 0, 0, 0, 0, 0, 0, 0,               // v_state: 14 bytes
      0x05, 0x04, 0x01, 0x02, 0x03, 0x04, 0x00, 0x00, 0x00, 0x03,         // read_pol, minor, pflag
      0x01, 0x02, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0,         // pl_num, two tids
      0x02, 0x08, 0x00, 0x81, 0x01};                                      // len 2048, log_len -1
  volrec v;
  std::memset(static_cast<void*>(&v), 0xFF, sizeof v);
  EXPECT_EQ(voldbf_unfmt_tbl(find_rec2field(0x31), 0x31, &v, vol.data(), vol.data() + vol.size()),
            vol.data() + vol.size());
  EXPECT_EQ(v.v_rid.seqno_lo, 5u);
  EXPECT_EQ(v.v_rid.seqno_hi, 0u);
  EXPECT_STREQ(v.v_name, "v");
  EXPECT_STREQ(v.v_use_type, "fsgen");
  EXPECT_STREQ(v.v_fstype, "");
  EXPECT_STREQ(v.v_state, "ACTIVE");
  EXPECT_EQ(v.v_read_pol, 5);                  // 4-byte member
  EXPECT_EQ(v.v_minor, 0x01020304u);           // 8-byte member
  EXPECT_EQ(v.v_pflag, 3u);
  EXPECT_EQ(v.v_pl_num, 2u);
  EXPECT_EQ(v.v_update_tid.seqno_hi, 1u);
  EXPECT_EQ(v.v_update_tid.seqno_lo, 2u);
  EXPECT_EQ(v.v_detach_tid.seqno_lo, 0u);
  EXPECT_EQ(v.v_len, 2048);
  EXPECT_EQ(v.v_log_len, -1);
}

// ---------------------------------------------------------------------------
// The record path: format, fragments in a store, decode through placement.

bytes format_body(std::uint32_t type, const void* sp) {
  db_record r{};
  r.dbr_type = type;
  EXPECT_EQ(voldbsup_format_record(nullptr, &r, nullptr, 0, 0, sp), 0);
  bytes body(r.dbr_size);
  EXPECT_EQ(voldbsup_format_record(nullptr, &r, body.data(), 0, r.dbr_size, sp), 0);
  EXPECT_EQ(voldbsup_format_record(nullptr, &r, body.data(), 1, r.dbr_size, sp), VE_DB_FORMAT);
  voldbsup_format_cleanup_record(nullptr, &r);
  EXPECT_EQ(r.dbr_build, nullptr);
  return body;
}

// Decodes a copy holding one record (flags 0, reference 42) at block 1,
// behind a 3.0 header.
struct one_record_copy : test::decoded_copy {
  one_record_copy(std::uint32_t type, const bytes& body) : decoded_copy(image(type, body)) {}
  static bytes image(std::uint32_t type, const bytes& body) {
    test::copy_image img(64);
    img.put_record(1, 42, 0, static_cast<std::uint16_t>(type), body);
    dbase geometry{};
    geometry.ddb_nblocks = 64;
    geometry.ddb_blksize = geometry.ddb_hdrsize = 512;
    voldb_info vi{};
    vi.vdbi_version_major = 3;
    EXPECT_EQ(voldbsup_format_header(&geometry, img.data().data(), 512, &vi), 0);
    return img.data();
  }
};

void expect_record_path(const rec2field* e, std::uint32_t type, unsigned seed) {
  SCOPED_TRACE(testing::Message() << "type 0x" << std::hex << type);
  rec_buf in(e);
  test::fill_record(e, type, in.mem, seed);
  bytes body = format_body(type, in.mem);
  one_record_copy c(type, body);
  ASSERT_EQ(c.error, 0);
  ASSERT_EQ(c.placements, 1);
  const test::decoded_record* d = c.by_ref(42);
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->type, type);
  EXPECT_EQ(d->ns, e->namespace_);
  anyrec any{};
  ASSERT_NE(dbf_unfmt_tbl(e->r2f_tbls[0].ftbl, 2, &any, body.data() + (type & 0x100 ? 2 : 0),
                          body.data() + body.size()), nullptr)
      << "every layout starts with the id and the name";
  EXPECT_TRUE(seqno_equal(d->rid, any.rid));
  EXPECT_EQ(d->name, any.name);
  std::uint32_t kind = type & 15;
  bool pre = !(type & RTYPE_NOGUID) && (kind == 1 || kind == 2);
  EXPECT_TRUE(guid_equal(d->guid, pre ? voldbf_get_guid(type, in.mem) : zeroguid));
  EXPECT_EQ(test::first_difference(e, type, in.mem, d->rec.get()), "");
}

// Every entry round-trips through its tables with no flag, with each flag
// alone and with all of them; the entries the decoder chooses (36: 48 less
// the codes above 0xFF and the second entries) go through the store and the
// placement callback instead when all flags are set.
TEST(RecordLayoutsTest, EveryLayoutRoundTripsAndDecodesThroughTheStore) {
  unsigned seed = 1;
  int n = 0;
  for (std::size_t i = 0; i < n_rec2field_table; ++i) {
    const rec2field* e = &rec2field_table[i];
    SCOPED_TRACE(testing::Message() << "entry " << i);
    std::uint32_t flags = test::entry_flags(e);
    expect_round_trip(e, test::type_word(e, 0), seed++);
    for (std::uint32_t bit = 1; bit != 0; bit <<= 1) {
      if (flags & bit) expect_round_trip(e, test::type_word(e, bit), seed++);
    }
    if (find_rec2field(e->type) != e) {
      expect_round_trip(e, test::type_word(e, flags), seed++);
      continue;
    }
    ++n;
    expect_record_path(e, test::type_word(e, flags), seed++);
    if ((e->type & 15) <= 2) expect_record_path(e, test::type_word(e, flags) | RTYPE_NOGUID, seed++);
  }
  EXPECT_EQ(n, 36);
}

TEST(RecordLayoutsTest, BodyFaultsAreFormatErrors) {
  const rec2field* dg = find_rec2field(0x35);
  rec_buf in(dg);
  test::fill_record(dg, 0x35, in.mem, 7);
  bytes good = format_body(0x35, in.mem);
  struct fault {
    const char* what;
    std::uint32_t type;
    bytes body;
  };
  bytes longer = good;
  longer.push_back(0);
  bytes nonminimal = {0x04, 0, 0, 0, 5, 2, 'd', 'g'};  // id 5 in four bytes
  bytes rest(good.begin() + 1 + good[0], good.end());
  rest.erase(rest.begin(), rest.begin() + 1 + rest[0]);  // drop the name
  nonminimal.insert(nonminimal.end(), rest.begin(), rest.end());
  bytes overrun = good;
  overrun[0] = 0x08;  // the id's length runs into the name
  bytes name_past_end = {0x01, 0x05, 0xF0, 'a'};  // name length past the body
  const fault faults[] = {
      {"bytes left over", 0x35, longer},
      {"stored size differs from decoded size", 0x35, nonminimal},
      {"name length past the body", 0x35, name_past_end},
      {"unknown presence flag (volume pre-decode)", 0x4031, format_body(0x31, in.mem)},
      {"extension without the high half", 0x135, [&] {
         bytes b = {0, 0};
         b.insert(b.end(), good.begin(), good.end());
         return b;
       }()},
      {"empty body", 0x35, {}},
      {"id length runs into the name", 0x35, overrun},
  };
  for (const fault& f : faults) {
    SCOPED_TRACE(f.what);
    one_record_copy c(f.type, f.body);
    EXPECT_EQ(c.error, VE_DB_FORMAT);
    EXPECT_EQ(dbr_find(c.db(), 42), nullptr);
  }
}

// An unknown type, then a bad record flag, then refusal by the store's
// state (before the size check), then the size.
TEST(RecordLayoutsTest, InitRecordChecksInOrder) {
  const struct {
    std::uint32_t type;
    std::uint16_t flag;
    std::size_t size;
    unsigned state;
    int want;
    bool refused;
  } cases[] = {{0x20, 0, 0, 0, VE_DB_FORMAT, false},    {0x31, 3, 20000, 0, VE_DB_FORMAT, false},
               {0x31, 2, 20000, 1, 0, true},            {0x31, 2, 20000, 4, 0, true},
               {0x31, 1, 20000, 3, 0, true},            {0x31, 1, 20000, 0, VE_RECORD_TOO_LARGE, false},
               {0x31, 1, 16384, 0, 0, false}};
  for (const auto& k : cases) {
    test::decoded_copy store;
    store.db()->ddb_flag = k.state << DDB_STATE_SHIFT;
    db_record r{};
    r.dbr_type = k.type;
    r.dbr_flag = k.flag;
    r.dbr_size = k.size;
    EXPECT_EQ(voldbsup_init_record(store.db(), &r), k.want) << k.flag << " " << k.state;
    EXPECT_EQ(r.dbr_gen_flag == DBR_REFUSED, k.refused) << k.flag << " " << k.state;
  }
}

// ---------------------------------------------------------------------------
// Database header.

voldb_info sample_info(std::uint16_t major, std::uint16_t minor) {
  voldb_info vi{};
  vi.vdbi_commit_state = 1;
  vi.vdbi_version_major = major;
  vi.vdbi_version_minor = minor;
  std::strcpy(vi.vdbi_dg_name, "datadg");
  std::strcpy(vi.vdbi_dg_name_1_2, "olddg");
  std::strcpy(vi.vdbi_dg_id, "1234567890.12.host");
  vi.vdbi_config_tid.seqno_lo = 0x11;
  vi.vdbi_config_tid.seqno_hi = 0x22;
  vi.vdbi_pending_tid.seqno_lo = 0x33;
  unsigned long n = 1;
  for (vol_summary* s : {&vi.vdbi_config_sum, &vi.vdbi_pending_sum}) {
    for (unsigned long* c : {&s->vs_v_cnt, &s->vs_pl_cnt, &s->vs_sd_cnt, &s->vs_dm_cnt,
                             &s->vs_da_cnt, &s->vs_reserved_1, &s->vs_reserved_2, &s->vs_rv_cnt,
                             &s->vs_rp_cnt, &s->vs_dco_cnt, &s->vs_sp_cnt, &s->vs_stpool_cnt,
                             &s->vs_info_cnt, &s->vs_vset_cnt, &s->vs_cache_cnt,
                             &s->vs_export_cnt}) {
      *c = n++;
    }
  }
  vi.vdbi_nt_update_time = 0x0102030405060708ull;
  vi.vdbi_pending_major = 4;
  vi.vdbi_pending_minor = 17;
  vi.vdbi_prev_tag = 77;
  vi.vdbi_cur_tag = 78;
  return vi;
}

struct header_case {
  std::uint16_t major, minor;
};

TEST(VoldbHeaderTest, EveryMajorAndMinorRule) {
  for (header_case c : {header_case{3, 1}, {4, 9}, {4, 10}, {4, 11}, {4, 16}, {4, 17}}) {
    SCOPED_TRACE(testing::Message() << c.major << "." << c.minor);
    voldb_info vi = sample_info(c.major, c.minor);
    test::decoded_copy store, store2;
    dbase* db = store.db();
    db->ddb_nblocks = 2048;
    db->ddb_blksize = 512;
    db->ddb_hdrsize = 512;
    bytes buf(512, 0xAA);
    ASSERT_EQ(voldbsup_format_header(db, buf.data(), buf.size(), &vi), 0);
    EXPECT_EQ(std::memcmp(buf.data(), "VMDB", 4), 0);
    EXPECT_EQ(get_be32(buf.data() + 4), 2048u);
    EXPECT_EQ(get_be16(buf.data() + 18), c.major);
    std::size_t end = c.major == 3 ? 22 + 150 : 22 + 183 + 16 + 8 + 68;
    for (std::size_t i = end; i < buf.size(); ++i) ASSERT_EQ(buf[i], 0) << i;

    voldb_info got{};
    dbase* db2 = store2.db();
    ASSERT_EQ(voldbsup_unformat_header(db2, buf.data(), buf.size(), &got), 0);
    EXPECT_EQ(db2->ddb_nblocks, 2048u);
    EXPECT_EQ(db2->ddb_blksize, 512u);
    EXPECT_EQ(db2->ddb_hdrsize, 512u);
    EXPECT_EQ(db2->ddb_mvers_major, c.major);
    EXPECT_EQ(db2->ddb_mvers_minor, c.minor);
    EXPECT_EQ(got.vdbi_commit_state, 1);
    EXPECT_STREQ(got.vdbi_dg_id, vi.vdbi_dg_id);
    EXPECT_EQ(seqno_value(got.vdbi_config_tid), seqno_value(vi.vdbi_config_tid));
    EXPECT_EQ(seqno_value(got.vdbi_pending_tid), seqno_value(vi.vdbi_pending_tid));
    EXPECT_EQ(got.vdbi_config_sum.vs_reserved_2, vi.vdbi_config_sum.vs_reserved_2);
    EXPECT_EQ(got.vdbi_pending_sum.vs_v_cnt, vi.vdbi_pending_sum.vs_v_cnt);
    if (c.major == 3) {
      EXPECT_STREQ(got.vdbi_dg_name, "olddg");
      EXPECT_STREQ(got.vdbi_dg_name_1_2, "olddg");
      EXPECT_EQ(got.vdbi_config_sum.vs_rv_cnt, 0u);
      EXPECT_EQ(got.vdbi_nt_update_time, 0u);
      continue;
    }
    EXPECT_STREQ(got.vdbi_dg_name, "datadg");
    EXPECT_EQ(got.vdbi_pending_sum.vs_rp_cnt, vi.vdbi_pending_sum.vs_rp_cnt);
    if (c.minor <= 9) {
      EXPECT_EQ(got.vdbi_nt_update_time, 0u);
    } else if (c.minor == 10) {
      // Read from where the writer repeated the replication counters.
      std::uint64_t quirk = (std::uint64_t{vi.vdbi_config_sum.vs_rv_cnt} << 32) |
                            vi.vdbi_config_sum.vs_rp_cnt;
      EXPECT_EQ(got.vdbi_nt_update_time, quirk);
    } else {
      EXPECT_EQ(got.vdbi_nt_update_time, vi.vdbi_nt_update_time);
    }
    if (c.minor > 16) {
      EXPECT_EQ(got.vdbi_pending_minor, 17);
      EXPECT_EQ(got.vdbi_cur_tag, 78u);
      EXPECT_EQ(got.vdbi_config_sum.vs_dco_cnt, vi.vdbi_config_sum.vs_dco_cnt);
      EXPECT_EQ(got.vdbi_pending_sum.vs_export_cnt, vi.vdbi_pending_sum.vs_export_cnt);
    } else {
      EXPECT_EQ(got.vdbi_pending_minor, 0);
      EXPECT_EQ(got.vdbi_config_sum.vs_dco_cnt, 0u);
    }
  }
}

TEST(VoldbHeaderTest, Failures) {
  voldb_info vi = sample_info(4, 17);
  test::decoded_copy store;
  dbase* db = store.db();
  bytes buf(512);
  ASSERT_EQ(voldbsup_format_header(db, buf.data(), buf.size(), &vi), 0);
  voldb_info got{};
  EXPECT_EQ(voldbsup_unformat_header(db, buf.data(), 200, &got), VE_DB_FORMAT);
  EXPECT_EQ(voldbsup_unformat_header(db, buf.data(), 3, &got), VE_BAD_MAGIC);
  EXPECT_EQ(voldbsup_format_header(db, buf.data(), 100, &vi), VE_DB_FORMAT);
  // Only the first 512 bytes are decoded.
  bytes big(4096, 0);
  ASSERT_EQ(voldbsup_format_header(db, big.data(), big.size(), &vi), 0);
  EXPECT_EQ(voldbsup_unformat_header(db, big.data(), big.size(), &got), 0);
}

}  // namespace
}  // namespace pd
