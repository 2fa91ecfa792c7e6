// The tests' own tools can fail: expectations of the scripted peer that aren't met are failures, and a client
// that waits meanwhile gets an end instead of an answer.
#include <errno.h>
#include <gtest/gtest-spi.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/fixtures.h"

namespace {

struct PeerTool : testing::Test {
    int client = -1;
    Conn peer;

    PeerTool()
    {
        int ends[2];
        tcp_pair(ends);
        client = ends[0];
        peer.fd = ends[1];
        peer.seconds = 1;
    }
    ~PeerTool() override { close(client); }

    void client_sends(const std::string &bytes) { sendto(client, bytes.data(), bytes.size(), 0, nullptr, 0); }
    bool client_sees_the_end()
    {
        char byte;
        return recvfrom(client, &byte, 1, 0, nullptr, nullptr) == 0;
    }
};

}

TEST_F(PeerTool, AnotherTypeThanExpectedFailsAndHangsUp)
{
    client_sends(wire::encode(wire::message(wire::TPACALL, "x")));
    EXPECT_NONFATAL_FAILURE(peer.expect(wire::TPCALL), "type 4 came where type 3");
    EXPECT_TRUE(client_sees_the_end());
}

TEST_F(PeerTool, SilenceFailsWithinItsTime)
{
    EXPECT_NONFATAL_FAILURE(peer.expect(wire::TPCALL), "no message came");
}

TEST_F(PeerTool, HalfAMessageFails)
{
    client_sends(wire::encode(wire::message(wire::TPCALL, "0123456789")).substr(0, 140));
    EXPECT_NONFATAL_FAILURE(peer.expect(wire::TPCALL), "not all of it");
}

TEST_F(PeerTool, FieldsThatDifferFail)
{
    client_sends(wire::encode(wire::message(wire::TPCALL, "abcd")));
    Expected got = peer.expect(wire::TPCALL);
    EXPECT_NONFATAL_FAILURE(got.data("abce"), "\"abcd\"");
    EXPECT_NONFATAL_FAILURE(got.svcname("X"), "svcname");
    EXPECT_NONFATAL_FAILURE(got.cd(1), "cd");
    EXPECT_NONFATAL_FAILURE(got.seqno(1), "seqno");
    EXPECT_NONFATAL_FAILURE(got.flags(1), "flags");
    got.data("abcd").svcname("").cd(0);
}

TEST_F(PeerTool, SomethingWhereNothingWasAwaitedFails)
{
    peer.expect_nothing();
    client_sends("x");
    ASSERT_TRUE(wait_for_bytes(peer.fd, 1));
    EXPECT_NONFATAL_FAILURE(peer.expect_nothing(), "something came");
}

TEST_F(PeerTool, StandingConnectionIsNoEnd)
{
    EXPECT_NONFATAL_FAILURE(peer.expect_end(), "the connection stands");
}

TEST_F(PeerTool, CodecGivesBackWhatItTook)
{
    wire::frame message = wire::message(3, "data", {.rcode = -1, .flags = 0xfedcba98, .cd = -2, .sessid = 9});
    message.svcname = "SERVICE";
    message.subtype = "struct";
    message.xid[2] = 77;
    message.callid[1] = 88;
    wire::frame back = wire::decode_header(wire::encode(message));
    EXPECT_EQ(wire::encode_header(back), wire::encode_header(message));
    EXPECT_EQ(back.rcode, -1);
    EXPECT_EQ(back.flags, 0xfedcba98u);
    EXPECT_EQ(back.svcname, "SERVICE");
}

TEST(FaultTool, NthAllocationFailsAndNoOther)
{
    faults::fail_allocation(2);
    void *first = malloc(10), *second = calloc(2, 5), *third = malloc(10);
    faults::disarm_allocations();
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(third, nullptr);
    EXPECT_TRUE(faults::allocation_failed());
    EXPECT_EQ(faults::count(faults::ALLOCATE), 3);
    free(first);
    free(third);
}

TEST(FaultTool, CallsFailAtTheirTurn)
{
    int ends[2];
    tcp_pair(ends);
    char byte = 'x';
    faults::fail(faults::SEND, 2, EPIPE);
    EXPECT_EQ(send(ends[0], &byte, 1, 0), 1);
    EXPECT_EQ(send(ends[0], &byte, 1, 0), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(send(ends[0], "abcdef", 6, 0), 6);
    char bytes[10];
    ASSERT_TRUE(wait_for_bytes(ends[1], 7));
    faults::limit(faults::RECV, 2);
    EXPECT_EQ(recv(ends[1], bytes, sizeof bytes, 0), 2);
    faults::fail(faults::RECV, 1, 0);
    EXPECT_EQ(recv(ends[1], bytes, sizeof bytes, 0), 0);
    EXPECT_EQ(recv(ends[1], bytes, sizeof bytes, 0), 2);
    close(ends[0]);
    close(ends[1]);
}
