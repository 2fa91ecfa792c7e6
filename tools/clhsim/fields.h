// The wire form of field buffers: a mark, the used length, then entries one behind the other, each of a key,
// a value and bytes that fill it up to a multiple of 8. All words and numbers are big-endian.
//
// A buffer from a client is held against these rules once (`is_field_buffer`); only then is it walked.
#ifndef CLHSIM_FIELDS_H
#define CLHSIM_FIELDS_H

#include <cstdint>
#include <string>
#include <string_view>

namespace clhsim {

constexpr uint32_t FIELD_MARK = 8888;
constexpr size_t FIELD_HEAD_SIZE = 8;

enum FieldType : int32_t {
    FIELD_CHAR = 1,
    FIELD_SHORT = 2,
    FIELD_INT = 3,
    FIELD_LONG = 4,  // four bytes, like an int
    FIELD_FLOAT = 5,
    FIELD_DOUBLE = 6,
    FIELD_STRING = 7,
    FIELD_CARRAY = 8,
};

// The type stands in the top six bits. Of the others only the number counts here: the bit above it tells a
// client that it has read the entry.
constexpr uint32_t FIELD_NUMBER_MASK = 0xffffff;

constexpr uint32_t field_key(FieldType type, uint32_t number)
{
    return static_cast<uint32_t>(type) << 26 | number;
}

struct FieldEntry {
    uint32_t key = 0;        // type and number alone
    std::string_view value;  // as it lies there: a string without its NUL, a carray without its length
};

// True if every entry has a type, and lies with its value inside of the used length, which is the data's own.
bool is_field_buffer(std::string_view data);

// The entry at `offset`, which goes on to the next one; begin at FIELD_HEAD_SIZE. False at the end, and at an
// entry that breaks a rule.
bool next_field(std::string_view data, size_t &offset, FieldEntry &entry);

int32_t int_value(std::string_view value);  // of an int or a long
double double_value(std::string_view value);

// A buffer without entries, and what grows one. The used length is kept true.
std::string new_field_buffer();
void add_int(std::string &buffer, uint32_t key, int32_t value);  // for an int or a long
void add_double(std::string &buffer, uint32_t key, double value);
void add_string(std::string &buffer, uint32_t key, std::string_view text);

// Eight bytes of a number, wherever they stand.
double get_double(const char *bytes);
void put_double(char *bytes, double value);

}  // namespace clhsim

#endif
