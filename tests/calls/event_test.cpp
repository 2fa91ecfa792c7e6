// Subscriptions and posts against the scripted peer.
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

struct EventTest : CallTest {
    int subscribe(const char *name, long flags = 0) { return tpsubscribe(name, nullptr, nullptr, flags); }
    int post(char *data, long flags = 0) { return note(tppost("EV", data, 0, flags)); }
    void expect_refused(int result, int error)
    {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(get_tperrno(), error);
        peer.expect_nothing();
    }
    std::string last_header() { return peer.received.substr(peer.received.size() - HEADER_SIZE); }
    bool start_limited(int seconds)
    {
        wire::start_reply reply;
        reply.block_time = seconds;
        return start(reply);
    }
    // For the peer's script: messages of no use end the wait's sleep, so that it looks at the clock.
    void let_post_time_out(int seconds)
    {
        int before = finished;
        EXPECT_TRUE(faults::eventually([&] {
            faults::shift_clock(seconds);
            peer.send(wire::message(1017));
            return finished != before;
        }));
    }
};

}  // namespace

// --- Subscriptions.

TEST_F(EventTest, DescriptorsGoByTens)
{
    ASSERT_TRUE(start());
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(subscribe("EVENT"), 10 * i);
        peer.expect(15).svcname("EVENT").header_only().flags(0);
    }
    EXPECT_EQ(tpunsubscribe(10, TPNOTIME), 1);
    peer.expect(16).svcname("EVENT").header_only().flags(0x20);
    expect_refused(tpunsubscribe(10, 0), TPEINVAL);
    EXPECT_EQ(subscribe("EVENT2"), 30);
    peer.expect(15).svcname("EVENT2");
    for (int desc : {-1, 11, 40, 1 << 30, INT32_MIN, INT32_MAX})
        expect_refused(tpunsubscribe(desc, 0), TPEINVAL);
    EXPECT_STREQ(_get_event_name(0, block()), "EVENT");
    EXPECT_STREQ(_get_event_name(30, block()), "EVENT2");
    for (int desc : {-1, 1, 10, 40})
        EXPECT_EQ(_get_event_name(desc, block()), nullptr) << desc;
    EXPECT_EQ(block()->subscr_count, 0);
    EXPECT_EQ(block()->subscr_size, 40);
    expect_idle();
    expect_usable();
}

TEST_F(EventTest, SubscribeByteByByte)
{
    peer.recording = true;
    ASSERT_TRUE(start());
    wire::frame awaited;
    EXPECT_EQ(subscribe("EVENT", 0x23), 0);
    awaited.msgtype = 15;
    awaited.svcname = "EVENT";
    awaited.flags = 0x23;
    awaited.seqno = peer.expect(15).frame.seqno;
    EXPECT_NE(awaited.seqno, 0);
    EXPECT_EQ(last_header(), wire::encode(awaited));

    EXPECT_EQ(tpsubscribe2("EVENT2", "0123456789abcdefgh", TPNOTIME), 10);
    peer.expect(40).seqno(awaited.seqno + 1);
    awaited.msgtype = 40;
    awaited.svcname = "EVENT2";
    awaited.subtype = "0123456789abcde";
    awaited.flags = TPNOTIME;
    awaited.seqno++;
    EXPECT_EQ(last_header(), wire::encode(awaited));
    EXPECT_EQ(last_header()[67], '\0');

    EXPECT_EQ(tpunsubscribe(10, TPNOBLOCK), 1);
    wire::frame e = peer.expect(16).seqno(awaited.seqno + 1);
    awaited.msgtype = 16;
    awaited.subtype = "";
    awaited.flags = TPNOBLOCK;
    awaited.seqno++;
    awaited.xflags = e.xflags;
    EXPECT_EQ(last_header(), wire::encode(awaited));
    peer.expect_nothing();
}

TEST_F(EventTest, NamesHaveThirtyCharacters)
{
    ASSERT_TRUE(start());
    std::string name(31, 'e'), fits(30, 'e');
    expect_refused(subscribe(name.c_str()), TPEINVAL);
    expect_refused(tpsubscribe2(name.c_str(), "x", 0), TPEINVAL);
    expect_refused(tppost(name.c_str(), nullptr, 0, 0), TPEINVAL);
    expect_refused(subscribe(std::string(5000, 'e').c_str()), TPEINVAL);
    expect_refused(subscribe(nullptr), TPEINVAL);
    expect_refused(tpsubscribe2(nullptr, "x", 0), TPEINVAL);
    expect_refused(tppost(nullptr, nullptr, 0, 0), TPEINVAL);
    peer.play([&] {
        peer.expect(15).svcname(fits);
        peer.expect(40).svcname(fits);
        peer.expect(12).svcname(fits);
        peer.reply();
        peer.expect(16).svcname(fits);
    });
    EXPECT_EQ(subscribe(fits.c_str()), 0);
    EXPECT_EQ(tpsubscribe2(fits.c_str(), "x", 0), 10);
    EXPECT_EQ(tppost(fits.c_str(), nullptr, 0, 0), 1);
    EXPECT_STREQ(_get_event_name(10, block()), fits.c_str());
    EXPECT_EQ(tpunsubscribe(10, 0), 1);
    peer.done();
}

TEST_F(EventTest, FlagsOfOthersAreRefused)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(subscribe("E"), 0);
    peer.expect(15);
    for (int bit = 0; bit < 64; bit++) {
        long flag = (long)(1UL << bit);
        if ((flag & 0x2F) == 0)
            expect_refused(post(nullptr, flag), TPEINVAL);
        if ((flag & 0x23) != 0)
            continue;
        expect_refused(subscribe("E", flag), TPEINVAL);
        expect_refused(tpsubscribe2("E", "x", flag), TPEINVAL);
        expect_refused(tpunsubscribe(0, flag), TPEINVAL);
    }
    EXPECT_EQ(tpunsubscribe(0, 0x23), 1);
    peer.expect(16).flags(0x23);
}

TEST_F(EventTest, ControlBlockIsRefusedAndFilterNotLookedAt)
{
    ASSERT_TRUE(start());
    char control[64] = "";
    std::string name(31, 'e');
    expect_refused(tpsubscribe("E", nullptr, control, 0), TPEPROTO);
    expect_refused(tpsubscribe(name.c_str(), nullptr, control, 0), TPEINVAL);
    expect_refused(tpsubscribe("E", nullptr, control, TPNOREPLY), TPEINVAL);
    EXPECT_EQ(tpsubscribe("E", (const char *)16, nullptr, 0), 0);
    peer.expect(15).header_only();
    expect_refused(tpsubscribe2("E", nullptr, 0), TPEINVAL);
    EXPECT_EQ(tpsubscribe2("E", "", 0), 10);
    EXPECT_EQ(peer.expect(40).frame.subtype, "");
}

TEST_F(EventTest, NamesStandWhileTheTableGrows)
{
    ASSERT_TRUE(start());
    for (int i = 0; i < 30; i++) {
        std::string name = "EVENT" + std::to_string(i);
        ASSERT_EQ(subscribe(name.c_str()), 10 * i);
        peer.expect(15).svcname(name);
    }
    for (int i = 29; i >= 0; i--) {
        EXPECT_EQ(tpunsubscribe(10 * i, 0), 1);
        peer.expect(16).svcname("EVENT" + std::to_string(i));
    }
    EXPECT_EQ(subscribe("AGAIN"), 300);
}

TEST_F(EventTest, RowsAreReleasedByNumber)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(_make_subscr_desc("ONE", block()), 0);
    EXPECT_EQ(_make_subscr_desc("TWO", block()), 10);
    EXPECT_EQ(_delete_subscr_desc(0, block()), 1);
    EXPECT_EQ(_get_event_name(0, block()), nullptr);
    EXPECT_STREQ(_get_event_name(10, block()), "TWO");
    EXPECT_EQ(_delete_subscr_desc(0, block()), 1);
    EXPECT_EQ(_delete_subscr_desc(19, block()), 1);
    for (int desc : {-1, 20, INT32_MAX, INT32_MIN})
        EXPECT_EQ(_delete_subscr_desc(desc, block()), -1) << desc;
}

// A count that is set lets the search find a row that is free, and never one behind the table.
TEST_F(EventTest, SearchLooksAtAsManyRowsAsAreCounted)
{
    ASSERT_TRUE(start());
    block()->subscr_count = 1000;
    EXPECT_EQ(_make_subscr_desc("ONE", block()), 0);
    EXPECT_EQ(_make_subscr_desc("TWO", block()), 1);
    EXPECT_EQ(_delete_subscr_desc(0, block()), 1);
    EXPECT_EQ(_make_subscr_desc("THREE", block()), 0);
    block()->subscr_count = 0;
    EXPECT_EQ(_make_subscr_desc("FOUR", block()), 10);
}

TEST_F(EventTest, RefusedSendSubscribesToNothing)
{
    ASSERT_TRUE(start());
    faults::fail(faults::SEND, 1, EPIPE);
    expect_refused(subscribe("E"), TPECLOSE);
    faults::fail(faults::SEND, 1, EPIPE);
    expect_refused(tpsubscribe2("E", "x", 0), TPECLOSE);
    EXPECT_EQ(block()->subscr_size, 0);
    EXPECT_EQ(subscribe("E"), 0);
    peer.expect(15);
    expect_idle();
}

TEST_F(EventTest, UnsubscribeReleasesTheRowEvenIfTheSendFails)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(subscribe("E"), 0);
    peer.expect(15);
    faults::fail_allocation(1);
    expect_refused(tpunsubscribe(0, 0), TPESYSTEM);
    faults::disarm_allocations();
    EXPECT_STREQ(_get_event_name(0, block()), "E");
    faults::fail(faults::SEND, 1, EPIPE);
    expect_refused(tpunsubscribe(0, 0), TPECLOSE);
    expect_refused(tpunsubscribe(0, 0), TPEINVAL);
    EXPECT_EQ(subscribe("E"), 10);
}

TEST_F(EventTest, SubscribeWithoutMemory)
{
    ASSERT_TRUE(start());
    faults::fail_allocation(1);  // the message
    expect_refused(subscribe("E"), TPESYSTEM);
    faults::fail_allocation(1);
    expect_refused(tpsubscribe2("E", "x", 0), TPESYSTEM);
    EXPECT_FALSE(log.has("CSC5104"));
    faults::fail_allocation(2);  // the table: the server has heard of the subscription by then
    EXPECT_EQ(subscribe("E"), -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    peer.expect(15);
    EXPECT_TRUE(log.has("(E) CLI 0004 memory allocation error : size = 360 [CSC5104]")) << log.text();
    faults::disarm_allocations();
    EXPECT_EQ(subscribe("E"), 0);
    faults::fail_allocation(2);
    EXPECT_EQ(subscribe("F"), -1);
    EXPECT_TRUE(log.has("size = 720 [CSC5104]"));
    EXPECT_STREQ(_get_event_name(0, block()), "E");
    expect_idle();
}

TEST_F(EventTest, SubscriptionsEndWithTheSession)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(subscribe("E"), 0);
    EXPECT_EQ(subscribe("F"), 10);
    peer.expect(15), peer.expect(15);
    peer.play([&] { peer.serve_end(); });
    EXPECT_EQ(tpend(), 1);
    peer.done();
    ASSERT_TRUE(start());
    expect_refused(tpunsubscribe(0, 0), TPEINVAL);
    EXPECT_EQ(subscribe("G"), 0);
}

TEST_F(EventTest, EachOpensASession)
{
    peer.play([&] {
        for (int type : {15, 40, 0, 12}) {
            peer.accept_start();
            if (type != 0)
                peer.expect(type);
            if (type == 12)
                peer.reply("", {.rcode = 3});
            peer.serve_end();
        }
    });
    EXPECT_EQ(subscribe("EV"), 0);
    EXPECT_EQ(tpend(), 1);
    EXPECT_EQ(tpsubscribe2("EV", "x", 0), 0);
    EXPECT_EQ(tpend(), 1);
    EXPECT_EQ(tpunsubscribe(0, 0), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(tpend(), 1);
    EXPECT_EQ(post(in), 1);
    EXPECT_EQ(tpend(), 1);
    peer.done();
}

TEST_F(EventTest, NoServerNoSession)
{
    peer.stop_listening();
    setenv("VORN_CONNECT_TIMEOUT", "0.1", 1);
    EXPECT_EQ(subscribe("EV"), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_EQ(tpsubscribe2("EV", "x", 0), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_EQ(tpunsubscribe(0, 0), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_EQ(post(in), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
}

TEST_F(EventTest, ThreadsGetDescriptorsOfTheirOwn)
{
    constexpr int THREADS = 4, EACH = 25;
    ASSERT_TRUE(start({}, true));
    int number = context();
    peer.play([&] {
        wire::frame message;
        for (int i = 0; i < 2 * THREADS * EACH; i++)
            ASSERT_TRUE(peer.receive(&message));
    });
    std::atomic<int> sum{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; t++)
        threads.emplace_back([&] {
            tpsetctxt(number, 0);
            for (int n = 0; n < EACH; n++) {
                int desc = subscribe("EVENT");
                EXPECT_EQ(desc % 10, 0);
                sum += desc;
                EXPECT_EQ(tpunsubscribe(desc, 0), 1);
            }
            tpsetctxt(TPNULLCONTEXT, 0);
        });
    for (std::thread &thread : threads)
        thread.join();
    peer.done();
    int rows = THREADS * EACH;
    EXPECT_EQ(sum, 10 * rows * (rows - 1) / 2);
    EXPECT_EQ(block()->subscr_size, 10 * rows);
}

// --- Posts.

TEST_F(EventTest, PostByteByByte)
{
    peer.recording = true;
    ASSERT_TRUE(start());
    peer.play([&] {
        wire::frame e = peer.expect(12);
        wire::frame awaited;
        awaited.msgtype = 12;
        awaited.seqno = e.seqno;
        awaited.svcname = "EV";
        awaited.flags = 0x2F;
        awaited.xflags = e.xflags;
        EXPECT_NE(e.seqno, 0);
        EXPECT_EQ(last_header(), wire::encode(awaited));
        peer.reply("", {.rcode = 0});
    });
    EXPECT_EQ(post(nullptr, 0x2F), 1);
    peer.done();
    peer.expect_nothing();
    expect_idle();
}

TEST_F(EventTest, PostSendsTheCallersBuffer)
{
    ASSERT_TRUE(start());
    msg_header *header = message_of(in);
    header->rcode = 5, header->target = 6, header->cd = 7, header->flags = 0x80;
    char *bytes = new_buffer("CARRAY", "0123456789");
    peer.play([&] {
        Expected e = peer.expect(12).svcname("EV").text("hello").flags(TPNOTIME).cd(0);
        EXPECT_EQ(e.frame.rcode, 0);
        EXPECT_EQ(e.frame.target, 0);
        peer.reply("data that nobody asked for");
        peer.expect(12).data("0123").buftype(wire::CARRAY).seqno(e.frame.seqno + 1);
        peer.reply();
    });
    EXPECT_EQ(post(in, TPNOTIME), 1);
    EXPECT_STREQ(in, "hello");
    EXPECT_EQ(tppost("EV", bytes, 4, 0), 1);
    peer.done();
    tpfree(bytes);
}

TEST_F(EventTest, PostWaitsAlsoWithNoreply)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(12).svcname("EV").text("hello").flags(TPNOREPLY).cd(0);
        EXPECT_EQ(finished, 0);
        peer.reply("", {.rcode = 9});
        peer.expect(12).svcname("EV").header_only();
        peer.reply("", {.rcode = -1});
        peer.expect(12);
        peer.reply("", {.msgtype = 2012, .rcode = 4});
    });
    EXPECT_EQ(post(in, TPNOREPLY), 1) << get_tperrno();
    EXPECT_EQ(gettpurcode(), 9);
    EXPECT_EQ(post(nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    EXPECT_EQ(gettpurcode(), 9);
    EXPECT_EQ(post(nullptr), 1);  // the return code alone decides
    EXPECT_EQ(gettpurcode(), 4);
    peer.done();
    expect_idle();
}

TEST_F(EventTest, PostChecksItsArgumentsInOrder)
{
    ASSERT_TRUE(start());
    std::string name(31, 'e');
    expect_refused(tppost(name.c_str(), in + 8, 0, 0), TPEINVAL);
    expect_refused(tppost("EV", in + 8, 0, 0x10), TPEINVAL);
    expect_refused(tppost("EV", in + 8, 0, 0), TPEITYPE);
    expect_refused(tppost("EV", in, message_of(in)->bufsize + 1, 0), TPEINVAL);
    for (long length : {1L << 31, 1L << 40, -(1L << 40) - 1})
        EXPECT_EQ(tppost("EV", nullptr, length, 0x10), -1);
    char *bytes = new_buffer("CARRAY", "0123456789");
    for (long length : {-1L, 1L << 31, 1L << 32, -(1L << 40), (long)message_of(bytes)->bufsize + 1})
        expect_refused(tppost("EV", bytes, length, 0), TPEINVAL);
    tpfree(bytes);
}

TEST_F(EventTest, BlockTimeEndsThePost)
{
    ASSERT_TRUE(start_limited(5));
    peer.play([&] {
        wire::frame request = peer.expect(12);
        let_post_time_out(6);
        peer.reply_to(request);
    });
    EXPECT_EQ(post(in), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    peer.done();
    expect_usable();  // the late answer is dropped
    expect_idle();
    EXPECT_EQ(log.lines(), 0) << log.text();
}

TEST_F(EventTest, PostWithoutALimitWaitsForever)
{
    ASSERT_TRUE(start_limited(5));
    peer.play([&] {
        for (int i = 0; i < 3; i++) {
            peer.expect(12);
            faults::shift_clock(1000 * (i + 1));
            peer.send(wire::message(1017));
            peer.reply();
        }
    });
    EXPECT_EQ(post(in, TPNOTIME), 1);
    open_transaction();
    EXPECT_EQ(post(in), 1);
    block()->txinfo->tx_active = 0;
    set_tx_state(block(), TX_STATE_NONE);
    block()->block_time = 0;
    EXPECT_EQ(post(in), 1);
    peer.done();
}

// An event that arrives is no answer to one that was posted.
TEST_F(EventTest, PostThatArrivesIsNotTheAnswer)
{
    ASSERT_TRUE(start());
    handled.clear();
    tpsetunsol(note_message);
    peer.play([&] {
        wire::frame request = peer.expect(12);
        peer.send(wire::message(12, "theirs", {.seqno = request.seqno}));
        peer.reply_to(request, "", {.rcode = 5});
    });
    EXPECT_EQ(post(in), 1);
    EXPECT_EQ(gettpurcode(), 5);
    EXPECT_EQ(handled, std::vector<std::string>{"theirs"});
    peer.done();
}

TEST_F(EventTest, ServerThatDiesEndsThePost)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(12);
        peer.hang_up();
    });
    EXPECT_EQ(post(in), -1);
    EXPECT_EQ(get_tperrno(), TPECLOSE);
    peer.done();
}

TEST_F(EventTest, FailedSendIsNotWaitedFor)
{
    ASSERT_TRUE(start());
    for (char *data : {in, (char *)nullptr}) {
        faults::fail(faults::SEND, 1, EPIPE);
        expect_refused(post(data), TPECLOSE);
    }
    expect_idle();
    EXPECT_STREQ(in, "hello");
}

TEST_F(EventTest, PostWithoutMemory)
{
    ASSERT_TRUE(start());
    faults::fail_allocation(1);  // the message
    expect_refused(post(nullptr), TPESYSTEM);
    faults::fail_allocation(2);  // what is to be awaited
    EXPECT_EQ(post(nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    faults::disarm_allocations();
    peer.expect(12);
    peer.reply();
    expect_usable();
    expect_idle();
}
