#include "table.h"

#include "../defs/files.h"

#include <algorithm>
#include <cstring>

namespace fdlc {

// From this mask on the library hashes in another way.
constexpr uint32_t LARGE_MASK = 512;

int64_t usual_rows(size_t fields)
{
    int64_t rows = 1;
    while (rows * 3 < static_cast<int64_t>(fields) * 4)
        rows *= 2;
    return rows;
}

// The 16-bit words of the bytes, each read with its high byte first, added up.
static uint32_t sum_of_words(const char *bytes, size_t size)
{
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < size; i += 2)
        sum +=
            static_cast<uint32_t>(static_cast<uint8_t>(bytes[i]) << 8 | static_cast<uint8_t>(bytes[i + 1]));
    return sum;
}

// The mask is the number of rows less 1, of whatever number: its zero bits are starts that never come up.
static uint32_t hash_of_name(const std::string &name, uint32_t rows)
{
    uint32_t mask = rows - 1, sum = 0;
    if (mask < LARGE_MASK) {
        for (char c : name)
            sum += static_cast<uint32_t>(static_cast<signed char>(c));
        return sum & mask;
    }
    char area[defs::FIELD_NAME_SIZE] = {};
    name.copy(area, sizeof area);
    return sum_of_words(area, sizeof area) & mask;
}

static uint32_t hash_of_key(int32_t key, uint32_t rows)
{
    if (rows - 1 < LARGE_MASK)
        return static_cast<uint32_t>(key) % rows;  // a key is positive
    char area[sizeof key];
    memcpy(area, &key, sizeof key);
    return sum_of_words(area, sizeof area) & (rows - 1);
}

// The first row from `start` on that nobody has, round the end; it is then taken.
static uint32_t take_row(std::vector<bool> &taken, uint32_t start)
{
    while (taken[start])
        start = start + 1 == taken.size() ? 0 : start + 1;
    taken[start] = true;
    return start;
}

std::string binary_of(const defs::FieldTable &table, int64_t row_count)
{
    uint32_t rows = static_cast<uint32_t>(row_count);
    std::vector<defs::NameRow> names(rows);
    std::vector<defs::KeyRow> keys(rows, {0, -1});
    std::vector<bool> taken_names(rows), taken_keys(rows);
    for (auto &[key, index] : table.by_key) {  // in the order of the keys
        const std::string &name = table.fields[index].name;
        uint32_t name_row = take_row(taken_names, hash_of_name(name, rows));
        uint32_t key_row = take_row(taken_keys, hash_of_key(key, rows));
        name.copy(names[name_row].name, defs::FIELD_NAME_SIZE - 1);
        names[name_row].key = key;
        keys[key_row] = {key, static_cast<int32_t>(name_row)};
    }
    std::string bytes;
    defs::append_row(bytes, defs::FieldFileHead{defs::FIELD_FILE_MAGIC, static_cast<int32_t>(rows), 0});
    for (const defs::NameRow &row : names)
        defs::append_row(bytes, row);
    for (const defs::KeyRow &row : keys)
        defs::append_row(bytes, row);
    return bytes;
}

}  // namespace fdlc
