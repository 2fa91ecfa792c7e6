// The receive path. There is no reader thread: whoever needs a message and finds nobody reading takes the
// reader role and reads the connection for all threads of the context.
#ifndef VORN_WIRE_CLHREAD_H
#define VORN_WIRE_CLHREAD_H

struct msg_header;
struct wthr_var;

extern "C" {

// All of these give a block of header and data, or null with tperrno set. With `want` (a header that tells
// what is awaited, and the block that takes the reply) the result is `want` itself, or a new block, and then
// `want` has been freed: the caller goes on with the result as its buffer. Without `want` the result is a new
// block, owned by the caller. Any thread of the context; they take msg_mutex, and never hold it across a
// read.

msg_header *_read_csmsg_from_clh(int fd, msg_header *want, wthr_var *block);
// No time limit but the transaction's; with `tolerant` not even that. `fd` serves where the context has no
// socket. A null `want` takes the reader role even from another thread and keeps it.
msg_header *_read_csmsg_from_clh2(int fd, msg_header *want, int tolerant, wthr_var *block);

// `seconds` below 1 without `noblock` means no limit. Time is counted in whole seconds.
msg_header *_read_csmsg_from_clh_timeout(msg_header *want, int seconds, wthr_var *block);
msg_header *_read_csmsg_from_clh_timeout2(msg_header *want, int seconds, int noblock, wthr_var *block);

// The wait for one of several replies to one request. With `has_more` the thread counts as one that has sent
// and is on its way to wait again, from the moment on at which it gets this one: the next may be there before
// it is. If it won't come, it calls forget_waiter. Without a reply it isn't counted.
msg_header *read_one_of_several(msg_header *want, int seconds, bool has_more, wthr_var *block);

// The socket of a rolling start, `new_clhfd`, read outside the reader role by the one thread that opens it.
msg_header *_read_csmsg_from_ready_clh(int fd, msg_header *want, int unused, wthr_var *block);
msg_header *_read_csmsg_from_ready_clh_timeout(msg_header *want, int seconds, wthr_var *block);

msg_header *_check_read_buffer(msg_header *message);                   // repairs a short field buffer
int _clh_read_error(int fd, int result, int unused, wthr_var *block);  // turns a failed read into tperrno; 1

// Gives a message to the waiting thread whose template it answers; true if there is one. Expects msg_mutex.
bool hand_to_waiter(msg_header *message, wthr_var *block);

// Gives the reader role to the thread that has waited longest, or up if none waits: at the end of a wait, and
// at a new connection, since the role stays taken when the last socket goes. Takes msg_mutex.
void free_reader_role(wthr_var *block);

// Takes leave of the previous socket of a rolling start once nobody waits for anything over it: this side
// ends, and what the server still sends, posts and requests that it gives back, is read until it ends its
// own. The socket is closed by the reader, or while nobody reads. Takes msg_mutex; costs a look at one word
// outside of rolling starts.
void end_old_socket_if_done(bool is_reader, wthr_var *block);

// The request to which `reply` would be the answer has gone out over the current socket now. `is_awaited`
// tells whether its thread waits for that, or will; `want` is what the reader itself awaits, or null. For the
// reader; takes msg_mutex.
void note_sent_again(const msg_header *reply, bool is_awaited, msg_header *want, wthr_var *block);

// Ends the waits for conversations whose table a move has replaced: TPEBADDESC. Expects msg_mutex. The reader
// finds out by itself, once it is woken.
void end_waits_of_conversations(wthr_var *block);

// The previous socket has ended: nothing comes of what is outstanding on it. Its calls fail with TPECLOSE.
// For the reader; takes msg_mutex.
void end_previous_socket(int fd, wthr_var *block);
// True for the previous socket of a rolling start.
bool is_previous_socket(int fd, const wthr_var *block);

// Has the reader look at the context's sockets anew.
void wake_reader(const wthr_var *block);
void sleep_again(const wthr_var *block);  // takes the wake-up; for the reader

// Takes back the count of a thread that has sent and will not come to wait. Takes msg_mutex.
void forget_waiter(wthr_var *block);

// Forgets what was read ahead on a socket that is being closed or replaced.
void drop_read_ahead(wthr_var *block, int fd);
// True if bytes of the connection are at hand without asking the socket.
bool has_read_ahead(const wthr_var *block);
// Sleeps until the connection, or the previous one of a rolling start, has something to read, or the time is
// up; null: without a limit. The result is that of select. Takes no role: another thread may read first.
int await_input(const wthr_var *block, const struct timeval *time);
}

#endif
