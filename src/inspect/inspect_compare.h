// The model of `compare IMAGE...`: the disks of one group side by side.
//
// Each image (a region or a whole disk, opened as every view opens it) is
// located and read in turn: both header copies (update seqno, checksum
// verdict), the joined header's disk and group, every configuration copy
// (tid, commit state, version, and its records when it is enabled) and
// every log copy (the highest tid of its valid blocks). Nothing of an image
// is kept open once it has been read: the model holds text only.
//
// From these facts: the groups of identical databases (same config tid and
// the same records, field by field), the stale disks (an older config tid
// or an older header seqno than the newest among the disks), a record diff
// keyed by record id over each disk's database (the first enabled copy),
// the membership matrix (does the database of disk i hold a dm record with
// the disk id of disk j?) and the problems (an image with nothing to
// compare, a disk id on two images, another group, a bad header checksum).
// The text view and the JSON document (json_views.h) print this one model.
// Text from the image is kept as it was read (up to its NUL); the printers
// escape it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/session.h"
#include "inspect/inspect_image.h"
#include "inspect/region_map.h"

namespace pd {

struct compare_header_copy {
  std::string seqno;     // "hi.lo", or empty when the copy's fields are unknown
  std::string checksum;  // "ok", "bad", "bad magic", "unread"
};

struct compare_config_copy {
  int copy = 0;
  bool enabled = false;
  bool loaded = false;  // enabled, and its database header was read
  std::string tid;
  unsigned commit_state = 0;
  std::string commit_state_name;
  std::string version;  // "major.minor"
};

struct compare_log_copy {
  int copy = 0;
  bool read = false;
  std::string highest_tid;  // empty: no valid block
};

struct compare_field {
  std::string name, value;
};

// One record of a database: its fields as name -> text value, the record's
// type and name first, the flags set last (as "set_flags").
struct compare_record {
  volrid_t rid;
  std::string rid_text, type_name, name;
  std::vector<compare_field> fields;
};

struct compare_disk {
  std::string path;
  std::uint64_t size = 0;
  int sector_size = 512;
  bool opened = false;
  bool usable = false;  // located, with a database
  std::string problem;  // why not usable
  std::string disk_name;  // the dm record naming this disk id, in any database
  std::string disk_id, group_name, group_id;
  compare_header_copy primary, alternate;
  volseqno_t header_seqno;  // the joined header's
  std::vector<compare_config_copy> copies;
  std::vector<compare_log_copy> logs;
  volseqno_t config_tid;                // of the database compared
  int db_copy = -1;                     // the copy compared (first enabled one)
  std::vector<compare_record> records;  // of db_copy, by rid
  std::vector<std::string> dm_ids;      // disk ids of its dm records, in record order
  std::vector<std::string> dm_names;
};

// Disks and copies that hold the same database.
struct compare_holder {
  std::size_t disk;  // index in compare_model::disks
  std::vector<int> copies;
};
struct compare_group {
  std::string tid;
  std::vector<compare_holder> holders;
};

struct compare_stale {
  std::size_t disk;
  std::vector<std::string> why;
};

struct compare_value {
  std::size_t disk;
  std::string value;  // empty with present false
  bool present;
};
struct compare_field_diff {
  std::string name;
  std::vector<compare_value> values;  // one per disk with a database
};
struct compare_record_diff {
  std::string rid, type_name, name;
  std::vector<std::size_t> on, missing;  // disks with a database
  std::vector<compare_field_diff> fields;  // when on every such disk
};

// Row of the membership matrix: the database of `disk`.
struct compare_row {
  std::size_t disk;
  std::vector<int> holds;  // per disk given: 1 yes, 0 no, -1 that disk has no disk id
  std::vector<std::string> others;  // dm records naming disks not given: "name (id)"
};

struct compare_model {
  std::vector<compare_disk> disks;
  std::vector<compare_group> groups;
  std::vector<compare_stale> stale;
  std::vector<compare_record_diff> records;
  std::vector<compare_row> membership;
  std::vector<std::string> problems;
  int status = INSPECT_OK;
  // "agree", "differences", "nothing comparable", "unreadable"
  std::string verdict;
  std::string verdict_why;  // with "differences": what differs, in a few words
};

// Reads every image and builds the model; library messages go to `s.err`.
compare_model build_compare(session& s, const std::vector<inspect_target>& disks);

// The text view; returns the model's status.
int print_compare(FILE* out, const compare_model& m);
// The configuration copies that differ: each enabled copy of a stale disk
// or outside the largest group of identical databases (the most disks;
// the first of equals), with why. None when no database was read.
std::vector<copy_mark> compare_marks(const compare_model& m);

// `compare IMAGE... [--svg FILE]` as text: build, print, status; with
// `svg`, also the map of the images drawn to one scale with the copies
// that differ outlined, written as map writes it (status 3 when it cannot
// be; refused, before anything is read, when FILE is an input image).
int inspect_compare(session& s, const std::vector<inspect_target>& disks,
                    const std::string& svg = {});

}  // namespace pd
