// The threads that wait on a connection, longest first. For the receive path.
#ifndef VORN_WIRE_WAITERS_H
#define VORN_WIRE_WAITERS_H

#include <semaphore.h>
#include <stdint.h>

#include "wire/msgheader.h"

struct wthr_var;

extern "C" {

// A thread that waits for the reader role or for its message. Whoever gives it one of them takes it off the
// list, under msg_mutex, and posts `given` afterwards: the woken thread then needs no lock, and finds nobody
// in it.
struct read_waiter {
    msg_header *want;
    msg_header *message;
    bool has_role;
    int error;    // ends the wait
    int sent_fd;  // socket on which its request went out; -1: it awaits no reply
    sem_t given;
    read_waiter *previous, *next;
    bool has_more;  // other replies to the same request are to come behind this one
};

// A request that a rolling start has sent again before its thread came to wait.
struct sent_again {
    msg_header reply;  // what its answer is recognised by
    int fd;            // where it has gone
    sent_again *next;
};

// All of these expect msg_mutex. Who takes a waiter off the list to give it something posts `given`
// afterwards; null is fine.
void join_waiters(read_waiter *waiter, wthr_var *block);
void leave_waiters(read_waiter *waiter, wthr_var *block);
read_waiter *give_message(msg_header *message, wthr_var *block);  // whom the message answers; null: nobody
read_waiter *give_role(wthr_var *block);                          // who has waited longest; null: nobody
void post_given(read_waiter *waiter);

// For a thread that begins to wait, having sent on `fd`: the socket on which its request has gone out last.
// Costs a look at one word if nothing has been sent again.
int socket_of_request(msg_header *want, int fd, wthr_var *block);

void forget_sent_again(wthr_var *block);  // at the end of the session; takes msg_mutex

void count_again(wthr_var *block);  // takes msg_mutex

// A tprecv whose conversation ended when the session moved.
bool is_of_other_table(const msg_header *want, int generation);
// For the reader of `fd`: true for what belongs to a conversation with the previous server; an answer to a
// connect is told the table that it is for. And whether such an answer is from the previous server.
bool is_of_ended_conversation(int fd, msg_header *message, wthr_var *block);
bool is_late_connect(int fd, const msg_header *message, const wthr_var *block);
}

#endif
