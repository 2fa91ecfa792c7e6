// Broadcasts against the scripted peer.
#include "calls/eventapi.h"
#include "calls/fixture.h"
#include "calls/unsolapi.h"

namespace {

constexpr uint32_t ALL_NODES = 0x100, ALL_USERS = 0x200, ALL_CLIENTS = 0x400;

struct BroadcastTest : CallTest {
    // The start reply of a domain whose nodes have one name each.
    static wire::start_reply domain(const std::vector<std::string> &nodes)
    {
        wire::start_reply reply;
        reply.nodes = nodes;
        reply.payload = wire::start_payload(reply);
        constexpr size_t HEAD = 12, ROW = 40, NAME = 16;
        for (size_t i = 0; i < nodes.size(); i++)
            reply.payload.replace(HEAD + i * ROW + NAME, NAME, padded(nodes[i], NAME));
        return reply;
    }
    bool start_recorded(const wire::start_reply &reply = {})
    {
        peer.recording = true;
        return start(reply);
    }
    // The last message on the wire, and its 32 bytes of the destination's name.
    std::string bytes(const wire::frame &frame)
    {
        return peer.received.substr(peer.received.size() - HEADER_SIZE - frame.data.size());
    }
    std::string area(const wire::frame &frame) { return bytes(frame).substr(36, 32); }
    static std::string padded(std::string name, size_t size = 32)
    {
        name.resize(size, '\0');
        return name;
    }
    int send(const char *node, const char *user, const char *client, long flags = 0)
    {
        return tpbroadcast(node, user, client, nullptr, 0, flags);
    }
    void expect_refused(int result, int error)
    {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(get_tperrno(), error);
        peer.expect_nothing();
    }
};

}  // namespace

TEST_F(BroadcastTest, ToAllIsOneMessageThatSelectsNobody)
{
    ASSERT_TRUE(start_recorded());
    EXPECT_EQ(send("*", "*", "*"), 1);
    Expected e = peer.expect(13).flags(0x700).header_only().svcname("*").cd(0);
    EXPECT_EQ(e.frame.rcode, -1);
    EXPECT_EQ(e.frame.target, 0);
    EXPECT_EQ(area(e), padded("*"));
    EXPECT_EQ(send(nullptr, nullptr, nullptr), 1);
    e = peer.expect(13).flags(0x700).svcname("");
    EXPECT_EQ(e.frame.rcode, -1);
    EXPECT_EQ(area(e), padded(""));
    EXPECT_EQ(send("", "", ""), 1);
    e = peer.expect(13).flags(0x700).svcname("");
    EXPECT_EQ(area(e), padded(""));
    peer.expect_nothing();
    expect_idle();
}

TEST_F(BroadcastTest, MessageByteByByte)
{
    ASSERT_TRUE(start_recorded(domain({"alpha", "beta"})));
    EXPECT_EQ(send("beta", "user", "client", TPNOTIME), 1);
    wire::frame e = peer.expect(13);
    wire::frame awaited;
    awaited.msgtype = 13;
    awaited.seqno = e.seqno;
    awaited.rcode = 1;
    awaited.svcname = "user";
    awaited.xflags = e.xflags;
    EXPECT_EQ(bytes(e), wire::encode(awaited).replace(36, 32, padded("client")));
    EXPECT_NE(e.seqno, 0);
}

TEST_F(BroadcastTest, DataGoesFromTheCallersBuffer)
{
    ASSERT_TRUE(start_recorded());
    msg_header *header = message_of(in);
    header->rcode = 5, header->target = 6, header->cd = 7, header->flags = 0xff;
    EXPECT_EQ(tpbroadcast(nullptr, "user", "client", in, 0, 0), 1);
    Expected e = peer.expect(13).flags(ALL_NODES).text("hello").buftype(wire::STRING).cd(0).svcname("user");
    EXPECT_EQ(e.frame.rcode, -1);
    EXPECT_EQ(e.frame.target, 0);
    EXPECT_EQ(area(e), padded("client"));
    char *bytes = new_buffer("CARRAY", "0123456789");
    EXPECT_EQ(tpbroadcast(nullptr, nullptr, nullptr, bytes, 4, 0), 1);
    peer.expect(13).data("0123").buftype(wire::CARRAY);
    tpfree(bytes);
    EXPECT_STREQ(in, "hello");
}

// What the buffer has in the place of the name, a struct's name and a transaction, is its own again.
TEST_F(BroadcastTest, BufferKeepsWhatTheClientNameCovers)
{
    ASSERT_TRUE(start_recorded(domain({"alpha", "beta", "alto"})));
    memcpy((char *)message_of(in) + 36, "0123456789abcdefghijklmnopqrstu", 32);
    msg_header before = *message_of(in);
    EXPECT_EQ(tpbroadcast("al*", nullptr, "cli", in, 0, 0), 1);
    for (int node : {0, 2}) {
        Expected e = peer.expect(13).flags(ALL_USERS).text("hello");
        EXPECT_EQ(e.frame.rcode, node);
        EXPECT_EQ(area(e), padded("cli"));
    }
    EXPECT_STREQ((char *)message_of(in) + 36, "0123456789abcdefghijklmnopqrstu");
    EXPECT_EQ(message_of(in)->bufsize, before.bufsize);
    EXPECT_EQ(message_of(in)->magic, MESSAGE_MAGIC);
}

// Without a client name the place goes out as the buffer has it, byte for byte; the user's likewise.
TEST_F(BroadcastTest, NamesThatAreNullLeaveTheBuffersHeaderAsItStands)
{
    ASSERT_TRUE(start_recorded());
    memcpy((char *)message_of(in) + 36, "0123456789abcdefghijklmnopqrstu", 32);
    put_name(message_of(in)->svcname, sizeof message_of(in)->svcname, "EARLIER");
    EXPECT_EQ(tpbroadcast(nullptr, nullptr, nullptr, in, 0, 0), 1);
    wire::frame e = peer.expect(13).flags(0x700).svcname("EARLIER");
    EXPECT_EQ(area(e), std::string("0123456789abcdefghijklmnopqrstu\0", 32));
    EXPECT_EQ(tpbroadcast(nullptr, "", "*", in, 0, 0), 1);
    e = peer.expect(13).flags(0x700).svcname("");
    EXPECT_EQ(area(e), padded("*"));
}

TEST_F(BroadcastTest, EachNameThatIsMissingSetsItsBit)
{
    ASSERT_TRUE(start(domain({"alpha"})));
    struct {
        const char *node, *user, *client;
        uint32_t bits;
    } cases[] = {{"alpha", "u", "c", 0},
                 {nullptr, "u", "c", ALL_NODES},
                 {"alpha", "*", "c", ALL_USERS},
                 {"alpha", "u", "", ALL_CLIENTS},
                 {"*", "", "c", ALL_NODES | ALL_USERS},
                 {"", "u", nullptr, ALL_NODES | ALL_CLIENTS},
                 {"alpha", nullptr, "*", ALL_USERS | ALL_CLIENTS},
                 {nullptr, "**", "*c", ALL_NODES}};
    for (const auto &c : cases) {
        EXPECT_EQ(send(c.node, c.user, c.client), 1);
        Expected e = peer.expect(13).flags(c.bits);
        EXPECT_EQ(e.frame.rcode, (c.bits & ALL_NODES) != 0 ? -1 : 0);
    }
}

TEST_F(BroadcastTest, NamesOfUsersAndClientsHaveThirtyOneCharacters)
{
    ASSERT_TRUE(start_recorded());
    std::string name(31, 'c');
    EXPECT_EQ(send("", name.c_str(), name.c_str()), 1);
    Expected e = peer.expect(13).flags(ALL_NODES).svcname(name);
    EXPECT_EQ(area(e), padded(name));
    name += 'c';
    expect_refused(send("", "u", name.c_str()), TPEINVAL);
    expect_refused(send("", name.c_str(), "c"), TPEINVAL);
}

TEST_F(BroadcastTest, FlagsOfOthersAreRefusedAndOnesOwnStayHere)
{
    ASSERT_TRUE(start(domain({"alpha"})));
    for (int bit = 0; bit < 64; bit++) {
        long flag = (long)(1UL << bit);
        if ((flag & 0x23) == 0)
            expect_refused(send("", "", "", flag), TPEINVAL);
    }
    expect_refused(send("alpha", "", "", TPNOREPLY), TPEINVAL);
    EXPECT_EQ(send("", "", "", 0x23), 1);
    peer.expect(13).flags(0x700);
    EXPECT_EQ(send("alpha", "", "", 0x23), 1);
    peer.expect(13).flags(ALL_USERS | ALL_CLIENTS);
}

TEST_F(BroadcastTest, PatternSendsToEveryNodeItCovers)
{
    ASSERT_TRUE(start(domain({"alpha", "beta", "alto", "a1", "a2"})));
    struct {
        const char *pattern;
        std::vector<int> nodes;
    } cases[] = {{"al*", {0, 2}}, {"?*", {0, 1, 2, 3, 4}}, {"a[12]", {3, 4}},
                 {"beta", {1}},   {"**", {0, 1, 2, 3, 4}}, {"a?", {3, 4}}};
    for (const auto &c : cases) {
        EXPECT_EQ(send(c.pattern, nullptr, nullptr), 1) << c.pattern;
        EXPECT_EQ(get_tperrno(), 0);
        int32_t last = 0;
        for (int node : c.nodes) {
            Expected e = peer.expect(13).flags(ALL_USERS | ALL_CLIENTS);
            EXPECT_EQ(e.frame.rcode, node) << c.pattern;
            EXPECT_NE(e.frame.seqno, last);
            last = e.frame.seqno;
        }
        peer.expect_nothing();
    }
    for (const char *pattern : {"gamma", "alph", "ALPHA", "a[3-9]", "?"})
        expect_refused(send(pattern, nullptr, nullptr), TPEINVAL);
}

TEST_F(BroadcastTest, PatternIsCutToFifteenCharacters)
{
    std::string name(15, 'n');
    ASSERT_TRUE(start(domain({"other", name})));
    EXPECT_EQ(send((name + "xyz").c_str(), nullptr, nullptr), 1);
    Expected e = peer.expect(13);
    EXPECT_EQ(e.frame.rcode, 1);
    EXPECT_EQ(send(("nnnnnnnnnnnnnn*" + name).c_str(), nullptr, nullptr), 1);
    e = peer.expect(13);
    EXPECT_EQ(e.frame.rcode, 1);
    EXPECT_EQ(send(std::string(4000, '*').c_str(), nullptr, nullptr), 1);
    peer.expect(13), peer.expect(13);
    peer.expect_nothing();
}

// The rows' first names are matched, the second ones looked up.
TEST_F(BroadcastTest, PatternFindsByOneNameAndLooksUpTheOther)
{
    wire::start_reply reply;
    reply.nodes = {"alpha", "beta", "alto"};
    reply.payload = wire::start_payload(reply);
    reply.payload.replace(reply.payload.find("alto.lnid") + 4, 5, 5, '\0');
    ASSERT_TRUE(start(reply));
    EXPECT_EQ(send("al*", nullptr, nullptr), 1);
    Expected e = peer.expect(13).flags(ALL_USERS | ALL_CLIENTS);
    EXPECT_EQ(e.frame.rcode, 2);
    EXPECT_EQ(get_tperrno(), 0);
    expect_refused(send("alpha", nullptr, nullptr), TPEINVAL);
    EXPECT_EQ(_tpbroadcast("beta.lnid", nullptr, nullptr, nullptr, 0, 0, block()), 1);
    e = peer.expect(13);
    EXPECT_EQ(e.frame.rcode, 1);
    expect_refused(_tpbroadcast("beta", nullptr, nullptr, nullptr, 0, 0, block()), TPEINVAL);
    expect_refused(_tpbroadcast("beta*", nullptr, nullptr, nullptr, 0, 0, block()), TPEINVAL);
}

TEST_F(BroadcastTest, OneNodeThatIsReachedIsEnough)
{
    ASSERT_TRUE(start(domain({"a1", "a2", "a3"})));
    faults::fail(faults::SEND, 1, EPIPE);
    EXPECT_EQ(send("a*", nullptr, nullptr), 1);
    EXPECT_EQ(get_tperrno(), 0);
    for (int node : {1, 2})
        EXPECT_EQ(peer.expect(13).frame.rcode, node);
    faults::fail(faults::SEND, 3, EPIPE);
    EXPECT_EQ(send("a*", nullptr, nullptr), 1);
    EXPECT_EQ(get_tperrno(), 0);
    for (int node : {0, 1})
        EXPECT_EQ(peer.expect(13).frame.rcode, node);
    faults::fail(faults::SEND, 1, EPIPE, 3);
    expect_refused(send("a*", nullptr, nullptr), TPECLOSE);
    expect_idle();
}

TEST_F(BroadcastTest, WithoutAnySuccessTheLastFailureIsTold)
{
    ASSERT_TRUE(start(domain({"a1", "a2"})));
    expect_refused(tpbroadcast("a*", nullptr, nullptr, in + 8, 0, 0), TPEITYPE);
    expect_refused(tpbroadcast("a*", nullptr, nullptr, in, 1L << 40, 0), TPEINVAL);
    expect_refused(tpbroadcast("z*", nullptr, nullptr, in + 8, 0, 0), TPEINVAL);
}

TEST_F(BroadcastTest, NamesAreCheckedAheadOfTheData)
{
    ASSERT_TRUE(start(domain({"a1"})));
    std::string name(32, 'x');
    expect_refused(tpbroadcast(nullptr, name.c_str(), nullptr, in + 8, 0, 0), TPEINVAL);
    expect_refused(tpbroadcast(nullptr, nullptr, name.c_str(), in + 8, 0, 0), TPEINVAL);
    expect_refused(tpbroadcast(nullptr, nullptr, nullptr, in + 8, 0, TPNOREPLY), TPEINVAL);
    expect_refused(tpbroadcast(nullptr, nullptr, nullptr, in + 8, 0, 0), TPEITYPE);
    expect_refused(tpbroadcast(nullptr, nullptr, nullptr, in, message_of(in)->bufsize + 1, 0), TPEINVAL);
    char *bytes = new_buffer("CARRAY", "0123456789");
    for (long length : {-1L, -(1L << 40), 1L << 40, 1L << 32, (long)message_of(bytes)->bufsize + 1})
        expect_refused(tpbroadcast(nullptr, nullptr, nullptr, bytes, length, 0), TPEINVAL);
    tpfree(bytes);
}

TEST_F(BroadcastTest, OpensASessionForAnyKindOfDestination)
{
    peer.play([&] {
        peer.accept_start(domain({"alpha", "beta"}));
        EXPECT_EQ(peer.expect(13).frame.rcode, 1);
        peer.serve_end();
        peer.accept_start();
        EXPECT_EQ(peer.expect(13).frame.rcode, -1);
    });
    EXPECT_EQ(send("b*", nullptr, nullptr), 1);
    EXPECT_EQ(tpend(), 1);
    EXPECT_EQ(send(nullptr, "u", nullptr), 1);
    peer.done();
    EXPECT_EQ(current_block()->started, 1);
}

TEST_F(BroadcastTest, WithoutAServerNothingGoesOut)
{
    peer.stop_listening();
    setenv("VORN_CONNECT_TIMEOUT", "0.1", 1);
    EXPECT_EQ(send("b*", nullptr, nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_EQ(send(nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
}

TEST_F(BroadcastTest, ServerThatTellsNoNodesHasNoneToSendTo)
{
    wire::start_reply reply;
    reply.with_payload = false;
    ASSERT_TRUE(start(reply));
    expect_refused(send("a*", nullptr, nullptr), TPEINVAL);
    EXPECT_EQ(send("*", nullptr, nullptr), 1);
    peer.expect(13);
}

TEST_F(BroadcastTest, WithoutMemoryForTheMessage)
{
    ASSERT_TRUE(start(domain({"a1", "a2"})));
    faults::fail_allocation(1);
    expect_refused(send(nullptr, nullptr, nullptr), TPESYSTEM);
    faults::fail_allocation(1);
    EXPECT_EQ(send("a*", nullptr, nullptr), 1);
    faults::disarm_allocations();
    EXPECT_EQ(peer.expect(13).frame.rcode, 1);
    expect_idle();
    expect_usable();
}
