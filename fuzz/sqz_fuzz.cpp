// Compression. The input is taken once as a block from outside, and once as a message that has to come back
// whole from the room that the sender reckons.
#include "sqz.h"

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <vector>

constexpr int64_t MOST = 1 << 16;

// Rooms of every kind: none, short of the length that the head tells, exact, ample.
static void uncompress_hostile(const uint8_t *data, size_t size)
{
    int64_t told = 0;
    for (size_t i = 4; i < 8 && i < size; i++)
        told = told << 8 | data[i];
    for (int64_t room : {(int64_t)0, told - 1, told, MOST}) {
        if (room < 0 || room > MOST)
            continue;
        std::vector<uint8_t> message((size_t)room);
        int64_t length = room;
        if (_vorn_uncompress(message.data(), &length, data, (int64_t)size) == SQZ_OK ? length != told
                                                                                     : length != room)
            abort();
    }
}

static void round_trip(const uint8_t *data, size_t size)
{
    if (size < 136)
        return;
    int64_t n = (int64_t)size - 136, length = ((n + 148) >> 9) + 148 + n, back_length = (int64_t)size;
    std::vector<uint8_t> block((size_t)length), back(size);
    if (_vorn_compress(block.data(), &length, data, (int64_t)size) != SQZ_OK)
        abort();
    block.resize((size_t)length);
    block.shrink_to_fit();
    if (_vorn_uncompress(back.data(), &back_length, block.data(), length) != SQZ_OK)
        abort();
    if (back_length != (int64_t)size || memcmp(back.data(), data, size) != 0)
        abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    uncompress_hostile(data, size);
    round_trip(data, size);
    return 0;
}
