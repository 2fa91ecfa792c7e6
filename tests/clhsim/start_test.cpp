// The start exchange and its end.
#include "simulator.h"

#include <gtest/gtest.h>

static std::string name16(const std::string &name)
{
    return name + std::string(16 - name.size(), '\0');
}

static std::string word(uint32_t value)
{
    std::string bytes(4, '\0');
    put(bytes, 0, value);
    return bytes;
}

TEST(ClhsimStart, HeaderOnlyStartGetsTheDefaults)
{
    Simulator server;
    Link link = server.connect();
    Message reply = link.start();
    EXPECT_EQ(reply.msgtype, 1001);
    EXPECT_EQ(reply.flags, 0);
    EXPECT_EQ(reply.rcode, 256);
    EXPECT_EQ(reply.cd, 64);
    EXPECT_EQ(reply.prio, 1);
    EXPECT_EQ(reply.value, 1);
    EXPECT_EQ(reply.xid[0], 0);
    EXPECT_EQ(reply.xid[1], 60);
    EXPECT_EQ(reply.xid[2], 60);
    EXPECT_EQ(reply.sessid, 1);
    EXPECT_EQ(reply.svcname, "_tpstart");
    EXPECT_EQ(reply.data, word(1) + word(0) + word(0) + name16("NODE1") + name16("NODE1") + word(0) +
                              word(0) + word(0xffffffff));
}

TEST(ClhsimStart, ReplySaysWhatTheOptionsSay)
{
    Simulator server({"--acall-size",
                      "7",
                      "--conv-size=3",
                      "--block-time",
                      "11",
                      "--tx-timeout",
                      "12",
                      "--engine-version",
                      "5",
                      "--clh-number",
                      "200",
                      "--node-number",
                      "3",
                      "--first-client",
                      "41",
                      "--nodes",
                      "tokyo:t1,osaka,a234567890123456",
                      "--queues",
                      "q1,queue-two",
                      "--threshold",
                      "4000",
                      "--server-name",
                      "INFOSVC"});
    Message reply = server.connect().start();
    EXPECT_EQ(reply.rcode, 7);
    EXPECT_EQ(reply.cd, 3);
    EXPECT_EQ(reply.prio, 5);
    EXPECT_EQ(reply.value, 41);
    EXPECT_EQ(reply.xid[0], 3 << 8 | 200);
    EXPECT_EQ(reply.xid[1], 12);
    EXPECT_EQ(reply.xid[2], 11);
    std::string rows = name16("tokyo") + name16("t1") + word(0) + word(0) + name16("osaka") +
                       name16("osaka") + word(0) + word(0) + "a234567890123456a234567890123456" + word(0) +
                       word(0);
    EXPECT_EQ(reply.data, word(3) + word(2) + word(0) + rows + name16("q1") + name16("queue-two") +
                              word(4000) + word(0) + word(7) + "INFOSVC");
    EXPECT_EQ(reply.datalen, 12 + 3 * 40 + 2 * 16 + 4 + 8 + 7);
}

TEST(ClhsimStart, LongServerNameIsCutAt31)
{
    Simulator server({"--server-name", "N23456789012345678901234567890123"});
    Message reply = server.connect().start();
    EXPECT_EQ(reply.data.substr(12 + 40 + 4), word(0) + word(31) + "N234567890123456789012345678901");
}

TEST(ClhsimStart, WithoutPayloadTheReplyIsHeaderOnly)
{
    Simulator server({"--no-payload"});
    Message reply = server.connect().start();
    EXPECT_EQ(reply.msgtype, 1001);
    EXPECT_EQ(reply.datalen, 0);
}

TEST(ClhsimStart, NodesMayBeNone)
{
    Simulator server({"--nodes", ""});
    EXPECT_EQ(server.connect().start().data, word(0) + word(0) + word(0) + word(0xffffffff));
}

TEST(ClhsimStart, TpinitIsAnsweredInKind)
{
    Simulator server;
    Link link = server.connect();
    Message start;
    start.msgtype = MSG_TPINIT;
    start.svcname = "_tpstart";
    Message reply = link.exchange(start);
    EXPECT_EQ(reply.msgtype, 1021);
    EXPECT_EQ(reply.rcode, 256);
    EXPECT_EQ(link.exchange(string_call("TOUPPER", "abc")).text(), "ABC");
}

TEST(ClhsimStart, ClientNumbersAreCountedUp)
{
    Simulator server({"--first-client", "8190"});
    std::vector<Link> links;
    for (int expected : {8190, 8191, 0, 1}) {
        links.push_back(server.connect());
        EXPECT_EQ(links.back().start().value, expected);
    }
}

TEST(ClhsimStart, SecondStartOnAConnectionIsAProtocolError)
{
    Simulator server;
    Link link = server.log_in();
    Message reply = link.start();
    EXPECT_EQ(reply.msgtype, 2001);
    EXPECT_EQ(reply.target, 9);
    EXPECT_EQ(link.exchange(string_call("TOUPPER", "still there")).text(), "STILL THERE");
}

TEST(ClhsimStart, RefusedLoginSaysWhyInTarget)
{
    Simulator server({"--refuse-login"});
    Link link = server.connect();
    Message reply = link.start("bob");
    EXPECT_EQ(reply.msgtype, 2001);
    EXPECT_EQ(reply.target, 25);
    EXPECT_EQ(reply.datalen, 0);
    EXPECT_EQ(server.command("login accept"), "ok");
    EXPECT_EQ(link.start("bob").msgtype, 1001);
    EXPECT_EQ(server.stat("refused_logins"), 1);
    EXPECT_EQ(server.stat("logins"), 1);
}

TEST(ClhsimStart, RefusedTpinitIsAnsweredInKind)
{
    Simulator server({"--refuse-login"});
    Message start;
    start.msgtype = MSG_TPINIT;
    Message reply = server.connect().exchange(start);
    EXPECT_EQ(reply.msgtype, 2021);
    EXPECT_EQ(reply.target, 25);
}

TEST(ClhsimStart, OnlyKnownUsersAreLetIn)
{
    Simulator server({"--user", "bob:secret", "--user", "eve", "--user", "al:one:two"});
    struct Try {
        const char *user;
        const char *cred1;
        const char *cred2;
        bool in;
    };
    const Try tries[] = {
        {"bob", "secret", "", true}, {"bob", "wrong", "", false}, {"bob", "", "", false},
        {"eve", "", "", true},       {"eve", "any", "any", true}, {"mallory", "secret", "", false},
        {"al", "one", "two", true},  {"al", "one", "", false},    {"al", "two", "one", false}};
    for (const Try &one : tries) {
        Message reply = server.connect().start(one.user, "c", one.cred1, one.cred2);
        EXPECT_EQ(reply.msgtype, one.in ? 1001 : 2001) << one.user << " " << one.cred1 << " " << one.cred2;
        EXPECT_EQ(reply.target, one.in ? 0 : 25);
    }
    EXPECT_EQ(server.connect().start().target, 25) << "a start without a name";
}

TEST(ClhsimStart, NameOfFullLengthWithoutNulIsBounded)
{
    Simulator server({"--user", "123456789012345678"});
    Link link = server.connect();
    EXPECT_EQ(link.start("123456789012345678", "abcdefghijklmnopqr").msgtype, 1001);
    EXPECT_NE(server.command("clients").find("user \"123456789012345678\" name \"abcdefghijklmnopqr\""),
              std::string::npos);
}

TEST(ClhsimStart, ShortLoginRecordCountsAsEmptyFields)
{
    Simulator server({"--user", "bob:secret"});
    for (size_t length : {1, 17, 18, 40}) {
        Message start;
        start.msgtype = MSG_TPSTART;
        start.data = std::string(length, 'b');
        EXPECT_EQ(server.connect().exchange(start).msgtype, 2001) << length;
    }
}

TEST(ClhsimStart, CallBeforeLoginIsAProtocolError)
{
    Simulator server;
    Link link = server.connect();
    Message reply = link.exchange(string_call("TOUPPER", "abc"));
    EXPECT_EQ(reply.msgtype, 2003);
    EXPECT_EQ(reply.flags, 9);
    EXPECT_EQ(link.start().msgtype, 1001);
}

TEST(ClhsimStart, EndIsAnsweredAndTheConnectionClosed)
{
    Simulator server;
    Link link = server.log_in();
    Message end;
    end.msgtype = MSG_TPEND;
    end.svcname = "_tpend";
    EXPECT_EQ(link.exchange(end).msgtype, 1002);
    EXPECT_TRUE(link.ended());
}

TEST(ClhsimStart, FaultsReachTheStartAndTheEnd)
{
    Simulator server;
    Link link = server.connect();
    server.command("refuse _tpstart 12 1");
    EXPECT_EQ(link.start().target, 12);
    EXPECT_EQ(link.start().msgtype, 1001);

    Message end;
    end.msgtype = MSG_TPEND;
    server.command("refuse _tpend 12 1");
    Message refused = link.exchange(end);
    EXPECT_EQ(refused.msgtype, 2002);
    EXPECT_EQ(refused.flags, 12);
    server.command("drop _tpend 1");
    link.send(end);
    EXPECT_EQ(link.exchange(string_call("TOUPPER", "a")).text(), "A")
        << "the dropped end left nothing in between";
    EXPECT_EQ(link.exchange(end).msgtype, 1002);
}

TEST(ClhsimStart, TruncatedStartReplyEndsTheConnection)
{
    Simulator server;
    server.command("truncate _tpstart 100");
    Link link = server.connect();
    Message start;
    start.msgtype = MSG_TPSTART;
    link.send(start);
    EXPECT_EQ(link.read_rest().size(), 100u);
}
