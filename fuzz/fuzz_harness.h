// What each fuzz target does with one input. The libFuzzer entry points
// (fuzz/*_fuzzer.cc) and the regression replay (tests/regress_test.cc) share
// these, so a kept input is replayed exactly as it was found.
//
// Pipeline input: one flag byte, then the image.
//   flag bit 0  sector size 4096 (else 512)
//   flag bit 1  sparse image (below; else the remaining bytes are the image)
//   flag bit 2  also dump every log copy (scan, join, log dump)
//   flag bit 3  fix checksums: every 512-byte sector that starts with
//               "PRIVHEAD" and every sector that starts with "TOCBLOCK"
//               gets its checksum recomputed (so that mutations reach what
//               lies behind the checksums)
//   flag bit 4  also privinspect's scan of the image (every structure's
//               decoder on whole and on cut sectors)
//   flag bit 5  also privinspect's check (privdiag's path, then the
//               whole-region check: both headers, both TOC chains, every
//               configuration and log copy), reading through the copy that
//               decodes when the scan fails, then anonymise's walk over the
//               region in memory (collect, draw, rewrite)
//   flag bit 6  also privinspect's dump as a JSON document, into memory: it
//               must parse, with an exit_status of 0 to 3 (else abort)
//   flag bit 7  also privinspect's locate (the partition tables and every
//               probe of a whole disk), then its records view, which reads a
//               whole-disk image through the window on the region found
// Sparse image: length (4 bytes big-endian, cut to PIPELINE_MAX_IMAGE), fill
// byte, then chunks until the input ends: offset (4 bytes big-endian), count
// (2 bytes big-endian), count bytes; a chunk is cut at the image's end.
//
// Codec input: a mode byte, then by mode (modulo 4):
//   0  record: entry index (1 byte, modulo the rec2field table), type word
//      (4 bytes big-endian), body: decoded through every group that applies
//   1  one field group: entry index, group index (1 byte each), body
//   2  private-region header: the sector (zero-padded to 512 bytes)
//   3  database header: the bytes
// Whatever decodes is formatted again: the formatted size must be the size
// the table computes, the formatted form must decode again, and formatting
// that second decode must give the same bytes. (Headers are written in the
// newest layout of their major version: a private-region header of major 1
// and a database header of 4.0 to 4.16 do not read back.)
//
// Store input: a configuration copy, fed in 512-byte pieces to the report's
// loader (block store, record decoders and the report) as the tool feeds a
// copy, in runs of up to 128 blocks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace pd::fuzz {

inline constexpr std::size_t PIPELINE_MAX_IMAGE = 4u << 20;

inline constexpr std::uint8_t PIPE_4096 = 0x1;
inline constexpr std::uint8_t PIPE_SPARSE = 0x2;
inline constexpr std::uint8_t PIPE_LOGS = 0x4;
inline constexpr std::uint8_t PIPE_FIXSUMS = 0x8;
inline constexpr std::uint8_t PIPE_SCAN = 0x10;
inline constexpr std::uint8_t PIPE_CHECK = 0x20;
inline constexpr std::uint8_t PIPE_JSON = 0x40;
inline constexpr std::uint8_t PIPE_LOCATE = 0x80;

struct pipeline_input {
  int sector_size = 512;
  bool dump_logs = false;
  bool scan = false;
  bool check = false;
  bool json = false;
  bool locate = false;
  std::vector<std::uint8_t> image;
};

// Expands a pipeline input; false for an empty input.
bool decode_pipeline_input(const std::uint8_t* data, std::size_t size, pipeline_input* in);
// A pipeline input holding `image` in sparse form (runs of bytes other than
// `fill`, nearby runs merged).
std::vector<std::uint8_t> encode_sparse_input(std::uint8_t flags, const std::vector<std::uint8_t>& image,
                                              std::uint8_t fill);

// Runs privdiag on the image in process (the image in a memory file, output
// and diagnostics to /dev/null), then the log dump and the scan when asked.
// Returns
// privdiag's exit status, or -1 for an empty input.
int run_pipeline(const std::uint8_t* data, std::size_t size);
// Returns false when the codec broke one of its invariants.
bool run_codec(const std::uint8_t* data, std::size_t size);
// Returns the loader's status: 0 after a report, 1 after a fatal condition.
int run_store(const std::uint8_t* data, std::size_t size);

// Runs the harness named "pipeline", "codec" or "store"; true when the input
// ended as it may (status 0 or 1, codec invariants held).
bool run_target(const std::string& target, const std::uint8_t* data, std::size_t size);

}  // namespace pd::fuzz
