// The header sector: stored positions, versions, checksum and every check of
// the decoder.
#include "private_region/header.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "base/errors.h"
#include "codec/field_codec.h"
#include "codec/integers.h"
#include "codec/text_forms.h"
#include "private_region/join.h"

namespace pd {
namespace {

using sector = std::vector<std::uint8_t>;

priv_header_info valid_header() {
  priv_header_info h;
  h.phi_version_major = 3;
  h.phi_version_minor = 1;
  h.phi_update_time = 0x0102030405060708ull;
  h.phi_update_seqno = {7, 1};  // lo 7, hi 1
  h.phi_primary_header = 2047;
  h.phi_alt_header = 1856;
  std::strcpy(h.phi_diskid, "disk01");
  std::strcpy(h.phi_dgid, "8f1e3b4c-0d2a-4e5f-9a6b-7c8d9e0f1a2b");
  std::strcpy(h.phi_dg_name, "dg1");
  h.phi_atomic_iosize = 512;
  h.phi_pub_id = 3;
  h.phi_priv_id = 4;
  h.phi_pub_offset = 2048;
  h.phi_pub_len = 99999;
  h.phi_priv_offset = 17;
  h.phi_priv_len = 2048;
  h.phi_first_toc = 1;
  h.phi_first_alt_toc = 2046;
  h.phi_nconfig = 2;
  h.phi_nlogs = 1;
  h.phi_config_len = 800;
  h.phi_log_len = 200;
  h.phi_nt_boot_disk_sig = 0xA1B2C3D4;
  h.phi_nt_diskset_id.Data1 = 0x11223344;
  h.phi_nt_new_diskset_id.Data4[7] = 0x99;
  std::strcpy(h.phi_move_dgid, "move");
  return h;
}

sector format(const priv_header_info& h) {
  sector buf(512, 0);
  priv_format_header(&h, buf.data());
  return buf;
}

void resum(sector& buf) { put_be32(buf.data() + 8, static_cast<std::uint32_t>(priv_header_checksum(buf.data()))); }

int decode(const sector& buf, priv_header_info* out = nullptr) {
  priv_header_info h;
  const int res = priv_unformat_header(&h, buf.data());
  if (out != nullptr) *out = h;
  return res;
}

TEST(HeaderTest, VersionTwoBodyLiesAtItsStoredOffsets) {
  const sector buf = format(valid_header());
  EXPECT_EQ(std::memcmp(buf.data(), "PRIVHEAD", 8), 0);
  EXPECT_EQ(get_be16(buf.data() + 12), 3);
  EXPECT_EQ(get_be16(buf.data() + 14), 1);
  EXPECT_EQ(get_be64(buf.data() + 16), 0x0102030405060708ull);
  EXPECT_EQ(get_be32(buf.data() + 24), 1u);  // seqno high half first
  EXPECT_EQ(get_be32(buf.data() + 28), 7u);
  EXPECT_EQ(get_be64(buf.data() + 32), 2047u);
  EXPECT_EQ(get_be64(buf.data() + 40), 1856u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buf.data() + 48)), "disk01");
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buf.data() + 240)), "dg1");
  EXPECT_EQ(get_be32(buf.data() + 271), 512u);
  EXPECT_EQ(get_be16(buf.data() + 279), 3);
  EXPECT_EQ(get_be64(buf.data() + 283), 2048u);  // public offset before length
  EXPECT_EQ(get_be64(buf.data() + 291), 99999u);
  EXPECT_EQ(get_be64(buf.data() + 299), 17u);
  EXPECT_EQ(get_be64(buf.data() + 307), 2048u);
  EXPECT_EQ(get_be64(buf.data() + 347), 200u);
  EXPECT_EQ(get_be32(buf.data() + 355), 0xA1B2C3D4u);
  EXPECT_EQ(get_be32(buf.data() + 359), 0x11223344u);
  EXPECT_EQ(buf[375 + 15], 0x99);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buf.data() + 391)), "move");
  for (std::size_t i = 455; i < 512; ++i) ASSERT_EQ(buf[i], 0) << i;
  EXPECT_EQ(get_be32(buf.data() + 8), priv_header_checksum(buf.data()));
}

TEST(HeaderTest, RoundTripAndDecoderDerivedFields) {
  const sector stored = format(valid_header());
  priv_header_info h;
  h.phi_nt_backup_header = 55;  // not in the sector: kept
  ASSERT_EQ(priv_unformat_header(&h, stored.data()), VE_OK);
  EXPECT_EQ(format(h), stored);  // every stored field read back
  EXPECT_EQ(h.phi_nt_backup_header, 55);
  EXPECT_TRUE(seqno_equal(h.phi_next_seqno, valid_header().phi_update_seqno));
  EXPECT_EQ(h.phi_chunk_size, 512u);
  EXPECT_EQ(h.phi_chunk_shift, 9);
  EXPECT_EQ(h.phi_sctr_shift, 9);
}

// Every major version from 2 to 4 carries the extensions, whatever the minor.
TEST(HeaderTest, Versions) {
  for (auto [major, minor, want] : {std::tuple{2, 0, VE_OK}, {4, 7, VE_OK}, {0, 0, VE_PRIV_VERSION},
                                    {5, 0, VE_PRIV_VERSION}}) {
    SCOPED_TRACE(std::to_string(major) + "." + std::to_string(minor));
    priv_header_info h = valid_header();
    h.phi_version_major = static_cast<std::uint16_t>(major);
    h.phi_version_minor = static_cast<std::uint16_t>(minor);
    priv_header_info got;
    ASSERT_EQ(decode(format(h), &got), want);
    if (want == VE_OK) {
      EXPECT_EQ(got.phi_nt_boot_disk_sig, 0xA1B2C3D4ul);
      EXPECT_STREQ(got.phi_move_dgid, "move");
    }
  }
}

// A version 1 sector written with its own table (the encoder always writes
// the version 2 body).
TEST(HeaderTest, VersionOneUsesItsOwnBodyAndKeepsTheCallersOffset) {
  priv_header_info h = valid_header();
  h.phi_version_major = 1;
  h.phi_version_minor = 2;
  std::strcpy(h.phi_dg_name_1_2, "oldgroup");
  sector buf(512, 0);
  std::uint8_t* p = dbf_fmt_tbl(priv_version_fields, n_priv_version_fields, &h, buf.data() + 12);
  p = dbf_fmt_tbl(priv_header_fields_1_2, n_priv_header_fields_1_2, &h, p);
  EXPECT_EQ(p - buf.data(), 326);
  std::memcpy(buf.data(), "PRIVHEAD", 8);
  resum(buf);
  priv_header_info got;
  got.phi_priv_offset = 1234;
  got.phi_nt_boot_disk_sig = 5;
  ASSERT_EQ(priv_unformat_header(&got, buf.data()), VE_OK);
  EXPECT_STREQ(got.phi_dg_name, "oldgroup");
  EXPECT_EQ(got.phi_priv_offset, 1234);
  EXPECT_EQ(got.phi_nt_boot_disk_sig, 5ul);  // no extension groups
  EXPECT_EQ(got.phi_update_time, 0x05060708u);  // stored in 4 bytes
  EXPECT_EQ(got.phi_log_len, 200);

  // A version 1 record encoded by the encoder: a version 2 body that the
  // decoder then reads with the version 1 table.
  priv_header_info misread;
  const int res = decode(format(h), &misread);
  EXPECT_TRUE(res != VE_OK || misread.phi_priv_len != 2048);
}

TEST(HeaderTest, MagicAndChecksum) {
  sector buf = format(valid_header());
  sector bad = buf;
  bad[0] = 'p';
  EXPECT_EQ(decode(bad), VE_PRIV_FORMAT);
  for (std::size_t at : {8u, 11u, 100u, 455u, 511u}) {
    bad = buf;
    bad[at] ^= 1;
    EXPECT_EQ(decode(bad), VE_PRIV_FORMAT) << at;
  }
  // Bytes 8..11 are outside the sum.
  const std::uint64_t sum = priv_header_checksum(buf.data());
  buf[9] ^= 0xFF;
  EXPECT_EQ(priv_header_checksum(buf.data()), sum);
}

TEST(HeaderTest, RegionLengthAndPositionRanges) {
  struct {
    void (*set)(priv_header_info&);
    int want;
  } cases[] = {
      {[](priv_header_info& h) { h.phi_priv_len = 524288; h.phi_primary_header = 1; }, VE_OK},
      {[](priv_header_info& h) { h.phi_priv_len = 524289; }, VE_PRIV_INVALID},
      {[](priv_header_info& h) { h.phi_priv_len = 0; }, VE_PRIV_INVALID},
      {[](priv_header_info& h) { h.phi_primary_header = 0; }, VE_OK},
      {[](priv_header_info& h) { h.phi_primary_header = -1; }, VE_PRIV_INVALID},
      {[](priv_header_info& h) { h.phi_primary_header = 2048; }, VE_PRIV_INVALID},
      {[](priv_header_info& h) { h.phi_alt_header = 0; }, VE_PRIV_INVALID},
      {[](priv_header_info& h) { h.phi_alt_header = 2048; }, VE_PRIV_INVALID},
      {[](priv_header_info& h) { h.phi_first_toc = 0; }, VE_OK},
      {[](priv_header_info& h) { h.phi_first_toc = 2048; }, VE_PRIV_INVALID},
      {[](priv_header_info& h) { h.phi_first_alt_toc = 0; }, VE_PRIV_INVALID},
      {[](priv_header_info& h) { h.phi_first_alt_toc = 2047; }, VE_OK},
  };
  int i = 0;
  for (const auto& c : cases) {
    priv_header_info h = valid_header();
    c.set(h);
    EXPECT_EQ(decode(format(h)), c.want) << "case " << i++;
  }
}

TEST(HeaderTest, NameChecks) {
  using H = priv_header_info;
  struct {
    std::size_t field;  // offset of the string member
    std::string value;
    unsigned long flags;
    int want;
  } cases[] = {
      {offsetof(H, phi_diskid), std::string(64, 'a'), 0, VE_OK},
      {offsetof(H, phi_diskid), ".hidden", 0, VE_PRIV_FORMAT},
      {offsetof(H, phi_diskid), "", 0, VE_PRIV_FORMAT},
      {offsetof(H, phi_hostid), "myhost", 0, VE_PRIV_FORMAT},
      {offsetof(H, phi_hostid), "myhost", PHI_SHARED, VE_OK},  // shared: any host id
      {offsetof(H, phi_hostid), "0a1b2c3d-0000-1111-2222-333344445555", 0, VE_OK},
      {offsetof(H, phi_hostid), "0A1B2C3D-0000-1111-2222-333344445555", 0, VE_PRIV_FORMAT},
      {offsetof(H, phi_dgid), "", 0, VE_OK},
      {offsetof(H, phi_dgid), "dg-not-guid", 0, VE_PRIV_FORMAT},
      {offsetof(H, phi_dg_name), "a/b", 0, VE_PRIV_FORMAT},
      {offsetof(H, phi_dg_name), std::string(31, 'g'), 0, VE_OK},
      {offsetof(H, phi_dg_name), ".dot", 0, VE_OK},
  };
  for (const auto& c : cases) {
    priv_header_info h = valid_header();
    std::strcpy(reinterpret_cast<char*>(&h) + c.field, c.value.c_str());
    h.phi_flags = c.flags;
    EXPECT_EQ(decode(format(h)), c.want) << c.value;
  }
}

TEST(HeaderTest, NameRuleClearsTheTailAndBoundsTheLength) {
  char name[10];
  std::memcpy(name, "ab\0xyzxyz", 10);
  name[9] = 'Q';
  EXPECT_EQ(check_name(name, 8), 0);
  for (int i = 2; i <= 8; ++i) EXPECT_EQ(name[i], '\0') << i;
  EXPECT_EQ(name[9], 'Q');  // beyond the limit: untouched
  std::memcpy(name, "abcdefghi", 10);
  EXPECT_LT(check_optional_name(name, 8), 0);  // no terminator within 8
  EXPECT_EQ(check_optional_name(name, 9), 0);
  std::memcpy(name, "\0bcdefghi", 10);
  EXPECT_EQ(check_optional_name(name, 8), 0);
  EXPECT_LT(check_name(name, 8), 0);
}

TEST(HeaderTest, UpdateStartAdvancesTheSequenceNumberAcrossTheHalves) {
  priv_info priv;
  priv_header_info h = valid_header();
  priv.pri_header = &h;
  h.phi_next_seqno = {0xFFFFFFFFu, 4};
  h.phi_update_time = 77;
  const volseqno_t before = h.phi_update_seqno;
  priv_update_header_start(&priv);
  EXPECT_EQ(h.phi_next_seqno.seqno_hi, 5u);
  EXPECT_EQ(h.phi_next_seqno.seqno_lo, 0u);
  EXPECT_TRUE(seqno_equal(h.phi_update_seqno, h.phi_next_seqno));
  EXPECT_TRUE(seqno_equal(h.phi_save_update_seqno, before));
  EXPECT_EQ(h.phi_save_update_time, 77u);
  EXPECT_GT(h.phi_update_time, 1600000000u);  // now
  priv_update_header_start(&priv);
  EXPECT_EQ(h.phi_update_seqno.seqno_lo, 1u);
  EXPECT_EQ(h.phi_update_seqno.seqno_hi, 5u);
}

}  // namespace
}  // namespace pd
