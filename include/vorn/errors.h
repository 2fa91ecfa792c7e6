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
#define FBEMINNO 0
#define EBEALIGN 1
#define FBEFTSYNTAX 2
#define FBEBADFB 3
#define FBEINVAL 4
#define FBELIMIT 5
#define FBENOENT 6
#define FBEOS 7
#define FBEBADFLD 8
#define FBEPROTO 9
#define FBENOSPACE 10
#define FBEMALLOC 11
#define FBESYSTEM 12
#define FBETYPE 13
#define FBEMATCH 14
#define FBEBADSTRUCT 15
#define FBEVTSYNTAX 16
#define FBEVFOPEN 17
#define FBEBADACM 18
#define FBENOCNAME 19
#define FBEBADTBL 20
#define FBEMAXNO 21

/* The addresses of the calling thread's cells. Valid until the thread changes its context; ask anew each
 * time. NULL only if the library has no memory for its tables. */
int *_tmget_tperrno_addr(void);
long *_tmget_tpurcode_addr(void);
int *_tmget_fberror_addr(void);

#ifndef VORN_NO_CELL_MACROS
#define tperrno (*_tmget_tperrno_addr())
#define tpurcode (*_tmget_tpurcode_addr())
#define fberror (*_tmget_fberror_addr())
#endif

/* The values of the cells; 0 if the library has no memory for its tables. getfberror and getfberrno are
 * the same; so is getFerror, which gives the native number although its name suggests the other numbering.
 * None of these changes a cell. */
int gettperrno(void);
long gettpurcode(void);
int getfberror(void);
int getfberrno(void);
int getFerror(void);

/* What is behind the present tperrno: 1 for a time-out, 2 for a closed connection, -1 for all else.
 * `flags` is not looked at. */
int tperrordetail(long flags);

/* Texts. Constant strings, never NULL and never to be freed; a number outside a table has the text of its
 * last row (empty for tpstrerror), a code that txstrerror or xastrerror doesn't know a text that says so. */
const char *tpstrerror(int number); /* a tperrno */
const char *fbstrerror(int number); /* an fberror */
const char *txstrerror(int code);   /* what a tx_ call returned */
const char *xastrerror(int code);   /* what an xa_ routine returned */

/* Writes `msg`, ": " and the text of fberror to stderr, without a newline. In `msg` "%%" stands for one
 * "%"; there are no other conversions. NULL counts as empty. */
void print_fberror(const char *msg);

#ifdef __cplusplus
}
#endif
#endif
