// Join: loading the TOC chains into the handle, checking every region, and
// building the descriptors of the configuration copies, log copies, lock
// region and tag ids. Also the update side: the TOC rewrite, the header write
// and the checks that the header on disk is still the one in memory (never
// run on the dump path, where PRI_NOUPDATE is set).
//
// Ownership: everything hung on the handle is heap memory owned by it.
// priv_unjoin frees the join products; priv_reset (locate.h) additionally
// frees the header and the tag-id list; priv_free does priv_reset and frees
// the handle.
#pragma once

#include <cstddef>

#include "base/priv_info.h"

namespace pd {

// priv_reset, then frees a handle that priv_alloc (the driver's allocator,
// calloc) gave.
void priv_free(priv_info* priv);
// A zero-filled handle from the heap (calloc), or null; released by priv_free.
priv_info* priv_alloc();

int priv_join(priv_info* priv);
void priv_unjoin(priv_info* priv);
void priv_free_tagid_list(priv_info* priv);

// Inserts before the first element with a larger start (public entries before
// private ones); equal starts keep their arrival order.
void priv_toc_add(priv_info* priv, toc_entry_info* entry);
// Unlinks (does not free).
void priv_toc_delete(priv_info* priv, toc_entry_info* entry);

int priv_build_copies(priv_info* priv, const char* type, copy_info** list);
int priv_build_copy(priv_info* priv, copy_info** copy, const char* type, std::size_t number);
int priv_copy_cmptoc(const void* a, const void* b);
int priv_build_lockrgn(priv_info* priv);
int priv_build_tagid(priv_info* priv);
void priv_free_copies(copy_info** list);

// Tag look-ups by exact name; 387 when not found.
int priv_find_tagid_region(priv_info* priv, const char* tag, toc_entry_info** entry);
int priv_find_tagid_region_entry(priv_info* priv, tagid_region_entry* tag);
int priv_is_tagid_set(priv_info* priv, const char* name);

int priv_update_toc_start(priv_info* priv);
int priv_update_toc(priv_info* priv, int failokay);
int priv_update_header(priv_info* priv, int failokay);
void priv_update_toc_abort(priv_info* priv);
int priv_check(priv_info* priv, int rewrite);
int priv_slave_check(priv_info* priv);

// The region in chunks, and a sector value in chunks.
voff_t priv_len_chunks(const priv_header_info* hdr);
voff_t priv_sector_to_chunk(const priv_header_info* hdr, voff_t sector);
voff_t priv_chunk_to_sector(const priv_header_info* hdr, voff_t chunk);

}  // namespace pd
