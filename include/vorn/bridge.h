/* Records and field buffers as plain text, for programs that have nothing but text.
 *
 * A value escapes nothing, so a text can't hold the bytes that separate values. Input texts are written to
 * while a call works on them and are again as they were when it returns; they must not be constants, and no
 * other thread may read them meanwhile. 1, or -1.
 *
 * Structs have to be loaded (vorn/structs.h); 16 characters of `name` count. The text of a record is its
 * values in the order of the members: one value for each number, one for each element of a char, string or
 * carray. A struct that nests others has no text.
 *
 * Two names of the field table have a role: "TP_BITMAP" is a field that holds a file's contents, "NEWFILE" a
 * string field with the path of the file that TP_BITMAP is written to. Their paths, and that of FILENAM
 * below, have 99 characters at most. */
#ifndef VORN_BRIDGE_H
#define VORN_BRIDGE_H

#include "vorn/fields.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Fills the records that fit in `outlen` bytes from values that are each ended by a tab or a newline. Values
 * that the text doesn't have count as empty: 0. A text and its NUL must fit its element. -1: an unknown
 * struct, a member that has no text, or a text that is too long; what stood in front of it has been filled.
 * fberror isn't used. */
int _make_struct_from_pbindata(char *name, char *out, int outlen, char *text);

/* Puts lines of a field name, a tab, a value and a newline into the buffer, with the value converted to the
 * field's type. A carriage return takes the byte behind it into the value, so only a bare newline ends a
 * line. The text ends at an empty line. Under the name "FILENAM" the value is a path, and the file's contents
 * become TP_BITMAP; for more than 4 MiB the buffer is made larger first, and *fbuf may be another one then,
 * also after -1. A path that a stranger chose can name a pipe, on which the call waits. Lines in front of one
 * that fails have been put. -1 with fberror: FBENOENT (no such field), FBEINVAL (null or empty), FBENOSPACE,
 * FBESYSTEM (no memory for a file); with fberror 0 a file that can't be read, or, with TPESYSTEM or TPEOS in
 * tperrno, no memory for it or for the buffer. The call doesn't clear tperrno: who wants to tell them apart
 * does so before. */
int _make_field_from_pbindata(FBUF **fbuf, char *text);

/* Writes the records that `len` bytes at `data` hold: values with a tab between them, CR LF behind each
 * record, and 0x7F at the end, with no NUL. `out` must have room for all of it: its size isn't checked. A
 * value takes its characters (a number up to 20, a float or double up to 317, a char, string or carray its
 * element) and a byte; add two for each record, and one for the end. -1: an unknown struct, or a member
 * without text. */
int _make_pbodata_from_struct(char *name, char *out, int len, char *data);

/* Writes fields in rows. `form` is a list of field names, each ended by a newline: the columns. An empty line
 * ends a block of columns, which has rows of its own; a last block of one name needs it, or has no rows. Row
 * n holds occurrence n of each column, as text, with a tab between them and CR LF behind; an absent one is
 * empty. A block ends at the row that would be empty, with 0x7F, in front of which there is a newline if the
 * block has no rows; a newline and a NUL end the text. A TP_BITMAP goes to the file NEWFILE, a later
 * occurrence over an earlier one, and is empty in its row. `out` must have room for all of it: its size isn't
 * checked. A value takes its characters (a number up to 20, a float or double up to 317); add a byte for each
 * column of each row, one for each row, two for each block, and two for the end. -1 with fberror:
 * FBENOENT (a name of the form), FBEINVAL (null; the file can't be opened), FBEOS (it can't be written),
 * FBEMALLOC; also if there is a NEWFILE that is empty, or a path too long (FBEINVAL). After success fberror
 * may be FBENOENT. */
int _make_pbodata_from_field(char *form, char *out, FBUF *fbuf);

/* The same to a file, which replaces an earlier one, but only when all rows could be made; its path may be of
 * any length. TP_BITMAP has no role here; a block ends with a newline alone, and no NUL is written. A value
 * that can't be had as text ends its column. */
int _make_pbfodata_from_field(char *form, char *path, FBUF *fbuf);

#ifdef __cplusplus
}
#endif
#endif
