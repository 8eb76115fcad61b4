// `privinspect anonymise`: the command around the region rewrite (anon.h):
// the key, the pseudonyms, OUT written through new_image, the self-check
// before OUT is kept, the map file and the marker.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string_view>
#include <unordered_map>

#include "inspect/anon.h"
#include "inspect/inspect.h"
#include "inspect/inspect_region.h"
#include "inspect/new_image.h"
#include "io/messages.h"

namespace pd {

namespace {

constexpr std::size_t min_searched = 3;  // values shorter than this are not searched for

int fail(session& s, const std::string& why) {
  std::fprintf(s.err, "%s: anonymise: %s\n", s.progname, why.c_str());
  return INSPECT_USAGE_IO;
}

std::string hex_of(const std::string& v) {
  std::string h;
  for (unsigned char c : v) {
    h.push_back("0123456789abcdef"[c >> 4]);
    h.push_back("0123456789abcdef"[c & 15]);
  }
  return h;
}

// check's whole output and status on `t`.
// check's text on `t`, with the image's own name in its messages
// ("privinspect: PATH: ...") written as IMAGE: IN and OUT.tmp have names of
// their own, and IN's may hold a name that the map replaces.
std::pair<int, std::string> check_text(const session& like, const inspect_target& t) {
  mem_stream out, err;
  session s(out.f, err.f);
  s.progname = like.progname;
  volsetlabel(s, "qztool:priv");
  const int status = inspect_check(s, t, false);
  std::string text = out.text() + err.text();
  const std::string named = std::string(like.progname) + ": " + t.image + ": ";
  const std::string unnamed = std::string(like.progname) + ": IMAGE: ";
  for (std::size_t at = 0; (at = text.find(named, at)) != std::string::npos; at += unnamed.size())
    text.replace(at, named.size(), unnamed);
  return {status, text};
}

std::string fold(std::string v) {
  for (char& c : v) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return v;
}

// The first original value found in `bytes` (as stored in any case, or as
// 16-bit wide characters of either byte order), with where; empty if none.
// One pass over the bytes: every needle is indexed by its first 3 bytes.
std::string find_original(const std::vector<std::uint8_t>& bytes, const anon_names& names) {
  struct needle {
    std::string text;
    const std::string* value;
    const char* form;
  };
  std::vector<needle> needles;
  for (const auto& [v, p] : names.map()) {
    if (v.size() < min_searched) continue;
    const std::string f = fold(v);
    std::string le, be;
    for (char c : f) {
      le += c;
      le += '\0';
      be += '\0';
      be += c;
    }
    needles.push_back({f, &v, ""});
    needles.push_back({le, &v, " as wide characters"});
    needles.push_back({be, &v, " as wide characters"});
  }
  auto key = [](const char* p) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(p[0])) << 16 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(p[1])) << 8 |
           static_cast<unsigned char>(p[2]);
  };
  // Names often share their first bytes (vol01, vol02, ...): each first
  // three bytes lead to the lengths of the needles that start with them,
  // and a needle is found by its whole text, so that a position costs a
  // lookup per length, not a comparison per needle.
  std::unordered_map<std::uint32_t, std::vector<std::size_t>> lengths;
  std::unordered_map<std::string_view, const needle*> by_text;
  for (const needle& n : needles) {
    if (!by_text.emplace(n.text, &n).second) continue;
    std::vector<std::size_t>& l = lengths[key(n.text.data())];
    if (std::find(l.begin(), l.end(), n.text.size()) == l.end()) l.push_back(n.text.size());
  }
  for (auto& [k, l] : lengths) std::sort(l.begin(), l.end());
  const std::string hay = fold(std::string(bytes.begin(), bytes.end()));
  const std::string_view h(hay);
  for (std::size_t i = 0; i + min_searched <= h.size(); ++i) {
    auto it = lengths.find(key(h.data() + i));
    if (it == lengths.end()) continue;
    for (std::size_t len : it->second) {
      if (len > h.size() - i) break;
      auto found = by_text.find(h.substr(i, len));
      if (found != by_text.end()) {
        const needle* n = found->second;
        return "\"" + *n->value + "\"" + n->form + " at byte " + std::to_string(i);
      }
    }
  }
  return {};
}

// The first line where the two texts differ, for the reason.
std::string first_difference(const std::string& want, const std::string& got) {
  std::istringstream a(want), b(got);
  std::string la, lb;
  for (int n = 1;; ++n) {
    const bool ha = static_cast<bool>(std::getline(a, la));
    const bool hb = static_cast<bool>(std::getline(b, lb));
    if (!ha && !hb) return "the statuses differ";
    if (la != lb || ha != hb) {
      return "line " + std::to_string(n) + ": expected \"" + (ha ? la : "") + "\", got \"" +
             (hb ? lb : "") + "\"";
    }
  }
}

// The map file, written beside its name and renamed.
bool write_map(const std::string& path, bool force, const nlohmann::json& doc, std::string* why) {
  struct stat st;
  if (!force && ::stat(path.c_str(), &st) == 0) {
    *why = path + ": exists (use --force to replace it)";
    return false;
  }
  const std::string tmp = path + ".tmp";
  const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    *why = tmp + ": cannot create: " + std::strerror(errno);
    return false;
  }
  const std::string text = doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ok = ::fsync(fd) == 0 && ok;
  ok = ::close(fd) == 0 && ok;
  if (!ok || ::rename(tmp.c_str(), path.c_str()) != 0) {
    *why = path + ": cannot write: " + std::strerror(errno);
    ::unlink(tmp.c_str());
    return false;
  }
  return true;
}

bool same_file(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
         sa.st_ino == sb.st_ino;
}

// The values of another disk of the group (read as IN is, at its sector size).
bool collect_from(session& q, const inspect_target& t, const std::string& path, anon_names& names,
                  bool ids) {
  inspect_target ot = t;
  ot.image = path;
  inspect_image img(q);
  img.announce = false;
  if (!img.open(ot)) return false;
  std::vector<std::uint8_t> region(img.file_size());
  if (img.read_at(0, region.data(), region.size()) != region.size()) return false;
  if (img.holds_header_positions()) img.locate();
  anon_collect(img, region, names, ids);
  return true;
}

}  // namespace

int inspect_anonymise(session& s, const inspect_target& t, const anonymise_options& o) {
  std::string why;
  if (o.key_path.empty()) return fail(s, "--key KEYFILE is required");
  if (!o.map_path.empty() && (o.map_path == o.out || same_file(o.map_path, t.image)))
    return fail(s, o.map_path + ": the map file cannot be IN or OUT");
  if (o.new_key && !anon_new_key(o.key_path, &why)) return fail(s, why);
  std::vector<std::uint8_t> key;
  if (!anon_read_key(o.key_path, &key, &why)) return fail(s, why);

  // The region, read through the image every view reads.
  mem_stream quiet_out, quiet_err;
  session q(quiet_out.f, quiet_err.f);
  q.progname = s.progname;
  volsetlabel(q, "qztool:priv");
  inspect_image img(q);
  img.announce = false;
  if (!img.open(t)) return fail(s, t.image + ": cannot be read: " + quiet_err.text());
  std::vector<std::uint8_t> region(img.file_size());
  if (img.read_at(0, region.data(), region.size()) != region.size())
    return fail(s, t.image + ": short read");
  if (img.holds_header_positions()) img.locate();

  anon_names names(key);
  anon_collect(img, region, names, o.ids);
  for (const std::string& other : o.with) {
    if (!collect_from(q, t, other, names, o.ids)) return fail(s, other + ": cannot be read");
  }
  if (!names.resolve(&why)) return fail(s, why + "; nothing written");
  // check on IN, once; for a whole disk without the line naming the region
  // chosen, since OUT is that region.
  auto [in_status, in_text] = check_text(s, t);
  if (img.window_offset() != 0 || t.region != 0 || t.offset_sector >= 0) {
    const std::string note = std::string(s.progname) + ": IMAGE: the private region at";
    std::istringstream lines(in_text);
    std::string kept, line;
    while (std::getline(lines, line)) {
      if (line.rfind(note, 0) != 0) kept += line + "\n";
    }
    in_text = kept;
  }
  const std::string want = anon_mask_computed(anon_map_text(names, in_text));

  // The rewrite, with the slack and unused space zeroed; when that changes
  // what check finds (damage that lies in them), once more keeping them.
  nlohmann::json manifest;
  anon_rewrite_stats stats;
  std::unique_ptr<new_image> w;
  std::vector<std::uint8_t> out;
  for (const bool zero : {true, false}) {
    out = region;
    stats = anon_rewrite_stats{};
    if (!anon_rewrite(img, out, names, zero, &stats, &why, o.ids))
      return fail(s, why + "; nothing written");
    manifest = {{"anonymised", true},
                {"tool", std::string("privinspect ") + o.tool_version},
                {"key_id", anon_key_id(key)},
                {"options", {{"ids", o.ids}}},
                {"slack_zeroed", zero},
                {"sector_size", img.sector_size()},
                {"values", names.map().size()}};
    // The marker: the first sector of the region that no structure uses.
    const std::string marker = std::string(anon_marker_magic) + manifest.dump();
    const auto ss = static_cast<std::size_t>(img.sector_size());
    bool marked = false;
    if (marker.size() < ss && zero && !stats.free_sectors.empty()) {
      std::memcpy(out.data() + stats.free_sectors.front() * ss, marker.data(), marker.size());
      marked = true;
    }
    manifest["marker"] = marked;

    w = std::make_unique<new_image>(s);
    if (w->open(t.image, o.out, o.force) != INSPECT_OK) return INSPECT_USAGE_IO;
    if (w->write(out.data(), out.size()) != INSPECT_OK || w->finish() != INSPECT_OK)
      return INSPECT_USAGE_IO;
    // The self-check: check agrees with the names mapped.
    inspect_target ot;
    ot.image = w->temp_path();
    ot.sector_size = t.sector_size;
    ot.header_choice = t.header_choice;
    const auto [out_status, out_text] = check_text(s, ot);
    if (in_status == out_status && want == anon_mask_computed(out_text)) break;
    w->discard();
    if (!zero) {
      return fail(s, "self-check failed: check on OUT differs from check on IN (" +
                         first_difference(want, anon_mask_computed(out_text)) +
                         "); nothing written");
    }
  }
  std::vector<std::uint8_t> written(out.size());
  {
    std::ifstream in(w->temp_path(), std::ios::binary);
    in.read(reinterpret_cast<char*>(written.data()), static_cast<std::streamsize>(written.size()));
    if (in.gcount() != static_cast<std::streamsize>(written.size())) {
      w->discard();
      return fail(s, "self-check failed: OUT cannot be read back; nothing written");
    }
  }
  const std::string found = find_original(written, names);
  if (!found.empty()) {
    w->discard();
    return fail(s, "self-check failed: OUT still holds " + found + "; nothing written");
  }

  if (!o.map_path.empty()) {
    nlohmann::json doc = {{"schema", "privinspect-anonymise-map"}, {"version", "1.0"},
                          {"manifest", manifest}};
    nlohmann::json list = nlohmann::json::array();
    for (const auto& [v, p] : names.map())
      list.push_back({{"pseudonym", p}, {"original", v}, {"original_hex", hex_of(v)}});
    doc["names"] = list;
    nlohmann::json rids = nlohmann::json::array();
    for (const auto& [v, p] : names.rids()) rids.push_back({{"pseudonym", p}, {"original", v}});
    doc["record_ids"] = rids;
    if (!write_map(o.map_path, o.force, doc, &why)) {
      w->discard();
      return fail(s, why + "; nothing written");
    }
  }
  if (w->commit() != INSPECT_OK) return INSPECT_USAGE_IO;
  std::fprintf(s.out,
               "%s: %zu values replaced in %zu header copies, %zu TOC blocks, %zu records of %zu "
               "configuration copies; %zu bytes zeroed; check agrees, no original left\n",
               o.out.c_str(), names.map().size(), stats.headers, stats.toc_blocks, stats.records,
               stats.copies, stats.zeroed_bytes);
  for (const std::string& k : stats.kept) std::fprintf(s.out, "kept: %s\n", k.c_str());
  if (!manifest["slack_zeroed"].get<bool>()) {
    std::fprintf(s.out, "kept: the slack and unused space (zeroing them changed check's findings)\n");
  }
  return INSPECT_OK;
}

int inspect_anonymise_show(session& s, const inspect_target& t) {
  mem_stream quiet_out, quiet_err;
  session q(quiet_out.f, quiet_err.f);
  q.progname = s.progname;
  inspect_image img(q);
  if (!img.open(t)) {
    std::fputs(quiet_err.text().c_str(), s.err);
    return INSPECT_USAGE_IO;
  }
  const auto ss = static_cast<std::size_t>(img.sector_size());
  std::vector<std::uint8_t> sector(ss);
  for (std::uint64_t off = 0; off + ss <= img.file_size(); off += ss) {
    if (img.read_at(off, sector.data(), ss) != ss) break;
    if (std::memcmp(sector.data(), anon_marker_magic, ANON_MARKER_MAGIC_LEN) != 0) continue;
    const char* text = reinterpret_cast<const char*>(sector.data()) + ANON_MARKER_MAGIC_LEN;
    std::fprintf(s.out, "anonymised (sector %llu): %.*s\n",
                 static_cast<unsigned long long>(off / ss),
                 static_cast<int>(strnlen(text, ss - ANON_MARKER_MAGIC_LEN)), text);
    return INSPECT_OK;
  }
  std::fprintf(s.out, "%s: no anonymisation marker\n", t.image.c_str());
  return INSPECT_FINDINGS;
}

}  // namespace pd
