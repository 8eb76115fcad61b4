// Finding the private region in a whole-disk image (see disk_locate.h).
#include "inspect/disk_locate.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/errors.h"
#include "io/dump_device.h"
#include "private_region/header.h"
#include "private_region/join.h"
#include "private_region/locate.h"

namespace pd {

namespace {

std::size_t pread_full(int fd, std::uint64_t offset, std::uint8_t* buf, std::size_t len) {
  std::size_t done = 0;
  while (done < len) {
    const ssize_t n = ::pread(fd, buf + done, len - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  return done;
}

struct window_cookie {
  int fd;
  std::uint64_t offset, length, pos;
};

ssize_t window_read(void* c, char* buf, std::size_t size) {
  auto* w = static_cast<window_cookie*>(c);
  if (w->pos >= w->length) return 0;
  size = static_cast<std::size_t>(std::min<std::uint64_t>(size, w->length - w->pos));
  const std::size_t n =
      pread_full(w->fd, w->offset + w->pos, reinterpret_cast<std::uint8_t*>(buf), size);
  w->pos += n;
  return static_cast<ssize_t>(n);
}

int window_seek(void* c, off64_t* p, int whence) {
  auto* w = static_cast<window_cookie*>(c);
  const std::int64_t base = whence == SEEK_SET   ? 0
                            : whence == SEEK_CUR ? static_cast<std::int64_t>(w->pos)
                                                 : static_cast<std::int64_t>(w->length);
  std::int64_t to = 0;
  if (__builtin_add_overflow(base, static_cast<std::int64_t>(*p), &to) || to < 0) return -1;
  w->pos = static_cast<std::uint64_t>(to);
  *p = to;
  return 0;
}

int window_close(void* c) {
  delete static_cast<window_cookie*>(c);
  return 0;
}

// A header sector decoded from byte `at`, or false.
bool header_at(int fd, std::uint64_t at, priv_header_info* h) {
  std::uint8_t buf[PRIV_HEADER_SIZE];
  if (pread_full(fd, at, buf, sizeof buf) != sizeof buf) return false;
  if (std::memcmp(buf, header_magic, PRIV_MAGIC_LEN) != 0) return false;
  *h = priv_header_info{};
  return priv_unformat_header(h, buf) == 0;
}

// The header search of the scan from the start of [first, first + count).
bool search_from_start(session& s, FILE* f, std::uint64_t first, std::uint64_t count, int ss,
                       priv_header_info* out) {
  FILE* w = open_window(f, first * static_cast<unsigned>(ss), count * static_cast<unsigned>(ss));
  if (w == nullptr) return false;
  FILE* saved = s.priv_fd;
  s.priv_fd = w;
  priv_info* priv = priv_alloc();
  bool found = false;
  if (priv != nullptr) {
    priv->pri_io_private = &s;
    priv->pri_read = privutil_read;
    priv->pri_write = privutil_write;
    priv->pri_flags |= PRI_NOUPDATE;
    priv_header_info* h = priv_alloc_header();
    if (h != nullptr) {
      h->phi_atomic_iosize = static_cast<std::size_t>(ss);
      priv->pri_header = h;
      try {
        found = priv_find_alt_header(priv, nullptr) == 0;
      } catch (const fatal_exit&) {
      }
      if (found) *out = *priv->pri_header;
    }
    priv_free(priv);
  }
  s.priv_fd = saved;
  std::fclose(w);
  return found;
}

std::string num(std::uint64_t v) { return std::to_string(v); }

// Probes [first, first + count) (sectors), named `area`.
void probe_area(session& s, FILE* f, std::uint64_t first, std::uint64_t count, int ss,
                const std::string& area, disk_survey* d) {
  const int fd = fileno(f);
  const std::uint64_t uss = static_cast<unsigned>(ss);
  const std::uint64_t end = first + count;
  const std::uint64_t alt_back = 192 / (uss / 512);
  priv_header_info h;
  std::string how;
  bool at_end = true;
  if (count >= 1 && header_at(fd, (end - 1) * uss, &h)) {
    how = "primary header in its last sector";
  } else if (count > alt_back && header_at(fd, (end - alt_back) * uss, &h)) {
    how = "alternate header 96 KiB before its end";
  } else if (search_from_start(s, f, first, count, ss, &h)) {
    how = "header search from its start (alternate at sector " + num(first + h.phi_alt_header) + ")";
    at_end = false;
  } else {
    return;
  }
  std::uint64_t len = h.phi_priv_len > 0 ? static_cast<std::uint64_t>(h.phi_priv_len) : 0;
  if (len == 0 || len > count) {
    d->problems.push_back(area + ": its header (" + how + ") gives a region of " + num(len) +
                          " sectors, not within the " + num(count) +
                          " it holds; the whole area is taken");
    len = count;
  }
  const std::uint64_t start = at_end ? end - len : first;
  for (const region_candidate& c : d->candidates) {
    if (c.offset == start * uss && c.length == len * uss) return;
  }
  d->candidates.push_back({start * uss, len * uss, ss, area + ": " + how});
}

// Every sector boundary of the image holding the magic, as a region whose
// header sits there.
void magic_scan(FILE* f, std::uint64_t size, int ss, disk_survey* d) {
  const int fd = fileno(f);
  const std::uint64_t uss = static_cast<unsigned>(ss);
  const std::uint64_t sectors = size / uss;
  constexpr std::size_t chunk = 1u << 20;
  std::vector<std::uint8_t> buf(chunk);
  for (std::uint64_t at = 0; at < sectors * uss; at += chunk) {
    const std::size_t n = pread_full(fd, at, buf.data(), chunk);
    for (std::size_t k = 0; k + PRIV_MAGIC_LEN <= n; k += uss) {
      if (std::memcmp(&buf[k], header_magic, PRIV_MAGIC_LEN) != 0) continue;
      priv_header_info h;
      const std::uint64_t sector = (at + k) / uss;
      if (!header_at(fd, at + k, &h) || h.phi_priv_len <= 0) continue;
      const std::uint64_t len = static_cast<std::uint64_t>(h.phi_priv_len);
      // The sector is either copy: the reading under which the other copy
      // decodes too is taken, else the first that fits.
      std::uint64_t start = 0;
      const char* which = nullptr;
      for (int copy = 0; copy < 2; ++copy) {
        const voff_t pos = copy == 0 ? h.phi_primary_header : h.phi_alt_header;
        const voff_t other = copy == 0 ? h.phi_alt_header : h.phi_primary_header;
        if (pos < 0 || other < 0 || static_cast<std::uint64_t>(pos) > sector) continue;
        const std::uint64_t s0 = sector - static_cast<std::uint64_t>(pos);
        if (s0 + len > sectors) continue;
        priv_header_info o;
        const bool both = header_at(fd, (s0 + static_cast<std::uint64_t>(other)) * uss, &o);
        if (which == nullptr || both) {
          start = s0;
          which = copy == 0 ? "primary" : "alternate";
        }
        if (both) break;
      }
      if (which == nullptr) continue;
      bool known = false;
      for (const region_candidate& c : d->candidates) known |= c.offset == start * uss;
      if (!known)
        d->candidates.push_back({start * uss, len * uss, ss,
                                 "magic scan: " + std::string(which) + " header at sector " +
                                     num(sector)});
    }
    if (n < chunk) break;
  }
}

}  // namespace

FILE* open_window(FILE* base, std::uint64_t offset, std::uint64_t length) {
  auto* w = new window_cookie{fileno(base), offset, length, 0};
  cookie_io_functions_t io{window_read, nullptr, window_seek, window_close};
  FILE* f = fopencookie(w, "r", io);
  if (f == nullptr) delete w;
  return f;
}

disk_survey survey_disk(session& s, FILE* f, std::uint64_t size, int ss, bool scan) {
  disk_survey d;
  d.sector_size = ss;
  const int fd = fileno(f);
  d.tables = read_partition_tables(
      [fd](std::uint64_t off, std::uint8_t* buf, std::size_t len) {
        return pread_full(fd, off, buf, len);
      },
      size, static_cast<unsigned>(ss));
  const partition_tables& t = d.tables;
  const char* kind = table_kind_name(t.kind);
  if (t.kind == table_kind::none) {
    probe_area(s, f, 0, size / static_cast<unsigned>(ss), ss, "whole disk", &d);
  } else {
    for (const disk_partition& p : t.partitions) {
      probe_area(s, f, p.first, p.sectors, ss, std::string(kind) + " partition " + num(p.number),
                 &d);
    }
    // The usable sectors outside every partition, stretch by stretch.
    std::uint64_t at = t.usable_first;
    auto gap = [&](std::uint64_t to) {
      if (to > at) {
        probe_area(s, f, at, to - at, ss,
                   "outside the partitions (sectors " + num(at) + ".." + num(to - 1) + ")", &d);
      }
    };
    for (const disk_partition& p : t.partitions) {
      gap(std::min(p.first, t.usable_end));
      at = std::max(at, p.first + p.sectors);
    }
    gap(t.usable_end);
  }
  if (scan && d.candidates.empty()) magic_scan(f, size, ss, &d);
  return d;
}

bool looks_like_whole_disk(const disk_survey& d, FILE* f, std::uint64_t size, int ss) {
  if (d.tables.kind != table_kind::none) return true;
  const std::uint64_t uss = static_cast<unsigned>(ss);
  priv_header_info h;
  return size >= uss && header_at(fileno(f), (size / uss - 1) * uss, &h) && h.phi_priv_len > 0 &&
         static_cast<std::uint64_t>(h.phi_priv_len) < size / uss;
}

namespace {

void list_candidates(session& s, const std::vector<region_candidate>& cs) {
  for (std::size_t i = 0; i < cs.size(); ++i) {
    std::fprintf(s.err, "  %zu: offset %llu bytes (sector %llu), %llu bytes: %s\n", i + 1,
                 static_cast<unsigned long long>(cs[i].offset),
                 static_cast<unsigned long long>(cs[i].offset / static_cast<unsigned>(cs[i].sector_size)),
                 static_cast<unsigned long long>(cs[i].length), cs[i].how.c_str());
  }
}

}  // namespace

bool choose_region(session& s, const inspect_target& t, FILE* f, std::uint64_t size,
                   bool* window, std::uint64_t* offset, std::uint64_t* length) {
  *window = false;
  const char* path = t.image.c_str();
  const std::uint64_t uss = static_cast<unsigned>(t.sector_size);
  const bool chosen = t.region > 0 || t.offset_sector >= 0;
  disk_survey d = survey_disk(s, f, size, t.sector_size, chosen);
  if (!chosen && !looks_like_whole_disk(d, f, size, t.sector_size)) return true;
  if (t.offset_sector >= 0) {
    const std::uint64_t start = static_cast<std::uint64_t>(t.offset_sector);
    if (start >= size / uss) {
      std::fprintf(s.err, "%s: %s: --offset %llu lies past the image's %llu sectors\n", s.progname,
                   path, static_cast<unsigned long long>(start),
                   static_cast<unsigned long long>(size / uss));
      return false;
    }
    for (const region_candidate& c : d.candidates) {
      if (c.offset == start * uss) {
        *window = true;
        *offset = c.offset;
        *length = c.length;
        return true;
      }
    }
    // No candidate starts there: the search from that sector, else up to
    // the end of the image.
    priv_header_info h;
    const std::uint64_t rest = size / uss - start;
    *window = true;
    *offset = start * uss;
    *length = rest * uss;
    if (search_from_start(s, f, start, rest, t.sector_size, &h) && h.phi_priv_len > 0 &&
        static_cast<std::uint64_t>(h.phi_priv_len) <= rest) {
      *length = static_cast<std::uint64_t>(h.phi_priv_len) * uss;
    }
    return true;
  }
  if (t.region > 0) {
    if (static_cast<std::size_t>(t.region) > d.candidates.size()) {
      std::fprintf(s.err, "%s: %s: --region %d: the image has %zu candidate region%s\n",
                   s.progname, path, t.region, d.candidates.size(),
                   d.candidates.size() == 1 ? "" : "s");
      list_candidates(s, d.candidates);
      return false;
    }
    const region_candidate& c = d.candidates[static_cast<std::size_t>(t.region) - 1];
    *window = true;
    *offset = c.offset;
    *length = c.length;
    return true;
  }
  if (d.candidates.empty()) {
    // Read whole, as today; the views then say what they find.
    std::fprintf(s.err,
                 "%s: %s: a whole disk (%s table) with no private region found in it; read as a "
                 "region image (privinspect locate tells more)\n",
                 s.progname, path, table_kind_name(d.tables.kind));
    return true;
  }
  if (d.candidates.size() > 1) {
    std::fprintf(s.err,
                 "%s: %s: a whole disk holding %zu candidate regions; choose one with --region N "
                 "or --offset SECTOR:\n",
                 s.progname, path, d.candidates.size());
    list_candidates(s, d.candidates);
    return false;
  }
  const region_candidate& c = d.candidates[0];
  std::fprintf(s.err, "%s: %s: the private region at byte %llu, %llu bytes (%s)\n", s.progname,
               path, static_cast<unsigned long long>(c.offset),
               static_cast<unsigned long long>(c.length), c.how.c_str());
  *window = true;
  *offset = c.offset;
  *length = c.length;
  return true;
}

int locate_surveys(session& s, const inspect_target& t, std::uint64_t* size,
                   std::vector<disk_survey>* surveys) {
  const char* path = t.image.c_str();
  struct stat st {};
  if (::stat(path, &st) != 0) {
    std::fprintf(s.err, "%s: cannot open %s: %s\n", s.progname, path, std::strerror(errno));
    return INSPECT_USAGE_IO;
  }
  if (!S_ISREG(st.st_mode)) {
    std::fprintf(s.err, "%s: %s: not a regular file (an image file is expected)\n", s.progname,
                 path);
    return INSPECT_USAGE_IO;
  }
  FILE* f = std::fopen(path, "rb");
  if (f == nullptr) {
    std::fprintf(s.err, "%s: cannot open %s: %s\n", s.progname, path, std::strerror(errno));
    return INSPECT_USAGE_IO;
  }
  *size = dump_file_size(f);
  surveys->push_back(survey_disk(s, f, *size, t.sector_size, true));
  if (surveys->front().candidates.empty()) {
    surveys->push_back(survey_disk(s, f, *size, t.sector_size == 512 ? 4096 : 512, true));
  }
  std::fclose(f);
  for (const disk_survey& d : *surveys) {
    if (!d.candidates.empty()) return INSPECT_OK;
  }
  return INSPECT_FINDINGS;
}

int inspect_locate(session& s, const inspect_target& t) {
  const char* path = t.image.c_str();
  std::uint64_t size = 0;
  std::vector<disk_survey> surveys;
  if (locate_surveys(s, t, &size, &surveys) == INSPECT_USAGE_IO) return INSPECT_USAGE_IO;
  FILE* o = s.out;
  std::fprintf(o, "%s: %llu bytes\n", path, static_cast<unsigned long long>(size));
  bool found = false;
  for (const disk_survey& d : surveys) {
    std::fprintf(o, "\nwith %d-byte sectors%s: partition table %s\n", d.sector_size,
                 d.sector_size == t.sector_size ? "" : " (--sector-size)",
                 table_kind_name(d.tables.kind));
    for (const std::string& line : d.tables.notes) std::fprintf(o, "  %s\n", line.c_str());
    for (const disk_partition& p : d.tables.partitions) {
      std::fprintf(o, "  partition %d: sectors %llu..%llu (%llu), type %s\n", p.number,
                   static_cast<unsigned long long>(p.first),
                   static_cast<unsigned long long>(p.first + p.sectors - 1),
                   static_cast<unsigned long long>(p.sectors), p.type.c_str());
    }
    for (const std::string& line : d.tables.problems) std::fprintf(o, "  !! %s\n", line.c_str());
    for (const std::string& line : d.problems) std::fprintf(o, "  !! %s\n", line.c_str());
    if (d.candidates.empty()) {
      std::fprintf(o, "  no private region found\n");
      continue;
    }
    found = true;
    std::fprintf(o, "  %-3s %14s %14s %6s  %s\n", "#", "offset", "length", "sector", "found by");
    std::size_t n = 0;
    for (const region_candidate& c : d.candidates) {
      std::fprintf(o, "  %-3zu %14llu %14llu %6d  %s\n", ++n,
                   static_cast<unsigned long long>(c.offset),
                   static_cast<unsigned long long>(c.length), c.sector_size, c.how.c_str());
    }
  }
  return found ? INSPECT_OK : INSPECT_FINDINGS;
}

}  // namespace pd
