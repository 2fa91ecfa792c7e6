// Sessions that are lost in the first call or between calls, and what a call leaves behind for the next one.
#include "calls/fixture.h"

#include <unistd.h>

namespace {

struct FirstCallLost : CallTest {
    int contexts(void)
    {
        int live = 0;
        for (int i = 1; i < _wthr_size; i++)
            live += _ctxt[i].in_use != 0 || _ctxt[i].wthr_var != nullptr;
        return live;
    }

    // The session has gone, its context stands: calls succeed without doing anything.
    void expect_lost(wthr_var *b)
    {
        EXPECT_EQ(contexts(), 1);
        EXPECT_NE(current_row(), _main_wthrp);
        EXPECT_EQ(block(), b);
        EXPECT_EQ(b->started, 0);
        EXPECT_EQ(b->clhfd, -1);
        EXPECT_TRUE(is_unlocked(&b->msg_mutex));
        len = 4711;
        EXPECT_EQ(call(), 1);
        EXPECT_EQ(len, 4711);
        EXPECT_EQ(gettperrno(), 0);
        EXPECT_EQ(acall(), 1);
        EXPECT_TRUE(peer.nobody_knocks());
    }

    // The end clears what the session left, and reports that there was none.
    void expect_cleared_by_the_end(void)
    {
        EXPECT_EQ(tpend(), -1);
        EXPECT_EQ(gettperrno(), TPEPROTO);
        EXPECT_EQ(contexts(), 0);
        EXPECT_EQ(current_row(), _main_wthrp);
    }

    void expect_a_new_session(void)
    {
        peer.play([&] {
            peer.accept_start();
            peer.expect(wire::TPCALL);
            peer.reply("BACK");
            peer.serve_end();
        });
        EXPECT_EQ(call(), 1);
        EXPECT_EQ(reply_data(), "BACK");
        EXPECT_EQ(contexts(), 1);
        EXPECT_EQ(tpend(), 1);
        peer.done();
        EXPECT_EQ(contexts(), 0);
    }
};

}  // namespace

TEST_F(FirstCallLost, CallTellsItAndTheThreadKeepsItsRow)
{
    peer.play([&] {
        peer.accept_start();
        peer.expect(wire::TPCALL);
        peer.hang_up();
    });
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(gettperrno(), TPECLOSE);
    peer.done();
    expect_lost(block());
    expect_cleared_by_the_end();
    expect_a_new_session();
}

TEST_F(FirstCallLost, AsynchronousCallTellsItWhenTheReplyIsFetched)
{
    peer.play([&] {
        peer.accept_start();
        peer.expect(wire::TPACALL);
        peer.hang_up();
    });
    int cd = acall();
    EXPECT_EQ(cd, 1);
    EXPECT_EQ(getrply(&cd), -1);
    EXPECT_EQ(gettperrno(), TPECLOSE);
    peer.done();
    // The call's row outlives the connection.
    EXPECT_EQ(block()->acall_active, 1);
    EXPECT_EQ(getrply(&cd), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    expect_lost(block());
    expect_cleared_by_the_end();
    expect_a_new_session();
}

TEST_F(FirstCallLost, ReceiptThatDoesNotComeTellsItToo)
{
    peer.play([&] {
        peer.accept_start();
        peer.expect(wire::TPACALL).flags(TPBLOCK);
        peer.hang_up();
    });
    EXPECT_EQ(acall(TPBLOCK), -1);
    EXPECT_EQ(gettperrno(), TPECLOSE);
    peer.done();
    EXPECT_EQ(block()->acall_active, 0);
    expect_lost(block());
    expect_cleared_by_the_end();
    expect_a_new_session();
}

TEST_F(FirstCallLost, SessionWithMoreInItIsClearedByTheEnd)
{
    wire::start_reply reply;
    reply.queues = {"Q1", "Q2"};
    reply.nodes = {"NODE1", "NODE2"};
    reply.server_name = "SERVER";
    ASSERT_TRUE(start(reply));
    block()->unsol_mode = 4;
    peer.play([&] {
        wire::frame one = peer.expect(wire::TPACALL).cd(1).frame;
        peer.expect(wire::TPACALL).cd(2);
        wire::frame last = peer.expect(wire::TPCALL).frame;
        peer.send(wire::message(wire::TPPOST, "news"));
        peer.reply_to(one, "stored and never fetched");
        peer.send(wire::message(1025, "for a queue", {.cd = 0}));
        peer.hang_up();
    });
    EXPECT_EQ(acall(), 1);
    EXPECT_EQ(acall(), 2);
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(gettperrno(), TPECLOSE);
    peer.done();
    EXPECT_EQ(block()->unsol_count, 1);
    EXPECT_TRUE(stored(1));
    expect_cleared_by_the_end();
    expect_a_new_session();
}

TEST_F(FirstCallLost, TransactionsTimerEndsWithTheSession)
{
    ASSERT_TRUE(start());
    open_transaction();
    _set_tx_timer(5000, block());
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.hang_up();
    });
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(gettperrno(), TPECLOSE);
    peer.done();
    expect_cleared_by_the_end();
    EXPECT_EQ(alarm(0), 0u);
    expect_a_new_session();
}

// ---- what a call leaves behind

namespace {

void fail_a_call(char *, long, long)
{
    EXPECT_EQ(tpcancel(999), -1);
    EXPECT_EQ(get_tperrno(), TPEBADDESC);
}

}  // namespace

TEST_F(CallTest, SuccessWithAReceiptLeavesNoErrorOfAHandler)
{
    wire::start_reply reply;
    reply.block_time = 30;  // a wait without a limit clears the error each time it looks
    ASSERT_TRUE(start(reply));
    block()->unsol_handler = fail_a_call;
    peer.play([&] {
        wire::frame request = peer.expect(wire::TPACALL).flags(TPBLOCK).frame;
        peer.send(wire::message(wire::TPPOST, "news"));
        peer.reply_to(request, "", {.msgtype = 1028});
        peer.reply_to(request, "HELLO");
    });
    int cd = acall(TPBLOCK);
    EXPECT_EQ(cd, 1);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(reply_data(), "HELLO");
}

TEST_F(CallTest, BufferOfADirectedCallSendsAPlainOneAfterwards)
{
    constexpr uint32_t TO_PROCESS = 0x00100000, TO_GROUP = 0x00400000;
    ASSERT_TRUE(start());
    peer.play([&] {
        wire::frame group = peer.expect(wire::TPACALL).frame;
        EXPECT_EQ(group.xflags & (TO_PROCESS | TO_GROUP), TO_GROUP);
        EXPECT_EQ(group.target, 33);
        wire::frame plain = peer.expect(wire::TPACALL).frame;
        EXPECT_EQ(plain.xflags & (TO_PROCESS | TO_GROUP), 0u);
        EXPECT_EQ(plain.target, 0);
        wire::frame process = peer.expect(wire::TPACALL).frame;
        EXPECT_EQ(process.xflags & (TO_PROCESS | TO_GROUP), TO_PROCESS);
        EXPECT_EQ(process.target, 34);
        wire::frame other_group = peer.expect(wire::TPACALL).frame;
        EXPECT_EQ(other_group.xflags & (TO_PROCESS | TO_GROUP), TO_GROUP);
        wire::frame synchronous = peer.expect(wire::TPCALL).frame;
        EXPECT_EQ(synchronous.xflags & (TO_PROCESS | TO_GROUP), 0u);
        EXPECT_EQ(synchronous.target, 0);
        peer.reply("x");
    });
    EXPECT_EQ(_tpacall2(svc("S"), 33, -1, in, 0, TPSPRCALL), 1);
    EXPECT_EQ(acall(), 2);
    EXPECT_EQ(_tpacall2(svc("S"), 34, 5, in, 0, TPSPRCALL), 3);
    EXPECT_EQ(_tpacall2(svc("S"), 35, -1, in, 0, TPSPRCALL), 4);
    EXPECT_EQ(call(), 1);
    peer.done();
}
