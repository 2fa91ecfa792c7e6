// Struct definitions for the tests of typed buffers, loaded through the environment.
#ifndef VORN_TESTS_BUFFERS_STRUCTS_H
#define VORN_TESTS_BUFFERS_STRUCTS_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "buffers/sdli.h"
#include "support/sdlfile.h"

// What the compiler makes of the records that the definitions tell of.
struct item_record {
    int16_t number;
    int64_t price;
};
static_assert(sizeof(item_record) == 16 && offsetof(item_record, price) == 8);

struct person_record {
    char letter;
    int16_t numbers[3];
    int32_t id;
    int64_t salary;
    float share;
    double factor;
    char name[12];
    unsigned char key[5];
    item_record items[2];
};
static_assert(sizeof(person_record) == 96);

// Wire layouts without gaps: item 6 bytes, person 56 bytes.
constexpr int ITEM_WIRE = 6, PERSON_WIRE = 56;

inline sdl::record item_definition()
{
    sdl::record item = {"item", {}, sizeof(item_record), ITEM_WIRE, 77};
    item.members.push_back({.name = "number", .key = 11, .type = sdl::SHORT});
    item.members.push_back(
        {.name = "price", .key = 12, .type = sdl::LONG, .host_offset = 8, .wire_offset = 2});
    return item;
}

// `item` is the row of its nested struct.
inline sdl::record person_definition(int32_t item = 0)
{
    sdl::record person = {"person", {}, sizeof(person_record), PERSON_WIRE, 78};
    const struct {
        const char *name;
        int32_t type, count, element;
        size_t host;
        int32_t wire;
    } members[] = {
        {"letter", sdl::CHAR, 1, 1, offsetof(person_record, letter), 0},
        {"numbers", sdl::SHORT, 3, 0, offsetof(person_record, numbers), 1},
        {"id", sdl::INT, 1, 0, offsetof(person_record, id), 7},
        {"salary", sdl::LONG, 1, 0, offsetof(person_record, salary), 11},
        {"share", sdl::FLOAT, 1, 0, offsetof(person_record, share), 15},
        {"factor", sdl::DOUBLE, 1, 0, offsetof(person_record, factor), 19},
        {"name", sdl::STRING, 12, 12, offsetof(person_record, name), 27},
        {"key", sdl::CARRAY, 5, 5, offsetof(person_record, key), 39},
        {"items", sdl::NESTED, 2, 0, offsetof(person_record, items), 44},
    };
    for (const auto &one : members)
        person.members.push_back({.name = one.name,
                                  .type = one.type,
                                  .nested = item,
                                  .count = one.count,
                                  .element = one.element,
                                  .host_offset = (int32_t)one.host,
                                  .wire_offset = one.wire});
    return person;
}

// A struct whose record is the same on both sides but for the order of the bytes.
inline sdl::record pair_definition()
{
    sdl::record pair = {"pair", {}, 8, 8, 0};
    pair.members.push_back({.name = "one", .type = sdl::INT});
    pair.members.push_back({.name = "two", .type = sdl::INT, .host_offset = 4, .wire_offset = 4});
    return pair;
}

inline std::vector<sdl::record> definitions()
{
    return {item_definition(), person_definition(), pair_definition()};
}

inline person_record sample_person()
{
    person_record person = {};
    person.letter = 'L';
    person.numbers[0] = 0x0102;
    person.numbers[1] = -2;
    person.numbers[2] = 0x7f80;
    person.id = 0x11223344;
    person.salary = 0x55667788;
    person.share = 1.0f;
    person.factor = 1.0;
    memcpy(person.name, "Mary\0ellen..", 12);
    memcpy(person.key, "\1\2\3\4\5", 5);
    person.items[0].number = 0x2122;
    person.items[0].price = 0x23242526;
    person.items[1].number = 0x3132;
    person.items[1].price = 0xfffffffe;
    return person;
}

// sample_person() as it travels.
inline std::string sample_person_wire()
{
    const unsigned char wire[PERSON_WIRE] = {
        'L',                                                                 // letter
        0x01, 0x02, 0xff, 0xfe, 0x7f, 0x80,                                  // numbers
        0x11, 0x22, 0x33, 0x44,                                              // id
        0x55, 0x66, 0x77, 0x88,                                              // salary
        0x3f, 0x80, 0x00, 0x00,                                              // share
        0x3f, 0xf0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,                      // factor
        'M',  'a',  'r',  'y',  0,    'e',  'l',  'l',  'e', 'n', '.', '.',  // name
        0x01, 0x02, 0x03, 0x04, 0x05,                                        // key
        0x21, 0x22, 0x23, 0x24, 0x25, 0x26,                                  // items[0]
        0x31, 0x32, 0xff, 0xff, 0xff, 0xfe,                                  // items[1]
    };
    return std::string((const char *)wire, sizeof wire);
}

template <typename T> std::string bytes_of(const T &record)
{
    return std::string((const char *)&record, sizeof record);
}

// Writes the file, points SDLFILE at it, and loads it. What _sdlfile_load gave.
inline int load_structs(const std::string &file)
{
    unsetenv("SDLFILE64");
    setenv("SDLFILE", write_definition(file).c_str(), 1);
    return _sdlfile_load();
}
inline int load_structs(const std::vector<sdl::record> &records)
{
    return load_structs(sdl::file_bytes(records));
}

#endif
