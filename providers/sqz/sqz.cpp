// libsqz over LZ4 blocks, with a stored form for what doesn't shrink.
//
// The sender reckons its room before it knows the data: that of the message plus 12 bytes and a five hundred
// and twelfth part. LZ4 alone can need a 255th part more than its input on random data, so whatever doesn't
// become smaller is stored as it stands, and the room suffices for every message.
#include "sqz.h"

#include <errno.h>
#include <limits.h>
#include <lz4.h>
#include <string.h>

extern "C" {

// The head in front of the content; the layout is told in FORMAT.md.
constexpr int64_t MARK_AT = 0;     // "SQ"
constexpr int64_t VERSION_AT = 2;  // 1
constexpr int64_t FORM_AT = 3;     // FORM_*
constexpr int64_t LENGTH_AT = 4;   // length of the uncompressed message, big-endian
constexpr int64_t HEAD_SIZE = 8;
static_assert(HEAD_SIZE == SQZ_OVERHEAD);

constexpr uint8_t MARK[2] = {'S', 'Q'};
constexpr uint8_t VERSION = 1;
constexpr uint8_t FORM_STORED = 0;
constexpr uint8_t FORM_LZ4 = 1;

// The receive path looks into errno after a failure, and what an earlier call left there could stand for a
// lost connection. So each failure sets it.
static int fail(int result)
{
    errno = result == SQZ_EARGUMENT ? EINVAL : result == SQZ_EROOM ? ENOSPC : EBADMSG;
    return result;
}

static int64_t smaller(int64_t a, int64_t b)
{
    return a < b ? a : b;
}

static void put_head(uint8_t *head, uint8_t form, int64_t uncompressed)
{
    memcpy(head + MARK_AT, MARK, sizeof MARK);
    head[VERSION_AT] = VERSION;
    head[FORM_AT] = form;
    for (int i = 0; i < 4; i++)
        head[LENGTH_AT + i] = static_cast<uint8_t>(uncompressed >> (24 - 8 * i));
}

static int64_t get_length(const uint8_t *head)
{
    int64_t length = 0;
    for (int i = 0; i < 4; i++)
        length = length << 8 | head[LENGTH_AT + i];
    return length;
}

// Null areas are allowed where they are empty.
static bool arguments_fit(const void *destination, const int64_t *length, const void *source,
                          int64_t source_length)
{
    if (length == nullptr || *length < 0 || source_length < 0 || source_length > INT_MAX)
        return false;
    return (destination != nullptr || *length == 0) && (source != nullptr || source_length == 0);
}

int _vorn_compress(void *destination, int64_t *length, const void *source, int64_t source_length)
{
    if (!arguments_fit(destination, length, source, source_length))
        return fail(SQZ_EARGUMENT);
    if (*length < HEAD_SIZE)
        return fail(SQZ_EROOM);
    uint8_t *head = static_cast<uint8_t *>(destination);
    char *content = static_cast<char *>(destination) + HEAD_SIZE;
    int64_t room = *length - HEAD_SIZE;

    // LZ4 gets one byte less than the source has, so that it gives up where storing is no longer.
    int64_t limit = smaller(room, source_length - 1);
    if (limit > 0 && source_length <= LZ4_MAX_INPUT_SIZE) {
        int written = LZ4_compress_default(static_cast<const char *>(source), content,
                                           static_cast<int>(source_length), static_cast<int>(limit));
        if (written > 0) {
            put_head(head, FORM_LZ4, source_length);
            *length = HEAD_SIZE + written;
            return SQZ_OK;
        }
    }

    if (source_length > room)
        return fail(SQZ_EROOM);
    put_head(head, FORM_STORED, source_length);
    if (source_length > 0)
        memcpy(content, source, static_cast<size_t>(source_length));
    *length = HEAD_SIZE + source_length;
    return SQZ_OK;
}

int _vorn_uncompress(void *destination, int64_t *length, const void *source, int64_t source_length)
{
    if (!arguments_fit(destination, length, source, source_length))
        return fail(SQZ_EARGUMENT);
    const uint8_t *head = static_cast<const uint8_t *>(source);
    if (source_length < HEAD_SIZE || memcmp(head + MARK_AT, MARK, sizeof MARK) != 0 ||
        head[VERSION_AT] != VERSION)
        return fail(SQZ_EDAMAGED);
    const char *content = static_cast<const char *>(source) + HEAD_SIZE;
    int64_t content_length = source_length - HEAD_SIZE;
    int64_t uncompressed = get_length(head);
    if (uncompressed > INT_MAX)
        return fail(SQZ_EDAMAGED);
    if (uncompressed > *length)
        return fail(SQZ_EROOM);

    if (head[FORM_AT] == FORM_STORED) {
        if (content_length != uncompressed)
            return fail(SQZ_EDAMAGED);
        if (uncompressed > 0)
            memcpy(destination, content, static_cast<size_t>(uncompressed));
    } else if (head[FORM_AT] == FORM_LZ4) {
        // The sender stores what doesn't shrink, so a block as long as its message is not the sender's work.
        if (content_length >= uncompressed)
            return fail(SQZ_EDAMAGED);
        int written = LZ4_decompress_safe(content, static_cast<char *>(destination),
                                          static_cast<int>(content_length), static_cast<int>(uncompressed));
        if (written != uncompressed)
            return fail(SQZ_EDAMAGED);
    } else {
        return fail(SQZ_EDAMAGED);
    }
    *length = uncompressed;
    return SQZ_OK;
}

}  // extern "C"
