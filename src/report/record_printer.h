// Long-format printing of one configuration record.
//
// Every record prints a two-line frame from the block store:
//   #Record <ref>: type=0x.. flags=0x.. gen_flags=0x.. size=<bytes>
//   #Blocks: <the record's chain of block numbers>
// then, for the record kinds that have one (volume, plex, subdisk, disk
// media, disk group, replicated volume, replica, DCO, snapshot), a block of
// labelled lines built from the decoded fields. Volume flag words wrap so
// that no line passes column 78; continuation lines start with nine blanks.
//
// Wide strings go through the C library's "%ls" under the current locale;
// the frequent lines are formatted by hand into the printer's buffer
// (io/out_buffer.h), which is written out at the end of each print call.
#pragma once

#include <cstdio>
#include <memory>

#include "base/types.h"
#include "config_db/block_store.h"
#include "config_db/records.h"
#include "io/out_buffer.h"
#include "report/tag_printer.h"

namespace pd {

// The column past which volume flag words wrap.
inline constexpr int FLAG_WRAP_COLUMN = 78;

class record_printer {
 public:
  explicit record_printer(FILE* out, int m_qzmake_format = 0)
      : ob_(out, std::size_t{1} << 18), m_qzmake_format_(m_qzmake_format) {}

  // While held, what is printed stays in the printer's buffer until it
  // fills (for a run of records); release() writes it out. Unheld, every
  // print call leaves its text in the stream.
  void hold() { hold_ = true; }
  void release() {
    hold_ = false;
    ob_.flush();
  }

  void print_record(const dbase* db, const db_record* r);

  void print_volume_longformat(const volrec& v);
  void print_plex_longformat(const plexrec& pl);
  void print_subdisk_longformat(const sdrec& sd);
  void print_diskmedia_longformat(const dmrec& dm);
  void print_diskgroup_longformat(const dgrec& dg);
  void print_rvol_longformat(const rvolrec& rv);
  void print_replica_longformat(const reprec& rp);
  void print_dco_longformat(const dcorec& dco);
  void print_snap_longformat(const snaprec& sp);

  tag_printer& tags() { return tags_; }

 private:
  void print_fields(int type, const void* u);
  void done() {
    if (!hold_) ob_.flush();
  }

  out_buffer ob_;
  bool hold_ = false;
  std::unique_ptr<urec> scratch_ = std::make_unique<urec>();  // packed records unpacked
  int m_qzmake_format_;
  tag_printer tags_;
};

// Prints " %s" for each word of `words` whose bit is set in `flags`,
// wrapping before a word that would pass FLAG_WRAP_COLUMN: a newline and
// nine blanks, after which the column is 9. `col` is the column on entry;
// returns the column after the last word.
struct flag_word {
  unsigned long bit;
  const char* word;
};
int print_flag_words(FILE* out, unsigned long flags, const flag_word* words, std::size_t n,
                     int col);
int print_flag_words(out_buffer& ob, unsigned long flags, const flag_word* words, std::size_t n,
                     int col);

}  // namespace pd
