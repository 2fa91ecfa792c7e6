// Wire form of struct and field data.
//
// A field buffer is turned in one pass that keeps every entry's size and place. Each entry fills a multiple
// of 8 bytes and begins on one, so the pass goes by words of 8 bytes: one load gives key and value, one store
// puts both. Turning is its own inverse, and encoder and decoder are one function: they differ in which side
// of the turn is read for the type and the length of a carray. Decoding in place works because that side is
// in a register before anything is stored.
//
// The numbers in a buffer are never believed, be it a server's or the application's: the used length must lie
// inside what is there, and each entry, its NUL included, inside the used length. The one that doesn't ends
// the pass with an error.
#include "buffers/dencode.h"

#include "buffers/double.h"
#include "buffers/sdli.h"
#include "fields/fbcommon2.h"
#include "queue/rqctl.h"
#include "runtime/errlog.h"

#include <immintrin.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

// How turn_run below sees entries of one kind: by vectors of 32 bytes.
struct run_test {
    __m256i order;      // where each byte comes from
    __m256i low, span;  // of the keys, in all words
    int keys;           // a bit for each of the 8 words: it is a key
};

// Turns so many vectors of entries, and stores them if all are of the kind.
template <int VECTORS>
__attribute__((target("avx2"), always_inline)) static inline bool turn_block(const char *from, char *to,
                                                                             bool decode,
                                                                             const run_test *test)
{
    __m256i turned[VECTORS], above = _mm256_setzero_si256();
    for (int i = 0; i < VECTORS; i++) {
        __m256i given = _mm256_loadu_si256((const __m256i *)from + i);
        turned[i] = _mm256_shuffle_epi8(given, test->order);
        above = _mm256_max_epu32(above, _mm256_sub_epi32(decode ? turned[i] : given, test->low));
    }
    __m256i right = _mm256_cmpeq_epi32(_mm256_max_epu32(above, test->span), test->span);
    if ((~_mm256_movemask_ps(_mm256_castsi256_ps(right)) & test->keys) != 0)
        return false;
    for (int i = 0; i < VECTORS; i++)
        _mm256_storeu_si256((__m256i *)to + i, turned[i]);
    return true;
}

extern "C" {

// --- Entries.

constexpr int ENTRY_UNIT = FIELD_ENTRY_UNIT;
constexpr int64_t SHORT_COPY = 64;  // bytes up to which a copy is made without a call
constexpr int64_t NEAR_TEXT = 256;  // bytes within which the end of a text is looked for without one

static inline uint64_t load_unit(const char *from)
{
    uint64_t unit;
    memcpy(&unit, from, sizeof unit);
    return unit;
}

static inline void store_unit(char *to, uint64_t unit)
{
    memcpy(to, &unit, sizeof unit);
}

// Both halves of a unit with their bytes reversed, each in its place.
static inline uint64_t turn_halves(uint64_t unit)
{
    unit = __builtin_bswap64(unit);
    return unit << 32 | unit >> 32;
}

static inline uint64_t with_value(uint64_t key, uint64_t value)
{
    return (uint32_t)key | value << 32;
}

static inline bool has_zero_byte(uint64_t unit)
{
    return ((unit - 0x0101010101010101) & ~unit & 0x8080808080808080) != 0;
}

static inline int type_of_unit(uint64_t unit)
{
    return (int32_t)(uint32_t)unit >> FIELD_TYPE_SHIFT;
}

// Copies [from, from + size), a number of whole units. `to` may be the same place.
static inline void copy_units(const char *from, char *to, int64_t size)
{
    if (from == to)
        return;
    if (size > SHORT_COPY) {
        memcpy(to, from, (size_t)size);
        return;
    }
    int64_t done = 0;
    for (; done + 2 * ENTRY_UNIT <= size; done += 2 * ENTRY_UNIT)
        memcpy(to + done, from + done, 2 * ENTRY_UNIT);
    if (done < size)
        memcpy(to + done, from + done, ENTRY_UNIT);
}

// The rest of a string's entry, whose first unit, `unit`, has been copied. The entry ends with the unit that
// holds the NUL. Its size; 0 if no NUL comes by `end`.
static inline int64_t copy_text(const char *from, char *to, const char *end, uint64_t unit)
{
    constexpr uint64_t key_half = 0xffffffff;
    if (has_zero_byte(unit | key_half))
        return ENTRY_UNIT;
    int64_t size = ENTRY_UNIT, room = end - from;
    // By two units, of which the second one may be the next entry's: that entry puts all of its own behind.
    for (; size < NEAR_TEXT && room - size >= 2 * ENTRY_UNIT; size += 2 * ENTRY_UNIT) {
        __m128i units = _mm_loadu_si128((const __m128i *)(from + size));
        _mm_storeu_si128((__m128i *)(to + size), units);
        int zeros = _mm_movemask_epi8(_mm_cmpeq_epi8(units, _mm_setzero_si128()));
        // Branches, because a size that were computed would keep the next entry waiting.
        if (__builtin_expect((zeros & 0xff) != 0, 0))
            return size + ENTRY_UNIT;
        if (zeros != 0)
            return size + 2 * ENTRY_UNIT;
    }
    const char *nul = (const char *)memchr(from + size, '\0', (size_t)(room - size));
    if (nul == nullptr)
        return 0;
    int64_t whole = aligned_entry(nul + 1 - from);
    copy_units(from + size, to + size, whole - size);
    return whole;
}

// Most entries of most buffers are numbers, many of one size in a row. Where the processor can reorder the
// bytes of 32 at once, turn_run turns such entries by blocks of 128 and 64 bytes, and stops at the first that
// holds another type; elsewhere they go one by one, at an eighth of the speed.
//
// `order` tells for each of 16 bytes, which hold one entry or two, where it comes from; -1 is a zero. The
// keys run from `key_low`, as unsigned numbers, over `key_span` more.
constexpr int RUN_BLOCK = 64;
struct run_kind {
    char order[16];
    uint32_t key_low, key_span;
    int keys;        // a bit for each of the 8 words of 32 bytes: it is a key
    int last_entry;  // offset in a block
};
static constexpr run_kind WORD_RUN = {{3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12},
                                      FB_INT << FIELD_TYPE_SHIFT,
                                      (3 << FIELD_TYPE_SHIFT) - 1,
                                      0x55,
                                      RUN_BLOCK - ENTRY_UNIT};
static constexpr run_kind DOUBLE_RUN = {{3, 2, 1, 0, -1, -1, -1, -1, 15, 14, 13, 12, 11, 10, 9, 8},
                                        FB_DOUBLE << FIELD_TYPE_SHIFT,
                                        (1 << FIELD_TYPE_SHIFT) - 1,
                                        0x11,
                                        RUN_BLOCK - 2 * ENTRY_UNIT};

// The first entry that was left.
__attribute__((target("avx2"), noinline)) static const char *turn_run(const char *from, char *to,
                                                                      const char *end, bool decode,
                                                                      const run_kind *kind)
{
    __m256i order = _mm256_broadcastsi128_si256(_mm_loadu_si128((const __m128i *)kind->order));
    __m256i low = _mm256_set1_epi32((int)kind->key_low), span = _mm256_set1_epi32((int)kind->key_span);
    run_test test = {order, low, span, kind->keys};
    while (end - from >= 2 * RUN_BLOCK && turn_block<4>(from, to, decode, &test)) {
        from += 2 * RUN_BLOCK;
        to += 2 * RUN_BLOCK;
    }
    while (end - from >= RUN_BLOCK && turn_block<2>(from, to, decode, &test)) {
        from += RUN_BLOCK;
        to += RUN_BLOCK;
    }
    return from;
}

// Goes on behind an entry of `size` bytes, which the caller turns, with a run of its kind, if one seems to
// begin there and `kind` isn't null. The number of bytes that are done, that entry included.
static inline int64_t with_run(const char *from, char *to, const char *end, bool decode, const run_kind *kind,
                               int64_t size)
{
    if (kind == nullptr || end - from < RUN_BLOCK + size)
        return size;
    uint32_t key = (uint32_t)get_int32(from + size + kind->last_entry);
    if ((decode ? __builtin_bswap32(key) : key) - kind->key_low > kind->key_span)
        return size;
    return turn_run(from + size, to + size, end, decode, kind) - from;
}

// Turns the entries of [from, end), a whole number of units. False for a bad one, whose type goes to
// `bad_type`.
static inline __attribute__((always_inline)) bool turn_entries(const char *from, char *to, const char *end,
                                                               bool decode, int *bad_type)
{
    bool whole = wire_turns_whole(), wide = __builtin_cpu_supports("avx2");
    while (from < end) {
        uint64_t unit = load_unit(from), turned = turn_halves(unit), host = decode ? turned : unit;
        int64_t size = ENTRY_UNIT, room = end - from;
        int type = type_of_unit(host);
        switch (type) {
        case FB_CHAR:
            store_unit(to, with_value(turned, unit >> 32 & 0xff));
            break;
        case FB_SHORT:
            store_unit(to, with_value(turned, __builtin_bswap16((uint16_t)(unit >> 32))));
            break;
        case FB_INT:
        case FB_LONG:
        case FB_FLOAT:
            size = with_run(from, to, end, decode, wide ? &WORD_RUN : nullptr, size);
            store_unit(to, turned);
            break;
        case FB_DOUBLE:
            size = room < 2 * ENTRY_UNIT ? 0 : 2 * ENTRY_UNIT;
            if (size == 0)
                break;
            turn_double(from + ENTRY_UNIT, to + ENTRY_UNIT, whole);
            size = with_run(from, to, end, decode, wide && whole ? &DOUBLE_RUN : nullptr, size);
            store_unit(to, with_value(turned, 0));
            break;
        case FB_STRING:
            store_unit(to, with_value(turned, unit >> 32));
            size = copy_text(from, to, end, unit);
            break;
        case FB_CARRAY: {
            int32_t length = (int32_t)(host >> 32);
            size = length < 0 || length > room - ENTRY_UNIT
                       ? 0
                       : aligned_entry(FIELD_WIDE_VALUE + (int64_t)length);
            store_unit(to, turned);
            if (size > 0)
                copy_units(from + ENTRY_UNIT, to + ENTRY_UNIT, size - ENTRY_UNIT);
            break;
        }
        default:
            size = 0;
        }
        if (size == 0) {
            *bad_type = type;
            return false;
        }
        from += size;
        to += size;
    }
    return true;
}

// --- Field data.

// Where the parts of a message's field data are, counted from its beginning: a control record, the fields, a
// trailer at the end.
struct field_parts {
    int32_t control;  // bytes of the control record
    int32_t trailer;  // of the trailer
    int64_t fields;   // of the fields, by `datalen`; negative if the lengths contradict one another
};

static int32_t trailer_length(const msg_header *message)
{
    return (message->xflags & XFLAG_TRAILER) != 0 ? (int32_t)(message->xflags & XFLAG_TRAILER_LENGTH) : 0;
}

// True if the data can be in the block; a control record may have been put in front without being counted. A
// header that tells no size was made by somebody who knows what stands behind it.
static bool is_in_block(const msg_header *message, int32_t control)
{
    return message->datalen >= 0 &&
           (message->bufsize == 0 || (int64_t)message->datalen - control <= message->bufsize);
}

static field_parts parts_of(const msg_header *message)
{
    int32_t control = message->buftype == BUF_RQ_FIELD ? RQCTL_SIZE : 0;
    int32_t trailer = trailer_length(message);
    return {control, trailer, (int64_t)message->datalen - control - trailer};
}

static char *bad_entry(const char *code, int type)
{
    VORN_LOG(0, LEVEL_ERROR, code, "0209 internal error : type error: %d", type);
    return nullptr;
}

static char *bad_length(const char *code, int64_t length)
{
    VORN_LOG(0, LEVEL_ERROR, code, "0209 internal error : length error: %d", (int)length);
    return nullptr;
}

// True for a used length that a buffer of `room` bytes can have: entries are whole units.
static bool is_used_length(int64_t used, int64_t room)
{
    return used >= FB_HEAD_SIZE && used <= room && used % ENTRY_UNIT == 0;
}

char *_hton_data_fdl(msg_header *message, int *outlen)
{
    field_parts parts = parts_of(message);
    const char *data = message_data(message), *fields = data + parts.control;
    // The buffer's own word tells how much is sent. It may be more than `datalen`, up to the block's end.
    int64_t capacity = (int64_t)message->bufsize - parts.control;
    int64_t room = parts.fields > capacity ? parts.fields : capacity, used = 0;
    if (parts.fields < 0 || !is_in_block(message, parts.control))
        return bad_length("CSC6405", parts.fields);
    if (parts.fields > 0) {
        used = room < FB_HEAD_SIZE ? -1 : get_int32(fields + 4);
        if (!is_used_length(used, room))
            return bad_length("CSC6405", used);
    }
    int64_t length = used + parts.control + parts.trailer, size = length + BLOCK_OVERHEAD;
    char *block = size > INT32_MAX ? nullptr : (char *)malloc((size_t)size);
    if (block == nullptr) {
        VORN_LOG(1, LEVEL_ERROR, "CSC6404", "0003 memory allocation error : size = %d", (int)size);
        return nullptr;
    }
    char *out = block + HEADER_SIZE, *to = out + parts.control;
    if (parts.trailer > 0)
        memcpy(to + used, data + message->datalen - parts.trailer, (size_t)parts.trailer);
    memcpy(out, data, (size_t)parts.control);
    if (used > 0) {
        int bad_type;
        if (!turn_entries(fields + FB_HEAD_SIZE, to + FB_HEAD_SIZE, fields + used, false, &bad_type)) {
            free(block);
            return bad_entry("CSC6405", bad_type);
        }
        put_word(to, FIELD_BUFFER_MAGIC);
        put_word(to + 4, (uint32_t)used);
        _clear_fcache(to);
    }
    *outlen = (int)length;
    return block;
}

char *_ntoh_data_fdl(msg_header *message, char *from, char *to)
{
    field_parts parts = parts_of(message);
    if (parts.fields < 0 || (parts.fields > 0 && parts.fields < FB_HEAD_SIZE))
        return bad_length("CSC6406", parts.fields);
    const char *fields = from + parts.control;
    char *out = to + parts.control;
    // A server may give the trailer's mark back without the trailer, so the fields may take its place.
    int64_t used = 0, room = parts.fields + parts.trailer;
    if (parts.fields > 0) {
        used = (int32_t)get_word(fields + 4);
        if (!is_used_length(used, room))
            return bad_length("CSC6406", used);
        int bad_type;
        if (!turn_entries(fields + FB_HEAD_SIZE, out + FB_HEAD_SIZE, fields + used, true, &bad_type))
            return bad_entry("CSC6406", bad_type);
    }
    if (from != to) {
        memcpy(to, from, (size_t)parts.control);
        memcpy(out + used, fields + used, (size_t)(room - used));
    }
    if (used > 0) {
        fb_head head = {get_word(fields), (int32_t)used};
        memcpy(out, &head, sizeof head);
        _clear_fcache(out);
    }
    return to;
}

// --- Struct data.

struct record_sizes {
    int index;
    int32_t host, wire;  // 1 at the least
};

static bool find_sizes(const msg_header *message, record_sizes *sizes)
{
    sizes->index = find_struct(message->subtype);
    return sizes->index >= 0 && _get_host_nw_stsize(message->subtype, &sizes->host, &sizes->wire) > 0;
}

// Behind a control record both sides start later, but nothing else counts it: the length is that of the
// records alone, and their number that of all data. What is written ends with the data that is there.
char *_hton_data_sdl(msg_header *message, int *outlen)
{
    record_sizes sizes;
    int32_t trailer = trailer_length(message);
    int64_t length = (int64_t)message->datalen - trailer;
    int32_t control = message->buftype == BUF_RQ_STRUCT ? RQCTL_SIZE : 0;
    if (!find_sizes(message, &sizes) || length < 0 || !is_in_block(message, control))
        return nullptr;
    int64_t encoded = length / sizes.host * sizes.wire, size = encoded + control + trailer + BLOCK_OVERHEAD;
    char *block = size > INT32_MAX ? nullptr : (char *)malloc((size_t)size);
    if (block == nullptr) {
        VORN_LOG(1, LEVEL_ERROR, "CSC6402", "0003 memory allocation error : size = %d",
                 (int)(encoded + BLOCK_OVERHEAD));
        return nullptr;
    }
    const char *data = message_data(message);
    char *out = block + HEADER_SIZE;
    memset(out, 0, (size_t)(encoded + control));  // gaps between members must not show what the heap held
    memcpy(out + encoded, data + length, (size_t)trailer);
    int64_t records = (length - control) / sizes.host;
    for (int64_t i = 0; i < records; i++)
        _sdl_encode(sizes.index, data + control + i * sizes.host, out + control + i * sizes.wire);
    *outlen = (int)(encoded + trailer);
    return block;
}

char *_ntoh_data_sdl(msg_header *message, char *from, char *to, int *outlen)
{
    record_sizes sizes;
    if (!find_sizes(message, &sizes) || message->datalen < 0)
        return nullptr;
    int64_t records = message->datalen / sizes.wire, length = records * sizes.host;
    if (length > INT32_MAX)
        return nullptr;
    // In one place the longer form of a record would run over the next one.
    char *apart = from == to ? (char *)calloc(1, (size_t)length + 1) : nullptr;
    char *out = from == to ? apart : to;
    if (out == nullptr)
        return nullptr;
    if (from != to)
        memset(to, 0, (size_t)length);  // gaps between members must not show what the heap held
    for (int64_t i = 0; i < records; i++)
        _sdl_decode(sizes.index, from + i * sizes.wire, out + i * sizes.host);
    if (apart != nullptr)
        memcpy(to, apart, (size_t)length);
    free(apart);
    *outlen = (int)length;
    return to;
}
}
