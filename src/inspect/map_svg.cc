// The map as SVG, streamed: integer coordinates, colours from a fixed
// table, a <title> on every shape, nothing that varies between runs.
#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#include "inspect/region_map.h"

namespace pd {

namespace {

constexpr int margin = 10;
constexpr int scale_width = 1000;  // pixels for a whole strip or row
constexpr int min_width = 2;       // a span is never drawn narrower
constexpr int line = 18;           // a line of text
constexpr int strip_height = 28;
constexpr int row_height = 16;
constexpr int gap = 6;
constexpr int legend_height = 2 * line + gap;

const char* span_fill(span_kind k) {
  switch (k) {
    case span_kind::header:
      return "#d62728";
    case span_kind::toc:
      return "#ff7f0e";
    case span_kind::config:
      return "#1f77b4";
    case span_kind::log:
      return "#2ca02c";
    case span_kind::free:
      break;
  }
  return "#eeeeee";
}

const char* block_fill(block_kind k) {
  switch (k) {
    case block_kind::db_header:
      return "#9467bd";
    case block_kind::used:
      return "#17becf";
    case block_kind::free:
      return "#eeeeee";
    case block_kind::bad:
      return "#000000";
    case block_kind::incomplete:
      return "#bcbd22";
    case block_kind::refused:
      return "#8c564b";
    case block_kind::finding:
      break;
  }
  return "#e377c2";
}

// `&<>"` as entities, other control bytes and non-ASCII bytes as \xNN;
// line breaks kept.
std::string xml_escape(std::string_view s) {
  std::string out;
  char hex[8];
  for (unsigned char c : s) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        if (c == '\n' || (c >= 0x20 && c < 0x7f)) {
          out += static_cast<char>(c);
        } else {
          std::snprintf(hex, sizeof hex, "\\x%02x", c);
          out += hex;
        }
    }
  }
  return out;
}

int disk_height(const disk_map& m) {
  return line + strip_height + gap + static_cast<int>(m.rows.size()) * (line + row_height) + gap;
}

// [first, first+count) of `total` as x and width, at least min_width wide.
void place(std::uint64_t first, std::uint64_t count, std::uint64_t total, int& x, int& w,
           bool& widened) {
  if (total == 0) total = 1;
  const std::uint64_t a = std::min(first, total) * scale_width / total;
  const std::uint64_t b = std::min(first + count, total) * scale_width / total;
  x = margin + static_cast<int>(a);
  w = static_cast<int>(b - a);
  widened = w < min_width;
  if (widened) {
    w = min_width;
    if (x + w > margin + scale_width) x = margin + scale_width - w;
  }
}

void shape(FILE* out, const char* cls, const char* fill, bool hatched, int x, int y, int w, int h,
           const std::string& title, bool widened) {
  std::fprintf(out, "<g class=\"%s\"><title>%s%s</title>", cls, xml_escape(title).c_str(),
               widened ? "\n(drawn wider than to scale)" : "");
  std::fprintf(out, "<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" fill=\"%s\"/>", x, y, w, h,
               fill);
  if (hatched) {
    std::fprintf(out,
                 "<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" "
                 "fill=\"url(#hatch)\"/>",
                 x, y, w, h);
  }
  std::fputs("</g>\n", out);
}

void text(FILE* out, int x, int y, const std::string& s) {
  std::fprintf(out, "<text x=\"%d\" y=\"%d\">%s</text>\n", x, y, xml_escape(s).c_str());
}

const char* const differs_stroke = "#d62728";

void legend(FILE* out, int y, bool marks) {
  int x = margin;
  const span_kind spans[] = {span_kind::header, span_kind::toc, span_kind::config, span_kind::log,
                             span_kind::free};
  for (span_kind k : spans) {
    std::fprintf(out, "<rect x=\"%d\" y=\"%d\" width=\"12\" height=\"12\" fill=\"%s\"/>", x, y + 3,
                 span_fill(k));
    text(out, x + 16, y + 14, span_kind_name(k));
    x += 110;
  }
  std::fprintf(out,
               "<rect x=\"%d\" y=\"%d\" width=\"12\" height=\"12\" fill=\"#ffffff\"/>"
               "<rect x=\"%d\" y=\"%d\" width=\"12\" height=\"12\" "
               "fill=\"url(#hatch)\"/>",
               x, y + 3, x, y + 3);
  text(out, x + 16, y + 14, "does not verify");
  x = margin;
  y += line + gap;
  const block_kind blocks[] = {block_kind::db_header, block_kind::used,       block_kind::free,
                               block_kind::bad,       block_kind::incomplete, block_kind::refused,
                               block_kind::finding};
  for (block_kind k : blocks) {
    std::fprintf(out, "<rect x=\"%d\" y=\"%d\" width=\"12\" height=\"12\" fill=\"%s\"/>", x, y + 3,
                 block_fill(k));
    text(out, x + 16, y + 14, block_kind_name(k));
    x += 110;
  }
  if (marks) {
    std::fprintf(out,
                 "<rect x=\"%d\" y=\"%d\" width=\"10\" height=\"10\" fill=\"none\" "
                 "stroke=\"%s\" stroke-width=\"2\"/>",
                 x + 1, y + 4, differs_stroke);
    text(out, x + 16, y + 14, "differs");
  }
}

const copy_mark* mark_of(const map_svg_options& o, std::size_t disk, int copy) {
  for (const copy_mark& k : o.marks) {
    if (k.disk == disk && k.copy == copy) return &k;
  }
  return nullptr;
}

}  // namespace

void write_map_svg(FILE* out, const std::vector<disk_map>& maps, const map_svg_options& options) {
  int height = margin + legend_height + margin;
  for (const disk_map& m : maps) height += disk_height(m);
  const int width = 2 * margin + scale_width;
  std::fprintf(out,
               "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
               "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" "
               "viewBox=\"0 0 %d %d\" font-family=\"monospace\" font-size=\"12\">\n",
               width, height, width, height);
  std::fputs(
      "<defs><pattern id=\"hatch\" width=\"6\" height=\"6\" "
      "patternUnits=\"userSpaceOnUse\">"
      "<path d=\"M0 6L6 0\" stroke=\"#000000\" "
      "stroke-width=\"1\"/></pattern></defs>\n"
      "<rect x=\"0\" y=\"0\" width=\"100%\" height=\"100%\" "
      "fill=\"#ffffff\"/>\n",
      out);
  int y = margin;
  for (std::size_t i = 0; i < maps.size(); ++i) {
    const disk_map& m = maps[i];
    // Strips drawn to one scale end where their own region ends.
    const std::uint64_t total = std::max(options.scale, m.sectors);
    std::string head = m.image + ": " + std::to_string(m.sectors) + " sectors of " +
                       std::to_string(m.sector_size) + " bytes";
    if (!m.note.empty()) head += " (" + m.note + ")";
    text(out, margin, y + 13, head);
    y += line;
    // Free space first, so that a widened structure is drawn over it.
    for (int pass = 0; pass < 2; ++pass) {
      for (const map_span& s : m.spans) {
        if ((s.kind == span_kind::free) != (pass == 0)) continue;
        int x = 0, w = 0;
        bool widened = false;
        place(s.first, s.count, total, x, w, widened);
        const std::string cls = std::string("span ") + span_kind_name(s.kind);
        shape(out, cls.c_str(), span_fill(s.kind), !s.verifies, x, y, w, strip_height, s.title,
              widened);
      }
    }
    y += strip_height + gap;
    for (const copy_row& r : m.rows) {
      const copy_mark* mark = mark_of(options, i, r.copy);
      text(out, margin, y + 13,
           r.title + (r.enabled ? "" : " (disabled)") + (mark != nullptr ? " (differs)" : ""));
      y += line;
      for (int pass = 0; pass < 2; ++pass) {
        for (const block_run& b : r.runs) {
          if ((b.kind == block_kind::free) != (pass == 0)) continue;
          int x = 0, w = 0;
          bool widened = false;
          place(b.first, b.count, r.nblocks, x, w, widened);
          std::string title = b.count == 1 ? "block " + std::to_string(b.first)
                                           : "blocks " + std::to_string(b.first) + "-" +
                                                 std::to_string(b.first + b.count - 1);
          title += std::string(": ") + block_kind_name(b.kind);
          if (!b.title.empty()) title += "\n" + b.title;
          const std::string cls = std::string("block ") + block_kind_name(b.kind);
          shape(out, cls.c_str(), block_fill(b.kind), !b.verifies(), x, y, w, row_height, title,
                widened);
        }
      }
      if (mark != nullptr) {
        std::fprintf(out,
                     "<g class=\"differs\"><title>%s</title><rect x=\"%d\" y=\"%d\" "
                     "width=\"%d\" height=\"%d\" fill=\"none\" stroke=\"%s\" "
                     "stroke-width=\"3\"/></g>\n",
                     xml_escape(mark->why).c_str(), margin - 2, y - 2, scale_width + 4,
                     row_height + 4, differs_stroke);
      }
      y += row_height;
    }
    y += gap;
  }
  legend(out, y, !options.marks.empty());
  std::fputs("</svg>\n", out);
}

}  // namespace pd
