// Payload checks: what of a buffer leaves, and what may be received into it.
#include "buffers/payload.h"

#include "buffers/sdli.h"
#include "buffers/tbuffer.h"
#include "fields/fbcommon.h"
#include "runtime/mthr.h"
#include "vorn/buffers.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/session.h"
#include "wire/msgheader.h"

#include <stdlib.h>

extern "C" {

// Length of a buffer whose type can't leave, in place of a length.
constexpr int64_t UNSENDABLE = INT64_MIN;

// Bytes of struct data: whole records, one at the least.
static int64_t struct_length(const msg_header *header, int len)
{
    int size = _get_host_stsize(header->subtype);
    if (size <= 0)
        return UNSENDABLE;
    return size < len ? len - len % size : size;
}

// Used length of a field buffer, as its head tells it.
static int64_t field_length(const char *data)
{
    fb_head head;
    memcpy(&head, data, sizeof head);
    return head.used;
}

// A text and its terminator. The text of a buffer without a NUL ends with the buffer, one byte too long for
// it.
static int64_t string_length(const char *data, const msg_header *header, int len)
{
    int64_t length = header->bufsize > 0 ? (int64_t)strnlen(data, (size_t)header->bufsize) : 0;
    return len <= length ? length + 1 : len;
}

int _data_itype_check(char *data, int len, wthr_var *block)
{
    (void)block;
    if (data == nullptr)
        return 0;
    if (!is_typed_buffer(data)) {
        set_tperrno(TPEITYPE);
        return -1;
    }
    const msg_header *header = message_of(data);
    int64_t length = UNSENDABLE;
    switch (header->buftype) {
    case BUF_STRUCT:
        length = struct_length(header, len);
        break;
    case BUF_FIELD:
        length = field_length(data);
        break;
    case BUF_STRING:
        length = string_length(data, header, len);
        break;
    case BUF_CARRAY:
        length = len;
        break;
    case BUF_START:
        length = (int64_t)sizeof(TPSTART_T);
        break;
    case BUF_HEADER:
        length = 0;
        break;
    }
    if (length == UNSENDABLE) {
        set_tperrno(TPEITYPE);
        return -1;
    }
    if (length < 0 || length > header->bufsize) {
        set_tperrno(TPEINVAL);
        return -1;
    }
    return (int)length;
}

// True if the user's buffer, whose header holds the flags of the call, may not change to the message's type.
static bool type_is_refused(const msg_header *message, const msg_header *user)
{
    return (user->flags & TPNOCHANGE) != 0 &&
           (user->buftype != message->buftype ||
            memcmp(user->subtype, message->subtype, sizeof user->subtype) != 0);
}

int _data_otype_check_no_alloc(const msg_header *message, const msg_header *user, wthr_var *block)
{
    (void)block;
    if (!type_is_refused(message, user))
        return 1;
    set_tperrno(TPEOTYPE);
    return -1;
}

int _data_otype_check2(msg_header **stored, const msg_header *user, wthr_var *block)
{
    if (_data_otype_check_no_alloc(*stored, user, block) < 0)
        return -1;
    if ((*stored)->bufsize >= user->bufsize)
        return 1;
    msg_header *grown = (msg_header *)realloc(*stored, (size_t)user->bufsize + BLOCK_OVERHEAD);
    if (grown == nullptr) {
        set_tperrno(TPESYSTEM);
        return -1;
    }
    grown->bufsize = user->bufsize;
    grown->xflags |= XFLAG_TRAILER_ROOM;
    *stored = grown;
    return 1;
}

int _data_otype_check(const msg_header *message, msg_header **user, wthr_var *block)
{
    if (_data_otype_check_no_alloc(message, *user, block) < 0)
        return -1;
    if ((*user)->bufsize >= message->bufsize)
        return 1;
    int index = _get_idx_from_typeno(message->buftype);
    char name[16], subtype[17];
    int32_t size = message->bufsize;
    if (message->buftype == BUF_STRING && strings_get_a_null())
        size--;  // tpalloc adds it back
    put_name(subtype, sizeof subtype, message->subtype);
    char *data = nullptr;
    if (index >= 0) {
        put_name(name, sizeof name, _tmtypetab[index].name);
        data = tpalloc(name, subtype, size);
    }
    if (data == nullptr) {
        set_tperrno(TPEOS);
        return -1;
    }
    tpfree(message_data(*user));
    *user = message_of(data);
    return 1;
}
}
