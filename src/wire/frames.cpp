// Framing: one message off the stream.
//
// What the peer says about lengths is never believed: negative ones are refused, blocks are made as large as
// the larger of `bufsize` and `datalen` and carry a trailer's room behind the data, and what a compressed or
// enciphered frame turns out to hold is measured before it is used. A small message costs one allocation and
// one recv: the first read of a frame takes what the socket has, up to READ_AHEAD_SIZE, and what belongs to
// the next frame waits in the block. A long reply of plain bytes is read into the buffer of the thread that
// awaits it.
#include "wire/frames.h"

#include "buffers/dencode.h"
#include "buffers/sdli.h"
#include "calls/cscommon.h"
#include "fields/fbcommon.h"
#include "runtime/errlog.h"
#include "runtime/mthr.h"
#include "runtime/semantics.h"
#include "sqz.h"
#include "tx/tx.h"
#include "vorn/errors.h"
#include "wire/clhmatch.h"
#include "wire/clhread.h"
#include "wire/envelope.h"
#include "wire/msgheader.h"
#include "wire/netapi.h"
#include "wire/trailer.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <time.h>

extern "C" {

constexpr int64_t FIRST_BLOCK = 2000;
// Data of this length isn't copied if it can be read to where it belongs.
constexpr int32_t IN_PLACE_FROM = 4096;

struct frame_reader {
    int fd;
    bool alone;  // beside the thread with the reader role, which owns the read-ahead
    int stall_seconds;
    msg_header *want;  // null: none is awaited
    wthr_var *block;
    time_t deadline;  // of the whole frame; 0: none
    char *bytes;      // owned; FIRST_BLOCK bytes at least
    int64_t size;
};

// Takes what was read ahead on the reader's socket; the number of bytes.
static int take_read_ahead(frame_reader *reader, char *to, int64_t length)
{
    read_ahead *ahead = &reader->block->ahead;
    if (reader->alone || ahead->fd != reader->fd)
        return 0;
    int there = ahead->end - ahead->begin;
    int taken = there < length ? there : (int)length;
    memcpy(to, ahead->bytes + ahead->begin, (size_t)taken);
    ahead->begin += taken;
    if (ahead->begin == ahead->end)
        ahead->fd = -1;
    return taken;
}

// One recv. Above 0 if bytes came; otherwise what _vorn_readn gives when nothing came.
static int receive_some(int fd, char *to, size_t room)
{
    for (;;) {
        ssize_t got = recv(fd, to, room, 0);
        if (got >= 0)
            return (int)got;
        if (errno == EAGAIN)
            return -TPEBLOCK;
        if (errno != EINTR)
            return -1;
        if (_tx_timeout_check(nullptr) < 0)
            return -TPETIME;
    }
}

static int fill_read_ahead(frame_reader *reader)
{
    read_ahead *ahead = &reader->block->ahead;
    int got = receive_some(reader->fd, ahead->bytes, sizeof ahead->bytes);
    if (got > 0) {
        ahead->begin = 0;
        ahead->end = got;
        ahead->fd = reader->fd;
    }
    return got;
}

// Seconds for which the frame may stand still from here on; 1 at the least.
static int stall_of(const frame_reader *reader)
{
    int64_t left = reader->deadline == 0 ? reader->stall_seconds : reader->deadline - time(nullptr);
    return left > 0 ? (int)left : 1;
}

// Reads exactly `length` bytes of a frame that has begun. The number read; a short one at the end of the
// stream; -1; -TPESYSTEM after a stall.
static int64_t read_rest(frame_reader *reader, char *to, int64_t length)
{
    int64_t done = take_read_ahead(reader, to, length);
    while (done < length) {
        ssize_t got = recv(reader->fd, to + done, (size_t)(length - done),
                           reader->stall_seconds > 0 ? MSG_DONTWAIT : MSG_WAITALL);
        if (got == 0)
            break;
        if (got > 0) {
            done += got;
            if (reader->deadline != 0 && done < length && time(nullptr) > reader->deadline)
                return -TPESYSTEM;  // a peer that sends byte by byte would stall for ever
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN)
            return -1;
        int ready = _set_bc_timer3(stall_of(reader), nullptr, reader->fd);
        if (ready == TIMER_FAILED)
            return -1;
        if (ready == TIMER_EXPIRED && reader->stall_seconds > 0)
            return -TPESYSTEM;
    }
    return done;
}

// Reads the first bytes of a frame. Nothing kept for another socket is given up for it.
static int64_t read_head(frame_reader *reader, char *to, int length)
{
    errno = 0;
    if (reader->alone || (reader->block->ahead.fd >= 0 && reader->block->ahead.fd != reader->fd)) {
        int first = receive_some(reader->fd, to, (size_t)length);
        if (first <= 0)
            return first;
        int64_t rest = read_rest(reader, to + first, length - first);
        return rest < 0 ? rest : first + rest;
    }
    int got = reader->block->ahead.fd == reader->fd ? 1 : fill_read_ahead(reader);
    return got <= 0 ? got : read_rest(reader, to, length);
}

// A failed read; read_frame frees the block. A result below -1 is an error number; any other is for
// _clh_read_error to judge.
static frame_result failed(frame_reader *reader, int64_t result)
{
    if (result >= -1 && !reader->alone && is_previous_socket(reader->fd, reader->block)) {
        end_previous_socket(reader->fd, reader->block);
        return FRAME_OLD_SOCKET;
    }
    if (result < -1)
        set_tperrno((int)-result);
    else
        _clh_read_error(reader->fd, result > 0 ? 1 : (int)result, 0, reader->block);
    return FRAME_FAILED;
}

static frame_result refused(frame_reader *reader)
{
    errno = EBADMSG;
    return failed(reader, -1);
}

static frame_result without_memory(void)
{
    set_tperrno(TPEOS);
    return FRAME_FAILED;
}

// Reads the next `length` bytes of the frame into the block, over and over.
static void read_away(frame_reader *reader, int64_t length)
{
    while (length > 0) {
        int64_t part = length < reader->size ? length : reader->size;
        if (read_rest(reader, reader->bytes, part) != part)
            return;
        length -= part;
    }
}

// Makes the block `size` bytes large. Where that fails, the `coming` bytes of the frame that are still to be
// read are read away, so that the next frame is met at its beginning.
static bool make_room(frame_reader *reader, int64_t size, int64_t coming)
{
    if (size <= reader->size)
        return true;
    char *grown = (char *)realloc(reader->bytes, (size_t)size);
    if (grown == nullptr) {
        read_away(reader, coming);
        return false;
    }
    reader->bytes = grown;
    reader->size = size;
    return true;
}

// Puts another block, of `size` bytes, in the place of the frame's.
static void replace_block(frame_reader *reader, char *bytes, int64_t size)
{
    free(reader->bytes);
    reader->bytes = bytes;
    reader->size = size;
}

// Completes a frame of known length; FRAME_MESSAGE if all of it came.
static frame_result read_body(frame_reader *reader, int64_t offset, int64_t length)
{
    int64_t got = read_rest(reader, reader->bytes + offset, length);
    return got == length ? FRAME_MESSAGE : failed(reader, got);
}

// A message that stands in the block in wire order and of which `length` bytes are there. Its data must be
// among them; its `bufsize` may be anything, and is made true.
static frame_result accept_message(frame_reader *reader, int64_t length)
{
    msg_header *message = (msg_header *)reader->bytes;
    if (length < HEADER_SIZE)
        return refused(reader);
    _ntoh_header(message, message);
    if (message->datalen < 0 || message->datalen > length - HEADER_SIZE)
        return refused(reader);
    if (message->bufsize < message->datalen)
        message->bufsize = message->datalen;
    if (!make_room(reader, (int64_t)message->bufsize + BLOCK_OVERHEAD, 0))
        return without_memory();
    message = (msg_header *)reader->bytes;
    // A text without its terminator ends here and not in what follows the block.
    if (message->buftype == BUF_STRING)
        message_data(message)[message->datalen] = '\0';
    return FRAME_MESSAGE;
}

// The awaited reply, of which the header has come: its data goes straight into the block of `want`.
static frame_result read_in_place(frame_reader *reader, const msg_header *head)
{
    msg_header *want = reader->want;
    char *data = message_data(want);
    int64_t got = read_rest(reader, data, head->datalen);
    if (got != head->datalen) {
        // What the caller waits for has been cut: his wait is over, also where the session goes on.
        if (failed(reader, got) == FRAME_OLD_SOCKET)
            set_tperrno(TPECLOSE);
        return FRAME_FAILED;
    }
    int32_t bufsize = want->bufsize;
    memcpy(want, head, sizeof *want);
    want->bufsize = bufsize;
    if (head->buftype == BUF_STRING && data[head->datalen - 1] != '\0')
        data[head->datalen] = '\0';  // in the reserve, if need be
    return FRAME_IN_PLACE;
}

static frame_result read_plain(frame_reader *reader)
{
    int64_t got = read_rest(reader, reader->bytes + SHORTEST_FRAME_HEAD, HEADER_SIZE - SHORTEST_FRAME_HEAD);
    if (got != HEADER_SIZE - SHORTEST_FRAME_HEAD)
        return failed(reader, got);
    int32_t bufsize = (int32_t)get_word(reader->bytes + offsetof(msg_header, bufsize));
    int32_t datalen = (int32_t)get_word(reader->bytes + offsetof(msg_header, datalen));
    if (datalen < 0)
        return refused(reader);
    if (datalen >= IN_PLACE_FROM && reader->want != nullptr) {
        msg_header head;
        _ntoh_header((const msg_header *)reader->bytes, &head);
        undo_shared_call(&head);
        if (may_be_read_in_place(reader->want, &head, reader->block))
            return read_in_place(reader, &head);
    }
    if (!make_room(reader, (int64_t)(bufsize > datalen ? bufsize : datalen) + BLOCK_OVERHEAD, datalen))
        return without_memory();
    frame_result result = read_body(reader, HEADER_SIZE, datalen);
    return result == FRAME_MESSAGE ? accept_message(reader, (int64_t)datalen + HEADER_SIZE) : result;
}

// Data without a header of its own: it gets one, as a message sent to the client.
static frame_result read_raw(frame_reader *reader)
{
    int32_t length = (int32_t)get_word(reader->bytes + 4);
    if (length < 0)
        return refused(reader);
    if (!make_room(reader, (int64_t)length + BLOCK_OVERHEAD, length))
        return without_memory();
    msg_header *message = (msg_header *)reader->bytes;
    _init_header(message);
    message->buftype = BUF_CARRAY;
    message->datalen = length;
    message->bufsize = length;
    message->msgtype = MSG_TPSENDTOCLI;
    return read_body(reader, HEADER_SIZE, length);
}

// Reads the rest of a frame whose payload stands behind a head of 16 bytes, and gives the payload's length;
// what else than FRAME_MESSAGE the reading gave goes to `result`.
static int32_t read_wrapped(frame_reader *reader, frame_result *result)
{
    int32_t length = (int32_t)get_word(reader->bytes + 4);
    int64_t size = (int64_t)length + COMPRESSED_FRAME_HEAD, coming = size - SHORTEST_FRAME_HEAD;
    if (length < 0)
        *result = refused(reader);
    else if (!make_room(reader, size, coming))
        *result = without_memory();
    else
        *result = read_body(reader, SHORTEST_FRAME_HEAD, coming);
    return length;
}

static frame_result read_compressed(frame_reader *reader)
{
    frame_result result;
    int32_t length = read_wrapped(reader, &result);
    if (result != FRAME_MESSAGE)
        return result;
    int64_t size = (int32_t)get_word(reader->bytes + 12);
    if (size < FIRST_BLOCK)
        size = FIRST_BLOCK;
    char *message = (char *)malloc((size_t)size + TRAILER_ROOM);
    if (message == nullptr)
        return without_memory();
    int64_t unpacked = size;
    int status = _vorn_uncompress(message, &unpacked, reader->bytes + COMPRESSED_FRAME_HEAD, length);
    replace_block(reader, message, size + TRAILER_ROOM);
    if (status != 0) {
        errno = EBADMSG;
        return failed(reader, -1);
    }
    return accept_message(reader, unpacked < size ? unpacked : size);
}

// On an enciphered connection a step comes in clear, and is heard only while keys are exchanged: later it
// would bring a stranger's bytes to the application.
static bool is_step_heard(const msg_header *want)
{
    return _vorn_crypt_sw == 0 ||
           (want != nullptr && want->msgtype == MSG_TPSTART && want->buftype == BUF_NEGOTIATION);
}

constexpr int32_t LONGEST_STEP = 0x10000;  // far more than a provider needs; keys don't protect it

static frame_result read_envelope(frame_reader *reader)
{
    frame_result result;
    int32_t length = read_wrapped(reader, &result);
    if (result != FRAME_MESSAGE)
        return result;
    int32_t buftype = (int32_t)get_word(reader->bytes + 8);
    int32_t msgtype = (int32_t)get_word(reader->bytes + 12);
    int64_t size = (int64_t)length + BLOCK_OVERHEAD;
    char *bytes = (char *)malloc((size_t)size);
    if (bytes == nullptr)
        return without_memory();
    const char *payload = reader->bytes + ENVELOPE_FRAME_HEAD;
    if (msgtype == MSG_TPSTART + REPLY) {
        bool too_long = _vorn_crypt_sw != 0 && length > LONGEST_STEP;
        if (too_long || !is_step_heard(reader->want)) {
            free(bytes);
            return failed(reader, -TPESYSTEM);
        }
        msg_header *step = (msg_header *)bytes;
        _init_header(step);
        step->buftype = buftype;
        step->msgtype = msgtype;
        step->datalen = length;
        step->bufsize = length;
        memcpy(message_data(step), payload, (size_t)length);
        message_data(step)[length] = '\0';  // it may come to the application, as a text
        replace_block(reader, bytes, size);
        return FRAME_NEGOTIATION;
    }
    int plain = decipher(bytes, payload, length, reader->block);
    replace_block(reader, bytes, size);
    if (plain < HEADER_SIZE)
        return FRAME_FAILED;  // with tperrno as it stands
    return accept_message(reader, plain < size ? plain : size);
}

// Turns struct data to host form, in place or, where the two forms differ in size, into a new block.
static frame_result convert_struct(frame_reader *reader)
{
    msg_header *message = (msg_header *)reader->bytes;
    int host = 1, net = 1;
    if (_get_host_nw_stsize(message->subtype, &host, &net) < 0 || host < 1 || net < 1)
        return refused(reader);
    char *data = message_data(message);
    int length = message->datalen;
    if (host == net) {
        if (_ntoh_data_sdl(message, data, data, &length) == nullptr)
            return failed(reader, -TPESYSTEM);
        message->datalen = length;  // whole records
        return FRAME_MESSAGE;
    }
    int64_t host_length = (int64_t)message->datalen / net * host;
    int64_t bufsize = host_length > message->bufsize ? host_length : message->bufsize;
    int64_t size = bufsize + BLOCK_OVERHEAD;
    msg_header *converted = size > INT32_MAX ? nullptr : (msg_header *)malloc((size_t)size);
    if (converted == nullptr)
        return without_memory();
    memcpy(converted, message, HEADER_SIZE);
    char *done = _ntoh_data_sdl(converted, data, message_data(converted), &length);
    converted->datalen = length;
    converted->bufsize = (int32_t)bufsize;
    replace_block(reader, (char *)converted, size);
    return done != nullptr ? FRAME_MESSAGE : failed(reader, -TPESYSTEM);
}

// Turns struct and field data to host form. A queue-control message of type 11 goes the way of field data,
// though it left as a struct.
static frame_result convert_data(frame_reader *reader)
{
    msg_header *message = (msg_header *)reader->bytes;
    char *data = message_data(message);
    if (message->datalen == 0) {
        if (message->buftype == BUF_FIELD)
            init_field_buffer(
                data);  // in the reserve, if need be: the block may become the application's buffer
        return FRAME_MESSAGE;
    }
    switch (message->buftype) {
    case BUF_STRUCT:
        return convert_struct(reader);
    case BUF_FIELD:
    case BUF_RQ_STRUCT:
    case BUF_RQ_FIELD:
        return _ntoh_data_fdl(message, data, data) != nullptr ? FRAME_MESSAGE : failed(reader, -TPESYSTEM);
    }
    return FRAME_MESSAGE;
}

static frame_result read_by_kind(frame_reader *reader)
{
    uint32_t kind = get_word(reader->bytes);
    // What comes in clear on an enciphered connection isn't the server's: the connection is given up.
    if (_vorn_crypt_sw != 0 && kind != FRAME_ENVELOPE)
        return failed(reader, 0);
    switch (kind) {
    case FRAME_RAW:
        return read_raw(reader);
    case FRAME_COMPRESSED:
        return read_compressed(reader);
    case FRAME_ENVELOPE:
        return read_envelope(reader);
    }
    return read_plain(reader);
}

static frame_result read_one(frame_reader *reader, int body_fd, msg_header **message)
{
    if (reader->bytes == nullptr) {
        VORN_LOG(1, LEVEL_ERROR, "CSC5701", "0001 memory allocation error : size = %d", (int)FIRST_BLOCK);
        return without_memory();
    }
    int64_t got = read_head(reader, reader->bytes, SHORTEST_FRAME_HEAD);
    if (got != SHORTEST_FRAME_HEAD) {
        frame_result ended = failed(reader, got);
        free(reader->bytes);
        if (ended == FRAME_OLD_SOCKET)
            return ended;
        if (got != 0 || reader->block->clhfd < 0)
            return FRAME_FAILED;
        set_tperrno(0);
        return FRAME_OLD_SOCKET;
    }
    reader->fd = body_fd;
    frame_result result = read_by_kind(reader);
    if (result == FRAME_MESSAGE) {
        _cs_del_trailer((msg_header *)reader->bytes);
        result = convert_data(reader);
    }
    if (result == FRAME_FAILED || result == FRAME_IN_PLACE || result == FRAME_OLD_SOCKET)
        free(reader->bytes);
    else
        *message = (msg_header *)reader->bytes;
    return result;
}

frame_result read_frame(int fd, int stall_seconds, msg_header *want, msg_header **message, wthr_var *block)
{
    frame_reader reader = {fd,         false, stall_seconds, want, block, 0, (char *)malloc(FIRST_BLOCK),
                           FIRST_BLOCK};
    return read_one(&reader, fd, message);
}

frame_result read_frame_alone(int head_fd, int body_fd, int stall_seconds, msg_header **message,
                              wthr_var *block)
{
    time_t deadline = stall_seconds > 0 ? time(nullptr) + stall_seconds : 0;
    frame_reader reader = {
        head_fd, true, stall_seconds, nullptr, block, deadline, (char *)malloc(FIRST_BLOCK), FIRST_BLOCK};
    return read_one(&reader, body_fd, message);
}
}
