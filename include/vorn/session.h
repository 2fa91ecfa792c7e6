/* Sessions: opening and closing the connection to the server.
 *
 * The server is found through the environment: VORN_HOST_ADDR and VORN_HOST_PORT name the main server,
 * VORN_BACKUP_ADDR and VORN_BACKUP_PORT a backup, VORN_CONNECT_TIMEOUT limits one connection attempt in
 * seconds. An address is host:port; "(a:7000|b:7000),(c:7000)" tries a and b in random order, then c. A
 * port variable that holds a directory means a local socket in it. */
#ifndef VORN_SESSION_H
#define VORN_SESSION_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The start record of tpstart, from tpalloc("TPSTART", NULL, 0). It travels to the server byte for byte,
 * 76 bytes: the credentials in clear, `flags` in the byte order of this host. */
typedef struct tpstart_t {
    char usrname[18]; /* user name, NUL-terminated, at most 17 characters */
    char cltname[18]; /* client name */
    char cred1[18];   /* first credential; the library doesn't look at it */
    char cred2[18];   /* second credential */
    int32_t flags;    /* UNSOL_HANDLER, UNSOL_IGNORE or UNSOL_QUEUE, and TPMULTICONTEXTS (vorn/flags.h) */
} TPSTART_T;

/* The start record of tpinit, from tpalloc("TPINIT", NULL, size); the data begins behind `datalen`, at offset
 * 88. */
typedef struct tpinit_t {
    char usrname[18]; /* as in TPSTART_T */
    char cltname[18]; /* as in TPSTART_T */
    char cred1[18];   /* as in TPSTART_T */
    char cred2[18];   /* as in TPSTART_T */
    int64_t flags;    /* as in TPSTART_T, but UNSOL_IGNORE does nothing, and UNSOL_QUEUE drops messages */
    int64_t datalen;  /* bytes of data */
} TPINIT;

/* Opens a session. A null `tpinfo` logs in without a name. 0 connected to a main address, 1 to a backup
 * address; 1 also for a thread that has its context already and passes no flags in a process of single
 * contexts: then nothing is done. With flags, or with TPMULTICONTEXTS, each start opens a further session
 * on a new context of the thread; the context that it stood on before stays as it is. -1 with tperrno:
 * TPEPROTO (context mode), TPELIMIT (no free row), TPEITYPE (no TPSTART buffer), TPEINVAL (flags), TPEOS
 * (no connection, no memory), TPETIME (no answer in 60 seconds), TPESECURITY or another error that the
 * server gives (login refused), TPESYSTEM. A login that is refused twice for another reason than
 * TPESECURITY leaves the thread on a context without a session: call tpend before the next attempt, or it
 * will do nothing. The record stays the caller's. */
int tpstart(TPSTART_T *tpinfo);

/* The same with a TPINIT record; on a standing session it does nothing and gives 1. 1 or -1. The waits of
 * such a session also watch descriptor 0, and it never moves to another server: descriptor 0 must be
 * neither readable nor at its end (/dev/null is), or its calls fail with TPEOS. After a failure other than
 * a missing connection the thread stands on a context without a session: call tpend before the next
 * attempt. Prefer tpstart. */
int tpinit(TPINIT *tpinfo);

/* Closes the session and frees the context, whether or not the server answers. 1, or -1 with tperrno:
 * TPEPROTO (no session), TPESYSTEM (the server did not take its leave; the session is closed all the
 * same). All other threads of the context must be out of their calls: the context goes under them. Only
 * threads that wait for a reply without a limit, after the connection was lost, may stay: they wait for
 * ever, and the memory stays for them. */
int tpend(void);
int tpterm(void);

/* A server that goes down warns its clients, or gives requests back. The library then moves the session to
 * the other address list by itself: it logs in there with the record of tpstart, open calls go on, replies to
 * what was sent before still come over the previous connection, and what was given back is sent again.
 * Conversations, subscriptions and stored answers of queues end with the previous connection. Where no move
 * succeeds, requests fail with TPERDOWN from then on, and the end of the connection is TPERDCLOSE. Enciphered
 * sessions, and those of tpinit, don't move. */

/* Closes the connection and logs in on the other address list, from the backup back to the main one too, with
 * the record of tpstart; open calls are lost. No other thread may be inside a call of the context. 1, or -1
 * with tperrno as from tpstart. */
int tptobackup(void);

/* Ends the session and the context without a word to the server. As with tpend all other threads must be out
 * of their calls. 1, or -1 with TPEPROTO (no session). */
int tpreset(void);

/* The socket of the session, for poll and the like; it stays the library's. -1 without a session. */
int get_clhfd(void);

/* 1 on the main address list, 2 on the backup list. With `flags` 1 `*ip` takes the server's IPv4 address in
 * network order and `*port` its port in host order. 0 if the session has ended meanwhile, -1 with tperrno:
 * TPEPROTO (no session), TPEINVAL (null), or an errno value of getpeername. */
int tpgethostaddr(int *ip, int *port, long flags);

/* Is the connection alive? Negative `seconds`: only whether there is a session. 0: takes one message that is
 * there without waiting; threads that share the context must not wait meanwhile. Above 0: asks the server and
 * waits for its answer so long. 0, or -1 with tperrno: TPEPROTO (no session), TPESYSTEM, TPETIME, TPECLOSE,
 * TPEOS. */
int vorn_chk_conn(int seconds);

#ifdef __cplusplus
}
#endif
#endif
