// Browsers: what they ask for, where they stand in the queue, what ends them.
#include "kmq/fixture.h"

#include "support/fieldbuffer.h"

namespace {

struct Browser : KmqTest {
    bool open_browser(int flags = 0)
    {
        if (!open_session())
            return false;
        consumer = make_browser(flags);
        new_msg();
        return consumer != nullptr;
    }
    int next(void) { return note(kmq_browser_nextmsg(consumer, &msg, 3)); }
    int next_answered(const wire::frame &answer)
    {
        peer.play([&] {
            peer.expect(wire::KMQ_GETNEXT);
            peer.send(answer);
        });
        int result = next();
        peer.done();
        return result;
    }
};

}  // namespace

TEST_F(Browser, RequestHasNothingButThis)
{
    for (int flags : {0, 1}) {
        ASSERT_TRUE(open_browser(flags));
        wire::frame request;
        peer.play([&] {
            request = peer.expect(wire::KMQ_GETNEXT).frame;
            peer.send(delivery("x"));
        });
        EXPECT_EQ(next(), 1);
        peer.done();
        wire::frame expected;
        expected.msgtype = wire::KMQ_GETNEXT;
        expected.svcname = "_S";
        expected.flags = flags == 0 ? 0x800 : 0x1800;
        expected.sessid = SESSION_ID;
        expected.prio = CONSUMER_ID;
        expected.cd = -1;
        expected.callid[2] = UINT32_MAX;
        expected.seqno = request.seqno;
        expected.xflags = 0x02000000;
        EXPECT_EQ(wire::encode(request), wire::encode(expected));
        session->id++;
    }
}

TEST_F(Browser, AsksWithoutTheTransactedMark)
{
    ASSERT_TRUE(open_session(1));
    consumer = make_browser();
    new_msg();
    peer.play([&] {
        peer.expect(wire::KMQ_GETNEXT).flags(0x800);
        peer.send(delivery("x"));
    });
    EXPECT_EQ(next(), 1);
    peer.done();
    expect_usable();  // no acknowledgement has come
}

TEST_F(Browser, EachHasItsOwnPlace)
{
    ASSERT_TRUE(open_browser());
    kmq_consumer *first = consumer;
    kmq_consumer *second =
        make<kmq_consumer>(CONSUMER_ID + 1, [&] { return kmq_create_browser(session, "Q", nullptr, 0); });
    peer.play([&] {
        peer.expect(wire::KMQ_GETNEXT).prio(CONSUMER_ID).cd(-1);
        peer.send(delivery("one", CONSUMER_ID, 11, 12));
        peer.expect(wire::KMQ_GETNEXT).prio(CONSUMER_ID + 1).cd(-1);
        peer.send(delivery("two", CONSUMER_ID + 1, 21, 22));
        peer.expect(wire::KMQ_GETNEXT).prio(CONSUMER_ID).cd(11);
        peer.send(delivery("three", CONSUMER_ID, 31, 32));
    });
    EXPECT_EQ(next(), 1);
    consumer = second;
    EXPECT_EQ(next(), 1);
    consumer = first;
    EXPECT_EQ(next(), 1);
    peer.done();
    EXPECT_EQ(first->last_cd, 31u);
    EXPECT_EQ(first->last_word, 32u);
    EXPECT_EQ(second->last_cd, 21u);
}

TEST_F(Browser, PlaceStaysBehindAFailure)
{
    ASSERT_TRUE(open_browser());
    EXPECT_EQ(next_answered(delivery("x", CONSUMER_ID, 41, 42)), 1);
    EXPECT_EQ(next_answered(wire::message(2505, "", {.rcode = TPENOENT, .cd = 99})), -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
    set_tperrno(0);
    peer.play([&] {
        EXPECT_EQ(peer.expect(wire::KMQ_GETNEXT).cd(41).frame.callid[2], 42u);
        peer.send(delivery("y", CONSUMER_ID, 43, 44));
    });
    EXPECT_EQ(next(), 1);
    peer.done();
}

TEST_F(Browser, RefusalIsToldByItsReturnCode)
{
    ASSERT_TRUE(open_browser());
    EXPECT_EQ(next_answered(wire::message(2505, "", {.rcode = TPESVCFAIL, .flags = TPENOENT})), -1);
    EXPECT_EQ(gettperrno(), TPESVCFAIL) << "not by its flags, as a receive's";
    set_tperrno(0);
    for (int32_t other : {1505, 3505}) {
        EXPECT_EQ(next_answered(wire::message(other, "", {.rcode = TPESVCFAIL, .flags = TPENOENT})), -1);
        EXPECT_EQ(gettperrno(), 0) << "an answer that isn't known leaves the error as it is";
    }
    EXPECT_NE(msg, nullptr);
    expect_usable();
}

TEST_F(Browser, MessageOfAnotherConsumerIsTaken)
{
    ASSERT_TRUE(open_browser());
    EXPECT_EQ(next_answered(delivery("another's", CONSUMER_ID + 5, 51, 52)), 1);
    EXPECT_EQ(body_of(msg), "another's");
    EXPECT_EQ(consumer->last_cd, 51u);
}

TEST_F(Browser, ClosedByTheServerLosesTheBuffer)
{
    ASSERT_TRUE(open_browser());
    EXPECT_EQ(
        next_answered(wire::message(wire::KMQ_SESSION_CLOSE, "", {.flags = 0x1000, .sessid = SESSION_ID})),
        -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    EXPECT_EQ(msg, nullptr);
    EXPECT_EQ(session->open, 0);
    new_msg();
    expect_refused(next(), TPECLOSE);
    EXPECT_NE(msg, nullptr);
    EXPECT_EQ(kmq_browser_nextmsg(consumer, nullptr, 0), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL) << "arguments come before the session";
}

TEST_F(Browser, RequestThatCannotBeSentLeavesTheBuffer)
{
    ASSERT_TRUE(open_browser());
    char *before = msg;
    faults::fail_allocation(1);
    EXPECT_EQ(next(), -1);
    faults::disarm_allocations();
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    EXPECT_EQ(msg, before);
    faults::fail(faults::SEND, 1, EPIPE);
    EXPECT_EQ(next(), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    EXPECT_EQ(msg, before);
    consumer->session = nullptr;
    EXPECT_EQ(next(), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    set_tperrno(0);
}

TEST_F(Browser, LeavesAnErrorThatStoodThere)
{
    ASSERT_TRUE(open_browser());
    set_tperrno(TPENOENT);
    char queue[16];
    long length = sizeof queue;
    EXPECT_EQ(kmq_browser_get_queue(consumer, queue, &length, 0), 1);
    EXPECT_STREQ(queue, "Q");
    EXPECT_EQ(length, 2);
    EXPECT_EQ(gettperrno(), TPENOENT);
    EXPECT_EQ(kmq_browser_get_msgselector(consumer, queue, nullptr, 0), -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
    EXPECT_EQ(next_answered(delivery("x")), 1);
}

TEST_F(Browser, IsPartOfTheTransactionInAnXaSession)
{
    ASSERT_TRUE(open_xa_session());
    consumer = make_browser();
    new_msg();
    open_transaction(TX_STAGE_BEGUN);
    block()->txinfo->xid_data[0] = 77;
    peer.play([&] {
        wire::frame asked = peer.expect(wire::KMQ_GETNEXT).flags(START_MARK | 0x800).svcname("_S").frame;
        EXPECT_EQ(asked.xid[0], 77u);
        EXPECT_EQ(asked.prio, CONSUMER_ID);
        peer.send(delivery("x"));
    });
    EXPECT_EQ(next(), 1);
    peer.done();
    set_tx_state(block(), TX_STATE_ROLLBACK);
    expect_refused(next(), TPEPROTO);
    EXPECT_NE(msg, nullptr);
}

TEST_F(Browser, CanBeReceivedFromLikeAConsumer)
{
    ASSERT_TRUE(open_browser());
    peer.play([&] {
        peer.expect(wire::KMQ_GETNEXT).flags(0x800);
        peer.send(delivery("x", CONSUMER_ID, 61, 62));
        peer.expect(wire::KMQ_ACK);
    });
    EXPECT_EQ(kmq_recvex(consumer, &msg, 0, 0), 1);
    peer.done();
    EXPECT_EQ(consumer->last_cd, UINT32_MAX) << "a receive doesn't move it on";
}

TEST_F(Browser, MemoryThatIsShortIsToldEachTime)
{
    ASSERT_TRUE(open_browser());
    peer.play([&] {
        wire::frame request;
        while (peer.receive(&request) && request.msgtype != wire::TPCALL)
            peer.send(delivery(std::string(3000, 'l')));
        peer.reply();
    });
    for (int nth = 1; nth < 60; nth++) {
        new_msg(100);
        faults::fail_allocation(nth);
        int result = next();
        bool failed = faults::allocation_failed();
        faults::disarm_allocations();
        if (result == 1) {
            EXPECT_EQ(body_of(msg), std::string(3000, 'l'));
        } else {
            EXPECT_NE(gettperrno(), 0);
        }
        set_tperrno(0);
        if (!failed || block()->started == 0)
            break;
    }
    if (block()->started != 0 && block()->clhfd >= 0)
        call(TPNOTRAN);
    else
        peer.hang_up();
}
