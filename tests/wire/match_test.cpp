// Who a message is for, and where it goes if nobody waits for it.
#include <fcntl.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "calls/cscommon.h"
#include "calls/unsolapi.h"
#include "session/cliapi.h"
#include "support/fixtures.h"
#include "tx/tx.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "wire/clhmatch.h"
#include "wire/clhread.h"

namespace {

struct Match : WireTest {
    msg_header want = {}, message = {};

    // Types alone; what else matters is set in `want` and `message` before.
    bool matches(int32_t w, int32_t m)
    {
        want.msgtype = w;
        message.msgtype = m;
        return _is_msgtype_matched(&want, &message, block) != 0;
    }
};

bool is_reply(int32_t w, int32_t m)
{
    return m - w == 1000 || m - w == 2000 || m - w == 3000;
}

}

TEST_F(Match, EveryPairOfTypesWithoutNumbersInCommon)
{
    // seqno and cd differ, no descriptor is open, the selector is 9: what remains is the type alone.
    want.seqno = 1;
    message.seqno = 2;
    want.cd = 9;
    message.cd = 10;
    _vorn_engine_version = 1;
    for (int32_t w = 1; w <= 511; w++)
        for (int32_t m = 0; m <= 3600; m++) {
            bool numbered = w == 3 || w == 4 || w == 7 || w == 28 || w == 32 || w == 33 || w == 181;
            bool awaited = (is_reply(w, m) && !numbered) || (m == 507 && w == 505);
            ASSERT_EQ(matches(w, m), awaited) << "want " << w << ", message " << m;
        }
}

TEST_F(Match, EveryPairOfTypesWithTheSameNumbers)
{
    want.seqno = message.seqno = 77;
    int32_t cd = _create_acall_cd(0, block);
    _create_conv_entry(cd, 0, block);
    want.cd = message.cd = cd;  // 1: as a selector, posts
    for (int32_t w = 1; w <= 511; w++)
        for (int32_t m = 0; m <= 3600; m++) {
            bool awaited = is_reply(w, m) || (w == 7 && (m == 2005 || m == 6 || m == 8)) ||
                           (w == 11 && m == 12) || (m == 507 && w == 505);
            ASSERT_EQ(matches(w, m), awaited) << "want " << w << ", message " << m;
        }
}

TEST_F(Match, KeyStoreRepliesGoBySequenceNumberIfTheyBearOne)
{
    want.seqno = 5;
    for (int32_t seqno : {5, 0, 6}) {
        message.seqno = seqno;
        EXPECT_EQ(matches(181, 1181), seqno != 6) << seqno;
    }
}

TEST_F(Match, CallsGoBySequenceNumber)
{
    for (int32_t w : {3, 28})
        for (int32_t step : {1000, 2000, 3000}) {
            want.seqno = message.seqno = 5;
            want.cd = 1;
            message.cd = 2;
            EXPECT_TRUE(matches(w, w + step));
            message.seqno = 6;
            EXPECT_FALSE(matches(w, w + step));
        }
}

TEST_F(Match, TransactionEndsGoBySequenceNumberFromEngineVersionOneOn)
{
    want.seqno = 5;
    for (int32_t w : {32, 33}) {
        for (int32_t version : {-1, 0}) {
            _vorn_engine_version = version;
            message.seqno = 6;
            EXPECT_TRUE(matches(w, w + 1000));
        }
        for (int32_t version : {1, 2, 1000}) {
            _vorn_engine_version = version;
            message.seqno = 6;
            EXPECT_FALSE(matches(w, w + 2000));
            message.seqno = 5;
            EXPECT_TRUE(matches(w, w + 2000));
        }
    }
}

TEST_F(Match, AsynchronousReplyNeedsItsOpenDescriptor)
{
    int32_t cd = _create_acall_cd(0, block), other = _create_acall_cd(0, block);
    for (int32_t step : {1000, 2000, 3000}) {
        want.cd = cd;
        message.cd = cd;
        EXPECT_TRUE(matches(4, 4 + step));
        message.cd = other;
        EXPECT_FALSE(matches(4, 4 + step));  // open, but not the one
        want.cd = message.cd = other + 1;
        EXPECT_FALSE(matches(4, 4 + step));  // the one, but not open
    }
    want.cd = message.cd = -1;  // what a free row holds is no descriptor
    EXPECT_FALSE(matches(4, 1004));
}

TEST_F(Match, GetanyTakesAnyOpenDescriptor)
{
    int32_t cd = _create_acall_cd(0, block);
    _create_conv_entry(100, 0, block);
    want.flags = TPGETANY;
    want.cd = -5;
    message.cd = cd;
    EXPECT_TRUE(matches(4, 1004));
    EXPECT_FALSE(matches(7, 1007));
    message.cd = cd + 1;
    EXPECT_FALSE(matches(4, 1004));
    message.cd = 100;
    EXPECT_FALSE(matches(4, 1004));
    EXPECT_TRUE(matches(7, 1007));
    message.cd = -1;
    EXPECT_FALSE(matches(4, 1004));
    EXPECT_FALSE(matches(7, 1007));
}

TEST_F(Match, ConversationTakesItsOwnMessages)
{
    _create_conv_entry(100, 0, block);
    want.cd = message.cd = 100;
    for (int32_t m : {1007, 2007, 3007, 2005, 6, 8})
        EXPECT_TRUE(matches(7, m)) << m;
    message.cd = 101;
    for (int32_t m : {1007, 2007, 3007, 2005, 6, 8})
        EXPECT_FALSE(matches(7, m)) << m;
    want.cd = 101;  // the same number, but no such conversation
    EXPECT_FALSE(matches(7, 1007));
    for (int32_t m : {2005, 6, 8})
        EXPECT_TRUE(matches(7, m)) << m;
}

TEST_F(Match, UnsolicitedMessagesGoBySelector)
{
    const int32_t types[] = {12, 13, 14, 19};  // selectors 1 to 4; 5 is any
    for (int32_t selector = -1; selector <= 7; selector++) {
        want.cd = selector;
        for (int i = 0; i < 4; i++)
            EXPECT_EQ(matches(11, types[i]), selector == i + 1 || selector == 5)
                << selector << " " << types[i];
    }
}

TEST_F(Match, ClosedSessionMatchesNobodyWithoutTheMark)
{
    message.sessid = want.sessid = 3;
    EXPECT_FALSE(matches(505, 501));
    message.flags = 0x1000;
    EXPECT_FALSE(matches(3, 501));  // no such session here
}

// Where messages go that nobody waits for.

namespace {

struct Unmatched : WireTest {
    msg_header *given(int32_t type, const std::string &data = "data")
    {
        msg_header *message = new_message(type, data, 0);
        message->seqno = 42;
        return message;
    }
};

enum fate { DROPPED, LATE_CALL, LATE_TX, LATE_DEQUEUE, LATE_SERVICE, SERVER_DOWN, UNKNOWN, CONSUMER };

struct fate_row {
    int32_t first, last;
    fate what;
};
const fate_row FATES[] = {
    {501, 501, DROPPED},        {507, 507, CONSUMER},       {1003, 1003, LATE_CALL},
    {2003, 2003, LATE_CALL},    {3003, 3003, LATE_CALL},    {1012, 1012, DROPPED},
    {2012, 2012, DROPPED},      {1017, 1017, DROPPED},      {2017, 2017, DROPPED},
    {1018, 1018, LATE_DEQUEUE}, {2018, 2018, DROPPED},      {1026, 1028, DROPPED},
    {2026, 2028, DROPPED},      {1031, 1033, LATE_TX},      {2031, 2033, LATE_TX},
    {1047, 1048, DROPPED},      {2047, 2048, DROPPED},      {1500, 1506, LATE_SERVICE},
    {1507, 1507, DROPPED},      {1508, 1510, LATE_SERVICE}, {2051, 2051, SERVER_DOWN},
    {2500, 2510, DROPPED},      {1181, 1181, DROPPED},      {2181, 2181, DROPPED},
    {3181, 3181, DROPPED},
};
// These have treatments of their own, below.
const int32_t OWN_TREATMENT[] = {6,    8,    12,   13,   14,   19,   130,  1004, 2004,
                                 3004, 1005, 1007, 3007, 1025, 2025, 2005, 2007};

fate fate_of(int32_t type)
{
    for (const fate_row &row : FATES)
        if (type >= row.first && type <= row.last)
            return row.what;
    return UNKNOWN;
}

bool has_own_treatment(int32_t type)
{
    for (int32_t one : OWN_TREATMENT)
        if (one == type)
            return true;
    return false;
}

std::string line_of(fate what, int32_t type)
{
    std::string number = std::to_string(type);
    switch (what) {
    case LATE_CALL:
        return "(E) CLI 2008 tpcall reply arrived after timeout. Msg discarded : " + number +
               " 42 [CSC5708]\n";
    case LATE_TX:
        return "(E) CLI tx reply arrived after timeout, msgtype = " + number +
               " [CSC57120209 internal error : ]\n";
    case LATE_DEQUEUE:
        return "(E) CLI tpdeq reply arrived after timeout, a message will be lost "
               "[CSC57110209 internal error : ]\n";
    case LATE_SERVICE:
        return "(E) CLI TMS message arrived after timeout, msgtype = " + number +
               " [CSC57200209 internal error : ]\n";
    case SERVER_DOWN:
        return "(E) CLI 2009 server downed while processing client msg [CSC5710]\n";
    case UNKNOWN:
        return "(E) CLI unknown message type :" + number + " [CSC57130209 internal error : ]\n";
    case CONSUMER:
        return "(E) CLI failed to save the message in consumer buffer [CSC57210209 internal error : ]\n";
    case DROPPED:
        break;
    }
    return "";
}

}

TEST_F(Unmatched, EveryTypeHasItsTreatmentAndItsLine)
{
    std::string seen;
    for (int32_t type = -2; type <= 3700; type++) {
        if (has_own_treatment(type))
            continue;
        fate what = fate_of(type);
        set_tperrno(0);
        bool ends_the_wait = what == UNKNOWN || what == SERVER_DOWN;
        ASSERT_EQ(_unmatched_msg_process(given(type), block), ends_the_wait ? -1 : 1) << type;
        ASSERT_EQ(error(), ends_the_wait ? TPESYSTEM : 0) << type;
        // The unknown ones are too many to read the file after each; every tenth is.
        if (what == UNKNOWN && type % 10 != 0)
            continue;
        std::string all = log.text();
        std::string line = all.substr(all.rfind('\n', all.size() - 2) + 1);
        std::string awaited = line_of(what, type);
        if (awaited.empty()) {
            ASSERT_EQ(all.find("type :" + std::to_string(type) + " "), std::string::npos);
        } else {
            ASSERT_NE(line.find(awaited), std::string::npos) << type << ": " << line;
        }
    }
}

TEST_F(Unmatched, DroppedMessagesLeaveNoLine)
{
    for (const fate_row &row : FATES)
        for (int32_t type = row.first; row.what == DROPPED && type <= row.last; type++)
            EXPECT_EQ(_unmatched_msg_process(given(type), block), 1);
    EXPECT_EQ(log.text(), "");
}

// Stored replies.

TEST_F(Unmatched, AcallReplyIsStoredInItsRowInOrderOfArrival)
{
    int32_t first = _create_acall_cd(0, block), second = _create_acall_cd(0, block);
    uint32_t arrived = block->ready_seq;
    for (int32_t cd : {second, first}) {
        msg_header *reply = given(cd == first ? 1004 : 2004);
        reply->cd = cd;
        EXPECT_EQ(_unmatched_msg_process(reply, block), 1);
        acall_elem *row = &block->acall[_get_acall_cd_ind(cd, block)];
        EXPECT_EQ(row->reply, reply);
        EXPECT_EQ(row->ready_no, ++arrived);
        EXPECT_EQ(block->ready_seq, arrived);
    }
    EXPECT_EQ(_get_acall_ind_from_ready(block), _get_acall_cd_ind(second, block));
    _make_all_acall_cd_invalid(block);
}

TEST_F(Unmatched, AcallReplyWithoutARowIsDropped)
{
    for (int32_t cd : {-1, 0, 99, INT32_MIN, INT32_MAX}) {
        msg_header *reply = given(1004);
        reply->cd = cd;
        uint32_t arrived = block->ready_seq;
        EXPECT_EQ(_unmatched_msg_process(reply, block), 1);
        EXPECT_EQ(block->ready_seq, arrived);
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(Unmatched, SecondReplyOfOneDescriptorLosesNoMemory)
{
    int32_t cd = _create_acall_cd(0, block);
    for (const char *text : {"first", "second"}) {
        msg_header *reply = given(1004, text);
        reply->cd = cd;
        EXPECT_EQ(_unmatched_msg_process(reply, block), 1);
    }
    EXPECT_NE(block->acall[_get_acall_cd_ind(cd, block)].reply, nullptr);
    _make_all_acall_cd_invalid(block);
}

TEST_F(Unmatched, QueueReplyIsStoredByQueueNumber)
{
    _init_qcall(2, block);
    msg_header *one = given(1025), *two = given(2025);
    one->cd = two->cd = 1;
    EXPECT_EQ(_unmatched_msg_process(one, block), 1);
    EXPECT_EQ(_unmatched_msg_process(two, block), 1);
    EXPECT_EQ(block->qcall[1].count, 2);
    EXPECT_EQ(block->qcall[0].count, 0);
    EXPECT_EQ(_dequeue_qcall_q(1, block), one);
    EXPECT_EQ(_dequeue_qcall_q(1, block), two);
    free(one);
    free(two);
    for (int32_t number : {-1, 2, INT32_MIN, INT32_MAX}) {  // no such queue
        msg_header *lost = given(1025);
        lost->cd = number;
        EXPECT_EQ(_unmatched_msg_process(lost, block), 1) << number;
    }
}

// Conversations.

TEST_F(Unmatched, ConversationMessagesAreQueuedAndMarked)
{
    int row = _create_conv_entry(100, 0, block);
    ASSERT_GE(row, 0);
    conv_elem *conv = &block->conv[row];
    struct {
        int32_t type;
        uint32_t event;
    } const cases[] = {{6, 0}, {1007, 0x8}, {3007, 0x8 | 0x4}};
    std::vector<msg_header *> queued;
    for (const auto &one : cases) {
        msg_header *message = given(one.type);
        message->cd = 100;
        EXPECT_EQ(_unmatched_msg_process(message, block), 1);
        EXPECT_EQ(conv->event, one.event);
        ASSERT_NE(conv->tail, nullptr);
        EXPECT_EQ(conv->tail->msg, message);
        queued.push_back(message);
    }
    EXPECT_EQ(conv->head->msg, queued[0]);
    EXPECT_EQ(conv->head->next->msg, queued[1]);
    _make_conv_cd_invalid(row, block);  // the nodes go, the messages are still ours
    for (msg_header *message : queued)
        free(message);
}

TEST_F(Unmatched, ConversationMessageWithoutAConversationIsDropped)
{
    for (int32_t type : {6, 1007, 3007, 8, 2005, 2007})
        for (int32_t cd : {-1, 0, 100, INT32_MIN}) {
            msg_header *message = given(type);
            message->cd = cd;
            EXPECT_EQ(_unmatched_msg_process(message, block), 1);
        }
}

TEST_F(Unmatched, ConversationMessageWithoutMemoryEndsTheWait)
{
    int row = _create_conv_entry(100, 0, block);
    msg_header *message = given(6);
    message->cd = 100;
    faults::fail_allocation(1);
    EXPECT_EQ(_unmatched_msg_process(message, block), -1);
    faults::disarm_allocations();
    EXPECT_EQ(error(), TPEOS);
    EXPECT_EQ(block->conv[row].head, nullptr);
}

TEST_F(Unmatched, EndOfAConversationLeavesItsCode)
{
    for (int32_t type : {8, 2005, 2007}) {
        int row = _create_conv_entry(100 + type, 0, block);
        msg_header *message = given(type);
        message->cd = 100 + type;
        message->rcode = 31;
        EXPECT_EQ(_unmatched_msg_process(message, block), 1);
        EXPECT_EQ(block->conv[row].event, 0x1u);
        EXPECT_EQ(block->conv[row].urcode, 31);
    }
}

TEST_F(Unmatched, LateConnectIsNoError)
{
    msg_header *message = given(1005);
    message->cd = 100;
    EXPECT_EQ(_unmatched_msg_process(message, block), 1);
}

// Settings.

TEST_F(Unmatched, SettingChangesTheBlockTime)
{
    for (int32_t seconds : {5, 0}) {
        msg_header *message = given(130);
        message->cd = 12;
        message->value = seconds;
        EXPECT_EQ(_unmatched_msg_process(message, block), 1);
        EXPECT_EQ(block->block_time, seconds);
    }
}

TEST_F(Unmatched, SettingChangesTheTransactionTimeout)
{
    msg_header *message = given(130);
    message->cd = 13;
    message->value = 44;
    EXPECT_EQ(_unmatched_msg_process(message, block), 1);
    EXPECT_EQ(block->txinfo->transaction_timeout, 44);
}

TEST_F(Unmatched, SettingOfAnythingElseIsLogged)
{
    for (int32_t what : {0, 11, 14, -1}) {
        msg_header *message = given(130);
        message->cd = what;
        message->value = 9;
        EXPECT_EQ(_unmatched_msg_process(message, block), 1);
        EXPECT_TRUE(
            log.has("(E) CLI 0209 internal error : unknown fldi :" + std::to_string(what) + " [CSC5709]"));
    }
    EXPECT_EQ(block->block_time, 0);
}

// Unsolicited messages.

namespace {

std::string handled;
void take(char *data, long length, long flags)
{
    handled += std::string(data, (size_t)length) + "/" + std::to_string(flags) + ";";
}

}

TEST_F(Unmatched, HandlerTakesUnsolicitedMessages)
{
    block->unsol_mode = UNSOL_MODE_HANDLER;
    block->unsol_handler = take;
    for (int32_t type : {12, 13, 14, 19}) {
        msg_header *message = given(type, "text" + std::to_string(type));
        message->flags = 0x40u + (uint32_t)type;
        EXPECT_EQ(_unmatched_msg_process(message, block), 1);
    }
    EXPECT_EQ(handled, "text12/76;text13/77;text14/78;text19/83;");
    EXPECT_EQ(block->unsol_count, 0);
}

TEST_F(Unmatched, WithoutAHandlerTheyAreDropped)
{
    block->unsol_mode = UNSOL_MODE_HANDLER;
    EXPECT_EQ(_unmatched_msg_process(given(12), block), 1);
    EXPECT_EQ(block->unsol_count, 0);
}

TEST_F(Unmatched, IgnoringModeDropsThem)
{
    block->unsol_mode = UNSOL_MODE_IGNORE;
    block->unsol_handler = take;
    EXPECT_EQ(_unmatched_msg_process(given(12), block), 1);
    EXPECT_EQ(handled, "");
    EXPECT_EQ(block->unsol_count, 0);
}

TEST_F(Unmatched, EveryOtherModeQueuesThemWithTheirKind)
{
    const int32_t types[] = {12, 13, 14, 19};
    for (int64_t mode : {UNSOL_MODE_QUEUE, (int64_t)0, (int64_t)7}) {
        block->unsol_mode = mode;
        _init_unsol(0, block);
        std::vector<msg_header *> queued;
        for (int32_t type : types) {
            queued.push_back(given(type));
            EXPECT_EQ(_unmatched_msg_process(queued.back(), block), 1);
        }
        EXPECT_EQ(block->unsol_count, 4);
        unsol_node *node = block->unsol_head;
        for (int i = 0; i < 4; i++, node = node->next) {
            ASSERT_NE(node, nullptr);
            EXPECT_EQ(node->kind, i + 1);
            EXPECT_EQ(node->msg, queued[(size_t)i]);
            EXPECT_EQ(node->next == nullptr, i == 3);
        }
        _init_unsol(1, block);
        EXPECT_EQ(block->unsol_count, 0);
    }
}

TEST_F(Unmatched, QueueWithoutMemoryEndsTheWait)
{
    block->unsol_mode = UNSOL_MODE_QUEUE;
    msg_header *message = given(12);
    faults::fail_allocation(1);
    EXPECT_EQ(_unmatched_msg_process(message, block), -1);
    faults::disarm_allocations();
    EXPECT_EQ(error(), TPESYSTEM);
    EXPECT_EQ(block->unsol_count, 0);
}

TEST_F(Unmatched, NotificationIsAcknowledgedInEveryMode)
{
    for (int64_t mode : {UNSOL_MODE_HANDLER, UNSOL_MODE_IGNORE, UNSOL_MODE_QUEUE}) {
        block->unsol_mode = mode;
        msg_header *message = given(14);
        message->flags = 0x8000;
        message->srcid = 0x1234;
        EXPECT_EQ(_unmatched_msg_process(message, block), 1);
        peer.expect(1014).cd(0x1234).header_only().flags(0);
    }
}

TEST_F(Unmatched, OtherMessagesWithThatFlagAreNotAcknowledged)
{
    block->unsol_mode = UNSOL_MODE_IGNORE;
    for (int32_t type : {12, 13, 19}) {
        msg_header *message = given(type);
        message->flags = 0x8000;
        EXPECT_EQ(_unmatched_msg_process(message, block), 1);
    }
    EXPECT_EQ(_unmatched_msg_process(given(14), block), 1);
    peer.expect_nothing();
}

TEST_F(Unmatched, AcknowledgementThatCannotBeSentIsNoError)
{
    block->unsol_mode = UNSOL_MODE_HANDLER;
    block->unsol_handler = take;
    msg_header *message = given(14, "still handled");
    message->flags = 0x8000;
    faults::fail(faults::SEND, 1, EPIPE);
    EXPECT_EQ(_unmatched_msg_process(message, block), 1);
    EXPECT_EQ(handled, "still handled/32768;");
}

// Requests that the server gave back.

namespace {

struct GivenBack : WireTest {
    msg_header *message = nullptr, *want = nullptr;
    int other_end = -1;

    msg_header *error_reply(int32_t type, uint32_t flags = 0)
    {
        free(message);
        message = new_message(type, "request", 0);
        message->xflags = XFLAG_GIVEN_BACK;
        message->flags = flags;
        message->seqno = 42;
        return message;
    }
    ~GivenBack() override
    {
        free(message);
        free(want);
        if (other_end >= 0)
            close(other_end);
    }

    // As if a rolling start had taken place: an old socket beside the present one.
    void have_rolled()
    {
        int ends[2];
        tcp_pair(ends);
        block->old_clhfd = ends[0];
        block->rolled = ROLLED;
        other_end = ends[1];
    }
    // True once the client has ended its side of the previous connection.
    bool has_been_left()
    {
        char byte;
        return recv(other_end, &byte, 1, MSG_DONTWAIT) == 0;
    }
};

}

TEST_F(GivenBack, MessagesWithoutTheMarkAreNormal)
{
    for (int32_t type : {1, 1003, 2000}) {
        error_reply(type);
        EXPECT_EQ(_is_msgtype_irt(nullptr, message, block), 0) << type;
    }
    error_reply(2003)->xflags = ~(uint32_t)XFLAG_GIVEN_BACK;
    EXPECT_EQ(_is_msgtype_irt(nullptr, message, block), 0);
    EXPECT_EQ(block->rolling_failed, 0);
}

TEST_F(GivenBack, WithoutAnotherServerItBecomesTheErrorReply)
{
    // The rolling start finds nobody and fails.
    error_reply(2003);
    EXPECT_EQ(_is_msgtype_irt(nullptr, message, block), -1);
    EXPECT_EQ(message->flags, (uint32_t)TPERDOWN);
    EXPECT_EQ(block->rolling_failed, 1);
    EXPECT_EQ(block->rolling, 0);
    peer.expect_nothing();
}

TEST_F(GivenBack, WithoutAConnectionItIsNotReady)
{
    int32_t fd = block->clhfd;
    block->clhfd = -1;
    error_reply(2003);
    EXPECT_EQ(_is_msgtype_irt(nullptr, message, block), -1);
    EXPECT_EQ(message->flags, (uint32_t)TPENOREADY);
    error_reply(2003, 10);  // an error that the server named stays
    EXPECT_EQ(_is_msgtype_irt(nullptr, message, block), -1);
    EXPECT_EQ(message->flags, 10u);
    block->rolling_failed = 1;
    EXPECT_EQ(_is_msgtype_irt(nullptr, message, block), -1);
    EXPECT_EQ(message->flags, (uint32_t)TPERDOWN);
    block->clhfd = fd;
}

TEST_F(GivenBack, AfterARollingStartTheRequestGoesOutAgain)
{
    have_rolled();
    error_reply(2003);
    want = new_message(MSG_TPCALL, "", 100);
    want->seqno = 42;
    EXPECT_EQ(_is_msgtype_irt(want, message, block), 1);
    Expected again = peer.expect(wire::TPCALL);
    again.data("request").seqno(42);
    EXPECT_EQ(again.frame.xflags, 0u);
}

TEST_F(GivenBack, OldSocketIsClosedWhenNoCallIsOpenOnIt)
{
    have_rolled();
    want = new_message(MSG_TPCALL, "", 100);
    error_reply(2003);
    EXPECT_EQ(_is_msgtype_irt(want, message, block), 1);
    EXPECT_TRUE(has_been_left());
    close(other_end);  // the server ends its side, too
    other_end = -1;
    end_old_socket_if_done(true, block);
    EXPECT_EQ(block->old_clhfd, -1);
    EXPECT_EQ(block->rolled, 0);
}

TEST_F(GivenBack, OldSocketStaysWhileACallIsOpenOnIt)
{
    have_rolled();
    int cd = _create_acall_cd(0, block);
    block->acall[_get_acall_cd_ind(cd, block)].fd = (int)block->old_clhfd;
    int32_t old = block->old_clhfd;
    want = new_message(MSG_TPCALL, "", 100);
    error_reply(2003);
    EXPECT_EQ(_is_msgtype_irt(want, message, block), 1);
    EXPECT_EQ(block->old_clhfd, old);

    want->msgtype = MSG_TPACALL;  // waits for any reply: any type will do
    error_reply(2005);
    EXPECT_EQ(_is_msgtype_irt(want, message, block), 1);
    EXPECT_EQ(block->old_clhfd, old);
    block->acall[_get_acall_cd_ind(cd, block)].fd = -1;
    want->msgtype = MSG_TPRECV;
    error_reply(2003);
    EXPECT_EQ(_is_msgtype_irt(want, message, block), 1);
    EXPECT_TRUE(has_been_left());
}

TEST_F(GivenBack, OldSocketStaysWhileAThreadAwaitsItsAnswerOnIt)
{
    have_rolled();
    int32_t old = block->old_clhfd;
    block->waiter_count = 1;  // one that has sent and is on its way
    error_reply(2003);
    EXPECT_EQ(_is_msgtype_irt(nullptr, message, block), 1);
    EXPECT_EQ(block->old_clhfd, old);
    block->waiter_count = 0;
    block->reader_sent_fd = old;
    error_reply(2003);
    EXPECT_EQ(_is_msgtype_irt(nullptr, message, block), 1);
    EXPECT_EQ(block->old_clhfd, old);
    EXPECT_FALSE(has_been_left());
    block->reader_sent_fd = -1;
    error_reply(2003);
    EXPECT_EQ(_is_msgtype_irt(nullptr, message, block), 1);
    EXPECT_TRUE(has_been_left());
}

TEST_F(GivenBack, SocketThatNoRollingStartMadeIsLeftOpen)
{
    have_rolled();
    block->rolled = 0;  // as after tpinit, where the word is no socket of the session
    int32_t old = block->old_clhfd;
    error_reply(2003);
    EXPECT_EQ(_is_msgtype_irt(nullptr, message, block), 1);
    EXPECT_EQ(block->old_clhfd, old);
    EXPECT_NE(fcntl(old, F_GETFD), -1);
}

TEST_F(GivenBack, AfterAFailedRollingStartItIsRollingDown)
{
    have_rolled();
    block->rolling_failed = 1;
    error_reply(2003, 10);
    EXPECT_EQ(_is_msgtype_irt(nullptr, message, block), -1);
    EXPECT_EQ(message->flags, (uint32_t)TPERDOWN);
    peer.expect_nothing();
}
