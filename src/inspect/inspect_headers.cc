// headers: the model (inspect_headers.h) and its text printer: both copies,
// the fields in which they differ and the copy the scan chose, with the
// reason.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "base/errors.h"
#include "codec/text_forms.h"
#include "io/findings.h"
#include "io/messages.h"
#include "inspect/output.h"
#include "inspect/inspect.h"
#include "inspect/inspect_headers.h"
#include "private_region/header.h"

namespace pd {

namespace {

constexpr std::size_t HDR_SIZE = PRIV_HEADER_SIZE;

bool read_copy(inspect_image& img, header_copy& c) {
  std::uint64_t ss = static_cast<std::uint64_t>(img.sector_size());
  if (c.sector < 0) return false;
  c.nread = img.read_at(static_cast<std::uint64_t>(c.sector) * ss, c.buf, HDR_SIZE);
  return c.nread == HDR_SIZE;
}

// The header's decoder gives up at the first fault; 165 after magic and
// checksum is a name fault and 168 a range fault, both past the body.
bool body_decoded(int res) { return res == 0 || res == VE_PRIV_FORMAT || res == VE_PRIV_INVALID; }

void decode_copy(header_copy& c) {
  c.magic_ok = std::memcmp(c.buf, header_magic, PRIV_MAGIC_LEN) == 0;
  c.stored_sum = priv_header_stored_checksum(c.buf);
  c.computed_sum = static_cast<std::uint32_t>(priv_header_checksum(c.buf));
  c.res = priv_unformat_header(&c.hdr, c.buf, &c.fault);
  if (c.magic_ok && c.stored_sum == c.computed_sum) {
    c.has_fields = body_decoded(c.res);
    return;
  }
  std::uint8_t fixed[HDR_SIZE];
  std::memcpy(fixed, c.buf, HDR_SIZE);
  priv_header_seal(fixed);
  c.hdr = priv_header_info{};
  c.lenient_res = priv_unformat_header(&c.hdr, fixed, &c.lenient_fault);
  c.has_fields = body_decoded(c.lenient_res);
}

std::string printable(const std::uint8_t* p, std::size_t n) {
  std::string out;
  for (std::size_t i = 0; i < n; i++) {
    char ch = static_cast<char>(p[i]);
    out += (p[i] >= 0x20 && p[i] < 0x7f) ? ch : '.';
  }
  return out;
}

// The field a decode gave up at, when it is one of the body's.
std::string field_text(const priv_decode_fault& f) {
  if (f.code == 0 || *f.field == '\0') return "";
  std::string text = finding_textf(" (field %s at byte 0x%zx", f.field, f.offset);
  if (*f.reason != '\0') text += std::string(": ") + f.reason;
  return text + ")";
}

std::string fault_of(const header_copy& c) {
  if (!c.magic_ok) return " (bad magic)";
  if (c.stored_sum != c.computed_sum) return " (bad checksum)";
  return field_text(c.fault);
}

void print_copy(session& s, const header_copy& c, const inspect_image& img) {
  std::uint64_t ss = static_cast<std::uint64_t>(img.sector_size());
  std::fprintf(s.out, "%s header: sector %lld", c.name, static_cast<long long>(c.sector));
  if (c.sector >= 0) {
    std::fprintf(s.out, ", byte offset %llu",
                 static_cast<unsigned long long>(c.sector) * static_cast<unsigned long long>(ss));
  }
  std::fputc('\n', s.out);
  if (c.nread < HDR_SIZE) {
    std::fprintf(s.out, "    not read: %zu of %zu bytes lie inside the image (%llu bytes)\n",
                 c.nread, HDR_SIZE, static_cast<unsigned long long>(img.file_size()));
    return;
  }
  std::fprintf(s.out, "    magic:    \"%s\"%s\n", printable(c.buf, 8).c_str(),
               c.magic_ok ? "" : " (expected \"PRIVHEAD\")");
  if (c.stored_sum == c.computed_sum) {
    std::fprintf(s.out, "    checksum: 0x%08x correct\n", c.stored_sum);
  } else {
    std::fprintf(s.out, "    checksum: 0x%08x expected 0x%08x\n", c.stored_sum, c.computed_sum);
  }
  if (c.res == 0) {
    std::fprintf(s.out, "    decode:   ok\n");
  } else {
    std::fprintf(s.out, "    decode:   error %d: %s%s\n", c.res, vol_strerror(c.res),
                 fault_of(c).c_str());
  }
  if (c.lenient_res == 0) {
    std::fprintf(s.out, "    with magic and checksum set aside: decodes\n");
  } else if (c.lenient_res > 0) {
    std::fprintf(s.out, "    with magic and checksum set aside: error %d: %s%s\n", c.lenient_res,
                 vol_strerror(c.lenient_res), field_text(c.lenient_fault).c_str());
  }
  if (c.has_fields) {
    char seq[24];
    text_out o(s.out);
    o.printf("    version %u.%u, update seqno %s, diskid \"", c.hdr.phi_version_major,
             c.hdr.phi_version_minor, volseqnotostr(c.hdr.phi_update_seqno, seq));
    o.value(c.hdr.phi_diskid);
    o.text("\"\n");
  }
}

// One compared field: its name and its text in a header.
struct header_field {
  const char* name;
  std::string (*text)(const priv_header_info&);
};

std::string num(unsigned long long v) { return std::to_string(v); }
std::string snum(long long v) { return std::to_string(v); }
std::string str(const char* v) { return std::string("\"") + v + "\""; }
std::string seq(volseqno_t v) {
  char b[24];
  return volseqnotostr(v, b);
}
std::string guid(const voldguid_t& g) {
  char b[37];
  voldguid_to_string(b, &g);
  return b;
}

const header_field header_fields[] = {
    {"phi_version",
     [](const priv_header_info& h) {
       return num(h.phi_version_major) + "." + num(h.phi_version_minor);
     }},
    {"phi_update_time", [](const priv_header_info& h) { return num(h.phi_update_time); }},
    {"phi_update_seqno", [](const priv_header_info& h) { return seq(h.phi_update_seqno); }},
    {"phi_primary_header", [](const priv_header_info& h) { return snum(h.phi_primary_header); }},
    {"phi_alt_header", [](const priv_header_info& h) { return snum(h.phi_alt_header); }},
    {"phi_diskid", [](const priv_header_info& h) { return str(h.phi_diskid); }},
    {"phi_hostid", [](const priv_header_info& h) { return str(h.phi_hostid); }},
    {"phi_dgid", [](const priv_header_info& h) { return str(h.phi_dgid); }},
    {"phi_dg_name", [](const priv_header_info& h) { return str(h.phi_dg_name); }},
    {"phi_atomic_iosize", [](const priv_header_info& h) { return num(h.phi_atomic_iosize); }},
    {"phi_flags", [](const priv_header_info& h) { return num(h.phi_flags); }},
    {"phi_pub_id", [](const priv_header_info& h) { return num(h.phi_pub_id); }},
    {"phi_priv_id", [](const priv_header_info& h) { return num(h.phi_priv_id); }},
    {"phi_pub_offset", [](const priv_header_info& h) { return snum(h.phi_pub_offset); }},
    {"phi_pub_len", [](const priv_header_info& h) { return snum(h.phi_pub_len); }},
    {"phi_priv_offset", [](const priv_header_info& h) { return snum(h.phi_priv_offset); }},
    {"phi_priv_len", [](const priv_header_info& h) { return snum(h.phi_priv_len); }},
    {"phi_first_toc", [](const priv_header_info& h) { return snum(h.phi_first_toc); }},
    {"phi_first_alt_toc", [](const priv_header_info& h) { return snum(h.phi_first_alt_toc); }},
    {"phi_nconfig", [](const priv_header_info& h) { return num(h.phi_nconfig); }},
    {"phi_nlogs", [](const priv_header_info& h) { return num(h.phi_nlogs); }},
    {"phi_config_len", [](const priv_header_info& h) { return snum(h.phi_config_len); }},
    {"phi_log_len", [](const priv_header_info& h) { return snum(h.phi_log_len); }},
    {"phi_nt_boot_disk_sig", [](const priv_header_info& h) { return num(h.phi_nt_boot_disk_sig); }},
    {"phi_nt_diskset_id", [](const priv_header_info& h) { return guid(h.phi_nt_diskset_id); }},
    {"phi_nt_new_diskset_id",
     [](const priv_header_info& h) { return guid(h.phi_nt_new_diskset_id); }},
    {"phi_move_dgid", [](const priv_header_info& h) { return str(h.phi_move_dgid); }},
};

// The fields on which the scan insists that two decoded copies agree.
const char* const geometry_fields[] = {"phi_atomic_iosize", "phi_priv_id",     "phi_pub_id",
                                       "phi_priv_len",      "phi_priv_offset", "phi_pub_len",
                                       "phi_pub_offset"};

const header_field* find_field(const char* name) {
  for (const header_field& f : header_fields) {
    if (std::strcmp(f.name, name) == 0) return &f;
  }
  return nullptr;
}

void print_differences(session& s, const header_copy& p, const header_copy& a) {
  if (!p.has_fields || !a.has_fields) {
    std::fprintf(s.out, "differences: not compared, the %s copy has no decoded fields\n",
                 p.has_fields ? "alternate" : "primary");
    return;
  }
  int n = 0;
  for (const header_field& f : header_fields) {
    std::string pv = f.text(p.hdr);
    std::string av = f.text(a.hdr);
    if (pv == av) continue;
    if (n++ == 0) std::fprintf(s.out, "differences:\n");
    text_out o(s.out);
    o.printf("    %-22s primary ", f.name);
    o.value(pv);
    o.text(", alternate ");
    o.value(av);
    o.text("\n");
  }
  if (n == 0) std::fprintf(s.out, "differences: none\n");
}

// The geometry fields in which two decoded copies disagree, or "".
std::string geometry_disagreement(const header_copy& p, const header_copy& a) {
  std::string out;
  for (const char* name : geometry_fields) {
    const header_field* f = find_field(name);
    if (f->text(p.hdr) == f->text(a.hdr)) continue;
    out += out.empty() ? name : std::string(", ") + name;
  }
  return out;
}

// The scan's choice as a note: its line, and the explanation that follows
// it on the lines after, if any.
struct choice_note {
  std::string line;
  std::string more;
};

choice_note choice_of(inspect_image& img, int res, const header_copy& p, const header_copy& a) {
  if (res != 0) {
    return {finding_textf("scan: no header chosen: error %d: %s", res, vol_strerror(res)),
            "    the primary does not decode; the search of sectors 8 to 248 found no "
            "header that names its own sector as the alternate, and the alternate copy "
            "is not consulted then\n"};
  }
  unsigned long fl = img.priv()->pri_flags;
  bool pok = (fl & PRI_PRIMARY_OK) != 0;
  bool aok = (fl & PRI_ALT_OK) != 0;
  bool used_alt = (fl & PRI_USED_ALT) != 0;
  std::string ps = seq(p.hdr.phi_update_seqno);
  std::string as = seq(a.hdr.phi_update_seqno);
  if (!pok && used_alt) {
    return {"scan: alternate found by search: the primary does not decode; the scan keeps "
            "the header as it stood before the search, without a region length, so the "
            "join fails", ""};
  }
  if (pok && !aok) return {"scan: primary chosen: the alternate does not decode", ""};
  if (!pok) return {"scan: alternate chosen: the primary does not decode", ""};
  if (std::string g = geometry_disagreement(p, a); !g.empty()) {
    return {"scan: primary chosen: the copies disagree on " + g + ", and the primary is kept", ""};
  }
  if (used_alt) {
    return {"scan: alternate chosen: its update seqno " + as + " is newer than the primary's " + ps,
            ""};
  }
  return {"scan: primary chosen: its update seqno " + ps + " is not older than the alternate's " + as,
          ""};
}

// A copy's verdicts: a stored checksum that differs from the computed one,
// a copy that does not decode.
void copy_findings(const header_copy& c, const inspect_image& img, std::vector<finding>& out) {
  if (c.nread < HDR_SIZE) return;
  finding_place at;
  at.sector = c.sector;
  at.offset = c.sector * img.sector_size();
  at.structure = "header";
  if (c.stored_sum != c.computed_sum) {
    finding f;
    f.code = finding_code::header_checksum;
    f.text = finding_textf("%s header: stored checksum 0x%08x, computed 0x%08x", c.name,
                           c.stored_sum, c.computed_sum);
    f.place = at;
    f.expected = finding_textf("0x%08x", c.computed_sum);
    f.actual = finding_textf("0x%08x", c.stored_sum);
    out.push_back(std::move(f));
  }
  if (c.res != 0) {
    finding f;
    f.code = finding_code::header_undecodable;
    f.text = finding_textf("%s header: does not decode: error %d: %s%s", c.name, c.res,
                           vol_strerror(c.res), fault_of(c).c_str());
    f.place = at;
    out.push_back(std::move(f));
  }
}

// The fields of a copy whose own check fails (every one, not only the first
// at which the decoder gave up).
void field_findings(const header_copy& c, const inspect_image& img, std::vector<finding>& out) {
  if (c.nread < HDR_SIZE || !c.has_fields) return;
  for (const priv_decode_fault& fault : priv_header_field_faults(c.hdr)) {
    finding f;
    f.code = finding_code::header_field;
    f.text = finding_textf("%s header: field %s at byte 0x%zx: %s", c.name, fault.field,
                           fault.offset, fault.reason);
    f.place.sector = c.sector;
    f.place.offset = c.sector * img.sector_size() + static_cast<std::int64_t>(fault.offset);
    f.place.structure = "header";
    out.push_back(std::move(f));
  }
}

// The fields in which two decoded copies differ, one finding each.
void mismatch_findings(const header_copy& p, const header_copy& a, const inspect_image& img,
                       std::vector<finding>& out) {
  if (p.nread < HDR_SIZE || a.nread < HDR_SIZE || !p.has_fields || !a.has_fields) return;
  for (const header_field& hf : header_fields) {
    const std::string pv = hf.text(p.hdr);
    const std::string av = hf.text(a.hdr);
    if (pv == av) continue;
    finding f;
    f.code = finding_code::header_mismatch;
    f.text = "header copies differ: " + std::string(hf.name) + ": primary " + pv +
             ", alternate " + av;
    f.place.sector = a.sector;
    f.place.offset = a.sector * img.sector_size();
    f.place.structure = "header";
    f.expected = pv;
    f.actual = av;
    out.push_back(std::move(f));
  }
}

}  // namespace

header_view analyse_headers(inspect_image& img) {
  header_view v;
  v.p.name = "primary";
  v.p.sector = img.attrs().dka_primary_header;
  v.a.name = "alternate";
  v.a.sector = img.attrs().dka_alternate_header;
  for (header_copy* c : {&v.p, &v.a}) {
    if (read_copy(img, *c)) decode_copy(*c);
    copy_findings(*c, img, v.findings);
  }
  for (header_copy* c : {&v.p, &v.a}) field_findings(*c, img, v.findings);
  mismatch_findings(v.p, v.a, img, v.findings);
  if (v.p.sector < 0 || v.a.sector < 0) return v;
  v.scanned = true;
  v.scan_res = img.scan_as_privdiag();
  const choice_note choice = choice_of(img, v.scan_res, v.p, v.a);
  finding f;
  f.code = finding_code::header_choice;
  f.text = choice.line;
  f.place.structure = "header";
  v.findings.push_back(std::move(f));
  v.choice = choice.line;
  v.choice_more = choice.more;
  if (v.scan_res == 0) {
    v.chosen = (img.priv()->pri_flags & PRI_USED_ALT) != 0 ? header_chosen::alternate
                                                          : header_chosen::primary;
  }
  return v;
}

std::vector<finding> header_findings(inspect_image& img) { return analyse_headers(img).findings; }

int inspect_headers(session& s, const inspect_target& t) {
  inspect_image img(s);
  if (!img.open(t)) return INSPECT_USAGE_IO;
  const header_view v = analyse_headers(img);
  print_copy(s, v.p, img);
  print_copy(s, v.a, img);
  print_differences(s, v.p, v.a);
  if (!v.scanned) {
    std::fprintf(s.out, "scan: not run: the image is too short to hold both header positions\n");
    return INSPECT_FINDINGS;
  }
  std::fprintf(s.out, "%s\n%s", v.choice.c_str(), v.choice_more.c_str());
  return v.scan_res == 0 ? INSPECT_OK : INSPECT_FINDINGS;
}

}  // namespace pd
