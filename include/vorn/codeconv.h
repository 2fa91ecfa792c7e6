/* Character conversion between ASCII and EBCDIC (close to code page 037).
 *
 * The two tables are not the inverse of one another: what has no counterpart becomes "?" on the way to ASCII
 * and a blank (0x40) on the way to EBCDIC. The names of the tables are short, so vorn.h doesn't include this
 * header. */
#ifndef VORN_CODECONV_H
#define VORN_CODECONV_H

#ifdef __cplusplus
extern "C" {
#endif

extern const unsigned char ebcdic[256]; /* by EBCDIC byte: the ASCII byte */
extern const unsigned char ascii[256];  /* by ASCII byte: the EBCDIC byte */

/* Convert `len` bytes; `to` may be `from`. The number of bytes; 0 for a `len` below 1, and for null. */
int _vorn_toascii(char *to, const char *from, int len);  /* converts EBCDIC to ASCII */
int _vorn_toebcdic(char *to, const char *from, int len); /* converts ASCII to EBCDIC */

/* From and to the character set of this host. That is ASCII, so both only copy. 1. */
int _toebcdic(char *to, const char *from, int len);
int _toascii(char *to, const char *from, int len);

#ifdef __cplusplus
}
#endif
#endif
