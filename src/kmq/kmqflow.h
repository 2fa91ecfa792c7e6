// Traffic of the message service: sending, receiving one message at a time, acknowledging. The calls are in
// vorn/kmq.h; what the receive path calls stands in kmqapi.h.
#ifndef VORN_KMQ_KMQFLOW_H
#define VORN_KMQ_KMQFLOW_H

#include "kmq/kmqapi.h"

extern "C" {

// Asks for the consumer's next message; `want`, with which it will be awaited, takes the request's flags. No
// reply comes, but some time a message. 1, or -1 with tperrno set.
int _send_getnext_msg(kmq_consumer *consumer, msg_header *want, wthr_var *block);

// Acknowledges (0x20) or refuses (0x40) a message; one way. 1, or -1 with tperrno set.
int _send_ack_msg(char *msg, int kind, wthr_var *block);
}

#endif
