// repair: the command, its document and its log (json_repair.h).
#include "inspect/json_repair.h"

#include <sys/stat.h>

#include <cstdio>
#include <optional>

#include "inspect/inspect_region.h"
#include "inspect/repair.h"

namespace pd {

namespace {

// Whether the plan leaves a finding that counts (a warning or an error).
bool leaves_problem(const repair_plan& plan) {
  for (std::size_t i = 0; i < plan.findings.size(); ++i) {
    if (plan.findings[i].removed) continue;
    if (i >= plan.check.findings.size() || plan.check.findings[i].sev() != severity::note)
      return true;
  }
  return false;
}

const char* status_text(int status, const repair_plan& plan, bool dry_run) {
  if (dry_run && status != REPAIR_NOTHING) {
    return status == REPAIR_CLEAN ? "would repair everything found"
                                  : "would repair; what no sound copy covers would be left";
  }
  switch (status) {
    case REPAIR_CLEAN:
      return "repaired and proven";
    case REPAIR_PARTIAL:
      return "repaired and proven; what no sound copy covers is left";
    case REPAIR_NOTHING:
      return leaves_problem(plan) ? "nothing written: no sound copy covers what is found"
                                  : "nothing written: nothing to repair";
    default:
      return "failed";
  }
}

ojson plan_json(const repair_plan& plan) {
  ojson o = ojson::object();
  o["region"] = {{"offset", plan.region_offset}, {"length", plan.region_bytes}};
  o["check_status"] = plan.check_status;
  ojson found = ojson::array();
  for (const repair_finding& f : plan.findings) {
    found.push_back({{"code", f.code}, {"text", json_text(f.text)}, {"removed", f.removed}});
  }
  o["findings"] = std::move(found);
  ojson actions = ojson::array();
  for (const repair_action& a : plan.actions) {
    ojson segs = ojson::array();
    for (const repair_segment& g : a.segments) {
      segs.push_back({{"from", g.from}, {"to", g.to}, {"length", g.length}});
    }
    ojson x = ojson::object();
    x["structure"] = a.structure;
    x["copy"] = a.copy;
    x["sector"] = a.sector;
    x["count"] = a.count;
    x["source"] = a.source;
    x["why"] = json_text(a.why);
    x["segments"] = std::move(segs);
    actions.push_back(std::move(x));
  }
  o["actions"] = std::move(actions);
  ojson left = ojson::array();
  for (const repair_left& l : plan.left) {
    ojson x = ojson::object();
    x["structure"] = l.structure;
    x["copy"] = l.copy;
    if (l.sector >= 0) {
      x["sector"] = l.sector;
      x["count"] = l.count;
    }
    x["reason"] = json_text(l.reason);
    left.push_back(std::move(x));
  }
  o["left"] = std::move(left);
  return o;
}

ojson proof_json(const repair_proof& p) {
  ojson o = ojson::object();
  o["ok"] = p.ok;
  if (!p.ok) o["reason"] = json_text(p.reason);
  o["check_status"] = p.check_status;
  ojson remaining = ojson::array();
  for (const std::string& r : p.remaining) remaining.push_back(json_text(r));
  o["remaining"] = std::move(remaining);
  o["report_compared"] = p.report_compared;
  o["report"] = json_text(p.report_note);
  o["copies_compared"] = p.copies_compared;
  return o;
}

// The whole document, as text.
std::string document(const json_invocation& inv, const inspect_target& t, const repair_request& r,
                     const repair_plan& plan, const repair_proof* proof, bool written,
                     const std::string& failure, int status, const char* stage = "repair") {
  mem_stream m;
  if (m.f == nullptr) return "";
  json_writer w(m.f);
  w.open_object();
  json_envelope_head(w, inv, "repair");
  w.member(
      "image",
      {{"path", json_text(t.image)}, {"size", plan.image_bytes}, {"sector_size", t.sector_size}});
  ojson o = plan_json(plan);
  o["out"] = json_text(r.out);
  o["dry_run"] = r.dry_run;
  if (proof != nullptr) o["proof"] = proof_json(*proof);
  o["written"] = written;
  w.member("repair", o);
  w.open_array("findings");
  for (const finding& f : plan.check.findings) w.element(json_finding(f));
  w.close();
  w.open_array("messages");
  for (const std::string& line : plan.check.messages) w.element(json_text(line));
  w.close();
  if (!failure.empty()) {
    w.member("stop", {{"stage", stage}, {"reason", json_text(failure)}});
  }
  w.member("exit_status", status);
  w.member("analysis_complete", failure.empty());
  w.close_to(0);
  return m.text();
}

bool exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

// The log beside OUT, written atomically.
int write_log(session& s, const inspect_target& t, const std::string& path, const std::string& doc,
              const file_calls& calls) {
  new_image w(s, calls);
  if (w.open(t.image, path, true) != INSPECT_OK) return REPAIR_FAILED;
  if (w.write(reinterpret_cast<const std::uint8_t*>(doc.data()), doc.size()) != INSPECT_OK ||
      w.finish() != INSPECT_OK || w.commit() != INSPECT_OK) {
    return REPAIR_FAILED;
  }
  return INSPECT_OK;
}

}  // namespace

int inspect_repair(session& s, const json_invocation& inv, const inspect_target& t,
                   const repair_request& r, const file_calls& calls) {
  // The refusals of every view (a path that is not an image, a region that
  // is not there) and of the log, each with its message; with --json also
  // a document that says where the run stopped.
  const std::string log = r.out + ".repair.json";
  auto refused = [&](const char* stage, const std::string& why) {
    if (r.json) {
      std::fputs(
          document(inv, t, r, repair_plan{}, nullptr, false, why, REPAIR_FAILED, stage).c_str(),
          s.out);
    }
    return REPAIR_FAILED;
  };
  {
    inspect_image img(s);
    if (!img.open(t)) return refused("open", "the image cannot be opened");
  }
  if (!r.dry_run && !r.force && exists(log)) {
    std::fprintf(s.err, "%s: %s: exists; not written (--force replaces it)\n", s.progname,
                 log.c_str());
    return refused("repair", log + ": exists");
  }
  const repair_plan plan = plan_repair(s, t);
  if (!plan.opened) {
    std::fprintf(s.err, "%s: %s: cannot be read\n", s.progname, t.image.c_str());
    return refused("open", "the image cannot be read");
  }
  if (!r.json) print_repair_plan(s, plan);
  int status;
  std::optional<repair_proof> proof;
  std::string failure;
  bool written = false;
  if (plan.actions.empty()) {
    status = REPAIR_NOTHING;
  } else if (r.dry_run) {
    status = leaves_problem(plan) ? REPAIR_PARTIAL : REPAIR_CLEAN;
  } else {
    proof.emplace();
    status = write_repair(s, t, plan, r.out, r.force, *proof, calls);
    written = status != REPAIR_FAILED;
    if (!written) failure = proof->reason.empty() ? "OUT could not be written" : proof->reason;
    if (proof->check_status < 0) proof.reset();  // the proof did not run
  }
  std::string doc = document(inv, t, r, plan, proof ? &*proof : nullptr, written, failure, status);
  if (written && write_log(s, t, log, doc, calls) != INSPECT_OK) {
    // OUT is in place; only its log is missing.
    status = REPAIR_FAILED;
    failure = log + " could not be written";
    doc = document(inv, t, r, plan, proof ? &*proof : nullptr, written, failure, status);
  }
  if (r.json) {
    std::fputs(doc.c_str(), s.out);
    return status;
  }
  if (proof) print_repair_proof(s, *proof, r.out);
  if (written) std::fprintf(s.out, "written: %s; log %s\n", r.out.c_str(), log.c_str());
  if (r.dry_run && !plan.actions.empty()) std::fputs("dry run: nothing written\n", s.out);
  std::fprintf(s.out, "repair: status %d: %s%s\n", status, status_text(status, plan, r.dry_run),
               failure.empty() ? "" : (": " + failure).c_str());
  return status;
}

}  // namespace pd
