// Queues in a transaction: the first request of it, one side only, and what marks it rollback-only.
#include "queue/fixture.h"

#include "tx/txapi.h"

namespace {

constexpr long DIRECT = TPRQDIRECT;

struct QueueTransaction : QueueTest {
    bool begin(int block_time = 0) { return start_limited(block_time) && tx_begin() == TX_OK; }
    // One call of the client, which the server answers.
    int served(const std::function<int()> &call, int32_t msgtype, const wire::with &fields = {})
    {
        peer.play([&, msgtype] {
            peer.expect(msgtype);
            peer.reply("", fields);
        });
        int result = call();
        peer.done();
        return result;
    }
    int enqueue_in(const wire::with &fields = {})
    {
        return served([&] { return enq_ctl(); }, wire::TPENQ, fields);
    }
    int dequeue_in(const wire::with &fields = {})
    {
        return served([&] { return deq_ctl(DIRECT); }, wire::TPDEQ, fields);
    }
    void expect_marked(bool is) const
    {
        EXPECT_EQ(tx_state_of(block()), is ? TX_STATE_ROLLBACK : TX_STATE_ACTIVE);
    }
    void give_identity(void)
    {
        const uint32_t xid[3] = {0x11223344, 0x55667788, 0x99aabbcc};
        memcpy(block()->txinfo->xid_data, xid, sizeof xid);
    }
    static void expect_identity(const wire::frame &came, bool is)
    {
        EXPECT_EQ(came.xid[0], is ? 0x11223344 : 0u);
        EXPECT_EQ(came.xid[1], is ? 0x55667788 : 0u);
        EXPECT_EQ(came.xid[2], is ? 0x99aabbcc : 0u);
    }
};

}  // namespace

// ---- the first request

TEST_F(QueueTransaction, EnqueueStartsIt)
{
    ASSERT_TRUE(begin());
    give_identity();
    peer.play([&] {
        expect_identity(peer.expect(wire::TPENQ).flags(START_MARK), true);
        peer.reply();
        expect_identity(peer.expect(wire::TPENQ).flags(0), true);
        peer.reply();
    });
    EXPECT_EQ(enq_ctl(), 0);
    EXPECT_EQ(stage(), TX_STAGE_RUNNING);
    EXPECT_EQ(enq_ctl(), 0);
    expect_marked(false);
    EXPECT_EQ(pending(), 2);
}

TEST_F(QueueTransaction, DequeueStartsIt)
{
    ASSERT_TRUE(begin());
    give_identity();
    peer.play([&] {
        expect_identity(peer.expect(wire::TPDEQ).flags(DIRECT | START_MARK), true);
        peer.reply("x");
        expect_identity(peer.expect(wire::TPDEQ).flags(DIRECT), true);
        peer.reply("x");
    });
    EXPECT_EQ(deq_ctl(DIRECT), 1);
    EXPECT_EQ(stage(), TX_STAGE_RUNNING);
    EXPECT_EQ(deq_ctl(DIRECT), 1);
}

TEST_F(QueueTransaction, OnlyTheFirstTryOfADequeueStartsIt)
{
    ASSERT_TRUE(begin(600));
    peer.play([&] {
        peer.expect(wire::TPDEQ).flags(DIRECT | TPBLOCK | START_MARK);
        refuse_dequeue(TPEMATCH);
        notice(0);
        peer.expect(wire::TPDEQ).flags(DIRECT | TPBLOCK);
        peer.reply("x");
    });
    EXPECT_EQ(deq_ctl(DIRECT | TPBLOCK), 1);
}

TEST_F(QueueTransaction, RequestsOutsideLeaveItAlone)
{
    ASSERT_TRUE(begin());
    give_identity();
    peer.play([&] {
        expect_identity(peer.expect(wire::TPENQ).flags(TPNOTRAN), false);
        peer.reply();
        expect_identity(peer.expect(wire::TPENQ).flags(TPNOTRAN), false);
        peer.reply();
        expect_identity(peer.expect(wire::TPDEQ).flags(DIRECT | TPNOTRAN), false);
        peer.reply("x");
        expect_identity(peer.expect(wire::TPDEQ).flags(DIRECT | TPNOTRAN), false);
        peer.reply("x");
    });
    EXPECT_EQ(enq(), 0);
    EXPECT_EQ(enq_ctl(TPNOTRAN), 0);
    EXPECT_EQ(deq(DIRECT), 1);
    EXPECT_EQ(deq_ctl(DIRECT | TPNOTRAN), 1);
    EXPECT_EQ(stage(), TX_STAGE_BEGUN);
    expect_marked(false);
}

TEST_F(QueueTransaction, WithoutOneTheRequestsBearNoMark)
{
    ASSERT_TRUE(start_queues());
    peer.play([&] {
        expect_identity(peer.expect(wire::TPENQ).flags(0), false);
        peer.reply();
        expect_identity(peer.expect(wire::TPDEQ).flags(DIRECT), false);
        peer.reply("x");
        expect_identity(peer.expect(wire::TPENQ).flags(0), false);
        peer.reply();
    });
    EXPECT_EQ(enq_ctl(), 0);
    EXPECT_EQ(deq_ctl(DIRECT), 1);
    EXPECT_EQ(enq_ctl(), 0);
    EXPECT_EQ(block()->rq_enq_in_tran, 0);
    EXPECT_EQ(block()->rq_deq_in_tran, 0);
}

// ---- one side only

TEST_F(QueueTransaction, DequeueBehindAnEnqueueIsRefused)
{
    ASSERT_TRUE(begin());
    EXPECT_EQ(enqueue_in(), 0);
    expect_refused(deq_ctl(DIRECT), TPETRAN);
    expect_refused(deq_ctl(DIRECT | TPBLOCK), TPETRAN);
    expect_marked(false);
    EXPECT_EQ(enqueue_in(), 0);
    EXPECT_EQ(commit_with(0), TX_OK);
    EXPECT_EQ(dequeue_in(), 1);
}

TEST_F(QueueTransaction, EnqueueBehindADequeueIsRefused)
{
    ASSERT_TRUE(start_queues());
    ASSERT_TRUE(run());  // a call is the first request
    EXPECT_EQ(dequeue_in(), 1);
    expect_refused(enq_ctl(), TPETRAN);
    expect_marked(false);
    EXPECT_EQ(pending(), 0);
    EXPECT_EQ(dequeue_in(), 1);
    EXPECT_EQ(rollback_with(0), TX_OK);
    EXPECT_EQ(enqueue_in(), 0);
}

// The stage moves behind the look at the side.
TEST_F(QueueTransaction, DequeueThatIsTheFirstRequestIsNotSeen)
{
    ASSERT_TRUE(begin());
    EXPECT_EQ(dequeue_in(), 1);
    EXPECT_EQ(block()->rq_deq_in_tran, 0);
    EXPECT_EQ(enqueue_in(), 0);
    expect_refused(deq_ctl(DIRECT), TPETRAN);
}

TEST_F(QueueTransaction, SecondDequeueIsSeen)
{
    ASSERT_TRUE(begin());
    EXPECT_EQ(dequeue_in(), 1);
    EXPECT_EQ(dequeue_in(), 1);
    expect_refused(enq_ctl(), TPETRAN);
}

TEST_F(QueueTransaction, NextOneIsFreeAfterCommitAndRollback)
{
    for (bool commits : {true, false}) {
        SCOPED_TRACE(commits);
        if (commits) {
            ASSERT_TRUE(begin());
        } else {
            ASSERT_EQ(tx_begin(), TX_OK);
        }
        EXPECT_EQ(enqueue_in(), 0);
        EXPECT_EQ(commits ? commit_with(0) : rollback_with(0), TX_OK);
        EXPECT_EQ(tx_begin(), TX_OK);
        ASSERT_TRUE(run());
        EXPECT_EQ(dequeue_in(), 1);
        EXPECT_EQ(commits ? commit_with(0) : rollback_with(0), TX_OK);
    }
}

TEST_F(QueueTransaction, RequestsOutsideTakeNoSideAndAreNotRefused)
{
    ASSERT_TRUE(start_queues());
    ASSERT_TRUE(run());
    EXPECT_EQ(served([&] { return enq(); }, wire::TPENQ), 0);
    EXPECT_EQ(served([&] { return enq_ctl(TPNOTRAN); }, wire::TPENQ), 0);
    EXPECT_EQ(dequeue_in(), 1);
    EXPECT_EQ(served([&] { return enq(); }, wire::TPENQ), 0);
    EXPECT_EQ(served([&] { return enq_ctl(TPNOTRAN); }, wire::TPENQ), 0);
    expect_refused(enq_ctl(), TPETRAN);
}

TEST_F(QueueTransaction, AnswersAreFetchedOnEitherSide)
{
    ASSERT_TRUE(begin());
    EXPECT_EQ(enqueue_in(), 0);
    peer.send(answer_of(SECOND, "answer"));
    EXPECT_EQ(deq_ctl(), 1);
    EXPECT_EQ(reply_data(), "answer");
    EXPECT_EQ(block()->rq_deq_in_tran, 0);
    EXPECT_EQ(pending(), 0);
}

TEST_F(QueueTransaction, RefusedSideComesBehindArgumentsAndQueue)
{
    ASSERT_TRUE(begin());
    EXPECT_EQ(enqueue_in(), 0);
    block()->rq_deq_in_tran = 1;
    expect_refused(tpenq_ctl(svc("NONE"), svc("S"), nullptr, in, 0, 0), TPENOENT);
    expect_refused(tpdeq_ctl(svc("NONE"), nullptr, nullptr, &out, &len, DIRECT), TPETRAN);
    expect_refused(tpdeq_ctl(nullptr, nullptr, nullptr, &out, &len, DIRECT), TPETRAN);
    expect_refused(enq_ctl(), TPETRAN);
}

// The record is looked at before the queue is.
TEST_F(QueueTransaction, RefusedEnqueueMayHaveStartedIt)
{
    ASSERT_TRUE(begin());
    expect_refused(tpenq_ctl(svc("NONE"), svc("S"), nullptr, in, 0, 0), TPENOENT);
    EXPECT_EQ(stage(), TX_STAGE_RUNNING);
    EXPECT_EQ(block()->rq_enq_in_tran, 0);
    expect_marked(false);
}

TEST_F(QueueTransaction, FailedDequeueHasTakenItsSide)
{
    ASSERT_TRUE(start_queues());
    ASSERT_TRUE(run());
    EXPECT_EQ(dequeue_in({.msgtype = 2018, .rcode = TPEMATCH}), -1);
    expect_refused(enq_ctl(), TPETRAN);
}

// ---- rollback-only

TEST_F(QueueTransaction, NothingGoesOutInOneThatIsRollbackOnlyOrTimedOut)
{
    ASSERT_TRUE(begin());
    for (auto [state, error] :
         {std::pair(TX_STATE_ROLLBACK, TPEPROTO), std::pair(TX_STATE_TIMED_OUT, TPETIME)}) {
        set_tx_state(block(), state);
        expect_refused(enq_ctl(), error);
        expect_refused(deq_ctl(DIRECT), error);
        expect_refused(deq_ctl(DIRECT | TPBLOCK), error);
        EXPECT_EQ(stage(), TX_STAGE_BEGUN);
    }
    set_tx_state(block(), TX_STATE_ROLLBACK);
    EXPECT_EQ(served([&] { return enq_ctl(TPNOTRAN); }, wire::TPENQ), 0);
    EXPECT_EQ(served([&] { return deq_ctl(DIRECT | TPNOTRAN); }, wire::TPDEQ), 1);
}

TEST_F(QueueTransaction, RefusedEnqueueMarksIt)
{
    ASSERT_TRUE(begin());
    EXPECT_EQ(enqueue_in({.msgtype = 2017, .rcode = TPEQFULL}), -1);
    EXPECT_EQ(gettperrno(), TPEQFULL);
    expect_marked(true);
    EXPECT_EQ(commit_turned_with(0), TX_ROLLBACK);
    expect_no_transaction();
}

TEST_F(QueueTransaction, RefusedEnqueueOutsideDoesNot)
{
    ASSERT_TRUE(begin());
    wire::with refusal = {.msgtype = 2017, .flags = TPESYSTEM};
    EXPECT_EQ(served([&] { return enq_ctl(TPNOTRAN); }, wire::TPENQ, refusal), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    expect_marked(false);
}

TEST_F(QueueTransaction, LostConnectionOfAnEnqueueEndsIt)
{
    ASSERT_TRUE(begin());
    peer.play([&] {
        peer.expect(wire::TPENQ);
        peer.hang_up();
    });
    EXPECT_EQ(enq_ctl(), -1);
    EXPECT_EQ(gettperrno(), TPECLOSE);
    EXPECT_EQ(pending(), 0);
}

TEST_F(QueueTransaction, EnqueueThatTheServerDoesNotUnderstandMarksIt)
{
    ASSERT_TRUE(begin());
    peer.play([&] {
        peer.expect(wire::TPENQ);
        peer.send(wire::message(2051));  // a server went down
    });
    EXPECT_EQ(enq_ctl(), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    expect_marked(true);
}

TEST_F(QueueTransaction, FailedWaitOutsideDoesNotMarkIt)
{
    ASSERT_TRUE(begin());
    peer.play([&] {
        peer.expect(wire::TPENQ);
        peer.send(wire::message(2051));
    });
    EXPECT_EQ(enq_ctl(TPNOTRAN), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    expect_marked(false);
}

// Allocations of the call: the copy of the message, then the template of the wait.
TEST_F(QueueTransaction, MemoryShortBehindTheSendMarksIt)
{
    ASSERT_TRUE(begin());
    faults::fail_allocation(2);
    EXPECT_EQ(enq_ctl(), -1);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    faults::disarm_allocations();
    expect_marked(true);
    peer.expect(wire::TPENQ);
    EXPECT_EQ(block()->waiter_count, 0);
}

TEST_F(QueueTransaction, MemoryShortAheadOfTheSendDoesNot)
{
    ASSERT_TRUE(begin());
    faults::fail_allocation(1);
    EXPECT_EQ(enq_ctl(), -1);
    EXPECT_EQ(gettperrno(), TPEOS);
    faults::disarm_allocations();
    expect_marked(false);
    peer.expect_nothing();
    EXPECT_EQ(block()->rq_enq_in_tran, 1);
}

TEST_F(QueueTransaction, FailedSendDoesNotMarkIt)
{
    ASSERT_TRUE(begin());
    faults::fail(faults::SEND, 1, ENOBUFS);
    EXPECT_EQ(enq_ctl(), -1);
    EXPECT_EQ(gettperrno(), TPEOS);
    expect_marked(false);
}

TEST_F(QueueTransaction, FailedDequeueDoesNotMarkIt)
{
    ASSERT_TRUE(begin());
    EXPECT_EQ(dequeue_in({.msgtype = 2018, .rcode = TPEOS}), -1);
    EXPECT_EQ(gettperrno(), TPEOS);
    expect_marked(false);
    EXPECT_EQ(commit_with(0), TX_OK);
}

// ---- time

TEST_F(QueueTransaction, BlockTimeDoesNotEndItsWaits)
{
    ASSERT_TRUE(begin(1));
    auto let_time_pass = [&] {
        for (int i = 0; i < 3; i++) {
            faults::shift_clock(100);
            peer.send(wire::message(1012));
        }
    };
    peer.play([&] {
        peer.expect(wire::TPENQ);
        let_time_pass();
        peer.reply();
        let_time_pass();
        peer.send(answer_of(SECOND, "answer"));
    });
    EXPECT_EQ(enq_ctl(), 0);
    EXPECT_EQ(deq_ctl(), 1);
    EXPECT_EQ(reply_data(), "answer");
}

TEST_F(QueueTransaction, ItsOwnTimeEndsThem)
{
    ASSERT_TRUE(start_queues());
    ASSERT_EQ(tx_set_transaction_timeout(1000), TX_OK);
    ASSERT_EQ(tx_begin(), TX_OK);
    peer.play([&] {
        peer.expect(wire::TPENQ);
        let_time_run_out(1001);
    });
    EXPECT_EQ(enq_ctl(), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    peer.done();
    EXPECT_NE(tx_state_of(block()), TX_STATE_ACTIVE);
    EXPECT_EQ(commit_turned_with(0), TX_ROLLBACK);
}
