// Writing the chosen region as a region image (see extract.h).
#include "inspect/extract.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace pd {

namespace {

struct fd_closer {
  const file_calls& calls;
  int fd;
  ~fd_closer() { calls.close(fd); }
};

}  // namespace

int extract_region(session& s, const inspect_target& t, const std::string& out, bool force,
                   extract_result* r, const file_calls& calls) {
  r->out = out;
  {
    // The same choice every view makes (and its refusals).
    inspect_image img(s);
    if (!img.open(t)) return INSPECT_USAGE_IO;
    r->offset = img.window_offset();
    r->length = img.file_size();
  }
  new_image w(s, calls);
  if (w.open(t.image, out, force) != INSPECT_OK) return INSPECT_USAGE_IO;
  const int in = calls.open(t.image.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (in < 0) {
    std::fprintf(s.err, "%s: %s: cannot open: %s\n", s.progname, t.image.c_str(), std::strerror(errno));
    return INSPECT_USAGE_IO;
  }
  const fd_closer in_closer{calls, in};
  if (w.copy_from(in, r->offset, r->length) != INSPECT_OK || w.finish() != INSPECT_OK ||
      w.commit() != INSPECT_OK) {
    return INSPECT_USAGE_IO;
  }
  r->bytes = r->length;
  return INSPECT_OK;
}

int inspect_extract(session& s, const inspect_target& t, const std::string& out, bool force) {
  extract_result r;
  const int status = extract_region(s, t, out, force, &r);
  if (status != INSPECT_OK) return status;
  std::fprintf(s.out, "%s: %llu bytes from byte %llu of %s\n", out.c_str(),
               static_cast<unsigned long long>(r.bytes), static_cast<unsigned long long>(r.offset),
               t.image.c_str());
  return INSPECT_OK;
}

}  // namespace pd
