// The send path: every message to the server leaves through _internal_send_csmsg_to_clh.
#ifndef VORN_WIRE_CLHIO_H
#define VORN_WIRE_CLHIO_H

#include <stdint.h>

struct msg_header;
struct wthr_var;

extern "C" {

// Any thread of the context; takes msg_mutex, and roll_mutex before it. 1, or -1 with tperrno set. The
// message stays the caller's; its header is in host order again afterwards, sent or not.
int _send_csmsg_to_clh(msg_header *message, wthr_var *block);
int _internal_send_csmsg_to_clh(msg_header *message, wthr_var *block, int fd);

// The same for a message of a conversation in the table `generation`: a move ends the conversation, and the
// new server's of this number is another one. TPEBADDESC then.
int send_in_conversation(msg_header *message, int32_t generation, wthr_var *block);

// Turns a failed write into tperrno; always 1. Expects msg_mutex.
int _clh_write_error(int result, int expected, wthr_var *block);

// True for a message whose sender will wait for the answer and is counted in waiter_count from the send on: a
// TPCALL, a marked TPACALL, a TPACALL with TPBLOCK, a commit or rollback, a TPCONNECT, a TPPOST, a TPNOTIFY
// that is to be acknowledged, the requests of queues, the key store's, the message service's but for that of
// a message and its acknowledgement, and questions. Another thread may read the answer before its waiter
// comes. As a template of a wait a TPACALL_BLOCK counts too: it stands for the TPACALL with TPBLOCK that
// waits for its receipt.
bool has_waiter(const msg_header *message);

// The socket on which the calling thread last sent a message with a waiter. Between that and the wait nothing
// else is sent on the thread.
int last_sent_fd(void);

// The running count of a call identity: 1 to 0x7ff, never 0 after the first step. Expects msg_mutex.
void advance_callid(uint32_t callid[3]);
}

#endif
