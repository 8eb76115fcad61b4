// repair: the rules, the plan and its text (see repair.h; the proof and
// the writing are in repair_proof.cc).
#include "inspect/repair.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/errors.h"
#include "codec/text_forms.h"
#include "inspect/inspect_headers.h"
#include "inspect/inspect_region.h"
#include "inspect/output.h"
#include "io/messages.h"
#include "private_region/header.h"
#include "private_region/toc.h"
#include "report/copy_loading.h"

namespace pd {

namespace repair_detail {

quiet_session::quiet_session(const session& like) : s(out.f, err.f) {
  s.progname = like.progname;
  volsetlabel(s, "qztool:priv");
}

std::string after_first_line(const std::string& text) {
  const std::size_t nl = text.find('\n');
  return nl == std::string::npos ? std::string() : text.substr(nl + 1);
}

void print_line(session& s, const std::string& text) {
  text_out o(s.out);
  o.value(text);
  o.text("\n");
}

}  // namespace repair_detail

using namespace repair_detail;

namespace {

// What a finding concerns, as far as a repair can remove it.
enum class subject : std::uint8_t {
  header_copy,  // one header copy (place.sector): gone when that copy is restored
  header_pair,  // both copies: gone when either is restored
  toc_block,    // one block of one chain (place.sector): gone when it is restored
  toc_pair,     // both chains' block (place.block): gone when either is restored
  config_copy,  // one configuration copy: gone when it is restored
  copy_pair,    // two copies that differ: gone when both hold the source
  none,         // nothing a copy covers: logs, the image, chain pointers, disabled copies
};

struct repair_rule {
  finding_code code;
  subject what;
};

// The one table of what a restored structure removes; in code order.
constexpr std::array<repair_rule, finding_table.size()> repair_rules = {{
    {finding_code::corrupt_record, subject::config_copy},
    {finding_code::extra_dg_record, subject::config_copy},
    {finding_code::no_dg_record, subject::config_copy},
    {finding_code::missing_children, subject::config_copy},
    {finding_code::extra_children, subject::config_copy},
    {finding_code::duplicate_disk_id, subject::config_copy},
    {finding_code::volume_count, subject::config_copy},
    {finding_code::plex_count, subject::config_copy},
    {finding_code::subdisk_count, subject::config_copy},
    {finding_code::dm_count, subject::config_copy},
    {finding_code::higher_tid, subject::config_copy},
    {finding_code::extract_error, subject::config_copy},
    {finding_code::premature_eof, subject::config_copy},
    {finding_code::header_checksum, subject::header_copy},
    {finding_code::header_undecodable, subject::header_copy},
    {finding_code::header_choice, subject::header_pair},
    {finding_code::log_block_invalid, subject::none},
    {finding_code::header_mismatch, subject::header_pair},
    {finding_code::header_field, subject::header_copy},
    {finding_code::toc_magic, subject::toc_block},
    {finding_code::toc_checksum, subject::toc_block},
    {finding_code::toc_seqno, subject::toc_block},
    {finding_code::toc_next, subject::none},
    {finding_code::toc_chains_differ, subject::toc_pair},
    {finding_code::copies_differ, subject::copy_pair},
    {finding_code::copy_stale, subject::none},
    {finding_code::copy_unloadable, subject::config_copy},
    {finding_code::log_block_refused, subject::none},
    {finding_code::log_never_written, subject::none},
    {finding_code::image_partial_sector, subject::none},
    {finding_code::image_short, subject::none},
    {finding_code::sector_size_other, subject::none},
}};

constexpr bool rules_in_code_order() {
  for (std::size_t i = 0; i < repair_rules.size(); ++i) {
    if (static_cast<std::size_t>(repair_rules[i].code) != i) return false;
  }
  return true;
}
static_assert(rules_in_code_order(), "repair_rules lists every finding code in its order");

std::uint64_t seq64(const volseqno_t& v) {
  return (static_cast<std::uint64_t>(v.seqno_hi) << 32) | v.seqno_lo;
}

std::string seq_text(const volseqno_t& v) {
  char b[24];
  return volseqnotostr(v, b);
}

// "config copy N: " at the start of a text, or 0.
std::size_t copy_prefix(const std::string& text) {
  static constexpr char lead[] = "config copy ";
  if (text.rfind(lead, 0) != 0) return 0;
  std::size_t i = sizeof lead - 1;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i;
  if (i == sizeof lead - 1 || text.compare(i, 2, ": ") != 0) return 0;
  return i + 2;
}

// A configuration copy's place: its parts as byte ranges of the region.
struct copy_part {
  std::uint64_t offset;
  std::uint64_t length;
};

std::vector<copy_part> parts_of(const priv_info* priv, const copy_info* cp) {
  std::vector<copy_part> parts;
  const std::uint64_t chunk = priv->pri_header->phi_chunk_size;
  for (int i = 0; i < cp->ci_npart; ++i) {
    const disk_region& rg = cp->ci_parts[i]->tei_region;
    parts.push_back({static_cast<std::uint64_t>(rg.dkr_offset) * chunk,
                     static_cast<std::uint64_t>(rg.dkr_len) * chunk});
  }
  return parts;
}

std::uint64_t bytes_of(const std::vector<copy_part>& parts) {
  std::uint64_t n = 0;
  for (const copy_part& p : parts) n += p.length;
  return n;
}

// The segments that lay the first `length` bytes of `from` over `to`.
std::vector<repair_segment> lay(const std::vector<copy_part>& from,
                                const std::vector<copy_part>& to, std::uint64_t length) {
  std::vector<repair_segment> out;
  std::size_t i = 0, j = 0;
  std::uint64_t fi = 0, tj = 0;  // bytes used of from[i], to[j]
  for (std::uint64_t done = 0; done < length && i < from.size() && j < to.size();) {
    const std::uint64_t n = std::min({from[i].length - fi, to[j].length - tj, length - done});
    out.push_back({from[i].offset + fi, to[j].offset + tj, n});
    done += n;
    fi += n;
    tj += n;
    if (fi == from[i].length) ++i, fi = 0;
    if (tj == to[j].length) ++j, tj = 0;
  }
  return out;
}

// The sectors the segments come from (or go to), runs that touch joined.
std::string ranges_text(const std::vector<repair_segment>& segs, bool from, std::uint64_t unit) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> runs;  // [first, end) in bytes
  for (const repair_segment& g : segs) {
    const std::uint64_t at = from ? g.from : g.to;
    if (!runs.empty() && runs.back().second == at) {
      runs.back().second += g.length;
    } else {
      runs.emplace_back(at, at + g.length);
    }
  }
  std::string out;
  for (const auto& [first, end] : runs) {
    out += (out.empty() ? "sectors " : ", ") +
           finding_textf("%llu-%llu", static_cast<unsigned long long>(first / unit),
                         static_cast<unsigned long long>((end + unit - 1) / unit - 1));
  }
  return out;
}

// One configuration copy as the plan sees it.
struct copy_state {
  copy_info* cp = nullptr;
  int number = 0;
  bool enabled = true;
  std::vector<copy_part> parts;
  bool sound = false;   // loads, and extracts without error
  std::string problem;  // why not
  volseqno_t tid;
  std::uint64_t db_bytes = 0;     // nblocks x blksize
  std::string report;             // config --copy N: output and messages, heading line left out
  std::vector<std::string> keys;  // of its findings and messages
};

bool extraction_fault(finding_code c) {
  return c == finding_code::extract_error || c == finding_code::premature_eof ||
         c == finding_code::corrupt_record;
}

// Loads `cs` twice through the image's session: once for its findings and
// database header, once for its report.
void load_copy(inspect_image& img, copy_state& cs) {
  session& s = img.s;
  FILE* const saved_out = s.out;
  FILE* const saved_err = s.err;
  {
    mem_stream out, err;
    if (out.f == nullptr || err.f == nullptr) {
      cs.problem = "no memory to load the copy";
      return;
    }
    finding_collector found;
    s.out = out.f;
    s.err = err.f;
    int res = -2;
    {
      sink_guard guard(s, &found);
      config_report rep(s);
      rep.print_report = false;
      try {
        res = priv_load_config(s, img.priv(), cs.cp, rep);
      } catch (const fatal_exit&) {
        res = -2;
      }
      cs.tid = rep.hdrinfo.vdbi_config_tid;
      if (rep.db != nullptr)
        cs.db_bytes = static_cast<std::uint64_t>(rep.db->ddb_nblocks) * rep.db->ddb_blksize;
    }
    s.out = saved_out;
    s.err = saved_err;
    const std::vector<std::string> messages = message_lines(err.text());
    cs.sound = res == 1 && messages.empty();
    for (const std::string& m : messages) {
      if (cs.problem.empty()) cs.problem = m;
      cs.keys.push_back(repair_message_key(m));
    }
    for (const finding& f : found.list) {
      cs.keys.push_back(repair_key(f));
      if (!extraction_fault(f.code)) continue;
      cs.sound = false;
      if (cs.problem.empty()) cs.problem = f.text;
    }
    if (!cs.sound && cs.problem.empty()) cs.problem = "the copy cannot be loaded";
  }
  mem_stream out, err;
  if (out.f == nullptr || err.f == nullptr) {
    cs.sound = false;
    cs.problem = "no memory to load the copy";
    return;
  }
  s.out = out.f;
  s.err = err.f;
  try {
    (void)priv_dump_config(s, img.priv(), cs.number);
  } catch (const fatal_exit&) {
  }
  s.out = saved_out;
  s.err = saved_err;
  // The heading line, and a disabled copy's note, are the copy's own.
  std::string report = after_first_line(out.text());
  if (!cs.enabled) report = after_first_line(report);
  cs.report = report + "\n--\n" + err.text();
}

class planner {
 public:
  planner(repair_plan& plan, inspect_image& img, const inspect_target& t)
      : plan_(plan), img_(img), t_(t) {}

  // Each stage returns false when nothing after it can be located.
  bool headers();
  bool toc();
  void copies(const session& like);
  void classify(const check_outcome& in);

 private:
  bool fits(std::uint64_t offset, std::uint64_t length) const {
    return offset + length <= img_.file_size();
  }
  void leave(std::string structure, std::string copy, std::int64_t sector, std::int64_t count,
             std::string reason) {
    plan_.left.push_back({std::move(structure), std::move(copy), sector, count, std::move(reason)});
  }
  bool restored_copy(int n) const {
    return n >= 0 && std::any_of(plan_.actions.begin(), plan_.actions.end(),
                                 [n](const repair_action& a) { return a.target_copy == n; });
  }
  bool removes(const finding& f, bool privdiag_run) const;
  bool removes_message(const std::string& m) const;
  bool any_action(const char* structure) const {
    return std::any_of(plan_.actions.begin(), plan_.actions.end(),
                       [structure](const repair_action& a) { return a.structure == structure; });
  }

  repair_plan& plan_;
  inspect_image& img_;
  const inspect_target& t_;
  priv_header_info hdr_;  // the header OUT will hold
  header_choice trusted_ = header_choice::primary;
  bool joined_ = false;           // the plan's join, through what OUT will hold, succeeded
  std::set<int> holding_source_;  // enabled copies that hold the source's database after the plan
};

std::string decode_verdict(const header_copy& c) {
  return finding_textf("does not decode: error %d: %s", c.res, vol_strerror(c.res));
}

bool planner::headers() {
  header_view v = analyse_headers(img_);
  const std::uint64_t ss = static_cast<std::uint64_t>(img_.sector_size());
  const bool pok = v.p.read() && v.p.res == 0;
  const bool aok = v.a.read() && v.a.res == 0;
  if (!pok && !aok) {
    leave("header", "primary and alternate", -1, 0,
          "neither copy decodes: nothing to restore a header from");
    plan_.nothing_sound = true;
    return false;
  }
  const header_copy* src = pok ? &v.p : &v.a;
  const header_copy* dst = pok ? (aok ? nullptr : &v.a) : &v.p;
  std::string why = dst != nullptr ? decode_verdict(*dst) : "";
  if (pok && aok && std::memcmp(v.p.buf, v.a.buf, PRIV_HEADER_SIZE) != 0) {
    const std::uint64_t ps = seq64(v.p.hdr.phi_update_seqno), as = seq64(v.a.hdr.phi_update_seqno);
    if (t_.header_choice == header_choice::primary ||
        t_.header_choice == header_choice::alternate) {
      src = t_.header_choice == header_choice::primary ? &v.p : &v.a;
      why = "differs from the copy --header names";
    } else if (ps == as) {
      leave("header", "primary and alternate", -1, 0,
            "both copies decode, with update seqno " + seq_text(v.p.hdr.phi_update_seqno) +
                ", but differ: --header names the copy to trust");
      src = &v.p;
    } else {
      // Newer as the scan has it: the signed 64-bit difference.
      src = static_cast<std::int64_t>(as - ps) > 0 ? &v.a : &v.p;
      why = "update seqno " + seq_text((src == &v.p ? v.a : v.p).hdr.phi_update_seqno) +
            " older than " + seq_text(src->hdr.phi_update_seqno);
    }
    if (!why.empty()) dst = src == &v.p ? &v.a : &v.p;
  }
  hdr_ = src->hdr;
  trusted_ = src == &v.p ? header_choice::primary : header_choice::alternate;
  if (dst == nullptr) return true;
  plan_.header_replaced = pok && aok && v.chosen == (dst == &v.p ? header_chosen::primary
                                                                  : header_chosen::alternate);
  const std::uint64_t at = static_cast<std::uint64_t>(dst->sector) * ss;
  if (dst->sector < 0 || !fits(at, PRIV_HEADER_SIZE)) {
    leave("header", dst->name, dst->sector, 1, "lies past the end of the image");
    return true;
  }
  repair_action a;
  a.structure = "header";
  a.copy = dst->name;
  a.sector = dst->sector;
  a.count = 1;
  a.source =
      finding_textf("the %s copy (sector %lld)", src->name, static_cast<long long>(src->sector));
  a.why = why;
  a.segments.push_back({static_cast<std::uint64_t>(src->sector) * ss, at, PRIV_HEADER_SIZE});
  plan_.actions.push_back(std::move(a));
  return true;
}

const char* toc_verdict(int res, const priv_decode_fault& fault) {
  if (res == VE_SHORT_READ) return "lies past the end of the image";
  if (std::strcmp(fault.field, "checksum") == 0) return "its checksum does not verify";
  if (std::strcmp(fault.field, "seqno") == 0) return "its sequence number is not the header's";
  return "its magic is not TOCBLOCK";
}

bool planner::toc() {
  const std::size_t chunk = hdr_.phi_chunk_size;
  const std::uint64_t unit = hdr_.phi_atomic_iosize;
  if (chunk < TOC_ENTRIES_OFFSET || chunk > 65536 || unit == 0) {
    leave("toc", "both chains", -1, 0, "the header's chunk size cannot hold a TOC block");
    plan_.nothing_sound = true;
    return false;
  }
  const voff_t privlen = hdr_.phi_priv_len;
  voff_t pos[2] = {hdr_.phi_first_toc, hdr_.phi_first_alt_toc};
  bool visit_zero = pos[0] == 0 && chunk == 4096;
  const voff_t limit = std::min<voff_t>(privlen, 4096);
  static const char* const chain[2] = {"primary", "alternate"};
  for (std::size_t n = 0; (pos[0] != 0 || visit_zero) && static_cast<voff_t>(n) < limit; ++n) {
    visit_zero = false;
    std::vector<std::uint8_t> buf[2];
    int res[2];
    priv_decode_fault fault[2];
    for (int c = 0; c < 2; ++c) {
      buf[c].assign(chunk, 0);
      const std::uint64_t off = static_cast<std::uint64_t>(pos[c]) * unit;
      res[c] = pos[c] < 0 || img_.read_at(off, buf[c].data(), chunk) != chunk
                   ? VE_SHORT_READ
                   : priv_toc_block_verify(buf[c].data(), chunk, hdr_.phi_update_seqno, &fault[c]);
    }
    const std::string block = finding_textf("block %zu", n);
    if (res[0] != VE_OK && res[1] != VE_OK) {
      leave("toc", block, -1, 0,
            finding_textf("neither the primary (sector %lld) nor the alternate (sector %lld) "
                          "verifies: nothing to restore it from",
                          static_cast<long long>(pos[0]), static_cast<long long>(pos[1])));
      plan_.nothing_sound = true;
      return false;
    }
    if (res[0] == VE_OK && res[1] == VE_OK && buf[0] != buf[1]) {
      leave("toc", block, -1, 0,
            "both chains' copies verify but differ: nothing tells which is right");
    }
    const int good = res[0] == VE_OK ? 0 : 1;
    const int bad = 1 - good;
    toc_block_info b{};
    toc_block_decode(buf[good].data(), buf[good].data() + chunk, &b);
    if (b.tbi_next < 0 || b.tbi_alt_next < 0 || b.tbi_next >= privlen ||
        b.tbi_alt_next >= privlen || ((b.tbi_next == 0) != (b.tbi_alt_next == 0))) {
      leave("toc", block, pos[good], 1,
            "its next pointers are wrong in the copy that verifies: not a sound copy");
      plan_.nothing_sound = true;
      return false;
    }
    if (res[bad] != VE_OK) {
      const std::uint64_t at = static_cast<std::uint64_t>(pos[bad]) * unit;
      if (pos[bad] <= 0 || !fits(at, chunk)) {
        leave("toc", std::string(chain[bad]) + " chain " + block, pos[bad], 1,
              "lies past the end of the image");
      } else {
        repair_action a;
        a.structure = "toc";
        a.copy = std::string(chain[bad]) + " chain " + block;
        a.sector = pos[bad];
        a.count = 1;
        a.source = finding_textf("the %s chain's %s (sector %lld)", chain[good], block.c_str(),
                                 static_cast<long long>(pos[good]));
        a.why = toc_verdict(res[bad], fault[bad]);
        a.segments.push_back({static_cast<std::uint64_t>(pos[good]) * unit, at, chunk});
        a.toc_block = static_cast<std::int64_t>(n);
        plan_.actions.push_back(std::move(a));
      }
    }
    pos[0] = b.tbi_next;
    pos[1] = b.tbi_alt_next;
  }
  return true;
}

void planner::copies(const session& like) {
  // The region joined through the header OUT will hold.
  quiet_session q(like);
  if (!q.ok()) return;
  inspect_target t = t_;
  t.header_choice = trusted_;
  inspect_image img(q.s);
  img.announce = false;
  if (!img.open(t) || img.scan() != VE_OK || img.join() != VE_OK) {
    leave("config", "every copy", -1, 0, "the region cannot be joined through the header");
    return;
  }
  joined_ = true;
  priv_info* priv = img.priv();
  std::vector<copy_state> all;
  for (copy_info* cp = priv->pri_config_copies; cp != nullptr; cp = cp->ci_next) {
    copy_state cs;
    cs.cp = cp;
    cs.number = cp->ci_copy;
    cs.enabled = !(cp->ci_npart > 0 && (cp->ci_parts[0]->tei_region.dkr_flags & DKR_DISABLED) != 0);
    cs.parts = parts_of(priv, cp);
    load_copy(img, cs);
    if (cs.enabled && plan_.privdiag_copy < 0) plan_.privdiag_copy = cs.number;
    all.push_back(std::move(cs));
  }
  const copy_state* src = nullptr;
  for (const copy_state& cs : all) {
    if (cs.enabled && cs.sound && (src == nullptr || seq64(cs.tid) > seq64(src->tid))) src = &cs;
  }
  const std::uint64_t unit = hdr_.phi_atomic_iosize;
  auto sectors = [unit](std::uint64_t bytes) {
    return static_cast<std::int64_t>((bytes + unit - 1) / unit);
  };
  for (const copy_state& cs : all) {
    const std::string name = finding_textf("copy %d", cs.number);
    const std::int64_t first =
        cs.parts.empty() ? -1 : static_cast<std::int64_t>(cs.parts[0].offset / unit);
    const std::int64_t count = sectors(bytes_of(cs.parts));
    // What the check may find in a copy left as it is.
    if (&cs == src || !cs.enabled || src == nullptr) {
      plan_.allowed.insert(cs.keys.begin(), cs.keys.end());
    }
    if (!cs.enabled) {
      plan_.allowed.insert(finding_textf("copy-stale|%d", cs.number));
      if (src == nullptr || cs.report != src->report) {
        leave("config", name, first, count, "disabled copies are not restored");
      }
      continue;
    }
    if (&cs == src) {
      holding_source_.insert(cs.number);
      continue;
    }
    if (src == nullptr) {
      if (!cs.sound) {
        leave("config", name, first, count,
              "no enabled copy extracts without error: nothing to restore it from (" + cs.problem +
                  ")");
        plan_.nothing_sound = true;
      }
      continue;
    }
    if (cs.report == src->report) {
      holding_source_.insert(cs.number);
      continue;
    }
    std::string why = !cs.sound ? cs.problem
                      : seq64(cs.tid) < seq64(src->tid)
                          ? "config tid " + seq_text(cs.tid) + " older than " + seq_text(src->tid)
                          : finding_textf("its report differs from copy %d's", src->number);
    const std::uint64_t room = bytes_of(cs.parts);
    const std::uint64_t whole = bytes_of(src->parts);
    const std::uint64_t db = (src->db_bytes + unit - 1) / unit * unit;
    const std::uint64_t length = room >= whole ? whole : room >= db ? db : 0;
    bool inside = true;
    for (const copy_part& p : cs.parts) inside = inside && fits(p.offset, p.length);
    if (length == 0 || !inside) {
      leave("config", name, first, count,
            (length == 0 ? finding_textf("%s; its place (%lld sectors) is smaller than the "
                                         "database of copy %d (%lld sectors)",
                                         why.c_str(), static_cast<long long>(count), src->number,
                                         static_cast<long long>(sectors(db)))
                         : why + "; its place lies past the end of the image"));
      plan_.allowed.insert(cs.keys.begin(), cs.keys.end());
      plan_.allowed.insert(finding_textf("copies-differ|%d", cs.number));
      continue;
    }
    repair_action a;
    a.structure = "config";
    a.copy = name;
    a.segments = lay(src->parts, cs.parts, length);
    a.sector = static_cast<std::int64_t>(a.segments.front().to / unit);
    a.count = sectors(length);
    a.source = finding_textf("copy %d (", src->number) + ranges_text(a.segments, true, unit) + ")";
    a.places = ranges_text(a.segments, false, unit);
    a.why = why;
    a.target_copy = cs.number;
    a.source_copy = src->number;
    plan_.actions.push_back(std::move(a));
    holding_source_.insert(cs.number);
  }
}

bool planner::removes(const finding& f, bool privdiag_run) const {
  const repair_rule& rule = repair_rules[static_cast<std::size_t>(f.code)];
  auto action_at = [this](const char* structure, std::int64_t sector) {
    return std::any_of(plan_.actions.begin(), plan_.actions.end(), [&](const repair_action& a) {
      return a.structure == structure && a.sector == sector;
    });
  };
  switch (rule.what) {
    case subject::header_copy:
      return action_at("header", f.place.sector);
    case subject::header_pair:
      return any_action("header");
    case subject::toc_block:
      return action_at("toc", f.place.sector);
    case subject::toc_pair:
      return std::any_of(plan_.actions.begin(), plan_.actions.end(), [&f](const repair_action& a) {
        return a.structure == "toc" && a.toc_block == f.place.block;
      });
    case subject::config_copy:
      return restored_copy(privdiag_run ? plan_.privdiag_copy : f.place.copy);
    case subject::copy_pair:
      return holding_source_.count(f.place.copy) != 0 &&
             holding_source_.count(plan_.privdiag_copy) != 0;
    case subject::none:
      return false;
  }
  return false;
}

bool planner::removes_message(const std::string& m) const {
  if (m.find("scan operation failed") != std::string::npos) return any_action("header");
  // The join fails again on OUT unless it succeeds through the header and
  // the TOC blocks OUT will hold (as the plan's own join did).
  if (m.find("join operation failed") != std::string::npos) {
    return joined_ && (any_action("header") || any_action("toc"));
  }
  return restored_copy(plan_.privdiag_copy);
}

void planner::classify(const check_outcome& in) {
  struct pending {
    std::string key;
    repair_finding rf;
  };
  std::vector<pending> all;
  for (std::size_t i = 0; i < in.findings.size(); ++i) {
    const finding& f = in.findings[i];
    all.push_back({repair_key(f), {f.name(), f.text, removes(f, i < in.privdiag_findings)}});
  }
  for (const std::string& m : in.messages) {
    if (!library_message(m)) continue;  // the tool's own notes (the region chosen)
    all.push_back({repair_message_key(m), {"message", m, removes_message(m)}});
  }
  for (const pending& p : all) {
    if (!p.rf.removed) plan_.allowed.insert(p.key);
  }
  // A finding the plan removes from one copy stays when another copy left
  // as it is (or the source) holds it too.
  for (pending& p : all) {
    if (p.rf.removed && plan_.allowed.count(p.key) != 0) p.rf.removed = false;
    plan_.findings.push_back(std::move(p.rf));
  }
  // Log copies are never restored: say so where the check found something.
  std::set<int> logs;
  for (const finding& f : in.findings) {
    if (std::strcmp(f.place.structure, "log copy") == 0) logs.insert(f.place.copy);
  }
  for (int n : logs) {
    leave("log", finding_textf("copy %d", n), -1, 0, "log copies are not restored");
  }
}

}  // namespace

std::string repair_key(const finding& f) {
  if (f.code == finding_code::copies_differ || f.code == finding_code::copy_stale) {
    return finding_textf("%s|%d", f.name(), f.place.copy);
  }
  return std::string(f.name()) + "|" + f.text.substr(copy_prefix(f.text));
}

bool library_message(const std::string& line) { return line.rfind("qztool:priv:", 0) == 0; }

std::string repair_message_key(const std::string& line) {
  return "message|" + line.substr(copy_prefix(line));
}

repair_plan plan_repair(const session& like, const inspect_target& t) {
  repair_plan plan;
  plan.image = t.image;
  plan.sector_size = t.sector_size;
  const check_outcome in = run_check(like, t);
  plan.check_status = in.status;
  if (!in.opened) return plan;
  quiet_session q(like);
  if (!q.ok()) return plan;
  inspect_image img(q.s);
  img.announce = false;
  if (!img.open(t)) return plan;
  plan.opened = true;
  struct stat st {};
  if (::stat(t.image.c_str(), &st) == 0) plan.image_bytes = static_cast<std::uint64_t>(st.st_size);
  plan.region_offset = img.window_offset();
  plan.region_bytes = img.file_size();
  planner p(plan, img, t);
  try {
    if (p.headers() && p.toc()) p.copies(like);
  } catch (const fatal_exit&) {
    plan.left.push_back({"region", "", -1, 0, "the image cannot be read"});
  }
  p.classify(in);
  plan.check = in;
  return plan;
}

// --- text ---------------------------------------------------------------------

namespace {

std::string sectors_text(std::int64_t first, std::int64_t count) {
  if (first < 0) return "";
  if (count <= 1) return finding_textf("sector %lld", static_cast<long long>(first));
  return finding_textf("sectors %lld-%lld", static_cast<long long>(first),
                       static_cast<long long>(first + count - 1));
}

}  // namespace

void print_repair_plan(session& s, const repair_plan& plan) {
  std::fprintf(s.out, "repair plan: check on the image: status %d\n", plan.check_status);
  for (const repair_finding& f : plan.findings) {
    print_line(s, std::string(f.removed ? "    removed  " : "    left     ") + f.text);
  }
  std::fprintf(s.out, "actions:%s\n", plan.actions.empty() ? " none" : "");
  for (const repair_action& a : plan.actions) {
    print_line(s, "    " + a.structure + " " + a.copy + ": " +
                      (a.places.empty() ? sectors_text(a.sector, a.count) : a.places) + " from " +
                      a.source + ": " + a.why);
  }
  std::fprintf(s.out, "left:%s\n", plan.left.empty() ? " none" : "");
  for (const repair_left& l : plan.left) {
    std::string where = sectors_text(l.sector, l.count);
    print_line(s, "    " + l.structure + (l.copy.empty() ? "" : " " + l.copy) +
                      (where.empty() ? "" : " (" + where + ")") + ": " + l.reason);
  }
}

}  // namespace pd
