// Key lists: what the key store tells of its keys, as a message. The calls are in vorn/keystore.h.
//
// `target` counts the rows, of three words each: the key's length, a second word that counts key and value,
// and a word of the server's. Behind the rows stand the keys, sorted as _sq_key_compare tells, without
// anything between them. The rows are in wire order until the list goes to the application.
#ifndef VORN_QUEUE_KEYLIST_H
#define VORN_QUEUE_KEYLIST_H

struct msg_header;

extern "C" {

// False if rows and keys can't be what `target` and `datalen` tell. Who walks a list has asked first.
bool is_key_list(const msg_header *message);
void turn_key_rows(msg_header *list);  // of a checked list, to host order

// One sorted list of two, both in wire order; of equal keys that of `a` comes first. `a` is freed, also on
// failure, `b` stays the caller's. Null with TPEOS, or TPESYSTEM for what is no list.
msg_header *_sq_keylist_merge(msg_header *a, const msg_header *b);

int _sq_key_compare(const char *a, int alen, const char *b, int blen);  // -1, 0, 1; bytes are signed
}

#endif
