/* Makes the lasting keys with which a server proves to libkexcli who it is. A small library of its own for
 * the tools: libkexcli itself only reads such files, and its interface stays the five names.
 */
#ifndef VORN_KEXCLI_KEYGEN_H
#define VORN_KEXCLI_KEYGEN_H

#ifdef __cplusplus
extern "C" {
#endif

/* What the name of the private file is continued with to name the public one. */
#define KEXCLI_PUBLIC_SUFFIX ".pub"

/* Makes a new pair and writes it into two files: the private half into `path` (rights 0600, for the server's
 * KEXCLI_OWN_KEY), the public one into the same name with ".pub" behind it (0644 less the umask, to be handed
 * to the clients for their KEXCLI_PEER_KEY). The text of both is told in FORMAT.md.
 *
 * Returns 0, or -1 with errno set: EEXIST if either file is there (neither is overwritten, since the clients
 * of a server whose key is gone have to be given another), ENAMETOOLONG, EIO if no key could be made, or what
 * the system said. After a failure no file is left behind that the call has made.
 */
int kexcli_make_key_files(const char *path);

#ifdef __cplusplus
}
#endif

#endif
