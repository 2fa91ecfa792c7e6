// tpdiscon, and the other ends of a conversation: with its transaction, with its session.
#include "calls/conversation.h"

#include "tx/txapi.h"

#include <limits.h>
#include <signal.h>

namespace {

constexpr int32_t COMMIT_MESSAGE = 32, ROLLBACK_MESSAGE = 33;

struct Discon : ConversationTest {
    void expect_disconnected(int cd)
    {
        peer.expect(wire::TPDISCON).cd(cd);
        EXPECT_FALSE(is_open(cd));
    }
};

}  // namespace

TEST_F(Discon, BareHeaderWithTheDescriptorGoesOutAndNothingIsAwaited)
{
    ASSERT_TRUE(start());
    int seqno = 0;
    for (long side : {TPSENDONLY, TPRECVONLY}) {
        open(side);
        seqno = block()->seqno;
        peer.recording = true;
        peer.received.clear();
        set_tperrno(TPETIME);
        EXPECT_EQ(tpdiscon(CD), 1);
        EXPECT_EQ(get_tperrno(), 0);
        peer.expect(wire::TPDISCON);
        wire::frame awaited;
        awaited.msgtype = wire::TPDISCON;
        awaited.cd = CD;
        awaited.xflags = ROOM_FOR_A_TRAILER;
        EXPECT_EQ(peer.received, wire::encode(awaited));
        EXPECT_EQ(block()->seqno, seqno);
        expect_gone(CD);
        expect_idle();
    }
    expect_silence();
}

TEST_F(Discon, UnknownDescriptorIsRefused)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    for (int cd : {-1, INT_MIN, 0, CD - 8, CD + 1, INT_MAX}) {
        EXPECT_EQ(tpdiscon(cd), -1);
        EXPECT_EQ(get_tperrno(), TPEBADDESC);
    }
    EXPECT_TRUE(is_open(CD));
    expect_silence();
}

TEST_F(Discon, WithoutASessionThereIsNothingToEnd)
{
    EXPECT_EQ(tpdiscon(CD), -1);
    EXPECT_EQ(get_tperrno(), TPEBADDESC);
    EXPECT_TRUE(peer.nobody_knocks());
}

TEST_F(Discon, HeldConversationIsKept)
{
    ASSERT_TRUE(start());
    open_transaction();
    open(TPSENDONLY);
    row(CD)->flags |= CONV_HELD;
    EXPECT_EQ(tpdiscon(CD), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    EXPECT_TRUE(is_open(CD));
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
    expect_silence();
}

TEST_F(Discon, EndsAConversationWithAnEventOrMessagesToo)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    store({turn(CD, "unread"), turn(CD, std::string(5000, 'u')), ending(DONE, CD), ending(8, CD, 3)});
    EXPECT_EQ(tpdiscon(CD), 1);
    expect_disconnected(CD);
    open(TPSENDONLY | TPNOBLOCK);
    EXPECT_EQ(tpdiscon(CD), 1);
    expect_disconnected(CD);
    // What was on its way is dropped.
    store({turn(CD, "late"), ending(8, CD), ending(FAILED, CD)});
    expect_gone(CD);
    expect_silence();
}

TEST_F(Discon, OthersStand)
{
    ASSERT_TRUE(start());
    for (int cd : {8, 16, 24})
        open(TPRECVONLY, cd);
    store({turn(8, "8"), turn(16, "16"), turn(24, "24")});
    EXPECT_EQ(tpdiscon(16), 1);
    expect_disconnected(16);
    EXPECT_EQ(block()->conv_active, 2);
    for (int cd : {24, 8}) {
        EXPECT_EQ(receive(cd), 1);
        EXPECT_EQ(reply_data(), std::to_string(cd));
    }
}

// ---- failures

TEST_F(Discon, FailedSendKeepsTheConversationAndMarksTheTransaction)
{
    ASSERT_TRUE(start());
    const struct {
        int error, tperr;
    } cases[] = {{EPIPE, TPECLOSE}, {EAGAIN, TPEBLOCK}, {EIO, TPEOS}};
    open_transaction();
    open(TPSENDONLY);
    for (const auto &one : cases) {
        open_transaction();
        faults::fail(faults::SEND, 1, one.error);
        EXPECT_EQ(tpdiscon(CD), -1);
        EXPECT_EQ(get_tperrno(), one.tperr);
        EXPECT_TRUE(is_open(CD));
        EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK);
        expect_idle();
    }
    EXPECT_EQ(tpdiscon(CD), 1);
    expect_disconnected(CD);
}

TEST_F(Discon, WithoutMemoryTheConversationStands)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    faults::fail_allocation(1);
    int result = tpdiscon(CD);
    faults::disarm_allocations();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    EXPECT_TRUE(is_open(CD));
    peer.expect_nothing();
    faults::fail_allocation(1);
    result = _vorn_send_discon(CD, block());
    faults::disarm_allocations();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    EXPECT_EQ(_vorn_send_discon(12345, block()), 1);
    peer.expect(wire::TPDISCON).cd(12345).header_only();
    expect_may_send(CD);
}

TEST_F(Discon, ServersEndIsToldAtTheLatestByTheNextCall)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    signal(SIGPIPE, SIG_IGN);  // its handler is looked at elsewhere
    peer.reset_connection();
    EXPECT_TRUE(faults::eventually([&] { return tpdiscon(CD) < 0; }));
    int error = get_tperrno();
    EXPECT_TRUE(error == TPECLOSE || error == TPEOS || error == TPEBADDESC) << error;
}

// ---- transactions

TEST_F(Discon, MarksTheTransactionOfTheConversationOnly)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY, 5);
    open_transaction();
    open(TPSENDONLY | TPNOTRAN, 6);
    open(TPSENDONLY, 7);
    for (int cd : {5, 6}) {
        EXPECT_EQ(tpdiscon(cd), 1);
        expect_disconnected(cd);
        EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE) << cd;
    }
    EXPECT_EQ(tpdiscon(7), 1);
    expect_disconnected(7);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK);
    EXPECT_EQ(connect(TPSENDONLY), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
}

TEST_F(Discon, MakesALaterCommitRollBack)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(tx_begin(), TX_OK);
    open(TPSENDONLY);
    EXPECT_EQ(tpdiscon(CD), 1);
    expect_disconnected(CD);
    peer.play([&] {
        peer.expect(ROLLBACK_MESSAGE).svcname("_tx_rback");
        peer.reply();
    });
    EXPECT_EQ(tx_commit(), TX_ROLLBACK);
    peer.done();
    expect_silence();
}

TEST_F(Discon, FinishedConversationLetsTheTransactionCommit)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(tx_begin(), TX_OK);
    open(TPRECVONLY);
    EXPECT_EQ(receive_meanwhile(CD, ending(DONE, CD)), -1);
    EXPECT_EQ(event, TPEV_SVCSUCC);
    peer.play([&] {
        peer.expect(COMMIT_MESSAGE).svcname("_tx_commit");
        peer.reply();
    });
    EXPECT_EQ(tx_commit(), TX_OK);
    peer.done();
}

TEST_F(Discon, OpenConversationIsDisconnectedByTheCommitThatItRollsBack)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY, 5);
    ASSERT_EQ(tx_begin(), TX_OK);
    open(TPSENDONLY, 6);
    open(TPRECVONLY | TPNOTRAN, 7);
    peer.play([&] {
        peer.expect(wire::TPDISCON).cd(6);
        peer.expect(ROLLBACK_MESSAGE);
        peer.reply();
    });
    EXPECT_EQ(tx_commit(), TX_ROLLBACK);
    peer.done();
    EXPECT_FALSE(is_open(6));
    EXPECT_TRUE(is_open(5));
    EXPECT_TRUE(is_open(7));
    expect_silence();
}

TEST_F(Discon, OpenConversationIsDisconnectedByTheRollback)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(tx_begin(), TX_OK);
    open(TPRECVONLY, 6);
    store({turn(6, "unread")});
    peer.play([&] {
        peer.expect(wire::TPDISCON).cd(6);
        peer.expect(ROLLBACK_MESSAGE);
        peer.reply();
    });
    EXPECT_EQ(tx_rollback(), TX_OK);
    peer.done();
    EXPECT_FALSE(is_open(6));
    EXPECT_EQ(block()->conv_active, 0);
}

// ---- all at once

TEST_F(Discon, SweepOfTheTransactionEndsItsConversations)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY, 5);
    open_transaction();
    open(TPSENDONLY, 6);
    open(TPRECVONLY | TPNOTRAN, 7);
    open(TPRECVONLY, 14);
    _make_tran_convout_cd_invalid(block());
    std::vector<int> ended = {peer.expect(wire::TPDISCON).frame.cd, peer.expect(wire::TPDISCON).frame.cd};
    EXPECT_EQ(ended[0] + ended[1], 20);
    EXPECT_FALSE(is_open(6));
    EXPECT_FALSE(is_open(14));
    EXPECT_TRUE(is_open(5));
    EXPECT_TRUE(is_open(7));
    EXPECT_EQ(block()->conv_active, 2);
    expect_idle();
    expect_silence();
}

TEST_F(Discon, SweepOfAllEndsWhatThisClientOpened)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY, 0);
    open(TPRECVONLY, 1);
    ASSERT_GE(_create_conv_entry(2, TPRECVONLY, block()), 0);
    _make_all_convout_cd_invalid(block());
    peer.expect(wire::TPDISCON).cd(0);
    peer.expect(wire::TPDISCON).cd(1);
    EXPECT_FALSE(is_open(0));
    EXPECT_FALSE(is_open(1));
    EXPECT_TRUE(is_open(2));
    EXPECT_EQ(block()->conv_active, 0);
    expect_idle();
    expect_silence();
}
