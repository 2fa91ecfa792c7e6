/* Reliable queues: requests that the server keeps on disk until a service has worked on them, and messages
 * that it keeps until somebody takes them.
 *
 * A queue is known by its name, of the list that the server gives at the start of a session. tpenq hands a
 * request for a service to a queue; the service's answer comes back to this client later, and tpdeq fetches
 * it. With TPRQDIRECT a queue is a plain store: tpenq puts a message in, tpdeq takes one out. The two calls
 * stand outside the open transaction; tpenq_ctl and tpdeq_ctl take part in it.
 *
 * Every call opens a session as tpstart(NULL) would, if there is none. Waits end after the block time; in an
 * open transaction, with TPNOTIME or without a block time they have no limit but the transaction's. How many
 * answers are due is counted by context, not by queue. Of threads that share a context no more may fetch at
 * one time than answers are due: one of them would wait for what another gets. */
#ifndef VORN_QUEUE_H
#define VORN_QUEUE_H

#include "flags.h"

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The control record of tpenq_ctl, which goes in front of the message: 168 bytes that the application and
 * the queue service agree upon. The library changes the byte order of its words and reads none of them. On
 * the wire the 32-bit words are big-endian; of a long only the low 32 bits travel, in front of four zero
 * bytes: 0x112233445566 arrives as 33 44 55 66 00 00 00 00. */
typedef struct RQCTL_T {
    int32_t head[4];   /* at 0: words */
    char text[96];     /* at 16: bytes, as they stand */
    int64_t counts[4]; /* at 112: the low halves travel */
    int32_t tail[5];   /* at 144: words */
    char filler[4];    /* at 164: bytes, as they stand */
} RQCTL_T;

#if defined __cplusplus
static_assert(sizeof(RQCTL_T) == 168 && offsetof(RQCTL_T, counts) == 112 && offsetof(RQCTL_T, tail) == 144,
              "the control record has a fixed layout");
#endif

/* Enqueues `data`, a typed buffer of which `len` bytes leave (as in tpcall), for service `svc` (31
 * characters count; null: none). Flags: TPNOBLOCK, TPSIGRSTRT, TPNOTRAN, TPNOTIME, TPRQDIRECT, TPNOREPLY (no
 * answer will be fetched) and 0x8000 (for the queue service). What the queue service says of the accepted
 * message, or -1 with tperrno: TPEINVAL (flags, null arguments, length), TPEOTYPE, TPEITYPE (no typed buffer,
 * a type that can't leave), TPENOENT (unknown queue), TPETIME, TPEBLOCK (the socket takes no more), TPECLOSE,
 * TPERDOWN, TPEOS, TPESYSTEM, and what the server gives. */
int tpenq(char *qname, char *svc, char *data, long len, long flags);

/* Fetches an answer that is due: of queue `qname`, or with null of the first queue that has one stored.
 * While none is stored it waits, and takes the first answer of any queue. With TPRQDIRECT it takes a message
 * out of the queue instead; `svc` is then a service, one of the names of tpsubqname, or null. TPBLOCK with
 * TPRQDIRECT keeps trying while the queue is empty, for the block time also inside a transaction; TPNOBLOCK
 * tries once. Flags besides: TPSIGRSTRT, TPNOTRAN, TPNOTIME, TPGETANY, 0x8000.
 *
 * `*data` is a typed buffer, which a larger or stored message replaces: take the pointer back. `*len` takes
 * the message's bytes, tpurcode the user code of an answer. 1, or -1 with tperrno: TPEINVAL (flags, null
 * arguments, no answer due), TPEOTYPE (no typed buffer), TPENOENT (unknown queue; null, and nothing stored),
 * TPEMATCH (empty queue), TPEBLOCK (TPNOBLOCK, and nothing there), TPETIME, TPECLOSE, TPEOS, TPESYSTEM, and
 * what the server gives: a failed answer is fetched, with its data, and so no longer due.
 *
 * A message that comes after its wait has ended has left the queue; the context's next fetch of this kind
 * gets it, from whichever queue, and without one waiting it is lost, which the log tells. One that arrives
 * behind a control record (kinds 11 and 12) keeps it: the record, in wire order, is counted in `*len`, and
 * fields begin 168 bytes into the buffer, which can't be sent again as it is. */
int tpdeq(char *qname, char *svc, char **data, long *len, long flags);

/* tpenq and tpdeq inside the open transaction, unless TPNOTRAN. In one transaction a context may enqueue or
 * dequeue, not both: TPETRAN (but a dequeue that is the transaction's first request is not seen by a later
 * enqueue). `ctl` is a control record that goes in front of the data, or null; tpdeq_ctl doesn't look at
 * it. An enqueue that is refused, or gets no answer, marks the transaction rollback-only. Behind a control
 * record texts, bytes and field buffers arrive whole; of struct data the server gets as many bytes as the
 * same length of plain records takes on the wire, so that the last of them may be cut: send these as fields.
 *
 * tpenq_ctl looks at the buffer as tpcall does (TPEITYPE for no typed buffer); tpdeq_ctl refuses a null
 * `data`, `*data` or `len` before bad flags. A null `svc` of tpenq_ctl stands for the service that the buffer
 * last went to. Otherwise as tpenq and tpdeq. */
int tpenq_ctl(char *qname, char *svc, RQCTL_T *ctl, char *data, long len, long flags);   /* as tpenq */
int tpdeq_ctl(char *qname, char *svc, RQCTL_T *ctl, char **data, long *len, long flags); /* as tpdeq */

/* Has the queue service run the failed requests of a queue again. `svc` must be null and `flags` 0, otherwise
 * TPEINVAL. How many were issued, or -1 with tperrno: TPENOENT (unknown queue) and as above. Waits without a
 * limit. */
int tpreissue(char *qname, char *svc, long flags);

/* Names of the parts of a queue: 0 all of it, 1 what failed, 2 requests, 3 answers. Null for any other index.
 * The text is constant. */
char *tpsubqname(int index);

/* Calls service `qname` without a reply. `qspace`, `ctl` and `flags` are not looked at; no reliable queue is
 * concerned. 1, or -1 with tperrno as from tpacall. */
int tpenqueue(char *qspace, char *qname, void *ctl, char *data, long len, long flags);

#ifdef __cplusplus
}
#endif
#endif
