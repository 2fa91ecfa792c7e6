// Doubles on the wire.
#ifndef VORN_BUFFERS_DOUBLE_H
#define VORN_BUFFERS_DOUBLE_H

#include "runtime/mthr.h"

#include <atomic>
#include <stdint.h>
#include <string.h>

extern "C" {

constexpr int32_t ENDIAN_LITTLE = 2;

// True on a host that keeps the low word of a double first.
inline bool doubles_turn_whole(void)
{
    return std::atomic_ref<int32_t>(_endian).load(std::memory_order_relaxed) == ENDIAN_LITTLE;
}

// The same for data that goes to the wire, which may be the first thing that a process does with the library:
// the host's kind is told then, if nobody has done so.
bool wire_turns_whole(void);

// Turns the 8 bytes as a whole, or the bytes of each half in its place. Both addresses may be the same.
inline void turn_double(const char *from, char *to, bool whole)
{
    uint64_t bits;
    memcpy(&bits, from, sizeof bits);
    bits = __builtin_bswap64(bits);
    if (!whole)
        bits = bits << 32 | bits >> 32;
    memcpy(to, &bits, sizeof bits);
}

// The same by their exported names, as the host's byte order asks. Always 1.
int _double_encode(const void *from, void *to);
int _double_decode(const void *from, void *to);
}

#endif
