// The transaction record of a context and the checks that every request and wait makes on it.
#ifndef VORN_TX_TX_H
#define VORN_TX_TX_H

#include <stddef.h>
#include <stdint.h>

struct msg_header;
struct wthr_var;

extern "C" {

constexpr int TXINFO_ROWS = 8;

enum tx_stage : int32_t { TX_STAGE_NONE = 0, TX_STAGE_RUNNING = 1, TX_STAGE_BEGUN = 2 };
enum tx_state : int32_t {
    TX_STATE_NONE = -1,
    TX_STATE_ACTIVE = 0,
    TX_STATE_TIMED_OUT = 1,
    TX_STATE_ROLLBACK = 2
};

struct txinfo_elem {
    int32_t tx_active;  // 1 from tx_begin until the end
    int32_t spare;
    int32_t tx_stage;
    int32_t spare2;  // 1
    int64_t formatID, gtrid_length, bqual_length;
    uint32_t xid_data[3];
    int32_t when_return;
    int32_t transaction_control;
    int32_t transaction_timeout;  // seconds; 0 none
    int32_t transaction_state;
};
static_assert(offsetof(txinfo_elem, xid_data) == 40);

extern txinfo_elem *_internal_txinfo;  // the last table made
extern int32_t _cur_txinfo_ind;

int _make_txinfo(wthr_var *block);        // 1, or -1 without memory
int _txinfo_end(wthr_var *block);         // 1
int _init_txinfo(wthr_var *block);        // 1
int _init_txinfo_elem(txinfo_elem *row);  // 1

// True while a transaction is open on the context.
bool in_transaction(const wthr_var *block);
bool is_running(const wthr_var *block);  // true once a request of it has gone out
// The three moves of a transaction's stage. Of threads that try the same one at once, one is told true.
bool begin_record(wthr_var *block);  // opens it, if none is open
bool begin_to_run(wthr_var *block);  // for the first of its requests; it runs from then on
bool leave_unsent(wthr_var *block);  // ends it, if no request has been sent
// Marks the open transaction rollback-only, if `mark` isn't 0 and one is open; 1.
int _check_tx_state(int msgtype, int mark, wthr_var *block);
int _check_rollback(wthr_var *block);
int _tx_start_check(int msgtype);                  // 1, or -1 with tperrno set
int _tx_timeout_check(const msg_header *message);  // 0, or -13 if the transaction has run out of time

// The transaction's state, which the alarm's handler writes on whatever thread takes the signal.
int32_t tx_state_of(const wthr_var *block);
void set_tx_state(wthr_var *block, int32_t state);
}

#endif
