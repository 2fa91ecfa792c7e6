#include "calls/convapi.h"

#include "calls/cscommon.h"
#include "runtime/mthr.h"
#include "vorn/errors.h"

extern "C" {

int _vorn_send_discon(int cd, wthr_var *block)
{
    (void)cd, (void)block;
    set_tperrno(TPESYSTEM);
    return -1;
}

int end_conversation(int index, wthr_var *block)
{
    _vorn_send_discon(block->conv[index].cd, block);
    _make_conv_cd_invalid(index, block);
    return -1;
}
}
