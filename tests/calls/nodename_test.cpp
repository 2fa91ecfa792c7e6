// A request's data may name the node on which it is to run: a field of the data that the services of the
// transaction processing itself look at.
#include "calls/groups.h"
#include "vorn/fields.h"

namespace {

constexpr int NODE_NAME = 0x1cf42545;

struct NodeName : testing::Test {
    wthr_var *block = nullptr;
    FBUF *fields = nullptr;
    msg_header *message = nullptr;

    void SetUp() override
    {
        block = current_block();
        ASSERT_NE(block, nullptr);
        block->started = 1;
        fields = fballoc(10, 200);
        ASSERT_NE(fields, nullptr);
        message = message_of((char *)fields);
        memcpy(message->svcname, "SVC", 4);
        set_tperrno(0);
    }

    void TearDown() override { fbfree(fields); }

    void put_node(const char *name) { ASSERT_EQ(fbput(fields, NODE_NAME, (char *)name, 0), 1); }
};

// In a session whose server knows the nodes.
struct KnownNode : GroupTest {
    wire::start_reply server;
    FBUF *fields = nullptr;

    KnownNode()
    {
        server.nodes = {"NODE0", "NODE1", "a name of 16 chr"};
        server.server_name = "SPECIAL";
        fields = fballoc(10, 200);
    }
    ~KnownNode() override { fbfree(fields); }

    void put_node(const char *name) { ASSERT_EQ(fbput(fields, NODE_NAME, (char *)name, 0), 1); }

    int group_of(const char *node)
    {
        put_node(node);
        set_tperrno(0);
        return _get_mysvgno_from_nodename("SVC", (char *)fields, block());
    }

    int call_special(void) { return tpcall(svc("SPECIAL"), (char *)fields, 0, &out, &len, 0); }
};

}  // namespace

TEST_F(NodeName, IsThereOnceTheDataHoldsOne)
{
    EXPECT_EQ(_isexist_nodename_fld((char *)fields), 0);
    const int number = 5;
    ASSERT_EQ(fbput(fields, fbmake_fldkey(FB_INT, 16000325), (char *)&number, 0), 1);
    EXPECT_EQ(_isexist_nodename_fld((char *)fields), 0) << "the number alone doesn't make it";
    put_node("A");
    EXPECT_NE(_isexist_nodename_fld((char *)fields), 0);
}

TEST_F(NodeName, CountsAsAbsentOnceItHasBeenRead)
{
    char value[16];
    put_node("A");
    ASSERT_EQ(fbget(fields, NODE_NAME, value, nullptr), 1);
    EXPECT_EQ(_isexist_nodename_fld((char *)fields), 0);
}

TEST_F(NodeName, OfNoNodeIsRefused)
{
    block->node_count = 3;
    put_node("NOWHERE");
    EXPECT_EQ(_get_mysvgno_from_nodename("SVC", (char *)fields, block), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
}

TEST_F(NodeName, ThatIsUnknownRefusesTheRequest)
{
    block->node_count = 3;
    put_node("NOWHERE");
    EXPECT_EQ(_check_tipsvc(message, block), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(message->target, 0);
    EXPECT_EQ(message->flags & TPSVGCALL, 0u);
}

// A longer name than any node's is one that isn't there.
TEST_F(NodeName, MayBeOfAnyLength)
{
    block->node_count = 3;
    put_node("a name that is far longer than the names of nodes can be");
    EXPECT_EQ(_check_tipsvc(message, block), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
}

TEST_F(NodeName, LeavesARequestOfAnotherTypeAlone)
{
    block->node_count = 1;
    put_node("NOWHERE");
    message->buftype = BUF_CARRAY;
    EXPECT_EQ(_check_tipsvc(message, block), 1);
    message->buftype = BUF_FIELD;
}

TEST_F(KnownNode, GivesTheFirstOfTheServicesGroupsOnIt)
{
    ASSERT_TRUE(open(server));
    peer.play([&] {
        expect_header(peer.expect(wire::GETSVG), bare(wire::GETSVG, "SVC"));
        peer.reply(words({5, 0x20006, 0x10007, 0x10008}), {.rcode = 4, .buftype = wire::CARRAY});
    });
    EXPECT_EQ(group_of("NODE1"), 0x10007);
    EXPECT_EQ(gettperrno(), 0);
    peer.done();
}

TEST_F(KnownNode, IsTheFirstOneToo)
{
    ASSERT_TRUE(open(server));
    peer.play([&] { tell_groups({0x10007, 9, 5}); });
    EXPECT_EQ(group_of("NODE0"), 9);
    peer.done();
}

// Only the bits 16 to 26 are the node.
TEST_F(KnownNode, IsElevenBitsOfTheGroup)
{
    ASSERT_TRUE(open(server));
    peer.play([&] { tell_groups({0x08000005, 0x08010006, 0x10007}); });
    EXPECT_EQ(group_of("NODE1"), 0x08010006);
    peer.done();
}

TEST_F(KnownNode, MayHaveNoGroupOfTheService)
{
    ASSERT_TRUE(open(server));
    for (const std::vector<uint32_t> &groups : {std::vector<uint32_t>{5, 0x20006}, std::vector<uint32_t>{}}) {
        peer.play([&] { tell_groups(groups); });
        EXPECT_EQ(group_of("NODE1"), -1);
        EXPECT_EQ(gettperrno(), 0);
        peer.done();
        fbfree(fields);
        fields = fballoc(10, 200);
    }
}

TEST_F(KnownNode, NeedsTheListOfGroups)
{
    ASSERT_TRUE(open(server));
    peer.play([&] {
        peer.expect(wire::GETSVG);
        peer.reply("", {.flags = TPESVCERR});
    });
    EXPECT_EQ(group_of("NODE1"), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    peer.done();
}

TEST_F(KnownNode, LostConnectionIsAnInvalidNode)
{
    ASSERT_TRUE(open(server));
    peer.play([&] {
        peer.expect(wire::GETSVG);
        peer.hang_up();
    });
    EXPECT_EQ(group_of("NODE1"), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    peer.done();
}

TEST_F(KnownNode, UnknownOneAsksNobody)
{
    ASSERT_TRUE(open(server));
    EXPECT_EQ(group_of("NODE9"), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    peer.expect_nothing();
}

TEST_F(KnownNode, AloneIsTheOneWhateverItsName)
{
    server.nodes = {"NODE0"};
    ASSERT_TRUE(open(server));
    peer.play([&] { tell_groups({0x10007, 3}); });
    EXPECT_EQ(group_of("NOWHERE"), 3);
    peer.done();
}

TEST_F(KnownNode, TakesTheRequestToItsGroup)
{
    ASSERT_TRUE(open(server));
    put_node("NODE1");
    peer.play([&] {
        peer.expect(wire::GETSVG).svcname("SPECIAL");
        peer.reply(words({5, 0x10007}), {.rcode = 2, .buftype = wire::CARRAY});
        EXPECT_EQ(peer.expect(wire::TPCALL).flags(0x800000).frame.target, 0x10007);
        peer.reply("x");
    });
    EXPECT_EQ(call_special(), 1);
    peer.done();
}

// Group 0 is no direction.
TEST_F(KnownNode, GroupZeroLeavesTheRequestAsItIs)
{
    ASSERT_TRUE(open(server));
    put_node("NODE0");
    peer.play([&] {
        tell_groups({0, 5});
        EXPECT_EQ(peer.expect(wire::TPCALL).flags(0).frame.target, 0);
        peer.reply("x");
    });
    EXPECT_EQ(call_special(), 1);
    peer.done();
}

TEST_F(KnownNode, WithoutAGroupRefusesTheRequest)
{
    ASSERT_TRUE(open(server));
    put_node("NODE1");
    peer.play([&] { tell_groups({5}); });
    EXPECT_EQ(call_special(), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    peer.done();
    peer.expect_nothing();
}
