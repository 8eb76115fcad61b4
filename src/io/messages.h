// Catalogue-tagged messages and the volume error texts.
//
// volpfmt writes "label: SEVERITY: text" where the format's leading
// ":<digits>:" tag is stripped (the number is never looked up). Severity 0
// writes neither label nor word. vol_strerror turns a volume error number
// into its English text; numbers without a row print as "Dmconfig error %d"
// in a static buffer that the next unknown number overwrites.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "base/session.h"

namespace pd {

int volpfmt(session& s, FILE* f, int sev, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

// The text volpfmt would write, as a string.
std::string volsfmt(const session& s, int sev, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

const char* vol_strerror(int verrno);

// Stores a copy of `catid`; on allocation failure writes "%s: Out of
// memory\n" with `catid` and throws fatal_exit{127}.
const char* volsetcat(session& s, const char* catid);
int volsetlabel(session& s, const char* clabel);
const char* egettxt(const char* mid, const char* deflt_m);

std::uint64_t vold_last_errno(const session& s);
void vold_set_errno(session& s, std::uint64_t newerrno);

}  // namespace pd
