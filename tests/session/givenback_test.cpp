// Requests that a server gives back because it goes down: they go to the new server, each once, and the
// answer comes to whoever waits for it.
#include "session/moving.h"

#include "calls/cscommon.h"
#include "vorn/conversation.h"
#include "vorn/queue.h"
#include "wire/clhio.h"
#include "wire/clhmatch.h"
#include "wire/clhread.h"

#include <algorithm>
#include <unistd.h>

namespace {

struct GivenBack : Moving {
    // The server gives the next request back; the other one gets it, and nothing of it has changed.
    wire::frame hand_over(int32_t msgtype, const wire::start_reply &reply = {})
    {
        wire::frame request = peer.expect(msgtype);
        give_back(peer, request);
        backup.accept_start(reply);
        expect_again(request);
        return request;
    }

    void expect_again(wire::frame request)
    {
        wire::frame again = backup.expect(request.msgtype);
        EXPECT_EQ(again.xflags & GIVEN_BACK, 0u);
        EXPECT_EQ(again.callid[0], request.callid[0]);
        memcpy(again.callid, request.callid, sizeof again.callid);  // a number of its own
        EXPECT_EQ(wire::encode(again), wire::encode(request));
    }
};

}

TEST_F(GivenBack, CallGoesToTheNewServer)
{
    for (int block_time : {0, 30}) {
        ASSERT_TRUE(start(with_block_time(block_time)));
        peer.play([&] {
            hand_over(wire::TPCALL, with_block_time(block_time));
            left(peer);
            backup.reply(std::string("TEXT") + '\0');
        });
        EXPECT_EQ(call("text").data, "TEXT");
        peer.done();
        expect_normal(true);
        expect_call_over(backup, backup);
        EXPECT_EQ(log.text(), "");
        EXPECT_EQ(tpreset(), 1);
        backup.hang_up();
    }
}

TEST_F(GivenBack, CallWithMuchDataIsWhole)
{
    ASSERT_TRUE(start());
    std::string text;
    for (int i = 0; i < 100000; i++)
        text += (char)('a' + i % 23);
    peer.play([&] {
        wire::frame request = hand_over(wire::TPCALL);
        EXPECT_EQ(request.data, text + '\0');
        backup.reply(std::string("TEXT") + '\0');
    });
    EXPECT_EQ(call(text).data, "TEXT");
    expect_normal(true);
}

TEST_F(GivenBack, CompressedCallIsWholeAndCompressedByTheNewServersThreshold)
{
    wire::start_reply reply;
    reply.threshold = 100;
    ASSERT_TRUE(start(reply));
    std::string text(5000, 'x');
    peer.play([&] {
        wire::frame request = peer.expect(wire::TPCALL).compressed(true);
        wire::frame back = request;
        back.msgtype += wire::EREPLY;
        back.xflags |= GIVEN_BACK;
        peer.send_compressed(back);
        backup.accept_start();
        backup.expect(wire::TPCALL).compressed(false).text(text);
        backup.reply(std::string("TEXT") + '\0');
    });
    EXPECT_EQ(call(text).data, "TEXT");
}

TEST_F(GivenBack, AnswerWithAnErrorIsTheCallersOwn)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        hand_over(wire::TPCALL);
        wire::with fields;
        fields.flags = TPESVCFAIL;
        backup.reply("", fields);
    });
    EXPECT_EQ(call("text").error, TPESVCFAIL);
    expect_normal(true);
}

TEST_F(GivenBack, MarkOnAGoodReplyMeansNothing)
{
    ASSERT_TRUE(start());
    wire::with fields;
    fields.xflags = GIVEN_BACK;
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.reply(std::string("TEXT") + '\0', fields);
    });
    EXPECT_EQ(call("text").data, "TEXT");
    EXPECT_TRUE(backup.nobody_knocks());
}

TEST_F(GivenBack, ErrorWithoutTheMarkIsAnError)
{
    ASSERT_TRUE(start());
    wire::with fields;
    fields.flags = TPENOREADY;
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.reply("", fields);
    });
    EXPECT_EQ(call("text").error, TPENOREADY);
    EXPECT_TRUE(backup.nobody_knocks());
    expect_normal(false);
}

TEST_F(GivenBack, AsynchronousCallKeepsItsDescriptor)
{
    for (int block_time : {0, 30}) {
        ASSERT_TRUE(start(with_block_time(block_time)));
        int descriptor = acall("later");
        peer.play([&] {
            hand_over(wire::TPACALL, with_block_time(block_time));
            left(peer);
            backup.reply(std::string("LATER") + '\0');
        });
        EXPECT_EQ(fetch(descriptor).data, "LATER");
        peer.done();
        expect_normal(true);
        EXPECT_EQ(tpreset(), 1);
        backup.hang_up();
    }
}

TEST_F(GivenBack, AnyFetchGetsTheAnswerToo)
{
    ASSERT_TRUE(start());
    acall("later");
    peer.play([&] {
        hand_over(wire::TPACALL);
        backup.reply(std::string("LATER") + '\0');
    });
    EXPECT_EQ(fetch(0, TPGETANY).data, "LATER");
    peer.done();
    expect_normal(true);
}

TEST_F(GivenBack, CallThatNobodyFetchesYetIsSentAgainOnTheWay)
{
    ASSERT_TRUE(start());
    int descriptor = acall("later");
    wire::frame later = peer.expect(wire::TPACALL);
    peer.play([&] {
        wire::frame request = peer.expect(wire::TPCALL);
        give_back(peer, later);
        backup.accept_start();
        expect_again(later);
        backup.reply(std::string("LATER") + '\0');
        peer.reply_to(request, std::string("TEXT") + '\0');
    });
    EXPECT_EQ(call("text").data, "TEXT");
    peer.done();
    EXPECT_EQ(fetch(descriptor).data, "LATER");
    left(peer);
    expect_normal(true);
}

TEST_F(GivenBack, OfSeveralCallsSomeAreAnsweredAndSomeComeBack)
{
    ASSERT_TRUE(start());
    constexpr int CALLS = 8;
    int descriptors[CALLS];
    wire::frame requests[CALLS];
    for (int i = 0; i < CALLS; i++) {
        descriptors[i] = acall("call " + std::to_string(i));
        requests[i] = peer.expect(wire::TPACALL);
    }
    peer.play([&] {
        for (int i = 0; i < CALLS; i++) {
            if (i % 2 == 0)
                give_back(peer, requests[i]);
            else
                peer.reply_to(requests[i], "answer " + std::to_string(i) + '\0');
        }
        backup.accept_start();
        for (int i = 0; i < CALLS; i += 2) {
            expect_again(requests[i]);
            backup.reply("answer " + std::to_string(i) + '\0');
        }
        left(peer);
    });
    for (int i = CALLS - 1; i >= 0; i--)
        EXPECT_EQ(fetch(descriptors[i]).data, "answer " + std::to_string(i));
    peer.done();
    EXPECT_TRUE(backup.nobody_knocks());
    expect_normal(true);
}

TEST_F(GivenBack, RequestBehindAMoveThatIsDoneGoesToTheSameServer)
{
    ASSERT_TRUE(start());
    int one = acall("one"), two = acall("two");
    wire::frame first = peer.expect(wire::TPACALL), second = peer.expect(wire::TPACALL);
    move_to_backup();
    give_back(peer, first);
    backup.play([&] {
        expect_again(first);
        backup.reply(std::string("ONE") + '\0');
    });
    EXPECT_EQ(fetch(one).data, "ONE");
    backup.done();
    EXPECT_GE(block()->old_clhfd, 0);  // the second one is still to come over it
    peer.reply_to(second, std::string("TWO") + '\0');
    EXPECT_EQ(fetch(two).data, "TWO");
    left(peer);
    EXPECT_TRUE(backup.nobody_knocks());
    expect_normal(true);
}

TEST_F(GivenBack, WarningAndReturnTogetherMoveOnce)
{
    for (int block_time : {0, 30}) {
        ASSERT_TRUE(start(with_block_time(block_time)));
        peer.play([&] {
            wire::frame request = peer.expect(wire::TPCALL);
            peer.send_urgent(DOWN_WARNING);
            give_back(peer, request);
            backup.accept_start(with_block_time(block_time));
            expect_again(request);
            backup.reply(std::string("TEXT") + '\0');
        });
        EXPECT_EQ(call("text").data, "TEXT");
        peer.done();
        EXPECT_TRUE(backup.nobody_knocks());
        expect_call_over(backup, backup);
        expect_normal(true);
        EXPECT_EQ(tpreset(), 1);
        backup.hang_up();
        peer.hang_up();
    }
}

TEST_F(GivenBack, NewServerThatGivesBackTooIsAskedAgainOrLeft)
{
    ASSERT_TRUE(start());
    Conn again;
    peer.play([&] {
        wire::frame request = peer.expect(wire::TPCALL);
        give_back(peer, request);
        backup.accept_start();
        request = backup.expect(wire::TPCALL);
        // Its client has left the first server by now, so this is the second one's own going-down.
        left(peer);
        give_back(backup, request);
        peer.accept(&again);
        again.expect(wire::TPSTART);
        again.reply_start();
        again.expect(wire::TPCALL).text("text");
        again.reply(std::string("TEXT") + '\0');
    });
    EXPECT_EQ(call("text").data, "TEXT");
    peer.done();
    left(backup);
    expect_normal(false);
}

TEST_F(GivenBack, NewServerThatGivesBackWhileThePreviousOneIsNeededIsAskedAgain)
{
    ASSERT_TRUE(start());
    int open = acall("open");
    wire::frame first = peer.expect(wire::TPACALL);
    move_to_backup();
    backup.play([&] {
        give_back(backup, backup.expect(wire::TPCALL));
        answer_call(backup, "text", "TEXT");
    });
    EXPECT_EQ(call("text").data, "TEXT");
    backup.done();
    peer.reply_to(first, std::string("OPEN") + '\0');
    EXPECT_EQ(fetch(open).data, "OPEN");
    expect_normal(true);
}

TEST_F(GivenBack, QueueRequestGoesToTheNewServer)
{
    wire::start_reply reply;
    reply.queues = {"QUEUE"};
    ASSERT_TRUE(start(reply));
    char *buffer = tpalloc((char *)"STRING", nullptr, 0);
    strcpy(buffer, "text");
    peer.play([&] {
        hand_over(17, reply);
        wire::with fields;
        fields.rcode = 3;
        backup.reply("", fields);
        left(peer);
    });
    EXPECT_EQ(tpenq((char *)"QUEUE", (char *)"SERVICE", buffer, 0, 0), 3);
    peer.done();
    EXPECT_EQ(block()->rq_pending, 1);
    tpfree(buffer);
    expect_normal(true);
}

TEST_F(GivenBack, CallThatWaitsForItsReceiptGoesToTheNewServer)
{
    ASSERT_TRUE(start());
    int descriptor = 0;
    peer.play([&] {
        wire::frame request = peer.expect(wire::TPACALL);
        give_back(peer, request);
        backup.accept_start();
        wire::frame again = backup.expect(wire::TPACALL).flags(request.flags);
        wire::with receipt;
        receipt.msgtype = wire::TPACALL_BLOCK + wire::REPLY;
        backup.reply_to(again, "", receipt);
        backup.reply_to(again, std::string("LATER") + '\0');
    });
    descriptor = acall("later", TPBLOCK);
    EXPECT_GT(descriptor, 0) << get_tperrno();
    EXPECT_EQ(fetch(descriptor).data, "LATER");
    peer.done();
    expect_normal(true);
}

TEST_F(GivenBack, RequestWithoutAReplyIsSentOnWhileSomebodyReads)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(acall("oneway", TPNOREPLY), 0);
    wire::frame oneway = peer.expect(wire::TPACALL);
    peer.play([&] {
        wire::frame request = peer.expect(wire::TPCALL);
        give_back(peer, oneway);
        backup.accept_start();
        expect_again(oneway);
        peer.reply_to(request, std::string("TEXT") + '\0');
    });
    EXPECT_EQ(call("text").data, "TEXT");
    peer.done();
    expect_normal(true);
}

TEST_F(GivenBack, CancelledCallIsSentOnAndItsAnswerDropped)
{
    ASSERT_TRUE(start());
    int descriptor = acall("gone");
    wire::frame gone = peer.expect(wire::TPACALL);
    EXPECT_EQ(tpcancel(descriptor), 1);
    peer.play([&] {
        wire::frame request = peer.expect(wire::TPCALL);
        give_back(peer, gone);
        backup.accept_start();
        expect_again(gone);
        backup.reply(std::string("GONE") + '\0');
        peer.reply_to(request, std::string("TEXT") + '\0');
    });
    EXPECT_EQ(call("text").data, "TEXT");
    peer.done();
    expect_call_over(backup, backup);
    expect_normal(true);
}

// ---- no server to send it to

TEST_F(GivenBack, WithoutABackupTheCallerIsTold)
{
    unsetenv("VORN_BACKUP_ADDR");
    for (uint32_t flags : {0u, (uint32_t)TPESVCERR}) {
        ASSERT_TRUE(start());
        peer.play([&] {
            wire::frame request = peer.expect(wire::TPCALL);
            request.flags = flags;
            give_back(peer, request);
        });
        EXPECT_EQ(call("text").error, TPERDOWN);
        peer.done();
        EXPECT_EQ(block()->rolling_failed, 1);
        EXPECT_EQ(call("more").error, TPERDOWN);
        peer.expect_nothing();
        EXPECT_EQ(tpreset(), 1);
    }
}

TEST_F(GivenBack, FetchOfACallThatCannotGoOnIsTold)
{
    backup.stop_listening();
    ASSERT_TRUE(start());
    int one = acall("one"), two = acall("two");
    wire::frame first = peer.expect(wire::TPACALL), second = peer.expect(wire::TPACALL);
    give_back(peer, first);
    give_back(peer, second);
    EXPECT_EQ(fetch(two).error, TPERDOWN);
    EXPECT_EQ(fetch(one).error, TPERDOWN);
    EXPECT_EQ(block()->acall_active, 0);
    EXPECT_EQ(block()->started, 1);
}

TEST_F(GivenBack, WhatComesBackAfterAFailureIsTheCallersError)
{
    backup.stop_listening();
    ASSERT_TRUE(start());
    int descriptor = acall("one");
    wire::frame request = peer.expect(wire::TPACALL);
    warn(peer);
    EXPECT_EQ(call("text").error, TPERDOWN);
    int connects = faults::count(faults::CONNECT);
    request.flags = TPESVCERR;
    give_back(peer, request);
    EXPECT_EQ(fetch(descriptor).error, TPERDOWN);
    EXPECT_EQ(faults::count(faults::CONNECT), connects);  // it isn't tried again
}

TEST_F(GivenBack, StartThatIsGivenBackIsARefusedOne)
{
    unsetenv("VORN_BACKUP_ADDR");
    peer.play([&] {
        for (int i = 0; i < 2; i++) {
            peer.accept();
            peer.expect(wire::TPSTART);
            wire::frame request = peer.last;
            request.target = TPENOREADY;
            give_back(peer, request);
            left(peer);
        }
    });
    EXPECT_EQ(tpstart(nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPENOREADY);
}

// ---- the decision itself, on one message

namespace {

struct Decision : WireTest {
    msg_header *message = nullptr;
    int ends[2];

    ~Decision() override { free(message); }

    msg_header *given_back(int32_t msgtype, uint32_t flags = 0)
    {
        free(message);
        message = new_message(msgtype, "data");
        message->xflags |= GIVEN_BACK;
        message->flags = flags;
        return message;
    }

    void stand_on_two()
    {
        tcp_pair(ends);
        block->old_clhfd = ends[0];
    }
};

}

TEST_F(Decision, TypesBelowErrorRepliesAreNormal)
{
    for (int32_t type : {0, 3, 6, 507, 1003, 1004, 2000})
        EXPECT_EQ(_is_msgtype_irt(nullptr, given_back(type), block), 0) << type;
    given_back(2003)->xflags &= ~GIVEN_BACK;
    EXPECT_EQ(_is_msgtype_irt(nullptr, message, block), 0);
    EXPECT_EQ(block->rolling_failed, 0);
    peer.expect_nothing();
}

TEST_F(Decision, RequestGoesOutOverTheCurrentSocketWithItsType)
{
    stand_on_two();
    for (int32_t type : {3, 4, 5, 7, 17, 18, 32, 33}) {
        block->waiter_count = 0;
        EXPECT_EQ(_is_msgtype_irt(nullptr, given_back(type + 2000), block), 1) << type;
        EXPECT_EQ(block->waiter_count, 0) << type;  // counted when it went out first
        wire::frame sent = peer.expect(type).data("data");
        EXPECT_EQ(sent.xflags & GIVEN_BACK, 0u);
    }
    Conn other(ends[1]);
    other.expect_nothing();
}

TEST_F(Decision, WithoutAMoveTheFlagsNameTheReason)
{
    const struct {
        bool failed;
        uint32_t flags, expected;
    } cases[] = {
        {true, 0, TPERDOWN},
        {true, TPESVCERR, TPERDOWN},
    };
    for (const auto &row : cases) {
        block->rolling_failed = row.failed;
        EXPECT_EQ(_is_msgtype_irt(nullptr, given_back(2003, row.flags), block), -1);
        EXPECT_EQ(message->flags, row.expected);
        EXPECT_EQ(message->msgtype, 2003);
    }
    // No socket to move from: it didn't fail, it didn't begin.
    block->rolling_failed = 0;
    int fd = block->clhfd.exchange(-1);
    EXPECT_EQ(_is_msgtype_irt(nullptr, given_back(2003), block), -1);
    EXPECT_EQ(message->flags, (uint32_t)TPENOREADY);
    EXPECT_EQ(_is_msgtype_irt(nullptr, given_back(2003, TPESVCERR), block), -1);
    EXPECT_EQ(message->flags, (uint32_t)TPESVCERR);
    block->clhfd = fd;
}

TEST_F(Decision, FailedMoveWithBothSocketsOpenIsDownToo)
{
    stand_on_two();
    block->rolling_failed = 1;
    EXPECT_EQ(_is_msgtype_irt(nullptr, given_back(2003, 5), block), -1);
    EXPECT_EQ(message->flags, (uint32_t)TPERDOWN);
    peer.expect_nothing();
}

TEST_F(Decision, RequestThatCannotBeSentAgainIsDown)
{
    stand_on_two();
    faults::fail(faults::SEND, 1, EAGAIN);
    EXPECT_EQ(_is_msgtype_irt(nullptr, given_back(2003), block), -1);
    EXPECT_EQ(message->msgtype, 2003);
    EXPECT_EQ(message->flags, (uint32_t)TPERDOWN);
    EXPECT_EQ(block->waiter_count, 0);
}
