/* Typed buffers: what travels in calls.
 *
 * A buffer is a heap block with a hidden 136-byte header in front of the pointer that the application
 * sees, so that it can be sent as it stands and a reply can be received into it. It belongs to the
 * application from tpalloc to tpfree; a call that receives may replace it, and gives the pointer back. A
 * buffer is used by one thread at a time. */
#ifndef VORN_BUFFERS_H
#define VORN_BUFFERS_H

#ifdef __cplusplus
extern "C" {
#endif

/* Types: "STRING", "CARRAY", "X_OCTET", "FIELD", "FML", "FML32", "STRUCT", "VIEW", "X_C_TYPE", "X_COMMON"
 * (the last four with the name of a struct as subtype), "TPSTART", "TPINIT", "HEADER". */

/* A new buffer of `size` zeroed bytes, at least the type's smallest size (1024; 76 for "TPSTART", 108 for
 * "TPINIT"). `subtype` may be null; its first 16 characters count. With VORN_STRING_NULL=y a "STRING" of
 * 1024 bytes or more gets one byte more. Null with tperrno: TPEINVAL (type is null), TPENOENT (unknown
 * type or struct), TPEOS (no memory). */
char *tpalloc(char *type, char *subtype, long size);

/* Makes the buffer `size` bytes large, by the same rules; what it held stays as far as it fits, what is
 * added is zeroed, and a "STRING" gets a NUL at its end. The buffer may move: the old pointer is then
 * gone. Null with tperrno: TPEINVAL (no typed buffer), TPENOENT (unknown kind), TPEOS (no memory; the old
 * buffer stands). */
char *tprealloc(char *ptr, long size);

/* Stores the type's name (16 bytes at least) and the subtype (16 bytes, without a NUL if it is that long)
 * where the pointers aren't null. The buffer's size in bytes, or -1 with TPEINVAL. An alias reports its
 * main name: "CARRAY" for "X_OCTET", "FIELD" for "FML" and "FML32", "STRUCT" for "VIEW", "X_C_TYPE" and
 * "X_COMMON", "TPSTART" for "TPINIT". */
long tptypes(char *ptr, char *type, char *subtype);

/* Ends a buffer. Null, and a pointer that isn't a typed buffer, are ignored. A buffer is freed once: a
 * second time is mostly noticed and ignored, but the memory may be gone by then. */
void tpfree(char *ptr);

/* Numbers of the kinds, as tpgettype gives them. */
#define TPBUF_STRUCT 1     /* STRUCT, VIEW, X_C_TYPE, X_COMMON */
#define TPBUF_FIELD 2      /* FIELD, FML, FML32 */
#define TPBUF_STRING 3     /* STRING */
#define TPBUF_CARRAY 4     /* CARRAY, X_OCTET */
#define TPBUF_START 5      /* TPSTART, TPINIT */
#define TPBUF_HEADER 9     /* HEADER: no data */
#define TPBUF_RQ_STRUCT 11 /* struct data behind a queue control record */
#define TPBUF_RQ_FIELD 12  /* field data behind a queue control record */

/* Size, number of the kind, and subtype of a buffer (16 bytes, in the buffer itself). Unchecked: `ptr`
 * must be a live typed buffer. */
int tpgetasize(char *ptr);     /* size of a buffer in bytes */
int tpgettype(char *ptr);      /* number of its kind */
char *tpgetsubtype(char *ptr); /* its subtype */

/* tphton and tpntoh are for applications that carry messages by themselves: they go between a typed buffer
 * and a block of bytes that any host can take, header and data in wire order. No session is needed. */

/* Makes a block of the buffer `data`, of which `len` bytes count (by the rules of a call: a struct counts
 * whole records, a field buffer what is used, a string its NUL; null gives a header alone). `*out` takes
 * the block, which the caller frees with free(), and `*outlen` its length in bytes. The buffer's data
 * stays; its hidden header is made that of a request, so no call may be waiting with this buffer
 * meanwhile. 1, or -1 with tperrno: TPEINVAL (`out` or `outlen` is null, `len` is beyond the buffer),
 * TPEITYPE (no typed buffer, unknown struct), TPESYSTEM (no memory), 0 (the data can't be encoded). */
int tphton(char *data, long len, char **out, long *outlen);

/* The way back: makes a typed buffer of the `inlen` bytes at `in`, which stay as they are. `*out` takes the
 * buffer, which the caller ends with tpfree, and `*outlen` the length of its data in bytes. Records of a
 * struct may be longer than on the wire. 1, or -1 with tperrno: TPEINVAL (`out` or `outlen` is null, or the
 * bytes are no whole message), TPEOS (no memory), TPEOTYPE (unknown struct), TPESYSTEM (the data can't be
 * decoded). */
int tpntoh(char *in, long inlen, char **out, long *outlen);

#ifdef __cplusplus
}
#endif
#endif
