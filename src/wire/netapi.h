// Exact-length reads and writes, select() probes, descriptor flags. Plain helpers without state of their own.
#ifndef VORN_WIRE_NETAPI_H
#define VORN_WIRE_NETAPI_H

#include <stddef.h>
#include <stdint.h>
#include <sys/select.h>

struct wthr_var;

extern "C" {

// A set of 16,384 descriptors. A select over it may name any of them, where the C library's stops at 1,024.
// Only the words up to the highest descriptor are cleared, passed and looked at, so that a set costs a word
// or two and not its two kilobytes.
constexpr int WIDE_SET_BITS = 16384;
struct wide_set {
    uint64_t words[WIDE_SET_BITS / 64];
    int highest;  // largest descriptor that has room; -1: none
};
void wide_set_clear(wide_set *set, int highest);  // makes room for descriptors up to `highest`
bool wide_set_add(wide_set *set, int fd);         // false for one without room, and for a negative one
bool wide_set_has(const wide_set *set, int fd);   // false for those, too
// select over up to three sets, null for none, all cleared with the same `highest`; null `limit`: no limit.
int wide_set_select(wide_set *readable, wide_set *writable, wide_set *urgent, struct timeval *limit);

int _vorn_readn(int fd, void *buffer, int length, wthr_var *block);
int _vorn_writen(int fd, const void *buffer, int length);
int _vorn_writen_urg(int fd, const void *buffer, int length);
int _vorn_read_timeout(int fd, void *buffer, int length, int seconds, int exact, wthr_var *block);
int _vorn_read_check(int fd, int seconds);
int _vorn_eset_check(int fd);
// The blocking wait of the receive path: the socket to read next, the old one first; at once the one that has
// bytes read ahead. -1 without a socket, -2 when select failed (errno tells; EINTR is the caller's to judge),
// -3 when the time is up, or the reader has been woken to look at the sockets anew. A negative number of
// milliseconds is no limit; _vorn_rset_check has none. For the thread with the reader role; takes roll_mutex
// when urgent data is there.
int wait_readable(wthr_var *block, int milliseconds);
int _vorn_rset_check(wthr_var *block);
int pipe_readn(int fd, void *buffer, int length);
int pipe_writen(int fd, const void *buffer, int length);

int _set_fl(int fd, int flags);
int _clr_fl(int fd, int flags);
int _show_fl(int fd);
int _set_fd(int fd, int value);
int _valid_fd(int fd);
}

#endif
