// The bounded decoders of the stored structures' fixed parts. What each
// decodes is shown by the paths that use it (sector checks, extraction, the
// log dump, the scan); here, the bound alone.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "config_db/block_store.h"
#include "config_db/record_layouts.h"
#include "private_region/log_block.h"
#include "private_region/toc.h"

namespace pd {
namespace {

template <class Info, const std::uint8_t* (*Decode)(const std::uint8_t*, const std::uint8_t*, Info*)>
const std::uint8_t* decode(const std::uint8_t* p, const std::uint8_t* lim) {
  Info info{};
  return Decode(p, lim, &info);
}

// A fixed part is decoded whole or not at all: with its last byte beyond the
// limit the decoder reads nothing and fails, as it does for a limit before
// the start.
TEST(StructureDecoders, TheFixedPartMustLieBeforeTheLimit) {
  struct {
    const char* name;
    std::size_t size;
    const std::uint8_t* (*decode)(const std::uint8_t*, const std::uint8_t*);
  } const cases[] = {
      {"TOC block", TOC_ENTRIES_OFFSET, decode<toc_block_info, toc_block_decode>},
      {"VBLK header", DDB_BLKHDR_SIZE, decode<ddb_blkhdr_info, ddb_block_header_decode>},
      {"VMDB prefix", VOLDB_PREFIX_SIZE, decode<voldb_prefix_info, voldb_prefix_decode>},
      {"KLOG block", KLOG_OFF_ENTRIES, decode<klog_block_info, klog_block_decode>},
      {"KLOG entry", KLOG_ENTRY_USED, decode<klog_entry_info, klog_entry_decode>},
  };
  const std::vector<std::uint8_t> buf(64, 0xA5);
  const std::uint8_t* p = buf.data() + 8;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.decode(p, p + c.size), p + c.size);
    EXPECT_EQ(c.decode(p, p + c.size - 1), nullptr);
    EXPECT_EQ(c.decode(p, p - 1), nullptr);
  }
}

}  // namespace
}  // namespace pd
