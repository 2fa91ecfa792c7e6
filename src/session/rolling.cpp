#include "session/rolling.h"

#include "runtime/mthr.h"
#include "vorn/errors.h"

extern "C" int _vorn_rolling_start(void)
{
    set_tperrno(TPEOS);
    return -1;
}
