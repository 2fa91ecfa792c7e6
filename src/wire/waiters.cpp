// The threads that wait on a connection, and the previous connection of a session that has moved.
#include "wire/waiters.h"

#include "calls/convapi.h"
#include "calls/cscommon.h"
#include "runtime/mthr.h"
#include "vorn/errors.h"
#include "wire/clhmatch.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {

void join_waiters(read_waiter *waiter, wthr_var *block)
{
    waiter->previous = block->waiters_tail;
    waiter->next = nullptr;
    if (block->waiters_tail != nullptr)
        block->waiters_tail->next = waiter;
    else
        block->waiters_head = waiter;
    block->waiters_tail = waiter;
    block->waiter_count++;
    block->waiting++;
}

void leave_waiters(read_waiter *waiter, wthr_var *block)
{
    if (waiter->previous != nullptr)
        waiter->previous->next = waiter->next;
    else
        block->waiters_head = waiter->next;
    if (waiter->next != nullptr)
        waiter->next->previous = waiter->previous;
    else
        block->waiters_tail = waiter->previous;
    block->waiter_count--;
    block->waiting--;
}

void forget_waiter(wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    if (block->waiter_count > block->waiting)
        block->waiter_count--;
    if (block->offer_left > 0 && --block->offer_left < 1)
        _thread_cond_signal(&block->offer_done_cond);
    _thread_mutex_unlock(&block->msg_mutex);
}

// For the reader, while it still has the role: nobody else can read the next reply yet.
void count_again(wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    block->waiter_count++;
    _thread_mutex_unlock(&block->msg_mutex);
}

// Takes the waiter that the message answers off the list and gives it the message; null if there is none. The
// caller posts `given`.
read_waiter *give_message(msg_header *message, wthr_var *block)
{
    for (read_waiter *waiter = block->waiters_head; waiter != nullptr; waiter = waiter->next) {
        if (waiter->want == nullptr || !_is_msgtype_matched(waiter->want, message, block))
            continue;
        leave_waiters(waiter, block);
        block->waiter_count += waiter->has_more;
        name_conversation(waiter->want, message, block);
        waiter->message = message;
        return waiter;
    }
    return nullptr;
}

// Gives the role to the thread that has waited longest; the caller posts `given`. Without one it is free, and
// null.
read_waiter *give_role(wthr_var *block)
{
    read_waiter *waiter = block->waiters_head;
    block->reader_sent_fd = waiter == nullptr ? -1 : waiter->sent_fd;
    if (waiter == nullptr) {
        block->reader_busy = 0;
        return nullptr;
    }
    leave_waiters(waiter, block);
    waiter->has_role = true;
    return waiter;
}

void post_given(read_waiter *waiter)
{
    if (waiter != nullptr)
        sem_post(&waiter->given);
}

bool hand_to_waiter(msg_header *message, wthr_var *block)
{
    read_waiter *waiter = give_message(message, block);
    post_given(waiter);
    return waiter != nullptr;
}

// --- The previous socket of a rolling start.

bool is_previous_socket(int fd, const wthr_var *block)
{
    return block->rolled != 0 && fd == block->old_clhfd;
}

// Ends the waits that `is_ended` tells. Expects msg_mutex.
typedef bool wait_test(const read_waiter *waiter, int argument);
static void end_waits(wait_test *is_ended, int argument, int code, wthr_var *block)
{
    for (read_waiter *next, *waiter = block->waiters_head; waiter != nullptr; waiter = next) {
        next = waiter->next;
        if (!is_ended(waiter, argument))
            continue;
        leave_waiters(waiter, block);
        waiter->error = code;
        sem_post(&waiter->given);
    }
}

bool is_of_other_table(const msg_header *want, int generation)
{
    return want != nullptr && want->msgtype == MSG_TPRECV && want->target != generation;
}

static bool awaits_other_table(const read_waiter *waiter, int generation)
{
    return is_of_other_table(waiter->want, generation);
}

void end_waits_of_conversations(wthr_var *block)
{
    end_waits(awaits_other_table, block->conv_generation, TPEBADDESC, block);
}

static bool has_sent_on(const read_waiter *waiter, int fd)
{
    return waiter->sent_fd == fd;
}

void end_previous_socket(int fd, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    end_waits(has_sent_on, fd, TPECLOSE, block);
    fail_calls_on(fd, block);
    _thread_mutex_unlock(&block->msg_mutex);
    _clh_read_error(fd, 0, 0, block);
    set_tperrno(0);
}

// The conversation that a connect asks for will be one of the new server.
static void follow_to_new_table(msg_header *want, const wthr_var *block)
{
    if (want->msgtype != MSG_TPCONNECT)
        return;
    want->target = block->conv_generation;
    want->rcode = -1;  // its row went with the previous table
}

// For a thread on its way. Without memory its wait ends with the previous socket, if that ends first.
static void keep_for_its_thread(const msg_header *reply, wthr_var *block)
{
    sent_again *note = (sent_again *)malloc(sizeof *note);
    if (note == nullptr)
        return;
    *note = {*reply, block->clhfd, block->sent_again_head};
    block->sent_again_head = note;
}

int socket_of_request(msg_header *want, int fd, wthr_var *block)
{
    for (sent_again **link = &block->sent_again_head; *link != nullptr; link = &(*link)->next) {
        sent_again *note = *link;
        if (!_is_msgtype_matched(want, &note->reply, block))
            continue;
        fd = note->fd;
        *link = note->next;
        free(note);
        follow_to_new_table(want, block);
        break;
    }
    return fd;
}

void forget_sent_again(wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    sent_again *note = block->sent_again_head;
    block->sent_again_head = nullptr;
    _thread_mutex_unlock(&block->msg_mutex);
    while (note != nullptr) {
        sent_again *next = note->next;
        free(note);
        note = next;
    }
}

void note_sent_again(const msg_header *reply, bool is_awaited, msg_header *want, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    read_waiter *waiter = block->waiters_head;
    while (waiter != nullptr && (waiter->want == nullptr || !_is_msgtype_matched(waiter->want, reply, block)))
        waiter = waiter->next;
    if (waiter != nullptr) {
        waiter->sent_fd = block->clhfd;
        follow_to_new_table(waiter->want, block);
    } else if (want != nullptr && _is_msgtype_matched(want, reply, block)) {
        block->reader_sent_fd = block->clhfd;
        follow_to_new_table(want, block);
    } else if (is_awaited) {
        keep_for_its_thread(reply, block);
    }
    _thread_mutex_unlock(&block->msg_mutex);
}

// Threads that have sent and are on their way to wait can't be asked for their socket. Expects msg_mutex.
static bool old_socket_is_needed(wthr_var *block)
{
    int fd = block->old_clhfd;
    if (block->waiter_count > block->waiting || block->reader_sent_fd == fd)
        return true;
    for (read_waiter *waiter = block->waiters_head; waiter != nullptr; waiter = waiter->next)
        if (waiter->sent_fd == fd)
            return true;
    return awaits_reply_on(fd, block);
}

// True if the server has closed its side, and nothing of it is left to be read.
static bool is_at_end(int fd, const wthr_var *block)
{
    char byte;
    return block->ahead.fd != fd && recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

void end_old_socket_if_done(bool is_reader, wthr_var *block)
{
    if (block->rolled == 0)
        return;
    int fd = -1;
    _thread_mutex_lock(&block->msg_mutex);
    if (block->rolled == ROLLED && !old_socket_is_needed(block)) {
        shutdown(block->old_clhfd, SHUT_WR);
        block->rolled = ROLLED_AND_LEFT;
    }
    bool may_close = is_reader || block->reader_busy == 0;
    if (block->rolled == ROLLED_AND_LEFT && may_close && is_at_end(block->old_clhfd, block)) {
        fd = block->old_clhfd.exchange(-1);
        block->rolled = 0;
    }
    _thread_mutex_unlock(&block->msg_mutex);
    if (fd >= 0)
        close(fd);
}

// What belongs to a conversation with the previous server, which ended when the session moved. Answers to a
// connect are left for whoever still awaits one of that server: they bear the table that they are for.
bool is_of_ended_conversation(int fd, msg_header *message, wthr_var *block)
{
    bool previous = is_previous_socket(fd, block);
    switch (message->msgtype) {
    case MSG_TPCONNECT + REPLY:
    case MSG_TPCONNECT + ERROR_REPLY:
    case MSG_TPCONNECT + ERROR_REPLY2:
        message->target = block->conv_generation - (previous ? 1 : 0);
        return false;
    case MSG_TPSEND:
    case MSG_TPDISCON:
    case MSG_TPRECV + REPLY:
    case MSG_TPRECV + ERROR_REPLY:
    case MSG_TPRECV + ERROR_REPLY2:
        return previous;
    }
    return false;
}

// An answer to a connect that nobody awaits any more; its server is left.
bool is_late_connect(int fd, const msg_header *message, const wthr_var *block)
{
    int32_t kind = message->msgtype - MSG_TPCONNECT;
    return is_previous_socket(fd, block) && (kind == REPLY || kind == ERROR_REPLY || kind == ERROR_REPLY2);
}
}
