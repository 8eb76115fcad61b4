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
#include <new>

#include <unistd.h>

#include "base/errors.h"
#include "io/dump_device.h"
#include "io/messages.h"
#include "private_region/locate.h"
#include "private_region/join.h"
#include "report/copy_loading.h"
#include "report/header_toc_dump.h"

namespace pd {

namespace {

constexpr const char* usage_text =
    "privdiag - ORVANE Volume Manager diagnostic operations\n\nUsage:\nprivdiag [512|4096] filename";

// The output buffer of a report written to a file or a pipe.
constexpr std::size_t OUT_BUFFER_SIZE = std::size_t{1} << 20;

// Releases the handle with everything the scan and the join hung on it.
struct priv_release {
  void operator()(priv_info* p) const { priv_free(p); }
};
using priv_handle = std::unique_ptr<priv_info, priv_release>;

void usage(session& s) {
  std::fputs(usage_text, s.out);
  std::fputc('\n', s.out);
}

[[noreturn]] void usage_exit(session& s, const char* fmt) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::fprintf(s.err, fmt, s.progname);
#pragma GCC diagnostic pop
  usage(s);
  throw fatal_exit{1, fatal_kind::usage};
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
    usage_exit(s, "%s: Incorrect usage\n");
  }
  if (sector_size != 512 && sector_size != 4096) usage_exit(s, "%s: Incorrect sector size\n");

  priv_handle priv(priv_alloc());
  if (!priv) {
    volpfmt(s, s.err, 1, ":733:Memory allocation failed\n");
    throw fatal_exit{1, fatal_kind::memory};
  }
  priv->pri_io_private = &s;
  priv->pri_read = privutil_read;
  priv->pri_write = privutil_write;

  open_dump_file(s, s.devicename.c_str());
  disk_attrs dattrs = derive_disk_attrs(dump_file_size(s.priv_fd), sector_size);
  priv->pri_flags |= PRI_NOUPDATE;

  int res = priv_scan(priv.get(), &dattrs);
  if (res != 0) {
    volpfmt(s, s.err, 1, ":1735:scan operation failed:\n\t%s\n", vol_strerror(res));
    throw fatal_exit{1, fatal_kind::no_header};
  }
  // The join and everything after it address the image directly: the
  // region offset is zero except while the header is printed.
  priv_header_info* hdr = priv->pri_header;
  const voff_t save_offset = hdr->phi_priv_offset;
  hdr->phi_priv_offset = 0;
  res = priv_join(priv.get());
  if (res != 0) {
    volpfmt(s, s.err, 1, ":1650:join operation failed:\n\t%s\n", vol_strerror(res));
    throw fatal_exit{1, fatal_kind::no_toc};
  }
  hdr->phi_priv_offset = save_offset;
  priv_dump_header(s, priv.get());
  hdr->phi_priv_offset = 0;
  priv_dump_toc(s, priv.get());
  std::fputs("\n\n", s.out);  // puts("\n")

  // The configuration report of the first enabled copy; the status is 0
  // whatever the report returned.
  priv_dump_config(s, priv.get(), -1);
  return 0;
}

}  // namespace

int privdiag_main(session& s, int argc, char** argv) {
  // A report can run to hundreds of megabytes: write it in large pieces
  // when it goes to a file or a pipe. The buffer outlives main, as the
  // stream is flushed at exit.
  static char out_buffer[OUT_BUFFER_SIZE];
  if (s.out == stdout && isatty(fileno(stdout)) == 0) {
    std::setvbuf(s.out, out_buffer, _IOFBF, sizeof out_buffer);
  }
  int status = 0;
  try {
    status = privdiag_run(s, argc, argv);
  } catch (const fatal_exit& e) {
    status = e.status;
  } catch (const std::bad_alloc&) {
    // A standard container that found the heap exhausted: the tool's own
    // allocation failure, whatever the image.
    volpfmt(s, s.err, 1, ":733:Memory allocation failed\n");
    status = 1;
  }
  // The exit routine: the image is closed whatever ended the run.
  if (s.priv_fd != nullptr) {
    std::fclose(s.priv_fd);
    s.priv_fd = nullptr;
  }
  return status;
}

}  // namespace pd
