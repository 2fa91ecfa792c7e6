/* Unsolicited messages: what the server sends without being asked. Events, broadcasts, notifications, and
 * messages of a service to a client.
 *
 * They come over the session's connection, between replies, and only while a call of the library reads it.
 * What becomes of one is told by the context's mode, which the start record sets (UNSOL_HANDLER, the
 * default, UNSOL_IGNORE or UNSOL_QUEUE, in vorn/flags.h): the handler runs at once, on the thread that
 * reads; the message is dropped; or it is kept for tpgetunsol. A session's end drops what is kept. */
#ifndef VORN_UNSOL_H
#define VORN_UNSOL_H

#include "vorn/flags.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Kinds of messages. */
#define UNSOL_POST 1      /* an event that was subscribed to */
#define UNSOL_BROADCAST 2 /* by name of node, user or client */
#define UNSOL_NOTIFY 3    /* to this client alone */
#define UNSOL_SENDTOCLI 4 /* from a service */
#define UNSOL_ANY 5       /* any of the four, as it arrives; what is kept already doesn't count */

/* A handler gets the data of a message, its length in bytes, and the message's flags. The data is the
 * library's and is gone when the handler returns. It runs inside whatever call reads the connection, on
 * that call's thread, and must not call anything that waits on the same context. */
typedef void tpunsol_function(char *data, long len, long flags);

/* What tpsetunsol returns on failure. */
#define TPSETUNSOL_FAILED ((tpunsol_function *)-1)

/* Sets the handler (null: messages are dropped) and returns the earlier one, null if there was none. Opens
 * a session if there is none. TPSETUNSOL_FAILED without a session (tperrno as tpstart leaves it), and in
 * another mode than UNSOL_HANDLER: then nothing changes, and tperrno is 0. */
tpunsol_function *tpsetunsol(tpunsol_function *handler);

/* Sets the mode: UNSOL_HANDLER, UNSOL_IGNORE or UNSOL_QUEUE. What is kept stays, and the handler too. A
 * session's start sets the mode anew. 1, or -1 for any other value; tperrno is left alone. */
int tpsetunsol_flag(int mode);

/* Drops the messages that are kept. The handler stays. 1. */
int tpclearunsol(void);

/* Runs the handler for every message that is kept, oldest first, and for one more if input waits; input
 * that is no unsolicited message is dealt with, and the call then waits until one comes. Input that another
 * thread of the context reads isn't looked at: that thread runs the handler. Opens a session if there is
 * none. The number of messages, or -1 with tperrno: TPEPROTO (another mode than UNSOL_HANDLER), TPEOS (no
 * memory for a message, which is lost), TPECLOSE, TPESYSTEM. */
int tpchkunsol(void);

/* Takes the oldest message of a kind into `*data`, a typed buffer, which may be replaced by a larger one;
 * `*len` is the length of its data. Where none is kept, and always for UNSOL_ANY, it takes one off the
 * connection: with TPBLOCK it waits for it without limit, else it fails with TPEBLOCK if none is there.
 * What comes in the meantime and is of another kind is treated by the mode. Also TPNOCHANGE (the message's
 * type must be the buffer's), TPSIGRSTRT, TPNOTIME and TPGETANY, which change nothing. Opens a session if
 * there is none. 1, or -1 with tperrno: TPEINVAL (null arguments, flags, kind), TPEOTYPE (no typed buffer;
 * another type under TPNOCHANGE: the message is lost), TPEBLOCK, TPESYSTEM (the session was lost), TPEOS,
 * TPECLOSE. */
int tpgetunsol(int kind, char **data, long *len, long flags);

/* Part of the interface, and zero: nothing here uses them. */
extern char *unsoldata;
extern int _tpunsolsw;

#ifdef __cplusplus
}
#endif
#endif
