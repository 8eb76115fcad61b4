// Kernel log blocks for the image builder.
#include "privbuild/log_writer.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "codec/integers.h"
#include "codec/text_forms.h"
#include "privbuild/builder.h"
#include "report/log_dump.h"

namespace pd::privbuild {

namespace {

// Which words an entry type carries a rid and a tid in.
struct log_type_name {
  const char* name;
  std::uint8_t type;
  bool has_rid;  // rid in words 0-1; a tid then goes to words 2-3
};

constexpr log_type_name log_type_names[] = {
    {"empty", MIN_KLOG_TYPE_ENT, false},
    {"detach", VOL_KLOG_DETACH, true},
    {"dirty", VOL_KLOG_DIRTY, true},
    {"commit", VOL_KLOG_COMMIT, false},
    {"logdetach", VOL_KLOG_LOGDETACH, true},
    {"app_dirty", VOL_KLOG_APP_DIRTY, true},
    {"dg_change_log", VOL_KLOG_DG_CHANGE_LOG, false},
    {"dirty_seqno", VOL_KLOG_DIRTY_SEQNO, true},
    {"cache_seqno", VOL_KLOG_CACHE_SEQNO, true},
};

bool type_has_rid(std::uint8_t type) {
  for (const log_type_name& n : log_type_names) {
    if (n.type == type) return n.has_rid;
  }
  return true;  // a type the dump does not know: rid then tid, like detach
}

bool parse_u32(const std::string& text, std::uint32_t& v) {
  if (text.empty() || text[0] == '-' || text[0] == '+') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long n = std::strtoull(text.c_str(), &end, 0);
  if (errno != 0 || *end != '\0' || n > 0xFFFFFFFFull) return false;
  v = static_cast<std::uint32_t>(n);
  return true;
}

bool parse_seqno(const std::string& text, volseqno_t& v) {
  std::size_t dot = text.find('.');
  if (dot == std::string::npos) return false;
  return parse_u32(text.substr(0, dot), v.seqno_hi) && parse_u32(text.substr(dot + 1), v.seqno_lo);
}

bool parse_type(const std::string& text, std::uint8_t& type) {
  for (const log_type_name& n : log_type_names) {
    if (text == n.name) {
      type = n.type;
      return true;
    }
  }
  std::uint32_t v = 0;
  if (!parse_u32(text, v) || v > 255) return false;
  type = static_cast<std::uint8_t>(v);
  return true;
}

bool parse_block(const std::vector<std::pair<std::string, std::string>>& kv, log_content& c,
                 std::string& error) {
  log_block_desc b;
  for (const auto& [key, value] : kv) {
    std::uint32_t n = 0;
    bool ok = true;
    if (key == "magic") {
      ok = value.size() == 4;
      b.magic = value;
    } else if (key == "tid") {
      ok = parse_seqno(value, b.tid);
    } else if (key == "seqno") {
      ok = parse_u32(value, b.seqno);
    } else if (key == "len") {
      ok = parse_u32(value, n);
      b.loglen = n;
    } else if (key == "blkno") {
      ok = parse_u32(value, n);
      b.blkno = n;
    } else {
      error = "log block: unknown key " + key;
      return false;
    }
    if (!ok) {
      error = "log block: bad value for " + key + ": " + value;
      return false;
    }
  }
  c.blocks.push_back(b);
  return true;
}

bool parse_words(const std::string& text, std::array<std::uint32_t, 5>& words) {
  std::stringstream in(text);
  std::string item;
  std::size_t k = 0;
  while (std::getline(in, item, ',')) {
    if (k == words.size() || !parse_u32(item, words[k])) return false;
    k++;
  }
  return k == words.size();
}

bool parse_entry(const std::vector<std::pair<std::string, std::string>>& kv, log_content& c,
                 std::string& error) {
  if (c.blocks.empty()) {
    error = "log entry before any block";
    return false;
  }
  log_entry_desc e;
  std::optional<volseqno_t> rid, tid;
  std::optional<std::uint32_t> recover;
  std::optional<std::array<std::uint32_t, 5>> words;
  bool has_type = false;
  for (const auto& [key, value] : kv) {
    bool ok = true;
    std::uint32_t n = 0;
    volseqno_t sq;
    if (key == "slot") {
      ok = parse_u32(value, n) && n < static_cast<std::uint32_t>(KLOG_NENTRIES);
      e.slot = static_cast<int>(n);
    } else if (key == "type") {
      ok = parse_type(value, e.type);
      has_type = true;
    } else if (key == "rid" || key == "tid") {
      ok = parse_seqno(value, sq);
      (key == "rid" ? rid : tid) = sq;
    } else if (key == "recover") {
      ok = parse_u32(value, n);
      recover = n;
    } else if (key == "words") {
      std::array<std::uint32_t, 5> w{};
      ok = parse_words(value, w);
      words = w;
    } else {
      error = "log entry: unknown key " + key;
      return false;
    }
    if (!ok) {
      error = "log entry: bad value for " + key + ": " + value;
      return false;
    }
  }
  if (!has_type) {
    error = "log entry without type=";
    return false;
  }
  bool has_rid = type_has_rid(e.type);
  if (rid) {
    e.words[0] = rid->seqno_hi;
    e.words[1] = rid->seqno_lo;
  }
  std::size_t t = has_rid ? 2 : 0;
  if (tid) {
    e.words[t] = tid->seqno_hi;
    e.words[t + 1] = tid->seqno_lo;
  }
  if (recover) e.words[4] = *recover;
  if (words) e.words = *words;
  c.blocks.back().entries.push_back(e);
  return true;
}

}  // namespace

bool log_parse_line(const std::string& line, log_content& c, std::string& error) {
  std::stringstream in(line);
  std::string keyword, item;
  in >> keyword;
  std::vector<std::pair<std::string, std::string>> kv;
  while (in >> item) {
    std::size_t eq = item.find('=');
    if (eq == std::string::npos || eq == 0) {
      error = "log: expected KEY=VALUE, got " + item;
      return false;
    }
    kv.emplace_back(item.substr(0, eq), item.substr(eq + 1));
  }
  if (keyword == "block") return parse_block(kv, c, error);
  if (keyword == "entry") return parse_entry(kv, c, error);
  error = "log: unknown statement " + keyword;
  return false;
}

bool log_format_block(const log_block_desc& b, std::size_t index, std::size_t nblocks,
                      std::uint8_t* out, std::string& error) {
  std::memset(out, 0, KLOG_BLKSIZE);
  std::memcpy(out + KLOG_OFF_MAGIC, b.magic.data(), 4);
  put_be32(out + KLOG_OFF_TID_HI, b.tid.seqno_hi);
  put_be32(out + KLOG_OFF_TID_LO, b.tid.seqno_lo);
  put_be32(out + KLOG_OFF_SEQNO, b.seqno);
  put_be32(out + KLOG_OFF_LOGLEN, b.loglen.value_or(static_cast<std::uint32_t>(nblocks)));
  put_be32(out + KLOG_OFF_BLKNO, b.blkno.value_or(static_cast<std::uint32_t>(index)));
  bool used[KLOG_NENTRIES] = {};
  for (const log_entry_desc& e : b.entries) {
    int slot = e.slot;
    if (slot < 0) {
      for (slot = 0; slot < KLOG_NENTRIES && used[slot]; slot++) {
      }
    }
    if (slot >= KLOG_NENTRIES || used[slot]) {
      error = "log block " + std::to_string(index) + ": no free entry slot";
      return false;
    }
    used[slot] = true;
    std::uint8_t* p = out + KLOG_OFF_ENTRIES + KLOG_ENTRY_SIZE * static_cast<std::size_t>(slot);
    p[0] = e.type;
    for (std::size_t k = 0; k < e.words.size(); k++) put_be32(p + 1 + 4 * k, e.words[k]);
  }
  return true;
}

bool log_write(const log_content& c, std::uint8_t* copy, std::size_t len, std::string& error) {
  if (c.blocks.size() > len / KLOG_BLKSIZE) {
    error = "log: " + std::to_string(c.blocks.size()) + " blocks do not fit in a copy of " +
            std::to_string(len) + " bytes";
    return false;
  }
  for (std::size_t i = 0; i < c.blocks.size(); i++) {
    if (!log_format_block(c.blocks[i], i, c.blocks.size(), copy + i * KLOG_BLKSIZE, error)) {
      return false;
    }
  }
  return true;
}

namespace {

// The `log` generator: the body's lines, blank lines and # comments left out.
std::vector<std::uint8_t> gen_log(const content_request& req, std::string* error) {
  log_content c;
  for (const std::string& raw : req.lines) {
    std::size_t b = raw.find_first_not_of(" \t");
    if (b == std::string::npos || raw[b] == '#') continue;
    if (!log_parse_line(raw.substr(b), c, *error)) return {};
  }
  std::vector<std::uint8_t> out(c.blocks.size() * KLOG_BLKSIZE);
  if (out.size() > req.size) {
    *error = "log: " + std::to_string(c.blocks.size()) + " blocks do not fit in " +
             std::to_string(req.size) + " bytes";
    return {};
  }
  if (!log_write(c, out.data(), out.size(), *error)) return {};
  return out;
}

}  // namespace

void register_log_generator() { register_content_generator("log", gen_log); }

}  // namespace pd::privbuild
