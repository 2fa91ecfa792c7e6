// Field buffers as a whole: making, measuring, ending.
#include "fields/fbapi.h"
#include "fields/fbcommon2.h"
#include "vorn/buffers.h"

#include <limits.h>

extern "C" {

static constexpr api_text FBISFBUF = FB_ZERO_TEXT("fbisfbuf", "(%#x)");
static constexpr api_text FBCALCSIZE = FB_TEXT("fbcalcsize", "(%d, %d)");
static constexpr api_text FBINIT = FB_TEXT("fbinit", "(%#x, %d)");
static constexpr api_text FBALLOC = FB_POINTER_TEXT("fballoc", "(%d, %d)");
static constexpr api_text FBFREE = FB_TEXT("fbfree", "(%#x)");
static constexpr api_text FBREALLOC = FB_POINTER_TEXT("fbrealloc", "(%#x, %d, %d)");
static constexpr api_text FBGET_FBSIZE = FB_TEXT("fbget_fbsize", "(%#x)");
static constexpr api_text FBGET_UNUSED = FB_TEXT("fbget_unused", "(%#x)");
static constexpr api_text FBGET_USED = FB_TEXT("fbget_used", "(%#x)");

int fbisfbuf(FBUF *fbuf)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBISFBUF, fbuf))
        return 0;
    return fb_return(&FBISFBUF, fbuf != nullptr && has_magic(fbuf));
}

long fbcalcsize(int count, int datalen)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBCALCSIZE, count, datalen))
        return -1;
    long size = FB_HEAD_SIZE + (long)FIELD_ENTRY_UNIT * count + datalen;
    fb_return(&FBCALCSIZE, (int)size);
    return size;
}

int fbinit(FBUF *fbuf, int size)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBINIT, fbuf, size))
        return -1;
    if (fbuf == nullptr)
        return fb_fail(&FBINIT, FBEINVAL);
    if (size > capacity_of(fbuf))
        return fb_fail(&FBINIT, FBENOSPACE);
    memset(fbuf, 0, (size_t)capacity_of(fbuf));
    init_field_buffer(bytes_of(fbuf));
    forget_buffer(frame.block, fbuf);
    return fb_return(&FBINIT, 1);
}

// Typed buffers take the low 32 bits of a size: one that is larger must ask for what is refused.
static long allocatable(long size)
{
    return size < 0 ? 0 : size > INT_MAX ? INT_MAX : size;
}

FBUF *fballoc(int count, int datalen)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBALLOC, count, datalen))
        return nullptr;
    long size = allocatable(fbcalcsize(count, datalen));
    FBUF *fbuf = (FBUF *)tpalloc((char *)"FIELD", (char *)"", size);
    if (fbuf == nullptr)
        return (FBUF *)fb_null(&FBALLOC, FBEMALLOC);
    fbinit(fbuf, (int)size);
    return (FBUF *)fb_return_pointer(&FBALLOC, bytes_of(fbuf));
}

int fbfree(FBUF *fbuf)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBFREE, fbuf))
        return -1;
    if (fbuf == nullptr || (uintptr_t)fbuf % 4 != 0 || !has_magic(fbuf))
        return fb_fail(&FBFREE, FBEINVAL);
    fb_head none = {};
    memcpy(fbuf, &none, sizeof none);
    tpfree(bytes_of(fbuf));
    return fb_return(&FBFREE, 1);
}

FBUF *fbrealloc(FBUF *fbuf, int count, int datalen)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBREALLOC, fbuf, count, datalen))
        return nullptr;
    if (fbuf == nullptr)
        return (FBUF *)fb_null(&FBREALLOC, FBEINVAL);
    char *moved = tprealloc(bytes_of(fbuf), allocatable(fbcalcsize(count, datalen)));
    if (moved == nullptr)
        return (FBUF *)fb_null(&FBREALLOC, FBEOS);
    return (FBUF *)fb_return_pointer(&FBREALLOC, moved);
}

// The three measures differ in what they tell of a buffer that is there.
enum buffer_measure { CAPACITY, UNUSED, USED };

static long measure(const api_text *text, FBUF *fbuf, buffer_measure which)
{
    api_frame frame;
    if (!FB_ENTER(&frame, *text, fbuf))
        return -1;
    if (fbuf == nullptr)
        return fb_fail(text, FBEINVAL);
    long used = used_of(fbuf), capacity = capacity_of(fbuf);
    long result = which == CAPACITY ? capacity : which == USED ? used : capacity - used;
    fb_return(text, (int)result);
    return result;
}

long fbget_fbsize(FBUF *fbuf)
{
    return measure(&FBGET_FBSIZE, fbuf, CAPACITY);
}

long fbget_unused(FBUF *fbuf)
{
    return measure(&FBGET_UNUSED, fbuf, UNUSED);
}

long fbget_used(FBUF *fbuf)
{
    return measure(&FBGET_USED, fbuf, USED);
}
}
