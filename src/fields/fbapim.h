// Values into and out of entries: what the writing and reading calls share. The calls are in vorn/fields.h.
#ifndef VORN_FIELDS_FBAPIM_H
#define VORN_FIELDS_FBAPIM_H

#include "fields/fbcommon.h"

struct wthr_var;

extern "C" {

// Writes key and value at `position`; the caller has seen to it that there is room. With `wide_long` the
// value of a long has 8 bytes at `value`, else 4. 1, or -1 with fberror: FBEINVAL (a carray without a
// length), FBETYPE.
int _put_fld_to_fbuf(char *position, int key, const char *value, int len, int wide_long);

// fbput for a value that stands in another field buffer, where a long has 4 bytes.
int _fbput(FBUF *fbuf, int key, char *value, int len);

// Delivers the value of an entry, as FDL_LEN demands; `*len` as told at fbget. 1, or -1 with fberror.
int _get_fbval_to_usrloc(const char *entry, char *value, int *len);

// Delivers `length` bytes (and a NUL, for text) by the rule of FDL_LEN. `*given` is the room, 0 for enough,
// and becomes the length delivered, or the one needed. `value` may be null. 1, or -1 with FBENOSPACE.
int deliver_text(char *value, const char *text, int length, int *given);
int deliver_bytes(char *value, const char *bytes, int length, int *given);

// Marks the entry as read: it leaves the count of its key.
void mark_as_read(wthr_var *block, FBUF *fbuf, char *entry);
}

#endif
