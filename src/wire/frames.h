// Frames of the stream: the first 32-bit word, big-endian, tells them apart.
#ifndef VORN_WIRE_FRAMES_H
#define VORN_WIRE_FRAMES_H

#include <stdint.h>

struct msg_header;
struct wthr_var;

extern "C" {

// Raw data: length at 4, that many bytes from 8.
constexpr uint32_t FRAME_RAW = 6666;
constexpr int RAW_FRAME_HEAD = 8;

// Compressed message: length of the compressed bytes at 4; in a frame of ours the message's size at 8 and 0
// at 12, in a frame of the server's the message's size at 12; the compressed bytes from 16. The size counts
// the header.
constexpr uint32_t FRAME_COMPRESSED = 99999999;
constexpr int COMPRESSED_FRAME_HEAD = 16;

// Envelope: length at 4, buftype at 8, msgtype at 12, that many bytes from 16.
constexpr uint32_t FRAME_ENVELOPE = 77777777;
constexpr int ENVELOPE_FRAME_HEAD = 16;

// Anything else is a plain header and its data. All frames have at least these bytes.
constexpr int SHORTEST_FRAME_HEAD = 8;

enum frame_result {
    FRAME_MESSAGE,      // a message in host order
    FRAME_IN_PLACE,     // the same, and it stands in the block of `want` already
    FRAME_NEGOTIATION,  // a step of the negotiation, handed up uncut
    FRAME_FAILED,       // tperrno is set
    FRAME_OLD_SOCKET    // the previous socket of a rolling start has ended; read on
};

// Reads one frame. A stall inside it may last `stall_seconds` (0: no limit). The message is a block with room
// for its data and a trailer; the caller owns it. Takes no lock. For the thread with the reader role: it may
// read ahead. A long reply to `want` (null: none is awaited) is read into its block without a copy; if the
// stream ends inside it, that block's data is partly the reply's, and its header is as it was.
frame_result read_frame(int fd, int stall_seconds, msg_header *want, msg_header **message, wthr_var *block);

// The same for the thread that opens `new_clhfd`, beside the one that has the role: it reads the first bytes
// from `head_fd` and the rest from `body_fd`, and never more than the frame. `stall_seconds` is for the whole
// of it.
frame_result read_frame_alone(int head_fd, int body_fd, int stall_seconds, msg_header **message,
                              wthr_var *block);
}

#endif
