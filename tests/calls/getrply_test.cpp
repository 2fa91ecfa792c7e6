// tpgetrply: replies awaited and replies stored, any reply, time limits, and what uses a descriptor up.
#include "calls/fixture.h"

namespace {

struct Getrply : CallTest {
    // Sends that many requests; the peer's side of them, by descriptor.
    std::vector<wire::frame> requests;

    void send_requests(int count, long flags = 0)
    {
        peer.play([&] {
            for (int i = 0; i < count; i++)
                requests.push_back(peer.expect(wire::TPACALL).frame);
        });
        for (int i = 0; i < count; i++)
            EXPECT_GT(acall(flags), 0);
        peer.done();
    }

    wire::frame &request(int cd)
    {
        for (wire::frame &one : requests)
            if (one.cd == cd)
                return one;
        ADD_FAILURE() << "no request with descriptor " << cd;
        return requests[0];
    }

    // Lets replies arrive while nobody waits for them: they come ahead of a call's.
    void store_replies(const std::function<void()> &replies)
    {
        peer.play([&] {
            peer.expect(wire::TPCALL);
            wire::frame call = peer.last;
            replies();
            peer.reply_to(call, "");
        });
        char *ignored = new_buffer("STRING");
        long length;
        EXPECT_EQ(tpcall(svc("PUMP"), nullptr, 0, &ignored, &length, 0), 1);
        tpfree(ignored);
        peer.done();
    }
};

}  // namespace

TEST_F(Getrply, ReplyIsAwaited)
{
    ASSERT_TRUE(start());
    send_requests(1);
    peer.play([&] { peer.reply_to(request(1), "HELLO", {.rcode = 17}); });
    int cd = 1;
    char *before = out;
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(cd, 1);
    EXPECT_EQ(out, before);
    EXPECT_EQ(reply_data(), "HELLO");
    EXPECT_EQ(gettpurcode(), 17);
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_EQ(block()->acall_active, 0);
    peer.done();
    expect_idle();
    EXPECT_EQ(getrply(&cd), -1);
    EXPECT_EQ(get_tperrno(), TPEBADDESC);
}

TEST_F(Getrply, OthersAreStoredMeanwhile)
{
    ASSERT_TRUE(start());
    send_requests(3);
    peer.play([&] {
        peer.reply_to(request(1), "ONE");
        peer.reply_to(request(2), "TWO");
        peer.reply_to(request(3), "THREE");
    });
    int cd = 3;
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), "THREE");
    EXPECT_TRUE(stored(1));
    EXPECT_TRUE(stored(2));
    EXPECT_EQ(block()->ready_seq, 2u);
    cd = 2;
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), "TWO");
    cd = 1;
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), "ONE");
    EXPECT_EQ(block()->acall_active, 0);
}

TEST_F(Getrply, AwaitedReplyReplacesASmallerBufferOnly)
{
    ASSERT_TRUE(start());
    send_requests(2);
    peer.play([&] {
        peer.reply_to(request(1), std::string(1024, 'a'));
        peer.reply_to(request(2), std::string(1025, 'b'));
    });
    char *before = out;
    int cd = 1;
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(out, before);
    cd = 2;
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), std::string(1025, 'b'));
    EXPECT_EQ(tpgetasize(out), 1025);
}

TEST_F(Getrply, StoredReplyAlwaysTakesTheBuffersPlaceAndNeverShrinksIt)
{
    ASSERT_TRUE(start());
    send_requests(3);
    store_replies([&] {
        peer.reply_to(request(1), "small", {.bufsize = 5});
        peer.reply_to(request(2), std::string(1024, 'e'));
        peer.reply_to(request(3), std::string(5000, 'l'));
    });
    int cd = 1;
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), "small");
    EXPECT_EQ(tpgetasize(out), 1024);
    EXPECT_EQ(message_of(out)->xflags & 0x02000000u, 0x02000000u);
    EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
    memset(out, 'x', 1024 + TRAILER_ROOM);
    cd = 2;
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), std::string(1024, 'e'));
    EXPECT_EQ(tpgetasize(out), 1024);
    cd = 3;
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), std::string(5000, 'l'));
    EXPECT_EQ(tpgetasize(out), 5000);
    out = tprealloc(out, 9000);
    EXPECT_NE(out, nullptr);
}

// ---- any reply

TEST_F(Getrply, AnyReplyComesInTheOrderOfArrival)
{
    ASSERT_TRUE(start());
    send_requests(4);
    store_replies([&] {
        for (int cd : {3, 1, 4})
            peer.reply_to(request(cd), std::to_string(cd));
    });
    for (int awaited : {3, 1, 4}) {
        int cd = 999;  // names no live row
        EXPECT_EQ(getrply(&cd, TPGETANY), 1);
        EXPECT_EQ(cd, awaited);
        EXPECT_EQ(reply_data(), std::to_string(awaited));
    }
    peer.play([&] { peer.reply_to(request(2), "2"); });
    int cd = -5;
    EXPECT_EQ(getrply(&cd, TPGETANY), 1);
    EXPECT_EQ(cd, 2);
    EXPECT_EQ(reply_data(), "2");
    // None is left.
    cd = 1;
    EXPECT_EQ(getrply(&cd, TPGETANY), -1);
    EXPECT_EQ(get_tperrno(), TPEBADDESC);
    EXPECT_EQ(cd, 1);
}

TEST_F(Getrply, AnyReplyPrefersTheStoredOneOfTheDescriptorGiven)
{
    ASSERT_TRUE(start());
    send_requests(2);
    store_replies([&] {
        peer.reply_to(request(1), "1");
        peer.reply_to(request(2), "2");
    });
    int cd = 2;
    EXPECT_EQ(getrply(&cd, TPGETANY), 1);
    EXPECT_EQ(cd, 2);
    EXPECT_EQ(reply_data(), "2");
    EXPECT_EQ(getrply(&cd, TPGETANY), 1);
    EXPECT_EQ(cd, 1);
}

TEST_F(Getrply, AnyReplyIsNotThatOfACallGivenUp)
{
    ASSERT_TRUE(start());
    send_requests(2);
    EXPECT_EQ(tpcancel(1), 1);
    peer.play([&] {
        peer.reply_to(request(1), "1");
        peer.reply_to(request(2), "2");
    });
    int cd = 0;
    EXPECT_EQ(getrply(&cd, TPGETANY), 1);
    EXPECT_EQ(cd, 2);
}

TEST_F(Getrply, AnyFailedReplyTellsItsDescriptorToo)
{
    ASSERT_TRUE(start());
    send_requests(2);
    peer.play([&] { peer.reply_to(request(2), "no", {.flags = TPESVCFAIL}); });
    int cd = 0;
    EXPECT_EQ(getrply(&cd, TPGETANY), -1);
    EXPECT_EQ(get_tperrno(), TPESVCFAIL);
    EXPECT_EQ(cd, 2);
    EXPECT_EQ(reply_data(), "no");
    EXPECT_EQ(block()->acall_active, 1);
    EXPECT_GE(_get_acall_cd_ind(1, block()), 0);
}

// ---- failures

TEST_F(Getrply, FailedReplyUsesTheDescriptorUp)
{
    ASSERT_TRUE(start());
    const struct {
        int type;
        uint32_t flags;
        int error;
    } cases[] = {
        {2004, TPESVCFAIL, TPESVCFAIL}, {2004, 0, TPESYSTEM},       {3004, 0, TPESYSTEM},
        {3004, TPESVCERR, TPESVCERR},   {1004, TPENOENT, TPENOENT},
    };
    int cd = 0;
    for (int is_stored = 0; is_stored < 2; is_stored++)
        for (const auto &row : cases) {
            SCOPED_TRACE(std::to_string(row.type) + " " + std::to_string(row.flags));
            send_requests(1);
            cd++;
            auto reply = [&] {
                peer.reply_to(request(cd), "why", {.msgtype = row.type, .rcode = 5, .flags = row.flags});
            };
            if (is_stored)
                store_replies(reply);
            else
                peer.play(reply);
            EXPECT_EQ(getrply(&cd), -1);
            EXPECT_EQ(get_tperrno(), row.error);
            EXPECT_EQ(reply_data(), "why");
            EXPECT_EQ(gettpurcode(), 5);
            EXPECT_EQ(block()->acall_active, 0);
            peer.done();
        }
}

TEST_F(Getrply, MaskOfTheFlags)
{
    ASSERT_TRUE(start());
    int cd = 0;
    for (int bit = 0; bit < 63; bit++) {
        SCOPED_TRACE(bit);
        long flag = 1L << bit;
        if (flag & 0x1a3) {
            send_requests(1);
            cd++;
            store_replies([&] { peer.reply_to(request(cd), "x"); });
            EXPECT_EQ(getrply(&cd, flag), 1);
        } else {
            set_tperrno(0);
            EXPECT_EQ(getrply(&cd, flag), -1);
            EXPECT_EQ(get_tperrno(), TPEINVAL);
        }
    }
}

TEST_F(Getrply, ErrorsComeInTheirOrder)
{
    ASSERT_TRUE(start());
    alignas(8) char foreign[300] = {};
    char *no_buffer = foreign + 136, *none = nullptr;
    int live = 1, dead = 77;
    const long bad = 0x4;
    const struct {
        int *cd;
        char **out;
        long *len;
        long flags;
        int error;
    } before[] = {
        {&dead, &out, &len, 0, TPEBADDESC},
        {&dead, &no_buffer, &len, 0, TPEBADDESC},
        {&dead, &no_buffer, &len, TPGETANY, TPEBADDESC},  // nothing is outstanding
        {&dead, &none, &len, TPGETANY, TPEINVAL},
    };
    for (const auto &row : before) {
        set_tperrno(0);
        EXPECT_EQ(tpgetrply(row.cd, row.out, row.len, row.flags), -1);
        EXPECT_EQ(get_tperrno(), row.error);
    }
    send_requests(1);
    const struct {
        int *cd;
        char **out;
        long *len;
        long flags;
        int error;
    } cases[] = {
        {&live, &out, &len, bad, TPEINVAL},
        {&dead, &no_buffer, nullptr, bad, TPEINVAL},
        {nullptr, &out, &len, 0, TPEINVAL},
        {&live, nullptr, &len, 0, TPEINVAL},
        {&live, &none, &len, 0, TPEINVAL},
        {&live, &out, nullptr, 0, TPEINVAL},
        {&dead, &none, &len, 0, TPEINVAL},
        {&dead, &no_buffer, &len, 0, TPEBADDESC},
        {&dead, &out, &len, 0, TPEBADDESC},
        {&live, &no_buffer, &len, 0, TPEOTYPE},
        {&dead, &no_buffer, &len, TPGETANY, TPEOTYPE},
    };
    int number = 0;
    for (const auto &row : cases) {
        SCOPED_TRACE(number++);
        set_tperrno(0);
        EXPECT_EQ(tpgetrply(row.cd, row.out, row.len, row.flags), -1);
        EXPECT_EQ(get_tperrno(), row.error);
    }
    for (int cd : {0, -1, INT32_MIN, INT32_MAX, 2}) {
        EXPECT_EQ(getrply(&cd), -1);
        EXPECT_EQ(get_tperrno(), TPEBADDESC);
    }
    EXPECT_EQ(block()->acall_active, 1);
    expect_idle();
}

TEST_F(Getrply, NeedsASession)
{
    int cd = 1;
    EXPECT_EQ(getrply(&cd), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    EXPECT_TRUE(peer.nobody_knocks());
}

TEST_F(Getrply, NoChangeRefusesAnotherTypeOfAStoredReplyAndKeepsIt)
{
    ASSERT_TRUE(start());
    send_requests(1);
    store_replies([&] { peer.reply_to(request(1), "bytes", {.buftype = wire::CARRAY}); });
    int cd = 1;
    char *before = out;
    EXPECT_EQ(getrply(&cd, TPNOCHANGE), -1);
    EXPECT_EQ(get_tperrno(), TPEOTYPE);
    EXPECT_EQ(out, before);
    EXPECT_TRUE(stored(1));
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), "bytes");
    EXPECT_EQ(tpgettype(out), 4);
}

TEST_F(Getrply, NoChangeRefusesAnotherTypeOfAnAwaitedReplyAndKeepsTheRow)
{
    ASSERT_TRUE(start());
    send_requests(1);
    peer.play([&] { peer.reply_to(request(1), "bytes", {.buftype = wire::CARRAY}); });
    int cd = 1;
    EXPECT_EQ(getrply(&cd, TPNOCHANGE), -1);
    EXPECT_EQ(get_tperrno(), TPEOTYPE);
    EXPECT_EQ(block()->acall_active, 1);
    EXPECT_FALSE(stored(1));
    peer.done();
    expect_idle();
}

TEST_F(Getrply, StoredReplyThatCannotGrowStaysStored)
{
    ASSERT_TRUE(start());
    send_requests(1);
    store_replies([&] { peer.reply_to(request(1), "abc", {.bufsize = 3}); });
    out = tprealloc(out, 20000);
    int cd = 1;
    faults::fail_allocation(1);
    int result = getrply(&cd);
    faults::disarm_allocations();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    EXPECT_TRUE(stored(1));
    EXPECT_EQ(tpgetasize(out), 20000);
    expect_idle();
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), "abc");
}

// ---- transactions

TEST_F(Getrply, FailureMarksTheTransactionOfItsCallOnly)
{
    ASSERT_TRUE(start());
    open_transaction();
    send_requests(1);
    send_requests(1, TPNOTRAN);
    peer.play([&] {
        peer.reply_to(request(2), "no", {.flags = TPESVCFAIL});
        peer.reply_to(request(1), "no", {.flags = TPESVCFAIL});
    });
    int cd = 2;
    EXPECT_EQ(getrply(&cd), -1);
    EXPECT_EQ(tx_state_of(block()), 0);
    cd = 1;
    EXPECT_EQ(getrply(&cd), -1);
    EXPECT_EQ(tx_state_of(block()), 2);
}

TEST_F(Getrply, FailedWaitMarksTheTransactionOfItsCall)
{
    ASSERT_TRUE(start());
    open_transaction();
    send_requests(1);
    send_requests(1, TPNOTRAN);
    int cd = 2;
    EXPECT_EQ(getrply(&cd, TPNOBLOCK), -1);
    EXPECT_EQ(get_tperrno(), TPEBLOCK);
    EXPECT_EQ(tx_state_of(block()), 0);
    cd = 99;
    EXPECT_EQ(getrply(&cd, TPNOBLOCK | TPGETANY), -1);
    EXPECT_EQ(tx_state_of(block()), 0);
    cd = 1;
    EXPECT_EQ(getrply(&cd, TPNOBLOCK), -1);
    EXPECT_EQ(tx_state_of(block()), 2);
    EXPECT_EQ(block()->acall_active, 2);
}

// ---- time limits

TEST_F(Getrply, NoBlockEndsAtOnceAndLeavesTheRow)
{
    wire::start_reply reply;
    reply.block_time = 30;
    ASSERT_TRUE(start(reply));
    send_requests(1);
    int cd = 1;
    for (long flags : {TPNOBLOCK, TPNOBLOCK | TPNOTIME, TPNOBLOCK | TPGETANY}) {
        EXPECT_EQ(getrply(&cd, flags), -1);
        EXPECT_EQ(get_tperrno(), TPEBLOCK);
        EXPECT_EQ(gettperrno(), TPEBLOCK);
        EXPECT_EQ(cd, 1);
        expect_idle();
    }
    EXPECT_EQ(block()->acall_active, 1);
    peer.reply_to(request(1), "x");
    ASSERT_TRUE(faults::eventually([&] { return getrply(&cd, TPNOBLOCK) == 1; }));
    EXPECT_EQ(reply_data(), "x");
}

TEST_F(Getrply, NoBlockStaysItselfWhenTheSecondTurnsOver)
{
    ASSERT_TRUE(start());
    send_requests(1);
    int cd = 1;
    for (int nth = 1; nth <= 6; nth++) {
        faults::reset();
        faults::step_clock_at_call(nth, 1);
        EXPECT_EQ(getrply(&cd, TPNOBLOCK), -1);
        EXPECT_EQ(get_tperrno(), TPEBLOCK) << nth;
        expect_idle();
    }
}

TEST_F(Getrply, NoBlockStaysItselfBehindAForeignMessage)
{
    ASSERT_TRUE(start());
    send_requests(2);
    for (int nth = 1; nth <= 6; nth++) {
        faults::reset();
        peer.send(wire::message(1012));
        // Only once the message is there does the wait meet it.
        ASSERT_GE(_set_bc_timer(10, block()), 0);
        faults::step_clock_at_call(nth, 1);
        int cd = 1;
        EXPECT_EQ(getrply(&cd, TPNOBLOCK), -1);
        EXPECT_EQ(get_tperrno(), TPEBLOCK) << nth;
        expect_idle();
    }
}

TEST_F(Getrply, BlockTimeLeavesTheRowAndTheReplyCanBeFetchedLater)
{
    wire::start_reply reply;
    reply.block_time = 30;
    ASSERT_TRUE(start(reply));
    send_requests(1);
    peer.play([&] { let_time_run_out(31); });
    faults::reset();
    int cd = 1;
    EXPECT_EQ(getrply(&cd), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    EXPECT_EQ(block()->acall_active, 1);
    peer.done();
    expect_idle();
    store_replies([&] { peer.reply_to(request(1), "LATE"); });
    EXPECT_TRUE(stored(1));
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(reply_data(), "LATE");
}

TEST_F(Getrply, NoTimeAndTransactionsLiftTheBlockTime)
{
    wire::start_reply reply;
    reply.block_time = 30;
    ASSERT_TRUE(start(reply));
    send_requests(2);
    for (int cd : {1, 2}) {
        if (cd == 2)
            open_transaction();
        peer.play([&, cd] {
            faults::shift_clock(100000);
            peer.send(wire::message(1012));
            peer.send(wire::message(1012));
            peer.reply_to(request(cd), "x");
        });
        int asked = cd;
        EXPECT_EQ(getrply(&asked, cd == 1 ? TPNOTIME : 0), 1);
        peer.done();
    }
}

TEST_F(Getrply, ExpiredTransactionEndsTheWait)
{
    ASSERT_TRUE(start());
    open_transaction();
    send_requests(1);
    set_tx_state(block(), TX_STATE_TIMED_OUT);
    int cd = 1;
    EXPECT_EQ(getrply(&cd), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    EXPECT_EQ(block()->acall_active, 1);
    expect_idle();
}

// ---- the end of the connection

TEST_F(Getrply, EndOfTheConnectionLeavesTheRow)
{
    ASSERT_TRUE(start());
    send_requests(1);
    peer.hang_up();
    wthr_var *b = block();
    int cd = 1;
    EXPECT_EQ(getrply(&cd), -1);
    EXPECT_EQ(get_tperrno(), TPECLOSE);
    EXPECT_EQ(b->acall_active, 1);
    EXPECT_EQ(getrply(&cd), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
}

TEST_F(Getrply, RowsFillAndAreFoundAsDescriptorsComeAndGo)
{
    wire::start_reply reply;
    reply.acall_size = 4;
    ASSERT_TRUE(start(reply));
    send_requests(4);
    for (int cd = 1; cd <= 4; cd++)
        EXPECT_EQ(_get_acall_cd_ind(cd, block()), cd % 4);
    peer.play([&] { peer.reply_to(request(2), "2"); });
    int two = 2;
    EXPECT_EQ(getrply(&two), 1);
    send_requests(1);
    EXPECT_EQ(_get_acall_cd_ind(5, block()), 2);
    peer.play([&] { peer.reply_to(request(5), "5"); });
    int five = 5;
    EXPECT_EQ(getrply(&five), 1);
    EXPECT_EQ(reply_data(), "5");
}

TEST_F(Getrply, WindowOfSixteenRunsForLong)
{
    ASSERT_TRUE(start());
    constexpr int ROUNDS = 100;
    peer.play([&] {
        for (int round = 0; round < ROUNDS; round++) {
            std::vector<wire::frame> window;
            for (int i = 0; i < 16; i++)
                window.push_back(peer.expect(wire::TPACALL).frame);
            for (int i = 0; i < 16; i++) {
                const wire::frame &one = window[(size_t)((i * 7 + round) % 16)];
                peer.reply_to(one, std::to_string(one.cd));
            }
        }
    });
    for (int round = 0; round < ROUNDS; round++) {
        std::vector<int> open;
        for (int i = 0; i < 16; i++)
            open.push_back(acall());
        for (int i = 0; i < 16; i++) {
            int cd = open[(size_t)i];
            ASSERT_EQ(getrply(&cd, round % 2 ? TPGETANY : 0), 1);
            EXPECT_EQ(reply_data(), std::to_string(cd));
        }
    }
    EXPECT_EQ(block()->acall_active, 0);
}
