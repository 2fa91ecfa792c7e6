// Sessions of the message service: creating and closing them, commit, rollback, recover.
//
// Entered from the application, and from the reading thread with the server's notice that it has closed one.
// Requests bear the session's name, by which the server is found, and its identity.
#include "kmq/kmqapi.h"

#include "calls/cscommon.h"
#include "calls/unsolapi.h"
#include "kmq/kmqobj.h"
#include "runtime/errlog.h"
#include "runtime/thrapi.h"
#include "tx/tx.h"
#include "vorn/errors.h"
#include "wire/clhio.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

static constexpr api_text CREATE = API_POINTER_TEXT("kmq_create_session", "(\"%s\", %d, %d, %d)");
static constexpr api_text CREATE_XA = API_POINTER_TEXT("kmq_create_xa_session", "(\"%s\", %d)");
static constexpr api_text CREATE_ASYNC = API_POINTER_TEXT("kmq_create_async_session", "(\"%s\", %#x, %d)");
static constexpr api_text CLOSE = API_TEXT("kmq_close_session", "(%#x, %d)");
static constexpr api_text COMMIT = API_TEXT("kmq_commit", "(%#x, %d)");
static constexpr api_text ROLLBACK = API_TEXT("kmq_rollback", "(%#x, %d)");
static constexpr api_text RECOVER = API_TEXT("kmq_recover", "(%#x, %d)");

// --- What the service's files share.

void set_tperrno_if_none(int code)
{
    if (get_tperrno() == 0)
        set_tperrno(code);
}

bool session_is_open(const kmq_session *session)
{
    if (session != nullptr && session->open != 0)
        return true;
    set_tperrno(session == nullptr ? TPESYSTEM : TPECLOSE);
    return false;
}

msg_header *session_message(const kmq_session *session, int32_t msgtype, uint32_t flags)
{
    msg_header *message = _header_msg_make(msgtype, 0);
    if (message == nullptr) {
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    put_name(message->svcname, sizeof message->svcname, session->name);
    message->flags = flags;
    message->sessid = session->id;
    return message;
}

// --- Rings.

struct ring_links {
    void *next, *prev;
};
static_assert(offsetof(kmq_session, prev) == offsetof(kmq_session, next) + sizeof(void *));
static_assert(offsetof(kmq_producer, prev) == offsetof(kmq_producer, next) + sizeof(void *));
static_assert(offsetof(kmq_consumer, prev) == offsetof(kmq_consumer, next) + sizeof(void *));

static ring_links links_in(const void *record, size_t place)
{
    ring_links links;
    memcpy(&links, (const char *)record + place, sizeof links);
    return links;
}

static void set_links(void *record, size_t place, ring_links links)
{
    memcpy((char *)record + place, &links, sizeof links);
}

// Makes `second` follow `first`.
static void join_records(void *first, void *second, size_t place)
{
    ring_links links = links_in(first, place);
    links.next = second;
    set_links(first, place, links);
    links = links_in(second, place);
    links.prev = first;
    set_links(second, place, links);
}

void link_into_ring(void *head, void *record, size_t place)
{
    void *first;
    memcpy(&first, head, sizeof first);
    if (first == nullptr) {
        first = record;
        memcpy(head, &first, sizeof first);
    }
    void *last = first == record ? record : links_in(first, place).prev;
    join_records(last, record, place);
    join_records(record, first, place);
}

void unlink_from_ring(void *head, void *record, size_t place)
{
    void *first;
    memcpy(&first, head, sizeof first);
    ring_links links = links_in(record, place);
    if (first == record) {
        first = links.next == record ? nullptr : links.next;
        memcpy(head, &first, sizeof first);
    }
    join_records(links.prev, links.next, place);
}

// --- The sessions of the context.

static void link_session(kmq_session *session, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);  // the reading thread walks the rings
    link_into_ring(&block->kmq_sessions, session, offsetof(kmq_session, next));
    block->kmq_session_count++;
    _thread_mutex_unlock(&block->msg_mutex);
}

static bool stands_in(const kmq_session *session, const wthr_var *block)
{
    const kmq_session *walk = block->kmq_sessions;
    for (int32_t i = 0; i < block->kmq_session_count; i++, walk = walk->next)
        if (walk == session)
            return true;
    return false;
}

// False for one of another context, or one that is gone.
static bool is_of_context(const kmq_session *session, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    bool found = stands_in(session, block);
    _thread_mutex_unlock(&block->msg_mutex);
    return found;
}

static void unlink_session(kmq_session *session, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    unlink_from_ring(&block->kmq_sessions, session, offsetof(kmq_session, next));
    block->kmq_session_count--;
    _thread_mutex_unlock(&block->msg_mutex);
}

kmq_session *_search_sess_by_id(int id, wthr_var *block)
{
    kmq_session *session = block->kmq_sessions;
    for (int32_t i = 0; i < block->kmq_session_count; i++, session = session->next)
        if (session->id == id)
            return session;
    return nullptr;
}

int _close_session_notify(int waiter_id, int closed_id, wthr_var *block)
{
    kmq_session *session = _search_sess_by_id(closed_id, block);
    if (session == nullptr) {
        VORN_LOG(0, LEVEL_ERROR, "CSC7100", "0209 internal error : invalid session id[%#x]", closed_id);
        return 0;
    }
    session->open = 0;
    return waiter_id == closed_id;
}

// Hooks of the connection's end and of a new one.
int _close_session_by_clhclose(void)
{
    return 1;
}

int _close_session_by_clhstart(int socket)
{
    wthr_var *block = current_block();
    if (block != nullptr)
        block->clhfd = socket;
    return 1;
}

int _tms_check_tx_flag(kmq_session *session, wthr_var *block)
{
    return (session->flags & KMQ_XA) != 0 && begin_to_run(block) ? (int)TPTXSTART : 0;
}

// --- Creating a session.

static bool is_session_name(const char *name)
{
    return name != nullptr && name[0] != '\0' && strnlen(name, KMQ_NAME) <= KMQ_NAME - 2;
}

// Opens a session of the kind that `flags` tell. Null with tperrno set.
static kmq_session *open_session(const char *name, uint32_t flags, void *handler, wthr_var *block)
{
    block = begin_session(block);
    if (block == nullptr)
        return nullptr;
    msg_header *message = _header_msg_make(MSG_KMQ_SESSION_OPEN, 0);
    if (message == nullptr) {
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    snprintf(message->svcname, sizeof message->svcname, "_%.14s", name);
    message->flags = flags;
    if ((flags & KMQ_ASYNC) != 0)
        message->xflags = 0;  // this request goes without a trailer
    kmq_session *session = (kmq_session *)_create_something(KMQ_MAKE_SESSION, message, block);
    free(message);
    if (session == nullptr)
        return nullptr;
    session->flags = flags;
    session->handler = handler;
    link_session(session, block);
    return session;
}

kmq_session *kmq_create_session(const char *name, int transacted, int ackmode, int extra)
{
    static const uint32_t flags_of_mode[] = {0, KMQ_ACKMODE1, KMQ_ACKMODE2};
    api_frame frame;
    if (!API_ENTER(&frame, CREATE, shown(name), transacted, ackmode, extra))
        return nullptr;
    set_tperrno(0);
    kmq_session *session = nullptr;
    if (!is_session_name(name) || (unsigned)ackmode > 2)
        set_tperrno(TPEINVAL);
    else if (ackmode != 0 && transacted != 0)
        set_tperrno(TPEPROTO);
    else
        session = open_session(name, (transacted > 0 ? KMQ_TRANSACTED : 0) | flags_of_mode[ackmode], nullptr,
                               frame.block);
    return (kmq_session *)api_give(&frame, &CREATE, session);
}

kmq_session *kmq_create_xa_session(const char *name, int extra)
{
    api_frame frame;
    if (!API_ENTER(&frame, CREATE_XA, shown(name), extra))
        return nullptr;
    set_tperrno(is_session_name(name) ? 0 : TPEINVAL);
    kmq_session *session = is_session_name(name) ? open_session(name, KMQ_XA, nullptr, frame.block) : nullptr;
    return (kmq_session *)api_give(&frame, &CREATE_XA, session);
}

kmq_session *kmq_create_async_session(const char *name, void *handler, int extra)
{
    api_frame frame;
    if (!API_ENTER(&frame, CREATE_ASYNC, shown(name), handler, extra))
        return nullptr;
    set_tperrno(is_session_name(name) ? 0 : TPEINVAL);
    kmq_session *session =
        is_session_name(name) ? open_session(name, KMQ_ASYNC, handler, frame.block) : nullptr;
    return (kmq_session *)api_give(&frame, &CREATE_ASYNC, session);
}

// --- Closing one.

// Objects that can't be closed have no session any more, so that calls on them fail; their memory stays until
// the context's session ends.
static void abandon_producer(kmq_producer *producer, wthr_var *block)
{
    kmq_session *session = producer->session;
    _thread_mutex_lock(&block->msg_mutex);
    unlink_from_ring(&session->producers, producer, offsetof(kmq_producer, next));
    session->producer_count--;
    producer->session = nullptr;
    _thread_mutex_unlock(&block->msg_mutex);
    keep_until_end(producer, block);
}

static void abandon_consumer(kmq_consumer *consumer, wthr_var *block)
{
    kmq_session *session = consumer->session;
    _thread_mutex_lock(&block->msg_mutex);
    unlink_from_ring(&session->consumers, consumer, offsetof(kmq_consumer, next));
    session->consumer_count--;
    consumer->session = nullptr;
    _thread_mutex_unlock(&block->msg_mutex);
    keep_until_end(consumer->selector, block);
    keep_until_end(consumer->saved, block);
    keep_until_end(consumer, block);
}

static void close_objects(kmq_session *session, int flags, wthr_var *block)
{
    while (session->producer_count > 0) {
        kmq_producer *producer = session->producers;
        int32_t count = session->producer_count;
        kmq_close_producer(producer, flags);
        if (session->producer_count == count)
            abandon_producer(producer, block);
    }
    while (session->consumer_count > 0) {
        kmq_consumer *consumer = session->consumers;
        int32_t count = session->consumer_count;
        kmq_close_consumer(consumer, flags);
        if (session->consumer_count == count)
            abandon_consumer(consumer, block);
    }
}

// Tells the server. False with tperrno set, which a refusal may leave at 0: it need not name a reason.
static bool leave_server(const kmq_session *session, wthr_var *block)
{
    msg_header *message = session_message(session, MSG_KMQ_SESSION_CLOSE, session->flags);
    msg_header *reply = message == nullptr ? nullptr : ask_server(message, block);
    if (reply == nullptr) {
        set_tperrno(TPESYSTEM);
        return false;
    }
    bool left = reply->msgtype == MSG_KMQ_SESSION_CLOSE + REPLY;
    if (!left)
        set_tperrno((int)reply->flags);
    free(reply);
    return left;
}

int kmq_close_session(kmq_session *session, int flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, CLOSE, session, flags))
        return -1;
    wthr_var *block = frame.block;
    set_tperrno(0);
    if (session == nullptr || !is_of_context(session, block))
        return api_fail(&frame, &CLOSE, TPEINVAL);
    close_objects(session, flags, block);
    if (session->open != 0 && !leave_server(session, block))
        return api_error(&frame, &CLOSE);
    unlink_session(session, block);
    free(session);
    return api_return(&CLOSE, 1);
}

void close_kmq_sessions(wthr_var *block)
{
    while (block->kmq_session_count > 0) {
        kmq_session *session = block->kmq_sessions;
        int32_t count = block->kmq_session_count;
        kmq_close_session(session, 0);
        if (block->kmq_session_count < count)
            continue;
        unlink_session(session, block);
        keep_until_end(session, block);
    }
}

void forget_kmq_sessions(wthr_var *block)
{
    while (block->kmq_session_count > 0) {
        kmq_session *session = block->kmq_sessions;
        while (session->producer_count > 0)
            abandon_producer(session->producers, block);
        while (session->consumer_count > 0)
            abandon_consumer(session->consumers, block);
        unlink_session(session, block);
        free(session);
    }
}

// --- Commit, rollback, recover.

// Asks for one of the three. The exit is traced.
static int end_work(const api_frame *frame, const api_text *text, const kmq_session *session, int32_t msgtype)
{
    wthr_var *block = frame->block;
    msg_header *message = session_message(session, msgtype, session->flags);
    if (message == nullptr)
        return api_fail(frame, text, TPESYSTEM);
    if (_send_csmsg_to_clh(message, block) < 0) {
        free(message);
        return api_fail(frame, text, TPESYSTEM);
    }
    msg_header *reply = await_reply(message, KMQ_REPLY_SECONDS, block);
    if (reply == nullptr)
        return api_fail(frame, text, TPETIME);
    bool good = reply->msgtype == msgtype + REPLY;
    if (!good)
        set_tperrno_if_none((int)reply->flags);
    free(reply);
    return good ? api_return(text, 1) : api_error(frame, text);
}

// The checks of the three. 0, or an error number.
static int check_session(const kmq_session *session, bool transacted)
{
    if (session == nullptr)
        return TPEINVAL;
    if (session->open == 0)
        return TPECLOSE;
    return ((session->flags & KMQ_TRANSACTED) != 0) == transacted ? 0 : TPEPROTO;
}

static int commit_like(const api_frame *frame, const api_text *text, const kmq_session *session,
                       bool transacted, int32_t msgtype)
{
    set_tperrno(0);
    int error = check_session(session, transacted);
    return error != 0 ? api_fail(frame, text, error) : end_work(frame, text, session, msgtype);
}

int kmq_rollback(kmq_session *session, int flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, ROLLBACK, session, flags))
        return -1;
    return commit_like(&frame, &ROLLBACK, session, true, MSG_KMQ_ROLLBACK);
}

int kmq_commit(kmq_session *session, int flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, COMMIT, session, flags))
        return -1;
    int32_t state = tx_state_of(frame.block);
    bool doomed = state == TX_STATE_TIMED_OUT || state == TX_STATE_ROLLBACK;
    if (!doomed || check_session(session, true) != 0)
        return commit_like(&frame, &COMMIT, session, true, MSG_KMQ_COMMIT);
    return kmq_rollback(session, flags) < 0 ? api_error(&frame, &COMMIT) : api_return(&COMMIT, 1);
}

int kmq_recover(kmq_session *session, int flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, RECOVER, session, flags))
        return -1;
    return commit_like(&frame, &RECOVER, session, false, MSG_KMQ_RECOVER);
}
}
