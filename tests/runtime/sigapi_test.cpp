// Signals: the table, deferral, and who has the word.
#include "runtime/sigapi.h"

#include "runtime/capture.h"
#include "runtime/mthr.h"
#include "support/gtest.h"
#include "tx/tx.h"

#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int calls[65];

void count_call(int signal)
{
    calls[signal]++;
    errno = EDOM;  // a handler that doesn't care
}

void other_handler(int) {}

void *registered(int signal)
{
    struct sigaction action;
    sigaction(signal, nullptr, &action);
    return (void *)action.sa_handler;
}

// A context that sends, or whose transaction timer runs, for the time of a scope.
struct Sending {
    Sending() { current_block()->in_send = 1; }
    ~Sending() { current_block()->in_send = 0; }
};

struct Signals : testing::Test {
    Signals()
    {
        unsetenv("VORN_DEBUG");
        unsetenv("VORN_ERR_MSG");
        current_row();
    }
};

TEST_F(Signals, TableHasItsRows)
{
    const int numbers[9] = {1, 2, 3, 14, 15, 13, 10, 12, -1};
    for (int i = 0; i < 9; i++) {
        EXPECT_EQ(sig_table[i].signal, numbers[i]) << i;
        EXPECT_EQ(sig_table[i].pending, 0);
        EXPECT_EQ(sig_table[i].user, nullptr);
        signal_handler *internal = i == 3 ? _vorn_sig_alrm : i == 5 ? _vorn_sig_pipe : nullptr;
        EXPECT_EQ(sig_table[i].internal, internal) << i;
    }
    EXPECT_EQ(sizeof(sig_elem), 24u);
    EXPECT_EQ(sig_table_initialized, 0);
    EXPECT_EQ(sig_defer_counter, 0);
}

TEST_F(Signals, ControlRegistersRowsWithHandlers)
{
    EXPECT_EQ(_vorn_signal_control(), 1);
    EXPECT_EQ(sig_table_initialized, 1);
    EXPECT_EQ(registered(SIGALRM), (void *)_vorn_sig_handler);
    EXPECT_EQ(registered(SIGPIPE), (void *)_vorn_sig_handler);
    for (int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2})
        EXPECT_EQ(registered(signal), (void *)SIG_DFL) << signal;
}

TEST_F(Signals, ControlWorksOnce)
{
    _vorn_signal_control();
    signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(_vorn_signal_control(), 1);
    EXPECT_EQ(registered(SIGPIPE), (void *)SIG_IGN);
}

TEST_F(Signals, RegistrationHasNoRestartAndAnEmptyMask)
{
    signal(SIGTERM, other_handler);
    EXPECT_EQ(_vorn_register_signal(SIGTERM, count_call), other_handler);
    struct sigaction action;
    sigaction(SIGTERM, nullptr, &action);
    EXPECT_EQ(action.sa_flags & (SA_RESTART | SA_SIGINFO), 0);
    for (int signal = 1; signal < 32; signal++)
        EXPECT_EQ(sigismember(&action.sa_mask, signal), 0) << signal;
    for (int signal : {SIGBUS, SIGSEGV}) {
        _vorn_register_signal(signal, count_call);
        sigaction(signal, nullptr, &action);
        EXPECT_NE(action.sa_flags & SA_SIGINFO, 0);
        _vorn_register_signal(signal, SIG_DFL);
    }
    EXPECT_EQ(_vorn_register_signal(SIGKILL, count_call), SIG_ERR);
    EXPECT_EQ(_vorn_register_signal(1000, count_call), SIG_ERR);
}

TEST_F(Signals, FirstHandlerGivesTheProcessesAndLaterOnesTheUsers)
{
    signal(SIGTERM, other_handler);
    EXPECT_EQ(_vorn_signal(SIGTERM, count_call), other_handler);
    EXPECT_EQ(registered(SIGTERM), (void *)_vorn_sig_handler);
    EXPECT_EQ(_vorn_signal(SIGTERM, other_handler), count_call);
    EXPECT_EQ(_vorn_signal(SIGTERM, SIG_DFL), other_handler);
    EXPECT_EQ(sig_table_initialized, 1);
}

TEST_F(Signals, RowWithAnInternalHandlerHasNoFormerUser)
{
    signal(SIGPIPE, other_handler);
    EXPECT_EQ(_vorn_signal(SIGPIPE, count_call), nullptr);
    EXPECT_EQ(_vorn_signal(SIGPIPE, other_handler), count_call);
    EXPECT_EQ(registered(SIGPIPE), (void *)_vorn_sig_handler);
}

TEST_F(Signals, SignalOutsideTheTableGoesPastIt)
{
    signal(SIGWINCH, other_handler);
    EXPECT_EQ(_vorn_signal(SIGWINCH, count_call), other_handler);
    EXPECT_EQ(registered(SIGWINCH), (void *)count_call);
    EXPECT_EQ(_vorn_signal(1000, count_call), SIG_ERR);
}

TEST_F(Signals, UsersHandlerRunsAndErrnoIsKept)
{
    _vorn_signal(SIGTERM, count_call);
    errno = EBUSY;
    raise(SIGTERM);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(calls[SIGTERM], 1);
    EXPECT_EQ(sig_table[4].pending, 0);
}

TEST_F(Signals, BlockedCallIsInterrupted)
{
    _vorn_signal(SIGUSR1, count_call);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    pthread_t reader = pthread_self();
    std::atomic<bool> done{false};
    std::thread other([&] {
        while (!done) {
            pthread_kill(reader, SIGUSR1);
            usleep(200);
        }
    });
    char byte;
    ssize_t result = read(ends[0], &byte, 1);
    int error = errno;
    done = true;
    other.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EINTR);
}

TEST_F(Signals, DeferredSignalRunsWhenTheCounterIsSetBack)
{
    _vorn_signal(SIGTERM, count_call);
    EXPECT_EQ(_vorn_defer_sigs(1, 1), 0);
    raise(SIGTERM);
    raise(SIGTERM);
    EXPECT_EQ(calls[SIGTERM], 0);
    EXPECT_EQ(sig_table[4].pending, 2);
    EXPECT_EQ(_vorn_defer_sigs(1, 0), 1);
    EXPECT_EQ(calls[SIGTERM], 2);
    EXPECT_EQ(sig_table[4].pending, 0);
    raise(SIGTERM);
    EXPECT_EQ(calls[SIGTERM], 3);
}

TEST_F(Signals, DeferralsNest)
{
    _vorn_signal(SIGTERM, count_call);
    EXPECT_EQ(_vorn_defer_sigs(2, 1), 0);
    EXPECT_EQ(_vorn_defer_sigs(2, 1), 1);
    raise(SIGTERM);
    EXPECT_EQ(_vorn_defer_sigs(2, -1), 2);
    EXPECT_EQ(calls[SIGTERM], 0);
    EXPECT_EQ(_vorn_defer_sigs(0, 99), 1);
    EXPECT_EQ(_vorn_defer_sigs(2, -1), 1);
    EXPECT_EQ(calls[SIGTERM], 1);
    EXPECT_EQ(_vorn_defer_sigs(0, 0), 0);
}

TEST_F(Signals, CounterNeverStaysBelowZero)
{
    EXPECT_EQ(_vorn_defer_sigs(2, -5), 0);
    EXPECT_EQ(sig_defer_counter, 0);
    EXPECT_EQ(_vorn_defer_sigs(1, -1), 0);
    EXPECT_EQ(sig_defer_counter, 0);
    EXPECT_EQ(sig_table_initialized, 1);
}

TEST_F(Signals, UnknownOperationIsRefused)
{
    EXPECT_EQ(_vorn_defer_sigs(3, 1), -1);
    EXPECT_EQ(_vorn_defer_sigs(-1, 1), -1);
    EXPECT_EQ(sig_defer_counter, 0);
}

TEST_F(Signals, DeferredWithoutUserHandlerIsForgotten)
{
    _vorn_signal(SIGTERM, count_call);
    sig_table[4].pending = 3;
    sig_table[4].user = nullptr;
    EXPECT_EQ(_vorn_do_sigs(), 1);
    EXPECT_EQ(sig_table[4].pending, 0);
    EXPECT_EQ(calls[SIGTERM], 0);
}

TEST_F(Signals, PendingCountIsWorkedOffByTheNextSignal)
{
    _vorn_signal(SIGTERM, count_call);
    sig_table[4].pending = 2;
    raise(SIGTERM);
    EXPECT_EQ(calls[SIGTERM], 3);
    EXPECT_EQ(sig_table[4].pending, 0);
}

TEST_F(Signals, WhileSendingTheUsersSignalIsLost)
{
    _vorn_signal(SIGTERM, count_call);
    sig_table[4].pending = 2;
    {
        Sending sending;
        raise(SIGTERM);
    }
    EXPECT_EQ(calls[SIGTERM], 0);
    EXPECT_EQ(sig_table[4].pending, 0);
    raise(SIGTERM);
    EXPECT_EQ(calls[SIGTERM], 1);
}

TEST_F(Signals, WhileTheTransactionTimerRunsTheUsersSignalIsLost)
{
    _vorn_signal(SIGUSR2, count_call);
    current_block()->tx_timer_on = 1;
    raise(SIGUSR2);
    current_block()->tx_timer_on = 0;
    EXPECT_EQ(calls[SIGUSR2], 0);
}

TEST_F(Signals, DeferralCountsAlsoWhileSending)
{
    _vorn_signal(SIGTERM, count_call);
    _vorn_defer_sigs(1, 1);
    {
        Sending sending;
        raise(SIGTERM);
    }
    EXPECT_EQ(sig_table[4].pending, 1);
    _vorn_defer_sigs(1, 0);
    EXPECT_EQ(calls[SIGTERM], 1);
}

TEST_F(Signals, PipeOutsideASendGoesToTheUser)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    current_block()->clhfd = ends[0];
    _vorn_signal_control();
    Output both = output_of([] { raise(SIGPIPE); });
    EXPECT_EQ(both.err, "");
    EXPECT_EQ(current_block()->clhfd, ends[0]);
    _vorn_signal(SIGPIPE, count_call);
    raise(SIGPIPE);
    EXPECT_EQ(calls[SIGPIPE], 1);
    EXPECT_EQ(current_block()->clhfd, ends[0]);
}

TEST_F(Signals, PipeInASendClosesTheConnection)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    current_block()->clhfd = ends[0];
    current_block()->started = 1;
    _vorn_signal(SIGPIPE, count_call);
    std::string err = output_of([] {
                          Sending sending;
                          raise(SIGPIPE);
                      }).err;
    EXPECT_EQ(without_time(err), ":(E) CLI 0111 signal SIGPIPE catched [CLI0128]\n");
    EXPECT_EQ(calls[SIGPIPE], 0);
    EXPECT_EQ(current_block()->clhfd, -1);
    EXPECT_EQ(fcntl(ends[0], F_GETFD), -1);
}

TEST_F(Signals, UrgentDataClosesTheConnection)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    current_block()->clhfd = ends[0];
    std::string err = output_of([] { _vorn_sig_urg(SIGURG); }).err;
    EXPECT_EQ(without_time(err), ":(E) CLI 0111 signal SIGURG catched [CLI0127]\n");
    EXPECT_EQ(current_block()->clhfd, -1);
}

TEST_F(Signals, AlarmMarksTheTransactionWhoseTimeIsUp)
{
    _vorn_signal_control();
    ASSERT_EQ(_make_txinfo(current_block()), 1);
    set_tx_state(current_block(), TX_STATE_ACTIVE);
    current_block()->tx_timer_on = 1;
    current_block()->tx_deadline = time(nullptr) + 1000;
    raise(SIGALRM);
    EXPECT_EQ(current_block()->tx_timer_on, 1);
    current_block()->tx_deadline = time(nullptr) - 1;
    raise(SIGALRM);
    EXPECT_EQ(current_block()->tx_timer_on, 0);
    EXPECT_EQ(tx_state_of(current_block()), TX_STATE_TIMED_OUT);
}

TEST_F(Signals, AlarmWithoutTransactionIsTheUsers)
{
    _vorn_signal(SIGALRM, count_call);
    raise(SIGALRM);
    EXPECT_EQ(calls[SIGALRM], 1);
    current_block()->tx_timer_on = 1;
    current_block()->tx_deadline = time(nullptr) + 1000;
    raise(SIGALRM);
    EXPECT_EQ(calls[SIGALRM], 1);
}

TEST_F(Signals, EntryPointIgnoresWhatIsNotInTheTable)
{
    _vorn_sig_handler(SIGWINCH);
    _vorn_sig_handler(-1);
}

struct CoreDump : Signals {
    CoreDump() { unsetenv("VORNDIR"); }
    TempDir temp;
};

TEST_F(CoreDump, GivenDirectoryIsTakenAndTheLimitRaised)
{
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_CORE, &limit), 0);
    limit.rlim_cur = 0;
    ASSERT_EQ(setrlimit(RLIMIT_CORE, &limit), 0);
    _vorn_coredump = 1;
    _vorn_set_coredumpdir("/a/../b");
    EXPECT_STREQ(_vorn_coredump_dir, "/a/../b");
    EXPECT_EQ(_vorn_coredump, 0);
    getrlimit(RLIMIT_CORE, &limit);
    EXPECT_EQ(limit.rlim_cur, limit.rlim_max);
    _vorn_set_coredumpdir(std::string(1000, 'd').c_str());
    EXPECT_EQ(strlen(_vorn_coredump_dir), 255u);
}

TEST_F(CoreDump, DefaultIsBelowTheRootDirectory)
{
    const char *const cases[][2] = {
        {"/vorn", "/vorn/log/slog"},
        {"/vorn/", "/vorn/log/slog"},
        {"/a/./b//c/../d", "/a/b/d/log/slog"},
    };
    for (const auto &row : cases) {
        rlimit limit;
        getrlimit(RLIMIT_CORE, &limit);
        limit.rlim_cur = 0;
        setrlimit(RLIMIT_CORE, &limit);
        setenv("VORNDIR", row[0], 1);
        _vorn_coredump = 1;
        _vorn_set_coredumpdir(nullptr);
        EXPECT_STREQ(_vorn_coredump_dir, row[1]) << row[0];
        EXPECT_EQ(_vorn_coredump, 0);
        getrlimit(RLIMIT_CORE, &limit);
        EXPECT_EQ(limit.rlim_cur, limit.rlim_max);
    }
    setenv("VORNDIR", ("/" + std::string(246, 'd')).c_str(), 1);  // 247, "/", "log/slog" and no room for more
    _vorn_set_coredumpdir(nullptr);
    EXPECT_STREQ(_vorn_coredump_dir, "");
    setenv("VORNDIR", ("/" + std::string(245, 'd')).c_str(), 1);
    _vorn_set_coredumpdir(nullptr);
    EXPECT_EQ(strlen(_vorn_coredump_dir), 255u);
    setenv("VORNDIR", std::string(100000, 'd').c_str(), 1);
    _vorn_set_coredumpdir(nullptr);
    EXPECT_STREQ(_vorn_coredump_dir, "");
}

TEST_F(CoreDump, WithoutARootDirectoryThereIsNoneAndTheLimitStays)
{
    rlimit limit;
    getrlimit(RLIMIT_CORE, &limit);
    limit.rlim_cur = 0;
    setrlimit(RLIMIT_CORE, &limit);
    _vorn_set_coredumpdir("/somewhere");
    setrlimit(RLIMIT_CORE, &limit);
    _vorn_coredump = 1;
    _vorn_set_coredumpdir(nullptr);
    EXPECT_EQ(_vorn_coredump, 0);
    EXPECT_STREQ(_vorn_coredump_dir, "");
    getrlimit(RLIMIT_CORE, &limit);
    EXPECT_EQ(limit.rlim_cur, 0u);
}

// The status of a child that gets the signal in its core dump handler.
int status_of_dump(const std::string &directory, int already)
{
    pid_t child = fork();
    if (child == 0) {
        rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        snprintf(_vorn_coredump_dir, sizeof _vorn_coredump_dir, "%s", directory.c_str());
        _vorn_coredump = already;
        _vorn_sig_coredump(SIGTERM);
        char here[PATH_MAX];
        _exit(getcwd(here, sizeof here) != nullptr && directory == here ? 2 : 3);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

TEST_F(CoreDump, ProcessEndsByItsOwnSignal)
{
    int status = status_of_dump(temp.path, 0);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST_F(CoreDump, HappensOnceAndOnlyWithADirectory)
{
    int status = status_of_dump(temp.path, 1);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    status = status_of_dump("", 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
}

TEST_F(CoreDump, GoesToTheDirectoryFirst)
{
    pid_t child = fork();
    if (child == 0) {
        rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        std::string real = std::filesystem::canonical(temp.path).string();
        snprintf(_vorn_coredump_dir, sizeof _vorn_coredump_dir, "%s", real.c_str());
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGTERM);
        sigprocmask(SIG_BLOCK, &blocked, nullptr);
        signal(SIGTERM, other_handler);
        _vorn_sig_coredump(SIGTERM);
        bool waits = sigpending(&blocked) == 0 && sigismember(&blocked, SIGTERM) == 1;
        char here[PATH_MAX] = "";
        bool there = getcwd(here, sizeof here) != nullptr && real == here;
        _exit(waits && there && registered(SIGTERM) == (void *)SIG_DFL && _vorn_coredump == 1 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}
