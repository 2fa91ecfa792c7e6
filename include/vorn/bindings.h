/* Wrappers for languages that can't pass a pointer to a pointer, or a C string, easily. */
#ifndef VORN_BINDINGS_H
#define VORN_BINDINGS_H

#ifdef __cplusplus
extern "C" {
#endif

/* tpstart without a name. Unsolicited messages are dropped if `mode` is 0, otherwise kept for tpgetunsol. The
 * result is that of tpstart; -1 with TPEOS also where there is no memory for the record. Each call keeps a
 * start record of some 300 bytes until the process ends. */
int vb_tpstart(int mode);

/* Copies the bytes of a C string, without its NUL; `to` must have room for them. Null copies nothing. */
void vb_getstr(const char *from, char *to);

/* Both copy `len` bytes; they differ in the order of their arguments. Null, and a `len` below 1, copies
 * nothing. */
void vb_getcar(const char *from, char *to, int len); /* copies bytes; `from` comes first */
void vb_putcar(char *to, const char *from, int len); /* copies bytes; `to` comes first */

/* tpsleep for whole seconds: the microseconds are cut, so that below 1,000,000 it doesn't wait at all. The
 * result is that of tpsleep. tp_usleep (vorn/query.h) sleeps for fractions. */
int vb_tpsleep(int microseconds);

/* tpgetrply with the descriptor by value: which one TPGETANY has found isn't told. */
int vb_tpgetrply(int cd, char **data, long *len, long flags);

#ifdef __cplusplus
}
#endif
#endif
