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
    char usrname[18];
    char cltname[18];
    char cred1[18];
    char cred2[18];
    int64_t
        flags; /* as above, but only UNSOL_QUEUE differs from the default, and makes messages be dropped */
    int64_t datalen; /* bytes of data */
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

#ifdef __cplusplus
}
#endif
#endif
