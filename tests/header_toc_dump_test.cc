// The header and TOC dump: whole texts, written from the report's formats,
// and privdiag's scan and join failures through the real binary.
#include "report/header_toc_dump.h"

#include <gtest/gtest.h>

#include <string>

#include "priv_test_support.h"
#include "private_region/toc.h"

namespace pd {
namespace {

using test::build;
using test::memory_disk;

const std::string disk =
    "disk sector-size=512 sectors=2048\n"
    "header diskid=disk01 dgname=dg1 dgid=8f1e3b4c-0d2a-4e5f-9a6b-7c8d9e0f1a2b\n"
    "header seqno=0.17 time=1700000000 pub-id=3 priv-id=4 pub-offset=2048 pub-len=99\n";

struct dumped {
  std::string header;
  std::string toc;
};

dumped dump_of(const std::string& desc) {
  memory_disk d(build(desc));
  EXPECT_EQ(d.scan(), VE_OK);
  EXPECT_EQ(priv_join(d.priv), VE_OK);
  test::captured_session a, b;
  priv_dump_header(a.get(), d.priv);
  priv_dump_toc(b.get(), d.priv);
  return {a.out(), b.out()};
}

const std::string regions = "region config copy=1 offset=17 len=100\nregion log copy=1 offset=200 len=20\n";

// The header dump of `disk` + `regions`, whose region offset is `offset`.
std::string header_text(const std::string& offset) {
  return "diskid:  disk01\n"
         "group:   name=dg1 id=8f1e3b4c-0d2a-4e5f-9a6b-7c8d9e0f1a2b\n"
         "flags:   private autoimport\n"
         "import:  bootsig=0 hostid=\n"
         "diskset: id=00000000-0000-0000-0000-000000000000\n"
         "version: 3.1\n"
         "iosize:  512\n"
         "public:  slice=3 offset=2048 len=99\n"
         "private: slice=4 offset=" + offset + " len=2048\n"
         "update:  seqno=0.17 time=1700000000\n"
         "headers: 2047 1856\n"
         "configs: count=1 len=100\n"
         "logs:    count=1 len=20\n";
}

TEST(HeaderDumpTest, FlagsDisksetAndAlternate) {
  const dumped got = dump_of(disk +
                             "header flags=shared,noautoimport,encap-pending hostid=anyhost bootsig=4000000000\n"
                             "header diskset=00112233-4455-6677-8899-aabbccddeeff\n"
                             "header new-diskset=00112233-4455-6677-8899-aabbccddeef0 seqno=1.2\n"
                             "hdrcopy primary seqno=1.1\nhdrcopy alternate\n");
  EXPECT_EQ(got.header.substr(got.header.find("flags:")),
            "flags:   shared noautoimport encap-pending\n"
            "import:  bootsig=4000000000 hostid=anyhost\n"
            "diskset: id=00112233-4455-6677-8899-aabbccddeeff new=00112233-4455-6677-8899-aabbccddeef0\n"
            "version: 3.1\n"
            "iosize:  512\n"
            "public:  slice=3 offset=2048 len=99\n"
            "private: slice=4 offset=0 len=2048\n"
            "update:  seqno=1.2 time=1700000000\n"
            "headers: 2047 1856 altused\n"
            "configs: count=0 len=0\n"
            "logs:    count=0 len=0\n");
}

TEST(HeaderDumpTest, InvalidCopiesAreNamed) {
  memory_disk d(build(disk));
  ASSERT_EQ(d.scan(), VE_OK);
  test::captured_session cs;
  d.priv->pri_flags = 0;
  priv_dump_header(cs.get(), d.priv);
  EXPECT_NE(cs.out().find("\nflags:   private autoimport invalid-primary invalid-alt\n"), std::string::npos);

  EXPECT_NE(dump_of(disk + "hdrcopy primary\n").header.find("\nflags:   private autoimport invalid-alt\n"),
            std::string::npos);
}

TEST(TocDumpTest, RegionsCopiesAndTags) {
  const dumped got = dump_of(
      "disk sector-size=512 sectors=4096\n"
      "tocblock at=1 alt=4094\ntocblock at=2 alt=4093\ntocblock at=3 alt=4092\ntocblock at=4 alt=4091\n"
      "region config copy=1 offset=2049 len=1\n"
      "region config copy=2 offset=17 len=100 flags=disabled,new\n"
      "region log copy=12 offset=300 len=40 part-offset=0 flags=delete\n"
      "region tagid tag-name=site tag-value=site-a tag-source=x offset=5 block=1\n"
      "region tagid tag-name=vdid tag-value=v1 tag-source=src tag-flags=3 offset=6 block=2\n"
      "region tagid tag-name=color tag-value=blue tag-source=user tag-flags=5 offset=7 block=3\n"
      "region blob offset=8 len=0 block=3\n");
  EXPECT_EQ(got.toc,
            "tocblks: 0\n"
            "tocs:    1/4094 2/4093 3/4092 4/4091\n"
            "Defined regions:\n"
            " tagid    priv      5-     4[     0]:\n"
            "\t\tSiteTag: site-a\n"
            " tagid    priv      6-     5[     0]:\n"
            "\t\tname:  vdid\n"
            "\t\tvalue: v1\n"
            "\t\tflag:  shadow\n"
            "\t\tSource: src\n"
            "\n"
            " tagid    priv      7-     6[     0]:\n"
            "\t\tname:  color\n"
            "\t\tvalue: blue\n"
            "\t\tflag: 5\n"
            "\t\tSource: user\n"
            "\n"
            " blob     priv      8-     7[     0]:\n"
            " config   priv     17-   116[   100] new: copy=02 offset=000000 disabled\n"
            " log      priv    300-   339[    40] delete: copy=12 offset=000000 enabled\n"
            " config   priv   2049-  2049[     1]: copy=01 offset=000000 enabled\n");
}

TEST(TocDumpTest, VdidPrimaryAndUnknownPayloads) {
  const dumped got = dump_of(disk +
                             "region tagid tag-name=vdid tag-value=v tag-source=s tag-flags=1 offset=6\n"
                             "region mystery offset=9 len=2 info=4142434445464748494a4b4c4d4e4f5051525354\n"
                             "region raw offset=20 len=1 info=00ff0a\n");
  EXPECT_EQ(got.toc.substr(got.toc.find("Defined regions:\n")),
            "Defined regions:\n"
            " tagid    priv      6-     5[     0]:\n"
            "\t\tname:  vdid\n"
            "\t\tvalue: v\n"
            "\t\tflag:  primary\n"
            "\t\tSource: s\n"
            "\n"
            " mystery  priv      9-    10[     2]:\n"
            "   0000  41 42 43 44 45 46 47 48  49 4a 4b 4c 4d 4e 4f 50  ABCDEFGHIJKLMNOP\n"
            "   0010  51 52 53 54 " + std::string(1 + 12 * 3, ' ') + " QRST\n"
            " raw      priv     20-    20[     1]:\n"
            "   0000  00 ff 0a " + std::string(1 + 13 * 3, ' ') + " ...\n");
}

TEST(TocDumpTest, HandMadeEntriesAndAnEmptyTable) {
  priv_info priv;
  toc_entry_info* e = priv_alloc_toc_entry(0);
  std::strcpy(e->tei_region.dkr_type, "longname");
  e->tei_region.dkr_flags = DKR_PUBLIC;
  priv.pri_toc_entries = e;
  test::captured_session cs;
  priv_dump_toc(cs.get(), &priv);
  EXPECT_EQ(cs.out(),
            "tocblks: 0\n"
            "tocs:   \n"
            "Defined regions:\n"
            " longname pub       0-    -1[     0]:\n");
  priv_free_toc_entry(e);
}

// ---- the driver over the dumps ---------------------------------------------

TEST(PrivdiagHeaderTocTest, PrintsTheStoredOffsetButReadsWithZero) {
  const auto r = test::privdiag_on(build(disk + "header priv-offset=77\n" + regions));
  const std::string head = header_text("77") +
                           "tocblks: 0\n"
                           "tocs:    1/2046\n"
                           "Defined regions:\n"
                           " config   priv     17-   116[   100]: copy=01 offset=000000 enabled\n"
                           " log      priv    200-   219[    20]: copy=01 offset=000000 enabled\n"
                           "\n\n";
  EXPECT_EQ(r.out.substr(0, head.size()), head);  // the configuration report follows
  EXPECT_EQ(r.err.find("operation failed"), std::string::npos);
}

}  // namespace
}  // namespace pd
