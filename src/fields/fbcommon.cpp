// The arithmetic on entries.
#include "fields/fbcommon.h"

#include "fields/fbapi.h"

#include <limits.h>

template <typename Number> static Number number_at(const char *from)
{
    Number value;
    memcpy(&value, from, sizeof value);
    return value;
}

template <typename Number> static int order(Number stored, Number given)
{
    return stored < given ? -1 : stored != given;
}

extern "C" {

const char ncv = 0;
const int16_t nsv = 0;
const int32_t niv = 0;
const int64_t nlv = 0;
const float nfv = 0;
const double ndv = 0;
const char nstv[1] = "";
const char ncav = 0;

void init_field_buffer(char *data)
{
    fb_head head = {FIELD_BUFFER_MAGIC, FB_HEAD_SIZE};
    memcpy(data, &head, sizeof head);
}

int64_t long_text_entry_size(const char *entry, const char *end)
{
    const char *text = entry + FIELD_VALUE;
    const void *nul = memchr(text, '\0', (size_t)(end - text));
    if (nul == nullptr)
        return 0;
    int64_t size = aligned_entry((const char *)nul + 1 - entry);
    return size <= end - entry ? size : 0;
}

int64_t size_of_value(int type, const char *value, int len)
{
    switch (type) {
    case FB_DOUBLE:
        return 2 * FIELD_ENTRY_UNIT;
    case FB_STRING:
        return size_with_key((int64_t)strlen(value) + 1);
    case FB_CARRAY:
        return size_with_key((int64_t)len + 4);
    }
    return FIELD_ENTRY_UNIT;
}

int _calc_falign_len(int n)
{
    return (int)size_with_key(n);
}

int _get_alen_from_type(int type, const char *value, int len)
{
    return (int)size_of_value(type, value, len);
}

int _get_alen_from_curpos(const char *entry)
{
    int type = type_of_key(get_int32(entry));
    int len = type == FB_CARRAY ? get_int32(entry + FIELD_CARRAY_LENGTH) : 0;
    return (int)size_of_value(type, entry + FIELD_VALUE, len);
}

int _get_fldlen_from_curpos(const char *entry)
{
    int type = type_of_key(get_int32(entry));
    if (type >= FIELD_TYPE_FIRST && type <= FIELD_TYPE_LAST)
        return length_of(entry);
    set_fberror(FBEBADFLD);
    return -1;
}

int _get_fldlen_from_type(int type, const char *entry)
{
    constexpr int TEXT_OF_A_NUMBER = 100;
    static const int widths[] = {0, 1, 2, 4, 4, 4, 8};
    if (type >= FB_CHAR && type <= FB_DOUBLE)
        return widths[type];
    if (type != FB_STRING && type != FB_CARRAY) {
        set_fberror(FBEBADFLD);
        return -1;
    }
    int stored = type_of_key(get_int32(entry));
    return stored == FB_STRING || stored == FB_CARRAY ? length_of(entry) + 1 : TEXT_OF_A_NUMBER;
}

char *_get_valuep_from_curpos(char *entry)
{
    return value_of(entry);
}

int _is_value_null(const char *entry)
{
    const char *value = entry + FIELD_VALUE;
    switch (type_of_key(get_int32(entry))) {
    case FB_CHAR:
    case FB_STRING:
        return *value == '\0';
    case FB_SHORT:
        return number_at<int16_t>(value) == 0;
    case FB_INT:
    case FB_LONG:
    case FB_CARRAY:
        return get_int32(value) == 0;
    case FB_FLOAT:
        return number_at<float>(value) == 0;
    case FB_DOUBLE:
        return number_at<double>(entry + FIELD_WIDE_VALUE) == 0;
    }
    return 1;
}

// A carray is compared as far as the shorter one goes.
static int compare_carray(const char *entry, const char *value, int len)
{
    int32_t stored = get_int32(entry + FIELD_CARRAY_LENGTH);
    int32_t common = stored < len ? stored : len;
    return common > 0 ? memcmp(entry + FIELD_WIDE_VALUE, value, (size_t)common) : 0;
}

int _value_comp(const char *entry, const char *value, int len)
{
    const char *stored = entry + FIELD_VALUE;
    switch (type_of_key(get_int32(entry))) {
    case FB_CHAR:
        return order<signed char>((signed char)*stored, (signed char)*value);
    case FB_SHORT:
        return order(number_at<int16_t>(stored), number_at<int16_t>(value));
    case FB_INT:
        return order(get_int32(stored), get_int32(value));
    case FB_LONG:
        return order((int64_t)number_at<uint32_t>(stored), number_at<int64_t>(value));
    case FB_FLOAT:
        return order(number_at<float>(stored), number_at<float>(value));
    case FB_DOUBLE:
        return order(number_at<double>(entry + FIELD_WIDE_VALUE), number_at<double>(value));
    case FB_STRING:
        return strcmp(stored, value);
    case FB_CARRAY:
        return compare_carray(entry, value, len);
    }
    return 1;
}

int _getnth_from_curpos(FBUF *fbuf, const char *entry)
{
    int nth = 0;
    for (entry_walk walk = walk_of(fbuf); walk.size > 0; next_entry(&walk)) {
        if (walk.entry == entry)
            return nth;
        nth += get_int32(walk.entry) == get_int32(entry);
    }
    return -1;
}

const char *_get_null_value(int type)
{
    static const void *const nulls[] = {nullptr, &ncv, &nsv, &niv, &nlv, &nfv, &ndv, nstv, &ncav};
    return type >= FIELD_TYPE_FIRST && type <= FIELD_TYPE_LAST ? (const char *)nulls[type] : nullptr;
}
}
