// Whole messages between their host and their wire form.
#include "buffers/convert.h"

#include "buffers/dencode.h"
#include "buffers/payload.h"
#include "buffers/sdli.h"
#include "calls/cscommon.h"
#include "fields/fbcommon2.h"
#include "runtime/thrapi.h"
#include "session/cliapi.h"
#include "vorn/buffers.h"
#include "vorn/errors.h"
#include "wire/msgheader.h"

#include <limits.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

// Fields behind a control record go through the struct encoder here, unlike on the way to a socket.
static char *encode_data(msg_header *message, int *length)
{
    return message->buftype == BUF_FIELD ? _hton_data_fdl(message, length) : _hton_data_sdl(message, length);
}

msg_header *_vorn_encode_odata(msg_header *message)
{
    if (!has_wire_form(message))
        return message;
    int length;
    msg_header *encoded = (msg_header *)encode_data(message, &length);
    if (encoded == nullptr)
        return nullptr;
    // The header goes on telling the old block's size, up to which a buffer is written once the data has been
    // turned back in place.
    int32_t bufsize = message->bufsize;
    size_t size = (size_t)(bufsize > length ? bufsize : length) + BLOCK_OVERHEAD;
    msg_header *grown = bufsize > length ? (msg_header *)realloc(encoded, size) : encoded;
    if (grown == nullptr) {
        free(encoded);
        return nullptr;
    }
    memcpy(grown, message, sizeof *grown);
    grown->datalen = length;
    free(message);
    return grown;
}

// A block with the header of `message` and room for `bufsize` bytes of data, their terminator and a trailer;
// `bufsize` is kept in the header, so that it may serve as a typed buffer. Null.
static msg_header *block_for(const msg_header *message, int64_t bufsize)
{
    int64_t size = bufsize + BLOCK_OVERHEAD + 1;
    msg_header *block = size > INT32_MAX ? nullptr : (msg_header *)malloc((size_t)size);
    if (block == nullptr)
        return nullptr;
    memcpy(block, message, sizeof *block);
    block->bufsize = (int32_t)bufsize;
    return block;
}

static int64_t larger(int64_t a, int64_t b)
{
    return a > b ? a : b;
}

// Decodes from `from` into the block of `message`, whose `datalen` becomes that of the host form.
static bool decode_data(msg_header *message, char *from)
{
    char *to = message_data(message);
    if (message->buftype != BUF_STRUCT)
        return _ntoh_data_fdl(message, from, to) != nullptr;
    int length;
    if (_ntoh_data_sdl(message, from, to, &length) == nullptr)
        return false;
    message->datalen = length;
    return true;
}

msg_header *_vorn_decode_idata(msg_header *message)
{
    if (!has_wire_form(message))
        return message;
    if (message->datalen < 0)
        return nullptr;
    int host = 1, net = 1;
    if (message->buftype == BUF_STRUCT && _get_host_nw_stsize(message->subtype, &host, &net) < 0)
        return nullptr;
    if (host == net)
        return decode_data(message, message_data(message)) ? message : nullptr;
    int64_t length = (int64_t)message->datalen / net * host;
    msg_header *decoded = block_for(message, larger(length, message->bufsize));
    if (decoded == nullptr)
        return nullptr;
    bool done = decode_data(decoded, message_data(message));
    free(done ? message : decoded);
    return done ? decoded : nullptr;
}

static constexpr api_text TPHTON = API_TEXT("tphton", "(%#x, %d, %#x, %#x)");
static constexpr api_text TPNTOH = API_TEXT("tpntoh", "(%#x, %d, %#x, %#x)");

// The wire form of a message as a block of its own, which the caller frees; null, with tperrno set if it is
// for want of memory. `*outlen` counts the header.
static char *wire_block(msg_header *message, long *outlen)
{
    int length = message->datalen;
    char *block;
    if (has_wire_form(message)) {
        block = encode_data(message, &length);
        if (block == nullptr)
            return nullptr;
        message->datalen = length;
        _hton_header(message, (msg_header *)block);
    } else {
        block = (char *)malloc((size_t)length + HEADER_SIZE);
        if (block == nullptr) {
            set_tperrno(TPESYSTEM);
            return nullptr;
        }
        memcpy(block, message, (size_t)length + HEADER_SIZE);
        msg_header *copy = (msg_header *)block;
        copy->bufsize = length;
        _hton_header(copy, copy);
    }
    *outlen = (long)length + HEADER_SIZE;
    return block;
}

int tphton(char *data, long len, char **out, long *outlen)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPHTON, data, (int)len, out, outlen))
        return -1;
    set_tperrno(0);
    check_node_once();
    if (out == nullptr || outlen == nullptr)
        return api_fail(&frame, &TPHTON, TPEINVAL);
    int datalen = _data_itype_check(data, buffer_length(len), frame.block);
    if (datalen < 0)
        return api_error(&frame, &TPHTON);
    msg_header *message = data != nullptr ? message_of(data) : _header_msg_make(0, 0);
    if (message == nullptr)
        return api_fail(&frame, &TPHTON, TPESYSTEM);
    message->msgtype = MSG_TPCALL;
    message->rcode = 0;
    message->target = 0;
    message->svcname[0] = '\0';
    message->datalen = datalen;
    message->flags = 0;
    message->cd = 0;
    message->seqno = next_seqno(frame.block);
    char *block = wire_block(message, outlen);
    if (data == nullptr)
        free(message);
    if (block == nullptr)
        return api_error(&frame, &TPHTON);
    *out = block;
    return api_return(&TPHTON, 1);
}

// The message of header `head`, in host order, and the wire data at `from`, as a typed buffer. 0, or an error
// number.
static int typed_buffer(const msg_header *head, char *from, msg_header **made)
{
    int host = 1, net = 1, error = 0;
    bool known = head->buftype != BUF_STRUCT || _get_host_nw_stsize(head->subtype, &host, &net) > 0;
    int64_t length = larger(head->datalen, (int64_t)head->datalen / net * host);  // records may grow
    bool empty_fields = head->buftype == BUF_FIELD && head->datalen == 0;
    msg_header *block = block_for(head, larger(empty_fields ? FB_HEAD_SIZE : length, head->bufsize));
    if (block == nullptr)
        return TPEOS;
    if (empty_fields) {
        init_field_buffer(message_data(block));
        _clear_fcache(message_data(block));
    } else if (!has_wire_form(head)) {
        memcpy(message_data(block), from, (size_t)head->datalen);
        // A text without its terminator ends here and not in what follows the block.
        message_data(block)[head->datalen] = '\0';
    } else if (!known) {
        error = TPEOTYPE;
    } else {
        error = decode_data(block, from) ? 0 : TPESYSTEM;
    }
    if (error != 0) {
        free(block);
        return error;
    }
    *made = block;
    return 0;
}

int tpntoh(char *in, long inlen, char **out, long *outlen)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPNTOH, in, (int)inlen, out, outlen))
        return -1;
    set_tperrno(0);
    check_node_once();
    if (in == nullptr || out == nullptr || outlen == nullptr || (uint64_t)inlen < HEADER_SIZE)
        return api_fail(&frame, &TPNTOH, TPEINVAL);
    msg_header head;
    memcpy(&head, in, sizeof head);
    _ntoh_header(&head, &head);
    // A negative `datalen` is more than there can be.
    if (head.magic != MESSAGE_MAGIC || (uint64_t)inlen - HEADER_SIZE < (uint32_t)head.datalen ||
        head.datalen < 0)
        return api_fail(&frame, &TPNTOH, TPEINVAL);
    msg_header *block;
    int error = typed_buffer(&head, in + HEADER_SIZE, &block);
    if (error != 0)
        return api_fail(&frame, &TPNTOH, error);
    *out = message_data(block);
    *outlen = block->datalen;
    return api_return(&TPNTOH, 1);
}
}
