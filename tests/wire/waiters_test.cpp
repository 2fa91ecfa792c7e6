// Threads that wait while another one of their context reads: what ends a wait, and who reads next.
#include <functional>
#include <memory>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <vector>

#include "calls/cscommon.h"
#include "support/fixtures.h"
#include "tx/tx.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/context.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/session.h"
#include "wire/clhread.h"
#include "wire/clients.h"

namespace {

outcome finish(int result, const char *data, long length)
{
    outcome out;
    out.result = result;
    out.error = get_tperrno();
    out.ended = time(nullptr);
    if (result == 1)
        out.data = std::string(data, (size_t)length);
    return out;
}

outcome call(const char *service, long flags = 0)
{
    char *buffer = tpalloc((char *)"CARRAY", nullptr, 0);
    long length = 0;
    int result = tpcall((char *)service, nullptr, 0, &buffer, &length, flags);
    outcome out = finish(result, buffer, length);
    tpfree(buffer);
    return out;
}

outcome fetch(int descriptor, long flags = 0)
{
    char *buffer = tpalloc((char *)"CARRAY", nullptr, 0);
    long length = 0;
    int result = tpgetrply(&descriptor, &buffer, &length, flags);
    outcome out = finish(result, buffer, length);
    tpfree(buffer);
    return out;
}

int send_call(const char *service)
{
    return tpacall((char *)service, nullptr, 0, 0);
}

std::atomic<int> signals_taken{0};

struct Waiters : SessionTest {
    int number = 0;
    wthr_var *shared = nullptr;

    bool open(void)
    {
        if (!start({.acall_size = 64}, true))
            return false;
        number = context();
        shared = block();
        return true;
    }

    std::unique_ptr<client> begin(std::function<outcome()> work)
    {
        return std::make_unique<client>(peer, number, std::move(work));
    }

    std::unique_ptr<client> begin_call(const char *service, long flags = 0)
    {
        return begin([=] { return call(service, flags); });
    }

    bool locked(const std::function<bool()> &test)
    {
        pthread_mutex_lock(&shared->msg_mutex);
        bool holds = test();
        pthread_mutex_unlock(&shared->msg_mutex);
        return holds;
    }

    bool somebody_reads(void)
    {
        return faults::eventually([&] { return locked([&] { return shared->reader_busy == 1; }); });
    }

    bool waiting_are(int count)
    {
        return faults::eventually([&] { return locked([&] { return shared->waiting == count; }); });
    }

    // A call that keeps the reader role until it is answered.
    std::unique_ptr<client> begin_reader(wire::frame *request)
    {
        auto reader = begin_call("READER", TPNOTIME);
        *request = peer.expect(wire::TPACALL).svcname("READER").frame;
        EXPECT_TRUE(somebody_reads());
        return reader;
    }

    void end_reader(client *reader, const wire::frame &request)
    {
        EXPECT_FALSE(reader->task.finished());
        peer.reply_to(request, "DONE", {.buftype = wire::CARRAY});
        EXPECT_EQ(reader->task.get(), 1);
        EXPECT_EQ(reader->out.data, "DONE");
    }

    void open_transaction(void)
    {
        shared->txinfo->tx_active = 1;
        shared->txinfo->tx_stage = TX_STAGE_RUNNING;
        set_tx_state(shared, TX_STATE_ACTIVE);
    }

    // A wait for the outcome of a rollback, which no expired transaction ends.
    std::unique_ptr<client> begin_tolerant_reader(int32_t seqno)
    {
        auto reader = begin([=, this] {
            msg_header *want = new_message(MSG_TX_ROLLBACK, "", 64);
            want->seqno = seqno;
            msg_header *reply = _read_csmsg_from_clh2(-1, want, 1, shared);
            outcome out = finish(reply != nullptr ? reply->msgtype : -1, nullptr, 0);
            free(reply != nullptr ? reply : want);
            return out;
        });
        EXPECT_TRUE(somebody_reads());
        return reader;
    }

    void expect_idle(void)
    {
        EXPECT_TRUE(locked([&] {
            return shared->reader_busy == 0 && shared->waiter_count == 0 && shared->waiting == 0 &&
                   shared->offer_left == 0 && shared->offer_msg == nullptr &&
                   shared->waiters_head == nullptr && shared->waiters_tail == nullptr;
        }));
    }

    void expect_usable(void)
    {
        wire::frame request;
        auto reader = begin_reader(&request);
        end_reader(reader.get(), request);
        expect_idle();
    }
};

}  // namespace

// ---- transactions that run out of time

TEST_F(Waiters, ExpiredTransactionEndsAWaitersWaitAndTheReaderGoesOn)
{
    ASSERT_TRUE(open());
    open_transaction();
    auto reader = begin_tolerant_reader(77);
    shared->tx_deadline = time(nullptr) + 3;
    shared->tx_timer_on = 1;
    auto waiter = begin_call("WAITER");
    peer.expect(wire::TPACALL).svcname("WAITER");
    ASSERT_TRUE(waiting_are(1));
    EXPECT_EQ(waiter->task.get(), -1);
    EXPECT_EQ(waiter->out.error, TPETIME);
    EXPECT_FALSE(reader->task.finished());
    EXPECT_TRUE(locked([&] { return shared->reader_busy == 1 && shared->waiting == 0; }));
    peer.send(wire::message(1033, "", {.seqno = 77}));
    EXPECT_EQ(reader->task.get(), 1033);
    expect_idle();
}

TEST_F(Waiters, StateSetByAnotherThreadEndsAWaitersWait)
{
    ASSERT_TRUE(open());
    open_transaction();
    auto reader = begin_tolerant_reader(77);
    shared->tx_deadline = time(nullptr) + 3;
    shared->tx_timer_on = 1;
    auto waiter = begin_call("WAITER");
    peer.expect(wire::TPACALL).svcname("WAITER");
    ASSERT_TRUE(waiting_are(1));
    // As the alarm's handler does it on a thread that has taken the signal before the wait looked itself.
    shared->tx_timer_on = 0;
    set_tx_state(shared, TX_STATE_TIMED_OUT);
    EXPECT_EQ(waiter->task.get(), -1);
    EXPECT_EQ(waiter->out.error, TPETIME);
    EXPECT_FALSE(reader->task.finished());
    peer.send(wire::message(1033, "", {.seqno = 77}));
    EXPECT_EQ(reader->task.get(), 1033);
    expect_idle();
}

TEST_F(Waiters, TransactionThatHasExpiredLetsNobodyBeginToWait)
{
    ASSERT_TRUE(open());
    int cd = send_call("S");
    ASSERT_GT(cd, 0);
    peer.expect(wire::TPACALL);
    open_transaction();
    auto reader = begin_tolerant_reader(77);
    shared->tx_deadline = time(nullptr) - 5;
    shared->tx_timer_on = 1;
    auto waiter = begin([=] { return fetch(cd); });
    EXPECT_EQ(waiter->task.get(), -1);
    EXPECT_EQ(waiter->out.error, TPETIME);
    EXPECT_EQ(shared->tx_timer_on, 0);
    EXPECT_FALSE(reader->task.finished());
    peer.send(wire::message(1033, "", {.seqno = 77}));
    EXPECT_EQ(reader->task.get(), 1033);
    expect_idle();
}

// The alarm goes to one thread of the process; here it is one that stands on another context.
TEST_F(Waiters, TimerEndsAllWaitsOfItsContextThoughAnotherThreadTakesTheAlarm)
{
    ASSERT_TRUE(open());
    ASSERT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
    open_transaction();
    _set_tx_timer(1, shared);
    time_t deadline = shared->tx_deadline;
    std::vector<std::unique_ptr<client>> clients;
    for (int i = 0; i < 4; i++)
        clients.push_back(begin([] {
            sigset_t alarm_alone;
            sigemptyset(&alarm_alone);
            sigaddset(&alarm_alone, SIGALRM);
            pthread_sigmask(SIG_BLOCK, &alarm_alone, nullptr);
            return call("S");
        }));
    for (auto &one : clients) {
        EXPECT_EQ(one->task.get(), -1);
        EXPECT_EQ(one->out.error, TPETIME);
        EXPECT_LE(one->out.ended, deadline + 15);
    }
    EXPECT_EQ(shared->tx_timer_on, 0);
    expect_idle();
}

// ---- waits of no time

TEST_F(Waiters, FetchThatMustNotBlockEndsWhileAnotherReads)
{
    ASSERT_TRUE(open());
    wire::frame request;
    auto reader = begin_reader(&request);
    for (int round = 0; round < 20; round++) {
        auto hasty = begin([] { return fetch(send_call("HASTY"), TPNOBLOCK); });
        peer.expect(wire::TPACALL).svcname("HASTY");
        EXPECT_EQ(hasty->task.get(), -1);
        EXPECT_EQ(hasty->out.error, TPEBLOCK);
        EXPECT_FALSE(reader->task.finished());
    }
    EXPECT_TRUE(locked([&] { return shared->reader_busy == 1 && shared->waiting == 0; }));
    end_reader(reader.get(), request);
    expect_idle();
}

// ---- signals

TEST_F(Waiters, SignalDoesNotEndAWaitersWait)
{
    struct sigaction action = {};
    action.sa_handler = [](int) { signals_taken++; };
    sigaction(SIGUSR1, &action, nullptr);
    ASSERT_TRUE(open());
    wire::frame request;
    auto reader = begin_reader(&request);
    for (int block_time : {0, 1000}) {
        shared->block_time = block_time;
        auto waiter = begin_call("WAITER");
        wire::frame its = peer.expect(wire::TPACALL).svcname("WAITER").frame;
        ASSERT_TRUE(waiting_are(1));
        for (int i = 0; i < 50; i++) {
            int taken = signals_taken;
            pthread_kill(waiter->thread, SIGUSR1);
            ASSERT_TRUE(faults::eventually([&] { return signals_taken > taken; }));
        }
        EXPECT_FALSE(waiter->task.finished());
        EXPECT_TRUE(waiting_are(1));
        peer.reply_to(its, "MINE", {.buftype = wire::CARRAY});
        EXPECT_EQ(waiter->task.get(), 1);
        EXPECT_EQ(waiter->out.data, "MINE");
    }
    end_reader(reader.get(), request);
    expect_idle();
}

// ---- the role

TEST_F(Waiters, RoleGoesFromOneToTheNextAsTheReadersTimeRunsOut)
{
    constexpr int LIMITED = 3;
    ASSERT_TRUE(open());
    std::vector<std::unique_ptr<client>> clients;
    wire::frame last;
    for (int i = 0; i <= LIMITED; i++) {
        shared->block_time = i < LIMITED ? 1000 * (i + 1) : 0;
        clients.push_back(begin_call("S"));
        last = peer.expect(wire::TPACALL).frame;
        ASSERT_TRUE(somebody_reads());
        ASSERT_TRUE(waiting_are(i));
    }
    for (int i = 0; i < LIMITED; i++) {
        faults::shift_clock(1001);
        // A message that nobody wants makes the reader look at the clock.
        EXPECT_TRUE(faults::eventually([&] {
            peer.send(wire::message(1012));
            return clients[(size_t)i]->task.finished();
        }));
        EXPECT_EQ(clients[(size_t)i]->task.get(), -1);
        EXPECT_EQ(clients[(size_t)i]->out.error, TPETIME);
        ASSERT_TRUE(waiting_are(LIMITED - 1 - i));
        EXPECT_TRUE(locked([&] { return shared->reader_busy == 1; }));
        for (size_t later = (size_t)i + 1; later < clients.size(); later++)
            EXPECT_FALSE(clients[later]->task.finished());
    }
    peer.reply_to(last, "DONE", {.buftype = wire::CARRAY});
    EXPECT_EQ(clients[LIMITED]->task.get(), 1);
    EXPECT_EQ(clients[LIMITED]->out.data, "DONE");
    expect_idle();
}

// A wait of no time ends at about the moment at which its message, or the role, is given to it.
TEST_F(Waiters, TimeOutAtTheLastMomentLosesNeitherMessageNorRole)
{
    constexpr int ROUNDS = 300;
    ASSERT_TRUE(open());
    peer.play([&] {
        for (int round = 0; round < 2 * ROUNDS; round += 2) {
            wire::frame one, two;
            if (!peer.receive(&one) || !peer.receive(&two))
                return;
            // The reader's own answer makes it give the role away; the other one's is handed over.
            // In one piece: the second one of two would wait for the acknowledgement of the first.
            bool swapped = round % 4 == 0;
            std::string replies;
            for (const wire::frame &request : {swapped ? two : one, swapped ? one : two})
                replies += wire::encode(wire::answer(request, request.svcname, {.buftype = wire::CARRAY}));
            peer.send_raw(replies);
        }
    });
    // Both threads begin a round together.
    std::atomic<int> arrived{0};
    auto meet = [&arrived] {
        int round = arrived.fetch_add(1) / 2;
        EXPECT_TRUE(faults::eventually([&] { return arrived.load() >= (round + 1) * 2; }));
    };
    auto patient = begin([&] {
        outcome out;
        for (int round = 0; round < ROUNDS && out.error == 0; round++) {
            meet();
            std::string name = "P" + std::to_string(round);
            out = call(name.c_str());
            EXPECT_EQ(out.result, 1) << out.error;
            EXPECT_EQ(out.data, name);
        }
        return out;
    });
    auto hasty = begin([&] {
        outcome out;
        for (int round = 0; round < ROUNDS && out.error == 0; round++) {
            meet();
            std::string name = "H" + std::to_string(round);
            int descriptor = send_call(name.c_str());
            EXPECT_TRUE(faults::eventually([&] {
                for (int i = 0; i < 50; i++) {
                    out = fetch(descriptor, TPNOBLOCK);
                    if (out.error != TPEBLOCK)
                        return true;
                }
                return false;
            }));
            EXPECT_EQ(out.result, 1) << out.error;
            EXPECT_EQ(out.data, name);
        }
        return out;
    });
    EXPECT_EQ(patient->task.get(), 1);
    EXPECT_EQ(hasty->task.get(), 1);
    peer.done();
    EXPECT_EQ(shared->acall_active, 0);
    expect_idle();
    expect_usable();
}

TEST_F(Waiters, ReplyStoredAsItsWaiterComesIsNotMissed)
{
    constexpr int ROUNDS = 300;
    ASSERT_TRUE(open());
    wire::frame request;
    auto reader = begin_reader(&request);
    peer.play([&] {
        for (int round = 0; round < ROUNDS; round++) {
            wire::frame one = peer.expect(wire::TPACALL).frame;
            peer.reply_to(one, one.svcname, {.buftype = wire::CARRAY});
        }
    });
    // One thread calls, another one fetches; the reader stores or hands over.
    std::atomic<int> made{0}, fetched{0};
    std::atomic<int> descriptor{0};
    auto caller = begin([&] {
        for (int round = 0; round < ROUNDS; round++) {
            descriptor = send_call(std::to_string(round).c_str());
            made = round + 1;
            made.notify_all();
            fetched.wait(round);
            if (fetched < 0)
                break;
        }
        return outcome();
    });
    auto fetcher = begin([&] {
        outcome out;
        for (int round = 0; round < ROUNDS; round++) {
            made.wait(round);
            out = fetch(descriptor, round % 3 == 0 ? TPGETANY : 0);
            if (out.result != 1)
                break;
            EXPECT_EQ(out.data, std::to_string(round));
            fetched = round + 1;
            fetched.notify_all();
        }
        if (out.result != 1) {
            fetched = -1;
            fetched.notify_all();
        }
        return out;
    });
    EXPECT_EQ(fetcher->task.get(), 1) << fetcher->out.error;
    EXPECT_EQ(caller->task.get(), 0);
    peer.done();
    EXPECT_EQ(shared->acall_active, 0);
    end_reader(reader.get(), request);
    expect_idle();
}
