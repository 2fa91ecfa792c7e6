// Field buffers on streams: as a block, printed for people, and filled from lines of text.
#include "fields/fbapi.h"
#include "fields/fbapim.h"
#include "fields/fbcommon.h"
#include "fields/fbcommon3.h"
#include "runtime/semantics.h"
#include "wire/msgheader.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>

extern "C" {

static constexpr api_text FBWRITE = FB_TEXT("fbwrite", "(%#x, %#x)");
static constexpr api_text FBREAD = FB_TEXT("fbread", "(%#x, %#x)");
static constexpr api_text FBPRINT = FB_TEXT("fbprint", "(%#x)");
static constexpr api_text FBFPRINT = FB_TEXT("fbfprint", "(%#x, %#x)");
static constexpr api_text FBEXTREAD = FB_TEXT("fbextread", "(%#x, %#x)");

// The frame's entry for a buffer and a stream, which must be there.
static bool enter_with_stream(const api_text *text, FBUF *fbuf, FILE *stream)
{
    api_frame frame;
    if (!FB_ENTER(&frame, *text, fbuf, stream))
        return false;
    if (fbuf != nullptr && stream != nullptr)
        return true;
    fb_fail(text, FBEINVAL);
    return false;
}

// --- Blocks: the header as it stands in memory, and the whole capacity.

int fbwrite(FBUF *fbuf, FILE *stream)
{
    if (!enter_with_stream(&FBWRITE, fbuf, stream))
        return -1;
    size_t size = (size_t)HEADER_SIZE + (size_t)capacity_of(fbuf);
    if (fwrite(bytes_of(fbuf) - HEADER_SIZE, size, 1, stream) != 1)
        return fb_fail(&FBWRITE, FBEOS);
    return fb_return(&FBWRITE, 1);
}

int fbread(FBUF *fbuf, FILE *stream)
{
    msg_header header;
    if (!enter_with_stream(&FBREAD, fbuf, stream))
        return -1;
    if (fread(&header, sizeof header, 1, stream) != 1)
        return fb_fail(&FBREAD, FBEOS);
    // The record says how much it holds; this buffer says how much it takes.
    if (header.bufsize < 0 || header.bufsize > capacity_of(fbuf))
        return fb_fail(&FBREAD, FBENOSPACE);
    size_t size = (size_t)header.bufsize;
    if (fread(bytes_of(fbuf), 1, size, stream) != size)
        return fb_fail(&FBREAD, FBEOS);
    return fb_return(&FBREAD, 1);
}

// --- Printing.

static void print_byte(FILE *stream, unsigned char byte)
{
    if (byte == '\\')
        fputs("\\\\", stream);
    else if (isprint(byte))
        putc(byte, stream);
    else
        fprintf(stream, "\\%x", byte);
}

static void print_carray(FILE *stream, const char *entry)
{
    int length = get_int32(entry + FIELD_CARRAY_LENGTH);
    fprintf(stream, "len = %d, value =", length);
    for (int i = 0; i < length; i++)
        print_byte(stream, (unsigned char)entry[FIELD_WIDE_VALUE + i]);
    putc('\n', stream);
}

// What the line of an entry says behind its type.
static void print_value(FILE *stream, char *entry)
{
    const char *value = value_of(entry);
    int16_t small;
    float single;
    double real;
    switch (type_of_key(get_int32(entry))) {
    case FB_CHAR:
        fprintf(stream, "value = %c \n", *value);
        break;
    case FB_SHORT:
        memcpy(&small, value, sizeof small);
        fprintf(stream, "value = %d \n", small);
        break;
    case FB_INT:
    case FB_LONG:
        fprintf(stream, "value = %d \n", get_int32(value));
        break;
    case FB_FLOAT:
        memcpy(&single, value, sizeof single);
        fprintf(stream, "value = %f \n", (double)single);
        break;
    case FB_DOUBLE:
        memcpy(&real, value, sizeof real);
        fprintf(stream, "value = %f \n", real);
        break;
    case FB_STRING:
        fprintf(stream, "value = %s \n", value);
        break;
    case FB_CARRAY:
        print_carray(stream, entry);
        break;
    }
}

static void print_entry(FILE *stream, char *entry)
{
    int32_t word = get_int32(entry), key = word & ~FIELD_READ_MARK;
    int type = type_of_key(key);
    fputs((word & FIELD_READ_MARK) != 0 ? "(r) " : "    ", stream);
    if (type < FIELD_TYPE_FIRST || type > FIELD_TYPE_LAST) {
        fprintf(stream, "type error: %d \n", type);
        return;
    }
    const char *name = fbget_fldname(key);
    fprintf(stream, "fkey = %d, fname = %s, type = %s, ", key, name != nullptr ? name : "",
            _fdl_type_name[type]);
    print_value(stream, entry);
}

int fbfprint(FBUF *fbuf, FILE *stream)
{
    if (!enter_with_stream(&FBFPRINT, fbuf, stream))
        return -1;
    if (!has_magic(fbuf)) {
        fprintf(stream, "FDL magic error: %d\n", (int)head_of(fbuf)->magic);
        return fb_fail(&FBFPRINT, FBEBADFB);
    }
    for (entry_walk walk = walk_of(fbuf); walk.size > 0; next_entry(&walk))
        print_entry(stream, walk.entry);
    set_fberror(0);  // keys without a name are no failure
    return fb_return(&FBFPRINT, 1);
}

int fbprint(FBUF *fbuf)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBPRINT, fbuf))
        return -1;
    return fb_result(&FBPRINT, fbfprint(fbuf, stdout));
}

// --- Lines of text.

constexpr int LINE_SIZE = 8100;  // NUL included
// Whatever the type of a key, its value is taken from the bytes of a text, which may have fewer: behind each
// text there are zeros for the widest number.
constexpr int VALUE_TAIL = 8;
constexpr int AREA_SIZE = LINE_SIZE + VALUE_TAIL;

struct text_command {
    char action;  // '+', '-', '='; 0: put
    const char *name;
    char *value;  // null without a second token
    int length;   // of the value
};

// The next of the tokens that tabs separate, ended by a NUL; null if there is none. Several tabs are one.
static char *next_token(char **rest)
{
    char *token = *rest + strspn(*rest, "\t");
    size_t length = strcspn(token, "\t");
    *rest = token + length + (token[length] == '\t');
    token[length] = '\0';
    return length > 0 ? token : nullptr;
}

// Takes a line apart, in place. `line` has AREA_SIZE bytes. False if the line has nothing to do.
static bool split_line(char *line, text_command *command)
{
    *command = {};
    if (*line == '\n' || *line == '#')
        return false;
    if (*line == '+' || *line == '-' || *line == '=')
        command->action = *line;
    const char *name = next_token(&line);
    if (name != nullptr && command->action != '\0')
        name++;
    if (name != nullptr && (*name == ' ' || *name == '\n'))
        return false;
    command->name = name;
    command->value = next_token(&line);
    if (command->value == nullptr)
        return true;
    size_t length = strlen(command->value);
    if (length > 0 && command->value[length - 1] == '\n')
        length--;
    memset(command->value + length, 0, VALUE_TAIL);
    command->length = (int)length;
    return true;
}

// A name that begins as a key does is one, even if there is a field of this name.
static int key_of_token(const char *token)
{
    if (*token >= '1' && *token <= '8')
        return (int)strtol(token, nullptr, 10);
    return fbget_fldkey((char *)token);
}

// Gives the first occurrence of `key` the value of the first one of another field.
static int copy_field(FBUF *fbuf, int key, char *other_name)
{
    char area[AREA_SIZE] = {};
    int other = fbget_fldkey(other_name), length, room = LINE_SIZE;
    if (fbgetval(fbuf, other, 0, &length) == nullptr)
        return -1;
    // Unless it is cut, a longer value is delivered whole, whatever the room.
    if (length + (type_of_key(other) == FB_STRING) > LINE_SIZE && field_length_mode() != FLEN_TRUNCATE)
        return refused(FBENOSPACE);
    if (fbget_tu(fbuf, other, 0, area, &room) < 0)
        return -1;
    return fbchg_tu(fbuf, key, 0, area, room);
}

static int run_command(FBUF *fbuf, const text_command *command)
{
    if (command->name == nullptr || command->value == nullptr)
        return refused(FBEINVAL);
    int key = key_of_token(command->name);
    switch (command->action) {
    case '+':
        return fbinsert(fbuf, key, 0, command->value, command->length);
    case '-':
        return fbdelete(fbuf, key, 0);
    case '=':
        return copy_field(fbuf, key, command->value);
    }
    return fbput(fbuf, key, command->value, command->length);
}

int fbextread(FBUF *fbuf, FILE *stream)
{
    char line[AREA_SIZE];
    text_command command;
    if (!enter_with_stream(&FBEXTREAD, fbuf, stream))
        return -1;
    while (fgets(line, LINE_SIZE, stream) != nullptr)
        if (split_line(line, &command) && run_command(fbuf, &command) < 0)
            return fb_error(&FBEXTREAD);
    if (!feof(stream))
        return fb_fail(&FBEXTREAD, FBEOS);
    return fb_return(&FBEXTREAD, 1);
}
}
