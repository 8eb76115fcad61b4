// privinspect --json: the views as documents (json_views.h).
//
// Each run works on an inner session whose output goes nowhere and whose
// error stream is kept in memory, with a collecting finding sink: the
// library decodes as it does for the text views, the findings it raises
// become the document's findings[], and its messages become messages[]
// (and the stop's reason when they ended the run); at the end they are
// copied to the real error stream, where they always went.
#include "inspect/json_views.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/errors.h"
#include "codec/text_forms.h"
#include "config_db/block_store.h"
#include "config_db/record_layouts.h"
#include "config_db/records.h"
#include "inspect/disk_locate.h"
#include "inspect/extract.h"
#include "inspect/inspect_compare.h"
#include "inspect/inspect_headers.h"
#include "inspect/inspect_load.h"
#include "inspect/inspect_places.h"
#include "inspect/inspect_region.h"
#include "inspect/region_map.h"
#include "inspect/inspect_scan_model.h"
#include "io/io_buffers.h"
#include "io/messages.h"
#include "private_region/header.h"
#include "private_region/log_block.h"
#include "private_region/toc.h"
#include "report/copy_loading.h"
#include "report/log_dump.h"
#include "report/overview_index.h"
#include "report/tag_printer.h"

namespace pd {

namespace {

constexpr std::size_t BUFSIZE = 0x200000;  // the shared aligned buffer
constexpr std::size_t COPY_BLK = 512;
constexpr std::size_t RUN_BLOCKS = 128;

// One document and the run behind it.
class json_run {
 public:
  json_run(FILE* out, FILE* err, const json_invocation& inv, const char* command)
      : in(discard_.f, err_mem_.f), w(out), out_(out), err_out_(err) {
    in.progname = "privinspect";
    volsetlabel(in, "qztool:priv");
    in.sink = &found;
    w.open_object();
    json_envelope_head(w, inv, command);
  }
  json_run(const json_run&) = delete;
  json_run& operator=(const json_run&) = delete;

  // Opens the image and writes "image"; stops the run when it cannot.
  bool open(inspect_image& img, const inspect_target& t) {
    const bool ok = img.open(t);
    ojson image = ojson::object();
    image["path"] = json_text(t.image);
    image["size"] = ok ? img.file_size() : 0;
    image["sector_size"] = t.sector_size;
    w.member("image", image);
    if (!ok) stop("open");
    return ok;
  }

  // Scans and joins as privdiag does, with its messages; stops on failure.
  bool locate(inspect_image& img) {
    stage("scan");
    int res = img.scan();
    if (res != 0) {
      volpfmt(in, in.err, 1, ":1735:scan operation failed:\n\t%s\n", vol_strerror(res));
      stop("scan");
      return false;
    }
    stage("join");
    res = img.join();
    if (res != 0) {
      volpfmt(in, in.err, 1, ":1650:join operation failed:\n\t%s\n", vol_strerror(res));
      stop("join");
      return false;
    }
    return true;
  }

  void stage(const char* name) {
    stage_ = name;
    mark_ = message_lines(err_mem_.text()).size();
  }

  // Ends the run at `where`: the reason given, or else the last message of
  // the stage.
  void stop(const char* where, const std::string& reason = {}) {
    if (stopped_) return;
    stopped_ = true;
    stop_stage_ = where;
    stop_reason_ = reason;
    if (stop_reason_.empty()) {
      const std::vector<std::string> m = message_lines(err_mem_.text());
      stop_reason_ = m.size() > mark_ ? m.back() : "stopped";
    }
  }
  void stop_here(const std::string& reason = {}) { stop(stage_.c_str(), reason); }
  bool stopped() const { return stopped_; }

  // The findings, messages, stop, status; the messages go to the error
  // stream. Returns `status`.
  int finish(int status) {
    w.close_to(1);
    w.open_array("findings");
    for (const finding& f : found.list) w.element(json_finding(f));
    w.close();
    const std::string err_text = err_mem_.text();
    w.open_array("messages");
    for (const std::string& m : message_lines(err_text)) w.element(json_text(m));
    w.close();
    if (stopped_) {
      ojson stop = ojson::object();
      stop["stage"] = stop_stage_;
      stop["reason"] = json_text(stop_reason_);
      w.member("stop", stop);
    }
    w.member("exit_status", status);
    w.member("analysis_complete", !stopped_);
    w.close_to(0);
    std::fflush(out_);
    std::fputs(err_text.c_str(), err_out_);
    std::fflush(err_out_);
    return status;
  }

 private:
  mem_stream discard_, err_mem_;

 public:
  session in;
  finding_collector found;
  json_writer w;

 private:
  FILE* out_;
  FILE* err_out_;
  std::string stage_ = "open";
  std::size_t mark_ = 0;
  bool stopped_ = false;
  std::string stop_stage_, stop_reason_;
};

// --- headers -----------------------------------------------------------------

// A decoder's result; with the field it gave up at, when it names one.
ojson decode_json(int res, const priv_decode_fault* fault = nullptr) {
  ojson d = ojson::object();
  d["status"] = res;
  d["text"] = res == 0 ? "ok" : vol_strerror(res);
  if (fault != nullptr && fault->code != 0 && *fault->field != '\0') {
    ojson f = ojson::object();
    f["name"] = fault->field;
    f["offset"] = fault->offset;
    if (*fault->reason != '\0') f["reason"] = fault->reason;
    d["field"] = std::move(f);
  }
  return d;
}

template <std::size_t N>
void put_name(ojson& o, const char* key, const char (&member)[N]) {
  o[key] = json_text(member, N);
  o[std::string(key) + "_hex"] = json_cstr_bytes(member, N);
}

ojson header_fields_json(const priv_header_info& h) {
  ojson o = ojson::object();
  o["version_major"] = h.phi_version_major;
  o["version_minor"] = h.phi_version_minor;
  o["update_time"] = h.phi_update_time;
  o["update_seqno"] = json_seqno(h.phi_update_seqno);
  o["primary_header"] = h.phi_primary_header;
  o["alt_header"] = h.phi_alt_header;
  put_name(o, "diskid", h.phi_diskid);
  put_name(o, "hostid", h.phi_hostid);
  put_name(o, "dgid", h.phi_dgid);
  put_name(o, "dg_name", h.phi_dg_name);
  o["atomic_iosize"] = h.phi_atomic_iosize;
  o["flags"] = json_hex(h.phi_flags, 8);
  o["flag_names"] = json_bit_names(h.phi_flags, {{PHI_SHARED, "shared"},
                                                 {PHI_NOAUTOIMPORT, "noautoimport"},
                                                 {PHI_USE_BACKUP, "use_backup"},
                                                 {PHI_ENCAP_PENDING, "encap_pending"}});
  o["pub_id"] = h.phi_pub_id;
  o["priv_id"] = h.phi_priv_id;
  o["pub_offset"] = h.phi_pub_offset;
  o["pub_len"] = h.phi_pub_len;
  o["priv_offset"] = h.phi_priv_offset;
  o["priv_len"] = h.phi_priv_len;
  o["first_toc"] = h.phi_first_toc;
  o["first_alt_toc"] = h.phi_first_alt_toc;
  o["nconfig"] = h.phi_nconfig;
  o["nlogs"] = h.phi_nlogs;
  o["config_len"] = h.phi_config_len;
  o["log_len"] = h.phi_log_len;
  put_name(o, "move_dgid", h.phi_move_dgid);
  o["nt_boot_disk_sig"] = h.phi_nt_boot_disk_sig;
  o["nt_backup_header"] = h.phi_nt_backup_header;
  o["nt_diskset_id"] = json_guid(h.phi_nt_diskset_id);
  o["nt_new_diskset_id"] = json_guid(h.phi_nt_new_diskset_id);
  o["nt_disk_is_nec98"] = h.phi_nt_disk_is_nec98;
  o["lockrgn_offset"] = h.phi_lockrgn_offset;
  o["lockrgn_len"] = h.phi_lockrgn_len;
  o["sctr_shift"] = h.phi_sctr_shift;
  o["chunk_shift"] = h.phi_chunk_shift;
  o["chunk_size"] = h.phi_chunk_size;
  o["ssbactual_id"] = json_seqno(h.phi_ssbactual_id);
  return o;
}

ojson header_copy_json(const header_copy& c, std::uint64_t ss) {
  ojson o = ojson::object();
  o["sector"] = c.sector;
  if (c.sector >= 0) o["offset"] = static_cast<std::uint64_t>(c.sector) * ss;
  o["bytes_read"] = c.nread;
  o["read"] = c.read();
  if (!c.read()) return o;
  const std::string_view magic(reinterpret_cast<const char*>(c.buf), PRIV_MAGIC_LEN);
  o["magic"] = json_text(magic);
  o["magic_hex"] = json_hex_bytes(magic);
  o["magic_ok"] = c.magic_ok;
  ojson sum = ojson::object();
  sum["stored"] = json_hex(c.stored_sum, 8);
  sum["computed"] = json_hex(c.computed_sum, 8);
  sum["ok"] = c.stored_sum == c.computed_sum;
  o["checksum"] = sum;
  o["decode"] = decode_json(c.res, &c.fault);
  if (c.lenient_res >= 0) o["decode_set_aside"] = decode_json(c.lenient_res, &c.lenient_fault);
  if (c.has_fields) {
    o["fields_from"] = c.res == 0 || c.lenient_res < 0 ? "stored" : "magic and checksum set aside";
    o["fields"] = header_fields_json(c.hdr);
  }
  return o;
}

// "headers": the model of the text view (inspect_headers.h): both copies,
// the scan's choice and why. The header findings join the run's. Returns
// the scan's result, or nothing when the image is too short for it.
constexpr const char* HEADERS_NOT_SCANNED = "the image is too short to hold both header positions";

std::optional<int> write_headers(json_run& run, inspect_image& img) {
  run.stage("headers");
  header_view v = analyse_headers(img);
  run.w.open_object("headers");
  const std::uint64_t ss = static_cast<std::uint64_t>(img.sector_size());
  run.w.member("primary", header_copy_json(v.p, ss));
  run.w.member("alternate", header_copy_json(v.a, ss));
  static const char* const chosen[] = {"none", "primary", "alternate"};
  ojson scan = ojson::object();
  scan["run"] = v.scanned;
  scan["status"] = v.scan_res;
  scan["chosen"] = chosen[static_cast<int>(v.chosen)];
  scan["why"] = v.scanned ? json_text(v.choice) : std::string(HEADERS_NOT_SCANNED);
  run.w.member("scan", scan);
  run.w.close();
  for (finding& f : v.findings) run.found.list.push_back(std::move(f));
  if (!v.scanned) {
    run.stop("scan", HEADERS_NOT_SCANNED);
    return std::nullopt;
  }
  return v.scan_res;
}

// --- TOC ---------------------------------------------------------------------

ojson copies_json(const copy_info* list) {
  ojson out = ojson::array();
  for (const copy_info* cp = list; cp != nullptr; cp = cp->ci_next) {
    ojson c = ojson::object();
    c["copy"] = cp->ci_copy;
    const bool disabled = cp->ci_npart > 0 && cp->ci_parts[0] != nullptr &&
                          (cp->ci_parts[0]->tei_region.dkr_flags & DKR_DISABLED) != 0;
    c["enabled"] = !disabled;
    ojson parts = ojson::array();
    for (int i = 0; i < cp->ci_npart; ++i) {
      if (cp->ci_parts[i] == nullptr) continue;
      ojson part = ojson::object();
      part["offset"] = cp->ci_parts[i]->tei_region.dkr_offset;
      part["len"] = cp->ci_parts[i]->tei_region.dkr_len;
      parts.push_back(std::move(part));
    }
    c["parts"] = std::move(parts);
    out.push_back(std::move(c));
  }
  return out;
}

void write_toc(json_run& run, const priv_info* priv) {
  run.w.open_object("toc");
  run.w.member("blocks", priv->pri_toc_copy_len);
  ojson sectors = ojson::array();
  for (std::size_t i = 0; i < priv->pri_toc_len; ++i) {
    ojson s = ojson::object();
    s["sector"] = priv->pri_toc_sectors[i];
    s["alt_sector"] = priv->pri_alt_toc_sectors[i];
    sectors.push_back(std::move(s));
  }
  run.w.member("block_sectors", sectors);
  run.w.open_array("regions");
  for (const toc_entry_info* e = priv->pri_toc_entries; e != nullptr; e = e->tei_next) {
    const disk_region& r = e->tei_region;
    ojson o = ojson::object();
    o["type"] = json_text(r.dkr_type, sizeof r.dkr_type);
    o["flags"] = json_hex(r.dkr_flags, 4);
    o["flag_names"] = json_bit_names(r.dkr_flags, {{DKR_PUBLIC, "public"},
                                                   {DKR_NEW, "new"},
                                                   {DKR_DELETE, "delete"},
                                                   {DKR_DISABLED, "disabled"}});
    o["offset"] = r.dkr_offset;
    o["len"] = r.dkr_len;
    o["info_size"] = r.dkr_info_size;
    o["info_hex"] = r.dkr_info == nullptr ? std::string()
                                          : json_hex_bytes(std::string_view(
                                                reinterpret_cast<const char*>(r.dkr_info),
                                                r.dkr_info_size));
    if (std::strcmp(r.dkr_type, "config") == 0 || std::strcmp(r.dkr_type, "log") == 0) {
      copy_region_entry cr;
      (void)priv_unpack_copy_entry(&cr, e);
      ojson c = ojson::object();
      c["number"] = cr.cr_number;
      c["offset"] = cr.cr_offset;
      o["copy"] = std::move(c);
    } else if (std::strcmp(r.dkr_type, "tagid") == 0) {
      tagid_region_entry tag;
      (void)priv_unpack_tagid_entry(&tag, e);
      ojson t = ojson::object();
      t["name"] = json_text(tag.dktagid_name, sizeof tag.dktagid_name);
      t["value"] = json_text(tag.dktagid_value, sizeof tag.dktagid_value);
      t["source"] = json_text(tag.dktagid_source, sizeof tag.dktagid_source);
      t["flags"] = json_hex(tag.dktagid_flags, 4);
      o["tagid"] = std::move(t);
    }
    run.w.element(o);
  }
  run.w.close();
  run.w.member("config_copies", copies_json(priv->pri_config_copies));
  run.w.member("log_copies", copies_json(priv->pri_log_copies));
  run.w.close();
}

// --- logs --------------------------------------------------------------------

struct klog_form {
  std::uint8_t type;
  const char* name;
  bool rid, tid, recover;  // words 0-1 rid, then tid (words 2-3, or 0-1 alone), word 4
};
constexpr klog_form klog_forms[] = {
    {VOL_KLOG_DETACH, "DETACH", true, true, false},
    {VOL_KLOG_DIRTY, "DIRTY", true, false, false},
    {VOL_KLOG_COMMIT, "COMMIT", false, true, false},
    {VOL_KLOG_LOGDETACH, "LOGDETACH", true, false, false},
    {VOL_KLOG_APP_DIRTY, "APP_DIRTY", true, true, true},
    {VOL_KLOG_DG_CHANGE_LOG, "DG_CHANGE_LOG", false, true, false},
    {VOL_KLOG_DIRTY_SEQNO, "DIRTY_SEQNO", true, false, false},
    {VOL_KLOG_CACHE_SEQNO, "CACHE_SEQNO", true, false, false},
};

ojson klog_entry_json(const klog_entry_info& e, int slot) {
  ojson o = ojson::object();
  o["slot"] = slot;
  o["type"] = e.kle_type;
  const klog_form* form = nullptr;
  for (const klog_form& f : klog_forms) {
    if (f.type == e.kle_type) form = &f;
  }
  o["name"] = form != nullptr ? form->name : "INVALID";
  if (form != nullptr) {
    if (form->rid) o["rid"] = json_seqno(klog_entry_seqno(e, 0));
    if (form->tid) o["tid"] = json_seqno(klog_entry_seqno(e, form->rid ? 2 : 0));
    if (form->recover) o["recover_seqno"] = static_cast<std::int32_t>(e.kle_words[4]);
  }
  ojson words = ojson::array();
  for (std::uint32_t w : e.kle_words) words.push_back(w);
  o["words"] = std::move(words);
  return o;
}

// One log copy: its blocks as the log dump reads and validates them.
ojson log_copy_json(json_run& run, priv_info* priv, copy_info* cp, bool read) {
  session& s = run.in;
  ojson c = ojson::object();
  c["copy"] = cp->ci_copy;
  const bool disabled = cp->ci_npart > 0 && cp->ci_parts != nullptr && cp->ci_parts[0] != nullptr &&
                        (cp->ci_parts[0]->tei_region.dkr_flags & DKR_DISABLED) != 0;
  c["enabled"] = !disabled;
  ojson blocks = ojson::array();
  std::size_t nread = 0;
  std::uint8_t* buf = get_aligned_buf(s, BUFSIZE);
  if (read && buf != nullptr && priv_read_copy(s, priv, cp, buf, 0, KLOG_READ_BLOCKS, &nread) != 0) {
    volpfmt(s, s.err, 1, ":640:Failed to read log copy %d\n", cp->ci_copy);
    nread = 0;
    read = false;
  }
  c["read"] = read && buf != nullptr;
  for (std::size_t blk = 0; blk < nread; ++blk) {
    const std::uint8_t* bp = buf + blk * KLOG_BLKSIZE;
    klog_block_info h{};
    klog_block_decode(bp, bp + KLOG_BLKSIZE, &h);
    const bool valid = h.klb_magic_ok && h.klb_blkno == blk;
    ojson b = ojson::object();
    b["block"] = blk;
    b["valid"] = valid;
    b["magic_ok"] = h.klb_magic_ok;
    b["stored_block"] = h.klb_blkno;
    b["tid"] = json_seqno(h.klb_tid);
    b["seqno"] = h.klb_seqno;
    b["len"] = h.klb_loglen;
    ojson entries = ojson::array();
    if (!valid) {
      finding f;
      f.code = finding_code::log_block_invalid;
      f.text = volsfmt(s, 1, ":721:Log block %d: Log block invalid", static_cast<int>(blk));
      f.place.block = static_cast<std::int64_t>(blk * (KLOG_BLKSIZE / 512));
      place_in_copy_block(priv, cp, f.place);
      f.place.structure = "log copy";
      f.expected = std::to_string(blk);
      f.actual = std::to_string(h.klb_blkno);
      run.found.list.push_back(std::move(f));
    } else {
      if (blk == 0 && h.klb_loglen < nread) nread = h.klb_loglen;
      for (int n = 0; n < KLOG_NENTRIES; ++n) {
        const std::uint8_t* ep = bp + klog_entry_offset(n);
        if (klog_entry_type(ep) == MIN_KLOG_TYPE_ENT) continue;
        klog_entry_info e;
        if (klog_entry_decode(ep, bp + KLOG_BLKSIZE, &e) == nullptr) continue;
        entries.push_back(klog_entry_json(e, n));
      }
    }
    b["entries"] = std::move(entries);
    blocks.push_back(std::move(b));
  }
  c["blocks"] = std::move(blocks);
  return c;
}

// "logs": copy `copy`, or every copy (a disabled one listed, not read).
// False (after the message the log dump gives) when no copy matched.
bool write_logs(json_run& run, priv_info* priv, int copy, bool say_none = true) {
  run.stage("logs");
  run.w.open_array("logs");
  bool found = false;
  for (copy_info* cp = priv->pri_log_copies; cp != nullptr; cp = cp->ci_next) {
    if (copy >= 0 && cp->ci_copy != copy) continue;
    found = true;
    const bool disabled = cp->ci_npart > 0 && cp->ci_parts != nullptr && cp->ci_parts[0] != nullptr &&
                          (cp->ci_parts[0]->tei_region.dkr_flags & DKR_DISABLED) != 0;
    run.w.element(log_copy_json(run, priv, cp, copy >= 0 || !disabled));
  }
  run.w.close();
  if (!found && say_none) {
    if (copy >= 0) {
      volpfmt(run.in, run.in.err, 1, ":567:Disk does not have log copy %d\n", copy);
    } else {
      volpfmt(run.in, run.in.err, 1, ":596:Disk has no log copies\n");
    }
  }
  return found;
}

// --- records -----------------------------------------------------------------

// A decoded field of a record kind: its (first) tag name and table entry.
struct json_field {
  std::string name;
  const voltagdesc* d;
};

// The fields of each kind, each tag once under its first name; entries
// without a member (lists, pseudo-fields) are left out.
const std::vector<json_field>& fields_of(int type) {
  static const auto all = [] {
    std::vector<std::vector<json_field>> v(16);
    for (int t = 0; t < 16; ++t) {
      std::vector<int> seen;
      for (const voltagdesc& d : record_tag_table(t)) {
        if (d.type == TAG_NOOP || d.width == 0) continue;
        bool dup = false;
        for (int tag : seen) dup = dup || tag == d.tag;
        if (dup) continue;
        seen.push_back(d.tag);
        v[t].push_back({d.name, &d});
      }
    }
    return v;
  }();
  return all[type & 15];
}

const std::uint8_t* member_at(const void* rec, const voltagdesc& d) {
  return static_cast<const std::uint8_t*>(rec) + d.offs;
}

std::uint64_t member_unsigned(const void* rec, const voltagdesc& d) {
  std::uint64_t v = 0;
  std::memcpy(&v, member_at(rec, d), d.width < 8 ? d.width : 8);  // little-endian host
  return v;
}

std::int64_t member_signed(const void* rec, const voltagdesc& d) {
  const std::uint64_t v = member_unsigned(rec, d);
  if (d.width >= 8) return static_cast<std::int64_t>(v);
  const unsigned shift = static_cast<unsigned>(64 - 8 * d.width);
  return static_cast<std::int64_t>(v << shift) >> shift;
}

ojson member_integer(const void* rec, const voltagdesc& d) {
  if (d.is_signed) return member_signed(rec, d);
  return member_unsigned(rec, d);
}

// One decoded field in its one JSON type (docs/json.md lists them).
ojson field_json(tag_printer& tp, const void* rec, const voltagdesc& d) {
  switch (d.type) {
    case TAG_NAME:
    case TAG_COMMNT: {
      const char* p = reinterpret_cast<const char*>(member_at(rec, d));
      std::size_t skipped = 0;
      while (static_cast<long>(skipped) < d.info && p[skipped] == '\0') ++skipped;
      return json_text(p + skipped, d.width - skipped);
    }
    case TAG_PREF:
    case TAG_UUID:
      return json_text(reinterpret_cast<const char*>(member_at(rec, d)), d.width);
    case TAG_SEQNO:
    case TAG_RID: {
      volseqno_t v;
      std::memcpy(&v, member_at(rec, d), sizeof v);
      return json_seqno(v);
    }
    case TAG_GUID:
    case TAG_NT_GUID: {
      voldguid_t g;
      std::memcpy(&g, member_at(rec, d), sizeof g);
      return json_guid(g);
    }
    case TAG_VKSTATE:
    case TAG_EXCEPT:
    case TAG_PKSTATE:
    case TAG_LAYOUT:
    case TAG_PIOMODE:
    case TAG_LOG_TYPE:
      return json_text(tp.field_sprint(rec, d));
    case TAG_DEV: {  // the report's text, without printf
      const std::uint64_t dev = member_unsigned(rec, d);
      if (dev == ~std::uint64_t{0}) return "VOLNODEV";
      const std::string n = std::to_string(dev);
      return n + "/" + n;
    }
    case TAG_MODE: {  // octal, with a leading 0
      std::uint64_t v = member_unsigned(rec, d);
      std::string out;
      do {
        out.insert(out.begin(), static_cast<char>('0' + (v & 7)));
        v >>= 3;
      } while (v != 0);
      return "0" + out;
    }
    case TAG_R_POL:
      return tp.getetag(rpols(), static_cast<int>(member_signed(rec, d)));
    default:  // numbers: lengths, offsets, counts, ids, versions, modes
      return member_integer(rec, d);
  }
}

ojson record_json(tag_printer& tp, const dbase* db, const db_record* r) {
  ojson o = ojson::object();
  auto& m = o.get_ref<ojson::object_t&>();
  // Reserved: growing a vector of pairs with const keys copies every member.
  m.reserve(14);
  const record* rec = record_of(r);
  m.emplace_back("ref", r->dbr_ref);
  m.emplace_back("type", static_cast<int>(r->dbr_type & 15));
  m.emplace_back("type_name", json_record_type_name(static_cast<int>(r->dbr_type & 15)));
  m.emplace_back("type_word", json_hex(r->dbr_type, 8));
  m.emplace_back("flags", json_hex(r->dbr_flag, 4));
  m.emplace_back("gen_flags", json_hex(r->dbr_gen_flag, 4));
  m.emplace_back("size", r->dbr_size);
  ojson blocks = ojson::array();
  std::size_t steps = 0;
  for (std::size_t b = r->dbr_first_blkno; b < db->ddb_nblocks && steps < db->ddb_nblocks;
       b = ddb_block(db, b).dbb_next_blkno, ++steps) {
    blocks.push_back(b);
  }
  m.emplace_back("blocks", std::move(blocks));
  m.emplace_back("decoded", rec != nullptr);
  if (rec == nullptr) return o;
  m.emplace_back("rid", json_seqno(rec->rid));
  m.emplace_back("name", json_text(rec->name, sizeof rec->name));
  m.emplace_back("name_hex", json_cstr_bytes(rec->name, sizeof rec->name));
  ojson fields = ojson::object();
  ojson set_flags = ojson::array();
  if (rec->u != nullptr) {
    auto& fm = fields.get_ref<ojson::object_t&>();
    fm.reserve(fields_of(rec->type).size());
    for (const json_field& f : fields_of(rec->type)) {
      if (f.d->type != TAG_FLAG) {
        fm.emplace_back(f.name, field_json(tp, rec->u, *f.d));
      } else if ((member_unsigned(rec->u, *f.d) & static_cast<unsigned long>(f.d->info)) != 0) {
        set_flags.push_back(f.name);
      }
    }
  }
  m.emplace_back("fields", std::move(fields));
  m.emplace_back("set_flags", std::move(set_flags));
  return o;
}

ojson summary_json(volseqno_t tid, const vol_summary& c) {
  ojson o = ojson::object();
  o["tid"] = json_seqno(tid);
  o["nvol"] = c.vs_v_cnt;
  o["nplex"] = c.vs_pl_cnt;
  o["nsd"] = c.vs_sd_cnt;
  o["ndm"] = c.vs_dm_cnt;
  o["nda"] = c.vs_da_cnt;
  return o;
}

ojson count_json(unsigned long claimed, int left) {
  ojson o = ojson::object();
  o["header"] = claimed;
  o["found"] = static_cast<unsigned>(wrapping_sub(static_cast<int>(claimed), left));
  return o;
}

bool copy_enabled(const copy_info* cp) {
  return !(cp->ci_npart > 0 && cp->ci_parts[0] != nullptr &&
           (cp->ci_parts[0]->tei_region.dkr_flags & DKR_DISABLED) != 0);
}

// "config": configuration copy `copy` (the first enabled one when
// negative), loaded and analysed as privdiag does, then written record by
// record. False when the run stopped.
bool write_config(json_run& run, inspect_image& img, int copy) {
  run.stage("config");
  copy_info* cp = inspect_select_config_copy(run.in, img.priv(), copy);
  if (cp == nullptr) {
    run.stop_here();
    return false;
  }
  config_report rep(run.in);
  rep.print_report = false;
  if (priv_load_config(run.in, img.priv(), cp, rep) != 1) {
    run.stop_here();
    return false;
  }
  const dbase* db = rep.db;
  const voldb_info& h = rep.hdrinfo;
  json_writer& w = run.w;
  w.open_object("config");
  w.member("copy", cp->ci_copy);
  w.member("enabled", copy_enabled(cp));
  ojson d = ojson::object();
  d["nblocks"] = db->ddb_nblocks;
  d["blksize"] = db->ddb_blksize;
  d["hdrsize"] = db->ddb_hdrsize;
  d["flags"] = json_hex(db->ddb_flag, 4);
  d["commit_state"] = h.vdbi_commit_state;
  d["commit_state_name"] = commit_state_word(h.vdbi_commit_state);
  d["version_major"] = h.vdbi_version_major;
  d["version_minor"] = h.vdbi_version_minor;
  d["timestamp"] = h.vdbi_nt_update_time;
  put_name(d, "dg_name", h.vdbi_dg_name);
  d["dg_id"] = json_text(h.vdbi_dg_id, sizeof h.vdbi_dg_id);
  d["config"] = summary_json(h.vdbi_config_tid, h.vdbi_config_sum);
  d["pending"] = summary_json(h.vdbi_pending_tid, h.vdbi_pending_sum);
  w.member("database", d);
  const overview_state& st = rep.view;
  ojson counts = ojson::object();
  counts["volumes"] = count_json(h.vdbi_config_sum.vs_v_cnt, st.v_cnt);
  counts["plexes"] = count_json(h.vdbi_config_sum.vs_pl_cnt, st.pl_cnt);
  counts["subdisks"] = count_json(h.vdbi_config_sum.vs_sd_cnt, st.sd_cnt);
  counts["disks"] = count_json(h.vdbi_config_sum.vs_dm_cnt, st.dm_cnt);
  w.member("counts", counts);
  w.member("max_tid", json_seqno(st.max_tid));
  w.open_array("blocks");
  const std::size_t first = db->ddb_blksize == 0 ? 0 : db->ddb_hdrsize / db->ddb_blksize;
  for (std::size_t b = ddb_block_next(db, 0); b != DDB_NOBLOCK && b < db->ddb_nblocks;
       b = ddb_block_next(db, b + 1)) {
    const db_block& blk = ddb_block(db, b);
    if (b < first || (blk.dbb_record == nullptr && blk.dbb_flag == 0)) continue;
    ojson o = ojson::object();
    auto& m = o.get_ref<ojson::object_t&>();
    m.reserve(5);
    m.emplace_back("block", b);
    m.emplace_back("flag", json_hex(blk.dbb_flag, 4));
    if (blk.dbb_record != nullptr) {
      m.emplace_back("ref", blk.dbb_record->dbr_ref);
      m.emplace_back("offset", blk.dbb_offset);
      m.emplace_back("frag_size", blk.dbb_frag_size);
    }
    w.element(o);
  }
  w.close();
  w.open_array("records");
  tag_printer tp;
  for (const db_record* r : details_order(st)) w.element(record_json(tp, db, r));
  w.close();
  w.close();
  return true;
}

// --- scan --------------------------------------------------------------------

ojson checksum_json(std::uint32_t stored, std::uint32_t computed) {
  ojson o = ojson::object();
  o["stored"] = json_hex(stored, 8);
  o["computed"] = json_hex(computed, 8);
  o["ok"] = stored == computed;
  return o;
}

ojson place_json(const copy_position& at) {
  ojson pl = ojson::object();
  pl["kind"] = at.kind == copy_kind::config ? "config" : "log";
  pl["copy"] = at.copy;
  pl["block"] = at.block;
  pl["rem"] = at.rem;
  return pl;
}

// The decoded fields of a structure's entry.
ojson scan_decoded_json(const scan_entry& e) {
  ojson d = ojson::object();
  switch (e.kind) {
    case scan_kind::privhead:
      d["checksum"] = checksum_json(e.stored_sum, e.computed_sum);
      d["decode"] = decode_json(e.decode);
      if (e.decode == 0) {
        d["update_seqno"] = json_seqno(e.seqno);
        d["primary_header"] = e.primary_header;
        d["alt_header"] = e.alt_header;
      }
      break;
    case scan_kind::tocblock:
      d["checksum"] = checksum_json(e.stored_sum, e.computed_sum);
      d["update_seqno"] = json_seqno(e.seqno);
      d["next"] = e.next;
      d["alt_next"] = e.alt_next;
      break;
    case scan_kind::vmdb:
      d["nblocks"] = e.nblocks;
      d["blksize"] = e.blksize;
      d["hdrsize"] = e.hdrsize;
      d["version_major"] = e.version_major;
      d["version_minor"] = e.version_minor;
      d["commit_state"] = e.commit_state;
      d["decode"] = decode_json(e.decode);
      break;
    case scan_kind::vblk:
    case scan_kind::unused_run:
      d["block"] = *e.blkno;
      d["ref"] = e.ref;
      d["frag"] = e.frag;
      d["nfrag"] = e.nfrag;
      break;
    case scan_kind::klog:
      d["block"] = *e.blkno;
      d["tid"] = json_seqno(e.seqno);
      d["seqno"] = e.log_seqno;
      d["len"] = e.log_len;
      break;
    case scan_kind::damaged:
      break;
  }
  return d;
}

// One entry of the scan's model as one element of "hits".
ojson scan_entry_json(const scan_entry& e) {
  static const char* const kinds[] = {"structure", "structure", "structure", "structure",
                                      "structure", "unused_run", "damaged"};
  ojson o = ojson::object();
  o["sector"] = e.sector;
  o["offset"] = e.offset;
  o["kind"] = kinds[static_cast<int>(e.kind)];
  o["magic"] = e.magic;
  o["bytes"] = e.bytes;
  o["truncated"] = e.truncated;
  if (e.count > 1) {
    o["count"] = e.count;
    o["last_sector"] = e.last_sector;
    o["last_offset"] = e.last_offset;
  }
  if (e.kind == scan_kind::damaged) {
    o["found"] = json_text(e.found);
    o["found_hex"] = json_hex_bytes(e.found);
    // The text of the place without its "; ".
    o["where"] = json_text(e.where.size() > 2 ? e.where.substr(2) : e.where);
  } else if (!e.truncated) {
    o["decoded"] = scan_decoded_json(e);
  }
  if (e.place) {
    ojson pl = place_json(*e.place);
    if (e.blkno && e.place->rem == 0) pl["block_agrees"] = e.place->block == *e.blkno;
    o["place"] = std::move(pl);
  }
  if (e.count > 1 && e.last_place) o["last_place"] = place_json(*e.last_place);
  return o;
}

// --- hexdump -----------------------------------------------------------------

ojson bytes_unit(const std::uint8_t* p, std::size_t n) {
  ojson o = ojson::object();
  o["length"] = n;
  o["hex"] = json_hex_bytes(std::string_view(reinterpret_cast<const char*>(p), n));
  return o;
}

int hexdump_sectors(json_run& run, inspect_image& img, std::uint64_t first, std::size_t count) {
  const std::size_t ss = static_cast<std::size_t>(img.sector_size());
  std::vector<std::uint8_t> buf(ss);
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint64_t sec = first + i;
    const bool addressable = sec >= first && sec <= UINT64_MAX / ss;
    const std::size_t n = addressable ? img.read_at(sec * ss, buf.data(), ss) : 0;
    if (n == 0) {
      run.stop("hexdump", "sector " + std::to_string(sec) + ": beyond the end of the image");
      return INSPECT_FINDINGS;
    }
    ojson u = bytes_unit(buf.data(), n);
    u["sector"] = sec;
    u["offset"] = sec * ss;
    run.w.element(u);
    if (n < ss) {
      run.stop("hexdump", "sector " + std::to_string(sec) + ": only " + std::to_string(n) +
                              " bytes before the end of the image");
      return INSPECT_FINDINGS;
    }
  }
  return INSPECT_OK;
}

int hexdump_blocks(json_run& run, inspect_image& img, int copy, std::size_t first,
                   std::size_t count) {
  copy_info* cp = inspect_select_config_copy(run.in, img.priv(), copy);
  if (cp == nullptr) {
    run.stop("hexdump");
    return INSPECT_FINDINGS;
  }
  std::uint8_t* buf = get_aligned_buf(run.in, BUFSIZE);
  std::size_t blk = first;
  for (std::size_t left = count; left > 0;) {
    const std::size_t want = left < RUN_BLOCKS ? left : RUN_BLOCKS;
    std::size_t nread = 0;
    if (buf == nullptr || priv_read_copy(run.in, img.priv(), cp, buf, blk, want, &nread) != 0) {
      volpfmt(run.in, run.in.err, 1, ":640:Failed to read log copy %d\n", cp->ci_copy);
      run.stop("hexdump");
      return INSPECT_FINDINGS;
    }
    for (std::size_t i = 0; i < nread; ++i) {
      ojson u = bytes_unit(buf + i * COPY_BLK, COPY_BLK);
      u["copy"] = cp->ci_copy;
      u["block"] = blk + i;
      run.w.element(u);
    }
    blk += nread;
    left -= nread;
    if (nread < want) {
      run.stop("hexdump", "config copy " + std::to_string(cp->ci_copy) + ": block " +
                              std::to_string(blk) + " is beyond its end");
      return INSPECT_FINDINGS;
    }
  }
  return INSPECT_OK;
}

bool record_matches(const record* r, const std::string& ref) {
  const char* end = nullptr;
  const volrid_t rid = strtovolrid(ref.c_str(), &end);
  if (end != ref.c_str() && *end == '\0') return seqno_equal(rid, r->rid);
  return ref == r->name;
}

int hexdump_record(json_run& run, inspect_image& img, int copy, const std::string& ref) {
  copy_info* cp = inspect_select_config_copy(run.in, img.priv(), copy);
  if (cp == nullptr) {
    run.stop("hexdump");
    return INSPECT_FINDINGS;
  }
  loaded_copy lc(run.in);
  if (!lc.load(img.priv(), cp)) {
    run.stop("hexdump");
    return INSPECT_FINDINGS;
  }
  const dbase* db = lc.rep.db;
  const std::size_t blksize = db->ddb_blksize;
  int matched = 0;
  for (record* r = lc.rep.rlist; r != nullptr; r = r->next) {
    if (!record_matches(r, ref)) continue;
    matched++;
    std::size_t guard = 0;
    for (std::size_t b = r->dbrec->dbr_first_blkno;
         b != DDB_NOBLOCK && b < db->ddb_nblocks && guard < db->ddb_nblocks;
         b = ddb_block(db, b).dbb_next_blkno, guard++) {
      const std::size_t byte = b * blksize;
      const std::size_t firstblk = byte / COPY_BLK;
      const std::size_t nblks = (byte + blksize + COPY_BLK - 1) / COPY_BLK - firstblk;
      std::uint8_t* buf = get_aligned_buf(run.in, BUFSIZE);
      std::size_t nread = 0;
      ojson u;
      if (buf == nullptr || nblks > RUN_BLOCKS ||
          priv_read_copy(run.in, img.priv(), cp, buf, firstblk, nblks, &nread) != 0 ||
          nread < nblks) {
        u = bytes_unit(nullptr, 0);
      } else {
        u = bytes_unit(buf + (byte - firstblk * COPY_BLK), blksize);
      }
      u["copy"] = cp->ci_copy;
      u["rid"] = json_seqno(r->rid);
      u["name"] = json_text(r->name, sizeof r->name);
      u["ref"] = r->dbrec->dbr_ref;
      u["store_block"] = b;
      u["copy_offset"] = byte;
      run.w.element(u);
    }
  }
  if (matched == 0) {
    run.stop("hexdump", "no record of config copy " + std::to_string(cp->ci_copy) +
                            " is named or numbered " + ref);
    return INSPECT_FINDINGS;
  }
  return INSPECT_OK;
}

// --- compare -----------------------------------------------------------------

ojson texts(const std::vector<std::string>& v) {
  ojson a = ojson::array();
  for (const std::string& x : v) a.push_back(json_text(x));
  return a;
}

// compare's model (inspect_compare.h) as the document's "compare" member.
ojson compare_json(const compare_model& m) {
  ojson o = ojson::object();
  ojson disks = ojson::array();
  for (std::size_t i = 0; i < m.disks.size(); ++i) {
    const compare_disk& d = m.disks[i];
    ojson j = ojson::object();
    j["disk"] = i + 1;
    j["path"] = json_text(d.path);
    j["opened"] = d.opened;
    j["usable"] = d.usable;
    if (!d.usable) j["problem"] = d.problem;
    j["disk_name"] = json_text(d.disk_name);
    j["disk_id"] = json_text(d.disk_id);
    j["group_name"] = json_text(d.group_name);
    j["group_id"] = json_text(d.group_id);
    ojson headers = ojson::object();
    const std::pair<const char*, const compare_header_copy*> both[] = {
        {"primary", &d.primary}, {"alternate", &d.alternate}};
    for (const auto& [name, h] : both) {
      ojson c = ojson::object();
      c["seqno"] = h->seqno.empty() ? ojson(nullptr) : ojson(h->seqno);
      c["checksum"] = h->checksum.empty() ? ojson(nullptr) : ojson(h->checksum);
      headers[name] = c;
    }
    j["headers"] = headers;
    ojson copies = ojson::array();
    for (const compare_config_copy& c : d.copies) {
      ojson x = ojson::object();
      x["copy"] = c.copy;
      x["enabled"] = c.enabled;
      x["loaded"] = c.loaded;
      if (c.loaded) {
        x["tid"] = c.tid;
        x["commit_state"] = c.commit_state;
        x["commit_state_name"] = c.commit_state_name;
        x["version"] = c.version;
      }
      copies.push_back(x);
    }
    j["config_copies"] = copies;
    ojson logs = ojson::array();
    for (const compare_log_copy& l : d.logs) {
      ojson x = ojson::object();
      x["copy"] = l.copy;
      x["read"] = l.read;
      x["highest_tid"] = l.highest_tid.empty() ? ojson(nullptr) : ojson(l.highest_tid);
      logs.push_back(x);
    }
    j["log_copies"] = logs;
    j["compared_copy"] = d.db_copy < 0 ? ojson(nullptr) : ojson(d.db_copy);
    disks.push_back(j);
  }
  o["disks"] = disks;
  ojson groups = ojson::array();
  for (const compare_group& g : m.groups) {
    ojson x = ojson::object();
    x["tid"] = g.tid;
    ojson holders = ojson::array();
    for (const compare_holder& h : g.holders) {
      holders.push_back({{"disk", h.disk + 1}, {"copies", h.copies}});
    }
    x["holders"] = holders;
    groups.push_back(x);
  }
  o["same_database"] = groups;
  ojson stale = ojson::array();
  for (const compare_stale& st : m.stale) {
    stale.push_back({{"disk", st.disk + 1}, {"why", texts(st.why)}});
  }
  o["stale"] = stale;
  auto numbers = [](const std::vector<std::size_t>& v) {
    ojson a = ojson::array();
    for (std::size_t i : v) a.push_back(i + 1);
    return a;
  };
  ojson records = ojson::array();
  for (const compare_record_diff& r : m.records) {
    ojson x = ojson::object();
    x["rid"] = r.rid;
    x["type_name"] = r.type_name;
    x["name"] = json_text(r.name);
    x["on"] = numbers(r.on);
    x["missing"] = numbers(r.missing);
    ojson fields = ojson::array();
    for (const compare_field_diff& fd : r.fields) {
      ojson values = ojson::array();
      for (const compare_value& v : fd.values) {
        const ojson value = v.present ? ojson(json_text(v.value)) : ojson(nullptr);
        values.push_back({{"disk", v.disk + 1}, {"value", value}});
      }
      fields.push_back({{"field", json_text(fd.name)}, {"values", values}});
    }
    x["fields"] = fields;
    records.push_back(x);
  }
  o["records"] = records;
  ojson rows = ojson::array();
  for (const compare_row& r : m.membership) {
    ojson holds = ojson::array();
    for (int h : r.holds) holds.push_back(h < 0 ? ojson(nullptr) : ojson(h == 1));
    rows.push_back({{"disk", r.disk + 1}, {"holds", holds}, {"others", texts(r.others)}});
  }
  o["membership"] = rows;
  o["problems"] = texts(m.problems);
  o["verdict"] = m.verdict;
  o["verdict_why"] = json_text(m.verdict_why);
  return o;
}


// The status of a run stopped by a fatal condition of the library.
int fatal_status(const fatal_exit& e) {
  return e.kind == fatal_kind::unreadable ? INSPECT_USAGE_IO : INSPECT_FINDINGS;
}

// Runs `body` (status) on a fresh run; a fatal condition stops the run.
template <class Body>
int run_document(FILE* out, FILE* err, const json_invocation& inv, const char* command,
                 const inspect_target& t, Body body) {
  json_run run(out, err, inv, command);
  int status;
  {
    inspect_image img(run.in);
    if (!run.open(img, t)) return run.finish(INSPECT_USAGE_IO);
    try {
      status = body(run, img);
    } catch (const fatal_exit& e) {
      run.stop_here();
      status = fatal_status(e);
    }
  }
  return run.finish(status);
}

}  // namespace

int json_dump_to(FILE* out, FILE* err, const json_invocation& inv, const inspect_target& t) {
  return run_document(out, err, inv, "dump", t, [](json_run& run, inspect_image& img) {
    if (!write_headers(run, img) || !run.locate(img)) return INSPECT_FINDINGS;
    write_toc(run, img.priv());
    write_logs(run, img.priv(), -1, false);
    if (!write_config(run, img, -1)) return INSPECT_FINDINGS;
    return run.found.any_problem() ? INSPECT_FINDINGS : INSPECT_OK;
  });
}

int json_dump(session& s, const json_invocation& inv, const inspect_target& t) {
  return json_dump_to(s.out, s.err, inv, t);
}

int json_logs(session& s, const json_invocation& inv, const inspect_target& t, int copy) {
  return run_document(s.out, s.err, inv, "logs", t, [copy](json_run& run, inspect_image& img) {
    if (!run.locate(img)) return INSPECT_FINDINGS;
    if (!write_logs(run, img.priv(), copy)) {
      run.stop_here();
      return INSPECT_FINDINGS;
    }
    return INSPECT_OK;
  });
}

int json_config(session& s, const json_invocation& inv, const inspect_target& t, int copy) {
  return run_document(s.out, s.err, inv, "config", t, [copy](json_run& run, inspect_image& img) {
    if (!run.locate(img)) return INSPECT_FINDINGS;
    return write_config(run, img, copy) ? INSPECT_OK : INSPECT_FINDINGS;
  });
}

int json_headers(session& s, const json_invocation& inv, const inspect_target& t) {
  return run_document(s.out, s.err, inv, "headers", t, [](json_run& run, inspect_image& img) {
    return write_headers(run, img) == 0 ? INSPECT_OK : INSPECT_FINDINGS;
  });
}

int json_check(session& s, const json_invocation& inv, const inspect_target& t) {
  return run_document(s.out, s.err, inv, "check", t, [&t](json_run& run, inspect_image& img) {
    // privdiag's path first, then the rest of the region, as the text
    // check does; only an image that cannot be read stops both.
    int status = INSPECT_OK;
    if (!run.locate(img)) {
      status = INSPECT_UNUSABLE;
    } else {
      run.stage("config");
      try {
        if (priv_dump_config(run.in, img.priv(), -1, false) != 1) {
          run.stop_here();
          status = INSPECT_UNUSABLE;
        }
      } catch (const fatal_exit& e) {
        run.stop_here();
        if (e.kind == fatal_kind::unreadable) return INSPECT_USAGE_IO;
        status = INSPECT_UNUSABLE;
      }
    }
    for (const finding& f : region_findings(run.in, t)) run.found.raise(f);
    if (status == INSPECT_OK && run.found.any_problem()) status = INSPECT_FINDINGS;
    return status;
  });
}

int json_scan(session& s, const json_invocation& inv, const inspect_target& t,
              const scan_request& r) {
  return run_document(s.out, s.err, inv, "scan", t, [&r](json_run& run, inspect_image& img) {
    run.stage("scan");
    const std::uint64_t nsect = scan_sector_count(img);
    if (r.first >= nsect) {
      run.stop("scan", "--range: sector " + std::to_string(r.first) +
                           " is beyond the end of the image (" + std::to_string(nsect) +
                           " sectors)");
      return INSPECT_FINDINGS;
    }
    const copy_places places = copy_places::locate_quietly(img);
    run.w.open_object("scan");
    run.w.member("located", places.joined());
    run.w.member("summary", json_text(places.summary()));
    ojson range = ojson::object();
    range["first"] = r.first;
    range["count"] = r.count < nsect - r.first ? r.count : nsect - r.first;
    run.w.member("range", range);
    run.w.open_array("hits");
    const scan_totals n = scan_image(img, places, r, [&run](const scan_entry& e) {
      run.w.element(scan_entry_json(e));
    });
    run.w.close();
    run.w.member("candidates", n.candidates);
    run.w.member("damaged", n.damaged);
    run.w.member("sectors", n.sectors);
    run.w.close();
    return INSPECT_OK;
  });
}

int json_hexdump(session& s, const json_invocation& inv, const inspect_target& t,
                 const hexdump_request& r) {
  return run_document(s.out, s.err, inv, "hexdump", t, [&r](json_run& run, inspect_image& img) {
    static const char* const what[] = {"sector", "block", "record"};
    if (r.what != hexdump_what::sector && !run.locate(img)) return INSPECT_FINDINGS;
    run.stage("hexdump");
    run.w.open_object("hexdump");
    run.w.member("what", what[static_cast<int>(r.what)]);
    run.w.open_array("units");
    switch (r.what) {
      case hexdump_what::sector:
        return hexdump_sectors(run, img, r.sector, r.count);
      case hexdump_what::block:
        return hexdump_blocks(run, img, r.copy, r.block, r.count);
      case hexdump_what::record:
        return hexdump_record(run, img, r.copy, r.ref);
    }
    return INSPECT_FINDINGS;
  });
}

int json_records(session& s, const json_invocation& inv, const inspect_target& t,
                 const records_filter& f) {
  return run_document(s.out, s.err, inv, "records", t, [&f](json_run& run, inspect_image& img) {
    if (!run.locate(img)) return INSPECT_FINDINGS;
    run.stage("records");
    copy_info* cp = inspect_select_config_copy(run.in, img.priv(), f.copy);
    if (cp == nullptr) {
      run.stop_here();
      return INSPECT_FINDINGS;
    }
    loaded_copy lc(run.in);
    if (!lc.load(img.priv(), cp)) {
      run.stop_here();
      return INSPECT_FINDINGS;
    }
    int total = 0, matched = 0;
    for (const record* r = lc.rep.rlist; r != nullptr; r = r->next) {
      total++;
      if (records_match(r, f)) matched++;
    }
    ojson sel = ojson::object();
    sel["copy"] = cp->ci_copy;
    sel["total"] = total;
    sel["matched"] = matched;
    run.w.member("selection", sel);
    run.w.open_array("records");
    tag_printer tp;
    for (const record* r = lc.rep.rlist; r != nullptr; r = r->next) {
      if (records_match(r, f)) run.w.element(record_json(tp, lc.rep.db, r->dbrec));
    }
    run.w.close();
    return matched > 0 ? INSPECT_OK : INSPECT_FINDINGS;
  });
}

int json_locate(session& s, const json_invocation& inv, const inspect_target& t) {
  json_run run(s.out, s.err, inv, "locate");
  run.stage("open");
  std::uint64_t size = 0;
  std::vector<disk_survey> surveys;
  const int status = locate_surveys(run.in, t, &size, &surveys);
  ojson image = ojson::object();
  image["path"] = json_text(t.image);
  image["size"] = size;
  image["sector_size"] = t.sector_size;
  run.w.member("image", image);
  if (status == INSPECT_USAGE_IO) {
    run.stop_here();
    return run.finish(status);
  }
  run.w.open_array("locate");
  for (const disk_survey& d : surveys) {
    ojson o = ojson::object();
    o["sector_size"] = d.sector_size;
    o["table"] = table_kind_name(d.tables.kind);
    ojson parts = ojson::array();
    for (const disk_partition& p : d.tables.partitions) {
      ojson part = ojson::object();
      part["number"] = p.number;
      part["first"] = p.first;
      part["sectors"] = p.sectors;
      part["type"] = json_text(p.type);
      parts.push_back(part);
    }
    o["partitions"] = parts;
    ojson notes = ojson::array();
    for (const std::string& n : d.tables.notes) notes.push_back(json_text(n));
    o["notes"] = notes;
    ojson problems = ojson::array();
    for (const std::string& n : d.tables.problems) problems.push_back(json_text(n));
    for (const std::string& n : d.problems) problems.push_back(json_text(n));
    o["problems"] = problems;
    ojson cands = ojson::array();
    for (const region_candidate& c : d.candidates) {
      ojson cand = ojson::object();
      cand["offset"] = c.offset;
      cand["length"] = c.length;
      cand["sector_size"] = c.sector_size;
      cand["how"] = json_text(c.how);
      cands.push_back(cand);
    }
    o["candidates"] = cands;
    run.w.element(o);
  }
  run.w.close();
  return run.finish(status);
}

int json_extract(session& s, const json_invocation& inv, const inspect_target& t,
                 const std::string& out, bool force) {
  json_run run(s.out, s.err, inv, "extract");
  run.stage("open");
  extract_result r;
  const int status = extract_region(run.in, t, out, force, &r);
  ojson image = ojson::object();
  image["path"] = json_text(t.image);
  image["size"] = r.length;
  image["sector_size"] = t.sector_size;
  run.w.member("image", image);
  if (status != INSPECT_OK) {
    // Once the region is chosen, what failed is the writing.
    run.stop(r.length > 0 ? "extract" : "open");
    return run.finish(status);
  }
  ojson o = ojson::object();
  o["out"] = json_text(r.out);
  o["offset"] = r.offset;
  o["length"] = r.length;
  o["bytes"] = r.bytes;
  run.w.member("extract", o);
  return run.finish(status);
}

int json_compare(session& s, const json_invocation& inv,
                 const std::vector<inspect_target>& disks) {
  json_run run(s.out, s.err, inv, "compare");
  run.stage("compare");
  const compare_model m = build_compare(run.in, disks);
  // The envelope's image is the first one given; "compare" lists them all.
  ojson image = ojson::object();
  image["path"] = json_text(disks.empty() ? std::string() : disks[0].image);
  image["size"] = m.disks.empty() ? 0 : m.disks[0].size;
  image["sector_size"] = disks.empty() ? 512 : disks[0].sector_size;
  run.w.member("image", image);
  run.w.member("compare", compare_json(m));
  if (m.status == INSPECT_USAGE_IO || m.status == INSPECT_UNUSABLE) run.stop_here(m.verdict);
  return run.finish(m.status);
}

namespace {

// A span of a strip or a run of a copy's row: its extent, kind, whether it
// verifies, and its title.
ojson map_piece_json(std::uint64_t first, std::uint64_t count, const char* kind, bool verifies,
                     const std::string& title) {
  ojson o = ojson::object();
  o["first"] = first;
  o["count"] = count;
  o["kind"] = kind;
  o["verifies"] = verifies;
  o["title"] = json_text(title);
  return o;
}

}  // namespace

int json_map(session& s, const json_invocation& inv, const std::vector<inspect_target>& disks) {
  json_run run(s.out, s.err, inv, "map");
  run.stage("map");
  ojson image = ojson::object();
  image["path"] = json_text(disks.empty() ? std::string() : disks[0].image);
  std::vector<disk_map> maps;
  int status = INSPECT_OK;
  std::string stopped;
  for (const inspect_target& t : disks) {
    disk_map m;
    if (!build_disk_map(run.in, t, m)) {
      status = INSPECT_USAGE_IO;
      if (stopped.empty()) stopped = m.note;
      continue;
    }
    maps.push_back(std::move(m));
  }
  image["size"] = maps.empty() ? 0 : maps[0].sectors * static_cast<std::uint64_t>(maps[0].sector_size);
  image["sector_size"] = disks.empty() ? 512 : disks[0].sector_size;
  run.w.member("image", image);
  if (status != INSPECT_OK) {
    run.stop_here(stopped);
    return run.finish(status);
  }
  // The map's model, as the SVG and the text map draw it.
  run.w.open_array("map");
  for (const disk_map& m : maps) {
    ojson d = ojson::object();
    d["image"] = json_text(m.image);
    d["sectors"] = m.sectors;
    d["sector_size"] = m.sector_size;
    d["note"] = json_text(m.note);
    ojson spans = ojson::array();
    for (const map_span& sp : m.spans) {
      spans.push_back(map_piece_json(sp.first, sp.count, span_kind_name(sp.kind), sp.verifies,
                                     sp.title));
    }
    d["spans"] = spans;
    ojson rows = ojson::array();
    for (const copy_row& r : m.rows) {
      ojson o = ojson::object();
      o["copy"] = r.copy;
      o["enabled"] = r.enabled;
      o["nblocks"] = r.nblocks;
      o["title"] = json_text(r.title);
      ojson runs = ojson::array();
      for (const block_run& b : r.runs) {
        runs.push_back(
            map_piece_json(b.first, b.count, block_kind_name(b.kind), b.verifies(), b.title));
      }
      o["runs"] = runs;
      rows.push_back(o);
    }
    d["rows"] = rows;
    run.w.element(d);
  }
  run.w.close();
  return run.finish(status);
}

}  // namespace pd
