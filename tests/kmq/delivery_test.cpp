// Messages on their way: such as come late, to nobody or to another, what a failure does to the transaction,
// the error that an earlier call left, and memory that is short.
#include "kmq/fixture.h"

#include "support/fieldbuffer.h"

namespace {

struct Delivery : KmqTest {
    int send(int mode = 0, long flags = 0) { return note(kmq_sendex(producer, msg, mode, 4, 60, flags)); }
    int receive(int timeout = 0, long flags = 0) { return note(kmq_recvex(consumer, &msg, timeout, flags)); }

    bool open_both(const std::function<bool()> &open)
    {
        if (!open())
            return false;
        producer = make_producer();
        consumer = make_consumer();
        new_msg();
        EXPECT_EQ(kmq_set_body(msg, svc("hello"), 5), 1);
        return producer != nullptr && consumer != nullptr;
    }
    bool open_plain(int ackmode = 0)
    {
        return open_both([&] { return open_session(0, ackmode); });
    }
    // Makes ever later allocations of the call fail, until none does or the connection has gone. Each failure is
    // told; the peer awaits a tpcall at the end.
    void try_with_less_memory(const std::function<void()> &prepare, const std::function<int()> &attempt,
                              const std::function<void(int)> &check)
    {
        int failures = 0;
        for (int nth = 1; nth < 60; nth++) {
            prepare();
            faults::fail_allocation(nth);
            int result = attempt();
            bool failed = faults::allocation_failed();
            faults::disarm_allocations();
            EXPECT_EQ(result == 1, gettperrno() == 0);
            check(result);
            set_tperrno(0);
            failures += failed;
            if (!failed || block()->clhfd < 0)
                break;
        }
        EXPECT_GE(failures, 3);
        if (block()->clhfd >= 0)
            call(TPNOTRAN);
        else
            peer.hang_up();
    }
    bool open_xa(void)
    {
        return open_both([&] { return open_xa_session(); });
    }
    int sent_answered(const wire::with &answer, long flags = 0)
    {
        peer.play([&] {
            peer.expect(wire::KMQ_SEND);
            peer.reply("", answer);
        });
        int result = send(0, flags);
        peer.done();
        return result;
    }
    int received_answered(const wire::frame &answer, long flags = 0, int timeout = 0)
    {
        peer.play([&] {
            peer.expect(wire::KMQ_GETNEXT);
            peer.send(answer);
        });
        int result = receive(timeout, flags);
        peer.done();
        return result;
    }
    void run_out_of_time(int timeout = 1)
    {
        peer.play([&] {
            peer.expect(wire::KMQ_GETNEXT);
            let_time_run_out(timeout + 1);
        });
        expect_failed(receive(timeout), TPETIME);
        peer.done();
    }
    void expect_failed(int result, int error, where place = where::current())
    {
        EXPECT_EQ(result, -1) << place.line;
        EXPECT_EQ(gettperrno(), error) << place.line;
        set_tperrno(0);
    }
    static wire::frame notice(int32_t sessid = SESSION_ID)
    {
        return wire::message(wire::KMQ_SESSION_CLOSE, "", {.flags = 0x1000, .sessid = sessid});
    }
    int tx(void) const { return tx_state_of(block()); }
};

}  // namespace

// --- Late, to nobody, to another.

TEST_F(Delivery, TimeOutKeepsTheRequestStandingForSeveralReceives)
{
    ASSERT_TRUE(open_plain());
    run_out_of_time();
    for (int i = 0; i < 3; i++) {
        peer.play([&] { let_time_run_out(3); });
        expect_failed(receive(2), TPETIME);
        peer.done();
        EXPECT_EQ(consumer->state, 1);
    }
    peer.expect_nothing();
    arrive([&] { peer.send(delivery("at last")); });
    EXPECT_EQ(receive(1), 1);
    EXPECT_EQ(body_of(msg), "at last");
    EXPECT_EQ(received_answered(delivery("the next")), 1) << "which asks anew";
    peer.play([&] { peer.expect(wire::KMQ_ACK); });
    peer.done();
}

TEST_F(Delivery, SavedMessageOfTheBuffersSizeIsCopied)
{
    ASSERT_TRUE(open_plain());
    wire::frame late = delivery("late");
    int32_t size = tpgetasize(msg);
    for (int32_t more : {0, 1}) {
        SCOPED_TRACE(more);
        run_out_of_time();
        late.bufsize = size + more;
        arrive([&] { peer.send(late); });
        ASSERT_NE(consumer->saved, nullptr);
        char *before = msg;
        bool larger = consumer->saved->bufsize > size;
        EXPECT_EQ(receive(1), 1);
        EXPECT_EQ(msg != before, larger);
        EXPECT_GE(tpgetasize(msg), size);
        EXPECT_EQ(body_of(msg), "late");
        EXPECT_EQ(message_of(msg)->cd, 9);
        EXPECT_EQ(message_of(msg)->msgtype, wire::KMQ_DELIVER);
    }
    expect_usable();
}

TEST_F(Delivery, SavedMessageIsForItsConsumerAlone)
{
    ASSERT_TRUE(open_plain(2));
    kmq_consumer *other = make_consumer(CONSUMER_ID + 1);
    run_out_of_time();
    arrive([&] { peer.send(delivery("other's", CONSUMER_ID + 1)); });
    EXPECT_EQ(consumer->saved, nullptr);
    ASSERT_NE(other->saved, nullptr);
    EXPECT_EQ(other->state, 0);
    arrive([&] { peer.send(delivery("own")); });
    EXPECT_EQ(receive(1), 1);
    EXPECT_EQ(body_of(msg), "own");
    EXPECT_NE(other->saved, nullptr);
}

TEST_F(Delivery, ConsumersOfOneIdentityInTwoSessionsAreTold)
{
    ASSERT_TRUE(open_plain());
    kmq_consumer *first = consumer;
    peer.play([&] { identify(peer, peer.expect(wire::KMQ_SESSION_OPEN).frame, SESSION_ID + 1, 0); });
    session = kmq_create_session("T", 0, 0, 0);
    peer.done();
    kmq_consumer *second = make_consumer();
    arrive([&] {
        wire::frame one = delivery("for the second");
        one.sessid = SESSION_ID + 1;
        peer.send(one);
    });
    EXPECT_EQ(first->saved, nullptr);
    EXPECT_NE(second->saved, nullptr);
}

TEST_F(Delivery, ProducersIdentityIsNoConsumers)
{
    ASSERT_TRUE(open_plain());
    arrive([&] { peer.send(delivery("x", PRODUCER_ID)); });
    EXPECT_TRUE(log.has("CSC57210209 internal error : "));
    EXPECT_TRUE(log.has("failed to save the message in consumer buffer"));
}

// A wait takes whatever is delivered, for whichever consumer.
TEST_F(Delivery, WaitTakesTheMessageOfAnotherConsumer)
{
    ASSERT_TRUE(open_plain(2));
    EXPECT_EQ(received_answered(delivery("another's", CONSUMER_ID + 9)), 1);
    EXPECT_EQ(body_of(msg), "another's");
    EXPECT_EQ(consumer->state, 0);
    EXPECT_FALSE(log.has("failed to save"));
}

TEST_F(Delivery, MessageForAConsumerThatIsGone)
{
    ASSERT_TRUE(open_plain());
    run_out_of_time();
    peer.play([&] {
        wire::frame request = peer.expect(wire::KMQ_OBJECT_CLOSE).frame;
        peer.send(delivery("between"));
        peer.reply_to(request);
    });
    EXPECT_EQ(kmq_close_consumer(consumer, 0), 1);
    peer.done();
    arrive([&] { peer.send(delivery("late")); });
    EXPECT_TRUE(log.has("failed to save the message in consumer buffer"));
    consumer = nullptr;
}

TEST_F(Delivery, WhatEndsAReceive)
{
    ASSERT_TRUE(open_plain());
    for (int32_t msgtype : {1505, 2505, 3505}) {
        SCOPED_TRACE(msgtype);
        EXPECT_EQ(received_answered(wire::message(msgtype, "", {.rcode = TPEOS, .flags = TPENOENT})), -1);
        EXPECT_EQ(gettperrno(), TPENOENT) << "by its flags, not by its return code";
        EXPECT_EQ(consumer->state, 0);
        set_tperrno(0);
    }
    expect_usable();
}

TEST_F(Delivery, NoticeOfTheSessionEndsAReceiveOfItAlone)
{
    ASSERT_TRUE(open_plain());
    peer.play([&] { identify(peer, peer.expect(wire::KMQ_SESSION_OPEN).frame, SESSION_ID + 1, 0); });
    kmq_session *other = kmq_create_session("T", 0, 0, 0);
    peer.done();
    peer.play([&] {
        peer.expect(wire::KMQ_GETNEXT);
        peer.send(notice(SESSION_ID + 1));
        peer.send(delivery("x"));
        peer.expect(wire::KMQ_ACK);
        peer.expect(wire::KMQ_GETNEXT);
        peer.send(notice());
    });
    EXPECT_EQ(receive(), 1);
    EXPECT_EQ(other->open, 0);
    expect_failed(receive(), TPECLOSE);
    peer.done();
    EXPECT_EQ(consumer->state, 1);
    expect_refused(receive(), TPECLOSE);
}

// A send doesn't wait with its session's identity: it hears of the closing, and then its answer.
TEST_F(Delivery, NoticeOfTheSessionDoesNotEndASend)
{
    ASSERT_TRUE(open_plain());
    peer.play([&] {
        peer.expect(wire::KMQ_SEND);
        wire::frame request = peer.last;
        peer.send(notice());
        peer.reply_to(request);
    });
    EXPECT_EQ(send(), 1) << gettperrno();
    peer.done();
    EXPECT_EQ(session->open, 0);
    expect_refused(send(), TPECLOSE);
}

TEST_F(Delivery, RequestThatCannotBeSentIsNotOutstanding)
{
    ASSERT_TRUE(open_plain());
    open_transaction();
    faults::fail_allocation(1);
    expect_failed(receive(), TPESYSTEM);
    faults::disarm_allocations();
    EXPECT_EQ(consumer->state, 0);
    faults::fail(faults::SEND, 1, EPIPE);
    expect_failed(receive(), TPESYSTEM);
    EXPECT_EQ(consumer->state, 0);
    EXPECT_EQ(tx(), TX_STATE_ACTIVE);
}

// --- The transaction.

TEST_F(Delivery, FailuresOfASendAndTheirMarks)
{
    ASSERT_TRUE(open_plain());
    for (long flags : {0L, (long)TPNOTRAN, (long)(TPNOTRAN | TPNOTIME), (long)TPNOTIME}) {
        SCOPED_TRACE(flags);
        int marked = (flags & TPNOTRAN) != 0 ? TX_STATE_ACTIVE : TX_STATE_ROLLBACK;
        open_transaction();
        EXPECT_EQ(sent_answered({.msgtype = 2504, .flags = TPENOENT}, flags), -1);
        expect_failed(-1, TPENOENT);
        EXPECT_EQ(tx(), marked);
        open_transaction();
        EXPECT_EQ(sent_answered({.msgtype = 3504, .flags = TPEQFULL}, flags), -1);
        expect_failed(-1, TPEQFULL);
        EXPECT_EQ(tx(), marked);
        open_transaction();
        peer.play([&] {
            peer.expect(wire::KMQ_SEND);
            let_time_run_out(31);
        });
        expect_failed(send(0, flags), TPETIME);
        peer.done();
        EXPECT_EQ(tx(), marked);
        open_transaction();
        expect_refused(kmq_sendex(producer, msg, 2, 0, 0, flags), TPEINVAL);
        EXPECT_EQ(tx(), TX_STATE_ACTIVE);
    }
}

TEST_F(Delivery, SendOfAnXaSessionJoinsTheTransaction)
{
    ASSERT_TRUE(open_xa());
    open_transaction(TX_STAGE_BEGUN);
    message_of(msg)->rcode = message_of(msg)->target = 5;
    peer.play([&] {
        wire::frame first = peer.expect(wire::KMQ_SEND).flags(START_MARK | 0x02).svcname("_S").frame;
        EXPECT_EQ(first.sessid, SESSION_ID);
        EXPECT_EQ(first.prio, PRODUCER_ID);
        EXPECT_EQ(first.rcode, 0);
        EXPECT_EQ(first.target, 0);
        EXPECT_EQ(first.data, wire::body("hello"));
        EXPECT_EQ(first.callid[1], 60u);
        EXPECT_EQ(first.callid[2], 4u);
        wire::frame reply = wire::answer(first, first.data, {.buftype = wire::FIELD});
        reply.xid[0] = 1, reply.xid[1] = 2, reply.xid[2] = 3;
        peer.send(reply);
    });
    EXPECT_EQ(send(1), 1);
    peer.done();
    for (uint32_t i = 0; i < 3; i++)
        EXPECT_EQ(block()->txinfo->xid_data[i], i + 1);
    EXPECT_EQ(stage(), TX_STAGE_RUNNING);
    peer.play([&] {
        wire::frame asked = peer.expect(wire::KMQ_GETNEXT).flags(0).frame;
        EXPECT_EQ(asked.xid[2], 3u);
        wire::frame given = delivery("x");
        given.xid[0] = 99;
        peer.send(given);
    });
    EXPECT_EQ(receive(), 1);
    peer.done();
    EXPECT_EQ(block()->txinfo->xid_data[0], 1u);
    expect_usable();  // nothing has been acknowledged
}

TEST_F(Delivery, ReceiveThatBeginsTheTransactionBringsNoIdentity)
{
    ASSERT_TRUE(open_xa());
    open_transaction(TX_STAGE_BEGUN);
    peer.play([&] {
        peer.expect(wire::KMQ_GETNEXT).flags(START_MARK);
        wire::frame given = delivery("x");
        given.xid[0] = 99;
        given.flags = START_MARK;
        peer.send(given);
    });
    EXPECT_EQ(receive(), 1);
    peer.done();
    EXPECT_EQ(stage(), TX_STAGE_RUNNING);
    EXPECT_EQ(block()->txinfo->xid_data[0], 0u);
}

TEST_F(Delivery, XaSessionInATransactionThatCannotBeCommitted)
{
    ASSERT_TRUE(open_xa());
    struct {
        int state, error;
    } rows[] = {{TX_STATE_ROLLBACK, TPEPROTO}, {TX_STATE_TIMED_OUT, TPETIME}};
    for (auto &row : rows)
        for (long flags : {0L, (long)TPNOTRAN}) {
            open_transaction(TX_STAGE_RUNNING, row.state);
            expect_refused(send(0, flags), row.error);
            expect_refused(receive(0, flags), row.error);
            EXPECT_EQ(consumer->state, 0);
            EXPECT_EQ(tx(), row.state);
        }
}

TEST_F(Delivery, FailuresOfAnXaSessionAndTheirMarks)
{
    ASSERT_TRUE(open_xa());
    open_transaction(TX_STAGE_BEGUN);
    EXPECT_EQ(sent_answered({.flags = TPESVCFAIL}), -1);
    expect_failed(-1, TPESVCFAIL);
    EXPECT_EQ(tx(), TX_STATE_ROLLBACK);
    EXPECT_EQ(stage(), TX_STAGE_RUNNING);
    open_transaction();
    EXPECT_EQ(received_answered(wire::message(2505, "", {.flags = TPENOENT}), TPNOTRAN), -1);
    expect_failed(-1, TPENOENT);
    EXPECT_EQ(tx(), TX_STATE_ACTIVE);
    EXPECT_EQ(received_answered(wire::message(2505, "", {.flags = TPENOENT})), -1);
    expect_failed(-1, TPENOENT);
    EXPECT_EQ(tx(), TX_STATE_ROLLBACK);
    open_transaction();
    run_out_of_time();
    EXPECT_EQ(tx(), TX_STATE_ACTIVE) << "a receive that hears nothing isn't a failure of the transaction";
    consumer->state = 0;
    faults::fail(faults::SEND, 1, EPIPE);
    expect_failed(send(), TPESYSTEM);
    EXPECT_EQ(tx(), TX_STATE_ACTIVE);
}

TEST_F(Delivery, OtherSessionsStayOutOfTheTransaction)
{
    ASSERT_TRUE(open_plain());
    open_transaction(TX_STAGE_BEGUN);
    block()->txinfo->xid_data[0] = 77;
    peer.play([&] {
        EXPECT_EQ(peer.expect(wire::KMQ_SEND).flags(0).frame.xid[0], 0u);
        wire::frame reply = wire::answer(peer.last);
        reply.xid[0] = 99;
        peer.send(reply);
        EXPECT_EQ(peer.expect(wire::KMQ_GETNEXT).flags(0).frame.xid[0], 0u);
        peer.send(delivery("x"));
        peer.expect(wire::KMQ_ACK);
    });
    EXPECT_EQ(send(), 1);
    EXPECT_EQ(receive(), 1);
    peer.done();
    EXPECT_EQ(stage(), TX_STAGE_BEGUN);
    EXPECT_EQ(block()->txinfo->xid_data[0], 77u);
}

TEST_F(Delivery, MessageThatWasReceivedCanBeSentOn)
{
    ASSERT_TRUE(open_plain(2));
    wire::frame given = delivery("sent on");
    given.flags = 0x82;
    EXPECT_EQ(received_answered(given), 1);
    peer.play([&] {
        wire::frame sent = peer.expect(wire::KMQ_SEND).flags(0).prio(PRODUCER_ID).frame;
        EXPECT_EQ(sent.data, wire::body("sent on"));
        EXPECT_EQ(sent.callid[2], 4u);
        peer.reply_to(sent);
    });
    EXPECT_EQ(send(), 1);
    peer.done();
}

// The answer's header says that there is no data; the message's are there all the same.
TEST_F(Delivery, MessageOfAnXaSessionCanBeSentAgainBehindAnAnswerWithoutData)
{
    ASSERT_TRUE(open_xa());
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(sent_answered({}, TPNOTRAN), 1) << gettperrno();
        EXPECT_EQ(peer.last.data, wire::body("hello"));
        EXPECT_EQ(peer.last.buftype, wire::FIELD);
        EXPECT_EQ(body_of(msg), "hello");
    }
}

// --- The error of an earlier call.

TEST_F(Delivery, StaleErrorCountsInASend)
{
    ASSERT_TRUE(open_plain());
    for (long flags : {0L, (long)TPNOTRAN}) {
        open_transaction();
        set_tperrno(TPEMATCH);
        EXPECT_EQ(sent_answered({}, flags), -1);
        expect_failed(-1, TPEMATCH);
        EXPECT_EQ(tx(), flags == 0 ? TX_STATE_ROLLBACK : TX_STATE_ACTIVE);
        EXPECT_EQ(message_of(msg)->msgtype, wire::KMQ_SEND) << "the answer isn't copied";
    }
    set_tperrno(TPEMATCH);
    EXPECT_EQ(sent_answered({.flags = TPENOENT}, TPNOTRAN), -1);
    expect_failed(-1, TPEMATCH);
    set_tperrno(TPEMATCH);
    peer.play([&] {
        peer.expect(wire::KMQ_SEND);
        let_time_run_out(31);
    });
    EXPECT_EQ(send(0, TPNOTRAN), -1);
    EXPECT_NE(gettperrno(), 0);
    peer.done();
}

TEST_F(Delivery, StaleErrorCountsInAReceiveWithALimit)
{
    ASSERT_TRUE(open_plain());
    open_transaction();
    set_tperrno(TPEMATCH);
    EXPECT_EQ(received_answered(delivery("there"), 0, 20), -1);
    expect_failed(-1, TPEMATCH);
    EXPECT_EQ(body_of(msg), "there");
    EXPECT_EQ(consumer->state, 0);
    EXPECT_EQ(tx(), TX_STATE_ROLLBACK);
    set_tperrno(TPEMATCH);
    EXPECT_EQ(received_answered(wire::message(2505, "", {.flags = TPENOENT}), TPNOTRAN, 20), -1);
    expect_failed(-1, TPEMATCH);
    arrive([] {});  // no acknowledgement has come
}

TEST_F(Delivery, StaleErrorCountsInAReceiveWithoutALimit)
{
    ASSERT_TRUE(open_plain());
    set_tperrno(TPEMATCH);
    EXPECT_EQ(received_answered(delivery("there"), TPNOTRAN), -1);
    expect_failed(-1, TPEMATCH);
    EXPECT_EQ(body_of(msg), "there");
    EXPECT_EQ(consumer->state, 0);
    expect_usable();  // no acknowledgement has come
    EXPECT_EQ(received_answered(delivery("again"), 0), 1);
    peer.play([&] { peer.expect(wire::KMQ_ACK); });
    peer.done();
}

TEST_F(Delivery, StaleErrorIsClearedOnTheWayInAnXaSession)
{
    ASSERT_TRUE(open_xa());
    set_tperrno(TPEMATCH);
    EXPECT_EQ(sent_answered({}), 1);
    EXPECT_EQ(gettperrno(), 0);
    for (int timeout : {0, 20}) {
        set_tperrno(TPEMATCH);
        peer.play([&] {
            peer.expect(wire::KMQ_GETNEXT);
            peer.send(delivery("x"));
            peer.expect(wire::KMQ_ACK);
        });
        EXPECT_EQ(receive(timeout), 1);
        EXPECT_EQ(gettperrno(), 0);
        peer.done();
    }
}

TEST_F(Delivery, StaleErrorDoesNotCountForASavedMessageOrAnAcknowledgement)
{
    ASSERT_TRUE(open_plain(1));
    run_out_of_time();
    arrive([&] { peer.send(delivery("saved")); });
    set_tperrno(TPEMATCH);
    EXPECT_EQ(receive(1), 1);
    EXPECT_EQ(gettperrno(), TPEMATCH);
    peer.play([&] { peer.expect(wire::KMQ_ACK).flags(0x40); });
    EXPECT_EQ(kmq_ack(msg, 2), 1);
    EXPECT_EQ(gettperrno(), TPEMATCH);
    peer.done();
}

// --- Acknowledging.

TEST_F(Delivery, AcknowledgementHasNothingButThis)
{
    ASSERT_TRUE(open_plain(1));
    wire::frame ack;
    peer.play([&] {
        peer.expect(wire::KMQ_GETNEXT);
        peer.send(delivery("x", CONSUMER_ID, 77, 0xABCD0004));
        ack = peer.expect(wire::KMQ_ACK).frame;
    });
    EXPECT_EQ(receive(), 1);
    peer.done();
    wire::frame expected;
    expected.msgtype = wire::KMQ_ACK;
    expected.sessid = SESSION_ID;
    expected.prio = CONSUMER_ID;
    expected.svcname = "_S";
    expected.cd = 77;
    expected.callid[2] = 0xABCD0004;
    expected.flags = 0x20;
    expected.seqno = ack.seqno;
    expected.xflags = 0x02000000;
    EXPECT_EQ(wire::encode(ack), wire::encode(expected));
}

TEST_F(Delivery, AcknowledgementsChecksInTheirOrder)
{
    ASSERT_TRUE(open_plain(0));
    peer.play([&] {
        peer.expect(wire::KMQ_GETNEXT);
        peer.send(delivery("x"));
        peer.expect(wire::KMQ_ACK);
    });
    EXPECT_EQ(receive(), 1);
    peer.done();
    expect_refused(kmq_ack(msg, 0), TPEPROTO);  // mode 0 before the flags
    message_of(msg)->sessid++;
    expect_refused(kmq_ack(msg, 0), TPESYSTEM);
    message_of(msg)->msgtype = wire::KMQ_GETNEXT;
    expect_refused(kmq_ack(msg, 0), TPEITYPE);
    expect_refused(kmq_ack(nullptr, 0), TPEINVAL);
    message_of(msg)->msgtype = wire::KMQ_DELIVER;
    message_of(msg)->sessid--;
    close_by_server();
    expect_refused(kmq_ack(msg, 0), TPECLOSE);  // closed before the mode
}

TEST_F(Delivery, AcknowledgementThatCannotBeMadeOrSent)
{
    ASSERT_TRUE(open_plain(2));
    EXPECT_EQ(received_answered(delivery("x")), 1);
    faults::fail_allocation(1);
    expect_refused(kmq_ack(msg, 1), TPESYSTEM);
    faults::disarm_allocations();
    faults::fail(faults::SEND, 1, EPIPE);
    expect_failed(kmq_ack(msg, 1), TPESYSTEM);
}

// --- Memory.

TEST_F(Delivery, MemoryThatIsShortIsToldBySends)
{
    ASSERT_TRUE(open_plain());
    peer.play([&] {
        wire::frame request;
        while (peer.receive(&request) && request.msgtype != wire::TPCALL)
            peer.reply_to(request, wire::body("changed"), {.buftype = wire::FIELD});
        peer.reply();
    });
    try_with_less_memory([] {}, [&] { return send(0, TPNOTRAN); },
                         [&](int) {
                             std::string body = body_of(msg);
                             EXPECT_TRUE(body == "hello" || body == "changed") << body;
                         });
}

TEST_F(Delivery, MemoryThatIsShortIsToldByReceives)
{
    ASSERT_TRUE(open_plain());
    peer.play([&] {
        wire::frame request;
        while (peer.receive(&request) && request.msgtype != wire::TPCALL)
            if (request.msgtype == wire::KMQ_GETNEXT)
                peer.send(delivery(std::string(3000, 'l')));
        peer.reply();
    });
    try_with_less_memory(
        [&] {
            new_msg(100);
            consumer->state = 0;
        },
        [&] { return receive(20, TPNOTRAN); },
        [&](int result) {
            if (result == 1) {
                EXPECT_EQ(body_of(msg), std::string(3000, 'l'));
            }
        });
}
