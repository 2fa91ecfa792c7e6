// What the tests of the text bridge share: a field table, a struct with text, and files.
#ifndef VORN_TESTS_BUFFERS_BRIDGE_H
#define VORN_TESTS_BUFFERS_BRIDGE_H

#include "buffers/pbif.h"
#include "buffers/sdli.h"
#include "support/faults.h"
#include "support/fdlfile.h"
#include "support/fieldbuffer.h"
#include "support/fixtures.h"
#include "support/gtest.h"
#include "support/sdlfile.h"
#include "vorn/bridge.h"
#include "vorn/buffers.h"
#include "vorn/errors.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

namespace bridge {

enum : int32_t { A = 1, B, COUNT, BITMAP, PATH, BYTES, PRICE };
constexpr int AREA = 1 << 16;

inline const int32_t a_key = fld::key(fld::STRING, A), b_key = fld::key(fld::STRING, B),
                     count_key = fld::key(fld::INT, COUNT), bitmap_key = fld::key(fld::CARRAY, BITMAP),
                     path_key = fld::key(fld::STRING, PATH), bytes_key = fld::key(fld::CARRAY, BYTES),
                     price_key = fld::key(fld::DOUBLE, PRICE);

inline std::vector<fdl::field> names(void)
{
    return {{"A", a_key},          {"B", b_key},         {"COUNT", count_key}, {"TP_BITMAP", bitmap_key},
            {"NEWFILE", path_key}, {"BYTES", bytes_key}, {"PRICE", price_key}};
}

inline void load_names(const std::vector<fdl::field> &fields)
{
    setenv("FDLFILE", write_definition(fdl::file_bytes(fields, 16)).c_str(), 1);
}

inline sdl::record record_of(const std::string &name, const std::vector<sdl::member> &members, int64_t size)
{
    return {name, members, size, size, 0};
}

// int and char[4].
inline sdl::record short_record(int32_t type = sdl::STRING)
{
    return record_of(
        "pair",
        {{.name = "number", .type = sdl::INT},
         {.name = "text", .type = type, .count = 4, .element = 4, .host_offset = 4, .wire_offset = 4}},
        8);
}

inline int load_records(const std::vector<sdl::record> &records)
{
    unsetenv("SDLFILE64");
    setenv("SDLFILE", write_definition(sdl::file_bytes(records)).c_str(), 1);
    return _sdlfile_load();
}

struct Bridge : testing::Test {
    LogFile log;

    Bridge()
    {
        for (const char *name : {"SDLFILE", "SDLFILE64", "VORN_SEMANTICS"})
            unsetenv(name);
        load_names(names());
    }
    std::string new_path() const { return log.directory + "/new"; }
};

inline std::string read_file(const std::string &path)
{
    std::string bytes;
    FILE *file = fopen(path.c_str(), "rb");
    if (file == nullptr)
        return "no file";
    for (int byte; (byte = getc(file)) != EOF;)
        bytes += (char)byte;
    fclose(file);
    return bytes;
}

// Puts the text's fields into the buffer; the text must come back as it was.
inline int from_text(FBUF **fbuf, const std::string &text)
{
    std::string copy = text;
    int result = _make_field_from_pbindata(fbuf, copy.data());
    EXPECT_EQ(copy, text);
    return result;
}

inline int fields_from(const std::string &text, fld::list *fields, int32_t room = 0)
{
    FBUF *fbuf = (FBUF *)tpalloc((char *)"FIELD", nullptr, room);
    int result = from_text(&fbuf, text);
    *fields = fld::in(fbuf);
    tpfree((char *)fbuf);
    return result;
}

// Text of the fields, or what the call gave if it wasn't 1. The form must come back as it was.
inline std::string to_text(const std::string &form, FBUF *fbuf)
{
    std::vector<char> area(AREA, '?');
    std::string copy = form;
    int result = _make_pbodata_from_field(copy.data(), area.data(), fbuf);
    EXPECT_EQ(copy, form);
    if (result != 1)
        return std::to_string(result);
    std::string text = area.data();
    EXPECT_EQ(std::string(area.begin() + (long)text.size() + 1, area.end()),
              std::string(area.size() - text.size() - 1, '?'))
        << "nothing is written behind the text";
    return text;
}

inline std::string to_file(const std::string &form, const std::string &path, FBUF *fbuf)
{
    std::string copy = form, file = path;
    int result = _make_pbfodata_from_field(copy.data(), file.data(), fbuf);
    EXPECT_EQ(copy, form);
    return result == 1 ? read_file(path) : std::to_string(result);
}

}

#endif
