// Error cells and their texts, in the native and in the compatibility numbering.
#ifndef VORN_RUNTIME_TPERROR_H
#define VORN_RUNTIME_TPERROR_H

#include "vorn/compat.h"
#include "vorn/errors.h"

#include <stdint.h>

extern "C" {

constexpr int TPERR_ROWS = 34, TUXERR_ROWS = 27, FBERR_ROWS = 23, FERR_ROWS = 22, UUNIX_ROWS = 34;

// Indexed by number. A row that its numbering doesn't use is empty.
extern const char *const _tperr_strtab[TPERR_ROWS];
extern const char *const _tuxerr_strtab[TUXERR_ROWS];
extern const char *const _fberr_strtab[FBERR_ROWS];
extern const char *const _Ferr_strtab[FERR_ROWS];
extern const char *const Uunixmsg[UUNIX_ROWS];

// The mappings into the compatibility numbering.
int compat_tperrno(int native);
int compat_Ferror_number(int native);
int compat_unix_number(int error);
}

#endif
