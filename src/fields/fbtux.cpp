// The calls that read without a mark, and the writing ones that go with them. Those whose names end in _tut
// convert.
#include "fields/fbapi.h"
#include "fields/fbapim.h"
#include "fields/fbcommon2.h"
#include "fields/fbtconv.h"

#include <limits.h>
#include <stdlib.h>

extern "C" {

static constexpr api_text FBCHG_TU = FB_TEXT("fbchg_tu", "(%#x, %d, %d, %#x, %d)");
static constexpr api_text FBDELALL_TU = FB_TEXT("fbdelall_tu", "(%#x, %#x)");
static constexpr api_text FBGETVAL_LAST_TU = FB_POINTER_TEXT("fbgetval_last_tu", "(%#x, %d, %#x, %#x)");
static constexpr api_text FBGET_TU = FB_TEXT("fbget_tu", "(%#x, %d, %d, %#x, %#x)");
static constexpr api_text FBGETALLOC_TU = FB_POINTER_TEXT("fbgetalloc_tu", "(%#x, %d, %d, %#x)");
static constexpr api_text FBGETLAST_TU = FB_TEXT("fbgetlast_tu", "(%#x, %d, %#x, %#x, %#x)");
static constexpr api_text FBNEXT_TU = FB_TEXT("fbnext_tu", "(%#x, %#x, %#x, %#x, %#x)");
static constexpr api_text FBGETVALS_TU = FB_STRING_TEXT("fbgetvals_tu", "(%#x, %d, %d)");
static constexpr api_text FBGETVALL_TU = FB_ZERO_TEXT("fbgetvall_tu", "(%#x, %d, %d)");
static constexpr api_text FBCHG_TUT = FB_TEXT("fbchg_tut", "(%#x, %d, %d, %#x, %d, %d)");
static constexpr api_text FBGET_TUT = FB_TEXT("fbget_tut", "(%#x, %d, %d, %#x, %#x, %d)");
static constexpr api_text FBGETALLOC_TUT = FB_POINTER_TEXT("fbgetalloc_tut", "(%#x, %d, %d, %d, %#x)");

// --- Writing.

static int change(wthr_var *block, FBUF *fbuf, int key, int nth, char *value, int len)
{
    if (nth == -1)
        return fbput(fbuf, key, value, len);
    if (value == nullptr)
        return fbdelete(fbuf, key, nth);
    if (find_entry(block, fbuf, key, nth) != nullptr)
        return fbupdate(fbuf, key, nth, value, len);
    return fbinsert(fbuf, key, nth, value, len);
}

int fbchg_tu(FBUF *fbuf, int key, int nth, char *value, int len)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBCHG_TU, fbuf, key, nth, value, len))
        return -1;
    if (fbuf == nullptr)
        return fb_fail(&FBCHG_TU, FBEINVAL);
    return fb_result(&FBCHG_TU, change(frame.block, fbuf, key, nth, value, len));
}

int fbchg_tut(FBUF *fbuf, int key, int nth, char *value, int len, int type)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBCHG_TUT, fbuf, key, nth, value, len, type))
        return -1;
    if (fbuf == nullptr || value == nullptr)
        return fb_fail(&FBCHG_TUT, FBEINVAL);
    conversion_area area(frame.block);
    int length = 0;
    char *converted = fbtypecvt(&length, type_of_key(key), value, type, len);
    if (converted == nullptr)
        return fb_error(&FBCHG_TUT);
    int result = fbchg_tu(fbuf, key, nth, converted, length);
    _free_large_carray_buf();
    return fb_result(&FBCHG_TUT, result);
}

int fbdelall_tu(FBUF *fbuf, int *keys)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBDELALL_TU, fbuf, keys))
        return -1;
    if (fbuf == nullptr || keys == nullptr)
        return fb_fail(&FBDELALL_TU, FBEINVAL);
    int deleted = 0;
    for (const int *key = keys; *key != 0; key++) {
        int count = fbdelall(fbuf, *key);
        if (count > 0)
            deleted += count;
    }
    return fb_return(&FBDELALL_TU, deleted);
}

// --- Reading an occurrence.

static int get_occurrence(wthr_var *block, FBUF *fbuf, int key, int nth, char *value, int *len)
{
    if (fbuf == nullptr)
        return refused(FBEINVAL);
    char *entry = find_entry(block, fbuf, key, nth);
    if (entry == nullptr)
        return refused(FBENOENT);
    int enough = 0;
    return _get_fbval_to_usrloc(entry, value, len != nullptr ? len : &enough);
}

__attribute__((noinline)) static int get_in_frame(FBUF *fbuf, int key, int nth, char *value, int *len)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGET_TU, fbuf, key, nth, value, len))
        return -1;
    return fb_result(&FBGET_TU, get_occurrence(frame.block, fbuf, key, nth, value, len));
}

int fbget_tu(FBUF *fbuf, int key, int nth, char *value, int *len)
{
    if (fb_enter_untraced())
        return get_occurrence(current_hint.block, fbuf, key, nth, value, len);
    return get_in_frame(fbuf, key, nth, value, len);
}

int fbget_tut(FBUF *fbuf, int key, int nth, char *out, int *len, int type)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGET_TUT, fbuf, key, nth, out, len, type))
        return -1;
    if (fbuf == nullptr)
        return fb_fail(&FBGET_TUT, FBEINVAL);
    char *entry = find_entry(frame.block, fbuf, key, nth);
    if (entry == nullptr)
        return fb_fail(&FBGET_TUT, FBENOENT);
    int length = len != nullptr ? *len : 0;
    if (_typcvt_update(out, type, &length, entry) < 0)
        return fb_error(&FBGET_TUT);
    if (len != nullptr)
        *len = length;
    return fb_return(&FBGET_TUT, 1);
}

// Number of the last occurrence, also to `*nth`; -1 with FBENOENT.
static int last_occurrence(FBUF *fbuf, int key, int *nth)
{
    int last = fbkeyoccur(fbuf, key) - 1;
    if (last < 0) {
        set_fberror(FBENOENT);
        return -1;
    }
    if (nth != nullptr)
        *nth = last;
    return last;
}

char *fbgetval_last_tu(FBUF *fbuf, int key, int *nth, int *len)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGETVAL_LAST_TU, fbuf, key, nth, len))
        return nullptr;
    if (fbuf == nullptr)
        return fb_null(&FBGETVAL_LAST_TU, FBEINVAL);
    int last = last_occurrence(fbuf, key, nth);
    if (last < 0)
        return fb_null_error(&FBGETVAL_LAST_TU);
    return fb_pointer_result(&FBGETVAL_LAST_TU, fbgetval(fbuf, key, last, len));
}

int fbgetlast_tu(FBUF *fbuf, int key, int *nth, char *value, int *len)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGETLAST_TU, fbuf, key, nth, value, len))
        return -1;
    if (fbuf == nullptr)
        return fb_fail(&FBGETLAST_TU, FBEINVAL);
    int last = last_occurrence(fbuf, key, nth);
    if (last < 0)
        return fb_error(&FBGETLAST_TU);
    return fb_result(&FBGETLAST_TU, fbget_tu(fbuf, key, last, value, len));
}

// An empty result is no failure, but for a null buffer.
char *fbgetvals_tu(FBUF *fbuf, int key, int nth)
{
    api_frame frame;
    char *none = (char *)nstv;
    if (!FB_ENTER(&frame, FBGETVALS_TU, fbuf, key, nth))
        return none;
    if (fbuf == nullptr) {
        fb_fail(&FBGETVALS_TU, FBEINVAL);
        return none;
    }
    char *entry = type_of_key(key) == FB_STRING ? find_entry(frame.block, fbuf, key, nth) : nullptr;
    return fb_return_pointer(&FBGETVALS_TU, entry != nullptr ? value_of(entry) : none);
}

static long fail_with_zero(const api_text *text, int code)
{
    fb_fail(text, code);
    return 0;
}

long fbgetvall_tu(FBUF *fbuf, int key, int nth)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGETVALL_TU, fbuf, key, nth))
        return 0;
    if (fbuf == nullptr)
        return fail_with_zero(&FBGETVALL_TU, FBEINVAL);
    int type = type_of_key(key);
    if (type != FB_SHORT && type != FB_INT && type != FB_LONG)
        return fail_with_zero(&FBGETVALL_TU, FBETYPE);
    const char *entry = find_entry(frame.block, fbuf, key, nth);
    if (entry == nullptr)
        return fail_with_zero(&FBGETVALL_TU, FBENOENT);
    uint32_t value = (uint32_t)get_int32(entry + FIELD_VALUE);
    if (type == FB_SHORT)
        value &= 0xffff;
    fb_return(&FBGETVALL_TU, (int)value);
    return value;
}

// --- Occurrences in blocks of their own.

// Bytes that delivering an entry may write, whatever size is told: a long has 8, a text its NUL, and a double
// as text more than what counts for it.
static int64_t delivered_at_most(const char *entry, const int *type)
{
    constexpr int64_t LONGEST_NUMBER = 1 + 309 + 1 + 6 + 1;  // "-", digits, ".", digits, NUL
    bool to_text = type != nullptr && (*type == FB_STRING || *type == FB_CARRAY);
    int64_t text = (int64_t)length_of(entry) + 1, least = to_text ? LONGEST_NUMBER : (int64_t)sizeof(int64_t);
    return text > least ? text : least;
}

// The entry's value, as it stands or as `type`, in a block of the size that the caller is told, or of what is
// written to it if that is more. `length` is what the value counts, below 0 with fberror set.
static char *allocated_value(const api_text *text, char *entry, int length, const int *type, int *extra)
{
    if (length < 0)
        return fb_null_error(text);
    int64_t told = (int64_t)length + (extra != nullptr ? *extra : 0), size = delivered_at_most(entry, type);
    if (told > size)
        size = told;
    char *block = told < 0 || told > INT_MAX ? nullptr : (char *)malloc((size_t)size);
    if (block == nullptr)
        return fb_null(text, FBEMALLOC);
    int given = (int)told;
    int result = type == nullptr ? _get_fbval_to_usrloc(entry, block, &given)
                                 : _typcvt_update(block, *type, &given, entry);
    if (result < 0) {
        free(block);
        return fb_null_error(text);
    }
    if (extra != nullptr)
        *extra = (int)told;
    return fb_return_pointer(text, block);
}

char *fbgetalloc_tu(FBUF *fbuf, int key, int nth, int *extra)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGETALLOC_TU, fbuf, key, nth, extra))
        return nullptr;
    if (fbuf == nullptr)
        return fb_null(&FBGETALLOC_TU, FBEINVAL);
    char *entry = find_entry(frame.block, fbuf, key, nth);
    if (entry == nullptr)
        return fb_null(&FBGETALLOC_TU, FBENOENT);
    return allocated_value(&FBGETALLOC_TU, entry, _get_fldlen_from_curpos(entry), nullptr, extra);
}

char *fbgetalloc_tut(FBUF *fbuf, int key, int nth, int type, int *extra)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGETALLOC_TUT, fbuf, key, nth, type, extra))
        return nullptr;
    if (fbuf == nullptr)
        return fb_null(&FBGETALLOC_TUT, FBEINVAL);
    char *entry = find_entry(frame.block, fbuf, key, nth);
    if (entry == nullptr)
        return fb_null(&FBGETALLOC_TUT, FBENOENT);
    return allocated_value(&FBGETALLOC_TUT, entry, _get_fldlen_from_type(type, entry), &type, extra);
}

// --- All entries, one after the other.

// Where counting the occurrences in front of an entry begins: at a cached place of its key that isn't behind
// it, else at the first entry.
static entry_walk counting_start(FBUF *fbuf, const entry_walk *at, int *nth)
{
    int32_t key = get_int32(at->entry), offset;
    char *first = first_entry(fbuf);
    bool cached = _srch_fcache(fbuf, key, INT_MAX, nth, &offset) >= 0 && *nth >= 0 && offset >= 0 &&
                  offset <= at->entry - first && ((get_int32(first + offset) ^ key) & ~FIELD_READ_MARK) == 0;
    if (!cached)
        *nth = 0;
    return walk_from(first + (cached ? offset : 0), at->end);
}

// The entry's occurrence number. It is entered in the cache: there the next call of a loop finds the entry
// again, and the count for the next one of the key.
static int count_occurrence(FBUF *fbuf, const entry_walk *at)
{
    int32_t key = get_int32(at->entry);
    int nth;
    entry_walk walk = counting_start(fbuf, at, &nth);
    for (; walk.size > 0 && walk.entry < at->entry; next_entry(&walk))
        nth += get_int32(walk.entry) == key;
    if (walk.entry != at->entry)
        nth = _getnth_from_curpos(fbuf, at->entry);  // the cached place was none
    _upd_fcache(fbuf, key, nth, (int)(at->entry - first_entry(fbuf)));
    return nth;
}

// The entry behind the one that key and number name; false if that one isn't there. Entries of key 0, which
// only a foreign buffer has, are passed over: named to the caller, one would begin his loop anew.
static bool find_next(wthr_var *block, FBUF *fbuf, int key, int nth, entry_walk *at)
{
    *at = walk_of(fbuf);
    if (key != 0) {
        char *entry = find_entry(block, fbuf, key, nth);
        if (entry == nullptr)
            return false;
        *at = walk_from(entry, at->end);
        next_entry(at);
    }
    while (at->size > 0 && get_int32(at->entry) == 0)
        next_entry(at);
    return true;
}

int fbnext_tu(FBUF *fbuf, int *key, int *nth, char *value, int *len)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBNEXT_TU, fbuf, key, nth, value, len))
        return -1;
    if (fbuf == nullptr || key == nullptr || nth == nullptr)
        return fb_fail(&FBNEXT_TU, FBEINVAL);
    entry_walk at;
    if (!find_next(frame.block, fbuf, *key, *nth, &at))
        return fb_fail(&FBNEXT_TU, FBEINVAL);
    if (at.size == 0)
        return fb_return(&FBNEXT_TU, 0);
    int given = 0;
    if (len != nullptr) {
        int length = _get_fldlen_from_curpos(at.entry);
        if (value != nullptr && *len < length)
            return fb_fail(&FBNEXT_TU, FBENOSPACE);
        given = *len;
        *len = length;
    }
    *nth = count_occurrence(fbuf, &at);
    *key = get_int32(at.entry);
    if (value == nullptr || _is_value_null(at.entry))
        return fb_return(&FBNEXT_TU, 1);
    return fb_result(&FBNEXT_TU, _get_fbval_to_usrloc(at.entry, value, &given));
}
}
