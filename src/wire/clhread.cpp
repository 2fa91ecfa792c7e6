// The receive path.
//
// Entered from every call that waits, on its own thread; there is no other. The first that finds nobody
// reading takes the reader role (`reader_busy`) and reads the connection for all. A message that isn't its
// own goes straight to the waiting thread whose template it answers: the waiters of a context stand in a
// list, each with a semaphore of its own, so a message wakes one thread and not all. Threads that have sent
// and are counted in `waiter_count`, but haven't come to wait yet, can't be asked; for them the message
// stands on offer until they have looked at it. What nobody wants goes to clhmatch. Whoever has its message
// gives the role to the thread that has waited longest.
//
// Subtle: a stored message (the reply of an asynchronous call, one of a conversation, an unsolicited one) and
// a waiter for it can't miss each other, because a waiter looks into the table or list under msg_mutex before
// it waits, and the reader looks for a waiter under msg_mutex before it stores. msg_mutex is never held
// across a read of the socket, nor while a message is looked after.
#include "wire/clhread.h"

#include "buffers/payload.h"
#include "calls/convapi.h"
#include "calls/cscommon.h"
#include "calls/unsolapi.h"
#include "kmq/kmqapi.h"
#include "fields/fbcommon2.h"
#include "runtime/errlog.h"
#include "runtime/mthr.h"
#include "session/cliapi.h"
#include "tx/tx.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "wire/clhio.h"
#include "wire/clhmatch.h"
#include "wire/frames.h"
#include "wire/msgheader.h"
#include "wire/netapi.h"
#include "wire/waiters.h"

#include <errno.h>
#include <semaphore.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

extern "C" {

// Log codes of a reply that bears another number: a call's, a receipt's, a commit's or rollback's.
struct sequence_codes {
    const char *call, *receipt, *commit;
};
static constexpr sequence_codes CODES_UNLIMITED = {"CSC5717", "CSC5718", "CSC5719"};
static constexpr sequence_codes CODES_TIMED = {"CSC5714", "CSC5715", "CSC5716"};

// One wait, as its caller wants it.
struct read_wait {
    msg_header *want;
    wthr_var *block;
    bool timed;  // false: no limit but the transaction's
    int seconds;
    time_t begin;
    bool to_end_in_block;  // a time-out is TPEBLOCK
    bool tolerant;         // an expired transaction doesn't end the wait
    int fallback_fd;       // read where the context has no socket
    bool watch_urgent;     // timed: still look for urgent data
    bool has_more;         // other replies to the same request are to come behind this one
};

// A transaction that has run out of time can still hear the answer to its commit or rollback.
static bool is_end_of_transaction(const msg_header *want)
{
    return want != nullptr && (want->msgtype == MSG_TX_COMMIT || want->msgtype == MSG_TX_ROLLBACK);
}

static read_wait unlimited_wait(int fd, msg_header *want, bool tolerant, wthr_var *block)
{
    read_wait wait = {};
    wait.want = want;
    wait.block = block;
    wait.tolerant = tolerant;
    wait.fallback_fd = fd;
    return wait;
}

static read_wait timed_wait(msg_header *want, int seconds, int noblock, wthr_var *block)
{
    read_wait wait = unlimited_wait(-1, want, is_end_of_transaction(want), block);
    wait.timed = true;
    wait.seconds = seconds < 0 ? 0 : seconds;
    wait.begin = time(nullptr);
    wait.to_end_in_block = wait.seconds == 0 && (noblock & 1) != 0;
    wait.watch_urgent = true;
    return wait;
}

static int remaining(const read_wait *wait)
{
    int64_t passed = time(nullptr) - wait->begin;
    return passed > wait->seconds ? -1 : (int)(wait->seconds - passed);
}

static int milliseconds_of(int seconds)
{
    return seconds > INT32_MAX / 1000 ? INT32_MAX : seconds < 0 ? 0 : seconds * 1000;
}

// Time is counted in whole seconds; until the present one ends, none has passed.
static int rest_of_second(void)
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return 1000 - (int)(now.tv_nsec / 1000000);
}

static int time_out_error(const read_wait *wait)
{
    return wait->to_end_in_block ? TPEBLOCK : TPETIME;
}

static msg_header *null_with(int code)
{
    set_tperrno(code);
    return nullptr;
}

// A thread that was counted from its send on looks at the message on offer. The message, if it is its own.
static msg_header *look_at_offer(const msg_header *want, wthr_var *block)
{
    if (block->offer_left < 1)
        return nullptr;
    msg_header *offer = block->offer_msg;
    if (offer != nullptr && _is_msgtype_matched(want, offer, block)) {
        name_conversation(want, offer, block);
        block->offer_msg = nullptr;
        block->offer_left = 0;
        _thread_cond_signal(&block->offer_done_cond);
        return offer;
    }
    block->offer_left--;
    if (block->offer_left < 1)
        _thread_cond_signal(&block->offer_done_cond);
    return nullptr;
}

// What was stored for the caller while he was on the way here: the reply of a call, a message of a
// conversation, an unsolicited one.
static msg_header *look_at_stored(const msg_header *want, wthr_var *block)
{
    if (want->msgtype == MSG_TPRECV)
        return take_conversation_message(want, block);
    if (want->msgtype == MSG_TPGETUNSOL)
        return take_unsolicited(want->cd, block);
    if (want->msgtype == MSG_KMQ_GETNEXT)
        return take_saved_message(want, block);
    if (want->msgtype == MSG_TPRQS)
        return has_queue_reply(want->target, block) ? _dequeue_qcall_q(want->target, block) : nullptr;
    if (want->msgtype != MSG_TPACALL || has_waiter(want))
        return nullptr;
    int index = (want->flags & TPGETANY) != 0 ? oldest_ready(block) : _get_acall_cd_ind(want->cd, block);
    return index < 0 ? nullptr : take_stored_reply(index, block);
}

// --- The reader role.

static void release_role(const read_wait *wait)
{
    if (wait->want != nullptr || wait->timed)  // otherwise giving it up is the caller's business
        free_reader_role(wait->block);
}

void free_reader_role(wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    read_waiter *next = give_role(block);
    _thread_mutex_unlock(&block->msg_mutex);
    post_given(next);
}

static msg_header *fail_as_reader(const read_wait *wait, int code)
{
    if (code != 0)
        set_tperrno(code);
    release_role(wait);
    return nullptr;
}

// How long a wait without a limit may sleep before it looks at the transaction's timer itself: the alarm may
// land on a thread of another context. Negative: no limit.
static int unlimited_slice(const wthr_var *block)
{
    if (block->tx_timer_on == 0)
        return -1;
    int64_t left = block->tx_deadline - time(nullptr);
    return left < 1 ? 1000 : left > 86400 ? 86400000 : (int)left * 1000;
}

// True for a wait inside the open transaction whose deadline has passed, also where another thread's call,
// which it ended first, has marked the transaction rollback-only since.
static bool marked_behind_deadline(const read_wait *wait)
{
    const wthr_var *block = wait->block;
    bool outside = wait->want != nullptr && (wait->want->flags & TPNOTRAN) != 0;
    if (outside || is_end_of_transaction(wait->want) || tx_state_of(block) != TX_STATE_ROLLBACK)
        return false;
    return in_transaction(block) && block->tx_deadline != 0 && time(nullptr) >= block->tx_deadline;
}

// Does the alarm's work, in case the alarm was for another thread. Negative if the transaction has run out of
// time.
static int transaction_expired(const read_wait *wait)
{
    if (wait->block->tx_timer_on != 0)
        _vorn_sig_alarm2(0, wait->block);
    return _tx_timeout_check(wait->want) < 0 || marked_behind_deadline(wait) ? -TPETIME : 0;
}

enum role_result { ROLE_TAKEN, ROLE_HANDED, ROLE_FAILED };

// Sleeps until something is given, or `milliseconds` have passed (negative: no limit). 0, or an errno.
static int await_given(read_waiter *me, int milliseconds)
{
    if (milliseconds < 0)
        return sem_wait(&me->given) == 0 ? 0 : errno;
    timespec deadline = deadline_in(milliseconds);
    return sem_timedwait(&me->given, &deadline) == 0 ? 0 : errno;
}

constexpr int SLEEP_AGAIN = -1;

// One sleep of a waiter: 0 once something is given, SLEEP_AGAIN, or the error number that ends the wait.
static int sleep_once(const read_wait *wait, read_waiter *me)
{
    int milliseconds;
    if (wait->timed) {
        milliseconds = milliseconds_of(remaining(wait));
    } else {
        set_tperrno(0);
        milliseconds = unlimited_slice(wait->block);
        if (transaction_expired(wait) < 0)
            return TPETIME;
    }
    switch (await_given(me, milliseconds)) {
    case 0:
        return 0;
    case EINTR:
        return SLEEP_AGAIN;
    case ETIMEDOUT:
        return wait->timed ? time_out_error(wait) : SLEEP_AGAIN;
    }
    return TPESYSTEM;
}

// Ends a wait in which nothing came. False if something was given at the last moment; whoever did so is about
// to post.
static bool leave_without(read_waiter *me, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    bool given = me->message != nullptr || me->has_role || me->error != 0;
    if (!given)
        leave_waiters(me, block);
    _thread_mutex_unlock(&block->msg_mutex);
    while (given && await_given(me, -1) != 0)
        continue;
    return !given;
}

// Waits, once in the list, until the role or the message is given. On ROLE_FAILED tperrno is set.
static role_result wait_for_role(const read_wait *wait, read_waiter *me, msg_header **handed)
{
    int code;
    do
        code = sleep_once(wait, me);
    while (code == SLEEP_AGAIN);
    if (code > 0 && leave_without(me, wait->block)) {
        set_tperrno(code);
        return ROLE_FAILED;
    }
    if (me->error != 0) {
        set_tperrno(me->error);
        return ROLE_FAILED;
    }
    *handed = me->message;
    return me->message != nullptr ? ROLE_HANDED : ROLE_TAKEN;
}

// The entry of a wait: ends with the reader role, with the message, or with an error.
static role_result enter(const read_wait *wait, msg_header **handed)
{
    wthr_var *block = wait->block;
    const msg_header *want = wait->want;
    bool expects_reply = want != nullptr && has_waiter(want);
    read_waiter me = {};
    me.want = wait->want;
    me.sent_fd = expects_reply ? last_sent_fd() : -1;
    me.has_more = wait->has_more;
    bool waits = false;
    *handed = nullptr;
    _thread_mutex_lock(&block->msg_mutex);
    if (expects_reply) {
        me.sent_fd = socket_of_request(wait->want, me.sent_fd, block);
        *handed = look_at_offer(want, block);
        if (block->waiter_count > block->waiting)
            block->waiter_count--;
        block->waiter_count += *handed != nullptr && wait->has_more;
    }
    if (want != nullptr && *handed == nullptr)
        *handed = look_at_stored(want, block);
    if (*handed == nullptr) {
        waits = block->reader_busy != 0 && (want != nullptr || wait->timed);
        if (waits) {
            sem_init(&me.given, 0, 0);
            join_waiters(&me, block);
        } else {
            block->reader_busy = 1;
            block->reader_sent_fd = me.sent_fd;
        }
    }
    _thread_mutex_unlock(&block->msg_mutex);
    if (!waits)
        return *handed != nullptr ? ROLE_HANDED : ROLE_TAKEN;
    role_result result = wait_for_role(wait, &me, handed);
    sem_destroy(&me.given);
    return result;
}

// --- Delivery.

// Puts the message into the caller's block, or in its place.
static msg_header *put_into(msg_header *message, msg_header *want, wthr_var *block)
{
    if (_data_otype_check_no_alloc(message, want, block) < 0) {
        free(message);
        return nullptr;
    }
    if (want->buftype == BUF_FIELD || message->buftype == BUF_FIELD)
        _clear_fcache(message_data(want));
    if (message->bufsize > want->bufsize) {
        free(want);
        return message;
    }
    int32_t bufsize = want->bufsize;
    // A text that lacks its terminator brings the one that the framing put behind it; the reserve has room
    // for it.
    bool unended = message->buftype == BUF_STRING && message->datalen > 0 &&
                   message_data(message)[message->datalen - 1] != '\0';
    int32_t ending = unended ? 1 : 0;
    memcpy(want, message, (size_t)(HEADER_SIZE + message->datalen + ending));
    want->bufsize = bufsize;
    free(message);
    return want;
}

static msg_header *deliver(msg_header *message, msg_header *want, wthr_var *block)
{
    if (message->msgtype != MSG_KMQ_SESSION_CLOSE || (message->flags & FLAG_SESSION_CLOSED) == 0)
        return put_into(message, want, block);
    free(message);
    return null_with(TPECLOSE);
}

// --- Reading.

// Gives the role up with TPETIME if the transaction has run out of time, and that matters to this wait.
static bool ended_by_transaction(const read_wait *wait)
{
    if (transaction_expired(wait) >= 0 || wait->tolerant)
        return false;
    fail_as_reader(wait, TPETIME);
    return true;
}

// The socket to read next; negative: the wait ends, with tperrno set, or goes on.
constexpr int NEXT_FAILED = -1, NEXT_GO_ON = -2;

static int next_socket_unlimited(const read_wait *wait)
{
    set_tperrno(0);
    // The slice comes first: an alarm that fires behind it is still met by the slice's end.
    int slice = unlimited_slice(wait->block);
    if (ended_by_transaction(wait))
        return NEXT_FAILED;
    errno = 0;
    int fd = wait_readable(wait->block, slice);
    int cause = errno;
    if ((fd == -1 || (fd == -2 && cause != EINTR)) && wait->fallback_fd >= 0)
        fd = wait->fallback_fd;
    if (fd == -1) {
        // The role stays taken: with no socket left there is nothing for a next reader to do.
        set_tperrno(TPESYSTEM);
        return NEXT_FAILED;
    }
    if (ended_by_transaction(wait))
        return NEXT_FAILED;
    if (fd >= 0)
        return fd;
    if (fd == -3 || cause == EINTR)
        return NEXT_GO_ON;
    fail_as_reader(wait, TPESYSTEM);
    return NEXT_FAILED;
}

static int next_socket_timed(read_wait *wait)
{
    wthr_var *block = wait->block;
    if (ended_by_transaction(wait))
        return NEXT_FAILED;
    int left = remaining(wait);
    int fd = left < 0 ? TIMER_EXPIRED : reader_timer(left, wait->watch_urgent, block);
    if (fd == TIMER_WOKEN)
        return NEXT_GO_ON;
    if (fd == TIMER_URGENT) {
        _thread_mutex_lock(&block->roll_mutex);
        _recv_oob_msg(block->clhfd, block);
        _thread_mutex_unlock(&block->roll_mutex);
        // What nobody reads would wake this wait over and over.
        wait->watch_urgent = false;
        return NEXT_GO_ON;
    }
    if (fd < 0) {
        fail_as_reader(wait, fd == TIMER_EXPIRED ? time_out_error(wait) : TPESYSTEM);
        return NEXT_FAILED;
    }
    return ended_by_transaction(wait) ? NEXT_FAILED : fd;
}

// Seconds for which a frame may stand still: the block time, or else the limit of the wait itself.
static int stall_limit(const read_wait *wait)
{
    int block_time = wait->block->block_time;
    return block_time > 0 ? block_time : wait->timed ? wait->seconds : 0;
}

// Offers the message to the threads that have sent and are on their way here. True if one of them took it.
// The reader sleeps meanwhile; a wait without a limit looks at the transaction's timer every 3 seconds, a
// timed one looks no longer than its own time. Expects msg_mutex.
static bool offer(const read_wait *wait, msg_header *message)
{
    wthr_var *block = wait->block;
    block->offer_left = block->waiter_count - block->waiting;
    if (block->offer_left < 1)
        return false;
    block->offer_msg = message;
    int seconds = wait->timed ? remaining(wait) : _tx_timeout_check(wait->want);
    while (seconds >= 0 && block->offer_left > 0) {
        int milliseconds = milliseconds_of(wait->timed ? seconds : 3);
        if (milliseconds == 0)
            milliseconds = rest_of_second();
        _thread_cond_timedwait(&block->offer_done_cond, &block->msg_mutex, milliseconds);
        seconds = wait->timed ? remaining(wait) : _tx_timeout_check(wait->want);
    }
    bool taken = block->offer_msg == nullptr;
    block->offer_msg = nullptr;
    block->offer_left = 0;
    return taken;
}

// A reply of the awaited type that bears another number leaves a line.
static void log_sequence_error(const read_wait *wait, const msg_header *message)
{
    const msg_header *want = wait->want;
    int64_t kind = (int64_t)message->msgtype - want->msgtype;
    if ((kind != REPLY && kind != ERROR_REPLY && kind != ERROR_REPLY2) || want->seqno == message->seqno)
        return;
    const sequence_codes *codes = wait->timed ? &CODES_TIMED : &CODES_UNLIMITED;
    const char *code = nullptr;
    switch (want->msgtype) {
    case MSG_TPCALL:
        code = codes->call;
        break;
    case MSG_TPACALL_BLOCK:
        code = codes->receipt;
        break;
    case MSG_TX_COMMIT:
    case MSG_TX_ROLLBACK:
        code = engine_version() > 0 ? codes->commit : nullptr;
        break;
    }
    if (code != nullptr)
        VORN_LOG(0, LEVEL_WARNING, code, "3001 sequence number error : %d %d", want->seqno, message->seqno);
}

// Finds a taker among the other threads. True if there was one.
static bool pass_on(const read_wait *wait, msg_header *message)
{
    wthr_var *block = wait->block;
    _thread_mutex_lock(&block->msg_mutex);
    read_waiter *taker = give_message(message, block);
    bool taken = taker != nullptr || offer(wait, message);
    _thread_mutex_unlock(&block->msg_mutex);
    post_given(taker);
    return taken;
}

// A notice that a session of the message service was closed looks for it in the rings of the context.
static bool is_own(const msg_header *want, const msg_header *message, wthr_var *block)
{
    if (message->msgtype != MSG_KMQ_SESSION_CLOSE)
        return _is_msgtype_matched(want, message, block) != 0;
    _thread_mutex_lock(&block->msg_mutex);
    bool own = _is_msgtype_matched(want, message, block) != 0;
    _thread_mutex_unlock(&block->msg_mutex);
    return own;
}

// The reader's own message: it names its conversation before the next one is read.
static void take_name(const msg_header *want, const msg_header *message, wthr_var *block)
{
    if (want->msgtype != MSG_TPCONNECT)
        return;
    _thread_mutex_lock(&block->msg_mutex);
    name_conversation(want, message, block);
    _thread_mutex_unlock(&block->msg_mutex);
}

// The read loop of the thread that has the role.
static msg_header *read_for_all(read_wait *wait)
{
    wthr_var *block = wait->block;
    for (;;) {
        end_old_socket_if_done(true, block);
        if (is_of_other_table(wait->want, block->conv_generation))
            return fail_as_reader(wait, TPEBADDESC);
        int fd = wait->timed ? next_socket_timed(wait) : next_socket_unlimited(wait);
        if (fd == NEXT_GO_ON)
            continue;
        if (fd == NEXT_FAILED)
            return nullptr;
        msg_header *message = nullptr;
        switch (read_frame(fd, stall_limit(wait), wait->want, &message, block)) {
        case FRAME_FAILED:
            return fail_as_reader(wait, 0);
        case FRAME_IN_PLACE:
            release_role(wait);
            return wait->want;
        case FRAME_OLD_SOCKET:
            if (block->reader_sent_fd == fd)  // the answer was to come over it
                return fail_as_reader(wait, TPECLOSE);
            continue;
        case FRAME_NEGOTIATION:
            if (wait->has_more)
                count_again(block);
            release_role(wait);
            free(wait->want);  // the step takes its place
            return message;
        case FRAME_MESSAGE:
            break;
        }
        undo_shared_call(message);
        if (is_of_ended_conversation(fd, message, block) || _is_msgtype_irt(wait->want, message, block) > 0) {
            free(message);
            continue;
        }
        if (wait->timed || wait->want == nullptr)
            _check_read_buffer(message);
        if (wait->want == nullptr) {
            release_role(wait);
            return message;
        }
        if (is_own(wait->want, message, block)) {
            take_name(wait->want, message, block);
            if (wait->has_more)
                count_again(block);
            release_role(wait);
            message = deliver(message, wait->want, block);
            if (message == nullptr && wait->has_more)
                forget_waiter(block);
            return message;
        }
        if (pass_on(wait, message))
            continue;
        if (is_late_connect(fd, message, block)) {
            free(message);
            continue;
        }
        log_sequence_error(wait, message);
        if (_unmatched_msg_process(message, block) < 0)
            return fail_as_reader(wait, 0);
    }
}

static msg_header *perform(read_wait *wait)
{
    msg_header *handed, *result = nullptr;
    switch (enter(wait, &handed)) {
    case ROLE_FAILED:
        break;
    case ROLE_HANDED:
        result = deliver(handed, wait->want, wait->block);
        if (result == nullptr && wait->has_more)
            forget_waiter(wait->block);
        break;
    case ROLE_TAKEN:
        result = read_for_all(wait);
        break;
    }
    end_old_socket_if_done(false, wait->block);
    return result;
}

msg_header *_read_csmsg_from_clh(int fd, msg_header *want, wthr_var *block)
{
    return _read_csmsg_from_clh2(fd, want, 0, block);
}

msg_header *_read_csmsg_from_clh2(int fd, msg_header *want, int tolerant, wthr_var *block)
{
    read_wait wait = unlimited_wait(fd, want, tolerant != 0, block);
    return perform(&wait);
}

msg_header *_read_csmsg_from_clh_timeout(msg_header *want, int seconds, wthr_var *block)
{
    return _read_csmsg_from_clh_timeout2(want, seconds, 0, block);
}

msg_header *_read_csmsg_from_clh_timeout2(msg_header *want, int seconds, int noblock, wthr_var *block)
{
    if (noblock == 0 && seconds < 1)
        return _read_csmsg_from_clh(-1, want, block);
    read_wait wait = timed_wait(want, seconds, noblock, block);
    return perform(&wait);
}

msg_header *read_one_of_several(msg_header *want, int seconds, bool has_more, wthr_var *block)
{
    read_wait wait =
        seconds > 0 ? timed_wait(want, seconds, 0, block) : unlimited_wait(-1, want, false, block);
    wait.has_more = has_more;
    return perform(&wait);
}

// --- The socket of a rolling start, read alone.

// One message off `new_clhfd`: delivered, given to whoever may want it, or null with tperrno set. `settled`
// tells whether the wait is over. The end of the socket shows in `new_clhfd`.
static msg_header *read_ready(int body_fd, int stall_seconds, msg_header *want, bool *settled,
                              wthr_var *block)
{
    msg_header *message = nullptr;
    *settled = true;
    switch (read_frame_alone(block->new_clhfd, body_fd, stall_seconds, &message, block)) {
    case FRAME_FAILED:
        return nullptr;
    case FRAME_OLD_SOCKET:
        *settled = false;
        return nullptr;
    case FRAME_NEGOTIATION:
        free(want);
        return message;
    case FRAME_MESSAGE:
    case FRAME_IN_PLACE:
        break;
    }
    if (want == nullptr)
        return _check_read_buffer(message);
    if (_is_msgtype_matched(want, message, block))
        return put_into(message, want, block);
    *settled = _unmatched_msg_process(message, block) < 0;
    return nullptr;
}

msg_header *_read_csmsg_from_ready_clh(int fd, msg_header *want, int unused, wthr_var *block)
{
    (void)unused;
    for (;;) {
        if (block->new_clhfd < 0)
            return null_with(TPESYSTEM);
        bool settled;
        msg_header *message = read_ready(fd, 0, want, &settled, block);
        if (settled)
            return message;
    }
}

msg_header *_read_csmsg_from_ready_clh_timeout(msg_header *want, int seconds, wthr_var *block)
{
    read_wait wait = timed_wait(want, seconds, 0, block);
    for (int left = wait.seconds; left >= 0; left = remaining(&wait)) {
        int fd = _set_bc_timer3(left, nullptr, block->new_clhfd);
        if (fd < 0)
            return null_with(fd == TIMER_EXPIRED ? TPETIME : TPESYSTEM);
        bool settled;
        msg_header *message = read_ready(fd, wait.seconds, want, &settled, block);
        if (settled)
            return message;
    }
    return null_with(TPETIME);
}
}
