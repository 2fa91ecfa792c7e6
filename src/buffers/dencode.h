// Wire form of struct and field data: big-endian, while memory and typed buffers are in host order. Data of
// all other kinds looks the same on both sides.
//
// The encoders give a new block, the decoders write where they are told. A trailer is no part of the data:
// the encoders copy it behind the encoded data as it stands, and count it.
#ifndef VORN_BUFFERS_DENCODE_H
#define VORN_BUFFERS_DENCODE_H

#include "wire/msgheader.h"

#include <stdint.h>

extern "C" {

// True for a message whose data looks different on the wire.
inline bool has_wire_form(const msg_header *message)
{
    constexpr uint32_t kinds = 1U << BUF_STRUCT | 1U << BUF_FIELD | 1U << BUF_RQ_STRUCT | 1U << BUF_RQ_FIELD;
    uint32_t kind = (uint32_t)message->buftype;
    return message->datalen != 0 && kind < 32 && (kinds >> kind & 1) != 0;
}

// A new block of at least `*outlen` + 200 bytes, with the encoded data behind an unset header, owned by the
// caller; null without memory, for a bad entry or an unknown struct. tperrno isn't set.
char *_hton_data_fdl(msg_header *message, int *outlen);
char *_hton_data_sdl(msg_header *message, int *outlen);

// Decode the data at `from`, of which `datalen` of the message tells the length, to `to`, which may be the
// same place; else they don't overlap. `to`, or null for a bad entry, an unknown struct, or without memory.
// Then what stands at `to` is of no use.
//
// Fields keep their length. Of structs `datalen` / wire size records are decoded, and `*outlen` takes the
// length of that many records of the host: the room that must be at `to`.
char *_ntoh_data_fdl(msg_header *message, char *from, char *to);
char *_ntoh_data_sdl(msg_header *message, char *from, char *to, int *outlen);
}

#endif
