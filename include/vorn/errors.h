/* Error numbers, the cells that hold them, and their texts.
 *
 * A call that fails returns -1 or NULL and leaves the reason in a cell of the calling thread: tperrno for
 * the tp*, tx_*, kmq_* and vorn_* calls, fberror for the field buffer calls. tpurcode holds the user
 * return code of the last reply. A value stays until the thread's next call. Define VORN_NO_CELL_MACROS
 * before including this file to keep the three names free, and use the functions instead. */
#ifndef VORN_ERRORS_H
#define VORN_ERRORS_H

#ifdef __cplusplus
extern "C" {
#endif

/* Values of tperrno. */
#define TPEBADDESC 2   /* bad call descriptor */
#define TPEBLOCK 3     /* the call would have to wait */
#define TPEINVAL 4     /* invalid arguments */
#define TPELIMIT 5     /* a limit of the system is reached */
#define TPENOENT 6     /* no such entry */
#define TPEOS 7        /* operating system error */
#define TPEPROTO 9     /* called in the wrong state */
#define TPESVCERR 10   /* the service request could not be processed */
#define TPESVCFAIL 11  /* the service reports failure; tpurcode and data are valid */
#define TPESYSTEM 12   /* internal error */
#define TPETIME 13     /* time ran out */
#define TPETRAN 14     /* transaction error */
#define TPGOTSIG 15    /* a signal came */
#define TPEITYPE 17    /* wrong type of input data */
#define TPEOTYPE 18    /* wrong type of output data */
#define TPEEVENT 22    /* an event occurred */
#define TPEMATCH 23    /* no matching entry */
#define TPENOREADY 24  /* no service or server is ready */
#define TPESECURITY 25 /* refused by the security check */
#define TPEQFULL 26    /* queue full */
#define TPEQPURGE 27   /* the request was purged from its queue */
#define TPECLOSE 28    /* the connection is closed */
#define TPESVRDOWN 29  /* the server process died */
#define TPEPRESVC 30   /* failed in the processing before the service */
#define TPERDOWN 31    /* the server is rolling down */
#define TPERDCLOSE 32  /* the connection was closed while the server was rolling down */

/* Values of fberror. */
#define FBEMINNO 0      /* lower bound: no error */
#define EBEALIGN 1      /* the buffer isn't aligned (no call gives it) */
#define FBEFTSYNTAX 2   /* error in the field table (no call gives it) */
#define FBEBADFB 3      /* no field buffer */
#define FBEINVAL 4      /* invalid argument */
#define FBELIMIT 5      /* a limit is passed (no call gives it) */
#define FBENOENT 6      /* no such occurrence, field or name */
#define FBEOS 7         /* a stream, a file or the operating system failed */
#define FBEBADFLD 8     /* unknown type wanted */
#define FBEPROTO 9      /* called in the wrong state (no call gives it) */
#define FBENOSPACE 10   /* no room in the buffer, or for the value */
#define FBEMALLOC 11    /* no memory */
#define FBESYSTEM 12    /* internal error */
#define FBETYPE 13      /* unknown or wrong type */
#define FBEMATCH 14     /* no match (no call gives it) */
#define FBEBADSTRUCT 15 /* unknown struct */
#define FBEVTSYNTAX 16  /* error in a struct definition file (no call gives it) */
#define FBEVFOPEN 17    /* a definition file can't be opened (no call gives it) */
#define FBEBADACM 18    /* a negative count of elements (no call gives it) */
#define FBENOCNAME 19   /* unknown member (no call gives it) */
#define FBEBADTBL 20    /* bad table (no call gives it) */
#define FBEMAXNO 21     /* upper bound */

/* The addresses of the calling thread's cells. Valid until the thread changes its context; ask anew each
 * time. NULL only if the library has no memory for its tables. */
int *_tmget_tperrno_addr(void);   /* address of tperrno */
long *_tmget_tpurcode_addr(void); /* address of tpurcode */
int *_tmget_fberror_addr(void);   /* address of fberror */

#ifndef VORN_NO_CELL_MACROS
#define tperrno (*_tmget_tperrno_addr())   /* why the thread's call failed */
#define tpurcode (*_tmget_tpurcode_addr()) /* user return code of the last reply */
#define fberror (*_tmget_fberror_addr())   /* why the thread's field buffer call failed */
#endif

/* The values of the cells; 0 if the library has no memory for its tables. getfberror and getfberrno are
 * the same; so is getFerror, which gives the native number although its name suggests the other numbering.
 * None of these changes a cell. */
int gettperrno(void);   /* value of tperrno */
long gettpurcode(void); /* value of tpurcode */
int getfberror(void);   /* value of fberror */
int getfberrno(void);   /* value of fberror */
int getFerror(void);    /* value of fberror, in the native numbering */

/* What is behind the present tperrno: 1 for a time-out, 2 for a closed connection, -1 for all else.
 * `flags` is not looked at. */
int tperrordetail(long flags);

/* The texts are constant strings, never NULL and never to be freed; a number outside a table has the text of
 * its last row (empty for tpstrerror), a code that txstrerror or xastrerror doesn't know a text that says
 * so. */
const char *tpstrerror(int number); /* text of a tperrno */
const char *fbstrerror(int number); /* text of an fberror */
const char *txstrerror(int code);   /* text of what a tx_ call returned */
const char *xastrerror(int code);   /* text of what an xa_ routine returned */

/* Writes `msg`, ": " and the text of fberror to stderr, without a newline. In `msg` "%%" stands for one
 * "%"; there are no other conversions. NULL counts as empty. */
void print_fberror(const char *msg);

#ifdef __cplusplus
}
#endif
#endif
