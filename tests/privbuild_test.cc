// The image builder: its language, its layout and its damage, in process
// and as the privbuild command.
#include "privbuild/builder.h"

#include <gtest/gtest.h>

#include <string>

#include "codec/integers.h"
#include "priv_test_support.h"
#include "private_region/toc.h"

namespace pd {
namespace {

using test::build;

const std::string disk = "disk sector-size=512 sectors=2048\n";

std::string error_of(const std::string& desc) {
  std::string error;
  const auto img = build_image(desc, &error);
  EXPECT_TRUE(img.empty());
  return error;
}

TEST(PrivbuildTest, DescriptionErrorsNameTheLine) {
  struct {
    std::string desc;
    std::string error;
  } cases[] = {
      {"", "the description must begin with a 'disk' statement"},
      {disk + "bogus x=1\n", "line 2: unknown statement 'bogus'"},
      {disk + "region config offset=17 len=8 colour=red\n", "line 2: unknown attribute 'colour' for 'region'"},
      {disk + "header diskid=\"unterminated\n", "line 2: unterminated quote"},
      {disk + "\nregion x offset=1 len=1 content=hex begin\n00\n", "line 3: 'begin' without 'end'"},
      {disk + "region x offset=1 len=1 content=hex begin\nzz\nend\n", "line 2: hex: not hex bytes: zz"},
      {disk + "hdrcopy 5000\n", "line 2: header copy at sector 5000 lies outside the image"},
      {disk + "tocblock at=1 alt=2\ntocblock\n", "line 3: every tocblock needs at= and alt= once one has them"},
      {disk + "tocblock at=1 alt=2\nregion x offset=1 len=1 block=3\n", "line 3: no TOC block 3"},
      {disk + "region x offset=2040 len=10 fill=1\n", "line 2: region contents lie outside the image"},
  };
  for (const auto& c : cases) EXPECT_EQ(error_of(c.desc), c.error) << c.desc;
}

TEST(PrivbuildTest, AutomaticTocAvoidsHeadersRegionsAndExtraCopies) {
  build_layout layout;
  build(disk + "region config offset=1 len=3\nregion log offset=2040 len=7\nhdrcopy primary\nhdrcopy 4\n",
        &layout);
  EXPECT_EQ(layout.toc_sectors, std::vector<voff_t>{5});
  EXPECT_EQ(layout.alt_toc_sectors, std::vector<voff_t>{2039});

  // Entries that fill more than a block spill into the next one.
  std::string many = disk;
  for (int i = 0; i < 3; ++i)
    many += "region tagid tag-name=t" + std::to_string(i) + " offset=" + std::to_string(10 + i) + "\n";
  build(many, &layout);
  EXPECT_EQ(layout.toc_sectors, (std::vector<voff_t>{1, 2, 3}));
  EXPECT_EQ(layout.alt_toc_sectors, (std::vector<voff_t>{2046, 2045, 2044}));
}

TEST(PrivbuildTest, ExplicitBlocksAndPayloads) {
  const auto img = build(disk +
                         "tocblock at=7 alt=9 seqno=3.4\n"
                         "region blob offset=100 len=5 flags=0x8003 info=c0ffee\n");
  const std::uint8_t* b = img.data() + 7 * 512;
  EXPECT_EQ(std::memcmp(b, "TOCBLOCK", 8), 0);
  EXPECT_EQ(get_be32(b + 8), priv_toc_checksum(b, 512));
  EXPECT_EQ(get_be32(b + 12), 3u);
  EXPECT_EQ(get_be32(b + 16), 4u);
  EXPECT_EQ(get_be64(b + 20), 0u);
  EXPECT_EQ(get_be64(b + 28), 0u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(b + 36)), "blob");
  EXPECT_EQ(get_be16(b + 44), 0x8003);
  EXPECT_EQ(get_be64(b + 46), 100u);
  EXPECT_EQ(get_be64(b + 54), 5u);
  EXPECT_EQ(get_be16(b + 62), 3);
  EXPECT_EQ(b[64], 0xc0);
  EXPECT_EQ(b[66], 0xee);
  EXPECT_EQ(b[67], 0);
  EXPECT_EQ(std::memcmp(img.data() + 9 * 512, b, 512), 0);
}

TEST(PrivbuildTest, DamageAndPokes) {
  const auto good = build(disk);
  const auto bad = build(disk + "hdrcopy primary damage=magic,checksum\nhdrcopy alternate\n"
                                "tocblock damage=magic damage-copy=alternate\n");
  EXPECT_EQ(bad[2047 * 512], 'p');
  EXPECT_EQ(get_be32(bad.data() + 2047 * 512 + 8), get_be32(good.data() + 2047 * 512 + 8) + 1);
  EXPECT_EQ(bad[1 * 512], 'T');
  EXPECT_EQ(bad[2046 * 512], 't');

  const auto poked = build(disk + "poke sector=1 offset=20 hex=0000000000000005\nfixsum toc sector=1\n"
                                  "poke at=3 hex=a1:b2-c3\ntruncate sectors=1900\n");
  ASSERT_EQ(poked.size(), 1900u * 512);
  EXPECT_EQ(get_be64(poked.data() + 512 + 20), 5u);
  EXPECT_EQ(get_be32(poked.data() + 512 + 8), priv_toc_checksum(poked.data() + 512, 512));
  EXPECT_EQ(poked[3], 0xa1);
  EXPECT_EQ(poked[5], 0xc3);

  const auto longer = build(disk + "truncate bytes=1048600\n");
  EXPECT_EQ(longer.size(), 1048600u);
  const auto erased = build("disk sector-size=512 sectors=2048 fill=0xe5\ntocblock write=primary\n");
  EXPECT_EQ(erased[2046 * 512], 0xe5);
  EXPECT_EQ(erased[100 * 512], 0xe5);
}

TEST(PrivbuildTest, ContentGenerators) {
  const auto img = build(disk +
                         "region a offset=10 len=1 content=hex begin\n  01 02 # comment\n  03\nend\n"
                         "region b offset=11 len=1 content=fill begin\n0x7f\nend\n"
                         "region c offset=12 len=1 content=text begin\n   hello\n  world\nend\n"
                         "region d offset=13 len=2 fill=0x11 content=hex begin\nff\nend\n"
                         "region e offset=100 len=1 fill=0x22 flags=pub\n");
  EXPECT_EQ(img[10 * 512 + 0], 1);
  EXPECT_EQ(img[10 * 512 + 2], 3);
  EXPECT_EQ(img[10 * 512 + 3], 0);
  EXPECT_EQ(img[11 * 512 + 511], 0x7f);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(img.data() + 12 * 512)), "hello\nworld\n");
  EXPECT_EQ(img[13 * 512], 0xff);
  EXPECT_EQ(img[13 * 512 + 1], 0x11);
  EXPECT_EQ(img[14 * 512 + 511], 0x11);
  EXPECT_EQ(img[100 * 512], 0);  // public regions are not in the image
}

TEST(PrivbuildTest, RegisteredGeneratorsSeeTheirRequest) {
  content_request seen;
  register_content_generator("probe", [&seen](const content_request& req, std::string*) {
    seen = req;
    std::vector<std::uint8_t> out(req.size);
    for (std::size_t i = 0; i < out.size(); ++i) out[i] = static_cast<std::uint8_t>(i / 512);
    return out;
  });
  register_content_generator("toolong", [](const content_request& req, std::string*) {
    return std::vector<std::uint8_t>(req.size + 1);
  });
  register_content_generator("refuse", [](const content_request&, std::string* error) {
    *error = "refused";
    return std::vector<std::uint8_t>{};
  });
  const auto img = build(disk + "header dgname=groupx\n"
                                "region config copy=2 offset=40 len=3\n"
                                "region config copy=2 offset=20 len=2\n"
                                "copy-content config copy=2 content=probe begin\n  line one\n  nested begin\n  end\nend\n");
  EXPECT_EQ(seen.type, "config");
  EXPECT_EQ(seen.copy, 2);
  EXPECT_EQ(seen.size, 5u * 512);
  EXPECT_EQ(seen.sector_size, 512u);
  EXPECT_EQ(seen.lines, (std::vector<std::string>{"  line one", "  nested begin", "  end"}));
  // Parts in file order: sectors 40..42 hold copy sectors 0..2, 20..21 hold 3..4.
  EXPECT_EQ(img[40 * 512], 0);
  EXPECT_EQ(img[42 * 512], 2);
  EXPECT_EQ(img[20 * 512], 3);
  EXPECT_EQ(img[21 * 512], 4);

  EXPECT_EQ(error_of(disk + "region x offset=1 len=1 content=toolong\n"),
            "line 2: toolong produced 513 bytes for a region of 512");
  EXPECT_EQ(error_of(disk + "region x offset=1 len=1 content=refuse\n"), "line 2: refused");
  EXPECT_EQ(error_of(disk + "copy-content log copy=1 content=zero\n"), "line 2: no log copy 1");
}

TEST(PrivbuildTest, TheCommand) {
  const std::string dir = test::temp_dir();
  test::write_text(dir + "/d.desc", disk + "region config offset=17 len=10\n");
  auto r = test::run_process({PD_PRIVBUILD_BIN, dir + "/d.desc", dir + "/d.img"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(test::read_file(dir + "/d.img"), build(disk + "region config offset=17 len=10\n"));

  r = test::run_process({PD_PRIVBUILD_BIN, dir + "/d.desc"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "usage: privbuild DESCRIPTION OUTPUT\n");

  test::write_text(dir + "/bad.desc", disk + "oops\n");
  r = test::run_process({PD_PRIVBUILD_BIN, dir + "/bad.desc", dir + "/bad.img"});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "privbuild: " + dir + "/bad.desc: line 2: unknown statement 'oops'\n");
}

}  // namespace
}  // namespace pd
