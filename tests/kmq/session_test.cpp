// Sessions of the message service: their creating and closing as it travels, the server's notice that it has
// closed one, and what becomes of them at the end of the context's session.
#include "kmq/fixture.h"

#include "vorn/unsol.h"

namespace {

constexpr uint32_t NOTICE = 0x1000;

struct Sessions : KmqTest {
    static wire::frame notice(int32_t sessid, uint32_t flags = NOTICE)
    {
        return wire::message(wire::KMQ_SESSION_CLOSE, "", {.flags = flags, .sessid = sessid});
    }
    kmq_session *open_numbered(int32_t id, const char *name = "S")
    {
        peer.play([&, id] { identify(peer, peer.expect(wire::KMQ_SESSION_OPEN).frame, id, 0); });
        kmq_session *made = kmq_create_session(name, 0, 0, 0);
        peer.done();
        EXPECT_NE(made, nullptr) << gettperrno();
        return made;
    }
    void expect_null(const void *object, int error, where place = where::current())
    {
        EXPECT_EQ(object, nullptr) << place.line;
        EXPECT_EQ(gettperrno(), error) << place.line;
        peer.expect_nothing(place);
    }
    int close_answered(kmq_session *which, const wire::with &answer = {}, wire::frame *request = nullptr)
    {
        peer.play([&] {
            wire::frame came = peer.expect(wire::KMQ_SESSION_CLOSE).frame;
            if (request != nullptr)
                *request = came;
            peer.reply_to(came, "", answer);
        });
        int result = kmq_close_session(which, 0);
        peer.done();
        return result;
    }
    int count(void) const { return block()->kmq_session_count; }

    // The request to open a session has nothing but this in it.
    static void expect_request(const wire::frame &request, int32_t msgtype, const std::string &name,
                               uint32_t flags, int32_t sessid, uint32_t xflags = 0x02000000)
    {
        wire::frame expected;
        expected.msgtype = msgtype;
        expected.svcname = name;
        expected.flags = flags;
        expected.sessid = sessid;
        expected.seqno = request.seqno;
        expected.xflags = xflags;
        EXPECT_EQ(wire::encode(request), wire::encode(expected));
    }
};

}  // namespace

// --- Creating.

TEST_F(Sessions, RequestsAsTheyTravel)
{
    ASSERT_TRUE(start());
    int handler;
    struct {
        std::function<kmq_session *()> create;
        uint32_t flags;
    } rows[] = {{[] { return kmq_create_session("NAME", 0, 0, 9); }, 0},
                {[] { return kmq_create_session("NAME", 0, 1, 9); }, 0x02},
                {[] { return kmq_create_session("NAME", 0, 2, 9); }, 0x40},
                {[] { return kmq_create_session("NAME", 1, 0, 9); }, 0x80},
                {[] { return kmq_create_session("NAME", INT_MAX, 0, 9); }, 0x80},
                {[] { return kmq_create_session("NAME", -1, 0, 9); }, 0},
                {[] { return kmq_create_xa_session("NAME", 9); }, 0x800},
                {[&] { return kmq_create_async_session("NAME", &handler, 9); }, 0x400}};
    int32_t id = 100;
    for (auto &row : rows) {
        SCOPED_TRACE(row.flags);
        wire::frame request;
        peer.play([&] {
            request = peer.expect(wire::KMQ_SESSION_OPEN).frame;
            identify(peer, request, ++id, 7);
        });
        set_tperrno(TPENOENT);
        kmq_session *made = row.create();
        peer.done();
        ASSERT_NE(made, nullptr);
        EXPECT_EQ(gettperrno(), 0);
        // An asynchronous session's request has no room for a trailer.
        expect_request(request, wire::KMQ_SESSION_OPEN, "_NAME", row.flags, 0,
                       row.flags == 0x400 ? 0 : 0x02000000);
        EXPECT_STREQ(made->name, "_NAME");
        EXPECT_EQ(made->id, id);
        EXPECT_EQ(made->flags, row.flags);
        EXPECT_EQ(made->open, 1);
        EXPECT_EQ(made->socket, block()->clhfd);
        EXPECT_EQ(made->producers, nullptr);
        EXPECT_EQ(made->consumers, nullptr);
        EXPECT_EQ(made->producer_count + made->consumer_count, 0);
        EXPECT_EQ(made->handler, row.flags == 0x400 ? &handler : nullptr);
        EXPECT_EQ(_search_sess_by_id(id, block()), made);
        EXPECT_EQ(block()->kmq_sessions->prev, made) << "at the end";
    }
    EXPECT_EQ(count(), 8);
    EXPECT_EQ(_search_sess_by_id(100, block()), nullptr);
}

TEST_F(Sessions, NamesAtTheLimit)
{
    ASSERT_TRUE(start());
    const std::string longest(14, 'n'), over(15, 'n'), far_over(400, 'n');
    for (const char *name : {(const char *)nullptr, "", over.c_str(), far_over.c_str()}) {
        expect_null(kmq_create_session(name, 0, 0, 0), TPEINVAL);
        expect_null(kmq_create_xa_session(name, 0), TPEINVAL);
        expect_null(kmq_create_async_session(name, nullptr, 0), TPEINVAL);
    }
    kmq_session *made = open_numbered(1, longest.c_str());
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(peer.last.svcname, "_" + longest);
    EXPECT_EQ(made->name, "_" + longest);
    EXPECT_EQ(open_numbered(2, "x")->name, std::string("_x"));
    EXPECT_EQ(count(), 2);
}

TEST_F(Sessions, ModesAreCheckedInTheirOrder)
{
    ASSERT_TRUE(start());
    for (int mode : {-1, 3, INT_MAX, INT_MIN}) {
        expect_null(kmq_create_session("S", 0, mode, 0), TPEINVAL);
        expect_null(kmq_create_session("S", 1, mode, 0), TPEINVAL);
    }
    for (int transacted : {1, -1, INT_MAX})
        for (int mode : {1, 2})
            expect_null(kmq_create_session("S", transacted, mode, 0), TPEPROTO);
    expect_null(kmq_create_session(nullptr, 1, 1, 0), TPEINVAL);
    EXPECT_EQ(count(), 0);
}

TEST_F(Sessions, FirstCallStartsTheContextsSession)
{
    peer.play([&] {
        peer.accept_start();
        identify(peer, peer.expect(wire::KMQ_SESSION_OPEN).frame, SESSION_ID, 0);
    });
    session = kmq_create_session("S", 0, 0, 0);
    peer.done();
    ASSERT_NE(session, nullptr) << gettperrno();
    EXPECT_EQ(block()->started, 1);
    EXPECT_EQ(count(), 1);
    expect_usable();
}

TEST_F(Sessions, EveryKindOfSessionStartsTheContexts)
{
    for (bool xa : {true, false}) {
        peer.play([&] {
            peer.accept_start();
            identify(peer, peer.expect(wire::KMQ_SESSION_OPEN).frame, SESSION_ID, 0);
        });
        session = xa ? kmq_create_xa_session("S", 0) : kmq_create_async_session("S", nullptr, 0);
        peer.done();
        ASSERT_NE(session, nullptr) << gettperrno();
        peer.play([&] {
            peer.expect(wire::KMQ_SESSION_CLOSE);
            peer.reply();
            peer.serve_end();
        });
        EXPECT_EQ(tpend(), 1);
        peer.done();
    }
}

TEST_F(Sessions, StartThatFailsIsTold)
{
    peer.stop_listening();
    EXPECT_EQ(kmq_create_session("S", 0, 0, 0), nullptr);
    EXPECT_NE(gettperrno(), 0);
    EXPECT_EQ(kmq_create_session("S", 0, 3, 0), nullptr);
    EXPECT_EQ(gettperrno(), TPEINVAL) << "arguments are looked at before anything is started";
}

TEST_F(Sessions, ServersRefusalTellsTheError)
{
    ASSERT_TRUE(start());
    for (int32_t msgtype : {2500, 3500}) {
        peer.play([&] {
            peer.expect(wire::KMQ_SESSION_OPEN);
            peer.reply("", {.msgtype = msgtype, .flags = TPESECURITY});
        });
        EXPECT_EQ(kmq_create_session("S", 0, 0, 0), nullptr);
        EXPECT_EQ(gettperrno(), TPESECURITY);
        peer.done();
    }
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(block()->kmq_sessions, nullptr);
    expect_usable();
}

TEST_F(Sessions, RequestThatCannotBeSent)
{
    ASSERT_TRUE(start());
    faults::fail(faults::SEND, 1, EPIPE);
    EXPECT_EQ(kmq_create_session("S", 0, 0, 0), nullptr);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    EXPECT_EQ(count(), 0);
}

TEST_F(Sessions, MemoryThatIsShortLeavesNoHalfSession)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        int32_t made = 0;
        wire::frame request;
        while (peer.receive(&request) && request.msgtype != wire::TPCALL)
            identify(peer, request, ++made, 0);
        peer.reply();
    });
    for (int kind = 0; kind < 3; kind++) {
        int failures = 0;
        for (int nth = 1;; nth++) {
            int before = count();
            faults::fail_allocation(nth);
            kmq_session *made = kind == 0   ? kmq_create_session("S", 0, 0, 0)
                                : kind == 1 ? kmq_create_xa_session("S", 0)
                                            : kmq_create_async_session("S", nullptr, 0);
            bool failed = faults::allocation_failed();
            faults::disarm_allocations();
            EXPECT_EQ(count(), before + (made != nullptr));
            EXPECT_EQ(made == nullptr, gettperrno() != 0);
            if (!failed)
                break;
            failures++;
        }
        EXPECT_GE(failures, 3);
    }
    EXPECT_EQ(call(TPNOTRAN), 1);
    peer.done();
    expect_idle();
}

// --- Closing.

TEST_F(Sessions, ClosingAsItTravels)
{
    ASSERT_TRUE(open_session(0, 2));
    wire::frame request;
    EXPECT_EQ(close_answered(session, {}, &request), 1);
    EXPECT_EQ(gettperrno(), 0);
    expect_request(request, wire::KMQ_SESSION_CLOSE, "_S", 0x40, SESSION_ID);
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(block()->kmq_sessions, nullptr);
    expect_idle();
}

TEST_F(Sessions, LeaveTheRingInAnyOrder)
{
    ASSERT_TRUE(start());
    kmq_session *made[4];
    for (int i = 0; i < 4; i++)
        made[i] = open_numbered(i + 1);
    EXPECT_EQ(close_answered(made[2]), 1);
    EXPECT_EQ(block()->kmq_sessions, made[0]);
    EXPECT_EQ(made[1]->next, made[3]);
    EXPECT_EQ(made[3]->prev, made[1]);
    EXPECT_EQ(close_answered(made[0]), 1);
    EXPECT_EQ(block()->kmq_sessions, made[1]);
    EXPECT_EQ(made[3]->next, made[1]);
    EXPECT_EQ(close_answered(made[3]), 1);
    EXPECT_EQ(made[1]->next, made[1]);
    EXPECT_EQ(close_answered(made[1]), 1);
    EXPECT_EQ(block()->kmq_sessions, nullptr);
    EXPECT_EQ(count(), 0);
}

TEST_F(Sessions, ObjectsAreClosedFirst)
{
    ASSERT_TRUE(open_session());
    for (int32_t id : {1, 2})
        ASSERT_NE(make<kmq_producer>(id, [&] { return kmq_create_producer(session, "Q", 0, nullptr, 0); }),
                  nullptr);
    for (int32_t id : {3, 4})
        ASSERT_NE(make_consumer(id), nullptr);
    std::vector<int32_t> closed;
    peer.play([&] {
        for (int i = 0; i < 4; i++) {
            closed.push_back(peer.expect(wire::KMQ_OBJECT_CLOSE).frame.prio);
            peer.reply();
        }
        peer.expect(wire::KMQ_SESSION_CLOSE);
        peer.reply();
    });
    EXPECT_EQ(kmq_close_session(session, 5), 1);
    peer.done();
    EXPECT_EQ(closed, (std::vector<int32_t>{1, 2, 3, 4}));
    EXPECT_EQ(count(), 0);
}

TEST_F(Sessions, ObjectsThatTheServerRefusesToCloseDontStopIt)
{
    ASSERT_TRUE(open_session());
    ASSERT_NE(make_producer(), nullptr);
    ASSERT_NE(make_consumer(), nullptr);
    peer.play([&] {
        for (int i = 0; i < 2; i++) {
            peer.expect(wire::KMQ_OBJECT_CLOSE);
            peer.reply("", {.flags = TPENOENT});
        }
        peer.expect(wire::KMQ_SESSION_CLOSE);
        peer.reply();
    });
    EXPECT_EQ(kmq_close_session(session, 0), 1);
    peer.done();
    EXPECT_EQ(count(), 0);
}

TEST_F(Sessions, RefusedClosingLeavesTheSessionInTheList)
{
    ASSERT_TRUE(open_session());
    EXPECT_EQ(close_answered(session, {.flags = TPESVCFAIL}), -1);
    EXPECT_EQ(gettperrno(), TPESVCFAIL);
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(close_answered(session, {.msgtype = 2501, .flags = 0}), -1);
    EXPECT_EQ(block()->kmq_sessions, session);
    faults::fail_allocation(1);
    EXPECT_EQ(kmq_close_session(session, 0), -1);
    faults::disarm_allocations();
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(close_answered(session), 1);
    EXPECT_EQ(count(), 0);
    expect_refused(kmq_close_session(nullptr, 0), TPEINVAL);
}

TEST_F(Sessions, LostConnectionLeavesTheSessionWithoutItsObjects)
{
    ASSERT_TRUE(open_session());
    ASSERT_NE(make_producer(), nullptr);
    kmq_consumer *lost = make_consumer();
    peer.play([&] {
        peer.expect(wire::KMQ_OBJECT_CLOSE);
        peer.hang_up();
    });
    EXPECT_EQ(kmq_close_session(session, 0), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    peer.done();
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(session->producer_count + session->consumer_count, 0);
    EXPECT_EQ(session->producers, nullptr);
    EXPECT_EQ(session->consumers, nullptr);
    new_msg();
    set_tperrno(0);
    EXPECT_EQ(kmq_recvex(lost, &msg, 0, 0), -1) << "lost from the list, but not from memory";
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    set_tperrno(0);
}

// Its ring is another's: freeing it would leave that one with a record that is gone.
TEST_F(Sessions, OneOfAnotherContextOrClosedBeforeIsRefused)
{
    ASSERT_TRUE(open_session([] { return kmq_create_session("S", 0, 0, 0); }, {}, true));
    int first = context(), second = -1;
    Conn other;
    peer.play([&] {
        peer.accept(&other);
        other.expect(wire::TPSTART);
        other.reply_start();
    });
    ASSERT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
    TPSTART_T *record = (TPSTART_T *)new_buffer("TPSTART");
    record->flags = TPMULTICONTEXTS;
    EXPECT_GE(tpstart(record), 0) << gettperrno();
    tpfree((char *)record);
    peer.done();
    ASSERT_EQ(tpgetctxt(&second, 0), 1);
    ASSERT_NE(second, first);
    EXPECT_EQ(kmq_close_session(session, 0), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    other.expect_nothing();
    ASSERT_EQ(tpsetctxt(first, 0), 1);
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(close_answered(session), 1);
    expect_refused(kmq_close_session(session, 0), TPEINVAL);
}

// --- The server's notice.

TEST_F(Sessions, NoticeDuringAnotherWaitClosesTheSession)
{
    ASSERT_TRUE(open_session());
    kmq_session *other = open_numbered(SESSION_ID + 1);
    arrive([&] { peer.send(notice(SESSION_ID)); });
    EXPECT_EQ(session->open, 0);
    EXPECT_EQ(other->open, 1);
    EXPECT_EQ(count(), 2) << "it stays until the application closes it";
    expect_refused(kmq_recover(session, 0), TPECLOSE);
    EXPECT_EQ(kmq_close_session(session, 0), 1);
    peer.expect_nothing();
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(close_answered(other), 1);
}

TEST_F(Sessions, NoticeEndsTheWaitOnThatSession)
{
    ASSERT_TRUE(open_session(1));
    peer.play([&] {
        peer.expect(508);
        peer.send(notice(SESSION_ID));
    });
    EXPECT_EQ(kmq_commit(session, 0), -1);
    peer.done();
    EXPECT_EQ(session->open, 0);
    EXPECT_NE(gettperrno(), 0);
    expect_idle();
    EXPECT_EQ(kmq_close_session(session, 0), 1);
    expect_usable();
}

TEST_F(Sessions, NoticeEndsTheMakingOfAnObject)
{
    ASSERT_TRUE(open_session());
    peer.play([&] {
        peer.expect(wire::KMQ_OBJECT_OPEN);
        peer.send(notice(SESSION_ID));
    });
    EXPECT_EQ(kmq_create_producer(session, "Q", 0, nullptr, 0), nullptr);
    EXPECT_EQ(gettperrno(), TPECLOSE);
    peer.done();
    EXPECT_EQ(session->producer_count, 0);
    expect_usable();
}

TEST_F(Sessions, NoticeOfAnotherSessionDoesNotEndTheWait)
{
    ASSERT_TRUE(open_session(1));
    kmq_session *other = open_numbered(SESSION_ID + 1);
    peer.play([&] {
        peer.expect(508);
        peer.send(notice(SESSION_ID + 1));
        peer.reply();
    });
    EXPECT_EQ(kmq_commit(session, 0), 1);
    peer.done();
    EXPECT_EQ(session->open, 1);
    EXPECT_EQ(other->open, 0);
}

TEST_F(Sessions, NoticeOfAnUnknownSessionLeavesALine)
{
    ASSERT_TRUE(open_session());
    arrive([&] { peer.send(notice(0x777)); });
    EXPECT_EQ(session->open, 1);
    EXPECT_TRUE(log.has("0209 internal error : invalid session id[0x777]"));
    EXPECT_TRUE(log.has("CSC7100"));
}

TEST_F(Sessions, ClosingMessageWithoutTheMarkIsDropped)
{
    ASSERT_TRUE(open_session());
    arrive([&] { peer.send(notice(SESSION_ID, 0)); });
    EXPECT_EQ(session->open, 1);
    arrive([&] { peer.send(notice(SESSION_ID, ~NOTICE)); });
    EXPECT_EQ(session->open, 1);
    EXPECT_FALSE(log.has("invalid session id"));
}

// Nobody waits: what reads it then has no template to compare with.
TEST_F(Sessions, NoticeThatNobodyWaitsForIsTakenWithTheNextWait)
{
    ASSERT_TRUE(open_session());
    peer.send(notice(SESSION_ID));
    ASSERT_TRUE(wait_for_bytes(block()->clhfd, 136));
    EXPECT_EQ(session->open, 1);
    expect_usable();
    EXPECT_EQ(session->open, 0);
}

TEST_F(Sessions, NoticeReachesTheClosingOfTheSessionItself)
{
    ASSERT_TRUE(open_session());
    peer.play([&] {
        peer.expect(wire::KMQ_SESSION_CLOSE);
        peer.send(notice(SESSION_ID));
    });
    EXPECT_EQ(kmq_close_session(session, 0), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    peer.done();
    EXPECT_EQ(session->open, 0);
    EXPECT_EQ(kmq_close_session(session, 0), 1) << "the second time without a message";
    EXPECT_EQ(count(), 0);
}

TEST_F(Sessions, ObjectsOfASessionThatTheServerClosedGoWithIt)
{
    ASSERT_TRUE(open_session());
    ASSERT_NE(make_producer(), nullptr);
    ASSERT_NE(make_consumer(), nullptr);
    arrive([&] { peer.send(delivery("unread")); });
    close_by_server();
    EXPECT_EQ(kmq_close_session(session, 0), 1);
    peer.expect_nothing();
    EXPECT_EQ(count(), 0);
    arrive([&] { peer.send(delivery("too late")); });
    EXPECT_TRUE(log.has("failed to save the message in consumer buffer"));
}

// --- The end of the context's session.

TEST_F(Sessions, EndClosesThemAll)
{
    ASSERT_TRUE(open_session());
    kmq_session *other = open_numbered(SESSION_ID + 1);
    ASSERT_NE(other, nullptr);
    ASSERT_NE(make_consumer(), nullptr);
    std::vector<int32_t> closed;
    peer.play([&] {
        peer.expect(wire::KMQ_OBJECT_CLOSE);
        peer.reply();
        for (int i = 0; i < 2; i++) {
            closed.push_back(peer.expect(wire::KMQ_SESSION_CLOSE).frame.sessid);
            peer.reply();
        }
        peer.serve_end();
    });
    EXPECT_EQ(tpend(), 1);
    peer.done();
    EXPECT_EQ(closed, (std::vector<int32_t>{SESSION_ID, SESSION_ID + 1}));
    peer.expect_end();
}

TEST_F(Sessions, EndWithSessionsThatCannotBeClosed)
{
    ASSERT_TRUE(open_session());
    ASSERT_NE(open_numbered(SESSION_ID + 1), nullptr);
    ASSERT_NE(make_producer(), nullptr);
    peer.play([&] {
        peer.expect(wire::KMQ_OBJECT_CLOSE);
        peer.reply("", {.flags = TPESVCFAIL});
        for (int i = 0; i < 2; i++) {
            peer.expect(wire::KMQ_SESSION_CLOSE);
            peer.reply("", {.flags = TPESVCFAIL});
        }
        peer.serve_end();
    });
    EXPECT_EQ(tpend(), 1) << gettperrno();
    peer.done();
    ASSERT_TRUE(open_session());
    EXPECT_EQ(count(), 1) << "a new start knows nothing of them";
}

TEST_F(Sessions, EndOverALostConnection)
{
    ASSERT_TRUE(open_session());
    ASSERT_NE(make_producer(), nullptr);
    ASSERT_NE(make_browser(0, "selector"), nullptr);
    arrive([&] { peer.send(delivery("unread")); });
    peer.hang_up();
    tpend();
    SUCCEED() << "nothing leaks, and nothing hangs";
}

TEST_F(Sessions, LostConnectionLeavesThemUntilTheEnd)
{
    ASSERT_TRUE(open_session());
    ASSERT_NE(make_producer(), nullptr);
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.hang_up();
    });
    EXPECT_EQ(call(TPNOTRAN), -1);
    peer.done();
    ASSERT_EQ(block()->started, 0);
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(session->open, 1);
    EXPECT_EQ(kmq_close_session(session, 0), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(tpend(), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    ASSERT_TRUE(open_session());
    EXPECT_EQ(count(), 1);
}

TEST_F(Sessions, ResetDropsThem)
{
    ASSERT_TRUE(open_session());
    ASSERT_NE(open_numbered(SESSION_ID + 1), nullptr);
    ASSERT_NE(make_producer(), nullptr);
    ASSERT_NE(make_consumer(), nullptr);
    EXPECT_EQ(tpreset(), 1);
    ASSERT_TRUE(open_session());
    EXPECT_EQ(count(), 1);
}

TEST_F(Sessions, HooksOfTheConnection)
{
    ASSERT_TRUE(open_session());
    int fd = block()->clhfd;
    EXPECT_EQ(_close_session_by_clhclose(), 1);
    EXPECT_EQ(session->open, 1);
    EXPECT_EQ(_close_session_by_clhstart(fd), 1);
    EXPECT_EQ(block()->clhfd, fd);
}

TEST_F(Sessions, TransactionsMarkIsForXaSessionsOnce)
{
    ASSERT_TRUE(open_xa_session());
    EXPECT_EQ(_tms_check_tx_flag(session, block()), 0);
    open_transaction(TX_STAGE_BEGUN);
    session->flags = KMQ_TRANSACTED;
    EXPECT_EQ(_tms_check_tx_flag(session, block()), 0);
    EXPECT_EQ(stage(), TX_STAGE_BEGUN);
    session->flags = KMQ_XA;
    EXPECT_EQ(_tms_check_tx_flag(session, block()), (int)TPTXSTART);
    EXPECT_EQ(stage(), TX_STAGE_RUNNING);
    EXPECT_EQ(_tms_check_tx_flag(session, block()), 0);
}

// --- Threads.

// One thread reads for both, and hears of closed sessions, while the other makes and closes some.
TEST_F(Sessions, ComeAndGoWhileAnotherThreadReadsNotices)
{
    constexpr int ROUNDS = 40;
    ASSERT_TRUE(open_session([] { return kmq_create_session("S", 0, 2, 0); }, {}, true));
    int number = context();
    wthr_var *shared = block();
    peer.play([&] {
        wire::frame call_request, request;
        ASSERT_TRUE(peer.receive(&call_request));
        for (int left = 2 * ROUNDS; left > 0 && peer.receive(&request); left--) {
            peer.send(notice(SESSION_ID));
            identify(peer, request, SESSION_ID + 1, 0);
            peer.send(notice(SESSION_ID + 2));
        }
        peer.reply_to(call_request, "");
    });
    std::thread other([&] {
        ASSERT_EQ(tpsetctxt(number, 0), 1);
        EXPECT_EQ(call(TPNOTRAN), 1) << gettperrno();
        EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
    });
    EXPECT_TRUE(faults::eventually([=] {
        _thread_mutex_lock(&shared->msg_mutex);
        bool reads = shared->reader_busy != 0;
        _thread_mutex_unlock(&shared->msg_mutex);
        return reads;
    }));
    for (int i = 0; i < ROUNDS; i++) {
        kmq_session *made = kmq_create_session("T", 0, 0, 0);
        ASSERT_NE(made, nullptr) << gettperrno();
        EXPECT_EQ(kmq_close_session(made, 0), 1) << gettperrno();
    }
    other.join();
    peer.done();
    EXPECT_EQ(session->open, 0);
    EXPECT_EQ(count(), 1);
    expect_idle();
}

// Each thread has a session of its own: what one asks of its messages isn't disturbed by the other's making
// and closing of sessions.
TEST_F(Sessions, ComeAndGoWhileAnotherThreadUsesItsOwn)
{
    constexpr int ROUNDS = 40;
    ASSERT_TRUE(open_session([] { return kmq_create_session("S", 0, 2, 0); }, {}, true));
    producer = make_producer();
    new_msg();
    msg_header *header = message_of(msg);
    header->sessid = SESSION_ID;
    header->prio = PRODUCER_ID;
    header->msgtype = wire::KMQ_DELIVER;
    int number = context();
    peer.play([&] {
        wire::frame request;
        for (int left = 2 * ROUNDS; left > 0 && peer.receive(&request);) {
            if (request.msgtype == wire::KMQ_ACK)
                continue;
            identify(peer, request, SESSION_ID + 1 + left % 3, 0);
            left--;
        }
    });
    std::atomic<bool> over{false};
    std::thread other([&] {
        ASSERT_EQ(tpsetctxt(number, 0), 1);
        while (!over) {
            char queue[16];
            int type;
            long length = sizeof queue;
            EXPECT_EQ(kmq_get_property(msg, svc("$Destination"), &type, queue, &length), 1);
            EXPECT_EQ(kmq_ack(msg, 3), -1);
            EXPECT_EQ(gettperrno(), TPEINVAL);
        }
        EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
    });
    for (int i = 0; i < ROUNDS; i++) {
        kmq_session *made = kmq_create_session("T", 0, 0, 0);
        EXPECT_NE(made, nullptr) << gettperrno();
        EXPECT_EQ(kmq_close_session(made, 0), 1) << gettperrno();
    }
    over = true;
    other.join();
    peer.done();
    expect_idle();
}
