// Opening, locating and joining the image for privinspect.
#include "inspect/inspect_image.h"

#include <cstdio>

#include "base/errors.h"
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
}

bool inspect_image::open(const inspect_target& t) {
  header_choice_ = t.header_choice;
  image_ = t.image;
  sector_size_ = t.sector_size;
  s.devicename = t.image;
  s.priv_fd = std::fopen(t.image.c_str(), "rb");
  if (s.priv_fd == nullptr) {
    std::fprintf(s.err, "Cannot open dump file %s.\n", t.image.c_str());
    return false;
  }
  (void)fseeko(s.priv_fd, 0, SEEK_END);
  off_t end = ftello(s.priv_fd);
  (void)fseeko(s.priv_fd, 0, SEEK_SET);
  file_size_ = end > 0 ? static_cast<std::uint64_t>(end) : 0;
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
