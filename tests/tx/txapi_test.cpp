// Beginning a transaction, its settings, and what the requests in it carry.
#include "tx/fixture.h"

#include "wire/msgheader.h"

// ---- beginning

TEST_F(TxTest, BeginSendsNothing)
{
    ASSERT_TRUE(start());
    set_tperrno(9);
    EXPECT_EQ(tx_begin(), TX_OK);
    EXPECT_EQ(gettperrno(), 0);
    expect_begun();
    peer.expect_nothing();
    EXPECT_EQ(alarm(0), 0u);  // no limit, no timer
}

TEST_F(TxTest, SecondBeginIsAProtocolErrorAndLeavesTheFirst)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(tx_begin(), TX_OK);
    EXPECT_EQ(tx_begin(), TX_PROTOCOL_ERROR);
    EXPECT_EQ(gettperrno(), 0);
    expect_begun();
    peer.expect_nothing();
    ASSERT_TRUE(run());
    set_tx_state(block(), TX_STATE_ROLLBACK);
    EXPECT_EQ(tx_begin(), TX_PROTOCOL_ERROR);
    EXPECT_EQ(stage(), TX_STAGE_RUNNING);
    EXPECT_EQ(state(), TX_ROLLBACK_ONLY);
    peer.expect_nothing();
}

TEST_F(TxTest, BeginOpensASession)
{
    peer.play([&] {
        peer.accept_start({.tx_timeout = 5000});
        peer.expect_nothing();
    });
    EXPECT_EQ(tx_begin(), TX_OK);
    peer.done();
    EXPECT_EQ(gettperrno(), 0);
    expect_begun();
    EXPECT_EQ(info().transaction_timeout, 5000);
    EXPECT_GT(alarm(0), 4000u);
    EXPECT_EQ(block()->started, 1);
}

TEST_F(TxTest, BeginFailsWithTheErrorOfTheStart)
{
    peer.stop_listening();
    EXPECT_EQ(tx_begin(), TX_FAIL);
    EXPECT_EQ(gettperrno(), TPEOS);
    EXPECT_EQ(tx_commit(), TX_PROTOCOL_ERROR);
}

TEST_F(TxTest, BeginFailsWhereTheLoginIsRefused)
{
    peer.play([&] { peer.accept_start({.refuse = TPESECURITY}); });
    EXPECT_EQ(tx_begin(), TX_FAIL);
    peer.done();
    EXPECT_EQ(gettperrno(), TPESECURITY);
    EXPECT_TRUE(peer.nobody_knocks());
}

TEST_F(TxTest, BeginOpensNoSessionForAThreadOfAMultiContextProcess)
{
    ASSERT_TRUE(start({}, true));
    std::thread([&] {
        EXPECT_EQ(tx_begin(), TX_FAIL);
        EXPECT_EQ(gettperrno(), TPEPROTO);
        EXPECT_EQ(tx_commit(), TX_PROTOCOL_ERROR);
        EXPECT_EQ(tx_rollback(), TX_PROTOCOL_ERROR);
    }).join();
    EXPECT_TRUE(peer.nobody_knocks());
    peer.expect_nothing();
    expect_no_transaction();
}

// ---- without a session

TEST_F(TxTest, BeforeASessionThereIsNothingToEndOrSet)
{
    TXINFO untouched;
    memset(&untouched, 0x55, sizeof untouched);
    set_tperrno(9);
    EXPECT_EQ(tx_commit(), TX_PROTOCOL_ERROR);
    EXPECT_EQ(gettperrno(), 0);
    set_tperrno(9);
    EXPECT_EQ(tx_rollback(), TX_PROTOCOL_ERROR);
    EXPECT_EQ(gettperrno(), 0);
    EXPECT_EQ(tx_info(nullptr), TX_PROTOCOL_ERROR);
    EXPECT_EQ(tx_info(&untouched), TX_PROTOCOL_ERROR);
    EXPECT_EQ(untouched.when_return, 0x5555555555555555);
    EXPECT_EQ(tx_set_commit_return(1), TX_PROTOCOL_ERROR);
    EXPECT_EQ(tx_set_transaction_control(1), TX_PROTOCOL_ERROR);
    EXPECT_EQ(tx_set_transaction_timeout(1), TX_PROTOCOL_ERROR);
    EXPECT_EQ(tx_set_commit_return(2), TX_EINVAL);
    EXPECT_EQ(tx_set_transaction_control(2), TX_EINVAL);
    EXPECT_TRUE(peer.nobody_knocks());
}

TEST_F(TxTest, EndOfTheSessionIsTheEndOfItsTransaction)
{
    ASSERT_TRUE(start_running());
    EXPECT_EQ(tx_set_transaction_control(TX_CHAINED), TX_OK);
    peer.play([&] { peer.serve_end(); });
    EXPECT_EQ(tpend(), 1);
    peer.done();
    EXPECT_EQ(tx_commit(), TX_PROTOCOL_ERROR);
    EXPECT_EQ(tx_rollback(), TX_PROTOCOL_ERROR);
    EXPECT_LT(tx_info(nullptr), 0);
    ASSERT_TRUE(start());
    expect_no_transaction();
    EXPECT_EQ(info().transaction_control, TX_UNCHAINED);
    ASSERT_TRUE(run());  // and this one is new to the server
    EXPECT_EQ(commit_with(TX_OK), TX_OK);
}

TEST_F(TxTest, CommitAfterTheLossOfTheSessionIsAProtocolErrorAndEndsTheRecord)
{
    for (auto end : {tx_commit, tx_rollback}) {
        ASSERT_TRUE(start_running());
        block()->rq_enq_in_tran = block()->rq_deq_in_tran = 1;
        peer.play([&] {
            peer.expect(wire::TPCALL);
            peer.hang_up();
        });
        EXPECT_EQ(call(), -1);
        EXPECT_EQ(gettperrno(), TPECLOSE);
        peer.done();
        EXPECT_EQ(tx_info(nullptr), 1);
        EXPECT_EQ(end(), TX_PROTOCOL_ERROR);
        EXPECT_EQ(gettperrno(), 0);
        expect_no_transaction();
        EXPECT_EQ(block()->rq_enq_in_tran, 0);
        EXPECT_EQ(block()->rq_deq_in_tran, 0);
        EXPECT_EQ(end(), TX_PROTOCOL_ERROR);
        EXPECT_TRUE(peer.nobody_knocks());
        tpend();
    }
}

// ---- settings

TEST_F(TxTest, SettingsShowInTheRecordAndAreNotSent)
{
    ASSERT_TRUE(start());
    for (long value : {1L, 0L, 1L}) {
        set_tperrno(9);
        EXPECT_EQ(tx_set_commit_return(value), TX_OK);
        EXPECT_EQ(gettperrno(), 0);
        EXPECT_EQ(tx_set_transaction_control(value), TX_OK);
        EXPECT_EQ(info().when_return, value);
        EXPECT_EQ(info().transaction_control, value);
    }
    EXPECT_EQ(tx_set_commit_return(0), TX_OK);
    EXPECT_EQ(info().when_return, 0);
    EXPECT_EQ(info().transaction_control, 1);
    peer.expect_nothing();
}

TEST_F(TxTest, OtherValuesOfTheTwoSwitchesAreRefused)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(tx_set_commit_return(1), TX_OK);
    ASSERT_EQ(tx_set_transaction_control(1), TX_OK);
    for (long value : {2L, -1L, 3L, 0x100000000L, 0x100000001L, LONG_MAX, LONG_MIN}) {
        EXPECT_EQ(tx_set_commit_return(value), TX_EINVAL) << value;
        EXPECT_EQ(tx_set_transaction_control(value), TX_EINVAL) << value;
    }
    EXPECT_EQ(info().when_return, 1);
    EXPECT_EQ(info().transaction_control, 1);
}

TEST_F(TxTest, TimeoutIsTheServersAtFirst)
{
    ASSERT_TRUE(start({.tx_timeout = 45}));
    EXPECT_EQ(info().transaction_timeout, 45);
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.send(wire::message(wire::SET_REQUEST, "", {.cd = 13, .value = 4000}));
        peer.reply("x");
    });
    EXPECT_EQ(call(), 1);
    peer.done();
    EXPECT_EQ(info().transaction_timeout, 4000);
    EXPECT_EQ(tx_begin(), TX_OK);
    EXPECT_GT(alarm(0), 3000u);
}

TEST_F(TxTest, SettingsOutliveTheTransaction)
{
    ASSERT_TRUE(start());
    EXPECT_EQ(tx_set_commit_return(1), TX_OK);
    EXPECT_EQ(tx_set_transaction_timeout(5000), TX_OK);
    ASSERT_TRUE(run());
    EXPECT_EQ(commit_with(TX_OK), TX_OK);
    EXPECT_EQ(info().when_return, 1);
    EXPECT_EQ(info().transaction_timeout, 5000);
}

// ---- what requests carry

TEST_F(TxTest, FirstRequestAloneBearsTheStartMark)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        peer.expect(wire::TPCALL).flags(0);  // before
        peer.reply("x");
        peer.expect(wire::TPCALL).flags(TPNOTIME | START_MARK);
        peer.reply("x");
        peer.expect(wire::TPCALL).flags(0);
        peer.reply("x");
        peer.expect(wire::TPACALL).flags(0);
        peer.reply("x");
        peer.expect(COMMIT_MESSAGE).flags(0);
        peer.reply();
        peer.expect(wire::TPCALL).flags(0);  // behind
        peer.reply("x");
    });
    EXPECT_EQ(call(), 1);
    ASSERT_EQ(tx_begin(), TX_OK);
    EXPECT_EQ(call(TPNOTIME), 1);
    EXPECT_EQ(stage(), TX_STAGE_RUNNING);
    EXPECT_EQ(call(), 1);
    int cd = acall();
    EXPECT_EQ(getrply(&cd), 1);
    EXPECT_EQ(tx_commit(), TX_OK);
    EXPECT_EQ(call(), 1);
    peer.done();
}

TEST_F(TxTest, AnyKindOfRequestStartsIt)
{
    ASSERT_TRUE(start());
    for (int type : {wire::TPCALL + 0, wire::TPACALL + 0, wire::TPCONNECT + 0}) {
        SCOPED_TRACE(type);
        ASSERT_EQ(tx_begin(), TX_OK);
        peer.play([&, type] {
            EXPECT_EQ(peer.expect(type).frame.flags & START_MARK, START_MARK);
            peer.reply("x", {.cd = 7});
        });
        switch (type) {
        case wire::TPCALL:
            EXPECT_EQ(tpcall(svc("S"), nullptr, 0, &out, &len, 0), 1) << gettperrno();
            break;
        case wire::TPACALL:
            EXPECT_GT(tpacall(svc("S"), nullptr, 0, 0), 0) << gettperrno();
            break;
        default:
            EXPECT_EQ(tpconnect(svc("S"), nullptr, 0, TPSENDONLY), 7) << gettperrno();
        }
        peer.done();
        EXPECT_EQ(stage(), TX_STAGE_RUNNING);
        peer.play([&] {
            wire::frame message;
            while (peer.receive(&message) && message.msgtype != ROLLBACK_MESSAGE)
                continue;  // the conversation's end
            peer.reply();
        });
        EXPECT_EQ(tx_rollback(), TX_OK);
        peer.done();
    }
}

TEST_F(TxTest, RequestsOutsideItDoNotStartIt)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(tx_begin(), TX_OK);
    for (uint32_t &word : block()->txinfo->xid_data)
        word = 0x01020304;
    peer.play([&] {
        wire::frame outside = peer.expect(wire::TPCALL).flags(TPNOTRAN).frame;
        EXPECT_EQ(outside.xid[0], 0u);
        peer.reply("x");
        peer.expect(wire::TPACALL).flags(TPNOTRAN);
        peer.expect(wire::TPACALL).flags(TPNOTRAN | TPNOREPLY);
        peer.expect(wire::TPCONNECT).flags(TPNOTRAN | TPSENDONLY);
        peer.reply("", {.cd = 3});
    });
    EXPECT_EQ(tpcall(svc("S"), nullptr, 0, &out, &len, TPNOTRAN), 1) << gettperrno();
    EXPECT_EQ(acall(TPNOTRAN), 1);
    EXPECT_EQ(acall(TPNOTRAN | TPNOREPLY), 0);
    EXPECT_EQ(tpconnect(svc("S"), nullptr, 0, TPNOTRAN | TPSENDONLY), 3) << gettperrno();
    peer.done();
    expect_begun();
    EXPECT_EQ(tx_commit(), TX_OK);
    peer.expect_nothing();
    EXPECT_EQ(tpcancel(1), 1);  // it wasn't the transaction's
}

TEST_F(TxTest, RequestsBearTheIdentityOfTheRecord)
{
    ASSERT_TRUE(start());
    peer.play([&] {
        wire::frame zero = peer.expect(wire::TPCALL).frame;
        EXPECT_EQ(zero.xid[0] | zero.xid[1] | zero.xid[2], 0u);
        wire::frame answer = wire::answer(zero, "x");
        answer.xid[0] = answer.xid[1] = answer.xid[2] = 0x77;
        peer.send(answer);
        zero = peer.expect(wire::TPACALL).frame;
        EXPECT_EQ(zero.xid[0] | zero.xid[1] | zero.xid[2], 0u) << "taken from a reply";
        for (int type : {wire::TPCALL + 0, wire::TPACALL + 0, wire::TPCONNECT + 0}) {
            wire::frame request = peer.expect(type).frame;
            EXPECT_EQ(request.xid[0], 0x01020304u) << type;
            EXPECT_EQ(request.xid[1], 0xf0f1f2f3u) << type;
            EXPECT_EQ(request.xid[2], 9u) << type;
            peer.reply("x", {.cd = type == wire::TPCONNECT ? 3 : request.cd});
        }
    });
    ASSERT_EQ(tx_begin(), TX_OK);
    EXPECT_EQ(call(), 1);
    EXPECT_GT(acall(), 0);
    const uint32_t identity[3] = {0x01020304, 0xf0f1f2f3, 9};
    memcpy(block()->txinfo->xid_data, identity, sizeof identity);
    EXPECT_EQ(call(), 1);
    EXPECT_GT(acall(), 0);
    EXPECT_EQ(tpconnect(svc("S"), nullptr, 0, TPSENDONLY), 3) << gettperrno();
    peer.done();
}

TEST_F(TxTest, CallWithoutReplyHasNoPlaceInATransaction)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(tx_begin(), TX_OK);
    EXPECT_EQ(acall(TPNOREPLY), -1);
    EXPECT_EQ(gettperrno(), TPEPROTO);
    expect_begun();
    peer.expect_nothing();
}

TEST_F(TxTest, RequestsThatCannotCommitAnyMoreAreNotSent)
{
    const struct {
        int state, error;
    } cases[] = {{TX_STATE_TIMED_OUT, TPETIME}, {TX_STATE_ROLLBACK, TPEPROTO}};
    ASSERT_TRUE(start());
    for (const auto &row : cases)
        for (int at : {TX_STAGE_BEGUN + 0, TX_STAGE_RUNNING + 0})
            for (char *data : {in, (char *)nullptr}) {
                SCOPED_TRACE(std::to_string(row.state) + " " + std::to_string(at));
                open_transaction(at, row.state);
                EXPECT_EQ(tpcall(svc("S"), data, 0, &out, &len, 0), -1);
                EXPECT_EQ(gettperrno(), row.error);
                EXPECT_EQ(tpacall(svc("S"), data, 0, 0), -1);
                EXPECT_EQ(gettperrno(), row.error);
                EXPECT_EQ(tpconnect(svc("S"), data, 0, TPSENDONLY), -1);
                EXPECT_EQ(gettperrno(), row.error);
                EXPECT_EQ(block()->acall_active, 0);
                EXPECT_EQ(block()->conv_active, 0);
                EXPECT_EQ(stage(), at);
                EXPECT_EQ(state(), row.state);
            }
    peer.expect_nothing();
}

TEST_F(TxTest, RequestsOutsideItGoOutWhateverItsState)
{
    ASSERT_TRUE(start());
    for (int now : {TX_STATE_TIMED_OUT + 0, TX_STATE_ROLLBACK + 0}) {
        open_transaction(TX_STAGE_RUNNING, now);
        peer.play([&] {
            peer.expect(wire::TPACALL).flags(TPNOTRAN | TPNOREPLY);
            peer.expect(wire::TPCALL).flags(TPNOTRAN);
            peer.reply("x");
        });
        EXPECT_EQ(acall(TPNOTRAN | TPNOREPLY), 0);
        int result = call(TPNOTRAN);
        if (now == TX_STATE_TIMED_OUT) {
            EXPECT_EQ(result, -1);  // every wait of the context has ended with the transaction's time
            EXPECT_EQ(gettperrno(), TPETIME);
        } else {
            EXPECT_EQ(result, 1) << gettperrno();
        }
        peer.done();
        EXPECT_EQ(state(), now);
    }
}

// ---- contexts

TEST_F(TxTest, ContextsHaveTransactionsOfTheirOwn)
{
    ASSERT_TRUE(start_running({}, true));
    int first = context();
    wthr_var *first_block = block();
    Conn second;
    peer.play([&] {
        ASSERT_TRUE(peer.accept(&second));
        second.expect(wire::TPSTART);
        second.reply_start({.tx_timeout = 5000});
    });
    char *record = tpalloc(svc("TPSTART"), nullptr, sizeof(TPSTART_T));
    ASSERT_NE(record, nullptr);
    ((TPSTART_T *)record)->flags = TPMULTICONTEXTS;
    EXPECT_EQ(tpstart((TPSTART_T *)record), 0) << gettperrno();
    tpfree(record);
    peer.done();
    int other = context();
    ASSERT_NE(other, first);
    expect_no_transaction();
    EXPECT_EQ(_internal_txinfo, block()->txinfo);
    EXPECT_NE(_internal_txinfo, first_block->txinfo);
    ASSERT_EQ(tx_begin(), TX_OK);
    EXPECT_EQ(tx_set_transaction_control(TX_CHAINED), TX_OK);
    peer.play([&] {
        EXPECT_EQ(second.expect(wire::TPCALL).frame.flags, START_MARK);
        second.reply("x");
        second.expect(ROLLBACK_MESSAGE);
        second.reply("", {.rcode = TX_COMMITTED});
    });
    EXPECT_EQ(call(), 1);
    EXPECT_EQ(tx_rollback(), TX_COMMITTED);
    peer.done();
    expect_begun();
    ASSERT_EQ(tpsetctxt(first, 0), 1);
    EXPECT_EQ(stage(), TX_STAGE_RUNNING);
    EXPECT_EQ(info().transaction_control, TX_UNCHAINED);
    EXPECT_EQ(info().transaction_timeout, 0);
    EXPECT_EQ(commit_with(TX_OK), TX_OK);
    expect_no_transaction();
    ASSERT_EQ(tpsetctxt(other, 0), 1);
    expect_begun();
    second.expect_nothing();
}
