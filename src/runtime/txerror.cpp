// Texts of the tx_ codes.
#include "runtime/txerror.h"

#include "vorn/errors.h"

extern "C" {

const char _txerr_str_notfound[] = "no such tx_ return code";

const code_text _txerr_strtab[] = {
    {1, "TX_NOT_SUPPORTED (option not supported)"},
    {0, "TX_OK (normal execution)"},
    {-1, "TX_OUTSIDE (application is in an RM local transaction)"},
    {-2, "TX_ROLLBACK (transaction was rolled back)"},
    {-3, "TX_MIXED (transaction was partially committed and partially rolled back)"},
    {-4, "TX_HAZARD (transaction may have been partially committed and partially rolled back)"},
    {-5, "TX_PROTOCOL_ERROR (routine invoked in an improper context)"},
    {-6, "TX_ERROR (transient error)"},
    {-7, "TX_FAIL (fatal error)"},
    {-8, "TX_EINVAL (invalid arguments were given)"},
    {-9, "TX_COMMITTED (transaction has heuristically committed)"},
    {-100, "TX_NO_BEGIN (transaction committed plus new transaction could not be started)"},
    {-102, "TX_ROLLBACK_NO_BEGIN (transaction rollback plus new transaction could not be started)"},
    {-103, "TX_MIXED_NO_BEGIN (mixed plus new transaction could not be started)"},
    {-104, "TX_HAZARD_NO_BEGIN (hazard plus new transaction could not be started)"},
    {-109, "TX_COMMITTED_NO_BEGIN (heuristically committed plus new transaction could not be started)"},
    {0, nullptr},
};

const char *find_code_text(const code_text *table, int code, const char *missing)
{
    for (; table->text != nullptr; table++)
        if (table->code == code)
            return table->text;
    return missing;
}

const char *txstrerror(int code)
{
    return find_code_text(_txerr_strtab, code, _txerr_str_notfound);
}
}
