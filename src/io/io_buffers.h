// The session's I/O buffers: the per-thread buffer of buf_get and the one
// 512-aligned staging buffer that every transfer of the dump device goes
// through.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/session.h"

namespace pd {

// The calling thread's I/O buffer of at least `nbytes` (page-rounded, only
// grows; a request of 0 always replaces it by a fresh zeroed page). Null only
// when memory is exhausted.
std::uint8_t* buf_get(session& s, std::size_t nbytes);
void buf_release(session& s);

// The shared 512-aligned sector buffer: grows on a larger request, never
// cleared; contents are not carried over on growth (a grown buffer starts
// zeroed).
std::uint8_t* get_aligned_buf(session& s, std::size_t size);

}  // namespace pd
