// Threads that share a connection and ask the server at one time: each question finds an answer of its kind.
#include "calls/groups.h"

#include <algorithm>
#include <poll.h>
#include <random>

namespace {

struct QueryThreads : GroupTest {
    wire::start_reply server;

    QueryThreads()
    {
        server.queues = {"QUEUE"};
        server.acall_size = 128;
    }

    // Answers what comes until the client ends: takes what is there, up to `window`, and answers it in random
    // order.
    void serve(size_t window, unsigned seed)
    {
        peer.play([this, window, seed] {
            std::minstd_rand random(seed);
            for (bool ended = false; !ended;) {
                std::vector<wire::frame> held;
                pollfd more = {peer.fd, POLLIN, 0};
                do {
                    wire::frame request;
                    if (!peer.receive(&request))
                        return;
                    ended |= request.msgtype == wire::TPEND;
                    held.push_back(request);
                } while (!ended && held.size() < window && poll(&more, 1, 0) > 0);
                std::shuffle(held.begin(), held.end(), random);
                for (const wire::frame &one : held)
                    answer_question(peer, one);
            }
        });
    }

    void expect_all_served(void)
    {
        expect_idle();
        EXPECT_EQ(block()->waiting, 0);
        EXPECT_EQ(block()->acall_active, 0);
        EXPECT_EQ(tpend(), 1);
        peer.done();
    }
};

// A thread's buffers.
struct own_buffers {
    char *data = new_buffer("STRING", "data"), *reply = new_buffer("STRING");
    long length = 0;

    ~own_buffers()
    {
        tpfree(data);
        tpfree(reply);
    }
    bool call(void) { return tpcall(svc("SVC"), data, 0, &reply, &length, 0) == 1; }
};

}  // namespace

TEST_F(QueryThreads, EachKindOfQuestionFindsItsAnswer)
{
    constexpr int ROUNDS = 60, KINDS = (int)(sizeof QUESTIONS / sizeof QUESTIONS[0]);
    ASSERT_TRUE(open(server, true));
    serve(KINDS, 1);
    in_threads(KINDS + 2, [&](int t) {
        own_buffers own;
        for (int n = 0; n < ROUNDS; n++) {
            if (t < KINDS) {
                ASSERT_TRUE(QUESTIONS[t].ask()) << QUESTIONS[t].name << ' ' << gettperrno();
            } else if (t == KINDS) {
                ASSERT_TRUE(own.call()) << gettperrno();
            } else {
                ASSERT_EQ(tpsvgcall(5, svc("QUEUE"), svc("SVC"), own.data, 0, 0), 1) << gettperrno();
            }
        }
    });
    expect_all_served();
}

TEST_F(QueryThreads, NoneOfManyEqualQuestionsIsLost)
{
    constexpr int ROUNDS = 40, THREADS = 8;
    ASSERT_TRUE(open(server, true));
    serve(THREADS, 2);
    for (const question &one : QUESTIONS) {
        if (one.msgtype == wire::GETSVG)
            continue;  // its record is the context's, not the thread's
        in_threads(THREADS, [&](int) {
            for (int n = 0; n < ROUNDS; n++)
                ASSERT_TRUE(one.ask()) << one.name << ' ' << gettperrno();
        });
    }
    expect_all_served();
}

// Their results replace each other, as told; what counts is that each call ends well.
TEST_F(QueryThreads, MulticastsRunSideBySide)
{
    constexpr int ROUNDS = 30, THREADS = 8;
    ASSERT_TRUE(open(server, true));
    serve(THREADS, 3);
    in_threads(THREADS, [&](int t) {
        own_buffers own;
        for (int n = 0; n < ROUNDS; n++) {
            switch (t % 4) {
            case 0:
                ASSERT_NE(tpmcallx(svc("SVC"), own.data, 0, 0), nullptr) << gettperrno();
                break;
            case 1:
                ASSERT_NE(tpmcall(svc("QUEUE"), svc("SVC"), own.data, 0, 0), nullptr) << gettperrno();
                break;
            case 2:
                ASSERT_NE(tpmcall(nullptr, svc("SVC"), own.data, 0, 0), nullptr) << gettperrno();
                break;
            default:
                ASSERT_NE(tpgetsvglist(svc("SVC"), 0), nullptr) << gettperrno();
            }
        }
    });
    mcallx_result *result = tpmcallx(svc("SVC"), in, 0, 0);
    ASSERT_NE(result, nullptr);
    ASSERT_EQ(result->count, 3);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(result->errors[i], 0);
        EXPECT_EQ(result->urcodes[i], result->list[i]);
    }
    expect_all_served();
}

TEST_F(QueryThreads, AnswerWaitsForItsThreadWhileAnotherReads)
{
    ASSERT_TRUE(open(server, true));
    for (const question &one : QUESTIONS) {
        wire::frame asked;
        std::atomic<bool> question_is_out{false};
        peer.play([&] {
            asked = peer.expect(one.msgtype).frame;
            question_is_out = true;
            wire::frame call = peer.expect(wire::TPACALL).frame;
            answer_question(peer, asked);
            peer.reply_to(call, "second");
        });
        in_threads(2, [&](int t) {
            own_buffers own;
            if (t == 0) {
                EXPECT_TRUE(one.ask()) << one.name << ' ' << gettperrno();
                return;
            }
            EXPECT_TRUE(faults::eventually([&] { return question_is_out.load(); }));
            EXPECT_TRUE(own.call());
            EXPECT_EQ(std::string(own.reply, (size_t)own.length), "second");
        });
        peer.done();
        expect_idle();
    }
}

TEST_F(QueryThreads, UnansweredQuestionLeavesTheOthersServed)
{
    ASSERT_TRUE(open(server, true));
    std::atomic<bool> question_is_out{false};
    constexpr int CALLS = 20;
    peer.play([&] {
        wire::frame asked = peer.expect(wire::GETADDR).frame;
        question_is_out = true;
        for (int i = 0; i < CALLS; i++) {
            peer.expect(wire::TPACALL);
            peer.reply("r");
        }
        answer_question(peer, asked);
    });
    in_threads(2, [&](int t) {
        own_buffers own;
        if (t == 0) {
            EXPECT_TRUE(asks_address()) << gettperrno();
            return;
        }
        EXPECT_TRUE(faults::eventually([&] { return question_is_out.load(); }));
        for (int i = 0; i < CALLS; i++)
            EXPECT_TRUE(own.call()) << gettperrno();
    });
    peer.done();
    expect_idle();
}

// The thread that reads for both gives up; the other one reads on, and drops the answer that comes too late.
TEST_F(QueryThreads, TimeOutOfTheReaderLeavesTheOtherOneWaiting)
{
    server.block_time = 30;
    ASSERT_TRUE(open(server, true));
    std::atomic<bool> reading{false}, timed_out{false};
    peer.play([&] {
        wire::frame state = peer.expect(wire::TPQSTAT).frame;
        EXPECT_TRUE(client_waits());
        reading = true;
        wire::frame address = peer.expect(wire::GETADDR).frame;
        EXPECT_TRUE(faults::eventually([&] {
            faults::shift_clock(31);
            peer.send(wire::message(1012));
            return timed_out.load();
        }));
        answer_question(peer, state);
        answer_question(peer, address);
    });
    in_threads(2, [&](int t) {
        if (t == 0) {
            EXPECT_TRUE(faults::eventually([&] { return reading.load(); }));
            EXPECT_TRUE(asks_address()) << gettperrno();
            return;
        }
        EXPECT_FALSE(asks_queue());
        EXPECT_EQ(gettperrno(), TPETIME);
        timed_out = true;
    });
    peer.done();
    expect_idle();
}

TEST_F(QueryThreads, SleepersWakeWithoutTakingWhatCame)
{
    ASSERT_TRUE(open(server, true));
    faults::reset();
    peer.play([&] {
        EXPECT_TRUE(faults::wait_for_calls(faults::SELECT, 2));
        peer.send(wire::message(1012));
    });
    in_threads(2, [](int) {
        timeval time = {600, 0};
        EXPECT_EQ(tpsleep(&time), 1);
    });
    peer.done();
    expect_usable();
}
