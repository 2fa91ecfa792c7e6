// Field data byte by byte, in host order and as it travels, made with nothing of the library's; and messages
// in blocks that end where their data ends, so that a checker of memory sees one byte too many.
#ifndef VORN_TESTS_BUFFERS_FIELDBYTES_H
#define VORN_TESTS_BUFFERS_FIELDBYTES_H

#include <stdint.h>
#include <algorithm>
#include <stdlib.h>
#include <string.h>

#include "support/gtest.h"
#include "wire/msgheader.h"

namespace fb {

enum field_type : int32_t { CHAR = 1, SHORT, INT, LONG, FLOAT, DOUBLE, STRING, CARRAY };

inline uint32_t key_of(int32_t type, int32_t number)
{
    return (uint32_t)type << 26 | (uint32_t)number;
}
constexpr uint32_t READ_MARK = 0x01000000;

template <typename T> std::string little(T value)
{
    return std::string((const char *)&value, sizeof value);
}
template <typename T> std::string big(T value)
{
    std::string bytes = little(value);
    return std::string(bytes.rbegin(), bytes.rend());
}

// A field buffer under construction, in both orders at once. Bytes without a meaning are 0xA5 in the host
// form, 0x5A on the wire, and cleared in `meant`.
struct bytes {
    std::string host, wire, meant;

    bytes()
    {
        both(little<uint32_t>(8888), big<uint32_t>(8888));
        both(little<int32_t>(8), big<int32_t>(8));
    }

    template <typename T> bytes &add(int32_t type, int32_t number, T value)
    {
        key(key_of(type, number));
        if (type == DOUBLE)
            nothing(4);
        both(little(value), big(value));
        return end();
    }
    bytes &add_string(int32_t number, const std::string &text)
    {
        key(key_of(STRING, number));
        std::string content = text + '\0';
        both(content, content);
        return end();
    }
    bytes &add_carray(int32_t number, const std::string &content)
    {
        key(key_of(CARRAY, number));
        both(little((int32_t)content.size()), big((int32_t)content.size()));
        both(content, content);
        return end();
    }
    // A key word as it is given, and 4 bytes of value.
    bytes &add_raw(uint32_t word, uint32_t value)
    {
        key(word);
        both(little(value), big(value));
        return end();
    }
    bytes &set_used(int32_t used)
    {
        host.replace(4, 4, little(used));
        wire.replace(4, 4, big(used));
        return *this;
    }
    int32_t used() const { return (int32_t)host.size(); }

  private:
    void both(const std::string &at_home, const std::string &outside)
    {
        host += at_home;
        wire += outside;
        meant.append(at_home.size(), '\1');
    }
    void nothing(size_t count)
    {
        host.append(count, '\xA5');
        wire.append(count, '\x5A');
        meant.append(count, '\0');
    }
    void key(uint32_t word) { both(little(word), big(word)); }
    bytes &end()
    {
        nothing((8 - host.size() % 8) % 8);
        return set_used((int32_t)host.size());
    }
};

// One field of each type, with every byte of a value different.
inline bytes all_types()
{
    bytes fields;
    fields.add<int8_t>(CHAR, 101, 'c')
        .add<int16_t>(SHORT, 102, 0x1122)
        .add<int32_t>(INT, 103, 0x11223344)
        .add<int32_t>(LONG, 104, -2)
        .add<float>(FLOAT, 105, -1.5f)
        .add<double>(DOUBLE, 106, 3.141592653589793)
        .add_string(107, "character string")
        .add_carray(108, std::string("\0\1\2\3\4\5\6\7\x08", 9));
    return fields;
}

// What is meant must be equal; what carries no meaning may be anything.
inline testing::AssertionResult same(const std::string &got, const std::string &wanted,
                                     const std::string &meant)
{
    if (got.size() != wanted.size())
        return testing::AssertionFailure() << got.size() << " bytes instead of " << wanted.size();
    for (size_t i = 0; i < got.size(); i++)
        if (got[i] != wanted[i] && (i >= meant.size() || meant[i] != 0))
            return testing::AssertionFailure() << "byte " << i << " is " << (int)(unsigned char)got[i]
                                               << " instead of " << (int)(unsigned char)wanted[i];
    return testing::AssertionSuccess();
}
inline testing::AssertionResult same_wire(const std::string &got, const bytes &wanted)
{
    return same(got, wanted.wire, wanted.meant);
}
inline testing::AssertionResult same_host(const std::string &got, const bytes &wanted)
{
    return same(got, wanted.host, wanted.meant);
}

}

// A message whose block ends with its data (or `room` bytes behind the header, if that is more).
struct Message {
    msg_header *header;

    Message(int32_t buftype, const std::string &data, size_t room = 0, const char *subtype = "")
    {
        size_t size = std::max(room, data.size());
        header = (msg_header *)calloc(1, sizeof(msg_header) + size);
        header->magic = MESSAGE_MAGIC;
        header->buftype = buftype;
        header->bufsize = (int32_t)size;
        header->datalen = (int32_t)data.size();
        strncpy(header->subtype, subtype, sizeof header->subtype);
        memcpy(message_data(header), data.data(), data.size());
    }
    Message(const Message &) = delete;
    Message &operator=(const Message &) = delete;
    ~Message() { free(header); }

    operator msg_header *() const { return header; }
    msg_header *operator->() const { return header; }
    char *data() const { return message_data(header); }
    std::string text(size_t length) const { return std::string(data(), length); }
    // The last `length` bytes of the data are a trailer.
    void mark_trailer(int length)
    {
        header->xflags |= XFLAG_TRAILER;
        header->xflags = (header->xflags & ~(uint32_t)XFLAG_TRAILER_LENGTH) | (uint32_t)length;
    }
};

// A block that the encoders gave: taken over and freed.
struct Encoded {
    char *block;
    int length;

    explicit Encoded(char *given, int given_length) : block(given), length(given_length) {}
    Encoded(const Encoded &) = delete;
    Encoded &operator=(const Encoded &) = delete;
    ~Encoded() { free(block); }
    std::string data() const { return std::string(block + HEADER_SIZE, (size_t)length); }
};

#endif
