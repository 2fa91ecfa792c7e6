// Producers, consumers and browsers: making them, closing them, what they tell.
//
// Entered from the application. An object is made once the server has given it its identity, and goes with
// the server's answer to its closing, whatever that is. The rings are changed under msg_mutex: the thread
// that reads for the context looks for a message's consumer in them.
#include "kmq/kmqobj.h"

#include "calls/cscommon.h"
#include "runtime/thrapi.h"
#include "vorn/errors.h"
#include "wire/clhio.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <stdlib.h>
#include <string.h>

extern "C" {

static constexpr api_text CREATE_PRODUCER =
    API_POINTER_TEXT("kmq_create_producer", "(%#x, \"%s\", %d, \"%s\", %d)");
static constexpr api_text CREATE_CONSUMER =
    API_POINTER_TEXT("kmq_create_consumer", "(%#x, \"%s\", %d, \"%s\", \"%s\", \"%s\", %#x)");
static constexpr api_text CREATE_BROWSER =
    API_POINTER_TEXT("kmq_create_browser", "(%#x, \"%s\", \"%s\", %#x)");
static constexpr api_text CLOSE_PRODUCER = API_TEXT("kmq_close_producer", "(%#x, %d)");
static constexpr api_text CLOSE_CONSUMER = API_TEXT("kmq_close_consumer", "(%#x, %d)");
static constexpr api_text CLOSE_BROWSER = API_TEXT("kmq_close_browser", "(%#x, %d)");
static constexpr api_text UNSUBSCRIBE =
    API_TEXT("kmq_unsubscribe_durable_subscriber", "(%#x, \"%s\", \"%s\", %d)");
static constexpr api_text GET_MSGSELECTOR = API_TEXT("kmq_browser_get_msgselector", "(%#x, %#x, %#x, %d)");
static constexpr api_text GET_QUEUE = API_TEXT("kmq_browser_get_queue", "(%#x, %#x, %#x, %d)");

// --- Requests.

// What follows the header of a request, each name ended by a NUL. A selector takes its length and two bytes
// in the place of `selector`; without one there is the NUL alone.
struct object_names {
    char subname[KMQ_LONG_NAME];
    char queue[KMQ_NAME];
    char consname[KMQ_LONG_NAME];
    char selector[1];
};
static_assert(sizeof(object_names) == 81 && offsetof(object_names, selector) == 80);

constexpr size_t LONGEST_QUEUE = KMQ_NAME - 1, LONGEST_NAME = KMQ_LONG_NAME - 1, LONGEST_SELECTOR = 1023;

// True for a name of no more than `longest` characters, and for none.
static bool fits(const char *name, size_t longest)
{
    return name == nullptr || strnlen(name, longest + 1) <= longest;
}

// A request of the session with names behind it, whose lengths have been checked; null with TPESYSTEM. The
// selector may be null; the other names are put in by the caller.
static msg_header *object_request(const kmq_session *session, int32_t msgtype, uint32_t flags,
                                  const char *selector)
{
    size_t selector_length = selector == nullptr ? 0 : strlen(selector);
    size_t length = selector == nullptr ? sizeof(object_names) : sizeof(object_names) + 1 + selector_length;
    msg_header *request = (msg_header *)calloc(1, length + BLOCK_OVERHEAD);
    if (request == nullptr) {
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    _init_header(request);
    request->msgtype = msgtype;
    request->sessid = session->id;
    put_name(request->svcname, sizeof request->svcname, session->name);
    request->flags = flags;
    request->bufsize = request->datalen = (int32_t)length;
    if (selector != nullptr)
        memcpy(message_data(request) + offsetof(object_names, selector), selector, selector_length + 1);
    return request;
}

static object_names *names_in(msg_header *request)
{
    return (object_names *)message_data(request);
}

// --- Making an object.

static kmq_session *make_session(const msg_header *request, const msg_header *reply, wthr_var *block)
{
    kmq_session *session = (kmq_session *)calloc(1, sizeof *session);
    if (session == nullptr)
        return nullptr;
    put_name(session->name, sizeof session->name, request->svcname);
    session->id = reply->sessid;
    session->open = 1;
    session->socket = block->clhfd;
    return session;
}

static kmq_producer *make_producer(const object_names *names, const msg_header *reply)
{
    kmq_producer *producer = (kmq_producer *)calloc(1, sizeof *producer);
    if (producer == nullptr)
        return nullptr;
    producer->id = reply->prio;
    put_name(producer->queue, sizeof producer->queue, names->queue);
    put_name(producer->subname, sizeof producer->subname, names->subname);
    return producer;
}

static kmq_consumer *make_consumer(const object_names *names, const msg_header *reply)
{
    kmq_consumer *consumer = (kmq_consumer *)calloc(1, sizeof *consumer);
    if (consumer == nullptr)
        return nullptr;
    consumer->id = reply->prio;
    put_name(consumer->queue, sizeof consumer->queue, names->queue);
    put_name(consumer->subname, sizeof consumer->subname, names->subname);
    put_name(consumer->consname, sizeof consumer->consname, names->consname);
    consumer->last_cd = consumer->last_word = UINT32_MAX;
    return consumer;
}

// What the reply is awaited with: the request's header, and room for its names. Null with TPESYSTEM.
static msg_header *template_for(const msg_header *request, wthr_var *block)
{
    msg_header *want = (msg_header *)calloc(1, sizeof(object_names) + BLOCK_OVERHEAD);
    if (want == nullptr) {
        forget_waiter(block);
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    memcpy(want, request, sizeof *want);
    want->bufsize = want->datalen = (int32_t)sizeof(object_names);
    return want;
}

void *_create_something(int kind, msg_header *message, wthr_var *block)
{
    if (_send_csmsg_to_clh(message, block) < 0) {
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    msg_header *reply = await_reply(template_for(message, block), 0, block);
    if (reply == nullptr) {
        set_tperrno_if_none(TPESYSTEM);
        return nullptr;
    }
    if (reply->msgtype != message->msgtype + REPLY) {
        set_tperrno_if_none((int)reply->flags);
        free(reply);
        return nullptr;
    }
    void *made = nullptr;
    switch (kind) {
    case KMQ_MAKE_SESSION:
        made = make_session(message, reply, block);
        break;
    case KMQ_MAKE_PRODUCER:
        made = make_producer(names_in(message), reply);
        break;
    case KMQ_MAKE_CONSUMER:
        made = make_consumer(names_in(message), reply);
        break;
    }
    if (made == nullptr)
        set_tperrno(TPESYSTEM);
    free(reply);
    return made;
}

static void *refuse(int code)
{
    set_tperrno(code);
    return nullptr;
}

// --- Producers.

static void link_producer(kmq_producer *producer, kmq_session *session, wthr_var *block)
{
    producer->session = session;
    _thread_mutex_lock(&block->msg_mutex);
    link_into_ring(&session->producers, producer, offsetof(kmq_producer, next));
    session->producer_count++;
    _thread_mutex_unlock(&block->msg_mutex);
}

static void *create_producer(kmq_session *session, const char *queue, int kind, const char *subname,
                             wthr_var *block)
{
    static const uint32_t flags_of_kind[] = {0, KMQ_TOPIC};
    if (session == nullptr || queue == nullptr || queue[0] == '\0' || !fits(queue, LONGEST_QUEUE) ||
        !fits(subname, LONGEST_NAME))
        return refuse(TPEINVAL);
    if (!session_is_open(session))
        return nullptr;
    if (kind != 0 && kind != 1)
        return refuse(TPEINVAL);
    uint32_t flags = flags_of_kind[kind];
    msg_header *request = object_request(session, MSG_KMQ_OBJECT_OPEN, flags, nullptr);
    if (request == nullptr)
        return nullptr;
    put_name(names_in(request)->queue, KMQ_NAME, queue);
    put_name(names_in(request)->subname, KMQ_LONG_NAME, shown(subname));
    kmq_producer *producer = (kmq_producer *)_create_something(KMQ_MAKE_PRODUCER, request, block);
    free(request);
    if (producer == nullptr)
        return nullptr;
    producer->flags = flags;
    link_producer(producer, session, block);
    return producer;
}

kmq_producer *kmq_create_producer(kmq_session *session, const char *queue, int kind, const char *subname,
                                  int extra)
{
    api_frame frame;
    if (!API_ENTER(&frame, CREATE_PRODUCER, session, shown(queue), kind, shown(subname), extra))
        return nullptr;
    set_tperrno(0);
    void *producer = create_producer(session, queue, kind, subname, frame.block);
    return (kmq_producer *)api_give(&frame, &CREATE_PRODUCER, producer);
}

kmq_producer *_search_prod_by_id(kmq_session *session, int id)
{
    kmq_producer *producer = session->producers;
    for (int32_t i = 0; i < session->producer_count; i++, producer = producer->next)
        if (producer->id == id)
            return producer;
    return nullptr;
}

// --- Consumers and browsers.

// Bits of the caller's flags.
constexpr int BROWSE = 0x800, BROWSE_ON = 1;

// False for a kind that there isn't.
static bool consumer_flags(int kind, int caller_flags, uint32_t *flags)
{
    static const uint32_t flags_of_kind[] = {KMQ_CONSUMES, KMQ_TOPIC | KMQ_CONSUMES,
                                             KMQ_TOPIC | KMQ_DURABLE | KMQ_CONSUMES};
    if (kind < 0 || kind > 2)
        return false;
    *flags = flags_of_kind[kind];
    if (kind == 0 && (caller_flags & BROWSE) != 0)
        *flags = (caller_flags & BROWSE_ON) != 0 ? KMQ_BROWSES | KMQ_BROWSES_ON : KMQ_BROWSES;
    return true;
}

static bool has_consumer_named(const kmq_session *session, const char *consname)
{
    const kmq_consumer *consumer = session->consumers;
    for (int32_t i = 0; i < session->consumer_count; i++, consumer = consumer->next)
        if (strcmp(consumer->consname, consname) == 0)
            return true;
    return false;
}

// Consumers of an asynchronous session are told by their names. 0, or an error number.
static int check_consname(const kmq_session *session, const char *consname)
{
    if ((session->flags & KMQ_ASYNC) == 0)
        return 0;
    if (shown(consname)[0] == '\0')
        return TPEINVAL;
    return has_consumer_named(session, consname) ? TPEPROTO : 0;
}

// `selector` becomes the consumer's.
static void link_consumer(kmq_consumer *consumer, kmq_session *session, char *selector, wthr_var *block)
{
    consumer->session = session;
    consumer->selector = selector;
    _thread_mutex_lock(&block->msg_mutex);
    link_into_ring(&session->consumers, consumer, offsetof(kmq_consumer, next));
    session->consumer_count++;
    _thread_mutex_unlock(&block->msg_mutex);
}

static void free_consumer(kmq_consumer *consumer)
{
    free(consumer->saved);
    free(consumer->selector);
    free(consumer);
}

// The request for a consumer, and the copy of the selector that it is to have: both are there before the
// server makes anything. Null with TPESYSTEM.
static msg_header *consumer_request(const kmq_session *session, uint32_t flags, const char *selector,
                                    char **copy)
{
    msg_header *request = object_request(session, MSG_KMQ_OBJECT_OPEN, flags, selector);
    *copy = nullptr;
    if (request == nullptr || selector == nullptr)
        return request;
    size_t size = strlen(selector) + 1;
    *copy = (char *)malloc(size);
    if (*copy == nullptr) {
        free(request);
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    memcpy(*copy, selector, size);
    return request;
}

static void *create_consumer(kmq_session *session, int kind, const object_names *names, const char *selector,
                             int caller_flags, wthr_var *block)
{
    if (!session_is_open(session))
        return nullptr;
    int error = check_consname(session, names->consname);
    if (error != 0)
        return refuse(error);
    uint32_t flags;
    if (!consumer_flags(kind, caller_flags, &flags))
        return refuse(TPEINVAL);
    char *copy;
    msg_header *request = consumer_request(session, flags, selector, &copy);
    if (request == nullptr)
        return nullptr;
    memcpy(message_data(request), names, offsetof(object_names, selector));
    kmq_consumer *consumer = (kmq_consumer *)_create_something(KMQ_MAKE_CONSUMER, request, block);
    free(request);
    if (consumer == nullptr) {
        free(copy);
        return nullptr;
    }
    consumer->flags = flags;
    link_consumer(consumer, session, copy, block);
    return consumer;
}

kmq_consumer *kmq_create_consumer(kmq_session *session, const char *queue, int kind, const char *subname,
                                  const char *selector, const char *consname, int flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, CREATE_CONSUMER, session, shown(queue), kind, shown(subname), shown(selector),
                   shown(consname), flags))
        return nullptr;
    set_tperrno(0);
    void *consumer = nullptr;
    if (session == nullptr || queue == nullptr || queue[0] == '\0' || !fits(queue, LONGEST_QUEUE) ||
        !fits(subname, LONGEST_NAME) || !fits(selector, LONGEST_SELECTOR) || !fits(consname, LONGEST_NAME)) {
        set_tperrno(TPEINVAL);
    } else {
        object_names names = {};
        put_name(names.queue, sizeof names.queue, queue);
        put_name(names.subname, sizeof names.subname, shown(subname));
        put_name(names.consname, sizeof names.consname, shown(consname));
        consumer = create_consumer(session, kind, &names, selector, flags, frame.block);
    }
    return (kmq_consumer *)api_give(&frame, &CREATE_CONSUMER, consumer);
}

kmq_consumer *kmq_create_browser(kmq_session *session, const char *queue, const char *selector, int flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, CREATE_BROWSER, session, shown(queue), shown(selector), flags))
        return nullptr;
    set_tperrno(0);
    int browses = (flags & BROWSE_ON) != 0 ? (int)(KMQ_BROWSES | KMQ_BROWSES_ON) : BROWSE;
    void *browser = kmq_create_consumer(session, queue, 0, nullptr, selector, nullptr, flags | browses);
    return (kmq_consumer *)api_give(&frame, &CREATE_BROWSER, browser);
}

kmq_consumer *_search_cons_by_id(kmq_session *session, int id)
{
    kmq_consumer *consumer = session->consumers;
    for (int32_t i = 0; i < session->consumer_count; i++, consumer = consumer->next)
        if (consumer->id == id)
            return consumer;
    return nullptr;
}

// --- Closing.

// Sends a request and waits for the answer, which is the caller's; null with tperrno set, `no_answer` if none
// has come. The request is used up.
static msg_header *ask_and_wait(msg_header *request, int limit, int no_answer, wthr_var *block)
{
    if (_send_csmsg_to_clh(request, block) < 0) {
        free(request);
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    msg_header *answer = await_reply(request, limit, block);
    if (answer == nullptr)
        set_tperrno(no_answer);
    return answer;
}

// The server's answer to the closing of an object; null with tperrno set, and the object stays.
static msg_header *close_at_server(const kmq_session *session, uint32_t flags, int32_t id, wthr_var *block)
{
    if (!session_is_open(session))
        return nullptr;
    msg_header *request = session_message(session, MSG_KMQ_OBJECT_CLOSE, flags);
    if (request == nullptr)
        return nullptr;
    request->prio = id;
    return ask_and_wait(request, 0, TPESYSTEM, block);
}

// The exit of a closing: what the answer says. The answer is freed.
static int end_closing(const api_frame *frame, const api_text *text, msg_header *answer)
{
    bool closed = answer->msgtype == MSG_KMQ_OBJECT_CLOSE + REPLY;
    if (!closed)
        set_tperrno_if_none((int)answer->flags);
    free(answer);
    return closed ? api_return(text, 1) : api_error(frame, text);
}

int kmq_close_producer(kmq_producer *producer, int flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, CLOSE_PRODUCER, producer, flags))
        return -1;
    set_tperrno(0);
    if (producer == nullptr)
        return api_fail(&frame, &CLOSE_PRODUCER, TPEINVAL);
    wthr_var *block = frame.block;
    kmq_session *session = producer->session;
    msg_header *answer = close_at_server(session, producer->flags, producer->id, block);
    if (answer == nullptr)
        return api_error(&frame, &CLOSE_PRODUCER);
    _thread_mutex_lock(&block->msg_mutex);
    unlink_from_ring(&session->producers, producer, offsetof(kmq_producer, next));
    session->producer_count--;
    _thread_mutex_unlock(&block->msg_mutex);
    free(producer);
    return end_closing(&frame, &CLOSE_PRODUCER, answer);
}

int kmq_close_consumer(kmq_consumer *consumer, int flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, CLOSE_CONSUMER, consumer, flags))
        return -1;
    set_tperrno(0);
    if (consumer == nullptr)
        return api_fail(&frame, &CLOSE_CONSUMER, TPEINVAL);
    wthr_var *block = frame.block;
    kmq_session *session = consumer->session;
    // A durable subscription outlives its subscriber.
    msg_header *answer = close_at_server(session, consumer->flags & ~KMQ_DURABLE, consumer->id, block);
    if (answer == nullptr)
        return api_error(&frame, &CLOSE_CONSUMER);
    _thread_mutex_lock(&block->msg_mutex);
    unlink_from_ring(&session->consumers, consumer, offsetof(kmq_consumer, next));
    session->consumer_count--;
    _thread_mutex_unlock(&block->msg_mutex);
    free_consumer(consumer);
    return end_closing(&frame, &CLOSE_CONSUMER, answer);
}

int kmq_close_browser(kmq_consumer *browser, int flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, CLOSE_BROWSER, browser, flags))
        return -1;
    int result = kmq_close_consumer(browser, flags | BROWSE);
    return result < 0 ? api_error(&frame, &CLOSE_BROWSER) : api_return(&CLOSE_BROWSER, result);
}

int kmq_unsubscribe_durable_subscriber(kmq_session *session, const char *queue, const char *subname,
                                       int extra)
{
    api_frame frame;
    if (!API_ENTER(&frame, UNSUBSCRIBE, session, shown(queue), shown(subname), extra))
        return -1;
    set_tperrno(0);
    if (session == nullptr || queue == nullptr || !fits(queue, LONGEST_QUEUE) || !fits(subname, LONGEST_NAME))
        return api_fail(&frame, &UNSUBSCRIBE, TPEINVAL);
    if (!session_is_open(session))
        return api_error(&frame, &UNSUBSCRIBE);
    msg_header *request = object_request(session, MSG_KMQ_OBJECT_CLOSE, KMQ_DURABLE | KMQ_CONSUMES, nullptr);
    if (request == nullptr)
        return api_error(&frame, &UNSUBSCRIBE);
    put_name(names_in(request)->queue, KMQ_NAME, queue);
    put_name(names_in(request)->subname, KMQ_LONG_NAME, shown(subname));
    msg_header *answer = ask_and_wait(request, KMQ_REPLY_SECONDS, TPETIME, frame.block);
    if (answer == nullptr)
        return api_error(&frame, &UNSUBSCRIBE);
    return end_closing(&frame, &UNSUBSCRIBE, answer);
}

// --- What a browser tells.

// Copies a text with its NUL, if there is room for it. An empty one is `error_if_empty`. The exit of the
// call.
static int tell_text(const api_frame *frame, const api_text *text, const char *from, int error_if_empty,
                     char *buffer, long *len)
{
    if (from == nullptr || from[0] == '\0')
        return api_fail(frame, text, error_if_empty);
    size_t size = strlen(from) + 1;
    if (len != nullptr && *len < (long)size)
        return api_fail(frame, text, TPEINVAL);
    memcpy(buffer, from, size);
    if (len != nullptr)
        *len = (long)size;
    return api_return(text, 1);
}

int kmq_browser_get_msgselector(kmq_consumer *browser, char *buffer, long *len, int extra)
{
    api_frame frame;
    if (!API_ENTER(&frame, GET_MSGSELECTOR, browser, buffer, len, extra))
        return -1;
    if (browser == nullptr || buffer == nullptr)
        return api_fail(&frame, &GET_MSGSELECTOR, TPEINVAL);
    return tell_text(&frame, &GET_MSGSELECTOR, browser->selector, TPENOENT, buffer, len);
}

int kmq_browser_get_queue(kmq_consumer *browser, char *buffer, long *len, int extra)
{
    api_frame frame;
    if (!API_ENTER(&frame, GET_QUEUE, browser, buffer, len, extra))
        return -1;
    if (browser == nullptr || buffer == nullptr)
        return api_fail(&frame, &GET_QUEUE, TPEINVAL);
    return tell_text(&frame, &GET_QUEUE, browser->queue, TPESYSTEM, buffer, len);
}
}
