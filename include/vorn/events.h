/* Events, broadcasts and notifications: messages to other clients of the domain, and subscriptions to
 * events. What arrives at a client is treated as vorn/unsol.h tells.
 *
 * All of these open a session if there is none, except tpnotify. `data` is a typed buffer or null, `len`
 * the bytes to send (looked at for CARRAY, and for a STRING that is to send more than its text). The buffer
 * stays the caller's. */
#ifndef VORN_EVENTS_H
#define VORN_EVENTS_H

#include "vorn/flags.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Identity of a client: four words, of which the first names it. */
typedef struct tpclient_t {
    int id[4]; /* the first one names the client */
} TPCLIENT_T;

/* Subscribes to an event, whose name has at most 30 characters. `filter` isn't looked at, and `ctl` must be
 * null. The server's answer isn't waited for: a refusal shows only in that no event comes. Flags:
 * TPNOBLOCK, TPSIGRSTRT, TPNOTIME. The descriptor for tpunsubscribe, or -1 with tperrno: TPEINVAL (name,
 * flags), TPEPROTO (`ctl`), TPESYSTEM, and the errors of tpstart and of the send. */
int tpsubscribe(const char *eventexpr, const char *filter, void *ctl, long flags);

/* The same with a second argument for the server, of which 15 characters count. It must not be null. */
int tpsubscribe2(const char *eventexpr, const char *second, long flags);

/* Ends a subscription; also where the message to the server fails. Flags as in tpsubscribe. 1, or -1 with
 * tperrno: TPEINVAL (no such descriptor, flags), TPESYSTEM, the errors of the send. */
int tpunsubscribe(int desc, long flags);

/* Posts an event to its subscribers and waits until the server has it, with TPNOREPLY too. Waits for the
 * block time, without limit in a transaction or with TPNOTIME. tpurcode is what the server answered. Also
 * TPNOBLOCK, TPSIGRSTRT, TPNOTRAN. 1, or -1 with tperrno: TPEINVAL (name as in tpsubscribe, flags, length),
 * TPEITYPE, TPETIME, TPESYSTEM (the server refused it), and the errors of tpstart and of the send. */
int tppost(const char *eventname, char *data, long len, long flags);

/* Sends to all clients on a node, of a user, of a client name; null, "" and "*" stand for all. The names of
 * user and client have at most 31 characters. `lnid` may be a pattern of node names, as a shell has them,
 * of which 15 characters count; one message is sent for each node that it covers. A client name can't go
 * with STRUCT data, whose struct name travels in the same place (TPEITYPE). Nothing is waited for. Flags:
 * TPNOBLOCK, TPSIGRSTRT, TPNOTIME. 1, with a pattern if one message at least was sent, or -1 with tperrno:
 * TPEINVAL (flags, a name that is too long, no such node, length), TPEITYPE, and the errors of tpstart and
 * of the send. */
int tpbroadcast(const char *lnid, const char *usrname, const char *cltname, char *data, long len, long flags);

/* Sends to one client; with TPNOTIFYACK it waits until he has it, for the block time, or without limit with
 * TPNOTIME. Also TPNOBLOCK, TPSIGRSTRT. Opens no session. 1, or -1 with tperrno: TPEINVAL (null `clid`,
 * flags, length), TPEITYPE, TPETIME, the server's error, and those of the send. */
int tpnotify(const TPCLIENT_T *clid, char *data, long len, long flags);

#ifdef __cplusplus
}
#endif
#endif
