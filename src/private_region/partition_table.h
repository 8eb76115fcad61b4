// The partition tables a whole-disk image may start with, read with bounds:
// an MBR (its four entries and the extended chain of logical partitions)
// and a GPT (the primary header at sector 1, the backup where the primary
// says or at the last sector, both headers' and both entry arrays' CRC32
// checked). Every count and position is checked against the bytes the image
// holds before anything is read or allocated, and every problem becomes one
// line of `problems`, never a crash.
//
// Sectors are the caller's sector size (512 or 4096), the GPT's LBAs and
// the MBR's alike.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace pd {

// Up to `len` bytes of the disk from byte `offset`; returns the count read.
using disk_reader =
    std::function<std::size_t(std::uint64_t offset, std::uint8_t* buf, std::size_t len)>;

// The CRC32 of GPT headers and entry arrays (reflected, polynomial
// 0xEDB88320, seeded and finished with ~0). `crc` continues a previous
// result.
std::uint32_t gpt_crc32(const std::uint8_t* data, std::size_t len, std::uint32_t crc = 0);

struct disk_partition {
  int number = 0;             // MBR: 1-4, logical from 5; GPT: entry index + 1
  std::uint64_t first = 0;    // first sector
  std::uint64_t sectors = 0;  // length in sectors
  std::string type;           // MBR "0x83"; GPT the type GUID as text
};

enum class table_kind { none, mbr, gpt };
const char* table_kind_name(table_kind k);

struct partition_tables {
  table_kind kind = table_kind::none;
  // Used entries that lie inside the disk, by first sector.
  std::vector<disk_partition> partitions;
  // The sectors partitions may use (GPT: first to last usable; otherwise
  // from sector 1, or 0 without a table, to the last sector).
  std::uint64_t usable_first = 0;
  std::uint64_t usable_end = 0;  // one past the last usable sector
  std::vector<std::string> notes;     // what was read and checked, good
  std::vector<std::string> problems;  // what was wrong and what was done
};

// Reads the tables of a disk of `disk_bytes` bytes. Never throws; a disk
// without a table gives kind none and the whole disk usable.
partition_tables read_partition_tables(const disk_reader& rd, std::uint64_t disk_bytes,
                                       unsigned sector_size);

// The GPT's mixed-endian 16-byte GUID as text (lower-case, 8-4-4-4-12).
std::string gpt_guid_text(const std::uint8_t* g);

// Limits of the readers.
inline constexpr std::uint32_t gpt_max_entries = 65536;
inline constexpr int mbr_max_logical = 100;

}  // namespace pd
