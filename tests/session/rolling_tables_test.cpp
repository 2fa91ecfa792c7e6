// What a move of the session meets on its way: messages beside the login, conversations, queues, transactions.
#include "session/moving.h"

#include "calls/cscommon.h"
#include "vorn/conversation.h"
#include "vorn/queue.h"
#include "vorn/tx.h"
#include "vorn/unsol.h"

using RollingTables = Moving;

// ---- what happens beside the login

TEST_F(RollingTables, NotificationInTheLoginIsAcknowledgedAtOnce)
{
    ASSERT_TRUE(start());
    static int heard = 0;
    tpsetunsol([](char *, long, long) { heard++; });
    warn(peer);
    backup.play([&] {
        backup.accept();
        backup.expect(wire::TPSTART);
        wire::with fields;
        fields.flags = 0x8000;
        fields.srcid = 77;
        backup.send(wire::message(wire::TPNOTIFY, "hello", fields));
        peer.expect(1014).cd(77);  // over the connection that is the current one so far
        backup.reply_start();
        answer_call(backup, "text", "TEXT");
    });
    EXPECT_EQ(call("text").data, "TEXT");
    EXPECT_EQ(heard, 1);
    backup.done();
    left(peer);
    expect_normal(true);
}

TEST_F(RollingTables, HandlerThatCallsInTheLoginIsServedByThePreviousServer)
{
    ASSERT_TRUE(start());
    static std::string inner;
    tpsetunsol([](char *, long, long) { inner = call("inner").data; });
    warn(peer);
    backup.play([&] {
        backup.accept();
        backup.expect(wire::TPSTART);
        backup.send(wire::message(wire::TPBROADCAST, "hello"));
        answer_call(peer, "inner", "INNER");
        backup.reply_start();
        answer_call(backup, "text", "TEXT");
    });
    EXPECT_EQ(call("text").data, "TEXT");
    EXPECT_EQ(inner, "INNER");
    backup.done();
    left(peer);
    expect_normal(true);
}

// ---- conversations, queues, transactions

TEST_F(RollingTables, ConnectWhoseSendMeetsTheWarningOpensOnTheNewServer)
{
    for (int conv_size : {1, 8, 64}) {
        ASSERT_TRUE(start());
        warn(peer);
        wire::start_reply reply;
        reply.conv_size = conv_size;
        wire::with fields;
        fields.cd = 5;
        backup.play([&] {
            backup.accept_start(reply);
            backup.expect(wire::TPCONNECT);
            backup.reply("", fields);
            backup.expect(wire::TPSEND).cd(5);
        });
        int descriptor = tpconnect((char *)"SERVICE", nullptr, 0, TPSENDONLY);
        EXPECT_EQ(descriptor, 5) << get_tperrno();
        long event = 0;
        EXPECT_EQ(tpsend(descriptor, nullptr, 0, 0, &event), 1);
        backup.done();
        EXPECT_EQ(block()->conv_active, 1);
        expect_normal(true);
        EXPECT_EQ(tpreset(), 1);
        peer.hang_up();
    }
}

TEST_F(RollingTables, ConversationsEndWithThePreviousConnection)
{
    for (int conv_size : {2, 8, 64}) {
        ASSERT_TRUE(start());
        wire::with fields;
        fields.cd = 6;
        peer.play([&] {
            peer.expect(wire::TPCONNECT);
            peer.reply("", fields);
        });
        int descriptor = tpconnect((char *)"SERVICE", nullptr, 0, TPRECVONLY);
        ASSERT_EQ(descriptor, 6);
        peer.done();
        wire::start_reply reply;
        reply.conv_size = conv_size;
        move_to_backup(reply);
        EXPECT_EQ(block()->conv_active, 0);
        EXPECT_EQ(block()->conv_size, conv_size);
        char *buffer = tpalloc((char *)"STRING", nullptr, 0);
        long length = 0, event = 0;
        EXPECT_EQ(tprecv(descriptor, &buffer, &length, 0, &event), -1);
        EXPECT_EQ(get_tperrno(), TPEBADDESC);
        tpfree(buffer);
        EXPECT_EQ(tpdiscon(descriptor), -1);
        expect_call_over(backup, backup);
        EXPECT_EQ(tpreset(), 1);
        peer.hang_up();
    }
}

TEST_F(RollingTables, QueuesAreThoseOfTheNewServer)
{
    wire::start_reply reply;
    reply.queues = {"ONE", "TWO"};
    ASSERT_TRUE(start(reply));
    reply.queues = {"ZERO", "ONE", "THREE"};
    move_to_backup(reply);
    char *buffer = tpalloc((char *)"STRING", nullptr, 0);
    strcpy(buffer, "text");
    EXPECT_EQ(tpenq((char *)"TWO", (char *)"SERVICE", buffer, 0, 0), -1);
    EXPECT_EQ(get_tperrno(), TPENOENT);
    backup.play([&] {
        backup.expect(17).cd(1);
        backup.reply();
    });
    EXPECT_EQ(tpenq((char *)"ONE", (char *)"SERVICE", buffer, 0, 0), 0);
    tpfree(buffer);
}

TEST_F(RollingTables, OpenTransactionIsEndedByTheNewServer)
{
    ASSERT_TRUE(start());
    ASSERT_EQ(tx_begin(), TX_OK);
    wire::frame inside;
    peer.play([&] {
        inside = peer.expect(wire::TPCALL);
        peer.reply();
    });
    EXPECT_EQ(call("in").result, 1);
    peer.done();
    warn(peer);
    backup.play([&] {
        backup.accept_start();
        wire::frame request = backup.expect(wire::TX_COMMIT);
        EXPECT_EQ(request.xid[0], inside.xid[0]);
        backup.reply();
    });
    EXPECT_EQ(tx_commit(), TX_OK);
    expect_normal(true);
}
