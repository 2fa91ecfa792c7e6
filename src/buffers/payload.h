// How many bytes of a typed buffer leave, and whether a received message may take a caller's buffer.
#ifndef VORN_BUFFERS_PAYLOAD_H
#define VORN_BUFFERS_PAYLOAD_H

#include <stdint.h>

struct msg_header;
struct wthr_var;

extern "C" {

// A caller's length as an int: one that no int holds is too long, or too short, for any buffer.
inline int buffer_length(long len)
{
    return len > INT32_MAX ? INT32_MAX : len < INT32_MIN ? INT32_MIN : (int)len;
}

int _data_itype_check(char *data, int len, wthr_var *block);  // bytes to send, or -1 with tperrno set

// 1, or -1 with tperrno set. The first only checks the type. The second also grows the stored message to the
// size of the user's buffer (*stored may move). The third makes the user's buffer large enough for the
// message (*user may be freed and replaced).
int _data_otype_check_no_alloc(const msg_header *message, const msg_header *user, wthr_var *block);
int _data_otype_check2(msg_header **stored, const msg_header *user, wthr_var *block);
int _data_otype_check(const msg_header *message, msg_header **user, wthr_var *block);
}

#endif
