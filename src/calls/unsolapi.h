// Unsolicited messages: the list of a context.
#ifndef VORN_CALLS_UNSOLAPI_H
#define VORN_CALLS_UNSOLAPI_H

#include <stdint.h>

struct msg_header;
struct wthr_var;

extern "C" {

// Values of unsol_mode.
constexpr int64_t UNSOL_MODE_HANDLER = 1, UNSOL_MODE_IGNORE = 2, UNSOL_MODE_QUEUE = 4;

struct unsol_node {
    int32_t kind;  // 1 post, 2 broadcast, 3 notify, 4 sent to the client, otherwise the message type itself
    msg_header *msg;
    unsol_node *next;
};

int _init_unsol(int free_all, wthr_var *block);  // 1; empties the list, freeing it if told to
}

#endif
