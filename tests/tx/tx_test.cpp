// The transaction record of a context and the checks that requests and waits make on it.
#include "tx/tx.h"

#include "runtime/mthr.h"
#include "support/faults.h"
#include "support/gtest.h"
#include "vorn/errors.h"
#include "vorn/tx.h"
#include "wire/msgheader.h"

#include <string.h>
#include <unistd.h>

namespace {

struct Transaction : testing::Test {
    wthr_var *block = nullptr;

    void SetUp() override
    {
        block = current_block();
        ASSERT_NE(block, nullptr);
        ASSERT_EQ(_make_txinfo(block), 1);
        set_tperrno(0);
    }

    void TearDown() override { _txinfo_end(block); }

    void open(int state = TX_STATE_ACTIVE, int stage = TX_STAGE_RUNNING)
    {
        block->txinfo->tx_active = 1;
        block->txinfo->tx_stage = stage;
        block->txinfo->transaction_state = state;
    }
};

void expect_fresh(const txinfo_elem &row)
{
    EXPECT_EQ(row.tx_active, 0);
    EXPECT_EQ(row.spare, 0);
    EXPECT_EQ(row.tx_stage, 0);
    EXPECT_EQ(row.spare2, 1);
    EXPECT_EQ(row.formatID, 1);
    EXPECT_EQ(row.gtrid_length, 8);
    EXPECT_EQ(row.bqual_length, 4);
    for (uint32_t word : row.xid_data)
        EXPECT_EQ(word, 0u);
    EXPECT_EQ(row.when_return, 0);
    EXPECT_EQ(row.transaction_control, 0);
    EXPECT_EQ(row.transaction_timeout, 0);
    EXPECT_EQ(row.transaction_state, -1);
}

}  // namespace

TEST_F(Transaction, RecordIsATableOfEightFreshRows)
{
    EXPECT_EQ(_internal_txinfo, block->txinfo);
    EXPECT_EQ(_cur_txinfo_ind, 0);
    for (int i = 0; i < 8; i++) {
        SCOPED_TRACE(i);
        expect_fresh(block->txinfo[i]);
    }
}

TEST_F(Transaction, NewTableBecomesTheProcesssLast)
{
    txinfo_elem *first = block->txinfo;
    _cur_txinfo_ind = 3;
    wthr_var other = {};
    ASSERT_EQ(_make_txinfo(&other), 1);
    EXPECT_NE(other.txinfo, first);
    EXPECT_EQ(_internal_txinfo, other.txinfo);
    EXPECT_EQ(_cur_txinfo_ind, 0);
    EXPECT_EQ(block->txinfo, first);
    EXPECT_EQ(_txinfo_end(&other), 1);
    EXPECT_EQ(other.txinfo, nullptr);
}

TEST_F(Transaction, EndTakesTheTableAway)
{
    EXPECT_EQ(_txinfo_end(block), 1);
    EXPECT_EQ(block->txinfo, nullptr);
    EXPECT_EQ(_txinfo_end(block), 1);  // once more does no harm
}

TEST_F(Transaction, WithoutMemoryThereIsNoTableAndALine)
{
    _txinfo_end(block);
    testing::internal::CaptureStderr();
    faults::fail_allocation(1);
    int result = _make_txinfo(block);
    faults::disarm_allocations();
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(block->txinfo, nullptr);
    EXPECT_NE(log.find("(E) CLI 0004 memory allocation error : size = "), std::string::npos) << log;
    EXPECT_NE(log.find("[CSC5108]"), std::string::npos) << log;
    EXPECT_EQ(_make_txinfo(block), 1);
}

TEST_F(Transaction, RowIsResetWhole)
{
    memset(&block->txinfo[0], 0x77, sizeof(txinfo_elem));
    memset(&block->txinfo[5], 0x77, sizeof(txinfo_elem));
    EXPECT_EQ(_init_txinfo(block), 1);
    expect_fresh(block->txinfo[0]);
    EXPECT_EQ(block->txinfo[5].tx_active, 0x77777777);
    EXPECT_EQ(_init_txinfo_elem(&block->txinfo[5]), 1);
    expect_fresh(block->txinfo[5]);
}

TEST_F(Transaction, IsOpenFromBeginToEnd)
{
    EXPECT_FALSE(in_transaction(block));
    open(TX_STATE_ACTIVE, TX_STAGE_BEGUN);
    EXPECT_TRUE(in_transaction(block));
    open(TX_STATE_ACTIVE, TX_STAGE_RUNNING);
    EXPECT_TRUE(in_transaction(block));
    block->txinfo->tx_stage = 0;
    EXPECT_FALSE(in_transaction(block));
}

TEST_F(Transaction, OnlyAnOpenOneIsMarkedRollbackOnly)
{
    for (int type : {MSG_TPCALL + 0, MSG_TPACALL + 0, MSG_TX_COMMIT + 0, 0}) {
        _init_txinfo(block);
        EXPECT_EQ(_check_tx_state(type, 1, block), 1);
        EXPECT_EQ(block->txinfo->transaction_state, -1);
        open();
        EXPECT_EQ(_check_tx_state(type, 0, block), 1);
        EXPECT_EQ(block->txinfo->transaction_state, 0);
        EXPECT_EQ(_check_tx_state(type, 1, block), 1);
        EXPECT_EQ(block->txinfo->transaction_state, 2);
        open(TX_STATE_ACTIVE, TX_STAGE_BEGUN);
        EXPECT_EQ(_check_tx_state(type, -5, block), 1);
        EXPECT_EQ(block->txinfo->transaction_state, 2);
    }
    _init_txinfo(block);
    EXPECT_EQ(_check_rollback(block), 1);
    EXPECT_EQ(block->txinfo->transaction_state, -1);
    open();
    EXPECT_EQ(_check_rollback(block), 1);
    EXPECT_EQ(block->txinfo->transaction_state, 2);
    open(TX_STATE_TIMED_OUT);
    EXPECT_EQ(_check_rollback(block), 1);
    EXPECT_EQ(block->txinfo->transaction_state, 2);
}

TEST_F(Transaction, RequestsAreRefusedOnceItCannotCommit)
{
    const struct {
        int stage, state, result, error;
    } cases[] = {
        {0, -1, 1, 0},        {0, 1, 1, 0},  {0, 2, 1, 0}, {1, 0, 1, 0},        {1, 1, -1, TPETIME},
        {1, 2, -1, TPEPROTO}, {1, -1, 1, 0}, {2, 0, 1, 0}, {2, 1, -1, TPETIME}, {2, 2, -1, TPEPROTO},
    };
    for (const auto &row : cases)
        for (int type : {3, 4, 5, 32}) {
            SCOPED_TRACE(std::to_string(row.stage) + " " + std::to_string(row.state));
            open(row.state, row.stage);
            set_tperrno(0);
            EXPECT_EQ(_tx_start_check(type), row.result);
            EXPECT_EQ(get_tperrno(), row.error);
        }
}

TEST_F(Transaction, WaitsEndWhenItsTimeIsUpButForTheEndOfItself)
{
    const struct {
        int stage, state, type, result;
    } cases[] = {
        {0, -1, 3, 0},  {0, 1, 3, 0},   {1, 0, 3, 0},      {1, 2, 3, 0},    {1, 1, 3, -13},
        {2, 1, 3, -13}, {1, 1, 4, -13}, {1, 1, 28, -13},   {1, 1, 31, -13}, {1, 1, 34, -13},
        {1, 1, 32, 0},  {1, 1, 33, 0},  {1, 1, 1032, -13},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(std::to_string(row.stage) + " " + std::to_string(row.state) + " " +
                     std::to_string(row.type));
        open(row.state, row.stage);
        msg_header message;
        _init_header(&message);
        message.msgtype = row.type;
        EXPECT_EQ(_tx_timeout_check(&message), row.result);
    }
    open(TX_STATE_TIMED_OUT);
    EXPECT_EQ(_tx_timeout_check(nullptr), -13);
    open(TX_STATE_ACTIVE);
    EXPECT_EQ(_tx_timeout_check(nullptr), 0);
    EXPECT_EQ(get_tperrno(), 0);
}

TEST_F(Transaction, StateIsReadAndWrittenThroughItsFunctions)
{
    EXPECT_EQ(tx_state_of(block), -1);
    set_tx_state(block, 2);
    EXPECT_EQ(block->txinfo->transaction_state, 2);
    EXPECT_EQ(tx_state_of(block), 2);
}

TEST_F(Transaction, TimeoutIsStoredUncheckedAndLeavesTheTimerAlone)
{
    block->tx_timer_on = 1;
    block->tx_deadline = 4711;
    alarm(5000);
    for (int value : {30, 0, -1, 0x7fffffff}) {
        EXPECT_EQ(tx_set_transaction_timeout(value), 0);
        EXPECT_EQ(block->txinfo->transaction_timeout, value);
    }
    EXPECT_EQ(block->tx_timer_on, 1);
    EXPECT_EQ(block->tx_deadline, 4711);
    EXPECT_GT(alarm(0), 4000u);
    block->tx_timer_on = 0;
}

TEST(TransactionWithoutARecord, ChecksFindNoneOpen)
{
    wthr_var *block = current_block();
    ASSERT_EQ(block->txinfo, nullptr);
    EXPECT_FALSE(in_transaction(block));
    EXPECT_EQ(_check_tx_state(3, 1, block), 1);
    EXPECT_EQ(_check_rollback(block), 1);
    EXPECT_EQ(_tx_start_check(3), 1);
    EXPECT_EQ(_tx_timeout_check(nullptr), 0);
    tx_set_transaction_timeout(30);  // nowhere to store it: whatever it gives, it is safe
}
