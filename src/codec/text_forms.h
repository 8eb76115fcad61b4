// Text forms of offsets, sequence numbers, record ids and GUIDs, and the
// hexadecimal dump.
//
// A converter given a null `bufp` writes into its own static buffer, which
// the next such call of the same converter overwrites (volseqnotostr and
// volridtostr share one). A caller printing two values of one kind in one
// statement passes its own buffer (at least 24 characters; 39 for
// volguidtostr) for one of them.
#pragma once

#include <cstdint>
#include <cstdio>

#include "base/types.h"

namespace pd {

char* vofftostr(voff_t num, char* bufp = nullptr);

// The same text forms written at `p` without a terminator (at most 24
// characters; 36 for a GUID); each returns the end of what it wrote.
char* put_voff(char* p, voff_t num);
char* put_seqno(char* p, volseqno_t seqno);  // also record ids
char* put_guid(char* p, const voldguid_t& guid);  // unbraced, as voldguid_to_string

char* volseqnotostr(volseqno_t seqno, char* bufp = nullptr);
char* volridtostr(volrid_t rid, char* bufp = nullptr);
char* volguidtostr(voldguid_t guid, char* bufp = nullptr);

// Unbraced, 36 characters plus terminator; `str_out` holds at least 37.
void voldguid_to_string(char* str_out, const voldguid_t* guid);
// 0, or 52 on any fault in the text (fields already parsed stay stored).
int voldguid_from_string(voldguid_t* guid, const char* str);

volseqno_t strtovolseqno(const char* p, const char** eptr);
inline volrid_t strtovolrid(const char* p, const char** eptr) { return strtovolseqno(p, eptr); }

// Rows of 16 bytes: offset, hex bytes, printable characters.
void puthex(FILE* f, const std::uint8_t* buf, long cc);

}  // namespace pd
