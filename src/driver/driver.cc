// privdiag [512|4096] IMAGE.
//
// Start-up order: locale from the environment, message catalogue name and
// label, arguments and sector size, the private-region handle with the dump
// device's callbacks, the image opened "rb" (never for writing), its length,
// the disk attributes derived from it, and the no-update flag so that
// nothing is ever written back. Every failure ends with status 1 (127 when
// memory runs out while the catalogue name is set).
#include "driver/driver.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "base/errors.h"
#include "driver/dump_device.h"
#include "driver/messages.h"
#include "driver/pipeline.h"

namespace pd {

namespace {

constexpr const char* usage_text =
    "privdiag - ORVANE Volume Manager diagnostic operations\n\nUsage:\nprivdiag [512|4096] filename";

// Bytes of one header sector: the primary header is the last such sector.
constexpr std::size_t header_iosize = 512;

struct priv_free {
  void operator()(priv_info* p) const { std::free(p); }
};
using priv_handle = std::unique_ptr<priv_info, priv_free>;

void usage(session& s) {
  std::fputs(usage_text, s.out);
  std::fputc('\n', s.out);
}

[[noreturn]] void usage_exit(session& s, const char* what) {
  std::fprintf(s.err, "%s: %s\n", s.progname, what);
  usage(s);
  throw fatal_exit{1};
}

// The image's length in bytes: the position of its end. A stream that
// cannot tell its position counts as empty.
std::uint64_t dump_file_size(FILE* f) {
  (void)fseeko(f, 0, SEEK_END);
  off_t end = ftello(f);
  (void)fseeko(f, 0, SEEK_SET);
  return end > 0 ? static_cast<std::uint64_t>(end) : 0;
}

int privdiag_run(session& s, int argc, char** argv) {
  int sector_size = 512;

  std::setlocale(LC_ALL, "");
  volsetcat(s, "quillon.mesg");
  volsetlabel(s, "qztool:priv");

  if (argc == 2) {
    s.devicename = argv[1];
  } else if (argc == 3) {
    sector_size = std::atoi(argv[1]);
    s.devicename = argv[2];
  } else {
    usage_exit(s, "Incorrect usage");
  }
  if (sector_size != 512 && sector_size != 4096) usage_exit(s, "Incorrect sector size");

  priv_handle priv(priv_alloc());
  if (!priv) {
    volpfmt(s, s.err, 1, ":733:Memory allocation failed\n");
    throw fatal_exit{1};
  }
  priv->pri_io_private = &s;
  priv->pri_read = privutil_read;
  priv->pri_write = privutil_write;

  s.priv_fd = std::fopen(s.devicename.c_str(), "rb");
  if (s.priv_fd == nullptr) {
    std::fprintf(s.err, "Cannot open dump file %s.\n", s.devicename.c_str());
    throw fatal_exit{1};
  }
  disk_attrs dattrs = derive_disk_attrs(dump_file_size(s.priv_fd), sector_size);
  priv->pri_flags |= PRI_NOUPDATE;

  // next: scan (step 12), then zero phi_priv_offset, join (steps 13-14),
  // print the header with the stored offset restored, zero it again, print
  // the TOC and two new lines (steps 15-17); whatever scan and join hang on
  // the handle must be released before it is freed here.
  // next: the configuration report (step 18): priv_dump_config(s, priv, -1).
  (void)dattrs;
  return 0;
}

}  // namespace

disk_attrs derive_disk_attrs(std::uint64_t fsize, int sector_size) {
  disk_attrs d;
  d.dka_atomic_iosize = static_cast<std::size_t>(sector_size);
  d.dka_priv_offset = 0;
  d.dka_priv_len = static_cast<voff_t>(fsize / static_cast<unsigned>(sector_size));
  d.dka_primary_header = d.dka_priv_len - static_cast<voff_t>(header_iosize >> 9);
  d.dka_alternate_header = d.dka_priv_len - 192 / (sector_size / 512);
  d.dka_nt_backup_header = d.dka_primary_header;
  return d;
}

int privdiag_main(session& s, int argc, char** argv) {
  int status = 0;
  try {
    status = privdiag_run(s, argc, argv);
  } catch (const fatal_exit& e) {
    status = e.status;
  }
  // The exit routine: the image is closed whatever ended the run.
  if (s.priv_fd != nullptr) {
    std::fclose(s.priv_fd);
    s.priv_fd = nullptr;
  }
  return status;
}

}  // namespace pd
