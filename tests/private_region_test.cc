// Header location: which copy wins, the search for a displaced header, the
// backup retry, and the device-relative scan. Images come from builder
// descriptions; the handle reads them from memory.
#include <gtest/gtest.h>

#include <string>

#include "priv_test_support.h"
#include "private_region/header.h"

namespace pd {
namespace {

using test::build;
using test::memory_disk;

const std::string disk512 =
    "disk sector-size=512 sectors=2048\n"
    "region config copy=1 offset=17 len=800\n";

// The primary stays unless the alternate's number is newer by a positive
// signed 64-bit difference and the copies agree on the layout; the choice is
// silent and reads the two copies only.
TEST(ScanTest, WhichCopyWins) {
  const unsigned long both = PRI_NOUPDATE | PRI_PRIMARY_OK | PRI_ALT_OK;
  struct {
    std::string copies;
    const char* diskid;
    unsigned long flags;
  } cases[] = {
      {"hdrcopy primary\nhdrcopy alternate diskid=altdisk\n", "disk01", both},
      {"header seqno=1.0\nhdrcopy primary seqno=0.4294967295\nhdrcopy alternate diskid=altdisk\n", "altdisk",
       both | PRI_USED_ALT},
      // alternate - primary = 0x8000000000000001: negative, although larger
      {"hdrcopy primary seqno=0.1\nhdrcopy alternate seqno=0x8000000000000002 diskid=altdisk\n", "disk01", both},
      {"hdrcopy primary seqno=0.9\nhdrcopy alternate seqno=0.8 diskid=altdisk\n", "disk01", both},
      {"hdrcopy primary\n", "disk01", PRI_NOUPDATE | PRI_PRIMARY_OK},
  };
  std::vector<std::string> all;
  for (const auto& c : cases) all.push_back(c.copies);
  for (const char* field : {"pub-offset=7", "pub-len=7", "priv-offset=7", "pub-id=9", "priv-id=9", "iosize=1024",
                            "priv-len=2100"})
    all.push_back(std::string("hdrcopy primary\nhdrcopy alternate seqno=0.5 diskid=alt ") + field + "\n");
  for (std::size_t i = 0; i < all.size(); ++i) {
    SCOPED_TRACE(all[i]);
    memory_disk d(build(disk512 + all[i]));
    ASSERT_EQ(d.scan(), VE_OK);
    EXPECT_STREQ(d.priv->pri_header->phi_diskid, i < std::size(cases) ? cases[i].diskid : "disk01");
    EXPECT_EQ(d.priv->pri_flags, i < std::size(cases) ? cases[i].flags : both);
    EXPECT_EQ(d.reads, 2);
    if (d.priv->pri_flags & PRI_USED_ALT) {
      EXPECT_EQ(priv_join(d.priv), VE_OK);  // the TOC carries its number
    }
  }
}

TEST(ScanTest, UnreadableCopies) {
  memory_disk far(build(disk512));
  disk_attrs a = far.attrs();
  a.dka_alternate_header = 5000;  // past the end: a short read
  ASSERT_EQ(priv_scan(far.priv, &a), VE_OK);
  EXPECT_EQ(far.priv->pri_flags, PRI_PRIMARY_OK);
  memory_disk gone(build(disk512));
  a.dka_primary_header = 9999;  // an unreadable primary fails with the read error
  EXPECT_EQ(priv_scan(gone.priv, &a), VE_SHORT_READ);
}

TEST(ScanTest, ADamagedPrimaryWithNothingToFindFailsWithItsOwnError) {
  struct {
    std::string desc;
    int want;
  } cases[] = {
      {disk512 + "hdrcopy primary damage=magic\nhdrcopy alternate\n", VE_PRIV_FORMAT},
      {disk512 + "hdrcopy primary damage=checksum\nhdrcopy alternate\n", VE_PRIV_FORMAT},
      {disk512 + "hdrcopy primary version=5.0\nhdrcopy alternate\n", VE_PRIV_VERSION},
      {disk512 + "hdrcopy primary priv-len=600000\nhdrcopy alternate\n", VE_PRIV_INVALID},
      // a valid alternate is not consulted when the primary fails
      {disk512 + "hdrcopy primary diskid=.bad\nhdrcopy alternate seqno=0.9\n", VE_PRIV_FORMAT},
  };
  for (const auto& c : cases) {
    memory_disk d(build(c.desc));
    EXPECT_EQ(d.scan(), c.want) << c.desc;
    EXPECT_EQ(d.priv->pri_header, nullptr);
    EXPECT_EQ(d.priv->pri_flags, 0u);
    EXPECT_EQ(d.reads, 1 + 31) << "primary, then the 31 candidates";
  }
}

TEST(ScanTest, TheSearchFindsAHeaderNamingItsOwnPositionButKeepsTheSnapshot) {
  for (int at : {8, 64, 248}) {
    const std::string s = std::to_string(at);
    memory_disk d(build(disk512 + "hdrcopy " + s + " alternate=" + s + "\n"));
    ASSERT_EQ(d.scan(), VE_OK) << at;
    EXPECT_EQ(d.priv->pri_flags, PRI_NOUPDATE | PRI_ALT_OK | PRI_USED_ALT);
    const priv_header_info* h = d.priv->pri_header;
    EXPECT_EQ(h->phi_priv_len, 0) << "the undecoded snapshot";
    EXPECT_STREQ(h->phi_diskid, "");
    EXPECT_EQ(h->phi_primary_header, 2047);
    EXPECT_EQ(priv_join(d.priv), VE_PRIV_INVALID);
  }
}

TEST(ScanTest, TheSearchIgnoresOtherCandidates) {
  for (const char* extra : {"hdrcopy 256 alternate=256\n",   // beyond the searched stretch
                            "hdrcopy 12 alternate=12\n",     // not on a 4 KiB step
                            "hdrcopy 64 alternate=65\n",     // names another position
                            "hdrcopy 64 alternate=64 damage=checksum\n"}) {
    memory_disk d(build(disk512 + extra));
    EXPECT_EQ(d.scan(), VE_PRIV_FORMAT) << extra;  // the empty primary's error
  }
}

TEST(ScanTest, FindAltHeaderDirectly) {
  memory_disk d(build(disk512 + "hdrcopy 64 alternate=64\n"));
  d.priv->pri_header = priv_alloc_header();
  d.priv->pri_header->phi_atomic_iosize = 512;
  ASSERT_EQ(priv_find_alt_header(d.priv, nullptr), VE_OK);
  EXPECT_EQ(d.priv->pri_header->phi_priv_len, 2048);  // left decoded
  EXPECT_EQ(d.reads, 8);                             // sectors 8, 16, ... 64
}

TEST(ScanTest, WithFourKiBSectorsTheSearchCannotMatch) {
  const std::string desc =
      "disk sector-size=4096 sectors=256\n"
      "region config copy=1 offset=17 len=100\n"
      "hdrcopy 1 alternate=1\n";  // 4 KiB into the region, naming itself
  memory_disk d(build(desc));
  EXPECT_EQ(d.scan(4096), VE_PRIV_FORMAT);
  EXPECT_EQ(d.reads, 1 + 31);

  memory_disk direct(build(desc));
  direct.priv->pri_header = priv_alloc_header();
  direct.priv->pri_header->phi_atomic_iosize = 4096;
  EXPECT_EQ(priv_find_alt_header(direct.priv, nullptr), VE_HEADER_NOT_FOUND);
  EXPECT_EQ(direct.reads, 31);
}

TEST(ScanTest, BackupRetryTakesThePositionsOfTheBackupHeader) {
  // The caller's positions are wrong; the backup copy names the right ones.
  memory_disk d(build(disk512 + "hdrcopy primary\nhdrcopy alternate\nhdrcopy 1000\n"));
  disk_attrs a = d.attrs();
  a.dka_primary_header = 10;
  a.dka_alternate_header = 20;
  a.dka_nt_backup_header = 1000;
  a.dka_flags = DKA_USE_BACKUP;  // no search
  ASSERT_EQ(priv_scan(d.priv, &a), VE_OK);
  EXPECT_EQ(a.dka_primary_header, 2047);
  EXPECT_EQ(a.dka_alternate_header, 1856);
  EXPECT_EQ(d.priv->pri_flags, PRI_PRIMARY_OK | PRI_ALT_OK);
  EXPECT_EQ(a.dka_flags, DKA_USE_BACKUP);
  EXPECT_EQ(d.priv->pri_header->phi_flags, 0u) << "the decoded primary's flags";

  memory_disk none(build(disk512));
  disk_attrs b = none.attrs();
  b.dka_primary_header = 10;
  b.dka_alternate_header = 20;
  b.dka_nt_backup_header = 30;  // no header there either
  b.dka_flags = DKA_USE_BACKUP;
  EXPECT_EQ(priv_scan(none.priv, &b), VE_PRIV_FORMAT);
  EXPECT_EQ(b.dka_primary_header, 10);
}

TEST(ScanTest, OnlyTheAlternateDecodesOnTheBackupPath) {
  memory_disk d(build(disk512 + "hdrcopy primary damage=magic\nhdrcopy alternate diskid=alt\n"));
  disk_attrs a = d.attrs();
  a.dka_flags = DKA_USE_BACKUP;
  ASSERT_EQ(priv_scan(d.priv, &a), VE_OK);
  EXPECT_STREQ(d.priv->pri_header->phi_diskid, "alt");
  EXPECT_EQ(d.priv->pri_flags, PRI_ALT_OK | PRI_USED_ALT);
}

// A device whose region starts at sector 1, with the primary header first.
std::vector<std::uint8_t> device_with_region_at_one() {
  auto region = build(
      "disk sector-size=512 sectors=2048\n"
      "header primary=0 alternate=2047\n"
      "region config copy=1 offset=17 len=800\n");
  std::vector<std::uint8_t> dev(512, 0);
  dev.insert(dev.end(), region.begin(), region.end());
  return dev;
}

int updated_calls = 0;
void count_update(priv_info*) { ++updated_calls; }

TEST(ScanOffsetTest, LocatesARegionFromTheCandidateStarts) {
  memory_disk d(device_with_region_at_one());
  d.priv->pri_updated = count_update;
  updated_calls = 0;
  ASSERT_EQ(priv_scan_header(d.priv, -1, 512), VE_OK);
  EXPECT_EQ(updated_calls, 1);
  EXPECT_EQ(d.priv->pri_header->phi_priv_offset, 1);
  EXPECT_EQ(d.priv->pri_header->phi_priv_len, 2048);
  EXPECT_EQ(d.priv->pri_flags & (PRI_JOINED | PRI_NOUPDATE), 0u) << "trial join undone";
  EXPECT_EQ(d.priv->pri_toc_entries, nullptr);
  EXPECT_EQ(d.writes, 0);

  EXPECT_EQ(priv_scan_header(d.priv, 1, 512), VE_OK);
  EXPECT_EQ(priv_scan_offset(d.priv, 1, 1024, 1), VE_SECTOR_SIZE);
  EXPECT_EQ(d.priv->pri_header, nullptr);
  EXPECT_EQ(priv_scan_header(d.priv, 5, 512), VE_PRIV_FORMAT);
  EXPECT_EQ(d.priv->pri_header, nullptr);
}

TEST(ScanOffsetTest, NothingAtTheCandidateStarts) {
  memory_disk d(std::vector<std::uint8_t>(512 * 300, 0));
  EXPECT_EQ(priv_scan_header(d.priv, -1, 512), 1);
  // Sector sizes other than 512 fail every candidate; a given start reports
  // why.
  memory_disk region(device_with_region_at_one());
  for (std::size_t iosize : {0u, 1024u}) {
    EXPECT_EQ(priv_scan_header(region.priv, -1, iosize), 1) << iosize;
    EXPECT_EQ(priv_scan_header(region.priv, 1, iosize), VE_SECTOR_SIZE) << iosize;
  }
}

TEST(ScanOffsetTest, CopiesThatDisagreeAreRefused) {
  auto region = build(
      "disk sector-size=512 sectors=2048\n"
      "header primary=0 alternate=2047\n"
      "hdrcopy primary\nhdrcopy alternate pub-len=5\n");
  std::vector<std::uint8_t> dev(512, 0);
  dev.insert(dev.end(), region.begin(), region.end());
  memory_disk d(dev);
  EXPECT_EQ(priv_scan_offset(d.priv, 1, 512, 0), VE_INCONSISTENT_HEADERS);
  EXPECT_EQ(d.priv->pri_header, nullptr);
}

}  // namespace
}  // namespace pd
