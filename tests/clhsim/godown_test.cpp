// A server that goes down in order: the warning, what is given back, what is answered, and the end; and the
// count that tells whether each call was done once.
#include "application.h"
#include "support/ports.h"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

static constexpr uint32_t GIVEN_BACK = 0x20000000;
static constexpr int32_t NOREPLY = 0x4;
static constexpr int32_t NOTRAN = 0x8;
static constexpr int32_t START = 0x4000000;
static constexpr int32_t COMMIT = 32;
static constexpr int32_t TRAN = 14;

// The urgent byte, which comes beside the stream; -1 if there is none.
static int urgent_byte(Link &link, int limit_ms = 30000)
{
    pollfd waiting = {link.fd, POLLPRI, 0};
    if (poll(&waiting, 1, limit_ms) != 1 || !(waiting.revents & POLLPRI))
        return -1;
    unsigned char byte = 0;
    return recv(link.fd, &byte, 1, MSG_OOB) == 1 ? byte : -1;
}

static bool can_connect(const Simulator &server)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(server.port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Link link(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return connect(link.fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
}

static void expect_given_back(const Message &back, const Message &request)
{
    EXPECT_EQ(back.msgtype, request.msgtype + 2000);
    EXPECT_EQ(back.xflags, request.xflags | GIVEN_BACK);
    EXPECT_EQ(back.seqno, request.seqno);
    EXPECT_EQ(back.flags, request.flags);
    EXPECT_EQ(back.rcode, request.rcode);
    EXPECT_EQ(back.svcname, request.svcname);
    EXPECT_EQ(back.data, request.data);
}

TEST(ClhsimGodown, ServerWarnsClosesAndEnds)
{
    Simulator server({"--leave-time", "20"});
    Link one = server.log_in(), two = server.log_in();
    EXPECT_EQ(server.command("godown"), "ok");
    EXPECT_EQ(urgent_byte(one), 217);
    EXPECT_EQ(urgent_byte(two), 217);
    EXPECT_TRUE(one.ended());
    EXPECT_TRUE(two.ended());
    one.close();
    two.close();
    EXPECT_EQ(server.wait(), 0);
}

TEST(ClhsimGodown, ServerWithoutClientsEndsAtOnce)
{
    Simulator server;
    EXPECT_EQ(server.command("godown"), "ok");
    EXPECT_EQ(server.wait(), 0);
}

TEST(ClhsimGodown, NobodyNewComesIn)
{
    int port = 0, held = hold_port(&port);  // which nobody else is given when the server listens no more
    Simulator server({"--port", std::to_string(port)});
    Link link = server.log_in();
    Link waiting = server.connect();
    waiting.send(string_call("ECHO", "x"));
    waiting.receive();  // it is connected, and not logged in
    server.command("godown");
    EXPECT_FALSE(can_connect(server));
    EXPECT_TRUE(waiting.ended());
    link.close();
    waiting.close();
    EXPECT_EQ(server.wait(), 0);
    close(held);
}

TEST(ClhsimGodown, SilentOneDoesntWarn)
{
    Simulator server({"--leave-time", "100000"});
    Link link = server.log_in();
    server.command("godown silent");
    Message call = string_call("ECHO", "x");
    expect_given_back(link.exchange(call), call);
    EXPECT_EQ(urgent_byte(link, 0), -1);
    link.close();
    EXPECT_EQ(server.wait(), 0);
}

TEST(ClhsimGodown, RequestsAreGivenBackAsTheyCame)
{
    Simulator server({"--leave-time", "100000", "--queues", "Q"});
    Link link = server.log_in();
    server.command("godown");
    Message call = string_call("TOUPPER", "abc");
    call.xflags = 0x02000000;
    call.flags = NOTRAN;
    call.callid[2] = 17;
    Message back = link.exchange(call);
    expect_given_back(back, call);
    EXPECT_EQ(back.callid[2], 17);
    Message quiet = call_of("ECHO", "no reply", MSG_TPACALL, CARRAY, 5);
    quiet.flags = NOREPLY;
    expect_given_back(link.exchange(quiet), quiet);
    for (int32_t type : {5, 12, 17, 18, 27, 181}) {
        Message request = call_of("ECHO", "x", type, CARRAY, 90 + type);
        request.rcode = 5;
        expect_given_back(link.exchange(request), request);
    }
    EXPECT_EQ(server.stat("calls"), 0);
    EXPECT_EQ(server.stat("given_back"), 8);
    link.close();
    EXPECT_EQ(server.wait(), 0);
}

TEST(ClhsimGodown, WhatHasBegunIsAnswered)
{
    Simulator server({"--leave-time", "0"});
    Link link = server.log_in();
    link.send(string_call("SLEEP", "2"));  // time enough for all that follows
    while (server.stat("calls") != 1)
        usleep(1000);
    server.command("godown");
    Message late = call_of("ECHO", "late", MSG_TPACALL, STRING, 9);
    expect_given_back(link.exchange(late), late);
    EXPECT_EQ(link.receive().text(), "2");
    EXPECT_TRUE(link.ended());
    link.close();
    EXPECT_EQ(server.wait(), 0);
}

TEST(ClhsimGodown, RequestsKeepTheConnectionAlive)
{
    Simulator server({"--leave-time", "1500"});
    Link link = server.log_in();
    server.command("godown");
    Message call = string_call("ECHO", "x");
    for (int i = 0; i < 7; i++) {  // longer in all, and each pause is far shorter
        expect_given_back(link.exchange(call), call);
        usleep(250000);
    }
    EXPECT_TRUE(link.ended());
    link.close();
    EXPECT_EQ(server.wait(), 0);
}

TEST(ClhsimGodown, OneClientCanBeSentAway)
{
    Simulator server({"--leave-time", "20"});
    Link one = server.log_in(), two = server.log_in();
    EXPECT_EQ(server.command("godown 1"), "ok 1 client");
    EXPECT_EQ(urgent_byte(one), 217);
    EXPECT_TRUE(one.ended());
    EXPECT_EQ(two.exchange(string_call("TOUPPER", "stays")).text(), "STAYS");
    EXPECT_EQ(urgent_byte(two, 0), -1);
    Link again = server.log_in();
    EXPECT_EQ(again.exchange(string_call("TOUPPER", "new")).text(), "NEW");
    EXPECT_EQ(server.command("godown 2 silent"), "ok 1 client");
    EXPECT_TRUE(two.ended());
}

TEST(ClhsimGodown, EndOfTheSessionIsAnswered)
{
    Simulator server({"--leave-time", "100000"});
    Link link = server.log_in();
    server.command("godown");
    Message end;
    end.msgtype = MSG_TPEND;
    end.svcname = "_tpend";
    EXPECT_EQ(link.exchange(end).msgtype, 1002);
    EXPECT_TRUE(link.ended());
    link.close();
    EXPECT_EQ(server.wait(), 0);
}

TEST(ClhsimGodown, HalfATransactionIsntGivenBack)
{
    Simulator server({"--leave-time", "100000"});
    Link link = server.log_in();
    Message deposit = string_call("DEPOSIT", "ann 5");
    deposit.flags = START;
    EXPECT_EQ(link.exchange(deposit).text(), "5");
    server.command("godown all");
    deposit.flags = 0;
    Message refused = link.exchange(deposit);
    EXPECT_EQ(refused.msgtype, 2003);
    EXPECT_EQ(refused.flags, TRAN);
    EXPECT_EQ(refused.xflags & GIVEN_BACK, 0u);
    Message outside = string_call("BALANCE", "ann");
    outside.flags = NOTRAN;
    expect_given_back(link.exchange(outside), outside);
    Message commit;
    commit.msgtype = COMMIT;
    commit.svcname = "_tx_commit";
    Message result = link.exchange(commit);
    EXPECT_EQ(result.msgtype, 1032);
    EXPECT_EQ(result.rcode, -2);
    EXPECT_EQ(server.stat("rolled_back"), 1);
}

TEST(ClhsimGodown, OpenConversationIsBrokenOff)
{
    Simulator server({"--leave-time", "20"});
    Link link = server.log_in();
    Message connect = call_of("TURNS", "hello", 5);
    connect.flags = 0x800;
    Message opened = link.exchange(connect);
    EXPECT_EQ(opened.msgtype, 1005);
    server.command("godown 1");
    Message end = link.receive();
    EXPECT_EQ(end.msgtype, 8);
    EXPECT_EQ(end.cd, opened.cd);
    EXPECT_TRUE(link.ended());
}

TEST(ClhsimGodown, CommandKnowsItsClients)
{
    Simulator server;
    Link link = server.log_in();
    for (const char *line : {"godown 7", "godown 7 silent", "godown 1 loudly", "godown 1 2 silent"})
        EXPECT_EQ(server.command(line).rfind("error ", 0), 0u) << line;
    EXPECT_EQ(link.exchange(string_call("TOUPPER", "a")).text(), "A");
}

TEST(ClhsimGodown, WhoHasntLoggedInIsOwedNothing)
{
    Simulator server({"--leave-time", "20", "--encipher"});
    Link link = server.connect();
    EXPECT_EQ(server.command("godown"), "ok");
    EXPECT_TRUE(link.ended()) << "who hasn't logged in is owed nothing";
    link.close();
    EXPECT_EQ(server.wait(), 0);
}

// --- COUNT.

TEST(ClhsimCount, KeepsEachNumberAndShowsThoseThatCameTwice)
{
    Simulator server;
    Link link = server.log_in();
    for (const char *number : {"1", "2", "3", "2"})
        EXPECT_EQ(link.exchange(string_call("COUNT", number)).text(), number);
    EXPECT_EQ(server.command("counts"), "  calls 4\n  numbers 3\n  twice 2\nok");
    for (const char *wrong : {"", "x", "-1", "1 2", "99999999999999999999"})
        EXPECT_EQ(link.exchange(string_call("COUNT", wrong)).flags, 4) << wrong;
    EXPECT_EQ(server.command("counts").rfind("  calls 4\n", 0), 0u);
}

TEST(ClhsimCount, ServersShareAFile)
{
    Simulator keeper;  // for its directory
    std::string file = keeper.directory + "/counts";
    Simulator one({"--count-file", file}), two({"--count-file", file});
    Link first = one.log_in(), second = two.log_in();
    first.exchange(string_call("COUNT", "1"));
    second.exchange(string_call("COUNT", "2"));
    first.exchange(string_call("COUNT", "3"));
    for (Simulator *server : {&one, &two})
        EXPECT_EQ(server->command("counts"), "  calls 3\n  numbers 3\nok");
}

// A client by hand that moves in the middle of its work: what it gets back goes to the other server, and each
// call is done once.
TEST(ClhsimCount, NothingIsLostOrDoneTwiceInAMove)
{
    Simulator keeper;
    std::string file = keeper.directory + "/counts";
    Simulator main_server({"--count-file", file, "--leave-time", "2000"});
    Simulator backup({"--count-file", file});
    Link old_link = main_server.log_in(), new_link = backup.log_in();
    constexpr int CALLS = 200;
    main_server.command("delay COUNT 5");
    for (int i = 0; i < CALLS; i++) {
        old_link.send(call_of("COUNT", std::to_string(i) + std::string(1, 0), MSG_TPACALL, STRING, i));
        if (i == CALLS / 2)
            main_server.command("godown");
    }
    int answered = 0;
    for (int i = 0; i < CALLS; i++) {
        Message reply = old_link.receive();
        if (reply.msgtype == 1004)
            answered++;
        else if (reply.xflags & GIVEN_BACK)
            answered +=
                new_link.exchange(call_of("COUNT", reply.data, MSG_TPACALL, STRING, reply.seqno)).msgtype ==
                1004;
    }
    EXPECT_EQ(answered, CALLS);
    EXPECT_TRUE(old_link.ended());
    EXPECT_EQ(backup.command("counts"), "  calls 200\n  numbers 200\nok");
    old_link.close();
    EXPECT_EQ(main_server.wait(), 0);
}
