// What stands in front of every request: names, sequence numbers, and the checks that end in a message to
// send.
#include "calls/cscommon.h"

#include "buffers/payload.h"
#include "buffers/tbuffer.h"
#include "calls/etcapi.h"
#include "runtime/thrapi.h"
#include "session/address.h"
#include "session/cliapi.h"
#include "tx/tx.h"
#include "vorn/errors.h"
#include "vorn/fields.h"
#include "vorn/flags.h"
#include "vorn/session.h"
#include "wire/clhio.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <stdlib.h>
#include <time.h>

extern "C" {

int _get_rqno_by_qname(const char *qname, wthr_var *block)
{
    initout_tables tables = initout_of(block);
    for (int i = 0; i < tables.queue_count; i++)
        if (is_row_name(qname, tables.queues[i].name))
            return i;
    return -1;
}

int _is_tipsvc(const char *svcname, wthr_var *block)
{
    return block->server_name[0] != '\0' && strcmp(svcname, block->server_name) == 0;
}

constexpr int32_t NODE_NAME_FIELD = 0x1cf42545;  // key of a string that names the node of a request

int _isexist_nodename_fld(char *data)
{
    return fbkeyoccur((FBUF *)data, NODE_NAME_FIELD) > 0;
}

// The service's first group on a node, -1 if it has none there. False if its groups can't be told.
static bool find_group(const char *svcname, int node, int *group, wthr_var *block)
{
    group_numbers groups;
    if (!fetch_groups(svcname, &groups, block))
        return false;
    int i = 0;
    while (i < groups.count && node_of_group(groups.numbers[i]) != node)
        i++;
    *group = i < groups.count ? groups.numbers[i] : -1;
    free(groups.numbers);
    return true;
}

int _get_mysvgno_from_nodename(const char *svcname, char *data, wthr_var *block)
{
    const char *name = fbgetval((FBUF *)data, NODE_NAME_FIELD, 0, nullptr);
    int node = name == nullptr ? -1 : _get_nodeno_from_nodename(name, block);
    int group;
    if (node >= 0 && find_group(svcname, node, &group, block))
        return group;
    set_tperrno(TPEINVAL);
    return -1;
}

// The trace of a failure names tpcall, whichever call it is in.
static constexpr api_text TIP_REQUEST = API_TEXT("tpcall", "");

int _check_tipsvc(msg_header *message, wthr_var *block)
{
    char *data = message_data(message);
    int target;
    if (message->buftype == BUF_FIELD && _isexist_nodename_fld(data))
        target = _get_mysvgno_from_nodename(message->svcname, data, block);
    else
        target = block->node_count == 1 ? 0 : -1;
    if (target < 0) {
        set_tperrno(TPEINVAL);
        _vorn_trace(TIP_REQUEST.name, 1, TRACE_ERROR, TIP_REQUEST.error, TPEINVAL, tpstrerror(TPEINVAL));
        return -1;
    }
    if (target > 0) {
        message->target = target;
        message->flags |= TPSVGCALL;
    }
    return 1;
}

// Opens the session of a call that was made without one, on the row that the call's frame has bound; frames
// bind rows in the single-context mode only. A caller without a row gets one from tpstart, and a context of
// several threads that has lost its session in the meantime gets an error from it. The block that the session
// stands on, or null with tperrno set.
static wthr_var *open_session(wthr_var *block)
{
    _thread_lock();
    bool on_own_row = _start_ctxt == CONTEXT_MODE_SINGLE && _get_wthr_from_nth() == block;
    _thread_unlock();
    if ((on_own_row ? start_on_bound_row(block) : tpstart(nullptr)) < 0)
        return nullptr;
    return current_block();
}

int join_transaction(int msgtype, msg_header *message, uint32_t *flags, wthr_var *block)
{
    if (_tx_start_check(msgtype) < 0)
        return -1;
    if (begin_to_run(block))
        *flags |= TPTXSTART;
    if (block->txinfo != nullptr)
        memcpy(message->xid, block->txinfo->xid_data, sizeof message->xid);
    return 0;
}

msg_header *_check_args_and_tx(int msgtype, const char *svcname, char *data, long len, uint32_t flags,
                               wthr_var *block)
{
    set_tperrno(0);
    if (block->started == 0) {
        block = open_session(block);
        if (block == nullptr)
            return nullptr;
    }
    int datalen = _data_itype_check(data, buffer_length(len), block);
    if (datalen < 0)
        return nullptr;
    msg_header *message = data != nullptr ? message_of(data) : _header_msg_make(0, 0);
    if (message == nullptr) {
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    if ((flags & TPNOTRAN) == 0 && join_transaction(msgtype, message, &flags, block) < 0) {
        if (data == nullptr)
            free(message);
        return nullptr;
    }
    if (svcname != nullptr)
        put_name(message->svcname, sizeof message->svcname, svcname);
    message->svcname[sizeof message->svcname - 1] = '\0';
    message->msgtype = msgtype;
    message->rcode = 0;
    message->target = 0;
    message->datalen = datalen;
    message->flags = flags;
    return message;
}

// Numbers of a context start at a multiple of 1024 below 0x10000000.
int _vorn_init_seqno(void)
{
    wthr_var *block = current_block();
    if (block == nullptr || block->seqno_inited != 0)
        return 1;
    int64_t identity = (int32_t)(uint32_t)pthread_self();
    int64_t seed = (int64_t)((uint64_t)identity * (uint64_t)time(nullptr)) % 0x20000;
    srand((unsigned)seed);
    block->seqno = (int32_t)(((uint32_t)rand() << 10) & 0xffffc00);
    block->seqno_inited = 1;
    return 1;
}

int _vorn_set_seqno(wthr_var *block)
{
    if (block->seqno > 0xffffffe)
        block->seqno = 0;
    return block->seqno;
}

int next_seqno(wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    block->seqno++;
    int seqno = _vorn_set_seqno(block);
    _thread_mutex_unlock(&block->msg_mutex);
    return seqno;
}

int wait_limit(const wthr_var *block, long flags, long unlimited)
{
    if (in_transaction(block) || block->block_time <= 0 || (flags & unlimited) != 0)
        return 0;
    return block->block_time;
}

msg_header *template_of(int32_t msgtype, long flags, wthr_var *block)
{
    msg_header *want = _header_msg_make(msgtype, 0);
    if (want == nullptr) {
        forget_waiter(block);
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    want->flags = (uint32_t)flags;
    return want;
}

msg_header *await_reply(msg_header *want, int limit, wthr_var *block)
{
    if (want == nullptr)
        return nullptr;
    msg_header *reply = _read_csmsg_from_clh_timeout(want, limit, block);
    if (reply == nullptr)
        free(want);
    return reply;
}

msg_header *ask_server(msg_header *question, wthr_var *block)
{
    if (_send_csmsg_to_clh(question, block) > 0)
        return await_reply(question, 0, block);
    free(question);
    return nullptr;
}

int error_in(const msg_header *answer)
{
    return answer->rcode != 0 ? answer->rcode : (int)answer->flags;
}

int send_request(msg_header *message, const char *data, wthr_var *block)
{
    int sent = _send_csmsg_to_clh(message, block);
    if (data == nullptr)
        free(message);
    return sent;
}
}
