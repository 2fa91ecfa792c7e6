// Wrappers for bindings of other languages. Thin: the calls beneath them have the frames and the traces.
#include "vorn/bindings.h"

#include "runtime/mthr.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/query.h"
#include "vorn/session.h"

#include <string.h>

extern "C" {

// The record isn't given back, as it never was: a start costs one.
int vb_tpstart(int mode)
{
    if (current_row() == nullptr)
        return -1;
    TPSTART_T *record = (TPSTART_T *)tpalloc((char *)"TPSTART", nullptr, sizeof(TPSTART_T));
    if (record == nullptr) {
        set_tperrno(TPEOS);
        return -1;
    }
    record->flags = mode == 0 ? UNSOL_IGNORE : UNSOL_QUEUE;
    return tpstart(record);
}

static void copy_bytes(char *to, const char *from, size_t length)
{
    if (to != nullptr && from != nullptr)
        memmove(to, from, length);
}

void vb_getstr(const char *from, char *to)
{
    copy_bytes(to, from, from == nullptr ? 0 : strlen(from));
}

void vb_getcar(const char *from, char *to, int len)
{
    copy_bytes(to, from, len < 0 ? 0 : (size_t)len);
}

void vb_putcar(char *to, const char *from, int len)
{
    copy_bytes(to, from, len < 0 ? 0 : (size_t)len);
}

int vb_tpsleep(int microseconds)
{
    struct timeval time = {microseconds / 1000000, 0};
    return tpsleep(&time);
}

int vb_tpgetrply(int cd, char **data, long *len, long flags)
{
    return tpgetrply(&cd, data, len, flags);
}
}
