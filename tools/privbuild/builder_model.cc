// Reading a description's statements into the builder's model, with the
// defaults that make a short description a valid disk.
#include <cstring>
#include <map>
#include <set>
#include <sstream>

#include "private_region/header.h"
#include "private_region/toc.h"
#include "privbuild/builder_model.h"
#include "privbuild/header_fields.h"

namespace pd {

namespace {

std::string at_line(int line, const std::string& what) {
  return "line " + std::to_string(line) + ": " + what;
}

// Reads attribute `name` as a signed or unsigned number when present.
bool opt_int(attr_reader& a, const char* name, long long* v, int line, std::string* error) {
  const std::string* s = a.get(name);
  if (s == nullptr) return true;
  if (parse_int(*s, v)) return true;
  *error = at_line(line, std::string("bad number for ") + name + ": '" + *s + "'");
  return false;
}

bool opt_uint(attr_reader& a, const char* name, unsigned long long* v, int line,
              std::string* error) {
  const std::string* s = a.get(name);
  if (s == nullptr) return true;
  if (parse_uint(*s, v)) return true;
  *error = at_line(line, std::string("bad number for ") + name + ": '" + *s + "'");
  return false;
}

std::vector<std::string> split_list(const std::string& text) {
  std::vector<std::string> out;
  std::stringstream in(text);
  for (std::string w; std::getline(in, w, ',');)
    if (!w.empty()) out.push_back(w);
  return out;
}

bool parse_region_flags(const std::string& text, std::uint16_t* flags) {
  unsigned long long v = 0;
  if (parse_uint(text, &v)) {
    if (v > 0xFFFF) return false;
    *flags = static_cast<std::uint16_t>(v);
    return true;
  }
  *flags = 0;
  for (const auto& w : split_list(text)) {
    if (w == "pub") {
      *flags |= DKR_PUBLIC;
    } else if (w == "new") {
      *flags |= DKR_NEW;
    } else if (w == "delete") {
      *flags |= DKR_DELETE;
    } else if (w == "disabled") {
      *flags |= DKR_DISABLED;
    } else {
      return false;
    }
  }
  return true;
}

bool check_damage(const std::vector<std::string>& damage, int line, std::string* error) {
  for (const auto& d : damage) {
    if (d != "magic" && d != "checksum") {
      *error = at_line(line, "unknown damage '" + d + "' (magic, checksum)");
      return false;
    }
  }
  return true;
}

bool copy_text(char* dst, std::size_t cap, const std::string* s, const char* name, int line,
               std::string* error) {
  if (s == nullptr) return true;
  if (s->size() >= cap) {
    *error = at_line(line, std::string(name) + " is longer than " + std::to_string(cap - 1));
    return false;
  }
  std::memcpy(dst, s->c_str(), s->size() + 1);
  return true;
}

bool read_disk(const desc_statement& st, image_plan* plan, std::string* error) {
  attr_reader a(st);
  unsigned long long ss = 512, sectors = 0, bytes = 0, fill = 0;
  if (!opt_uint(a, "sector-size", &ss, st.line, error) ||
      !opt_uint(a, "sectors", &sectors, st.line, error) ||
      !opt_uint(a, "bytes", &bytes, st.line, error) || !opt_uint(a, "fill", &fill, st.line, error))
    return false;
  if (ss < 512 || ss % 512 != 0 || ss > 65536) {
    *error = at_line(st.line, "sector-size must be a multiple of 512 (512 or 4096)");
    return false;
  }
  if (fill > 0xFF || (sectors == 0) == (bytes == 0)) {
    *error = at_line(st.line, "disk needs sectors= or bytes= (and fill= a byte)");
    return false;
  }
  plan->sector_size = ss;
  plan->bytes = bytes != 0 ? bytes : sectors * ss;
  plan->fill = static_cast<std::uint8_t>(fill);
  if (plan->bytes > (1ull << 31)) {
    *error = at_line(st.line, "image larger than 2 GiB");
    return false;
  }
  return a.check_all_used(error);
}

bool read_region_payload(attr_reader& a, region_plan& r, std::string* error) {
  long long tag_flags = 0;
  if (!opt_int(a, "copy", &r.copy, r.line, error) ||
      !opt_int(a, "part-offset", &r.part_offset, r.line, error) ||
      !opt_int(a, "lock", &r.lock, r.line, error) ||
      !opt_int(a, "lock-offset", &r.lock_offset, r.line, error) ||
      !opt_int(a, "tag-flags", &tag_flags, r.line, error))
    return false;
  r.tag.dktagid_flags = static_cast<std::uint16_t>(tag_flags);
  if (!copy_text(r.tag.dktagid_name, sizeof r.tag.dktagid_name, a.get("tag-name"), "tag-name",
                 r.line, error) ||
      !copy_text(r.tag.dktagid_value, sizeof r.tag.dktagid_value, a.get("tag-value"),
                 "tag-value", r.line, error) ||
      !copy_text(r.tag.dktagid_source, sizeof r.tag.dktagid_source, a.get("tag-source"),
                 "tag-source", r.line, error))
    return false;
  if (const std::string* info = a.get("info")) {
    std::vector<unsigned char> bytes;
    if (!parse_hex_bytes(*info, &bytes) || bytes.size() > 0xFFFF) {
      *error = at_line(r.line, "info= must be hex bytes");
      return false;
    }
    r.has_info = true;
    r.info.assign(bytes.begin(), bytes.end());
  }
  return true;
}

bool read_region(const desc_statement& st, image_plan* plan, std::string* error) {
  region_plan r;
  r.line = st.line;
  if (st.words.size() != 1 || st.words[0].size() > TOC_ENTRY_TYPE_LEN) {
    *error = at_line(st.line, "region needs one type name of at most 8 characters");
    return false;
  }
  r.type = st.words[0];
  attr_reader a(st);
  const bool is_tag = r.type == "tagid";
  if (!is_tag && (!a.has("offset") || !a.has("len"))) {
    *error = at_line(st.line, "region needs offset= and len=");
    return false;
  }
  r.offset = is_tag ? 1 : 0;
  long long block = -1, fill = -1, offset = r.offset, len = 0;
  if ((r.type == "config" || r.type == "log")) r.copy = 1;
  if (!opt_int(a, "offset", &offset, st.line, error) ||
      !opt_int(a, "len", &len, st.line, error) || !opt_int(a, "block", &block, st.line, error) ||
      !opt_int(a, "fill", &fill, st.line, error) || !read_region_payload(a, r, error))
    return false;
  r.offset = offset;
  r.len = len;
  r.block = static_cast<int>(block);
  r.fill = static_cast<int>(fill);
  if (const std::string* f = a.get("flags"); f != nullptr && !parse_region_flags(*f, &r.flags)) {
    *error = at_line(st.line, "bad region flags '" + *f + "' (pub,new,delete,disabled or a number)");
    return false;
  }
  if (const std::string* c = a.get("content")) r.content = *c;
  if (st.has_body && r.content.empty()) {
    *error = at_line(st.line, "a begin...end body needs content=NAME");
    return false;
  }
  r.body = st.body;
  plan->regions.push_back(std::move(r));
  return a.check_all_used(error);
}

bool read_copy_content(const desc_statement& st, image_plan* plan, std::string* error) {
  attr_reader a(st);
  copy_content_plan c;
  c.line = st.line;
  c.copy = 1;
  if (st.words.size() != 1 || !opt_int(a, "copy", &c.copy, st.line, error)) {
    if (error->empty()) *error = at_line(st.line, "copy-content needs a region type");
    return false;
  }
  c.type = st.words[0];
  const std::string* gen = a.get("content");
  if (gen == nullptr) {
    *error = at_line(st.line, "copy-content needs content=NAME");
    return false;
  }
  c.content = *gen;
  c.body = st.body;
  plan->copy_contents.push_back(std::move(c));
  return a.check_all_used(error);
}

bool read_hdrcopy(const desc_statement& st, image_plan* plan, std::string* error) {
  hdrcopy_plan h;
  h.line = st.line;
  for (const auto& w : st.words) h.at = w;
  for (const auto& [k, v] : st.attrs) {
    if (k == "at") {
      h.at = v;
    } else if (k == "damage") {
      h.damage = split_list(v);
    } else if (is_header_field(k)) {
      h.fields.emplace_back(k, v);
    } else {
      *error = at_line(st.line, "unknown attribute '" + k + "' for 'hdrcopy'");
      return false;
    }
  }
  long long n = 0;
  if (h.at != "primary" && h.at != "alternate" && !parse_int(h.at, &n)) {
    *error = at_line(st.line, "hdrcopy needs primary, alternate or a sector number");
    return false;
  }
  if (!check_damage(h.damage, st.line, error)) return false;
  plan->hdrcopies.push_back(std::move(h));
  return true;
}

bool read_tocblock(const desc_statement& st, image_plan* plan, std::string* error) {
  attr_reader a(st);
  tocblock_plan t;
  t.line = st.line;
  long long v = 0;
  for (const char* name : {"at", "alt", "next", "alt-next"}) {
    if (!a.has(name)) continue;
    if (!opt_int(a, name, &v, st.line, error)) return false;
    std::optional<voff_t>& slot = std::string(name) == "at"    ? t.at
                                  : std::string(name) == "alt" ? t.alt
                                  : std::string(name) == "next" ? t.next
                                                                : t.alt_next;
    slot = v;
  }
  if (t.at.has_value() != t.alt.has_value()) {
    *error = at_line(st.line, "tocblock needs both at= and alt= or neither");
    return false;
  }
  if (const std::string* s = a.get("seqno")) {
    volseqno_t q;
    if (!parse_seqno(*s, &q)) {
      *error = at_line(st.line, "bad seqno '" + *s + "'");
      return false;
    }
    t.seqno = q;
  }
  if (const std::string* d = a.get("damage")) t.damage = split_list(*d);
  if (const std::string* w = a.get("write")) t.write = *w;
  if (const std::string* w = a.get("damage-copy")) t.damage_copy = *w;
  if (t.write != "both" && t.write != "primary" && t.write != "alternate" && t.write != "none") {
    *error = at_line(st.line, "write= is both, primary, alternate or none");
    return false;
  }
  if (t.damage_copy != "both" && t.damage_copy != "primary" && t.damage_copy != "alternate") {
    *error = at_line(st.line, "damage-copy= is both, primary or alternate");
    return false;
  }
  if (!check_damage(t.damage, st.line, error)) return false;
  plan->tocblocks.push_back(t);
  return a.check_all_used(error);
}

bool read_late(const desc_statement& st, image_plan* plan, std::string* error) {
  attr_reader a(st);
  late_op op;
  op.line = st.line;
  op.kind = st.keyword;
  unsigned long long at = 0, sector = 0, offset = 0, bytes = 0, sectors = 0;
  if (!opt_uint(a, "at", &at, st.line, error) || !opt_uint(a, "sector", &sector, st.line, error) ||
      !opt_uint(a, "offset", &offset, st.line, error) ||
      !opt_uint(a, "bytes", &bytes, st.line, error) ||
      !opt_uint(a, "sectors", &sectors, st.line, error))
    return false;
  if (op.kind == "poke") {
    const std::string* hex = a.get("hex");
    std::vector<unsigned char> b;
    if (hex == nullptr || !parse_hex_bytes(*hex, &b)) {
      *error = at_line(st.line, "poke needs hex=BYTES");
      return false;
    }
    op.bytes.assign(b.begin(), b.end());
    op.at = a.has("sector") ? sector * plan->sector_size + offset : at;
  } else if (op.kind == "fixsum") {
    if (st.words.size() != 1 || (st.words[0] != "header" && st.words[0] != "toc")) {
      *error = at_line(st.line, "fixsum needs header or toc");
      return false;
    }
    op.what = st.words[0];
    op.at = sector;
  } else {  // truncate
    op.length = a.has("sectors") ? sectors * plan->sector_size : bytes;
  }
  plan->late.push_back(std::move(op));
  return a.check_all_used(error);
}

// The lowest copy number of `type`, its length, and the number of copies.
void copy_summary(const image_plan& plan, const std::string& type, std::size_t* ncopies,
                  voff_t* len) {
  std::map<long long, voff_t> copies;
  for (const auto& r : plan.regions)
    if (r.type == type) copies[r.copy] += r.len;
  *ncopies = copies.size();
  *len = copies.empty() ? 0 : copies.begin()->second;
}

void default_header(image_plan* plan) {
  priv_header_info& h = plan->header;
  const voff_t sectors = static_cast<voff_t>(plan->bytes / plan->sector_size);
  h = priv_header_info{};
  h.phi_version_major = 3;
  h.phi_version_minor = 1;
  std::strcpy(h.phi_diskid, "disk01");
  h.phi_atomic_iosize = plan->sector_size;
  h.phi_priv_len = sectors;
  h.phi_primary_header = sectors - 1;
  h.phi_alt_header = sectors - 192 / static_cast<voff_t>(plan->sector_size / 512);
  h.phi_update_seqno.seqno_lo = 1;
  copy_summary(*plan, "config", &h.phi_nconfig, &h.phi_config_len);
  copy_summary(*plan, "log", &h.phi_nlogs, &h.phi_log_len);
}

void assign_part_offsets(image_plan* plan) {
  std::map<std::pair<std::string, long long>, long long> next;
  for (auto& r : plan->regions) {
    if (r.type != "config" && r.type != "log") continue;
    long long& at = next[{r.type, r.copy}];
    if (r.part_offset < 0) r.part_offset = at;
    at = r.part_offset + r.len;
  }
}

}  // namespace

bool read_image_plan(const std::vector<desc_statement>& statements, image_plan* plan,
                     std::string* error) {
  if (statements.empty() || statements[0].keyword != "disk") {
    *error = "the description must begin with a 'disk' statement";
    return false;
  }
  std::vector<const desc_statement*> header_statements;
  for (std::size_t i = 0; i < statements.size(); ++i) {
    const desc_statement& st = statements[i];
    bool ok = true;
    if (st.keyword == "disk") {
      ok = i == 0 ? read_disk(st, plan, error)
                  : (*error = at_line(st.line, "only one 'disk' statement"), false);
    } else if (st.keyword == "header") {
      header_statements.push_back(&st);
    } else if (st.keyword == "region") {
      ok = read_region(st, plan, error);
    } else if (st.keyword == "copy-content") {
      ok = read_copy_content(st, plan, error);
    } else if (st.keyword == "hdrcopy") {
      ok = read_hdrcopy(st, plan, error);
    } else if (st.keyword == "tocblock") {
      ok = read_tocblock(st, plan, error);
    } else if (st.keyword == "poke" || st.keyword == "fixsum" || st.keyword == "truncate") {
      ok = read_late(st, plan, error);
    } else {
      *error = at_line(st.line, "unknown statement '" + st.keyword + "'");
      ok = false;
    }
    if (!ok) return false;
  }
  assign_part_offsets(plan);
  default_header(plan);
  for (const desc_statement* st : header_statements) {
    if (!st->words.empty()) {
      *error = at_line(st->line, "header takes name=value settings only");
      return false;
    }
    for (const auto& [k, v] : st->attrs) {
      std::string why;
      if (!apply_header_field(&plan->header, k, v, &why)) {
        *error = at_line(st->line, why);
        return false;
      }
      if (k == "first-toc") plan->first_toc_given = true;
      if (k == "first-alt-toc") plan->first_alt_toc_given = true;
    }
  }
  return true;
}

}  // namespace pd
