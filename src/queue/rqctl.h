// The queue control record, which stands between the header and the data of some queue messages.
#ifndef VORN_QUEUE_RQCTL_H
#define VORN_QUEUE_RQCTL_H

#include <stdint.h>

struct msg_header;

extern "C" {

constexpr int32_t RQCTL_SIZE = 168;

// Turns the record behind the header to wire order, in place; always 1. There must be one, whatever the
// message's `datalen` says as yet.
int _hton_data_rqctl(msg_header *message);
}

#endif
