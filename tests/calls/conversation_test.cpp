// tpsend, and whole dialogues: who may send, what goes out, and what an event in the row does to it.
#include "calls/conversation.h"

#include <limits.h>
#include <signal.h>

namespace {

struct ConversationSend : ConversationTest {
    // A send that fails and sends nothing.
    void expect_refused(int cd, long flags, int error, long awaited_event = 0)
    {
        EXPECT_EQ(send(cd, flags), -1) << error;
        EXPECT_EQ(get_tperrno(), error);
        EXPECT_EQ(event, awaited_event) << error;
        peer.expect_nothing();
    }
};

struct Dialogue : ConversationTest {};

}  // namespace

// ---- what is sent

TEST_F(ConversationSend, MessageCarriesTheDescriptorAndNoNumberOfItsOwn)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    tpfree(in);
    in = new_buffer("CARRAY", "12345", 100);
    int seqno = block()->seqno;
    peer.recording = true;
    peer.received.clear();
    set_tperrno(TPETIME);
    EXPECT_EQ(tpsend(CD, in, 5, 0, &event), 1);
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_EQ(event, 0);
    wire::frame got = peer.expect(wire::TPSEND).cd(CD).data("12345").flags(0).buftype(wire::CARRAY);
    EXPECT_EQ(got.rcode, 0);
    EXPECT_EQ(got.seqno, 0);
    EXPECT_EQ(got.callid[1], 0u);
    EXPECT_EQ(block()->seqno, seqno);
    EXPECT_EQ(row(CD)->flags, CONV_OUT | TPSENDONLY);
    EXPECT_EQ(message_of(in)->magic, MESSAGE_MAGIC);
    EXPECT_EQ(message_of(in)->msgtype, MSG_TPSEND);
    expect_idle();
    expect_silence();
}

TEST_F(ConversationSend, WithoutDataABareHeaderGoesOut)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    for (long flags : {0L, TPRECVONLY}) {
        peer.recording = true;
        peer.received.clear();
        EXPECT_EQ(tpsend(CD, nullptr, 99, flags, &event), 1);
        peer.expect(wire::TPSEND);
        wire::frame awaited;
        awaited.msgtype = wire::TPSEND;
        awaited.flags = (uint32_t)flags;
        awaited.cd = CD;
        awaited.xflags = ROOM_FOR_A_TRAILER;
        EXPECT_EQ(peer.received, wire::encode(awaited));
    }
}

TEST_F(ConversationSend, OnlyTheRightTravelsInTheFlags)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    EXPECT_EQ(send(CD, TPNOBLOCK | TPSIGRSTRT | TPNOTIME), 1);
    peer.expect(wire::TPSEND).flags(0).text("hello");
    EXPECT_EQ(row(CD)->flags, CONV_OUT | TPSENDONLY);
    EXPECT_EQ(send(CD, TPNOBLOCK | TPSIGRSTRT | TPNOTIME | TPRECVONLY), 1);
    peer.expect(wire::TPSEND).flags(TPRECVONLY).text("hello");
    EXPECT_EQ(row(CD)->flags, CONV_OUT | TPRECVONLY);
    expect_may_not_send(CD);
}

TEST_F(ConversationSend, RepliedBufferCanBeSentOn)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    EXPECT_EQ(receive_meanwhile(CD, wire::message(wire::TPSEND, "theirs",
                                                  {.rcode = 9, .flags = TPRECVONLY, .cd = CD, .seqno = 12})),
              -1);
    ASSERT_EQ(event, TPEV_SENDONLY);
    EXPECT_EQ(tpsend(CD, out, 0, 0, &event), 1);
    wire::frame got = peer.expect(wire::TPSEND).cd(CD).text("theirs").flags(0);
    EXPECT_EQ(got.rcode, 0);
}

TEST_F(ConversationSend, LengthsAreThoseOfEveryRequest)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    EXPECT_EQ(tpsend(CD, in, 10, 0, &event), 1);
    peer.expect(wire::TPSEND).data(std::string("hello") + std::string(5, '\0'));
    EXPECT_EQ(tpsend(CD, in, 1024, 0, &event), 1);
    EXPECT_EQ(peer.expect(wire::TPSEND).frame.datalen, 1024);
    for (long length : {1025L, 0x100000001L, (long)INT_MAX, LONG_MAX}) {
        EXPECT_EQ(tpsend(CD, in, length, TPRECVONLY, &event), -1) << length;
        EXPECT_EQ(get_tperrno(), TPEINVAL) << length;
    }
    peer.expect_nothing();
    expect_may_send(CD);
}

TEST_F(ConversationSend, LongMessagesTravelCompressed)
{
    ASSERT_TRUE(start({.threshold = 100}));
    open(TPSENDONLY);
    memset(in, 'z', 500);
    in[500] = '\0';
    EXPECT_EQ(send(CD, TPRECVONLY), 1);
    peer.expect(wire::TPSEND).compressed(true).text(std::string(500, 'z')).cd(CD).flags(TPRECVONLY);
    peer.send_compressed(hand_over(CD, std::string(3000, 'y')));
    EXPECT_EQ(receive(CD), -1);
    EXPECT_EQ(event, TPEV_SENDONLY);
    EXPECT_EQ(reply_data(), std::string(3000, 'y'));
}

// ---- what is refused, in order

TEST_F(ConversationSend, UnknownDescriptorComesFirst)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY | TPNOBLOCK);
    message_of(in)->magic = 0;
    for (int cd : {-1, INT_MIN, 0, CD + 1, CD + 8, INT_MAX})
        expect_refused(cd, TPGETANY, TPEBADDESC);
    message_of(in)->magic = MESSAGE_MAGIC;
    expect_silence();
}

TEST_F(ConversationSend, EventMustHaveAPlace)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    EXPECT_EQ(tpsend(CD, in, 0, TPRECVONLY, nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    expect_may_send(CD);
}

TEST_F(ConversationSend, OtherFlagsComeSecond)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY | TPNOBLOCK);
    message_of(in)->magic = 0;
    for (int bit = 0; bit < 64; bit++) {
        long flag = (long)(1UL << bit);
        if ((flag & 0x1023) == 0)
            expect_refused(CD, flag, TPEINVAL);
    }
    message_of(in)->magic = MESSAGE_MAGIC;
}

TEST_F(ConversationSend, ConversationOpenedWithoutBlockingComesThird)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY | TPNOBLOCK);
    message_of(in)->magic = 0;
    for (int i = 0; i < 3; i++) {
        row(CD)->urcode = 70 + i;
        expect_refused(CD, 0, TPEEVENT, TPEV_DISCONIMM);
        EXPECT_EQ(gettpurcode(), 70 + i);
    }
    message_of(in)->magic = MESSAGE_MAGIC;
    EXPECT_TRUE(is_open(CD));
    expect_silence();
    EXPECT_EQ(tpdiscon(CD), 1);
    peer.expect(wire::TPDISCON).cd(CD);
}

TEST_F(ConversationSend, DataIsLookedAtBeforeTheRight)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    store({ending(8, CD)});
    message_of(in)->magic = 0;
    expect_refused(CD, 0, TPEITYPE);
    message_of(in)->magic = MESSAGE_MAGIC;
    EXPECT_EQ(tpsend(CD, in, 2000, 0, &event), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
}

TEST_F(ConversationSend, RightIsLookedAtBeforeTheEvent)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    store({ending(8, CD, 5)});
    expect_refused(CD, 0, TPEPROTO);
    EXPECT_EQ(tpsend(CD, nullptr, 0, 0, &event), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    EXPECT_TRUE(is_open(CD));
    EXPECT_EQ(receive(CD), -1);
    EXPECT_EQ(event, TPEV_DISCONIMM);
    EXPECT_EQ(gettpurcode(), 5);
}

TEST_F(ConversationSend, FailureKeepsTheRight)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    message_of(in)->magic = 0;
    expect_refused(CD, TPRECVONLY, TPEITYPE);
    message_of(in)->magic = MESSAGE_MAGIC;
    expect_refused(CD, TPRECVONLY | TPNOCHANGE, TPEINVAL);
    expect_may_send(CD);
    EXPECT_EQ(receive(CD), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
}

TEST_F(ConversationSend, RefusalsLeaveTheTransaction)
{
    ASSERT_TRUE(start());
    open_transaction();
    open(TPSENDONLY);
    expect_refused(CD + 1, 0, TPEBADDESC);
    expect_refused(CD, TPGETANY, TPEINVAL);
    message_of(in)->magic = 0;
    expect_refused(CD, 0, TPEITYPE);
    message_of(in)->magic = MESSAGE_MAGIC;
    EXPECT_EQ(send(CD, TPRECVONLY), 1);
    peer.expect(wire::TPSEND);
    expect_refused(CD, 0, TPEPROTO);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
}

// ---- events in the row

TEST_F(ConversationSend, EventOfAStoredMessageEndsTheConversation)
{
    ASSERT_TRUE(start());
    const struct {
        std::vector<wire::frame> messages;
        long event;
    } cases[] = {
        {{ending(8, CD, 3)}, 1},
        {{ending(NOT_CONNECTED, CD, 3)}, 1},
        {{ending(REFUSED, CD, 3)}, 1},
        {{ending(DONE, CD, 3, 0, "bye")}, 8},
        {{ending(FAILED, CD, 3, 2, "bye")}, 4},
        {{turn(CD, "out of turn"), ending(FAILED, CD, 3, 4)}, 4},
        {{ending(DONE, CD), ending(8, CD)}, 9},
        {{ending(FAILED, CD), ending(DONE, CD), ending(8, CD)}, 13},
    };
    for (const auto &one : cases) {
        SCOPED_TRACE(one.event);
        open(TPSENDONLY);
        store(one.messages);
        set_tpurcode(99);
        expect_refused(CD, 0, TPEEVENT, one.event);
        EXPECT_EQ(gettpurcode(), 99);
        expect_gone(CD);
        expect_silence();
    }
    expect_idle();
}

TEST_F(ConversationSend, EventEndsItWithoutDataToo)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    store({ending(8, CD)});
    EXPECT_EQ(tpsend(CD, nullptr, 0, TPRECVONLY, &event), -1);
    EXPECT_EQ(get_tperrno(), TPEEVENT);
    EXPECT_EQ(event, TPEV_DISCONIMM);
    expect_gone(CD);
}

TEST_F(ConversationSend, EventMarksTheTransactionOfTheConversation)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY, 5);
    open_transaction();
    open(TPSENDONLY | TPNOTRAN, 6);
    open(TPSENDONLY, 7);
    store({ending(8, 5), ending(8, 6), ending(8, 7)});
    for (int cd : {5, 6}) {
        expect_refused(cd, 0, TPEEVENT, 1);
        EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE) << cd;
    }
    expect_refused(7, 0, TPEEVENT, 1);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK);
}

TEST_F(ConversationSend, StoredMessageWithoutAnEventDoesNotHinderIt)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    store({turn(CD, "early")});
    expect_may_send(CD);
    EXPECT_EQ(send(CD, TPRECVONLY), 1);
    peer.expect(wire::TPSEND).flags(TPRECVONLY);
    EXPECT_EQ(receive(CD), 1);
    EXPECT_EQ(reply_data(), "early");
}

// ---- sends that fail

TEST_F(ConversationSend, FailedSendLeavesTheConversationAndTheTransaction)
{
    ASSERT_TRUE(start());
    open_transaction();
    open(TPSENDONLY);
    const struct {
        int error, tperr;
    } cases[] = {{EPIPE, TPECLOSE}, {EAGAIN, TPEBLOCK}, {EIO, TPEOS}};
    for (const auto &one : cases) {
        faults::fail(faults::SEND, 1, one.error);
        expect_refused(CD, 0, one.tperr);
        EXPECT_EQ(message_of(in)->magic, MESSAGE_MAGIC);
        faults::fail(faults::SEND, 1, one.error);
        EXPECT_EQ(tpsend(CD, nullptr, 0, 0, &event), -1);
        EXPECT_EQ(get_tperrno(), one.tperr);
        expect_idle();
    }
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
    expect_may_send(CD);
    faults::fail(faults::SEND, 1, EAGAIN);
    expect_refused(CD, TPRECVONLY, TPEBLOCK);
    expect_may_not_send(CD);  // the right went ahead of the message
}

TEST_F(ConversationSend, WithoutMemoryForAHeaderNothingChanges)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    faults::fail_allocation(1);
    int result = tpsend(CD, nullptr, 0, TPRECVONLY, &event);
    faults::disarm_allocations();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    peer.expect_nothing();
    expect_may_send(CD);
    faults::fail_allocation(1, true);
    result = send(CD);
    faults::disarm_allocations();
    EXPECT_EQ(result, 1);  // a buffer is sent as it stands
}

TEST_F(ConversationSend, MemoryIsLookedForBeforeTheRight)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    faults::fail_allocation(1);
    int result = tpsend(CD, nullptr, 0, 0, &event);
    faults::disarm_allocations();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
}

TEST_F(ConversationSend, WithoutASessionThereIsNoConversation)
{
    EXPECT_EQ(send(CD), -1);
    EXPECT_EQ(get_tperrno(), TPEBADDESC);
    EXPECT_EQ(event, 0);
    EXPECT_TRUE(peer.nobody_knocks());
}

TEST_F(ConversationSend, ServersEndShowsSoonerOrLater)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    signal(SIGPIPE, SIG_IGN);  // its handler is looked at elsewhere
    peer.reset_connection();
    EXPECT_TRUE(faults::eventually([&] { return send(CD) < 0; }));
    int error = get_tperrno();
    EXPECT_TRUE(error == TPECLOSE || error == TPEOS) << error;
    EXPECT_EQ(receive(CD), -1);
    EXPECT_EQ(tpdiscon(CD), -1);
}

TEST_F(ConversationSend, ConversationsEndWithTheSession)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    store({turn(CD, "unread")});
    peer.play([&] { peer.serve_end(); });
    EXPECT_EQ(tpend(), 1);
    peer.done();
    EXPECT_EQ(send(CD), -1);
    EXPECT_EQ(get_tperrno(), TPEBADDESC);
    EXPECT_EQ(receive(CD), -1);
    EXPECT_EQ(get_tperrno(), TPEBADDESC);
    EXPECT_EQ(tpdiscon(CD), -1);
    EXPECT_EQ(get_tperrno(), TPEBADDESC);
    ASSERT_TRUE(start());
    EXPECT_EQ(send(CD), -1);
    EXPECT_EQ(get_tperrno(), TPEBADDESC);
    open(TPRECVONLY);
    EXPECT_EQ(receive(CD, TPNOBLOCK), -1);
    EXPECT_EQ(get_tperrno(), TPEBLOCK);
}

// ---- dialogues

TEST_F(Dialogue, ThousandTurns)
{
    constexpr int TURNS = 1000;
    ASSERT_TRUE(start({.block_time = 30}));
    peer.play([&] {
        peer.expect(wire::TPCONNECT).text("hello");
        peer.reply("", {.cd = CD});
        for (int i = 0; i < TURNS; i++) {
            wire::frame got =
                peer.expect(wire::TPSEND).cd(CD).flags(TPRECVONLY).text("turn " + std::to_string(i));
            if (peer.fd < 0)
                return;
            peer.send(hand_over(CD, "answer " + std::to_string(i)));
        }
        peer.expect(wire::TPSEND).text("the end").flags(TPRECVONLY);
        peer.send(ending(DONE, CD, 1234, 0, "goodbye"));
    });
    ASSERT_EQ(connect(TPSENDONLY), CD);
    for (int i = 0; i < TURNS; i++) {
        snprintf(in, 100, "turn %d", i);
        ASSERT_EQ(send(CD, TPRECVONLY), 1) << i << " " << get_tperrno();
        ASSERT_EQ(receive(CD), -1) << i;
        ASSERT_EQ(get_tperrno(), TPEEVENT) << i;
        ASSERT_EQ(event, TPEV_SENDONLY) << i;
        ASSERT_EQ(reply_data(), "answer " + std::to_string(i));
    }
    strcpy(in, "the end");
    ASSERT_EQ(send(CD, TPRECVONLY), 1);
    EXPECT_EQ(receive(CD), -1);
    EXPECT_EQ(event, TPEV_SVCSUCC);
    EXPECT_EQ(reply_data(), "goodbye");
    EXPECT_EQ(gettpurcode(), 1234);
    peer.done();
    expect_gone(CD);
    expect_silence();
}

TEST_F(Dialogue, ThousandMessagesInOneStream)
{
    constexpr int COUNT = 1000;
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    peer.play([&] {
        std::string bytes;
        for (int i = 0; i < COUNT; i++)
            bytes += wire::encode(turn(CD, std::string((size_t)i, 's')));
        peer.send_raw(bytes + wire::encode(hand_over(CD, "yours")));
    });
    for (int i = 0; i < COUNT; i++) {
        ASSERT_EQ(receive(CD), 1) << i;
        ASSERT_EQ(event, 0);
        ASSERT_EQ(reply_data(), std::string((size_t)i, 's'));
        ASSERT_EQ(get_tperrno(), 0);
    }
    EXPECT_EQ(receive(CD), -1);
    EXPECT_EQ(event, TPEV_SENDONLY);
    EXPECT_EQ(reply_data(), "yours");
    expect_may_send(CD);
}

TEST_F(Dialogue, ThousandStoredMessagesKeepTheirOrder)
{
    constexpr int COUNT = 1000;
    ASSERT_TRUE(start());
    open(TPRECVONLY);
    std::vector<wire::frame> messages;
    for (int i = 0; i < COUNT; i++)
        messages.push_back(turn(CD, std::to_string(i)));
    store(messages);
    for (int i = 0; i < COUNT; i++) {
        ASSERT_EQ(receive(CD, i % 2 != 0 ? TPNOBLOCK : 0), 1) << i;
        ASSERT_EQ(reply_data(), std::to_string(i));
    }
    EXPECT_EQ(receive(CD, TPNOBLOCK), -1);
    EXPECT_EQ(get_tperrno(), TPEBLOCK);
}

TEST_F(Dialogue, SeveralInTurnOnOneThread)
{
    constexpr int COUNT = 8;
    ASSERT_TRUE(start());
    for (int cd = 0; cd < COUNT; cd++)
        open(TPSENDONLY, cd * 8);  // one home row for all
    peer.play([&] {
        std::vector<std::string> said(COUNT);
        for (int i = 0; i < COUNT; i++) {
            wire::frame got = peer.expect(wire::TPSEND).flags(TPRECVONLY).cd(i * 8);
            said[(size_t)i] = "to " + std::to_string(got.cd);
        }
        for (int i = COUNT - 1; i >= 0; i--)
            peer.send(ending(DONE, i * 8, i, 0, said[(size_t)i]));
    });
    for (int i = 0; i < COUNT; i++)
        EXPECT_EQ(send(i * 8, TPRECVONLY), 1);
    for (int i = 0; i < COUNT; i++) {
        EXPECT_EQ(receive(i * 8), -1);
        EXPECT_EQ(event, TPEV_SVCSUCC) << i;
        EXPECT_EQ(gettpurcode(), i);
        EXPECT_EQ(reply_data(), "to " + std::to_string(i * 8));
        EXPECT_FALSE(is_open(i * 8));
    }
    EXPECT_EQ(block()->conv_active, 0);
}

TEST_F(Dialogue, RowsAreUsedAgainWithoutEnd)
{
    ASSERT_TRUE(start({.conv_size = 1}));
    for (int i = 0; i < 300; i++) {
        open(TPRECVONLY, i % 3);
        store({turn(i % 3, "a"), turn(i % 3, "b"), ending(i % 2 != 0 ? 8 : DONE, i % 3, i)});
        ASSERT_EQ(receive(i % 3), 1);
        ASSERT_EQ(reply_data(), "a");
        ASSERT_EQ(tpdiscon(i % 3), 1);
        peer.expect(wire::TPDISCON);
    }
    expect_silence();
}
