// Conversion between the types of fields.
//
// A number is read into its widest form (number_at), by a table that tells width and sign of each type, and
// written out from there (write_number). The two engines have a table each, which is where their treatment of
// signs differs. A text to be read as a number becomes one first. A text to be written is made in the
// context's scratch block, cvt_buf.
#include "fields/fbtconv.h"

#include "fields/fbapi.h"
#include "fields/fbapim.h"
#include "fields/fbcommon.h"
#include "fields/fbcommon2.h"
#include "runtime/semantics.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>

conversion_area::conversion_area(wthr_var *owner) : block(owner)
{
    _thread_mutex_lock(&block->cvt_mutex);
}

conversion_area::~conversion_area()
{
    _thread_mutex_unlock(&block->cvt_mutex);
}

extern "C" {

static constexpr api_text FBTYPECVT = FB_POINTER_TEXT("fbtypecvt", "(%#x, %d, %#x, %d, %d)");
static constexpr api_text FBGETT = FB_TEXT("fbgett", "(%#x, %d, %#x, %#x, %d)");
static constexpr api_text FBPUTT = FB_TEXT("fbputt", "(%#x, %d, %#x, %d, %d)");
static constexpr api_text FBGETVALT = FB_POINTER_TEXT("fbgetvalt", "(%#x, %d, %d, %#x, %d)");
static constexpr api_text FBGETNTHT = FB_TEXT("fbgetntht", "(%#x, %d, %#x, %d, %d)");

static bool is_number_type(int type)
{
    return type >= FB_CHAR && type <= FB_DOUBLE;
}

static bool is_type(int type)
{
    return type >= FIELD_TYPE_FIRST && type <= FIELD_TYPE_LAST;
}

// What a number has at the caller's.
static constexpr int NATURAL_WIDTH[FB_DOUBLE + 1] = {0, 1, 2, 4, 8, 4, 8};

// --- The scratch block.

constexpr int32_t SCRATCH_SIZE = 65535;
constexpr int32_t SCRATCH_WORTH_KEEPING = 0x100000;

// A block for the texts of numbers, and for a byte array of `len` bytes with its NUL. Every conversion asks
// for it, so a context has one from its first conversion on. Without memory: null, and what there is stays.
static char *scratch_for(wthr_var *block, int type, int len)
{
    int64_t needed = type == FB_CARRAY ? (int64_t)len + 1 : 0;
    if (block->cvt_buf != nullptr && needed <= block->cvt_buf_size)
        return block->cvt_buf;
    if (needed < SCRATCH_SIZE)
        needed = SCRATCH_SIZE;
    char *grown = needed <= INT_MAX ? (char *)realloc(block->cvt_buf, (size_t)needed) : nullptr;
    if (grown == nullptr)
        return nullptr;
    block->cvt_buf = grown;
    block->cvt_buf_size = (int32_t)needed;
    return grown;
}

static void free_large_scratch(wthr_var *block)
{
    if (block->cvt_buf_size <= SCRATCH_WORTH_KEEPING || block->cvt_buf == nullptr)
        return;
    free(block->cvt_buf);
    block->cvt_buf = nullptr;
    block->cvt_buf_size = 0;
}

void _free_large_carray_buf(void)
{
    wthr_var *block = current_block();
    if (block == nullptr)
        return;
    conversion_area area(block);
    free_large_scratch(block);
}

// Bytes as a text in the scratch block, which has room for them; they may stand there already.
static const char *terminated(char *scratch, const char *bytes, int len)
{
    if (len > 0)
        memmove(scratch, bytes, (size_t)len);
    scratch[len > 0 ? len : 0] = '\0';
    return scratch;
}

// --- Numbers.

struct number {
    bool real;
    int64_t whole;  // of an integer
    double value;   // of a real one
};

struct integer_form {
    uint8_t width;
    bool has_sign;
};
// By type, FB_CHAR to FB_LONG. What an entry holds has no sign, but for a char; what a caller gives has one.
static constexpr integer_form STORED[] = {{}, {1, true}, {2, false}, {4, false}, {4, false}};
static constexpr integer_form GIVEN[] = {{}, {1, true}, {2, true}, {4, true}, {8, true}};

static number integer_at(const char *from, integer_form form)
{
    uint64_t bits = 0;
    memcpy(&bits, from, form.width);  // the low bytes come first on this kind of host
    int unused = 64 - 8 * form.width;
    int64_t whole = form.has_sign ? (int64_t)(bits << unused) >> unused : (int64_t)bits;
    return {false, whole, 0};
}

// The number of a type that stands at `from`.
static number number_at(const char *from, int type, const integer_form *forms)
{
    if (type == FB_FLOAT) {
        float single;
        memcpy(&single, from, sizeof single);
        return {true, 0, single};
    }
    if (type == FB_DOUBLE) {
        double value;
        memcpy(&value, from, sizeof value);
        return {true, 0, value};
    }
    return integer_at(from, forms[type]);
}

// The number that a text is taken for.
static number number_of_text(const char *text, int to_type)
{
    switch (to_type) {
    case FB_CHAR:
        return {false, (signed char)*text, 0};
    case FB_FLOAT:
    case FB_DOUBLE:
        return {true, 0, strtod(text, nullptr)};
    }
    return {false, (int32_t)strtol(text, nullptr, 10), 0};  // a long too has 32 bits of it
}

// Truncated as the processor does it: what doesn't fit, and what is no number, is the lowest integer.
static int32_t truncated_to_32(double value)
{
    return value > -0x1p31 - 1 && value < 0x1p31 ? (int32_t)value : INT32_MIN;
}

static int64_t truncated_to_64(double value)
{
    return value >= -0x1p63 && value < 0x1p63 ? (int64_t)value : INT64_MIN;
}

// Writes the number as `to_type`, at its natural width; integers give their low bytes.
static void write_number(char *out, int to_type, const number *from)
{
    if (to_type == FB_FLOAT) {
        float single = from->real ? (float)from->value : (float)from->whole;
        memcpy(out, &single, sizeof single);
    } else if (to_type == FB_DOUBLE) {
        double value = from->real ? from->value : (double)from->whole;
        memcpy(out, &value, sizeof value);
    } else {
        int64_t whole = from->whole;
        if (from->real)
            whole = to_type == FB_LONG ? truncated_to_64(from->value) : truncated_to_32(from->value);
        memcpy(out, &whole, (size_t)NATURAL_WIDTH[to_type]);
    }
}

// --- From a value to a number or a text. The engines share these.

struct cvt_source {
    int type;
    const char *value;
    int len;  // of a carray
    const integer_form *forms;
    char *scratch;
};

static number number_from(const cvt_source *source, int to_type)
{
    if (is_number_type(source->type))
        return number_at(source->value, source->type, source->forms);
    if (source->type == FB_STRING)
        return number_of_text(source->value, to_type);
    if (to_type == FB_CHAR)
        return {false, source->len > 0 ? (signed char)*source->value : 0, 0};
    return number_of_text(terminated(source->scratch, source->value, source->len), to_type);
}

// Delivers the source, of any known type, as a number. A real one that has the right type already is copied
// bit by bit: arithmetic would change a signalling NaN.
static void convert_to_number(char *out, int to_type, const cvt_source *source)
{
    if (source->type == to_type && (to_type == FB_FLOAT || to_type == FB_DOUBLE)) {
        memmove(out, source->value, (size_t)NATURAL_WIDTH[to_type]);
        return;
    }
    number found = number_from(source, to_type);
    write_number(out, to_type, &found);
}

// Makes the text of a number or char in the scratch block, and gives its length.
static int make_text(const cvt_source *source, int size)
{
    number found = number_at(source->value, source->type, source->forms);
    if (source->type == FB_CHAR) {
        terminated(source->scratch, source->value, 1);
        return (int)strlen(source->scratch);
    }
    // The stored forms show an int and a long with their sign, unlike a short.
    if (source->forms == STORED && source->type != FB_SHORT)
        found.whole = (int32_t)found.whole;
    if (found.real)
        return snprintf(source->scratch, (size_t)size, "%f", found.value);
    return snprintf(source->scratch, (size_t)size, "%lld", (long long)found.whole);
}

// Takes the zeros from the end of a fraction, and the point if nothing is left behind it.
static int trim_fraction(char *text, int length)
{
    while (length > 0 && text[length - 1] == '0')
        length--;
    if (length > 0 && text[length - 1] == '.')
        length--;
    text[length] = '\0';
    return length;
}

// --- The engine that reads entries.

static int update_text(char *out, int to_type, int *len, const cvt_source *source, int size)
{
    const char *text = source->value;
    int length = source->len;
    if (source->type == FB_STRING)
        length = (int)strlen(text);
    if (is_number_type(source->type)) {
        text = source->scratch;
        length = make_text(source, size);
        if (to_type == FB_STRING && (source->type == FB_FLOAT || source->type == FB_DOUBLE))
            length = trim_fraction(source->scratch, length);
    }
    if (to_type == FB_STRING)
        return deliver_text(out, text, length, len);
    return deliver_bytes(out, text, length, len);
}

int _typcvt_update(char *out, int to_type, int *len, char *entry)
{
    wthr_var *block = current_block();
    if (block == nullptr)
        return -1;
    conversion_area area(block);
    int type = type_of_key(get_int32(entry)), enough = 0;
    int stored_len = type == FB_CARRAY ? get_int32(entry + FIELD_CARRAY_LENGTH) : 0;
    char *scratch = scratch_for(block, type, stored_len);
    if (scratch == nullptr)
        return refused(FBENOSPACE);
    if (!is_type(to_type))
        return refused(FBEBADFLD);
    if (len == nullptr)
        len = &enough;
    if (is_number_type(to_type))
        *len = NATURAL_WIDTH[to_type];
    if (!is_type(type))
        return refused(FBETYPE);
    cvt_source source = {type, value_of(entry), stored_len, STORED, scratch};
    if (!is_number_type(to_type))
        return update_text(out, to_type, len, &source, block->cvt_buf_size);
    if (out != nullptr)
        convert_to_number(out, to_type, &source);
    return 1;
}

// --- The engine that reads values of the caller.

static char *number_slot(wthr_var *block, int type)
{
    switch (type) {
    case FB_CHAR:
        return (char *)&block->cvt_char;
    case FB_SHORT:
        return (char *)&block->cvt_short;
    case FB_INT:
        return (char *)&block->cvt_int;
    case FB_LONG:
        return (char *)&block->cvt_long;
    case FB_FLOAT:
        return (char *)&block->cvt_float;
    }
    return (char *)&block->cvt_double;
}

static char *to_number_slot(wthr_var *block, int to_type, const cvt_source *source)
{
    char *slot = number_slot(block, to_type);
    convert_to_number(slot, to_type, source);
    if (to_type == FB_CHAR)
        block->cvt_char = (signed char)*slot;
    return slot;
}

// The source as a text: what is one already is its own result, but for a carray, which has no NUL.
static const char *to_text(int *outlen, int to_type, const cvt_source *source, int size)
{
    const char *text = source->value;
    if (source->type == FB_CARRAY && to_type == FB_CARRAY) {
        *outlen = source->len;
        return text;
    }
    if (source->type == FB_CARRAY)
        text = terminated(source->scratch, source->value, source->len);
    else if (source->type != FB_STRING) {
        make_text(source, size);
        text = source->scratch;
    }
    *outlen = (int)strlen(text) + (to_type == FB_STRING);
    return text;
}

char *fbtypecvt(int *outlen, int to_type, char *value, int from_type, int len)
{
    api_frame frame;
    int unwanted;
    if (!FB_ENTER(&frame, FBTYPECVT, outlen, to_type, value, from_type, len))
        return nullptr;
    if (value == nullptr || (from_type == FB_CARRAY && len < 1))
        return fb_null(&FBTYPECVT, FBEINVAL);
    conversion_area area(frame.block);
    char *scratch = scratch_for(frame.block, from_type, len);
    if (scratch == nullptr)
        return fb_null(&FBTYPECVT, FBENOSPACE);
    if (!is_type(to_type))
        return fb_null(&FBTYPECVT, FBEBADFLD);
    if (outlen == nullptr)
        outlen = &unwanted;
    if (is_number_type(to_type))
        *outlen = NATURAL_WIDTH[to_type];
    if (!is_type(from_type))
        return fb_null(&FBTYPECVT, FBETYPE);
    cvt_source source = {from_type, value, len, GIVEN, scratch};
    const char *result = is_number_type(to_type)
                             ? to_number_slot(frame.block, to_type, &source)
                             : to_text(outlen, to_type, &source, frame.block->cvt_buf_size);
    return fb_return_pointer(&FBTYPECVT, (char *)result);
}

// --- The calls.

int fbgett(FBUF *fbuf, int key, char *out, int *len, int type)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGETT, fbuf, key, out, len, type))
        return -1;
    return fb_result(&FBGETT, fbget_tut(fbuf, key, 0, out, len, type));
}

int fbputt(FBUF *fbuf, int key, char *value, int len, int type)
{
    api_frame frame;
    int length = 0;
    if (!FB_ENTER(&frame, FBPUTT, fbuf, key, value, len, type))
        return -1;
    conversion_area area(frame.block);
    char *converted = fbtypecvt(&length, type_of_key(key), value, type, len);
    if (converted == nullptr)
        return fb_error(&FBPUTT);
    int result = fbput(fbuf, key, converted, length);
    free_large_scratch(frame.block);
    return fb_result(&FBPUTT, result);
}

// Gives the large scratch block back although a result may stand in it: a short text moves to a new block of
// the usual size; for a long one there is null.
static char *rescue_result(wthr_var *block, char *result, int length)
{
    char *scratch = block->cvt_buf;
    if (block->cvt_buf_size <= SCRATCH_WORTH_KEEPING || result != scratch) {
        free_large_scratch(block);
        return result;
    }
    block->cvt_buf = nullptr;
    block->cvt_buf_size = 0;
    char *kept = length < SCRATCH_SIZE ? scratch_for(block, FB_STRING, 0) : nullptr;
    if (kept != nullptr)
        terminated(kept, scratch, length);
    free(scratch);
    return kept;
}

char *fbgetvalt(FBUF *fbuf, int key, int nth, int *len, int type)
{
    api_frame frame;
    int length = 0;
    if (!FB_ENTER(&frame, FBGETVALT, fbuf, key, nth, len, type))
        return nullptr;
    conversion_area area(frame.block);
    char *value = fbgetval(fbuf, key, nth, &length);
    if (value == nullptr)
        return fb_null_error(&FBGETVALT);
    int stored = type_of_key(key);
    if (stored == FB_LONG)
        stored = FB_INT;  // it has 4 bytes there
    char *result = fbtypecvt(&length, type, value, stored, length);
    if (result == nullptr)
        return fb_null_error(&FBGETVALT);
    result = rescue_result(frame.block, result, length);
    if (result == nullptr)
        return fb_null(&FBGETVALT, FBENOSPACE);
    if (len != nullptr)
        *len = length;
    return fb_return_pointer(&FBGETVALT, result);
}

int fbgetntht(FBUF *fbuf, int key, char *value, int len, int type)
{
    api_frame frame;
    int length = 0;
    if (!FB_ENTER(&frame, FBGETNTHT, fbuf, key, value, len, type))
        return -1;
    conversion_area area(frame.block);
    char *converted = fbtypecvt(&length, type_of_key(key), value, type, len);
    if (converted == nullptr)
        return fb_error(&FBGETNTHT);
    int nth = fbgetnth(fbuf, key, converted, length);
    free_large_scratch(frame.block);
    return fb_result(&FBGETNTHT, nth);
}
}
