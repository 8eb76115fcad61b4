// gen_image RECORDS OUTPUT [--sector-size 512|4096] [--blksize N] [--desc FILE]
//
// Writes a valid private-region image whose first configuration copy holds
// about RECORDS configuration records, built by the image builder from a
// generated description. The disk group is made of units of eight records:
// a volume with two plexes, each plex with two subdisks, and the disk the
// subdisks lie on. A few units carry the findings the report knows (a
// volume announcing a plex too many, a plex whose volume is missing, disks
// sharing a disk id) and one unit in 64 adds a disk-access record, so every
// list of the report has members. Names are numbered in an order unrelated
// to the records' order in the copy.
//
// --desc FILE also writes the description (FILE "-" is standard output).
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "privbuild/builder.h"

namespace {

constexpr std::size_t UNIT = 8;  // records per volume unit

struct options {
  std::size_t records = 0;
  const char* output = nullptr;
  std::size_t sector_size = 4096;
  std::size_t blksize = 128;
  const char* desc = nullptr;
};

void appendf(std::string* s, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void appendf(std::string* s, const char* fmt, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, fmt);
  const int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  s->append(buf, static_cast<std::size_t>(n));
}

// A multiplier coprime with n: unit i is named after (i * m) mod n.
std::size_t name_multiplier(std::size_t n) {
  std::size_t m = 7919;
  while (n > 1 && std::gcd(m, n) != 1) m += 2;
  return m;
}

// The records of one unit. `rid` counts record ids; `name` numbers the
// unit's names.
void append_unit(std::string* d, std::size_t unit, std::size_t name, unsigned long* rid,
                 std::size_t* nrec) {
  const unsigned long vol = (*rid)++;
  const unsigned long dm = (*rid)++;
  const bool extra_plex = unit % 997 == 5;    // announces a plex that is not there
  const bool orphan_plex = unit % 1009 == 7;  // second plex names a missing volume
  const bool dup_id = unit % 1013 == 11;      // shares its disk id with the previous unit
  const unsigned long len = 2048 * (1 + unit % 64);
  appendf(d, "  volume name=vol%07zu rid=0.%lu len=%lu pl_num=%d state=ACTIVE read_pol=2\n",
          name, vol, 2 * len, extra_plex ? 3 : 2);
  appendf(d, "  disk name=dsk%07zu rid=0.%lu diskid=%08zx-1234-0002-4041-424344454647\n", name,
          dm, dup_id ? name - 1 : name);
  for (int p = 1; p <= 2; ++p) {
    const unsigned long pl = (*rid)++;
    const unsigned long owner = orphan_plex && p == 2 ? 7 : vol;
    appendf(d, "  plex name=vol%07zu-%02d rid=0.%lu vol_rid=0.%lu sd_num=2 layout=1\n", name, p,
            pl, owner);
    for (int s = 1; s <= 2; ++s) {
      const unsigned long sd = (*rid)++;
      appendf(d,
              "  subdisk name=dsk%07zu-%02d rid=0.%lu plex_rid=0.%lu dm_rid=0.%lu len=%lu "
              "dm_offset=%lu\n",
              name, 2 * (p - 1) + s, sd, pl, dm, len, len * (2 * (p - 1) + s - 1));
    }
  }
  *nrec += UNIT;
  if (unit % 64 == 3) {
    appendf(d, "  diskaccess name=c%zut0d0 rid=0.%lu\n", name, (*rid)++);
    *nrec += 1;
  }
}

std::string describe(const options& o, std::size_t copy_blocks, std::size_t* nrec) {
  const std::size_t units = o.records / UNIT > 0 ? o.records / UNIT : 1;
  const std::size_t copy_sectors = (copy_blocks * o.blksize + o.sector_size - 1) / o.sector_size;
  const std::size_t first = o.sector_size == 4096 ? 8 : 64;  // room for the TOC blocks
  const std::size_t tail = o.sector_size == 4096 ? 32 : 256;  // the alternate header lies here
  std::string d;
  d.reserve(units * UNIT * 110 + 4096);
  appendf(&d, "disk sector-size=%zu sectors=%zu\n", o.sector_size, first + copy_sectors + tail);
  appendf(&d, "header diskid=bench-disk dgname=benchdg seqno=0.17\n");
  appendf(&d, "region config copy=1 offset=%zu len=%zu\n", first, copy_sectors);
  appendf(&d, "copy-content config copy=1 content=config begin\n");
  appendf(&d, "  database version=4.17 dgname=benchdg dgid=1700000000.1.bench config-tid=0.900 "
              "blksize=%zu unused=vblk\n", o.blksize);
  appendf(&d, "  group name=benchdg rid=0.1000 version=171\n");
  *nrec = 1;
  unsigned long rid = 1001;
  const std::size_t m = name_multiplier(units);
  for (std::size_t u = 0; u < units; ++u) append_unit(&d, u, (u * m) % units, &rid, nrec);
  appendf(&d, "end\n");
  return d;
}

bool parse_args(int argc, char** argv, options* o) {
  std::vector<const char*> pos;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if ((a == "--sector-size" || a == "--blksize" || a == "--desc") && i + 1 < argc) {
      const char* v = argv[++i];
      if (a == "--sector-size") o->sector_size = std::strtoul(v, nullptr, 10);
      if (a == "--blksize") o->blksize = std::strtoul(v, nullptr, 10);
      if (a == "--desc") o->desc = v;
    } else {
      pos.push_back(argv[i]);
    }
  }
  if (pos.size() != 2 || (o->sector_size != 512 && o->sector_size != 4096)) return false;
  o->records = std::strtoul(pos[0], nullptr, 10);
  o->output = pos[1];
  return o->records > 0 && o->blksize >= 64;
}

bool write_file(const char* path, const void* data, std::size_t n) {
  const bool to_stdout = std::strcmp(path, "-") == 0;
  std::FILE* f = to_stdout ? stdout : std::fopen(path, "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(data, 1, n, f) == n;
  return (to_stdout ? std::fflush(f) == 0 : std::fclose(f) == 0) && ok;
}

}  // namespace

int main(int argc, char** argv) {
  options o;
  if (!parse_args(argc, argv, &o)) {
    std::fprintf(stderr, "usage: gen_image RECORDS OUTPUT [--sector-size 512|4096] "
                         "[--blksize N] [--desc FILE]\n");
    return 2;
  }
  // Every record of the units fits one block of 128 bytes or more; leave a
  // little room for the header and the unused tail.
  std::size_t nrec = 0;
  const std::size_t copy_blocks = o.records + o.records / 8 + 64;
  const std::string desc = describe(o, copy_blocks, &nrec);
  if (o.desc != nullptr && !write_file(o.desc, desc.data(), desc.size())) {
    std::fprintf(stderr, "gen_image: cannot write %s\n", o.desc);
    return 1;
  }
  std::string error;
  const std::vector<std::uint8_t> img = pd::build_image(desc, &error);
  if (!error.empty()) {
    std::fprintf(stderr, "gen_image: %s\n", error.c_str());
    return 1;
  }
  if (!write_file(o.output, img.data(), img.size())) {
    std::fprintf(stderr, "gen_image: cannot write %s\n", o.output);
    return 1;
  }
  std::fprintf(stderr, "gen_image: %zu records, %zu bytes\n", nrec, img.size());
  return 0;
}
