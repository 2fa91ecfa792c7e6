// The send path.
//
// Entered from every function that talks to the server, on its thread. Goes to the socket with one send where
// it can: a message of plain bytes is turned to wire order in place, written from the caller's buffer and
// turned back; only struct and field data, compressed and enciphered messages are written from a block of
// their own. msg_mutex is held from the stamping of the call identity until the message is written and its
// waiter is counted: it alone keeps messages of different threads apart on the stream, and the count must
// stand before the reply can arrive.
#include "wire/clhio.h"

#include "buffers/dencode.h"
#include "calls/cscommon.h"
#include "queue/rqctl.h"
#include "runtime/mthr.h"
#include "runtime/semantics.h"
#include "session/cliapi.h"
#include "sqz.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "wire/clhmatch.h"
#include "wire/envelope.h"
#include "wire/frames.h"
#include "wire/msgheader.h"
#include "wire/netapi.h"
#include "wire/trailer.h"

#include <errno.h>
#include <stdlib.h>

extern "C" {

constexpr uint32_t CALLID_COUNT_UNIT = 0x100, CALLID_COUNT_MASK = 0x7ff00;

void advance_callid(uint32_t callid[3])
{
    if ((callid[1] & CALLID_COUNT_MASK) == CALLID_COUNT_MASK)
        callid[1] = (callid[1] & ~CALLID_COUNT_MASK) | CALLID_COUNT_UNIT;
    else
        callid[1] += CALLID_COUNT_UNIT;
}

bool has_waiter(const msg_header *message)
{
    switch (message->msgtype) {
    case MSG_TPCALL:
    case MSG_TPCONNECT:
    case MSG_TPPOST:
    case MSG_TPENQ:
    case MSG_TPDEQ:
    case MSG_TPQSTAT:
    case MSG_TPACALL_BLOCK:
    case MSG_TPREISSUE:
    case MSG_TX_COMMIT:
    case MSG_TX_ROLLBACK:
    case MSG_GETSVG:
    case MSG_GETADDR:
    case MSG_GET_ACTIVESVR:
    case MSG_SQ_REQUEST:
    case MSG_GETSPR:
    case MSG_KMQ_SESSION_OPEN:
    case MSG_KMQ_SESSION_CLOSE:
    case MSG_KMQ_OBJECT_OPEN:
    case MSG_KMQ_OBJECT_CLOSE:
    case MSG_KMQ_SEND:
    case MSG_KMQ_COMMIT:
    case MSG_KMQ_ROLLBACK:
    case MSG_KMQ_RECOVER:
        return true;
    case MSG_TPACALL:
        return (message->seqno & SEQNO_SHARED_CALL) != 0 || (message->flags & TPBLOCK) != 0;
    case MSG_TPNOTIFY:
        return (message->flags & TPNOTIFYACK) != 0;
    }
    return false;
}

static thread_local int sent_fd __attribute__((tls_model("initial-exec"))) = -1;

int last_sent_fd(void)
{
    return sent_fd;
}

int _clh_write_error(int result, int expected, wthr_var *block)
{
    (void)expected;
    if (errno == EPIPE) {
        set_tperrno(block->rolling_failed != 0 ? TPERDCLOSE : TPECLOSE);
        // The result stands where a socket is expected. For the usual -1 the connection stays open for the
        // reader, who finds the end of the stream, unless the handler of SIGPIPE has closed it by now; only
        // what belongs to the session's identity is cleared.
        _clhc_close(result < 0 ? result : -1, block);
        return 1;
    }
    set_tperrno(errno == EAGAIN ? TPEBLOCK : TPEOS);
    return 1;
}

// A going-down warning that is there is heeded before the message leaves. 0, or -1 with tperrno set.
static int heed_warnings(int fd, wthr_var *block)
{
    if (_vorn_eset_check(block->clhfd) > 0) {
        _thread_mutex_lock(&block->roll_mutex);
        _recv_oob_msg(block->clhfd, block);
        _thread_mutex_unlock(&block->roll_mutex);
    }
    if (_wait_while_rolling_start(fd, block) == ETIMEDOUT || block->rolling_failed != 0) {
        set_tperrno(TPERDOWN);
        return -1;
    }
    return 0;
}

// Marks a synchronous call whose context has several threads, and stamps the identity of a call that waits
// for a reply. Expects msg_mutex.
static void stamp_call(msg_header *message, wthr_var *block)
{
    if (block->thread_refs > 0 && message->msgtype == MSG_TPCALL) {
        message->msgtype = MSG_TPACALL;
        message->seqno |= SEQNO_SHARED_CALL;
    }
    bool waits = message->msgtype == MSG_TPCALL ||
                 (message->msgtype == MSG_TPACALL && (message->flags & TPNOREPLY) == 0);
    if (!waits)
        return;
    memcpy(message->callid, block->callid_next, sizeof message->callid);
    advance_callid(block->callid_next);
}

static bool must_be_converted(const msg_header *message)
{
    if (message->datalen == 0)
        return false;
    switch (message->buftype) {
    case BUF_STRUCT:
    case BUF_FIELD:
    case BUF_RQ_STRUCT:
    case BUF_RQ_FIELD:
        return true;
    }
    return false;
}

// Writes `length` bytes; true if all went. On failure tperrno is set. Expects msg_mutex.
static bool write_whole(int fd, const void *bytes, int length, wthr_var *block)
{
    int written = _vorn_writen(fd, bytes, length);
    if (written == length)
        return true;
    _clh_write_error(written, length, block);
    return false;
}

// Writes a wire-order message of `length` bytes as a compressed frame. Expects msg_mutex.
static bool write_compressed(int fd, const msg_header *message, int length, wthr_var *block)
{
    int64_t datalen = length - HEADER_SIZE;
    int64_t room = ((datalen + 148) >> 9) + 148 + datalen;
    char *frame = (char *)malloc((size_t)room + COMPRESSED_FRAME_HEAD);
    int64_t packed = room;
    errno = 0;
    if (frame == nullptr || _vorn_compress(frame + COMPRESSED_FRAME_HEAD, &packed, message, length) != 0) {
        free(frame);
        _clh_write_error(-1, length, block);
        return false;
    }
    put_word(frame, FRAME_COMPRESSED);
    put_word(frame + 4, (uint32_t)packed);
    put_word(frame + 8, (uint32_t)length);
    put_word(frame + 12, 0);
    bool written = write_whole(fd, frame, (int)packed + COMPRESSED_FRAME_HEAD, block);
    free(frame);
    return written;
}

// Writes a message in wire order, header and `datalen` bytes, as the session wants it. True if it went;
// otherwise tperrno is set. Expects msg_mutex.
static bool write_message(int fd, msg_header *message, int datalen, bool converted, wthr_var *block)
{
    int length = datalen + HEADER_SIZE;
    if (_vorn_crypt_sw != 0) {
        int sent = converted ? _crypt_enc_send(message, datalen, block) : _crypt_noenc_send(message, block);
        if (sent < 0)
            _clh_write_error(-1, length, block);
        return sent >= 0;
    }
    if (block->compress_threshold >= 0 && datalen >= block->compress_threshold)
        return write_compressed(fd, message, length, block);
    return write_whole(fd, message, length, block);
}

static int smaller(int a, int b)
{
    return a < b ? a : b;
}

// Sends data that differs on the wire from a converted copy. Expects msg_mutex.
static bool send_converted(int fd, msg_header *message, wthr_var *block)
{
    int length = 0;
    bool fields = message->buftype == BUF_FIELD || message->buftype == BUF_RQ_FIELD;
    char *copy = fields ? _hton_data_fdl(message, &length) : _hton_data_sdl(message, &length);
    if (copy == nullptr) {
        set_tperrno(TPEITYPE);
        return false;
    }
    msg_header *converted = (msg_header *)copy;
    // The struct encoder leaves the control record's place empty; its words are in wire order already.
    if (message->buftype == BUF_RQ_STRUCT)
        memcpy(message_data(converted), message_data(message),
               (size_t)smaller(smaller(length, message->datalen), RQCTL_SIZE));
    memcpy(converted, message, sizeof *converted);
    converted->datalen = length;
    converted = _cs_add_trailer(converted);
    int datalen = converted->datalen;
    _hton_header(converted, converted);
    bool sent = write_message(fd, converted, datalen, true, block);
    free(copy);
    return sent;
}

// A trailer that went out with the message is taken off again.
static void remove_trailer(msg_header *message)
{
    if ((message->xflags & XFLAG_TRAILER) == 0)
        return;
    message->xflags = (message->xflags & ~(uint32_t)XFLAG_TRAILER) | XFLAG_TRAILER_ROOM;
    message->bufsize -= message->bufsize < TRAILER_ROOM ? 0 : TRAILER_ROOM;
    int32_t total = (int32_t)(message->xflags & XFLAG_TRAILER_LENGTH);
    message->datalen -= total < message->datalen ? total : message->datalen;
}

// Sends from the caller's block, whose header is in host order again afterwards. Expects msg_mutex.
static bool send_in_place(int fd, msg_header *message, wthr_var *block)
{
    message = _cs_add_trailer(message);
    int datalen = message->datalen;
    _hton_header(message, message);
    bool sent = write_message(fd, message, datalen, false, block);
    _ntoh_header(message, message);
    remove_trailer(message);
    return sent;
}

// A descriptor that was chosen before the lock: the reader may have closed the socket since, and its number
// may be the application's now. Expects msg_mutex, under which sockets are closed.
static bool is_gone(int fd, const wthr_var *block)
{
    return fd >= 0 && fd != block->clhfd && fd != block->new_clhfd && fd != block->old_clhfd;
}

// The message of a start or an end goes out whatever the server has said.
static bool heeds_warnings(const msg_header *message)
{
    return message->msgtype != MSG_TPSTART && message->msgtype != MSG_TPEND;
}

// CURRENT_SOCKET is whatever the current one is once the lock is held: until then another thread may move the
// session, and the socket that was current before may have ended.
constexpr int CURRENT_SOCKET = -2;
// A message of a conversation belongs to one table; any other to none.
constexpr int32_t ANY_TABLE = -1;

static int send_on(int fd, int32_t generation, msg_header *message, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    if (fd == CURRENT_SOCKET)
        fd = block->clhfd;
    bool has_moved = generation != ANY_TABLE && generation != block->conv_generation;
    if (has_moved || is_gone(fd, block)) {
        _thread_mutex_unlock(&block->msg_mutex);
        set_tperrno(has_moved ? TPEBADDESC : TPEOS);
        return -1;
    }
    set_acall_fd(fd, message, block);
    stamp_call(message, block);
    bool sent =
        must_be_converted(message) ? send_converted(fd, message, block) : send_in_place(fd, message, block);
    if (sent && has_waiter(message)) {
        sent_fd = fd;
        block->waiter_count++;
        if (block->offer_left > 0)
            block->offer_left++;
    }
    _thread_mutex_unlock(&block->msg_mutex);
    return sent ? 1 : -1;
}

int _internal_send_csmsg_to_clh(msg_header *message, wthr_var *block, int fd)
{
    if (heeds_warnings(message) && heed_warnings(fd, block) < 0)
        return -1;
    return send_on(fd, ANY_TABLE, message, block);
}

// The socket is chosen behind the warnings: they may have moved the session to another server, and it is
// there that requests go from then on.
int _send_csmsg_to_clh(msg_header *message, wthr_var *block)
{
    if (heeds_warnings(message) && heed_warnings(block->clhfd, block) < 0)
        return -1;
    return send_on(CURRENT_SOCKET, ANY_TABLE, message, block);
}

int send_in_conversation(msg_header *message, int32_t generation, wthr_var *block)
{
    if (heed_warnings(block->clhfd, block) < 0)
        return -1;
    return send_on(CURRENT_SOCKET, generation, message, block);
}
}
