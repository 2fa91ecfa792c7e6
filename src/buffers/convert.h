// Whole messages between their host and their wire form: what applications use that carry a message by
// themselves. tphton and tpntoh are in vorn/buffers.h.
#ifndef VORN_BUFFERS_CONVERT_H
#define VORN_BUFFERS_CONVERT_H

struct msg_header;

extern "C" {

// Convert the data of a message whose header stays in host order. The message itself if there is nothing to
// convert or it was done in place; a new block, and then `message` has been freed; null without memory, for
// an unknown struct or a bad entry: then `message` stands, though data converted in place is of no use any
// more.
msg_header *_vorn_encode_odata(msg_header *message);
msg_header *_vorn_decode_idata(msg_header *message);
}

#endif
