// Texts of the xa_ codes. 107 stands twice: it is a code and the upper bound of the rollback codes, and the
// search gives the code.
#include "runtime/xaerror.h"

#include "vorn/errors.h"

extern "C" {

const char _xaerr_str_notfound[] = "no such xa_ return code";

const code_text _xaerr_strtab[] = {
    {100, "XA_RBROLLBACK (The rollback was caused by an unspecified reason)"},
    {101, "XA_RBCOMMFAIL (The rollback was caused by a communication failure)"},
    {102, "XA_RBDEADLOCK (A deadlock was detected)"},
    {103, "XA_RBINTEGRITY (A condition that violates the integrity of the resources was detected)"},
    {104,
     "XA_RBOTHER (The resource manager rolled back the transaction branch for a reason not on this list)"},
    {105, "XA_RBPROTO (A protocol error occurred in the resource manager)"},
    {106, "XA_RBTIMEOUT (A transaction branch took too long)"},
    {107, "XA_RBTRANSIENT (May retry the transaction branch)"},
    {107, "XA_RBEND (The inclusive upper bound of the rollback codes)"},
    {9, "XA_NOMIGRATE (resumption must occur where suspension occurred)"},
    {8, "XA_HEURHAZ (the transaction branch may have been heuristically completed)"},
    {7, "XA_HEURCOM (the transaction branch has been heuristically committed)"},
    {6, "XA_HEURRB (the transaction branch has been heuristically rolled back)"},
    {5, "XA_HEURMIX (the transaction branch has been heuristically committed and rolled back)"},
    {4, "XA_RETRY (routine returned with no effect and may be re-issued)"},
    {3, "XA_RDONLY (the transaction branch was read-only and has been committed)"},
    {0, "XA_OK (normal execution)"},
    {-2, "XAER_ASYNC (asynchronous operation already outstanding)"},
    {-3, "XAER_RMERR (a resource manager error occurred in the transaction branch)"},
    {-4, "XAER_NOTA (the XID is not valid)"},
    {-5, "XAER_INVAL (invalid arguments were given)"},
    {-6, "XAER_PROTO (routine invoked in an improper context)"},
    {-7, "XAER_RMFAIL (resource manager unavailable)"},
    {-8, "XAER_DUPID (the XID already exists)"},
    {-9, "XAER_OUTSIDE (resource manager doing work outside global transaction)"},
    {0, nullptr},
};

const char *xastrerror(int code)
{
    return find_code_text(_xaerr_strtab, code, _xaerr_str_notfound);
}
}
