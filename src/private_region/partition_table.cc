// Bounded MBR and GPT readers (see partition_table.h).
#include "private_region/partition_table.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

namespace pd {

namespace {

std::array<std::uint32_t, 256> make_crc_table() {
  std::array<std::uint32_t, 256> t{};
  for (std::uint32_t i = 0; i < 256; ++i) {
    std::uint32_t c = i;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
    t[i] = c;
  }
  return t;
}

std::uint32_t le32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}
std::uint64_t le64(const std::uint8_t* p) {
  return static_cast<std::uint64_t>(le32(p)) | static_cast<std::uint64_t>(le32(p + 4)) << 32;
}

std::string hex32(std::uint32_t v) {
  char b[16];
  std::snprintf(b, sizeof b, "0x%08x", v);
  return b;
}
std::string num(std::uint64_t v) { return std::to_string(v); }

// A decoded GPT header that passed every check.
struct gpt_header {
  std::uint64_t my_lba = 0, alternate_lba = 0, first_usable = 0, last_usable = 0;
  std::uint64_t entries_lba = 0;
  std::uint32_t num_entries = 0, entry_size = 0, entries_crc = 0;
  std::string disk_guid;
  std::vector<std::uint8_t> entries;
};

class reader {
 public:
  reader(const disk_reader& rd, std::uint64_t bytes, unsigned ss)
      : rd_(rd), sectors_(bytes / ss), ss_(ss) {}
  // Sector `lba` whole, or false.
  bool sector(std::uint64_t lba, std::vector<std::uint8_t>* buf) const {
    if (lba >= sectors_) return false;
    buf->assign(ss_, 0);
    return rd_(lba * ss_, buf->data(), ss_) == ss_;
  }
  bool bytes(std::uint64_t lba, std::size_t len, std::vector<std::uint8_t>* buf) const {
    buf->assign(len, 0);
    return lba < sectors_ && rd_(lba * ss_, buf->data(), len) == len;
  }
  std::uint64_t sectors() const { return sectors_; }
  unsigned ss() const { return ss_; }

 private:
  const disk_reader& rd_;
  std::uint64_t sectors_;
  unsigned ss_;
};

// The checks of one GPT header, in order; empty when it is good, else what
// failed.
std::string check_gpt(const reader& r, std::uint64_t lba, gpt_header* h) {
  std::vector<std::uint8_t> s;
  if (!r.sector(lba, &s)) return "sector " + num(lba) + " lies past the end of the image";
  if (std::memcmp(s.data(), "EFI PART", 8) != 0) return "no \"EFI PART\" signature";
  const std::uint32_t hsize = le32(&s[12]);
  if (hsize < 92 || hsize > r.ss())
    return "header size " + num(hsize) + " is not in 92.." + num(r.ss());
  const std::uint32_t stored = le32(&s[16]);
  std::memset(&s[16], 0, 4);
  const std::uint32_t computed = gpt_crc32(s.data(), hsize);
  if (stored != computed)
    return "header CRC " + hex32(stored) + " stored, " + hex32(computed) + " computed";
  h->my_lba = le64(&s[24]);
  if (h->my_lba != lba) return "names itself at sector " + num(h->my_lba) + ", read at " + num(lba);
  h->alternate_lba = le64(&s[32]);
  h->first_usable = le64(&s[40]);
  h->last_usable = le64(&s[48]);
  if (h->first_usable > h->last_usable || h->last_usable >= r.sectors())
    return "usable sectors " + num(h->first_usable) + ".." + num(h->last_usable) +
           " are not ordered inside the image's " + num(r.sectors()) + " sectors";
  h->disk_guid = gpt_guid_text(&s[56]);
  h->entries_lba = le64(&s[72]);
  h->num_entries = le32(&s[80]);
  h->entry_size = le32(&s[84]);
  h->entries_crc = le32(&s[88]);
  if (h->entry_size != 128) return "entry size " + num(h->entry_size) + " is not 128";
  const std::uint64_t left =
      h->entries_lba < r.sectors() ? (r.sectors() - h->entries_lba) * r.ss() : 0;
  if (h->num_entries == 0 || h->num_entries > gpt_max_entries ||
      static_cast<std::uint64_t>(h->num_entries) * 128 > left)
    return num(h->num_entries) + " entries of 128 bytes at sector " + num(h->entries_lba) +
           " do not fit (" + num(left) + " bytes left in the image, at most " +
           num(gpt_max_entries) + " entries read)";
  if (!r.bytes(h->entries_lba, h->num_entries * 128u, &h->entries))
    return "entries at sector " + num(h->entries_lba) + " cannot be read";
  const std::uint32_t acrc = gpt_crc32(h->entries.data(), h->entries.size());
  if (acrc != h->entries_crc)
    return "entries CRC " + hex32(h->entries_crc) + " stored, " + hex32(acrc) + " computed";
  return {};
}

std::string gpt_differences(const gpt_header& a, const gpt_header& b) {
  std::string d;
  auto add = [&](bool differ, const char* name) {
    if (differ) d += (d.empty() ? "" : ", ") + std::string(name);
  };
  add(a.alternate_lba != b.my_lba || b.alternate_lba != a.my_lba, "positions");
  add(a.first_usable != b.first_usable || a.last_usable != b.last_usable, "usable sectors");
  add(a.disk_guid != b.disk_guid, "disk GUID");
  add(a.num_entries != b.num_entries, "entry count");
  add(a.entries != b.entries, "entries");
  return d;
}

bool read_gpt(const reader& r, partition_tables* t) {
  gpt_header prim, back;
  const std::string pwhy = check_gpt(r, 1, &prim);
  std::uint64_t backup_lba = r.sectors() - 1;
  if (pwhy.empty() && prim.alternate_lba < r.sectors()) backup_lba = prim.alternate_lba;
  std::string bwhy = check_gpt(r, backup_lba, &back);
  if (pwhy.empty() && !bwhy.empty() && prim.alternate_lba >= r.sectors())
    bwhy = "sector " + num(prim.alternate_lba) + ", where the primary places it, lies past the end of the image";
  if (pwhy.empty()) {
    t->notes.push_back("GPT primary header at sector 1: header and entries CRC good");
  } else {
    t->problems.push_back("GPT primary header at sector 1: " + pwhy +
                          (bwhy.empty() ? "; the backup is used" : ""));
  }
  if (bwhy.empty()) {
    t->notes.push_back("GPT backup header at sector " + num(backup_lba) +
                       ": header and entries CRC good");
  } else {
    t->problems.push_back("GPT backup header at sector " + num(backup_lba) + ": " + bwhy);
  }
  const gpt_header* use = nullptr;
  if (pwhy.empty()) {
    use = &prim;
    if (bwhy.empty()) {
      const std::string d = gpt_differences(prim, back);
      if (!d.empty()) t->problems.push_back("GPT headers differ in " + d + "; the primary is used");
    }
  } else if (bwhy.empty()) {
    use = &back;
  }
  if (use == nullptr) return false;
  t->kind = table_kind::gpt;
  t->usable_first = use->first_usable;
  t->usable_end = use->last_usable + 1;
  for (std::uint32_t i = 0; i < use->num_entries; ++i) {
    const std::uint8_t* e = &use->entries[static_cast<std::size_t>(i) * 128];
    static constexpr std::uint8_t zero[16] = {};
    if (std::memcmp(e, zero, 16) == 0) continue;  // a free entry
    const std::uint64_t first = le64(e + 32), last = le64(e + 40);
    if (first > last || first < use->first_usable || last > use->last_usable) {
      t->problems.push_back("GPT entry " + num(i + 1) + ": sectors " + num(first) + ".." +
                            num(last) + " are not inside the usable sectors " +
                            num(use->first_usable) + ".." + num(use->last_usable) +
                            "; skipped");
      continue;
    }
    t->partitions.push_back({static_cast<int>(i + 1), first, last - first + 1, gpt_guid_text(e)});
  }
  return true;
}

bool is_extended(std::uint8_t type) { return type == 0x05 || type == 0x0f || type == 0x85; }

// One MBR entry as a partition of `base` + its start, checked against the
// disk; false (with a problem) when it does not fit.
bool mbr_entry(const reader& r, const std::uint8_t* e, std::uint64_t base, int number,
               partition_tables* t, disk_partition* p) {
  const std::uint64_t first = base + le32(e + 8), count = le32(e + 12);
  char type[8];
  std::snprintf(type, sizeof type, "0x%02x", e[4]);
  *p = {number, first, count, type};
  if (count == 0 || first == 0 || first + count > r.sectors()) {
    t->problems.push_back("MBR entry " + num(number) + ": sectors " + num(first) + ".." +
                          num(first + count - (count != 0)) + (count == 0 ? " (empty)" : "") +
                          " do not lie inside the image's " + num(r.sectors()) +
                          " sectors; skipped");
    return false;
  }
  return true;
}

void read_extended(const reader& r, const disk_partition& ext, partition_tables* t) {
  std::uint64_t ebr = ext.first;
  int number = 5;
  std::vector<std::uint8_t> s;
  for (int n = 0;; ++n) {
    if (n == mbr_max_logical) {
      t->problems.push_back("MBR extended partition: more than " + num(mbr_max_logical) +
                            " links; the chain is cut there");
      return;
    }
    if (!r.sector(ebr, &s) || s[510] != 0x55 || s[511] != 0xAA) {
      t->problems.push_back("MBR extended partition: no boot record at sector " + num(ebr) +
                            "; the chain ends there");
      return;
    }
    disk_partition p;
    if (s[446 + 4] != 0 && mbr_entry(r, &s[446], ebr, number, t, &p)) t->partitions.push_back(p);
    if (s[446 + 4] != 0) ++number;
    const std::uint8_t* link = &s[462];
    if (!is_extended(link[4])) return;
    const std::uint64_t next = ext.first + le32(link + 8);
    if (next <= ebr || next >= ext.first + ext.sectors) {
      t->problems.push_back("MBR extended partition: the link at sector " + num(ebr) +
                            " goes to sector " + num(next) +
                            ", outside the partition or backwards; the chain ends there");
      return;
    }
    ebr = next;
  }
}

// false when sector 0 is no MBR; true with the MBR's partitions, or with
// the GPT's when it is protective.
bool read_mbr(const reader& r, partition_tables* t) {
  std::vector<std::uint8_t> s;
  if (!r.sector(0, &s) || s[510] != 0x55 || s[511] != 0xAA) return false;
  bool protective = false, used = false;
  for (int i = 0; i < 4; ++i) {
    const std::uint8_t* e = &s[446 + 16 * i];
    if (e[0] != 0 && e[0] != 0x80) {
      t->problems.push_back("sector 0 ends in 0x55AA but MBR entry " + num(i + 1) +
                            " has boot flag " + hex32(e[0]).replace(2, 6, "") +
                            " (not 0x00 or 0x80): not read as a partition table");
      return false;
    }
    if (e[4] == 0xEE) protective = true;
    if (e[4] != 0) used = true;
  }
  if (!used) return false;
  if (protective) {
    t->notes.push_back("MBR at sector 0: protective (type 0xee), the disk has a GPT");
    if (read_gpt(r, t)) return true;
    t->problems.push_back("no usable GPT: the disk is searched as if it had no table");
    return false;
  }
  t->kind = table_kind::mbr;
  t->usable_first = 1;
  t->usable_end = r.sectors();
  t->notes.push_back("MBR at sector 0");
  for (int i = 0; i < 4; ++i) {
    const std::uint8_t* e = &s[446 + 16 * i];
    if (e[4] == 0) continue;
    disk_partition p;
    if (!mbr_entry(r, e, 0, i + 1, t, &p)) continue;
    if (is_extended(e[4])) {
      read_extended(r, p, t);
    } else {
      t->partitions.push_back(p);
    }
  }
  return true;
}

}  // namespace

std::uint32_t gpt_crc32(const std::uint8_t* data, std::size_t len, std::uint32_t crc) {
  static const std::array<std::uint32_t, 256> table = make_crc_table();
  crc = ~crc;
  for (std::size_t i = 0; i < len; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  return ~crc;
}

const char* table_kind_name(table_kind k) {
  switch (k) {
    case table_kind::mbr: return "MBR";
    case table_kind::gpt: return "GPT";
    case table_kind::none: break;
  }
  return "none";
}

std::string gpt_guid_text(const std::uint8_t* g) {
  char b[40];
  std::snprintf(b, sizeof b, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", le32(g),
                static_cast<unsigned>(g[4] | g[5] << 8), static_cast<unsigned>(g[6] | g[7] << 8),
                g[8], g[9], g[10], g[11], g[12], g[13], g[14], g[15]);
  return b;
}

partition_tables read_partition_tables(const disk_reader& rd, std::uint64_t disk_bytes,
                                       unsigned sector_size) {
  partition_tables t;
  const reader r(rd, disk_bytes, sector_size);
  t.usable_end = r.sectors();
  if (r.sectors() < 2 || !read_mbr(r, &t)) {
    // A GPT without its protective MBR is still read.
    if (r.sectors() >= 3 && t.notes.empty()) {
      partition_tables g;
      g.usable_end = r.sectors();
      std::vector<std::uint8_t> s;
      if (r.sector(1, &s) && std::memcmp(s.data(), "EFI PART", 8) == 0) {
        g.notes = t.notes;
        g.problems = t.problems;
        g.problems.push_back("sector 1 holds a GPT header but sector 0 no protective MBR");
        if (read_gpt(r, &g)) return g;
        t.problems = g.problems;
      }
    }
    t.kind = table_kind::none;
    t.partitions.clear();
    t.usable_first = 0;
    t.usable_end = r.sectors();
    return t;
  }
  std::sort(t.partitions.begin(), t.partitions.end(),
            [](const disk_partition& a, const disk_partition& b) {
              return a.first != b.first ? a.first < b.first : a.number < b.number;
            });
  for (std::size_t i = 1; i < t.partitions.size(); ++i) {
    const disk_partition& a = t.partitions[i - 1];
    const disk_partition& b = t.partitions[i];
    if (a.first + a.sectors > b.first)
      t.problems.push_back(std::string(table_kind_name(t.kind)) + " partitions " + num(a.number) +
                           " and " + num(b.number) + " overlap (sectors " + num(b.first) + ".." +
                           num(std::min(a.first + a.sectors, b.first + b.sectors) - 1) + ")");
  }
  return t;
}

}  // namespace pd
