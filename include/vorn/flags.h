/* The flags word of the calls: one set of bits for all of them. Each call tells which it accepts; any
 * other bit makes it fail with TPEINVAL (but for tpacall with TPSPRCALL, which takes what comes). */
#ifndef VORN_FLAGS_H
#define VORN_FLAGS_H

#define TPNOBLOCK 0x00000001L   /* don't wait: TPEBLOCK instead */
#define TPSIGRSTRT 0x00000002L  /* accepted for portability: waits survive signals anyway */
#define TPNOREPLY 0x00000004L   /* no reply is wanted */
#define TPNOTRAN 0x00000008L    /* stand outside the open transaction */
#define TPTRAN 0x00000010L      /* belongs to the open transaction (kept by the library) */
#define TPNOTIME 0x00000020L    /* the block time doesn't apply */
#define TPGETANY 0x00000080L    /* any reply will do */
#define TPNOCHANGE 0x00000100L  /* the reply's type must be that of the receive buffer */
#define TPBLOCK 0x00000200L     /* tpacall: wait for the server's receipt; tpgetunsol: wait */
#define TPSENDONLY 0x00000800L  /* conversation: this side sends first */
#define TPRECVONLY 0x00001000L  /* conversation: this side receives first */
#define TPRQDIRECT 0x00004000L  /* queue: directed request */
#define TPABSOLUTE 0x00008000L  /* tpsprio: the priority is absolute */
#define TPNOTIFYACK 0x00008000L /* tpnotify: the receiver acknowledges */
#define TPSPRCALL 0x00100000L   /* call directed at one server process */
#define TPSVGCALL 0x00800000L   /* call directed at a server group */
#define TPTXSTART 0x04000000L   /* first request of a transaction (kept by the library) */

/* Flags of the start record (TPSTART_T, TPINIT). */
#define UNSOL_HANDLER 0x01L   /* unsolicited messages run the handler at once */
#define UNSOL_IGNORE 0x02L    /* they are dropped */
#define UNSOL_QUEUE 0x04L     /* they are kept until they are fetched */
#define TPMULTICONTEXTS 0x40L /* this process uses several contexts */

#endif
