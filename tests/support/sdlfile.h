// Writes binary struct definition files byte by byte, with nothing of the library's.
#ifndef VORN_TESTS_SUPPORT_SDLFILE_H
#define VORN_TESTS_SUPPORT_SDLFILE_H

#include <stdint.h>

#include <string>
#include <vector>

namespace sdl {

enum member_type : int32_t {
    CHAR = 1,
    SHORT = 2,
    INT = 3,
    LONG = 4,
    FLOAT = 5,
    DOUBLE = 6,
    STRING = 7,
    CARRAY = 8,
    NESTED = 9
};

struct member {
    std::string name;
    int32_t key = 0;
    int32_t type = INT;
    std::string null = "0";
    int32_t nested = 0;   // row number of the nested struct
    int32_t count = 1;    // elements; total bytes for CHAR, STRING and CARRAY
    int32_t element = 0;  // bytes of one element of CHAR, STRING and CARRAY
    int32_t host_offset = 0;
    int32_t wire_offset = 0;
};

struct record {
    std::string name;
    std::vector<member> members;
    int64_t host_size = 0, wire_size = 0;
    int32_t word = 0;
};

// The file as it stands on disk. The numbers of first and last members are counted over the records.
std::string file_bytes(const std::vector<record> &records, int32_t magic = 7777);

constexpr size_t HEADER = 12, STRUCT_ROW = 64, MEMBER_ROW = 92;

// Overwrites a 32-bit word of a file that was made well-formed, to make it hostile. `struct_word` and
// `member_word` give the offsets of the words of a row.
void set_word(std::string &bytes, size_t offset, int32_t value);
size_t struct_word(size_t row, size_t offset);
size_t member_word(size_t structs, size_t row, size_t offset);

}

// A new file with these bytes in the temporary directory, removed when the process ends. Its path.
std::string write_definition(const std::string &bytes);

#endif
