/* The shared key store: typed buffers that the server side keeps under keys of bytes.
 *
 * The vorn_sq_* calls work on the store of the client's own session, the vorn_gq_* calls on the one that the
 * whole domain shares. That one is spread over the nodes: a call that finds nothing on the first node that it
 * asks, and one that counts, lists or purges everything, asks the others too.
 *
 * The calls don't open a session: without one they fail with TPEPROTO. Waits end after the block time; in an
 * open transaction, or without a block time, they have no limit but the transaction's. Unless told otherwise
 * the errors are TPEINVAL (flags, null or short arguments), TPEOS (no memory), TPESYSTEM (an answer that
 * can't be one), TPETIME, TPECLOSE, and what the server gives. */
#ifndef VORN_KEYSTORE_H
#define VORN_KEYSTORE_H

#include "flags.h"

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VORN_KEY_LENGTH 16 /* of a key that the server made */

/* Flags of the key store. */
#define SQ_FIXKEY 0x00004000L /* put: the key is a whole one of 16 bytes, the caller's */
#define SQ_NEWKEY 0x00008000L /* put: the server makes the key */
#define SQ_GLOBAL 0x00010000L /* the domain's store; the vorn_gq_* calls add it, don't give it */

/* One key of a list. */
typedef struct vorn_key {
    long keylen; /* bytes at `key` */
    long vallen; /* bytes of the value */
    long attr;   /* a word of the server's */
    char *key;   /* inside the list, and gone with it; no terminator */
} vorn_key;

#if defined __cplusplus
static_assert(sizeof(vorn_key) == 32 && offsetof(vorn_key, attr) == 16 && offsetof(vorn_key, key) == 24,
              "the record has a fixed layout");
#endif

/* The client's identity in the domain; its node is in the bits from 21 up. -1 with TPEPROTO without a
 * session. */
int vorn_get_sessionid(void);

/* Stores `data`, a typed buffer of which `len` bytes leave (as in tpcall), under the `keylen` bytes of `key`.
 * With SQ_FIXKEY or SQ_NEWKEY `key` must have 16 bytes, and no more of it are used; SQ_NEWKEY has them
 * filled. Flags besides: TPNOBLOCK, TPSIGRSTRT, TPNOTIME (the block time doesn't apply), 0x2000 (for the
 * server). 1, or -1 with tperrno: as above, and TPEITYPE (no typed buffer, a type that can't leave). */
int vorn_sq_put(char *key, int keylen, char *data, long len, long flags);
int vorn_gq_put(char *key, int keylen, char *data, long len, long flags);

/* Fetches what is stored. It takes the place of what `*data`, a typed buffer, held; `*len` takes its bytes.
 * A larger value moves the buffer: take the pointer back. Flags: TPNOBLOCK, TPSIGRSTRT, TPNOTIME (but the
 * other nodes, once these are asked, have the block time), TPNOCHANGE (the value's type must be the
 * buffer's), 0x1000 (for the server). 1, or -1 with tperrno: as above, and TPEOTYPE (no typed buffer,
 * another type with TPNOCHANGE). A failed call leaves what the buffer held. */
int vorn_sq_get(char *key, int keylen, char **data, long *len, long flags);
int vorn_gq_get(char *key, int keylen, char **data, long *len, long flags);

/* How many entries there are, or -1. Nodes that can't tell aren't counted; if none can, the result is -1 with
 * tperrno 0. */
int vorn_sq_count(void);
int vorn_gq_count(void);

/* Removes the entry of a key, or with null all of them. How many are gone, or -1; 0 in tperrno then, from
 * vorn_gq_purge of all, means that every node has refused. */
int vorn_sq_purge(char *key, int keylen);
int vorn_gq_purge(char *key, int keylen);

/* Has the server make a key: 16 bytes without a terminator, whatever more `keylen` tells. 1, or -1. */
int vorn_sq_keygen(char *key, int keylen);
int vorn_gq_keygen(char *key, int keylen);

/* The keys that `key` selects, as the server understands it, or with null all. The list is a snapshot,
 * sorted, owned by the caller, and freed with vorn_keylist_free. Null with tperrno; that there are none is an
 * error (TPESYSTEM, unless the server gives another). The same key on two nodes is there twice. Null with
 * tperrno 0: every node has refused. */
char *vorn_sq_getkeylist(char *key, int keylen);
char *vorn_gq_getkeylist(char *key, int keylen);

/* How many keys a list has, or -1 with TPEINVAL (null) or TPEBADDESC (no list; but a block whose header
 * counts rows passes for one). */
int vorn_keylist_count(char *list);
/* Tells of one key, counted from 0; it takes time in proportion to `index`. 1, or -1 with TPEINVAL (null, a
 * negative index), TPEBADDESC (no list), TPELIMIT (beyond the last one). */
int vorn_keylist_getakey(char *list, int index, vorn_key *result);
/* 1, or -1 with TPEINVAL (null) or TPEBADDESC (no list). */
int vorn_keylist_free(char *list);

#ifdef __cplusplus
}
#endif
#endif
