// The receive path on one thread: every kind of frame, and delivery into the caller's buffer.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "calls/cscommon.h"
#include "calls/unsolapi.h"
#include "session/cliapi.h"
#include "tx/tx.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "wire/clhmatch.h"
#include "wire/clhread.h"
#include "wire/receive_fixture.h"

// Delivery.

TEST_F(Receive, ReplyIsCopiedIntoTheBuffer)
{
    waiting();
    peer.send(call_reply("ABCD", {.rcode = 17}));
    msg_header *given = want, *result = read();
    ASSERT_EQ(result, given);
    EXPECT_EQ(data_of(result), "ABCD");
    EXPECT_EQ(result->msgtype, 1003);
    EXPECT_EQ(result->rcode, 17);
    EXPECT_EQ(result->seqno, SEQNO);
    EXPECT_EQ(result->bufsize, 1024);  // the buffer's own, not the message's
    EXPECT_EQ(block->reader_busy, 0);
    EXPECT_EQ(block->waiter_count, 0);
}

TEST_F(Receive, BufsizeDecidesAboutInPlaceOrReplacement)
{
    for (int32_t size : {1023, 1024, 1025, 5000, 200000}) {
        SCOPED_TRACE(size);
        waiting(1024);
        std::string data = long_text((size_t)size - 3);
        wire::frame reply = call_reply(data, {.bufsize = size});
        send_beside(wire::encode(reply));
        msg_header *given = want, *result = read();
        ASSERT_NE(result, nullptr);
        if (size <= 1024) {
            EXPECT_EQ(result, given);
            EXPECT_EQ(result->bufsize, 1024);
        } else {
            EXPECT_EQ(result->bufsize, size);
        }
        EXPECT_EQ(data_of(result), data);
    }
}

TEST_F(Receive, ReplacedBufferHasTheRoomItNames)
{
    waiting(10);
    peer.send(call_reply("only a little", {.bufsize = 3000}));
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(want->bufsize, 3000);
    memset(message_data(want), 'x', 3000);
}

TEST_F(Receive, EmptyReplyIsDelivered)
{
    waiting();
    peer.send(call_reply(""));
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(want->datalen, 0);
    EXPECT_EQ(want->buftype, 9);
}

TEST_F(Receive, ErrorReplyIsDeliveredWithItsFlags)
{
    waiting();
    peer.send(call_reply("why", {.msgtype = 2003, .rcode = 3, .flags = TPESVCFAIL}));
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(want->msgtype, 2003);
    EXPECT_EQ(want->flags, (uint32_t)TPESVCFAIL);
    EXPECT_EQ(data_of(want), "why");
}

TEST_F(Receive, ThirdFormOfReplyIsDelivered)
{
    waiting();
    peer.send(call_reply("", {.msgtype = 3003, .flags = TPESYSTEM}));
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(want->msgtype, 3003);
}

TEST_F(Receive, NullWantTakesAnythingAndKeepsTheRole)
{
    peer.send(wire::message(1027, "whatever it is", {.cd = 5}));
    msg_header *result = _read_csmsg_from_clh(-1, nullptr, block);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result->msgtype, 1027);
    EXPECT_EQ(result->cd, 5);
    EXPECT_EQ(data_of(result), "whatever it is");
    EXPECT_EQ(block->reader_busy, 1);
    free(result);
}

TEST_F(Receive, NullWantWithALimitGivesTheRoleBack)
{
    peer.send(wire::message(1027, "x"));
    msg_header *result = _read_csmsg_from_clh_timeout(nullptr, 5, block);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(block->reader_busy, 0);
    free(result);
}

TEST_F(Receive, SeveralFramesInOneSegmentComeOneByOne)
{
    std::string all;
    for (int i = 0; i < 50; i++)
        all += wire::encode(wire::message(1027, long_text((size_t)i * 13), {.cd = i}));
    peer.send_raw(all);
    for (int i = 0; i < 50; i++) {
        msg_header *result = _read_csmsg_from_clh_timeout(nullptr, 5, block);
        ASSERT_NE(result, nullptr) << "message " << i;
        EXPECT_EQ(result->cd, i);
        EXPECT_EQ(data_of(result), long_text((size_t)i * 13));
        free(result);
    }
    // Nothing is left over, and nothing is made up.
    EXPECT_EQ(_read_csmsg_from_clh_timeout2(nullptr, 0, 1, block), nullptr);
    EXPECT_EQ(error(), TPEBLOCK);
}

TEST_F(Receive, WaitOfNoTimeSeesEveryFrameThatHasArrived)
{
    peer.send_raw(wire::encode(wire::message(1027, "one")) + wire::encode(wire::message(1027, "two")));
    ASSERT_TRUE(wait_for_bytes(block->clhfd, 136 * 2 + 6));
    for (const char *text : {"one", "two"}) {
        msg_header *result = _read_csmsg_from_clh_timeout2(nullptr, 0, 1, block);
        ASSERT_NE(result, nullptr);
        EXPECT_EQ(data_of(result), text);
        free(result);
    }
}

// The type of the reply.

TEST_F(Receive, NochangeWantsTypeAndSubtypeToAgree)
{
    struct {
        int32_t buftype;
        const char *subtype;
        bool fits;
    } const cases[] = {{3, "", true}, {4, "", false}, {3, "x", false}, {9, "", false}};
    for (const auto &one : cases) {
        SCOPED_TRACE(std::to_string(one.buftype) + one.subtype);
        waiting(1024, TPNOCHANGE);
        peer.send(call_reply("abcd", {.buftype = one.buftype, .subtype = one.subtype}));
        msg_header *result = read();
        if (one.fits) {
            ASSERT_NE(result, nullptr);
            EXPECT_EQ(data_of(result), "abcd");
        } else {
            EXPECT_EQ(result, nullptr);
            EXPECT_EQ(error(), TPEOTYPE);
            EXPECT_EQ(data_of(want), "old contents");  // the buffer is the caller's, untouched
        }
        EXPECT_EQ(block->reader_busy, 0);
    }
}

TEST_F(Receive, WithoutNochangeTheBufferTakesTheReplysType)
{
    waiting();
    peer.send(call_reply("abcd", {.buftype = 4}));
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(want->buftype, 4);
}

// The mark of a shared call.

TEST_F(Receive, MarkIsUndone)
{
    for (int32_t type : {1004, 2004, 3004}) {
        waiting();
        peer.send(call_reply("abcd", {.msgtype = type, .seqno = SEQNO | 0x40000000}));
        ASSERT_NE(read(), nullptr) << type;
        EXPECT_EQ(want->msgtype, type - 1);
        EXPECT_EQ(want->seqno, SEQNO);
    }
}

TEST_F(Receive, MarkOnAnyOtherTypeStays)
{
    peer.send(wire::message(1027, "", {.seqno = SEQNO | 0x40000000}));
    msg_header *result = _read_csmsg_from_clh_timeout(nullptr, 5, block);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result->seqno, SEQNO | 0x40000000);
    EXPECT_EQ(result->msgtype, 1027);
    free(result);
}

TEST_F(Receive, UnmarkedAcallReplyIsNoAnswerToACall)
{
    waiting();
    peer.send(wire::message(1004, "not for the call", {.cd = 1, .seqno = SEQNO}));
    peer.send(call_reply("abcd"));
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(data_of(want), "abcd");
}

// The other frames.

TEST_F(Receive, RawFrameBecomesAMessage)
{
    for (size_t length : {(size_t)10, (size_t)0, (size_t)1863, (size_t)1864, (size_t)1865, (size_t)50000}) {
        SCOPED_TRACE(length);
        std::string data = long_text(length);
        peer.send_raw(wire::raw_frame(data));
        msg_header *result = _read_csmsg_from_clh_timeout(nullptr, 5, block);
        ASSERT_NE(result, nullptr);
        EXPECT_EQ(result->magic, MESSAGE_MAGIC);
        EXPECT_EQ(result->msgtype, 19);
        EXPECT_EQ(result->buftype, 4);
        EXPECT_EQ(result->datalen, (int32_t)length);
        EXPECT_EQ(result->bufsize, (int32_t)length);
        EXPECT_EQ(data_of(result), data);
        free(result);
    }
}

static std::string handled;
static void take_unsolicited(char *data, long length, long flags)
{
    handled += std::string(data, (size_t)length) + "/" + std::to_string(flags) + ";";
}

TEST_F(Receive, RawFrameReachesTheHandlerWhileACallWaits)
{
    block->unsol_mode = UNSOL_MODE_HANDLER;
    block->unsol_handler = take_unsolicited;
    waiting();
    peer.send_raw(wire::raw_frame("ten bytes!"));
    peer.send(call_reply("abcd"));
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(data_of(want), "abcd");
    EXPECT_EQ(handled, "ten bytes!/0;");
}

TEST_F(Receive, CompressedFrameIsUnpacked)
{
    for (size_t length : {(size_t)0, (size_t)4, (size_t)1863, (size_t)1864, (size_t)1865, (size_t)300000}) {
        SCOPED_TRACE(length);
        waiting();
        std::string data = long_text(length);
        peer.send_compressed(call_reply(data));
        ASSERT_NE(read(), nullptr);
        EXPECT_EQ(data_of(want), data);
        EXPECT_EQ(want->msgtype, 1003);
    }
}

TEST_F(Receive, CompressedFrameOfNoiseIsUnpacked)
{
    std::string noise;
    unsigned seed = 99;
    for (int i = 0; i < 40000; i++)
        noise += (char)((seed = seed * 1103515245 + 12345) >> 16);
    waiting();
    send_beside(wire::compressed_frame(wire::encode(call_reply(noise))));
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(data_of(want), noise);
}

static std::string with_plain_size(std::string frame, uint32_t size)
{
    return frame.replace(12, 4, wire::word(size));
}

TEST_F(Receive, CompressedFrameThatNamesNoSizeFitsTwoThousandBytes)
{
    waiting();
    peer.send_raw(with_plain_size(wire::compressed_frame(wire::encode(call_reply(long_text(1864)))), 0));
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(data_of(want), long_text(1864));

    waiting();
    errno = 0;
    peer.send_raw(with_plain_size(wire::compressed_frame(wire::encode(call_reply(long_text(1865)))), 0));
    EXPECT_EQ(read(), nullptr);
    EXPECT_EQ(error(), TPEOS);
    EXPECT_GE(block->clhfd, 0);
    EXPECT_EQ(block->reader_busy, 0);

    waiting();  // the stream is whole: the next message is read
    peer.send(call_reply("next"));
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(data_of(want), "next");
}

TEST_F(Receive, EnvelopeOfTheNegotiationComesBackUncutWhateverIsWanted)
{
    for (size_t length : {(size_t)0, (size_t)32, (size_t)1864, (size_t)1865, (size_t)30000}) {
        SCOPED_TRACE(length);
        std::string payload = long_text(length);
        waiting();
        peer.send_raw(envelope(10, 1001, payload));
        msg_header *result = _read_csmsg_from_clh(-1, want, block);
        ASSERT_NE(result, nullptr);
        ASSERT_NE(result, want);
        EXPECT_EQ(result->magic, MESSAGE_MAGIC);
        EXPECT_EQ(result->msgtype, 1001);
        EXPECT_EQ(result->buftype, 10);
        EXPECT_EQ(result->datalen, (int32_t)length);
        EXPECT_EQ(result->bufsize, (int32_t)length);
        EXPECT_EQ(data_of(result), payload);
        EXPECT_EQ(block->reader_busy, 0);
        want = result;  // it has taken the buffer's place
    }
}

TEST_F(Receive, EnvelopeWithoutACipherEndsTheWait)
{
    waiting();
    peer.send_raw(envelope(10, 1003, long_text(300)));
    EXPECT_EQ(read(), nullptr);
    EXPECT_EQ(error(), 0);
    EXPECT_EQ(block->reader_busy, 0);
}

TEST_F(Receive, FirstWordOfAPlainMessageIsNotCompared)
{
    waiting();
    std::string bytes = wire::encode(call_reply("abcd"));
    bytes[0] = 0x12;
    peer.send_raw(bytes);
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(data_of(want), "abcd");
}

// Field buffers.

TEST_F(Receive, EmptyFieldBufferGetsItsHeadForANullWant)
{
    peer.send(wire::message(1027, "", {.buftype = 2, .bufsize = 0}));
    msg_header *result = _read_csmsg_from_clh(-1, nullptr, block);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result->datalen, 8);
    EXPECT_EQ(result->bufsize, 8);
    uint32_t head[2];
    memcpy(head, message_data(result), 8);
    EXPECT_EQ(head[0], 0x22b8u);
    EXPECT_EQ(head[1], 8u);
    free(result);
}

TEST_F(Receive, ReadBufferRepairByItself)
{
    EXPECT_EQ(_check_read_buffer(nullptr), nullptr);
    struct {
        int32_t buftype, datalen, bufsize, datalen_after, bufsize_after;
    } const cases[] = {
        {BUF_FIELD, 0, 0, 8, 8},       {BUF_FIELD, 7, 7, 8, 8}, {BUF_FIELD, 8, 8, 8, 8},
        {BUF_FIELD, 0, 1024, 8, 1024}, {BUF_FIELD, 9, 4, 9, 8}, {BUF_STRING, 0, 0, 0, 0},
    };
    for (const auto &one : cases) {
        msg_header *message = new_message(1004, "", 1024);
        message->buftype = one.buftype;
        message->datalen = one.datalen;
        message->bufsize = one.bufsize;
        EXPECT_EQ(_check_read_buffer(message), message);
        EXPECT_EQ(message->datalen, one.datalen_after);
        EXPECT_EQ(message->bufsize, one.bufsize_after);
        free(message);
    }
}

TEST_F(Receive, StructReplyOfAnUnknownTypeIsAReadError)
{
    waiting();
    errno = 0;
    peer.send(call_reply(long_text(64), {.buftype = 1, .subtype = "nosuchstruct"}));
    EXPECT_EQ(read(), nullptr);
    EXPECT_EQ(error(), TPEOS);
    EXPECT_EQ(block->reader_busy, 0);
    EXPECT_GE(block->clhfd, 0);
}

// A message that belongs to nobody.

TEST_F(Receive, ForeignNumberIsLoggedTwiceAndTheWaitGoesOn)
{
    struct {
        int seconds;
        int32_t type, flags;
        const char *code;
    } const cases[] = {
        {0, 3, 0, "CSC5717"},
        {10, 3, 0, "CSC5714"},
        {0, 28, 0, "CSC5718"},
        {10, 28, 0, "CSC5715"},
    };
    for (const auto &one : cases) {
        waiting()->msgtype = one.type;
        peer.send(wire::message(1000 + one.type, "foreign", {.seqno = 42}));
        peer.send(wire::message(1000 + one.type, "own", {.seqno = SEQNO}));
        ASSERT_NE(one.seconds == 0 ? read() : read_within(one.seconds), nullptr);
        EXPECT_EQ(data_of(want), "own");
        EXPECT_TRUE(log.has("(W) CLI 3001 sequence number error : 4711 42 [" + std::string(one.code) + "]"))
            << log.text();
    }
    EXPECT_TRUE(
        log.has("(E) CLI 2008 tpcall reply arrived after timeout. Msg discarded : 1003 42 [CSC5708]"));
}

TEST_F(Receive, ForeignTransactionReplyIsLoggedOnlyByANewerEngine)
{
    for (int version : {0, 1})
        for (int seconds : {0, 10}) {
            SCOPED_TRACE(std::to_string(version) + " " + std::to_string(seconds));
            std::string before = log.text();
            _vorn_engine_version = version;
            waiting()->msgtype = MSG_TX_COMMIT;
            peer.send(wire::message(1032, "", {.seqno = 42}));
            peer.send(wire::message(1032, "", {.seqno = SEQNO}));
            ASSERT_NE(seconds == 0 ? read() : read_within(seconds), nullptr);
            EXPECT_EQ(want->seqno, version == 0 ? 42 : SEQNO);  // an old engine's numbers don't count
            std::string line = "3001 sequence number error : 4711 42 [" +
                               std::string(seconds == 0 ? "CSC5719" : "CSC5716") + "]";
            EXPECT_EQ(log.text().substr(before.size()).find(line) != std::string::npos, version == 1);
            if (version == 0) {
                waiting()->msgtype = MSG_TX_COMMIT;
                ASSERT_NE(read(), nullptr);  // the other one
            }
        }
}

TEST_F(Receive, ReplyOfAnotherTypeIsNoSequenceError)
{
    waiting();
    peer.send(wire::message(1012));
    peer.send(call_reply("own"));
    ASSERT_NE(read(), nullptr);
    EXPECT_FALSE(log.has("3001")) << log.text();
}

TEST_F(Receive, UnknownMessageEndsTheWait)
{
    for (int seconds : {0, 10}) {
        waiting();
        peer.send(wire::message(2006));
        EXPECT_EQ(seconds == 0 ? read() : read_within(seconds), nullptr);
        EXPECT_EQ(error(), TPESYSTEM);
        EXPECT_EQ(block->reader_busy, 0);
    }
}

TEST_F(Receive, ClosedServiceSessionIsNoReplyToACall)
{
    waiting();
    peer.send(wire::message(501, "", {.flags = 0x1000, .sessid = 3}));
    peer.send(call_reply("own"));
    ASSERT_NE(read(), nullptr);
    EXPECT_EQ(data_of(want), "own");
}

// The socket of a rolling start.

TEST_F(Receive, ReadySocketIsReadAlone)
{
    int ends[2];
    tcp_pair(ends);
    Conn next(ends[1]);
    block->new_clhfd = ends[0];
    waiting();
    want->msgtype = MSG_TPSTART;
    next.send(wire::message(1012));  // dropped
    next.send(wire::message(1001, "hello"));
    msg_header *result = _read_csmsg_from_ready_clh(ends[0], want, 0, block);
    ASSERT_NE(result, nullptr);
    want = result;
    EXPECT_EQ(data_of(want), "hello");
    EXPECT_EQ(block->reader_busy, 0);

    want->msgtype = MSG_TPSTART;
    next.send(wire::message(1001, "again"));
    result = _read_csmsg_from_ready_clh_timeout(want, 10, block);
    ASSERT_NE(result, nullptr);
    want = result;
    EXPECT_EQ(data_of(want), "again");

    next.send(wire::message(1027, "dropped"));
    want->msgtype = MSG_TPSTART;
    EXPECT_EQ(_read_csmsg_from_ready_clh_timeout(want, 1, block), nullptr);
    EXPECT_EQ(error(), TPETIME);
}

TEST_F(Receive, ReadySocketMissingOrSilent)
{
    waiting()->msgtype = MSG_TPSTART;
    EXPECT_EQ(_read_csmsg_from_ready_clh(-1, want, 0, block), nullptr);
    EXPECT_EQ(error(), TPESYSTEM);
    int ends[2];
    tcp_pair(ends);
    Conn next(ends[1]);
    block->new_clhfd = ends[0];
    EXPECT_EQ(_read_csmsg_from_ready_clh_timeout(want, 0, block), nullptr);
    EXPECT_EQ(error(), TPETIME);
    EXPECT_EQ(_read_csmsg_from_ready_clh_timeout(want, -3, block), nullptr);
    EXPECT_EQ(error(), TPETIME);
    next.send(wire::message(1027, "anything"));
    msg_header *result = nullptr;
    ASSERT_TRUE(faults::eventually([&] {
        result = _read_csmsg_from_ready_clh_timeout(nullptr, 5, block);
        return result != nullptr;
    }));
    EXPECT_EQ(data_of(result), "anything");
    free(result);
}
