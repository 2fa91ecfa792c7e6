#include "queue/keystore.h"

#include "runtime/mthr.h"
#include "vorn/errors.h"

extern "C" int _get_sessionid(int flags, wthr_var *block)
{
    int sessionid = block->sessionid;
    if (sessionid == -1) {
        set_tperrno(TPEPROTO);
        return -1;
    }
    return (flags & SESSIONID_GLOBAL) != 0 ? sessionid | SESSIONID_PLACE : sessionid;
}
