// Traffic of the message service.
//
// Entered from the application, and with a message that nobody awaits from the thread that reads for the
// context. The server sends a message when it has been asked for one. A receive that runs out of time leaves
// its request standing (`state` of the consumer is 1): the message then goes to the next receive if that
// waits already, and to the consumer's `saved` if not.
//
// Subtle: a message that is saved and a receive that begins to wait for it can't miss each other. The one who
// saves looks for a waiter first, and the one who waits looks into `saved` first, each under msg_mutex.
#include "kmq/kmqflow.h"

#include "buffers/payload.h"
#include "buffers/tbuffer.h"
#include "calls/cscommon.h"
#include "fields/fbcommon2.h"
#include "kmq/kmqobj.h"
#include "runtime/thrapi.h"
#include "tx/tx.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "wire/clhio.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

extern "C" {

static constexpr api_text SENDEX = API_TEXT("kmq_sendex", "(%#x, %#x, %d, %d, %d, %#x)");
static constexpr api_text RECVEX = API_TEXT("kmq_recvex", "(%#x, %#x, %d, %#x)");
static constexpr api_text NEXTMSG = API_TEXT("kmq_browser_nextmsg", "(%#x, %#x, %d)");
static constexpr api_text ACK = API_TEXT("kmq_ack", "(%#x, %d)");

constexpr int ACK_TAKE = 0x20, ACK_REFUSE = 0x40;

static int fail_with(int code)
{
    set_tperrno(code);
    return -1;
}

// A failure leaves a transaction that the caller's flags don't keep out of it with nothing but a rollback.
static void spoil_transaction(long flags, wthr_var *block)
{
    if ((flags & TPNOTRAN) == 0)
        _check_rollback(block);
}

static int send_or_system(msg_header *message, wthr_var *block)
{
    return _send_csmsg_to_clh(message, block) > 0 ? 1 : fail_with(TPESYSTEM);
}

// --- Messages for consumers.

// The consumer that a message or a template names; null. Expects msg_mutex.
static kmq_consumer *consumer_of(const msg_header *message, wthr_var *block)
{
    kmq_session *session = _search_sess_by_id(message->sessid, block);
    return session == nullptr ? nullptr : _search_cons_by_id(session, message->prio);
}

// Puts a message, or null, in the place of the one that is saved. The earlier one is the caller's. Expects
// msg_mutex.
static msg_header *exchange_saved(kmq_consumer *consumer, msg_header *message)
{
    msg_header *earlier = consumer->saved;
    consumer->saved = message;
    return earlier;
}

static msg_header *take_saved(kmq_consumer *consumer, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    msg_header *saved = exchange_saved(consumer, nullptr);
    _thread_mutex_unlock(&block->msg_mutex);
    return saved;
}

int _save_in_consumer_buffer(msg_header *message, wthr_var *block)
{
    msg_header *unwanted = nullptr;
    _thread_mutex_lock(&block->msg_mutex);
    kmq_consumer *consumer = consumer_of(message, block);
    if (consumer == nullptr)
        unwanted = message;
    else if (!hand_to_waiter(message, block))
        unwanted = exchange_saved(consumer, message);
    _thread_mutex_unlock(&block->msg_mutex);
    free(unwanted);
    return consumer == nullptr ? -1 : 1;
}

msg_header *take_saved_message(const msg_header *want, wthr_var *block)
{
    kmq_consumer *consumer = consumer_of(want, block);
    return consumer == nullptr ? nullptr : exchange_saved(consumer, nullptr);
}

// --- Sending.

// The data that leaves, or -1 with tperrno set. A pointer to anything but a message has no length to tell: it
// is refused, as is a length beyond the buffer. The answer to an earlier send may have come without data and
// left its kind in the header; the magic tells the fields all the same.
static int message_length(const char *msg)
{
    if (!is_typed_buffer(msg) || !has_magic((const FBUF *)msg))
        return fail_with(TPEITYPE);
    const msg_header *message = (const msg_header *)(msg - HEADER_SIZE);
    fb_head head;
    memcpy(&head, msg, sizeof head);
    if (head.used < FB_HEAD_SIZE || head.used > message->bufsize)
        return fail_with(TPEINVAL);
    return head.used;
}

// Makes the message ready to leave the session. In an XA session it is part of the transaction. Null with
// tperrno set.
static msg_header *address_message(const kmq_producer *producer, char *msg, uint32_t word, wthr_var *block)
{
    int length = message_length(msg);
    if (length < 0)
        return nullptr;
    const kmq_session *session = producer->session;
    msg_header *message = message_of(msg);
    message->msgtype = MSG_KMQ_SEND;
    message->sessid = session->id;
    message->prio = producer->id;
    clear_direction(message);
    if (message->buftype == BUF_HEADER)  // left by an answer without data; the fields are there all the same
        message->buftype = BUF_FIELD;
    if ((session->flags & KMQ_XA) != 0)
        return _check_args_and_tx(MSG_KMQ_SEND, session->name, msg, length, word, block);
    put_name(message->svcname, sizeof message->svcname, session->name);
    message->svcname[sizeof message->svcname - 1] = '\0';
    message->flags = word;
    message->datalen = length;
    return message;
}

// Waits for the server's answer; the caller's. Null with tperrno set, and the transaction is spoilt.
static msg_header *await_answer(long flags, wthr_var *block)
{
    msg_header *want = template_of(MSG_KMQ_SEND, 0, block);
    if (want == nullptr) {
        spoil_transaction(flags, block);
        set_tperrno(TPEOS);
        return nullptr;
    }
    msg_header *reply = await_reply(want, KMQ_REPLY_SECONDS, block);
    if (reply == nullptr) {
        set_tperrno_if_none(TPETIME);
        spoil_transaction(flags, block);
    }
    return reply;
}

// The message becomes what the server made of it, but for the seconds that it took. An answer without data
// leaves the message's in place, and with them their kind. 1, or -1 if the message has no room for it.
static int become_reply(msg_header *message, const msg_header *reply, uint32_t seconds, wthr_var *block)
{
    if (message->bufsize < reply->bufsize || message->bufsize < reply->datalen || reply->datalen < 0)
        return fail_with(TPEINVAL);
    if ((message->flags & TPTXSTART) != 0 && block->txinfo != nullptr)
        memcpy(block->txinfo->xid_data, reply->xid, sizeof block->txinfo->xid_data);
    int32_t bufsize = message->bufsize, buftype = message->buftype;
    _clear_fcache(message_data(message));
    memcpy(message, reply, (size_t)(HEADER_SIZE + reply->datalen));
    message->bufsize = bufsize;
    if (reply->datalen == 0)
        message->buftype = buftype;
    message->callid[WORD_TIME] = seconds;
    return 1;
}

int kmq_sendex(kmq_producer *producer, char *msg, int delivery_mode, int priority, int time_to_live,
               long flags)
{
    static const uint32_t words[] = {0, KMQ_PERSISTENT};
    api_frame frame;
    if (!API_ENTER(&frame, SENDEX, producer, msg, delivery_mode, priority, time_to_live, (int)flags))
        return -1;
    wthr_var *block = frame.block;
    if (producer == nullptr || msg == nullptr || time_to_live < 0)
        return api_fail(&frame, &SENDEX, TPEINVAL);
    if (!session_is_open(producer->session))
        return api_error(&frame, &SENDEX);
    if (delivery_mode != 0 && delivery_mode != 1)
        return api_fail(&frame, &SENDEX, TPEINVAL);
    bool transacted = (producer->session->flags & KMQ_TRANSACTED) != 0;
    uint32_t word = words[delivery_mode] | (transacted ? KMQ_IN_TRANSACTION : 0);
    msg_header *message = address_message(producer, msg, word, block);
    if (message == nullptr)
        return api_error(&frame, &SENDEX);
    time_t begin = time(nullptr);
    message->callid[WORD_TIME] = (uint32_t)begin;
    message->callid[WORD_EXPIRATION] = (uint32_t)time_to_live;
    message->callid[WORD_PRIORITY] = (uint32_t)priority;
    if (send_or_system(message, block) < 0)
        return api_error(&frame, &SENDEX);
    msg_header *reply = await_answer(flags, block);
    if (reply == nullptr)
        return api_error(&frame, &SENDEX);
    int result = -1;
    if (get_tperrno() == 0 && reply->msgtype == MSG_KMQ_SEND + REPLY) {
        result = become_reply(message, reply, (uint32_t)(time(nullptr) - begin), block);
    } else {
        spoil_transaction(flags, block);
        set_tperrno_if_none((int)reply->flags);
    }
    free(reply);
    return result < 0 ? api_error(&frame, &SENDEX) : api_return(&SENDEX, result);
}

// --- Receiving.

// The word of a request in the session.
static uint32_t session_word(const kmq_session *session)
{
    return (session->flags & KMQ_TRANSACTED) != 0 ? KMQ_IN_TRANSACTION : 0;
}

int _send_getnext_msg(kmq_consumer *consumer, msg_header *want, wthr_var *block)
{
    const kmq_session *session = consumer->session;
    if (!session_is_open(session))
        return -1;
    bool browses = (consumer->flags & KMQ_BROWSES) != 0;
    uint32_t word = browses ? consumer->flags : session_word(session);
    msg_header *request = session_message(session, MSG_KMQ_GETNEXT, word);
    if (request == nullptr)
        return -1;
    request->prio = consumer->id;
    request->cd = (int32_t)consumer->last_cd;
    request->callid[WORD_PRIORITY] = consumer->last_word;
    if ((session->flags & KMQ_XA) != 0 &&
        _check_args_and_tx(MSG_KMQ_GETNEXT, session->name, message_data(request), 0, word, block) ==
            nullptr) {
        free(request);
        return -1;
    }
    want->flags = request->flags;
    int sent = send_or_system(request, block);
    free(request);
    return sent;
}

int _send_ack_msg(char *msg, int kind, wthr_var *block)
{
    if (!is_typed_buffer(msg))
        return fail_with(TPEITYPE);
    const msg_header *message = message_of(msg);
    msg_header *acknowledgement = _header_msg_make(MSG_KMQ_ACK, 0);
    if (acknowledgement == nullptr)
        return fail_with(TPESYSTEM);
    acknowledgement->sessid = message->sessid;
    acknowledgement->prio = message->prio;
    acknowledgement->cd = message->cd;
    acknowledgement->callid[WORD_PRIORITY] = message->callid[WORD_PRIORITY];
    acknowledgement->flags = (uint32_t)kind;
    put_name(acknowledgement->svcname, sizeof acknowledgement->svcname, message->svcname);
    int sent = send_or_system(acknowledgement, block);
    free(acknowledgement);
    return sent;
}

// Checks the arguments of a receive, and makes what it waits with of the caller's buffer. Null with tperrno
// set.
static msg_header *receive_into(const kmq_consumer *consumer, char **msg)
{
    if (consumer == nullptr || msg == nullptr || *msg == nullptr) {
        set_tperrno(TPEINVAL);
        return nullptr;
    }
    if (!session_is_open(consumer->session))
        return nullptr;
    if (!is_typed_buffer(*msg)) {
        set_tperrno(TPEOTYPE);
        return nullptr;
    }
    msg_header *want = message_of(*msg);
    want->msgtype = MSG_KMQ_GETNEXT;
    want->sessid = consumer->session->id;
    want->prio = consumer->id;
    want->datalen = want->bufsize;
    want->flags = 0;
    return want;
}

// Gives a saved message to the caller: into his buffer, or in its place. It has been checked when it was
// read, and its data is within its `bufsize`.
static void hand_over(msg_header *saved, char **msg)
{
    msg_header *buffer = message_of(*msg);
    if (buffer->bufsize < saved->bufsize) {
        free_buffer(buffer);
        *msg = message_data(saved);
        return;
    }
    _clear_fcache(*msg);
    int32_t bufsize = buffer->bufsize;
    // A text that came without its terminator has it behind its data, where the reserve begins.
    int32_t ending = saved->buftype == BUF_STRING ? 1 : 0;
    memcpy(buffer, saved, (size_t)(HEADER_SIZE + saved->datalen + ending));
    buffer->bufsize = bufsize;
    free(saved);
}

// Waits for the message; the block that has it. Null with tperrno set. An error that stands there stays.
static msg_header *await_message(msg_header *want, int timeout, wthr_var *block)
{
    int earlier = get_tperrno();
    msg_header *message = timeout == 0 ? _read_csmsg_from_clh(-1, want, block)
                                       : _read_csmsg_from_clh_timeout(want, timeout, block);
    if (message == nullptr)
        set_tperrno_if_none(timeout == 0 ? TPESYSTEM : TPETIME);
    else if (earlier != 0)  // a wait without a limit has cleared it
        set_tperrno(earlier);
    return message;
}

// The wait of a request that goes out now is for the message that answers it: what came unasked before stays
// saved, unless another comes in its place.
static msg_header *ask_and_await(kmq_consumer *consumer, msg_header *want, int timeout, wthr_var *block)
{
    if (consumer->state != 0)
        return await_message(want, timeout, block);
    msg_header *unasked = take_saved(consumer, block);
    msg_header *message = nullptr;
    if (_send_getnext_msg(consumer, want, block) > 0) {
        consumer->state = 1;
        message = await_message(want, timeout, block);
    }
    _thread_mutex_lock(&block->msg_mutex);
    if (consumer->saved == nullptr)
        unasked = exchange_saved(consumer, unasked);
    _thread_mutex_unlock(&block->msg_mutex);
    free(unasked);
    return message;
}

// Messages are acknowledged here but where kmq_ack, kmq_commit or the transaction's commit will do it.
static bool acknowledges_at_once(const kmq_session *session, const wthr_var *block)
{
    if ((session->flags & KMQ_TRANSACTED) != 0)
        return false;
    return (session->flags & KMQ_XA) != 0 ? !in_transaction(block) : (session->flags & KMQ_ACKMODE2) == 0;
}

int kmq_recvex(kmq_consumer *consumer, char **msg, int timeout, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, RECVEX, consumer, msg, timeout, (int)flags))
        return -1;
    wthr_var *block = frame.block;
    if (timeout < 0)
        return api_fail(&frame, &RECVEX, TPEINVAL);
    msg_header *want = receive_into(consumer, msg);
    if (want == nullptr)
        return api_error(&frame, &RECVEX);
    want->flags = session_word(consumer->session);
    msg_header *saved = consumer->state == 0 ? nullptr : take_saved(consumer, block);
    if (saved != nullptr) {
        hand_over(saved, msg);
        consumer->state = 0;
        return api_return(&RECVEX, 1);
    }
    msg_header *message = ask_and_await(consumer, want, timeout, block);
    if (message == nullptr)
        return api_error(&frame, &RECVEX);
    *msg = message_data(message);
    consumer->state = 0;
    if (get_tperrno() != 0 || message->msgtype != MSG_KMQ_DELIVER) {
        spoil_transaction(flags, block);
        set_tperrno_if_none((int)message->flags);
        return api_error(&frame, &RECVEX);
    }
    if (acknowledges_at_once(consumer->session, block) && _send_ack_msg(*msg, ACK_TAKE, block) < 0)
        return api_error(&frame, &RECVEX);
    return api_return(&RECVEX, 1);
}

int kmq_browser_nextmsg(kmq_consumer *browser, char **msg, int extra)
{
    api_frame frame;
    if (!API_ENTER(&frame, NEXTMSG, browser, msg, extra))
        return -1;
    wthr_var *block = frame.block;
    msg_header *want = receive_into(browser, msg);
    if (want == nullptr)
        return api_error(&frame, &NEXTMSG);
    // It asks anew each time, and what was meant for an earlier request isn't the answer.
    free(take_saved(browser, block));
    if (_send_getnext_msg(browser, want, block) < 0)
        return api_error(&frame, &NEXTMSG);
    msg_header *message = _read_csmsg_from_clh(-1, want, block);
    if (message == nullptr) {
        // The buffer goes with the wait. The pointer mustn't be left to lead to it.
        free_buffer(want);
        *msg = nullptr;
        return api_fail(&frame, &NEXTMSG, TPESYSTEM);
    }
    *msg = message_data(message);
    if (message->msgtype == MSG_KMQ_DELIVER) {
        browser->last_cd = (uint32_t)message->cd;
        browser->last_word = message->callid[WORD_PRIORITY];
        return api_return(&NEXTMSG, 1);
    }
    if (message->msgtype == MSG_KMQ_GETNEXT + ERROR_REPLY)
        set_tperrno_if_none(message->rcode);
    return api_error(&frame, &NEXTMSG);
}

// --- Acknowledging.

// What the caller's flags ask for: one of the two bits; 0 for anything else.
static int ack_kind(int flags)
{
    static const int kinds[] = {0, ACK_TAKE, ACK_REFUSE, 0};
    return kinds[flags & 3];
}

int kmq_ack(char *msg, int flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, ACK, msg, flags))
        return -1;
    wthr_var *block = frame.block;
    if (msg == nullptr)
        return api_fail(&frame, &ACK, TPEINVAL);
    if (!is_typed_buffer(msg) || message_of(msg)->msgtype != MSG_KMQ_DELIVER)
        return api_fail(&frame, &ACK, TPEITYPE);
    _thread_mutex_lock(&block->msg_mutex);  // sessions of other threads may come and go
    const kmq_session *session = _search_sess_by_id(message_of(msg)->sessid, block);
    _thread_mutex_unlock(&block->msg_mutex);
    if (!session_is_open(session))
        return api_error(&frame, &ACK);
    if ((session->flags & (KMQ_TRANSACTED | KMQ_XA)) != 0 ||
        (session->flags & (KMQ_ACKMODE1 | KMQ_ACKMODE2)) == 0)
        return api_fail(&frame, &ACK, TPEPROTO);
    int kind = ack_kind(flags);
    if (kind == 0)
        return api_fail(&frame, &ACK, TPEINVAL);
    if (_send_ack_msg(msg, kind, block) < 0)
        return api_error(&frame, &ACK);
    return api_return(&ACK, 1);
}
}
