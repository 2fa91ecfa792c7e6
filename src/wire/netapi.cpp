// Exact-length reads and writes, select() probes, descriptor flags.
#include "wire/netapi.h"

#include "calls/cscommon.h"
#include "runtime/errlog.h"
#include "runtime/mthr.h"
#include "runtime/thrapi.h"
#include "tx/tx.h"
#include "vorn/errors.h"
#include "wire/clhmatch.h"
#include "wire/clhread.h"

#include <atomic>
#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

extern "C" {

void wide_set_clear(wide_set *set, int highest)
{
    if (highest >= WIDE_SET_BITS)
        highest = WIDE_SET_BITS - 1;
    set->highest = highest < 0 ? -1 : highest;
    for (int i = 0; i <= set->highest / 64; i++)
        set->words[i] = 0;
}

bool wide_set_add(wide_set *set, int fd)
{
    if (fd < 0 || fd > set->highest)
        return false;
    set->words[fd / 64] |= (uint64_t)1 << (fd % 64);
    return true;
}

bool wide_set_has(const wide_set *set, int fd)
{
    return fd >= 0 && fd <= set->highest && (set->words[fd / 64] >> (fd % 64) & 1) != 0;
}

// The kernel reads as many bits as it is told, whatever the size of the C library's type.
int wide_set_select(wide_set *readable, wide_set *writable, wide_set *urgent, struct timeval *limit)
{
    const wide_set *any = readable != nullptr ? readable : writable != nullptr ? writable : urgent;
    int count = any == nullptr ? 0 : any->highest + 1;
    return select(count, readable == nullptr ? nullptr : (fd_set *)readable->words,
                  writable == nullptr ? nullptr : (fd_set *)writable->words,
                  urgent == nullptr ? nullptr : (fd_set *)urgent->words, limit);
}

// select for reading on one descriptor. One that no set can hold is as good as none.
static int select_readable(int fd, struct timeval *limit)
{
    wide_set set;
    wide_set_clear(&set, fd);
    if (!wide_set_add(&set, fd)) {
        errno = EBADF;
        return -1;
    }
    return wide_set_select(&set, nullptr, nullptr, limit);
}

static int64_t now_in_microseconds(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

static struct timeval time_until(int64_t deadline)
{
    int64_t left = deadline - now_in_microseconds();
    if (left < 0)
        left = 0;
    return {(time_t)(left / 1000000), (suseconds_t)(left % 1000000)};
}

// A message that stalls halfway gets the block time for each stall, not for the whole of it; without a block
// time it gets all the time it needs.
// 0 to read on; otherwise the result of the read.
static int wait_out_stall(int fd, bool would_block, wthr_var *block)
{
    if (block != nullptr && block->block_time > 0) {
        int ready = _set_bc_timer3(block->block_time, block, fd);
        return ready == TIMER_EXPIRED ? -TPESYSTEM : ready < 0 ? -1 : 0;
    }
    if (would_block && select_readable(fd, nullptr) < 0 && errno != EINTR)
        return -1;
    return 0;
}

int _vorn_readn(int fd, void *buffer, int length, wthr_var *block)
{
    char *position = (char *)buffer;
    int left = length;
    while (left > 0) {
        ssize_t got = recv(fd, position, (size_t)left, 0);
        if (got > 0) {
            position += got;
            left -= (int)got;
            continue;
        }
        if (got == 0)
            break;
        if (errno != EINTR && errno != EAGAIN)
            return -1;
        if (left < length) {
            int result = wait_out_stall(fd, errno == EAGAIN, block);
            if (result < 0)
                return result;
            continue;
        }
        if (errno == EAGAIN)
            return -TPEBLOCK;
        if (_tx_timeout_check(nullptr) < 0)
            return -TPETIME;
    }
    return length - left;
}

// `in_send` belongs to the context, and several of its threads may be in here on different sockets: it only
// tells the signal handler that one of them is sending.
int _vorn_writen(int fd, const void *buffer, int length)
{
    api_frame frame;
    if (!api_find(&frame))
        return -1;
    if (length < 0) {  // can't be written, and mustn't be taken for a length that was
        errno = EINVAL;
        return -1;
    }
    std::atomic_ref<int32_t> in_send(frame.block->in_send);
    const char *position = (const char *)buffer;
    int left = length;
    while (left > 0) {
        in_send.store(1, std::memory_order_relaxed);
        ssize_t sent = send(fd, position, (size_t)left, 0);
        in_send.store(0, std::memory_order_relaxed);
        if (sent < 1)
            return (int)sent;
        position += sent;
        left -= (int)sent;
    }
    return length;
}

// The same: no byte is sent as urgent.
int _vorn_writen_urg(int fd, const void *buffer, int length)
{
    return _vorn_writen(fd, buffer, length);
}

int _vorn_read_timeout(int fd, void *buffer, int length, int seconds, int exact, wthr_var *block)
{
    if (length < 0) {
        errno = EINVAL;
        return -1;
    }
    int64_t deadline = now_in_microseconds() + (int64_t)seconds * 1000000;
    int ready;
    do {
        struct timeval limit = time_until(deadline);
        ready = select_readable(fd, &limit);
    } while (ready < 0 && errno == EINTR);
    if (ready < 0)
        return -1;
    if (ready == 0) {
        errno = EINTR;
        return -1;
    }
    return exact != 0 ? _vorn_readn(fd, buffer, length, block) : (int)read(fd, buffer, (size_t)length);
}

int _vorn_read_check(int fd, int seconds)
{
    errno = 0;
    struct timeval limit = {seconds, 0};
    return select_readable(fd, &limit);
}

int _vorn_eset_check(int fd)
{
    if (fd < 0)
        return -1;
    errno = 0;
    wide_set urgent;
    wide_set_clear(&urgent, fd);
    if (!wide_set_add(&urgent, fd)) {
        errno = EBADF;
        return -1;
    }
    struct timeval at_once = {0, 0};
    return wide_set_select(nullptr, nullptr, &urgent, &at_once);
}

// The sets of one round of wait_readable. False for a socket that no set can hold.
static bool watch_sockets(int old_fd, int fd, int wake_fd, bool watch_urgent, wide_set *readable,
                          wide_set *urgent)
{
    int highest = old_fd > fd ? old_fd : fd;
    highest = wake_fd > highest ? wake_fd : highest;
    wide_set_clear(readable, highest);
    wide_set_clear(urgent, highest);
    if (old_fd >= 0 && !wide_set_add(readable, old_fd))
        return false;
    if (fd >= 0 && !wide_set_add(readable, fd))
        return false;
    wide_set_add(readable, wake_fd);
    if (fd >= 0 && watch_urgent)
        wide_set_add(urgent, fd);
    return true;
}

// Urgent data stays in the exception set until somebody reads it, and a byte that is no warning isn't read at
// all. So one look at it a call is enough: afterwards the call waits for data only.
int wait_readable(wthr_var *block, int milliseconds)
{
    if (has_read_ahead(block))
        return block->ahead.fd;
    bool limited = milliseconds >= 0, watch_urgent = true;
    int64_t deadline = limited ? now_in_microseconds() + (int64_t)milliseconds * 1000 : 0;
    for (;;) {
        errno = 0;
        int fd = block->clhfd, old_fd = block->old_clhfd;
        if (old_fd < 0 && fd < 0)
            return -1;
        wide_set readable, urgent;
        if (!watch_sockets(old_fd, fd, block->wake_fd, watch_urgent, &readable, &urgent)) {
            errno = EBADF;
            return -2;
        }
        struct timeval limit = {0, 0};
        if (limited)
            limit = time_until(deadline);
        int ready = wide_set_select(&readable, nullptr, &urgent, limited ? &limit : nullptr);
        if (ready < 0)
            return -2;
        if (ready == 0)
            return -3;
        if (wide_set_has(&readable, block->wake_fd)) {
            sleep_again(block);
            return -3;
        }
        if (wide_set_has(&readable, old_fd))
            return old_fd;
        if (!wide_set_has(&urgent, fd))
            return fd;
        _thread_mutex_lock(&block->roll_mutex);
        int result = _recv_oob_msg(fd, block);
        _thread_mutex_unlock(&block->roll_mutex);
        watch_urgent = false;
        // A caller with a limit would lose it in the read to come, so it goes on waiting for data.
        if (limited)
            continue;
        // No other server took over: the connection is read on, as if nothing had been said. Where another
        // thread may be moving the session it may be another connection soon.
        if (result < 0 && block->old_clhfd < 0 && block->wake_fd < 0)
            return block->clhfd;
    }
}

int _vorn_rset_check(wthr_var *block)
{
    int fd;
    do
        fd = wait_readable(block, -1);
    while (fd == -3);  // woken to look anew
    return fd;
}

int pipe_readn(int fd, void *buffer, int length)
{
    char *position = (char *)buffer;
    int left = length;
    while (left > 0) {
        ssize_t got = read(fd, position, (size_t)left);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return (int)got;
        if (got == 0)
            break;
        position += got;
        left -= (int)got;
    }
    return length - left;
}

int pipe_writen(int fd, const void *buffer, int length)
{
    const char *position = (const char *)buffer;
    int left = length;
    while (left > 0) {
        ssize_t written = write(fd, position, (size_t)left);
        if (written < 1)
            return (int)written;
        position += written;
        left -= (int)written;
    }
    return length;
}

static void log_fcntl(int use_errno, const char *code, const char *command, int value)
{
    VORN_LOG(use_errno, LEVEL_ERROR, code, "0015 fcntl error : %s %d", command, value);
}

// The status flags of a descriptor, or -1, logged.
static int read_flags(int fd, const char *code)
{
    int flags = fcntl(fd, F_GETFL, 0);
    if (flags < 0)
        log_fcntl(1, code, "F_GETFL", flags);
    return flags;
}

static int write_flags(int fd, int flags, const char *code)
{
    if (fcntl(fd, F_SETFL, flags) < 0) {
        log_fcntl(1, code, "F_SETFL", flags);
        return -1;
    }
    return 1;
}

int _set_fl(int fd, int flags)
{
    int present = read_flags(fd, "COM0017");
    return present < 0 ? -1 : write_flags(fd, present | flags, "COM0018");
}

int _clr_fl(int fd, int flags)
{
    int present = read_flags(fd, "COM0019");
    return present < 0 ? -1 : write_flags(fd, present & ~flags, "COM0020");
}

int _show_fl(int fd)
{
    int flags = read_flags(fd, "COM0021");
    if (flags < 0)
        return -1;
    printf("FD%d: O_APPEND(%d) O_NONBLOCK(%d) O_SYNC(%d)\n", fd, flags & 0x400, flags & 0x800,
           flags & 0x1000);
    return 1;
}

int _set_fd(int fd, int value)
{
    if (value != FD_CLOEXEC) {
        log_fcntl(0, "COM0022", "F_SETFD", value);
        return -1;
    }
    if (fcntl(fd, F_SETFD, value) < 0) {
        log_fcntl(1, "COM0023", "F_SETFD", value);
        return -1;
    }
    return 1;
}

int _valid_fd(int fd)
{
    return fcntl(fd, F_GETFL, 0) < 0 && errno == EBADF ? 0 : 1;
}
}
