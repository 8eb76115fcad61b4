// Volume error numbers that cross layers, and the exception that carries a
// fatal exit status up to main.
//
// Every fallible routine returns a volume error number (0 = success). A
// condition that ends the tool throws fatal_exit instead of calling exit, so
// that the library never leaves the process and tests can exercise every
// fatal path in one process. main catches it, closes the image and returns
// the status.
#pragma once

namespace pd {

enum vol_errno_value : int {
  VE_OK = 0,
  VE_GUID_FORMAT = 52,      // "Format error in volboot file"
  VE_NOMEM = 12,            // "Memory allocation failure"
  VE_RECORD_TOO_LARGE = 118,
  VE_DB_FORMAT = 138,       // "Format error in configuration copy"
  VE_DB_VERSION = 139,      // "Configuration format version not supported"
  VE_DB_FULL = 140,
  VE_SHORT_READ = 141,
  VE_READ_FAILED = 142,
  VE_WRITE_FAILED = 143,
  VE_BAD_MAGIC = 148,
  VE_BAD_BLOCKNO = 149,
  VE_CHANGED_ON_DISK = 155,
  VE_PRIV_FULL = 164,
  VE_PRIV_FORMAT = 165,
  VE_INCONSISTENT_HEADERS = 166,
  VE_HEADER_NOT_FOUND = 167,
  VE_PRIV_INVALID = 168,
  VE_PRIV_VERSION = 169,
  VE_SECTOR_SIZE = 181,
  VE_DGVERSION_UNKNOWN = 31,
  VE_TAG_NOT_FOUND = 387,
};

// Why a run ended early: what a caller such as check reports instead of
// recognising the message.
enum class fatal_kind {
  usage,       // bad arguments
  unreadable,  // the image cannot be opened, positioned or read
  memory,      // memory exhausted
  no_header,   // no usable header copy
  no_toc,      // no usable table of contents
  no_copy,     // no usable configuration copy (or its database header)
};

// Thrown where the tool ends the process; `status` is the exit status.
struct fatal_exit {
  int status;
  fatal_kind kind;
};

}  // namespace pd
