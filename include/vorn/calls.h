/* Calls: a request to a service, and its reply.
 *
 * The first call of a process that hasn't opened a session opens one as tpstart(NULL) would. Requests go
 * out from the caller's buffer without a copy. A reply that fits the receive buffer is copied into it; a
 * larger one takes its place, and the old buffer is freed: take the pointer back from the call.
 *
 * Waits: outside a transaction a wait ends after the block time (seconds, set by the server), unless
 * TPNOTIME is given; without a block time it has no limit. Inside a transaction the transaction's own
 * time-out counts. Signals don't end a wait, except for the transaction's alarm. */
#ifndef VORN_CALLS_H
#define VORN_CALLS_H

#include "flags.h"

#ifdef __cplusplus
extern "C" {
#endif

/* In a process of single contexts a thread whose session was lost still has its context: tpcall and
 * tpacall then return 1 and do nothing, until tpend has ended it. */

/* Calls service `svc` (31 characters count; null: the name in the input buffer's header) and waits.
 * `idata` is a typed buffer or null, `ilen` the bytes to send (looked at for CARRAY, and for a STRING that
 * is to send more than its text). `*odata` is a typed buffer, which may be `idata`; `*olen` takes the
 * reply's length in bytes. Flags: TPNOBLOCK, TPSIGRSTRT, TPNOTRAN, TPNOTIME, TPNOCHANGE.
 *
 * 1, or -1 with tperrno: TPEINVAL (arguments, flags, length), TPEITYPE, TPEOTYPE (no typed buffer; reply
 * of another type under TPNOCHANGE), TPETIME, TPEPROTO, TPELIMIT (no row for a first call; and the errors
 * of tpstart), TPESVCFAIL (the service failed: data, length and tpurcode are delivered all the same),
 * TPENOENT and other errors that the server gives, TPECLOSE (connection lost), TPEOS, TPESYSTEM. */
int tpcall(char *svc, char *idata, long ilen, char **odata, long *olen, long flags);

/* Sends a request and returns: the call's descriptor, or 0 with TPNOREPLY. -1 with tperrno as above, and
 * TPELIMIT (no free descriptor), TPEPROTO (TPNOREPLY inside a transaction without TPNOTRAN). Flags:
 * TPNOBLOCK, TPSIGRSTRT, TPNOREPLY, TPNOTRAN, TPNOTIME, TPBLOCK (wait for the server's receipt). */
int tpacall(char *svc, char *data, long len, long flags);

/* Waits for the reply of descriptor `*cd`, or with TPGETANY for the oldest reply there is, whose
 * descriptor `*cd` then takes. `*odata` and `*olen` as in tpcall; a reply that came while nobody waited
 * always replaces the buffer. A reply uses the descriptor up, also one of a failed service; a failed wait
 * doesn't. Flags: TPNOBLOCK, TPSIGRSTRT, TPNOTIME, TPGETANY, TPNOCHANGE. 1, or -1 with tperrno as in
 * tpcall, TPEBADDESC (no such descriptor), TPEBLOCK (TPNOBLOCK, and nothing is there). */
int tpgetrply(int *cd, char **odata, long *olen, long flags);

/* Gives a descriptor up; its reply will be dropped. Not for a call of a transaction (TPEPROTO). 1, or -1
 * with tperrno: TPEBADDESC, TPEPROTO. */
int tpcancel(int cd);

/* Ends of a service routine, here without effect: a client has none. */
void tpreturn(int rval, long rcode, char *data, long len, long flags);
void tpforward(char *svc, char *data, long len, long flags);

#ifdef __cplusplus
}
#endif
#endif
