#include "queue/rqctl.h"

#include "runtime/mthr.h"
#include "wire/msgheader.h"

#include <atomic>
#include <string.h>

extern "C" {

// The rest of the record is bytes.
struct rqctl_words {
    int32_t offset;
    int32_t step;  // 8: a long, of which the low half travels, in front of four zero bytes
    int32_t count;
};
static constexpr rqctl_words WORDS[] = {{0, 4, 4}, {112, 8, 4}, {144, 4, 5}};

int _hton_data_rqctl(msg_header *message)
{
    constexpr int32_t big_endian = 1;
    if (std::atomic_ref<int32_t>(_endian).load(std::memory_order_relaxed) == big_endian)
        return 1;
    for (const rqctl_words &words : WORDS) {
        char *at = message_data(message) + words.offset;
        for (int i = 0; i < words.count; i++, at += words.step) {
            uint32_t turned = get_word(at);
            memcpy(at, &turned, sizeof turned);
            memset(at + 4, 0, (size_t)words.step - 4);
        }
    }
    return 1;
}
}
