// Commit, rollback and recover.
#include "kmq/fixture.h"

namespace {

constexpr int32_t COMMIT = 508, ROLLBACK = 509, RECOVER = 510;

struct Commit : KmqTest {
    struct row {
        const char *name;
        int (*end)(kmq_session *, int);
        int32_t msgtype;
        int transacted;
    };
    static std::vector<row> rows(void)
    {
        return {{"commit", kmq_commit, COMMIT, 1},
                {"rollback", kmq_rollback, ROLLBACK, 1},
                {"recover", kmq_recover, RECOVER, 0}};
    }
    // Each of the three, in a session in which it is allowed.
    void for_each(const std::function<void(const row &)> &work)
    {
        int32_t hidden = 0x1000;
        for (const row &one : rows()) {
            SCOPED_TRACE(one.name);
            ASSERT_TRUE(open_session(one.transacted));
            work(one);
            session->id = hidden++;  // out of the way of the next one's
        }
    }
    kmq_session *open_another(void)
    {
        EXPECT_TRUE(open_session());
        return session;
    }
    int run(const row &one) { return note(one.end(session, 5)); }
};

}  // namespace

TEST_F(Commit, RequestsAsTheyTravel)
{
    for_each([&](const row &one) {
        wire::frame request;
        peer.play([&] {
            request = peer.expect(one.msgtype).frame;
            peer.reply();
        });
        set_tperrno(TPENOENT);
        EXPECT_EQ(run(one), 1);
        peer.done();
        EXPECT_EQ(gettperrno(), 0);
        wire::frame expected;
        expected.msgtype = one.msgtype;
        expected.svcname = "_S";
        expected.flags = one.transacted != 0 ? 0x80 : 0;
        expected.sessid = SESSION_ID;
        expected.seqno = request.seqno;
        expected.xflags = 0x02000000;
        EXPECT_EQ(wire::encode(request), wire::encode(expected));
        expect_idle();
    });
}

TEST_F(Commit, RecoverTellsTheSessionsMode)
{
    ASSERT_TRUE(open_session(0, 2));
    peer.play([&] {
        peer.expect(RECOVER).flags(0x40);
        peer.reply();
    });
    EXPECT_EQ(kmq_recover(session, 0), 1);
    peer.done();
}

TEST_F(Commit, ChecksInTheirOrder)
{
    ASSERT_TRUE(open_session(0, 1));
    for (const row &one : rows())
        expect_refused(one.end(nullptr, 0), TPEINVAL);
    for (uint32_t flags : {0u, 0x02u, 0x40u, 0x400u, 0x800u}) {
        session->flags = flags;
        expect_refused(kmq_commit(session, 0), TPEPROTO);
        expect_refused(kmq_rollback(session, 0), TPEPROTO);
    }
    session->flags = KMQ_TRANSACTED;
    expect_refused(kmq_recover(session, 0), TPEPROTO);
    close_by_server();
    for (uint32_t flags : {0u, 0x80u}) {  // closed comes before the kind
        session->flags = flags;
        for (const row &one : rows())
            expect_refused(one.end(session, 0), TPECLOSE);
    }
}

TEST_F(Commit, ServersRefusalTellsTheError)
{
    for_each([&](const row &one) {
        for (int32_t more : {2000, 3000}) {
            peer.play([&] {
                peer.expect(one.msgtype);
                peer.reply("", {.msgtype = one.msgtype + more, .flags = TPESVCFAIL});
            });
            EXPECT_EQ(run(one), -1);
            EXPECT_EQ(gettperrno(), TPESVCFAIL);
            peer.done();
        }
        expect_idle();
    });
}

TEST_F(Commit, ReplyWithDataIsTaken)
{
    for_each([&](const row &one) {
        peer.play([&] {
            peer.expect(one.msgtype);
            peer.reply(std::string(3000, 'd'), {.buftype = wire::CARRAY});
        });
        EXPECT_EQ(run(one), 1);
        peer.done();
    });
}

TEST_F(Commit, ReplyOfAnotherOfTheThreeIsNotTheOwn)
{
    ASSERT_TRUE(open_session(1));
    peer.play([&] {
        peer.expect(COMMIT);
        peer.send(wire::message(ROLLBACK + wire::REPLY));
        peer.reply();
    });
    EXPECT_EQ(kmq_commit(session, 0), 1) << gettperrno();
    peer.done();
}

TEST_F(Commit, EndsAfterThirtySeconds)
{
    for_each([&](const row &one) {
        peer.play([&] {
            peer.expect(one.msgtype);
            let_time_run_out(31);
        });
        EXPECT_EQ(run(one), -1);
        EXPECT_EQ(gettperrno(), TPETIME);
        peer.done();
        peer.send(wire::message(one.msgtype + wire::REPLY));  // too late: for nobody
        expect_usable();
        EXPECT_EQ(session->open, 1);
        expect_idle();
    });
}

TEST_F(Commit, BlockTimeHasNoPartInIt)
{
    ASSERT_TRUE(open_session([] { return kmq_create_session("S", 1, 0, 0); }, {.block_time = 3}));
    peer.play([&] {
        peer.expect(COMMIT);
        wire::frame request = peer.last;
        for (int i = 0; i < 2; i++) {
            faults::shift_clock(9);
            peer.send(wire::message(1012));  // makes the wait look at the clock
        }
        peer.reply_to(request);
    });
    EXPECT_EQ(kmq_commit(session, 0), 1) << gettperrno();
    peer.done();
}

TEST_F(Commit, LostConnectionIsAWaitWithoutAnAnswer)
{
    ASSERT_TRUE(open_session(1));
    peer.play([&] {
        peer.expect(COMMIT);
        peer.hang_up();
    });
    EXPECT_EQ(kmq_commit(session, 0), -1);
    EXPECT_EQ(gettperrno(), TPETIME) << "whatever the reading found";
    peer.done();
}

TEST_F(Commit, RequestThatCannotBeMadeOrSent)
{
    for (const row &one : rows()) {
        SCOPED_TRACE(one.name);
        ASSERT_TRUE(open_session(one.transacted));
        faults::fail_allocation(1);
        EXPECT_EQ(run(one), -1);
        faults::disarm_allocations();
        EXPECT_EQ(gettperrno(), TPESYSTEM);
        session->id++;
    }
    session->flags = KMQ_TRANSACTED;
    faults::fail(faults::SEND, 1, EPIPE);
    EXPECT_EQ(kmq_commit(session, 0), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
}

TEST_F(Commit, TurnsIntoARollbackWhereItCannotSucceed)
{
    ASSERT_TRUE(open_session(1));
    open_transaction(TX_STAGE_RUNNING, TX_STATE_ROLLBACK);
    peer.play([&] {
        peer.expect(ROLLBACK).svcname("_S").flags(0x80);
        peer.reply();
        peer.expect(ROLLBACK);
        peer.reply("", {.flags = TPESVCFAIL});
    });
    EXPECT_EQ(kmq_commit(session, 0), 1);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(kmq_commit(session, 0), -1);
    EXPECT_EQ(gettperrno(), TPESVCFAIL);
    peer.done();
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK) << "the context's transaction is not the session's";
    expect_idle();
}

TEST_F(Commit, TurnsIntoARollbackInATransactionThatHasRunOutOfTime)
{
    ASSERT_TRUE(open_session(1));
    set_tx_state(block(), TX_STATE_TIMED_OUT);
    peer.play([&] {
        peer.expect(ROLLBACK);
        peer.reply();
    });
    EXPECT_EQ(kmq_commit(session, 0), 1) << gettperrno();
    peer.done();
}

TEST_F(Commit, ChecksComeBeforeTheTurn)
{
    ASSERT_TRUE(open_session(0));
    open_transaction(TX_STAGE_RUNNING, TX_STATE_ROLLBACK);
    expect_refused(kmq_commit(nullptr, 0), TPEINVAL);
    expect_refused(kmq_commit(session, 0), TPEPROTO);
}

TEST_F(Commit, OpenTransactionOfTheContextIsNotTouched)
{
    ASSERT_TRUE(open_session(1));
    open_transaction(TX_STAGE_BEGUN);
    peer.play([&] {
        peer.expect(COMMIT).flags(0x80);
        peer.reply("", {.flags = TPESVCFAIL});
        peer.expect(ROLLBACK).flags(0x80);
        peer.reply();
    });
    EXPECT_EQ(kmq_commit(session, 0), -1);
    EXPECT_EQ(kmq_rollback(session, 0), 1);
    peer.done();
    EXPECT_EQ(stage(), TX_STAGE_BEGUN);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
}

TEST_F(Commit, AfterAFailedSendRollsBackAndSucceeds)
{
    ASSERT_TRUE(open_session(1));
    producer = make_producer();
    new_msg();
    open_transaction();
    peer.play([&] {
        peer.expect(wire::KMQ_SEND);
        peer.reply("", {.flags = TPEQFULL});
        peer.expect(ROLLBACK);
        peer.reply();
    });
    EXPECT_EQ(kmq_sendex(producer, msg, 0, 0, 0, 0), -1);
    EXPECT_EQ(gettperrno(), TPEQFULL);
    EXPECT_EQ(kmq_commit(session, 0), 1);
    peer.done();
}

TEST_F(Commit, NoticeForTheSessionEndsTheWait)
{
    for_each([&](const row &one) {
        peer.play([&] {
            peer.expect(one.msgtype);
            peer.send(wire::message(wire::KMQ_SESSION_CLOSE, "", {.flags = 0x1000, .sessid = SESSION_ID}));
        });
        EXPECT_EQ(run(one), -1);
        EXPECT_EQ(gettperrno(), TPETIME) << "whatever the reading found";
        peer.done();
        EXPECT_EQ(session->open, 0);
        expect_refused(one.end(session, 0), TPECLOSE);
        EXPECT_EQ(kmq_close_session(session, 0), 1);
        session = block()->kmq_sessions;
        if (session == nullptr)
            session = open_another();
    });
}
