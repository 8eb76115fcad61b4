// The image under inspection: the file opened read-only, the disk
// attributes its length gives, and the private-region handle, located and
// joined the way privdiag does it (no-update flag set, region offset forced
// to 0 for the join and for every read after it).
//
// Besides the handle's sector I/O, the inspector reads raw bytes of the
// image (read_at) for the views that must not trust any decoded structure:
// a short read there is not an error, it just returns fewer bytes.
//
// The status numbers every subcommand ends with are gathered here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/session.h"
#include "base/priv_info.h"

namespace pd {

// Exit statuses of privinspect.
inline constexpr int INSPECT_OK = 0;        // done; check: consistent
inline constexpr int INSPECT_FINDINGS = 1;  // check: inconsistencies; others: stopped
inline constexpr int INSPECT_UNUSABLE = 2;  // check: no usable header, TOC or config copy
inline constexpr int INSPECT_USAGE_IO = 3;  // usage error, image cannot be opened or read

// The header copy the views read the region through (--header).
enum class header_choice {
  automatic,  // the scan's choice; when the scan fails, the copy that decodes
  primary,
  alternate,
};

// What every subcommand is given: the image, its sector size and the
// header copy to read through.
struct inspect_target {
  std::string image;
  int sector_size = 512;
  pd::header_choice header_choice = pd::header_choice::automatic;
  // In a whole-disk image (disk_locate.h): the candidate region numbered
  // `region` (from 1; 0: the only one), or the region starting at sector
  // `offset_sector` (-1: not given).
  int region = 0;
  std::int64_t offset_sector = -1;
};

class inspect_image {
 public:
  explicit inspect_image(session& s);
  ~inspect_image();
  inspect_image(const inspect_image&) = delete;
  inspect_image& operator=(const inspect_image&) = delete;

  // Opens the image "rb" into the session and derives the disk attributes.
  // In a whole-disk image the session's stream is a window on the chosen
  // region (window_offset() its first byte), so that every view reads the
  // region as if it were a region image.
  // Refuses, with a message naming the path (and the system's reason where
  // it refused), a path that cannot be opened, one that is not a regular
  // file (a directory, FIFO, device or socket: it is not opened at all), and
  // an image shorter than one sector. False after the message.
  bool open(const inspect_target& t);
  // Whether the image is long enough for both header positions; false
  // after a message giving its length and the length needed.
  bool holds_header_positions() const;
  // After a failed header scan: one line saying whether the scan finds a
  // header at the other sector size (a read-only probe).
  void hint_other_sector_size();
  // holds_header_positions() then locate(), with the hint above when the
  // header scan failed: INSPECT_OK, INSPECT_USAGE_IO when the image is too
  // short, INSPECT_FINDINGS when it cannot be located.
  int locate_or_explain();

  // The header scan as the target's header choice asks: 0 or a volume
  // error. With the automatic choice it is priv_scan's; only when that
  // fails, the copy that decodes is taken (fallback_note() then names it).
  int scan();
  // priv_scan's own choice, whatever the target asks.
  int scan_as_privdiag();
  // When the automatic choice read through a copy the scan did not choose:
  // one line that names it (written by locate() on the error stream unless
  // announce is false); else empty.
  const std::string& fallback_note() const { return fallback_note_; }
  bool announce = true;
  // The join, with the region offset at 0 during and after it (the stored
  // offset is kept in stored_priv_offset()). 0 or the volume error.
  int join();
  // scan() then join(); reports the failing stage (":1735:" / ":1650:")
  // like privdiag and returns false when the handle is not joined.
  bool locate();

  // Up to `len` bytes of the image from byte `offset`; returns the count
  // read (0 past the end).
  std::size_t read_at(std::uint64_t offset, std::uint8_t* buf, std::size_t len) const;

  session& s;
  priv_info* priv() { return priv_; }
  const disk_attrs& attrs() const { return dattrs_; }
  int sector_size() const { return sector_size_; }
  std::uint64_t file_size() const { return file_size_; }
  voff_t stored_priv_offset() const { return saved_offset_; }
  bool joined() const { return joined_; }
  std::uint64_t window_offset() const { return window_offset_; }

 private:
  priv_info* priv_ = nullptr;
  disk_attrs dattrs_;
  int sector_size_ = 512;
  std::uint64_t file_size_ = 0;
  voff_t saved_offset_ = 0;
  bool joined_ = false;
  FILE* base_ = nullptr;  // the image under the window, when there is one
  std::uint64_t window_offset_ = 0;
  pd::header_choice header_choice_ = pd::header_choice::automatic;
  std::string image_;
  std::string fallback_note_;
};

}  // namespace pd
