/* Access lists: IPv4 addresses and networks, from a text file or entry by entry.
 *
 * The file has a line for each entry: "a.b.c.d", "a.b.c.d/n" with a prefix of n bits, or "all", in any case,
 * which lets in everybody (as does any other line that begins with these three letters). Empty lines and
 * those that begin with "#" count for nothing. A line that is none of these, or has more than 1023 bytes, is
 * logged and passed over.
 *
 * A list has no lock: no thread may use it while another changes it. The names are not for other headers to
 * meet, so vorn.h doesn't include this one. */
#ifndef VORN_ACL_H
#define VORN_ACL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One entry of a list. */
typedef struct acl_entry {
    uint32_t ip;            /* in network order, only the bits of the prefix */
    int32_t mask;           /* prefix length, 0 to 32 */
    struct acl_entry *next; /* null in the last one */
} acl_entry;

/* A list: its entries in the order in which they came. */
typedef struct acl {
    acl_entry *head, *tail; /* null when empty */
    int32_t count;          /* entries */
} acl;

/* Row n has n leading one bits, in network order from the first _acl_create of the process on; before that in
 * host order, and the flag is 0. Not to be written. */
extern uint32_t __vorn_acl_mask_tab[33];   /* the masks */
extern int32_t __vorn_acl_mask_tab_inited; /* 1: in network order */

/* Reads a list from a file, which is made, empty, if it isn't there and `create` isn't 0. The list is the
 * caller's, for _acl_destroy. Null: `file` is null, it can't be opened or read, or there is no memory. */
acl *_acl_create(const char *file, int create);

/* Frees a list and its entries. 1, also for null. */
int _acl_destroy(acl *list);

/* Appends an entry to a list from _acl_create; `ip` is in network order. 1, 0 if the list has it already, or
 * -1: `list` is null, `ip` is 255.255.255.255, `mask` isn't a prefix length, or there is no memory. */
int _acl_add(acl *list, unsigned ip, int mask);

/* Takes the entry of just this network out. 1, 0 if there is none, or -1 as for
 * _acl_add. */
int _acl_del(acl *list, unsigned ip, int mask);

/* 1 if an entry covers the address, else 0; always 0 for 255.255.255.255. */
int _acl_search(acl *list, unsigned ip);

/* Appends an entry to the file, below a comment with the time; the file is made if it isn't there. A `mask`
 * of 0 adds the single address. The text of the address isn't looked at, but must be on one line. 1, or -1:
 * null, `mask` isn't a prefix length, or the file can't be written. */
int _acl_add_to_file(const char *file, const char *address, int mask);

/* Always -1: an entry is taken out of a file with an editor. */
int _acl_del_from_file(const char *file, const char *address, int mask);

#ifdef __cplusplus
}
#endif
#endif
