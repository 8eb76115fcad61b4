// The map as text: one line per strip and per configuration copy, each
// cell a share of the line; a cell shows the kind that holds the most of
// it, any structure winning over free space.
#include <cstdio>
#include <string>
#include <vector>

#include "inspect/output.h"
#include "inspect/region_map.h"

namespace pd {

namespace {

constexpr int cells = 64;

struct look {
  char ascii;
  const char* glyph;   // UTF-8
  const char* colour;  // ANSI SGR
};

look span_look(span_kind k, bool verifies) {
  if (!verifies) return {'X', "\u2592", "31"};
  switch (k) {
    case span_kind::header:
      return {'H', "\u2588", "31"};
    case span_kind::toc:
      return {'T', "\u2588", "33"};
    case span_kind::config:
      return {'C', "\u2588", "34"};
    case span_kind::log:
      return {'L', "\u2588", "32"};
    case span_kind::free:
      break;
  }
  return {'.', "\u00b7", "2"};
}

look block_look(block_kind k) {
  switch (k) {
    case block_kind::db_header:
      return {'D', "\u2588", "35"};
    case block_kind::used:
      return {'#', "\u2588", "36"};
    case block_kind::free:
      return {'.', "\u00b7", "2"};
    case block_kind::bad:
      return {'B', "\u2592", "31"};
    case block_kind::incomplete:
      return {'I', "\u2592", "33"};
    case block_kind::refused:
      return {'R', "\u2592", "31"};
    case block_kind::finding:
      break;
  }
  return {'!', "\u2592", "35"};
}

// Per cell: the look of the item covering most of it (free only when
// nothing else touches the cell).
template <class Item, class Look>
std::vector<look> cells_of(const std::vector<Item>& items, std::uint64_t total, Look look_of,
                           bool (*is_free)(const Item&)) {
  std::vector<look> out(cells, look{' ', " ", "0"});
  std::vector<std::uint64_t> best(cells, 0);
  std::vector<bool> structure(cells, false);
  if (total == 0) return out;
  for (const Item& it : items) {
    const bool free = is_free(it);
    const std::uint64_t end = std::min(it.first + it.count, total);
    for (std::uint64_t c = it.first * cells / total; c < cells && c * total < end * cells; ++c) {
      const std::uint64_t lo = std::max(it.first * cells, c * total);
      const std::uint64_t hi = std::min(end * cells, (c + 1) * total);
      const std::uint64_t share = hi > lo ? hi - lo : 1;
      if ((!free && !structure[c]) || ((free == !structure[c]) && share > best[c])) {
        out[c] = look_of(it);
        best[c] = share;
        structure[c] = structure[c] || !free;
      }
    }
  }
  return out;
}

void put_line(FILE* out, const std::vector<look>& v, bool fancy) {
  std::fputs("  |", out);
  const char* on = nullptr;
  for (const look& l : v) {
    if (!fancy) {
      std::fputc(l.ascii, out);
      continue;
    }
    if (on == nullptr || std::string(on) != l.colour) {
      std::fprintf(out, "\x1b[0;%sm", l.colour);
      on = l.colour;
    }
    std::fputs(l.glyph, out);
  }
  std::fputs(fancy ? "\x1b[0m|\n" : "|\n", out);
}

// "  X word  Y word" (fancy: each glyph in its colour).
void legend_line(FILE* out, const look* looks, const char* const* words, int n, bool fancy) {
  std::fputs(" ", out);
  for (int i = 0; i < n; ++i) {
    if (fancy) {
      std::fprintf(out, " \x1b[0;%sm%s\x1b[0m %s", looks[i].colour, looks[i].glyph, words[i]);
    } else {
      std::fprintf(out, "%s%c %s", i == 0 ? " " : "  ", looks[i].ascii, words[i]);
    }
  }
  std::fputs("\n", out);
}

}  // namespace

void write_map_text(FILE* out, const std::vector<disk_map>& maps, bool fancy) {
  for (const disk_map& m : maps) {
    std::fprintf(out, "%s: %llu sectors of %d bytes%s%s%s\n", escape_text(m.image).c_str(),
                 static_cast<unsigned long long>(m.sectors), m.sector_size,
                 m.note.empty() ? "" : " (", escape_text(m.note).c_str(),
                 m.note.empty() ? "" : ")");
    put_line(
        out,
        cells_of(
            m.spans, m.sectors, [](const map_span& s) { return span_look(s.kind, s.verifies); },
            +[](const map_span& s) { return s.kind == span_kind::free; }),
        fancy);
    for (const copy_row& r : m.rows) {
      std::fprintf(out, "  %s%s\n", escape_text(r.title).c_str(), r.enabled ? "" : " (disabled)");
      put_line(out,
               cells_of(
                   r.runs, r.nblocks, [](const block_run& b) { return block_look(b.kind); },
                   +[](const block_run& b) { return b.kind == block_kind::free; }),
               fancy);
    }
  }
  const look spans[] = {span_look(span_kind::header, true), span_look(span_kind::toc, true),
                        span_look(span_kind::config, true), span_look(span_kind::log, true),
                        span_look(span_kind::free, true),   span_look(span_kind::free, false)};
  const char* const span_words[] = {"header", "toc", "config", "log", "free", "does not verify"};
  const look blocks[] = {block_look(block_kind::db_header), block_look(block_kind::used),
                         block_look(block_kind::bad),       block_look(block_kind::incomplete),
                         block_look(block_kind::refused),   block_look(block_kind::finding)};
  const char* const block_words[] = {"db header",  "used",    "bad",
                                     "incomplete", "refused", "finding"};
  legend_line(out, spans, span_words, 6, fancy);
  legend_line(out, blocks, block_words, 6, fancy);
}

}  // namespace pd
