// Start and end of a session.
//
// tpstart and tpinit bind a row, connect and log in; what the start reply tells is taken in by startreply.
// While they run nobody else knows the context, so they take no lock but the table lock for the binding.
// tpend talks to the server once more and then takes everything down, whatever came of it.
#include "session/cliapi.h"

#include "buffers/sdli.h"
#include "buffers/tbuffer.h"
#include "calls/cscommon.h"
#include "calls/unsolapi.h"
#include "kmq/kmqapi.h"
#include "runtime/semantics.h"
#include "runtime/sigapi.h"
#include "runtime/thrapi.h"
#include "session/address.h"
#include "session/startreply.h"
#include "tx/tx.h"
#include "vorn/buffers.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/session.h"
#include "wire/clhio.h"
#include "wire/clhread.h"
#include "wire/envelope.h"
#include "wire/msgheader.h"
#include "wire/waiters.h"

#include <stdlib.h>
#include <sys/eventfd.h>
#include <unistd.h>

extern "C" {

constexpr int START_ANSWER_SECONDS = 60;
constexpr int START_REPLY_ROOM = 8000;
constexpr int64_t START_FLAGS = 0x47;

static_assert(sizeof(TPSTART_T) == 76 && offsetof(TPSTART_T, flags) == 72);
static_assert(offsetof(TPINIT, flags) == 72 && offsetof(TPINIT, datalen) == 80 && sizeof(TPINIT) == 88);

// What tpinit sends: the four names, then two words in wire order, then the data.
constexpr int TPINIT_NAMES = 72, TPINIT_FLAGS = 72, TPINIT_DATALEN = 76, TPINIT_DATA = 80;

// --- Sockets and tables of a session.

int _abend_control(void)
{
    return 1;
}

int _check_node(void)
{
    std::atomic_ref<int32_t>(_endian).store(2, std::memory_order_relaxed);
    std::atomic_ref<int32_t>(_node_type).store(4, std::memory_order_relaxed);
    return 1;
}

int32_t _endian_checked = 0;

void check_node_once(void)
{
    std::atomic_ref<int32_t> checked(_endian_checked);
    if (checked.load(std::memory_order_acquire) != 0)
        return;
    _check_node();  // two threads that come at once do the same
    checked.store(1, std::memory_order_release);
}

int _hton_tpinit(char *buffer)
{
    uint32_t flags;
    memcpy(&flags, buffer + TPINIT_FLAGS, sizeof flags);
    put_word(buffer + TPINIT_FLAGS, flags);
    return 1;
}

int _cli_init(int acall_size, int conv_size, wthr_var *block)
{
    check_node_once();
    std::atomic_ref<int32_t>(_my_pid).store(getpid(), std::memory_order_relaxed);
    if (block->rolling == 0)
        _init_acall(acall_size, block);  // a rolling start keeps the open calls
    _init_conv(conv_size, block);
    _init_unsol(1, block);  // nobody has the messages that a list holds from before the start
    return 1;
}

void _clhc_close(int fd, wthr_var *block)
{
    end_cipher(block);
    // Two threads may find the end of one socket; by the second one's turn the number may be somebody else's.
    bool ours = false;
    for (shared_int32 *socket : {&block->clhfd, &block->old_clhfd, &block->new_clhfd}) {
        int32_t expected = fd;
        ours |= socket->compare_exchange_strong(expected, -1);
    }
    drop_read_ahead(block, fd);
    if (fd >= 0 && ours)
        close(fd);
    if (block->old_clhfd == -1)
        block->rolled = 0;
    if (block->clhfd == -1 && block->old_clhfd == -1)
        block->started = 0;
    block->sessionid = -1;
    block->session_token = -1;
}

void close_connections(wthr_var *block)
{
    _clhc_close(block->clhfd, block);
    if (block->rolled != 0)
        _clhc_close(block->old_clhfd, block);
}

void _clear_init_mem(wthr_var *block)
{
    forget_kmq_sessions(block);
    free(block->start_msg);
    block->start_msg = nullptr;
    free_field_memory(block);
    _txinfo_end(block);
    _cli_init(-1, -1, block);
    _init_qcall(-1, block);
    _init_node(-1, block);
    _ntoh_initout_struct(nullptr, -1, block);
    free_retired(block);
    forget_sent_again(block);
    block->started = 0;
}

// --- One attempt.

int connect_to_list(int to_backup, wthr_var *block)
{
    int fd = -1;
    if (to_backup == 0) {
        fd = _connect_to_main_server();
        block->on_backup = 0;
    }
    if (fd < 0) {
        fd = _connect_to_backup_server();
        block->on_backup = fd >= 0;
    }
    if (fd >= 0)
        return fd;
    set_tperrno(TPEOS);
    return -1;
}

// Threads that share a context can move it to another server while one of them sleeps on the sockets.
static void make_wake_fd(wthr_var *block)
{
    if (block->wake_fd < 0 && _start_ctxt == CONTEXT_MODE_MULTIPLE)
        block->wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

// Connects over `clhfd`. -1 with tperrno set.
static int connect_session(int to_backup, wthr_var *block)
{
    int fd = connect_to_list(to_backup, block);
    block->clhfd = fd;
    if (fd < 0)
        return -1;
    make_wake_fd(block);
    // A role that was left taken when the last socket went would keep everybody from the new one.
    drop_read_ahead(block, block->ahead.fd);
    free_reader_role(block);
    return 1;
}

msg_header *exchange_start(msg_header *message, int msgtype, int fd, wthr_var *block)
{
    message->msgtype = msgtype;
    message->rcode = 0;
    message->datalen = message->buftype == BUF_HEADER ? 0 : message->bufsize;
    message->cd = 0;
    put_name(message->svcname, sizeof message->svcname, "_tpstart");
    if (_internal_send_csmsg_to_clh(message, block, fd) < 0)
        return nullptr;
    msg_header *want = (msg_header *)malloc(START_REPLY_ROOM + BLOCK_OVERHEAD);
    if (want == nullptr) {
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    memcpy(want, message, HEADER_SIZE);
    want->datalen = START_REPLY_ROOM;
    want->bufsize = START_REPLY_ROOM;
    bool moves = fd == block->new_clhfd;  // beside the thread that reads the current connection
    msg_header *reply = moves ? _read_csmsg_from_ready_clh_timeout(want, START_ANSWER_SECONDS, block)
                              : _read_csmsg_from_clh_timeout(want, START_ANSWER_SECONDS, block);
    if (reply == nullptr)
        free(want);
    return reply;
}

int take_login(msg_header *reply, int msgtype, bool moves, wthr_var *block)
{
    if (reply == nullptr)
        return -1;
    int result = -1;
    if (reply->msgtype != msgtype + REPLY)
        // A refusal that names no reason is one all the same.
        set_tperrno(reply->target != 0 ? reply->target : TPESYSTEM);
    else
        result = take_start_reply(reply, block->clhfd, moves, block);
    free(reply);
    if (result > 0)
        block->started = 1;
    return result;
}

int _vorn_start(msg_header *message, int msgtype, int to_backup, wthr_var *block)
{
    _vorn_signal_control();
    if (connect_session(to_backup, block) < 0)
        return -1;
    if (_vorn_crypt_sw != 0 && _vorn_negotiate(block) < 0)
        return -1;
    msg_header *reply = exchange_start(message, msgtype, block->clhfd, block);
    return take_login(reply, msgtype, false, block);
}

// --- tpstart.

static constexpr api_text TPSTART = {"tpstart", "tpstart(\"%s\", \"%s\", \"%s\", \"%s\", %#x)",
                                     "tpstart = %d", "tpstart = -1 [%d : %s]"};

// True if threads still wait on the context: after the connection was lost they can't leave their calls, and
// what they look at when a signal wakes them must stay.
static bool others_wait(wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    bool waiting = block->waiting > 0;
    _thread_mutex_unlock(&block->msg_mutex);
    return waiting;
}

int end_context_with(int code)
{
    wthr_var *block = current_block();
    if (block != _main_wthrv && !others_wait(block))
        _clear_init_mem(block);
    _context_end();
    set_tperrno(code);
    return -1;
}

// The message of tpstart: the caller's buffer, or a header made here. Null with tperrno set and the context
// ended.
static msg_header *start_message(TPSTART_T *tpinfo, wthr_var *block)
{
    msg_header *message;
    uint32_t flags = 0;
    if (tpinfo == nullptr) {
        message = _header_msg_make(MSG_TPSTART, 0);
        if (message == nullptr) {
            end_context_with(TPESYSTEM);
            return nullptr;
        }
    } else {
        message = message_of((char *)tpinfo);
        if (!is_typed_buffer((char *)tpinfo) || message->buftype != BUF_START) {
            end_context_with(TPEITYPE);
            return nullptr;
        }
        tpinfo->usrname[sizeof tpinfo->usrname - 1] = '\0';
        flags = (uint32_t)tpinfo->flags;
        if ((flags & ~(uint32_t)START_FLAGS) != 0) {
            end_context_with(TPEINVAL);
            return nullptr;
        }
        uint32_t mode = flags & 7;
        if (mode == UNSOL_HANDLER || mode == UNSOL_IGNORE || mode == UNSOL_QUEUE)
            block->unsol_mode = mode;
    }
    message->flags = flags;
    return message;
}

void abandon_connection(wthr_var *block)
{
    int fd = block->clhfd.exchange(-1);
    drop_read_ahead(block, fd);
    end_cipher(block);
    close(fd);
}

// Up to two attempts. 1, or -1 with tperrno set. The context has ended where no connection could be made, or
// the login was refused for good; after two failed exchanges it stands, without a socket and without a
// session.
static int try_to_start(msg_header *message, wthr_var *block)
{
    for (int attempt = 0; attempt < START_ATTEMPTS; attempt++) {
        _make_txinfo(block);
        if (_vorn_start(message, MSG_TPSTART, 0, block) > 0) {
            set_tperrno(0);  // of the attempt before
            return 1;
        }
        int code = get_tperrno();
        _txinfo_end(block);
        if (block->clhfd < 0)
            return end_context_with(code);
        abandon_connection(block);
        if (code == TPESECURITY)
            return end_context_with(code);  // a refused login isn't tried again
        usleep(ATTEMPT_PAUSE);
    }
    return -1;
}

// Keeps the start message for reconnecting. 1, or -1 with the session closed.
static int keep_start_message(const msg_header *message, wthr_var *block)
{
    block->start_msg = (msg_header *)malloc((size_t)message->datalen + BLOCK_OVERHEAD);
    if (block->start_msg == nullptr) {
        _clhc_close(block->clhfd, block);
        return end_context_with(TPESYSTEM);
    }
    memcpy(block->start_msg, message, (size_t)message->datalen + HEADER_SIZE);
    return 1;
}

// tpstart on a row that is bound: 0 or 1 by the list that answered, or -1 with tperrno set.
static int start_session(TPSTART_T *tpinfo, wthr_var *block)
{
    if (block->started != 0) {
        set_tperrno(TPEPROTO);
        return -1;
    }
    _vorn_init_seqno();
    _vorn_read_semantics();  // does nothing if they have been read
    load_structs_once();
    block->unsol_mode = UNSOL_HANDLER;
    msg_header *message = start_message(tpinfo, block);
    if (message == nullptr)
        return -1;
    block->clhfd = -1;
    block->new_clhfd = -1;
    block->old_clhfd = -1;
    int result = try_to_start(message, block);
    if (tpinfo == nullptr)
        free(message);
    if (result < 0)
        return -1;
    if (tpinfo == nullptr)
        block->start_msg = nullptr;
    else if (keep_start_message(message, block) < 0)
        return -1;
    return block->on_backup;
}

// A start inside a call leaves nothing behind when it fails.
int start_on_bound_row(wthr_var *block)
{
    int result = start_session(nullptr, block);
    if (result < 0 && current_block() == block && block != _main_wthrv)
        end_context_with(get_tperrno());
    return result;
}

// Gives the caller a row and a context. The block; null with tperrno set.
static wthr_var *bind_context(void)
{
    int code = 0;
    wthr_var *block = nullptr;
    _thread_lock();
    wthr_elem *row = _get_idle_wthr_ptr();
    if (row == nullptr)
        code = TPELIMIT;
    else if ((block = _wthr_var_init(row)) == nullptr)
        code = TPEOS;
    else
        bind_row(row);
    _thread_unlock();
    set_tperrno(code);
    return block;
}

static void trace_start(const api_text *text, const char *null_text, const char *names, int64_t flags)
{
    // The names stand one behind the other, 18 bytes each; none need be ended.
    char name[4][sizeof TPSTART_T::usrname + 1];
    if (names == nullptr) {
        _vorn_trace(text->name, 1, TRACE_ENTRY, null_text);
        return;
    }
    for (int i = 0; i < 4; i++)
        put_name(name[i], sizeof name[i], names + i * (int)sizeof TPSTART_T::usrname);
    _vorn_trace(text->name, 1, TRACE_ENTRY, text->enter, name[0], name[1], name[2], name[3], (int)flags);
}

int tpstart(TPSTART_T *tpinfo)
{
    api_frame frame;
    if (!api_find(&frame))
        return -1;
    trace_start(&TPSTART, "tpstart(NULL)", (const char *)tpinfo, tpinfo != nullptr ? tpinfo->flags : 0);
    set_tperrno(0);
    int context = _check_context_with_tpinfo(tpinfo, 0);
    if (context < 0)
        return api_error(&frame, &TPSTART);
    if (context == 1)
        return api_return(&TPSTART, 1);
    wthr_var *block = bind_context();
    if (block == nullptr)
        return api_error(&frame, &TPSTART);
    int result = start_session(tpinfo, block);
    return result < 0 ? api_error(&frame, &TPSTART) : api_return(&TPSTART, result);
}

// --- tpinit.

static constexpr api_text TPINIT_TEXT = {"tpinit", "tpinit(\"%s\", \"%s\", \"%s\", \"%s\", %#x)",
                                         "tpinit = %d", "tpinit = -1 [%d : %s]"};

// The wire form of the caller's record, in a buffer of its own. Null with tperrno set.
static msg_header *init_message(TPINIT *tpinfo, wthr_var *block)
{
    if (tpinfo == nullptr) {
        msg_header *bare = _header_msg_make(MSG_TPINIT, 0);
        if (bare == nullptr)
            set_tperrno(TPESYSTEM);
        return bare;
    }
    const msg_header *given = message_of((char *)tpinfo);
    if (!is_typed_buffer((char *)tpinfo) || given->buftype != BUF_START ||
        given->bufsize < (int32_t)sizeof(TPINIT)) {
        set_tperrno(TPEITYPE);
        return nullptr;
    }
    tpinfo->usrname[sizeof tpinfo->usrname - 1] = '\0';
    if ((tpinfo->flags & ~START_FLAGS) != 0) {
        set_tperrno(TPEINVAL);
        return nullptr;
    }
    char type[] = "TPINIT";
    char *wire = tpalloc(type, nullptr, given->bufsize);
    if (wire == nullptr) {
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    memcpy(wire, tpinfo, TPINIT_NAMES);
    put_word(wire + TPINIT_FLAGS, (uint32_t)tpinfo->flags);
    put_word(wire + TPINIT_DATALEN, (uint32_t)tpinfo->datalen);
    memcpy(wire + TPINIT_DATA, (const char *)tpinfo + sizeof(TPINIT),
           (size_t)given->bufsize - sizeof(TPINIT));
    if ((tpinfo->flags & 7) == UNSOL_QUEUE)
        block->unsol_mode = UNSOL_IGNORE;
    msg_header *message = message_of(wire);
    message->flags = (uint32_t)tpinfo->flags;
    return message;
}

// As try_to_start, but with one transaction record for all attempts, and without the end of the context where
// the login was refused.
static int try_to_init(msg_header *message, wthr_var *block)
{
    _make_txinfo(block);
    for (int attempt = 0; attempt < START_ATTEMPTS; attempt++) {
        if (_vorn_start(message, MSG_TPINIT, 0, block) > 0) {
            set_tperrno(0);
            return 1;
        }
        int code = get_tperrno();
        if (block->clhfd < 0)
            return end_context_with(code);
        abandon_connection(block);
        set_tperrno(code);
        if (code == TPESECURITY)
            return -1;
        usleep(ATTEMPT_PAUSE);
    }
    return -1;
}

int tpinit(TPINIT *tpinfo)
{
    api_frame frame;
    if (!api_find(&frame))
        return -1;
    trace_start(&TPINIT_TEXT, "tpinit(NULL)", (const char *)tpinfo, tpinfo != nullptr ? tpinfo->flags : 0);
    set_tperrno(0);
    int context = _check_context_with_tpinfo(tpinfo, 1);
    if (context < 0)
        return api_error(&frame, &TPINIT_TEXT);
    if (context == 1)
        return api_return(&TPINIT_TEXT, 1);
    wthr_var *block = bind_context();
    if (block == nullptr)
        return api_error(&frame, &TPINIT_TEXT);
    if (block->started != 0)
        return api_return(&TPINIT_TEXT, 1);
    load_structs_once();
    block->unsol_mode = UNSOL_HANDLER;
    msg_header *message = init_message(tpinfo, block);
    if (message == nullptr)
        return api_error(&frame, &TPINIT_TEXT);
    block->clhfd = -1;  // the other two sockets keep what they have: such a session never rolls
    if (try_to_init(message, block) < 0) {
        free(message);
        return api_error(&frame, &TPINIT_TEXT);
    }
    block->start_msg = tpinfo != nullptr ? message : nullptr;
    if (tpinfo == nullptr)
        free(message);
    return api_return(&TPINIT_TEXT, 1);
}

// --- tpend.

static constexpr api_text TPEND = API_TEXT("tpend", "(void)");
static constexpr api_text TPTERM = API_TEXT("tpterm", "(void)");

// Takes leave of the server; true if it answered as it should.
static bool take_leave(wthr_var *block)
{
    msg_header *message = _header_msg_make(MSG_TPEND, 0);
    if (message == nullptr)
        return false;
    put_name(message->svcname, sizeof message->svcname, "_tpend");
    msg_header *reply = nullptr;
    if (_send_csmsg_to_clh(message, block) > 0)
        reply = _read_csmsg_from_clh_timeout(message, block->block_time, block);
    bool taken = reply != nullptr && reply->msgtype == MSG_TPEND + REPLY;
    free(reply != nullptr ? reply : message);
    return taken;
}

int tpend(void)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPEND))
        return -1;
    wthr_var *block = frame.block;
    set_tperrno(0);
    if (block->started == 0) {
        // A session that was lost still has its tables, and perhaps a transaction's timer; they end with the
        // context.
        if (block->tx_timer_on != 0)
            _clr_tx_timer(block);
        _clhc_close(block->clhfd, block);
        end_context_with(TPEPROTO);
        return api_error(&frame, &TPEND);
    }
    _clr_tx_timer(block);
    close_kmq_sessions(block);
    bool taken = take_leave(block);
    close_connections(block);
    end_context_with(taken ? 0 : TPESYSTEM);
    return taken ? api_return(&TPEND, 1) : api_error(&frame, &TPEND);
}

int tpterm(void)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPTERM))
        return -1;
    return tpend() < 0 ? api_error(&frame, &TPTERM) : api_return(&TPTERM, 1);
}
}
