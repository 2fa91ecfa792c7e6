// Changing a session's connection by hand, giving it up, asking about it.
#include "session/moving.h"

#include "calls/cscommon.h"
#include "session/cliapi.h"
#include "tx/tx.h"
#include "vorn/context.h"
#include "vorn/unsol.h"

#include <arpa/inet.h>
#include <errno.h>
#include <unistd.h>

using Connection = Moving;

// ---- tptobackup

TEST_F(Connection, ToBackupGoesThereAndBack)
{
    ASSERT_TRUE(start());
    backup.play([&] {
        Expected login = backup.accept_start();
        login.header_only().svcname("_tpstart").flags(0);
        EXPECT_EQ(login.frame.msgtype, wire::TPSTART);
    });
    EXPECT_EQ(tptobackup(), 1);
    backup.done();
    left(peer);
    expect_normal(true);
    expect_call_over(backup, backup);
    peer.play([&] { peer.accept_start(); });
    EXPECT_EQ(tptobackup(), 1);
    peer.done();
    left(backup);
    expect_normal(false);
    expect_call_over(peer, peer);
}

TEST_F(Connection, ToBackupLogsInWithTheRecordOfTheStart)
{
    TPSTART_T *record = (TPSTART_T *)tpalloc((char *)"TPSTART", nullptr, 0);
    strcpy(record->usrname, "user");
    wire::frame first;
    peer.play([&] { first = peer.accept_start(); });
    ASSERT_EQ(tpstart(record), 0);
    peer.done();
    tpfree((char *)record);
    backup.play([&] { EXPECT_EQ(wire::encode(backup.accept_start()), wire::encode(first)); });
    EXPECT_EQ(tptobackup(), 1);
}

TEST_F(Connection, ToBackupLosesOpenCallsAndTakesANewIdentity)
{
    ASSERT_TRUE(start());
    int descriptor = acall("open");
    peer.expect(wire::TPACALL);
    wire::start_reply reply;
    reply.acall_size = 5;
    reply.client = 3;
    reply.token = 0x5555;
    backup.play([&] { backup.accept_start(reply); });
    EXPECT_EQ(tptobackup(), 1);
    EXPECT_EQ(block()->acall_size, 5);
    EXPECT_EQ(block()->acall_active, 0);
    EXPECT_EQ(block()->session_token, 0x5555);
    EXPECT_EQ(block()->sessionid & 0x3fff, 3);
    EXPECT_EQ(fetch(descriptor).error, TPEBADDESC);
}

TEST_F(Connection, ToBackupWithoutOneEndsTheSession)
{
    unsetenv("VORN_BACKUP_ADDR");
    ASSERT_TRUE(start());
    set_tperrno(0);
    EXPECT_EQ(tptobackup(), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
    left(peer);
    EXPECT_TRUE(peer.nobody_knocks());  // a client of the main list looks at the backup list alone
    EXPECT_EQ(block()->started, 0);
    EXPECT_EQ(block()->clhfd, -1);
    EXPECT_EQ(block()->on_backup, 0);
    EXPECT_EQ(get_clhfd(), -1);
    // It may succeed another time.
    setenv("VORN_BACKUP_ADDR", backup.address().c_str(), 1);
    backup.play([&] { backup.accept_start(); });
    EXPECT_EQ(tptobackup(), 1);
    expect_normal(true);
}

TEST_F(Connection, ToBackupThatIsRefusedGoesToTheMainListAgain)
{
    ASSERT_TRUE(start());
    Conn second;
    backup.play([&] {
        wire::start_reply refusal;
        refusal.refuse = TPESECURITY;
        backup.accept_start(refusal);
        left(backup);
        peer.accept(&second);
        second.expect(wire::TPSTART);
        second.reply_start();
    });
    EXPECT_EQ(tptobackup(), 1);
    backup.done();
    left(peer);
    expect_normal(false);
    expect_call_over(second, peer);
}

TEST_F(Connection, ToBackupRefusedTwiceNamesTheReason)
{
    ASSERT_TRUE(start());
    int sockets = dup(0);
    close(sockets);  // the lowest free number
    Conn second;
    backup.play([&] {
        wire::start_reply refusal;
        refusal.refuse = TPESECURITY;
        backup.accept_start(refusal);
        left(backup);
        peer.accept(&second);
        second.expect(wire::TPSTART);
        refusal.refuse = TPESYSTEM;
        second.reply_start(refusal);
        left(second);
    });
    EXPECT_EQ(tptobackup(), -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    backup.done();
    EXPECT_EQ(block()->started, 0);
    EXPECT_EQ(block()->clhfd, -1);
    EXPECT_EQ(tpend(), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
}

TEST_F(Connection, ToBackupFromTheBackupFallsBackToIt)
{
    ASSERT_TRUE(start_on_backup());
    setenv("VORN_HOST_ADDR", "127.0.0.1:1", 1);
    Conn second;
    backup.play([&] {
        backup.accept(&second);
        second.expect(wire::TPSTART);
        second.reply_start();
    });
    EXPECT_EQ(tptobackup(), 1);
    backup.done();
    left(backup);
    expect_normal(true);
}

TEST_F(Connection, ToBackupAfterAMoveLeavesBothConnections)
{
    ASSERT_TRUE(start());
    acall("open");
    peer.expect(wire::TPACALL);
    move_to_backup();
    Conn second;
    backup.play([&] {
        peer.accept(&second);
        second.expect(wire::TPSTART);
        second.reply_start();
    });
    EXPECT_EQ(tptobackup(), 1);
    backup.done();
    left(backup);
    left(peer);
    expect_normal(false);
    expect_call_over(second, peer);
}

TEST_F(Connection, ToBackupInPlaceOfAConnectionThatWasLost)
{
    ASSERT_TRUE(start());
    peer.hang_up();
    EXPECT_EQ(call("text").error, TPECLOSE);
    backup.play([&] { backup.accept_start(); });
    EXPECT_EQ(tptobackup(), 1);
    backup.done();
    expect_call_over(backup, backup);
    expect_normal(true);
}

TEST_F(Connection, ToBackupWithoutMemory)
{
    ASSERT_TRUE(start());
    faults::fail_allocation(1);
    set_tperrno(0);
    EXPECT_EQ(tptobackup(), -1);
    faults::disarm_allocations();
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    left(peer);
    EXPECT_TRUE(backup.nobody_knocks());
    EXPECT_EQ(block()->started, 0);
}

TEST_F(Connection, ToBackupKeepsAFailedMoveInMind)
{
    ASSERT_TRUE(start());
    block()->rolling_failed = 1;
    backup.play([&] { backup.accept_start(); });
    EXPECT_EQ(tptobackup(), 1);
    backup.done();
    EXPECT_EQ(call("text").error, TPERDOWN);  // it stands until the context ends
    backup.expect_nothing();
}

// ---- tpreset

TEST_F(Connection, ResetEndsTheSessionWithoutAWord)
{
    ASSERT_TRUE(start());
    acall("open");
    peer.expect(wire::TPACALL);
    alarm(5000);
    block()->tx_timer_on = 1;
    set_tperrno(TPEOS);
    EXPECT_EQ(tpreset(), 1);
    EXPECT_EQ(alarm(0), 0u);
    left(peer);
    EXPECT_EQ(get_tperrno(), 0);
    EXPECT_EQ(context(), TPNULLCONTEXT);
    EXPECT_EQ(get_clhfd(), -1);
    ASSERT_TRUE(start());
    expect_call_over(peer, peer);
}

TEST_F(Connection, ResetWithoutASessionIsAProtocolError)
{
    set_tperrno(TPEOS);
    EXPECT_EQ(tpreset(), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
}

TEST_F(Connection, ResetOfALostSessionIsAProtocolErrorAndClosesWhatIsLeft)
{
    ASSERT_TRUE(start());
    block()->started = 0;
    int number = context();
    EXPECT_EQ(tpreset(), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    left(peer);
    EXPECT_EQ(context(), number);  // the context stands; tpend ends it
}

TEST_F(Connection, ResetAfterAFailedMoveAllowsANewStart)
{
    ASSERT_TRUE(start());
    block()->rolling_failed = 1;
    EXPECT_EQ(tpreset(), 1);
    ASSERT_TRUE(start());
    expect_call_over(peer, peer);
}

// ---- get_clhfd

TEST_F(Connection, SocketIsToldWhileASessionStands)
{
    set_tperrno(TPEOS);
    EXPECT_EQ(get_clhfd(), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);  // no error of its own
    ASSERT_TRUE(start());
    EXPECT_EQ(get_clhfd(), block()->clhfd);
    EXPECT_GT(get_clhfd(), 2);
    int first = get_clhfd();
    acall("open");
    peer.expect(wire::TPACALL);
    move_to_backup();
    EXPECT_NE(get_clhfd(), first);
    backup.hang_up();
    peer.hang_up();
    call("text");
    set_tperrno(TPEOS);
    EXPECT_EQ(get_clhfd(), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
}

// ---- tpgethostaddr

TEST_F(Connection, HostAddressIsThePeers)
{
    ASSERT_TRUE(start());
    int ip = 0, port = 0;
    EXPECT_EQ(tpgethostaddr(&ip, &port, 1), 1);
    EXPECT_EQ((uint32_t)ip, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(port, peer.port);
    move_to_backup();
    EXPECT_EQ(tpgethostaddr(&ip, &port, 1), 2);
    EXPECT_EQ(port, backup.port);
}

TEST_F(Connection, HostAddressWithOtherFlagsWritesNothing)
{
    ASSERT_TRUE(start());
    int ip = -5, port = -6;
    for (long flags : {0L, 2L, 3L, -1L, 0x100000001L}) {
        EXPECT_EQ(tpgethostaddr(&ip, &port, flags), 1) << flags;
        EXPECT_EQ(tpgethostaddr(nullptr, nullptr, flags), 1) << flags;
        EXPECT_EQ(ip, -5);
        EXPECT_EQ(port, -6);
    }
}

TEST_F(Connection, HostAddressRefusesNullsOfTheFormThatWrites)
{
    int ip = -5, port = -6;
    set_tperrno(0);
    EXPECT_EQ(tpgethostaddr(nullptr, nullptr, 1), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);  // the session is looked at first
    EXPECT_EQ(tpgethostaddr(&ip, &port, 0), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    ASSERT_TRUE(start());
    EXPECT_EQ(tpgethostaddr(nullptr, &port, 1), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    set_tperrno(0);
    EXPECT_EQ(tpgethostaddr(&ip, nullptr, 1), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(ip, -5);
    EXPECT_EQ(port, -6);
}

TEST_F(Connection, HostAddressOfABrokenSocketIsTheSystemsError)
{
    ASSERT_TRUE(start());
    int fd = block()->clhfd, ip = -5, port = -6;
    int pipes[2];
    ASSERT_EQ(pipe(pipes), 0);
    block()->clhfd = pipes[0];
    EXPECT_EQ(tpgethostaddr(&ip, &port, 1), -1);
    EXPECT_EQ(get_tperrno(), ENOTSOCK);
    block()->clhfd = 9999;
    EXPECT_EQ(tpgethostaddr(&ip, &port, 1), -1);
    EXPECT_EQ(get_tperrno(), EBADF);
    EXPECT_EQ(ip, -5);
    EXPECT_EQ(port, -6);
    block()->clhfd = fd;
    close(pipes[0]);
    close(pipes[1]);
}

TEST_F(Connection, AskingSuccessfullyLeavesTheErrorCellAlone)
{
    ASSERT_TRUE(start());
    int ip, port;
    set_tperrno(TPEOS);
    EXPECT_EQ(tpgethostaddr(&ip, &port, 1), 1);
    EXPECT_EQ(get_tperrno(), TPEOS);
    get_clhfd();
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_EQ(vorn_chk_conn(-1), 0);
    EXPECT_EQ(get_tperrno(), TPEOS);
}

// ---- vorn_chk_conn

TEST_F(Connection, CheckWithoutASessionIsAProtocolError)
{
    for (int seconds : {-1, 0, 1}) {
        set_tperrno(0);
        EXPECT_EQ(vorn_chk_conn(seconds), -1) << seconds;
        EXPECT_EQ(get_tperrno(), TPEPROTO);
    }
}

TEST_F(Connection, CheckOfNegativeSecondsDoesNothing)
{
    ASSERT_TRUE(start());
    peer.send(wire::message(wire::SET_REQUEST, "", {.cd = 12, .value = 5}));
    ASSERT_TRUE(wait_for_bytes(block()->clhfd, 136));
    faults::reset();
    EXPECT_EQ(vorn_chk_conn(-1), 0);
    EXPECT_EQ(vorn_chk_conn(INT32_MIN), 0);
    EXPECT_EQ(faults::count(faults::SELECT), 0);
    EXPECT_EQ(block()->block_time, 0);
    peer.hang_up();
    EXPECT_EQ(vorn_chk_conn(-1), 0);
    peer.expect_nothing();
}

TEST_F(Connection, CheckOfNoTimeWithNothingToReadIsContent)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(vorn_chk_conn(0), 0);
    EXPECT_EQ(block()->reader_busy, 0);
    peer.expect_nothing();
    expect_call_over(peer, peer);
}

TEST_F(Connection, CheckOfNoTimeTreatsOneMessageAndKeepsTheRole)
{
    ASSERT_TRUE(start());
    for (int value : {5, 6})
        peer.send(wire::message(wire::SET_REQUEST, "", {.cd = 12, .value = value}));
    ASSERT_TRUE(wait_for_bytes(block()->clhfd, 272));
    EXPECT_EQ(vorn_chk_conn(0), 0);
    EXPECT_EQ(block()->block_time, 5);
    EXPECT_EQ(block()->reader_busy, 1);
    EXPECT_EQ(vorn_chk_conn(0), 0);  // the second one was read ahead
    EXPECT_EQ(block()->block_time, 6);
    EXPECT_EQ(vorn_chk_conn(0), 0);
}

TEST_F(Connection, CheckOfNoTimeStoresTheReplyOfAnOpenCall)
{
    ASSERT_TRUE(start());
    int descriptor = acall("one");
    peer.expect(wire::TPACALL);
    peer.reply(std::string("ONE") + '\0');
    ASSERT_TRUE(wait_for_bytes(block()->clhfd, 140));
    EXPECT_EQ(vorn_chk_conn(0), 0);
    peer.hang_up();
    EXPECT_EQ(fetch(descriptor).data, "ONE");
}

TEST_F(Connection, CheckOfNoTimeMeetsTheEnd)
{
    ASSERT_TRUE(start());
    peer.hang_up();
    ASSERT_TRUE(faults::eventually([&] { return vorn_chk_conn(0) < 0; }));
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    EXPECT_EQ(block()->started, 0);
    EXPECT_EQ(vorn_chk_conn(0), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
}

TEST_F(Connection, CheckOfNoTimeWhoseSelectFails)
{
    ASSERT_TRUE(start());
    faults::fail(faults::SELECT, 1, ENOMEM);
    EXPECT_EQ(vorn_chk_conn(0), -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    EXPECT_EQ(block()->started, 1);
    EXPECT_EQ(vorn_chk_conn(0), 0);
}

TEST_F(Connection, PingIsACallThatTheServerAnswersSomehow)
{
    ASSERT_TRUE(start());
    for (uint32_t flags : {0u, (uint32_t)TPENOENT, (uint32_t)TPESVCFAIL}) {
        int32_t number = block()->seqno;
        peer.play([&] {
            Expected request = peer.expect(wire::TPCALL);
            request.svcname(".CHK_CONN").flags(8).header_only().cd(0).seqno(number + 1);
            wire::with fields;
            fields.flags = flags;
            peer.reply(flags == 0 ? "data" : "", fields);
        });
        EXPECT_EQ(vorn_chk_conn(10), 0);
        peer.done();
        EXPECT_EQ(block()->waiter_count, 0);
        EXPECT_EQ(block()->reader_busy, 0);
    }
}

TEST_F(Connection, PingThatIsNotAnsweredTimesOut)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(vorn_chk_conn(1), -1);
    EXPECT_EQ(get_tperrno(), TPETIME);
    wire::frame request = peer.expect(wire::TPCALL);
    EXPECT_EQ(block()->started, 1);
    EXPECT_EQ(block()->waiter_count, 0);
    // The late answer is nobody's.
    peer.reply_to(request);
    expect_call_over(peer, peer);
    EXPECT_TRUE(log.has("tpcall reply arrived after timeout"));
}

TEST_F(Connection, PingOfADeadServerNamesTheEnd)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.hang_up();
    });
    EXPECT_EQ(vorn_chk_conn(10), -1);
    EXPECT_EQ(get_tperrno(), TPECLOSE);
    peer.done();
    EXPECT_EQ(block()->started, 0);
    EXPECT_EQ(vorn_chk_conn(10), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
}

TEST_F(Connection, PingThatCannotBeSentIsASystemError)
{
    ASSERT_TRUE(start());
    for (int error : {EAGAIN, EPIPE, EIO}) {
        faults::fail(faults::SEND, 1, error);
        EXPECT_EQ(vorn_chk_conn(10), -1) << error;
        EXPECT_EQ(get_tperrno(), TPESYSTEM) << error;
        EXPECT_EQ(block()->waiter_count, 0);
    }
    block()->rolling_failed = 1;
    EXPECT_EQ(vorn_chk_conn(10), -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    peer.expect_nothing();
}

TEST_F(Connection, PingWithoutMemoryIsTheSystems)
{
    ASSERT_TRUE(start());
    faults::fail_allocation(1);
    EXPECT_EQ(vorn_chk_conn(10), -1);
    faults::disarm_allocations();
    EXPECT_EQ(get_tperrno(), TPEOS);
    peer.expect_nothing();
}

TEST_F(Connection, PingStoresWhatComesForOthersFirst)
{
    ASSERT_TRUE(start());
    int descriptor = acall("one");
    wire::frame open = peer.expect(wire::TPACALL);
    peer.play([&] {
        peer.expect(wire::TPCALL);
        wire::frame ping = peer.last;
        peer.reply_to(open, std::string("ONE") + '\0');
        peer.reply_to(ping);
    });
    EXPECT_EQ(vorn_chk_conn(10), 0);
    peer.done();
    EXPECT_EQ(fetch(descriptor).data, "ONE");
}

TEST_F(Connection, PingHeedsTheWarning)
{
    ASSERT_TRUE(start());
    warn(peer);
    backup.play([&] {
        backup.accept_start();
        backup.expect(wire::TPCALL).svcname(".CHK_CONN");
        backup.reply();
    });
    EXPECT_EQ(vorn_chk_conn(10), 0);
    backup.done();
    left(peer);
    expect_normal(true);
}

TEST_F(Connection, PingThatIsGivenBackGoesToTheNewServer)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        give_back(peer, peer.expect(wire::TPCALL));
        backup.accept_start();
        backup.expect(wire::TPCALL).svcname(".CHK_CONN");
        backup.reply();
        left(peer);
    });
    EXPECT_EQ(vorn_chk_conn(10), 0);
    peer.done();
    expect_normal(true);
}

TEST_F(Connection, PingOfASharedContextTravelsAndComesBackInTheSharedForm)
{
    ASSERT_TRUE(start({}, true));
    int number = context();
    for (int round = 0; round < 5; round++) {
        client pinging(peer, number, [] {
            outcome out;
            out.result = vorn_chk_conn(10);
            out.error = get_tperrno();
            return out;
        });
        client calling(peer, number, [] { return Moving::call("text"); });
        for (int i = 0; i < 2; i++) {
            wire::frame request = peer.expect(wire::TPACALL);
            EXPECT_NE(request.seqno & wire::SHARED_CALL, 0);
            if (request.svcname == ".CHK_CONN")
                peer.reply_to(request);
            else
                peer.reply_to(request, std::string("TEXT") + '\0');
        }
        EXPECT_EQ(pinging.task.get(), 0);
        EXPECT_EQ(calling.task.get(), 1);
        EXPECT_EQ(calling.out.data, "TEXT");
    }
    EXPECT_EQ(block()->waiter_count, 0);
    EXPECT_EQ(block()->reader_busy, 0);
}
