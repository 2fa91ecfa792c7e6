/* Questions to the server and to the context, and settings for the next request.
 *
 * Those that need the connection open a session as tpstart(NULL) would, if there is none, and fail with its
 * errors; after a lost connection with TPEOS. An answer is awaited without a time limit, except by tpqstat
 * and tpqsvcstat; that of an open transaction ends each of them with TPETIME. Threads that share a context
 * and ask the same question at one time may get each other's answer. */
#ifndef VORN_QUERY_H
#define VORN_QUERY_H

#include "flags.h"

#include <stdint.h>
#include <sys/socket.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Server groups of a service. Record and array belong to the context; the next tpgetsvglist of a thread of
 * it replaces them. */
typedef struct svg_list {
    int32_t count;       /* groups in svgs */
    int32_t spare_count; /* 0 */
    int32_t *svgs;       /* group numbers; bits 16 to 26 are the node */
    char *spare;         /* null, or a typed buffer that is freed with the list */
} svg_list;

/* IPv4 address and port of client `clid`, as the server tells them. 0, or -1 with tperrno: TPEINVAL (null),
 * TPESYSTEM (the server doesn't know), TPECLOSE. `flags` isn't looked at. */
int tpgetcliaddr(int clid, int *addr, int *port, long flags);

/* Addresses of the two ends of the connection, as getpeername and getsockname give them; at most 16 bytes of
 * `*name` are written, and `*namelen` takes the length, which may be more. 0, or -1 with errno; TPEINVAL for
 * null. */
int tpgetpeername(struct sockaddr *name, socklen_t *namelen); /* address of the server's end */
int tpgetsockname(struct sockaddr *name, socklen_t *namelen); /* address of the client's end */

/* The block time of the context, in seconds; 0: waits have no limit. tpset_timeout returns 1. */
int tpset_timeout(int seconds); /* sets the block time */
int tpget_timeout(void);        /* tells the block time */

/* Sleeps until the time is up or the server sends something. Positive if there is something to read, 0, or
 * -1 with errno. */
int tpsleep(struct timeval *time);
/* tpsleep with the time as a number. */
int tp_sleep(int seconds);       /* sleeps for seconds */
int tp_usleep(int microseconds); /* sleeps for microseconds */

/* The priority of the next request: the default (50) after every request, otherwise what tpsprio set. -1 with
 * TPENOENT before the first request of the context. */
int tpgprio(void);
/* Sets it, relative to the default or with TPABSOLUTE as it stands. 1, or -1 with TPEINVAL for a result
 * outside 1 to 100. */
int tpsprio(int prio, long flags);

/* 0: the server checks no identity by call. */
int tpchkauth(void);

/* The running servers of a node (31 characters; null: all), in the server's own form: `*buffer` is a typed
 * buffer that the caller frees with tpfree. How many, or -1 with tperrno: TPEINVAL (unknown node, null,
 * name too long), TPESYSTEM, or tperrno 0 where the server can't tell. Set `*buffer` to null before: where it
 * is set afterwards there is something to free, whatever the number. */
int tpgetactivesvr(char *nodename, char **buffer);

/* The server groups of service `svc`; `flags` isn't looked at. Null with tperrno, or with tperrno 0 if the
 * server knows none. */
svg_list *tpgetsvglist(char *svc, long flags);

/* The service that a buffer last went to or came from: of `obuf` if it has one, otherwise of `ibuf`. The text
 * belongs to the context and is replaced by the next call. Null with TPEINVAL if there is none. */
char *vornlastsvc(char *ibuf, char *obuf, long flags);
/* Copies that name, 32 bytes with its NUL. 1, or -1 with TPEINVAL (null) or TPEITYPE (no typed buffer). */
int tpextsvcname(char *buffer, char *name);
/* The same, and of a dead request that a queue gave back what became of it: `*type` 0, 2, -1 or 1 by the
 * thousands of its priority word, `*errcode` its user code; either may be null. */
int tpextsvcinfo(char *buffer, char *name, int *type, int *errcode);

/* One of four counts (`kind` 0 to 3) that the server keeps of a service (null: all) behind queue `qname`, and
 * the messages in a part of the queue (`kind` as the index of tpsubqname). -1 with tperrno: TPEINVAL (kind,
 * null), TPENOENT (unknown queue), TPETIME, and what the server gives. */
int tpqsvcstat(char *qname, char *svc, int kind); /* counts of a service */
int tpqstat(char *qname, int kind);               /* messages in a part of the queue */

#ifdef __cplusplus
}
#endif
#endif
