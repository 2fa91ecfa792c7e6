/* Calls that choose where they go: to a server group, to one server process, to all groups of a service.
 *
 * A service may be offered by several server groups; a group is known by its number, of which bits 16 to 26
 * are the number of its node. tpgetsvglist (vorn/query.h) tells the groups of a service. */
#ifndef VORN_GROUPS_H
#define VORN_GROUPS_H

#include "flags.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What a multicast did. Both records and their arrays belong to the context: the next call of the same name
 * replaces them, and they end with the context. Don't free them; threads that share a context share them. */
typedef struct mcall_result {
    int32_t count;        /* groups addressed */
    int32_t failed;       /* entries of failed_list */
    int32_t *list;        /* group numbers, ended by -1 */
    int32_t *failed_list; /* groups for which the request failed */
} mcall_result;

/* What tpmcallx did. */
typedef struct mcallx_result {
    int32_t count;        /* groups addressed */
    int32_t errors_size;  /* entries of errors */
    int32_t urcodes_size; /* entries of urcodes */
    int32_t *list;        /* group numbers, ended by -1 */
    int32_t *errors;      /* by group: 0, or the tperrno */
    int32_t *urcodes;     /* by group: the user return code; 0 on failure */
} mcallx_result;

/* tpcall and tpacall to group `svgno`; with a negative one they are tpcall and tpacall. */
int tpcallsvg(int svgno, char *svc, char *idata, long ilen, char **odata, long *olen,
              long flags);                                              /* as tpcall */
int tpacallsvg(int svgno, char *svc, char *data, long len, long flags); /* as tpacall */

/* tpacall to server `spri` as a whole, or to its process `proc` (-1: the whole). A negative `spri` is no
 * address. The flags aren't checked. The process number only reaches the server with TPNOREPLY: a call that
 * expects a reply has its own identity in that place. */
int tpspracall(char *svc, int spri, char *data, long len, long flags); /* to a server */
int tpspracall2(char *svc, int spri, int proc, char *data, long len,
                long flags); /* to a server, or one of its processes */

/* One request without reply to group `svgno`: through queue `qname`, whose acceptance is awaited, or with
 * null directly. `flags` must be 0. The request stands outside the open transaction, whose time limit ends
 * the wait for the queue all the same. 1, or -1 with tperrno: TPEINVAL, TPEOTYPE (no typed buffer),
 * TPEITYPE, TPENOENT (unknown queue), TPETIME, TPECLOSE, TPEOS, TPESYSTEM. A queue that refuses gives no
 * error number, but the user code of the reply that the buffer last took, or if that is 0, 0x80000C. */
int tpsvgcall(int svgno, char *qname, char *svc, char *data, long len, long flags);

/* The same to all groups of the service, which the server is asked for. Groups whose request failed stand in
 * the result. Null with tperrno as above, and when the groups can't be told. */
mcall_result *tpmcall(char *qname, char *svc, char *data, long len, long flags);

/* Calls all groups of the service and collects their replies, as many at a time as there are free call
 * descriptors. `flags` as for tpacall; TPNOREPLY collects none. Replies are taken in the order of the groups
 * and their data is not kept. Null with tperrno: TPEINVAL (no service), TPEITYPE, TPENOENT (no groups),
 * TPELIMIT (no free descriptor), TPEOS, and as above. */
mcallx_result *tpmcallx(char *svc, char *data, long len, long flags);

/* Two numbers that the server keeps for a service's server in group `svgno`. 1, or -1 with tperrno. */
int tpgetsprlist(char *svc, int svgno, int *first, int *second);

#ifdef __cplusplus
}
#endif
#endif
