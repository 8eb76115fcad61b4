// compare IMAGE...: the disks of a group side by side (inspect_compare.h).
#include "inspect/inspect_compare.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <utility>

#include "base/errors.h"
#include "inspect/inspect_headers.h"
#include "inspect/inspect_load.h"
#include "inspect/output.h"
#include "io/io_buffers.h"
#include "io/messages.h"
#include "private_region/log_block.h"
#include "report/copy_loading.h"
#include "report/log_dump.h"
#include "report/overview.h"
#include "report/tag_printer.h"

namespace pd {

namespace {

constexpr std::size_t BUFSIZE = 0x200000;  // the shared aligned buffer

std::string seq_text(const volseqno_t& v) {
  return std::to_string(v.seqno_hi) + "." + std::to_string(v.seqno_lo);
}

// The C string in a member of `max` bytes: up to its first NUL, at most max.
std::string c_text(const char* member, std::size_t max) {
  std::size_t n = 0;
  while (n < max && member[n] != '\0') ++n;
  return std::string(member, n);
}

bool seqno_less(const volseqno_t& a, const volseqno_t& b) {
  return seqno_value(a) < seqno_value(b);
}

std::string checksum_verdict(const header_copy& c) {
  if (!c.read()) return "unread";
  if (!c.magic_ok) return "bad magic";
  return c.stored_sum == c.computed_sum ? "ok" : "bad";
}

compare_header_copy header_facts(const header_copy& c) {
  compare_header_copy h;
  if (c.has_fields) h.seqno = seq_text(c.hdr.phi_update_seqno);
  h.checksum = checksum_verdict(c);
  return h;
}

bool copy_disabled(const copy_info* cp) {
  return cp->ci_npart > 0 && cp->ci_parts != nullptr && cp->ci_parts[0] != nullptr &&
         (cp->ci_parts[0]->tei_region.dkr_flags & DKR_DISABLED) != 0;
}

// The highest tid of the valid blocks of a log copy, read as the log dump
// reads it.
compare_log_copy log_facts(session& s, priv_info* priv, copy_info* cp) {
  compare_log_copy l;
  l.copy = cp->ci_copy;
  if (copy_disabled(cp)) return l;
  std::uint8_t* buf = get_aligned_buf(s, BUFSIZE);
  std::size_t nread = 0;
  if (buf == nullptr || priv_read_copy(s, priv, cp, buf, 0, KLOG_READ_BLOCKS, &nread) != 0) {
    volpfmt(s, s.err, 1, ":640:Failed to read log copy %d\n", cp->ci_copy);
    return l;
  }
  l.read = true;
  bool any = false;
  volseqno_t high;
  for (std::size_t blk = 0; blk < nread; ++blk) {
    const std::uint8_t* bp = buf + blk * KLOG_BLKSIZE;
    klog_block_info h{};
    klog_block_decode(bp, bp + KLOG_BLKSIZE, &h);
    if (!h.klb_magic_ok || h.klb_blkno != blk) continue;
    if (blk == 0 && h.klb_loglen < nread) nread = h.klb_loglen;
    if (!any || seqno_less(high, h.klb_tid)) high = h.klb_tid;
    any = true;
  }
  if (any) l.highest_tid = seq_text(high);
  return l;
}

// The records of a loaded copy by rid, each with its fields as text.
std::vector<compare_record> records_of(const config_report& rep) {
  std::map<std::uint64_t, compare_record> by_rid;
  tag_printer tp;
  for (const record* r = rep.rlist; r != nullptr; r = r->next) {
    compare_record c;
    c.rid = r->rid;
    c.rid_text = seq_text(r->rid);
    c.type_name = record_kind_name(r->type);
    c.name = c_text(r->name, sizeof r->name);
    c.fields.push_back({"type", c.type_name});
    c.fields.push_back({"record name", c.name});
    std::string set;
    std::vector<int> seen;  // each tag once, under its first name
    if (r->u != nullptr) {
      for (const voltagdesc& d : record_tag_table(r->type)) {
        if (d.type == TAG_NOOP || d.width == 0) continue;
        if (std::find(seen.begin(), seen.end(), d.tag) != seen.end()) continue;
        seen.push_back(d.tag);
        if (d.type != TAG_FLAG) {
          c.fields.push_back({d.name, tp.field_sprint(r->u, d)});
        } else if (std::string(tp.field_sprint(r->u, d)) != "off") {
          set += (set.empty() ? "" : ",") + std::string(d.name);
        }
      }
    }
    c.fields.push_back({"set_flags", set});
    by_rid.emplace(seqno_value(r->rid), std::move(c));  // the first of a rid wins
  }
  std::vector<compare_record> out;
  for (auto& [rid, c] : by_rid) out.push_back(std::move(c));
  return out;
}

// A text that is equal for two copies exactly when their databases are.
std::string digest(const std::string& tid, const std::vector<compare_record>& recs) {
  std::string d = tid + "\n";
  for (const compare_record& r : recs) {
    d += r.rid_text;
    for (const compare_field& f : r.fields) d += "\x1f" + f.name + "\x1e" + f.value;
    d += "\n";
  }
  return d;
}

const std::string* field_value(const compare_record& r, const std::string& name) {
  for (const compare_field& f : r.fields) {
    if (f.name == name) return &f.value;
  }
  return nullptr;
}

struct loaded_db {
  std::vector<compare_record> records;
  std::string digest;
};

// One image: its facts, and the digest of each loaded copy.
void read_disk(session& s, const inspect_target& t, compare_disk& d,
               std::vector<std::pair<int, std::string>>& digests) {
  d.path = t.image;
  d.sector_size = t.sector_size;
  inspect_image img(s);
  if (!img.open(t)) {
    d.problem = "cannot be opened";
    return;
  }
  d.opened = true;
  d.size = img.file_size();
  if (!img.holds_header_positions()) {
    d.problem = "too short to hold both header positions";
    return;
  }
  const header_view hv = analyse_headers(img);
  d.primary = header_facts(hv.p);
  d.alternate = header_facts(hv.a);
  if (!img.locate()) {
    d.problem = "no usable header";
    return;
  }
  priv_info* priv = img.priv();
  const priv_header_info& h = *priv->pri_header;
  d.disk_id = c_text(h.phi_diskid, sizeof h.phi_diskid);
  d.group_name = c_text(h.phi_dg_name, sizeof h.phi_dg_name);
  d.group_id = c_text(h.phi_dgid, sizeof h.phi_dgid);
  d.header_seqno = h.phi_update_seqno;
  for (copy_info* cp = priv->pri_log_copies; cp != nullptr; cp = cp->ci_next) {
    d.logs.push_back(log_facts(s, priv, cp));
  }
  for (copy_info* cp = priv->pri_config_copies; cp != nullptr; cp = cp->ci_next) {
    compare_config_copy c;
    c.copy = cp->ci_copy;
    c.enabled = !copy_disabled(cp);
    if (c.enabled) {
      loaded_copy lc(s);
      lc.rep.print_report = false;
      bool ok = false;
      try {
        ok = lc.load(priv, cp) && lc.rep.db->ddb_hdrsize != 0;
      } catch (const fatal_exit&) {
        ok = false;
      }
      if (ok) {
        const voldb_info& vi = lc.rep.hdrinfo;
        c.loaded = true;
        c.tid = seq_text(vi.vdbi_config_tid);
        c.commit_state = vi.vdbi_commit_state;
        c.commit_state_name = commit_state_word(vi.vdbi_commit_state);
        c.version = std::to_string(vi.vdbi_version_major) + "." +
                    std::to_string(vi.vdbi_version_minor);
        std::vector<compare_record> recs = records_of(lc.rep);
        digests.emplace_back(c.copy, digest(c.tid, recs));
        if (d.db_copy < 0) {
          d.db_copy = c.copy;
          d.config_tid = vi.vdbi_config_tid;
          for (const record* r = lc.rep.rlist; r != nullptr; r = r->next) {
            if (r->type != REC_TYPE_DM || r->u == nullptr) continue;
            const dmrec* dm = r->dm();
            d.dm_ids.push_back(c_text(dm->dm_diskid, sizeof dm->dm_diskid));
            d.dm_names.push_back(c_text(r->name, sizeof r->name));
          }
          d.records = std::move(recs);
        }
      }
    }
    d.copies.push_back(std::move(c));
  }
  if (d.db_copy < 0) {
    d.problem = "no configuration copy could be read";
    return;
  }
  d.usable = true;
}

std::string label(const compare_model& m, std::size_t i) {
  const compare_disk& d = m.disks[i];
  return "[" + std::to_string(i + 1) + "]" + (d.disk_name.empty() ? "" : " " + d.disk_name);
}

void analyse(compare_model& m) {
  std::vector<std::size_t> usable;
  for (std::size_t i = 0; i < m.disks.size(); ++i) {
    if (m.disks[i].usable) usable.push_back(i);
  }
  // Names of the disks: the dm record with the disk's id, its own first.
  for (compare_disk& d : m.disks) {
    if (d.disk_id.empty()) continue;
    std::vector<const compare_disk*> order{&d};
    for (const compare_disk& o : m.disks) order.push_back(&o);
    for (const compare_disk* o : order) {
      for (std::size_t k = 0; k < o->dm_ids.size() && d.disk_name.empty(); ++k) {
        if (o->dm_ids[k] == d.disk_id) d.disk_name = o->dm_names[k];
      }
    }
  }
  for (std::size_t i = 0; i < m.disks.size(); ++i) {
    const compare_disk& d = m.disks[i];
    if (!d.usable) {
      m.problems.push_back(label(m, i) + " " + d.path + ": nothing to compare: " + d.problem);
    }
    if (d.primary.checksum == "bad" || d.primary.checksum == "bad magic") {
      m.problems.push_back(label(m, i) + ": primary header: " + d.primary.checksum);
    }
    if (d.alternate.checksum == "bad" || d.alternate.checksum == "bad magic") {
      m.problems.push_back(label(m, i) + ": alternate header: " + d.alternate.checksum);
    }
  }
  // The same disk id on several images.
  for (std::size_t i = 0; i < m.disks.size(); ++i) {
    if (m.disks[i].disk_id.empty()) continue;
    std::vector<std::size_t> same{i};
    bool first = true;
    for (std::size_t j = 0; j < m.disks.size(); ++j) {
      if (j == i || m.disks[j].disk_id != m.disks[i].disk_id) continue;
      if (j < i) first = false;
      same.push_back(j);
    }
    if (same.size() < 2 || !first) continue;
    std::string text = "disk id " + m.disks[i].disk_id + " is on " +
                       std::to_string(same.size()) + " images:";
    for (std::size_t k : same) {
      text += (k == i ? " [" : ", [") + std::to_string(k + 1) + "] " + m.disks[k].path;
    }
    text += "; the same disk given twice, or a copied disk: the membership matrix cannot tell them "
            "apart";
    m.problems.push_back(text);
  }
  if (usable.empty()) return;
  // Another group than the first usable disk's.
  const compare_disk& first = m.disks[usable[0]];
  for (std::size_t i : usable) {
    const compare_disk& d = m.disks[i];
    if (d.group_id != first.group_id) {
      m.problems.push_back(label(m, i) + ": group " + d.group_name + " (" + d.group_id +
                           ") is not the group of " + label(m, usable[0]) + ", " +
                           first.group_name + " (" + first.group_id + ")");
    }
  }
  // Stale disks.
  volseqno_t tid = first.config_tid, seq = first.header_seqno;
  for (std::size_t i : usable) {
    if (seqno_less(tid, m.disks[i].config_tid)) tid = m.disks[i].config_tid;
    if (seqno_less(seq, m.disks[i].header_seqno)) seq = m.disks[i].header_seqno;
  }
  for (std::size_t i : usable) {
    const compare_disk& d = m.disks[i];
    compare_stale st{i, {}};
    if (seqno_less(d.config_tid, tid)) {
      st.why.push_back("config tid " + seq_text(d.config_tid) + " older than " + seq_text(tid));
    }
    if (seqno_less(d.header_seqno, seq)) {
      st.why.push_back("header seqno " + seq_text(d.header_seqno) + " older than " +
                       seq_text(seq));
    }
    if (!st.why.empty()) m.stale.push_back(std::move(st));
  }
  // Record diff, by rid.
  std::map<std::uint64_t, std::vector<const compare_record*>> by_rid;
  for (std::size_t k = 0; k < usable.size(); ++k) {
    for (const compare_record& r : m.disks[usable[k]].records) {
      auto& slot = by_rid[seqno_value(r.rid)];
      slot.resize(usable.size(), nullptr);
      slot[k] = &r;
    }
  }
  for (const auto& [rid, recs] : by_rid) {
    compare_record_diff rd;
    const compare_record* any = nullptr;
    for (std::size_t k = 0; k < usable.size(); ++k) {
      (recs[k] != nullptr ? rd.on : rd.missing).push_back(usable[k]);
      if (any == nullptr) any = recs[k];
    }
    rd.rid = any->rid_text;
    rd.type_name = any->type_name;
    rd.name = any->name;
    if (rd.missing.empty()) {
      std::vector<std::string> names;
      for (const compare_record* r : recs) {
        for (const compare_field& f : r->fields) {
          if (std::find(names.begin(), names.end(), f.name) == names.end()) names.push_back(f.name);
        }
      }
      for (const std::string& n : names) {
        compare_field_diff fd{n, {}};
        bool differs = false;
        for (std::size_t k = 0; k < usable.size(); ++k) {
          const std::string* v = field_value(*recs[k], n);
          fd.values.push_back({usable[k], v != nullptr ? *v : "", v != nullptr});
          differs = differs || fd.values.back().present != fd.values.front().present ||
                    fd.values.back().value != fd.values.front().value;
        }
        if (differs) rd.fields.push_back(std::move(fd));
      }
      if (rd.fields.empty()) continue;
    }
    m.records.push_back(std::move(rd));
  }
  // Membership.
  for (std::size_t i : usable) {
    const compare_disk& d = m.disks[i];
    compare_row row{i, {}, {}};
    for (const compare_disk& o : m.disks) {
      if (o.disk_id.empty()) {
        row.holds.push_back(-1);
      } else {
        row.holds.push_back(std::find(d.dm_ids.begin(), d.dm_ids.end(), o.disk_id) !=
                                    d.dm_ids.end()
                                ? 1
                                : 0);
      }
    }
    for (std::size_t k = 0; k < d.dm_ids.size(); ++k) {
      bool given = false;
      for (const compare_disk& o : m.disks) given = given || o.disk_id == d.dm_ids[k];
      if (!given) row.others.push_back(d.dm_names[k] + " (" + d.dm_ids[k] + ")");
    }
    m.membership.push_back(std::move(row));
  }
}

std::string join_disks(const compare_model& m, const std::vector<std::size_t>& v) {
  std::string out;
  for (std::size_t i : v) out += (out.empty() ? "" : ", ") + label(m, i);
  return out;
}

}  // namespace

compare_model build_compare(session& s, const std::vector<inspect_target>& targets) {
  compare_model m;
  std::vector<std::pair<std::string, compare_holder>> held;  // digest, holder
  bool io_error = false;
  for (std::size_t i = 0; i < targets.size(); ++i) {
    compare_disk d;
    std::vector<std::pair<int, std::string>> digests;
    read_disk(s, targets[i], d, digests);
    io_error = io_error || !d.opened;
    for (const auto& entry : digests) {
      const int copy = entry.first;
      const std::string& dg = entry.second;
      auto it = std::find_if(held.begin(), held.end(), [&](const auto& h) {
        return h.first == dg && h.second.disk == i;
      });
      if (it != held.end()) {
        it->second.copies.push_back(copy);
      } else {
        held.push_back({dg, {i, {copy}}});
      }
    }
    m.disks.push_back(std::move(d));
  }
  // Groups of identical databases, in order of first appearance.
  std::vector<std::string> keys;
  for (const auto& [dg, h] : held) {
    auto k = std::find(keys.begin(), keys.end(), dg);
    if (k == keys.end()) {
      keys.push_back(dg);
      m.groups.push_back({dg.substr(0, dg.find('\n')), {}});
      k = keys.end() - 1;
    }
    m.groups[static_cast<std::size_t>(k - keys.begin())].holders.push_back(h);
  }
  analyse(m);
  bool usable = false;
  for (const compare_disk& d : m.disks) usable = usable || d.usable;
  std::size_t lacking = 0;  // databases that lack a disk given
  for (const compare_row& r : m.membership) {
    lacking += std::count(r.holds.begin(), r.holds.end(), 0) > 0 ? 1 : 0;
  }
  auto count = [](std::size_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
  };
  std::vector<std::string> why;
  if (m.groups.size() > 1) why.push_back(count(m.groups.size(), "database", "different databases"));
  if (!m.stale.empty()) {
    std::string st = count(m.stale.size(), "stale disk", "stale disks") + " (";
    for (std::size_t k = 0; k < m.stale.size(); ++k) {
      st += (k == 0 ? "" : ", ") + label(m, m.stale[k].disk);
    }
    why.push_back(st + ")");
  }
  if (!m.records.empty()) {
    why.push_back(count(m.records.size(), "record differs", "records differ"));
  }
  if (lacking > 0) {
    why.push_back(count(lacking, "database lacks a disk given", "databases lack a disk given"));
  }
  if (!m.problems.empty()) why.push_back(count(m.problems.size(), "problem", "problems"));
  for (const std::string& w : why) m.verdict_why += (m.verdict_why.empty() ? "" : "; ") + w;
  if (io_error) {
    m.status = INSPECT_USAGE_IO;
    m.verdict = "unreadable";
  } else if (!usable) {
    m.status = INSPECT_UNUSABLE;
    m.verdict = "nothing comparable";
  } else if (!why.empty()) {
    m.status = INSPECT_FINDINGS;
    m.verdict = "differences";
  } else {
    m.status = INSPECT_OK;
    m.verdict = "agree";
  }
  return m;
}

int print_compare(FILE* f, const compare_model& m) {
  text_out o(f);
  for (std::size_t i = 0; i < m.disks.size(); ++i) {
    const compare_disk& d = m.disks[i];
    o.printf("[%zu] ", i + 1);
    o.value(d.path);
    o.text("\n");
    if (!d.opened) {
      o.text("    cannot be opened\n");
      continue;
    }
    if (!d.primary.checksum.empty()) {
      o.text("    headers  primary ");
      o.text(d.primary.seqno.empty() ? "-" : d.primary.seqno);
      o.text(" (checksum " + d.primary.checksum + "), alternate ");
      o.text(d.alternate.seqno.empty() ? "-" : d.alternate.seqno);
      o.text(" (checksum " + d.alternate.checksum + ")\n");
    }
    if (!d.disk_id.empty()) {
      o.text("    disk     ");
      o.value(d.disk_name.empty() ? "?" : d.disk_name);
      o.text("  id ");
      o.value(d.disk_id);
      o.text("\n    group    ");
      o.value(d.group_name);
      o.text("  id ");
      o.value(d.group_id);
      o.text("\n");
    }
    if (!d.copies.empty()) {
      o.text("    config  ");
      for (const compare_config_copy& c : d.copies) {
        o.printf("%s copy %d: ", &c == &d.copies.front() ? "" : ";", c.copy);
        if (!c.enabled) {
          o.text("disabled");
        } else if (!c.loaded) {
          o.text("unreadable");
        } else {
          o.text("tid " + c.tid + " " + c.commit_state_name + " version " + c.version);
        }
      }
      o.text("\n");
    }
    if (!d.logs.empty()) {
      o.text("    logs    ");
      for (const compare_log_copy& l : d.logs) {
        o.printf("%s copy %d: ", &l == &d.logs.front() ? "" : ";", l.copy);
        o.text(!l.read                  ? "not read"
               : l.highest_tid.empty() ? "no valid block"
                                       : "highest tid " + l.highest_tid);
      }
      o.text("\n");
    }
    if (!d.usable) o.text("    nothing to compare: " + d.problem + "\n");
  }
  if (!m.groups.empty()) {
    o.text("same database:\n");
    for (const compare_group& g : m.groups) {
      o.text("    tid " + g.tid + ":");
      for (std::size_t k = 0; k < g.holders.size(); ++k) {
        const compare_holder& h = g.holders[k];
        o.text(k == 0 ? " " : "; ");
        o.value(label(m, h.disk));
        o.text(h.copies.size() > 1 ? " copies" : " copy");
        for (std::size_t c = 0; c < h.copies.size(); ++c) {
          o.printf("%s %d", c == 0 ? "" : ",", h.copies[c]);
        }
      }
      o.text("\n");
    }
  }
  if (!m.stale.empty()) {
    o.text("stale:\n");
    for (const compare_stale& st : m.stale) {
      o.text("    ");
      o.value(label(m, st.disk));
      o.text(":");
      for (std::size_t k = 0; k < st.why.size(); ++k) o.text((k == 0 ? " " : "; ") + st.why[k]);
      o.text("\n");
    }
  }
  if (!m.records.empty()) {
    o.text("records:\n");
    for (const compare_record_diff& r : m.records) {
      o.text("    " + r.rid + " " + r.type_name + " ");
      o.value(r.name);
      if (!r.missing.empty()) {
        o.text(": on ");
        o.value(join_disks(m, r.on));
        o.text(", missing on ");
        o.value(join_disks(m, r.missing));
        o.text("\n");
        continue;
      }
      o.text("\n");
      for (const compare_field_diff& fd : r.fields) {
        o.text("        ");
        o.value(fd.name);
        o.text(":");
        for (std::size_t k = 0; k < fd.values.size(); ++k) {
          o.text(k == 0 ? " " : ", ");
          o.value(label(m, fd.values[k].disk));
          o.text(" ");
          o.value(fd.values[k].present ? fd.values[k].value : "(absent)");
        }
        o.text("\n");
      }
    }
  }
  if (!m.membership.empty()) {
    // Cells of five columns; no blank ends a line.
    auto row_text = [](std::string head, const std::vector<std::string>& cells) {
      head.resize(8, ' ');
      for (std::size_t k = 0; k < cells.size(); ++k) {
        std::string c = cells[k];
        if (k + 1 < cells.size()) c.resize(5, ' ');
        head += c;
      }
      return head + "\n";
    };
    o.text("membership (row: a disk's database; column: the disks given):\n");
    std::vector<std::string> heads;
    for (std::size_t j = 0; j < m.disks.size(); ++j) {
      heads.push_back("[" + std::to_string(j + 1) + "]");
    }
    o.text(row_text("", heads));
    for (const compare_row& r : m.membership) {
      std::vector<std::string> cells;
      for (int h : r.holds) cells.push_back(h == 1 ? "yes" : h == 0 ? "NO" : "?");
      o.text(row_text("    [" + std::to_string(r.disk + 1) + "]", cells));
    }
    for (const compare_row& r : m.membership) {
      if (r.others.empty()) continue;
      o.printf("    [%zu] also holds disks not given:", r.disk + 1);
      for (const std::string& x : r.others) {
        o.text(" ");
        o.value(x);
      }
      o.text("\n");
    }
  }
  if (!m.problems.empty()) {
    o.text("problems:\n");
    for (const std::string& p : m.problems) {
      o.text("    ");
      o.value(p);
      o.text("\n");
    }
  }
  o.text("verdict: " + m.verdict);
  if (!m.verdict_why.empty()) {
    o.text(": ");
    o.value(m.verdict_why);
  }
  o.text("\n");
  return m.status;
}

std::vector<copy_mark> compare_marks(const compare_model& m) {
  std::vector<copy_mark> marks;
  if (m.groups.empty()) return marks;
  std::size_t largest = 0;
  for (std::size_t g = 1; g < m.groups.size(); ++g) {
    if (m.groups[g].holders.size() > m.groups[largest].holders.size()) largest = g;
  }
  const compare_group& big = m.groups[largest];
  std::string big_text = "tid " + big.tid + " on";
  for (std::size_t h = 0; h < big.holders.size(); ++h) {
    big_text += (h == 0 ? " " : ", ") + label(m, big.holders[h].disk);
  }
  auto holds = [](const compare_group& g, std::size_t disk, int copy) {
    for (const compare_holder& h : g.holders) {
      if (h.disk == disk && std::find(h.copies.begin(), h.copies.end(), copy) != h.copies.end()) {
        return true;
      }
    }
    return false;
  };
  for (std::size_t i = 0; i < m.disks.size(); ++i) {
    const auto stale = std::find_if(m.stale.begin(), m.stale.end(),
                                    [&](const compare_stale& st) { return st.disk == i; });
    for (const compare_config_copy& c : m.disks[i].copies) {
      if (!c.enabled) continue;
      std::vector<std::string> why;
      if (stale != m.stale.end()) {
        std::string w = "stale disk (";
        for (std::size_t k = 0; k < stale->why.size(); ++k) {
          w += (k == 0 ? "" : "; ") + stale->why[k];
        }
        why.push_back(w + ")");
      }
      if (!holds(big, i, c.copy)) {
        const auto other = std::find_if(m.groups.begin(), m.groups.end(), [&](const auto& g) {
          return holds(g, i, c.copy);
        });
        why.push_back(other == m.groups.end()
                          ? "its database was not read"
                          : "database of tid " + other->tid +
                                ", not the one of the most disks (" + big_text + ")");
      }
      if (why.empty()) continue;
      std::string text = "config copy " + std::to_string(c.copy) + " of disk " + label(m, i) +
                         " differs: ";
      for (std::size_t k = 0; k < why.size(); ++k) text += (k == 0 ? "" : "; ") + why[k];
      marks.push_back({i, c.copy, text});
    }
  }
  return marks;
}

int inspect_compare(session& s, const std::vector<inspect_target>& disks,
                    const std::string& svg) {
  if (!svg.empty()) {
    const int refused = refuse_svg_over_input(s, "compare", disks, svg);
    if (refused != INSPECT_OK) return refused;
  }
  const compare_model m = build_compare(s, disks);
  const int status = print_compare(s.out, m);
  if (svg.empty()) return status;
  std::vector<disk_map> maps(disks.size());
  map_svg_options o;
  for (std::size_t i = 0; i < disks.size(); ++i) {
    build_disk_map(s, disks[i], maps[i]);  // an unopened image: an empty strip and its note
    o.scale = std::max(o.scale, maps[i].sectors);
  }
  o.marks = compare_marks(m);
  const int written = write_map_svg_file(s, "compare", maps, o, svg);
  return written != INSPECT_OK ? written : status;
}

}  // namespace pd
