// Opening, locating and joining the image for privinspect.
#include "inspect/inspect_image.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/errors.h"
#include "inspect/disk_locate.h"
#include "io/dump_device.h"
#include "io/messages.h"
#include "private_region/locate.h"
#include "private_region/join.h"

namespace pd {

inspect_image::inspect_image(session& sess) : s(sess) {}

inspect_image::~inspect_image() {
  if (priv_ != nullptr) priv_free(priv_);
  if (s.priv_fd != nullptr) {
    std::fclose(s.priv_fd);
    s.priv_fd = nullptr;
  }
  if (base_ != nullptr) std::fclose(base_);
}

namespace {

// What a path that is not a regular file is, or null for a regular file.
const char* not_a_file(const struct stat& st) {
  if (S_ISDIR(st.st_mode)) return "is a directory";
  if (S_ISFIFO(st.st_mode)) return "is a FIFO";
  if (S_ISCHR(st.st_mode)) return "is a character device";
  if (S_ISBLK(st.st_mode)) return "is a block device";
  if (S_ISSOCK(st.st_mode)) return "is a socket";
  if (!S_ISREG(st.st_mode)) return "is not a regular file";
  return nullptr;
}

// The bytes from the end of the image to its alternate header position:
// 192 sectors of 512 bytes, or 24 of 4096 (derive_disk_attrs).
constexpr std::uint64_t header_positions_bytes = 192 * 512;

}  // namespace

bool inspect_image::open(const inspect_target& t) {
  header_choice_ = t.header_choice;
  image_ = t.image;
  sector_size_ = t.sector_size;
  s.devicename = t.image;
  const char* path = t.image.c_str();
  // The path is looked at before it is opened: opening a FIFO would wait
  // for a writer, and a directory opens "rb" but has no length.
  struct stat st {};
  if (::stat(path, &st) != 0) {
    std::fprintf(s.err, "%s: cannot open %s: %s\n", s.progname, path, std::strerror(errno));
    return false;
  }
  if (const char* what = not_a_file(st)) {
    std::fprintf(s.err, "%s: %s: %s (an image file is expected)\n", s.progname, path, what);
    return false;
  }
  s.priv_fd = std::fopen(path, "rb");
  if (s.priv_fd == nullptr) {
    std::fprintf(s.err, "%s: cannot open %s: %s\n", s.progname, path, std::strerror(errno));
    return false;
  }
  file_size_ = dump_file_size(s.priv_fd);
  bool window = false;
  std::uint64_t length = 0;
  if (!choose_region(s, t, s.priv_fd, file_size_, &window, &window_offset_, &length)) return false;
  if (window) {
    base_ = s.priv_fd;
    s.priv_fd = open_window(base_, window_offset_, length);
    if (s.priv_fd == nullptr) {
      std::fprintf(s.err, "%s: %s: cannot read the region: %s\n", s.progname, path,
                   std::strerror(errno));
      return false;
    }
    file_size_ = dump_file_size(s.priv_fd);
  }
  if (file_size_ < static_cast<std::uint64_t>(sector_size_)) {
    std::fprintf(s.err,
                 "%s: %s: %llu bytes, shorter than one %d-byte sector (both header copies "
                 "lie within the last %llu bytes of a private region)\n",
                 s.progname, path, static_cast<unsigned long long>(file_size_), sector_size_,
                 static_cast<unsigned long long>(header_positions_bytes));
    return false;
  }
  dattrs_ = derive_disk_attrs(file_size_, sector_size_);

  priv_ = priv_alloc();
  if (priv_ == nullptr) {
    volpfmt(s, s.err, 1, ":733:Memory allocation failed\n");
    return false;
  }
  priv_->pri_io_private = &s;
  priv_->pri_read = privutil_read;
  priv_->pri_write = privutil_write;
  priv_->pri_flags |= PRI_NOUPDATE;
  return true;
}

bool inspect_image::holds_header_positions() const {
  if (dattrs_.dka_alternate_header >= 0) return true;
  std::fprintf(s.err,
               "%s: %s: %llu bytes, shorter than the %llu bytes that hold both header positions "
               "(the primary in the last sector, the alternate 96 KiB before the end)\n",
               s.progname, s.devicename.c_str(), static_cast<unsigned long long>(file_size_),
               static_cast<unsigned long long>(header_positions_bytes));
  return false;
}

void inspect_image::hint_other_sector_size() {
  int other = sector_size_ == 512 ? 4096 : 512;
  disk_attrs d = derive_disk_attrs(file_size_, other);
  bool found = false;
  if (d.dka_alternate_header >= 0) {
    priv_info* probe = priv_alloc();
    if (probe == nullptr) return;
    probe->pri_io_private = &s;
    probe->pri_read = privutil_read;
    probe->pri_write = privutil_write;
    probe->pri_flags |= PRI_NOUPDATE;
    try {
      found = priv_scan(probe, &d) == 0;
    } catch (const fatal_exit&) {
    }
    priv_free(probe);
  }
  std::fprintf(s.err, "%s: %s: no header found with %d-byte sectors; %s\n", s.progname,
               s.devicename.c_str(), sector_size_,
               found ? (other == 4096 ? "a header is found with --sector-size 4096"
                                      : "a header is found with --sector-size 512")
                     : (other == 4096 ? "none with --sector-size 4096 either"
                                      : "none with --sector-size 512 either"));
}

int inspect_image::locate_or_explain() {
  if (!holds_header_positions()) return INSPECT_USAGE_IO;
  if (locate()) return INSPECT_OK;
  // A failed header scan leaves the handle without a header.
  // Only when no copy was named: a named copy that fails is that copy's
  // fault, whatever the other sector size holds.
  if (priv_->pri_header == nullptr && header_choice_ == header_choice::automatic) {
    hint_other_sector_size();
  }
  return INSPECT_FINDINGS;
}


// A failed scan resets the handle's flags: every scan sets the no-update
// flag again, so that no join after it ever writes.
int inspect_image::scan_as_privdiag() {
  const int res = priv_scan(priv_, &dattrs_);
  priv_->pri_flags |= PRI_NOUPDATE;
  return res;
}

int inspect_image::scan() {
  fallback_note_.clear();
  switch (header_choice_) {
    case header_choice::primary:
    case header_choice::alternate: {
      const int res =
          priv_scan_copy(priv_, &dattrs_, header_choice_ == header_choice::primary ? 0 : 1);
      priv_->pri_flags |= PRI_NOUPDATE;
      return res;
    }
    case header_choice::automatic:
      break;
  }
  const int res = scan_as_privdiag();
  if (res == VE_OK || res == VE_NOMEM) return res;
  if (priv_scan_copy(priv_, &dattrs_, -1) != VE_OK) {
    priv_reset(priv_);
    priv_->pri_flags |= PRI_NOUPDATE;
    return res;
  }
  priv_->pri_flags |= PRI_NOUPDATE;
  const bool alt = (priv_->pri_flags & PRI_USED_ALT) != 0;
  fallback_note_ = std::string(s.progname != nullptr ? s.progname : "privinspect") + ": " +
                   image_ + ": the scan found no usable header (" + vol_strerror(res) +
                   "); reading through the " + (alt ? "alternate" : "primary") +
                   " copy at sector " +
                   std::to_string(alt ? dattrs_.dka_alternate_header : dattrs_.dka_primary_header);
  return VE_OK;
}

int inspect_image::join() {
  saved_offset_ = priv_->pri_header->phi_priv_offset;
  priv_->pri_header->phi_priv_offset = 0;
  int res = priv_join(priv_);
  joined_ = res == 0;
  return res;
}

bool inspect_image::locate() {
  int res = scan();
  if (announce && !fallback_note_.empty()) std::fprintf(s.err, "%s\n", fallback_note_.c_str());
  if (res != 0) {
    volpfmt(s, s.err, 1, ":1735:scan operation failed:\n\t%s\n", vol_strerror(res));
    return false;
  }
  res = join();
  if (res != 0) {
    volpfmt(s, s.err, 1, ":1650:join operation failed:\n\t%s\n", vol_strerror(res));
    return false;
  }
  return true;
}

std::size_t inspect_image::read_at(std::uint64_t offset, std::uint8_t* buf, std::size_t len) const {
  if (s.priv_fd == nullptr || offset >= file_size_) return 0;
  if (fseeko(s.priv_fd, static_cast<off_t>(offset), SEEK_SET) != 0) return 0;
  return std::fread(buf, 1, len, s.priv_fd);
}

}  // namespace pd
