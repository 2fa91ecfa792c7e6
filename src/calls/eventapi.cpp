// Events, broadcasts and notifications: tpsubscribe, tpsubscribe2, tpunsubscribe, tppost, tpbroadcast,
// tpnotify.
//
// Entered from the application, on its threads. A message goes out from the caller's own buffer, as a
// call's does; only tppost, and tpnotify on demand, wait for an answer.
#include "calls/eventapi.h"

#include "buffers/payload.h"
#include "calls/cscommon.h"
#include "calls/unsolapi.h"
#include "runtime/errlog.h"
#include "runtime/thrapi.h"
#include "runtime/wildcards.h"
#include "session/address.h"
#include "session/cliapi.h"
#include "vorn/errors.h"
#include "wire/clhio.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <stdlib.h>

extern "C" {

static constexpr uint32_t SUBSCRIPTION_FLAGS = TPNOBLOCK | TPSIGRSTRT | TPNOTIME;
static constexpr uint32_t TPBROADCAST_FLAGS = TPNOBLOCK | TPSIGRSTRT | TPNOTIME;
static constexpr uint32_t TPPOST_FLAGS = TPNOBLOCK | TPSIGRSTRT | TPNOREPLY | TPNOTRAN | TPNOTIME;
static constexpr uint32_t TPNOTIFY_FLAGS = TPNOBLOCK | TPSIGRSTRT | TPNOTIME | TPNOTIFYACK;
static_assert(SUBSCRIPTION_FLAGS == 0x23 && TPPOST_FLAGS == 0x2F && TPNOTIFY_FLAGS == 0x8023);

static constexpr api_text TPSUBSCRIBE = API_TEXT("tpsubscribe", "(\"%s\", %#x, %#x, %d)");
static constexpr api_text TPSUBSCRIBE2 = API_TEXT("tpsubscribe2", "(\"%s\", \"%s\", %d)");
static constexpr api_text TPUNSUBSCRIBE = API_TEXT("tpunsubscribe", "(%d, %d)");
static constexpr api_text TPPOST = API_TEXT("tppost", "(\"%s\", %#x, %d, %d)");
static constexpr api_text TPBROADCAST = API_TEXT("tpbroadcast", "(\"%s\", \"%s\", \"%s\", %#x, %d, %d)");
static constexpr api_text TPNOTIFY = API_TEXT("tpnotify", "(%#x, %#x, %d, %d)");

// --- The table of subscriptions.

constexpr int32_t ROWS_AT_ONCE = 10;

// Nothing counts the rows in use, so the search never finds one that is free again: each subscription takes
// the first of ten new rows.
static int find_free_row(const wthr_var *block)
{
    for (int i = 0; i < block->subscr_count && i < block->subscr_size; i++)
        if (block->subscr[i].name[0] == '\0')
            return i;
    return -1;
}

// Makes room for ten more. The first of them, or -1.
static int add_rows(wthr_var *block)
{
    constexpr int64_t row_size = sizeof(subscr_elem);
    int32_t first = block->subscr_size;
    int64_t bytes = ((int64_t)first + ROWS_AT_ONCE) * row_size;
    subscr_elem *table = bytes > INT32_MAX ? nullptr : (subscr_elem *)realloc(block->subscr, (size_t)bytes);
    if (table == nullptr) {
        VORN_LOG(0, LEVEL_ERROR, "CSC5104", "0004 memory allocation error : size = %d", (int)bytes);
        return -1;
    }
    block->subscr = table;
    block->subscr_size = first + ROWS_AT_ONCE;
    for (int32_t i = first; i < block->subscr_size; i++)
        table[i].name[0] = '\0';
    return first;
}

int _make_subscr_desc(const char *name, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    int desc = find_free_row(block);
    if (desc < 0)
        desc = add_rows(block);
    if (desc >= 0)
        put_name(block->subscr[desc].name, sizeof block->subscr[desc].name, name);
    _thread_mutex_unlock(&block->msg_mutex);
    return desc;
}

static bool is_row(int desc, const wthr_var *block)
{
    return desc >= 0 && desc < block->subscr_size;
}

char *_get_event_name(int desc, wthr_var *block)
{
    if (!is_row(desc, block) || block->subscr[desc].name[0] == '\0')
        return nullptr;
    return block->subscr[desc].name;
}

int _delete_subscr_desc(int desc, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    bool found = is_row(desc, block);
    if (found)
        block->subscr[desc].name[0] = '\0';
    _thread_mutex_unlock(&block->msg_mutex);
    return found ? 1 : -1;
}

// Copies the event's name while nobody can move the table. False if there is no such subscription.
static bool copy_event_name(int desc, subscr_elem *copy, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    const char *name = _get_event_name(desc, block);
    if (name != nullptr)
        put_name(copy->name, sizeof copy->name, name);
    _thread_mutex_unlock(&block->msg_mutex);
    return name != nullptr;
}

// --- tpsubscribe, tpsubscribe2.

constexpr size_t LONGEST_EVENT_NAME = 30;

static bool is_event_name(const char *name)
{
    return name != nullptr && strnlen(name, LONGEST_EVENT_NAME + 1) <= LONGEST_EVENT_NAME;
}

// The message of a subscription, owned by the caller; null with tperrno set.
static msg_header *make_subscription(int32_t msgtype, const char *event, long flags, wthr_var *block)
{
    constexpr size_t bytes = 192;
    msg_header *message = (msg_header *)calloc(1, bytes);
    if (message == nullptr) {
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    _init_header(message);
    message->msgtype = msgtype;
    message->flags = (uint32_t)flags;
    put_name(message->svcname, sizeof message->svcname, event);
    message->seqno = next_seqno(block);
    return message;
}

// Sends and frees the message. What the server makes of it isn't waited for: the subscription stands. Its
// descriptor, or -1 with tperrno set.
static int subscribe(msg_header *message, const char *event, wthr_var *block)
{
    if (send_request(message, nullptr, block) < 0)
        return -1;
    int desc = _make_subscr_desc(event, block);
    if (desc < 0)
        set_tperrno(TPESYSTEM);
    return desc;
}

int tpsubscribe(const char *eventexpr, const char *filter, void *ctl, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPSUBSCRIBE, shown(eventexpr), filter, ctl, (int)flags))
        return -1;
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return api_error(&frame, &TPSUBSCRIBE);
    if (!is_event_name(eventexpr) || has_flags_outside(flags, SUBSCRIPTION_FLAGS))
        return api_fail(&frame, &TPSUBSCRIBE, TPEINVAL);
    if (ctl != nullptr)
        return api_fail(&frame, &TPSUBSCRIBE, TPEPROTO);
    msg_header *message = make_subscription(MSG_TPSUBSCRIBE, eventexpr, flags, block);
    int desc = message == nullptr ? -1 : subscribe(message, eventexpr, block);
    return desc < 0 ? api_error(&frame, &TPSUBSCRIBE) : api_return(&TPSUBSCRIBE, desc);
}

int tpsubscribe2(const char *eventexpr, const char *second, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPSUBSCRIBE2, shown(eventexpr), shown(second), (int)flags))
        return -1;
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return api_error(&frame, &TPSUBSCRIBE2);
    if (!is_event_name(eventexpr) || second == nullptr || has_flags_outside(flags, SUBSCRIPTION_FLAGS))
        return api_fail(&frame, &TPSUBSCRIBE2, TPEINVAL);
    int desc = -1;
    msg_header *message = make_subscription(MSG_TPSUBSCRIBE2, eventexpr, flags, block);
    if (message != nullptr) {
        put_name(message->subtype, sizeof message->subtype, second);
        desc = subscribe(message, eventexpr, block);
    }
    return desc < 0 ? api_error(&frame, &TPSUBSCRIBE2) : api_return(&TPSUBSCRIBE2, desc);
}

// --- tpunsubscribe.

// Without tables there is nothing to unsubscribe from, which is as good as done.
int tpunsubscribe(int desc, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPUNSUBSCRIBE, desc, (int)flags))
        return 1;
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return api_error(&frame, &TPUNSUBSCRIBE);
    subscr_elem event;
    if (has_flags_outside(flags, SUBSCRIPTION_FLAGS) || !copy_event_name(desc, &event, block))
        return api_fail(&frame, &TPUNSUBSCRIBE, TPEINVAL);
    msg_header *message = _header_msg_make(MSG_TPUNSUBSCRIBE, 0);
    if (message == nullptr)
        return api_fail(&frame, &TPUNSUBSCRIBE, TPESYSTEM);
    message->seqno = next_seqno(block);
    message->flags = (uint32_t)flags;
    put_name(message->svcname, sizeof message->svcname, event.name);
    _delete_subscr_desc(desc, block);
    if (send_request(message, nullptr, block) < 0)
        return api_error(&frame, &TPUNSUBSCRIBE);
    return api_return(&TPUNSUBSCRIBE, 1);
}

// --- Messages with data.

// The message to send: the header in front of the caller's data, or for a message without data one of its
// own, which is the caller's to free. Null with tperrno set.
static msg_header *make_message(int32_t msgtype, char *data, long len, wthr_var *block)
{
    int datalen = _data_itype_check(data, buffer_length(len), block);
    if (datalen < 0)
        return nullptr;
    msg_header *message = data != nullptr ? message_of(data) : _header_msg_make(msgtype, 0);
    if (message == nullptr) {
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    message->msgtype = msgtype;
    message->datalen = datalen;
    clear_direction(message);
    message->seqno = next_seqno(block);
    return message;
}

// --- tppost.

// 1, or -1 with tperrno set.
static int await_post(long flags, wthr_var *block)
{
    int limit = wait_limit(block, flags, TPNOTIME);
    msg_header *answer = await_reply(template_of(MSG_TPPOST, 0, block), limit, block);
    if (answer == nullptr)
        return -1;
    int32_t rcode = answer->rcode;
    free(answer);
    if (rcode < 0) {
        set_tperrno(TPESYSTEM);
        return -1;
    }
    set_tpurcode(rcode);
    return 1;
}

int tppost(const char *eventname, char *data, long len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPPOST, shown(eventname), data, (int)len, (int)flags))
        return -1;
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return api_error(&frame, &TPPOST);
    if (!is_event_name(eventname) || has_flags_outside(flags, TPPOST_FLAGS))
        return api_fail(&frame, &TPPOST, TPEINVAL);
    msg_header *message = make_message(MSG_TPPOST, data, len, block);
    if (message == nullptr)
        return api_error(&frame, &TPPOST);
    message->rcode = 0;
    message->target = 0;
    message->flags = (uint32_t)flags;
    message->cd = 0;
    put_name(message->svcname, sizeof message->svcname, eventname);
    if (send_request(message, data, block) < 0 || await_post(flags, block) < 0)
        return api_error(&frame, &TPPOST);
    return api_return(&TPPOST, 1);
}

// --- tpbroadcast.

// In `flags` of the message: what wasn't given.
constexpr uint32_t ALL_NODES = 0x100, ALL_USERS = 0x200, ALL_CLIENTS = 0x400;

// The client's name stands where other messages have `value`, `xid` and `subtype`.
constexpr size_t NAME_AREA = 32;
static_assert(offsetof(msg_header, value) + NAME_AREA == offsetof(msg_header, svcname));

static char *name_area(msg_header *message)
{
    return (char *)message + offsetof(msg_header, value);
}

static bool is_given(const char *name)
{
    return name != nullptr && name[0] != '\0' && strcmp(name, "*") != 0;
}

// Whom a broadcast is for.
struct selection {
    uint32_t bits;
    int node;  // -1: all
};

// False if a name is too long, or the node isn't known.
static bool select_receivers(const char *lnid, const char *usrname, const char *cltname, selection *chosen,
                             const wthr_var *block)
{
    *chosen = {0, -1};
    if (!is_given(lnid))
        chosen->bits |= ALL_NODES;
    else if ((chosen->node = _get_nodeno_from_lnid(lnid, block)) < 0)
        return false;
    if (!is_given(usrname))
        chosen->bits |= ALL_USERS;
    else if (strnlen(usrname, NAME_AREA) == NAME_AREA)
        return false;
    if (!is_given(cltname))
        chosen->bits |= ALL_CLIENTS;
    else if (strnlen(cltname, NAME_AREA) == NAME_AREA)
        return false;
    return true;
}

// A name of which only a part is given, or none, goes out as it stands; the receivers are in the bits.
int _tpbroadcast(const char *lnid, const char *usrname, const char *cltname, char *data, long len, long flags,
                 wthr_var *block)
{
    block = begin_session(block);
    if (block == nullptr)
        return -1;
    selection chosen;
    if (has_flags_outside(flags, TPBROADCAST_FLAGS) ||
        !select_receivers(lnid, usrname, cltname, &chosen, block)) {
        set_tperrno(TPEINVAL);
        return -1;
    }
    msg_header *message = make_message(MSG_TPBROADCAST, data, len, block);
    if (message == nullptr)
        return -1;
    message->rcode = chosen.node;
    message->target = 0;
    message->flags = chosen.bits;
    message->cd = 0;
    if (usrname != nullptr)
        put_name(message->svcname, sizeof message->svcname, usrname);
    // The buffer keeps what it has there: its struct's name is needed for the next node, and by its owner.
    char kept[NAME_AREA];
    memcpy(kept, name_area(message), NAME_AREA);
    if (cltname != nullptr) {
        memset(name_area(message), 0, NAME_AREA);
        put_name(name_area(message), NAME_AREA, cltname);
    }
    int sent = send_request(message, data, block);
    if (data != nullptr)
        memcpy(name_area(message), kept, NAME_AREA);
    return sent;
}

constexpr size_t NODE_NAME_SIZE = sizeof initout_node::name;

// The name of node row `index`, cut to its 15 characters. False behind the last row. A send may have moved
// the session, and its rows, to another server: each is looked up anew.
static bool copy_node_name(int index, char name[NODE_NAME_SIZE], const wthr_var *block)
{
    initout_tables tables = initout_of(block);
    if (index >= tables.node_count || index >= block->node_count)
        return false;
    memcpy(name, tables.nodes[index].name, NODE_NAME_SIZE);
    name[NODE_NAME_SIZE - 1] = '\0';
    return true;
}

// One message for each node whose name the pattern covers. 1 if one of them was sent, else -1 with tperrno
// set.
static int broadcast_by_pattern(const char *lnid, const char *usrname, const char *cltname, char *data,
                                long len, long flags, wthr_var *block)
{
    block = begin_session(block);
    if (block == nullptr)
        return -1;
    char pattern[NODE_NAME_SIZE], name[NODE_NAME_SIZE];
    put_name(pattern, sizeof pattern, lnid);
    int sent = 0, code = TPEINVAL;
    for (int i = 0; copy_node_name(i, name, block); i++) {
        if (!_match_pattern(name, pattern))
            continue;
        if (_tpbroadcast(name, usrname, cltname, data, len, flags, block) < 0)
            code = get_tperrno();
        else
            sent++;
    }
    set_tperrno(sent > 0 ? 0 : code);
    return sent > 0 ? 1 : -1;
}

int tpbroadcast(const char *lnid, const char *usrname, const char *cltname, char *data, long len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPBROADCAST, shown(lnid), shown(usrname), shown(cltname), data, (int)len,
                   (int)flags))
        return -1;
    int sent = is_given(lnid) ? broadcast_by_pattern(lnid, usrname, cltname, data, len, flags, frame.block)
                              : _tpbroadcast(lnid, usrname, cltname, data, len, flags, frame.block);
    return sent < 0 ? api_error(&frame, &TPBROADCAST) : api_return(&TPBROADCAST, 1);
}

// --- tpnotify.

// The block time counts inside a transaction, too. 1, or -1 with tperrno set.
static int await_receipt(int32_t seqno, long flags, wthr_var *block)
{
    msg_header *want = template_of(MSG_TPNOTIFY, 0, block);
    if (want == nullptr)
        return -1;
    want->flags = (uint32_t)flags;
    want->seqno = seqno;
    int block_time = block->block_time;
    int seconds = block_time > 0 && (flags & TPNOTIME) == 0 ? block_time : 0;
    msg_header *receipt = await_reply(want, seconds, block);
    if (receipt == nullptr)
        return -1;
    bool good = receipt->msgtype == MSG_TPNOTIFY + REPLY;
    int code = (int)receipt->flags;
    free(receipt);
    if (good)
        return 1;
    set_tperrno(code != 0 ? code : TPESYSTEM);
    return -1;
}

int tpnotify(const TPCLIENT_T *clid, char *data, long len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPNOTIFY, clid, data, (int)len, (int)flags))
        return -1;
    wthr_var *block = frame.block;
    if (has_flags_outside(flags, TPNOTIFY_FLAGS) || clid == nullptr)
        return api_fail(&frame, &TPNOTIFY, TPEINVAL);
    set_tperrno(0);
    msg_header *message = make_message(MSG_TPNOTIFY, data, len, block);
    if (message == nullptr)
        return api_error(&frame, &TPNOTIFY);
    message->flags = (uint32_t)flags;
    message->cd = clid->id[0];
    put_name(message->svcname, sizeof message->svcname, "_notify");
    int32_t seqno = message->seqno;
    if (send_request(message, data, block) < 0)
        return api_error(&frame, &TPNOTIFY);
    if ((flags & TPNOTIFYACK) != 0 && await_receipt(seqno, flags, block) < 0)
        return api_error(&frame, &TPNOTIFY);
    return api_return(&TPNOTIFY, 1);
}
}
