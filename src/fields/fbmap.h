// Records and field buffers: steps of the calls in vorn/structs.h.
#ifndef VORN_FIELDS_FBMAP_H
#define VORN_FIELDS_FBMAP_H

#include "fields/fbcommon.h"

extern "C" {

// Appends what the members in rows `first` to `last` of the field table hold, but for null values. A value
// that the buffer has no room for is missing. Always 1. The record is one of the struct of these rows.
int _vstof_concat(FBUF *fbuf, char *cstruct, int first, int last);

// Sets all members, or those of the name, to their null values. 1, or -1 with fberror: FBEBADSTRUCT,
// FBEINVAL.
int _vsinit(char *cstruct, char *member, char *name);
}

#endif
