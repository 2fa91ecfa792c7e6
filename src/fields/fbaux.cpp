// The calls that look at single values.
#include "fields/fbapi.h"
#include "fields/fbcommon2.h"

extern "C" {

static constexpr api_text FBGETVAL = FB_POINTER_TEXT("fbgetval", "(%#x, %d, %d, %#x)");
static constexpr api_text FBGETVALS = FB_STRING_TEXT("fbgetvals", "(%#x, %d, %d)");
static constexpr api_text FBGETVALI = FB_ZERO_TEXT("fbgetvali", "(%#x, %d, %d)");
static constexpr api_text FBGETNTH = FB_TEXT("fbgetnth", "(%#x, %d, %#x, %d)");
static constexpr api_text FBKEYOCCUR = FB_TEXT("fbkeyoccur", "(%#x, %d)");
static constexpr api_text FBGETLEN = FB_TEXT("fbgetlen", "(%#x, %d, %d)");
static constexpr api_text FBFLDCOUNT = FB_ZERO_TEXT("fbfldcount", "(%#x)");
static constexpr api_text FBISPRES = FB_TEXT("fbispres", "(%#x, %d, %d)");

char *fbgetval(FBUF *fbuf, int key, int nth, int *len)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGETVAL, fbuf, key, nth, len))
        return nullptr;
    if (fbuf == nullptr)
        return fb_null(&FBGETVAL, FBEINVAL);
    char *entry = find_entry(frame.block, fbuf, key, nth);
    if (entry == nullptr)
        return fb_null(&FBGETVAL, FBENOENT);
    if (len != nullptr)
        *len = _get_fldlen_from_curpos(entry);
    return fb_return_pointer(&FBGETVAL, value_of(entry));
}

// The conversions below leave in fberror what fbgetvalt left there.
char *fbgetvals(FBUF *fbuf, int key, int nth)
{
    api_frame frame;
    int length;
    if (!API_ENTER(&frame, FBGETVALS, fbuf, key, nth))
        return nullptr;
    return fb_pointer_result(&FBGETVALS, fbgetvalt(fbuf, key, nth, &length, FB_STRING));
}

int fbgetvali(FBUF *fbuf, int key, int nth)
{
    api_frame frame;
    int length;
    if (!API_ENTER(&frame, FBGETVALI, fbuf, key, nth))
        return 0;
    const char *value = fbgetvalt(fbuf, key, nth, &length, FB_INT);
    if (value == nullptr) {
        fb_error(&FBGETVALI);
        return 0;
    }
    return fb_return(&FBGETVALI, get_int32(value));
}

int fbgetnth(FBUF *fbuf, int key, char *value, int len)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGETNTH, fbuf, key, value, len))
        return -1;
    if (fbuf == nullptr || value == nullptr || (type_of_key(key) == FB_CARRAY && len < 1))
        return fb_fail(&FBGETNTH, FBEINVAL);
    int nth = 0;
    for (entry_walk walk = walk_of(fbuf); walk.size > 0; next_entry(&walk)) {
        if (get_int32(walk.entry) != key)
            continue;
        if (_value_comp(walk.entry, value, len) == 0)
            return fb_return(&FBGETNTH, nth);
        nth++;
    }
    return fb_error(&FBGETNTH);
}

int fbkeyoccur(FBUF *fbuf, int key)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBKEYOCCUR, fbuf, key))
        return -1;
    if (fbuf == nullptr)
        return fb_fail(&FBKEYOCCUR, FBEINVAL);
    return fb_return(&FBKEYOCCUR, count_entries(frame.block, fbuf, key));
}

int fbgetlen(FBUF *fbuf, int key, int nth)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGETLEN, fbuf, key, nth))
        return -1;
    if (fbuf == nullptr)
        return fb_fail(&FBGETLEN, FBEINVAL);
    char *entry = find_entry(frame.block, fbuf, key, nth);
    if (entry == nullptr)
        return fb_fail(&FBGETLEN, FBENOENT);
    return fb_result(&FBGETLEN, _get_fldlen_from_curpos(entry));
}

int fbfldcount(FBUF *fbuf)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBFLDCOUNT, fbuf))
        return 0;
    if (fbuf == nullptr) {
        fb_fail(&FBFLDCOUNT, FBEINVAL);
        return 0;
    }
    int count = 0;
    for (entry_walk walk = walk_of(fbuf); walk.size > 0; next_entry(&walk))
        count++;
    return fb_return(&FBFLDCOUNT, count);
}

int fbispres(FBUF *fbuf, int key, int nth)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBISPRES, fbuf, key, nth))
        return -1;
    if (fbuf == nullptr)
        return fb_fail(&FBISPRES, FBEINVAL);
    return fb_return(&FBISPRES, find_entry(frame.block, fbuf, key, nth) != nullptr);
}
}
