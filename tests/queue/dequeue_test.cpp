// tpdeq with TPRQDIRECT: one round trip, the loop of TPBLOCK with its pauses, and what is refused in which
// order.
#include "queue/fixture.h"

namespace {

constexpr long DIRECT = TPRQDIRECT, KEEP_TRYING = TPRQDIRECT | TPBLOCK;

struct Dequeue : QueueTest {
    // The request for a message, as it travels.
    wire::frame request(long flags = DIRECT | TPNOTRAN)
    {
        wire::frame m = wire::message(wire::TPDEQ, "", {.cd = SECOND});
        m.flags = (uint32_t)flags;
        m.xflags = ROOM_FOR_TRAILER;
        return m;
    }
    void give(const std::string &data, const wire::with &fields = {})
    {
        peer.expect(wire::TPDEQ);
        peer.reply(data, fields);
    }
};

}  // namespace

TEST_F(Dequeue, RoundTripAsItTravels)
{
    ASSERT_TRUE(start_queues());
    peer.play([&] {
        wire::frame came = peer.expect(wire::TPDEQ).header_only().frame;
        EXPECT_EQ(wire::fields_of(came), wire::fields_of(request()));
        peer.reply("TAKEN", {.rcode = 12});
    });
    int before = block()->seqno;
    char *buffer = out;
    set_tpurcode(77);
    EXPECT_EQ(deq(DIRECT), 1);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(gettpurcode(), 77);
    EXPECT_EQ(reply_data(), "TAKEN");
    EXPECT_EQ(out, buffer);
    EXPECT_EQ(tpgetasize(out), 1024);
    EXPECT_EQ(block()->seqno, before + 1);
    peer.done();
    EXPECT_EQ(peer.last.seqno, before + 1);
    EXPECT_EQ(pending(), 0);
    expect_idle();
}

TEST_F(Dequeue, OpensASession)
{
    wire::start_reply reply;
    reply.queues = {"FIRST", "SECOND"};
    peer.play([&] {
        peer.accept_start(reply);
        give("x");
    });
    EXPECT_EQ(deq(DIRECT), 1);
}

TEST_F(Dequeue, FlagsTravelAsGivenAndOutsideTheTransaction)
{
    ASSERT_TRUE(start_queues());
    for (long flags : {(long)TPNOBLOCK, (long)TPSIGRSTRT, (long)TPNOTRAN, (long)TPNOTIME, (long)TPGETANY,
                       (long)TPBLOCK, TO_SERVICE, 0xC2ABL}) {
        SCOPED_TRACE(flags);
        peer.play([&] {
            wire::frame came = peer.expect(wire::TPDEQ).frame;
            EXPECT_EQ(wire::fields_of(came), wire::fields_of(request(flags | DIRECT | TPNOTRAN)));
            peer.reply("x");
        });
        EXPECT_EQ(deq(flags | DIRECT), 1);
        peer.done();
    }
}

TEST_F(Dequeue, EveryOtherFlagIsRefused)
{
    ASSERT_TRUE(start_queues());
    for (int bit = 0; bit < 64; bit++) {
        long flag = (long)(1ul << bit);
        if ((flag & 0xC2AB) != 0)
            continue;
        SCOPED_TRACE(bit);
        expect_refused(deq(flag), TPEINVAL);
        expect_refused(deq(flag | DIRECT), TPEINVAL);
        expect_refused(tpdeq_ctl(svc("SECOND"), nullptr, nullptr, &out, &len, flag | DIRECT), TPEINVAL);
    }
}

TEST_F(Dequeue, NamesAreCutToThirtyOneCharacters)
{
    ASSERT_TRUE(start_queues());
    const std::string longest(31, 's');
    for (const std::string &name : {std::string(), std::string(".RQ_FAIL"), longest, longest + "tuv"}) {
        peer.play([&] {
            peer.expect(wire::TPDEQ).svcname(name.substr(0, 31));
            peer.reply("x");
        });
        EXPECT_EQ(tpdeq(svc("SECOND"), svc(name.c_str()), &out, &len, DIRECT), 1);
        peer.done();
    }
}

TEST_F(Dequeue, LargerMessageTakesTheBuffersPlace)
{
    ASSERT_TRUE(start_queues());
    peer.play([&] {
        give(std::string(1024, 'e'));
        give(std::string(1025, 'l'));
        give("", {.bufsize = 9000});
    });
    char *before = out;
    EXPECT_EQ(deq(DIRECT), 1);
    EXPECT_EQ(out, before);
    EXPECT_EQ(reply_data(), std::string(1024, 'e'));
    EXPECT_EQ(deq(DIRECT), 1);
    EXPECT_EQ(reply_data(), std::string(1025, 'l'));
    EXPECT_EQ(tpgetasize(out), 1025);
    memset(out, 'x', (size_t)tpgetasize(out));
    EXPECT_EQ(deq(DIRECT), 1);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
}

TEST_F(Dequeue, TypeOfTheMessageIsTakenOver)
{
    ASSERT_TRUE(start_queues());
    peer.play([&] { give("bytes", {.buftype = wire::CARRAY}); });
    EXPECT_EQ(deq(DIRECT), 1);
    char type[16] = "";
    EXPECT_GE(tptypes(out, type, nullptr), 0);
    EXPECT_STREQ(type, "CARRAY");
}

TEST_F(Dequeue, RefusalTellsItsErrorInItsCode)
{
    ASSERT_TRUE(start_queues());
    struct {
        int32_t rcode;
        uint32_t flags;
        int error;
    } cases[] = {
        {TPEMATCH, 0, TPEMATCH}, {TPEOS, TPEMATCH, TPEOS}, {0, TPEMATCH, TPESYSTEM}, {0, 0, TPESYSTEM}};
    for (auto &one : cases) {
        peer.play([&] {
            peer.expect(wire::TPDEQ);
            peer.reply("", {.msgtype = 2018, .rcode = one.rcode, .flags = one.flags});
        });
        EXPECT_EQ(deq(DIRECT), -1);
        EXPECT_EQ(gettperrno(), one.error);
        peer.done();
    }
    expect_idle();
}

TEST_F(Dequeue, RefusalWithDataLeavesTheBufferWhole)
{
    ASSERT_TRUE(start_queues());
    peer.play([&] {
        peer.expect(wire::TPDEQ);
        peer.reply(std::string(5000, 'n'), {.msgtype = 2018, .rcode = TPEMATCH});
    });
    EXPECT_EQ(deq(DIRECT), -1);
    EXPECT_EQ(gettperrno(), TPEMATCH);
    EXPECT_EQ(len, 5000);
    EXPECT_EQ(reply_data(), std::string(5000, 'n'));
    memset(out, 'x', (size_t)tpgetasize(out));
}

TEST_F(Dequeue, AnswersOfServicesDoNotSatisfyIt)
{
    ASSERT_TRUE(start_queues());
    peer.play([&] {
        peer.expect(wire::TPDEQ);
        wire::frame request = peer.last;
        peer.send(answer_of(SECOND, "answer"));
        peer.send(wire::message(1026, "", {.target = 1}));
        peer.send(wire::message(2026));
        peer.send(wire::message(1017));
        peer.reply_to(request, "MESSAGE");
    });
    EXPECT_EQ(deq(DIRECT), 1);
    EXPECT_EQ(reply_data(), "MESSAGE");
    EXPECT_EQ(stored_for(SECOND), 1);
    EXPECT_EQ(log.lines(), 0);
}

// ---- the wait

TEST_F(Dequeue, MessageThatComesAfterTheTimeIsLost)
{
    ASSERT_TRUE(start_limited(30));
    peer.play([&] {
        peer.expect(wire::TPDEQ);
        let_time_run_out(31);
    });
    EXPECT_EQ(deq(DIRECT), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    peer.done();
    arrive([&] { peer.send(wire::message(1018, "LOST", {.cd = SECOND})); });
    EXPECT_TRUE(log.has("tpdeq reply arrived after timeout, a message will be lost")) << log.text();
    EXPECT_EQ(log.lines(), 1);
    peer.play([&] { give("NEXT"); });
    EXPECT_EQ(deq(DIRECT), 1);
    EXPECT_EQ(reply_data(), "NEXT");
}

TEST_F(Dequeue, LateRefusalIsDroppedWithoutAWord)
{
    ASSERT_TRUE(start_limited(30));
    peer.play([&] {
        peer.expect(wire::TPDEQ);
        let_time_run_out(31);
    });
    EXPECT_EQ(deq(DIRECT), -1);
    peer.done();
    arrive([&] { peer.send(wire::message(2018, "", {.rcode = TPEMATCH, .cd = SECOND})); });
    EXPECT_EQ(log.lines(), 0);
}

TEST_F(Dequeue, NoBlockAwaitsTheRoundTrip)
{
    ASSERT_TRUE(start_limited(30));
    peer.play([&] {
        peer.expect(wire::TPDEQ).flags(DIRECT | TPNOBLOCK | TPNOTRAN);
        peer.reply("x");
        peer.expect(wire::TPDEQ);
        let_time_run_out(31);
    });
    EXPECT_EQ(deq(DIRECT | TPNOBLOCK), 1);
    EXPECT_EQ(deq(DIRECT | TPNOBLOCK), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
}

TEST_F(Dequeue, LostConnectionEndsIt)
{
    ASSERT_TRUE(start_queues());
    peer.play([&] {
        peer.expect(wire::TPDEQ);
        peer.hang_up();
    });
    EXPECT_EQ(deq(DIRECT), -1);
    EXPECT_EQ(gettperrno(), TPECLOSE);
}

TEST_F(Dequeue, FailedSendIsTold)
{
    ASSERT_TRUE(start_queues());
    faults::fail(faults::SEND, 1, EAGAIN);
    EXPECT_EQ(deq(DIRECT), -1);
    EXPECT_EQ(gettperrno(), TPEBLOCK);
    faults::fail(faults::SEND, 1, ENOBUFS);
    EXPECT_EQ(deq(KEEP_TRYING), -1);
    EXPECT_EQ(gettperrno(), TPEOS);
    expect_idle();
}

// ---- TPBLOCK

TEST_F(Dequeue, EmptyQueueIsTriedOnceWithoutBlock)
{
    ASSERT_TRUE(start_queues());
    for (long flags : {DIRECT, DIRECT | TPNOBLOCK, KEEP_TRYING | TPNOBLOCK}) {
        peer.play([&] { expect_dequeue_of_empty_queue(); });
        EXPECT_EQ(deq(flags), -1);
        EXPECT_EQ(gettperrno(), TPEMATCH);
        peer.done();
        peer.expect_nothing();
    }
}

TEST_F(Dequeue, NoticeOfAChangeBringsTheNextTry)
{
    ASSERT_TRUE(start_limited(600));
    for (int32_t target : {0, 1, 2, 3, -1, INT32_MAX, INT32_MIN}) {
        SCOPED_TRACE(target);
        int first = 0;
        peer.play([&] {
            first = peer.expect(wire::TPDEQ).flags(KEEP_TRYING | TPNOTRAN).frame.seqno;
            refuse_dequeue(TPEMATCH);
            notice(target);
            wire::frame again = peer.expect(wire::TPDEQ).frame;
            EXPECT_EQ(wire::fields_of(again), wire::fields_of(request(KEEP_TRYING | TPNOTRAN)));
            EXPECT_EQ(again.seqno, first + 1);
            peer.reply("AT LAST");
        });
        EXPECT_EQ(deq(KEEP_TRYING), 1);
        EXPECT_EQ(gettperrno(), 0);
        EXPECT_EQ(reply_data(), "AT LAST");
        peer.done();
    }
    expect_idle();
}

TEST_F(Dequeue, NothingIsSentInAPause)
{
    ASSERT_TRUE(start_limited(600));
    peer.play([&] {
        for (int i = 0; i < 5; i++) {
            expect_dequeue_of_empty_queue();
            peer.expect_nothing();
            notice(2);
        }
        give("x");
    });
    EXPECT_EQ(deq(KEEP_TRYING), 1);
}

TEST_F(Dequeue, NoticeOfEitherKindWillDo)
{
    ASSERT_TRUE(start_limited(600));
    peer.play([&] {
        expect_dequeue_of_empty_queue();
        peer.send(wire::message(2026, "", {.rcode = 5, .cd = FIRST, .seqno = 12345}));
        expect_dequeue_of_empty_queue();
        peer.send(wire::message(1026, std::string(3000, 'n'), {.cd = THIRD}));
        give("x");
    });
    EXPECT_EQ(deq(KEEP_TRYING), 1);
}

TEST_F(Dequeue, PauseThatRunsOutBringsALastTry)
{
    ASSERT_TRUE(start_limited(30));
    peer.play([&] {
        expect_dequeue_of_empty_queue();
        let_pause_run_out(peer, 31);
        expect_dequeue_of_empty_queue();
    });
    EXPECT_EQ(deq(KEEP_TRYING), -1);
    EXPECT_EQ(gettperrno(), TPEMATCH);
    peer.done();
    peer.expect_nothing();
}

TEST_F(Dequeue, LastTryMayStillFindAMessage)
{
    ASSERT_TRUE(start_limited(30));
    peer.play([&] {
        expect_dequeue_of_empty_queue();
        let_pause_run_out(peer, 31);
        give("JUST IN TIME");
    });
    EXPECT_EQ(deq(KEEP_TRYING), 1);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(reply_data(), "JUST IN TIME");
}

TEST_F(Dequeue, BlockTimeOfOneSecondAllowsOnePause)
{
    ASSERT_TRUE(start_limited(1));
    peer.play([&] {
        wire::frame request;
        for (int tries = 0; peer.receive(&request); tries++) {
            if (request.msgtype == wire::TPCALL) {
                EXPECT_GE(tries, 1);
                peer.reply_to(request, "");
                return;
            }
            EXPECT_EQ(request.msgtype, wire::TPDEQ);
            refuse_dequeue(TPEMATCH);
        }
    });
    EXPECT_EQ(deq(KEEP_TRYING), -1);
    EXPECT_EQ(gettperrno(), TPEMATCH);
    EXPECT_EQ(call(), 1);
}

TEST_F(Dequeue, PausesAreNoLongerThanAMinute)
{
    struct {
        int block_time;
        long flags;
    } cases[] = {{600, 0}, {0, 0}, {5, TPNOTIME}};
    for (auto &one : cases) {
        Peer server;
        setenv("VORN_HOST_ADDR", server.address().c_str(), 1);
        wire::start_reply reply;
        reply.block_time = one.block_time;
        reply.queues = {"FIRST", "SECOND"};
        server.play([&] {
            server.accept_start(reply);
            for (int i = 0; i < 3; i++) {
                server.expect(wire::TPDEQ);
                server.reply("", {.msgtype = 2018, .rcode = TPEMATCH});
                let_pause_run_out(server, 61);
            }
            server.expect(wire::TPDEQ);
            server.reply("x");
            server.serve_end();
        });
        ASSERT_EQ(tpstart(nullptr), 0);
        EXPECT_EQ(deq(KEEP_TRYING | one.flags), 1) << gettperrno();
        EXPECT_EQ(tpend(), 1);
    }
}

TEST_F(Dequeue, OtherRefusalsEndTheTries)
{
    ASSERT_TRUE(start_limited(600));
    for (int error : {TPEOS, TPENOENT, TPESYSTEM, 0}) {
        peer.play([&, error] {
            expect_dequeue_of_empty_queue();
            notice(0);
            peer.expect(wire::TPDEQ);
            refuse_dequeue(error);
        });
        EXPECT_EQ(deq(KEEP_TRYING), -1);
        EXPECT_EQ(gettperrno(), error != 0 ? error : TPESYSTEM);
        peer.done();
    }
}

TEST_F(Dequeue, TimeOutOfATryEndsTheTries)
{
    ASSERT_TRUE(start_limited(30));
    peer.play([&] {
        expect_dequeue_of_empty_queue();
        notice(0);
        peer.expect(wire::TPDEQ);
        let_time_run_out(31);
    });
    EXPECT_EQ(deq(KEEP_TRYING), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
}

TEST_F(Dequeue, ConnectionLostInAPauseIsToldByTheNextTry)
{
    ASSERT_TRUE(start_limited(600));
    peer.play([&] {
        expect_dequeue_of_empty_queue();
        peer.hang_up();
    });
    EXPECT_EQ(deq(KEEP_TRYING), -1);
    EXPECT_NE(gettperrno(), 0);
    EXPECT_NE(gettperrno(), TPEMATCH);
    peer.done();
    EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
    EXPECT_EQ(deq(DIRECT), -1);
    EXPECT_EQ(deq(KEEP_TRYING), -1);
    EXPECT_TRUE(peer.nobody_knocks());
    EXPECT_EQ(tpend(), -1);
    ASSERT_TRUE(start_queues());
    peer.play([&] { give("x"); });
    EXPECT_EQ(deq(DIRECT), 1);
}

TEST_F(Dequeue, AnswersThatComeInAPauseAreKept)
{
    ASSERT_TRUE(start_limited(600));
    make_due(2);
    peer.play([&] {
        expect_dequeue_of_empty_queue();
        peer.send(answer_of(SECOND, "one"));
        peer.send(answer_of(SECOND, "two"));
        notice(0);
        give("MESSAGE");
    });
    EXPECT_EQ(deq(KEEP_TRYING), 1);
    EXPECT_EQ(reply_data(), "MESSAGE");
    EXPECT_EQ(stored_for(SECOND), 2);
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(reply_data(), "one");
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(reply_data(), "two");
}

TEST_F(Dequeue, BufferReplacedByARefusalServesTheNextTry)
{
    ASSERT_TRUE(start_limited(600));
    peer.play([&] {
        peer.expect(wire::TPDEQ);
        peer.reply(std::string(3000, 'n'), {.msgtype = 2018, .rcode = TPEMATCH});
        notice(0);
        give(std::string(2000, 'm'));
    });
    EXPECT_EQ(deq(KEEP_TRYING), 1);
    EXPECT_EQ(reply_data(), std::string(2000, 'm'));
    EXPECT_EQ(tpgetasize(out), 3000);
}

// The last try is the one after which nothing of the block time is left.
TEST_F(Dequeue, TriesEndWithTheBlockTimeAlsoInATransaction)
{
    ASSERT_TRUE(start_limited(30));
    open_transaction(TX_STAGE_BEGUN);
    peer.play([&] {
        for (int i = 0; i < 3; i++) {
            expect_dequeue_of_empty_queue();
            notice(0);
        }
        peer.expect(wire::TPDEQ);
        for (int i = 0; i < 3; i++) {
            faults::shift_clock(100);  // the round trip itself has no limit
            peer.send(wire::message(1012));
        }
        refuse_dequeue(TPEMATCH);
    });
    EXPECT_EQ(deq(KEEP_TRYING), -1);
    EXPECT_EQ(gettperrno(), TPEMATCH);
    peer.done();
    peer.expect_nothing();
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
    EXPECT_EQ(stage(), TX_STAGE_BEGUN);
}

TEST_F(Dequeue, SettingOfTheBlockTimeInAPauseIsForTheNextCall)
{
    ASSERT_TRUE(start_limited(600));
    peer.play([&] {
        expect_dequeue_of_empty_queue();
        peer.send(wire::message(wire::SET_REQUEST, "", {.cd = 12, .value = 30}));
        notice(0);
        peer.expect(wire::TPDEQ);
        faults::shift_clock(29);
        refuse_dequeue(TPEMATCH);
        notice(0);
        give("x");
    });
    EXPECT_EQ(deq(KEEP_TRYING), 1);
    EXPECT_EQ(block()->block_time, 30);
}

// ---- what is refused, and in which order

TEST_F(Dequeue, RefusalsInTheirOrder)
{
    ASSERT_TRUE(start_queues());
    alignas(8) char plain[400] = {};
    char *none = nullptr, *bare = plain + 200;
    auto refused = [&](const char *queue, char **data, long *length, long flags, int error) {
        expect_refused(tpdeq(svc(queue), nullptr, data, length, flags), error);
    };
    refused(nullptr, &bare, &len, DIRECT, TPEINVAL);  // the name before the buffer
    refused(nullptr, &out, &len, DIRECT, TPEINVAL);
    refused("NONE", &bare, &len, DIRECT, TPEOTYPE);  // the buffer before the queue
    refused("NONE", &out, &len, DIRECT, TPENOENT);
    refused("NONE", &out, &len, KEEP_TRYING, TPENOENT);
    refused("SECOND", nullptr, &len, DIRECT, TPEINVAL);
    refused("SECOND", &none, &len, DIRECT, TPEINVAL);
    refused("SECOND", &out, nullptr, DIRECT, TPEINVAL);
    refused("SECOND", &bare, &len, DIRECT | TPNOREPLY, TPEINVAL);  // flags before the buffer
    EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
}

TEST_F(Dequeue, LengthsThatLieEndTheSession)
{
    for (int32_t datalen : {INT32_MAX, 1 << 30, 6}) {
        SCOPED_TRACE(datalen);
        ASSERT_TRUE(start_queues());
        peer.play([&] {
            peer.expect(wire::TPDEQ);
            peer.reply("short", {.datalen = datalen});
            peer.hang_up();
        });
        EXPECT_EQ(deq(DIRECT), -1);
        EXPECT_NE(gettperrno(), 0);
        peer.done();
        EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
        EXPECT_EQ(tpgetasize(out), 1024);
        tpend();
    }
}

TEST_F(Dequeue, BlockSizesThatLieAreNotBelieved)
{
    ASSERT_TRUE(start_queues());
    for (int32_t bufsize : {-1, INT32_MIN, 0, 1}) {
        SCOPED_TRACE(bufsize);
        peer.play([&] { give(std::string(2000, 'm'), {.bufsize = bufsize}); });
        int result = deq(DIRECT);
        peer.done();
        if (result == 1) {
            EXPECT_EQ(reply_data(), std::string(2000, 'm'));
        }
        EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
        EXPECT_GE(tpgetasize(out), result == 1 ? 2000 : 1024);
        memset(out, 'x', (size_t)tpgetasize(out));
        ASSERT_EQ(block()->started, 1);
    }
}
