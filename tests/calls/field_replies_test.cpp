// Field buffers as replies: whatever block a reply comes in, its fields are found where they are.
#include "support/fixtures.h"
#include "support/gtest.h"
#include "support/peer.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/errors.h"
#include "vorn/fields.h"
#include "vorn/session.h"

#include <random>
#include <stdlib.h>
#include <string.h>
#include <vector>

namespace {

constexpr int WANTED = FB_INT * 0x4000000 + 1, OTHER = FB_INT * 0x4000000 + 2;
constexpr int WANTED_FIELDS = 6;

struct FieldReplies : SessionTest {};

// Wire form of a field buffer: some fields of another key, then those that are looked for.
std::string field_data(int others)
{
    auto word = [](int value) { return wire::word((uint32_t)value); };
    std::string data = word(8888) + word(8 + 8 * (others + WANTED_FIELDS));
    for (int i = 0; i < others; i++)
        data += word(OTHER) + word(i);
    for (int i = 0; i < WANTED_FIELDS; i++)
        data += word(WANTED) + word(i);
    return data;
}

}  // namespace

// A stored reply takes the buffer's place and may move to an address where another buffer was searched before.
TEST_F(FieldReplies, StoredOnesAreSearchedAfreshWhereverTheyStand)
{
    constexpr int ROUNDS = 60;
    ASSERT_TRUE(start());
    FBUF *fields = fballoc(0, 3000);
    char *ignored = tpalloc((char *)"STRING", nullptr, 0);
    long length;
    std::mt19937 random(1);
    std::vector<void *> blocks(64);
    for (int round = 0; round < ROUNDS; round++) {
        for (int i = 0; i < 40; i++) {  // so that blocks move about
            void *&block = blocks[random() % blocks.size()];
            free(block);
            block = malloc(random() % 5000);
        }
        int others = (int)(random() % 4);
        peer.play([&] {
            wire::frame call = peer.expect(wire::TPACALL).frame;
            wire::frame pump = peer.expect(wire::TPCALL).frame;
            peer.reply_to(call, field_data(others), {.buftype = wire::FIELD});
            peer.reply_to(pump, "");
        });
        int cd = tpacall((char *)"S", (char *)fields, 0, 0);
        ASSERT_GT(cd, 0);
        ASSERT_EQ(tpcall((char *)"PUMP", nullptr, 0, &ignored, &length, 0), 1);
        peer.done();
        ASSERT_EQ(tpgetrply(&cd, (char **)&fields, &length, 0), 1);
        ASSERT_EQ(fbkeyoccur(fields, WANTED), WANTED_FIELDS) << "round " << round;
        for (int i = 0; i < WANTED_FIELDS; i++)
            ASSERT_EQ(fbgetvall_tu(fields, WANTED, i), i) << "round " << round;
    }
    for (void *block : blocks)
        free(block);
    tpfree(ignored);
    fbfree(fields);
}

TEST_F(FieldReplies, WithoutDataInALargerBlockIsAnEmptyFieldBuffer)
{
    constexpr int SIZE = 9000;
    ASSERT_TRUE(start());
    for (int i = 0; i < 20; i++) {
        char *dirt = (char *)malloc(SIZE);
        memset(dirt, 0x1c, SIZE);
        free(dirt);
    }
    FBUF *fields = fballoc(0, 0);
    long length = -1;
    peer.play([&] {
        peer.expect(wire::TPCALL);
        peer.reply("", {.buftype = wire::FIELD, .bufsize = SIZE - 200});
    });
    ASSERT_EQ(tpcall((char *)"S", (char *)fields, 0, (char **)&fields, &length, 0), 1);
    peer.done();
    EXPECT_EQ(fbisfbuf(fields), 1);
    EXPECT_EQ(fbfldcount(fields), 0);
    EXPECT_EQ(fbget_used(fields), 8);
    tpfree((char *)fields);
}

// The session's cache isn't that of the time before and after it.
TEST_F(FieldReplies, BufferChangedInASessionIsSearchedAfreshAfterIt)
{
    FBUF *fields = fballoc(100, 0);
    for (int i = 0; i < 8; i++)
        ASSERT_EQ(fbput(fields, i < 4 ? OTHER : WANTED, (char *)&i, 0), 1);
    ASSERT_NE(fbgetval(fields, WANTED, 2, nullptr), nullptr);
    ASSERT_TRUE(start());
    ASSERT_EQ(fbdelall(fields, OTHER), 4);
    for (int i = 0; i < 4; i++)
        ASSERT_EQ(fbinsert(fields, WANTED, 0, (char *)&i, 0), 1);
    peer.play([&] {
        peer.expect(wire::TPEND);
        peer.reply();
        peer.expect_end();
    });
    ASSERT_EQ(tpend(), 1);
    peer.done();
    EXPECT_EQ(fbkeyoccur(fields, WANTED), 8);
    EXPECT_EQ(fbgetvall_tu(fields, WANTED, 3), 0);
    EXPECT_EQ(fbgetvall_tu(fields, WANTED, 6), 6);
    fbfree(fields);
}
