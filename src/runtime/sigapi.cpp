// Signals.
//
// Entered from: the kernel, on whatever thread takes the signal; _vorn_signal and its kin from the
// application's threads. The rule that keeps the library's handlers and the user's apart: while the thread's
// context sends, or its transaction timer runs, the library's handler runs and the user's doesn't.
//
// What is subtle: the handler finds its block as every call does. That takes the table lock only if the
// tables have changed since the thread's last call, but a signal that comes while the same thread holds that
// lock waits for ever; the lock is held for a lookup or a binding only. Table and counter have no lock: they
// are touched atomically, one word at a time.
#include "runtime/sigapi.h"

#include "calls/cscommon.h"
#include "runtime/common.h"
#include "runtime/errlog.h"
#include "runtime/thrapi.h"
#include "session/cliapi.h"

#include <atomic>
#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

extern "C" {

// clang-format off
sig_elem sig_table[SIG_ROWS] = {
    {SIGHUP, 0, nullptr, nullptr},
    {SIGINT, 0, nullptr, nullptr},
    {SIGQUIT, 0, nullptr, nullptr},
    {SIGALRM, 0, nullptr, _vorn_sig_alrm},
    {SIGTERM, 0, nullptr, nullptr},
    {SIGPIPE, 0, nullptr, _vorn_sig_pipe},
    {SIGUSR1, 0, nullptr, nullptr},
    {SIGUSR2, 0, nullptr, nullptr},
    {-1, 0, nullptr, nullptr},
};
// clang-format on
int32_t sig_table_initialized = 0;
int32_t sig_defer_counter = 0;
int32_t _vorn_coredump = 0;
char _vorn_coredump_dir[256] = "";

// Without SA_RESTART: a signal ends a blocked system call. The bit asks for just that by its old name.
static constexpr int HANDLER_FLAGS = 0x20000000;

static signal_handler *user_handler(sig_elem *row)
{
    return std::atomic_ref<signal_handler *>(row->user).load();
}

// SIG_DFL and SIG_IGN are no handlers.
static bool is_handler(signal_handler *handler)
{
    return handler != SIG_DFL && handler != SIG_IGN;
}

static sig_elem *find_row(int signal)
{
    for (sig_elem *row = sig_table; row->signal != -1; row++)
        if (row->signal == signal)
            return row;
    return nullptr;
}

static bool has_handler(sig_elem *row)
{
    return is_handler(user_handler(row)) || is_handler(row->internal);
}

signal_handler *_vorn_register_signal(int signal, signal_handler *handler)
{
    struct sigaction action = {}, former;
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = HANDLER_FLAGS;
    if (signal == SIGBUS || signal == SIGSEGV)
        action.sa_flags |= SA_SIGINFO;
    return sigaction(signal, &action, &former) < 0 ? SIG_ERR : former.sa_handler;
}

int _vorn_signal_control(void)
{
    if (std::atomic_ref<int32_t>(sig_table_initialized).exchange(1) != 0)
        return 1;
    tzset();  // the handlers write log lines, and must find the time zone loaded
    for (sig_elem *row = sig_table; row->signal != -1; row++)
        if (has_handler(row))
            _vorn_register_signal(row->signal, _vorn_sig_handler);
    return 1;
}

signal_handler *_vorn_signal(int signal, signal_handler *handler)
{
    _vorn_signal_control();
    sig_elem *row = find_row(signal);
    if (row == nullptr)
        return _vorn_register_signal(signal, handler);
    bool first = !has_handler(row);
    signal_handler *former = std::atomic_ref<signal_handler *>(row->user).exchange(handler);
    return first ? _vorn_register_signal(signal, _vorn_sig_handler) : former;
}

int _vorn_do_sigs(void)
{
    for (sig_elem *row = sig_table; row->signal != -1; row++) {
        int32_t count = std::atomic_ref<int32_t>(row->pending).exchange(0);
        signal_handler *handler = user_handler(row);
        for (; is_handler(handler) && count > 0; count--)
            handler(row->signal);
    }
    return 1;
}

int _vorn_defer_sigs(int operation, int value)
{
    _vorn_signal_control();
    std::atomic_ref<int32_t> counter(sig_defer_counter);
    int32_t former = counter.load();
    if (operation == DEFER_READ)
        return former;
    if (operation == DEFER_SET)
        former = counter.exchange(value);
    else if (operation == DEFER_ADD)
        former = counter.fetch_add(value);
    else
        return -1;
    if (counter.load() < 1) {
        _vorn_do_sigs();
        counter.store(0);
    }
    return former;
}

// True while the library's handlers have the word in this context.
static bool users_are_shut_out(wthr_var *block)
{
    return std::atomic_ref<int32_t>(block->in_send).load() != 0 || block->tx_timer_on != 0;
}

static void run_user_handler(sig_elem *row, signal_handler *handler, wthr_var *block)
{
    std::atomic_ref<int32_t> pending(row->pending);
    if (std::atomic_ref<int32_t>(sig_defer_counter).load() != 0) {
        pending.fetch_add(1);
        return;
    }
    // A signal that is passed over here is lost: its count goes too.
    for (int32_t runs = pending.load() + 1; runs > 0; runs--)
        if (!users_are_shut_out(block))
            handler(row->signal);
    pending.store(0);
}

void _vorn_sig_handler(int signal)
{
    int error = errno;  // the interrupted code may be about to read it
    api_frame frame;
    sig_elem *row = find_row(signal);
    if (row != nullptr && api_find(&frame)) {
        signal_handler *user = user_handler(row);
        if (is_handler(user))
            run_user_handler(row, user, frame.block);
        if (is_handler(row->internal) && users_are_shut_out(frame.block))
            row->internal(signal);
    }
    errno = error;
}

void _vorn_sig_alrm(int signal)
{
    api_frame frame;
    if (api_find(&frame))
        _vorn_sig_alarm2(signal, frame.block);
}

static thread_local bool closes_in_handler __attribute__((tls_model("initial-exec"))) = false;

bool in_signal_handler(void)
{
    return closes_in_handler;
}

// The shutdown wakes a thread that sleeps on the socket, which a close alone doesn't.
static void close_connection(wthr_var *block)
{
    int fd = block->clhfd;
    if (fd >= 0)
        shutdown(fd, SHUT_RDWR);
    closes_in_handler = true;
    _clhc_close(fd, block);
    closes_in_handler = false;
}

void _vorn_sig_pipe(int)
{
    api_frame frame;
    if (!api_find(&frame))
        return;
    VORN_LOG(0, LEVEL_ERROR, "CLI0128", "0111 signal %s catched", "SIGPIPE");
    close_connection(frame.block);
}

// Not in the table: urgent data is looked for where it is expected.
void _vorn_sig_urg(int)
{
    api_frame frame;
    if (!api_find(&frame))
        return;
    VORN_LOG(0, LEVEL_ERROR, "CLI0127", "0111 signal %s catched", "SIGURG");
    char urgent[256];
    if (recv(frame.block->clhfd, urgent, sizeof urgent, MSG_OOB) < 0)
        urgent[0] = '\0';  // its content doesn't matter
    close_connection(frame.block);
}

// "log/slog" below VORNDIR; empty if that isn't set, or leaves no room.
static bool take_default_dump_directory(void)
{
    static const char ending[] = "log/slog";
    _vorn_coredump_dir[0] = '\0';
    const char *root = getenv("VORNDIR");
    if (root == nullptr)
        return false;
    char directory[sizeof _vorn_coredump_dir + 1];
    snprintf(directory, sizeof _vorn_coredump_dir, "%s", root);
    _vorn_proc_path(directory);
    _slash_check(directory);
    size_t length = strlen(directory);
    if (length + sizeof ending > sizeof _vorn_coredump_dir)
        return true;
    memcpy(_vorn_coredump_dir, directory, length);
    memcpy(_vorn_coredump_dir + length, ending, sizeof ending);
    return true;
}

int _vorn_set_coredumpdir(const char *directory)
{
    _vorn_coredump = 0;
    if (directory != nullptr)
        snprintf(_vorn_coredump_dir, sizeof _vorn_coredump_dir, "%s", directory);
    else if (!take_default_dump_directory())
        return 1;
    rlimit limit;
    if (getrlimit(RLIMIT_CORE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_CORE, &limit);
    }
    return 1;
}

void _vorn_sig_coredump(int signal)
{
    if (_vorn_coredump != 0 || _vorn_coredump_dir[0] == '\0')
        return;
    int moved = chdir(_vorn_coredump_dir);
    (void)moved;  // a dump in the wrong place is better than none
    ::signal(signal, SIG_DFL);
    kill(getpid(), signal);
    _vorn_coredump = 1;
}
}
