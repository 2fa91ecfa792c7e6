// tpconnect: what is sent, what may answer it, and what a failure leaves behind.
#include "calls/conversation.h"

#include <limits.h>

namespace {

constexpr uint32_t STARTS_TRANSACTION = 0x4000000;

struct Connect : ConversationTest {
    // A connect that fails with this error ahead of anything that could be sent.
    void expect_refused(long flags, int error)
    {
        EXPECT_EQ(connect(flags), -1) << flags;
        EXPECT_EQ(get_tperrno(), error) << flags;
        EXPECT_EQ(block()->conv_active, 0);
        peer.expect_nothing();
    }

    // What stands after a connect that was sent and came to nothing.
    void expect_no_trace(void)
    {
        EXPECT_EQ(block()->conv_active, 0);
        for (int i = 0; i < block()->conv_size; i++)
            EXPECT_EQ(block()->conv[i].cd, -1) << i;
        expect_idle();
    }

    void give_identity(void)
    {
        for (uint32_t i = 0; i < 3; i++)
            block()->txinfo->xid_data[i] = 0x1000 + i;
    }
};

}  // namespace

// ---- what is sent

TEST_F(Connect, RequestCarriesTheFirstMessageAndTheReplyTheDescriptor)
{
    ASSERT_TRUE(start());
    int seqno = block()->seqno + 1;
    peer.play([&] {
        Expected request = peer.expect(wire::TPCONNECT).seqno(seqno);
        request.svcname("DIALOG").text("hello").flags(TPSENDONLY).buftype(wire::STRING).cd(0).prio(0);
        EXPECT_EQ(request.frame.rcode, 0);
        EXPECT_EQ(request.frame.target, 0);
        EXPECT_EQ(request.frame.callid[0], 0u);
        EXPECT_EQ(request.frame.callid[1], 0u);
        peer.reply("", {.cd = 77});
    });
    set_tperrno(TPETIME);
    EXPECT_EQ(connect(TPSENDONLY), 77);
    peer.done();
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_EQ(block()->conv_active, 1);
    EXPECT_EQ(row(77)->flags, CONV_OUT | TPSENDONLY);
    EXPECT_EQ(row(77)->event, 0u);
    EXPECT_EQ(message_of(in)->magic, MESSAGE_MAGIC);
    EXPECT_STREQ(in, "hello");
    expect_idle();
    expect_silence();
}

TEST_F(Connect, RequestWithoutDataIsABareHeader)
{
    ASSERT_TRUE(start());
    peer.recording = true;
    peer.play([&] {
        peer.expect(wire::TPCONNECT);
        peer.reply("", {.cd = CD});
    });
    EXPECT_EQ(tpconnect(svc("LISTEN"), nullptr, 500, TPRECVONLY), CD);
    peer.done();
    wire::frame awaited;
    awaited.msgtype = wire::TPCONNECT;
    awaited.svcname = "LISTEN";
    awaited.flags = TPRECVONLY;
    awaited.seqno = block()->seqno;
    awaited.xflags = ROOM_FOR_A_TRAILER;
    EXPECT_EQ(peer.received, wire::encode(awaited));
    EXPECT_EQ(row(CD)->flags, CONV_OUT | TPRECVONLY);
}

TEST_F(Connect, FlagsTravelAsTheyAreAndStandInTheRow)
{
    ASSERT_TRUE(start());
    for (long more : {TPNOBLOCK, TPSIGRSTRT, TPNOTRAN, TPNOTIME}) {
        peer.play([&] {
            peer.expect(wire::TPCONNECT).flags((uint32_t)(TPSENDONLY | more));
            peer.reply("", {.cd = CD + (int)more});
        });
        EXPECT_EQ(connect(TPSENDONLY | more), CD + (int)more);
        peer.done();
        EXPECT_EQ(row(CD + (int)more)->flags, (uint32_t)(CONV_OUT | TPSENDONLY | more));
    }
    EXPECT_EQ(block()->conv_active, 4);
}

TEST_F(Connect, NameIsCutAndANullNameLeavesTheBuffers)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPCONNECT).svcname(std::string(31, 'n'));
        peer.reply("", {.cd = 1});
        peer.expect(wire::TPCONNECT).svcname(std::string(31, 'n'));
        peer.reply("", {.cd = 2});
        peer.expect(wire::TPCONNECT).svcname("");
        peer.reply("", {.cd = 3});
    });
    EXPECT_EQ(connect(TPSENDONLY, std::string(40, 'n').c_str()), 1);
    EXPECT_EQ(tpconnect(nullptr, in, 0, TPSENDONLY), 2);
    EXPECT_EQ(tpconnect(nullptr, nullptr, 0, TPSENDONLY), 3);
}

TEST_F(Connect, EachTakesASequenceNumber)
{
    ASSERT_TRUE(start());
    int first = 0;
    peer.play([&] {
        first = peer.expect(wire::TPCONNECT).frame.seqno;
        peer.reply("", {.cd = 1});
        peer.expect(wire::TPCALL).seqno(first + 1);
        peer.reply("x");
        peer.expect(wire::TPCONNECT).seqno(first + 2);
        peer.reply("", {.cd = 2});
        peer.expect(wire::TPCONNECT).seqno(0);
        peer.reply("", {.cd = 3});
    });
    EXPECT_EQ(connect(TPSENDONLY), 1);
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(connect(TPSENDONLY), 2);
    block()->seqno = 0xffffffe;
    EXPECT_EQ(connect(TPSENDONLY), 3);
}

TEST_F(Connect, OpensASessionWhereThereIsNone)
{
    peer.play([&] {
        peer.accept_start();
        peer.expect(wire::TPCONNECT).text("hello");
        peer.reply("", {.cd = CD});
        peer.expect(wire::TPSEND).cd(CD);
    });
    EXPECT_EQ(connect(TPSENDONLY), CD);
    EXPECT_EQ(send(CD), 1);
    peer.done();
    EXPECT_EQ(block()->conv_active, 1);
}

TEST_F(Connect, WithoutAServerItFailsAsAStart)
{
    peer.stop_listening();
    EXPECT_EQ(connect(TPSENDONLY), -1);
    int error = get_tperrno();
    EXPECT_EQ(tpstart(nullptr), -1);
    EXPECT_EQ(error, get_tperrno());
}

// ---- what is refused at once

TEST_F(Connect, ExactlyOneSideBegins)
{
    ASSERT_TRUE(start());
    int seqno = block()->seqno;
    expect_refused(0, TPEINVAL);
    expect_refused(TPSENDONLY | TPRECVONLY, TPEINVAL);
    expect_refused(TPNOTRAN | TPNOTIME, TPEINVAL);
    EXPECT_EQ(block()->seqno, seqno);
    expect_silence();
}

TEST_F(Connect, OtherFlagsAreRefused)
{
    ASSERT_TRUE(start());
    for (int bit = 0; bit < 63; bit++) {
        long flag = 1L << bit;
        if ((flag & 0x182B) == 0)
            expect_refused(TPSENDONLY | flag, TPEINVAL);
    }
    expect_refused(TPSENDONLY | LONG_MIN, TPEINVAL);
    expect_silence();
}

TEST_F(Connect, FlagsAreLookedAtBeforeTheDataAndTheTransaction)
{
    ASSERT_TRUE(start());
    open_transaction(TX_STAGE_RUNNING, TX_STATE_ROLLBACK);
    message_of(in)->magic = 0;
    expect_refused(TPGETANY | TPSENDONLY, TPEINVAL);
    expect_refused(TPSENDONLY, TPEITYPE);
    message_of(in)->magic = MESSAGE_MAGIC;
    expect_refused(TPSENDONLY, TPEPROTO);
    set_tx_state(block(), TX_STATE_TIMED_OUT);
    expect_refused(TPSENDONLY, TPETIME);
    expect_silence();
}

TEST_F(Connect, LengthBeyondTheBufferIsRefused)
{
    ASSERT_TRUE(start());
    for (long length : {1025L, 0x100000001L, 0x7fffffffL, LONG_MAX}) {
        EXPECT_EQ(tpconnect(svc("S"), in, length, TPSENDONLY), -1) << length;
        EXPECT_EQ(get_tperrno(), TPEINVAL) << length;
    }
    expect_no_trace();
    expect_silence();
}

// ---- the table

TEST_F(Connect, FullTableIsALimitAndNothingIsSent)
{
    ASSERT_TRUE(start({.conv_size = 2}));
    open(TPSENDONLY, 5);
    open(TPRECVONLY, 6);
    int seqno = block()->seqno;
    EXPECT_EQ(connect(TPSENDONLY), -1);
    EXPECT_EQ(get_tperrno(), TPELIMIT);
    EXPECT_EQ(tpconnect(svc("S"), nullptr, 0, TPSENDONLY), -1);
    EXPECT_EQ(get_tperrno(), TPELIMIT);
    EXPECT_EQ(block()->seqno, seqno);
    EXPECT_EQ(block()->conv_active, 2);
    expect_silence();
    EXPECT_EQ(tpdiscon(5), 1);
    peer.expect(wire::TPDISCON).cd(5);
    open(TPSENDONLY, 7);
    EXPECT_TRUE(is_open(6));
    expect_idle();
}

TEST_F(Connect, LimitLeavesTheTransactionUnmarked)
{
    ASSERT_TRUE(start({.conv_size = 1}));
    open(TPSENDONLY);
    open_transaction();
    EXPECT_EQ(connect(TPSENDONLY), -1);
    EXPECT_EQ(get_tperrno(), TPELIMIT);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
}

TEST_F(Connect, FullTableGivesAwayAConversationThatWasOpenedSo)
{
    ASSERT_TRUE(start({.conv_size = 2}));
    open(TPSENDONLY | TPNOTIME, 5);
    int last = 6;
    open(TPRECVONLY | TPNOBLOCK, last);
    for (long flag : {TPSIGRSTRT, TPNOTRAN, 0L}) {
        store({turn(last, "lost"), ending(8, last, 3)});
        open(TPRECVONLY | flag, last + 1);  // no word to the server about the one that goes
        EXPECT_FALSE(is_open(last));
        EXPECT_TRUE(is_open(5));
        EXPECT_EQ(row(last + 1)->event, 0u);
        EXPECT_EQ(row(last + 1)->head, nullptr);
        EXPECT_EQ(block()->conv_active, 2);
        EXPECT_EQ(receive(last), -1);
        EXPECT_EQ(get_tperrno(), TPEBADDESC);
        store({turn(last, "late"), ending(8, last)});
        last++;
    }
    EXPECT_EQ(connect(TPSENDONLY), -1);
    EXPECT_EQ(get_tperrno(), TPELIMIT);
    expect_may_send(5);
}

// 0 is a descriptor like any other, also while another conversation has none yet.
TEST_F(Connect, MessagesOfDescriptorZeroAreNotTakenForOneThatIsBeingOpened)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY, 64);
    open(TPRECVONLY, 0);
    EXPECT_EQ(tpdiscon(64), 1);  // whose row stands in front
    peer.expect(wire::TPDISCON).cd(64);
    peer.play([&] {
        peer.expect(wire::TPCONNECT);
        peer.send(turn(0, "for zero"));
        peer.reply("", {.cd = 7});
    });
    EXPECT_EQ(connect(TPRECVONLY), 7);
    peer.done();
    EXPECT_EQ(row(7)->head, nullptr);
    ASSERT_NE(row(0)->head, nullptr);
    EXPECT_EQ(receive(0), 1);
    EXPECT_STREQ(out, "for zero");
    EXPECT_EQ(block()->conv_active, 2);
}

TEST_F(Connect, TableWithoutRowsIsALimit)
{
    ASSERT_TRUE(start({.conv_size = 0}));
    EXPECT_EQ(connect(TPSENDONLY), -1);
    EXPECT_EQ(get_tperrno(), TPELIMIT);
    EXPECT_EQ(send(0), -1);
    EXPECT_EQ(get_tperrno(), TPEBADDESC);
    EXPECT_EQ(receive(0), -1);
    EXPECT_EQ(get_tperrno(), TPEBADDESC);
    EXPECT_EQ(tpdiscon(0), -1);
    EXPECT_EQ(get_tperrno(), TPEBADDESC);
    store({turn(0, "nobody's"), ending(8, 0), ending(DONE, 3)});
    expect_silence();
}

// ---- refused by the server

TEST_F(Connect, RefusalGivesItsError)
{
    ASSERT_TRUE(start());
    for (uint32_t error : {TPENOENT, TPESYSTEM, TPETIME, TPESECURITY}) {
        peer.play([&] {
            peer.expect(wire::TPCONNECT);
            peer.reply("", {.rcode = 9, .flags = error, .cd = CD});
        });
        EXPECT_EQ(connect(TPSENDONLY), -1);
        EXPECT_EQ(get_tperrno(), (int)error);
        peer.done();
        EXPECT_FALSE(is_open(CD));
        expect_no_trace();
    }
    expect_silence();
}

TEST_F(Connect, RefusalWithoutAnErrorIsAnErrorAllTheSame)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPCONNECT);
        peer.reply("", {.msgtype = NOT_CONNECTED, .cd = CD});
    });
    EXPECT_EQ(connect(TPSENDONLY), -1);
    EXPECT_NE(get_tperrno(), 0);
    expect_no_trace();
}

TEST_F(Connect, RefusalMarksTheTransactionUnlessItStandsOutside)
{
    ASSERT_TRUE(start());
    open_transaction();
    for (long flag : {TPNOTRAN, 0L}) {
        peer.play([&] {
            peer.expect(wire::TPCONNECT);
            peer.reply("", {.flags = TPENOENT});
        });
        EXPECT_EQ(connect(TPSENDONLY | flag), -1);
        EXPECT_EQ(get_tperrno(), TPENOENT);
        EXPECT_EQ(tx_state_of(block()), flag != 0 ? TX_STATE_ACTIVE : TX_STATE_ROLLBACK);
        peer.done();
    }
}

// ---- time

TEST_F(Connect, BlockTimeEndsTheWaitAndALateReplyIsDisconnected)
{
    ASSERT_TRUE(start({.block_time = 10}));
    peer.play([&] {
        peer.expect(wire::TPCONNECT);
        wire::frame request = peer.last;
        let_time_run_out(11);
        peer.expect(wire::TPCALL);
        wire::frame call = peer.last;
        peer.reply_to(request, "", {.cd = 55});
        peer.expect(wire::TPDISCON).cd(55).header_only().flags(0);
        peer.reply_to(call, "x");
    });
    EXPECT_EQ(connect(TPSENDONLY), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    expect_no_trace();
    EXPECT_EQ(call(TPNOTIME), 1) << get_tperrno();
    peer.done();
    EXPECT_FALSE(is_open(55));
    expect_silence();
}

TEST_F(Connect, WithoutALimitTheClockDoesNotCount)
{
    ASSERT_TRUE(start({.block_time = 10}));
    auto patient = [&](long flags) {
        peer.play([&] {
            peer.expect(wire::TPCONNECT);
            faults::shift_clock(100000);
            peer.send(wire::message(1012));
            peer.reply("", {.cd = CD});
        });
        EXPECT_EQ(connect(TPSENDONLY | flags), CD);
        peer.done();
        EXPECT_EQ(tpdiscon(CD), 1);
        peer.expect(wire::TPDISCON);
    };
    patient(TPNOTIME);
    open_transaction();
    patient(0);
}

TEST_F(Connect, NoBlockWaitsForTheReply)
{
    ASSERT_TRUE(start({.block_time = 10}));
    EXPECT_EQ(open(TPSENDONLY | TPNOBLOCK), CD);
}

TEST_F(Connect, TimeOutKeepsTheTransaction)
{
    ASSERT_TRUE(start({.block_time = 10}));
    peer.play([&] {
        peer.expect(wire::TPCONNECT);
        let_time_run_out(11);
    });
    EXPECT_EQ(connect(TPSENDONLY | TPNOTRAN), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_NONE);
}

// ---- transactions

TEST_F(Connect, BelongsToTheOpenTransaction)
{
    ASSERT_TRUE(start());
    open_transaction(TX_STAGE_BEGUN);
    give_identity();
    peer.play([&] {
        wire::frame first = peer.expect(wire::TPCONNECT).flags(TPSENDONLY | STARTS_TRANSACTION);
        EXPECT_EQ(first.xid[0], 0x1000u);
        EXPECT_EQ(first.xid[2], 0x1002u);
        peer.reply("", {.cd = 1});
        peer.expect(wire::TPCONNECT).flags(TPRECVONLY);
        peer.reply("", {.cd = 2});
        wire::frame outside = peer.expect(wire::TPCONNECT).flags(TPRECVONLY | TPNOTRAN);
        EXPECT_EQ(outside.xid[0], 0u);
        peer.reply("", {.cd = 3});
    });
    EXPECT_EQ(tpconnect(svc("S"), nullptr, 0, TPSENDONLY), 1);
    EXPECT_EQ(tpconnect(svc("S"), nullptr, 0, TPRECVONLY), 2);
    EXPECT_EQ(tpconnect(svc("S"), nullptr, 0, TPRECVONLY | TPNOTRAN), 3);
    peer.done();
    EXPECT_EQ(row(1)->flags, CONV_OUT | TPSENDONLY | TPTRAN);
    EXPECT_EQ(row(2)->flags, CONV_OUT | TPRECVONLY | TPTRAN);
    EXPECT_EQ(row(3)->flags, CONV_OUT | TPRECVONLY | TPNOTRAN);
    EXPECT_EQ(_get_active_tran_conv(block()), 2);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
}

TEST_F(Connect, OutsideOneItBelongsToNone)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY);
    EXPECT_EQ(row(CD)->flags & TPTRAN, 0u);
    open_transaction();
    EXPECT_EQ(_get_active_tran_conv(block()), 0);
}

TEST_F(Connect, ReplyBehindTheTransactionsTimeIsGivenUpSilently)
{
    ASSERT_TRUE(start());
    open_transaction();
    peer.play([&] {
        peer.expect(wire::TPCONNECT);
        peer.reply("", {.cd = CD});
    });
    faults::before(faults::RECV, 1, [&] { set_tx_state(block(), TX_STATE_TIMED_OUT); });
    EXPECT_EQ(connect(TPSENDONLY), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_TIMED_OUT);
    peer.done();
    expect_no_trace();
    expect_silence();  // the server isn't told
}

// ---- connections that fail

TEST_F(Connect, FailedSendReleasesTheRowAndLeavesTheTransaction)
{
    ASSERT_TRUE(start());
    open_transaction();
    const struct {
        int error, tperr;
    } cases[] = {{EPIPE, TPECLOSE}, {EAGAIN, TPEBLOCK}, {EIO, TPEOS}};
    for (const auto &row : cases) {
        faults::fail(faults::SEND, 1, row.error);
        EXPECT_EQ(connect(TPSENDONLY), -1);
        EXPECT_EQ(get_tperrno(), row.tperr);
        EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
        EXPECT_EQ(message_of(in)->magic, MESSAGE_MAGIC);
        expect_no_trace();
        faults::fail(faults::SEND, 1, row.error);
        EXPECT_EQ(tpconnect(svc("S"), nullptr, 0, TPSENDONLY), -1);
        expect_no_trace();
    }
    expect_silence();
}

TEST_F(Connect, ServersEndIsToldAndMarksTheTransaction)
{
    ASSERT_TRUE(start());
    open_transaction();
    txinfo_elem *record = block()->txinfo;
    peer.play([&] {
        peer.expect(wire::TPCONNECT);
        peer.hang_up();
    });
    EXPECT_EQ(connect(TPSENDONLY), -1);
    EXPECT_EQ(get_tperrno(), TPECLOSE);
    EXPECT_EQ(block()->txinfo, record);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK);
    EXPECT_EQ(block()->conv_active, 0);
}

TEST_F(Connect, WithoutMemoryNothingIsLeft)
{
    ASSERT_TRUE(start());
    for (bool with_data : {true, false}) {
        for (int nth = 1;; nth++) {
            ASSERT_LT(nth, 50);
            SCOPED_TRACE(nth);
            std::atomic<bool> ended{false};
            faults::fail_allocation(nth);
            peer.play([&] {
                wire::frame request;
                EXPECT_TRUE(faults::eventually([&] { return peer.something_came() || ended; }));
                if (peer.something_came() && peer.receive(&request))
                    peer.reply("", {.cd = CD});
            });
            int cd = tpconnect(svc("S"), with_data ? in : nullptr, 0, TPSENDONLY | TPNOTIME);
            ended = true;
            bool failed = faults::allocation_failed();
            faults::disarm_allocations();
            int error = get_tperrno();
            peer.done();
            expect_idle();
            if (cd >= 0) {
                EXPECT_EQ(cd, CD);
                EXPECT_EQ(tpdiscon(CD), 1);
                peer.expect(wire::TPDISCON).cd(CD);
            } else {
                EXPECT_TRUE(error == TPESYSTEM || error == TPEOS) << error;
                expect_no_trace();
                peer.hang_up();  // what the server has said may be half read
                tpend();
                ASSERT_TRUE(start());
            }
            if (!failed)
                break;
        }
    }
}

// ---- what else may come

TEST_F(Connect, AnyDescriptorThatIsNotNegativeWillDo)
{
    ASSERT_TRUE(start());
    for (int cd : {0, 1, 8, 0xffff, INT32_MAX}) {
        open(TPSENDONLY, cd);
        expect_may_send(cd);
        EXPECT_EQ(tpdiscon(cd), 1);
        peer.expect(wire::TPDISCON).cd(cd);
    }
}

TEST_F(Connect, NegativeDescriptorIsRefused)
{
    ASSERT_TRUE(start());
    for (int cd : {-1, -2, INT32_MIN + 1}) {
        peer.play([&] {
            peer.expect(wire::TPCONNECT);
            peer.reply("", {.cd = cd});
        });
        EXPECT_EQ(connect(TPSENDONLY), -1);
        EXPECT_EQ(get_tperrno(), TPESYSTEM);
        peer.done();
        expect_no_trace();
    }
    expect_silence();
}

TEST_F(Connect, DescriptorGivenTwiceHarmsNobody)
{
    ASSERT_TRUE(start());
    open(TPSENDONLY, CD);
    open(TPSENDONLY, CD);
    EXPECT_EQ(block()->conv_active, 2);
    for (int i = 0; i < 2; i++) {
        expect_may_send(CD);
        store({turn(CD, "whose?")});
        EXPECT_EQ(tpdiscon(CD), 1);
        peer.expect(wire::TPDISCON).cd(CD);
    }
    expect_gone(CD);
}

TEST_F(Connect, ReplysDataIsOfNoInterest)
{
    ASSERT_TRUE(start());
    for (size_t size : {(size_t)5, (size_t)9000}) {
        peer.play([&] {
            peer.expect(wire::TPCONNECT);
            peer.reply(std::string(size, 'd'), {.rcode = 8, .cd = CD});
        });
        EXPECT_EQ(connect(TPSENDONLY), CD);
        peer.done();
        EXPECT_STREQ(in, "hello");
        EXPECT_EQ(tpgetasize(in), 1024);
        EXPECT_EQ(tpdiscon(CD), 1);
        peer.expect(wire::TPDISCON);
    }
}

TEST_F(Connect, OthersMessagesAreKeptMeanwhile)
{
    ASSERT_TRUE(start());
    open(TPRECVONLY, 5);
    peer.play([&] {
        peer.expect(wire::TPACALL);
        wire::frame request = peer.last;
        peer.expect(wire::TPCONNECT);
        wire::frame connect = peer.last;
        peer.reply_to(request, "ANSWER");
        peer.send(turn(5, "for five"));
        peer.reply_to(connect, "", {.cd = CD});
    });
    int cd = acall();
    EXPECT_EQ(connect(TPSENDONLY), CD);
    peer.done();
    EXPECT_TRUE(stored(cd));
    EXPECT_EQ(receive(5), 1);
    EXPECT_EQ(reply_data(), "for five");
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), "ANSWER");
}

TEST_F(Connect, FirstMessageInTheReplysPacketIsReceived)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPCONNECT);
        peer.send_raw(wire::encode(wire::answer(peer.last, "", {.cd = CD})) +
                      wire::encode(turn(CD, "at once")) + wire::encode(ending(DONE, CD, 4)));
    });
    EXPECT_EQ(connect(TPRECVONLY), CD);
    EXPECT_EQ(receive(CD), 1);
    EXPECT_EQ(reply_data(), "at once");
    EXPECT_EQ(receive(CD), -1);
    EXPECT_EQ(event, TPEV_SVCSUCC);
    EXPECT_EQ(gettpurcode(), 4);
}
