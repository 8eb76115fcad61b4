// Kernel log blocks: the decoders of the block words and of one entry.
#include "private_region/log_block.h"

#include "codec/integers.h"

namespace pd {

const std::uint8_t* klog_block_decode(const std::uint8_t* p, const std::uint8_t* lim,
                                      klog_block_info* out) {
  if (p == nullptr || lim < p || static_cast<std::size_t>(lim - p) < KLOG_OFF_ENTRIES)
    return nullptr;
  const std::uint32_t magic = get_be32(p + KLOG_OFF_MAGIC);
  out->klb_magic_ok = magic == KLOG_MAGIC || magic == KLOG_MAGIC_ALT;
  out->klb_tid.seqno_hi = get_be32(p + KLOG_OFF_TID_HI);
  out->klb_tid.seqno_lo = get_be32(p + KLOG_OFF_TID_LO);
  out->klb_seqno = get_be32(p + KLOG_OFF_SEQNO);
  out->klb_loglen = get_be32(p + KLOG_OFF_LOGLEN);
  out->klb_blkno = get_be32(p + KLOG_OFF_BLKNO);
  return p + KLOG_OFF_ENTRIES;
}

const std::uint8_t* klog_entry_decode(const std::uint8_t* p, const std::uint8_t* lim,
                                      klog_entry_info* out) {
  if (p == nullptr || lim < p || static_cast<std::size_t>(lim - p) < KLOG_ENTRY_USED)
    return nullptr;
  out->kle_type = klog_entry_type(p);
  for (std::size_t k = 0; k < KLOG_ENTRY_WORDS; k++) {
    out->kle_words[k] = get_be32(p + KLOG_ENTRY_OFF_WORDS + 4 * k);
  }
  return p + KLOG_ENTRY_USED;
}

}  // namespace pd
