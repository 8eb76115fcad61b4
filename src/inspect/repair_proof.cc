// repair: the proof of a new image and its writing (see repair.h).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "base/errors.h"
#include "inspect/inspect_region.h"
#include "inspect/output.h"
#include "inspect/repair.h"
#include "report/copy_loading.h"
#include "report/header_toc_dump.h"

namespace pd {

using namespace repair_detail;

namespace {

struct privdiag_text {
  std::string head;    // header and TOC dump
  std::string config;  // the configuration section
};

// privdiag's run through the library, as the driver makes it, on `t`.
std::optional<privdiag_text> privdiag_report(const session& like, const inspect_target& t) {
  quiet_session q(like);
  if (!q.ok()) return std::nullopt;
  inspect_image img(q.s);
  img.announce = false;
  if (!img.open(t)) return std::nullopt;
  privdiag_text r;
  try {
    if (img.scan_as_privdiag() != VE_OK || img.join() != VE_OK) return std::nullopt;
    priv_header_info* hdr = img.priv()->pri_header;
    hdr->phi_priv_offset = img.stored_priv_offset();
    priv_dump_header(q.s, img.priv());
    hdr->phi_priv_offset = 0;
    priv_dump_toc(q.s, img.priv());
    std::fputs("\n\n", q.s.out);
    r.head = q.out.text();
    (void)priv_dump_config(q.s, img.priv(), -1);
  } catch (const fatal_exit&) {
  }
  r.config = q.out.text().substr(r.head.size());
  return r;
}

// `config --copy N` on `t`, heading line left out.
std::string copy_report(const session& like, const inspect_target& t, int copy) {
  quiet_session q(like);
  if (!q.ok()) return "";
  inspect_image img(q.s);
  img.announce = false;
  try {
    if (!img.open(t) || !img.locate()) return "";
    (void)priv_dump_config(q.s, img.priv(), copy);
  } catch (const fatal_exit&) {
  }
  return after_first_line(q.out.text());
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> out;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

// The words of the header dump that say which header copies were read and
// used: what a restored header copy changes.
constexpr const char* header_use_words[] = {" invalid-primary", " invalid-alt", " altused"};

std::string without_use_words(std::string line) {
  for (const char* w : header_use_words) {
    const std::size_t at = line.find(w);
    if (at != std::string::npos) line.erase(at, std::strlen(w));
  }
  return line;
}

// The header and TOC dumps of IN and OUT differ at most in those words;
// when the plan replaces the header copy privdiag read, also in the header's
// own lines (those before the TOC's "tocblks:" line).
bool heads_agree(const std::string& in, const std::string& out, bool header_replaced,
                 std::string& note) {
  const std::vector<std::string> a = lines_of(in), b = lines_of(out);
  if (a.size() != b.size()) return false;
  bool in_header = true;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i].rfind("tocblks:", 0) == 0) in_header = false;
    if (a[i] == b[i]) continue;
    if (!(header_replaced && in_header) && without_use_words(a[i]) != without_use_words(b[i])) {
      return false;
    }
    note += (note.empty() ? "" : "; ") + ("\"" + a[i] + "\" became \"" + b[i] + "\"");
  }
  return true;
}

}  // namespace

repair_proof prove_repair(const session& like, const inspect_target& t, const repair_plan& plan,
                          const std::string& out_path) {
  repair_proof proof;
  inspect_target out_t = t;
  out_t.image = out_path;
  out_t.header_choice = header_choice::automatic;
  // The check on OUT: nothing the plan did not leave.
  const check_outcome c = run_check(like, out_t);
  proof.check_status = c.status;
  for (const finding& f : c.findings) {
    proof.remaining.push_back(f.text);
    if (plan.allowed.count(repair_key(f)) == 0 && proof.reason.empty()) {
      proof.reason = "check on OUT finds what the plan did not leave: " + f.text;
    }
  }
  for (const std::string& m : c.messages) {
    if (!library_message(m)) continue;
    proof.remaining.push_back(m);
    if (plan.allowed.count(repair_message_key(m)) == 0 && proof.reason.empty()) {
      proof.reason = "check on OUT finds what the plan did not leave: " + m;
    }
  }
  if (!c.opened) proof.reason = "check cannot open OUT";
  // privdiag's reports of IN and OUT.
  const std::optional<privdiag_text> in_rep = privdiag_report(like, t);
  const std::optional<privdiag_text> out_rep = privdiag_report(like, out_t);
  int restored_privdiag = -1;
  for (const repair_action& a : plan.actions) {
    if (a.target_copy >= 0 && a.target_copy == plan.privdiag_copy)
      restored_privdiag = a.source_copy;
  }
  if (!in_rep) {
    proof.report_note = "privdiag reports nothing of IN";
  } else if (!out_rep) {
    if (proof.reason.empty()) proof.reason = "privdiag reports nothing of OUT";
  } else {
    proof.report_compared = true;
    std::string note;
    if (!heads_agree(in_rep->head, out_rep->head, plan.header_replaced, note)) {
      if (proof.reason.empty())
        proof.reason = "privdiag's header and TOC dumps of IN and OUT differ";
    } else if (restored_privdiag < 0 && in_rep->config != out_rep->config) {
      if (proof.reason.empty()) {
        proof.reason =
            "privdiag's configuration report of OUT differs from IN's, and the plan "
            "does not restore its copy";
      }
    }
    proof.report_note = note.empty() ? "equal"
                        : plan.header_replaced
                            ? "equal but for the header, from the other copy: " + note
                            : "equal but for the header copies' words: " + note;
    if (restored_privdiag >= 0) {
      proof.report_note +=
          finding_textf("; its configuration section is copy %d's", restored_privdiag);
    }
  }
  // Each restored copy's report against its source's.
  for (const repair_action& a : plan.actions) {
    if (a.target_copy < 0 || std::find(proof.copies_compared.begin(), proof.copies_compared.end(),
                                       a.target_copy) != proof.copies_compared.end()) {
      continue;
    }
    const std::string got = copy_report(like, out_t, a.target_copy);
    if (got.empty() || got != copy_report(like, out_t, a.source_copy)) {
      if (proof.reason.empty()) {
        proof.reason = finding_textf("config --copy %d of OUT differs from copy %d's",
                                     a.target_copy, a.source_copy);
      }
      continue;
    }
    proof.copies_compared.push_back(a.target_copy);
  }
  proof.ok = proof.reason.empty();
  return proof;
}

namespace {

struct fd_closer {
  const file_calls& calls;
  int fd;
  ~fd_closer() { calls.close(fd); }
};

// `len` bytes of `fd` at `offset`; false on an error or the end of the file.
bool read_exact(const file_calls& calls, int fd, std::uint64_t offset, std::uint8_t* buf,
                std::size_t len) {
  while (len > 0) {
    const ssize_t n = calls.pread(fd, buf, len, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    buf += n;
    len -= static_cast<std::size_t>(n);
    offset += static_cast<std::uint64_t>(n);
  }
  return true;
}

}  // namespace

int write_repair(session& s, const inspect_target& t, const repair_plan& plan,
                 const std::string& out, bool force, repair_proof& proof, const file_calls& calls) {
  new_image w(s, calls);
  if (w.open(t.image, out, force) != INSPECT_OK) return REPAIR_FAILED;
  const int in = calls.open(t.image.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (in < 0) {
    std::fprintf(s.err, "%s: %s: cannot open: %s\n", s.progname, t.image.c_str(),
                 std::strerror(errno));
    return REPAIR_FAILED;
  }
  const fd_closer closer{calls, in};
  const off_t end = ::lseek(in, 0, SEEK_END);
  if (end < 0) {
    std::fprintf(s.err, "%s: %s: cannot read: %s\n", s.progname, t.image.c_str(),
                 std::strerror(errno));
    return REPAIR_FAILED;
  }
  // Every segment, in image order, read from IN before anything is laid.
  std::vector<repair_segment> segs;
  for (const repair_action& a : plan.actions)
    segs.insert(segs.end(), a.segments.begin(), a.segments.end());
  std::sort(segs.begin(), segs.end(),
            [](const repair_segment& a, const repair_segment& b) { return a.to < b.to; });
  std::uint64_t pos = 0;
  std::vector<std::uint8_t> buf;
  for (const repair_segment& g : segs) {
    const std::uint64_t to = plan.region_offset + g.to;
    if (to < pos) continue;  // overlapping places: the first wins
    if (w.copy_from(in, pos, to - pos) != INSPECT_OK) return REPAIR_FAILED;
    buf.resize(static_cast<std::size_t>(g.length));
    if (!read_exact(calls, in, plan.region_offset + g.from, buf.data(), buf.size())) {
      std::fprintf(s.err, "%s: %s: cannot read: %s\n", s.progname, t.image.c_str(),
                   std::strerror(errno));
      return REPAIR_FAILED;
    }
    if (w.write(buf.data(), buf.size()) != INSPECT_OK) return REPAIR_FAILED;
    pos = to + g.length;
  }
  const auto size = static_cast<std::uint64_t>(end);
  if (pos < size && w.copy_from(in, pos, size - pos) != INSPECT_OK) return REPAIR_FAILED;
  if (w.finish() != INSPECT_OK) return REPAIR_FAILED;
  proof = prove_repair(s, t, plan, w.temp_path());
  if (!proof.ok) {
    w.discard();
    std::fprintf(s.err, "%s: %s: the proof failed, not written: %s\n", s.progname, out.c_str(),
                 proof.reason.c_str());
    return REPAIR_FAILED;
  }
  if (w.commit() != INSPECT_OK) return REPAIR_FAILED;
  return proof.check_status == INSPECT_OK ? REPAIR_CLEAN : REPAIR_PARTIAL;
}

void print_repair_proof(session& s, const repair_proof& proof, const std::string& out) {
  std::fprintf(s.out, "proof: check on %s: status %d", out.c_str(), proof.check_status);
  std::fputs(proof.remaining.empty() ? ", nothing found\n" : ", only what the plan leaves:\n",
             s.out);
  for (const std::string& r : proof.remaining) print_line(s, "    " + r);
  print_line(s, "proof: privdiag's report of OUT against IN's: " + proof.report_note);
  for (int n : proof.copies_compared) {
    std::fprintf(s.out,
                 "proof: config --copy %d equals its source's but for the \"#Config copy\" line\n",
                 n);
  }
}

}  // namespace pd
