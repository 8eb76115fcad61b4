// The map model: strips of spans and rows of block runs (region_map.h).
#include "inspect/region_map.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "base/errors.h"
#include "codec/text_forms.h"
#include "config_db/block_store.h"
#include "inspect/inspect_region.h"
#include "inspect/inspect_scan_model.h"
#include "io/findings.h"
#include "io/messages.h"
#include "private_region/toc.h"
#include "report/copy_loading.h"

namespace pd {

const char* span_kind_name(span_kind k) {
  switch (k) {
    case span_kind::header:
      return "header";
    case span_kind::toc:
      return "toc";
    case span_kind::config:
      return "config";
    case span_kind::log:
      return "log";
    case span_kind::free:
      break;
  }
  return "free";
}

const char* block_kind_name(block_kind k) {
  switch (k) {
    case block_kind::db_header:
      return "db-header";
    case block_kind::used:
      return "used";
    case block_kind::free:
      return "free";
    case block_kind::bad:
      return "bad";
    case block_kind::incomplete:
      return "incomplete";
    case block_kind::refused:
      return "refused";
    case block_kind::finding:
      break;
  }
  return "finding";
}

void add_block_run(std::vector<block_run>& runs, block_kind kind, std::uint64_t block,
                   const std::string& what) {
  if (!runs.empty() && runs.back().kind == kind && runs.back().first + runs.back().count == block) {
    block_run& r = runs.back();
    ++r.count;
    // The blocks of one record follow each other: it is named once. The
    // first map_title_records items are named, then "..." stands for the rest.
    if (what.empty()) return;
    const std::size_t last = r.title.rfind('\n');
    if (r.title.compare(last == std::string::npos ? 0 : last + 1, std::string::npos, what) == 0) {
      return;
    }
    const std::size_t named =
        r.title.empty()
            ? 0
            : 1 + static_cast<std::size_t>(std::count(r.title.begin(), r.title.end(), '\n'));
    if (named < static_cast<std::size_t>(map_title_records)) {
      r.title += (r.title.empty() ? "" : "\n") + what;
    } else if (named == static_cast<std::size_t>(map_title_records)) {
      r.title += "\n...";
    }
    return;
  }
  runs.push_back({block, 1, kind, what});
}

namespace {

std::string sector_range(std::uint64_t first, std::uint64_t count) {
  return count == 1 ? "sector " + std::to_string(first)
                    : "sectors " + std::to_string(first) + "-" + std::to_string(first + count - 1);
}

// The image byte a finding names, or -1.
std::int64_t finding_byte(const finding& f, int ss) {
  if (f.place.offset >= 0) return f.place.offset;
  if (f.place.sector >= 0) return f.place.sector * ss;
  return -1;
}

void add_span(disk_map& m, std::uint64_t first, std::uint64_t count, span_kind kind,
              const std::string& what) {
  if (count == 0) return;
  m.spans.push_back({first, count, kind, true, sector_range(first, count) + ": " + what});
}

void add_copy_spans(disk_map& m, const priv_header_info* h, const copy_info* list, span_kind kind) {
  const std::uint64_t chunk = h->phi_chunk_size;
  const std::uint64_t ss = static_cast<std::uint64_t>(m.sector_size);
  for (const copy_info* cp = list; cp != nullptr; cp = cp->ci_next) {
    for (int i = 0; i < cp->ci_npart; ++i) {
      if (cp->ci_parts[i] == nullptr) continue;
      const disk_region& rg = cp->ci_parts[i]->tei_region;
      if (rg.dkr_offset < 0 || rg.dkr_len <= 0) continue;
      const std::uint64_t start = chunk * static_cast<std::uint64_t>(rg.dkr_offset);
      const std::uint64_t len = chunk * static_cast<std::uint64_t>(rg.dkr_len);
      std::string what = std::string(kind == span_kind::config ? "config" : "log") + " copy " +
                         std::to_string(cp->ci_copy);
      if (cp->ci_npart > 1) what += " part " + std::to_string(i);
      if ((rg.dkr_flags & DKR_DISABLED) != 0) what += " (disabled)";
      add_span(m, start / ss, (len + ss - 1) / ss, kind, what);
    }
  }
}

// Free spans in the gaps, spans clipped to the strip and sorted.
void fill_free(disk_map& m) {
  std::stable_sort(m.spans.begin(), m.spans.end(),
                   [](const map_span& a, const map_span& b) { return a.first < b.first; });
  std::vector<map_span> out;
  std::uint64_t at = 0;
  for (map_span& s : m.spans) {
    if (s.first >= m.sectors) {
      s.title += " (past the end of the image)";
      s.verifies = false;
      out.push_back(s);
      continue;
    }
    if (s.first > at)
      out.push_back(
          {at, s.first - at, span_kind::free, true, sector_range(at, s.first - at) + ": free"});
    at = std::max(at, s.first + s.count);
    out.push_back(s);
  }
  if (at < m.sectors)
    out.push_back(
        {at, m.sectors - at, span_kind::free, true, sector_range(at, m.sectors - at) + ": free"});
  m.spans = std::move(out);
}

void mark_findings(disk_map& m, const std::vector<finding>& found) {
  for (const finding& f : found) {
    const std::int64_t byte = finding_byte(f, m.sector_size);
    if (byte < 0) continue;
    const std::uint64_t sector =
        static_cast<std::uint64_t>(byte) / static_cast<std::uint64_t>(m.sector_size);
    for (map_span& s : m.spans) {
      if (s.kind == span_kind::free || sector < s.first || sector - s.first >= s.count) continue;
      s.verifies = false;
      s.title += std::string("\n") + f.name() + ": " + f.text;
    }
  }
}

std::string record_words(const db_record* r) {
  std::string w = "ref " + std::to_string(r->dbr_ref);
  if (const record* rec = record_of(r); rec != nullptr) {
    char rid[48];
    volseqnotostr(rec->rid, rid);
    w += ", " + std::string(rec->name, strnlen(rec->name, sizeof rec->name)) + " (rid " + rid + ")";
  }
  return w;
}

void add_row(disk_map& m, inspect_image& img, copy_info* cp) {
  copy_row row;
  row.copy = cp->ci_copy;
  row.enabled = !(cp->ci_npart > 0 && cp->ci_parts[0] != nullptr &&
                  (cp->ci_parts[0]->tei_region.dkr_flags & DKR_DISABLED) != 0);
  finding_collector got;
  sink_guard guard(img.s, &got);
  config_report rep(img.s);
  rep.print_report = false;
  row.title = "config copy " + std::to_string(cp->ci_copy);
  if (priv_load_config(img.s, img.priv(), cp, rep) != 1 || rep.db == nullptr ||
      rep.db->ddb_blksize == 0) {
    row.title += ": cannot be loaded";
    m.rows.push_back(std::move(row));
    return;
  }
  const dbase* db = rep.db;
  row.nblocks = db->ddb_nblocks;
  row.title += ": " + std::to_string(db->ddb_nblocks) + " blocks of " +
               std::to_string(db->ddb_blksize) + " bytes";
  // Findings by store block.
  std::map<std::uint64_t, std::string> at;
  for (const finding& f : got.list) {
    if (f.place.block < 0) continue;
    std::string& t = at[static_cast<std::uint64_t>(f.place.block) * 512 / db->ddb_blksize];
    t += std::string(t.empty() ? "" : "; ") + f.name() + ": " + f.text;
  }
  const std::uint64_t first = db->ddb_hdrsize / db->ddb_blksize;
  for (std::uint64_t b = 0; b < first && b < db->ddb_nblocks; ++b) {
    add_block_run(row.runs, block_kind::db_header, b, "database header");
  }
  for (std::uint64_t b = first; b < db->ddb_nblocks; ++b) {
    const db_block& blk = ddb_block(db, b);
    block_kind kind = block_kind::free;
    std::string what;
    if ((blk.dbb_flag & DBB_BAD) != 0) {
      kind = block_kind::bad;
      what = "block " + std::to_string(b) + ": bad (magic or block number)";
    } else if ((blk.dbb_flag & DBB_INCOMPLETE) != 0) {
      kind = block_kind::incomplete;
    } else if (blk.dbb_record != nullptr) {
      kind = record_of(blk.dbb_record) == nullptr ? block_kind::refused : block_kind::used;
    }
    if (blk.dbb_record != nullptr) {
      what = record_words(blk.dbb_record) + (what.empty() ? "" : "; " + what);
    }
    if (auto it = at.find(b); it != at.end()) {
      if (kind == block_kind::used || kind == block_kind::free) kind = block_kind::finding;
      what += (what.empty() ? "" : "; ") + it->second;
    }
    add_block_run(row.runs, kind, b, what);
  }
  m.rows.push_back(std::move(row));
}

}  // namespace

bool build_disk_map(const session& like, const inspect_target& t, disk_map& m) {
  m.image = t.image;
  m.sector_size = t.sector_size;
  const std::vector<finding> found = region_findings(like, t);
  mem_stream out, err;
  if (out.f == nullptr || err.f == nullptr) return false;
  session rs(out.f, err.f);
  rs.progname = like.progname;
  volsetlabel(rs, "qztool:priv");
  inspect_image img(rs);
  img.announce = false;
  if (!img.open(t)) {
    m.note = err.text();
    while (!m.note.empty() && m.note.back() == '\n') m.note.pop_back();
    return false;
  }
  m.sectors = scan_sector_count(img);
  try {
    if (!img.holds_header_positions() || img.scan() != VE_OK) {
      m.note = "no header found";
    } else {
      const priv_header_info* h = img.priv()->pri_header;
      add_span(m, static_cast<std::uint64_t>(h->phi_primary_header), 1, span_kind::header,
               "primary header");
      add_span(m, static_cast<std::uint64_t>(h->phi_alt_header), 1, span_kind::header,
               "alternate header");
      if (img.join() != VE_OK) {
        m.note = "table of contents not joined";
      } else {
        const priv_info* priv = img.priv();
        for (std::size_t i = 0; i < priv->pri_toc_len; ++i) {
          if (priv->pri_toc_sectors != nullptr && priv->pri_toc_sectors[i] >= 0) {
            add_span(m, static_cast<std::uint64_t>(priv->pri_toc_sectors[i]), 1, span_kind::toc,
                     "primary TOC block " + std::to_string(i));
          }
          if (priv->pri_alt_toc_sectors != nullptr && priv->pri_alt_toc_sectors[i] >= 0) {
            add_span(m, static_cast<std::uint64_t>(priv->pri_alt_toc_sectors[i]), 1, span_kind::toc,
                     "alternate TOC block " + std::to_string(i));
          }
        }
        add_copy_spans(m, h, priv->pri_config_copies, span_kind::config);
        add_copy_spans(m, h, priv->pri_log_copies, span_kind::log);
        for (copy_info* cp = img.priv()->pri_config_copies; cp != nullptr; cp = cp->ci_next) {
          add_row(m, img, cp);
        }
      }
    }
  } catch (const fatal_exit&) {
    if (m.note.empty()) m.note = "stopped: a fatal fault";
  }
  fill_free(m);
  mark_findings(m, found);
  return true;
}

}  // namespace pd
