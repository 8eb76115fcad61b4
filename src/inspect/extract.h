// `privinspect extract DISK OUT`: the region every view reads (disk_locate.h
// choose_region) written as a standalone region image that privdiag reads.
// A region image is copied whole.
//
// The input is only ever opened for reading. OUT is refused when it, or its
// temporary file OUT.tmp, is the input (same st_dev and st_ino, symlinks
// followed, so a hard link counts too), and when it exists unless `force`.
// The copy goes to OUT.tmp, created exclusively beside OUT (an existing one
// is named and left alone), is synced, renamed over OUT, and the directory
// is synced. Any failure removes the temporary file and leaves OUT as it was.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "base/session.h"
#include "inspect/inspect_image.h"

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

struct extract_result {
  std::string out;
  std::uint64_t offset = 0;  // of the region in the input, in bytes
  std::uint64_t length = 0;  // of the region, in bytes
  std::uint64_t bytes = 0;   // written to OUT: `length` once OUT is in place
};

// Writes the target's region to `out`. INSPECT_OK, or INSPECT_USAGE_IO
// after a message on s.err naming the file and the reason. `r` is filled
// as far as the run got.
int extract_region(session& s, const inspect_target& t, const std::string& out, bool force,
                   extract_result* r, const file_calls& calls = system_file_calls());

// The text view: one line on s.out saying what was written.
int inspect_extract(session& s, const inspect_target& t, const std::string& out, bool force);

}  // namespace pd
