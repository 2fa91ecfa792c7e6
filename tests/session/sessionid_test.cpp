// The identity that a session's start gives the client, and its loss.
#include "queue/keystore.h"

#include "runtime/mthr.h"
#include "session/cliapi.h"
#include "support/fixtures.h"
#include "support/gtest.h"
#include "vorn/errors.h"

namespace {

struct SessionIdentity : SessionTest {};

TEST_F(SessionIdentity, NodeCarriesTheBitsAboveThePlace)
{
    wthr_var *block = current_block();
    block->sessionid = 3 * 0x200000 + 2 * 0x4000 + 17;
    EXPECT_EQ(_get_sessionid(0, block), 3 * 0x200000 + 2 * 0x4000 + 17);
    EXPECT_EQ(_get_sessionid(SESSIONID_GLOBAL, block), 3 << 21 | 0x1fffff);
    EXPECT_EQ(_get_sessionid(0x20000, block), 3 * 0x200000 + 2 * 0x4000 + 17);
}

TEST_F(SessionIdentity, LostConnectionTakesItAlong)
{
    ASSERT_TRUE(start());
    wthr_var *block = current_block();
    EXPECT_GE(_get_sessionid(0, block), 0);
    set_tperrno(0);
    _clhc_close(block->clhfd, block);
    EXPECT_EQ(_get_sessionid(0, block), -1);
    EXPECT_EQ(get_tperrno(), TPEPROTO);
    EXPECT_EQ(_get_sessionid(SESSIONID_GLOBAL, block), -1);
}

}  // namespace
