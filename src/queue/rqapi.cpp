// Reliable queues: tpenq and tpdeq, and what their forms with a control record share with them.
//
// A request goes out from the caller's own buffer, and the queue service tells that it has it. The answer of
// the service behind the queue comes at any time later: the receive path gives it to a thread that waits for
// one, or keeps it by queue until it is fetched. Taking a message out of a queue is a round trip; while the
// queue is empty the server's notice of a change only shortens the pause between two tries.
#include "queue/rqapi.h"

#include "buffers/payload.h"
#include "buffers/tbuffer.h"
#include "calls/cscommon.h"
#include "calls/unsolapi.h"
#include "queue/rqctl.h"
#include "runtime/thrapi.h"
#include "tx/tx.h"
#include "vorn/calls.h"
#include "vorn/errors.h"
#include "vorn/queue.h"
#include "wire/clhio.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <limits.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

extern "C" {

char _rq_sub_queue_name[QUEUE_PARTS][32] = {".RQ_ANY", ".RQ_FAIL", ".RQ_REQ", ".RQ_RPLY"};

char *tpsubqname(int index)
{
    return index >= 0 && index < QUEUE_PARTS ? _rq_sub_queue_name[index] : nullptr;
}

static constexpr uint32_t TO_SERVICE = 0x8000;  // carried to the queue service
static constexpr uint32_t TPENQ_FLAGS =
    TPNOBLOCK | TPSIGRSTRT | TPNOREPLY | TPNOTRAN | TPNOTIME | TPRQDIRECT | TO_SERVICE;
static constexpr uint32_t TPDEQ_FLAGS =
    TPNOBLOCK | TPSIGRSTRT | TPNOTRAN | TPNOTIME | TPGETANY | TPBLOCK | TPRQDIRECT | TO_SERVICE;
static_assert(TPENQ_FLAGS == 0xC02F && TPDEQ_FLAGS == 0xC2AB);

static constexpr api_text TPENQ = API_TEXT("tpenq", "(\"%s\", \"%s\", %#x, %d, %d)");
static constexpr api_text TPDEQ = API_TEXT("tpdeq", "(\"%s\", \"%s\", %#x, %#x, %d)");
static constexpr api_text TPENQ_CTL = API_TEXT("tpenq_ctl", "(\"%s\", \"%s\", %#x, %#x, %d, %d)");
static constexpr api_text TPDEQ_CTL = API_TEXT("tpdeq_ctl", "(\"%s\", \"%s\", %#x, %#x, %#x, %d)");
static constexpr api_text TPENQUEUE = API_TEXT("tpenqueue", "(\"%s\", \"%s\", %#x, %#x, %d, %d)");

// --- Enqueueing.

// Waits until the queue service has the request. What it says of it, or -1 with tperrno set; `*accepted`
// tells which.
static int await_acceptance(long flags, bool *accepted, wthr_var *block)
{
    int limit = wait_limit(block, flags, TPNOTIME);
    msg_header *reply = await_reply(template_of(MSG_TPENQ, flags, block), limit, block);
    *accepted = reply != nullptr && reply->msgtype == MSG_TPENQ + REPLY;
    int result = -1;
    if (*accepted) {
        if ((flags & (TPNOREPLY | TPRQDIRECT)) == 0)
            block->rq_pending++;
        result = reply->rcode;
    } else if (reply != nullptr) {
        set_tperrno(error_in(reply));
    }
    free(reply);
    return result;
}

int tpenq(char *qname, char *svc, char *data, long len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPENQ, shown(qname), shown(svc), data, (int)len, (int)flags))
        return -1;
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return api_error(&frame, &TPENQ);
    if (has_flags_outside(flags, TPENQ_FLAGS))
        return api_fail(&frame, &TPENQ, TPEINVAL);
    if (data == nullptr || qname == nullptr)
        return api_fail(&frame, &TPENQ, TPEINVAL);
    if (!is_typed_buffer(data))
        return api_fail(&frame, &TPENQ, TPEOTYPE);
    int datalen = _data_itype_check(data, buffer_length(len), block);
    if (datalen < 0)
        return api_error(&frame, &TPENQ);
    int rqno = _get_rqno_by_qname(qname, block);
    if (rqno < 0)
        return api_fail(&frame, &TPENQ, TPENOENT);
    msg_header *message = message_of(data);
    message->msgtype = MSG_TPENQ;
    message->rcode = 0;
    message->target = 0;
    message->seqno = next_seqno(block);
    put_name(message->svcname, sizeof message->svcname, shown(svc));
    message->datalen = datalen;
    message->flags = (uint32_t)(flags | TPNOTRAN);
    message->cd = rqno;
    clear_direction(message);
    if (_send_csmsg_to_clh(message, block) < 0)
        return api_error(&frame, &TPENQ);
    bool accepted;
    int result = await_acceptance(flags, &accepted, block);
    return accepted ? api_return(&TPENQ, result) : api_error(&frame, &TPENQ);
}

// In one transaction a context may enqueue or dequeue, not both. False, with tperrno set, if the transaction
// has done `other` already; a transaction without a request as yet isn't looked at.
static bool takes_side(shared_int32 *side, const shared_int32 *other, long flags, const wthr_var *block)
{
    if ((flags & TPNOTRAN) != 0 || !is_running(block))
        return true;
    if (*other != 0) {
        set_tperrno(TPETRAN);
        return false;
    }
    *side = 1;
    return true;
}

// Sends the message behind a control record. 1, or -1 with tperrno set.
static int send_behind_record(RQCTL_T *ctl, const msg_header *message, wthr_var *block)
{
    msg_header *whole = _add_rqctl(ctl, message);
    if (whole == nullptr)
        return -1;
    int sent = _send_csmsg_to_clh(whole, block);
    free(whole);
    return sent;
}

int tpenq_ctl(char *qname, char *svc, RQCTL_T *ctl, char *data, long len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPENQ_CTL, shown(qname), shown(svc), ctl, data, (int)len, (int)flags))
        return -1;
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return api_error(&frame, &TPENQ_CTL);
    if (has_flags_outside(flags, TPENQ_FLAGS))
        return api_fail(&frame, &TPENQ_CTL, TPEINVAL);
    if (data == nullptr || qname == nullptr)
        return api_fail(&frame, &TPENQ_CTL, TPEINVAL);
    msg_header *message = _check_args_and_tx(MSG_TPENQ, svc, data, len, (uint32_t)flags, block);
    if (message == nullptr)
        return api_error(&frame, &TPENQ_CTL);
    int rqno = _get_rqno_by_qname(qname, block);
    if (rqno < 0)
        return api_fail(&frame, &TPENQ_CTL, TPENOENT);
    message->cd = rqno;
    clear_direction(message);
    message->seqno = next_seqno(block);
    // The check above has let the transaction run, if this is its first request.
    if (!takes_side(&block->rq_enq_in_tran, &block->rq_deq_in_tran, flags, block))
        return api_error(&frame, &TPENQ_CTL);
    if (send_behind_record(ctl, message, block) < 0)
        return api_error(&frame, &TPENQ_CTL);
    bool accepted;
    int result = await_acceptance(flags, &accepted, block);
    if (accepted)
        return api_return(&TPENQ_CTL, result);
    _check_tx_state(MSG_TPENQ, (flags & TPNOTRAN) == 0, block);
    return api_error(&frame, &TPENQ_CTL);
}

int tpenqueue(char *qspace, char *qname, void *ctl, char *data, long len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPENQUEUE, shown(qspace), shown(qname), ctl, data, (int)len, (int)flags))
        return -1;
    if (tpacall(qname, data, len, TPNOREPLY) < 0)
        return api_error(&frame, &TPENQUEUE);
    return api_return(&TPENQUEUE, 1);
}

// --- Taking messages out of a queue.

// The template of a receive, in the header of the buffer that takes the message.
static msg_header *ask_into(char *data, int32_t msgtype, long flags)
{
    msg_header *buffer = message_of(data);
    buffer->msgtype = msgtype;
    buffer->datalen = buffer->bufsize;
    buffer->flags = (uint32_t)flags;
    buffer->cd = 0;
    return buffer;
}

// The request for a message. Owned by the caller; null, and an error number.
static msg_header *make_dequeue(int rqno, const char *svc, long flags, int *error, wthr_var *block)
{
    msg_header *message = _header_msg_make(MSG_TPDEQ, 0);
    if (message == nullptr) {
        *error = TPESYSTEM;
        return nullptr;
    }
    message->seqno = next_seqno(block);
    uint32_t wire_flags = (uint32_t)flags;
    if ((flags & TPNOTRAN) == 0 && join_transaction(MSG_TPDEQ, message, &wire_flags, block) < 0) {
        free(message);
        *error = get_tperrno();
        return nullptr;
    }
    put_name(message->svcname, sizeof message->svcname, shown(svc));
    message->flags = wire_flags;
    message->cd = rqno;
    return message;
}

// A failure without a number, as of a message that couldn't be deciphered, must not pass for none.
static int error_or_system(int code)
{
    return code != 0 ? code : TPESYSTEM;
}

int _tpdeq_process(int rqno, char *svc, void *unused, char **data, long *len, long flags, wthr_var *block)
{
    (void)unused;
    int error;
    msg_header *message = make_dequeue(rqno, svc, flags, &error, block);
    if (message == nullptr)
        return error;
    if (send_request(message, nullptr, block) < 0)
        return error_or_system(get_tperrno());
    msg_header *buffer = ask_into(*data, MSG_TPDEQ, flags);
    msg_header *reply = _read_csmsg_from_clh_timeout(buffer, wait_limit(block, flags, TPNOTIME), block);
    if (reply == nullptr)
        return error_or_system(get_tperrno());
    *data = message_data(reply);
    *len = reply->datalen;
    return reply->msgtype == MSG_TPDEQ + REPLY ? 0 : error_or_system(reply->rcode);
}

constexpr int NO_BUDGET = 0x7fffffff;
constexpr int LONGEST_PAUSE = 60;

// Sleeps until the queue has changed, for `seconds` at the most. A pause that fails ends early: the next try
// will tell what is wrong. False without memory.
static bool pause_until_change(int rqno, int seconds, long flags, wthr_var *block)
{
    msg_header *want = _header_msg_make(MSG_TPEVENT_REQUEST, 1);
    if (want == nullptr)
        return false;
    want->flags = (uint32_t)flags & (uint32_t)TPNOTRAN;
    want->cd = rqno;
    msg_header *notice = await_reply(want, seconds, block);
    if (notice != nullptr && notice->target > 0)
        usleep((useconds_t)(notice->target % 2) * 1000);
    free(notice);
    return true;
}

// Tries until there is a message or the time is up. 0, or an error number.
static int dequeue_blocking(int rqno, char *svc, char **data, long *len, long flags, wthr_var *block)
{
    int block_time = block->block_time;
    int64_t budget = block_time > 0 && (flags & TPNOTIME) == 0 ? block_time : NO_BUDGET;
    time_t begin = time(nullptr);
    for (;;) {
        int error = _tpdeq_process(rqno, svc, nullptr, data, len, flags, block);
        if (error != TPEMATCH)
            return error;
        int64_t left = budget - (time(nullptr) - begin);
        if (left < 1)
            return TPEMATCH;
        if (!pause_until_change(rqno, (int)(left < LONGEST_PAUSE ? left : LONGEST_PAUSE), flags, block))
            return TPESYSTEM;
    }
}

int _tpdeq(char *qname, char *svc, void *ctl, char **data, long *len, long flags)
{
    (void)ctl;
    wthr_var *block = current_block();
    if (block == nullptr || qname == nullptr || data == nullptr || len == nullptr) {
        set_tperrno(TPEINVAL);
        return -1;
    }
    if (!is_typed_buffer(*data)) {
        set_tperrno(TPEOTYPE);
        return -1;
    }
    int rqno = _get_rqno_by_qname(qname, block);
    if (rqno < 0) {
        set_tperrno(TPENOENT);
        return -1;
    }
    bool keeps_trying = (flags & TPBLOCK) != 0 && (flags & TPNOBLOCK) == 0;
    int error = keeps_trying ? dequeue_blocking(rqno, svc, data, len, flags, block)
                             : _tpdeq_process(rqno, svc, nullptr, data, len, flags, block);
    set_tperrno(error);  // a pause that failed has left its own
    return error == 0 ? 1 : -1;
}

// --- Fetching replies.

// The queue that is meant: of the name, or the first that has a reply. Negative: there is none.
static int queue_of_reply(const char *qname, wthr_var *block)
{
    if (qname != nullptr)
        return _get_rqno_by_qname(qname, block);
    _thread_mutex_lock(&block->msg_mutex);
    int rqno = _get_any_rqno_from_ready(block);
    _thread_mutex_unlock(&block->msg_mutex);
    return rqno;
}

// The queue's oldest stored reply, grown to the size of the caller's buffer, which is freed. False if there
// is none. On true `*reply` is null if it can't be grown; tperrno is set, and it stays stored.
static bool take_stored(int rqno, msg_header *buffer, msg_header **reply, wthr_var *block)
{
    *reply = nullptr;
    _thread_mutex_lock(&block->msg_mutex);
    bool stored = has_queue_reply(rqno, block);
    if (stored && _data_otype_check2(&block->qcall[rqno].head->msg, buffer, block) > 0)
        *reply = _dequeue_qcall_q(rqno, block);
    _thread_mutex_unlock(&block->msg_mutex);
    if (*reply != nullptr)
        free_buffer(buffer);
    return stored;
}

int _tpqgetrply(char *qname, char **data, long *len, long flags)
{
    wthr_var *block = current_block();
    if (block == nullptr || data == nullptr || len == nullptr) {
        set_tperrno(TPEINVAL);
        return -1;
    }
    if (!is_typed_buffer(*data)) {
        set_tperrno(TPEOTYPE);
        return -1;
    }
    msg_header *buffer = ask_into(*data, MSG_TPRQS, flags);
    int rqno = queue_of_reply(qname, block);
    if (rqno < 0) {
        set_tperrno(TPENOENT);
        return -1;
    }
    if (block->rq_pending == 0) {
        set_tperrno(TPEINVAL);
        return -1;
    }
    buffer->target = rqno;  // what is stored for this queue until the wait begins ends it at once
    msg_header *reply;
    if (!take_stored(rqno, buffer, &reply, block)) {
        int limit = wait_limit(block, flags, TPNOTIME | TPNOBLOCK);
        reply = _read_csmsg_from_clh_timeout2(buffer, limit, (int)(flags & TPNOBLOCK), block);
    }
    if (reply == nullptr)
        return -1;
    *data = message_data(reply);
    *len = reply->datalen;
    set_tpurcode(reply->rcode);
    block->rq_pending--;
    if (reply->msgtype == MSG_TPRQS + REPLY)
        return 1;
    set_tperrno(error_in(reply));
    return -1;
}

// --- The two uses of a dequeue.

int tpdeq(char *qname, char *svc, char **data, long *len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPDEQ, shown(qname), shown(svc), data, len, (int)flags))
        return -1;
    if (begin_session(frame.block) == nullptr)
        return api_error(&frame, &TPDEQ);
    if (has_flags_outside(flags, TPDEQ_FLAGS))
        return api_fail(&frame, &TPDEQ, TPEINVAL);
    if (data == nullptr || len == nullptr || *data == nullptr)
        return api_fail(&frame, &TPDEQ, TPEINVAL);
    int result = (flags & TPRQDIRECT) != 0 ? _tpdeq(qname, svc, nullptr, data, len, flags | TPNOTRAN)
                                           : _tpqgetrply(qname, data, len, flags | TPNOTRAN);
    return result < 0 ? api_error(&frame, &TPDEQ) : api_return(&TPDEQ, result);
}

int tpdeq_ctl(char *qname, char *svc, RQCTL_T *ctl, char **data, long *len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPDEQ_CTL, shown(qname), shown(svc), ctl, data, len, (int)flags))
        return -1;
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return api_error(&frame, &TPDEQ_CTL);
    if (data == nullptr || len == nullptr || *data == nullptr)
        return api_fail(&frame, &TPDEQ_CTL, TPEINVAL);
    if (has_flags_outside(flags, TPDEQ_FLAGS))
        return api_fail(&frame, &TPDEQ_CTL, TPEINVAL);
    int result = -1;
    if ((flags & TPRQDIRECT) == 0)
        result = _tpqgetrply(qname, data, len, flags);
    else if (takes_side(&block->rq_deq_in_tran, &block->rq_enq_in_tran, flags, block))
        result = _tpdeq(qname, svc, ctl, data, len, flags);
    return result < 0 ? api_error(&frame, &TPDEQ_CTL) : api_return(&TPDEQ_CTL, result);
}
}
