// Dumps: rows of 16 bytes, as hexadecimal and as characters.
#include "runtime/debug.h"

#include "runtime/errlog.h"

#include <ctype.h>
#include <stdint.h>
#include <stdio.h>

extern "C" {

static constexpr int ROW_BYTES = 16;

// What of a long dump is shown: all up to `all`, else `part` bytes at each end.
struct dump_limits {
    int all, part;
};
static const dump_limits CONSOLE_LIMITS = {0x400, 0x200}, LOG_LIMITS = {0x2800, 0x1400};

typedef void row_dump(const char *data, int base, int length);

static void dump_head_and_tail(const char *data, int length, const dump_limits *limits, row_dump *dump)
{
    putchar('\n');
    if (length <= limits->all) {
        dump(data, 0, length);
        return;
    }
    dump(data, 0, limits->part);
    putchar('\n');
    int tail = (length - limits->part) / ROW_BYTES * ROW_BYTES + ROW_BYTES;
    dump(data + tail, tail, length - tail);
}

static char shown(char byte)
{
    return isprint((unsigned char)byte) ? byte : '.';
}

void _vorn_dump2(const char *data, int base, int length)
{
    for (int64_t row = 0; row < length; row += ROW_BYTES) {
        printf("%04X: ", (unsigned)(row + base));
        for (int64_t i = row; i < row + ROW_BYTES; i++) {
            if (i < length)
                printf("%02X ", (unsigned char)data[i]);
            else
                printf("   ");
        }
        for (int64_t i = row; i < row + ROW_BYTES; i++)
            putchar(i < length ? shown(data[i]) : ' ');
        putchar('\n');
    }
}

void _vorn_dump(const char *data, int length)
{
    dump_head_and_tail(data, length, &CONSOLE_LIMITS, _vorn_dump2);
}

void dump_data(const char *data, int length)
{
    dump_head_and_tail(data, length, &LOG_LIMITS, dump_data2);
}

// The text of one row. `end` is the place of the next piece: the length of the piece just written, not of the
// whole, so that the pieces land on top of one another and little is left of them. It has always been so, and
// nothing reads the text.
static void overlay_row(char *text, size_t size, size_t *end, const char *data, int64_t row, int base,
                        int length)
{
    *end = (size_t)snprintf(text + *end, size - *end, "%04X: ", (unsigned)(row + base));
    for (int64_t i = row; i < row + ROW_BYTES; i++) {
        if (i < length)
            *end = (size_t)snprintf(text + *end, size - *end, "%02X ", (unsigned char)data[i]);
        else
            *end = (size_t)snprintf(text + *end, size - *end, "   ");
    }
    for (int64_t i = row; i < row + ROW_BYTES; i++)
        *end = (size_t)snprintf(text + *end, size - *end, "%c", i < length ? shown(data[i]) : ' ');
    *end = (size_t)snprintf(text + *end, size - *end, "\n");
}

void dump_data2(const char *data, int base, int length)
{
    char text[0xFFFE];
    text[0] = '\0';
    size_t end = 0;
    for (int64_t row = 0; row < length && end < sizeof text; row += ROW_BYTES)
        overlay_row(text, sizeof text, &end, data, row, base, length);
    VORN_LOG(0, LEVEL_DEBUG4, nullptr, "%s", text);
}

int _print_data_value(const char *data, int length)
{
    for (int i = 0; i < length; i++) {
        if (data[i] == '\\')
            printf("\\\\");
        else if (isprint((unsigned char)data[i]))
            putchar(data[i]);
        else
            printf("\\%x", (unsigned)(signed char)data[i]);
    }
    putchar('\n');
    return 1;
}
}
