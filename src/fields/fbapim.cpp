// The calls that write and read single values.
#include "fields/fbapim.h"

#include "fields/fbapi.h"
#include "fields/fbcommon2.h"
#include "fields/fbtconv.h"
#include "runtime/semantics.h"

extern "C" {

static constexpr api_text FBPUT = FB_TEXT("fbput", "(%#x, %d, %#x, %d)");
static constexpr api_text FBINSERT = FB_TEXT("fbinsert", "(%#x, %d, %d, %#x, %d)");
static constexpr api_text FBUPDATE = FB_TEXT("fbupdate", "(%#x, %d, %d, %#x, %d)");
static constexpr api_text FBDELETE = FB_TEXT("fbdelete", "(%#x, %d, %d)");
static constexpr api_text FBDELALL = FB_TEXT("fbdelall", "(%#x, %d)");
static constexpr api_text FBGET = FB_TEXT("fbget", "(%#x, %d, %#x, %#x)");
static constexpr api_text FBGETF = FB_TEXT("fbgetf", "(%#x, %d, %#x, %#x, %#x)");
static constexpr api_text FBGETC = FB_TEXT("fbgetc", "(%#x, %d, %#x, %#x, %#x, %d)");

// --- Writing.

// Copies a text or byte array, which may overlap its new place. Short ones, as most are, go through
// registers.
static inline void copy_value(char *to, const char *from, size_t size)
{
    struct part {
        char bytes[16];
    } head, tail;
    if (size < sizeof head || size > sizeof head + sizeof tail) {
        memmove(to, from, size);
        return;
    }
    memcpy(&head, from, sizeof head);
    memcpy(&tail, from + size - sizeof tail, sizeof tail);
    memcpy(to, &head, sizeof head);
    memcpy(to + size - sizeof tail, &tail, sizeof tail);
}

// _put_fld_to_fbuf for a text whose size, NUL included, is known; it doesn't count for other types.
static inline int put_value(char *position, int key, const char *value, int len, size_t text_size)
{
    put_int32(position, key);
    switch (type_of_key(key)) {
    case FB_CHAR:
        position[FIELD_VALUE] = *value;
        return 1;
    case FB_SHORT:
        memcpy(position + FIELD_VALUE, value, sizeof(int16_t));
        return 1;
    case FB_LONG:
        // The low half of a wide one comes first on this kind of host.
        static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);
        [[fallthrough]];
    case FB_INT:
    case FB_FLOAT:
        memcpy(position + FIELD_VALUE, value, sizeof(int32_t));
        return 1;
    case FB_DOUBLE:
        memcpy(position + FIELD_WIDE_VALUE, value, sizeof(double));
        return 1;
    case FB_STRING:
        copy_value(position + FIELD_VALUE, value, text_size);
        return 1;
    case FB_CARRAY:
        if (len < 1)
            return refused(FBEINVAL);
        put_int32(position + FIELD_CARRAY_LENGTH, len);
        copy_value(position + FIELD_WIDE_VALUE, value, (size_t)len);
        return 1;
    }
    return refused(FBETYPE);
}

// 0 for what is no text.
static inline size_t size_of_text(int type, const char *value)
{
    return type == FB_STRING ? strlen(value) + 1 : 0;
}

int _put_fld_to_fbuf(char *position, int key, const char *value, int len, int wide_long)
{
    (void)wide_long;
    return put_value(position, key, value, len, size_of_text(type_of_key(key), value));
}

// Appends a value of any type. The key of a value that is then refused isn't written: a full buffer has no
// room for it.
static int append_any(FBUF *fbuf, int key, const char *value, int len)
{
    int type = type_of_key(key);
    size_t text_size = size_of_text(type, value);
    int64_t size = type == FB_STRING ? size_with_key((int64_t)text_size) : size_of_value(type, value, len);
    char *end = entries_end(fbuf);
    int64_t used = end - bytes_of(fbuf);
    if (capacity_of(fbuf) < used + size)
        return refused(FBENOSPACE);
    if (type == FB_CARRAY && len < 1)
        return refused(FBEINVAL);
    if (type < FIELD_TYPE_FIRST || type > FIELD_TYPE_LAST)
        return refused(FBETYPE);
    int result = put_value(end, key, value, len, text_size);
    set_used(fbuf, used + size);
    return result;
}

// The same; the numbers of 32 bits, which most values are, take the short way.
static inline int append(FBUF *fbuf, int key, const char *value, int len)
{
    static_assert(FB_LONG == FB_INT + 1 && FB_FLOAT == FB_INT + 2);
    if (fbuf == nullptr || value == nullptr)
        return refused(FBEINVAL);
    if ((uint32_t)(type_of_key(key) - FB_INT) > FB_FLOAT - FB_INT)
        return append_any(fbuf, key, value, len);
    char *end = entries_end(fbuf);
    int64_t used = end - bytes_of(fbuf);
    if (capacity_of(fbuf) < used + FIELD_ENTRY_UNIT)
        return refused(FBENOSPACE);
    put_int32(end, key);
    memcpy(end + FIELD_VALUE, value, sizeof(int32_t));
    set_used(fbuf, used + FIELD_ENTRY_UNIT);
    return 1;
}

__attribute__((noinline)) static int put_in_frame(FBUF *fbuf, int key, char *value, int len)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBPUT, fbuf, key, value, len))
        return -1;
    return fb_result(&FBPUT, append(fbuf, key, value, len));
}

int fbput(FBUF *fbuf, int key, char *value, int len)
{
    if (fb_enter_untraced())
        return append(fbuf, key, value, len);
    return put_in_frame(fbuf, key, value, len);
}

int _fbput(FBUF *fbuf, int key, char *value, int len)
{
    set_fberror(0);
    return append(fbuf, key, value, len);
}

// Moves what begins at `from` by `distance` bytes, with the used length. A value that the caller took from
// the moved part moves with it.
static void move_tail(FBUF *fbuf, char *from, int64_t distance, const char **value)
{
    char *end = entries_end(fbuf);
    memmove(from + distance, from, (size_t)(end - from));
    set_used(fbuf, end - bytes_of(fbuf) + distance);
    if (*value >= from && *value < end)
        *value += distance;
}

// Puts zero values behind the last occurrence until there are `nth`, then the value.
static int insert_behind(FBUF *fbuf, int key, int missing, char *value, int len)
{
    int64_t size = size_of_value(type_of_key(key), value, len);
    int64_t used = entries_end(fbuf) - bytes_of(fbuf);
    if (used + size * missing > capacity_of(fbuf))
        return refused(FBENOSPACE);
    const char *null_value = _get_null_value(type_of_key(key));
    if (null_value == nullptr)
        return refused(FBETYPE);
    for (; missing > 0; missing--)
        if (fbput(fbuf, key, (char *)null_value, 0) < 0)
            return -1;
    return fbput(fbuf, key, value, len);
}

// Pushes occurrence `nth` and what is behind it back.
static int insert_before(wthr_var *block, FBUF *fbuf, int key, int nth, const char *value, int len)
{
    int type = type_of_key(key);
    int64_t size = size_of_value(type, value, len);
    if (entries_end(fbuf) - bytes_of(fbuf) + size > capacity_of(fbuf))
        return refused(FBENOSPACE);
    if (type == FB_CARRAY && len < 1)
        return refused(FBEINVAL);
    if (type < FIELD_TYPE_FIRST || type > FIELD_TYPE_LAST)
        return refused(FBETYPE);
    char *entry = find_entry(block, fbuf, key, nth);
    if (entry == nullptr)
        return refused(FBENOENT);                  // threads of one context have mixed up the count
    size_t text_size = size_of_text(type, value);  // as it is before anything moves
    forget_buffer(block, fbuf);
    move_tail(fbuf, entry, size, &value);
    return put_value(entry, key, value, len, text_size);
}

int fbinsert(FBUF *fbuf, int key, int nth, char *value, int len)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBINSERT, fbuf, key, nth, value, len))
        return -1;
    if (fbuf == nullptr || nth < 0 || value == nullptr)
        return fb_fail(&FBINSERT, FBEINVAL);
    int present = fbkeyoccur(fbuf, key);
    if (present == nth)
        return fb_result(&FBINSERT, fbput(fbuf, key, value, len));
    if (present < nth)
        return fb_result(&FBINSERT, insert_behind(fbuf, key, nth - present, value, len));
    return fb_result(&FBINSERT, insert_before(frame.block, fbuf, key, nth, value, len));
}

// Size of the entry with the new value. Only texts and byte arrays change in size. A length below 1, refused
// once the entry has its new size, leaves no less than the key and the old length.
static int64_t updated_size(const entry_walk *at, const char *value, int len)
{
    int type = type_of_key(get_int32(at->entry));
    int64_t size = size_of_value(type, value, len);
    return size < FIELD_ENTRY_UNIT ? FIELD_ENTRY_UNIT : size;
}

int fbupdate(FBUF *fbuf, int key, int nth, char *value, int len)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBUPDATE, fbuf, key, nth, value, len))
        return -1;
    if (fbuf == nullptr || value == nullptr)
        return fb_fail(&FBUPDATE, FBEINVAL);
    char *entry = find_entry(frame.block, fbuf, key, nth);
    if (entry == nullptr)
        return fb_fail(&FBUPDATE, FBENOENT);
    entry_walk at = walk_from(entry, entries_end(fbuf));
    int64_t growth = updated_size(&at, value, len) - at.size;
    if (at.end - bytes_of(fbuf) + growth > capacity_of(fbuf))
        return fb_fail(&FBUPDATE, FBENOSPACE);
    if (growth != 0)
        forget_buffer(frame.block, fbuf);
    const char *from = value;
    size_t text_size = size_of_text(type_of_key(key), value);  // as it is before anything moves
    if (growth > 0)
        move_tail(fbuf, entry + at.size, growth, &from);
    int result = put_value(entry, key, from, len, text_size);
    // What follows a shorter value moves up behind it: the value may have stood in the old one.
    if (growth < 0)
        move_tail(fbuf, entry + at.size, growth, &from);
    return fb_result(&FBUPDATE, result);
}

int fbdelete(FBUF *fbuf, int key, int nth)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBDELETE, fbuf, key, nth))
        return -1;
    if (fbuf == nullptr)
        return fb_fail(&FBDELETE, FBEINVAL);
    char *entry = find_entry(frame.block, fbuf, key, nth);
    if (entry == nullptr)
        return fb_fail(&FBDELETE, FBENOENT);
    forget_buffer(frame.block, fbuf);
    int64_t size = entry_size(entry, entries_end(fbuf));
    const char *none = nullptr;
    move_tail(fbuf, entry + size, -size, &none);
    return fb_return(&FBDELETE, 1);
}

int fbdelall(FBUF *fbuf, int key)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBDELALL, fbuf, key))
        return -1;
    if (fbuf == nullptr)
        return fb_fail(&FBDELALL, FBEINVAL);
    int count = 0;
    for (; find_entry(frame.block, fbuf, key, 0) != nullptr; count++)
        if (fbdelete(fbuf, key, 0) < 0)
            return fb_error(&FBDELALL);
    if (count == 0)
        return fb_fail(&FBDELALL, FBENOENT);
    return fb_return(&FBDELALL, count);
}

// --- Reading.

void mark_as_read(wthr_var *block, FBUF *fbuf, char *entry)
{
    int32_t key = get_int32(entry);
    put_int32(entry, key | FIELD_READ_MARK);
    // A place behind it has one occurrence less before it, and of the marked key one more.
    forget_behind(block, fbuf, key, entry);
    forget_behind(block, fbuf, key | FIELD_READ_MARK, entry);
}

int deliver_text(char *value, const char *text, int length, int *given)
{
    int room = *given;
    *given = length + 1;
    int mode = room != 0 && room <= length ? field_length_mode() : FLEN_UNSET;
    bool cut = mode == FLEN_TRUNCATE || mode == FLEN_ERROR;
    if (mode == FLEN_ERROR)
        return refused(FBENOSPACE);
    int delivered = length + 1;
    if (cut)
        *given = delivered = room < 0 ? 0 : room;
    if (value == nullptr || delivered == 0)
        return 1;
    copy_value(value, text, (size_t)delivered - 1);
    value[delivered - 1] = '\0';
    return 1;
}

int deliver_bytes(char *value, const char *bytes, int length, int *given)
{
    int room = *given == 0 ? length : *given;
    *given = length;
    int mode = room < length ? field_length_mode() : FLEN_UNSET;
    bool cut = mode == FLEN_TRUNCATE || mode == FLEN_ERROR;
    if (mode == FLEN_ERROR)
        return refused(FBENOSPACE);
    if (cut)
        *given = length = room < 0 ? 0 : room;
    if (value != nullptr && length > 0)
        memcpy(value, bytes, (size_t)length);
    return 1;
}

// Bytes of a number, of which a long delivers its 4 with 4 zero bytes above them.
static int deliver_number(char *value, const char *stored, size_t width, bool widen)
{
    if (value == nullptr)
        return 1;
    memcpy(value, stored, width);
    if (widen)
        memset(value + width, 0, sizeof(int64_t) - width);
    return 1;
}

int _get_fbval_to_usrloc(const char *entry, char *value, int *len)
{
    const char *stored = entry + FIELD_VALUE;
    switch (type_of_key(get_int32(entry))) {
    case FB_CHAR:
        return deliver_number(value, stored, 1, false);
    case FB_SHORT:
        return deliver_number(value, stored, 2, false);
    case FB_INT:
    case FB_FLOAT:
        return deliver_number(value, stored, 4, false);
    case FB_LONG:
        return deliver_number(value, stored, 4, true);
    case FB_DOUBLE:
        return deliver_number(value, entry + FIELD_WIDE_VALUE, 8, false);
    case FB_STRING: {
        int enough = 0;
        return deliver_text(value, stored, text_length(entry), len != nullptr ? len : &enough);
    }
    case FB_CARRAY:
        if (len == nullptr)
            return refused(FBEINVAL);
        return deliver_bytes(value, entry + FIELD_WIDE_VALUE, get_int32(entry + FIELD_CARRAY_LENGTH), len);
    }
    return refused(FBETYPE);
}

int fbget(FBUF *fbuf, int key, char *value, int *len)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGET, fbuf, key, value, len))
        return -1;
    if (fbuf == nullptr)
        return fb_fail(&FBGET, FBEINVAL);
    char *entry = find_entry(frame.block, fbuf, key, 0);
    if (entry == nullptr)
        return fb_fail(&FBGET, FBENOENT);
    int enough = 0;
    if (_get_fbval_to_usrloc(entry, value, len != nullptr ? len : &enough) < 0)
        return fb_error(&FBGET);
    mark_as_read(frame.block, fbuf, entry);
    return fb_return(&FBGET, 1);
}

int fbgetf(FBUF *fbuf, int key, char *value, int *len, int *from)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGETF, fbuf, key, value, len, from))
        return -1;
    if (fbuf == nullptr || from == nullptr)
        return fb_fail(&FBGETF, FBEINVAL);
    char *entry = _find_matching_fldkey_from(fbuf, key, 0, from);
    if (entry == nullptr)
        return fb_fail(&FBGETF, FBENOENT);
    int enough = 0;
    if (_get_fbval_to_usrloc(entry, value, len != nullptr ? len : &enough) < 0)
        return fb_error(&FBGETF);
    mark_as_read(frame.block, fbuf, entry);
    return fb_return(&FBGETF, 1);
}

int fbgetc(FBUF *fbuf, int key, char *value, int *len, int *from, int type)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGETC, fbuf, key, value, len, from, type))
        return -1;
    if (fbuf == nullptr || from == nullptr)
        return fb_fail(&FBGETC, FBEINVAL);
    char *entry = _find_matching_fldkey_from(fbuf, key, 0, from);
    if (entry == nullptr)
        return fb_fail(&FBGETC, FBENOENT);
    int length = len != nullptr ? *len : 0;
    if (_typcvt_update(value, type, &length, entry) < 0)
        return fb_error(&FBGETC);
    if (len != nullptr)
        *len = length;
    mark_as_read(frame.block, fbuf, entry);
    return fb_return(&FBGETC, 1);
}
}
