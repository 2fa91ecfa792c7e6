// Notifications to one client, against the scripted peer.
#include "calls/eventapi.h"
#include "calls/fixture.h"
#include "calls/unsolapi.h"
#include "vorn/unsol.h"

namespace {

std::vector<std::string> handled;

void note_message(char *data, long length, long)
{
    handled.push_back(std::string(data, (size_t)length));
}

struct NotifyTest : CallTest {
    TPCLIENT_T id = {{42, 43, 44, 45}};

    int notify(char *data, long flags = 0) { return note(tpnotify(&id, data, 0, flags)); }
    void expect_refused(int result, int error)
    {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(get_tperrno(), error);
        peer.expect_nothing();
    }
    // For the peer's script: time runs while the call waits, which shows in that it comes back.
    void let_receipt_time_out(int seconds)
    {
        int before = finished;
        EXPECT_TRUE(faults::eventually([&] {
            faults::shift_clock(seconds);
            peer.send(wire::message(1017));  // no answer to anything, but it ends the sleep
            return finished != before;
        }));
    }
    bool start_limited(int seconds)
    {
        wire::start_reply reply;
        reply.block_time = seconds;
        return start(reply);
    }
};

}  // namespace

TEST_F(NotifyTest, MessageByteByByte)
{
    peer.recording = true;
    ASSERT_TRUE(start());
    EXPECT_EQ(notify(nullptr, TPNOTIME), 1);
    wire::frame e = peer.expect(14);
    wire::frame awaited;
    awaited.msgtype = 14;
    awaited.seqno = e.seqno;
    awaited.svcname = "_notify";
    awaited.flags = TPNOTIME;
    awaited.cd = 42;
    awaited.xflags = e.xflags;
    EXPECT_EQ(peer.received.substr(peer.received.size() - HEADER_SIZE), wire::encode(awaited));
    EXPECT_EQ(notify(in), 1);
    Expected with_data = peer.expect(14).svcname("_notify").cd(42).text("hello").flags(0).seqno(e.seqno + 1);
    with_data.buftype(wire::STRING);
    peer.expect_nothing();
    expect_idle();
}

TEST_F(NotifyTest, WithoutAcknowledgementItReturnsOnceSent)
{
    ASSERT_TRUE(start());
    set_tperrno(77);
    EXPECT_EQ(notify(in), 1);
    EXPECT_EQ(get_tperrno(), 0);
    peer.expect(14).flags(0);
    expect_usable();
}

TEST_F(NotifyTest, FlagsOfOthersAreRefused)
{
    ASSERT_TRUE(start());
    for (int bit = 0; bit < 64; bit++) {
        long flag = (long)(1UL << bit);
        if ((flag & 0x8023) == 0)
            expect_refused(notify(in, flag), TPEINVAL);
    }
    EXPECT_EQ(notify(in, 0x23), 1);
    peer.expect(14).flags(0x23);
}

TEST_F(NotifyTest, ArgumentsAreChecked)
{
    ASSERT_TRUE(start());
    expect_refused(tpnotify(nullptr, in, 0, 0), TPEINVAL);
    expect_refused(tpnotify(nullptr, in + 8, 0, 0), TPEINVAL);
    expect_refused(tpnotify(&id, in + 8, 0, TPNOREPLY), TPEINVAL);
    expect_refused(tpnotify(&id, in + 8, 0, 0), TPEITYPE);
    expect_refused(tpnotify(&id, in, 1L << 40, 0), TPEINVAL);
}

TEST_F(NotifyTest, WaitsForTheReceiptOnDemand)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(14).flags(TPNOTIFYACK).text("hello").cd(42);
        peer.reply("data that nobody asked for", {.rcode = 5});
    });
    EXPECT_EQ(notify(in, TPNOTIFYACK), 1);
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_STREQ(in, "hello");
    peer.done();
    expect_idle();
    expect_usable();
}

TEST_F(NotifyTest, ErrorReplyTellsTheReason)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(14);
        peer.reply("", {.msgtype = 2014, .flags = TPENOENT});
        peer.expect(14);
        peer.reply("", {.msgtype = 3014, .flags = TPELIMIT});
        peer.expect(14);
        peer.reply("", {.msgtype = 2014});
        peer.expect(14);
        peer.reply("", {.msgtype = 1014, .flags = TPENOENT});
    });
    EXPECT_EQ(notify(nullptr, TPNOTIFYACK), -1);
    EXPECT_EQ(get_tperrno(), TPENOENT);
    EXPECT_EQ(notify(nullptr, TPNOTIFYACK), -1);
    EXPECT_EQ(get_tperrno(), TPELIMIT);
    EXPECT_EQ(notify(nullptr, TPNOTIFYACK), -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    EXPECT_EQ(notify(nullptr, TPNOTIFYACK), 1);  // the type alone decides
    peer.done();
    expect_idle();
}

TEST_F(NotifyTest, BlockTimeEndsTheWaitForTheReceipt)
{
    ASSERT_TRUE(start_limited(5));
    peer.play([&] {
        peer.expect(14);
        let_receipt_time_out(6);
    });
    EXPECT_EQ(notify(in, TPNOTIFYACK), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    peer.done();
    expect_idle();
}

// Other than with calls, an open transaction doesn't lift the limit.
TEST_F(NotifyTest, BlockTimeCountsInATransactionToo)
{
    ASSERT_TRUE(start_limited(5));
    open_transaction();
    peer.play([&] {
        peer.expect(14);
        let_receipt_time_out(6);
    });
    EXPECT_EQ(notify(in, TPNOTIFYACK), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    peer.done();
    expect_idle();
}

TEST_F(NotifyTest, WithoutALimitItWaitsForever)
{
    ASSERT_TRUE(start_limited(5));
    peer.play([&] {
        for (int i = 0; i < 2; i++) {
            peer.expect(14);
            faults::shift_clock(1000 * (i + 1));
            peer.send(wire::message(1017));
            peer.reply();
        }
    });
    EXPECT_EQ(notify(in, TPNOTIFYACK | TPNOTIME), 1);
    block()->block_time = 0;
    EXPECT_EQ(notify(in, TPNOTIFYACK), 1);
    peer.done();
}

// One that arrives is no receipt of one that was sent.
TEST_F(NotifyTest, NotificationThatArrivesIsNotTheReceipt)
{
    ASSERT_TRUE(start());
    handled.clear();
    tpsetunsol(note_message);
    peer.play([&] {
        wire::frame request = peer.expect(14);
        peer.send(wire::message(14, "theirs", {.flags = TPNOTIFYACK, .seqno = request.seqno, .srcid = 9}));
        peer.expect(1014).cd(9);
        peer.reply_to(request);
    });
    EXPECT_EQ(notify(in, TPNOTIFYACK), 1);
    EXPECT_EQ(handled, std::vector<std::string>{"theirs"});
    peer.done();
}

TEST_F(NotifyTest, ServerThatDiesEndsTheWait)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(14);
        peer.hang_up();
    });
    EXPECT_EQ(notify(in, TPNOTIFYACK), -1);
    EXPECT_EQ(get_tperrno(), TPECLOSE);
    peer.done();
}

TEST_F(NotifyTest, FailedSendIsNotWaitedFor)
{
    ASSERT_TRUE(start());
    for (char *data : {in, (char *)nullptr}) {
        faults::fail(faults::SEND, 1, EPIPE);
        expect_refused(notify(data, TPNOTIFYACK), TPECLOSE);
    }
    expect_idle();
}

TEST_F(NotifyTest, OpensNoSession)
{
    EXPECT_EQ(notify(in), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_EQ(notify(nullptr, TPNOTIFYACK), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_TRUE(peer.nobody_knocks());
}

TEST_F(NotifyTest, ReceiptLeavesTpurcodeAlone)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.reply("x", {.rcode = 21});
        peer.expect(14);
        peer.reply("", {.rcode = 99});
    });
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(notify(nullptr, TPNOTIFYACK), 1);
    EXPECT_EQ(gettpurcode(), 21);
    peer.done();
}

TEST_F(NotifyTest, WithoutMemory)
{
    ASSERT_TRUE(start());
    faults::fail_allocation(1);  // the message
    expect_refused(notify(nullptr, TPNOTIFYACK), TPESYSTEM);
    faults::fail_allocation(2);  // what is to be awaited: the message is on its way by then
    EXPECT_EQ(notify(nullptr, TPNOTIFYACK), -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    EXPECT_TRUE(faults::allocation_failed());
    faults::disarm_allocations();
    peer.expect(14);
    expect_idle();
    expect_usable();
}
