// The shared key store: putting, getting, counting and removing what the server side keeps under keys.
//
// Every operation is one message and its reply, the error number in the reply's `flags`. In the domain's
// store some are asked of all nodes: the requests go out first, all under one number, then the replies are
// taken as they come. What a reply tells of lengths is checked before anything is read behind them.
#include "queue/keystore.h"

#include "buffers/dencode.h"
#include "buffers/payload.h"
#include "buffers/sdli.h"
#include "buffers/tbuffer.h"
#include "calls/cscommon.h"
#include "fields/fbcommon2.h"
#include "queue/keylist.h"
#include "runtime/thrapi.h"
#include "vorn/errors.h"
#include "vorn/keystore.h"
#include "wire/clhio.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <stdlib.h>

extern "C" {

static_assert(SQ_GLOBAL == SESSIONID_GLOBAL);

static constexpr uint32_t PUT_TO_SERVER = 0x2000, GET_TO_SERVER = 0x1000;  // carried to the server
static constexpr uint32_t PUT_FLAGS =
    TPNOBLOCK | TPSIGRSTRT | TPNOTIME | PUT_TO_SERVER | SQ_FIXKEY | SQ_NEWKEY | SQ_GLOBAL;
static constexpr uint32_t GET_FLAGS =
    TPNOBLOCK | TPSIGRSTRT | TPNOTIME | TPNOCHANGE | GET_TO_SERVER | SQ_GLOBAL;
static_assert(PUT_FLAGS == 0x1E023 && GET_FLAGS == 0x11123);

static int fail_with(int code)
{
    set_tperrno(code);
    return -1;
}

// --- Identities and keys.

int _get_sessionid(int flags, wthr_var *block)
{
    int sessionid = block->sessionid;
    if (sessionid == -1)
        return fail_with(TPEPROTO);
    return (flags & SESSIONID_GLOBAL) != 0 ? sessionid | SESSIONID_PLACE : sessionid;
}

// How each operation begins. False without a session.
static bool find_store(long flags, int *id, wthr_var *block)
{
    set_tperrno(0);
    *id = _get_sessionid((int)(flags & SQ_GLOBAL), block);
    return get_tperrno() == 0;
}

// What addresses the store of a node. More than the identity has bits for can't be addressed.
constexpr int MOST_NODES = 1 << (32 - SESSIONID_PLACE_BITS);

static int store_of_node(int node)
{
    return (int)((uint32_t)node << SESSIONID_PLACE_BITS | (uint32_t)SESSIONID_PLACE);
}

static int node_of_store(int id)
{
    return (int)((uint32_t)id >> SESSIONID_PLACE_BITS);
}

// The token of the start reply is the number of nodes.
static bool asks_all(long flags, const wthr_var *block)
{
    return (flags & SQ_GLOBAL) != 0 && block->session_token >= 2;
}

static constexpr char SYSKEY_MARK[] = {'$', 'S', 'Q', 'I', 'D'};
constexpr int SYSKEY_NODE = 13, SYSKEY_DIGITS = 3;

int _vorn_sq_issyskey(const char *key, int keylen)
{
    return key != nullptr && keylen == VORN_KEY_LENGTH && memcmp(key, SYSKEY_MARK, sizeof SYSKEY_MARK) == 0;
}

int _vorn_sq_getnodeno_from_syskey(const char *key, int keylen)
{
    if (!_vorn_sq_issyskey(key, keylen))
        return -1;
    char digits[SYSKEY_DIGITS + 1] = {};
    memcpy(digits, key + SYSKEY_NODE, SYSKEY_DIGITS);
    return (int)strtol(digits, nullptr, 16);
}

// --- Requests and replies.

// A request with room for `length` bytes behind it, as a block that may take the reply. Null with tperrno
// set.
static msg_header *new_request(sq_operation operation, int id, int64_t length, wthr_var *block)
{
    int64_t size = length + BLOCK_OVERHEAD;
    msg_header *request = size > INT32_MAX ? nullptr : (msg_header *)malloc((size_t)size);
    if (request == nullptr) {
        set_tperrno(TPEOS);
        return nullptr;
    }
    _init_header(request);
    request->seqno = next_seqno(block);
    request->bufsize = request->datalen = (int32_t)length;
    request->msgtype = MSG_SQ_REQUEST;
    request->rcode = operation;
    request->cd = id;
    return request;
}

static msg_header *request_with_key(sq_operation operation, int id, const char *key, int keylen,
                                    wthr_var *block)
{
    msg_header *request = new_request(operation, id, keylen, block);
    if (request != nullptr && keylen > 0)
        memcpy(message_data(request), key, (size_t)keylen);
    return request;
}

// Waits for a reply; the request, which has gone out, is used up. Null with tperrno set. TPNOCHANGE is about
// the value in a reply, not about the message around it.
static msg_header *await_answer(msg_header *request, int limit, wthr_var *block)
{
    request->flags &= ~(uint32_t)TPNOCHANGE;
    return await_reply(request, limit, block);
}

// Sends a request and waits for the reply, which is the caller's; null with tperrno set. The request is used
// up. False if nothing has been sent.
static bool ask_one(msg_header *request, long flags, msg_header **reply, wthr_var *block)
{
    *reply = nullptr;
    if (request == nullptr)
        return false;
    if (_send_csmsg_to_clh(request, block) < 0) {
        free(request);
        return false;
    }
    *reply = await_answer(request, wait_limit(block, flags, TPNOTIME), block);
    return true;
}

// Asks all nodes, but for `leave_out`, with a new request.
static msg_header *ask_nodes(msg_header *request, int leave_out, wthr_var *block)
{
    return request == nullptr ? nullptr : _sq_broadcast(request, block->session_token, leave_out, block);
}

// Asks whoever has a part of the store.
static msg_header *ask_store(msg_header *request, long flags, wthr_var *block)
{
    if (asks_all(flags, block))
        return ask_nodes(request, -1, block);
    msg_header *reply;
    ask_one(request, 0, &reply, block);
    return reply;
}

// A good reply as it is; one that bears an error is freed, and null. tperrno is set.
static msg_header *if_good(msg_header *reply)
{
    if (reply == nullptr)
        return nullptr;
    set_tperrno((int)reply->flags);
    if (reply->flags == 0)
        return reply;
    free(reply);
    return nullptr;
}

// The number of entries in a reply, which is freed; tperrno is set.
static int take_count(msg_header *reply)
{
    int count = reply->target;
    set_tperrno(count < 0 ? TPESYSTEM : (int)reply->flags);
    free(reply);
    return count;
}

// The key that the server made, in a good reply. 0, or an error number.
static int take_key(const msg_header *reply, char *key)
{
    if (reply->datalen != VORN_KEY_LENGTH)
        return TPESYSTEM;
    memcpy(key, (const char *)reply + HEADER_SIZE, VORN_KEY_LENGTH);
    return 0;
}

// --- Asking all nodes.

// The thread that asks counts as one waiter, whatever the number of its requests: what another thread reads
// in the meantime mustn't stay on offer for waits that haven't begun.
static bool send_to_nodes(msg_header *message, int nodes, int leave_out, wthr_var *block)
{
    bool counted = false;
    int fd = -1;
    for (int node = 0; node < nodes; node++) {
        if (node == leave_out)
            continue;
        message->cd = store_of_node(node);
        // All over one connection, also where the session moves meanwhile: its server gives back what it
        // doesn't answer, and the thread knows where its replies are to come from.
        int result =
            counted ? _internal_send_csmsg_to_clh(message, block, fd) : _send_csmsg_to_clh(message, block);
        bool sent = result > 0;
        fd = last_sent_fd();
        if (counted)
            forget_waiter(block);
        if (!sent)
            return false;
        counted = true;
    }
    return true;
}

// Waits for the next reply to `message`. Null with tperrno set.
static msg_header *await_another(const msg_header *message, int limit, bool has_more, wthr_var *block)
{
    msg_header *want = (msg_header *)malloc(BLOCK_OVERHEAD);
    if (want == nullptr) {
        forget_waiter(block);
        set_tperrno(TPEOS);
        return nullptr;
    }
    memcpy(want, message, sizeof *want);
    want->bufsize = want->datalen = 0;
    want->flags &= ~(uint32_t)TPNOCHANGE;
    msg_header *reply = read_one_of_several(want, limit, has_more, block);
    if (reply == nullptr)
        free(want);
    return reply;
}

// The sum of two counts. One that can't be spoils it.
static int32_t add_counts(int32_t a, int32_t b)
{
    int64_t sum = a < 0 || b < 0 ? -1 : (int64_t)a + b;
    return sum > INT32_MAX ? INT32_MAX : (int32_t)sum;
}

// True for a request that one good answer settles.
static bool wants_one_answer(const msg_header *message)
{
    return message->rcode == SQ_GET || (message->rcode == SQ_PURGE && message->datalen > 0);
}

// Puts a node's reply, which is used up, to what the others have told. True if that settles it; then `kept`
// is the result.
static bool add_reply(const msg_header *message, msg_header *reply, msg_header **kept)
{
    if (wants_one_answer(message)) {
        *kept = if_good(reply);
        return *kept != nullptr;
    }
    bool lists = message->rcode == SQ_KEYLIST;
    bool counts = message->rcode == SQ_PURGE || message->rcode == SQ_COUNT;
    if (reply->flags != 0 || (!lists && !counts)) {
        free(reply);
        return false;
    }
    if (*kept == nullptr) {
        *kept = reply;
        return false;
    }
    if (lists)
        *kept = _sq_keylist_merge(*kept, reply);
    else
        (*kept)->target = add_counts((*kept)->target, reply->target);
    free(reply);
    return *kept == nullptr;
}

msg_header *_sq_broadcast(msg_header *message, int nodes, int leave_out, wthr_var *block)
{
    set_tperrno(0);
    // The number comes from the server; each node is a message.
    nodes = nodes > MOST_NODES ? MOST_NODES : nodes;
    if (!send_to_nodes(message, nodes, leave_out, block)) {
        free(message);
        return nullptr;
    }
    int limit = wait_limit(block, 0, 0);
    msg_header *kept = nullptr;
    bool settled = false;
    int left = leave_out >= 0 && leave_out < nodes ? nodes - 1 : nodes;
    while (left > 0 && !settled) {
        left--;
        msg_header *reply = await_another(message, limit, left > 0, block);
        if (reply == nullptr) {
            free(kept);
            kept = nullptr;
            break;
        }
        settled = add_reply(message, reply, &kept);
        if (left > 0 && settled)
            forget_waiter(block);
    }
    free(message);
    return kept;
}

// --- Putting.

// The request that carries a checked buffer, of which `length` bytes leave. The buffer's header goes with it,
// telling the length of the wire form. Null with tperrno set.
static msg_header *request_to_put(int id, const char *key, int keylen, msg_header *buffer, int length,
                                  wthr_var *block)
{
    buffer->datalen = length;
    char *converted = nullptr;
    const char *data = message_data(buffer);
    if (has_wire_form(buffer)) {
        bool fields = buffer->buftype == BUF_FIELD || buffer->buftype == BUF_RQ_FIELD;
        converted = fields ? _hton_data_fdl(buffer, &length) : _hton_data_sdl(buffer, &length);
        if (converted == nullptr) {
            set_tperrno(TPEITYPE);
            return nullptr;
        }
        data = converted + HEADER_SIZE;
    }
    msg_header *request = new_request(SQ_PUT, id, (int64_t)keylen + HEADER_SIZE + length, block);
    if (request != nullptr) {
        msg_header head = *buffer;
        head.datalen = length;
        _hton_header(&head, &head);
        char *to = message_data(request);
        // A key that the server makes has its place all the same.
        if (key != nullptr)
            memcpy(to, key, (size_t)keylen);
        else
            memset(to, 0, (size_t)keylen);
        memcpy(to + keylen, &head, sizeof head);
        memcpy(to + keylen + HEADER_SIZE, data, (size_t)length);
        request->target = keylen;
    }
    free(converted);
    return request;
}

int _sq_put(char *key, int keylen, char *data, long len, long flags, wthr_var *block)
{
    int id;
    if (!find_store(flags, &id, block))
        return -1;
    if (has_flags_outside(flags, PUT_FLAGS) || key == nullptr || keylen <= 0 || data == nullptr)
        return fail_with(TPEINVAL);
    if ((flags & (SQ_FIXKEY | SQ_NEWKEY)) != 0) {
        if (keylen < VORN_KEY_LENGTH)
            return fail_with(TPEINVAL);
        keylen = VORN_KEY_LENGTH;
    }
    if (!is_typed_buffer(data))
        return fail_with(TPEITYPE);
    int length = _data_itype_check(data, buffer_length(len), block);
    if (length < 0)
        return -1;
    bool makes_key = (flags & SQ_NEWKEY) != 0;
    msg_header *request =
        request_to_put(id, makes_key ? nullptr : key, keylen, message_of(data), length, block);
    if (request == nullptr)
        return -1;
    request->flags = (uint32_t)flags;
    msg_header *reply;
    ask_one(request, flags, &reply, block);
    reply = if_good(reply);
    if (reply == nullptr)
        return -1;
    if (makes_key)
        set_tperrno(take_key(reply, key));
    free(reply);
    return get_tperrno() == 0 ? 1 : -1;
}

// --- Getting.

// Makes a message of its own of what a reply to a get carries behind its area: the header in host order and
// all that comes behind it. The bytes that there are, header and all; 0 if the reply can't be one.
static int64_t unwrap(msg_header *reply)
{
    int64_t area = reply->target, size = reply->datalen - area;
    if (area < 0 || size < HEADER_SIZE)
        return 0;
    const char *stored = message_data(reply) + area;
    msg_header head;
    memcpy(&head, stored, sizeof head);
    _ntoh_header(&head, &head);
    if (head.magic != MESSAGE_MAGIC || head.datalen < 0 || head.datalen > size - HEADER_SIZE)
        return 0;
    memmove(reply, stored, (size_t)size);
    head.xflags &= ~(uint32_t)XFLAG_TRAILER;  // the value has none, whatever its header says
    memcpy(reply, &head, sizeof head);
    return size;
}

// Turns the data of an unwrapped value to host order, in place.
static bool turn_in_place(msg_header *value)
{
    if (!has_wire_form(value))
        return true;
    char *data = message_data(value);
    if (value->buftype != BUF_STRUCT)
        return _ntoh_data_fdl(value, data, data) != nullptr;
    int length;
    if (_ntoh_data_sdl(value, data, data, &length) == nullptr)
        return false;
    value->datalen = length;
    return true;
}

// The caller's buffer with the value in it, its data of room for `bufsize` bytes; it may be another block
// now. The value's size is `size`. 0, or an error number: then the buffer is as it was.
static int put_in_buffer(msg_header *value, int64_t size, int32_t bufsize, msg_header **buffer)
{
    if (!turn_in_place(value))
        return TPESYSTEM;
    if (bufsize > (*buffer)->bufsize) {
        msg_header *grown = (msg_header *)realloc(*buffer, (size_t)bufsize + BLOCK_OVERHEAD);
        if (grown == nullptr)
            return TPEOS;
        *buffer = grown;
    }
    memcpy(*buffer, value, (size_t)size);
    return 0;
}

// The same for records whose two forms differ in size: they are turned into a new block.
static int put_records(msg_header *value, int32_t bufsize, msg_header **buffer)
{
    msg_header *made = (msg_header *)malloc((size_t)bufsize + BLOCK_OVERHEAD);
    if (made == nullptr)
        return TPEOS;
    memcpy(made, value, sizeof *made);
    if (_ntoh_data_sdl(value, message_data(value), message_data(made), &made->datalen) == nullptr) {
        free(made);
        return TPESYSTEM;
    }
    free_buffer(*buffer);
    *buffer = made;
    return 0;
}

// What data leaves open: fields that aren't there are an empty field buffer, and a text without its
// terminator ends in the buffer or its reserve.
static void complete_data(msg_header *buffer)
{
    char *data = message_data(buffer);
    if (buffer->buftype == BUF_FIELD && buffer->datalen == 0)
        init_field_buffer(data);
    if (buffer->buftype == BUF_FIELD)
        _clear_fcache(data);
    if (buffer->buftype == BUF_STRING && (buffer->datalen == 0 || data[buffer->datalen - 1] != '\0'))
        data[buffer->datalen] = '\0';
}

static int64_t larger(int64_t a, int64_t b)
{
    return a > b ? a : b;
}

// Puts the value in a good reply to a get into the caller's buffer. 1, or -1 with tperrno set; then the
// buffer holds what it held.
static int take_value(msg_header *reply, long flags, char **data, long *len, wthr_var *block)
{
    int64_t size = unwrap(reply);
    if (size == 0)
        return fail_with(TPESYSTEM);
    msg_header *buffer = message_of(*data);
    buffer->flags = (uint32_t)flags;
    if (_data_otype_check_no_alloc(reply, buffer, block) < 0)
        return -1;
    int host = 1, wire = 1;
    bool records = reply->buftype == BUF_STRUCT && reply->datalen > 0;
    if (records && (_get_host_nw_stsize(reply->subtype, &host, &wire) < 0 || host < 1 || wire < 1))
        return fail_with(TPESYSTEM);
    int64_t bufsize = larger(buffer->bufsize, size - HEADER_SIZE);
    bufsize = larger(bufsize, reply->buftype == BUF_FIELD ? FB_HEAD_SIZE : 0);
    bufsize = larger(bufsize, (int64_t)reply->datalen / wire * host);
    if (bufsize > INT32_MAX - BLOCK_OVERHEAD)
        return fail_with(TPEOS);
    if (buffer->buftype == BUF_FIELD)
        _clear_fcache(*data);
    int error = host != wire ? put_records(reply, (int32_t)bufsize, &buffer)
                             : put_in_buffer(reply, size, (int32_t)bufsize, &buffer);
    if (error != 0)
        return fail_with(error);
    buffer->bufsize = (int32_t)bufsize;
    complete_data(buffer);
    *data = message_data(buffer);
    *len = buffer->datalen;
    return 1;
}

static msg_header *request_to_get(int id, const char *key, int keylen, long flags, wthr_var *block)
{
    msg_header *request = request_with_key(SQ_GET, id, key, keylen, block);
    if (request != nullptr) {
        request->target = keylen;
        request->flags = (uint32_t)flags;
    }
    return request;
}

int _sq_get(char *key, int keylen, char **data, long *len, long flags, wthr_var *block)
{
    int id;
    if (!find_store(flags, &id, block))
        return -1;
    if ((flags & SQ_GLOBAL) != 0 && _vorn_sq_issyskey(key, keylen))
        id = store_of_node(_vorn_sq_getnodeno_from_syskey(key, keylen));
    if (has_flags_outside(flags, GET_FLAGS) || keylen <= 0 || key == nullptr || data == nullptr ||
        len == nullptr || *data == nullptr)
        return fail_with(TPEINVAL);
    if (!is_typed_buffer(*data))
        return fail_with(TPEOTYPE);
    msg_header *reply;
    if (!ask_one(request_to_get(id, key, keylen, flags, block), flags, &reply, block))
        return -1;
    reply = if_good(reply);
    // The entry may lie on another node.
    if (reply == nullptr && asks_all(flags, block))
        reply = if_good(ask_nodes(request_to_get(id, key, keylen, flags, block), node_of_store(id), block));
    if (reply == nullptr)
        return -1;
    int result = take_value(reply, flags, data, len, block);
    free(reply);
    return result;
}

// --- The others.

int _sq_count(long flags, wthr_var *block)
{
    int id;
    if (!find_store(flags, &id, block))
        return -1;
    msg_header *reply = ask_store(new_request(SQ_COUNT, id, 0, block), flags, block);
    if (reply == nullptr)
        return -1;
    int count = take_count(reply);
    return get_tperrno() == 0 ? count : -1;
}

static msg_header *request_to_purge(int id, const char *key, int keylen, long flags, wthr_var *block)
{
    msg_header *request = request_with_key(SQ_PURGE, id, key, keylen, block);
    if (request != nullptr)
        request->flags = (uint32_t)flags;
    return request;
}

// All entries of the domain's store are asked of all nodes at once, those of a key first of the own node.
int _sq_purge(char *key, int keylen, long flags, wthr_var *block)
{
    int id;
    if (!find_store(flags, &id, block))
        return -1;
    if (key != nullptr && keylen <= 0)
        return fail_with(TPEINVAL);
    keylen = key == nullptr ? 0 : keylen;
    int count = 0;
    if (key != nullptr || !asks_all(flags, block)) {
        msg_header *reply;
        if (!ask_one(request_to_purge(id, key, keylen, flags, block), 0, &reply, block))
            return -1;
        if (reply != nullptr)
            count = take_count(reply);
        else if (!asks_all(flags, block))
            return -1;
    }
    if (count <= 0 && asks_all(flags, block)) {
        int leave_out = key == nullptr ? -1 : node_of_store(id);
        msg_header *reply = ask_nodes(request_to_purge(id, key, keylen, flags, block), leave_out, block);
        if (reply == nullptr)
            return -1;
        count = take_count(reply);
    }
    return get_tperrno() == 0 ? count : -1;
}

int _sq_keygen(char *key, int keylen, long flags, wthr_var *block)
{
    int id;
    if (!find_store(flags, &id, block))
        return -1;
    if (key == nullptr || keylen < VORN_KEY_LENGTH)
        return fail_with(TPEINVAL);
    msg_header *reply;
    ask_one(new_request(SQ_KEYGEN, id, 0, block), 0, &reply, block);
    reply = if_good(reply);
    if (reply == nullptr)
        return -1;
    set_tperrno(take_key(reply, key));
    free(reply);
    return get_tperrno() == 0 ? 1 : -1;
}

char *_sq_getkeylist(char *key, int keylen, long flags, wthr_var *block)
{
    int id;
    if (!find_store(flags, &id, block))
        return nullptr;
    if (key != nullptr && keylen <= 0) {
        set_tperrno(TPEINVAL);
        return nullptr;
    }
    keylen = key == nullptr ? 0 : keylen;
    msg_header *list = if_good(ask_store(request_with_key(SQ_KEYLIST, id, key, keylen, block), flags, block));
    if (list == nullptr)
        return nullptr;
    // An empty list is the server's error to tell.
    if (list->datalen <= 0 || list->target <= 0 || !is_key_list(list)) {
        free(list);
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    turn_key_rows(list);
    return message_data(list);
}
}
