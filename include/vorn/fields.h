/* Field buffers: self-describing records of typed values, each under a key.
 *
 * A field buffer is a typed buffer ("FIELD", vorn/buffers.h) and travels in calls like any other. A key is a
 * number that holds the type of its values; names for keys come from field tables that fdlc makes (vorn's
 * field table compiler) and that FDLFILE names. A key may occur several times: its occurrences count from 0,
 * in the order in which they stand in the buffer, and new values go to the buffer's end.
 *
 * Two families read. fbget, fbgetf and fbgetc consume: they put a read mark on the value that they
 * deliver, and a value with a mark is no longer an occurrence for any call that counts. The calls whose
 * names end in _tu, fbgetval and the rest only look.
 *
 * A value is handed over at its natural width: char 1 byte, short 2, int and float 4, long and double 8, a
 * string with its NUL, a byte array (carray) with its length. A long keeps 32 bits in the buffer, so a
 * negative one comes back as a large positive number.
 *
 * Calls that fail leave the reason in fberror (vorn/errors.h), which each call clears at its start. A null
 * buffer is FBEINVAL everywhere. No call tests that what it is given is a field buffer, unless it says so.
 * A buffer is used by one thread at a time. No session is needed. */
#ifndef VORN_FIELDS_H
#define VORN_FIELDS_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct fbuf FBUF; /* what fballoc, or tpalloc("FIELD", ...), gives */

/* Types of fields: the top 6 bits of a key, and the `type` of the converting calls. */
#define FB_CHAR 1   /* 1 byte */
#define FB_SHORT 2  /* 2 bytes */
#define FB_INT 3    /* 4 bytes */
#define FB_LONG 4   /* 8 bytes, of which the buffer keeps 4 */
#define FB_FLOAT 5  /* 4 bytes */
#define FB_DOUBLE 6 /* 8 bytes */
#define FB_STRING 7 /* text with a NUL */
#define FB_CARRAY 8 /* bytes with a length */

/* --- Buffers. */

/* 1 if the buffer has the mark of a field buffer, else 0 (also for null). */
int fbisfbuf(FBUF *fbuf);

/* Bytes that a buffer for `count` fields with `datalen` bytes of values takes, at 8 bytes a field: doubles
 * and long values need more, and `datalen` has to allow for them. */
long fbcalcsize(int count, int datalen);

/* Empties the buffer, and zeroes all of it. 1, or -1: FBENOSPACE (`size` is above its capacity). */
int fbinit(FBUF *fbuf, int size);

/* A new empty buffer of fbcalcsize(count, datalen) bytes and 8 more, 1032 at the least. It is the caller's;
 * fbfree or tpfree end it. Null: FBEMALLOC. */
FBUF *fballoc(int count, int datalen);

/* Ends a buffer. 1, or -1: FBEINVAL (null, unaligned, or no field buffer). */
int fbfree(FBUF *fbuf);

/* Makes the buffer larger or smaller, as tprealloc does; the old pointer is then gone. Null: FBEOS; the old
 * buffer then stands. A buffer may be cut below what it holds: its last fields are then lost. */
FBUF *fbrealloc(FBUF *fbuf, int count, int datalen);

/* Capacity in bytes, bytes in use (8 for an empty buffer), and the difference. -1: null buffer. */
long fbget_fbsize(FBUF *fbuf); /* capacity in bytes */
long fbget_used(FBUF *fbuf);   /* bytes in use */
long fbget_unused(FBUF *fbuf); /* bytes that are free */

/* --- Names and keys. The tables of FDLFILE (paths, separated by commas) are loaded by the first call that
 * needs them. */

/* The key of a name: 0 with FBENOENT if no table has it (null and "" are nobody's names); 0 with fberror 0 if
 * the tables can't be loaded (the log says why), and the next call tries again. An FDLFILE that is empty
 * loads no tables: every name is then unknown. */
int fbget_fldkey(char *name);

/* The name of a key, in the table itself: it must not be changed, and is gone after fbkeynm_unload. Null
 * where fbget_fldkey gives 0. */
char *fbget_fldname(int key);

/* Parts of a key, and the key of its parts. Nothing is checked, and fberror stays as it is. */
int fbget_fldno(int key);                /* number of a key: its low 24 bits */
int fbget_fldtype(int key);              /* type of a key: its top 6 bits */
int fbmake_fldkey(int type, int number); /* key of a type and a number */

/* The type of a key: "char", "short", "int", "long", "float", "double", "string", "carray"; "" for other
 * types. A constant: it must not be changed. fberror stays as it is. */
char *fbget_strfldtype(int key);

/* Both unload the tables, so that the next call loads them anew, from what FDLFILE then says. No other thread
 * may be translating. */
void fbkeynm_unload(void);
void fbnmkey_unload(void);

/* --- Writing. `len` counts for a carray only, and must be 1 at least there. -1: FBEINVAL (also for a value
 * that is null), FBENOSPACE (no room), FBETYPE (the key has no known type). */

/* Appends an occurrence. 1 or -1. */
int fbput(FBUF *fbuf, int key, char *value, int len);

/* Inserts an occurrence in front of the one that is `nth` now. If there are fewer, zero or empty values come
 * before it up to that number, at the end of the buffer; these stay if the room then runs out. A carray
 * can't be padded so: FBEINVAL. 1 or -1. */
int fbinsert(FBUF *fbuf, int key, int nth, char *value, int len);

/* Replaces an occurrence, where it stands. 1, or -1: also FBENOENT. After a carray with `len` below 1 the
 * field has the new size and its old length word. */
int fbupdate(FBUF *fbuf, int key, int nth, char *value, int len);

/* Deletes an occurrence. 1, or -1 with FBENOENT. */
int fbdelete(FBUF *fbuf, int key, int nth);

/* Deletes all occurrences of a key. Their number, or -1 with FBENOENT. */
int fbdelall(FBUF *fbuf, int key);

/* --- Reading. `*len` is the room at `value`, 0 for enough, and becomes the length of the value; for numbers
 * it isn't touched. Whether the room counts depends on the switch FDL_LEN of VORN_SEMANTICS: with TRU longer
 * values are cut to it, with ERR they fail with FBENOSPACE, otherwise they are delivered whole. The length of
 * a string includes its NUL. `len` may be null. With a null `value` nothing is delivered but the length. */

/* Delivers the first unread occurrence, and marks it as read. 1, or -1: FBENOENT (no unread one),
 * FBENOSPACE, FBETYPE. */
int fbget(FBUF *fbuf, int key, char *value, int *len);

/* The same with a cursor: `*from` is 0 before the first call, and is moved on. It saves the search from the
 * buffer's start. */
int fbgetf(FBUF *fbuf, int key, char *value, int *len, int *from);

/* The same, delivered as `type`. */
int fbgetc(FBUF *fbuf, int key, char *value, int *len, int *from, int type);

/* Address of an occurrence's value inside the buffer, valid until the buffer changes, with its length
 * (without the NUL of a string; `len` may be null). A long has 4 bytes there. Null: FBENOENT. */
char *fbgetval(FBUF *fbuf, int key, int nth, int *len);

/* An occurrence as a string, and as an int: fbgetvalt with the types FB_STRING and FB_INT. Null, and 0, on
 * failure. */
char *fbgetvals(FBUF *fbuf, int key, int nth); /* an occurrence as a string */
int fbgetvali(FBUF *fbuf, int key, int nth);   /* an occurrence as an int */

/* The first occurrence that has this value (natural width, `len` for a carray), counted from 0; -1 with
 * fberror 0 if there is none. */
int fbgetnth(FBUF *fbuf, int key, char *value, int len);

int fbkeyoccur(FBUF *fbuf, int key);        /* number of unread occurrences, or -1 */
int fbgetlen(FBUF *fbuf, int key, int nth); /* length of an occurrence, as fbgetval's; -1: FBENOENT */
int fbfldcount(FBUF *fbuf);                 /* fields in the buffer, read or not; 0 for a null buffer */
int fbispres(FBUF *fbuf, int key, int nth); /* 1 if the occurrence exists, 0 if not, -1: null buffer */

/* --- Conversion. `type` is the type that the caller has or wants; any of the eight goes to any other.
 * Numbers are cut to the width they go to, text that is no number is 0: neither is an error. -1 or null:
 * FBEBADFLD (unknown type wanted), FBETYPE (unknown type given), FBEINVAL (a carray with `len` below 1),
 * FBENOSPACE (no memory for the text). */

/* The value, `len` bytes of it for a carray, as `to_type`. `*outlen` becomes the result's length (a string's
 * with its NUL) and may be null. The result stands in the context, or is `value` itself (text to text): it is
 * valid until the context's next conversion, by whatever call. Threads that share a context, or that have
 * none, share that place: they take addresses of results only one at a time. Numbers in `value` have their
 * sign; real ones are written with six digits behind the point. Null also: FBEINVAL (a null value). */
char *fbtypecvt(int *outlen, int to_type, char *value, int from_type, int len);

/* Delivers occurrence 0 as `type`, without a mark: fbget_tut with `nth` 0. */
int fbgett(FBUF *fbuf, int key, char *out, int *len, int type);

/* fbput of a value that has the type `type`. 1, or -1: as fbtypecvt and fbput. */
int fbputt(FBUF *fbuf, int key, char *value, int len, int type);

/* An occurrence as `type`: an address as from fbtypecvt, or in the buffer itself. Unlike fbget_tut this takes
 * numbers as signed, also a long. `len` may be null. Null also: FBENOENT; FBEINVAL for a carray of length 0;
 * FBENOSPACE for a carray of more than 1 MiB as a string, which isn't kept (fbget_tut delivers it). */
char *fbgetvalt(FBUF *fbuf, int key, int nth, int *len, int type);

/* fbgetnth for a value that has the type `type`: the number, -1 with fberror 0 if there is none, or -1 as
 * fbtypecvt. */
int fbgetntht(FBUF *fbuf, int key, char *value, int len, int type);

/* --- Reading without a mark. */

/* Writes an occurrence: appends with `nth` -1, deletes with a null value, replaces the occurrence if it is
 * there, else inserts it (fbinsert). As the call that it makes. */
int fbchg_tu(FBUF *fbuf, int key, int nth, char *value, int len);

/* The same with a value of the type `type`. */
int fbchg_tut(FBUF *fbuf, int key, int nth, char *value, int len, int type);

/* Deletes all occurrences of the keys in an array that 0 ends. Their number, also 0, or -1 (FBEINVAL: a null
 * argument). fberror may be FBENOENT after success: the last key wasn't there. */
int fbdelall_tu(FBUF *fbuf, int *keys);

/* Delivers an occurrence. 1, or -1: FBENOENT, FBENOSPACE. After FBENOSPACE `*len` is the length needed. */
int fbget_tu(FBUF *fbuf, int key, int nth, char *value, int *len);

/* Delivers an occurrence as `type`: numbers in the buffer count as unsigned when they are widened, but for
 * a char. 1, or -1: FBENOENT, FBENOSPACE, FBEBADFLD (unknown type). `*len` becomes the length delivered, a
 * number's width too, and only on success. */
int fbget_tut(FBUF *fbuf, int key, int nth, char *out, int *len, int type);

/* The last occurrence: its value's address in the buffer (as fbgetval), or the value delivered (as fbget_tu);
 * `*nth` becomes its number, unless `nth` is null. Null or -1: FBENOENT. */
char *fbgetval_last_tu(FBUF *fbuf, int key, int *nth, int *len);        /* address of the last one */
int fbgetlast_tu(FBUF *fbuf, int key, int *nth, char *value, int *len); /* value of the last one */

/* An occurrence in a block from malloc, which is the caller's to free; fbgetalloc_tut delivers it as `type`.
 * The block counts as large as the value (a string without its NUL, a long 4 bytes; as `type` a text with
 * one byte more, the text of a number 100) plus `*extra`, which becomes that size. For FDL_LEN that is the
 * room, so with TRU and ERR a string needs an extra byte for its NUL. Null: FBENOENT, FBEMALLOC,
 * FBENOSPACE, FBEBADFLD (unknown type). */
char *fbgetalloc_tu(FBUF *fbuf, int key, int nth, int *extra);            /* an occurrence as it is */
char *fbgetalloc_tut(FBUF *fbuf, int key, int nth, int type, int *extra); /* an occurrence as `type` */

/* The entry behind occurrence `*nth` of `*key` (the first one with `*key` 0), whatever its key, which becomes
 * `*key` and `*nth`. 1; 0 at the end, with nothing changed; -1: FBEINVAL (the position isn't there),
 * FBENOSPACE (`*len` is below the value's length, whatever FDL_LEN says). `*len` becomes that length, which
 * for a string doesn't count its NUL and for a long is 4, though 8 bytes are delivered: the room has to be
 * that much larger. A value that is 0 or empty isn't delivered: `value` keeps what it held. `value` and `len`
 * may be null. A key that carries the read mark is given as it stands, and `*nth` then counts those with the
 * mark. */
int fbnext_tu(FBUF *fbuf, int *key, int *nth, char *value, int *len);

/* The text of a string field, in the buffer itself; a constant "" if the occurrence isn't there or the key
 * has another type, with fberror 0. Value of a short, int or long field, taken as unsigned; 0 with FBENOENT,
 * or with FBETYPE for a key of another type. */
char *fbgetvals_tu(FBUF *fbuf, int key, int nth); /* text of a string field */
long fbgetvall_tu(FBUF *fbuf, int key, int nth);  /* value of a number field */

/* --- Whole buffers. */

/* Operations of fbbufop; the number of each is also the mode of fbstof (vorn/structs.h). */
#define FB_MOVE 1       /* copies `src` whole, unused room included */
#define FB_COPY 2       /* copies what `src` holds */
#define FB_COMPARE 3    /* 0 equal (same capacity, same content), 1 or -1 */
#define FB_CONCAT 4     /* appends all of `src` */
#define FB_JOIN 5       /* keeps what has a partner in `src`, with the partner's value */
#define FB_OUTER_JOIN 6 /* keeps all, with the values of partners in `src` */
#define FB_UPDATE 7     /* the same, and appends what in `src` has no partner */

/* Changes `dest` by `src`, or compares them. Partners are the n-th occurrences of one key in both. 1 (or the
 * comparison's result); -1: FBEINVAL (also: a missing mark in 1 and 2), FBENOSPACE, FBEMALLOC. `dest` is
 * unchanged after a failure. A move into a smaller buffer keeps the fields that it has room for; the joins
 * leave no read marks. A comparison tells "smaller" by the used bytes, or by the first key, entry beside
 * entry, that is smaller than its neighbour; all else that isn't equal is greater. */
int fbbufop(FBUF *dest, FBUF *src, int op);

/* Makes `dest` hold those fields of `src` (of itself with a null `src`) whose keys are in an array that 0
 * ends; in `src`'s order. Fields with a read mark aren't taken. 1, or -1: FBEINVAL, FBEMALLOC, FBENOSPACE
 * (`dest` is then unchanged). `dest` must be a field buffer already: its mark isn't written. */
int fbbufop_proj(FBUF *dest, FBUF *src, int *keys);

/* --- Streams. */

/* A buffer as one binary record: 136 bytes of header and all of the capacity, in this host's byte order.
 * Records may follow one another. 1, or -1: FBEOS (a short write or read, also at the end of the stream),
 * FBEINVAL (a null stream). fbread refuses a record that holds more than `fbuf` has room for (FBENOSPACE; the
 * stream then stands behind the record's header) and leaves the capacity of `fbuf` as it is; after FBEOS its
 * content may be overwritten in part. Positions remembered from earlier lookups stay: read into a buffer that
 * has not been searched since its fbinit. */
int fbwrite(FBUF *fbuf, FILE *stream); /* writes a buffer */
int fbread(FBUF *fbuf, FILE *stream);  /* reads a buffer */

/* A line for each field, for people: key, name, type, value; "(r)" before one with a read mark. A key without
 * a name is no error. 1, or -1: FBEBADFB (no field buffer), FBEINVAL (a null stream). fbprint writes to
 * stdout. */
int fbprint(FBUF *fbuf);                /* prints to stdout */
int fbfprint(FBUF *fbuf, FILE *stream); /* prints to a stream */

/* Fills the buffer from text: a line for each field, name and value with a tab between them. What begins with
 * 1 to 8 is a key in decimal, not a name. In front of it "+" inserts as occurrence 0, "-" deletes occurrence
 * 0, "=" copies occurrence 0 of the field named behind the tab (always by name); empty lines, and such as
 * begin with "#" or a blank, are skipped. Lines have at most 8,099 characters: what is longer counts as
 * several.
 *
 * Values are taken as they stand, without conversion: a string or carray gets the text, a number's bytes are
 * those of the text, with zeros behind it.
 *
 * 1 at the end of the stream, or -1 with the error of the line that failed, while earlier lines stay: that of
 * the field call; FBETYPE for an unknown name (FBENOENT with "-"); FBEINVAL for a line without a second
 * token, and a null stream; FBENOSPACE for a copy of more than 8,100 bytes (with FDL_LEN=TRU it is cut);
 * FBEOS if the stream fails. */
int fbextread(FBUF *fbuf, FILE *stream);

#ifdef __cplusplus
}
#endif
#endif
