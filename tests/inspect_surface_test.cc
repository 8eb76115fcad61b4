// privinspect's edges: images it cannot use, output it cannot write, bytes
// of the image that must not reach a terminal raw, scan's damage lines, and
// command lines it refuses.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "inspect/output.h"
#include "inspect_support.h"

namespace pd::test {
namespace {

const char* const good_desc = R"(
disk sector-size=512 sectors=2048
header diskid=disk01 seqno=0.17
region config copy=1 offset=17 len=400
copy-content config copy=1 content=config begin
  database version=4.17 dgname=dg1 config-tid=0.200
  group name=dg1 rid=0.1000 version=171
  volume name=vol1 rid=0.1001 len=2048 pl_num=0 state=ACTIVE
end
)";

const std::string& good_image() {
  static const std::string path = build_to_file(good_desc, "good.img");
  return path;
}

std::string prefix(const std::string& path) { return "privinspect: " + path + ": "; }

TEST(InspectImages, WhatCannotBeUsedIsNamedWithItsReason) {
  const std::string dir = temp_dir();
  const std::string fifo = dir + "/fifo", empty = dir + "/empty.img", cut = dir + "/cut.img";
  const std::string shorter = dir + "/short.img", locked = dir + "/locked.img";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  write_file(empty, {});
  write_file(cut, std::vector<std::uint8_t>(100));
  write_file(shorter, std::vector<std::uint8_t>(50000));
  write_file(locked, std::vector<std::uint8_t>(1 << 20));
  chmod(locked.c_str(), 0);
  const std::string too_short = " (both header copies lie within the last 98304 bytes of a private "
                                "region)\n";
  std::vector<inspect_case> cases = {
      {{"headers", dir}, 3, "", prefix(dir) + "is a directory (an image file is expected)\n"},
      {{"scan", fifo}, 3, "", prefix(fifo) + "is a FIFO (an image file is expected)\n"},
      {{"records", "/dev/null"}, 3, "",
       prefix("/dev/null") + "is a character device (an image file is expected)\n"},
      {{"scan", dir + "/absent"}, 3, "",
       "privinspect: cannot open " + dir + "/absent: No such file or directory\n"},
      {{"scan", empty}, 3, "", prefix(empty) + "0 bytes, shorter than one 512-byte sector" + too_short},
      {{"--sector-size", "4096", "hexdump", cut, "--sector", "0"}, 3, "",
       prefix(cut) + "100 bytes, shorter than one 4096-byte sector" + too_short},
      // long enough for sector views, too short for the header positions
      {{"records", shorter}, 3, "",
       prefix(shorter) + "50000 bytes, shorter than the 98304 bytes that hold both header "
                         "positions (the primary in the last sector, the alternate 96 KiB before "
                         "the end)\n"},
  };
  if (geteuid() != 0) {  // permissions do not stop root
    cases.push_back({{"scan", locked}, 3, "",
                     "privinspect: cannot open " + locked + ": Permission denied\n"});
  }
  expect_runs(cases);
}

// A header at the other sector size is pointed out, or its absence.
TEST(InspectImages, AHeaderAtTheOtherSectorSize) {
  const std::string big = build_to_file(
      "disk sector-size=4096 sectors=256\nregion config copy=1 offset=10 len=20\n", "big.img");
  const std::string none = build_to_file(std::string(good_desc) + "hdrcopy primary damage=magic\n"
                                                                  "hdrcopy alternate damage=magic\n",
                                         "nohead.img");
  const std::string failed =
      error_line("scan operation failed:\n\tFormat error in disk private region\n");
  expect_runs({
      {{"records", big}, 1, "",
       failed + prefix(big) +
           "no header found with 512-byte sectors; a header is found with --sector-size 4096\n"},
      {{"--sector-size", "4096", "hexdump", good_image(), "--block", "1:0"}, 1, "",
       failed + prefix(good_image()) +
           "no header found with 4096-byte sectors; a header is found with --sector-size 512\n"},
      {{"config", none, "--copy", "1"}, 1, "",
       failed + prefix(none) +
           "no header found with 512-byte sectors; none with --sector-size 4096 either\n"},
  });
}

// privinspect with standard output on `fd` (which the child gets as 1).
process_result run_to(int fd, const std::vector<std::string>& args) {
  quiet_printf_checker();
  const std::string err_path = temp_dir() + "/to.err";
  pid_t pid = fork();
  if (pid == 0) {
    int e = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 1);
    dup2(e, 2);
    signal(SIGPIPE, SIG_IGN);  // inherited: privinspect must not depend on it
    std::vector<char*> argv{const_cast<char*>(PD_PRIVINSPECT_BIN)};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(126);
  }
  int ws = 0;
  waitpid(pid, &ws, 0);
  process_result r;
  r.status = WIFEXITED(ws) ? WEXITSTATUS(ws) : WIFSIGNALED(ws) ? -WTERMSIG(ws) : -1000;
  r.err = read_text(err_path);
  return r;
}

TEST(InspectOutput, AFailedWriteIsAnErrorAClosedPipeEndsQuietly) {
  const std::vector<std::string> records = {"records", good_image()};
  int full = open("/dev/full", O_WRONLY);
  if (full >= 0) {
    process_result r = run_to(full, records);
    close(full);
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.err, "privinspect: write error: No space left on device\n");
  }
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  close(fds[0]);  // nobody will read
  process_result r = run_to(fds[1], records);
  close(fds[1]);
  EXPECT_EQ(r.status, -SIGPIPE);
  EXPECT_EQ(r.err, "");
}

// Bytes of the image are escaped in privinspect's own views; the escaped
// form is that of docs/privinspect.1.
TEST(InspectOutput, EscapedForm) {
  const struct {
    std::string in, out;
  } cases[] = {
      {"vol1 caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x92\xbe", "vol1 caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x92\xbe"},
      {std::string("\x1b[2J\n\t\0\x7f", 8), "\\x1b[2J\\x0a\\x09\\x00\\x7f"},
      {"a\\b", "a\\\\b"},
      {"\xc2\x9b" "1m", "\\xc2\\x9b1m"},                        // C1 CSI
      {"\xff\xc0\xaf\xed\xa0\x80", "\\xff\\xc0\\xaf\\xed\\xa0\\x80"},  // invalid, overlong, surrogate
      {"\xe2\x82", "\\xe2\\x82"},                               // cut at the end
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},             // above U+10FFFF
  };
  for (const auto& c : cases) EXPECT_EQ(escape_text(c.in), c.out) << c.out;

  const std::string image =
      build_to_file(R"(
disk sector-size=512 sectors=2048
region config copy=1 offset=17 len=400
copy-content config copy=1 content=config begin
  database version=4.17 dgname=dg1 config-tid=0.200
  group name=dg1 rid=0.1000 version=171
  volume name=")" "\x1b[2J" R"(" rid=0.1001 len=2048 pl_num=1 state=ACTIVE
end
)",
                    "esc.img");
  process_result r = inspect({"records", image, "--rid", "0.1001"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("\n Volume:   \\x1b[2J rid=0.1001 update=0.0\n"), std::string::npos) << r.out;
  r = inspect({"hexdump", image, "--record", "0.1001"});
  EXPECT_EQ(r.out.rfind("record \\x1b[2J rid=0.1001 ", 0), 0u) << r.out;
  EXPECT_EQ(r.out.find('\x1b'), std::string::npos);
  // check prints the finding escaped; the finding's text stays exact.
  r = inspect({"check", image});
  EXPECT_NE(r.out.find("\\x1b[2J !!1 missing child(ren)!!\n"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find('\x1b'), std::string::npos);
}

// Where the header and TOC place a structure and its magic is wrong, scan
// lists the sector; equal damage on consecutive blocks is one line.
TEST(InspectScanDamage, ExpectedStructuresWithWrongMagic) {
  const std::string image = build_to_file(std::string(good_desc) + R"(
region log copy=1 offset=1617 len=100 content=log begin
  block tid=0.5 len=3
  block tid=0.5 magic=KLOg
  block tid=0.5
end
poke sector=1 offset=0 hex=00
poke sector=23 offset=0 hex=00000000
poke sector=24 offset=0 hex=00000000
poke sector=25 offset=0 hex=00000000
poke sector=26 offset=0 hex=58
)",
                                          "damaged.img");
  process_result r = inspect({"scan", image});
  EXPECT_EQ(r.status, 0);
  for (const char* line : {
           "sector 1 (byte 512): damaged: expected TOCBLOCK, found \"\\x00OCBLOCK\"; primary TOC "
           "block 0\n",
           "sectors 20-22 (bytes 10240-11264): VBLK blocks 3-5, unused (ref 0); config copy 1, "
           "blocks 3-5\n"
           "sectors 23-25 (bytes 11776-12800): damaged: expected VBLK, found "
           "\"\\x00\\x00\\x00\\x00\"; config copy 1, blocks 6-8\n"
           "sector 26 (byte 13312): damaged: expected VBLK, found \"XBLK\"; config copy 1, "
           "block 9\n"
           "sectors 27-416 (bytes 13824-212992): VBLK blocks 10-399, unused (ref 0); config "
           "copy 1, blocks 10-399\n",
           "sector 1618 (byte 828416): damaged: expected KLOG, found \"KLOg\"; log copy 1, block 1\n",
           "candidate(s), 6 damaged sector(s) in 2048 sector(s)\n",
       }) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line << r.out;
  }
  expect_runs({
      {{"scan", image, "--range", "0x16:3"}, 0,
       "located: primary header, seqno 0.17; 1 configuration and 1 log copies\n"
       "sector 22 (byte 11264): VBLK block 5, ref 0, fragment 0 of 0; config copy 1, block 5\n"
       "sectors 23-24 (bytes 11776-12288): damaged: expected VBLK, found "
       "\"\\x00\\x00\\x00\\x00\"; config copy 1, blocks 6-7\n"
       "1 candidate(s), 2 damaged sector(s) in 3 sector(s)\n",
       ""},
      {{"scan", image, "--range", "2047:100"}, 0,
       "located: primary header, seqno 0.17; 1 configuration and 1 log copies\n"
       "sector 2047 (byte 1048064): PRIVHEAD checksum correct, decodes: version 3.1 seqno 0.17, "
       "at its primary position\n"
       "1 candidate(s) in 1 sector(s)\n",
       ""},
      {{"scan", image, "--range", "2048:1"}, 1, "",
       "privinspect: --range: sector 2048 is beyond the end of the image (2048 sectors)\n"},
  });
}

TEST(InspectArguments, RefusedCommandLinesSayWhy) {
  const std::string& image = good_image();
  const std::string subs =
      "subcommands: logs config headers check scan hexdump records dump locate extract compare map repair anonymise\n";
  expect_runs({
      {{"bogus", image}, 3, "", "privinspect: unknown subcommand 'bogus'; " + subs},
      {{"--sector-size", "4096"}, 3, "", "privinspect: a subcommand is required; " + subs},
      {{"scan", image, "extra"}, 3, "",
       "privinspect: scan: unexpected argument 'extra' (see privinspect scan --help)\n"},
      {{"hexdump", image, "--sector", "1", "--count", "0"}, 3, "",
       "privinspect: --count: 0 is not in the range 1 to 4294967295\n"},
      {{"hexdump", image, "--sector", "1", "--count", "0x100000000"}, 3, "",
       "privinspect: --count: 4294967296 is not in the range 1 to 4294967295\n"},
      {{"hexdump", image, "--sector", "5x"}, 3, "",
       "privinspect: --sector: not a number: 5x (decimal, or hex with 0x)\n"},
      {{"hexdump", image, "--sector", "99999999999999999999"}, 3, "",
       "privinspect: --sector: not a number: 99999999999999999999 (decimal, or hex with 0x)\n"},
      {{"hexdump", image, "--block", "1"}, 3, "", "privinspect: --block: expected COPY:N, got 1\n"},
      {{"hexdump", image, "--block", "1:0", "--copy", "1"}, 3, "",
       "privinspect: hexdump: --copy cannot be used with --sector or --block (--block names its "
       "copy)\n"},
      {{"hexdump", image, "--record", "vol1", "--count", "2"}, 3, "",
       "privinspect: hexdump: --count cannot be used with --record (a record's blocks are all "
       "dumped)\n"},
      {{"records", image, "--copy", "65536"}, 3, "",
       "privinspect: --copy: 65536 is not in the range 0 to 65535\n"},
      {{"scan", image, "--range", "5:0"}, 3, "",
       "privinspect: --range: 0 is not in the range 1 to 18446744073709551615\n"},
  });
  // Hex and decimal name the same sector and block.
  EXPECT_EQ(inspect({"hexdump", image, "--sector", "0x11", "--count", "0x2"}).out,
            inspect({"hexdump", image, "--sector", "17", "--count", "2"}).out);
  EXPECT_EQ(inspect({"hexdump", image, "--block", "0x1:0xA"}).out,
            inspect({"hexdump", image, "--block", "1:10"}).out);
}

}  // namespace
}  // namespace pd::test
