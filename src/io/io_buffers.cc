// The session's I/O buffers (see io_buffers.h).
#include "io/io_buffers.h"

#include <cstdint>
#include <memory>
#include <new>

#include "io/dump_device.h"

namespace pd {

namespace {

// The tool runs one thread; its identifier, and that of the main thread,
// stay 0.
constexpr unsigned vold_self_thread = 0;
constexpr unsigned vold_main_thread = 0;
constexpr std::size_t default_page_size = 4096;

}  // namespace

std::uint8_t* buf_get(session& s, std::size_t nbytes) {
  io_buffers& b = s.bufs;
  vold_buffer* rec = b.vold_buffers.get();
  while (rec != nullptr && rec->buf_thread != vold_self_thread) rec = rec->buf_next.get();
  if (rec == nullptr) {
    std::unique_ptr<vold_buffer> fresh(new (std::nothrow) vold_buffer());
    if (!fresh) return nullptr;
    fresh->buf_thread = vold_self_thread;
    fresh->buf_next = std::move(b.vold_buffers);
    b.vold_buffers = std::move(fresh);
    rec = b.vold_buffers.get();
  }
  // A request of 0 never reuses: it always yields a fresh zeroed page.
  if (nbytes != 0 && nbytes <= rec->buf_size) return rec->buf_pointer;

  if (b.alignment_quantum == static_cast<std::size_t>(-1)) {
    if (b.system_page_size == 0) b.system_page_size = default_page_size;
    b.alignment_quantum = b.system_page_size;
  }
  std::size_t q = b.alignment_quantum;
  if (nbytes > static_cast<std::size_t>(-1) - q) return nullptr;  // cannot be rounded
  std::size_t size = nbytes / q * q + (nbytes % q != 0 ? q : 0);
  if (size == 0) {
    if (b.system_page_size == 0) b.system_page_size = default_page_size;
    size = b.system_page_size;
  }
  // An exhausted heap is not caught here: the record then holds a null
  // buffer of the new size, and null is returned.
  std::unique_ptr<std::uint8_t[]> data(new (std::nothrow) std::uint8_t[size]());
  rec->buf_handle = std::move(data);
  rec->buf_pointer = rec->buf_handle.get();
  rec->buf_size = size;
  return rec->buf_pointer;
}

void buf_release(session& s) {
  // The main thread keeps its buffer for reuse; in this tool every caller is
  // the main thread, so nothing is ever freed here.
  if (vold_self_thread == vold_main_thread) return;
  std::unique_ptr<vold_buffer>* link = &s.bufs.vold_buffers;
  while (*link && (*link)->buf_thread != vold_self_thread) link = &(*link)->buf_next;
  if (*link) *link = std::move((*link)->buf_next);
}

std::uint8_t* get_aligned_buf(session& s, std::size_t size) {
  io_buffers& b = s.bufs;
  if (size > b.lastsize) {
    b.lastfreeptr.reset();
    b.lastbuf = nullptr;
    b.lastsize = 0;
    if (size > static_cast<std::size_t>(-1) - 511) nt_alloc_failed(s, size);
    // Zeroed, so that a read past the end of the image never hands over
    // uninitialised memory.
    b.lastfreeptr.reset(new (std::nothrow) std::uint8_t[size + 511]());
    if (!b.lastfreeptr) nt_alloc_failed(s, size + 511);
    auto raw = reinterpret_cast<std::uintptr_t>(b.lastfreeptr.get());
    b.lastbuf = b.lastfreeptr.get() + ((512 - raw % 512) % 512);
    b.lastsize = size;
  }
  return b.lastbuf;
}

}  // namespace pd
