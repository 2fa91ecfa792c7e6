// What every request goes through before it is sent: the header in front of the data, the transaction, the
// names of services and queues. And the list of unsolicited messages.
#include "calls/cscommon.h"

#include "calls/unsolapi.h"
#include "runtime/mthr.h"
#include "session/cliapi.h"
#include "support/faults.h"
#include "support/gtest.h"
#include "support/peer.h"
#include "tx/tx.h"
#include "vorn/buffers.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "wire/msgheader.h"

#include <stdlib.h>
#include <string.h>

namespace {

struct Request : testing::Test {
    wthr_var *block = nullptr;
    char *data = nullptr;

    // A context that looks started, without a connection: nothing here sends.
    void SetUp() override
    {
        block = current_block();
        ASSERT_NE(block, nullptr);
        ASSERT_EQ(_make_txinfo(block), 1);
        block->started = 1;
        data = tpalloc((char *)"CARRAY", nullptr, 2000);
        ASSERT_NE(data, nullptr);
        set_tperrno(0);
    }

    void TearDown() override
    {
        tpfree(data);
        _txinfo_end(block);
        _ntoh_initout_struct(nullptr, -1, block);
        block->started = 0;
    }

    void open(int stage, int state)
    {
        block->txinfo->tx_active = 1;
        block->txinfo->tx_stage = stage;
        block->txinfo->transaction_state = state;
    }

    void start_data(const wire::start_reply &reply)
    {
        std::string payload = wire::start_payload(reply);
        ASSERT_EQ(_ntoh_initout_struct(payload.data(), (int)payload.size(), block), 1);
    }
};
using Names = Request;

struct Unsolicited : testing::Test {
    wthr_var *block = nullptr;

    void SetUp() override { block = current_block(); }

    void add(int kind)
    {
        unsol_node *node = (unsol_node *)calloc(1, sizeof *node);
        node->kind = kind;
        node->msg = _header_msg_make(MSG_TPPOST, 0);
        if (block->unsol_tail != nullptr)
            block->unsol_tail->next = node;
        else
            block->unsol_head = node;
        block->unsol_tail = node;
        block->unsol_count++;
    }
};

}  // namespace

// ---- the message to send

TEST_F(Request, IsTheHeaderInFrontOfTheData)
{
    msg_header *header = message_of(data);
    header->seqno = 1;
    header->rcode = 2;
    header->srcid = 3;
    header->target = 4;
    header->prio = 5;
    header->cd = 6;
    header->sessid = 7;
    header->xid[0] = 8;
    strcpy(header->svcname, "THE OLD NAME");
    set_tperrno(TPETIME);
    EXPECT_EQ(_check_args_and_tx(MSG_TPCALL, "NEW", data, 123, 0x20, block), header);
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_EQ(header->msgtype, 3);
    EXPECT_EQ(header->rcode, 0);
    EXPECT_EQ(header->target, 0);
    EXPECT_EQ(header->datalen, 123);
    EXPECT_EQ(header->flags, 0x20u);
    EXPECT_STREQ(header->svcname, "NEW");
    EXPECT_EQ(header->xid[0], 0u);
    // The rest is the caller's to fill.
    EXPECT_EQ(header->seqno, 1);
    EXPECT_EQ(header->srcid, 3);
    EXPECT_EQ(header->prio, 5);
    EXPECT_EQ(header->cd, 6);
    EXPECT_EQ(header->sessid, 7);
    EXPECT_EQ(header->buftype, BUF_CARRAY);
    EXPECT_EQ(header->bufsize, 2000);
}

TEST_F(Request, WithoutDataIsAHeaderAlone)
{
    msg_header *message = _check_args_and_tx(MSG_TPACALL, "SVC", nullptr, 500, 0x4, block);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message->magic, MESSAGE_MAGIC);
    EXPECT_EQ(message->buftype, BUF_HEADER);
    EXPECT_EQ(message->msgtype, 4);
    EXPECT_EQ(message->datalen, 0);
    EXPECT_EQ(message->flags, 0x4u);
    EXPECT_STREQ(message->svcname, "SVC");
    free(message);
    message = _check_args_and_tx(MSG_TPACALL, nullptr, nullptr, 0, 0, block);
    ASSERT_NE(message, nullptr);
    EXPECT_STREQ(message->svcname, "");
    free(message);
}

TEST_F(Request, NameIsCutAt31Characters)
{
    const struct {
        std::string name, kept;
    } cases[] = {
        {std::string(30, 'a'), std::string(30, 'a')},
        {std::string(31, 'b'), std::string(31, 'b')},
        {std::string(32, 'c'), std::string(31, 'c')},
        {std::string(3000, 'd'), std::string(31, 'd')},
        {"", ""},
    };
    msg_header *header = message_of(data);
    for (const auto &row : cases) {
        header->datalen = 0x55555555;
        ASSERT_EQ(_check_args_and_tx(MSG_TPCALL, row.name.c_str(), data, 0, 0, block), header);
        EXPECT_EQ(std::string(header->svcname), row.kept);
        EXPECT_EQ(header->datalen, 0);
    }
}

TEST_F(Request, NullNameKeepsTheOneInTheBuffer)
{
    msg_header *header = message_of(data);
    strcpy(header->svcname, "KEPT");
    ASSERT_EQ(_check_args_and_tx(MSG_TPCALL, nullptr, data, 0, 0, block), header);
    EXPECT_STREQ(header->svcname, "KEPT");
    // Without an end of its own the name gets one.
    memset(header->svcname, 'x', sizeof header->svcname);
    ASSERT_EQ(_check_args_and_tx(MSG_TPCALL, nullptr, data, 0, 0, block), header);
    EXPECT_EQ(std::string(header->svcname, 32), std::string(31, 'x') + '\0');
}

TEST_F(Request, LengthIsThatOfTheDataCheck)
{
    msg_header *header = message_of(data);
    header->buftype = BUF_STRING;
    strcpy(data, "abc");
    ASSERT_EQ(_check_args_and_tx(MSG_TPCALL, "S", data, 0, 0, block), header);
    EXPECT_EQ(header->datalen, 4);
    ASSERT_EQ(_check_args_and_tx(MSG_TPCALL, "S", data, 2000, 0, block), header);
    EXPECT_EQ(header->datalen, 2000);
    EXPECT_EQ(_check_args_and_tx(MSG_TPCALL, "S", data, 2001, 0, block), nullptr);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    header->buftype = 77;
    EXPECT_EQ(_check_args_and_tx(MSG_TPCALL, "S", data, 0, 0, block), nullptr);
    EXPECT_EQ(get_tperrno(), TPEITYPE);
    header->buftype = BUF_CARRAY;
}

TEST_F(Request, LengthOfMoreThan32BitsIsRefused)
{
    EXPECT_EQ(_check_args_and_tx(MSG_TPCALL, "S", data, 0x100000000L + 5000, 0, block), nullptr);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
}

TEST_F(Request, FirstOneOfATransactionStartsIt)
{
    open(TX_STAGE_BEGUN, TX_STATE_ACTIVE);
    block->txinfo->xid_data[0] = 0x11;
    block->txinfo->xid_data[1] = 0x22;
    block->txinfo->xid_data[2] = 0x33;
    msg_header *header = message_of(data);
    ASSERT_EQ(_check_args_and_tx(MSG_TPCALL, "S", data, 0, 0x20, block), header);
    EXPECT_EQ(header->flags, 0x4000020u);
    EXPECT_EQ(block->txinfo->tx_stage, TX_STAGE_RUNNING);
    EXPECT_EQ(header->xid[0], 0x11u);
    EXPECT_EQ(header->xid[1], 0x22u);
    EXPECT_EQ(header->xid[2], 0x33u);
    ASSERT_EQ(_check_args_and_tx(MSG_TPCALL, "S", data, 0, 0x20, block), header);
    EXPECT_EQ(header->flags, 0x20u);
    EXPECT_EQ(block->txinfo->tx_stage, TX_STAGE_RUNNING);
}

TEST_F(Request, OutsideTheTransactionNothingOfItIsTouched)
{
    for (int state : {0, 1, 2}) {
        open(TX_STAGE_BEGUN, state);
        msg_header *header = message_of(data);
        header->xid[0] = 0x99;
        block->txinfo->xid_data[0] = 0x11;
        ASSERT_EQ(_check_args_and_tx(MSG_TPCALL, "S", data, 0, TPNOTRAN, block), header) << state;
        EXPECT_EQ(header->flags, (uint32_t)TPNOTRAN);
        EXPECT_EQ(header->xid[0], 0x99u);
        EXPECT_EQ(block->txinfo->tx_stage, TX_STAGE_BEGUN);
        EXPECT_EQ(block->txinfo->transaction_state, state);
    }
}

TEST_F(Request, TransactionThatCannotCommitRefusesItAfterTheData)
{
    const struct {
        int state, error;
    } cases[] = {{1, TPETIME}, {2, TPEPROTO}};
    for (const auto &row : cases) {
        open(TX_STAGE_RUNNING, row.state);
        message_of(data)->msgtype = 4711;
        EXPECT_EQ(_check_args_and_tx(MSG_TPCALL, "S", data, 0, 0, block), nullptr);
        EXPECT_EQ(get_tperrno(), row.error);
        EXPECT_EQ(message_of(data)->msgtype, 4711);
        EXPECT_EQ(_check_args_and_tx(MSG_TPCALL, "S", nullptr, 0, 0, block), nullptr);  // frees its header
        EXPECT_EQ(get_tperrno(), row.error);
        EXPECT_EQ(_check_args_and_tx(MSG_TPCALL, "S", data, -1, 0, block), nullptr);
        EXPECT_EQ(get_tperrno(), TPEINVAL);
    }
}

TEST_F(Request, WithoutMemoryForAHeaderFails)
{
    faults::fail_allocation(1);
    msg_header *message = _check_args_and_tx(MSG_TPCALL, "S", nullptr, 0, 0, block);
    faults::disarm_allocations();
    EXPECT_EQ(message, nullptr);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    // Data needs none.
    faults::fail_allocation(1);
    message = _check_args_and_tx(MSG_TPCALL, "S", data, 0, 0, block);
    EXPECT_FALSE(faults::allocation_failed());
    faults::disarm_allocations();
    EXPECT_EQ(message, message_of(data));
}

// ---- names

TEST_F(Names, QueueIsFoundByItsExactName)
{
    EXPECT_EQ(_get_rqno_by_qname("Q1", block), -1);
    wire::start_reply reply;
    reply.queues = {"Q1", "Q2", "0123456789abcde", "Q2"};
    start_data(reply);
    EXPECT_EQ(_get_rqno_by_qname("Q1", block), 0);
    EXPECT_EQ(_get_rqno_by_qname("Q2", block), 1);  // the first of two
    EXPECT_EQ(_get_rqno_by_qname("0123456789abcde", block), 2);
    for (const char *name : {"", "Q", "q1", "Q11", "Q3", "0123456789abcdef", "0123456789abcd"})
        EXPECT_EQ(_get_rqno_by_qname(name, block), -1) << name;
}

TEST_F(Names, QueueNameWithoutAnEndIsReadInItsRowOnly)
{
    wire::start_reply reply;
    reply.queues = {"0123456789abcdef", "ghi"};
    start_data(reply);
    EXPECT_EQ(_get_rqno_by_qname("0123456789abcdefghi", block), -1);
    EXPECT_EQ(_get_rqno_by_qname("ghi", block), 1);
}

TEST_F(Names, SpecialServiceIsTheOneThatTheServerNames)
{
    strcpy(block->server_name, "SPECIAL");
    EXPECT_EQ(_is_tipsvc("SPECIAL", block), 1);
    EXPECT_EQ(_is_tipsvc("SPECIALS", block), 0);
    EXPECT_EQ(_is_tipsvc("special", block), 0);
    EXPECT_EQ(_is_tipsvc("", block), 0);
    block->server_name[0] = 0;
}

TEST_F(Names, SpecialServiceStaysHereWithoutANodeNameOnASingleNode)
{
    msg_header *message = message_of(data);
    message->target = 0;
    message->flags = 0x20;
    block->node_count = 1;
    EXPECT_EQ(_check_tipsvc(message, block), 1);
    EXPECT_EQ(message->target, 0);
    EXPECT_EQ(message->flags, 0x20u);
    block->node_count = 2;
    set_tperrno(0);
    EXPECT_EQ(_check_tipsvc(message, block), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(message->target, 0);
    EXPECT_EQ(message->flags, 0x20u);
    block->node_count = 1;
}

TEST_F(Names, SpecialServiceWithoutDataIsSafe)
{
    msg_header *message = _header_msg_make(MSG_TPCALL, 0);
    EXPECT_EQ(_check_tipsvc(message, block), 1);
    block->node_count = 2;
    EXPECT_EQ(_check_tipsvc(message, block), -1);
    block->node_count = 1;
    free(message);
}

// ---- the list of unsolicited messages

TEST_F(Unsolicited, ListIsForgottenOrFreed)
{
    add(1);
    unsol_node *kept = block->unsol_head;
    block->unsol_spare = 5;
    EXPECT_EQ(_init_unsol(0, block), 1);
    EXPECT_EQ(block->unsol_head, nullptr);
    EXPECT_EQ(block->unsol_tail, nullptr);
    EXPECT_EQ(block->unsol_count, 0);
    EXPECT_EQ(block->unsol_spare, 0);
    EXPECT_EQ(kept->msg->msgtype, MSG_TPPOST);  // not freed
    free(kept->msg);
    free(kept);

    for (int kind = 1; kind < 5; kind++)
        add(kind);
    block->unsol_mode = 4;
    EXPECT_EQ(_init_unsol(1, block), 1);
    EXPECT_EQ(block->unsol_head, nullptr);
    EXPECT_EQ(block->unsol_tail, nullptr);
    EXPECT_EQ(block->unsol_count, 0);
    EXPECT_EQ(block->unsol_mode, 4);
    EXPECT_EQ(_init_unsol(1, block), 1);
}
