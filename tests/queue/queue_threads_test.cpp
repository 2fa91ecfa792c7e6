// Queues used by several threads of one context: what comes goes to the thread that wants it, and nothing is
// lost between a thread that looks for a stored answer and the one that stores it.
#include "queue/fixture.h"

#include <memory>
#include <mutex>
#include <set>

namespace {

struct QueueThreads : QueueTest {
    int number = 0;
    wthr_var *shared = nullptr;

    bool open(int block_time = 0)
    {
        wire::start_reply reply;
        reply.block_time = block_time;
        if (!start_queues(reply, true))
            return false;
        number = context();
        shared = block();
        return true;
    }
};

// A thread of the context with a buffer of its own; its work is done when the object goes.
struct Member {
    char *buffer = nullptr;
    long length = 0;
    std::thread thread;

    Member(int number, std::function<void(Member &)> work)
        : thread([this, number, work = std::move(work)] {
              ASSERT_EQ(tpsetctxt(number, 0), 1);
              buffer = new_buffer("STRING");
              work(*this);
              tpfree(buffer);
              EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
          })
    {}
    ~Member() { thread.join(); }

    int deq(long flags = 0, const char *queue = "SECOND")
    {
        return tpdeq(svc(queue), nullptr, &buffer, &length, flags);
    }
    std::string data(void) const { return std::string(buffer, (size_t)length); }
};

// Serves so many requests, whatever they are.
void serve(Conn &conn, int count, const std::function<void(const wire::frame &)> &answer)
{
    wire::frame request;
    while (count-- > 0 && conn.receive(&request))
        answer(request);
}

bool are_waiting(wthr_var *shared, int count)
{
    return faults::eventually([&] {
        _thread_mutex_lock(&shared->msg_mutex);
        bool are = shared->waiting >= count;
        _thread_mutex_unlock(&shared->msg_mutex);
        return are;
    });
}

}  // namespace

TEST_F(QueueThreads, AnswerGoesToTheThreadThatWaitsForItAndTheMessageToTheOther)
{
    ASSERT_TRUE(open());
    make_due(1);
    peer.play([&] {
        wire::frame request = peer.expect(wire::TPDEQ).frame;
        ASSERT_TRUE(are_waiting(shared, 1));
        peer.send(answer_of(SECOND, "ANSWER"));
        peer.reply_to(request, "MESSAGE");
    });
    {
        Member waits(number, [&](Member &me) {
            EXPECT_EQ(me.deq(), 1);
            EXPECT_EQ(me.data(), "ANSWER");
        });
        Member takes(number, [&](Member &me) {
            EXPECT_EQ(me.deq(TPRQDIRECT), 1);
            EXPECT_EQ(me.data(), "MESSAGE");
        });
    }
    EXPECT_EQ(pending(), 0);
    expect_idle();
}

TEST_F(QueueThreads, AnswersReadByOneThreadAreStoredForTheOthers)
{
    constexpr int COUNT = 60;
    ASSERT_TRUE(open());
    make_due(COUNT);
    peer.play([&] {
        wire::frame call = peer.expect(wire::TPACALL).frame;
        for (int i = 0; i < COUNT; i++)
            peer.send(answer_of(i % 3, std::to_string(i)));
        peer.reply_to(call, "");
    });
    Member(number,
           [&](Member &me) { EXPECT_EQ(tpcall(svc("PUMP"), nullptr, 0, &me.buffer, &me.length, 0), 1); });
    std::set<std::string> seen;
    while (deq(TPNOBLOCK, nullptr) == 1)
        seen.insert(reply_data());
    EXPECT_EQ(seen.size(), (size_t)COUNT);
    EXPECT_EQ(gettperrno(), TPENOENT);
}

// Two threads enqueue, one takes messages directly, one waits for the answers.
TEST_F(QueueThreads, NoAnswerIsLost)
{
    constexpr int ROUNDS = 150;
    ASSERT_TRUE(open());
    shared->rq_pending = 1000000;  // counting isn't what is tested: it takes no lock
    int answers = 0, messages = 0;
    peer.play([&] {
        serve(peer, 3 * ROUNDS, [&](const wire::frame &request) {
            if (request.msgtype == wire::TPENQ) {
                // Half of the answers come ahead of the acceptance.
                if (answers % 2 == 0)
                    peer.send(answer_of(answers % 3, "a" + std::to_string(answers)));
                peer.reply_to(request, "");
                if (answers % 2 != 0)
                    peer.send(answer_of(answers % 3, "a" + std::to_string(answers)));
                answers++;
            } else {
                peer.reply_to(request, "m" + std::to_string(messages++));
            }
        });
    });
    std::set<std::string> fetched, taken;
    {
        auto enqueue = [&](Member &me) {
            for (int i = 0; i < ROUNDS; i++)
                ASSERT_EQ(tpenq(svc("SECOND"), svc("S"), me.buffer, 0, TPNOREPLY), 0) << gettperrno();
        };
        Member first(number, enqueue), second(number, enqueue);
        Member taker(number, [&](Member &me) {
            for (int i = 0; i < ROUNDS; i++) {
                ASSERT_EQ(me.deq(TPRQDIRECT), 1) << gettperrno();
                taken.insert(me.data());
            }
        });
        Member fetcher(number, [&](Member &me) {
            const char *names[] = {nullptr, "FIRST", "SECOND", "THIRD"};
            for (int left = 2 * ROUNDS, turn = 0; left > 0; turn++) {
                int result = me.deq(TPNOBLOCK, names[turn % 4]);
                if (result == 1) {
                    fetched.insert(me.data());
                    left--;
                } else {
                    ASSERT_TRUE(gettperrno() == TPENOENT || gettperrno() == TPEBLOCK) << gettperrno();
                }
            }
        });
    }
    EXPECT_EQ(fetched.size(), 2u * ROUNDS);
    EXPECT_EQ(taken.size(), (size_t)ROUNDS);
    for (const std::string &one : fetched)
        EXPECT_EQ(one[0], 'a');
    for (const std::string &one : taken)
        EXPECT_EQ(one[0], 'm');
    for (int queue : {FIRST, SECOND, THIRD})
        EXPECT_EQ(shared->qcall[queue].count, 0);
    shared->rq_pending = 0;
}

// One thread calls, another waits for the answer that the call brings forth: whoever reads it, and whether it
// is stored or handed over.
TEST_F(QueueThreads, AnswerAndWaiterDoNotMissEachOther)
{
    constexpr int ROUNDS = 400;
    ASSERT_TRUE(open());
    shared->rq_pending = ROUNDS;
    peer.play([&] {
        for (int i = 0; i < ROUNDS; i++) {
            wire::frame call = peer.expect(wire::TPACALL).frame;
            peer.send_raw(wire::encode(answer_of(SECOND, std::to_string(i))) +
                          wire::encode(wire::answer(call, "x")));
        }
    });
    {
        Member caller(number, [&](Member &me) {
            for (int i = 0; i < ROUNDS; i++)
                ASSERT_EQ(tpcall(svc("PUMP"), nullptr, 0, &me.buffer, &me.length, 0), 1) << gettperrno();
        });
        Member waiter(number, [&](Member &me) {
            for (int i = 0; i < ROUNDS; i++) {
                ASSERT_EQ(me.deq(), 1) << gettperrno();
                ASSERT_EQ(me.data(), std::to_string(i));
            }
        });
    }
    EXPECT_EQ(shared->rq_pending, 0);
    peer.done();
    expect_idle();
}

TEST_F(QueueThreads, EachOfManyWaitersGetsOneAnswer)
{
    constexpr int THREADS = 6;
    ASSERT_TRUE(open());
    shared->rq_pending = 1000;
    std::mutex guard;
    std::set<std::string> seen;
    {
        std::vector<std::unique_ptr<Member>> members;
        for (int t = 0; t < THREADS; t++)
            members.push_back(std::make_unique<Member>(number, [&](Member &me) {
                EXPECT_EQ(me.deq(), 1) << gettperrno();
                std::lock_guard<std::mutex> lock(guard);
                seen.insert(me.data());
            }));
        EXPECT_TRUE(are_waiting(shared, THREADS - 1));  // one of them reads
        for (int t = 0; t < THREADS; t++)
            peer.send(answer_of(t % 3, "answer " + std::to_string(t)));
    }
    EXPECT_EQ(seen.size(), (size_t)THREADS);
    expect_idle();
}

TEST_F(QueueThreads, PauseOfOneThreadIsEndedByTheNoticeThatAnotherReads)
{
    ASSERT_TRUE(open(600));
    std::atomic<bool> refused{false};
    peer.play([&] {
        expect_dequeue_of_empty_queue();
        refused = true;
        wire::frame call = peer.expect(wire::TPACALL).frame;
        // Whoever reads has read the refusal; then one reads and the other waits.
        peer.send(wire::message(wire::TPNOTIFY, "", {.flags = TO_SERVICE}));
        peer.expect(1000 + wire::TPNOTIFY);
        ASSERT_TRUE(are_waiting(shared, 1));
        notice(0);
        wire::frame again = peer.expect(wire::TPDEQ).frame;
        peer.reply_to(again, "MESSAGE");
        peer.reply_to(call, "REPLY");
    });
    {
        Member takes(number, [&](Member &me) {
            EXPECT_EQ(me.deq(TPRQDIRECT | TPBLOCK), 1) << gettperrno();
            EXPECT_EQ(me.data(), "MESSAGE");
        });
        Member calls(number, [&](Member &me) {
            ASSERT_TRUE(faults::eventually([&] { return refused.load(); }));
            EXPECT_EQ(tpcall(svc("S"), nullptr, 0, &me.buffer, &me.length, 0), 1) << gettperrno();
            EXPECT_EQ(me.data(), "REPLY");
        });
    }
    peer.done();
    expect_idle();
}

TEST_F(QueueThreads, LostConnectionIsToldToAllThatWait)
{
    ASSERT_TRUE(open(6));
    shared->rq_pending = 10;
    peer.play([&] {
        peer.expect(wire::TPDEQ);
        ASSERT_TRUE(are_waiting(shared, 1));
        peer.hang_up();
    });
    {
        Member waits(number, [&](Member &me) {
            EXPECT_EQ(me.deq(), -1);
            EXPECT_NE(gettperrno(), 0);
        });
        Member takes(number, [&](Member &me) {
            EXPECT_EQ(me.deq(TPRQDIRECT), -1);
            EXPECT_NE(gettperrno(), 0);
        });
    }
    EXPECT_EQ(shared->clhfd, -1);
    EXPECT_TRUE(is_unlocked(&shared->msg_mutex));
}
