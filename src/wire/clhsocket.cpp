// What the receive path does to its sockets and to what it read off them, outside of the waits themselves:
// bytes read ahead, the reader's wake-up, the end of a connection.
#include "wire/clhread.h"

#include "fields/fbcommon2.h"
#include "runtime/mthr.h"
#include "session/cliapi.h"
#include "vorn/errors.h"
#include "wire/clhmatch.h"
#include "wire/msgheader.h"
#include "wire/netapi.h"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {

void drop_read_ahead(wthr_var *block, int fd)
{
    int32_t expected = fd;
    if (fd >= 0)
        block->ahead.fd.compare_exchange_strong(expected, -1);
}

bool has_read_ahead(const wthr_var *block)
{
    int fd = block->ahead.fd;
    return fd >= 0 && (fd == block->clhfd || fd == block->old_clhfd);
}

int await_input(const wthr_var *block, const struct timeval *time)
{
    if (has_read_ahead(block))
        return 1;
    int fd = block->clhfd, old_fd = block->old_clhfd;
    wide_set sockets;
    wide_set_clear(&sockets, fd > old_fd ? fd : old_fd);
    wide_set_add(&sockets, fd);
    wide_set_add(&sockets, old_fd);
    struct timeval limit = time != nullptr ? *time : timeval{};
    return wide_set_select(&sockets, nullptr, nullptr, time != nullptr ? &limit : nullptr);
}

void wake_reader(const wthr_var *block)
{
    uint64_t once = 1;
    if (block->wake_fd >= 0 && write(block->wake_fd, &once, sizeof once) < 0)
        return;  // as good as full: the reader is woken already
}

void sleep_again(const wthr_var *block)
{
    uint64_t wakes;
    if (read(block->wake_fd, &wakes, sizeof wakes) < 0)
        return;  // somebody else's wake-up
}

msg_header *_check_read_buffer(msg_header *message)
{
    if (message == nullptr || message->buftype != BUF_FIELD)
        return message;
    constexpr int32_t head = sizeof(fb_head);
    if (message->datalen < head) {
        init_field_buffer(message_data(message));
        _clear_fcache(message_data(message));
        message->datalen = head;
    }
    if (message->bufsize < head)
        message->bufsize = head;
    return message;
}

// No sender may hold the descriptor when its number becomes free. One that is stuck in send() lets go of it
// first.
static void close_under_senders(int fd, wthr_var *block)
{
    if (fd == block->clhfd)  // requests go out over no other
        shutdown(fd, SHUT_RDWR);
    _thread_mutex_lock(&block->msg_mutex);
    _clhc_close(fd, block);
    _thread_mutex_unlock(&block->msg_mutex);
}

int _clh_read_error(int fd, int result, int unused, wthr_var *block)
{
    (void)unused;
    if (result == 0 || errno == EPIPE) {
        set_tperrno(block->rolling_failed != 0 ? TPERDCLOSE : TPECLOSE);
        _wait_while_rolling_start(fd, block);
        close_under_senders(fd, block);
        return 1;
    }
    set_tperrno(errno == EAGAIN ? TPEBLOCK : TPEOS);
    return 1;
}
}
