// The compatible field interface: other names for the calls of fields.h and structs.h. They pass their
// arguments on; frame, trace and errors are those of the call.
#include "vorn/ffields.h"

extern "C" {

// --- Names and keys.

int Fldid(char *name)
{
    return fbget_fldkey(name);
}

char *Fname(int key)
{
    return fbget_fldname(key);
}

int Fldno(int key)
{
    return fbget_fldno(key);
}

int Fldtype(int key)
{
    return fbget_fldtype(key);
}

char *Ftype(int key)
{
    return fbget_strfldtype(key);
}

int Fmkfldid(int type, int number)
{
    return fbmake_fldkey(type, number);
}

// --- Buffers.

int Fielded(FBUF *fbuf)
{
    return fbisfbuf(fbuf);
}

long Fneeded(int count, int datalen)
{
    return fbcalcsize(count, datalen);
}

int Finit(FBUF *fbuf, int size)
{
    return fbinit(fbuf, size);
}

FBUF *Falloc(int count, int datalen)
{
    return fballoc(count, datalen);
}

int Ffree(FBUF *fbuf)
{
    return fbfree(fbuf);
}

FBUF *Frealloc(FBUF *fbuf, int count, int datalen)
{
    return fbrealloc(fbuf, count, datalen);
}

long Fsizeof(FBUF *fbuf)
{
    return fbget_fbsize(fbuf);
}

long Funused(FBUF *fbuf)
{
    return fbget_unused(fbuf);
}

long Fused(FBUF *fbuf)
{
    return fbget_used(fbuf);
}

// --- Writing.

int Fadd(FBUF *fbuf, int key, char *value, int len)
{
    return fbput(fbuf, key, value, len);
}

int Fappend(FBUF *fbuf, int key, char *value, int len)
{
    return fbput(fbuf, key, value, len);
}

int Fchg(FBUF *fbuf, int key, int nth, char *value, int len)
{
    return fbchg_tu(fbuf, key, nth, value, len);
}

int Fdel(FBUF *fbuf, int key, int nth)
{
    return fbdelete(fbuf, key, nth);
}

int Fdelall(FBUF *fbuf, int key)
{
    return fbdelall(fbuf, key);
}

int Fdelete(FBUF *fbuf, int *keys)
{
    return fbdelall_tu(fbuf, keys);
}

// --- Reading.

int Fget(FBUF *fbuf, int key, int nth, char *value, int *len)
{
    return fbget_tu(fbuf, key, nth, value, len);
}

char *Fgetalloc(FBUF *fbuf, int key, int nth, int *extra)
{
    return fbgetalloc_tu(fbuf, key, nth, extra);
}

int Fgetlast(FBUF *fbuf, int key, int *nth, char *value, int *len)
{
    return fbgetlast_tu(fbuf, key, nth, value, len);
}

int Fnext(FBUF *fbuf, int *key, int *nth, char *value, int *len)
{
    return fbnext_tu(fbuf, key, nth, value, len);
}

char *Ffind(FBUF *fbuf, int key, int nth, int *len)
{
    return fbgetval(fbuf, key, nth, len);
}

char *Ffindlast(FBUF *fbuf, int key, int *nth, int *len)
{
    return fbgetval_last_tu(fbuf, key, nth, len);
}

int Ffindocc(FBUF *fbuf, int key, char *value, int len)
{
    return fbgetnth(fbuf, key, value, len);
}

char *Fvals(FBUF *fbuf, int key, int nth)
{
    return fbgetvals_tu(fbuf, key, nth);
}

long Fvall(FBUF *fbuf, int key, int nth)
{
    return fbgetvall_tu(fbuf, key, nth);
}

int Fnum(FBUF *fbuf)
{
    return fbfldcount(fbuf);
}

int Foccur(FBUF *fbuf, int key)
{
    return fbkeyoccur(fbuf, key);
}

int Fpres(FBUF *fbuf, int key, int nth)
{
    return fbispres(fbuf, key, nth);
}

// --- Conversion.

int CFadd(FBUF *fbuf, int key, char *value, int len, int type)
{
    return fbputt(fbuf, key, value, len, type);
}

int CFchg(FBUF *fbuf, int key, int nth, char *value, int len, int type)
{
    return fbchg_tut(fbuf, key, nth, value, len, type);
}

int CFget(FBUF *fbuf, int key, int nth, char *out, int *len, int type)
{
    return fbget_tut(fbuf, key, nth, out, len, type);
}

char *CFgetalloc(FBUF *fbuf, int key, int nth, int type, int *extra)
{
    return fbgetalloc_tut(fbuf, key, nth, type, extra);
}

char *CFfind(FBUF *fbuf, int key, int nth, int *len, int type)
{
    return fbgetvalt(fbuf, key, nth, len, type);
}

int CFfindocc(FBUF *fbuf, int key, char *value, int len, int type)
{
    return fbgetntht(fbuf, key, value, len, type);
}

char *Ftypcvt(int *outlen, int to_type, char *value, int from_type, int len)
{
    return fbtypecvt(outlen, to_type, value, from_type, len);
}

// --- Whole buffers.

int Fmove(FBUF *dest, FBUF *src)
{
    return fbbufop(dest, src, FB_MOVE);
}

int Fcpy(FBUF *dest, FBUF *src)
{
    return fbbufop(dest, src, FB_COPY);
}

int Fcmp(FBUF *a, FBUF *b)
{
    return fbbufop(a, b, FB_COMPARE);
}

int Fconcat(FBUF *dest, FBUF *src)
{
    return fbbufop(dest, src, FB_CONCAT);
}

int Fjoin(FBUF *dest, FBUF *src)
{
    return fbbufop(dest, src, FB_JOIN);
}

int Fojoin(FBUF *dest, FBUF *src)
{
    return fbbufop(dest, src, FB_OUTER_JOIN);
}

int Fupdate(FBUF *dest, FBUF *src)
{
    return fbbufop(dest, src, FB_UPDATE);
}

int Fproj(FBUF *fbuf, int *keys)
{
    return fbbufop_proj(fbuf, nullptr, keys);
}

int Fprojcpy(FBUF *dest, FBUF *src, int *keys)
{
    return fbbufop_proj(dest, src, keys);
}

// --- Records.

int Fvftos(FBUF *fbuf, char *cstruct, char *name)
{
    return fbftos(fbuf, cstruct, name);
}

int Fvstof(FBUF *fbuf, char *cstruct, int mode, char *name)
{
    return fbstof(fbuf, cstruct, mode, name);
}

int Fvnull(char *cstruct, char *member, int occ, char *name)
{
    return fbsnull(cstruct, member, occ, name);
}

int Fvsinit(char *cstruct, char *name)
{
    return fbstinit(cstruct, name);
}

int Fvselinit(char *cstruct, char *member, char *name)
{
    return fbstelinit(cstruct, member, name);
}

// --- Streams.

int Fread(FBUF *fbuf, FILE *stream)
{
    return fbread(fbuf, stream);
}

int Fwrite(FBUF *fbuf, FILE *stream)
{
    return fbwrite(fbuf, stream);
}

int Fprint(FBUF *fbuf)
{
    return fbprint(fbuf);
}

int Ffprint(FBUF *fbuf, FILE *stream)
{
    return fbfprint(fbuf, stream);
}

int Fextread(FBUF *fbuf, FILE *stream)
{
    return fbextread(fbuf, stream);
}

// --- Errors.

const char *Fstrerror(int number)
{
    return fbstrerror(number);
}

int F_error(const char *msg)
{
    print_fberror(msg);
    return 0;
}

// --- Without an index and a checksum.

long Fidxused(FBUF *)
{
    return 0;
}

int Findex(FBUF *, int)
{
    return 1;
}

int Frstrindex(FBUF *, int)
{
    return 1;
}

int Funindex(FBUF *)
{
    return 0;
}

long Fchksum(FBUF *)
{
    return -1;
}
}
