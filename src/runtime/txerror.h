// Texts of the return codes of the tx_ calls. The table is searched, and ended by a null text.
#ifndef VORN_RUNTIME_TXERROR_H
#define VORN_RUNTIME_TXERROR_H

#include <stdint.h>

extern "C" {

struct code_text {
    int32_t code;
    const char *text;
};

extern const code_text _txerr_strtab[];
extern const char _txerr_str_notfound[];

// The first row with this code; `missing` if there is none.
const char *find_code_text(const code_text *table, int code, const char *missing);
}

#endif
