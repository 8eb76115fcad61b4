// Shorthands for the field-table definitions (record_fields_*.cc only).
// Each expects S to name the record structure being described.
#pragma once

#include <cstddef>

#include "codec/field_codec.h"

#define F_VRID(m) DBF(::pd::DBF_TYPE_VRID, S, m, 0)
#define F_VSTR(m) DBF(::pd::DBF_TYPE_VSTRING, S, m, 0)
#define F_STR(m, n) DBF(::pd::DBF_TYPE_STRING, S, m, n)
#define F_U2(m) DBF(::pd::DBF_TYPE_USHORT, S, m, 2)
#define F_U4(m) DBF(::pd::DBF_TYPE_UNSIGNED, S, m, 4)
#define F_U8(m) DBF(::pd::DBF_TYPE_ULONGLONG, S, m, 8)
#define F_VU(m) DBF(::pd::DBF_TYPE_VUNSIGNED, S, m, 0)
#define F_SCHAR(m) DBF(::pd::DBF_TYPE_SCHAR, S, m, 1)
#define F_SEQ(m) DBF(::pd::DBF_TYPE_SEQNO, S, m, 8)
#define F_VOFF(m) DBF(::pd::DBF_TYPE_VOFF, S, m, 8)
#define F_VOFF512(m) DBF(::pd::DBF_TYPE_VOFF_512, S, m, 8)
#define F_VVOFF(m) DBF(::pd::DBF_TYPE_VVOFF, S, m, 0)
#define F_VVOFF512(m) DBF(::pd::DBF_TYPE_VVOFF_512, S, m, 0)
#define F_GUID(m) DBF(::pd::DBF_TYPE_GUID, S, m, 16)
#define F_GUIDMEM(m) DBF(::pd::DBF_TYPE_GUIDMEMSTRING, S, m, 16)
#define F_PORT(m) DBF(::pd::DBF_TYPE_PORTINFO, S, m, 16)
#define F_PORT6(m) DBF(::pd::DBF_TYPE_PORTINFO6, S, m, 48)
#define F_VBYTE(m) DBF(::pd::DBF_TYPE_VBYTE, S, m, 0)
// Wide-string entries carry neither a member width nor a stored width.
#define F_AWSTR(m) ::pd::db_field { ::pd::DBF_TYPE_AWSTRING, 0, 0, offsetof(S, m) }

// The temporary part of a record: id, name, three utility strings (the
// first fixed 14 bytes, the others variable).
#define F_TMP(rid, name, tutil) \
  F_VRID(rid), F_VSTR(name), F_STR(tutil[0], 14), F_VSTR(tutil[1]), F_VSTR(tutil[2])
// Three permanent utility strings.
#define F_PUTIL(putil) F_VSTR(putil[0]), F_VSTR(putil[1]), F_VSTR(putil[2])
