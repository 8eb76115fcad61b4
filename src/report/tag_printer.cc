// The field printer: one member of a decoded record as text, by kind.
//
// Members are read through the width-generic accessors at the width the tag
// entry records, and names are printed with a precision that keeps them
// inside their member, so a table entry can never make the printer read
// outside the structure.
#include "report/tag_printer.h"

#include <cstdio>
#include <cstring>

#include "codec/integers.h"
#include "codec/text_forms.h"
#include "config_db/records.h"

namespace pd {

namespace {

const std::uint8_t* at(const void* rec, std::size_t offs) {
  return static_cast<const std::uint8_t*>(rec) + offs;
}

template <class T>
T load(const void* rec, std::size_t offs) {
  T v;
  std::memcpy(&v, at(rec, offs), sizeof v);
  return v;
}

}  // namespace

const char* tag_printer::getetag(std::span<const valtbl> table, int value) {
  for (const valtbl& e : table) {
    if (e.val == value) return e.name;
  }
  std::snprintf(etag_, sizeof etag_, "0x%x #bad", static_cast<unsigned>(value));
  return etag_;
}

const char* tag_printer::getusr(long uid) {
  std::snprintf(id_, sizeof id_, "%ld", uid);
  return id_;
}

const char* tag_printer::getgrp(long gid) {
  std::snprintf(id_, sizeof id_, "%ld", gid);
  return id_;
}

const char* tag_printer::field_sprint(const void* rec, quillon_tagtype type, std::size_t offs,
                                      long info, std::size_t width, bool is_signed) {
  char* const b = buf_;
  const std::size_t n = sizeof buf_;
  switch (type) {
    case TAG_NAME:
    case TAG_COMMNT: {
      const char* p = reinterpret_cast<const char*>(at(rec, offs));
      long skipped = 0;
      while (skipped < info && *p == '\0') {
        ++p;
        ++skipped;
      }
      std::snprintf(b, n, "%.*s", static_cast<int>(width - static_cast<std::size_t>(skipped)), p);
      return b;
    }
    case TAG_LONG:
    case TAG_EPOCH:
    case TAG_MINOR: {
      // The member's value as a 64-bit number: an unsigned member is not
      // sign-extended.
      const long v = is_signed ? static_cast<long>(fgetsigned(width, at(rec, offs)))
                               : static_cast<long>(fgetunsigned(width, at(rec, offs)));
      std::snprintf(b, n, "%ld", v);
      return b;
    }
    case TAG_FLAG:
      return (fgetunsigned(width, at(rec, offs)) & static_cast<unsigned long>(info)) != 0 ? "on"
                                                                                         : "off";
    case TAG_LEN:
    case TAG_OFFSET:
      return vofftostr(load<voff_t>(rec, offs), b);
    case TAG_STWIDTH: {
      const std::int32_t layout = static_cast<const plexrec*>(rec)->pl_layout;
      if (layout != PL_LAYOUT_STRIPE && layout != PL_LAYOUT_RAID) return "";
      return vofftostr(load<voff_t>(rec, offs), b);
    }
    case TAG_VKSTATE:
      return getetag(vkstates(), static_cast<int>(fgetsigned(width, at(rec, offs))));
    case TAG_EXCEPT:
      return getetag(excepts(), static_cast<int>(fgetsigned(width, at(rec, offs))));
    case TAG_PKSTATE:
      return getetag(pkstates(), static_cast<int>(fgetsigned(width, at(rec, offs))));
    case TAG_LAYOUT:
      return getetag(layouts(), static_cast<int>(fgetsigned(width, at(rec, offs))));
    case TAG_PREF: {
      const volrec* v = static_cast<const volrec*>(rec);
      if (v->v_read_pol != VOL_RP_PREFER && v->v_current_read_pol != VOL_RP_PREFER) return "";
      std::snprintf(b, n, "%.*s", static_cast<int>(width),
                    reinterpret_cast<const char*>(at(rec, offs)));
      return b;
    }
    case TAG_MODE:
      std::snprintf(b, n, "0%lo", static_cast<unsigned long>(fgetunsigned(width, at(rec, offs))));
      return b;
    case TAG_UID:
      std::snprintf(b, n, "%s", getusr(static_cast<long>(fgetunsigned(width, at(rec, offs)))));
      return b;
    case TAG_GID:
      std::snprintf(b, n, "%s", getgrp(static_cast<long>(fgetunsigned(width, at(rec, offs)))));
      return b;
    case TAG_PIOMODE:
      return getpiomode(static_cast<long>(fgetsigned(width, at(rec, offs))));
    case TAG_LOG_TYPE:
      return getlogtype(static_cast<long>(fgetunsigned(width, at(rec, offs))));
    case TAG_DEV: {
      const std::uint64_t dev = fgetunsigned(width, at(rec, offs));
      if (dev == ~std::uint64_t{0}) return "VOLNODEV";
      // The device number is deliberately not split into major and minor.
      std::snprintf(b, n, "%lu/%lu", static_cast<unsigned long>(dev),
                    static_cast<unsigned long>(dev));
      return b;
    }
    case TAG_ULONG:
    case TAG_SIZE:
      std::snprintf(b, n, "%lu", static_cast<unsigned long>(fgetunsigned(width, at(rec, offs))));
      return b;
    case TAG_SEQNO:
      return volseqnotostr(load<volseqno_t>(rec, offs), b);
    case TAG_RID: {
      const volrid_t rid = load<volrid_t>(rec, offs);
      if (rid.seqno_lo == 0 && rid.seqno_hi == 0) return "";
      return volridtostr(rid, b);
    }
    case TAG_NCOPY: {
      const long v = static_cast<long>(fgetsigned(width, at(rec, offs)));
      if (v == 0) return "default";
      if (v < 0) return "all";
      std::snprintf(b, n, "%ld", v);
      return b;
    }
    case TAG_DGVERS:
      std::snprintf(b, n, "%u", static_cast<unsigned>(fgetunsigned(width, at(rec, offs))));
      return b;
    case TAG_GUID:
      return volguidtostr(load<voldguid_t>(rec, offs), b);
    case TAG_NT_GUID: {
      const voldguid_t g = load<voldguid_t>(rec, offs);
      std::snprintf(b, n, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", g.Data1, g.Data2,
                    g.Data3, g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4],
                    g.Data4[5], g.Data4[6], g.Data4[7]);
      return b;
    }
    case TAG_UUID:
      std::snprintf(b, n, "%.*s", static_cast<int>(width),
                    reinterpret_cast<const char*>(at(rec, offs)));
      return b;
    case TAG_NOOP:
    case TAG_R_POL:
    case TAG_PLEXLST:
    case TAG_SDLST:
    case TAG_DGACTMODE:
    case TAG_DDPOLICY:
    case TAG_DATAVOLLST:
    case TAG_LOGVOLLST:
      break;
  }
  return "";
}

const char* tag_printer::sprint_field(std::span<const voltagdesc> table, const void* rec,
                                      const char* name) {
  for (const voltagdesc& d : table) {
    if (std::strcmp(d.name, name) == 0) {
      const char* text = field_sprint(rec, d);
      flag = 1;
      return text;
    }
  }
  return "";
}

const char* tag_printer::vol_sprint_field(const void* rec, const char* name) {
  return sprint_field(vtagdesc(), rec, name);
}
const char* tag_printer::plex_sprint_field(const void* rec, const char* name) {
  return sprint_field(ptagdesc(), rec, name);
}
const char* tag_printer::sd_sprint_field(const void* rec, const char* name) {
  return sprint_field(stagdesc(), rec, name);
}
const char* tag_printer::dm_sprint_field(const void* rec, const char* name) {
  return sprint_field(mtagdesc(), rec, name);
}
const char* tag_printer::dg_sprint_field(const void* rec, const char* name) {
  return sprint_field(gtagdesc(), rec, name);
}
const char* tag_printer::da_sprint_field(const void* rec, const char* name) {
  return sprint_field(atagdesc(), rec, name);
}
const char* tag_printer::dco_sprint_field(const void* rec, const char* name) {
  return sprint_field(dcotagdesc(), rec, name);
}
const char* tag_printer::snap_sprint_field(const void* rec, const char* name) {
  return sprint_field(snaptagdesc(), rec, name);
}

}  // namespace pd
