// Several threads on one connection: each gets its own reply, whoever reads it.
#include <ctype.h>
#include <signal.h>
#include <string.h>

#include <atomic>
#include <deque>
#include <memory>
#include <random>

#include "support/fixtures.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/context.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/session.h"
#include "wire/clients.h"

namespace {

std::string upper(std::string text)
{
    for (char &c : text)
        c = (char)toupper((unsigned char)c);
    return text;
}

// The text of a reply, with or without its NUL.
std::string text_of(const char *buffer, long length)
{
    return std::string(buffer, (size_t)(length > 0 && buffer[length - 1] == '\0' ? length - 1 : length));
}

outcome call(const std::string &text, long flags = 0, long room = 1024)
{
    outcome out;
    char *buffer = tpalloc((char *)"STRING", nullptr, std::max<long>(room, (long)text.size() + 1));
    strcpy(buffer, text.c_str());
    long length = 0;
    out.result = tpcall((char *)"TOUPPER", buffer, 0, &buffer, &length, flags);
    out.error = get_tperrno();
    if (out.result == 1 || out.error == TPESVCFAIL)
        out.data = text_of(buffer, length);
    tpfree(buffer);
    return out;
}

outcome fetch(int descriptor, long flags = 0)
{
    outcome out;
    char *buffer = tpalloc((char *)"STRING", nullptr, 0);
    long length = 0;
    out.result = tpgetrply(&descriptor, &buffer, &length, flags);
    out.error = get_tperrno();
    if (out.result == 1)
        out.data = text_of(buffer, length);
    tpfree(buffer);
    return out;
}

outcome call_and_fetch(const std::string &text)
{
    char *buffer = tpalloc((char *)"STRING", nullptr, (long)text.size() + 1);
    strcpy(buffer, text.c_str());
    int descriptor = tpacall((char *)"TOUPPER", buffer, 0, 0);
    tpfree(buffer);
    return fetch(descriptor);
}

struct Threads : SessionTest {
    int number = 0;
    wthr_var *shared = nullptr;  // the block that all threads stand on

    bool open(const wire::start_reply &reply = {})
    {
        if (!start(reply, true))
            return false;
        number = context();
        shared = block();
        return true;
    }

    std::unique_ptr<client> begin(std::function<outcome()> work)
    {
        return std::make_unique<client>(peer, number, std::move(work));
    }

    std::unique_ptr<client> begin_call(const std::string &text, long flags = 0, long room = 1024)
    {
        return begin([=] { return call(text, flags, room); });
    }

    // A shared TPCALL travels as a marked TPACALL.
    wire::frame expect_call(const std::string &text, where place = where::current())
    {
        Expected got = peer.expect(wire::TPACALL, place);
        got.text(text).svcname("TOUPPER");
        EXPECT_NE(got.frame.seqno & wire::SHARED_CALL, 0);
        return got;
    }

    void answer(const wire::frame &request) { peer.reply_to(request, upper(request.data)); }

    // Some thread has the reader role and is in its wait for the socket.
    void wait_for_a_reader()
    {
        EXPECT_TRUE(faults::eventually([&] {
            pthread_mutex_lock(&shared->msg_mutex);
            bool reading = shared->reader_busy == 1;
            pthread_mutex_unlock(&shared->msg_mutex);
            return reading;
        }));
    }

    void wait_for_waiters(int least)
    {
        EXPECT_TRUE(faults::eventually([&] {
            pthread_mutex_lock(&shared->msg_mutex);
            bool there = shared->waiter_count >= least && shared->waiters_head != nullptr;
            pthread_mutex_unlock(&shared->msg_mutex);
            return there;
        }));
    }

    void expect_idle()
    {
        EXPECT_EQ(shared->reader_busy, 0);
        EXPECT_EQ(shared->waiter_count, 0);
        EXPECT_EQ(shared->offer_left, 0);
        EXPECT_EQ(shared->offer_msg, nullptr);
        EXPECT_EQ(shared->waiters_head, nullptr);
    }
};

}

TEST_F(Threads, OneAttachedThreadCallsInTheSharedForm)
{
    ASSERT_TRUE(open());
    auto one = begin_call("alone");
    answer(expect_call("alone"));
    EXPECT_EQ(one->task.get(), 1);
    EXPECT_EQ(one->out.data, "ALONE");
    EXPECT_EQ(shared->thread_refs, 0);  // the thread has left
    expect_idle();
}

TEST_F(Threads, WithNobodyAttachedTheCallIsPlain)
{
    ASSERT_TRUE(open());
    peer.play([&] {
        peer.expect(wire::TPCALL).text("plain");
        peer.reply("PLAIN");
    });
    EXPECT_EQ(call("plain").data, "PLAIN");
}

TEST_F(Threads, EachOfTwoGetsItsOwnReplyInEitherOrder)
{
    ASSERT_TRUE(open());
    for (int round = 0; round < 40; round++) {
        auto first = begin_call("first");
        wire::frame one = expect_call("first");
        if (round % 4 < 2)
            wait_for_a_reader();
        auto second = begin_call("second");
        wire::frame two = expect_call("second");
        if (round % 4 < 2)
            wait_for_waiters(1);
        answer(round % 2 == 0 ? two : one);
        EXPECT_EQ((round % 2 == 0 ? second : first)->task.get(), 1);  // the other one is still waiting
        answer(round % 2 == 0 ? one : two);
        EXPECT_EQ(first->task.get(), 1);
        EXPECT_EQ(second->task.get(), 1);
        EXPECT_EQ(first->out.data, "FIRST");
        EXPECT_EQ(second->out.data, "SECOND");
        expect_idle();
    }
    EXPECT_EQ(log.text(), "");  // nothing went through the treatment of lost messages
}

TEST_F(Threads, BothRepliesInOneSegment)
{
    ASSERT_TRUE(open());
    for (int round = 0; round < 20; round++) {
        auto first = begin_call("first");
        wire::frame one = expect_call("first");
        auto second = begin_call("second");
        wire::frame two = expect_call("second");
        peer.send_raw(wire::encode(wire::answer(two, "TWO")) + wire::encode(wire::answer(one, "ONE")));
        EXPECT_EQ(first->task.get(), 1);
        EXPECT_EQ(second->task.get(), 1);
        EXPECT_EQ(first->out.data, "ONE");
        EXPECT_EQ(second->out.data, "TWO");
    }
    expect_idle();
}

TEST_F(Threads, LargeRepliesReplaceTheTakersBuffer)
{
    ASSERT_TRUE(open());
    std::string large(60000, 'x'), small = "s";
    auto first = begin_call(small);
    wire::frame one = expect_call(small);
    wait_for_a_reader();
    auto second = begin_call("t");
    wire::frame two = expect_call("t");
    wait_for_waiters(1);
    peer.reply_to(two, large);
    EXPECT_EQ(second->task.get(), 1);
    EXPECT_EQ(second->out.data, large);
    peer.reply_to(one, large + "y");
    EXPECT_EQ(first->task.get(), 1);
    EXPECT_EQ(first->out.data, large + "y");
}

TEST_F(Threads, ErrorReplyIsHandedOverToo)
{
    ASSERT_TRUE(open());
    auto first = begin_call("first");
    wire::frame one = expect_call("first");
    wait_for_a_reader();
    auto second = begin_call("second");
    wire::frame two = expect_call("second");
    peer.reply_to(two, "reason", {.rcode = 9, .flags = TPESVCFAIL});
    EXPECT_EQ(second->task.get(), -1);
    EXPECT_EQ(second->out.error, TPESVCFAIL);
    EXPECT_EQ(second->out.data, "reason");
    answer(one);
    EXPECT_EQ(first->task.get(), 1);
}

TEST_F(Threads, MessageThatNobodyTakesGoesAndTheWaitsGoOn)
{
    ASSERT_TRUE(open());
    auto first = begin_call("first");
    wire::frame one = expect_call("first");
    wait_for_a_reader();
    auto second = begin_call("second");
    wire::frame two = expect_call("second");
    wait_for_waiters(1);
    wire::frame lost = one;
    lost.seqno = 123 | wire::SHARED_CALL;
    peer.reply_to(lost, "nobody's");
    answer(two);
    answer(one);
    EXPECT_EQ(first->task.get(), 1);
    EXPECT_EQ(second->task.get(), 1);
    EXPECT_EQ(first->out.data, "FIRST");
    EXPECT_EQ(second->out.data, "SECOND");
    EXPECT_TRUE(log.has("2008 tpcall reply arrived after timeout. Msg discarded : 1003 123 [CSC5708]"))
        << log.text();
    EXPECT_TRUE(log.has("3001 sequence number error")) << log.text();
    expect_idle();
}

// Time-outs.

TEST_F(Threads, WaiterTimesOutWhileAnotherReads)
{
    ASSERT_TRUE(open({.block_time = 1}));
    auto reader = begin_call("patient", TPNOTIME);
    wire::frame one = expect_call("patient");
    wait_for_a_reader();
    auto hasty = begin_call("hasty");
    wire::frame two = expect_call("hasty");
    EXPECT_EQ(hasty->task.get(), -1);
    EXPECT_EQ(hasty->out.error, TPETIME);
    EXPECT_FALSE(reader->task.finished());
    answer(two);  // too late
    answer(one);
    EXPECT_EQ(reader->task.get(), 1);
    EXPECT_EQ(reader->out.data, "PATIENT");
    EXPECT_TRUE(log.has("2008 tpcall reply arrived after timeout")) << log.text();
    expect_idle();
}

TEST_F(Threads, ReaderTimesOutAndAWaiterReadsOn)
{
    ASSERT_TRUE(open({.block_time = 1000}));
    auto hasty = begin_call("hasty");
    expect_call("hasty");
    wait_for_a_reader();
    auto patient = begin_call("patient", TPNOTIME);
    wire::frame two = expect_call("patient");
    wait_for_waiters(1);
    faults::shift_clock(1001);
    // A message that nobody wants makes the reader look at the clock.
    EXPECT_TRUE(faults::eventually([&] {
        peer.send(wire::message(1012));
        return hasty->task.finished();
    }));
    EXPECT_EQ(hasty->task.get(), -1);
    EXPECT_EQ(hasty->out.error, TPETIME);
    answer(two);
    EXPECT_EQ(patient->task.get(), 1);
    EXPECT_EQ(patient->out.data, "PATIENT");
    expect_idle();
}

TEST_F(Threads, AllTimeOut)
{
    ASSERT_TRUE(open({.block_time = 1}));
    std::deque<std::unique_ptr<client>> clients;
    for (int i = 0; i < 6; i++)
        clients.push_back(begin_call("x"));
    for (auto &one : clients) {
        EXPECT_EQ(one->task.get(), -1);
        EXPECT_EQ(one->out.error, TPETIME);
    }
    expect_idle();
    for (int i = 0; i < 6; i++)
        peer.expect(wire::TPACALL);
    auto again = begin_call("again");
    answer(expect_call("again"));
    EXPECT_EQ(again->task.get(), 1);
}

// Asynchronous calls beside synchronous ones.

TEST_F(Threads, WhoeverReadsStoresOrHandsOverAnAsynchronousReply)
{
    ASSERT_TRUE(open());
    for (int round = 0; round < 20; round++) {
        auto caller = begin_call("call");
        wire::frame sync = expect_call("call");
        wait_for_a_reader();
        auto fetcher = begin([] {
            char *buffer = tpalloc((char *)"STRING", nullptr, 0);
            strcpy(buffer, "acall");
            int descriptor = tpacall((char *)"TOUPPER", buffer, 0, 0);
            tpfree(buffer);
            return fetch(descriptor);
        });
        Expected async = peer.expect(wire::TPACALL);
        async.text("acall");
        EXPECT_EQ(async.frame.seqno & wire::SHARED_CALL, 0);
        answer(async);
        EXPECT_EQ(fetcher->task.get(), 1);
        EXPECT_EQ(fetcher->out.data, "ACALL");
        EXPECT_FALSE(caller->task.finished());
        answer(sync);
        EXPECT_EQ(caller->task.get(), 1);
    }
    expect_idle();
}

TEST_F(Threads, AsynchronousReplyIsStoredWhileItsOwnerIsElsewhere)
{
    ASSERT_TRUE(open());
    char *buffer = tpalloc((char *)"STRING", nullptr, 0);
    strcpy(buffer, "stored");
    int descriptor = tpacall((char *)"TOUPPER", buffer, 0, 0);
    ASSERT_GT(descriptor, 0);
    tpfree(buffer);
    wire::frame async = peer.expect(wire::TPACALL);
    auto caller = begin_call("call");
    wire::frame sync = expect_call("call");
    answer(async);
    answer(sync);
    EXPECT_EQ(caller->task.get(), 1);
    outcome got = fetch(descriptor);  // nothing is read for it any more
    EXPECT_EQ(got.result, 1);
    EXPECT_EQ(got.data, "STORED");
}

// The peer's end.

TEST_F(Threads, PeerThatDiesEndsEveryWaitOfTwo)
{
    ASSERT_TRUE(open());
    auto first = begin_call("first");
    expect_call("first");
    wait_for_a_reader();
    auto second = begin_call("second");
    expect_call("second");
    wait_for_waiters(1);
    peer.hang_up();
    EXPECT_EQ(first->task.get(), -1);
    EXPECT_EQ(second->task.get(), -1);
    EXPECT_EQ(first->out.error, TPECLOSE);
    EXPECT_EQ(second->out.error, TPESYSTEM);  // woken, it finds no socket
    EXPECT_EQ(shared->started, 0);
    EXPECT_EQ(shared->clhfd, -1);
}

// Those whom nobody wakes have their limit.
TEST_F(Threads, PeerThatDiesEndsEveryWaitWithALimit)
{
    ASSERT_TRUE(open({.block_time = 6}));
    std::deque<std::unique_ptr<client>> clients;
    for (int i = 0; i < 8; i++)
        clients.push_back(begin_call("x"));
    for (int i = 0; i < 8; i++)
        expect_call("x");
    wait_for_a_reader();
    peer.hang_up();
    int closed = 0;
    for (auto &one : clients) {
        EXPECT_EQ(one->task.get(), -1);
        EXPECT_TRUE(one->out.error == TPECLOSE || one->out.error == TPESYSTEM || one->out.error == TPETIME)
            << one->out.error;
        closed += one->out.error == TPECLOSE;
    }
    EXPECT_EQ(closed, 1);
}

TEST_F(Threads, UnknownMessageEndsTheReadersWaitOnly)
{
    ASSERT_TRUE(open());
    auto first = begin_call("first");
    expect_call("first");
    wait_for_a_reader();
    auto second = begin_call("second");
    wire::frame two = expect_call("second");
    wait_for_waiters(1);
    peer.send(wire::message(2006));
    EXPECT_EQ(first->task.get(), -1);
    EXPECT_EQ(first->out.error, TPESYSTEM);
    answer(two);
    EXPECT_EQ(second->task.get(), 1);
    EXPECT_EQ(second->out.data, "SECOND");
    expect_idle();
}

// Signals.

static std::atomic<int> signals_taken{0};

TEST_F(Threads, SignalsDoNotEndTheWaitOfReaderOrWaiter)
{
    struct sigaction action = {};
    action.sa_handler = [](int) { signals_taken++; };
    sigaction(SIGUSR1, &action, nullptr);
    ASSERT_TRUE(open());
    auto first = begin_call("first");
    wire::frame one = expect_call("first");
    wait_for_a_reader();
    auto second = begin_call("second");
    wire::frame two = expect_call("second");
    wait_for_waiters(1);
    for (int i = 0; i < 10; i++)
        for (client *target : {first.get(), second.get()}) {
            int taken = signals_taken;
            pthread_kill(target->thread, SIGUSR1);
            ASSERT_TRUE(faults::eventually([&] { return signals_taken > taken; }));
        }
    EXPECT_FALSE(first->task.finished());
    EXPECT_FALSE(second->task.finished());
    answer(two);
    answer(one);
    EXPECT_EQ(first->task.get(), 1);
    EXPECT_EQ(second->task.get(), 1);
    expect_idle();
}

// Many threads, many calls, replies in any order.

namespace {

// Takes requests and answers them in random order until `total` are answered. Up to `window` wait at a time.
void serve_at_random(Conn &peer, int total, size_t window, unsigned seed)
{
    std::mt19937 dice(seed);
    std::vector<wire::frame> open;
    int answered = 0;
    while (answered < total && peer.fd >= 0) {
        bool room = open.size() < window;
        if (open.empty() || (room && peer.something_came() && dice() % 4 != 0)) {
            open.push_back(peer.expect(wire::TPACALL));
            continue;
        }
        size_t chosen = dice() % open.size();
        std::string data = upper(open[chosen].data);
        if (dice() % 8 == 0)  // nobody's: dropped on the way
            peer.send(wire::message(1012));
        if (dice() % 5 == 0)
            peer.send_compressed(wire::answer(open[chosen], data));
        else
            peer.reply_to(open[chosen], data);
        open.erase(open.begin() + (long)chosen);
        answered++;
    }
}

}

static void many_threads(Threads &test, long flags,
                         const std::function<outcome(const std::string &, long)> &one_call)
{
    constexpr int THREADS = 16, EACH = 60;
    std::atomic<int> wrong{0};
    std::deque<std::unique_ptr<client>> clients;
    for (int t = 0; t < THREADS; t++)
        clients.push_back(test.begin([&, t] {
            outcome last;
            for (int i = 0; i < EACH; i++) {
                std::string text = "thread " + std::to_string(t) + " call " + std::to_string(i);
                text += std::string((size_t)(i % 7 * 400), (char)('a' + t));
                last = one_call(text, flags);
                wrong += last.result != 1 || last.data != upper(text);
            }
            return last;
        }));
    serve_at_random(test.peer, THREADS * EACH, 12, 4711);
    for (auto &one : clients)
        EXPECT_EQ(one->task.get(), 1);
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(test.log.text(), "");
    test.expect_idle();
}

TEST_F(Threads, ManyThreadsManyCallsWithoutALimit)
{
    ASSERT_TRUE(open());
    many_threads(*this, 0, [](const std::string &text, long flags) { return call(text, flags); });
}

TEST_F(Threads, ManyThreadsManyCallsWithALimit)
{
    ASSERT_TRUE(open({.block_time = 30}));
    many_threads(*this, 0, [](const std::string &text, long flags) { return call(text, flags); });
}

TEST_F(Threads, ManyThreadsMixedLimitsAndSmallPieces)
{
    ASSERT_TRUE(open({.block_time = 30}));
    faults::limit(faults::RECV, 100);
    faults::limit(faults::SEND, 90);
    many_threads(*this, 0, [](const std::string &text, long) {
        return call(text, text.size() % 2 == 0 ? TPNOTIME : 0);
    });
}

TEST_F(Threads, ManyThreadsAsynchronousCalls)
{
    ASSERT_TRUE(open({.acall_size = 64}));
    many_threads(*this, 0, [](const std::string &text, long) {
        return call_and_fetch(text);
    });
}

TEST_F(Threads, ManyThreadsOfBothKinds)
{
    ASSERT_TRUE(open({.acall_size = 64, .block_time = 30}));
    many_threads(*this, 0, [](const std::string &text, long) {
        if (text.size() % 3 == 0)
            return call(text);
        return call_and_fetch(text);
    });
}

TEST_F(Threads, ManyThreadsCompressedRequests)
{
    ASSERT_TRUE(open({.threshold = 500}));
    many_threads(*this, 0, [](const std::string &text, long flags) { return call(text, flags); });
}
