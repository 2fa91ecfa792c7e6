/* Records and field buffers: filling a C struct from a field buffer, and the way back.
 *
 * The shape of a struct comes from the definition files that SDLFILE64 or SDLFILE name (sdlc makes them);
 * they are loaded by the first tpalloc, tpstart or tpinit, and before that every struct is unknown. The
 * definition gives each member a field key and a null value. An element that holds its null value stands for
 * a field that isn't there, so positions in an array don't survive the way through a field buffer: {5, 0, 7}
 * with a null value of 0 becomes two occurrences.
 *
 * `cstruct` is a record of the struct's size, at any alignment. `name` is the struct's name, of which 16
 * characters count. Members that are structs themselves take no part. If the key's type isn't the member's,
 * the value is converted (fbgetvalt and fbputt in vorn/fields.h). 1 or -1 with fberror: FBEBADSTRUCT for an
 * unknown struct, FBEINVAL for a null buffer or record. */
#ifndef VORN_STRUCTS_H
#define VORN_STRUCTS_H

#include "vorn/fields.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Fills the record from the buffer: element i of a member gets the i-th occurrence of its key that has no
 * read mark, or the null value if there is none. A string is cut to the element, which then has no NUL, or
 * padded with NULs; of a carray key the bytes are copied, and what is behind them in the element stays. The
 * buffer isn't changed. After success fberror may be FBENOENT: the last element asked for wasn't there. */
int fbftos(FBUF *fbuf, char *cstruct, char *name);

/* Puts the elements that don't hold their null value into the buffer. `mode` is FB_CONCAT (appends them; a
 * field without room is missing, and the call still gives 1), or FB_JOIN, FB_OUTER_JOIN, FB_UPDATE, with the
 * record's fields in the place of `src` at fbbufop. A carray element is put whole, a string up to its NUL or
 * the element's end. -1 also: FBEINVAL (another mode), FBENOSPACE, FBEMALLOC; the buffer then stands. */
int fbstof(FBUF *fbuf, char *cstruct, int mode, char *name);

/* Is an element zero? (Zero, not the null value of the definition.) For strings and carrays `occ` counts
 * bytes, not elements, and that one byte is looked at. 1 if it is, 0 if not; -1 with fberror 0 for a member
 * that the struct doesn't have, or that is a struct; -1 with FBEBADSTRUCT for an `occ` above the member's
 * count or in front of the record. `occ` equal to the count looks at what follows the member in the record;
 * 1 where the record ends. */
int fbsnull(char *cstruct, char *member, int occ, char *name);

/* Sets all members to their null values; or one of them, where an unknown name does nothing and gives 1. In
 * strings and carrays only the text of the null value and its NUL are written, to each element. */
int fbstinit(char *cstruct, char *name);                 /* sets all members */
int fbstelinit(char *cstruct, char *member, char *name); /* sets one member */

#ifdef __cplusplus
}
#endif
#endif
