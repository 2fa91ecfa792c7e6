// Unsolicited messages: tpsetunsol, tpsetunsol_flag, tpclearunsol, tpchkunsol, tpgetunsol.
//
// Entered from the application, and from the receive path with messages that are to be kept.
#include "calls/unsolapi.h"

#include "buffers/payload.h"
#include "buffers/tbuffer.h"
#include "calls/cscommon.h"
#include "fields/fbcommon2.h"
#include "runtime/thrapi.h"
#include "vorn/errors.h"
#include "vorn/query.h"
#include "vorn/session.h"
#include "vorn/unsol.h"
#include "wire/clhio.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <stdlib.h>

extern "C" {

char *unsoldata = nullptr;
int _tpunsolsw = 0;

static constexpr uint32_t TPGETUNSOL_FLAGS = TPSIGRSTRT | TPNOTIME | TPGETANY | TPNOCHANGE | TPBLOCK;
static_assert(TPGETUNSOL_FLAGS == 0x3A2);

static constexpr api_text TPSETUNSOL = {"tpsetunsol", "tpsetunsol(%#x)", "tpsetunsol = %#x",
                                        "tpsetunsol = -1 [%d : %s]"};
static constexpr api_text TPCLEARUNSOL = API_TEXT("tpclearunsol", "(void)");
static constexpr api_text TPCHKUNSOL = API_TEXT("tpchkunsol", "(void)");
static constexpr api_text TPGETUNSOL = API_TEXT("tpgetunsol", "(%d, %#x, %#x, %d)");

// --- The list.

int _init_unsol(int free_all, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    unsol_node *node = free_all != 0 ? block->unsol_head : nullptr;
    block->unsol_head = nullptr;
    block->unsol_tail = nullptr;
    block->unsol_count = 0;
    block->unsol_spare = 0;
    _thread_mutex_unlock(&block->msg_mutex);
    while (node != nullptr) {
        unsol_node *next = node->next;
        free(node->msg);
        free(node);
        node = next;
    }
    return 1;
}

// The count only grows: it tells how many messages have been kept since the list was emptied.
static int append(msg_header *message, int32_t kind, wthr_var *block)
{
    unsol_node *node = (unsol_node *)malloc(sizeof(unsol_node));
    if (node == nullptr)
        return -1;
    *node = {kind, message, nullptr};
    if (block->unsol_tail != nullptr)
        block->unsol_tail->next = node;
    else
        block->unsol_head = node;
    block->unsol_tail = node;
    block->unsol_count++;
    return 1;
}

// Expects msg_mutex.
static msg_header *unlink_message(unsol_node *node, unsol_node *previous, wthr_var *block)
{
    if (node == nullptr)
        return nullptr;
    if (previous != nullptr)
        previous->next = node->next;
    else
        block->unsol_head = node->next;
    if (block->unsol_tail == node)
        block->unsol_tail = previous;
    msg_header *message = node->msg;
    free(node);
    return message;
}

// The oldest message of the kind. Expects msg_mutex.
static msg_header *take_of_kind(int kind, wthr_var *block)
{
    unsol_node *previous = nullptr, *node = block->unsol_head;
    while (node != nullptr && (node->kind != kind || kind == UNSOL_ANY)) {
        previous = node;
        node = node->next;
    }
    return unlink_message(node, previous, block);
}

static bool wants_acknowledgement(const msg_header *message)
{
    return message->msgtype == MSG_TPNOTIFY && (message->flags & TPNOTIFYACK) != 0;
}

// A tpgetunsol acknowledges what its wait brings. What had its answer on arrival must not get a second one.
static void mark_acknowledged(msg_header *message)
{
    if (message->msgtype == MSG_TPNOTIFY)
        message->flags &= ~(uint32_t)TPNOTIFYACK;
}

msg_header *take_unsolicited(int kind, wthr_var *block)
{
    msg_header *message = take_of_kind(kind, block);
    if (message != nullptr)
        mark_acknowledged(message);
    return message;
}

int store_unsolicited(msg_header *message, int32_t kind, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    uint32_t flags = message->flags;
    mark_acknowledged(message);
    int result = 1;
    if (!hand_to_waiter(message, block)) {
        message->flags = flags;  // as a handler is to see them
        result = append(message, kind, block);
    }
    _thread_mutex_unlock(&block->msg_mutex);
    if (result < 0) {
        free(message);
        set_tperrno(TPESYSTEM);
    }
    return result;
}

void acknowledge_notification(const msg_header *message, wthr_var *block)
{
    int code = get_tperrno();
    msg_header *answer = _header_msg_make(MSG_TPNOTIFY + REPLY, 0);
    if (answer == nullptr)
        return;
    answer->cd = message->srcid;
    _send_csmsg_to_clh(answer, block);
    free(answer);
    set_tperrno(code);
}

// --- What the calls share.

wthr_var *begin_session(wthr_var *block)
{
    set_tperrno(0);
    if (block->started != 0)
        return block;
    return tpstart(nullptr) < 0 ? nullptr : current_block();
}

// The template of a fetch, in the header of the buffer that takes the message.
static void ask_for(int kind, long flags, msg_header *buffer)
{
    buffer->seqno = 0;  // an earlier call may have left its shared-call mark here
    buffer->msgtype = MSG_TPGETUNSOL;
    buffer->rcode = 0;
    buffer->flags = (uint32_t)flags;
    buffer->cd = kind;
}

// Copies a kept message into the buffer, which is replaced where it is too small, and frees it. 1, or -1
// with tperrno set; the message is lost then.
static int copy_kept(msg_header *message, msg_header **buffer, wthr_var *block)
{
    if (message->bufsize < message->datalen)  // the block holds the data, whatever its sender said
        message->bufsize = message->datalen;
    int result = _data_otype_check(message, buffer, block);
    if (result > 0) {
        if (message->buftype == BUF_FIELD || (*buffer)->buftype == BUF_FIELD)
            _clear_fcache(message_data(*buffer));
        int32_t bufsize = (*buffer)->bufsize, length = message->datalen;
        memcpy(*buffer, message, (size_t)(HEADER_SIZE + length));
        (*buffer)->bufsize = bufsize;
        char *data = message_data(*buffer);
        if (message->buftype == BUF_STRING && length > 0 && data[length - 1] != '\0')
            data[length] = '\0';  // in the reserve, where the text fills the buffer
    }
    free(message);
    return result;
}

// True if input is there that this thread would be the one to read. While another thread reads the
// connection, what arrives is its affair: it runs the handler or keeps the message.
static bool input_waits(wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    bool is_read = block->reader_busy != 0;
    _thread_mutex_unlock(&block->msg_mutex);
    if (is_read)
        return false;
    return tp_usleep(1) > 0;
}

// --- Mode and handler.

static tpunsol_function *refuse_handler(const api_frame *frame)
{
    api_error(frame, &TPSETUNSOL);
    return TPSETUNSOL_FAILED;
}

tpunsol_function *tpsetunsol(tpunsol_function *handler)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPSETUNSOL, handler))
        return TPSETUNSOL_FAILED;
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr || unsolicited_mode(block) != UNSOL_MODE_HANDLER)
        return refuse_handler(&frame);
    tpunsol_function *earlier =
        std::atomic_ref<unsol_function *>(block->unsol_handler).exchange(handler, std::memory_order_acq_rel);
    VORN_TRACE(TPSETUNSOL.name, 1, TRACE_RESULT, TPSETUNSOL.result, earlier);
    return earlier;
}

int tpsetunsol_flag(int mode)
{
    api_frame frame;
    if (!api_find(&frame))
        return -1;
    VORN_TRACE("tpsetunsol_flag", 1, TRACE_ENTRY, "tpsetunsol_flag(%d)", mode);
    if (mode != UNSOL_MODE_HANDLER && mode != UNSOL_MODE_IGNORE && mode != UNSOL_MODE_QUEUE) {
        VORN_TRACE("tpsetunsol_flag", 1, TRACE_ERROR, "tpsetunsol_flag = -1");
        return -1;
    }
    std::atomic_ref<int64_t>(frame.block->unsol_mode).store(mode, std::memory_order_relaxed);
    VORN_TRACE("tpsetunsol_flag", 1, TRACE_RESULT, "tpsetunsol_flag = 1");
    return 1;
}

int tpclearunsol(void)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPCLEARUNSOL))
        return -1;
    set_tperrno(0);
    _init_unsol(1, frame.block);
    return api_return(&TPCLEARUNSOL, 1);
}

// --- tpchkunsol.

void run_unsolicited_handler(msg_header *message, wthr_var *block)
{
    unsol_function *handler =
        std::atomic_ref<unsol_function *>(block->unsol_handler).load(std::memory_order_acquire);
    if (handler != nullptr)
        handler(message_data(message), message->datalen, message->flags);
}

static msg_header *take_first(wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    msg_header *message = unlink_message(block->unsol_head, nullptr, block);
    _thread_mutex_unlock(&block->msg_mutex);
    return message;
}

// Runs the handler for what is kept; each message takes the buffer in turn. Their number, or -1 with
// tperrno set.
static int handle_kept(msg_header **buffer, wthr_var *block)
{
    int handled = 0;
    for (msg_header *message = take_first(block); message != nullptr; message = take_first(block)) {
        ask_for(UNSOL_ANY, 0, *buffer);
        if (copy_kept(message, buffer, block) < 0)
            return -1;
        run_unsolicited_handler(*buffer, block);
        handled++;
    }
    return handled;
}

// Runs the handler for the message that the connection brings next, if input waits. 1, 0 without input, or
// -1 with tperrno set. A notification is left unacknowledged here, for whatever it asks.
static int handle_arriving(msg_header **buffer, wthr_var *block)
{
    if (!input_waits(block))
        return 0;
    ask_for(UNSOL_ANY, 0, *buffer);
    msg_header *message = _read_csmsg_from_clh(-1, *buffer, block);
    if (message == nullptr)
        return -1;
    *buffer = message;
    run_unsolicited_handler(message, block);
    return 1;
}

int tpchkunsol(void)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPCHKUNSOL))
        return -1;
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return api_error(&frame, &TPCHKUNSOL);
    if (unsolicited_mode(block) != UNSOL_MODE_HANDLER)
        return api_fail(&frame, &TPCHKUNSOL, TPEPROTO);
    msg_header *buffer = _header_msg_make(MSG_TPGETUNSOL, 0);
    if (buffer == nullptr)
        return api_fail(&frame, &TPCHKUNSOL, TPESYSTEM);
    int kept = handle_kept(&buffer, block);
    int arrived = kept < 0 ? -1 : handle_arriving(&buffer, block);
    free_buffer(buffer);
    return arrived < 0 ? api_error(&frame, &TPCHKUNSOL) : api_return(&TPCHKUNSOL, kept + arrived);
}

// --- tpgetunsol.

// The message off the connection: in the buffer, or in place of it. Null with tperrno set.
static msg_header *fetch(msg_header *buffer, long flags, wthr_var *block)
{
    if (block->started == 0) {  // the session was lost: nothing will come, and a wait would have no end
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    msg_header *message;
    if ((flags & TPBLOCK) != 0) {
        message = _read_csmsg_from_clh(-1, buffer, block);
    } else if (input_waits(block)) {
        message = _read_csmsg_from_clh_timeout2(buffer, 0, 1, block);
    } else {
        set_tperrno(TPEBLOCK);
        return nullptr;
    }
    if (message != nullptr && wants_acknowledgement(message))
        acknowledge_notification(message, block);
    return message;
}

int tpgetunsol(int kind, char **data, long *len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPGETUNSOL, kind, data, len, (int)flags))
        return -1;
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return api_error(&frame, &TPGETUNSOL);
    if (len == nullptr || data == nullptr || *data == nullptr)
        return api_fail(&frame, &TPGETUNSOL, TPEINVAL);
    if (has_flags_outside(flags, TPGETUNSOL_FLAGS) || kind < UNSOL_POST || kind > UNSOL_ANY)
        return api_fail(&frame, &TPGETUNSOL, TPEINVAL);
    if (!is_typed_buffer(*data))
        return api_fail(&frame, &TPGETUNSOL, TPEOTYPE);
    msg_header *buffer = message_of(*data);
    ask_for(kind, flags, buffer);

    _thread_mutex_lock(&block->msg_mutex);
    msg_header *kept = take_of_kind(kind, block);
    _thread_mutex_unlock(&block->msg_mutex);
    if (kept == nullptr)
        buffer = fetch(buffer, flags, block);
    else if (copy_kept(kept, &buffer, block) < 0)
        buffer = nullptr;
    if (buffer == nullptr)
        return api_error(&frame, &TPGETUNSOL);
    *data = message_data(buffer);
    *len = buffer->datalen;
    return api_return(&TPGETUNSOL, 1);
}
}
