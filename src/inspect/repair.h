// `privinspect repair IN OUT`: a new image in which every structure that a
// sound copy still holds is restored from it (docs/repair.md).
//
// The plan is data: the check's findings on IN, each marked removed or
// left; the actions (structure, copy, sector range, source, and the byte
// segments they copy); and what is left, with the reason. It is made from
// the check's findings and the structures' own verdicts (which header copy
// decodes, which TOC block verifies, which configuration copy extracts
// without error and what its report says), by the rules of one table in
// repair.cc. Text and JSON (json_repair.h) print the same plan.
//
// OUT is written by new_image (never IN), with the action segments laid
// over a copy of IN; only the region's bytes change. Before it is kept, the
// proof runs on OUT.tmp: the check may find nothing the plan did not list
// as left; privdiag's report of OUT may differ from IN's only in the words
// that say which header copy is valid or used (in the header's lines when
// the copy privdiag read is replaced), and in the configuration section
// when privdiag's copy is restored; each
// restored copy's `config --copy N` report equals its source's but for the
// "#Config copy" line. A failed proof removes OUT.tmp.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "base/session.h"
#include "inspect/inspect.h"
#include "inspect/inspect_image.h"
#include "inspect/inspect_region.h"
#include "inspect/new_image.h"
#include "io/findings.h"

namespace pd {

// Exit statuses of repair.
inline constexpr int REPAIR_CLEAN = 0;    // repaired and proven; check on OUT finds nothing
inline constexpr int REPAIR_PARTIAL = 1;  // repaired and proven; findings no copy covers are left
inline constexpr int REPAIR_NOTHING = 2;  // nothing written: nothing to repair, or nothing sound
inline constexpr int REPAIR_FAILED = 3;   // usage or I/O error, or a failed proof (OUT removed)

// The key under which the proof compares a finding of IN with one of OUT:
// the code and the text, a "config copy N: " prefix set aside (a finding of
// a database is the same in every copy that holds it); for two copies that
// differ, the code and the copy.
std::string repair_key(const finding& f);
std::string repair_message_key(const std::string& line);
// Whether a line of the check's error stream is the library's message
// (labelled "qztool:priv:"), not a note of the tool's own (the region
// chosen in a whole disk).
bool library_message(const std::string& line);

// Bytes copied from one place of the image to another (byte offsets in the
// region).
struct repair_segment {
  std::uint64_t from = 0;
  std::uint64_t to = 0;
  std::uint64_t length = 0;
};

struct repair_action {
  std::string structure;    // "header", "toc", "config"
  std::string copy;         // "primary", "alternate", "primary chain block 0", "copy 2"
  std::int64_t sector = 0;  // first sector written (of the region)
  std::int64_t count = 0;   // sectors written
  std::string places;       // the sectors written, when not one run from `sector`
  std::string source;       // where the bytes come from, in words
  std::string why;          // the verdict acted on
  std::vector<repair_segment> segments;
  std::int64_t toc_block = -1;  // TOC block restored (else -1)
  int target_copy = -1;         // config copy restored (else -1)
  int source_copy = -1;         // its source
};

struct repair_left {
  std::string structure;
  std::string copy;
  std::int64_t sector = -1;  // -1: no one place
  std::int64_t count = 0;
  std::string reason;
};

// A finding (or message) of the check on IN, and whether the plan removes it.
struct repair_finding {
  std::string code;  // the finding's code, "message" for a message line
  std::string text;
  bool removed = false;
};

struct repair_plan {
  bool opened = false;  // IN was opened
  std::string image;
  std::uint64_t image_bytes = 0;    // IN's length
  std::uint64_t region_offset = 0;  // of the region in IN, bytes
  std::uint64_t region_bytes = 0;
  int sector_size = 512;
  int check_status = INSPECT_USAGE_IO;  // check's on IN
  std::vector<repair_finding> findings;
  check_outcome check;  // the check on IN behind `findings`
  std::vector<repair_action> actions;
  std::vector<repair_left> left;
  // Keys (repair_key) of what the check may still find on OUT.
  std::set<std::string> allowed;
  int privdiag_copy = -1;      // the first enabled copy (privdiag's), when joined
  bool nothing_sound = false;  // a structure that no copy verifies stopped the plan
  // The plan restores the header copy that privdiag's scan chose on IN from
  // the other one (--header named it, or it is newer as a whole).
  bool header_replaced = false;
};

// The plan for `t`: the check on IN, then the headers, the TOC chains (with
// the header OUT will hold) and the configuration copies, each stage only
// when the one before found something to read through. Reads IN only.
repair_plan plan_repair(const session& like, const inspect_target& t);

// What the proof found.
struct repair_proof {
  bool ok = false;
  std::string reason;                  // why it failed
  int check_status = -1;               // check on OUT
  std::vector<std::string> remaining;  // the check's lines on OUT
  bool report_compared = false;        // privdiag's reports of IN and OUT compared
  std::string report_note;             // why not, or what differed as accounted
  std::vector<int> copies_compared;    // restored copies whose reports equal their source's
};

// The proof on the file `out_path` (OUT.tmp) against the plan for `t`.
repair_proof prove_repair(const session& like, const inspect_target& t, const repair_plan& plan,
                          const std::string& out_path);

// Writes OUT (plan.actions laid over a copy of IN), proves it and keeps it
// when proven: the status (REPAIR_*), with the proof in `proof`. Messages
// (refusals, I/O errors, a failed proof) go to s.err.
int write_repair(session& s, const inspect_target& t, const repair_plan& plan,
                 const std::string& out, bool force, repair_proof& proof,
                 const file_calls& calls = system_file_calls());

// The plan and the proof as text on s.out.
void print_repair_plan(session& s, const repair_plan& plan);
void print_repair_proof(session& s, const repair_proof& proof, const std::string& out);

// Shared by repair.cc and repair_proof.cc.
namespace repair_detail {

// A session whose output and messages stay in memory.
struct quiet_session {
  explicit quiet_session(const session& like);
  bool ok() const { return out.f != nullptr && err.f != nullptr; }
  mem_stream out, err;
  session s;
};

// The text after the first line (a copy report's "#Config copy" line).
std::string after_first_line(const std::string& text);

// `text` escaped as the views escape bytes of the image, and a new line.
void print_line(session& s, const std::string& text);

}  // namespace repair_detail

}  // namespace pd
