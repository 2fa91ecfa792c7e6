// Several threads on one context, which share its connection.
#include "calls/fixture.h"

#include <algorithm>
#include <poll.h>
#include <random>

namespace {

struct Shared : CallTest {
    // Puts `count` threads on the context of the test's thread and runs the work in each, with its number.
    void in_threads(int count, const std::function<void(int)> &work)
    {
        int number = context();
        std::vector<std::thread> threads;
        for (int t = 0; t < count; t++)
            threads.emplace_back([number, t, &work] {
                ASSERT_EQ(tpsetctxt(number, 0), 1);
                work(t);
                EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
            });
        for (std::thread &thread : threads)
            thread.join();
    }

    // Answers `total` requests with their own data. Takes as many as are there, up to `window`, and answers
    // them in random order.
    void echo(int total, size_t window, unsigned seed)
    {
        peer.play([this, total, window, seed] {
            std::minstd_rand random(seed);
            for (int taken = 0; taken < total;) {
                std::vector<wire::frame> held;
                pollfd more = {peer.fd, POLLIN, 0};
                do {
                    wire::frame request;
                    if (!peer.receive(&request))
                        return;
                    held.push_back(request);
                    taken++;
                } while (held.size() < window && taken < total && poll(&more, 1, 0) > 0);
                std::shuffle(held.begin(), held.end(), random);
                for (const wire::frame &one : held)
                    peer.reply_to(one, one.data, {.buftype = wire::CARRAY});
            }
        });
    }
};

}  // namespace

TEST_F(Shared, SynchronousCallTravelsAsAMarkedAsynchronousOne)
{
    ASSERT_TRUE(start({}, true));
    peer.play([&] {
        peer.expect(wire::TPCALL);  // alone on the context
        peer.reply("x");
        wire::frame request = peer.expect(wire::TPACALL).cd(0).flags(0).frame;
        EXPECT_EQ(request.seqno & 0x40000000, 0x40000000);
        EXPECT_NE(request.callid[1], 0u);
        peer.reply("SHARED", {.rcode = 3});
        peer.expect(wire::TPACALL);
        peer.reply("no", {.flags = TPESVCFAIL});
        peer.expect(wire::TPCALL);
        peer.reply("x");
    });
    EXPECT_EQ(call(), 1);
    in_threads(1, [&](int) {
        EXPECT_EQ(call(), 1);
        EXPECT_EQ(reply_data(), "SHARED");
        EXPECT_EQ(gettpurcode(), 3);
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(gettperrno(), TPESVCFAIL);
        EXPECT_EQ(reply_data(), "no");
    });
    EXPECT_EQ(call(), 1);
    peer.done();
    expect_idle();
}

TEST_F(Shared, EveryThreadGetsItsOwnReply)
{
    constexpr int THREADS = 8, CALLS = 100;
    ASSERT_TRUE(start({}, true));
    echo(THREADS * CALLS, THREADS, 1);
    in_threads(THREADS, [](int t) {
        char *data = new_buffer("CARRAY"), *reply = new_buffer("CARRAY");
        long length = 0;
        for (int n = 0; n < CALLS; n++) {
            int size = snprintf(data, 100, "thread %d call %d", t, n);
            ASSERT_EQ(tpcall(svc("ECHO"), data, size, &reply, &length, 0), 1) << get_tperrno();
            ASSERT_EQ(std::string(reply, (size_t)length), std::string(data, (size_t)size));
        }
        tpfree(data);
        tpfree(reply);
    });
    peer.done();
    expect_idle();
    EXPECT_EQ(block()->thread_refs, 0);
}

TEST_F(Shared, SixteenThreadsMixCallsOfBothKinds)
{
    constexpr int THREADS = 16, ROUNDS = 30;
    wire::start_reply reply;
    reply.acall_size = 64;
    ASSERT_TRUE(start(reply, true));
    echo(THREADS * ROUNDS * 3, 8, 2);
    in_threads(THREADS, [](int t) {
        char *data = new_buffer("CARRAY"), *answer = new_buffer("CARRAY");
        long length = 0;
        for (int n = 0; n < ROUNDS; n++) {
            int size = snprintf(data, 100, "first of thread %d round %d", t, n);
            std::string first(data, (size_t)size);
            int cd = tpacall(svc("ECHO"), data, size, 0);
            ASSERT_GT(cd, 0);
            size = snprintf(data, 100, "call of thread %d round %d", t, n);
            ASSERT_EQ(tpcall(svc("ECHO"), data, size, &answer, &length, 0), 1) << get_tperrno();
            ASSERT_EQ(std::string(answer, (size_t)length), std::string(data, (size_t)size));
            ASSERT_EQ(tpgetrply(&cd, &answer, &length, 0), 1) << get_tperrno();
            ASSERT_EQ(std::string(answer, (size_t)length), first);
            data = tprealloc(data, 4000);
            memset(data, 'a' + t, 3000);
            cd = tpacall(svc("ECHO"), data, 3000, 0);
            ASSERT_GT(cd, 0);
            ASSERT_EQ(tpgetrply(&cd, &answer, &length, 0), 1) << get_tperrno();
            ASSERT_EQ(std::string(answer, (size_t)length), std::string(3000, (char)('a' + t)));
        }
        tpfree(data);
        tpfree(answer);
    });
    peer.done();
    EXPECT_EQ(block()->acall_active, 0);
    expect_idle();
}

TEST_F(Shared, ReplyCanBeCollectedByAnotherThread)
{
    ASSERT_TRUE(start({}, true));
    peer.play([&] {
        peer.expect(wire::TPACALL).cd(1);
        peer.reply("FOR WHOM IT MAY CONCERN");
    });
    int cd = acall();
    in_threads(1, [&](int) {
        EXPECT_EQ(getrply(&cd), 1);
        EXPECT_EQ(reply_data(), "FOR WHOM IT MAY CONCERN");
    });
}

TEST_F(Shared, OneThreadsTimeOutLeavesTheOthersWaiting)
{
    wire::start_reply reply;
    reply.block_time = 30;
    ASSERT_TRUE(start(reply, true));
    std::atomic<bool> timed_out{false};
    peer.play([&] {
        wire::frame one, two;
        ASSERT_TRUE(peer.receive(&one));
        ASSERT_TRUE(peer.receive(&two));
        wire::frame &patient = one.svcname == "PATIENT" ? one : two;
        ASSERT_TRUE(faults::eventually([&] { return timed_out.load(); }));
        peer.reply_to(patient, "AT LAST", {.buftype = wire::CARRAY});
    });
    in_threads(2, [&](int t) {
        char *answer = new_buffer("CARRAY");
        long length = 0;
        if (t == 0) {
            EXPECT_EQ(tpcall(svc("PATIENT"), nullptr, 0, &answer, &length, TPNOTIME), 1) << get_tperrno();
            EXPECT_EQ(std::string(answer, (size_t)length), "AT LAST");
        } else {
            int cd = tpacall(svc("HASTY"), nullptr, 0, 0);
            EXPECT_GT(cd, 0);
            EXPECT_EQ(tpgetrply(&cd, &answer, &length, TPNOBLOCK), -1);
            int error = gettperrno();
            EXPECT_TRUE(error == TPEBLOCK) << error;
            timed_out = true;
        }
        tpfree(answer);
    });
    peer.done();
    expect_idle();
}

// Those whom nobody wakes have their limit.
TEST_F(Shared, EndOfTheConnectionIsToldToAllThatWaitWithALimit)
{
    wire::start_reply reply;
    reply.block_time = 6;
    ASSERT_TRUE(start(reply, true));
    constexpr int THREADS = 4;
    peer.play([&] {
        for (int i = 0; i < THREADS; i++) {
            wire::frame request;
            ASSERT_TRUE(peer.receive(&request));
        }
        peer.hang_up();
    });
    std::atomic<int> closed{0};
    in_threads(THREADS, [&](int) {
        char *answer = new_buffer("CARRAY");
        long length = 0;
        EXPECT_EQ(tpcall(svc("S"), nullptr, 0, &answer, &length, 0), -1);
        int error = gettperrno();
        closed += error == TPECLOSE;
        EXPECT_TRUE(error == TPECLOSE || error == TPESYSTEM || error == TPETIME) << error;
        tpfree(answer);
    });
    EXPECT_GE(closed, 1);
    EXPECT_TRUE(is_unlocked(&block()->msg_mutex));
    EXPECT_EQ(block()->clhfd, -1);
}

TEST_F(Shared, ErrorsStayWithTheirThreads)
{
    ASSERT_TRUE(start({}, true));
    in_threads(8, [&](int t) {
        for (int n = 0; n < 200; n++) {
            int cd = 500 + t;
            char *none = nullptr;
            long length;
            if (t % 2 == 0) {
                EXPECT_EQ(tpcancel(cd), -1);
                EXPECT_EQ(gettperrno(), TPEBADDESC);
            } else {
                EXPECT_EQ(tpcall(svc("S"), nullptr, 0, &none, &length, 0), -1);
                EXPECT_EQ(gettperrno(), TPEINVAL);
            }
        }
    });
    peer.expect_nothing();
}
