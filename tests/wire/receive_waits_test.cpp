// The receive path on one thread: limits, ends, reads in pieces, read errors.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "calls/cscommon.h"
#include "calls/unsolapi.h"
#include "session/cliapi.h"
#include "tx/tx.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "wire/clhmatch.h"
#include "wire/clhread.h"
#include "wire/receive_fixture.h"

// Limits.

TEST_F(Receive, LimitEndsTheWaitInTpetimeAndGivesTheRoleBack)
{
    waiting();
    EXPECT_EQ(read_within(1), nullptr);
    EXPECT_EQ(error(), TPETIME);
    EXPECT_EQ(block->reader_busy, 0);
    EXPECT_EQ(block->waiter_count, 0);
    EXPECT_EQ(data_of(want), "old contents");
}

TEST_F(Receive, LimitWithNoblockIsStillTpetime)
{
    waiting();
    EXPECT_EQ(read_within(1, 1), nullptr);
    EXPECT_EQ(error(), TPETIME);
}

TEST_F(Receive, NoTimeWithNoblockIsTpeblock)
{
    for (int seconds : {0, -5}) {
        waiting();
        EXPECT_EQ(read_within(seconds, 1), nullptr);
        EXPECT_EQ(error(), TPEBLOCK);
        EXPECT_EQ(block->reader_busy, 0);
        EXPECT_EQ(block->waiter_count, 0);
    }
}

TEST_F(Receive, NoTimeWithNoblockIsTpeblockWheneverTheSecondChanges)
{
    for (int nth = 1; nth <= 8; nth++) {
        waiting();
        faults::step_clock_at_call(nth, 1);
        EXPECT_EQ(read_within(0, 1), nullptr);
        EXPECT_EQ(error(), TPEBLOCK) << "the clock's call " << nth;
    }
}

TEST_F(Receive, NoTimeWithNoblockIsTpeblockBehindAForeignMessageToo)
{
    for (int nth = 1; nth <= 8; nth++) {
        waiting();
        peer.send(wire::message(1012));  // dropped
        faults::step_clock_at_call(nth, 1);
        ASSERT_TRUE(wait_for_bytes(block->clhfd, 136));
        EXPECT_EQ(read_within(0, 1), nullptr);
        EXPECT_EQ(error(), TPEBLOCK) << "the clock's call " << nth;
    }
}

TEST_F(Receive, NoTimeWithoutNoblockWaitsWithoutLimit)
{
    waiting();
    int selects = faults::count(faults::SELECT);
    Task reader(peer, [&] { return (long)(read_within(0) != nullptr); });
    EXPECT_TRUE(faults::wait_for_calls(faults::SELECT, selects + 1));
    EXPECT_FALSE(reader.finished());
    peer.send(call_reply("late"));
    EXPECT_EQ(reader.get(), 1);
    EXPECT_EQ(data_of(want), "late");
}

TEST_F(Receive, MessagesOfOthersDoNotProlongTheLimit)
{
    waiting();
    faults::before(faults::SELECT, 2, [&] {
        peer.send(wire::message(1012));
        faults::shift_clock(100);
    });
    peer.send(wire::message(1012));
    EXPECT_EQ(read_within(50), nullptr);
    EXPECT_EQ(error(), TPETIME);
}

TEST_F(Receive, SelectThatFailsIsLogged)
{
    waiting();
    faults::fail(faults::SELECT, 1, ENOMEM);
    EXPECT_EQ(read_within(5), nullptr);
    EXPECT_EQ(error(), TPESYSTEM);
    EXPECT_TRUE(log.has("(E) CLI 0080 select error [CSC5105][Cannot allocate memory]")) << log.text();
    EXPECT_EQ(block->reader_busy, 0);
}

TEST_F(Receive, WithoutASocketTheWaitFailsAndTheRoleStaysTaken)
{
    _clhc_close(block->clhfd, block);
    waiting();
    EXPECT_EQ(read(), nullptr);
    EXPECT_EQ(error(), TPESYSTEM);
    EXPECT_EQ(block->reader_busy, 1);
}

TEST_F(Receive, NamedSocketServesWhereTheContextHasNone)
{
    int fd = block->clhfd;
    block->clhfd = -1;
    waiting();
    peer.send(call_reply("abcd"));
    msg_header *result = _read_csmsg_from_clh(fd, want, block);
    ASSERT_NE(result, nullptr);
    want = result;
    EXPECT_EQ(data_of(want), "abcd");
    block->clhfd = fd;
}

TEST_F(Receive, OldSocketIsServedFirstAndItsEndIsNoError)
{
    int ends[2];
    tcp_pair(ends);
    Conn old(ends[1]);
    block->old_clhfd = ends[0];
    waiting();
    old.send(call_reply("from the old one"));
    old.hang_up();
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(data_of(want), "from the old one");
    waiting();
    peer.send(call_reply("from the new one"));
    ASSERT_NE(read(), nullptr);  // the end of the old socket stands in between
    EXPECT_EQ(data_of(want), "from the new one");
    EXPECT_EQ(block->old_clhfd, -1);
    EXPECT_EQ(block->started, 1);
}

// Transactions that ran out of time.

TEST_F(Receive, ExpiredTransactionEndsTheWait)
{
    block->txinfo->tx_active = 1;
    block->txinfo->tx_stage = TX_STAGE_RUNNING;
    set_tx_state(block, TX_STATE_TIMED_OUT);
    peer.send(call_reply("abcd"));
    waiting();
    EXPECT_EQ(_read_csmsg_from_clh(-1, want, block), nullptr);
    EXPECT_EQ(error(), TPETIME);
    EXPECT_EQ(block->reader_busy, 0);

    msg_header *result = _read_csmsg_from_clh2(-1, waiting(), 1, block);  // tolerant
    ASSERT_NE(result, nullptr);
    want = result;
    EXPECT_EQ(data_of(want), "abcd");
}

TEST_F(Receive, RollbackHearsItsReplyInAnExpiredTransaction)
{
    block->txinfo->tx_active = 1;
    block->txinfo->tx_stage = TX_STAGE_RUNNING;
    set_tx_state(block, TX_STATE_TIMED_OUT);
    waiting()->msgtype = MSG_TX_ROLLBACK;
    peer.send(wire::message(1033, "", {.rcode = -2, .seqno = SEQNO}));
    ASSERT_NE(read_within(10), nullptr);
    EXPECT_EQ(want->msgtype, 1033);
    EXPECT_EQ(want->rcode, -2);
}

// The peer's end.

TEST_F(Receive, ClosedPeerEndsTheSession)
{
    for (int failed : {0, 1}) {
        block->rolling_failed = failed;
        block->sessionid = 5;
        block->session_token = 6;
        waiting();
        peer.hang_up();
        EXPECT_EQ(read(), nullptr);
        EXPECT_EQ(error(), failed ? TPERDCLOSE : TPECLOSE);
        EXPECT_EQ(block->clhfd, -1);
        EXPECT_EQ(block->started, 0);
        EXPECT_EQ(block->sessionid, -1);
        EXPECT_EQ(block->session_token, -1);
        EXPECT_EQ(block->reader_busy, 0);
        EXPECT_EQ(block->waiter_count, 0);
        EXPECT_EQ(data_of(want), "old contents");
        reconnect();
    }
}

TEST_F(Receive, ClosedPeerEndsAWaitWithALimit)
{
    waiting();
    peer.hang_up();
    EXPECT_EQ(read_within(10), nullptr);
    EXPECT_EQ(error(), TPECLOSE);
    EXPECT_EQ(block->clhfd, -1);
    EXPECT_EQ(block->reader_busy, 0);
}

TEST_F(Receive, MessagesBeforeTheEndAreStillDelivered)
{
    peer.send_raw(wire::encode(call_reply("first")) + wire::encode(call_reply("second")));
    peer.hang_up();
    for (const char *text : {"first", "second"}) {
        waiting();
        ASSERT_NE(read(), nullptr);
        EXPECT_EQ(data_of(want), text);
    }
    waiting();
    EXPECT_EQ(read(), nullptr);
    EXPECT_EQ(error(), TPECLOSE);
}

// A peer that closes after each possible byte: at a boundary of the reading (8 bytes, the header) it is the
// end of the session at once; anywhere else a short message, and the end is found by the next wait.
static void close_after_each_byte(Receive &test, const std::string &frame)
{
    for (size_t cut = 0; cut < frame.size(); cut++) {
        SCOPED_TRACE("closed after byte " + std::to_string(cut) + " of " + std::to_string(frame.size()));
        test.reconnect();
        test.waiting();
        test.peer.send_raw(frame.substr(0, cut));
        test.peer.hang_up();
        ASSERT_EQ(cut % 2 == 0 ? test.read() : test.read_within(10), nullptr);
        EXPECT_TRUE(test.error() == TPECLOSE || test.error() == TPEOS) << test.error();
        EXPECT_EQ(test.block->reader_busy, 0);
        EXPECT_EQ(test.block->waiter_count, 0);
        if (cut == 0) {
            EXPECT_EQ(test.error(), TPECLOSE);
        }
        if (test.error() == TPECLOSE) {
            EXPECT_EQ(test.block->clhfd, -1);
            EXPECT_EQ(test.block->started, 0);
            continue;
        }
        test.waiting();
        ASSERT_EQ(test.read(), nullptr);
        EXPECT_EQ(test.error(), TPECLOSE);
        EXPECT_EQ(test.block->clhfd, -1);
    }
}

TEST_F(Receive, PeerClosesAfterEachByteOfAPlainMessage)
{
    close_after_each_byte(*this, wire::encode(call_reply("abcdefghij")));
}

TEST_F(Receive, PeerClosesAfterEachByteOfARawFrame)
{
    close_after_each_byte(*this, wire::raw_frame("abcdefghij"));
}

TEST_F(Receive, PeerClosesAfterEachByteOfACompressedFrame)
{
    close_after_each_byte(*this, wire::compressed_frame(wire::encode(call_reply("abcdefghij"))));
}

TEST_F(Receive, PeerClosesAfterEachByteOfAnEnvelope)
{
    close_after_each_byte(*this, envelope(10, 1001, "abcdefghij"));
    close_after_each_byte(*this, envelope(10, 1003, "abcdefghij"));
}

TEST_F(Receive, WhereAShortMessageIsTpeosAndWhereItIsTheEnd)
{
    // Nothing read in a step is an end, a part of what the step wanted is a read error of its own.
    struct {
        size_t bytes;
        int error;
    } const cases[] = {{0, TPECLOSE}, {1, TPEOS},   {7, TPEOS},      {8, TPECLOSE},
                       {9, TPEOS},    {135, TPEOS}, {136, TPECLOSE}, {137, TPEOS}};
    for (const auto &one : cases) {
        reconnect();
        waiting();
        peer.send_raw(wire::encode(call_reply("abcdefghij")).substr(0, one.bytes));
        peer.hang_up();
        EXPECT_EQ(read(), nullptr);
        EXPECT_EQ(error(), one.error) << one.bytes << " bytes";
        EXPECT_EQ(block->clhfd < 0, one.error == TPECLOSE) << one.bytes << " bytes";
    }
}

// Reads that come in pieces.

TEST_F(Receive, ReadsInPiecesGiveTheSameMessages)
{
    for (int most : {1, 3, 8, 128, 135}) {
        SCOPED_TRACE(most);
        faults::limit(faults::RECV, most);
        waiting();
        peer.send(call_reply(long_text(700)));
        ASSERT_NE(read(), nullptr);
        EXPECT_EQ(data_of(want), long_text(700));
        waiting();
        peer.send_compressed(call_reply(long_text(3000)));
        ASSERT_NE(read(), nullptr);
        EXPECT_EQ(data_of(want), long_text(3000));
        peer.send_raw(wire::raw_frame("ten bytes!"));
        msg_header *raw = _read_csmsg_from_clh_timeout(nullptr, 5, block);
        ASSERT_NE(raw, nullptr);
        EXPECT_EQ(data_of(raw), "ten bytes!");
        free(raw);
    }
}

TEST_F(Receive, InterruptedReadsGoOn)
{
    faults::limit(faults::RECV, 50);
    for (int nth = 1; nth <= 12; nth++) {
        SCOPED_TRACE(nth);
        waiting();
        peer.send(call_reply(long_text(300)));
        faults::fail(faults::RECV, nth, EINTR, 3);
        ASSERT_NE(read(), nullptr);
        EXPECT_EQ(data_of(want), long_text(300));
    }
}

TEST_F(Receive, NothingToReadInsideAMessageIsWaitedFor)
{
    faults::limit(faults::RECV, 3);
    for (int block_time : {0, 10})
        for (int nth : {2, 3, 20, 60}) {  // in the first word, in the header, in the data
            SCOPED_TRACE(nth);
            block->block_time = block_time;
            waiting();
            peer.send(call_reply(long_text(300)));
            faults::fail(faults::RECV, nth, EAGAIN);
            ASSERT_NE(read(), nullptr);
            EXPECT_EQ(data_of(want), long_text(300));
        }
}

TEST_F(Receive, NothingToReadAtTheStartIsTpeblock)
{
    waiting();
    peer.send(call_reply("abcd"));
    faults::fail(faults::RECV, 1, EAGAIN);
    EXPECT_EQ(read(), nullptr);
    EXPECT_EQ(error(), TPEBLOCK);
    EXPECT_GE(block->clhfd, 0);
    EXPECT_EQ(block->reader_busy, 0);
    waiting();
    ASSERT_NE(read(), nullptr);  // nothing was lost
    EXPECT_EQ(data_of(want), "abcd");
}

TEST_F(Receive, StallInsideAMessageIsTpesystem)
{
    fcntl(block->clhfd, F_SETFL, O_NONBLOCK);
    block->block_time = 1;
    waiting();
    peer.send_raw(wire::encode(call_reply("abcd")).substr(0, 70));
    EXPECT_EQ(read(), nullptr);
    EXPECT_EQ(error(), TPESYSTEM);
    EXPECT_GE(block->clhfd, 0);
    EXPECT_EQ(block->reader_busy, 0);
}

TEST_F(Receive, OtherReadErrorsAreTpeosAndTheSocketStays)
{
    for (int nth : {1, 2}) {
        reconnect();
        faults::limit(faults::RECV, 100);
        waiting();
        peer.send(call_reply(long_text(300)));
        faults::fail(faults::RECV, nth, EIO);
        EXPECT_EQ(read(), nullptr);
        EXPECT_EQ(error(), TPEOS);
        EXPECT_GE(block->clhfd, 0);
        EXPECT_EQ(block->started, 1);
        EXPECT_EQ(block->reader_busy, 0);
    }
}

TEST_F(Receive, ReadErrorByItself)
{
    struct {
        int result, error, rolling_failed, awaited;
        bool closed;
    } const cases[] = {
        {0, 0, 0, TPECLOSE, true},        {0, 0, 1, TPERDCLOSE, true},      {-1, EPIPE, 0, TPECLOSE, true},
        {-1, EPIPE, 1, TPERDCLOSE, true}, {-1, EAGAIN, 0, TPEBLOCK, false}, {-1, EIO, 0, TPEOS, false},
        {5, 0, 0, TPEOS, false},
    };
    for (const auto &one : cases) {
        reconnect();
        block->rolling_failed = one.rolling_failed;
        errno = one.error;
        EXPECT_EQ(_clh_read_error(block->clhfd, one.result, 0, block), 1);
        EXPECT_EQ(error(), one.awaited);
        EXPECT_EQ(block->clhfd < 0, one.closed);
    }
}

// No memory.

TEST_F(Receive, WithoutMemoryTheReadFailsCleanlyAndTheNextOneWorks)
{
    const std::string frames[] = {
        wire::encode(call_reply("abcd")),
        wire::encode(call_reply(long_text(5000))),
        wire::compressed_frame(wire::encode(call_reply(long_text(5000)))),
    };
    for (const std::string &frame : frames)
        for (int nth = 1;; nth++) {
            ASSERT_LT(nth, 20);
            reconnect();
            waiting();
            peer.send_raw(frame);
            set_tperrno(0);
            faults::fail_allocation(nth);
            msg_header *result = read();
            faults::disarm_allocations();
            EXPECT_EQ(block->reader_busy, 0);
            EXPECT_EQ(pthread_mutex_trylock(&block->msg_mutex), 0);
            pthread_mutex_unlock(&block->msg_mutex);
            if (!faults::allocation_failed()) {
                EXPECT_NE(result, nullptr);
                EXPECT_GT(nth, 1);
                break;
            }
            EXPECT_EQ(result, nullptr);
            EXPECT_EQ(error(), TPEOS);
        }
    EXPECT_TRUE(log.has("0001 memory allocation error : size = ")) << log.text();
    EXPECT_TRUE(log.has("[CSC5701]")) << log.text();
}
