// Unsolicited messages: the list of a context, and how its messages are treated. The calls are in
// vorn/unsol.h.
//
// The list is filled by whatever thread reads the connection and emptied by the application's; msg_mutex
// guards it. A message goes to the tpgetunsol that waits for its kind, else into the list; a tpgetunsol
// looks at the list under msg_mutex before it waits, so none is missed.
#ifndef VORN_CALLS_UNSOLAPI_H
#define VORN_CALLS_UNSOLAPI_H

#include "runtime/mthr.h"

#include <stdint.h>

struct msg_header;

extern "C" {

// Values of unsol_mode.
constexpr int64_t UNSOL_MODE_HANDLER = 1, UNSOL_MODE_IGNORE = 2, UNSOL_MODE_QUEUE = 4;

struct unsol_node {
    int32_t kind;  // 1 post, 2 broadcast, 3 notify, 4 sent to the client, otherwise the message type itself
    msg_header *msg;
    unsol_node *next;
};

// Mode and handler are set by the application's threads while another one reads.
inline int64_t unsolicited_mode(wthr_var *block)
{
    return std::atomic_ref<int64_t>(block->unsol_mode).load(std::memory_order_relaxed);
}
// Runs the handler, if there is one, on the message, which stays the caller's.
void run_unsolicited_handler(msg_header *message, wthr_var *block);

// Empties the list, freeing what it holds if told to. 1. Takes msg_mutex.
int _init_unsol(int free_all, wthr_var *block);

// A message that is to be kept, whose acknowledgement has gone out if it wanted one. Owns the message. 1,
// or -1 with tperrno set and the message freed. Takes msg_mutex.
int store_unsolicited(msg_header *message, int32_t kind, wthr_var *block);

// The oldest message of the kind, off the list, as an acknowledged one; null if there is none. Owned by the
// caller. Expects msg_mutex.
msg_header *take_unsolicited(int kind, wthr_var *block);

// Tells the sender of a notification that it has arrived. What comes of it is told to nobody.
void acknowledge_notification(const msg_header *message, wthr_var *block);

// The opening of a call that starts a session by itself: clears tperrno, and starts one as tpstart(NULL)
// does if there is none. The caller's block, which may be another one now; null with tperrno set.
wthr_var *begin_session(wthr_var *block);
}

#endif
