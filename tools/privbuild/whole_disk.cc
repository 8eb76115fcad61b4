// Laying a region out in a whole disk (see whole_disk.h).
#include "privbuild/whole_disk.h"

#include <algorithm>
#include <cstring>

#include "private_region/partition_table.h"
#include "privbuild/builder_internal.h"

namespace pd {

namespace {

constexpr const char* region_gpt_type = "a3c1e2f0-5b7d-4e19-9c0a-6d2f8b417e55";
constexpr const char* data_gpt_type = "0fc63daf-8483-4772-8e79-3d69d8477de4";
constexpr const char* disk_guid = "6e1d7c2a-90b3-4f58-a1c4-2b9e0d3f7a61";
constexpr std::uint8_t region_mbr_type = 0xda;
constexpr std::uint32_t gpt_entries = 128;

struct part {
  std::uint64_t start = 0, len = 0;
  std::string type;  // "0x83" or a GUID; empty: the region's
};

void put32(std::uint8_t* p, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}
void put64(std::uint8_t* p, std::uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

bool guid_bytes(const std::string& text, std::uint8_t* out) {
  std::vector<unsigned char> b;
  if (!parse_hex_bytes(text, &b) || b.size() != 16) return false;
  static constexpr int order[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
  for (int i = 0; i < 16; ++i) out[i] = b[static_cast<std::size_t>(order[i])];
  return true;
}

bool number(attr_reader& a, const char* name, std::uint64_t* v, bool required, int line,
            std::string* error) {
  const std::string* t = a.get(name);
  if (t == nullptr) {
    if (required) *error = at_line(line, std::string("missing ") + name + "=");
    return !required;
  }
  unsigned long long n = 0;
  if (!parse_uint(*t, &n)) {
    *error = at_line(line, std::string(name) + "=" + *t + " is not a number");
    return false;
  }
  *v = n;
  return true;
}

// The GPT header at `lba`, its entries at `entries_lba`.
void write_gpt_header(std::vector<std::uint8_t>& d, std::size_t ss, std::uint64_t lba,
                      std::uint64_t alt, std::uint64_t first_usable, std::uint64_t last_usable,
                      std::uint64_t entries_lba, std::uint32_t count, std::uint32_t entries_crc) {
  std::uint8_t* h = &d[lba * ss];
  std::memcpy(h, "EFI PART", 8);
  put32(h + 8, 0x00010000);
  put32(h + 12, 92);
  put64(h + 24, lba);
  put64(h + 32, alt);
  put64(h + 40, first_usable);
  put64(h + 48, last_usable);
  guid_bytes(disk_guid, h + 56);
  put64(h + 72, entries_lba);
  put32(h + 80, count);
  put32(h + 84, 128);
  put32(h + 88, entries_crc);
  put32(h + 16, 0);
  put32(h + 16, gpt_crc32(h, 92));
}

}  // namespace

bool is_whole_disk_statement(const desc_statement& st) {
  return st.keyword == "whole-disk" || st.keyword == "partition";
}

bool wrap_whole_disk(const std::vector<desc_statement>& statements,
                     const std::vector<std::uint8_t>& region, std::size_t ss,
                     std::vector<std::uint8_t>* disk, std::string* error) {
  const desc_statement* wd = nullptr;
  std::vector<part> parts;
  for (const desc_statement& st : statements) {
    attr_reader a(st);
    if (st.keyword == "whole-disk") {
      if (wd != nullptr) {
        *error = at_line(st.line, "only one 'whole-disk' statement");
        return false;
      }
      wd = &st;
      continue;
    }
    part p;
    if (!number(a, "start", &p.start, true, st.line, error) ||
        !number(a, "len", &p.len, true, st.line, error))
      return false;
    const std::string* type = a.get("type");
    p.type = type != nullptr ? *type : "";
    if (p.type.empty()) p.type = "data";
    if (!a.check_all_used(error)) return false;
    parts.push_back(p);
  }
  if (wd == nullptr) {
    *error = "'partition' needs a 'whole-disk' statement";
    return false;
  }
  attr_reader a(*wd);
  const int line = wd->line;
  const std::string* table = a.get("table");
  const std::string kind = table != nullptr ? *table : "none";
  if (kind != "none" && kind != "mbr" && kind != "gpt") {
    *error = at_line(line, "table=" + kind + " is not none, mbr or gpt");
    return false;
  }
  const std::string* where = a.get("region");
  const std::string place = where != nullptr ? *where : "end";
  if (place != "end" && place != "partition") {
    *error = at_line(line, "region=" + place + " is not end or partition");
    return false;
  }
  std::uint64_t sectors = 0, region_start = 1048576 / ss, entries = gpt_entries;
  if (!number(a, "sectors", &sectors, true, line, error) ||
      !number(a, "region-start", &region_start, false, line, error) ||
      !number(a, "gpt-entries", &entries, false, line, error))
    return false;
  const std::string* damage_attr = a.get("damage");
  const std::string damage = damage_attr != nullptr ? *damage_attr : "";
  if (!a.check_all_used(error)) return false;
  if (!damage.empty() && damage != "primary-crc" && damage != "backup-crc") {
    *error = at_line(line, "damage=" + damage + " is not primary-crc or backup-crc");
    return false;
  }
  const std::uint64_t rlen = region.size() / ss;
  const std::uint64_t array_sectors = gpt_entries * 128 / ss;
  if (sectors < 8 + 2 * array_sectors || sectors > (std::uint64_t{1} << 34) / ss) {
    *error = at_line(line, "sectors=" + std::to_string(sectors) + " is not a disk of 8 + " +
                               std::to_string(2 * array_sectors) + " sectors to 16 GiB");
    return false;
  }
  const std::uint64_t usable_end = kind == "gpt" ? sectors - 1 - array_sectors : sectors;
  const std::uint64_t first = place == "end" ? usable_end - std::min(rlen, usable_end) : region_start;
  if (rlen > usable_end || first + rlen > sectors) {
    *error = at_line(line, "the region's " + std::to_string(rlen) +
                               " sectors do not fit in the disk there");
    return false;
  }
  if (place == "partition") parts.push_back({first, rlen, ""});
  disk->assign(sectors * ss, 0);
  std::memcpy(disk->data() + first * ss, region.data(), rlen * ss);

  if (kind == "mbr") {
    if (parts.size() > 4) {
      *error = at_line(line, "an MBR holds 4 partitions");
      return false;
    }
    std::uint8_t* m = disk->data();
    for (std::size_t i = 0; i < parts.size(); ++i) {
      std::uint8_t* e = m + 446 + 16 * i;
      unsigned long long t = region_mbr_type;
      if (!parts[i].type.empty() && parts[i].type != "data" && !parse_uint(parts[i].type, &t)) {
        *error = at_line(line, "partition type " + parts[i].type + " is not a number");
        return false;
      }
      e[4] = static_cast<std::uint8_t>(parts[i].type == "data" ? 0x83 : t);
      put32(e + 8, static_cast<std::uint32_t>(parts[i].start));
      put32(e + 12, static_cast<std::uint32_t>(parts[i].len));
    }
  } else if (kind == "gpt") {
    std::uint8_t* m = disk->data();
    m[446 + 4] = 0xEE;
    put32(m + 446 + 8, 1);
    put32(m + 446 + 12, static_cast<std::uint32_t>(std::min<std::uint64_t>(sectors - 1, 0xFFFFFFFF)));
    if (parts.size() > gpt_entries) {
      *error = at_line(line, "a GPT here holds 128 partitions");
      return false;
    }
    std::vector<std::uint8_t> arr(gpt_entries * 128, 0);
    for (std::size_t i = 0; i < parts.size(); ++i) {
      std::uint8_t* e = &arr[i * 128];
      const std::string type = parts[i].type.empty() ? region_gpt_type
                               : parts[i].type == "data" ? data_gpt_type
                                                         : parts[i].type;
      if (!guid_bytes(type, e)) {
        *error = at_line(line, "partition type " + type + " is not a GUID");
        return false;
      }
      e[16] = static_cast<std::uint8_t>(i + 1);  // a unique GUID of its own
      put64(e + 32, parts[i].start);
      put64(e + 40, parts[i].start + parts[i].len - 1);
    }
    const std::uint32_t crc = gpt_crc32(arr.data(), arr.size());
    std::memcpy(disk->data() + 2 * ss, arr.data(), arr.size());
    std::memcpy(disk->data() + (sectors - 1 - array_sectors) * ss, arr.data(), arr.size());
    const auto count = static_cast<std::uint32_t>(entries);
    write_gpt_header(*disk, ss, 1, sectors - 1, 2 + array_sectors, usable_end - 1, 2, count, crc);
    write_gpt_header(*disk, ss, sectors - 1, 1, 2 + array_sectors, usable_end - 1,
                     sectors - 1 - array_sectors, count, crc);
    if (damage == "primary-crc") (*disk)[1 * ss + 16] ^= 0xFF;
    if (damage == "backup-crc") (*disk)[(sectors - 1) * ss + 16] ^= 0xFF;
  }
  if (kind != "none") {
    (*disk)[510] = 0x55;
    (*disk)[511] = 0xAA;
  }
  return true;
}

}  // namespace pd
