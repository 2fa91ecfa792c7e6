// Message objects: field buffers with a body, properties of the user's, and those that the header tells. The
// calls are in vorn/kmq.h.
#ifndef VORN_KMQ_KMQMSG_H
#define VORN_KMQ_KMQMSG_H

#include <stdint.h>

struct wthr_var;

extern "C" {

// The names that no application sets.
constexpr int32_t RESERVED_NAMES = 10;
extern int32_t rsvd_count;
extern const char *rsvd_property[RESERVED_NAMES];

// A name and its value are two entries, one behind the other: a name stands at an even place, its value at
// the odd one behind it. So a string's value, which has the key of a name, isn't taken for one.
constexpr int32_t BODY_NAME_KEY = 0x1C000000, BODY_KEY = 0x20000000, PROPERTY_NAME_KEY = 0x1C000001;

int _calc_msgsize(int size);  // with five percent more
// The entry of a name, or null. Not for a null message.
char *_search_by_name(char *msg, int key, const char *name);
// A property that the header tells: 1, -1 with tperrno set, or 0 for another name.
int _get_property_from_header(char *msg, const char *name, int *type, void *value, long *len,
                              wthr_var *block);
int _set_property(char *msg, const char *name, int type, const char *value, long len);  // 1, or -1: no room
// Writes a value over the entry at `position`. A text or a row of bytes gets the room that it needs; any
// other type is written over what is there, whose rest stays. 1, or -1 with fberror set.
int _update_value(char *msg, int key, const char *value, long len, char *position);
}

#endif
