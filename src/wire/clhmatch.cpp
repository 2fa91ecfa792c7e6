// What becomes of a message that the reader took from the stream.
#include "wire/clhmatch.h"

#include "buffers/tbuffer.h"
#include "calls/convapi.h"
#include "calls/cscommon.h"
#include "calls/unsolapi.h"
#include "kmq/kmqapi.h"
#include "runtime/errlog.h"
#include "runtime/mthr.h"
#include "session/cliapi.h"
#include "session/rolling.h"
#include "tx/tx.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/tx.h"
#include "vorn/unsol.h"
#include "wire/clhio.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {

// --- Matching.

// A reply to a call or to a receive of a conversation, whose descriptor must be open in its table.
static int descriptor_matches(const msg_header *want, const msg_header *message, wthr_var *block)
{
    if ((want->flags & TPGETANY) == 0 && want->cd != message->cd)
        return 0;
    int row = want->msgtype == MSG_TPACALL ? _get_acall_cd_ind(message->cd, block)
                                           : _get_conv_cd_ind(message->cd, block);
    return row >= 0;
}

// A message whose type is the reply, or one of the two error replies, of the awaited type.
static int reply_matches(const msg_header *want, const msg_header *message, wthr_var *block)
{
    switch (want->msgtype) {
    case MSG_TPACALL:
    case MSG_TPRECV:
        return descriptor_matches(want, message, block);
    case MSG_TPCALL:
    case MSG_TPACALL_BLOCK:
        return want->seqno == message->seqno;
    case MSG_TPCONNECT:
        return want->target == message->target;  // sent, and answered, in one table of conversations
    case MSG_SQ_REQUEST:
        // What comes of a broadcast that one node has settled would be taken for the answer to the next
        // request.
        return want->seqno == message->seqno || message->seqno == 0;
    case MSG_TX_COMMIT:
    case MSG_TX_ROLLBACK:
        return want->seqno == message->seqno || engine_version() < 1;
    }
    return 1;
}

static int32_t unsol_kind(int32_t msgtype)
{
    switch (msgtype) {
    case MSG_TPPOST:
        return UNSOL_POST;
    case MSG_TPBROADCAST:
        return UNSOL_BROADCAST;
    case MSG_TPNOTIFY:
        return UNSOL_NOTIFY;
    case MSG_TPSENDTOCLI:
        return UNSOL_SENDTOCLI;
    }
    return msgtype;
}

static bool is_unsolicited(int32_t msgtype)
{
    return unsol_kind(msgtype) != msgtype;
}

int _is_msgtype_matched(const msg_header *want, const msg_header *message, wthr_var *block)
{
    int32_t wanted = want->msgtype, arrived = message->msgtype;
    int64_t kind = (int64_t)arrived - wanted;
    if (kind == REPLY || kind == ERROR_REPLY || kind == ERROR_REPLY2)
        return reply_matches(want, message, block);
    if (wanted == MSG_TPRECV && want->cd == message->cd &&
        (arrived == MSG_TPCONNECT + ERROR_REPLY || arrived == MSG_TPSEND || arrived == MSG_TPDISCON))
        return 1;
    if (wanted == MSG_TPGETUNSOL && is_unsolicited(arrived))
        return want->cd == UNSOL_ANY || want->cd == unsol_kind(arrived);
    if (arrived == MSG_KMQ_SESSION_CLOSE && (message->flags & FLAG_SESSION_CLOSED) != 0)
        return _close_session_notify(want->sessid, message->sessid, block);
    return arrived == MSG_KMQ_DELIVER && wanted == MSG_KMQ_GETNEXT;
}

bool may_be_read_in_place(const msg_header *want, const msg_header *head, wthr_var *block)
{
    if (want->msgtype != MSG_TPCALL && want->msgtype != MSG_TPACALL)
        return false;
    if (head->buftype != BUF_STRING && head->buftype != BUF_CARRAY)
        return false;
    if (want->buftype == BUF_FIELD || (want->flags & TPNOCHANGE) != 0)
        return false;
    if ((head->xflags & (XFLAG_GIVEN_BACK | XFLAG_TRAILER)) != 0)
        return false;
    if (head->bufsize > want->bufsize || head->datalen > want->bufsize)
        return false;
    return (int64_t)head->msgtype - want->msgtype == REPLY && _is_msgtype_matched(want, head, block) != 0;
}

// A call that several threads share travelled as a TPACALL; its reply becomes the TPCALL's again.
void undo_shared_call(msg_header *message)
{
    if ((message->seqno & SEQNO_SHARED_CALL) == 0)
        return;
    switch (message->msgtype) {
    case MSG_TPACALL + REPLY:
    case MSG_TPACALL + ERROR_REPLY:
    case MSG_TPACALL + ERROR_REPLY2:
        message->msgtype--;
        message->seqno &= ~SEQNO_SHARED_CALL;
    }
}

// --- Messages that nobody waits for. Each treatment owns the message.

typedef int treatment(msg_header *message, wthr_var *block);

static int drop(msg_header *message, wthr_var *block)
{
    (void)block;
    free(message);
    return 1;
}

static int late_call(msg_header *message, wthr_var *block)
{
    VORN_LOG(0, LEVEL_ERROR, "CSC5708", "2008 tpcall reply arrived after timeout. Msg discarded : %d %d",
             message->msgtype, message->seqno);
    return drop(message, block);
}

// In the next four lines the code and the first words of the text are one string.
static int late_transaction(msg_header *message, wthr_var *block)
{
    VORN_LOG(0, LEVEL_ERROR, "CSC57120209 internal error : ", "tx reply arrived after timeout, msgtype = %d",
             message->msgtype);
    return drop(message, block);
}

static int late_dequeue(msg_header *message, wthr_var *block)
{
    VORN_LOG(0, LEVEL_ERROR,
             "CSC57110209 internal error : ", "tpdeq reply arrived after timeout, a message will be lost");
    return drop(message, block);
}

static int late_service_message(msg_header *message, wthr_var *block)
{
    VORN_LOG(0, LEVEL_ERROR,
             "CSC57200209 internal error : ", "TMS message arrived after timeout, msgtype = %d",
             message->msgtype);
    return drop(message, block);
}

// The row keeps the reply for a later tpgetrply; a caller that came to wait in the meantime gets it at once.
static int store_acall_reply(msg_header *message, wthr_var *block)
{
    int index = _get_acall_cd_ind(message->cd, block);
    if (index < 0)
        return drop(message, block);
    _thread_mutex_lock(&block->msg_mutex);
    acall_elem *row = &block->acall[index];
    msg_header *unwanted = nullptr;
    if (row->cd != message->cd) {
        unwanted = message;
    } else if (!hand_to_waiter(message, block)) {
        unwanted = row->reply;  // a second reply to one call takes the first one's place
        row->reply = message;
        row->ready_no = ++block->ready_seq;
    }
    _thread_mutex_unlock(&block->msg_mutex);
    free(unwanted);
    return 1;
}

static int late_connect(msg_header *message, wthr_var *block)
{
    int32_t cd = message->cd;
    free(message);
    _vorn_send_discon(cd, block);
    return 1;
}

// The queue keeps the reply for a later fetch; a thread that came to wait in the meantime gets it at once.
static int store_queue_reply(msg_header *message, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    bool kept = message->cd >= 0 &&
                (hand_to_waiter(message, block) || _enqueue_qcall_q(message->cd, message, block) > 0);
    _thread_mutex_unlock(&block->msg_mutex);
    if (!kept)
        free(message);
    return 1;
}

// The server changes a time-out of the client.
static int setting(msg_header *message, wthr_var *block)
{
    constexpr int32_t BLOCK_TIME = 12, TRANSACTION_TIMEOUT = 13;
    switch (message->cd) {
    case BLOCK_TIME:
        block->block_time = message->value;
        break;
    case TRANSACTION_TIMEOUT:
        tx_set_transaction_timeout(message->value);
        break;
    default:
        VORN_LOG(0, LEVEL_ERROR, "CSC5709", "0209 internal error : unknown fldi :%d", message->cd);
    }
    return drop(message, block);
}

// The acknowledgement goes out before anybody looks at the message. The handler runs on the reading thread,
// inside the reader role; its data is freed once it returns.
static int unsolicited(msg_header *message, wthr_var *block)
{
    if (message->msgtype == MSG_TPNOTIFY && (message->flags & TPNOTIFYACK) != 0)
        acknowledge_notification(message, block);
    int64_t mode = unsolicited_mode(block);
    if (mode == UNSOL_MODE_IGNORE)
        return drop(message, block);
    if (mode == UNSOL_MODE_HANDLER) {
        run_unsolicited_handler(message, block);
        free_buffer(message);  // the handler may have searched its fields
        return 1;
    }
    return store_unsolicited(message, unsol_kind(message->msgtype), block);
}

static int to_consumer(msg_header *message, wthr_var *block)
{
    if (_save_in_consumer_buffer(message, block) < 0)
        VORN_LOG(0, LEVEL_ERROR,
                 "CSC57210209 internal error : ", "failed to save the message in consumer buffer");
    return 1;
}

static int server_down(msg_header *message, wthr_var *block)
{
    VORN_LOG(0, LEVEL_ERROR, "CSC5710", "2009 server downed while processing client msg");
    drop(message, block);
    set_tperrno(TPESYSTEM);
    return -1;
}

// Ends the wait of whoever reads, though the message may have been for somebody else.
static int unknown(msg_header *message, wthr_var *block)
{
    VORN_LOG(0, LEVEL_ERROR, "CSC57130209 internal error : ", "unknown message type :%d", message->msgtype);
    drop(message, block);
    set_tperrno(TPESYSTEM);
    return -1;
}

struct type_treatment {
    int32_t first, last;  // message types
    treatment *treat;
};

// In ascending order of types; what isn't listed is unknown.
static const type_treatment treatments[] = {
    {6, 6, store_conversation_message},
    {8, 8, note_conversation_end},
    {12, 14, unsolicited},
    {19, 19, unsolicited},
    {130, 130, setting},
    {501, 501, drop},
    {507, 507, to_consumer},
    {1003, 1003, late_call},
    {1004, 1004, store_acall_reply},
    {1005, 1005, late_connect},
    {1007, 1007, store_conversation_message},
    {1012, 1012, drop},
    {1017, 1017, drop},
    {1018, 1018, late_dequeue},
    {1025, 1025, store_queue_reply},
    {1026, 1028, drop},
    {1031, 1033, late_transaction},
    {1047, 1048, drop},
    {1181, 1181, drop},
    {1500, 1506, late_service_message},
    {1507, 1507, drop},
    {1508, 1510, late_service_message},
    {2003, 2003, late_call},
    {2004, 2004, store_acall_reply},
    {2005, 2005, note_conversation_end},
    {2007, 2007, note_conversation_end},
    {2012, 2012, drop},
    {2017, 2018, drop},
    {2025, 2025, store_queue_reply},
    {2026, 2028, drop},
    {2031, 2033, late_transaction},
    {2047, 2048, drop},
    {2051, 2051, server_down},
    {2181, 2181, drop},
    {2500, 2510, drop},
    {3003, 3003, late_call},
    {3004, 3004, store_acall_reply},
    {3007, 3007, store_conversation_message},
    {3181, 3181, drop},
};

int _unmatched_msg_process(msg_header *message, wthr_var *block)
{
    for (const type_treatment &row : treatments)
        if (message->msgtype >= row.first && message->msgtype <= row.last)
            return row.treat(message, block);
    return unknown(message, block);
}

// --- A server that goes down.

constexpr int ROLLING_WAIT_MILLISECONDS = 60000;
constexpr unsigned char DOWN_WARNING = 217;

// What the thread that runs the move sends meanwhile, an acknowledgement or an application's call in a
// handler, can't wait for its end. 0, or ETIMEDOUT. Expects roll_mutex.
static int await_end_of_move(wthr_var *block)
{
    if (is_moving(block))
        return 0;
    int result = 0;
    timespec deadline = deadline_in(ROLLING_WAIT_MILLISECONDS);
    while (block->rolling != 0 && result == 0)
        result = pthread_cond_timedwait(&block->roll_cond, &block->roll_mutex, &deadline);
    return result;
}

int _wait_while_rolling_start(int fd, wthr_var *block)
{
    if (fd >= 0 && block->new_clhfd == fd)
        return -1;
    // Nearly every message comes by here, and nearly none meets a rolling start.
    if (block->rolling == 0)
        return 0;
    _thread_mutex_lock(&block->roll_mutex);
    int result = await_end_of_move(block);
    _thread_mutex_unlock(&block->roll_mutex);
    return result;
}

// Runs a rolling start. Expects roll_mutex and gives it up meanwhile; others see `rolling` and wait.
static int run_rolling_start(wthr_var *block)
{
    int code = get_tperrno();
    block->rolling = 1;
    _thread_mutex_unlock(&block->roll_mutex);
    int result = _vorn_rolling_start();
    _thread_mutex_lock(&block->roll_mutex);
    block->rolling = 0;
    if (result < 0)
        block->rolling_failed = 1;
    else
        set_tperrno(code);  // the call on whose way this happened knows nothing of it
    _thread_cond_broadcast(&block->roll_cond);
    return result;
}

int _recv_oob_msg(int fd, wthr_var *block)
{
    if (block->old_clhfd >= 0)
        return -1;
    unsigned char byte = 0;
    if (recv(fd, &byte, 1, MSG_OOB | MSG_PEEK) < 1)
        return -2;
    if (byte != DOWN_WARNING)
        return 1;
    if (recv(fd, &byte, 1, MSG_OOB) < 1 || block->rolling != 0)
        return -2;
    return run_rolling_start(block);
}

// Sends a request that was given back to the new server, for whoever awaits its answer.
// False if it can't be sent.
static bool send_again(msg_header *message, msg_header *want, wthr_var *block)
{
    msg_header reply = *message;
    reply.msgtype += REPLY;
    bool is_awaited = has_waiter(message);
    if (_send_csmsg_to_clh(message, block) < 0)
        return false;
    note_sent_again(&reply, is_awaited, want, block);
    if (is_awaited)
        forget_waiter(block);  // he has been counted when the request went out first
    return true;
}

// Types of requests that a server can give back: not those of a session, and none of a conversation's.
static bool can_be_sent_again(int32_t msgtype)
{
    switch (msgtype) {
    case MSG_TPSTART:
    case MSG_TPEND:
    case MSG_TPINIT:
    case MSG_TPSEND:
    case MSG_TPDISCON:
        return false;
    }
    return true;
}

int _is_msgtype_irt(msg_header *want, msg_header *message, wthr_var *block)
{
    if (message->msgtype < ERROR_REPLY + 1 || (message->xflags & XFLAG_GIVEN_BACK) == 0)
        return 0;
    if (block->started == 0)
        return 0;  // a start that is given back is a refused one: there is no session yet to move elsewhere
    if (!can_be_sent_again(message->msgtype - ERROR_REPLY))
        return 0;
    _thread_mutex_lock(&block->roll_mutex);
    await_end_of_move(block);  // no second move may begin beside it, nor where this thread runs it itself
    if (block->rolling == 0 && block->old_clhfd < 0 && block->clhfd >= 0 && block->rolling_failed == 0)
        run_rolling_start(block);
    _thread_cond_broadcast(&block->roll_cond);
    _thread_mutex_unlock(&block->roll_mutex);
    if (block->old_clhfd < 0 || block->clhfd < 0) {
        if (message->flags == 0)
            message->flags = TPENOREADY;
        if (block->rolling_failed != 0)
            message->flags = TPERDOWN;
        return -1;
    }
    if (block->rolling_failed != 0) {
        message->flags = TPERDOWN;
        return -1;
    }
    message->msgtype -= ERROR_REPLY;
    message->xflags &= ~(uint32_t)XFLAG_GIVEN_BACK;
    if (!send_again(message, want, block)) {  // whoever awaits its answer must hear of it
        message->msgtype += ERROR_REPLY;
        message->flags = TPERDOWN;
        return -1;
    }
    end_old_socket_if_done(true, block);
    return 1;
}
}
