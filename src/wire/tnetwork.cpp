// Local stream sockets.
#include "wire/tnetwork.h"

#include "wire/netapi.h"
#include "wire/network.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

extern "C" {

int32_t _tlisten_backlog = 127;

// What is added to a path's length for the length of its address. The two ends differ, and needn't agree: the
// kernel takes the path up to its first zero.
static constexpr socklen_t LISTEN_EXTRA = 2, CONNECT_EXTRA = 10;

struct local_address {
    struct sockaddr_un name;
    socklen_t length;
};

// False for a path that isn't one: an empty one would name a socket outside the file system, and one of more
// than 108 bytes has no room. A long path's address is cut to what the kernel accepts; only zeros are lost.
static bool make_address(const char *path, socklen_t extra, local_address *address)
{
    size_t length = path == nullptr ? 0 : strlen(path);
    if (length == 0 || length > sizeof address->name.sun_path) {
        errno = length == 0 ? EINVAL : ENAMETOOLONG;
        return false;
    }
    memset(&address->name, 0, sizeof address->name);
    address->name.sun_family = AF_UNIX;
    memcpy(address->name.sun_path, path, length);
    address->length = (socklen_t)length + extra;
    if (address->length > sizeof address->name)
        address->length = sizeof address->name;
    return true;
}

int _tproc_listen(const char *path)
{
    local_address address;
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0)
        return NET_FAILED;
    if (!make_address(path, LISTEN_EXTRA, &address))
        return close_failed(fd, NET_BIND_FAILED);
    unlink(path);
    if (bind(fd, (struct sockaddr *)&address.name, address.length) < 0)
        return close_failed(fd, NET_BIND_FAILED);
    if (listen(fd, _tlisten_backlog) < 0)
        return close_failed(fd, NET_LISTEN_FAILED);
    return fd;
}

int _tproc_accept(int fd)
{
    int accepted = accept(fd, nullptr, nullptr);
    return accepted < 0 ? NET_FAILED : accepted;
}

int _tproc_connect(const char *path)
{
    local_address address;
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0)
        return NET_FAILED;
    if (!make_address(path, CONNECT_EXTRA, &address) ||
        connect(fd, (struct sockaddr *)&address.name, address.length) < 0)
        return close_failed(fd, NET_NAME_FAILED);
    return fd;
}

// A non-blocking connect to a listener whose backlog is full isn't begun, and nothing tells when there is
// room again. A blocking one queues for it, within the socket's time limit for sending. 1 or -1.
static int queue_for_room(int fd, const local_address *address, int seconds, int microseconds)
{
    _clr_fl(fd, O_NONBLOCK);
    struct timeval limit = {seconds < 0 ? 0 : seconds, microseconds < 0 ? 0 : microseconds}, none = {0, 0};
    limit.tv_sec += limit.tv_usec / 1000000;
    limit.tv_usec %= 1000000;
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);  // zero, as well: no limit
    int result = connect(fd, (const struct sockaddr *)&address->name, address->length);
    if (result < 0) {
        if (errno == EAGAIN || errno == EINTR)
            errno = ETIME;
        return -1;
    }
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &none, sizeof none);
    return 1;
}

int _tproc_connect_with_timeout(const char *path, int seconds, int microseconds)
{
    local_address address;
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0)
        return NET_FAILED;
    if (!make_address(path, CONNECT_EXTRA, &address))
        return close_failed(fd, NET_NAME_FAILED);
    int result = start_connect(fd, (struct sockaddr *)&address.name, address.length);
    if (result == 0 && errno == EAGAIN)
        result = queue_for_room(fd, &address, seconds, microseconds);
    else if (result == 0)
        result = finish_connect(fd, seconds, microseconds);
    return result == 1 ? fd : close_failed(fd, NET_NAME_FAILED);
}
}
