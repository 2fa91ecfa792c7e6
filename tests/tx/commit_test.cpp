// The end of a transaction: what goes out, what comes back, and what goes with it.
#include "tx/fixture.h"

#include "support/meeting.h"
#include "wire/msgheader.h"

#include <algorithm>
#include <functional>

namespace {

struct Ending : TxTest {
    int (*end)(void) = nullptr;
    int32_t msgtype = 0;

    // Runs the test's body for a commit and for a rollback, each in a transaction that the server knows.
    void for_both(const std::function<void()> &body)
    {
        for (bool commits : {true, false}) {
            SCOPED_TRACE(commits ? "commit" : "rollback");
            end = commits ? tx_commit : tx_rollback;
            msgtype = commits ? COMMIT_MESSAGE : ROLLBACK_MESSAGE;
            ASSERT_TRUE(run());
            body();
            if (HasFatalFailure())
                return;
        }
    }

    // A call that fails in the service.
    void fail_a_call(long flags = 0)
    {
        peer.play([&] {
            peer.expect(wire::TPCALL);
            peer.reply("x", {.flags = TPESVCFAIL});
        });
        EXPECT_EQ(call(flags), -1);
        EXPECT_EQ(gettperrno(), TPESVCFAIL);
        peer.done();
    }
};

wire::frame end_message(int32_t msgtype, int32_t seqno)
{
    wire::frame message;
    message.msgtype = msgtype;
    message.seqno = seqno;
    message.svcname = msgtype == COMMIT_MESSAGE ? "_tx_commit" : "_tx_rback";
    return message;
}

std::string without_library_words(wire::frame message)
{
    message.xflags = message.callid[0] = message.callid[1] = message.callid[2] = 0;
    return wire::encode(message);
}

}  // namespace

// ---- the message

TEST_F(Ending, MessageIsAHeaderWithANameAndANewNumber)
{
    ASSERT_TRUE(start());
    for_both([&] {
        set_tperrno(9);
        int32_t before = block()->seqno;
        peer.play([&] {
            wire::frame message = peer.expect(msgtype).header_only().frame;
            EXPECT_EQ(without_library_words(message), wire::encode(end_message(msgtype, before + 1)));
            peer.reply();
        });
        EXPECT_EQ(end(), TX_OK);
        peer.done();
        EXPECT_EQ(gettperrno(), 0);
        EXPECT_EQ(block()->seqno, before + 1);
        expect_no_transaction();
        expect_idle();
    });
}

TEST_F(Ending, ServersResultIsTheResult)
{
    ASSERT_TRUE(start());
    for (int32_t result : {TX_OK, TX_OUTSIDE, TX_ROLLBACK, TX_MIXED, TX_HAZARD, TX_PROTOCOL_ERROR, TX_ERROR,
                           TX_FAIL, TX_EINVAL, TX_COMMITTED, 1, INT32_MAX, INT32_MIN})
        for_both([&] {
            EXPECT_EQ(end_with(end, msgtype, result), result);
            EXPECT_EQ(gettperrno(), 0);
            expect_no_transaction();
        });
}

TEST_F(Ending, ReplyMayCarryMore)
{
    ASSERT_TRUE(start());
    for_both([&] {
        peer.play([&] {
            peer.expect(msgtype);
            peer.reply(std::string(100000, 'x'), {.rcode = TX_MIXED, .cd = 77, .srcid = 9});
        });
        EXPECT_EQ(end(), TX_MIXED);
        peer.done();
        expect_no_transaction();
    });
}

TEST_F(Ending, NothingIsSentForATransactionOfWhichTheServerNeverHeard)
{
    ASSERT_TRUE(start());
    for (auto one : {tx_commit, tx_rollback}) {
        ASSERT_EQ(tx_begin(), TX_OK);
        set_tperrno(9);
        EXPECT_EQ(one(), TX_OK);
        EXPECT_EQ(gettperrno(), 0);
        expect_no_transaction();
        ASSERT_EQ(tx_begin(), TX_OK);
        set_tx_state(block(), TX_STATE_ROLLBACK);
        EXPECT_EQ(one(), TX_OK);  // there is nothing to roll back either
        expect_no_transaction();
    }
    peer.expect_nothing();
}

TEST_F(Ending, NeedsATransaction)
{
    ASSERT_TRUE(start());
    for_both([&] {
        EXPECT_EQ(end_with(end, msgtype, TX_OK), TX_OK);
        set_tperrno(9);
        EXPECT_EQ(tx_commit(), TX_PROTOCOL_ERROR);
        EXPECT_EQ(gettperrno(), 0);
        EXPECT_EQ(tx_rollback(), TX_PROTOCOL_ERROR);
        peer.expect_nothing();
    });
}

TEST_F(Ending, QueueMarksGoWithEveryEnd)
{
    ASSERT_TRUE(start());
    auto mark = [&] { block()->rq_enq_in_tran = block()->rq_deq_in_tran = 1; };
    auto expect_unmarked = [&] {
        EXPECT_EQ(block()->rq_enq_in_tran, 0);
        EXPECT_EQ(block()->rq_deq_in_tran, 0);
    };
    for_both([&] {
        mark();
        EXPECT_EQ(end_with(end, msgtype, TX_FAIL), TX_FAIL);
        expect_unmarked();
        mark();
        EXPECT_EQ(end(), TX_PROTOCOL_ERROR);
        expect_unmarked();
        ASSERT_EQ(tx_begin(), TX_OK);
        mark();
        EXPECT_EQ(end(), TX_OK);
        expect_unmarked();
    });
}

// ---- the reply

TEST_F(Ending, ReplyOfAnotherKindIsAFailure)
{
    ASSERT_TRUE(start());
    for_both([&] {
        for (int32_t kind : {wire::EREPLY, wire::EREPLY + 1000}) {
            if (tx_info(nullptr) == 0) {
                ASSERT_TRUE(run());
            }
            peer.play([&, kind] {
                peer.expect(msgtype);
                peer.reply("", {.msgtype = msgtype + kind, .rcode = TX_OK});
            });
            EXPECT_EQ(end(), TX_FAIL);
            peer.done();
            expect_no_transaction();
        }
    });
}

TEST_F(Ending, ReplyToTheOtherEndIsNotTheReply)
{
    ASSERT_TRUE(start());
    for_both([&] {
        peer.play([&] {
            peer.expect(msgtype);
            peer.reply("", {.msgtype = msgtype == COMMIT_MESSAGE ? 1033 : 1032, .rcode = TX_FAIL});
            peer.reply("", {.rcode = TX_MIXED});
        });
        EXPECT_EQ(end(), TX_MIXED);
        peer.done();
    });
    EXPECT_TRUE(log.has("tx reply arrived after timeout, msgtype = 1033")) << log.text();
    EXPECT_TRUE(log.has("tx reply arrived after timeout, msgtype = 1032")) << log.text();
}

TEST_F(Ending, ReplyMustBearTheNumberOfTheMessage)
{
    ASSERT_TRUE(start({.engine_version = 1}));
    for_both([&] {
        peer.play([&] {
            int32_t seqno = peer.expect(msgtype).frame.seqno;
            peer.reply("", {.rcode = TX_FAIL, .seqno = seqno + 1});
            peer.reply("", {.rcode = TX_FAIL, .seqno = 0});
            peer.reply("", {.msgtype = msgtype + wire::EREPLY, .seqno = seqno - 1});
            peer.reply("", {.rcode = TX_MIXED});
        });
        EXPECT_EQ(end(), TX_MIXED);
        peer.done();
    });
    EXPECT_TRUE(log.has("(W) CLI 3001 sequence number error : ")) << log.text();
    EXPECT_TRUE(log.has("tx reply arrived after timeout, msgtype = 2033")) << log.text();
}

TEST_F(Ending, OldServersReplyBearsAnyNumber)
{
    for (int32_t version : {0, -1}) {
        ASSERT_TRUE(start({.engine_version = version}));
        for_both([&] {
            peer.play([&] {
                peer.expect(msgtype);
                peer.reply("", {.rcode = TX_MIXED, .seqno = 4711});
            });
            EXPECT_EQ(end(), TX_MIXED);
            peer.done();
        });
        peer.play([&] { peer.serve_end(); });
        EXPECT_EQ(tpend(), 1);
        peer.done();
    }
    EXPECT_FALSE(log.has("3001 sequence number error")) << log.text();
}

TEST_F(Ending, RepliesOfCallsOutsideAreKeptMeanwhile)
{
    ASSERT_TRUE(start());
    for_both([&] {
        peer.play([&] {
            wire::frame request = peer.expect(wire::TPACALL).frame;
            wire::frame message = peer.expect(msgtype).frame;
            peer.reply_to(request, "outside");
            peer.send(wire::message(wire::TPPOST, "news"));
            peer.reply_to(message, "", {.rcode = TX_OK});
        });
        int cd = acall(TPNOTRAN);
        EXPECT_EQ(end(), TX_OK);
        peer.done();
        EXPECT_TRUE(stored(cd));
        EXPECT_EQ(getrply(&cd), 1);
        EXPECT_EQ(reply_data(), "outside");
    });
}

// ---- an end that fails

TEST_F(Ending, LostConnectionIsAFailure)
{
    for (bool commits : {true, false}) {
        ASSERT_TRUE(start_running());
        peer.play([&] {
            peer.expect(commits ? COMMIT_MESSAGE : ROLLBACK_MESSAGE);
            peer.hang_up();
        });
        EXPECT_EQ(commits ? tx_commit() : tx_rollback(), TX_FAIL);
        EXPECT_EQ(gettperrno(), TPECLOSE);
        peer.done();
        EXPECT_TRUE(log.has("(E) CLI 0030 read error [CSC5404]")) << log.text();
        expect_no_transaction();
        EXPECT_EQ(tx_commit(), TX_PROTOCOL_ERROR);
        EXPECT_TRUE(peer.nobody_knocks());
        tpend();
    }
}

TEST_F(Ending, FailedSendIsAFailure)
{
    for (bool commits : {true, false})
        for (int error : {EPIPE, ECONNRESET}) {
            ASSERT_TRUE(start_running());
            faults::fail(faults::SEND, 1, error);
            EXPECT_EQ(commits ? tx_commit() : tx_rollback(), TX_FAIL);
            faults::reset();
            EXPECT_NE(gettperrno(), 0);
            EXPECT_TRUE(log.has("(E) CLI 0027 write error [CSC5403]")) << log.text();
            EXPECT_FALSE(log.has("CSC5404"));
            expect_no_transaction();
            peer.hang_up();
            tpend();
        }
}

TEST_F(Ending, EveryAllocationMayFail)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        wire::frame message;
        while (peer.receive(&message)) {
            peer.reply(message.msgtype == wire::TPCALL ? "x" : "");
            if (message.msgtype == wire::TPEND)
                return;
        }
    });
    for (auto one : {tx_commit, tx_rollback})
        for (int nth = 1;; nth++) {
            SCOPED_TRACE(nth);
            ASSERT_LT(nth, 100);
            ASSERT_EQ(tx_begin(), TX_OK);
            ASSERT_EQ(call(), 1) << gettperrno();
            faults::fail_allocation(nth);
            int result = one();
            int code = gettperrno();
            faults::disarm_allocations();
            expect_no_transaction();
            expect_idle();
            if (!faults::allocation_failed()) {
                EXPECT_EQ(result, TX_OK);
                break;
            }
            EXPECT_EQ(result, TX_FAIL);
            EXPECT_TRUE(code == TPESYSTEM || code == TPEOS) << code;
            if (nth == 1) {
                EXPECT_EQ(code, TPESYSTEM);  // the message itself
            }
            ASSERT_EQ(block()->started, 1);
        }
    EXPECT_EQ(tpend(), 1);
    peer.done();
}

// ---- open calls

TEST_F(Ending, CommitOverAnOpenCallIsARollback)
{
    ASSERT_TRUE(start_running());
    int cd = open_call();
    int stored_cd = 0;
    peer.play([&] {
        wire::frame kept = peer.expect(wire::TPACALL).frame;
        wire::frame request = peer.expect(wire::TPCALL).frame;
        peer.reply_to(kept, "nobody fetches this");
        peer.reply_to(request, "x");
    });
    stored_cd = acall();
    EXPECT_EQ(call(), 1);
    peer.done();
    ASSERT_TRUE(stored(stored_cd));
    EXPECT_EQ(tpcancel(cd), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);  // it is the transaction's
    EXPECT_EQ(commit_turned_with(TX_OK), TX_ROLLBACK);
    EXPECT_EQ(gettperrno(), 0);
    expect_no_transaction();
    for (int gone : {cd, stored_cd}) {
        EXPECT_EQ(getrply(&gone), -1);
        EXPECT_EQ(gettperrno(), TPEBADDESC);
    }
    EXPECT_EQ(block()->acall_active, 0);
}

TEST_F(Ending, RollbackEndsOpenCalls)
{
    ASSERT_TRUE(start_running());
    int cd = open_call();
    EXPECT_EQ(rollback_with(TX_OK), TX_OK);
    EXPECT_EQ(tpcancel(cd), -1);
    EXPECT_EQ(gettperrno(), TPEBADDESC);
    EXPECT_EQ(block()->acall_active, 0);
}

TEST_F(Ending, CallsOutsideTheTransactionStay)
{
    ASSERT_TRUE(start());
    int before = open_call();
    for_both([&] {
        int beside = open_call(TPNOTRAN);
        EXPECT_EQ(end_with(end, msgtype, TX_OK), TX_OK);
        EXPECT_GE(_get_acall_cd_ind(before, block()), 0);
        EXPECT_EQ(tpcancel(beside), 1);
    });
    EXPECT_EQ(block()->acall_active, 1);
    EXPECT_EQ(tpcancel(before), 1);
}

TEST_F(Ending, ReplyThatComesBehindTheEndIsDropped)
{
    ASSERT_TRUE(start_running());
    wire::frame request;
    peer.play([&] { request = peer.expect(wire::TPACALL).frame; });
    int cd = acall();
    peer.done();
    peer.play([&] {
        peer.expect(ROLLBACK_MESSAGE);
        peer.reply_to(request, "late");
        peer.reply_to(peer.last, "", {.msgtype = 1033, .rcode = TX_OK});
    });
    EXPECT_EQ(tx_commit(), TX_ROLLBACK);
    peer.done();
    EXPECT_EQ(getrply(&cd), -1);
    EXPECT_EQ(gettperrno(), TPEBADDESC);
    EXPECT_EQ(block()->acall_active, 0);
    expect_usable();
}

TEST_F(Ending, CollectedCallDoesNotHinderTheCommit)
{
    ASSERT_TRUE(start_running());
    peer.play([&] {
        peer.expect(wire::TPACALL);
        peer.reply("x");
    });
    int cd = acall();
    EXPECT_EQ(getrply(&cd), 1);
    peer.done();
    EXPECT_EQ(commit_with(TX_OK), TX_OK);
}

// ---- open conversations

TEST_F(Ending, OpenConversationsAreDisconnectedFirst)
{
    ASSERT_TRUE(start());
    for_both([&] {
        EXPECT_EQ(open_conversation(5), 5);
        EXPECT_EQ(open_conversation(6), 6);
        EXPECT_EQ(open_conversation(7, TPNOTRAN), 7);
        peer.play([&] {
            int32_t first = peer.expect(wire::TPDISCON).header_only().frame.cd;
            int32_t second = peer.expect(wire::TPDISCON).header_only().frame.cd;
            EXPECT_EQ(std::min(first, second), 5);
            EXPECT_EQ(std::max(first, second), 6);
            peer.expect(ROLLBACK_MESSAGE);
            peer.reply("", {.rcode = TX_OK});
        });
        EXPECT_EQ(end(), msgtype == COMMIT_MESSAGE ? TX_ROLLBACK : TX_OK);
        peer.done();
        EXPECT_LT(_get_conv_cd_ind(5, block()), 0);
        EXPECT_LT(_get_conv_cd_ind(6, block()), 0);
        EXPECT_GE(_get_conv_cd_ind(7, block()), 0);
        EXPECT_EQ(block()->conv_active, 1);
        peer.play([&] { peer.expect(wire::TPDISCON).cd(7); });
        EXPECT_EQ(tpdiscon(7), 1);
        peer.done();
    });
}

TEST_F(Ending, ConversationsOutsideDoNotHinderTheCommit)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(open_conversation(3), 3);  // opened before the transaction
    ASSERT_TRUE(run());
    EXPECT_EQ(commit_with(TX_OK), TX_OK);
    EXPECT_GE(_get_conv_cd_ind(3, block()), 0);
}

TEST_F(Ending, LostConnectionWhileConversationsEndIsAFailure)
{
    ASSERT_TRUE(start_running());
    EXPECT_EQ(open_conversation(5), 5);
    EXPECT_EQ(open_conversation(6), 6);
    open_call();
    faults::fail(faults::SEND, 1, EPIPE, 10);
    EXPECT_EQ(tx_commit(), TX_FAIL);  // the rollback that it becomes finds no way out either
    EXPECT_EQ(gettperrno(), TPECLOSE);
    faults::reset();
    expect_no_transaction();
    EXPECT_EQ(block()->conv_active, 0);
    EXPECT_EQ(block()->acall_active, 0);
}

// ---- a commit that becomes a rollback

TEST_F(Ending, ResultsOfTheRollbackAreThoseOfTheCommit)
{
    const struct {
        int32_t result;
        int commit;
    } cases[] = {{TX_OK, TX_ROLLBACK},       {TX_COMMITTED, TX_OK},
                 {TX_ROLLBACK, TX_ROLLBACK}, {TX_MIXED, TX_MIXED},
                 {TX_HAZARD, TX_HAZARD},     {TX_PROTOCOL_ERROR, TX_PROTOCOL_ERROR},
                 {TX_FAIL, TX_FAIL},         {3, 3}};
    ASSERT_TRUE(start());
    for (int now : {TX_STATE_TIMED_OUT + 0, TX_STATE_ROLLBACK + 0})
        for (const auto &row : cases) {
            ASSERT_TRUE(run());
            set_tx_state(block(), now);
            EXPECT_EQ(commit_turned_with(row.result), row.commit);
            expect_no_transaction();
            ASSERT_TRUE(run());
            set_tx_state(block(), now);
            EXPECT_EQ(rollback_with(row.result), row.result);
        }
}

TEST_F(Ending, FailedServiceCallTurnsTheCommit)
{
    ASSERT_TRUE(start_running());
    fail_a_call();
    EXPECT_EQ(state(), TX_ROLLBACK_ONLY);
    EXPECT_EQ(commit_turned_with(TX_OK), TX_ROLLBACK);
    ASSERT_TRUE(run());
    fail_a_call(TPNOTRAN);
    EXPECT_EQ(state(), TX_ACTIVE);
    EXPECT_EQ(commit_with(TX_OK), TX_OK);
}

TEST_F(Ending, FailedReplyTurnsTheCommit)
{
    ASSERT_TRUE(start());
    for (bool was_stored : {false, true})
        for (long flags : {0L, (long)TPNOTRAN}) {
            ASSERT_TRUE(run());
            peer.play([&] {
                wire::frame request = peer.expect(wire::TPACALL).frame;
                wire::frame other = was_stored ? peer.expect(wire::TPCALL).frame : request;
                peer.reply_to(request, "x", {.flags = TPESVCERR});
                if (was_stored)
                    peer.reply_to(other, "x");
            });
            int cd = acall(flags);
            if (was_stored) {
                EXPECT_EQ(call(), 1);
            }
            EXPECT_EQ(getrply(&cd), -1);
            EXPECT_EQ(gettperrno(), TPESVCERR);
            peer.done();
            if (flags == 0) {
                EXPECT_EQ(state(), TX_ROLLBACK_ONLY);
                EXPECT_EQ(commit_turned_with(TX_OK), TX_ROLLBACK);
            } else {
                EXPECT_EQ(state(), TX_ACTIVE);
                EXPECT_EQ(commit_with(TX_OK), TX_OK);
            }
        }
}

TEST_F(Ending, ReplyOfTheWrongTypeTurnsTheCommit)
{
    ASSERT_TRUE(start_running());
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.reply("x", {.buftype = wire::CARRAY});
    });
    EXPECT_EQ(call(TPNOCHANGE), -1);
    EXPECT_EQ(gettperrno(), TPEOTYPE);
    peer.done();
    EXPECT_EQ(commit_turned_with(TX_OK), TX_ROLLBACK);
}

TEST_F(Ending, FailedReceiptTurnsTheCommit)
{
    ASSERT_TRUE(start_running());
    peer.play([&] {
        peer.expect(wire::TPACALL).flags(TPBLOCK);
        peer.reply("", {.msgtype = 2028, .flags = TPENOENT});
    });
    EXPECT_EQ(acall(TPBLOCK), -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
    peer.done();
    EXPECT_EQ(block()->acall_active, 0);
    EXPECT_EQ(commit_turned_with(TX_OK), TX_ROLLBACK);
}

TEST_F(Ending, RefusedConversationTurnsTheCommit)
{
    ASSERT_TRUE(start_running());
    peer.play([&] {
        peer.expect(wire::TPCONNECT);
        peer.reply("", {.flags = TPENOENT});
    });
    EXPECT_EQ(tpconnect(svc("TALK"), nullptr, 0, TPSENDONLY), -1);
    peer.done();
    EXPECT_EQ(commit_turned_with(TX_OK), TX_ROLLBACK);
}

TEST_F(Ending, EmptyHandedFetchDoesNotTurnTheCommit)
{
    ASSERT_TRUE(start_running());
    int beside = open_call(TPNOTRAN);
    EXPECT_EQ(getrply(&beside, TPNOBLOCK), -1);
    EXPECT_EQ(gettperrno(), TPEBLOCK);
    EXPECT_EQ(commit_with(TX_OK), TX_OK);
    int unknown = 4711;
    ASSERT_TRUE(run());
    EXPECT_EQ(getrply(&unknown), -1);
    EXPECT_EQ(gettperrno(), TPEBADDESC);
    EXPECT_EQ(commit_with(TX_OK), TX_OK);
}

// ---- several threads

TEST_F(Ending, OneThreadEndsWhatAnotherBegan)
{
    ASSERT_TRUE(start_running({}, true));
    int number = context();
    peer.play([&] {
        peer.expect(COMMIT_MESSAGE);
        peer.reply("", {.rcode = TX_OK});
    });
    std::thread([&] {
        ASSERT_EQ(tpsetctxt(number, 0), 1);
        EXPECT_EQ(tx_info(nullptr), 1);
        EXPECT_EQ(tx_begin(), TX_PROTOCOL_ERROR);
        EXPECT_EQ(tx_commit(), TX_OK);
        tpsetctxt(TPNULLCONTEXT, 0);
    }).join();
    peer.done();
    expect_no_transaction();
    EXPECT_EQ(tx_commit(), TX_PROTOCOL_ERROR);
}

TEST_F(Ending, EndIsAnsweredThoughAnotherThreadReads)
{
    ASSERT_TRUE(start_running({}, true));
    int number = context();
    std::atomic<bool> reading{false};
    peer.play([&] {
        wire::frame outside = peer.expect(wire::TPACALL).flags(TPNOTRAN).frame;
        reading = true;
        peer.expect(COMMIT_MESSAGE);
        peer.reply("", {.rcode = TX_MIXED});
        peer.expect(wire::TPACALL);  // behind the end: the commit has been answered
        peer.reply("x");
        peer.reply_to(outside, "slow");
    });
    std::thread other([&] {
        EXPECT_EQ(tpsetctxt(number, 0), 1);
        char *reply = new_buffer("STRING");
        long length = 0;
        EXPECT_EQ(tpcall(svc("SLOW"), nullptr, 0, &reply, &length, TPNOTRAN), 1) << gettperrno();
        EXPECT_EQ(std::string(reply, (size_t)length), "slow");
        tpfree(reply);
        tpsetctxt(TPNULLCONTEXT, 0);
    });
    EXPECT_TRUE(faults::eventually([&] { return reading.load(); }));
    EXPECT_EQ(tx_commit(), TX_MIXED);
    EXPECT_EQ(call(), 1);
    other.join();
    peer.done();
    expect_idle();
}

// A request of another thread may fall on either side of the end. Whichever it is, the server hears the end
// of each transaction whose beginning it heard, and of no other.
TEST_F(Ending, BeginningsAndEndsAreOneForOneWhateverOtherThreadsDo)
{
    constexpr int THREADS = 2, ROUNDS = 300;
    ASSERT_TRUE(start({}, true));
    int number = context();
    std::atomic<bool> over{false};
    int begun = 0, ended = 0;
    peer.play([&] {
        wire::frame message;
        while (peer.receive(&message)) {
            begun += message.msgtype == wire::TPACALL && (message.flags & START_MARK) != 0;
            ended += message.msgtype == COMMIT_MESSAGE || message.msgtype == ROLLBACK_MESSAGE;
            peer.reply(message.msgtype == wire::TPACALL ? "x" : "");
            if (message.svcname == "LAST")
                return;
        }
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; i++)
        threads.emplace_back([&] {
            EXPECT_EQ(tpsetctxt(number, 0), 1);
            char *reply = new_buffer("STRING");
            long length = 0;
            while (!over)
                EXPECT_EQ(tpcall(svc("S"), nullptr, 0, &reply, &length, 0), 1) << gettperrno();
            tpfree(reply);
            tpsetctxt(TPNULLCONTEXT, 0);
        });
    for (int round = 0; round < ROUNDS; round++) {
        EXPECT_EQ(tx_begin(), TX_OK);
        EXPECT_EQ(round % 2 == 0 ? tx_commit() : tx_rollback(), TX_OK);
    }
    over = true;
    for (std::thread &thread : threads)
        thread.join();
    expect_no_transaction();
    tpacall(svc("LAST"), nullptr, 0, 0);
    peer.done();
    EXPECT_EQ(begun, ended);
}

TEST_F(Ending, ThreadsThatBeginAtOnceBeginOneTransaction)
{
    constexpr int THREADS = 3, ROUNDS = 2000;
    ASSERT_TRUE(start({}, true));
    int number = context();
    std::atomic<int> begun{0};
    Meeting all(THREADS);
    auto work = [&](bool ends) {
        for (int round = 0; round < ROUNDS; round++) {
            all.meet();
            begun += tx_begin() == TX_OK;
            all.meet();
            if (!ends)
                continue;
            EXPECT_EQ(begun.exchange(0), 1) << "round " << round;
            EXPECT_EQ(tx_rollback(), TX_OK);
        }
    };
    std::vector<std::thread> threads;
    for (int i = 1; i < THREADS; i++)
        threads.emplace_back([&] {
            EXPECT_EQ(tpsetctxt(number, 0), 1);
            work(false);
            tpsetctxt(TPNULLCONTEXT, 0);
        });
    work(true);
    for (std::thread &thread : threads)
        thread.join();
    expect_no_transaction();
    peer.expect_nothing();
}

// Nothing is promised to threads that begin and end at will on one context, but that the session survives it.
TEST_F(Ending, ThreadsThatEndAtWillLeaveAUsableSession)
{
    constexpr int THREADS = 3, ROUNDS = 150;
    ASSERT_TRUE(start({}, true));
    int number = context();
    peer.play([&] {
        wire::frame message;
        while (peer.receive(&message) && message.svcname != "LAST")
            if (message.msgtype != wire::TPDISCON)
                peer.reply(message.msgtype == wire::TPACALL ? "x" : "");
    });
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; i++)
        threads.emplace_back([&, i] {
            EXPECT_EQ(tpsetctxt(number, 0), 1);
            char *reply = new_buffer("STRING");
            long length = 0;
            for (int round = 0; round < ROUNDS; round++) {
                int result = tx_begin();
                EXPECT_TRUE(result == TX_OK || result == TX_PROTOCOL_ERROR) << result;
                EXPECT_EQ(tpcall(svc("S"), nullptr, 0, &reply, &length, 0), 1) << gettperrno();
                result = (round + i) % 2 == 0 ? tx_commit() : tx_rollback();
                EXPECT_TRUE(result == TX_OK || result == TX_PROTOCOL_ERROR) << result;
            }
            tpfree(reply);
            tpsetctxt(TPNULLCONTEXT, 0);
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(tpacall(svc("LAST"), nullptr, 0, TPNOTRAN | TPNOREPLY), 0);
    peer.done();
    expect_idle();
    tx_rollback();
    expect_usable();
}
