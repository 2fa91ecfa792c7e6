// Searches by key, and the cache of positions that shortens them.
//
// The n-th occurrence of a key is the n-th entry whose whole key word is that key: an entry with the read
// mark has left the count. A search walks from the first entry, or from where an earlier one for the same key
// ended. Those places stand in a direct-mapped table of the context, `fcache`: a miss costs a walk, nothing
// else. An append leaves them right; whatever moves entries must clear them.
//
// Threads of one context, and all threads without one, share the table without a lock: what two of them mix
// up in a slot is no place, and a place only counts if an entry of the key stands there. A buffer that went
// from a context to another may have places in both; only those of its present one, and of the fall-back
// block, are cleared.
#ifndef VORN_FIELDS_FBCOMMON2_H
#define VORN_FIELDS_FBCOMMON2_H

#include "fields/fbcommon.h"
#include "runtime/mthr.h"

struct fcache_slot {
    int32_t key;
    int32_t nth;
    int32_t offset;  // of the entry, from the first one
    uint32_t seal;   // of the other words and the buffer's generation
    FBUF *fbuf;      // null: free
};
static_assert(sizeof(fcache_slot) == 24);

extern "C" {

char *find_entry(wthr_var *block, FBUF *fbuf, int key, int nth);  // null: not there
int count_entries(wthr_var *block, FBUF *fbuf, int key);          // occurrences
void forget_buffer(wthr_var *block, const void *fbuf);            // what the cache holds of it
// A place of this key behind the entry, which has left the count of the key.
void forget_behind(wthr_var *block, FBUF *fbuf, int key, const char *entry);

// The same for the caller's block, by their exported names.
char *_find_matching_fldkey(FBUF *fbuf, int key, int nth);
int _clear_fcache(const void *fbuf);  // 1, or -1 without a cache
// Slot numbers, or -1: nothing that helps; not entered.
int _srch_fcache(FBUF *fbuf, int key, int nth, int *nth_out, int *offset_out);
int _upd_fcache(FBUF *fbuf, int key, int nth, int offset);

// The search of a cursor, which the cache knows nothing of. `*from` is an offset from the first entry.
char *_find_matching_fldkey_from(FBUF *fbuf, int key, int nth, int *from);
}

#endif
