// Transactions by their other names.
#include "tx/fixture.h"

#include "wire/msgheader.h"

namespace {

constexpr long ANY_FLAGS[] = {0, 1, -1, 0x4000000, LONG_MAX};

}  // namespace

TEST(TransactionCodes, MapToErrorNumbers)
{
    const struct {
        int code, error;
    } cases[] = {
        {TX_OK, 0},
        {1, 0},
        {INT_MAX, 0},
        {TX_OUTSIDE, TPETRAN},
        {TX_ROLLBACK, TPETRAN},
        {TX_PROTOCOL_ERROR, TPEPROTO},
        {TX_ERROR, TPETRAN},
        {TX_FAIL, TPETRAN},
        {TX_EINVAL, TPEINVAL},
        {TX_COMMITTED, TPETRAN},
        {TX_NO_BEGIN, TPETRAN},
        {TX_NO_BEGIN + TX_PROTOCOL_ERROR, TPETRAN},
        {INT_MIN, TPETRAN},
    };
    for (const auto &row : cases)
        EXPECT_EQ(_map_tx2tperrno(row.code), row.error) << row.code;
}

// ---- tpbegin

TEST_F(TxTest, TpbeginStoresItsTimeoutAndBegins)
{
    ASSERT_TRUE(start());
    for (long flags : ANY_FLAGS) {
        set_tperrno(9);
        EXPECT_EQ(tpbegin(5000, flags), 1) << flags;
        EXPECT_EQ(gettperrno(), 0);
        expect_begun();
        EXPECT_EQ(info().transaction_timeout, 5000);
        EXPECT_GT(alarm(0), 4000u);
        EXPECT_EQ(tpabort(flags), 1);
    }
    EXPECT_EQ(tpbegin(0, 0), 1);
    EXPECT_EQ(info().transaction_timeout, 0);
    EXPECT_EQ(alarm(0), 0u);
    peer.expect_nothing();
}

TEST_F(TxTest, SecondTpbeginFailsButItsTimeoutStays)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(tpbegin(5000, 0), 1);
    EXPECT_EQ(tpbegin(17, 0), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    EXPECT_EQ(info().transaction_timeout, 17);
    EXPECT_GT(alarm(0), 4000u);  // the timer that runs is the first one's
    expect_begun();
}

TEST_F(TxTest, TpbeginOpensASessionAndKeepsItsTimeout)
{
    peer.play([&] { peer.accept_start({.tx_timeout = 45}); });
    EXPECT_EQ(tpbegin(5000, 0), 1);
    peer.done();
    expect_begun();
    EXPECT_EQ(info().transaction_timeout, 5000);
    EXPECT_GT(alarm(0), 4000u);
}

TEST_F(TxTest, TpbeginTellsWhyNoSessionCouldBeOpened)
{
    peer.stop_listening();
    EXPECT_EQ(tpbegin(0, 0), -1);
    EXPECT_EQ(gettperrno(), TPEOS);
}

// ---- tpcommit and tpabort

TEST_F(TxTest, EndsByOtherNamesMapTheServersResult)
{
    const struct {
        int32_t result;
        int value, error;
    } cases[] = {
        {TX_OK, 1, 0},
        {5, 1, 0},
        {TX_ROLLBACK, -1, TPETRAN},
        {TX_MIXED, -1, TPETRAN},
        {TX_PROTOCOL_ERROR, -1, TPEPROTO},
        {TX_FAIL, -1, TPETRAN},
        {TX_EINVAL, -1, TPEINVAL},
        {TX_COMMITTED, -1, TPETRAN},
        {-4711, -1, TPETRAN},
    };
    ASSERT_TRUE(start());
    for (const auto &row : cases) {
        SCOPED_TRACE(row.result);
        ASSERT_TRUE(run());
        set_tperrno(9);
        EXPECT_EQ(end_with([] { return tpcommit(-1); }, COMMIT_MESSAGE, row.result), row.value);
        EXPECT_EQ(gettperrno(), row.error);
        ASSERT_TRUE(run());
        set_tperrno(9);
        EXPECT_EQ(end_with([] { return tpabort(-1); }, ROLLBACK_MESSAGE, row.result), row.value);
        EXPECT_EQ(gettperrno(), row.error);
        expect_no_transaction();
    }
}

TEST_F(TxTest, FlagsOfTpcommitAreNotSent)
{
    ASSERT_TRUE(start());
    for (long flags : ANY_FLAGS) {
        ASSERT_TRUE(run());
        peer.play([&] {
            peer.expect(COMMIT_MESSAGE).flags(0);
            peer.reply();
        });
        EXPECT_EQ(tpcommit(flags), 1);
        peer.done();
    }
}

TEST_F(TxTest, TpcommitKeepsTheErrorOfTheTransport)
{
    ASSERT_TRUE(start_running());
    peer.play([&] {
        peer.expect(COMMIT_MESSAGE);
        peer.hang_up();
    });
    EXPECT_EQ(tpcommit(0), -1);
    EXPECT_EQ(gettperrno(), TPECLOSE);
    peer.done();
}

TEST_F(TxTest, TpcommitOfATransactionThatCannotCommitIsATransactionError)
{
    ASSERT_TRUE(start_running());
    set_tx_state(block(), TX_STATE_ROLLBACK);
    EXPECT_EQ(end_with([] { return tpcommit(0); }, ROLLBACK_MESSAGE, TX_OK), -1);
    EXPECT_EQ(gettperrno(), TPETRAN);
    ASSERT_TRUE(run());
    set_tx_state(block(), TX_STATE_TIMED_OUT);
    EXPECT_EQ(end_with([] { return tpcommit(0); }, ROLLBACK_MESSAGE, TX_COMMITTED), 1);
    EXPECT_EQ(gettperrno(), 0);
}

TEST_F(TxTest, EndsByOtherNamesNeedATransaction)
{
    EXPECT_EQ(tpcommit(0), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    EXPECT_EQ(tpabort(0), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    ASSERT_TRUE(start());
    EXPECT_EQ(tpcommit(0), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    EXPECT_EQ(tpabort(0), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    ASSERT_EQ(tpbegin(0, 0), 1);
    set_tperrno(9);
    EXPECT_EQ(tpcommit(0), 1);
    EXPECT_EQ(gettperrno(), 0);
    peer.expect_nothing();
}

// ---- tpscmt and tpgetlev

TEST_F(TxTest, TpscmtNamesTheTwoWaysOfReturning)
{
    ASSERT_TRUE(start());
    for (int round = 0; round < 2; round++) {
        set_tperrno(9);
        EXPECT_EQ(tpscmt(1), 1);  // not the former setting
        EXPECT_EQ(gettperrno(), 0);
        EXPECT_EQ(info().when_return, TX_COMMIT_DECISION_LOGGED);
        EXPECT_EQ(tpscmt(2), 1);
        EXPECT_EQ(info().when_return, TX_COMMIT_COMPLETED);
    }
    EXPECT_EQ(tpscmt(1), 1);
    for (long flags : {0L, 3L, -1L, 0x100000001L, 0x100000002L, LONG_MAX}) {
        EXPECT_EQ(tpscmt(flags), -1) << flags;
        EXPECT_EQ(gettperrno(), TPEINVAL);
    }
    EXPECT_EQ(info().when_return, TX_COMMIT_DECISION_LOGGED);
    peer.expect_nothing();
}

TEST_F(TxTest, TpgetlevTellsWhetherOneIsOpen)
{
    ASSERT_TRUE(start());
    set_tperrno(9);
    EXPECT_EQ(tpgetlev(), 0);
    EXPECT_EQ(gettperrno(), 0);
    ASSERT_EQ(tpbegin(0, 0), 1);
    EXPECT_EQ(tpgetlev(), 1);
    ASSERT_TRUE(run());
    set_tperrno(9);
    EXPECT_EQ(tpgetlev(), 1);
    EXPECT_EQ(gettperrno(), 0);
    set_tx_state(block(), TX_STATE_ROLLBACK);
    EXPECT_EQ(tpgetlev(), 1);
    EXPECT_EQ(rollback_with(TX_OK), TX_OK);
    EXPECT_EQ(tpgetlev(), 0);
}

TEST_F(TxTest, WithoutASessionThereIsNoLevelAndNoWayOfReturning)
{
    EXPECT_EQ(tpgetlev(), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    EXPECT_EQ(tpscmt(1), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    EXPECT_EQ(tpscmt(3), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    EXPECT_TRUE(peer.nobody_knocks());
}

// ---- results behind a pointer

TEST_F(TxTest, ResultsBehindAPointerAreTheSame)
{
    int result = 4711;
    TXCOMMIT(&result);
    EXPECT_EQ(result, TX_PROTOCOL_ERROR);
    ASSERT_TRUE(start());
    TXBEGIN(&result);
    EXPECT_EQ(result, TX_OK);
    expect_begun();
    TXBEGIN(&result);
    EXPECT_EQ(result, TX_PROTOCOL_ERROR);
    ASSERT_TRUE(run());
    EXPECT_EQ(end_with(
                  [] {
                      int code;
                      TXCOMMIT(&code);
                      return code;
                  },
                  COMMIT_MESSAGE, TX_MIXED),
              TX_MIXED);
    ASSERT_TRUE(run());
    EXPECT_EQ(end_with(
                  [] {
                      int code;
                      TXROLLBACK(&code);
                      return code;
                  },
                  ROLLBACK_MESSAGE, TX_COMMITTED),
              TX_COMMITTED);
    TXROLLBACK(&result);
    EXPECT_EQ(result, TX_PROTOCOL_ERROR);
}

TEST_F(TxTest, ResultsNeedNoPointer)
{
    TXCOMMIT(nullptr);
    TXROLLBACK(nullptr);
    ASSERT_TRUE(start());
    TXBEGIN(nullptr);
    expect_begun();
    TXCOMMIT(nullptr);
    expect_no_transaction();
    TXBEGIN(nullptr);
    TXROLLBACK(nullptr);
    expect_no_transaction();
    peer.expect_nothing();
}
