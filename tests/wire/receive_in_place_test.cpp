// Long replies of plain bytes, which are read into the waiting buffer itself.
#include "support/faults.h"
#include "support/gtest.h"
#include "support/peer.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "wire/msgheader.h"
#include "wire/receive_fixture.h"

#include <string.h>

namespace {

constexpr int32_t ROOM = 70000;

struct InPlace : Receive {
    // Sends the reply beside the reading and gives what came; `replaced` tells whether the buffer changed.
    bool delivers(const wire::frame &reply, const std::string &data, bool *replaced)
    {
        send_beside(wire::encode(reply));
        msg_header *given = want, *result = read();
        *replaced = result != given;
        return result != nullptr && data_of(result) == data;
    }
};

TEST_F(InPlace, LengthsAroundTheBoundArriveWhole)
{
    for (size_t length : {4095, 4096, 4097, 65536, ROOM - 1, ROOM})
        for (int32_t kind : {BUF_STRING, BUF_CARRAY}) {
            SCOPED_TRACE(std::to_string(length) + " of kind " + std::to_string(kind));
            std::string data = long_text(length);
            if (kind == BUF_STRING)
                data.back() = '\0';
            waiting(ROOM);
            bool replaced;
            ASSERT_TRUE(delivers(call_reply(data, {.rcode = 5, .buftype = kind}), data, &replaced));
            EXPECT_FALSE(replaced);
            EXPECT_EQ(want->bufsize, ROOM);
            EXPECT_EQ(want->rcode, 5);
            EXPECT_EQ(want->msgtype, 1003);
            EXPECT_EQ(want->seqno, SEQNO);
            EXPECT_EQ(want->buftype, kind);
            EXPECT_EQ(block->reader_busy, 0);
            EXPECT_EQ(block->waiter_count, 0);
        }
}

TEST_F(InPlace, LargerBufferOfTheSenderReplacesTheBuffer)
{
    std::string data = long_text(5000);
    waiting(ROOM);
    bool replaced;
    ASSERT_TRUE(delivers(call_reply(data, {.buftype = BUF_CARRAY, .bufsize = ROOM + 1}), data, &replaced));
    EXPECT_TRUE(replaced);
    EXPECT_EQ(want->bufsize, ROOM + 1);
}

TEST_F(InPlace, DataLongerThanTheBufferReplacesItWhateverTheSenderSays)
{
    std::string data = long_text(6000);
    waiting(5000);
    bool replaced;
    ASSERT_TRUE(delivers(call_reply(data, {.buftype = BUF_CARRAY, .bufsize = 10}), data, &replaced));
    EXPECT_TRUE(replaced);
    EXPECT_GE(want->bufsize, 6000);
}

TEST_F(InPlace, RefusedTypeLeavesTheBufferAlone)
{
    waiting(ROOM, (uint32_t)TPNOCHANGE);
    want->buftype = BUF_STRING;
    send_beside(wire::encode(call_reply(long_text(5000), {.buftype = BUF_CARRAY})));
    EXPECT_EQ(read(), nullptr);
    EXPECT_EQ(get_tperrno(), TPEOTYPE);
    EXPECT_STREQ(message_data(want), "old contents");
}

TEST_F(InPlace, SomebodyElsesLongMessageLeavesTheBufferAlone)
{
    waiting(ROOM);
    std::string data = long_text(5000);
    send_beside(wire::encode(call_reply(data, {.buftype = BUF_CARRAY, .seqno = SEQNO + 1}))
                + wire::encode(call_reply("mine")));
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(data_of(want), "mine");
}

TEST_F(InPlace, SharedCallIsTheCallAgain)
{
    waiting(ROOM);
    std::string data = long_text(5000);
    bool replaced;
    ASSERT_TRUE(delivers(
        call_reply(data, {.msgtype = 1004, .buftype = BUF_CARRAY, .seqno = SEQNO | 0x40000000}), data, &replaced));
    EXPECT_FALSE(replaced);
    EXPECT_EQ(want->msgtype, 1003);
    EXPECT_EQ(want->seqno, SEQNO);
}

TEST_F(InPlace, TextWithoutItsTerminatorGetsOne)
{
    waiting(5000);
    std::string data = long_text(5000);
    bool replaced;
    ASSERT_TRUE(delivers(call_reply(data, {.buftype = BUF_STRING}), data, &replaced));
    EXPECT_FALSE(replaced);
    EXPECT_EQ(strlen(message_data(want)), 5000u);
}

TEST_F(InPlace, EndOfTheStreamInsideLeavesTheHeader)
{
    waiting(ROOM);
    std::string bytes = wire::encode(call_reply(long_text(60000), {.buftype = BUF_CARRAY}));
    peer.send_raw(bytes.substr(0, 5000));
    peer.hang_up();
    msg_header before = *want;
    EXPECT_EQ(read(), nullptr);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_EQ(memcmp(&before, want, sizeof before), 0);
    EXPECT_EQ(block->reader_busy, 0);
}

}  // namespace
