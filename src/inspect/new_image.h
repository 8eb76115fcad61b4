// A new image file written atomically: what `extract` writes, and any other
// command that writes an image (never its input).
//
// The input is only ever opened for reading. OUT is refused when it, or its
// temporary file OUT.tmp, is the input (same st_dev and st_ino, symlinks
// followed, so a hard link counts too), when it is a directory, and when it
// exists unless `force`. The bytes go to OUT.tmp, created exclusively beside
// OUT (an existing one is named and left alone). `finish` syncs and closes
// it, so that a command can check the finished file (`temp_path`) before it
// keeps it; `commit` renames it over OUT and syncs the directory. Any
// failure, `discard`, the destructor and SIGINT, SIGTERM or SIGHUP remove
// the temporary file and leave OUT as it was.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "base/session.h"

namespace pd {

// The file system calls the writer makes, so that tests can fail each one.
struct file_calls {
  int (*open)(const char* path, int flags, mode_t mode);
  ssize_t (*pread)(int fd, void* buf, std::size_t len, off_t offset);
  ssize_t (*write)(int fd, const void* buf, std::size_t len);
  int (*fsync)(int fd);
  int (*close)(int fd);
  int (*rename)(const char* from, const char* to);
  int (*unlink)(const char* path);
};
const file_calls& system_file_calls();

// Each call returns INSPECT_OK, or INSPECT_USAGE_IO after a message on s.err
// naming the file and the reason (the temporary file is gone then).
class new_image {
 public:
  explicit new_image(session& s, const file_calls& calls = system_file_calls());
  new_image(const new_image&) = delete;
  new_image& operator=(const new_image&) = delete;
  ~new_image();

  // The refusals above, then OUT.tmp created.
  int open(const std::string& in_path, const std::string& out, bool force);
  int write(const std::uint8_t* buf, std::size_t len);
  // Appends `length` bytes of `in_fd` from byte `offset` (read with pread).
  int copy_from(int in_fd, std::uint64_t offset, std::uint64_t length);
  // Syncs and closes OUT.tmp; it is still removed unless committed.
  int finish();
  // After `finish`: OUT.tmp renamed over OUT, the directory synced.
  int commit();
  void discard();

  const std::string& temp_path() const { return temp_; }
  std::uint64_t written() const { return written_; }

 private:
  struct temp_state;
  int fail(const std::string& file, const char* what);
  int refuse(const std::string& file, const char* why);

  session& s_;
  const file_calls& calls_;
  std::string in_path_, out_, temp_;
  std::unique_ptr<temp_state> state_;
  std::uint64_t written_ = 0;
};

}  // namespace pd
