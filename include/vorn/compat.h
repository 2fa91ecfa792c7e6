/* The compatibility numbering: the library's errors as programs see them that were written to the other
 * transaction monitor interface. It is a table of its own; most numbers agree with vorn/errors.h, some
 * don't.
 *
 * Define VORN_COMPAT_NUMBERS before including this file to let tperrno and tpstrerror themselves speak
 * this numbering. The cells are those of the thread's context and are filled anew at each access, so
 * threads that share a context must not rely on a value beyond the expression that reads it. */
#ifndef VORN_COMPAT_H
#define VORN_COMPAT_H

#include "vorn/errors.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Error numbers that only this numbering has. TPEBADDESC to TPEMATCH are those of vorn/errors.h where both
 * have the name. 31 and 32 keep their native meaning and have no text here. */
#define TPMINVAL 0
#define TPEABORT 1
#define TPEPERM 8
#define TPERMERR 16
#define TPERELEASE 19
#define TPEHAZARD 20
#define TPEHEURISTIC 21
#define TPEDIAGNOSTIC 24
#define TPEMIB 25
#define TPMAXVAL 26

/* Field errors. */
#define FALIGN 1
#define FNOTFLD 2
#define FNOSPACE 3
#define FNOTPRES 4
#define FBADFLD 5
#define FTYPERR 6
#define FEUNIX 7
#define FBADNAME 8
#define FMALLOC 9
#define FSYNTAX 10
#define FFTOPEN 11
#define FFTSYNTAX 12
#define FEINVAL 13
#define FBADTBL 14
#define FBADVIEW 15
#define FVFSYNTAX 16
#define FVFOPEN 17
#define FBADACM 18
#define FNOCNAME 19
#define FEBADOP 20

/* Classes of system calls, for errno values. */
#define UUNIXMIN 0
#define UCLOSE 1
#define UCREAT 2
#define UEXEC 3
#define UFCTNL 4
#define UFORK 5
#define ULSEEK 6
#define UMSGCTL 7
#define UMSGGET 8
#define UMSGSND 9
#define UMSGRCV 10
#define UOPEN 11
#define UPLOCK 12
#define UREAD 13
#define USEMCTL 14
#define USEMGET 15
#define USEMOP 16
#define USHMCTL 17
#define USHMGET 18
#define USHMAT 19
#define USHMDT 20
#define USTAT 21
#define UWRITE 22
#define USBRK 23
#define USYSMUL 24
#define UWAIT 25
#define UKILL 26
#define UTIME 27
#define UMKDIR 28
#define ULINK 29
#define UUNLINK 30
#define UUNAME 31
#define UNLIST 32
#define UUNIXMAX 33

/* Addresses of the mapped cells: of tperrno, of the C library's errno, of fberror. Each call maps afresh.
 * NULL only if the library has no memory for its tables. */
int *_tmget_compat_errno_addr(void);
int *_tmget_compat_unixerrno_addr(void);
int *_tmget_compat_Ferror_addr(void);

#ifndef VORN_NO_CELL_MACROS
#define Ferror (*_tmget_compat_Ferror_addr())
#define Uunixerr (*_tmget_compat_unixerrno_addr())
#endif

/* The mapped fberror; 0 if the library has no memory for its tables. */
int getFerror2(void);

/* Texts of numbers of this numbering; constant strings, never NULL. A number outside a table has the text
 * of its last row. */
const char *_tmget_compat_strerror(int number);
const char *_tmget_compat_strFerror(int number);
const char *Ustrerror(int number);

/* Writes to stderr the name of the call class for errno and a newline; with a `msg` (an empty one counts)
 * "msg: " stands before it. */
void Uunix_err(const char *msg);

/* As print_fberror (vorn/errors.h), with the text of the mapped number. */
void print_Ferror(const char *msg);

#ifdef VORN_COMPAT_NUMBERS
#ifndef VORN_NO_CELL_MACROS
#undef tperrno
#define tperrno (*_tmget_compat_errno_addr())
#endif
#define tpstrerror(number) _tmget_compat_strerror(number)
#endif

#ifdef __cplusplus
}
#endif
#endif
