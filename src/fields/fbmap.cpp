// Records and field buffers: a struct's definition names a field key and a null value for each member.
//
// That a member lies inside its record with all its elements has been seen to when the definitions were
// loaded; the size of an element, which only texts and byte arrays have from the file, has not. Members may
// stand at any address, so numbers are copied, never pointed at.
#include "fields/fbmap.h"

#include "buffers/sdli.h"
#include "fields/fbapi.h"
#include "fields/fbbufop.h"
#include "fields/fbtconv.h"
#include "vorn/buffers.h"
#include "vorn/structs.h"

#include <stdlib.h>

extern "C" {

static constexpr api_text FBFTOS = FB_TEXT("fbftos", "(%#x, %#x, \"%s\")");
static constexpr api_text FBSTOF = FB_TEXT("fbstof", "(%#x, %#x, %d, \"%s\")");
static constexpr api_text FBSNULL = FB_TEXT("fbsnull", "(%#x, \"%s\", %d, \"%s\")");
static constexpr api_text VSINIT = FB_TEXT("_vsinit", "(%#x, \"%s\", \"%s\")");

static const char *traced(const char *text)
{
    return text != nullptr ? text : "";
}

// --- Members.

static bool is_text(int32_t type)
{
    return type == SDL_STRING || type == SDL_CARRAY;
}

// Bytes of a value that isn't text; 1 for text, whose offsets count bytes; 0 for what takes no part.
static int32_t width_of(const sdl_field *member)
{
    static const int32_t widths[] = {0, 1, 2, 4, 8, 4, 8, 1, 1};
    return member->type < SDL_CHAR || member->type > SDL_CARRAY ? 0 : widths[member->type];
}

struct member_elements {
    int32_t count;
    int32_t size;
};

// An element size that makes no sense is taken as 1 for a char, as all of the member for the others.
static member_elements elements_of(const sdl_field *member)
{
    int32_t width = width_of(member), size = member->element;
    if (width == 0 || member->count < 1)
        return {0, 1};
    if (member->type != SDL_CHAR && !is_text(member->type))
        return {member->count, width};
    if (size < 1 || size > member->count)
        size = member->type == SDL_CHAR ? 1 : member->count;
    return {member->count / size, size};
}

// A member's null value as it stands in the record.
struct member_null {
    char number[8];
    const char *text;  // null for numbers
    int32_t length;
};

static void put_integer(member_null *null_value, const char *text)
{
    int64_t number = strtol(text, nullptr, 10);  // its low bytes come first
    memcpy(null_value->number, &number, sizeof number);
}

// A string's text is cut so that its NUL has room in the element, a carray's to the element.
static member_null null_of(const sdl_field *member, int32_t size)
{
    member_null null_value = {{}, nullptr, width_of(member)};
    const char *text = member->null_text;
    switch (member->type) {
    case SDL_CHAR:
        null_value.number[0] = text[0];
        break;
    case SDL_FLOAT: {
        float number = (float)strtod(text, nullptr);
        memcpy(null_value.number, &number, sizeof number);
        break;
    }
    case SDL_DOUBLE: {
        double number = strtod(text, nullptr);
        memcpy(null_value.number, &number, sizeof number);
        break;
    }
    case SDL_STRING:
    case SDL_CARRAY:
        null_value.text = text;
        null_value.length = (int32_t)strnlen(text, (size_t)(member->type == SDL_STRING ? size - 1 : size));
        break;
    default:
        put_integer(&null_value, text);
    }
    return null_value;
}

// The rest of a text's element behind the NUL keeps what it held.
static void put_null(char *element, int32_t size, const member_null *null_value)
{
    const char *from = null_value->text != nullptr ? null_value->text : null_value->number;
    memcpy(element, from, (size_t)null_value->length);
    if (null_value->text != nullptr && null_value->length < size)
        element[null_value->length] = '\0';
}

static float float_at(const char *from)
{
    float number;
    memcpy(&number, from, sizeof number);
    return number;
}

static double double_at(const char *from)
{
    double number;
    memcpy(&number, from, sizeof number);
    return number;
}

static bool holds_null(const sdl_field *member, const char *element, int32_t size,
                       const member_null *null_value)
{
    size_t length = (size_t)null_value->length;
    if (member->type == SDL_FLOAT)
        return float_at(element) == float_at(null_value->number);
    if (member->type == SDL_DOUBLE)
        return double_at(element) == double_at(null_value->number);
    if (null_value->text == nullptr)
        return memcmp(element, null_value->number, length) == 0;
    return strnlen(element, (size_t)size) == length && memcmp(element, null_value->text, length) == 0;
}

// --- From a field buffer to a record.

// The value of an occurrence as the member has it, with its length; null if there is none. It is what
// fbgetvalt would give, but the scratch block in which it may stand is kept: the caller has to trim it.
static const char *occurrence(FBUF *fbuf, const sdl_field *member, int nth, int *length)
{
    char *value = fbgetval(fbuf, member->key, nth, length);
    int type = type_of_key(member->key);
    if (value == nullptr || type == member->type)
        return value;
    return fbtypecvt(length, member->type, value, type == FB_LONG ? FB_INT : type, *length);
}

static void put_text(char *element, int32_t size, const char *value, int length, bool from_carray)
{
    size_t room = (size_t)size, given = length > 0 ? (size_t)length : 0;
    size_t taken = given < room ? given : room;
    if (!from_carray) {
        taken = strnlen(value, taken);
        memset(element + taken, 0, room - taken);
    }
    memcpy(element, value, taken);
}

// A long that comes as it stands in the buffer has 4 bytes, a converted one all 8.
static void put_value(const sdl_field *member, char *element, int32_t size, const char *value, int length)
{
    int key_type = type_of_key(member->key);
    if (is_text(member->type)) {
        put_text(element, size, value, length, key_type == FB_CARRAY);
        return;
    }
    if (member->type != SDL_LONG || key_type != FB_LONG) {
        memcpy(element, value, (size_t)width_of(member));
        return;
    }
    memcpy(element, value, sizeof(int32_t));
    memset(element + sizeof(int32_t), 0, sizeof(int32_t));
}

static void fill_member(FBUF *fbuf, const sdl_field *member, char *record)
{
    member_elements elements = elements_of(member);
    member_null null_value = null_of(member, elements.size);
    char *element = record + member->host_offset;
    for (int32_t i = 0; i < elements.count; i++, element += elements.size) {
        int length = 0;
        const char *value = occurrence(fbuf, member, i, &length);
        if (value == nullptr)
            put_null(element, elements.size, &null_value);
        else
            put_value(member, element, elements.size, value, length);
        if (value != nullptr && type_of_key(member->key) != member->type)
            _free_large_carray_buf();
    }
}

int fbftos(FBUF *fbuf, char *cstruct, char *name)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBFTOS, fbuf, cstruct, traced(name)))
        return -1;
    if (fbuf == nullptr || cstruct == nullptr)
        return fb_fail(&FBFTOS, FBEINVAL);
    int index = find_struct(name);
    if (index < 0)
        return fb_fail(&FBFTOS, FBEBADSTRUCT);
    conversion_area area(frame.block);
    for (int32_t n = _sdl_table[index].first; n <= _sdl_table[index].last; n++)
        fill_member(fbuf, &_sdl_field_table[n], cstruct);
    return fb_return(&FBFTOS, 1);
}

// --- From a record to a field buffer.

static void put_field(FBUF *fbuf, const sdl_field *member, char *value, int length)
{
    if (type_of_key(member->key) == member->type)
        fbput(fbuf, member->key, value, length);
    else
        fbputt(fbuf, member->key, value, length, member->type);
}

// A string that fills its element is put with a NUL of its own; without memory for it, it is missing.
static void put_string(FBUF *fbuf, const sdl_field *member, char *element, int32_t size)
{
    if (memchr(element, '\0', (size_t)size) != nullptr) {
        put_field(fbuf, member, element, size);
        return;
    }
    char *ended = (char *)malloc((size_t)size + 1);
    if (ended == nullptr)
        return;
    memcpy(ended, element, (size_t)size);
    ended[size] = '\0';
    put_field(fbuf, member, ended, size);
    free(ended);
}

static void put_element(FBUF *fbuf, const sdl_field *member, char *element, int32_t size)
{
    if (member->type == SDL_STRING) {
        put_string(fbuf, member, element, size);
        return;
    }
    if (member->type == SDL_CARRAY) {
        put_field(fbuf, member, element, size);
        return;
    }
    int64_t number = 0;
    memcpy(&number, element, (size_t)width_of(member));
    put_field(fbuf, member, (char *)&number, member->type == SDL_CHAR ? 1 : 0);
}

int _vstof_concat(FBUF *fbuf, char *cstruct, int first, int last)
{
    if (_sdl_field_table == nullptr || first < 0)
        return 1;
    for (int n = first; n <= last && n < _sdl_field_table_size; n++) {
        const sdl_field *member = &_sdl_field_table[n];
        member_elements elements = elements_of(member);
        member_null null_value = null_of(member, elements.size);
        char *element = cstruct + member->host_offset;
        for (int32_t i = 0; i < elements.count; i++, element += elements.size)
            if (!holds_null(member, element, elements.size, &null_value))
                put_element(fbuf, member, element, elements.size);
    }
    return 1;
}

// The joining modes take the record's fields from a buffer of their own. What it has no room for is missing.
static int join_record(FBUF *fbuf, char *cstruct, int mode, const sdl_struct *row)
{
    constexpr int64_t ROOM_PER_BYTE = 4;
    FBUF *made = new_temporary(ROOM_PER_BYTE * (int32_t)row->host_size);
    if (made == nullptr)
        return -1;
    _vstof_concat(made, cstruct, row->first, row->last);
    int result = fbbufop(fbuf, made, mode);
    tpfree(bytes_of(made));
    return result;
}

int fbstof(FBUF *fbuf, char *cstruct, int mode, char *name)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBSTOF, fbuf, cstruct, mode, traced(name)))
        return -1;
    if (fbuf == nullptr || cstruct == nullptr)
        return fb_fail(&FBSTOF, FBEINVAL);
    int index = find_struct(name);
    if (index < 0)
        return fb_fail(&FBSTOF, FBEBADSTRUCT);
    const sdl_struct *row = &_sdl_table[index];
    if (mode == FB_CONCAT)
        return fb_return(&FBSTOF, _vstof_concat(fbuf, cstruct, row->first, row->last));
    if (mode != FB_JOIN && mode != FB_OUTER_JOIN && mode != FB_UPDATE)
        return fb_fail(&FBSTOF, FBEINVAL);
    return fb_result(&FBSTOF, join_record(fbuf, cstruct, mode, row));
}

// --- Null values in a record.

static const sdl_field *find_member(const sdl_struct *row, const char *name)
{
    for (int32_t n = row->first; name != nullptr && n <= row->last; n++)
        if (strcmp(_sdl_field_table[n].name, name) == 0)
            return &_sdl_field_table[n];
    return nullptr;
}

static bool is_zero(const sdl_field *member, const char *element)
{
    static const char zero[8] = {};
    if (member->type == SDL_FLOAT)
        return float_at(element) == 0;
    if (member->type == SDL_DOUBLE)
        return double_at(element) == 0;
    return memcmp(element, zero, (size_t)width_of(member)) == 0;
}

int fbsnull(char *cstruct, char *member, int occ, char *name)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBSNULL, cstruct, traced(member), occ, traced(name)))
        return -1;
    if (cstruct == nullptr)
        return fb_fail(&FBSNULL, FBEINVAL);
    int index = find_struct(name);
    if (index < 0)
        return fb_fail(&FBSNULL, FBEBADSTRUCT);
    const sdl_field *found = find_member(&_sdl_table[index], member);
    if (found == nullptr)
        return fb_error(&FBSNULL);
    if (occ > found->count)
        return fb_fail(&FBSNULL, FBEBADSTRUCT);
    int64_t width = width_of(found), at = found->host_offset + width * occ;
    if (width == 0)
        return fb_error(&FBSNULL);
    if (at < 0)
        return fb_fail(&FBSNULL, FBEBADSTRUCT);
    // The element behind the last one isn't refused, but the record may end before it.
    if (at + width > (int32_t)_sdl_table[index].host_size)
        return fb_return(&FBSNULL, 1);
    return fb_return(&FBSNULL, is_zero(found, cstruct + at));
}

static void init_member(const sdl_field *member, char *record)
{
    member_elements elements = elements_of(member);
    member_null null_value = null_of(member, elements.size);
    char *element = record + member->host_offset;
    for (int32_t i = 0; i < elements.count; i++, element += elements.size)
        put_null(element, elements.size, &null_value);
}

int _vsinit(char *cstruct, char *member, char *name)
{
    api_frame frame;
    if (!FB_ENTER(&frame, VSINIT, cstruct, traced(member), traced(name)))
        return -1;
    if (cstruct == nullptr)
        return fb_fail(&VSINIT, FBEINVAL);
    int index = find_struct(name);
    if (index < 0)
        return fb_fail(&VSINIT, FBEBADSTRUCT);
    for (int32_t n = _sdl_table[index].first; n <= _sdl_table[index].last; n++) {
        const sdl_field *row = &_sdl_field_table[n];
        if (member == nullptr || strcmp(row->name, member) == 0)
            init_member(row, cstruct);
    }
    return fb_return(&VSINIT, 1);
}

int fbstinit(char *cstruct, char *name)
{
    return _vsinit(cstruct, nullptr, name);
}

int fbstelinit(char *cstruct, char *member, char *name)
{
    return _vsinit(cstruct, member, name);
}
}
