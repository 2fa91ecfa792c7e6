#include "support/fieldbuffer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <ostream>

#include "support/gtest.h"
#include "vorn/buffers.h"
#include "vorn/fields.h"

namespace fld {

constexpr size_t HEADER = 136, BUFSIZE = 12, RESERVE = 64;
constexpr char PATTERN = '\xC5';

static int32_t word_at(const char *from)
{
    int32_t value;
    memcpy(&value, from, sizeof value);
    return value;
}

static size_t rounded(size_t bytes)
{
    return (bytes + 7) / 8 * 8;
}

std::ostream &operator<<(std::ostream &stream, const field &one)
{
    stream << type_of(one.key) << "/" << (one.key & 0xffffff) << ((one.key & READ) != 0 ? "(r)" : "") << "=";
    for (unsigned char byte : one.value.substr(0, 40)) {
        static const char digits[] = "0123456789abcdef";
        stream << digits[byte >> 4] << digits[byte & 15];
    }
    return stream;
}

// Where the value stands in the entry, and how many bytes a number has.
static size_t value_offset(int32_t type)
{
    return type == DOUBLE || type == CARRAY ? 8 : 4;
}

static size_t width(int32_t type)
{
    static const size_t widths[] = {4, 1, 2, 4, 4, 4, 8};
    return type < 0 || type > DOUBLE ? 4 : widths[type];
}

std::string entry(const field &one)
{
    int32_t type = type_of(one.key);
    std::string bytes = raw(one.key);
    if (type == CARRAY)
        bytes += raw((int32_t)one.value.size());
    bytes.resize(value_offset(type), '\0');
    bytes += one.value;
    if (type == STRING)
        bytes += '\0';
    bytes.resize(rounded(bytes.size()), '\0');
    return bytes;
}

int32_t size_of(const field &one)
{
    return (int32_t)entry(one).size();
}

std::string entries(const list &fields)
{
    std::string bytes;
    for (const field &one : fields)
        bytes += entry(one);
    return bytes;
}

std::string image(const list &fields)
{
    std::string bytes = entries(fields);
    return raw((int32_t)8888) + raw((int32_t)(HEAD + bytes.size())) + bytes;
}

// The field at `at`, and the size of its entry; 0 if it isn't whole.
static size_t parse_one(const std::string &image, size_t at, field *one)
{
    size_t left = image.size() - at;
    if (left < 8)
        return 0;
    one->key = word_at(&image[at]);
    int32_t type = type_of(one->key);
    if (type < CHAR || type > CARRAY)
        return 0;
    size_t from = value_offset(type), length = width(type), tail = 0;
    if (type == STRING) {
        length = strnlen(&image[at + from], left - from);
        tail = 1;
    }
    if (type == CARRAY) {
        int32_t told = word_at(&image[at + 4]);
        if (told < 0)
            return 0;
        length = (size_t)told;
    }
    size_t size = rounded(from + length + tail);
    if (size > left)
        return 0;
    one->value = image.substr(at + from, length);
    return size;
}

bool parse(const std::string &image, list *fields)
{
    fields->clear();
    if (image.size() < HEAD || word_at(&image[0]) != 8888 || word_at(&image[4]) != (int32_t)image.size())
        return false;
    size_t at = HEAD;
    while (at < image.size()) {
        field one;
        size_t size = parse_one(image, at, &one);
        if (size == 0)
            return false;
        fields->push_back(one);
        at += size;
    }
    return true;
}

int32_t used(const fbuf *buffer)
{
    return word_at((const char *)buffer + 4);
}

int32_t capacity(const fbuf *buffer)
{
    return word_at((const char *)buffer - HEADER + BUFSIZE);
}

void set_capacity(fbuf *buffer, int32_t capacity)
{
    memcpy((char *)buffer - HEADER + BUFSIZE, &capacity, sizeof capacity);
}

void set_used(fbuf *buffer, int32_t used)
{
    memcpy((char *)buffer + 4, &used, sizeof used);
}

std::string used_bytes(const fbuf *buffer)
{
    if (used(buffer) < HEAD || used(buffer) > capacity(buffer)) {
        ADD_FAILURE() << "used length " << used(buffer) << " of " << capacity(buffer);
        return "";
    }
    return std::string((const char *)buffer, (size_t)used(buffer));
}

list in(const fbuf *buffer)
{
    list fields;
    EXPECT_TRUE(parse(used_bytes(buffer), &fields)) << "not well-formed";
    return fields;
}

bool equal(const fbuf *buffer, const list &fields)
{
    return in(buffer) == fields;
}

std::string handed_over(const field &one)
{
    int32_t type = type_of(one.key);
    if (type == LONG)
        return one.value + std::string(4, '\0');
    return type == STRING ? one.value + '\0' : one.value;
}

Buffer::Buffer(const list &fields, int32_t capacity)
{
    it = (fbuf *)tpalloc((char *)"FIELD", nullptr, capacity > 8 ? capacity - 8 : 0);
    EXPECT_NE(it, nullptr);
    made = fld::capacity(it);
    if (capacity != 0 && capacity < made)
        set_capacity(it, capacity);
    memset(bytes() + made, PATTERN, RESERVE);
    fill(fields);
}

Buffer::~Buffer()
{
    EXPECT_TRUE(reserve_is_untouched());
    tpfree(bytes());
}

bool Buffer::reserve_is_untouched() const
{
    return std::string(bytes() + made, RESERVE) == std::string(RESERVE, PATTERN);
}

void Buffer::fill(const list &fields)
{
    std::string content = image(fields);
    ASSERT_LE((int32_t)content.size(), made);
    memset(bytes(), 0, (size_t)made);
    memcpy(bytes(), content.data(), content.size());
}

void Buffer::tighten(int32_t spare)
{
    set_capacity(it, used(it) + spare);
}

Guarded::Guarded(const std::string &content, int32_t capacity) : room(capacity)
{
    size_t page = (size_t)sysconf(_SC_PAGESIZE), data = rounded((size_t)capacity);
    length = (HEADER + data + page - 1) / page * page + page;
    pages = (char *)mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE((void *)pages, MAP_FAILED);
    EXPECT_EQ(mprotect(pages + length - page, page, PROT_NONE), 0);
    it = (fbuf *)(pages + length - page - data);
    char *head = bytes() - HEADER;
    uint32_t magic = 0x90352082;
    int32_t field_type = 2;
    memcpy(head, &magic, sizeof magic);
    memcpy(head + 8, &field_type, sizeof field_type);
    set_capacity(it, capacity);
    header.assign(head, HEADER);
    put(content);
}

Guarded::~Guarded()
{
    EXPECT_EQ(std::string(bytes() - HEADER, HEADER), header) << "the header in front of the buffer changed";
    munmap(pages, length);
}

void Guarded::put(const std::string &content)
{
    memset(bytes(), 0, (size_t)room);
    memcpy(bytes(), content.data(), std::min(content.size(), (size_t)room));
}

}
