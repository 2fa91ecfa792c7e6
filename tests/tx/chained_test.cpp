// The chained mode: the end of a transaction is the beginning of the next.
#include "tx/fixture.h"

#include "wire/msgheader.h"

namespace {

struct Chained : TxTest {
    bool start_chained(const wire::start_reply &reply = {}, bool multiple = false)
    {
        return start(reply, multiple) && tx_set_transaction_control(TX_CHAINED) == TX_OK;
    }

    // Ends the running transaction while the session goes away, unseen by the thread that ends it: the answer
    // comes, and then there is no session to begin on.
    int end_and_lose_the_session(int (*end)(void), int msgtype, int32_t result)
    {
        wthr_var *mine = block();
        peer.play([&, mine, msgtype, result] {
            peer.expect(msgtype);
            mine->started = 0;
            peer.reply("", {.rcode = result});
        });
        int code = end();
        peer.done();
        EXPECT_EQ(stage(), TX_STAGE_NONE);
        EXPECT_EQ(tx_state_of(mine), TX_STATE_NONE);
        mine->started = 1;
        return code;
    }
};

}  // namespace

TEST_F(Chained, NextTransactionBeginsAtEachEnd)
{
    ASSERT_TRUE(start_chained());
    expect_no_transaction();  // the switch alone begins none
    for (int32_t result : {TX_OK, TX_ROLLBACK, TX_MIXED, TX_HAZARD, TX_FAIL, TX_COMMITTED, 5}) {
        ASSERT_TRUE(run());  // its first call starts it on the server
        EXPECT_EQ(commit_with(result), result);
        expect_begun();
        ASSERT_TRUE(run());
        EXPECT_EQ(rollback_with(result), result);
        expect_begun();
    }
}

TEST_F(Chained, TransactionInWhichNothingWasSentIsFollowedToo)
{
    ASSERT_TRUE(start_chained());
    ASSERT_EQ(tx_begin(), TX_OK);
    for (auto end : {tx_commit, tx_rollback}) {
        EXPECT_EQ(end(), TX_OK);
        expect_begun();
    }
    peer.expect_nothing();
}

TEST_F(Chained, SwitchCountsAtTheEnd)
{
    ASSERT_TRUE(start());
    ASSERT_TRUE(run());
    ASSERT_EQ(tx_set_transaction_control(TX_CHAINED), TX_OK);
    EXPECT_EQ(commit_with(TX_OK), TX_OK);
    expect_begun();
    ASSERT_TRUE(run());
    ASSERT_EQ(tx_set_transaction_control(TX_UNCHAINED), TX_OK);
    EXPECT_EQ(commit_with(TX_OK), TX_OK);
    expect_no_transaction();
}

TEST_F(Chained, CommitThatBecameARollbackIsFollowedByAFreshOne)
{
    ASSERT_TRUE(start_chained());
    for (int now : {TX_STATE_TIMED_OUT + 0, TX_STATE_ROLLBACK + 0}) {
        ASSERT_TRUE(run());
        set_tx_state(block(), now);
        EXPECT_EQ(commit_turned_with(TX_OK), TX_ROLLBACK);
        expect_begun();
        ASSERT_TRUE(run());
        set_tx_state(block(), now);
        EXPECT_EQ(commit_turned_with(TX_COMMITTED), TX_OK);
        expect_begun();
    }
}

TEST_F(Chained, EachTransactionHasItsTimer)
{
    ASSERT_TRUE(start_chained({.tx_timeout = 5000}));
    ASSERT_TRUE(run());
    EXPECT_GT(alarm(0), 4000u);
    EXPECT_EQ(commit_with(TX_OK), TX_OK);
    EXPECT_GT(alarm(0), 4000u);
    EXPECT_EQ(block()->tx_timer_on, 1);
    EXPECT_EQ(tx_set_transaction_timeout(0), TX_OK);
    block()->tx_timer_on = 0;
    EXPECT_EQ(tx_rollback(), TX_OK);
    expect_begun();
    EXPECT_EQ(alarm(0), 0u);
}

TEST_F(Chained, RefusedReplyIsFollowedToo)
{
    ASSERT_TRUE(start_chained());
    ASSERT_TRUE(run());
    peer.play([&] {
        peer.expect(COMMIT_MESSAGE);
        peer.reply("", {.rcode = TX_OK, .flags = TPESYSTEM});
    });
    EXPECT_EQ(tx_commit(), TX_FAIL);
    peer.done();
    expect_begun();
}

TEST_F(Chained, EndThatCouldNotBeMadeForWantOfMemoryIsFollowedToo)
{
    ASSERT_TRUE(start_chained());
    ASSERT_TRUE(run());
    faults::fail_allocation(1);
    EXPECT_EQ(tx_commit(), TX_FAIL);
    faults::disarm_allocations();
    expect_begun();
    peer.expect_nothing();
}

// ---- a next one that can't begin

TEST_F(Chained, FailureToBeginIsAddedToTheResult)
{
    ASSERT_TRUE(start_chained({}, true));
    for (int32_t result :
         {TX_OK, TX_ROLLBACK, TX_MIXED, TX_HAZARD, TX_PROTOCOL_ERROR, TX_FAIL, TX_COMMITTED, 5}) {
        ASSERT_TRUE(run());
        EXPECT_EQ(end_and_lose_the_session(tx_commit, COMMIT_MESSAGE, result), result + TX_NO_BEGIN);
        ASSERT_TRUE(run());
        EXPECT_EQ(end_and_lose_the_session(tx_rollback, ROLLBACK_MESSAGE, result), result + TX_NO_BEGIN);
    }
    EXPECT_EQ(TX_ROLLBACK + TX_NO_BEGIN, TX_ROLLBACK_NO_BEGIN);
    EXPECT_EQ(TX_ROLLBACK_NO_BEGIN, -102);
}

TEST_F(Chained, SumOfTheTwoStaysANumber)
{
    ASSERT_TRUE(start_chained({}, true));
    for (int32_t result : {INT32_MIN, INT32_MIN + 99}) {
        ASSERT_TRUE(run());
        EXPECT_LT(end_and_lose_the_session(tx_commit, COMMIT_MESSAGE, result), 0);
    }
    ASSERT_TRUE(run());
    EXPECT_EQ(end_and_lose_the_session(tx_commit, COMMIT_MESSAGE, INT32_MIN + 100), INT32_MIN);
    ASSERT_TRUE(run());
    EXPECT_EQ(end_and_lose_the_session(tx_commit, COMMIT_MESSAGE, INT32_MAX), INT32_MAX - 100);
}

TEST_F(Chained, CommitThatBecameARollbackPassesTheSumOn)
{
    const struct {
        int32_t result;
        int sum;
    } cases[] = {{TX_OK, -100}, {TX_ROLLBACK, -102}, {TX_COMMITTED, -109}};
    ASSERT_TRUE(start_chained({}, true));
    for (const auto &row : cases) {
        ASSERT_TRUE(run());
        set_tx_state(block(), TX_STATE_ROLLBACK);
        EXPECT_EQ(end_and_lose_the_session(tx_commit, ROLLBACK_MESSAGE, row.result), row.sum);
    }
}

TEST_F(Chained, FailureToBeginIsNotAddedToAFailedExchange)
{
    ASSERT_TRUE(start_chained({}, true));
    wthr_var *mine = block();
    ASSERT_TRUE(run());
    peer.play([&] {
        peer.expect(COMMIT_MESSAGE);
        mine->started = 0;
        peer.reply("", {.rcode = TX_OK, .flags = TPESYSTEM});
    });
    EXPECT_EQ(tx_commit(), TX_FAIL);
    peer.done();
    mine->started = 1;
    ASSERT_TRUE(run());
    peer.play([&] {
        peer.expect(COMMIT_MESSAGE);
        peer.hang_up();
    });
    EXPECT_EQ(tx_commit(), TX_FAIL);
    peer.done();
    EXPECT_TRUE(peer.nobody_knocks());
    expect_no_transaction();
}

TEST_F(Chained, CheckEndsTheRecordAndTellsOfTheNext)
{
    ASSERT_TRUE(start({}, true));
    ASSERT_TRUE(run());
    EXPECT_EQ(_tx_chain_check(), 0);
    expect_no_transaction();
    ASSERT_EQ(tx_set_transaction_control(TX_CHAINED), TX_OK);
    EXPECT_EQ(_tx_chain_check(), 0);
    expect_begun();
    block()->started = 0;
    EXPECT_EQ(_tx_chain_check(), TX_NO_BEGIN);
    expect_no_transaction();
    block()->started = 1;
}
