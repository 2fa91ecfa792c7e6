// tpacall and tpcancel: the request, its descriptor, the receipt, and giving a descriptor up.
#include "calls/fixture.h"

namespace {

using Acall = CallTest;
using Cancel = CallTest;

}  // namespace

TEST_F(Acall, RequestCarriesItsDescriptor)
{
    ASSERT_TRUE(start());
    int seqno = block()->seqno;
    peer.play([&] {
        for (int i = 1; i <= 3; i++) {
            Expected request = peer.expect(wire::TPACALL);
            request.svcname("TOUPPER").data(std::string("hello\0", 6)).flags(0x22).cd(i).prio(50);
            request.seqno(seqno + i);
            EXPECT_EQ(request.frame.rcode, 0);
            EXPECT_EQ(request.frame.target, 0);
            EXPECT_EQ(request.frame.callid[0], 1u);
            EXPECT_EQ(request.frame.callid[1], 7u << 19 | (uint32_t)i << 8 | 1u);
        }
    });
    for (int i = 1; i <= 3; i++) {
        EXPECT_EQ(acall(0x22), i);
        EXPECT_EQ(get_tperrno(), 0);
    }
    peer.done();
    EXPECT_EQ(block()->acall_active, 3);
    int index = _get_acall_cd_ind(2, block());
    EXPECT_EQ(block()->acall[index].flags, 0x22u);
    EXPECT_EQ(block()->acall[index].fd, block()->clhfd);
    expect_idle();
}

TEST_F(Acall, WithoutAReplyThereIsNoDescriptor)
{
    ASSERT_TRUE(start());
    uint32_t count = block()->callid_next[1];
    peer.play([&] {
        Expected request = peer.expect(wire::TPACALL);
        request.flags(0x4).cd(0);
        EXPECT_EQ(request.frame.callid[1], 0u);
        peer.expect(wire::TPACALL).header_only().cd(0);
    });
    EXPECT_EQ(acall(TPNOREPLY), 0);
    EXPECT_EQ(tpacall(svc("S"), nullptr, 0, TPNOREPLY), 0);
    EXPECT_EQ(block()->acall_active, 0);
    EXPECT_EQ(block()->acall_next, 0);
    EXPECT_EQ(block()->callid_next[1], count);
}

TEST_F(Acall, MaskOfTheFlags)
{
    wire::start_reply reply;
    reply.acall_size = 64;
    ASSERT_TRUE(start(reply));
    for (int bit = 0; bit < 63; bit++) {
        long flag = 1L << bit;
        SCOPED_TRACE(bit);
        if (flag == TPBLOCK || flag == TPSPRCALL)
            continue;
        if (flag & 0x62f) {
            peer.play([&] { peer.expect(wire::TPACALL).flags((uint32_t)flag); });
            EXPECT_GE(acall(flag), 0);
            peer.done();
        } else {
            set_tperrno(0);
            EXPECT_EQ(acall(flag), -1);
            EXPECT_EQ(get_tperrno(), TPEINVAL);
        }
    }
    peer.expect_nothing();
    // With the mark of a directed call any flags go.
    for (long more : {0L, 0x40000L, 0x80L, 0x100L, 0x800000L}) {
        long flags = TPSPRCALL | more;
        peer.play([&] { peer.expect(wire::TPACALL).flags((uint32_t)flags); });
        EXPECT_GT(acall(flags), 0) << more;
        peer.done();
    }
}

TEST_F(Acall, ErrorsComeInTheirOrder)
{
    wire::start_reply reply;
    reply.acall_size = 1;
    reply.nodes = {"N0", "N1"};
    reply.server_name = "SPECIAL";
    ASSERT_TRUE(start(reply));
    peer.play([&] { peer.expect(wire::TPACALL); });
    ASSERT_EQ(acall(), 1);
    peer.done();
    alignas(8) char foreign[300] = {};
    char *bad = foreign + 136;
    const struct {
        int stage, state;
        char *data;
        long len, flags;
        const char *name;
        int error;
    } cases[] = {
        {1, 0, bad, 0, 0x100 | TPNOREPLY, "S", TPEINVAL},  // flags before all else
        {1, 0, bad, 0, TPNOREPLY, "S", TPEPROTO},          // no reply in a transaction, before the data
        {1, 1, in, 0, TPNOREPLY, "S", TPEPROTO},
        {0, -1, bad, 0, 0, "S", TPEITYPE},  // the data before the table
        {0, -1, in, 5000, 0, "S", TPEINVAL},
        {1, 1, bad, 0, 0, "S", TPEITYPE},  // the data before the transaction
        {1, 1, in, 0, 0, "S", TPETIME},    // the transaction before the table
        {1, 2, nullptr, 0, 0, "S", TPEPROTO},
        {0, -1, in, 0, 0, "SPECIAL", TPELIMIT},  // the table before the special service
        {0, -1, nullptr, 0, 0, "S", TPELIMIT},
        {0, -1, in, 0, TPNOREPLY, "SPECIAL", TPEINVAL},
    };
    int number = 0, seqno = block()->seqno;
    for (const auto &row : cases) {
        SCOPED_TRACE(number++);
        open_transaction(row.stage, row.state);
        set_tperrno(0);
        EXPECT_EQ(tpacall(svc(row.name), row.data, row.len, row.flags), -1);
        EXPECT_EQ(get_tperrno(), row.error);
        EXPECT_EQ(tx_state_of(block()), row.state);
    }
    EXPECT_EQ(block()->seqno, seqno);
    EXPECT_EQ(block()->acall_active, 1);
    peer.expect_nothing();
    block()->txinfo->tx_stage = 0;
    expect_idle();
}

TEST_F(Acall, NoReplyIsForbiddenInsideATransactionOnly)
{
    ASSERT_TRUE(start());
    open_transaction();
    EXPECT_EQ(acall(TPNOREPLY), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    open_transaction(TX_STAGE_BEGUN);
    EXPECT_EQ(acall(TPNOREPLY), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    peer.play([&] { peer.expect(wire::TPACALL).flags(0xc); });
    EXPECT_EQ(acall(TPNOREPLY | TPNOTRAN), 0);
    EXPECT_EQ(block()->txinfo->tx_stage, 2);
}

TEST_F(Acall, FullTableIsALimitAndSkipsANumber)
{
    wire::start_reply reply;
    reply.acall_size = 2;
    ASSERT_TRUE(start(reply));
    peer.play([&] {
        for (int cd : {1, 2, 0, 4})
            peer.expect(wire::TPACALL).cd(cd);
    });
    EXPECT_EQ(acall(), 1);
    EXPECT_EQ(acall(), 2);
    EXPECT_EQ(acall(), -1);
    EXPECT_EQ(get_tperrno(), TPELIMIT);
    EXPECT_EQ(acall(TPNOREPLY), 0);  // needs no row
    EXPECT_EQ(tpcancel(2), 1);
    EXPECT_EQ(acall(), 4);
    peer.done();
    expect_idle();
}

TEST_F(Acall, TableWithoutRowsRefusesAll)
{
    wire::start_reply reply;
    reply.acall_size = 0;
    ASSERT_TRUE(start(reply));
    EXPECT_EQ(acall(), -1);
    EXPECT_EQ(get_tperrno(), TPELIMIT);
    EXPECT_EQ(block()->acall_next, 0);
    expect_usable();
}

TEST_F(Acall, FailureBehindTheTableGivesTheRowBack)
{
    wire::start_reply reply;
    reply.nodes = {"N0", "N1"};
    reply.server_name = "SPECIAL";
    ASSERT_TRUE(start(reply));
    open_transaction();
    EXPECT_EQ(acall(0, "SPECIAL"), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(tpacall(svc("SPECIAL"), nullptr, 0, 0), -1);
    EXPECT_EQ(block()->acall_active, 0);
    const struct {
        int error, tperr;
    } cases[] = {{EPIPE, TPECLOSE}, {EAGAIN, TPEBLOCK}, {EIO, TPEOS}};
    for (const auto &row : cases) {
        faults::fail(faults::SEND, 1, row.error);
        EXPECT_EQ(acall(), -1);
        EXPECT_EQ(get_tperrno(), row.tperr);
        EXPECT_EQ(block()->acall_active, 0);
        EXPECT_EQ(tx_state_of(block()), 0);
        expect_idle();
    }
}

TEST_F(Acall, CallOfATransactionIsMarked)
{
    ASSERT_TRUE(start());
    open_transaction(TX_STAGE_BEGUN);
    peer.play([&] {
        peer.expect(wire::TPACALL).flags(0x4000000);
        peer.expect(wire::TPACALL).flags(0);
        peer.expect(wire::TPACALL).flags(0x8);
    });
    EXPECT_EQ(acall(), 1);
    EXPECT_EQ(acall(), 2);
    EXPECT_EQ(acall(TPNOTRAN), 3);
    peer.done();
    EXPECT_EQ(block()->acall[_get_acall_cd_ind(1, block())].flags, (uint32_t)TPTRAN);
    EXPECT_EQ(block()->acall[_get_acall_cd_ind(2, block())].flags, (uint32_t)TPTRAN);
    EXPECT_EQ(block()->acall[_get_acall_cd_ind(3, block())].flags, (uint32_t)TPNOTRAN);
    EXPECT_EQ(_get_active_tran_acall(block()), 2);
}

TEST_F(Acall, PriorityIsUsedUp)
{
    ASSERT_TRUE(start());
    block()->next_prio = 9;
    peer.play([&] {
        peer.expect(wire::TPACALL).prio(9);
        peer.expect(wire::TPACALL).prio(50);
    });
    EXPECT_EQ(acall(), 1);
    EXPECT_EQ(block()->last_prio, 9);
    EXPECT_EQ(acall(), 2);
    EXPECT_EQ(block()->last_prio, 50);
}

// ---- directed calls

TEST_F(Acall, DirectedCallNamesGroupAndProcess)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        wire::frame one = peer.expect(wire::TPACALL).frame;
        EXPECT_EQ(one.target, 33);
        EXPECT_EQ(one.xflags & 0x500000u, 0x400000u);
        wire::frame two = peer.expect(wire::TPACALL).frame;
        EXPECT_EQ(two.target, 34);
        EXPECT_EQ(two.xflags & 0x500000u, 0x100000u);
        wire::frame three = peer.expect(wire::TPACALL).frame;  // without the mark there is no target
        EXPECT_EQ(three.target, 0);
        EXPECT_EQ(three.xflags & 0x500000u, 0u);
        wire::frame four = peer.expect(wire::TPACALL).frame;  // a negative one isn't one
        EXPECT_EQ(four.target, 0);
        EXPECT_EQ(four.xflags & 0x500000u, 0u);
    });
    EXPECT_GT(_tpacall2(svc("S"), 33, -1, nullptr, 0, TPSPRCALL), 0);
    EXPECT_GT(_tpacall2(svc("S"), 34, 5, nullptr, 0, TPSPRCALL), 0);
    EXPECT_GT(_tpacall2(svc("S"), 34, 5, nullptr, 0, 0), 0);
    EXPECT_GT(_tpacall2(svc("S"), -1, 5, nullptr, 0, TPSPRCALL), 0);
}

// ---- the receipt

TEST_F(Acall, ReceiptIsAwaited)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        Expected request = peer.expect(wire::TPACALL);
        request.flags(0x200).cd(1);
        peer.reply("", {.msgtype = 1028});
        peer.reply_to(request, "THE REPLY");
    });
    EXPECT_EQ(acall(TPBLOCK), 1);
    peer.done();
    EXPECT_EQ(get_tperrno(), 0);
    expect_idle();
    int cd = 1;
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), "THE REPLY");
}

TEST_F(Acall, ReceiptIsAwaitedAlsoWithoutAReply)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPACALL).flags(0x204).cd(0);
        peer.reply("", {.msgtype = 1028});
    });
    EXPECT_EQ(acall(TPBLOCK | TPNOREPLY), 0);
    peer.done();
    expect_idle();
}

TEST_F(Acall, ReplyThatOvertakesTheReceiptIsKept)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        wire::frame request = peer.expect(wire::TPACALL).frame;
        peer.reply_to(request, "EARLY");
        peer.reply_to(request, "", {.msgtype = 1028});
    });
    EXPECT_EQ(acall(TPBLOCK), 1);
    EXPECT_TRUE(stored(1));
    int cd = 1;
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), "EARLY");
}

TEST_F(Acall, RefusedReceiptEndsTheCall)
{
    ASSERT_TRUE(start());
    const struct {
        int type;
        uint32_t flags;
        int error;
    } cases[] = {
        {1028, TPENOENT, TPENOENT},
        {2028, TPEQFULL, TPEQFULL},
        {2028, 0, TPESYSTEM},
        {3028, 0, TPESYSTEM},
    };
    for (const auto &row : cases)
        for (long flags : {TPBLOCK, TPBLOCK | TPNOTRAN}) {
            SCOPED_TRACE(std::to_string(row.type) + " " + std::to_string(flags));
            open_transaction();
            peer.play([&] {
                peer.expect(wire::TPACALL);
                peer.reply("", {.msgtype = row.type, .flags = row.flags});
            });
            EXPECT_EQ(acall(flags), -1);
            EXPECT_EQ(get_tperrno(), row.error);
            EXPECT_EQ(block()->acall_active, 0);
            EXPECT_EQ(tx_state_of(block()), flags == TPBLOCK ? 2 : 0);
            peer.done();
            expect_idle();
        }
}

TEST_F(Acall, ReceiptThatDoesNotComeEndsTheCall)
{
    wire::start_reply reply;
    reply.block_time = 30;
    ASSERT_TRUE(start(reply));
    peer.play([&] {
        peer.expect(wire::TPACALL);
        let_time_run_out(31);
    });
    EXPECT_EQ(acall(TPBLOCK), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    EXPECT_EQ(block()->acall_active, 0);
    peer.done();
    expect_idle();
    expect_usable();
}

TEST_F(Acall, ReceiptOfAnotherCallIsNotTaken)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        wire::frame request = peer.expect(wire::TPACALL).frame;
        peer.reply_to(request, "", {.msgtype = 1028, .seqno = request.seqno + 1});
        peer.reply_to(request, "", {.msgtype = 1028});
    });
    EXPECT_EQ(acall(TPBLOCK), 1);
    EXPECT_TRUE(log.has("3001 sequence number error : "));
}

TEST_F(Acall, WithoutMemoryForTheReceiptFails)
{
    ASSERT_TRUE(start());
    for (int nth = 1;; nth++) {
        ASSERT_LT(nth, 50);
        peer.play([&] {
            wire::frame request;
            if (peer.receive(&request))
                peer.reply_to(request, "", {.msgtype = 1028});
        });
        faults::fail_allocation(nth);
        int cd = acall(TPBLOCK);
        bool failed = faults::allocation_failed();
        faults::disarm_allocations();
        peer.done();
        if (!failed) {
            EXPECT_GT(cd, 0);
            break;
        }
        expect_idle();
        if (cd > 0) {
            EXPECT_EQ(tpcancel(cd), 1);
        } else {
            EXPECT_TRUE(get_tperrno() == TPESYSTEM || get_tperrno() == TPEOS) << get_tperrno();
        }
        EXPECT_EQ(block()->acall_active, 0);
        if (block()->clhfd < 0)
            GTEST_FAIL() << "the connection was lost";
    }
}

// ---- tpcancel

TEST_F(Cancel, DescriptorIsGoneAndNothingIsSent)
{
    ASSERT_TRUE(start());
    wire::frame request;
    peer.play([&] { request = peer.expect(wire::TPACALL).frame; });
    int cd = acall();
    peer.done();
    EXPECT_EQ(tpcancel(cd), 1);
    EXPECT_EQ(get_tperrno(), 0);
    peer.expect_nothing();
    EXPECT_EQ(block()->acall_active, 0);
    EXPECT_EQ(tpcancel(cd), -1);
    EXPECT_EQ(get_tperrno(), TPEBADDESC);
    EXPECT_EQ(getrply(&cd), -1);
    EXPECT_EQ(get_tperrno(), TPEBADDESC);
    // A reply that comes later finds no row.
    peer.play([&] {
        peer.expect(wire::TPCALL);
        wire::frame call = peer.last;
        peer.reply_to(request, "LATE");
        peer.reply_to(call, "x");
    });
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(_get_acall_ind_from_ready(block()), -1);
}

TEST_F(Cancel, StoredReplyGoesWithIt)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        wire::frame request = peer.expect(wire::TPACALL).frame;
        peer.expect(wire::TPCALL);
        wire::frame call = peer.last;
        peer.reply_to(request, "STORED");
        peer.reply_to(call, "x");
    });
    int cd = acall();
    EXPECT_EQ(call(), 1);
    EXPECT_TRUE(stored(cd));
    EXPECT_EQ(tpcancel(cd), 1);
    EXPECT_EQ(_get_acall_ind_from_ready(block()), -1);
}

TEST_F(Cancel, UnknownDescriptorsAreBad)
{
    ASSERT_TRUE(start());
    for (int cd : {0, 1, -1, -2, INT32_MIN, INT32_MAX}) {
        set_tperrno(0);
        EXPECT_EQ(tpcancel(cd), -1) << cd;
        EXPECT_EQ(get_tperrno(), TPEBADDESC) << cd;
    }
}

TEST_F(Cancel, CallOfATransactionStays)
{
    ASSERT_TRUE(start());
    open_transaction();
    peer.play([&] { peer.expect(wire::TPACALL); });
    int cd = acall();
    EXPECT_EQ(tpcancel(cd), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    EXPECT_EQ(block()->acall_active, 1);
    EXPECT_EQ(tx_state_of(block()), 0);
}

TEST_F(Cancel, NeedsASession)
{
    EXPECT_EQ(tpcancel(1), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
}
