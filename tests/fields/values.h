// What the tests of conversions, whole buffers, mapping and text forms share: values of the eight types at
// their natural width, and field buffers that are read and compared by code of their own.
#ifndef VORN_TESTS_FIELDS_VALUES_H
#define VORN_TESTS_FIELDS_VALUES_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "runtime/mthr.h"
#include "runtime/semantics.h"
#include "support/gtest.h"
#include "vorn/errors.h"
#include "vorn/fields.h"
#include "wire/msgheader.h"

namespace fv {

constexpr int32_t READ_MARK = 0x01000000;

inline int key_of(int type, int number)
{
    return (int)((uint32_t)type << 26 | (uint32_t)number);
}

template <typename T> std::string bytes_of(T value)
{
    return std::string((const char *)&value, sizeof value);
}

// A value as a caller holds it. A string has its NUL, a carray no more than its bytes.
struct typed {
    int type;
    std::string bytes;

    char *data() const { return (char *)bytes.data(); }
    int length() const { return (int)bytes.size(); }
};

inline typed c(int value)
{
    return {FB_CHAR, bytes_of((char)value)};
}
inline typed s(int value)
{
    return {FB_SHORT, bytes_of((int16_t)value)};
}
inline typed i(int64_t value)
{
    return {FB_INT, bytes_of((int32_t)value)};
}
inline typed l(int64_t value)
{
    return {FB_LONG, bytes_of(value)};
}
inline typed f(double value)
{
    return {FB_FLOAT, bytes_of((float)value)};
}
inline typed d(double value)
{
    return {FB_DOUBLE, bytes_of(value)};
}
inline typed t(const std::string &text)
{
    return {FB_STRING, text + '\0'};
}
inline typed a(const std::string &content)
{
    return {FB_CARRAY, content};
}

// A field as it stands in a buffer: the whole key word, and the bytes of the value (4 for a long, a string
// without its NUL).
struct field {
    int32_t key;
    std::string value;

    bool operator==(const field &other) const { return key == other.key && value == other.value; }
};
using fields = std::vector<field>;

inline std::ostream &operator<<(std::ostream &out, const field &one)
{
    out << "{type " << (one.key >> 26) << " number " << (one.key & 0xffffff)
        << ((one.key & READ_MARK) != 0 ? " read" : "") << ":";
    for (unsigned char each : one.value.substr(0, 40))
        out << ' ' << (int)each;
    return out << "}";
}

inline field stored(int number, const typed &value)
{
    std::string bytes = value.bytes;
    if (value.type == FB_LONG)
        bytes.resize(4);
    if (value.type == FB_STRING)
        bytes.pop_back();
    return {key_of(value.type, number), bytes};
}

inline int32_t word_at(const char *place)
{
    int32_t word;
    memcpy(&word, place, sizeof word);
    return word;
}

inline void set_word(char *place, int32_t word)
{
    memcpy(place, &word, sizeof word);
}

// The entries of a well-formed buffer, in its order.
inline fields content(FBUF *fbuf)
{
    const char *data = (const char *)fbuf;
    int used = word_at(data + 4);
    fields found;
    for (int at = 8; at + 8 <= used;) {
        const char *entry = data + at;
        field one{word_at(entry), ""};
        size_t start = 4, length = 4;
        switch (one.key >> 26) {
        case FB_CHAR:
            length = 1;
            break;
        case FB_SHORT:
            length = 2;
            break;
        case FB_DOUBLE:
            start = 8, length = 8;
            break;
        case FB_STRING:
            length = strlen(entry + 4);
            break;
        case FB_CARRAY:
            start = 8, length = (size_t)word_at(entry + 4);
            break;
        }
        one.value.assign(entry + start, length);
        found.push_back(one);
        size_t size = start + length + (one.key >> 26 == FB_STRING ? 1 : 0);
        at += (int)((size + 7) / 8 * 8);
    }
    return found;
}

inline msg_header *head(FBUF *fbuf)
{
    return message_of((char *)fbuf);
}
inline int used(FBUF *fbuf)
{
    return word_at((char *)fbuf + 4);
}
inline std::string used_part(FBUF *fbuf)
{
    return std::string((char *)fbuf, (size_t)used(fbuf));
}
inline std::string whole(FBUF *fbuf)
{
    return std::string((char *)fbuf, (size_t)head(fbuf)->bufsize);
}

// A field buffer that ends with its scope. Its unused room isn't zero, so that what is read beyond a value
// shows. Where its capacity is taken down, a pattern stands behind it, which must be there at the end.
struct Buffer {
    static constexpr char GUARD = '\xA7', DIRT = '\xC3';
    FBUF *fbuf;

    explicit Buffer(int count = 100, int datalen = 0) : fbuf(fballoc(count, datalen))
    {
        full = head(fbuf)->bufsize;
        memset((char *)fbuf + 8, DIRT, (size_t)full - 8);
    }
    Buffer(std::initializer_list<field> list) : Buffer()
    {
        for (const field &one : list)
            add(one);
    }
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    ~Buffer()
    {
        int now = head(fbuf)->bufsize;
        for (int at = now; at < full; at++)
            if (((char *)fbuf)[at] != GUARD) {
                ADD_FAILURE() << "byte " << at << " behind the capacity " << now << " was written";
                break;
            }
        head(fbuf)->bufsize = full;
        set_word((char *)fbuf, 8888);
        EXPECT_EQ(fbfree(fbuf), 1);
    }
    operator FBUF *() const { return fbuf; }

    Buffer &add(const field &one)
    {
        std::string value = one.value;
        if (one.key >> 26 == FB_LONG)
            value.resize(8);
        EXPECT_EQ(fbput(fbuf, one.key, &value[0], (int)value.size()), 1);
        return *this;
    }
    // An entry of 8 bytes that no call would write.
    Buffer &add_raw(int32_t key, int32_t value)
    {
        char *entry = (char *)fbuf + used(fbuf);
        set_word(entry, key);
        set_word(entry + 4, value);
        set_word((char *)fbuf + 4, used(fbuf) + 8);
        return *this;
    }
    // Sets the read mark of the n-th entry of 8 bytes.
    Buffer &mark(int nth)
    {
        char *entry = (char *)fbuf + 8 + 8 * nth;
        set_word(entry, word_at(entry) | READ_MARK);
        return *this;
    }
    // Takes the capacity down.
    Buffer &room(int capacity)
    {
        memset((char *)fbuf + capacity, GUARD, (size_t)(full - capacity));
        head(fbuf)->bufsize = capacity;
        return *this;
    }

    int full;
};

// One of FLEN_*, as if VORN_SEMANTICS had said it.
inline void set_length_mode(int32_t mode)
{
    _vorn_flen_flag = mode;
    _vorn_semantics_flag = 1;
}

}  // namespace fv

#endif
