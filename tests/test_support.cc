#include "test_support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace pd::test {

captured_session::captured_session() {
  out_ = open_memstream(&out_buf_, &out_len_);
  err_ = open_memstream(&err_buf_, &err_len_);
  s_ = std::make_unique<session>(out_, err_);
}

captured_session::~captured_session() {
  s_.reset();
  std::fclose(out_);
  std::fclose(err_);
  std::free(out_buf_);
  std::free(err_buf_);
}

std::string captured_session::out() {
  std::fflush(out_);
  return std::string(out_buf_, out_len_);
}

std::string captured_session::err() {
  std::fflush(err_);
  return std::string(err_buf_, err_len_);
}

namespace {

[[maybe_unused]] std::string slurp_fd(int fd) {
  std::string s;
  char buf[65536];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) break;
    s.append(buf, static_cast<std::size_t>(n));
  }
  return s;
}

}  // namespace

process_result run_process(const std::vector<std::string>& argv) {
  std::string dir = temp_dir();
  static int serial = 0;
  std::string base = dir + "/proc" + std::to_string(++serial);
  std::string out_path = base + ".out", err_path = base + ".err";
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    int in = open("/dev/null", O_RDONLY);
    int o = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int e = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(in, 0);
    dup2(o, 1);
    dup2(e, 2);
    setenv("LC_ALL", "C", 1);
    // AddressSanitizer's printf checker does not know glibc's "I" flag (the
    // report's "#timestamp: %I64u") and would warn on standard error.
    const char* asan = getenv("ASAN_OPTIONS");
    std::string opts = asan != nullptr && *asan != '\0' ? std::string(asan) + ":" : "";
    setenv("ASAN_OPTIONS", (opts + "check_printf=0").c_str(), 1);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(126);
  }
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  process_result r;
  r.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  r.out = read_text(out_path);
  r.err = read_text(err_path);
  return r;
}

std::string temp_dir() {
  static std::string dir;
  if (dir.empty()) {
    char tmpl[] = "/tmp/privdiag-test-XXXXXX";
    char* d = mkdtemp(tmpl);
    if (d == nullptr) throw std::runtime_error("mkdtemp failed");
    dir = d;
    static struct cleanup {
      std::string* p;
      ~cleanup() {
        std::error_code ec;
        std::filesystem::remove_all(*p, ec);
      }
    } c{&dir};
  }
  return dir;
}

void write_file(const std::string& path, const std::vector<std::uint8_t>& bytes) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

void write_text(const std::string& path, const std::string& text) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f << text;
}

std::vector<std::uint8_t> read_file(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(f), {});
}

std::string read_text(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

}  // namespace pd::test
