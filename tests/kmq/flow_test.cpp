// Sending, receiving one message at a time, browsing, acknowledging.
#include "kmq/fixture.h"

#include "support/fieldbuffer.h"

namespace {

constexpr int32_t GETNEXT_REFUSED = 2505;

struct Flow : KmqTest {
    int send(int mode = 0, long flags = 0) { return note(kmq_sendex(producer, msg, mode, 4, 60, flags)); }
    int receive(int timeout = 0, long flags = 0) { return note(kmq_recvex(consumer, &msg, timeout, flags)); }

    bool open_producer(int transacted = 0)
    {
        if (!open_session(transacted))
            return false;
        producer = make_producer();
        new_msg();
        EXPECT_EQ(kmq_set_body(msg, svc("hello"), 5), 1);
        return producer != nullptr;
    }
    bool open_consumer(int transacted = 0, int ackmode = 0)
    {
        if (!open_session(transacted, ackmode))
            return false;
        consumer = make_consumer();
        new_msg();
        return consumer != nullptr;
    }
    // The server has taken the message: its identity.
    void take(void)
    {
        wire::frame request = peer.expect(wire::KMQ_SEND).frame;
        wire::frame reply = wire::answer(request, request.data, {.buftype = wire::FIELD, .cd = 0x1234});
        reply.bufsize = request.bufsize;
        reply.sessid = request.sessid;
        reply.prio = request.prio;
        reply.callid[2] = request.callid[2] | 0x00AB0000;
        peer.send(reply);
    }
    void give(const std::string &text)
    {
        peer.expect(wire::KMQ_GETNEXT);
        peer.send(delivery(text));
    }
    void refuse_next(int32_t flags, int32_t rcode)
    {
        peer.expect(wire::KMQ_GETNEXT);
        peer.send(wire::message(GETNEXT_REFUSED, "", {.rcode = rcode, .flags = (uint32_t)flags}));
    }
    // A receive whose time runs out with the request standing.
    void run_out_of_time(void)
    {
        peer.play([&] {
            peer.expect(wire::KMQ_GETNEXT);
            let_time_run_out(2);
        });
        EXPECT_EQ(receive(1), -1);
        EXPECT_EQ(gettperrno(), TPETIME);
        peer.done();
        EXPECT_EQ(consumer->state, 1);
        set_tperrno(0);
    }
    std::string property(const char *name)
    {
        char text[64];
        int type;
        long length = sizeof text;
        EXPECT_EQ(kmq_get_property(msg, svc(name), &type, text, &length), 1) << gettperrno();
        return text;
    }
    // Waits until some thread of the context reads.
    static bool gets_a_reader(wthr_var *shared)
    {
        return faults::eventually([=] {
            _thread_mutex_lock(&shared->msg_mutex);
            bool reads = shared->reader_busy != 0;
            _thread_mutex_unlock(&shared->msg_mutex);
            return reads;
        });
    }
    // Nothing more has come than what the script has read, proved by a call behind it.
    void expect_quiet(void) { expect_usable(); }
};

}  // namespace

// --- Sending.

TEST_F(Flow, MessageAsItTravels)
{
    ASSERT_TRUE(open_producer());
    time_t before = time(nullptr);
    peer.play([&] { take(); });
    EXPECT_EQ(send(1), 1) << gettperrno();
    peer.done();
    const wire::frame &sent = peer.last;
    EXPECT_EQ(sent.buftype, wire::FIELD);
    EXPECT_EQ(sent.sessid, SESSION_ID);
    EXPECT_EQ(sent.prio, PRODUCER_ID);
    EXPECT_EQ(sent.svcname, "_S");
    EXPECT_EQ(sent.flags, 0x02u);
    EXPECT_EQ(sent.data, wire::body("hello"));
    EXPECT_GE(sent.callid[0], (uint32_t)before);
    EXPECT_LE(sent.callid[0], (uint32_t)time(nullptr));
    EXPECT_EQ(sent.callid[1], 60u);
    EXPECT_EQ(sent.callid[2], 4u);
    expect_idle();
}

TEST_F(Flow, SentMessageHasItsIdentityAndItsDuration)
{
    ASSERT_TRUE(open_producer());
    int32_t size = tpgetasize(msg);
    peer.play([&] {
        faults::shift_clock(0);
        wire::frame request = peer.expect(wire::KMQ_SEND).frame;
        faults::shift_clock(7);
        wire::frame reply = wire::answer(request, wire::body("changed"),
                                         {.buftype = wire::FIELD, .bufsize = 500, .cd = 0x1234});
        reply.callid[2] = 0x00AB0004;
        peer.send(reply);
    });
    ASSERT_EQ(send(), 1) << gettperrno();
    peer.done();
    EXPECT_EQ(body_of(msg), "changed");
    EXPECT_EQ(tpgetasize(msg), size);
    EXPECT_EQ(property("$MessageID"), "00AB00001234");
    int type, seconds = 0;
    long length = sizeof seconds;
    EXPECT_EQ(kmq_get_property(msg, svc("$TimeStamp"), &type, &seconds, &length), 1);
    EXPECT_GE(seconds, 7);
    EXPECT_LT(seconds, 30);
}

TEST_F(Flow, MessageCanBeSentAgainBehindAnAnswerWithoutData)
{
    ASSERT_TRUE(open_producer());
    peer.play([&] {
        for (int i = 0; i < 2; i++) {
            EXPECT_EQ(peer.expect(wire::KMQ_SEND).frame.data, wire::body("hello"));
            peer.reply();
        }
    });
    EXPECT_EQ(send(), 1);
    EXPECT_EQ(body_of(msg), "hello");
    EXPECT_EQ(send(), 1);
    peer.done();
}

TEST_F(Flow, TransactedSessionMarksItsMessages)
{
    ASSERT_TRUE(open_producer(1));
    peer.play([&] {
        take();
        EXPECT_EQ(peer.last.flags, 0x40u);
        take();
        EXPECT_EQ(peer.last.flags, 0x42u);
    });
    EXPECT_EQ(send(0), 1);
    EXPECT_EQ(send(1), 1);
    peer.done();
}

TEST_F(Flow, SendIsRefused)
{
    ASSERT_TRUE(open_producer());
    expect_refused(kmq_sendex(nullptr, msg, 0, 0, 0, 0), TPEINVAL);
    expect_refused(kmq_sendex(producer, nullptr, 0, 0, 0, 0), TPEINVAL);
    expect_refused(kmq_sendex(producer, msg, 0, 0, -1, 0), TPEINVAL);
    for (int mode : {-1, 2, 3, INT_MAX, INT_MIN})
        expect_refused(kmq_sendex(producer, msg, mode, 0, 0, 0), TPEINVAL);
    expect_refused(kmq_sendex(producer, in, 0, 0, 0, 0), TPEITYPE);
    alignas(16) char raw[400] = {};
    expect_refused(kmq_sendex(producer, raw + 200, 0, 0, 0, 0), TPEITYPE);
    fld::set_used((fbuf *)msg, 1 << 20);
    expect_refused(kmq_sendex(producer, msg, 0, 0, 0, 0), TPEINVAL);
    fld::set_used((fbuf *)msg, -1);
    expect_refused(kmq_sendex(producer, msg, 0, 0, 0, 0), TPEINVAL);
    fld::set_used((fbuf *)msg, 8);
    close_by_server();
    expect_refused(kmq_sendex(producer, msg, 0, 0, 0, 0), TPECLOSE);
    producer->session = nullptr;
    expect_refused(kmq_sendex(producer, msg, 0, 0, 0, 0), TPESYSTEM);
}

TEST_F(Flow, AnswerLargerThanTheMessageIsRefused)
{
    ASSERT_TRUE(open_producer());
    peer.play([&] {
        peer.expect(wire::KMQ_SEND);
        peer.reply(wire::body("large"), {.buftype = wire::FIELD, .bufsize = tpgetasize(msg) + 1});
    });
    EXPECT_EQ(send(), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    peer.done();
    EXPECT_EQ(body_of(msg), "hello");
}

TEST_F(Flow, RefusedSendMarksTheTransactionUnlessToldNotTo)
{
    ASSERT_TRUE(open_producer());
    for (long flags : {0L, (long)TPNOTRAN}) {
        open_transaction();
        peer.play([&] {
            peer.expect(wire::KMQ_SEND);
            peer.reply("", {.flags = TPESVCFAIL});
        });
        EXPECT_EQ(send(0, flags), -1);
        EXPECT_EQ(gettperrno(), TPESVCFAIL);
        peer.done();
        EXPECT_EQ(tx_state_of(block()), flags == 0 ? TX_STATE_ROLLBACK : TX_STATE_ACTIVE);
        set_tperrno(0);
    }
}

TEST_F(Flow, SendEndsAfterThirtySeconds)
{
    ASSERT_TRUE(open_producer());
    open_transaction();
    peer.play([&] {
        peer.expect(wire::KMQ_SEND);
        let_time_run_out(31);
    });
    EXPECT_EQ(send(), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    peer.done();
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK);
    expect_idle();
}

TEST_F(Flow, SendOverALostConnectionLeavesTheTransaction)
{
    ASSERT_TRUE(open_producer());
    open_transaction();
    faults::fail(faults::SEND, 1, EPIPE);
    EXPECT_EQ(send(), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
}

TEST_F(Flow, StaleErrorMakesAGoodSendFail)
{
    ASSERT_TRUE(open_producer());
    set_tperrno(TPENOENT);
    peer.play([&] { take(); });
    EXPECT_EQ(send(), -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
    peer.done();
}

TEST_F(Flow, SendWithoutMemoryForTheWait)
{
    ASSERT_TRUE(open_producer());
    open_transaction();
    peer.play([&] { peer.expect(wire::KMQ_SEND); });
    int nth = 1;
    do {  // the n-th allocation is the first behind the send
        faults::fail_allocation(nth++);
        EXPECT_EQ(send(), -1);
        faults::disarm_allocations();
    } while (gettperrno() != TPEOS && nth < 10);
    peer.done();
    EXPECT_EQ(gettperrno(), TPEOS);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK);
    expect_idle();
}

TEST_F(Flow, FirstMessageOfATransactionBringsItsIdentity)
{
    ASSERT_TRUE(open_xa_session());
    producer = make_producer();
    new_msg();
    open_transaction(TX_STAGE_BEGUN);
    peer.play([&] {
        for (int i = 0; i < 2; i++) {
            wire::frame request = peer.expect(wire::KMQ_SEND).flags(i == 0 ? START_MARK | 2 : 2).frame;
            EXPECT_EQ(request.svcname, "_S");
            EXPECT_EQ(request.xid[1], i == 0 ? 0u : 22u);
            EXPECT_EQ(request.prio, PRODUCER_ID);
            wire::frame reply = wire::answer(request, request.data, {.buftype = wire::FIELD});
            reply.xid[0] = 11 + 100 * i, reply.xid[1] = 22 + 100 * i, reply.xid[2] = 33 + 100 * i;
            peer.send(reply);
        }
    });
    EXPECT_EQ(send(1), 1);
    EXPECT_EQ(send(1), 1);
    peer.done();
    EXPECT_EQ(stage(), TX_STAGE_RUNNING);
    EXPECT_EQ(block()->txinfo->xid_data[2], 33u);
}

// --- Receiving.

TEST_F(Flow, RequestAndAcknowledgementAsTheyTravel)
{
    ASSERT_TRUE(open_consumer());
    char *before = msg;
    peer.play([&] {
        wire::frame asked = peer.expect(wire::KMQ_GETNEXT).header_only().flags(0).frame;
        EXPECT_EQ(asked.sessid, SESSION_ID);
        EXPECT_EQ(asked.prio, CONSUMER_ID);
        EXPECT_EQ(asked.svcname, "_S");
        EXPECT_EQ(asked.cd, -1);
        EXPECT_EQ(asked.callid[2], UINT32_MAX);
        peer.send(delivery("first", CONSUMER_ID, 77, 0xABCD0004));
        wire::frame ack = peer.expect(wire::KMQ_ACK).header_only().flags(0x20).frame;
        EXPECT_EQ(ack.sessid, SESSION_ID);
        EXPECT_EQ(ack.prio, CONSUMER_ID);
        EXPECT_EQ(ack.svcname, "_S");
        EXPECT_EQ(ack.cd, 77);
        EXPECT_EQ(ack.callid[2], 0xABCD0004u);
    });
    EXPECT_EQ(receive(), 1) << gettperrno();
    peer.done();
    EXPECT_EQ(msg, before);
    EXPECT_EQ(body_of(msg), "first");
    EXPECT_EQ(property("$Destination"), "Q");
    EXPECT_EQ(consumer->state, 0);
    expect_idle();
}

TEST_F(Flow, WhoAcknowledgesAtOnce)
{
    struct {
        int transacted, ackmode;
        uint32_t word;
        bool acknowledges;
    } rows[] = {{0, 0, 0, true}, {0, 1, 0, true}, {0, 2, 0, false}, {1, 0, 0x40, false}};
    for (auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.transacted << ' ' << row.ackmode);
        ASSERT_TRUE(open_consumer(row.transacted, row.ackmode));
        peer.play([&] {
            peer.expect(wire::KMQ_GETNEXT).flags(row.word);
            peer.send(delivery("x"));
            if (row.acknowledges)
                peer.expect(wire::KMQ_ACK).flags(0x20);
        });
        EXPECT_EQ(receive(), 1) << gettperrno();
        peer.done();
        expect_quiet();
        session->id++;  // out of the way of the next one's
    }
}

TEST_F(Flow, XaSessionAcknowledgesOutsideOfATransactionOnly)
{
    ASSERT_TRUE(open_xa_session());
    consumer = make_consumer();
    new_msg();
    peer.play([&] {
        give("outside");
        EXPECT_EQ(peer.last.flags, 0u);
        peer.expect(wire::KMQ_ACK);
        give("inside");
        EXPECT_EQ(peer.last.flags, START_MARK);
        give("inside again");
        EXPECT_EQ(peer.last.flags, 0u);
    });
    EXPECT_EQ(receive(), 1);
    open_transaction(TX_STAGE_BEGUN);
    EXPECT_EQ(receive(), 1);
    EXPECT_EQ(receive(), 1);
    EXPECT_EQ(body_of(msg), "inside again");
    peer.done();
    expect_quiet();
}

TEST_F(Flow, LargerMessageTakesTheBuffersPlace)
{
    ASSERT_TRUE(open_consumer(0, 2));
    tpfree(msg);
    msg = new_buffer("STRING");
    peer.play([&] {
        give("small");
        give(std::string(3000, 'l'));
    });
    char *before = msg;
    EXPECT_EQ(receive(), 1);
    EXPECT_EQ(msg, before);
    EXPECT_EQ(body_of(msg), "small");
    EXPECT_EQ(receive(), 1);
    EXPECT_EQ(body_of(msg), std::string(3000, 'l'));
    EXPECT_GT(tpgetasize(msg), 3000);
    peer.done();
}

TEST_F(Flow, RequestStandsAfterATimeOut)
{
    ASSERT_TRUE(open_consumer());
    run_out_of_time();
    wthr_var *shared = block();
    peer.play([&] {
        EXPECT_TRUE(gets_a_reader(shared));
        peer.send(delivery("late"));
        peer.expect(wire::KMQ_ACK);
    });
    EXPECT_EQ(receive(20), 1) << gettperrno();
    peer.done();
    EXPECT_EQ(body_of(msg), "late");
    EXPECT_EQ(consumer->state, 0);
}

TEST_F(Flow, SavedMessageComesAtOnceAndIsNotAcknowledged)
{
    ASSERT_TRUE(open_consumer());
    run_out_of_time();
    arrive([&] { peer.send(delivery("saved")); });
    int32_t size = tpgetasize(msg);
    EXPECT_EQ(receive(1), 1);
    EXPECT_EQ(body_of(msg), "saved");
    EXPECT_EQ(tpgetasize(msg), size);
    EXPECT_EQ(consumer->state, 0);
    EXPECT_EQ(consumer->saved, nullptr);
    expect_quiet();
}

TEST_F(Flow, LargerSavedMessageTakesTheBuffersPlace)
{
    ASSERT_TRUE(open_consumer());
    run_out_of_time();
    arrive([&] { peer.send(delivery(std::string(4000, 's'))); });
    EXPECT_EQ(receive(1), 1);
    EXPECT_EQ(body_of(msg), std::string(4000, 's'));
    expect_quiet();
}

TEST_F(Flow, LastOfSeveralIsSaved)
{
    ASSERT_TRUE(open_consumer());
    run_out_of_time();
    arrive([&] {
        peer.send(delivery("first"));
        peer.send(delivery("second"));
    });
    EXPECT_EQ(receive(1), 1);
    EXPECT_EQ(body_of(msg), "second");
}

TEST_F(Flow, MessageThatCameUnaskedIsNotTheAnswer)
{
    ASSERT_TRUE(open_consumer(0, 2));
    arrive([&] { peer.send(delivery("unasked")); });
    peer.play([&] { give("asked"); });
    EXPECT_EQ(receive(), 1);
    EXPECT_EQ(body_of(msg), "asked");
    peer.done();
    run_out_of_time();
    EXPECT_EQ(receive(1), 1);
    EXPECT_EQ(body_of(msg), "unasked");
    EXPECT_EQ(consumer->state, 0);
}

TEST_F(Flow, MessageForNobodyLeavesALine)
{
    ASSERT_TRUE(open_consumer());
    arrive([&] {
        peer.send(delivery("x", CONSUMER_ID + 1));
        wire::frame elsewhere = delivery("x");
        elsewhere.sessid++;
        peer.send(elsewhere);
    });
    EXPECT_EQ(consumer->saved, nullptr);
    EXPECT_TRUE(log.has("failed to save the message in consumer buffer"));
}

// What the wait does before it sleeps: it may have been read by another thread since the receive looked.
TEST_F(Flow, SavedMessageIsTakenOnce)
{
    ASSERT_TRUE(open_consumer());
    msg_header *message = new_message(wire::KMQ_DELIVER, "x", 100);
    msg_header *want = new_message(wire::KMQ_GETNEXT);
    message->sessid = want->sessid = SESSION_ID;
    message->prio = want->prio = CONSUMER_ID;
    EXPECT_EQ(_save_in_consumer_buffer(message, block()), 1);
    _thread_mutex_lock(&block()->msg_mutex);
    EXPECT_EQ(take_saved_message(want, block()), message);
    EXPECT_EQ(take_saved_message(want, block()), nullptr);
    want->prio++;
    EXPECT_EQ(take_saved_message(want, block()), nullptr);
    _thread_mutex_unlock(&block()->msg_mutex);
    free(want);
    free(message);
}

TEST_F(Flow, ReceiveIsRefused)
{
    ASSERT_TRUE(open_consumer());
    char *none = nullptr;
    alignas(16) char raw[400] = {};
    char *no_buffer = raw + 200;
    expect_refused(kmq_recvex(nullptr, &msg, 0, 0), TPEINVAL);
    expect_refused(kmq_recvex(consumer, nullptr, 0, 0), TPEINVAL);
    expect_refused(kmq_recvex(consumer, &none, 0, 0), TPEINVAL);
    expect_refused(kmq_recvex(consumer, &msg, -1, 0), TPEINVAL);
    expect_refused(kmq_recvex(consumer, &no_buffer, 0, 0), TPEOTYPE);
    close_by_server();
    expect_refused(kmq_recvex(consumer, &no_buffer, 0, 0), TPECLOSE);
    consumer->session = nullptr;
    expect_refused(kmq_recvex(consumer, &msg, 0, 0), TPESYSTEM);
    EXPECT_EQ(consumer->state, 0);
}

TEST_F(Flow, RefusedReceiveMarksTheTransactionUnlessToldNotTo)
{
    ASSERT_TRUE(open_consumer());
    for (long flags : {0L, (long)TPNOTRAN}) {
        open_transaction();
        peer.play([&] { refuse_next(TPENOENT, 0); });
        EXPECT_EQ(receive(0, flags), -1);
        EXPECT_EQ(gettperrno(), TPENOENT);
        peer.done();
        EXPECT_EQ(tx_state_of(block()), flags == 0 ? TX_STATE_ROLLBACK : TX_STATE_ACTIVE);
        EXPECT_EQ(consumer->state, 0);
        set_tperrno(0);
    }
}

TEST_F(Flow, StaleErrorMakesAGoodReceiveFailWithTheMessageInTheBuffer)
{
    ASSERT_TRUE(open_consumer());
    set_tperrno(TPENOENT);
    peer.play([&] { give("there"); });
    EXPECT_EQ(receive(20), -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
    peer.done();
    EXPECT_EQ(body_of(msg), "there");
    expect_quiet();
}

TEST_F(Flow, SessionClosedByTheServerEndsTheWait)
{
    ASSERT_TRUE(open_consumer());
    peer.play([&] {
        peer.expect(wire::KMQ_GETNEXT);
        peer.send(wire::message(wire::KMQ_SESSION_CLOSE, "", {.flags = 0x1000, .sessid = SESSION_ID}));
    });
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(gettperrno(), TPECLOSE);
    peer.done();
    expect_idle();
}

TEST_F(Flow, LostConnectionEndsTheWait)
{
    ASSERT_TRUE(open_consumer());
    peer.play([&] {
        peer.expect(wire::KMQ_GETNEXT);
        peer.hang_up();
    });
    EXPECT_EQ(receive(), -1);
    EXPECT_NE(gettperrno(), 0);
    peer.done();
    set_tperrno(0);
    EXPECT_EQ(consumer->state, 1);
}

// --- Browsing.

TEST_F(Flow, BrowserAsksForWhatIsBehindTheLastMessage)
{
    ASSERT_TRUE(open_session());
    consumer = make_browser(1);
    new_msg();
    peer.play([&] {
        EXPECT_EQ(peer.expect(wire::KMQ_GETNEXT).flags(0x1800).cd(-1).frame.callid[2], UINT32_MAX);
        peer.send(delivery("first", CONSUMER_ID, 21, 22));
        EXPECT_EQ(peer.expect(wire::KMQ_GETNEXT).flags(0x1800).cd(21).frame.callid[2], 22u);
        peer.send(delivery(std::string(5000, 'l'), CONSUMER_ID, 31, 32));
        EXPECT_EQ(peer.expect(wire::KMQ_GETNEXT).cd(31).frame.callid[2], 32u);
        peer.send(wire::message(GETNEXT_REFUSED, "", {.rcode = TPENOENT}));
    });
    EXPECT_EQ(kmq_browser_nextmsg(consumer, &msg, 0), 1) << gettperrno();
    EXPECT_EQ(body_of(msg), "first");
    EXPECT_EQ(kmq_browser_nextmsg(consumer, &msg, 0), 1);
    EXPECT_EQ(body_of(msg), std::string(5000, 'l'));
    EXPECT_EQ(kmq_browser_nextmsg(consumer, &msg, 0), -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
    peer.done();
    EXPECT_EQ(consumer->last_cd, 31u);
    EXPECT_EQ(consumer->state, 0);
    set_tperrno(0);
    expect_quiet();
}

TEST_F(Flow, BrowserNeverTakesAnOldMessage)
{
    ASSERT_TRUE(open_session());
    consumer = make_browser();
    new_msg();
    arrive([&] { peer.send(delivery("old")); });
    ASSERT_NE(consumer->saved, nullptr);
    peer.play([&] { give("new"); });
    EXPECT_EQ(kmq_browser_nextmsg(consumer, &msg, 0), 1);
    EXPECT_EQ(body_of(msg), "new");
    peer.done();
    EXPECT_EQ(consumer->saved, nullptr);
}

TEST_F(Flow, BrowsingIsRefused)
{
    ASSERT_TRUE(open_session());
    consumer = make_browser();
    new_msg();
    char *none = nullptr;
    alignas(16) char raw[400] = {};
    char *no_buffer = raw + 200;
    expect_refused(kmq_browser_nextmsg(nullptr, &msg, 0), TPEINVAL);
    expect_refused(kmq_browser_nextmsg(consumer, nullptr, 0), TPEINVAL);
    expect_refused(kmq_browser_nextmsg(consumer, &none, 0), TPEINVAL);
    expect_refused(kmq_browser_nextmsg(consumer, &no_buffer, 0), TPEOTYPE);
    close_by_server();
    expect_refused(kmq_browser_nextmsg(consumer, &msg, 0), TPECLOSE);
}

TEST_F(Flow, BrowserThatHearsNothingLosesItsBuffer)
{
    ASSERT_TRUE(open_session());
    consumer = make_browser();
    new_msg();
    peer.play([&] {
        peer.expect(wire::KMQ_GETNEXT);
        peer.hang_up();
    });
    EXPECT_EQ(kmq_browser_nextmsg(consumer, &msg, 0), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    EXPECT_EQ(msg, nullptr);
    peer.done();
    set_tperrno(0);
}

// --- Acknowledging.

TEST_F(Flow, AcknowledgingAndRefusingAsTheyTravel)
{
    ASSERT_TRUE(open_consumer(0, 2));
    peer.play([&] {
        give("x");
        for (uint32_t kind : {0x20u, 0x40u, 0x20u}) {
            wire::frame ack = peer.expect(wire::KMQ_ACK).flags(kind).header_only().cd(9).frame;
            EXPECT_EQ(ack.callid[2], 0xABCD0004u);
            EXPECT_EQ(ack.svcname, "_S");
        }
    });
    EXPECT_EQ(receive(), 1);
    EXPECT_EQ(kmq_ack(msg, 1), 1);
    EXPECT_EQ(kmq_ack(msg, 2), 1);
    EXPECT_EQ(kmq_ack(msg, 0x11), 1);
    peer.done();
}

TEST_F(Flow, AcknowledgingIsRefused)
{
    ASSERT_TRUE(open_consumer(0, 2));
    peer.play([&] { give("x"); });
    EXPECT_EQ(receive(), 1);
    peer.done();
    expect_refused(kmq_ack(nullptr, 1), TPEINVAL);
    for (int flags : {0, 3, 4, 7})
        expect_refused(kmq_ack(msg, flags), TPEINVAL);
    for (uint32_t flags : {0x80u, 0x800u, 0x842u, 0u, 0x400u}) {
        session->flags = flags;
        expect_refused(kmq_ack(msg, 3), TPEPROTO);
    }
    session->flags = 0x40;
    msg_header *header = message_of(msg);
    header->msgtype = wire::KMQ_SEND;
    expect_refused(kmq_ack(msg, 1), TPEITYPE);
    header->msgtype = wire::KMQ_DELIVER;
    header->sessid++;
    expect_refused(kmq_ack(msg, 1), TPESYSTEM);
    header->sessid--;
    close_by_server();
    expect_refused(kmq_ack(msg, 1), TPECLOSE);
    alignas(16) char raw[400] = {};
    expect_refused(kmq_ack(raw + 200, 1), TPEITYPE);
}

TEST_F(Flow, FailedAcknowledgementFailsTheReceive)
{
    ASSERT_TRUE(open_consumer());
    peer.play([&] { give("x"); });
    faults::fail(faults::SEND, 2, EPIPE);
    EXPECT_EQ(receive(), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    peer.done();
    EXPECT_EQ(body_of(msg), "x");
}

// --- Threads.

// One thread waits for a message while another reads for both.
TEST_F(Flow, MessageReadByAnotherThreadReachesTheConsumer)
{
    ASSERT_TRUE(open_session([] { return kmq_create_session("S", 0, 2, 0); }, {}, true));
    consumer = make_consumer();
    new_msg();
    int number = context();
    wthr_var *shared = block();
    peer.play([&] {
        wire::frame request;
        ASSERT_TRUE(peer.receive(&request));  // the call, whose thread reads
        ASSERT_TRUE(gets_a_reader(shared));
        peer.expect(wire::KMQ_GETNEXT);
        peer.send(delivery("for the consumer"));
        peer.reply_to(request, "for the call");
    });
    std::thread other([&] {
        ASSERT_EQ(tpsetctxt(number, 0), 1);
        EXPECT_EQ(call(TPNOTRAN), 1) << gettperrno();
        EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
    });
    EXPECT_TRUE(gets_a_reader(shared));
    EXPECT_EQ(kmq_recvex(consumer, &msg, 20, 0), 1) << gettperrno();
    EXPECT_EQ(body_of(msg), "for the consumer");
    other.join();
    peer.done();
    EXPECT_EQ(consumer->state, 0);
}

// The thread that reads looks for consumers while they come and go.
TEST_F(Flow, ConsumersComeAndGoWhileAnotherThreadReadsTheirMessages)
{
    constexpr int ROUNDS = 40;
    ASSERT_TRUE(open_session([] { return kmq_create_session("S", 0, 2, 0); }, {}, true));
    int number = context();
    wthr_var *shared = block();
    peer.play([&] {
        wire::frame call_request, request;
        ASSERT_TRUE(peer.receive(&call_request));
        for (int left = 4 * ROUNDS; left > 0 && peer.receive(&request); left--) {
            peer.send(delivery("for the earlier", CONSUMER_ID + left % 2));
            identify(peer, request, 0, CONSUMER_ID + left % 2);
            peer.send(delivery("for the new one", CONSUMER_ID + left % 2));
        }
        peer.reply_to(call_request, "");
    });
    std::thread other([&] {
        ASSERT_EQ(tpsetctxt(number, 0), 1);
        EXPECT_EQ(call(TPNOTRAN), 1) << gettperrno();
        EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
    });
    EXPECT_TRUE(gets_a_reader(shared));
    for (int i = 0; i < ROUNDS; i++) {
        kmq_consumer *one = kmq_create_consumer(session, "Q", 0, nullptr, nullptr, nullptr, 0);
        kmq_consumer *two = kmq_create_consumer(session, "Q", 0, nullptr, "x = 1", nullptr, 0);
        EXPECT_EQ(kmq_close_consumer(one, 0), 1) << gettperrno();
        EXPECT_EQ(kmq_close_consumer(two, 0), 1) << gettperrno();
    }
    other.join();
    peer.done();
    EXPECT_EQ(session->consumer_count, 0);
    expect_idle();
}
