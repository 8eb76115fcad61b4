// Fields of decoded records by name: the tag tables and the field printer.
//
// Each record kind has a constant tag table naming its fields for people:
// tag number (aliases of one field share it), name, kind of value, position
// and width of the member in the decoded structure, and a kind-specific extra
// value (a bit mask for flags, a maximum length for names and comments).
// Every table ends with the pseudo-fields EXISTS, IMPLICIT and CHANGED.
//
// field_sprint turns one member into text by its kind; the text lies in the
// printer's buffer of 100 bytes and stays valid until the next call. The
// value tables name states, layouts, I/O modes, log types, exception
// policies and read policies; getetag looks a value up and renders an
// unknown one as "0x%x #bad".
#pragma once

#include <cstddef>
#include <span>

namespace pd {

enum quillon_tagtype {
  TAG_NOOP,
  TAG_NAME,
  TAG_COMMNT,
  TAG_LONG,
  TAG_EPOCH,
  TAG_MINOR,
  TAG_FLAG,
  TAG_LEN,
  TAG_OFFSET,
  TAG_STWIDTH,
  TAG_VKSTATE,
  TAG_EXCEPT,
  TAG_PKSTATE,
  TAG_LAYOUT,
  TAG_PREF,
  TAG_MODE,
  TAG_UID,
  TAG_GID,
  TAG_PIOMODE,
  TAG_LOG_TYPE,
  TAG_DEV,
  TAG_ULONG,
  TAG_SIZE,
  TAG_SEQNO,
  TAG_RID,
  TAG_NCOPY,
  TAG_DGVERS,
  TAG_GUID,
  TAG_NT_GUID,
  TAG_UUID,
  TAG_R_POL,
  TAG_PLEXLST,
  TAG_SDLST,
  TAG_DGACTMODE,
  TAG_DDPOLICY,
  TAG_DATAVOLLST,
  TAG_LOGVOLLST,
};

struct voltagdesc {
  int tag;
  const char* name;
  quillon_tagtype type;
  std::size_t offs;   // position of the member in the record structure
  long info;          // flag mask, or maximum length of a name or comment
  std::size_t width;  // width of the member in memory (0 for TAG_NOOP)
  bool is_signed;     // the member is a signed integer
};

struct valtbl {
  int val;
  const char* name;
};

// Tag tables: the range [first, end) of each.
std::span<const voltagdesc> vtagdesc();
std::span<const voltagdesc> ptagdesc();
std::span<const voltagdesc> stagdesc();
std::span<const voltagdesc> mtagdesc();
std::span<const voltagdesc> gtagdesc();
std::span<const voltagdesc> atagdesc();
std::span<const voltagdesc> dcotagdesc();
std::span<const voltagdesc> snaptagdesc();

// The table of a record type (dbr_type & 15); empty for the types without
// one.
std::span<const voltagdesc> record_tag_table(int type);

// The name of a record type (dbr_type & 15): "volume", "plex", ... "type15";
// "none" outside 0-15.
const char* record_kind_name(int type);

// Value tables.
std::span<const valtbl> vkstates();
std::span<const valtbl> pkstates();
std::span<const valtbl> layouts();
std::span<const valtbl> iomodes();
std::span<const valtbl> logtypes();
std::span<const valtbl> excepts();
std::span<const valtbl> rpols();

class tag_printer {
 public:
  // The text of the member at `offs` inside `rec` (`width` bytes, signed or
  // not), by kind.
  const char* field_sprint(const void* rec, quillon_tagtype type, std::size_t offs, long info,
                           std::size_t width, bool is_signed);
  const char* field_sprint(const void* rec, const voltagdesc& d) {
    return field_sprint(rec, d.type, d.offs, d.info, d.width, d.is_signed);
  }

  // The first entry named `name` of the kind's table, printed; sets `flag`
  // to 1. An unknown name gives "" and leaves `flag` alone.
  const char* vol_sprint_field(const void* rec, const char* name);
  const char* plex_sprint_field(const void* rec, const char* name);
  const char* sd_sprint_field(const void* rec, const char* name);
  const char* dm_sprint_field(const void* rec, const char* name);
  const char* dg_sprint_field(const void* rec, const char* name);
  const char* da_sprint_field(const void* rec, const char* name);
  const char* dco_sprint_field(const void* rec, const char* name);
  const char* snap_sprint_field(const void* rec, const char* name);

  // The name of the first entry whose value is `value`, else "0x%x #bad".
  const char* getetag(std::span<const valtbl> table, int value);
  const char* getusr(long uid);
  const char* getgrp(long gid);
  const char* getpiomode(long value) { return getetag(iomodes(), static_cast<int>(value & 3)); }
  const char* getlogtype(long value) { return getetag(logtypes(), static_cast<int>(value & 0xF0)); }

  // Set to 1 by the *_sprint_field lookups that found their name.
  int flag = 0;

 private:
  const char* sprint_field(std::span<const voltagdesc> table, const void* rec, const char* name);

  char buf_[100] = {};
  char etag_[23] = {};
  char id_[24] = {};
};

}  // namespace pd
