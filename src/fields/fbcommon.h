// Field buffers: the layout, to the byte, and the arithmetic on entries.
//
// A field buffer is the data of a typed buffer: a head of 8 bytes, then entries, one behind the other, in the
// order in which they were put. Its capacity is `bufsize` of the header in front of it.
//
// entry    0  key (type in the top 6 bits, read mark in bit 24, number below) 4  value of a char, short, int,
// long (32 bits), float; a string's text with its NUL; a carray's length 8  value of a double; a carray's
// bytes
//
// Each entry fills a multiple of 8 bytes. A buffer may come from a hostile server or a file: its used length
// is never taken for more than the capacity, and an entry that runs past the end ends every walk.
#ifndef VORN_FIELDS_FBCOMMON_H
#define VORN_FIELDS_FBCOMMON_H

#include "vorn/fields.h"
#include "wire/msgheader.h"

#include <stddef.h>
#include <stdint.h>
#include <string.h>

extern "C" {

constexpr uint32_t FIELD_BUFFER_MAGIC = 8888;
struct fb_head {
    uint32_t magic;
    int32_t used;  // head included
};
static_assert(sizeof(fb_head) == 8);
constexpr int32_t FB_HEAD_SIZE = sizeof(fb_head);

constexpr int32_t FIELD_KEY_SIZE = 4;
constexpr int32_t FIELD_TYPE_SHIFT = 26;
constexpr int32_t FIELD_READ_MARK = 0x01000000;
constexpr int32_t FIELD_NUMBER_MASK = 0xffffff;
constexpr int32_t FIELD_VALUE = 4;          // offset of the value of most types
constexpr int32_t FIELD_WIDE_VALUE = 8;     // that of a double and a carray
constexpr int32_t FIELD_CARRAY_LENGTH = 4;  // offset of a carray's length
constexpr int32_t FIELD_ENTRY_UNIT = 8;     // entries fill a multiple of this
constexpr int32_t FIELD_TYPE_FIRST = FB_CHAR, FIELD_TYPE_LAST = FB_CARRAY;

// --- Words of a buffer, wherever it stands.

inline int32_t get_int32(const void *from)
{
    int32_t value;
    memcpy(&value, from, sizeof value);
    return value;
}

inline void put_int32(void *to, int32_t value)
{
    memcpy(to, &value, sizeof value);
}

inline int32_t type_of_key(int32_t key)
{
    return key >> FIELD_TYPE_SHIFT;
}

inline char *bytes_of(FBUF *fbuf)
{
    return (char *)fbuf;
}

inline const fb_head *head_of(const FBUF *fbuf)
{
    return (const fb_head *)fbuf;
}

// The one question that is also asked of addresses that may be no buffer's, aligned or not.
inline bool has_magic(const FBUF *fbuf)
{
    return (uint32_t)get_int32(fbuf) == FIELD_BUFFER_MAGIC;
}

inline int32_t capacity_of(const FBUF *fbuf)
{
    return ((const msg_header *)((const char *)fbuf - HEADER_SIZE))->bufsize;
}

inline int32_t used_of(const FBUF *fbuf)
{
    return head_of(fbuf)->used;
}

inline void set_used(FBUF *fbuf, int64_t used)
{
    ((fb_head *)fbuf)->used = (int32_t)used;
}

void init_field_buffer(char *data);  // an empty field buffer

// --- Walks. [first_entry, entries_end) is always inside the buffer, whatever its words say.

inline char *first_entry(FBUF *fbuf)
{
    return bytes_of(fbuf) + FB_HEAD_SIZE;
}

inline char *entries_end(FBUF *fbuf)
{
    int32_t used = used_of(fbuf), capacity = capacity_of(fbuf);
    if (used > capacity)
        used = capacity;
    return bytes_of(fbuf) + (used < FB_HEAD_SIZE ? FB_HEAD_SIZE : used);
}

inline int64_t aligned_entry(int64_t bytes)
{
    return (bytes + FIELD_ENTRY_UNIT - 1) & ~(int64_t)(FIELD_ENTRY_UNIT - 1);
}

// Marks of the zero bytes among 8 bytes of a text; `others` are bytes that don't count. The lowest set bit is
// the highest one of the first zero byte.
inline uint64_t zero_bytes(const char *from, uint64_t others)
{
    uint64_t word;
    memcpy(&word, from, sizeof word);
    word |= others;
    return (word - 0x0101010101010101) & ~word & 0x8080808080808080;
}
constexpr uint64_t KEY_BYTES = 0xffffffff;  // of an entry's first unit

// Most texts are short: they are looked through by units, and only what goes on beyond these by memchr.
constexpr int64_t SHORT_TEXT_ENTRY = 8 * FIELD_ENTRY_UNIT;
int64_t long_text_entry_size(const char *entry, const char *end);

// Size of the entry of a string, of which at least the first unit is there; 0 if it has no NUL by `end`.
inline int64_t text_entry_size(const char *entry, const char *end)
{
    if (zero_bytes(entry, KEY_BYTES) != 0)
        return FIELD_ENTRY_UNIT;
    for (int64_t size = 2 * FIELD_ENTRY_UNIT; size <= SHORT_TEXT_ENTRY && size <= end - entry;
         size += FIELD_ENTRY_UNIT)
        if (zero_bytes(entry + size - FIELD_ENTRY_UNIT, 0) != 0)
            return size;
    return long_text_entry_size(entry, end);
}

inline int64_t carray_entry_size(const char *entry, const char *end)
{
    int64_t length = get_int32(entry + FIELD_CARRAY_LENGTH), size = aligned_entry(FIELD_WIDE_VALUE + length);
    return length >= 0 && size <= end - entry ? size : 0;
}

// Size of the entry; 0 if it doesn't end by `end`: the walk is then over.
inline int64_t entry_size(const char *entry, const char *end)
{
    if (end - entry < FIELD_ENTRY_UNIT)
        return 0;
    switch (type_of_key(get_int32(entry))) {
    case FB_DOUBLE:
        return end - entry < 2 * FIELD_ENTRY_UNIT ? 0 : 2 * FIELD_ENTRY_UNIT;
    case FB_STRING:
        return text_entry_size(entry, end);
    case FB_CARRAY:
        return carray_entry_size(entry, end);
    }
    return FIELD_ENTRY_UNIT;
}

// The loop over the entries of a buffer: for (entry_walk walk = walk_of(fbuf); walk.size > 0;
// next_entry(&walk))
struct entry_walk {
    char *entry;
    char *end;
    int64_t size;  // of the entry; 0 at the end
};

inline entry_walk walk_from(char *entry, char *end)
{
    return {entry, end, entry_size(entry, end)};
}

inline entry_walk walk_of(FBUF *fbuf)
{
    return walk_from(first_entry(fbuf), entries_end(fbuf));
}

inline void next_entry(entry_walk *walk)
{
    walk->entry += walk->size;
    walk->size = entry_size(walk->entry, walk->end);
}

// --- Values of an entry that a walk has reached.

inline char *value_of(char *entry)
{
    int32_t type = type_of_key(get_int32(entry));
    return entry + (type == FB_DOUBLE || type == FB_CARRAY ? FIELD_WIDE_VALUE : FIELD_VALUE);
}

// Length of the text of a string's entry.
inline int32_t text_length(const char *entry)
{
    uint64_t zeros = zero_bytes(entry, KEY_BYTES);
    if (zeros != 0)
        return __builtin_ctzll(zeros) / 8 - FIELD_VALUE;
    for (int32_t unit = FIELD_ENTRY_UNIT; unit < SHORT_TEXT_ENTRY; unit += FIELD_ENTRY_UNIT)
        if ((zeros = zero_bytes(entry + unit, 0)) != 0)
            return unit + __builtin_ctzll(zeros) / 8 - FIELD_VALUE;
    return (int32_t)strlen(entry + FIELD_VALUE);
}

// Field length of an entry of a known type.
inline int32_t length_of(const char *entry)
{
    switch (type_of_key(get_int32(entry))) {
    case FB_CHAR:
        return 1;
    case FB_SHORT:
        return 2;
    case FB_DOUBLE:
        return 8;
    case FB_STRING:
        return text_length(entry);
    case FB_CARRAY:
        return get_int32(entry + FIELD_CARRAY_LENGTH);
    }
    return 4;
}

// Size of an entry for `bytes` bytes behind the key; INT32_MAX for more.
inline int64_t size_with_key(int64_t bytes)
{
    int64_t size = aligned_entry(FIELD_KEY_SIZE + bytes);
    return size > INT32_MAX ? INT32_MAX : size;
}

// Entry size that a value would take; INT32_MAX for more. The length counts for a carray only.
int64_t size_of_value(int type, const char *value, int len);

// --- The same by their exported names. The callers vouch for the entry.

int _calc_falign_len(int n);
int _get_alen_from_type(int type, const char *value, int len);
int _get_alen_from_curpos(const char *entry);
int _get_fldlen_from_curpos(const char *entry);          // -1 with FBEBADFLD: unknown type
int _get_fldlen_from_type(int type, const char *entry);  // room that the value needs as `type`; as above
char *_get_valuep_from_curpos(char *entry);
int _is_value_null(const char *entry);                           // 1: zero, empty, or of an unknown type
int _value_comp(const char *entry, const char *value, int len);  // below, at or above 0
int _getnth_from_curpos(FBUF *fbuf, const char *entry);  // occurrence number; -1 if a walk doesn't meet it

// Zeros of each type.
extern const char ncv;
extern const int16_t nsv;
extern const int32_t niv;
extern const int64_t nlv;
extern const float nfv;
extern const double ndv;
extern const char nstv[1];
extern const char ncav;
const char *_get_null_value(int type);  // null for an unknown type
}

#endif
