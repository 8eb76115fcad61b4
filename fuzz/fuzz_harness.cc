// The fuzz targets' work on one input (see fuzz_harness.h).
#include "fuzz_harness.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/errors.h"
#include "base/session.h"
#include "codec/field_codec.h"
#include "config_db/block_store.h"
#include "config_db/record_layouts.h"
#include "driver/driver.h"
#include "inspect/anon.h"
#include "inspect/disk_locate.h"
#include "inspect/inspect.h"
#include "inspect/json_views.h"
#include "io/dump_device.h"
#include "private_region/locate.h"
#include "report/header_toc_dump.h"
#include "private_region/header.h"
#include "codec/integers.h"
#include "private_region/partition_table.h"
#include "private_region/join.h"
#include "private_region/toc.h"
#include "report/copy_loading.h"
#include "report/log_dump.h"

namespace pd::fuzz {

namespace {

std::uint32_t be32(const std::uint8_t* p) {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) | p[3];
}

void put_be(std::vector<std::uint8_t>& out, std::uint32_t v, int nbytes) {
  for (int i = nbytes - 1; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

// Output of every run: formatted as the tool formats it, then dropped.
FILE* null_sink() {
  static FILE* sink = std::fopen("/dev/null", "w");
  if (sink == nullptr) std::abort();
  return sink;
}

// The memory file that holds the image of the current input, and its path.
class image_file {
 public:
  image_file() : fd_(memfd_create("privdiag-image", 0)) {
    if (fd_ < 0) std::abort();
    path_ = "/proc/self/fd/" + std::to_string(fd_);
  }
  const std::string& put(const std::vector<std::uint8_t>& image) {
    if (ftruncate(fd_, 0) != 0) std::abort();
    std::size_t done = 0;
    while (done < image.size()) {
      const ssize_t n = pwrite(fd_, image.data() + done, image.size() - done,
                               static_cast<off_t>(done));
      if (n <= 0) std::abort();
      done += static_cast<std::size_t>(n);
    }
    return path_;
  }

 private:
  int fd_;
  std::string path_;
};

// Recomputes the checksums of header and TOC sectors.
void fix_checksums(std::vector<std::uint8_t>& image, std::size_t sector_size) {
  for (std::size_t off = 0; off + PRIV_HEADER_SIZE <= image.size(); off += PRIV_HEADER_SIZE) {
    std::uint8_t* p = image.data() + off;
    if (std::memcmp(p, header_magic, PRIV_MAGIC_LEN) == 0) priv_header_seal(p);
    if (off % sector_size == 0 && off + sector_size <= image.size() &&
        std::memcmp(p, toc_magic, TOC_MAGIC_LEN) == 0) {
      put_be32(p + TOC_CHECKSUM_OFFSET, static_cast<std::uint32_t>(priv_toc_checksum(p, sector_size)));
    }
  }
}

// The driver's road up to the join, then every log copy dumped.
void dump_logs(const std::string& path, int sector_size) {
  session s(null_sink(), null_sink());
  struct release {
    void operator()(priv_info* p) const { priv_free(p); }
  };
  std::unique_ptr<priv_info, release> priv(priv_alloc());
  priv->pri_io_private = &s;
  priv->pri_read = privutil_read;
  priv->pri_write = privutil_write;
  try {
    open_dump_file(s, path.c_str());
    disk_attrs dattrs = derive_disk_attrs(dump_file_size(s.priv_fd), sector_size);
    priv->pri_flags |= PRI_NOUPDATE;
    if (priv_scan(priv.get(), &dattrs) != 0) return;
    priv->pri_header->phi_priv_offset = 0;
    if (priv_join(priv.get()) != 0) return;
    priv_dump_logs(s, priv.get(), -1);
  } catch (const fatal_exit&) {
  }
}

// privinspect's scan: every sector start with a magic, decoded.
void scan_image(const std::string& path, int sector_size) {
  session s(null_sink(), null_sink());
  try {
    inspect_scan(s, inspect_target{path, sector_size});
  } catch (const fatal_exit&) {
  }
}

// anonymise's walk in memory (collect, draw under a fixed key, rewrite):
// every structure's decoder and encoder on the region's bytes.
void anonymise_region(const std::string& path, int sector_size) {
  session s(null_sink(), null_sink());
  try {
    inspect_image img(s);
    img.announce = false;
    if (!img.open(inspect_target{path, sector_size})) return;
    std::vector<std::uint8_t> region(img.file_size());
    region.resize(img.read_at(0, region.data(), region.size()));
    if (img.holds_header_positions()) img.locate();
    anon_names names(std::vector<std::uint8_t>(ANON_KEY_BYTES, 0x5a));
    anon_collect(img, region, names);
    std::string error;
    anon_rewrite_stats stats;
    if (names.resolve(&error)) anon_rewrite(img, region, names, true, &stats, &error);
  } catch (const fatal_exit&) {
  }
}

// privinspect's check: privdiag's path, then the whole region.
void check_image(const std::string& path, int sector_size) {
  session s(null_sink(), null_sink());
  try {
    inspect_check(s, inspect_target{path, sector_size}, true);
  } catch (const fatal_exit&) {
  }
  anonymise_region(path, sector_size);
}

// privinspect's locate, then a view through the region it finds.
void locate_image(const std::string& path, int sector_size) {
  session s(null_sink(), null_sink());
  try {
    inspect_locate(s, inspect_target{path, sector_size});
    inspect_records(s, inspect_target{path, sector_size}, records_filter{});
  } catch (const fatal_exit&) {
  }
}

// privinspect's dump as JSON, into memory: the document must parse and
// state an exit status of 0 to 3, the one returned.
void dump_json(const std::string& path, int sector_size) {
  char* buf = nullptr;
  std::size_t len = 0;
  FILE* out = open_memstream(&buf, &len);
  if (out == nullptr) std::abort();
  const json_invocation inv{{"privinspect", "dump", path}, "fuzz"};
  int status = -1;
  try {
    status = json_dump_to(out, null_sink(), inv, inspect_target{path, sector_size});
  } catch (const fatal_exit&) {
    std::abort();  // every fatal condition must end in the document
  }
  std::fclose(out);
  const ojson doc = ojson::parse(buf, buf + len, nullptr, false);
  std::free(buf);
  if (doc.is_discarded() || !doc.is_object() || !doc.contains("exit_status") ||
      doc["exit_status"] != status || status < 0 || status > 3) {
    std::abort();
  }
}

// --- codec ---------------------------------------------------------------

// A zeroed structure of `size` bytes whose heap members are released by
// `release` when it goes away.
struct decoded {
  explicit decoded(std::size_t size) : p(std::calloc(1, std::max<std::size_t>(size, 1))) {}
  ~decoded() { std::free(p); }
  decoded(const decoded&) = delete;
  decoded& operator=(const decoded&) = delete;
  void* p;
};

// Formats with `size_of`/`fmt`, decodes the result with `unfmt` into a fresh
// structure and formats that again: sizes and bytes must agree.
template <class SizeOf, class Fmt, class Unfmt, class Release>
bool reformat_agrees(std::size_t struct_size, void* sp, SizeOf size_of, Fmt fmt, Unfmt unfmt,
                     Release release) {
  const std::size_t n = size_of(sp);
  std::vector<std::uint8_t> first(n);
  if (static_cast<std::size_t>(fmt(sp, first.data()) - first.data()) != n) return false;
  decoded again(struct_size);
  const std::uint8_t* end = unfmt(again.p, first.data(), first.data() + n);
  bool ok = end == first.data() + n && size_of(again.p) == n;
  if (ok) {
    std::vector<std::uint8_t> second(n);
    ok = fmt(again.p, second.data()) == second.data() + n && second == first;
  }
  release(again.p);
  return ok;
}

bool codec_record(const std::uint8_t* data, std::size_t size) {
  if (size < 5) return true;
  const rec2field* r2f = &rec2field_table[data[0] % n_rec2field_table];
  const std::uint32_t type = be32(data + 1);
  const std::size_t struct_size = rec2field_struct_size(r2f);
  if (struct_size == 0) return true;
  decoded rec(struct_size);
  bool ok = true;
  if (voldbf_unfmt_tbl(r2f, type, rec.p, data + 5, data + size) != nullptr) {
    // The extension word is written by the record framer, not the groups.
    const std::size_t ext = (type > 0xFFFF || static_cast<std::int32_t>(type) < 0) ? 2 : 0;
    ok = reformat_agrees(
        struct_size, rec.p, [&](const void* sp) { return voldbf_tblsize(r2f, type, sp) - ext; },
        [&](const void* sp, std::uint8_t* out) { return voldbf_fmt_tbl(r2f, type, sp, out); },
        [&](void* sp, const std::uint8_t* b, const std::uint8_t* l) {
          return voldbf_unfmt_tbl(r2f, type, sp, b, l);
        },
        [&](void* sp) { voldbf_free_tbl(r2f, sp); });
  }
  voldbf_free_tbl(r2f, rec.p);
  return ok;
}

bool codec_group(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return true;
  const rec2field* r2f = &rec2field_table[data[0] % n_rec2field_table];
  std::size_t ngroups = 0;
  while (ngroups < R2F_MAXGROUPS && r2f->r2f_tbls[ngroups].nflds != 0) ++ngroups;
  if (ngroups == 0) return true;
  const r2f_group& g = r2f->r2f_tbls[data[1] % ngroups];
  const std::size_t struct_size = rec2field_struct_size(r2f);
  decoded rec(struct_size);
  bool ok = true;
  if (dbf_unfmt_tbl(g.ftbl, g.nflds, rec.p, data + 2, data + size) != nullptr) {
    ok = reformat_agrees(
        struct_size, rec.p, [&](const void* sp) { return dbf_tblsize(g.ftbl, g.nflds, sp); },
        [&](const void* sp, std::uint8_t* out) { return dbf_fmt_tbl(g.ftbl, g.nflds, sp, out); },
        [&](void* sp, const std::uint8_t* b, const std::uint8_t* l) {
          return dbf_unfmt_tbl(g.ftbl, g.nflds, sp, b, l);
        },
        [&](void* sp) { dbf_free_tbl(g.ftbl, g.nflds, sp); });
  }
  dbf_free_tbl(g.ftbl, g.nflds, rec.p);
  return ok;
}

bool codec_priv_header(const std::uint8_t* data, std::size_t size) {
  std::uint8_t sector[PRIV_HEADER_SIZE] = {};
  std::memcpy(sector, data, std::min(size, sizeof sector));
  priv_header_info hdr;
  if (priv_unformat_header(&hdr, sector) != 0) return true;
  // The encoder always writes a body of version 2: only headers of major 2
  // and above read back.
  std::uint8_t first[PRIV_HEADER_SIZE] = {};
  priv_format_header(&hdr, first);
  priv_header_info again;
  const int res = priv_unformat_header(&again, first);
  if (hdr.phi_version_major < 2) return true;
  if (res != 0) return false;
  std::uint8_t second[PRIV_HEADER_SIZE] = {};
  priv_format_header(&again, second);
  return std::memcmp(first, second, sizeof first) == 0;
}

void no_free(dbase*) {}
constexpr dbase_ops header_ops = {nullptr, nullptr, nullptr, nullptr, nullptr, no_free, nullptr};

bool codec_db_header(const std::uint8_t* data, std::size_t size) {
  struct release {
    void operator()(dbase* db) const { ddb_free(db); }
  };
  std::unique_ptr<dbase, release> db(ddb_alloc(&header_ops));
  voldb_info vi{};
  if (voldbsup_unformat_header(db.get(), data, size, &vi) != 0) return true;
  std::vector<std::uint8_t> first(VOLDB_HDR_DECODE), second(VOLDB_HDR_DECODE);
  if (voldbsup_format_header(db.get(), first.data(), first.size(), &vi) != 0) return true;
  // The writer writes every group of its major version; the reader skips
  // the groups of major 4 that a minor below 11 (17) does not have: only
  // versions 3.x and 4.17 and above read back what was written.
  const bool whole = vi.vdbi_version_major == 3 || vi.vdbi_version_minor > 16;
  std::unique_ptr<dbase, release> db2(ddb_alloc(&header_ops));
  voldb_info again{};
  if (voldbsup_unformat_header(db2.get(), first.data(), first.size(), &again) != 0) return !whole;
  if (voldbsup_format_header(db2.get(), second.data(), second.size(), &again) != 0) return false;
  return !whole || first == second;
}

void expand_image(std::uint8_t flags, const std::uint8_t* p, const std::uint8_t* end,
                  std::vector<std::uint8_t>* image) {
  if ((flags & PIPE_SPARSE) == 0) {
    image->assign(p, p + std::min<std::size_t>(end - p, PIPELINE_MAX_IMAGE));
    return;
  }
  if (end - p < 5) return;
  const std::size_t len = std::min<std::size_t>(be32(p), PIPELINE_MAX_IMAGE);
  image->assign(len, p[4]);
  p += 5;
  while (end - p >= 6) {
    const std::size_t off = be32(p);
    std::size_t n = (std::size_t{p[4]} << 8) | p[5];
    p += 6;
    n = std::min<std::size_t>(n, end - p);
    if (off < len) std::memcpy(image->data() + off, p, std::min(n, len - off));
    p += n;
  }
}

}  // namespace

bool decode_pipeline_input(const std::uint8_t* data, std::size_t size, pipeline_input* in) {
  if (size == 0) return false;
  const std::uint8_t flags = data[0];
  in->sector_size = (flags & PIPE_4096) != 0 ? 4096 : 512;
  in->dump_logs = (flags & PIPE_LOGS) != 0;
  in->scan = (flags & PIPE_SCAN) != 0;
  in->check = (flags & PIPE_CHECK) != 0;
  in->json = (flags & PIPE_JSON) != 0;
  in->locate = (flags & PIPE_LOCATE) != 0;
  in->image.clear();
  expand_image(flags, data + 1, data + size, &in->image);
  if ((flags & PIPE_FIXSUMS) != 0) fix_checksums(in->image, static_cast<std::size_t>(in->sector_size));
  return true;
}

std::vector<std::uint8_t> encode_sparse_input(std::uint8_t flags, const std::vector<std::uint8_t>& image,
                                              std::uint8_t fill) {
  constexpr std::size_t merge_gap = 16, max_chunk = 0xFFFF;
  std::vector<std::uint8_t> out{static_cast<std::uint8_t>(flags | PIPE_SPARSE)};
  put_be(out, static_cast<std::uint32_t>(image.size()), 4);
  out.push_back(fill);
  std::size_t i = 0;
  while (i < image.size()) {
    if (image[i] == fill) {
      ++i;
      continue;
    }
    std::size_t j = i, last = i;  // last: the run's last byte other than fill
    while (j < image.size() && j - i < max_chunk && j - last <= merge_gap) {
      if (image[j] != fill) last = j;
      ++j;
    }
    put_be(out, static_cast<std::uint32_t>(i), 4);
    put_be(out, static_cast<std::uint32_t>(last + 1 - i), 2);
    out.insert(out.end(), image.begin() + i, image.begin() + last + 1);
    i = last + 1;
  }
  return out;
}

int run_pipeline(const std::uint8_t* data, std::size_t size) {
  static image_file file;
  pipeline_input in;
  if (!decode_pipeline_input(data, size, &in)) return -1;
  const std::string& path = file.put(in.image);
  std::string sector = std::to_string(in.sector_size);
  std::string arg0 = "privdiag";
  std::string arg2 = path;
  char* argv[] = {arg0.data(), sector.data(), arg2.data(), nullptr};
  session s(null_sink(), null_sink());
  const int status = privdiag_main(s, 3, argv);
  if (in.dump_logs) dump_logs(path, in.sector_size);
  if (in.scan) scan_image(path, in.sector_size);
  if (in.check) check_image(path, in.sector_size);
  if (in.json) dump_json(path, in.sector_size);
  if (in.locate) locate_image(path, in.sector_size);
  return status;
}

// The partition-table readers over the input as a disk (its first byte
// chooses the sector size): every partition they return lies in the disk.
bool codec_partition_tables(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return true;
  const unsigned ss = (data[0] & 1) != 0 ? 4096 : 512;
  ++data;
  --size;
  const partition_tables t = read_partition_tables(
      [&](std::uint64_t off, std::uint8_t* buf, std::size_t len) -> std::size_t {
        if (off >= size) return 0;
        const std::size_t n = std::min<std::uint64_t>(len, size - off);
        std::memcpy(buf, data + off, n);
        return n;
      },
      size, ss);
  for (const disk_partition& p : t.partitions) {
    if (p.sectors == 0 || p.first + p.sectors > size / ss) return false;
  }
  return t.usable_end <= size / ss;
}

bool run_codec(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return true;
  switch (data[0] % 5) {
    case 4: return codec_partition_tables(data + 1, size - 1);
    case 0: return codec_record(data + 1, size - 1);
    case 1: return codec_group(data + 1, size - 1);
    case 2: return codec_priv_header(data + 1, size - 1);
    default: return codec_db_header(data + 1, size - 1);
  }
}

int run_store(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t block = 512, run_blocks = 128;
  session s(null_sink(), null_sink());
  std::vector<std::uint8_t> buf(block * run_blocks);
  try {
    config_report rep(s);
    rep.configcopy_setup();
    const std::size_t nblocks = size / block;
    for (std::size_t cpoffset = 0;;) {
      const std::size_t n = std::min(run_blocks, nblocks - cpoffset);
      if (n == 0) {
        rep.configcopy_eof();
        return 0;
      }
      std::memcpy(buf.data(), data + cpoffset * block, n * block);
      if (rep.configcopy_more(buf.data(), cpoffset, n) != 1) return 0;
      cpoffset += n;
    }
  } catch (const fatal_exit& e) {
    return e.status;
  }
}

bool run_target(const std::string& target, const std::uint8_t* data, std::size_t size) {
  if (target == "pipeline") {
    const int status = run_pipeline(data, size);
    return status == -1 || status == 0 || status == 1;
  }
  if (target == "codec") return run_codec(data, size);
  if (target == "store") {
    const int status = run_store(data, size);
    return status == 0 || status == 1;
  }
  return false;
}

}  // namespace pd::fuzz
