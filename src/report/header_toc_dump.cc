// Header and TOC dump. Every line is one C format of the report, printed with
// the C library's rules; offsets and lengths go through vofftostr, each into
// its own buffer.
#include "report/header_toc_dump.h"

#include <cstring>

#include "codec/text_forms.h"
#include "private_region/header.h"
#include "private_region/toc.h"

namespace pd {

namespace {

// Text of a sector value in a caller buffer.
struct voff_text {
  char buf[24];
  explicit voff_text(voff_t v) { vofftostr(v, buf); }
};

void dump_flag_words(session& s, const priv_info* priv) {
  const priv_header_info* hdr = priv->pri_header;
  std::fputs("flags:  ", s.out);
  std::fputs((hdr->phi_flags & PHI_SHARED) ? " shared" : " private", s.out);
  std::fputs((hdr->phi_flags & PHI_NOAUTOIMPORT) ? " noautoimport" : " autoimport", s.out);
  if (hdr->phi_flags & PHI_ENCAP_PENDING) std::fputs(" encap-pending", s.out);
  if ((priv->pri_flags & PRI_PRIMARY_OK) == 0) std::fputs(" invalid-primary", s.out);
  if ((priv->pri_flags & PRI_ALT_OK) == 0) std::fputs(" invalid-alt", s.out);
  std::fputs("\n", s.out);
}

void dump_diskset(session& s, const priv_info* priv) {
  const priv_header_info* hdr = priv->pri_header;
  char id[40];
  char new_id[40];
  priv_dump_header_disksetID(priv, id, new_id);
  std::fprintf(s.out, "diskset: id=%s", id);
  if (std::memcmp(&hdr->phi_nt_new_diskset_id, &hdr->phi_nt_diskset_id, sizeof(voldguid_t)) != 0)
    std::fprintf(s.out, " new=%s", new_id);
  std::fputs("\n", s.out);
}

// The region line's format keeps the zero flag of the report's text; with
// %s it has no effect and the fill is spaces.
void dump_region_line(session& s, const disk_region& r) {
  const voff_text first(r.dkr_offset);
  const voff_text last(r.dkr_offset + r.dkr_len - 1);
  const voff_text len(r.dkr_len);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
  std::fprintf(s.out, " %-8s %-4s %06s-%06s[%06s]", r.dkr_type,
               (r.dkr_flags & DKR_PUBLIC) ? "pub" : "priv", first.buf, last.buf, len.buf);
#pragma GCC diagnostic pop
  if (r.dkr_flags & DKR_NEW) std::fputs(" new", s.out);
  if (r.dkr_flags & DKR_DELETE) std::fputs(" delete", s.out);
  std::fputs(":", s.out);
}

}  // namespace

void priv_dump_header_disksetID(const priv_info* priv, char* id, char* new_id) {
  voldguid_to_string(id, &priv->pri_header->phi_nt_diskset_id);
  voldguid_to_string(new_id, &priv->pri_header->phi_nt_new_diskset_id);
}

void priv_dump_header(session& s, priv_info* priv) {
  const priv_header_info* hdr = priv->pri_header;
  FILE* out = s.out;
  std::fprintf(out, "diskid:  %s\n", hdr->phi_diskid);
  std::fprintf(out, "group:   name=%s id=%s\n", hdr->phi_dg_name, hdr->phi_dgid);
  dump_flag_words(s, priv);
  std::fprintf(out, "import:  bootsig=%lu hostid=%s\n", hdr->phi_nt_boot_disk_sig, hdr->phi_hostid);
  dump_diskset(s, priv);
  std::fprintf(out, "version: %u.%u\n", static_cast<unsigned>(hdr->phi_version_major),
               static_cast<unsigned>(hdr->phi_version_minor));
  std::fprintf(out, "iosize:  %lu\n", static_cast<unsigned long>(hdr->phi_atomic_iosize));
  const voff_text pub_offset(hdr->phi_pub_offset);
  const voff_text pub_len(hdr->phi_pub_len);
  std::fprintf(out, "public:  slice=%u offset=%s len=%s\n", static_cast<unsigned>(hdr->phi_pub_id),
               pub_offset.buf, pub_len.buf);
  const voff_text priv_offset(hdr->phi_priv_offset);
  const voff_text priv_len(hdr->phi_priv_len);
  std::fprintf(out, "private: slice=%u offset=%s len=%s\n",
               static_cast<unsigned>(hdr->phi_priv_id), priv_offset.buf, priv_len.buf);
  std::fprintf(out, "update:  seqno=%s time=%lld\n", volseqnotostr(hdr->phi_update_seqno),
               static_cast<long long>(hdr->phi_update_time));
  const voff_text primary(hdr->phi_primary_header);
  const voff_text alt(hdr->phi_alt_header);
  std::fprintf(out, "headers: %s %s%s\n", primary.buf, alt.buf,
               (priv->pri_flags & PRI_USED_ALT) ? " altused" : "");
  const voff_text config_len(hdr->phi_config_len);
  std::fprintf(out, "configs: count=%lu len=%s\n", static_cast<unsigned long>(hdr->phi_nconfig),
               config_len.buf);
  const voff_text log_len(hdr->phi_log_len);
  std::fprintf(out, "logs:    count=%lu len=%s\n", static_cast<unsigned long>(hdr->phi_nlogs),
               log_len.buf);
}

void priv_dump_toc(session& s, priv_info* priv) {
  FILE* out = s.out;
  std::fprintf(out, "tocblks: %lu\n", static_cast<unsigned long>(priv->pri_toc_copy_len));
  std::fputs("tocs:   ", out);
  for (std::size_t i = 0; i < priv->pri_toc_len; ++i) {
    const voff_text toc(priv->pri_toc_sectors[i]);
    const voff_text alt(priv->pri_alt_toc_sectors[i]);
    std::fprintf(out, " %s/%s", toc.buf, alt.buf);
  }
  std::fputs("\nDefined regions:\n", out);  // puts of "\nDefined regions:"
  for (const toc_entry_info* e = priv->pri_toc_entries; e != nullptr; e = e->tei_next) {
    const disk_region& r = e->tei_region;
    dump_region_line(s, r);
    if (std::strcmp(r.dkr_type, "config") == 0 || std::strcmp(r.dkr_type, "log") == 0) {
      copy_region_entry cr;
      (void)priv_unpack_copy_entry(&cr, e);
      std::fprintf(out, " copy=%02lu offset=%06lu %s\n", static_cast<unsigned long>(cr.cr_number),
                   cr.cr_offset, (r.dkr_flags & DKR_DISABLED) ? "disabled" : "enabled");
    } else if (std::strcmp(r.dkr_type, "tagid") == 0) {
      priv_dump_tagid(s, e);
    } else {
      std::fputs("\n", out);
      puthex(out, r.dkr_info, r.dkr_info_size);
    }
  }
}

void priv_dump_tagid(session& s, const toc_entry_info* entry) {
  FILE* out = s.out;
  tagid_region_entry tag;
  (void)priv_unpack_tagid_entry(&tag, entry);
  if (std::strcmp(tag.dktagid_name, "site") == 0) {
    std::fprintf(out, "\n\t\tSiteTag: %s\n", tag.dktagid_value);
    return;
  }
  std::fprintf(out, "\n\t\tname:  %s", tag.dktagid_name);
  std::fprintf(out, "\n\t\tvalue: %s", tag.dktagid_value);
  if (std::strcmp(tag.dktagid_name, "vdid") == 0) {
    std::fprintf(out, "\n\t\tflag:  %s", (tag.dktagid_flags & 2) ? "shadow" : "primary");
  } else {
    std::fprintf(out, "\n\t\tflag: %d", static_cast<int>(tag.dktagid_flags));
  }
  std::fprintf(out, "\n\t\tSource: %s\n\n", tag.dktagid_source);
}

}  // namespace pd
