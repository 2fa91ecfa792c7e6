// Commands, and waits by the clock.
#include "runtime/common.h"

#include "runtime/capture.h"
#include "support/faults.h"
#include "support/gtest.h"

#include <atomic>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <thread>
#include <time.h>

namespace {

TEST(System, WithoutACommandThereIsAShell)
{
    EXPECT_EQ(_vorn_system(nullptr), 1);
}

TEST(System, GivesTheRawStatus)
{
    const struct {
        const char *command;
        int exit;
    } cases[] = {{"true", 0}, {"exit 3", 3}, {"", 0}, {"/no/such/program 2>/dev/null", 127}};
    for (const auto &row : cases) {
        int status = _vorn_system(row.command);
        EXPECT_TRUE(WIFEXITED(status)) << row.command;
        EXPECT_EQ(WEXITSTATUS(status), row.exit) << row.command;
    }
    int status = _vorn_system("kill -9 $$");
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST(System, TheShellIsCalledShAndHasTheEnvironment)
{
    TempDir temp;
    setenv("VORN_TEST_WORD", "two  words", 1);
    setenv("VORN_TEST_FILE", (temp / "out").c_str(), 1);
    EXPECT_EQ(_vorn_system("printf '%s|%s|%s' \"$VORN_TEST_WORD\" \"$0\" \"$#\" >\"$VORN_TEST_FILE\""), 0);
    EXPECT_EQ(read_file(temp / "out"), "two  words|sh|0");
}

TEST(System, LeavesNoChildBehind)
{
    EXPECT_EQ(_vorn_system("exit 1"), 1 << 8);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(System, WithoutAChildToWaitForFails)
{
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(_vorn_system("true"), -1);
    EXPECT_EQ(errno, ECHILD);
}

volatile sig_atomic_t caught = 0;

void count_signal(int)
{
    caught = caught + 1;
}

// Without SA_RESTART: each signal ends what the thread waits in.
void interrupt_on(int number)
{
    struct sigaction action = {};
    action.sa_handler = count_signal;
    sigaction(number, &action, nullptr);
}

TEST(System, LeavesSignalsAsTheyAre)
{
    const int numbers[] = {SIGINT, SIGQUIT, SIGCHLD};
    for (int number : numbers)
        interrupt_on(number);
    sigset_t before, after;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    EXPECT_EQ(_vorn_system("kill -INT $PPID; kill -QUIT $PPID"), 0);
    EXPECT_GE(caught, 2) << "they are this process's own";
    for (int number : numbers) {
        struct sigaction action;
        sigaction(number, nullptr, &action);
        EXPECT_EQ(action.sa_handler, count_signal) << number;
    }
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int number = 1; number < NSIG; number++)
        EXPECT_EQ(sigismember(&after, number), sigismember(&before, number)) << number;
}

TEST(System, ASignalDoesNotEndTheWait)
{
    interrupt_on(SIGUSR1);
    TempDir temp;
    setenv("VORN_TEST_PARENT", std::to_string(getpid()).c_str(), 1);
    EXPECT_EQ(_vorn_system("kill -USR1 $VORN_TEST_PARENT; kill -USR1 $VORN_TEST_PARENT; exit 5"), 5 << 8);
    EXPECT_GE(caught, 1);
}

TEST(RealWait, GoesByTheClock)
{
    int before = faults::clock_reads();
    faults::step_clock_at_call(2, 3600);  // the second look finds the hour gone
    EXPECT_EQ(_vorn_real_wait(3600), 0);
    EXPECT_EQ(faults::clock_reads() - before, 2);
}

TEST(RealWait, ASignalDoesNotShortenIt)
{
    interrupt_on(SIGUSR1);
    pthread_t waiting = pthread_self();
    std::atomic<bool> ended{false};
    timespec begin, end;
    clock_gettime(CLOCK_REALTIME, &begin);
    std::thread other([&] {
        while (!ended) {
            pthread_kill(waiting, SIGUSR1);
            usleep(1000);
        }
    });
    EXPECT_EQ(_vorn_real_wait(2), 0);
    ended = true;
    other.join();
    clock_gettime(CLOCK_REALTIME, &end);
    EXPECT_GE(end.tv_sec - begin.tv_sec, 1);  // time() may lag a tick behind the clock
    EXPECT_GT(caught, 1);
}

TEST(RealWait, SleepsOnceWhateverTheNumber)
{
    for (int seconds : {0, -5}) {
        timespec begin, end;
        clock_gettime(CLOCK_MONOTONIC, &begin);
        EXPECT_EQ(_vorn_real_wait(seconds), 0);
        clock_gettime(CLOCK_MONOTONIC, &end);
        EXPECT_GE((end.tv_sec - begin.tv_sec) * 1000 + (end.tv_nsec - begin.tv_nsec) / 1000000, 990);
    }
}

}
