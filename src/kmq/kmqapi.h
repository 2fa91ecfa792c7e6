// The message service. It is not available yet: there are no sessions and no consumers, and this is the one
// place where what reaches them ends.
#ifndef VORN_KMQ_KMQAPI_H
#define VORN_KMQ_KMQAPI_H

struct msg_header;
struct wthr_var;

extern "C" {
int _close_session_notify(int waiter_id, int closed_id, wthr_var *block);  // 0: no such session
int _save_in_consumer_buffer(msg_header *message, wthr_var *block);  // -1: no consumer; frees the message
void close_kmq_sessions(wthr_var *block);
}

#endif
