// The trailer at the end of a message's data.
//
// A trailer comes with a message, so its numbers are checked against one another before they move anything:
// an entry that leads outside the trailer, and a trailer that is longer than the data, end the walk.
#include "wire/trailer.h"

#include "runtime/errlog.h"
#include "wire/msgheader.h"

#include <string.h>

extern "C" {

static constexpr int ENTRY_HEAD = 2;  // type and length

struct trailer_entry {
    char *at;  // its type byte
    char *content;
    int length;  // of the content
};

static int trailer_total(const msg_header *message)
{
    return (int)(message->xflags & XFLAG_TRAILER_LENGTH);
}

static void set_trailer_total(msg_header *message, int total)
{
    message->xflags = (message->xflags & ~(uint32_t)XFLAG_TRAILER_LENGTH) | (uint32_t)total;
}

static char *data_end(msg_header *message)
{
    return message_data(message) + message->datalen;
}

static bool find_entry(msg_header *message, int type, trailer_entry *entry)
{
    if (message == nullptr || (message->xflags & XFLAG_TRAILER) == 0 ||
        message->datalen < trailer_total(message))
        return false;
    char *end = data_end(message);
    char *at = end - trailer_total(message);
    while (end - at >= ENTRY_HEAD) {
        int length = (signed char)at[1];
        if (length < 0 || length > end - at - ENTRY_HEAD)
            return false;
        if ((signed char)at[0] == type) {
            *entry = {at, at + ENTRY_HEAD, length};
            return true;
        }
        at += ENTRY_HEAD + length;
    }
    return false;
}

// The entry goes behind the data; the caller has seen to the room in the trailer. `bufsize` counts the
// reserve from the first entry on, so it bounds the data with its trailer.
static bool append_entry(msg_header *message, const char *data, int type, int length)
{
    if (message->datalen < 0 || message->datalen > message->bufsize - ENTRY_HEAD - length)
        return false;
    char *at = data_end(message);
    at[0] = (char)type;
    at[1] = (char)length;
    memcpy(at + ENTRY_HEAD, data, (size_t)length);
    message->datalen += ENTRY_HEAD + length;
    return true;
}

// False if the message has no room for the entry.
static bool add_entry(msg_header *message, const char *data, int type, int length)
{
    if (length > TRAILER_ROOM - ENTRY_HEAD)
        return false;
    if ((message->xflags & XFLAG_TRAILER_ROOM) != 0) {
        if (message->bufsize < 0 || message->bufsize > INT32_MAX - TRAILER_ROOM)
            return false;
        message->bufsize += TRAILER_ROOM;
        if (!append_entry(message, data, type, length)) {
            message->bufsize -= TRAILER_ROOM;
            return false;
        }
        message->xflags = (message->xflags & ~(uint32_t)XFLAG_TRAILER_ROOM) | XFLAG_TRAILER;
        set_trailer_total(message, ENTRY_HEAD + length);
        return true;
    }
    int total = trailer_total(message);
    if ((message->xflags & XFLAG_TRAILER) == 0 || ENTRY_HEAD + length > TRAILER_ROOM - total ||
        !append_entry(message, data, type, length))
        return false;
    set_trailer_total(message, total + ENTRY_HEAD + length);
    return true;
}

int _vorn_add_trailer(msg_header *message, const char *data, int type, int length)
{
    if (message != nullptr && data != nullptr && length > 0 && add_entry(message, data, type, length))
        return 1;
    VORN_LOG(0, LEVEL_ERROR, "COM0050", "0209 internal error : trailer error");
    return -1;
}

int _vorn_find_trailer(msg_header *message, char *destination, int type, int *length)
{
    trailer_entry entry;
    if (!find_entry(message, type, &entry))
        return 0;
    if (destination == nullptr || length == nullptr || *length <= 0)
        return 1;
    if (*length < entry.length) {
        *length = 0;
        return 1;
    }
    memcpy(destination, entry.content, (size_t)entry.length);
    *length = entry.length;
    return 1;
}

int _vorn_del_trailer(msg_header *message, char *destination, int type, int *length)
{
    trailer_entry entry;
    if (!find_entry(message, type, &entry))
        return 0;
    if (destination != nullptr && length != nullptr && *length >= entry.length) {
        memcpy(destination, entry.content, (size_t)entry.length);
        *length = entry.length;
    } else if (length != nullptr) {
        *length = 0;
    }
    int size = ENTRY_HEAD + entry.length;
    memmove(entry.at, entry.at + size, (size_t)(data_end(message) - (entry.at + size)));
    message->datalen -= size;
    set_trailer_total(message, trailer_total(message) - size);
    if (trailer_total(message) == 0) {
        message->xflags = (message->xflags & ~(uint32_t)XFLAG_TRAILER) | XFLAG_TRAILER_ROOM;
        message->bufsize = message->bufsize > TRAILER_ROOM ? message->bufsize - TRAILER_ROOM : 0;
    }
    return 1;
}

msg_header *_cs_add_trailer(msg_header *message)
{
    return message;
}

msg_header *_cs_del_trailer(msg_header *message)
{
    return message;
}
}
