// Operations on field buffers as a whole. The calls are in vorn/fields.h.
#ifndef VORN_FIELDS_FBBUFOP_H
#define VORN_FIELDS_FBBUFOP_H

#include "fields/fbcommon.h"

extern "C" {

// The entries of a buffer, in its order; one with key 0 ends the list. The entries stay in the buffer.
struct flist_item {
    int32_t key;      // without the read mark
    int32_t checked;  // 1 once the item has a partner
    char *entry;
};
static_assert(sizeof(flist_item) == 16);

// The caller frees it; null without memory. Entries of key 0 have no item.
flist_item *_make_flist(FBUF *fbuf);

// Pairs `other` with the first item of the list that has its key and no partner yet: that one takes over the
// entry. Its index, or -1.
int _update_unchecked(flist_item *list, flist_item *other);

// An empty field buffer with room for `size` bytes at least; tpfree ends it. Null with FBEMALLOC.
FBUF *new_temporary(int64_t size);
}

#endif
