// TCP sockets over IPv4: listening, accepting, connecting. Plain helpers without state; any thread, no lock.
//
// A result below 0 is one of NET_*, and then nothing is left open; errno tells why. `ip` is an address in
// network order; with 0 and -1 `host` is looked up instead. Ports are in host order; one outside 0 to 65535
// is refused with EINVAL where it would be used.
#ifndef VORN_WIRE_NETWORK_H
#define VORN_WIRE_NETWORK_H

#include <stdint.h>
#include <sys/socket.h>

extern "C" {

constexpr int NET_FAILED = -1;  // no socket, no such name, or no connection
constexpr int NET_BIND_FAILED = -2;
constexpr int NET_LISTEN_FAILED = -3;
constexpr int NET_NAME_FAILED = -4;  // the own port couldn't be read; for local sockets: no connection

// Backlog 127. The second form doesn't reuse an address in TIME_WAIT. The fourth takes the port from `*port`
// (0 without a pointer) and stores the one it got.
int _network_listen(int port);
int _network_listen2(int port);
int _network_listen_ipaddr(int32_t ip, int port);
int _network_listen_ipaddr2(int32_t ip, int *port);

// Accepted sockets have SO_KEEPALIVE.
int _network_accept(int fd);
int _network_accept2(int fd, int32_t *peer);  // `*peer`, if given, takes the address in network order

int _network_connect(const char *host, int32_t ip, int port);
int _network_connect2(const char *host, int32_t ip, int port, int local_port);

// With a limit; none if both parts of it are below 1. The socket is blocking again. ETIME when time is up.
int _network_connect_with_timeout(const char *host, int32_t ip, int port, int seconds);
int _network_connect_with_timeout2(const char *host, int32_t ip, int port, int seconds, int local_port);
int _network_connect_with_timeout3(const char *host, int32_t ip, int port, int seconds, int microseconds);

// 1: connected, `*fd` is blocking. 0: under way, `*fd` is non-blocking and the caller's to finish.
int _network_connect_nb(const char *host, int32_t ip, int port, int *fd);
int _network_connect_nb2(const char *host, int32_t ip, int port, int *fd, int local_port);

// The steps of a timed connect, shared with the local sockets. They leave closing to the caller.
int start_connect(int fd, const struct sockaddr *address, socklen_t length);  // 1, 0 under way, -1
int finish_connect(int fd, int seconds, int microseconds);                    // 1 or -1
int close_failed(int fd, int result);  // closes, keeps errno, gives `result`

const char *_vorn_peerip(int fd);             // dotted, in a buffer of the calling thread; "Unknown"
int32_t _vorn_getipbyname(const char *name);  // network order; -1: no such name
}

#endif
