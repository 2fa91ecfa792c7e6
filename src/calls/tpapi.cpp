// Call and reply: tpcall, tpacall, tpgetrply, tpcancel, and the calls to a chosen server group.
//
// A request goes out from the caller's own buffer, whose header is filled in front of the data; the receive
// buffer's header then serves as the template of the wait, and the reply is copied over it or takes its
// place.
#include "calls/tpapi.h"

#include "buffers/payload.h"
#include "buffers/tbuffer.h"
#include "calls/cscommon.h"
#include "runtime/thrapi.h"
#include "tx/tx.h"
#include "vorn/calls.h"
#include "vorn/errors.h"
#include "vorn/groups.h"
#include "wire/clhio.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <stdlib.h>

extern "C" {

static constexpr uint32_t TPCALL_FLAGS = TPNOBLOCK | TPSIGRSTRT | TPNOTRAN | TPNOTIME | TPNOCHANGE;
static constexpr uint32_t TPACALL_FLAGS =
    TPNOBLOCK | TPSIGRSTRT | TPNOREPLY | TPNOTRAN | TPNOTIME | TPBLOCK | 0x400;
static constexpr uint32_t TPGETRPLY_FLAGS = TPNOBLOCK | TPSIGRSTRT | TPNOTIME | TPGETANY | TPNOCHANGE;
static_assert(TPCALL_FLAGS == 0x12B && TPACALL_FLAGS == 0x62F && TPGETRPLY_FLAGS == 0x1A3);

static constexpr api_text TPCALL = API_TEXT("tpcall", "(\"%s\", %#x, %d, %#x, %#x, %d)");
static constexpr api_text TPACALL = API_TEXT("tpacall", "(\"%s\", %#x, %d, %d)");
static constexpr api_text TPCALLSVG = API_TEXT("tpcallsvg", "(%d, \"%s\", %#x, %d, %#x, %#x, %d)");
static constexpr api_text TPACALLSVG = API_TEXT("tpacallsvg", "(%d, \"%s\", %#x, %d, %d)");
static constexpr api_text TPGETRPLY = API_TEXT("tpgetrply", "(%#x, %#x, %#x, %d)");
static constexpr api_text TPCANCEL = API_TEXT("tpcancel", "(%d)");

void take_priority(msg_header *message, wthr_var *block)
{
    message->prio = block->next_prio.exchange(block->default_prio);
    block->last_prio = message->prio;
}

// What a request takes once it is sure to go: its number, its priority, its direction.
static void number_request(msg_header *message, int32_t cd, int svgno, wthr_var *block)
{
    message->seqno = next_seqno(block);
    message->cd = cd;
    clear_direction(message);
    take_priority(message, block);
    if (svgno >= 0) {
        message->target = svgno;
        message->flags |= TPSVGCALL;
    }
}

// Hands what a reply tells to the caller, data or not. The reply's error number, which is the caller's now.
static int take_reply(msg_header *reply, msg_header *buffer, char **odata, long *olen)
{
    if (reply != buffer)
        *odata = message_data(reply);
    *olen = reply->datalen;
    set_tpurcode(reply->rcode);
    set_tperrno((int)reply->flags);
    return (int)reply->flags;
}

// A reply that isn't a good one, but names no error, is an error of the system.
static void name_the_error(void)
{
    if (get_tperrno() == 0)
        set_tperrno(TPESYSTEM);
}

static bool is_tip_request(msg_header *message, wthr_var *block)
{
    return _is_tipsvc(message->svcname, block) != 0;
}

// tpcall, to a group unless `svgno` is negative. The entry is traced.
static int call(api_frame *frame, const api_text *text, int svgno, char *svc, char *idata, long ilen,
                char **odata, long *olen, long flags)
{
    if (!api_begin(frame, text))
        return frame->result;
    wthr_var *block = frame->block;
    if (olen == nullptr || odata == nullptr || *odata == nullptr)
        return api_fail(frame, text, TPEINVAL);
    if (has_flags_outside(flags, TPCALL_FLAGS))
        return api_fail(frame, text, TPEINVAL);
    if (!is_typed_buffer(*odata))
        return api_fail(frame, text, TPEOTYPE);
    msg_header *message = _check_args_and_tx(MSG_TPCALL, svc, idata, ilen, (uint32_t)flags, block);
    if (message == nullptr)
        return api_error(frame, text);
    if (is_tip_request(message, block) && _check_tipsvc(message, block) < 0) {
        if (idata == nullptr)
            free(message);
        return api_error(frame, text);
    }
    number_request(message, 0, svgno, block);
    int32_t seqno = message->seqno;
    if (send_request(message, idata, block) < 0)
        return api_error(frame, text);

    msg_header *buffer = message_of(*odata);
    buffer->msgtype = MSG_TPCALL;
    buffer->flags = (uint32_t)flags;
    buffer->seqno = seqno;
    int limit = wait_limit(block, flags, TPNOTIME);
    msg_header *reply = _read_csmsg_from_clh_timeout(buffer, limit, block);
    bool transactional = (flags & TPNOTRAN) == 0;
    if (reply == nullptr) {
        _check_tx_state(MSG_TPCALL, transactional, block);
        return api_error(frame, text);
    }
    int code = take_reply(reply, buffer, odata, olen);
    if (code == 0 && reply->msgtype == MSG_TPCALL + REPLY)
        return api_return(text, 1);
    _check_tx_state(MSG_TPCALL, transactional, block);
    name_the_error();
    return api_error(frame, text);
}

int tpcall(char *svc, char *idata, long ilen, char **odata, long *olen, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPCALL, shown(svc), idata, (int)ilen, odata, olen, (int)flags))
        return -1;
    return call(&frame, &TPCALL, -1, svc, idata, ilen, odata, olen, flags);
}

int tpcallsvg(int svgno, char *svc, char *idata, long ilen, char **odata, long *olen, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPCALLSVG, svgno, shown(svc), idata, (int)ilen, odata, olen, (int)flags))
        return -1;
    return call(&frame, &TPCALLSVG, svgno, svc, idata, ilen, odata, olen, flags);
}

// Where an asynchronous call goes; negative numbers: nowhere in particular.
struct direction {
    int svgno;            // a server group
    int server, process;  // a server, and one process of it
};

static void direct_to_server(msg_header *message, const direction *to)
{
    message->target = to->server;
    if (to->process == -1) {
        message->xflags |= XFLAG_TO_GROUP;
    } else {
        message->xflags |= XFLAG_TO_PROCESS;
        message->callid[0] = (uint32_t)to->process;
    }
}

// Waits until the server has the request. 0, or -1 with tperrno set.
static int wait_for_receipt(int32_t seqno, long flags, wthr_var *block)
{
    msg_header *want = template_of(MSG_TPACALL_BLOCK, flags, block);
    if (want != nullptr)
        want->seqno = seqno;
    msg_header *receipt = await_reply(want, wait_limit(block, flags, TPNOTIME), block);
    if (receipt == nullptr)
        return -1;
    int code = (int)receipt->flags;
    set_tperrno(code);
    bool good = code == 0 && receipt->msgtype == MSG_TPACALL_BLOCK + REPLY;
    free(receipt);
    if (good)
        return 0;
    name_the_error();
    return -1;
}

static int release_and_fail(const api_frame *frame, const api_text *text, int cd)
{
    if (cd > 0)
        release_call(cd, frame->block);
    return api_error(frame, text);
}

// tpacall with a direction. The entry is traced, the flags have been looked at.
static int start_call(const api_frame *frame, const api_text *text, const direction *to, char *svc,
                      char *data, long len, long flags)
{
    wthr_var *block = frame->block;
    bool transactional = (flags & TPNOTRAN) == 0;
    if ((flags & TPNOREPLY) != 0 && transactional && in_transaction(block))
        return api_fail(frame, text, TPEPROTO);
    msg_header *message = _check_args_and_tx(MSG_TPACALL, svc, data, len, (uint32_t)flags, block);
    if (message == nullptr)
        return api_error(frame, text);
    int cd = 0;
    if ((flags & TPNOREPLY) == 0) {
        cd = _create_acall_cd((uint32_t)flags, block);
        if (cd < 0) {
            if (data == nullptr)
                free(message);
            return api_fail(frame, text, TPELIMIT);
        }
    }
    if (is_tip_request(message, block) && _check_tipsvc(message, block) < 0) {
        if (data == nullptr)
            free(message);
        return release_and_fail(frame, text, cd);
    }
    number_request(message, cd, to->svgno, block);
    if (to->server >= 0)
        direct_to_server(message, to);
    int32_t seqno = message->seqno;
    if (send_request(message, data, block) < 0)
        return release_and_fail(frame, text, cd);
    if ((flags & TPBLOCK) != 0 && wait_for_receipt(seqno, flags, block) < 0) {
        _check_tx_state(MSG_TPACALL, transactional, block);
        return release_and_fail(frame, text, cd);
    }
    int index = cd > 0 && transactional && in_transaction(block) ? _get_acall_cd_ind(cd, block) : -1;
    if (index >= 0)
        block->acall[index].flags |= TPTRAN;
    return api_return(text, cd);
}

int _tpacall2(char *svc, int target, int process, char *data, long len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPACALL, shown(svc), data, (int)len, (int)flags))
        return -1;
    if (!api_begin(&frame, &TPACALL))
        return frame.result;
    bool directed = (flags & TPSPRCALL) != 0;
    if (!directed && has_flags_outside(flags, TPACALL_FLAGS))
        return api_fail(&frame, &TPACALL, TPEINVAL);
    direction to = {-1, directed ? target : -1, process};
    return start_call(&frame, &TPACALL, &to, svc, data, len, flags);
}

int tpacallsvg(int svgno, char *svc, char *data, long len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPACALLSVG, svgno, shown(svc), data, (int)len, (int)flags))
        return -1;
    if (!api_begin(&frame, &TPACALLSVG))
        return frame.result;
    if (has_flags_outside(flags, TPACALL_FLAGS))
        return api_fail(&frame, &TPACALLSVG, TPEINVAL);
    direction to = {svgno, -1, -1};
    return start_call(&frame, &TPACALLSVG, &to, svc, data, len, flags);
}

int _tpacall(char *svc, int target, char *data, long len, long flags)
{
    return _tpacall2(svc, target, -1, data, len, flags);
}

int tpacall(char *svc, char *data, long len, long flags)
{
    return _tpacall(svc, -1, data, len, flags);
}

// Marks the transaction rollback-only if the call of this row belongs to it.
static void mark_transaction_of(int index, wthr_var *block)
{
    if (index >= 0 && (block->acall[index].flags & TPTRAN) != 0)
        _check_rollback(block);
}

// A reply that came while nobody waited: that of the buffer's descriptor, in row `*index`, or with TPGETANY
// the oldest, whose row `*index` then is. It takes the caller's buffer's place, grown to its size. False if
// there is none. On true `*reply` is null if the buffer refuses it; tperrno is set, and the reply stays
// stored.
static bool collect_stored(int *index, msg_header *buffer, msg_header **reply, wthr_var *block)
{
    bool any = (buffer->flags & TPGETANY) != 0;
    _thread_mutex_lock(&block->msg_mutex);
    *index = _get_acall_cd_ind(buffer->cd, block);  // the row may be another call's by now
    int stored = -1;
    if (*index >= 0 && block->acall[*index].reply != nullptr)
        stored = *index;
    else if (any)
        stored = oldest_ready(block);
    *reply = nullptr;
    if (stored >= 0) {
        *index = stored;
        if (_data_otype_check2(&block->acall[stored].reply, buffer, block) > 0)
            *reply = take_stored_reply(stored, block);
    }
    _thread_mutex_unlock(&block->msg_mutex);
    if (*reply != nullptr)
        free_buffer(buffer);
    return stored >= 0;
}

int tpgetrply(int *cd, char **odata, long *olen, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPGETRPLY, cd, odata, olen, (int)flags))
        return -1;
    wthr_var *block = frame.block;
    set_tperrno(0);
    if (block->started == 0)
        return api_fail(&frame, &TPGETRPLY, TPEPROTO);
    if (has_flags_outside(flags, TPGETRPLY_FLAGS))
        return api_fail(&frame, &TPGETRPLY, TPEINVAL);
    if (cd == nullptr || olen == nullptr || odata == nullptr || *odata == nullptr)
        return api_fail(&frame, &TPGETRPLY, TPEINVAL);
    int index = _get_acall_cd_ind(*cd, block);
    if (index < 0 && (flags & TPGETANY) == 0)
        return api_fail(&frame, &TPGETRPLY, TPEBADDESC);
    if (block->acall_active < 1 && block->rolling_failed == 0)
        return api_fail(&frame, &TPGETRPLY, TPEBADDESC);
    if (!is_typed_buffer(*odata))
        return api_fail(&frame, &TPGETRPLY, TPEOTYPE);
    msg_header *buffer = message_of(*odata);
    buffer->msgtype = MSG_TPACALL;
    buffer->datalen = buffer->bufsize;
    buffer->flags = (uint32_t)flags;
    buffer->cd = *cd;
    buffer->seqno = 0;  // an earlier call may have left its shared-call mark here

    msg_header *reply;
    if (!collect_stored(&index, buffer, &reply, block)) {
        int limit = wait_limit(block, flags, TPNOTIME | TPNOBLOCK);
        reply = _read_csmsg_from_clh_timeout2(buffer, limit, (int)(flags & TPNOBLOCK), block);
        if (reply == nullptr)
            index = _get_acall_cd_ind(*cd, block);
    }
    if (reply == nullptr) {
        mark_transaction_of(index, block);
        return api_error(&frame, &TPGETRPLY);
    }
    int32_t served = reply->cd;
    if ((flags & TPGETANY) != 0)
        *cd = served;
    index = _get_acall_cd_ind(served, block);
    int code = take_reply(reply, buffer, odata, olen);
    bool good = code == 0 && reply->msgtype == MSG_TPACALL + REPLY;
    if (!good) {
        mark_transaction_of(index, block);
        name_the_error();
    }
    release_call(served, block);
    return good ? api_return(&TPGETRPLY, 1) : api_error(&frame, &TPGETRPLY);
}

int tpcancel(int cd)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPCANCEL, cd))
        return -1;
    wthr_var *block = frame.block;
    set_tperrno(0);
    if (block->started == 0)
        return api_fail(&frame, &TPCANCEL, TPEPROTO);
    int index = _get_acall_cd_ind(cd, block);
    if (index < 0)
        return api_fail(&frame, &TPCANCEL, TPEBADDESC);
    if ((block->acall[index].flags & TPTRAN) != 0)
        return api_fail(&frame, &TPCANCEL, TPEPROTO);
    if (release_call(cd, block) < 0)
        return api_fail(&frame, &TPCANCEL, TPEBADDESC);
    return api_return(&TPCANCEL, 1);
}

// A client has no service routine to leave.
void tpreturn(int rval, long rcode, char *data, long len, long flags)
{
    (void)rval, (void)rcode, (void)data, (void)len, (void)flags;
}

void tpforward(char *svc, char *data, long len, long flags)
{
    (void)svc, (void)data, (void)len, (void)flags;
}
}
