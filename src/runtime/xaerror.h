// Texts of the return codes of the xa_ routines.
#ifndef VORN_RUNTIME_XAERROR_H
#define VORN_RUNTIME_XAERROR_H

#include "runtime/txerror.h"

extern "C" {
extern const code_text _xaerr_strtab[];
extern const char _xaerr_str_notfound[];
}

#endif
