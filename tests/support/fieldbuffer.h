// Field buffers as the tests see them: made and read byte by byte, with nothing of the library's.
#ifndef VORN_TESTS_SUPPORT_FIELDBUFFER_H
#define VORN_TESTS_SUPPORT_FIELDBUFFER_H

#include <stdint.h>
#include <string.h>

#include <iosfwd>
#include <string>
#include <vector>

struct fbuf;

namespace fld {

enum type : int32_t { CHAR = 1, SHORT, INT, LONG, FLOAT, DOUBLE, STRING, CARRAY };
constexpr int32_t TYPES = 8;
constexpr int32_t READ = 0x01000000;  // the mark of a field that was read
constexpr int32_t HEAD = 8;           // bytes in front of the first entry

constexpr int32_t key(int32_t type, int32_t number)
{
    return (int32_t)((uint32_t)type << 26 | (uint32_t)number);
}

constexpr int32_t type_of(int32_t key)
{
    return key >> 26;
}

template <typename T> std::string raw(T value)
{
    return std::string((const char *)&value, sizeof value);
}

// A key word, and the value's bytes as they are stored: 4 for a long, the text of a string without its NUL.
struct field {
    int32_t key;
    std::string value;

    bool operator==(const field &other) const { return key == other.key && value == other.value; }
};
typedef std::vector<field> list;

template <typename T> field number(int32_t key, T value)
{
    return {key, raw(value)};
}
inline field an_int(int32_t number, int32_t value)
{
    return {key(INT, number), raw(value)};
}
inline field a_string(int32_t number, const std::string &text)
{
    return {key(STRING, number), text};
}
inline field a_carray(int32_t number, const std::string &bytes)
{
    return {key(CARRAY, number), bytes};
}

std::ostream &operator<<(std::ostream &stream, const field &one);

int32_t size_of(const field &one);    // of its entry
std::string entry(const field &one);  // with zeros where nothing is meant
std::string entries(const list &fields);
std::string image(const list &fields);               // head and entries
bool parse(const std::string &image, list *fields);  // false if it isn't an exact sequence of known entries

// What stands in a buffer; a test failure if that isn't well-formed, or runs past the capacity.
list in(const fbuf *buffer);
std::string used_bytes(const fbuf *buffer);
int32_t used(const fbuf *buffer);
int32_t capacity(const fbuf *buffer);
void set_capacity(fbuf *buffer, int32_t capacity);
void set_used(fbuf *buffer, int32_t used);
bool equal(const fbuf *buffer, const list &fields);  // content, used length, magic

// A value as an application hands it over: a long has 8 bytes, a string its NUL.
std::string handed_over(const field &one);

// A typed buffer from the library, freed at the end. The 64 bytes behind its data are filled with a pattern,
// which must still be there then. For buffers that keep their place and size.
struct Buffer {
    fbuf *it;

    explicit Buffer(const list &fields = {}, int32_t capacity = 0);  // 0: the smallest, 1032
    Buffer(const Buffer &) = delete;
    Buffer &operator=(const Buffer &) = delete;
    ~Buffer();
    operator fbuf *() const { return it; }
    char *bytes() const { return (char *)it; }
    void fill(const list &fields);    // replaces the content by hand; the cache doesn't learn of it
    void tighten(int32_t spare = 0);  // capacity becomes what is used and `spare`
    bool reserve_is_untouched() const;

  private:
    int32_t made;  // capacity that the block was made with
};

// A typed buffer whose data end at a page that can't be touched, so that a byte read or written behind them
// ends the process. Its content may be anything; its header must come out unchanged. Not for calls that
// free or grow a buffer.
struct Guarded {
    fbuf *it;

    Guarded(const std::string &content, int32_t capacity);
    Guarded(const Guarded &) = delete;
    Guarded &operator=(const Guarded &) = delete;
    ~Guarded();
    operator fbuf *() const { return it; }
    char *bytes() const { return (char *)it; }
    void put(const std::string &content);  // zeros behind it

  private:
    char *pages;
    size_t length;
    int32_t room;
    std::string header;
};

}

#endif
