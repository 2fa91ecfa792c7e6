// Threads of a context whose connection is lost under them.
#include "calls/cscommon.h"
#include "runtime/sigapi.h"
#include "support/fixtures.h"
#include "tx/tx.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/context.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/session.h"
#include "wire/clhread.h"

#include <signal.h>
#include <thread>
#include <unistd.h>

namespace {

struct LostConnection : SessionTest {
    static long call(void)
    {
        char *buffer = tpalloc((char *)"CARRAY", nullptr, 0);
        long length = 0;
        long result = tpcall((char *)"S", nullptr, 0, &buffer, &length, 0);
        tpfree(buffer);
        return result;
    }

    bool waiting_are(wthr_var *shared, int count)
    {
        return faults::eventually([&] {
            pthread_mutex_lock(&shared->msg_mutex);
            bool holds = shared->reader_busy == 1 && shared->waiting == count;
            pthread_mutex_unlock(&shared->msg_mutex);
            return holds;
        });
    }
};

void ignore_signal(int) {}

// Of three waits without a limit one ends with the connection, one finds no socket, and one stays: nobody is left to
// wake it. The context may end all the same, and what a signal wakes then must not be gone.
TEST_F(LostConnection, ContextStaysForAThreadThatCannotLeaveItsCall)
{
    ASSERT_TRUE(start({}, true));
    int number = context();
    wthr_var *shared = block();
    ASSERT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
    struct sigaction plain = {};
    plain.sa_handler = ignore_signal;
    sigaction(SIGUSR1, &plain, nullptr);

    std::atomic<int> ended{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; i++)
        threads.emplace_back([&] {
            tpsetctxt(number, 0);
            EXPECT_EQ(call(), -1);
            int before = ended++;
            ended.notify_all();
            if (before == 0) {
                ended.wait(1);
                EXPECT_EQ(tpend(), -1);
                EXPECT_EQ(get_tperrno(), TPEPROTO);
                ended = 10;
            }
        });
    for (int i = 0; i < 3; i++)
        peer.expect(wire::TPACALL);
    ASSERT_TRUE(waiting_are(shared, 2));
    peer.hang_up();
    ASSERT_TRUE(faults::eventually([&] { return ended >= 10; }));
    for (std::thread &thread : threads)
        for (int i = 0; i < 3; i++)
            pthread_kill(thread.native_handle(), SIGUSR1);
    // The one that stays reads the list of waiters once more; it is still there.
    pthread_mutex_lock(&shared->msg_mutex);
    EXPECT_EQ(shared->waiting, 1);
    pthread_mutex_unlock(&shared->msg_mutex);
    for (std::thread &thread : threads)
        thread.detach();
    fflush(nullptr);
    _exit(HasFailure() ? 1 : 0);
}

// A handler that closes the connection wakes the thread that sleeps on it.
TEST_F(LostConnection, BrokenPipeOfASenderEndsTheReadersWait)
{
    ASSERT_TRUE(start({}, true));
    int number = context();
    wthr_var *shared = block();
    Task reader(peer, [&]() -> long {
        tpsetctxt(number, 0);
        long result = call();
        long error = get_tperrno();
        tpsetctxt(TPNULLCONTEXT, 0);
        return result == -1 ? error : 0;
    });
    peer.expect(wire::TPACALL);
    ASSERT_TRUE(waiting_are(shared, 0));
    std::atomic_ref<int32_t>(shared->in_send).store(1);
    raise(SIGPIPE);
    std::atomic_ref<int32_t>(shared->in_send).store(0);
    long error = reader.get();
    EXPECT_TRUE(error == TPEOS || error == TPESYSTEM || error == TPECLOSE) << error;
    EXPECT_EQ(shared->clhfd, -1);
    EXPECT_EQ(shared->started, 0);
}

// The deadline of a transaction that has ended says nothing about the next one.
TEST_F(LostConnection, DeadlineGoesWithItsTimer)
{
    ASSERT_TRUE(start());
    wthr_var *own = block();
    _set_tx_timer(1, own);
    _clr_tx_timer(own);
    faults::shift_clock(10);
    own->txinfo->tx_active = 1;
    own->txinfo->tx_stage = TX_STAGE_RUNNING;
    set_tx_state(own, TX_STATE_ROLLBACK);
    msg_header *want = new_message(MSG_TPCALL, "", 64);
    want->seqno = 4711;
    own->waiter_count++;  // as the send path counts it
    peer.send(wire::message(1003, "x", {.seqno = 4711}));
    msg_header *reply = _read_csmsg_from_clh(-1, want, own);
    EXPECT_EQ(reply, want);
    free(want);
}

}  // namespace
