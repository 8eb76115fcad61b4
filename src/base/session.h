// One run of the tool: where its output goes, the message label, the shared
// I/O buffers and the open image. Every layer that prints, allocates I/O
// buffers or reaches the image takes the session; a test creates a fresh one
// with in-memory streams (open_memstream) and runs any path of the tool in
// process.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace pd {

class finding_sink;

// The per-thread I/O buffer list of buf_get. The tool has one thread whose
// identifier is 0, so there is at most one record.
struct vold_buffer {
  std::unique_ptr<vold_buffer> buf_next;
  unsigned buf_thread = 0;
  std::unique_ptr<std::uint8_t[]> buf_handle;  // the allocation
  std::uint8_t* buf_pointer = nullptr;         // equal to buf_handle
  std::size_t buf_size = 0;
};

struct io_buffers {
  // buf_get
  std::unique_ptr<vold_buffer> vold_buffers;
  std::size_t alignment_quantum = static_cast<std::size_t>(-1);  // unknown
  std::size_t system_page_size = 0;
  // get_aligned_buf
  std::size_t lastsize = 0;
  std::unique_ptr<std::uint8_t[]> lastfreeptr;
  std::uint8_t* lastbuf = nullptr;
};

struct message_state {
  std::unique_ptr<char[]> applabel;  // null until set
  std::unique_ptr<char[]> catname;   // stored, never consulted
  std::uint64_t vold_nt_errno = 0;
  std::uint64_t save_last_vold_errno = 0;
};

struct session {
  FILE* out = stdout;  // dumps and the report
  FILE* err = stderr;  // diagnostics

  const char* progname = "privdiag";
  // Where findings go (io/findings.h); null: their text, where privdiag
  // writes it.
  finding_sink* sink = nullptr;
  message_state msg;
  io_buffers bufs;

  // The dump device: the image, opened "rb"; the public region is never
  // opened.
  std::string devicename;
  FILE* priv_fd = nullptr;
  FILE* pub_fd = nullptr;

  // Report options: integers that nothing in privdiag sets.
  int c_commit = 0;
  int f_show_free = 0;
  int m_qzmake_format = 0;
  int l_long_listing = 0;
  int h_header_only = 0;

  session() = default;
  session(FILE* o, FILE* e) : out(o), err(e) {}
  session(const session&) = delete;
  session& operator=(const session&) = delete;
  ~session() {
    if (priv_fd != nullptr) std::fclose(priv_fd);
  }
};

}  // namespace pd
