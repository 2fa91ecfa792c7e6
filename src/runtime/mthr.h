// Threads and contexts: the two tables, the block of variables of a context, and the wrappers of the thread
// library.
//
// Every thread that touches the library has a row in `_wthr`, every client context a row in `_ctxt`; the
// context row points to the one block of variables (`wthr_var`) that is the whole state of a session. Several
// threads may stand on one context; they then share its connection. A thread without a row falls back on
// row 0 of both tables, which is made with them and never freed.
#ifndef VORN_RUNTIME_MTHR_H
#define VORN_RUNTIME_MTHR_H

#include "vorn/groups.h"
#include "vorn/query.h"

#include <atomic>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

// A word of a context that any of its threads may read and write without a lock.
typedef std::atomic<int32_t> shared_int32;
static_assert(sizeof(shared_int32) == 4 && shared_int32::is_always_lock_free);

struct acall_elem;
struct conv_elem;
struct fcache_slot;
struct initout_node;
struct initout_queue;
struct initout_svc;
struct kmq_session;
struct msg_header;
struct node_elem;
struct qcall_elem;
struct read_waiter;
struct retired_block;
struct sent_again;
struct subscr_elem;
struct txinfo_elem;
struct unsol_node;

extern "C" {

constexpr int32_t TABLE_ROWS = 400;
constexpr int32_t HIGHEST_CONTEXT_NUMBER = 4000;
constexpr int32_t MAIN_CONTEXT_INDEX = -2;  // in a thread row: stands for context row 0

// Values of `_start_ctxt`; the third is the flag TPMULTICONTEXTS itself.
constexpr int32_t CONTEXT_MODE_UNDECIDED = -1;
constexpr int32_t CONTEXT_MODE_SINGLE = 0;
constexpr int32_t CONTEXT_MODE_MULTIPLE = 0x40;

// A row of the thread table. The three error cells belong to the thread, not to its context.
struct wthr_elem {
    int32_t thread_id;  // pthread_self cut to 32 bits; -1: free
    int32_t second_word;
    int32_t in_use;  // 1 while bound to a thread
    int32_t fourth_word;
    int32_t fifth_word;
    int32_t ctxt_index;  // row of `_ctxt`; -2 is read as 0, -1: none
    int32_t tperrno;
    int64_t tpurcode;
    int32_t fberror;
};
static_assert(offsetof(wthr_elem, ctxt_index) == 20);
static_assert(offsetof(wthr_elem, tperrno) == 24);
static_assert(offsetof(wthr_elem, tpurcode) == 32);
static_assert(offsetof(wthr_elem, fberror) == 40);
static_assert(sizeof(wthr_elem) == 48);

struct wthr_var;

// A row of the context table.
struct ctxt_elem {
    int32_t ctxt_id;            // the number that users see; -2 (TPNULLCONTEXT): free
    struct wthr_var *wthr_var;  // the block; made at first use, freed by _context_end
    int32_t in_use;
    int32_t owner;  // thread that stands on this context (cut to 32 bits); -1: none
};
static_assert(offsetof(ctxt_elem, wthr_var) == 8);
static_assert(sizeof(ctxt_elem) == 24);

// Bytes of the connection that were read beyond what was asked for. They belong to the next message on `fd`.
// Touched only by the thread that has the reader role; whoever closes the socket sets `fd` to -1.
constexpr int32_t READ_AHEAD_SIZE = 4096;
struct read_ahead {
    shared_int32 fd;     // -1: nothing is kept
    int32_t begin, end;  // bytes[begin, end) wait to be read; both at most READ_AHEAD_SIZE
    char bytes[READ_AHEAD_SIZE];
};

constexpr int FCACHE_SLOTS = 1019;

// Values of `rolled`; in the second this side of the previous socket has ended.
constexpr int32_t ROLLED = 1, ROLLED_AND_LEFT = 2;

constexpr int CRYPT_IN = 0, CRYPT_OUT = 1;  // the two directions of an enciphered connection

typedef void unsol_function(char *data, long len, long flags);

// The block of variables of a context. All fields start as zero bits, except as _wthr_var_init sets them.
struct wthr_var {
    int32_t proc_read_status;  // outcome of the last process-message read
    int32_t node_read_status;  // outcome of the last node-message read
    shared_int32 clhfd;        // the connection; -1: none
    shared_int32 new_clhfd;    // socket that a rolling start is opening; -1: none
    shared_int32 on_backup;    // 1 connected to the backup list, 0 to the main list

    // Own copy of the start reply's payload, in host order, and pointers into it. While other threads use the
    // context its tables are found through `initout` alone (initout_of).
    std::atomic<char *> initout;
    initout_node *initout_nodes;
    initout_queue *initout_queues;
    initout_svc *initout_svcs;
    char *initout_tail;
    shared_int32 compress_threshold;  // data length from which messages are compressed; -1: never
    int32_t unused_word;
    shared_int32 node_count;     // nodes of the domain
    shared_int32 sessionid;      // client identity in the domain; -1: none
    shared_int32 session_token;  // token of the start reply; -1: none
    shared_int32 started;        // 1 while a session stands

    int64_t unsol_mode;  // 1 handler, 2 ignore, 4 queue
    unsol_function *unsol_handler;
    int32_t unsol_count;
    int32_t unsol_spare;
    unsol_node *unsol_head, *unsol_tail;

    msg_header *start_msg;  // start message for reconnecting; null after tpstart(NULL)
    node_elem *node_table;
    int32_t in_send;  // 1 while a thread of the context is inside send()
    txinfo_elem *txinfo;
    char path_buffer[256];  // result area of _vorn_path_prefix

    std::atomic<conv_elem *> conv;
    shared_int32 conv_size;
    shared_int32 conv_active;
    acall_elem *acall;
    int32_t acall_size, acall_next;
    shared_int32 acall_active;
    uint32_t ready_seq;  // arrival counter of stored replies
    qcall_elem *qcall;
    int32_t qcall_size;

    std::atomic<int64_t> tx_deadline;  // time() at which the transaction timer runs out
    shared_int32 tx_timer_on;
    shared_int32 block_time;  // seconds
    int32_t seqno;            // last call sequence number
    int32_t seqno_inited;
    subscr_elem *subscr;
    int32_t subscr_size, subscr_count;
    shared_int32 default_prio, next_prio, last_prio;
    int32_t compat_Ferror;
    shared_int32 rolling_failed;
    int32_t compat_errno, compat_unixerrno;
    shared_int32 rq_pending;  // requests whose TPRQS reply is still due
    svg_list groups;          // answers of tpgetsvglist and the two multicasts; replaced under msg_mutex
    mcall_result mcall;
    mcallx_result mcallx;
    char last_svc[32];
    // Results of field type conversions, valid until the next one in the context; under cvt_mutex.
    int16_t cvt_short;
    int32_t cvt_int;
    int64_t cvt_long;
    int64_t cvt_char;  // the char, sign-extended
    float cvt_float;
    double cvt_double;
    int32_t cvt_buf_size;               // bytes at cvt_buf
    char *cvt_buf;                      // text, on the heap; null until the first conversion
    std::atomic<fcache_slot *> fcache;  // positions of looked-up fields; null until the first
    char server_name[32];               // service name from the tail of the start reply
    std::atomic<void *> crypt_sess;     // libkexcli's handle of the connection; null: none

    pthread_mutex_t msg_mutex;   // reader role, waiters, seqno, descriptor rows, every write to the socket
    pthread_mutex_t roll_mutex;  // the rolling start; taken inside the reader role, never inside msg_mutex
    pthread_cond_t reader_cond;  // kept for its place in the block: each waiter has a semaphore
    pthread_cond_t offer_done_cond;  // the reader waits here while an offer stands
    pthread_cond_t roll_cond;        // threads wait here until a rolling start has ended
    int32_t reader_busy;             // 1 while a thread has the reader role
    int32_t waiter_count;            // threads with a reply outstanding, from the send on
    int32_t offer_left;              // waiters that have still to look at the offered message
    msg_header *offer_msg;
    shared_int32 thread_refs;  // threads attached by tpsetctxt
    uint32_t callid_base[3];
    uint32_t callid_next[3];
    shared_int32 rq_enq_in_tran, rq_deq_in_tran;  // what the open transaction has done with queues
    shared_int32 old_clhfd;  // previous socket during and after a rolling start; -1: none
    shared_int32 rolling;    // 1 while a rolling start runs
    kmq_session *kmq_sessions;
    int32_t kmq_session_count;

    // What waiting, moving and sharing need besides.
    int32_t conv_room;             // rows at `conv`, conv_size or more
    shared_int32 conv_generation;  // moves of the session; a conversation belongs to one table
    shared_int32 rolled;           // ROLLED from a rolling start on until its previous socket has ended
    int32_t wake_fd;         // written to when the reader is to look at the sockets anew; -1: nobody shares
    retired_block *retired;  // what a rolling start replaced and other threads may still read
    int32_t reader_sent_fd;  // socket of the reader's own request; -1: it awaits no reply
    sent_again *sent_again_head;  // requests that went out again before their threads wait; under msg_mutex
    pthread_mutex_t crypt_mutex[2];  // by direction: held while the handle is in use; both, to end it

    // Recursive; held while a conversion runs and its result is used inside the library: the block of row 0
    // serves all threads without a row, and none may write to a text block that another gives back.
    pthread_mutex_t cvt_mutex;

    read_waiter *waiters_head, *waiters_tail;  // waiting threads, longest first; under msg_mutex
    int32_t waiting;                           // their number; waiter_count also counts those on their way
    read_ahead ahead;
};

extern wthr_elem *_wthr;
extern ctxt_elem *_ctxt;
extern int32_t _wthr_size;
extern int32_t _next_wthri;  // row at which the search for a free thread row begins
extern int32_t _cur_ctxti;   // last context number given
extern int32_t _start_ctxt;  // context mode
extern int32_t _init_wthr_flag;
extern wthr_var *_main_wthrv;   // block of context row 0
extern wthr_elem *_main_wthrp;  // thread row 0
extern int32_t _endian;         // 1 big-endian, 2 little-endian, 0 not yet told by _check_node
extern int32_t _node_type;
extern int32_t _my_pid;

// The table lock: the structure of both tables. Held for a lookup or a binding, and taken inside msg_mutex,
// never around it.
extern pthread_mutex_t _wthr_mutex;

// Tables. All expect the table lock, except as told.
int _init_thrtbl(void);                    // 1, or -1 without tables
int _init_ctxt(int32_t rows);              // 1
int _init_wthr(int32_t rows);              // 1, or -1 if the block of row 0 can't be made
int _init_wthr_elem(wthr_elem *row);       // 1
int _init_ctxt_elem(ctxt_elem *row);       // 1
wthr_var *_wthr_var_init(wthr_elem *row);  // the block of the row's context, made if there is none; null
int _get_nth_from_thrtbl(void);            // the caller's row number, or -1
wthr_var *_get_wthr_from_nth(void);        // the caller's block; null without a row
wthr_elem *_get_idle_wthr_ptr(void);       // a row and a context row for the caller; null
int _get_idle_wthr_ptr2(void);             // number of a free thread row, or the caller's own; -1
void bind_row(wthr_elem *row);             // gives the row, and its context row, to the caller

// Frees a part of the session's state, at the end of the session if a rolling start replaces it: other
// threads of the context may be reading it. By the thread that starts or ends the session.
void retire(void *memory, wthr_var *block);
void keep_until_end(void *memory, wthr_var *block);  // at the end of the session in any case
void free_retired(wthr_var *block);

// What field calls have allocated in the block. By the thread that ends the context, or its session.
void free_field_memory(wthr_var *block);

// Takes the table lock itself.
int _context_end(void);  // ends the caller's context; -1 without a row

int _check_context_with_tpinfo(const void *tpinfo, int unused);  // -1, 1, 2; settles the context mode

// What a thread last found in the tables. It holds as long as the generation is that of the tables.
struct thread_hint {
    uint64_t generation;  // 0: never looked up
    wthr_elem *row;
    wthr_var *block;
    int32_t context_number;  // what tpgetctxt gives
};
extern constinit thread_local thread_hint current_hint
    __attribute__((tls_model("initial-exec"), visibility("hidden")));
extern std::atomic<uint64_t> table_generation __attribute__((visibility("hidden")));  // 0: no tables yet
bool renew_hint(void);  // takes the table lock; false if there are no tables and none can be made

inline bool hint_holds(void)
{
    return current_hint.generation != 0 &&
           current_hint.generation == table_generation.load(std::memory_order_acquire);
}

// The caller's row (row 0 without one) and its block, or the fall-back block. Any thread; no lock while the
// hint holds. Null only if there are no tables and none can be made.
inline wthr_elem *current_row(void)
{
    return hint_holds() || renew_hint() ? current_hint.row : nullptr;
}

inline wthr_var *current_block(void)
{
    return hint_holds() || renew_hint() ? current_hint.block : nullptr;
}

bool current_context_number(int *number);  // what tpgetctxt tells; false without tables
void set_tperrno(int code);
int get_tperrno(void);
void set_tpurcode(int64_t code);

// Wrappers of the thread library; the results are those of the pthread_* calls.
void _thread_lock(void);  // the table lock
void _thread_unlock(void);
pthread_t _thread_self(void);
int _vorn_mutex_lock(pthread_mutex_t *mutex);
int _vorn_mutex_unlock(pthread_mutex_t *mutex);
int _thread_mutex_init(pthread_mutex_t *mutex);
int _thread_mutex_lock(pthread_mutex_t *mutex);
int _thread_mutex_unlock(pthread_mutex_t *mutex);
int _thread_mutex_destroy(pthread_mutex_t *mutex);
int _thread_cond_init(pthread_cond_t *cond);
int _thread_cond_signal(pthread_cond_t *cond);
int _thread_cond_broadcast(pthread_cond_t *cond);
int _thread_cond_wait(pthread_cond_t *cond, pthread_mutex_t *mutex);
timespec deadline_in(int milliseconds);  // from now, on the clock of the timed waits
int _thread_cond_timedwait(pthread_cond_t *cond, pthread_mutex_t *mutex,
                           int milliseconds);  // negative: no limit
int _thread_cond_destroy(pthread_cond_t *cond);
}

#endif
