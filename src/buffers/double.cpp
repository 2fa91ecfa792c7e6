#include "buffers/double.h"

#include "session/cliapi.h"

extern "C" {

bool wire_turns_whole(void)
{
    if (std::atomic_ref<int32_t>(_endian).load(std::memory_order_relaxed) == 0)
        check_node_once();
    return doubles_turn_whole();
}

int _double_encode(const void *from, void *to)
{
    turn_double((const char *)from, (char *)to, doubles_turn_whole());
    return 1;
}

// Turning is its own inverse.
int _double_decode(const void *from, void *to)
{
    turn_double((const char *)from, (char *)to, doubles_turn_whole());
    return 1;
}
}
