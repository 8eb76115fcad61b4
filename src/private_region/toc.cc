// TOC blocks and entries: verification of a block, the entry codec and the
// typed payloads.
#include "private_region/toc.h"

#include <cstring>
#include <new>

#include "base/errors.h"
#include "codec/integers.h"

namespace pd {

namespace {

// Sectors in one chunk, from the two shifts of the header.
std::size_t sectors_per_chunk(const priv_header_info* hdr) {
  if (hdr->phi_chunk_shift == hdr->phi_sctr_shift) return 1;
  if (hdr->phi_chunk_shift > hdr->phi_sctr_shift)
    return std::size_t{1} << (hdr->phi_chunk_shift - hdr->phi_sctr_shift);
  return std::size_t{1} >> (hdr->phi_sctr_shift - hdr->phi_chunk_shift);
}

bool is_type(const char* type, const char* name) { return std::strcmp(type, name) == 0; }

// Byte `i` of the payload, 0 past its end.
std::uint8_t info_byte(const toc_entry_info* entry, std::size_t i) {
  const disk_region& r = entry->tei_region;
  return (r.dkr_info != nullptr && i < r.dkr_info_size) ? r.dkr_info[i] : 0;
}

std::uint16_t info_be16(const toc_entry_info* e, std::size_t i) {
  return static_cast<std::uint16_t>((info_byte(e, i) << 8) | info_byte(e, i + 1));
}

std::uint32_t info_be32(const toc_entry_info* e, std::size_t i) {
  return (static_cast<std::uint32_t>(info_be16(e, i)) << 16) | info_be16(e, i + 2);
}

// Copies the terminated string at payload offset `at` into `dst` (capacity
// `cap`), stopping at the terminator, the payload end or cap - 1 characters.
void info_string(const toc_entry_info* e, std::size_t at, char* dst, std::size_t cap) {
  std::size_t n = 0;
  const std::size_t size = e->tei_region.dkr_info_size;
  while (n + 1 < cap && at + n < size && e->tei_region.dkr_info[at + n] != 0) {
    dst[n] = static_cast<char>(e->tei_region.dkr_info[at + n]);
    ++n;
  }
  dst[n] = '\0';
}

// Gives the entry a zeroed payload of `size` bytes.
int resize_info(toc_entry_info* entry, std::size_t size) {
  disk_region& r = entry->tei_region;
  auto* info = size == 0 ? nullptr : new (std::nothrow) std::uint8_t[size]();
  if (size != 0 && info == nullptr) return VE_NOMEM;
  delete[] r.dkr_info;
  r.dkr_info = info;
  r.dkr_info_size = static_cast<std::uint16_t>(size);
  return VE_OK;
}

void put_string(std::uint8_t* dst, const char* src, std::size_t cap) {
  std::memcpy(dst, src, strnlen(src, cap - 1));
}

}  // namespace

std::uint64_t priv_toc_checksum(const std::uint8_t* buf, std::size_t len) {
  return region_checksum(buf, len);
}

int priv_toc_block_verify(const std::uint8_t* buf, std::size_t len, const volseqno_t& seqno,
                          priv_decode_fault* fault) {
  auto fail = [fault](int code, const char* field, std::size_t offset, const char* reason) {
    if (fault != nullptr) *fault = {code, field, offset, reason};
    return code;
  };
  // A chunk smaller than the block words cannot hold a block.
  toc_block_info b;
  if (toc_block_decode(buf, buf + len, &b) == nullptr)
    return fail(VE_PRIV_FORMAT, "block", 0, "shorter than the block words");
  if (!b.tbi_magic_ok) return fail(VE_PRIV_FORMAT, "magic", 0, "bad magic");
  if (b.tbi_checksum != priv_toc_checksum(buf, len))
    return fail(VE_PRIV_FORMAT, "checksum", TOC_CHECKSUM_OFFSET, "bad checksum");
  if (!seqno_equal(b.tbi_seqno, seqno))
    return fail(VE_PRIV_INVALID, "seqno", TOC_SEQNO_HI_OFFSET, "not the header's");
  return VE_OK;
}

int priv_read_toc_sector(priv_info* priv, std::uint8_t* buf, voff_t sector,
                         priv_decode_fault* fault) {
  const priv_header_info* hdr = priv->pri_header;
  const int res = priv->pri_read(priv, buf, sector, sectors_per_chunk(hdr), PRI_IO_PRIVATE);
  if (res != VE_OK) return res;
  return priv_toc_block_verify(buf, hdr->phi_chunk_size, hdr->phi_update_seqno, fault);
}

const std::uint8_t* toc_block_decode(const std::uint8_t* p, const std::uint8_t* lim,
                                     toc_block_info* out) {
  if (p == nullptr || lim < p || static_cast<std::size_t>(lim - p) < TOC_ENTRIES_OFFSET)
    return nullptr;
  out->tbi_magic_ok = std::memcmp(p, toc_magic, TOC_MAGIC_LEN) == 0;
  out->tbi_checksum = get_be32(p + TOC_CHECKSUM_OFFSET);
  out->tbi_seqno.seqno_hi = get_be32(p + TOC_SEQNO_HI_OFFSET);
  out->tbi_seqno.seqno_lo = get_be32(p + TOC_SEQNO_LO_OFFSET);
  out->tbi_next = static_cast<voff_t>(get_be64(p + TOC_NEXT_OFFSET));
  out->tbi_alt_next = static_cast<voff_t>(get_be64(p + TOC_ALT_NEXT_OFFSET));
  return p + TOC_ENTRIES_OFFSET;
}

toc_entry_info* priv_alloc_toc_entry(std::size_t info_size) {
  auto* entry = new (std::nothrow) toc_entry_info{};
  if (entry == nullptr) return nullptr;
  if (resize_info(entry, info_size) != VE_OK) {
    delete entry;
    return nullptr;
  }
  return entry;
}

void priv_free_toc_entry(toc_entry_info* entry) {
  if (entry == nullptr) return;
  delete[] entry->tei_region.dkr_info;
  delete entry;
}

int priv_unpack_toc_entry(toc_entry_info** entry, const std::uint8_t** cursor,
                          const std::uint8_t* end) {
  const std::uint8_t* p = *cursor;
  *entry = nullptr;
  if (p > end) return VE_PRIV_FORMAT;
  if (p == end || *p == 0) return VE_OK;
  if (end - p < static_cast<std::ptrdiff_t>(TOC_ENTRY_FIXED)) return VE_PRIV_FORMAT;

  char type[TOC_ENTRY_TYPE_LEN + 1] = {};
  std::memcpy(type, p, TOC_ENTRY_TYPE_LEN);
  const std::uint16_t flags = get_be16(p + 8);
  const auto start = static_cast<voff_t>(get_be64(p + 10));
  const auto len = static_cast<voff_t>(get_be64(p + 18));
  const std::uint16_t info_size = get_be16(p + 26);
  const std::uint8_t* info = p + TOC_ENTRY_FIXED;
  if (info_size > end - info) return VE_PRIV_FORMAT;
  if (start < 0 || len < 0) return VE_PRIV_FORMAT;

  if (is_type(type, "config") || is_type(type, "log")) {
    if (info_size != TOC_COPY_PAYLOAD || len == 0 || get_be16(info) == 0) return VE_PRIV_INVALID;
  } else if (is_type(type, "lockrgn")) {
    if (info_size != TOC_COPY_PAYLOAD || len == 0) return VE_PRIV_INVALID;
  }

  toc_entry_info* e = priv_alloc_toc_entry(info_size);
  if (e == nullptr) return VE_NOMEM;
  disk_region& r = e->tei_region;
  std::memcpy(r.dkr_type, type, sizeof r.dkr_type);
  r.dkr_offset = start;
  r.dkr_len = len;
  r.dkr_flags = flags;
  if (info_size != 0) std::memcpy(r.dkr_info, info, info_size);
  *entry = e;
  *cursor = info + info_size;
  return VE_OK;
}

void priv_pack_toc_entry(const toc_entry_info* entry, std::uint8_t** cursor) {
  std::uint8_t* p = *cursor;
  const disk_region& r = entry->tei_region;
  // The name with its terminator; for an 8-character name the terminator
  // would fall on the first flags byte, which the flags then overwrite.
  const std::size_t n = strnlen(r.dkr_type, TOC_ENTRY_TYPE_LEN);
  std::memcpy(p, r.dkr_type, n);
  if (n < TOC_ENTRY_TYPE_LEN) p[n] = 0;
  put_be16(p + 8, r.dkr_flags);
  put_be64(p + 10, static_cast<std::uint64_t>(r.dkr_offset));
  put_be64(p + 18, static_cast<std::uint64_t>(r.dkr_len));
  put_be16(p + 26, r.dkr_info_size);
  if (r.dkr_info_size != 0) std::memcpy(p + TOC_ENTRY_FIXED, r.dkr_info, r.dkr_info_size);
  *cursor = p + TOC_ENTRY_FIXED + r.dkr_info_size;
}

int priv_pack_copy_entry(const copy_region_entry* cr, toc_entry_info* entry) {
  if (resize_info(entry, TOC_COPY_PAYLOAD) != VE_OK) return VE_NOMEM;
  std::uint8_t* info = entry->tei_region.dkr_info;
  put_be16(info, static_cast<std::uint16_t>(cr->cr_number));
  put_be32(info + 2, static_cast<std::uint32_t>(cr->cr_offset));
  return VE_OK;
}

int priv_unpack_copy_entry(copy_region_entry* cr, const toc_entry_info* entry) {
  cr->cr_number = info_be16(entry, 0);
  cr->cr_offset = info_be32(entry, 2);
  return entry->tei_region.dkr_info_size < TOC_COPY_PAYLOAD ? VE_PRIV_FORMAT : VE_OK;
}

int priv_pack_lkr_entry(const lock_region_entry* lr, toc_entry_info* entry) {
  if (resize_info(entry, TOC_COPY_PAYLOAD) != VE_OK) return VE_NOMEM;
  std::uint8_t* info = entry->tei_region.dkr_info;
  put_be16(info, static_cast<std::uint16_t>(lr->lr_number));
  put_be32(info + 2, static_cast<std::uint32_t>(lr->lr_offset));
  return VE_OK;
}

int priv_unpack_lkr_entry(lock_region_entry* lr, const toc_entry_info* entry) {
  lr->lr_number = info_be16(entry, 0);
  lr->lr_offset = info_be32(entry, 2);
  return entry->tei_region.dkr_info_size < TOC_COPY_PAYLOAD ? VE_PRIV_FORMAT : VE_OK;
}

int priv_pack_tagid_entry(const tagid_region_entry* tag, toc_entry_info* entry) {
  if (resize_info(entry, TOC_TAGID_PAYLOAD) != VE_OK) return VE_NOMEM;
  std::uint8_t* info = entry->tei_region.dkr_info;
  put_be16(info, tag->dktagid_flags);
  put_string(info + TAGID_NAME_OFFSET, tag->dktagid_name, sizeof tag->dktagid_name);
  put_string(info + TAGID_VALUE_OFFSET, tag->dktagid_value, sizeof tag->dktagid_value);
  put_string(info + TAGID_SOURCE_OFFSET, tag->dktagid_source, sizeof tag->dktagid_source);
  return VE_OK;
}

int priv_unpack_tagid_entry(tagid_region_entry* tag, const toc_entry_info* entry) {
  tag->dktagid_flags = info_be16(entry, 0);
  info_string(entry, TAGID_NAME_OFFSET, tag->dktagid_name, sizeof tag->dktagid_name);
  info_string(entry, TAGID_VALUE_OFFSET, tag->dktagid_value, sizeof tag->dktagid_value);
  info_string(entry, TAGID_SOURCE_OFFSET, tag->dktagid_source, sizeof tag->dktagid_source);
  return entry->tei_region.dkr_info_size < TOC_TAGID_PAYLOAD ? VE_PRIV_FORMAT : VE_OK;
}

}  // namespace pd
