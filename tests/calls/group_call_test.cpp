// Calls to one server group or server: tpcallsvg, tpacallsvg, tpspracall, tpspracall2.
#include "calls/groups.h"

namespace {

using GroupCall = GroupTest;
using ServerCall = GroupTest;

constexpr uint32_t TO_A_GROUP = 0x800000, TO_A_SERVER = 0x100000;

}  // namespace

// ---- tpcallsvg

TEST_F(GroupCall, CarriesTheGroup)
{
    ASSERT_TRUE(open());
    int seqno = block()->seqno;
    peer.play([&] {
        Expected came = peer.expect(wire::TPCALL).text("hello");
        expect_header(came,
                      identified(request(wire::TPCALL, "SVC", 0x20 | TO_A_GROUP, 0x10005, seqno + 1, 0), 1));
        peer.reply("DONE", {.rcode = 77});
    });
    EXPECT_EQ(callsvg(0x10005, TPNOTIME), 1);
    peer.done();
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(gettpurcode(), 77);
    EXPECT_EQ(reply_data(), "DONE");
    expect_idle();
}

TEST_F(GroupCall, ZeroIsAGroup)
{
    ASSERT_TRUE(open());
    int seqno = block()->seqno;
    peer.play([&] {
        Expected came = peer.expect(wire::TPCALL);
        expect_header(came, identified(request(wire::TPCALL, "SVC", TO_A_GROUP, 0, seqno + 1, 0), 1));
        peer.reply("x");
    });
    EXPECT_EQ(callsvg(0), 1);
    peer.done();
}

TEST_F(GroupCall, NegativeGroupIsAPlainCall)
{
    ASSERT_TRUE(open());
    int seqno = block()->seqno, nth = 0;
    peer.play([&] {
        for (int i = 1; i <= 2; i++) {
            Expected came = peer.expect(wire::TPCALL);
            expect_header(came, identified(request(wire::TPCALL, "SVC", 0, 0, seqno + i, 0), (uint32_t)i));
            peer.reply("x");
        }
    });
    for (int group : {-1, INT32_MIN})
        EXPECT_EQ(callsvg(group), 1) << nth++;
    peer.done();
}

TEST_F(GroupCall, MaskOfTheFlags)
{
    ASSERT_TRUE(open());
    for (int bit = 0; bit < 63; bit++) {
        long flag = 1L << bit;
        SCOPED_TRACE(bit);
        set_tperrno(0);
        if (flag & 0x12b) {
            peer.play([&] {
                peer.expect(wire::TPCALL).flags((uint32_t)flag | TO_A_GROUP);
                peer.reply("x");
            });
            EXPECT_EQ(callsvg(5, flag), 1);
            peer.done();
        } else {
            EXPECT_EQ(callsvg(5, flag), -1);
            EXPECT_EQ(gettperrno(), TPEINVAL);
        }
    }
    peer.expect_nothing();
}

TEST_F(GroupCall, ErrorsComeInTheirOrder)
{
    ASSERT_TRUE(open({.nodes = {"N0", "N1"}, .server_name = "SPECIAL"}));
    alignas(8) char foreign[300] = {};
    char *bad = foreign + 136, *none = nullptr;
    const struct {
        char *data, **reply;
        long *length;
        long flags;
        const char *name;
        int stage, state, error;
    } cases[] = {
        {bad, &none, &len, 4, "S", 1, 1, TPEINVAL},     {bad, &out, nullptr, 4, "S", 1, 1, TPEINVAL},
        {bad, nullptr, &len, 0, "S", 1, 1, TPEINVAL},   {bad, &bad, &len, 4, "S", 1, 1, TPEINVAL},
        {bad, &bad, &len, 0, "S", 1, 1, TPEOTYPE},      {bad, &out, &len, 0, "S", 1, 1, TPEITYPE},
        {in, &out, &len, 0, "SPECIAL", 1, 1, TPETIME},  {in, &out, &len, 0, "SPECIAL", 1, 2, TPEPROTO},
        {in, &out, &len, 8, "SPECIAL", 1, 1, TPEINVAL},
    };
    int number = 0, seqno = block()->seqno;
    for (const auto &row : cases) {
        SCOPED_TRACE(number++);
        open_transaction(row.stage, row.state);
        set_tperrno(0);
        EXPECT_EQ(tpcallsvg(5, svc(row.name), row.data, 0, row.reply, row.length, row.flags), -1);
        EXPECT_EQ(gettperrno(), row.error);
        EXPECT_EQ(tx_state_of(block()), row.state);
    }
    EXPECT_EQ(block()->seqno, seqno);
    peer.expect_nothing();
    block()->txinfo->tx_stage = 0;
    expect_idle();
}

TEST_F(GroupCall, FailedServiceDeliversItsData)
{
    ASSERT_TRUE(open());
    open_transaction();
    peer.play([&] {
        peer.expect(wire::TPCALL).flags(TO_A_GROUP);
        peer.reply("sorry", {.rcode = 4, .flags = TPESVCFAIL});
        peer.expect(wire::TPCALL);
        peer.reply("odd", {.msgtype = 3003});
    });
    EXPECT_EQ(callsvg(5), -1);
    EXPECT_EQ(gettperrno(), TPESVCFAIL);
    EXPECT_EQ(gettpurcode(), 4);
    EXPECT_EQ(reply_data(), "sorry");
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK);
    open_transaction();
    EXPECT_EQ(callsvg(5), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ROLLBACK);
    block()->txinfo->tx_stage = 0;
    peer.done();
}

TEST_F(GroupCall, BlockTimeEndsTheWait)
{
    ASSERT_TRUE(open({.block_time = 30}));
    wire::frame late;
    peer.play([&] {
        late = peer.expect(wire::TPCALL).frame;
        let_time_run_out(31);
        peer.reply_to(late, "LATE");
    });
    EXPECT_EQ(note(callsvg(5)), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    peer.done();
    expect_usable();
}

TEST_F(GroupCall, FirstOneOpensTheSession)
{
    peer.play([&] {
        peer.accept_start();
        peer.expect(wire::TPCALL).svcname("SVC");
        peer.reply("x");
        peer.serve_end();
        peer.accept_start();
        EXPECT_EQ(peer.expect(wire::TPACALL).cd(1).frame.target, 6);
        peer.serve_end();
        peer.accept_start();
        EXPECT_EQ(peer.expect(wire::TPACALL).cd(1).frame.target, 7);
        peer.serve_end();
    });
    EXPECT_EQ(callsvg(5), 1);
    EXPECT_EQ(tpend(), 1);
    EXPECT_EQ(acallsvg(6), 1);
    EXPECT_EQ(tpend(), 1);
    EXPECT_EQ(tpspracall(svc("SVC"), 7, in, 0, 0), 1);
    EXPECT_EQ(tpend(), 1);
    peer.done();
}

TEST_F(GroupCall, GroupDoesNotStayInTheBuffer)
{
    ASSERT_TRUE(open());
    int seqno = block()->seqno;
    peer.play([&] {
        peer.expect(wire::TPACALL);
        expect_header(peer.expect(wire::TPACALL),
                      identified(request(wire::TPACALL, "SVC", 0, 0, seqno + 2, 2), 2));
    });
    EXPECT_EQ(acallsvg(5), 1);
    EXPECT_EQ(tpacall(svc("SVC"), in, 0, 0), 2);
    peer.done();
}

// In a system of several nodes the service of the transaction processing wants its node in the data, group or
// not.
TEST_F(GroupCall, SpecialServiceWantsItsNodeAllTheSame)
{
    ASSERT_TRUE(open({.nodes = {"N0", "N1"}, .server_name = "SPECIAL"}));
    EXPECT_EQ(tpcallsvg(5, svc("SPECIAL"), in, 0, &out, &len, 0), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    EXPECT_EQ(tpacallsvg(5, svc("SPECIAL"), in, 0, 0), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    EXPECT_EQ(block()->acall_active, 0);
    peer.expect_nothing();
}

// ---- tpacallsvg

TEST_F(GroupCall, AsynchronousOneCarriesGroupAndDescriptor)
{
    ASSERT_TRUE(open());
    int seqno = block()->seqno;
    peer.play([&] {
        for (int i = 1; i <= 2; i++) {
            wire::frame want = request(wire::TPACALL, "SVC", 0x22 | TO_A_GROUP, 40 + i, seqno + i, i);
            expect_header(peer.expect(wire::TPACALL).text("hello"), identified(want, (uint32_t)i));
            peer.reply("REPLY " + std::to_string(i), {.rcode = i});
        }
        wire::frame plain = request(wire::TPACALL, "SVC", 0, 0, seqno + 3, 3);
        expect_header(peer.expect(wire::TPACALL), identified(plain, 3));
        wire::frame silent = request(wire::TPACALL, "SVC", TPNOREPLY | TO_A_GROUP, 44, seqno + 4, 0);
        expect_header(peer.expect(wire::TPACALL), identified(silent, 3));  // of the buffer's last request
        wire::frame empty = bare(wire::TPACALL, "SVC");
        empty.flags = TO_A_GROUP, empty.target = 45, empty.seqno = seqno + 5, empty.cd = 4, empty.prio = 50;
        expect_header(peer.expect(wire::TPACALL), identified(empty, 4));
    });
    set_tperrno(TPESVRDOWN);
    EXPECT_EQ(acallsvg(41, 0x22), 1);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(acallsvg(42, 0x22), 2);
    EXPECT_EQ(acallsvg(-1), 3);
    EXPECT_EQ(acallsvg(44, TPNOREPLY), 0);
    EXPECT_EQ(tpacallsvg(45, svc("SVC"), nullptr, 0, 0), 4);
    peer.done();
    for (int cd : {2, 1}) {
        EXPECT_EQ(getrply(&cd), 1);
        EXPECT_EQ(reply_data(), "REPLY " + std::to_string(cd));
        EXPECT_EQ(gettpurcode(), cd);
    }
    EXPECT_EQ(block()->acall_active, 2);
    expect_idle();
}

TEST_F(GroupCall, MaskOfTheAsynchronousOneKnowsNoException)
{
    ASSERT_TRUE(open({.acall_size = 64}));
    for (int bit = 0; bit < 63; bit++) {
        long flag = 1L << bit;
        SCOPED_TRACE(bit);
        if (flag == TPBLOCK)
            continue;
        set_tperrno(0);
        if (flag & 0x62f) {
            peer.play([&] { peer.expect(wire::TPACALL).flags((uint32_t)flag | TO_A_GROUP); });
            EXPECT_GE(acallsvg(5, flag), 0);
            peer.done();
        } else {
            EXPECT_EQ(acallsvg(5, flag), -1);
            EXPECT_EQ(gettperrno(), TPEINVAL);
            EXPECT_EQ(acallsvg(-1, flag), -1);
            EXPECT_EQ(acallsvg(5, flag | TO_A_SERVER), -1);
        }
    }
    peer.expect_nothing();
}

TEST_F(GroupCall, AsynchronousErrorsComeInTheirOrder)
{
    ASSERT_TRUE(open({.acall_size = 1, .nodes = {"N0", "N1"}, .server_name = "SPECIAL"}));
    peer.play([&] { peer.expect(wire::TPACALL); });
    ASSERT_EQ(acallsvg(5), 1);
    peer.done();
    alignas(8) char foreign[300] = {};
    char *bad = foreign + 136;
    const struct {
        char *data;
        long len, flags;
        const char *name;
        int stage, state, error;
    } cases[] = {
        {bad, 0, 0x100 | TPNOREPLY, "S", 1, 0, TPEINVAL},
        {bad, 0, TPNOREPLY, "S", 1, 0, TPEPROTO},
        {bad, 0, 0, "S", 1, 1, TPEITYPE},
        {in, 5000, 0, "S", 1, 1, TPEINVAL},
        {in, 0, 0, "S", 1, 1, TPETIME},
        {in, 0, 0, "SPECIAL", 0, -1, TPELIMIT},
        {nullptr, 0, 0, "S", 0, -1, TPELIMIT},
        {in, 0, TPNOREPLY, "SPECIAL", 0, -1, TPEINVAL},
    };
    int number = 0, seqno = block()->seqno;
    for (const auto &row : cases) {
        SCOPED_TRACE(number++);
        open_transaction(row.stage, row.state);
        set_tperrno(0);
        EXPECT_EQ(tpacallsvg(5, svc(row.name), row.data, row.len, row.flags), -1);
        EXPECT_EQ(gettperrno(), row.error);
        EXPECT_EQ(tx_state_of(block()), row.state);
    }
    EXPECT_EQ(block()->seqno, seqno);
    EXPECT_EQ(block()->acall_active, 1);
    peer.expect_nothing();
    block()->txinfo->tx_stage = 0;
    expect_idle();
}

TEST_F(GroupCall, FailedSendGivesTheDescriptorBack)
{
    ASSERT_TRUE(open());
    const struct {
        int error, tperr;
    } cases[] = {{EPIPE, TPECLOSE}, {EAGAIN, TPEBLOCK}, {EIO, TPEOS}};
    for (const auto &row : cases) {
        faults::fail(faults::SEND, 1, row.error);
        EXPECT_EQ(acallsvg(5), -1);
        EXPECT_EQ(gettperrno(), row.tperr);
        EXPECT_EQ(block()->acall_active, 0);
        expect_idle();
    }
}

TEST_F(GroupCall, ReceiptIsAwaited)
{
    ASSERT_TRUE(open());
    peer.play([&] {
        wire::frame asked = peer.expect(wire::TPACALL).flags(TPBLOCK | TO_A_GROUP).cd(1).frame;
        peer.reply("", {.msgtype = 1028});
        peer.reply_to(asked, "THE REPLY");
        peer.expect(wire::TPACALL).cd(2);
        peer.reply("", {.msgtype = 2028, .flags = TPENOENT});
    });
    int cd = acallsvg(5, TPBLOCK);
    EXPECT_EQ(cd, 1);
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), "THE REPLY");
    EXPECT_EQ(acallsvg(5, TPBLOCK), -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
    EXPECT_EQ(block()->acall_active, 0);
    peer.done();
    expect_idle();
}

TEST_F(GroupCall, AsynchronousOneJoinsTheTransaction)
{
    ASSERT_TRUE(open());
    open_transaction(TX_STAGE_BEGUN);
    peer.play([&] {
        peer.expect(wire::TPACALL).flags(0x4000000 | TO_A_GROUP);
        peer.expect(wire::TPACALL).flags(TPNOTRAN | TO_A_GROUP);
    });
    EXPECT_EQ(acallsvg(5), 1);
    EXPECT_EQ(acallsvg(5, TPNOTRAN), 2);
    peer.done();
    EXPECT_EQ(_get_active_tran_acall(block()), 1);
    EXPECT_EQ(tpcancel(1), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    EXPECT_EQ(tpcancel(2), 1);
    block()->txinfo->tx_stage = 0;
}

TEST_F(GroupCall, PriorityIsUsedUp)
{
    ASSERT_TRUE(open());
    peer.play([&] {
        for (int prio : {9, 50, 7, 50}) {
            wire::frame message;
            ASSERT_TRUE(peer.receive(&message));
            EXPECT_EQ(message.prio, prio);
            if (message.msgtype == wire::TPCALL)
                peer.reply("x");
        }
    });
    EXPECT_EQ(tpsprio(9, TPABSOLUTE), 1);
    EXPECT_EQ(acallsvg(5), 1);
    EXPECT_EQ(acallsvg(5), 2);
    EXPECT_EQ(tpsprio(7, TPABSOLUTE), 1);
    EXPECT_EQ(callsvg(5), 1);
    EXPECT_EQ(callsvg(5), 1);
    peer.done();
}

// ---- tpspracall, tpspracall2

TEST_F(ServerCall, CombinationsOfServerProcessAndReply)
{
    ASSERT_TRUE(open());
    const struct {
        int server, process;  // -2: by tpspracall
        long flags;
        int target;
        uint32_t xflags;
        uint32_t first;  // word of the call identity
    } cases[] = {
        {33, -2, TPNOREPLY, 33, wire::TO_GROUP, 0},
        {33, -2, 0, 33, wire::TO_GROUP, 1},
        {34, -1, TPNOREPLY, 34, wire::TO_GROUP, 0},
        {34, -1, 0, 34, wire::TO_GROUP, 1},
        {0, 5, TPNOREPLY, 0, wire::TO_PROCESS, 5},
        {0, 5, 0, 0, wire::TO_PROCESS, 1},
        {35, 0, TPNOREPLY, 35, wire::TO_PROCESS, 0},
        {-1, 5, 0, 0, 0, 1},
        {-1, -1, TPNOREPLY, 0, 0, 0},
        {-1, -2, 0, 0, 0, 1},
        {INT32_MIN, 5, TPNOREPLY, 0, 0, 0},
        {36, -7, TPNOREPLY, 36, wire::TO_PROCESS, (uint32_t)-7},
    };
    int number = 0, cd = 0, seqno = block()->seqno;
    for (const auto &row : cases) {
        SCOPED_TRACE(number++);
        bool replied = row.flags == 0;
        peer.play([&] {
            wire::frame want = bare(wire::TPACALL, "SVC");
            want.flags = (uint32_t)row.flags | TO_A_SERVER;
            want.target = row.target;
            want.prio = 50;
            want.seqno = seqno + number;
            want.xflags |= row.xflags;
            if (replied) {
                want.cd = cd + 1;
                want = identified(want, (uint32_t)want.cd);
            }
            want.callid[0] = row.first;
            expect_header(peer.expect(wire::TPACALL), want);
        });
        int result = row.process == -2
                         ? tpspracall(svc("SVC"), row.server, nullptr, 0, row.flags)
                         : tpspracall2(svc("SVC"), row.server, row.process, nullptr, 0, row.flags);
        peer.done();
        cd += replied;
        EXPECT_EQ(result, replied ? cd : 0);
        EXPECT_EQ(gettperrno(), 0);
    }
    EXPECT_EQ(block()->acall_active, cd);
}

TEST_F(ServerCall, GoesOutFromTheCallersBuffer)
{
    ASSERT_TRUE(open());
    int seqno = block()->seqno;
    peer.play([&] {
        wire::frame want = request(wire::TPACALL, "SVC", TPNOREPLY | TO_A_SERVER, 3, seqno + 1, 0);
        want.xflags |= wire::TO_PROCESS;
        want.callid[0] = 99;
        expect_header(peer.expect(wire::TPACALL).text("hello"), want);
        // The direction doesn't stay in the buffer.
        wire::frame plain = request(wire::TPACALL, "SVC", 0, 0, seqno + 2, 1);
        expect_header(peer.expect(wire::TPACALL), identified(plain, 1));
        peer.reply("REPLY", {.rcode = 6});
    });
    EXPECT_EQ(tpspracall2(svc("SVC"), 3, 99, in, 0, TPNOREPLY), 0);
    int cd = tpacall(svc("SVC"), in, 0, 0);
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), "REPLY");
    peer.done();
}

TEST_F(ServerCall, AnyFlagsPass)
{
    ASSERT_TRUE(open({.acall_size = 128}));
    for (int bit = 0; bit < 32; bit++) {
        long flag = 1L << bit;
        SCOPED_TRACE(bit);
        if (flag == TPBLOCK)
            continue;
        peer.play([&] {
            for (int i = 0; i < 2; i++)
                peer.expect(wire::TPACALL).flags((uint32_t)flag | TO_A_SERVER);
        });
        EXPECT_GE(tpspracall(svc("SVC"), 3, in, 0, flag), 0);
        EXPECT_GE(tpspracall2(svc("SVC"), 3, 4, in, 0, flag), 0);
        peer.done();
    }
}

TEST_F(ServerCall, FailsAsTheAsynchronousCallDoes)
{
    ASSERT_TRUE(open({.acall_size = 1}));
    alignas(8) char foreign[300] = {};
    peer.play([&] { peer.expect(wire::TPACALL); });
    EXPECT_EQ(tpspracall(svc("SVC"), 3, in, 0, 0), 1);
    peer.done();
    EXPECT_EQ(tpspracall(svc("SVC"), 3, in, 0, 0), -1);
    EXPECT_EQ(gettperrno(), TPELIMIT);
    EXPECT_EQ(tpspracall2(svc("SVC"), 3, 4, foreign + 136, 0, 0), -1);
    EXPECT_EQ(gettperrno(), TPEITYPE);
    EXPECT_EQ(tpcancel(1), 1);
    open_transaction();
    EXPECT_EQ(tpspracall(svc("SVC"), 3, in, 0, TPNOREPLY), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    block()->txinfo->tx_stage = 0;
    faults::fail(faults::SEND, 1, EIO);
    EXPECT_EQ(tpspracall2(svc("SVC"), 3, 4, in, 0, 0), -1);
    EXPECT_EQ(gettperrno(), TPEOS);
    EXPECT_EQ(block()->acall_active, 0);
    peer.expect_nothing();
}

TEST_F(ServerCall, ReceiptIsAwaited)
{
    ASSERT_TRUE(open());
    peer.play([&] {
        peer.expect(wire::TPACALL).flags(TPBLOCK | TPNOREPLY | TO_A_SERVER);
        peer.reply("", {.msgtype = 1028});
    });
    EXPECT_EQ(tpspracall(svc("SVC"), 3, in, 0, TPBLOCK | TPNOREPLY), 0);
    peer.done();
    expect_idle();
}

// ---- tpsvgcall

namespace {

constexpr uint32_t FIXED_FLAGS = 0x80000C;

struct GroupRequest : GroupTest {
    wire::start_reply queues;

    GroupRequest() { queues.queues = {"Q0", "Q1", "Q2"}; }

    int svgcall(const char *queue = nullptr, int group = 12)
    {
        return note(tpsvgcall(group, svc(queue), svc("SVC"), in, 0, 0));
    }
};

}  // namespace

TEST_F(GroupRequest, GoesStraightToTheGroup)
{
    ASSERT_TRUE(open(queues));
    int seqno = block()->seqno;
    peer.play([&] {
        wire::frame want = request(wire::TPACALL, "SVC", FIXED_FLAGS, 0x2000c, seqno + 1, -1);
        want.prio = 61;
        expect_header(peer.expect(wire::TPACALL).text("hello"), want);
        want = request(wire::TPACALL, "SVC", FIXED_FLAGS, -1, seqno + 2, -1);
        expect_header(peer.expect(wire::TPACALL), want);
    });
    EXPECT_EQ(tpsprio(61, TPABSOLUTE), 1);
    set_tperrno(TPESVRDOWN);
    EXPECT_EQ(svgcall(nullptr, 0x2000c), 1);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(svgcall(nullptr, -1), 1);  // written as it stands
    peer.done();
    EXPECT_EQ(block()->acall_active, 0);
    expect_idle();
}

TEST_F(GroupRequest, GoesThroughAQueueThatAcceptsIt)
{
    ASSERT_TRUE(open(queues));
    int seqno = block()->seqno;
    peer.play([&] {
        Expected came = peer.expect(wire::TPENQ).text("hello");
        wire::frame want = request(wire::TPENQ, "SVC", FIXED_FLAGS, 12, seqno + 1, 2);
        want.prio = came.frame.prio;
        expect_header(came, want);
        peer.reply("", {.rcode = 5});
        peer.expect(wire::TPENQ).cd(0);
        peer.reply();
    });
    EXPECT_EQ(svgcall("Q2"), 1);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(svgcall("Q0"), 1);
    peer.done();
    expect_idle();
}

TEST_F(GroupRequest, ThroughAQueueLeavesThePriorityToTheNextRequest)
{
    ASSERT_TRUE(open(queues));
    peer.play([&] {
        peer.expect(wire::TPENQ).prio(0);
        peer.reply();
        peer.expect(wire::TPACALL).prio(61);
        peer.expect(wire::TPENQ).prio(61);  // of the buffer's last request
        peer.reply();
    });
    EXPECT_EQ(tpsprio(61, TPABSOLUTE), 1);
    EXPECT_EQ(svgcall("Q2"), 1);
    EXPECT_EQ(svgcall(), 1);
    EXPECT_EQ(svgcall("Q2"), 1);
    peer.done();
}

// The error number is taken from the request itself and not from the refusal.
TEST_F(GroupRequest, RefusedByTheQueueGivesAnOddNumber)
{
    ASSERT_TRUE(open(queues));
    int number = 0;
    for (int rcode : {0, 7, -3})
        for (int32_t type : {2017, 3017}) {
            SCOPED_TRACE(number++);
            peer.play([&] {
                peer.expect(wire::TPENQ);
                peer.reply("", {.msgtype = type, .rcode = 9, .flags = TPESVCERR});
            });
            message_of(in)->rcode = rcode;
            EXPECT_EQ(svgcall("Q1"), -1);
            EXPECT_EQ(gettperrno(), rcode != 0 ? rcode : 0x80000C);
            peer.done();
        }
    expect_idle();
    message_of(in)->rcode = 0;
    peer.play([&] {
        peer.expect(wire::TPENQ);
        peer.reply();
    });
    EXPECT_EQ(svgcall("Q1"), 1);
    EXPECT_EQ(gettperrno(), 0);
    peer.done();
}

TEST_F(GroupRequest, ErrorsComeInTheirOrder)
{
    ASSERT_TRUE(open(queues));
    alignas(8) char foreign[300] = {};
    char *bad = foreign + 136, *odd = new_buffer("STRING", "x");
    message_of(odd)->buftype = 77;
    const struct {
        const char *queue, *name;
        char *data;
        long len, flags;
        int error;
    } cases[] = {
        {"NOQ", nullptr, bad, 0, 1, TPEINVAL},
        {nullptr, "S", in, 0, 8, TPEINVAL},
        {nullptr, "S", in, 0, 1L << 40, TPEINVAL},
        {"NOQ", nullptr, bad, 0, 0, TPEINVAL},
        {"NOQ", "S", nullptr, 0, 0, TPEINVAL},
        {"NOQ", "S", bad, 0, 0, TPEOTYPE},
        {"NOQ", "S", odd, 0, 0, TPEITYPE},
        {"NOQ", "S", in, 5000, 0, TPEINVAL},
        {"NOQ", "S", in, 0, 0, TPENOENT},
        {"", "S", in, 0, 0, TPENOENT},
        {"Q", "S", in, 0, 0, TPENOENT},
    };
    int number = 0, seqno = block()->seqno;
    for (const auto &row : cases) {
        SCOPED_TRACE(number++);
        set_tperrno(0);
        EXPECT_EQ(tpsvgcall(5, svc(row.queue), svc(row.name), row.data, row.len, row.flags), -1);
        EXPECT_EQ(gettperrno(), row.error);
    }
    EXPECT_EQ(block()->seqno, seqno);
    peer.expect_nothing();
    expect_idle();
    message_of(odd)->buftype = wire::STRING;
    tpfree(odd);
}

TEST_F(GroupRequest, SessionComesBeforeTheArguments)
{
    int error = stop_the_server();
    EXPECT_EQ(tpsvgcall(5, nullptr, nullptr, nullptr, 0, 1), -1);
    EXPECT_EQ(gettperrno(), error);
    EXPECT_EQ(tpmcall(nullptr, nullptr, nullptr, 0, 1), nullptr);
    EXPECT_EQ(gettperrno(), error);
}

TEST_F(GroupRequest, FirstOneOpensTheSession)
{
    peer.play([&] {
        peer.accept_start(queues);
        peer.expect(wire::TPENQ).cd(1);
        peer.reply();
        peer.serve_end();
    });
    EXPECT_EQ(svgcall("Q1"), 1);
    EXPECT_EQ(tpend(), 1);
    peer.done();
}

TEST_F(GroupRequest, ServiceNameIsCut)
{
    ASSERT_TRUE(open(queues));
    std::string name(40, 'n');
    peer.play([&] { peer.expect(wire::TPACALL).svcname(name.substr(0, 31)); });
    EXPECT_EQ(tpsvgcall(5, nullptr, svc(name.c_str()), in, 0, 0), 1);
    peer.done();
}

TEST_F(GroupRequest, LengthIsThatOfTheData)
{
    ASSERT_TRUE(open(queues));
    char *bytes = new_buffer("CARRAY", "0123456789", 100);
    peer.play([&] {
        peer.expect(wire::TPACALL).data("0123456").buftype(wire::CARRAY);
        peer.expect(wire::TPACALL).data("").buftype(wire::CARRAY);
    });
    EXPECT_EQ(tpsvgcall(5, nullptr, svc("S"), bytes, 7, 0), 1);
    EXPECT_EQ(tpsvgcall(5, nullptr, svc("S"), bytes, 0, 0), 1);
    tpfree(bytes);
    peer.done();
}

TEST_F(GroupRequest, StandsOutsideTheTransaction)
{
    ASSERT_TRUE(open(queues));
    open_transaction(TX_STAGE_BEGUN, TX_STATE_ROLLBACK);
    peer.play([&] {
        peer.expect(wire::TPACALL).flags(FIXED_FLAGS);
        peer.expect(wire::TPENQ).flags(FIXED_FLAGS);
        peer.reply("", {.flags = TPESVCERR});
    });
    EXPECT_EQ(svgcall(), 1);
    set_tx_state(block(), TX_STATE_ACTIVE);
    EXPECT_EQ(svgcall("Q0"), -1);
    EXPECT_EQ(tx_state_of(block()), TX_STATE_ACTIVE);
    EXPECT_EQ(block()->txinfo->tx_stage, (int)TX_STAGE_BEGUN);
    block()->txinfo->tx_stage = 0;
    peer.done();
}

TEST_F(GroupRequest, BlockTimeEndsTheWaitForTheQueue)
{
    queues.block_time = 30;
    ASSERT_TRUE(open(queues));
    for (int stage : {0, (int)TX_STAGE_RUNNING}) {
        open_transaction(stage);
        wire::frame late;
        peer.play([&] {
            late = peer.expect(wire::TPENQ).frame;
            let_time_run_out(31);
            peer.reply_to(late);  // nobody wants it any more
        });
        EXPECT_EQ(svgcall("Q1"), -1);
        EXPECT_EQ(gettperrno(), TPETIME);
        peer.done();
        block()->txinfo->tx_stage = 0;
        expect_usable();
    }
    expect_idle();
}

TEST_F(GroupRequest, WithoutABlockTimeTheWaitHasNoLimit)
{
    ASSERT_TRUE(open(queues));
    peer.play([&] {
        wire::frame asked = peer.expect(wire::TPENQ).frame;
        ASSERT_TRUE(client_waits());
        faults::shift_clock(100000);
        peer.send(wire::message(1012));
        peer.send(wire::message(1012));
        peer.reply_to(asked);
    });
    EXPECT_EQ(svgcall("Q1"), 1);
    peer.done();
}

TEST_F(GroupRequest, LostConnectionIsTold)
{
    ASSERT_TRUE(open(queues));
    peer.play([&] {
        peer.expect(wire::TPENQ);
        peer.hang_up();
    });
    EXPECT_EQ(svgcall("Q1"), -1);
    EXPECT_EQ(gettperrno(), TPECLOSE);
    expect_idle();
    peer.done();
}

TEST_F(GroupRequest, FailedSendIsTold)
{
    ASSERT_TRUE(open(queues));
    const struct {
        int error, tperr;
    } cases[] = {{EPIPE, TPECLOSE}, {EAGAIN, TPEBLOCK}, {EIO, TPEOS}};
    for (const auto &row : cases)
        for (const char *queue : {(const char *)nullptr, "Q1"}) {
            faults::fail(faults::SEND, 1, row.error);
            EXPECT_EQ(svgcall(queue), -1);
            EXPECT_EQ(gettperrno(), row.tperr);
            expect_idle();
        }
    peer.expect_nothing();
}

TEST_F(GroupRequest, DirectionOfTheLastRequestDoesNotStay)
{
    ASSERT_TRUE(open(queues));
    peer.play([&] {
        EXPECT_EQ(peer.expect(wire::TPACALL).frame.xflags, wire::TRAILER_ROOM | wire::TO_GROUP);
        EXPECT_EQ(peer.expect(wire::TPACALL).frame.xflags, wire::TRAILER_ROOM);
    });
    EXPECT_EQ(tpspracall(svc("SVC"), 3, in, 0, TPNOREPLY), 0);
    EXPECT_EQ(svgcall(), 1);
    peer.done();
}
