// privinspect extract: the region of a disk written as a region image that
// privdiag reports on exactly as on the region itself; the outputs it
// refuses; and each step of the writing failed in turn.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "inspect/extract.h"
#include "inspect_support.h"

namespace pd::test {
namespace {

std::string sample_description() { return read_text(PD_SOURCE_DIR "/examples/sample.desc"); }

process_result privdiag(const std::string& path) { return run_process({PD_PRIVDIAG_BIN, path}); }

bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

TEST(InspectExtract, RoundTripEqualsTheRegionImage) {
  const std::string region = build_to_file(sample_description(), "region.img");
  const process_result want = privdiag(region);
  ASSERT_EQ(want.status, 0) << want.err;
  for (const char* table : {"gpt", "mbr", ""}) {
    SCOPED_TRACE(table);
    std::string in = region;
    if (*table != '\0') {
      in = build_to_file(sample_description() + "whole-disk table=" + table +
                             " sectors=8192 region=partition\n",
                         std::string(table) + ".img");
    }
    const std::string out = temp_dir() + "/out-" + table + ".img";
    const process_result r = inspect({"extract", in, out});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(read_file(out), read_file(region));
    const process_result got = privdiag(out);
    EXPECT_EQ(got.status, want.status);
    EXPECT_EQ(got.out, want.out);
    EXPECT_EQ(got.err, want.err);
    EXPECT_FALSE(exists(out + ".tmp"));
  }
}

struct refusal_case {
  const char* name;
  std::function<void(const std::string& in, const std::string& out)> setup;
  bool force;
  std::string err;  // the line on standard error, with IN and OUT for the paths
};

std::string with_paths(std::string text, const std::string& in, const std::string& out) {
  for (const auto& [key, value] : {std::pair<std::string, std::string>{"OUT", out}, {"IN", in}}) {
    for (std::size_t at; (at = text.find(key)) != std::string::npos;) text.replace(at, key.size(), value);
  }
  return text;
}

// Each refusal leaves OUT and OUT.tmp as they were, and the input intact.
TEST(InspectExtract, Refusals) {
  const std::string in = build_to_file(sample_description(), "in.img");
  const std::vector<std::uint8_t> in_bytes = read_file(in);
  const auto old_out = [](const std::string&, const std::string& out) { write_text(out, "old"); };
  const std::vector<refusal_case> cases = {
      {"out-exists", old_out, false, "privinspect: OUT: exists; not written (--force replaces it)\n"},
      {"out-is-in", [](const std::string&, const std::string&) {}, true,
       "privinspect: IN: is the input image IN; not written\n"},
      {"symlink-to-in",
       [](const std::string& i, const std::string& o) { ASSERT_EQ(::symlink(i.c_str(), o.c_str()), 0); },
       true, "privinspect: OUT: is the input image IN; not written\n"},
      {"hard-link-to-in",
       [](const std::string& i, const std::string& o) { ASSERT_EQ(::link(i.c_str(), o.c_str()), 0); },
       true, "privinspect: OUT: is the input image IN; not written\n"},
      {"temp-exists",
       [](const std::string&, const std::string& o) { write_text(o + ".tmp", "someone's"); }, true,
       "privinspect: OUT.tmp: exists: another command may be writing OUT, or one was "
       "interrupted; remove it when none is running\n"},
      {"temp-is-in",
       [](const std::string& i, const std::string& o) {
         ASSERT_EQ(::symlink(i.c_str(), (o + ".tmp").c_str()), 0);
       },
       true, "privinspect: OUT.tmp: is the input image IN; not written\n"},
  };
  for (const refusal_case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string out = std::string(c.name) == "out-is-in" ? in : temp_dir() + "/" + c.name;
    c.setup(in, out);
    const bool had_temp = exists(out + ".tmp");
    const std::string temp_before = had_temp ? read_text(out + ".tmp") : "";
    const std::string out_before = exists(out) ? read_text(out) : "";
    std::vector<std::string> args = {"extract", in, out};
    if (c.force) args.push_back("--force");
    const process_result r = inspect(args);
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, with_paths(c.err, in, out));
    EXPECT_EQ(read_file(in), in_bytes);
    if (exists(out)) {
      EXPECT_EQ(read_text(out), out_before);
    }
    EXPECT_EQ(exists(out + ".tmp"), had_temp);
    if (had_temp) {
      EXPECT_EQ(read_text(out + ".tmp"), temp_before);
    }
  }
  // --force replaces an OUT that is another file.
  const std::string out = temp_dir() + "/replaced";
  write_text(out, "old");
  const process_result r = inspect({"extract", in, out, "--force"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, out + ": " + std::to_string(in_bytes.size()) + " bytes from byte 0 of " + in + "\n");
  EXPECT_EQ(read_file(out), in_bytes);
}

// The writer's file calls, with one of them failing (or writing short).
struct fault {
  const char* call = "";
  int error = 0;
  std::size_t short_write = 0;  // write at most this many bytes per call
};
fault active;

int fake_open(const char* p, int f, mode_t m) {
  if (std::string(active.call) == "open-temp" && (f & O_CREAT) != 0) return errno = active.error, -1;
  return system_file_calls().open(p, f, m);
}
ssize_t fake_write(int fd, const void* b, std::size_t n) {
  if (std::string(active.call) == "write") return errno = active.error, -1;
  if (active.short_write > 0 && n > active.short_write) n = active.short_write;
  return system_file_calls().write(fd, b, n);
}
ssize_t fake_pread(int fd, void* b, std::size_t n, off_t at) {
  if (std::string(active.call) == "pread") return errno = active.error, -1;
  return system_file_calls().pread(fd, b, n, at);
}
int fake_fsync(int fd) {
  if (std::string(active.call) == "fsync") return errno = active.error, -1;
  return system_file_calls().fsync(fd);
}
int fake_close(int fd) {
  const int res = system_file_calls().close(fd);
  if (std::string(active.call) == "close") return errno = active.error, -1;
  return res;
}
int fake_rename(const char* a, const char* b) {
  if (std::string(active.call) == "rename") return errno = active.error, -1;
  return system_file_calls().rename(a, b);
}
const file_calls faulty = {fake_open, fake_pread, fake_write, fake_fsync, fake_close, fake_rename,
                           ::unlink};

TEST(InspectExtract, EachFailingCallLeavesOutAsItWas) {
  const std::string in = build_to_file(sample_description(), "in.img");
  const std::vector<std::uint8_t> in_bytes = read_file(in);
  const std::string out = temp_dir() + "/out.img", temp = out + ".tmp";
  const struct {
    fault f;
    std::string err;
  } cases[] = {
      {{"open-temp", EACCES}, temp + ": cannot create: Permission denied"},
      {{"pread", EIO}, in + ": cannot read: Input/output error"},
      {{"write", ENOSPC}, temp + ": cannot write: No space left on device"},
      {{"fsync", EIO}, temp + ": cannot sync: Input/output error"},
      {{"close", EIO}, temp + ": cannot close: Input/output error"},
      {{"rename", EXDEV}, temp + ": cannot rename to " + out + ": Invalid cross-device link"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.f.call);
    write_text(out, "old");
    active = c.f;
    captured_session s;
    s->progname = "privinspect";
    extract_result r;
    EXPECT_EQ(extract_region(s.get(), inspect_target{in}, out, true, &r, faulty), 3);
    active = {};
    EXPECT_EQ(s.err(), "privinspect: " + c.err + "\n");
    EXPECT_EQ(read_text(out), "old");
    EXPECT_FALSE(exists(temp));
    EXPECT_EQ(r.bytes, 0u);
  }
  // Writes that take a few bytes at a time still copy everything.
  active = {"", 0, 1000};
  captured_session s;
  extract_result r;
  EXPECT_EQ(extract_region(s.get(), inspect_target{in}, out, true, &r, faulty), 0);
  active = {};
  EXPECT_EQ(read_file(out), in_bytes);
  EXPECT_EQ(r.bytes, in_bytes.size());
}

}  // namespace
}  // namespace pd::test
