/* The compatible field interface: the calls of vorn/fields.h and vorn/structs.h under the names of programs
 * that were written to the other transaction monitor interface, so that these link as they are.
 *
 * Each name does what the call named beside it does, with the same arguments, results and errors; fberror
 * (vorn/errors.h) holds the reason of a failure in the native numbering, Ferror (vorn/compat.h) in the other
 * one. None of these names puts a read mark on a value. They are short and clash easily, so vorn.h doesn't
 * include this file. */
#ifndef VORN_FFIELDS_H
#define VORN_FFIELDS_H

#include "vorn/errors.h"
#include "vorn/fields.h"
#include "vorn/structs.h"

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* --- Names and keys. */
int Fldid(char *name);              /* as fbget_fldkey */
char *Fname(int key);               /* as fbget_fldname */
int Fldno(int key);                 /* as fbget_fldno */
int Fldtype(int key);               /* as fbget_fldtype */
char *Ftype(int key);               /* as fbget_strfldtype */
int Fmkfldid(int type, int number); /* as fbmake_fldkey */

/* --- Buffers. */
int Fielded(FBUF *fbuf);                            /* as fbisfbuf */
long Fneeded(int count, int datalen);               /* as fbcalcsize */
int Finit(FBUF *fbuf, int size);                    /* as fbinit */
FBUF *Falloc(int count, int datalen);               /* as fballoc */
int Ffree(FBUF *fbuf);                              /* as fbfree */
FBUF *Frealloc(FBUF *fbuf, int count, int datalen); /* as fbrealloc */
long Fsizeof(FBUF *fbuf);                           /* as fbget_fbsize */
long Funused(FBUF *fbuf);                           /* as fbget_unused */
long Fused(FBUF *fbuf);                             /* as fbget_used */

/* --- Writing. */
int Fadd(FBUF *fbuf, int key, char *value, int len);          /* as fbput */
int Fappend(FBUF *fbuf, int key, char *value, int len);       /* as fbput */
int Fchg(FBUF *fbuf, int key, int nth, char *value, int len); /* as fbchg_tu */
int Fdel(FBUF *fbuf, int key, int nth);                       /* as fbdelete */
int Fdelall(FBUF *fbuf, int key);                             /* as fbdelall */
int Fdelete(FBUF *fbuf, int *keys);                           /* as fbdelall_tu */

/* --- Reading. */
int Fget(FBUF *fbuf, int key, int nth, char *value, int *len);      /* as fbget_tu */
char *Fgetalloc(FBUF *fbuf, int key, int nth, int *extra);          /* as fbgetalloc_tu */
int Fgetlast(FBUF *fbuf, int key, int *nth, char *value, int *len); /* as fbgetlast_tu */
int Fnext(FBUF *fbuf, int *key, int *nth, char *value, int *len);   /* as fbnext_tu */
char *Ffind(FBUF *fbuf, int key, int nth, int *len);                /* as fbgetval */
char *Ffindlast(FBUF *fbuf, int key, int *nth, int *len);           /* as fbgetval_last_tu */
int Ffindocc(FBUF *fbuf, int key, char *value, int len);            /* as fbgetnth */
char *Fvals(FBUF *fbuf, int key, int nth);                          /* as fbgetvals_tu */
long Fvall(FBUF *fbuf, int key, int nth);                           /* as fbgetvall_tu */
int Fnum(FBUF *fbuf);                                               /* as fbfldcount */
int Foccur(FBUF *fbuf, int key);                                    /* as fbkeyoccur */
int Fpres(FBUF *fbuf, int key, int nth);                            /* as fbispres */

/* --- Conversion. */
int CFadd(FBUF *fbuf, int key, char *value, int len, int type);               /* as fbputt */
int CFchg(FBUF *fbuf, int key, int nth, char *value, int len, int type);      /* as fbchg_tut */
int CFget(FBUF *fbuf, int key, int nth, char *out, int *len, int type);       /* as fbget_tut */
char *CFgetalloc(FBUF *fbuf, int key, int nth, int type, int *extra);         /* as fbgetalloc_tut */
char *CFfind(FBUF *fbuf, int key, int nth, int *len, int type);               /* as fbgetvalt */
int CFfindocc(FBUF *fbuf, int key, char *value, int len, int type);           /* as fbgetntht */
char *Ftypcvt(int *outlen, int to_type, char *value, int from_type, int len); /* as fbtypecvt */

/* --- Whole buffers. */
int Fmove(FBUF *dest, FBUF *src);               /* as fbbufop, FB_MOVE */
int Fcpy(FBUF *dest, FBUF *src);                /* as fbbufop, FB_COPY */
int Fcmp(FBUF *a, FBUF *b);                     /* as fbbufop, FB_COMPARE */
int Fconcat(FBUF *dest, FBUF *src);             /* as fbbufop, FB_CONCAT */
int Fjoin(FBUF *dest, FBUF *src);               /* as fbbufop, FB_JOIN */
int Fojoin(FBUF *dest, FBUF *src);              /* as fbbufop, FB_OUTER_JOIN */
int Fupdate(FBUF *dest, FBUF *src);             /* as fbbufop, FB_UPDATE */
int Fproj(FBUF *fbuf, int *keys);               /* as fbbufop_proj on itself */
int Fprojcpy(FBUF *dest, FBUF *src, int *keys); /* as fbbufop_proj */

/* --- Records. */
int Fvftos(FBUF *fbuf, char *cstruct, char *name);            /* as fbftos */
int Fvstof(FBUF *fbuf, char *cstruct, int mode, char *name);  /* as fbstof */
int Fvnull(char *cstruct, char *member, int occ, char *name); /* as fbsnull */
int Fvsinit(char *cstruct, char *name);                       /* as fbstinit */
int Fvselinit(char *cstruct, char *member, char *name);       /* as fbstelinit */

/* --- Streams. */
int Fread(FBUF *fbuf, FILE *stream);    /* as fbread */
int Fwrite(FBUF *fbuf, FILE *stream);   /* as fbwrite */
int Fprint(FBUF *fbuf);                 /* as fbprint */
int Ffprint(FBUF *fbuf, FILE *stream);  /* as fbfprint */
int Fextread(FBUF *fbuf, FILE *stream); /* as fbextread */

/* --- Errors. */
const char *Fstrerror(int number); /* as fbstrerror */

/* Writes `msg` and the text of fberror to stderr, as print_fberror does; 0. */
int F_error(const char *msg);

/* --- What there is nothing for: a buffer has no index and no checksum. The arguments aren't looked at. */
long Fidxused(FBUF *fbuf);               /* 0: bytes of the index */
int Findex(FBUF *fbuf, int interval);    /* 1 */
int Frstrindex(FBUF *fbuf, int entries); /* 1 */
int Funindex(FBUF *fbuf);                /* 0: entries of the index */
long Fchksum(FBUF *fbuf);                /* -1 */

#ifdef __cplusplus
}
#endif
#endif
