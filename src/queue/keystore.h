// The shared key store: the operations behind the calls of vorn/keystore.h.
//
// An operation is one message to the server, or in the domain's store (SQ_GLOBAL in the flags) one to each
// node. All of them clear tperrno, and fail with TPEPROTO without a session.
#ifndef VORN_QUEUE_KEYSTORE_H
#define VORN_QUEUE_KEYSTORE_H

#include <stdint.h>

struct msg_header;
struct wthr_var;

extern "C" {

// With this flag the identity stands for the client's whole node: all bits below the node number are set.
constexpr int SESSIONID_GLOBAL = 0x10000;
constexpr int SESSIONID_PLACE = 0x1fffff;  // the client's place on its node; the node number is above it
constexpr int SESSIONID_PLACE_BITS = 21;

// What a message of the key store asks for, in `rcode`.
enum sq_operation : int32_t {
    SQ_GET = 2,
    SQ_PUT = 3,
    SQ_PURGE = 4,
    SQ_COUNT = 5,
    SQ_KEYGEN = 6,
    SQ_KEYLIST = 8
};

int _get_sessionid(int flags, wthr_var *block);  // -1 with TPEPROTO without a session

int _sq_put(char *key, int keylen, char *data, long len, long flags, wthr_var *block);    // 1 or -1
int _sq_get(char *key, int keylen, char **data, long *len, long flags, wthr_var *block);  // 1 or -1
int _sq_count(long flags, wthr_var *block);
int _sq_purge(char *key, int keylen, long flags, wthr_var *block);
int _sq_keygen(char *key, int keylen, long flags, wthr_var *block);        // 1 or -1
char *_sq_getkeylist(char *key, int keylen, long flags, wthr_var *block);  // the caller's, in host order

// Sends the message to the nodes from 0 to `nodes` less 1, but for `leave_out`, and makes one reply of
// theirs: the first good one for a get or a purge of one key, the sum of counts, the merged key list. The
// message is used up, the reply the caller's. Null: none was good, or an error is in tperrno.
msg_header *_sq_broadcast(msg_header *message, int nodes, int leave_out, wthr_var *block);

// A key that the server made tells the number of the node that owns its entry.
int _vorn_sq_issyskey(const char *key, int keylen);               // 1 or 0
int _vorn_sq_getnodeno_from_syskey(const char *key, int keylen);  // -1 for another key
}

#endif
