// The tables of outstanding work of a context: asynchronous calls, conversations, stored replies.
#include "calls/cscommon.h"

#include "runtime/mthr.h"
#include "support/faults.h"
#include "support/gtest.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "wire/msgheader.h"

#include <limits.h>
#include <stdlib.h>

namespace {

bool is_free(pthread_mutex_t *mutex)
{
    if (pthread_mutex_trylock(mutex) != 0)
        return false;
    pthread_mutex_unlock(mutex);
    return true;
}

struct Descriptors : testing::Test {
    wthr_var *block = nullptr;

    void SetUp() override
    {
        block = current_block();
        ASSERT_NE(block, nullptr);
        set_tperrno(0);
    }

    void TearDown() override
    {
        EXPECT_TRUE(is_free(&block->msg_mutex));
        _make_all_acall_cd_invalid(block);
        _init_acall(-1, block);
        _init_conv(-1, block);
        _init_qcall(-1, block);
    }

    // The row in which a descriptor stands.
    int row(int cd) { return _get_acall_cd_ind(cd, block); }

    void end(int cd) { EXPECT_EQ(_make_acall_cd_invalid(row(cd), block), 1); }

    void store(int index, uint32_t number)
    {
        block->acall[index].reply = _header_msg_make(1004, 0);
        block->acall[index].ready_no = number;
    }
};
using Conversations = Descriptors;
using StoredReplies = Descriptors;

}  // namespace

// ---- asynchronous calls

TEST_F(Descriptors, TableIsMadeOfFreeRows)
{
    EXPECT_EQ(_init_acall(5, block), 1);
    EXPECT_EQ(block->acall_size, 5);
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(block->acall[i].cd, -1);
        EXPECT_EQ(block->acall[i].flags, 0u);
        EXPECT_EQ(block->acall[i].reply, nullptr);
        EXPECT_EQ(block->acall[i].ready_no, 0u);
        EXPECT_EQ(block->acall[i].fd, -1);
    }
    EXPECT_EQ(_init_acall(0, block), -1);
    EXPECT_EQ(block->acall, nullptr);
    EXPECT_EQ(block->acall_size, 0);
    EXPECT_EQ(_init_acall(3, block), 1);
    EXPECT_EQ(_init_acall(-1, block), -1);
    EXPECT_EQ(block->acall, nullptr);
    EXPECT_EQ(block->acall_size, 0);
    EXPECT_EQ(_init_acall(INT_MIN, block), -1);
}

TEST_F(Descriptors, SizeThatNoClientNeedsIsCut)
{
    EXPECT_EQ(_init_acall(INT_MAX, block), 1);
    EXPECT_EQ(block->acall_size, MOST_ROWS);
    EXPECT_EQ(block->acall[MOST_ROWS - 1].cd, -1);
    EXPECT_EQ(_init_acall(-1, block), -1);
    EXPECT_EQ(_init_conv(MOST_ROWS + 1, block), 1);
    EXPECT_EQ(block->conv_size, MOST_ROWS);
    EXPECT_EQ(_init_conv(-1, block), -1);
    EXPECT_EQ(_init_qcall(INT_MAX, block), 1);
    EXPECT_EQ(block->qcall_size, MOST_ROWS);
}

TEST_F(Descriptors, TablesThatCannotBeMadeAreFatal)
{
    EXPECT_EXIT(
        {
            faults::fail_allocation(1);
            _init_acall(4, block);
        },
        testing::ExitedWithCode(1), "\\(F\\) CLI 0005 memory allocation error : size = [0-9]+ \\[CSC5106\\]");
    EXPECT_EXIT(
        {
            faults::fail_allocation(1);
            _init_qcall(4, block);
        },
        testing::ExitedWithCode(1), "\\(F\\) CLI 0005 memory allocation error : size = [0-9]+ \\[CSC5106\\]");
}

TEST_F(Conversations, TableThatCannotBeMadeIsALineAndNoTable)
{
    testing::internal::CaptureStderr();
    faults::fail_allocation(1);
    _init_conv(4, block);
    faults::disarm_allocations();
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("(E) CLI 0004 memory allocation error : size = "), std::string::npos) << log;
    EXPECT_NE(log.find("[CSC5101]"), std::string::npos) << log;
    EXPECT_EQ(_create_conv_entry(1, TPSENDONLY, block), -1);
    EXPECT_EQ(_get_conv_cd_ind(1, block), -1);
}

TEST_F(Descriptors, NumbersRiseAndRowsAreFoundByTheirRemainder)
{
    ASSERT_EQ(_init_acall(4, block), 1);
    for (int cd = 1; cd <= 4; cd++) {
        EXPECT_EQ(_create_acall_cd(0, block), cd);
        EXPECT_EQ(block->acall_active, cd);
        EXPECT_EQ(row(cd), cd % 4);
    }
    end(2);
    EXPECT_EQ(block->acall_active, 3);
    EXPECT_EQ(_create_acall_cd(0, block), 5);  // its own row 1 is taken
    EXPECT_EQ(row(5), 2);
    EXPECT_EQ(row(2), -1);
    EXPECT_EQ(row(1), 1);
}

TEST_F(Descriptors, FullTableSkipsANumber)
{
    ASSERT_EQ(_init_acall(2, block), 1);
    EXPECT_EQ(_create_acall_cd(0, block), 1);
    EXPECT_EQ(_create_acall_cd(0, block), 2);
    EXPECT_EQ(_create_acall_cd(0, block), -1);
    EXPECT_EQ(block->acall_next, 3);
    EXPECT_EQ(block->acall_active, 2);
    end(1);
    EXPECT_EQ(_create_acall_cd(0, block), 4);
    EXPECT_EQ(row(4), 1);  // the freed row, one behind its own
}

TEST_F(Descriptors, WithoutATableNoNumberIsSpent)
{
    EXPECT_EQ(block->acall_size, 0);
    EXPECT_EQ(_create_acall_cd(0, block), -1);
    EXPECT_EQ(_create_acall_cd(0, block), -1);
    EXPECT_EQ(block->acall_next, 0);
    EXPECT_EQ(row(1), -1);
    EXPECT_EQ(row(0), -1);
    EXPECT_EQ(row(-1), -1);
}

TEST_F(Descriptors, NumberingGoesOnInANewTable)
{
    ASSERT_EQ(_init_acall(4, block), 1);
    EXPECT_EQ(_create_acall_cd(0, block), 1);
    EXPECT_EQ(_create_acall_cd(0, block), 2);
    ASSERT_EQ(_init_acall(8, block), 1);
    EXPECT_EQ(block->acall_size, 8);
    EXPECT_EQ(_create_acall_cd(0, block), 3);
    EXPECT_EQ(row(3), 3);
    EXPECT_EQ(row(1), -1);
}

TEST_F(Descriptors, LastNumberOfAllIsSafe)
{
    ASSERT_EQ(_init_acall(4, block), 1);
    block->acall_next = INT_MAX;
    int cd = _create_acall_cd(0, block);
    if (cd != -1) {
        int index = row(cd);
        EXPECT_GE(index, 0);
        EXPECT_LT(index, 4);
    }
}

TEST_F(Descriptors, UnknownNumbersAreNotFound)
{
    ASSERT_EQ(_init_acall(4, block), 1);
    EXPECT_EQ(_create_acall_cd(0, block), 1);
    for (int cd : {0, -1, -2, -4, -5, INT_MIN, 2, 5, INT_MAX})
        EXPECT_EQ(row(cd), -1) << cd;
}

TEST_F(Descriptors, RowKeepsTheCallersFlags)
{
    ASSERT_EQ(_init_acall(4, block), 1);
    int cd = _create_acall_cd(0x62f, block);
    EXPECT_EQ(block->acall[row(cd)].flags, 0x62fu);
}

TEST_F(Descriptors, ReleaseKeepsSocketAndArrivalAndFreesNoReply)
{
    ASSERT_EQ(_init_acall(4, block), 1);
    int cd = _create_acall_cd(TPNOTIME, block), index = row(cd);
    msg_header *reply = _header_msg_make(1004, 0);
    block->acall[index].reply = reply;
    block->acall[index].ready_no = 17;
    block->acall[index].fd = 99;
    EXPECT_EQ(_make_acall_cd_invalid(index, block), 1);
    EXPECT_EQ(block->acall[index].cd, -1);
    EXPECT_EQ(block->acall[index].flags, 0u);
    EXPECT_EQ(block->acall[index].reply, nullptr);
    EXPECT_EQ(block->acall[index].ready_no, 17u);
    EXPECT_EQ(block->acall[index].fd, 99);
    EXPECT_EQ(block->acall_active, 0);
    EXPECT_EQ(reply->msgtype, 1004);  // still ours
    free(reply);
}

TEST_F(Descriptors, AllAreReleasedWithTheirReplies)
{
    ASSERT_EQ(_init_acall(4, block), 1);
    for (int i = 0; i < 3; i++)
        store(row(_create_acall_cd(0, block)), (uint32_t)i);
    block->acall_active = 77;
    EXPECT_EQ(_make_all_acall_cd_invalid(block), 1);
    EXPECT_EQ(block->acall_active, 0);
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(block->acall[i].cd, -1);
        EXPECT_EQ(block->acall[i].reply, nullptr);
    }
}

TEST_F(Descriptors, OnlyThoseOfTheTransactionAreReleasedAtItsEnd)
{
    ASSERT_EQ(_init_acall(8, block), 1);
    for (int i = 0; i < 5; i++) {
        int index = row(_create_acall_cd(i % 2 ? TPTRAN | TPNOTIME : TPNOTIME, block));
        store(index, (uint32_t)i);
    }
    EXPECT_EQ(_get_active_tran_acall(block), 2);
    EXPECT_EQ(_make_tran_acall_cd_invalid(block), 1);
    EXPECT_EQ(_get_active_tran_acall(block), 0);
    EXPECT_EQ(block->acall_active, 3);
    for (int cd = 1; cd <= 5; cd++)
        EXPECT_EQ(row(cd) >= 0, cd % 2 == 1) << cd;
    // A free row with a stale mark doesn't count.
    block->acall[7].flags = TPTRAN;
    EXPECT_EQ(_get_active_tran_acall(block), 0);
    EXPECT_EQ(_make_tran_acall_cd_invalid(block), 1);
    EXPECT_EQ(block->acall_active, 3);
}

TEST_F(Descriptors, ResetKeepsTheTable)
{
    ASSERT_EQ(_init_acall(4, block), 1);
    acall_elem *table = block->acall;
    store(row(_create_acall_cd(TPTRAN, block)), 5);
    EXPECT_EQ(_init2_acall(4, block), 1);
    EXPECT_EQ(block->acall, table);
    EXPECT_EQ(block->acall[1].cd, -1);
    EXPECT_EQ(block->acall[1].flags, 0u);
    EXPECT_EQ(block->acall[1].reply, nullptr);
    EXPECT_EQ(block->acall[1].ready_no, 5u);
}

TEST_F(Descriptors, SocketIsNotedForAsynchronousCallsOnly)
{
    ASSERT_EQ(_init_acall(4, block), 1);
    int cd = _create_acall_cd(0, block);
    msg_header message;
    _init_header(&message);
    message.msgtype = MSG_TPACALL;
    message.cd = cd;
    EXPECT_EQ(set_acall_fd(33, &message, block), 1);
    EXPECT_EQ(block->acall[row(cd)].fd, 33);
    message.cd = 0;  // a call without a reply
    EXPECT_EQ(set_acall_fd(34, &message, block), -1);
    message.cd = -5;
    EXPECT_EQ(set_acall_fd(34, &message, block), -1);
    for (int type : {1, 2, 3, 5, 28, 1004}) {
        message.msgtype = type;
        message.cd = cd;
        EXPECT_EQ(set_acall_fd(35, &message, block), 1) << type;
        EXPECT_EQ(block->acall[row(cd)].fd, 33) << type;
    }
}

TEST_F(Descriptors, SocketOfACallThatEndedLongAgoIsStillFound)
{
    EXPECT_EQ(check_rolling_cd(33, block), -1);
    ASSERT_EQ(_init_acall(4, block), 1);
    EXPECT_EQ(check_rolling_cd(33, block), -1);
    int cd = _create_acall_cd(0, block);
    block->acall[row(cd)].fd = 33;
    EXPECT_EQ(check_rolling_cd(33, block), 1);
    end(cd);
    EXPECT_EQ(check_rolling_cd(33, block), 1);
    EXPECT_EQ(check_rolling_cd(34, block), -1);
    EXPECT_EQ(check_rolling_cd(-1, block), 1);  // the mark of rows that never sent
}

// Its row may have served a call over a connection that ends just now.
TEST_F(Descriptors, CallThatHasNotLeftYetDoesNotEndWithAConnection)
{
    ASSERT_EQ(_init_acall(1, block), 1);
    int cd = _create_acall_cd(0, block);
    block->acall[0].fd = 33;
    end(cd);
    cd = _create_acall_cd(0, block);
    EXPECT_FALSE(awaits_reply_on(33, block));
    fail_calls_on(33, block);
    EXPECT_EQ(block->acall[row(cd)].reply, nullptr);
    end(cd);
}

TEST_F(Descriptors, OldestStoredReplyComesFirstWhateverItsRow)
{
    EXPECT_EQ(_get_acall_ind_from_ready(block), -1);
    ASSERT_EQ(_init_acall(6, block), 1);
    for (int i = 0; i < 6; i++)
        _create_acall_cd(0, block);
    EXPECT_EQ(_get_acall_ind_from_ready(block), -1);
    store(4, 9);
    EXPECT_EQ(_get_acall_ind_from_ready(block), 4);
    store(1, 10);
    EXPECT_EQ(_get_acall_ind_from_ready(block), 4);
    store(5, 3);
    EXPECT_EQ(_get_acall_ind_from_ready(block), 5);
    store(2, 3);
    EXPECT_EQ(_get_acall_ind_from_ready(block), 2);  // the first row of a tie
    store(0, 0x80000000u);
    EXPECT_EQ(_get_acall_ind_from_ready(block), 2);
    for (int i : {1, 2, 4, 5}) {
        free(block->acall[i].reply);
        block->acall[i].reply = nullptr;
    }
    store(3, 0xffffffffu);
    EXPECT_EQ(_get_acall_ind_from_ready(block), 0);  // numbers count without a sign
    store(1, 0x7fffffffu);
    EXPECT_EQ(_get_acall_ind_from_ready(block), 1);
    // The largest number of all is still a number.
    for (int i : {0, 1}) {
        free(block->acall[i].reply);
        block->acall[i].reply = nullptr;
    }
    EXPECT_EQ(_get_acall_ind_from_ready(block), 3);
}

TEST_F(Descriptors, ThreadsCreateAndReleaseAtOnce)
{
    ASSERT_EQ(_init_acall(64, block), 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++)
        threads.emplace_back([this] {
            for (int i = 0; i < 500; i++) {
                int cd = _create_acall_cd(TPNOTIME, block);
                ASSERT_GT(cd, 0);
                pthread_mutex_lock(&block->msg_mutex);  // the other threads write rows meanwhile
                int index = row(cd);
                pthread_mutex_unlock(&block->msg_mutex);
                ASSERT_GE(index, 0);
                EXPECT_EQ(_make_acall_cd_invalid(index, block), 1);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(block->acall_active, 0);
    EXPECT_EQ(block->acall_next, 4000);
}

// ---- conversations

TEST_F(Conversations, TableIsMadeOfFreeRows)
{
    EXPECT_EQ(_init_conv(3, block), 1);
    EXPECT_EQ(block->conv_size, 3);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(block->conv[i].cd, -1);
        EXPECT_EQ(block->conv[i].flags, 0u);
        EXPECT_EQ(block->conv[i].event, 0u);
        EXPECT_EQ(block->conv[i].head, nullptr);
        EXPECT_EQ(block->conv[i].tail, nullptr);
    }
    EXPECT_EQ(_init_conv(0, block), -1);
    EXPECT_EQ(block->conv, nullptr);
    EXPECT_EQ(block->conv_size, 0);
    EXPECT_EQ(_create_conv_entry(1, 0, block), -1);
    EXPECT_EQ(_get_conv_cd_ind(1, block), -1);
}

TEST_F(Conversations, EntryIsARowAndCountsWhenItIsOurs)
{
    ASSERT_EQ(_init_conv(4, block), 1);
    EXPECT_EQ(_create_conv_entry(6, CONV_OUT | TPSENDONLY, block), 2);
    EXPECT_EQ(block->conv[2].cd, 6);
    EXPECT_EQ(block->conv[2].flags, CONV_OUT | TPSENDONLY);
    EXPECT_EQ(block->conv_active, 1);
    EXPECT_EQ(_create_conv_entry(10, TPRECVONLY, block), 3);
    EXPECT_EQ(block->conv_active, 1);
    block->conv[0].event = 0xf;
    EXPECT_EQ(_create_conv_entry(0, CONV_OUT | TPRECVONLY, block), 0);
    EXPECT_EQ(block->conv[0].event, 0u);
    EXPECT_EQ(_create_conv_entry(14, TPRECVONLY, block), 1);  // around the end
    EXPECT_EQ(_get_conv_cd_ind(6, block), 2);
    EXPECT_EQ(_get_conv_cd_ind(10, block), 3);
    EXPECT_EQ(_get_conv_cd_ind(0, block), 0);
    EXPECT_EQ(_get_conv_cd_ind(14, block), 1);
    for (int cd : {1, 2, -1, -2, INT_MIN, INT_MAX})
        EXPECT_EQ(_get_conv_cd_ind(cd, block), -1) << cd;
}

TEST_F(Conversations, NegativeDescriptorOfTheServerIsSafe)
{
    ASSERT_EQ(_init_conv(4, block), 1);
    for (int cd : {-5, INT_MIN}) {
        int index = _create_conv_entry(cd, TPSENDONLY, block);
        EXPECT_GE(index, -1);
        EXPECT_LT(index, 4);
    }
}

TEST_F(Conversations, FullTableReclaimsARowThatWasOpenedWithCertainFlags)
{
    for (uint32_t bits : {0x800u, 0x1000u, 0x10u, 0x20u, 0x10000u, 0x20000u}) {
        ASSERT_EQ(_init_conv(2, block), 1);
        EXPECT_GE(_create_conv_entry(0, bits, block), 0);
        EXPECT_GE(_create_conv_entry(1, bits, block), 0);
        EXPECT_EQ(_create_conv_entry(7, TPSENDONLY, block), -1) << bits;
        EXPECT_EQ(_get_conv_cd_ind(0, block), 0);
        EXPECT_TRUE(is_free(&block->msg_mutex));
    }
    for (uint32_t bit : {0x1u, 0x2u, 0x4u, 0x8u}) {
        SCOPED_TRACE(bit);
        block->conv_active = 0;
        ASSERT_EQ(_init_conv(3, block), 1);
        EXPECT_EQ(_create_conv_entry(0, TPSENDONLY | CONV_OUT, block), 0);
        EXPECT_EQ(_create_conv_entry(1, TPSENDONLY | CONV_OUT | bit, block), 1);
        EXPECT_EQ(_create_conv_entry(2, TPSENDONLY | CONV_OUT | bit, block), 2);
        block->conv[2].event = 5;
        block->conv[2].urcode = 99;
        EXPECT_EQ(block->conv_active, 3);
        // The walk begins at the new descriptor's own row.
        EXPECT_EQ(_create_conv_entry(8, TPRECVONLY | CONV_OUT, block), 2);
        EXPECT_EQ(block->conv[2].cd, 8);
        EXPECT_EQ(block->conv[2].flags, TPRECVONLY | CONV_OUT);
        EXPECT_EQ(block->conv[2].event, 0u);
        EXPECT_EQ(block->conv_active, 3);
        EXPECT_EQ(_get_conv_cd_ind(2, block), -1);
        EXPECT_EQ(_create_conv_entry(11, TPRECVONLY, block), 1);
        EXPECT_EQ(block->conv_active, 2);
        EXPECT_EQ(_create_conv_entry(14, TPRECVONLY, block), -1);
        EXPECT_TRUE(is_free(&block->msg_mutex));
    }
}

TEST_F(Conversations, ReleaseFreesTheNodesAndLeavesTheReturnCode)
{
    ASSERT_EQ(_init_conv(2, block), 1);
    ASSERT_EQ(_create_conv_entry(1, CONV_OUT, block), 1);
    msg_header *first = _header_msg_make(6, 0), *second = _header_msg_make(6, 0);
    EXPECT_EQ(append_msg_node(&block->conv[1].head, &block->conv[1].tail, first), 1);
    EXPECT_EQ(append_msg_node(&block->conv[1].head, &block->conv[1].tail, second), 1);
    EXPECT_EQ(block->conv[1].head->msg, first);
    EXPECT_EQ(block->conv[1].tail->msg, second);
    EXPECT_EQ(block->conv[1].head->next, block->conv[1].tail);
    block->conv[1].event = 3;
    block->conv[1].urcode = 77;
    EXPECT_EQ(_make_conv_cd_invalid(1, block), 1);
    EXPECT_EQ(block->conv[1].cd, -1);
    EXPECT_EQ(block->conv[1].flags, 0u);
    EXPECT_EQ(block->conv[1].event, 0u);
    EXPECT_EQ(block->conv[1].urcode, 77);
    EXPECT_EQ(block->conv[1].head, nullptr);
    EXPECT_EQ(block->conv[1].tail, nullptr);
    EXPECT_EQ(block->conv_active, 0);
    EXPECT_EQ(first->msgtype, 6);  // the messages stay
    free(first);
    free(second);
    ASSERT_EQ(_create_conv_entry(1, TPSENDONLY, block), 1);
    EXPECT_EQ(_make_conv_cd_invalid(1, block), 1);
    EXPECT_EQ(block->conv_active, 0);  // one that wasn't ours doesn't count
}

TEST_F(Conversations, NodeWithoutMemoryIsReported)
{
    msg_node *head = nullptr, *tail = nullptr;
    msg_header *message = _header_msg_make(6, 0);
    faults::fail_allocation(1);
    int result = append_msg_node(&head, &tail, message);
    faults::disarm_allocations();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(tail, nullptr);
    free(message);
}

TEST_F(Conversations, ResetFreesTheNodesOfTheLists)
{
    ASSERT_EQ(_init_conv(2, block), 1);
    conv_elem *table = block->conv;
    ASSERT_EQ(_create_conv_entry(1, CONV_OUT, block), 1);
    msg_header *message = _header_msg_make(6, 0);
    append_msg_node(&block->conv[1].head, &block->conv[1].tail, message);
    EXPECT_EQ(_init2_conv(2, block), 1);
    EXPECT_EQ(block->conv, table);
    EXPECT_EQ(block->conv[1].cd, -1);
    EXPECT_EQ(block->conv[1].head, nullptr);
    free(message);
}

TEST_F(Conversations, OnesOfTheTransactionAreCounted)
{
    ASSERT_EQ(_init_conv(8, block), 1);
    EXPECT_EQ(_get_active_tran_conv(block), 0);
    _create_conv_entry(1, CONV_OUT | TPTRAN, block);
    _create_conv_entry(2, CONV_OUT, block);
    _create_conv_entry(3, TPTRAN, block);
    _create_conv_entry(4, CONV_OUT | TPTRAN | TPSENDONLY, block);
    EXPECT_EQ(_get_active_tran_conv(block), 2);
    block->conv[5].flags = CONV_OUT | TPTRAN;  // a free row
    EXPECT_EQ(_get_active_tran_conv(block), 2);
}

TEST_F(Conversations, SweepsEndWithoutHoldingTheLock)
{
    ASSERT_EQ(_init_conv(4, block), 1);
    _create_conv_entry(1, CONV_OUT | TPTRAN, block);
    _create_conv_entry(2, CONV_OUT, block);
    _make_tran_convout_cd_invalid(block);
    EXPECT_TRUE(is_free(&block->msg_mutex));
    EXPECT_GE(_get_conv_cd_ind(2, block), 0);
    _make_all_convout_cd_invalid(block);
    EXPECT_TRUE(is_free(&block->msg_mutex));
    EXPECT_EQ(block->conv_active, 0);
}

// ---- stored replies of queues

TEST_F(StoredReplies, TableIsMadeOfEmptyLists)
{
    EXPECT_EQ(_init_qcall(3, block), 1);
    EXPECT_EQ(block->qcall_size, 3);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(block->qcall[i].id, -1);
        EXPECT_EQ(block->qcall[i].spare, 0);
        EXPECT_EQ(block->qcall[i].count, 0);
        EXPECT_EQ(block->qcall[i].head, nullptr);
        EXPECT_EQ(block->qcall[i].tail, nullptr);
    }
    EXPECT_EQ(_init_qcall(0, block), 1);
    EXPECT_EQ(block->qcall, nullptr);
    EXPECT_EQ(block->qcall_size, 0);
    EXPECT_EQ(_init_qcall(-1, block), 1);
    EXPECT_EQ(_get_any_rqno_from_ready(block), -1);
}

TEST_F(StoredReplies, ComeOutInTheOrderOfArrival)
{
    ASSERT_EQ(_init_qcall(3, block), 1);
    EXPECT_EQ(_get_any_rqno_from_ready(block), -1);
    msg_header *messages[3];
    for (msg_header *&message : messages) {
        message = _header_msg_make(1025, 0);
        EXPECT_EQ(_enqueue_qcall_q(2, message, block), 1);
    }
    EXPECT_EQ(block->qcall[2].count, 3);
    EXPECT_EQ(_get_any_rqno_from_ready(block), 2);
    msg_header *other = _header_msg_make(1025, 0);
    EXPECT_EQ(_enqueue_qcall_q(0, other, block), 1);
    EXPECT_EQ(_get_any_rqno_from_ready(block), 0);
    EXPECT_EQ(_dequeue_qcall_q(0, block), other);
    free(other);
    EXPECT_EQ(_get_any_rqno_from_ready(block), 2);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(_dequeue_qcall_q(2, block), messages[i]);
        EXPECT_EQ(block->qcall[2].count, 2 - i);
        free(messages[i]);
    }
    EXPECT_EQ(block->qcall[2].head, nullptr);
    EXPECT_EQ(_get_any_rqno_from_ready(block), -1);
    msg_header *again = _header_msg_make(1025, 0);
    EXPECT_EQ(_enqueue_qcall_q(2, again, block), 1);
    EXPECT_EQ(_dequeue_qcall_q(2, block), again);
    free(again);
}

TEST_F(StoredReplies, EmptyListGivesALineAndNothing)
{
    ASSERT_EQ(_init_qcall(2, block), 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(_dequeue_qcall_q(1, block), nullptr);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("(E) CLI 0209 internal error : Qcall Q is NULL, but tried to dequeue [CSC5103]"),
              std::string::npos)
        << log;
    EXPECT_EQ(block->qcall[1].count, 0);
}

TEST_F(StoredReplies, WithoutMemoryNothingIsStored)
{
    ASSERT_EQ(_init_qcall(2, block), 1);
    msg_header *message = _header_msg_make(1025, 0);
    testing::internal::CaptureStderr();
    faults::fail_allocation(1);
    int result = _enqueue_qcall_q(1, message, block);
    faults::disarm_allocations();
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(result, -1);
    EXPECT_NE(log.find("(E) CLI 0004 memory allocation error : size = "), std::string::npos) << log;
    EXPECT_NE(log.find("[CSC5102]"), std::string::npos) << log;
    EXPECT_EQ(block->qcall[1].count, 0);
    EXPECT_EQ(_get_any_rqno_from_ready(block), -1);
    free(message);
}

TEST_F(StoredReplies, QueuesThatDontExistAreRefused)
{
    msg_header *message = _header_msg_make(1025, 0);
    EXPECT_EQ(_enqueue_qcall_q(0, message, block), -1);
    ASSERT_EQ(_init_qcall(2, block), 1);
    for (int number : {-1, 2, 3, INT_MAX, INT_MIN}) {
        EXPECT_EQ(_enqueue_qcall_q(number, message, block), -1) << number;
        EXPECT_EQ(_dequeue_qcall_q(number, block), nullptr) << number;
    }
    free(message);
}
