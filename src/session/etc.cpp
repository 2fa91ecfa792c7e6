// The connection of a session: changing it by hand, giving it up, asking about it.
#include "calls/cscommon.h"
#include "kmq/kmqapi.h"
#include "runtime/thrapi.h"
#include "session/cliapi.h"
#include "vorn/calls.h"
#include "vorn/errors.h"
#include "vorn/session.h"
#include "wire/clhio.h"
#include "wire/clhmatch.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"
#include "wire/netapi.h"

#include <errno.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

extern "C" {

static constexpr api_text TPTOBACKUP = API_TEXT("tptobackup", "(void)");
static constexpr api_text TPRESET = API_TEXT("tpreset", "(void)");
static constexpr api_text GET_CLHFD = API_TEXT("get_clhfd", "(void)");
static constexpr api_text TPGETHOSTADDR = API_TEXT("tpgethostaddr", "(%#x, %#x, %d)");
static constexpr api_text VORN_CHK_CONN = API_TEXT("vorn_chk_conn", "(%d)");

// --- Changing it.

static int reconnect(msg_header *message, wthr_var *block)
{
    for (int attempt = 0; attempt < START_ATTEMPTS; attempt++) {
        if (_vorn_start(message, message->msgtype, block->on_backup == 0, block) > 0)
            return 1;
        if (block->clhfd >= 0)
            abandon_connection(block);
        usleep(ATTEMPT_PAUSE);
    }
    return -1;
}

int tptobackup(void)
{
    api_frame frame;
    if (!api_find(&frame))
        return -1;
    VORN_TRACE(TPTOBACKUP.name, 1, TRACE_RESULT, TPTOBACKUP.enter);  // the one entry in the phase of an exit
    wthr_var *block = frame.block;
    close_connections(block);
    msg_header *bare = block->start_msg == nullptr ? _header_msg_make(MSG_TPSTART, 0) : nullptr;
    msg_header *message = bare != nullptr ? bare : block->start_msg;
    if (message == nullptr)
        return api_fail(&frame, &TPTOBACKUP, TPESYSTEM);
    int result = reconnect(message, block);
    free(bare);
    return result < 0 ? api_error(&frame, &TPTOBACKUP) : api_return(&TPTOBACKUP, 1);
}

int tpreset(void)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPRESET))
        return -1;
    wthr_var *block = frame.block;
    set_tperrno(0);
    if (block->started == 0) {
        set_tperrno(TPEPROTO);
        _clhc_close(block->clhfd, block);
        return api_error(&frame, &TPRESET);
    }
    _clr_tx_timer(block);
    close_connections(block);
    close_kmq_sessions(block);
    end_context_with(0);
    return api_return(&TPRESET, 1);
}

// --- Asking about it.

int get_clhfd(void)
{
    api_frame frame;
    if (!API_ENTER(&frame, GET_CLHFD))
        return -1;
    if (frame.block->started == 0)
        return api_error(&frame, &GET_CLHFD);
    return api_return(&GET_CLHFD, frame.block->clhfd);
}

// The exit is traced with the error that stood there before.
static int fail_behind_trace(const api_frame *frame, const api_text *text, int code)
{
    int result = api_error(frame, text);
    set_tperrno(code);
    return result;
}

int tpgethostaddr(int *ip, int *port, long flags)
{
    constexpr long TELL_ADDRESS = 1;
    api_frame frame;
    if (!API_ENTER(&frame, TPGETHOSTADDR, ip, port, (int)flags))
        return -1;
    wthr_var *block = frame.block;
    if (block->started == 0)
        return fail_behind_trace(&frame, &TPGETHOSTADDR, TPEPROTO);
    if (flags == TELL_ADDRESS) {
        if (ip == nullptr || port == nullptr)
            return fail_behind_trace(&frame, &TPGETHOSTADDR, TPEINVAL);
        sockaddr_in peer = {};
        socklen_t length = sizeof peer;
        if (getpeername(block->clhfd, (sockaddr *)&peer, &length) < 0)
            return api_fail(&frame, &TPGETHOSTADDR, errno);
        *ip = (int)peer.sin_addr.s_addr;
        *port = ntohs(peer.sin_port);
    }
    int list = block->on_backup != 0 ? 2 : 1;
    return api_return(&TPGETHOSTADDR, block->started == 0 ? 0 : list);
}

// Looks for a message without waiting, and has it treated as one that nobody waits for. 0, or an error
// number.
static int take_what_is_there(wthr_var *block)
{
    wide_set readable;
    int fd = block->clhfd;
    wide_set_clear(&readable, fd);
    struct timeval at_once = {0, 0};
    int ready = has_read_ahead(block) ? 1 : -1;
    if (ready < 0 && wide_set_add(&readable, fd))
        ready = wide_set_select(&readable, nullptr, nullptr, &at_once);
    if (ready <= 0)
        return ready < 0 ? TPESYSTEM : 0;
    msg_header *message = _read_csmsg_from_clh(-1, nullptr, block);
    if (message == nullptr)
        return TPESYSTEM;
    _unmatched_msg_process(message, block);
    return 0;
}

// A call whose answer is looked at by nobody. 0, or -1 with tperrno set.
static int ping(int seconds, wthr_var *block)
{
    msg_header *message = _header_msg_make(MSG_TPCALL, 0);
    if (message == nullptr) {
        set_tperrno(TPEOS);
        return -1;
    }
    put_name(message->svcname, sizeof message->svcname, ".CHK_CONN");
    message->seqno = next_seqno(block);
    message->flags = TPNOTRAN;
    int32_t seqno = message->seqno;
    if (_send_csmsg_to_clh(message, block) < 0) {
        free(message);
        set_tperrno(TPESYSTEM);
        return -1;
    }
    message->msgtype = MSG_TPCALL;  // a shared connection has made an asynchronous call of it
    message->seqno = seqno;
    msg_header *reply = _read_csmsg_from_clh_timeout(message, seconds, block);
    free(reply != nullptr ? reply : message);
    return reply != nullptr ? 0 : -1;
}

int vorn_chk_conn(int seconds)
{
    api_frame frame;
    if (!API_ENTER(&frame, VORN_CHK_CONN, seconds))
        return -1;
    wthr_var *block = frame.block;
    if (block->started == 0)
        return api_fail(&frame, &VORN_CHK_CONN, TPEPROTO);
    if (seconds > 0) {
        if (ping(seconds, block) < 0)
            return api_error(&frame, &VORN_CHK_CONN);
    } else if (seconds == 0) {
        int error = take_what_is_there(block);
        if (error != 0)
            return api_fail(&frame, &VORN_CHK_CONN, error);
    }
    return api_return(&VORN_CHK_CONN, 0);
}
}
