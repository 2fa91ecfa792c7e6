#include "kmq/kmqapi.h"

#include "runtime/mthr.h"

#include <stdlib.h>

extern "C" {

int _close_session_notify(int waiter_id, int closed_id, wthr_var *block)
{
    (void)waiter_id, (void)closed_id, (void)block;
    return 0;
}

int _save_in_consumer_buffer(msg_header *message, wthr_var *block)
{
    (void)block;
    free(message);
    return -1;
}

void close_kmq_sessions(wthr_var *block)
{
    block->kmq_sessions = nullptr;
    block->kmq_session_count = 0;
}
}
