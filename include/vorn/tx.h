/* Transactions: work of several requests that is done as a whole or not at all.
 *
 * The server coordinates them; the library keeps, for the context, whether one is open, whether it may still
 * be committed, and how long it may last. Requests take part in the open transaction unless TPNOTRAN is
 * given, or the call tells otherwise; after a failure in it, it can only be rolled back. The tx_* calls give
 * codes of their own; tpbegin and its kin do the same and report through tperrno. */
#ifndef VORN_TX_H
#define VORN_TX_H

#ifdef __cplusplus
extern "C" {
#endif

/* Return codes of the tx_ functions; txstrerror (vorn/errors.h) has their texts. */
#define TX_NOT_SUPPORTED 1           /* the option isn't supported */
#define TX_OK 0                      /* success */
#define TX_OUTSIDE (-1)              /* in a local transaction of a resource manager */
#define TX_ROLLBACK (-2)             /* the transaction was rolled back */
#define TX_MIXED (-3)                /* partly committed, partly rolled back */
#define TX_HAZARD (-4)               /* perhaps partly committed, partly rolled back */
#define TX_PROTOCOL_ERROR (-5)       /* called in the wrong state */
#define TX_ERROR (-6)                /* an error that passes */
#define TX_FAIL (-7)                 /* fatal error */
#define TX_EINVAL (-8)               /* invalid arguments */
#define TX_COMMITTED (-9)            /* committed heuristically */
#define TX_NO_BEGIN (-100)           /* committed, but the next one couldn't begin */
#define TX_ROLLBACK_NO_BEGIN (-102)  /* TX_ROLLBACK, and no next one */
#define TX_MIXED_NO_BEGIN (-103)     /* TX_MIXED, and no next one */
#define TX_HAZARD_NO_BEGIN (-104)    /* TX_HAZARD, and no next one */
#define TX_COMMITTED_NO_BEGIN (-109) /* TX_COMMITTED, and no next one */

/* Values of when_return and transaction_control. */
#define TX_COMMIT_COMPLETED 0       /* when_return: when all is done */
#define TX_COMMIT_DECISION_LOGGED 1 /* when_return: when the decision is logged */
#define TX_UNCHAINED 0              /* transaction_control: tx_begin starts the next one */
#define TX_CHAINED 1                /* transaction_control: the next one begins at once */

/* Values of transaction_state; -1 without a transaction. */
#define TX_ACTIVE 0                /* it may be committed */
#define TX_TIMEOUT_ROLLBACK_ONLY 1 /* its time is up: it can only be rolled back */
#define TX_ROLLBACK_ONLY 2         /* something failed: it can only be rolled back */

/* Identity of a transaction: 12 bytes of `data`, 8 and 4, are used. */
typedef struct {
    long formatID;     /* 1 in identities of this library */
    long gtrid_length; /* bytes of the transaction's part: 8 */
    long bqual_length; /* bytes of the branch's part behind it: 4 */
    char data[16];     /* both parts; the last 4 bytes aren't used */
} XID;

/* The same in words of 32 bits. */
typedef struct {
    int formatID;     /* as in XID */
    int gtrid_length; /* as in XID */
    int bqual_length; /* as in XID */
    char data[12];    /* both parts */
} XID32;

/* What tx_info tells of the context's transaction. */
typedef struct {
    XID xid;                  /* its identity */
    long when_return;         /* TX_COMMIT_COMPLETED or TX_COMMIT_DECISION_LOGGED */
    long transaction_control; /* TX_UNCHAINED or TX_CHAINED */
    long transaction_timeout; /* seconds; 0: no limit */
    long transaction_state;   /* TX_ACTIVE and so on; -1: there is none */
} TXINFO;

/* A transaction of the thread's context. tx_begin starts it, and a session if there is none; nothing is
 * sent until the first request that isn't marked TPNOTRAN. tx_commit and tx_rollback end it, with the
 * calls and conversations that are open in it; a commit with any of those open, or after a failure in the
 * transaction, is turned into a rollback and gives TX_ROLLBACK. They wait as long as the transaction's
 * time-out, without limit if there is none. In the chained mode the next transaction begins at once; if it
 * can't, TX_NO_BEGIN is added to the result. TX_OK, TX_PROTOCOL_ERROR (begun twice; none open; no
 * session), TX_FAIL (no session to be had, or the exchange with the server failed; tperrno tells), and
 * what the server answers. */
int tx_begin(void);    /* begins a transaction */
int tx_commit(void);   /* ends the transaction; its work stays */
int tx_rollback(void); /* ends the transaction; its work is undone */

/* Copies the record to `info`, which may be null. 1 in a transaction, else 0; TX_PROTOCOL_ERROR before the
 * first session. */
int tx_info(TXINFO *info);

/* Settings of the record, 0 or 1; TX_EINVAL for another value. The first is kept and told by tx_info, and
 * isn't sent. TX_OK; TX_PROTOCOL_ERROR before the first session. */
int tx_set_commit_return(long when_return);   /* sets when_return */
int tx_set_transaction_control(long control); /* sets transaction_control */

/* Seconds that a transaction begun from now on may last; 0: no limit. A transaction that runs is not
 * touched. TX_OK; TX_PROTOCOL_ERROR without a session, whose start gives the first value. When the time is
 * up, calls in the transaction fail with TPETIME, and it can only be rolled back. The limit is kept by
 * alarm(), of which a process has one. */
int tx_set_transaction_timeout(long seconds);

/* The same calls with the result behind a pointer, which may be null. */
void TXBEGIN(int *result);    /* as tx_begin */
void TXCOMMIT(int *result);   /* as tx_commit */
void TXROLLBACK(int *result); /* as tx_rollback */

/* The same calls reporting through tperrno: 1, or -1. `timeout` is for tx_set_transaction_timeout; the flags
 * aren't looked at. Errors that the calls leave no tperrno for: TPEINVAL, TPEPROTO, TPETRAN. */
int tpbegin(unsigned long timeout, long flags); /* as tx_begin */
int tpcommit(long flags);                       /* as tx_commit */
int tpabort(long flags);                        /* as tx_rollback */

/* Arguments of tpscmt. */
#define TP_CMT_LOGGED 1   /* TX_COMMIT_DECISION_LOGGED */
#define TP_CMT_COMPLETE 2 /* TX_COMMIT_COMPLETED */

/* tx_set_commit_return with one of these two. 1, or -1: TPEINVAL, TPEPROTO. */
int tpscmt(long flags);

/* 1 in a transaction, else 0; -1 with TPEPROTO before the first session. */
int tpgetlev(void);

/* Between the two forms of an identity. Numbers are cut to 32 bits, and extended with their sign. */
void xid_to_xid32(const XID *xid, XID32 *xid32); /* long form to short form */
void xid32_to_xid(const XID32 *xid32, XID *xid); /* short form to long form */

#ifdef __cplusplus
}
#endif
#endif
