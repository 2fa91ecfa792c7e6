// Conversations: tpconnect, tpsend, tprecv, tpdiscon.
//
// Entered from the application, and from the receive path with messages that nobody waits for. A conversation
// is a row of the context's table from tpconnect until its end. One side has the right to send, which the
// row's flags tell; a message with the mark TPRECVONLY hands it over. The calls run on the application's
// thread; the row's list and events are written by whatever thread reads the connection.
#include "calls/convapi.h"

#include "buffers/payload.h"
#include "buffers/tbuffer.h"
#include "calls/cscommon.h"
#include "runtime/thrapi.h"
#include "tx/tx.h"
#include "vorn/conversation.h"
#include "vorn/errors.h"
#include "wire/clhio.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <stdlib.h>

extern "C" {

static constexpr uint32_t TPCONNECT_FLAGS =
    TPNOBLOCK | TPSIGRSTRT | TPNOTRAN | TPNOTIME | TPSENDONLY | TPRECVONLY;
static constexpr uint32_t TPSEND_FLAGS = TPNOBLOCK | TPSIGRSTRT | TPNOTIME | TPRECVONLY;
static constexpr uint32_t TPRECV_FLAGS = TPNOBLOCK | TPSIGRSTRT | TPNOTIME | TPNOCHANGE;
static_assert(TPCONNECT_FLAGS == 0x182B && TPSEND_FLAGS == 0x1023 && TPRECV_FLAGS == 0x123);

static constexpr api_text TPCONNECT = API_TEXT("tpconnect", "(\"%s\", %#x, %d, %d)");
static constexpr api_text TPSEND = API_TEXT("tpsend", "(%d, %#x, %d, %d, %#x)");
static constexpr api_text TPRECV = API_TEXT("tprecv", "(%d, %#x, %#x, %d, %#x)");
static constexpr api_text TPDISCON = API_TEXT("tpdiscon", "(%d)");

// --- Rows.

// Marks the transaction rollback-only if the conversation belongs to it.
static void mark_transaction_of(int index, wthr_var *block)
{
    if ((block->conv[index].flags & TPTRAN) != 0)
        _check_rollback(block);
}

// A row of a table that a move has replaced is another conversation's by now.
static void release_row(int index, int32_t generation, wthr_var *block)
{
    if (generation == block->conv_generation)
        release_conversation(index, block);
}

int _vorn_send_discon(int cd, wthr_var *block)
{
    msg_header *message = _header_msg_make(MSG_TPDISCON, 0);
    if (message == nullptr) {
        set_tperrno(TPESYSTEM);
        return -1;
    }
    message->cd = cd;
    int sent = send_in_conversation(message, block->conv_generation, block);
    free(message);
    return sent;
}

int end_conversation(int index, wthr_var *block)
{
    int32_t generation = block->conv_generation;
    int cd = block->conv[index].cd;  // the server knows it by nothing else
    int sent = cd == CONV_UNNAMED ? 1 : _vorn_send_discon(cd, block);
    release_row(index, generation, block);
    return sent;
}

// --- Messages on their way in.

void name_conversation(const msg_header *want, const msg_header *message, wthr_var *block)
{
    int index = want->rcode;
    if (want->msgtype != MSG_TPCONNECT || message->msgtype != MSG_TPCONNECT + REPLY || message->cd < 0)
        return;
    if (index >= 0 && index < block->conv_size && want->target == block->conv_generation)
        block->conv[index].cd = message->cd;
}

// What a tprecv gets in place of the message that ended the conversation, of which only the row tells.
static msg_header *end_of_conversation(const conv_elem *row)
{
    msg_header *message = _header_msg_make(MSG_TPDISCON, 0);
    if (message == nullptr)
        return nullptr;
    message->cd = row->cd;
    message->rcode = row->urcode;
    return message;
}

static msg_header *take_first(conv_elem *row)
{
    msg_node *node = row->head;
    msg_header *message = node->msg;
    row->head = node->next;
    if (row->head == nullptr)
        row->tail = nullptr;
    free(node);
    return message;
}

msg_header *take_conversation_message(const msg_header *want, wthr_var *block)
{
    int index = _get_conv_cd_ind(want->cd, block);
    if (index < 0)
        return nullptr;
    conv_elem *row = &block->conv[index];
    if (row->head != nullptr)
        return take_first(row);
    return (row->event & CONV_ENDED_BY_PEER) != 0 ? end_of_conversation(row) : nullptr;
}

int store_conversation_message(msg_header *message, wthr_var *block)
{
    int32_t msgtype = message->msgtype;
    msg_header *unwanted = nullptr;
    int result = 1;
    _thread_mutex_lock(&block->msg_mutex);
    int index = _get_conv_cd_ind(message->cd, block);
    if (index < 0) {
        unwanted = message;
    } else if (!hand_to_waiter(message, block)) {
        conv_elem *row = &block->conv[index];
        if (append_msg_node(&row->head, &row->tail, message) < 0) {
            unwanted = message;
            result = -1;
        } else if (msgtype == MSG_TPRECV + REPLY) {
            row->event |= CONV_REPLY_1007;
        } else if (msgtype == MSG_TPRECV + ERROR_REPLY2) {
            row->event |= CONV_REPLY_3007;
        }
    }
    _thread_mutex_unlock(&block->msg_mutex);
    free(unwanted);
    if (result < 0)
        set_tperrno(TPEOS);
    return result;
}

int note_conversation_end(msg_header *message, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    bool handed = hand_to_waiter(message, block);
    int index = handed ? -1 : _get_conv_cd_ind(message->cd, block);
    if (index >= 0) {
        block->conv[index].urcode = message->rcode;
        block->conv[index].event |= CONV_ENDED_BY_PEER;
    }
    _thread_mutex_unlock(&block->msg_mutex);
    if (!handed)
        free(message);
    return 1;
}

// --- tpconnect.

static int fail_and_release(const api_frame *frame, int index, int32_t generation, int code)
{
    release_row(index, generation, frame->block);
    if (code != 0)
        set_tperrno(code);
    return api_error(frame, &TPCONNECT);
}

// The row of a conversation that has been accepted. A connect that moved with the session, because the server
// gave it back, has none as yet. -1 with tperrno set, and the conversation broken off.
static int row_of_connection(int index, int32_t generation, int cd, long flags, wthr_var *block)
{
    if (generation == block->conv_generation)
        return index;
    int made = _create_conv_entry(cd, (uint32_t)flags | CONV_OUT, block);
    if (made < 0) {
        _vorn_send_discon(cd, block);
        set_tperrno(TPELIMIT);
    }
    return made;
}

// Waits for the server's answer to a connect. The descriptor, which the row bears too, or -1 with tperrno
// set.
static int await_connection(int index, int32_t generation, long flags, wthr_var *block)
{
    msg_header *want = template_of(MSG_TPCONNECT, flags, block);
    if (want == nullptr)
        return -1;
    bool transactional = (flags & TPNOTRAN) == 0;
    want->rcode = index;
    want->target = generation;
    msg_header *reply = await_reply(want, wait_limit(block, flags, TPNOTIME), block);
    if (reply == nullptr) {
        _check_tx_state(MSG_TPCONNECT, transactional, block);
        return -1;
    }
    // A conversation with the previous server is over as soon as the session has moved.
    bool accepted =
        reply->msgtype == MSG_TPCONNECT + REPLY && reply->cd >= 0 && reply->target == block->conv_generation;
    int code = accepted ? 0 : (int)reply->flags, cd = reply->cd;
    free(reply);
    if (!accepted) {
        set_tperrno(code != 0 ? code : TPESYSTEM);
        _check_tx_state(MSG_TPCONNECT, transactional, block);
        return -1;
    }
    index = row_of_connection(index, generation, cd, flags, block);
    if (index < 0)
        return -1;
    if (tx_state_of(block) == TX_STATE_TIMED_OUT) {
        set_tperrno(TPETIME);
        return -1;
    }
    if (transactional && in_transaction(block))
        block->conv[index].flags |= TPTRAN;
    return cd;
}

int tpconnect(char *svc, char *data, long len, long flags)
{
    api_frame frame;
    if (!api_find(&frame))
        return -1;
    if (svc != nullptr)
        VORN_TRACE(TPCONNECT.name, 1, TRACE_ENTRY, TPCONNECT.enter, svc, data, (int)len, (int)flags);
    else
        VORN_TRACE(TPCONNECT.name, 1, TRACE_ENTRY, "tpcall(\"\", %#x, %d, %d)", data, (int)len, (int)flags);
    if (!api_begin(&frame, &TPCONNECT))
        return frame.result;
    wthr_var *block = frame.block;
    if (has_flags_outside(flags, TPCONNECT_FLAGS))
        return api_fail(&frame, &TPCONNECT, TPEINVAL);
    if (((flags & TPSENDONLY) != 0) == ((flags & TPRECVONLY) != 0))
        return api_fail(&frame, &TPCONNECT, TPEINVAL);
    msg_header *message = _check_args_and_tx(MSG_TPCONNECT, svc, data, len, (uint32_t)flags, block);
    if (message == nullptr)
        return api_error(&frame, &TPCONNECT);
    int32_t generation = block->conv_generation;
    int index = _create_conv_entry(CONV_UNNAMED, (uint32_t)flags | CONV_OUT, block);
    if (index < 0) {
        if (data == nullptr)
            free(message);
        return api_fail(&frame, &TPCONNECT, TPELIMIT);
    }
    message->seqno = next_seqno(block);
    message->cd = 0;
    clear_direction(message);
    set_tperrno(0);
    if (send_request(message, data, block) < 0)
        return fail_and_release(&frame, index, generation, 0);
    // Behind a move the request has gone to the new server.
    if (generation != block->conv_generation && last_sent_fd() == block->clhfd) {
        generation = block->conv_generation;
        index = _create_conv_entry(CONV_UNNAMED, (uint32_t)flags | CONV_OUT, block);
        if (index < 0) {
            forget_waiter(block);
            return api_fail(&frame, &TPCONNECT, TPELIMIT);
        }
    }
    int opened = await_connection(index, generation, flags, block);
    if (opened < 0)
        return fail_and_release(&frame, index, generation, 0);
    return api_return(&TPCONNECT, opened);
}

// --- tpsend.

// The row of an open conversation; -1 with TPEBADDESC.
static int open_row(int cd, wthr_var *block)
{
    int index = cd < 0 ? -1 : _get_conv_cd_ind(cd, block);
    if (index < 0)
        set_tperrno(TPEBADDESC);
    return index;
}

// The other side has the right to send, or an event that has been noted in the row ends the conversation.
static int refuse_to_send(const api_frame *frame, int index, long *revent)
{
    wthr_var *block = frame->block;
    if ((block->conv[index].flags & TPRECVONLY) != 0)
        return api_fail(frame, &TPSEND, TPEPROTO);
    mark_transaction_of(index, block);
    *revent = block->conv[index].event;
    release_conversation(index, block);
    return api_fail(frame, &TPSEND, TPEEVENT);
}

int tpsend(int cd, char *data, long len, long flags, long *revent)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPSEND, cd, data, (int)len, (int)flags, revent))
        return -1;
    wthr_var *block = frame.block;
    set_tperrno(0);
    if (revent == nullptr)
        return api_fail(&frame, &TPSEND, TPEINVAL);
    *revent = 0;
    int32_t generation = block->conv_generation;
    int index = open_row(cd, block);
    if (index < 0)
        return api_error(&frame, &TPSEND);
    if (has_flags_outside(flags, TPSEND_FLAGS))
        return api_fail(&frame, &TPSEND, TPEINVAL);
    conv_elem *row = &block->conv[index];
    // The flags with which it was opened, not its event: one that was opened without blocking can't send.
    if ((row->flags & TPEV_DISCONIMM) != 0) {
        *revent = TPEV_DISCONIMM;
        set_tpurcode(row->urcode);
        return api_fail(&frame, &TPSEND, TPEEVENT);
    }
    int length = _data_itype_check(data, buffer_length(len), block);
    if (length < 0)
        return api_error(&frame, &TPSEND);
    msg_header *message = data != nullptr ? message_of(data) : _header_msg_make(MSG_TPSEND, 0);
    if (message == nullptr)
        return api_fail(&frame, &TPSEND, TPESYSTEM);
    if ((row->flags & TPRECVONLY) != 0 || row->event != 0) {
        if (data == nullptr)
            free(message);
        return refuse_to_send(&frame, index, revent);
    }
    if ((flags & TPRECVONLY) != 0)
        row->flags = (row->flags | TPRECVONLY) & ~(uint32_t)TPSENDONLY;
    message->msgtype = MSG_TPSEND;
    message->rcode = 0;
    message->datalen = length;
    message->flags = (uint32_t)(flags & TPRECVONLY);
    message->cd = cd;
    int sent = send_in_conversation(message, generation, block);
    if (data == nullptr)
        free(message);
    return sent < 0 ? api_error(&frame, &TPSEND) : api_return(&TPSEND, 1);
}

// --- tprecv.

// The first stored message takes the caller's buffer's place. Null with tperrno set if the buffer refuses it;
// the message is then lost.
static msg_header *collect(msg_header *message, msg_header *buffer, wthr_var *block)
{
    if (_data_otype_check2(&message, buffer, block) < 0) {
        free(message);
        return nullptr;
    }
    free_buffer(buffer);
    return message;
}

// True if the list holds something, which then is in `*message`. Otherwise `*ended` tells whether the other
// side has ended the conversation: asked under the same lock, or messages stored in between would be lost.
static bool take_stored(int index, msg_header **message, bool *ended, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    conv_elem *row = &block->conv[index];
    bool stored = row->head != nullptr;
    if (stored)
        *message = take_first(row);
    *ended = !stored && (row->event & CONV_ENDED_BY_PEER) != 0;
    _thread_mutex_unlock(&block->msg_mutex);
    return stored;
}

// Waits for the next message of the conversation. Null with tperrno set. Its row may be another's by then, or
// gone: another thread may have ended the conversation.
static msg_header *await_message(msg_header *buffer, long flags, wthr_var *block)
{
    int cd = buffer->cd;
    int limit = wait_limit(block, flags, TPNOBLOCK | TPNOTIME);
    msg_header *message = nullptr;
    // A wait without a connection would keep the reader role, and the one after it would never end.
    if (block->clhfd < 0)
        set_tperrno(TPESYSTEM);
    else
        message = _read_csmsg_from_clh_timeout2(buffer, limit, (int)(flags & TPNOBLOCK), block);
    if (message != nullptr) {
        set_tperrno(0);
        return message;
    }
    int index = _get_conv_cd_ind(cd, block);
    if (index >= 0)
        mark_transaction_of(index, block);
    return nullptr;
}

// What a message means: the event, or -1 for a message that has no business here. The right to send, the end
// by the service and the errors are noted on the way.
static long classify(int index, const msg_header *message, wthr_var *block)
{
    conv_elem *row = &block->conv[index];
    switch (message->msgtype) {
    case MSG_TPRECV + REPLY:
        set_tpurcode(message->rcode);
        release_conversation(index, block);
        return TPEV_SVCSUCC;
    case MSG_TPSEND:
        if ((message->flags & TPRECVONLY) == 0)
            return 0;
        row->flags = (row->flags | TPSENDONLY) & ~(uint32_t)TPRECVONLY;
        return TPEV_SENDONLY;
    case MSG_TPRECV + ERROR_REPLY2:
        set_tpurcode(message->rcode);
        set_tperrno(TPEEVENT);
        return message->flags;
    case MSG_TPDISCON:
    case MSG_TPCONNECT + ERROR_REPLY:
        set_tpurcode(message->rcode);
        set_tperrno(TPEEVENT);
        return TPEV_DISCONIMM;
    }
    return -1;
}

static int end_with_event(const api_frame *frame, int index)
{
    mark_transaction_of(index, frame->block);
    release_conversation(index, frame->block);
    return api_error(frame, &TPRECV);
}

// The row bears the event of the last message. That the other side has ended the conversation stays noted: it
// stands behind the messages that came before.
static void note_event(conv_elem *row, uint32_t ending, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    row->event = ending | (row->event & CONV_ENDED_BY_PEER);
    _thread_mutex_unlock(&block->msg_mutex);
}

// The rest of tprecv, once the message is in the caller's hands.
static int conclude(const api_frame *frame, int index, const msg_header *message, long *revent)
{
    wthr_var *block = frame->block;
    conv_elem *row = &block->conv[index];
    bool transactional = (row->flags & TPTRAN) != 0;
    long event = classify(index, message, block);
    if (event < 0)
        return api_fail(frame, &TPRECV, TPESYSTEM);
    *revent = event;
    if (message->msgtype == MSG_TPRECV + REPLY)
        return api_fail(frame, &TPRECV, TPEEVENT);
    uint32_t ending = (uint32_t)event & ~(uint32_t)TPEV_SENDONLY;
    note_event(row, ending, block);
    if (ending != 0 && (ending & TPEV_SVCSUCC) == 0)
        return end_with_event(frame, index);
    int code = get_tperrno();
    if (code != 0 && code != TPEEVENT) {
        release_conversation(index, block);
        return api_error(frame, &TPRECV);
    }
    if (transactional && tx_state_of(block) == TX_STATE_TIMED_OUT) {
        release_conversation(index, block);
        return api_fail(frame, &TPRECV, TPETIME);
    }
    return event != 0 ? api_fail(frame, &TPRECV, TPEEVENT) : api_return(&TPRECV, 1);
}

int tprecv(int cd, char **data, long *len, long flags, long *revent)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPRECV, cd, data, len, (int)flags, revent))
        return -1;
    wthr_var *block = frame.block;
    set_tperrno(0);
    if (revent == nullptr)
        return api_fail(&frame, &TPRECV, TPEINVAL);
    *revent = 0;
    int32_t generation = block->conv_generation;
    int index = open_row(cd, block);
    if (index < 0)
        return api_error(&frame, &TPRECV);
    if (has_flags_outside(flags, TPRECV_FLAGS) || len == nullptr || data == nullptr || *data == nullptr)
        return api_fail(&frame, &TPRECV, TPEINVAL);
    conv_elem *row = &block->conv[index];
    if ((row->flags & TPSENDONLY) != 0)
        return api_fail(&frame, &TPRECV, TPEPROTO);
    if (!is_typed_buffer(*data))
        return api_fail(&frame, &TPRECV, TPEOTYPE);
    msg_header *buffer = message_of(*data), *message = nullptr;
    buffer->msgtype = MSG_TPRECV;
    buffer->rcode = index;
    buffer->target = generation;
    buffer->datalen = buffer->bufsize;
    buffer->flags = (uint32_t)flags;
    buffer->cd = cd;
    bool ended;
    if (take_stored(index, &message, &ended, block)) {
        message = collect(message, buffer, block);
    } else if (ended) {
        *revent = TPEV_DISCONIMM;
        set_tpurcode(row->urcode);
        set_tperrno(TPEEVENT);
        return end_with_event(&frame, index);
    } else {
        message = await_message(buffer, flags, block);
        index = generation == block->conv_generation ? _get_conv_cd_ind(cd, block) : -1;
    }
    if (message == nullptr)
        return api_error(&frame, &TPRECV);
    if (message != buffer)
        *data = message_data(message);
    *len = message->datalen;
    if (index < 0)
        return api_fail(&frame, &TPRECV, TPEBADDESC);
    return conclude(&frame, index, message, revent);
}

// --- tpdiscon.

int tpdiscon(int cd)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPDISCON, cd))
        return -1;
    wthr_var *block = frame.block;
    set_tperrno(0);
    int32_t generation = block->conv_generation;
    int index = open_row(cd, block);
    if (index < 0)
        return api_error(&frame, &TPDISCON);
    if ((block->conv[index].flags & CONV_HELD) != 0)
        return api_fail(&frame, &TPDISCON, TPEPROTO);
    mark_transaction_of(index, block);
    if (_vorn_send_discon(cd, block) < 0)
        return api_error(&frame, &TPDISCON);
    release_row(index, generation, block);
    return api_return(&TPDISCON, 1);
}
}
