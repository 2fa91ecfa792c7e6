// The trailer: an optional area of at most 64 bytes at the end of a message's data, inside `datalen`. It is a
// run of entries, each a type byte, a length byte (both read as signed) and that many bytes. `xflags` tells
// of it: XFLAG_TRAILER and the total length in the low 8 bits, or XFLAG_TRAILER_ROOM for a block with a free
// room.
#ifndef VORN_WIRE_TRAILER_H
#define VORN_WIRE_TRAILER_H

struct msg_header;

extern "C" {

int _vorn_add_trailer(msg_header *message, const char *data, int type, int length);  // 1 or -1
// 1 if found, 0 if not. `*length` holds the room at `destination` and takes the content's length, 0 if it
// didn't fit. The second form also takes the entry out.
int _vorn_find_trailer(msg_header *message, char *destination, int type, int *length);
int _vorn_del_trailer(msg_header *message, char *destination, int type, int *length);

// Hooks of the two paths; they give their argument back.
msg_header *_cs_add_trailer(msg_header *message);
msg_header *_cs_del_trailer(msg_header *message);
}

#endif
