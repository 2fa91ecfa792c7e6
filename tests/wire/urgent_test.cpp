// The byte of urgent data that warns of a server going down, urgent data that is none, and signals in a wait.
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "calls/cscommon.h"
#include "runtime/sigapi.h"
#include "tx/tx.h"
#include "vorn/errors.h"
#include "wire/clhmatch.h"
#include "wire/netapi.h"
#include "wire/receive_fixture.h"

namespace {

struct Urgent : Receive {
    void send_urgent(int byte)
    {
        peer.send_urgent(byte);
        ASSERT_TRUE(wait_for_urgent(block->clhfd));
    }

    int take_warning()
    {
        pthread_mutex_lock(&block->roll_mutex);
        int result = _recv_oob_msg(block->clhfd, block);
        EXPECT_EQ(pthread_mutex_trylock(&block->roll_mutex), EBUSY);  // held again
        pthread_mutex_unlock(&block->roll_mutex);
        return result;
    }

    // The urgent byte that still waits; -1 for none.
    int urgent_byte()
    {
        unsigned char byte;
        return recvfrom(block->clhfd, &byte, 1, MSG_OOB | MSG_PEEK, nullptr, nullptr) == 1 ? byte : -1;
    }
};

}

TEST_F(Urgent, NothingThereIsMinusTwo)
{
    EXPECT_EQ(take_warning(), -2);
    EXPECT_EQ(block->rolling, 0);
    EXPECT_EQ(block->rolling_failed, 0);
}

TEST_F(Urgent, AnyOtherByteStaysUnread)
{
    for (int byte : {0, 1, 216, 218, 255}) {
        reconnect();
        send_urgent(byte);
        EXPECT_EQ(take_warning(), 1);
        EXPECT_EQ(urgent_byte(), byte);
        EXPECT_EQ(block->rolling, 0);
        EXPECT_EQ(block->rolling_failed, 0);
    }
}

TEST_F(Urgent, WarningIsReadAndStartsTheRollingStart)
{
    send_urgent(217);
    EXPECT_LT(take_warning(), 0);  // there is no other server
    EXPECT_EQ(urgent_byte(), -1);
    EXPECT_EQ(block->rolling, 0);
    EXPECT_EQ(block->rolling_failed, 1);
}

TEST_F(Urgent, SecondWarningIsConsumedAndIgnored)
{
    block->rolling = 1;
    send_urgent(217);
    EXPECT_EQ(take_warning(), -2);
    EXPECT_EQ(urgent_byte(), -1);
    EXPECT_EQ(block->rolling, 1);
    EXPECT_EQ(block->rolling_failed, 0);
    block->rolling = 0;
}

TEST_F(Urgent, AfterARollingStartNothingIsLookedAt)
{
    int ends[2];
    tcp_pair(ends);
    block->old_clhfd = ends[0];
    send_urgent(217);
    EXPECT_EQ(take_warning(), -1);
    EXPECT_EQ(urgent_byte(), 217);
    close(ends[1]);
}

TEST_F(Urgent, EndOfARollingStartWakesWhoWaitsForIt)
{
    block->rolling = 1;
    Task waiter(peer, [&] { return (long)_wait_while_rolling_start(block->clhfd, block); });
    pthread_mutex_lock(&block->roll_mutex);
    block->rolling = 0;
    pthread_cond_broadcast(&block->roll_cond);
    pthread_mutex_unlock(&block->roll_mutex);
    EXPECT_EQ(waiter.get(), 0);
    EXPECT_EQ(_wait_while_rolling_start(block->clhfd, block), 0);
    block->rolling = 1;
    block->new_clhfd = (int)block->clhfd;
    EXPECT_EQ(_wait_while_rolling_start(block->clhfd, block), -1);
    block->rolling = 0;
    block->new_clhfd = -1;
}

// Waits beside urgent data.

TEST_F(Urgent, WaitWithALimitDoesNotSpinOnAByteThatNobodyReads)
{
    waiting();
    send_urgent(5);
    int before = faults::count(faults::SELECT);
    EXPECT_EQ(read_within(1), nullptr);
    EXPECT_EQ(error(), TPETIME);
    EXPECT_LE(faults::count(faults::SELECT) - before, 10);
    EXPECT_EQ(block->reader_busy, 0);
}

TEST_F(Urgent, WaitWithALimitDoesNotSpinOnASecondWarning)
{
    block->rolling = 1;
    waiting();
    send_urgent(217);
    int before = faults::count(faults::SELECT);
    EXPECT_EQ(read_within(1), nullptr);
    EXPECT_EQ(error(), TPETIME);
    EXPECT_LE(faults::count(faults::SELECT) - before, 10);
    block->rolling = 0;
}

TEST_F(Urgent, WaitWithALimitReadsTheDataBesideTheByte)
{
    for (int byte : {5, 217}) {
        reconnect();
        waiting();
        send_urgent(byte);
        peer.send(call_reply("data"));
        ASSERT_TRUE(wait_for_bytes(block->clhfd, 140));
        ASSERT_NE(read_within(10), nullptr);
        EXPECT_EQ(data_of(want), "data");
    }
}

TEST_F(Urgent, WaitOfNoTimeEndsBesideAByteThatNobodyReads)
{
    waiting();
    send_urgent(5);
    EXPECT_EQ(read_within(0, 1), nullptr);
    EXPECT_EQ(error(), TPEBLOCK);
}

TEST_F(Urgent, WaitWithoutLimitDoesNotSpin)
{
    for (int byte : {5, 217}) {
        reconnect();
        block->rolling_failed = 0;
        waiting();
        send_urgent(byte);
        int before = faults::count(faults::SELECT);
        Task reader(peer, [&] { return (long)(read() != nullptr); });
        ASSERT_TRUE(faults::wait_for_calls(faults::SELECT, before + 1));
        // A wait that spins makes thousands of calls in this time; one that doesn't stays asleep.
        usleep(100000);
        EXPECT_LE(faults::count(faults::SELECT) - before, 10) << byte;
        EXPECT_FALSE(reader.finished());
        peer.send(call_reply("data"));
        EXPECT_EQ(reader.get(), 1);
        EXPECT_EQ(data_of(want), "data");
    }
}

TEST_F(Urgent, WaitWithoutLimitReadsTheDataBesideTheByte)
{
    for (int byte : {5, 217}) {
        reconnect();
        waiting();
        send_urgent(byte);
        peer.send(call_reply("data"));
        ASSERT_TRUE(wait_for_bytes(block->clhfd, 140));
        ASSERT_NE(read(), nullptr);
        EXPECT_EQ(data_of(want), "data");
    }
}

TEST_F(Urgent, ByteInTheMiddleOfAMessageLeavesTheMessageWhole)
{
    waiting();
    std::string bytes = wire::encode(call_reply("abcdefghij"));
    peer.send_raw(bytes.substr(0, 60));
    send_urgent(5);
    peer.send_raw(bytes.substr(60));
    ASSERT_NE(read_within(10), nullptr);
    EXPECT_EQ(data_of(want), "abcdefghij");
}

TEST_F(Urgent, WarningThatArrivesInAWaitLetsItGoOn)
{
    waiting();
    int before = faults::count(faults::SELECT);
    std::thread server([&] {
        faults::wait_for_calls(faults::SELECT, before + 1);
        peer.send_urgent(217);
        faults::eventually([&] { return block->rolling_failed == 1; });
        peer.send(call_reply("data"));
    });
    EXPECT_NE(read_within(30), nullptr);
    server.join();
    EXPECT_EQ(block->rolling_failed, 1);
    EXPECT_EQ(data_of(want), "data");
}

TEST_F(Urgent, NextWaitWatchesAgain)
{
    // The byte that nobody reads silences the watch of one wait, not that of the next.
    waiting();
    send_urgent(5);
    peer.send(call_reply("first"));
    ASSERT_NE(read_within(10), nullptr);
    waiting();
    peer.send_urgent(217);
    peer.send(call_reply("second"));
    ASSERT_TRUE(wait_for_bytes(block->clhfd, 140));
    ASSERT_NE(read_within(10), nullptr);
    EXPECT_EQ(data_of(want), "second");
    EXPECT_EQ(block->rolling_failed, 1);
}

// Signals in a wait.

namespace {

std::atomic<int> signals_taken{0};
void take_signal(int)
{
    signals_taken++;
}

struct Signals : Receive {
    std::atomic<pthread_t> reader_thread{0};

    Signals()
    {
        struct sigaction action = {};
        action.sa_handler = take_signal;  // no SA_RESTART: the calls underneath are interrupted
        sigaction(SIGUSR1, &action, nullptr);
    }

    // One signal after the other, each taken by the waiting thread.
    void interrupt(Task &reader, int signal, int times)
    {
        for (int i = 0; i < times && !reader.finished(); i++) {
            int taken = signals_taken;
            pthread_kill(reader_thread, signal);
            ASSERT_TRUE(faults::eventually([&] { return signals_taken > taken; }));
        }
    }
};

}

TEST_F(Signals, WaitWithoutLimitGoesOn)
{
    waiting();
    int before = faults::count(faults::SELECT);
    Task reader(peer, [&] {
        reader_thread = pthread_self();
        return (long)(read() != nullptr);
    });
    ASSERT_TRUE(faults::wait_for_calls(faults::SELECT, before + 1));
    interrupt(reader, SIGUSR1, 5);
    EXPECT_FALSE(reader.finished());
    peer.send(call_reply("data"));
    EXPECT_EQ(reader.get(), 1);
    EXPECT_EQ(data_of(want), "data");
    EXPECT_EQ(block->reader_busy, 0);
}

TEST_F(Signals, InterruptedSelectGoesOn)
{
    for (int nth = 1; nth <= 3; nth++) {
        waiting();
        faults::fail(faults::SELECT, nth, EINTR, 2);
        peer.send(call_reply("data"));
        ASSERT_NE(read(), nullptr) << nth;
        waiting();
        faults::fail(faults::SELECT, nth, EINTR, 2);
        peer.send(call_reply("more"));
        ASSERT_NE(read_within(10), nullptr) << nth;
        EXPECT_EQ(data_of(want), "more");
        EXPECT_EQ(block->reader_busy, 0);
    }
}

TEST_F(Signals, AlarmThatExpiresTheTransactionGivesTheRoleBack)
{
    // On one thread, with the real timer: the alarm finds this very wait.
    block->txinfo->tx_active = 1;
    block->txinfo->tx_stage = TX_STAGE_RUNNING;
    set_tx_state(block, TX_STATE_ACTIVE);
    waiting();
    _vorn_signal_control();
    _set_tx_timer(1, block);
    EXPECT_EQ(read(), nullptr);
    EXPECT_EQ(error(), TPETIME);
    EXPECT_EQ(block->reader_busy, 0);
    EXPECT_EQ(block->waiter_count, 0);
    EXPECT_EQ(tx_state_of(block), TX_STATE_TIMED_OUT);
    _clr_tx_timer(block);
    set_tx_state(block, TX_STATE_NONE);
    block->txinfo->tx_stage = TX_STAGE_NONE;
    waiting();
    peer.send(call_reply("next"));
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(data_of(want), "next");
}

TEST_F(Signals, ExpiredTransactionEndsAnInterruptedWait)
{
    // The wait is in its select when the transaction's state changes and a signal wakes it.
    block->txinfo->tx_active = 1;
    block->txinfo->tx_stage = TX_STAGE_RUNNING;
    set_tx_state(block, TX_STATE_ACTIVE);
    waiting();
    faults::before(faults::SELECT, 1, [&] { set_tx_state(block, TX_STATE_TIMED_OUT); });
    faults::fail(faults::SELECT, 1, EINTR);
    EXPECT_EQ(read(), nullptr);
    EXPECT_EQ(error(), TPETIME);
    EXPECT_EQ(block->reader_busy, 0);
}
