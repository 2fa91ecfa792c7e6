// What the payload of a start reply becomes in the block of a context, and how it and the tables are dropped.
#include "session/cliapi.h"

#include "calls/cscommon.h"
#include "calls/unsolapi.h"
#include "runtime/mthr.h"
#include "support/faults.h"
#include "support/fixtures.h"
#include "support/gtest.h"
#include "support/peer.h"
#include "tx/tx.h"
#include "vorn/buffers.h"
#include "vorn/errors.h"
#include "wire/msgheader.h"

#include <limits.h>
#include <memory>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

using wire::word;

std::string field(const std::string &text, size_t size)
{
    std::string bytes = text;
    bytes.resize(size, '\0');
    return bytes;
}

std::string tagged(uint32_t tag, const std::string &value)
{
    return word(tag) + word((uint32_t)value.size()) + value;
}

struct StartReply : testing::Test {
    wthr_var *block = nullptr;

    void SetUp() override
    {
        block = current_block();
        ASSERT_NE(block, nullptr);
        set_tperrno(0);
    }

    void TearDown() override { _ntoh_initout_struct(nullptr, -1, block); }

    // Takes a payload from a block of exactly its size, so that a read behind it is caught.
    int take(const std::string &payload)
    {
        std::unique_ptr<char[]> exact(new char[payload.size()]);
        memcpy(exact.get(), payload.data(), payload.size());
        return _ntoh_initout_struct(exact.get(), (int)payload.size(), block);
    }

    void take_tags(const std::string &tags)
    {
        std::unique_ptr<char[]> exact(new char[tags.size()]);
        memcpy(exact.get(), tags.data(), tags.size());
        _get_csval_to_loc(exact.get(), (int)tags.size(), 0, block);
    }

    void expect_nothing(void)
    {
        EXPECT_EQ(block->initout, nullptr);
        EXPECT_EQ(block->initout_nodes, nullptr);
        EXPECT_EQ(block->initout_queues, nullptr);
        EXPECT_EQ(block->initout_svcs, nullptr);
        EXPECT_EQ(block->initout_tail, nullptr);
        EXPECT_EQ(block->node_count, 0);
        EXPECT_EQ(block->compress_threshold, -1);
    }
};

// Two nodes, three queues, one row of the third table, the threshold, and a name.
std::string whole_payload(void)
{
    return word(2) + word(3) + word(1) + field("NODEA", 16) + field("lna", 16) + word(0x11223344) + word(5) +
           field("NODEB", 16) + field("lnb", 16) + word(0xffffffff) + word(0x80000001) + field("Q1", 16) +
           field("Q2", 16) + field("0123456789abcdef", 16) + field("third table", 32) + word(4096) +
           tagged(0, "SPECIAL");
}
constexpr int WHOLE_WITHOUT_TAGS = 16 + 2 * 40 + 3 * 16 + 32;

}  // namespace

TEST_F(StartReply, PayloadIsKeptInHostOrder)
{
    ASSERT_EQ(take(whole_payload()), 1);
    ASSERT_NE(block->initout, nullptr);
    EXPECT_EQ(initout_count(block, INITOUT_NODE_COUNT), 2);
    EXPECT_EQ(initout_count(block, INITOUT_QUEUE_COUNT), 3);
    EXPECT_EQ(initout_count(block, INITOUT_SVC_COUNT), 1);
    int32_t counts[3];
    memcpy(counts, block->initout, sizeof counts);
    EXPECT_EQ(counts[0], 2);
    EXPECT_EQ(counts[1], 3);
    EXPECT_EQ(counts[2], 1);
    EXPECT_EQ(block->node_count, 2);

    EXPECT_EQ((char *)block->initout_nodes, block->initout + 12);
    EXPECT_STREQ(block->initout_nodes[0].name, "NODEA");
    EXPECT_STREQ(block->initout_nodes[0].lnid, "lna");
    EXPECT_EQ(block->initout_nodes[0].words[0], 0x11223344);
    EXPECT_EQ(block->initout_nodes[0].words[1], 5);
    EXPECT_STREQ(block->initout_nodes[1].name, "NODEB");
    EXPECT_STREQ(block->initout_nodes[1].lnid, "lnb");
    EXPECT_EQ(block->initout_nodes[1].words[0], -1);
    EXPECT_EQ(block->initout_nodes[1].words[1], (int32_t)0x80000001);

    EXPECT_EQ((char *)block->initout_queues, block->initout + 12 + 80);
    EXPECT_STREQ(block->initout_queues[0].name, "Q1");
    EXPECT_STREQ(block->initout_queues[1].name, "Q2");
    EXPECT_EQ(std::string(block->initout_queues[2].name, 16), "0123456789abcdef");

    EXPECT_EQ((char *)block->initout_svcs, block->initout + 12 + 80 + 48);
    EXPECT_STREQ(block->initout_svcs[0].bytes, "third table");

    EXPECT_EQ(block->initout_tail, block->initout + 12 + 80 + 48 + 32);
    int32_t tail;
    memcpy(&tail, block->initout_tail, 4);
    EXPECT_EQ(tail, 4096);
    EXPECT_EQ(block->compress_threshold, 4096);
    EXPECT_STREQ(block->server_name, "SPECIAL");
}

TEST_F(StartReply, PayloadOfTheCallerIsNotTouchedNorKept)
{
    std::string payload = whole_payload(), before = payload;
    ASSERT_EQ(_ntoh_initout_struct(payload.data(), (int)payload.size(), block), 1);
    EXPECT_EQ(payload, before);
    EXPECT_NE(block->initout, payload.data());
    std::fill(payload.begin(), payload.end(), '#');
    EXPECT_STREQ(block->initout_nodes[0].name, "NODEA");
}

TEST_F(StartReply, EmptyTablesAreAllowed)
{
    ASSERT_EQ(take(word(0) + word(0) + word(0) + word(77)), 1);
    EXPECT_EQ(block->node_count, 0);
    EXPECT_EQ(block->compress_threshold, 77);
    EXPECT_EQ(block->initout_tail, block->initout + 12);
    EXPECT_STREQ(block->server_name, "");
}

TEST_F(StartReply, ThresholdMayBeZeroOrNegative)
{
    for (uint32_t threshold : {0u, 0xffffffffu, 0x80000000u, 1u}) {
        ASSERT_EQ(take(word(0) + word(0) + word(0) + word(threshold)), 1);
        EXPECT_EQ(block->compress_threshold, (int32_t)threshold);
    }
}

TEST_F(StartReply, PayloadThatEndsBeforeTheThresholdGivesNone)
{
    std::string whole = whole_payload().substr(0, WHOLE_WITHOUT_TAGS);
    // From the end of the rows on all tables are whole: only the threshold is missing.
    for (int length = WHOLE_WITHOUT_TAGS - 4; length < WHOLE_WITHOUT_TAGS; length++) {
        block->compress_threshold = 5;
        EXPECT_EQ(take(whole.substr(0, (size_t)length)), 1) << length;
        EXPECT_EQ(block->compress_threshold, -1) << length;
        EXPECT_EQ(block->node_count, 2) << length;
        int32_t tail = 0;
        memcpy(&tail, block->initout_tail, 4);
        EXPECT_EQ(tail, -1) << length;
        EXPECT_EQ(_get_rqno_by_qname("Q2", block), 1) << length;
    }
    EXPECT_EQ(take(whole), 1);
    EXPECT_EQ(block->compress_threshold, 4096);
}

TEST_F(StartReply, PayloadShortAtAnyByteIsSafe)
{
    const std::string whole = whole_payload();
    for (size_t length = 1; length < whole.size(); length++) {
        SCOPED_TRACE(length);
        memset(block->server_name, 0, sizeof block->server_name);
        take(whole.substr(0, length));
        if (length < WHOLE_WITHOUT_TAGS) {
            EXPECT_EQ(block->compress_threshold, -1);
        }
        // Whatever was taken, the tables can be walked to their ends.
        for (int i = 0; i < initout_count(block, INITOUT_NODE_COUNT); i++)
            EXPECT_LE(strnlen(block->initout_nodes[i].name, 16), 16u);
        _get_rqno_by_qname("no such queue", block);
        EXPECT_LT(strnlen(block->server_name, 32), 32u);
    }
}

TEST_F(StartReply, HostileCountsAreSafe)
{
    const uint32_t bad[] = {1,          2,          100,        0xffff,     0x06666667, 0x10000000,
                            0x08000000, 0x7fffffff, 0x80000000, 0xfffffff0, 0xffffffff};
    for (uint32_t count : bad)
        for (int which = 0; which < 7; which++) {
            SCOPED_TRACE(std::to_string(count) + " in " + std::to_string(which));
            // 0: nodes, 1: queues, 2: third table, 3 to 5: two of them, 6: all.
            const bool nodes = which == 0 || which == 3 || which == 4 || which == 6;
            const bool queues = which == 1 || which == 3 || which == 5 || which == 6;
            const bool thirds = which == 2 || which == 4 || which == 5 || which == 6;
            std::string payload = word(nodes ? count : 0) + word(queues ? count : 0) +
                                  word(thirds ? count : 0) + std::string(40, 'x') + word(0) + word(0);
            take(payload);
            int64_t rows = 12 + 40L * initout_count(block, INITOUT_NODE_COUNT) +
                           16L * initout_count(block, INITOUT_QUEUE_COUNT) +
                           32L * initout_count(block, INITOUT_SVC_COUNT);
            EXPECT_GE(initout_count(block, INITOUT_NODE_COUNT), 0);
            EXPECT_GE(initout_count(block, INITOUT_QUEUE_COUNT), 0);
            EXPECT_GE(initout_count(block, INITOUT_SVC_COUNT), 0);
            if (block->initout != nullptr) {
                EXPECT_LE(rows, (int64_t)payload.size() + 4);
            }
            EXPECT_GE(block->node_count, 0);
            _get_rqno_by_qname("no such queue", block);
        }
}

TEST_F(StartReply, NothingTakenFreesWhatWasThere)
{
    ASSERT_EQ(take(whole_payload()), 1);
    EXPECT_EQ(_ntoh_initout_struct(nullptr, 100, block), -1);
    expect_nothing();
    ASSERT_EQ(take(whole_payload()), 1);
    std::string payload = whole_payload();
    EXPECT_EQ(_ntoh_initout_struct(payload.data(), 0, block), -1);
    expect_nothing();
    ASSERT_EQ(take(whole_payload()), 1);
    EXPECT_EQ(_ntoh_initout_struct(payload.data(), -1, block), -1);
    expect_nothing();
    EXPECT_EQ(_ntoh_initout_struct(nullptr, -1, block), -1);
    expect_nothing();
}

TEST_F(StartReply, NewPayloadTakesThePlaceOfTheOld)
{
    ASSERT_EQ(take(whole_payload()), 1);
    ASSERT_EQ(
        take(word(1) + word(0) + word(0) + field("ONLY", 16) + field("l", 16) + word(1) + word(2) + word(9)),
        1);
    EXPECT_EQ(block->node_count, 1);
    EXPECT_STREQ(block->initout_nodes[0].name, "ONLY");
    EXPECT_EQ(block->compress_threshold, 9);
}

TEST_F(StartReply, WithoutMemoryThePayloadIsRefused)
{
    std::string payload = whole_payload();
    faults::fail_allocation(1);
    int result = _ntoh_initout_struct(payload.data(), (int)payload.size(), block);
    faults::disarm_allocations();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    _get_rqno_by_qname("Q1", block);
    ASSERT_EQ(take(payload), 1);
}

// ---- tagged values

TEST_F(StartReply, NameIsTagZeroAndOthersAreSkipped)
{
    take_tags(tagged(1, "OTHER") + tagged(7, "") + tagged(0, "NAME") + tagged(2, "MORE"));
    EXPECT_STREQ(block->server_name, "NAME");
}

TEST_F(StartReply, NameIsCutAt31Characters)
{
    take_tags(tagged(0, std::string(31, 'a')));
    EXPECT_EQ(std::string(block->server_name), std::string(31, 'a'));
    take_tags(tagged(0, std::string(32, 'b')));
    EXPECT_EQ(std::string(block->server_name), std::string(31, 'b'));
    take_tags(tagged(0, std::string(3000, 'c')) + tagged(1, "x"));
    EXPECT_EQ(std::string(block->server_name), std::string(31, 'c'));
    take_tags(tagged(0, "short"));
    EXPECT_STREQ(block->server_name, "short");
}

TEST_F(StartReply, WalkBeginsAtTheOffset)
{
    std::string payload = tagged(0, "ONE") + tagged(0, "TWO");
    _get_csval_to_loc(payload.data(), (int)payload.size(), 11, block);
    EXPECT_STREQ(block->server_name, "TWO");
    strcpy(block->server_name, "same");
    _get_csval_to_loc(payload.data(), (int)payload.size(), (int)payload.size(), block);
    EXPECT_STREQ(block->server_name, "same");
    _get_csval_to_loc(payload.data(), (int)payload.size(), (int)payload.size() + 50, block);
    EXPECT_STREQ(block->server_name, "same");
    _get_csval_to_loc(payload.data(), (int)payload.size(), -8, block);  // in front of it: safe
}

TEST_F(StartReply, LyingLengthsOfValuesAreSafe)
{
    for (uint32_t length :
         {5u, 31u, 32u, 1000u, 0x7fffffffu, 0x7ffffff8u, 0x80000000u, 0xfffffff8u, 0xffffffffu})
        for (uint32_t tag : {0u, 1u}) {
            SCOPED_TRACE(length);
            take_tags(word(tag) + word(length) + "NAME");
            EXPECT_LT(strnlen(block->server_name, 32), 32u);
        }
    std::string whole = tagged(1, "abc") + tagged(0, "NAME");
    for (size_t length = 1; length < whole.size(); length++)
        take_tags(whole.substr(0, length));
}

// ---- the tables of a session

TEST_F(StartReply, TablesAreMadeAndDropped)
{
    _endian = _node_type = _my_pid = 0;
    EXPECT_EQ(_cli_init(5, 3, block), 1);
    EXPECT_EQ(_endian, 2);
    EXPECT_EQ(_node_type, 4);
    EXPECT_EQ(_my_pid, getpid());
    EXPECT_EQ(block->acall_size, 5);
    EXPECT_EQ(block->conv_size, 3);
    EXPECT_EQ(_create_acall_cd(0, block), 1);
    EXPECT_EQ(_cli_init(-1, -1, block), 1);
    EXPECT_EQ(block->acall, nullptr);
    EXPECT_EQ(block->conv, nullptr);
    EXPECT_EQ(block->acall_size, 0);
    EXPECT_EQ(block->conv_size, 0);
}

TEST_F(StartReply, RollingStartKeepsTheOpenCalls)
{
    ASSERT_EQ(_cli_init(5, 3, block), 1);
    EXPECT_EQ(_create_acall_cd(0, block), 1);
    acall_elem *table = block->acall;
    block->rolling = 1;
    EXPECT_EQ(_cli_init(9, 7, block), 1);
    EXPECT_EQ(block->acall, table);
    EXPECT_EQ(block->acall_size, 5);
    EXPECT_EQ(_get_acall_cd_ind(1, block), 1);
    EXPECT_EQ(block->conv_size, 7);
    block->rolling = 0;
    _cli_init(-1, -1, block);
}

TEST_F(StartReply, ListOfUnsolicitedMessagesBeginsEmptyAndTheOldOneIsFreed)
{
    for (auto [acall, conv] :
         {std::pair{4, 4}, std::pair{-1, 4}, std::pair{4, -1}, std::pair{0, 0}, std::pair{-1, -1}}) {
        unsol_node *node = (unsol_node *)calloc(1, sizeof *node);
        node->msg = _header_msg_make(MSG_TPPOST, 0);
        block->unsol_head = block->unsol_tail = node;
        block->unsol_count = 1;
        EXPECT_EQ(_cli_init(acall, conv, block), 1);  // the leak check sees what isn't freed
        EXPECT_EQ(block->unsol_head, nullptr);
        EXPECT_EQ(block->unsol_tail, nullptr);
        EXPECT_EQ(block->unsol_count, 0);
    }
}

TEST_F(StartReply, WhatAStartBuiltIsDropped)
{
    ASSERT_EQ(take(whole_payload()), 1);
    ASSERT_EQ(_make_txinfo(block), 1);
    ASSERT_EQ(_cli_init(5, 3, block), 1);
    ASSERT_EQ(_init_qcall(3, block), 1);
    block->start_msg = (msg_header *)malloc(300);
    block->started = 1;
    _clear_init_mem(block);
    expect_nothing();
    EXPECT_EQ(block->start_msg, nullptr);
    EXPECT_EQ(block->fcache, nullptr);
    EXPECT_EQ(block->txinfo, nullptr);
    EXPECT_EQ(block->acall, nullptr);
    EXPECT_EQ(block->conv, nullptr);
    EXPECT_EQ(block->qcall, nullptr);
    EXPECT_EQ(block->qcall_size, 0);
    EXPECT_EQ(block->node_table, nullptr);
    EXPECT_EQ(block->started, 0);
    _clear_init_mem(block);  // once more does no harm
}

// ---- closing a socket

TEST_F(StartReply, ClosedSocketIsTakenOutOfTheBlock)
{
    const struct {
        int which;
        bool started_after;
    } cases[] = {{0, true}, {1, true}, {2, true}, {3, true}};
    for (const auto &row : cases) {
        int fds[2], other[2], third[2];
        tcp_pair(fds);
        tcp_pair(other);
        tcp_pair(third);
        block->clhfd = fds[0];
        block->old_clhfd = other[0];
        block->new_clhfd = third[0];
        block->started = 1;
        block->sessionid = 5;
        block->session_token = 6;
        int closed = row.which == 0 ? fds[0] : row.which == 1 ? other[0] : row.which == 2 ? third[0] : -1;
        _clhc_close(closed, block);
        EXPECT_EQ(block->clhfd, row.which == 0 ? -1 : fds[0]);
        EXPECT_EQ(block->old_clhfd, row.which == 1 ? -1 : other[0]);
        EXPECT_EQ(block->new_clhfd, row.which == 2 ? -1 : third[0]);
        EXPECT_EQ(block->sessionid, -1);
        EXPECT_EQ(block->session_token, -1);
        EXPECT_EQ(block->started, 1);
        EXPECT_EQ(block->crypt_sess, nullptr);
        for (int fd : {fds[0], other[0], third[0]})
            EXPECT_EQ(close(fd), fd == closed ? -1 : 0);
        for (int fd : {fds[1], other[1], third[1]})
            close(fd);
    }
    block->clhfd = block->new_clhfd = -1;
    int last[2];
    tcp_pair(last);
    block->old_clhfd = last[0];
    _clhc_close(last[0], block);
    EXPECT_EQ(block->started, 0);
    close(last[1]);
    // Without any socket the session is over, whatever is closed.
    block->started = 1;
    _clhc_close(-1, block);
    EXPECT_EQ(block->started, 0);
    block->old_clhfd = 0;
}

TEST_F(StartReply, SmallHelpers)
{
    EXPECT_EQ(_abend_control(), 1);
    EXPECT_EQ(_check_node(), 1);
    EXPECT_EQ(_endian, 2);
    EXPECT_EQ(_node_type, 4);
    char *record = tpalloc((char *)"TPSTART", nullptr, 0);
    ASSERT_NE(record, nullptr);
    memcpy(record + 68, "abcd\x01\x02\x03\x04", 8);
    _hton_tpinit(record);
    EXPECT_EQ(memcmp(record + 68, "abcd\x04\x03\x02\x01", 8), 0);
    tpfree(record);
}
