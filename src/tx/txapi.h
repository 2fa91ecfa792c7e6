// The end of a transaction, and what stands around the TX interface. The calls are in vorn/tx.h.
#ifndef VORN_TX_TXAPI_H
#define VORN_TX_TXAPI_H

#include "vorn/tx.h"

#include <stdint.h>

struct wthr_var;

extern "C" {

// Part of the interface; nothing here uses them.
extern int32_t _xa_timer_sw;
extern char _svcxid[12];

// Sends a commit or a rollback (MSG_TX_*) and waits for its result, a TX code.
int _commit_rback(int msgtype);
int _tx_commit_to_rollback(void);
int _tx_chain_check(void);  // ends the record; in the chained mode begins the next. 0, or TX_NO_BEGIN

// Rows of the table, of which one is current. No call needs a second one yet.
int _set_next_txinfo(wthr_var *block);             // 1, or -1 if none is free
int _set_prev_txinfo(wthr_var *block, int index);  // 1, or -1 with TPELIMIT
int _get_idx_from_xid(const XID *xid);             // row with this identity, or -1

int _print_xid(const XID *xid);  // 1; a log line
int _map_tx2tperrno(int code);   // a TX code as a tperrno
}

#endif
