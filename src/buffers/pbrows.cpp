// Field buffers as text: the rows of a form's columns.
#include "buffers/pbif.h"

#include "fields/fbapi.h"
#include "wire/msgheader.h"

#include <stdio.h>
#include <stdlib.h>

extern "C" {

constexpr int64_t WORK_AREA = 0x800000;  // for the text of a file
constexpr int32_t LARGE_DATA = 0x400000;
constexpr int FIRST_COLUMNS = 20, MORE_COLUMNS = 10;

// --- Columns.

struct form_column {
    int key;     // 0 ends a block
    bool ended;  // it has no more occurrences
};

struct form_columns {
    form_column *rows;
    int count;
};

static bool add_column(form_columns *columns, int key)
{
    int added = columns->count - FIRST_COLUMNS;
    if (added >= 0 && added % MORE_COLUMNS == 0) {
        size_t room = (size_t)columns->count + MORE_COLUMNS;
        form_column *grown = (form_column *)realloc(columns->rows, room * sizeof *grown);
        if (grown == nullptr)
            return false;
        columns->rows = grown;
    }
    columns->rows[columns->count++] = {key, false};
    return true;
}

// 1, or -1 with fberror. The columns are the caller's to free in either case.
static int read_form(char *form, form_columns *columns)
{
    columns->rows = (form_column *)malloc(FIRST_COLUMNS * sizeof *columns->rows);
    columns->count = 0;
    if (columns->rows == nullptr)
        return refused(FBEMALLOC);
    while (*form != '\0') {
        text_cut name = cut_name(form);
        bool is_end = name.at == form;
        int key = is_end ? 0 : fbget_fldkey(form);
        mend(&name);
        if (key == 0 && !is_end)
            return refused(FBENOENT);
        if (!add_column(columns, key))
            return refused(FBEMALLOC);
        form = behind(&name);
    }
    return 1;
}

// --- Fields to text.

// A text under construction: in the caller's area, whose size only the caller knows, or in a block that
// grows.
struct field_text {
    FBUF *fbuf;
    char *text;
    int64_t length;
    int64_t room;      // 0: the caller's area
    int bitmap;        // key of the field that goes to a file; 0: none does
    const char *path;  // of that file
};

enum value_found { VALUE_FAILED = -1, VALUE_ABSENT = 0, VALUE_PRESENT = 1 };

static bool make_room(field_text *out, int64_t more)
{
    if (out->room == 0 || out->length + more <= out->room)
        return true;
    int64_t room = (out->length + more) * 2;
    char *grown = (char *)realloc(out->text, (size_t)room);
    if (grown == nullptr) {
        set_fberror(FBEMALLOC);
        return false;
    }
    out->text = grown;
    out->room = room;
    return true;
}

static bool put_byte(field_text *out, char byte)
{
    if (!make_room(out, 1))
        return false;
    out->text[out->length++] = byte;
    return true;
}

static value_found write_bitmap(const field_text *out, int nth)
{
    int length = 0;
    const char *bytes = fbgetval(out->fbuf, out->bitmap, nth, &length);
    if (bytes == nullptr)
        return VALUE_ABSENT;
    FILE *file = fopen(out->path, "wb+");
    if (file == nullptr) {
        set_fberror(FBEINVAL);
        return VALUE_FAILED;
    }
    bool written = fwrite(bytes, 1, (size_t)length, file) == (size_t)length;
    if (fclose(file) == 0 && written)
        return VALUE_PRESENT;
    set_fberror(FBEOS);
    return VALUE_FAILED;
}

// Writes an occurrence as text; the NUL behind it is written over. A value that is there but empty counts.
static value_found put_field(field_text *out, int key, int nth)
{
    int length = 0, given = 0;  // 0: as long as it is, whatever FDL_LEN says
    if (out->bitmap != 0 && key == out->bitmap)
        return write_bitmap(out, nth);
    if (out->room != 0) {
        if (fbgetval(out->fbuf, key, nth, &length) == nullptr)
            return VALUE_ABSENT;
        if (!make_room(out, (int64_t)length + NUMBER_TEXT))
            return VALUE_FAILED;
    }
    if (fbget_tut(out->fbuf, key, nth, out->text + out->length, &given, FB_STRING) < 0)
        return VALUE_ABSENT;
    out->length += given - 1;
    return VALUE_PRESENT;
}

// Whether later rows need not ask again. To a file an occurrence that can't be had ends its column; otherwise
// only one that isn't there does.
static bool ends_column(const field_text *out, value_found value)
{
    return value == VALUE_ABSENT && (out->room != 0 || getfberror() == FBENOENT);
}

// Writes row `nth` of the columns from `column` to the one in front of `end`, or nothing if none has a value:
// the tabs of a row wait for the next value, so that the area's last bytes are those of its text.
static value_found put_row(field_text *out, form_column *column, const form_column *end, int nth)
{
    int64_t begin = out->length, tabs = 0;
    bool has_value = false;
    for (; column < end; column++, tabs++) {
        int64_t behind_last = out->length;
        out->length += tabs;
        value_found value = column->ended ? VALUE_ABSENT : put_field(out, column->key, nth);
        if (value == VALUE_FAILED)
            return VALUE_FAILED;
        column->ended = column->ended || ends_column(out, value);
        if (value == VALUE_ABSENT) {
            out->length = behind_last;
            continue;
        }
        memset(out->text + behind_last, '\t', (size_t)tabs);
        has_value = true;
        tabs = 0;
    }
    if (!has_value)
        return VALUE_ABSENT;
    if (!make_room(out, tabs + 1))
        return VALUE_FAILED;
    memset(out->text + out->length, '\t', (size_t)tabs);
    out->length = end_row(out->text + begin, out->text + out->length + tabs) - out->text;
    return VALUE_PRESENT;
}

// Writes the rows of all blocks, and what ends each. The last column begins no block: it is either the empty
// line of the last one, or a name that stands alone. 1, or -1 with fberror.
static int put_blocks(field_text *out, const form_columns *columns, bool (*end_block)(field_text *, int rows))
{
    form_column *last = columns->rows + columns->count;
    for (form_column *first = columns->rows; last - first > 1;) {
        form_column *end = first;
        while (end < last && end->key != 0)
            end++;
        int rows = 0;
        value_found row;
        while ((row = put_row(out, first, end, rows)) == VALUE_PRESENT)
            rows++;
        if (row == VALUE_FAILED || !end_block(out, rows))
            return -1;
        first = end < last ? end + 1 : end;
    }
    return 1;
}

static bool end_data_block(field_text *out, int rows)
{
    return (rows > 0 || put_byte(out, '\n')) && put_byte(out, BLOCK_END);
}

static bool end_file_block(field_text *out, int)
{
    return put_byte(out, '\n');
}

// The path for a bitmap: 1, also if there is none; -1 for one that no file has.
static int take_path(field_text *out, char *path)
{
    const char *found = new_file_of(out->fbuf);
    size_t length = found != nullptr ? strlen(found) : 0;
    if (found != nullptr && (length == 0 || length >= PATH_SIZE))
        return refused(FBEINVAL);
    memcpy(path, found != nullptr ? found : "", length + 1);
    out->path = path;
    return 1;
}

int _make_pbodata_from_field(char *form, char *out, FBUF *fbuf)
{
    set_fberror(0);
    if (form == nullptr || out == nullptr || fbuf == nullptr)
        return refused(FBEINVAL);
    form_columns columns;
    char path[PATH_SIZE];
    field_text text = {fbuf, out, 0, 0, key_of_bitmap(), nullptr};
    int result = read_form(form, &columns);
    if (result == 1)
        result = take_path(&text, path);
    if (result == 1)
        result = put_blocks(&text, &columns, end_data_block);
    if (result == 1) {
        put_byte(&text, '\n');
        put_byte(&text, '\0');
    }
    free(columns.rows);
    return result;
}

static int write_file(const char *path, const field_text *text)
{
    FILE *file = fopen(path, "w+");
    if (file == nullptr)
        return refused(FBEINVAL);
    size_t length = (size_t)text->length;
    bool written = fwrite(text->text, 1, length, file) == length;
    return fclose(file) == 0 && written ? 1 : refused(FBEOS);
}

// The file is opened last, so that one that is there already stays as it is when there is nothing to write.
int _make_pbfodata_from_field(char *form, char *path, FBUF *fbuf)
{
    set_fberror(0);
    if (form == nullptr || path == nullptr || fbuf == nullptr)
        return refused(FBEINVAL);
    form_columns columns;
    field_text text = {fbuf, nullptr, 0, WORK_AREA, 0, nullptr};
    int32_t datalen = message_of((char *)fbuf)->datalen;
    if (datalen > LARGE_DATA)
        text.room = (int64_t)datalen * 2;
    int result = read_form(form, &columns);
    if (result == 1 && (text.text = (char *)malloc((size_t)text.room)) == nullptr)
        result = refused(FBEMALLOC);
    if (result == 1)
        result = put_blocks(&text, &columns, end_file_block);
    if (result == 1)
        result = put_byte(&text, '\n') ? write_file(path, &text) : -1;
    free(text.text);
    free(columns.rows);
    return result;
}
}
