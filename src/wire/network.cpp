// TCP sockets over IPv4.
#include "wire/network.h"

#include "runtime/errlog.h"
#include "wire/netapi.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

extern "C" {

static constexpr int TCP_BACKLOG = 127;
static constexpr int32_t UNKNOWN_IP = -1;
// Buffer of a name lookup: the answer of a name with very many addresses.
static constexpr size_t LOOKUP_ROOM = 2048, MOST_LOOKUP_ROOM = 262144;

// Where a connect reports its failures; a null name is a lookup that fails in silence.
struct connect_codes {
    const char *socket, *lookup, *reuse;
};
static const connect_codes codes_connect = {"COM0105", "COM0104", nullptr};
static const connect_codes codes_timeout3 = {"COM0107", "COM0106", nullptr};
static const connect_codes codes_nb = {"COM0108", nullptr, nullptr};
static const connect_codes codes_connect2 = {"COM0109", "COM0111", "COM1010"};
static const connect_codes codes_timeout2 = {"COM0112", "COM0114", "COM0113"};
static const connect_codes codes_nb2 = {"COM0115", nullptr, "COM0116"};

struct destination {
    const char *host;
    int32_t ip;
    int port;
};

int close_failed(int fd, int result)
{
    int cause = errno;
    close(fd);
    errno = cause;
    return result;
}

static bool set_option(int fd, int option, const char *code)
{
    int on = 1;
    if (setsockopt(fd, SOL_SOCKET, option, &on, sizeof on) == 0)
        return true;
    // The text ends in a bare percent sign, which leaves no place for the option's name.
    VORN_LOG(1, LEVEL_ERROR, code, "%s", "0062 setsockopt error : %");
    return false;
}

// False with EINVAL for a port that isn't one: cut to 16 bits it would name somebody else's.
static bool make_address(int32_t ip, int port, struct sockaddr_in *address)
{
    if (port < 0 || port > 65535) {
        errno = EINVAL;
        return false;
    }
    memset(address, 0, sizeof *address);
    address->sin_family = AF_INET;
    address->sin_port = htons((uint16_t)port);
    address->sin_addr.s_addr = (uint32_t)ip;
    return true;
}

static int bind_port(int fd, int32_t ip, int port)
{
    struct sockaddr_in own;
    if (!make_address(ip, port, &own))
        return -1;
    return bind(fd, (struct sockaddr *)&own, sizeof own);
}

// `reuse_code`: where a failing SO_REUSEADDR is logged; null: it isn't set.
static int listening_socket(int32_t ip, int port, const char *reuse_code)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return NET_FAILED;
    if (reuse_code != nullptr)
        set_option(fd, SO_REUSEADDR, reuse_code);
    if (bind_port(fd, ip, port) < 0)
        return close_failed(fd, NET_BIND_FAILED);
    if (listen(fd, TCP_BACKLOG) < 0)
        return close_failed(fd, NET_LISTEN_FAILED);
    return fd;
}

int _network_listen(int port)
{
    return listening_socket((int32_t)INADDR_ANY, port, "COM0101");
}

int _network_listen2(int port)
{
    return listening_socket((int32_t)INADDR_ANY, port, nullptr);
}

int _network_listen_ipaddr(int32_t ip, int port)
{
    return listening_socket(ip, port, "COM0101");
}

int _network_listen_ipaddr2(int32_t ip, int *port)
{
    int fd = listening_socket(ip, port == nullptr ? 0 : *port, "COM0117");
    if (fd < 0 || port == nullptr)
        return fd;
    struct sockaddr_in own;
    socklen_t length = sizeof own;
    if (getsockname(fd, (struct sockaddr *)&own, &length) < 0)
        return close_failed(fd, NET_NAME_FAILED);
    *port = ntohs(own.sin_port);
    return fd;
}

int _network_accept(int fd)
{
    return _network_accept2(fd, nullptr);
}

int _network_accept2(int fd, int32_t *peer)
{
    struct sockaddr_in address;
    socklen_t length = sizeof address;
    memset(&address, 0, sizeof address);
    int accepted = accept(fd, (struct sockaddr *)&address, &length);
    if (accepted < 0)
        return NET_FAILED;
    if (!set_option(accepted, SO_KEEPALIVE, "COM0103"))
        return close_failed(accepted, NET_FAILED);
    if (peer != nullptr)
        *peer = (int32_t)address.sin_addr.s_addr;
    return accepted;
}

static bool server_address(const destination *to, const char *lookup_code, struct sockaddr_in *address)
{
    int32_t ip = to->ip;
    if (ip == 0 || ip == UNKNOWN_IP) {
        ip = _vorn_getipbyname(to->host);
        if (ip == UNKNOWN_IP) {
            const char *host = to->host == nullptr ? "" : to->host;
            if (lookup_code != nullptr)
                VORN_LOG(0, LEVEL_ERROR, lookup_code, "0063 gethostbyname error : %s", host);
            return false;
        }
    }
    return make_address(ip, to->port, address);
}

// A socket that is ready to connect, and the address to connect to. A local port is bound before the name is
// looked up; without one the name comes first, and a wrong one costs no socket.
static int unconnected_socket(const destination *to, const int *local_port, const connect_codes *codes,
                              struct sockaddr_in *address)
{
    if (local_port == nullptr && !server_address(to, codes->lookup, address))
        return NET_FAILED;
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        VORN_LOG(1, LEVEL_ERROR, codes->socket, "0040 socket init error");
        return NET_FAILED;
    }
    if (local_port == nullptr)
        return fd;
    set_option(fd, SO_REUSEADDR, codes->reuse);
    if (bind_port(fd, (int32_t)INADDR_ANY, *local_port) < 0)
        return close_failed(fd, NET_BIND_FAILED);
    if (!server_address(to, codes->lookup, address))
        return close_failed(fd, NET_FAILED);
    return fd;
}

int start_connect(int fd, const struct sockaddr *address, socklen_t length)
{
    errno = 0;
    if (_set_fl(fd, O_NONBLOCK) < 0)
        return -1;
    if (connect(fd, address, length) == 0) {
        _clr_fl(fd, O_NONBLOCK);
        return 1;
    }
    return errno == EAGAIN || errno == EINPROGRESS ? 0 : -1;
}

// 1 once the socket is writable, -1 with ETIME, also when a signal ends the wait.
static int wait_writable(int fd, int seconds, int microseconds)
{
    wide_set writable, failed;
    wide_set_clear(&writable, fd);
    wide_set_clear(&failed, fd);
    bool fits = wide_set_add(&writable, fd) && wide_set_add(&failed, fd);
    struct timeval limit = {seconds < 0 ? 0 : seconds, microseconds < 0 ? 0 : microseconds};
    bool limited = seconds > 0 || microseconds > 0;
    if (!fits || wide_set_select(nullptr, &writable, &failed, limited ? &limit : nullptr) < 1 ||
        !wide_set_has(&writable, fd)) {
        errno = ETIME;
        return -1;
    }
    return 1;
}

int finish_connect(int fd, int seconds, int microseconds)
{
    if (wait_writable(fd, seconds, microseconds) < 0)
        return -1;
    int cause = ECONNREFUSED;  // if it can't even be asked, there is no connection
    socklen_t length = sizeof cause;
    (void)getsockopt(fd, SOL_SOCKET, SO_ERROR, &cause, &length);
    if (cause != 0) {
        errno = cause;
        return -1;
    }
    // A connect that ended in EAGAIN was never begun; such a socket is writable, and has no error either.
    struct sockaddr_storage peer;
    length = sizeof peer;
    if (getpeername(fd, (struct sockaddr *)&peer, &length) < 0)
        return -1;
    _clr_fl(fd, O_NONBLOCK);
    return 1;
}

static int connect_blocking(const destination *to, const int *local_port, const connect_codes *codes)
{
    struct sockaddr_in address;
    int fd = unconnected_socket(to, local_port, codes, &address);
    if (fd < 0)
        return fd;
    if (connect(fd, (struct sockaddr *)&address, sizeof address) < 0)
        return close_failed(fd, NET_FAILED);
    return fd;
}

static int connect_timed(const destination *to, const int *local_port, const connect_codes *codes,
                         int seconds, int microseconds)
{
    struct sockaddr_in address;
    int fd = unconnected_socket(to, local_port, codes, &address);
    if (fd < 0)
        return fd;
    int result = start_connect(fd, (struct sockaddr *)&address, sizeof address);
    if (result == 0)
        result = finish_connect(fd, seconds, microseconds);
    return result == 1 ? fd : close_failed(fd, NET_FAILED);
}

static int connect_begin(const destination *to, const int *local_port, const connect_codes *codes, int *begun)
{
    if (begun == nullptr) {
        errno = EINVAL;
        return NET_FAILED;
    }
    struct sockaddr_in address;
    int fd = unconnected_socket(to, local_port, codes, &address);
    if (fd < 0)
        return fd;
    int result = start_connect(fd, (struct sockaddr *)&address, sizeof address);
    if (result < 0)
        return close_failed(fd, NET_FAILED);
    *begun = fd;
    return result;
}

int _network_connect(const char *host, int32_t ip, int port)
{
    destination to = {host, ip, port};
    return connect_blocking(&to, nullptr, &codes_connect);
}

int _network_connect2(const char *host, int32_t ip, int port, int local_port)
{
    destination to = {host, ip, port};
    return connect_blocking(&to, &local_port, &codes_connect2);
}

int _network_connect_with_timeout(const char *host, int32_t ip, int port, int seconds)
{
    return _network_connect_with_timeout3(host, ip, port, seconds, 0);
}

int _network_connect_with_timeout2(const char *host, int32_t ip, int port, int seconds, int local_port)
{
    destination to = {host, ip, port};
    return connect_timed(&to, &local_port, &codes_timeout2, seconds, 0);
}

int _network_connect_with_timeout3(const char *host, int32_t ip, int port, int seconds, int microseconds)
{
    destination to = {host, ip, port};
    return connect_timed(&to, nullptr, &codes_timeout3, seconds, microseconds);
}

int _network_connect_nb(const char *host, int32_t ip, int port, int *fd)
{
    destination to = {host, ip, port};
    return connect_begin(&to, nullptr, &codes_nb, fd);
}

int _network_connect_nb2(const char *host, int32_t ip, int port, int *fd, int local_port)
{
    destination to = {host, ip, port};
    return connect_begin(&to, &local_port, &codes_nb2, fd);
}

const char *_vorn_peerip(int fd)
{
    struct sockaddr_in peer;
    socklen_t length = sizeof peer;
    if (getpeername(fd, (struct sockaddr *)&peer, &length) < 0 || peer.sin_family != AF_INET)
        return "Unknown";
    return inet_ntoa(peer.sin_addr);  // the C library keeps a buffer for each thread
}

// One lookup into `room`. ERANGE if the room is too small.
static int look_up(const char *name, char *room, size_t size, int32_t *ip)
{
    struct hostent entry, *found = nullptr;
    int cause = 0;
    int result = gethostbyname_r(name, &entry, room, size, &found, &cause);
    bool usable = result == 0 && found != nullptr && found->h_addrtype == AF_INET &&
                  found->h_length == (int)sizeof *ip && found->h_addr_list[0] != nullptr;
    if (usable)
        memcpy(ip, found->h_addr_list[0], sizeof *ip);
    return result;
}

// The plain gethostbyname isn't for several threads; this form is, and gives the same first address.
int32_t _vorn_getipbyname(const char *name)
{
    if (name == nullptr)
        return UNKNOWN_IP;
    int32_t ip = (int32_t)inet_addr(name);
    if (ip != UNKNOWN_IP)
        return ip;
    char small[LOOKUP_ROOM];
    if (look_up(name, small, sizeof small, &ip) != ERANGE)
        return ip;
    for (size_t size = LOOKUP_ROOM * 4; size <= MOST_LOOKUP_ROOM; size *= 4) {
        char *room = (char *)malloc(size);
        if (room == nullptr)
            return UNKNOWN_IP;
        int result = look_up(name, room, size, &ip);
        free(room);
        if (result != ERANGE)
            return ip;
    }
    return UNKNOWN_IP;
}
}
