// The session moves to another server: the warning in each order of events, the second login, open calls,
// servers that aren't there or refuse, the end of the previous connection.
#include "session/moving.h"

#include "calls/cscommon.h"
#include "runtime/semantics.h"
#include "session/address.h"
#include "session/cliapi.h"
#include "session/rolling.h"
#include "tx/tx.h"
#include "vorn/unsol.h"
#include "wire/clhmatch.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

using Rolling = Moving;

// ---- the warning

TEST_F(Rolling, WarningBeforeASendTakesTheRequestToTheOtherServer)
{
    ASSERT_TRUE(start());
    int first = block()->clhfd, session = block()->sessionid, token = block()->session_token;
    warn(peer);
    wire::start_reply reply;
    reply.client = 99;
    reply.token = 0x7777;
    backup.play([&] {
        backup.accept_start(reply);
        answer_call(backup, "text", "TEXT");
    });
    set_tperrno(TPEOS);
    outcome out = call("text");
    EXPECT_EQ(out.data, "TEXT");
    EXPECT_EQ(out.error, 0);
    backup.done();
    left(peer);  // nothing was to come over it
    EXPECT_NE(block()->clhfd, first);
    EXPECT_EQ(block()->sessionid, session);
    EXPECT_EQ(block()->session_token, token);
    expect_normal(true);
    expect_call_over(backup, backup);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Rolling, WarningInAWaitMovesAndTheAnswerComesOverThePreviousConnection)
{
    for (int block_time : {0, 30}) {
        ASSERT_TRUE(start(with_block_time(block_time)));
        peer.play([&] {
            peer.expect(wire::TPCALL).text("text");
            peer.send_urgent(DOWN_WARNING);
            backup.accept_start(with_block_time(block_time));
            peer.reply(std::string("TEXT") + '\0');
            left(peer);
        });
        EXPECT_EQ(call("text").data, "TEXT");
        peer.done();
        expect_normal(true);
        expect_call_over(backup, backup);
        EXPECT_EQ(tpreset(), 1);
    }
}

TEST_F(Rolling, WarningBehindTheAnswerWaitsForTheNextRequest)
{
    ASSERT_TRUE(start());
    peer.play([&] { answer_call(peer, "one", "ONE"); });
    EXPECT_EQ(call("one").data, "ONE");
    peer.done();
    warn(peer);
    EXPECT_TRUE(backup.nobody_knocks());
    EXPECT_EQ(block()->rolling, 0);
    backup.play([&] {
        backup.accept_start();
        answer_call(backup, "two", "TWO");
    });
    EXPECT_EQ(call("two").data, "TWO");
    left(peer);
    expect_normal(true);
}

TEST_F(Rolling, OtherUrgentBytesMoveNothing)
{
    ASSERT_TRUE(start());
    for (int byte : {0, 216, 218, 255}) {
        peer.send_urgent(byte);
        ASSERT_TRUE(wait_for_urgent(block()->clhfd));
        expect_call_over(peer, peer);
    }
    EXPECT_TRUE(backup.nobody_knocks());
    expect_normal(false);
}

TEST_F(Rolling, EveryKindOfRequestHeedsTheWarning)
{
    ASSERT_TRUE(start());
    warn(peer);
    backup.play([&] {
        backup.accept_start();
        answer_call(backup, "later", "LATER", wire::TPACALL);
    });
    int descriptor = acall("later");
    ASSERT_GT(descriptor, 0);
    EXPECT_EQ(block()->acall[_get_acall_cd_ind(descriptor, block())].fd, block()->clhfd);
    EXPECT_EQ(fetch(descriptor).data, "LATER");
    left(peer);
    expect_normal(true);
}

TEST_F(Rolling, EndOfASessionGoesToTheServerThatWarned)
{
    ASSERT_TRUE(start());
    warn(peer);
    peer.play([&] { peer.serve_end(); });
    backup.play([&] {  // the wait for the answer heeds the warning all the same
        backup.accept_start();
        left(backup);
    });
    EXPECT_EQ(tpend(), 1);
    peer.done();
    left(peer);
}

// ---- the second login

TEST_F(Rolling, LoginWithoutARecordIsAHeaderAlone)
{
    ASSERT_TRUE(start());
    warn(peer);
    backup.play([&] {
        backup.recording = true;
        Expected login = backup.accept_start();
        login.header_only().svcname("_tpstart").flags(0).cd(0).seqno(0);
        EXPECT_EQ(login.frame.msgtype, wire::TPSTART);
        EXPECT_EQ(login.frame.rcode, 0);
        EXPECT_EQ(login.frame.bufsize, 0);
        EXPECT_EQ(login.frame.datalen, 0);
        EXPECT_EQ(login.frame.callid[1], 0u);
        EXPECT_EQ(backup.received.size(), 136u);
        answer_call(backup, "text", "TEXT");
    });
    EXPECT_EQ(call("text").data, "TEXT");
    EXPECT_EQ(block()->start_msg, nullptr);
}

TEST_F(Rolling, LoginRepeatsTheRecordOfTheStart)
{
    TPSTART_T *record = (TPSTART_T *)tpalloc((char *)"TPSTART", nullptr, 0);
    strcpy(record->usrname, "user");
    strcpy(record->cred1, "credential");
    record->flags = UNSOL_IGNORE;
    wire::frame first;
    peer.play([&] { first = peer.accept_start(); });
    ASSERT_EQ(tpstart(record), 0);
    peer.done();
    strcpy(record->usrname, "other");  // the application's own, and no matter any more
    tpfree((char *)record);
    for (Peer *server : {&backup, &peer}) {
        Peer &from = server == &backup ? peer : backup;
        warn(from);
        server->play([&] {
            wire::frame again = server->accept_start();
            EXPECT_EQ(wire::encode(again), wire::encode(first));
            answer_call(*server, "text", "TEXT");
        });
        EXPECT_EQ(call("text").data, "TEXT");
        server->done();
        left(from);
        settle();
    }
    expect_normal(false);
}

TEST_F(Rolling, ReplySetsWhatAStartSets)
{
    ASSERT_TRUE(start());
    wire::start_reply reply;
    reply.acall_size = 3;
    reply.conv_size = 5;
    reply.block_time = 33;
    reply.tx_timeout = 44;
    reply.threshold = 4096;
    reply.engine_version = 77;
    reply.nodes = {"N0", "N1", "N2"};
    reply.queues = {"QA", "QB"};
    reply.server_name = "SECOND";
    reply.client = 0x155;
    move_to_backup(reply);
    wthr_var *b = block();
    EXPECT_EQ(b->acall_size, 16);  // with the calls in it
    EXPECT_EQ(b->conv_size, 5);
    EXPECT_EQ(b->block_time, 33);
    EXPECT_EQ(b->txinfo->transaction_timeout, 44);
    EXPECT_EQ(b->compress_threshold, 4096);
    EXPECT_EQ(_vorn_engine_version, 77);
    EXPECT_EQ(b->node_count, 3);
    EXPECT_STREQ(b->server_name, "SECOND");
    EXPECT_EQ(_get_rqno_by_qname((char *)"QB", b), 1);
    backup.play([&] {
        backup.expect(wire::TPCALL);
        EXPECT_EQ(backup.last.callid[1] >> 19, 0x155u);  // calls bear the new identity
        backup.reply();
    });
    call("text");
}

TEST_F(Rolling, CallIdentitiesCountOn)
{
    ASSERT_TRUE(start());
    wire::frame before, after;
    peer.play([&] {
        before = peer.expect(wire::TPCALL);
        peer.reply();
    });
    call("one");
    warn(peer);
    backup.play([&] {
        backup.accept_start();
        after = backup.expect(wire::TPCALL);
        backup.reply();
    });
    call("two");
    backup.done();
    EXPECT_GT(after.callid[1] & 0x7ff00, before.callid[1] & 0x7ff00);
    EXPECT_EQ(after.seqno, before.seqno + 1);
}

// ---- open calls

TEST_F(Rolling, OpenCallsAreAnsweredOverThePreviousConnection)
{
    for (int block_time : {0, 30}) {
        ASSERT_TRUE(start(with_block_time(block_time)));
        int one = acall("one"), two = acall("two"), three = acall("three");
        wire::frame requests[3];
        for (wire::frame &request : requests)
            request = peer.expect(wire::TPACALL);
        int first = block()->clhfd;
        move_to_backup(with_block_time(block_time));
        EXPECT_EQ(block()->old_clhfd, first);
        EXPECT_EQ(block()->acall_active, 3);
        expect_call_over(backup, backup);
        EXPECT_EQ(block()->old_clhfd, first);
        peer.reply_to(requests[1], std::string("TWO") + '\0');
        EXPECT_EQ(fetch(two).data, "TWO");
        peer.reply_to(requests[2], std::string("THREE") + '\0');
        EXPECT_EQ(fetch(three).data, "THREE");
        EXPECT_EQ(block()->old_clhfd, first);
        peer.reply_to(requests[0], std::string("ONE") + '\0');
        EXPECT_EQ(fetch(one).data, "ONE");
        left(peer);
        expect_normal(true);
        EXPECT_EQ(tpreset(), 1);
    }
}

TEST_F(Rolling, AnswersOfBothServersComeToAnyFetch)
{
    ASSERT_TRUE(start());
    int old_call = acall("old");
    wire::frame old_request = peer.expect(wire::TPACALL);
    move_to_backup();
    int new_call = acall("new");
    wire::frame new_request = backup.expect(wire::TPACALL);
    peer.reply_to(old_request, std::string("OLD") + '\0');
    backup.reply_to(new_request, std::string("NEW") + '\0');
    ASSERT_TRUE(wait_for_bytes(block()->clhfd, 140));
    ASSERT_TRUE(wait_for_bytes(block()->old_clhfd, 140));
    EXPECT_EQ(fetch(0, TPGETANY).data, "OLD");  // the previous connection is served first
    EXPECT_EQ(fetch(0, TPGETANY).data, "NEW");
    EXPECT_EQ(fetch(0, TPGETANY).error, TPEBADDESC);
    EXPECT_NE(old_call, new_call);
    left(peer);
}

TEST_F(Rolling, CancelledCallHoldsThePreviousConnectionNoLonger)
{
    ASSERT_TRUE(start());
    int descriptor = acall("one");
    peer.expect(wire::TPACALL);
    move_to_backup();
    EXPECT_GE(block()->old_clhfd, 0);
    EXPECT_EQ(tpcancel(descriptor), 1);
    left(peer);
    expect_normal(true);
}

TEST_F(Rolling, StoredAnswerOutlivesThePreviousConnection)
{
    ASSERT_TRUE(start());
    int descriptor = acall("early");
    wire::frame early = peer.expect(wire::TPACALL);
    peer.play([&] {
        peer.reply_to(early, std::string("EARLY") + '\0');
        answer_call(peer, "text", "TEXT");
    });
    EXPECT_EQ(call("text").data, "TEXT");
    peer.done();
    move_to_backup();
    left(peer);
    EXPECT_EQ(fetch(descriptor).data, "EARLY");
    expect_normal(true);
}

TEST_F(Rolling, AnswersReadAheadAreDeliveredBehindTheMove)
{
    ASSERT_TRUE(start());
    int one = acall("one"), two = acall("two");
    wire::frame first = peer.expect(wire::TPACALL), second = peer.expect(wire::TPACALL);
    peer.send_raw(wire::encode(wire::answer(first, std::string("ONE") + '\0')) +
                  wire::encode(wire::answer(second, std::string("TWO") + '\0')));
    ASSERT_TRUE(wait_for_bytes(block()->clhfd, 280));
    EXPECT_EQ(fetch(one).data, "ONE");
    move_to_backup();
    EXPECT_EQ(fetch(two).data, "TWO");
    left(peer);
}

TEST_F(Rolling, MessageThatStandsHalfReadIsReadToItsEnd)
{
    ASSERT_TRUE(start());
    backup.play([&] {  // in the first call or in the second one, as the byte arrives
        backup.accept_start();
        answer_call(backup, "next", "NEXT");
    });
    peer.play([&] {
        std::string bytes = wire::encode(wire::answer(peer.expect(wire::TPCALL), std::string("TEXT") + '\0'));
        peer.send_raw(bytes.substr(0, 70));
        peer.send_urgent(DOWN_WARNING);
        peer.send_raw(bytes.substr(70));
    });
    EXPECT_EQ(call("text").data, "TEXT");
    peer.done();
    if (block()->on_backup == 0)  // a byte that the reader has passed is lost
        warn(peer);
    EXPECT_EQ(call("next").data, "NEXT");
    expect_normal(true);
}

TEST_F(Rolling, UnsolicitedMessagesOfThePreviousServerAreHeardWhileACallIsOpen)
{
    ASSERT_TRUE(start());
    static int heard = 0;
    tpsetunsol([](char *, long, long) { heard++; });
    int descriptor = acall("one");
    wire::frame request = peer.expect(wire::TPACALL);
    move_to_backup();
    peer.send(wire::message(wire::TPBROADCAST, "hello"));
    peer.reply_to(request, std::string("ONE") + '\0');
    EXPECT_EQ(fetch(descriptor).data, "ONE");
    EXPECT_EQ(heard, 1);
}

// ---- the end of the previous connection

TEST_F(Rolling, ServerThatAnswersAndClosesIsReadToItsEnd)
{
    for (int block_time : {0, 30}) {
        ASSERT_TRUE(start(with_block_time(block_time)));
        int one = acall("one"), two = acall("two");
        wire::frame first = peer.expect(wire::TPACALL), second = peer.expect(wire::TPACALL);
        move_to_backup(with_block_time(block_time));
        peer.reply_to(first, std::string("ONE") + '\0');
        peer.reply_to(second, std::string("TWO") + '\0');
        peer.hang_up();
        EXPECT_EQ(fetch(two).data, "TWO");
        EXPECT_EQ(fetch(one).data, "ONE");
        expect_call_over(backup, backup);
        expect_normal(true);
        EXPECT_EQ(tpreset(), 1);
    }
}

TEST_F(Rolling, ServerThatClosesWithoutAnAnswerFailsItsCallsAndLeavesTheSessionStanding)
{
    ASSERT_TRUE(start(with_block_time(30)));
    int lost = acall("lost");
    peer.expect(wire::TPACALL);
    move_to_backup(with_block_time(30));
    peer.hang_up();
    expect_call_over(backup, backup);
    EXPECT_EQ(block()->started, 1);
    EXPECT_EQ(block()->old_clhfd, -1);
    EXPECT_EQ(fetch(lost).error, TPECLOSE);
    EXPECT_EQ(tpcancel(lost), -1);
    expect_normal(true);
}

TEST_F(Rolling, EndOfTheSessionEndsThePreviousConnectionToo)
{
    ASSERT_TRUE(start());
    acall("open");
    peer.expect(wire::TPACALL);
    move_to_backup();
    backup.play([&] { backup.serve_end(); });
    EXPECT_EQ(tpend(), 1);
    left(peer);
}

TEST_F(Rolling, ResetEndsThePreviousConnectionToo)
{
    ASSERT_TRUE(start());
    acall("open");
    peer.expect(wire::TPACALL);
    move_to_backup();
    EXPECT_EQ(tpreset(), 1);
    left(peer);
    left(backup);
}

TEST_F(Rolling, EndOfTheNewServerIsTheEndOfTheSession)
{
    ASSERT_TRUE(start());
    move_to_backup();
    left(peer);
    settle();
    backup.hang_up();
    outcome out = call("text");
    EXPECT_EQ(out.error, TPECLOSE);
    EXPECT_EQ(block()->started, 0);
}

// ---- a second warning

TEST_F(Rolling, SecondWarningWhileThePreviousConnectionStandsIsLeftUnread)
{
    ASSERT_TRUE(start());
    int descriptor = acall("one");
    wire::frame request = peer.expect(wire::TPACALL);
    move_to_backup();
    int current = block()->clhfd;
    warn(backup);
    pthread_mutex_lock(&block()->roll_mutex);
    EXPECT_EQ(_recv_oob_msg(current, block()), -1);
    pthread_mutex_unlock(&block()->roll_mutex);
    int later = acall("later");
    EXPECT_GT(later, 0);
    wire::frame later_request = backup.expect(wire::TPACALL);
    EXPECT_EQ(block()->clhfd, current);
    EXPECT_TRUE(peer.nobody_knocks());
    // Once it has ended, the warning is heeded.
    peer.reply_to(request, std::string("ONE") + '\0');
    EXPECT_EQ(fetch(descriptor).data, "ONE");
    left(peer);
    settle();
    peer.play([&] {
        peer.accept_start();
        answer_call(peer, "back", "BACK");
    });
    EXPECT_EQ(call("back").data, "BACK");
    peer.done();
    backup.reply_to(later_request, std::string("LATER") + '\0');
    EXPECT_EQ(fetch(later).data, "LATER");
    left(backup);
    expect_normal(false);
}

TEST_F(Rolling, SecondWarningOfTheServerThatGoesDownDoesNothing)
{
    ASSERT_TRUE(start());
    int descriptor = acall("one");
    wire::frame request = peer.expect(wire::TPACALL);
    move_to_backup();
    peer.send_urgent(DOWN_WARNING);
    ASSERT_TRUE(wait_for_urgent(block()->old_clhfd));
    expect_call_over(backup, backup);
    peer.reply_to(request, std::string("ONE") + '\0');
    EXPECT_EQ(fetch(descriptor).data, "ONE");
    EXPECT_EQ(block()->rolling_failed, 0);
    EXPECT_EQ(block()->on_backup, 1);
}

TEST_F(Rolling, SessionGoesBackAndForth)
{
    ASSERT_TRUE(start());
    Peer *from = &peer, *to = &backup;
    for (int i = 0; i < 6; i++) {
        warn(*from);
        to->play([&] {
            to->accept_start();
            answer_call(*to, "text", "TEXT");
        });
        EXPECT_EQ(call("text").data, "TEXT");
        to->done();
        left(*from);
        expect_normal(to == &backup);
        std::swap(from, to);
    }
}

// ---- no server to move to

TEST_F(Rolling, WithoutABackupRequestsFailAndTheEndIsNamed)
{
    unsetenv("VORN_BACKUP_ADDR");
    ASSERT_TRUE(start());
    int descriptor = acall("open"), second = acall("second");
    wire::frame request = peer.expect(wire::TPACALL);
    peer.expect(wire::TPACALL);
    int first = block()->clhfd;
    warn(peer);
    EXPECT_EQ(call("text").error, TPERDOWN);
    EXPECT_EQ(block()->rolling_failed, 1);
    EXPECT_EQ(block()->rolling, 0);
    EXPECT_EQ(block()->clhfd, first);
    EXPECT_EQ(block()->new_clhfd, -1);
    EXPECT_EQ(block()->on_backup, 0);
    EXPECT_EQ(acall("more"), -1);
    EXPECT_EQ(get_tperrno(), TPERDOWN);
    peer.expect_nothing();
    peer.reply_to(request, std::string("OPEN") + '\0');
    EXPECT_EQ(fetch(descriptor).data, "OPEN");
    peer.hang_up();
    EXPECT_EQ(fetch(second).error, TPERDCLOSE);
    EXPECT_EQ(block()->started, 0);
}

TEST_F(Rolling, BackupThatDoesNotListenIsNone)
{
    backup.stop_listening();
    ASSERT_TRUE(start());
    warn(peer);
    EXPECT_EQ(call("text").error, TPERDOWN);
    EXPECT_EQ(block()->rolling_failed, 1);
    peer.expect_nothing();
    EXPECT_EQ(tpreset(), 1);
    left(peer);
}

TEST_F(Rolling, FailureIsForgottenWithTheSession)
{
    backup.stop_listening();
    ASSERT_TRUE(start());
    warn(peer);
    EXPECT_EQ(call("text").error, TPERDOWN);
    EXPECT_EQ(tpreset(), 1);
    ASSERT_TRUE(start());
    expect_normal(false);
    expect_call_over(peer, peer);
}

TEST_F(Rolling, WarningInAWaitWithoutABackupLeavesTheWaitStanding)
{
    backup.stop_listening();
    for (int block_time : {0, 30}) {
        ASSERT_TRUE(start(with_block_time(block_time)));
        peer.play([&] {
            peer.expect(wire::TPCALL);
            peer.send_urgent(DOWN_WARNING);
            EXPECT_TRUE(faults::eventually([&] { return _ctxt[1].wthr_var->rolling_failed == 1; }));
            peer.reply(std::string("TEXT") + '\0');
        });
        EXPECT_EQ(call("text").data, "TEXT");
        peer.done();
        EXPECT_EQ(tpreset(), 1);
    }
}

TEST_F(Rolling, LoginRefusedOnTheBackupIsTriedOnTheMainListOnce)
{
    ASSERT_TRUE(start());
    int first = block()->clhfd;
    warn(peer);
    Conn second;
    backup.play([&] {
        wire::start_reply refusal;
        refusal.refuse = TPESECURITY;
        backup.accept_start(refusal);
        left(backup);
        peer.accept(&second);
        second.expect(wire::TPSTART);
        second.reply_start();
        answer_call(second, "text", "TEXT");
    });
    EXPECT_EQ(call("text").data, "TEXT");
    backup.done();
    left(peer);
    EXPECT_NE(block()->clhfd, first);
    expect_normal(false);
}

TEST_F(Rolling, LoginRefusedEverywhereIsAFailure)
{
    ASSERT_TRUE(start());
    int descriptor = acall("open"), first = block()->clhfd;
    wire::frame request = peer.expect(wire::TPACALL);
    warn(peer);
    Conn second;
    backup.play([&] {
        wire::start_reply refusal;
        refusal.refuse = TPESECURITY;
        backup.accept_start(refusal);
        left(backup);
        peer.accept(&second);
        second.expect(wire::TPSTART);
        second.reply_start(refusal);
        left(second);
    });
    EXPECT_EQ(call("text").error, TPERDOWN);
    backup.done();
    EXPECT_TRUE(backup.nobody_knocks());
    EXPECT_TRUE(peer.nobody_knocks());
    EXPECT_EQ(block()->clhfd, first);
    EXPECT_EQ(block()->new_clhfd, -1);
    EXPECT_EQ(block()->rolling_failed, 1);
    peer.reply_to(request, std::string("OPEN") + '\0');
    EXPECT_EQ(fetch(descriptor).data, "OPEN");
}

TEST_F(Rolling, BackupThatHangsUpInTheLoginIsTriedNoMore)
{
    ASSERT_TRUE(start());
    warn(peer);
    Conn second;
    backup.play([&] {
        backup.accept();
        backup.expect(wire::TPSTART);
        backup.hang_up();
        peer.accept(&second);
        second.expect(wire::TPSTART);
        second.reply_start();
        answer_call(second, "text", "TEXT");
    });
    EXPECT_EQ(call("text").data, "TEXT");
    expect_normal(false);
}

TEST_F(Rolling, BackupThatDoesNotAnswerIsGivenUpAfterAMinute)
{
    ASSERT_TRUE(start());
    warn(peer);
    Conn second;
    // Once, and in this wait: the next one, on the other server, is to have all of its time.
    std::atomic<bool> minute_is_over{false};
    auto let_it_be_over = [&] {
        if (!minute_is_over.exchange(true))
            faults::shift_clock(61);
    };
    backup.play([&] {
        backup.accept();
        backup.expect(wire::TPSTART);
        pollfd closed = {backup.fd, POLLIN, 0};
        EXPECT_TRUE(faults::eventually([&] {
            if (!minute_is_over)
                faults::before(faults::SELECT, 1, let_it_be_over);
            backup.send(wire::message(1012));  // its wait looks at the clock
            return poll(&closed, 1, 0) > 0;
        }));
        peer.accept(&second);
        second.expect(wire::TPSTART);
        second.reply_start();
        answer_call(second, "text", "TEXT");
    });
    EXPECT_EQ(call("text").data, "TEXT");
    expect_normal(false);
}

TEST_F(Rolling, FromTheBackupTheMainListIsNext)
{
    ASSERT_TRUE(start_on_backup());
    expect_normal(true);
    warn(backup);
    peer.play([&] {
        peer.accept_start();
        answer_call(peer, "text", "TEXT");
    });
    EXPECT_EQ(call("text").data, "TEXT");
    left(backup);
    expect_normal(false);
}

TEST_F(Rolling, FromTheBackupWithoutAMainServerItIsTheBackupAgain)
{
    ASSERT_TRUE(start_on_backup());
    peer.stop_listening();
    warn(backup);
    Conn second;
    peer.play([&] {
        backup.accept(&second);
        second.expect(wire::TPSTART);
        second.reply_start();
        answer_call(second, "text", "TEXT");
    });
    EXPECT_EQ(call("text").data, "TEXT");
    left(backup);
    expect_normal(true);
}

TEST_F(Rolling, EncipheredSessionsStay)
{
    ASSERT_TRUE(start());
    _vorn_crypt_sw = 1;
    warn(peer);
    EXPECT_EQ(call("text").error, TPERDOWN);
    _vorn_crypt_sw = 0;
    EXPECT_EQ(block()->rolling_failed, 1);
    EXPECT_TRUE(backup.nobody_knocks());
    peer.expect_nothing();
}

TEST_F(Rolling, MoveThatIsDoneIsNotRepeated)
{
    ASSERT_TRUE(start());
    acall("open");
    peer.expect(wire::TPACALL);
    move_to_backup();
    int current = block()->clhfd;
    EXPECT_EQ(_vorn_rolling_start(), 1);
    EXPECT_EQ(block()->clhfd, current);
    EXPECT_TRUE(peer.nobody_knocks());
}

// Serves logins until the session is where it ends up: on the backup, on the main list or on neither.
static void serve_attempts(Peer &peer, Peer &backup)
{
    for (Peer *one : {&backup, &peer}) {
        pollfd knock = {one->listener, POLLIN, 0};
        if (poll(&knock, 1, 1000) < 1)
            return;
        Conn login;
        one->accept(&login);
        wire::frame message;
        if (login.receive(&login.last))
            login.reply_start();
        login.receive(&message);  // its end
    }
}

TEST_F(Rolling, WhatIsKeptUntilTheEndOutlivesAMove)
{
    ASSERT_TRUE(start());
    char *kept = strdup("kept");
    keep_until_end(kept, block());
    unsetenv("VORN_BACKUP_ADDR");
    EXPECT_EQ(_vorn_rolling_start(), -1);
    EXPECT_STREQ(kept, "kept");
}

TEST_F(Rolling, WithoutMemoryItFailsAndThePreviousConnectionStays)
{
    constexpr int CLEAN = 0, SURVIVED = 2, WRONG = 3,
                  FATAL = 1;  // a table that can't be made ends the process
    int status = -1;
    for (int nth = 1; nth < 60 && status != CLEAN; nth++) {
        pid_t child = fork();
        if (child == 0) {
            if (!start())
                _exit(WRONG);
            int first = block()->clhfd;
            std::thread server([&] { serve_attempts(peer, backup); });
            faults::fail_allocation(nth);
            int result = _vorn_rolling_start();
            bool failed = faults::allocation_failed();
            faults::disarm_allocations();
            EXPECT_EQ(block()->new_clhfd, -1);
            EXPECT_EQ(result > 0 ? block()->old_clhfd : block()->clhfd, first);
            EXPECT_TRUE(result > 0 || get_tperrno() != 0);
            EXPECT_EQ(tpreset(), 1);
            server.join();
            _exit(HasFailure() ? WRONG : failed ? SURVIVED : CLEAN);
        }
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFEXITED(status)) << nth;
        status = WEXITSTATUS(status);
        ASSERT_TRUE(status == CLEAN || status == SURVIVED || status == FATAL) << nth << ": " << status;
    }
    EXPECT_EQ(status, CLEAN);
}
