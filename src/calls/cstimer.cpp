// Timers: the waits for the connection with a time limit, and the transaction's alarm.
#include "calls/cscommon.h"

#include "runtime/errlog.h"
#include "tx/tx.h"
#include "wire/clhread.h"
#include "wire/netapi.h"

#include <errno.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

extern "C" {

int _set_bc_timer(int seconds, wthr_var *block)
{
    return _set_bc_timer2(seconds, 1, block);
}

static int select_sockets(int seconds, int watch_oob, int wake_fd, wthr_var *block)
{
    for (;;) {
        int current = block->clhfd, old = block->old_clhfd;
        if (current < 0)
            return TIMER_FAILED;
        if (has_read_ahead(block))
            return block->ahead.fd;
        wide_set readable, urgent;
        int highest = current > old ? current : old;
        highest = wake_fd > highest ? wake_fd : highest;
        wide_set_clear(&readable, highest);
        wide_set_clear(&urgent, highest);
        if (!wide_set_add(&readable, current))
            return TIMER_FAILED;
        wide_set_add(&readable, old);
        wide_set_add(&readable, wake_fd);
        if (watch_oob != 0)
            wide_set_add(&urgent, current);
        timeval limit = {seconds < 0 ? 0 : seconds, 0};
        errno = 0;
        int ready = wide_set_select(&readable, nullptr, watch_oob != 0 ? &urgent : nullptr, &limit);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0) {
            VORN_LOG(1, LEVEL_ERROR, "CSC5105", "0080 select error");
            return TIMER_FAILED;
        }
        if (ready == 0)
            return TIMER_EXPIRED;
        if (wide_set_has(&readable, wake_fd)) {
            sleep_again(block);
            return TIMER_WOKEN;
        }
        if (watch_oob != 0 && wide_set_has(&urgent, current))
            return TIMER_URGENT;
        return wide_set_has(&readable, old) ? old : current;
    }
}

int _set_bc_timer2(int seconds, int watch_oob, wthr_var *block)
{
    return select_sockets(seconds, watch_oob, -1, block);
}

int reader_timer(int seconds, int watch_oob, wthr_var *block)
{
    return select_sockets(seconds, watch_oob, block->wake_fd, block);
}

int _set_bc_timer3(int seconds, void *unused, int fd)
{
    (void)unused;
    for (;;) {
        wide_set readable;
        if (fd < 0)
            return TIMER_FAILED;
        wide_set_clear(&readable, fd);
        if (!wide_set_add(&readable, fd))
            return TIMER_FAILED;
        timeval limit = {seconds < 0 ? 0 : seconds, 0};
        errno = 0;
        int ready = wide_set_select(&readable, nullptr, nullptr, &limit);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0) {
            VORN_LOG(1, LEVEL_ERROR, "CSC5115", "0080 select error");
            return TIMER_FAILED;
        }
        return ready == 0 ? TIMER_EXPIRED : fd;
    }
}

// One alarm a process: a timer of another context takes this one's place.
void _set_tx_timer(int seconds, wthr_var *block)
{
    block->tx_deadline = time(nullptr) + seconds;
    block->tx_timer_on = 1;
    alarm((unsigned)seconds);
}

void _clr_tx_timer(wthr_var *block)
{
    alarm(0);
    block->tx_timer_on = 0;
    block->tx_deadline = 0;
}

void _vorn_sig_alarm2(int signal, wthr_var *block)
{
    (void)signal;
    // The deadline is read first, and once: the timer may be cleared or set on another thread meanwhile.
    int64_t deadline = block->tx_deadline;
    if (deadline == 0 || block->tx_timer_on == 0 || time(nullptr) < deadline)
        return;
    set_tx_state(block, TX_STATE_TIMED_OUT);
    block->tx_timer_on = 0;
}
}
