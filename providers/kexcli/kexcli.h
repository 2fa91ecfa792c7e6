/* libkexcli: the key exchange at the start of an enciphered session, and the cipher of its messages.
 *
 * It reads and writes no socket: the caller carries the bytes. The bytes, and what the exchange protects
 * against and what not, are told in FORMAT.md. A site can replace the library by another with these five
 * names, on both ends of the connection.
 *
 * Threads: _dh_encrypt on one thread and _dh_decrypt on another may run on one handle at the same time. Two
 * threads that encipher (or two that decipher) on one handle have to take turns, since the messages of a
 * direction have an order. _dh_negotiate and _dh_close_sess want the handle for themselves.
 */
#ifndef VORN_KEXCLI_H
#define VORN_KEXCLI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The mode of _dh_init_sess: which side of the exchange this is. */
#define KEXCLI_MODE_CLIENT 0
#define KEXCLI_MODE_SERVER 1

/* Results of _dh_negotiate; every other value is a failure. */
#define KEXCLI_FINISHED 0  /* the keys stand, nothing to send */
#define KEXCLI_RECEIVE 1   /* nothing to send; receive the peer's bytes and call again */
#define KEXCLI_EXCHANGE 2  /* send the output, receive the peer's bytes and call again */
#define KEXCLI_SEND_LAST 3 /* the keys stand; send the output */
#define KEXCLI_FAILURE (-1)

/* Limits, in bytes. */
#define KEXCLI_MAX_OUTPUT 260   /* _dh_negotiate never writes more */
#define KEXCLI_MAX_OVERHEAD 512 /* the destination of _dh_encrypt has the source's length and this */

/* The environment variables, read by each _dh_init_sess of their side. Either names a key file, whose text is
 * told in FORMAT.md; `clhsim --keygen` makes both halves.
 *
 * Client: with KEXCLI_PEER_KEY, the file with the public key of the server, only the server that has the
 * private half is spoken with. Without the variable the server proves nothing, and somebody who answers in
 * its place isn't noticed.
 *
 * Server: with KEXCLI_OWN_KEY, the file with its private key (on which nobody but the owner may have
 * rights), it can give that proof. Without the variable it refuses clients that ask for one. Clients that
 * don't ask are answered either way.
 */
#define KEXCLI_PEER_KEY "KEXCLI_PEER_KEY"
#define KEXCLI_OWN_KEY "KEXCLI_OWN_KEY"

/* A new session, or null: an unknown mode, no memory, no entropy, or the variable of this side is set and
 * doesn't name a good key file (an empty name is none). `fd` is the connection that the session is for; it is
 * not touched. The handle belongs to the caller, who ends it with _dh_close_sess.
 */
void *_dh_init_sess(int mode, int fd);

/* One step of the exchange. `in` are the bytes that the peer's last step gave, all of them; none (`in_len` 0,
 * `in` may be null) in the first step of a side that has received nothing yet. `out` has room for
 * KEXCLI_MAX_OUTPUT bytes; *out_len is only written: the length of the output, 0 if there is none. Returns
 * one of the results above. After a failure the handle is good for _dh_close_sess only.
 *
 * The client's steps give 2 and 3. The server's give 2 and 0, and 1 for a first step without input.
 */
int _dh_negotiate(void *handle, const void *in, int in_len, void *out, int32_t *out_len);

/* Enciphers the next message of this side: `length` bytes, at least 1, from `source` into `destination`,
 * which has room for KEXCLI_MAX_OVERHEAD bytes more and must not overlap the source. Returns the length of
 * the result, or -1: a null handle, an unfinished exchange, an empty message, or the last message number
 * used up; the connection then needs a new session.
 */
int _dh_encrypt(void *handle, void *destination, const void *source, int length);

/* Deciphers the peer's next message. `destination` has room for `length` bytes at least and must not overlap
 * the source; no more than that is written. Returns the length of the message, or 0 for anything else than
 * the peer's next message as it left it (changed, cut, lengthened, repeated, out of its order, one's own), a
 * null handle or an unfinished exchange: a failure is 0 and not negative because callers compare the result
 * as an unsigned number. A refused message leaves nothing in the destination and the session as it was.
 */
int _dh_decrypt(void *handle, void *destination, const void *source, int length);

/* Ends the session: wipes the keys and frees the handle. A null handle is ignored. */
void _dh_close_sess(void *handle);

#ifdef __cplusplus
}
#endif

#endif
