// Field buffers: the head that an empty one has, and the lookup cache. There is no cache yet, so there is
// nothing to clear.
#ifndef VORN_FIELDS_FBCOMMON_H
#define VORN_FIELDS_FBCOMMON_H

#include <stdint.h>

extern "C" {

constexpr uint32_t FIELD_BUFFER_MAGIC = 8888;
struct fb_head {
    uint32_t magic;
    int32_t used;  // head included
};
static_assert(sizeof(fb_head) == 8);

void init_field_buffer(char *data);  // an empty field buffer
int _clear_fcache(char *fbuf);       // 1, or -1 without a cache
}

#endif
