/* libsqz: compression of one message at a time. No state, no allocation that outlives a call: both functions
 * may run on any number of threads at once.
 *
 * The bytes are told in FORMAT.md. A site can replace the library by another with these two names, on both
 * ends of the connection.
 */
#ifndef VORN_SQZ_H
#define VORN_SQZ_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Results. A failure also sets errno, to the value that stands behind it. EARGUMENT is a null pointer, a
 * negative length or a source above 2,147,483,647 bytes; EROOM a result that doesn't fit into the room given;
 * EDAMAGED a source that is nothing that _vorn_compress makes.
 */
#define SQZ_OK 0
#define SQZ_EARGUMENT (-101) /* EINVAL */
#define SQZ_EROOM (-102)     /* ENOSPC */
#define SQZ_EDAMAGED (-103)  /* EBADMSG */

/* A source of n bytes always fits into n + SQZ_OVERHEAD bytes, whatever is in it. */
#define SQZ_OVERHEAD 8

/* Compresses `source_length` bytes at `source` into `destination`. *length holds the room at the destination
 * in bytes on entry and the length of the result afterwards; on failure it stays as it was, and what stands
 * in the room is undefined. Never writes beyond the room. The two areas must not overlap. Returns SQZ_OK or
 * one of the errors above.
 */
int _vorn_compress(void *destination, int64_t *length, const void *source, int64_t source_length);

/* The way back, with the same arguments. The source is taken as hostile: nothing outside of the two areas is
 * read or written, whatever it says, and it must be the result of _vorn_compress to its last byte.
 */
int _vorn_uncompress(void *destination, int64_t *length, const void *source, int64_t source_length);

#ifdef __cplusplus
}
#endif

#endif
