// tprecv: every message of a conversation, awaited and stored, and what it does to the conversation.
#include "calls/conversation.h"

#include <limits.h>

namespace {

struct ConversationReceive : ConversationTest {
    // A receive that fails before it looks for a message.
    void expect_refused(int cd, long flags, int error)
    {
        EXPECT_EQ(receive(cd, flags), -1) << error;
        EXPECT_EQ(get_tperrno(), error);
        EXPECT_EQ(event, 0) << error;
        EXPECT_EQ(len, -1) << error;
        peer.expect_nothing();
    }

    // Takes an end as awaited or stored.
    void expect_end(int result, long awaited_event, int urcode)
    {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(get_tperrno(), TPEEVENT);
        EXPECT_EQ(event, awaited_event);
        EXPECT_EQ(gettpurcode(), urcode);
        expect_gone(CD);
        expect_idle();
    }

    int receive_either_way(bool awaited, const wire::frame &message, long flags = 0)
    {
        if (awaited)
            return receive_meanwhile(CD, message, flags);
        store({message});
        return receive(CD, flags);
    }

    void mark_time_out(void) { set_tx_state(block(), TX_STATE_TIMED_OUT); }
};

// The same for a message that is awaited (true) and one that is stored.
struct ConversationReceiveEitherWay : ConversationReceive, testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(, ConversationReceiveEitherWay, testing::Bool(),
                         [](const testing::TestParamInfo<bool> &one) {
                             return one.param ? "Awaited" : "Stored";
                         });

}  // namespace

// ---- what is refused, in order

TEST_F(ConversationReceive, UnknownDescriptorComesFirst)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    for (int cd : {-1, INT_MIN, 0, CD + 1, CD + 8, INT_MAX}) {
        expect_refused(cd, TPGETANY, TPEBADDESC);
        EXPECT_EQ(tprecv(cd, nullptr, nullptr, 0, &event), -1);
        EXPECT_EQ(get_tperrno(), TPEBADDESC);
    }
}

TEST_F(ConversationReceive, ArgumentsComeSecond)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    for (int bit = 0; bit < 64; bit++) {
        long flag = (long)(1UL << bit);
        if ((flag & 0x123) == 0)
            expect_refused(CD, flag, TPEINVAL);
    }
    event = -1;
    EXPECT_EQ(tprecv(CD, &out, nullptr, 0, &event), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(event, 0);
    EXPECT_EQ(tprecv(CD, &out, &len, 0, nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    char *none = nullptr;
    EXPECT_EQ(tprecv(CD, &none, &len, 0, &event), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(tprecv(CD, nullptr, &len, 0, &event), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_TRUE(is_open(CD));
}

TEST_F(ConversationReceive, RightComesThirdAndTheBufferFourth)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    store({turn(CD, "kept")});
    message_of(out)->magic = 0;
    expect_refused(CD, 0, TPEPROTO);
    EXPECT_EQ(send(CD, TPRECVONLY), 1);
    peer.expect(wire::TPSEND);
    expect_refused(CD, 0, TPEOTYPE);
    message_of(out)->magic = MESSAGE_MAGIC;
    EXPECT_EQ(receive(CD), 1);
    EXPECT_EQ(reply_data(), "kept");
}

TEST_F(ConversationReceive, RightIsLookedAtBeforeTheEnd)
{
    ASSERT_TRUE(start());
    open_transaction();
    open(TPSENDONLY);
    store({ending(8, CD)});
    expect_refused(CD, 0, TPEPROTO);
    EXPECT_TRUE(is_open(CD));
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
    EXPECT_EQ(send(CD), -1);
    EXPECT_EQ(event, TPEV_DISCONIMM);
}

// ---- each message

TEST_P(ConversationReceiveEitherWay, DataWithoutAnEvent)
{
    ASSERT_TRUE(start());
    open_transaction();
    open(TPRECVONLY);
    set_tpurcode(5);
    set_tperrno(TPETIME);
    EXPECT_EQ(receive_either_way(GetParam(), wire::message(wire::TPSEND, "data", {.rcode = 6, .cd = CD})), 1);
    EXPECT_EQ(reply_data(), "data");
    EXPECT_EQ(event, 0);
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_EQ(gettpurcode(), GetParam() ? 5 : 0);  // the call that stored it set its own
    EXPECT_EQ(row(CD)->event, 0u);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
    expect_may_not_send(CD);
    expect_idle();
}

TEST_P(ConversationReceiveEitherWay, RightToSend)
{
    ASSERT_TRUE(start());
    open_transaction();
    open(TPRECVONLY);
    EXPECT_EQ(receive_either_way(GetParam(), hand_over(CD, "yours")), -1);
    EXPECT_EQ(get_tperrno(), TPEEVENT);
    EXPECT_EQ(event, TPEV_SENDONLY);
    EXPECT_EQ(reply_data(), "yours");
    EXPECT_EQ(row(CD)->flags, CONV_OUT | TPSENDONLY | TPTRAN);
    EXPECT_EQ(row(CD)->event, 0u);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
    EXPECT_EQ(receive(CD), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    expect_may_send(CD);
}

TEST_P(ConversationReceiveEitherWay, OtherFlagsOfAMessageMeanNothing)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    EXPECT_EQ(receive_either_way(GetParam(), turn(CD, "", 0xffffffff & ~0x1000u)), 1);
    EXPECT_EQ(event, 0);
    EXPECT_EQ(len, 0);
    expect_may_not_send(CD);
}

TEST_P(ConversationReceiveEitherWay, ServicesEnd)
{
    ASSERT_TRUE(start());
    open_transaction();
    open(TPRECVONLY);
    int result = receive_either_way(GetParam(), ending(DONE, CD, -77, 0, "result"));
    EXPECT_EQ(reply_data(), "result");
    expect_end(result, TPEV_SVCSUCC, -77);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
    expect_silence();
}

TEST_P(ConversationReceiveEitherWay, ServicesFailureBringsItsEvent)
{
    ASSERT_TRUE(start());
    for (uint32_t kind : {1u, 2u, 4u, 0x24u, 0x40u, 0x80000000u}) {
        open(TPRECVONLY);
        open_transaction();
        row(CD)->flags |= TPTRAN;
        int result = receive_either_way(GetParam(), ending(FAILED, CD, 12, kind, "why"));
        EXPECT_EQ(reply_data(), "why");
        EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK);
        expect_end(result, (long)kind, 12);
        block()->txinfo->tx_stage = TX_STAGE_NONE;
    }
    expect_silence();
}

TEST_P(ConversationReceiveEitherWay, FailureWithoutAnEventIsData)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    EXPECT_EQ(receive_either_way(GetParam(), ending(FAILED, CD, 12, 0, "so what")), 1);
    EXPECT_EQ(event, 0);
    EXPECT_EQ(reply_data(), "so what");
    EXPECT_EQ(gettpurcode(), 12);
    EXPECT_TRUE(is_open(CD));
    EXPECT_EQ(receive_meanwhile(CD, turn(CD, "goes on")), 1);
}

TEST_P(ConversationReceiveEitherWay, FailureThatCallsItselfSomethingElseIsAnEventOfThisName)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    // Neither an end nor the right: it is told, and the conversation stands.
    EXPECT_EQ(receive_either_way(GetParam(), ending(FAILED, CD, 12, 0x20)), -1);
    EXPECT_EQ(get_tperrno(), TPEEVENT);
    EXPECT_EQ(event, TPEV_SENDONLY);
    expect_may_not_send(CD);
    EXPECT_EQ(receive_either_way(GetParam(), ending(FAILED, CD, 12, 8)), -1);
    EXPECT_EQ(get_tperrno(), TPEEVENT);
    EXPECT_EQ(event, TPEV_SVCSUCC);
    EXPECT_EQ(gettpurcode(), 12);
    EXPECT_TRUE(is_open(CD));
}

TEST_P(ConversationReceiveEitherWay, Disconnection)
{
    ASSERT_TRUE(start());
    for (int32_t type : {(int32_t)wire::TPDISCON, NOT_CONNECTED}) {
        open(TPRECVONLY);
        open_transaction();
        row(CD)->flags |= TPTRAN;
        int result = receive_either_way(GetParam(), ending(type, CD, 31, 0x1000, "gone"));
        EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK);
        if (GetParam())
            EXPECT_EQ(reply_data(), "gone");
        else
            EXPECT_EQ(len, -1);  // what came with it is lost
        expect_end(result, TPEV_DISCONIMM, 31);
        block()->txinfo->tx_stage = TX_STAGE_NONE;
    }
    expect_silence();
}

TEST_P(ConversationReceiveEitherWay, EndsOfConversationsOutsideLeaveTheTransaction)
{
    ASSERT_TRUE(start());
    open_transaction();
    for (int32_t type : {(int32_t)wire::TPDISCON, NOT_CONNECTED, FAILED}) {
        open(TPRECVONLY | TPNOTRAN);
        EXPECT_EQ(receive_either_way(GetParam(), ending(type, CD, 31, 4)), -1);
        EXPECT_EQ(get_tperrno(), TPEEVENT);
        EXPECT_FALSE(is_open(CD));
        EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
    }
}

TEST_F(ConversationReceive, ErrorReplyOfAReceiveIsNoneOfItsMessages)
{
    ASSERT_TRUE(start());
    open_transaction();
    open(TPRECVONLY);
    for (uint32_t flags : {0u, 1u, (uint32_t)TPESVCFAIL}) {
        EXPECT_EQ(receive_meanwhile(CD, ending(REFUSED, CD, 31, flags, "odd")), -1);
        EXPECT_EQ(get_tperrno(), TPESYSTEM);
        EXPECT_EQ(event, 0);
        EXPECT_TRUE(is_open(CD));
    }
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
    EXPECT_EQ(receive_meanwhile(CD, turn(CD, "goes on")), 1);
    EXPECT_EQ(reply_data(), "goes on");
}

TEST_F(ConversationReceive, StoredErrorReplyIsADisconnection)
{
    ASSERT_TRUE(start());
    open_transaction();
    open(TPRECVONLY);
    store({ending(REFUSED, CD, 31, TPESVCFAIL, "odd")});
    expect_end(receive(CD), TPEV_DISCONIMM, 31);
    EXPECT_EQ(len, -1);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK);
}

// ---- several messages

TEST_F(ConversationReceive, StoredDataComesBeforeTheDisconnectionBehindIt)
{
    ASSERT_TRUE(start());
    for (int32_t type : {(int32_t)wire::TPDISCON, NOT_CONNECTED, REFUSED}) {
        open(TPRECVONLY);
        store({turn(CD, "first"), turn(CD, "second"), ending(type, CD, 9)});
        EXPECT_EQ(receive(CD), 1);
        EXPECT_EQ(event, 0);
        EXPECT_EQ(reply_data(), "first");
        EXPECT_EQ(receive(CD), 1);
        EXPECT_EQ(reply_data(), "second");
        expect_end(receive(CD), TPEV_DISCONIMM, 9);
    }
}

TEST_F(ConversationReceive, StoredRightComesBeforeTheDisconnectionBehindIt)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    store({hand_over(CD, "yours"), ending(8, CD, 9)});
    EXPECT_EQ(receive(CD), -1);
    EXPECT_EQ(event, TPEV_SENDONLY);
    EXPECT_EQ(send(CD), -1);
    EXPECT_EQ(get_tperrno(), TPEEVENT);
    EXPECT_EQ(event, TPEV_DISCONIMM);
    expect_gone(CD);
    expect_silence();
}

TEST_F(ConversationReceive, StoredDataComesBeforeTheEndBehindIt)
{
    ASSERT_TRUE(start());
    for (int32_t type : {DONE, FAILED}) {
        open(TPRECVONLY);
        store({turn(CD, "first"), ending(type, CD, 9, type == DONE ? 0 : TPEV_SVCFAIL, "last")});
        EXPECT_EQ(receive(CD), 1);
        EXPECT_EQ(event, 0);
        EXPECT_EQ(reply_data(), "first");
        int result = receive(CD);
        EXPECT_EQ(reply_data(), "last");
        expect_end(result, type == DONE ? TPEV_SVCSUCC : TPEV_SVCFAIL, 9);
    }
}

TEST_F(ConversationReceive, StoredDataComesBeforeWhatArrivesLater)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    store({turn(CD, "stored")});
    peer.send(turn(CD, "on its way"));
    EXPECT_EQ(receive(CD), 1);
    EXPECT_EQ(reply_data(), "stored");
    EXPECT_EQ(receive(CD), 1);
    EXPECT_EQ(reply_data(), "on its way");
}

TEST_F(ConversationReceive, OthersMessagesAreKeptForThem)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY, 5);
    open(TPRECVONLY, 13);
    peer.play([&] {
        peer.expect(wire::TPACALL);
        wire::frame request = peer.last;
        peer.send(turn(13, "for thirteen"));
        peer.reply_to(request, "ANSWER");
        peer.send(ending(8, 13, 2));
        peer.send(turn(99, "for nobody"));
        peer.send(ending(DONE, 99));
        peer.send(turn(-13, "for nobody"));
        peer.send(turn(5, "for five"));
    });
    int cd = acall();
    EXPECT_EQ(receive(5), 1);
    EXPECT_EQ(reply_data(), "for five");
    EXPECT_EQ(receive(13), 1);
    EXPECT_EQ(reply_data(), "for thirteen");
    EXPECT_EQ(receive(13), -1);
    EXPECT_EQ(event, TPEV_DISCONIMM);
    EXPECT_EQ(gettpurcode(), 2);
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), "ANSWER");
    EXPECT_TRUE(is_open(5));
}

TEST_F(ConversationReceive, MessageOfALaterConversationIsNotTheEarlierOnes)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY, 5);
    store({turn(5, "old"), ending(8, 5, 3)});
    EXPECT_EQ(tpdiscon(5), 1);
    peer.expect(wire::TPDISCON);
    open(TPRECVONLY, 5);
    EXPECT_EQ(receive_meanwhile(5, turn(5, "new")), 1);
    EXPECT_EQ(reply_data(), "new");
}

// ---- buffers

TEST_P(ConversationReceiveEitherWay, LargerMessageReplacesTheBuffer)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    for (size_t size : {(size_t)1024, (size_t)1025, (size_t)4095, (size_t)4096, (size_t)70000}) {
        char *before = out;
        EXPECT_EQ(receive_either_way(GetParam(), turn(CD, std::string(size, 'b'))), 1);
        EXPECT_EQ(reply_data(), std::string(size, 'b'));
        EXPECT_EQ(tpgetasize(out), (long)size);
        EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
        EXPECT_EQ(out == before, GetParam() && size == 1024);
        memset(out, 'x', size);
    }
    out = tprealloc(out, 100000);
    EXPECT_NE(out, nullptr);
}

TEST_P(ConversationReceiveEitherWay, SmallerMessageNeverShrinksIt)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    for (const std::string &text : {std::string("small"), std::string(), std::string(1023, 's')}) {
        EXPECT_EQ(receive_either_way(GetParam(), turn(CD, text)), 1);
        EXPECT_EQ(reply_data(), text);
        EXPECT_EQ(tpgetasize(out), 1024);
        memset(out, 'x', 1024);
    }
}

TEST_P(ConversationReceiveEitherWay, LongEndArrivesWhole)
{
    ASSERT_TRUE(start());
    for (int32_t type : {DONE, FAILED}) {
        open(TPRECVONLY);
        EXPECT_EQ(receive_either_way(GetParam(), ending(type, CD, 0, TPEV_SVCFAIL, std::string(9000, 'e'))),
                  -1);
        EXPECT_EQ(get_tperrno(), TPEEVENT);
        EXPECT_EQ(reply_data(), std::string(9000, 'e'));
        EXPECT_FALSE(is_open(CD));
    }
}

TEST_P(ConversationReceiveEitherWay, TypeMayChangeUnlessItMayNot)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    wire::frame other = wire::message(wire::TPSEND, "bytes", {.buftype = wire::CARRAY, .cd = CD});
    EXPECT_EQ(receive_either_way(GetParam(), turn(CD, "text"), TPNOCHANGE), 1);
    EXPECT_EQ(receive_either_way(GetParam(), other), 1);
    EXPECT_EQ(message_of(out)->buftype, BUF_CARRAY);
    EXPECT_EQ(receive_either_way(GetParam(), turn(CD, "text"), TPNOCHANGE), -1);
    EXPECT_EQ(get_tperrno(), TPEOTYPE);
    EXPECT_EQ(event, 0);
    EXPECT_EQ(message_of(out)->buftype, BUF_CARRAY);
    other.subtype = "kind";
    EXPECT_EQ(receive_either_way(GetParam(), other, TPNOCHANGE), -1);
    EXPECT_EQ(get_tperrno(), TPEOTYPE);
    EXPECT_TRUE(is_open(CD));
    // The refused ones are lost.
    EXPECT_EQ(receive(CD, TPNOBLOCK), -1);
    EXPECT_EQ(get_tperrno(), TPEBLOCK);
    expect_idle();
}

TEST_P(ConversationReceiveEitherWay, RefusedTypeMarksTheTransactionOnlyIfItWasAwaited)
{
    ASSERT_TRUE(start());
    open_transaction();
    open(TPRECVONLY);
    wire::frame other =
        wire::message(wire::TPSEND, "bytes", {.flags = TPRECVONLY, .buftype = wire::CARRAY, .cd = CD});
    EXPECT_EQ(receive_either_way(GetParam(), other, TPNOCHANGE), -1);
    EXPECT_EQ(get_tperrno(), TPEOTYPE);
    EXPECT_EQ(tx_state_of(block()), GetParam() ? TX_STATE_ROLLBACK : TX_STATE_ACTIVE);
    expect_may_not_send(CD);
}

TEST_F(ConversationReceive, CompressedMessageIsUnpacked)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    peer.send_compressed(turn(CD, std::string(9000, 'c')));
    EXPECT_EQ(receive(CD), 1);
    EXPECT_EQ(reply_data(), std::string(9000, 'c'));
}

// ---- time

TEST_F(ConversationReceive, BlockTimeEndsTheWaitAndTheConversationStands)
{
    ASSERT_TRUE(start({.block_time = 10}));
    open(TPRECVONLY);
    peer.play([&] { let_time_run_out(11); });
    EXPECT_EQ(receive(CD), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    EXPECT_EQ(event, 0);
    EXPECT_EQ(len, -1);
    peer.done();
    EXPECT_TRUE(is_open(CD));
    store({turn(CD, "late")});
    EXPECT_EQ(receive(CD), 1);
    EXPECT_EQ(reply_data(), "late");
    expect_silence();
}

TEST_F(ConversationReceive, WithoutALimitTheClockDoesNotCount)
{
    ASSERT_TRUE(start({.block_time = 10}));
    open(TPRECVONLY);
    auto patient = [&](long flags) {
        peer.play([&] {
            faults::shift_clock(100000);
            peer.send(wire::message(1012));
            peer.send(turn(CD, "at last"));
        });
        EXPECT_EQ(receive(CD, flags), 1);
        EXPECT_EQ(reply_data(), "at last");
        peer.done();
    };
    patient(TPNOTIME);
    open_transaction();
    patient(0);
}

TEST_F(ConversationReceive, NoBlockTakesWhatIsThere)
{
    ASSERT_TRUE(start({.block_time = 10}));
    open(TPRECVONLY);
    for (long flags : {TPNOBLOCK, TPNOBLOCK | TPNOTIME, TPNOBLOCK | TPSIGRSTRT | TPNOCHANGE}) {
        EXPECT_EQ(receive(CD, flags), -1);
        EXPECT_EQ(get_tperrno(), TPEBLOCK);
        EXPECT_EQ(event, 0);
        peer.send(turn(CD, "there"));
        ASSERT_TRUE(wait_for_bytes(block()->clhfd, 136));
        EXPECT_EQ(receive(CD, flags), 1);
        EXPECT_EQ(reply_data(), "there");
    }
    EXPECT_TRUE(is_open(CD));
    expect_idle();
}

TEST_F(ConversationReceive, NoBlockInATransactionMarksIt)
{
    ASSERT_TRUE(start());
    open_transaction();
    open(TPRECVONLY, 5);
    open(TPRECVONLY | TPNOTRAN, 6);
    EXPECT_EQ(receive(6, TPNOBLOCK), -1);
    EXPECT_EQ(get_tperrno(), TPEBLOCK);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
    EXPECT_EQ(receive(5, TPNOBLOCK), -1);
    EXPECT_EQ(get_tperrno(), TPEBLOCK);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK);
    EXPECT_TRUE(is_open(5));
}

TEST_F(ConversationReceive, TimeOutMarksTheTransactionOfTheConversation)
{
    ASSERT_TRUE(start());
    open_transaction();
    open(TPRECVONLY);
    faults::before(faults::RECV, 1, [&] { mark_time_out(); });
    peer.play([&] { peer.send(wire::message(1012)); });
    EXPECT_EQ(receive(CD), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK);
    EXPECT_TRUE(is_open(CD));
    expect_idle();
}

TEST_P(ConversationReceiveEitherWay, MessageBehindTheTransactionsTimeEndsTheConversation)
{
    ASSERT_TRUE(start());
    for (uint32_t flags : {0u, (uint32_t)TPRECVONLY}) {
        open_transaction();
        open(TPRECVONLY);
        if (GetParam()) {
            faults::before(faults::RECV, 1, [&] { mark_time_out(); });
            peer.send(turn(CD, "late", flags));
        } else {
            store({turn(CD, "late", flags)});
            mark_time_out();
        }
        EXPECT_EQ(receive(CD), -1);
        EXPECT_EQ(get_tperrno(), TPETIME);
        EXPECT_EQ(event, flags != 0 ? TPEV_SENDONLY : 0);
        EXPECT_EQ(reply_data(), "late");
        EXPECT_EQ(tx_state_of(block()), TX_STATE_TIMED_OUT);
        expect_gone(CD);
        block()->txinfo->tx_stage = TX_STAGE_NONE;
    }
    expect_silence();
}

TEST_P(ConversationReceiveEitherWay, EventIsToldBeforeTheTransactionsTime)
{
    ASSERT_TRUE(start());
    const struct {
        int32_t type;
        long event;
        int state;
    } cases[] = {{DONE, TPEV_SVCSUCC, TX_STATE_TIMED_OUT},
                 {FAILED, TPEV_SVCERR, TX_STATE_ROLLBACK},
                 {wire::TPDISCON, TPEV_DISCONIMM, TX_STATE_ROLLBACK}};
    for (const auto &one : cases) {
        open_transaction();
        open(TPRECVONLY);
        wire::frame message = ending(one.type, CD, 21, TPEV_SVCERR);
        if (GetParam()) {
            faults::before(faults::RECV, 1, [&] { mark_time_out(); });
            peer.send(message);
        } else {
            store({message});
            mark_time_out();
        }
        EXPECT_EQ(receive(CD), -1);
        EXPECT_EQ(tx_state_of(block()), one.state);
        block()->txinfo->tx_stage = TX_STAGE_NONE;
        EXPECT_EQ(get_tperrno(), TPEEVENT);
        EXPECT_EQ(event, one.event);
        EXPECT_EQ(gettpurcode(), 21);
        expect_gone(CD);
    }
}

TEST_P(ConversationReceiveEitherWay, ConversationOutsideOutlivesTheTransactionsTime)
{
    ASSERT_TRUE(start());
    open_transaction();
    open(TPRECVONLY | TPNOTRAN);
    if (GetParam()) {
        faults::before(faults::RECV, 1, [&] { mark_time_out(); });
        peer.send(turn(CD, "still"));
    } else {
        store({turn(CD, "still")});
        mark_time_out();
    }
    EXPECT_EQ(receive(CD), 1);
    EXPECT_EQ(reply_data(), "still");
    EXPECT_TRUE(is_open(CD));
}

// ---- what fails

TEST_F(ConversationReceive, ServersEndIsTold)
{
    ASSERT_TRUE(start());
    open_transaction();
    open(TPRECVONLY, 5);
    open(TPRECVONLY | TPNOTRAN, 6);
    peer.play([&] { peer.hang_up(); });
    EXPECT_EQ(receive(6), -1);
    EXPECT_EQ(get_tperrno(), TPECLOSE);
    EXPECT_EQ(event, 0);
    EXPECT_EQ(len, -1);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
    EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
    EXPECT_EQ(receive(5), -1);
    EXPECT_NE(get_tperrno(), 0);
    EXPECT_EQ(send(5), -1);
    EXPECT_EQ(tpdiscon(5), -1);
    EXPECT_TRUE(peer.nobody_knocks());
}

TEST_F(ConversationReceive, ServersEndMarksTheTransactionOfTheConversation)
{
    ASSERT_TRUE(start());
    open_transaction();
    open(TPRECVONLY);
    peer.play([&] { peer.reset_connection(); });
    EXPECT_EQ(receive(CD), -1);
    int error = get_tperrno();
    EXPECT_TRUE(error == TPECLOSE || error == TPEOS) << error;
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK);
}

TEST_F(ConversationReceive, StoredMessagesOutliveTheConnection)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    store({turn(CD, "saved"), ending(8, CD, 4)});
    peer.hang_up();
    EXPECT_EQ(receive(CD), 1);
    EXPECT_EQ(reply_data(), "saved");
    EXPECT_EQ(receive(CD), -1);
    EXPECT_EQ(event, TPEV_DISCONIMM);
    EXPECT_EQ(gettpurcode(), 4);
}

TEST_F(ConversationReceive, MessageCutShortIsNone)
{
    ASSERT_TRUE(start({.block_time = 10}));
    open(TPRECVONLY);
    peer.play([&] {
        std::string bytes = wire::encode(turn(CD, "cut short"));
        peer.send_raw(bytes.substr(0, bytes.size() - 1));
        peer.hang_up();
    });
    EXPECT_EQ(receive(CD), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_EQ(event, 0);
    peer.done();
}

TEST_P(ConversationReceiveEitherWay, MemoryThatRunsOutIsTold)
{
    ASSERT_TRUE(start({.block_time = 1000}));
    open_transaction();
    for (uint32_t flags : {0u, (uint32_t)TPRECVONLY}) {
        for (int nth = 1;; nth++) {
            ASSERT_LT(nth, 30);
            SCOPED_TRACE(nth);
            open(TPRECVONLY);
            tpfree(out);
            out = new_buffer("STRING");
            if (GetParam())
                peer.send(turn(CD, std::string(3000, 'm'), flags));
            else
                store({turn(CD, "m", flags)});
            faults::fail_allocation(nth);
            int result = receive(CD);
            bool failed = faults::allocation_failed();
            faults::disarm_allocations();
            expect_idle();
            EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
            EXPECT_TRUE(is_open(CD));
            int error = get_tperrno();
            if (failed && result < 0 && error != TPEEVENT) {
                EXPECT_TRUE(error == TPESYSTEM || error == TPEOS) << error;
                EXPECT_EQ(event, 0);
                peer.hang_up();  // the rest of the message is lost
                tpend();
                ASSERT_TRUE(start({.block_time = 1000}));
                open_transaction();
                continue;
            }
            EXPECT_EQ(result, flags != 0 ? -1 : 1);
            EXPECT_EQ(reply_data(), GetParam() ? std::string(3000, 'm') : "m");
            EXPECT_EQ(tpdiscon(CD), 1);
            peer.expect(wire::TPDISCON);
            open_transaction();
            if (!failed)
                break;
        }
    }
}

TEST_F(ConversationReceive, MessageThatCannotBeStoredEndsTheWaitOfAnother)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY, 5);
    open(TPRECVONLY, 6);
    peer.send_raw(wire::encode(turn(5, "lost")) + wire::encode(turn(6, "kept")));
    ASSERT_TRUE(wait_for_bytes(block()->clhfd, 2 * 136 + 8));
    int result = 0;
    for (int nth = 1; nth < 20 && result >= 0; nth++) {
        faults::fail_allocation(nth);
        result = receive(6);
        bool failed = faults::allocation_failed();
        faults::disarm_allocations();
        if (!failed)
            break;
        if (result < 0) {
            EXPECT_EQ(get_tperrno(), TPEOS);
        }
    }
    EXPECT_TRUE(is_open(5));
    EXPECT_TRUE(is_open(6));
    expect_idle();
}

// ---- a peer that means no good

TEST_F(ConversationReceive, LengthsThatLieAreCutOrRefused)
{
    ASSERT_TRUE(start());
    for (int32_t size : {0, 1, -1, INT_MIN}) {
        open(TPRECVONLY);
        wire::frame liar = turn(CD, std::string(3000, 'l'));
        liar.bufsize = size;
        if (receive_meanwhile(CD, liar) != 1)
            break;  // refused
        EXPECT_EQ(reply_data(), std::string(3000, 'l'));
        EXPECT_GE(tpgetasize(out), 3000);
        memset(out, 'x', 3000);
        EXPECT_EQ(tpdiscon(CD), 1);
        peer.expect(wire::TPDISCON);
    }
    EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
}

TEST_F(ConversationReceive, ForeignMessagesDoNotDisturbTheWait)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    peer.play([&] {
        for (int32_t type : {6, 8, 1007, 3007, 2005, 2007})
            for (int cd : {CD + 8, -CD, INT_MIN, INT_MAX, 0, -1})
                peer.send(ending(type, cd, 1, 0x1000, "not yours"));
        for (int32_t type : {1003, 2003, 1004, 3004, 1018, 1025, 1012, 1032, 2032})
            peer.send(wire::message(type, "x", {.cd = CD}));
        peer.send(turn(CD, "yours"));
    });
    EXPECT_EQ(receive(CD), 1);
    EXPECT_EQ(reply_data(), "yours");
    EXPECT_EQ(event, 0);
    peer.done();
}

TEST_F(ConversationReceive, UnknownMessageEndsTheWaitAndTheConversationStands)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    EXPECT_EQ(receive_meanwhile(CD, ending(2006, CD)), -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    EXPECT_TRUE(is_open(CD));
    EXPECT_EQ(receive_meanwhile(CD, turn(CD, "goes on")), 1);
}
