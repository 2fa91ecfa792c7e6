// A request's data may name the node on which it is to run: a field of the data that the services of the
// transaction processing itself look at.
#include "calls/cscommon.h"
#include "runtime/mthr.h"
#include "support/gtest.h"
#include "vorn/buffers.h"
#include "vorn/errors.h"
#include "vorn/fields.h"
#include "vorn/flags.h"
#include "wire/msgheader.h"

#include <string.h>

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
