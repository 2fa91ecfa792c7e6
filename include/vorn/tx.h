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

/* Seconds that a transaction begun from now on may last; 0: no limit. A transaction that runs is not touched.
 * TX_OK; TX_PROTOCOL_ERROR without a session, whose start gives the first value. */
int tx_set_transaction_timeout(long seconds);

#ifdef __cplusplus
}
#endif
#endif
