// The record as callers see it, the identity's two forms, and the ring of rows.
#include "tx/fixture.h"

namespace {

struct Ring : testing::Test {
    LogFile log;
    wthr_var *block = current_block();

    Ring() { _make_txinfo(block); }
    ~Ring() override
    {
        block->txinfo = _internal_txinfo;
        _txinfo_end(block);
    }
    long current(void) const { return block->txinfo - _internal_txinfo; }
};

std::string bytes_of(const void *data, size_t length)
{
    return std::string((const char *)data, length);
}

template <class T> std::string host(T value)
{
    return bytes_of(&value, sizeof value);
}

}  // namespace

// ---- tx_info

TEST_F(TxTest, RecordIsCopiedInItsFixedForm)
{
    ASSERT_TRUE(start());
    txinfo_elem *row = block()->txinfo;
    const uint32_t identity[3] = {0x11223344, 0x55667788, 0x99aabbcc};
    memcpy(row->xid_data, identity, sizeof identity);
    row->formatID = -2;
    row->gtrid_length = 0x100000008;
    row->bqual_length = 4;
    row->when_return = 1;
    row->transaction_control = 1;
    row->transaction_timeout = -30;
    row->transaction_state = 2;
    row->tx_stage = TX_STAGE_RUNNING;
    char image[sizeof(TXINFO) + 8];
    memset(image, 0x55, sizeof image);
    set_tperrno(9);
    EXPECT_EQ(tx_info((TXINFO *)image), 1);
    EXPECT_EQ(gettperrno(), 0);
    // The word behind the identity is the row's next one, when_return.
    std::string expected = host<int64_t>(-2) + host<int64_t>(0x100000008) + host<int64_t>(4) +
                           bytes_of(identity, sizeof identity) + host<int32_t>(1) + host<int64_t>(1) +
                           host<int64_t>(1) + host<int64_t>(-30) + host<int64_t>(2);
    EXPECT_EQ(sizeof(XID), 40u);
    EXPECT_EQ(sizeof(TXINFO), 72u);
    EXPECT_EQ(bytes_of(image, sizeof(TXINFO)), expected);
    EXPECT_EQ(bytes_of(image + sizeof(TXINFO), 8), std::string(8, 0x55));
    row->tx_stage = TX_STAGE_NONE;
    row->when_return = 0;
    EXPECT_EQ(tx_info((TXINFO *)image), 0);  // and the record is copied all the same
    EXPECT_EQ(bytes_of(image + 36, 12), std::string(12, '\0'));
}

TEST_F(TxTest, RecordOfANewSession)
{
    ASSERT_TRUE(start());
    TXINFO record = info();
    EXPECT_EQ(record.xid.formatID, 1);
    EXPECT_EQ(record.xid.gtrid_length, 8);
    EXPECT_EQ(record.xid.bqual_length, 4);
    EXPECT_EQ(bytes_of(record.xid.data, 16), std::string(16, '\0'));
    EXPECT_EQ(record.when_return, TX_COMMIT_COMPLETED);
    EXPECT_EQ(record.transaction_control, TX_UNCHAINED);
    EXPECT_EQ(record.transaction_timeout, 0);
    EXPECT_EQ(record.transaction_state, -1);
    EXPECT_EQ(tx_info(nullptr), 0);
}

TEST_F(TxTest, InfoTellsStageAndStateApart)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(tx_begin(), TX_OK);
    EXPECT_EQ(tx_info(nullptr), 1);  // not the stage's 2
    ASSERT_TRUE(run());
    EXPECT_EQ(tx_info(nullptr), 1);
    for (int now : {TX_STATE_TIMED_OUT + 0, TX_STATE_ROLLBACK + 0}) {
        set_tx_state(block(), now);
        EXPECT_EQ(tx_info(nullptr), 1);
        EXPECT_EQ(state(), now);
    }
    EXPECT_EQ(rollback_with(TX_OK), TX_OK);
    EXPECT_EQ(tx_info(nullptr), 0);
    EXPECT_EQ(state(), -1);
}

TEST(TransactionObjects, UnusedOnesStayZero)
{
    EXPECT_EQ(_xa_timer_sw, 0);
    EXPECT_EQ(bytes_of(_svcxid, sizeof _svcxid), std::string(12, '\0'));
}

// ---- the identity's two forms

TEST(Identity, LosesTheHighWordsOnTheWayDown)
{
    const struct {
        long from;
        int to;
    } cases[] = {{1, 1},
                 {-1, -1},
                 {0x7fffffff, 0x7fffffff},
                 {0x80000000L, INT_MIN},
                 {0x100000005, 5},
                 {-0x100000005, -5},
                 {LONG_MIN, 0},
                 {LONG_MAX, -1}};
    for (const auto &row : cases) {
        XID wide = {};
        XID32 narrow[2];
        memset(narrow, 0x55, sizeof narrow);
        wide.formatID = row.from;
        wide.gtrid_length = row.from ^ 1;
        wide.bqual_length = row.from ^ 2;
        memcpy(wide.data, "12345678abcdWXYZ", 16);
        xid_to_xid32(&wide, narrow);
        EXPECT_EQ(narrow[0].formatID, row.to);
        EXPECT_EQ(narrow[0].gtrid_length, row.to ^ 1);
        EXPECT_EQ(narrow[0].bqual_length, row.to ^ 2);
        EXPECT_EQ(bytes_of(narrow[0].data, 12), "12345678abcd");
        EXPECT_EQ(bytes_of(&narrow[1], sizeof narrow[1]), std::string(sizeof narrow[1], 0x55));
    }
    EXPECT_EQ(sizeof(XID32), 24u);
}

TEST(Identity, ExtendsTheSignOnTheWayUp)
{
    for (int value : {0, 1, -1, 8, INT_MAX, INT_MIN}) {
        XID32 narrow = {value, value ^ 1, value ^ 2, {}};
        memcpy(narrow.data, "12345678abcd", 12);
        XID wide;
        memset(&wide, 0x55, sizeof wide);
        xid32_to_xid(&narrow, &wide);
        EXPECT_EQ(wide.formatID, (long)value);
        EXPECT_EQ(wide.gtrid_length, (long)(value ^ 1));
        EXPECT_EQ(wide.bqual_length, (long)(value ^ 2));
        EXPECT_EQ(bytes_of(wide.data, 12), "12345678abcd");
        EXPECT_EQ(bytes_of(wide.data + 12, 4),
                  std::string(4, 0x55));  // of which the short form knows nothing
    }
}

TEST_F(Ring, IdentityIsPrintedOnALineOfItsOwn)
{
    XID xid = {};
    xid.formatID = -1;
    xid.gtrid_length = 8;
    xid.bqual_length = 0x100000004;
    const uint32_t words[3] = {0xdeadbeef, 0x1a, 0};
    memcpy(xid.data, words, sizeof words);
    EXPECT_EQ(_print_xid(&xid), 1);
    EXPECT_TRUE(log.has(
        ":(D2) CLI formatID = -1, gtrid_length = 8, bqual_length = 4294967300, xid = deadbeef, 1a, 0 \n"))
        << log.text();
    EXPECT_EQ(log.lines(), 1);
}

// ---- the ring of rows

TEST_F(Ring, NextRowIsTheNextFreeOne)
{
    txinfo_elem *table = block->txinfo;
    EXPECT_EQ(_set_next_txinfo(block), 1);
    EXPECT_EQ(current(), 1);
    EXPECT_EQ(_cur_txinfo_ind, 1);
    table[2].tx_active = table[3].tx_active = 1;
    EXPECT_EQ(_set_next_txinfo(block), 1);
    EXPECT_EQ(current(), 4);
    EXPECT_EQ(_cur_txinfo_ind, 2);  // the row as found isn't noted
    EXPECT_EQ(_set_next_txinfo(block), 1);
    EXPECT_EQ(current(), 4);
    EXPECT_EQ(_cur_txinfo_ind, 3);
}

TEST_F(Ring, NextRowIsSoughtAllAround)
{
    txinfo_elem *table = block->txinfo;
    for (int i = 0; i < 8; i++)
        table[i].tx_active = i != 2;
    _cur_txinfo_ind = 5;
    EXPECT_EQ(_set_next_txinfo(block), 1);
    EXPECT_EQ(current(), 2);
    _cur_txinfo_ind = 7;
    EXPECT_EQ(_set_next_txinfo(block), 1);
    EXPECT_EQ(current(), 2);
    table[2].tx_active = 1;
    _cur_txinfo_ind = 0;
    EXPECT_EQ(_set_next_txinfo(block), -1);
    EXPECT_EQ(current(), 2);
}

TEST_F(Ring, FormerRowIsNamedByItsIndex)
{
    _cur_txinfo_ind = 6;
    for (int index : {5, 0, 7}) {
        EXPECT_EQ(_set_prev_txinfo(block, index), 1);
        EXPECT_EQ(current(), index);
    }
    EXPECT_EQ(_cur_txinfo_ind, 3);
    for (int index : {8, 9, INT_MAX, -1, INT_MIN}) {
        set_tperrno(0);
        EXPECT_EQ(_set_prev_txinfo(block, index), -1) << index;
        EXPECT_EQ(gettperrno(), TPELIMIT);
    }
    EXPECT_EQ(current(), 7);
    EXPECT_EQ(_cur_txinfo_ind, 3);
}

TEST_F(Ring, RowIsFoundByItsIdentity)
{
    txinfo_elem *table = block->txinfo;
    XID xid = {};
    memcpy(xid.data, "12345678abcdWXYZ", 16);
    EXPECT_EQ(_get_idx_from_xid(&xid), -1);
    memcpy(table[3].xid_data, "12345678abcd", 12);
    EXPECT_EQ(_get_idx_from_xid(&xid), 3);
    memcpy(table[6].xid_data, "12345678abcd", 12);
    _cur_txinfo_ind = 4;
    EXPECT_EQ(_get_idx_from_xid(&xid), 6);
    _cur_txinfo_ind = 7;
    EXPECT_EQ(_get_idx_from_xid(&xid), 3);
    xid.data[11]++;
    EXPECT_EQ(_get_idx_from_xid(&xid), -1);
}

// Whatever the index has become, the rows that are looked at are the table's.
TEST_F(Ring, IndexOutsideTheTableDoesNoHarm)
{
    XID zero = {};
    for (int index : {-1, -7, 8, 4000, INT_MAX, INT_MIN}) {
        _cur_txinfo_ind = index;
        int found = _get_idx_from_xid(&zero);
        EXPECT_GE(found, 0);
        EXPECT_LT(found, 8);
        EXPECT_EQ(_set_next_txinfo(block), 1);
        EXPECT_GE(current(), 0);
        EXPECT_LT(current(), 8);
        _cur_txinfo_ind = index;
        EXPECT_EQ(_set_prev_txinfo(block, 2), 1);
        EXPECT_EQ(current(), 2);
    }
}

TEST_F(Ring, TableThatIsGoneIsNotLookedAt)
{
    ASSERT_EQ(_txinfo_end(block), 1);
    XID zero = {};
    EXPECT_EQ(_get_idx_from_xid(&zero), -1);
    EXPECT_EQ(_set_next_txinfo(block), -1);
    EXPECT_EQ(_set_prev_txinfo(block, 1), -1);
    EXPECT_EQ(block->txinfo, nullptr);
    ASSERT_EQ(_make_txinfo(block), 1);
    EXPECT_EQ(_get_idx_from_xid(&zero), 0);
}

TEST_F(Ring, TableGoesWholeFromAnyOfItsRows)
{
    ASSERT_EQ(_set_prev_txinfo(block, 5), 1);
    EXPECT_EQ(_txinfo_end(block), 1);
    EXPECT_EQ(block->txinfo, nullptr);
    ASSERT_EQ(_make_txinfo(block), 1);
    EXPECT_EQ(current(), 0);
}
