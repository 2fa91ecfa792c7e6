// Threads that have no context of their own share one conversion area; each works on its own buffer.
#include "support/gtest.h"
#include "vorn/fields.h"

#include <stdlib.h>
#include <string.h>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int TEXT = FB_STRING * 0x4000000 + 1, NUMBER = FB_INT * 0x4000000 + 2;
constexpr int THREADS = 4, ROUNDS = 40;

// Runs `work(n)` on each of the threads.
template <typename Work> void on_each(Work work)
{
    std::vector<std::thread> threads;
    for (int n = 0; n < THREADS; n++)
        threads.emplace_back(work, n);
    for (std::thread &thread : threads)
        thread.join();
}

}  // namespace

TEST(FieldThreads, ConvertByteArraysThatTheSharedAreaGrowsFor)
{
    on_each([](int n) {
        FBUF *fields = fballoc(10, 2 << 20);
        ASSERT_NE(fields, nullptr);
        for (int round = 0; round < ROUNDS; round++) {
            // Some beyond what the area keeps, some within.
            std::string bytes((size_t)(round % 4 == 0 ? 1200000 : 70000 + n * 1000), (char)('a' + n));
            ASSERT_EQ(fbputt(fields, TEXT, bytes.data(), (int)bytes.size(), FB_CARRAY), 1);
            const char *text = fbgetvals_tu(fields, TEXT, 0);
            ASSERT_EQ(strlen(text), bytes.size());
            EXPECT_EQ(memcmp(text, bytes.data(), bytes.size()), 0);
            ASSERT_EQ(fbdelall(fields, TEXT), 1);
        }
        fbfree(fields);
    });
}

TEST(FieldThreads, ConvertNumbersEachToItsOwn)
{
    on_each([](int n) {
        FBUF *fields = fballoc(10, 100);
        ASSERT_NE(fields, nullptr);
        for (int round = 0; round < 20 * ROUNDS; round++) {
            std::string number = std::to_string(n * 1000000 + round), back(20, '\0');
            int length = 20;
            ASSERT_EQ(fbputt(fields, NUMBER, number.data(), 0, FB_STRING), 1);
            ASSERT_EQ(fbget_tut(fields, NUMBER, 0, back.data(), &length, FB_STRING), 1);
            EXPECT_STREQ(back.c_str(), number.c_str());
            ASSERT_EQ(fbchg_tut(fields, NUMBER, 0, number.data(), (int)number.size(), FB_CARRAY), 1);
            EXPECT_EQ(fbgetvall_tu(fields, NUMBER, 0), n * 1000000 + round);
            ASSERT_EQ(fbdelete(fields, NUMBER, 0), 1);
        }
        fbfree(fields);
    });
}

TEST(FieldThreads, SearchTheirOwnBuffersThroughTheSharedCache)
{
    on_each([](int n) {
        FBUF *fields = fballoc(200, 0);
        ASSERT_NE(fields, nullptr);
        for (int i = 0; i < 100; i++) {
            int value = n * 1000 + i;
            ASSERT_EQ(fbput(fields, NUMBER + i % 3, (char *)&value, 0), 1);
        }
        int value = 0;
        for (int round = 0; round < ROUNDS; round++)
            ASSERT_EQ(fbget_tu(fields, NUMBER + round % 3, 0, (char *)&value, nullptr), 1);
        fbfree(fields);
    });
}
