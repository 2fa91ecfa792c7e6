// Enciphered sessions: the exchange of keys at the start, and the envelope in which every message travels
// from then on. The cipher itself is libkexcli's.
#ifndef VORN_WIRE_ENVELOPE_H
#define VORN_WIRE_ENVELOPE_H

#include <stdint.h>

struct msg_header;
struct wthr_var;

extern "C" {

// Exchanges keys over `clhfd`, which becomes an enciphered session. On the thread that starts the session.
// 1, or -1 with tperrno set.
int _vorn_negotiate(wthr_var *block);

// Send a message in wire order inside an envelope over `clhfd`; the first also sends steps of the exchange,
// as they stand, and writes over the last 16 bytes of their header. 1 or -1; a write that fails comes to
// light in the second with the next read only. Expect msg_mutex.
int _crypt_noenc_send(msg_header *message, wthr_var *block);
int _crypt_enc_send(msg_header *message, int datalen, wthr_var *block);

// Reads the payload of an envelope of which `message` bears buftype, msgtype, and in `datalen` the length,
// and deciphers it. The message in host order: `message` itself, or a new block in place of it. Null with
// tperrno set, or with it unchanged where the payload isn't the peer's next message.
msg_header *_read_crypt_data(msg_header *message, wthr_var *block);

// Deciphers a payload; the length of the message, below that of a header if it isn't the peer's next one. For
// the thread with the reader role.
int decipher(void *to, const void *payload, int length, wthr_var *block);

// Ends the cipher's session and wipes its keys, once no thread enciphers or deciphers. A signal handler that
// meets one which does leaves it for the next close.
void end_cipher(wthr_var *block);
}

#endif
