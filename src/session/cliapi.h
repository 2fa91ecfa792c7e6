// Start and end of a session, and the closing of its sockets.
#ifndef VORN_SESSION_CLIAPI_H
#define VORN_SESSION_CLIAPI_H

#include <stdint.h>

struct msg_header;
struct wthr_var;

extern "C" {

// Payload of the start reply: three counts, then the rows of three tables, then the compression threshold and
// tagged values. All words are big-endian on the wire.
struct initout_node {
    char name[16];
    char lnid[16];
    int32_t words[2];
};
static_assert(sizeof(initout_node) == 40);
struct initout_queue {
    char name[16];
};
static_assert(sizeof(initout_queue) == 16);
struct initout_svc {
    char bytes[32];
};
static_assert(sizeof(initout_svc) == 32);

constexpr int32_t INITOUT_NODE_COUNT = 0, INITOUT_QUEUE_COUNT = 4, INITOUT_SVC_COUNT = 8, INITOUT_ROWS = 12;

extern int32_t _vorn_engine_version;
int32_t engine_version(void);  // the same, whichever thread starts a session meanwhile

int _vorn_start(msg_header *message, int msgtype, int to_backup, wthr_var *block);  // one attempt; 1 or -1

// The steps of an attempt, shared with the move to another server. connect_to_list gives a socket, with the
// list that answered noted in `on_backup`; exchange_start sends the start message over `fd` and waits for the
// answer, which take_login takes in and frees (null is a failure). Negative or null with tperrno set.
constexpr int START_ATTEMPTS = 2;
constexpr unsigned ATTEMPT_PAUSE = 100000;  // microseconds between them
int connect_to_list(int to_backup, wthr_var *block);
msg_header *exchange_start(msg_header *message, int msgtype, int fd, wthr_var *block);
int take_login(msg_header *reply, int msgtype, bool moves, wthr_var *block);
void abandon_connection(wthr_var *block);  // closes the connection of an attempt that came to nothing

// Ends the thread's context with all that a start has built in it, and leaves `code` where the thread finds
// it then. -1, for the failures among its callers.
int end_context_with(int code);

// The session of a call that was made without tpstart: opens it on the row that the call's frame has bound.
// 0, 1, or -1 with tperrno set; then the context has been ended.
int start_on_bound_row(wthr_var *block);
int _cli_init(int acall_size, int conv_size, wthr_var *block);  // 1; -1, -1 frees the tables
int _ntoh_initout_struct(const char *payload, int length, wthr_var *block);
void _get_csval_to_loc(const char *payload, int length, int offset, wthr_var *block);

// The tables of one start reply. Their rows stay until the session ends, also when a rolling start brings
// others.
struct initout_tables {
    const initout_node *nodes;
    int32_t node_count;
    const initout_queue *queues;
    int32_t queue_count;
};
initout_tables initout_of(const wthr_var *block);
int32_t initout_count(const wthr_var *block, int32_t offset);  // one of the three counts; 0 without a payload

// Closes a socket of the session. Takes no lock: the send path calls it under msg_mutex, a signal handler
// anywhere.
void _clhc_close(int fd, wthr_var *block);
// The current one, and the previous one of a rolling start. At the end of a session.
void close_connections(wthr_var *block);
void _clear_init_mem(wthr_var *block);  // drops what a start built
int _abend_control(void);
extern int32_t _endian_checked;  // 1 once _check_node has run
int _check_node(void);           // tells the kind of host
void check_node_once(void);
int _hton_tpinit(char *buffer);
}

#endif
