#include "fields.h"

#include "wire.h"

#include <bit>
#include <cstring>

namespace clhsim {

constexpr size_t ENTRY_UNIT = 8;  // sizes of entries are multiples of it
constexpr size_t KEY_SIZE = 4;

// How an entry of a type is laid out: where its value begins, and how long that is.
enum class Extent : uint8_t { NONE, FIXED, TO_NUL, COUNTED };
struct Layout {
    Extent extent;
    uint8_t offset;
    uint8_t length;  // of a FIXED value
};
static constexpr Layout LAYOUTS[] = {
    {Extent::NONE, 0, 0},     // no type has the number 0
    {Extent::FIXED, 4, 1},    // char
    {Extent::FIXED, 4, 2},    // short
    {Extent::FIXED, 4, 4},    // int
    {Extent::FIXED, 4, 4},    // long
    {Extent::FIXED, 4, 4},    // float
    {Extent::FIXED, 8, 8},    // double
    {Extent::TO_NUL, 4, 0},   // string
    {Extent::COUNTED, 8, 0},  // carray, with its length behind the key
};

static size_t filled_up(size_t size)
{
    return (size + ENTRY_UNIT - 1) / ENTRY_UNIT * ENTRY_UNIT;
}

// The size of the entry that `rest` begins with, 0 if it breaks a rule; its value goes to `value`.
static size_t measure(std::string_view rest, std::string_view &value)
{
    if (rest.size() < ENTRY_UNIT)
        return 0;
    uint32_t type = get_word(rest.data()) >> 26;
    if (type >= std::size(LAYOUTS) || LAYOUTS[type].extent == Extent::NONE)
        return 0;
    const Layout &layout = LAYOUTS[type];
    size_t length = layout.length;
    size_t end_mark = 0;
    if (layout.extent == Extent::COUNTED)
        length = get_word(rest.data() + KEY_SIZE);
    if (layout.extent == Extent::TO_NUL) {
        size_t end = rest.find('\0', layout.offset);
        if (end == rest.npos)
            return 0;
        length = end - layout.offset;
        end_mark = 1;
    }
    size_t size = filled_up(layout.offset + length + end_mark);
    if (size > rest.size())
        return 0;
    value = rest.substr(layout.offset, length);
    return size;
}

bool is_field_buffer(std::string_view data)
{
    if (data.size() < FIELD_HEAD_SIZE || get_word(data.data()) != FIELD_MARK ||
        get_word(data.data() + 4) != data.size())
        return false;
    size_t offset = FIELD_HEAD_SIZE;
    FieldEntry entry;
    while (next_field(data, offset, entry)) {
    }
    return offset == data.size();
}

bool next_field(std::string_view data, size_t &offset, FieldEntry &entry)
{
    if (offset >= data.size())
        return false;
    std::string_view rest = data.substr(offset);
    size_t size = measure(rest, entry.value);
    if (size == 0)
        return false;
    uint32_t key = get_word(rest.data());
    entry.key = key >> 26 << 26 | (key & FIELD_NUMBER_MASK);
    offset += size;
    return true;
}

int32_t int_value(std::string_view value)
{
    return static_cast<int32_t>(get_word(value.data()));
}

double double_value(std::string_view value)
{
    return get_double(value.data());
}

std::string new_field_buffer()
{
    std::string buffer;
    append_word(buffer, FIELD_MARK);
    append_word(buffer, FIELD_HEAD_SIZE);
    return buffer;
}

// Appends an entry whose value, with all that belongs to it, is the bytes of `value` behind the key.
static void add_entry(std::string &buffer, uint32_t key, std::string_view value)
{
    append_word(buffer, key);
    buffer.append(value);
    buffer.resize(filled_up(buffer.size()), '\0');
    put_word(buffer.data() + 4, static_cast<uint32_t>(buffer.size()));
}

void add_int(std::string &buffer, uint32_t key, int32_t value)
{
    char bytes[4];
    put_word(bytes, static_cast<uint32_t>(value));
    add_entry(buffer, key, {bytes, sizeof bytes});
}

void add_double(std::string &buffer, uint32_t key, double value)
{
    char bytes[12] = {};  // four that carry nothing, so that the number is aligned
    put_double(bytes + 4, value);
    add_entry(buffer, key, {bytes, sizeof bytes});
}

void add_string(std::string &buffer, uint32_t key, std::string_view text)
{
    std::string bytes(text.substr(0, text.find('\0')));
    bytes.push_back('\0');
    add_entry(buffer, key, bytes);
}

double get_double(const char *bytes)
{
    uint64_t high = get_word(bytes);
    return std::bit_cast<double>(high << 32 | get_word(bytes + 4));
}

void put_double(char *bytes, double value)
{
    auto bits = std::bit_cast<uint64_t>(value);
    put_word(bytes, static_cast<uint32_t>(bits >> 32));
    put_word(bytes + 4, static_cast<uint32_t>(bits));
}

}  // namespace clhsim
