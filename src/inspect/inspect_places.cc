// Naming raw positions of a joined image after the copies that hold them.
#include "inspect/inspect_places.h"

#include <cstdio>

#include "codec/text_forms.h"
#include "config_db/record_layouts.h"
#include "io/messages.h"

namespace pd {

namespace {

constexpr std::uint64_t MAX_DB_BLKSIZE = 8192;

// The block size the database header at `byte` states, or 512.
std::uint64_t config_unit(const inspect_image& img, std::uint64_t byte) {
  std::uint8_t hdr[VOLDB_PREFIX_SIZE];
  if (img.read_at(byte, hdr, sizeof hdr) != sizeof hdr) return 512;
  voldb_prefix_info h;
  if (voldb_prefix_decode(hdr, hdr + sizeof hdr, &h) == nullptr || !h.vdp_magic_ok) return 512;
  std::uint64_t blksize = h.vdp_blksize;
  return blksize == 0 || blksize > MAX_DB_BLKSIZE ? 512 : blksize;
}

void add_copies(const inspect_image& img, copy_kind kind, const copy_info* list,
                std::uint64_t chunk, std::vector<copy_part_place>& out) {
  for (const copy_info* cp = list; cp != nullptr; cp = cp->ci_next) {
    std::uint64_t at = 0;
    std::uint64_t unit = 512;
    for (int i = 0; i < cp->ci_npart; i++) {
      const disk_region& r = cp->ci_parts[i]->tei_region;
      copy_part_place p{kind,
                        cp->ci_copy,
                        chunk * static_cast<std::uint64_t>(r.dkr_offset),
                        chunk * static_cast<std::uint64_t>(r.dkr_len),
                        at,
                        512};
      if (i == 0 && kind == copy_kind::config) unit = config_unit(img, p.start);
      p.unit = unit;
      out.push_back(p);
      at += p.len;
    }
  }
}

int count_copies(const copy_info* list) {
  int n = 0;
  for (; list != nullptr; list = list->ci_next) n++;
  return n;
}

}  // namespace

copy_places copy_places::locate_quietly(inspect_image& img) {
  copy_places pl;
  pl.sector_size_ = static_cast<std::uint64_t>(img.sector_size());
  char line[200];
  if (img.attrs().dka_alternate_header < 0) {
    pl.summary_ = "located: nothing, the image is too short to hold both header positions";
    return pl;
  }
  int res = img.scan();
  if (res != 0) {
    std::snprintf(line, sizeof line, "located: nothing, scan failed: error %d: %s", res,
                  vol_strerror(res));
    pl.summary_ = line;
    return pl;
  }
  const priv_header_info* h = img.priv()->pri_header;
  pl.header_seqno_known = true;
  pl.header_seqno = h->phi_update_seqno;
  char seq[24];
  volseqnotostr(h->phi_update_seqno, seq);
  const char* which = (img.priv()->pri_flags & PRI_USED_ALT) != 0 ? "alternate" : "primary";
  res = img.join();
  if (res != 0) {
    std::snprintf(line, sizeof line,
                  "located: %s header, seqno %s; table of contents not joined: error %d: %s", which,
                  seq, res, vol_strerror(res));
    pl.summary_ = line;
    return pl;
  }
  pl.joined_ = true;
  std::uint64_t chunk = h->phi_chunk_size;
  add_copies(img, copy_kind::config, img.priv()->pri_config_copies, chunk, pl.parts_);
  add_copies(img, copy_kind::log, img.priv()->pri_log_copies, chunk, pl.parts_);
  std::snprintf(
      line, sizeof line, "located: %s header, seqno %s; %d configuration and %d log copies", which,
      seq, count_copies(img.priv()->pri_config_copies), count_copies(img.priv()->pri_log_copies));
  pl.summary_ = line;
  return pl;
}

const copy_part_place* copy_places::find(std::uint64_t byte) const {
  for (const copy_part_place& p : parts_) {
    if (byte >= p.start && byte - p.start < p.len) return &p;
  }
  return nullptr;
}

std::optional<copy_position> copy_places::position(std::uint64_t sector) const {
  const copy_part_place* p = joined_ ? find(sector * sector_size_) : nullptr;
  if (p == nullptr) return std::nullopt;
  std::uint64_t at = p->copy_offset + sector * sector_size_ - p->start;
  return copy_position{p->kind, p->copy, at / p->unit, at % p->unit};
}

std::string copy_places::describe(std::uint64_t sector) const {
  if (!joined_) return "";
  std::optional<copy_position> at = position(sector);
  if (!at) return "; outside every copy";
  std::string out = std::string("; ") + (at->kind == copy_kind::config ? "config" : "log") +
                    " copy " + std::to_string(at->copy) + ", block " + std::to_string(at->block);
  if (at->rem != 0) out += " + " + std::to_string(at->rem) + " bytes";
  return out;
}

std::string copy_places::describe(std::uint64_t sector, copy_kind kind, std::uint32_t blkno) const {
  std::string out = describe(sector);
  std::optional<copy_position> at = position(sector);
  if (at && at->kind == kind && at->rem == 0 && at->block != blkno) {
    out += ": block number differs";
  }
  return out;
}

}  // namespace pd
