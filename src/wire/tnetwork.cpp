// Local stream sockets, process and node messages.
#include "wire/tnetwork.h"

#include "runtime/errlog.h"
#include "runtime/mthr.h"
#include "wire/msgheader.h"
#include "wire/netapi.h"
#include "wire/network.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

extern "C" {

int32_t _tlisten_backlog = 127;
int32_t _my_nodeno = 0;

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

// --- Messages.

static constexpr int32_t FIRST_BLOCK = 1000;  // most messages fit, header included
static constexpr int32_t RECOVER_ROW = 20;    // four words that are turned, and one that isn't
static constexpr int RECOVER_WORDS = 4;

enum link_order { HOST_ORDER, WIRE_ORDER };

// The data of a message behind its header, for which the block grows. Null if it fails; the block is the
// caller's in any case.
static msg_header *read_data(int fd, msg_header **block, wthr_var *variables, int32_t *status)
{
    int32_t length = (*block)->datalen;
    size_t size = (size_t)HEADER_SIZE + (size_t)(length < 0 ? 0 : length);
    if (size > FIRST_BLOCK) {
        msg_header *larger = (msg_header *)realloc(*block, size);
        if (larger == nullptr) {
            *status = LINK_NO_MEMORY;
            return nullptr;
        }
        *block = larger;
    }
    if (length < 0 || _vorn_readn(fd, message_data(*block), length, variables) != length) {
        *status = LINK_SHORT_DATA;
        return nullptr;
    }
    return *block;
}

// Header and data into the block, as read_data.
static msg_header *read_into(int fd, link_order order, msg_header **block, wthr_var *variables,
                             int32_t *status)
{
    int got = _vorn_readn(fd, *block, HEADER_SIZE, variables);
    if (got != HEADER_SIZE) {
        *status = got == 0 ? LINK_CLOSED : LINK_SHORT_HEADER;
        return nullptr;
    }
    if (order == WIRE_ORDER)
        _ntoh_header(*block, *block);
    if ((*block)->magic != MESSAGE_MAGIC) {
        *status = LINK_BAD_MAGIC;
        return nullptr;
    }
    return (*block)->datalen == 0 ? *block : read_data(fd, block, variables, status);
}

static msg_header *read_message(int fd, link_order order, wthr_var *variables, int32_t *status)
{
    *status = LINK_GOOD;
    msg_header *block = (msg_header *)malloc(FIRST_BLOCK);
    if (block == nullptr) {
        *status = LINK_NO_MEMORY;
        return nullptr;
    }
    msg_header *message = read_into(fd, order, &block, variables, status);
    if (message == nullptr)
        free(block);
    return message;
}

msg_header *_read_procmsg_sync(int fd)
{
    wthr_var *block = current_block();
    return block == nullptr ? nullptr : read_message(fd, HOST_ORDER, block, &block->proc_read_status);
}

msg_header *_read_nodemsg_sync(int fd)
{
    wthr_var *block = current_block();
    return block == nullptr ? nullptr : read_message(fd, WIRE_ORDER, block, &block->node_read_status);
}

// The bytes of a message as it goes out; -1 if there is no message, or its length can't be.
static int whole_length(const msg_header *message)
{
    if (message == nullptr || message->datalen < 0 || message->datalen > INT_MAX - HEADER_SIZE) {
        errno = EINVAL;
        return -1;
    }
    return message->datalen + HEADER_SIZE;
}

int _write_procmsg_sync(int fd, msg_header *message)
{
    int length = whole_length(message);
    if (length < 0)
        return -1;
    errno = 0;
    return _vorn_writen(fd, message, length) == length ? 1 : -1;
}

int _write_nodemsg_sync(int fd, msg_header *message)
{
    int length = whole_length(message);
    if (length < 0)
        return -1;
    _hton_header(message, message);
    return _vorn_writen(fd, message, length) == length ? 1 : -1;
}

// The fields that every form sets.
struct link_fields {
    int32_t msgtype, rcode, cd, target;
    uint32_t flags;
    int32_t length;
    const void *data;
};

// A message with room for its data; null without, with a line under `code`.
static msg_header *make_data_message(const link_fields *fields, const char *code)
{
    if (fields->length < 0 || fields->length > INT_MAX - HEADER_SIZE ||
        (fields->length > 0 && fields->data == nullptr)) {
        errno = EINVAL;
        return nullptr;
    }
    int size = HEADER_SIZE + fields->length;
    msg_header *message = (msg_header *)malloc((size_t)size);
    if (message == nullptr) {
        VORN_LOG(1, LEVEL_ERROR, code, "0003 memory allocation error : size = %d", size);
        return nullptr;
    }
    _init_header(message);
    message->msgtype = fields->msgtype;
    message->rcode = fields->rcode;
    if (fields->length > 0)
        memcpy(message_data(message), fields->data, (size_t)fields->length);
    return message;
}

// A message without a code for its memory is a bare header, which logs under its own. Null if there is none.
static msg_header *make_message(const link_fields *fields, int32_t buftype, const char *code)
{
    msg_header *message =
        code != nullptr ? make_data_message(fields, code) : _header_msg_make(fields->msgtype, fields->rcode);
    if (message == nullptr)
        return nullptr;
    message->buftype = buftype;
    message->bufsize = message->datalen = fields->length;
    message->cd = fields->cd;
    message->target = fields->target;
    message->flags = fields->flags;
    return message;
}

// Writes a message, or nothing, and frees it.
static int write_and_free(int fd, link_order order, msg_header *message)
{
    if (message == nullptr)
        return -1;
    int result = order == HOST_ORDER ? _write_procmsg_sync(fd, message) : _write_nodemsg_sync(fd, message);
    free(message);
    return result;
}

static int send_to_process(int fd, const link_fields &fields, const char *code)
{
    return write_and_free(fd, HOST_ORDER, make_message(&fields, _my_tproc, code));
}

static int send_to_node(int fd, const link_fields &fields, const char *code)
{
    return write_and_free(fd, WIRE_ORDER, make_message(&fields, _my_nodeno, code));
}

// A text from `value` on stops in front of the service name: what stands behind it is the message's own.
static int send_named(int fd, const link_fields &fields, const char *name, const char *text)
{
    msg_header *message = make_message(&fields, _my_tproc, nullptr);
    if (message != nullptr && name != nullptr)
        memcpy(message->svcname, name, strnlen(name, sizeof message->svcname));
    if (message != nullptr && text != nullptr)
        put_name((char *)message + offsetof(msg_header, value),
                 offsetof(msg_header, svcname) - offsetof(msg_header, value), text);
    return write_and_free(fd, HOST_ORDER, message);
}

int _send_procmsg_nodata(int fd, int32_t msgtype, int32_t rcode, int32_t cd, uint32_t flags)
{
    return send_to_process(fd, {msgtype, rcode, cd, 0, flags, 0, nullptr}, nullptr);
}

int _send_procmsg_nodata_svcname(int fd, int32_t msgtype, const char *name, int32_t rcode, int32_t cd,
                                 uint32_t flags)
{
    return send_named(fd, {msgtype, rcode, cd, 0, flags, 0, nullptr}, name, nullptr);
}

int _send_procmsg_nodata_svcname2(int fd, int32_t msgtype, const char *name, const char *text, int32_t rcode,
                                  int32_t cd, uint32_t flags)
{
    return send_named(fd, {msgtype, rcode, cd, 0, flags, 0, nullptr}, name, text);
}

int _send_procmsg_nodata_3(int fd, int32_t msgtype, int32_t rcode, int32_t cd, int32_t target, uint32_t flags)
{
    return send_to_process(fd, {msgtype, rcode, cd, target, flags, 0, nullptr}, nullptr);
}

int _send_procmsg_data(int fd, int32_t msgtype, int32_t rcode, int32_t cd, uint32_t flags, int32_t length,
                       const void *data)
{
    return send_to_process(fd, {msgtype, rcode, cd, 0, flags, length, data}, "COM0007");
}

int _send_procmsg_data_3(int fd, int32_t msgtype, int32_t rcode, int32_t cd, int32_t target, uint32_t flags,
                         int32_t length, const void *data)
{
    return send_to_process(fd, {msgtype, rcode, cd, target, flags, length, data}, "COM0006");
}

int _send_nodemsg_nodata(int fd, int32_t msgtype, int32_t rcode, int32_t cd, uint32_t flags)
{
    return send_to_node(fd, {msgtype, rcode, cd, 0, flags, 0, nullptr}, nullptr);
}

int _send_nodemsg_data(int fd, int32_t msgtype, int32_t rcode, int32_t cd, uint32_t flags, int32_t length,
                       const void *data)
{
    return send_to_node(fd, {msgtype, rcode, cd, 0, flags, length, data}, "COM0012");
}

// --- Recovery lists.

static void turn_word(char *word)
{
    uint32_t turned = get_word(word);
    memcpy(word, &turned, sizeof turned);
}

// Turning is its own inverse, so both directions share it. A list that tells more rows than there is data is
// refused whole: whoever reads it goes by its number.
static int turn_recover_data(msg_header *message)
{
    if (message->msgtype != MSG_TX_RECOVER && message->msgtype != MSG_TX_RECOVER + REPLY)
        return -1;
    if (_endian == 1)
        return 1;
    if ((int64_t)message->rcode * RECOVER_ROW > message->datalen)
        return -1;
    for (int32_t row = 0; row < message->rcode; row++) {
        char *word = message_data(message) + (ptrdiff_t)row * RECOVER_ROW;
        for (int i = 0; i < RECOVER_WORDS; i++, word += sizeof(uint32_t))
            turn_word(word);
    }
    return 1;
}

int _hton_recover_data(msg_header *message)
{
    return turn_recover_data(message);
}

int _ntoh_recover_data(msg_header *message)
{
    return turn_recover_data(message);
}
}
