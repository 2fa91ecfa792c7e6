// Transactions: what begins one, what it keeps, how it ends; on the wire and for an application.
#include "application.h"

#include <gtest/gtest.h>

static constexpr int32_t CONNECT = 5;
static constexpr int32_t DISCON = 8;
static constexpr int32_t COMMIT = 32;
static constexpr int32_t ROLLBACK = 33;
static constexpr int32_t NOTRAN = 0x8;
static constexpr int32_t START = 0x4000000;

static Message request_for(const std::string &service, const std::string &text, int32_t flags)
{
    Message message = string_call(service, text);
    message.flags = flags;
    return message;
}

static std::string answer_of(Link &link, const std::string &service, const std::string &text,
                             int32_t flags = 0)
{
    Message reply = link.exchange(request_for(service, text, flags));
    return reply.msgtype == 1003 ? reply.text() : "error " + std::to_string(reply.flags);
}

static Message end_message(int32_t msgtype, int32_t seqno = 1)
{
    Message message;
    message.msgtype = msgtype;
    message.seqno = seqno;
    message.svcname = msgtype == COMMIT ? "_tx_commit" : "_tx_rback";
    return message;
}

static int32_t result_of(Link &link, int32_t msgtype)
{
    Message reply = link.exchange(end_message(msgtype));
    EXPECT_EQ(reply.msgtype, msgtype + 1000);
    EXPECT_EQ(reply.flags, 0);
    return reply.rcode;
}

// --- On the wire.

TEST(ClhsimTransaction, BeginsWithTheMarkAndEndsWithTheCommit)
{
    Simulator server;
    Link link = server.log_in();
    EXPECT_EQ(answer_of(link, "ECHO", "before"), "before");
    EXPECT_EQ(server.command("transactions"), "ok");
    EXPECT_EQ(answer_of(link, "ECHO", "first", START), "first");
    EXPECT_EQ(answer_of(link, "ECHO", "second"), "second");
    EXPECT_EQ(answer_of(link, "ECHO", "outside", NOTRAN), "outside");
    EXPECT_EQ(server.command("transactions"), "  1 transaction 1 requests 2\nok");
    Message reply = link.exchange(end_message(COMMIT, 88));
    EXPECT_EQ(reply.msgtype, 1032);
    EXPECT_EQ(reply.seqno, 88);
    EXPECT_EQ(reply.rcode, 0);
    EXPECT_EQ(reply.svcname, "_tx_commit");
    EXPECT_EQ(server.command("transactions"), "ok");
    EXPECT_EQ(server.stat("begun"), 1);
    EXPECT_EQ(server.stat("committed"), 1);
    EXPECT_EQ(server.stat("rolled_back"), 0);
}

TEST(ClhsimTransaction, DepositsAreForOthersOnlyBehindTheCommit)
{
    Simulator server;
    Link link = server.log_in();
    Link other = server.log_in();
    EXPECT_EQ(answer_of(link, "DEPOSIT", "ann 100", START), "100");
    EXPECT_EQ(answer_of(link, "DEPOSIT", "ann -30"), "70");
    EXPECT_EQ(answer_of(link, "BALANCE", "ann"), "70");
    EXPECT_EQ(answer_of(link, "BALANCE", "ann", NOTRAN), "0");
    EXPECT_EQ(answer_of(other, "BALANCE", "ann"), "0");
    EXPECT_EQ(result_of(link, COMMIT), 0);
    EXPECT_EQ(answer_of(other, "BALANCE", "ann"), "70");
    EXPECT_EQ(server.command("accounts"), "  ann 70\nok");
}

TEST(ClhsimTransaction, RollbackForgetsTheDeposits)
{
    Simulator server;
    Link link = server.log_in();
    EXPECT_EQ(answer_of(link, "DEPOSIT", "ann 10"), "10") << "without a transaction at once";
    EXPECT_EQ(answer_of(link, "DEPOSIT", "ann 100", START), "110");
    EXPECT_EQ(result_of(link, ROLLBACK), 0);
    EXPECT_EQ(answer_of(link, "BALANCE", "ann"), "10");
    EXPECT_EQ(server.stat("rolled_back"), 1);
}

TEST(ClhsimTransaction, DepositChecksWhatItIsTold)
{
    Simulator server;
    Link link = server.log_in();
    for (const char *wrong : {"", "ann", "ann x", "ann 1 2", "ann 1000000000001", "ann -99999999999999999999",
                              "abcdefghijklmnopqrstuvwxyz1234567 1"})
        EXPECT_EQ(answer_of(link, "DEPOSIT", wrong), "error 4") << wrong;
    EXPECT_EQ(answer_of(link, "BALANCE", ""), "error 4");
    EXPECT_EQ(answer_of(link, "BALANCE", "a b"), "error 4");
    Message reply = link.exchange(string_call("DEPOSIT", "ann -1"));
    EXPECT_EQ(reply.msgtype, 2003);
    EXPECT_EQ(reply.flags, 11);
    EXPECT_EQ(reply.rcode, 1);
    EXPECT_EQ(reply.text(), "0");
    EXPECT_EQ(answer_of(link, "DEPOSIT", "ann 1000000000000"), "1000000000000");
    EXPECT_EQ(answer_of(link, "DEPOSIT", "ann 1"), "error 11");
}

TEST(ClhsimTransaction, TenThousandAccountsAtMost)
{
    Simulator server;
    Link link = server.log_in();
    for (int i = 0; i < 10000; i++)
        link.send(string_call("DEPOSIT", "a" + std::to_string(i) + " 1"));
    for (int i = 0; i < 10000; i++)
        ASSERT_EQ(link.receive().text(), "1");
    EXPECT_EQ(answer_of(link, "DEPOSIT", "more 1"), "error 5");
    EXPECT_EQ(answer_of(link, "DEPOSIT", "a1 1"), "2");
}

TEST(ClhsimTransaction, EndWithoutABeginIsAProtocolError)
{
    Simulator server;
    Link link = server.log_in();
    EXPECT_EQ(result_of(link, COMMIT), -5);
    EXPECT_EQ(result_of(link, ROLLBACK), -5);
    EXPECT_EQ(answer_of(link, "ECHO", "apart", START | NOTRAN), "apart");
    EXPECT_EQ(result_of(link, COMMIT), -5);
    EXPECT_EQ(server.stat("transaction_faults"), 3);
    EXPECT_EQ(server.stat("begun"), 0);
}

TEST(ClhsimTransaction, SecondMarkRollsTheFirstOneBack)
{
    Simulator server;
    Link link = server.log_in();
    EXPECT_EQ(answer_of(link, "DEPOSIT", "ann 100", START), "100");
    EXPECT_EQ(answer_of(link, "DEPOSIT", "ann 5", START), "5");
    EXPECT_EQ(result_of(link, COMMIT), 0);
    EXPECT_EQ(answer_of(link, "BALANCE", "ann"), "5");
    EXPECT_EQ(server.stat("transaction_faults"), 1);
    EXPECT_EQ(server.stat("rolled_back"), 1);
}

TEST(ClhsimTransaction, FailureLeavesNothingToCommit)
{
    Simulator server;
    Link link = server.log_in();
    for (const char *failing : {"FAIL", "NOSUCH"}) {
        EXPECT_EQ(answer_of(link, "DEPOSIT", "ann 1", START), "1");
        answer_of(link, failing, "1");
        EXPECT_NE(server.command("transactions").find("rollback only"), std::string::npos);
        EXPECT_EQ(result_of(link, COMMIT), -2) << failing;
    }
    EXPECT_EQ(answer_of(link, "DEPOSIT", "ann 1", START), "1");
    answer_of(link, "FAIL", "1", NOTRAN);
    EXPECT_EQ(result_of(link, COMMIT), 0) << "what fails outside doesn't matter";
}

TEST(ClhsimTransaction, MarkOfARequestThatFailsBeginsOneToo)
{
    Simulator server;
    Link link = server.log_in();
    EXPECT_EQ(answer_of(link, "NOSUCH", "", START), "error 6");
    EXPECT_EQ(result_of(link, ROLLBACK), 0);
}

TEST(ClhsimTransaction, TwoThatSpendTheSameMoneyDontBothCommit)
{
    Simulator server;
    Link first = server.log_in();
    Link second = server.log_in();
    answer_of(first, "DEPOSIT", "ann 100");
    EXPECT_EQ(answer_of(first, "DEPOSIT", "ann -80", START), "20");
    EXPECT_EQ(answer_of(second, "DEPOSIT", "ann -80", START), "20");
    EXPECT_EQ(result_of(first, COMMIT), 0);
    EXPECT_EQ(result_of(second, COMMIT), -2);
    EXPECT_EQ(answer_of(first, "BALANCE", "ann"), "20");
}

TEST(ClhsimTransaction, ConversationBelongsToIt)
{
    Simulator server;
    Link link = server.log_in();
    Message connect = request_for("TURNS", "", START | 0x800);
    connect.msgtype = CONNECT;
    int32_t cd = link.exchange(connect).cd;
    EXPECT_EQ(server.command("conversations"),
              "  1 " + std::to_string(cd) + " TURNS receives in 0 out 0 transaction\nok");
    link.send(end_message(COMMIT));
    Message discon = link.receive();
    EXPECT_EQ(discon.msgtype, DISCON);
    EXPECT_EQ(discon.cd, cd);
    EXPECT_EQ(link.receive().rcode, -2) << "it was open still";

    connect.flags = START | 0x1000;
    connect.data = std::string("0\0", 2);
    connect.svcname = "STREAM";
    link.exchange(connect);
    EXPECT_EQ(link.receive().msgtype, 1007);
    EXPECT_EQ(result_of(link, COMMIT), 0) << "it had ended well";

    connect.svcname = "CONVFAIL";
    link.exchange(connect);
    EXPECT_EQ(link.receive().msgtype, 3007);
    EXPECT_EQ(result_of(link, COMMIT), -2);
}

TEST(ClhsimTransaction, ConversationOutsideOutlivesIt)
{
    Simulator server;
    Link link = server.log_in();
    EXPECT_EQ(answer_of(link, "ECHO", "first", START), "first");
    Message connect = request_for("TURNS", "", NOTRAN | 0x800);
    connect.msgtype = CONNECT;
    link.exchange(connect);
    EXPECT_EQ(result_of(link, COMMIT), 0);
    EXPECT_NE(server.command("conversations"), "ok");
}

TEST(ClhsimTransaction, ResultIsWhatTheControlSocketSays)
{
    Simulator server;
    Link link = server.log_in();
    for (int32_t result : {-2, -3, -4, -7, -9, 1}) {
        answer_of(link, "DEPOSIT", "ann 1", START);
        EXPECT_EQ(server.command("result _tx_commit " + std::to_string(result) + " 1"), "ok");
        EXPECT_EQ(result_of(link, COMMIT), result);
        EXPECT_EQ(answer_of(link, "BALANCE", "ann"), "0") << "only a commit that says so books";
    }
    answer_of(link, "DEPOSIT", "ann 1", START);
    server.command("result _tx_rback -9 1");
    EXPECT_EQ(result_of(link, ROLLBACK), -9);
    EXPECT_EQ(server.stat("committed"), 0);
}

TEST(ClhsimTransaction, RefusedEndIsAnErrorReplyAndRollsBack)
{
    Simulator server;
    Link link = server.log_in();
    for (int32_t type : {COMMIT, ROLLBACK}) {
        answer_of(link, "DEPOSIT", "ann 1", START);
        server.command(std::string("refuse ") + (type == COMMIT ? "_tx_commit" : "_tx_rback") + " 12 1");
        Message reply = link.exchange(end_message(type));
        EXPECT_EQ(reply.msgtype, type + 2000);
        EXPECT_EQ(reply.flags, 12);
    }
    EXPECT_EQ(server.stat("rolled_back"), 2);
    EXPECT_EQ(answer_of(link, "BALANCE", "ann"), "0");
}

TEST(ClhsimTransaction, ForgottenAndLateAnswersEndItAllTheSame)
{
    Simulator server;
    Link link = server.log_in();
    answer_of(link, "DEPOSIT", "ann 1", START);
    server.command("drop _tx_commit 1");
    link.send(end_message(COMMIT));
    EXPECT_EQ(answer_of(link, "BALANCE", "ann"), "1") << "the next thing that comes is this answer";
    answer_of(link, "DEPOSIT", "ann 1", START);
    server.command("delay _tx_commit 50 1");
    EXPECT_EQ(result_of(link, COMMIT), 0);
}

TEST(ClhsimTransaction, GivenBackCommitHasntHappened)
{
    Simulator server;
    Link link = server.log_in();
    answer_of(link, "DEPOSIT", "ann 1", START);
    server.command("giveback _tx_commit 1");
    Message back = link.exchange(end_message(COMMIT));
    EXPECT_EQ(back.msgtype, 2032);
    EXPECT_EQ(back.xflags & 0x20000000u, 0x20000000u);
    EXPECT_EQ(result_of(link, COMMIT), 0);
}

TEST(ClhsimTransaction, LostClientIsRolledBack)
{
    Simulator server;
    Link other = server.log_in();
    {
        Link link = server.log_in();
        answer_of(link, "DEPOSIT", "ann 1", START);
    }
    while (server.stat("open") > 1) {
    }
    EXPECT_EQ(server.stat("rolled_back"), 1);
    EXPECT_EQ(answer_of(other, "BALANCE", "ann"), "0");
}

// --- As an application.

static std::string called(const char *service, const std::string &text, long flags = 0)
{
    Buffer buffer(text);
    if (call(service, buffer, flags) == -1)
        return std::string("error: ") + tpstrerror(gettperrno());
    return buffer.data;
}

TEST(ClhsimTxApplication, CommitAndRollback)
{
    Domain domain;
    ASSERT_EQ(tx_begin(), TX_OK);
    EXPECT_EQ(called("DEPOSIT", "ann 100"), "100");
    EXPECT_EQ(called("DEPOSIT", "bob 5"), "5");
    EXPECT_EQ(domain.command("transactions"), "  1 transaction 1 requests 2\nok");
    EXPECT_EQ(tx_commit(), TX_OK);
    ASSERT_EQ(tx_begin(), TX_OK);
    EXPECT_EQ(called("DEPOSIT", "ann -30"), "70");
    EXPECT_EQ(tx_rollback(), TX_OK);
    EXPECT_EQ(domain.command("accounts"), "  ann 100\n  bob 5\nok");
    EXPECT_EQ(domain.stat("begun"), 2);
    EXPECT_EQ(domain.stat("committed"), 1);
    EXPECT_EQ(domain.stat("rolled_back"), 1);
    EXPECT_EQ(domain.stat("transaction_faults"), 0);
}

TEST(ClhsimTxApplication, EmptyTransactionIsNeverHeardOf)
{
    Domain domain;
    ASSERT_EQ(tx_begin(), TX_OK);
    EXPECT_EQ(called("ECHO", "apart", TPNOTRAN), "apart");
    EXPECT_EQ(tx_commit(), TX_OK);
    EXPECT_EQ(domain.stat("begun"), 0);
    EXPECT_EQ(domain.stat("transaction_faults"), 0);
}

TEST(ClhsimTxApplication, FailedServiceTurnsTheCommitIntoARollback)
{
    Domain domain;
    ASSERT_EQ(tx_begin(), TX_OK);
    EXPECT_EQ(called("DEPOSIT", "ann 100"), "100");
    EXPECT_EQ(called("FAIL", "1").rfind("error", 0), 0u);
    EXPECT_EQ(tx_commit(), TX_ROLLBACK);
    EXPECT_EQ(called("BALANCE", "ann"), "0");
}

TEST(ClhsimTxApplication, ServersResultIsTheCallers)
{
    Domain domain;
    for (int result : {TX_ROLLBACK, TX_MIXED, TX_HAZARD}) {
        ASSERT_EQ(tx_begin(), TX_OK);
        called("DEPOSIT", "ann 100");
        domain.command("result _tx_commit " + std::to_string(result) + " 1");
        EXPECT_EQ(tx_commit(), result);
    }
    ASSERT_EQ(tx_begin(), TX_OK);
    called("DEPOSIT", "ann 100");
    domain.command("refuse _tx_commit 12 1");
    EXPECT_EQ(tx_commit(), TX_FAIL);
    EXPECT_EQ(called("BALANCE", "ann"), "0");
}

TEST(ClhsimTxApplication, ForgottenCommitFailsWhenItsTimeIsUp)
{
    Domain domain({"--tx-timeout", "3"});
    ASSERT_EQ(tx_begin(), TX_OK);
    EXPECT_EQ(called("DEPOSIT", "ann 1"), "1");
    domain.command("drop _tx_commit 1");
    EXPECT_EQ(tx_commit(), TX_FAIL);
    EXPECT_EQ(called("BALANCE", "ann"), "1") << "the server had committed";
}

TEST(ClhsimTxApplication, TimedOutTransactionIsRolledBack)
{
    Domain domain({"--tx-timeout", "3"});
    ASSERT_EQ(tx_begin(), TX_OK);
    EXPECT_EQ(called("DEPOSIT", "ann 1"), "1");
    Buffer slow("1000");
    EXPECT_EQ(call("SLEEP", slow), -1);
    EXPECT_EQ(gettperrno(), TPETIME);
    EXPECT_EQ(tx_commit(), TX_ROLLBACK);
    EXPECT_EQ(domain.stat("rolled_back"), 1);
}

TEST(ClhsimTxApplication, ConversationInATransaction)
{
    Domain domain;
    ASSERT_EQ(tx_begin(), TX_OK);
    int cd = tpconnect(unconst("STREAM"), Buffer("0").data, 0, TPRECVONLY);
    ASSERT_NE(cd, -1);
    Buffer buffer("STRING", 200);
    long event = 0;
    EXPECT_EQ(tprecv(cd, &buffer.data, &buffer.length, 0, &event), -1);
    EXPECT_EQ(event, TPEV_SVCSUCC);
    EXPECT_EQ(tx_commit(), TX_OK);

    ASSERT_EQ(tx_begin(), TX_OK);
    ASSERT_NE(tpconnect(unconst("TURNS"), nullptr, 0, TPSENDONLY), -1);
    EXPECT_EQ(tx_commit(), TX_ROLLBACK) << "it is open still";
    EXPECT_EQ(domain.command("conversations"), "ok");
    EXPECT_EQ(domain.stat("disconnected"), 1);
}

TEST(ClhsimTxApplication, ChainedTransactionsFollowEachOther)
{
    Domain domain;
    ASSERT_EQ(tpstart(nullptr), 0);
    ASSERT_EQ(tx_set_transaction_control(TX_CHAINED), TX_OK);
    ASSERT_EQ(tx_begin(), TX_OK);
    for (int i = 1; i <= 3; i++) {
        EXPECT_EQ(called("DEPOSIT", "ann 1"), std::to_string(i));
        EXPECT_EQ(tx_commit(), TX_OK);
    }
    EXPECT_EQ(domain.stat("begun"), 3);
    EXPECT_EQ(domain.stat("committed"), 3);
}
