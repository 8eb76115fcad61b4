// The privdiag command: argument handling, the start-up order and exit
// statuses. privdiag_main runs the whole tool on the session's streams and
// returns the exit status; fatal conditions inside the library arrive here as
// fatal_exit.
#pragma once

#include <cstdint>
#include <cstdio>

#include "base/session.h"
#include "private_region/priv_info.h"

namespace pd {

int privdiag_main(session& s, int argc, char** argv);

// Opens the image "rb" (never for writing) as the session's priv_fd; when it
// cannot be opened writes "Cannot open dump file %s.\n" and throws
// fatal_exit{1}.
void open_dump_file(session& s, const char* path);

// The image's length in bytes, the position of its end; the stream is left
// at its start. A stream that cannot tell its position counts as empty.
std::uint64_t dump_file_size(FILE* f);

// What the image's length tells of the disk: the region starts at sector 0
// and spans every whole sector; the primary header is the last 512-byte
// header sector, the alternate lies 96 KiB before the end (192 sectors of
// 512 bytes, 24 of 4096). A trailing partial sector is dropped.
disk_attrs derive_disk_attrs(std::uint64_t fsize, int sector_size);

}  // namespace pd
