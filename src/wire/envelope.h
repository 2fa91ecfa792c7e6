// Enciphered sessions. They are not available yet: this is the one place where a session that asks for them
// (CRYPT_SW) ends.
#ifndef VORN_WIRE_ENVELOPE_H
#define VORN_WIRE_ENVELOPE_H

struct msg_header;
struct wthr_var;

extern "C" {

int _vorn_negotiate(wthr_var *block);                         // 1, or -1 with tperrno set
int _crypt_noenc_send(msg_header *message, wthr_var *block);  // 1 or -1; a message in wire order
int _crypt_enc_send(msg_header *message, int datalen, wthr_var *block);
}

#endif
