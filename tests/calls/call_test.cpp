// tpcall: the request on the wire, the reply in the caller's hands, errors and their order, time limits.
#include "calls/fixture.h"

namespace {

using Call = CallTest;

}  // namespace

// ---- the request

TEST_F(Call, RequestCarriesWhatTheCallerGave)
{
    ASSERT_TRUE(start());
    int seqno = block()->seqno;
    peer.play([&] {
        Expected request = peer.expect(wire::TPCALL);
        request.svcname("TOUPPER")
            .data(std::string("hello\0", 6))
            .flags(0x20)
            .cd(0)
            .prio(50)
            .seqno(seqno + 1);
        request.buftype(wire::STRING);
        EXPECT_EQ(request.frame.magic, wire::MAGIC);
        EXPECT_EQ(request.frame.rcode, 0);
        EXPECT_EQ(request.frame.target, 0);
        EXPECT_EQ(request.frame.bufsize, 1024);
        EXPECT_EQ(request.frame.xid[0] | request.frame.xid[1] | request.frame.xid[2], 0u);
        EXPECT_EQ(request.frame.callid[0], 1u);
        EXPECT_EQ(request.frame.callid[1], 7u << 19 | 1u << 8 | 1u);
        EXPECT_EQ(request.frame.callid[2], 0u);
        peer.reply("HELLO");
        EXPECT_EQ(peer.expect(wire::TPCALL).seqno(seqno + 2).frame.callid[1], 7u << 19 | 2u << 8 | 1u);
        peer.reply("AGAIN");
    });
    EXPECT_EQ(call(TPNOTIME), 1);
    EXPECT_EQ(reply_data(), "HELLO");
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_EQ(call(TPNOTIME), 1);
    EXPECT_EQ(reply_data(), "AGAIN");
    peer.done();
    expect_idle();
}

TEST_F(Call, RequestWithoutDataIsAHeaderAlone)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPCALL).header_only().svcname("PLAIN");
        peer.reply();
    });
    len = 99;
    EXPECT_EQ(tpcall(svc("PLAIN"), nullptr, 500, &out, &len, 0), 1);
    EXPECT_EQ(len, 0);
}

TEST_F(Call, NullNameKeepsTheOneOfTheBuffer)
{
    ASSERT_TRUE(start());
    strcpy(message_of(in)->svcname, "FROMBUFFER");
    peer.play([&] {
        peer.expect(wire::TPCALL).svcname("FROMBUFFER");
        peer.reply("x");
    });
    EXPECT_EQ(tpcall(nullptr, in, 0, &out, &len, 0), 1);
}

TEST_F(Call, NameIsCutAt31Characters)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPCALL).svcname(std::string(31, 'n'));
        peer.reply("x");
    });
    EXPECT_EQ(call(0, std::string(50, 'n').c_str()), 1);
}

TEST_F(Call, OneBufferServesForBoth)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPCALL).data(std::string("hello\0", 6));
        peer.reply("HELLO");
        peer.expect(wire::TPCALL).data(std::string("HELLO\0", 6));
        peer.reply(std::string(5000, 'x'));
    });
    EXPECT_EQ(tpcall(svc("S"), in, 0, &in, &len, 0), 1);
    EXPECT_EQ(std::string(in, (size_t)len), "HELLO");
    EXPECT_EQ(tpcall(svc("S"), in, 0, &in, &len, 0), 1);
    EXPECT_EQ(std::string(in, (size_t)len), std::string(5000, 'x'));
    EXPECT_EQ(tpgetasize(in), 5000);
}

TEST_F(Call, PriorityOnceSetLastsForOneRequest)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(block()->last_prio, -1);
    block()->next_prio = 77;
    peer.play([&] {
        for (int prio : {77, 50, 40, 40}) {
            peer.expect(wire::TPCALL).prio(prio);
            peer.reply("x");
        }
    });
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(block()->last_prio, 77);
    EXPECT_EQ(block()->next_prio, 50);
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(block()->last_prio, 50);
    block()->default_prio = 40;
    block()->next_prio = 40;
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(call(), 1);
}

// ---- the reply

TEST_F(Call, ReplyThatFitsIsCopiedIntoTheBuffer)
{
    ASSERT_TRUE(start());
    for (int size : {0, 1, 1023, 1024}) {
        SCOPED_TRACE(size);
        peer.play([&] {
            peer.expect(wire::TPCALL);
            peer.reply(std::string((size_t)size, 'r'), {.rcode = size + 5, .bufsize = size});
        });
        char *before = out;
        ASSERT_EQ(call(), 1);
        peer.done();
        EXPECT_EQ(out, before);
        EXPECT_EQ(len, size);
        EXPECT_EQ(reply_data(), std::string((size_t)size, 'r'));
        EXPECT_EQ(tpgetasize(out), 1024);
        EXPECT_EQ(current_row()->tpurcode, size + 5);
        EXPECT_EQ(gettpurcode(), size + 5);
        EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
    }
}

TEST_F(Call, LargerReplyTakesTheBuffersPlace)
{
    ASSERT_TRUE(start());
    for (int size : {1025, 2000, 100000}) {
        SCOPED_TRACE(size);
        tpfree(out);
        out = new_buffer("STRING");
        peer.play([&] {
            peer.expect(wire::TPCALL);
            peer.reply(std::string((size_t)size, 'r'));
        });
        ASSERT_EQ(call(), 1);
        peer.done();
        EXPECT_EQ(len, size);
        EXPECT_EQ(tpgetasize(out), size);
        EXPECT_EQ(reply_data(), std::string((size_t)size, 'r'));
        out = tprealloc(out, size * 2);  // it is a typed buffer like any other
        ASSERT_NE(out, nullptr);
        EXPECT_EQ(tpgetasize(out), size * 2);
    }
}

TEST_F(Call, BufferTakesTheTypeOfTheReply)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.reply("bytes", {.buftype = wire::CARRAY});
    });
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(tpgettype(out), 4);
    EXPECT_EQ(reply_data(), "bytes");
}

TEST_F(Call, NoChangeRefusesAnotherType)
{
    ASSERT_TRUE(start());
    open_transaction();
    peer.play([&] {
        peer.expect(wire::TPCALL).flags(0x100);
        peer.reply("same", {.buftype = wire::STRING});
        peer.expect(wire::TPCALL);
        peer.reply("bytes", {.buftype = wire::CARRAY});
    });
    EXPECT_EQ(call(TPNOCHANGE), 1);
    EXPECT_EQ(reply_data(), "same");
    char *before = out;
    EXPECT_EQ(call(TPNOCHANGE), -1);
    EXPECT_EQ(get_tperrno(), TPEOTYPE);
    EXPECT_EQ(out, before);
    EXPECT_EQ(tpgettype(out), 3);
    EXPECT_EQ(tx_state_of(block()), 2);
    peer.done();
    expect_idle();
}

TEST_F(Call, FailedServiceDeliversItsDataAndCode)
{
    ASSERT_TRUE(start());
    for (int type : {2003, 3003}) {
        peer.play([&] {
            peer.expect(wire::TPCALL);
            peer.reply("why", {.msgtype = type, .rcode = -42, .flags = TPESVCFAIL});
        });
        len = 0;
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(get_tperrno(), TPESVCFAIL);
        EXPECT_EQ(gettperrno(), TPESVCFAIL);
        EXPECT_EQ(reply_data(), "why");
        EXPECT_EQ(current_row()->tpurcode, -42);
        peer.done();
    }
    expect_usable();
}

TEST_F(Call, OnlyAGoodReplyWithoutAnErrorIsASuccess)
{
    ASSERT_TRUE(start());
    const struct {
        int type;
        uint32_t flags;
        int result, error;
    } cases[] = {
        {1003, 0, 1, 0},          {1003, TPESVCERR, -1, TPESVCERR}, {2003, 0, -1, TPESYSTEM},
        {3003, 0, -1, TPESYSTEM}, {2003, TPENOENT, -1, TPENOENT},   {1003, TPEITYPE, -1, TPEITYPE},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(std::to_string(row.type) + " " + std::to_string(row.flags));
        peer.play([&] {
            peer.expect(wire::TPCALL);
            peer.reply("data", {.msgtype = row.type, .flags = row.flags});
        });
        EXPECT_EQ(call(), row.result);
        EXPECT_EQ(get_tperrno(), row.error);
        EXPECT_EQ(reply_data(), "data");
        peer.done();
    }
}

TEST_F(Call, ReplyOfAnUnknownKindIsASystemError)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.send(wire::message(2006));
    });
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    peer.done();
    expect_idle();
    expect_usable();
}

TEST_F(Call, ErrorOfAnEarlierCallIsCleared)
{
    ASSERT_TRUE(start());
    set_tperrno(TPELIMIT);
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.reply("x");
    });
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(get_tperrno(), 0);
}

// ---- what is refused before anything is sent

TEST_F(Call, MaskOfTheFlags)
{
    ASSERT_TRUE(start());
    for (int bit = 0; bit < 63; bit++) {
        long flag = 1L << bit;
        SCOPED_TRACE(bit);
        if (flag & 0x12b) {
            peer.play([&] {
                peer.expect(wire::TPCALL).flags((uint32_t)flag);
                peer.reply("x");
            });
            EXPECT_EQ(call(flag), 1);
            peer.done();
        } else {
            set_tperrno(0);
            EXPECT_EQ(call(flag), -1);
            EXPECT_EQ(get_tperrno(), TPEINVAL);
        }
    }
    peer.expect_nothing();
    set_tperrno(0);
    EXPECT_EQ(call(-1), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    peer.play([&] {
        peer.expect(wire::TPCALL).flags(0x12b);
        peer.reply("x");
    });
    EXPECT_EQ(call(0x12b), 1);
}

TEST_F(Call, ErrorsComeInTheirOrder)
{
    ASSERT_TRUE(start());
    alignas(8) char foreign[2][300] = {};
    char *none = nullptr, *no_buffer = foreign[0] + 136, *bad_input = foreign[1] + 136;
    const long bad_flags = 0x4;
    open_transaction(TX_STAGE_RUNNING, TX_STATE_TIMED_OUT);
    const struct {
        char *in;
        long in_len;
        char **out;
        long *len;
        long flags;
        int error;
    } cases[] = {
        {in, 0, &out, nullptr, 0, TPEINVAL},
        {in, 0, nullptr, &len, 0, TPEINVAL},
        {in, 0, &none, &len, 0, TPEINVAL},
        {in, 0, &none, nullptr, bad_flags, TPEINVAL},
        {in, 0, &out, &len, bad_flags, TPEINVAL},
        {in, 0, &no_buffer, &len, bad_flags, TPEINVAL},
        {bad_input, 0, &no_buffer, &len, bad_flags, TPEINVAL},
        {in, 0, &no_buffer, &len, 0, TPEOTYPE},
        {bad_input, 0, &no_buffer, &len, 0, TPEOTYPE},
        {in, 5000, &no_buffer, &len, 0, TPEOTYPE},
        {bad_input, 0, &out, &len, 0, TPEITYPE},
        {in, 5000, &out, &len, 0, TPEINVAL},
        {in, 0, &out, &len, 0, TPETIME},
        {nullptr, 0, &out, &len, 0, TPETIME},
    };
    int seqno = block()->seqno, number = 0;
    for (const auto &row : cases) {
        SCOPED_TRACE(number++);
        set_tperrno(0);
        EXPECT_EQ(tpcall(svc("S"), row.in, row.in_len, row.out, row.len, row.flags), -1);
        EXPECT_EQ(get_tperrno(), row.error);
    }
    open_transaction(TX_STAGE_RUNNING, TX_STATE_ROLLBACK);
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    EXPECT_EQ(block()->seqno, seqno);
    peer.expect_nothing();
    block()->txinfo->tx_stage = 0;
    expect_idle();
    expect_usable();
}

TEST_F(Call, SpecialServiceNeedsANodeNameInADomainOfSeveralNodes)
{
    wire::start_reply reply;
    reply.nodes = {"N0", "N1"};
    reply.server_name = "SPECIAL";
    ASSERT_TRUE(start(reply));
    EXPECT_EQ(call(0, "SPECIAL"), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(tpcall(svc("SPECIAL"), nullptr, 0, &out, &len, 0), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    peer.expect_nothing();
    block()->node_count = 1;
    peer.play([&] {
        peer.expect(wire::TPCALL).svcname("SPECIAL").flags(0);
        EXPECT_EQ(peer.last.target, 0);
        peer.reply("x");
    });
    EXPECT_EQ(call(0, "SPECIAL"), 1);
}

// ---- transactions

TEST_F(Call, FirstRequestOfATransactionStartsItAtTheServer)
{
    ASSERT_TRUE(start());
    open_transaction(TX_STAGE_BEGUN);
    block()->txinfo->xid_data[0] = 0xa1;
    block()->txinfo->xid_data[1] = 0xa2;
    block()->txinfo->xid_data[2] = 0xa3;
    peer.play([&] {
        wire::frame first = peer.expect(wire::TPCALL).flags(0x4000000).frame;
        EXPECT_EQ(first.xid[0], 0xa1u);
        EXPECT_EQ(first.xid[1], 0xa2u);
        EXPECT_EQ(first.xid[2], 0xa3u);
        wire::frame answer = wire::answer(first, "x");
        answer.xid[0] = 0xbbbb;  // not taken: the mark isn't in the caller's flags
        peer.send(answer);
        peer.expect(wire::TPCALL).flags(0);
        peer.reply("x");
    });
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(block()->txinfo->tx_stage, 1);
    EXPECT_EQ(block()->txinfo->xid_data[0], 0xa1u);
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(tx_state_of(block()), 0);
}

TEST_F(Call, FailureMarksTheTransactionUnlessItStandsOutside)
{
    ASSERT_TRUE(start());
    for (long flags : {0L, TPNOTRAN}) {
        open_transaction();
        peer.play([&] {
            peer.expect(wire::TPCALL);
            peer.reply("no", {.flags = TPESVCFAIL});
        });
        EXPECT_EQ(call(flags), -1);
        peer.done();
        EXPECT_EQ(tx_state_of(block()), flags == 0 ? 2 : 0);
    }
    block()->txinfo->tx_stage = 0;
    set_tx_state(block(), -1);
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.reply("no", {.flags = TPESVCFAIL});
    });
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(tx_state_of(block()), -1);
}

TEST_F(Call, OutsideATimedOutTransactionStillGoesOut)
{
    ASSERT_TRUE(start());
    open_transaction(TX_STAGE_RUNNING, TX_STATE_ROLLBACK);
    peer.play([&] {
        peer.expect(wire::TPCALL).flags(0x8);
        peer.reply("x");
    });
    EXPECT_EQ(call(TPNOTRAN), 1);
    EXPECT_EQ(tx_state_of(block()), 2);
}

// ---- time limits

TEST_F(Call, BlockTimeEndsTheWaitAndALateReplyIsDropped)
{
    wire::start_reply reply;
    reply.block_time = 30;
    ASSERT_TRUE(start(reply));
    wire::frame late;
    peer.play([&] {
        late = peer.expect(wire::TPCALL).frame;
        let_time_run_out(31);
    });
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    peer.done();
    expect_idle();
    peer.play([&] {
        peer.expect(wire::TPCALL);
        wire::frame request = peer.last;
        peer.reply_to(late, "LATE", {.bufsize = 9000});
        peer.reply_to(request, "GOOD");
    });
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(reply_data(), "GOOD");
    EXPECT_TRUE(log.has("2008 tpcall reply arrived after timeout. Msg discarded : 1003 " +
                        std::to_string(late.seqno) + " [CSC5708]"));
    EXPECT_TRUE(log.has("(W) CLI 3001 sequence number error : "));
}

TEST_F(Call, RealSecondOfBlockTimeEnds)
{
    wire::start_reply reply;
    reply.block_time = 1;
    ASSERT_TRUE(start(reply));
    peer.play([&] { peer.expect(wire::TPCALL); });
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    peer.done();
    expect_usable();
}

TEST_F(Call, BlockTimeDoesNotApplyInATransactionNorWithNoTime)
{
    wire::start_reply reply;
    reply.block_time = 30;
    ASSERT_TRUE(start(reply));
    for (long flags : {TPNOTIME, 0L, -1L}) {
        if (flags == 0)
            open_transaction();
        if (flags == -1) {
            flags = 0;
            block()->block_time = 0;
            block()->txinfo->tx_stage = 0;
        }
        peer.play([&] {
            peer.expect(wire::TPCALL);
            wire::frame request = peer.last;
            faults::shift_clock(100000);
            peer.send(wire::message(1012));
            peer.send(wire::message(1012));
            peer.reply_to(request, "x");
        });
        EXPECT_EQ(call(flags), 1);
        peer.done();
    }
}

TEST_F(Call, BlockTimeEndedWaitMarksNoTransaction)
{
    wire::start_reply reply;
    reply.block_time = 30;
    ASSERT_TRUE(start(reply));
    peer.play([&] {
        peer.expect(wire::TPCALL);
        let_time_run_out(31);
    });
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    EXPECT_EQ(tx_state_of(block()), -1);
}

TEST_F(Call, TransactionsTimerEndsTheWaitWhicheverThreadTakesTheSignal)
{
    ASSERT_TRUE(start());
    for (int round = 0; round < 2; round++) {
        open_transaction();
        _set_tx_timer(3, block());  // time enough for the request to leave
        peer.play([&] {
            peer.expect(wire::TPCALL);
            peer.expect_nothing();
        });
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(get_tperrno(), TPETIME);
        EXPECT_EQ(tx_state_of(block()), 2);
        EXPECT_EQ(block()->tx_timer_on, 0);
        peer.done();
        expect_idle();
        // Nothing more goes out for this transaction, but beside it.
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(get_tperrno(), TPEPROTO);
        peer.play([&] {
            peer.expect(wire::TPCALL).flags(0x8);
            peer.reply("x");
        });
        EXPECT_EQ(call(TPNOTRAN), 1);
        peer.done();
    }
}

TEST_F(Call, NoBlockHasNoLocalEffect)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPCALL).flags(0x1);
        peer.reply("x");
    });
    EXPECT_EQ(call(TPNOBLOCK), 1);
}

TEST_F(Call, ServerCanChangeTheBlockTime)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPCALL);
        wire::frame request = peer.last;
        peer.send(wire::message(wire::SET_REQUEST, "", {.cd = 12, .value = 5}));
        peer.send(wire::message(wire::SET_REQUEST, "", {.cd = 13, .value = 66}));
        peer.reply_to(request, "x");
        peer.expect(wire::TPCALL);
        let_time_run_out(6);
    });
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(block()->block_time, 5);
    EXPECT_EQ(block()->txinfo->transaction_timeout, 66);
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
}

// ---- a connection that breaks

TEST_F(Call, EndOfTheConnectionIsToldAndTheNextCallDoesNothing)
{
    ASSERT_TRUE(start());
    open_transaction();
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.hang_up();
    });
    wthr_var *b = block();
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(get_tperrno(), TPECLOSE);
    EXPECT_EQ(tx_state_of(b), 2);
    EXPECT_EQ(b->clhfd, -1);
    EXPECT_EQ(b->started, 0);
    EXPECT_EQ(b->sessionid, -1);
    EXPECT_TRUE(is_unlocked(&b->msg_mutex));
    // A row whose block isn't started: success without action.
    len = 4711;
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(len, 4711);
    EXPECT_EQ(acall(), 1);
    EXPECT_TRUE(peer.nobody_knocks());
    // Ended, the thread can begin afresh, with a call as well.
    EXPECT_EQ(tpend(), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    peer.play([&] {
        peer.accept_start();
        peer.expect(wire::TPCALL);
        peer.reply("BACK");
    });
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(reply_data(), "BACK");
}

TEST_F(Call, FailedSendLeavesTheTransactionAndTheBuffer)
{
    ASSERT_TRUE(start());
    open_transaction();
    const struct {
        int error, tperr;
    } cases[] = {{EPIPE, TPECLOSE}, {EAGAIN, TPEBLOCK}, {EIO, TPEOS}};
    for (const auto &row : cases) {
        faults::fail(faults::SEND, 1, row.error);
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(get_tperrno(), row.tperr);
        EXPECT_EQ(tx_state_of(block()), 0);
        EXPECT_EQ(message_of(in)->magic, MESSAGE_MAGIC);
        EXPECT_EQ(message_of(in)->msgtype, MSG_TPCALL);
        expect_idle();
    }
    block()->txinfo->tx_stage = 0;
    expect_usable();
}

TEST_F(Call, LengthsAboutTheSizesOfBlocksRoundTrip)
{
    ASSERT_TRUE(start());
    tpfree(in);
    in = new_buffer("CARRAY", "", 70000);
    for (int i = 0; i < 70000; i++)
        in[i] = (char)(i * 7);
    std::vector<int> sizes = {1,    2,    3,    4,    1023, 1024, 1025, 1863,  1864,  1865, 1999,
                              2000, 2001, 4095, 4096, 4097, 8191, 8192, 65535, 65536, 70000};
    peer.play([&] {
        for (size_t i = 0; i < sizes.size(); i++) {
            wire::frame request = peer.expect(wire::TPCALL).buftype(wire::CARRAY).frame;
            peer.reply(request.data, {.buftype = wire::CARRAY});
        }
    });
    for (int size : sizes) {
        ASSERT_EQ(tpcall(svc("ECHO"), in, size, &out, &len, 0), 1) << size;
        ASSERT_EQ(len, size);
        EXPECT_EQ(memcmp(in, out, (size_t)size), 0) << size;
    }
    peer.done();
}

TEST_F(Call, FunctionsOfAServiceDoNothing)
{
    set_tperrno(TPETIME);
    tpreturn(1, 2, nullptr, 3, -1);
    tpforward(nullptr, nullptr, -1, -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    EXPECT_TRUE(peer.nobody_knocks());
}
