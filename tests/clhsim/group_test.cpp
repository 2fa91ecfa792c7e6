// Server groups, requests that are directed to a group or a process, and the questions about groups, clients
// and servers.
#include "application.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

static constexpr int32_t ENQ = 17;
static constexpr int32_t GETSVG = 46;
static constexpr int32_t GETADDR = 156;
static constexpr int32_t ACTIVESVR = 166;
static constexpr int32_t GETSPR = 225;
static constexpr int32_t NOREPLY = 0x4;
static constexpr int32_t NOTRAN = 0x8;
static constexpr int32_t SVGCALL = 0x800000;
static constexpr uint32_t WHOLE_SERVER = 0x400000;
static constexpr uint32_t PROCESS = 0x100000;
static constexpr int32_t NOENT = 6;

static Message question(int32_t msgtype, const std::string &service)
{
    Message message;
    message.msgtype = msgtype;
    message.svcname = service;
    return message;
}

static Message group_call(const std::string &service, int32_t group, int32_t flags = 0,
                          int32_t msgtype = MSG_TPCALL)
{
    Message message = string_call(service, "tea");
    message.msgtype = msgtype;
    message.flags = flags | SVGCALL;
    message.target = group;
    return message;
}

// The groups of a service, with their count in front.
static std::string groups_of(Link &link, const std::string &service)
{
    Message reply = link.exchange(question(GETSVG, service));
    if (reply.msgtype != GETSVG + 1000)
        return std::to_string(reply.msgtype) + " flags " + std::to_string(reply.flags);
    std::string text = std::to_string(reply.rcode) + ":";
    for (size_t at = 0; at + 4 <= reply.data.size(); at += 4)
        text += " " + std::to_string(get(reply.data, at));
    return text;
}

TEST(ClhsimGroup, ListsTheGroupsOfAService)
{
    Simulator server({"--group", "WHICH=3,65540,131077", "--group", "ECHO=9"});
    Link link = server.log_in();
    EXPECT_EQ(groups_of(link, "WHICH"), "3: 3 65540 131077");
    EXPECT_EQ(groups_of(link, "ECHO"), "1: 9");
    EXPECT_EQ(groups_of(link, "NOWHERE"), "2046 flags 6");
    EXPECT_EQ(groups_of(link, ""), "2046 flags 6");
}

TEST(ClhsimGroup, ServiceWithoutGroupsIsOfferedByOneOfTheNode)
{
    Simulator server({"--node-number", "2"});
    Link link = server.log_in();
    EXPECT_EQ(groups_of(link, "WHICH"), "1: 131073");
    EXPECT_EQ(link.exchange(group_call("WHICH", 131073)).text(), "131073");
}

TEST(ClhsimGroup, CallReachesTheGroupItNames)
{
    Simulator server({"--group", "WHICH=3,65540"});
    Link link = server.log_in();
    EXPECT_EQ(link.exchange(group_call("WHICH", 3)).text(), "3");
    Message reply = link.exchange(group_call("WHICH", 65540, 0, MSG_TPACALL));
    EXPECT_EQ(reply.msgtype, 1004);
    EXPECT_EQ(reply.text(), "65540");
    EXPECT_EQ(link.exchange(string_call("WHICH", "")).text(), "none");
    EXPECT_EQ(server.stat("calls.WHICH"), 3);
    EXPECT_EQ(server.stat("calls.WHICH@3"), 1);
    EXPECT_EQ(server.stat("calls.WHICH@65540"), 1);
}

TEST(ClhsimGroup, GroupThatDoesNotOfferTheServiceIsNoPlaceForIt)
{
    Simulator server({"--group", "WHICH=3,4", "--group", "ECHO=5"});
    Link link = server.log_in();
    for (int32_t group : {5, 0, -1, 65539}) {
        Message reply = link.exchange(group_call("WHICH", group));
        EXPECT_EQ(reply.msgtype, 2003);
        EXPECT_EQ(reply.flags, NOENT);
    }
    Message unmarked = string_call("WHICH", "");
    unmarked.target = 5;
    EXPECT_EQ(link.exchange(unmarked).text(), "none") << "without the flag the word means nothing";
}

TEST(ClhsimGroup, CallWithoutReplyIsCounted)
{
    Simulator server({"--group", "WHICH=3,4"});
    Link link = server.log_in();
    link.send(group_call("WHICH", 4, NOREPLY | NOTRAN, MSG_TPACALL));
    EXPECT_EQ(link.exchange(string_call("ECHO", "next")).text(), "next");
    EXPECT_EQ(server.stat("calls.WHICH@4"), 1);
    EXPECT_EQ(server.stat("calls.WHICH@3"), -1);
}

TEST(ClhsimGroup, OneGroupCanRefuse)
{
    Simulator server({"--group", "WHICH=3,4,5"});
    Link link = server.log_in();
    EXPECT_EQ(server.command("refuse WHICH@4 10"), "ok");
    EXPECT_EQ(link.exchange(group_call("WHICH", 3)).text(), "3");
    Message reply = link.exchange(group_call("WHICH", 4));
    EXPECT_EQ(reply.msgtype, 2003);
    EXPECT_EQ(reply.flags, 10);
    EXPECT_EQ(link.exchange(string_call("WHICH", "")).text(), "none");
    server.command("refuse WHICH 11");
    EXPECT_EQ(link.exchange(group_call("WHICH", 4)).flags, 10) << "its own comes before the service's";
    EXPECT_EQ(link.exchange(group_call("WHICH", 5)).flags, 11);
    server.command("clear WHICH");
    EXPECT_EQ(link.exchange(group_call("WHICH", 4)).flags, 10);
    server.command("clear WHICH@4");
    EXPECT_EQ(link.exchange(group_call("WHICH", 4)).text(), "4");
}

TEST(ClhsimGroup, OneGroupCanBeLateOrSilent)
{
    Simulator server({"--group", "WHICH=3,4,5"});
    Link link = server.log_in();
    server.command("delay WHICH@3 30");
    server.command("drop WHICH@4");
    std::string calls;  // all at once, so that none is late by itself
    for (int32_t group : {3, 4, 5})
        calls += bytes_of(group_call("WHICH", group, 0, MSG_TPACALL));
    link.send(calls);
    EXPECT_EQ(link.receive().text(), "5");
    EXPECT_EQ(link.receive().text(), "3");
    EXPECT_EQ(server.stat("dropped"), 1);
}

TEST(ClhsimGroup, EnqueueForAGroup)
{
    Simulator server({"--group", "WHICH=3,4", "--queues", "ORDERS"});
    Link link = server.log_in();
    Message message = group_call("WHICH", 4, NOTRAN, ENQ);
    message.cd = 0;
    EXPECT_EQ(link.exchange(message).msgtype, 1017);
    Message result = link.receive();
    EXPECT_EQ(result.msgtype, 1025);
    EXPECT_EQ(result.text(), "4");
    message.flags |= NOREPLY;
    EXPECT_EQ(link.exchange(message).msgtype, 1017) << "the acceptance is told all the same";
    message.target = 5;
    Message refused = link.exchange(message);
    EXPECT_EQ(refused.msgtype, 2017);
    EXPECT_EQ(refused.rcode, NOENT);
    server.command("refuse WHICH@3 10");
    message.target = 3;
    message.flags = SVGCALL | NOTRAN;
    EXPECT_EQ(link.exchange(message).msgtype, 1017);
    EXPECT_EQ(link.receive().rcode, 10);
}

TEST(ClhsimGroup, CallOfAServerOrAProcess)
{
    Simulator server;
    Link link = server.log_in();
    Message message = string_call("WHICH", "");
    message.target = 7;
    message.xflags = WHOLE_SERVER;
    EXPECT_EQ(link.exchange(message).text(), "server7");
    message.xflags = PROCESS;
    message.callid[0] = 2;
    EXPECT_EQ(link.exchange(message).text(), "server7.2");
    message.msgtype = MSG_TPACALL;
    message.flags = NOREPLY;
    link.send(message);
    EXPECT_EQ(link.exchange(string_call("ECHO", "next")).text(), "next");
    EXPECT_EQ(server.stat("calls.WHICH@server7"), 1);
    EXPECT_EQ(server.stat("calls.WHICH@server7.2"), 2);
    server.command("refuse WHICH@server7.2 10");
    message.msgtype = MSG_TPCALL;
    message.flags = 0;
    EXPECT_EQ(link.exchange(message).flags, 10);
}

TEST(ClhsimGroup, ProcessListTellsTheServerOfAGroup)
{
    Simulator server({"--group", "WHICH=3,65540"});
    Link link = server.log_in();
    Message asked = question(GETSPR, "WHICH");
    asked.target = 65540;
    Message reply = link.exchange(asked);
    EXPECT_EQ(reply.msgtype, 1225);
    EXPECT_EQ(reply.srcid, 1);
    EXPECT_EQ(reply.target, 1);
    asked.target = 4;
    reply = link.exchange(asked);
    EXPECT_EQ(reply.msgtype, 2225);
    EXPECT_EQ(reply.flags, NOENT);
}

TEST(ClhsimGroup, WrongListsAreRefused)
{
    for (const char *wrong :
         {"WHICH", "WHICH=", "WHICH=x", "WHICH=1,", "WHICH=-1", "WHICH=134217728", "NOWHERE=1", "=1"})
        EXPECT_EQ(run_clhsim({"--group", wrong}).status, 2) << wrong;
}

// --- Clients and servers.

TEST(ClhsimQuery, AddressOfAClient)
{
    Simulator server({"--clh-number", "3"});
    Link link = server.log_in();
    Link other = server.log_in();
    sockaddr_in own = {};
    socklen_t size = sizeof own;
    getsockname(other.fd, reinterpret_cast<sockaddr *>(&own), &size);
    Message asked = question(GETADDR, "");
    for (int32_t number : {2, 3 * 0x4000 + 2}) {  // within this server, and in the whole system
        asked.rcode = number;
        Message reply = link.exchange(asked);
        EXPECT_EQ(reply.msgtype, 1156);
        EXPECT_EQ(reply.rcode, 0x7f000001);
        EXPECT_EQ(reply.cd, ntohs(own.sin_port));
    }
    asked.rcode = 9;
    Message reply = link.exchange(asked);
    EXPECT_EQ(reply.msgtype, 2156);
    EXPECT_EQ(reply.flags, NOENT);
}

TEST(ClhsimQuery, LocalClientHasNoAddress)
{
    Simulator server({"--local", "DIR"});
    Link link = server.log_in();
    Message asked = question(GETADDR, "");
    asked.rcode = 1;
    Message reply = link.exchange(asked);
    EXPECT_EQ(reply.msgtype, 1156);
    EXPECT_EQ(reply.rcode, 0);
    EXPECT_EQ(reply.cd, 0);
}

static int lines_of(const std::string &text)
{
    int count = 0;
    for (char c : text)
        count += c == '\n';
    return count;
}

TEST(ClhsimQuery, ActiveServersAreServicesInTheirGroups)
{
    Simulator server({"--group", "WHICH=3,65540", "--nodes", "NODE1,NODE2"});
    Link link = server.log_in();
    Message all = link.exchange(question(ACTIVESVR, ""));
    EXPECT_EQ(all.msgtype, 1166);
    EXPECT_EQ(all.buftype, STRING);
    EXPECT_EQ(all.rcode, lines_of(all.text()));
    EXPECT_NE(all.text().find("TOUPPER 1\n"), std::string::npos);
    EXPECT_NE(all.text().find("WHICH 3\nWHICH 65540\n"), std::string::npos);
    Message second = link.exchange(question(ACTIVESVR, "NODE2"));
    EXPECT_EQ(second.rcode, 1);
    EXPECT_EQ(second.text(), "WHICH 65540\n");
    EXPECT_EQ(link.exchange(question(ACTIVESVR, "NODE1")).rcode, all.rcode - 1);
    Message unknown = link.exchange(question(ACTIVESVR, "NODE3"));
    EXPECT_EQ(unknown.msgtype, 2166);
    EXPECT_EQ(unknown.flags, NOENT);
}

TEST(ClhsimQuery, QuestionsHaveFaultsOfTheirOwn)
{
    Simulator server;
    Link link = server.log_in();
    const std::pair<const char *, int32_t> questions[] = {
        {"_getsvg", GETSVG}, {"_getspr", GETSPR}, {"_getaddr", GETADDR}, {"_getactivesvr", ACTIVESVR}};
    for (auto [name, msgtype] : questions) {
        server.command(std::string("refuse ") + name + " 24 1");
        Message reply = link.exchange(question(msgtype, "WHICH"));
        EXPECT_EQ(reply.msgtype, msgtype + 2000);
        EXPECT_EQ(reply.flags, 24);
    }
    server.command("refuse WHICH 10");
    EXPECT_EQ(groups_of(link, "WHICH"), "1: 1") << "a service's faults are its calls'";
}

// --- For an application.

TEST(ClhsimGroupApplication, CallsOneGroup)
{
    Domain domain({"--group", "WHICH=3,65540"});
    Buffer buffer("");
    EXPECT_EQ(tpcallsvg(65540, unconst("WHICH"), buffer.data, 0, &buffer.data, &buffer.length, 0), 1);
    EXPECT_STREQ(buffer.data, "65540");
    EXPECT_EQ(tpcallsvg(4, unconst("WHICH"), buffer.data, 0, &buffer.data, &buffer.length, 0), -1);
    EXPECT_EQ(gettperrno(), TPENOENT);
    tpend();
}

TEST(ClhsimGroupApplication, MulticastTellsWhatBecameOfEachCall)
{
    Domain domain({"--group", "WHICH=3,4,65540", "--acall-size", "2"});
    domain.command("refuse WHICH@4 10");
    domain.command("delay WHICH@3 20");
    Buffer buffer("tea");
    mcallx_result *result = tpmcallx(unconst("WHICH"), buffer.data, 0, 0);
    ASSERT_NE(result, nullptr) << gettperrno();
    ASSERT_EQ(result->count, 3);
    EXPECT_EQ(result->list[2], 65540);
    EXPECT_EQ(result->errors[0], 0);
    EXPECT_EQ(result->errors[1], TPESVCERR);
    EXPECT_EQ(result->errors[2], 0);
    tpend();
}

TEST(ClhsimGroupApplication, MulticastWithoutReplyReachesAllGroups)
{
    Domain domain({"--group", "WHICH=3,4", "--queues", "ORDERS"});
    Buffer buffer("tea");
    mcall_result *result = tpmcall(nullptr, unconst("WHICH"), buffer.data, 0, 0);
    ASSERT_NE(result, nullptr) << gettperrno();
    EXPECT_EQ(result->count, 2);
    EXPECT_EQ(result->failed, 0);
    result = tpmcall(unconst("ORDERS"), unconst("WHICH"), buffer.data, 0, 0);
    ASSERT_NE(result, nullptr) << gettperrno();
    EXPECT_EQ(result->failed, 0);
    EXPECT_EQ(domain.stat("calls.WHICH@3"), 1) << "without a queue";
    EXPECT_EQ(domain.stat("calls.WHICH"), 4);
    tpend();
}

TEST(ClhsimGroupApplication, CallOfAProcessWithoutReply)
{
    Domain domain;
    Buffer buffer("tea");
    EXPECT_NE(tpspracall2(unconst("WHICH"), 7, 2, buffer.data, 0, TPNOREPLY), -1);
    EXPECT_EQ(call("ECHO", buffer), 1);
    EXPECT_EQ(domain.stat("calls.WHICH@server7.2"), 1);
    tpend();
}

TEST(ClhsimQueryApplication, AsksForAddressesAndServers)
{
    Domain domain;
    Buffer buffer("");
    int address = 0;
    int port = 0;
    EXPECT_EQ(tpgetcliaddr(1, &address, &port, 0), 0);
    EXPECT_EQ(address, 0x7f000001);
    sockaddr_in own = {};
    socklen_t size = sizeof own;
    EXPECT_EQ(tpgetsockname(reinterpret_cast<sockaddr *>(&own), &size), 0);
    EXPECT_EQ(port, ntohs(own.sin_port));
    char *servers = nullptr;
    int count = tpgetactivesvr(nullptr, &servers);
    ASSERT_NE(servers, nullptr);
    EXPECT_EQ(count, lines_of(servers));
    tpfree(servers);
    int first = -1;
    int second = -1;
    EXPECT_EQ(tpgetsprlist(unconst("WHICH"), 1, &first, &second), 1);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
    tpend();
}
