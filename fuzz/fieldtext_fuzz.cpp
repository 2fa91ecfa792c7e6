// Field buffers from streams: lines of text, and records as a writer leaves them. What has been read is
// printed.
//
// An input is 2 bytes (form; length mode in the low 2 bits, the rest the capacity) and the stream. The buffer
// is a block that ends with its capacity.
#include "fields/fbcommon2.h"
#include "fields/fbcommon3.h"
#include "runtime/errlog.h"
#include "runtime/semantics.h"
#include "vorn/buffers.h"
#include "vorn/structs.h"
#include "wire/msgheader.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

constexpr size_t HEAD = 2;
constexpr int TYPES = 8;

// What must hold. The trap's place tells which.
static void expect(bool holds)
{
    if (!holds)
        __builtin_trap();
}

// Names of one letter, one for each type. A search looks at every row, so they may stand in the order of the
// types.
static std::string field_table(void)
{
    static const char names[TYPES + 1] = "csilfdtb";
    int32_t head[] = {(int32_t)FIELD_BUFFER_MAGIC, TYPES, 0};
    std::string bytes((const char *)head, sizeof head), keys;
    for (int32_t i = 0; i < TYPES; i++) {
        int32_t row[] = {fbmake_fldkey(i + 1, 1), i};
        std::string name(1, names[i]);
        name.resize(48);
        bytes += name;
        bytes.append((const char *)row, sizeof *row);
        keys.append((const char *)row, sizeof row);
    }
    return bytes + keys;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    _daemon = 1;
    std::string bytes = field_table();
    int fd = memfd_create("fields", 0);
    expect(fd >= 0 && write(fd, bytes.data(), bytes.size()) == (ssize_t)bytes.size());
    setenv("FDLFILE", ("/proc/self/fd/" + std::to_string(fd)).c_str(), 1);
    expect(_ffile_load() == 1);
    close(fd);
    for (int type = FB_CHAR; type <= FB_CARRAY; type++)
        expect(fbget_fldkey(fbget_fldname(fbmake_fldkey(type, 1))) == fbmake_fldkey(type, 1));
    _vorn_semantics_flag = 1;
    return 0;
}

static FBUF *exact_buffer(size_t capacity)
{
    msg_header *header = (msg_header *)calloc(1, HEADER_SIZE + capacity);
    expect(header != nullptr);
    _init_header(header);
    header->buftype = BUF_FIELD;
    header->bufsize = (int32_t)capacity;
    FBUF *fbuf = (FBUF *)message_data(header);
    expect(fbinit(fbuf, (int)capacity) == 1);
    return fbuf;
}

static FILE *stream_of(const uint8_t *data, size_t size)
{
    FILE *stream = size > 0 ? fmemopen((void *)data, size, "r") : fopen("/dev/null", "r");
    expect(stream != nullptr);
    return stream;
}

// Every field has a line; only an array of bytes can't break one, a text can.
static void print(FBUF *fbuf)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *stream = open_memstream(&text, &size);
    int result = fbfprint(fbuf, stream);
    fclose(stream);
    expect(result == (fbisfbuf(fbuf) != 0 ? 1 : -1));
    int lines = 0;
    for (size_t i = 0; i < size; i++)
        lines += text[i] == '\n';
    expect(result == -1 || lines >= fbfldcount(fbuf));
    free(text);
}

static void check_used(FBUF *fbuf)
{
    expect(fbget_used(fbuf) >= FB_HEAD_SIZE && fbget_used(fbuf) <= fbget_fbsize(fbuf));
}

// Lines, and the same lines once more behind what they left. A line that failed ends the reading.
static void read_lines(FBUF *fbuf, const uint8_t *data, size_t size)
{
    for (int round = 0; round < 2; round++) {
        FILE *stream = stream_of(data, size);
        int result = 0;
        for (int errors = 0; errors < 64 && result != 1; errors++) {
            result = fbextread(fbuf, stream);
            expect(result == 1 || result == -1);
            check_used(fbuf);
        }
        fclose(stream);
        print(fbuf);
    }
}

// Records, until the stream ends or refuses; each is printed, written again, and takes lines behind it.
static void read_records(FBUF *fbuf, const uint8_t *data, size_t size)
{
    static char lines[] = "+t\tfirst\n-i\tx\n=b\tt\nl\t12345678\n";
    FILE *stream = stream_of(data, size);
    for (int count = 0; count < 64 && fbread(fbuf, stream) == 1; count++) {
        print(fbuf);
        FILE *written = fopen("/dev/null", "w");
        expect(fbwrite(fbuf, written) == 1);
        fclose(written);
        FILE *text = stream_of((const uint8_t *)lines, sizeof lines - 1);
        while (fbextread(fbuf, text) == -1)
            continue;
        fclose(text);
        print(fbuf);
    }
    fclose(stream);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < HEAD)
        return 0;
    _vorn_flen_flag = data[1] % (FLEN_ERROR + 1);
    size_t capacity = 64 + (data[1] / 4) * (size_t)512 + (data[0] & 6) * 4;
    if (data[1] < 4)
        capacity = 1032;
    FBUF *fbuf = exact_buffer(capacity);
    if (data[0] % 2 == 0)
        read_lines(fbuf, data + HEAD, size - HEAD);
    else
        read_records(fbuf, data + HEAD, size - HEAD);
    tpfree((char *)fbuf);
    // The cache and the scratch block of conversions: each input has to begin anew.
    free_field_memory(current_block());
    return 0;
}
