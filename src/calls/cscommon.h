// What every request path shares: the tables of outstanding work of a context, sequence numbers, timers, and
// the checks before a request is built.
#ifndef VORN_CALLS_CSCOMMON_H
#define VORN_CALLS_CSCOMMON_H

#include "runtime/mthr.h"

struct msg_header;
struct wthr_var;

extern "C" {

struct acall_elem {
    shared_int32 cd;              // descriptor; -1: free
    std::atomic<uint32_t> flags;  // the caller's; TPTRAN added for a call of the open transaction
    msg_header *reply;            // arrived while nobody waited; owned by the row, under msg_mutex
    uint32_t ready_no;            // arrival order of `reply`
    shared_int32 fd;              // socket on which the request went out; stays when the row is released
};
static_assert(offsetof(acall_elem, cd) == 0);

struct msg_node {
    msg_header *msg;
    int64_t unset;
    msg_node *next;
};

// Descriptor of a row whose tpconnect waits. Not 0: a server may give that one to another conversation, whose
// messages would then be this row's.
constexpr int32_t CONV_UNNAMED = -2;

// Marks in `flags` of a conversation.
constexpr uint32_t CONV_OUT = 0x10000, CONV_HELD = 0x20000;
// Bits of `event`.
constexpr uint32_t CONV_ENDED_BY_PEER = 0x1, CONV_REPLY_3007 = 0x4, CONV_REPLY_1007 = 0x8;

struct conv_elem {
    shared_int32 cd;  // given by the server; -1: free; CONV_UNNAMED while tpconnect waits
    std::atomic<uint32_t> flags;
    std::atomic<uint32_t> event;  // written under msg_mutex, as the list is
    shared_int32 urcode;
    msg_node *head, *tail;
};
static_assert(offsetof(conv_elem, cd) == 0);

struct qcall_elem {
    int32_t id;
    int32_t spare;
    int32_t count;
    msg_node *head, *tail;
};

// Tables. A size below 1 frees the table and gives -1 (_init_qcall: 1). A size above MOST_ROWS is cut to it:
// it comes from the server, and no client has that much outstanding.
constexpr int MOST_ROWS = 0x100000;
int _init_acall(int size, wthr_var *block);
int _init_conv(int size, wthr_var *block);
int _init_qcall(int size, wthr_var *block);
int _init2_acall(int size, wthr_var *block);
int _init2_conv(int size, wthr_var *block);

// Asynchronous calls. Creation, release and the ready scan take msg_mutex;
// lookups take no lock.
int _create_acall_cd(uint32_t flags, wthr_var *block);  // descriptor or -1
int _make_acall_cd_invalid(int index, wthr_var *block);
int _make_all_acall_cd_invalid(wthr_var *block);
int _make_tran_acall_cd_invalid(wthr_var *block);
int _get_active_tran_acall(wthr_var *block);
int _get_acall_cd_ind(int cd, wthr_var *block);  // row or -1
int set_acall_fd(int fd, const msg_header *message, wthr_var *block);
int check_rolling_cd(int fd, wthr_var *block);  // 1 if a row, released or not, bears the socket; -1
// Calls whose reply was to come over a socket that has ended get one that says TPECLOSE. Expects msg_mutex.
void fail_calls_on(int fd, wthr_var *block);
bool awaits_reply_on(int fd, const wthr_var *block);  // true for a call whose reply is still to come over it
int _get_acall_ind_from_ready(wthr_var *block);       // row of the oldest stored reply, or -1
int oldest_ready(const wthr_var *block);              // the same; expects msg_mutex

// Conversations.
int _create_conv_entry(int cd, uint32_t flags, wthr_var *block);  // row, not descriptor, or -1
int _make_conv_cd_invalid(int index, wthr_var *block);
int release_conversation(int index, wthr_var *block);  // the same, and frees the messages that were stored
int _make_all_convout_cd_invalid(wthr_var *block);
int _make_tran_convout_cd_invalid(wthr_var *block);
int _get_active_tran_conv(wthr_var *block);
int _get_conv_cd_ind(int cd, wthr_var *block);
int append_msg_node(msg_node **head, msg_node **tail, msg_header *message);  // 1, or -1 without memory

// Ends the call of descriptor `cd`, and frees what arrived for it. 1, or -1 if there is no such call.
int release_call(int cd, wthr_var *block);

// The stored reply of row `index`, which the caller then owns; null if there is none. Expects msg_mutex.
msg_header *take_stored_reply(int index, wthr_var *block);

// Stored replies of reliable queues. All expect msg_mutex.
int _enqueue_qcall_q(int rqno, msg_header *message, wthr_var *block);
msg_header *_dequeue_qcall_q(int rqno, wthr_var *block);
int _get_any_rqno_from_ready(wthr_var *block);
bool has_queue_reply(int rqno, const wthr_var *block);

// Names.
int _get_rqno_by_qname(const char *qname, wthr_var *block);
int _is_tipsvc(const char *svcname, wthr_var *block);
int _isexist_nodename_fld(char *data);
int _get_mysvgno_from_nodename(const char *svcname, char *data, wthr_var *block);
int _check_tipsvc(msg_header *message, wthr_var *block);

// What the calls of several families begin with.
inline bool has_flags_outside(long flags, uint32_t mask)
{
    return (flags & ~(long)mask) != 0;
}
// Seconds of the block time; 0, no limit, inside a transaction and with one of `unlimited` in the flags.
int wait_limit(const wthr_var *block, long flags, long unlimited);
// Sends a request; a header-only one, made for a call without data, is freed. As _send_csmsg_to_clh.
int send_request(msg_header *message, const char *data, wthr_var *block);

// The message to send, or null with tperrno set: opens a session if there is none, checks data and
// transaction, fills the header in front of the data. A header-only message is the caller's to free.
msg_header *_check_args_and_tx(int msgtype, const char *svcname, char *data, long len, uint32_t flags,
                               wthr_var *block);

// The part of the open transaction's record that a request carries: the start mark in `*flags`, the identity
// in the header. 0, or -1 with tperrno set if nothing may go out in it any more.
int join_transaction(int msgtype, msg_header *message, uint32_t *flags, wthr_var *block);

// The wait for the reply to a request that has gone out: template_of makes what the wait stands on, without
// memory it gives null with TPESYSTEM, and the waiter is no longer counted. await_reply waits, `limit`
// seconds or with 0 without end, and uses the template up; the reply is the caller's to free. Null with
// tperrno set; a null template gives null.
msg_header *template_of(int32_t msgtype, long flags, wthr_var *block);
msg_header *await_reply(msg_header *want, int limit, wthr_var *block);
// Sends a question, header only, and waits for its answer without a limit. The question is used up, the
// answer the caller's to free; null with tperrno set.
msg_header *ask_server(msg_header *question, wthr_var *block);

// The error number in a failed answer of the queue service: its `rcode`, or its `flags` if that is 0.
int error_in(const msg_header *answer);

// Sequence numbers.
int _vorn_init_seqno(void);
int _vorn_set_seqno(wthr_var *block);
int next_seqno(wthr_var *block);  // takes msg_mutex

// Timers. The socket that is readable, -1 on failure, -2 on time-out, -3 if urgent data waits.
constexpr int TIMER_FAILED = -1, TIMER_EXPIRED = -2, TIMER_URGENT = -3, TIMER_WOKEN = -4;
int _set_bc_timer(int seconds, wthr_var *block);
int _set_bc_timer2(int seconds, int watch_oob, wthr_var *block);
int reader_timer(int seconds, int watch_oob, wthr_var *block);  // -4, too: look at the sockets anew
int _set_bc_timer3(int seconds, void *unused, int fd);
void _set_tx_timer(int seconds, wthr_var *block);
void _clr_tx_timer(wthr_var *block);
void _vorn_sig_alarm2(int signal, wthr_var *block);
}

#endif
