// Text to records and field buffers, and back.
//
// An input is 2 bytes (kind; length of the form), the form, and the text. The text of kind 0 goes into
// records, which are written as text again; that of the others into a field buffer, of which the form makes
// rows. With kind 2 and above there is a file to read first, and one for the rows' bitmap. The input names no
// file itself.
#include "buffers/pbif.h"
#include "buffers/sdli.h"
#include "fields/fbcommon2.h"
#include "fields/fbcommon3.h"
#include "runtime/errlog.h"
#include "runtime/mthr.h"
#include "runtime/semantics.h"
#include "vorn/buffers.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

constexpr size_t HEAD = 2, LONGEST_FORM = 64;
constexpr int TYPES = 8, ELEMENTS = 3, ELEMENT_BYTES = 8, RECORD_SIZE = TYPES * ELEMENTS * ELEMENT_BYTES;
constexpr int RECORDS = 2, LONGEST_NUMBER = 320;
static char STRUCT_NAME[] = "each";
static std::string contents_path, bitmap_path, rows_path;

// What must hold. The trap's place tells which.
static void expect(bool holds)
{
    if (!holds)
        __builtin_trap();
}

static std::string file_of(const std::string &bytes)
{
    int fd = memfd_create("bridge", 0);
    expect(fd >= 0 && write(fd, bytes.data(), bytes.size()) == (ssize_t)bytes.size());
    return "/proc/self/fd/" + std::to_string(fd);
}

// A name of one letter for each type, and the two names with a role. A search looks at every row.
static std::string field_table(void)
{
    static const char *const names[] = {"c", "s", "i", "l", "f", "d", "t", "b", "TP_BITMAP", "NEWFILE"};
    static const int types[] = {1, 2, 3, 4, 5, 6, 7, 8, FB_CARRAY, FB_STRING};
    constexpr int32_t COUNT = sizeof types / sizeof *types;
    int32_t head[] = {FDL_MAGIC, COUNT, 0};
    std::string bytes((const char *)head, sizeof head), keys;
    for (int32_t i = 0; i < COUNT; i++) {
        int32_t row[] = {fbmake_fldkey(types[i], i < TYPES ? 1 : 2), i};
        std::string name(names[i]);
        name.resize(FDL_NAME_SIZE);
        bytes += name;
        bytes.append((const char *)row, sizeof *row);
        keys.append((const char *)row, sizeof row);
    }
    return bytes + keys;
}

// A member of each type.
static std::string struct_table(void)
{
    sdl_struct row = {};
    memcpy(row.name, STRUCT_NAME, sizeof STRUCT_NAME);
    row.last = TYPES - 1;
    row.host_size = row.wire_size = RECORD_SIZE;
    int32_t head[] = {SDL_MAGIC, 1, TYPES};
    std::string bytes((const char *)head, sizeof head);
    bytes.append((const char *)&row, sizeof row);
    for (int n = 0; n < TYPES; n++) {
        sdl_field member = {};
        member.type = n + 1;
        member.name[0] = (char)('a' + n);
        bool text = member.type == SDL_CHAR || member.type >= SDL_STRING;
        member.count = text ? ELEMENTS * ELEMENT_BYTES : ELEMENTS;
        member.element = text ? ELEMENT_BYTES : 0;
        member.host_offset = member.wire_offset = n * ELEMENTS * ELEMENT_BYTES;
        bytes.append((const char *)&member, sizeof member);
    }
    return bytes;
}

// A text in a block that ends with its NUL.
static std::vector<char> block_of(const std::string &text)
{
    return std::vector<char>(text.c_str(), text.c_str() + text.size() + 1);
}

static void expect_whole(const std::vector<char> &block, const std::string &text)
{
    expect(memcmp(block.data(), text.c_str(), text.size() + 1) == 0);
}

static void through_records(const std::string &text)
{
    std::vector<char> input = block_of(text), records(RECORDS * RECORD_SIZE);
    int size = RECORDS * RECORD_SIZE;
    int filled = _make_struct_from_pbindata(STRUCT_NAME, records.data(), size, input.data());
    expect_whole(input, text);
    std::vector<char> out((size_t)(RECORDS * TYPES * ELEMENTS * LONGEST_NUMBER));
    expect(_make_pbodata_from_struct(STRUCT_NAME, out.data(), size, records.data()) == 1);
    if (filled != 1)
        return;
    // Wild bytes as records: every number, and texts without a NUL.
    for (size_t i = 0; i < records.size() && i < text.size(); i++)
        records[i] = text[i];
    expect(_make_pbodata_from_struct(STRUCT_NAME, out.data(), size, records.data()) == 1);
}

// Each column shows each entry of the buffer once at the most, and no entry is smaller than 8 bytes.
static size_t room_for(FBUF *fbuf, const std::string &form)
{
    size_t used = (size_t)fbget_used(fbuf);
    return (form.size() + 2) * (used * 2 + used / 8 * LONGEST_NUMBER + 64);
}

static void make_rows(FBUF *fbuf, const std::string &form)
{
    std::vector<char> names = block_of(form), out(room_for(fbuf, form));
    int result = _make_pbodata_from_field(names.data(), out.data(), fbuf);
    expect_whole(names, form);
    expect(result != 1 || (strnlen(out.data(), out.size()) < out.size()));
    std::vector<char> path = block_of(rows_path);
    int written = _make_pbfodata_from_field(names.data(), path.data(), fbuf);
    expect_whole(names, form);
    expect(result != 1 || written == 1);
}

static void through_fields(const std::string &form, const std::string &text, bool with_files)
{
    FBUF *fbuf = (FBUF *)tpalloc((char *)"FIELD", nullptr, 0);
    expect(fbuf != nullptr);
    if (with_files) {
        std::vector<char> first = block_of("FILENAM\t" + contents_path + "\nNEWFILE\t" + bitmap_path + "\n");
        expect(_make_field_from_pbindata(&fbuf, first.data()) == 1);
    }
    std::vector<char> input = block_of(text);
    _make_field_from_pbindata(&fbuf, input.data());
    expect_whole(input, text);
    make_rows(fbuf, form);
    tpfree((char *)fbuf);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    _daemon = 1;
    setenv("FDLFILE", file_of(field_table()).c_str(), 1);
    setenv("SDLFILE", file_of(struct_table()).c_str(), 1);
    unsetenv("SDLFILE64");
    expect(_ffile_load() == 1 && _sdlfile_load() == 1);
    contents_path = file_of(std::string("a file's\0\n\tcontents", 19));
    bitmap_path = file_of("");
    rows_path = file_of("");
    _vorn_semantics_flag = 1;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < HEAD || size < HEAD + data[1] || data[1] > LONGEST_FORM)
        return 0;
    std::string form((const char *)data + HEAD, data[1]);
    std::string text((const char *)data + HEAD + data[1], size - HEAD - data[1]);
    if (text.find("FILENAM") != std::string::npos || text.find("NEWFILE") != std::string::npos)
        return 0;
    form.resize(strlen(form.c_str()));
    text.resize(strlen(text.c_str()));
    if (data[0] == 0)
        through_records(text);
    else
        through_fields(form, text, data[0] >= 2);
    free_field_memory(current_block());
    return 0;
}
