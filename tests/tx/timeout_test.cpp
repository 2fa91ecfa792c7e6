// The time that a transaction may take.
#include "tx/fixture.h"

#include "runtime/sigapi.h"
#include "wire/msgheader.h"

#include <signal.h>
#include <unistd.h>

namespace {

std::atomic<int> alarms_taken{0};

void set_alarm_blocked(bool blocked)
{
    sigset_t alarm_alone;
    sigemptyset(&alarm_alone);
    sigaddset(&alarm_alone, SIGALRM);
    pthread_sigmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &alarm_alone, nullptr);
}

struct Limited : TxTest {
    // A transaction that the server knows, with one second left.
    bool run_into_the_last_second(void)
    {
        if (tx_set_transaction_timeout(5000) != TX_OK || !run())
            return false;
        _set_tx_timer(1, block());
        return true;
    }

    // Until the alarm has marked the transaction.
    bool time_is_up(void)
    {
        return faults::eventually([&] { return tx_state_of(block()) == TX_STATE_TIMED_OUT; });
    }
    // A deadline that has passed, of which the next wait takes notice.
    void let_deadline_pass(void) { block()->tx_deadline = time(nullptr) - 1; }
};

}  // namespace

// ---- the timer

TEST_F(Limited, TimerRunsFromBeginToEnd)
{
    ASSERT_TRUE(start());
    for (auto end : {tx_commit, tx_rollback}) {
        ASSERT_EQ(tx_set_transaction_timeout(5000), TX_OK);
        EXPECT_EQ(alarm(0), 0u);
        time_t before = time(nullptr);
        ASSERT_EQ(tx_begin(), TX_OK);
        EXPECT_EQ(block()->tx_timer_on, 1);
        EXPECT_GE(block()->tx_deadline, before + 5000);
        EXPECT_LE(block()->tx_deadline, time(nullptr) + 5000);
        unsigned left = alarm(5000);
        EXPECT_GT(left, 4000u);
        EXPECT_LE(left, 5000u);
        EXPECT_EQ(end(), TX_OK);
        EXPECT_EQ(alarm(0), 0u);
        EXPECT_EQ(block()->tx_timer_on, 0);
    }
}

TEST_F(Limited, TimerDoesNotOutliveATransactionThatTheServerKnows)
{
    ASSERT_TRUE(start({.tx_timeout = 5000}));
    ASSERT_TRUE(run());
    EXPECT_EQ(commit_with(TX_OK), TX_OK);
    EXPECT_EQ(alarm(0), 0u);
    ASSERT_TRUE(run());
    EXPECT_EQ(rollback_with(TX_FAIL), TX_FAIL);
    EXPECT_EQ(alarm(0), 0u);
    ASSERT_TRUE(run());
    peer.play([&] {
        peer.expect(COMMIT_MESSAGE);
        peer.hang_up();
    });
    EXPECT_EQ(tx_commit(), TX_FAIL);
    peer.done();
    EXPECT_EQ(alarm(0), 0u);
    EXPECT_EQ(block()->tx_timer_on, 0);
}

TEST_F(Limited, WithoutALimitThereIsNoTimer)
{
    ASSERT_TRUE(start());
    for (long seconds : {0L, -1L, (long)INT_MIN}) {
        ASSERT_EQ(tx_set_transaction_timeout(seconds), TX_OK);
        ASSERT_EQ(tx_begin(), TX_OK);
        EXPECT_EQ(alarm(0), 0u);
        EXPECT_EQ(block()->tx_timer_on, 0);
        EXPECT_EQ(tx_commit(), TX_OK);
    }
}

TEST_F(Limited, NewLimitDoesNotTouchTheTransactionThatRuns)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(tx_set_transaction_timeout(5000), TX_OK);
    ASSERT_EQ(tx_begin(), TX_OK);
    time_t deadline = block()->tx_deadline;
    ASSERT_EQ(tx_set_transaction_timeout(9), TX_OK);
    EXPECT_EQ(block()->tx_deadline, deadline);
    EXPECT_GT(alarm(5000), 4000u);
    EXPECT_EQ(tx_commit(), TX_OK);
    EXPECT_EQ(alarm(0), 0u);
}

TEST_F(Limited, ProcessHasOneTimer)
{
    ASSERT_TRUE(start({.tx_timeout = 5000}, true));
    ASSERT_EQ(tx_begin(), TX_OK);
    int first = context();
    Conn second;
    peer.play([&] {
        ASSERT_TRUE(peer.accept(&second));
        second.expect(wire::TPSTART);
        second.reply_start({.tx_timeout = 4000});
    });
    char *record = tpalloc(svc("TPSTART"), nullptr, sizeof(TPSTART_T));
    ASSERT_NE(record, nullptr);
    ((TPSTART_T *)record)->flags = TPMULTICONTEXTS;
    ASSERT_EQ(tpstart((TPSTART_T *)record), 0);
    tpfree(record);
    peer.done();
    ASSERT_EQ(tx_begin(), TX_OK);
    unsigned left = alarm(4000);
    EXPECT_LE(left, 4000u);
    EXPECT_GT(left, 3000u);
    EXPECT_EQ(tx_commit(), TX_OK);
    EXPECT_EQ(alarm(0), 0u);  // the other's is gone with it
    ASSERT_EQ(tpsetctxt(first, 0), 1);
    EXPECT_EQ(block()->tx_timer_on, 1);
    expect_begun();
}

// ---- the alarm

TEST_F(Limited, AlarmMarksTheTransactionAndRequestsAreRefused)
{
    ASSERT_TRUE(start());
    ASSERT_TRUE(run_into_the_last_second());
    ASSERT_TRUE(time_is_up());
    EXPECT_EQ(tx_info(nullptr), 1);
    EXPECT_EQ(state(), TX_TIMEOUT_ROLLBACK_ONLY);
    EXPECT_EQ(block()->tx_timer_on, 0);
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    EXPECT_EQ(acall(), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    EXPECT_EQ(tx_begin(), TX_PROTOCOL_ERROR);
    peer.expect_nothing();
    EXPECT_EQ(commit_turned_with(TX_OK), TX_ROLLBACK);
    expect_no_transaction();
    ASSERT_EQ(tx_set_transaction_timeout(0), TX_OK);
    ASSERT_TRUE(run());
    EXPECT_EQ(commit_with(TX_OK), TX_OK);
}

TEST_F(Limited, AlarmEndsTheCallThatWaits)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(tx_set_transaction_timeout(5000), TX_OK);
    ASSERT_TRUE(run());
    wthr_var *mine = block();
    peer.play([&, mine] {
        peer.expect(wire::TPCALL);
        _set_tx_timer(1, mine);  // the alarm is the main thread's, which waits
    });
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    peer.done();
    expect_idle();
    EXPECT_EQ(commit_turned_with(TX_OK), TX_ROLLBACK);
    expect_no_transaction();
    ASSERT_EQ(tx_set_transaction_timeout(0), TX_OK);
    expect_usable();
}

TEST_F(Limited, AlarmEndsTheWaitForAReplyAndTheCallStaysUntilTheEnd)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(tx_set_transaction_timeout(5000), TX_OK);
    ASSERT_TRUE(run());
    int cd = open_call();
    _set_tx_timer(1, block());
    EXPECT_EQ(getrply(&cd), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    EXPECT_GE(_get_acall_cd_ind(cd, block()), 0);
    EXPECT_EQ(rollback_with(TX_OK), TX_OK);
    EXPECT_LT(_get_acall_cd_ind(cd, block()), 0);
    EXPECT_EQ(block()->acall_active, 0);
}

TEST_F(Limited, TransactionOfWhichTheServerNeverHeardEndsWellAfterItsTime)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(tx_set_transaction_timeout(1), TX_OK);
    ASSERT_EQ(tx_begin(), TX_OK);
    ASSERT_TRUE(time_is_up());
    EXPECT_EQ(tx_commit(), TX_OK);
    expect_no_transaction();
    peer.expect_nothing();
}

// The alarm examines the context of the thread that takes it. One that stands elsewhere changes nothing here;
// the wait looks at the clock itself.
TEST_F(Limited, AlarmOnAThreadOfAnotherContextIsNoticedByTheNextWait)
{
    ASSERT_TRUE(start());
    _vorn_signal(SIGALRM, [](int) { alarms_taken++; });
    set_alarm_blocked(true);
    std::atomic<bool> over{false};
    std::thread taker([&] {
        set_alarm_blocked(false);
        while (!over)
            usleep(1000);
    });
    ASSERT_TRUE(run_into_the_last_second());
    // Its context, on which no timer runs, lets the application's handler have the signal.
    EXPECT_TRUE(faults::eventually([] { return alarms_taken > 0; }));
    over = true;
    taker.join();
    EXPECT_EQ(state(), TX_ACTIVE);
    EXPECT_EQ(block()->tx_timer_on, 1);
    peer.play([&] { peer.expect(wire::TPCALL); });
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    peer.done();
    EXPECT_EQ(commit_turned_with(TX_OK), TX_ROLLBACK);
}

TEST_F(Limited, AlarmFindsTheTransactionOfAnyThreadOfItsContext)
{
    ASSERT_TRUE(start({}, true));
    ASSERT_TRUE(run_into_the_last_second());
    wthr_var *shared = block();
    int number = context();
    std::atomic<bool> over{false};
    set_alarm_blocked(true);
    std::thread taker([&] {
        EXPECT_EQ(tpsetctxt(number, 0), 1);
        set_alarm_blocked(false);
        while (!over)
            usleep(1000);
        tpsetctxt(TPNULLCONTEXT, 0);
    });
    EXPECT_TRUE(faults::eventually([&] { return tx_state_of(shared) == TX_STATE_TIMED_OUT; }));
    over = true;
    taker.join();
    EXPECT_EQ(call(), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    EXPECT_EQ(commit_turned_with(TX_OK), TX_ROLLBACK);
}

TEST_F(Limited, AllThreadsInATransactionHearOfItsEnd)
{
    constexpr int THREADS = 3;
    ASSERT_TRUE(start({}, true));
    ASSERT_EQ(tx_set_transaction_timeout(5000), TX_OK);
    ASSERT_TRUE(run());
    int number = context();
    std::vector<std::thread> threads;
    std::atomic<int> attached{0};
    std::atomic<bool> runs{false};
    for (int i = 0; i < THREADS; i++)
        threads.emplace_back([&] {
            EXPECT_EQ(tpsetctxt(number, 0), 1);
            char *reply = new_buffer("STRING");
            long length = 0;
            attached++;
            EXPECT_TRUE(faults::eventually([&] { return runs.load(); }));
            EXPECT_EQ(tpcall(svc("S"), nullptr, 0, &reply, &length, 0), -1);
            EXPECT_EQ(gettperrno(), TPETIME);
            tpfree(reply);
            tpsetctxt(TPNULLCONTEXT, 0);
        });
    // What little time is left is for the calls alone.
    EXPECT_TRUE(faults::eventually([&] { return attached == THREADS; }));
    _set_tx_timer(3, block());
    peer.play([&] {
        for (int i = 0; i < THREADS; i++)
            peer.expect(wire::TPACALL);  // nobody is answered
    });
    runs = true;
    for (std::thread &thread : threads)
        thread.join();
    peer.done();
    expect_idle();
    EXPECT_EQ(commit_turned_with(TX_OK), TX_ROLLBACK);
    expect_no_transaction();
    ASSERT_EQ(tx_set_transaction_timeout(0), TX_OK);
    expect_usable();
}

// The waits of other threads look at the clock while timers come and go. None that has time left is found expired.
TEST_F(Limited, TimerThatIsClearedIsNotTakenForOneThatHasRunOut)
{
    constexpr int ROUNDS = 50000;
    ASSERT_TRUE(start({.tx_timeout = 5000}));
    wthr_var *shared = block();
    std::atomic<bool> over{false};
    std::thread looker([&] {
        while (!over)
            if (shared->tx_timer_on != 0)
                _vorn_sig_alarm2(SIGALRM, shared);
    });
    int expired = 0;
    for (int round = 0; round < ROUNDS; round++) {
        EXPECT_EQ(tx_begin(), TX_OK);
        expired += tx_state_of(shared) != TX_STATE_ACTIVE;
        EXPECT_EQ(tx_commit(), TX_OK);
        expired += tx_state_of(shared) != TX_STATE_NONE;
    }
    over = true;
    looker.join();
    EXPECT_EQ(expired, 0);
}

TEST_F(Limited, ServerMayChangeTheLimitAtAnyMoment)
{
    ASSERT_TRUE(start({}, true));
    int number = context();
    std::atomic<bool> over{false};
    std::thread outside([&] {
        EXPECT_EQ(tpsetctxt(number, 0), 1);
        char *reply = new_buffer("STRING");
        long length = 0;
        while (!over)
            EXPECT_EQ(tpcall(svc("S"), nullptr, 0, &reply, &length, TPNOTRAN), 1) << gettperrno();
        EXPECT_EQ(tpacall(svc("LAST"), nullptr, 0, TPNOTRAN | TPNOREPLY), 0);
        tpfree(reply);
        tpsetctxt(TPNULLCONTEXT, 0);
    });
    peer.play([&] {
        wire::frame message;
        for (int i = 0; peer.receive(&message) && message.svcname != "LAST"; i++) {
            // In one piece: the second one of two would wait for the acknowledgement of the first.
            wire::frame setting =
                wire::message(wire::SET_REQUEST, "", {.cd = 13, .value = i % 2 == 0 ? 5000 : 0});
            peer.send_raw(wire::encode(setting) +
                          wire::encode(wire::answer(message, message.msgtype == wire::TPACALL ? "x" : "")));
        }
    });
    for (int round = 0; round < 100; round++) {
        EXPECT_EQ(tx_begin(), TX_OK);
        char *reply = new_buffer("STRING");
        EXPECT_EQ(tpcall(svc("S"), nullptr, 0, &reply, &len, 0), 1) << gettperrno();
        tpfree(reply);
        EXPECT_EQ(tx_commit(), TX_OK);
        long seconds = info().transaction_timeout;
        EXPECT_TRUE(seconds == 0 || seconds == 5000) << seconds;
    }
    over = true;
    outside.join();
    peer.done();
    expect_no_transaction();
}

// ---- the wait of the end itself

TEST_F(Limited, EndIsHeardThoughTheTimeIsUp)
{
    ASSERT_TRUE(start({.tx_timeout = 5000}));
    for (int late = 0; late < 2; late++) {
        ASSERT_TRUE(run());
        if (late != 0)
            set_tx_state(block(), TX_STATE_TIMED_OUT);
        let_deadline_pass();
        wthr_var *mine = block();
        peer.play([&, mine] {
            peer.expect(ROLLBACK_MESSAGE);
            set_tx_state(mine, TX_STATE_TIMED_OUT);
            peer.send(wire::message(1012));  // makes the wait look
            peer.reply("", {.rcode = TX_OK});
        });
        EXPECT_EQ(tx_rollback(), TX_OK);
        peer.done();
        expect_no_transaction();
    }
}

TEST_F(Limited, EndWaitsAsLongAsTheTransactionMayTake)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(tx_set_transaction_timeout(5000), TX_OK);
    for (bool commits : {true, false}) {
        ASSERT_TRUE(run());
        peer.play([&] {
            peer.expect(commits ? COMMIT_MESSAGE : ROLLBACK_MESSAGE);
            let_time_run_out(5001);
        });
        EXPECT_EQ(note(commits ? tx_commit() : tx_rollback()), TX_FAIL);
        EXPECT_EQ(gettperrno(), TPETIME);
        peer.done();
        expect_no_transaction();
        expect_idle();
    }
    EXPECT_TRUE(log.has("(E) CLI 0030 read error [CSC5404]")) << log.text();
    // An answer that comes after all is told and dropped.
    peer.play([&] {
        peer.expect(wire::TPCALL);
        wire::frame request = peer.last;
        peer.send(wire::message(1032, "", {.seqno = request.seqno - 1}));
        peer.reply_to(request, "x");
    });
    EXPECT_EQ(call(), 1);
    peer.done();
    EXPECT_TRUE(log.has("tx reply arrived after timeout, msgtype = 1032")) << log.text();
}

TEST_F(Limited, BlockTimeIsNoLimitOfTheEnd)
{
    ASSERT_TRUE(start({.block_time = 30}));
    ASSERT_TRUE(run());
    peer.play([&] {
        peer.expect(COMMIT_MESSAGE);
        faults::shift_clock(100000);
        for (int i = 0; i < 3; i++)
            peer.send(wire::message(1012));
        peer.reply("", {.rcode = TX_MIXED});
    });
    EXPECT_EQ(tx_commit(), TX_MIXED);
    peer.done();
}

TEST_F(Limited, EndWithinItsTimeIsHeard)
{
    ASSERT_TRUE(start({.tx_timeout = 5000}));
    ASSERT_TRUE(run());
    peer.play([&] {
        peer.expect(COMMIT_MESSAGE);
        faults::shift_clock(4900);
        peer.send(wire::message(1012));
        peer.reply("", {.rcode = TX_OK});
    });
    EXPECT_EQ(tx_commit(), TX_OK);
    peer.done();
}
