/* Contexts: several sessions in one process, and several threads on one session.
 *
 * The first tpstart or tpinit of a process decides. With TPMULTICONTEXTS in its flags the process may open
 * a context per start and move threads between them with tpsetctxt; without it each thread has one context
 * of its own. All later starts must agree, or fail with TPEPROTO. */
#ifndef VORN_CONTEXT_H
#define VORN_CONTEXT_H

#ifdef __cplusplus
extern "C" {
#endif

#define TPSINGLECONTEXT 0     /* tpgetctxt: the thread's context, in a process of single contexts */
#define TPINVALIDCONTEXT (-1) /* tpgetctxt: the thread's context has no number */
#define TPNULLCONTEXT (-2)    /* tpgetctxt: the thread stands on no context; tpsetctxt: leave the context */

/* Puts the calling thread on context `ctxt`, a number that tpgetctxt gave in a thread that stands on it;
 * the threads of a context share its connection. TPNULLCONTEXT leaves the present context. In a process
 * that doesn't use several contexts only 0 is allowed, and does nothing. `flags` is 0. 1, or -1 with
 * tperrno: TPEINVAL (flags, or a negative number), TPEPROTO (context mode), TPENOENT (no such context, or
 * no session on it; in the second case the thread has by then left the context that it stood on), TPELIMIT
 * (no free thread row). */
int tpsetctxt(int ctxt, long flags);

/* Stores the number of the thread's context: 0 for a thread that has its context in a process of single
 * contexts, -2 for a thread that stands on none, -1 if its context has no number. `ctxt` must point to an
 * int, `flags` is 0, or TPEINVAL. 1 or -1. */
int tpgetctxt(int *ctxt, long flags);

#ifdef __cplusplus
}
#endif
#endif
