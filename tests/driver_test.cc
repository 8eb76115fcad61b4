#include "driver/driver.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/errors.h"
#include "io/io_buffers.h"
#include "codec/integers.h"
#include "io/dump_device.h"
#include "priv_test_support.h"
#include "test_support.h"

namespace pd {
namespace {

const std::string usage_out =
    "privdiag - ORVANE Volume Manager diagnostic operations\n\nUsage:\nprivdiag [512|4096] "
    "filename\n";

test::process_result privdiag(const std::vector<std::string>& args) {
  std::vector<std::string> argv{PD_PRIVDIAG_BIN};
  argv.insert(argv.end(), args.begin(), args.end());
  return test::run_process(argv);
}

std::string image_path(const std::string& name) { return test::temp_dir() + "/" + name; }

TEST(DriverTest, ArgumentAndOpenErrors) {
  const std::string img = image_path("args.img");
  const std::string missing = image_path("no-such.img");
  test::write_file(img, std::vector<std::uint8_t>(4096, 0));
  struct {
    std::vector<std::string> args;
    std::string err;
    std::string out;
  } cases[] = {
      {{}, "privdiag: Incorrect usage\n", usage_out},
      {{"512", img, "extra"}, "privdiag: Incorrect usage\n", usage_out},
      {{"1024", img}, "privdiag: Incorrect sector size\n", usage_out},
      {{"abc", img}, "privdiag: Incorrect sector size\n", usage_out},
      {{missing}, "Cannot open dump file " + missing + ".\n", ""},
      {{"4096", missing}, "Cannot open dump file " + missing + ".\n", ""},
  };
  for (const auto& c : cases) {
    auto r = privdiag(c.args);
    EXPECT_EQ(r.status, 1) << c.err;
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.out, c.out);
  }
  test::captured_session cs;
  std::string arg0 = "privdiag", arg1 = missing;
  char* argv[] = {arg0.data(), arg1.data(), nullptr};
  EXPECT_EQ(privdiag_main(cs.get(), 2, argv), 1);
  EXPECT_EQ(cs->priv_fd, nullptr);
  EXPECT_EQ(cs.err(), "Cannot open dump file " + missing + ".\n");
}

// Sector size, region offset and length, primary, alternate and backup
// header positions, flags: a partial last sector is not counted.
TEST(DriverTest, DiskAttributesFromTheImageLength) {
  auto text = [](const disk_attrs& d) {
    char b[128];
    std::snprintf(b, sizeof b, "%zu %lld %lld %lld %lld %lld %lu", d.dka_atomic_iosize,
                  static_cast<long long>(d.dka_priv_offset), static_cast<long long>(d.dka_priv_len),
                  static_cast<long long>(d.dka_primary_header), static_cast<long long>(d.dka_alternate_header),
                  static_cast<long long>(d.dka_nt_backup_header), static_cast<unsigned long>(d.dka_flags));
    return std::string(b);
  };
  EXPECT_EQ(text(derive_disk_attrs(1024 * 1024 + 100, 512)), "512 0 2048 2047 1856 2047 0");
  EXPECT_EQ(text(derive_disk_attrs(1024 * 1024 + 4095, 4096)), "4096 0 256 255 232 255 0");
}

// A session with the image open the way the driver opens it, and a handle
// whose header gives the sector size and region offset.
struct device_fixture {
  test::captured_session cs;
  priv_header_info hdr;
  priv_info priv;

  explicit device_fixture(const std::string& path, voff_t priv_offset = 0) {
    open_dump_file(cs.get(), path.c_str());
    hdr.phi_atomic_iosize = 512;
    hdr.phi_priv_offset = priv_offset;
    priv.pri_header = &hdr;
    priv.pri_io_private = &cs.get();
    priv.pri_read = privutil_read;
    priv.pri_write = privutil_write;
  }
  session& s() { return cs.get(); }
};

// Runs `call`, which must end the tool with status 1 and `err` on the
// session's standard error.
template <typename F>
void expect_fatal(test::captured_session& cs, F call, const std::string& err) {
  try {
    call();
    ADD_FAILURE() << "returned; expected " << err;
  } catch (const fatal_exit& e) {
    EXPECT_EQ(e.status, 1);
  }
  EXPECT_EQ(cs.err(), err);
}

// `n` sectors, sector i filled with the byte i.
std::vector<std::uint8_t> numbered_sectors(int n) {
  std::vector<std::uint8_t> b;
  for (int i = 0; i < n; ++i) b.insert(b.end(), 512, static_cast<std::uint8_t>(i));
  return b;
}

TEST(DriverTest, RelativeRequestsAddTheRegionOffsetAbsoluteOnesDoNot) {
  const std::string img = image_path("offsets.img");
  test::write_file(img, numbered_sectors(8));
  device_fixture f(img, 2);
  EXPECT_EQ(dump_file_size(f.s().priv_fd), 8u * 512);  // measured, then rewound
  EXPECT_EQ(std::ftell(f.s().priv_fd), 0);
  std::uint8_t buf[1024];
  ASSERT_EQ(privutil_read(&f.priv, buf, 1, 2, PRI_IO_PRIVATE), 0);
  EXPECT_EQ(buf[0], 3);
  EXPECT_EQ(buf[1023], 4);
  ASSERT_EQ(privutil_read(&f.priv, buf, 1, 1, PRI_IO_PRIVATE | PRI_IO_ABSOLUTE), 0);
  EXPECT_EQ(buf[0], 1);
  EXPECT_EQ(buf[511], 1);
  // The public region is never open.
  EXPECT_EQ(privutil_read(&f.priv, buf, 1, 1, 0), VE_READ_FAILED);
  EXPECT_EQ(privutil_read(&f.priv, buf, 1, 1, PRI_IO_ABSOLUTE), VE_READ_FAILED);
  EXPECT_EQ(privutil_write(&f.priv, buf, 1, 1, 0), VE_WRITE_FAILED);
  EXPECT_EQ(f.cs.err(), "");
}

TEST(DriverTest, ReadPastTheEndIsShortAndCopiesTheWholeStagingBuffer) {
  const std::string img = image_path("short.img");
  auto data = numbered_sectors(2);
  data.resize(1000);  // one sector and 488 bytes
  test::write_file(img, data);
  device_fixture f(img);
  std::memset(get_aligned_buf(f.s(), 1536), 0xAB, 1536);  // what an earlier run left
  std::vector<std::uint8_t> buf(1536, 0);
  EXPECT_EQ(privutil_read(&f.priv, buf.data(), 0, 3, PRI_IO_PRIVATE), VE_SHORT_READ);
  EXPECT_EQ(buf[0], 0);
  EXPECT_EQ(buf[999], 1);
  for (std::size_t i = 1000; i < buf.size(); ++i) ASSERT_EQ(buf[i], 0xAB) << i;
  // Wholly past the end: nothing read, still 141, still the whole buffer.
  EXPECT_EQ(privutil_read(&f.priv, buf.data(), 10, 1, PRI_IO_PRIVATE), VE_SHORT_READ);
  EXPECT_EQ(f.cs.err(), "");
}

TEST(DriverTest, TheImageIsReadOnly) {
  const std::string img = image_path("readonly.img");
  auto data = numbered_sectors(4);
  test::write_file(img, data);
  device_fixture f(img);
  std::vector<std::uint8_t> buf(512, 0xEE);
  expect_fatal(f.cs, [&] { privutil_write(&f.priv, buf.data(), 1, 1, PRI_IO_PRIVATE); },
               "nt_write_dev WriteFile privdiag: Cannot write data\n");
  EXPECT_EQ(test::read_file(img), data);
}

// Every path on which privdiag stops with status 1 and nothing on standard
// output, through the real binary. The image is taken to end where the
// region ends: on an image shorter than the alternate header's distance from
// the end (192 sectors of 512 bytes, 24 of 4096) the alternate lies before
// the start, and reading it ends the tool at the seek; a damaged primary is
// searched for first and never gets there. A search candidate of another
// geometry is still read one searched-size sector at a time.
TEST(DriverTest, FatalPathsThroughTheBinary) {
  const std::string disk = "disk sector-size=512 sectors=2048\n";
  const std::string cfg = disk + "region config copy=1 offset=17 len=800\n";
  const std::string seek_failed = "nt_seek_dev SetFilePointer privdiag: Cannot seek to offset 0\n";
  const std::string scan = "qztool:priv: ERROR: scan operation failed:\n\t";
  const std::string join = "qztool:priv: ERROR: join operation failed:\n\t";
  const std::string format = "Format error in disk private region\n";
  const std::string invalid = "Disk private region contents are invalid\n";
  struct {
    std::string desc;  // empty: an empty image
    std::string size;  // empty: not given
    std::string err;
  } cases[] = {
      {"", "512", seek_failed},
      {"disk sector-size=512 sectors=100\nheader alternate=50\nhdrcopy primary\n", "512", seek_failed},
      {"disk sector-size=512 sectors=191\nheader alternate=50\nhdrcopy primary\n", "512", seek_failed},
      {"disk sector-size=4096 sectors=23\nheader alternate=10\nhdrcopy primary\n", "4096", seek_failed},
      {"disk sector-size=512 sectors=100\nheader alternate=50\nhdrcopy primary damage=magic\n", "512",
       scan + format},
      {disk + "hdrcopy alternate\n", "512", scan + format},
      {disk + "hdrcopy primary version=9.0\nhdrcopy alternate\n", "512",
       scan + "Disk private region version not supported\n"},
      {disk + "hdrcopy primary priv-len=0\n", "512", scan + invalid},
      {disk + "hdrcopy 64 alternate=64\n", "512", join + invalid},
      {"disk sector-size=4096 sectors=300\nhdrcopy 1 alternate=1\n", "4096", scan + format},
      {disk + "tocblock at=1 alt=2046 damage=checksum\n", "512", join + format},
      {disk + "region config offset=17 len=10\nregion log offset=20 len=10\n", "512", join + invalid},
      {disk + "region config offset=17 len=10\nregion config offset=30 len=10 part-offset=11\n", "512",
       join + format},
      // search candidates of another geometry behind a damaged primary
      {cfg + "hdrcopy primary damage=magic\nhdrcopy 8 alternate=9 iosize=65536\n", "", scan + format},
      {cfg + "hdrcopy primary damage=magic\nhdrcopy 8 alternate=8 iosize=65536 diskid=.bad\n", "",
       scan + format},
      {cfg + "hdrcopy primary damage=magic\nhdrcopy 8 alternate=9 iosize=65536\nhdrcopy 64 alternate=64\n",
       "", join + invalid},
      // the candidate's region offset stays for the next read (sector 16):
      // a signed sum out of 64 bits fails the seek; a product past 2^64
      // wraps (2^55 + 1 sectors of 512 bytes is byte 512) and the search
      // goes on; a product that is negative as off_t is refused by the seek
      {cfg + "hdrcopy primary damage=magic\nhdrcopy 8 alternate=9 priv-offset=0x7fffffffffffffff\n", "",
       seek_failed},
      {cfg + "hdrcopy primary damage=magic\nhdrcopy 8 alternate=9 priv-offset=0x7ffffffffffff1\n", "",
       scan + format},
      {cfg + "hdrcopy primary damage=magic\nhdrcopy 8 alternate=9 priv-offset=0x3ffffffffffff0\n", "",
       seek_failed},
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.desc);
    const std::string img = image_path("fatal" + std::to_string(n++) + ".img");
    test::write_file(img, c.desc.empty() ? std::vector<std::uint8_t>{} : test::build(c.desc));
    auto r = c.size.empty() ? privdiag({img}) : privdiag({c.size, img});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.out, "");
  }
}

TEST(DriverTest, ADirectoryOpensButCannotBeRead) {
  const std::string dir = image_path("a-directory");
  ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
  device_fixture f(dir);
  ASSERT_NE(f.s().priv_fd, nullptr);
  std::uint8_t buf[512];
  expect_fatal(f.cs, [&] { privutil_read(&f.priv, buf, 0, 1, PRI_IO_PRIVATE); },
               "nt_read_dev ReadFile privdiag: Cannot read data\n");
}

TEST(DriverTest, FileLayerEdges) {
  const std::string img = image_path("layer.img");
  test::write_file(img, numbered_sectors(1));
  device_fixture f(img);
  std::uint8_t buf[4] = {7, 7, 7, 7};
  EXPECT_EQ(nt_read_dev(f.s(), f.s().priv_fd, buf, 0), 0);
  EXPECT_EQ(nt_write_dev(f.s(), f.s().priv_fd, buf, 0), 0);
  nt_seek_dev(f.s(), f.s().priv_fd, 100, 2);  // whence is checked, then ignored
  EXPECT_EQ(std::ftell(f.s().priv_fd), 100);
  for (int whence : {3, -1}) {
    test::captured_session cs;
    expect_fatal(cs, [&] { nt_seek_dev(cs.get(), f.s().priv_fd, 0, whence); },
                 "privdiag: nt_seek_dev: whence=" + std::to_string(whence) + " not valid\n");
  }
}

}  // namespace
}  // namespace pd
