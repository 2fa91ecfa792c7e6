// Text to records and field buffers, and records to text.
//
// Texts are taken apart in place: a NUL ends the piece at work, and what stood there comes back before the
// next one is looked at, whatever has become of the piece. So a text is whole again on every way out.
#include "buffers/pbif.h"

#include "buffers/sdli.h"
#include "fields/fbapi.h"
#include "vorn/buffers.h"
#include "wire/msgheader.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

constexpr int LARGE_FILE = 0x400000;     // a larger one makes the buffer grow
constexpr int64_t FILE_STEP = 0x100000;  // by which the block of a file's contents grows

// --- Pieces of a text.

static text_cut cut_value(char *text)
{
    return cut_at(text + strcspn(text, "\t\n"));
}

// A carriage return takes what follows it into the value, but not the end of the text.
static char *end_of_field_value(char *at)
{
    while (*at != '\0' && *at != '\n')
        at += *at == '\r' && at[1] != '\0' ? 2 : 1;
    return at;
}

struct field_line {
    text_cut name;
    char *value;
    text_cut value_end;
};

static field_line cut_line(char *line)
{
    field_line cut;
    cut.name = cut_at(line + strcspn(line, "\t"));
    cut.value = behind(&cut.name);
    cut.value_end = cut_at(end_of_field_value(cut.value));
    return cut;
}

int _get_value_from_pbsdata(char *text, char *separator)
{
    if (text == nullptr || separator == nullptr)
        return 0;
    text_cut value = cut_value(text);
    *separator = value.was;
    return (int)(behind(&value) - text);
}

int _get_name_value_from_pbfdata(char *line, int *value_offset)
{
    if (line == nullptr || value_offset == nullptr)
        return 0;
    field_line cut = cut_line(line);
    *value_offset = (int)(cut.value - line);
    return (int)(behind(&cut.value_end) - line);
}

int _get_name_from_form(char *form)
{
    if (form == nullptr)
        return 0;
    text_cut name = cut_name(form);
    return (int)(behind(&name) - form);
}

// --- Elements of a member.

static bool is_text(int type)
{
    return type == SDL_CHAR || type == SDL_STRING || type == SDL_CARRAY;
}

struct text_elements {
    int count;
    int size;  // 0: the type has no text
};

// Only texts have an element size from outside; one that makes no sense is a byte of a char, all of a
// string or carray.
static text_elements elements_of(int type, int count, int size)
{
    static const int widths[] = {0, 0, 2, 4, 8, 4, 8, 0, 0};
    if (type < SDL_CHAR || type > SDL_CARRAY)
        return {0, 0};
    if (count < 1)
        return {0, 1};
    if (!is_text(type))
        return {count, widths[type]};
    if (size < 1)
        size = type == SDL_CHAR ? 1 : count;
    return {count / size, size};
}

static const sdl_struct *struct_of(const char *name)
{
    int index = find_struct(name);
    return index < 0 ? nullptr : &_sdl_table[index];
}

// --- Records from text.

static void put_number(char *to, int type, int size, const char *text)
{
    if (type == SDL_FLOAT) {
        float single = (float)strtod(text, nullptr);
        memcpy(to, &single, sizeof single);
    } else if (type == SDL_DOUBLE) {
        double value = strtod(text, nullptr);
        memcpy(to, &value, sizeof value);
    } else {
        int64_t whole = strtol(text, nullptr, 10);
        if (type == SDL_LONG)
            whole = (int32_t)whole;
        memcpy(to, &whole, (size_t)size);  // the low bytes come first on this kind of host
    }
}

// False for a text that, with its NUL, is longer than the element.
static bool put_element(char *to, int type, int size, const char *text)
{
    if (!is_text(type)) {
        put_number(to, type, size, text);
        return true;
    }
    size_t length = strlen(text) + 1;
    if (length > (size_t)size)
        return false;
    memcpy(to, text, length);
    return true;
}

// Takes the member's values from the text, and leaves it at what follows them.
static bool fill_member(const sdl_field *member, char *to, char **text)
{
    text_elements elements = elements_of(member->type, member->count, member->element);
    if (elements.size == 0)
        return false;
    for (int i = 0; i < elements.count; i++, to += elements.size) {
        text_cut value = cut_value(*text);
        bool fits = put_element(to, member->type, elements.size, *text);
        mend(&value);
        if (!fits)
            return false;
        *text = behind(&value);
    }
    return true;
}

int _make_struct_from_pbindata(char *name, char *out, int outlen, char *text)
{
    const sdl_struct *row = struct_of(name);
    if (row == nullptr || out == nullptr || text == nullptr)
        return -1;
    int size = (int)row->host_size;
    for (int records = outlen / size; records > 0; records--, out += size)
        for (int i = row->first; i <= row->last; i++) {
            const sdl_field *member = &_sdl_field_table[i];
            if (!fill_member(member, out + member->host_offset, &text))
                return -1;
        }
    return 1;
}

// --- Records to text.

// The NUL behind a number is where the caller puts the next byte.
static int number_text(char *out, int type, const char *value)
{
    int64_t whole = 0;
    float single;
    double real;
    switch (type) {
    case SDL_SHORT:
        int16_t small;
        memcpy(&small, value, sizeof small);
        return snprintf(out, NUMBER_TEXT, "%d", small);
    case SDL_INT:
        int32_t integer;
        memcpy(&integer, value, sizeof integer);
        return snprintf(out, NUMBER_TEXT, "%d", (int)integer);
    case SDL_FLOAT:
        memcpy(&single, value, sizeof single);
        return snprintf(out, NUMBER_TEXT, "%f", (double)single);
    case SDL_DOUBLE:
        memcpy(&real, value, sizeof real);
        return snprintf(out, NUMBER_TEXT, "%f", real);
    }
    memcpy(&whole, value, sizeof whole);
    return snprintf(out, NUMBER_TEXT, "%ld", (long)whole);
}

static int element_text(char *out, int type, int size, const char *value)
{
    if (!is_text(type))
        return number_text(out, type, value);
    size_t length = type == SDL_CARRAY ? (size_t)size : strnlen(value, (size_t)size);
    memcpy(out, value, length);
    return (int)length;
}

// Where the text ends; null for a type that has none.
static char *write_elements(char *out, int type, const char *value, text_elements elements)
{
    if (elements.size == 0)
        return nullptr;
    for (int i = 0; i < elements.count; i++, value += elements.size) {
        out += element_text(out, type, elements.size, value);
        *out++ = '\t';
    }
    return out;
}

int _insert_value_to_pbodata(int type, char *out, char *value, int count, int element_size)
{
    if (out == nullptr || value == nullptr)
        return -1;
    char *end = write_elements(out, type, value, elements_of(type, count, element_size));
    return end == nullptr ? -1 : (int)(end - out);
}

char *end_row(char *row, char *end)
{
    if (end > row)
        end--;
    *end++ = '\r';
    *end++ = '\n';
    return end;
}

int _make_pbodata_from_struct(char *name, char *out, int len, char *data)
{
    const sdl_struct *row = struct_of(name);
    if (row == nullptr || out == nullptr || data == nullptr)
        return -1;
    int size = (int)row->host_size;
    for (int records = len / size; records > 0; records--, data += size) {
        char *begin = out;
        for (int i = row->first; i <= row->last; i++) {
            const sdl_field *member = &_sdl_field_table[i];
            out = write_elements(out, member->type, data + member->host_offset,
                                 elements_of(member->type, member->count, member->element));
            if (out == nullptr)
                return -1;
        }
        out = end_row(begin, out);
    }
    *out = BLOCK_END;
    return 1;
}

// --- Files.

// All of an open file. `block` has the size of a step, and is freed where there is no result.
static char *read_all(FILE *file, char *block, int *len)
{
    int64_t length = 0, room = FILE_STEP;
    for (;;) {
        length += (int64_t)fread(block + length, 1, (size_t)(room - length), file);
        if (length < room)
            break;
        room += FILE_STEP;
        // A length has to be told as an int.
        char *grown = room <= INT32_MAX ? (char *)realloc(block, (size_t)room) : nullptr;
        if (grown == nullptr) {
            set_tperrno(TPESYSTEM);
            free(block);
            return nullptr;
        }
        block = grown;
    }
    if (ferror(file)) {  // half a file must not pass for the whole; a folder ends here too
        free(block);
        return nullptr;
    }
    *len = (int)length;
    return block;
}

char *get_value(char *path, int *len)
{
    char *block = (char *)malloc(FILE_STEP);
    if (block == nullptr) {
        set_fberror(FBESYSTEM);
        return nullptr;
    }
    // A path that is too long isn't cut: that would be another file.
    bool fits = path != nullptr && len != nullptr && *path != '\0' && strnlen(path, PATH_SIZE) < PATH_SIZE;
    FILE *file = fits ? fopen(path, "rb") : nullptr;
    if (file == nullptr) {
        free(block);
        return nullptr;
    }
    block = read_all(file, block, len);
    fclose(file);
    return block;
}

int chk_name(char *name)
{
    return name != nullptr && strncmp(name, "FILENAM", sizeof "FILENAM") == 0 ? 1 : -1;
}

// Only a string has an end to go by.
const char *new_file_of(FBUF *fbuf)
{
    int key = fbget_fldkey((char *)"NEWFILE");
    if (key == 0 || fbget_fldtype(key) != FB_STRING)
        return nullptr;
    return fbgetval(fbuf, key, 0, nullptr);
}

int get_file_name(FBUF *fbuf, char *out)
{
    const char *path = new_file_of(fbuf);
    if (path == nullptr || out == nullptr)
        return -1;
    memcpy(out, path, strlen(path) + 1);
    return 1;
}

int key_of_bitmap(void)
{
    return fbget_fldkey((char *)"TP_BITMAP");
}

// --- Fields from text.

// Puts contents of a file. A small file has to fit the buffer as it is.
static int put_contents(FBUF **fbuf, char *contents, int length)
{
    int key = key_of_bitmap();
    if (key == 0)
        return refused(FBENOENT);
    if (length > LARGE_FILE) {
        int64_t size = (int64_t)message_of((char *)*fbuf)->bufsize + length + HEADER_SIZE;
        // Beyond an int tprealloc would see another size; where none can be, it sets the error itself.
        FBUF *grown = (FBUF *)tprealloc((char *)*fbuf, (long)(size < INT32_MAX ? size : INT32_MAX));
        if (grown == nullptr)
            return -1;
        *fbuf = grown;
    }
    return fbputt(*fbuf, key, contents, length, FB_CARRAY);
}

static int put_line(FBUF **fbuf, char *name, char *value)
{
    if (chk_name(name) == 1) {
        int length = 0;
        char *contents = get_value(value, &length);
        int result = contents == nullptr ? -1 : put_contents(fbuf, contents, length);
        free(contents);
        return result;
    }
    int key = fbget_fldkey(name);
    return key == 0 ? refused(FBENOENT) : fbputt(*fbuf, key, value, 0, FB_STRING);
}

int _make_field_from_pbindata(FBUF **fbuf, char *text)
{
    set_fberror(0);
    if (fbuf == nullptr || *fbuf == nullptr || text == nullptr)
        return refused(FBEINVAL);
    while (*text != '\0' && *text != '\n') {
        field_line line = cut_line(text);
        int result = put_line(fbuf, text, line.value);
        mend(&line.name);
        mend(&line.value_end);
        if (result < 0)
            return -1;
        text = behind(&line.value_end);
    }
    return 1;
}
}
