// Sequence numbers, and the timers on which every wait rests.
#include "calls/cscommon.h"

#include "runtime/mthr.h"
#include "support/faults.h"
#include "support/gtest.h"
#include "tx/tx.h"
#include "vorn/errors.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <set>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace {

// Two ends of a TCP connection: urgent data needs one.
struct Pair {
    int near = -1, far = -1;

    Pair()
    {
        int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(listener, (sockaddr *)&address, length), 0);
        EXPECT_EQ(listen(listener, 1), 0);
        EXPECT_EQ(getsockname(listener, (sockaddr *)&address, &length), 0);
        near = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(::connect(near, (sockaddr *)&address, length), 0);
        far = accept(listener, nullptr, nullptr);
        close(listener);
    }
    ~Pair()
    {
        close(near);
        close(far);
    }
    void write(const char *text) { EXPECT_EQ(::write(far, text, strlen(text)), (ssize_t)strlen(text)); }
    void urgent(void)
    {
        char byte = 'u';
        EXPECT_EQ(::send(far, &byte, 1, MSG_OOB), 1);
    }
};

struct Timer : testing::Test {
    wthr_var *block = nullptr;
    Pair main, old;

    void SetUp() override
    {
        block = current_block();
        ASSERT_NE(block, nullptr);
        block->clhfd = main.near;
        block->new_clhfd = block->old_clhfd = -1;
        faults::reset();
    }

    void TearDown() override { block->clhfd = block->old_clhfd = block->new_clhfd = -1; }
};

int64_t seed_of(int64_t now)
{
    return (int64_t)(int32_t)(uint32_t)pthread_self() * now % 0x20000;
}

}  // namespace

// ---- sequence numbers

TEST(SequenceNumber, StepsAndWraps)
{
    wthr_var *block = current_block();
    block->seqno = 0xffffffe;
    EXPECT_EQ(_vorn_set_seqno(block), 0xffffffe);
    block->seqno = 0xfffffff;
    EXPECT_EQ(_vorn_set_seqno(block), 0);
    EXPECT_EQ(block->seqno, 0);
    block->seqno = 0x7fffffff;
    EXPECT_EQ(_vorn_set_seqno(block), 0);
    EXPECT_EQ(next_seqno(block), 1);
    EXPECT_EQ(next_seqno(block), 2);
    block->seqno = 0xffffffd;
    EXPECT_EQ(next_seqno(block), 0xffffffe);
    EXPECT_EQ(next_seqno(block), 0);
    EXPECT_EQ(next_seqno(block), 1);
    EXPECT_EQ(pthread_mutex_trylock(&block->msg_mutex), 0);
    pthread_mutex_unlock(&block->msg_mutex);
}

TEST(SequenceNumber, IsSeededOncePerContextFromThreadAndTime)
{
    wthr_var *block = current_block();
    time_t before = time(nullptr);
    _vorn_init_seqno();
    time_t after = time(nullptr);
    std::set<int32_t> possible;
    for (time_t now = before; now <= after; now++) {
        srand((unsigned)seed_of(now));
        possible.insert((int32_t)(((unsigned)rand() << 10) & 0xffffc00u));
    }
    EXPECT_TRUE(possible.count(block->seqno)) << block->seqno;
    EXPECT_EQ(block->seqno % 1024, 0);
    EXPECT_LT(block->seqno, 0x10000000);
    EXPECT_EQ(block->seqno_inited, 1);
    block->seqno = 5;
    _vorn_init_seqno();
    EXPECT_EQ(block->seqno, 5);
}

TEST(SequenceNumber, IsUniqueAmongThreads)
{
    wthr_var *block = current_block();
    block->seqno = 0;
    std::vector<int> all[8];
    std::vector<std::thread> threads;
    for (std::vector<int> &mine : all)
        threads.emplace_back([block, &mine] {
            for (int i = 0; i < 1000; i++)
                mine.push_back(next_seqno(block));
        });
    for (std::thread &thread : threads)
        thread.join();
    std::set<int> seen;
    for (const std::vector<int> &mine : all)
        seen.insert(mine.begin(), mine.end());
    EXPECT_EQ(seen.size(), 8000u);
    EXPECT_EQ(*seen.rbegin(), 8000);
}

// ---- the wait on the session's sockets

TEST_F(Timer, NeedsAConnection)
{
    block->clhfd = -1;
    block->old_clhfd = old.near;
    old.write("x");
    EXPECT_EQ(_set_bc_timer(0, block), -1);
    EXPECT_EQ(_set_bc_timer2(0, 0, block), -1);
    EXPECT_EQ(faults::count(faults::SELECT), 0);
}

TEST_F(Timer, TellsSilenceFromData)
{
    EXPECT_EQ(_set_bc_timer(0, block), -2);
    EXPECT_EQ(_set_bc_timer2(0, 0, block), -2);
    EXPECT_EQ(_set_bc_timer2(0, 1, block), -2);
    main.write("x");
    EXPECT_EQ(_set_bc_timer(0, block), main.near);
    EXPECT_EQ(_set_bc_timer2(5, 0, block), main.near);
    EXPECT_EQ(_set_bc_timer2(5, 1, block), main.near);
}

TEST_F(Timer, EndOfTheConnectionCountsAsData)
{
    shutdown(main.far, SHUT_WR);
    EXPECT_EQ(_set_bc_timer(5, block), main.near);
}

TEST_F(Timer, WaitsUntilDataComes)
{
    faults::before(faults::SELECT, 1, [&] { main.write("x"); });
    EXPECT_EQ(_set_bc_timer(60, block), main.near);
}

TEST_F(Timer, OldSocketIsServedFirst)
{
    block->old_clhfd = old.near;
    EXPECT_EQ(_set_bc_timer(0, block), -2);
    main.write("x");
    EXPECT_EQ(_set_bc_timer(0, block), main.near);
    old.write("x");
    EXPECT_EQ(_set_bc_timer(0, block), old.near);
    char byte;
    ASSERT_EQ(read(main.near, &byte, 1), 1);
    EXPECT_EQ(_set_bc_timer(0, block), old.near);
}

TEST_F(Timer, UrgentDataIsToldBeforeAllElseIfItIsWatched)
{
    block->old_clhfd = old.near;
    old.write("x");
    main.write("x");
    main.urgent();
    ASSERT_TRUE(faults::eventually([&] { return _set_bc_timer2(0, 1, block) == -3; }));
    EXPECT_EQ(_set_bc_timer(0, block), -3);
    EXPECT_EQ(_set_bc_timer2(0, 0, block), old.near);
    // Only the connection itself is watched for it.
    block->old_clhfd = main.near;
    block->clhfd = old.near;
    EXPECT_EQ(_set_bc_timer2(0, 1, block), main.near);
}

TEST_F(Timer, InterruptedWaitBeginsAgain)
{
    faults::fail(faults::SELECT, 1, EINTR, 3);
    faults::before(faults::SELECT, 4, [&] { main.write("x"); });
    EXPECT_EQ(_set_bc_timer(60, block), main.near);
    EXPECT_EQ(faults::count(faults::SELECT), 4);
    // The sockets are looked up anew.
    faults::reset();
    faults::fail(faults::SELECT, 1, EINTR);
    faults::before(faults::SELECT, 1, [&] { block->clhfd = -1; });
    EXPECT_EQ(_set_bc_timer(60, block), -1);
}

TEST_F(Timer, OtherFailuresAreLogged)
{
    testing::internal::CaptureStderr();
    faults::fail(faults::SELECT, 1, EBADF);
    EXPECT_EQ(_set_bc_timer(60, block), -1);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("(E) CLI 0080 select error [CSC5105][Bad file descriptor]"), std::string::npos) << log;
}

TEST_F(Timer, PlainFormWatchesOneDescriptor)
{
    EXPECT_EQ(_set_bc_timer3(0, nullptr, -1), -1);
    EXPECT_EQ(_set_bc_timer3(0, nullptr, old.near), -2);
    main.write("x");
    EXPECT_EQ(_set_bc_timer3(0, nullptr, old.near), -2);
    old.write("x");
    EXPECT_EQ(_set_bc_timer3(60, nullptr, old.near), old.near);
    faults::fail(faults::SELECT, 1, EINTR, 2);
    EXPECT_EQ(_set_bc_timer3(60, nullptr, old.near), old.near);
    testing::internal::CaptureStderr();
    faults::fail(faults::SELECT, 1, EINVAL);
    EXPECT_EQ(_set_bc_timer3(60, nullptr, old.near), -1);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("(E) CLI 0080 select error [CSC5115][Invalid argument]"), std::string::npos) << log;
}

TEST_F(Timer, DescriptorsAboveAThousandAreWatched)
{
    int high = fcntl(main.near, F_DUPFD, 1500);
    if (high < 0)
        GTEST_SKIP() << "too few descriptors";
    block->clhfd = high;
    EXPECT_EQ(_set_bc_timer(0, block), -2);
    main.write("x");
    EXPECT_EQ(_set_bc_timer(0, block), high);
    EXPECT_EQ(_set_bc_timer3(0, nullptr, high), high);
    close(high);
}

// ---- the timer of the transaction

TEST_F(Timer, TransactionTimerIsTheProcesssAlarm)
{
    time_t before = time(nullptr);
    _set_tx_timer(5000, block);
    EXPECT_EQ(block->tx_timer_on, 1);
    EXPECT_GE(block->tx_deadline, before + 5000);
    EXPECT_LE(block->tx_deadline, time(nullptr) + 5000);
    unsigned left = alarm(4000);
    EXPECT_GT(left, 4990u);
    EXPECT_LE(left, 5000u);
    _clr_tx_timer(block);
    EXPECT_EQ(block->tx_timer_on, 0);
    EXPECT_EQ(alarm(0), 0u);
}

TEST_F(Timer, AlarmMarksTheTransactionOnceItsTimeIsUp)
{
    ASSERT_EQ(_make_txinfo(block), 1);
    block->txinfo->tx_stage = 1;
    block->txinfo->transaction_state = 0;

    block->tx_timer_on = 0;
    block->tx_deadline = 0;
    _vorn_sig_alarm2(SIGALRM, block);  // no timer runs
    EXPECT_EQ(block->txinfo->transaction_state, 0);

    block->tx_timer_on = 1;
    block->tx_deadline = time(nullptr) + 1000;
    _vorn_sig_alarm2(SIGALRM, block);  // not yet
    EXPECT_EQ(block->txinfo->transaction_state, 0);
    EXPECT_EQ(block->tx_timer_on, 1);

    block->tx_deadline = time(nullptr) - 1;
    _vorn_sig_alarm2(SIGALRM, block);
    EXPECT_EQ(block->txinfo->transaction_state, 1);
    EXPECT_EQ(block->tx_timer_on, 0);
    _txinfo_end(block);

    block->tx_timer_on = 1;
    _vorn_sig_alarm2(SIGALRM, block);  // without a record there is nothing to mark
    block->tx_timer_on = 0;
}
