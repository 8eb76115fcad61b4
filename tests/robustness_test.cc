// Hostile images: whatever sizes an image claims, privdiag's peak memory
// follows the image (measured on the real command in a child process), big
// copies are reported whole, and the image is never written.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "report/copy_loading.h"
#include "report/overview.h"
#include "report_e2e_support.h"

namespace pd::test {
namespace {

struct measured_run {
  int status = -1;
  long peak_kib = 0;  // the child's peak resident set
  std::string out;
  std::string err;
};

// Runs privdiag on `path` in a child process and measures its peak RSS;
// with `as_limit` (bytes) the child's address space is limited to it.
measured_run run_measured(const std::string& path, const std::string& sector_size = "512",
                          rlim_t as_limit = 0) {
  const std::string base = temp_dir() + "/measured";
  const std::string out_path = base + ".out", err_path = base + ".err";
  const pid_t pid = fork();
  if (pid == 0) {
    const int o = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int e = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(o, 1);
    dup2(e, 2);
    setenv("LC_ALL", "C", 1);
    if (as_limit != 0) {
      const rlimit lim{as_limit, as_limit};
      setrlimit(RLIMIT_AS, &lim);
    }
    execl(PD_PRIVDIAG_BIN, PD_PRIVDIAG_BIN, sector_size.c_str(), path.c_str(),
          static_cast<char*>(nullptr));
    _exit(126);
  }
  measured_run r;
  int wstatus = 0;
  rusage ru{};
  if (pid < 0 || wait4(pid, &wstatus, 0, &ru) != pid) return r;
  r.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  r.peak_kib = ru.ru_maxrss;
  r.out = read_text(out_path);
  r.err = read_text(err_path);
  return r;
}

std::string write_image(const std::string& name, const bytes& img) {
  const std::string path = temp_dir() + "/" + name;
  write_file(path, img);
  return path;
}

bytes build(const std::string& desc) {
  std::string error;
  bytes img = build_image(desc, &error);
  EXPECT_FALSE(img.empty()) << error;
  return img;
}

// The peak of a run over a small sound image: what the process needs
// anyway (larger under the sanitizers).
long baseline_kib() {
  static long kib = run_measured(write_image("sound.img", build(standard_disk()))).peak_kib;
  return kib;
}

// A claim may cost at most this much above the baseline: the images here
// are at most a few MiB.
constexpr long kSlackKib = 32 * 1024;

TEST(RobustnessTest, ClaimedBlockCountsCostNothing) {
  // 2^32-1 blocks of 8 KiB: the store is sized by the claim in name only.
  config_copy c(64, 512);
  c.claimed_nblocks = 0xFFFFFFFFu;
  c.claimed_blksize = 8192;
  set_header(c.header(), 1, 0, 0, 0, 0);
  bytes img = build(standard_disk());
  const bytes copy = c.data();
  std::copy(copy.begin(), copy.end(), img.begin() + 17 * 512);
  const measured_run r = run_measured(write_image("blocks.img", img));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("#Header nblocks=4294967295 blksize=8192 hdrsize=512\n"), std::string::npos);
  EXPECT_LT(r.peak_kib, baseline_kib() + kSlackKib);
}

TEST(RobustnessTest, ClaimedSectorSizeIsNotAllocated) {
  // A header claiming 4 GiB sectors: TOC blocks that large cannot be read
  // from a 1 MiB image, so the join stops as a short read would.
  const measured_run r = run_measured(
      write_image("iosize.img", build(standard_disk() + "header iosize=4294967295\n")));
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "qztool:priv: ERROR: join operation failed:\n\tShort read in configuration copy\n");
  EXPECT_LT(r.peak_kib, baseline_kib() + kSlackKib);
}

TEST(RobustnessTest, CopyClaimedFarPastTheImageEnds) {
  // 64 sectors of 4 KiB (256 KiB) whose header claims a 2 GiB region (and
  // header positions that leave room for it), with a copy of almost all of
  // it: reading stops once the image is exhausted and the report is out,
  // instead of replaying the buffer for each of the 32000 runs claimed.
  config_copy c(32, 512);
  c.claimed_nblocks = 0xFFFFFFFFu;
  set_header(c.header(), 1, 0, 0, 0, 0);
  const std::string desc =
      "disk sector-size=4096 sectors=64\n"
      "header priv-len=524288 primary=5 alternate=6\n"
      "hdrcopy 63\nhdrcopy 40\n"
      "tocblock at=1 alt=2\n"
      "region config copy=1 offset=8 len=524000\n";
  bytes img = build(desc);
  const bytes copy = c.data();
  std::copy(copy.begin(), copy.end(), img.begin() + 8 * 4096);
  const measured_run r = run_measured(write_image("long-copy.img", img), "4096");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("========== Configuration Details ========\n"), std::string::npos);
  // An error for each run that still reads the image, none for the runs
  // the copy claims beyond it.
  EXPECT_LT(std::count(r.err.begin(), r.err.end(), '\n'), 10) << r.err;
  EXPECT_LT(r.peak_kib, baseline_kib() + kSlackKib);
}

// A copy of 4 MiB in 128-byte blocks holding tens of thousands of records:
// the lists, the tree and the findings are built in n log n, and the whole
// report comes out consistent.
constexpr unsigned nplex = 8000, nsd = 16000, ndm = 4000;

// 4 MiB of 512-byte sectors whose first copy holds a group, a volume with
// `nplex` plexes, `nsd` subdisks and `ndm` disks in 128-byte blocks.
const std::string& big_image() {
  static std::string path;
  if (!path.empty()) return path;
  config_copy c(7900 * 4, 128);
  set_header(c.header(), 1, 1, nplex, nsd, ndm);
  std::uint32_t ref = 1;
  const dgrec dg = make_dg("bigdg", 1, 1);
  c.add(ref++, T_DG, &dg);
  const volrec vol = make_vol("vol", 2, 2048, nplex, 1);
  c.add(ref++, T_VOL, &vol);
  char name[32];
  for (unsigned i = 0; i < nplex; ++i) {
    std::snprintf(name, sizeof name, "p%05u", (i * 7919) % nplex);
    const plexrec pl = make_plex(name, 100000 + i, 2, nsd / nplex, 1);
    c.add(ref++, T_PLEX, &pl);
  }
  for (unsigned i = 0; i < nsd; ++i) {
    std::snprintf(name, sizeof name, "s%05u", i);
    const sdrec sd = make_sd(name, 200000 + i, 100000 + i % nplex, 300000 + i % ndm, 0, 64, 1);
    c.add(ref++, T_SD, &sd);
  }
  for (unsigned i = 0; i < ndm; ++i) {
    std::snprintf(name, sizeof name, "d%05u", i);
    char diskid[40];
    std::snprintf(diskid, sizeof diskid, "%08u-0000-0000-0000-000000000000", i);
    const dmrec dm = make_dm(name, 300000 + i, diskid, 1);
    c.add(ref++, T_DM, &dm);
  }
  const std::string desc =
      "disk sector-size=512 sectors=8192\nregion config copy=1 offset=17 len=7900\n";
  bytes img = build(desc);
  const bytes copy = c.data();
  std::copy(copy.begin(), copy.end(), img.begin() + 17 * 512);
  path = write_image("big.img", img);
  return path;
}

TEST(RobustnessTest, ReportOfTensOfThousandsOfRecords) {
  const measured_run r = run_measured(big_image());
  ASSERT_EQ(r.status, 0) << r.err;
  // Every record is kept with its decoded fields (at most 672 bytes each)
  // until the report is out: some ten times the image.
  EXPECT_LT(r.peak_kib, baseline_kib() + 2 * kSlackKib);
  EXPECT_EQ(r.out.find("!!"), std::string::npos);
  const auto count = [&](const std::string& what) {
    std::size_t n = 0;
    for (std::size_t p = r.out.find(what); p != std::string::npos; p = r.out.find(what, p + 1)) ++n;
    return n;
  };
  EXPECT_EQ(count("#Record "), 2 + nplex + nsd + ndm);
  EXPECT_EQ(count("|---s"), nsd);  // every subdisk in the tree
  EXPECT_EQ(count("|---p"), nplex);
  // The plexes in name order, each with its subdisks in name order (the
  // one volume is the group's last child: its subtree is indented with
  // blanks).
  EXPECT_NE(r.out.find("bigdg\n|---vol   (2048/1MB)\n    |---p00000\n"
                       "    |   |---s00000   (64/0MB)\n    |   |\n"
                       "    |   |---s08000   (64/0MB)\n    |\n    |---p00001\n"),
            std::string::npos);
}

// However little memory there is, privdiag ends with 0 or 1: an exhausted
// heap is reported, never an abort. (The sanitizers reserve address space of
// their own: not under them.)
TEST(RobustnessTest, ExhaustedMemoryEndsWithStatusOne) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "address space limits do not apply under AddressSanitizer";
#else
  int failed = 0;
  for (rlim_t mib = 8; mib <= 64; mib += 4) {
    const measured_run r = run_measured(big_image(), "512", mib << 20);
    ASSERT_TRUE(r.status == 0 || r.status == 1) << mib << " MiB: " << r.status << "\n" << r.err;
    if (r.status == 1) {
      ++failed;
      // "Memory allocation failed/failure", or the file layer's "Alloc(N) failed."
      EXPECT_TRUE(r.err.find("emory") != std::string::npos ||
                  r.err.find("Alloc(") != std::string::npos)
          << mib << " MiB: " << r.err;
    }
  }
  EXPECT_GT(failed, 0);  // the smallest limits do run out
#endif
}

// A TOC of thousands of entries in hundreds of blocks: the joined list is
// ordered by start with equal starts in the order the blocks hold them, and
// each of thousands of copy numbers becomes one copy.
TEST(RobustnessTest, TocOfThousandsOfEntries) {
  constexpr int nlogs = 3000, nother = 1200, per_block = 14;
  std::mt19937 rng(11);
  // (start, copy number; 0 for the zero-length entries of another type)
  std::vector<std::pair<long, unsigned>> arrival;
  std::vector<long> log_starts;
  for (long i = 0; i < nlogs; ++i) log_starts.push_back(1000 + i);
  std::shuffle(log_starts.begin(), log_starts.end(), rng);
  for (int i = 0, l = 0; i < nlogs + nother; ++i) {
    if (l < nlogs && rng() % 4 != 0) {
      arrival.emplace_back(log_starts[l], static_cast<unsigned>(l + 1));
      ++l;
    } else {
      arrival.emplace_back(1000 + static_cast<long>(rng() % 100), 0);
    }
  }
  const int nblocks = (static_cast<int>(arrival.size()) + per_block - 1) / per_block;
  std::string desc = "disk sector-size=512 sectors=8192\n";
  for (int b = 0; b < nblocks; ++b) {
    desc += "tocblock at=" + std::to_string(1 + b) + " alt=" + std::to_string(501 + b) + "\n";
  }
  for (std::size_t i = 0; i < arrival.size(); ++i) {
    const auto& [start, copy] = arrival[i];
    const std::string block = " block=" + std::to_string(i / per_block) + "\n";
    if (copy != 0) {
      desc += "region log copy=" + std::to_string(copy) + " offset=" + std::to_string(start) +
              " len=1" + block;
    } else {
      desc += "region junk offset=" + std::to_string(start) + " len=0 info=0102" + block;
    }
  }
  const measured_run r = run_measured(write_image("toc.img", build(desc)));
  EXPECT_EQ(r.status, 1);  // no configuration copy
  EXPECT_EQ(r.err, "qztool:priv: ERROR: Disk has no config copies\n");
  std::vector<std::pair<long, unsigned>> listed;
  for (std::size_t p = r.out.find(" priv "); p != std::string::npos; p = r.out.find(" priv ", p + 1)) {
    const long start = std::strtol(r.out.c_str() + p + 6, nullptr, 10);
    const bool log = r.out.compare(p - 9, 4, " log") == 0;
    const std::size_t c = r.out.find("copy=", p);
    listed.emplace_back(start, log ? static_cast<unsigned>(std::strtoul(r.out.c_str() + c + 5, nullptr, 10)) : 0);
  }
  std::stable_sort(arrival.begin(), arrival.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  EXPECT_EQ(listed, arrival);
}


// --- the image is never written ---------------------------------------------

std::string sum_of(const std::string& path) {
  const bytes b = read_file(path);
  std::uint64_t h = 1469598103934665603ull;  // FNV-1a over the whole file
  for (std::uint8_t c : b) h = (h ^ c) * 1099511628211ull;
  return std::to_string(h) + "/" + std::to_string(b.size());
}

TEST(ReadOnlyTest, ImageUnchangedAndReadOnlyFilesServe) {
  // The sample disk, and one whose header and TOC an update would rewrite:
  // a newer alternate header (the primary would be brought up to date) and
  // a TOC block whose primary copy is damaged.
  config_copy c(16, 512);
  set_header(c.header(), 1, 0, 0, 0, 0);
  const dgrec dg = make_dg("dg", 1, 1);
  c.add(1, T_DG, &dg);
  const std::string disk = standard_disk() + copy_content(1, c.data());
  const std::vector<std::string> descs = {
      disk,
      disk + "hdrcopy primary\nhdrcopy alternate seqno=0.18\ntocblock seqno=0.18\n",
      disk + "tocblock damage=checksum damage-copy=primary\n",
  };
  int n = 0;
  for (const std::string& desc : descs) {
    const std::string path = write_image("ro" + std::to_string(n++) + ".img", build(desc));
    const std::string before = sum_of(path);
    struct stat st_before {};
    ASSERT_EQ(stat(path.c_str(), &st_before), 0);
    const process_result rw = run_process({PD_PRIVDIAG_BIN, path});
    EXPECT_EQ(rw.status, 0) << desc << rw.err;
    EXPECT_EQ(sum_of(path), before) << desc;
    struct stat st_after {};
    ASSERT_EQ(stat(path.c_str(), &st_after), 0);
    EXPECT_EQ(st_after.st_mtim.tv_sec, st_before.st_mtim.tv_sec);
    EXPECT_EQ(st_after.st_mtim.tv_nsec, st_before.st_mtim.tv_nsec);
    // The same report from a file nobody may write.
    ASSERT_EQ(chmod(path.c_str(), 0444), 0);
    const process_result ro = run_process({PD_PRIVDIAG_BIN, path});
    EXPECT_EQ(ro.status, 0);
    EXPECT_EQ(ro.out, rw.out);
    EXPECT_EQ(ro.err, rw.err);
    EXPECT_EQ(sum_of(path), before);
  }
}

}  // namespace
}  // namespace pd::test
