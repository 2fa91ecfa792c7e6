// tpdeq without TPRQDIRECT: the answers of the services behind the queues, awaited and stored, and the number
// that are due.
#include "queue/fixture.h"

namespace {

struct QueueReply : QueueTest {
    // Answers come while the client waits; the next ones of the script are sent at once.
    void answer(int queue, const std::string &data, const wire::with &fields = {})
    {
        peer.play([=, this] { peer.send(answer_of(queue, data, fields)); });
    }
    void expect_nothing_stored(void)
    {
        for (int queue : {FIRST, SECOND, THIRD})
            EXPECT_EQ(stored_for(queue), 0);
    }
};

}  // namespace

TEST_F(QueueReply, IsAwaited)
{
    ASSERT_TRUE(start_queues());
    make_due(2);
    answer(SECOND, "DONE", {.rcode = 17});
    char *before = out;
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(gettpurcode(), 17);
    EXPECT_EQ(reply_data(), "DONE");
    EXPECT_EQ(out, before);
    EXPECT_EQ(tpgetasize(out), 1024);
    EXPECT_EQ(pending(), 1);
    expect_nothing_stored();
    expect_idle();
    peer.done();
    peer.expect_nothing();
}

TEST_F(QueueReply, AwaitedOneMayBeAnyQueues)
{
    ASSERT_TRUE(start_queues());
    make_due(3);
    for (auto [queue, data] :
         {std::pair(THIRD, "third"), std::pair(-5, "negative"), std::pair(77, "beyond")}) {
        answer(queue, data);
        EXPECT_EQ(deq(), 1);
        EXPECT_EQ(reply_data(), data);
        peer.done();
    }
    EXPECT_EQ(pending(), 0);
}

TEST_F(QueueReply, StoredOnesComeInTheirOrderByQueue)
{
    ASSERT_TRUE(start_queues());
    make_due(5);
    arrive([&] {
        peer.send(answer_of(THIRD, "t1"));
        peer.send(answer_of(SECOND, "s1"));
        peer.send(answer_of(THIRD, "t2"));
        peer.send(answer_of(SECOND, "s2"));
        peer.send(answer_of(FIRST, "f1"));
    });
    EXPECT_EQ(stored_for(THIRD), 2);
    EXPECT_EQ(stored_for(SECOND), 2);
    EXPECT_EQ(stored_for(FIRST), 1);
    struct {
        const char *queue, *data;
    } fetched[] = {{"SECOND", "s1"}, {"THIRD", "t1"}, {"SECOND", "s2"}, {"FIRST", "f1"}, {"THIRD", "t2"}};
    int left = 5;
    for (auto &one : fetched) {
        EXPECT_EQ(deq(0, one.queue), 1);
        EXPECT_EQ(reply_data(), one.data);
        EXPECT_EQ(pending(), --left);
    }
    expect_nothing_stored();
    peer.expect_nothing();
}

TEST_F(QueueReply, WithoutANameTheLowestQueueThatHasOneGives)
{
    ASSERT_TRUE(start_queues());
    make_due(4);
    arrive([&] {
        peer.send(answer_of(THIRD, "t1"));
        peer.send(answer_of(SECOND, "s1"));
        peer.send(answer_of(SECOND, "s2"));
    });
    for (const char *data : {"s1", "s2", "t1"}) {
        EXPECT_EQ(deq(0, nullptr), 1);
        EXPECT_EQ(reply_data(), data);
    }
    EXPECT_EQ(pending(), 1);
    expect_refused(deq(0, nullptr), TPENOENT);  // nothing stored: it doesn't wait
    EXPECT_EQ(pending(), 1);
}

TEST_F(QueueReply, OtherQueuesStoredAnswersAreNotTaken)
{
    ASSERT_TRUE(start_queues());
    make_due(2);
    store(FIRST, "stored");
    answer(SECOND, "awaited");
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(reply_data(), "awaited");
    EXPECT_EQ(stored_for(FIRST), 1);
    EXPECT_EQ(deq(0, "FIRST"), 1);
    EXPECT_EQ(reply_data(), "stored");
}

TEST_F(QueueReply, StoredOneTakesTheBuffersPlaceAndNeverShrinksIt)
{
    ASSERT_TRUE(start_queues());
    make_due(3);
    arrive([&] {
        peer.send(answer_of(SECOND, "small"));
        peer.send(answer_of(SECOND, std::string(1024, 'e')));
        peer.send(answer_of(SECOND, std::string(5000, 'l'), {.buftype = wire::CARRAY}));
    });
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(reply_data(), "small");
    EXPECT_EQ(tpgetasize(out), 1024);
    EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
    EXPECT_EQ(message_of(out)->xflags & ROOM_FOR_TRAILER, ROOM_FOR_TRAILER);
    memset(out, 'x', 1024 + TRAILER_ROOM);
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(reply_data(), std::string(1024, 'e'));
    EXPECT_EQ(tpgetasize(out), 1024);
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(reply_data(), std::string(5000, 'l'));
    EXPECT_EQ(tpgetasize(out), 5000);
    char type[16] = "";
    EXPECT_GE(tptypes(out, type, nullptr), 0);
    EXPECT_STREQ(type, "CARRAY");
    out = tprealloc(out, 9000);
    EXPECT_NE(out, nullptr);
}

TEST_F(QueueReply, AwaitedOneReplacesASmallerBufferOnly)
{
    ASSERT_TRUE(start_queues());
    make_due(2);
    char *before = out;
    answer(SECOND, std::string(1024, 'e'));
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(out, before);
    answer(SECOND, std::string(1025, 'l'));
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(reply_data(), std::string(1025, 'l'));
    EXPECT_EQ(tpgetasize(out), 1025);
}

TEST_F(QueueReply, WithoutDataIsFetchedAsWell)
{
    ASSERT_TRUE(start_queues());
    make_due(2);
    store(SECOND, "");
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(len, 0);
    answer(SECOND, "");
    len = 9;
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(pending(), 0);
}

// ---- failed answers

TEST_F(QueueReply, FailedOneIsFetchedWithItsDataAndNoLongerDue)
{
    ASSERT_TRUE(start_queues());
    struct {
        int32_t rcode;
        uint32_t flags;
        int error;
    } cases[] = {{TPESVCERR, 0, TPESVCERR}, {0, TPESVCFAIL, TPESVCFAIL}, {123, TPESVCFAIL, 123}, {0, 0, 0}};
    for (bool is_stored : {false, true})
        for (auto &one : cases) {
            SCOPED_TRACE(one.error);
            make_due(1);
            wire::with fields = {.msgtype = 2025, .rcode = one.rcode, .flags = one.flags};
            if (is_stored)
                store(SECOND, "because", fields);
            else
                answer(SECOND, "because", fields);
            set_tpurcode(77);
            EXPECT_EQ(deq(), -1);
            EXPECT_EQ(gettperrno(), one.error);
            EXPECT_EQ(gettpurcode(), one.rcode);
            EXPECT_EQ(reply_data(), "because");
            EXPECT_EQ(pending(), 0);
            peer.done();
        }
    expect_nothing_stored();
}

// ---- how many are due

TEST_F(QueueReply, NoneIsFetchedThatIsNotDue)
{
    ASSERT_TRUE(start_queues());
    expect_refused(deq(), TPEINVAL);
    store(SECOND, "uncalled for");
    expect_refused(deq(), TPEINVAL);
    expect_refused(deq(0, nullptr), TPEINVAL);
    EXPECT_EQ(stored_for(SECOND), 1);
    for (long flags : {(long)TPNOREPLY, (long)TPRQDIRECT}) {
        peer.play([&] {
            peer.expect(wire::TPENQ);
            peer.reply();
        });
        EXPECT_EQ(enq(flags), 0);
        peer.done();
        expect_refused(deq(), TPEINVAL);
    }
    make_due(1);
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(reply_data(), "uncalled for");
}

TEST_F(QueueReply, DirectDequeueLeavesTheNumber)
{
    ASSERT_TRUE(start_queues());
    make_due(1);
    peer.play([&] {
        peer.expect(wire::TPDEQ);
        peer.reply("message");
    });
    EXPECT_EQ(deq(TPRQDIRECT), 1);
    EXPECT_EQ(pending(), 1);
}

TEST_F(QueueReply, StoredOnesOutliveTheConnectionUntilTheEnd)
{
    ASSERT_TRUE(start_queues());
    make_due(3);
    arrive([&] {
        peer.send(answer_of(SECOND, "one"));
        peer.send(answer_of(SECOND, "two"));
    });
    peer.play([&] { peer.hang_up(); });
    EXPECT_EQ(deq(0, "FIRST"), -1);
    EXPECT_EQ(gettperrno(), TPECLOSE);
    peer.done();
    EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
    EXPECT_EQ(pending(), 3);
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(reply_data(), "one");
    EXPECT_EQ(deq(TPNOBLOCK, "FIRST"), -1);
    EXPECT_EQ(pending(), 2);
    EXPECT_EQ(tpend(), -1);
    ASSERT_TRUE(start_queues());
    EXPECT_EQ(stored_for(SECOND), 0);
    expect_refused(deq(0, nullptr), TPENOENT);
}

TEST_F(QueueReply, ContextsCountForThemselves)
{
    ASSERT_TRUE(start_queues());
    make_due(2);
    peer.play([&] { peer.serve_end(); });
    EXPECT_EQ(tpend(), 1);
    peer.done();
    ASSERT_TRUE(start_queues());
    expect_refused(deq(), TPEINVAL);
}

// ---- the wait

TEST_F(QueueReply, WaitEndsAfterTheBlockTimeAndItIsStillDue)
{
    ASSERT_TRUE(start_limited(30));
    make_due(1);
    peer.play([&] { let_time_run_out(31); });
    EXPECT_EQ(deq(), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    peer.done();
    EXPECT_EQ(pending(), 1);
    expect_idle();
    store(SECOND, "late, not lost");
    EXPECT_EQ(log.lines(), 0);
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(reply_data(), "late, not lost");
    EXPECT_EQ(pending(), 0);
}

TEST_F(QueueReply, NoBlockDoesNotWait)
{
    ASSERT_TRUE(start_limited(30));
    make_due(1);
    expect_refused(deq(TPNOBLOCK), TPEBLOCK);
    expect_refused(deq(TPNOBLOCK | TPNOTIME), TPEBLOCK);
    expect_refused(deq(TPNOBLOCK | TPBLOCK), TPEBLOCK);
    EXPECT_EQ(pending(), 1);
    store(SECOND, "stored");
    EXPECT_EQ(deq(TPNOBLOCK), 1);
    EXPECT_EQ(reply_data(), "stored");
}

TEST_F(QueueReply, NoBlockTakesWhatHasArrived)
{
    ASSERT_TRUE(start_limited(30));
    make_due(1);
    peer.send(answer_of(SECOND, "on the socket"));
    ASSERT_TRUE(wait_for_bytes(block()->clhfd, HEADER_SIZE));
    EXPECT_EQ(deq(TPNOBLOCK), 1);
    EXPECT_EQ(reply_data(), "on the socket");
}

TEST_F(QueueReply, WithoutALimitTheClockIsOfNoAccount)
{
    for (auto [block_time, flags] : {std::pair(0, 0l), std::pair(1, (long)TPNOTIME)}) {
        Peer server;
        setenv("VORN_HOST_ADDR", server.address().c_str(), 1);
        wire::start_reply reply;
        reply.block_time = block_time;
        reply.queues = {"FIRST", "SECOND"};
        server.play([&] {
            server.accept_start(reply);
            server.expect(wire::TPENQ);
            server.reply();
            for (int i = 0; i < 3; i++) {
                faults::shift_clock(1000);
                server.send(wire::message(1012));
            }
            server.send(answer_of(SECOND, "patience"));
            server.serve_end();
        });
        ASSERT_EQ(tpstart(nullptr), 0);
        EXPECT_EQ(enq(), 0);
        EXPECT_EQ(deq(flags), 1) << gettperrno();
        EXPECT_EQ(reply_data(), "patience");
        EXPECT_EQ(tpend(), 1);
    }
}

TEST_F(QueueReply, BlockHasNoMeaningHere)
{
    ASSERT_TRUE(start_limited(30));
    make_due(1);
    peer.play([&] { let_time_run_out(31); });
    EXPECT_EQ(deq(TPBLOCK), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    peer.done();
    peer.expect_nothing();
}

TEST_F(QueueReply, OtherMessagesDoNotSatisfyIt)
{
    ASSERT_TRUE(start_queues());
    make_due(1);
    peer.play([&] {
        for (int32_t msgtype : {1017, 2017, 2018, 1026, 2026, 1012})
            peer.send(wire::message(msgtype, "other", {.cd = SECOND}));
        peer.send(answer_of(SECOND, "this"));
    });
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(reply_data(), "this");
    EXPECT_EQ(log.lines(), 0);
}

// ---- where it is stored

TEST_F(QueueReply, OfAnUnknownQueueIsDroppedWhileNobodyWaits)
{
    ASSERT_TRUE(start_queues());
    make_due(1);
    arrive([&] {
        for (int queue : {-1, -77, 3, 4, 0x7fffffff})
            peer.send(answer_of(queue, "nowhere"));
    });
    expect_nothing_stored();
    EXPECT_EQ(pending(), 1);
    expect_refused(deq(0, nullptr), TPENOENT);
}

TEST_F(QueueReply, ManyAreStored)
{
    constexpr int COUNT = 500;
    ASSERT_TRUE(start_queues());
    make_due(COUNT);
    arrive([&] {
        for (int i = 0; i < COUNT; i++)
            peer.send(answer_of(i % 3, std::to_string(i)));
    });
    for (int i = 0; i < COUNT; i++) {
        const char *names[] = {"FIRST", "SECOND", "THIRD"};
        ASSERT_EQ(deq(TPNOBLOCK, names[i % 3]), 1);
        ASSERT_EQ(reply_data(), std::to_string(i));
    }
    EXPECT_EQ(pending(), 0);
    expect_nothing_stored();
}

TEST_F(QueueReply, LeftBehindAreFreedAtTheEnd)
{
    ASSERT_TRUE(start_queues());
    arrive([&] {
        for (int i = 0; i < 20; i++)
            peer.send(answer_of(i % 3, "left behind"));
    });
    peer.play([&] { peer.serve_end(); });
    EXPECT_EQ(tpend(), 1);
}

// ---- what is refused, and in which order

TEST_F(QueueReply, RefusalsInTheirOrder)
{
    ASSERT_TRUE(start_queues());
    alignas(8) char plain[400] = {};
    char *none = nullptr, *bare = plain + 200;
    auto refused = [&](const char *queue, char **data, long *length, long flags, int error) {
        expect_refused(tpdeq(svc(queue), nullptr, data, length, flags), error);
    };
    refused("SECOND", &bare, &len, TPNOREPLY, TPEINVAL);  // flags before the buffer
    refused("NONE", &bare, &len, 0, TPEOTYPE);            // the buffer before the queue
    refused("NONE", &out, &len, 0, TPENOENT);             // the queue before what is due
    refused(nullptr, &out, &len, 0, TPENOENT);
    refused("SECOND", &out, &len, 0, TPEINVAL);
    refused("SECOND", nullptr, &len, 0, TPEINVAL);
    refused("SECOND", &none, &len, 0, TPEINVAL);
    refused("SECOND", &out, nullptr, 0, TPEINVAL);
    EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
    EXPECT_EQ(tpgetasize(out), 1024);
}

TEST_F(QueueReply, FirstCallOfAllOpensASessionInWhichNoneIsDue)
{
    wire::start_reply reply;
    reply.queues = {"FIRST", "SECOND"};
    peer.play([&] { peer.accept_start(reply); });
    EXPECT_EQ(deq(), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    EXPECT_EQ(block()->started, 1);
}

// ---- what lies

TEST_F(QueueReply, StoredBlockSizesThatLieAreNotBelieved)
{
    ASSERT_TRUE(start_queues());
    for (int32_t bufsize : {-1, INT32_MIN, 0, 1, 1999}) {
        SCOPED_TRACE(bufsize);
        make_due(1);
        store(SECOND, std::string(2000, 'm'), {.bufsize = bufsize});
        int result = deq(TPNOBLOCK);
        if (result == 1) {
            EXPECT_EQ(reply_data(), std::string(2000, 'm'));
            EXPECT_GE(tpgetasize(out), 2000);
        }
        EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
        memset(out, 'x', (size_t)tpgetasize(out) + TRAILER_ROOM);
        tpfree(out);
        out = new_buffer("STRING");
        block()->rq_pending = 0;
    }
}

TEST_F(QueueReply, FieldBufferWithAUsedLengthThatLiesIsNotBelieved)
{
    ASSERT_TRUE(start_queues());
    for (uint32_t used : {0u, 7u, 0x7fffffffu, 0xffffffffu, 4000u}) {
        SCOPED_TRACE(used);
        make_due(1);
        peer.play([&] {
            peer.send(answer_of(SECOND, wire::word(8888) + wire::word(used), {.buftype = wire::FIELD}));
            peer.send(answer_of(SECOND, "sound"));
        });
        int result = deq();
        EXPECT_TRUE(result == 1 || gettperrno() != 0);
        peer.done();
        ASSERT_EQ(block()->started, 1);
        if (result != 1 && pending() > 0) {
            EXPECT_EQ(deq(), 1);
        }
        block()->rq_pending = 0;
    }
}
