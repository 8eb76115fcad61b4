// Writing a new image file atomically beside its final name (see new_image.h).
#include "inspect/new_image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <vector>

#include "inspect/inspect.h"

namespace pd {

namespace {

int sys_open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }

const file_calls system_calls = {sys_open, ::pread, ::write, ::fsync, ::close, ::rename, ::unlink};

// The temporary file a signal removes: set while it exists and is ours.
char signal_temp[4096];
volatile std::sig_atomic_t signal_temp_live = 0;

extern "C" void remove_temp_and_die(int sig) {
  if (signal_temp_live != 0) ::unlink(signal_temp);
  std::signal(sig, SIG_DFL);
  std::raise(sig);
}

constexpr int caught_signals[] = {SIGINT, SIGTERM, SIGHUP};

// OUT.tmp while it is ours: unlinked unless committed, also on SIGINT,
// SIGTERM and SIGHUP (whose handler only unlinks).
class temp_owner {
 public:
  temp_owner(const file_calls& calls, std::string path) : calls_(calls), path_(std::move(path)) {}
  temp_owner(const temp_owner&) = delete;
  temp_owner& operator=(const temp_owner&) = delete;
  ~temp_owner() { release(); }

  // Creates the file exclusively; -1 with errno set when it cannot.
  int create() {
    if (path_.size() < sizeof signal_temp) {
      std::memcpy(signal_temp, path_.c_str(), path_.size() + 1);
      struct sigaction sa {};
      sa.sa_handler = remove_temp_and_die;
      sigemptyset(&sa.sa_mask);
      for (std::size_t i = 0; i < std::size(caught_signals); ++i) {
        sigaction(caught_signals[i], &sa, &saved_[i]);
      }
      handlers_ = true;
    }
    fd_ = calls_.open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd_ >= 0) {
      live_ = true;
      signal_temp_live = handlers_ ? 1 : 0;
    }
    return fd_;
  }
  int fd() const { return fd_; }
  // Closes the descriptor: 0, or -1 with errno set.
  int close() {
    const int fd = fd_;
    fd_ = -1;
    return calls_.close(fd);
  }
  // After the rename: the file is OUT now, not ours to remove.
  void committed() {
    live_ = false;
    signal_temp_live = 0;
  }

 private:
  void release() {
    const int saved_errno = errno;
    if (fd_ >= 0) calls_.close(fd_);
    if (live_) calls_.unlink(path_.c_str());
    signal_temp_live = 0;
    if (handlers_) {
      for (std::size_t i = 0; i < std::size(caught_signals); ++i) {
        sigaction(caught_signals[i], &saved_[i], nullptr);
      }
    }
    errno = saved_errno;
  }

  const file_calls& calls_;
  std::string path_;
  int fd_ = -1;
  bool live_ = false;
  bool handlers_ = false;
  struct sigaction saved_[std::size(caught_signals)] {};
};

int retry_fsync(const file_calls& calls, int fd) {
  int res;
  do {
    res = calls.fsync(fd);
  } while (res != 0 && errno == EINTR);
  return res;
}

// Writes all of `len` bytes, looping on short writes: 0, or -1 with errno.
int write_all(const file_calls& calls, int fd, const std::uint8_t* buf, std::size_t len) {
  while (len > 0) {
    const ssize_t n = calls.write(fd, buf, len);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) {
      errno = ENOSPC;
      return -1;
    }
    buf += n;
    len -= static_cast<std::size_t>(n);
  }
  return 0;
}

// Reads all of `len` bytes from `offset`: 0, or -1 with errno (EIO for the
// end of the file reached early).
int read_all(const file_calls& calls, int fd, std::uint64_t offset, std::uint8_t* buf,
             std::size_t len) {
  while (len > 0) {
    const ssize_t n = calls.pread(fd, buf, len, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) {
      errno = EIO;
      return -1;
    }
    buf += n;
    len -= static_cast<std::size_t>(n);
    offset += static_cast<std::uint64_t>(n);
  }
  return 0;
}

std::string directory_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

bool same_file(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

constexpr std::size_t copy_chunk = 1 << 20;

}  // namespace

const file_calls& system_file_calls() { return system_calls; }

struct new_image::temp_state {
  temp_state(const file_calls& calls, std::string path) : tmp(calls, std::move(path)) {}
  temp_owner tmp;
};

new_image::new_image(session& s, const file_calls& calls) : s_(s), calls_(calls) {}
new_image::~new_image() = default;

int new_image::fail(const std::string& file, const char* what) {
  std::fprintf(s_.err, "%s: %s: %s: %s\n", s_.progname, file.c_str(), what, std::strerror(errno));
  state_.reset();
  return INSPECT_USAGE_IO;
}

int new_image::refuse(const std::string& file, const char* why) {
  std::fprintf(s_.err, "%s: %s: %s; not written\n", s_.progname, file.c_str(), why);
  return INSPECT_USAGE_IO;
}

int new_image::open(const std::string& in_path, const std::string& out, bool force) {
  out_ = out;
  temp_ = out + ".tmp";
  in_path_ = in_path;
  struct stat in_st {};
  if (::stat(in_path.c_str(), &in_st) != 0) return fail(in_path, "cannot read");
  struct stat st {};
  const std::string is_input = "is the input image " + in_path;
  if (::stat(temp_.c_str(), &st) == 0 && same_file(st, in_st)) return refuse(temp_, is_input.c_str());
  if (::stat(out.c_str(), &st) == 0) {
    if (same_file(st, in_st)) return refuse(out, is_input.c_str());
    if (S_ISDIR(st.st_mode)) return refuse(out, "is a directory");
    if (!force) {
      std::fprintf(s_.err, "%s: %s: exists; not written (--force replaces it)\n", s_.progname,
                   out.c_str());
      return INSPECT_USAGE_IO;
    }
  }
  state_ = std::make_unique<temp_state>(calls_, temp_);
  if (state_->tmp.create() < 0) {
    if (errno == EEXIST) {
      state_.reset();
      std::fprintf(s_.err,
                   "%s: %s: exists: another command may be writing %s, or one was interrupted; "
                   "remove it when none is running\n",
                   s_.progname, temp_.c_str(), out.c_str());
      return INSPECT_USAGE_IO;
    }
    return fail(temp_, "cannot create");
  }
  return INSPECT_OK;
}

int new_image::write(const std::uint8_t* buf, std::size_t len) {
  if (write_all(calls_, state_->tmp.fd(), buf, len) != 0) return fail(temp_, "cannot write");
  written_ += len;
  return INSPECT_OK;
}

int new_image::copy_from(int in_fd, std::uint64_t offset, std::uint64_t length) {
  std::vector<std::uint8_t> buf(static_cast<std::size_t>(std::min<std::uint64_t>(copy_chunk, length)));
  for (std::uint64_t done = 0; done < length;) {
    const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(buf.size(), length - done));
    if (read_all(calls_, in_fd, offset + done, buf.data(), n) != 0) return fail(in_path_, "cannot read");
    if (write(buf.data(), n) != INSPECT_OK) return INSPECT_USAGE_IO;
    done += n;
  }
  return INSPECT_OK;
}

int new_image::finish() {
  if (retry_fsync(calls_, state_->tmp.fd()) != 0) return fail(temp_, "cannot sync");
  if (state_->tmp.close() != 0) return fail(temp_, "cannot close");
  return INSPECT_OK;
}

int new_image::commit() {
  if (calls_.rename(temp_.c_str(), out_.c_str()) != 0) {
    return fail(temp_, ("cannot rename to " + out_).c_str());
  }
  state_->tmp.committed();
  state_.reset();
  const std::string dir = directory_of(out_);
  const int dfd = calls_.open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
  if (dfd < 0) return fail(dir, "cannot open the directory to sync it");
  const int synced = retry_fsync(calls_, dfd);
  const int sync_errno = errno;
  calls_.close(dfd);
  errno = sync_errno;
  if (synced != 0) return fail(dir, "cannot sync the directory");
  return INSPECT_OK;
}

void new_image::discard() { state_.reset(); }

}  // namespace pd
