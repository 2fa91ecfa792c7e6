/* Transactions. */
#ifndef VORN_TX_H
#define VORN_TX_H

#ifdef __cplusplus
extern "C" {
#endif

/* Return codes of the tx_ functions; txstrerror (vorn/errors.h) has their texts. */
#define TX_NOT_SUPPORTED 1
#define TX_OK 0
#define TX_OUTSIDE (-1)
#define TX_ROLLBACK (-2)
#define TX_MIXED (-3)
#define TX_HAZARD (-4)
#define TX_PROTOCOL_ERROR (-5)
#define TX_ERROR (-6)
#define TX_FAIL (-7)
#define TX_EINVAL (-8)
#define TX_COMMITTED (-9)
#define TX_NO_BEGIN (-100)
#define TX_ROLLBACK_NO_BEGIN (-102)
#define TX_MIXED_NO_BEGIN (-103)
#define TX_HAZARD_NO_BEGIN (-104)
#define TX_COMMITTED_NO_BEGIN (-109)

/* Values of when_return and transaction_control. */
#define TX_COMMIT_COMPLETED 0
#define TX_COMMIT_DECISION_LOGGED 1
#define TX_UNCHAINED 0
#define TX_CHAINED 1

/* Values of transaction_state; -1 without a transaction. */
#define TX_ACTIVE 0
#define TX_TIMEOUT_ROLLBACK_ONLY 1
#define TX_ROLLBACK_ONLY 2

/* Identity of a transaction: 12 bytes of `data`, 8 and 4, are used. */
typedef struct {
    long formatID;
    long gtrid_length;
    long bqual_length;
    char data[16];
} XID;

/* The same in words of 32 bits. */
typedef struct {
    int formatID;
    int gtrid_length;
    int bqual_length;
    char data[12];
} XID32;

typedef struct {
    XID xid;
    long when_return;
    long transaction_control;
    long transaction_timeout; /* seconds; 0: no limit */
    long transaction_state;
} TXINFO;

/* A transaction of the thread's context. tx_begin starts it, and a session if there is none; nothing is
 * sent until the first request that isn't marked TPNOTRAN. tx_commit and tx_rollback end it, with the
 * calls and conversations that are open in it; a commit with any of those open, or after a failure in the
 * transaction, is turned into a rollback and gives TX_ROLLBACK. They wait as long as the transaction's
 * time-out, without limit if there is none. In the chained mode the next transaction begins at once; if it
 * can't, TX_NO_BEGIN is added to the result. TX_OK, TX_PROTOCOL_ERROR (begun twice; none open; no
 * session), TX_FAIL (no session to be had, or the exchange with the server failed; tperrno tells), and
 * what the server answers. */
int tx_begin(void);
int tx_commit(void);
int tx_rollback(void);

/* Copies the record to `info`, which may be null. 1 in a transaction, else 0; TX_PROTOCOL_ERROR before the
 * first session. */
int tx_info(TXINFO *info);

/* Settings of the record, 0 or 1; TX_EINVAL for another value. The first is kept and told by tx_info, and
 * isn't sent. TX_OK; TX_PROTOCOL_ERROR before the first session. */
int tx_set_commit_return(long when_return);
int tx_set_transaction_control(long control);

/* Seconds that a transaction begun from now on may last; 0: no limit. A transaction that runs is not
 * touched. TX_OK; TX_PROTOCOL_ERROR without a session, whose start gives the first value. When the time is
 * up, calls in the transaction fail with TPETIME, and it can only be rolled back. The limit is kept by
 * alarm(), of which a process has one. */
int tx_set_transaction_timeout(long seconds);

/* The same calls with the result behind a pointer, which may be null. */
void TXBEGIN(int *result);
void TXCOMMIT(int *result);
void TXROLLBACK(int *result);

/* The same calls reporting through tperrno: 1, or -1. `timeout` is for tx_set_transaction_timeout; the flags
 * aren't looked at. Errors that the calls leave no tperrno for: TPEINVAL, TPEPROTO, TPETRAN. */
int tpbegin(unsigned long timeout, long flags);
int tpcommit(long flags);
int tpabort(long flags);

/* tx_set_commit_return with one of these two. 1, or -1: TPEINVAL, TPEPROTO. */
#define TP_CMT_LOGGED 1
#define TP_CMT_COMPLETE 2
int tpscmt(long flags);

/* 1 in a transaction, else 0; -1 with TPEPROTO before the first session. */
int tpgetlev(void);

/* Between the two forms of an identity. Numbers are cut to 32 bits, and extended with their sign. */
void xid_to_xid32(const XID *xid, XID32 *xid32);
void xid32_to_xid(const XID32 *xid32, XID *xid);

#ifdef __cplusplus
}
#endif
#endif
