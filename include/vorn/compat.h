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
#define TPMINVAL 0       /* lower bound: no error */
#define TPEABORT 1       /* the commit failed */
#define TPEPERM 8        /* not permitted; TPESECURITY appears as this */
#define TPERMERR 16      /* error of a resource manager */
#define TPERELEASE 19    /* versions that don't match */
#define TPEHAZARD 20     /* the transaction may have been completed heuristically */
#define TPEHEURISTIC 21  /* the transaction has been committed heuristically */
#define TPEDIAGNOSTIC 24 /* a diagnostic value tells more */
#define TPEMIB 25        /* error of the management information */
#define TPMAXVAL 26      /* upper bound; a tperrno above 32 appears as this */

/* Field errors: what Ferror holds. */
#define FALIGN 1     /* the buffer isn't aligned */
#define FNOTFLD 2    /* no field buffer */
#define FNOSPACE 3   /* no room in the buffer */
#define FNOTPRES 4   /* no such occurrence */
#define FBADFLD 5    /* unknown key or type */
#define FTYPERR 6    /* wrong type */
#define FEUNIX 7     /* a system call failed */
#define FBADNAME 8   /* unknown name of a field */
#define FMALLOC 9    /* no memory */
#define FSYNTAX 10   /* error in an expression */
#define FFTOPEN 11   /* the field table can't be opened */
#define FFTSYNTAX 12 /* error in the field table */
#define FEINVAL 13   /* invalid argument */
#define FBADTBL 14   /* the field table was changed while in use */
#define FBADVIEW 15  /* unknown struct */
#define FVFSYNTAX 16 /* error in a struct definition file */
#define FVFOPEN 17   /* a struct definition file can't be opened */
#define FBADACM 18   /* a negative count of elements */
#define FNOCNAME 19  /* unknown member */
#define FEBADOP 20   /* invalid type; no fberror appears as this */

/* Classes of system calls: what Uunixerr holds. They are told by errno alone, whatever call set it. */
#define UUNIXMIN 0  /* lower bound */
#define UCLOSE 1    /* close */
#define UCREAT 2    /* creat */
#define UEXEC 3     /* exec */
#define UFCTNL 4    /* fcntl */
#define UFORK 5     /* fork */
#define ULSEEK 6    /* lseek */
#define UMSGCTL 7   /* msgctl */
#define UMSGGET 8   /* msgget */
#define UMSGSND 9   /* msgsnd */
#define UMSGRCV 10  /* msgrcv */
#define UOPEN 11    /* open */
#define UPLOCK 12   /* plock */
#define UREAD 13    /* read */
#define USEMCTL 14  /* semctl */
#define USEMGET 15  /* semget */
#define USEMOP 16   /* semop */
#define USHMCTL 17  /* shmctl */
#define USHMGET 18  /* shmget */
#define USHMAT 19   /* shmat */
#define USHMDT 20   /* shmdt */
#define USTAT 21    /* stat */
#define UWRITE 22   /* write */
#define USBRK 23    /* sbrk */
#define USYSMUL 24  /* sysmulti */
#define UWAIT 25    /* wait */
#define UKILL 26    /* kill */
#define UTIME 27    /* time */
#define UMKDIR 28   /* mkdir */
#define ULINK 29    /* link */
#define UUNLINK 30  /* unlink */
#define UUNAME 31   /* uname */
#define UNLIST 32   /* all else, no error included */
#define UUNIXMAX 33 /* upper bound */

/* Addresses of the mapped cells. Each call maps afresh. NULL only if the library has no memory for its
 * tables. */
int *_tmget_compat_errno_addr(void);     /* tperrno in this numbering */
int *_tmget_compat_unixerrno_addr(void); /* class of the call behind errno */
int *_tmget_compat_Ferror_addr(void);    /* fberror in this numbering */

#ifndef VORN_NO_CELL_MACROS
#define Ferror (*_tmget_compat_Ferror_addr())      /* fberror in this numbering */
#define Uunixerr (*_tmget_compat_unixerrno_addr()) /* class of the call behind errno */
#endif

/* The mapped fberror; 0 if the library has no memory for its tables. */
int getFerror2(void);

/* Texts of numbers of this numbering; constant strings, never NULL. A number outside a table has the text
 * of its last row. */
const char *_tmget_compat_strerror(int number);  /* text of a TPE number */
const char *_tmget_compat_strFerror(int number); /* text of an F number */
const char *Ustrerror(int number);               /* name of a class of system calls */

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
