// What the tests of transactions share: a session, and the moves that a transaction is made of.
#ifndef VORN_TESTS_TX_FIXTURE_H
#define VORN_TESTS_TX_FIXTURE_H

#include "calls/fixture.h"

#include "tx/txapi.h"
#include "vorn/conversation.h"
#include "vorn/tx.h"

#include <limits.h>
#include <unistd.h>

// The peer's names of the two are those of results.
constexpr int32_t COMMIT_MESSAGE = 32, ROLLBACK_MESSAGE = 33;
constexpr uint32_t START_MARK = 0x4000000;  // in the flags of a transaction's first request

struct TxTest : CallTest {
    ~TxTest() override { alarm(0); }

    TXINFO info(void) const
    {
        TXINFO record;
        memset(&record, 0x55, sizeof record);
        EXPECT_GE(tx_info(&record), 0);
        return record;
    }
    long state(void) const { return info().transaction_state; }
    int stage(void) const { return block()->txinfo->tx_stage; }

    void expect_no_transaction(void) const
    {
        EXPECT_EQ(tx_info(nullptr), 0);
        EXPECT_EQ(state(), -1);
        EXPECT_EQ(stage(), TX_STAGE_NONE);
        EXPECT_EQ(block()->txinfo->tx_active, 0);
    }
    void expect_begun(void) const
    {
        EXPECT_EQ(tx_info(nullptr), 1);
        EXPECT_EQ(state(), TX_ACTIVE);
        EXPECT_EQ(stage(), TX_STAGE_BEGUN);
        EXPECT_EQ(block()->txinfo->tx_active, 1);
    }

    // A session with a transaction that the server knows: one call has been through.
    bool start_running(const wire::start_reply &reply = {}, bool multiple = false)
    {
        return start(reply, multiple) && run();
    }
    // Begins a transaction, unless one is begun, and makes its first call.
    bool run(void)
    {
        if (tx_info(nullptr) == 0 && tx_begin() != TX_OK) {
            ADD_FAILURE() << "no transaction could be begun";
            return false;
        }
        peer.play([&] {
            wire::frame first = peer.expect(wire::TPCALL).frame;
            EXPECT_EQ(first.flags & START_MARK, START_MARK);
            peer.reply("x");
        });
        int result = call();
        peer.done();
        EXPECT_EQ(result, 1) << gettperrno();
        EXPECT_EQ(stage(), TX_STAGE_RUNNING);
        return result == 1;
    }

    // Ends the transaction by a message; the server answers with `result`.
    int end_with(int (*end)(void), int msgtype, int32_t result)
    {
        peer.play([&, msgtype, result] {
            peer.expect(msgtype);
            peer.reply("", {.rcode = result});
        });
        int code = end();
        peer.done();
        return code;
    }
    int commit_with(int32_t result) { return end_with(tx_commit, COMMIT_MESSAGE, result); }
    int rollback_with(int32_t result) { return end_with(tx_rollback, ROLLBACK_MESSAGE, result); }
    int commit_turned_with(int32_t result) { return end_with(tx_commit, ROLLBACK_MESSAGE, result); }

    // An asynchronous call that the server takes and doesn't answer.
    int open_call(long flags = 0)
    {
        peer.play([&] { peer.expect(wire::TPACALL); });
        int cd = acall(flags);
        peer.done();
        EXPECT_GT(cd, 0) << gettperrno();
        return cd;
    }
    // A conversation that the server accepts under the descriptor `cd`.
    int open_conversation(int cd, long flags = 0)
    {
        peer.play([&, cd] {
            peer.expect(wire::TPCONNECT);
            peer.reply("", {.cd = cd});
        });
        int result = tpconnect(svc("TALK"), nullptr, 0, TPSENDONLY | flags);
        peer.done();
        EXPECT_EQ(result, cd) << gettperrno();
        return result;
    }
};

#endif
