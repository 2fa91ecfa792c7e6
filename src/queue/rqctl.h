// The queue control record, which stands between the header and the data of some queue messages, and the
// control of a queue.
#ifndef VORN_QUEUE_RQCTL_H
#define VORN_QUEUE_RQCTL_H

#include "vorn/queue.h"

#include <stdint.h>

struct msg_header;

extern "C" {

constexpr int32_t RQCTL_SIZE = 168;
static_assert(sizeof(RQCTL_T) == RQCTL_SIZE);
constexpr int32_t RQCTL_MARK = INT32_MIN;  // in `target`: a control record stands in front of the data

// A copy of the message with the record behind its header, which tells so; without a record a plain copy. The
// caller's to free; null with TPEOS.
msg_header *_add_rqctl(const void *ctl, const msg_header *message);

// Turns the record behind the header to wire order, in place; always 1. There must be one, whatever the
// message's `datalen` says as yet.
int _hton_data_rqctl(msg_header *message);
}

#endif
