// tpenq: what goes out, what comes of the answers, and what is refused in which order; the names of a queue's
// parts; and tpenqueue.
#include "queue/fixture.h"

#include <memory>

namespace {

struct Enqueue : QueueTest {
    // What a request that is enqueued looks like; the test changes what it asks for.
    wire::frame request(void)
    {
        wire::frame m =
            wire::message(wire::TPENQ, std::string("hello\0", 6), {.bufsize = 1024, .cd = SECOND});
        m.svcname = "WORK";
        m.flags = TPNOTRAN;
        m.xflags = ROOM_FOR_TRAILER;
        return m;
    }
    // The next message must be this one, and is accepted.
    void accept_only(const wire::frame &wanted, const wire::with &fields = {})
    {
        wire::frame came = peer.expect(wire::TPENQ).frame;
        EXPECT_EQ(wire::fields_of(came), wire::fields_of(wanted));
        peer.reply("", fields);
    }
};

}  // namespace

TEST_F(Enqueue, RequestAsItTravels)
{
    ASSERT_TRUE(start_queues());
    peer.play([&] { accept_only(request(), {.rcode = 41}); });
    EXPECT_EQ(enq(), 41);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(peer.last.seqno, block()->seqno);
    EXPECT_EQ(pending(), 1);
    expect_idle();
}

TEST_F(Enqueue, EveryRequestTakesItsOwnNumber)
{
    ASSERT_TRUE(start_queues());
    int before = block()->seqno;
    for (int i = 1; i <= 3; i++) {
        make_due(1);
        EXPECT_EQ(peer.last.seqno, before + i);
    }
}

TEST_F(Enqueue, OpensASession)
{
    wire::start_reply reply;
    reply.queues = {"FIRST", "SECOND"};
    peer.play([&] {
        peer.accept_start(reply);
        peer.expect(wire::TPENQ).cd(SECOND);
        peer.reply("", {.rcode = 7});
    });
    EXPECT_EQ(enq(), 7);
    EXPECT_EQ(pending(), 1);
}

TEST_F(Enqueue, FlagsTravelAsGivenAndOutsideTheTransaction)
{
    ASSERT_TRUE(start_queues());
    for (long flags : {(long)TPNOBLOCK, (long)TPSIGRSTRT, (long)TPNOREPLY, (long)TPNOTRAN, (long)TPNOTIME,
                       (long)TPRQDIRECT, TO_SERVICE, 0xC02FL}) {
        SCOPED_TRACE(flags);
        wire::frame wanted = request();
        wanted.flags = (uint32_t)flags | TPNOTRAN;
        peer.play([&] { accept_only(wanted); });
        EXPECT_EQ(enq(flags), 0);
        peer.done();
    }
}

TEST_F(Enqueue, EveryOtherFlagIsRefused)
{
    ASSERT_TRUE(start_queues());
    for (int bit = 0; bit < 64; bit++) {
        long flag = (long)(1ul << bit);
        if ((flag & 0xC02F) != 0)
            continue;
        SCOPED_TRACE(bit);
        expect_refused(enq(flag), TPEINVAL);
        expect_refused(enq(flag | 0xC02F), TPEINVAL);
    }
    EXPECT_EQ(pending(), 0);
}

TEST_F(Enqueue, NamesAreCutToThirtyOneCharactersAndMayBeMissing)
{
    ASSERT_TRUE(start_queues());
    wire::frame wanted = request();
    const std::string longest(31, 's');
    for (const std::string &name : {longest, longest + "t", std::string()}) {
        wanted.svcname = name.substr(0, 31);
        peer.play([&] { accept_only(wanted); });
        EXPECT_EQ(tpenq(svc("SECOND"), svc(name.c_str()), in, 0, 0), 0);
        peer.done();
    }
    peer.play([&] { accept_only(wanted); });
    EXPECT_EQ(tpenq(svc("SECOND"), nullptr, in, 0, 0), 0);  // the name that the buffer held goes
}

TEST_F(Enqueue, WhatTheBufferHeldBeforeIsWrittenOver)
{
    ASSERT_TRUE(start_queues());
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.reply("REPLY", {.rcode = 99});
    });
    EXPECT_EQ(tpcall(svc("S"), in, 0, &in, &len, 0), 1);  // the header is that of a reply now
    peer.done();
    memcpy(in, "hello", 6);
    peer.play([&] {
        wire::frame came = peer.expect(wire::TPENQ).svcname("WORK").flags(TPNOTRAN).cd(SECOND).frame;
        EXPECT_EQ(came.rcode, 0);
        EXPECT_EQ(came.target, 0);
        EXPECT_EQ(came.datalen, 6);
        EXPECT_EQ(came.data, std::string("hello\0", 6));
        peer.reply();
    });
    EXPECT_EQ(enq(), 0);
}

TEST_F(Enqueue, LengthsAreThoseOfAnyRequest)
{
    ASSERT_TRUE(start_queues());
    peer.play([&] {
        peer.expect(wire::TPENQ).data(std::string("hello\0\0\0", 8));
        peer.reply();
        peer.expect(wire::TPENQ).data("hel").buftype(wire::CARRAY);
        peer.reply();
    });
    EXPECT_EQ(tpenq(svc("SECOND"), svc("WORK"), in, 8, 0), 0);
    char *bytes = new_buffer("CARRAY", "hello");
    EXPECT_EQ(tpenq(svc("SECOND"), svc("WORK"), bytes, 3, 0), 0);
    peer.done();
    for (long length : {1025L, -1L, 0x100000001L, (long)INT_MAX, LONG_MAX, LONG_MIN}) {
        SCOPED_TRACE(length);
        expect_refused(tpenq(svc("SECOND"), svc("WORK"), bytes, length, 0), TPEINVAL);
    }
    tpfree(bytes);
}

TEST_F(Enqueue, QueuesAreFoundByTheirWholeName)
{
    ASSERT_TRUE(start_queues());
    const char *names[] = {"FIRST", "SECOND", "THIRD"};
    for (int i = 0; i < 3; i++) {
        peer.play([&] {
            peer.expect(wire::TPENQ).cd(i);
            peer.reply();
        });
        EXPECT_EQ(tpenq(svc(names[i]), svc("WORK"), in, 0, 0), 0);
        peer.done();
    }
    for (const char *name : {"", "FIRS", "FIRSTT", "first", "FIRST ", "SIXTEEN_AND_MORE_CHARACTERS"})
        expect_refused(tpenq(svc(name), svc("WORK"), in, 0, 0), TPENOENT);
}

TEST_F(Enqueue, WithoutQueuesNoneIsKnown)
{
    ASSERT_TRUE(start());
    expect_refused(enq(), TPENOENT);
    expect_refused(tpenq(svc(""), svc("WORK"), in, 0, 0), TPENOENT);
}

// ---- what is due

TEST_F(Enqueue, AnswerIsDueUnlessNobodyWillFetchIt)
{
    ASSERT_TRUE(start_queues());
    for (long flags : {(long)TPNOREPLY, (long)TPRQDIRECT, (long)TPNOREPLY | TPRQDIRECT}) {
        peer.play([&] {
            peer.expect(wire::TPENQ);
            peer.reply();
        });
        EXPECT_EQ(enq(flags), 0);
        peer.done();
        EXPECT_EQ(pending(), 0);
    }
    make_due(2);
    EXPECT_EQ(pending(), 2);
}

TEST_F(Enqueue, AcceptanceMayBearANegativeCode)
{
    ASSERT_TRUE(start_queues());
    peer.play([&] {
        peer.expect(wire::TPENQ);
        peer.reply("", {.rcode = -5});
    });
    EXPECT_EQ(enq(), -5);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(pending(), 1);
}

TEST_F(Enqueue, RefusalTellsItsErrorInEitherPlace)
{
    ASSERT_TRUE(start_queues());
    struct {
        int32_t rcode;
        uint32_t flags;
        int error;
    } cases[] = {
        {TPEQFULL, 0, TPEQFULL}, {0, TPESVRDOWN, TPESVRDOWN}, {TPEQFULL, TPEOS, TPEQFULL}, {0, 0, 0}};
    for (auto &one : cases) {
        peer.play([&] {
            peer.expect(wire::TPENQ);
            peer.reply("", {.msgtype = 2017, .rcode = one.rcode, .flags = one.flags});
        });
        EXPECT_EQ(enq(), -1);
        EXPECT_EQ(gettperrno(), one.error);
        peer.done();
        EXPECT_EQ(pending(), 0);
    }
    expect_idle();
}

TEST_F(Enqueue, UserCodeIsNotTouched)
{
    ASSERT_TRUE(start_queues());
    set_tpurcode(77);
    peer.play([&] {
        peer.expect(wire::TPENQ);
        peer.reply("", {.rcode = 3});
    });
    EXPECT_EQ(enq(), 3);
    EXPECT_EQ(gettpurcode(), 77);
}

// ---- the wait

TEST_F(Enqueue, WaitEndsAfterTheBlockTime)
{
    ASSERT_TRUE(start_limited(30));
    peer.play([&] {
        peer.expect(wire::TPENQ);
        let_time_run_out(31);
    });
    EXPECT_EQ(enq(), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    peer.done();
    EXPECT_EQ(pending(), 0);
    expect_idle();
}

TEST_F(Enqueue, NoBlockStillAwaitsTheAcceptance)
{
    ASSERT_TRUE(start_limited(30));
    peer.play([&] {
        peer.expect(wire::TPENQ);
        let_time_run_out(31);
    });
    EXPECT_EQ(enq(TPNOBLOCK), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
}

TEST_F(Enqueue, WithoutALimitTheClockIsOfNoAccount)
{
    struct {
        int block_time;
        long flags;
        bool transaction;
    } cases[] = {{0, 0, false}, {1, TPNOTIME, false}, {1, 0, true}};
    for (auto &one : cases) {
        Peer server;
        setenv("VORN_HOST_ADDR", server.address().c_str(), 1);
        wire::start_reply reply;
        reply.block_time = one.block_time;
        reply.queues = {"FIRST", "SECOND"};
        server.play([&] {
            server.accept_start(reply);
            server.expect(wire::TPENQ);
            for (int i = 0; i < 3; i++) {
                faults::shift_clock(1000);
                server.send(wire::message(1012));
            }
            server.reply("", {.rcode = 5});
            server.serve_end();
        });
        ASSERT_EQ(tpstart(nullptr), 0);
        if (one.transaction)
            open_transaction(TX_STAGE_BEGUN);
        EXPECT_EQ(enq(one.flags), 5) << gettperrno();
        if (one.transaction)
            open_transaction(TX_STAGE_NONE), block()->txinfo->tx_active = 0;
        EXPECT_EQ(tpend(), 1);
    }
}

TEST_F(Enqueue, LateAcceptanceIsDropped)
{
    ASSERT_TRUE(start_limited(30));
    peer.play([&] {
        peer.expect(wire::TPENQ);
        let_time_run_out(31);
    });
    EXPECT_EQ(enq(), -1);
    peer.done();
    arrive([&] {
        peer.send(wire::message(1017, "", {.rcode = 1}));
        peer.send(wire::message(2017, "", {.rcode = 1}));
    });
    EXPECT_EQ(pending(), 0);
    EXPECT_EQ(log.lines(), 0);
    make_due(1);
    EXPECT_EQ(pending(), 1);
}

TEST_F(Enqueue, AnswerThatComesBeforeTheAcceptanceIsKept)
{
    ASSERT_TRUE(start_queues());
    peer.play([&] {
        peer.expect(wire::TPENQ);
        wire::frame request = peer.last;
        peer.send(answer_of(SECOND, "fast"));
        peer.reply_to(request, "", {.rcode = 1});
    });
    EXPECT_EQ(enq(), 1);
    EXPECT_EQ(stored_for(SECOND), 1);
    EXPECT_EQ(deq(), 1);
    EXPECT_EQ(reply_data(), "fast");
    EXPECT_EQ(pending(), 0);
}

TEST_F(Enqueue, LostConnectionEndsIt)
{
    ASSERT_TRUE(start_queues());
    peer.play([&] {
        peer.expect(wire::TPENQ);
        peer.hang_up();
    });
    EXPECT_EQ(enq(), -1);
    EXPECT_EQ(gettperrno(), TPECLOSE);
}

TEST_F(Enqueue, FailedSendIsTold)
{
    ASSERT_TRUE(start_queues());
    for (auto [error, code] : {std::pair(EAGAIN, TPEBLOCK), std::pair(ENOBUFS, TPEOS)}) {
        faults::fail(faults::SEND, 1, error);
        EXPECT_EQ(enq(), -1);
        EXPECT_EQ(gettperrno(), code);
    }
    EXPECT_EQ(pending(), 0);
    expect_idle();
}

TEST_F(Enqueue, AcceptanceWithDataIsNotTheBuffersConcern)
{
    ASSERT_TRUE(start_queues());
    char *before = in;
    peer.play([&] {
        peer.expect(wire::TPENQ);
        peer.reply(std::string(5000, 'x'), {.rcode = 2});
    });
    EXPECT_EQ(enq(), 2);
    EXPECT_EQ(in, before);
    EXPECT_STREQ(in, "hello");
    EXPECT_EQ(tpgetasize(in), 1024);
}

// ---- what is refused, and in which order

TEST_F(Enqueue, RefusalsInTheirOrder)
{
    ASSERT_TRUE(start_queues());
    alignas(8) char plain[400] = {};
    char *unknown = new_buffer("STRING");
    message_of(unknown)->buftype = 77;
    auto refused = [&](const char *queue, char *data, long length, long flags, int error) {
        expect_refused(tpenq(svc(queue), svc("WORK"), data, length, flags), error);
    };
    refused(nullptr, nullptr, 0, TPBLOCK, TPEINVAL);
    refused(nullptr, plain + 200, 0, 0, TPEINVAL);  // arguments before the buffer
    refused("SECOND", nullptr, 0, 0, TPEINVAL);
    refused("SECOND", plain + 200, 0, TPGETANY, TPEINVAL);  // flags before the buffer
    refused("NONE", plain + 200, -1, 0, TPEOTYPE);          // the buffer before its type and the queue
    refused("NONE", unknown, 0, 0, TPEITYPE);               // the type before the queue
    refused("NONE", in, 2000, 0, TPEINVAL);                 // the length before the queue
    refused("NONE", in, 0, 0, TPENOENT);
    message_of(unknown)->buftype = BUF_STRING;
    tpfree(unknown);
    EXPECT_EQ(pending(), 0);
}

TEST_F(Enqueue, RollbackOnlyTransactionIsNoneOfItsBusiness)
{
    ASSERT_TRUE(start_queues());
    open_transaction(TX_STAGE_BEGUN, TX_STATE_ROLLBACK);
    block()->rq_deq_in_tran = 1;
    peer.play([&] {
        peer.expect(wire::TPENQ).flags(TPNOTRAN);
        peer.reply("", {.msgtype = 2017, .rcode = TPEQFULL});
        peer.expect(wire::TPENQ).flags(TPNOTRAN);
        peer.reply();
    });
    EXPECT_EQ(enq(), -1);
    EXPECT_EQ(gettperrno(), TPEQFULL);
    EXPECT_EQ(enq(), 0);
    EXPECT_EQ(stage(), TX_STAGE_BEGUN);
    EXPECT_EQ(block()->rq_enq_in_tran, 0);
}

TEST_F(Enqueue, FailureDoesNotMarkTheTransaction)
{
    ASSERT_TRUE(start_queues());
    open_transaction(TX_STAGE_BEGUN);
    peer.play([&] {
        peer.expect(wire::TPENQ);
        peer.reply("", {.msgtype = 2017, .rcode = TPEQFULL});
    });
    EXPECT_EQ(enq(), -1);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
}

// ---- the names of the parts

TEST(QueueParts, HaveNames)
{
    EXPECT_STREQ(tpsubqname(0), ".RQ_ANY");
    EXPECT_STREQ(tpsubqname(1), ".RQ_FAIL");
    EXPECT_STREQ(tpsubqname(2), ".RQ_REQ");
    EXPECT_STREQ(tpsubqname(3), ".RQ_RPLY");
    EXPECT_EQ(tpsubqname(1) - tpsubqname(0), 32);
    for (int index : {-1, 4, INT_MIN, INT_MAX})
        EXPECT_EQ(tpsubqname(index), nullptr);
}

// ---- tpenqueue

TEST_F(Enqueue, CompatibilityFormCallsAServiceWithoutReply)
{
    ASSERT_TRUE(start_queues());
    peer.play([&] {
        peer.expect(wire::TPACALL).svcname("SECOND").text("hello").flags(TPNOREPLY);
        peer.expect(wire::TPACALL).svcname("ANY").flags(TPNOREPLY).data("");
    });
    EXPECT_EQ(tpenqueue(svc("SPACE"), svc("SECOND"), in, in, 0, -1), 1);
    EXPECT_EQ(tpenqueue(nullptr, svc("ANY"), nullptr, nullptr, 0, 0), 1);
    peer.done();
    EXPECT_EQ(pending(), 0);
    EXPECT_EQ(block()->acall_active, 0);
    expect_usable();
}

TEST_F(Enqueue, CompatibilityFormFailsAsTheCallDoes)
{
    ASSERT_TRUE(start_queues());
    expect_refused(tpenqueue(svc("SPACE"), svc("S"), nullptr, in, 5000, 0), TPEINVAL);
}

TEST_F(Enqueue, CompatibilityFormOpensASession)
{
    peer.play([&] {
        peer.accept_start();
        peer.expect(wire::TPACALL).svcname("S");
    });
    EXPECT_EQ(tpenqueue(nullptr, svc("S"), nullptr, in, 0, 0), 1);
}
