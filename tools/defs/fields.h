// Field tables: read from a text or from a binary file. fdlc compiles them, sdlc looks up names in them.
#ifndef DEFS_FIELDS_H
#define DEFS_FIELDS_H

#include "text.h"

#include <map>

namespace defs {

// The types of fields and of struct members have the same numbers; 9 is for members only.
enum Type { CHAR = 1, SHORT, INT, LONG, FLOAT, DOUBLE, STRING, CARRAY, STRUCT };
const char *type_name(int type);        // "" for one outside 1 to 9
int field_type(std::string_view name);  // 1 to 8, or 0

constexpr int64_t HIGHEST_NUMBER = 0xffffff;  // a key has 24 bits for it; the two above are the library's
constexpr int TYPE_SHIFT = 26;
constexpr size_t FIELD_NAME_SIZE = 48;  // NUL included
constexpr int64_t MOST_ROWS = 1 << 24;  // as many as there are numbers; the file stays below 2 GiB

constexpr int32_t make_key(int type, int64_t number)
{
    return static_cast<int32_t>((static_cast<int64_t>(type) << TYPE_SHIFT) + number);
}
bool is_key(int64_t key);  // a type of 1 to 8, a number from 1 on, nothing else

struct Field {
    std::string name;
    int32_t key;
    Place place;
};

struct FieldTable {
    std::vector<Field> fields;  // in the order of the text
    std::map<std::string, size_t> by_name;
    std::map<int32_t, size_t> by_key;
    int64_t rows = 0;  // 0: not told
};

constexpr int32_t FIELD_FILE_MAGIC = 8888;

struct FieldFileHead {
    int32_t magic;
    int32_t rows;  // of each of the two tables
    int32_t unused;
};

struct NameRow {
    char name[FIELD_NAME_SIZE];  // a row that isn't in use begins with NUL
    int32_t key;
};

struct KeyRow {
    int32_t key;
    int32_t row;  // of the name table; -1: not in use
};

static_assert(sizeof(FieldFileHead) == 12 && sizeof(NameRow) == 52 && sizeof(KeyRow) == 8);

// They add to the table. What is wrong is complained of.
void read_field_text(const std::string &file, std::string_view text, FieldTable &table, Report &report);
void read_field_binary(const std::string &file, const std::string &bytes, FieldTable &table, Report &report);
void read_field_file(const std::string &path, FieldTable &table,
                     Report &report);  // either, told by its magic

}  // namespace defs

#endif
