// The road of one call, as the bytes that pass on the connection.
#include <string.h>

#include "support/fixtures.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/session.h"

struct Golden : SessionTest {};

TEST_F(Golden, ToupperWalksTheRecordedConversation)
{
    peer.play([&] { peer.follow(GOLDEN_DIR "/toupper.txt"); });
    ASSERT_EQ(tpstart(nullptr), 0);
    char *buffer = tpalloc((char *)"STRING", nullptr, 0);
    strcpy(buffer, "abcd");
    long length = 0;
    EXPECT_EQ(tpcall((char *)"TOUPPER", buffer, 0, &buffer, &length, 0), 1);
    EXPECT_EQ(length, 5);
    EXPECT_STREQ(buffer, "ABCD");
    EXPECT_EQ(current_row()->tpurcode, 5);
    tpfree(buffer);
    EXPECT_EQ(tpend(), 1);
}
