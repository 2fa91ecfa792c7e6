// Writes binary field table files byte by byte, with nothing of the library's: both tables are placed by
// their hashes, and collisions go to the next free row.
#ifndef VORN_TESTS_SUPPORT_FDLFILE_H
#define VORN_TESTS_SUPPORT_FDLFILE_H

#include <stdint.h>

#include <string>
#include <vector>

namespace fdl {

struct field {
    std::string name;  // at most 47 characters
    int32_t key = 0;
};

// `rows` 0: as many rows as there are fields. Fields that find no room are a test failure.
std::string file_bytes(const std::vector<field> &fields, int32_t rows = 0, int32_t magic = 8888);

// Where the search of a name or key begins in a file that is loaded alone.
int32_t name_slot(const std::string &name, int32_t rows);
int32_t key_slot(int32_t key, int32_t rows);

}

#endif
