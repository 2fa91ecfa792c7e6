#include "support/fdlfile.h"

#include <string.h>

#include "support/gtest.h"

namespace fdl {

// The sum of `words` 16-bit big-endian words.
static uint32_t sum_of_words(const unsigned char *bytes, int words)
{
    uint32_t sum = 0;
    for (int i = 0; i < words; i++)
        sum += static_cast<uint32_t>(bytes[2 * i]) << 8 | bytes[2 * i + 1];
    return sum;
}

int32_t name_slot(const std::string &name, int32_t rows)
{
    int32_t mask = rows - 1;
    if (mask < 512) {
        int32_t sum = 0;
        for (char c : name)
            sum += static_cast<signed char>(c);
        return sum & mask;
    }
    unsigned char area[48] = {};
    memcpy(area, name.data(), name.size() < sizeof(area) ? name.size() : sizeof(area));
    return static_cast<int32_t>(sum_of_words(area, 24) & static_cast<uint32_t>(mask));
}

int32_t key_slot(int32_t key, int32_t rows)
{
    int32_t mask = rows - 1;
    if (mask < 512) {
        int32_t rest = key % rows;
        return rest < 0 ? rest + rows : rest;
    }
    unsigned char halves[4];
    memcpy(halves, &key, sizeof(halves));
    return static_cast<int32_t>(sum_of_words(halves, 2) & static_cast<uint32_t>(mask));
}

// The first free row from `slot` on, wrapping; -1 if there is none.
static int32_t probe(std::vector<bool> &taken, int32_t slot)
{
    int32_t rows = static_cast<int32_t>(taken.size());
    for (int32_t i = 0; i < rows; i++) {
        int32_t row = (slot + i) % rows;
        if (!taken[static_cast<size_t>(row)]) {
            taken[static_cast<size_t>(row)] = true;
            return row;
        }
    }
    ADD_FAILURE() << "no row is left for a field";
    return -1;
}

static void put(std::string &bytes, size_t offset, int32_t value)
{
    memcpy(&bytes[offset], &value, sizeof(value));
}

std::string file_bytes(const std::vector<field> &fields, int32_t rows, int32_t magic)
{
    if (rows == 0)
        rows = static_cast<int32_t>(fields.size());
    size_t count = static_cast<size_t>(rows);
    std::string names(52 * count, '\0'), keys(8 * count, '\0');
    for (size_t i = 0; i < count; i++)
        put(keys, 8 * i + 4, -1);
    std::vector<bool> name_taken(count), key_taken(count);
    for (const field &each : fields) {
        EXPECT_LE(each.name.size(), 47u) << each.name;
        int32_t row = probe(name_taken, name_slot(each.name, rows));
        int32_t key_row = probe(key_taken, key_slot(each.key, rows));
        if (row < 0 || key_row < 0)
            break;
        memcpy(&names[52 * static_cast<size_t>(row)], each.name.data(),
               each.name.size() < 47 ? each.name.size() : 47);
        put(names, 52 * static_cast<size_t>(row) + 48, each.key);
        put(keys, 8 * static_cast<size_t>(key_row), each.key);
        put(keys, 8 * static_cast<size_t>(key_row) + 4, row);
    }
    std::string bytes(12, '\0');
    put(bytes, 0, magic);
    put(bytes, 4, rows);
    return bytes + names + keys;
}

}
