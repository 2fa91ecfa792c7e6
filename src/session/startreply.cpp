#include "session/startreply.h"

#include "calls/cscommon.h"
#include "runtime/mthr.h"
#include "session/address.h"
#include "session/cliapi.h"
#include "tx/tx.h"
#include "vorn/errors.h"
#include "wire/clhio.h"
#include "wire/msgheader.h"

#include <stdlib.h>

extern "C" {

int32_t _vorn_engine_version = 0;

int32_t engine_version(void)
{
    return std::atomic_ref<int32_t>(_vorn_engine_version).load(std::memory_order_relaxed);
}

// Tagged values: a tag, a length, that many bytes.
constexpr int TAG_HEAD = 8;
constexpr uint32_t TAG_SERVER_NAME = 0;

// Other threads may be comparing names: the same one isn't written again.
static void take_server_name(const char *name, int32_t length, wthr_var *block)
{
    char taken[sizeof block->server_name] = {};
    memcpy(taken, name, (size_t)length);
    if (memcmp(block->server_name, taken, sizeof taken) != 0)
        memcpy(block->server_name, taken, sizeof taken);
}

void _get_csval_to_loc(const char *payload, int length, int offset, wthr_var *block)
{
    while (offset >= 0 && offset < length && length - offset >= TAG_HEAD) {
        uint32_t tag = get_word(payload + offset);
        int32_t size = (int32_t)get_word(payload + offset + 4);
        offset += TAG_HEAD;
        if (size < 0 || size > length - offset)
            return;  // an entry that runs past the end ends the walk
        if (tag == TAG_SERVER_NAME) {
            int32_t cut =
                size < (int32_t)sizeof block->server_name - 1 ? size : (int32_t)sizeof block->server_name - 1;
            take_server_name(payload + offset, cut, block);
        }
        offset += size;
    }
}

static int32_t count_in(const char *payload, int32_t offset)
{
    int32_t count = 0;
    if (payload != nullptr)
        memcpy(&count, payload + offset, sizeof count);
    return count;
}

int32_t initout_count(const wthr_var *block, int32_t offset)
{
    return count_in(block->initout, offset);
}

initout_tables initout_of(const wthr_var *block)
{
    const char *payload = block->initout;
    int32_t nodes = count_in(payload, INITOUT_NODE_COUNT), queues = count_in(payload, INITOUT_QUEUE_COUNT);
    if (payload == nullptr)
        return {};
    const char *rows = payload + INITOUT_ROWS;
    return {(const initout_node *)rows, nodes,
            (const initout_queue *)(rows + (size_t)nodes * sizeof(initout_node)), queues};
}

// Turns a count of the payload to host order. No more rows are counted than the payload can hold from `rows`
// on.
static int32_t take_count(char *payload, int32_t length, int32_t offset, int32_t row_size, int64_t rows)
{
    int32_t count = (int32_t)get_word(payload + offset);
    int64_t most = length > rows ? (length - rows) / row_size : 0;
    if (count < 0)
        count = 0;
    else if (count > most)
        count = (int32_t)most;
    memcpy(payload + offset, &count, sizeof count);
    return count;
}

// What the payload would measure up to and with the threshold, if its counts were to be believed.
static int64_t expected_length(const char *payload)
{
    int64_t nodes = get_word(payload + INITOUT_NODE_COUNT);
    int64_t queues = get_word(payload + INITOUT_QUEUE_COUNT);
    int64_t svcs = get_word(payload + INITOUT_SVC_COUNT);
    return INITOUT_ROWS + nodes * (int64_t)sizeof(initout_node) + queues * (int64_t)sizeof(initout_queue) +
           svcs * (int64_t)sizeof(initout_svc) + 4;
}

static void forget_payload(wthr_var *block)
{
    retire(block->initout.exchange(nullptr), block);
    block->initout_nodes = nullptr;
    block->initout_queues = nullptr;
    block->initout_svcs = nullptr;
    block->initout_tail = nullptr;
    block->node_count = 0;
    block->compress_threshold = -1;
}

int _ntoh_initout_struct(const char *payload, int length, wthr_var *block)
{
    if (payload == nullptr || length < 1) {
        forget_payload(block);
        return -1;
    }
    // Room for the tail's word, and for the counts of a payload that is shorter than they are.
    char *own = (char *)calloc(1, (size_t)length + INITOUT_ROWS + 4);
    if (own == nullptr) {
        set_tperrno(TPESYSTEM);
        return -1;
    }
    memcpy(own, payload, (size_t)length);
    int64_t expected = expected_length(own);
    int64_t rows = INITOUT_ROWS;
    block->initout_nodes = (initout_node *)(own + rows);
    int32_t nodes = take_count(own, length, INITOUT_NODE_COUNT, sizeof(initout_node), rows);
    rows += nodes * (int64_t)sizeof(initout_node);
    block->initout_queues = (initout_queue *)(own + rows);
    rows += take_count(own, length, INITOUT_QUEUE_COUNT, sizeof(initout_queue), rows) *
            (int64_t)sizeof(initout_queue);
    block->initout_svcs = (initout_svc *)(own + rows);
    rows +=
        take_count(own, length, INITOUT_SVC_COUNT, sizeof(initout_svc), rows) * (int64_t)sizeof(initout_svc);
    block->initout_tail = own + rows;
    block->node_count = nodes;
    for (int32_t i = 0; i < nodes; i++)
        for (int32_t &word : block->initout_nodes[i].words)
            word = (int32_t)__builtin_bswap32((uint32_t)word);
    // A payload that ends before its threshold has none, nor anything behind it; its counts may have been
    // cut.
    int32_t threshold = length < expected ? -1 : (int32_t)get_word(own + rows);
    memcpy(own + rows, &threshold, sizeof threshold);
    // Complete: other threads may look into it from here on.
    retire(block->initout.exchange(own), block);
    block->compress_threshold = threshold;
    if (length > expected)
        _get_csval_to_loc(payload, length, (int)expected, block);
    return 1;
}

// The identity of calls. The running count is taken over from the calls sent so far, so that it survives a
// reconnect.
constexpr uint32_t CALLID_COUNT = 0x7ff00;
constexpr int CALLID_CLIENT_SHIFT = 19;

static void take_callid(const msg_header *reply, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    block->callid_base[0] = reply->xid[0];
    block->callid_base[1] =
        (uint32_t)reply->value << CALLID_CLIENT_SHIFT | (block->callid_next[1] & CALLID_COUNT) | 1;
    memcpy(block->callid_next, block->callid_base, sizeof block->callid_next);
    advance_callid(block->callid_next);
    _thread_mutex_unlock(&block->msg_mutex);
}

int take_start_reply(msg_header *reply, int node_fd, bool moves, wthr_var *block)
{
    uint32_t location = reply->xid[0];
    int32_t clh = (int32_t)(location & 0xff), node = (int32_t)(location >> 8 & 0x3fff);
    block->block_time = (int32_t)reply->xid[2];
    take_callid(reply, block);
    if (reply->datalen < 1) {
        block->compress_threshold = -1;
    } else {
        if (_ntoh_initout_struct(message_data(reply), reply->datalen, block) < 0)
            return -1;
        _init_node(initout_count(block, INITOUT_NODE_COUNT), block);
        _init_qcall(initout_count(block, INITOUT_QUEUE_COUNT), block);
        _node_add(node_fd, node, clh, reply->value, block);
    }
    _cli_init(reply->rcode, reply->cd, block);
    if (block->txinfo != nullptr)
        std::atomic_ref<int32_t>(block->txinfo->transaction_timeout).store((int32_t)reply->xid[1]);
    std::atomic_ref<int32_t>(_vorn_engine_version).store(reply->prio, std::memory_order_relaxed);
    if (moves)
        return 1;
    block->sessionid = (int32_t)((uint32_t)node * 0x200000 + (uint32_t)clh * 0x4000 + (uint32_t)reply->value);
    block->session_token = reply->sessid;
    return 1;
}
}
