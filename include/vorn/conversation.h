/* Conversations: half-duplex dialogues with a service.
 *
 * tpconnect opens one and says who sends first. The side that has the right to send sends any number of
 * messages, and hands the right over with the last of them; the other side then has it. The service ends
 * the conversation by ending itself, the client by tpdiscon. A conversation is for one thread at a time. */
#ifndef VORN_CONVERSATION_H
#define VORN_CONVERSATION_H

#include "vorn/flags.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Events. tpsend and tprecv fail with TPEEVENT when there is one, and tell it in `*revent`; a conversation
 * is over after all but TPEV_SENDONLY. */
#define TPEV_DISCONIMM 0x0001L /* the other side has ended it at once */
#define TPEV_SVCERR 0x0002L    /* the service ended with an error of the system */
#define TPEV_SVCFAIL 0x0004L   /* the service failed; tpurcode holds its code */
#define TPEV_SVCSUCC 0x0008L   /* the service ended well; tpurcode holds its code; data may have come */
#define TPEV_SENDONLY 0x0020L  /* the right to send is here now; data may have come */

/* Opens a conversation with service `svc`; `data` (a typed buffer, or null) is the first message. Exactly
 * one of TPSENDONLY (this side sends first) and TPRECVONLY (the service does) must be in `flags`; also
 * TPNOTRAN, TPNOTIME, TPNOBLOCK, TPSIGRSTRT. A conversation that is opened with TPNOBLOCK can't send, and
 * one that is opened with TPNOBLOCK, TPSIGRSTRT or TPNOTRAN may lose its place to a new one when the table
 * is full. Opens a session if there is none. The descriptor, or -1: TPEINVAL, TPEITYPE, TPELIMIT, TPETIME,
 * and the server's error. A failure marks the open transaction rollback-only, unless TPNOTRAN is set. */
int tpconnect(char *svc, char *data, long len, long flags);

/* Sends a message; with TPRECVONLY in `flags` the right to send goes with it. Also TPNOBLOCK, TPNOTIME,
 * TPSIGRSTRT. `revent` must not be null; it is set on every path. Nothing is waited for. 1, or -1:
 * TPEBADDESC, TPEINVAL, TPEITYPE, TPEPROTO (the other side has the right), TPEEVENT (`*revent` tells; the
 * conversation is over, and its transaction can only be rolled back). */
int tpsend(int cd, char *data, long len, long flags, long *revent);

/* Receives a message into `*data`, a typed buffer, which may be replaced by a larger one; `*len` is the
 * length of the data. Waits for the block time, without limit in a transaction or with TPNOTIME, not at
 * all with TPNOBLOCK (TPEBLOCK). With TPNOCHANGE the message's type must be the buffer's. 1 if a message
 * came and this side is still to receive; -1 with TPEEVENT for TPEV_SENDONLY and TPEV_SVCSUCC too, with
 * the data delivered. Other errors: TPEBADDESC, TPEINVAL, TPEPROTO (this side has the right to send),
 * TPEOTYPE, TPETIME, TPESYSTEM. After TPETIME the conversation stands. */
int tprecv(int cd, char **data, long *len, long flags, long *revent);

/* Ends a conversation at once; what is on its way is lost, and its transaction can only be rolled back. 1, or
 * -1: TPEBADDESC, TPEPROTO, or the error of the send. */
int tpdiscon(int cd);

#ifdef __cplusplus
}
#endif
#endif
